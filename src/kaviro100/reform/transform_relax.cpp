// Derived models that keep the model's rows: the continuous relaxation, the fixed model of a MIP
// solution and the feasibility model (no objective).
#include <algorithm>
#include <cmath>

#include "reform/internal.h"
#include "reform/transform.h"

namespace kvr {

namespace {

using reform::Builder;
using reform::Term;

// Linear rows implied by general constraint i that every solution satisfies (nothing for the
// kinds without a sensible linear relaxation).
void relax_general(Builder &b, int i, const ParamValues &params) {
  const GenConstr &g = b.user().gens.items[i];
  const std::string owner = reform::gen_name(b.user(), i);
  const int y = g.resvar;
  int k = 0;
  auto row = [&](std::vector<Term> terms, char sense, double rhs) {
    b.add_row(terms, sense, rhs, owner + "_r" + std::to_string(k++));
  };
  switch (g.type) {
    case KVR_GENCONSTR_MAX:
    case KVR_GENCONSTR_MIN: {
      char sense = g.type == KVR_GENCONSTR_MAX ? KVR_GREATER_EQUAL : KVR_LESS_EQUAL;
      for (int x : g.vars) row({{y, 1.0}, {x, -1.0}}, sense, 0.0);
      if (reform::is_finite(g.constant)) row({{y, 1.0}}, sense, g.constant);
      break;
    }
    case KVR_GENCONSTR_ABS:
    case KVR_GENCONSTR_NORM:
      // Every norm is at least the largest absolute value.
      for (int x : g.vars) {
        row({{y, 1.0}, {x, -1.0}}, KVR_GREATER_EQUAL, 0.0);
        row({{y, 1.0}, {x, 1.0}}, KVR_GREATER_EQUAL, 0.0);
      }
      break;
    case KVR_GENCONSTR_AND:
    case KVR_GENCONSTR_OR:
      // With binary operands, the exact rows of and / or are its linear relaxation already.
      reform::rewrite_logical(b, i, params);
      break;
    default:
      break;  // indicator, piecewise-linear and function constraints are dropped
  }
}

ModelData relaxed(const ModelData &m, const ParamValues &params) {
  ModelData r = m;
  for (int j = 0; j < r.num_vars(); ++j) {
    const double lb = r.vars.lb[j], ub = r.vars.ub[j];
    switch (r.vars.vtype[j]) {
      case KVR_BINARY:
        r.set_bounds(j, std::max(lb, 0.0), std::min(ub, 1.0));
        break;
      case KVR_SEMICONT:
      case KVR_SEMIINT:
        r.set_bounds(j, std::min(lb, 0.0), std::max(ub, 0.0));
        break;
      default:
        break;
    }
    r.set_vtype(j, KVR_CONTINUOUS);
  }
  r.clear_sos();
  r.clear_gens();
  Builder b(r, m);
  for (int i = 0; i < m.gens.size(); ++i) relax_general(b, i, params);
  return r;
}

void fix_at(ModelData &d, int j, double v) { d.set_bounds(j, v, v); }

ModelData fixed(const kvr_model &model) {
  const ModelData &m = model.data;
  const std::vector<double> &x = model.sol.x;
  if (x.size() != static_cast<size_t>(m.num_vars()))
    fail(KVR_ERROR_DATA_NOT_AVAILABLE,
         "Unable to create the fixed model: the model has no solution (optimize it first)");
  const double zero_tol = model.env.params.get_dbl(ParamId::FeasibilityTol);
  ModelData f = m;
  for (int j = 0; j < m.num_vars(); ++j) {
    switch (m.vars.vtype[j]) {
      case KVR_BINARY:
      case KVR_INTEGER:
      case KVR_SEMIINT:
        fix_at(f, j, std::round(x[j]));
        break;
      case KVR_SEMICONT:
        if (std::fabs(x[j]) <= zero_tol) fix_at(f, j, 0.0);
        break;
      default:
        break;
    }
    f.set_vtype(j, KVR_CONTINUOUS);
  }
  for (int64_t k = 0; k < m.sos.beg.back(); ++k) {
    int j = m.sos.ind[k];
    if (std::fabs(x[j]) <= zero_tol) fix_at(f, j, 0.0);
  }
  f.clear_sos();
  f.clear_gens();
  Builder b(f, m);
  for (int i = 0; i < m.gens.size(); ++i) {
    const GenConstr &g = m.gens.items[i];
    if (g.type == KVR_GENCONSTR_INDICATOR) {
      if (std::round(x[g.binvar]) != g.binval) continue;
      std::vector<Term> terms;
      for (size_t k = 0; k < g.ind.size(); ++k) terms.push_back({g.ind[k], g.val[k]});
      b.add_row(terms, g.sense, g.rhs, reform::gen_name(m, i));
      continue;
    }
    std::vector<int> involved = g.vars;
    for (int j : {g.resvar, g.xvar, g.yvar})
      if (j >= 0) involved.push_back(j);
    for (int j : involved)
      fix_at(f, j, f.vars.vtype[j] == KVR_CONTINUOUS ? x[j] : std::round(x[j]));
  }
  return f;
}

}  // namespace

}  // namespace kvr

extern "C" {

int KVRrelaxmodel(KVRmodel *model, KVRmodel **resultP) {
  return kvr::derive_model(model, resultP, false,
                           [](const kvr_model &m) { return kvr::relaxed(m.data, m.env.params); });
}

int KVRfixmodel(KVRmodel *model, KVRmodel **resultP) {
  return kvr::derive_model(model, resultP, false, [](const kvr_model &m) { return kvr::fixed(m); });
}

int KVRfeasibility(KVRmodel *model, KVRmodel **resultP) {
  return kvr::derive_model(model, resultP, false, [](const kvr_model &m) {
    kvr::ModelData f = m.data;
    f.clear_objective();
    f.set_objsense(KVR_MINIMIZE);
    return f;
  });
}

}  // extern "C"
