// Constr: the handle of one linear constraint.
#include "handles.h"

namespace kvrpy {

Constr *as_constr(nb::handle obj) {
  static PyTypeObject *type = reinterpret_cast<PyTypeObject *>(nb::type<Constr>().ptr());
  if (!PyObject_TypeCheck(obj.ptr(), type)) return nullptr;
  return nb::inst_ptr<Constr>(obj);
}

int num_constrs(KVRmodel *model) {
  int n = 0;
  if (!model || KVRgetintattr(model, "NumConstrs", &n)) return 0;
  return n;
}

int constr_row(nb::handle obj, KVRmodel *model) {
  Constr *c = as_constr(obj);
  if (!c || c->model != model || c->index < 0)
    raise_error(KVR_ERROR_NOT_IN_MODEL, "Constraint not in model");
  return c->index;
}

}  // namespace kvrpy
