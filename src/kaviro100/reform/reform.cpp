#include "reform/reform.h"

#include "util/error.h"

namespace kvr {

Reformulated reformulate(const ModelData &user, const ParamValues &params) {
  (void)params;
  if (user.qconstrs.size() > 0)
    fail(KVR_ERROR_NOT_SUPPORTED,
         "Quadratic constraint %s: the engine in use takes no quadratic constraints",
         user.qconstrs.names.get(0).empty() ? "QC0"
                                            : std::string(user.qconstrs.names.get(0)).c_str());
  if (user.sos.size() > 0 || user.gens.size() > 0 || !user.pwlobj.empty())
    fail(KVR_ERROR_NOT_SUPPORTED,
         "SOS, general constraints and piecewise-linear objectives are not rewritten yet");
  for (char t : user.vars.vtype)
    if (t == KVR_SEMICONT || t == KVR_SEMIINT)
      fail(KVR_ERROR_NOT_SUPPORTED, "Semi-continuous variables are not rewritten yet");
  Reformulated r;
  r.model = user;
  r.user_vars = user.num_vars();
  r.user_constrs = user.num_constrs();
  return r;
}

}  // namespace kvr
