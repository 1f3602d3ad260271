// GenConstr: the handle of one general constraint.
#include "handles.h"

namespace kvrpy {

void init_genconstr(nb::class_<GenConstr> &cls) {
  cls.def(
      "__repr__", [](GenConstr &g) { return indexed_repr("GenConstr", g.index); },
      "<kaviro.GenConstr index>, or its state when pending or removed.");
}

}  // namespace kvrpy
