#include <algorithm>
#include <limits>

#include "reform/internal.h"
#include "util/error.h"
#include "util/strings.h"

namespace kvr::reform {

namespace {
constexpr double kInfinity = std::numeric_limits<double>::infinity();

double implied_lb(double v) { return v <= -kInf ? -kInfinity : v; }
double implied_ub(double v) { return v >= kInf ? kInfinity : v; }
}  // namespace

Builder::Builder(ModelData &model, const ModelData &user) : m_(model), user_(user) {
  int n = user.num_vars();
  lb_.resize(n);
  ub_.resize(n);
  for (int j = 0; j < n; ++j) {
    double lo = implied_lb(user.vars.lb[j]), hi = implied_ub(user.vars.ub[j]);
    char t = user.vars.vtype[j];
    if (t == KVR_SEMICONT || t == KVR_SEMIINT) {
      // The variable may also be 0.
      lo = std::min(lo, 0.0);
      hi = std::max(hi, 0.0);
    }
    if (t == KVR_BINARY) lo = std::max(lo, 0.0), hi = std::min(hi, 1.0);
    lb_[j] = lo;
    ub_[j] = hi;
  }
}

void Builder::tighten(int j, double lo, double hi) {
  lb_[j] = std::max(lb_[j], implied_lb(lo));
  ub_[j] = std::min(ub_[j], implied_ub(hi));
}

bool Builder::integral(int j) const {
  char t = m_.vars.vtype[j];
  if (j < user_.num_vars()) t = user_.vars.vtype[j];
  return t == KVR_INTEGER || t == KVR_BINARY || t == KVR_SEMIINT;
}

int Builder::add_var(double lo, double hi, char vtype, const std::string &name) {
  const int j = m_.add_var(lo <= -kInf ? -KVR_INFINITY : lo, hi >= kInf ? KVR_INFINITY : hi, 0.0,
                           vtype, name);
  lb_.push_back(implied_lb(lo));
  ub_.push_back(implied_ub(hi));
  return j;
}

void Builder::add_row(const std::vector<Term> &terms, char sense, double rhs,
                      const std::string &name) {
  std::vector<Term> sorted(terms);
  std::stable_sort(sorted.begin(), sorted.end(),
                   [](const Term &a, const Term &b) { return a.var < b.var; });
  std::vector<int> ind;
  std::vector<double> val;
  for (size_t k = 0; k < sorted.size();) {
    double coef = 0.0;
    size_t e = k;
    for (; e < sorted.size() && sorted[e].var == sorted[k].var; ++e) coef += sorted[e].coef;
    if (coef != 0.0) ind.push_back(sorted[k].var), val.push_back(coef);
    k = e;
  }
  m_.add_constr(ind, val, sense, rhs, name);
}

double Builder::activity_bound(const std::vector<Term> &terms, bool upper, int *culprit) const {
  double sum = 0.0;
  if (culprit) *culprit = -1;
  for (const Term &t : terms) {
    if (t.coef == 0.0) continue;
    double bound = (t.coef > 0) == upper ? ub_[t.var] : lb_[t.var];
    if (!is_finite(bound)) {
      if (culprit) *culprit = t.var;
      return upper ? kInfinity : -kInfinity;
    }
    sum += t.coef * bound;
  }
  return sum;
}

std::string element_name(const NamePool &names, int i, const char *prefix) {
  if (i >= 0 && static_cast<size_t>(i) < names.size() && !names.get(i).empty())
    return std::string(names.get(i));
  return prefix + std::to_string(i);
}

std::string var_name(const ModelData &m, int j) { return element_name(m.vars.names, j, "C"); }
std::string constr_name(const ModelData &m, int i) { return element_name(m.constrs.names, i, "R"); }
std::string qconstr_name(const ModelData &m, int i) {
  return element_name(m.qconstrs.names, i, "QC");
}
std::string gen_name(const ModelData &m, int i) { return element_name(m.gens.names, i, "GC"); }

const char *gen_type_name(int type) {
  static const char *const names[] = {"MAX",       "MIN", "ABS",  "AND", "OR",   "NORM",
                                      "INDICATOR", "PWL", "POLY", "EXP", "EXPA", "LOG",
                                      "LOGA",      "POW", "SIN",  "COS", "TAN",  "LOGISTIC"};
  return type >= 0 && type <= KVR_GENCONSTR_LOGISTIC ? names[type] : "unknown";
}

std::string num(double v) {
  if (v >= kInf) return "inf";
  if (v <= -kInf) return "-inf";
  return num_text(v);
}

bool is_binary_var(const ModelData &m, int j) {
  char t = m.vars.vtype[j];
  if (t == KVR_BINARY) return true;
  return t == KVR_INTEGER && m.vars.lb[j] >= 0.0 && m.vars.ub[j] <= 1.0;
}

void add_infeasible(Builder &b, const std::string &owner) {
  int v = b.add_var(0.0, 0.0, KVR_CONTINUOUS, owner + "_infeasible");
  b.add_row({{v, 1.0}}, KVR_GREATER_EQUAL, 1.0, owner + "_infeasible");
}

}  // namespace kvr::reform
