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
#include <new>
#include <string>
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
// Position i of a sequence of n terms (negative positions count from the end); raises
// KaviroError(INDEX_OUT_OF_RANGE) outside.
size_t term_position(nb::handle i, size_t n, const char *what);

inline PyObject *not_implemented() { return Py_NewRef(Py_NotImplemented); }

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
void release_terms(LinTerms &terms);
void release_terms(QuadTerms &terms);

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

// Arguments: iterables other than strings, materialised as a list or tuple.
bool is_iterable(PyObject *o);
nb::object as_sequence(PyObject *o);
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

// ---------------------------------------------------------------- TempConstr
// TempConstr(lhs, sense, rhs) with the normalisation of matrix sides.
nb::object make_tempconstr(nb::handle lhs, const char *sense, nb::handle rhs);
// The richcompare slot shared by LinExpr and QuadExpr: <=, >=, == build a TempConstr with
// `self` on the left; != raises; < and > are not supported.
PyObject *expr_richcompare(PyObject *self, PyObject *other, int op);

// ---------------------------------------------------------------- registration
// Adds a nanobind function as a method of a type.
void add_method(PyTypeObject *type, const char *name, nb::object func);
// Adds a module function fn(cls, layout, state) as a builtin function, which pickle can save by
// name (nanobind functions cannot be pickled).
using UnpickleFn = nb::object (*)(nb::handle, nb::handle, nb::handle);
void add_unpickler(nb::module_ &m, PyMethodDef *def);
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
