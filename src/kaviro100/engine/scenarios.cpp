// Multiple scenarios: after the base model, each scenario (its changed bounds, objective
// coefficients and right-hand sides over the base model) is solved on its own; its solution,
// objective and bound are kept per scenario.
#include "engine/solve.h"

namespace kvr {

void solve_scenarios(kvr_model *model, const Reformulated &rf, Engine &engine, SolveContext &ctx,
                     Solution &sol) {
  const auto &scenarios = model->data.scenarios;
  if (scenarios.empty()) return;
  const int nu = rf.user_vars;
  sol.scen_x.assign(scenarios.size(), {});
  sol.scen_objval.assign(scenarios.size(), kNaN);
  sol.scen_objbound.assign(scenarios.size(), kNaN);
  for (size_t s = 0; s < scenarios.size(); ++s) {
    if (ctx.must_stop()) break;
    const Scenario &sc = scenarios[s];
    ModelData m = rf.model();
    m.apply_scenario(sc);
    ctx.env->logf("\nScenario %zu%s%s\n", s, sc.name.empty() ? "" : ": ", sc.name.c_str());
    EngineProblem problem;
    problem.model = &m;
    problem.user_vars = nu;
    ctx.engine_model = &m;
    EngineResult r = engine.solve(problem, *ctx.params, ctx);
    if (rf.changed && m.is_mip() && !r.x.empty() && r.status != KVR_CUTOFF)
      polish_mip_solution(m, engine, ctx, r.x);
    sol.itercount += r.itercount;
    sol.baritercount += static_cast<int>(r.baritercount);
    sol.nodecount += r.nodecount;
    sol.work += r.work;
    if (!r.x.empty() && r.status != KVR_CUTOFF) {
      sol.scen_x[s].assign(r.x.begin(), r.x.begin() + nu);
      sol.scen_objval[s] = true_objective(rf, m, r.x);
    }
    sol.scen_objbound[s] = r.objbound;
  }
  ctx.engine_model = &rf.model();
}

}  // namespace kvr
