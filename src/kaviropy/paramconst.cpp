// ParamConstClass: every parameter name of the library, each equal to itself.
#include "constants.h"

namespace kvrpy {

nb::object make_param_const_class(nb::module_ &m) {
  Constants names;
  int n = KVRgetnumparams(nullptr);
  for (int i = 0; i < n; ++i) {
    char *name = nullptr;
    if (KVRgetparamname(nullptr, i, &name) == 0 && name) names.emplace_back(name, nb::str(name));
  }
  return make_constant_class(m, "ParamConstClass", "Parameter names of the solver library.", names,
                             "Modifying Kaviro parameter constant not allowed");
}

}  // namespace kvrpy
