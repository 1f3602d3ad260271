// SOS: the handle of one special-ordered-set constraint.
#include "handles.h"

namespace kvrpy {

// "<kaviro.SOS 3>"; pending and removed states in words; a pending removal shows the former
// position.
std::string indexed_repr(const char *type_name, int index) {
  std::string head = std::string("<kaviro.") + type_name + " ";
  if (index == -1) return head + "*Awaiting Model Update*>";
  if (index == -2) return head + "*Removed*>";
  if (index < -2) return head + std::to_string(public_index(index)) + " (Removed)>";
  return head + std::to_string(index) + ">";
}

void init_sos() {
  def_handle_method(
      kSOS, "__repr__",
      [](nb::handle self) { return indexed_repr("SOS", handle_data(self.ptr())->index); },
      "<kaviro.SOS index>, or its state when pending or removed.");
}

}  // namespace kvrpy
