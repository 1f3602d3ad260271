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
  if (!c || c->index < 0 || c->model != model)
    raise_error(KVR_ERROR_NOT_IN_MODEL, "Constraint not in model");
  return c->index;
}

void init_constr(nb::class_<Constr> &cls) {
  cls.def(
         "__numrows__", [](Constr &c) { return num_constrs(c.model); },
         "Number of linear constraints of the model as of the last update.")
      .def(
          "__repr__",
          [](Constr &c) -> std::string {
            if (c.index == -1) return "<kaviro.Constr *Awaiting Model Update*>";
            if (c.index == -2) return "<kaviro.Constr *Removed*>";
            if (c.index >= num_constrs(c.model)) return "<kaviro.Constr *Awaiting Model Update*>";
            std::string out =
                "<kaviro.Constr " + element_name(c.model, "ConstrName", public_index(c.index));
            if (c.index < -2) out += " (Removed)";
            return out + ">";
          },
          "<kaviro.Constr name>, or its state when pending or removed.");
}

}  // namespace kvrpy
