// LinExpr: a constant plus (coefficient, variable) terms in insertion order, and the arithmetic
// operators of Var, which all produce expressions.
#include <unordered_map>
#include <utility>

#include "exprtypes.h"

namespace kvrpy {

PyTypeObject *g_linexpr_type = nullptr;

constexpr long kLinExprLayout = 76435576;

PyTypeObject *var_type() {
  static PyTypeObject *type = handle_type(kVar);
  return type;
}

// ---------------------------------------------------------------- shared helpers

namespace {

// NumPy's scalar and array base types, once NumPy has been imported by anyone.
struct NumpyTypes {
  PyTypeObject *generic = nullptr;
  PyTypeObject *ndarray = nullptr;
};

const NumpyTypes &numpy_types() {
  static NumpyTypes types;
  if (types.ndarray) return types;
  PyObject *name = PyUnicode_FromString("numpy");
  if (!name) throw nb::python_error();
  PyObject *np = PyImport_GetModule(name);
  Py_DECREF(name);
  if (!np) {
    PyErr_Clear();
    return types;
  }
  PyObject *generic = PyObject_GetAttrString(np, "generic");
  PyObject *ndarray = PyObject_GetAttrString(np, "ndarray");
  Py_DECREF(np);
  if (!generic || !ndarray || !PyType_Check(generic) || !PyType_Check(ndarray)) {
    PyErr_Clear();
    Py_XDECREF(generic);
    Py_XDECREF(ndarray);
    return types;
  }
  // Both stay referenced for the life of the process.
  types.generic = reinterpret_cast<PyTypeObject *>(generic);
  types.ndarray = reinterpret_cast<PyTypeObject *>(ndarray);
  return types;
}

bool is_matrix_object(PyObject *o) {
  PyObject *dict = PyModule_GetDict(module().ptr());
  for (const char *name : {"MVar", "MLinExpr", "MQuadExpr", "MConstr", "MQConstr"}) {
    PyObject *cls = PyDict_GetItemString(dict, name);  // borrowed, no exception when absent
    if (cls && PyType_Check(cls) && PyObject_TypeCheck(o, reinterpret_cast<PyTypeObject *>(cls)))
      return true;
  }
  return false;
}

}  // namespace

bool array_like(PyObject *o) {
  const NumpyTypes &np = numpy_types();
  if (np.ndarray && PyObject_TypeCheck(o, np.ndarray)) return true;
  if (is_matrix_object(o)) return true;
  int has = PyObject_HasAttrString(reinterpret_cast<PyObject *>(Py_TYPE(o)), "__array_ufunc__");
  return has == 1;
}

Operand classify(PyObject *o) {
  PyTypeObject *t = Py_TYPE(o);
  if (t == &PyFloat_Type) return {Kind::Num, PyFloat_AS_DOUBLE(o)};
  if (t == g_linexpr_type) return {Kind::Lin, 0.0};
  if (t == var_type()) return {Kind::Var, 0.0};
  if (t == g_quadexpr_type) return {Kind::Quad, 0.0};
  double v = 0.0;
  if (t == &PyLong_Type || PyFloat_Check(o) || PyLong_Check(o)) {
    if (isscalar(o, &v)) return {Kind::Num, v};
    return {Kind::Other, 0.0};
  }
  if (PyType_IsSubtype(t, var_type())) return {Kind::Var, 0.0};
  const NumpyTypes &np = numpy_types();
  if (np.generic && PyObject_TypeCheck(o, np.generic)) {
    if (isscalar(o, &v)) return {Kind::Num, v};
    return {Kind::Other, 0.0};
  }
  if (array_like(o)) return {Kind::Other, 0.0};
  if (isscalar(o, &v)) return {Kind::Num, v};
  return {Kind::Other, 0.0};
}

void raise_divisor() { invalid("Divisor must be a constant"); }

void raise_unconvertible() { raise_error(-1, "Unable to convert argument to an expression"); }

bool is_iterable(PyObject *o) {
  if (PyUnicode_Check(o) || PyBytes_Check(o)) return false;
  return PySequence_Check(o) || Py_TYPE(o)->tp_iter != nullptr;
}

nb::object as_sequence(PyObject *o) {
  PyObject *s = PySequence_Fast(o, "expected an iterable");
  if (!s) throw nb::python_error();
  return nb::steal(s);
}

void raise_zero_division() { raise_python(PyExc_ZeroDivisionError, "float division by zero"); }

size_t term_position(nb::handle i, size_t n, const char *what) {
  if (!PyLong_Check(i.ptr()))
    invalid(std::string("Term position must be an integer, not ") + Py_TYPE(i.ptr())->tp_name);
  long long k = PyLong_AsLongLong(i.ptr());
  if (k == -1 && PyErr_Occurred()) throw nb::python_error();
  long long size = static_cast<long long>(n);
  if (k < -size || k >= size)
    raise_error(KVR_ERROR_INDEX_OUT_OF_RANGE, "Index " + std::to_string(k) + " out of range for " +
                                                  what + " with " + std::to_string(n) + " terms");
  return static_cast<size_t>(k < 0 ? k + size : k);
}

std::string py_str(nb::handle o) {
  PyObject *s = PyObject_Str(o.ptr());
  if (!s) throw nb::python_error();
  nb::object keep = nb::steal(s);
  Py_ssize_t n = 0;
  const char *p = PyUnicode_AsUTF8AndSize(s, &n);
  if (!p) throw nb::python_error();
  return std::string(p, static_cast<size_t>(n));
}

std::string float_text(double v) {
  char *s = PyOS_double_to_string(v, 'r', 0, Py_DTSF_ADD_DOT_0, nullptr);
  if (!s) throw nb::python_error();
  std::string out(s);
  PyMem_Free(s);
  return out;
}

std::string coeff_text(double c) { return c == 1.0 ? std::string() : float_text(c) + " "; }

std::string var_text(PyObject *var) {
  Var *v = as_var(var);
  return v ? var_safename(*v) : py_str(var);
}

bool same_var(PyObject *a, PyObject *b) {
  if (a == b) return true;
  if (Py_TYPE(a) != Py_TYPE(b)) return false;
  Var *va = as_var(a), *vb = as_var(b);
  if (!va || !vb || va->model != vb->model || va->index != vb->index) return false;
  nb::object da = nb::getattr(a, "__dict__", nb::dict());
  nb::object db = nb::getattr(b, "__dict__", nb::dict());
  int eq = PyObject_RichCompareBool(da.ptr(), db.ptr(), Py_EQ);
  if (eq < 0) throw nb::python_error();
  return eq == 1;
}

std::unordered_set<PyObject *> vars_same_as(const std::vector<PyObject *> &vars, PyObject *which) {
  OwnedRefs refs;
  refs.objects.reserve(vars.size() + 1);
  refs.add(which);
  for (PyObject *v : vars) refs.add(v);
  std::unordered_set<PyObject *> seen, same;
  for (size_t i = 1; i < refs.objects.size(); ++i) {
    PyObject *v = refs.objects[i];
    if (seen.insert(v).second && same_var(v, which)) same.insert(v);
  }
  return same;
}

void release_terms(LinTerms &terms) {
  // Detach first: a release may run arbitrary code that looks at the owner.
  LinTerms old;
  old.swap(terms);
  for (LinTerm &t : old) Py_DECREF(t.var);
}

void release_terms(QuadTerms &terms) {
  QuadTerms old;
  old.swap(terms);
  for (QuadTerm &t : old) {
    Py_DECREF(t.var1);
    Py_DECREF(t.var2);
  }
}

void add_unpickler(nb::module_ &m, PyMethodDef *def) {
  nb::object module_name = nb::str("kaviropy");
  PyObject *f = PyCFunction_NewEx(def, nullptr, module_name.ptr());
  if (!f) throw nb::python_error();
  m.attr(def->ml_name) = nb::steal(f);
}

void add_method(PyTypeObject *type, const char *name, nb::object func) {
  if (PyObject_SetAttrString(reinterpret_cast<PyObject *>(type), name, func.ptr()))
    throw nb::python_error();
}

// ---------------------------------------------------------------- LinExpr storage

namespace {

void copy_terms(LinTerms &dst, const LinTerm *src, size_t n, double mult) {
  grow(dst, n);
  for (size_t i = 0; i < n; ++i) {
    Py_INCREF(src[i].var);
    dst.push_back({src[i].coeff * mult, src[i].var});
  }
}

}  // namespace

LinExprObject *lin_alloc() {
  LinExprObject *e = PyObject_GC_New(LinExprObject, g_linexpr_type);
  if (!e) throw nb::python_error();
  e->constant = 0.0;
  new (&e->terms) LinTerms();
  e->next = nullptr;
  PyObject_GC_Track(reinterpret_cast<PyObject *>(e));
  return e;
}

nb::object lin_new() { return nb::steal(reinterpret_cast<PyObject *>(lin_alloc())); }

void lin_flatten(LinExprObject *e) {
  if (!e->next) return;
  std::vector<LinExprObject *> chain;
  size_t total = e->terms.size();
  for (LinExprObject *p = e->next; p; p = p->next) {
    chain.push_back(p);
    total += p->terms.size();
  }
  LinTerms merged;
  merged.reserve(total);
  // Pieces referenced only along this chain hand over their terms instead of copying them.
  size_t exclusive = 0;
  while (exclusive < chain.size() && Py_REFCNT(chain[exclusive]) == 1) ++exclusive;
  double constant = 0.0;
  for (size_t k = chain.size(); k-- > 0;) {
    LinExprObject *p = chain[k];
    constant += p->constant;
    if (k < exclusive) {
      merged.insert(merged.end(), p->terms.begin(), p->terms.end());
      p->terms.clear();
    } else {
      copy_terms(merged, p->terms.data(), p->terms.size(), 1.0);
    }
  }
  merged.insert(merged.end(), e->terms.begin(), e->terms.end());
  // merged receives the old vector, whose references were handed over above.
  e->terms.swap(merged);
  e->constant += constant;
  LinExprObject *old = e->next;
  e->next = nullptr;
  release_chain(old);
}

size_t operand_terms(PyObject *x, const Operand &o) {
  if (o.kind == Kind::Var) return 1;
  if (o.kind != Kind::Lin) return 0;
  LinExprObject *e = L(x);
  size_t n = e->terms.size();
  for (LinExprObject *p = e->next; p; p = p->next) n += p->terms.size();
  return n;
}

nb::object lin_extend(LinExprObject *e, size_t extra) {
  nb::object r = lin_new();
  LinExprObject *out = L(r);
  if (e->terms.size() <= kPieceMin) {
    out->terms.reserve(e->terms.size() + extra);
    copy_terms(out->terms, e->terms.data(), e->terms.size(), 1.0);
    out->constant = e->constant;
    out->next = e->next;
    Py_XINCREF(e->next);
    return r;
  }
  LinExprObject *piece = lin_alloc();
  piece->terms.swap(e->terms);
  piece->constant = e->constant;
  piece->next = e->next;
  e->constant = 0.0;
  e->next = piece;
  Py_INCREF(piece);
  out->next = piece;
  out->terms.reserve(extra);
  return r;
}

void lin_add(LinExprObject *e, PyObject *x, const Operand &o, double mult) {
  switch (o.kind) {
    case Kind::Num: {
      double c = o.value * mult;
      check_constant(c);
      e->constant += c;
      return;
    }
    case Kind::Var:
      grow(e->terms, 1);
      Py_INCREF(x);
      e->terms.push_back({mult, x});
      return;
    case Kind::Lin: {
      LinExprObject *src = L(x);
      lin_flatten(src);
      // src may be e itself: reserve first so that reading src stays valid while appending.
      size_t n = src->terms.size();
      grow(e->terms, n);
      copy_terms(e->terms, src->terms.data(), n, mult);
      e->constant += src->constant * mult;
      return;
    }
    default:
      invalid("Unsupported operand for LinExpr addition");
  }
}

void check_multiplier(double c) {
  if (std::isnan(c) || std::isinf(c)) invalid("Multiplier is Nan or Inf");
}

void lin_scale(LinExprObject *e, double c) {
  check_multiplier(c);
  lin_flatten(e);
  for (LinTerm &t : e->terms) t.coeff *= c;
  e->constant *= c;
}

nb::object lin_scaled(LinExprObject *e, double c) {
  check_multiplier(c);
  lin_flatten(e);
  nb::object r = lin_new();
  copy_terms(L(r)->terms, e->terms.data(), e->terms.size(), c);
  L(r)->constant = e->constant * c;
  return r;
}

namespace {

// The terms of a Var or a (flattened) LinExpr operand.
struct LinView {
  double constant = 0.0;
  const LinTerm *ptr = nullptr;
  size_t n = 0;
  LinTerm one{1.0, nullptr};
  const LinTerm *data() const { return one.var ? &one : ptr; }
};

LinView view_of(PyObject *x, const Operand &o) {
  LinView v;
  if (o.kind == Kind::Var) {
    v.one.var = x;
    v.n = 1;
  } else {
    LinExprObject *e = L(x);
    lin_flatten(e);
    v.constant = e->constant;
    v.ptr = e->terms.data();
    v.n = e->terms.size();
  }
  return v;
}

nb::object view_scaled(const LinView &v, double c) {
  check_multiplier(c);
  nb::object r = lin_new();
  copy_terms(L(r)->terms, v.data(), v.n, c);
  L(r)->constant = v.constant * c;
  return r;
}

}  // namespace

nb::object lin_product(PyObject *a, const Operand &oa, PyObject *b, const Operand &ob) {
  LinView va = view_of(a, oa);
  LinView vb = view_of(b, ob);
  if (va.n == 0) return view_scaled(vb, va.constant);
  if (vb.n == 0) return view_scaled(va, vb.constant);
  nb::object lin = lin_new();
  LinExprObject *l = L(lin);
  l->constant = va.constant * vb.constant;
  if (vb.constant != 0.0) copy_terms(l->terms, va.data(), va.n, vb.constant);
  if (va.constant != 0.0) copy_terms(l->terms, vb.data(), vb.n, va.constant);
  nb::object q = quad_new(std::move(lin));
  QuadExprObject *qe = Q(q);
  qe->terms.reserve(va.n * vb.n);
  const LinTerm *ta = va.data(), *tb = vb.data();
  for (size_t i = 0; i < va.n; ++i)
    for (size_t j = 0; j < vb.n; ++j)
      quad_push(qe, ta[i].coeff * tb[j].coeff, ta[i].var, tb[j].var);
  return q;
}

std::vector<double> var_values(const std::vector<PyObject *> &vars) {
  std::vector<double> x(vars.size());
  // One library call when every variable is numbered in one model; anything else, and any
  // failure of that call, goes through the attribute of each variable for its exact error.
  KVRmodel *model = nullptr;
  std::vector<int> ind;
  ind.reserve(vars.size());
  for (PyObject *var : vars) {
    Var *v = as_var(var);
    if (!v || !v->model || v->index < 0 || (model && v->model != model)) {
      model = nullptr;
      break;
    }
    model = v->model;
    ind.push_back(v->index);
  }
  if (model &&
      KVRgetdblattrlist(model, "X", static_cast<int>(ind.size()), ind.data(), x.data()) == 0)
    return x;
  for (size_t i = 0; i < vars.size(); ++i) x[i] = nb::cast<double>(nb::handle(vars[i]).attr("X"));
  return x;
}

double terms_value(const LinTerms &terms) {
  std::vector<PyObject *> vars;
  vars.reserve(terms.size());
  for (const LinTerm &t : terms) vars.push_back(t.var);
  std::vector<double> x = var_values(vars);
  double sum = 0.0;
  for (size_t i = 0; i < terms.size(); ++i) sum += terms[i].coeff * x[i];
  return sum;
}

// ---------------------------------------------------------------- the LinExpr type

namespace {

LinExprObject *lin_self(nb::handle self) {
  if (!is_lin(self.ptr()))
    raise_python(PyExc_TypeError,
                 std::string("expected a kaviropy.LinExpr, got ") + Py_TYPE(self.ptr())->tp_name);
  return L(self);
}

// Validated (coefficient, Var) lists: every check runs before anything is appended.
struct TermList {
  std::vector<double> coeffs;
  std::vector<PyObject *> vars;  // borrowed from the argument sequences
  nb::object keep_coeffs, keep_vars;
};

TermList parallel_lists(PyObject *coeffs, PyObject *vars, const char *length_message) {
  TermList out;
  out.keep_coeffs = as_sequence(coeffs);
  out.keep_vars = as_sequence(vars);
  Py_ssize_t n = PySequence_Fast_GET_SIZE(out.keep_coeffs.ptr());
  if (n != PySequence_Fast_GET_SIZE(out.keep_vars.ptr())) invalid(length_message);
  PyObject **c = PySequence_Fast_ITEMS(out.keep_coeffs.ptr());
  PyObject **v = PySequence_Fast_ITEMS(out.keep_vars.ptr());
  out.coeffs.reserve(n);
  out.vars.reserve(n);
  for (Py_ssize_t i = 0; i < n; ++i) {
    if (!is_var(v[i])) invalid("Second argument should be a list of Var");
    double x;
    if (!isscalar(c[i], &x)) invalid("First argument should be a list of floats");
    check_coeff(x);
    out.coeffs.push_back(x);
    out.vars.push_back(v[i]);
  }
  return out;
}

void append(LinExprObject *e, const TermList &list) {
  grow(e->terms, list.vars.size());
  for (size_t i = 0; i < list.vars.size(); ++i) {
    Py_INCREF(list.vars[i]);
    e->terms.push_back({list.coeffs[i], list.vars[i]});
  }
}

nb::object lin_construct(PyObject *a1, PyObject *a2) {
  if (a2 && a2 != Py_None) {
    nb::object r = lin_new();
    double c;
    if (is_var(a2) && isscalar(a1, &c)) {
      check_coeff(c);
      lin_add(L(r), a2, {Kind::Var, 0.0}, c);
    } else if (is_iterable(a1) && is_iterable(a2)) {
      append(L(r), parallel_lists(a1, a2, "Linear expression arguments of different length"));
    } else {
      raise_unconvertible();
    }
    return r;
  }
  if (!a1) return lin_new();
  Operand o = classify(a1);
  if (o.kind == Kind::Lin) return lin_extend(L(a1));
  if (o.kind == Kind::Num || o.kind == Kind::Var) {
    nb::object r = lin_new();
    lin_add(L(r), a1, o, 1.0);
    return r;
  }
  if (o.kind == Kind::Other && is_iterable(a1)) {
    // A list of (coefficient, Var) pairs.
    nb::object pairs = as_sequence(a1);
    Py_ssize_t n = PySequence_Fast_GET_SIZE(pairs.ptr());
    PyObject **items = PySequence_Fast_ITEMS(pairs.ptr());
    TermList list;
    list.coeffs.reserve(n);
    list.vars.reserve(n);
    std::vector<nb::object> keep;
    keep.reserve(n);
    for (Py_ssize_t i = 0; i < n; ++i) {
      if (!is_iterable(items[i])) raise_unconvertible();
      keep.push_back(as_sequence(items[i]));
      PyObject *pair = keep.back().ptr();
      if (PySequence_Fast_GET_SIZE(pair) != 2) raise_unconvertible();
      PyObject *c = PySequence_Fast_GET_ITEM(pair, 0), *v = PySequence_Fast_GET_ITEM(pair, 1);
      if (!is_var(v)) invalid("Second tuple member should be a Var");
      double x;
      if (!isscalar(c, &x)) invalid("First tuple member should be a number");
      check_coeff(x);
      list.coeffs.push_back(x);
      list.vars.push_back(v);
    }
    nb::object r = lin_new();
    append(L(r), list);
    return r;
  }
  raise_unconvertible();
}

PyObject *lin_tp_new(PyTypeObject *, PyObject *args, PyObject *kwds) {
  return guard([&]() -> PyObject * {
    static const char *kwlist[] = {"arg1", "arg2", nullptr};
    PyObject *a1 = nullptr, *a2 = nullptr;
    if (!PyArg_ParseTupleAndKeywords(args, kwds, "|OO:LinExpr", const_cast<char **>(kwlist), &a1,
                                     &a2))
      return nullptr;
    return lin_construct(a1, a2).release().ptr();
  });
}

void lin_tp_dealloc(PyObject *self) {
  LinExprObject *e = L(self);
  PyObject_GC_UnTrack(self);
  LinExprObject *next = e->next;
  e->next = nullptr;
  release_chain(next);
  release_terms(e->terms);
  e->terms.~vector();
  PyTypeObject *type = Py_TYPE(self);
  type->tp_free(self);
  Py_DECREF(type);
}

int lin_tp_traverse(PyObject *self, visitproc visit, void *arg) {
  Py_VISIT(Py_TYPE(self));
  LinExprObject *e = L(self);
  for (const LinTerm &t : e->terms) Py_VISIT(t.var);
  Py_VISIT(reinterpret_cast<PyObject *>(e->next));
  return 0;
}

int lin_tp_clear(PyObject *self) {
  LinExprObject *e = L(self);
  LinExprObject *next = e->next;
  e->next = nullptr;
  release_chain(next);
  release_terms(e->terms);
  return 0;
}

std::string lin_pretty(LinExprObject *e) {
  lin_flatten(e);
  std::string s;
  if (e->constant != 0.0 || std::isnan(e->constant)) s = float_text(e->constant);
  for (const LinTerm &t : e->terms) {
    if (!s.empty()) s += " + ";
    s += coeff_text(t.coeff);
    s += var_text(t.var);
  }
  return s.empty() ? "0.0" : s;
}

PyObject *lin_tp_repr(PyObject *self) {
  return guard([&] {
    std::string s = "<kaviro.LinExpr: " + lin_pretty(L(self)) + ">";
    return PyUnicode_FromStringAndSize(s.data(), static_cast<Py_ssize_t>(s.size()));
  });
}

PyObject *lin_tp_str(PyObject *self) {
  return guard([&] {
    std::string s = lin_pretty(L(self));
    return PyUnicode_FromStringAndSize(s.data(), static_cast<Py_ssize_t>(s.size()));
  });
}

// ---------------------------------------------------------------- LinExpr operators

PyObject *lin_nb_add(PyObject *a, PyObject *b) {
  return guard([&]() -> PyObject * {
    PyObject *self = is_lin(a) ? a : b, *other = is_lin(a) ? b : a;
    Operand o = classify(other);
    if (!is_linear_kind(o.kind)) return not_implemented();
    nb::object r = lin_extend(L(self), operand_terms(other, o));
    lin_add(L(r), other, o, 1.0);
    return r.release().ptr();
  });
}

PyObject *lin_nb_subtract(PyObject *a, PyObject *b) {
  return guard([&]() -> PyObject * {
    if (is_lin(a)) {
      Operand o = classify(b);
      if (!is_linear_kind(o.kind)) return not_implemented();
      nb::object r = lin_extend(L(a), operand_terms(b, o));
      lin_add(L(r), b, o, -1.0);
      return r.release().ptr();
    }
    Operand o = classify(a);
    if (!is_linear_kind(o.kind)) return not_implemented();
    nb::object r = lin_new();
    lin_add(L(r), a, o, 1.0);
    lin_add(L(r), b, {Kind::Lin, 0.0}, -1.0);
    return r.release().ptr();
  });
}

PyObject *lin_nb_multiply(PyObject *a, PyObject *b) {
  return guard([&]() -> PyObject * {
    bool left = is_lin(a);
    PyObject *self = left ? a : b, *other = left ? b : a;
    Operand o = classify(other);
    if (o.kind == Kind::Num) return lin_scaled(L(self), o.value).release().ptr();
    if (o.kind != Kind::Var && o.kind != Kind::Lin) return not_implemented();
    Operand s{Kind::Lin, 0.0};
    return (left ? lin_product(self, s, other, o) : lin_product(other, o, self, s)).release().ptr();
  });
}

PyObject *lin_nb_true_divide(PyObject *a, PyObject *b) {
  return guard([&]() -> PyObject * {
    if (!is_lin(a)) {
      // Something divided by an expression.
      if (classify(a).kind == Kind::Other) return not_implemented();
      raise_divisor();
    }
    Operand o = classify(b);
    if (o.kind == Kind::Num) {
      if (o.value == 0.0) raise_zero_division();
      return lin_scaled(L(a), 1.0 / o.value).release().ptr();
    }
    if (o.kind == Kind::Other && array_like(b)) return not_implemented();
    raise_divisor();
  });
}

PyObject *lin_nb_negative(PyObject *a) {
  return guard([&] { return lin_scaled(L(a), -1.0).release().ptr(); });
}

PyObject *lin_nb_power(PyObject *a, PyObject *b, PyObject *mod) {
  return guard([&]() -> PyObject * {
    if (!is_lin(a) || mod != Py_None) return not_implemented();
    Operand o = classify(b);
    if (o.kind != Kind::Num || o.value != 2.0) return not_implemented();
    Operand s{Kind::Lin, 0.0};
    return lin_product(a, s, a, s).release().ptr();
  });
}

PyObject *lin_nb_inplace_add(PyObject *a, PyObject *b) {
  return guard([&]() -> PyObject * {
    Operand o = classify(b);
    if (!is_linear_kind(o.kind)) return not_implemented();
    lin_add(L(a), b, o, 1.0);
    return Py_NewRef(a);
  });
}

PyObject *lin_nb_inplace_subtract(PyObject *a, PyObject *b) {
  return guard([&]() -> PyObject * {
    Operand o = classify(b);
    if (!is_linear_kind(o.kind)) return not_implemented();
    lin_add(L(a), b, o, -1.0);
    return Py_NewRef(a);
  });
}

PyObject *lin_nb_inplace_multiply(PyObject *a, PyObject *b) {
  return guard([&]() -> PyObject * {
    Operand o = classify(b);
    if (o.kind == Kind::Lin && lin_size(L(b)) == 0) o = {Kind::Num, L(b)->constant};
    if (o.kind == Kind::Num) {
      lin_scale(L(a), o.value);
      return Py_NewRef(a);
    }
    if (o.kind != Kind::Var && o.kind != Kind::Lin) return not_implemented();
    return lin_product(a, {Kind::Lin, 0.0}, b, o).release().ptr();
  });
}

PyObject *lin_nb_inplace_true_divide(PyObject *a, PyObject *b) {
  return guard([&]() -> PyObject * {
    Operand o = classify(b);
    if (o.kind == Kind::Num) {
      if (o.value == 0.0) raise_zero_division();
      lin_scale(L(a), 1.0 / o.value);
      return Py_NewRef(a);
    }
    if (o.kind == Kind::Other && array_like(b)) return not_implemented();
    raise_divisor();
  });
}

// ---------------------------------------------------------------- LinExpr methods

}  // namespace

void lin_add_terms(LinExprObject *e, nb::handle coeffs, nb::handle vars) {
  double c;
  if (is_var(vars.ptr())) {
    if (!isscalar(coeffs.ptr(), &c)) invalid("Unrecognized arguments");
    check_coeff(c);
    lin_add(e, vars.ptr(), {Kind::Var, 0.0}, c);
    return;
  }
  if (!is_iterable(vars.ptr()) || !is_iterable(coeffs.ptr())) invalid("Unrecognized arguments");
  append(e, parallel_lists(coeffs.ptr(), vars.ptr(), "Array lengths don't match"));
}

void lin_remove(LinExprObject *e, nb::handle which) {
  lin_flatten(e);
  LinTerms dropped;
  if (is_var(which.ptr())) {
    std::vector<PyObject *> vars;
    vars.reserve(e->terms.size());
    for (const LinTerm &t : e->terms) vars.push_back(t.var);
    std::unordered_set<PyObject *> same = vars_same_as(vars, which.ptr());
    LinTerms kept;
    kept.reserve(e->terms.size());
    for (const LinTerm &t : e->terms) (same.count(t.var) ? dropped : kept).push_back(t);
    e->terms.swap(kept);
  } else if (PyLong_Check(which.ptr())) {
    size_t i = term_position(which, e->terms.size(), "a LinExpr");
    dropped.push_back(e->terms[i]);
    e->terms.erase(e->terms.begin() + static_cast<std::ptrdiff_t>(i));
  } else {
    invalid("Argument to remove must be a term position or a Var");
  }
  release_terms(dropped);
}

// Variables in the model merge by model and column index; pending and removed ones by object.
TermKey var_key(PyObject *var) {
  Var *v = as_var(var);
  if (v && v->index != -1 && v->index != -2) return {v->model, v->index};
  return {nullptr, reinterpret_cast<intptr_t>(var)};
}

namespace {

void lin_normalize(LinExprObject *e) {
  lin_flatten(e);
  std::unordered_map<TermKey, size_t, TermKeyHash> first;
  first.reserve(e->terms.size());
  LinTerms merged, dropped;
  merged.reserve(e->terms.size());
  for (const LinTerm &t : e->terms) {
    auto [it, fresh] = first.emplace(var_key(t.var), merged.size());
    if (fresh) {
      merged.push_back(t);
    } else {
      merged[it->second].coeff += t.coeff;
      dropped.push_back(t);
    }
  }
  e->terms.swap(merged);
  release_terms(dropped);
}

void lin_clear(LinExprObject *e) {
  LinExprObject *next = e->next;
  e->next = nullptr;
  e->constant = 0.0;
  release_terms(e->terms);
  release_chain(next);
}

std::string lin_dbg(LinExprObject *e) {
  std::string s;
  for (LinExprObject *p = e; p; p = p->next) {
    if (p != e) s += "\n  |  ";
    s += "<DBGLinExpr len=" + std::to_string(p->terms.size()) +
         " const=" + float_text(p->constant) + ">";
  }
  return s;
}

nb::object lin_reduce(LinExprObject *e) {
  lin_flatten(e);
  nb::list coeffs, vars;
  for (const LinTerm &t : e->terms) {
    coeffs.append(t.coeff);
    vars.append(nb::handle(t.var));
  }
  nb::tuple state = nb::make_tuple(e->constant, coeffs, vars, nb::none());
  return nb::make_tuple(module_attr("_unpickle_LinExpr"),
                        nb::make_tuple(nb::handle(reinterpret_cast<PyObject *>(g_linexpr_type)),
                                       kLinExprLayout, state));
}

nb::object lin_unpickle(nb::handle cls, nb::handle layout, nb::handle state) {
  if (cls.ptr() != reinterpret_cast<PyObject *>(g_linexpr_type))
    invalid("Pickled data is not a LinExpr");
  if (!PyLong_Check(layout.ptr()) || PyLong_AsLong(layout.ptr()) != kLinExprLayout) {
    PyErr_Clear();
    invalid("Unknown layout of a pickled LinExpr");
  }
  if (!PyTuple_Check(state.ptr()) || PyTuple_GET_SIZE(state.ptr()) != 4)
    invalid("Malformed state of a pickled LinExpr");
  PyObject *constant = PyTuple_GET_ITEM(state.ptr(), 0);
  PyObject *next = PyTuple_GET_ITEM(state.ptr(), 3);
  double c;
  if (!isscalar(constant, &c) || std::isnan(c) || (next != Py_None && !is_lin(next)))
    invalid("Malformed state of a pickled LinExpr");
  TermList list = parallel_lists(PyTuple_GET_ITEM(state.ptr(), 1), PyTuple_GET_ITEM(state.ptr(), 2),
                                 "Malformed state of a pickled LinExpr");
  nb::object r = lin_new();
  if (next != Py_None) lin_add(L(r), next, {Kind::Lin, 0.0}, 1.0);
  append(L(r), list);
  L(r)->constant += c;
  return r;
}

void register_linexpr_methods(PyTypeObject *type) {
  nb::handle scope(reinterpret_cast<PyObject *>(type));
  auto def = [&](const char *name, auto &&fn, auto... extra) {
    add_method(type, name,
               nb::cpp_function(std::forward<decltype(fn)>(fn), nb::scope(scope), nb::name(name),
                                nb::is_method(), extra...));
  };
  def(
      "add",
      [](nb::handle self, nb::handle expr, nb::handle mult) {
        LinExprObject *e = lin_self(self);
        double m;
        if (!isscalar(mult.ptr(), &m)) invalid("Invalid argument to LinExpr multiplication");
        check_coeff(m);
        Operand o = classify(expr.ptr());
        if (!is_linear_kind(o.kind))
          invalid("Unsupported type (" + py_str(expr.type()) + ") for LinExpr addition argument");
        lin_add(e, expr.ptr(), o, m);
      },
      nb::arg("expr").none(), nb::arg("mult").none() = 1.0,
      "Adds mult times expr (a Var, number or LinExpr).");
  def(
      "addConstant",
      [](nb::handle self, nb::handle c) {
        LinExprObject *e = lin_self(self);
        double v;
        if (!isscalar(c.ptr(), &v)) invalid("Constant must be a number");
        lin_add(e, c.ptr(), {Kind::Num, v}, 1.0);
      },
      nb::arg("constant").none(), "Adds a number to the constant.");
  def(
      "addTerms",
      [](nb::handle self, nb::handle coeffs, nb::handle vars) {
        lin_add_terms(lin_self(self), coeffs, vars);
      },
      nb::arg("coeffs").none(), nb::arg("vars").none(),
      "Adds terms: a number and a Var, or a list of numbers and a list of Var of the same length.");
  def(
      "remove", [](nb::handle self, nb::handle which) { lin_remove(lin_self(self), which); },
      nb::arg("item").none(),
      "Removes the term at a position (an int), or every term of a variable (a Var).");
  def(
      "size", [](nb::handle self) { return lin_size(lin_self(self)); },
      "Number of terms (repeated variables counted).");
  def(
      "getConstant",
      [](nb::handle self) {
        LinExprObject *e = lin_self(self);
        lin_flatten(e);
        return e->constant;
      },
      "The constant term.");
  def(
      "getCoeff",
      [](nb::handle self, nb::handle i) {
        LinExprObject *e = lin_self(self);
        lin_flatten(e);
        return e->terms[term_position(i, e->terms.size(), "a LinExpr")].coeff;
      },
      nb::arg("i").none(), "The coefficient of term i.");
  def(
      "getVar",
      [](nb::handle self, nb::handle i) {
        LinExprObject *e = lin_self(self);
        lin_flatten(e);
        return nb::borrow(e->terms[term_position(i, e->terms.size(), "a LinExpr")].var);
      },
      nb::arg("i").none(), "The variable of term i.");
  def(
      "getValue",
      [](nb::handle self) {
        LinExprObject *e = lin_self(self);
        lin_flatten(e);
        return e->constant + terms_value(e->terms);
      },
      "The value of the expression in the current solution.");
  def(
      "clear", [](nb::handle self) { lin_clear(lin_self(self)); },
      "Removes every term and sets the constant to 0.");
  def(
      "copy", [](nb::handle self) { return lin_extend(lin_self(self)); },
      "A copy of the expression.");
  def(
      "_flatten", [](nb::handle self) { lin_flatten(lin_self(self)); },
      "Joins the linked pieces of the expression into one.");
  def(
      "_normalize", [](nb::handle self) { lin_normalize(lin_self(self)); },
      "Merges the terms of the same variable, in order of first occurrence.");
  def(
      "_is_nested", [](nb::handle self) { return lin_self(self)->next != nullptr; },
      "Whether the expression links further pieces.");
  def(
      "_asprettystring", [](nb::handle self) { return lin_pretty(lin_self(self)); },
      "The expression as text.");
  def(
      "_dbgprint",
      [](nb::handle self) {
        nb::module_::import_("builtins").attr("print")(lin_dbg(lin_self(self)));
      },
      "Prints the pieces of the expression.");
  def(
      "_mul",
      [](nb::handle self, nb::handle c) {
        LinExprObject *e = lin_self(self);
        double v;
        if (!isscalar(c.ptr(), &v)) invalid("Invalid argument to LinExpr multiplication");
        lin_scale(e, v);
      },
      nb::arg("c").none(), "Multiplies the expression by a number in place.");
  def(
      "__sizeof__",
      [](nb::handle self) {
        LinExprObject *e = lin_self(self);
        return sizeof(LinExprObject) + e->terms.capacity() * sizeof(LinTerm);
      },
      "Bytes of the object and its own term vector (linked pieces and variables not counted).");
  def(
      "__reduce__", [](nb::handle self) { return lin_reduce(lin_self(self)); },
      "Pickling support.");
}

// ---------------------------------------------------------------- Var operators

// The Var operand of a binary slot (one of a and b is a Var).
struct VarOperands {
  PyObject *var;
  PyObject *other;
  bool var_left;
};

VarOperands var_operands(PyObject *a, PyObject *b) {
  bool left = is_var(a);
  return {left ? a : b, left ? b : a, left};
}

nb::object var_linexpr(PyObject *var, double coeff, size_t extra = 0) {
  nb::object r = lin_new();
  L(r)->terms.reserve(1 + extra);
  lin_add(L(r), var, {Kind::Var, 0.0}, coeff);
  return r;
}

PyObject *var_nb_add(PyObject *a, PyObject *b) {
  return guard([&]() -> PyObject * {
    VarOperands v = var_operands(a, b);
    Operand o = classify(v.other);
    if (!is_linear_kind(o.kind)) return not_implemented();
    nb::object r = var_linexpr(v.var, 1.0, operand_terms(v.other, o));
    lin_add(L(r), v.other, o, 1.0);
    return r.release().ptr();
  });
}

PyObject *var_nb_subtract(PyObject *a, PyObject *b) {
  return guard([&]() -> PyObject * {
    VarOperands v = var_operands(a, b);
    Operand o = classify(v.other);
    if (!is_linear_kind(o.kind)) return not_implemented();
    nb::object r = lin_new();
    L(r)->terms.reserve(1 + operand_terms(v.other, o));
    lin_add(L(r), a, v.var_left ? Operand{Kind::Var, 0.0} : o, 1.0);
    lin_add(L(r), b, v.var_left ? o : Operand{Kind::Var, 0.0}, -1.0);
    return r.release().ptr();
  });
}

PyObject *var_nb_multiply(PyObject *a, PyObject *b) {
  return guard([&]() -> PyObject * {
    VarOperands v = var_operands(a, b);
    Operand o = classify(v.other);
    if (o.kind == Kind::Num) {
      check_coeff(o.value);
      return var_linexpr(v.var, o.value).release().ptr();
    }
    if (o.kind != Kind::Var && o.kind != Kind::Lin) return not_implemented();
    Operand s{Kind::Var, 0.0};
    return (v.var_left ? lin_product(v.var, s, v.other, o) : lin_product(v.other, o, v.var, s))
        .release()
        .ptr();
  });
}

PyObject *var_nb_true_divide(PyObject *a, PyObject *b) {
  return guard([&]() -> PyObject * {
    if (!is_var(a)) {
      if (classify(a).kind == Kind::Other) return not_implemented();
      raise_divisor();
    }
    Operand o = classify(b);
    if (o.kind == Kind::Num) {
      if (o.value == 0.0) raise_zero_division();
      double c = 1.0 / o.value;
      check_multiplier(c);
      return var_linexpr(a, c).release().ptr();
    }
    if (o.kind == Kind::Other && array_like(b)) return not_implemented();
    raise_divisor();
  });
}

PyObject *var_nb_negative(PyObject *a) {
  return guard([&] { return var_linexpr(a, -1.0).release().ptr(); });
}

PyObject *var_nb_power(PyObject *a, PyObject *b, PyObject *mod) {
  return guard([&]() -> PyObject * {
    if (!is_var(a) || mod != Py_None) return not_implemented();
    Operand o = classify(b);
    if (o.kind != Kind::Num || o.value != 2.0) return not_implemented();
    Operand s{Kind::Var, 0.0};
    return lin_product(a, s, a, s).release().ptr();
  });
}

nb::object slot_result(PyObject *r) {
  if (!r) throw nb::python_error();
  return nb::steal(r);
}

void install_var_operators() {
  PyTypeObject *type = var_type();
  nb::handle scope(reinterpret_cast<PyObject *>(type));
  auto def = [&](const char *name, auto &&fn, const char *doc) {
    add_method(type, name,
               nb::cpp_function(std::forward<decltype(fn)>(fn), nb::scope(scope), nb::name(name),
                                nb::is_method(), nb::arg("other").none(), doc));
  };
  using H = nb::handle;
  def(
      "__add__", [](H s, H o) { return slot_result(var_nb_add(s.ptr(), o.ptr())); },
      "self + other");
  def(
      "__radd__", [](H s, H o) { return slot_result(var_nb_add(o.ptr(), s.ptr())); },
      "other + self");
  def(
      "__sub__", [](H s, H o) { return slot_result(var_nb_subtract(s.ptr(), o.ptr())); },
      "self - other");
  def(
      "__rsub__", [](H s, H o) { return slot_result(var_nb_subtract(o.ptr(), s.ptr())); },
      "other - self");
  def(
      "__mul__", [](H s, H o) { return slot_result(var_nb_multiply(s.ptr(), o.ptr())); },
      "self * other");
  def(
      "__rmul__", [](H s, H o) { return slot_result(var_nb_multiply(o.ptr(), s.ptr())); },
      "other * self");
  def(
      "__truediv__", [](H s, H o) { return slot_result(var_nb_true_divide(s.ptr(), o.ptr())); },
      "self / other (other a number)");
  def(
      "__div__", [](H s, H o) { return slot_result(var_nb_true_divide(s.ptr(), o.ptr())); },
      "self / other (other a number)");
  def(
      "__rtruediv__", [](H s, H o) { return slot_result(var_nb_true_divide(o.ptr(), s.ptr())); },
      "other / self: not supported");
  add_method(type, "__neg__",
             nb::cpp_function([](H s) { return slot_result(var_nb_negative(s.ptr())); },
                              nb::scope(scope), nb::name("__neg__"), nb::is_method(), "-self"));
  add_method(type, "__pow__",
             nb::cpp_function(
                 [](H s, H e, H m) { return slot_result(var_nb_power(s.ptr(), e.ptr(), m.ptr())); },
                 nb::scope(scope), nb::name("__pow__"), nb::is_method(), nb::arg("exponent").none(),
                 nb::arg("modulo").none() = nb::none(), "self ** 2"));
  // Setting the attributes installed CPython's generic slot dispatchers; the operators run
  // directly instead.
  PyNumberMethods *num = type->tp_as_number;
  num->nb_add = var_nb_add;
  num->nb_subtract = var_nb_subtract;
  num->nb_multiply = var_nb_multiply;
  num->nb_true_divide = var_nb_true_divide;
  num->nb_negative = var_nb_negative;
  num->nb_power = var_nb_power;
  PyType_Modified(type);
}

}  // namespace

// ---------------------------------------------------------------- expr.h interface

bool is_linexpr(nb::handle obj) { return is_lin(obj.ptr()); }

bool collect_linear(nb::handle obj, double mult, KVRmodel *model, LinearData &out) {
  Operand o = classify(obj.ptr());
  if (!is_linear_kind(o.kind)) return false;
  if (o.kind == Kind::Num) {
    out.constant += mult * o.value;
    return true;
  }
  if (o.kind == Kind::Var) {
    int col = var_column(obj, model);
    out.ind.push_back(col);
    out.val.push_back(mult);
    return true;
  }
  LinExprObject *e = L(obj);
  lin_flatten(e);
  size_t n0 = out.ind.size();
  grow(out.ind, e->terms.size());
  grow(out.val, e->terms.size());
  try {
    for (const LinTerm &t : e->terms) {
      out.ind.push_back(var_column(t.var, model));
      out.val.push_back(t.coeff * mult);
    }
  } catch (...) {
    out.ind.resize(n0);
    out.val.resize(n0);
    throw;
  }
  out.constant += e->constant * mult;
  return true;
}

nb::object make_linexpr(std::vector<double> coeffs, std::vector<nb::object> vars, double constant) {
  nb::object r = lin_new();
  LinExprObject *e = L(r);
  size_t n = std::min(coeffs.size(), vars.size());
  e->terms.reserve(n);
  for (size_t i = 0; i < n; ++i) e->terms.push_back({coeffs[i], vars[i].release().ptr()});
  e->constant = constant;
  return r;
}

void init_linexpr(nb::module_ &m) {
  static PyType_Slot slots[] = {
      {Py_tp_doc, const_cast<char *>("A linear expression: a constant plus coefficient-variable "
                                     "terms.\n\nLinExpr(arg1=0.0, arg2=None)")},
      {Py_tp_new, reinterpret_cast<void *>(lin_tp_new)},
      {Py_tp_dealloc, reinterpret_cast<void *>(lin_tp_dealloc)},
      {Py_tp_traverse, reinterpret_cast<void *>(lin_tp_traverse)},
      {Py_tp_clear, reinterpret_cast<void *>(lin_tp_clear)},
      {Py_tp_repr, reinterpret_cast<void *>(lin_tp_repr)},
      {Py_tp_str, reinterpret_cast<void *>(lin_tp_str)},
      {Py_tp_richcompare, reinterpret_cast<void *>(expr_richcompare)},
      {Py_nb_add, reinterpret_cast<void *>(lin_nb_add)},
      {Py_nb_subtract, reinterpret_cast<void *>(lin_nb_subtract)},
      {Py_nb_multiply, reinterpret_cast<void *>(lin_nb_multiply)},
      {Py_nb_true_divide, reinterpret_cast<void *>(lin_nb_true_divide)},
      {Py_nb_negative, reinterpret_cast<void *>(lin_nb_negative)},
      {Py_nb_power, reinterpret_cast<void *>(lin_nb_power)},
      {Py_nb_inplace_add, reinterpret_cast<void *>(lin_nb_inplace_add)},
      {Py_nb_inplace_subtract, reinterpret_cast<void *>(lin_nb_inplace_subtract)},
      {Py_nb_inplace_multiply, reinterpret_cast<void *>(lin_nb_inplace_multiply)},
      {Py_nb_inplace_true_divide, reinterpret_cast<void *>(lin_nb_inplace_true_divide)},
      {0, nullptr}};
  static PyType_Spec spec = {"kaviropy.LinExpr", sizeof(LinExprObject), 0,
                             Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC, slots};
  PyObject *type = PyType_FromSpec(&spec);
  if (!type) throw nb::python_error();
  g_linexpr_type = reinterpret_cast<PyTypeObject *>(type);  // kept for the life of the process
  register_linexpr_methods(g_linexpr_type);
  m.attr("LinExpr") = nb::handle(type);
  static PyMethodDef unpickle = {
      "_unpickle_LinExpr",
      reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(unpickle_entry<lin_unpickle>)),
      METH_FASTCALL,
      "_unpickle_LinExpr(cls, layout, state)\n--\n\n"
      "Rebuilds a pickled LinExpr."};
  add_unpickler(m, &unpickle);
  install_var_operators();
}

}  // namespace kvrpy
