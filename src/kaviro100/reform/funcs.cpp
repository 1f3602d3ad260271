// Function constraints y = f(x) (polynomial, exponential, logarithm, power, logistic, sine,
// cosine, tangent) become piecewise-linear approximations on the range of x.
//
// The range of x: the implied bounds of x, limited to [-FuncMaxVal, FuncMaxVal]; then cut to the
// domain of f (x > 0 for logarithms and negative or fractional powers; an open end at 0 starts at
// 1e-6); then, where f is monotone between known points (all functions but sine and cosine), cut
// to the x values whose f(x) lies within y's implied bounds (also limited by FuncMaxVal). A range
// with no point of the domain is an error, as is a range across a pole (tangent, negative integer
// powers).
//
// The breakpoints on that range [lo, hi] are chosen by FuncPieces:
//   >= 2  that many pieces of equal length;
//   1     pieces of length FuncPieceLength (the last one may be shorter);
//   -1    as few pieces as the greedy placement needs so that every piece's error
//         |approximation - f| stays within FuncPieceError (absolute error);
//   -2    the same with the error measured relative to max(1, |f(x)|);
//   0     automatic: the relative rule of -2 with at most 1000 pieces; when that is not enough
//         the error bound is doubled as often as needed, up to 100 times FuncPieceError, and
//         beyond that the piece count may grow like under -2.
// The greedy placement starts at lo and makes each piece as long as the error bound allows
// (doubling and bisection on its length); the error of a piece is measured on 16 evenly spaced
// points refined around the largest deviations. More than 100000 pieces is an error. A range
// shorter than 1e-5 times max(1, |x|) is a single piece whatever the options.
//
// FuncPieceRatio places each piece's line:
//   negative  through the function values at the piece's ends (the approximation interpolates f
//             and is continuous);
//   0 .. 1    the interpolating line shifted so that the approximation lies below f (0), above f
//             (1), or in between with the largest deviation split in proportion (0.5: as much
//             above as below). Shifted pieces no longer meet at the breakpoints: there y may take
//             the value of either piece, both within the error.
// Each constraint's FuncPieces, FuncPieceError, FuncPieceLength and FuncPieceRatio attributes
// (which its options text sets when it is added), when set (FuncPieces >= -2, error and length
// > 0, ratio >= -1), take precedence over the parameters of the same names.
#include <algorithm>
#include <cmath>
#include <numbers>

#include "reform/internal.h"
#include "util/error.h"

namespace kvr::reform {

namespace {

constexpr int kMaxPieces = 100000;
constexpr int kAutoPieces = 1000;
constexpr double kAutoRelax = 100.0;
constexpr double kOpenEnd = 1e-6;
constexpr int kSamples = 16;
// Tolerance on y's bounds when cutting the x range (wider is safe).
constexpr double kRangeTol = 1e-6;
// A range of x shorter than this (relative to its magnitude) is a single piece.
constexpr double kTinyRange = 1e-5;

struct Function {
  int type = KVR_GENCONSTR_EXP;
  double a = 0.0;
  std::vector<double> p;  // polynomial coefficients, highest degree first

  double operator()(double x) const {
    switch (type) {
      case KVR_GENCONSTR_POLY: {
        double v = 0.0;
        for (double c : p) v = v * x + c;
        return v;
      }
      case KVR_GENCONSTR_EXP:
        return std::exp(x);
      case KVR_GENCONSTR_EXPA:
        return std::pow(a, x);
      case KVR_GENCONSTR_LOG:
        return std::log(x);
      case KVR_GENCONSTR_LOGA:
        return std::log(x) / std::log(a);
      case KVR_GENCONSTR_POW:
        return std::pow(x, a);
      case KVR_GENCONSTR_LOGISTIC:
        return 1.0 / (1.0 + std::exp(-x));
      case KVR_GENCONSTR_SIN:
        return std::sin(x);
      case KVR_GENCONSTR_COS:
        return std::cos(x);
      case KVR_GENCONSTR_TAN:
        return std::tan(x);
      default:
        return std::nan("");
    }
  }
};

struct Controls {
  int pieces;
  double error, length, ratio, maxval;
};

bool is_integer(double v) { return std::fabs(v) < 9e15 && v == std::floor(v); }

Function make_function(const GenConstr &g, const std::string &what) {
  Function f;
  f.type = g.type;
  f.a = g.a;
  switch (g.type) {
    case KVR_GENCONSTR_POLY: {
      if (g.p.empty()) fail(KVR_ERROR_INVALID_ARGUMENT, "%s: empty polynomial", what.c_str());
      for (double c : g.p)
        if (!std::isfinite(c) || std::fabs(c) >= kInf)
          fail(KVR_ERROR_INVALID_ARGUMENT, "%s: coefficient %s is not finite", what.c_str(),
               num(c).c_str());
      // Leading zeros do not change the polynomial.
      size_t first = 0;
      while (first + 1 < g.p.size() && g.p[first] == 0.0) ++first;
      f.p.assign(g.p.begin() + static_cast<long>(first), g.p.end());
      break;
    }
    case KVR_GENCONSTR_EXPA:
      if (!(g.a > 0.0) || !std::isfinite(g.a))
        fail(KVR_ERROR_INVALID_ARGUMENT, "%s: the base a = %s must be positive", what.c_str(),
             num(g.a).c_str());
      break;
    case KVR_GENCONSTR_LOGA:
      if (!(g.a > 0.0) || g.a == 1.0 || !std::isfinite(g.a))
        fail(KVR_ERROR_INVALID_ARGUMENT, "%s: the base a = %s must be positive and not 1",
             what.c_str(), num(g.a).c_str());
      break;
    case KVR_GENCONSTR_POW:
      if (!std::isfinite(g.a) || std::fabs(g.a) >= kInf)
        fail(KVR_ERROR_INVALID_ARGUMENT, "%s: the exponent a = %s is not finite", what.c_str(),
             num(g.a).c_str());
      break;
    default:
      break;
  }
  return f;
}

Controls controls(const GenConstr &g, const ParamValues &params, const std::string &what) {
  Controls c{params.get_int(ParamId::FuncPieces), params.get_dbl(ParamId::FuncPieceError),
             params.get_dbl(ParamId::FuncPieceLength), params.get_dbl(ParamId::FuncPieceRatio),
             params.get_dbl(ParamId::FuncMaxVal)};
  if (g.funcpieces >= -2) c.pieces = g.funcpieces;
  if (g.funcpieceerror > 0.0) c.error = g.funcpieceerror;
  if (g.funcpiecelength > 0.0) c.length = g.funcpiecelength;
  if (g.funcpieceratio >= -1.0) {
    if (g.funcpieceratio > 1.0)
      fail(KVR_ERROR_INVALID_ARGUMENT, "%s: FuncPieceRatio %s is greater than 1", what.c_str(),
           num(g.funcpieceratio).c_str());
    c.ratio = g.funcpieceratio;
  }
  return c;
}

// Cuts [lo, hi] to the domain of f; throws when no point of it is in the domain or when it crosses
// a pole.
void restrict_domain(const Function &f, double &lo, double &hi, const std::string &what) {
  std::string range = std::string("[") + num(lo) + ", " + num(hi) + "]";
  switch (f.type) {
    case KVR_GENCONSTR_LOG:
    case KVR_GENCONSTR_LOGA:
      if (hi <= 0.0)
        fail(KVR_ERROR_INVALID_ARGUMENT, "%s: the logarithm needs x > 0, but the range of x is %s",
             what.c_str(), range.c_str());
      if (lo <= 0.0) lo = std::min(kOpenEnd, hi);
      break;
    case KVR_GENCONSTR_POW:
      if (is_integer(f.a)) {
        if (f.a >= 0.0) break;
        if (lo < 0.0 && hi > 0.0)
          fail(KVR_ERROR_NOT_SUPPORTED,
               "%s: x^%s has a pole at x = 0 inside the range of x %s; bound x to one side of 0",
               what.c_str(), num(f.a).c_str(), range.c_str());
        if (lo == 0.0 && hi == 0.0)
          fail(KVR_ERROR_INVALID_ARGUMENT, "%s: x^%s is undefined at x = 0, the only value of x",
               what.c_str(), num(f.a).c_str());
        if (lo == 0.0) lo = std::min(kOpenEnd, hi);
        if (hi == 0.0) hi = std::max(-kOpenEnd, lo);
      } else if (f.a > 0.0) {
        if (hi < 0.0)
          fail(KVR_ERROR_INVALID_ARGUMENT,
               "%s: x^%s with a fractional exponent needs x >= 0, but the range of x is %s",
               what.c_str(), num(f.a).c_str(), range.c_str());
        lo = std::max(lo, 0.0);
      } else {
        if (hi <= 0.0)
          fail(KVR_ERROR_INVALID_ARGUMENT,
               "%s: x^%s with a fractional exponent needs x > 0, but the range of x is %s",
               what.c_str(), num(f.a).c_str(), range.c_str());
        if (lo <= 0.0) lo = std::min(kOpenEnd, hi);
      }
      break;
    case KVR_GENCONSTR_TAN: {
      const double pi = std::numbers::pi;
      double pole = pi / 2 + std::ceil((lo - pi / 2) / pi) * pi;
      double near = 1e-12 * std::max(1.0, std::fabs(pole));
      if (std::fabs(pole - lo) <= near) {
        lo = pole + 1e-9 * std::max(1.0, std::fabs(pole));
        pole += pi;
      }
      if (pole < hi - near || hi - lo >= pi)
        fail(KVR_ERROR_NOT_SUPPORTED,
             "%s: the range of x %s crosses the pole of tan at x = %s; bound x within one branch",
             what.c_str(), range.c_str(), num(pole).c_str());
      if (std::fabs(pole - hi) <= near) hi = pole - 1e-9 * std::max(1.0, std::fabs(pole));
      if (lo > hi) hi = lo;
      break;
    }
    default:
      break;
  }
}

double eval_poly(const std::vector<double> &p, double x) {
  double v = 0.0;
  for (double c : p) v = v * x + c;
  return v;
}

// Real roots of the polynomial p (highest degree first) strictly inside (lo, hi), ascending: the
// roots of the derivative split the range into monotone parts, each with at most one root.
std::vector<double> poly_roots(const std::vector<double> &p, double lo, double hi) {
  size_t first = 0;
  while (first < p.size() && p[first] == 0.0) ++first;
  std::vector<double> q(p.begin() + static_cast<long>(first), p.end());
  std::vector<double> roots;
  if (q.size() <= 1) return roots;
  if (q.size() == 2) {
    double r = -q[1] / q[0];
    if (r > lo && r < hi) roots.push_back(r);
    return roots;
  }
  size_t deg = q.size() - 1;
  std::vector<double> d(deg);
  for (size_t k = 0; k < deg; ++k) d[k] = q[k] * static_cast<double>(deg - k);
  std::vector<double> pts{lo};
  for (double c : poly_roots(d, lo, hi)) pts.push_back(c);
  pts.push_back(hi);
  for (size_t k = 0; k + 1 < pts.size(); ++k) {
    double a = pts[k], b = pts[k + 1];
    double fa = eval_poly(q, a), fb = eval_poly(q, b);
    if (fa == 0.0) {
      if (a > lo) roots.push_back(a);
      continue;
    }
    if ((fa < 0) == (fb < 0) || fb == 0.0) continue;
    for (int it = 0; it < 200; ++it) {
      double m = 0.5 * (a + b);
      if (m <= a || m >= b) break;
      double fm = eval_poly(q, m);
      if ((fm < 0) == (fa < 0))
        a = m, fa = fm;
      else
        b = m;
    }
    roots.push_back(0.5 * (a + b));
  }
  return roots;
}

// Points inside (lo, hi) between which f is monotone; false for functions not handled this way.
bool monotone_splits(const Function &f, double lo, double hi, std::vector<double> &splits) {
  splits.clear();
  switch (f.type) {
    case KVR_GENCONSTR_POLY: {
      if (f.p.size() <= 2) return true;
      size_t deg = f.p.size() - 1;
      std::vector<double> d(deg);
      for (size_t k = 0; k < deg; ++k) d[k] = f.p[k] * static_cast<double>(deg - k);
      splits = poly_roots(d, lo, hi);
      return true;
    }
    case KVR_GENCONSTR_POW:
      if (lo < 0.0 && hi > 0.0) splits.push_back(0.0);
      return true;
    case KVR_GENCONSTR_SIN:
    case KVR_GENCONSTR_COS:
      return false;
    default:
      return true;
  }
}

// On [s, t], where f is monotone: the sub-interval where ylo <= f <= yhi, rounded outward.
bool monotone_preimage(const Function &f, double s, double t, double ylo, double yhi, double &a,
                       double &b) {
  double fs = f(s), ft = f(t);
  bool increasing = !(ft < fs);
  double flo = increasing ? fs : ft, fhi = increasing ? ft : fs;
  if (fhi < ylo || flo > yhi) return false;
  // First x (from the low-value end) with f >= ylo, last with f <= yhi; brackets keep the outer
  // side.
  auto search = [&](double from, double to, auto inside) {
    // f(from) is outside, f(to) inside; returns a point on the outside of the boundary.
    for (int it = 0; it < 200; ++it) {
      double m = 0.5 * (from + to);
      if (m == from || m == to) break;
      if (inside(f(m)))
        to = m;
      else
        from = m;
    }
    return from;
  };
  double low_end = increasing ? s : t, high_end = increasing ? t : s;
  double x1 = flo >= ylo ? low_end : search(low_end, high_end, [&](double v) { return v >= ylo; });
  double x2 = fhi <= yhi ? high_end : search(high_end, low_end, [&](double v) { return v <= yhi; });
  a = std::min(x1, x2);
  b = std::max(x1, x2);
  return true;
}

struct Fit {
  double shift, err;
};

// How well the line through (a, f(a)) and (b, f(b)), shifted under `ratio`, approximates f on
// [a, b]; the error is relative to max(1, |f|) when `relative`.
Fit fit_piece(const Function &f, double a, double b, double fa, double fb, double ratio,
              bool relative) {
  double slope = (fb - fa) / (b - a);
  struct Sample {
    double x, fx, d;  // d = f(x) - line(x)
  };
  auto sample = [&](double x) {
    double fx = f(x);
    return Sample{x, fx, fx - (fa + slope * (x - a))};
  };
  std::vector<Sample> pts;
  pts.reserve(kSamples + 4);
  pts.push_back({a, fa, 0.0});
  for (int i = 1; i <= kSamples; ++i) pts.push_back(sample(a + (b - a) * i / (kSamples + 1)));
  pts.push_back({b, fb, 0.0});
  // Refine the largest deviations on either side by golden-section search around them.
  auto refine = [&](double sign) {
    size_t best = 0;
    for (size_t i = 1; i < pts.size(); ++i)
      if (sign * pts[i].d > sign * pts[best].d) best = i;
    if (best == 0 || best + 1 >= kSamples + 2) return;
    double l = pts[best - 1].x, r = pts[best + 1].x;
    const double g = 0.5 * (std::sqrt(5.0) - 1.0);
    Sample c = sample(r - g * (r - l)), d = sample(l + g * (r - l));
    for (int it = 0; it < 20; ++it) {
      if (sign * c.d > sign * d.d) {
        r = d.x, d = c;
        c = sample(r - g * (r - l));
      } else {
        l = c.x, c = d;
        d = sample(l + g * (r - l));
      }
    }
    pts.push_back(sign * c.d > sign * d.d ? c : d);
  };
  refine(1.0);
  refine(-1.0);
  double above = 0.0, below = 0.0;  // f above the line, f below the line
  for (const Sample &s : pts) above = std::max(above, s.d), below = std::max(below, -s.d);
  double shift = ratio < 0.0 ? 0.0 : ratio * above - (1.0 - ratio) * below;
  double err = 0.0;
  for (const Sample &s : pts) {
    double w = relative ? std::max(1.0, std::fabs(s.fx)) : 1.0;
    double e = std::fabs(shift - s.d) / w;
    if (!(e <= err)) err = e;  // NaN propagates as an unbounded error
  }
  return {shift, err};
}

// Greedy breakpoints with every piece's error within tol; empty when more than max_pieces.
std::vector<double> adaptive_breaks(const Function &f, double lo, double hi, double tol,
                                    double ratio, bool relative, int max_pieces) {
  std::vector<double> breaks{lo};
  double a = lo, fa = f(lo);
  double step = (hi - lo) / 16;
  while (a < hi) {
    if (static_cast<int>(breaks.size()) > max_pieces) return {};
    auto ok = [&](double len) {
      double b = len >= hi - a ? hi : a + len;
      return fit_piece(f, a, b, fa, f(b), ratio, relative).err <= tol;
    };
    double rest = hi - a;
    double min_len = 1e-12 * std::max(1.0, std::fabs(a));
    double good = 0.0, bad = 0.0;
    double len = std::min(step, rest);
    if (ok(len)) {
      good = len;
      while (good < rest) {
        double next = std::min(2 * good, rest);
        if (ok(next)) {
          good = next;
        } else {
          bad = next;
          break;
        }
      }
    } else {
      bad = len;
      while (true) {
        double next = bad / 2;
        if (next < min_len) {
          good = std::min(min_len, rest);  // f cannot be followed this closely: move on
          bad = 0.0;
          break;
        }
        if (ok(next)) {
          good = next;
          break;
        }
        bad = next;
      }
    }
    if (bad > 0.0)
      for (int it = 0; it < 10; ++it) {
        double mid = 0.5 * (good + bad);
        if (ok(mid))
          good = mid;
        else
          bad = mid;
      }
    double b = good >= rest ? hi : a + good;
    breaks.push_back(b);
    a = b, fa = f(b);
    step = good;
  }
  if (static_cast<int>(breaks.size()) - 1 > max_pieces) return {};
  return breaks;
}

std::vector<double> even_breaks(double lo, double hi, long long n) {
  std::vector<double> breaks(static_cast<size_t>(n) + 1);
  for (long long k = 0; k <= n; ++k) breaks[k] = lo + (hi - lo) * static_cast<double>(k) / n;
  breaks.back() = hi;
  return breaks;
}

std::vector<double> breakpoints(const Function &f, double lo, double hi, const Controls &c,
                                const std::string &what) {
  std::string range = std::string("[") + num(lo) + ", " + num(hi) + "]";
  if (c.pieces >= 1) {
    double n = c.pieces >= 2 ? c.pieces : std::ceil((hi - lo) / c.length);
    if (n > kMaxPieces)
      fail(KVR_ERROR_NOT_SUPPORTED,
           "%s: %s pieces on the range of x %s are more than the %d allowed; bound x more "
           "tightly or ask for fewer pieces",
           what.c_str(), num(n).c_str(), range.c_str(), kMaxPieces);
    return even_breaks(lo, hi, std::max(1LL, static_cast<long long>(n)));
  }
  if (c.pieces == -1 || c.pieces == -2) {
    std::vector<double> breaks =
        adaptive_breaks(f, lo, hi, c.error, c.ratio, c.pieces == -2, kMaxPieces);
    if (breaks.empty())
      fail(KVR_ERROR_NOT_SUPPORTED,
           "%s: keeping the %s error within %s needs more than %d pieces on the range of x %s; "
           "bound x more tightly or allow a larger FuncPieceError",
           what.c_str(), c.pieces == -1 ? "absolute" : "relative", num(c.error).c_str(), kMaxPieces,
           range.c_str());
    return breaks;
  }
  // Automatic.
  double tol = c.error;
  while (true) {
    bool last = tol >= kAutoRelax * c.error;
    std::vector<double> breaks =
        adaptive_breaks(f, lo, hi, tol, c.ratio, true, last ? kMaxPieces : kAutoPieces);
    if (!breaks.empty()) return breaks;
    if (last)
      fail(KVR_ERROR_NOT_SUPPORTED,
           "%s: even an error of %s needs more than %d pieces on the range of x %s; bound x "
           "more tightly or choose FuncPieces",
           what.c_str(), num(tol).c_str(), kMaxPieces, range.c_str());
    tol = std::min(2 * tol, kAutoRelax * c.error);
  }
}

}  // namespace

void rewrite_function(Builder &b, int gen, const ParamValues &params) {
  const ModelData &u = b.user();
  const GenConstr &g = u.gens.items[gen];
  std::string name = gen_name(u, gen);
  std::string what = "General constraint " + name + " (" + gen_type_name(g.type) + ")";
  Function f = make_function(g, what);
  Controls c = controls(g, params, what);
  int x = g.xvar, y = g.yvar;
  double m = c.maxval;
  double lo = std::max(b.lb(x), -m), hi = std::min(b.ub(x), m);
  double ylo = std::max(b.lb(y), -m), yhi = std::min(b.ub(y), m);
  if (b.lb(x) > b.ub(x) || b.lb(y) > b.ub(y)) {
    add_infeasible(b, name);  // contradictory bounds: the model is infeasible anyway
    return;
  }
  if (lo > hi)
    fail(KVR_ERROR_NOT_SUPPORTED, "%s: the bounds of %s [%s, %s] lie beyond FuncMaxVal %s",
         what.c_str(), var_name(u, x).c_str(), num(b.lb(x)).c_str(), num(b.ub(x)).c_str(),
         num(m).c_str());
  if (ylo > yhi)
    fail(KVR_ERROR_NOT_SUPPORTED, "%s: the bounds of %s [%s, %s] lie beyond FuncMaxVal %s",
         what.c_str(), var_name(u, y).c_str(), num(b.lb(y)).c_str(), num(b.ub(y)).c_str(),
         num(m).c_str());
  restrict_domain(f, lo, hi, what);

  std::vector<double> splits;
  if (monotone_splits(f, lo, hi, splits)) {
    double tlo = ylo - kRangeTol * std::max(1.0, std::fabs(ylo));
    double thi = yhi + kRangeTol * std::max(1.0, std::fabs(yhi));
    std::vector<double> pts{lo};
    pts.insert(pts.end(), splits.begin(), splits.end());
    pts.push_back(hi);
    double nlo = hi, nhi = lo;
    bool any = false;
    for (size_t k = 0; k + 1 < pts.size(); ++k) {
      double s, t;
      if (!monotone_preimage(f, pts[k], pts[k + 1], tlo, thi, s, t)) continue;
      nlo = any ? std::min(nlo, s) : s;
      nhi = any ? std::max(nhi, t) : t;
      any = true;
    }
    if (!any) {
      add_infeasible(b, name);  // no x in range gives an f(x) within y's bounds
      return;
    }
    lo = nlo, hi = nhi;
  }

  std::vector<Piece> pieces;
  if (hi - lo <= kTinyRange * std::max({1.0, std::fabs(lo), std::fabs(hi)})) {
    pieces.push_back({lo, hi, f(lo), f(hi)});
  } else {
    std::vector<double> breaks = breakpoints(f, lo, hi, c, what);
    pieces.reserve(breaks.size());
    for (size_t k = 0; k + 1 < breaks.size(); ++k) {
      double xa = breaks[k], xb = breaks[k + 1];
      double fa = f(xa), fb = f(xb);
      double shift = c.ratio < 0.0 ? 0.0 : fit_piece(f, xa, xb, fa, fb, c.ratio, false).shift;
      pieces.push_back({xa, xb, fa + shift, fb + shift});
    }
  }
  for (const Piece &p : pieces)
    if (!is_finite(p.ya) || !is_finite(p.yb) || std::isnan(p.ya) || std::isnan(p.yb))
      fail(KVR_ERROR_NOT_SUPPORTED,
           "%s: the function is not finite at x = %s within the range of x [%s, %s]; bound x "
           "more tightly",
           what.c_str(), num(!is_finite(p.ya) || std::isnan(p.ya) ? p.xa : p.xb).c_str(),
           num(lo).c_str(), num(hi).c_str());
  add_pwl(b, x, y, pieces, name);
}

}  // namespace kvr::reform
