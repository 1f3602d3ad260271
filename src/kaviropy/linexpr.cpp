// LinExpr: a constant plus (coefficient, variable) terms in insertion order, and the arithmetic
// operators of Var, which all produce expressions.
#include <cstring>
#include <unordered_map>
#include <utility>

#include "exprtypes.h"
#include "matrix.h"

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

void raise_unconvertible() {
  raise_error(kInputError, "Unable to convert argument to an expression");
}

bool is_iterable(PyObject *o) {
  if (PyUnicode_Check(o) || PyBytes_Check(o)) return false;
  return PySequence_Check(o) || Py_TYPE(o)->tp_iter != nullptr;
}

nb::object as_sequence(PyObject *o) {
  if (is_handle_array(o)) return flat_handles(o);  // the elements, row-major
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

TermLists term_lists(PyObject *coeffs, std::initializer_list<ObjectList> lists,
                     const char *length_message) {
  TermLists out;
  out.sequences[0] = as_sequence(coeffs);
  size_t k = 1;
  for (const ObjectList &list : lists) out.sequences[k++] = as_sequence(list.seq);
  Py_ssize_t n = PySequence_Fast_GET_SIZE(out.sequences[0].ptr());
  for (k = 1; k <= lists.size(); ++k)
    if (PySequence_Fast_GET_SIZE(out.sequences[k].ptr()) != n) invalid(length_message);
  PyObject **c = PySequence_Fast_ITEMS(out.sequences[0].ptr());
  out.coeffs.reserve(n);
  for (k = 0; k < lists.size(); ++k) out.objects[k].reserve(n);
  for (Py_ssize_t i = 0; i < n; ++i) {
    k = 0;
    for (const ObjectList &list : lists) {
      PyObject *item = PySequence_Fast_GET_ITEM(out.sequences[k + 1].ptr(), i);
      if (!list.accepts(item)) invalid(list.message);
      out.objects[k++].push_back(item);
    }
    double x;
    if (!isscalar(c[i], &x)) invalid("First argument should be a list of floats");
    check_coeff(x);
    out.coeffs.push_back(x);
  }
  return out;
}

nb::object PickleFormat::reduce(nb::handle state) const {
  return nb::make_tuple(
      module_attr(unpickler),
      nb::make_tuple(nb::handle(reinterpret_cast<PyObject *>(type)), layout, state));
}

void PickleFormat::malformed() const {
  invalid(std::string("Malformed state of a pickled ") + name);
}

PyObject *const *PickleFormat::state_items(nb::handle cls, nb::handle layout_arg,
                                           nb::handle state) const {
  if (cls.ptr() != reinterpret_cast<PyObject *>(type))
    invalid(std::string("Pickled data is not a ") + name);
  if (!PyLong_Check(layout_arg.ptr()) || PyLong_AsLong(layout_arg.ptr()) != layout) {
    PyErr_Clear();
    invalid(std::string("Unknown layout of a pickled ") + name);
  }
  if (!PyTuple_Check(state.ptr()) || PyTuple_GET_SIZE(state.ptr()) != state_size) malformed();
  return &PyTuple_GET_ITEM(state.ptr(), 0);
}

PyTypeObject *new_heap_type(PyType_Spec *spec) {
  PyObject *type = PyType_FromSpec(spec);
  if (!type) throw nb::python_error();
  return reinterpret_cast<PyTypeObject *>(type);
}

PyTypeObject *new_expr_type(nb::module_ &m, const ExprTypeOps &ops) {
  std::vector<PyType_Slot> slots = {{Py_tp_doc, const_cast<char *>(ops.doc)},
                                    slot(Py_tp_new, ops.create),
                                    slot(Py_tp_dealloc, ops.dealloc),
                                    slot(Py_tp_traverse, ops.traverse),
                                    slot(Py_tp_clear, ops.clear)};
  if (ops.repr) slots.push_back(slot(Py_tp_repr, ops.repr));
  slots.insert(slots.end(), ops.operations.begin(), ops.operations.end());
  slots.push_back({0, nullptr});
  // The name must outlive the type (it is not copied); qualname is a literal.
  PyType_Spec spec = {
      ops.qualname, ops.basicsize, 0,
      static_cast<unsigned int>(Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | ops.extra_flags),
      slots.data()};
  PyTypeObject *type = new_heap_type(&spec);
  m.attr(std::strchr(ops.qualname, '.') + 1) = nb::handle(reinterpret_cast<PyObject *>(type));
  return type;
}

void add_method(PyTypeObject *type, const char *name, nb::object func) {
  if (PyObject_SetAttrString(reinterpret_cast<PyObject *>(type), name, func.ptr()))
    throw nb::python_error();
}

// ---------------------------------------------------------------- LinExpr storage

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

void lin_flatten(LinExprObject *e) { join_pieces(e); }

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
  share_value(e, L(r), extra, lin_alloc);
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

LinExprObject *lin_self(nb::handle self) { return self_as<LinExprObject>(self, g_linexpr_type); }

// Checked (coefficient, Var) lists.
TermLists var_lists(PyObject *coeffs, PyObject *vars, const char *length_message) {
  return term_lists(coeffs, {{vars, var_item, "Second argument should be a list of Var"}},
                    length_message);
}

void append(LinExprObject *e, const TermLists &list) {
  const std::vector<PyObject *> &vars = list.objects[0];
  grow(e->terms, vars.size());
  for (size_t i = 0; i < vars.size(); ++i) {
    Py_INCREF(vars[i]);
    e->terms.push_back({list.coeffs[i], vars[i]});
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
      append(L(r), var_lists(a1, a2, "Linear expression arguments of different length"));
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
    TermLists list;
    list.coeffs.reserve(n);
    list.objects[0].reserve(n);
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
      list.objects[0].push_back(v);
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
  clear_terms(e);
  e->terms.~vector();
  free_heap_object(self);
}

int lin_tp_traverse(PyObject *self, visitproc visit, void *arg) {
  Py_VISIT(Py_TYPE(self));
  LinExprObject *e = L(self);
  for (const LinTerm &t : e->terms) Py_VISIT(t.var);
  Py_VISIT(reinterpret_cast<PyObject *>(e->next));
  return 0;
}

int lin_tp_clear(PyObject *self) {
  clear_terms(L(self));
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
  return guard([&] { return str_object("<kaviro.LinExpr: " + lin_pretty(L(self)) + ">"); });
}

PyObject *lin_tp_str(PyObject *self) {
  return guard([&] { return str_object(lin_pretty(L(self))); });
}

// ---------------------------------------------------------------- LinExpr operators

// Operators whose sums are LinExpr objects (those of LinExpr and Var).
struct LinearSumOps {
  static bool accepts(Kind k) { return is_linear_kind(k); }
  static void add(PyObject *r, PyObject *x, const Operand &o, double mult) {
    lin_add(L(r), x, o, mult);
  }
};

struct LinOps : LinearSumOps {
  static bool is_self(PyObject *o) { return is_lin(o); }
  static constexpr Operand self_operand{Kind::Lin, 0.0};
  static nb::object copy_for(PyObject *self, PyObject *other, const Operand &o) {
    return lin_extend(L(self), operand_terms(other, o));
  }
  static nb::object empty_for(PyObject *self, PyObject *other, const Operand &o) {
    nb::object r = lin_new();
    L(r)->terms.reserve(operand_terms(self, self_operand) + operand_terms(other, o));
    return r;
  }
  static nb::object scaled(PyObject *self, double c) { return lin_scaled(L(self), c); }
  static nb::object times_number(PyObject *self, double c) { return lin_scaled(L(self), c); }
  static void scale(PyObject *self, double c) { lin_scale(L(self), c); }
};

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
  append(e, var_lists(coeffs.ptr(), vars.ptr(), "Array lengths don't match"));
}

void lin_remove(LinExprObject *e, nb::handle which) {
  lin_flatten(e);
  remove_terms(e->terms, which, "a LinExpr");
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
  merge_terms<TermKey, TermKeyHash>(e->terms, [](const LinTerm &t) { return var_key(t.var); });
}

void lin_clear(LinExprObject *e) {
  e->constant = 0.0;
  clear_terms(e);
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

// State: (constant, coefficients, variables, None).
PickleFormat lin_pickle() {
  return {g_linexpr_type, "_unpickle_LinExpr", kLinExprLayout, 4, "LinExpr"};
}

nb::object lin_reduce(LinExprObject *e) {
  lin_flatten(e);
  nb::list coeffs, vars;
  for (const LinTerm &t : e->terms) {
    coeffs.append(t.coeff);
    vars.append(nb::handle(t.var));
  }
  return lin_pickle().reduce(nb::make_tuple(e->constant, coeffs, vars, nb::none()));
}

nb::object lin_unpickle(nb::handle cls, nb::handle layout, nb::handle state) {
  PickleFormat format = lin_pickle();
  PyObject *const *items = format.state_items(cls, layout, state);
  PyObject *constant = items[0], *next = items[3];
  double c;
  if (!isscalar(constant, &c) || std::isnan(c) || (next != Py_None && !is_lin(next)))
    format.malformed();
  TermLists list = var_lists(items[1], items[2], "Malformed state of a pickled LinExpr");
  nb::object r = lin_new();
  if (next != Py_None) lin_add(L(r), next, {Kind::Lin, 0.0}, 1.0);
  append(L(r), list);
  L(r)->constant += c;
  return r;
}

void register_linexpr_methods(PyTypeObject *type) {
  MethodDefiner def{type};
  def(
      "add",
      [](nb::handle self, nb::handle expr, nb::handle mult) {
        LinExprObject *e = lin_self(self);
        double m = number_arg(mult, "Invalid argument to LinExpr multiplication");
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
        lin_add(e, c.ptr(), {Kind::Num, number_arg(c, "Constant must be a number")}, 1.0);
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
        lin_scale(e, number_arg(c, "Invalid argument to LinExpr multiplication"));
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

nb::object var_linexpr(PyObject *var, double coeff, size_t extra = 0) {
  nb::object r = lin_new();
  L(r)->terms.reserve(1 + extra);
  lin_add(L(r), var, {Kind::Var, 0.0}, coeff);
  return r;
}

// The operators of Var produce LinExpr and QuadExpr objects.
struct VarOps : LinearSumOps {
  static bool is_self(PyObject *o) { return is_var(o); }
  static constexpr Operand self_operand{Kind::Var, 0.0};
  static nb::object copy_for(PyObject *self, PyObject *other, const Operand &o) {
    return var_linexpr(self, 1.0, operand_terms(other, o));
  }
  static nb::object empty_for(PyObject *, PyObject *other, const Operand &o) {
    nb::object r = lin_new();
    L(r)->terms.reserve(1 + operand_terms(other, o));
    return r;
  }
  static nb::object scaled(PyObject *self, double c) {
    check_multiplier(c);
    return var_linexpr(self, c);
  }
  static nb::object times_number(PyObject *self, double c) {
    check_coeff(c);
    return var_linexpr(self, c);
  }
};

constexpr auto var_nb_add = sum_slot<VarOps>;
constexpr auto var_nb_subtract = difference_slot<VarOps>;
constexpr auto var_nb_multiply = linear_product_slot<VarOps>;
constexpr auto var_nb_true_divide = quotient_slot<VarOps>;
constexpr auto var_nb_negative = negation_slot<VarOps>;
constexpr auto var_nb_power = square_slot<VarOps>;

nb::object slot_result(PyObject *r) {
  if (!r) throw nb::python_error();
  return nb::steal(r);
}

void install_var_operators() {
  PyTypeObject *type = var_type();
  MethodDefiner method{type};
  using H = nb::handle;
  // The binary operators, each as written (self on the left) or reflected (self on the right).
  struct BinaryOp {
    const char *name;
    binaryfunc fn;
    bool reflected;
    const char *doc;
  };
  const BinaryOp binary[] = {
      {"__add__", var_nb_add, false, "self + other"},
      {"__radd__", var_nb_add, true, "other + self"},
      {"__sub__", var_nb_subtract, false, "self - other"},
      {"__rsub__", var_nb_subtract, true, "other - self"},
      {"__mul__", var_nb_multiply, false, "self * other"},
      {"__rmul__", var_nb_multiply, true, "other * self"},
      {"__truediv__", var_nb_true_divide, false, "self / other (other a number)"},
      {"__div__", var_nb_true_divide, false, "self / other (other a number)"},
      {"__rtruediv__", var_nb_true_divide, true, "other / self: not supported"},
  };
  for (const BinaryOp &op : binary)
    method(
        op.name,
        [fn = op.fn, reflected = op.reflected](H s, H o) {
          return slot_result(reflected ? fn(o.ptr(), s.ptr()) : fn(s.ptr(), o.ptr()));
        },
        nb::arg("other").none(), op.doc);
  method(
      "__neg__", [](H s) { return slot_result(var_nb_negative(s.ptr())); }, "-self");
  method(
      "__pow__", [](H s, H e, H m) { return slot_result(var_nb_power(s.ptr(), e.ptr(), m.ptr())); },
      nb::arg("exponent").none(), nb::arg("modulo").none() = nb::none(), "self ** 2");
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
  if (!is_linear_kind(o.kind)) {
    // A one-element matrix expression stands for its element.
    if (is_one_element(obj)) return collect_linear(obj.attr("item")(), mult, model, out);
    return false;
  }
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
  g_linexpr_type = new_expr_type(
      m, {"kaviropy.LinExpr",
          sizeof(LinExprObject),
          "A linear expression: a constant plus coefficient-variable terms.\n\n"
          "LinExpr(arg1=0.0, arg2=None)",
          lin_tp_new,
          lin_tp_dealloc,
          lin_tp_traverse,
          lin_tp_clear,
          lin_tp_repr,
          {slot(Py_tp_str, lin_tp_str), slot(Py_tp_richcompare, expr_richcompare),
           slot(Py_nb_add, sum_slot<LinOps>), slot(Py_nb_subtract, difference_slot<LinOps>),
           slot(Py_nb_multiply, linear_product_slot<LinOps>),
           slot(Py_nb_true_divide, quotient_slot<LinOps>),
           slot(Py_nb_negative, negation_slot<LinOps>), slot(Py_nb_power, square_slot<LinOps>),
           slot(Py_nb_inplace_add, inplace_sum_slot<LinOps, 1>),
           slot(Py_nb_inplace_subtract, inplace_sum_slot<LinOps, -1>),
           slot(Py_nb_inplace_multiply, lin_nb_inplace_multiply),
           slot(Py_nb_inplace_true_divide, inplace_quotient_slot<LinOps>)}});
  register_linexpr_methods(g_linexpr_type);
  static PyMethodDef unpickle = {
      "_unpickle_LinExpr",
      reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(unpickle_entry<lin_unpickle>)),
      METH_FASTCALL,
      "_unpickle_LinExpr(cls, layout, state)\n--\n\n"
      "Rebuilds a pickled LinExpr."};
  add_module_function(m, &unpickle);
  install_var_operators();
}

}  // namespace kvrpy
