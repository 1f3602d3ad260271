// Column: (coefficient, constraint) terms of a new variable; quicksum and the running sum ExprSum
// that builds one expression from many items without intermediate expressions.
#include <unordered_map>

#include "exprtypes.h"

namespace kvrpy {

PyTypeObject *g_column_type = nullptr;

namespace {

struct ColumnObject {
  PyObject_HEAD std::vector<double> coeffs;
  std::vector<PyObject *> constrs;  // strong references to Constr objects
};

ColumnObject *C(nb::handle h) { return reinterpret_cast<ColumnObject *>(h.ptr()); }

PyTypeObject *constr_type() {
  static PyTypeObject *type = handle_type(kConstr);
  return type;
}

bool is_constr(PyObject *o) { return PyObject_TypeCheck(o, constr_type()); }

ColumnObject *column_self(nb::handle self) { return self_as<ColumnObject>(self, g_column_type); }

nb::object column_new() {
  ColumnObject *c = PyObject_GC_New(ColumnObject, g_column_type);
  if (!c) throw nb::python_error();
  new (&c->coeffs) std::vector<double>();
  new (&c->constrs) std::vector<PyObject *>();
  PyObject_GC_Track(reinterpret_cast<PyObject *>(c));
  return nb::steal(reinterpret_cast<PyObject *>(c));
}

void release(std::vector<PyObject *> &objects) {
  std::vector<PyObject *> old;
  old.swap(objects);
  for (PyObject *o : old) Py_DECREF(o);
}

void column_append(ColumnObject *c, const std::vector<double> &coeffs,
                   const std::vector<PyObject *> &constrs) {
  grow(c->coeffs, coeffs.size());
  grow(c->constrs, constrs.size());
  for (size_t i = 0; i < coeffs.size(); ++i) {
    Py_INCREF(constrs[i]);
    c->coeffs.push_back(coeffs[i]);
    c->constrs.push_back(constrs[i]);
  }
}

// Checked terms from two iterables of equal length; nothing is appended before all pass.
void column_add_lists(ColumnObject *c, PyObject *coeffs, PyObject *constrs) {
  TermLists list =
      term_lists(coeffs, {{constrs, is_constr, "Second argument should be a list of Constr"}},
                 "Array lengths don't match");
  column_append(c, list.coeffs, list.objects[0]);
}

std::string type_text(PyObject *o) { return py_str(reinterpret_cast<PyObject *>(Py_TYPE(o))); }

PyObject *column_tp_new(PyTypeObject *, PyObject *args, PyObject *kwds) {
  return guard([&]() -> PyObject * {
    static const char *kwlist[] = {"coeffs", "constrs", nullptr};
    PyObject *coeffs = Py_None, *constrs = Py_None;
    if (!PyArg_ParseTupleAndKeywords(args, kwds, "|OO:Column", const_cast<char **>(kwlist), &coeffs,
                                     &constrs))
      return nullptr;
    nb::object r = column_new();
    double v;
    if (coeffs == Py_None && constrs == Py_None) return r.release().ptr();
    if (is_constr(constrs) && isscalar(coeffs, &v)) {
      check_coeff(v);
      column_append(C(r), {v}, {constrs});
    } else if (is_iterable(coeffs) && is_iterable(constrs)) {
      column_add_lists(C(r), coeffs, constrs);
    } else {
      invalid("No constructor available for Column(" + type_text(coeffs) + ", " +
              type_text(constrs) + ")");
    }
    return r.release().ptr();
  });
}

void column_tp_dealloc(PyObject *self) {
  ColumnObject *c = C(self);
  PyObject_GC_UnTrack(self);
  release(c->constrs);
  c->constrs.~vector();
  c->coeffs.~vector();
  free_heap_object(self);
}

int column_tp_traverse(PyObject *self, visitproc visit, void *arg) {
  Py_VISIT(Py_TYPE(self));
  for (PyObject *o : C(self)->constrs) Py_VISIT(o);
  return 0;
}

int column_tp_clear(PyObject *self) {
  C(self)->coeffs.clear();
  release(C(self)->constrs);
  return 0;
}

// The display name of a constraint handle: its name, or its pending or removed state.
std::string constr_text(PyObject *o) {
  Constr *c = as_constr(o);
  if (!c) return py_str(o);
  if (c->index == -1 || c->index >= num_constrs(c->model)) return "*Awaiting Model Update*";
  if (c->index == -2) return "*Removed*";
  char *name = nullptr;
  if (KVRgetstrattrelement(c->model, "ConstrName", public_index(c->index), &name) || !name)
    raise_error(kUsageError, KVRgetmerrormsg(c->model));
  return display(name);
}

PyObject *column_tp_repr(PyObject *self) {
  return guard([&] {
    ColumnObject *c = C(self);
    std::string s;
    for (size_t i = 0; i < c->coeffs.size(); ++i) {
      if (i) s += " + ";
      s += coeff_text(c->coeffs[i]) + constr_text(c->constrs[i]);
    }
    return str_object("<kaviro.Column: " + (s.empty() ? std::string("empty") : s) + ">");
  });
}

void column_add_terms(ColumnObject *c, nb::handle coeffs, nb::handle constrs) {
  if (is_constr(constrs.ptr())) {
    double v = number_arg(coeffs, "First argument should be a number");
    check_coeff(v);
    column_append(c, {v}, {constrs.ptr()});
    return;
  }
  if (!is_iterable(constrs.ptr()))
    invalid("Unsupported data type (" + type_text(constrs.ptr()) + ") for constraint argument");
  if (!is_iterable(coeffs.ptr())) invalid("First argument should be a list of floats");
  column_add_lists(c, coeffs.ptr(), constrs.ptr());
}

// Constraints in the model merge by model and row index; pending and removed ones by object.
TermKey constr_key(PyObject *o) {
  Constr *c = as_constr(o);
  if (c && c->index != -1 && c->index != -2) return {c->model, c->index};
  return {nullptr, reinterpret_cast<intptr_t>(o)};
}

void column_normalize(ColumnObject *c) {
  std::unordered_map<TermKey, size_t, TermKeyHash> first;
  std::vector<double> coeffs;
  std::vector<PyObject *> constrs, dropped;
  coeffs.reserve(c->coeffs.size());
  constrs.reserve(c->coeffs.size());
  for (size_t i = 0; i < c->coeffs.size(); ++i) {
    auto [it, fresh] = first.emplace(constr_key(c->constrs[i]), coeffs.size());
    if (fresh) {
      coeffs.push_back(c->coeffs[i]);
      constrs.push_back(c->constrs[i]);
    } else {
      coeffs[it->second] += c->coeffs[i];
      dropped.push_back(c->constrs[i]);
    }
  }
  c->coeffs.swap(coeffs);
  c->constrs.swap(constrs);
  release(dropped);
}

void register_column_methods(PyTypeObject *type) {
  MethodDefiner def{type};
  def(
      "addTerms",
      [](nb::handle self, nb::handle coeffs, nb::handle constrs) {
        column_add_terms(column_self(self), coeffs, constrs);
      },
      nb::arg("coeffs").none(), nb::arg("constrs").none(),
      "Adds terms: a number and a Constr, or a list of numbers and a list of Constr.");
  def(
      "size", [](nb::handle self) { return column_self(self)->coeffs.size(); }, "Number of terms.");
  def(
      "getCoeff",
      [](nb::handle self, nb::handle i) {
        ColumnObject *c = column_self(self);
        return c->coeffs[term_position(i, c->coeffs.size(), "a Column")];
      },
      nb::arg("i").none(), "The coefficient of term i.");
  def(
      "getConstr",
      [](nb::handle self, nb::handle i) {
        ColumnObject *c = column_self(self);
        return nb::borrow(c->constrs[term_position(i, c->coeffs.size(), "a Column")]);
      },
      nb::arg("i").none(), "The constraint of term i.");
  def(
      "remove",
      [](nb::handle self, nb::handle i) {
        ColumnObject *c = column_self(self);
        size_t k = term_position(i, c->coeffs.size(), "a Column");
        PyObject *dropped = c->constrs[k];
        c->coeffs.erase(c->coeffs.begin() + static_cast<std::ptrdiff_t>(k));
        c->constrs.erase(c->constrs.begin() + static_cast<std::ptrdiff_t>(k));
        Py_DECREF(dropped);
      },
      nb::arg("i").none(), "Removes the term at position i.");
  def(
      "clear",
      [](nb::handle self) {
        ColumnObject *c = column_self(self);
        c->coeffs.clear();
        release(c->constrs);
      },
      "Removes every term.");
  def(
      "copy",
      [](nb::handle self) {
        ColumnObject *c = column_self(self);
        nb::object r = column_new();
        column_append(C(r), c->coeffs, c->constrs);
        return r;
      },
      "A copy of the column.");
  def(
      "_normalize", [](nb::handle self) { column_normalize(column_self(self)); },
      "Merges the terms of the same constraint, in order of first occurrence.");
  def.property(
      "_coeffs",
      [](nb::handle self) {
        nb::list out;
        for (double v : column_self(self)->coeffs) out.append(v);
        return out;
      },
      "The coefficients (a new list).");
  def.property(
      "_constrs",
      [](nb::handle self) {
        nb::list out;
        for (PyObject *o : column_self(self)->constrs) out.append(nb::handle(o));
        return out;
      },
      "The constraints (a new list).");
}

// ---------------------------------------------------------------- quicksum

bool is_matrix_expression(nb::handle data) {
  return is_instance(data, "MVar") || is_instance(data, "MLinExpr") ||
         is_instance(data, "MQuadExpr");
}

nb::object quicksum(nb::handle data) {
  if (is_instance(data, "tupledict")) return quicksum(data.attr("values")());
  if (is_matrix_expression(data)) return data.attr("sum")(nb::arg("axis") = 0);
  if (!is_iterable(data.ptr()))
    invalid("quicksum needs an iterable of terms, not " + type_text(data.ptr()));
  ExprSum sum;
  if (PyList_CheckExact(data.ptr()) || PyTuple_CheckExact(data.ptr())) {
    sum.reserve(static_cast<size_t>(PySequence_Fast_GET_SIZE(data.ptr())));
    // Items are read by index: a list that the items' operators change stays safe to walk.
    for (Py_ssize_t i = 0; i < PySequence_Fast_GET_SIZE(data.ptr()); ++i)
      sum.add(nb::borrow(PySequence_Fast_GET_ITEM(data.ptr(), i)));
    return sum.result();
  }
  // Other iterables only hint at their length: a wrong hint must not allocate much.
  Py_ssize_t hint = PyObject_LengthHint(data.ptr(), 0);
  if (hint < 0) throw nb::python_error();
  sum.reserve(std::min<size_t>(static_cast<size_t>(hint), size_t{1} << 20));
  nb::object it = nb::steal(PyObject_GetIter(data.ptr()));
  if (!it) throw nb::python_error();
  while (PyObject *item = PyIter_Next(it.ptr())) sum.add(nb::steal(item));
  if (PyErr_Occurred()) throw nb::python_error();
  return sum.result();
}

}  // namespace

// ---------------------------------------------------------------- ExprSum

ExprSum::ExprSum() : acc_(lin_new()) {}

void ExprSum::reserve(size_t terms) {
  if (is_lin(acc_.ptr())) L(acc_)->terms.reserve(terms);
}

void ExprSum::add(nb::handle item, double mult) {
  PyObject *acc = acc_.ptr();
  if (mult != 1.0) check_coeff(mult);
  if (is_lin(acc)) {
    Operand o = classify(item.ptr());
    if (is_linear_kind(o.kind)) {
      lin_add(L(acc), item.ptr(), o, mult);
      return;
    }
    if (o.kind == Kind::Quad) {
      // The running sum becomes the linear part of a quadratic one.
      acc_ = quad_new(std::move(acc_));
      quad_add(Q(acc_), item.ptr(), o, mult);
      return;
    }
  } else if (is_quad(acc)) {
    Operand o = classify(item.ptr());
    if (o.kind != Kind::Other) {
      quad_add(Q(acc), item.ptr(), o, mult);
      return;
    }
  }
  nb::object term = nb::borrow(item);
  if (mult != 1.0) {
    PyObject *scaled = PyNumber_Multiply(nb::float_(mult).ptr(), item.ptr());
    if (!scaled) throw nb::python_error();
    term = nb::steal(scaled);
  }
  PyObject *r = PyNumber_InPlaceAdd(acc_.ptr(), term.ptr());
  if (!r) throw nb::python_error();
  acc_ = nb::steal(r);
}

nb::object ExprSum::result() { return acc_; }

// ---------------------------------------------------------------- expr.h interface

bool is_column(nb::handle obj) { return Py_TYPE(obj.ptr()) == g_column_type; }

void collect_column(nb::handle column, KVRmodel *model, std::vector<int> &ind,
                    std::vector<double> &val) {
  ColumnObject *c = column_self(column);
  std::vector<int> rows;
  rows.reserve(c->constrs.size());
  for (PyObject *o : c->constrs) rows.push_back(constr_row(o, model));
  ind.insert(ind.end(), rows.begin(), rows.end());
  val.insert(val.end(), c->coeffs.begin(), c->coeffs.end());
}

void init_column(nb::module_ &m) {
  g_column_type =
      new_expr_type(m, {"kaviropy.Column",
                        sizeof(ColumnObject),
                        "The constraints a new variable takes part in: (coefficient, Constr) "
                        "terms, for Model.addVar(column=...).\n\nColumn(coeffs=None, constrs=None)",
                        column_tp_new,
                        column_tp_dealloc,
                        column_tp_traverse,
                        column_tp_clear,
                        column_tp_repr,
                        {}});
  register_column_methods(g_column_type);
  m.def("quicksum", &quicksum, nb::arg("data").none(),
        "The sum of the items of data (numbers, Var, LinExpr, QuadExpr, ...) as one expression, "
        "built in place; a tupledict contributes its values.");
}

}  // namespace kvrpy
