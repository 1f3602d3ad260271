// QuadExpr: a linear part (a LinExpr) plus quadratic terms coeff * var1 * var2 in insertion order.
#include <unordered_map>

#include "exprtypes.h"
#include "matrix.h"

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

QuadExprObject *quad_self(nb::handle self) {
  return self_as<QuadExprObject>(self, g_quadexpr_type);
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
  join_pieces(q);
}

namespace {

// A new expression with the value of q; a long quadratic part is frozen into a shared piece.
nb::object quad_extend(QuadExprObject *q) {
  nb::object r = quad_new(lin_extend(q->lin));
  share_value(q, Q(r), 0, [] { return quad_alloc(nullptr); });
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
  copy_terms(Q(r)->terms, q->terms.data(), q->terms.size(), c);
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
  copy_terms(q->terms, src->terms.data(), n, mult);
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
  clear_terms(q);
  q->terms.~vector();
  Py_CLEAR(q->lin);
  free_heap_object(self);
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
  clear_terms(Q(self));
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
  return guard([&] { return str_object("<kaviro.QuadExpr: " + quad_pretty(Q(self)) + ">"); });
}

PyObject *quad_tp_str(PyObject *self) {
  return guard([&] { return str_object(quad_pretty(Q(self))); });
}

// ---------------------------------------------------------------- operators

struct QuadOps {
  static bool is_self(PyObject *o) { return is_quad(o); }
  static constexpr Operand self_operand{Kind::Quad, 0.0};
  static bool accepts(Kind k) { return k != Kind::Other; }
  static nb::object copy_for(PyObject *self, PyObject *, const Operand &) {
    return quad_extend(Q(self));
  }
  static nb::object empty_for(PyObject *, PyObject *, const Operand &) {
    return quad_new(lin_new());
  }
  static void add(PyObject *r, PyObject *x, const Operand &o, double mult) {
    quad_add(Q(r), x, o, mult);
  }
  static nb::object scaled(PyObject *self, double c) { return quad_scaled(Q(self), c); }
  static void scale(PyObject *self, double c) { quad_scale(Q(self), c); }
};

// A QuadExpr multiplies only with numbers and expressions without variables.
double multiplier_of(PyObject *x, const Operand &o) {
  double c = o.value;
  if (o.kind != Kind::Num && !constant_value(x, o, c))
    invalid("Invalid argument to QuadExpr multiplication");
  return c;
}

PyObject *quad_nb_multiply(PyObject *a, PyObject *b) {
  return guard([&]() -> PyObject * {
    PyObject *self = is_quad(a) ? a : b, *other = is_quad(a) ? b : a;
    Operand o = classify(other);
    if (o.kind == Kind::Other) return not_implemented();
    return quad_scaled(Q(self), multiplier_of(other, o)).release().ptr();
  });
}

PyObject *quad_nb_inplace_multiply(PyObject *a, PyObject *b) {
  return guard([&]() -> PyObject * {
    Operand o = classify(b);
    if (o.kind == Kind::Other) return not_implemented();
    quad_scale(Q(a), multiplier_of(b, o));
    return Py_NewRef(a);
  });
}

// ---------------------------------------------------------------- methods

void quad_add_terms(QuadExprObject *q, nb::handle coeffs, nb::handle vars, nb::handle vars2) {
  if (vars2.is_none()) {
    lin_add_terms(q->lin, coeffs, vars);
    return;
  }
  if (is_var(vars.ptr()) && is_var(vars2.ptr())) {
    double c = number_arg(coeffs, "Unrecognized arguments");
    check_coeff(c);
    quad_push(q, c, vars.ptr(), vars2.ptr());
    return;
  }
  if (!is_iterable(coeffs.ptr()) || !is_iterable(vars.ptr()) || !is_iterable(vars2.ptr()))
    invalid("Unrecognized arguments");
  TermLists list = term_lists(coeffs.ptr(),
                              {{vars.ptr(), var_item, "Second argument should be a list of Var"},
                               {vars2.ptr(), var_item, "Third argument should be a list of Var"}},
                              "Array lengths don't match");
  grow(q->terms, list.coeffs.size());
  for (size_t i = 0; i < list.coeffs.size(); ++i)
    quad_push(q, list.coeffs[i], list.objects[0][i], list.objects[1][i]);
}

void quad_remove(QuadExprObject *q, nb::handle which) {
  quad_flatten(q);
  if (remove_terms(q->terms, which, "a QuadExpr")) lin_remove(q->lin, which);
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
  merge_terms<std::pair<TermKey, TermKey>, PairHash>(q->terms, [](const QuadTerm &t) {
    TermKey a = var_key(t.var1), b = var_key(t.var2);
    auto less = [](const TermKey &x, const TermKey &y) {
      return x.model != y.model ? std::less<const void *>()(x.model, y.model) : x.id < y.id;
    };
    if (less(b, a)) std::swap(a, b);
    return std::make_pair(a, b);
  });
}

// State: (linear part, coefficients, first variables, second variables, None).
PickleFormat quad_pickle() {
  return {g_quadexpr_type, "_unpickle_QuadExpr", kQuadExprLayout, 5, "QuadExpr"};
}

nb::object quad_reduce(QuadExprObject *q) {
  quad_flatten(q);
  nb::list coeffs, vars1, vars2;
  for (const QuadTerm &t : q->terms) {
    coeffs.append(t.coeff);
    vars1.append(nb::handle(t.var1));
    vars2.append(nb::handle(t.var2));
  }
  return quad_pickle().reduce(nb::make_tuple(nb::handle(reinterpret_cast<PyObject *>(q->lin)),
                                             coeffs, vars1, vars2, nb::none()));
}

nb::object quad_unpickle(nb::handle cls, nb::handle layout, nb::handle state) {
  PickleFormat format = quad_pickle();
  PyObject *const *items = format.state_items(cls, layout, state);
  PyObject *lin = items[0], *next = items[4];
  if (!is_lin(lin) || (next != Py_None && !is_quad(next))) format.malformed();
  nb::object r = quad_new(lin_new());
  if (next != Py_None) quad_add(Q(r), next, {Kind::Quad, 0.0}, 1.0);
  quad_add(Q(r), lin, {Kind::Lin, 0.0}, 1.0);
  try {
    quad_add_terms(Q(r), items[1], items[2], items[3]);
  } catch (nb::python_error &) {
    format.malformed();
  }
  return r;
}

void register_quadexpr_methods(PyTypeObject *type) {
  MethodDefiner def{type};
  def(
      "add",
      [](nb::handle self, nb::handle expr, nb::handle mult) {
        QuadExprObject *q = quad_self(self);
        double m = number_arg(mult, "Invalid argument to QuadExpr multiplication");
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
        lin_add(q->lin, c.ptr(), {Kind::Num, number_arg(c, "Constant must be a number")}, 1.0);
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
        clear_terms(q);
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
        quad_scale(q, number_arg(c, "Invalid argument to QuadExpr multiplication"));
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
  if (is_one_element(obj)) return collect_quadratic(obj.attr("item")(), mult, model, out);
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
  g_quadexpr_type = new_expr_type(
      m, {"kaviropy.QuadExpr",
          sizeof(QuadExprObject),
          "A quadratic expression: a linear part plus coefficient-variable-variable terms.\n\n"
          "QuadExpr(expr=None)",
          quad_tp_new,
          quad_tp_dealloc,
          quad_tp_traverse,
          quad_tp_clear,
          quad_tp_repr,
          {slot(Py_tp_str, quad_tp_str), slot(Py_tp_richcompare, expr_richcompare),
           slot(Py_nb_add, sum_slot<QuadOps>), slot(Py_nb_subtract, difference_slot<QuadOps>),
           slot(Py_nb_multiply, quad_nb_multiply), slot(Py_nb_true_divide, quotient_slot<QuadOps>),
           slot(Py_nb_negative, negation_slot<QuadOps>),
           slot(Py_nb_inplace_add, inplace_sum_slot<QuadOps, 1>),
           slot(Py_nb_inplace_subtract, inplace_sum_slot<QuadOps, -1>),
           slot(Py_nb_inplace_multiply, quad_nb_inplace_multiply),
           slot(Py_nb_inplace_true_divide, inplace_quotient_slot<QuadOps>)}});
  register_quadexpr_methods(g_quadexpr_type);
  static PyMethodDef unpickle = {
      "_unpickle_QuadExpr",
      reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(unpickle_entry<quad_unpickle>)),
      METH_FASTCALL,
      "_unpickle_QuadExpr(cls, layout, state)\n--\n\n"
      "Rebuilds a pickled QuadExpr."};
  add_module_function(m, &unpickle);
}

}  // namespace kvrpy
