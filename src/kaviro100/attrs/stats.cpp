// Model statistics (counts, coefficient ranges, model kind) and the model fingerprint, computed
// from the data as of the last update.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <map>
#include <string_view>

#include "attrs/attr_access.h"
#include "model/checks.h"

namespace kvr {
namespace {

using A = AttrId;

// Largest and smallest nonzero absolute value of a set of numbers (0 and 0 when there is none).
struct Range {
  double max = 0.0, min = 0.0;
  void add(double v) {
    v = std::fabs(v);
    if (v == 0.0) return;
    if (max == 0.0 || v > max) max = v;
    if (min == 0.0 || v < min) min = v;
  }
  template <class It>
  void add_all(It b, It e) {
    for (; b != e; ++b) add(*b);
  }
};

int count_nonzeros(const ModelData &d) {
  int64_t n = d.constrs.rows.nnz();
  if (n > KVR_MAXINT)
    fail(KVR_ERROR_EXCEED_2B_NONZEROS,
         "The constraint matrix has %lld nonzeros, more than an integer attribute holds: read "
         "DNumNZs",
         static_cast<long long>(n));
  return static_cast<int>(n);
}

Range range_of(const ModelData &d, AttrId id) {
  Range r;
  switch (id) {
    case A::MaxCoeff:
    case A::MinCoeff:
      r.add_all(d.constrs.rows.val.begin(), d.constrs.rows.val.end());
      break;
    case A::MaxBound:
    case A::MinBound:
      for (double b : d.vars.lb)
        if (!is_infinite(b)) r.add(b);
      for (double b : d.vars.ub)
        if (!is_infinite(b)) r.add(b);
      break;
    case A::MaxObjCoeff:
    case A::MinObjCoeff:
      r.add_all(d.vars.obj.begin(), d.vars.obj.end());
      break;
    case A::MaxRHS:
    case A::MinRHS:
      for (double b : d.constrs.rhs)
        if (!is_infinite(b)) r.add(b);
      break;
    case A::MaxQCRHS:
    case A::MinQCRHS:
      for (const QConstr &qc : d.qconstrs.items)
        if (!is_infinite(qc.rhs)) r.add(qc.rhs);
      break;
    case A::MaxQCCoeff:
    case A::MinQCCoeff:
      for (const QConstr &qc : d.qconstrs.items) r.add_all(qc.q.val.begin(), qc.q.val.end());
      break;
    case A::MaxQCLCoeff:
    case A::MinQCLCoeff:
      for (const QConstr &qc : d.qconstrs.items) r.add_all(qc.lval.begin(), qc.lval.end());
      break;
    case A::MaxQObjCoeff:
    case A::MinQObjCoeff:
      r.add_all(d.q.val.begin(), d.q.val.end());
      break;
    default:
      break;
  }
  return r;
}

bool is_max(AttrId id) {
  switch (id) {
    case A::MaxCoeff:
    case A::MaxBound:
    case A::MaxObjCoeff:
    case A::MaxRHS:
    case A::MaxQCRHS:
    case A::MaxQCCoeff:
    case A::MaxQCLCoeff:
    case A::MaxQObjCoeff:
      return true;
    default:
      return false;
  }
}

// FNV-1a over the bytes of the values fed to it; independent of addresses and of the order of
// hash-map iteration, so equal models give equal fingerprints in every run and every copy.
class Hasher {
 public:
  void bytes(const void *p, size_t n) {
    const unsigned char *c = static_cast<const unsigned char *>(p);
    for (size_t i = 0; i < n; ++i) h_ = (h_ ^ c[i]) * 1099511628211ULL;
  }
  void i64(int64_t v) { bytes(&v, sizeof v); }
  void dbl(double v) {
    if (v == 0.0) v = 0.0;  // -0.0 and 0.0 are the same value
    uint64_t u;
    std::memcpy(&u, &v, sizeof u);
    bytes(&u, sizeof u);
  }
  void str(std::string_view s) {
    i64(static_cast<int64_t>(s.size()));
    bytes(s.data(), s.size());
  }
  template <class T>
  void vec(const std::vector<T> &v) {
    i64(static_cast<int64_t>(v.size()));
    for (const T &x : v) {
      if constexpr (std::is_floating_point_v<T>)
        dbl(x);
      else
        i64(static_cast<int64_t>(x));
    }
  }
  void quad(const QuadTerms &q) { vec(q.row), vec(q.col), vec(q.val); }
  void map(const std::unordered_map<int, double> &m) {
    std::map<int, double> sorted(m.begin(), m.end());
    i64(static_cast<int64_t>(sorted.size()));
    for (auto [k, v] : sorted) i64(k), dbl(v);
  }
  uint64_t value() const { return h_; }

 private:
  uint64_t h_ = 14695981039346656037ULL;
};

// Parameters that only steer output, files or which element an attribute reads do not change the
// problem being solved and stay out of the fingerprint, as do the settings of remote services.
bool affects_solve(ParamId id) {
  switch (id) {
    case ParamId::OutputFlag:
    case ParamId::LogToConsole:
    case ParamId::LogFile:
    case ParamId::DisplayInterval:
    case ParamId::ObjNumber:
    case ParamId::ScenarioNumber:
    case ParamId::StartNumber:
    case ParamId::SolutionNumber:
    case ParamId::UpdateMode:
    case ParamId::Record:
    case ParamId::ResultFile:
    case ParamId::SolFiles:
    case ParamId::NodefileDir:
    case ParamId::JSONSolDetail:
      return false;
    default: {
      std::string_view group = param_def(id).group;
      return group != "computeserver" && group != "cloud" && group != "distributed";
    }
  }
}

}  // namespace

double statistic(kvr_model *m, AttrId id) {
  switch (id) {
    case A::NumConstrs:
      return shown_constrs(m);
    case A::NumVars:
      return shown_vars(m);
    default:
      break;
  }
  ModelData scratch;
  const ModelData &d = shown_data(m, scratch);
  switch (id) {
    case A::NumSOS:
      return d.sos.size();
    case A::NumQConstrs:
      return d.qconstrs.size();
    case A::NumGenConstrs:
      return d.gens.size();
    case A::NumNZs:
      return count_nonzeros(d);
    case A::DNumNZs:
      return static_cast<double>(d.constrs.rows.nnz());
    case A::NumQNZs:
      return static_cast<double>(d.q.size());
    case A::NumQCNZs: {
      double n = 0;
      for (const QConstr &qc : d.qconstrs.items) n += static_cast<double>(qc.q.size());
      return n;
    }
    case A::NumIntVars:
      return static_cast<double>(std::count_if(
          d.vars.vtype.begin(), d.vars.vtype.end(),
          [](char t) { return t == KVR_INTEGER || t == KVR_BINARY || t == KVR_SEMIINT; }));
    case A::NumBinVars:
      return static_cast<double>(std::count(d.vars.vtype.begin(), d.vars.vtype.end(), KVR_BINARY));
    case A::NumPWLObjVars:
      return static_cast<double>(d.pwlobj.size());
    case A::IsMIP:
      return d.is_mip() ? 1 : 0;
    case A::IsQP:
      return d.q.size() > 0 ? 1 : 0;
    case A::IsQCP:
      return d.qconstrs.size() > 0 ? 1 : 0;
    case A::IsMultiObj:
      return d.objn.size() > 1 ? 1 : 0;
    default: {
      Range r = range_of(d, id);
      return is_max(id) ? r.max : r.min;
    }
  }
}

int fingerprint(const kvr_model *m) {
  const ModelData &d = m->data;
  Hasher h;
  h.i64(d.sense);
  h.dbl(d.objcon);
  h.vec(d.vars.lb), h.vec(d.vars.ub), h.vec(d.vars.obj), h.vec(d.vars.vtype);
  h.vec(d.constrs.rows.beg), h.vec(d.constrs.rows.ind), h.vec(d.constrs.rows.val);
  h.vec(d.constrs.sense), h.vec(d.constrs.rhs);
  h.quad(d.q);
  for (const QConstr &qc : d.qconstrs.items) {
    h.vec(qc.lind), h.vec(qc.lval), h.quad(qc.q);
    h.i64(qc.sense), h.dbl(qc.rhs);
  }
  h.vec(d.sos.type), h.vec(d.sos.beg), h.vec(d.sos.ind), h.vec(d.sos.weight);
  for (const GenConstr &g : d.gens.items) {
    h.i64(g.type), h.i64(g.resvar), h.vec(g.vars), h.dbl(g.constant);
    h.i64(g.binvar), h.i64(g.binval), h.vec(g.ind), h.vec(g.val), h.i64(g.sense), h.dbl(g.rhs);
    h.i64(g.xvar), h.i64(g.yvar), h.vec(g.xpts), h.vec(g.ypts), h.vec(g.p), h.dbl(g.a);
    h.i64(g.funcpieces), h.dbl(g.funcpieceerror), h.dbl(g.funcpiecelength);
    h.dbl(g.funcpieceratio);
  }
  for (const ObjectiveN &o : d.objn) {
    h.vec(o.ind), h.vec(o.val), h.dbl(o.constant), h.i64(o.priority);
    h.dbl(o.weight), h.dbl(o.abstol), h.dbl(o.reltol);
  }
  for (const PwlObj &p : d.pwlobj) h.i64(p.var), h.vec(p.x), h.vec(p.y);
  for (const Scenario &s : d.scenarios) h.map(s.lb), h.map(s.ub), h.map(s.obj), h.map(s.rhs);
  for (int i = 0; i < param_count(); ++i) {
    ParamId id = static_cast<ParamId>(i);
    if (!affects_solve(id) || m->env.params.is_default(id)) continue;
    h.str(param_def(id).name);
    h.str(m->env.params.value_text(id));
  }
  uint64_t v = h.value();
  return static_cast<int32_t>(static_cast<uint32_t>(v ^ (v >> 32)));
}

}  // namespace kvr
