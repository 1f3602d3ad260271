// The solution pool of a MIP solve (PoolSearchMode, PoolSolutions, PoolGap, PoolGapAbs).
#pragma once

#include "engine/solve.h"

namespace kvr {

// Before the first solve: fails with NOT_SUPPORTED, naming the variable, when PoolSearchMode 1
// or 2 would need the binary expansion of an integer variable without finite bounds.
void check_pool_search(const ModelData &user, const Reformulated &rf, const ParamValues &params);

// Applies the pool parameters to the solution of a finished MIP solve of rf (sol filled from the
// engine's result): drops pool solutions outside the gap limits and, for PoolSearchMode 1 and 2,
// re-solves the engine model with the found integer assignments excluded to find more solutions
// (mode 2: the PoolSolutions best ones, in order). The best solution stays the result; the pool
// stays sorted best first.
void fill_pool(kvr_model *model, const Reformulated &rf, Engine &engine, SolveContext &ctx,
               Solution &sol);

}  // namespace kvr
