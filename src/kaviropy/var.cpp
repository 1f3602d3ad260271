// Var: the handle of one variable. Arithmetic and comparison operators are added by the
// expression family (linexpr.cpp, tempconstr.cpp).
#include "handles.h"

namespace kvrpy {

Var *as_var(nb::handle obj) {
  static PyTypeObject *type = reinterpret_cast<PyTypeObject *>(nb::type<Var>().ptr());
  if (Py_TYPE(obj.ptr()) != type && !PyObject_TypeCheck(obj.ptr(), type)) return nullptr;
  return nb::inst_ptr<Var>(obj);
}

int num_vars(KVRmodel *model) {
  int n = 0;
  if (!model || KVRgetintattr(model, "NumVars", &n)) return 0;
  return n;
}

std::string var_safename(const Var &v) {
  if (v.index == -1 || v.index >= num_vars(v.model)) return "*Awaiting Model Update*";
  if (v.index == -2) return "*Removed*";
  char *name = nullptr;
  if (KVRgetstrattrelement(v.model, "VarName", public_index(v.index), &name) || !name)
    raise_error(0, KVRgetmerrormsg(v.model));
  return name;
}

int var_column(nb::handle obj, KVRmodel *model) {
  Var *v = as_var(obj);
  if (!v) raise_error(KVR_ERROR_INVALID_ARGUMENT, "Invalid data in vars array");
  if (v->index == -1) raise_error(0, "Variable has not yet been added to the model");
  if (v->index == -2) raise_error(0, "Variable was removed from the model");
  if (v->model != model) raise_error(KVR_ERROR_NOT_IN_MODEL, "Variable not in model");
  return public_index(v->index);
}

}  // namespace kvrpy
