// GenConstr: the handle of one general constraint.
#include "handles.h"

namespace kvrpy {

void init_genconstr() {
  def_handle_method(
      kGenConstr, "__repr__",
      [](nb::handle self) { return indexed_repr("GenConstr", handle_data(self.ptr())->index); },
      "<kaviro.GenConstr index>, or its state when pending or removed.");
}

}  // namespace kvrpy
