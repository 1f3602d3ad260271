// Constr: the handle of one linear constraint.
#include "handles.h"

namespace kvrpy {

Constr *as_constr(nb::handle obj) {
  if (!PyObject_TypeCheck(obj.ptr(), handle_type(kConstr))) return nullptr;
  return handle_data(obj.ptr());
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

void init_constr() {
  def_handle_method(
      kConstr, "__numrows__",
      [](nb::handle self) { return num_constrs(handle_data(self.ptr())->model); },
      "Number of linear constraints of the model as of the last update.");
  def_handle_method(
      kConstr, "__repr__",
      [](nb::handle self) -> std::string {
        const Constr &c = *handle_data(self.ptr());
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
