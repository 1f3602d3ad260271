// The presolved model: fixed variables substituted out, rows with one entry turned into bounds,
// empty rows checked and dropped, repeated until nothing changes. Every reduction keeps the set
// of optimal values, so the reduced model has the optimal value of the original.
#include <cmath>
#include <vector>

#include "model/checks.h"
#include "reform/internal.h"
#include "reform/transform.h"

namespace kvr {

namespace {

class Presolve {
 public:
  Presolve(const ModelData &m, double feastol) : d_(m), tol_(feastol) {}

  // Runs the reductions; false when they prove the model infeasible (reason() says why).
  bool run();
  const std::string &reason() const { return reason_; }
  // The reduced data (call after run() returned true).
  ModelData result();

 private:
  void protect_references();
  bool integral(int j) const {
    char t = d_.vars.vtype[j];
    return t == KVR_INTEGER || t == KVR_BINARY;
  }
  bool drop_empty_row(int i);
  bool bound_from_singleton(int i, int j, double a);
  void substitute(int j);
  bool check_bounds(int j);
  int live_entries(int i, int *last, double *coef) const;

  ModelData d_;
  double tol_;
  std::string reason_;
  std::vector<bool> keep_var_, keep_row_, var_gone_, row_gone_;
  SparseMatrix cols_;
};

void Presolve::protect_references() {
  const int n = d_.num_vars(), m = d_.num_constrs();
  keep_var_.assign(n, false);
  keep_row_.assign(m, false);
  auto keep = [&](int j) {
    if (j >= 0 && j < n) keep_var_[j] = true;
  };
  for (size_t k = 0; k < d_.q.size(); ++k) keep(d_.q.row[k]), keep(d_.q.col[k]);
  for (const QConstr &qc : d_.qconstrs.items) {
    for (int j : qc.lind) keep(j);
    for (size_t k = 0; k < qc.q.size(); ++k) keep(qc.q.row[k]), keep(qc.q.col[k]);
  }
  for (int j : d_.sos.ind) keep(j);
  for (const GenConstr &g : d_.gens.items) {
    for (int j : g.vars) keep(j);
    for (int j : g.ind) keep(j);
    for (int j : {g.resvar, g.binvar, g.xvar, g.yvar}) keep(j);
  }
  for (size_t k = 1; k < d_.objn.size(); ++k)
    for (int j : d_.objn[k].ind) keep(j);
  for (const PwlObj &p : d_.pwlobj) keep(p.var);
  for (const Scenario &s : d_.scenarios) {
    for (const auto *map : {&s.lb, &s.ub, &s.obj})
      for (const auto &entry : *map) keep(entry.first);
    for (const auto &entry : s.rhs) keep_row_[entry.first] = true;
  }
  // A scenario replaces the right-hand side of such a row: nothing may be moved into it.
  const SparseMatrix &rows = d_.constrs.rows;
  for (int i = 0; i < m; ++i)
    if (keep_row_[i])
      for (int64_t k = rows.beg[i]; k < rows.beg[i + 1]; ++k) keep(rows.ind[k]);
  // Bounds of semi-continuous variables do not bound them alone: leave them untouched.
  for (int j = 0; j < n; ++j)
    if (d_.vars.vtype[j] == KVR_SEMICONT || d_.vars.vtype[j] == KVR_SEMIINT) keep_var_[j] = true;
}

int Presolve::live_entries(int i, int *last, double *coef) const {
  const SparseMatrix &rows = d_.constrs.rows;
  int count = 0;
  for (int64_t k = rows.beg[i]; k < rows.beg[i + 1]; ++k) {
    if (var_gone_[rows.ind[k]] || rows.val[k] == 0.0) continue;
    ++count;
    *last = rows.ind[k];
    *coef = rows.val[k];
  }
  return count;
}

bool Presolve::drop_empty_row(int i) {
  double b = d_.constrs.rhs[i];
  char s = d_.constrs.sense[i];
  bool ok = (s == KVR_LESS_EQUAL && b >= -tol_) || (s == KVR_GREATER_EQUAL && b <= tol_) ||
            (s == KVR_EQUAL && std::fabs(b) <= tol_);
  if (!ok) {
    reason_ = format("row %s reads 0 %c= %s", reform::constr_name(d_, i).c_str(), s,
                     reform::num(b).c_str());
    return false;
  }
  row_gone_[i] = true;
  return true;
}

bool Presolve::check_bounds(int j) {
  double lb = d_.vars.lb[j], ub = d_.vars.ub[j];
  if (integral(j)) {
    if (!is_infinite(lb)) lb = std::ceil(lb - tol_);
    if (!is_infinite(ub)) ub = std::floor(ub + tol_);
  }
  d_.set_bounds(j, lb, ub);
  if (lb > ub + tol_) {
    reason_ = format("variable %s has bounds [%s, %s]", reform::var_name(d_, j).c_str(),
                     reform::num(lb).c_str(), reform::num(ub).c_str());
    return false;
  }
  if (lb > ub) d_.set_bounds(j, 0.5 * (lb + ub), 0.5 * (lb + ub));  // crossed within the tolerance
  return true;
}

bool Presolve::bound_from_singleton(int i, int j, double a) {
  double v = d_.constrs.rhs[i] / a;
  char s = d_.constrs.sense[i];
  if (a < 0 && s != KVR_EQUAL) s = s == KVR_LESS_EQUAL ? KVR_GREATER_EQUAL : KVR_LESS_EQUAL;
  double lb = d_.vars.lb[j], ub = d_.vars.ub[j];
  if (d_.vars.vtype[j] == KVR_BINARY) lb = std::max(lb, 0.0), ub = std::min(ub, 1.0);
  if (s != KVR_LESS_EQUAL && v > lb) lb = v;
  if (s != KVR_GREATER_EQUAL && v < ub) ub = v;
  d_.set_bounds(j, lb, ub);
  row_gone_[i] = true;
  return check_bounds(j);
}

// x_j is fixed: its column moves into the right-hand sides and the objective constant.
void Presolve::substitute(int j) {
  double v = d_.vars.lb[j];
  for (int64_t k = cols_.beg[j]; k < cols_.beg[j + 1]; ++k) {
    int i = cols_.ind[k];
    if (!row_gone_[i]) d_.set_rhs(i, d_.constrs.rhs[i] - cols_.val[k] * v);
  }
  d_.set_objcon(d_.objcon + d_.vars.obj[j] * v);
  var_gone_[j] = true;
}

bool Presolve::run() {
  protect_references();
  const int n = d_.num_vars(), m = d_.num_constrs();
  var_gone_.assign(n, false);
  row_gone_.assign(m, false);
  cols_ = d_.constrs.rows.transposed(n);
  for (int j = 0; j < n; ++j)
    if (!keep_var_[j] && !check_bounds(j)) return false;
  for (bool changed = true; changed;) {
    changed = false;
    for (int j = 0; j < n; ++j) {
      if (var_gone_[j] || keep_var_[j] || d_.vars.lb[j] != d_.vars.ub[j]) continue;
      if (is_infinite(d_.vars.lb[j])) continue;
      substitute(j);
      changed = true;
    }
    for (int i = 0; i < m; ++i) {
      if (row_gone_[i] || keep_row_[i]) continue;
      int j = -1;
      double a = 0.0;
      int count = live_entries(i, &j, &a);
      if (count == 0) {
        if (!drop_empty_row(i)) return false;
        changed = true;
      } else if (count == 1 && !keep_var_[j]) {
        if (!bound_from_singleton(i, j, a)) return false;
        changed = true;
      }
    }
  }
  return true;
}

ModelData Presolve::result() {
  Renumbering varpos(var_gone_.size()), rowpos(row_gone_.size());
  int next = 0;
  for (size_t j = 0; j < varpos.size(); ++j) varpos[j] = var_gone_[j] ? -1 : next++;
  next = 0;
  for (size_t i = 0; i < rowpos.size(); ++i) rowpos[i] = row_gone_[i] ? -1 : next++;
  d_.delete_constrs(rowpos);
  d_.delete_vars(varpos);
  return std::move(d_);
}

// A model that states the infeasibility found: one variable fixed at 0 and the row x >= 1.
ModelData infeasible_model(const ModelData &m) {
  ModelData d;
  d.set_model_name(m.name);
  d.set_objsense(m.sense);
  const int column = d.add_var(0.0, 0.0, 0.0, KVR_CONTINUOUS, "Infeasible");
  const double one = 1.0;
  d.add_constr(1, &column, &one, KVR_GREATER_EQUAL, 1.0, "Infeasible");
  return d;
}

ModelData presolved(kvr_model &model) {
  Presolve p(model.data, model.env.params.get_dbl(ParamId::FeasibilityTol));
  if (p.run()) return p.result();
  model.env.logf("Presolve: the model is infeasible (%s)\n", p.reason().c_str());
  return infeasible_model(model.data);
}

}  // namespace

}  // namespace kvr

extern "C" {

int KVRpresolvemodel(KVRmodel *model, KVRmodel **resultP) {
  return kvr::derive_model(model, resultP, true, [](kvr_model &m) { return kvr::presolved(m); });
}

}  // extern "C"
