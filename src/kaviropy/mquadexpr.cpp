// MQuadExpr: arrays of quadratic expressions. The quadratic part is a second block of sparse
// rows whose columns are variable pairs (qvars1[p], qvars2[p]), so x @ Q @ x and x * x are built
// with array operations over the nonzeros, never per element.
#include "exprtypes.h"
#include "matrix.h"

namespace kvrpy {

MExpr quad_product_expr(MExpr a, MExpr b) {
  if (a.quadratic() || b.quadratic())
    raise_error(KVR_ERROR_INVALID_ARGUMENT,
                "Only linear matrix expressions can be multiplied with each other");
  nb::module_ &np = numpy();
  nb::tuple shape = broadcast_shapes(shape_of(a.constant), shape_of(b.constant));
  a = broadcast_to(a, shape);
  b = broadcast_to(b, shape);
  size_t n = static_cast<size_t>(size_of(a.constant));

  nb::object ap = contiguous(a.A.attr("indptr"), "int64"),
             ai = contiguous(a.A.attr("indices"), "int64"),
             ad = contiguous(a.A.attr("data"), "float64");
  nb::object bp = contiguous(b.A.attr("indptr"), "int64"),
             bi = contiguous(b.A.attr("indices"), "int64"),
             bd = contiguous(b.A.attr("data"), "float64");
  const int64_t *app = array_data<int64_t>(ap), *aip = array_data<int64_t>(ai);
  const int64_t *bpp = array_data<int64_t>(bp), *bip = array_data<int64_t>(bi);
  const double *adp = array_data<double>(ad), *bdp = array_data<double>(bd);

  // Row r of the product holds every pair of a term of a's row r with a term of b's row r.
  size_t pairs = 0;
  for (size_t r = 0; r < n; ++r)
    pairs += static_cast<size_t>((app[r + 1] - app[r]) * (bpp[r + 1] - bpp[r]));
  nb::object qptr = new_array(n + 1, "int64"), first = new_array(pairs, "int64"),
             second = new_array(pairs, "int64"), qval = new_array(pairs, "float64");
  int64_t *qp = array_data<int64_t>(qptr), *fp = array_data<int64_t>(first),
          *sp = array_data<int64_t>(second);
  double *qv = array_data<double>(qval);
  size_t k = 0;
  qp[0] = 0;
  for (size_t r = 0; r < n; ++r) {
    for (int64_t i = app[r]; i < app[r + 1]; ++i)
      for (int64_t j = bpp[r]; j < bpp[r + 1]; ++j) {
        fp[k] = aip[i];
        sp[k] = bip[j];
        qv[k] = adp[i] * bdp[j];
        ++k;
      }
    qp[r + 1] = static_cast<int64_t>(k);
  }

  // (La + ca)(Lb + cb) = La Lb + cb La + ca Lb + ca cb.
  auto linear_part = [&](const MExpr &e, nb::handle other_constant) {
    MExpr l = e;
    l.constant = np.attr("zeros")(shape);
    return scale_by_array(l, other_constant);
  };
  bool a_const = PyObject_IsTrue(np.attr("any")(a.constant).ptr()) == 1,
       b_const = PyObject_IsTrue(np.attr("any")(b.constant).ptr()) == 1;
  MExpr r;
  r.constant = a.constant.attr("__mul__")(b.constant);
  r.A = scipy_sparse().attr("csr_matrix")(nb::make_tuple(n, 0));
  r.vars = np.attr("empty")(0, nb::arg("dtype") = "O");
  if (b_const) {
    MExpr la = linear_part(a, b.constant);
    r.A = la.A;
    r.vars = la.vars;
  }
  if (a_const) {
    MExpr lb = linear_part(b, a.constant);
    if (nb::len(r.vars)) {
      r.A = scipy_sparse().attr("hstack")(nb::make_tuple(r.A, lb.A), nb::arg("format") = "csr");
      r.vars = np.attr("concatenate")(nb::make_tuple(r.vars, lb.vars));
    } else {
      r.A = lb.A;
      r.vars = lb.vars;
    }
  }
  r.Q = scipy_sparse().attr("csr_matrix")(nb::make_tuple(qval, np.attr("arange")(pairs), qptr),
                                          nb::arg("shape") = nb::make_tuple(n, pairs));
  r.qvars1 = a.vars[first];
  r.qvars2 = b.vars[second];
  return r;
}

void init_mquadexpr(nb::module_ &m) {
  auto cls = nb::class_<MQuadExpr>(m, "MQuadExpr",
                                   "An array of quadratic expressions with NumPy's shape and "
                                   "broadcasting rules, held as sparse rows over variable pairs.");
  def_mexpr_methods(cls, "QuadExpr");
  def_matrix_operators(cls);
}

}  // namespace kvrpy
