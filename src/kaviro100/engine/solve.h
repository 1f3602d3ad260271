// The steps of one optimize call that the single- and multi-objective paths share.
#pragma once

#include <functional>
#include <optional>
#include <vector>

#include "engine/engine.h"
#include "model/model.h"
#include "reform/reform.h"
#include "util/interrupt.h"

namespace kvr {

// What KVRoptimize does: update, solve, store the solution on the model; throws kvr::Error.
void optimize(kvr_model *model);

// The warm-start information of the user's model (Start/VarHintVal, VBasis/CBasis,
// PStart/DStart), sized for the engine's model.
EngineProblem make_problem(const kvr_model *model, const Reformulated &rf);

// Objective value of x (engine model m of rf, or a variant of it with other objective
// coefficients) with the quadratic objective evaluated exactly where it moved to an epigraph.
double true_objective(const Reformulated &rf, const ModelData &m, const std::vector<double> &x);

// Fills sol from an engine result, mapping back to the user's model by truncation. For a MIP,
// polish (when given) may replace the best solution (engine model) before it becomes the result;
// it stays first in the pool.
using PolishFunction = std::function<bool(std::vector<double> &)>;
void fill_solution(const kvr_model *model, const Reformulated &rf, const SolveContext &ctx,
                   EngineResult &&r, Solution &sol, const PolishFunction &polish = nullptr);

// Cleans a MIP solution x of the engine model m: fixes the integer variables at their rounded
// values and re-solves the remaining LP. x is replaced when the result satisfies every row and
// bound within FeasibilityTol and its objective is not worse than x's by more than FeasibilityTol
// (relative to the objective's size). Logs one line about it, except after the user or a memory
// limit stopped the solve. Returns true when x was replaced.
bool polish_mip_solution(const ModelData &m, Engine &engine, SolveContext &ctx,
                         std::vector<double> &x);

// Solves a model with several objectives (hierarchical by priority, blended within a priority).
void solve_multiobjective(kvr_model *model, const Reformulated &rf, Engine &engine,
                          SolveContext &ctx, Solution &sol);

// Solves every scenario of the model after the base model; fills the scenario results of sol.
void solve_scenarios(kvr_model *model, const Reformulated &rf, Engine &engine, SolveContext &ctx,
                     Solution &sol);

// Short name of a status code ("optimal", "infeasible", ...).
const char *status_text(int status);

// What the engines cannot take whatever the rewriting does: fails with INVALID_ARGUMENT for values
// no element can take (checked again only after changes, see ModelData::check_values) and with
// QCP_EQUALITY_CONSTRAINT naming the first quadratic equality constraint.
void check_solvable(ModelData &m);

// Memory limits at the start of a solve or analysis (`what` names it in messages): fails with
// OUT_OF_MEMORY above MemLimit; above SoftMemLimit logs it and leaves ctx.memory_stop set, and
// the caller then stops at once with status MEM_LIMIT.
void check_memory_at_start(SolveContext &ctx, const char *what);
// Fails with OUT_OF_MEMORY when MemLimit was exceeded during the call.
void fail_if_memory_exceeded(const SolveContext &ctx, const char *what);

// With a finite NodefileStart, NodefileDir must be an existing writable directory (else
// NODEFILE naming it). The engine never writes node files: the log says that the tree stays in
// memory.
void check_nodefile_settings(kvr_env &env);

// Marks the model as being optimized for the lifetime of the object (queries and changes then
// fail); OPTIMIZATION_IN_PROGRESS when it already is.
struct OptimizingFlag {
  explicit OptimizingFlag(kvr_model *m);
  ~OptimizingFlag();
  OptimizingFlag(const OptimizingFlag &) = delete;
  OptimizingFlag &operator=(const OptimizingFlag &) = delete;
  kvr_model *model;
};

// Ctrl-C stops the solve of a model armed with KVRsetsignal, for the lifetime of the object.
class SignalScope {
 public:
  explicit SignalScope(kvr_model *model);
  ~SignalScope();
  SignalScope(const SignalScope &) = delete;
  SignalScope &operator=(const SignalScope &) = delete;

 private:
  std::optional<InterruptScope> scope_;
};

}  // namespace kvr
