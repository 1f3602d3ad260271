// Rewriting a model into what an engine takes: continuous, integer and binary variables, linear
// rows and a convex quadratic objective. SOS constraints, semi-continuous and semi-integer
// variables, general constraints and piecewise-linear objectives become MIP constructs with
// binaries and big-M values from (propagated) bounds; function constraints become piecewise-linear
// approximations under the FuncPiece* parameters and attributes.
#pragma once

#include "model/modeldata.h"
#include "params/params.h"

namespace kvr {

struct Reformulated {
  // What the engine solves. Its first user_vars variables are the user's variables and its first
  // user_constrs rows the user's linear constraints, in the user's order; what the rewriting adds
  // follows them, so results map back by truncation.
  ModelData model;
  int user_vars = 0;
  int user_constrs = 0;
  bool changed = false;  // false when the model needed no rewriting (model is then a plain copy)
};

// Throws kvr::Error with KVR_ERROR_NOT_SUPPORTED, naming the constraint or variable and the
// reason, when something cannot be rewritten (an unbounded big-M, a quadratic constraint, ...).
Reformulated reformulate(const ModelData &user, const ParamValues &params);

}  // namespace kvr
