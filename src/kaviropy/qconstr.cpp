// QConstr: the handle of one quadratic constraint.
#include "handles.h"

namespace kvrpy {

void init_qconstr() {
  def_handle_method(
      kQConstr, "__repr__",
      [](nb::handle self) -> std::string {
        const QConstr &q = *handle_data(self.ptr());
        if (q.index == -1) return "<kaviro.QConstr Not Yet Added>";
        if (q.index == -2) return "<kaviro.QConstr Deleted>";
        std::string out =
            "<kaviro.QConstr " + element_name(q.model, "QCName", public_index(q.index));
        if (q.index < -2) out += " (Deleted)";
        return out + ">";
      },
      "<kaviro.QConstr name>, or its state when not yet added or deleted.");
}

}  // namespace kvrpy
