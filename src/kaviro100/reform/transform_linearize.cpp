// The linearized model: products of a binary variable z with a variable w of finite bounds
// [L, U] become a new variable p = z * w, held exactly by
//   p <= U z,  p >= L z,  p <= w - L (1 - z),  p >= w - U (1 - z),
// quadratic constraints become linear rows, and the logical and piecewise-linear general
// constraints become rows with binaries through the rewriting stages the engines use.
#include <algorithm>
#include <map>
#include <utility>

#include "reform/internal.h"
#include "reform/transform.h"

namespace kvr {

namespace {

using reform::Builder;
using reform::Term;

class ProductLinearizer {
 public:
  ProductLinearizer(ModelData &out, const ModelData &user) : b_(out, user), u_(user) {}

  // The linear terms equal to v * x_a * x_b; `where` names the owner in messages.
  void add_term(int a, int b, double v, const std::string &where, std::vector<Term> &out) {
    if (a == b && reform::is_binary_var(u_, a)) {
      out.push_back({a, v});  // z * z = z
      return;
    }
    int z = reform::is_binary_var(u_, a) ? a : b;
    int w = z == a ? b : a;
    if (!reform::is_binary_var(u_, z))
      fail(KVR_ERROR_NOT_SUPPORTED,
           "Quadratic term %s*%s of %s cannot be linearized exactly: neither factor is binary",
           reform::var_name(u_, a).c_str(), reform::var_name(u_, b).c_str(), where.c_str());
    double lo = u_.vars.lb[w], hi = u_.vars.ub[w];
    const char t = u_.vars.vtype[w];
    if (t == KVR_BINARY) lo = std::max(lo, 0.0), hi = std::min(hi, 1.0);
    if (t == KVR_SEMICONT || t == KVR_SEMIINT) lo = std::min(lo, 0.0), hi = std::max(hi, 0.0);
    if (!reform::is_finite(lo) || !reform::is_finite(hi))
      fail(KVR_ERROR_NOT_SUPPORTED,
           "Quadratic term %s*%s of %s cannot be linearized exactly: %s has no finite %s bound",
           reform::var_name(u_, a).c_str(), reform::var_name(u_, b).c_str(), where.c_str(),
           reform::var_name(u_, w).c_str(), reform::is_finite(lo) ? "upper" : "lower");
    out.push_back({product(z, w, lo, hi), v});
  }

 private:
  int product(int z, int w, double lo, double hi) {
    auto key = std::make_pair(std::min(z, w), std::max(z, w));
    if (auto it = products_.find(key); it != products_.end()) return it->second;
    std::string name = reform::var_name(u_, z) + "_" + reform::var_name(u_, w);
    int p = b_.add_var(std::min(lo, 0.0), std::max(hi, 0.0), KVR_CONTINUOUS, name);
    b_.add_row({{p, 1.0}, {z, -hi}}, KVR_LESS_EQUAL, 0.0, name + "_mc0");
    b_.add_row({{p, 1.0}, {z, -lo}}, KVR_GREATER_EQUAL, 0.0, name + "_mc1");
    b_.add_row({{p, 1.0}, {w, -1.0}, {z, -lo}}, KVR_LESS_EQUAL, -lo, name + "_mc2");
    b_.add_row({{p, 1.0}, {w, -1.0}, {z, -hi}}, KVR_GREATER_EQUAL, -hi, name + "_mc3");
    products_.emplace(key, p);
    return p;
  }

 public:
  Builder b_;

 private:
  const ModelData &u_;
  std::map<std::pair<int, int>, int> products_;
};

// Quadratic objective and quadratic constraints made linear.
ModelData without_products(const ModelData &m) {
  ModelData out = m;
  out.set_q(QuadTerms{});
  out.clear_qconstrs();
  ProductLinearizer lin(out, m);
  std::vector<Term> terms;
  for (size_t k = 0; k < m.q.size(); ++k)
    lin.add_term(m.q.row[k], m.q.col[k], m.q.val[k], "the objective", terms);
  for (const Term &t : terms) out.add_obj(t.var, t.coef);
  for (int i = 0; i < m.qconstrs.size(); ++i) {
    const QConstr &qc = m.qconstrs.items[i];
    std::string name = reform::qconstr_name(m, i);
    terms.clear();
    for (size_t k = 0; k < qc.lind.size(); ++k) terms.push_back({qc.lind[k], qc.lval[k]});
    for (size_t k = 0; k < qc.q.size(); ++k)
      lin.add_term(qc.q.row[k], qc.q.col[k], qc.q.val[k], "quadratic constraint " + name, terms);
    lin.b_.add_row(terms, qc.sense, qc.rhs, name);
  }
  return out;
}

bool is_rewritten(int type) { return type <= KVR_GENCONSTR_PWL; }

ModelData linearized(const kvr_model &model) {
  ModelData lin = without_products(model.data);
  if (std::none_of(lin.gens.items.begin(), lin.gens.items.end(),
                   [](const GenConstr &g) { return is_rewritten(g.type); }))
    return lin;
  ModelData out = lin;
  Builder b(out, lin);
  reform::propagate_bounds(b, 8);
  const ParamValues &params = model.env.params;
  // Piecewise-linear constraints first: they bound y, which big-M values may need.
  for (int i = 0; i < lin.gens.size(); ++i)
    if (lin.gens.items[i].type == KVR_GENCONSTR_PWL) reform::rewrite_pwl_constraint(b, i, params);
  for (int i = 0; i < lin.gens.size(); ++i)
    if (lin.gens.items[i].type < KVR_GENCONSTR_PWL) reform::rewrite_logical(b, i, params);
  Renumbering keep(static_cast<size_t>(lin.gens.size()));
  int next = 0;
  for (int i = 0; i < lin.gens.size(); ++i)
    keep[i] = is_rewritten(lin.gens.items[i].type) ? -1 : next++;
  out.delete_gens(keep);
  return out;
}

}  // namespace

}  // namespace kvr

extern "C" {

int KVRlinearizemodel(KVRmodel *model, KVRmodel **resultP) {
  return kvr::derive_model(model, resultP, false,
                           [](const kvr_model &m) { return kvr::linearized(m); });
}

}  // extern "C"
