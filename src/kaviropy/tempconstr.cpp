// TempConstr: the record (lhs, sense, rhs) that a comparison of modelling objects produces, and
// the comparison operators of Var, LinExpr and QuadExpr that build it.
#include <Python.h>
#include <structmember.h>

#include "exprtypes.h"

namespace kvrpy {

PyTypeObject *g_tempconstr_type = nullptr;

namespace {

struct TempConstrObject {
  PyObject_HEAD PyObject *lhs;
  PyObject *sense;
  PyObject *rhs;
};

TempConstrObject *T(PyObject *o) { return reinterpret_cast<TempConstrObject *>(o); }

// Interned sense strings.
PyObject *sense_object(const char *sense) {
  static PyObject *less = nullptr, *greater = nullptr, *equal = nullptr, *indicator = nullptr;
  PyObject **slot = sense[0] == '<'   ? &less
                    : sense[0] == '>' ? &greater
                    : sense[0] == '=' ? &equal
                                      : &indicator;
  if (!*slot) {
    *slot = PyUnicode_InternFromString(sense);  // kept for the life of the process
    if (!*slot) throw nb::python_error();
  }
  return *slot;
}

// The matrix class `name` of the module, or null while the module has none.
PyTypeObject *matrix_class(const char *name) {
  PyObject *cls = PyDict_GetItemString(PyModule_GetDict(module().ptr()), name);
  return cls && PyType_Check(cls) ? reinterpret_cast<PyTypeObject *>(cls) : nullptr;
}

bool is_plain_side(PyObject *o) {
  PyTypeObject *t = Py_TYPE(o);
  return t == &PyFloat_Type || t == &PyLong_Type || t == g_linexpr_type || t == g_quadexpr_type ||
         t == g_tempconstr_type || is_var(o) || PyObject_TypeCheck(o, g_genexpr_type);
}

bool is_matrix_side(PyObject *o) {
  for (const char *name : {"MVar", "MLinExpr", "MQuadExpr"}) {
    PyTypeObject *cls = matrix_class(name);
    if (cls && PyObject_TypeCheck(o, cls)) return true;
  }
  return false;
}

PyObject *tc_alloc(PyObject *lhs, PyObject *sense, PyObject *rhs) {
  TempConstrObject *t = PyObject_GC_New(TempConstrObject, g_tempconstr_type);
  if (!t) throw nb::python_error();
  t->lhs = Py_NewRef(lhs);
  t->sense = Py_NewRef(sense);
  t->rhs = Py_NewRef(rhs);
  PyObject_GC_Track(reinterpret_cast<PyObject *>(t));
  return reinterpret_cast<PyObject *>(t);
}

nb::object tempconstr_new(nb::handle lhs, nb::handle sense, nb::handle rhs) {
  nb::object l = nb::borrow(lhs), r = nb::borrow(rhs);
  // Matrix sides (only once the module has the matrix classes): everything goes to the left.
  if ((!is_plain_side(l.ptr()) || !is_plain_side(r.ptr())) && matrix_class("MVar")) {
    PyTypeObject *mvar = matrix_class("MVar");
    if (PyObject_TypeCheck(l.ptr(), mvar) && PyObject_TypeCheck(r.ptr(), g_genexpr_type)) {
      nb::object item = l.attr("item")();
      l = nb::handle(reinterpret_cast<PyObject *>(g_linexpr_type))(item);
    }
    if (is_matrix_side(l.ptr()) || is_matrix_side(r.ptr())) {
      PyObject *diff = PyNumber_Subtract(l.ptr(), r.ptr());
      if (!diff) throw nb::python_error();
      l = nb::steal(diff);
      r = nb::float_(0.0);
    }
  }
  return nb::steal(tc_alloc(l.ptr(), sense.ptr(), r.ptr()));
}

PyObject *tc_tp_new(PyTypeObject *, PyObject *args, PyObject *kwds) {
  return guard([&]() -> PyObject * {
    static const char *kwlist[] = {"lhs", "sense", "rhs", nullptr};
    PyObject *lhs, *sense, *rhs;
    if (!PyArg_ParseTupleAndKeywords(args, kwds, "OOO:TempConstr", const_cast<char **>(kwlist),
                                     &lhs, &sense, &rhs))
      return nullptr;
    return tempconstr_new(lhs, sense, rhs).release().ptr();
  });
}

void tc_tp_dealloc(PyObject *self) {
  PyObject_GC_UnTrack(self);
  Py_CLEAR(T(self)->lhs);
  Py_CLEAR(T(self)->sense);
  Py_CLEAR(T(self)->rhs);
  free_heap_object(self);
}

int tc_tp_traverse(PyObject *self, visitproc visit, void *arg) {
  Py_VISIT(Py_TYPE(self));
  Py_VISIT(T(self)->lhs);
  Py_VISIT(T(self)->sense);
  Py_VISIT(T(self)->rhs);
  return 0;
}

int tc_tp_clear(PyObject *self) {
  Py_CLEAR(T(self)->lhs);
  Py_CLEAR(T(self)->sense);
  Py_CLEAR(T(self)->rhs);
  return 0;
}

PyObject *tc_tp_repr(PyObject *self) {
  return guard([&] {
    TempConstrObject *t = T(self);
    if (!t->lhs || !t->sense || !t->rhs) return PyUnicode_FromString("<kaviro.TempConstr>");
    const char *sense = " == ";
    if (PyUnicode_Check(t->sense)) {
      if (PyUnicode_CompareWithASCIIString(t->sense, "<") == 0) sense = " <= ";
      if (PyUnicode_CompareWithASCIIString(t->sense, ">") == 0) sense = " >= ";
    }
    std::string s = "<kaviro.TempConstr: ";
    s += py_str(t->lhs);
    s += sense;
    s += py_str(t->rhs);
    s += ">";
    return str_object(s);
  });
}

PyObject *tc_nb_rshift(PyObject *a, PyObject *b) {
  return guard([&]() -> PyObject * {
    if (Py_TYPE(a) != g_tempconstr_type) return not_implemented();
    return tempconstr_new(a, sense_object("I"), b).release().ptr();
  });
}

int tc_nb_bool(PyObject *) {
  PyObject *r = guard([]() -> PyObject * {
    raise_error(kUsageError, "Constraint has no bool value (are you trying \"lb <= expr <= ub\"?)");
  });
  (void)r;
  return -1;
}

PyObject *tc_tp_richcompare(PyObject *, PyObject *, int op) {
  return guard([&]() -> PyObject * {
    if (op == Py_LE || op == Py_GE)
      raise_error(kUsageError, "Constraint comparison not implemented");
    return not_implemented();
  });
}

// ---------------------------------------------------------------- comparisons building it

// <=, >= and == of a modelling object `lhs` (already an expression) with anything.
PyObject *compare(nb::handle lhs, PyObject *other, int op) {
  switch (op) {
    case Py_LE:
      return tempconstr_new(lhs, sense_object("<"), other).release().ptr();
    case Py_GE:
      return tempconstr_new(lhs, sense_object(">"), other).release().ptr();
    case Py_EQ:
      return tempconstr_new(lhs, sense_object("="), other).release().ptr();
    case Py_NE:
      raise_error(kUsageError, "Inequality constraints not supported");
    default:
      return not_implemented();
  }
}

PyObject *var_richcompare(PyObject *self, PyObject *other, int op) {
  return guard([&]() -> PyObject * {
    if (op == Py_LT || op == Py_GT) return not_implemented();
    nb::object lin = lin_new();
    lin_add(L(lin), self, {Kind::Var, 0.0}, 1.0);
    return compare(lin, other, op);
  });
}

void install_var_comparisons() {
  PyTypeObject *type = var_type();
  MethodDefiner def{type};
  struct Op {
    const char *name;
    int op;
    const char *doc;
  };
  for (Op op : {Op{"__eq__", Py_EQ, "self == other: a TempConstr"},
                Op{"__le__", Py_LE, "self <= other: a TempConstr"},
                Op{"__ge__", Py_GE, "self >= other: a TempConstr"},
                Op{"__ne__", Py_NE, "Not supported: raises KaviroError"}}) {
    int code = op.op;
    def(
        op.name,
        [code](nb::handle self, nb::handle other) {
          PyObject *r = var_richcompare(self.ptr(), other.ptr(), code);
          if (!r) throw nb::python_error();
          return nb::steal(r);
        },
        nb::arg("other").none(), op.doc);
  }
  // Setting the attributes installed CPython's generic dispatcher; compare directly instead.
  type->tp_richcompare = var_richcompare;
  PyType_Modified(type);
}

}  // namespace

PyObject *expr_richcompare(PyObject *self, PyObject *other, int op) {
  return guard([&] { return compare(self, other, op); });
}

nb::object make_tempconstr(nb::handle lhs, const char *sense, nb::handle rhs) {
  return tempconstr_new(lhs, sense_object(sense), rhs);
}

bool is_tempconstr(nb::handle obj) { return Py_TYPE(obj.ptr()) == g_tempconstr_type; }

void init_tempconstr(nb::module_ &m) {
  static PyMemberDef members[] = {
      {"_lhs", T_OBJECT_EX, offsetof(TempConstrObject, lhs), 0, "Left side."},
      {"_sense", T_OBJECT_EX, offsetof(TempConstrObject, sense), 0,
       "Sense: '<', '>', '=', or 'I' for an indicator."},
      {"_rhs", T_OBJECT_EX, offsetof(TempConstrObject, rhs), 0, "Right side."},
      {nullptr, 0, 0, 0, nullptr}};
  g_tempconstr_type = new_expr_type(
      m, {"kaviropy.TempConstr",
          sizeof(TempConstrObject),
          "A constraint under construction: the result of <=, >= or == on modelling objects, for "
          "Model.addConstr.\n\nTempConstr(lhs, sense, rhs)",
          tc_tp_new,
          tc_tp_dealloc,
          tc_tp_traverse,
          tc_tp_clear,
          tc_tp_repr,
          {slot(Py_tp_richcompare, tc_tp_richcompare),
           {Py_tp_members, members},
           slot(Py_nb_rshift, tc_nb_rshift),
           slot(Py_nb_bool, tc_nb_bool)}});
  MethodDefiner def{g_tempconstr_type};
  def(
      "__nonzero__",
      [](nb::handle self) {
        if (PyObject_IsTrue(self.ptr()) < 0) throw nb::python_error();
        return false;
      },
      "Raises: a constraint has no truth value.");
  install_var_comparisons();
}

}  // namespace kvrpy
