// The extension module kaviropy._core: creates every class family in import order.
#include "attrutil.h"
#include "containers.h"
#include "exprtypes.h"
#include "handles.h"
#include "matrix.h"
#include "model.h"
#include "model_files.h"
#include "model_optimize.h"

namespace kvrpy {
namespace {
nb::module_ *g_module = nullptr;
}

nb::module_ &module() { return *g_module; }

nb::object module_attr(const char *name) { return g_module->attr(name); }

}  // namespace kvrpy

NB_MODULE(_core, m) {
  using namespace kvrpy;
  // Kept for the life of the process (never destroyed: that would run after Python is gone).
  g_module = new nb::module_(nb::borrow<nb::module_>(m));
  m.doc() = "Kaviro: build and solve optimization models.";
  init_util(m);
  init_exception(m);
  init_env(m);
  init_handles(m);
  init_linexpr(m);
  init_quadexpr(m);
  init_genexpr(m);
  init_tempconstr(m);
  init_column(m);
  init_multidict(m);
  init_param(m);
  init_model(m);
  init_attrutil(m);
  init_callback(m);
  init_constants(m);
  init_tupledict(m);
  init_tuplelist(m);
  init_kaviro(m);
  init_model_optimize(m);
  init_model_tune(m);
  init_model_print(m);
  init_model_files(m);
  init_model_transform(m);
  init_mvar(m);
  init_mlinexpr(m);
  init_mquadexpr(m);
  init_mconstr(m);
  init_mqconstr(m);
}
