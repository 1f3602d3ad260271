// C entry points that read model data (as of the last update): quadratic terms, SOS members,
// coefficients, rows, columns, names and piecewise-linear objectives; and the term cleaners.
#include <algorithm>
#include <cctype>
#include <charconv>

#include "capi/build.h"
#include "model/checks.h"

namespace {

using namespace kvr;

// Queries also fail while the model is being optimized.
template <class Body>
int with_model(KVRmodel *model, Body &&body) {
  return run_on_model(model, [&] {
    check_queryable(model);
    body();
  });
}

void need(const void *p, const char *what) {
  if (!p) fail(KVR_ERROR_NULL_ARGUMENT, "No %s given", what);
}

void check_span(int start, int len, int count, const char *kind) {
  if (len < 0) fail(KVR_ERROR_INVALID_ARGUMENT, "Negative number of %ss (%d)", kind, len);
  if (start < 0 || static_cast<long long>(start) + len > count)
    fail(KVR_ERROR_INDEX_OUT_OF_RANGE, "%ss %d to %d out of range (the model has %d %ss)", kind,
         start, start + len - 1, count, kind);
}

// Rows [start, start + len) of a compressed matrix into the caller's arrays.
void read_rows(const SparseMatrix &m, int start, int len, size_t *numnzP, size_t *beg, int *ind,
               double *val) {
  need(numnzP, "place for the number of nonzeros");
  const int64_t first = m.beg[start], last = m.beg[start + len];
  *numnzP = static_cast<size_t>(last - first);
  if (!beg && !ind && !val) return;
  if (!beg || !ind || !val)
    fail(KVR_ERROR_NULL_ARGUMENT, "Give all three arrays (begins, indices, values) or none");
  for (int r = 0; r < len; ++r) beg[r] = static_cast<size_t>(m.beg[start + r] - first);
  std::copy(m.ind.begin() + first, m.ind.begin() + last, ind);
  std::copy(m.val.begin() + first, m.val.begin() + last, val);
}

// Index of an unnamed element whose generated name ("C12", "R3") this is, or -1.
int generated_index(std::string_view name, const char *prefix, const NamePool &names) {
  std::string_view p(prefix);
  if (name.size() <= p.size() || name.substr(0, p.size()) != p) return -1;
  std::string_view digits = name.substr(p.size());
  if (digits.size() > 1 && digits[0] == '0') return -1;
  int i = -1;
  auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), i);
  if (ec != std::errc() || end != digits.data() + digits.size()) return -1;
  if (i < 0 || static_cast<size_t>(i) >= names.size() || !names.get(i).empty()) return -1;
  return i;
}

// Elements at or after `shown` were added since the last update and are not found yet.
int find_name(const NamePool &names, const char *name, const char *prefix, int shown) {
  int i = names.find(name);
  if (i < 0) i = generated_index(name, prefix, names);
  return i < shown ? i : -1;
}

}  // namespace

extern "C" {

int KVRgetq(KVRmodel *model, int *numqnzP, int *qrow, int *qcol, double *qval) {
  return with_model(model, [&] {
    need(numqnzP, "place for the number of terms");
    const QuadTerms &q = model->data.q;
    *numqnzP = static_cast<int>(q.size());
    if (qrow) std::copy(q.row.begin(), q.row.end(), qrow);
    if (qcol) std::copy(q.col.begin(), q.col.end(), qcol);
    if (qval) std::copy(q.val.begin(), q.val.end(), qval);
  });
}

int KVRgetqconstr(KVRmodel *model, int qconstr, int *numlnzP, int *lind, double *lval, int *numqnzP,
                  int *qrow, int *qcol, double *qval) {
  return with_model(model, [&] {
    check_index(qconstr, model->data.qconstrs.size(), "quadratic constraint",
                "Quadratic constraint query");
    need(numlnzP, "place for the number of linear terms");
    need(numqnzP, "place for the number of quadratic terms");
    const QConstr &qc = model->data.qconstrs.items[qconstr];
    *numlnzP = static_cast<int>(qc.lind.size());
    *numqnzP = static_cast<int>(qc.q.size());
    if (lind) std::copy(qc.lind.begin(), qc.lind.end(), lind);
    if (lval) std::copy(qc.lval.begin(), qc.lval.end(), lval);
    if (qrow) std::copy(qc.q.row.begin(), qc.q.row.end(), qrow);
    if (qcol) std::copy(qc.q.col.begin(), qc.q.col.end(), qcol);
    if (qval) std::copy(qc.q.val.begin(), qc.q.val.end(), qval);
  });
}

int KVRgetsos(KVRmodel *model, int *nummembersP, int *sostype, int *beg, int *ind, double *weight,
              int start, int len) {
  return with_model(model, [&] {
    const SosData &s = model->data.sos;
    check_span(start, len, s.size(), "SOS constraint");
    need(nummembersP, "place for the number of members");
    const int64_t first = s.beg[start], last = s.beg[start + len];
    *nummembersP = static_cast<int>(last - first);
    for (int k = 0; k < len; ++k) {
      if (sostype) sostype[k] = s.type[start + k];
      if (beg) beg[k] = static_cast<int>(s.beg[start + k] - first);
    }
    if (ind) std::copy(s.ind.begin() + first, s.ind.begin() + last, ind);
    if (weight) std::copy(s.weight.begin() + first, s.weight.begin() + last, weight);
  });
}

int KVRgetcoeff(KVRmodel *model, int constr, int var, double *valP) {
  return with_model(model, [&] {
    const ModelData &d = model->data;
    check_index(constr, d.num_constrs(), "constraint", "Coefficient query");
    check_index(var, d.num_vars(), "variable", "Coefficient query");
    need(valP, "place for the value");
    const SparseMatrix &m = d.constrs.rows;
    double v = 0.0;
    for (int64_t k = m.beg[constr]; k < m.beg[constr + 1]; ++k)
      if (m.ind[k] == var) v += m.val[k];
    *valP = v;
  });
}

int KVRXgetvars(KVRmodel *model, size_t *numnzP, size_t *vbeg, int *vind, double *vval, int start,
                int len) {
  return with_model(model, [&] {
    check_span(start, len, model->data.num_vars(), "variable");
    read_rows(column_view(model), start, len, numnzP, vbeg, vind, vval);
  });
}

int KVRXgetconstrs(KVRmodel *model, size_t *numnzP, size_t *cbeg, int *cind, double *cval,
                   int start, int len) {
  return with_model(model, [&] {
    check_span(start, len, model->data.num_constrs(), "constraint");
    read_rows(model->data.constrs.rows, start, len, numnzP, cbeg, cind, cval);
  });
}

int KVRgetvarbyname(KVRmodel *model, const char *name, int *indexP) {
  return with_model(model, [&] {
    need(name, "name");
    need(indexP, "place for the index");
    *indexP = find_name(model->data.vars.names, name, "C", shown_vars(model));
  });
}

int KVRgetconstrbyname(KVRmodel *model, const char *name, int *indexP) {
  return with_model(model, [&] {
    need(name, "name");
    need(indexP, "place for the index");
    *indexP = find_name(model->data.constrs.names, name, "R", shown_constrs(model));
  });
}

int KVRgetpwlobj(KVRmodel *model, int var, int *npointsP, double *x, double *y) {
  return with_model(model, [&] {
    check_index(var, model->data.num_vars(), "variable", "Piecewise-linear objective query");
    need(npointsP, "place for the number of points");
    *npointsP = 0;
    for (const PwlObj &p : model->data.pwlobj) {
      if (p.var != var) continue;
      *npointsP = static_cast<int>(p.x.size());
      if (x) std::copy(p.x.begin(), p.x.end(), x);
      if (y) std::copy(p.y.begin(), p.y.end(), y);
    }
  });
}

int KVRclean2(int *lenP, int *ind, double *val) {
  if (!lenP || *lenP < 0 || (*lenP > 0 && (!ind || !val))) return -1;
  *lenP = static_cast<int>(kvr::clean_terms(ind, val, static_cast<size_t>(*lenP)));
  return *lenP;
}

int KVRclean3(int *lenP, int *ind0, int *ind1, double *val) {
  if (!lenP || *lenP < 0 || (*lenP > 0 && (!ind0 || !ind1 || !val))) return -1;
  *lenP = static_cast<int>(kvr::clean_pairs(ind0, ind1, val, static_cast<size_t>(*lenP)));
  return *lenP;
}

}  // extern "C"
