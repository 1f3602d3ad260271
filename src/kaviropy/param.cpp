// ParamClass: attribute-style access to the parameters of an environment (Model.Params).
#include "attrutil.h"
#include "env.h"

namespace kvrpy {
namespace {

struct ParamClass {
  nb::object env;
};

}  // namespace

void init_param(nb::module_ &m) {
  nb::class_<ParamClass>(m, "ParamClass", nb::dynamic_attr(),
                         "Parameters of an environment, read and set as attributes.")
      .def(
          "__init__", [](ParamClass *self, nb::object env) { new (self) ParamClass{env}; },
          nb::arg("env"), "Shows the parameters of the given Env.")
      .def_prop_ro(
          "_ParamClass__env", [](ParamClass &p) { return p.env; }, "The environment shown.")
      .def(
          "__getattr__",
          [](ParamClass &p, const std::string &name) -> nb::object {
            if (name.rfind("__", 0) == 0) raise_python(PyExc_AttributeError, name);
            try {
              return param_info(p.env, name)[2];
            } catch (nb::python_error &e) {
              if (!e.matches(kaviro_error_type())) throw;
              raise_python(PyExc_AttributeError, "No parameter named '" + name + "'");
            }
          },
          nb::arg("name"), "Current value of a parameter.")
      .def(
          "__setattr__",
          [](nb::handle self, nb::handle name, nb::handle value) {
            if (set_private_attr(self, name, value)) return;
            std::string n = utf8(name);
            set_param(nb::cast<ParamClass &>(self).env, n, value);
          },
          nb::arg("name"), nb::arg("value").none(), "Sets a parameter.")
      .def(
          "__dir__",
          [](nb::handle self) {
            nb::list names = param_list(nb::cast<ParamClass &>(self).env, "*");
            nb::object d = nb::getattr(self, "__dict__", nb::dict());
            for (nb::handle k : d) names.append(k);
            return names;
          },
          "All parameter names.")
      .def(
          "__repr__",
          [](ParamClass &p) { return "<kaviropy.ParamClass: " + change_list(p.env) + ">"; },
          "Text form listing the changed parameters.")
      .def(
          "_getChangeList", [](ParamClass &p) { return change_list(p.env); },
          "\"No parameter changes\" or the list of changed parameters.");
}

}  // namespace kvrpy
