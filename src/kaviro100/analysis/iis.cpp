// Irreducible infeasible subsystems (KVRcomputeIIS).
//
// An IIS is a set of constraints and bounds that has no solution while every proper subset has
// one. The search keeps a selection of elements that is known to be infeasible and tries to drop
// candidates from it (a deletion filter): a candidate whose removal leaves the selection
// infeasible goes; one whose removal makes it feasible belongs to the IIS. Groups of candidates
// are tried together first and split only when their removal makes the selection feasible, so
// the number of feasibility solves grows with the size of the IIS rather than with the model.
// Every element that stays was tested on its own against a superset of the final selection,
// which makes the result irreducible unless a test could not be decided.
//
// Feasibility is decided by the engine on the model with a zero objective, integrality kept.
// For a continuous model (or an infeasible relaxation of a MIP without SOS or general
// constraints) the engine's own infeasible subsystem of the relaxation is the starting
// selection; the filter then confirms it element by element, or reduces it further.
//
// IISMethod: -1 and 0 start from the engine's subsystem where there is one; 1 runs the filter
// over the whole model; 2 keeps every bound in the model and filters constraints only (no bound
// is reported); 3 computes, for a MIP whose relaxation is infeasible, an IIS of the relaxation
// (infeasible for the MIP too, but not necessarily minimal for it).
//
// Forces (IIS*Force): 0 drops the element from the model before the search, 1 keeps it in every
// subsystem; -1 lets the search decide. TimeLimit bounds the whole computation; when it runs out
// (or the search is interrupted) the current selection, which is infeasible, is the result and
// IISMinimal reads 0.
#include <algorithm>
#include <array>
#include <cmath>

#include "engine/engine.h"
#include "engine/solve.h"
#include "model/model.h"
#include "reform/reform.h"
#include "util/error.h"

namespace kvr {
namespace {

enum Kind { kConstr, kLower, kUpper, kSos, kQConstr, kGen, kKinds };

bool is_constraint(Kind k) { return k != kLower && k != kUpper; }

struct Element {
  Kind kind;
  int index;
};

// One flag per element of each kind: the elements a subsystem holds.
struct Selection {
  std::array<std::vector<char>, kKinds> on;
  bool has(Element e) const { return on[e.kind][e.index] != 0; }
  void set(Element e, bool v) { on[e.kind][e.index] = v ? 1 : 0; }
};

enum class Verdict { Feasible, Infeasible, Undecided };

// The termination parameters that would stop a feasibility test for reasons unrelated to
// feasibility (TimeLimit is applied to the whole computation, the memory limits stay).
constexpr ParamId kTestDefaults[] = {
    ParamId::Cutoff,    ParamId::BestObjStop,   ParamId::BestBdStop, ParamId::IterationLimit,
    ParamId::NodeLimit, ParamId::SolutionLimit, ParamId::WorkLimit,  ParamId::BarIterLimit};

void reset_to_default(ParamValues &p, ParamId id) {
  const ParamDef &d = param_def(id);
  if (d.type == ParamType::Int)
    p.set_int(id, static_cast<long long>(d.def));
  else
    p.set_dbl(id, d.def);
}

class IisSearch {
 public:
  IisSearch(kvr_model *model, SolveContext &ctx, Engine &engine);
  void run();

 private:
  const ModelData &user() const { return model_->data; }
  int force_of(Element e) const;
  ModelData build(const Selection &sel, bool relaxed) const;
  // Decides whether the selection is feasible. With strict set, a model the engine cannot take
  // fails the call; otherwise such a test is undecided.
  Verdict test(const Selection &sel, bool relaxed, bool strict = false);
  bool out_of_time() const;
  bool stopped();
  void filter(std::vector<Element> &cand, size_t lo, size_t hi, bool known_needed, bool relaxed);
  void filter_singly(const std::vector<Element> &cand, bool relaxed);
  bool seed_from_engine(bool relaxation);
  void report_progress();
  void store_result(bool minimal);
  int count(const Selection &sel, bool constraints) const;

  kvr_model *model_;
  SolveContext &ctx_;
  Engine &engine_;
  ParamValues test_params_;
  int method_;
  bool bounds_are_candidates_;
  ModelData base_;  // the user's model as the tests see it: zero objective, binaries as integers
  bool plain_ = false;  // nothing for the rewriting to do: the engine's own subsystem may seed

  Selection sel_;        // the current selection (always infeasible once established)
  Selection confirmed_;  // elements known to belong to the IIS
  std::vector<Element> forced_in_;
  std::vector<Element> candidates_;
  bool undecided_ = false;  // some test could not be decided: the result may not be minimal
  std::string undecided_reason_;
  int solves_ = 0;
  double work_ = 0.0;
};

IisSearch::IisSearch(kvr_model *model, SolveContext &ctx, Engine &engine)
    : model_(model), ctx_(ctx), engine_(engine), test_params_(model->env.params) {
  for (ParamId id : kTestDefaults) reset_to_default(test_params_, id);
  method_ = model->env.params.get_int(ParamId::IISMethod);
  bounds_are_candidates_ = method_ != 2;

  base_ = user();
  ModelData &b = base_;
  b.clear_objective();
  b.set_objsense(KVR_MINIMIZE);
  b.clear_scenarios();
  b.set_num_starts(0);
  // A binary's bounds are ordinary bounds of an integer variable here, so that each can be
  // dropped on its own.
  bool semi = false;
  for (int j = 0; j < b.num_vars(); ++j) {
    b.binary_to_integer(j);
    const char t = b.vars.vtype[j];
    semi = semi || t == KVR_SEMICONT || t == KVR_SEMIINT;
  }
  plain_ = !semi && b.sos.size() == 0 && b.qconstrs.size() == 0 && b.gens.size() == 0;

  const int sizes[kKinds] = {b.num_constrs(), b.num_vars(),      b.num_vars(),
                             b.sos.size(),    b.qconstrs.size(), b.gens.size()};
  for (int k = 0; k < kKinds; ++k) {
    sel_.on[k].assign(static_cast<size_t>(sizes[k]), 1);
    confirmed_.on[k].assign(static_cast<size_t>(sizes[k]), 0);
  }
  // Infinite bounds take no part; bounds are never candidates with method 2.
  for (int j = 0; j < b.num_vars(); ++j) {
    if (b.vars.lb[j] <= -KVR_INFINITY) sel_.on[kLower][j] = 0;
    if (b.vars.ub[j] >= KVR_INFINITY) sel_.on[kUpper][j] = 0;
  }
}

int IisSearch::force_of(Element e) const {
  const ModelData &d = user();
  switch (e.kind) {
    case kConstr:
      return static_cast<int>(
          d.constrs.extra.get(static_cast<int>(AttrId::IISConstrForce), e.index));
    case kLower:
      return static_cast<int>(d.vars.extra.get(static_cast<int>(AttrId::IISLBForce), e.index));
    case kUpper:
      return static_cast<int>(d.vars.extra.get(static_cast<int>(AttrId::IISUBForce), e.index));
    case kSos:
      return static_cast<int>(d.sos.extra.get(static_cast<int>(AttrId::IISSOSForce), e.index));
    case kQConstr:
      return static_cast<int>(
          d.qconstrs.extra.get(static_cast<int>(AttrId::IISQConstrForce), e.index));
    case kGen:
      return static_cast<int>(
          d.gens.extra.get(static_cast<int>(AttrId::IISGenConstrForce), e.index));
    default:
      return -1;
  }
}

ModelData IisSearch::build(const Selection &sel, bool relaxed) const {
  ModelData sub = base_;
  for (int j = 0; j < sub.num_vars(); ++j) {
    // With method 2 the bounds stay as they are.
    if (bounds_are_candidates_ && !sel.on[kLower][j]) sub.set_lb(j, -KVR_INFINITY);
    if (bounds_are_candidates_ && !sel.on[kUpper][j]) sub.set_ub(j, KVR_INFINITY);
    // The relaxation drops integrality; a semi-integer variable keeps its zero-or-range domain.
    const char t = sub.vars.vtype[j];
    if (relaxed && t == KVR_INTEGER) sub.set_vtype(j, KVR_CONTINUOUS);
    if (relaxed && t == KVR_SEMIINT) sub.set_vtype(j, KVR_SEMICONT);
  }
  auto renumbering = [](const std::vector<char> &on, bool &any_off) {
    Renumbering pos(on.size());
    int next = 0;
    for (size_t i = 0; i < on.size(); ++i) {
      pos[i] = on[i] ? next++ : -1;
      any_off = any_off || !on[i];
    }
    return pos;
  };
  bool off = false;
  Renumbering rows = renumbering(sel.on[kConstr], off);
  if (off) sub.delete_constrs(rows);
  off = false;
  Renumbering sos = renumbering(sel.on[kSos], off);
  if (off) sub.delete_sos(sos);
  off = false;
  Renumbering qcs = renumbering(sel.on[kQConstr], off);
  if (off) sub.delete_qconstrs(qcs);
  off = false;
  Renumbering gens = renumbering(sel.on[kGen], off);
  if (off) sub.delete_gens(gens);
  return sub;
}

bool IisSearch::out_of_time() const {
  return ctx_.elapsed() >= model_->env.params.get_dbl(ParamId::TimeLimit);
}

bool IisSearch::stopped() { return ctx_.must_stop() || out_of_time(); }

Verdict IisSearch::test(const Selection &sel, bool relaxed, bool strict) {
  if (stopped()) return Verdict::Undecided;
  ModelData sub = build(sel, relaxed);
  Reformulated rf;
  try {
    if (strict) check_solvable(sub);
    rf = reformulate(sub, test_params_);
  } catch (const Error &e) {
    if (strict) throw;
    if (undecided_reason_.empty()) undecided_reason_ = e.what();
    return Verdict::Undecided;
  }
  double remaining = model_->env.params.get_dbl(ParamId::TimeLimit) - ctx_.elapsed();
  if (remaining < KVR_INFINITY) test_params_.set_dbl(ParamId::TimeLimit, std::max(remaining, 0.0));

  SolveContext sub_ctx = ctx_.side(test_params_, rf.model());
  sub_ctx.user_vars = rf.user_vars;
  sub_ctx.rewritten = rf.changed;
  EngineProblem problem;
  problem.model = &rf.model();
  problem.user_vars = rf.user_vars;
  EngineResult r;
  try {
    r = engine_.solve(problem, test_params_, sub_ctx);
  } catch (const Error &e) {
    if (strict) throw;
    if (undecided_reason_.empty()) undecided_reason_ = e.what();
    return Verdict::Undecided;
  }
  ++solves_;
  work_ += r.work;
  ctx_.work_now = work_;
  ctx_.absorb_memory(sub_ctx);
  switch (r.status) {
    case KVR_OPTIMAL:
    case KVR_SUBOPTIMAL:
    case KVR_SOLUTION_LIMIT:
    case KVR_UNBOUNDED:  // an unbounded model has solutions
      return Verdict::Feasible;
    case KVR_INFEASIBLE:
    case KVR_INF_OR_UNBD:  // with a zero objective nothing is unbounded
      return Verdict::Infeasible;
    default:
      if (sub_ctx.is_mip && !r.found_x.empty()) return Verdict::Feasible;
      if (undecided_reason_.empty())
        undecided_reason_ =
            format("a feasibility test ended with status %s", status_text(r.status));
      return Verdict::Undecided;
  }
}

int IisSearch::count(const Selection &sel, bool constraints) const {
  int n = 0;
  for (int k = 0; k < kKinds; ++k) {
    if (is_constraint(static_cast<Kind>(k)) != constraints) continue;
    if (!constraints && !bounds_are_candidates_) continue;
    for (char c : sel.on[k]) n += c != 0;
  }
  return n;
}

void IisSearch::report_progress() {
  if (!ctx_.has_callback()) return;
  CallbackData cb{&ctx_, KVR_CB_IIS, {}};
  cb.values = {{KVR_CB_IIS_CONSTRMIN, static_cast<double>(count(confirmed_, true))},
               {KVR_CB_IIS_CONSTRMAX, static_cast<double>(count(sel_, true))},
               {KVR_CB_IIS_BOUNDMIN, static_cast<double>(count(confirmed_, false))},
               {KVR_CB_IIS_BOUNDMAX, static_cast<double>(count(sel_, false))},
               {KVR_CB_RUNTIME, ctx_.elapsed()},
               {KVR_CB_WORK, work_}};
  ctx_.invoke(cb);
}

// Tries to drop cand[lo, hi) from the selection. known_needed: dropping the whole range is known
// to make the selection feasible (no need to test it again).
void IisSearch::filter(std::vector<Element> &cand, size_t lo, size_t hi, bool known_needed,
                       bool relaxed) {
  if (lo >= hi) return;
  if (stopped()) {
    undecided_ = true;
    return;
  }
  Verdict v = Verdict::Feasible;
  if (!known_needed) {
    for (size_t k = lo; k < hi; ++k) sel_.set(cand[k], false);
    v = test(sel_, relaxed);
    if (v != Verdict::Infeasible)
      for (size_t k = lo; k < hi; ++k) sel_.set(cand[k], true);
  }
  if (v != Verdict::Infeasible && hi - lo == 1) {
    if (v == Verdict::Feasible)
      confirmed_.set(cand[lo], true);
    else
      undecided_ = true;
  }
  if (!known_needed || hi - lo == 1) report_progress();
  if (v == Verdict::Infeasible || hi - lo == 1) return;
  size_t mid = lo + (hi - lo) / 2;
  filter(cand, lo, mid, false, relaxed);
  // When the whole first half went, dropping the second half as well is the test that just
  // failed: it is needed without a new solve.
  bool first_half_gone = true;
  for (size_t k = lo; k < mid; ++k) first_half_gone = first_half_gone && !sel_.has(cand[k]);
  filter(cand, mid, hi, v == Verdict::Feasible && first_half_gone, relaxed);
}

// One test per candidate: the cheapest way to confirm a selection that is probably irreducible.
void IisSearch::filter_singly(const std::vector<Element> &cand, bool relaxed) {
  for (Element e : cand) {
    if (stopped()) {
      undecided_ = true;
      return;
    }
    sel_.set(e, false);
    Verdict v = test(sel_, relaxed);
    if (v != Verdict::Infeasible) sel_.set(e, true);
    if (v == Verdict::Feasible) confirmed_.set(e, true);
    if (v == Verdict::Undecided) undecided_ = true;
    report_progress();
  }
}

bool IisSearch::seed_from_engine(bool relaxation) {
  if (!plain_ || method_ == 1) return false;
  ModelData lp = build(sel_, true);
  std::vector<int> rows;  // row i of lp is user row rows[i]
  for (int i = 0; i < static_cast<int>(sel_.on[kConstr].size()); ++i)
    if (sel_.on[kConstr][i]) rows.push_back(i);
  SolveContext sub_ctx = ctx_.side(test_params_, lp);
  sub_ctx.user_vars = lp.num_vars();
  sub_ctx.rewritten = false;
  Engine::Subsystem found;
  bool got = false;
  try {
    got = engine_.infeasible_subsystem(lp, test_params_, sub_ctx, found);
  } catch (const Error &) {
    got = false;
  }
  ctx_.absorb_memory(sub_ctx);
  if (!got) {
    ctx_.log("The engine found no infeasible subsystem; filtering the whole model\n");
    return false;
  }
  // Candidates outside the engine's set leave; forced elements stay.
  Selection seeded = sel_;
  for (Element e : candidates_) {
    if (e.kind == kConstr || (bounds_are_candidates_ && (e.kind == kLower || e.kind == kUpper)))
      seeded.set(e, false);
  }
  for (int r : found.rows) seeded.on[kConstr][rows[r]] = sel_.on[kConstr][rows[r]];
  if (bounds_are_candidates_) {
    for (int j : found.lower) seeded.on[kLower][j] = sel_.on[kLower][j];
    for (int j : found.upper) seeded.on[kUpper][j] = sel_.on[kUpper][j];
  }
  Verdict v = test(seeded, true);
  if (v != Verdict::Infeasible) {
    ctx_.log(
        "The engine's infeasible subsystem is not infeasible on its own; filtering the "
        "whole model\n");
    return false;
  }
  sel_ = seeded;
  ctx_.env->logf("The engine's infeasible subsystem%s: %d constraints, %d bounds\n",
                 relaxation ? " of the relaxation" : "", count(sel_, true), count(sel_, false));
  return true;
}

void IisSearch::store_result(bool minimal) {
  Solution &s = model_->sol;
  auto as_int = [](const std::vector<char> &v) { return std::vector<int>(v.begin(), v.end()); };
  s.iis_constr = as_int(sel_.on[kConstr]);
  s.iis_sos = as_int(sel_.on[kSos]);
  s.iis_qconstr = as_int(sel_.on[kQConstr]);
  s.iis_genconstr = as_int(sel_.on[kGen]);
  if (bounds_are_candidates_) {
    s.iis_lb = as_int(sel_.on[kLower]);
    s.iis_ub = as_int(sel_.on[kUpper]);
  } else {
    s.iis_lb.assign(sel_.on[kLower].size(), 0);
    s.iis_ub.assign(sel_.on[kUpper].size(), 0);
  }
  s.iis_minimal = minimal ? 1 : 0;
  s.iis_available = true;
}

void IisSearch::run() {
  const ModelData &b = base_;
  const bool mip = b.is_mip();
  ctx_.env->logf(
      "Computing an irreducible infeasible subsystem (IIS) of %s: %d rows, %d columns%s\n",
      b.name.empty() ? "(unnamed)" : ("'" + b.name + "'").c_str(), b.num_constrs(), b.num_vars(),
      mip ? ", integer variables" : "");

  // Forces: 0 drops the element for good, 1 keeps it in every subsystem.
  bool excluded = false;
  for (int k = 0; k < kKinds; ++k) {
    Kind kind = static_cast<Kind>(k);
    for (int i = 0; i < static_cast<int>(sel_.on[k].size()); ++i) {
      Element e{kind, i};
      bool bound = !is_constraint(kind);
      if (!sel_.has(e)) continue;  // an infinite bound
      if (bound && !bounds_are_candidates_) continue;
      int f = force_of(e);
      if (f == 0) {
        sel_.set(e, false);
        excluded = true;
      } else if (f == 1) {
        forced_in_.push_back(e);
        confirmed_.set(e, true);
      } else {
        candidates_.push_back(e);
      }
    }
  }
  // Constraints are tried before bounds: an IIS then explains the conflict with bounds where it
  // can, which is usually the easier one to read.
  std::stable_partition(candidates_.begin(), candidates_.end(),
                        [](Element e) { return is_constraint(e.kind); });

  // Is the model infeasible at all? A MIP whose relaxation is infeasible needs no MIP solve.
  bool relaxation_infeasible = false;
  Verdict v = Verdict::Undecided;
  if (mip) {
    v = test(sel_, true, true);
    relaxation_infeasible = v == Verdict::Infeasible;
  }
  if (!relaxation_infeasible) v = test(sel_, false, true);
  if (v == Verdict::Feasible) {
    if (!excluded)
      fail(KVR_ERROR_IIS_NOT_INFEASIBLE, "Cannot compute an IIS: the model is feasible");
    Selection all = sel_;
    for (auto &flags : all.on) std::fill(flags.begin(), flags.end(), 1);
    for (int j = 0; j < b.num_vars(); ++j) {
      all.on[kLower][j] = b.vars.lb[j] > -KVR_INFINITY;
      all.on[kUpper][j] = b.vars.ub[j] < KVR_INFINITY;
    }
    // The whole model may hold what the engine cannot take (a quadratic constraint forced out).
    Verdict whole = Verdict::Undecided;
    try {
      whole = test(all, false, true);
    } catch (const Error &) {
    }
    if (whole == Verdict::Feasible)
      fail(KVR_ERROR_IIS_NOT_INFEASIBLE, "Cannot compute an IIS: the model is feasible");
    fail(KVR_ERROR_IIS_NOT_INFEASIBLE,
         "Cannot compute an IIS: the model is feasible without the elements whose IIS force "
         "attribute is 0 (IISConstrForce, IISLBForce, ...), so every IIS contains one of them");
  }
  if (v == Verdict::Undecided) {
    ctx_.env->logf("No IIS: infeasibility could not be established (%s)\n",
                   ctx_.memory_stop == StopReason::SoftMemory ? "SoftMemLimit reached"
                   : out_of_time()                            ? "time limit reached"
                   : !undecided_reason_.empty()               ? undecided_reason_.c_str()
                                                              : "interrupted");
    fail_if_memory_exceeded(ctx_, "IIS computation");
    return;
  }

  // The relaxation of a MIP decides only with method 3, or when the engine's subsystem of an
  // infeasible relaxation seeds the MIP search.
  bool relaxed_search = mip && relaxation_infeasible && method_ == 3;
  bool seeded = (!mip || relaxation_infeasible) && seed_from_engine(mip);
  report_progress();
  if (seeded) {
    std::vector<Element> kept;
    for (Element e : candidates_)
      if (sel_.has(e)) kept.push_back(e);
    candidates_ = std::move(kept);
    filter_singly(candidates_, relaxed_search);
    int dropped = 0;
    for (Element e : candidates_) dropped += !sel_.has(e);
    if (dropped == 0 && !undecided_)
      ctx_.log("Every member of the engine's subsystem is needed\n");
    else if (dropped > 0)
      ctx_.env->logf("%d members of the engine's subsystem were not needed\n", dropped);
  } else {
    filter(candidates_, 0, candidates_.size(), false, relaxed_search);
  }

  // Forced elements are in the IIS by request; it is irreducible only if each is needed too.
  bool forced_needed = true;
  for (Element e : forced_in_) {
    if (stopped()) {
      undecided_ = true;
      break;
    }
    sel_.set(e, false);
    Verdict fv = test(sel_, relaxed_search);
    sel_.set(e, true);
    if (fv != Verdict::Feasible) forced_needed = false;
    if (fv == Verdict::Undecided) undecided_ = true;
  }
  fail_if_memory_exceeded(ctx_, "IIS computation");

  bool minimal = !undecided_ && forced_needed && !relaxed_search;
  store_result(minimal);
  ctx_.env->logf("\nIIS: %d constraints and %d bounds, %s; %d feasibility solves, %.2f seconds\n",
                 count(sel_, true), count(sel_, false), minimal ? "minimal" : "not minimal",
                 solves_, ctx_.elapsed());
  if (relaxed_search)
    ctx_.log(
        "  an IIS of the continuous relaxation (IISMethod 3): infeasible for the model, "
        "irreducible for the relaxation\n");
  if (!forced_needed) ctx_.log("  elements forced into the IIS are not all needed\n");
  if (undecided_) {
    const char *stop = ctx_.memory_stop == StopReason::SoftMemory ? "SoftMemLimit reached"
                       : ctx_.stop == StopReason::CallbackError   ? "the callback failed"
                       : ctx_.stop == StopReason::User            ? "interrupted"
                       : ctx_.stop == StopReason::Work            ? "work limit reached"
                       : out_of_time()                            ? "time limit reached"
                                                                  : nullptr;
    if (stop)
      ctx_.env->logf("  search stopped early: %s\n", stop);
    else
      ctx_.env->logf("  some feasibility tests could not be decided: %s\n",
                     undecided_reason_.c_str());
  }
}

void compute_iis(kvr_model *model) {
  if (model->optimizing.load())
    fail(KVR_ERROR_OPTIMIZATION_IN_PROGRESS, "The model is being optimized already");
  update_model(model);
  check_remote_settings(&model->env);
  OptimizingFlag flag(model);
  SignalScope signals(model);
  model->env.sync_logfile();

  SolveContext ctx;
  ctx.model = model;
  ctx.env = &model->env;
  ctx.params = &model->env.params;
  ctx.started = std::chrono::steady_clock::now();
  ctx.sense = KVR_MINIMIZE;
  ctx.user_vars = model->data.num_vars();
  check_memory_at_start(ctx, "IIS computation");
  if (ctx.memory_stop == StopReason::SoftMemory) return;

  std::unique_ptr<Engine> engine = make_highs_engine();
  IisSearch search(model, ctx, *engine);
  search.run();
  if (ctx.callback_error)
    fail(KVR_ERROR_CALLBACK, "The callback returned %d; IIS computation stopped",
         ctx.callback_error);
}

}  // namespace
}  // namespace kvr

extern "C" {

int KVRcomputeIIS(KVRmodel *model) {
  return kvr::run_on_model(model, [&] { kvr::compute_iis(model); });
}

}  // extern "C"
