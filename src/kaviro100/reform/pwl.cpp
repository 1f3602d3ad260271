// Piecewise-linear functions: the pieces of a function given by points, the formulation of
// y = f(x) for such a function, PWL general constraints and piecewise-linear objectives.
#include <algorithm>
#include <cmath>

#include "reform/internal.h"
#include "util/error.h"

namespace kvr::reform {

void check_points(const std::vector<double> &x, const std::vector<double> &y, int code,
                  const std::string &what) {
  if (x.size() != y.size())
    fail(code, "%s: %zu x values but %zu y values", what.c_str(), x.size(), y.size());
  if (x.empty()) fail(code, "%s: no points", what.c_str());
  for (size_t i = 0; i < x.size(); ++i) {
    if (!is_finite(x[i]) || !is_finite(y[i]))
      fail(code, "%s: point %zu (%s, %s) is not finite", what.c_str(), i, num(x[i]).c_str(),
           num(y[i]).c_str());
    if (i > 0 && x[i] < x[i - 1])
      fail(code, "%s: x values must not decrease (point %zu has x = %s after %s)", what.c_str(), i,
           num(x[i]).c_str(), num(x[i - 1]).c_str());
  }
}

std::vector<Piece> pwl_pieces(const std::vector<double> &xs, const std::vector<double> &ys,
                              double lo, double hi) {
  // Repeated identical points say nothing more than one of them.
  std::vector<double> x, y;
  for (size_t i = 0; i < xs.size(); ++i)
    if (i == 0 || xs[i] != xs[i - 1] || ys[i] != ys[i - 1]) x.push_back(xs[i]), y.push_back(ys[i]);
  size_t n = x.size();
  std::vector<Piece> raw;
  std::vector<bool> covered(n, false);
  for (size_t i = 0; i + 1 < n; ++i)
    if (x[i] < x[i + 1]) {
      raw.push_back({x[i], x[i + 1], y[i], y[i + 1]});
      covered[i] = covered[i + 1] = true;
    }
  if (lo < x[0]) {
    if (n >= 2 && x[0] < x[1]) {
      Piece &first = raw.front();
      first.ya += first.slope() * (lo - first.xa);
      first.xa = lo;
    } else {
      raw.insert(raw.begin(), Piece{lo, x[0], y[0], y[0]});
      covered[0] = true;
    }
  }
  if (hi > x[n - 1]) {
    if (n >= 2 && x[n - 2] < x[n - 1]) {
      Piece &last = raw.back();
      last.yb += last.slope() * (hi - last.xb);
      last.xb = hi;
    } else {
      raw.push_back(Piece{x[n - 1], hi, y[n - 1], y[n - 1]});
      covered[n - 1] = true;
    }
  }
  for (size_t i = 0; i < n; ++i)
    if (!covered[i]) raw.push_back(Piece{x[i], x[i], y[i], y[i]});

  // Pieces reaching into [lo, hi] stay whole: cutting them at bounds that propagation derived
  // (with their safety margins) would only add slivers.
  std::vector<Piece> out;
  for (const Piece &p : raw)
    if (p.xb >= lo && p.xa <= hi) out.push_back(p);
  std::stable_sort(out.begin(), out.end(), [](const Piece &a, const Piece &b) {
    return a.xa < b.xa || (a.xa == b.xa && a.xb < b.xb);
  });
  return out;
}

void add_pwl(Builder &b, int x, int y, const std::vector<Piece> &pieces, const std::string &owner) {
  double xmin = pieces.front().xa, xmax = pieces.front().xb;
  double ymin = pieces.front().ya, ymax = ymin;
  for (const Piece &p : pieces) {
    xmin = std::min(xmin, p.xa), xmax = std::max(xmax, p.xb);
    ymin = std::min({ymin, p.ya, p.yb}), ymax = std::max({ymax, p.ya, p.yb});
  }
  if (pieces.size() == 1) {
    const Piece &p = pieces[0];
    if (p.xb > p.xa) {
      double s = p.slope();
      b.add_row({{y, 1.0}, {x, -s}}, KVR_EQUAL, p.ya - s * p.xa, owner + "_line");
    } else {
      b.add_row({{y, 1.0}}, KVR_EQUAL, p.ya, owner + "_value");
    }
    // x stays within the piece (nothing to add when its bounds already say so).
    if (b.lb(x) < p.xa) b.add_row({{x, 1.0}}, KVR_GREATER_EQUAL, p.xa, owner + "_xmin");
    if (b.ub(x) > p.xb) b.add_row({{x, 1.0}}, KVR_LESS_EQUAL, p.xb, owner + "_xmax");
  } else {
    // One binary z_k per piece, and an offset d_k in [0, (xb - xa) z_k] along it:
    // x = sum xa_k z_k + d_k, y = sum ya_k z_k + slope_k d_k, sum z_k = 1.
    std::vector<Term> xrow{{x, 1.0}}, yrow{{y, 1.0}}, pick;
    for (size_t k = 0; k < pieces.size(); ++k) {
      const Piece &p = pieces[k];
      std::string tag = owner + "_" + std::to_string(k);
      int z = b.add_binary(tag + "_z");
      pick.push_back({z, 1.0});
      xrow.push_back({z, -p.xa});
      yrow.push_back({z, -p.ya});
      if (p.xb > p.xa) {
        double len = p.xb - p.xa;
        int d = b.add_var(0.0, len, KVR_CONTINUOUS, tag + "_d");
        b.add_row({{d, 1.0}, {z, -len}}, KVR_LESS_EQUAL, 0.0, tag + "_on");
        xrow.push_back({d, -1.0});
        yrow.push_back({d, -p.slope()});
      }
    }
    b.add_row(pick, KVR_EQUAL, 1.0, owner + "_pick");
    b.add_row(xrow, KVR_EQUAL, 0.0, owner + "_x");
    b.add_row(yrow, KVR_EQUAL, 0.0, owner + "_y");
  }
  b.tighten(x, xmin, xmax);
  b.tighten(y, ymin, ymax);
}

namespace {

// The x range a piecewise-linear function is formulated on: the implied bounds of x, with an
// infinite side replaced by FuncMaxVal in magnitude (or the outermost point, when that is farther).
void pwl_x_range(const Builder &b, int x, const std::vector<double> &xpts, double maxval,
                 double &lo, double &hi) {
  lo = b.lb(x), hi = b.ub(x);
  if (!is_finite(lo)) lo = std::min(-maxval, xpts.front());
  if (!is_finite(hi)) hi = std::max(maxval, xpts.back());
}

}  // namespace

void rewrite_pwl_constraint(Builder &b, int gen, const ParamValues &params) {
  const ModelData &u = b.user();
  const GenConstr &g = u.gens.items[gen];
  std::string name = gen_name(u, gen);
  std::string what = "General constraint " + name + " (PWL)";
  check_points(g.xpts, g.ypts, KVR_ERROR_INVALID_ARGUMENT, what);
  double lo, hi;
  pwl_x_range(b, g.xvar, g.xpts, params.get_dbl(ParamId::FuncMaxVal), lo, hi);
  std::vector<Piece> pieces;
  if (lo <= hi) pieces = pwl_pieces(g.xpts, g.ypts, lo, hi);
  if (pieces.empty())
    add_infeasible(b, name);
  else
    add_pwl(b, g.xvar, g.yvar, pieces, name);
}

void rewrite_pwl_objectives(Builder &b, const ParamValues &params) {
  const ModelData &u = b.user();
  ModelData &m = b.model();
  for (const PwlObj &p : u.pwlobj)
    if (p.var < 0 || p.var >= u.num_vars())
      fail(KVR_ERROR_INDEX_OUT_OF_RANGE,
           "Piecewise-linear objective on variable %d: no such variable", p.var);
  for (size_t k = 0; k < u.pwlobj.size(); ++k) {
    const PwlObj &p = u.pwlobj[k];
    std::string what = "Piecewise-linear objective of variable " + var_name(u, p.var);
    check_points(p.x, p.y, KVR_ERROR_INVALID_PIECEWISE_OBJ, what);
  }
  // A piecewise-linear term replaces the variable's linear objective coefficient.
  for (const PwlObj &p : u.pwlobj) m.set_obj(p.var, 0.0);
  for (size_t k = 0; k < u.pwlobj.size(); ++k) {
    const PwlObj &p = u.pwlobj[k];
    int x = p.var;
    std::string owner = "PWLOBJ" + std::to_string(k);
    std::vector<double> xs, ys;
    for (size_t i = 0; i < p.x.size(); ++i)
      if (i == 0 || p.x[i] != p.x[i - 1] || p.y[i] != p.y[i - 1])
        xs.push_back(p.x[i]), ys.push_back(p.y[i]);
    size_t n = xs.size();
    if (n == 1) {
      m.set_objcon(m.objcon + ys[0]);
      continue;
    }
    bool jump = false;
    std::vector<double> slope(n - 1);
    for (size_t i = 0; i + 1 < n; ++i) {
      if (xs[i] == xs[i + 1])
        jump = true;
      else
        slope[i] = (ys[i + 1] - ys[i]) / (xs[i + 1] - xs[i]);
    }
    bool convex = !jump, concave = !jump, linear = !jump;
    for (size_t i = 0; !jump && i + 2 < n; ++i) {
      double tol = 1e-12 * std::max({1.0, std::fabs(slope[i]), std::fabs(slope[i + 1])});
      if (slope[i + 1] < slope[i] - tol) convex = false;
      if (slope[i + 1] > slope[i] + tol) concave = false;
      if (std::fabs(slope[i + 1] - slope[i]) > tol) linear = false;
    }
    if (linear) {
      m.add_obj(x, slope[0]);
      m.set_objcon(m.objcon + ys[0] - slope[0] * xs[0]);
      continue;
    }
    bool minimize = u.sense != KVR_MAXIMIZE;
    if ((minimize && convex) || (!minimize && concave)) {
      // The function is the maximum (minimum) of its segments' lines; the objective pushes t onto
      // it, so t >= every line (t <= every line) is exact and stays linear.
      int t = b.add_var(-KVR_INFINITY, KVR_INFINITY, KVR_CONTINUOUS, owner + "_t");
      m.set_obj(t, 1.0);
      for (size_t i = 0; i + 1 < n; ++i)
        b.add_row({{t, 1.0}, {x, -slope[i]}}, minimize ? KVR_GREATER_EQUAL : KVR_LESS_EQUAL,
                  ys[i] - slope[i] * xs[i], owner + "_" + std::to_string(i));
      continue;
    }
    double lo, hi;
    pwl_x_range(b, x, xs, params.get_dbl(ParamId::FuncMaxVal), lo, hi);
    std::vector<Piece> pieces;
    if (lo <= hi) pieces = pwl_pieces(xs, ys, lo, hi);
    if (pieces.empty()) {
      add_infeasible(b, owner);
      continue;
    }
    int y = b.add_var(-KVR_INFINITY, KVR_INFINITY, KVR_CONTINUOUS, owner + "_y");
    m.set_obj(y, 1.0);
    add_pwl(b, x, y, pieces, owner);
  }
}

}  // namespace kvr::reform
