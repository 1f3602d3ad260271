// General expressions: small records (abs, and, or, max, min, norm) that stand on the right side of
// `resvar == f(...)` and add themselves through the model's addGenConstr... methods.
#include <Python.h>
#include <structmember.h>

#include "exprtypes.h"

namespace kvrpy {

PyTypeObject *g_genexpr_type = nullptr;

namespace {

// Operands live in the instance dictionary, as plain attributes.
struct GenExprObject {
  PyObject_HEAD PyObject *dict;
};

enum class GenKind { Abs, And, Or, Max, Min, Norm };

struct GenClass {
  GenKind kind;
  const char *qualname;      // "kaviropy." + class name (the type keeps this pointer)
  const char *model_method;  // Model method that adds the constraint
  // The attributes passed to model_method after resvar: the operands, then a number (or none).
  const char *operands;
  const char *value;
  const char *repr;   // str.format pattern of the repr: {0} the operands' text, {1} the number
  const char *parse;  // the constructor's arguments (operands, value) as PyArg formats them
  PyTypeObject *type = nullptr;
  const char *name() const { return qualname + 9; }
};

GenClass g_classes[] = {
    {GenKind::Abs, "kaviropy.GenExprAbs", "addGenConstrAbs", "argvar", nullptr,
     "<kaviro.GenExprAbs: ({0:s})>", "O"},
    {GenKind::And, "kaviropy.GenExprAnd", "addGenConstrAnd", "argvars", nullptr,
     "<kaviro.GenExprAnd: ({0:s})>", "O"},
    {GenKind::Or, "kaviropy.GenExprOr", "addGenConstrOr", "argvars", nullptr,
     "<kaviro.GenExprOr: ({0:s})>", "O"},
    {GenKind::Max, "kaviropy.GenExprMax", "addGenConstrMax", "argvars", "constant",
     "<kaviro.GenExprMax: ({0:s}), constant={1:s}>", "O|O"},
    {GenKind::Min, "kaviropy.GenExprMin", "addGenConstrMin", "argvars", "constant",
     "<kaviro.GenExprMin: ({0:s}), constant={1:s}>", "O|O"},
    {GenKind::Norm, "kaviropy.GenExprNorm", "addGenConstrNorm", "argvars", "which",
     "<kaviro.GenExprNorm-{1:s}: ({0:s})>", "OO"},
};

const GenClass &gen_class(PyObject *self) {
  for (const GenClass &c : g_classes)
    if (c.type && PyObject_TypeCheck(self, c.type)) return c;
  raise_python(PyExc_TypeError, "not a general expression of a known kind");
}

void ge_tp_dealloc(PyObject *self) {
  PyObject_GC_UnTrack(self);
  Py_CLEAR(reinterpret_cast<GenExprObject *>(self)->dict);
  free_heap_object(self);
}

int ge_tp_traverse(PyObject *self, visitproc visit, void *arg) {
  Py_VISIT(Py_TYPE(self));
  Py_VISIT(reinterpret_cast<GenExprObject *>(self)->dict);
  return 0;
}

int ge_tp_clear(PyObject *self) {
  Py_CLEAR(reinterpret_cast<GenExprObject *>(self)->dict);
  return 0;
}

PyObject *ge_tp_richcompare(PyObject *, PyObject *, int op) {
  return guard([&]() -> PyObject * {
    if (op == Py_EQ || op == Py_NE)
      invalid(
          "General expressions can only be the right hand side part of an assignment to a single "
          "variable");
    return not_implemented();
  });
}

int ge_tp_init(PyObject *self, PyObject *args, PyObject *kwds) {
  PyObject *r = guard([&]() -> PyObject * {
    const GenClass &cls = gen_class(self);
    std::vector<const char *> names = {cls.operands};
    if (cls.value) names.push_back(cls.value);
    PyObject *values[2] = {nullptr, Py_None};  // an optional value left out: None
    std::vector<char *> kwlist;
    for (const char *n : names) kwlist.push_back(const_cast<char *>(n));
    kwlist.push_back(nullptr);
    std::string format = std::string(cls.parse) + ":" + cls.name();
    if (!PyArg_ParseTupleAndKeywords(args, kwds, format.c_str(), kwlist.data(), &values[0],
                                     &values[1]))
      return nullptr;
    for (size_t i = 0; i < names.size(); ++i)
      if (PyObject_SetAttrString(self, names[i], values[i])) return nullptr;
    return Py_NewRef(Py_None);
  });
  if (!r) return -1;
  Py_DECREF(r);
  return 0;
}

// Text of one operand: a variable's name, a list of operands separated by commas, or str().
std::string operand_text(nb::handle o) {
  if (is_var(o.ptr())) return var_text(o.ptr());
  if (PyList_Check(o.ptr()) || PyTuple_Check(o.ptr())) {
    std::string s;
    for (nb::handle item : o) {
      if (!s.empty()) s += ", ";
      s += operand_text(item);
    }
    return s;
  }
  return py_str(o);
}

PyObject *ge_tp_repr(PyObject *self) {
  return guard([&] {
    const GenClass &cls = gen_class(self);
    nb::handle h(self);
    nb::str operands(operand_text(h.attr(cls.operands)).c_str());
    nb::str value(cls.value ? py_str(h.attr(cls.value)).c_str() : "");
    return nb::str(cls.repr).attr("format")(operands, value).release().ptr();
  });
}

nb::object add_as_constr(nb::handle self, nb::handle model, nb::handle resvar, nb::handle name) {
  const GenClass &cls = gen_class(self.ptr());
  nb::object method = model.attr(cls.model_method);
  nb::object operands = self.attr(cls.operands);
  if (!cls.value) return method(resvar, operands, name);
  return method(resvar, operands, self.attr(cls.value), name);
}

// One list of operands from the positional arguments: lists and tuples contribute their items,
// a tupledict its values, anything else itself.
nb::list gcargs_concat(nb::handle args) {
  nb::list out;
  for (nb::handle a : args) {
    if (is_instance(a, "tupledict")) {
      for (nb::handle v : a.attr("values")()) out.append(v);
    } else if (PyList_Check(a.ptr()) || PyTuple_Check(a.ptr())) {
      for (nb::handle v : a) out.append(v);
    } else {
      out.append(a);
    }
  }
  return out;
}

nb::object gen_new(GenKind kind, nb::tuple args) {
  for (const GenClass &c : g_classes) {
    if (c.kind != kind) continue;
    PyObject *r = PyObject_Call(reinterpret_cast<PyObject *>(c.type), args.ptr(), nullptr);
    if (!r) throw nb::python_error();
    return nb::steal(r);
  }
  return nb::none();
}

PyTypeObject *make_base(nb::module_ &m) {
  static PyMemberDef members[] = {
      {"__dictoffset__", T_PYSSIZET, offsetof(GenExprObject, dict), READONLY, nullptr},
      {nullptr, 0, 0, 0, nullptr}};
  static PyGetSetDef getset[] = {
      {"__dict__", PyObject_GenericGetDict, PyObject_GenericSetDict, nullptr, nullptr},
      {nullptr, nullptr, nullptr, nullptr, nullptr}};
  return new_expr_type(
      m, {"kaviropy.GenExpr",
          sizeof(GenExprObject),
          "Base class of the general expressions (max_, min_, abs_, and_, or_, norm).",
          PyType_GenericNew,
          ge_tp_dealloc,
          ge_tp_traverse,
          ge_tp_clear,
          nullptr,
          {slot(Py_tp_richcompare, ge_tp_richcompare),
           {Py_tp_members, members},
           {Py_tp_getset, getset}},
          Py_TPFLAGS_BASETYPE});
}

PyTypeObject *make_subclass(const GenClass &cls, PyTypeObject *base) {
  static PyType_Slot slots[] = {
      {Py_tp_init, reinterpret_cast<void *>(ge_tp_init)},
      {Py_tp_repr, reinterpret_cast<void *>(ge_tp_repr)},
      {Py_tp_doc, const_cast<char *>("A general expression; see the module function of the same "
                                     "kind.")},
      {0, nullptr}};
  // Garbage collection support (flag, traverse, clear) is inherited from the base.
  PyType_Spec spec = {cls.qualname, sizeof(GenExprObject), 0, Py_TPFLAGS_DEFAULT, slots};
  PyObject *type = PyType_FromSpecWithBases(&spec, reinterpret_cast<PyObject *>(base));
  if (!type) throw nb::python_error();
  return reinterpret_cast<PyTypeObject *>(type);
}

}  // namespace

bool is_genexpr(nb::handle obj) {
  return g_genexpr_type && PyObject_TypeCheck(obj.ptr(), g_genexpr_type);
}

void init_genexpr(nb::module_ &m) {
  g_genexpr_type = make_base(m);
  for (GenClass &cls : g_classes) {
    cls.type = make_subclass(cls, g_genexpr_type);
    MethodDefiner def{cls.type};
    def("_addAsConstr", &add_as_constr, nb::arg("model").none(), nb::arg("resvar").none(),
        nb::arg("name").none() = "",
        "Adds resvar == this expression to the model as a general constraint; returns the "
        "GenConstr.");
    m.attr(cls.name()) = nb::handle(reinterpret_cast<PyObject *>(cls.type));
  }

  m.def(
      "_special_gcargs_concat", [](nb::args args) { return gcargs_concat(args); }, nb::arg("args"),
      "One list of operands from the arguments (lists, tuples and tupledicts are flattened).");
  m.def(
      "abs_", [](nb::handle argvar) { return gen_new(GenKind::Abs, nb::make_tuple(argvar)); },
      nb::arg("argvar").none(), "The absolute value of a variable, for resvar == abs_(x).");
  // and_, or_: the operands only; max_, min_: the operands and an optional constant.
  struct Variadic {
    const char *name;
    GenKind kind;
    const char *doc;
  };
  const Variadic logic[] = {
      {"and_", GenKind::And, "The logical and of binary variables, for resvar == and_(x, y, ...)."},
      {"or_", GenKind::Or, "The logical or of binary variables, for resvar == or_(x, y, ...)."}};
  for (const Variadic &f : logic)
    m.def(
        f.name,
        [kind = f.kind](nb::args args) {
          return gen_new(kind, nb::make_tuple(gcargs_concat(args)));
        },
        nb::arg("args"), f.doc);
  const Variadic extrema[] = {
      {"max_", GenKind::Max,
       "The maximum of variables (and of constant when given), for resvar == max_(x, y, ...)."},
      {"min_", GenKind::Min,
       "The minimum of variables (and of constant when given), for resvar == min_(x, y, ...)."}};
  for (const Variadic &f : extrema)
    m.def(
        f.name,
        [kind = f.kind](nb::args args, nb::handle constant) {
          return gen_new(kind, nb::make_tuple(gcargs_concat(args), constant));
        },
        nb::arg("args"), nb::arg("constant").none() = nb::none(), f.doc);
  m.def(
      "norm",
      [](nb::handle argvars, nb::handle which) {
        return gen_new(GenKind::Norm, nb::make_tuple(argvars, which));
      },
      nb::arg("argvars").none(), nb::arg("which").none(),
      "The norm (which: 0, 1, 2 or infinity) of variables, for resvar == norm([x, y], 2).");
}

}  // namespace kvrpy
