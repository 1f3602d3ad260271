// Solve steps that make up for what an engine lacks, applied around its runs when its capabilities
// call for them:
// - lazy restart (the engine cannot add rows during its search): an incumbent that violates a lazy
//   constraint added by the callback stops the run; the new rows join the engine's model and the
//   run starts again from the best incumbent that satisfies all of them, so the final solution
//   satisfies every lazy constraint and the bound stays valid (rows that are not yet in the model
//   only weaken it);
// - outer approximation (the engine takes no quadratic constraints): the engine solves the model
//   without them plus cuts that support them. A continuous model is re-solved warm after each
//   round of cuts at its optimum (or along the ray of an unbounded round); a MIP starts from the
//   cuts of its continuous relaxation, its incumbents are screened like lazy constraints, and a
//   rejected incumbent is repaired by solving the continuous model its integer values leave.
// The engine drives its runs and reports each one through EngineRun; the steps decide whether to
// run again and map the final result.
// - epigraph after a failed QP method (a step of the optimization, after the engine's solve):
//   see solve_failed_qp_by_epigraph at the end.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "engine/engine.h"
#include "reform/reform.h"

namespace kvr {

// An engine instance holding the model, as the steps see it between runs.
class EngineRun {
 public:
  virtual ~EngineRun() = default;
  // How the last run ended, as a library status (OPTIMAL, UNBOUNDED, INF_OR_UNBD, or another).
  virtual int outcome() const = 0;
  // The last run's point when it has a feasible one.
  virtual bool point(std::vector<double> &x) const = 0;
  // An improving ray of the last (unbounded) run, when the engine gives one.
  virtual bool ray(std::vector<double> &d) const = 0;
  // The engine's objective value of the last run.
  virtual double objective() const = 0;
  // Prepares to run again without presolve; false when that was done already.
  virtual bool retry_without_presolve() = 0;
  // Hands ctx.lazy[ctx.lazy_in_engine ..] to the engine as rows.
  virtual void add_rows() = 0;
  // Starts the next run's search from x (a solution of the model).
  virtual void set_start(const std::vector<double> &x) = 0;
  // Limits the next run to the time left of the solve; false when none is left.
  virtual bool limit_to_time_left() = 0;
  // Turns the engine's log off for the next runs (the steps log one line per round).
  virtual void quiet() = 0;
  // Feasible solutions the engine's events collected, and the best objective among them.
  std::vector<std::vector<double>> *found = nullptr;
  double *best_obj = nullptr;
};

// What the steps say about an incumbent met during a run.
enum class IncumbentVerdict {
  Accept,   // a solution of the model
  Restart,  // violates a row the engine does not have yet: stop the run and restart with it
  Ignore    // violates a row, but does not improve the search's cutoff: go on without it
};

class EmulationStep;

// The steps one solve needs on a given engine; empty when the engine takes the model as it is.
class Emulation {
 public:
  Emulation(const ModelData &m, const ParamValues &params, const EngineCapabilities &caps,
            SolveContext &ctx);
  ~Emulation();
  Emulation(const Emulation &) = delete;
  Emulation &operator=(const Emulation &) = delete;

  bool empty() const { return steps_.empty(); }
  // Before the engine is set up: the rows to start from (in ctx.lazy) and, for a MIP with
  // quadratic constraints, the solve of its continuous relaxation through `engine`, which may
  // settle the model (the result to return then).
  std::optional<EngineResult> prepare(Engine &engine);
  // The feasibility tolerance the engine must meet its rows with, when the steps need a tighter
  // one than FeasibilityTol; 0 otherwise.
  double row_tolerance() const;
  // Whether continuous runs follow one another with added rows (the engine should then use a
  // method that re-solves warm and gives rays).
  bool rounds_of_rows() const;
  // Iterations spent outside the engine's runs (relaxation and repair solves).
  double extra_iterations() const { return extra_iters; }
  // Screens an incumbent of objective obj (best: the best accepted so far, NaN when none).
  IncumbentVerdict screen(const double *x, double obj, double best);
  // After a run: true when the engine must run again (rows were added, a start may be set).
  bool after_run(EngineRun &run);
  // Maps the final result: status, kept solutions, messages. has_x says whether r may show the
  // engine's last point; engine_point_feasible whether the engine called that point feasible.
  void finish(EngineRun &run, EngineResult &r, bool &has_x, bool engine_point_feasible);

  // Shared by the steps.
  const ModelData &model;
  const ParamValues &params;
  SolveContext &ctx;
  Engine *engine = nullptr;  // the engine of the solve (set by prepare), for side solves
  double extra_iters = 0;    // iterations of the side solves
  bool timed_out = false;    // a round or restart found no time left

 private:
  std::vector<std::unique_ptr<EmulationStep>> steps_;
};

// One step of the emulation (see the table in emulation.cpp).
class EmulationStep {
 public:
  virtual ~EmulationStep() = default;
  virtual std::optional<EngineResult> prepare(Emulation &) { return std::nullopt; }
  virtual double row_tolerance() const { return 0.0; }
  virtual bool rounds_of_rows() const { return false; }
  virtual IncumbentVerdict screen(Emulation &, const double *x, double obj, double best) {
    return IncumbentVerdict::Accept;
  }
  // A continuous run ended: true to run again (rows added); only one step runs rounds.
  virtual bool after_continuous_run(Emulation &, EngineRun &) { return false; }
  // A MIP run ended without a pending restart: true when its final point must be rejected.
  virtual bool reject_final(Emulation &, const std::vector<double> &x) { return false; }
  // Before a restart: logs, repairs.
  virtual void before_restart(Emulation &, EngineRun &) {}
  // After the restart's rows were handed over: false when the steps must stop instead.
  virtual bool may_restart() const { return true; }
  // Whether x (a solution found in an earlier run) still satisfies what this step adds.
  virtual bool keeps(Emulation &, const std::vector<double> &x) { return true; }
  virtual void finish(Emulation &, EngineRun &, EngineResult &, bool &has_x, bool feasible) {}
};

// The engine's QP method can fail on a convex QP it should solve (numerical trouble on badly
// scaled models, or cycling up to its iteration cap): the result then has status NUMERIC and no
// point. This step sees the result r of solving rf, the rewriting of `user` the engine was given,
// and when the QP method failed on a continuous model with a quadratic objective and no quadratic
// rows, solves `user` again with the objective moved into epigraphs (reformulate with `epigraph`
// set), which the engine approximates by cuts with LPs. `epigraph` then holds that rewriting
// (ctx.engine_model points to its model), r becomes its result with the failed run's iterations
// added, and the log says so; problem_of makes the engine's problem of a rewriting. Returns
// whether the step ran; otherwise nothing changes.
bool solve_failed_qp_by_epigraph(
    const ModelData &user, const Reformulated &rf, const ParamValues &params,
    const EngineCapabilities &caps, Engine &engine, SolveContext &ctx,
    const std::function<EngineProblem(const Reformulated &)> &problem_of, EngineResult &r,
    std::optional<Reformulated> &epigraph);

}  // namespace kvr
