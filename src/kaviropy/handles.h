// Handles to model elements (Var, Constr, QConstr, SOS, GenConstr): the library model and one
// index. The index encodes the element's state: i >= 0 its position; -1 awaiting the model
// update (also after the model was disposed); -2 removed; -3 - i removal pending (public index i).
#pragma once

#include "module.h"

namespace kvrpy {

// How a handle whose model is gone (disposed, or not restored with a pickle) says so.
inline constexpr const char *kNoLiveModel =
    " belongs to no live model (its model was disposed, or it was unpickled without it)";

struct Handle {
  KVRmodel *model = nullptr;  // not owned; null once the model is disposed
  int index = -1;
};
// Every kind stores exactly a Handle; the names say which kind a function expects.
using Var = Handle;
using Constr = Handle;
using QConstr = Handle;
using SOS = Handle;
using GenConstr = Handle;

// The Python object of a handle: plain extension types (not registered with nanobind), so that
// making a million of them costs no more than the objects themselves.
struct HandleObject {
  PyObject_HEAD PyObject *dict;  // Python attributes (names beginning with "_")
  Handle h;
};
inline Handle *handle_data(PyObject *obj) { return &reinterpret_cast<HandleObject *>(obj)->h; }

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

// ---------------------------------------------------------------- handle kinds
// The five kinds, numbered so that kind + 1 is the library's attribute class of the kind.
enum HandleKind : int {
  kVar = 0,
  kConstr = 1,
  kSOS = 2,
  kQConstr = 3,
  kGenConstr = 4,
  kNumKinds = 5
};

struct KindInfo {
  const char *type_name;       // "Var": class name, also used in attribute messages
  const char *index_field;     // "_colno"
  const char *count_attr;      // "NumVars": model attribute counting the kind
  const char *not_in_model;    // "Variable not in model"
  const char *missing_remove;  // "Tried to remove a variable that does not exist"
};
const KindInfo &kind_info(int kind);
// The Python type of a kind (valid after init_handles).
PyTypeObject *handle_type(int kind);
// The kind of a handle object (subclasses included), or -1 for anything else.
int handle_kind(nb::handle obj);
// The Handle inside a handle object of any kind, or nullptr (kind set when not null).
Handle *as_handle(nb::handle obj, int *kind = nullptr);
// A new handle object of a kind, without going through Python's constructor call.
nb::object new_handle(int kind, KVRmodel *model, int index);

// Position of a handle of `kind` for a library call on `model`; raises KaviroError
// (KVR_ERROR_NOT_IN_MODEL, kind's "not in model" text) unless obj is a handle of that kind in
// the model at a position (pending removal included).
int live_position(nb::handle obj, int kind, KVRmodel *model);

// A string attribute of one element (ConstrName, QCName, ...); raises KaviroError on failure.
std::string element_name(KVRmodel *model, const char *attr, int index);

// "<kaviro.SOS 3>" for SOS and GenConstr handles: the position, "*Awaiting Model Update*",
// "*Removed*", or the former position followed by " (Removed)" while a removal is pending.
std::string indexed_repr(const char *type_name, int index);

// Adds a method to a handle type; fn takes the handle object (nb::handle) first.
template <class Fn, class... Extra>
void def_handle_method(int kind, const char *name, Fn &&fn, const Extra &...extra) {
  nb::handle type(reinterpret_cast<PyObject *>(handle_type(kind)));
  type.attr(name) = nb::cpp_function(std::forward<Fn>(fn), nb::scope(type), nb::name(name),
                                     nb::is_method(), extra...);
}

// The parts of each handle class that differ by kind (reprs, Var's hash and name), registered by
// var.cpp, constr.cpp, qconstr.cpp, sos.cpp and genconstr.cpp.
void init_var();
void init_constr();
void init_qconstr();
void init_sos();
void init_genconstr();

}  // namespace kvrpy
