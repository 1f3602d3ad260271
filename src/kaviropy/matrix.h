// The matrix family (MVar, MLinExpr, MQuadExpr, MConstr, MQConstr): NumPy-shaped arrays of
// handles and of expressions. Handle arrays keep the model's own handle objects in a NumPy object
// array; expressions keep sparse rows (one row per element) over a column list of variables, so
// no expression object exists per element and whole arrays reach the library in bulk calls.
#pragma once

#include <nanobind/ndarray.h>

#include <cstdint>
#include <string>
#include <vector>

#include "handles.h"

namespace kvrpy {

// ---------------------------------------------------------------- NumPy and SciPy
nb::module_ &numpy();
nb::module_ &scipy_sparse();
// Python and NumPy integers and numbers as C values (TypeError for anything else).
inline Py_ssize_t py_index(nb::handle o) {
  Py_ssize_t v = PyNumber_AsSsize_t(o.ptr(), PyExc_OverflowError);
  if (v == -1 && PyErr_Occurred()) throw nb::python_error();
  return v;
}
inline double py_double(nb::handle o) {
  double v = PyFloat_AsDouble(o.ptr());
  if (v == -1.0 && PyErr_Occurred()) throw nb::python_error();
  return v;
}
// A contiguous array of `dtype` ("int64", "float64") holding `values` (converted as NumPy does).
nb::object contiguous(nb::handle values, const char *dtype);
// The data pointer of a contiguous array made by contiguous() or new_array().
// Read-only arrays (broadcast views) are accepted; only arrays from new_array() are written.
template <class T>
T *array_data(nb::handle arr) {
  return static_cast<T *>(const_cast<void *>(nb::cast<nb::ndarray<nb::ro>>(arr).data()));
}
nb::object new_array(size_t n, const char *dtype);
// A 1-D object array of the items of a list (the items are never looked into).
nb::object object_array(nb::handle items);
// The shape of an array-like as a tuple.
nb::tuple shape_of(nb::handle arr);
Py_ssize_t size_of(nb::handle arr);
// np.broadcast_shapes(a, b); the ValueError names both shapes.
nb::tuple broadcast_shapes(nb::handle a, nb::handle b);

// ---------------------------------------------------------------- handle arrays
// MVar, MConstr and MQConstr: an object ndarray of the model's handles (a view after indexing).
struct HandleArray {
  nb::object handles;
};
struct MVar : HandleArray {};
struct MConstr : HandleArray {};
struct MQConstr : HandleArray {};

bool is_mvar(nb::handle obj);
// MVar, MConstr or MQConstr.
bool is_handle_array(nb::handle obj);
// The column list of an MVar's handles for an expression: the 1-D array of which the handles
// are a strided view (so all slices of one addMVar share it), or a flat copy; `positions` gets
// each element's position in it (row-major).
nb::object column_list(nb::handle handles, nb::object &positions);
// The element pointers of a contiguous 1-D object array (valid while the array lives).
PyObject *const *object_items(nb::handle arr);
// The handles of an MVar, MConstr or MQConstr as a flat list (row-major).
nb::list flat_handles(nb::handle arr);
// New objects of the three classes around an object ndarray of handles.
nb::object make_mvar(nb::object handles);
nb::object make_mconstr(nb::object handles);
// An MVar of every variable of a Model object, in model order (pending ones included).
nb::object all_vars(nb::handle model);
nb::object make_mqconstr(nb::object handles);

// The methods every handle array has (shape, indexing views, item, tolist, reshape, T,
// attributes as arrays); `what` names the element kind in docstrings.
void def_handle_array_methods(nb::handle cls, const char *what);

// ---------------------------------------------------------------- expressions
// value[r] = sum_k A[r,k] vars[k] + sum_p Q[r,p] qvars1[p] qvars2[p] + constant.flat[r], where A
// and Q are scipy.sparse CSR matrices with one row per element; `constant` (a float ndarray)
// carries the shape. Q is None for a linear expression.
struct MExpr {
  nb::object constant;
  nb::object A, vars;
  nb::object Q, qvars1, qvars2;
  // A is the identity and the constant zero (an MVar as expression): products skip them.
  bool plain_vars = false;
  bool quadratic() const { return Q.is_valid() && !Q.is_none(); }
};
struct MLinExpr : MExpr {};
struct MQuadExpr : MExpr {};

bool is_matrix_expression(nb::handle obj);  // MVar, MLinExpr or MQuadExpr
// An MVar or matrix expression of exactly one element (which then stands for its element).
bool is_one_element(nb::handle obj);
// The expression value of an operand: MVar, MLinExpr, MQuadExpr, Var, LinExpr, QuadExpr, a
// number, or a numeric array (a constant). False for anything else.
bool to_mexpr(nb::handle obj, MExpr &out);
// An MLinExpr or MQuadExpr object holding e.
nb::object wrap_mexpr(MExpr e);
// Expressions with the elements selected by `positions` (an int array of element numbers
// whose shape becomes the result's shape).
MExpr take_rows(const MExpr &e, nb::handle positions);
MExpr broadcast_to(const MExpr &e, nb::handle shape);
// Sum of the elements, or over one axis (an int) keeping the others.
MExpr sum_expr(const MExpr &e, nb::handle axis);
// e * w, w a numeric array broadcast with e.
MExpr scale_by_array(const MExpr &e, nb::handle w);
// Elementwise product of two linear expressions (broadcast): a quadratic expression.
MExpr quad_product_expr(MExpr a, MExpr b);
// Methods of MLinExpr and MQuadExpr; `what` names the element type ("LinExpr").
void def_mexpr_methods(nb::handle cls, const char *what);

// Rows of an expression in the library's numbering, checked and cleaned: every variable is
// in `model`, every number finite.
struct LibraryRows {
  std::vector<int> beg, ind;  // linear part, one row per element
  std::vector<double> val;
  std::vector<int> qbeg, qrow, qcol;  // quadratic part
  std::vector<double> qval;
  std::vector<double> constant;
};
LibraryRows library_rows(const MExpr &e, KVRmodel *model);

// A matrix TempConstr converted into library rows, checked completely before anything is
// added (so several of them can be prepared and then added, leaving the model unchanged when
// any is invalid).
struct MatrixRows {
  LibraryRows rows;
  std::vector<char> sense;
  std::vector<double> rhs;
  std::vector<std::string> names;
  nb::tuple shape;
  bool quadratic = false;
};
MatrixRows prepare_matrix_tempconstr(nb::handle model, nb::handle tc, nb::handle name);
// The MConstr or MQConstr of prepared rows.
nb::object add_matrix_rows(nb::handle model, const MatrixRows &m);
// Model.addConstr of a TempConstr whose left side is a matrix expression.
nb::object add_matrix_tempconstr(nb::handle model, nb::handle tc, nb::handle name);
// Model.setObjective with a one-element matrix expression.
void set_matrix_objective(nb::handle model, nb::handle expr, nb::handle sense);
// Per-element names "base[i,j]" of an array of the given shape, or the names of an array of
// strings; empty when name is "".
std::vector<std::string> element_names(nb::handle name, nb::handle shape);
// An MConstr of a linear rows block added in one library call.
nb::object add_linear_rows(nb::handle self, KVRmodel *model, const LibraryRows &rows,
                           const std::vector<char> &sense, const std::vector<double> &rhs,
                           const std::vector<std::string> &names, nb::handle shape);

// ---------------------------------------------------------------- operators
enum class MatOp { Add, Sub, Mul, MatMul };
// a op b for matrix operands (either side); NotImplemented for operands it does not know.
nb::object matrix_binary(MatOp op, nb::handle a, nb::handle b);
// e / b for a number or a numeric array b.
nb::object matrix_divide(nb::handle e, nb::handle b);
// e ** 2 (other powers raise).
nb::object matrix_power(nb::handle e, nb::handle exponent);
// <=, >=, == of a matrix object: a TempConstr with everything on the left.
nb::object matrix_compare(nb::handle self, const char *sense, nb::handle other);
// e.sum(axis, dtype=None, out=None, keepdims=False) (NumPy's sum() passes the last three).
nb::object matrix_sum(nb::handle e, nb::handle axis, nb::handle dtype, nb::handle out,
                      bool keepdims);

// Operators and comparisons of MVar, MLinExpr and MQuadExpr; NumPy arrays and scipy.sparse
// matrices hand their operations with these classes over to them.
template <class T>
void def_matrix_operators(nb::class_<T> &cls) {
  using H = nb::handle;
  cls.def(
      "__add__", [](H a, H b) { return matrix_binary(MatOp::Add, a, b); },
      "self + other, broadcast.");
  cls.def(
      "__radd__", [](H a, H b) { return matrix_binary(MatOp::Add, b, a); },
      "other + self, broadcast.");
  cls.def(
      "__sub__", [](H a, H b) { return matrix_binary(MatOp::Sub, a, b); },
      "self - other, broadcast.");
  cls.def(
      "__rsub__", [](H a, H b) { return matrix_binary(MatOp::Sub, b, a); },
      "other - self, broadcast.");
  cls.def(
      "__mul__", [](H a, H b) { return matrix_binary(MatOp::Mul, a, b); },
      "Elementwise product (quadratic for two expressions).");
  cls.def(
      "__rmul__", [](H a, H b) { return matrix_binary(MatOp::Mul, b, a); },
      "Elementwise product (quadratic for two expressions).");
  cls.def(
      "__matmul__", [](H a, H b) { return matrix_binary(MatOp::MatMul, a, b); },
      "Matrix product with an array, scipy.sparse matrix or expression.");
  cls.def(
      "__rmatmul__", [](H a, H b) { return matrix_binary(MatOp::MatMul, b, a); },
      "Matrix product with an array, scipy.sparse matrix or expression.");
  cls.def(
      "__truediv__", [](H a, H b) { return matrix_divide(a, b); },
      "Division by a number or numeric array.");
  cls.def(
      "__neg__", [](H a) { return matrix_binary(MatOp::Mul, a, nb::float_(-1.0)); }, "-self.");
  cls.def(
      "__pos__", [](H a) { return matrix_binary(MatOp::Add, a, nb::float_(0.0)); }, "+self.");
  cls.def(
      "__pow__", [](H a, H b, H) { return matrix_power(a, b); }, nb::arg("exponent"),
      nb::arg("modulo").none() = nb::none(), "self ** 2 (the only power there is).");
  cls.def(
      "__le__", [](H a, H b) { return matrix_compare(a, "<", b); },
      "self <= other: a matrix TempConstr.");
  cls.def(
      "__ge__", [](H a, H b) { return matrix_compare(a, ">", b); },
      "self >= other: a matrix TempConstr.");
  cls.def(
      "__eq__", [](H a, H b) { return matrix_compare(a, "=", b); },
      "self == other: a matrix TempConstr.");
  cls.def(
      "__ne__",
      [](H, H) -> nb::object { raise_error(kUsageError, "Inequality constraints not supported"); },
      "Raises: != makes no constraint.");
  cls.def(
      "sum",
      [](H a, H axis, H dtype, H out, bool keepdims) {
        return matrix_sum(a, axis, dtype, out, keepdims);
      },
      nb::arg("axis").none() = nb::none(), nb::arg("dtype").none() = nb::none(),
      nb::arg("out").none() = nb::none(), nb::arg("keepdims") = false,
      "The sum of the elements (over an axis or tuple of axes when axis is given) as a matrix "
      "expression; keepdims keeps the summed axes with length 1. dtype and out are accepted "
      "only as None (for numpy.sum).");
  cls.attr("__hash__") = nb::none();
  cls.attr("__array_ufunc__") = nb::none();
  cls.attr("__array_priority__") = 100;
}
// An MQConstr of quadratic rows, one library call each (the library adds quadratic
// constraints singly).
nb::object add_quadratic_rows(nb::handle self, KVRmodel *model, const LibraryRows &rows,
                              const std::vector<char> &sense, const std::vector<double> &rhs,
                              const std::vector<std::string> &names, nb::handle shape);

void init_mvar(nb::module_ &m);
void init_mlinexpr(nb::module_ &m);
void init_mquadexpr(nb::module_ &m);
void init_mconstr(nb::module_ &m);
void init_mqconstr(nb::module_ &m);

}  // namespace kvrpy
