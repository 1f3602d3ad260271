// Semi-continuous variables, SOS constraints and the logical general constraints (max, min, abs,
// and, or, norm, indicator) as rows with binaries. Every big-M value comes from implied bounds;
// a big-M that would have to be infinite is reported with the variable that lacks the bound.
#include <algorithm>
#include <cmath>

#include "reform/internal.h"
#include "util/error.h"

namespace kvr::reform {

namespace {

std::string what_gen(const ModelData &u, int gen) {
  return "General constraint " + gen_name(u, gen) + " (" + gen_type_name(u.gens.items[gen].type) +
         ")";
}

[[noreturn]] void no_bound(const std::string &what, const ModelData &u, int var, bool upper) {
  fail(KVR_ERROR_NOT_SUPPORTED,
       "%s: variable %s has no finite %s bound (none given and none implied by the "
       "constraints), which the rewriting needs for a big-M value",
       what.c_str(), var_name(u, var).c_str(), upper ? "upper" : "lower");
}

// ---------------------------------------------------------------- max of affine options

// One candidate of a maximum: coef * x + constant (x < 0: the constant alone).
struct Option {
  int var;
  double coef, constant;
};

// rcoef * r = max over the options, with rows r >= each option and one binary per option that
// can be the maximum choosing the option r equals. Minima are maxima of negated terms (rcoef -1).
void add_max(Builder &b, int r, double rcoef, std::vector<Option> options, const std::string &owner,
             const std::string &what) {
  const ModelData &u = b.user();
  auto lo = [&](const Option &o) {
    if (o.var < 0) return o.constant;
    return o.constant + (o.coef > 0 ? o.coef * b.lb(o.var) : o.coef * b.ub(o.var));
  };
  auto hi = [&](const Option &o) {
    if (o.var < 0) return o.constant;
    return o.constant + (o.coef > 0 ? o.coef * b.ub(o.var) : o.coef * b.lb(o.var));
  };
  auto terms = [&](const Option &o, double sign) {
    std::vector<Term> t{{r, rcoef * sign}};
    if (o.var >= 0) t.push_back({o.var, -o.coef * sign});
    return t;
  };
  // r >= every option.
  for (size_t k = 0; k < options.size(); ++k)
    b.add_row(terms(options[k], 1.0), KVR_GREATER_EQUAL, options[k].constant,
              owner + "_ge" + std::to_string(k));
  // An option whose largest value is below another's smallest is never the maximum.
  double best_lo = -INFINITY;
  for (const Option &o : options) best_lo = std::max(best_lo, lo(o));
  std::vector<Option> live;
  for (const Option &o : options)
    if (!(hi(o) < best_lo)) live.push_back(o);
  // Largest value of rcoef * r: its implied bound, or the largest option.
  double rhi = rcoef > 0 ? b.ub(r) : -b.lb(r);
  double opt_hi = -INFINITY;
  for (const Option &o : live) opt_hi = std::max(opt_hi, hi(o));
  rhi = std::min(rhi, opt_hi);
  if (live.size() == 1) {
    b.add_row(terms(live[0], 1.0), KVR_EQUAL, live[0].constant, owner + "_eq");
    return;
  }
  if (!is_finite(rhi)) {
    for (const Option &o : live)
      if (!is_finite(hi(o))) no_bound(what, u, o.var, o.coef > 0);
    no_bound(what, u, r, rcoef > 0);
  }
  std::vector<double> big_m(live.size());
  for (size_t k = 0; k < live.size(); ++k) {
    const Option &o = live[k];
    if (!is_finite(lo(o))) no_bound(what, u, o.var, o.coef < 0);
    big_m[k] = rhi - lo(o);
    if (big_m[k] <= 0) {  // r can never exceed this option: it is the maximum
      b.add_row(terms(o, 1.0), KVR_EQUAL, o.constant, owner + "_eq");
      return;
    }
  }
  // rcoef r - option <= big_m (1 - z), one z per option, exactly one z set.
  std::vector<Term> pick;
  for (size_t k = 0; k < live.size(); ++k) {
    const Option &o = live[k];
    int z = b.add_binary(owner + "_z" + std::to_string(k));
    std::vector<Term> t = terms(o, 1.0);
    t.push_back({z, big_m[k]});
    b.add_row(t, KVR_LESS_EQUAL, o.constant + big_m[k], owner + "_le" + std::to_string(k));
    pick.push_back({z, 1.0});
  }
  b.add_row(pick, KVR_EQUAL, 1.0, owner + "_pick");
}

// ---------------------------------------------------------------- absolute values

// Adds rows for a = |x| (a a variable with a >= 0 allowed); x's bounds must be finite when its
// sign is open.
void add_abs(Builder &b, int a, int x, const std::string &owner, const std::string &what) {
  const ModelData &u = b.user();
  double lo = b.lb(x), hi = b.ub(x);
  if (lo >= 0) {
    b.add_row({{a, 1.0}, {x, -1.0}}, KVR_EQUAL, 0.0, owner + "_pos");
    return;
  }
  if (hi <= 0) {
    b.add_row({{a, 1.0}, {x, 1.0}}, KVR_EQUAL, 0.0, owner + "_neg");
    return;
  }
  if (!is_finite(lo)) no_bound(what, u, x, false);
  if (!is_finite(hi)) no_bound(what, u, x, true);
  // z = 1: x >= 0 and a = x; z = 0: x <= 0 and a = -x.
  int z = b.add_binary(owner + "_sign");
  b.add_row({{a, 1.0}, {x, -1.0}}, KVR_GREATER_EQUAL, 0.0, owner + "_gepos");
  b.add_row({{a, 1.0}, {x, 1.0}}, KVR_GREATER_EQUAL, 0.0, owner + "_geneg");
  b.add_row({{a, 1.0}, {x, -1.0}, {z, -2 * lo}}, KVR_LESS_EQUAL, -2 * lo, owner + "_lepos");
  b.add_row({{a, 1.0}, {x, 1.0}, {z, -2 * hi}}, KVR_LESS_EQUAL, 0.0, owner + "_leneg");
}

void require_binary_operands(const ModelData &u, const GenConstr &g, const std::string &what) {
  for (int j : g.vars)
    if (!is_binary_var(u, j))
      fail(KVR_ERROR_INVALID_ARGUMENT, "%s: operand %s is not a binary variable", what.c_str(),
           var_name(u, j).c_str());
}

// Keeps r within [0, 1] where its bounds do not already.
void unit_range(Builder &b, int r, const std::string &owner) {
  if (b.lb(r) < 0) b.add_row({{r, 1.0}}, KVR_GREATER_EQUAL, 0.0, owner + "_r0");
  if (b.ub(r) > 1) b.add_row({{r, 1.0}}, KVR_LESS_EQUAL, 1.0, owner + "_r1");
}

void rewrite_norm(Builder &b, int gen, const ParamValues &params) {
  const ModelData &u = b.user();
  const GenConstr &g = u.gens.items[gen];
  std::string owner = gen_name(u, gen), what = what_gen(u, gen);
  double which = g.constant;
  int r = g.resvar;
  if (which == 2.0)
    fail(KVR_ERROR_NOT_SUPPORTED,
         "%s: the 2-norm as an equality is not convex; only the cone y >= ||x|| is, written "
         "as the quadratic constraint sum x_i^2 <= y^2 with y >= 0",
         what.c_str());
  if (which != 0.0 && which != 1.0 && which < kInf)
    fail(KVR_ERROR_INVALID_ARGUMENT, "%s: the norm must be 0, 1, 2 or infinity, not %s",
         what.c_str(), num(which).c_str());
  if (g.vars.empty()) {
    b.add_row({{r, 1.0}}, KVR_EQUAL, 0.0, owner + "_empty");
    return;
  }
  if (which >= kInf) {
    std::vector<Option> options;
    for (int j : g.vars) {
      if (b.ub(j) > 0 || b.lb(j) >= 0) options.push_back({j, 1.0, 0.0});
      if (b.lb(j) < 0) options.push_back({j, -1.0, 0.0});
    }
    add_max(b, r, 1.0, options, owner, what);
    return;
  }
  std::vector<Term> sum{{r, 1.0}};
  double constant = 0.0;
  if (which == 1.0) {
    for (size_t k = 0; k < g.vars.size(); ++k) {
      int j = g.vars[k];
      if (b.lb(j) >= 0) {
        sum.push_back({j, -1.0});
      } else if (b.ub(j) <= 0) {
        sum.push_back({j, 1.0});
      } else {
        std::string tag = owner + "_abs" + std::to_string(k);
        if (!is_finite(b.lb(j))) no_bound(what, u, j, false);
        if (!is_finite(b.ub(j))) no_bound(what, u, j, true);
        int a = b.add_var(0.0, std::max(-b.lb(j), b.ub(j)), KVR_CONTINUOUS, tag);
        add_abs(b, a, j, tag, what);
        sum.push_back({a, -1.0});
      }
    }
  } else {
    // Count of nonzeros: binaries p (x > 0) and n (x < 0). A continuous x counts as nonzero from
    // 10 FeasibilityTol on, an integer one from 1.
    double tol = 10 * params.get_dbl(ParamId::FeasibilityTol);
    for (size_t k = 0; k < g.vars.size(); ++k) {
      int j = g.vars[k];
      double lo = b.lb(j), hi = b.ub(j);
      if (lo > 0 || hi < 0) {
        constant += 1.0;
        continue;
      }
      if (lo == 0 && hi == 0) continue;
      double eps = b.integral(j) ? 1.0 : tol;
      std::string tag = owner + "_nz" + std::to_string(k);
      std::vector<Term> upper{{j, 1.0}}, lower{{j, 1.0}};
      int p = -1, n = -1;
      if (hi > 0) {
        if (!is_finite(hi)) no_bound(what, u, j, true);
        p = b.add_binary(tag + "_pos");
        upper.push_back({p, -hi});
        lower.push_back({p, -std::min(eps, hi)});
        sum.push_back({p, -1.0});
      }
      if (lo < 0) {
        if (!is_finite(lo)) no_bound(what, u, j, false);
        n = b.add_binary(tag + "_neg");
        upper.push_back({n, std::min(eps, -lo)});
        lower.push_back({n, -lo});
        sum.push_back({n, -1.0});
      }
      b.add_row(upper, KVR_LESS_EQUAL, 0.0, tag + "_up");
      b.add_row(lower, KVR_GREATER_EQUAL, 0.0, tag + "_lo");
      if (p >= 0 && n >= 0) b.add_row({{p, 1.0}, {n, 1.0}}, KVR_LESS_EQUAL, 1.0, tag + "_one");
    }
  }
  b.add_row(sum, KVR_EQUAL, constant, owner + "_sum");
}

void rewrite_indicator(Builder &b, int gen) {
  const ModelData &u = b.user();
  const GenConstr &g = u.gens.items[gen];
  std::string owner = gen_name(u, gen), what = what_gen(u, gen);
  check_indicator(u, gen);
  int bin = g.binvar;
  std::vector<Term> terms;
  for (size_t k = 0; k < g.ind.size(); ++k) terms.push_back({g.ind[k], g.val[k]});
  // With the indicator fixed, the row either holds outright or not at all.
  if (b.lb(bin) == b.ub(bin)) {
    if (b.lb(bin) == g.binval) b.add_row(terms, g.sense, g.rhs, owner + "_fixed");
    return;
  }
  bool active_at_one = g.binval == 1;
  auto side = [&](bool upper) {
    double rhs = g.rhs;
    if (upper ? rhs >= kInf : rhs <= -kInf) return;  // always satisfied
    if (upper ? rhs <= -kInf : rhs >= kInf) {        // never satisfied: the indicator is off
      b.add_row({{bin, 1.0}}, KVR_EQUAL, active_at_one ? 0.0 : 1.0, owner + "_off");
      return;
    }
    int culprit = -1;
    double act = b.activity_bound(terms, upper, &culprit);
    double big_m = upper ? act - rhs : rhs - act;
    if (!is_finite(act)) {
      double coef = 0.0;
      for (const Term &t : terms)
        if (t.var == culprit) coef = t.coef;
      no_bound(what, u, culprit, (coef > 0) == upper);
    }
    if (big_m <= 0) return;  // the row holds whatever the indicator
    // upper: a x <= rhs + M (1 - z); lower: a x >= rhs - M (1 - z); z = bin or 1 - bin.
    double s = upper ? 1.0 : -1.0;
    std::vector<Term> row = terms;
    row.push_back({bin, active_at_one ? s * big_m : -s * big_m});
    double rside = active_at_one ? rhs + s * big_m : rhs;
    b.add_row(row, upper ? KVR_LESS_EQUAL : KVR_GREATER_EQUAL, rside,
              owner + (upper ? "_le" : "_ge"));
  };
  if (g.sense != KVR_GREATER_EQUAL) side(true);
  if (g.sense != KVR_LESS_EQUAL) side(false);
}

}  // namespace

void rewrite_semicontinuous(Builder &b) {
  const ModelData &u = b.user();
  ModelData &m = b.model();
  for (int j = 0; j < u.num_vars(); ++j) {
    char t = u.vars.vtype[j];
    if (t != KVR_SEMICONT && t != KVR_SEMIINT) continue;
    m.set_vtype(j, t == KVR_SEMICONT ? KVR_CONTINUOUS : KVR_INTEGER);
    double lo = u.vars.lb[j], hi = u.vars.ub[j];
    if (lo <= 0 && hi >= 0) continue;  // 0 is within the bounds: an ordinary variable
    std::string what = std::string(t == KVR_SEMICONT ? "Semi-continuous" : "Semi-integer") +
                       " variable " + var_name(u, j);
    std::string tag = std::string("_") + var_name(u, j) + "_on";
    int z = b.add_binary(tag);
    // z = 0: x = 0; z = 1: lo <= x <= hi.
    if (lo > 0) {
      double top = std::min(hi, b.ub(j));
      if (!is_finite(top))
        fail(KVR_ERROR_NOT_SUPPORTED,
             "%s has no finite upper bound (none given and none implied by the constraints), "
             "which the rewriting needs",
             what.c_str());
      m.set_lb(j, 0.0);
      b.add_row({{j, 1.0}, {z, -lo}}, KVR_GREATER_EQUAL, 0.0, tag + "_lo");
      b.add_row({{j, 1.0}, {z, -top}}, KVR_LESS_EQUAL, 0.0, tag + "_up");
    } else {
      double bottom = std::max(lo, b.lb(j));
      if (!is_finite(bottom))
        fail(KVR_ERROR_NOT_SUPPORTED,
             "%s has no finite lower bound (none given and none implied by the constraints), "
             "which the rewriting needs",
             what.c_str());
      m.set_ub(j, 0.0);
      b.add_row({{j, 1.0}, {z, -hi}}, KVR_LESS_EQUAL, 0.0, tag + "_up");
      b.add_row({{j, 1.0}, {z, -bottom}}, KVR_GREATER_EQUAL, 0.0, tag + "_lo");
    }
  }
}

// SOS constraints. Members are ordered by weight. Type 1: at most one member is nonzero; type 2:
// at most two, and then adjacent ones. The choices are "member k is the nonzero one" (type 1) or
// "members k and k+1 are" (type 2); member j may be nonzero only under the choices that include
// it, enforced by lb_j e_j <= x_j <= ub_j e_j with e_j the expression of those choices in the
// binaries. PreSOS<n>Encoding selects the binaries:
//   0  one binary per choice, at most one of them set;
//   1  one binary per choice, cumulative (y_k >= y_k+1; choice k is y_k - y_k+1): branching on one
//      binary splits the set into a left and a right part;
//   2  ceil(log2(choices)) binaries holding the choice's number (type 2: in Gray code, so that the
//      two choices of a member differ in one binary); each member gets a big-M row per binary
//      its choices agree on;
//   3  like 2, with the rows of members of one sign summed per binary (x_j / bound_j).
//   -1 (automatic) picks 0 for sets of up to 64 choices and 2 for larger ones.
// A type 1 set of binary variables is the row sum x <= 1. Members' big-M values are their implied
// bounds; PreSOS<n>BigM (when not -1) is the largest allowed.
void rewrite_sos(Builder &b, const ParamValues &params) {
  const ModelData &u = b.user();
  const SosData &sos = u.sos;
  for (int s = 0; s < sos.size(); ++s) {
    int type = sos.type[s];
    bool one = type == KVR_SOS_TYPE1;
    std::string owner = "SOS" + std::to_string(s);
    std::string what = "SOS constraint " + std::to_string(s);
    std::vector<std::pair<double, int>> members;
    for (int64_t k = sos.beg[s]; k < sos.beg[s + 1]; ++k)
      members.push_back({sos.weight[k], sos.ind[k]});
    std::stable_sort(members.begin(), members.end(),
                     [](const auto &a, const auto &c) { return a.first < c.first; });
    int n = static_cast<int>(members.size());
    int choices = one ? n : n - 1;
    if (choices <= 1) continue;  // at most one member, or two adjacent ones: nothing to enforce
    double cap = params.get_dbl(one ? ParamId::PreSOS1BigM : ParamId::PreSOS2BigM);
    int encoding = params.get_int(one ? ParamId::PreSOS1Encoding : ParamId::PreSOS2Encoding);
    if (encoding < 0) encoding = choices <= 64 ? 0 : 2;

    std::vector<int> var(n);
    std::vector<double> lo(n), hi(n);
    bool all_binary = true;
    for (int k = 0; k < n; ++k) {
      int j = members[k].second;
      var[k] = j;
      lo[k] = std::min(b.lb(j), 0.0);
      hi[k] = std::max(b.ub(j), 0.0);
      if (!(b.integral(j) && b.lb(j) >= 0 && b.ub(j) <= 1)) all_binary = false;
    }
    if (one && all_binary) {
      std::vector<Term> sum;
      for (int j : var) sum.push_back({j, 1.0});
      b.add_row(sum, KVR_LESS_EQUAL, 1.0, owner + "_sum");
      continue;
    }
    for (int k = 0; k < n; ++k) {
      if (!is_finite(hi[k])) no_bound(what, u, var[k], true);
      if (!is_finite(lo[k])) no_bound(what, u, var[k], false);
      double big_m = std::max(hi[k], -lo[k]);
      if (cap >= 0 && big_m > cap)
        fail(KVR_ERROR_NOT_SUPPORTED,
             "%s: variable %s needs a big-M value of %s, more than %s = %s", what.c_str(),
             var_name(u, var[k]).c_str(), num(big_m).c_str(), one ? "PreSOS1BigM" : "PreSOS2BigM",
             num(cap).c_str());
    }
    // Choices member k belongs to: [first(k), last(k)].
    auto first = [&](int k) { return one ? k : std::max(k - 1, 0); };
    auto last = [&](int k) { return one ? k : std::min(k, choices - 1); };
    // lo_k e <= x_k <= hi_k e for e = sum of coefficient * binary + constant.
    auto link = [&](int k, std::vector<Term> e, double constant, const std::string &tag) {
      int j = var[k];
      if (hi[k] > 0) {
        std::vector<Term> row{{j, 1.0}};
        for (const Term &t : e) row.push_back({t.var, -hi[k] * t.coef});
        b.add_row(row, KVR_LESS_EQUAL, hi[k] * constant, tag + "_up");
      }
      if (lo[k] < 0) {
        std::vector<Term> row{{j, 1.0}};
        for (const Term &t : e) row.push_back({t.var, -lo[k] * t.coef});
        b.add_row(row, KVR_GREATER_EQUAL, lo[k] * constant, tag + "_lo");
      }
    };
    if (encoding == 0 || encoding == 1) {
      std::vector<int> z(choices);
      for (int c = 0; c < choices; ++c) z[c] = b.add_binary(owner + "_z" + std::to_string(c));
      if (encoding == 0) {
        std::vector<Term> pick;
        for (int c = 0; c < choices; ++c) pick.push_back({z[c], 1.0});
        b.add_row(pick, KVR_LESS_EQUAL, 1.0, owner + "_pick");
      } else {
        for (int c = 0; c + 1 < choices; ++c)
          b.add_row({{z[c], 1.0}, {z[c + 1], -1.0}}, KVR_GREATER_EQUAL, 0.0,
                    owner + "_order" + std::to_string(c));
      }
      for (int k = 0; k < n; ++k) {
        std::vector<Term> e;
        if (encoding == 0) {
          for (int c = first(k); c <= last(k); ++c) e.push_back({z[c], 1.0});
        } else {
          e.push_back({z[first(k)], 1.0});
          if (last(k) + 1 < choices) e.push_back({z[last(k) + 1], -1.0});
        }
        link(k, e, 0.0, owner + "_m" + std::to_string(k));
      }
      continue;
    }
    // Logarithmic encodings.
    int bits = 0;
    while ((1 << bits) < choices) ++bits;
    std::vector<int> y(bits);
    for (int t = 0; t < bits; ++t) y[t] = b.add_binary(owner + "_bit" + std::to_string(t));
    auto code = [&](int c) { return one ? c : c ^ (c >> 1); };
    // Per binary and value: the normalized members of one sign that need that value.
    std::vector<std::vector<Term>> groups(2 * static_cast<size_t>(bits));
    for (int k = 0; k < n; ++k) {
      if (lo[k] == 0 && hi[k] == 0) continue;
      bool one_sign = lo[k] >= 0 || hi[k] <= 0;
      for (int t = 0; t < bits; ++t) {
        int v = (code(first(k)) >> t) & 1;
        bool agree = true;
        for (int c = first(k); c <= last(k); ++c)
          if (((code(c) >> t) & 1) != v) agree = false;
        if (!agree) continue;
        if (encoding == 3 && one_sign) {
          double scale = hi[k] > 0 ? hi[k] : lo[k];
          groups[2 * t + v].push_back({var[k], 1.0 / scale});
        } else if (v == 1) {
          link(k, {{y[t], 1.0}}, 0.0, owner + "_m" + std::to_string(k) + "_" + std::to_string(t));
        } else {
          link(k, {{y[t], -1.0}}, 1.0, owner + "_m" + std::to_string(k) + "_" + std::to_string(t));
        }
      }
    }
    double most = one ? 1.0 : 2.0;  // nonzero members at once
    for (int t = 0; t < bits; ++t)
      for (int v = 0; v < 2; ++v) {
        std::vector<Term> row = groups[2 * t + v];
        if (row.empty()) continue;
        row.push_back({y[t], v == 1 ? -most : most});
        b.add_row(row, KVR_LESS_EQUAL, v == 1 ? 0.0 : most,
                  owner + "_g" + std::to_string(t) + "_" + std::to_string(v));
      }
  }
}

void rewrite_logical(Builder &b, int gen, const ParamValues &params) {
  const ModelData &u = b.user();
  const GenConstr &g = u.gens.items[gen];
  std::string owner = gen_name(u, gen), what = what_gen(u, gen);
  int r = g.resvar;
  switch (g.type) {
    case KVR_GENCONSTR_MAX:
    case KVR_GENCONSTR_MIN: {
      bool is_max = g.type == KVR_GENCONSTR_MAX;
      double s = is_max ? 1.0 : -1.0;
      if (std::isnan(g.constant))
        fail(KVR_ERROR_INVALID_ARGUMENT, "%s: the constant is NaN", what.c_str());
      std::vector<Option> options;
      for (int j : g.vars) options.push_back({j, s, 0.0});
      double c = s * g.constant;
      if (c > -kInf) options.push_back({-1, 0.0, c});
      if (options.empty())
        fail(KVR_ERROR_INVALID_ARGUMENT, "%s: no operands and no constant", what.c_str());
      add_max(b, r, s, options, owner, what);
      break;
    }
    case KVR_GENCONSTR_ABS:
      if (g.vars.size() != 1)
        fail(KVR_ERROR_INVALID_ARGUMENT, "%s: needs exactly one argument, not %zu", what.c_str(),
             g.vars.size());
      add_abs(b, r, g.vars[0], owner, what);
      break;
    case KVR_GENCONSTR_AND:
    case KVR_GENCONSTR_OR: {
      require_binary_operands(u, g, what);
      bool is_and = g.type == KVR_GENCONSTR_AND;
      if (g.vars.empty()) {
        b.add_row({{r, 1.0}}, KVR_EQUAL, is_and ? 1.0 : 0.0, owner + "_empty");
        break;
      }
      // and: r <= x_i, r >= sum x - (n - 1); or: r >= x_i, r <= sum x.
      std::vector<Term> sum{{r, 1.0}};
      for (size_t k = 0; k < g.vars.size(); ++k) {
        b.add_row({{r, 1.0}, {g.vars[k], -1.0}}, is_and ? KVR_LESS_EQUAL : KVR_GREATER_EQUAL, 0.0,
                  owner + "_" + std::to_string(k));
        sum.push_back({g.vars[k], -1.0});
      }
      double n = static_cast<double>(g.vars.size());
      b.add_row(sum, is_and ? KVR_GREATER_EQUAL : KVR_LESS_EQUAL, is_and ? 1.0 - n : 0.0,
                owner + "_sum");
      unit_range(b, r, owner);
      break;
    }
    case KVR_GENCONSTR_NORM:
      rewrite_norm(b, gen, params);
      break;
    case KVR_GENCONSTR_INDICATOR:
      rewrite_indicator(b, gen);
      break;
    default:
      break;
  }
}

void check_indicator(const ModelData &u, int gen) {
  const GenConstr &g = u.gens.items[gen];
  std::string what = what_gen(u, gen);
  int bin = g.binvar;
  if (!is_binary_var(u, bin))
    fail(KVR_ERROR_INVALID_ARGUMENT, "%s: indicator variable %s is not binary", what.c_str(),
         var_name(u, bin).c_str());
  if (g.binval != 0 && g.binval != 1)
    fail(KVR_ERROR_INVALID_ARGUMENT, "%s: indicator value %d is neither 0 nor 1", what.c_str(),
         g.binval);
  if (g.sense != KVR_LESS_EQUAL && g.sense != KVR_GREATER_EQUAL && g.sense != KVR_EQUAL)
    fail(KVR_ERROR_INVALID_ARGUMENT, "%s: invalid sense '%c'", what.c_str(), g.sense);
  if (std::isnan(g.rhs))
    fail(KVR_ERROR_INVALID_ARGUMENT, "%s: the right-hand side is NaN", what.c_str());
  for (size_t k = 0; k < g.ind.size(); ++k)
    if (!std::isfinite(g.val[k]) || std::fabs(g.val[k]) >= kInf)
      fail(KVR_ERROR_INVALID_ARGUMENT, "%s: coefficient of %s is not finite", what.c_str(),
           var_name(u, g.ind[k]).c_str());
}

}  // namespace kvr::reform
