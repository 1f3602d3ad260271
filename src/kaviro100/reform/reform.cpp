#include "reform/reform.h"

#include <algorithm>
#include <cmath>
#include <iterator>

#include "reform/internal.h"
#include "reform/psd.h"
#include "util/error.h"

namespace kvr {

namespace {

using reform::gen_name;
using reform::gen_type_name;

bool is_function_type(int type) {
  return type >= KVR_GENCONSTR_POLY && type <= KVR_GENCONSTR_LOGISTIC;
}

// Whether the engine takes general constraint g of u as it is. An and/or constraint goes as it
// is when its resultant and operands are binary and the resultant is not an operand; the others
// (no operands, a resultant of wider range) are rewritten, which also reports operands that are
// not binary.
bool native_gen(const ModelData &u, const GenConstr &g, const EngineCapabilities &caps) {
  if (g.type == KVR_GENCONSTR_INDICATOR) return caps.indicator;
  if (g.type != KVR_GENCONSTR_AND && g.type != KVR_GENCONSTR_OR) return false;
  if (!caps.and_or || g.vars.empty() || !reform::is_binary_var(u, g.resvar)) return false;
  for (int j : g.vars)
    if (j == g.resvar || !reform::is_binary_var(u, j)) return false;
  return true;
}

bool is_approximated(int type) { return type == KVR_GENCONSTR_PWL || is_function_type(type); }

// One rewrite of the model: when the engine needs it (from the user's model and the engine's
// capabilities) and what it adds. Every step appends variables and rows after the user's, so
// results map back by truncation.
struct RewriteStep {
  bool (*needed)(const ModelData &user, const EngineCapabilities &caps);
  void (*apply)(reform::Builder &b, const ParamValues &params, const EngineCapabilities &caps);
};

bool has_approximated(const ModelData &u, const EngineCapabilities &) {
  for (const GenConstr &g : u.gens.items)
    if (is_approximated(g.type)) return true;
  return false;
}

// Function and PWL constraints come first: their approximations bound y, which later big-M
// values may need.
void approximate(reform::Builder &b, const ParamValues &params, const EngineCapabilities &) {
  const ModelData &u = b.user();
  for (int i = 0; i < u.gens.size(); ++i) {
    int type = u.gens.items[i].type;
    if (type == KVR_GENCONSTR_PWL)
      reform::rewrite_pwl_constraint(b, i, params);
    else if (is_function_type(type))
      reform::rewrite_function(b, i, params);
  }
  reform::propagate_bounds(b, 4);
}

bool has_semicontinuous(const ModelData &u, const EngineCapabilities &caps) {
  return !caps.semicontinuous && u.facts().semicontinuous > 0;
}

bool has_pwl_objectives(const ModelData &u, const EngineCapabilities &) {
  return !u.pwlobj.empty();
}

bool has_foreign_sos(const ModelData &u, const EngineCapabilities &caps) {
  return u.sos.size() > 0 && !caps.sos;
}

bool has_foreign_logical(const ModelData &u, const EngineCapabilities &caps) {
  for (const GenConstr &g : u.gens.items)
    if (!is_approximated(g.type) && !native_gen(u, g, caps)) return true;
  return false;
}

void rewrite_logical(reform::Builder &b, const ParamValues &params,
                     const EngineCapabilities &caps) {
  const ModelData &u = b.user();
  for (int i = 0; i < u.gens.size(); ++i)
    if (!is_approximated(u.gens.items[i].type) && !native_gen(u, u.gens.items[i], caps))
      reform::rewrite_logical(b, i, params);
}

const RewriteStep kSteps[] = {
    {has_approximated, approximate},
    {has_semicontinuous, [](reform::Builder &b, const ParamValues &,
                            const EngineCapabilities &) { reform::rewrite_semicontinuous(b); }},
    {has_pwl_objectives,
     [](reform::Builder &b, const ParamValues &params, const EngineCapabilities &) {
       reform::rewrite_pwl_objectives(b, params);
     }},
    {has_foreign_sos, [](reform::Builder &b, const ParamValues &params,
                         const EngineCapabilities &) { reform::rewrite_sos(b, params); }},
    {has_foreign_logical, rewrite_logical},
};

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
  const int t = m.add_var(-KVR_INFINITY, KVR_INFINITY, cost, KVR_CONTINUOUS);
  QConstr epi;
  epi.q = std::move(q);
  for (double &v : epi.q.val) v *= scale;
  epi.lind = {t};
  epi.lval = {-scale};
  m.add_qconstr(std::move(epi));
}

// The engine's QP method takes neither integers nor quadratic rows: a quadratic objective then
// becomes min c'x + t with the convex constraint t >= x'Qx (maximization: max c'x - t with
// t >= -x'Qx). With `always` (a continuous QP the engine's QP method failed on) a diagonal Q
// gets one epigraph per term instead: each is approximated by its own cuts, far fewer rounds
// than one epigraph of the whole sum needs.
void move_objective_to_epigraph(Reformulated &r, const ParamValues &params,
                                const EngineCapabilities &caps, bool always) {
  if (caps.quadratic_mip && !always) return;
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
  r.moved_q = m.q;
  m.set_q(QuadTerms{});
  r.epigraph = first;
  r.changed = true;
}

}  // namespace

Reformulated reformulate(const ModelData &user, const ParamValues &params,
                         const EngineCapabilities &caps, bool epigraph) {
  Reformulated r(&user);
  r.user_vars = user.num_vars();
  r.user_constrs = user.num_constrs();
  if (user.sos.size() > 0 || user.gens.size() > 0) check_references(user);
  for (int i = 0; i < user.gens.size(); ++i)
    if (user.gens.items[i].type == KVR_GENCONSTR_INDICATOR &&
        native_gen(user, user.gens.items[i], caps))
      reform::check_indicator(user, i);
  bool needed[std::size(kSteps)];
  bool any = false;
  for (size_t k = 0; k < std::size(kSteps); ++k) any |= needed[k] = kSteps[k].needed(user, caps);
  if (!any) {
    move_objective_to_epigraph(r, params, caps, epigraph);
    return r;
  }

  r.changed = true;
  reform::Builder b(r.own(), user);
  reform::propagate_bounds(b, 8);
  for (size_t k = 0; k < std::size(kSteps); ++k)
    if (needed[k]) kSteps[k].apply(b, params, caps);

  // What is left is what the engine takes: a plain model plus its native constructs.
  ModelData &m = r.own();
  if (!caps.sos) m.clear_sos();
  m.clear_gens();
  for (int i = 0; i < user.gens.size(); ++i)
    if (native_gen(user, user.gens.items[i], caps))
      m.add_genconstr(user.gens.items[i], user.gens.names.get(static_cast<size_t>(i)));
  m.clear_pwl_objs();
  move_objective_to_epigraph(r, params, caps, epigraph);
  return r;
}

}  // namespace kvr
