// AttrConstClass: every attribute name of the library, each equal to itself.
#include "constants.h"

namespace kvrpy {

nb::object make_attr_const_class(nb::module_ &m) {
  Constants names;
  int n = KVRgetnumattributes(nullptr);
  for (int i = 0; i < n; ++i) {
    char *name = nullptr;
    if (KVRgetattrname(nullptr, i, &name) == 0 && name) names.emplace_back(name, nb::str(name));
  }
  return make_constant_class(m, "AttrConstClass", "Attribute names of the solver library.", names,
                             "Modifying Kaviro attribute constant not allowed");
}

}  // namespace kvrpy
