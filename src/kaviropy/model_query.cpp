// Model: reading the objective, coefficients, rows, columns and the data of SOS, quadratic and
// general constraints; attributes of many elements at once; removal of elements.
#include <cmath>
#include <type_traits>

#include "attrutil.h"
#include "containers.h"
#include "expr.h"
#include "function_kinds.h"
#include "matrix.h"
#include "model.h"

namespace kvrpy {
namespace {

// An output array of n values whose data() is never null (the library takes all arrays of a
// reader or none, also when there is nothing to read).
template <class T>
std::vector<T> out_array(int n) {
  std::vector<T> v;
  v.reserve(static_cast<size_t>(n) + 1);
  v.resize(static_cast<size_t>(n));
  return v;
}

nb::object var_at(nb::handle self, int i) { return model_handle(self, kVar, i); }

std::vector<nb::object> vars_at(nb::handle self, const int *ind, size_t n) {
  std::vector<nb::object> out;
  out.reserve(n);
  for (size_t i = 0; i < n; ++i) out.push_back(var_at(self, ind[i]));
  return out;
}

nb::list var_list_of(nb::handle self, const std::vector<int> &ind) {
  nb::list out;
  for (int i : ind) out.append(var_at(self, i));
  return out;
}

nb::list float_list(const std::vector<double> &v) {
  nb::list out;
  for (double d : v) out.append(from_library(d));
  return out;
}

// ---------------------------------------------------------------- attributes of many elements
// Indices of the elements of `kind` in a sequence of handles, checked for the attribute.
std::vector<int> element_indices(nb::handle seq, int kind, KVRmodel *model,
                                 const std::string &attrname, const char *unrecognized) {
  Py_ssize_t n = PySequence_Fast_GET_SIZE(seq.ptr());
  std::vector<int> ind(static_cast<size_t>(n));
  for (Py_ssize_t i = 0; i < n; ++i) {
    nb::handle item = PySequence_Fast_GET_ITEM(seq.ptr(), i);
    int k = -1;
    Handle *h = as_handle(item, &k);
    if (!h) raise_error(kInputError, unrecognized);
    const char *type_name = kind_info(k).type_name;
    if (!h->model) raise_error(kUsageError, type_name + std::string(kNoLiveModel));
    if (h->index == -1)
      raise_error(kUsageError, std::string(type_name) + " has not yet been added to the model");
    if (h->index == -2)
      raise_error(kUsageError, std::string(type_name) + " was removed from the model");
    if (k != kind) raise_no_attribute(type_name, attrname);
    if (h->model != model) raise_error(KVR_ERROR_NOT_IN_MODEL, kind_info(k).not_in_model);
    ind[static_cast<size_t>(i)] = public_index(h->index);
  }
  return ind;
}

// The kind of the elements an attribute belongs to; raises for model and unknown attributes.
int attr_kind(const AttrInfo &info, const char *unrecognized) {
  int kind = info.cls - 1;
  if (kind < 0 || kind >= kNumKinds) raise_error(kInputError, unrecognized);
  return kind;
}

// The objects of getAttr/setAttr as keys (for dicts) and a fast sequence of handles.
struct Objects {
  bool is_dict = false;
  std::vector<nb::object> keys;
  nb::object seq;
};

Objects objects_of(nb::handle objs, const char *unrecognized) {
  Objects o;
  if (PyDict_Check(objs.ptr())) {
    o.is_dict = true;
    nb::list values;
    PyObject *key, *value;
    Py_ssize_t pos = 0;
    while (PyDict_Next(objs.ptr(), &pos, &key, &value)) {
      o.keys.push_back(nb::borrow(key));
      values.append(nb::handle(value));
    }
    o.seq = values;
    return o;
  }
  if (PyUnicode_Check(objs.ptr()) || PyBytes_Check(objs.ptr()) || as_handle(objs))
    raise_error(kInputError, unrecognized);
  o.seq = nb::steal(PySequence_Fast(objs.ptr(), ""));
  if (!o.seq.is_valid()) {
    PyErr_Clear();
    raise_error(kInputError, unrecognized);
  }
  return o;
}

nb::object get_attr_many(nb::handle self, nb::handle name, nb::handle objs) {
  std::string n = utf8(name);
  if (objs.is_none()) return get_attr(self, n);
  if (is_handle_array(objs)) return objs.attr("getAttr")(name);
  static const char *kUnrecognized = "Unrecognized argument to getAttr";
  KVRmodel *model = prepared_model(self);
  AttrInfo info = attr_info("Model", n);
  int kind = attr_kind(info, kUnrecognized);
  Objects o = objects_of(objs, kUnrecognized);
  std::vector<int> ind = element_indices(o.seq, kind, model, n, kUnrecognized);
  nb::list values = get_attr_list(model, self, n, info.type, ind);
  if (!o.is_dict) return values;
  std::vector<nb::object> vals;
  vals.reserve(ind.size());
  for (nb::handle v : values) vals.push_back(nb::borrow(v));
  return make_tupledict(o.keys, vals);
}

void set_attr_many(nb::handle self, nb::handle name, nb::handle objs, nb::handle values) {
  std::string n = utf8(name);
  static const char *kUnrecognized = "Unrecognized argument to setAttr";
  if (is_handle_array(objs)) {
    objs.attr("setAttr")(name, values);
    return;
  }
  KVRmodel *model = prepared_model(self);
  AttrInfo info = attr_info("Model", n);
  int kind = attr_kind(info, kUnrecognized);
  if (!info.settable) raise_python(PyExc_AttributeError, "Attribute '" + n + "' cannot be set");
  Objects o = objects_of(objs, kUnrecognized);
  std::vector<int> ind = element_indices(o.seq, kind, model, n, kUnrecognized);
  PyObject *v = values.ptr();
  bool single = PyUnicode_Check(v) || PyBytes_Check(v) || isscalar(values);
  if (!single && PyDict_Check(v)) {
    // Values by key of a dict of objects, or by handle for a list of objects.
    nb::list ordered;
    Py_ssize_t count = PySequence_Fast_GET_SIZE(o.seq.ptr());
    for (Py_ssize_t i = 0; i < count; ++i) {
      PyObject *key = o.is_dict ? o.keys[static_cast<size_t>(i)].ptr()
                                : PySequence_Fast_GET_ITEM(o.seq.ptr(), i);
      PyObject *item = PyDict_GetItemWithError(v, key);
      if (!item) {
        if (PyErr_Occurred()) throw nb::python_error();
        raise_error(KVR_ERROR_INVALID_ARGUMENT,
                    "No new value given for key " + utf8(nb::repr(nb::handle(key))));
      }
      ordered.append(nb::handle(item));
    }
    set_attr_list(model, self, n, info.type, ind, ordered, false);
    return;
  }
  set_attr_list(model, self, n, info.type, ind, values, single);
}

// ---------------------------------------------------------------- removal
void remove_items(nb::handle self, nb::handle items) {
  Model &m = model_ref(self);
  std::vector<nb::object> handles;
  if (as_handle(items)) {
    handles.push_back(nb::borrow(items));
  } else if (is_handle_array(items)) {
    for (nb::handle h : flat_handles(items)) handles.push_back(nb::borrow(h));
  } else {
    nb::object seq;
    if (PyDict_Check(items.ptr()))
      seq = nb::steal(PyDict_Values(items.ptr()));
    else if (!PyUnicode_Check(items.ptr()) && !PyBytes_Check(items.ptr()))
      seq = nb::steal(PySequence_Fast(items.ptr(), ""));
    if (!seq.is_valid()) {
      PyErr_Clear();
      raise_error(kInputError, "Item to be removed not a Var, Constr, SOS, QConstr, or GenConstr");
    }
    nb::object fast = nb::steal(PySequence_Fast(seq.ptr(), ""));
    for (Py_ssize_t i = 0; i < PySequence_Fast_GET_SIZE(fast.ptr()); ++i) {
      nb::handle item = PySequence_Fast_GET_ITEM(fast.ptr(), i);
      if (is_handle_array(item)) {
        for (nb::handle h : flat_handles(item)) handles.push_back(nb::borrow(h));
      } else {
        handles.push_back(nb::borrow(item));
      }
    }
  }
  // Everything is checked before anything is marked, so a bad item changes nothing.
  for (auto &obj : handles) {
    int kind = -1;
    Handle *h = as_handle(obj, &kind);
    if (!h)
      raise_error(kInputError, "Item to be removed not a Var, Constr, SOS, QConstr, or GenConstr");
    if (!m.cmodel || h->model != m.cmodel)
      raise_error(kInputError, "Item to be removed is not in model");
    if (h->index == -1 || h->index == -2) raise_error(kInputError, kind_info(kind).missing_remove);
  }
  for (auto &obj : handles) {
    int kind = -1;
    Handle *h = as_handle(obj, &kind);
    if (h->index < 0) continue;  // removal already pending
    h->index = -3 - h->index;
    if (kind == kVar) m.delvars = true;
    if (kind == kConstr) m.delconstrs = true;
  }
}

// ---------------------------------------------------------------- general constraint readers
int gen_position(nb::handle self, nb::handle gc) {
  return live_position(gc, kGenConstr, live_model(self));
}

using ListFn = int (*)(KVRmodel *, int, int *, int *, int *);                 // And, Or
using ListConstFn = int (*)(KVRmodel *, int, int *, int *, int *, double *);  // Max, Min, Norm

// Model.getGenConstr<Kind>(genconstr): (resvar, vars) of and/or, (resvar, vars, constant or
// which) of max/min/norm. The count comes first, then the operands.
template <class Fn>
void def_list(nb::class_<Model> &cls, const char *name, Fn fn, const char *doc) {
  constexpr bool with_constant = std::is_same_v<Fn, ListConstFn>;
  cls.def(
      name,
      [fn](nb::handle self, nb::handle gc) {
        KVRmodel *model = prepared_model(self);
        int id = gen_position(self, gc), res = 0, n = 0;
        double c = 0;
        auto read = [&](int *ind) {
          if constexpr (with_constant)
            check_model(fn(model, id, &res, &n, ind, &c), model);
          else
            check_model(fn(model, id, &res, &n, ind), model);
        };
        read(nullptr);
        auto ind = out_array<int>(n);
        read(ind.data());
        nb::tuple head = nb::make_tuple(var_at(self, res), var_list_of(self, ind));
        if constexpr (with_constant) return nb::make_tuple(head[0], head[1], from_library(c));
        return head;
      },
      nb::arg("genconstr").none(), doc);
}

void def_pair(nb::class_<Model> &cls, const char *name, FunctionGetFn fn, const char *doc) {
  cls.def(
      name,
      [fn](nb::handle self, nb::handle gc) {
        KVRmodel *model = prepared_model(self);
        int id = gen_position(self, gc), x = 0, y = 0;
        check_model(fn(model, id, &x, &y), model);
        return nb::make_tuple(var_at(self, x), var_at(self, y));
      },
      nb::arg("genconstr").none(), doc);
}

// The entries of one column (KVRXgetvars) or row (KVRXgetconstrs) at position pos: the count
// first, then the arrays, never null even when empty (the library takes all three or none).
using EntriesFn = int (*)(KVRmodel *, size_t *, size_t *, int *, double *, int, int);
struct Entries {
  std::vector<int> ind;
  std::vector<double> val;
};
Entries fetch_entries(KVRmodel *model, EntriesFn fn, int pos) {
  size_t nnz = 0, beg[1] = {0};
  check_model(fn(model, &nnz, nullptr, nullptr, nullptr, pos, 1), model);
  Entries e{std::vector<int>(nnz + 1), std::vector<double>(nnz + 1)};
  check_model(fn(model, &nnz, beg, e.ind.data(), e.val.data(), pos, 1), model);
  e.ind.resize(nnz);
  e.val.resize(nnz);
  return e;
}

// Model.getGenConstr<Suffix>(genconstr) for every function kind: (xvar, yvar[, a]).
void def_function_gets(nb::class_<Model> &cls) {
  for (const FunctionKind &kind : kFunctionKinds) {
    std::string method = std::string("getGenConstr") + kind.suffix;
    if (kind.get) {
      def_pair(cls, method.c_str(), kind.get, function_get_doc(kind).c_str());
      continue;
    }
    cls.def(
        method.c_str(),
        [fn = kind.get_param](nb::handle self, nb::handle gc) {
          KVRmodel *model = prepared_model(self);
          int id = gen_position(self, gc), x = 0, y = 0;
          double a = 0;
          check_model(fn(model, id, &x, &y, &a), model);
          return nb::make_tuple(var_at(self, x), var_at(self, y), a);
        },
        nb::arg("genconstr").none(), function_get_doc(kind).c_str());
  }
}

}  // namespace

void init_model_query(nb::class_<Model> &cls) {
  cls.def("getAttr", &get_attr_many, nb::arg("attrname").none(),
          nb::arg("objs").none() = nb::none(),
          "A model attribute, or the attribute of many elements in one library call: a list for "
          "a list of handles, a tupledict for a dict of handles.");
  cls.def(
      "setAttr",
      [](nb::handle self, nb::handle name, nb::args rest) {
        if (rest.size() == 1) {
          set_attr(self, utf8(name), rest[0]);
        } else if (rest.size() == 2) {
          set_attr_many(self, name, rest[0], rest[1]);
        } else {
          raise_python(PyExc_TypeError,
                       "setAttr() takes (attrname, newvalue) or (attrname, "
                       "objs, newvalues)");
        }
      },
      nb::arg("attrname").none(), nb::arg("args"),
      "setAttr(name, value) sets a model attribute; setAttr(name, objs, values) sets the "
      "attribute of many elements (values: one value, a list in order, or a dict by key).");
  cls.def(
      "prefetchAttr", [](nb::handle self, nb::handle name) { prefetch_attr(self, utf8(name)); },
      nb::arg("attrname").none(), "Asks the library to cache an attribute for later reads.");
  cls.def(
      "getObjective",
      [](nb::handle self) -> nb::object {
        KVRmodel *model = prepared_model(self);
        int nv = 0;
        check_model(KVRgetintattr(model, "NumVars", &nv), model);
        nv = std::min<int>(nv, static_cast<int>(model_ref(self).lists[kVar].size()));
        std::vector<double> obj(static_cast<size_t>(nv));
        if (nv) check_model(KVRgetdblattrarray(model, "Obj", 0, nv, obj.data()), model);
        std::vector<double> coeffs;
        std::vector<nb::object> vars;
        for (int i = 0; i < nv; ++i)
          if (obj[static_cast<size_t>(i)] != 0.0) {
            coeffs.push_back(obj[static_cast<size_t>(i)]);
            vars.push_back(var_at(self, i));
          }
        double objcon = 0;
        check_model(KVRgetdblattr(model, "ObjCon", &objcon), model);
        nb::object lin = make_linexpr(std::move(coeffs), std::move(vars), objcon);
        int nq = 0;
        check_model(KVRgetq(model, &nq, nullptr, nullptr, nullptr), model);
        if (nq == 0) return lin;
        auto qrow = out_array<int>(nq);
        auto qcol = out_array<int>(nq);
        auto qval = out_array<double>(nq);
        check_model(KVRgetq(model, &nq, qrow.data(), qcol.data(), qval.data()), model);
        return make_quadexpr(lin, qval, vars_at(self, qrow.data(), qrow.size()),
                             vars_at(self, qcol.data(), qcol.size()));
      },
      "The objective as of the last update: a LinExpr, or a QuadExpr when it has quadratic "
      "terms.");
  cls.def(
      "getPWLObj",
      [](nb::handle self, nb::handle var) {
        KVRmodel *model = prepared_model(self);
        int col = live_position(var, kVar, model), n = 0;
        check_model(KVRgetpwlobj(model, col, &n, nullptr, nullptr), model);
        auto x = out_array<double>(n);
        auto y = out_array<double>(n);
        check_model(KVRgetpwlobj(model, col, &n, x.data(), y.data()), model);
        nb::list out;
        for (int i = 0; i < n; ++i)
          out.append(nb::make_tuple(x[static_cast<size_t>(i)], y[static_cast<size_t>(i)]));
        return out;
      },
      nb::arg("var").none(), "The points (x, y) of the piecewise-linear objective of a variable.");
  cls.def(
      "getCoeff",
      [](nb::handle self, nb::handle constr, nb::handle var) {
        KVRmodel *model = prepared_model(self);
        int row = live_position(constr, kConstr, model), col = live_position(var, kVar, model);
        double v = 0;
        check_model(KVRgetcoeff(model, row, col, &v), model);
        return v;
      },
      nb::arg("constr").none(), nb::arg("var").none(),
      "The coefficient of a variable in a linear constraint.");
  cls.def(
      "chgCoeff",
      [](nb::handle self, nb::handle constr, nb::handle var, nb::handle newvalue) {
        KVRmodel *model = prepared_model(self);
        int row = live_position(constr, kConstr, model), col = live_position(var, kVar, model);
        double v = 0;
        if (!isscalar(newvalue, &v) || !std::isfinite(v))
          raise_error(KVR_ERROR_INVALID_ARGUMENT, "Coefficient is Nan or Inf");
        check_model(KVRchgcoeffs(model, 1, &row, &col, &v), model);
      },
      nb::arg("constr").none(), nb::arg("var").none(), nb::arg("newvalue").none(),
      "Changes a coefficient of a linear constraint (applied at the next update).");
  cls.def(
      "getCol",
      [](nb::handle self, nb::handle var) {
        KVRmodel *model = prepared_model(self);
        auto [ind, val] = fetch_entries(model, KVRXgetvars, live_position(var, kVar, model));
        nb::list coeffs, constrs;
        for (size_t i = 0; i < ind.size(); ++i) {
          coeffs.append(val[i]);
          constrs.append(model_handle(self, kConstr, ind[i]));
        }
        return module_attr("Column")(coeffs, constrs);
      },
      nb::arg("var").none(),
      "The column of a variable: its coefficients in the linear constraints.");
  cls.def(
      "getRow",
      [](nb::handle self, nb::handle constr) {
        KVRmodel *model = prepared_model(self);
        auto [ind, val] =
            fetch_entries(model, KVRXgetconstrs, live_position(constr, kConstr, model));
        return make_linexpr(std::move(val), vars_at(self, ind.data(), ind.size()), 0.0);
      },
      nb::arg("constr").none(), "The left-hand side of a linear constraint as a LinExpr.");
  cls.def(
      "getQCRow",
      [](nb::handle self, nb::handle qc) {
        KVRmodel *model = prepared_model(self);
        int id = live_position(qc, kQConstr, model), nl = 0, nq = 0;
        check_model(KVRgetqconstr(model, id, &nl, nullptr, nullptr, &nq, nullptr, nullptr, nullptr),
                    model);
        auto lind = out_array<int>(nl), qrow = out_array<int>(nq), qcol = out_array<int>(nq);
        auto lval = out_array<double>(nl);
        auto qval = out_array<double>(nq);
        check_model(KVRgetqconstr(model, id, &nl, lind.data(), lval.data(), &nq, qrow.data(),
                                  qcol.data(), qval.data()),
                    model);
        nb::object lin =
            make_linexpr(std::move(lval), vars_at(self, lind.data(), lind.size()), 0.0);
        return make_quadexpr(lin, std::move(qval), vars_at(self, qrow.data(), qrow.size()),
                             vars_at(self, qcol.data(), qcol.size()));
      },
      nb::arg("qconstr").none(), "The left-hand side of a quadratic constraint as a QuadExpr.");
  cls.def(
      "getSOS",
      [](nb::handle self, nb::handle sos) {
        KVRmodel *model = prepared_model(self);
        int id = live_position(sos, kSOS, model), n = 0, type = 0, beg[1] = {0};
        check_model(KVRgetsos(model, &n, nullptr, nullptr, nullptr, nullptr, id, 1), model);
        auto ind = out_array<int>(n);
        auto w = out_array<double>(n);
        check_model(KVRgetsos(model, &n, &type, beg, ind.data(), w.data(), id, 1), model);
        return nb::make_tuple(type, var_list_of(self, ind), float_list(w));
      },
      nb::arg("sos").none(), "(type, variables, weights) of an SOS constraint.");

  def_list(cls, "getGenConstrMax", KVRgetgenconstrMax,
           "(resvar, vars, constant) of a max constraint.");
  def_list(cls, "getGenConstrMin", KVRgetgenconstrMin,
           "(resvar, vars, constant) of a min constraint.");
  def_list(cls, "getGenConstrNorm", KVRgetgenconstrNorm,
           "(resvar, vars, which) of a norm constraint.");
  def_pair(cls, "getGenConstrAbs", KVRgetgenconstrAbs, "(resvar, argvar) of an abs constraint.");
  def_list(cls, "getGenConstrAnd", KVRgetgenconstrAnd, "(resvar, vars) of an and constraint.");
  def_list(cls, "getGenConstrOr", KVRgetgenconstrOr, "(resvar, vars) of an or constraint.");
  cls.def(
      "getGenConstrIndicator",
      [](nb::handle self, nb::handle gc) {
        KVRmodel *model = prepared_model(self);
        int id = gen_position(self, gc), binvar = 0, binval = 0, n = 0;
        char sense = 0;
        double rhs = 0;
        check_model(KVRgetgenconstrIndicator(model, id, &binvar, &binval, &n, nullptr, nullptr,
                                             &sense, &rhs),
                    model);
        auto ind = out_array<int>(n);
        auto val = out_array<double>(n);
        check_model(KVRgetgenconstrIndicator(model, id, &binvar, &binval, &n, ind.data(),
                                             val.data(), &sense, &rhs),
                    model);
        nb::object lin = make_linexpr(std::move(val), vars_at(self, ind.data(), ind.size()), 0.0);
        return nb::make_tuple(var_at(self, binvar), binval, lin, nb::str(&sense, 1),
                              from_library(rhs));
      },
      nb::arg("genconstr").none(),
      "(binvar, binval, expr, sense, rhs) of an indicator constraint.");
  cls.def(
      "getGenConstrPWL",
      [](nb::handle self, nb::handle gc) {
        KVRmodel *model = prepared_model(self);
        int id = gen_position(self, gc), x = 0, y = 0, n = 0;
        check_model(KVRgetgenconstrPWL(model, id, &x, &y, &n, nullptr, nullptr), model);
        auto xp = out_array<double>(n);
        auto yp = out_array<double>(n);
        check_model(KVRgetgenconstrPWL(model, id, &x, &y, &n, xp.data(), yp.data()), model);
        return nb::make_tuple(var_at(self, x), var_at(self, y), float_list(xp), float_list(yp));
      },
      nb::arg("genconstr").none(), "(xvar, yvar, xpts, ypts) of a piecewise-linear constraint.");
  cls.def(
      "getGenConstrPoly",
      [](nb::handle self, nb::handle gc) {
        KVRmodel *model = prepared_model(self);
        int id = gen_position(self, gc), x = 0, y = 0, n = 0;
        check_model(KVRgetgenconstrPoly(model, id, &x, &y, &n, nullptr), model);
        auto p = out_array<double>(n);
        check_model(KVRgetgenconstrPoly(model, id, &x, &y, &n, p.data()), model);
        return nb::make_tuple(var_at(self, x), var_at(self, y), float_list(p));
      },
      nb::arg("genconstr").none(), "(xvar, yvar, p) of a polynomial constraint.");
  def_function_gets(cls);

  cls.def(
      "remove", [](nb::handle self, nb::handle items) { remove_items(self, items); },
      nb::arg("items").none(),
      "Marks handles for removal (one handle, or a list, tuple or dict of them); the next "
      "update deletes them.");
  cls.def(
      "_removeone", [](nb::handle self, nb::handle item) { remove_items(self, item); },
      nb::arg("item").none(), "Marks one handle for removal.");
}

}  // namespace kvrpy
