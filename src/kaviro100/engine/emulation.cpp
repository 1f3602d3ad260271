#include "engine/emulation.h"

#include <algorithm>
#include <cmath>
#include <set>

#include "engine/outer_approx.h"
#include "engine/solve.h"
#include "util/error.h"
#include "util/strings.h"

namespace kvr {
namespace {

// Rounds of outer-approximation cuts before a solve gives up.
constexpr int kMaxCutRounds = 1000;
// Planes around the circle for each two-dimensional cone before a MIP search starts.
constexpr int kInitialCircleCuts = 8;
// Restarts of a search before lazy constraints are taken to make no progress.
constexpr int kMaxRestarts = 100000;

bool better(int sense, double a, double b) {  // a strictly better than b
  if (std::isnan(b)) return !std::isnan(a);
  return sense == KVR_MINIMIZE ? a < b : a > b;
}

bool violates_lazy(const SolveContext &ctx, size_t from, const double *x) {
  double tol = ctx.params->get_dbl(ParamId::FeasibilityTol);
  for (size_t k = from; k < ctx.lazy.size(); ++k)
    if (ctx.lazy[k].violation(x) > tol) return true;
  return false;
}

// An improving direction of an LP without rows, which an engine may solve without giving a ray:
// each variable moves against its cost towards an infinite bound. False when there are rows.
bool rowless_ray(const ModelData &m, size_t added_rows, std::vector<double> &ray) {
  if (m.num_constrs() > 0 || added_rows > 0) return false;
  const double dir = m.sense == KVR_MAXIMIZE ? 1.0 : -1.0;
  bool any = false;
  for (int j = 0; j < m.num_vars(); ++j) {
    double d = dir * m.vars.obj[j];
    bool open = d > 0 ? m.vars.ub[j] >= KVR_INFINITY : m.vars.lb[j] <= -KVR_INFINITY;
    ray[j] = d != 0.0 && open ? d : 0.0;
    any = any || ray[j] != 0.0;
  }
  return any;
}

// Lazy rows from the callback, for an engine that cannot add rows during its search.
class LazyRestart final : public EmulationStep {
 public:
  IncumbentVerdict screen(Emulation &e, const double *x, double, double) override {
    return violates_lazy(e.ctx, e.ctx.lazy_in_engine, x) ? IncumbentVerdict::Restart
                                                         : IncumbentVerdict::Accept;
  }
  bool reject_final(Emulation &e, const std::vector<double> &x) override {
    return violates_lazy(e.ctx, e.ctx.lazy_in_engine, x.data());
  }
  void before_restart(Emulation &e, EngineRun &) override {
    if (++restarts_ > kMaxRestarts)
      fail(KVR_ERROR_CALLBACK, "Lazy constraints: no progress after %d restarts", restarts_ - 1);
    size_t rows = 0;
    for (size_t k = e.ctx.lazy_in_engine; k < e.ctx.lazy.size(); ++k)
      rows += e.ctx.lazy[k].qconstr < 0;
    if (rows > 0) e.ctx.logf("Lazy constraints: %zu added; restarting the search\n", rows);
  }

 private:
  int restarts_ = 0;
};

// Quadratic constraints, for an engine that takes none: cuts that support them.
class OuterApproximation final : public EmulationStep {
 public:
  explicit OuterApproximation(Emulation &e)
      : oa_(e.model, e.params), ftol_(e.params.get_dbl(ParamId::FeasibilityTol)) {}

  std::optional<EngineResult> prepare(Emulation &e) override {
    const ModelData &m = e.model;
    SolveContext &ctx = e.ctx;
    if (!ctx.lazy.empty()) return std::nullopt;  // a sub-solve: the caller's cuts hold already
    if (m.is_mip()) {
      // A model with integers starts from the cuts that approximate its continuous relaxation:
      // they bound the search from the first node (an epigraph variable would otherwise leave
      // it unbounded), and an infeasible relaxation settles the model. Fixed planes around each
      // cone give the first search a close polyhedral approximation whatever its incumbents are;
      // their number is bounded by the size of the model.
      const size_t limit = 4 * static_cast<size_t>(m.num_vars() + m.num_constrs()) + 1000;
      oa_.initial_cuts(kInitialCircleCuts, limit, ctx.lazy);
      EngineResult relaxed = solve_continuous(e, e.params, nullptr);
      if (relaxed.status == KVR_INFEASIBLE) return relaxed;
      e.extra_iters += relaxed.itercount;
    } else {
      // Tangents at the point of the bounds nearest the origin: without them each epigraph
      // variable is unbounded below, and the rounds would block one ray at a time.
      std::vector<double> x0(static_cast<size_t>(m.num_vars()));
      for (int j = 0; j < m.num_vars(); ++j) x0[j] = std::clamp(0.0, m.vars.lb[j], m.vars.ub[j]);
      oa_.tangents_at(x0.data(), ctx.lazy);
    }
    return std::nullopt;
  }

  // Cuts are met more tightly than the constraints they approximate, so that a point the engine
  // calls feasible is within FeasibilityTol of the quadratic constraints.
  double row_tolerance() const override { return std::max(0.1 * ftol_, 1e-10); }
  bool rounds_of_rows() const override { return true; }

  IncumbentVerdict screen(Emulation &e, const double *x, double obj, double best) override {
    if (oa_.separate(x, ftol_, e.ctx.lazy) == 0) return IncumbentVerdict::Accept;
    rejected_.emplace_back(x, x + e.model.num_vars());
    // A solution no better than the engine's incumbent does not move its cutoff, so the search
    // goes on; its cuts and its repair wait for the next restart.
    const double slack = 1e-9 * (1.0 + std::fabs(best));
    if (!std::isnan(best) &&
        !better(e.ctx.sense, obj, best + (e.ctx.sense == KVR_MINIMIZE ? slack : -slack)))
      return IncumbentVerdict::Ignore;
    return IncumbentVerdict::Restart;
  }

  // A round of cuts at the LP optimum, or along the ray of an unbounded LP.
  bool after_continuous_run(Emulation &e, EngineRun &run) override {
    SolveContext &ctx = e.ctx;
    const ModelData &m = e.model;
    const int n = m.num_vars();
    const int status = run.outcome();
    const size_t before = ctx.lazy.size();
    std::vector<double> x(n, 0.0);
    bool has_x = run.point(x);
    if (status == KVR_OPTIMAL) {
      last_violation_ = oa_.max_violation(x.data());
      // The same point twice: the engine takes the new cuts as met, no progress is possible.
      if (x == last_x_) return false;
      last_x_ = x;
      if (last_violation_ > ftol_) oa_.separate(x.data(), ftol_, ctx.lazy);
    } else if (status == KVR_INF_OR_UNBD) {
      if (run.retry_without_presolve()) return true;
    } else if (status == KVR_UNBOUNDED) {
      std::vector<double> ray(n);
      bool has_ray = run.ray(ray) || rowless_ray(m, ctx.lazy_in_engine, ray);
      if (!has_ray) {
        // The presolved model gave no ray: solve it as it is.
        if (run.retry_without_presolve()) return true;
        unbounded_unproven_ = true;
        return false;
      }
      if (!has_x && m.num_constrs() == 0 && ctx.lazy_in_engine == 0) {
        // Without rows, the point nearest the origin within the bounds is feasible.
        for (int j = 0; j < n; ++j) x[j] = std::clamp(0.0, m.vars.lb[j], m.vars.ub[j]);
        has_x = true;
      }
      last_violation_ = oa_.max_violation(x.data());
      if (oa_.block_ray(x.data(), ray.data(), n, ctx.lazy) < 0) {
        // Every quadratic constraint recedes along the ray: unbounded once a point of the
        // model is known, which the next rounds look for.
        if (last_violation_ <= ftol_ && has_x) return false;
        if (oa_.separate(x.data(), ftol_, ctx.lazy) == 0) {
          unbounded_unproven_ = true;
          return false;
        }
      }
    }
    const size_t added = ctx.lazy.size() - before;
    if (added == 0) return false;
    cuts_total_ += added;
    ++cut_rounds_;
    if (status == KVR_OPTIMAL)
      ctx.logf("Cut round %3d: %4zu cuts, largest violation %.3e, objective %.10e\n", cut_rounds_,
               added, last_violation_, run.objective());
    else
      ctx.logf("Cut round %3d: %4zu cuts against a ray of the unbounded relaxation\n", cut_rounds_,
               added);
    if (cut_rounds_ >= kMaxCutRounds) {
      rounds_exhausted_ = true;
      ctx.lazy.resize(before);
      return false;
    }
    run.add_rows();
    run.quiet();
    if (!run.limit_to_time_left()) {
      e.timed_out = true;
      return false;
    }
    return true;
  }

  bool reject_final(Emulation &e, const std::vector<double> &x) override {
    if (oa_.separate(x.data(), ftol_, e.ctx.lazy) == 0) return false;
    rejected_.push_back(x);
    return true;
  }

  void before_restart(Emulation &e, EngineRun &run) override {
    repair_rejected(e, run);
    size_t cuts = 0;
    for (size_t k = e.ctx.lazy_in_engine; k < e.ctx.lazy.size(); ++k)
      cuts += e.ctx.lazy[k].qconstr >= 0;
    if (cuts > 0) {
      cuts_total_ += cuts;
      e.ctx.logf("Cut round %3d: %4zu cuts at a rejected incumbent; restarting the search\n",
                 ++cut_rounds_, cuts);
    }
  }

  bool may_restart() const override { return cut_rounds_ < kMaxCutRounds; }

  void finish(Emulation &e, EngineRun &run, EngineResult &r, bool &has_x,
              bool engine_point_feasible) override {
    SolveContext &ctx = e.ctx;
    const bool mip = e.model.is_mip();
    if (!may_restart()) rounds_exhausted_ = true;
    // The approximation decides only when its last point satisfies the quadratic constraints.
    if (!mip && r.status == KVR_OPTIMAL) {
      std::vector<double> x(e.model.num_vars(), 0.0);
      run.point(x);
      last_violation_ = oa_.max_violation(x.data());
      if (last_violation_ > ftol_) rounds_exhausted_ = true;
    }
    if (mip) {
      std::erase_if(*run.found, [&](const std::vector<double> &x) {
        return oa_.max_violation(x.data()) > ftol_ || violates_lazy(ctx, 0, x.data());
      });
      if (engine_point_feasible && rounds_exhausted_) has_x = false;
    }
    if (e.timed_out) {
      r.status = KVR_TIME_LIMIT;
    } else if (unbounded_unproven_) {
      r.status = KVR_INF_OR_UNBD;
      ctx.log(
          "The relaxation is unbounded, but no point satisfying the quadratic constraints "
          "was found to prove the model unbounded\n");
    } else if (rounds_exhausted_) {
      const bool have = mip ? !run.found->empty() : has_x;
      r.status = have ? KVR_SUBOPTIMAL : KVR_NUMERIC;
      ctx.logf("Outer approximation stopped after %d rounds with a violation of %.3e left%s\n",
               cut_rounds_, last_violation_,
               have ? "; the solution is the best found" : "; no solution");
    }
    if (cut_rounds_ > 0 || cuts_total_ > 0)
      ctx.logf("Outer approximation: %d rounds, %zu cuts\n", cut_rounds_, cuts_total_);
  }

 private:
  // The continuous model of a MIP with quadratic constraints: its relaxation, or, given fix_at,
  // the model with every integer variable fixed at its value there. The rows in ctx.lazy hold in
  // it as well, and the cuts its outer approximation adds on the way are appended to them: they
  // support the constraints at points of the whole model, so they are valid for the MIP too.
  static EngineResult solve_continuous(Emulation &e, const ParamValues &params,
                                       const double *fix_at) {
    const ModelData &m = e.model;
    SolveContext &ctx = e.ctx;
    ModelData relaxed = m;
    for (int j = 0; j < m.num_vars(); ++j) {
      if (m.vars.vtype[j] == KVR_CONTINUOUS) continue;
      if (fix_at)
        relaxed.set_bounds(j, std::round(fix_at[j]), std::round(fix_at[j]));
      else
        relaxed.binary_to_integer(j);  // keeps the bounds 0 and 1 as the type goes
      relaxed.set_vtype(j, KVR_CONTINUOUS);
    }
    SolveContext sub = ctx.side(params, relaxed);
    sub.lazy = std::move(ctx.lazy);
    EngineProblem problem;
    problem.model = &relaxed;
    problem.user_vars = ctx.user_vars;
    EngineResult r = e.engine->solve(problem, params, sub);
    ctx.absorb_memory(sub);
    ctx.lazy = std::move(sub.lazy);
    if (fix_at) return r;
    ctx.logf(
        "Continuous relaxation: %s, %zu cuts to start the search from\n",
        r.status == KVR_OPTIMAL ? format("bound %.10e", r.objval).c_str() : status_text(r.status),
        ctx.lazy.size());
    if (r.status == KVR_INFEASIBLE) {
      r.objbound = ctx.sense == KVR_MINIMIZE ? KVR_INFINITY : -KVR_INFINITY;
      r.x.clear();
    }
    return r;
  }

  // An incumbent rejected for its quadratic constraints keeps its integer values: the
  // continuous model they leave is solved by its own approximation, which gives a solution of
  // the model when those values allow one, and cuts at the points where the search is heading.
  void repair_rejected(Emulation &e, EngineRun &run) {
    const ModelData &m = e.model;
    SolveContext &ctx = e.ctx;
    std::vector<double> key;
    for (const std::vector<double> &x : rejected_) {
      key.clear();
      for (int j = 0; j < m.num_vars(); ++j)
        if (m.vars.vtype[j] != KVR_CONTINUOUS) key.push_back(std::round(x[j]));
      if (!repaired_.insert(key).second) continue;
      ParamValues sub_params = e.params;
      const double tl = e.params.get_dbl(ParamId::TimeLimit);
      if (tl < KVR_INFINITY)
        sub_params.set_dbl(ParamId::TimeLimit, std::max(0.0, tl - ctx.elapsed()));
      EngineResult fixed = solve_continuous(e, sub_params, x.data());
      e.extra_iters += fixed.itercount;
      if (fixed.status != KVR_OPTIMAL || fixed.x.empty() ||
          oa_.max_violation(fixed.x.data()) > ftol_ || violates_lazy(ctx, 0, fixed.x.data()))
        continue;
      const double obj = m.objective_value(fixed.x.data());
      if (better(ctx.sense, obj, *run.best_obj))
        ctx.logf("Repaired a rejected incumbent: objective %.10e\n", obj);
      run.found->push_back(std::move(fixed.x));
    }
    rejected_.clear();
  }

  OuterApprox oa_;
  const double ftol_;
  // Incumbents rejected for violating a quadratic constraint in the current run, and the
  // integer values already repaired.
  std::vector<std::vector<double>> rejected_;
  std::set<std::vector<double>> repaired_;
  std::vector<double> last_x_;
  double last_violation_ = 0.0;
  int cut_rounds_ = 0;
  size_t cuts_total_ = 0;
  bool rounds_exhausted_ = false, unbounded_unproven_ = false;
};

// The steps, in the order they screen incumbents and prepare restarts: when each is needed (from
// the model and what the engine takes) and how it is made.
struct StepEntry {
  bool (*needed)(const ModelData &m, const EngineCapabilities &caps);
  std::unique_ptr<EmulationStep> (*make)(Emulation &e);
};

const StepEntry kSteps[] = {
    // Any MIP: the callback may add lazy rows during the search.
    {[](const ModelData &m, const EngineCapabilities &caps) {
       return m.is_mip() && !caps.lazy_in_search;
     },
     [](Emulation &) -> std::unique_ptr<EmulationStep> { return std::make_unique<LazyRestart>(); }},
    {[](const ModelData &m, const EngineCapabilities &caps) {
       return m.qconstrs.size() > 0 && !caps.convex_qcons;
     },
     [](Emulation &e) -> std::unique_ptr<EmulationStep> {
       return std::make_unique<OuterApproximation>(e);
     }},
};

}  // namespace

Emulation::Emulation(const ModelData &m, const ParamValues &p, const EngineCapabilities &caps,
                     SolveContext &c)
    : model(m), params(p), ctx(c) {
  for (const StepEntry &s : kSteps)
    if (s.needed(m, caps)) steps_.push_back(s.make(*this));
}

Emulation::~Emulation() = default;

std::optional<EngineResult> Emulation::prepare(Engine &e) {
  engine = &e;
  for (auto &s : steps_)
    if (auto settled = s->prepare(*this)) return settled;
  return std::nullopt;
}

double Emulation::row_tolerance() const {
  double tol = 0.0;
  for (auto &s : steps_)
    if (double t = s->row_tolerance(); t > 0) tol = tol > 0 ? std::min(tol, t) : t;
  return tol;
}

bool Emulation::rounds_of_rows() const {
  return !model.is_mip() &&
         std::any_of(steps_.begin(), steps_.end(), [](auto &s) { return s->rounds_of_rows(); });
}

IncumbentVerdict Emulation::screen(const double *x, double obj, double best) {
  for (auto &s : steps_)
    if (IncumbentVerdict v = s->screen(*this, x, obj, best); v != IncumbentVerdict::Accept)
      return v;
  return IncumbentVerdict::Accept;
}

bool Emulation::after_run(EngineRun &run) {
  if (!model.is_mip()) {
    if (ctx.stop != StopReason::None) return false;
    for (auto &s : steps_)
      if (s->after_continuous_run(*this, run)) return true;
    return false;
  }
  // Restart when an incumbent was rejected, or when the final solution violates a row that is
  // not yet one of the engine's.
  bool restart = ctx.stop == StopReason::Restart;
  if (!restart && ctx.stop == StopReason::None) {
    std::vector<double> x(model.num_vars(), 0.0);
    if (run.point(x))
      for (auto &s : steps_)
        if (s->reject_final(*this, x)) {
          restart = true;
          break;
        }
  }
  if (!restart) return false;
  for (auto &s : steps_) s->before_restart(*this, run);
  run.add_rows();
  for (auto &s : steps_)
    if (!s->may_restart()) return false;
  if (!run.limit_to_time_left()) {
    timed_out = true;
    return false;
  }
  // Keep only solutions that satisfy every lazy row; restart from the best of them.
  std::vector<std::vector<double>> &found = *run.found;
  std::erase_if(found,
                [&](const std::vector<double> &x) { return violates_lazy(ctx, 0, x.data()); });
  double &best_obj = *run.best_obj;
  best_obj = kNaN;
  const std::vector<double> *best = nullptr;
  for (const auto &x : found) {
    double obj = model.objective_value(x.data());
    if (better(ctx.sense, obj, best_obj)) best_obj = obj, best = &x;
  }
  ctx.solcount = static_cast<double>(found.size());
  if (best) run.set_start(*best);
  return true;
}

void Emulation::finish(EngineRun &run, EngineResult &r, bool &has_x, bool engine_point_feasible) {
  for (auto &s : steps_) s->finish(*this, run, r, has_x, engine_point_feasible);
}

bool solve_failed_qp_by_epigraph(
    const ModelData &user, const Reformulated &rf, const ParamValues &params,
    const EngineCapabilities &caps, Engine &engine, SolveContext &ctx,
    const std::function<EngineProblem(const Reformulated &)> &problem_of, EngineResult &r,
    std::optional<Reformulated> &epigraph) {
  if (r.status != KVR_NUMERIC || !r.x.empty() || ctx.stop != StopReason::None || ctx.is_mip ||
      rf.model().q.size() == 0 || rf.model().qconstrs.size() > 0)
    return false;
  ctx.log("The engine's QP method failed; solving again with the objective approximated by cuts\n");
  epigraph.emplace(reformulate(user, params, caps, true));
  ctx.engine_model = &epigraph->model();
  ctx.rewritten = true;
  ctx.lazy.clear();
  ctx.lazy_in_engine = 0;
  const double iters = r.itercount;
  r = engine.solve(problem_of(*epigraph), params, ctx);
  r.itercount += iters;
  return true;
}

}  // namespace kvr
