// C entry points that add and read general constraints. Additions wait for the update whatever
// the update mode; readers show the constraints as of the last update.
#include <cmath>
#include <string>
#include <unordered_set>

#include "attrs/attr_access.h"
#include "capi/build.h"
#include "model/checks.h"
#include "util/strings.h"

namespace {

using namespace kvr;

const char *const kTypeNames[] = {"Max",       "Min", "Abs",  "And", "Or",   "Norm",
                                  "Indicator", "PWL", "Poly", "Exp", "ExpA", "Log",
                                  "LogA",      "Pow", "Sin",  "Cos", "Tan",  "Logistic"};

// Collects and checks one new general constraint, then queues it.
class NewGen {
 public:
  NewGen(kvr_model *m, const char *name, int type) : m_(m) {
    start_adding(m);
    nv_ = all_vars(m);
    index_ = m->data.gens.size() + m->pending.added.gens.size();
    name_ = checked_name(name, "general constraint", index_);
    g_.type = type;
  }

  int var(int v, const char *role) const {
    if (v < 0 || v >= nv_)
      fail(KVR_ERROR_INDEX_OUT_OF_RANGE,
           "General constraint %d (%s): %s index %d out of range (%d variables)", index_,
           kTypeNames[g_.type], role, v, nv_);
    return v;
  }

  std::vector<int> vars(int n, const int *v) const {
    check_count(n, "number of operands");
    check_array(v, n, "operand");
    for (int k = 0; k < n; ++k) var(v[k], "operand variable");
    return std::vector<int>(v, v + n);
  }

  double finite(double v, const char *what) const {
    if (std::isnan(v) || is_infinite(v))
      fail(std::isnan(v) ? KVR_ERROR_INVALID_ARGUMENT : KVR_ERROR_NUMERIC,
           "General constraint %d (%s): %s must be finite (got %g)", index_, kTypeNames[g_.type],
           what, v);
    return v;
  }

  [[noreturn]] void bad(const std::string &why) const {
    fail(KVR_ERROR_INVALID_ARGUMENT, "General constraint %d (%s): %s", index_, kTypeNames[g_.type],
         why.c_str());
  }

  // Options "FuncPieces=... FuncPieceError=... FuncPieceLength=... FuncPieceRatio=...",
  // separated by spaces or commas.
  void options(const char *text) {
    if (!text) return;
    g_.options = text;
    std::string_view rest(text);
    while (!rest.empty()) {
      size_t end = rest.find_first_of(" ,\t");
      std::string_view item = rest.substr(0, end);
      rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
      if (item.empty()) continue;
      size_t eq = item.find('=');
      double value = 0.0;
      if (eq == std::string_view::npos || !parse_double(item.substr(eq + 1), value))
        bad(format("option '%.*s' is not of the form Name=value", static_cast<int>(item.size()),
                   item.data()));
      std::string_view key = item.substr(0, eq);
      AttrId id = iequals(key, "FuncPieces")        ? AttrId::FuncPieces
                  : iequals(key, "FuncPieceError")  ? AttrId::FuncPieceError
                  : iequals(key, "FuncPieceLength") ? AttrId::FuncPieceLength
                  : iequals(key, "FuncPieceRatio")  ? AttrId::FuncPieceRatio
                                                    : AttrId::Count;
      if (id == AttrId::Count)
        bad(
            format("unknown option '%.*s' (use FuncPieces, FuncPieceError, FuncPieceLength or "
                   "FuncPieceRatio)",
                   static_cast<int>(key.size()), key.data()));
      value = checked_attr_value(id, index_, value);
      if (id == AttrId::FuncPieces) g_.funcpieces = static_cast<int>(value);
      if (id == AttrId::FuncPieceError) g_.funcpieceerror = value;
      if (id == AttrId::FuncPieceLength) g_.funcpiecelength = value;
      if (id == AttrId::FuncPieceRatio) g_.funcpieceratio = value;
    }
  }

  GenConstr &data() { return g_; }
  int index() const { return index_; }

  void commit() {
    m_->pending.added.add_genconstr(std::move(g_), ignore_names(m_) ? std::string_view() : name_);
  }

 private:
  kvr_model *m_;
  int nv_ = 0, index_ = 0;
  std::string_view name_;
  GenConstr g_;
};

int add_maxmin(KVRmodel *model, int type, const char *name, int resvar, int nvars, const int *vars,
               double constant) {
  return kvr::run_on_model(model, [&] {
    NewGen g(model, name, type);
    g.data().resvar = g.var(resvar, "resultant variable");
    g.data().vars = g.vars(nvars, vars);
    if (std::isnan(constant)) g.bad("the constant is NaN");
    g.data().constant = clip_infinite(constant);
    g.commit();
  });
}

int add_andor(KVRmodel *model, int type, const char *name, int resvar, int nvars, const int *vars) {
  return kvr::run_on_model(model, [&] {
    NewGen g(model, name, type);
    g.data().resvar = g.var(resvar, "resultant variable");
    g.data().vars = g.vars(nvars, vars);
    g.commit();
  });
}

// y = f(x) with an optional parameter a.
int add_function(KVRmodel *model, int type, const char *name, int xvar, int yvar, double a,
                 const char *options) {
  return kvr::run_on_model(model, [&] {
    NewGen g(model, name, type);
    GenConstr &d = g.data();
    d.xvar = g.var(xvar, "x variable");
    d.yvar = g.var(yvar, "y variable");
    if (type == KVR_GENCONSTR_EXPA || type == KVR_GENCONSTR_LOGA || type == KVR_GENCONSTR_POW) {
      d.a = g.finite(a, "the parameter a");
      if (type != KVR_GENCONSTR_POW && !(a > 0.0)) g.bad(format("the base %g must be positive", a));
      if (type == KVR_GENCONSTR_LOGA && a == 1.0) g.bad("the base of a logarithm cannot be 1");
    }
    g.options(options);
    g.commit();
  });
}

// Reading: the constraint must exist and be of the type asked for.
const GenConstr &gen_of(kvr_model *m, int id, int type) {
  check_queryable(m);
  check_index(id, m->data.gens.size(), "general constraint", "General constraint query");
  const GenConstr &g = m->data.gens.items[id];
  if (g.type != type)
    fail(KVR_ERROR_INVALID_ARGUMENT, "General constraint %d is of type %s, not %s", id,
         kTypeNames[g.type], kTypeNames[type]);
  return g;
}

template <class T>
void copy_out(const std::vector<T> &v, T *dst) {
  if (dst) std::copy(v.begin(), v.end(), dst);
}

template <class T>
void put(T *p, T v) {
  if (p) *p = v;
}

int get_function(KVRmodel *model, int type, int id, int *xvarP, int *yvarP, double *aP) {
  return kvr::run_on_model(model, [&] {
    const GenConstr &g = gen_of(model, id, type);
    put(xvarP, g.xvar);
    put(yvarP, g.yvar);
    put(aP, g.a);
  });
}

int get_vars(KVRmodel *model, int type, int id, int *resvarP, int *nvarsP, int *vars,
             double *constantP) {
  return kvr::run_on_model(model, [&] {
    const GenConstr &g = gen_of(model, id, type);
    put(resvarP, g.resvar);
    put(nvarsP, static_cast<int>(g.vars.size()));
    copy_out(g.vars, vars);
    put(constantP, g.constant);
  });
}

}  // namespace

extern "C" {

int KVRaddgenconstrMax(KVRmodel *model, const char *name, int resvar, int nvars, const int *vars,
                       double constant) {
  return add_maxmin(model, KVR_GENCONSTR_MAX, name, resvar, nvars, vars, constant);
}

int KVRaddgenconstrMin(KVRmodel *model, const char *name, int resvar, int nvars, const int *vars,
                       double constant) {
  return add_maxmin(model, KVR_GENCONSTR_MIN, name, resvar, nvars, vars, constant);
}

int KVRaddgenconstrAbs(KVRmodel *model, const char *name, int resvar, int argvar) {
  return kvr::run_on_model(model, [&] {
    NewGen g(model, name, KVR_GENCONSTR_ABS);
    g.data().resvar = g.var(resvar, "resultant variable");
    g.data().vars = {g.var(argvar, "argument variable")};
    g.commit();
  });
}

int KVRaddgenconstrAnd(KVRmodel *model, const char *name, int resvar, int nvars, const int *vars) {
  return add_andor(model, KVR_GENCONSTR_AND, name, resvar, nvars, vars);
}

int KVRaddgenconstrOr(KVRmodel *model, const char *name, int resvar, int nvars, const int *vars) {
  return add_andor(model, KVR_GENCONSTR_OR, name, resvar, nvars, vars);
}

int KVRaddgenconstrNorm(KVRmodel *model, const char *name, int resvar, int nvars, const int *vars,
                        double which) {
  return kvr::run_on_model(model, [&] {
    NewGen g(model, name, KVR_GENCONSTR_NORM);
    g.data().resvar = g.var(resvar, "resultant variable");
    g.data().vars = g.vars(nvars, vars);
    if (which != 0 && which != 1 && which != 2 && !(which >= KVR_INFINITY))
      g.bad(format("invalid norm %g: use 0, 1, 2 or KVR_INFINITY", which));
    std::unordered_set<int> seen;
    for (int v : g.data().vars)
      if (!seen.insert(v).second)
        fail(KVR_ERROR_DUPLICATES, "General constraint %d (Norm): variable %d appears twice",
             g.index(), v);
    g.data().constant = clip_infinite(which);
    g.commit();
  });
}

int KVRaddgenconstrIndicator(KVRmodel *model, const char *name, int binvar, int binval, int nvars,
                             const int *ind, const double *val, char sense, double rhs) {
  return kvr::run_on_model(model, [&] {
    NewGen g(model, name, KVR_GENCONSTR_INDICATOR);
    GenConstr &d = g.data();
    d.binvar = g.var(binvar, "indicator variable");
    if (binval != 0 && binval != 1) g.bad(format("the indicator value %d is not 0 or 1", binval));
    d.binval = binval;
    check_terms(nvars, ind, val, all_vars(model), "variable",
                format("general constraint %d (Indicator)", g.index()));
    check_sense(sense, "general constraint", g.index());
    if (std::isnan(rhs)) g.bad("the right-hand side is NaN");
    cleaned_terms(nvars, ind, val, d.ind, d.val);
    d.sense = sense;
    d.rhs = clip_infinite(rhs);
    g.commit();
  });
}

int KVRaddgenconstrPWL(KVRmodel *model, const char *name, int xvar, int yvar, int npts,
                       const double *xpts, const double *ypts) {
  return kvr::run_on_model(model, [&] {
    NewGen g(model, name, KVR_GENCONSTR_PWL);
    GenConstr &d = g.data();
    d.xvar = g.var(xvar, "x variable");
    d.yvar = g.var(yvar, "y variable");
    check_count(npts, "number of points");
    if (npts < 2)
      g.bad(format("a piecewise-linear function needs at least two points, not %d", npts));
    if (!xpts || !ypts) fail(KVR_ERROR_NULL_ARGUMENT, "No %s points given", xpts ? "y" : "x");
    for (int k = 0; k < npts; ++k) {
      g.finite(xpts[k], "every x point");
      g.finite(ypts[k], "every y point");
      if (k > 0 && xpts[k] < xpts[k - 1])
        g.bad(format("the x points decrease at point %d (%g after %g)", k, xpts[k], xpts[k - 1]));
    }
    d.xpts.assign(xpts, xpts + npts);
    d.ypts.assign(ypts, ypts + npts);
    g.commit();
  });
}

int KVRaddgenconstrPoly(KVRmodel *model, const char *name, int xvar, int yvar, int plen,
                        const double *p, const char *options) {
  return kvr::run_on_model(model, [&] {
    NewGen g(model, name, KVR_GENCONSTR_POLY);
    GenConstr &d = g.data();
    d.xvar = g.var(xvar, "x variable");
    d.yvar = g.var(yvar, "y variable");
    check_count(plen, "number of coefficients");
    if (plen == 0) g.bad("the polynomial has no coefficients");
    if (!p) fail(KVR_ERROR_NULL_ARGUMENT, "No coefficients given for the polynomial");
    for (int k = 0; k < plen; ++k) g.finite(p[k], "every coefficient");
    d.p.assign(p, p + plen);
    g.options(options);
    g.commit();
  });
}

int KVRaddgenconstrExp(KVRmodel *model, const char *name, int xvar, int yvar, const char *options) {
  return add_function(model, KVR_GENCONSTR_EXP, name, xvar, yvar, 0.0, options);
}
int KVRaddgenconstrExpA(KVRmodel *model, const char *name, int xvar, int yvar, double a,
                        const char *options) {
  return add_function(model, KVR_GENCONSTR_EXPA, name, xvar, yvar, a, options);
}
int KVRaddgenconstrLog(KVRmodel *model, const char *name, int xvar, int yvar, const char *options) {
  return add_function(model, KVR_GENCONSTR_LOG, name, xvar, yvar, 0.0, options);
}
int KVRaddgenconstrLogA(KVRmodel *model, const char *name, int xvar, int yvar, double a,
                        const char *options) {
  return add_function(model, KVR_GENCONSTR_LOGA, name, xvar, yvar, a, options);
}
int KVRaddgenconstrPow(KVRmodel *model, const char *name, int xvar, int yvar, double a,
                       const char *options) {
  return add_function(model, KVR_GENCONSTR_POW, name, xvar, yvar, a, options);
}
int KVRaddgenconstrLogistic(KVRmodel *model, const char *name, int xvar, int yvar,
                            const char *options) {
  return add_function(model, KVR_GENCONSTR_LOGISTIC, name, xvar, yvar, 0.0, options);
}
int KVRaddgenconstrSin(KVRmodel *model, const char *name, int xvar, int yvar, const char *options) {
  return add_function(model, KVR_GENCONSTR_SIN, name, xvar, yvar, 0.0, options);
}
int KVRaddgenconstrCos(KVRmodel *model, const char *name, int xvar, int yvar, const char *options) {
  return add_function(model, KVR_GENCONSTR_COS, name, xvar, yvar, 0.0, options);
}
int KVRaddgenconstrTan(KVRmodel *model, const char *name, int xvar, int yvar, const char *options) {
  return add_function(model, KVR_GENCONSTR_TAN, name, xvar, yvar, 0.0, options);
}

// ---------------------------------------------------------------- readers

int KVRgetgenconstrMax(KVRmodel *model, int id, int *resvarP, int *nvarsP, int *vars,
                       double *constantP) {
  return get_vars(model, KVR_GENCONSTR_MAX, id, resvarP, nvarsP, vars, constantP);
}
int KVRgetgenconstrMin(KVRmodel *model, int id, int *resvarP, int *nvarsP, int *vars,
                       double *constantP) {
  return get_vars(model, KVR_GENCONSTR_MIN, id, resvarP, nvarsP, vars, constantP);
}
int KVRgetgenconstrAbs(KVRmodel *model, int id, int *resvarP, int *argvarP) {
  return kvr::run_on_model(model, [&] {
    const GenConstr &g = gen_of(model, id, KVR_GENCONSTR_ABS);
    put(resvarP, g.resvar);
    put(argvarP, g.vars.at(0));
  });
}
int KVRgetgenconstrAnd(KVRmodel *model, int id, int *resvarP, int *nvarsP, int *vars) {
  return get_vars(model, KVR_GENCONSTR_AND, id, resvarP, nvarsP, vars, nullptr);
}
int KVRgetgenconstrOr(KVRmodel *model, int id, int *resvarP, int *nvarsP, int *vars) {
  return get_vars(model, KVR_GENCONSTR_OR, id, resvarP, nvarsP, vars, nullptr);
}
int KVRgetgenconstrNorm(KVRmodel *model, int id, int *resvarP, int *nvarsP, int *vars,
                        double *whichP) {
  return get_vars(model, KVR_GENCONSTR_NORM, id, resvarP, nvarsP, vars, whichP);
}
int KVRgetgenconstrIndicator(KVRmodel *model, int id, int *binvarP, int *binvalP, int *nvarsP,
                             int *ind, double *val, char *senseP, double *rhsP) {
  return kvr::run_on_model(model, [&] {
    const GenConstr &g = gen_of(model, id, KVR_GENCONSTR_INDICATOR);
    put(binvarP, g.binvar);
    put(binvalP, g.binval);
    put(nvarsP, static_cast<int>(g.ind.size()));
    copy_out(g.ind, ind);
    copy_out(g.val, val);
    put(senseP, g.sense);
    put(rhsP, g.rhs);
  });
}
int KVRgetgenconstrPWL(KVRmodel *model, int id, int *xvarP, int *yvarP, int *nptsP, double *xpts,
                       double *ypts) {
  return kvr::run_on_model(model, [&] {
    const GenConstr &g = gen_of(model, id, KVR_GENCONSTR_PWL);
    put(xvarP, g.xvar);
    put(yvarP, g.yvar);
    put(nptsP, static_cast<int>(g.xpts.size()));
    copy_out(g.xpts, xpts);
    copy_out(g.ypts, ypts);
  });
}
int KVRgetgenconstrPoly(KVRmodel *model, int id, int *xvarP, int *yvarP, int *plenP, double *p) {
  return kvr::run_on_model(model, [&] {
    const GenConstr &g = gen_of(model, id, KVR_GENCONSTR_POLY);
    put(xvarP, g.xvar);
    put(yvarP, g.yvar);
    put(plenP, static_cast<int>(g.p.size()));
    copy_out(g.p, p);
  });
}
int KVRgetgenconstrExp(KVRmodel *model, int id, int *xvarP, int *yvarP) {
  return get_function(model, KVR_GENCONSTR_EXP, id, xvarP, yvarP, nullptr);
}
int KVRgetgenconstrExpA(KVRmodel *model, int id, int *xvarP, int *yvarP, double *aP) {
  return get_function(model, KVR_GENCONSTR_EXPA, id, xvarP, yvarP, aP);
}
int KVRgetgenconstrLog(KVRmodel *model, int id, int *xvarP, int *yvarP) {
  return get_function(model, KVR_GENCONSTR_LOG, id, xvarP, yvarP, nullptr);
}
int KVRgetgenconstrLogA(KVRmodel *model, int id, int *xvarP, int *yvarP, double *aP) {
  return get_function(model, KVR_GENCONSTR_LOGA, id, xvarP, yvarP, aP);
}
int KVRgetgenconstrPow(KVRmodel *model, int id, int *xvarP, int *yvarP, double *aP) {
  return get_function(model, KVR_GENCONSTR_POW, id, xvarP, yvarP, aP);
}
int KVRgetgenconstrLogistic(KVRmodel *model, int id, int *xvarP, int *yvarP) {
  return get_function(model, KVR_GENCONSTR_LOGISTIC, id, xvarP, yvarP, nullptr);
}
int KVRgetgenconstrSin(KVRmodel *model, int id, int *xvarP, int *yvarP) {
  return get_function(model, KVR_GENCONSTR_SIN, id, xvarP, yvarP, nullptr);
}
int KVRgetgenconstrCos(KVRmodel *model, int id, int *xvarP, int *yvarP) {
  return get_function(model, KVR_GENCONSTR_COS, id, xvarP, yvarP, nullptr);
}
int KVRgetgenconstrTan(KVRmodel *model, int id, int *xvarP, int *yvarP) {
  return get_function(model, KVR_GENCONSTR_TAN, id, xvarP, yvarP, nullptr);
}

int KVRgetgenconstrslosingvars(KVRmodel *model, int numvars, const int *vars, int *countP,
                               int *ind) {
  return kvr::run_on_model(model, [&] {
    check_queryable(model);
    check_count(numvars, "number of variables");
    check_array(vars, numvars, "variable index");
    const int n = model->data.num_vars();
    std::vector<char> going(static_cast<size_t>(n), 0);
    for (int k = 0; k < numvars; ++k) {
      check_index(vars[k], n, "variable", "General constraints losing variables");
      going[static_cast<size_t>(vars[k])] = 1;
    }
    int count = 0;
    const auto &gens = model->data.gens.items;
    for (int i = 0; i < static_cast<int>(gens.size()); ++i)
      if (gen_loses_meaning(gens[i], [&](int v) { return going[static_cast<size_t>(v)] != 0; })) {
        if (ind) ind[count] = i;
        ++count;
      }
    put(countP, count);
  });
}

}  // extern "C"
