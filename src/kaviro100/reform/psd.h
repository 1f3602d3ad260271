// Convexity of quadratic forms: the quadratic objective the engine takes, and the quadratic
// constraints of the outer approximation.
#pragma once

#include <optional>

#include "model/modeldata.h"
#include "params/params.h"

namespace kvr {

// A direction of negative curvature of a quadratic form: the variable where the factorization
// found it and the curvature there.
struct Curvature {
  int var = -1;
  double value = 0.0;
};
// Looks for negative curvature of sign * x'Qx beyond psdtol over n variables; nothing when the
// form is positive semi-definite. Large blocks that are not diagonally dominant are not
// factorized: they count in *unchecked (when given) and pass.
std::optional<Curvature> find_negative_curvature(const QuadTerms &q, int n, double sign,
                                                 double psdtol, int *unchecked = nullptr);

// Checks that the quadratic objective is convex for minimization (concave for maximization)
// within PSDTol; throws KVR_ERROR_Q_NOT_PSD naming a variable involved otherwise.
void check_convex_objective(const ModelData &model, const ParamValues &params);

// What nonconvexity messages add when NonConvex asks for a global solve ("" otherwise).
const char *nonconvex_note(const ParamValues &params);

}  // namespace kvr
