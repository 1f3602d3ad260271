#include "reform/reform.h"

#include <algorithm>
#include <cmath>

#include "engine/engine.h"
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

// Appends an epigraph column t (objective coefficient `cost`) and the constraint
// scale * (q - t) <= 0.
void add_epigraph(ModelData &m, QuadTerms q, double cost, double scale = 1.0) {
  const int t = m.num_vars();
  m.vars.lb.push_back(-KVR_INFINITY);
  m.vars.ub.push_back(KVR_INFINITY);
  m.vars.obj.push_back(cost);
  m.vars.vtype.push_back(KVR_CONTINUOUS);
  m.vars.names.push_back("");
  m.vars.extra.resize(m.vars.lb.size());
  QConstr epi;
  epi.q = std::move(q);
  for (double &v : epi.q.val) v *= scale;
  epi.lind = {t};
  epi.lval = {-scale};
  m.qconstrs.items.push_back(std::move(epi));
  m.qconstrs.names.push_back("");
  m.qconstrs.extra.resize(m.qconstrs.items.size());
}

// The engine's QP method takes neither integers nor quadratic rows: a quadratic objective then
// becomes min c'x + t with the convex constraint t >= x'Qx (maximization: max c'x - t with
// t >= -x'Qx). With `always` (a continuous QP the engine's QP method failed on) a diagonal Q
// gets one epigraph per term instead: each is approximated by its own cuts, far fewer rounds
// than one epigraph of the whole sum needs.
void move_objective_to_epigraph(Reformulated &r, const ParamValues &params, bool always) {
  const ModelData &given = r.model();
  if (given.q.size() == 0 || (!always && !given.is_mip() && given.qconstrs.size() == 0)) return;
  check_convex_objective(given, params);
  ModelData &m = r.own();
  const double sign = m.sense == KVR_MAXIMIZE ? -1.0 : 1.0;
  const int first = m.num_vars();
  bool diagonal = always;
  for (size_t k = 0; k < m.q.size() && diagonal; ++k) diagonal = m.q.row[k] == m.q.col[k];
  if (diagonal) {
    std::vector<double> coef(static_cast<size_t>(first), 0.0);
    for (size_t k = 0; k < m.q.size(); ++k) coef[m.q.row[k]] += sign * m.q.val[k];
    // The cuts meet each constraint within the feasibility tolerance; scaled by the number of
    // terms, the objective's error stays within it in total.
    const double terms = static_cast<double>(
        std::count_if(coef.begin(), coef.end(), [](double c) { return c != 0.0; }));
    for (int j = 0; j < first; ++j) {
      if (coef[j] == 0.0) continue;
      QuadTerms q;
      q.push(j, j, coef[j]);
      add_epigraph(m, std::move(q), sign, terms);
    }
  } else {
    QuadTerms q = m.q;
    for (double &v : q.val) v *= sign;
    add_epigraph(m, std::move(q), sign);
  }
  r.moved_q = std::move(m.q);
  m.q = QuadTerms{};
  r.epigraph = first;
  r.changed = true;
}

}  // namespace

Reformulated reformulate(const ModelData &user, const ParamValues &params, bool epigraph) {
  Reformulated r(&user);
  r.user_vars = user.num_vars();
  r.user_constrs = user.num_constrs();
  if (!needs_rewriting(user)) {
    move_objective_to_epigraph(r, params, epigraph);
    return r;
  }
  check_references(user);

  r.changed = true;
  reform::Builder b(r.own(), user);
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
  ModelData &m = r.own();
  m.sos = SosData{};
  m.gens = GenConstrData{};
  m.pwlobj.clear();
  move_objective_to_epigraph(r, params, epigraph);
  return r;
}

}  // namespace kvr
