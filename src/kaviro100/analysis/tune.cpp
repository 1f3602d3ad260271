// The parameter tuner (KVRtunemodel, KVRtunemodels) and the application of its results
// (KVRgettuneresult).
//
// The tuner measures the parameters in force (the baseline) and then climbs from there: it tries
// every single change of a tunable parameter to the best set known so far, and when a candidate
// is better the search continues from it. Every set is solved TuneTrials times with different
// seeds on working copies of the models, so the models' own parameters and solutions are never
// touched. The search ends when no neighbour of the best set improves it, when the time
// (TuneTimeLimit) runs out, when the best set solves within TuneTargetTime, or on
// an interrupt. Each improvement is a result; the best one comes first. With TuneTargetMIPGap
// > 0 a MIP trial ends at that gap (MIPGap is raised to it), so sets are compared by the time
// they need to reach it.
//
// Only parameters the engine acts on are varied, with values that differ in effect, and never
// one marked with KVRfixtuneparam or already changed in a model's environment: those belong to
// the baseline.
//
// Comparison (TuneCriterion, for MIPs; continuous models always use the automatic rule):
//   -1  fewer trials stopped by the time limit, then a smaller gap in those, then runtime
//    0  runtime only
//    1  smaller gap (0 for a trial that finished), then runtime
//    2  better best objective, then runtime
//    3  better bound, then runtime
// TuneMetric aggregates the trials of all models: -1 and 0 by their average, 1 by the worst.
// A runtime counts as better only when it is at least kMinGain below the other, so that the
// timing noise of a machine does not produce results.
//
// Time: TuneTimeLimit -1 allows 20 times the time the baseline took, at least 10 seconds and at
// most an hour. Each baseline trial may run for a quarter of the tuning time divided by the
// number of trials (never longer than the model's TimeLimit); candidates get the same limit, cut
// further to twice the slowest trial of the best set when that one finished every trial (a
// candidate that slow cannot win). With TuneCleanup > 0 that fraction of the time is kept for
// the cleanup: every change of the best set is removed in turn, and the removal is kept when the
// set without it is not worse.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdarg>
#include <memory>
#include <string>
#include <vector>

#include "engine/applied_params.h"
#include "engine/solve.h"
#include "model/model.h"
#include "util/error.h"

namespace kvr {
namespace {

using Clock = std::chrono::steady_clock;
using ChangeSet = std::vector<ParamChange>;

constexpr double kMinGain = 0.05;       // relative runtime difference that counts
constexpr double kMaxGap = 1e3;         // gaps are capped here (a zero objective gives infinity)
constexpr double kNoSolution = 1e4;     // the "gap" of a trial without a solution
constexpr double kMinTrialTime = 0.05;  // candidates always get at least this much per trial

enum Kinds { kContinuousLinear = 1, kContinuousQuadratic = 2, kDiscrete = 4, kAllKinds = 7 };

struct TunedParam {
  ParamId id;
  int kinds;  // the kinds of model the engine applies it to
  std::vector<double> values;
};

// The values tried. Presolve 1 and 2 act like the automatic choice, and ScaleFlag and Symmetry
// act only when 0, so those values are not tried. Crossover matters only for the barrier method
// (see neighbours()).
const std::vector<TunedParam> &tuned_params() {
  static const std::vector<TunedParam> table = {
      {ParamId::Presolve, kAllKinds, {0}},
      {ParamId::Method, kContinuousLinear, {1, 0, 2}},
      {ParamId::Crossover, kContinuousLinear, {0}},
      {ParamId::Heuristics, kDiscrete, {0, 0.2, 0.5}},
      {ParamId::Symmetry, kDiscrete, {0}},
      {ParamId::ScaleFlag, kContinuousLinear | kDiscrete, {0}},
  };
  return table;
}

int kind_of(const ModelData &d) {
  if (d.is_mip()) return kDiscrete;
  return d.q.size() > 0 || d.qconstrs.size() > 0 ? kContinuousQuadratic : kContinuousLinear;
}

const char *kind_name(const ModelData &d) {
  if (d.is_mip()) return "a MIP";
  if (d.qconstrs.size() > 0) return "a continuous QCP";
  return d.q.size() > 0 ? "a continuous QP" : "a continuous LP";
}

bool close(double a, double b) {
  return a == b || std::fabs(a - b) <= 1e-9 * std::max({1.0, std::fabs(a), std::fabs(b)});
}

std::string value_text(ParamId id, double v) {
  return param_def(id).type == ParamType::Int ? format("%d", static_cast<int>(v)) : format("%g", v);
}

std::string set_text(const ChangeSet &set) {
  if (set.empty()) return "(the baseline settings)";
  std::string text;
  for (const ParamChange &c : set) {
    if (!text.empty()) text += ", ";
    text += format("%s=%s", param_def(c.id).name, value_text(c.id, c.value).c_str());
  }
  return text;
}

void apply_change(ParamValues &p, const ParamChange &c) {
  if (param_def(c.id).type == ParamType::Int)
    p.set_int(c.id, std::llround(c.value));
  else
    p.set_dbl(c.id, c.value);
}

// The measurement of one parameter set over all trials of all models.
struct Score {
  double primary = 0;  // by TuneCriterion; smaller is better
  double runtime = 0;  // seconds
  double gap = 0;      // MIP gap (0 for finished trials), aggregated like the others
  double slowest = 0;  // the longest trial
  int unfinished = 0;  // trials stopped by their time limit
  int trials = 0;
};

// True when a is better than b by the criterion's rule; with factor > 1 (the cleanup's test), a
// runtime that is not worse by more than the noise margin passes too.
bool passes(const Score &a, const Score &b, double factor) {
  if (!close(a.primary, b.primary)) return a.primary < b.primary;
  return a.runtime < b.runtime * factor;
}

class Tuner {
 public:
  explicit Tuner(const std::vector<kvr_model *> &models);
  void run();

 private:
  struct Outcome {
    bool complete = false;  // every trial ran (not stopped by time, interrupt or hopelessness)
    Score score;
  };

  double elapsed() const { return std::chrono::duration<double>(Clock::now() - start_).count(); }
  bool interrupted() const;
  void say(int level, const char *fmt, ...) const __attribute__((format(printf, 3, 4)));
  std::string score_text(const Score &s) const;

  double effective(const ChangeSet &set, ParamId id) const;
  bool tunable(const TunedParam &tp) const;
  std::vector<ChangeSet> neighbours(const ChangeSet &set) const;

  // Solves every model TuneTrials times with the set (ref == nullptr: the baseline). Against a
  // reference, measuring stops as soon as the set can no longer pass it by `factor`, and a
  // failing solve only disqualifies the set.
  Outcome measure(const ChangeSet &set, const std::string &label, const Score *ref, double factor,
                  double deadline);
  Outcome measure_trials(const ChangeSet &set, const std::string &label, const Score *ref,
                         double factor, double deadline);
  double primary_of(const kvr_model &copy, bool finished) const;
  bool target_reached(const Score &s) const;

  void search(double deadline);
  void cleanup(double deadline);
  void store_results();

  std::vector<kvr_model *> models_;
  std::vector<std::unique_ptr<kvr_model>> copies_;
  kvr_env *log_;
  const ParamValues baseline_;
  int kinds_ = 0;
  bool mip_ = false;

  int trials_, criterion_, metric_, output_, keep_;
  double time_limit_, cleanup_share_, target_time_, target_gap_;
  double trial_limit_ = 0;

  Clock::time_point start_;
  Score base_score_;
  std::vector<ChangeSet> visited_;
  std::vector<std::pair<ChangeSet, Score>> improved_;  // in the order found: each beats the last
  int sets_tried_ = 0;
  bool out_of_time_ = false;
  bool user_stopped_ = false;
};

Tuner::Tuner(const std::vector<kvr_model *> &models)
    : models_(models), log_(&models.front()->env), baseline_(models.front()->env.params) {
  const ParamValues &p = baseline_;
  trials_ = p.get_int(ParamId::TuneTrials);
  criterion_ = p.get_int(ParamId::TuneCriterion);
  metric_ = p.get_int(ParamId::TuneMetric);
  output_ = p.get_int(ParamId::TuneOutput);
  keep_ = p.get_int(ParamId::TuneResults);
  time_limit_ = p.get_dbl(ParamId::TuneTimeLimit);
  cleanup_share_ = p.get_dbl(ParamId::TuneCleanup);
  target_time_ = p.get_dbl(ParamId::TuneTargetTime);
  target_gap_ = p.get_dbl(ParamId::TuneTargetMIPGap);
  for (kvr_model *m : models_) {
    kinds_ |= kind_of(m->data);
    auto copy = std::make_unique<kvr_model>(*m);
    copy->also_stop_on = &m->terminate_requested;
    copies_.push_back(std::move(copy));
  }
  mip_ = kinds_ == kDiscrete;
}

bool Tuner::interrupted() const {
  for (kvr_model *m : models_)
    if (m->terminate_requested.load()) return true;
  return false;
}

void Tuner::say(int level, const char *fmt, ...) const {
  if (output_ < level || !log_->output_on()) return;
  va_list ap;
  va_start(ap, fmt);
  std::string text = vformat(fmt, ap);
  va_end(ap);
  log_->log(text);
}

std::string Tuner::score_text(const Score &s) const {
  const char *agg = metric_ == 1 ? "worst" : "mean";
  std::string text = format("%s runtime %.3f s", agg, s.runtime);
  if (s.unfinished > 0) {
    text += format(", %d of %d trials stopped at the time limit", s.unfinished, s.trials);
    if (mip_ && s.gap < kMaxGap) text += format(", %s gap %.4g%%", agg, 100 * s.gap);
  }
  if (mip_ && criterion_ == 2) text += format(", %s objective %.10g", agg, s.primary);
  if (mip_ && criterion_ == 3) text += format(", %s bound %.10g", agg, -s.primary);
  return text;
}

double Tuner::effective(const ChangeSet &set, ParamId id) const {
  for (const ParamChange &c : set)
    if (c.id == id) return c.value;
  return baseline_.get_dbl(id);
}

bool Tuner::tunable(const TunedParam &tp) const {
  if (!(tp.kinds & kinds_) || !param_applied(tp.id)) return false;
  const size_t at = static_cast<size_t>(tp.id);
  for (kvr_model *m : models_) {
    const ParamValues &p = m->env.params;
    if (p.tune_fixed[at] || !p.is_default(tp.id)) return false;
  }
  return true;
}

std::vector<ChangeSet> Tuner::neighbours(const ChangeSet &set) const {
  std::vector<ChangeSet> result;
  for (const TunedParam &tp : tuned_params()) {
    if (!tunable(tp)) continue;
    if (tp.id == ParamId::Crossover && effective(set, ParamId::Method) != 2) continue;
    for (double v : tp.values) {
      if (v == effective(set, tp.id)) continue;
      ChangeSet next;
      for (const ParamChange &c : set)
        if (c.id != tp.id) next.push_back(c);
      if (v != baseline_.get_dbl(tp.id)) next.push_back({tp.id, v});
      // Crossover means nothing without the barrier method.
      if (tp.id == ParamId::Method && v != 2)
        std::erase_if(next, [](const ParamChange &c) { return c.id == ParamId::Crossover; });
      std::sort(next.begin(), next.end(),
                [](const ParamChange &a, const ParamChange &b) { return a.id < b.id; });
      result.push_back(std::move(next));
    }
  }
  return result;
}

double Tuner::primary_of(const kvr_model &copy, bool finished) const {
  const Solution &s = copy.sol;
  if (!copy.data.is_mip()) return finished ? 0.0 : 1.0;
  double gap = 0.0;
  if (!finished)
    gap = s.x.empty() ? kNoSolution : std::isnan(s.mipgap) ? kMaxGap : std::min(s.mipgap, kMaxGap);
  const double sense = copy.data.sense == KVR_MAXIMIZE ? -1.0 : 1.0;
  switch (criterion_) {
    case 0:
      return 0.0;
    case 1:
      return gap;
    case 2:
      return s.x.empty() || std::isnan(s.objval) ? KVR_INFINITY : sense * s.objval;
    case 3:
      return std::isnan(s.objbound) ? KVR_INFINITY : -sense * s.objbound;
    default:
      return finished ? 0.0 : 1.0 + gap;
  }
}

Tuner::Outcome Tuner::measure(const ChangeSet &set, const std::string &label, const Score *ref,
                              double factor, double deadline) {
  ++sets_tried_;
  if (!ref) return measure_trials(set, label, ref, factor, deadline);
  try {
    return measure_trials(set, label, ref, factor, deadline);
  } catch (const Error &e) {
    if (e.code() == KVR_ERROR_OUT_OF_MEMORY) throw;
    say(2, "  %s failed: %s\n", label.c_str(), e.what());
    return Outcome();
  }
}

Tuner::Outcome Tuner::measure_trials(const ChangeSet &set, const std::string &label,
                                     const Score *ref, double factor, double deadline) {
  Outcome out;
  Score &s = out.score;
  const int total = trials_ * static_cast<int>(models_.size());
  double sum_primary = 0, sum_runtime = 0, sum_gap = 0;
  // The average of values still to come is bounded below only when none can be negative.
  const bool nonnegative = !(mip_ && (criterion_ == 2 || criterion_ == 3));
  double limit = trial_limit_;
  if (ref && ref->unfinished == 0)
    limit = std::min(limit, std::max(2 * ref->slowest, kMinTrialTime));
  const long long seeds = static_cast<long long>(param_def(ParamId::Seed).max) + 1;
  for (int t = 0; t < trials_; ++t) {
    for (size_t i = 0; i < models_.size(); ++i) {
      if (interrupted()) {
        user_stopped_ = true;
        return out;
      }
      const double remaining = deadline - elapsed();
      if (remaining <= 0) {
        out_of_time_ = true;
        return out;
      }
      const bool budget_cut = remaining < limit;
      kvr_model &copy = *copies_[i];
      ParamValues &p = copy.env.params;
      p = models_[i]->env.params;
      for (const ParamChange &c : set) apply_change(p, c);
      const int seed = static_cast<int>((p.get_int(ParamId::Seed) + t) % seeds);
      p.set_int(ParamId::Seed, seed);
      p.set_dbl(ParamId::TimeLimit,
                std::min(p.get_dbl(ParamId::TimeLimit), budget_cut ? remaining : limit));
      p.set_int(ParamId::OutputFlag, 0);
      const bool mip = copy.data.is_mip();
      if (mip && target_gap_ > 0)
        p.set_dbl(ParamId::MIPGap, std::max(p.get_dbl(ParamId::MIPGap), target_gap_));
      // Every trial solves from scratch: a start kept from the last trial would favour it.
      copy.engine_state.reset();
      optimize(&copy);
      const int status = copy.sol.status;
      if (status == KVR_INTERRUPTED) {
        user_stopped_ = true;
        return out;
      }
      const bool finished = status != KVR_TIME_LIMIT && status != KVR_NUMERIC &&
                            status != KVR_SUBOPTIMAL && status != KVR_MEM_LIMIT;
      if (status == KVR_TIME_LIMIT && budget_cut) {
        out_of_time_ = true;  // the tuning time ran out within this trial: no measurement
        return out;
      }
      const double runtime = copy.sol.runtime;
      const double primary = primary_of(copy, finished);
      double gap = 0.0;
      if (mip && !finished)
        gap = copy.sol.x.empty()            ? kNoSolution
              : std::isnan(copy.sol.mipgap) ? kMaxGap
                                            : std::min(copy.sol.mipgap, kMaxGap);
      ++s.trials;
      s.unfinished += !finished;
      s.slowest = std::max(s.slowest, runtime);
      if (metric_ == 1) {
        s.primary = s.trials == 1 ? primary : std::max(s.primary, primary);
        s.runtime = std::max(s.runtime, runtime);
        s.gap = std::max(s.gap, gap);
      } else {
        sum_primary += primary, sum_runtime += runtime, sum_gap += gap;
        s.primary = sum_primary / s.trials;
        s.runtime = sum_runtime / s.trials;
        s.gap = sum_gap / s.trials;
      }
      if (output_ >= 2 && log_->output_on()) {
        std::string line = format("  %s", label.c_str());
        if (models_.size() > 1) line += format(", model %zu", i);
        line +=
            format(", trial %d (Seed %d): %.3f s, %s", t + 1, seed, runtime, status_text(status));
        if (mip && !finished && !copy.sol.x.empty() && gap < kMaxGap)
          line += format(", gap %.4g%%", 100 * gap);
        if (output_ >= 3) {
          line += format(", time limit %.3g s", p.get_dbl(ParamId::TimeLimit));
          if (!copy.sol.x.empty()) line += format(", objective %.10g", copy.sol.objval);
          if (mip) line += format(", %.0f nodes", copy.sol.nodecount);
          line += format(", %.0f iterations", copy.sol.itercount + copy.sol.baritercount);
        }
        log_->log(line + "\n");
      }
      if (!ref || s.trials == total) continue;
      // The trials still to come can only raise a maximum; an average of values that cannot be
      // negative ends at least at the sum so far divided by the number of trials.
      const double primary_low = metric_ == 1  ? s.primary
                                 : nonnegative ? sum_primary / total
                                               : -KVR_INFINITY;
      const double runtime_low = metric_ == 1 ? s.runtime : sum_runtime / total;
      const bool tie = close(primary_low, ref->primary);
      if ((primary_low > ref->primary && !tie) ||
          ((primary_low >= ref->primary || tie) && runtime_low >= ref->runtime * factor)) {
        say(3, "  %s cannot pass the best set any more; its other trials are skipped\n",
            label.c_str());
        return out;
      }
    }
  }
  out.complete = true;
  return out;
}

bool Tuner::target_reached(const Score &s) const {
  return s.unfinished == 0 && s.runtime <= target_time_;
}

void Tuner::search(double deadline) {
  ChangeSet current;
  bool moved = true;
  while (moved && !out_of_time_ && !user_stopped_) {
    moved = false;
    const Score ref = improved_.empty() ? base_score_ : improved_.back().second;
    for (ChangeSet &cand : neighbours(current)) {
      if (std::find(visited_.begin(), visited_.end(), cand) != visited_.end()) continue;
      visited_.push_back(cand);
      const std::string label = format("Set %d", sets_tried_);
      say(2, "%s: %s\n", label.c_str(), set_text(cand).c_str());
      Outcome o = measure(cand, label, &ref, 1.0 - kMinGain, deadline);
      if (out_of_time_ || user_stopped_) return;
      if (!o.complete || !passes(o.score, ref, 1.0 - kMinGain)) {
        if (o.complete)
          say(2, "  %s: %s, no improvement\n", label.c_str(), score_text(o.score).c_str());
        continue;
      }
      improved_.emplace_back(cand, o.score);
      current = cand;
      say(1, "Improved set after %.2f s: %s\n  %s (baseline: %s)\n", elapsed(),
          set_text(cand).c_str(), score_text(o.score).c_str(), score_text(base_score_).c_str());
      if (target_reached(o.score)) {
        say(1, "The improved set reaches the target; the search stops\n");
        return;
      }
      moved = true;
      break;  // go on from the new best set
    }
  }
}

void Tuner::cleanup(double deadline) {
  ChangeSet best = improved_.back().first;
  Score score = improved_.back().second;
  say(1, "Cleanup: trying the best set without each of its %zu changes\n", best.size());
  for (size_t k = 0; k < best.size() && best.size() > 1;) {
    ChangeSet cand = best;
    cand.erase(cand.begin() + static_cast<std::ptrdiff_t>(k));
    const std::string label = format("Set %d", sets_tried_);
    say(2, "%s: %s\n", label.c_str(), set_text(cand).c_str());
    Outcome o = measure(cand, label, &score, 1.0 + kMinGain, deadline);
    if (out_of_time_ || user_stopped_) break;
    if (o.complete && passes(o.score, score, 1.0 + kMinGain)) {
      say(1, "  %s=%s is not needed: %s\n", param_def(best[k].id).name,
          value_text(best[k].id, best[k].value).c_str(), score_text(o.score).c_str());
      best = std::move(cand);
      score = o.score;
    } else {
      say(2, "  %s=%s stays\n", param_def(best[k].id).name,
          value_text(best[k].id, best[k].value).c_str());
      ++k;
    }
  }
  improved_.back() = {best, score};
}

void Tuner::store_results() {
  std::vector<ChangeSet> sets;
  for (auto it = improved_.rbegin(); it != improved_.rend(); ++it)
    if (std::find(sets.begin(), sets.end(), it->first) == sets.end()) sets.push_back(it->first);
  if (keep_ >= 0 && static_cast<int>(sets.size()) > keep_) sets.resize(static_cast<size_t>(keep_));
  models_.front()->tune = TuneResults{baseline_, std::move(sets)};
}

void Tuner::run() {
  start_ = Clock::now();
  std::string names;
  for (const TunedParam &tp : tuned_params())
    if (tunable(tp)) names += std::string(names.empty() ? "" : ", ") + param_def(tp.id).name;
  std::string what = models_.size() == 1 ? std::string("the model")
                                         : format("%zu models together", models_.size());
  std::string budget = time_limit_ >= 0 ? format("time limit %g s", time_limit_)
                                        : std::string("time limit chosen from the baseline");
  say(1, "Tuning %s: %d trial%s per parameter set, %s\n", what.c_str(), trials_,
      trials_ == 1 ? "" : "s", budget.c_str());
  if (names.empty()) {
    say(1, "No parameter can be varied: every one the tuner tries is fixed or already set\n");
    store_results();
    return;
  }
  say(1, "Parameters varied: %s\n", names.c_str());

  double user_limit = KVR_INFINITY;
  for (kvr_model *m : models_)
    user_limit = std::min(user_limit, m->env.params.get_dbl(ParamId::TimeLimit));
  const double trials_all = static_cast<double>(trials_) * static_cast<double>(models_.size());
  trial_limit_ = std::min(user_limit, time_limit_ >= 0 ? time_limit_ / (4 * trials_all) : 300.0);
  say(3, "Each trial may run for %.3g s\n", trial_limit_);

  visited_.push_back(ChangeSet());
  Outcome base =
      measure(ChangeSet(), "Baseline", nullptr, 0.0, time_limit_ >= 0 ? time_limit_ : KVR_INFINITY);
  if (!base.complete) {
    say(1, "Tuning %s before the baseline was measured\n",
        user_stopped_ ? "interrupted" : "ran out of time");
    store_results();
    return;
  }
  base_score_ = base.score;
  say(1, "Baseline: %s\n", score_text(base_score_).c_str());
  const double total = time_limit_ >= 0 ? time_limit_ : std::clamp(20 * elapsed(), 10.0, 3600.0);
  if (time_limit_ < 0) say(3, "Tuning time limit: %.3g s\n", total);

  if (target_reached(base_score_)) {
    say(1,
        "The baseline already solves within the target time (TuneTargetTime %g s); nothing to "
        "improve\n",
        target_time_);
  } else {
    search(cleanup_share_ > 0 ? total * (1 - cleanup_share_) : total);
    if (!user_stopped_ && cleanup_share_ > 0 && !improved_.empty() &&
        improved_.back().first.size() > 1) {
      const bool search_out_of_time = out_of_time_;
      out_of_time_ = false;
      cleanup(total);
      out_of_time_ = out_of_time_ || search_out_of_time;
    }
  }

  store_results();
  const char *how = user_stopped_  ? "interrupted"
                    : out_of_time_ ? "stopped at its time limit"
                                   : "finished";
  say(1,
      "Tuning %s after %.2f s: %d parameter set%s measured (the baseline included), %zu "
      "improved set%s kept\n",
      how, elapsed(), sets_tried_, sets_tried_ == 1 ? "" : "s", models_.front()->tune.sets.size(),
      models_.front()->tune.sets.size() == 1 ? "" : "s");
  if (!improved_.empty())
    say(1, "Best set: %s\n  %s (baseline: %s)\n", set_text(improved_.back().first).c_str(),
        score_text(improved_.back().second).c_str(), score_text(base_score_).c_str());
  else if (!target_reached(base_score_))
    say(1, "No parameter set improved on the baseline\n");
}

void tune(const std::vector<kvr_model *> &models) {
  for (size_t i = 0; i < models.size(); ++i)
    if (models[i]->optimizing.load())
      fail(KVR_ERROR_OPTIMIZATION_IN_PROGRESS, "Model %zu is being optimized already", i);
  for (kvr_model *m : models) {
    update_model(m);
    check_remote_settings(&m->env);
    check_solvable(m->data);
  }
  const kvr_model *first = models.front();
  for (size_t i = 1; i < models.size(); ++i) {
    if (models[i]->data.is_mip() == first->data.is_mip()) continue;
    fail(KVR_ERROR_TUNE_MODEL_TYPES,
         "Model 0 ('%s') is %s and model %zu ('%s') is %s: models tuned together must be all "
         "MIPs or all continuous",
         first->data.name.c_str(), kind_name(first->data), i, models[i]->data.name.c_str(),
         kind_name(models[i]->data));
  }
  std::vector<std::unique_ptr<OptimizingFlag>> flags;
  std::vector<std::unique_ptr<SignalScope>> signals;
  for (kvr_model *m : models) {
    flags.push_back(std::make_unique<OptimizingFlag>(m));
    signals.push_back(std::make_unique<SignalScope>(m));
  }
  models.front()->env.sync_logfile();
  Tuner(models).run();
}

void apply_tune_result(kvr_model *model, int i) {
  const TuneResults &r = model->tune;
  if (r.sets.empty())
    fail(KVR_ERROR_DATA_NOT_AVAILABLE,
         "No tuning result available: the model was not tuned, or tuning found no improved "
         "parameter set");
  const int count = static_cast<int>(r.sets.size());
  if (i < 0 || i >= count)
    fail(KVR_ERROR_INDEX_OUT_OF_RANGE, "Tuning result %d does not exist: there %s %d (0 to %d)", i,
         count == 1 ? "is" : "are", count, count - 1);
  ParamValues target = r.baseline;
  for (const ParamChange &c : r.sets[static_cast<size_t>(i)]) apply_change(target, c);
  target.tune_fixed = model->env.params.tune_fixed;
  // The log file is the only setting with an effect beyond its value; it is opened before the
  // new values take over, so that a failure leaves every parameter as it was.
  ParamValues previous = model->env.params;
  model->env.params = std::move(target);
  try {
    model->env.sync_logfile();
  } catch (...) {
    model->env.params = std::move(previous);
    throw;
  }
}

}  // namespace
}  // namespace kvr

extern "C" {

int KVRtunemodel(KVRmodel *model) {
  return kvr::run_on_model(model, [&] { kvr::tune({model}); });
}

int KVRtunemodels(int nummodels, KVRmodel **models) {
  if (!models) return KVR_ERROR_NULL_ARGUMENT;
  if (nummodels < 1) return KVR_ERROR_INVALID_ARGUMENT;
  return kvr::run_on_model(models[0], [&] {
    std::vector<kvr_model *> list(models, models + nummodels);
    for (int i = 1; i < nummodels; ++i) {
      if (!list[static_cast<size_t>(i)])
        kvr::fail(KVR_ERROR_NULL_ARGUMENT, "Model %d of the list is NULL", i);
      if (!kvr::is_live(list[static_cast<size_t>(i)]))
        kvr::fail(KVR_ERROR_INVALID_ARGUMENT, "Model %d of the list: %s", i, kvr::kNotLiveMessage);
      for (int j = 0; j < i; ++j)
        if (list[static_cast<size_t>(j)] == list[static_cast<size_t>(i)])
          kvr::fail(KVR_ERROR_DUPLICATES, "The list holds the same model twice (%d and %d)", j, i);
    }
    kvr::tune(list);
  });
}

int KVRgettuneresult(KVRmodel *model, int i) {
  return kvr::run_on_model(model, [&] { kvr::apply_tune_result(model, i); });
}

}  // extern "C"
