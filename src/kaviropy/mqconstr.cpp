// MQConstr: arrays of quadratic constraints; the matrix forms of quadratic constraints and
// objectives (addMQConstr, setMObjective, a one-element matrix expression as objective) and getQ.
#include <cmath>

#include "exprtypes.h"
#include "matrix.h"
#include "model.h"

namespace kvrpy {

nb::object add_quadratic_rows(nb::handle self, KVRmodel *model, const LibraryRows &rows,
                              const std::vector<char> &sense, const std::vector<double> &rhs,
                              const std::vector<std::string> &names, nb::handle shape) {
  nb::list handles;
  for (size_t r = 0; r < rhs.size(); ++r) {
    int lb = rows.beg[r], qb = rows.qbeg[r];
    check_model(KVRaddqconstr(model, rows.beg[r + 1] - lb, rows.ind.data() + lb,
                              rows.val.data() + lb, rows.qbeg[r + 1] - qb, rows.qrow.data() + qb,
                              rows.qcol.data() + qb, rows.qval.data() + qb, sense[r], rhs[r],
                              names.empty() ? nullptr : names[r].c_str()),
                model);
    handles.append(model_append(self, kQConstr, false));
  }
  return make_mqconstr(object_array(handles).attr("reshape")(shape));
}

namespace {

// x_L @ Q @ x_R + c @ x_c (+ constant) from the matrix arguments; None parts are left out and a
// None variable array means all variables of the model.
nb::object matrix_form(nb::handle self, nb::handle Q, nb::handle c, nb::handle constant,
                       nb::handle xQ_L, nb::handle xQ_R, nb::handle xc) {
  auto vars_or_all = [&](nb::handle x) -> nb::object {
    if (x.is_none()) return all_vars(self);
    if (is_mvar(x)) return nb::borrow(x);
    return module_attr("MVar").attr("fromlist")(x);
  };
  nb::object total = constant.is_none() ? nb::object(nb::float_(0.0)) : nb::borrow(constant);
  if (!Q.is_none()) {
    nb::object left = matrix_binary(MatOp::MatMul, vars_or_all(xQ_L), Q);
    total = matrix_binary(MatOp::Add, total, matrix_binary(MatOp::MatMul, left, vars_or_all(xQ_R)));
  }
  if (!c.is_none())
    total = matrix_binary(MatOp::Add, total, matrix_binary(MatOp::MatMul, c, vars_or_all(xc)));
  return total;
}

int objective_sense(nb::handle sense) {
  if (sense.is_none()) return 0;
  double v = 0;
  if (!isscalar(sense, &v) || (v != KVR_MINIMIZE && v != KVR_MAXIMIZE))
    raise_error(KVR_ERROR_INVALID_ARGUMENT, "Objective sense must be KVR.MINIMIZE or KVR.MAXIMIZE");
  return static_cast<int>(v);
}

nb::object add_mqconstr(nb::handle self, nb::handle Q, nb::handle c, nb::handle sense,
                        nb::handle rhs, nb::handle xQ_L, nb::handle xQ_R, nb::handle xc,
                        nb::handle name) {
  KVRmodel *model = prepared_model(self);
  nb::object e = matrix_form(self, Q, c, nb::float_(0.0), xQ_L, xQ_R, xc);
  MExpr x;
  if (!to_mexpr(e, x) || size_of(x.constant) != 1)
    raise_error(KVR_ERROR_INVALID_ARGUMENT, "addMQConstr needs one quadratic expression");
  double r = 0;
  if (!isscalar(rhs, &r) || std::isnan(r))
    raise_error(KVR_ERROR_INVALID_ARGUMENT, "Invalid rhs argument");
  LibraryRows rows = library_rows(x, model);
  if (rows.qbeg.empty()) rows.qbeg.assign(2, 0);
  std::string s = PyUnicode_Check(sense.ptr()) ? utf8(sense) : std::string();
  char sc = s == "<" || s == "<="   ? KVR_LESS_EQUAL
            : s == ">" || s == ">=" ? KVR_GREATER_EQUAL
            : s == "=" || s == "==" ? KVR_EQUAL
                                    : 0;
  if (!sc) raise_error(KVR_ERROR_INVALID_ARGUMENT, "Invalid sense to Model.addMQConstr");
  std::vector<char> senses{sc};
  std::vector<double> b{to_library(r - rows.constant[0])};
  std::string n = name.is_none() ? std::string() : utf8(name);
  std::vector<std::string> names;
  if (!n.empty()) names.push_back(n);
  nb::object arr = add_quadratic_rows(self, model, rows, senses, b, names, nb::tuple());
  return arr;
}

nb::object get_q(nb::handle self) {
  KVRmodel *model = prepared_model(self);
  int n = num_vars(model), nnz = 0;
  check_model(KVRgetq(model, &nnz, nullptr, nullptr, nullptr), model);
  nb::object row = new_array(static_cast<size_t>(nnz), "int32"),
             col = new_array(static_cast<size_t>(nnz), "int32"),
             val = new_array(static_cast<size_t>(nnz), "float64");
  check_model(
      KVRgetq(model, &nnz, array_data<int>(row), array_data<int>(col), array_data<double>(val)),
      model);
  return scipy_sparse()
      .attr("coo_matrix")(nb::make_tuple(val, nb::make_tuple(row, col)),
                          nb::arg("shape") = nb::make_tuple(n, n))
      .attr("tocsr")();
}

}  // namespace

void set_matrix_objective(nb::handle self, nb::handle expr, nb::handle sense) {
  KVRmodel *model = prepared_model(self);
  MExpr e;
  if (!to_mexpr(expr, e)) raise_error(kInputError, "Unable to convert argument to an expression");
  if (size_of(e.constant) != 1)
    raise_error(KVR_ERROR_INVALID_ARGUMENT,
                "Objective must be one expression, not an array of shape " +
                    utf8(nb::str(shape_of(e.constant))));
  LibraryRows rows = library_rows(e, model);
  int s = objective_sense(sense);
  bool quad = !rows.qbeg.empty();
  check_model(
      KVRsetobjective(model, s, rows.constant[0], rows.beg[1], rows.ind.data(), rows.val.data(),
                      quad ? rows.qbeg[1] : 0, quad ? rows.qrow.data() : nullptr,
                      quad ? rows.qcol.data() : nullptr, quad ? rows.qval.data() : nullptr),
      model);
}

void init_mqconstr(nb::module_ &m) {
  auto cls = nb::class_<MQConstr>(m, "MQConstr",
                                  "An array of quadratic constraints with NumPy's shape and "
                                  "indexing; attributes read and write as ndarrays.");
  def_handle_array_methods(cls, "QConstr");

  ModelMethods def;
  def("addMQConstr", &add_mqconstr, nb::arg("Q").none(), nb::arg("c").none(), nb::arg("sense"),
      nb::arg("rhs"), nb::arg("xQ_L").none() = nb::none(), nb::arg("xQ_R").none() = nb::none(),
      nb::arg("xc").none() = nb::none(), nb::arg("name").none() = "",
      "addMQConstr(Q, c, sense, rhs, xQ_L=None, xQ_R=None, xc=None, name=\"\"): adds "
      "xQ_L @ Q @ xQ_R + c @ xc sense rhs (a None variable array means all variables); "
      "returns a 0-d MQConstr.");
  def(
      "setMObjective",
      [](nb::handle self, nb::handle Q, nb::handle c, nb::handle constant, nb::handle xQ_L,
         nb::handle xQ_R, nb::handle xc, nb::handle sense) {
        set_matrix_objective(self, matrix_form(self, Q, c, constant, xQ_L, xQ_R, xc), sense);
      },
      nb::arg("Q").none(), nb::arg("c").none(), nb::arg("constant").none(),
      nb::arg("xQ_L").none() = nb::none(), nb::arg("xQ_R").none() = nb::none(),
      nb::arg("xc").none() = nb::none(), nb::arg("sense").none() = nb::none(),
      "setMObjective(Q, c, constant, xQ_L=None, xQ_R=None, xc=None, sense=None): the objective "
      "xQ_L @ Q @ xQ_R + c @ xc + constant (a None variable array means all variables).");
  def("getQ", &get_q, "The objective's quadratic matrix as a scipy.sparse CSR matrix.");
}

}  // namespace kvrpy
