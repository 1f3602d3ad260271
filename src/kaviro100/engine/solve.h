// The steps of one optimize call that the single- and multi-objective paths share.
#pragma once

#include "engine/engine.h"
#include "model/model.h"
#include "reform/reform.h"

namespace kvr {

// The warm-start information of the user's model (Start/VarHintVal, VBasis/CBasis,
// PStart/DStart), sized for the engine's model.
EngineProblem make_problem(const kvr_model *model, const Reformulated &rf);

// Objective value of x (engine model) under the given objective.
double objective_value(const ModelData &m, const std::vector<double> &x);

// Fills sol from an engine result, mapping back to the user's model by truncation.
void fill_solution(const kvr_model *model, const Reformulated &rf, const SolveContext &ctx,
                   EngineResult &&r, Solution &sol);

// Solves a model with several objectives (hierarchical by priority, blended within a priority).
void solve_multiobjective(kvr_model *model, const Reformulated &rf, Engine &engine,
                          SolveContext &ctx, Solution &sol);

// Solves every scenario of the model after the base model; fills the scenario results of sol.
void solve_scenarios(kvr_model *model, const Reformulated &rf, Engine &engine, SolveContext &ctx,
                     Solution &sol);

// Short name of a status code ("optimal", "infeasible", ...).
const char *status_text(int status);

}  // namespace kvr
