// How the SCIP engine treats the library's parameters: those it leaves alone, and its limits as
// the help texts state them. The mapping onto its parameters is ScipEngine::set_params.
#include "engine/applied_params.h"
#include "engine/registry.h"

namespace kvr {

const EngineParams &scip_params() {
  static const EngineParams table = [] {
    EngineParams t;
    t.not_applied = unexposed_strategies();
    t.not_applied.insert(t.not_applied.end(),
                         {ParamId::Method, ParamId::IntFeasTol, ParamId::BarConvTol,
                          ParamId::BarIterLimit, ParamId::Crossover, ParamId::ScaleFlag,
                          ParamId::Threads, ParamId::DisplayInterval, ParamId::QCPDual});
    t.notes = {
        {ParamId::NonConvex,
         "with 2, solves nonconvex quadratic objectives and constraints (equalities too) to "
         "global optimality by spatial branch and bound."},
        {ParamId::LazyConstraints,
         "adds lazy constraints to its running search (no restart); with a callback and 1, the "
         "automatic engine choice takes SCIP."},
        {ParamId::PreCrush,
         "calls MIPNODE callbacks with the node relaxation and takes their cuts."},
        {ParamId::Threads, "runs on one thread whatever the value."},
        {ParamId::Presolve,
         "solves continuous linear models without presolve (its own, its bound propagation and "
         "its LP solver's), so that their duals (Pi, RC) belong to the model's rows and bounds; "
         "other models follow the value."},
        {ParamId::NodefileStart, "keeps its search tree in memory and writes no node files."},
        {ParamId::NodefileDir, "keeps its search tree in memory and writes no node files."}};
    return t;
  }();
  return table;
}

}  // namespace kvr
