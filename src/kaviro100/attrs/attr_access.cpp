#include "attrs/attr_access.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <optional>
#include <unordered_map>

#include "model/checks.h"
#include "params/params.h"

namespace kvr {
namespace {

using A = AttrId;

const char *type_word(AttrType t) {
  switch (t) {
    case AttrType::Char:
      return "char";
    case AttrType::Int:
      return "integer";
    case AttrType::Dbl:
      return "double";
    case AttrType::Str:
      return "string";
  }
  return "?";
}

const char *class_word(AttrClass c) {
  switch (c) {
    case AttrClass::Model:
      return "model";
    case AttrClass::Var:
      return "variable";
    case AttrClass::Constr:
      return "linear constraint";
    case AttrClass::Sos:
      return "SOS constraint";
    case AttrClass::QConstr:
      return "quadratic constraint";
    case AttrClass::GenConstr:
      return "general constraint";
    case AttrClass::Batch:
      return "batch";
  }
  return "?";
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

// Solution values held as one double each, NaN while absent.
const double *solution_value(const Solution &s, AttrId id) {
  switch (id) {
    case A::ObjVal:
      return &s.objval;
    case A::ObjBound:
      return &s.objbound;
    case A::ObjBoundC:
      return &s.objboundc;
    case A::PoolObjBound:
      return &s.pool_objbound;
    case A::MIPGap:
      return &s.mipgap;
    case A::FarkasProof:
      return &s.farkasproof;
    case A::Kappa:
      return &s.kappa;
    case A::KappaExact:
      return &s.kappa_exact;
    default:
      return nullptr;
  }
}

// Solution vectors that are available exactly when they are not empty.
const std::vector<double> *solution_vector(const Solution &s, AttrId id) {
  switch (id) {
    case A::X:
      return &s.x;
    case A::RC:
      return &s.rc;
    case A::BarX:
      return &s.barx;
    case A::UnbdRay:
      return &s.unbdray;
    case A::Pi:
      return &s.pi;
    case A::FarkasDual:
      return &s.farkasdual;
    case A::QCPi:
      return &s.qcpi;
    default:
      return nullptr;
  }
}

// Sensitivity ranges: computed on first use, never for models with discrete elements.
const std::vector<double> *sa_vector(const Solution &s, AttrId id) {
  switch (id) {
    case A::SAObjLow:
      return &s.saobjlow;
    case A::SAObjUp:
      return &s.saobjup;
    case A::SALBLow:
      return &s.salblow;
    case A::SALBUp:
      return &s.salbup;
    case A::SAUBLow:
      return &s.saublow;
    case A::SAUBUp:
      return &s.saubup;
    case A::SARHSLow:
      return &s.sarhslow;
    case A::SARHSUp:
      return &s.sarhsup;
    default:
      return nullptr;
  }
}

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

void append_generated(std::string &buf, const char *prefix, int i) {
  buf.append(prefix);
  char digits[16];
  auto [end, ec] = std::to_chars(digits, digits + sizeof digits, i);
  buf.append(digits, end);
}

int prospective(int current, int queued) { return std::max(current, queued); }

[[noreturn]] void bad_value(AttrId id, int elem, double v, const char *why) {
  const AttrDef &d = attr_def(id);
  if (d.cls == AttrClass::Model)
    fail(KVR_ERROR_INVALID_ARGUMENT, "Invalid value %g for attribute '%s': %s", v, d.name, why);
  fail(KVR_ERROR_INVALID_ARGUMENT, "Invalid value %g for attribute '%s' of %s %d: %s", v, d.name,
       class_word(d.cls), elem, why);
}

bool in_set(double v, std::initializer_list<int> allowed) {
  for (int a : allowed)
    if (v == a) return true;
  return false;
}

}  // namespace

double checked_attr_value(AttrId id, int elem, double v) {
  const AttrDef &d = attr_def(id);
  if (std::isnan(v)) bad_value(id, elem, v, "NaN is not a value");
  if (d.type == AttrType::Int && (v != std::floor(v) || std::fabs(v) > KVR_MAXINT))
    bad_value(id, elem, v, "an integer is required");
  switch (id) {
    case A::LB:
    case A::UB:
    case A::RHS:
    case A::QCRHS:
      return clip_infinite(v);
    case A::Obj:
    case A::ObjN:
    case A::ObjCon:
    case A::ObjNCon:
    case A::ObjNWeight:
      if (is_infinite(v))
        fail(KVR_ERROR_NUMERIC, "Infinite value for attribute '%s' (element %d): must be finite",
             d.name, elem);
      return v;
    case A::ScenNObj:
      if (v == KVR_UNDEFINED) return v;
      if (is_infinite(v))
        fail(KVR_ERROR_NUMERIC, "Infinite value for attribute '%s' (element %d): must be finite",
             d.name, elem);
      return v;
    case A::Start:
    case A::VarHintVal:
    case A::PStart:
    case A::DStart:
    case A::PreFixVal:
    case A::ScenNLB:
    case A::ScenNUB:
    case A::ScenNRHS:
      return v == KVR_UNDEFINED ? v : clip_infinite(v);
    case A::VType: {
      char t = static_cast<char>(v);
      if (v != static_cast<unsigned char>(t) && v != t) bad_value(id, elem, v, "not a type code");
      check_vtype(t, elem);
      return v;
    }
    case A::Sense:
    case A::QCSense:
      if (v < -128 || v > 255) bad_value(id, elem, v, "not a sense code");
      check_sense(static_cast<char>(v),
                  d.cls == AttrClass::Constr ? "constraint" : "quadratic constraint", elem);
      return static_cast<char>(v);
    case A::ModelSense:
      if (!in_set(v, {KVR_MINIMIZE, KVR_MAXIMIZE}))
        bad_value(id, elem, v, "use 1 (minimize) or -1 (maximize)");
      return v;
    case A::VBasis:
      if (!in_set(v, {KVR_BASIC, KVR_NONBASIC_LOWER, KVR_NONBASIC_UPPER, KVR_SUPERBASIC}))
        bad_value(id, elem, v, "a basis status is 0, -1, -2 or -3");
      return v;
    case A::CBasis:
      if (!in_set(v, {KVR_BASIC, KVR_NONBASIC_LOWER, KVR_NONBASIC_UPPER}))
        bad_value(id, elem, v, "a constraint basis status is 0, -1 or -2");
      return v;
    case A::IISLBForce:
    case A::IISUBForce:
    case A::IISConstrForce:
    case A::IISSOSForce:
    case A::IISQConstrForce:
    case A::IISGenConstrForce:
      if (!in_set(v, {-1, 0, 1})) bad_value(id, elem, v, "use -1 (automatic), 0 or 1");
      return v;
    case A::PoolIgnore:
      if (!in_set(v, {0, 1})) bad_value(id, elem, v, "use 0 or 1");
      return v;
    case A::Lazy:
      if (v < -1 || v > 3) bad_value(id, elem, v, "lazy levels are -1 to 3");
      return v;
    case A::NumStart:
    case A::NumScenarios:
      if (v < 0 || v > 1000000) bad_value(id, elem, v, "a count from 0 to 1000000 is required");
      return v;
    case A::NumObj:
      if (v < 1 || v > 1000000)
        bad_value(id, elem, v, "a model has 1 to 1000000 objectives (objective 0 always exists)");
      return v;
    case A::ObjNRelTol:
    case A::ObjNAbsTol:
      if (v < 0 || is_infinite(v)) bad_value(id, elem, v, "a finite tolerance >= 0 is required");
      return v;
    case A::FuncPieces:
      if (v < -3 || v > 200000000) bad_value(id, elem, v, "use -3 (the parameter) or -2 to 2e8");
      return v;
    case A::FuncPieceError:
      if (v != -1 && (v < 1e-6 || v > 1e6))
        bad_value(id, elem, v, "use -1 (the parameter) or 1e-6 to 1e6");
      return v;
    case A::FuncPieceLength:
      if (v != -1 && (v < 1e-5 || v > 1e6))
        bad_value(id, elem, v, "use -1 (the parameter) or 1e-5 to 1e6");
      return v;
    case A::FuncPieceRatio:
      if (v != -2 && (v < -1 || v > 1)) bad_value(id, elem, v, "use -2 (the parameter) or -1 to 1");
      return v;
    default:
      return v;  // priorities, partitions, hint priorities: any integer
  }
}

namespace {

// Resolves the selector of an attribute for a write and checks it against the counts that the
// model has or that queued changes ask for.
int write_selector(kvr_model *m, AttrId id) {
  if (!has_selector(id)) return -1;
  const PendingChanges &p = m->pending;
  int k = selector_of(m, id);
  const AttrDef &d = attr_def(id);
  if (id == A::Start) {
    if (k == -1) return m->data.numstart;  // a new start, created by the update
    int limit = std::max({m->data.numstart, p.start_limit, 1});
    if (k >= limit)
      fail(KVR_ERROR_INDEX_OUT_OF_RANGE,
           "Cannot set attribute 'Start': StartNumber %d is not below NumStart %d (set NumStart "
           "first, or StartNumber -1 for a new start)",
           k, limit);
    return k;
  }
  if (id == A::ScenNLB || id == A::ScenNUB || id == A::ScenNObj || id == A::ScenNRHS ||
      id == A::ScenNName) {
    int limit = prospective(static_cast<int>(m->data.scenarios.size()), p.scen_limit);
    if (k >= limit)
      fail(KVR_ERROR_INDEX_OUT_OF_RANGE,
           "Cannot set attribute '%s': ScenarioNumber %d is not below NumScenarios %d", d.name, k,
           limit);
    return k;
  }
  int limit = prospective(static_cast<int>(m->data.objn.size()), p.objn_limit);
  if (k >= limit)
    fail(KVR_ERROR_INDEX_OUT_OF_RANGE,
         "Cannot set attribute '%s': ObjNumber %d is not below NumObj %d", d.name, k, limit);
  return k;
}

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

// Read-side selector check for attributes of one objective or scenario.
int read_objn(kvr_model *m, AttrId id) {
  int k = selector_of(m, id);
  int n = static_cast<int>(m->data.objn.size());
  if (k >= n) unavailable(id, format("ObjNumber %d is not below NumObj %d", k, n));
  return k;
}

int read_scen(kvr_model *m, AttrId id) {
  int k = selector_of(m, id);
  int n = static_cast<int>(m->data.scenarios.size());
  if (k >= n) unavailable(id, format("ScenarioNumber %d is not below NumScenarios %d", k, n));
  return k;
}

// Objective k >= 1 as a dense vector over the variables.
std::vector<double> dense_objn(const ModelData &d, int k) {
  std::vector<double> c(static_cast<size_t>(d.num_vars()), 0.0);
  const ObjectiveN &o = d.objn[k];
  for (size_t t = 0; t < o.ind.size(); ++t) c[o.ind[t]] += o.val[t];
  return c;
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

namespace {
// The parameter that selects which objective, scenario, MIP start or pool solution an attribute
// refers to; none for the other attributes.
std::optional<ParamId> selector_param(AttrId id) {
  switch (id) {
    case A::ObjN:
    case A::ObjNCon:
    case A::ObjNPriority:
    case A::ObjNWeight:
    case A::ObjNRelTol:
    case A::ObjNAbsTol:
    case A::ObjNVal:
    case A::ObjNName:
      return ParamId::ObjNumber;
    case A::ScenNLB:
    case A::ScenNUB:
    case A::ScenNObj:
    case A::ScenNRHS:
    case A::ScenNName:
    case A::ScenNX:
    case A::ScenNObjBound:
    case A::ScenNObjVal:
      return ParamId::ScenarioNumber;
    case A::Start:
      return ParamId::StartNumber;
    case A::Xn:
    case A::PoolObjVal:
      return ParamId::SolutionNumber;
    default:
      return std::nullopt;
  }
}
}  // namespace

bool has_selector(AttrId id) { return selector_param(id).has_value(); }

int selector_of(const kvr_model *m, AttrId id) {
  return m->env.params.get_int(selector_param(id).value_or(ParamId::ObjNumber));
}

// ---------------------------------------------------------------- availability

void check_available(kvr_model *m, AttrId id) {
  const Solution &s = m->sol;
  const ModelData &d = m->data;
  auto need = [&](bool ok) {
    if (!ok) unavailable(id);
  };
  if (const double *v = solution_value(s, id)) return need(!std::isnan(*v));
  if (const std::vector<double> *v = solution_vector(s, id)) return need(!v->empty());
  switch (id) {
    case A::Slack:
      return need(!s.slack.empty() || !s.x.empty());
    case A::QCSlack:
      return need(!s.qcslack.empty() || !s.x.empty());
    case A::VarPreStat:
      return need(!s.varprestat.empty());
    case A::VBasis:
      return need(!s.vbasis.empty() || d.vars.extra.num.count(static_cast<int>(A::VBasis)));
    case A::CBasis:
      return need(!s.cbasis.empty() || d.constrs.extra.num.count(static_cast<int>(A::CBasis)));
    case A::SAObjLow:
    case A::SAObjUp:
    case A::SALBLow:
    case A::SALBUp:
    case A::SAUBLow:
    case A::SAUBUp:
    case A::SARHSLow:
    case A::SARHSUp:
      if (d.is_mip())
        fail(KVR_ERROR_NOT_FOR_MIP,
             "Unable to retrieve attribute '%s': sensitivity ranges do not exist for models with "
             "discrete elements",
             attr_def(id).name);
      m->sol.ensure_sensitivity();  // the ranges are computed on first use
      return need(!sa_vector(s, id)->empty());
    case A::IISLB:
    case A::IISUB:
    case A::IISConstr:
    case A::IISSOS:
    case A::IISQConstr:
    case A::IISGenConstr:
    case A::IISMinimal:
      if (!s.iis_available) unavailable(id, "no IIS has been computed");
      return;
    case A::Xn:
    case A::PoolObjVal: {
      int k = selector_of(m, id);
      if (k >= s.solcount())
        unavailable(id, format("SolutionNumber %d is not below SolCount %d", k, s.solcount()));
      if (id == A::PoolObjVal && s.pool_obj.size() <= static_cast<size_t>(k) &&
          (k > 0 || std::isnan(s.objval)))
        unavailable(id);
      return;
    }
    case A::ScenNX:
    case A::ScenNObjVal:
    case A::ScenNObjBound: {
      int k = read_scen(m, id);
      if (id == A::ScenNX) need(static_cast<size_t>(k) < s.scen_x.size() && !s.scen_x[k].empty());
      if (id == A::ScenNObjVal)
        need(static_cast<size_t>(k) < s.scen_objval.size() && !std::isnan(s.scen_objval[k]));
      if (id == A::ScenNObjBound)
        need(static_cast<size_t>(k) < s.scen_objbound.size() && !std::isnan(s.scen_objbound[k]));
      return;
    }
    case A::ScenNLB:
    case A::ScenNUB:
    case A::ScenNObj:
    case A::ScenNRHS:
    case A::ScenNName:
      read_scen(m, id);
      return;
    case A::ObjN:
    case A::ObjNCon:
    case A::ObjNPriority:
    case A::ObjNWeight:
    case A::ObjNRelTol:
    case A::ObjNAbsTol:
    case A::ObjNName:
      read_objn(m, id);
      return;
    case A::ObjNVal: {
      int k = read_objn(m, id);
      if (static_cast<size_t>(k) < s.objnval.size() && !std::isnan(s.objnval[k])) return;
      need(k == 0 && s.objnval.empty() && !std::isnan(s.objval));
      return;
    }
    case A::Start: {
      int k = selector_of(m, id);
      int limit = std::max(d.numstart, 1);
      if (k < 0 || k >= limit)
        unavailable(id,
                    format("StartNumber %d does not select one of the %d MIP starts", k, limit));
      return;
    }
    case A::Runtime:
    case A::Work:
    case A::IterCount:
    case A::NodeCount:
    case A::BarIterCount:
      return need(s.solved);
    case A::ConcurrentWinMethod:  // only a concurrent solve has a winner
      return need(s.solved && s.concurrent_win_method >= 0);
    default:
      if (is_quality(id)) check_quality_available(m, id);
      return;
  }
}

// ---------------------------------------------------------------- reads

double read_model_num(kvr_model *m, AttrId id) {
  const ModelData &d = m->data;
  const Solution &s = m->sol;
  if (is_statistic(id)) return statistic(m, id);
  if (is_quality(id)) return quality(m, id);
  if (const double *v = solution_value(s, id)) return *v;
  switch (id) {
    case A::ModelSense:
      return d.sense;
    case A::ObjCon:
      return d.objcon;
    case A::IISMinimal:
      return s.iis_minimal;
    case A::PoolObjVal: {
      size_t k = static_cast<size_t>(selector_of(m, id));
      return k < s.pool_obj.size() ? s.pool_obj[k] : s.objval;
    }
    case A::Runtime:
      return s.runtime;
    case A::Work:
      return s.work;
    case A::Status:
      return s.status;
    case A::SolCount:
      return s.solcount();
    case A::IterCount:
      return s.itercount;
    case A::NodeCount:
      return s.nodecount;
    case A::BarIterCount:
      return s.baritercount;
    case A::NumStart:
      return d.numstart;
    case A::TuneResultCount:
      return static_cast<int>(m->tune.sets.size());
    case A::Fingerprint:
      return fingerprint(m);
    case A::ConcurrentWinMethod:
      return s.concurrent_win_method;
    case A::ObjNCon: {
      int k = read_objn(m, id);
      return k == 0 ? d.objcon : d.objn[k].constant;
    }
    case A::ObjNPriority:
      return d.objn[read_objn(m, id)].priority;
    case A::ObjNWeight:
      return d.objn[read_objn(m, id)].weight;
    case A::ObjNRelTol:
      return d.objn[read_objn(m, id)].reltol;
    case A::ObjNAbsTol:
      return d.objn[read_objn(m, id)].abstol;
    case A::ObjNVal: {
      size_t k = static_cast<size_t>(read_objn(m, id));
      return k < s.objnval.size() ? s.objnval[k] : s.objval;
    }
    case A::NumObj:
      return static_cast<double>(d.objn.size());
    case A::ScenNObjBound:
      return s.scen_objbound[read_scen(m, id)];
    case A::ScenNObjVal:
      return s.scen_objval[read_scen(m, id)];
    case A::NumScenarios:
      return static_cast<double>(d.scenarios.size());
    default:
      fail(KVR_ERROR_INTERNAL, "Attribute '%s' has no reader", attr_def(id).name);
  }
}

const char *read_model_str(kvr_model *m, AttrId id) {
  std::string &buf = m->strbuf;
  switch (id) {
    case A::ModelName:
      buf = m->data.name;
      break;
    case A::ObjNName:
      buf = m->data.objn[read_objn(m, id)].name;
      break;
    case A::ScenNName:
      buf = m->data.scenarios[read_scen(m, id)].name;
      break;
    default:
      fail(KVR_ERROR_INTERNAL, "Attribute '%s' has no reader", attr_def(id).name);
  }
  return buf.c_str();
}

void read_elem_num(kvr_model *m, AttrId id, IndexSet ix, double *out) {
  const ModelData &d = m->data;
  const Solution &s = m->sol;
  if (const std::vector<double> *v = solution_vector(s, id)) return copy_vec(id, *v, ix, out);
  if (const std::vector<double> *v = sa_vector(s, id)) return copy_vec(id, *v, ix, out);
  switch (id) {
    // Variables.
    case A::LB:
      return copy_vec(id, d.vars.lb, ix, out);
    case A::UB:
      return copy_vec(id, d.vars.ub, ix, out);
    case A::Obj:
      return copy_vec(id, d.vars.obj, ix, out);
    case A::VarPreStat:
      return copy_vec(id, s.varprestat, ix, out);
    case A::Xn: {
      size_t k = static_cast<size_t>(selector_of(m, id));
      return copy_vec(id, k < s.pool_x.size() ? s.pool_x[k] : s.x, ix, out);
    }
    case A::VBasis:
      if (!s.vbasis.empty()) return copy_vec(id, s.vbasis, ix, out);
      return copy_extra(d.vars.extra, static_cast<int>(id), ix, out);
    case A::Start:
      return copy_extra(d.vars.extra, start_key(selector_of(m, id)), ix, out);
    case A::VarHintVal:
    case A::VarHintPri:
    case A::BranchPriority:
    case A::Partition:
    case A::PoolIgnore:
    case A::IISLBForce:
    case A::IISUBForce:
    case A::PStart:
    case A::PreFixVal:
      return copy_extra(d.vars.extra, static_cast<int>(id), ix, out);
    case A::IISLB:
      return copy_vec(id, s.iis_lb, ix, out);
    case A::IISUB:
      return copy_vec(id, s.iis_ub, ix, out);
    case A::PWLObjCvx: {
      std::unordered_map<int, const PwlObj *> by_var;
      for (const PwlObj &p : d.pwlobj) by_var[p.var] = &p;
      fill(ix, out, [&](int i) {
        auto it = by_var.find(i);
        return it == by_var.end() || pwl_convex(*it->second) ? 1.0 : 0.0;
      });
      return;
    }
    case A::ObjN: {
      int k = read_objn(m, id);
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
      return copy_vec(id, dense_objn(d, k), ix, out);
    }
    case A::ScenNLB:
    case A::ScenNUB:
    case A::ScenNObj: {
      const Scenario &sc = d.scenarios[read_scen(m, id)];
      const auto &map = id == A::ScenNLB ? sc.lb : id == A::ScenNUB ? sc.ub : sc.obj;
      fill(ix, out, [&](int i) {
        auto it = map.find(i);
        return it == map.end() ? KVR_UNDEFINED : it->second;
      });
      return;
    }
    case A::ScenNX:
      return copy_vec(id, s.scen_x[read_scen(m, id)], ix, out);

    // Linear constraints.
    case A::RHS:
      return copy_vec(id, d.constrs.rhs, ix, out);
    case A::Slack:
      if (!s.slack.empty()) return copy_vec(id, s.slack, ix, out);
      if (s.x.size() != static_cast<size_t>(d.num_vars())) unavailable(id);
      fill(ix, out,
           [&](int i) { return d.constrs.rhs[i] - d.constrs.rows.row_value(i, s.x.data()); });
      return;
    case A::CBasis:
      if (!s.cbasis.empty()) return copy_vec(id, s.cbasis, ix, out);
      return copy_extra(d.constrs.extra, static_cast<int>(id), ix, out);
    case A::IISConstr:
      return copy_vec(id, s.iis_constr, ix, out);
    case A::IISConstrForce:
    case A::DStart:
    case A::Lazy:
      return copy_extra(d.constrs.extra, static_cast<int>(id), ix, out);
    case A::ScenNRHS: {
      const Scenario &sc = d.scenarios[read_scen(m, id)];
      fill(ix, out, [&](int i) {
        auto it = sc.rhs.find(i);
        return it == sc.rhs.end() ? KVR_UNDEFINED : it->second;
      });
      return;
    }

    // SOS constraints.
    case A::IISSOS:
      return copy_vec(id, s.iis_sos, ix, out);
    case A::IISSOSForce:
      return copy_extra(d.sos.extra, static_cast<int>(id), ix, out);

    // Quadratic constraints.
    case A::QCRHS:
      fill(ix, out, [&](int i) { return d.qconstrs.items[i].rhs; });
      return;
    case A::QCSlack:
      if (!s.qcslack.empty()) return copy_vec(id, s.qcslack, ix, out);
      if (s.x.size() != static_cast<size_t>(d.num_vars())) unavailable(id);
      fill(ix, out, [&](int i) {
        const QConstr &qc = d.qconstrs.items[i];
        return qc.rhs - qc.value(s.x.data());
      });
      return;
    case A::IISQConstr:
      return copy_vec(id, s.iis_qconstr, ix, out);
    case A::IISQConstrForce:
      return copy_extra(d.qconstrs.extra, static_cast<int>(id), ix, out);

    // General constraints.
    case A::GenConstrType:
      fill(ix, out, [&](int i) { return static_cast<double>(d.gens.items[i].type); });
      return;
    case A::IISGenConstr:
      return copy_vec(id, s.iis_genconstr, ix, out);
    case A::IISGenConstrForce:
      return copy_extra(d.gens.extra, static_cast<int>(id), ix, out);
    case A::FuncPieces:
      fill(ix, out, [&](int i) { return static_cast<double>(d.gens.items[i].funcpieces); });
      return;
    case A::FuncPieceError:
      fill(ix, out, [&](int i) { return d.gens.items[i].funcpieceerror; });
      return;
    case A::FuncPieceLength:
      fill(ix, out, [&](int i) { return d.gens.items[i].funcpiecelength; });
      return;
    case A::FuncPieceRatio:
      fill(ix, out, [&](int i) { return d.gens.items[i].funcpieceratio; });
      return;
    default:
      fail(KVR_ERROR_INTERNAL, "Attribute '%s' has no reader", attr_def(id).name);
  }
}

void read_elem_char(kvr_model *m, AttrId id, IndexSet ix, char *out) {
  const ModelData &d = m->data;
  auto get = [&](auto &&f) {
    for (int k = 0; k < ix.len; ++k) out[k] = f(ix[k]);
  };
  switch (id) {
    case A::VType:
      return get([&](int i) { return d.vars.vtype[i]; });
    case A::Sense:
      return get([&](int i) { return d.constrs.sense[i]; });
    case A::QCSense:
      return get([&](int i) { return d.qconstrs.items[i].sense; });
    default:
      fail(KVR_ERROR_INTERNAL, "Attribute '%s' has no reader", attr_def(id).name);
  }
}

void read_elem_str(kvr_model *m, AttrId id, IndexSet ix, char **out) {
  const ModelData &d = m->data;
  const NamePool *pool = nullptr;
  const char *prefix = nullptr;  // unnamed elements read back as prefix + index
  switch (id) {
    case A::VarName:
      pool = &d.vars.names, prefix = "C";
      break;
    case A::ConstrName:
      pool = &d.constrs.names, prefix = "R";
      break;
    case A::QCName:
      pool = &d.qconstrs.names, prefix = "QC";
      break;
    case A::GenConstrName:
      pool = &d.gens.names, prefix = "GC";
      break;
    case A::VTag:
    case A::CTag:
    case A::QCTag: {
      const ExtraAttrs &ex = id == A::VTag   ? d.vars.extra
                             : id == A::CTag ? d.constrs.extra
                                             : d.qconstrs.extra;
      auto it = ex.str.find(static_cast<int>(id));
      pool = it == ex.str.end() ? nullptr : &it->second;
      break;
    }
    default:
      fail(KVR_ERROR_INTERNAL, "Attribute '%s' has no reader", attr_def(id).name);
  }
  std::string &buf = m->strbuf;
  buf.clear();
  std::vector<size_t> start(static_cast<size_t>(ix.len));
  for (int k = 0; k < ix.len; ++k) {
    const int i = ix[k];
    start[k] = buf.size();
    std::string_view name =
        pool && static_cast<size_t>(i) < pool->size() ? pool->get(i) : std::string_view();
    if (name.empty() && prefix)
      append_generated(buf, prefix, i);
    else
      buf.append(name);
    buf.push_back('\0');
  }
  for (int k = 0; k < ix.len; ++k) out[k] = buf.data() + start[k];
}

// ---------------------------------------------------------------- writes

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
  const size_t limit =
      id == A::VTag || id == A::CTag || id == A::QCTag ? KVR_MAX_TAGLEN : KVR_MAX_NAMELEN;
  for (int k = 0; k < ix.len; ++k) {
    if (!values[k])
      fail(KVR_ERROR_NULL_ARGUMENT, "No value given for attribute '%s' of %s %d", attr_def(id).name,
           class_word(attr_def(id).cls), ix[k]);
    if (std::string_view(values[k]).size() > limit)
      fail(KVR_ERROR_INVALID_ARGUMENT,
           "Value of attribute '%s' of %s %d is too long (at most %zu characters)",
           attr_def(id).name, class_word(attr_def(id).cls), ix[k], limit);
  }
  PendingChanges &p = m->pending;
  for (int k = 0; k < ix.len; ++k) {
    p.log.push_back(
        Change{ChangeKind::Attr, id, ix[k], -1, 0.0, static_cast<int64_t>(p.strings.size())});
    p.strings.push_back(values[k]);
  }
}

}  // namespace kvr
