// MLinExpr and the operations shared by matrix expressions. An expression is a set of sparse
// rows, one per element: every shape operation (indexing, broadcasting, sums, products with
// constant matrices) is a row selection or a sparse matrix applied to those rows, so it costs
// one scipy.sparse call whatever the number of elements.
#include <algorithm>
#include <cmath>

#include "expr.h"
#include "exprtypes.h"
#include "matrix.h"

namespace kvrpy {

namespace {

nb::object np_attr(const char *name) { return numpy().attr(name); }
nb::object sp_attr(const char *name) { return scipy_sparse().attr(name); }

nb::object csr(nb::handle matrix) { return sp_attr("csr_matrix")(matrix); }

nb::object empty_rows(Py_ssize_t n) { return sp_attr("csr_matrix")(nb::make_tuple(n, 0)); }

nb::object no_objects() { return np_attr("empty")(0, nb::arg("dtype") = "O"); }

Py_ssize_t rows_of(const MExpr &e) { return size_of(e.constant); }

std::string shape_text(nb::handle shape) { return utf8(nb::str(nb::tuple(shape))); }

MExpr constant_expr(nb::object constant) {
  MExpr e;
  e.constant = constant;
  e.A = empty_rows(size_of(constant));
  e.vars = no_objects();
  e.Q = nb::none();
  return e;
}

// The expression of one row: terms (coefficients, vars) plus a constant, as a 0-d expression.
MExpr row_expr(std::vector<double> coeffs, nb::list vars, double constant) {
  MExpr e;
  size_t n = coeffs.size();
  nb::object data = new_array(n, "float64");
  std::copy(coeffs.begin(), coeffs.end(), array_data<double>(data));
  e.A = sp_attr("csr_matrix")(
      nb::make_tuple(data, np_attr("arange")(n), np_attr("array")(nb::make_tuple(0, n))),
      nb::arg("shape") = nb::make_tuple(1, n));
  e.vars = object_array(vars);
  e.constant = np_attr("array")(constant);
  e.Q = nb::none();
  return e;
}

// S @ rows for every block, reshaped to `shape`.
MExpr apply_rows(const MExpr &e, nb::handle S, nb::handle shape) {
  MExpr r;
  r.A = e.plain_vars ? csr(S) : csr(S.attr("__matmul__")(e.A));
  r.vars = e.vars;
  r.Q = e.quadratic() ? csr(S.attr("__matmul__")(e.Q)) : nb::none();
  r.qvars1 = e.qvars1;
  r.qvars2 = e.qvars2;
  r.constant = e.plain_vars ? np_attr("zeros")(shape)
                            : np_attr("asarray")(S.attr("__matmul__")(e.constant.attr("ravel")()),
                                                 nb::arg("dtype") = "float64")
                                  .attr("reshape")(shape);
  return r;
}

MExpr scaled(const MExpr &e, double c) {
  MExpr r = e;
  r.plain_vars = false;
  r.A = e.A.attr("__mul__")(c);
  if (e.quadratic()) r.Q = e.Q.attr("__mul__")(c);
  r.constant = e.constant.attr("__mul__")(c);
  return r;
}

// Positions 0..n-1 in the expression's shape (for selections).
nb::object positions(const MExpr &e) {
  return np_attr("arange")(rows_of(e)).attr("reshape")(shape_of(e.constant));
}

MExpr index_expr(const MExpr &e, nb::handle key) { return take_rows(e, positions(e)[key]); }

// e1 + sign * e2 with broadcasting.
MExpr add_exprs(MExpr a, MExpr b, double sign) {
  nb::tuple shape = broadcast_shapes(shape_of(a.constant), shape_of(b.constant));
  a = broadcast_to(a, shape);
  b = broadcast_to(b, shape);
  if (sign != 1.0) b = scaled(b, sign);
  MExpr r;
  r.constant = a.constant.attr("__add__")(b.constant);
  if (nb::len(b.vars) == 0) {
    r.A = a.A;
    r.vars = a.vars;
  } else if (nb::len(a.vars) == 0) {
    r.A = b.A;
    r.vars = b.vars;
  } else if (a.vars.is(b.vars)) {
    // Slices of one MVar share its column list: the rows add up, no columns are appended.
    r.A = csr(a.A.attr("__add__")(b.A));
    r.vars = a.vars;
  } else {
    r.A = sp_attr("hstack")(nb::make_tuple(a.A, b.A), nb::arg("format") = "csr");
    r.vars = np_attr("concatenate")(nb::make_tuple(a.vars, b.vars));
  }
  if (a.quadratic() && b.quadratic()) {
    r.Q = sp_attr("hstack")(nb::make_tuple(a.Q, b.Q), nb::arg("format") = "csr");
    r.qvars1 = np_attr("concatenate")(nb::make_tuple(a.qvars1, b.qvars1));
    r.qvars2 = np_attr("concatenate")(nb::make_tuple(a.qvars2, b.qvars2));
  } else if (a.quadratic() || b.quadratic()) {
    const MExpr &q = a.quadratic() ? a : b;
    r.Q = q.Q;
    r.qvars1 = q.qvars1;
    r.qvars2 = q.qvars2;
  } else {
    r.Q = nb::none();
  }
  return r;
}

}  // namespace

MExpr scale_by_array(const MExpr &e, nb::handle w) {
  nb::object arr = np_attr("asarray")(w, nb::arg("dtype") = "float64");
  if (nb::len(shape_of(arr)) == 0) return scaled(e, py_double(arr.attr("item")()));
  nb::tuple shape = broadcast_shapes(shape_of(e.constant), shape_of(arr));
  MExpr b = broadcast_to(e, shape);
  nb::object diag = sp_attr("diags")(np_attr("broadcast_to")(arr, shape).attr("ravel")(),
                                     nb::arg("format") = "csr");
  return apply_rows(b, diag, shape);
}

namespace {

// The sparse matrix of a numeric operand of @ (dense or scipy.sparse), with its shape.
nb::object numeric_matrix(nb::handle m, nb::tuple &shape) {
  if (nb::cast<bool>(sp_attr("issparse")(m))) {
    shape = nb::tuple(m.attr("shape"));
    return csr(m);
  }
  nb::object arr = np_attr("asarray")(m, nb::arg("dtype") = "float64");
  shape = shape_of(arr);
  if (shape.size() == 1) return csr(arr.attr("reshape")(1, -1));
  return csr(arr);
}

[[noreturn]] void raise_matmul(nb::handle s1, nb::handle s2) {
  raise_python(PyExc_ValueError,
               "matmul: shapes " + shape_text(s1) + " and " + shape_text(s2) + " are not aligned");
}

nb::object kron_identity(nb::handle M, Py_ssize_t k, bool identity_left) {
  nb::object I = sp_attr("identity")(k, nb::arg("format") = "csr");
  return identity_left ? sp_attr("kron")(I, M, nb::arg("format") = "csr")
                       : sp_attr("kron")(M, I, nb::arg("format") = "csr");
}

bool is_sparse(nb::handle obj) { return nb::cast<bool>(sp_attr("issparse")(obj)); }

// The product of the elements of shape[from, to).
Py_ssize_t extent(nb::handle shape, size_t from, size_t to) {
  nb::tuple t = nb::borrow<nb::tuple>(shape);
  Py_ssize_t n = 1;
  for (size_t k = from; k < to; ++k) n *= py_index(t[k]);
  return n;
}

// a @ b with NumPy's rules for stacks (either side of more than 2 dimensions): a 1-D side
// becomes a matrix and loses that axis again, the batch axes broadcast, and every element is
// sum_p a[..., i, p] * b[..., p, j], built as (a[..., :, :, None] * b[..., None, :, :]).sum(-2).
// Either side may be a constant (no variables), the other an expression.
MExpr matmul_stacked(const MExpr &a, const MExpr &b) {
  nb::tuple as = shape_of(a.constant), bs = shape_of(b.constant);
  if (as.size() < 1 || bs.size() < 1) raise_matmul(as, bs);
  size_t bk = bs.size() == 1 ? 0 : bs.size() - 2;  // b's inner axis
  if (py_index(as[as.size() - 1]) != py_index(bs[bk])) raise_matmul(as, bs);
  nb::object all = nb::slice(nb::none(), nb::none(), nb::none()), none = nb::none();
  nb::object dots = nb::borrow(Py_Ellipsis);
  auto batch = [](nb::tuple t) {
    nb::list out;
    for (size_t k = 0; k + 2 < t.size(); ++k) out.append(t[k]);
    return nb::tuple(out);
  };
  nb::tuple batch_a = batch(as), batch_b = batch(bs);
  try {
    numpy().attr("broadcast_shapes")(batch_a, batch_b);
  } catch (nb::python_error &) {
    raise_matmul(as, bs);
  }
  nb::object ka =
      as.size() == 1 ? nb::make_tuple(none, all, none) : nb::make_tuple(dots, all, all, none);
  nb::object kb =
      bs.size() == 1 ? nb::make_tuple(none, all, none) : nb::make_tuple(dots, none, all, all);
  MExpr l = index_expr(a, ka), r = index_expr(b, kb);
  auto constant_only = [](const MExpr &e) { return nb::len(e.vars) == 0 && !e.quadratic(); };
  MExpr p = constant_only(l)   ? scale_by_array(r, l.constant)
            : constant_only(r) ? scale_by_array(l, r.constant)
                               : quad_product_expr(l, r);
  MExpr out = sum_expr(p, nb::int_(nb::len(shape_of(p.constant)) - 2));
  if (as.size() == 1) out = index_expr(out, nb::make_tuple(dots, 0, all));
  if (bs.size() == 1) out = index_expr(out, nb::make_tuple(dots, 0));
  return out;
}

// The expression of a dense constant operand of @ of more than 2 dimensions.
bool stacked_constant(nb::handle m, MExpr &out) {
  if (is_sparse(m)) return false;
  nb::object arr = np_attr("asarray")(m, nb::arg("dtype") = "float64");
  return nb::len(shape_of(arr)) > 2 && to_mexpr(arr, out);
}

// M @ e for a constant matrix M (1-D or 2-D, dense or sparse) and an expression of shape
// (..., k) or (..., k, n): one sparse row map I_batch (x) M (x) I_n.
MExpr matmul_left(nb::handle m, const MExpr &e) {
  MExpr stacked;
  if (stacked_constant(m, stacked)) return matmul_stacked(stacked, e);
  nb::tuple ms;
  nb::object M = numeric_matrix(m, ms);
  nb::tuple es = shape_of(e.constant);
  if (ms.size() < 1 || ms.size() > 2 || es.size() < 1) raise_matmul(ms, es);
  size_t ek = es.size() == 1 ? 0 : es.size() - 2;  // e's inner axis
  Py_ssize_t inner = py_index(ms[ms.size() - 1]);
  if (inner != py_index(es[ek])) raise_matmul(ms, es);
  nb::list shape;
  for (size_t k = 0; k < ek; ++k) shape.append(es[k]);
  if (ms.size() == 2) shape.append(ms[0]);
  if (es.size() >= 2) shape.append(es[es.size() - 1]);
  nb::object S = es.size() >= 2 ? kron_identity(M, py_index(es[es.size() - 1]), false) : M;
  if (ek > 0) S = kron_identity(S, extent(es, 0, ek), true);
  return apply_rows(e, S, nb::tuple(shape));
}

// e @ M for an expression of shape (k,) or (..., m, k): one sparse row map I_rest (x) M^T.
MExpr matmul_right(const MExpr &e, nb::handle m) {
  MExpr stacked;
  if (stacked_constant(m, stacked)) return matmul_stacked(e, stacked);
  nb::tuple ms;
  nb::object M = numeric_matrix(m, ms);
  nb::tuple es = shape_of(e.constant);
  if (ms.size() < 1 || ms.size() > 2 || es.size() < 1) raise_matmul(es, ms);
  Py_ssize_t inner = py_index(es[es.size() - 1]);
  // For a 1-D M, M was made a row (1, n); as the right factor it acts as a column.
  if (inner != py_index(ms[0])) raise_matmul(es, ms);
  nb::object Mt = ms.size() == 2 ? csr(M.attr("T")) : M;  // rows of the result per column of M
  nb::list shape;
  for (size_t k = 0; k + 1 < es.size(); ++k) shape.append(es[k]);
  if (ms.size() == 2) shape.append(ms[1]);
  nb::object S = es.size() >= 2 ? kron_identity(Mt, extent(es, 0, es.size() - 1), true) : Mt;
  return apply_rows(e, S, nb::tuple(shape));
}

// e1 @ e2 for two expressions: products of matching elements summed over the inner axis.
MExpr matmul_exprs(const MExpr &a, const MExpr &b) {
  nb::tuple as = shape_of(a.constant), bs = shape_of(b.constant);
  if (as.size() > 2 || bs.size() > 2) return matmul_stacked(a, b);
  if (as.size() < 1 || as.size() > 2 || bs.size() < 1 || bs.size() > 2) raise_matmul(as, bs);
  if (py_index(as[as.size() - 1]) != py_index(bs[0])) raise_matmul(as, bs);
  nb::object none = nb::none(), all = nb::slice(nb::none(), nb::none(), nb::none());
  MExpr l = a, r = b;
  int axis = static_cast<int>(as.size()) - 1;
  if (bs.size() == 2) {
    // a[..., :, None] * b: the inner axis of a meets the rows of b.
    l = index_expr(a, as.size() == 2 ? nb::make_tuple(all, all, none) : nb::make_tuple(all, none));
  }
  MExpr p = quad_product_expr(l, r);
  return sum_expr(p, nb::int_(axis));
}

}  // namespace

// ---------------------------------------------------------------- shared operations
bool is_matrix_expression(nb::handle obj) {
  return nb::isinstance<MVar>(obj) || nb::isinstance<MLinExpr>(obj) ||
         nb::isinstance<MQuadExpr>(obj);
}

bool is_one_element(nb::handle obj) {
  if (nb::isinstance<MVar>(obj)) return size_of(nb::inst_ptr<MVar>(obj)->handles) == 1;
  if (nb::isinstance<MLinExpr>(obj)) return size_of(nb::inst_ptr<MLinExpr>(obj)->constant) == 1;
  if (nb::isinstance<MQuadExpr>(obj)) return size_of(nb::inst_ptr<MQuadExpr>(obj)->constant) == 1;
  return false;
}

bool to_mexpr(nb::handle obj, MExpr &out) {
  if (nb::isinstance<MLinExpr>(obj)) {
    out = *nb::inst_ptr<MLinExpr>(obj);
    return true;
  }
  if (nb::isinstance<MQuadExpr>(obj)) {
    out = *nb::inst_ptr<MQuadExpr>(obj);
    return true;
  }
  if (nb::isinstance<MVar>(obj)) {
    nb::object handles = nb::inst_ptr<MVar>(obj)->handles;
    Py_ssize_t n = size_of(handles);
    nb::object pos;
    out.vars = column_list(handles, pos);
    out.plain_vars = n == size_of(out.vars) &&
                     PyObject_IsTrue(np_attr("array_equal")(pos, np_attr("arange")(n)).ptr()) == 1;
    out.A = out.plain_vars ? sp_attr("identity")(n, nb::arg("format") = "csr")
                           : sp_attr("csr_matrix")(
                                 nb::make_tuple(np_attr("ones")(n), pos, np_attr("arange")(n + 1)),
                                 nb::arg("shape") = nb::make_tuple(n, size_of(out.vars)));
    out.constant = np_attr("zeros")(shape_of(handles));
    out.Q = nb::none();
    return true;
  }
  double v = 0;
  if (as_var(obj)) {
    nb::list vars;
    vars.append(obj);
    out = row_expr({1.0}, vars, 0.0);
    return true;
  }
  if (is_linexpr(obj)) {
    size_t n = py_index(obj.attr("size")());
    std::vector<double> coeffs(n);
    nb::list vars;
    for (size_t i = 0; i < n; ++i) {
      coeffs[i] = py_double(obj.attr("getCoeff")(i));
      vars.append(obj.attr("getVar")(i));
    }
    out = row_expr(std::move(coeffs), vars, py_double(obj.attr("getConstant")()));
    return true;
  }
  if (is_quadexpr(obj)) {
    if (!to_mexpr(obj.attr("getLinExpr")(), out)) return false;
    size_t n = py_index(obj.attr("size")());
    nb::list v1, v2;
    nb::object data = new_array(n, "float64");
    double *d = array_data<double>(data);
    for (size_t i = 0; i < n; ++i) {
      d[i] = py_double(obj.attr("getCoeff")(i));
      v1.append(obj.attr("getVar1")(i));
      v2.append(obj.attr("getVar2")(i));
    }
    out.Q = sp_attr("csr_matrix")(
        nb::make_tuple(data, np_attr("arange")(n), np_attr("array")(nb::make_tuple(0, n))),
        nb::arg("shape") = nb::make_tuple(1, n));
    out.qvars1 = object_array(v1);
    out.qvars2 = object_array(v2);
    return true;
  }
  if (isscalar(obj, &v)) {
    out = constant_expr(np_attr("array")(v));
    return true;
  }
  if (nb::isinstance(obj, np_attr("ndarray")) || PyList_Check(obj.ptr()) ||
      PyTuple_Check(obj.ptr()) || nb::cast<bool>(sp_attr("issparse")(obj))) {
    nb::object src =
        nb::cast<bool>(sp_attr("issparse")(obj)) ? obj.attr("toarray")() : nb::borrow(obj);
    try {
      out = constant_expr(np_attr("asarray")(src, nb::arg("dtype") = "float64"));
    } catch (nb::python_error &) {
      return false;
    }
    return true;
  }
  return false;
}

nb::object wrap_mexpr(MExpr e) {
  if (e.quadratic()) return nb::cast(MQuadExpr{std::move(e)});
  return nb::cast(MLinExpr{std::move(e)});
}

MExpr take_rows(const MExpr &e, nb::handle pos) {
  nb::object p = np_attr("asarray")(pos, nb::arg("dtype") = "int64");
  nb::object flat = p.attr("ravel")();
  MExpr r;
  r.A = csr(e.A[flat]);
  r.vars = e.vars;
  r.Q = e.quadratic() ? csr(e.Q[flat]) : nb::none();
  r.qvars1 = e.qvars1;
  r.qvars2 = e.qvars2;
  r.constant = np_attr("asarray")(e.constant.attr("ravel")()[p], nb::arg("dtype") = "float64");
  return r;
}

MExpr broadcast_to(const MExpr &e, nb::handle shape) {
  nb::tuple target(shape);
  if (shape_of(e.constant).equal(target)) return e;
  nb::object pos;
  try {
    pos = np_attr("broadcast_to")(positions(e), target);
  } catch (nb::python_error &) {
    raise_python(PyExc_ValueError, "operands could not be broadcast together with shapes " +
                                       shape_text(shape_of(e.constant)) + " " + shape_text(target));
  }
  return take_rows(e, pos);
}

MExpr sum_expr(const MExpr &e, nb::handle axis) {
  nb::tuple shape = shape_of(e.constant);
  Py_ssize_t n = rows_of(e);
  if (axis.is_none()) {
    nb::object S = csr(np_attr("ones")(nb::make_tuple(1, n)));
    return apply_rows(e, S, nb::tuple());
  }
  Py_ssize_t nd = static_cast<Py_ssize_t>(shape.size());
  if (PyTuple_Check(axis.ptr())) {
    // Several axes: summed one at a time, the highest first so the others keep their numbers.
    std::vector<Py_ssize_t> axes;
    for (nb::handle a : nb::borrow<nb::tuple>(axis)) {
      Py_ssize_t k = py_index(a);
      if (k < -nd || k >= nd)
        raise_python(PyExc_ValueError, "axis " + std::to_string(k) +
                                           " is out of bounds for an array of shape " +
                                           shape_text(shape));
      axes.push_back(k < 0 ? k + nd : k);
    }
    std::sort(axes.rbegin(), axes.rend());
    if (std::adjacent_find(axes.begin(), axes.end()) != axes.end())
      raise_python(PyExc_ValueError, "duplicate value in 'axis'");
    MExpr r = e;
    for (Py_ssize_t a : axes) r = sum_expr(r, nb::int_(a));
    return r;
  }
  Py_ssize_t k = py_index(axis);
  if (k < -nd || k >= nd)
    raise_python(PyExc_ValueError, "axis " + std::to_string(k) +
                                       " is out of bounds for an array of shape " +
                                       shape_text(shape));
  if (k < 0) k += nd;
  nb::list kept, ones_at;
  Py_ssize_t groups = 1;
  for (Py_ssize_t i = 0; i < nd; ++i) {
    if (i == k) {
      ones_at.append(1);
    } else {
      kept.append(shape[i]);
      ones_at.append(shape[i]);
      groups *= py_index(shape[i]);
    }
  }
  nb::object G =
      np_attr("broadcast_to")(np_attr("arange")(groups).attr("reshape")(nb::tuple(ones_at)), shape)
          .attr("ravel")();
  nb::object S = sp_attr("csr_matrix")(
      nb::make_tuple(np_attr("ones")(n), nb::make_tuple(G, np_attr("arange")(n))),
      nb::arg("shape") = nb::make_tuple(groups, n));
  return apply_rows(e, S, nb::tuple(kept));
}

// ---------------------------------------------------------------- operators
namespace {

// Operands with variables: the matrix classes and the scalar expression classes.
bool has_variables(nb::handle obj) {
  return is_matrix_expression(obj) || as_var(obj) || is_linexpr(obj) || is_quadexpr(obj);
}

}  // namespace

nb::object matrix_binary(MatOp op, nb::handle a, nb::handle b) {
  bool a_const = !has_variables(a), b_const = !has_variables(b);
  MExpr x, y;
  // A constant matrix factor of @ stays as given (a scipy.sparse matrix is never densified).
  if (op == MatOp::MatMul && (a_const || b_const)) {
    nb::handle constant = a_const ? a : b;
    if (!is_sparse(constant) && !to_mexpr(constant, x)) return nb::borrow(Py_NotImplemented);
    if (!to_mexpr(a_const ? b : a, y)) return nb::borrow(Py_NotImplemented);
    return wrap_mexpr(a_const ? matmul_left(a, y) : matmul_right(y, b));
  }
  if (!to_mexpr(a, x) || !to_mexpr(b, y)) return nb::borrow(Py_NotImplemented);
  switch (op) {
    case MatOp::Add:
      return wrap_mexpr(add_exprs(x, y, 1.0));
    case MatOp::Sub:
      return wrap_mexpr(add_exprs(x, y, -1.0));
    case MatOp::Mul:
      if (b_const) return wrap_mexpr(scale_by_array(x, y.constant));
      if (a_const) return wrap_mexpr(scale_by_array(y, x.constant));
      return wrap_mexpr(quad_product_expr(x, y));
    case MatOp::MatMul:
      return wrap_mexpr(matmul_exprs(x, y));
  }
  return nb::borrow(Py_NotImplemented);
}

nb::object matrix_divide(nb::handle e, nb::handle b) {
  double v = 0;
  if (isscalar(b, &v)) {
    if (v == 0.0) raise_python(PyExc_ZeroDivisionError, "float division by zero");
    return matrix_binary(MatOp::Mul, e, nb::float_(1.0 / v));
  }
  MExpr divisor;
  if (has_variables(b) || !to_mexpr(b, divisor)) return nb::borrow(Py_NotImplemented);
  if (PyObject_IsTrue(np_attr("any")(divisor.constant.attr("__eq__")(0.0)).ptr()) == 1)
    raise_python(PyExc_ZeroDivisionError, "float division by zero");
  return matrix_binary(MatOp::Mul, e, np_attr("reciprocal")(divisor.constant));
}

nb::object matrix_power(nb::handle e, nb::handle exponent) {
  double v = 0;
  if (!isscalar(exponent, &v) || v != 2.0)
    raise_error(kUsageError, nb::isinstance<MVar>(e)
                                 ? "MVar can only be raised to a power of two"
                                 : "Matrix expression can only be raised to a power of two");
  return matrix_binary(MatOp::Mul, e, e);
}

nb::object matrix_compare(nb::handle self, const char *sense, nb::handle other) {
  MExpr probe;
  // A general expression on the right makes a general constraint of a one-element MVar.
  if (!is_genexpr(other) && !to_mexpr(other, probe)) return nb::borrow(Py_NotImplemented);
  return make_tempconstr(self, sense, other);
}

nb::object matrix_sum(nb::handle e, nb::handle axis, nb::handle dtype, nb::handle out,
                      bool keepdims) {
  // NumPy's sum() hands these on; an expression has no element type and no output array.
  if (!dtype.is_none())
    raise_python(PyExc_TypeError, "sum(): dtype is not supported for matrix expressions");
  if (!out.is_none())
    raise_python(PyExc_TypeError,
                 "sum(): out is not supported for matrix expressions (the result is a new "
                 "expression, never written into an array)");
  MExpr x;
  to_mexpr(e, x);
  nb::tuple shape = shape_of(x.constant);
  MExpr r = sum_expr(x, axis);
  if (!keepdims) return wrap_mexpr(r);
  // The summed axes stay as axes of length 1.
  Py_ssize_t nd = static_cast<Py_ssize_t>(shape.size());
  std::vector<bool> summed(shape.size(), axis.is_none());
  if (!axis.is_none()) {
    nb::tuple axes = PyTuple_Check(axis.ptr()) ? nb::borrow<nb::tuple>(axis) : nb::make_tuple(axis);
    for (nb::handle a : axes) {
      Py_ssize_t k = py_index(a);
      summed[static_cast<size_t>(k < 0 ? k + nd : k)] = true;
    }
  }
  nb::list kept;
  for (size_t k = 0; k < shape.size(); ++k) kept.append(summed[k] ? nb::int_(1) : shape[k]);
  return wrap_mexpr(take_rows(r, np_attr("arange")(rows_of(r)).attr("reshape")(nb::tuple(kept))));
}

// ---------------------------------------------------------------- values and items
namespace {

MExpr &expr_of(nb::handle self) {
  if (nb::isinstance<MLinExpr>(self)) return *nb::inst_ptr<MLinExpr>(self);
  return *nb::inst_ptr<MQuadExpr>(self);
}

// X of every variable of a column list.
nb::object values_of(nb::handle vars) {
  nb::list items(vars.attr("tolist")());
  std::vector<PyObject *> ptrs;
  ptrs.reserve(items.size());
  for (nb::handle v : items) ptrs.push_back(v.ptr());
  std::vector<double> x = var_values(ptrs);
  nb::object out = new_array(x.size(), "float64");
  std::copy(x.begin(), x.end(), array_data<double>(out));
  return out;
}

nb::object get_value(const MExpr &e) {
  nb::object v = e.constant.attr("ravel")().attr("copy")();
  if (nb::len(e.vars)) {
    // Only the columns in use are read (a column list may hold variables of no term).
    nb::object used = np_attr("unique")(e.A.attr("indices"));
    nb::object x = np_attr("zeros")(nb::len(e.vars));
    x[used] = values_of(e.vars[used]);
    v = v.attr("__add__")(e.A.attr("__matmul__")(x));
  }
  if (e.quadratic() && nb::len(e.qvars1)) {
    nb::object prod = values_of(e.qvars1).attr("__mul__")(values_of(e.qvars2));
    v = v.attr("__add__")(e.Q.attr("__matmul__")(prod));
  }
  return v.attr("reshape")(shape_of(e.constant));
}

// Row r of a CSR block as coefficient and object lists.
void row_terms(nb::handle A, nb::handle cols, Py_ssize_t r, std::vector<double> &coeffs,
               std::vector<nb::object> &objs) {
  nb::object row = A[nb::int_(r)];
  nb::object idx = contiguous(row.attr("indices"), "int64"),
             dat = contiguous(row.attr("data"), "float64");
  size_t n = static_cast<size_t>(size_of(idx));
  const int64_t *ip = array_data<int64_t>(idx);
  const double *dp = array_data<double>(dat);
  for (size_t k = 0; k < n; ++k) {
    coeffs.push_back(dp[k]);
    objs.push_back(cols[nb::int_(ip[k])]);
  }
}

nb::object element(const MExpr &e, Py_ssize_t r) {
  std::vector<double> coeffs;
  std::vector<nb::object> vars;
  row_terms(e.A, e.vars, r, coeffs, vars);
  double c = py_double(e.constant.attr("ravel")()[nb::int_(r)]);
  nb::object lin = make_linexpr(std::move(coeffs), std::move(vars), c);
  if (!e.quadratic()) return lin;
  std::vector<double> qc, unused;
  std::vector<nb::object> v1, v2;
  row_terms(e.Q, e.qvars1, r, qc, v1);
  row_terms(e.Q, e.qvars2, r, unused, v2);
  return make_quadexpr(lin, std::move(qc), std::move(v1), std::move(v2));
}

// The elements as an object array of LinExpr or QuadExpr objects in the expression's shape.
nb::object elements(const MExpr &e) {
  nb::list flat;
  for (Py_ssize_t r = 0; r < rows_of(e); ++r) flat.append(element(e, r));
  return object_array(flat).attr("reshape")(shape_of(e.constant));
}

}  // namespace

void def_mexpr_methods(nb::handle cls, const char *what) {
  using H = nb::handle;
  auto method = [&](const char *name, auto fn, const char *doc) {
    cls.attr(name) = nb::cpp_function(fn, nb::scope(cls), nb::name(name), nb::is_method(), doc);
  };
  auto prop = [&](const char *name, auto fn, const char *doc) {
    cls.attr(name) = nb::handle(reinterpret_cast<PyObject *>(&PyProperty_Type))(
        nb::cpp_function(fn, nb::scope(cls), nb::name(name), nb::is_method(), doc));
  };
  std::string w = what;
  prop(
      "shape", [](H s) { return shape_of(expr_of(s).constant); }, "The shape (a tuple).");
  prop(
      "ndim", [](H s) { return nb::len(shape_of(expr_of(s).constant)); }, "Number of axes.");
  prop(
      "size", [](H s) { return rows_of(expr_of(s)); }, "Number of elements.");
  prop(
      "T",
      [](H s) {
        MExpr &e = expr_of(s);
        return wrap_mexpr(take_rows(e, positions(e).attr("T")));
      },
      "The transposed expression.");
  method(
      "__len__",
      [](H s) -> Py_ssize_t {
        nb::tuple shape = shape_of(expr_of(s).constant);
        if (shape.size() == 0) raise_python(PyExc_TypeError, "len() of unsized object");
        return py_index(shape[0]);
      },
      "Length of the first axis.");
  cls.attr("__getitem__") =
      nb::cpp_function([](H s, H key) { return wrap_mexpr(index_expr(expr_of(s), key)); },
                       nb::scope(cls), nb::name("__getitem__"), nb::is_method(),
                       nb::arg("key").none(), "The elements selected with NumPy's indexing rules.");
  method(
      "reshape",
      [](H s, nb::args shape) {
        MExpr &e = expr_of(s);
        nb::object shp = shape.size() == 1 ? nb::borrow(shape[0]) : nb::object(shape);
        return wrap_mexpr(take_rows(e, positions(e).attr("reshape")(shp)));
      },
      "The expression in a new shape.");
  method(
      "copy", [](H s) { return wrap_mexpr(expr_of(s)); },
      "A copy (the expression's data is never changed in place, so it is shared).");
  method(
      "getValue", [](H s) { return get_value(expr_of(s)); },
      "The value of every element for the current solution, as an ndarray of the shape.");
  method(
      "item",
      [](H s) {
        MExpr &e = expr_of(s);
        if (rows_of(e) != 1)
          raise_python(PyExc_ValueError, "can only convert an array of size 1 to a Python scalar");
        return element(e, 0);
      },
      ("The " + w + " of a one-element expression.").c_str());
  method(
      "tolist", [](H s) { return elements(expr_of(s)).attr("tolist")(); },
      ("The elements as nested lists of " + w + " objects.").c_str());
  method(
      "__repr__",
      [](H s) {
        std::string name = utf8(s.type().attr("__name__"));
        MExpr &e = expr_of(s);
        std::string out = "<kaviro." + name + " " + shape_text(shape_of(e.constant)) + ">";
        if (rows_of(e) <= 20) out += "\n" + utf8(nb::repr(elements(e)));
        return out;
      },
      "The class, the shape and (for small arrays) the elements.");
}

void init_mlinexpr(nb::module_ &m) {
  auto cls = nb::class_<MLinExpr>(m, "MLinExpr",
                                  "An array of linear expressions with NumPy's shape and "
                                  "broadcasting rules, held as sparse rows.");
  def_mexpr_methods(cls, "LinExpr");
  def_matrix_operators(cls);
  cls.def_static(
      "zeros", [](nb::handle shape) { return wrap_mexpr(constant_expr(np_attr("zeros")(shape))); },
      nb::arg("shape"), "An expression of zeros of the given shape.");
}

}  // namespace kvrpy
