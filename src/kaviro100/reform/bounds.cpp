// Bound propagation: finite bounds for variables the user left unbounded, derived from the linear
// rows (activity arguments) and from what the general constraints imply. Every big-M value of the
// rewriting comes from these bounds, so they must never cut off a feasible point: each derived
// bound is relaxed outward by a small relative margin before it is used.
#include <algorithm>
#include <cmath>
#include <limits>

#include "reform/internal.h"

namespace kvr::reform {

namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();
// Outward margin of a derived bound, relative to max(1, |bound|).
constexpr double kMargin = 1e-6;
// A bound replaces a finite one only when it improves it by this much (relative to max(1, |old|)),
// so that passes stop instead of creeping towards a limit.
constexpr double kMinGain = 1e-3;
// Coefficients smaller than this do not yield bounds (the division would amplify rounding).
constexpr double kTinyCoef = 1e-9;

class Propagator {
 public:
  Propagator(Builder &b, std::vector<double> &lo, std::vector<double> &hi)
      : b_(b), u_(b.user()), lo_(lo), hi_(hi) {}

  void row(int r);
  void gen(const GenConstr &g);
  bool changed = false;

 private:
  void raise_lb(int j, double v);
  void lower_ub(int j, double v);

  Builder &b_;
  const ModelData &u_;
  std::vector<double> &lo_, &hi_;
  std::vector<double> entry_lo_, entry_hi_;
};

void Propagator::raise_lb(int j, double v) {
  if (std::isnan(v) || v <= -kInf || v >= kInf) return;
  v -= kMargin * std::max(1.0, std::fabs(v));
  if (b_.integral(j)) v = std::ceil(v);
  double old = lo_[j];
  if (std::isfinite(old) && v <= old + kMinGain * std::max(1.0, std::fabs(old))) return;
  lo_[j] = v;
  changed = true;
}

void Propagator::lower_ub(int j, double v) {
  if (std::isnan(v) || v <= -kInf || v >= kInf) return;
  v += kMargin * std::max(1.0, std::fabs(v));
  if (b_.integral(j)) v = std::floor(v);
  double old = hi_[j];
  if (std::isfinite(old) && v >= old - kMinGain * std::max(1.0, std::fabs(old))) return;
  hi_[j] = v;
  changed = true;
}

// lower <= sum a x <= upper: each variable is bounded by what the others leave over.
void Propagator::row(int r) {
  const SparseMatrix &A = u_.constrs.rows;
  char sense = u_.constrs.sense[r];
  double rhs = u_.constrs.rhs[r];
  if (!is_finite(rhs)) return;
  bool has_upper = sense != KVR_GREATER_EQUAL, has_lower = sense != KVR_LESS_EQUAL;
  // Finite parts of the minimal and maximal activity, and the count and (when single) the index
  // of the entries whose contribution is infinite.
  double min_fin = 0.0, max_fin = 0.0;
  int min_inf = 0, max_inf = 0;
  int64_t min_inf_k = -1, max_inf_k = -1;
  // Bounds as of the start of the row: a variable may occur twice, and its first occurrence must
  // not change what the second one subtracts.
  entry_lo_.clear(), entry_hi_.clear();
  for (int64_t k = A.beg[r]; k < A.beg[r + 1]; ++k) {
    double a = A.val[k];
    int j = A.ind[k];
    double lo = a > 0 ? lo_[j] : hi_[j], hi = a > 0 ? hi_[j] : lo_[j];
    entry_lo_.push_back(lo), entry_hi_.push_back(hi);
    if (std::isfinite(lo))
      min_fin += a * lo;
    else
      ++min_inf, min_inf_k = k;
    if (std::isfinite(hi))
      max_fin += a * hi;
    else
      ++max_inf, max_inf_k = k;
  }
  if ((!has_upper || min_inf > 1) && (!has_lower || max_inf > 1)) return;
  for (int64_t k = A.beg[r]; k < A.beg[r + 1]; ++k) {
    double a = A.val[k];
    int j = A.ind[k];
    if (std::fabs(a) < kTinyCoef) continue;
    double lo = entry_lo_[k - A.beg[r]], hi = entry_hi_[k - A.beg[r]];
    if (has_upper) {
      // a x_j <= rhs - (minimal activity of the others)
      double rest = kInfinity;
      if (min_inf == 0)
        rest = min_fin - a * lo;
      else if (min_inf == 1 && min_inf_k == k)
        rest = min_fin;
      if (std::isfinite(rest)) {
        double v = (rhs - rest) / a;
        if (a > 0)
          lower_ub(j, v);
        else
          raise_lb(j, v);
      }
    }
    if (has_lower) {
      double rest = kInfinity;
      if (max_inf == 0)
        rest = max_fin - a * hi;
      else if (max_inf == 1 && max_inf_k == k)
        rest = max_fin;
      if (std::isfinite(rest)) {
        double v = (rhs - rest) / a;
        if (a > 0)
          raise_lb(j, v);
        else
          lower_ub(j, v);
      }
    }
  }
}

double absmax(double lo, double hi) { return std::max(std::fabs(lo), std::fabs(hi)); }
double absmin(double lo, double hi) { return lo > 0 ? lo : hi < 0 ? -hi : 0.0; }

// y range of a piecewise-linear function over [lo, hi] (either end may be infinite).
void pwl_range(const GenConstr &g, double lo, double hi, double &ylo, double &yhi) {
  const std::vector<double> &x = g.xpts, &y = g.ypts;
  size_t n = x.size();
  double span = std::max(1.0, x[n - 1] - x[0]);
  double flo = std::isfinite(lo) ? lo : std::min(x[0], hi) - span;
  double fhi = std::isfinite(hi) ? hi : std::max(x[n - 1], lo) + span;
  if (flo > fhi) return;
  std::vector<Piece> pieces = pwl_pieces(x, y, flo, fhi);
  ylo = kInfinity, yhi = -kInfinity;
  for (const Piece &p : pieces) {
    ylo = std::min({ylo, p.ya, p.yb});
    yhi = std::max({yhi, p.ya, p.yb});
    // The end pieces continue along their slope when x is unbounded there.
    double s = p.slope();
    if (p.xa == flo && !std::isfinite(lo) && s != 0) {
      if (s > 0)
        ylo = -kInfinity;
      else
        yhi = kInfinity;
    }
    if (p.xb == fhi && !std::isfinite(hi) && s != 0) {
      if (s > 0)
        yhi = kInfinity;
      else
        ylo = -kInfinity;
    }
  }
}

bool valid_points(const GenConstr &g) {
  if (g.xpts.empty() || g.xpts.size() != g.ypts.size()) return false;
  for (size_t i = 0; i < g.xpts.size(); ++i) {
    if (!is_finite(g.xpts[i]) || !is_finite(g.ypts[i])) return false;
    if (i > 0 && g.xpts[i] < g.xpts[i - 1]) return false;
  }
  return true;
}

void Propagator::gen(const GenConstr &g) {
  int r = g.resvar;
  int n = u_.num_vars();
  auto ok = [&](int j) { return j >= 0 && j < n; };
  switch (g.type) {
    case KVR_GENCONSTR_MAX:
    case KVR_GENCONSTR_MIN: {
      if (!ok(r)) return;
      for (int j : g.vars)
        if (!ok(j)) return;
      bool is_max = g.type == KVR_GENCONSTR_MAX;
      // Work on the maximum of the operands (the minimum is minus the maximum of negatives).
      double c = is_max ? g.constant : -g.constant;
      bool has_c = c > -kInf;
      if (g.vars.empty() && !has_c) return;
      double best_lo = has_c ? c : -kInfinity, best_hi = has_c ? c : -kInfinity;
      for (int j : g.vars) {
        double lo = is_max ? lo_[j] : -hi_[j], hi = is_max ? hi_[j] : -lo_[j];
        best_lo = std::max(best_lo, lo);
        best_hi = std::max(best_hi, hi);
      }
      double rhi = is_max ? hi_[r] : -lo_[r];
      if (is_max) {
        raise_lb(r, best_lo), lower_ub(r, best_hi);
        for (int j : g.vars) lower_ub(j, rhi);
      } else {
        lower_ub(r, -best_lo), raise_lb(r, -best_hi);
        for (int j : g.vars) raise_lb(j, -rhi);
      }
      break;
    }
    case KVR_GENCONSTR_ABS: {
      if (!ok(r) || g.vars.size() != 1 || !ok(g.vars[0])) return;
      int x = g.vars[0];
      lower_ub(r, absmax(lo_[x], hi_[x]));
      raise_lb(r, absmin(lo_[x], hi_[x]));
      raise_lb(x, -hi_[r]);
      lower_ub(x, hi_[r]);
      break;
    }
    case KVR_GENCONSTR_NORM: {
      if (!ok(r)) return;
      for (int j : g.vars)
        if (!ok(j)) return;
      double which = g.constant;
      raise_lb(r, 0.0);
      if (which == 0.0) {
        lower_ub(r, static_cast<double>(g.vars.size()));
      } else if (which == 1.0 || which >= kInf) {
        double sum = 0.0, mx = 0.0, mn = 0.0;
        for (int j : g.vars) {
          double m = absmax(lo_[j], hi_[j]);
          sum += m, mx = std::max(mx, m), mn = std::max(mn, absmin(lo_[j], hi_[j]));
        }
        lower_ub(r, which == 1.0 ? sum : mx);
        raise_lb(r, mn);
        for (int j : g.vars) raise_lb(j, -hi_[r]), lower_ub(j, hi_[r]);
      }
      break;
    }
    case KVR_GENCONSTR_PWL: {
      if (!ok(g.xvar) || !ok(g.yvar) || !valid_points(g)) return;
      double ylo = -kInfinity, yhi = kInfinity;
      pwl_range(g, lo_[g.xvar], hi_[g.xvar], ylo, yhi);
      raise_lb(g.yvar, ylo);
      lower_ub(g.yvar, yhi);
      break;
    }
    default:
      break;
  }
}

}  // namespace

void propagate_bounds(Builder &b, int rounds) {
  const ModelData &u = b.user();
  int n = u.num_vars();
  for (int round = 0; round < rounds; ++round) {
    std::vector<double> lo(b.lbs().begin(), b.lbs().begin() + n);
    std::vector<double> hi(b.ubs().begin(), b.ubs().begin() + n);
    Propagator p(b, lo, hi);
    for (int r = 0; r < u.num_constrs(); ++r) p.row(r);
    for (const GenConstr &g : u.gens.items) p.gen(g);
    if (!p.changed) return;
    for (int j = 0; j < n; ++j)
      if (lo[j] > hi[j] + kMargin * std::max(1.0, std::fabs(hi[j]))) return;  // infeasible model
    for (int j = 0; j < n; ++j) b.tighten(j, lo[j], hi[j]);
  }
}

}  // namespace kvr::reform
