// Polishing of MIP solutions of rewritten models. The rewriting links continuous variables to
// binaries through big-M rows, so a binary that is 0 within IntFeasTol lets its variable leak
// away from 0 (an off semi-continuous variable at 1e-5, an SOS1 member that should be 0 at 1e-7).
// With every integer variable fixed at its rounded value the remaining LP pins those variables
// exactly, and its solution gives clean continuous values.
#include <algorithm>
#include <cmath>

#include "engine/solve.h"

namespace kvr {
namespace {

// Largest violation of a bound or row of m (and of the lazy constraints) by x.
double max_violation(const ModelData &m, const std::vector<LinRow> &lazy, const double *x) {
  double worst = 0.0;
  for (int j = 0; j < m.num_vars(); ++j)
    worst = std::max({worst, m.vars.lb[j] - x[j], x[j] - m.vars.ub[j]});
  const SparseMatrix &A = m.constrs.rows;
  LinRow row;
  for (int i = 0; i < m.num_constrs(); ++i) {
    row.ind.assign(A.ind.begin() + A.beg[i], A.ind.begin() + A.beg[i + 1]);
    row.val.assign(A.val.begin() + A.beg[i], A.val.begin() + A.beg[i + 1]);
    row.sense = m.constrs.sense[i];
    row.rhs = m.constrs.rhs[i];
    worst = std::max(worst, row.violation(x));
  }
  for (const LinRow &r : lazy) worst = std::max(worst, r.violation(x));
  return worst;
}

// Rows left with one free column once the integer variables are fixed become bounds of that
// column: the big-M row x - M z <= 0 with z fixed at 0 makes x <= 0 exactly, where the LP would
// accept x up to the feasibility tolerance. Returns false when the bounds cross.
bool bounds_from_singleton_rows(ModelData &lp, double ftol) {
  const SparseMatrix &A = lp.constrs.rows;
  const std::vector<double> &lb = lp.vars.lb, &ub = lp.vars.ub;
  for (int i = 0; i < lp.num_constrs(); ++i) {
    int free_col = -1;
    double coef = 0.0, rest = 0.0;
    bool single = true;
    for (int64_t k = A.beg[i]; k < A.beg[i + 1] && single; ++k) {
      int j = A.ind[k];
      if (lb[j] == ub[j]) {
        rest += A.val[k] * lb[j];
      } else if (free_col < 0 || free_col == j) {
        free_col = j;
        coef += A.val[k];
      } else {
        single = false;
      }
    }
    if (!single || free_col < 0 || coef == 0.0) continue;
    const double bound = (lp.constrs.rhs[i] - rest) / coef;
    const char sense = lp.constrs.sense[i];
    // coef * x <= b bounds x above when coef > 0, below when coef < 0 (and >= the other way).
    const bool upper = sense != KVR_GREATER_EQUAL, lower = sense != KVR_LESS_EQUAL;
    if ((upper && coef > 0) || (lower && coef < 0))
      lp.set_ub(free_col, std::min(ub[free_col], bound));
    if ((lower && coef > 0) || (upper && coef < 0))
      lp.set_lb(free_col, std::max(lb[free_col], bound));
    if (lb[free_col] > ub[free_col]) {
      if (lb[free_col] > ub[free_col] + ftol) return false;
      lp.set_ub(free_col, lb[free_col]);
    }
  }
  return true;
}

}  // namespace

bool polish_mip_solution(const ModelData &m, Engine &engine, SolveContext &ctx,
                         std::vector<double> &x) {
  const int n = m.num_vars();
  if (static_cast<int>(x.size()) != n) return false;
  // A solve the user or a memory limit stopped ends as it is.
  if ((ctx.model && ctx.model->terminate_requested.load()) || ctx.callback_error != 0 ||
      ctx.memory_stop != StopReason::None)
    return false;
  const ParamValues &params = *ctx.params;
  const double ftol = params.get_dbl(ParamId::FeasibilityTol);
  const double remaining = params.get_dbl(ParamId::TimeLimit) - ctx.elapsed();
  if (remaining <= 0) {
    ctx.log("MIP solution not polished: no time left\n");
    return false;
  }

  // The LP: the model with every integer variable fixed at its rounded value, plus the lazy
  // constraints the engine was given.
  // Its elements are unnamed.
  ModelData lp;
  lp.set_objsense(m.sense);
  lp.set_objcon(m.objcon);
  lp.set_q(m.q);
  lp.reserve_vars(static_cast<size_t>(n));
  for (int j = 0; j < n; ++j) lp.add_var(m.vars.lb[j], m.vars.ub[j], m.vars.obj[j], KVR_CONTINUOUS);
  const SparseMatrix &A = m.constrs.rows;
  lp.reserve_constrs(static_cast<size_t>(m.num_constrs()) + ctx.lazy.size(),
                     static_cast<size_t>(A.nnz()));
  for (int i = 0; i < m.num_constrs(); ++i)
    lp.add_constr(static_cast<int>(A.beg[i + 1] - A.beg[i]), A.ind.data() + A.beg[i],
                  A.val.data() + A.beg[i], m.constrs.sense[i], m.constrs.rhs[i]);
  for (const LinRow &row : ctx.lazy) lp.add_constr(row.ind, row.val, row.sense, row.rhs);
  std::vector<double> polished = x;
  int continuous = 0;
  for (int j = 0; j < n; ++j) {
    if (m.vars.vtype[j] == KVR_CONTINUOUS) {
      ++continuous;
      continue;
    }
    double v = std::nearbyint(x[j]);
    if (v < m.vars.lb[j] - ftol || v > m.vars.ub[j] + ftol) {
      ctx.logf("MIP solution not polished: integer variable %d rounds outside its bounds\n", j);
      return false;
    }
    lp.set_bounds(j, v, v);
    polished[j] = v;
  }

  if (!bounds_from_singleton_rows(lp, ftol)) {
    ctx.log("MIP solution not polished: the rounded integer values leave no feasible values\n");
    return false;
  }

  if (continuous > 0) {
    ParamValues lp_params = params;
    lp_params.set_int(ParamId::Method, -1);
    lp_params.set_dbl(ParamId::Cutoff, KVR_INFINITY);  // a bound on the search, which is over
    if (remaining < KVR_INFINITY) lp_params.set_dbl(ParamId::TimeLimit, remaining);
    SolveContext sub = ctx.side(lp_params, lp);
    EngineProblem problem;
    problem.model = &lp;
    problem.user_vars = ctx.user_vars;
    EngineResult r = engine.solve(problem, lp_params, sub);
    if (ctx.absorb_memory(sub)) return false;
    if (r.status != KVR_OPTIMAL || static_cast<int>(r.x.size()) != n) {
      ctx.logf("MIP solution not polished: the LP with the integer variables fixed is %s\n",
               status_text(r.status));
      return false;
    }
    for (int j = 0; j < n; ++j)
      if (m.vars.vtype[j] == KVR_CONTINUOUS) polished[j] = r.x[j];
  }
  for (double &v : polished)
    if (v == 0.0) v = 0.0;  // no negative zeros

  const double violation = max_violation(m, ctx.lazy, polished.data());
  if (violation > ftol) {
    ctx.logf("MIP solution not polished: the polished values violate a row or bound by %.3g\n",
             violation);
    return false;
  }
  const double before = m.objective_value(x.data()), after = m.objective_value(polished.data());
  const double worse = m.sense == KVR_MAXIMIZE ? before - after : after - before;
  if (worse > ftol * std::max(1.0, std::fabs(before))) {
    ctx.logf("MIP solution not polished: objective %.10e would be worse than %.10e\n", after,
             before);
    return false;
  }
  ctx.logf(
      "MIP solution polished: integer variables fixed, continuous values re-solved; "
      "objective %.10e (was %.10e)\n",
      after, before);
  x = std::move(polished);
  return true;
}

}  // namespace kvr
