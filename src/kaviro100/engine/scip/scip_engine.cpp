// The SCIP engine: passes the model (linear and quadratic rows, nonconvex ones included, SOS1/2,
// indicator and and/or constraints and semi-continuous variables as they are, a quadratic objective
// through an epigraph variable of its own), maps the library's parameters onto SCIP parameters, and
// reports back through the SolveContext. The user's callback is served by one constraint handler
// and one event handler:
//   - the handler's check and enforcement see every candidate solution: MIPSOL callbacks, and
//     lazy constraints, which join the running search as linear constraints (no restart);
//   - its separation sees every node relaxation: MIPNODE callbacks, user cuts as rows;
//   - the event handler reports MIP progress and stops the solve when asked to.
// The handler rejects solutions, so it locks every variable both ways: presolve then draws no
// dual conclusions that a lazy constraint could invalidate.
// Duals of a continuous linear model come from reduced costs: the original constraints give
// none, so each row gets a probe column fixed at 0 whose reduced cost is minus the row's dual,
// read with the variables' reduced costs whenever the root LP is solved to optimality. Presolve
// and propagation are off for such models, since a removed row or a tightened bound moves the
// duals away from the model's rows and bounds, and so is the LP solver's presolve.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "engine/engine.h"
#include "engine/registry.h"
#include "engine/scip/scip_api.h"
#include "util/error.h"

namespace kvr {
namespace {

using namespace scip;

void check(Retcode rc, const char *what) {
  if (rc != kOkay) fail(KVR_ERROR_INTERNAL, "SCIP failed in %s (return code %d)", what, rc);
}

// The state of one solve, reached from SCIP's callbacks (which run on the solving thread).
struct ScipRun {
  const Api &a;
  Scip *scip = nullptr;
  SolveContext &ctx;
  const ModelData &m;
  std::vector<Var *> vars;  // SCIP variables of the model's columns
  // Duals wanted (a continuous linear model): the probe columns of the rows, and the reduced
  // costs of the columns and probes in the last optimal LP (SCIP's minimizing form).
  bool duals = false;
  std::vector<Var *> probes;
  std::vector<double> lp_rc, lp_probe_rc;
  Var *epigraph = nullptr;  // objective variable of a quadratic objective
  std::vector<Var *> locked;
  Conshdlr *hdlr = nullptr;
  std::vector<double> last_shown;  // last candidate shown to a MIPSOL callback
  double infinity = 1e20;
  size_t lazy_rows_added = 0;

  ScipRun(const Api &api, SolveContext &c, const ModelData &model) : a(api), ctx(c), m(model) {}

  double to_scip(double v) const {
    return v >= KVR_INFINITY ? infinity : v <= -KVR_INFINITY ? -infinity : v;
  }
  double from_scip(double v) const {
    return v >= infinity ? KVR_INFINITY : v <= -infinity ? -KVR_INFINITY : v;
  }
  // The variable SCIP solves with (the transformed one once solving started).
  Var *active(int j) const {
    Var *t = nullptr;
    if (a.SCIPgetTransformedVar(scip, vars[j], &t) != kOkay || !t) return vars[j];
    return t;
  }
  // Values of the model's columns in a solution (nullptr: the current LP solution).
  std::vector<double> values(Sol *sol) const {
    std::vector<double> x(vars.size());
    for (size_t j = 0; j < vars.size(); ++j)
      x[j] = a.SCIPgetSolVal(scip, sol, sol ? vars[j] : active(static_cast<int>(j)));
    return x;
  }
  double row_tolerance(const LinRow &row) const {
    return ctx.params->get_dbl(ParamId::FeasibilityTol) * std::max(1.0, std::fabs(row.rhs));
  }
  // Objective of the incumbent (NaN without one). The primal bound lags behind inside the event
  // of a new incumbent; the best solution does not.
  double best_objective() const {
    Sol *best = a.SCIPgetNSols(scip) > 0 ? a.SCIPgetBestSol(scip) : nullptr;
    return best ? a.SCIPgetSolOrigObj(scip, best) : kNaN;
  }
  void bounds_of(const LinRow &row, double &lhs, double &rhs) const {
    lhs = row.sense == KVR_LESS_EQUAL ? -infinity : row.rhs;
    rhs = row.sense == KVR_GREATER_EQUAL ? infinity : row.rhs;
  }
  std::vector<Var *> row_vars(const LinRow &row) const {
    std::vector<Var *> v;
    for (int j : row.ind) v.push_back(active(j));
    return v;
  }
  void stop_if_asked() {
    if (ctx.must_stop()) a.SCIPinterruptSolve(scip);
  }
};

thread_local ScipRun *t_run = nullptr;

struct RunScope {
  explicit RunScope(ScipRun *run) : previous(t_run) { t_run = run; }
  ~RunScope() { t_run = previous; }
  ScipRun *previous;
};

// ---------------------------------------------------------------- log

void on_message(Messagehdlr *, FILE *, const char *msg) {
  ScipRun *run = t_run;
  if (!run || !msg) return;
  try {
    SolveContext &ctx = run->ctx;
    ctx.log(msg);
    if (ctx.has_callback()) {
      CallbackData cb{&ctx, KVR_CB_MESSAGE, {}};
      cb.msg = msg;
      cb.values = {{KVR_CB_RUNTIME, ctx.elapsed()}, {KVR_CB_WORK, ctx.work_now}};
      ctx.invoke(cb);
    }
  } catch (...) {
  }
}

// SCIP's error messages (printed apart from its message handler) go to the log of the solve
// running on this thread, and nowhere outside one.
void on_error(void *, FILE *, const char *msg) { on_message(nullptr, nullptr, msg); }

// ---------------------------------------------------------------- callbacks

void note_progress(ScipRun &run) {
  SolveContext &ctx = run.ctx;
  double nodes = static_cast<double>(run.a.SCIPgetNNodes(run.scip));
  double iters = static_cast<double>(run.a.SCIPgetNLPIterations(run.scip));
  ctx.iters_now = iters;
  ctx.work_now = SolveContext::work_units(iters, nodes);
}

// Offers the solutions the callback handed over (cbSetSolution) to SCIP. Values left undefined
// are not set (SCIP reads them as 0); the epigraph variable gets the objective's value.
void offer_user_solutions(ScipRun &run) {
  SolveContext &ctx = run.ctx;
  const Api &a = run.a;
  while (!ctx.user_solutions.empty()) {
    std::vector<double> x = std::move(ctx.user_solutions.front());
    ctx.user_solutions.erase(ctx.user_solutions.begin());
    Sol *sol = nullptr;
    if (a.SCIPcreateSol(run.scip, &sol, nullptr) != kOkay) continue;
    x.resize(run.vars.size(), KVR_UNDEFINED);
    for (size_t j = 0; j < run.vars.size(); ++j) {
      if (x[j] == KVR_UNDEFINED) continue;
      Var *v = run.active(static_cast<int>(j));
      // Presolve may have fixed v; SCIP refuses another value for it (the check decides then).
      if (a.SCIPvarGetLbGlobal && a.SCIPvarGetUbGlobal &&
          a.SCIPvarGetLbGlobal(v) == a.SCIPvarGetUbGlobal(v))
        continue;
      a.SCIPsetSolVal(run.scip, sol, v, x[j]);
    }
    const QuadTerms &q = run.m.q;
    bool q_defined = true;
    for (size_t k = 0; k < q.size(); ++k)
      q_defined = q_defined && x[q.row[k]] != KVR_UNDEFINED && x[q.col[k]] != KVR_UNDEFINED;
    if (run.epigraph && q_defined) {
      Var *t = nullptr;
      if (a.SCIPgetTransformedVar(run.scip, run.epigraph, &t) != kOkay || !t) t = run.epigraph;
      a.SCIPsetSolVal(run.scip, sol, t, run.m.q.value(x.data()));
    }
    Bool stored = 0;
    a.SCIPtrySolFree(run.scip, &sol, 0, 0, 1, 1, 1, &stored);
  }
}

// Shows a candidate solution to the MIPSOL callback (once per distinct candidate) and returns
// the stored lazy constraints it violates.
std::vector<const LinRow *> examine_candidate(ScipRun &run, const std::vector<double> &x) {
  SolveContext &ctx = run.ctx;
  if (ctx.has_callback() && x != run.last_shown) {
    run.last_shown = x;
    note_progress(run);
    const double obj = run.m.objective_value(x.data());
    double best = run.best_objective();
    if (std::isnan(best)) best = ctx.sense == KVR_MINIMIZE ? KVR_INFINITY : -KVR_INFINITY;
    CallbackData cb{&ctx, KVR_CB_MIPSOL, {}};
    cb.sol = x.data();
    cb.values = {{KVR_CB_MIPSOL_OBJ, obj},
                 {KVR_CB_MIPSOL_OBJBST, best},
                 {KVR_CB_MIPSOL_OBJBND, run.from_scip(run.a.SCIPgetDualbound(run.scip))},
                 {KVR_CB_MIPSOL_NODCNT, static_cast<double>(run.a.SCIPgetNNodes(run.scip))},
                 {KVR_CB_MIPSOL_SOLCNT, static_cast<double>(run.a.SCIPgetNSols(run.scip))},
                 {KVR_CB_MIPSOL_PHASE, 1},
                 {KVR_CB_MIPSOL_OPENSCENARIOS, 0},
                 {KVR_CB_RUNTIME, ctx.elapsed()},
                 {KVR_CB_WORK, ctx.work_now}};
    ctx.invoke(cb);
    run.stop_if_asked();
  }
  std::vector<const LinRow *> violated;
  for (const LinRow &row : ctx.lazy)
    if (row.violation(x.data()) > run.row_tolerance(row)) violated.push_back(&row);
  return violated;
}

Retcode add_lazy_constraints(ScipRun &run, const std::vector<const LinRow *> &rows) {
  for (const LinRow *row : rows) {
    std::vector<Var *> v = run.row_vars(*row);
    std::vector<double> val = row->val;
    double lhs, rhs;
    run.bounds_of(*row, lhs, rhs);
    Cons *cons = nullptr;
    std::string name = format("lazy%zu", run.lazy_rows_added++);
    Retcode rc = run.a.SCIPcreateConsBasicLinear(
        run.scip, &cons, name.c_str(), static_cast<int>(v.size()), v.data(), val.data(), lhs, rhs);
    if (rc != kOkay) return rc;
    rc = run.a.SCIPaddCons(run.scip, cons);
    run.a.SCIPreleaseCons(run.scip, &cons);
    if (rc != kOkay) return rc;
  }
  return kOkay;
}

Retcode enforce(Scip *, int *result) {
  *result = kFeasible;
  ScipRun *run = t_run;
  if (!run) return kOkay;
  try {
    auto violated = examine_candidate(*run, run->values(nullptr));
    offer_user_solutions(*run);
    if (violated.empty()) return kOkay;
    *result = kConsAdded;
    return add_lazy_constraints(*run, violated);
  } catch (...) {
    return kError;
  }
}

Retcode on_enfolp(Scip *s, Conshdlr *, Cons **, int, int, Bool, int *result) {
  return enforce(s, result);
}

Retcode on_enfops(Scip *s, Conshdlr *, Cons **, int, int, Bool, Bool, int *result) {
  return enforce(s, result);
}

Retcode on_check(Scip *, Conshdlr *, Cons **, int, Sol *sol, Bool, Bool, Bool, Bool, int *result) {
  *result = kFeasible;
  ScipRun *run = t_run;
  if (!run) return kOkay;
  try {
    if (!examine_candidate(*run, run->values(sol)).empty()) *result = kInfeasible;
    return kOkay;
  } catch (...) {
    return kError;
  }
}

// Called with no constraint when the handler itself (it has no constraints) locks variables.
Retcode on_lock(Scip *s, Conshdlr *, Cons *cons, LockType type, int up, int down) {
  ScipRun *run = t_run;
  if (cons || !run) return kOkay;
  // The same transformed variables must be unlocked when SCIP frees its problem.
  if (run->locked.empty())
    for (size_t j = 0; j < run->vars.size(); ++j) run->locked.push_back(run->active(int(j)));
  for (Var *v : run->locked) {
    Retcode rc = run->a.SCIPaddVarLocksType(s, v, type, up + down, up + down);
    if (rc != kOkay) return rc;
  }
  return kOkay;
}

// A node relaxation: the MIPNODE callback, then its cuts as rows.
Retcode on_sepalp(Scip *s, Conshdlr *hdlr, Cons **, int, int, int *result) {
  *result = kDidNotFind;
  ScipRun *run = t_run;
  if (!run) return kOkay;
  const Api &a = run->a;
  SolveContext &ctx = run->ctx;
  try {
    if (a.SCIPgetLPSolstat(s) != kLpOptimal) return kOkay;
    note_progress(*run);
    std::vector<double> rel = run->values(nullptr);
    double best = run->best_objective();
    if (std::isnan(best)) best = ctx.sense == KVR_MINIMIZE ? KVR_INFINITY : -KVR_INFINITY;
    CallbackData cb{&ctx, KVR_CB_MIPNODE, {}};
    cb.sol = rel.data();
    cb.values = {{KVR_CB_MIPNODE_STATUS, KVR_OPTIMAL},
                 {KVR_CB_MIPNODE_OBJBST, best},
                 {KVR_CB_MIPNODE_OBJBND, run->from_scip(a.SCIPgetDualbound(s))},
                 {KVR_CB_MIPNODE_NODCNT, static_cast<double>(a.SCIPgetNNodes(s))},
                 {KVR_CB_MIPNODE_SOLCNT, static_cast<double>(a.SCIPgetNSols(s))},
                 {KVR_CB_MIPNODE_PHASE, 1},
                 {KVR_CB_MIPNODE_OPENSCENARIOS, 0},
                 {KVR_CB_RUNTIME, ctx.elapsed()},
                 {KVR_CB_WORK, ctx.work_now}};
    const size_t lazy_before = ctx.lazy.size();
    ctx.invoke(cb);
    run->stop_if_asked();
    offer_user_solutions(*run);
    std::vector<LinRow> rows = std::move(ctx.cuts);
    ctx.cuts.clear();
    // Lazy constraints given at a node are cuts as well, and stay for every later candidate.
    for (size_t k = lazy_before; k < ctx.lazy.size(); ++k) rows.push_back(ctx.lazy[k]);
    for (const LinRow &cut : rows) {
      Row *row = nullptr;
      double lhs, rhs;
      run->bounds_of(cut, lhs, rhs);
      Retcode rc = a.SCIPcreateEmptyRowConshdlr(s, &row, hdlr, "usercut", lhs, rhs, 0, 0, 0);
      if (rc != kOkay) return rc;
      std::vector<Var *> v = run->row_vars(cut);
      std::vector<double> val = cut.val;
      rc = a.SCIPaddVarsToRow(s, row, static_cast<int>(v.size()), v.data(), val.data());
      Bool infeasible = 0;
      if (rc == kOkay) rc = a.SCIPaddRow(s, row, 1, &infeasible);
      a.SCIPreleaseRow(s, &row);
      if (rc != kOkay) return rc;
      *result = infeasible ? kCutoff : kSeparated;
      if (infeasible) break;
    }
    return kOkay;
  } catch (...) {
    return kError;
  }
}

// Keeps the reduced costs of an optimal LP of a continuous linear model (see the top).
void note_lp_duals(ScipRun &run) {
  const Api &a = run.a;
  if (a.SCIPgetLPSolstat(run.scip) != kLpOptimal) return;
  auto redcosts = [&](const std::vector<Var *> &vars, std::vector<double> &out) {
    out.resize(vars.size());
    for (size_t j = 0; j < vars.size(); ++j) {
      Var *t = nullptr;
      if (a.SCIPgetTransformedVar(run.scip, vars[j], &t) != kOkay || !t) t = vars[j];
      out[j] = a.SCIPgetVarRedcost(run.scip, t);
    }
  };
  redcosts(run.vars, run.lp_rc);
  redcosts(run.probes, run.lp_probe_rc);
}

// The duals of an optimal continuous linear model in the library's terms: SCIP minimizes, so a
// maximization flips their signs; a probe's reduced cost is minus its row's dual. A root node
// pruned before its LP (a known solution reaches the bound of every variable at its cheaper
// bound) has the duals 0 and the objective as reduced costs, once that bound is checked.
void read_duals(ScipRun &run, EngineResult &r) {
  const ModelData &m = run.m;
  const double sign = m.sense == KVR_MAXIMIZE ? -1.0 : 1.0;
  if (run.lp_rc.size() == run.vars.size() &&
      run.lp_probe_rc.size() == static_cast<size_t>(m.num_constrs())) {
    r.rc = std::move(run.lp_rc);
    for (double &d : r.rc) d *= sign;
    r.pi = std::move(run.lp_probe_rc);
    for (double &y : r.pi) y *= -sign;
    return;
  }
  double bound = m.objcon;
  for (int j = 0; j < m.num_vars(); ++j) {
    const double c = m.vars.obj[j];
    if (c != 0.0) bound += c * (sign * c > 0 ? m.vars.lb[j] : m.vars.ub[j]);
  }
  const double tol = run.ctx.params->get_dbl(ParamId::OptimalityTol);
  if (!(std::fabs(bound - r.objval) <= tol * std::max(1.0, std::fabs(r.objval)))) return;
  r.rc = m.vars.obj;
  r.pi.assign(static_cast<size_t>(m.num_constrs()), 0.0);
}

// MIP progress, objective limits and every request to stop.
Retcode on_event(Scip *s, Eventhdlr *, Event *event, EventData *) {
  ScipRun *run = t_run;
  if (!run) return kOkay;
  SolveContext &ctx = run->ctx;
  try {
    const EventType type = run->a.SCIPeventGetType(event);
    if (run->duals && (type & (kEventFirstLpSolved | kEventLpSolved))) note_lp_duals(*run);
    note_progress(*run);
    // A new incumbent is announced while SCIP is still storing it: a solution tried then would
    // lower the bound under the one SCIP goes on to set, which it rejects as an error.
    const bool storing_solution = type == kEventBestSolFound;
    if (!storing_solution) offer_user_solutions(*run);
    double best = run->best_objective();
    double bound = run->from_scip(run->a.SCIPgetDualbound(s));
    ctx.solcount = run->a.SCIPgetNSols(s);
    ctx.check_objective_limits(best, storing_solution ? kNaN : bound);
    if (ctx.is_mip && ctx.has_callback() && ctx.progress_due()) {
      CallbackData cb{&ctx, KVR_CB_MIP, {}};
      if (std::isnan(best)) best = ctx.sense == KVR_MINIMIZE ? KVR_INFINITY : -KVR_INFINITY;
      cb.values = {{KVR_CB_MIP_OBJBST, best},
                   {KVR_CB_MIP_OBJBND, bound},
                   {KVR_CB_MIP_NODCNT, static_cast<double>(run->a.SCIPgetNNodes(s))},
                   {KVR_CB_MIP_SOLCNT, ctx.solcount},
                   {KVR_CB_MIP_ITRCNT, ctx.iters_now},
                   {KVR_CB_MIP_PHASE, 1},
                   {KVR_CB_MIP_OPENSCENARIOS, 0},
                   {KVR_CB_RUNTIME, ctx.elapsed()},
                   {KVR_CB_WORK, ctx.work_now}};
      const Api &a = run->a;
      if (a.SCIPgetNNodesLeft)
        cb.values.push_back({KVR_CB_MIP_NODLFT, double(a.SCIPgetNNodesLeft(s))});
      if (a.SCIPgetNCutsApplied)
        cb.values.push_back({KVR_CB_MIP_CUTCNT, double(a.SCIPgetNCutsApplied(s))});
      ctx.invoke(cb);
      if (!storing_solution) offer_user_solutions(*run);
    }
    run->stop_if_asked();
    return kOkay;
  } catch (...) {
    return kError;
  }
}

Retcode on_event_init(Scip *s, Eventhdlr *hdlr) {
  ScipRun *run = t_run;
  if (!run) return kOkay;
  const EventType lp = run->duals ? kEventFirstLpSolved | kEventLpSolved : kEventLpSolved;
  return run->a.SCIPcatchEvent(s, kEventNodeFocused | lp | kEventBestSolFound, hdlr, nullptr,
                               nullptr);
}

// ---------------------------------------------------------------- the engine

int map_status(int status, bool has_x) {
  switch (status) {
    case kStatusOptimal:
    case kStatusGapLimit:
      return KVR_OPTIMAL;
    case kStatusInfeasible:
      return KVR_INFEASIBLE;
    case kStatusUnbounded:
      return KVR_UNBOUNDED;
    case kStatusInfOrUnbd:
      return KVR_INF_OR_UNBD;
    case kStatusUserInterrupt:
    case kStatusTerminate:
      return KVR_INTERRUPTED;
    case kStatusNodeLimit:
    case kStatusTotalNodeLimit:
    case kStatusStallNodeLimit:
      return KVR_NODE_LIMIT;
    case kStatusTimeLimit:
      return KVR_TIME_LIMIT;
    case kStatusMemLimit:
      return KVR_MEM_LIMIT;
    case kStatusSolLimit:
    case kStatusBestSolLimit:
      return KVR_SOLUTION_LIMIT;
    case kStatusPrimalLimit:
    case kStatusDualLimit:
      return KVR_USER_OBJ_LIMIT;
    default:
      return has_x ? KVR_SUBOPTIMAL : KVR_NUMERIC;
  }
}

struct KeptScip;

class ScipEngine final : public Engine {
 public:
  const char *name() const override { return "SCIP"; }
  EngineResult solve(const EngineProblem &problem, const ParamValues &params,
                     SolveContext &ctx) override;
  EngineResult solve_kept(const EngineProblem &problem, const ParamValues &params,
                          SolveContext &ctx, std::shared_ptr<EngineState> &state) override;

 private:
  static void pass_model(ScipRun &run);
  static void set_params(ScipRun &run, const ParamValues &p);
  // Solves on the problem `kept` holds (brought up to date already), or on a new one when it
  // is null; with keep set, `kept` ends as the problem to keep for the next solve.
  EngineResult solve_on(const EngineProblem &problem, const ParamValues &params, SolveContext &ctx,
                        std::shared_ptr<KeptScip> &kept, bool keep);
};

// A new probe column for a row's dual: fixed at 0, no objective.
Var *add_probe(ScipRun &run) {
  Var *probe = nullptr;
  check(run.a.SCIPcreateVarBasic(run.scip, &probe, "dual", 0.0, 0.0, 0.0, kContinuous),
        "creating a variable");
  const Retcode rc = run.a.SCIPaddVar(run.scip, probe);
  if (rc != kOkay) run.a.SCIPreleaseVar(run.scip, &probe);
  check(rc, "adding a variable");
  return probe;
}

void ScipEngine::pass_model(ScipRun &run) {
  const Api &a = run.a;
  Scip *s = run.scip;
  const ModelData &m = run.m;
  check(a.SCIPcreateProbBasic(s, m.name.empty() ? "model" : m.name.c_str()),
        "creating the problem");
  check(a.SCIPsetObjsense(s, m.sense == KVR_MAXIMIZE ? kMaximize : kMinimize), "the sense");
  if (m.objcon != 0.0) check(a.SCIPaddOrigObjoffset(s, m.objcon), "the objective constant");
  const int n = m.num_vars();
  run.vars.resize(n);
  std::vector<int> semi;  // semi-continuous and semi-integer variables whose range excludes 0
  for (int j = 0; j < n; ++j) {
    char t = m.vars.vtype[j];
    double lb = m.vars.lb[j], ub = m.vars.ub[j];
    int type = kContinuous;
    if (t == KVR_BINARY) {
      type = kBinary;
      lb = std::max(lb, 0.0), ub = std::min(ub, 1.0);
    } else if (t == KVR_INTEGER || t == KVR_SEMIINT) {
      type = kInteger;
    }
    if ((t == KVR_SEMICONT || t == KVR_SEMIINT) && (lb > 0 || ub < 0)) {
      semi.push_back(j);
      lb = std::min(lb, 0.0), ub = std::max(ub, 0.0);
    }
    std::string name = format("x%d", j);
    check(a.SCIPcreateVarBasic(s, &run.vars[j], name.c_str(), run.to_scip(lb), run.to_scip(ub),
                               m.vars.obj[j], type),
          "creating a variable");
    check(a.SCIPaddVar(s, run.vars[j]), "adding a variable");
  }
  auto add = [&](Cons *cons, const char *what) {
    Retcode rc = a.SCIPaddCons(s, cons);
    a.SCIPreleaseCons(s, &cons);
    check(rc, what);
  };
  // x = 0 or x in [lb, ub]: x <= 0 or x >= lb (x >= 0 or x <= ub for a negative range).
  for (int j : semi) {
    const bool positive = m.vars.lb[j] > 0;
    Var *both[2] = {run.vars[j], run.vars[j]};
    int types[2] = {positive ? kUpperBound : kLowerBound, positive ? kLowerBound : kUpperBound};
    double bounds[2] = {0.0, positive ? m.vars.lb[j] : m.vars.ub[j]};
    Cons *cons = nullptr;
    check(a.SCIPcreateConsBasicBounddisjunction(s, &cons, "semi", 2, both, types, bounds),
          "creating a semi-continuous variable");
    add(cons, "adding a semi-continuous variable");
  }
  const SparseMatrix &A = m.constrs.rows;
  std::vector<Var *> v;
  std::vector<double> val;
  for (int i = 0; i < m.num_constrs(); ++i) {
    v.clear(), val.clear();
    for (int64_t k = A.beg[i]; k < A.beg[i + 1]; ++k) {
      v.push_back(run.vars[A.ind[k]]);
      val.push_back(A.val[k]);
    }
    if (run.duals) {
      run.probes.push_back(add_probe(run));
      v.push_back(run.probes.back()), val.push_back(1.0);
    }
    char sense = m.constrs.sense[i];
    double rhs = m.constrs.rhs[i];
    double lo = sense == KVR_LESS_EQUAL ? -run.infinity : run.to_scip(rhs);
    double hi = sense == KVR_GREATER_EQUAL ? run.infinity : run.to_scip(rhs);
    Cons *cons = nullptr;
    std::string name = format("r%d", i);
    check(a.SCIPcreateConsBasicLinear(s, &cons, name.c_str(), static_cast<int>(v.size()), v.data(),
                                      val.data(), lo, hi),
          "creating a linear constraint");
    add(cons, "adding a linear constraint");
  }
  auto add_quadratic = [&](const std::vector<int> &lind, const std::vector<double> &lval,
                           const QuadTerms &q, double lo, double hi, Var *extra) {
    std::vector<Var *> lv, q1, q2;
    std::vector<double> lc = lval, qc = q.val;
    for (int j : lind) lv.push_back(run.vars[j]);
    if (extra) lv.push_back(extra), lc.push_back(-1.0);
    for (size_t k = 0; k < q.size(); ++k) {
      q1.push_back(run.vars[q.row[k]]);
      q2.push_back(run.vars[q.col[k]]);
    }
    Cons *cons = nullptr;
    check(a.SCIPcreateConsBasicQuadraticNonlinear(s, &cons, "q", static_cast<int>(lv.size()),
                                                  lv.data(), lc.data(), static_cast<int>(q1.size()),
                                                  q1.data(), q2.data(), qc.data(), lo, hi),
          "creating a quadratic constraint");
    add(cons, "adding a quadratic constraint");
  };
  for (const QConstr &c : m.qconstrs.items) {
    double lo = c.sense == KVR_LESS_EQUAL ? -run.infinity : run.to_scip(c.rhs);
    double hi = c.sense == KVR_GREATER_EQUAL ? run.infinity : run.to_scip(c.rhs);
    add_quadratic(c.lind, c.lval, c.q, lo, hi, nullptr);
  }
  // SCIP has no quadratic objective: min t with x'Qx - t <= 0 (maximizing: x'Qx - t >= 0).
  if (m.q.size() > 0) {
    check(a.SCIPcreateVarBasic(s, &run.epigraph, "objective", -run.infinity, run.infinity, 1.0,
                               kContinuous),
          "creating a variable");
    check(a.SCIPaddVar(s, run.epigraph), "adding a variable");
    const bool max = m.sense == KVR_MAXIMIZE;
    add_quadratic({}, {}, m.q, max ? 0.0 : -run.infinity, max ? run.infinity : 0.0, run.epigraph);
  }
  for (int k = 0; k < m.sos.size(); ++k) {
    v.clear(), val.clear();
    for (int64_t e = m.sos.beg[k]; e < m.sos.beg[k + 1]; ++e) {
      v.push_back(run.vars[m.sos.ind[e]]);
      val.push_back(m.sos.weight[e]);
    }
    Cons *cons = nullptr;
    auto create =
        m.sos.type[k] == KVR_SOS_TYPE1 ? a.SCIPcreateConsBasicSOS1 : a.SCIPcreateConsBasicSOS2;
    check(create(s, &cons, "sos", static_cast<int>(v.size()), v.data(), val.data()),
          "creating an SOS constraint");
    add(cons, "adding an SOS constraint");
  }
  int counts[3] = {0, 0, 0};  // indicator, and, or
  for (const GenConstr &g : m.gens.items) {
    if (g.type == KVR_GENCONSTR_AND || g.type == KVR_GENCONSTR_OR) {
      const bool is_and = g.type == KVR_GENCONSTR_AND;
      v.clear();
      for (int j : g.vars) v.push_back(run.vars[j]);
      Cons *cons = nullptr;
      auto create = is_and ? a.SCIPcreateConsBasicAnd : a.SCIPcreateConsBasicOr;
      check(create(s, &cons, is_and ? "and" : "or", run.vars[g.resvar], static_cast<int>(v.size()),
                   v.data()),
            "creating an and/or constraint");
      add(cons, "adding an and/or constraint");
      ++counts[is_and ? 1 : 2];
      continue;
    }
    if (g.type != KVR_GENCONSTR_INDICATOR)
      fail(KVR_ERROR_INTERNAL, "General constraint of type %d reached the SCIP engine", g.type);
    ++counts[0];
    Var *bin = run.vars[g.binvar];
    if (g.binval == 0) check(a.SCIPgetNegatedVar(s, bin, &bin), "negating a variable");
    // binvar = binval implies sum val x <= rhs; >= flips the signs, = takes both.
    for (double sign : {1.0, -1.0}) {
      if ((sign > 0 && g.sense == KVR_GREATER_EQUAL) || (sign < 0 && g.sense == KVR_LESS_EQUAL))
        continue;
      v.clear(), val.clear();
      for (size_t k = 0; k < g.ind.size(); ++k) {
        v.push_back(run.vars[g.ind[k]]);
        val.push_back(sign * g.val[k]);
      }
      Cons *cons = nullptr;
      check(a.SCIPcreateConsBasicIndicator(s, &cons, "indicator", bin, static_cast<int>(v.size()),
                                           v.data(), val.data(), sign * g.rhs),
            "creating an indicator constraint");
      add(cons, "adding an indicator constraint");
    }
  }
  if (m.gens.size() > 0)
    run.ctx.logf("General constraints passed to SCIP as they are: %d indicator, %d and, %d or\n",
                 counts[0], counts[1], counts[2]);
}

// Sets one option given in KAVIRO_ENGINE_OPTIONS; SCIP's parameters have types, so each type is
// tried in turn.
bool set_any_param(const Api &a, Scip *s, const std::string &name, const std::string &value) {
  char *end = nullptr;
  long long iv = std::strtoll(value.c_str(), &end, 10);
  const bool is_int = !value.empty() && *end == '\0';
  double dv = std::strtod(value.c_str(), &end);
  const bool is_num = !value.empty() && *end == '\0';
  if (value == "true" || value == "false")
    return a.SCIPsetBoolParam(s, name.c_str(), value == "true") == kOkay;
  if (is_int && a.SCIPsetIntParam(s, name.c_str(), static_cast<int>(iv)) == kOkay) return true;
  if (is_int && a.SCIPsetLongintParam(s, name.c_str(), iv) == kOkay) return true;
  if (is_int && (iv == 0 || iv == 1) && a.SCIPsetBoolParam(s, name.c_str(), iv == 1) == kOkay)
    return true;
  if (is_num && a.SCIPsetRealParam(s, name.c_str(), dv) == kOkay) return true;
  if (value.size() == 1 && a.SCIPsetCharParam(s, name.c_str(), value[0]) == kOkay) return true;
  return a.SCIPsetStringParam(s, name.c_str(), value.c_str()) == kOkay;
}

void ScipEngine::set_params(ScipRun &run, const ParamValues &p) {
  const Api &a = run.a;
  Scip *s = run.scip;
  SolveContext &ctx = run.ctx;
  auto real = [&](const char *name, double v) { check(a.SCIPsetRealParam(s, name, v), name); };
  check(a.SCIPsetBoolParam(s, "misc/catchctrlc", 0), "misc/catchctrlc");
  double tl = p.get_dbl(ParamId::TimeLimit);
  if (tl < KVR_INFINITY) real("limits/time", std::max(0.0, tl - ctx.elapsed()));
  real("limits/gap", p.get_dbl(ParamId::MIPGap));
  real("limits/absgap", p.get_dbl(ParamId::MIPGapAbs));
  real("numerics/feastol", p.get_dbl(ParamId::FeasibilityTol));
  real("numerics/dualfeastol", p.get_dbl(ParamId::OptimalityTol));
  double nl = p.get_dbl(ParamId::NodeLimit);
  if (nl < KVR_INFINITY)
    check(a.SCIPsetLongintParam(s, "limits/nodes", static_cast<Longint>(nl)), "limits/nodes");
  int sl = p.get_int(ParamId::SolutionLimit);
  if (sl < 2000000000) check(a.SCIPsetIntParam(s, "limits/solutions", sl), "limits/solutions");
  check(a.SCIPsetIntParam(s, "limits/maxsol",
                          std::max(100, std::min(p.get_int(ParamId::PoolSolutions), 100000))),
        "limits/maxsol");
  check(a.SCIPsetIntParam(s, "randomization/randomseedshift", p.get_int(ParamId::Seed)),
        "randomization/randomseedshift");
  if (p.get_int(ParamId::Presolve) == 0)
    check(a.SCIPsetPresolving(s, kSettingOff, 1), "presolving");
  if (p.get_dbl(ParamId::Heuristics) == 0.0)
    check(a.SCIPsetHeuristics(s, kSettingOff, 1), "heuristics");
  if (p.get_int(ParamId::Symmetry) == 0)
    check(a.SCIPsetIntParam(s, "misc/usesymmetry", 0), "misc/usesymmetry");
  bool options = false;
  for (const auto &[name, value] : engine_options()) {
    if (name.find('/') == std::string::npos) continue;  // another engine's option
    if (!set_any_param(a, s, name, value))
      fail(KVR_ERROR_INVALID_ARGUMENT, "KAVIRO_ENGINE_OPTIONS: the engine rejects %s=%s",
           name.c_str(), value.c_str());
    ctx.logf("Engine option %s=%s\n", name.c_str(), value.c_str());
    options = true;
  }
  if (!run.duals) return;
  // Last, so that no engine option undoes them: wrong duals would be worse than none.
  if (options)
    ctx.log(
        "The duals of a continuous linear model need SCIP's presolve, propagation, LP "
        "presolve and LP cutoff off, whatever the engine options say\n");
  check(a.SCIPsetPresolving(s, kSettingOff, 1), "presolving");
  check(a.SCIPsetIntParam(s, "propagating/maxrounds", 0), "propagating/maxrounds");
  check(a.SCIPsetIntParam(s, "propagating/maxroundsroot", 0), "propagating/maxroundsroot");
  // The LP solver's own presolve merges parallel columns and then splits their reduced costs
  // unevenly (greenbea: one of two equal columns got twice the cost, the other none).
  check(a.SCIPsetBoolParam(s, "lp/presolving", 0), "lp/presolving");
  // A known solution as good as the LP's optimum (the last one of a kept problem, a heuristic's)
  // would stop the LP at the cutoff, before its duals are optimal.
  check(a.SCIPsetIntParam(s, "lp/disablecutoff", 1), "lp/disablecutoff");
}

// Owns the SCIP instance and its message handler.
struct Instance {
  const Api &a;
  Scip *scip = nullptr;
  Messagehdlr *msg = nullptr;
  ScipRun *run = nullptr;  // for the unlock calls while freeing
  explicit Instance(const Api &api) : a(api) { check(a.SCIPcreate(&scip), "SCIPcreate"); }
  ~Instance() {
    RunScope scope(run);
    if (run)
      for (Var *&v : run->vars)
        if (v) a.SCIPreleaseVar(scip, &v);
    if (run)
      for (Var *&v : run->probes)
        if (v) a.SCIPreleaseVar(scip, &v);
    if (run && run->epigraph) a.SCIPreleaseVar(scip, &run->epigraph);
    a.SCIPfree(&scip);
    if (msg) a.SCIPmessagehdlrRelease(&msg);
  }
  Instance(const Instance &) = delete;
  Instance &operator=(const Instance &) = delete;
};

// ---------------------------------------------------------------- problems kept between solves

// SCIP's problem of a model kept between its solves, in SCIP's problem stage (the transformed
// problem is freed after each solve): its variables and linear constraints in the model's order,
// and what SCIP was given for them.
struct KeptScip {
  std::unique_ptr<Instance> inst;
  std::vector<Var *> vars;
  std::vector<Cons *> rows;
  std::vector<int> types;        // SCIP's variable types
  std::vector<double> lhs, rhs;  // the rows' sides as given (SCIP's infinity)
  bool probing = false;          // each row has a probe column for its dual, in `probes`
  std::vector<Var *> probes;
  // The and/or constraints SCIP has (after the rows); a model whose list differs is handed over
  // in full.
  std::vector<GenConstr> and_or;
  int sense = KVR_MINIMIZE;
  double objcon = 0.0;
  ~KeptScip() {
    if (!inst) return;
    const Api &a = inst->a;
    for (Cons *&c : rows)
      if (c) a.SCIPreleaseCons(inst->scip, &c);
    for (Var *&v : vars)
      if (v) a.SCIPreleaseVar(inst->scip, &v);
    for (Var *&v : probes)
      if (v) a.SCIPreleaseVar(inst->scip, &v);
  }
};

struct ScipState final : EngineState {
  std::shared_ptr<KeptScip> kept;
  std::vector<double> incumbent;  // the last solution of a MIP (empty when none)
};

bool keeping_possible(const Api &a) {
#define KVR_SCIP_PRESENT(name, type) &&a.name
  return true KVR_SCIP_KEEP_FUNCTIONS(KVR_SCIP_PRESENT);
#undef KVR_SCIP_PRESENT
}

// Why the problem of m is not kept between solves ("" when it is): kept are linear models whose
// rows and variables reach SCIP as they are, solved without callbacks or a cutoff.
const char *not_kept_because(const Api &a, const EngineProblem &problem, const ParamValues &params,
                             const SolveContext &ctx) {
  const ModelData &m = *problem.model;
  if (!keeping_possible(a)) return "the SCIP library lacks what changing a problem needs";
  if (m.q.size() > 0 || m.qconstrs.size() > 0 || m.sos.size() > 0)
    return "quadratic or SOS constraints";
  for (const GenConstr &g : m.gens.items)
    if (g.type != KVR_GENCONSTR_AND && g.type != KVR_GENCONSTR_OR) return "indicator constraints";
  for (char t : m.vars.vtype)
    if (t == KVR_SEMICONT || t == KVR_SEMIINT) return "semi-continuous variables";
  if (ctx.has_callback() || !ctx.lazy.empty() || problem.user_vars != m.num_vars())
    return "a callback";
  if (std::fabs(params.get_dbl(ParamId::Cutoff)) < KVR_INFINITY) return "a cutoff";
  return "";
}

// What SCIP is given for variable j of m: its type and bounds.
int scip_type(const ModelData &m, int j, double &lb, double &ub) {
  lb = m.vars.lb[j], ub = m.vars.ub[j];
  switch (m.vars.vtype[j]) {
    case KVR_BINARY:
      lb = std::max(lb, 0.0), ub = std::min(ub, 1.0);
      return kBinary;
    case KVR_INTEGER:
      // SCIP creates an integer variable within [0, 1] as a binary one: a kept problem must
      // know, or a wider bound later is refused.
      return 0.0 <= lb && lb <= ub && ub <= 1.0 ? kBinary : kInteger;
    default:
      return kContinuous;
  }
}

void row_sides(const ScipRun &run, const ModelData &m, int i, double &lhs, double &rhs) {
  const char sense = m.constrs.sense[i];
  const double b = run.to_scip(m.constrs.rhs[i]);
  lhs = sense == KVR_LESS_EQUAL ? -run.infinity : b;
  rhs = sense == KVR_GREATER_EQUAL ? run.infinity : b;
}

// Takes over the problem just solved (or solved on kept already) for the next solve: frees the
// transformed problem, and on first use notes the variables and rows pass_model made.
void keep_problem(std::shared_ptr<KeptScip> &kept, std::unique_ptr<Instance> made, ScipRun &run) {
  const Api &a = run.a;
  check(a.SCIPfreeTransform(run.scip), "freeing the transformed problem");
  if (kept) return;
  auto k = std::make_shared<KeptScip>();
  made->run = nullptr;  // the kept problem releases its variables itself
  k->inst = std::move(made);
  k->vars = std::move(run.vars);
  run.vars.clear();
  k->probing = run.duals;
  k->probes = std::move(run.probes);
  run.probes.clear();
  const ModelData &m = run.m;
  // The model's rows are the problem's first constraints, in order; its and/or constraints follow.
  if (a.SCIPgetNOrigConss(run.scip) != m.num_constrs() + m.gens.size()) return;
  k->and_or = m.gens.items;
  Cons **conss = a.SCIPgetOrigConss(run.scip);
  for (int i = 0; i < m.num_constrs(); ++i) {
    check(a.SCIPcaptureCons(run.scip, conss[i]), "keeping a constraint");
    k->rows.push_back(conss[i]);
    double l, r;
    row_sides(run, m, i, l, r);
    k->lhs.push_back(l), k->rhs.push_back(r);
  }
  for (int j = 0; j < m.num_vars(); ++j) {
    double lb, ub;
    k->types.push_back(scip_type(m, j, lb, ub));
  }
  k->sense = m.sense;
  k->objcon = m.objcon;
  kept = std::move(k);
}

// Whether duals are computed for m: a continuous linear model (see the top).
bool duals_wanted(const ModelData &m) {
  return !m.is_mip() && m.q.size() == 0 && m.qconstrs.size() == 0;
}

// Whether two lists of and/or constraints are the same constraints in the same order.
bool same_and_or(const std::vector<GenConstr> &kept, const std::vector<GenConstr> &now) {
  return std::equal(kept.begin(), kept.end(), now.begin(), now.end(),
                    [](const GenConstr &x, const GenConstr &y) {
                      return x.type == y.type && x.resvar == y.resvar && x.vars == y.vars;
                    });
}

// Counts of what bringing a kept problem up to date handed over.
struct ScipUpdate {
  size_t deleted = 0, added = 0, changed = 0;
};

// Brings the kept problem up to date with m: the deleted rows, the variables and rows changed in
// place (every cost when the objective was replaced), then the new variables and rows. Returns
// false when the change is better handed over in full (deleted variables, quadratic terms, more
// new elements than the problem had).
bool update_kept(KeptScip &k, EngineState &changes, const ModelData &m, ScipRun &run,
                 ScipUpdate &out) {
  const Api &a = run.a;
  Scip *s = run.scip;
  const int n0 = static_cast<int>(k.vars.size());
  if (changes.scan_all) return false;
  for (const auto &[kind, renumbering] : changes.deletions)
    if (kind == 'V') return false;
  const int n = m.num_vars(), rows = m.num_constrs();
  if (n < n0) return false;
  for (const auto &[kind, renumbering] : changes.deletions) {
    std::vector<Cons *> rows_left;
    std::vector<Var *> probes_left;
    std::vector<double> lhs_left, rhs_left;
    for (size_t i = 0; i < k.rows.size(); ++i) {
      if (i < renumbering.size() && renumbering[i] >= 0) {
        rows_left.push_back(k.rows[i]), lhs_left.push_back(k.lhs[i]), rhs_left.push_back(k.rhs[i]);
        if (k.probing) probes_left.push_back(k.probes[i]);
        continue;
      }
      // A deleted row's probe column stays in the problem, in no row, fixed at 0.
      if (k.probing) a.SCIPreleaseVar(s, &k.probes[i]);
      Cons *gone = k.rows[i];
      k.rows[i] = nullptr;  // released here, whatever happens next
      const Retcode rc = a.SCIPdelCons(s, gone);
      a.SCIPreleaseCons(s, &gone);
      check(rc, "deleting a constraint");
      ++out.deleted;
    }
    k.rows = std::move(rows_left), k.lhs = std::move(lhs_left), k.rhs = std::move(rhs_left);
    if (k.probing) k.probes = std::move(probes_left);
  }
  const int m0 = static_cast<int>(k.rows.size());
  if (rows < m0) return false;
  out.added = static_cast<size_t>(n - n0 + rows - m0);
  if (out.added > static_cast<size_t>(n0 + m0) + 100) return false;

  Bool infeasible = 0;
  auto set_var = [&](int j) {
    double lb, ub;
    const int type = scip_type(m, j, lb, ub);
    // A binary variable takes bounds within [0, 1] only: its type changes first when it stops
    // being one, last when it becomes one.
    const bool type_first = k.types[j] == kBinary;
    if (type != k.types[j] && type_first)
      check(a.SCIPchgVarType(s, k.vars[j], type, &infeasible), "changing a variable's type");
    check(a.SCIPchgVarLb(s, k.vars[j], run.to_scip(lb)), "changing a bound");
    check(a.SCIPchgVarUb(s, k.vars[j], run.to_scip(ub)), "changing a bound");
    if (type != k.types[j] && !type_first)
      check(a.SCIPchgVarType(s, k.vars[j], type, &infeasible), "changing a variable's type");
    k.types[j] = type;
    check(a.SCIPchgVarObj(s, k.vars[j], m.vars.obj[j]), "changing an objective coefficient");
  };
  auto set_sides = [&](int i) {
    double l, r;
    row_sides(run, m, i, l, r);
    // Sides that cross the old ones are set in the order that keeps lhs <= rhs.
    if (l > k.rhs[i]) {
      check(a.SCIPchgRhsLinear(s, k.rows[i], r), "changing a side");
      check(a.SCIPchgLhsLinear(s, k.rows[i], l), "changing a side");
    } else {
      check(a.SCIPchgLhsLinear(s, k.rows[i], l), "changing a side");
      check(a.SCIPchgRhsLinear(s, k.rows[i], r), "changing a side");
    }
    k.lhs[i] = l, k.rhs[i] = r;
  };
  // Each changed element once.
  auto once = [](auto list) {
    std::sort(list.begin(), list.end());
    list.erase(std::unique(list.begin(), list.end()), list.end());
    return list;
  };
  for (int j : once(changes.changed_vars))
    if (j < n0) set_var(j), ++out.changed;
  if (changes.objective_replaced)
    for (int j = 0; j < n0; ++j, ++out.changed)
      check(a.SCIPchgVarObj(s, k.vars[j], m.vars.obj[j]), "changing an objective coefficient");
  for (int i : once(changes.changed_constrs))
    if (i < m0) set_sides(i), ++out.changed;
  const SparseMatrix &A = m.constrs.rows;
  for (auto [i, j] : once(changes.changed_coeffs)) {
    if (i >= m0 || j >= n0) continue;  // a new row or column brings it
    double val = 0.0;
    for (int64_t e = A.beg[i]; e < A.beg[i + 1]; ++e)
      if (A.ind[e] == j) val = A.val[e];
    check(a.SCIPchgCoefLinear(s, k.rows[i], k.vars[j], val), "changing a coefficient");
    ++out.changed;
  }
  // New variables, with their coefficients in the rows SCIP has.
  for (int j = n0; j < n; ++j) {
    double lb, ub;
    const int type = scip_type(m, j, lb, ub);
    Var *v = nullptr;
    const std::string name = format("x%d", j);
    check(a.SCIPcreateVarBasic(s, &v, name.c_str(), run.to_scip(lb), run.to_scip(ub), m.vars.obj[j],
                               type),
          "creating a variable");
    k.vars.push_back(v);
    k.types.push_back(type);
    check(a.SCIPaddVar(s, v), "adding a variable");
  }
  if (n > n0)
    for (int i = 0; i < m0; ++i)
      for (int64_t e = A.beg[i]; e < A.beg[i + 1]; ++e)
        if (A.ind[e] >= n0)
          check(a.SCIPaddCoefLinear(s, k.rows[i], k.vars[A.ind[e]], A.val[e]),
                "adding a coefficient");
  // New rows.
  std::vector<Var *> v;
  std::vector<double> val;
  for (int i = m0; i < rows; ++i) {
    v.clear(), val.clear();
    for (int64_t e = A.beg[i]; e < A.beg[i + 1]; ++e)
      v.push_back(k.vars[A.ind[e]]), val.push_back(A.val[e]);
    if (k.probing) {
      k.probes.push_back(add_probe(run));
      v.push_back(k.probes.back()), val.push_back(1.0);
    }
    double l, r;
    row_sides(run, m, i, l, r);
    Cons *cons = nullptr;
    const std::string name = format("r%d", i);
    check(a.SCIPcreateConsBasicLinear(s, &cons, name.c_str(), static_cast<int>(v.size()), v.data(),
                                      val.data(), l, r),
          "creating a linear constraint");
    k.rows.push_back(cons);  // kept captured
    k.lhs.push_back(l), k.rhs.push_back(r);
    check(a.SCIPaddCons(s, cons), "adding a linear constraint");
  }
  if (m.sense != k.sense) {
    check(a.SCIPsetObjsense(s, m.sense == KVR_MAXIMIZE ? kMaximize : kMinimize), "the sense");
    k.sense = m.sense;
    ++out.changed;
  }
  if (m.objcon != k.objcon) {
    check(a.SCIPaddOrigObjoffset(s, m.objcon - k.objcon), "the objective constant");
    k.objcon = m.objcon;
    ++out.changed;
  }
  run.vars = k.vars;
  run.probes = k.probes;
  changes.clear_changes();
  return true;
}

EngineResult ScipEngine::solve_kept(const EngineProblem &problem, const ParamValues &params,
                                    SolveContext &ctx, std::shared_ptr<EngineState> &state) {
  const Api &a = api();
  const ModelData &m = *problem.model;
  auto *previous = dynamic_cast<ScipState *>(state.get());
  if (const char *why = not_kept_because(a, problem, params, ctx); *why) {
    if (previous) ctx.logf("Re-solve: the model is handed to the engine in full (%s)\n", why);
    state.reset();
    return solve(problem, params, ctx);
  }
  std::shared_ptr<KeptScip> kept;
  EngineProblem offered;
  const EngineProblem *use = &problem;
  if (previous && previous->kept && !same_and_or(previous->kept->and_or, m.gens.items)) {
    ctx.log(
        "Re-solve: the model is handed to the engine in full (its and/or constraints "
        "changed)\n");
  } else if (previous && previous->kept && duals_wanted(m) && !previous->kept->probing) {
    ctx.log("Re-solve: the model is handed to the engine in full (duals are wanted now)\n");
  } else if (previous && previous->kept) {
    ScipRun run(a, ctx, m);
    run.scip = previous->kept->inst->scip;
    run.infinity = a.SCIPinfinity(run.scip);
    RunScope scope(&run);
    ScipUpdate update;
    bool updated = false;
    try {
      updated = update_kept(*previous->kept, *previous, m, run, update);
    } catch (const Error &) {
      updated = false;  // the problem is dropped below and handed over in full
    }
    if (updated) {
      kept = previous->kept;
      ctx.logf("Re-solve: %zu deleted, %zu added and %zu changed elements handed to the engine\n",
               update.deleted, update.added, update.changed);
      std::vector<double> &x = previous->incumbent;
      if (m.is_mip() && problem.mip_start.empty() && !x.empty() &&
          x.size() <= static_cast<size_t>(m.num_vars())) {
        offered = problem;
        offered.mip_start = std::move(x);
        for (int j = static_cast<int>(offered.mip_start.size()); j < m.num_vars(); ++j)
          offered.mip_start.push_back(std::clamp(0.0, m.vars.lb[j], m.vars.ub[j]));
        use = &offered;
        ctx.log("The previous solution is offered as a start\n");
      }
    } else {
      ctx.log("Re-solve: the model is handed to the engine in full (too many changes)\n");
    }
  }
  state.reset();  // rebuilt below from the problem that ends the solve
  EngineResult r = solve_on(*use, params, ctx, kept, true);
  if (kept && kept->rows.size() == static_cast<size_t>(m.num_constrs())) {
    auto next = std::make_shared<ScipState>();
    next->kept = std::move(kept);
    if (m.is_mip()) next->incumbent = r.x;
    state = std::move(next);
  }
  return r;
}

EngineResult ScipEngine::solve(const EngineProblem &problem, const ParamValues &params,
                               SolveContext &ctx) {
  std::shared_ptr<KeptScip> none;
  return solve_on(problem, params, ctx, none, false);
}

EngineResult ScipEngine::solve_on(const EngineProblem &problem, const ParamValues &params,
                                  SolveContext &ctx, std::shared_ptr<KeptScip> &kept, bool keep) {
  const Api &a = api();
  if (a.SCIPmessageSetErrorPrinting) a.SCIPmessageSetErrorPrinting(on_error, nullptr);
  const ModelData &m = *problem.model;
  const bool mip = m.is_mip() || m.sos.size() > 0 || m.gens.size() > 0;
  ScipRun run(a, ctx, m);
  std::unique_ptr<Instance> made;
  if (!kept) {
    made = std::make_unique<Instance>(a);
    made->run = &run;
  }
  Instance &inst = kept ? *kept->inst : *made;
  if (kept) run.vars = kept->vars, run.probes = kept->probes;
  run.duals = duals_wanted(m) && (!kept || kept->probing);
  run.scip = inst.scip;
  RunScope scope(&run);
  if (kept) {
    check(a.SCIPresetParams(run.scip), "resetting the parameters");
  } else {
    check(a.SCIPincludeDefaultPlugins(run.scip), "SCIPincludeDefaultPlugins");
    check(a.SCIPmessagehdlrCreate(&inst.msg, 1, nullptr, 0, on_message, on_message, on_message,
                                  nullptr, nullptr),
          "creating the message handler");
    check(a.SCIPsetMessagehdlr(run.scip, inst.msg), "setting the message handler");
  }
  a.SCIPsetMessagehdlrQuiet(run.scip, ctx.quiet || !ctx.env->output_on());
  run.infinity = a.SCIPinfinity(run.scip);

  Eventhdlr *events = nullptr;
  if (!kept)
    check(a.SCIPincludeEventhdlrBasic(run.scip, &events, "kaviro_events", "progress and stops",
                                      on_event, nullptr),
          "adding the event handler");
  if (!kept)
    check(a.SCIPsetEventhdlrInit(run.scip, events, on_event_init), "adding the event handler");
  if (ctx.has_callback() && mip) {
    // Enforced and checked after every other constraint: it sees only integral candidates.
    check(a.SCIPincludeConshdlrBasic(run.scip, &run.hdlr, "kaviro_callback",
                                     "lazy constraints and callbacks", -9999999, -9999999, -1, 0,
                                     on_enfolp, on_enfops, on_check, on_lock, nullptr),
          "adding the constraint handler");
    check(a.SCIPsetConshdlrSepa(run.scip, run.hdlr, on_sepalp, nullptr, 1, 0, 0),
          "adding the constraint handler");
  }
  set_params(run, params);
  if (!kept) pass_model(run);
  const double cutoff = params.get_dbl(ParamId::Cutoff);
  if (std::fabs(cutoff) < KVR_INFINITY) check(a.SCIPsetObjlimit(run.scip, cutoff), "the cutoff");

  if (mip && !problem.mip_start.empty())
    ctx.user_solutions.insert(ctx.user_solutions.begin(), problem.mip_start);
  Retcode rc = a.SCIPsolve(run.scip);
  if (rc != kOkay && ctx.callback_error == 0)
    fail(KVR_ERROR_INTERNAL, "SCIP failed to solve the model (return code %d); see the log", rc);

  EngineResult r;
  const int nsols = a.SCIPgetNSols(run.scip);
  r.status = map_status(a.SCIPgetStatus(run.scip), nsols > 0);
  r.status = ctx.status_after_stop(r.status);
  r.nodecount = static_cast<double>(a.SCIPgetNNodes(run.scip));
  r.itercount = static_cast<double>(a.SCIPgetNLPIterations(run.scip));
  r.work = SolveContext::work_units(r.itercount, r.nodecount);
  r.objbound =
      nsols > 0 || r.status == KVR_OPTIMAL ? run.from_scip(a.SCIPgetDualbound(run.scip)) : kNaN;
  if (r.status == KVR_INFEASIBLE || r.status == KVR_UNBOUNDED || r.status == KVR_INF_OR_UNBD)
    r.objbound = kNaN;
  // With a cutoff SCIP reports "infeasible" when nothing beats it, as the library's CUTOFF.
  if (std::fabs(cutoff) < KVR_INFINITY && r.status == KVR_INFEASIBLE) r.status = KVR_CUTOFF;
  const bool decided_without_x = r.status == KVR_CUTOFF || r.status == KVR_INFEASIBLE ||
                                 r.status == KVR_UNBOUNDED || r.status == KVR_INF_OR_UNBD;
  if (nsols > 0 && !decided_without_x) {
    Sol **sols = a.SCIPgetSols(run.scip);
    for (int k = 0; k < nsols; ++k) r.found_x.push_back(run.values(sols[k]));
    r.x = r.found_x.front();
    r.objval = a.SCIPgetSolOrigObj(run.scip, sols[0]);
  }
  if (run.duals && r.status == KVR_OPTIMAL) read_duals(run, r);
  ctx.solcount = nsols;
  if (keep) {
    try {
      keep_problem(kept, std::move(made), run);
    } catch (const Error &) {
      kept.reset();  // the next solve starts from scratch
    }
  }
  return r;
}

}  // namespace

std::unique_ptr<Engine> make_scip_engine() { return std::make_unique<ScipEngine>(); }

}  // namespace kvr
