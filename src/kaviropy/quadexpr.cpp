// QuadExpr: a linear part (a LinExpr) plus quadratic terms coeff * var1 * var2 in insertion order.
#include <unordered_map>

#include "exprtypes.h"

namespace kvrpy {

PyTypeObject *g_quadexpr_type = nullptr;

constexpr long kQuadExprLayout = 100190607;

namespace {

QuadExprObject *quad_alloc(LinExprObject *lin) {
  QuadExprObject *q = PyObject_GC_New(QuadExprObject, g_quadexpr_type);
  if (!q) {
    Py_XDECREF(lin);
    throw nb::python_error();
  }
  q->lin = lin;
  new (&q->terms) QuadTerms();
  q->next = nullptr;
  PyObject_GC_Track(reinterpret_cast<PyObject *>(q));
  return q;
}

void copy_quad_terms(QuadTerms &dst, const QuadTerm *src, size_t n, double mult) {
  grow(dst, n);
  for (size_t i = 0; i < n; ++i) {
    Py_INCREF(src[i].var1);
    Py_INCREF(src[i].var2);
    dst.push_back({src[i].coeff * mult, src[i].var1, src[i].var2});
  }
}

QuadExprObject *quad_self(nb::handle self) {
  if (!is_quad(self.ptr()))
    raise_python(PyExc_TypeError,
                 std::string("expected a kaviropy.QuadExpr, got ") + Py_TYPE(self.ptr())->tp_name);
  return Q(self);
}

}  // namespace

nb::object quad_new(nb::object lin) {
  if (!is_lin(lin.ptr())) raise_python(PyExc_TypeError, "the linear part must be a LinExpr");
  return nb::steal(reinterpret_cast<PyObject *>(quad_alloc(L(lin.release()))));
}

void quad_push(QuadExprObject *q, double c, PyObject *v1, PyObject *v2) {
  grow(q->terms, 1);
  Py_INCREF(v1);
  Py_INCREF(v2);
  q->terms.push_back({c, v1, v2});
}

void quad_flatten(QuadExprObject *q) {
  if (q->lin) lin_flatten(q->lin);
  if (!q->next) return;
  std::vector<QuadExprObject *> chain;
  size_t total = q->terms.size();
  for (QuadExprObject *p = q->next; p; p = p->next) {
    chain.push_back(p);
    total += p->terms.size();
  }
  QuadTerms merged;
  merged.reserve(total);
  size_t exclusive = 0;
  while (exclusive < chain.size() && Py_REFCNT(chain[exclusive]) == 1) ++exclusive;
  for (size_t k = chain.size(); k-- > 0;) {
    QuadExprObject *p = chain[k];
    if (k < exclusive) {
      merged.insert(merged.end(), p->terms.begin(), p->terms.end());
      p->terms.clear();
    } else {
      copy_quad_terms(merged, p->terms.data(), p->terms.size(), 1.0);
    }
  }
  merged.insert(merged.end(), q->terms.begin(), q->terms.end());
  // merged receives the old vector, whose references were handed over above.
  q->terms.swap(merged);
  QuadExprObject *old = q->next;
  q->next = nullptr;
  release_chain(old);
}

namespace {

// A new expression with the value of q; a long quadratic part is frozen into a shared piece.
nb::object quad_extend(QuadExprObject *q) {
  nb::object r = quad_new(lin_extend(q->lin));
  QuadExprObject *out = Q(r);
  if (q->terms.size() <= kPieceMin) {
    copy_quad_terms(out->terms, q->terms.data(), q->terms.size(), 1.0);
    out->next = q->next;
    Py_XINCREF(q->next);
    return r;
  }
  QuadExprObject *piece = quad_alloc(nullptr);
  piece->terms.swap(q->terms);
  piece->next = q->next;
  q->next = piece;
  Py_INCREF(piece);
  out->next = piece;
  return r;
}

// The value of a Var, LinExpr or QuadExpr operand when it has no variables.
bool constant_value(PyObject *x, const Operand &o, double &value) {
  if (o.kind == Kind::Lin) {
    if (lin_size(L(x)) != 0) return false;
    value = L(x)->constant;
    return true;
  }
  if (o.kind == Kind::Quad) {
    QuadExprObject *q = Q(x);
    quad_flatten(q);
    if (!q->terms.empty() || !q->lin->terms.empty()) return false;
    value = q->lin->constant;
    return true;
  }
  return false;
}

void quad_scale(QuadExprObject *q, double c) {
  check_constant(c);
  quad_flatten(q);
  lin_scale(q->lin, c);  // checks c before changing anything
  for (QuadTerm &t : q->terms) t.coeff *= c;
}

nb::object quad_scaled(QuadExprObject *q, double c) {
  check_constant(c);
  check_multiplier(c);
  quad_flatten(q);
  nb::object r = quad_new(lin_scaled(q->lin, c));
  copy_quad_terms(Q(r)->terms, q->terms.data(), q->terms.size(), c);
  return r;
}

}  // namespace

void quad_add(QuadExprObject *q, PyObject *x, const Operand &o, double mult) {
  if (o.kind != Kind::Quad) {
    lin_add(q->lin, x, o, mult);
    return;
  }
  QuadExprObject *src = Q(x);
  quad_flatten(src);
  size_t n = src->terms.size();
  // src may be q itself: make room first so that src stays valid while appending.
  grow(q->terms, n);
  lin_add(q->lin, reinterpret_cast<PyObject *>(src->lin), {Kind::Lin, 0.0}, mult);
  copy_quad_terms(q->terms, src->terms.data(), n, mult);
}

namespace {

nb::object quad_construct(PyObject *arg) {
  if (!arg || arg == Py_None) return quad_new(lin_new());
  Operand o = classify(arg);
  if (o.kind == Kind::Quad) return quad_extend(Q(arg));
  if (!is_linear_kind(o.kind)) raise_unconvertible();
  nb::object r = quad_new(lin_new());
  quad_add(Q(r), arg, o, 1.0);
  return r;
}

PyObject *quad_tp_new(PyTypeObject *, PyObject *args, PyObject *kwds) {
  return guard([&]() -> PyObject * {
    static const char *kwlist[] = {"expr", nullptr};
    PyObject *arg = nullptr;
    if (!PyArg_ParseTupleAndKeywords(args, kwds, "|O:QuadExpr", const_cast<char **>(kwlist), &arg))
      return nullptr;
    return quad_construct(arg).release().ptr();
  });
}

void quad_tp_dealloc(PyObject *self) {
  QuadExprObject *q = Q(self);
  PyObject_GC_UnTrack(self);
  QuadExprObject *next = q->next;
  q->next = nullptr;
  release_chain(next);
  release_terms(q->terms);
  q->terms.~vector();
  Py_CLEAR(q->lin);
  PyTypeObject *type = Py_TYPE(self);
  type->tp_free(self);
  Py_DECREF(type);
}

int quad_tp_traverse(PyObject *self, visitproc visit, void *arg) {
  Py_VISIT(Py_TYPE(self));
  QuadExprObject *q = Q(self);
  Py_VISIT(reinterpret_cast<PyObject *>(q->lin));
  for (const QuadTerm &t : q->terms) {
    Py_VISIT(t.var1);
    Py_VISIT(t.var2);
  }
  Py_VISIT(reinterpret_cast<PyObject *>(q->next));
  return 0;
}

int quad_tp_clear(PyObject *self) {
  QuadExprObject *q = Q(self);
  QuadExprObject *next = q->next;
  q->next = nullptr;
  release_chain(next);
  release_terms(q->terms);
  // The linear part stays: methods rely on it, and it holds no reference back to q.
  return 0;
}

std::string quad_pretty(QuadExprObject *q) {
  quad_flatten(q);
  std::string s;
  if (!q->lin->terms.empty() || q->lin->constant != 0.0 || std::isnan(q->lin->constant))
    s = py_str(reinterpret_cast<PyObject *>(q->lin));
  if (!q->terms.empty()) {
    if (!s.empty()) s += " + ";
    s += "[ ";
    // sameAs may run Python code: print from a copy that holds its own references.
    QuadTerms terms = q->terms;
    OwnedRefs refs;
    refs.objects.reserve(2 * terms.size());
    for (const QuadTerm &t : terms) {
      refs.add(t.var1);
      refs.add(t.var2);
    }
    for (size_t i = 0; i < terms.size(); ++i) {
      const QuadTerm &t = terms[i];
      if (i) s += " + ";
      s += coeff_text(t.coeff);
      s += var_text(t.var1);
      if (same_var(t.var1, t.var2)) {
        s += " ^ 2";
      } else {
        s += " * ";
        s += var_text(t.var2);
      }
    }
    s += " ]";
  }
  return s.empty() ? "0.0" : s;
}

PyObject *quad_tp_repr(PyObject *self) {
  return guard([&] {
    std::string s = "<kaviro.QuadExpr: " + quad_pretty(Q(self)) + ">";
    return PyUnicode_FromStringAndSize(s.data(), static_cast<Py_ssize_t>(s.size()));
  });
}

PyObject *quad_tp_str(PyObject *self) {
  return guard([&] {
    std::string s = quad_pretty(Q(self));
    return PyUnicode_FromStringAndSize(s.data(), static_cast<Py_ssize_t>(s.size()));
  });
}

// ---------------------------------------------------------------- operators

PyObject *quad_nb_add(PyObject *a, PyObject *b) {
  return guard([&]() -> PyObject * {
    PyObject *self = is_quad(a) ? a : b, *other = is_quad(a) ? b : a;
    Operand o = classify(other);
    if (o.kind == Kind::Other) return not_implemented();
    nb::object r = quad_extend(Q(self));
    quad_add(Q(r), other, o, 1.0);
    return r.release().ptr();
  });
}

PyObject *quad_nb_subtract(PyObject *a, PyObject *b) {
  return guard([&]() -> PyObject * {
    if (is_quad(a)) {
      Operand o = classify(b);
      if (o.kind == Kind::Other) return not_implemented();
      nb::object r = quad_extend(Q(a));
      quad_add(Q(r), b, o, -1.0);
      return r.release().ptr();
    }
    Operand o = classify(a);
    if (o.kind == Kind::Other) return not_implemented();
    nb::object r = quad_new(lin_new());
    quad_add(Q(r), a, o, 1.0);
    quad_add(Q(r), b, {Kind::Quad, 0.0}, -1.0);
    return r.release().ptr();
  });
}

PyObject *quad_nb_multiply(PyObject *a, PyObject *b) {
  return guard([&]() -> PyObject * {
    PyObject *self = is_quad(a) ? a : b, *other = is_quad(a) ? b : a;
    Operand o = classify(other);
    if (o.kind == Kind::Other) return not_implemented();
    double c = o.value;
    if (o.kind != Kind::Num && !constant_value(other, o, c))
      invalid("Invalid argument to QuadExpr multiplication");
    return quad_scaled(Q(self), c).release().ptr();
  });
}

PyObject *quad_nb_true_divide(PyObject *a, PyObject *b) {
  return guard([&]() -> PyObject * {
    if (!is_quad(a)) {
      if (classify(a).kind == Kind::Other) return not_implemented();
      raise_divisor();
    }
    Operand o = classify(b);
    if (o.kind == Kind::Num) {
      if (o.value == 0.0) raise_zero_division();
      return quad_scaled(Q(a), 1.0 / o.value).release().ptr();
    }
    if (o.kind == Kind::Other && array_like(b)) return not_implemented();
    raise_divisor();
  });
}

PyObject *quad_nb_negative(PyObject *a) {
  return guard([&] { return quad_scaled(Q(a), -1.0).release().ptr(); });
}

PyObject *quad_nb_inplace_add(PyObject *a, PyObject *b) {
  return guard([&]() -> PyObject * {
    Operand o = classify(b);
    if (o.kind == Kind::Other) return not_implemented();
    quad_add(Q(a), b, o, 1.0);
    return Py_NewRef(a);
  });
}

PyObject *quad_nb_inplace_subtract(PyObject *a, PyObject *b) {
  return guard([&]() -> PyObject * {
    Operand o = classify(b);
    if (o.kind == Kind::Other) return not_implemented();
    quad_add(Q(a), b, o, -1.0);
    return Py_NewRef(a);
  });
}

PyObject *quad_nb_inplace_multiply(PyObject *a, PyObject *b) {
  return guard([&]() -> PyObject * {
    Operand o = classify(b);
    if (o.kind == Kind::Other) return not_implemented();
    double c = o.value;
    if (o.kind != Kind::Num && !constant_value(b, o, c))
      invalid("Invalid argument to QuadExpr multiplication");
    quad_scale(Q(a), c);
    return Py_NewRef(a);
  });
}

PyObject *quad_nb_inplace_true_divide(PyObject *a, PyObject *b) {
  return guard([&]() -> PyObject * {
    Operand o = classify(b);
    if (o.kind == Kind::Num) {
      if (o.value == 0.0) raise_zero_division();
      quad_scale(Q(a), 1.0 / o.value);
      return Py_NewRef(a);
    }
    if (o.kind == Kind::Other && array_like(b)) return not_implemented();
    raise_divisor();
  });
}

// ---------------------------------------------------------------- methods

void quad_add_terms(QuadExprObject *q, nb::handle coeffs, nb::handle vars, nb::handle vars2) {
  if (vars2.is_none()) {
    lin_add_terms(q->lin, coeffs, vars);
    return;
  }
  double c;
  if (is_var(vars.ptr()) && is_var(vars2.ptr())) {
    if (!isscalar(coeffs.ptr(), &c)) invalid("Unrecognized arguments");
    check_coeff(c);
    quad_push(q, c, vars.ptr(), vars2.ptr());
    return;
  }
  if (!is_iterable(coeffs.ptr()) || !is_iterable(vars.ptr()) || !is_iterable(vars2.ptr()))
    invalid("Unrecognized arguments");
  nb::object sc = as_sequence(coeffs.ptr()), s1 = as_sequence(vars.ptr()),
             s2 = as_sequence(vars2.ptr());
  Py_ssize_t n = PySequence_Fast_GET_SIZE(sc.ptr());
  if (n != PySequence_Fast_GET_SIZE(s1.ptr()) || n != PySequence_Fast_GET_SIZE(s2.ptr()))
    invalid("Array lengths don't match");
  PyObject **ic = PySequence_Fast_ITEMS(sc.ptr()), **i1 = PySequence_Fast_ITEMS(s1.ptr()),
           **i2 = PySequence_Fast_ITEMS(s2.ptr());
  std::vector<double> values(static_cast<size_t>(n));
  for (Py_ssize_t i = 0; i < n; ++i) {
    if (!is_var(i1[i])) invalid("Second argument should be a list of Var");
    if (!is_var(i2[i])) invalid("Third argument should be a list of Var");
    if (!isscalar(ic[i], &values[i])) invalid("First argument should be a list of floats");
    check_coeff(values[i]);
  }
  grow(q->terms, static_cast<size_t>(n));
  for (Py_ssize_t i = 0; i < n; ++i) quad_push(q, values[i], i1[i], i2[i]);
}

void quad_remove(QuadExprObject *q, nb::handle which) {
  quad_flatten(q);
  QuadTerms dropped;
  if (is_var(which.ptr())) {
    std::vector<PyObject *> vars;
    vars.reserve(2 * q->terms.size());
    for (const QuadTerm &t : q->terms) {
      vars.push_back(t.var1);
      vars.push_back(t.var2);
    }
    std::unordered_set<PyObject *> same = vars_same_as(vars, which.ptr());
    QuadTerms kept;
    kept.reserve(q->terms.size());
    for (const QuadTerm &t : q->terms) {
      bool hit = same.count(t.var1) || same.count(t.var2);
      (hit ? dropped : kept).push_back(t);
    }
    q->terms.swap(kept);
    release_terms(dropped);
    lin_remove(q->lin, which);
    return;
  }
  if (!PyLong_Check(which.ptr())) invalid("Argument to remove must be a term position or a Var");
  size_t i = term_position(which, q->terms.size(), "a QuadExpr");
  dropped.push_back(q->terms[i]);
  q->terms.erase(q->terms.begin() + static_cast<std::ptrdiff_t>(i));
  release_terms(dropped);
}

struct PairHash {
  size_t operator()(const std::pair<TermKey, TermKey> &p) const {
    return TermKeyHash()(p.first) * 1000003u ^ TermKeyHash()(p.second);
  }
};

void quad_normalize(QuadExprObject *q) {
  quad_flatten(q);
  nb::handle lin(reinterpret_cast<PyObject *>(q->lin));
  lin.attr("_normalize")();
  // x * y and y * x are one product.
  std::unordered_map<std::pair<TermKey, TermKey>, size_t, PairHash> first;
  first.reserve(q->terms.size());
  QuadTerms merged, dropped;
  merged.reserve(q->terms.size());
  for (const QuadTerm &t : q->terms) {
    TermKey a = var_key(t.var1), b = var_key(t.var2);
    auto less = [](const TermKey &x, const TermKey &y) {
      return x.model != y.model ? std::less<const void *>()(x.model, y.model) : x.id < y.id;
    };
    if (less(b, a)) std::swap(a, b);
    auto [it, fresh] = first.emplace(std::make_pair(a, b), merged.size());
    if (fresh) {
      merged.push_back(t);
    } else {
      merged[it->second].coeff += t.coeff;
      dropped.push_back(t);
    }
  }
  q->terms.swap(merged);
  release_terms(dropped);
}

nb::object quad_reduce(QuadExprObject *q) {
  quad_flatten(q);
  nb::list coeffs, vars1, vars2;
  for (const QuadTerm &t : q->terms) {
    coeffs.append(t.coeff);
    vars1.append(nb::handle(t.var1));
    vars2.append(nb::handle(t.var2));
  }
  nb::tuple state = nb::make_tuple(nb::handle(reinterpret_cast<PyObject *>(q->lin)), coeffs, vars1,
                                   vars2, nb::none());
  return nb::make_tuple(module_attr("_unpickle_QuadExpr"),
                        nb::make_tuple(nb::handle(reinterpret_cast<PyObject *>(g_quadexpr_type)),
                                       kQuadExprLayout, state));
}

nb::object quad_unpickle(nb::handle cls, nb::handle layout, nb::handle state) {
  if (cls.ptr() != reinterpret_cast<PyObject *>(g_quadexpr_type))
    invalid("Pickled data is not a QuadExpr");
  if (!PyLong_Check(layout.ptr()) || PyLong_AsLong(layout.ptr()) != kQuadExprLayout) {
    PyErr_Clear();
    invalid("Unknown layout of a pickled QuadExpr");
  }
  if (!PyTuple_Check(state.ptr()) || PyTuple_GET_SIZE(state.ptr()) != 5)
    invalid("Malformed state of a pickled QuadExpr");
  PyObject *lin = PyTuple_GET_ITEM(state.ptr(), 0), *next = PyTuple_GET_ITEM(state.ptr(), 4);
  if (!is_lin(lin) || (next != Py_None && !is_quad(next)))
    invalid("Malformed state of a pickled QuadExpr");
  nb::object r = quad_new(lin_new());
  if (next != Py_None) quad_add(Q(r), next, {Kind::Quad, 0.0}, 1.0);
  quad_add(Q(r), lin, {Kind::Lin, 0.0}, 1.0);
  try {
    quad_add_terms(Q(r), nb::handle(PyTuple_GET_ITEM(state.ptr(), 1)),
                   nb::handle(PyTuple_GET_ITEM(state.ptr(), 2)),
                   nb::handle(PyTuple_GET_ITEM(state.ptr(), 3)));
  } catch (nb::python_error &) {
    invalid("Malformed state of a pickled QuadExpr");
  }
  return r;
}

void register_quadexpr_methods(PyTypeObject *type) {
  nb::handle scope(reinterpret_cast<PyObject *>(type));
  auto def = [&](const char *name, auto &&fn, auto... extra) {
    add_method(type, name,
               nb::cpp_function(std::forward<decltype(fn)>(fn), nb::scope(scope), nb::name(name),
                                nb::is_method(), extra...));
  };
  def(
      "add",
      [](nb::handle self, nb::handle expr, nb::handle mult) {
        QuadExprObject *q = quad_self(self);
        double m;
        if (!isscalar(mult.ptr(), &m)) invalid("Invalid argument to QuadExpr multiplication");
        check_coeff(m);
        Operand o = classify(expr.ptr());
        if (o.kind == Kind::Other) invalid("Invalid argument to QuadExpr addition");
        quad_add(q, expr.ptr(), o, m);
      },
      nb::arg("expr").none(), nb::arg("mult").none() = 1.0,
      "Adds mult times expr (a number, Var, LinExpr or QuadExpr).");
  def(
      "addConstant",
      [](nb::handle self, nb::handle c) {
        QuadExprObject *q = quad_self(self);
        double v;
        if (!isscalar(c.ptr(), &v)) invalid("Constant must be a number");
        lin_add(q->lin, c.ptr(), {Kind::Num, v}, 1.0);
      },
      nb::arg("constant").none(), "Adds a number to the constant.");
  def(
      "addTerms",
      [](nb::handle self, nb::handle coeffs, nb::handle vars, nb::handle vars2) {
        quad_add_terms(quad_self(self), coeffs, vars, vars2);
      },
      nb::arg("coeffs").none(), nb::arg("vars").none(), nb::arg("vars2").none() = nb::none(),
      "Adds linear terms (coeffs, vars) or quadratic terms (coeffs, vars, vars2).");
  def(
      "remove", [](nb::handle self, nb::handle which) { quad_remove(quad_self(self), which); },
      nb::arg("item").none(),
      "Removes the quadratic term at a position (an int), or every term of a variable (a Var).");
  def(
      "size",
      [](nb::handle self) {
        QuadExprObject *q = quad_self(self);
        quad_flatten(q);
        return q->terms.size();
      },
      "Number of quadratic terms.");
  def(
      "getLinExpr",
      [](nb::handle self) {
        QuadExprObject *q = quad_self(self);
        quad_flatten(q);
        return nb::borrow(reinterpret_cast<PyObject *>(q->lin));
      },
      "The linear part (the expression's own LinExpr object).");
  auto term = [](nb::handle self, nb::handle i) -> const QuadTerm & {
    QuadExprObject *q = quad_self(self);
    quad_flatten(q);
    return q->terms[term_position(i, q->terms.size(), "a QuadExpr")];
  };
  def(
      "getCoeff", [term](nb::handle self, nb::handle i) { return term(self, i).coeff; },
      nb::arg("i").none(), "The coefficient of quadratic term i.");
  def(
      "getVar1", [term](nb::handle self, nb::handle i) { return nb::borrow(term(self, i).var1); },
      nb::arg("i").none(), "The first variable of quadratic term i.");
  def(
      "getVar2", [term](nb::handle self, nb::handle i) { return nb::borrow(term(self, i).var2); },
      nb::arg("i").none(), "The second variable of quadratic term i.");
  def(
      "getValue",
      [](nb::handle self) {
        QuadExprObject *q = quad_self(self);
        quad_flatten(q);
        std::vector<PyObject *> v1, v2;
        v1.reserve(q->terms.size());
        v2.reserve(q->terms.size());
        for (const QuadTerm &t : q->terms) {
          v1.push_back(t.var1);
          v2.push_back(t.var2);
        }
        double value = q->lin->constant + terms_value(q->lin->terms);
        std::vector<double> x1 = var_values(v1), x2 = var_values(v2);
        for (size_t i = 0; i < q->terms.size(); ++i) value += q->terms[i].coeff * x1[i] * x2[i];
        return value;
      },
      "The value of the expression in the current solution.");
  def(
      "clear",
      [](nb::handle self) {
        QuadExprObject *q = quad_self(self);
        QuadExprObject *next = q->next;
        q->next = nullptr;
        release_terms(q->terms);
        release_chain(next);
        nb::handle(reinterpret_cast<PyObject *>(q->lin)).attr("clear")();
      },
      "Removes every term and sets the constant to 0.");
  def(
      "copy", [](nb::handle self) { return quad_extend(quad_self(self)); },
      "A copy of the expression.");
  def(
      "_flatten", [](nb::handle self) { quad_flatten(quad_self(self)); },
      "Joins the linked pieces of the expression into one.");
  def(
      "_normalize", [](nb::handle self) { quad_normalize(quad_self(self)); },
      "Merges repeated linear terms and repeated products of the same two variables.");
  def(
      "_is_nested",
      [](nb::handle self) {
        QuadExprObject *q = quad_self(self);
        return q->next != nullptr || q->lin->next != nullptr;
      },
      "Whether the expression links further pieces.");
  def(
      "_asprettystring", [](nb::handle self) { return quad_pretty(quad_self(self)); },
      "The expression as text.");
  def(
      "_dbgprint",
      [](nb::handle self) {
        QuadExprObject *q = quad_self(self);
        std::string s;
        for (QuadExprObject *p = q; p; p = p->next) {
          if (p != q) s += "\n  |  ";
          s += "<DBGQuadExpr len=" + std::to_string(p->terms.size()) + ">";
        }
        nb::object print = nb::module_::import_("builtins").attr("print");
        print(s);
        print("linear part:");
        nb::handle(reinterpret_cast<PyObject *>(q->lin)).attr("_dbgprint")();
      },
      "Prints the pieces of the expression.");
  def(
      "_mul",
      [](nb::handle self, nb::handle c) {
        QuadExprObject *q = quad_self(self);
        double v;
        if (!isscalar(c.ptr(), &v)) invalid("Invalid argument to QuadExpr multiplication");
        quad_scale(q, v);
      },
      nb::arg("c").none(), "Multiplies the expression by a number in place.");
  def(
      "__sizeof__",
      [](nb::handle self) {
        QuadExprObject *q = quad_self(self);
        return sizeof(QuadExprObject) + q->terms.capacity() * sizeof(QuadTerm);
      },
      "Bytes of the object and its own term vector (the linear part, linked pieces and "
      "variables not counted).");
  def(
      "__reduce__", [](nb::handle self) { return quad_reduce(quad_self(self)); },
      "Pickling support.");
}

}  // namespace

// ---------------------------------------------------------------- expr.h interface

bool is_quadexpr(nb::handle obj) { return is_quad(obj.ptr()); }

bool collect_quadratic(nb::handle obj, double mult, KVRmodel *model, QuadData &out) {
  if (!is_quad(obj.ptr())) return collect_linear(obj, mult, model, out.lin);
  QuadExprObject *q = Q(obj);
  quad_flatten(q);
  size_t n0 = out.qrow.size(), l0 = out.lin.ind.size();
  double constant0 = out.lin.constant;
  try {
    grow(out.qrow, q->terms.size());
    grow(out.qcol, q->terms.size());
    grow(out.qval, q->terms.size());
    for (const QuadTerm &t : q->terms) {
      out.qrow.push_back(var_column(t.var1, model));
      out.qcol.push_back(var_column(t.var2, model));
      out.qval.push_back(t.coeff * mult);
    }
    collect_linear(nb::handle(reinterpret_cast<PyObject *>(q->lin)), mult, model, out.lin);
  } catch (...) {
    out.qrow.resize(n0);
    out.qcol.resize(n0);
    out.qval.resize(n0);
    out.lin.ind.resize(l0);
    out.lin.val.resize(l0);
    out.lin.constant = constant0;
    throw;
  }
  return true;
}

nb::object make_quadexpr(nb::object linexpr, std::vector<double> coeffs,
                         std::vector<nb::object> vars1, std::vector<nb::object> vars2) {
  nb::object r = quad_new(linexpr.is_none() ? lin_new() : std::move(linexpr));
  QuadExprObject *q = Q(r);
  size_t n = std::min({coeffs.size(), vars1.size(), vars2.size()});
  q->terms.reserve(n);
  for (size_t i = 0; i < n; ++i)
    q->terms.push_back({coeffs[i], vars1[i].release().ptr(), vars2[i].release().ptr()});
  return r;
}

void init_quadexpr(nb::module_ &m) {
  static PyType_Slot slots[] = {
      {Py_tp_doc,
       const_cast<char *>("A quadratic expression: a linear part plus "
                          "coefficient-variable-variable terms.\n\nQuadExpr(expr=None)")},
      {Py_tp_new, reinterpret_cast<void *>(quad_tp_new)},
      {Py_tp_dealloc, reinterpret_cast<void *>(quad_tp_dealloc)},
      {Py_tp_traverse, reinterpret_cast<void *>(quad_tp_traverse)},
      {Py_tp_clear, reinterpret_cast<void *>(quad_tp_clear)},
      {Py_tp_repr, reinterpret_cast<void *>(quad_tp_repr)},
      {Py_tp_str, reinterpret_cast<void *>(quad_tp_str)},
      {Py_tp_richcompare, reinterpret_cast<void *>(expr_richcompare)},
      {Py_nb_add, reinterpret_cast<void *>(quad_nb_add)},
      {Py_nb_subtract, reinterpret_cast<void *>(quad_nb_subtract)},
      {Py_nb_multiply, reinterpret_cast<void *>(quad_nb_multiply)},
      {Py_nb_true_divide, reinterpret_cast<void *>(quad_nb_true_divide)},
      {Py_nb_negative, reinterpret_cast<void *>(quad_nb_negative)},
      {Py_nb_inplace_add, reinterpret_cast<void *>(quad_nb_inplace_add)},
      {Py_nb_inplace_subtract, reinterpret_cast<void *>(quad_nb_inplace_subtract)},
      {Py_nb_inplace_multiply, reinterpret_cast<void *>(quad_nb_inplace_multiply)},
      {Py_nb_inplace_true_divide, reinterpret_cast<void *>(quad_nb_inplace_true_divide)},
      {0, nullptr}};
  static PyType_Spec spec = {"kaviropy.QuadExpr", sizeof(QuadExprObject), 0,
                             Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC, slots};
  PyObject *type = PyType_FromSpec(&spec);
  if (!type) throw nb::python_error();
  g_quadexpr_type = reinterpret_cast<PyTypeObject *>(type);  // kept for the life of the process
  register_quadexpr_methods(g_quadexpr_type);
  m.attr("QuadExpr") = nb::handle(type);
  static PyMethodDef unpickle = {
      "_unpickle_QuadExpr",
      reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(unpickle_entry<quad_unpickle>)),
      METH_FASTCALL,
      "_unpickle_QuadExpr(cls, layout, state)\n--\n\n"
      "Rebuilds a pickled QuadExpr."};
  add_unpickler(m, &unpickle);
}

}  // namespace kvrpy
