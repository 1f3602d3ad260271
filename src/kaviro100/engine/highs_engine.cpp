// The HiGHS engine, driven through its C interface: passes the model, maps the library's
// parameters onto engine options, routes the engine's events (log lines, simplex, interior point
// and MIP progress, new incumbents, solution queries) to the SolveContext, and reads the results.
// What the engine lacks (lazy rows during the search, quadratic constraints) is made up for by
// the steps of engine/emulation.h, which it runs the model for again as long as they ask.
#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <thread>

#include "engine/emulation.h"
#include "engine/engine.h"
#include "engine/highs_api.h"
#include "engine/highs_instance.h"
#include "engine/registry.h"
#include "engine/solve.h"
#include "util/error.h"
#include "util/machine.h"
#include "util/strings.h"

namespace kvr {
namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();

double from_engine(double v) {
  if (v >= 1e30) return KVR_INFINITY;
  if (v <= -1e30) return -KVR_INFINITY;
  return v;
}

// State handed to the engine's event function.
struct RunState {
  SolveContext *ctx = nullptr;
  const ModelData *model = nullptr;
  bool mip = false;
  int ncols = 0;
  int threads = 0;  // the threads option of the run
  // Totals over earlier runs of a restarted solve.
  double base_iters = 0, base_nodes = 0;
  double best_obj = kNaN;  // best incumbent objective seen (user sense)
  std::vector<std::vector<double>> *found = nullptr;
  // Set while a concurrent LP solve runs: raised by whichever method finishes first.
  std::atomic<bool> *race_over = nullptr;
  Emulation *emulation = nullptr;  // screens incumbents, when the solve has steps
};

bool better(int sense, double a, double b) {  // a strictly better than b
  if (std::isnan(b)) return !std::isnan(a);
  return sense == KVR_MINIMIZE ? a < b : a > b;
}

// "Presolve reductions: rows 673(-148); columns 1439(-132); ..." -> deleted rows and columns.
bool parse_presolve_line(const char *msg, double &rowdel, double &coldel) {
  const char *p = std::strstr(msg, "reductions: rows ");
  if (!p) return false;
  long rows = 0, rdel = 0, cols = 0, cdel = 0;
  if (std::sscanf(p, "reductions: rows %ld(-%ld); columns %ld(-%ld)", &rows, &rdel, &cols, &cdel) !=
      4)
    return false;
  rowdel = static_cast<double>(rdel);
  coldel = static_cast<double>(cdel);
  return true;
}

void engine_event(int type, const char *msg, const HighsCallbackDataOut *out,
                  HighsCallbackDataIn *in, void *usrdata) {
  RunState &st = *static_cast<RunState *>(usrdata);
  SolveContext &ctx = *st.ctx;
  EngineEventScope in_event(st.threads);
  const double runtime = ctx.elapsed();
  try {
    switch (type) {
      case kHighsCallbackLogging: {
        if (!msg || ctx.quiet) break;
        ctx.log(msg);
        double rowdel, coldel;
        if (ctx.has_callback() && parse_presolve_line(msg, rowdel, coldel)) {
          CallbackData cb{&ctx, KVR_CB_PRESOLVE, {}};
          cb.values = {{KVR_CB_PRE_ROWDEL, rowdel},
                       {KVR_CB_PRE_COLDEL, coldel},
                       {KVR_CB_RUNTIME, runtime},
                       {KVR_CB_WORK, ctx.work_now}};
          ctx.invoke(cb);
        }
        if (ctx.has_callback()) {
          CallbackData cb{&ctx, KVR_CB_MESSAGE, {}};
          cb.msg = msg;
          cb.values = {{KVR_CB_RUNTIME, runtime}, {KVR_CB_WORK, ctx.work_now}};
          ctx.invoke(cb);
        }
        break;
      }
      case kHighsCallbackSimplexInterrupt: {
        double iters = st.base_iters + out->simplex_iteration_count;
        ctx.work_now = SolveContext::work_units(iters, st.base_nodes);
        if (!st.mip && ctx.has_callback() && ctx.progress_due()) {
          CallbackData cb{&ctx, KVR_CB_SIMPLEX, {}};
          cb.values = {{KVR_CB_SPX_ITRCNT, iters},
                       {KVR_CB_SPX_OBJVAL, out->objective_function_value},
                       {KVR_CB_RUNTIME, runtime},
                       {KVR_CB_WORK, ctx.work_now}};
          ctx.invoke(cb);
        }
        break;
      }
      case kHighsCallbackIpmInterrupt: {
        double iters = st.base_iters + out->ipm_iteration_count;
        ctx.work_now = SolveContext::work_units(iters, st.base_nodes);
        if (!st.mip && ctx.has_callback() && ctx.progress_due()) {
          CallbackData cb{&ctx, KVR_CB_BARRIER, {}};
          cb.values = {{KVR_CB_BARRIER_ITRCNT, static_cast<double>(out->ipm_iteration_count)},
                       {KVR_CB_RUNTIME, runtime},
                       {KVR_CB_WORK, ctx.work_now}};
          ctx.invoke(cb);
        }
        break;
      }
      case kHighsCallbackMipInterrupt: {
        double nodes = st.base_nodes + static_cast<double>(out->mip_node_count);
        double iters = st.base_iters + static_cast<double>(out->mip_total_lp_iterations);
        ctx.work_now = SolveContext::work_units(iters, nodes);
        ctx.iters_now = iters;
        double objbst = std::isnan(st.best_obj)
                            ? (ctx.sense == KVR_MINIMIZE ? KVR_INFINITY : -KVR_INFINITY)
                            : st.best_obj;
        double objbnd = from_engine(out->mip_dual_bound);
        ctx.check_objective_limits(std::isnan(st.best_obj) ? kNaN : st.best_obj, objbnd);
        if (ctx.has_callback() && ctx.progress_due()) {
          CallbackData cb{&ctx, KVR_CB_MIP, {}};
          cb.values = {{KVR_CB_MIP_OBJBST, objbst},   {KVR_CB_MIP_OBJBND, objbnd},
                       {KVR_CB_MIP_NODCNT, nodes},    {KVR_CB_MIP_SOLCNT, ctx.solcount},
                       {KVR_CB_MIP_ITRCNT, iters},    {KVR_CB_MIP_PHASE, 1},
                       {KVR_CB_MIP_OPENSCENARIOS, 0}, {KVR_CB_RUNTIME, runtime},
                       {KVR_CB_WORK, ctx.work_now}};
          ctx.invoke(cb);
        }
        break;
      }
      case kHighsCallbackMipSolution: {
        if (!out->mip_solution || out->mip_solution_size < st.ncols) break;
        const double *x = out->mip_solution;
        // The engine can announce an incumbent with an infinite value for a column (seen for one
        // its presolve removed): that is no solution, and its final solution has the value.
        if (!std::all_of(x, x + st.ncols, [](double v) { return std::isfinite(v); })) break;
        // An incumbent that violates a row the engine does not have yet is rejected.
        double obj = st.model->objective_value(x);
        const IncumbentVerdict verdict =
            st.emulation ? st.emulation->screen(x, obj, st.best_obj) : IncumbentVerdict::Accept;
        if (verdict == IncumbentVerdict::Ignore) break;
        if (verdict == IncumbentVerdict::Restart) {
          ctx.lazy_violated = true;
          ctx.stop = StopReason::Restart;
          break;
        }
        double nodes = st.base_nodes + static_cast<double>(out->mip_node_count);
        if (ctx.has_callback()) {
          double objbst = better(ctx.sense, obj, st.best_obj) ? obj : st.best_obj;
          CallbackData cb{&ctx, KVR_CB_MIPSOL, {}};
          cb.sol = x;
          cb.values = {{KVR_CB_MIPSOL_OBJ, obj},
                       {KVR_CB_MIPSOL_OBJBST, objbst},
                       {KVR_CB_MIPSOL_OBJBND, from_engine(out->mip_dual_bound)},
                       {KVR_CB_MIPSOL_NODCNT, nodes},
                       {KVR_CB_MIPSOL_SOLCNT, ctx.solcount},
                       {KVR_CB_MIPSOL_PHASE, 1},
                       {KVR_CB_MIPSOL_OPENSCENARIOS, 0},
                       {KVR_CB_RUNTIME, runtime},
                       {KVR_CB_WORK, ctx.work_now}};
          ctx.invoke(cb);
          if (ctx.lazy_violated) {
            ctx.stop = StopReason::Restart;
            break;
          }
        }
        st.found->emplace_back(x, x + st.ncols);
        ctx.solcount += 1;
        if (better(ctx.sense, obj, st.best_obj)) st.best_obj = obj;
        ctx.check_objective_limits(st.best_obj, kNaN);
        break;
      }
      case kHighsCallbackCallbackMipUserSolution: {
        std::vector<double> sol;
        if (!ctx.user_solutions.empty()) {
          sol = std::move(ctx.user_solutions.front());
          ctx.user_solutions.erase(ctx.user_solutions.begin());
        }
        if (sol.empty()) break;
        sol.resize(st.ncols, KVR_UNDEFINED);
        bool partial = false;
        for (double &v : sol)
          if (v == KVR_UNDEFINED) v = kInf, partial = true;
        if (Highs_setCallbackSolution(in, st.ncols, sol.data()) == kHighsStatusOk && partial)
          Highs_repairCallbackSolution(in);
        break;
      }
      default:
        break;
    }
  } catch (...) {
    // Nothing may escape into the engine; a failing event is dropped.
  }
  // The engine keeps the flag between runs: it is written on every event.
  const bool stop = ctx.must_stop();
  if (stop && st.race_over) st.race_over->store(true);
  if (in) in->user_interrupt = stop || (st.race_over && st.race_over->load()) ? 1 : 0;
}

// Events of the second instance of a concurrent LP solve, on its own thread: it only listens for
// the end of the race (the first instance reports progress and watches the limits).
void race_event(int, const char *, const HighsCallbackDataOut *, HighsCallbackDataIn *in,
                void *usrdata) {
  if (in) in->user_interrupt = static_cast<std::atomic<bool> *>(usrdata)->load() ? 1 : 0;
}

// Points an instance's events away from a run's state when that state goes.
struct EventsRouted {
  const std::shared_ptr<HighsInstance> &hi;
  ~EventsRouted() {
    if (hi) hi->route_events(nullptr, nullptr, 0);
  }
};

// Whether the engine's model status settles the LP (an interrupted or limited run does not).
bool decided(HighsInt model_status) {
  switch (model_status) {
    case kHighsModelStatusOptimal:
    case kHighsModelStatusInfeasible:
    case kHighsModelStatusUnboundedOrInfeasible:
    case kHighsModelStatusUnbounded:
    case kHighsModelStatusModelEmpty:
    case kHighsModelStatusObjectiveBound:
    case kHighsModelStatusObjectiveTarget:
      return true;
    default:
      return false;
  }
}

// Whether every row of a model without variables (each row reads 0) meets its right-hand side.
bool empty_rows_feasible(const ModelData &m, double tol) {
  if (m.num_vars() > 0) return true;
  for (int i = 0; i < m.num_constrs(); ++i) {
    double rhs = m.constrs.rhs[i];
    char sense = m.constrs.sense[i];
    if ((sense != KVR_GREATER_EQUAL && rhs < -tol) || (sense != KVR_LESS_EQUAL && rhs > tol))
      return false;
  }
  return true;
}

int map_status(HighsInt model_status, bool mip, bool has_x) {
  switch (model_status) {
    case kHighsModelStatusOptimal:
    case kHighsModelStatusModelEmpty:
      return KVR_OPTIMAL;
    case kHighsModelStatusInfeasible:
      return KVR_INFEASIBLE;
    case kHighsModelStatusUnboundedOrInfeasible:
      return KVR_INF_OR_UNBD;
    case kHighsModelStatusUnbounded:
      return KVR_UNBOUNDED;
    case kHighsModelStatusObjectiveBound:
      return KVR_CUTOFF;
    case kHighsModelStatusObjectiveTarget:
      return KVR_USER_OBJ_LIMIT;
    case kHighsModelStatusTimeLimit:
      return KVR_TIME_LIMIT;
    case kHighsModelStatusIterationLimit:
      return KVR_ITERATION_LIMIT;
    case kHighsModelStatusSolutionLimit:
      return KVR_SOLUTION_LIMIT;
    case kHighsModelStatusInterrupt:
      return KVR_INTERRUPTED;
    case kHighsModelStatusUnknown:
      return has_x ? KVR_SUBOPTIMAL : KVR_NUMERIC;
    default:
      return KVR_NUMERIC;
  }
  (void)mip;
}

int basis_from_engine_col(HighsInt s) {
  switch (s) {
    case kHighsBasisStatusBasic:
      return KVR_BASIC;
    case kHighsBasisStatusUpper:
      return KVR_NONBASIC_UPPER;
    case kHighsBasisStatusZero:
      return KVR_SUPERBASIC;
    default:
      return KVR_NONBASIC_LOWER;
  }
}

HighsInt basis_to_engine_col(int s, double lb, double ub) {
  switch (s) {
    case KVR_BASIC:
      return kHighsBasisStatusBasic;
    case KVR_NONBASIC_UPPER:
      return ub < KVR_INFINITY ? kHighsBasisStatusUpper : kHighsBasisStatusZero;
    case KVR_SUPERBASIC:
      return kHighsBasisStatusZero;
    default:
      return lb > -KVR_INFINITY
                 ? kHighsBasisStatusLower
                 : (ub < KVR_INFINITY ? kHighsBasisStatusUpper : kHighsBasisStatusZero);
  }
}

// A nonbasic row sits at its one finite side; CBasis reports that as NONBASIC_LOWER.
HighsInt basis_to_engine_row(int s, char sense) {
  if (s == KVR_BASIC) return kHighsBasisStatusBasic;
  return sense == KVR_LESS_EQUAL ? kHighsBasisStatusUpper : kHighsBasisStatusLower;
}

// Applies the environment variable KAVIRO_ENGINE_OPTIONS ("name=value;name=value"): engine
// options the parameter table has no name for (for example solver=pdlp).
void apply_passthrough_options(HighsInstance &hi, SolveContext &ctx) {
  for (const auto &[name, value] : engine_options()) {
    if (name.find('/') != std::string::npos) continue;  // another engine's option
    if (!hi.set_text(name.c_str(), value.c_str()))
      fail(KVR_ERROR_INVALID_ARGUMENT, "KAVIRO_ENGINE_OPTIONS: the engine rejects %s=%s",
           name.c_str(), value.c_str());
    ctx.logf("Engine option %s=%s\n", name.c_str(), value.c_str());
  }
}

class HighsEngine final : public Engine {
 public:
  const char *name() const override { return "HiGHS"; }
  EngineResult solve(const EngineProblem &problem, const ParamValues &params,
                     SolveContext &ctx) override;
  bool infeasible_subsystem(const ModelData &lp, const ParamValues &params, SolveContext &ctx,
                            Subsystem &out) override;
  EngineResult solve_kept(const EngineProblem &problem, const ParamValues &params,
                          SolveContext &ctx, std::shared_ptr<EngineState> &state) override;

 private:
  static void pass_model(HighsInstance &hi, const ModelData &m, bool mip);
  static void set_options(HighsInstance &hi, const ParamValues &p, SolveContext &ctx, bool mip,
                          bool qp, int threads);
  static void read_certificates(HighsInstance &hi, const ModelData &m, EngineResult &r);
  // Solves on the instance hi: a new one when hi is null; with loaded set, one that holds the
  // model already (kept from an earlier solve). hi ends as the instance whose result counts.
  // The result's vectors reuse those in `spare` when given.
  EngineResult solve_on(const EngineProblem &problem, const ParamValues &params, SolveContext &ctx,
                        std::shared_ptr<HighsInstance> &hi, bool loaded,
                        EngineState::Spare *spare = nullptr);
};

void HighsEngine::pass_model(HighsInstance &hi, const ModelData &m, bool mip) {
  const int n = m.num_vars(), rows = m.num_constrs();
  const int64_t nnz = m.constrs.rows.nnz();
  if (nnz > 2147483647LL)
    fail(KVR_ERROR_EXCEED_2B_NONZEROS, "The engine takes at most 2^31-1 nonzeros; model has %lld",
         static_cast<long long>(nnz));
  std::vector<double> lb(n), ub(n), cost(n), rlo(rows), rup(rows);
  std::vector<HighsInt> integrality;
  if (mip) integrality.assign(n, kHighsVarTypeContinuous);
  for (int j = 0; j < n; ++j) {
    engine_col_bounds(m, j, lb[j], ub[j]);
    cost[j] = m.vars.obj[j];
    if (mip) integrality[j] = engine_integrality(m, j);
  }
  for (int i = 0; i < rows; ++i) engine_row_bounds(m, i, rlo[i], rup[i]);
  std::vector<HighsInt> start(m.constrs.rows.beg.begin(), m.constrs.rows.beg.end() - 1);
  if (start.empty()) start.push_back(0);
  const std::vector<int> &ind = m.constrs.rows.ind;
  static_assert(sizeof(HighsInt) == sizeof(int));

  // Hessian: lower triangle column-wise; x'Qx = 1/2 x'Hx, so H_jj = 2 q_jj and H_ij = q_ij.
  std::vector<HighsInt> qstart, qindex;
  std::vector<double> qvalue;
  if (m.q.size() > 0) {
    std::vector<std::vector<std::pair<int, double>>> cols(n);
    for (size_t k = 0; k < m.q.size(); ++k) {
      int r = m.q.row[k], c = m.q.col[k];
      int lo = std::min(r, c), hi = std::max(r, c);
      cols[lo].emplace_back(hi, r == c ? 2.0 * m.q.val[k] : m.q.val[k]);
    }
    qstart.reserve(n);
    for (int j = 0; j < n; ++j) {
      qstart.push_back(static_cast<HighsInt>(qindex.size()));
      auto &col = cols[j];
      std::sort(col.begin(), col.end());
      for (size_t k = 0; k < col.size(); ++k) {
        if (!qindex.empty() && qindex.size() > static_cast<size_t>(qstart.back()) &&
            qindex.back() == col[k].first) {
          qvalue.back() += col[k].second;
        } else {
          qindex.push_back(col[k].first);
          qvalue.push_back(col[k].second);
        }
      }
    }
  }
  HighsInt status = Highs_passModel(
      hi.get(), n, rows, static_cast<HighsInt>(nnz), static_cast<HighsInt>(qvalue.size()),
      kHighsMatrixFormatRowwise, kHighsHessianFormatTriangular,
      m.sense == KVR_MAXIMIZE ? kHighsObjSenseMaximize : kHighsObjSenseMinimize, m.objcon,
      cost.data(), lb.data(), ub.data(), rlo.data(), rup.data(), start.data(), ind.data(),
      m.constrs.rows.val.data(), qvalue.empty() ? nullptr : qstart.data(),
      qvalue.empty() ? nullptr : qindex.data(), qvalue.empty() ? nullptr : qvalue.data(),
      mip ? integrality.data() : nullptr);
  if (status == kHighsStatusError)
    fail(KVR_ERROR_INVALID_ARGUMENT,
         "The engine rejected the model (an infinite or NaN coefficient, or a bound it cannot "
         "take); see the log for its reason");
}

void HighsEngine::set_options(HighsInstance &hi, const ParamValues &p, SolveContext &ctx, bool mip,
                              bool qp, int threads) {
  hi.set_bool("log_to_console", false);
  hi.set_bool("output_flag", ctx.env->output_on() && !ctx.quiet);
  hi.set_int("threads", threads);
  double tl = p.get_dbl(ParamId::TimeLimit);
  if (tl < KVR_INFINITY) hi.set_dbl("time_limit", tl);
  double itl = p.get_dbl(ParamId::IterationLimit);
  if (itl < KVR_INFINITY && !mip)
    hi.set_int("simplex_iteration_limit", static_cast<long long>(itl));
  hi.set_int("ipm_iteration_limit", p.get_int(ParamId::BarIterLimit));
  hi.set_dbl("ipm_optimality_tolerance", std::max(p.get_dbl(ParamId::BarConvTol), 1e-12));
  hi.set_dbl("primal_feasibility_tolerance", p.get_dbl(ParamId::FeasibilityTol));
  hi.set_dbl("dual_feasibility_tolerance", p.get_dbl(ParamId::OptimalityTol));
  hi.set_int("random_seed", p.get_int(ParamId::Seed));
  int presolve = p.get_int(ParamId::Presolve);
  hi.set_str("presolve", presolve == 0 ? "off" : presolve < 0 ? "choose" : "on");
  double cutoff = p.get_dbl(ParamId::Cutoff);
  bool cutoff_set = std::fabs(cutoff) < KVR_INFINITY;
  // The engine prunes with the bound in its own (minimizing) sense; only its MIP solver uses it.
  if (cutoff_set && mip)
    hi.set_dbl("objective_bound", ctx.sense == KVR_MAXIMIZE ? -cutoff : cutoff);
  if (p.get_int(ParamId::ScaleFlag) == 0) hi.set_int("simplex_scale_strategy", 0);
  if (mip) {
    hi.set_dbl("mip_rel_gap", p.get_dbl(ParamId::MIPGap));
    hi.set_dbl("mip_abs_gap", p.get_dbl(ParamId::MIPGapAbs));
    // One tolerance covers both integrality and the rows of a MIP: the stricter of the two
    // settings keeps both promises.
    hi.set_dbl("mip_feasibility_tolerance",
               std::min(p.get_dbl(ParamId::IntFeasTol), p.get_dbl(ParamId::FeasibilityTol)));
    double nl = p.get_dbl(ParamId::NodeLimit);
    if (nl < KVR_INFINITY) hi.set_int("mip_max_nodes", static_cast<long long>(nl));
    int sl = p.get_int(ParamId::SolutionLimit);
    if (sl < 2000000000) hi.set_int("mip_max_improving_sols", sl);
    hi.set_dbl("mip_heuristic_effort", p.get_dbl(ParamId::Heuristics));
    hi.set_dbl("mip_min_logging_interval", p.get_int(ParamId::DisplayInterval));
    if (p.get_int(ParamId::Symmetry) == 0) hi.set_bool("mip_detect_symmetry", false);
  } else if (!qp) {
    // Method: -1 automatic (chosen from the model's shape, see auto_lp_method), 0 primal
    // simplex, 1 dual simplex, 2 barrier (interior point); 3 (concurrent) races the dual simplex
    // against the barrier method where two threads are free (see use_race); 4 (deterministic
    // concurrent) leaves the choice to the engine, which runs one method; 5 (deterministic
    // concurrent simplex) runs the dual simplex.
    switch (p.get_int(ParamId::Method)) {
      case 0:
        hi.set_str("solver", "simplex");
        hi.set_int("simplex_strategy", 4);
        break;
      case 1:
      case 5:
        hi.set_str("solver", "simplex");
        hi.set_int("simplex_strategy", 1);
        break;
      case 2:
        hi.set_str("solver", "ipm");
        if (p.get_int(ParamId::Crossover) == 0) hi.set_str("run_crossover", "off");
        break;
      default:
        hi.set_str("solver", "choose");
        break;
    }
  }
  apply_passthrough_options(hi, ctx);
}

// Farkas certificate of an infeasible LP: lambda with lambda_i <= 0 on <= rows and >= 0 on >=
// rows makes lambda'A x >= lambda'b valid for every feasible x; the proof is the amount
// lambda'b - max over the bounds of lambda'A x, positive when the model is infeasible.
double farkas_proof(const ModelData &m, const std::vector<double> &lambda) {
  const int n = m.num_vars(), rows = m.num_constrs();
  std::vector<double> coef(n, 0.0);
  double rhs = 0.0;
  for (int i = 0; i < rows; ++i) {
    double l = lambda[i];
    if (l == 0.0) continue;
    char s = m.constrs.sense[i];
    if ((s == KVR_LESS_EQUAL && l > 0) || (s == KVR_GREATER_EQUAL && l < 0)) return -kInf;
    rhs += l * m.constrs.rhs[i];
    for (int64_t k = m.constrs.rows.beg[i]; k < m.constrs.rows.beg[i + 1]; ++k)
      coef[m.constrs.rows.ind[k]] += l * m.constrs.rows.val[k];
  }
  double maxact = 0.0;
  for (int j = 0; j < n; ++j) {
    if (std::fabs(coef[j]) < 1e-12) continue;
    double b = coef[j] > 0 ? m.vars.ub[j] : m.vars.lb[j];
    if (std::fabs(b) >= KVR_INFINITY) return -kInf;
    maxact += coef[j] * b;
  }
  return rhs - maxact;
}

void HighsEngine::read_certificates(HighsInstance &hi, const ModelData &m, EngineResult &r) {
  const int n = m.num_vars(), rows = m.num_constrs();
  if (r.status == KVR_INFEASIBLE) {
    HighsInt has = 0;
    std::vector<double> ray(rows);
    if (Highs_getDualRay(hi.get(), &has, ray.data()) == kHighsStatusOk && has) {
      for (double sign : {1.0, -1.0}) {
        std::vector<double> lambda(rows);
        for (int i = 0; i < rows; ++i) lambda[i] = sign * ray[i];
        double proof = farkas_proof(m, lambda);
        if (proof > 0) {
          r.farkasdual = std::move(lambda);
          r.farkasproof = proof;
          break;
        }
      }
    }
  } else if (r.status == KVR_UNBOUNDED) {
    HighsInt has = 0;
    std::vector<double> ray(n);
    if (Highs_getPrimalRay(hi.get(), &has, ray.data()) == kHighsStatusOk && has) r.unbdray = ray;
  }
}

// Reads the reduced costs (with `duals`), duals and row slacks of the LP the instance solved
// last for m, while the instance holds that solve; the row bounds the engine holds are those
// of the solve, whatever m has become.
std::function<bool(std::vector<double> &, std::vector<double> &, std::vector<double> &)>
lp_values_reader(std::shared_ptr<HighsInstance> hi, const ModelData &m, bool duals) {
  const uint64_t solve = hi->generation();
  return
      [hi = std::move(hi), n = m.num_vars(), rows = m.num_constrs(), solve, sense = m.constrs.sense,
       duals](std::vector<double> &rc, std::vector<double> &pi, std::vector<double> &slack) {
        void *h = hi->get();
        if (hi->generation() != solve || Highs_getNumCol(h) != n || Highs_getNumRow(h) != rows)
          return false;
        rc.resize(duals ? n : 0);
        pi.resize(duals ? rows : 0);
        slack.resize(rows);
        std::vector<double> lower(rows), upper(rows);
        HighsInt got = 0, nz = 0;
        if (Highs_getSolution(h, nullptr, duals ? rc.data() : nullptr, slack.data(),
                              duals ? pi.data() : nullptr) != kHighsStatusOk ||
            (rows > 0 && Highs_getRowsByRange(h, 0, rows - 1, &got, lower.data(), upper.data(), &nz,
                                              nullptr, nullptr, nullptr) != kHighsStatusOk))
          return false;
        // The right-hand side is the bound on the row's side.
        for (int i = 0; i < rows; ++i)
          slack[i] = from_engine(sense[i] == KVR_LESS_EQUAL ? upper[i] : lower[i]) - slack[i];
        return true;
      };
}

// Concurrent LP solve (Method 3): the barrier method runs beside the dual simplex method on a
// second engine instance and the first to settle the model decides, unless an infeasibility
// certificate (which only the simplex method gives) is asked for. It needs two threads.
bool use_race(const ParamValues &p, int threads) {
  if (p.get_int(ParamId::Method) != 3 || p.get_int(ParamId::InfUnbdInfo) != 0) return false;
  return threads != 1 && machine_threads() >= 2;
}

// The automatic LP method (Method -1) picks from cheap features of the model as given. Measured
// against every single method (bench_solve --methods --families: Threads 1, CPU time of cold
// solves) on the shared LPs, lp-N and generated transportation, network flow, packing and
// heat-equation LPs:
// - when nearly all rows are equations, the simplex methods need 0.7 to 2.3 iterations per row,
//   each pricing all columns, while the barrier method takes 15 to 50 iterations over the whole
//   matrix. Below kAutoEquationWork rows times columns the dual simplex method wins, by up to two
//   times (transportation problems, greenbea by 1.2; network flows of 1e7 and 5e7 are even; a
//   transportation problem of 3e7 goes to barrier by 1.13). When most columns are free as well
//   (discretized differential equations) the primal simplex method wins, by up to 1.5 times over
//   the dual one, up to kAutoFreeEquationRows rows (heat models: even at 4,600 rows, barrier 1.2
//   times as fast at 5,300);
// - below kAutoSmallNonzeros every method takes a few milliseconds and the dual simplex method is
//   the fastest or within the clock's noise of it;
// - otherwise (inequality rows, or large models of equations: 25fv47, packing LPs, lp-N without
//   presolve, larger networks and heat models) the barrier method with crossover wins, by up to
//   ten times.
// The dual simplex method is also taken whenever only the simplex method gives what is asked: an
// infeasibility or unboundedness certificate, an iteration or work limit (counted in simplex
// iterations), or a start from a basis or start vectors.
constexpr double kAutoEquationShare = 0.8;
constexpr double kAutoEquationWork = 2e7;
constexpr int kAutoFreeEquationRows = 4500;
constexpr double kAutoFreeShare = 0.5;
constexpr int64_t kAutoSmallNonzeros = 10000;

enum class AutoLpMethod { Primal, Dual, Barrier };

struct AutoLpChoice {
  AutoLpMethod method;
  const char *why;
};

AutoLpChoice auto_lp_method(const ParamValues &p, const ModelData &m, const EngineProblem &problem,
                            bool basis_at_hand) {
  if (basis_at_hand) return {AutoLpMethod::Dual, "from the last basis"};
  if (p.get_int(ParamId::InfUnbdInfo) != 0) return {AutoLpMethod::Dual, "for a certificate"};
  if (p.get_dbl(ParamId::IterationLimit) < KVR_INFINITY ||
      p.get_dbl(ParamId::WorkLimit) < KVR_INFINITY)
    return {AutoLpMethod::Dual, "under an iteration or work limit"};
  if (p.get_int(ParamId::LPWarmStart) != 0 &&
      (!problem.vbasis.empty() || !problem.pstart.empty() || !problem.dstart.empty()))
    return {AutoLpMethod::Dual, "from the given start"};
  const int rows = m.num_constrs(), cols = m.num_vars();
  const auto equations = std::count(m.constrs.sense.begin(), m.constrs.sense.end(), KVR_EQUAL);
  const bool of_equations = rows > 0 && equations >= kAutoEquationShare * rows;
  if (of_equations) {
    int free = 0;
    for (int j = 0; j < cols; ++j)
      free += m.vars.lb[j] <= -KVR_INFINITY && m.vars.ub[j] >= KVR_INFINITY;
    if (rows < kAutoFreeEquationRows && free >= kAutoFreeShare * cols)
      return {AutoLpMethod::Primal, "for an LP of equations over mostly free columns"};
    if (static_cast<double>(rows) * cols < kAutoEquationWork)
      return {AutoLpMethod::Dual, "for an LP of equations"};
  }
  if (m.constrs.rows.nnz() < kAutoSmallNonzeros) return {AutoLpMethod::Dual, "for a small LP"};
  if (of_equations) return {AutoLpMethod::Barrier, "for a large LP of equations"};
  return {AutoLpMethod::Barrier, "for an LP with inequality rows"};
}

// Sets the engine up for the automatic method's choice and says in the log what it took.
void apply_auto_lp_method(HighsInstance &hi, const ParamValues &p, const ModelData &m,
                          const EngineProblem &problem, bool basis_at_hand, SolveContext &ctx) {
  // A method named in the engine options (KAVIRO_ENGINE_OPTIONS) is the user's choice.
  for (const auto &option : engine_options())
    if (option.first == "solver" || option.first == "simplex_strategy") return;
  const AutoLpChoice choice = auto_lp_method(p, m, problem, basis_at_hand);
  if (choice.method == AutoLpMethod::Barrier) {
    hi.set_str("solver", "ipm");
    hi.set_str("run_crossover", p.get_int(ParamId::Crossover) == 0 ? "off" : "on");
  } else {
    hi.set_str("solver", "simplex");
    hi.set_int("simplex_strategy", choice.method == AutoLpMethod::Primal ? 4 : 1);
  }
  ctx.logf("Automatic method: %s %s (%d rows, %d columns, %lld nonzeros)\n",
           choice.method == AutoLpMethod::Barrier  ? "barrier with crossover"
           : choice.method == AutoLpMethod::Primal ? "primal simplex"
                                                   : "dual simplex",
           choice.why, m.num_constrs(), m.num_vars(), static_cast<long long>(m.constrs.rows.nnz()));
}

// Runs `simplex` on this thread and `barrier` on another until one settles the model, then stops
// the other. Afterwards `simplex` holds the instance whose result counts (the simplex one when
// neither settled the model); returns that run's status.
HighsInt run_race(std::shared_ptr<HighsInstance> &simplex, std::shared_ptr<HighsInstance> barrier,
                  std::atomic<bool> &over, SolveContext &ctx) {
  std::atomic<int> first{0};  // 1 simplex, 2 barrier
  auto finish = [&](void *h, int who) {
    int none = 0;
    HighsInt status = Highs_getModelStatus(h);
    if (decided(status) ? first.compare_exchange_strong(none, who)
                        : status != kHighsModelStatusUnknown && who == 1)
      over.store(true);
  };
  HighsInt barrier_status = kHighsStatusOk;
  std::thread other([&] {
    barrier_status = Highs_run(barrier->get());
    finish(barrier->get(), 2);
  });
  HighsInt status = Highs_run(simplex->get());
  finish(simplex->get(), 1);
  other.join();
  if (first.load() == 2) {
    simplex.swap(barrier);
    status = barrier_status;
  }
  if (first.load())
    ctx.logf("Concurrent LP: %s finished first\n",
             first.load() == 2 ? "the barrier method" : "the dual simplex method");
  return status;
}

// The engine's instance as the emulation steps see it between runs.
class HighsRun final : public EngineRun {
 public:
  HighsRun(std::shared_ptr<HighsInstance> &hi, const ParamValues &params, SolveContext &ctx, int n,
           bool &undecided_resolved, const std::function<void()> &add_rows)
      : hi_(hi),
        params_(params),
        ctx_(ctx),
        n_(n),
        undecided_resolved_(undecided_resolved),
        add_rows_(add_rows) {}

  int outcome() const override {
    switch (Highs_getModelStatus(hi_->get())) {
      case kHighsModelStatusOptimal:
        return KVR_OPTIMAL;
      case kHighsModelStatusUnbounded:
        return KVR_UNBOUNDED;
      case kHighsModelStatusUnboundedOrInfeasible:
        return KVR_INF_OR_UNBD;
      default:
        return KVR_LOADED;  // anything else: no round of rows helps
    }
  }
  bool point(std::vector<double> &x) const override {
    HighsInt pstat = 0;
    Highs_getIntInfoValue(hi_->get(), "primal_solution_status", &pstat);
    if (pstat != kHighsSolutionStatusFeasible) return false;
    x.resize(n_);
    Highs_getSolution(hi_->get(), x.data(), nullptr, nullptr, nullptr);
    return true;
  }
  bool ray(std::vector<double> &d) const override {
    HighsInt has_ray = 0;
    d.resize(n_);
    return Highs_getPrimalRay(hi_->get(), &has_ray, d.data()) == kHighsStatusOk && has_ray;
  }
  double objective() const override { return Highs_getObjectiveValue(hi_->get()); }
  bool retry_without_presolve() override {
    if (undecided_resolved_) return false;
    undecided_resolved_ = true;
    hi_->set_str("presolve", "off");
    return true;
  }
  void add_rows() override { add_rows_(); }
  void set_start(const std::vector<double> &x) override {
    if (Highs_setSolution(hi_->get(), x.data(), nullptr, nullptr, nullptr) == kHighsStatusError)
      ctx_.log("The best solution so far was not accepted as a start\n");
  }
  // The time limit counts from the start of optimize.
  bool limit_to_time_left() override {
    double tl = params_.get_dbl(ParamId::TimeLimit);
    if (tl >= KVR_INFINITY) return true;
    double left = tl - ctx_.elapsed();
    if (left <= 0) return false;
    hi_->set_dbl("time_limit", left);
    return true;
  }
  void quiet() override { hi_->set_bool("output_flag", false); }

 private:
  std::shared_ptr<HighsInstance> &hi_;
  const ParamValues &params_;
  SolveContext &ctx_;
  const int n_;
  bool &undecided_resolved_;
  const std::function<void()> &add_rows_;
};

EngineResult HighsEngine::solve(const EngineProblem &problem, const ParamValues &params,
                                SolveContext &ctx) {
  std::shared_ptr<HighsInstance> hi;
  return solve_on(problem, params, ctx, hi, false);
}

EngineResult HighsEngine::solve_on(const EngineProblem &problem, const ParamValues &params,
                                   SolveContext &ctx, std::shared_ptr<HighsInstance> &hi,
                                   bool loaded, EngineState::Spare *spare) {
  const ModelData &m = *problem.model;
  const int n = m.num_vars(), rows = m.num_constrs();
  const bool mip = ctx.engine_model == &m ? ctx.is_mip : m.is_mip();
  const bool qp = m.q.size() > 0;
  if (mip && qp)
    fail(KVR_ERROR_NOT_SUPPORTED,
         "Quadratic objectives with integer variables (MIQP) are not supported by the engine in "
         "use; relax the integrality or linearize the objective");

  // The steps that make up for what the engine lacks; they may settle the model up front.
  Emulation emulation(m, params, capabilities(), ctx);
  const bool rounds = emulation.rounds_of_rows();
  if (!emulation.empty())
    if (auto settled = emulation.prepare(*this)) return std::move(*settled);

  // Threads 0 leaves the count to the engine (it uses part of the machine's threads).
  SchedulerUse sched(params.get_int(ParamId::Threads), ctx);

  if (!loaded) hi = std::make_shared<HighsInstance>();
  std::vector<std::vector<double>> found;
  RunState st;
  st.ctx = &ctx;
  st.model = &m;
  st.mip = mip;
  st.ncols = n;
  st.threads = sched.threads_used;
  st.found = &found;
  if (!emulation.empty()) st.emulation = &emulation;
  constexpr auto kind = HighsInstance::event_kind;
  uint32_t events = kind(kHighsCallbackLogging) | kind(kHighsCallbackSimplexInterrupt) |
                    kind(kHighsCallbackIpmInterrupt);
  if (mip) {
    events |= kind(kHighsCallbackMipInterrupt) | kind(kHighsCallbackMipSolution);
    // Solution queries only matter when someone may hand over solutions.
    if (ctx.has_callback() || !ctx.user_solutions.empty())
      events |= kind(kHighsCallbackCallbackMipUserSolution);
  }
  hi->route_events(engine_event, &st, events);
  // The run's state goes with this call; the instance may outlive it.
  const EventsRouted routed{hi};
  // A kept instance holds the model and its last basis; only changed options are passed on.
  const bool warm = params.get_int(ParamId::LPWarmStart) != 0;
  hi->begin_options();
  set_options(*hi, params, ctx, mip, qp, sched.threads_used);
  if (!loaded) pass_model(*hi, m, mip);
  if (loaded && !warm) Highs_clearSolver(hi->get());
  const bool basis_at_hand = loaded && warm && !mip && hi->has_basis();
  // Rounds of rows re-solve from the last basis; an unbounded round needs the simplex ray.
  if (emulation.rounds_of_rows()) hi->set_str("solver", "simplex");
  if (const double cut_tol = emulation.row_tolerance(); cut_tol > 0) {
    hi->set_dbl("primal_feasibility_tolerance", cut_tol);
    // The MIP solver accepts incumbents within its own tolerance; a looser one would hand back,
    // round after round, an incumbent that the cuts already exclude.
    if (mip)
      hi->set_dbl("mip_feasibility_tolerance",
                  std::min(params.get_dbl(ParamId::IntFeasTol), cut_tol));
  }
  // The QP method can cycle on a badly scaled model instead of failing; a cap far above what
  // it needs when it succeeds (a few iterations per row and column) turns that into a failure,
  // which the caller meets with its fallback.
  const long long qp_cap =
      qp && !mip ? std::max<long long>(10000, 10LL * (n + m.num_constrs())) : 0;
  if (qp_cap > 0) hi->set_int("qp_iteration_limit", qp_cap);
  // Rows added in earlier solves of this optimize (lazy constraints, cuts) hold here as well.
  const std::function<void()> add_new_rows = [&] {
    std::vector<double> lo, up, val;
    std::vector<HighsInt> start, idx;
    for (size_t k = ctx.lazy_in_engine; k < ctx.lazy.size(); ++k) {
      const LinRow &row = ctx.lazy[k];
      start.push_back(static_cast<HighsInt>(idx.size()));
      idx.insert(idx.end(), row.ind.begin(), row.ind.end());
      val.insert(val.end(), row.val.begin(), row.val.end());
      lo.push_back(row.sense == KVR_LESS_EQUAL ? -kInf : row.rhs);
      up.push_back(row.sense == KVR_GREATER_EQUAL ? kInf : row.rhs);
    }
    if (!lo.empty())
      Highs_addRows(hi->get(), static_cast<HighsInt>(lo.size()), lo.data(), up.data(),
                    static_cast<HighsInt>(val.size()), start.data(), idx.data(), val.data());
    ctx.lazy_in_engine = ctx.lazy.size();
  };
  ctx.lazy_in_engine = 0;
  add_new_rows();

  std::shared_ptr<HighsInstance> race_with;
  std::atomic<bool> race_over{false};
  if (!mip && !qp && !rounds && params.get_int(ParamId::Method) == -1)
    apply_auto_lp_method(*hi, params, m, problem, basis_at_hand, ctx);
  if (!mip && !qp && !rounds && !basis_at_hand && use_race(params, sched.threads_used)) {
    race_with = std::make_shared<HighsInstance>();
    set_options(*race_with, params, ctx, mip, qp, sched.threads_used);
    race_with->set_bool("output_flag", false);
    race_with->set_str("solver", "ipm");
    if (params.get_int(ParamId::Crossover) == 0) race_with->set_str("run_crossover", "off");
    race_with->route_events(
        race_event, &race_over,
        kind(kHighsCallbackSimplexInterrupt) | kind(kHighsCallbackIpmInterrupt));
    pass_model(*race_with, m, mip);
    hi->set_str("solver", "simplex");
    hi->set_int("simplex_strategy", 1);
    st.race_over = &race_over;
    ctx.log("Concurrent LP: dual simplex and barrier side by side\n");
  }

  // Warm starts.
  if (mip && !problem.mip_start.empty()) {
    std::vector<HighsInt> idx;
    std::vector<double> val;
    for (int j = 0; j < n && j < static_cast<int>(problem.mip_start.size()); ++j)
      if (problem.mip_start[j] != KVR_UNDEFINED)
        idx.push_back(j), val.push_back(problem.mip_start[j]);
    if (!idx.empty() && Highs_setSparseSolution(hi->get(), static_cast<HighsInt>(idx.size()),
                                                idx.data(), val.data()) == kHighsStatusError)
      ctx.log("MIP start rejected by the engine\n");
    else if (!idx.empty())
      ctx.logf("MIP start with %zu of %d values handed to the engine\n", idx.size(), n);
  }
  if (!mip && warm && !problem.vbasis.empty() && !problem.cbasis.empty()) {
    std::vector<HighsInt> cs(n), rs(rows);
    for (int j = 0; j < n; ++j)
      cs[j] = basis_to_engine_col(problem.vbasis[j], m.vars.lb[j], m.vars.ub[j]);
    for (int i = 0; i < rows; ++i)
      rs[i] = basis_to_engine_row(problem.cbasis[i], m.constrs.sense[i]);
    if (Highs_setBasis(hi->get(), cs.data(), rs.data()) == kHighsStatusError)
      ctx.log("Warm-start basis rejected by the engine (it is not a valid basis); starting cold\n");
    else
      ctx.log("Warm start from the given basis\n");
  } else if (!mip && warm && (!problem.pstart.empty() || !problem.dstart.empty())) {
    std::vector<double> px, dy;
    if (!problem.pstart.empty()) {
      px = problem.pstart;
      for (double &v : px)
        if (v == KVR_UNDEFINED) v = 0.0;
    }
    if (!problem.dstart.empty()) {
      dy = problem.dstart;
      for (double &v : dy)
        if (v == KVR_UNDEFINED) v = 0.0;
    }
    if (Highs_setSolution(hi->get(), px.empty() ? nullptr : px.data(), nullptr, nullptr,
                          dy.empty() ? nullptr : dy.data()) != kHighsStatusError)
      ctx.log("Warm start from the given primal/dual start vectors\n");
  }

  EngineResult r;
  HighsInt run_status = kHighsStatusOk;
  bool undecided_resolved = false, retried_unknown = false;
  long long last_ipm_iters = 0;
  HighsRun run(hi, params, ctx, n, undecided_resolved, add_new_rows);
  run.found = &found;
  run.best_obj = &st.best_obj;
  hi->end_options();
  for (;;) {
    ctx.stop = StopReason::None;
    ctx.lazy_violated = false;
    if (race_with) {
      run_status = run_race(hi, std::move(race_with), race_over, ctx);
      st.race_over = nullptr;  // later runs of this solve are the winner's alone
      hi->route_events(engine_event, &st, events);
    } else {
      run_status = Highs_run(hi->get());
    }
    double iters = hi->info_int("simplex_iteration_count");
    if (mip) {
      // The MIP's LP iterations are only reported through its events.
      iters = std::max(iters, ctx.iters_now - st.base_iters);
    }
    st.base_iters += iters;
    // Counts of methods the run cannot have used are not asked for.
    if (mip) st.base_nodes += static_cast<double>(std::max(0LL, hi->info_int("mip_node_count")));
    last_ipm_iters = hi->info_int("ipm_iteration_count");
    r.baritercount += static_cast<double>(std::max(0LL, last_ipm_iters));
    r.itercount += mip ? iters
                       : iters + hi->info_int("crossover_iteration_count") +
                             hi->info_int("pdlp_iteration_count") +
                             (qp ? hi->info_int("qp_iteration_count") : 0);
    // A model found infeasible or unbounded in presolve is solved again without presolve when
    // the caller asks for a definite answer.
    if (!undecided_resolved && ctx.stop == StopReason::None &&
        Highs_getModelStatus(hi->get()) == kHighsModelStatusUnboundedOrInfeasible &&
        (params.get_int(ParamId::DualReductions) == 0 ||
         (!mip && params.get_int(ParamId::InfUnbdInfo) != 0))) {
      undecided_resolved = true;
      hi->set_str("presolve", "off");
      ctx.log("Infeasible or unbounded: solving again without presolve for a definite answer\n");
      continue;
    }
    // An LP the engine could not decide gets one more attempt with the other kind of method.
    if (!mip && !retried_unknown && ctx.stop == StopReason::None &&
        Highs_getModelStatus(hi->get()) == kHighsModelStatusUnknown) {
      retried_unknown = true;
      HighsInt ipm = 0;
      ipm = static_cast<HighsInt>(hi->info_int("ipm_iteration_count"));
      hi->set_str("solver", ipm > 0 ? "simplex" : "ipm");
      Highs_clearSolver(hi->get());
      ctx.logf("Undecided after %s: solving again with %s\n",
               ipm > 0 ? "the interior point method" : "the simplex method",
               ipm > 0 ? "the simplex method" : "the interior point method");
      continue;
    }
    if (emulation.empty() || !emulation.after_run(run)) break;
  }
  r.itercount += emulation.extra_iterations();

  // Results.
  HighsInt model_status = Highs_getModelStatus(hi->get());
  HighsInt pstat = 0, dstat = 0;
  Highs_getIntInfoValue(hi->get(), "primal_solution_status", &pstat);
  Highs_getIntInfoValue(hi->get(), "dual_solution_status", &dstat);
  bool has_x = pstat != kHighsSolutionStatusNone;
  if (run_status == kHighsStatusError && model_status != kHighsModelStatusInterrupt && !has_x &&
      (model_status == kHighsModelStatusModelError || model_status == kHighsModelStatusLoadError))
    fail(KVR_ERROR_INVALID_ARGUMENT, "The engine could not load the model; see the log");
  r.status = map_status(model_status, mip, pstat == kHighsSolutionStatusFeasible);
  // Without variables the engine calls the model empty whatever its rows ask for.
  if (model_status == kHighsModelStatusModelEmpty &&
      !empty_rows_feasible(m, params.get_dbl(ParamId::FeasibilityTol))) {
    r.status = KVR_INFEASIBLE;
    has_x = false;
  }
  if (qp_cap > 0 && model_status == kHighsModelStatusIterationLimit &&
      hi->info_int("qp_iteration_count") >= qp_cap) {
    ctx.logf("The QP method did not finish within %lld iterations\n", qp_cap);
    r.status = KVR_NUMERIC;
    has_x = false;
  }
  r.status = ctx.status_after_stop(r.status);
  if (!emulation.empty()) emulation.finish(run, r, has_x, pstat == kHighsSolutionStatusFeasible);
  if (mip && r.status == KVR_SOLUTION_LIMIT) {
    double nl = params.get_dbl(ParamId::NodeLimit);
    if (nl < KVR_INFINITY && st.base_nodes >= nl) r.status = KVR_NODE_LIMIT;
  }
  // Cutoff: no solution better than the given value exists (or none at all was found).
  double cutoff = params.get_dbl(ParamId::Cutoff);
  if (std::fabs(cutoff) < KVR_INFINITY &&
      (r.status == KVR_OPTIMAL || (mip && r.status == KVR_INFEASIBLE))) {
    double obj = kNaN;
    if (r.status == KVR_OPTIMAL && pstat == kHighsSolutionStatusFeasible)
      obj = Highs_getObjectiveValue(hi->get());
    bool worse = std::isnan(obj) || (ctx.sense == KVR_MINIMIZE ? obj >= cutoff : obj <= cutoff);
    if (worse) {
      r.status = KVR_CUTOFF;
      has_x = false;
      found.clear();
    }
  }
  r.nodecount = st.base_nodes;
  r.work = SolveContext::work_units(r.itercount + r.baritercount, r.nodecount);
  if (!mip) {
    const long long ipm = last_ipm_iters;
    HighsInt strategy = 0;
    Highs_getIntOptionValue(hi->get(), "simplex_strategy", &strategy);
    r.method_used = ipm > 0 ? 2 : strategy == 4 ? 0 : 1;
  }

  // An LP keeps its last iterate when it stopped early; infeasible, unbounded and undecided
  // results have no solution to show.
  bool lp_keeps_x = r.status != KVR_INFEASIBLE && r.status != KVR_INF_OR_UNBD &&
                    r.status != KVR_UNBOUNDED && r.status != KVR_NUMERIC && r.status != KVR_CUTOFF;
  if (has_x && (mip ? pstat == kHighsSolutionStatusFeasible : lp_keeps_x)) {
    // The engine overwrites every entry: vectors of an earlier solution are only resized.
    auto sized = [spare](std::vector<double> EngineState::Spare::*v, size_t size) {
      std::vector<double> out;
      if (spare) out = std::move(spare->*v);
      out.resize(size);
      return out;
    };
    const size_t engine_rows = rows + ctx.lazy_in_engine;
    r.x = sized(&EngineState::Spare::x, n);
    // An LP re-solved on a kept instance, often in a loop that reads little of each result,
    // leaves its other vectors in the instance until they are asked for.
    if (spare && !mip && !qp && emulation.empty() && ctx.lazy_in_engine == 0) {
      Highs_getSolution(hi->get(), r.x.data(), nullptr, nullptr, nullptr);
      r.lp_values =
          lp_values_reader(hi, m, dstat == kHighsSolutionStatusFeasible && r.status == KVR_OPTIMAL);
    } else {
      r.row_activity = sized(&EngineState::Spare::slack, engine_rows);
      // A MIP has no duals to read.
      std::vector<double> cd = sized(&EngineState::Spare::rc, mip ? 0 : n);
      std::vector<double> rd = sized(&EngineState::Spare::pi, mip ? 0 : engine_rows);
      Highs_getSolution(hi->get(), r.x.data(), mip ? nullptr : cd.data(), r.row_activity.data(),
                        mip ? nullptr : rd.data());
      r.row_activity.resize(rows);
      if (!mip && dstat == kHighsSolutionStatusFeasible && r.status == KVR_OPTIMAL) {
        r.rc = std::move(cd);
        r.cut_pi.assign(rd.begin() + rows, rd.end());
        rd.resize(rows);
        r.pi = std::move(rd);
      }
    }
    r.objval = m.objective_value(r.x.data());
    r.objval_at_x = true;
    if (mip) found.push_back(r.x);
  }
  if (mip) {
    double bound = hi->info_dbl("mip_dual_bound");
    if (!std::isnan(bound)) r.objbound = from_engine(bound);
    if (r.status == KVR_INFEASIBLE)
      r.objbound = ctx.sense == KVR_MINIMIZE ? KVR_INFINITY : -KVR_INFINITY;
    if (r.status == KVR_CUTOFF) r.objbound = kNaN;
    r.found_x = std::move(found);
  } else if (r.status == KVR_OPTIMAL && !r.x.empty()) {
    r.objbound = r.objval;
  }
  if (!mip && !qp && !rounds) {
    HighsInt valid = 0;
    Highs_getIntInfoValue(hi->get(), "basis_validity", &valid);
    if (valid == kHighsBasisValidityValid) {
      // Read from the instance on request, until it starts another solve or its model changes;
      // mapped in place.
      r.basis = [hi, n, rows, solve = hi->generation()](std::vector<int> &vb,
                                                        std::vector<int> &cb) {
        void *h = hi->get();
        if (hi->generation() != solve || Highs_getNumCol(h) != n || Highs_getNumRow(h) < rows)
          return false;
        vb.resize(n);
        std::vector<int> engine_rows(Highs_getNumRow(h));
        if (Highs_getBasis(h, vb.data(), engine_rows.data()) != kHighsStatusOk) return false;
        for (int &b : vb) b = basis_from_engine_col(b);
        cb.resize(rows);
        for (int i = 0; i < rows; ++i)
          cb[i] = engine_rows[i] == kHighsBasisStatusBasic ? KVR_BASIC : KVR_NONBASIC_LOWER;
        return true;
      };
      if (r.status == KVR_OPTIMAL) {
        // Computed on request from what the instance holds, until it starts another solve.
        r.sensitivity = [hi, n, rows, solve = hi->generation()](Sensitivity &s) {
          void *h = hi->get();
          if (hi->generation() != solve || Highs_getNumCol(h) != n) return false;
          std::vector<double> x(n), lbv(n), ubv(n), cost(n);
          std::vector<HighsInt> vb(n), rb(Highs_getNumRow(h));
          HighsInt got = 0, nz = 0;
          if (Highs_getSolution(h, x.data(), nullptr, nullptr, nullptr) != kHighsStatusOk ||
              Highs_getBasis(h, vb.data(), rb.data()) != kHighsStatusOk ||
              (n > 0 && Highs_getColsByRange(h, 0, n - 1, &got, cost.data(), lbv.data(), ubv.data(),
                                             &nz, nullptr, nullptr, nullptr) != kHighsStatusOk))
            return false;
          std::vector<double> cuv(n), cuo(n), cdv(n), cdo(n), buv(n), buo(n), bdv(n), bdo(n);
          std::vector<double> ruv(rows), ruo(rows), rdv(rows), rdo(rows);
          std::vector<HighsInt> i1(n), i2(n), i3(n), i4(n), i5(n), i6(n), i7(n), i8(n);
          std::vector<HighsInt> r1(rows), r2(rows), r3(rows), r4(rows);
          if (Highs_getRanging(h, cuv.data(), cuo.data(), i1.data(), i2.data(), cdv.data(),
                               cdo.data(), i3.data(), i4.data(), buv.data(), buo.data(), i5.data(),
                               i6.data(), bdv.data(), bdo.data(), i7.data(), i8.data(), ruv.data(),
                               ruo.data(), r1.data(), r2.data(), rdv.data(), rdo.data(), r3.data(),
                               r4.data()) != kHighsStatusOk)
            return false;
          auto conv = [](std::vector<double> &v) {
            for (double &e : v) e = from_engine(e);
          };
          s.objlow = cdv, s.objup = cuv;
          conv(s.objlow), conv(s.objup);
          s.lblow.assign(n, -KVR_INFINITY), s.lbup.assign(n, 0.0);
          s.ublow.assign(n, 0.0), s.ubup.assign(n, KVR_INFINITY);
          for (int j = 0; j < n; ++j) {
            // The ranging of the active bound comes from the engine; an inactive bound may move
            // freely on its own side of the solution value.
            s.lbup[j] = x[j];
            s.ublow[j] = x[j];
            const int status = basis_from_engine_col(vb[j]);
            if (status == KVR_NONBASIC_LOWER && lbv[j] > -kInf) {
              s.lblow[j] = from_engine(bdv[j]);
              s.lbup[j] = from_engine(buv[j]);
            } else if (status == KVR_NONBASIC_UPPER && ubv[j] < kInf) {
              s.ublow[j] = from_engine(bdv[j]);
              s.ubup[j] = from_engine(buv[j]);
            }
          }
          s.rhslow = rdv, s.rhsup = ruv;
          conv(s.rhslow), conv(s.rhsup);
          return true;
        };
      }
    }
    if (params.get_int(ParamId::InfUnbdInfo)) read_certificates(*hi, m, r);
  }
  return r;
}

// Whether x satisfies the bounds, types and rows of m within the tolerances.
bool satisfies(const ModelData &m, const std::vector<double> &x, const ParamValues &params) {
  const double ftol = params.get_dbl(ParamId::FeasibilityTol);
  const double itol = params.get_dbl(ParamId::IntFeasTol);
  for (int j = 0; j < m.num_vars(); ++j) {
    if (x[j] < m.vars.lb[j] - ftol || x[j] > m.vars.ub[j] + ftol) return false;
    if (m.vars.vtype[j] != KVR_CONTINUOUS && std::fabs(x[j] - std::round(x[j])) > itol)
      return false;
  }
  for (int i = 0; i < m.num_constrs(); ++i) {
    const double act = m.constrs.rows.row_value(i, x.data()), rhs = m.constrs.rhs[i];
    const char sense = m.constrs.sense[i];
    if ((sense != KVR_GREATER_EQUAL && act > rhs + ftol) ||
        (sense != KVR_LESS_EQUAL && act < rhs - ftol))
      return false;
  }
  return true;
}

// The basis of the instance's last solve for m, which has the instance's columns and rows and
// more rows after them: the new rows basic. The dual simplex method goes on from there as after
// a round of cuts (new columns would make it dual infeasible: measured, more iterations than a
// cold solve). False when the instance has no basis or m has other columns.
bool extended_basis(const HighsInstance &hi, const ModelData &m, std::vector<int> &vbasis,
                    std::vector<int> &cbasis) {
  void *h = hi.get();
  const int n0 = Highs_getNumCol(h), m0 = Highs_getNumRow(h);
  const int n = m.num_vars(), rows = m.num_constrs();
  if (!hi.has_basis() || n0 != n || m0 > rows) return false;
  std::vector<HighsInt> cs(n0), rs(m0);
  if (Highs_getBasis(h, cs.data(), rs.data()) != kHighsStatusOk) return false;
  vbasis.resize(n);
  cbasis.assign(rows, KVR_BASIC);
  for (int j = 0; j < n; ++j) vbasis[j] = basis_from_engine_col(cs[j]);
  for (int i = 0; i < m0; ++i)
    cbasis[i] = rs[i] == kHighsBasisStatusBasic ? KVR_BASIC : KVR_NONBASIC_LOWER;
  return true;
}

EngineResult HighsEngine::solve_kept(const EngineProblem &problem, const ParamValues &params,
                                     SolveContext &ctx, std::shared_ptr<EngineState> &state) {
  const ModelData &m = *problem.model;
  // Kept are instances that hold exactly the user's model: no quadratic terms to re-pass, no
  // rows of the library's own (cuts, lazy constraints).
  if (m.q.size() > 0 || m.qconstrs.size() > 0 || !ctx.lazy.empty() ||
      problem.user_vars != m.num_vars()) {
    if (state) ctx.log("The engine's copy of the model is dropped: it is solved from scratch\n");
    state.reset();
    return solve(problem, params, ctx);
  }
  auto *kept = dynamic_cast<HighsState *>(state.get());
  const bool mip = ctx.engine_model == &m ? ctx.is_mip : m.is_mip();
  std::shared_ptr<HighsInstance> hi;
  EngineProblem offered;
  const EngineProblem *use = &problem;
  if (kept && kept->instance) {
    InstanceUpdate update;
    bool updated = false;
    const bool grown_only = kept->deletions.empty();
    try {
      updated = update_instance(*kept, m, mip, update);
    } catch (const std::bad_alloc &) {
      updated = false;
    }
    if (updated) {
      hi = kept->instance;
      ctx.logf("Re-solve: %zu deleted, %zu added and %zu changed elements handed to the engine\n",
               update.deleted, update.added, update.changed);
      // The last incumbent starts the search again when it is still feasible.
      if (mip && problem.mip_start.empty() && !update.incumbent.empty() &&
          satisfies(m, update.incumbent, params)) {
        offered = problem;
        offered.mip_start = std::move(update.incumbent);
        use = &offered;
        ctx.log("The previous solution is still feasible and starts the search\n");
      }
    } else {
      ctx.log("Re-solve: the model is handed to the engine in full (too many changes)\n");
      // An LP that only gained rows still starts from the last basis, unless the user gave a
      // start.
      offered = problem;
      if (!mip && grown_only && params.get_int(ParamId::LPWarmStart) != 0 &&
          problem.vbasis.empty() && problem.pstart.empty() && problem.dstart.empty() &&
          extended_basis(*kept->instance, m, offered.vbasis, offered.cbasis)) {
        use = &offered;
        ctx.log("The last basis, with the new rows basic, is offered as a start\n");
      }
    }
  }
  EngineState::Spare spare;
  if (state) spare = std::move(state->spare);
  state.reset();  // rebuilt below from the instance that ends the solve
  EngineResult r = solve_on(*use, params, ctx, hi, static_cast<bool>(hi), &spare);
  if (hi) hi->note_basis();
  if (ctx.lazy_in_engine == 0 && hi) {
    // The engine would log while its model is changed later on, with no run to take it.
    hi->set_bool("output_flag", false);
    auto next = std::make_shared<HighsState>();
    next->instance = std::move(hi);
    if (mip && !r.x.empty()) next->incumbent = r.x;
    next->mip = mip;
    state = std::move(next);
  }
  return r;
}

bool HighsEngine::infeasible_subsystem(const ModelData &lp, const ParamValues &params,
                                       SolveContext &ctx, Subsystem &out) {
  if (lp.is_mip() || lp.q.size() > 0) return false;
  SchedulerUse sched(params.get_int(ParamId::Threads), ctx);
  HighsInstance hi;
  RunState st;
  st.ctx = &ctx;
  st.model = &lp;
  st.ncols = lp.num_vars();
  st.threads = sched.threads_used;
  std::vector<std::vector<double>> found;
  st.found = &found;
  hi.route_events(engine_event, &st,
                  HighsInstance::event_kind(kHighsCallbackSimplexInterrupt) |
                      HighsInstance::event_kind(kHighsCallbackIpmInterrupt));
  set_options(hi, params, ctx, false, false, sched.threads_used);
  // An elastic LP locates the conflict; the engine then reduces it to an irreducible set.
  hi.set_int("iis_strategy", kHighsIisStrategyFromLpRowPriority);
  double tl = params.get_dbl(ParamId::TimeLimit);
  if (tl < KVR_INFINITY) hi.set_dbl("iis_time_limit", tl);
  pass_model(hi, lp, false);
  const int n = lp.num_vars(), rows = lp.num_constrs();
  HighsInt ncol = 0, nrow = 0;
  std::vector<HighsInt> col_index(n), row_index(rows), col_bound(n), row_bound(rows);
  std::vector<HighsInt> col_status(n), row_status(rows);
  HighsInt status =
      Highs_getIis(hi.get(), &ncol, &nrow, col_index.data(), row_index.data(), col_bound.data(),
                   row_bound.data(), col_status.data(), row_status.data());
  if (status == kHighsStatusError || ctx.must_stop() || ncol + nrow == 0) return false;
  out = Subsystem();
  for (HighsInt k = 0; k < nrow; ++k)
    if (row_index[k] >= 0 && row_index[k] < rows) out.rows.push_back(row_index[k]);
  for (HighsInt k = 0; k < ncol; ++k) {
    HighsInt j = col_index[k];
    if (j < 0 || j >= n) continue;
    HighsInt b = col_bound[k];
    if (b == kHighsIisBoundLower || b == kHighsIisBoundBoxed) out.lower.push_back(j);
    if (b == kHighsIisBoundUpper || b == kHighsIisBoundBoxed) out.upper.push_back(j);
  }
  return true;
}

}  // namespace

std::unique_ptr<Engine> make_highs_engine() { return std::make_unique<HighsEngine>(); }

std::string highs_version() {
  return highs::unavailable_reason().empty() ? highs::api().version : std::string();
}

}  // namespace kvr
