// Handles to model elements (Var, Constr, QConstr, SOS, GenConstr): the library model and one
// index. The index encodes the element's state: i >= 0 its position; -1 awaiting the model
// update (also after the model was disposed); -2 removed; -3 - i removal pending (public index i).
#pragma once

#include "module.h"

namespace kvrpy {

struct Handle {
  KVRmodel *model = nullptr;  // not owned; null once the model is disposed
  int index = -1;
};
struct Var : Handle {};
struct Constr : Handle {};
struct QConstr : Handle {};
struct SOS : Handle {};
struct GenConstr : Handle {};

// The public index of an index field: i for i >= 0 and for -3 - i; -1 and -2 unchanged.
inline int public_index(int index) { return index <= -3 ? -3 - index : index; }

// The Var inside obj, or nullptr when obj is not a Var.
Var *as_var(nb::handle obj);
Constr *as_constr(nb::handle obj);

// Column index of a variable for a library call on `model`. Raises KaviroError:
// (0, "Variable has not yet been added to the model"), (0, "Variable was removed from the model"),
// (KVR_ERROR_NOT_IN_MODEL, "Variable not in model") for a variable of another model, and
// (KVR_ERROR_INVALID_ARGUMENT, "Invalid data in vars array") when obj is not a Var.
int var_column(nb::handle obj, KVRmodel *model);
// Row index of a linear constraint of `model`; raises (KVR_ERROR_NOT_IN_MODEL,
// "Constraint not in model") for pending, removed or foreign constraints.
int constr_row(nb::handle obj, KVRmodel *model);

// The text used for a variable in reprs and expression printing: "*Awaiting Model Update*",
// "*Removed*", or its VarName.
std::string var_safename(const Var &v);

// Number of variables / linear constraints of the library model as of the last update.
int num_vars(KVRmodel *model);
int num_constrs(KVRmodel *model);

void init_handles(nb::module_ &m);

}  // namespace kvrpy
