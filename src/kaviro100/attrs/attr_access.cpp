// Reading, checking and queueing attribute values through the attribute table: each attribute's
// reader (attrs/attr_read.inc, generated from attrs.tsv) is one of the generic readers below,
// chosen by where the value lives, or the functions of a computed attribute (attrs/computed.cpp).
// One availability check and one value check read the table's conditions and value rules.
#include "attrs/attr_access.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <type_traits>

#include "attrs/readers.h"
#include "model/checks.h"
#include "params/params.h"

namespace kvr {

[[noreturn]] void unavailable(AttrId id) {
  fail(KVR_ERROR_DATA_NOT_AVAILABLE, "Unable to retrieve attribute '%s'", attr_def(id).name);
}

[[noreturn]] void unavailable(AttrId id, const std::string &why) {
  fail(KVR_ERROR_DATA_NOT_AVAILABLE, "Unable to retrieve attribute '%s': %s", attr_def(id).name,
       why.c_str());
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

namespace {

using A = AttrId;
using namespace computed;

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

// ---------------------------------------------------------------- generic readers, by store

template <auto Field>
double model_field(kvr_model &m, AttrId) {
  return static_cast<double>(m.data.fields().*Field);
}
template <auto Field>
const std::string &model_text(kvr_model &m, AttrId) {
  return m.data.fields().*Field;
}

template <auto Part, auto Column>
void column(kvr_model &m, AttrId id, IndexSet ix, double *out) {
  copy_vec(id, (m.data.fields().*Part).*Column, ix, out);
}

template <auto Part, auto Field>
void item_field(kvr_model &m, AttrId, IndexSet ix, double *out) {
  const auto &items = (m.data.fields().*Part).items;
  fill(ix, out, [&](int i) { return static_cast<double>(items[i].*Field); });
}

template <auto Part>
const NamePool *names(const ModelData &d, AttrId) {
  return &(d.fields().*Part).names;
}

template <auto Part>
void extra_column(kvr_model &m, AttrId id, IndexSet ix, double *out) {
  copy_extra((m.data.fields().*Part).extra, static_cast<int>(id), ix, out);
}
template <auto Part>
const NamePool *extra_text(const ModelData &d, AttrId id) {
  const ExtraAttrs &ex = (d.fields().*Part).extra;
  auto it = ex.str.find(static_cast<int>(id));
  return it == ex.str.end() ? nullptr : &it->second;
}

template <auto Part, auto Vector>
void basis(kvr_model &m, AttrId id, IndexSet ix, double *out) {
  m.sol.ensure_basis();
  if (!(m.sol.*Vector).empty()) return copy_vec(id, m.sol.*Vector, ix, out);
  extra_column<Part>(m, id, ix, out);
}
template <auto Part, auto Vector>
bool has_basis(kvr_model &m, AttrId id) {
  m.sol.ensure_basis();
  return !(m.sol.*Vector).empty() || (m.data.fields().*Part).extra.num.count(static_cast<int>(id));
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
// Reduced costs and duals may still wait in the engine (X never does).
template <auto Vector>
void ensure_vector(kvr_model &m) {
  if constexpr (std::is_same_v<decltype(Vector), std::vector<double> Solution::*>)
    if constexpr (Vector == &Solution::rc || Vector == &Solution::pi) m.sol.ensure_lp_values();
}
template <auto Vector>
void solution_vector(kvr_model &m, AttrId id, IndexSet ix, double *out) {
  ensure_vector<Vector>(m);
  copy_vec(id, m.sol.*Vector, ix, out);
}
template <auto Vector>
bool has_vector(kvr_model &m, AttrId) {
  ensure_vector<Vector>(m);
  return !(m.sol.*Vector).empty();
}
template <auto Vector>
bool has_sensitivity(kvr_model &m, AttrId) {
  m.sol.ensure_sensitivity();  // the ranges are computed on first use
  return !(m.sol.*Vector).empty();
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
