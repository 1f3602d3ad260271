// Attributes computed by functions of their own (the rows of attrs.tsv with store computed:NAME):
// counts, the selected pool solution, MIP start, objective or scenario, slacks from the solution,
// statistics and solution quality (attrs/stats.cpp, attrs/quality.cpp).
#include <cmath>
#include <unordered_map>

#include "attrs/readers.h"

namespace kvr::computed {
double read_statistic(kvr_model &m, AttrId id) { return statistic(&m, id); }
double read_quality(kvr_model &m, AttrId id) { return quality(&m, id); }
bool has_quality(kvr_model &m, AttrId id) { return quality_available(&m, id); }
double read_fingerprint(kvr_model &m, AttrId) { return fingerprint(&m); }
double read_solcount(kvr_model &m, AttrId) { return m.sol.solcount(); }
double read_num_start(kvr_model &m, AttrId) { return m.data.numstart; }
double read_num_obj(kvr_model &m, AttrId) { return static_cast<double>(m.data.objn.size()); }
double read_num_scenarios(kvr_model &m, AttrId) {
  return static_cast<double>(m.data.scenarios.size());
}
double read_tune_result_count(kvr_model &m, AttrId) {
  return static_cast<double>(m.tune.sets.size());
}

// Only a concurrent LP solve has a winning method.
double read_concurrent_win_method(kvr_model &m, AttrId) { return m.sol.concurrent_win_method; }
bool has_concurrent_win_method(kvr_model &m, AttrId) { return m.sol.concurrent_win_method >= 0; }

// Pool solution k; the pool's first solution is the solution itself when no pool was kept.
double read_pool_objval(kvr_model &m, AttrId id) {
  size_t k = static_cast<size_t>(selector_of(&m, id));
  return k < m.sol.pool_obj.size() ? m.sol.pool_obj[k] : m.sol.objval;
}
bool has_pool_objval(kvr_model &m, AttrId id) {
  int k = selector_of(&m, id);
  return m.sol.pool_obj.size() > static_cast<size_t>(k) || (k == 0 && !std::isnan(m.sol.objval));
}
void read_xn(kvr_model &m, AttrId id, IndexSet ix, double *out) {
  size_t k = static_cast<size_t>(selector_of(&m, id));
  copy_vec(id, k < m.sol.pool_x.size() ? m.sol.pool_x[k] : m.sol.x, ix, out);
}

void read_start(kvr_model &m, AttrId id, IndexSet ix, double *out) {
  copy_extra(m.data.vars.extra, start_key(selector_of(&m, id)), ix, out);
}

// Objective 0's coefficients and constant are the ordinary objective's.
void read_objn(kvr_model &m, AttrId id, IndexSet ix, double *out) {
  const ModelData &d = m.data;
  int k = selected_objn(m, id);
  if (k == 0) return copy_vec(id, d.vars.obj, ix, out);
  const ObjectiveN &o = d.objn[k];
  if (static_cast<size_t>(ix.len) * 8 < static_cast<size_t>(d.num_vars())) {
    fill(ix, out, [&](int i) {
      double c = 0.0;
      for (size_t t = 0; t < o.ind.size(); ++t)
        if (o.ind[t] == i) c += o.val[t];
      return c;
    });
    return;
  }
  std::vector<double> dense(static_cast<size_t>(d.num_vars()), 0.0);
  for (size_t t = 0; t < o.ind.size(); ++t) dense[o.ind[t]] += o.val[t];
  copy_vec(id, dense, ix, out);
}
double read_objn_con(kvr_model &m, AttrId id) {
  int k = selected_objn(m, id);
  return k == 0 ? m.data.objcon : m.data.objn[k].constant;
}
// A single-objective solve leaves no per-objective values: objective 0's is ObjVal.
double read_objn_val(kvr_model &m, AttrId id) {
  size_t k = static_cast<size_t>(selected_objn(m, id));
  return k < m.sol.objnval.size() ? m.sol.objnval[k] : m.sol.objval;
}
bool has_objn_val(kvr_model &m, AttrId id) {
  const Solution &s = m.sol;
  size_t k = static_cast<size_t>(selected_objn(m, id));
  if (k < s.objnval.size() && !std::isnan(s.objnval[k])) return true;
  return k == 0 && s.objnval.empty() && !std::isnan(s.objval);
}

namespace {

// Scenario results, one entry per scenario (NaN or empty when that scenario has none).
template <class T>
const T *scenario_result(kvr_model &m, AttrId id, const std::vector<T> &results) {
  size_t k = static_cast<size_t>(selected_scen(m, id));
  return k < results.size() ? &results[k] : nullptr;
}
template <auto Results>
double scenario_value(kvr_model &m, AttrId id) {
  const double *v = scenario_result(m, id, m.sol.*Results);
  if (!v) unavailable(id);
  return *v;
}
template <auto Results>
bool has_scenario_value(kvr_model &m, AttrId id) {
  const double *v = scenario_result(m, id, m.sol.*Results);
  return v && !std::isnan(*v);
}
}  // namespace

void read_scen_x(kvr_model &m, AttrId id, IndexSet ix, double *out) {
  const std::vector<double> *x = scenario_result(m, id, m.sol.scen_x);
  copy_vec(id, x ? *x : std::vector<double>(), ix, out);
}
bool has_scen_x(kvr_model &m, AttrId id) {
  const std::vector<double> *x = scenario_result(m, id, m.sol.scen_x);
  return x && !x->empty();
}
double read_scen_objval(kvr_model &m, AttrId id) {
  return scenario_value<&Solution::scen_objval>(m, id);
}
bool has_scen_objval(kvr_model &m, AttrId id) {
  return has_scenario_value<&Solution::scen_objval>(m, id);
}
double read_scen_objbound(kvr_model &m, AttrId id) {
  return scenario_value<&Solution::scen_objbound>(m, id);
}
bool has_scen_objbound(kvr_model &m, AttrId id) {
  return has_scenario_value<&Solution::scen_objbound>(m, id);
}

// Slacks: the solve's, else computed from the solution.
void read_slack(kvr_model &m, AttrId id, IndexSet ix, double *out) {
  m.sol.ensure_lp_values();
  const ModelData &d = m.data;
  const Solution &s = m.sol;
  if (!s.slack.empty()) return copy_vec(id, s.slack, ix, out);
  if (s.x.size() != static_cast<size_t>(d.num_vars())) unavailable(id);
  fill(ix, out, [&](int i) { return d.constrs.rhs[i] - d.constrs.rows.row_value(i, s.x.data()); });
}
bool has_slack(kvr_model &m, AttrId) {
  m.sol.ensure_lp_values();
  return !m.sol.slack.empty() || !m.sol.x.empty();
}
void read_qcslack(kvr_model &m, AttrId id, IndexSet ix, double *out) {
  const ModelData &d = m.data;
  const Solution &s = m.sol;
  if (!s.qcslack.empty()) return copy_vec(id, s.qcslack, ix, out);
  if (s.x.size() != static_cast<size_t>(d.num_vars())) unavailable(id);
  fill(ix, out, [&](int i) {
    const QConstr &qc = d.qconstrs.items[i];
    return qc.rhs - qc.value(s.x.data());
  });
}
bool has_qcslack(kvr_model &m, AttrId) { return !m.sol.qcslack.empty() || !m.sol.x.empty(); }

namespace {
// Convexity of a piecewise-linear function: slopes never decrease and there is no jump.
bool pwl_convex(const PwlObj &p) {
  double last_slope = -INFINITY;
  for (size_t k = 1; k < p.x.size(); ++k) {
    double dx = p.x[k] - p.x[k - 1];
    if (dx == 0.0) {
      if (p.y[k] != p.y[k - 1]) return false;
      continue;
    }
    double slope = (p.y[k] - p.y[k - 1]) / dx;
    if (slope < last_slope) return false;
    last_slope = slope;
  }
  return true;
}
}  // namespace

void read_pwl_convex(kvr_model &m, AttrId, IndexSet ix, double *out) {
  std::unordered_map<int, const PwlObj *> by_var;
  for (const PwlObj &p : m.data.pwlobj) by_var[p.var] = &p;
  fill(ix, out, [&](int i) {
    auto it = by_var.find(i);
    return it == by_var.end() || pwl_convex(*it->second) ? 1.0 : 0.0;
  });
}

}  // namespace kvr::computed
