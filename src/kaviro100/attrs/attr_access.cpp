// Reading, checking and queueing attribute values through the attribute table: each attribute's
// reader (attrs/attr_read.inc, generated from attrs.tsv) is one of the generic readers below,
// chosen by where the value lives, or a small function of its own for computed values.
#include "attrs/attr_access.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <type_traits>
#include <unordered_map>

#include "model/checks.h"
#include "params/params.h"

namespace kvr {
namespace {

using A = AttrId;

const char *type_word(AttrType t) {
  static const char *const words[] = {"char", "integer", "double", "string"};
  return words[static_cast<int>(t)];
}

const char *class_word(AttrClass c) {
  static const char *const words[] = {"model",
                                      "variable",
                                      "linear constraint",
                                      "SOS constraint",
                                      "quadratic constraint",
                                      "general constraint",
                                      "batch"};
  return words[static_cast<int>(c)];
}

[[noreturn]] void unavailable(AttrId id) {
  fail(KVR_ERROR_DATA_NOT_AVAILABLE, "Unable to retrieve attribute '%s'", attr_def(id).name);
}

[[noreturn]] void unavailable(AttrId id, const std::string &why) {
  fail(KVR_ERROR_DATA_NOT_AVAILABLE, "Unable to retrieve attribute '%s': %s", attr_def(id).name,
       why.c_str());
}

int max_index(IndexSet ix) {
  if (ix.len == 0) return -1;
  if (!ix.list) return ix.first + ix.len - 1;
  return *std::max_element(ix.list, ix.list + ix.len);
}

template <class F>
void fill(IndexSet ix, double *out, F &&f) {
  if (ix.list) {
    for (int k = 0; k < ix.len; ++k) out[k] = f(ix.list[k]);
  } else {
    for (int k = 0; k < ix.len; ++k) out[k] = f(ix.first + k);
  }
}

template <class T>
void copy_vec(AttrId id, const std::vector<T> &v, IndexSet ix, double *out) {
  if (ix.len == 0) return;  // nothing asked, nothing missing: also on a model without elements
  if (v.empty()) unavailable(id);
  if (max_index(ix) >= static_cast<int>(v.size())) unavailable(id);
  const T *p = v.data();
  fill(ix, out, [p](int i) { return static_cast<double>(p[i]); });
}

void copy_extra(const ExtraAttrs &ex, int key, IndexSet ix, double *out) {
  auto it = ex.num.find(key);
  const double def = extra_default(key);
  if (it == ex.num.end()) {
    std::fill(out, out + ix.len, def);
    return;
  }
  const std::vector<double> &col = it->second;
  fill(ix, out, [&](int i) { return static_cast<size_t>(i) < col.size() ? col[i] : def; });
}

// Read-side selector checks: the selected objective or scenario must exist.
int selected_objn(kvr_model &m, AttrId id) {
  int k = selector_of(&m, id);
  int n = static_cast<int>(m.data.objn.size());
  if (k >= n) unavailable(id, format("ObjNumber %d is not below NumObj %d", k, n));
  return k;
}

int selected_scen(kvr_model &m, AttrId id) {
  int k = selector_of(&m, id);
  int n = static_cast<int>(m.data.scenarios.size());
  if (k >= n) unavailable(id, format("ScenarioNumber %d is not below NumScenarios %d", k, n));
  return k;
}

// ---------------------------------------------------------------- generic readers, by store

template <auto Field>
double model_field(kvr_model &m, AttrId) {
  return static_cast<double>(m.data.*Field);
}
template <auto Field>
const std::string &model_text(kvr_model &m, AttrId) {
  return m.data.*Field;
}

template <auto Part, auto Column>
void column(kvr_model &m, AttrId id, IndexSet ix, double *out) {
  copy_vec(id, (m.data.*Part).*Column, ix, out);
}

template <auto Part, auto Field>
void item_field(kvr_model &m, AttrId, IndexSet ix, double *out) {
  const auto &items = (m.data.*Part).items;
  fill(ix, out, [&](int i) { return static_cast<double>(items[i].*Field); });
}

template <auto Part>
const NamePool *names(const ModelData &d, AttrId) {
  return &(d.*Part).names;
}

template <auto Part>
void extra_column(kvr_model &m, AttrId id, IndexSet ix, double *out) {
  copy_extra((m.data.*Part).extra, static_cast<int>(id), ix, out);
}
template <auto Part>
const NamePool *extra_text(const ModelData &d, AttrId id) {
  const ExtraAttrs &ex = (d.*Part).extra;
  auto it = ex.str.find(static_cast<int>(id));
  return it == ex.str.end() ? nullptr : &it->second;
}

template <auto Part, auto Vector>
void basis(kvr_model &m, AttrId id, IndexSet ix, double *out) {
  if (!(m.sol.*Vector).empty()) return copy_vec(id, m.sol.*Vector, ix, out);
  extra_column<Part>(m, id, ix, out);
}
template <auto Part, auto Vector>
bool has_basis(kvr_model &m, AttrId id) {
  return !(m.sol.*Vector).empty() || (m.data.*Part).extra.num.count(static_cast<int>(id));
}

template <auto Field>
double objective_field(kvr_model &m, AttrId id) {
  return static_cast<double>(m.data.objn[selected_objn(m, id)].*Field);
}
template <auto Field>
const std::string &objective_text(kvr_model &m, AttrId id) {
  return m.data.objn[selected_objn(m, id)].*Field;
}

// Scenario values not given are KVR_UNDEFINED (the base model's value applies).
template <auto Map>
void scenario_map(kvr_model &m, AttrId id, IndexSet ix, double *out) {
  const auto &map = m.data.scenarios[selected_scen(m, id)].*Map;
  fill(ix, out, [&](int i) {
    auto it = map.find(i);
    return it == map.end() ? KVR_UNDEFINED : it->second;
  });
}
template <auto Field>
const std::string &scenario_text(kvr_model &m, AttrId id) {
  return m.data.scenarios[selected_scen(m, id)].*Field;
}

template <auto Field>
double solution_scalar(kvr_model &m, AttrId) {
  return static_cast<double>(m.sol.*Field);
}
template <auto Field>
bool has_scalar(kvr_model &m, AttrId) {
  return !std::isnan(static_cast<double>(m.sol.*Field));
}
template <auto Vector>
void solution_vector(kvr_model &m, AttrId id, IndexSet ix, double *out) {
  copy_vec(id, m.sol.*Vector, ix, out);
}
template <auto Vector>
bool has_vector(kvr_model &m, AttrId) {
  return !(m.sol.*Vector).empty();
}
template <auto Vector>
bool has_sensitivity(kvr_model &m, AttrId) {
  m.sol.ensure_sensitivity();  // the ranges are computed on first use
  return !(m.sol.*Vector).empty();
}

// ---------------------------------------------------------------- computed values

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

// Scenario results, one entry per scenario (NaN or empty when that scenario has none).
template <class T>
const T *scenario_result(kvr_model &m, AttrId id, const std::vector<T> &results) {
  size_t k = static_cast<size_t>(selected_scen(m, id));
  return k < results.size() ? &results[k] : nullptr;
}
void read_scen_x(kvr_model &m, AttrId id, IndexSet ix, double *out) {
  const std::vector<double> *x = scenario_result(m, id, m.sol.scen_x);
  copy_vec(id, x ? *x : std::vector<double>(), ix, out);
}
bool has_scen_x(kvr_model &m, AttrId id) {
  const std::vector<double> *x = scenario_result(m, id, m.sol.scen_x);
  return x && !x->empty();
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
constexpr auto read_scen_objval = scenario_value<&Solution::scen_objval>;
constexpr auto has_scen_objval = has_scenario_value<&Solution::scen_objval>;
constexpr auto read_scen_objbound = scenario_value<&Solution::scen_objbound>;
constexpr auto has_scen_objbound = has_scenario_value<&Solution::scen_objbound>;

// Slacks: the solve's, else computed from the solution.
void read_slack(kvr_model &m, AttrId id, IndexSet ix, double *out) {
  const ModelData &d = m.data;
  const Solution &s = m.sol;
  if (!s.slack.empty()) return copy_vec(id, s.slack, ix, out);
  if (s.x.size() != static_cast<size_t>(d.num_vars())) unavailable(id);
  fill(ix, out, [&](int i) { return d.constrs.rhs[i] - d.constrs.rows.row_value(i, s.x.data()); });
}
bool has_slack(kvr_model &m, AttrId) { return !m.sol.slack.empty() || !m.sol.x.empty(); }
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
void read_pwl_convex(kvr_model &m, AttrId, IndexSet ix, double *out) {
  std::unordered_map<int, const PwlObj *> by_var;
  for (const PwlObj &p : m.data.pwlobj) by_var[p.var] = &p;
  fill(ix, out, [&](int i) {
    auto it = by_var.find(i);
    return it == by_var.end() || pwl_convex(*it->second) ? 1.0 : 0.0;
  });
}

// ---------------------------------------------------------------- the readers

// How one attribute is read: numbers of the model or of elements (char codes too), strings of the
// model or of elements; has_value tells whether the store holds a value (kNeedsValue).
struct AttrReader {
  double (*model)(kvr_model &, AttrId) = nullptr;
  void (*elems)(kvr_model &, AttrId, IndexSet, double *) = nullptr;
  const std::string &(*text)(kvr_model &, AttrId) = nullptr;
  const NamePool *(*names)(const ModelData &, AttrId) = nullptr;
  const char *prefix = nullptr;  // unnamed elements read back as prefix + index
  bool (*has_value)(kvr_model &, AttrId) = nullptr;
};

const AttrReader kReaders[] = {
#include "attrs/attr_read.inc"
};
static_assert(std::size(kReaders) == static_cast<size_t>(AttrId::Count));

const AttrReader &reader(AttrId id) { return kReaders[static_cast<size_t>(id)]; }

[[noreturn]] void no_reader(AttrId id) {
  fail(KVR_ERROR_INTERNAL, "Attribute '%s' has no reader", attr_def(id).name);
}

void append_generated(std::string &buf, const char *prefix, int i) {
  buf.append(prefix);
  char digits[16];
  auto [end, ec] = std::to_chars(digits, digits + sizeof digits, i);
  buf.append(digits, end);
}

ParamId selector_param(AttrSelector s) {
  switch (s) {
    case AttrSelector::ScenarioNumber:
      return ParamId::ScenarioNumber;
    case AttrSelector::StartNumber:
      return ParamId::StartNumber;
    case AttrSelector::SolutionNumber:
      return ParamId::SolutionNumber;
    default:
      return ParamId::ObjNumber;
  }
}

// The selector picks an existing objective, scenario, MIP start or pool solution.
void check_selected(kvr_model *m, AttrId id) {
  const int k = selector_of(m, id);
  switch (attr_def(id).selector) {
    case AttrSelector::ObjNumber:
      selected_objn(*m, id);
      return;
    case AttrSelector::ScenarioNumber:
      selected_scen(*m, id);
      return;
    case AttrSelector::StartNumber: {
      int limit = std::max(m->data.numstart, 1);
      if (k < 0 || k >= limit)
        unavailable(id,
                    format("StartNumber %d does not select one of the %d MIP starts", k, limit));
      return;
    }
    case AttrSelector::SolutionNumber:
      if (k >= m->sol.solcount())
        unavailable(id, format("SolutionNumber %d is not below SolCount %d", k, m->sol.solcount()));
      return;
    case AttrSelector::None:
      return;
  }
}

}  // namespace

// ---------------------------------------------------------------- names, forms, indices

AttrId lookup_attr(const char *name) {
  if (!name) fail(KVR_ERROR_NULL_ARGUMENT, "No attribute name given");
  AttrId id = find_attr(name);
  if (id == AttrId::Count) fail(KVR_ERROR_UNKNOWN_ATTRIBUTE, "Unknown attribute '%s'", name);
  return id;
}

void check_attr_form(AttrId id, AttrType type, bool element) {
  const AttrDef &d = attr_def(id);
  if (d.cls == AttrClass::Batch)
    fail(KVR_ERROR_INVALID_ARGUMENT, "Attribute '%s' is a batch attribute, not a model attribute",
         d.name);
  bool is_element = d.cls != AttrClass::Model;
  if (is_element && !element)
    fail(KVR_ERROR_INVALID_ARGUMENT,
         "Attribute '%s' is a %s attribute, not a model attribute: use an element, array or list "
         "form",
         d.name, class_word(d.cls));
  if (!is_element && element)
    fail(KVR_ERROR_INVALID_ARGUMENT,
         "Attribute '%s' is a model attribute, not an element attribute: use the model form",
         d.name);
  if (d.type != type)
    fail(KVR_ERROR_INVALID_ARGUMENT, "Attribute '%s' is a%s %s %s attribute, not a%s %s attribute",
         d.name, d.type == AttrType::Int ? "n" : "", type_word(d.type), class_word(d.cls),
         type == AttrType::Int ? "n" : "", type_word(type));
}

int element_count(const kvr_model *m, AttrClass cls) {
  switch (cls) {
    case AttrClass::Var:
      return m->data.num_vars();
    case AttrClass::Constr:
      return m->data.num_constrs();
    case AttrClass::Sos:
      return m->data.sos.size();
    case AttrClass::QConstr:
      return m->data.qconstrs.size();
    case AttrClass::GenConstr:
      return m->data.gens.size();
    default:
      return 0;
  }
}

void check_indices(const kvr_model *m, AttrId id, IndexSet ix) {
  const AttrDef &d = attr_def(id);
  const int n = element_count(m, d.cls);
  if (ix.len < 0)
    fail(KVR_ERROR_INVALID_ARGUMENT, "Negative length %d for attribute '%s'", ix.len, d.name);
  if (ix.list) {
    for (int k = 0; k < ix.len; ++k)
      if (ix.list[k] < 0 || ix.list[k] >= n)
        fail(KVR_ERROR_INDEX_OUT_OF_RANGE,
             "Index %d (entry %d of the list) out of range for attribute '%s': the model has %d "
             "%ss",
             ix.list[k], k, d.name, n, class_word(d.cls));
  } else if (ix.first < 0 || static_cast<long long>(ix.first) + ix.len > n) {
    if (ix.len == 1)
      fail(KVR_ERROR_INDEX_OUT_OF_RANGE,
           "Index %d out of range for attribute '%s': the model has %d %ss", ix.first, d.name, n,
           class_word(d.cls));
    fail(KVR_ERROR_INDEX_OUT_OF_RANGE,
         "Range of %d elements from %d out of range for attribute '%s': the model has %d %ss",
         ix.len, ix.first, d.name, n, class_word(d.cls));
  }
}

bool has_selector(AttrId id) { return attr_def(id).selector != AttrSelector::None; }

int selector_of(const kvr_model *m, AttrId id) {
  return m->env.params.get_int(selector_param(attr_def(id).selector));
}

// ---------------------------------------------------------------- availability

void check_available(kvr_model *m, AttrId id) {
  const AttrDef &d = attr_def(id);
  const Solution &s = m->sol;
  auto state = [&](bool ok) {
    if (ok) return;
    if (d.missing_why)
      fail(d.missing_code, "Unable to retrieve attribute '%s': %s", d.name, d.missing_why);
    fail(d.missing_code, "Unable to retrieve attribute '%s'", d.name);
  };
  if (d.needs & kNeedsSolved) state(s.solved);
  if (d.needs & kNeedsIis) state(s.iis_available);
  if (d.needs & kNeedsContinuous) state(!m->data.is_mip());
  if (d.needs & kNeedsSelected) check_selected(m, id);
  if ((d.needs & kNeedsValue) && !reader(id).has_value(*m, id)) unavailable(id);
}

// ---------------------------------------------------------------- reads

double read_model_num(kvr_model *m, AttrId id) {
  if (!reader(id).model) no_reader(id);
  return reader(id).model(*m, id);
}

const char *read_model_str(kvr_model *m, AttrId id) {
  if (!reader(id).text) no_reader(id);
  m->strbuf = reader(id).text(*m, id);
  return m->strbuf.c_str();
}

void read_elem_num(kvr_model *m, AttrId id, IndexSet ix, double *out) {
  if (!reader(id).elems) no_reader(id);
  reader(id).elems(*m, id, ix, out);
}

void read_elem_char(kvr_model *m, AttrId id, IndexSet ix, char *out) {
  std::vector<double> codes(static_cast<size_t>(ix.len));
  read_elem_num(m, id, ix, codes.data());
  for (int k = 0; k < ix.len; ++k) out[k] = static_cast<char>(static_cast<int>(codes[k]));
}

void read_elem_str(kvr_model *m, AttrId id, IndexSet ix, char **out) {
  const AttrReader &r = reader(id);
  if (!r.names) no_reader(id);
  const NamePool *pool = r.names(m->data, id);
  std::string &buf = m->strbuf;
  buf.clear();
  std::vector<size_t> start(static_cast<size_t>(ix.len));
  for (int k = 0; k < ix.len; ++k) {
    const int i = ix[k];
    start[k] = buf.size();
    std::string_view name =
        pool && static_cast<size_t>(i) < pool->size() ? pool->get(i) : std::string_view();
    if (name.empty() && r.prefix)
      append_generated(buf, r.prefix, i);
    else
      buf.append(name);
    buf.push_back('\0');
  }
  for (int k = 0; k < ix.len; ++k) out[k] = buf.data() + start[k];
}

// ---------------------------------------------------------------- values

namespace {

[[noreturn]] void bad_value(AttrId id, int elem, double v, const char *why) {
  const AttrDef &d = attr_def(id);
  if (d.cls == AttrClass::Model)
    fail(KVR_ERROR_INVALID_ARGUMENT, "Invalid value %g for attribute '%s': %s", v, d.name, why);
  fail(KVR_ERROR_INVALID_ARGUMENT, "Invalid value %g for attribute '%s' of %s %d: %s", v, d.name,
       class_word(d.cls), elem, why);
}

}  // namespace

double checked_attr_value(AttrId id, int elem, double v) {
  const AttrDef &d = attr_def(id);
  const AttrValueRule &r = d.values;
  if (std::isnan(v)) bad_value(id, elem, v, "NaN is not a value");
  if (d.type == AttrType::Int && (v != std::floor(v) || std::fabs(v) > KVR_MAXINT))
    bad_value(id, elem, v, "an integer is required");
  if ((r.words & AttrValueRule::kUndefined) && v == KVR_UNDEFINED) return v;
  if (r.words & AttrValueRule::kBound) return clip_infinite(v);
  if ((r.words & AttrValueRule::kFinite) && is_infinite(v))
    fail(KVR_ERROR_NUMERIC, "Infinite value for attribute '%s' (element %d): must be finite",
         d.name, elem);
  if (r.words & AttrValueRule::kVType) {
    char t = static_cast<char>(v);
    if (v != static_cast<unsigned char>(t) && v != t) bad_value(id, elem, v, "not a type code");
    check_vtype(t, elem);
  }
  if (r.words & AttrValueRule::kSense) {
    if (v < -128 || v > 255) bad_value(id, elem, v, "not a sense code");
    check_sense(static_cast<char>(v),
                d.cls == AttrClass::Constr ? "constraint" : "quadratic constraint", elem);
    return static_cast<char>(v);
  }
  if (r.npoints == 0 && !r.has_range) return v;
  if (std::find(r.points, r.points + r.npoints, v) != r.points + r.npoints) return v;
  if (r.has_range && v >= r.lo && (r.hi_open ? v < r.hi : v <= r.hi)) return v;
  bad_value(id, elem, v, r.invalid);
}

// ---------------------------------------------------------------- writes

namespace {

// Resolves the selector of an attribute for a write and checks it against the counts that the
// model has or that queued changes ask for.
int write_selector(kvr_model *m, AttrId id) {
  const AttrDef &d = attr_def(id);
  const PendingChanges &p = m->pending;
  const int k = has_selector(id) ? selector_of(m, id) : -1;
  switch (d.selector) {
    case AttrSelector::StartNumber: {
      if (k == -1) return m->data.numstart;  // a new start, created by the update
      int limit = std::max({m->data.numstart, p.start_limit, 1});
      if (k >= limit)
        fail(KVR_ERROR_INDEX_OUT_OF_RANGE,
             "Cannot set attribute 'Start': StartNumber %d is not below NumStart %d (set NumStart "
             "first, or StartNumber -1 for a new start)",
             k, limit);
      return k;
    }
    case AttrSelector::ScenarioNumber: {
      int limit = std::max(static_cast<int>(m->data.scenarios.size()), p.scen_limit);
      if (k >= limit)
        fail(KVR_ERROR_INDEX_OUT_OF_RANGE,
             "Cannot set attribute '%s': ScenarioNumber %d is not below NumScenarios %d", d.name, k,
             limit);
      return k;
    }
    case AttrSelector::ObjNumber: {
      int limit = std::max(static_cast<int>(m->data.objn.size()), p.objn_limit);
      if (k >= limit)
        fail(KVR_ERROR_INDEX_OUT_OF_RANGE,
             "Cannot set attribute '%s': ObjNumber %d is not below NumObj %d", d.name, k, limit);
      return k;
    }
    default:
      return k;
  }
}

// Counts that queued writes ask for, so that selectors up to them are accepted before the update.
void note_limits(kvr_model *m, AttrId id, int sub, double v) {
  PendingChanges &p = m->pending;
  if (id == A::NumObj) p.objn_limit = std::max(p.objn_limit, static_cast<int>(v));
  if (id == A::NumScenarios) p.scen_limit = std::max(p.scen_limit, static_cast<int>(v));
  if (id == A::NumStart) p.start_limit = std::max(p.start_limit, static_cast<int>(v));
  if (id == A::Start) p.start_limit = std::max(p.start_limit, sub + 1);
}

void check_settable(AttrId id) {
  const AttrDef &d = attr_def(id);
  if (!d.settable)
    fail(KVR_ERROR_INVALID_ARGUMENT, "Attribute '%s' is read-only: it cannot be set", d.name);
}

}  // namespace

void write_model_num(kvr_model *m, AttrId id, double value) {
  check_settable(id);
  int sub = write_selector(m, id);
  double v = checked_attr_value(id, -1, value);
  m->pending.log.push_back(Change{ChangeKind::Attr, id, -1, sub, v, 0});
  note_limits(m, id, sub, v);
}

void write_model_str(kvr_model *m, AttrId id, const char *value) {
  check_settable(id);
  if (!value) fail(KVR_ERROR_NULL_ARGUMENT, "No value given for attribute '%s'", attr_def(id).name);
  int sub = write_selector(m, id);
  if (std::string_view(value).size() > KVR_MAX_NAMELEN)
    fail(KVR_ERROR_INVALID_ARGUMENT, "Value of attribute '%s' is too long (at most %d characters)",
         attr_def(id).name, KVR_MAX_NAMELEN);
  PendingChanges &p = m->pending;
  p.log.push_back(
      Change{ChangeKind::Attr, id, -1, sub, 0.0, static_cast<int64_t>(p.strings.size())});
  p.strings.push_back(value);
}

void write_elem_num(kvr_model *m, AttrId id, IndexSet ix, const double *values) {
  check_settable(id);
  check_indices(m, id, ix);
  int sub = write_selector(m, id);
  // All values are checked before any is queued.
  std::vector<double> stored(values, values + ix.len);
  for (int k = 0; k < ix.len; ++k) stored[k] = checked_attr_value(id, ix[k], values[k]);
  PendingChanges &p = m->pending;
  p.log.reserve(p.log.size() + static_cast<size_t>(ix.len));
  for (int k = 0; k < ix.len; ++k)
    p.log.push_back(Change{ChangeKind::Attr, id, ix[k], sub, stored[k], 0});
  if (ix.len > 0) note_limits(m, id, sub, 0.0);
}

void write_elem_str(kvr_model *m, AttrId id, IndexSet ix, const char *const *values) {
  check_settable(id);
  check_indices(m, id, ix);
  const AttrDef &d = attr_def(id);
  // Tags (extra string columns) may be longer than names.
  const size_t limit = d.store == AttrStore::Extra ? KVR_MAX_TAGLEN : KVR_MAX_NAMELEN;
  for (int k = 0; k < ix.len; ++k) {
    if (!values[k])
      fail(KVR_ERROR_NULL_ARGUMENT, "No value given for attribute '%s' of %s %d", d.name,
           class_word(d.cls), ix[k]);
    if (std::string_view(values[k]).size() > limit)
      fail(KVR_ERROR_INVALID_ARGUMENT,
           "Value of attribute '%s' of %s %d is too long (at most %zu characters)", d.name,
           class_word(d.cls), ix[k], limit);
  }
  PendingChanges &p = m->pending;
  for (int k = 0; k < ix.len; ++k) {
    p.log.push_back(
        Change{ChangeKind::Attr, id, ix[k], -1, 0.0, static_cast<int64_t>(p.strings.size())});
    p.strings.push_back(values[k]);
  }
}

}  // namespace kvr
