#include "engine/outer_approx.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <numbers>

#include "reform/internal.h"
#include "reform/psd.h"
#include "util/error.h"

namespace kvr {
namespace {

// sum val[k] x[ind[k]] + constant.
struct Affine {
  std::vector<int> ind;
  std::vector<double> val;
  double constant = 0.0;
  double linear_at(const double *x) const {
    double v = 0.0;
    for (size_t k = 0; k < ind.size(); ++k) v += val[k] * x[ind[k]];
    return v;
  }
  double at(const double *x) const { return constant + linear_at(x); }
};

// Directions and points along them are compared with this relative tolerance.
constexpr double kRayTol = 1e-9;

double max_abs(const double *v, size_t n) {
  double m = 0.0;
  for (size_t j = 0; j < n; ++j) m = std::max(m, std::fabs(v[j]));
  return m;
}

// Cuts keep the scale of their constraint, so that the engine's feasibility tolerance on a cut
// matches the violation the approximation measures; only extreme coefficients are scaled down
// (the dual weight follows).
constexpr double kLargestCoefficient = 1e6;
void normalize(LinRow &row) {
  double m = max_abs(row.val.data(), row.val.size()) / kLargestCoefficient;
  if (m <= 1.0) return;
  for (double &v : row.val) v /= m;
  row.rhs /= m;
  row.dual_weight /= m;
}

}  // namespace

// One constraint in <= form: g(x) = x'Qx + lin'x - b <= 0 (a >= constraint is negated).
struct OuterApprox::Constraint {
  int index = 0;
  double sign = 1.0;      // -1 when the model states the constraint as >=
  std::vector<int> vars;  // the variables it involves, sorted
  // Terms over positions in vars.
  std::vector<int> qa, qb;
  std::vector<double> qv;
  std::vector<int> li;
  std::vector<double> lv;
  double b = 0.0;
  bool radial = false;  // no linear terms and b > 0: cut at the radial projection
  // Conic form ||r(x)|| <= y(x) with ||r||^2 - y^2 = kappa * g (over model variables).
  bool conic = false;
  std::vector<Affine> r;
  Affine y;
  double kappa = 1.0;

  void load(const double *x, std::vector<double> &local) const {
    local.resize(vars.size());
    for (size_t i = 0; i < vars.size(); ++i) local[i] = x[vars[i]];
  }
  double quad(const std::vector<double> &p) const {
    double v = 0.0;
    for (size_t k = 0; k < qv.size(); ++k) v += qv[k] * p[qa[k]] * p[qb[k]];
    return v;
  }
  double value(const std::vector<double> &p) const {
    double v = quad(p) - b;
    for (size_t k = 0; k < lv.size(); ++k) v += lv[k] * p[li[k]];
    return v;
  }
  LinRow general_cut(std::vector<double> p) const {
    if (radial) {
      double q = quad(p);
      if (q > b) {
        double f = std::sqrt(b / q);
        for (double &v : p) v *= f;
      }
    }
    std::vector<double> grad(vars.size(), 0.0);
    for (size_t k = 0; k < qv.size(); ++k) {
      grad[qa[k]] += qv[k] * p[qb[k]];
      grad[qb[k]] += qv[k] * p[qa[k]];
    }
    for (size_t k = 0; k < lv.size(); ++k) grad[li[k]] += lv[k];
    LinRow row;
    row.rhs = -value(p);
    for (size_t i = 0; i < vars.size(); ++i) {
      if (grad[i] == 0.0) continue;
      row.ind.push_back(vars[i]);
      row.val.push_back(grad[i]);
      row.rhs += grad[i] * p[i];
    }
    row.dual_weight = sign;
    return row;
  }
  LinRow conic_cut(const double *x) const {
    std::vector<double> rp(r.size());
    double norm = 0.0;
    for (size_t i = 0; i < r.size(); ++i) norm += (rp[i] = r[i].at(x)) * rp[i];
    norm = std::sqrt(norm);
    if (norm > 0.0)
      for (double &w : rp) w /= norm;
    LinRow row = plane(norm > 0.0 ? rp.data() : nullptr);
    // The cut is the linearization of ||r||^2 - y^2 at a point of the boundary, divided by
    // twice the norm there (which is y when y is a constant).
    if (norm > 0.0) row.dual_weight = sign * kappa / (2.0 * (y.ind.empty() ? y.constant : norm));
    return row;
  }
  // The supporting plane u'r <= y for a unit vector u; y >= 0 when u is null.
  LinRow plane(const double *u) const {
    std::map<int, double> coef;
    LinRow row;
    for (size_t k = 0; k < y.ind.size(); ++k) coef[y.ind[k]] -= y.val[k];
    row.rhs = y.constant;
    if (u)
      for (size_t i = 0; i < r.size(); ++i) {
        for (size_t k = 0; k < r[i].ind.size(); ++k) coef[r[i].ind[k]] += u[i] * r[i].val[k];
        row.rhs -= u[i] * r[i].constant;
      }
    for (auto &[j, v] : coef)
      if (v != 0.0) row.ind.push_back(j), row.val.push_back(v);
    return row;
  }
  LinRow cut_at(const double *x) const {
    LinRow row;
    if (conic) {
      row = conic_cut(x);
    } else {
      std::vector<double> p;
      load(x, p);
      row = general_cut(std::move(p));
    }
    row.qconstr = index;
    normalize(row);
    return row;
  }
  // Whether the constraint's set recedes without limit along d.
  bool recedes_along(const double *d) const {
    if (conic) {
      double nr = 0.0;
      for (const Affine &a : r) nr += a.linear_at(d) * a.linear_at(d);
      double dn = 0.0;
      for (int j : vars) dn = std::max(dn, std::fabs(d[j]));
      return std::sqrt(nr) - y.linear_at(d) <= kRayTol * std::max(dn, 1.0);
    }
    std::vector<double> dl;
    load(d, dl);
    double dn = max_abs(dl.data(), dl.size());
    if (dn == 0.0) return true;
    double lin = 0.0;
    for (size_t k = 0; k < lv.size(); ++k) lin += lv[k] * dl[li[k]];
    return quad(dl) <= kRayTol * dn * dn && lin <= kRayTol * dn;
  }
};

OuterApprox::~OuterApprox() = default;

namespace {

[[noreturn]] void not_convex(const ModelData &m, int k, const std::string &why,
                             const ParamValues &params) {
  fail(KVR_ERROR_Q_NOT_PSD, "Quadratic constraint '%s' is not convex: %s%s",
       reform::qconstr_name(m, k).c_str(), why.c_str(), nonconvex_note(params));
}

bool nonnegative(const ModelData &m, int j) { return m.vars.lb[j] >= 0.0; }

}  // namespace

OuterApprox::OuterApprox(const ModelData &m, const ParamValues &params) {
  const double psdtol = params.get_dbl(ParamId::PSDTol);
  rows_.reserve(m.qconstrs.size());
  for (int k = 0; k < m.qconstrs.size(); ++k) {
    const QConstr &qc = m.qconstrs.items[k];
    Constraint c;
    c.index = k;
    c.sign = qc.sense == KVR_GREATER_EQUAL ? -1.0 : 1.0;
    c.b = c.sign * qc.rhs;
    // Merged terms in <= form.
    std::map<std::pair<int, int>, double> quad;
    std::map<int, double> lin;
    for (size_t t = 0; t < qc.q.size(); ++t) {
      int a = std::min(qc.q.row[t], qc.q.col[t]), b = std::max(qc.q.row[t], qc.q.col[t]);
      quad[{a, b}] += c.sign * qc.q.val[t];
    }
    for (size_t t = 0; t < qc.lind.size(); ++t) lin[qc.lind[t]] += c.sign * qc.lval[t];
    std::erase_if(quad, [](const auto &e) { return e.second == 0.0; });
    std::erase_if(lin, [](const auto &e) { return e.second == 0.0; });
    for (auto &[ab, v] : quad) c.vars.push_back(ab.first), c.vars.push_back(ab.second);
    for (auto &[j, v] : lin) c.vars.push_back(j);
    std::sort(c.vars.begin(), c.vars.end());
    c.vars.erase(std::unique(c.vars.begin(), c.vars.end()), c.vars.end());
    auto pos = [&](int j) {
      return static_cast<int>(std::lower_bound(c.vars.begin(), c.vars.end(), j) - c.vars.begin());
    };
    QuadTerms terms;
    for (auto &[ab, v] : quad) {
      c.qa.push_back(pos(ab.first));
      c.qb.push_back(pos(ab.second));
      c.qv.push_back(v);
      terms.push(ab.first, ab.second, v);
    }
    for (auto &[j, v] : lin) c.li.push_back(pos(j)), c.lv.push_back(v);

    // Shape: positive and negative squares, cross terms.
    std::vector<std::pair<int, double>> positive, negative, cross;
    for (auto &[ab, v] : quad) {
      if (ab.first != ab.second)
        cross.emplace_back(ab.first, v);
      else
        (v > 0 ? positive : negative).emplace_back(ab.first, v);
    }
    std::string cone_reason;
    if (lin.empty() && c.b <= 0.0 && !positive.empty() && negative.size() == 1 && cross.empty()) {
      const int y = negative[0].first;
      if (nonnegative(m, y)) {
        c.conic = true;
        for (auto &[j, a] : positive) c.r.push_back(Affine{{j}, {std::sqrt(a)}, 0.0});
        if (c.b < 0.0) c.r.push_back(Affine{{}, {}, std::sqrt(-c.b)});
        c.y = Affine{{y}, {std::sqrt(-negative[0].second)}, 0.0};
      } else {
        cone_reason = "; it has the form of a second-order cone, but the lower bound of " +
                      reform::var_name(m, y) + " is negative (it must be 0 or more)";
      }
    } else if (lin.empty() && c.b <= 0.0 && negative.empty() && cross.size() == 1) {
      auto it = quad.begin();
      while (it->first.first == it->first.second) ++it;
      const int y = it->first.first, z = it->first.second;
      const double s = -it->second;
      if (s > 0 && !quad.count({y, y}) && !quad.count({z, z})) {
        if (nonnegative(m, y) && nonnegative(m, z)) {
          c.conic = true;
          c.kappa = 4.0;
          for (auto &[j, a] : positive) c.r.push_back(Affine{{j}, {2.0 * std::sqrt(a)}, 0.0});
          if (c.b < 0.0) c.r.push_back(Affine{{}, {}, 2.0 * std::sqrt(-c.b)});
          c.r.push_back(Affine{{y, z}, {std::sqrt(s), -std::sqrt(s)}, 0.0});
          c.y = Affine{{y, z}, {std::sqrt(s), std::sqrt(s)}, 0.0};
        } else {
          cone_reason =
              "; it has the form of a rotated second-order cone, but the lower bound of " +
              reform::var_name(m, nonnegative(m, y) ? z : y) +
              " is negative (it must be 0 or more)";
        }
      }
    } else if (negative.empty() && cross.empty() && !positive.empty()) {
      // A ball when the linear terms complete the squares: sum a (x + l/(2a))^2 <= rho^2.
      double rho2 = c.b;
      bool ball = true;
      for (auto &[j, l] : lin) {
        auto sq = quad.find({j, j});
        if (sq == quad.end()) {
          ball = false;
          break;
        }
        rho2 += l * l / (4.0 * sq->second);
      }
      if (ball && rho2 >= 0.0) {
        c.conic = true;
        for (auto &[j, a] : positive) {
          auto l = lin.find(j);
          double shift = l == lin.end() ? 0.0 : l->second / (2.0 * std::sqrt(a));
          c.r.push_back(Affine{{j}, {std::sqrt(a)}, shift});
        }
        c.y = Affine{{}, {}, std::sqrt(rho2)};
      }
    }
    if (!c.conic) {
      auto bad = find_negative_curvature(terms, m.num_vars(), 1.0, psdtol, &unchecked_);
      if (bad)
        not_convex(m, k,
                   format("Q is not %s (variable %s has curvature %g beyond PSDTol)",
                          c.sign > 0 ? "positive semi-definite"
                                     : "negative semi-definite, as a >= constraint needs,",
                          reform::var_name(m, bad->var).c_str(), c.sign * bad->value) +
                       cone_reason,
                   params);
      c.radial = lin.empty() && c.b > 0.0;
    }
    rows_.push_back(std::move(c));
  }
}

bool OuterApprox::empty() const { return rows_.empty(); }

void OuterApprox::counts(int &cones, int &balls, int &general) const {
  cones = balls = general = 0;
  for (const Constraint &c : rows_) {
    if (!c.conic)
      ++general;
    else if (c.y.ind.empty())
      ++balls;
    else
      ++cones;
  }
}

double OuterApprox::max_violation(const double *x) const {
  double worst = 0.0;
  std::vector<double> p;
  for (const Constraint &c : rows_) {
    c.load(x, p);
    worst = std::max(worst, c.value(p));
  }
  return worst;
}

int OuterApprox::separate(const double *x, double tol, std::vector<LinRow> &cuts) const {
  int added = 0;
  std::vector<double> p;
  for (const Constraint &c : rows_) {
    c.load(x, p);
    if (c.value(p) <= tol) continue;
    LinRow row = c.cut_at(x);
    if (row.violation(x) <= 0.0) continue;  // no progress possible from this point
    cuts.push_back(std::move(row));
    ++added;
  }
  return added;
}

int OuterApprox::tangents_at(const double *x, std::vector<LinRow> &cuts) const {
  int added = 0;
  for (const Constraint &c : rows_) {
    if (c.conic) continue;
    LinRow row = c.cut_at(x);
    if (row.ind.empty()) continue;
    cuts.push_back(std::move(row));
    ++added;
  }
  return added;
}

int OuterApprox::initial_cuts(int circle, size_t limit, std::vector<LinRow> &cuts) const {
  int added = 0;
  std::vector<double> u;
  auto add = [&](const Constraint &c) {
    if (cuts.size() >= limit) return;
    LinRow row = c.plane(u.data());
    if (row.ind.empty()) return;  // a constant r: nothing to cut
    row.qconstr = c.index;
    normalize(row);
    cuts.push_back(std::move(row));
    ++added;
  };
  limit += cuts.size();
  for (const Constraint &c : rows_) {
    if (!c.conic) continue;
    const size_t k = c.r.size();
    u.assign(k, 0.0);
    if (k == 2 && circle > 4) {
      for (int t = 0; t < circle; ++t) {
        const double angle = 2.0 * std::numbers::pi * t / circle;
        u[0] = std::cos(angle), u[1] = std::sin(angle);
        add(c);
      }
      continue;
    }
    for (size_t i = 0; i < k; ++i) {
      if (c.r[i].ind.empty()) continue;  // a constant component
      for (double side : {1.0, -1.0}) {
        u[i] = side;
        add(c);
      }
      u[i] = 0.0;
    }
  }
  return added;
}

int OuterApprox::block_ray(const double *x, const double *d, int n,
                           std::vector<LinRow> &cuts) const {
  int added = 0;
  bool all_recede = true;
  const double dn = max_abs(d, n);
  std::vector<double> p(n);
  for (const Constraint &c : rows_) {
    if (dn == 0.0 || c.recedes_along(d)) continue;
    all_recede = false;
    // Far enough along the ray the point violates the constraint and the cut there faces d.
    double step = (1.0 + max_abs(x, n)) / dn;
    for (int tries = 0; tries < 40; ++tries, step *= 4.0) {
      for (int j = 0; j < n; ++j) p[j] = x[j] + step * d[j];
      LinRow row = c.cut_at(p.data());
      double slope = 0.0;
      for (size_t k = 0; k < row.ind.size(); ++k) slope += row.val[k] * d[row.ind[k]];
      if (slope > kRayTol * dn && row.violation(p.data()) > 0.0) {
        cuts.push_back(std::move(row));
        ++added;
        break;
      }
    }
  }
  return all_recede ? -1 : added;
}

}  // namespace kvr
