// Solution quality: violations and residuals of the current solution, computed from the model data
// and the solution vectors on each query. The library keeps no scaling, so the scaled forms equal
// the unscaled ones.
//
// Index conventions: bound and integrality indices are variable indices; constraint violations
// index linear constraints first and then quadratic constraints (NumConstrs + k); dual violations
// and complementarity index variables first and then linear constraints (NumVars + i). An index
// is -1 when nothing is violated.
#include <algorithm>
#include <cmath>

#include "attrs/attr_access.h"
#include "model/checks.h"

namespace kvr {
namespace {

using A = AttrId;

struct Worst {
  double max = 0.0, sum = 0.0;
  int index = -1;
  void add(double v, int i) {
    if (!(v > 0.0)) return;
    sum += v;
    if (v > max) max = v, index = i;
  }
};

enum class Kind { Bound, Constr, Residual, Int, Dual, DualResidual, Compl, Max };
enum class Form { Max, Index, Sum };

struct QualityAttr {
  Kind kind;
  Form form;
};

bool describe(AttrId id, QualityAttr &q) {
  switch (id) {
    case A::MaxVio:
      q = {Kind::Max, Form::Max};
      return true;
    case A::BoundVio:
    case A::BoundSVio:
      q = {Kind::Bound, Form::Max};
      return true;
    case A::BoundVioIndex:
    case A::BoundSVioIndex:
      q = {Kind::Bound, Form::Index};
      return true;
    case A::BoundVioSum:
    case A::BoundSVioSum:
      q = {Kind::Bound, Form::Sum};
      return true;
    case A::ConstrVio:
    case A::ConstrSVio:
      q = {Kind::Constr, Form::Max};
      return true;
    case A::ConstrVioIndex:
    case A::ConstrSVioIndex:
      q = {Kind::Constr, Form::Index};
      return true;
    case A::ConstrVioSum:
    case A::ConstrSVioSum:
      q = {Kind::Constr, Form::Sum};
      return true;
    case A::ConstrResidual:
    case A::ConstrSResidual:
      q = {Kind::Residual, Form::Max};
      return true;
    case A::ConstrResidualIndex:
    case A::ConstrSResidualIndex:
      q = {Kind::Residual, Form::Index};
      return true;
    case A::ConstrResidualSum:
    case A::ConstrSResidualSum:
      q = {Kind::Residual, Form::Sum};
      return true;
    case A::DualVio:
    case A::DualSVio:
      q = {Kind::Dual, Form::Max};
      return true;
    case A::DualVioIndex:
    case A::DualSVioIndex:
      q = {Kind::Dual, Form::Index};
      return true;
    case A::DualVioSum:
    case A::DualSVioSum:
      q = {Kind::Dual, Form::Sum};
      return true;
    case A::DualResidual:
    case A::DualSResidual:
      q = {Kind::DualResidual, Form::Max};
      return true;
    case A::DualResidualIndex:
    case A::DualSResidualIndex:
      q = {Kind::DualResidual, Form::Index};
      return true;
    case A::DualResidualSum:
    case A::DualSResidualSum:
      q = {Kind::DualResidual, Form::Sum};
      return true;
    case A::ComplVio:
      q = {Kind::Compl, Form::Max};
      return true;
    case A::ComplVioIndex:
      q = {Kind::Compl, Form::Index};
      return true;
    case A::ComplVioSum:
      q = {Kind::Compl, Form::Sum};
      return true;
    case A::IntVio:
      q = {Kind::Int, Form::Max};
      return true;
    case A::IntVioIndex:
      q = {Kind::Int, Form::Index};
      return true;
    case A::IntVioSum:
      q = {Kind::Int, Form::Sum};
      return true;
    default:
      return false;
  }
}

bool semi(char t) { return t == KVR_SEMICONT || t == KVR_SEMIINT; }

Worst bound_violations(const ModelData &d, const std::vector<double> &x) {
  Worst w;
  for (int j = 0; j < d.num_vars(); ++j) {
    double v = std::max({d.vars.lb[j] - x[j], x[j] - d.vars.ub[j], 0.0});
    if (semi(d.vars.vtype[j])) v = std::min(v, std::fabs(x[j]));  // zero is always allowed
    w.add(v, j);
  }
  return w;
}

double row_violation(char sense, double activity, double rhs) {
  if (sense == KVR_LESS_EQUAL) return activity - rhs;
  if (sense == KVR_GREATER_EQUAL) return rhs - activity;
  return std::fabs(activity - rhs);
}

Worst constr_violations(const ModelData &d, const std::vector<double> &x) {
  Worst w;
  const SparseMatrix &a = d.constrs.rows;
  for (int i = 0; i < d.num_constrs(); ++i) {
    w.add(row_violation(d.constrs.sense[i], a.row_value(i, x.data()), d.constrs.rhs[i]), i);
  }
  for (int k = 0; k < d.qconstrs.size(); ++k) {
    const QConstr &qc = d.qconstrs.items[k];
    w.add(row_violation(qc.sense, qc.value(x.data()), qc.rhs), d.num_constrs() + k);
  }
  return w;
}

Worst residuals(const ModelData &d, const std::vector<double> &x,
                const std::vector<double> &slack) {
  Worst w;
  const SparseMatrix &a = d.constrs.rows;
  for (int i = 0; i < d.num_constrs(); ++i) {
    w.add(std::fabs(d.constrs.rhs[i] - a.row_value(i, x.data()) - slack[i]), i);
  }
  return w;
}

Worst int_violations(const ModelData &d, const std::vector<double> &x) {
  Worst w;
  for (int j = 0; j < d.num_vars(); ++j) {
    char t = d.vars.vtype[j];
    if (t != KVR_INTEGER && t != KVR_BINARY && t != KVR_SEMIINT) continue;
    w.add(std::fabs(x[j] - std::round(x[j])), j);
  }
  return w;
}

// Sign conditions of the duals, for minimization (maximization flips the signs): a positive
// reduced cost needs a finite lower bound, a negative one a finite upper bound; the dual of a
// '<' row is at most 0, that of a '>' row at least 0.
Worst dual_violations(const ModelData &d, const Solution &s) {
  Worst w;
  const double dir = d.sense == KVR_MAXIMIZE ? -1.0 : 1.0;
  for (int j = 0; j < d.num_vars(); ++j) {
    double rc = dir * s.rc[j];
    double v = 0.0;
    if (rc > 0 && is_infinite(d.vars.lb[j])) v = rc;
    if (rc < 0 && is_infinite(d.vars.ub[j])) v = -rc;
    w.add(v, j);
  }
  for (int i = 0; i < d.num_constrs(); ++i) {
    double pi = dir * s.pi[i];
    double v = 0.0;
    if (d.constrs.sense[i] == KVR_LESS_EQUAL) v = pi;
    if (d.constrs.sense[i] == KVR_GREATER_EQUAL) v = -pi;
    w.add(v, d.num_vars() + i);
  }
  return w;
}

// |gradient_j - a_j' pi - rc_j| per variable.
Worst dual_residuals(kvr_model *m) {
  const ModelData &d = m->data;
  const Solution &s = m->sol;
  std::vector<double> g(d.vars.obj);
  for (size_t t = 0; t < d.q.size(); ++t) {
    int r = d.q.row[t], c = d.q.col[t];
    g[r] += d.q.val[t] * s.x[c];
    g[c] += d.q.val[t] * s.x[r];
  }
  const SparseMatrix &cols = column_view(m);
  Worst w;
  for (int j = 0; j < d.num_vars(); ++j) {
    double api = 0.0;
    for (int64_t k = cols.beg[j]; k < cols.beg[j + 1]; ++k) api += cols.val[k] * s.pi[cols.ind[k]];
    w.add(std::fabs(g[j] - api - s.rc[j]), j);
  }
  return w;
}

Worst complementarity(const ModelData &d, const Solution &s) {
  Worst w;
  for (int j = 0; j < d.num_vars(); ++j) {
    double dist = std::min(is_infinite(d.vars.lb[j]) ? INFINITY : std::fabs(s.x[j] - d.vars.lb[j]),
                           is_infinite(d.vars.ub[j]) ? INFINITY : std::fabs(d.vars.ub[j] - s.x[j]));
    if (std::isfinite(dist)) w.add(std::fabs(s.rc[j]) * dist, j);
  }
  const SparseMatrix &a = d.constrs.rows;
  for (int i = 0; i < d.num_constrs(); ++i) {
    double act = 0.0;
    for (int64_t k = a.beg[i]; k < a.beg[i + 1]; ++k) act += a.val[k] * s.x[a.ind[k]];
    w.add(std::fabs(s.pi[i]) * std::fabs(d.constrs.rhs[i] - act), d.num_vars() + i);
  }
  return w;
}

bool sized(const std::vector<double> &v, int n) { return v.size() == static_cast<size_t>(n); }

}  // namespace

bool quality_available(kvr_model *m, AttrId id) {
  QualityAttr q{Kind::Max, Form::Max};
  describe(id, q);
  m->sol.ensure_lp_values();
  const ModelData &d = m->data;
  const Solution &s = m->sol;
  bool ok = sized(s.x, d.num_vars());
  if (q.kind == Kind::Residual) ok = ok && sized(s.slack, d.num_constrs());
  if (q.kind == Kind::Dual || q.kind == Kind::DualResidual || q.kind == Kind::Compl)
    ok = ok && sized(s.pi, d.num_constrs()) && sized(s.rc, d.num_vars());
  return ok;
}

double quality(kvr_model *m, AttrId id) {
  QualityAttr q{Kind::Max, Form::Max};
  describe(id, q);
  m->sol.ensure_lp_values();
  const ModelData &d = m->data;
  const Solution &s = m->sol;
  Worst w;
  switch (q.kind) {
    case Kind::Bound:
      w = bound_violations(d, s.x);
      break;
    case Kind::Constr:
      w = constr_violations(d, s.x);
      break;
    case Kind::Residual:
      w = residuals(d, s.x, s.slack);
      break;
    case Kind::Int:
      w = int_violations(d, s.x);
      break;
    case Kind::Dual:
      w = dual_violations(d, s);
      break;
    case Kind::DualResidual:
      w = dual_residuals(m);
      break;
    case Kind::Compl:
      w = complementarity(d, s);
      break;
    case Kind::Max:
      return std::max({bound_violations(d, s.x).max, constr_violations(d, s.x).max,
                       int_violations(d, s.x).max});
  }
  return q.form == Form::Max ? w.max : q.form == Form::Sum ? w.sum : w.index;
}

}  // namespace kvr
