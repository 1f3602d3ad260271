// Multi-objective optimization. Objectives are grouped by priority and solved from the highest
// priority down; within a priority the objectives are blended with their weights. After each
// pass the blended objective of that priority may degrade by at most
// max(ObjNAbsTol, ObjNRelTol * |value|) (the largest allowance among its objectives): a row
// keeps it there for the later passes. Each pass runs with the parameters of its multi-objective
// environment (KVRgetmultiobjenv, pass 0 first) when one exists.
#include <algorithm>
#include <cmath>
#include <map>

#include "engine/solve.h"
#include "util/error.h"

namespace kvr {
namespace {

struct Level {
  int priority = 0;
  std::vector<int> objectives;
  std::vector<double> coef;  // blended coefficients over the engine's variables
  double constant = 0.0;
  double abstol = 0.0, reltol = 0.0;
};

// Coefficients of objective k over the engine's n variables and its constant.
void objective_coefs(const ModelData &user, const ModelData &engine_model, int k,
                     std::vector<double> &coef, double &constant) {
  coef.assign(engine_model.num_vars(), 0.0);
  if (k == 0) {
    coef = engine_model.vars.obj;
    constant = engine_model.objcon;
    return;
  }
  const ObjectiveN &o = user.objn[k];
  for (size_t t = 0; t < o.ind.size(); ++t) coef[o.ind[t]] += o.val[t];
  constant = o.constant;
}

double value_of(const std::vector<double> &coef, double constant, const std::vector<double> &x) {
  double v = constant;
  for (size_t j = 0; j < x.size() && j < coef.size(); ++j) v += coef[j] * x[j];
  return v;
}

}  // namespace

void solve_multiobjective(kvr_model *model, const Reformulated &rf, Engine &engine,
                          SolveContext &ctx, Solution &sol) {
  const ModelData &user = model->data;
  const int numobj = static_cast<int>(user.objn.size());
  if (user.q.size() > 0)
    fail(KVR_ERROR_NOT_SUPPORTED,
         "Multi-objective models take linear objectives only; objective 0 has quadratic terms");

  // Levels, highest priority first (objectives of equal priority keep their index order).
  std::map<int, Level, std::greater<int>> by_priority;
  std::vector<std::vector<double>> coefs(numobj);
  std::vector<double> constants(numobj);
  for (int k = 0; k < numobj; ++k) {
    objective_coefs(user, rf.model(), k, coefs[k], constants[k]);
    const ObjectiveN &o = user.objn[k];
    Level &level = by_priority[o.priority];
    level.priority = o.priority;
    if (level.coef.empty()) level.coef.assign(rf.model().num_vars(), 0.0);
    level.objectives.push_back(k);
    for (size_t j = 0; j < coefs[k].size(); ++j) level.coef[j] += o.weight * coefs[k][j];
    level.constant += o.weight * constants[k];
    level.abstol = std::max(level.abstol, o.abstol);
    level.reltol = std::max(level.reltol, o.reltol);
  }

  Reformulated pass = rf;  // the pass model: blended objective plus the degradation rows
  std::vector<double> last_x;
  int final_status = KVR_OPTIMAL;
  int pass_index = 0;
  int solcount = 0;
  double iters = 0, bariters = 0, nodes = 0, work = 0;
  bool have_result = false;
  EngineResult last;
  ctx.env->logf("Multi-objective: %d objectives in %zu priority levels\n", numobj,
                by_priority.size());
  for (auto &[priority, level] : by_priority) {
    const ParamValues *params = &model->env.params;
    auto &envs = model->env.multiobj_envs;
    if (pass_index < static_cast<int>(envs.size()) && envs[pass_index])
      params = &envs[pass_index]->params;
    ctx.params = params;
    ctx.pass_objectives = level.objectives;
    ctx.solcount = 0;
    ctx.env->logf("\nPass %d: priority %d, objectives", pass_index, priority);
    for (int k : level.objectives) ctx.env->logf(" %d", k);
    ctx.env->log("\n");

    pass.own().set_linear_objective(level.coef, level.constant);
    EngineProblem problem;
    if (pass_index == 0) {
      problem = make_problem(model, pass);
    } else {
      problem.model = &pass.model();
      problem.user_vars = pass.user_vars;
      if (pass.model().is_mip() && !last_x.empty()) problem.mip_start = last_x;
    }
    problem.model = &pass.model();
    ctx.engine_model = &pass.model();
    EngineResult r = engine.solve(problem, *params, ctx);
    iters += r.itercount, bariters += r.baritercount, nodes += r.nodecount, work += r.work;
    bool stopped_pass = ctx.stop == StopReason::Pass;
    if (stopped_pass) ctx.stop = StopReason::None;
    if (!r.x.empty()) {
      last_x = r.x;
      solcount =
          std::max<int>(solcount, r.found_x.empty() ? 1 : static_cast<int>(r.found_x.size()));
    }
    if (ctx.has_callback()) {
      CallbackData cb{&ctx, KVR_CB_MULTIOBJ, {}};
      std::vector<double> ux(last_x.begin(),
                             last_x.begin() + std::min<size_t>(last_x.size(), ctx.user_vars));
      cb.sol = ux.empty() ? nullptr : ux.data();
      cb.values = {{KVR_CB_MULTIOBJ_OBJCNT, static_cast<double>(pass_index + 1)},
                   {KVR_CB_MULTIOBJ_SOLCNT, static_cast<double>(solcount)},
                   {KVR_CB_RUNTIME, ctx.elapsed()},
                   {KVR_CB_WORK, work}};
      ctx.invoke(cb);
    }
    bool usable = !r.x.empty() &&
                  (r.status == KVR_OPTIMAL || stopped_pass || r.status == KVR_SOLUTION_LIMIT ||
                   r.status == KVR_NODE_LIMIT || r.status == KVR_USER_OBJ_LIMIT);
    if (r.status != KVR_OPTIMAL && !stopped_pass) final_status = r.status;
    have_result = true;
    last = std::move(r);
    ++pass_index;
    if (!usable ||
        (final_status != KVR_OPTIMAL && !stopped_pass && final_status != KVR_SOLUTION_LIMIT &&
         final_status != KVR_NODE_LIMIT && final_status != KVR_USER_OBJ_LIMIT))
      break;
    if (stopped_pass) final_status = KVR_OPTIMAL == final_status ? KVR_OPTIMAL : final_status;
    if (pass_index == static_cast<int>(by_priority.size())) break;
    // Keep this level within its allowed degradation.
    double z = value_of(level.coef, level.constant, last_x);
    double allowed = std::max(level.abstol, level.reltol * std::fabs(z));
    std::vector<int> ind;
    std::vector<double> val;
    for (size_t j = 0; j < level.coef.size(); ++j)
      if (level.coef[j] != 0.0) ind.push_back(static_cast<int>(j)), val.push_back(level.coef[j]);
    bool min = pass.model().sense == KVR_MINIMIZE;
    pass.own().add_constr(ind, val, min ? KVR_LESS_EQUAL : KVR_GREATER_EQUAL,
                          z - level.constant + (min ? allowed : -allowed));
  }
  ctx.pass_objectives.clear();
  ctx.params = &model->env.params;
  ctx.engine_model = &rf.model();
  if (!have_result) return;

  last.status = final_status;
  last.itercount = iters, last.baritercount = bariters, last.nodecount = nodes, last.work = work;
  if (last.x.empty() && !last_x.empty()) last.x = last_x;  // an earlier pass's solution
  // The result is polished on the last pass's model, whose rows keep the earlier levels.
  std::vector<double> polished;
  PolishFunction polish;
  if (pass.changed && pass.model().is_mip())
    polish = [&](std::vector<double> &x) {
      if (!polish_mip_solution(pass.model(), engine, ctx, x)) return false;
      polished = x;
      return true;
    };
  fill_solution(model, pass, ctx, std::move(last), sol, polish);
  if (!sol.x.empty()) {
    std::vector<double> full = !polished.empty() ? polished : last_x.empty() ? sol.x : last_x;
    sol.objnval.resize(numobj);
    for (int k = 0; k < numobj; ++k) sol.objnval[k] = value_of(coefs[k], constants[k], full);
    sol.objval = sol.objnval[0];
    for (auto &x : sol.pool_x) {
      size_t idx = &x - sol.pool_x.data();
      sol.pool_obj[idx] = value_of(coefs[0], constants[0], x);
    }
  }
  // A bound and gap of the blended passes would not describe objective 0.
  sol.objbound = sol.objboundc = sol.mipgap = sol.pool_objbound = kNaN;
}

}  // namespace kvr
