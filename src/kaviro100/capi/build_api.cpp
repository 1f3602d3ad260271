// C entry points that build a model: variables, linear, range, quadratic and SOS constraints,
// objectives, coefficient changes and deletions. Every input is checked before anything changes.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <unordered_map>

#include "capi/build.h"
#include "model/checks.h"

namespace kvr {

// ---------------------------------------------------------------- shared helpers

void check_new_vars(const NewVars &nv, int first) {
  check_count(nv.n, "number of variables");
  for (int k = 0; k < nv.n; ++k) {
    const int j = first + k;
    if (nv.obj) checked_coeff(nv.obj[k], "Objective coefficient of variable", j);
    if (nv.lb) checked_bound(nv.lb[k], "Lower bound of variable", j);
    if (nv.ub) checked_bound(nv.ub[k], "Upper bound of variable", j);
    const char *why = impossible_bounds(nv.lb ? clip_infinite(nv.lb[k]) : 0.0,
                                        nv.ub ? clip_infinite(nv.ub[k]) : KVR_INFINITY);
    if (why) fail(KVR_ERROR_INVALID_ARGUMENT, "Variable %d cannot take any value: %s", j, why);
    if (nv.vtype) check_vtype(nv.vtype[k], j);
    if (nv.names) checked_name(nv.names[k], "variable", j);
  }
}

void append_new_vars(ModelData &d, const NewVars &nv, bool ignore_names) {
  const int before = d.num_vars();
  try {
    d.reserve_vars(static_cast<size_t>(before) + static_cast<size_t>(nv.n));
    const bool named = nv.names && !ignore_names;
    for (int k = 0; k < nv.n; ++k)
      d.add_var(nv.lb ? clip_infinite(nv.lb[k]) : 0.0,
                nv.ub ? clip_infinite(nv.ub[k]) : KVR_INFINITY,
                nv.obj ? clip_infinite(nv.obj[k]) : 0.0, nv.vtype ? nv.vtype[k] : KVR_CONTINUOUS,
                named && nv.names[k] ? nv.names[k] : "");
  } catch (...) {
    // Out of memory part way: no variable is half added.
    d.truncate_vars(before);
    throw;
  }
}

void check_terms(int n, const int *ind, const double *val, int count, const char *kind,
                 const std::string &what) {
  if (n < 0)
    fail(KVR_ERROR_INVALID_ARGUMENT, "Negative number of terms (%d) for %s", n, what.c_str());
  if (n > 0 && (!ind || !val))
    fail(KVR_ERROR_NULL_ARGUMENT, "No %s array given for the %d terms of %s",
         ind ? "value" : "index", n, what.c_str());
  for (int k = 0; k < n; ++k) {
    if (ind[k] < 0 || ind[k] >= count)
      fail(KVR_ERROR_INDEX_OUT_OF_RANGE, "Term %d of %s: %s index %d out of range (%d %ss)", k,
           what.c_str(), kind, ind[k], count, kind);
    if (std::isnan(val[k]))
      fail(KVR_ERROR_INVALID_ARGUMENT, "Term %d of %s: the coefficient is NaN", k, what.c_str());
    if (is_infinite(val[k]))
      fail(KVR_ERROR_NUMERIC, "Term %d of %s: the coefficient is infinite (%g); it must be finite",
           k, what.c_str(), val[k]);
  }
}

void check_quad_terms(int n, const int *row, const int *col, const double *val, int nvars,
                      const std::string &what) {
  if (n < 0)
    fail(KVR_ERROR_INVALID_ARGUMENT, "Negative number of quadratic terms (%d) for %s", n,
         what.c_str());
  if (n > 0 && (!row || !col || !val))
    fail(KVR_ERROR_NULL_ARGUMENT, "Missing array for the %d quadratic terms of %s", n,
         what.c_str());
  for (int k = 0; k < n; ++k) {
    for (int v : {row[k], col[k]})
      if (v < 0 || v >= nvars)
        fail(KVR_ERROR_INDEX_OUT_OF_RANGE,
             "Quadratic term %d of %s: variable index %d out of range (%d variables)", k,
             what.c_str(), v, nvars);
    if (std::isnan(val[k]))
      fail(KVR_ERROR_INVALID_ARGUMENT, "Quadratic term %d of %s: the coefficient is NaN", k,
           what.c_str());
    if (is_infinite(val[k]))
      fail(KVR_ERROR_NUMERIC,
           "Quadratic term %d of %s: the coefficient is infinite (%g); it must be finite", k,
           what.c_str(), val[k]);
  }
}

void cleaned_terms(int n, const int *ind, const double *val, std::vector<int> &oind,
                   std::vector<double> &oval) {
  oind.assign(ind, ind + n);
  oval.assign(val, val + n);
  size_t len = clean_terms(oind.data(), oval.data(), oind.size());
  oind.resize(len);
  oval.resize(len);
}

QuadTerms normalized_quad(int n, const int *row, const int *col, const double *val) {
  QuadTerms q;
  q.add(n, row, col, val);
  q.normalize();
  return q;
}

bool start_adding(kvr_model *m) {
  check_modifiable(m);
  const bool at_once = update_mode(m) == 1;
  if (at_once && m->pending.queued_mode0)
    fail(KVR_ERROR_UPDATEMODE_CHANGE,
         "UpdateMode was changed to 1 while variables or constraints added in update mode 0 are "
         "waiting for the update; their positions would clash with elements added now. Call "
         "KVRupdatemodel first");
  return at_once;
}

ModelData &linear_target(kvr_model *m, bool at_once) {
  if (at_once) return m->data;
  m->pending.queued_mode0 = true;
  return m->pending.added;
}

void added_at_once(kvr_model *m, int vars, int constrs) {
  m->unshown_vars += vars;
  m->unshown_constrs += constrs;
  data_changed(m);
  m->changed_since_update = true;
}

bool ignore_names(const kvr_model *m) { return m->env.params.get_int(ParamId::IgnoreNames) != 0; }

}  // namespace kvr

namespace {

using namespace kvr;

std::string element_text(const char *kind, int i) { return format("%s %d", kind, i); }

// Start and end of entry k of a compressed list of `count` items over `nnz` entries.
void check_begins(int count, int nnz, const int *beg, const char *name) {
  if (count > 0 && nnz > 0 && !beg) fail(KVR_ERROR_NULL_ARGUMENT, "No %s array given", name);
  if (nnz == 0) return;
  // Name the entry that is wrong: out of [0, nnz], or below the one before it.
  for (int k = 0; k < count; ++k) {
    if (beg[k] < 0 || beg[k] > nnz)
      fail(KVR_ERROR_INVALID_ARGUMENT, "%s[%d] = %d is out of range (%d entries in all)", name, k,
           beg[k], nnz);
    if (k > 0 && beg[k] < beg[k - 1])
      fail(KVR_ERROR_INVALID_ARGUMENT, "%s[%d] = %d is below %s[%d] = %d: begins must not decrease",
           name, k, beg[k], name, k - 1, beg[k - 1]);
  }
}

inline int span_begin(const int *beg, int nnz, int k) { return nnz == 0 ? 0 : beg[k]; }
inline int span_end(const int *beg, int count, int nnz, int k) {
  return nnz == 0 ? 0 : k + 1 < count ? beg[k + 1] : nnz;
}

void append_generated_name(std::string &s, const char *prefix, int i) {
  s.append(prefix);
  char digits[16];
  auto [end, ec] = std::to_chars(digits, digits + sizeof digits, i);
  s.append(digits, end);
}

// Shared body of KVRaddconstrs and KVRaddrangeconstrs: range rows carry lower/upper, plain rows
// sense/rhs.
void add_rows(kvr_model *m, int count, int nnz, const int *beg, const int *ind, const double *val,
              const char *sense, const double *rhs, const double *lower, const double *upper,
              const char *const *names) {
  const bool at_once = start_adding(m);
  check_count(count, "number of constraints");
  check_count(nnz, "number of nonzeros");
  const bool ranges = lower || upper;
  if (count > 0 && !ranges && !sense)
    fail(KVR_ERROR_NULL_ARGUMENT, "No sense array given for %d constraints", count);
  if (count > 0 && ranges && (!lower || !upper))
    fail(KVR_ERROR_NULL_ARGUMENT, "No %s array given for %d range constraints",
         lower ? "upper" : "lower", count);
  check_begins(count, nnz, beg, "cbeg");
  if (nnz > 0 && (!ind || !val))
    fail(KVR_ERROR_NULL_ARGUMENT, "No %s array given for %d nonzeros", ind ? "value" : "index",
         nnz);
  const int nv = all_vars(m);
  const int first = all_constrs(m);
  for (int i = 0; i < count; ++i) {
    const int b = span_begin(beg, nnz, i), e = span_end(beg, count, nnz, i);
    check_terms(e - b, ind + b, val + b, nv, "variable", element_text("constraint", first + i));
    const char *why = nullptr;
    if (ranges) {
      checked_bound(lower[i], "Lower side of range constraint", first + i);
      checked_bound(upper[i], "Upper side of range constraint", first + i);
      why = impossible_bounds(clip_infinite(lower[i]), clip_infinite(upper[i]));
    } else {
      check_sense(sense[i], "constraint", first + i);
      if (rhs) checked_bound(rhs[i], "Right-hand side of constraint", first + i);
      if (rhs) why = impossible_rhs(sense[i], clip_infinite(rhs[i]));
    }
    if (why)
      fail(KVR_ERROR_INVALID_ARGUMENT, "Constraint %d cannot be satisfied: %s", first + i, why);
    if (names) checked_name(names[i], "constraint", first + i);
  }

  ModelData &t = linear_target(m, at_once);
  const bool no_names = ignore_names(m);
  // A range whose sides are both finite (or both infinite) becomes expr - r = 0 with a range
  // variable r in [lower, upper]; one infinite side makes it a plain inequality. Sides beyond
  // 1e25 count as infinite, as the modelling layer counts them.
  auto range_var = [](double lo, double up) { return (lo <= -1e25) == (up >= 1e25); };
  std::vector<int> rind;
  std::vector<double> rval;
  std::vector<double> rv_lb, rv_ub;
  std::vector<std::string> rv_names;
  int next_var = nv;
  for (int i = 0; i < count; ++i) {
    const int b = span_begin(beg, nnz, i), e = span_end(beg, count, nnz, i);
    cleaned_terms(e - b, ind + b, val + b, rind, rval);
    char s = ranges ? KVR_EQUAL : sense[i];
    double r = ranges ? 0.0 : rhs ? clip_infinite(rhs[i]) : 0.0;
    std::string_view name = names && names[i] && !no_names ? names[i] : "";
    if (ranges) {
      if (range_var(lower[i], upper[i])) {
        rind.push_back(next_var++);
        rval.push_back(-1.0);
        rv_lb.push_back(clip_infinite(lower[i]));
        rv_ub.push_back(clip_infinite(upper[i]));
        std::string rn;
        if (!no_names) {
          rn = "Rg";
          if (name.empty())
            append_generated_name(rn, "R", first + i);
          else
            rn.append(name);
        }
        rv_names.push_back(std::move(rn));
      } else if (lower[i] <= -1e25) {
        s = KVR_LESS_EQUAL, r = clip_infinite(upper[i]);
      } else {
        s = KVR_GREATER_EQUAL, r = clip_infinite(lower[i]);
      }
    }
    t.add_constr(rind, rval, s, r, name);
  }
  if (!rv_lb.empty()) {
    std::vector<const char *> ptrs;
    for (const std::string &n : rv_names) ptrs.push_back(n.c_str());
    NewVars vars{
        static_cast<int>(rv_lb.size()), nullptr, rv_lb.data(), rv_ub.data(), nullptr, ptrs.data()};
    append_new_vars(t, vars, false);
  }
  if (at_once) added_at_once(m, static_cast<int>(rv_lb.size()), count);
}

// Checks the indices of a deletion of `kind` elements (`count` of them now) and queues it.
void queue_deletions(kvr_model *m, int numdel, const int *ind, int count, const char *kind,
                     std::vector<int> &queue) {
  check_modifiable(m);
  check_count(numdel, "number of elements to delete");
  check_array(ind, numdel, "index");
  for (int k = 0; k < numdel; ++k)
    if (ind[k] < 0 || ind[k] >= count)
      fail(KVR_ERROR_INDEX_OUT_OF_RANGE,
           "Cannot delete %s %d: index out of range (the model has %d %ss)", kind, ind[k], count,
           kind);
  queue.insert(queue.end(), ind, ind + numdel);
}

void check_objective_sense(int sense) {
  if (sense != 0 && sense != KVR_MINIMIZE && sense != KVR_MAXIMIZE)
    fail(KVR_ERROR_INVALID_ARGUMENT,
         "Invalid objective sense %d: use 1 (minimize), -1 (maximize) or 0 (keep)", sense);
}

void check_constant(double c, const char *what) {
  if (std::isnan(c)) fail(KVR_ERROR_INVALID_ARGUMENT, "The constant of %s is NaN", what);
  if (is_infinite(c))
    fail(KVR_ERROR_NUMERIC, "The constant of %s is infinite; it must be finite", what);
}

}  // namespace

extern "C" {

int KVRaddvars(KVRmodel *model, int numvars, int numnz, const int *vbeg, const int *vind,
               const double *vval, const double *obj, const double *lb, const double *ub,
               const char *vtype, const char *const *varnames) {
  return kvr::run_on_model(model, [&] {
    const bool at_once = start_adding(model);
    check_count(numvars, "number of variables");
    check_count(numnz, "number of nonzeros");
    const int first = all_vars(model);
    NewVars nv{numvars, obj, lb, ub, vtype, varnames};
    check_new_vars(nv, first);
    check_begins(numvars, numnz, vbeg, "vbeg");
    if (numnz > 0 && (!vind || !vval))
      fail(KVR_ERROR_NULL_ARGUMENT, "No %s array given for %d nonzeros", vind ? "value" : "index",
           numnz);
    const int nc = all_constrs(model);
    std::vector<SparseMatrix::Entry> cols;
    std::vector<int> cind;
    std::vector<double> cval;
    for (int k = 0; k < numvars && numnz > 0; ++k) {
      const int b = vbeg[k], e = span_end(vbeg, numvars, numnz, k);
      check_terms(e - b, vind + b, vval + b, nc, "constraint", element_text("variable", first + k));
      cleaned_terms(e - b, vind + b, vval + b, cind, cval);
      for (size_t t = 0; t < cind.size(); ++t) cols.push_back({cind[t], first + k, cval[t]});
    }
    ModelData &t = linear_target(model, at_once);
    append_new_vars(t, nv, ignore_names(model));
    if (at_once) {
      t.add_matrix_entries(cols);
      added_at_once(model, numvars, 0);
    } else {
      model->pending.added_cols.insert(model->pending.added_cols.end(), cols.begin(), cols.end());
    }
  });
}

int KVRaddvar(KVRmodel *model, int numnz, const int *vind, const double *vval, double obj,
              double lb, double ub, char vtype, const char *varname) {
  const int beg = 0;
  return KVRaddvars(model, 1, numnz, &beg, vind, vval, &obj, &lb, &ub, &vtype, &varname);
}

int KVRaddconstrs(KVRmodel *model, int numconstrs, int numnz, const int *cbeg, const int *cind,
                  const double *cval, const char *sense, const double *rhs,
                  const char *const *constrnames) {
  return kvr::run_on_model(model, [&] {
    add_rows(model, numconstrs, numnz, cbeg, cind, cval, sense, rhs, nullptr, nullptr, constrnames);
  });
}

int KVRaddconstr(KVRmodel *model, int numnz, const int *cind, const double *cval, char sense,
                 double rhs, const char *constrname) {
  const int beg = 0;
  return KVRaddconstrs(model, 1, numnz, &beg, cind, cval, &sense, &rhs, &constrname);
}

int KVRaddrangeconstrs(KVRmodel *model, int numconstrs, int numnz, const int *cbeg, const int *cind,
                       const double *cval, const double *lower, const double *upper,
                       const char *const *constrnames) {
  return kvr::run_on_model(model, [&] {
    if (numconstrs > 0 && (!lower || !upper))
      fail(KVR_ERROR_NULL_ARGUMENT, "No %s array given for %d range constraints",
           lower ? "upper" : "lower", numconstrs);
    add_rows(model, numconstrs, numnz, cbeg, cind, cval, nullptr, nullptr, lower, upper,
             constrnames);
  });
}

int KVRaddrangeconstr(KVRmodel *model, int numnz, const int *cind, const double *cval, double lower,
                      double upper, const char *constrname) {
  const int beg = 0;
  return KVRaddrangeconstrs(model, 1, numnz, &beg, cind, cval, &lower, &upper, &constrname);
}

int KVRaddqconstr(KVRmodel *model, int numlnz, const int *lind, const double *lval, int numqnz,
                  const int *qrow, const int *qcol, const double *qval, char sense, double rhs,
                  const char *QCname) {
  return kvr::run_on_model(model, [&] {
    start_adding(model);
    const int nv = all_vars(model);
    const int index = model->data.qconstrs.size() + model->pending.added.qconstrs.size();
    const std::string what = element_text("quadratic constraint", index);
    check_terms(numlnz, lind, lval, nv, "variable", what);
    check_quad_terms(numqnz, qrow, qcol, qval, nv, what);
    check_sense(sense, "quadratic constraint", index);
    checked_bound(rhs, "Right-hand side of quadratic constraint", index);
    std::string_view name = checked_name(QCname, "quadratic constraint", index);

    QConstr qc;
    cleaned_terms(numlnz, lind, lval, qc.lind, qc.lval);
    qc.q = normalized_quad(numqnz, qrow, qcol, qval);
    qc.sense = sense;
    qc.rhs = clip_infinite(rhs);
    model->pending.added.add_qconstr(std::move(qc),
                                     ignore_names(model) ? std::string_view() : name);
  });
}

int KVRaddsos(KVRmodel *model, int numsos, int nummembers, const int *types, const int *beg,
              const int *ind, const double *weight) {
  return kvr::run_on_model(model, [&] {
    start_adding(model);
    check_count(numsos, "number of SOS constraints");
    check_count(nummembers, "number of SOS members");
    check_array(types, numsos, "SOS type");
    check_array(ind, nummembers, "SOS member");
    check_begins(numsos, nummembers, beg, "beg");
    const int nv = all_vars(model);
    const int first = model->data.sos.size() + model->pending.added.sos.size();
    for (int s = 0; s < numsos; ++s) {
      if (types[s] != KVR_SOS_TYPE1 && types[s] != KVR_SOS_TYPE2)
        fail(KVR_ERROR_INVALID_ARGUMENT, "Invalid type %d of SOS constraint %d: use 1 or 2",
             types[s], first + s);
      const int b = span_begin(beg, nummembers, s), e = span_end(beg, numsos, nummembers, s);
      std::unordered_map<int, int> seen;
      std::unordered_map<double, int> weights;
      for (int k = b; k < e; ++k) {
        if (ind[k] < 0 || ind[k] >= nv)
          fail(KVR_ERROR_INDEX_OUT_OF_RANGE,
               "Member %d of SOS constraint %d: variable index %d out of range (%d variables)",
               k - b, first + s, ind[k], nv);
        if (!seen.emplace(ind[k], k - b).second)
          fail(KVR_ERROR_DUPLICATES, "Variable %d appears twice in SOS constraint %d", ind[k],
               first + s);
        if (!weight) continue;
        if (std::isnan(weight[k]))
          fail(KVR_ERROR_INVALID_ARGUMENT, "Weight of member %d of SOS constraint %d is NaN", k - b,
               first + s);
        if (is_infinite(weight[k]))
          fail(KVR_ERROR_NUMERIC, "Weight of member %d of SOS constraint %d is infinite", k - b,
               first + s);
        if (!weights.emplace(weight[k], k - b).second)
          fail(KVR_ERROR_DUPLICATES,
               "Weight %g appears twice in SOS constraint %d: the weights order the set and must "
               "differ",
               weight[k], first + s);
      }
    }
    ModelData &dst = model->pending.added;
    for (int s = 0; s < numsos; ++s) {
      const int b = span_begin(beg, nummembers, s), e = span_end(beg, numsos, nummembers, s);
      dst.add_sos(types[s]);
      for (int k = b; k < e; ++k)
        dst.add_sos_member(ind[k], weight ? weight[k] : static_cast<double>(k - b + 1));
    }
  });
}

int KVRaddqpterms(KVRmodel *model, int numqnz, const int *qrow, const int *qcol,
                  const double *qval) {
  return kvr::run_on_model(model, [&] {
    check_modifiable(model);
    check_quad_terms(numqnz, qrow, qcol, qval, model->data.num_vars(), "the objective");
    PendingChanges &p = model->pending;
    p.log.push_back(Change{ChangeKind::QpTerms, AttrId::Count, -1, -1, 0.0,
                           static_cast<int64_t>(p.qpterms.size())});
    QuadTerms q;
    q.add(numqnz, qrow, qcol, qval);  // merged with the existing terms at the update
    p.qpterms.push_back(std::move(q));
  });
}

int KVRdelq(KVRmodel *model) {
  return kvr::run_on_model(model, [&] {
    check_modifiable(model);
    model->pending.log.push_back(Change{ChangeKind::DelQ, AttrId::Count, -1, -1, 0.0, 0});
  });
}

int KVRsetobjective(KVRmodel *model, int sense, double constant, int lnz, const int *lind,
                    const double *lval, int qnz, const int *qrow, const int *qcol,
                    const double *qval) {
  return kvr::run_on_model(model, [&] {
    check_modifiable(model);
    check_objective_sense(sense);
    check_constant(constant, "the objective");
    const int nv = model->data.num_vars();
    check_terms(lnz, lind, lval, nv, "variable", "the objective");
    check_quad_terms(qnz, qrow, qcol, qval, nv, "the objective");
    ObjectiveSet o;
    o.sense = sense;
    o.constant = constant;
    cleaned_terms(lnz, lind, lval, o.lind, o.lval);
    o.q = normalized_quad(qnz, qrow, qcol, qval);
    PendingChanges &p = model->pending;
    p.log.push_back(Change{ChangeKind::Objective, AttrId::Count, -1, -1, 0.0,
                           static_cast<int64_t>(p.objectives.size())});
    p.objectives.push_back(std::move(o));
  });
}

int KVRsetobjectiven(KVRmodel *model, int index, int priority, double weight, double abstol,
                     double reltol, const char *name, double constant, int lnz, const int *lind,
                     const double *lval) {
  return kvr::run_on_model(model, [&] {
    check_modifiable(model);
    if (index < 0 || index >= 1000000)
      fail(KVR_ERROR_INVALID_ARGUMENT, "Invalid objective index %d: use 0 to 999999", index);
    const std::string what = element_text("objective", index);
    if (std::isnan(weight) || is_infinite(weight))
      fail(KVR_ERROR_INVALID_ARGUMENT, "Weight of %s must be finite (got %g)", what.c_str(),
           weight);
    for (double tol : {abstol, reltol})
      if (!(tol >= 0.0) || is_infinite(tol))
        fail(KVR_ERROR_INVALID_ARGUMENT, "Tolerances of %s must be finite and >= 0 (got %g)",
             what.c_str(), tol);
    check_constant(constant, what.c_str());
    check_terms(lnz, lind, lval, model->data.num_vars(), "variable", what);
    ObjectiveNSet o;
    o.index = index;
    o.obj.priority = priority;
    o.obj.weight = weight;
    o.obj.abstol = abstol;
    o.obj.reltol = reltol;
    o.obj.name = checked_name(name, "objective", index);
    o.obj.constant = constant;
    cleaned_terms(lnz, lind, lval, o.obj.ind, o.obj.val);
    PendingChanges &p = model->pending;
    p.log.push_back(Change{ChangeKind::ObjectiveN, AttrId::Count, -1, -1, 0.0,
                           static_cast<int64_t>(p.objns.size())});
    p.objns.push_back(std::move(o));
    p.objn_limit = std::max(p.objn_limit, index + 1);
  });
}

int KVRsetpwlobj(KVRmodel *model, int var, int npoints, const double *x, const double *y) {
  return kvr::run_on_model(model, [&] {
    check_modifiable(model);
    check_index(var, model->data.num_vars(), "variable", "Piecewise-linear objective");
    check_count(npoints, "number of points");
    if (npoints > 0 && (!x || !y))
      fail(KVR_ERROR_NULL_ARGUMENT, "No %s values given for the piecewise-linear objective",
           x ? "y" : "x");
    if (npoints == 1)
      fail(KVR_ERROR_INVALID_PIECEWISE_OBJ,
           "The piecewise-linear objective of variable %d needs at least two points", var);
    for (int k = 0; k < npoints; ++k) {
      if (std::isnan(x[k]) || std::isnan(y[k]))
        fail(KVR_ERROR_INVALID_ARGUMENT,
             "Point %d of the piecewise-linear objective of variable "
             "%d is NaN",
             k, var);
      if (is_infinite(x[k]) || is_infinite(y[k]))
        fail(KVR_ERROR_INVALID_PIECEWISE_OBJ,
             "Point %d of the piecewise-linear objective of variable %d is not finite", k, var);
      if (k > 0 && x[k] < x[k - 1])
        fail(KVR_ERROR_INVALID_PIECEWISE_OBJ,
             "The x values of the piecewise-linear objective of variable %d decrease at point %d "
             "(%g after %g); they must be non-decreasing",
             var, k, x[k], x[k - 1]);
      if (k > 1 && x[k] == x[k - 2])
        fail(KVR_ERROR_INVALID_PIECEWISE_OBJ,
             "Three points of the piecewise-linear objective of variable %d share x = %g (a jump "
             "has two)",
             var, x[k]);
    }
    PwlObj p{var, std::vector<double>(x, x + npoints), std::vector<double>(y, y + npoints)};
    PendingChanges &pc = model->pending;
    pc.log.push_back(Change{ChangeKind::PwlObj, AttrId::Count, var, -1, 0.0,
                            static_cast<int64_t>(pc.pwls.size())});
    pc.pwls.push_back(std::move(p));
  });
}

int KVRchgcoeffs(KVRmodel *model, int cnt, const int *cind, const int *vind, const double *val) {
  return kvr::run_on_model(model, [&] {
    check_modifiable(model);
    check_count(cnt, "number of coefficient changes");
    check_array(cind, cnt, "constraint index");
    check_array(vind, cnt, "variable index");
    check_array(val, cnt, "value");
    const int nc = model->data.num_constrs(), nv = model->data.num_vars();
    for (int k = 0; k < cnt; ++k) {
      check_index(cind[k], nc, "constraint", format("Coefficient change %d", k).c_str());
      check_index(vind[k], nv, "variable", format("Coefficient change %d", k).c_str());
      checked_coeff(val[k], "New coefficient of change", k);
    }
    PendingChanges &p = model->pending;
    for (int k = 0; k < cnt; ++k)
      p.log.push_back(Change{ChangeKind::Coeff, AttrId::Count, cind[k], vind[k], val[k], 0});
  });
}

int KVRdelvars(KVRmodel *model, int numdel, const int *ind) {
  return kvr::run_on_model(model, [&] {
    queue_deletions(model, numdel, ind, model->data.num_vars(), "variable",
                    model->pending.del_vars);
  });
}

int KVRdelconstrs(KVRmodel *model, int numdel, const int *ind) {
  return kvr::run_on_model(model, [&] {
    queue_deletions(model, numdel, ind, model->data.num_constrs(), "constraint",
                    model->pending.del_constrs);
  });
}

int KVRdelsos(KVRmodel *model, int numdel, const int *ind) {
  return kvr::run_on_model(model, [&] {
    queue_deletions(model, numdel, ind, model->data.sos.size(), "SOS constraint",
                    model->pending.del_sos);
  });
}

int KVRdelqconstrs(KVRmodel *model, int numdel, const int *ind) {
  return kvr::run_on_model(model, [&] {
    queue_deletions(model, numdel, ind, model->data.qconstrs.size(), "quadratic constraint",
                    model->pending.del_qconstrs);
  });
}

int KVRdelgenconstrs(KVRmodel *model, int numdel, const int *ind) {
  return kvr::run_on_model(model, [&] {
    queue_deletions(model, numdel, ind, model->data.gens.size(), "general constraint",
                    model->pending.del_gens);
  });
}

}  // extern "C"
