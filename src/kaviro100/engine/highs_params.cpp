// How the HiGHS engine treats the library's parameters: those it leaves alone, and its limits as
// the help texts state them. The mapping onto its options is HighsEngine::set_options.
#include "engine/applied_params.h"
#include "engine/registry.h"

namespace kvr {

const EngineParams &highs_params() {
  static const EngineParams table = {
      unexposed_strategies(),
      {{ParamId::NonConvex,
        "solves convex models only (no spatial branch and bound): with 2, a nonconvex model is "
        "left to SCIP by the automatic engine choice, and refused with Q_NOT_PSD when HiGHS is "
        "forced."},
       {ParamId::LazyConstraints,
        "cannot add rows during its search: an incumbent that violates a new lazy constraint is "
        "rejected and the search restarts with the constraint as a row."},
       {ParamId::PreCrush,
        "never calls MIPNODE callbacks, so it takes no user cuts; with a callback and 1, the "
        "automatic engine choice takes SCIP."},
       {ParamId::NodefileStart, "keeps its whole search tree in memory and writes no node files."},
       {ParamId::NodefileDir, "keeps its whole search tree in memory and writes no node files."},
       {ParamId::IntFeasTol,
        "has one tolerance for the integrality and the rows of a MIP, and is given the smaller of "
        "IntFeasTol and FeasibilityTol."},
       {ParamId::QCPDual,
        "gives the multipliers of quadratic constraints from the duals of their outer "
        "approximation's cuts, for continuous models."}}};
  return table;
}

}  // namespace kvr
