// MConstr: arrays of linear constraints. A matrix TempConstr, Model.addMConstr and
// Model.getA move whole sparse matrices between the expression rows and the library in one call.
#include <cmath>
#include <limits>
#include <unordered_map>

#include "expr.h"
#include "exprtypes.h"
#include "matrix.h"
#include "model.h"

namespace kvrpy {

namespace {

// Library columns of the entries of a column list, looked up when first used: a column list
// may be a whole MVar of which a constraint uses a few elements.
class ColumnMap {
 public:
  ColumnMap(nb::handle vars, KVRmodel *model, size_t uses)
      : vars_(contiguous_objects(vars)), items_(object_items(vars_)), model_(model) {
    size_t n = static_cast<size_t>(size_of(vars_));
    if (uses * 4 >= n) dense_.assign(n, kUnknown);
  }
  int operator()(int64_t k) {
    if (!dense_.empty()) {
      int &c = dense_[static_cast<size_t>(k)];
      if (c == kUnknown) c = var_column(items_[k], model_);
      return c;
    }
    auto [it, fresh] = sparse_.try_emplace(k, kUnknown);
    if (fresh) it->second = var_column(items_[k], model_);
    return it->second;
  }

 private:
  static constexpr int kUnknown = -2;
  static nb::object contiguous_objects(nb::handle vars) {
    return numpy().attr("ascontiguousarray")(vars, nb::arg("dtype") = "O");
  }
  nb::object vars_;
  PyObject *const *items_;
  KVRmodel *model_;
  std::vector<int> dense_;
  std::unordered_map<int64_t, int> sparse_;
};

struct CsrView {
  nb::object ptr, idx, dat;  // keep the arrays alive
  const int64_t *p;
  const int64_t *i;
  const double *d;
  explicit CsrView(nb::handle m)
      : ptr(contiguous(m.attr("indptr"), "int64")),
        idx(contiguous(m.attr("indices"), "int64")),
        dat(contiguous(m.attr("data"), "float64")),
        p(array_data<int64_t>(ptr)),
        i(array_data<int64_t>(idx)),
        d(array_data<double>(dat)) {}
};

void check_size(size_t n) {
  if (n > static_cast<size_t>(std::numeric_limits<int>::max()))
    raise_error(KVR_ERROR_INVALID_ARGUMENT, "Too many nonzeros for one library call");
}

[[noreturn]] void bad_coefficient() {
  raise_error(KVR_ERROR_INVALID_ARGUMENT, "Coefficient is Nan or Inf");
}

char sense_of(nb::handle s) {
  std::string t = PyUnicode_Check(s.ptr()) ? utf8(s) : std::string();
  if (t == "<" || t == "<=") return KVR_LESS_EQUAL;
  if (t == ">" || t == ">=") return KVR_GREATER_EQUAL;
  if (t == "=" || t == "==") return KVR_EQUAL;
  raise_error(KVR_ERROR_INVALID_ARGUMENT, "Invalid sense '" + utf8(nb::str(s)) + "'");
}

// One sense per element: a single sense or an array of them broadcast to `shape`.
std::vector<char> senses(nb::handle sense, nb::handle shape) {
  nb::object arr = numpy().attr("asarray")(sense, nb::arg("dtype") = "O");
  nb::object full;
  try {
    full = numpy().attr("broadcast_to")(arr, shape);
  } catch (nb::python_error &) {
    raise_python(PyExc_ValueError, "sense of shape " + utf8(nb::str(shape_of(arr))) +
                                       " does not broadcast to shape " + utf8(nb::str(shape)));
  }
  std::vector<char> out;
  for (nb::handle s : nb::list(full.attr("ravel")().attr("tolist")())) out.push_back(sense_of(s));
  return out;
}

}  // namespace

LibraryRows library_rows(const MExpr &e, KVRmodel *model) {
  LibraryRows rows;
  size_t n = static_cast<size_t>(size_of(e.constant));
  nb::object c = contiguous(e.constant.attr("ravel")(), "float64");
  const double *cp = array_data<double>(c);
  rows.constant.assign(cp, cp + n);
  for (double v : rows.constant)
    if (std::isnan(v)) raise_error(KVR_ERROR_INVALID_ARGUMENT, "Constant is Nan");

  CsrView a(e.A);
  ColumnMap cols(e.vars, model, static_cast<size_t>(a.p[n]));
  check_size(static_cast<size_t>(a.p[n]));
  rows.beg.reserve(n + 1);
  rows.ind.reserve(static_cast<size_t>(a.p[n]));
  rows.val.reserve(static_cast<size_t>(a.p[n]));
  for (size_t r = 0; r < n; ++r) {
    size_t start = rows.ind.size();
    rows.beg.push_back(static_cast<int>(start));
    for (int64_t k = a.p[r]; k < a.p[r + 1]; ++k) {
      if (!std::isfinite(a.d[k])) bad_coefficient();
      rows.ind.push_back(cols(a.i[k]));
      rows.val.push_back(a.d[k]);
    }
    // Duplicate columns merged and zeros dropped (the library's cleaning function).
    int len = static_cast<int>(rows.ind.size() - start);
    if (len) KVRclean2(&len, rows.ind.data() + start, rows.val.data() + start);
    rows.ind.resize(start + static_cast<size_t>(len));
    rows.val.resize(start + static_cast<size_t>(len));
  }
  rows.beg.push_back(static_cast<int>(rows.ind.size()));

  if (e.quadratic()) {
    CsrView q(e.Q);
    size_t pairs = static_cast<size_t>(q.p[n]);
    ColumnMap c1(e.qvars1, model, pairs), c2(e.qvars2, model, pairs);
    check_size(static_cast<size_t>(q.p[n]));
    for (size_t r = 0; r < n; ++r) {
      size_t start = rows.qval.size();
      rows.qbeg.push_back(static_cast<int>(start));
      for (int64_t k = q.p[r]; k < q.p[r + 1]; ++k) {
        if (!std::isfinite(q.d[k])) bad_coefficient();
        rows.qrow.push_back(c1(q.i[k]));
        rows.qcol.push_back(c2(q.i[k]));
        rows.qval.push_back(q.d[k]);
      }
      int len = static_cast<int>(rows.qval.size() - start);
      if (len)
        KVRclean3(&len, rows.qrow.data() + start, rows.qcol.data() + start,
                  rows.qval.data() + start);
      rows.qrow.resize(start + static_cast<size_t>(len));
      rows.qcol.resize(start + static_cast<size_t>(len));
      rows.qval.resize(start + static_cast<size_t>(len));
    }
    rows.qbeg.push_back(static_cast<int>(rows.qval.size()));
  }
  return rows;
}

nb::object add_linear_rows(nb::handle self, KVRmodel *model, const LibraryRows &rows,
                           const std::vector<char> &sense, const std::vector<double> &rhs,
                           const std::vector<std::string> &names, nb::handle shape) {
  size_t n = rhs.size();
  check_size(n);
  std::vector<const char *> cnames;
  for (auto &s : names) cnames.push_back(s.c_str());
  check_model(KVRaddconstrs(model, static_cast<int>(n), static_cast<int>(rows.ind.size()),
                            rows.beg.data(), rows.ind.data(), rows.val.data(), sense.data(),
                            rhs.data(), cnames.empty() ? nullptr : cnames.data()),
              model);
  bool numbered = model_updatemode(self) == 1;
  nb::list handles;
  {
    GcPause pause(n);
    for (size_t i = 0; i < n; ++i) handles.append(model_append(self, kConstr, numbered));
  }
  return make_mconstr(object_array(handles).attr("reshape")(shape));
}

MatrixRows prepare_matrix_tempconstr(nb::handle self, nb::handle tc, nb::handle name) {
  KVRmodel *model = prepared_model(self);
  nb::object lhs = tc.attr("_lhs"), rhs = tc.attr("_rhs");
  char sense = sense_of(tc.attr("_sense"));
  MExpr e;
  nb::object diff = matrix_binary(MatOp::Sub, lhs, rhs);
  if (!to_mexpr(diff, e) || !is_matrix_expression(diff))
    raise_error(kUsageError, "Invalid argument to Model.addConstr");
  MatrixRows m;
  m.shape = shape_of(e.constant);
  m.rows = library_rows(e, model);
  m.rhs.resize(m.rows.constant.size());
  for (size_t i = 0; i < m.rhs.size(); ++i) m.rhs[i] = to_library(-m.rows.constant[i]);
  m.sense.assign(m.rhs.size(), sense);
  m.names = element_names(name, m.shape);
  m.quadratic = e.quadratic();
  if (m.quadratic) {
    const std::vector<int> &qbeg = m.rows.qbeg;
    for (size_t r = 0; r + 1 < qbeg.size(); ++r)
      if (qbeg[r] == qbeg[r + 1])
        raise_error(KVR_ERROR_INVALID_ARGUMENT,
                    "Matrix constraint has linear and quadratic elements (element " +
                        std::to_string(r) + " is linear); add them separately");
  }
  return m;
}

nb::object add_matrix_rows(nb::handle self, const MatrixRows &m) {
  KVRmodel *model = live_model(self);
  if (m.quadratic) return add_quadratic_rows(self, model, m.rows, m.sense, m.rhs, m.names, m.shape);
  return add_linear_rows(self, model, m.rows, m.sense, m.rhs, m.names, m.shape);
}

nb::object add_matrix_tempconstr(nb::handle self, nb::handle tc, nb::handle name) {
  return add_matrix_rows(self, prepare_matrix_tempconstr(self, tc, name));
}

namespace {

nb::object add_mconstr(nb::handle self, nb::handle A, nb::handle x, nb::handle sense, nb::handle b,
                       nb::handle name) {
  KVRmodel *model = prepared_model(self);
  nb::object xv = x.is_none() ? all_vars(self) : nb::borrow(x);
  if (!is_mvar(xv)) xv = module_attr("MVar").attr("fromlist")(xv);
  nb::tuple xs = shape_of(nb::inst_ptr<MVar>(xv)->handles);
  if (xs.size() != 1)
    raise_python(PyExc_ValueError,
                 "x must be a 1-D MVar or list of variables, got shape " + utf8(nb::str(xs)));
  nb::object Ax = matrix_binary(MatOp::MatMul, A, xv);
  MExpr e;
  if (!to_mexpr(Ax, e) || e.quadratic() || !is_matrix_expression(Ax))
    raise_error(KVR_ERROR_INVALID_ARGUMENT, "A must be a 2-D array or scipy.sparse matrix");
  nb::tuple shape = shape_of(e.constant);
  if (shape.size() != 1)
    raise_python(PyExc_ValueError, "A must be 2-D, A @ x has shape " + utf8(nb::str(shape)));
  LibraryRows rows = library_rows(e, model);
  nb::object barr = numpy().attr("asarray")(b, nb::arg("dtype") = "float64");
  nb::object bfull;
  try {
    bfull = contiguous(numpy().attr("broadcast_to")(barr, shape), "float64");
  } catch (nb::python_error &) {
    raise_python(PyExc_ValueError, "b of shape " + utf8(nb::str(shape_of(barr))) +
                                       " does not match A @ x of shape " + utf8(nb::str(shape)));
  }
  const double *bp = array_data<double>(bfull);
  std::vector<double> rhs(bp, bp + rows.constant.size());
  for (double &v : rhs) {
    if (std::isnan(v)) raise_error(KVR_ERROR_INVALID_ARGUMENT, "Right-hand side is Nan");
    v = to_library(v);
  }
  std::vector<char> s = senses(sense, shape);
  std::vector<std::string> names = element_names(name, shape);
  return add_linear_rows(self, model, rows, s, rhs, names, shape);
}

nb::object get_a(nb::handle self) {
  KVRmodel *model = prepared_model(self);
  int m = num_constrs(model), n = num_vars(model);
  size_t nnz = 0;
  check_model(KVRXgetconstrs(model, &nnz, nullptr, nullptr, nullptr, 0, m), model);
  std::vector<size_t> beg(static_cast<size_t>(m) + 1);
  nb::object ind = new_array(nnz, "int32"), val = new_array(nnz, "float64");
  check_model(
      KVRXgetconstrs(model, &nnz, beg.data(), array_data<int>(ind), array_data<double>(val), 0, m),
      model);
  beg[static_cast<size_t>(m)] = nnz;
  nb::object ptr = new_array(beg.size(), "int64");
  std::copy(beg.begin(), beg.end(), array_data<int64_t>(ptr));
  return scipy_sparse().attr("csr_matrix")(nb::make_tuple(val, ind, ptr),
                                           nb::arg("shape") = nb::make_tuple(m, n));
}

}  // namespace

void init_mconstr(nb::module_ &m) {
  auto cls = nb::class_<MConstr>(m, "MConstr",
                                 "An array of linear constraints with NumPy's shape and indexing; "
                                 "attributes read and write as ndarrays.");
  def_handle_array_methods(cls, "Constr");

  ModelMethods def;
  def("addMConstr", &add_mconstr, nb::arg("A"), nb::arg("x").none(), nb::arg("sense"), nb::arg("b"),
      nb::arg("name").none() = "",
      "addMConstr(A, x, sense, b, name=\"\"): adds the rows A @ x sense b in one library call "
      "(A a 2-D array or scipy.sparse matrix, x a 1-D MVar or list of variables or None for "
      "all variables, sense one sense or an array of them); returns an MConstr.");
  def("getA", &get_a,
      "The linear constraint matrix as of the last update, as a scipy.sparse CSR matrix.");
}

}  // namespace kvrpy
