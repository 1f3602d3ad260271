#include "reform/reform.h"

#include <cmath>

#include "reform/internal.h"
#include "util/error.h"

namespace kvr {

namespace {

using reform::gen_name;
using reform::gen_type_name;

bool is_function_type(int type) {
  return type >= KVR_GENCONSTR_POLY && type <= KVR_GENCONSTR_LOGISTIC;
}

bool needs_rewriting(const ModelData &m) {
  if (m.sos.size() > 0 || m.gens.size() > 0 || !m.pwlobj.empty()) return true;
  for (char t : m.vars.vtype)
    if (t == KVR_SEMICONT || t == KVR_SEMIINT) return true;
  return false;
}

// Every reference must name an existing variable before anything is built.
void check_references(const ModelData &m) {
  int n = m.num_vars();
  for (int s = 0; s < m.sos.size(); ++s) {
    int type = m.sos.type[s];
    if (type != KVR_SOS_TYPE1 && type != KVR_SOS_TYPE2)
      fail(KVR_ERROR_INVALID_ARGUMENT, "SOS constraint %d: invalid type %d", s, type);
    for (int64_t k = m.sos.beg[s]; k < m.sos.beg[s + 1]; ++k) {
      if (m.sos.ind[k] < 0 || m.sos.ind[k] >= n)
        fail(KVR_ERROR_INDEX_OUT_OF_RANGE, "SOS constraint %d: variable index %d out of range", s,
             m.sos.ind[k]);
      if (!std::isfinite(m.sos.weight[k]))
        fail(KVR_ERROR_INVALID_ARGUMENT, "SOS constraint %d: weight of %s is not finite", s,
             reform::var_name(m, m.sos.ind[k]).c_str());
    }
  }
  for (int i = 0; i < m.gens.size(); ++i) {
    const GenConstr &g = m.gens.items[i];
    std::string what = "General constraint " + gen_name(m, i);
    if (g.type < KVR_GENCONSTR_MAX || g.type > KVR_GENCONSTR_LOGISTIC)
      fail(KVR_ERROR_INVALID_ARGUMENT, "%s: unknown type %d", what.c_str(), g.type);
    what += std::string(" (") + gen_type_name(g.type) + ")";
    std::vector<int> refs;
    switch (g.type) {
      case KVR_GENCONSTR_INDICATOR:
        if (g.ind.size() != g.val.size())
          fail(KVR_ERROR_INVALID_ARGUMENT, "%s: %zu indices but %zu coefficients", what.c_str(),
               g.ind.size(), g.val.size());
        refs = g.ind;
        refs.push_back(g.binvar);
        break;
      case KVR_GENCONSTR_MAX:
      case KVR_GENCONSTR_MIN:
      case KVR_GENCONSTR_ABS:
      case KVR_GENCONSTR_AND:
      case KVR_GENCONSTR_OR:
      case KVR_GENCONSTR_NORM:
        refs = g.vars;
        refs.push_back(g.resvar);
        break;
      default:
        refs = {g.xvar, g.yvar};
        break;
    }
    for (int j : refs)
      if (j < 0 || j >= n)
        fail(KVR_ERROR_INDEX_OUT_OF_RANGE, "%s: variable index %d out of range", what.c_str(), j);
  }
}

}  // namespace

Reformulated reformulate(const ModelData &user, const ParamValues &params) {
  if (user.qconstrs.size() > 0)
    fail(KVR_ERROR_NOT_SUPPORTED,
         "Quadratic constraint %s: the engine in use takes no quadratic constraints",
         user.qconstrs.names.get(0).empty() ? "QC0"
                                            : std::string(user.qconstrs.names.get(0)).c_str());
  Reformulated r;
  r.user_vars = user.num_vars();
  r.user_constrs = user.num_constrs();
  r.model = user;
  if (!needs_rewriting(user)) return r;
  check_references(user);

  r.changed = true;
  reform::Builder b(r.model, user);
  reform::propagate_bounds(b, 8);
  // Function and PWL constraints first: their approximations bound y, which later big-M values
  // may need.
  bool functions = false;
  for (int i = 0; i < user.gens.size(); ++i) {
    int type = user.gens.items[i].type;
    if (type == KVR_GENCONSTR_PWL)
      reform::rewrite_pwl_constraint(b, i, params);
    else if (is_function_type(type))
      reform::rewrite_function(b, i, params);
    else
      continue;
    functions = true;
  }
  if (functions) reform::propagate_bounds(b, 4);
  reform::rewrite_semicontinuous(b);
  reform::rewrite_pwl_objectives(b, params);
  reform::rewrite_sos(b, params);
  for (int i = 0; i < user.gens.size(); ++i) {
    int type = user.gens.items[i].type;
    if (type != KVR_GENCONSTR_PWL && !is_function_type(type)) reform::rewrite_logical(b, i, params);
  }

  // What is left is a plain model.
  r.model.sos = SosData{};
  r.model.gens = GenConstrData{};
  r.model.pwlobj.clear();
  return r;
}

}  // namespace kvr
