// Rewriting a model into what an engine takes: continuous, integer and binary variables, linear
// rows and a convex quadratic objective. SOS constraints, semi-continuous and semi-integer
// variables, general constraints and piecewise-linear objectives become MIP constructs with
// binaries and big-M values from (propagated) bounds; function constraints become piecewise-linear
// approximations under the FuncPiece* parameters and attributes.
#pragma once

#include "model/modeldata.h"
#include "params/params.h"
#include "reform/capabilities.h"

namespace kvr {

struct Reformulated {
  // What the engine solves. Its first user_vars variables are the user's variables and its first
  // user_constrs rows the user's linear constraints, in the user's order; what the rewriting adds
  // follows them, so results map back by truncation. A model that needs no rewriting is the
  // user's own (no copy), which must then stay unchanged while this is in use.
  const ModelData &model() const { return owned_ ? rewritten_ : *user_; }
  // The engine's model as a copy of its own, to change.
  ModelData &own() {
    if (!owned_) rewritten_ = *user_;
    owned_ = true;
    return rewritten_;
  }
  explicit Reformulated(const ModelData *user = nullptr) : user_(user) {}

  int user_vars = 0;
  int user_constrs = 0;
  bool changed = false;  // false when the model needed no rewriting
  // A quadratic objective of a model with integer variables or quadratic constraints moves into
  // an epigraph: columns `epigraph` (-1 when none) to the last, each with objective coefficient
  // 1 (-1 when maximizing), and the last quadratic constraints sign * x'Qx - t <= 0 (one per
  // column; a diagonal Q may get one per term); `moved_q` keeps the objective's terms for
  // evaluating it.
  int epigraph = -1;
  QuadTerms moved_q;

 private:
  const ModelData *user_;
  ModelData rewritten_;
  bool owned_ = false;
};

// Quadratic constraints stay in the model (the engine approximates them from outside).
// Throws kvr::Error naming the constraint or variable and the reason: KVR_ERROR_NOT_SUPPORTED when
// something cannot be rewritten (a big-M without a finite bound, a 2-norm,
// a function range across a pole or needing too many pieces), KVR_ERROR_INVALID_ARGUMENT for data
// that has no meaning (a non-binary operand of and/or, decreasing PWL points, a logarithm of a
// nonpositive range), KVR_ERROR_INVALID_PIECEWISE_OBJ for a malformed piecewise-linear objective
// KVR_ERROR_INDEX_OUT_OF_RANGE for references to missing variables, and KVR_ERROR_Q_NOT_PSD for
// a nonconvex objective that would move into an epigraph. The user's model is only read.
// Only what `caps` says the engine lacks is rewritten: SOS constraints, indicator constraints and
// and/or constraints over binary variables the engine takes stay as they are (after the same
// checks; and/or constraints it cannot take, for example with a continuous resultant, are
// rewritten), and a quadratic objective stays in
// place when the engine takes it with integers and quadratic rows. With `epigraph` set, a
// quadratic objective moves into an epigraph in every model.
Reformulated reformulate(const ModelData &user, const ParamValues &params,
                         const EngineCapabilities &caps = EngineCapabilities(),
                         bool epigraph = false);

}  // namespace kvr
