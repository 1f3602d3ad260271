// The LP dual of a continuous linear model. For min c'x + c0 subject to rows a_i x (sense) b_i and
// bounds l <= x <= u the dual is
//   max b'y + sum_j l_j zl_j + sum_j u_j zu_j + c0   subject to   A'y + zl + zu = c,
// with y_i >= 0 for >= rows, y_i <= 0 for <= rows, y_i free for equalities, zl_j >= 0 where l_j is
// finite and zu_j <= 0 where u_j is finite. A maximization is first negated (min -c'x - c0), and
// its dual is stated as the minimization of the negated dual objective, so that the dual model's
// optimal value is always the primal's.
#include "model/checks.h"
#include "reform/internal.h"
#include "reform/transform.h"

namespace kvr {

namespace {

void check_linear_program(const ModelData &m) {
  for (int j = 0; j < m.num_vars(); ++j)
    if (m.vars.vtype[j] != KVR_CONTINUOUS)
      fail(KVR_ERROR_NOT_FOR_MIP,
           "Unable to create the dual model: variable %s is not continuous (type '%c')",
           reform::var_name(m, j).c_str(), m.vars.vtype[j]);
  if (m.sos.size() > 0)
    fail(KVR_ERROR_NOT_FOR_MIP, "Unable to create the dual model: the model has SOS constraints");
  if (m.gens.size() > 0)
    fail(KVR_ERROR_NOT_FOR_MIP,
         "Unable to create the dual model: the model has general constraints (%s is one)",
         reform::gen_name(m, 0).c_str());
  const char *other = m.q.size() > 0          ? "a quadratic objective"
                      : m.qconstrs.size() > 0 ? "quadratic constraints"
                      : m.objn.size() > 1     ? "several objectives"
                      : !m.pwlobj.empty()     ? "a piecewise-linear objective"
                      : !m.scenarios.empty()  ? "scenarios"
                                              : nullptr;
  if (other)
    fail(KVR_ERROR_NOT_SUPPORTED,
         "Unable to create the dual model: only linear programs have one, and the model has %s",
         other);
}

ModelData dual_of(const ModelData &p) {
  check_linear_program(p);
  const int n = p.num_vars(), m = p.num_constrs();
  // Primal stated as a minimization.
  const double flip = p.sense == KVR_MAXIMIZE ? -1.0 : 1.0;

  // Dual objective D (to be maximized); the dual model minimizes -D for a maximization primal,
  // else maximizes D.
  ModelData d;
  d.set_model_name(p.name);
  d.set_objsense(p.sense == KVR_MAXIMIZE ? KVR_MINIMIZE : KVR_MAXIMIZE);
  const double out = p.sense == KVR_MAXIMIZE ? -1.0 : 1.0;  // D -> the dual model's objective
  d.set_objcon(out * flip * p.objcon);

  auto add_var = [&](double lb, double ub, double obj, const std::string &name) {
    return d.add_var(lb, ub, out * obj, KVR_CONTINUOUS, name);
  };
  for (int i = 0; i < m; ++i) {
    char s = p.constrs.sense[i];
    double lb = s == KVR_LESS_EQUAL ? -KVR_INFINITY : 0.0;
    double ub = s == KVR_GREATER_EQUAL ? KVR_INFINITY : 0.0;
    if (s == KVR_EQUAL) lb = -KVR_INFINITY, ub = KVR_INFINITY;
    add_var(lb, ub, p.constrs.rhs[i], reform::constr_name(p, i));
  }
  // Column j of the primal is row j of the dual: the column view gives it directly.
  SparseMatrix cols = p.constrs.rows.transposed(n);
  std::vector<int> ind;
  std::vector<double> val;
  for (int j = 0; j < n; ++j) {
    ind.assign(cols.ind.begin() + cols.beg[j], cols.ind.begin() + cols.beg[j + 1]);
    val.assign(cols.val.begin() + cols.beg[j], cols.val.begin() + cols.beg[j + 1]);
    std::string name = reform::var_name(p, j);
    if (!is_infinite(p.vars.lb[j])) {
      ind.push_back(add_var(0.0, KVR_INFINITY, p.vars.lb[j], "lb_" + name));
      val.push_back(1.0);
    }
    if (!is_infinite(p.vars.ub[j])) {
      ind.push_back(add_var(-KVR_INFINITY, 0.0, p.vars.ub[j], "ub_" + name));
      val.push_back(1.0);
    }
    d.add_constr(ind, val, KVR_EQUAL, flip * p.vars.obj[j], name);
  }
  return d;
}

}  // namespace

}  // namespace kvr

extern "C" {

int KVRdualmodel(KVRmodel *model, KVRmodel **resultP) {
  return kvr::derive_model(model, resultP, true,
                           [](const kvr_model &m) { return kvr::dual_of(m.data); });
}

}  // extern "C"
