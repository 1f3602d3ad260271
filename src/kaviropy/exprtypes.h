// Internals shared by the expression family (linexpr.cpp, quadexpr.cpp, tempconstr.cpp,
// genexpr.cpp, column.cpp): the object layouts of LinExpr and QuadExpr, operand classification,
// term storage helpers and error helpers.
//
// LinExpr and QuadExpr are CPython heap types written against the C API, so that the operators
// are direct type slots and an expression is one object with contiguous term vectors. Methods are
// nanobind functions attached to the types.
//
// Pieces. An expression may link (through `next`) to a frozen piece that holds terms added
// before its own terms: the value is the sum of the chain, and the order of the terms is the
// order of the chain from the deepest piece up to the expression itself. Pieces are never visible
// from Python and never change once linked, so several expressions may share them. Binary
// operators freeze a long left operand into a piece instead of copying it, which keeps
// `s = s + t` loops linear; `_flatten` joins the chain back into one vector.
#pragma once

#include <algorithm>
#include <cmath>
#include <functional>
#include <initializer_list>
#include <new>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "expr.h"

namespace kvrpy {

// One linear term; `var` is a strong reference to a Var.
struct LinTerm {
  double coeff;
  PyObject *var;
};
// One quadratic term coeff * var1 * var2; both are strong references.
struct QuadTerm {
  double coeff;
  PyObject *var1;
  PyObject *var2;
};

// Term vectors allocate through the interpreter's allocator: small vectors come from its
// fast pools, and tracemalloc sees the memory of expressions.
template <class T>
struct PyAllocator {
  using value_type = T;
  PyAllocator() = default;
  template <class U>
  PyAllocator(const PyAllocator<U> &) {}
  T *allocate(size_t n) {
    if (n > PY_SSIZE_T_MAX / sizeof(T)) throw std::bad_alloc();
    void *p = PyMem_Malloc(n * sizeof(T));
    if (!p) throw std::bad_alloc();
    return static_cast<T *>(p);
  }
  void deallocate(T *p, size_t) { PyMem_Free(p); }
  template <class U>
  bool operator==(const PyAllocator<U> &) const {
    return true;
  }
};
using LinTerms = std::vector<LinTerm, PyAllocator<LinTerm>>;
using QuadTerms = std::vector<QuadTerm, PyAllocator<QuadTerm>>;

struct LinExprObject {
  PyObject_HEAD double constant;
  LinTerms terms;
  LinExprObject *next;  // frozen piece with the earlier terms, or null
};

struct QuadExprObject {
  PyObject_HEAD LinExprObject *lin;  // the linear part; null only in a frozen piece
  QuadTerms terms;
  QuadExprObject *next;  // frozen piece with the earlier quadratic terms, or null
};

// Types created at module initialisation.
extern PyTypeObject *g_linexpr_type;
extern PyTypeObject *g_quadexpr_type;
extern PyTypeObject *g_tempconstr_type;
extern PyTypeObject *g_genexpr_type;
extern PyTypeObject *g_column_type;
PyTypeObject *var_type();

inline bool is_lin(PyObject *o) { return Py_TYPE(o) == g_linexpr_type; }
inline bool is_quad(PyObject *o) { return Py_TYPE(o) == g_quadexpr_type; }
inline bool is_var(PyObject *o) {
  PyTypeObject *t = var_type();
  return Py_TYPE(o) == t || PyType_IsSubtype(Py_TYPE(o), t);
}
inline LinExprObject *L(nb::handle h) { return reinterpret_cast<LinExprObject *>(h.ptr()); }
inline QuadExprObject *Q(nb::handle h) { return reinterpret_cast<QuadExprObject *>(h.ptr()); }

// ---------------------------------------------------------------- operands
enum class Kind { Num, Var, Lin, Quad, Other };
struct Operand {
  Kind kind;
  double value;  // for Num
};
// Numbers (Python and NumPy scalars), Var, LinExpr, QuadExpr; everything else is Other.
// NumPy arrays, objects with __array_ufunc__ and the matrix classes are Other even when they
// hold one element, so that their reflected operators take over.
Operand classify(PyObject *o);
// True for Other operands that have reflected operators of their own (arrays, matrix objects).
bool array_like(PyObject *o);
inline bool is_linear_kind(Kind k) { return k == Kind::Num || k == Kind::Var || k == Kind::Lin; }

// ---------------------------------------------------------------- errors
[[noreturn]] inline void invalid(const std::string &message) {
  raise_error(KVR_ERROR_INVALID_ARGUMENT, message);
}
inline void check_coeff(double c) {
  if (std::isnan(c) || std::isinf(c)) invalid("Coefficient is Nan or Inf");
}
inline void check_constant(double c) {
  if (std::isnan(c)) invalid("Constant is Nan");
}
[[noreturn]] void raise_divisor();
[[noreturn]] void raise_unconvertible();
void check_multiplier(double c);  // "Multiplier is Nan or Inf"
[[noreturn]] void raise_zero_division();
// The number an argument holds; anything else raises KaviroError(INVALID_ARGUMENT, message).
inline double number_arg(nb::handle x, const char *message) {
  double v;
  if (!isscalar(x.ptr(), &v)) invalid(message);
  return v;
}
// `self` of a method as an object of one of the family's types; TypeError for anything else.
template <class Obj>
Obj *self_as(nb::handle self, PyTypeObject *type) {
  if (Py_TYPE(self.ptr()) != type)
    raise_python(PyExc_TypeError, std::string("expected a ") + type->tp_name + ", got " +
                                      Py_TYPE(self.ptr())->tp_name);
  return reinterpret_cast<Obj *>(self.ptr());
}
// Position i of a sequence of n terms (negative positions count from the end); raises
// KaviroError(INDEX_OUT_OF_RANGE) outside.
size_t term_position(nb::handle i, size_t n, const char *what);

inline PyObject *not_implemented() { return Py_NewRef(Py_NotImplemented); }
// A str object from UTF-8 text, for repr and str slots (null with the error set on failure).
inline PyObject *str_object(const std::string &s) {
  return PyUnicode_FromStringAndSize(s.data(), static_cast<Py_ssize_t>(s.size()));
}

// Runs a slot body: C++ exceptions become the pending Python error and a null result.
template <class F>
PyObject *guard(F &&body) noexcept {
  try {
    return body();
  } catch (nb::python_error &e) {
    e.restore();
  } catch (std::bad_alloc &) {
    PyErr_NoMemory();
  } catch (std::exception &e) {
    PyErr_SetString(PyExc_RuntimeError, e.what());
  }
  return nullptr;
}

// ---------------------------------------------------------------- text
// Python's str() of any object.
std::string py_str(nb::handle o);
// Python's str() of a float.
std::string float_text(double v);
// The display name of a Var object (see var_safename).
std::string var_text(PyObject *var);
// The coefficient text of a printed term: "" for 1.0, else str(c) + " ".
std::string coeff_text(double c);
// sameAs of two variables (same type, model, index and instance attributes).
bool same_var(PyObject *a, PyObject *b);
// The distinct objects among `vars` that are sameAs `which`. Comparing instance attributes may
// run Python code that changes the caller's expression, so this works on references of its own
// and the caller filters its terms by object afterwards.
std::unordered_set<PyObject *> vars_same_as(const std::vector<PyObject *> &vars, PyObject *which);
// Strong references held for a scope.
struct OwnedRefs {
  std::vector<PyObject *> objects;
  OwnedRefs() = default;
  OwnedRefs(const OwnedRefs &) = delete;
  OwnedRefs &operator=(const OwnedRefs &) = delete;
  void add(PyObject *o) {
    objects.push_back(o);  // may throw before the reference is taken
    Py_INCREF(o);
  }
  ~OwnedRefs() {
    for (PyObject *o : objects) Py_DECREF(o);
  }
};

// ---------------------------------------------------------------- term vectors
// Makes room for `extra` more elements, keeping growth geometric (a plain reserve of size + n
// would reallocate on every small append).
template <class T, class A>
void grow(std::vector<T, A> &v, size_t extra) {
  size_t need = v.size() + extra;
  if (need > v.capacity()) v.reserve(std::max(need, 2 * v.capacity()));
}
// The variable references a term holds.
inline void hold_refs(const LinTerm &t) { Py_INCREF(t.var); }
inline void hold_refs(const QuadTerm &t) {
  Py_INCREF(t.var1);
  Py_INCREF(t.var2);
}
inline void drop_refs(const LinTerm &t) { Py_DECREF(t.var); }
inline void drop_refs(const QuadTerm &t) {
  Py_DECREF(t.var1);
  Py_DECREF(t.var2);
}
inline void add_vars(const LinTerm &t, std::vector<PyObject *> &out) { out.push_back(t.var); }
inline void add_vars(const QuadTerm &t, std::vector<PyObject *> &out) {
  out.push_back(t.var1);
  out.push_back(t.var2);
}
inline bool uses_any(const LinTerm &t, const std::unordered_set<PyObject *> &vars) {
  return vars.count(t.var) != 0;
}
inline bool uses_any(const QuadTerm &t, const std::unordered_set<PyObject *> &vars) {
  return vars.count(t.var1) != 0 || vars.count(t.var2) != 0;
}

// Appends mult times n terms, with references of their own.
template <class Terms>
void copy_terms(Terms &dst, const typename Terms::value_type *src, size_t n, double mult) {
  grow(dst, n);
  for (size_t i = 0; i < n; ++i) {
    typename Terms::value_type t = src[i];
    t.coeff *= mult;
    hold_refs(t);
    dst.push_back(t);
  }
}

template <class Terms>
void release_terms(Terms &terms) {
  // Detach first: a release may run arbitrary code that looks at the owner.
  Terms old;
  old.swap(terms);
  for (const auto &t : old) drop_refs(t);
}

// A left operand with more own terms than this is frozen into a piece by binary operators
// instead of being copied.
constexpr size_t kPieceMin = 64;

// Drops one reference to a chain of pieces without recursing through long chains.
template <class T>
void release_chain(T *p) {
  while (p) {
    if (Py_REFCNT(p) > 1) {
      Py_DECREF(p);
      return;
    }
    T *n = p->next;
    p->next = nullptr;
    Py_DECREF(p);
    p = n;
  }
}

// ---------------------------------------------------------------- pieces
// The chain operations of LinExpr and QuadExpr (see "Pieces" at the top). A LinExpr piece also
// carries part of the constant; a QuadExpr piece has quadratic terms only.
template <class Expr>
constexpr bool kHasConstant = std::is_same_v<Expr, LinExprObject>;

// Joins the chain below e into e's own term vector.
template <class Expr>
void join_pieces(Expr *e) {
  if (!e->next) return;
  std::vector<Expr *> chain;
  size_t total = e->terms.size();
  for (Expr *p = e->next; p; p = p->next) {
    chain.push_back(p);
    total += p->terms.size();
  }
  decltype(e->terms) merged;
  merged.reserve(total);
  // Pieces referenced only along this chain hand over their terms instead of copying them.
  size_t exclusive = 0;
  while (exclusive < chain.size() && Py_REFCNT(chain[exclusive]) == 1) ++exclusive;
  double constant = 0.0;
  for (size_t k = chain.size(); k-- > 0;) {
    Expr *p = chain[k];
    if constexpr (kHasConstant<Expr>) constant += p->constant;
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
  if constexpr (kHasConstant<Expr>) e->constant += constant;
  Expr *old = e->next;
  e->next = nullptr;
  release_chain(old);
}

// Gives `out`, new and empty, the value of e with room for `extra` more own terms: a short term
// vector is copied; a long one moves into a new piece from new_piece() that both then link.
template <class Expr, class NewPiece>
void share_value(Expr *e, Expr *out, size_t extra, NewPiece new_piece) {
  if (e->terms.size() <= kPieceMin) {
    out->terms.reserve(e->terms.size() + extra);
    copy_terms(out->terms, e->terms.data(), e->terms.size(), 1.0);
    if constexpr (kHasConstant<Expr>) out->constant = e->constant;
    out->next = e->next;
    Py_XINCREF(e->next);
    return;
  }
  Expr *piece = new_piece();
  piece->terms.swap(e->terms);
  if constexpr (kHasConstant<Expr>) {
    piece->constant = e->constant;
    e->constant = 0.0;
  }
  piece->next = e->next;
  e->next = piece;
  Py_INCREF(piece);
  out->next = piece;
  out->terms.reserve(extra);
}

// Drops e's own terms and its chain (a LinExpr keeps its constant).
template <class Expr>
void clear_terms(Expr *e) {
  Expr *next = e->next;
  e->next = nullptr;
  release_chain(next);
  release_terms(e->terms);
}

// Merges the terms with equal keys into the first of them (coefficients added), in order of
// first occurrence.
template <class Key, class Hash, class Terms, class KeyOf>
void merge_terms(Terms &terms, KeyOf key_of) {
  std::unordered_map<Key, size_t, Hash> first;
  first.reserve(terms.size());
  Terms merged, dropped;
  merged.reserve(terms.size());
  for (const auto &t : terms) {
    auto [it, fresh] = first.emplace(key_of(t), merged.size());
    if (fresh) {
      merged.push_back(t);
    } else {
      merged[it->second].coeff += t.coeff;
      dropped.push_back(t);
    }
  }
  terms.swap(merged);
  release_terms(dropped);
}

// The remove method of a flattened term vector: `which` is a position (an int), or a Var whose
// terms all go; returns true for a Var. `what` names the expression in range errors.
template <class Terms>
bool remove_terms(Terms &terms, nb::handle which, const char *what) {
  Terms dropped;
  bool by_var = is_var(which.ptr());
  if (by_var) {
    std::vector<PyObject *> vars;
    vars.reserve(terms.size());
    for (const auto &t : terms) add_vars(t, vars);
    std::unordered_set<PyObject *> same = vars_same_as(vars, which.ptr());
    Terms kept;
    kept.reserve(terms.size());
    for (const auto &t : terms) (uses_any(t, same) ? dropped : kept).push_back(t);
    terms.swap(kept);
  } else if (PyLong_Check(which.ptr())) {
    size_t i = term_position(which, terms.size(), what);
    dropped.push_back(terms[i]);
    terms.erase(terms.begin() + static_cast<std::ptrdiff_t>(i));
  } else {
    invalid("Argument to remove must be a term position or a Var");
  }
  release_terms(dropped);
  return by_var;
}

// Arguments: iterables other than strings, materialised as a list or tuple.
bool is_iterable(PyObject *o);
nb::object as_sequence(PyObject *o);
// One list of objects among the arguments of term-list methods (addTerms and constructors).
struct ObjectList {
  PyObject *seq;
  bool (*accepts)(PyObject *);
  const char *message;  // raised for an item that `accepts` refuses
};
// Coefficients and one or two parallel object lists, all checked before anything is used: equal
// lengths (else length_message), then per position each object's test and a finite number
// ("First argument should be a list of floats"). The objects are borrowed from `sequences`.
struct TermLists {
  std::vector<double> coeffs;
  std::vector<PyObject *> objects[2];
  nb::object sequences[3];
};
TermLists term_lists(PyObject *coeffs, std::initializer_list<ObjectList> lists,
                     const char *length_message);
inline bool var_item(PyObject *o) { return is_var(o); }
// The solution values (attribute X) of variables: in one library call per model when possible,
// else through each variable's attribute (which raises its own error when there is no value).
std::vector<double> var_values(const std::vector<PyObject *> &vars);

// ---------------------------------------------------------------- LinExpr internals
LinExprObject *lin_alloc();  // a new empty LinExpr (owned reference); raises MemoryError
nb::object lin_new();
void lin_flatten(LinExprObject *e);
// e += mult * x for an operand of linear kind (Num, Var, Lin). mult must be finite.
void lin_add(LinExprObject *e, PyObject *x, const Operand &o, double mult);
// A new expression with the value of e, made without copying a long term vector, with room for
// `extra` more terms.
nb::object lin_extend(LinExprObject *e, size_t extra = 0);
// Number of terms an operand of linear kind adds.
size_t operand_terms(PyObject *x, const Operand &o);
// A new expression equal to c * e (e flattened). Checks c ("Multiplier is Nan or Inf").
nb::object lin_scaled(LinExprObject *e, double c);
// Scales e in place (checks c as lin_scaled).
void lin_scale(LinExprObject *e, double c);
// Number of terms after flattening.
inline size_t lin_size(LinExprObject *e) {
  lin_flatten(e);
  return e->terms.size();
}
// The product of two operands of kind Var or Lin: a QuadExpr, or a LinExpr when one side has no
// terms.
nb::object lin_product(PyObject *a, const Operand &oa, PyObject *b, const Operand &ob);
// Sum of coeff * X over the terms (see var_values).
double terms_value(const LinTerms &terms);
// The methods addTerms and remove, shared with the linear part of QuadExpr.
void lin_add_terms(LinExprObject *e, nb::handle coeffs, nb::handle vars);
void lin_remove(LinExprObject *e, nb::handle which);
// Key under which _normalize merges the terms of a variable.
struct TermKey {
  const void *model;
  intptr_t id;
  bool operator==(const TermKey &o) const { return model == o.model && id == o.id; }
};
struct TermKeyHash {
  size_t operator()(const TermKey &k) const {
    return std::hash<const void *>()(k.model) * 31 + std::hash<intptr_t>()(k.id);
  }
};
TermKey var_key(PyObject *var);

// ---------------------------------------------------------------- QuadExpr internals
nb::object quad_new(nb::object lin);  // a new QuadExpr with the given linear part (a LinExpr)
void quad_flatten(QuadExprObject *q);
// q += mult * x for an operand of kind Num, Var, Lin or Quad. mult must be finite.
void quad_add(QuadExprObject *q, PyObject *x, const Operand &o, double mult);
void quad_push(QuadExprObject *q, double c, PyObject *v1, PyObject *v2);  // increfs

// ---------------------------------------------------------------- operator slots
// The number slots of Var, LinExpr and QuadExpr share their dispatch; a traits class Ops gives
// what differs:
//   is_self(o)               o has the type whose slot runs
//   self_operand             the Operand of such an object
//   accepts(kind)            operand kinds that + and - combine with (others: NotImplemented)
//   copy_for(self, other, o) a new result equal to self, with room for other's terms
//   empty_for(self, other, o) a new zero result with room for both
//   add(r, x, o, mult)       r += mult * x
//   scaled(self, c)          a new result c * self
//   times_number(self, c)    self * c for a number operand (Var and LinExpr)
//   scale(self, c)           self *= c (LinExpr and QuadExpr, for the in-place slots)

template <class Ops>
PyObject *sum_slot(PyObject *a, PyObject *b) {
  return guard([&]() -> PyObject * {
    bool left = Ops::is_self(a);
    PyObject *self = left ? a : b, *other = left ? b : a;
    Operand o = classify(other);
    if (!Ops::accepts(o.kind)) return not_implemented();
    nb::object r = Ops::copy_for(self, other, o);
    Ops::add(r.ptr(), other, o, 1.0);
    return r.release().ptr();
  });
}

template <class Ops>
PyObject *difference_slot(PyObject *a, PyObject *b) {
  return guard([&]() -> PyObject * {
    bool left = Ops::is_self(a);
    PyObject *self = left ? a : b, *other = left ? b : a;
    Operand o = classify(other);
    if (!Ops::accepts(o.kind)) return not_implemented();
    nb::object r = left ? Ops::copy_for(a, b, o) : Ops::empty_for(self, other, o);
    if (!left) Ops::add(r.ptr(), a, o, 1.0);
    Ops::add(r.ptr(), b, left ? o : Ops::self_operand, -1.0);
    return r.release().ptr();
  });
}

// Products of Var and LinExpr: by a number, or by a Var or LinExpr into a QuadExpr.
template <class Ops>
PyObject *linear_product_slot(PyObject *a, PyObject *b) {
  return guard([&]() -> PyObject * {
    bool left = Ops::is_self(a);
    PyObject *self = left ? a : b, *other = left ? b : a;
    Operand o = classify(other);
    if (o.kind == Kind::Num) return Ops::times_number(self, o.value).release().ptr();
    if (o.kind != Kind::Var && o.kind != Kind::Lin) return not_implemented();
    Operand s = Ops::self_operand;
    return (left ? lin_product(self, s, other, o) : lin_product(other, o, self, s)).release().ptr();
  });
}

// self ** 2 of Var and LinExpr.
template <class Ops>
PyObject *square_slot(PyObject *a, PyObject *b, PyObject *mod) {
  return guard([&]() -> PyObject * {
    if (!Ops::is_self(a) || mod != Py_None) return not_implemented();
    Operand o = classify(b);
    if (o.kind != Kind::Num || o.value != 2.0) return not_implemented();
    return lin_product(a, Ops::self_operand, a, Ops::self_operand).release().ptr();
  });
}

template <class Ops>
PyObject *quotient_slot(PyObject *a, PyObject *b) {
  return guard([&]() -> PyObject * {
    if (!Ops::is_self(a)) {
      // Something divided by an expression.
      if (classify(a).kind == Kind::Other) return not_implemented();
      raise_divisor();
    }
    Operand o = classify(b);
    if (o.kind == Kind::Num) {
      if (o.value == 0.0) raise_zero_division();
      return Ops::scaled(a, 1.0 / o.value).release().ptr();
    }
    if (o.kind == Kind::Other && array_like(b)) return not_implemented();
    raise_divisor();
  });
}

template <class Ops>
PyObject *negation_slot(PyObject *a) {
  return guard([&] { return Ops::scaled(a, -1.0).release().ptr(); });
}

// a += b (sign 1) and a -= b (sign -1).
template <class Ops, int sign>
PyObject *inplace_sum_slot(PyObject *a, PyObject *b) {
  return guard([&]() -> PyObject * {
    Operand o = classify(b);
    if (!Ops::accepts(o.kind)) return not_implemented();
    Ops::add(a, b, o, sign);
    return Py_NewRef(a);
  });
}

template <class Ops>
PyObject *inplace_quotient_slot(PyObject *a, PyObject *b) {
  return guard([&]() -> PyObject * {
    Operand o = classify(b);
    if (o.kind == Kind::Num) {
      if (o.value == 0.0) raise_zero_division();
      Ops::scale(a, 1.0 / o.value);
      return Py_NewRef(a);
    }
    if (o.kind == Kind::Other && array_like(b)) return not_implemented();
    raise_divisor();
  });
}

// ---------------------------------------------------------------- pickling
// An expression pickles as (module._unpickle_<Name>, (type, layout, state)); the layout number
// changes whenever the state tuple does.
struct PickleFormat {
  PyTypeObject *type;
  const char *unpickler;  // "_unpickle_LinExpr"
  long layout;
  Py_ssize_t state_size;
  const char *name;  // "LinExpr", for messages
  nb::object reduce(nb::handle state) const;
  // Checks cls, layout and the shape of state; returns the items of the state tuple.
  PyObject *const *state_items(nb::handle cls, nb::handle layout, nb::handle state) const;
  [[noreturn]] void malformed() const;
};

// ---------------------------------------------------------------- TempConstr
// TempConstr(lhs, sense, rhs) with the normalisation of matrix sides.
nb::object make_tempconstr(nb::handle lhs, const char *sense, nb::handle rhs);
// The richcompare slot shared by LinExpr and QuadExpr: <=, >=, == build a TempConstr with
// `self` on the left; != raises; < and > are not supported.
PyObject *expr_richcompare(PyObject *self, PyObject *other, int op);

// ---------------------------------------------------------------- registration
// Adds a nanobind function as a method of a type.
void add_method(PyTypeObject *type, const char *name, nb::object func);
// Defines methods of a type: def(name, fn, nb::arg(...)..., doc).
struct MethodDefiner {
  PyTypeObject *type;
  // The function of a method, not yet attached.
  template <class F, class... Extra>
  nb::object function(const char *name, F &&fn, const Extra &...extra) const {
    nb::handle scope(reinterpret_cast<PyObject *>(type));
    return nb::cpp_function(std::forward<F>(fn), nb::scope(scope), nb::name(name), nb::is_method(),
                            extra...);
  }
  template <class F, class... Extra>
  void operator()(const char *name, F &&fn, const Extra &...extra) const {
    add_method(type, name, function(name, std::forward<F>(fn), extra...));
  }
  // A read-only property whose value is getter(self).
  template <class F>
  void property(const char *name, F &&getter, const char *doc) const {
    nb::object get = function(name, std::forward<F>(getter), doc);
    PyObject *p = PyObject_CallOneArg(reinterpret_cast<PyObject *>(&PyProperty_Type), get.ptr());
    if (!p) throw nb::python_error();
    add_method(type, name, nb::steal(p));
  }
};
// A type from its spec, kept for the life of the process.
PyTypeObject *new_heap_type(PyType_Spec *spec);
// One slot of a type's operations table.
template <class F>
PyType_Slot slot(int id, F *fn) {
  return {id, reinterpret_cast<void *>(fn)};
}
// What makes one garbage-collected type of the family: the lifecycle every such type has, then
// the slots of its own operations (arithmetic, comparisons, members).
struct ExprTypeOps {
  const char *qualname;  // "kaviropy.<Name>"; <Name> is the module attribute
  int basicsize;
  const char *doc;
  newfunc create;
  destructor dealloc;
  traverseproc traverse;
  inquiry clear;
  reprfunc repr;  // null: object's
  std::initializer_list<PyType_Slot> operations;
  unsigned int extra_flags = 0;
};
// The type built from its table and set as a module attribute; kept for the life of the process.
PyTypeObject *new_expr_type(nb::module_ &m, const ExprTypeOps &ops);
// The last step of tp_dealloc for the family's heap types.
inline void free_heap_object(PyObject *self) {
  PyTypeObject *type = Py_TYPE(self);
  type->tp_free(self);
  Py_DECREF(type);
}
// Adds a module function fn(cls, layout, state) as a builtin function, which pickle can save by
// name (nanobind functions cannot be pickled).
using UnpickleFn = nb::object (*)(nb::handle, nb::handle, nb::handle);
template <UnpickleFn fn>
PyObject *unpickle_entry(PyObject *, PyObject *const *args, Py_ssize_t nargs) {
  return guard([&]() -> PyObject * {
    if (nargs != 3) {
      PyErr_SetString(PyExc_TypeError, "expected 3 arguments (cls, layout, state)");
      return nullptr;
    }
    return fn(args[0], args[1], args[2]).release().ptr();
  });
}

void init_linexpr(nb::module_ &m);
void init_quadexpr(nb::module_ &m);
void init_tempconstr(nb::module_ &m);
void init_genexpr(nb::module_ &m);
void init_column(nb::module_ &m);

}  // namespace kvrpy
