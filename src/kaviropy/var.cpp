// Var: the handle of one variable. Arithmetic and comparison operators are added by the
// expression family (linexpr.cpp, tempconstr.cpp).
#include "handles.h"
#include "matrix.h"

namespace kvrpy {

Var *as_var(nb::handle obj) {
  PyTypeObject *type = handle_type(kVar);
  if (Py_TYPE(obj.ptr()) != type && !PyObject_TypeCheck(obj.ptr(), type)) return nullptr;
  return handle_data(obj.ptr());
}

int num_vars(KVRmodel *model) {
  int n = 0;
  if (!model || KVRgetintattr(model, "NumVars", &n)) return 0;
  return n;
}

// A removed handle may outlive its library model, so its model is looked at only for the states
// that guarantee a live model (a position, or a removal still pending).
std::string var_safename(const Var &v) {
  if (v.index == -1) return "*Awaiting Model Update*";
  if (v.index == -2) return "*Removed*";
  if (v.index >= num_vars(v.model)) return "*Awaiting Model Update*";
  char *name = nullptr;
  if (KVRgetstrattrelement(v.model, "VarName", public_index(v.index), &name) || !name)
    raise_error(kUsageError, KVRgetmerrormsg(v.model));
  return display(name);
}

int var_column(nb::handle obj, KVRmodel *model) {
  Var *v = as_var(obj);
  if (!v && is_one_element(obj)) return var_column(obj.attr("item")(), model);
  if (!v) raise_error(KVR_ERROR_INVALID_ARGUMENT, "Invalid data in vars array");
  if (v->index == -1) raise_error(kUsageError, "Variable has not yet been added to the model");
  if (v->index == -2) raise_error(kUsageError, "Variable was removed from the model");
  if (v->model != model) raise_error(KVR_ERROR_NOT_IN_MODEL, "Variable not in model");
  return public_index(v->index);
}

void init_var() {
  def_handle_method(
      kVar, "_safename", [](nb::handle self) { return var_safename(*handle_data(self.ptr())); },
      "The name shown in reprs and printed expressions.");
  def_handle_method(
      kVar, "__numcols__", [](nb::handle self) { return num_vars(handle_data(self.ptr())->model); },
      "Number of variables of the model as of the last update.");
  def_handle_method(
      kVar, "__hash__",
      [](nb::handle self) -> Py_ssize_t {
        const Var &v = *handle_data(self.ptr());
        if (v.index == -1) raise_error(kUsageError, "Variable has not yet been added to the model");
        if (v.index < -1) raise_error(kUsageError, "Variable was removed from the model");
        if (v.index >= num_vars(v.model))
          raise_error(kUsageError, "Variable has not yet been added to the model");
        return v.index;
      },
      "Hash of the column index (the variable must be in the updated model).");
  def_handle_method(
      kVar, "__repr__",
      [](nb::handle self) {
        const Var &v = *handle_data(self.ptr());
        if (v.index == -1 || v.index == -2 || v.index >= num_vars(v.model))
          return "<kaviro.Var " + var_safename(v) + ">";
        std::string out = "<kaviro.Var " + var_safename(v);
        int solcount = 0;
        double x = 0;
        if (KVRgetintattr(v.model, "SolCount", &solcount) == 0 && solcount > 0 &&
            KVRgetdblattrelement(v.model, "X", public_index(v.index), &x) == 0)
          out += " (value " + nb::cast<std::string>(nb::str(nb::float_(from_library(x)))) + ")";
        if (v.index < -2) out += " (Removed)";
        return out + ">";
      },
      "<kaviro.Var name>, with the solution value when there is one.");
}

}  // namespace kvrpy
