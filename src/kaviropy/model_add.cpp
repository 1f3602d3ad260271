// Model: adding variables, linear, range, quadratic, SOS and general constraints, and setting
// objectives. Every addition is checked completely before the library is called, so a failing
// call leaves the model as it was; bulk additions are one library call.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include "containers.h"
#include "expr.h"
#include "function_kinds.h"
#include "matrix.h"
#include "model.h"

namespace kvrpy {
namespace {

// "<", "<=" -> '<'; ">", ">=" -> '>'; "=", "==" -> '='; 0 for anything else.
char sense_char(nb::handle sense) {
  if (!PyUnicode_Check(sense.ptr())) return 0;
  std::string s = utf8(sense);
  if (s == "<" || s == "<=") return KVR_LESS_EQUAL;
  if (s == ">" || s == ">=") return KVR_GREATER_EQUAL;
  if (s == "=" || s == "==") return KVR_EQUAL;
  return 0;
}

bool name_text(nb::handle name, std::string &out) {
  if (name.is_none()) {
    out.clear();
    return true;
  }
  if (!PyUnicode_Check(name.ptr()) && !PyBytes_Check(name.ptr())) return false;
  out = utf8(name);
  return true;
}

std::string name_arg(nb::handle name) {
  std::string out;
  if (!name_text(name, out)) raise_error(KVR_ERROR_INVALID_ARGUMENT, "Name must be a string");
  return out;
}

const char *name_ptr(const std::string &name) { return name.empty() ? nullptr : name.c_str(); }

double number_arg(nb::handle value, const char *what) {
  double v = 0;
  if (!isscalar(value, &v))
    raise_error(KVR_ERROR_INVALID_ARGUMENT, std::string("Invalid value for ") + what);
  return to_library(v);
}

void check_finite(const std::vector<double> &val) {
  for (double v : val)
    if (!std::isfinite(v)) raise_error(KVR_ERROR_INVALID_ARGUMENT, "Coefficient is Nan or Inf");
}

void check_constant(double c) {
  if (std::isnan(c)) raise_error(KVR_ERROR_INVALID_ARGUMENT, "Constant is Nan");
}

// Merges duplicate indices and drops zeros (the library's cleaning functions).
void clean(LinearData &d) {
  int n = static_cast<int>(d.ind.size());
  if (n) KVRclean2(&n, d.ind.data(), d.val.data());
  d.ind.resize(static_cast<size_t>(n));
  d.val.resize(static_cast<size_t>(n));
}

void clean(QuadData &q) {
  clean(q.lin);
  int n = static_cast<int>(q.qval.size());
  if (n) KVRclean3(&n, q.qrow.data(), q.qcol.data(), q.qval.data());
  q.qrow.resize(static_cast<size_t>(n));
  q.qcol.resize(static_cast<size_t>(n));
  q.qval.resize(static_cast<size_t>(n));
}

// The right-hand side lhs - rhs = -constant of a collected row.
double row_rhs(double constant) { return to_library(-constant); }

nb::object tc_part(nb::handle tc, const char *part) { return tc.attr(part); }

// The column index of an expression that is exactly one variable (coefficient 1, no
// constant), or -1.
int single_var(nb::handle expr, KVRmodel *model) {
  LinearData d;
  if (!collect_linear(expr, 1.0, model, d)) return -1;
  if (d.ind.size() != 1 || d.val[0] != 1.0 || d.constant != 0.0) return -1;
  return d.ind[0];
}

// ---------------------------------------------------------------- prepared constraints
// A constraint converted into library arrays; made completely before anything is added.
struct Prepared {
  enum Type { kLinear, kQuadratic, kIndicator, kGeneral } type = kLinear;
  QuadData data;  // kLinear and kIndicator use data.lin only
  char sense = KVR_LESS_EQUAL;
  double rhs = 0.0;
  int binvar = -1, binval = 1;
  nb::object genexpr;  // kGeneral: the expression and its result variable
  int resvar = -1;
};

[[noreturn]] void invalid_addconstr() {
  raise_error(kUsageError, "Invalid argument to Model.addConstr");
}

void prepare_linear(nb::handle lhs, nb::handle rhs, char sense, KVRmodel *model, Prepared &p) {
  p.type = Prepared::kLinear;
  LinearData &d = p.data.lin;
  if (!collect_linear(lhs, 1.0, model, d) || !collect_linear(rhs, -1.0, model, d))
    invalid_addconstr();
  check_finite(d.val);
  check_constant(d.constant);
  clean(d);
  p.sense = sense;
  p.rhs = row_rhs(d.constant);
}

void prepare_quadratic(nb::handle lhs, nb::handle rhs, char sense, KVRmodel *model, Prepared &p,
                       const char *error) {
  p.type = Prepared::kQuadratic;
  if (!collect_quadratic(lhs, 1.0, model, p.data) || !collect_quadratic(rhs, -1.0, model, p.data))
    raise_error(kUsageError, error);
  check_finite(p.data.lin.val);
  check_finite(p.data.qval);
  check_constant(p.data.lin.constant);
  clean(p.data);
  p.sense = sense;
  p.rhs = row_rhs(p.data.lin.constant);
}

// binvar == binval implies lhs sense rhs.
void prepare_indicator(nb::handle binvar, nb::handle binval, nb::handle lhs, nb::handle sense,
                       nb::handle rhs, KVRmodel *model, Prepared &p) {
  p.type = Prepared::kIndicator;
  p.binvar = var_column(binvar, model);
  double bv = 0;
  if (!isscalar(binval, &bv) || (bv != 0.0 && bv != 1.0))
    raise_error(KVR_ERROR_INVALID_ARGUMENT, "Indicator value must be 0 or 1");
  p.binval = static_cast<int>(bv);
  nb::object l = nb::borrow(lhs), s = nb::borrow(sense), r = nb::borrow(rhs);
  if (is_tempconstr(lhs)) {
    if (!sense.is_none())
      raise_error(KVR_ERROR_INVALID_ARGUMENT,
                  "Additional sense argument provided for general constraint of indicator type");
    if (!rhs.is_none())
      raise_error(KVR_ERROR_INVALID_ARGUMENT,
                  "Additional rhs argument provided for general constraint of indicator type");
    l = tc_part(lhs, "_lhs");
    s = tc_part(lhs, "_sense");
    r = tc_part(lhs, "_rhs");
  }
  LinearData &d = p.data.lin;
  if (!collect_linear(l, 1.0, model, d) || !collect_linear(r, -1.0, model, d))
    raise_error(KVR_ERROR_INVALID_ARGUMENT, "Invalid argument to Model.addGenConstrIndicator");
  p.sense = sense_char(s);
  if (!p.sense) raise_error(KVR_ERROR_INVALID_ARGUMENT, "Invalid sense for indicator constraint");
  check_finite(d.val);
  check_constant(d.constant);
  clean(d);
  p.rhs = row_rhs(d.constant);
}

// Classifies a TempConstr and converts it; raises for anything that cannot be added.
void prepare_tempconstr(nb::handle self, nb::handle tc, KVRmodel *model, Prepared &p) {
  if (!is_tempconstr(tc)) invalid_addconstr();
  nb::object lhs = tc_part(tc, "_lhs"), sense = tc_part(tc, "_sense"), rhs = tc_part(tc, "_rhs");
  if (PyUnicode_Check(sense.ptr()) && utf8(sense) == "I") {
    // (binvar == value) >> (linear constraint)
    if (!is_tempconstr(lhs) || !is_tempconstr(rhs)) invalid_addconstr();
    nb::object cond_lhs = tc_part(lhs, "_lhs"), cond_rhs = tc_part(lhs, "_rhs");
    int col = sense_char(tc_part(lhs, "_sense")) == KVR_EQUAL ? single_var(cond_lhs, model) : -1;
    double value = 0;
    if (col < 0 || !isscalar(cond_rhs, &value))
      raise_error(KVR_ERROR_INVALID_ARGUMENT,
                  "The condition of an indicator constraint must be a variable == 0 or 1");
    prepare_indicator(model_handle(self, kVar, col), cond_rhs, rhs, nb::none(), nb::none(), model,
                      p);
    return;
  }
  char sc = sense_char(sense);
  if (!sc) invalid_addconstr();
  if (is_genexpr(rhs)) {
    int col = sc == KVR_EQUAL ? single_var(lhs, model) : -1;
    if (col < 0)
      raise_error(KVR_ERROR_INVALID_ARGUMENT,
                  "General expressions can only be the right hand side part of an assignment to "
                  "a single variable");
    p.type = Prepared::kGeneral;
    p.genexpr = rhs;
    p.resvar = col;
    return;
  }
  if (is_quadexpr(lhs) || is_quadexpr(rhs)) {
    prepare_quadratic(lhs, rhs, sc, model, p, "Invalid argument to Model.addConstr");
    return;
  }
  prepare_linear(lhs, rhs, sc, model, p);
}

// Adds a prepared constraint; returns its handle.
nb::object add_prepared(nb::handle self, Prepared &p, const std::string &name) {
  KVRmodel *model = live_model(self);
  const LinearData &d = p.data.lin;
  int nl = static_cast<int>(d.ind.size());
  switch (p.type) {
    case Prepared::kLinear:
      check_model(
          KVRaddconstr(model, nl, d.ind.data(), d.val.data(), p.sense, p.rhs, name_ptr(name)),
          model);
      return model_append(self, kConstr, model_updatemode(self) == 1);
    case Prepared::kQuadratic: {
      const QuadData &q = p.data;
      check_model(KVRaddqconstr(model, nl, d.ind.data(), d.val.data(),
                                static_cast<int>(q.qval.size()), q.qrow.data(), q.qcol.data(),
                                q.qval.data(), p.sense, p.rhs, name_ptr(name)),
                  model);
      return model_append(self, kQConstr, false);
    }
    case Prepared::kIndicator:
      check_model(KVRaddgenconstrIndicator(model, name_ptr(name), p.binvar, p.binval, nl,
                                           d.ind.data(), d.val.data(), p.sense, p.rhs),
                  model);
      return model_append(self, kGenConstr, false);
    default:
      return p.genexpr.attr("_addAsConstr")(nb::borrow(self), model_handle(self, kVar, p.resvar),
                                            nb::str(name.c_str(), name.size()));
  }
}

// ---------------------------------------------------------------- index keys and names
// Appends the text of one key member as str() shows it.
void append_member(std::string &out, nb::handle member) {
  PyObject *o = member.ptr();
  if (PyLong_CheckExact(o)) {
    int overflow = 0;
    long long v = PyLong_AsLongLongAndOverflow(o, &overflow);
    if (!overflow) {
      out += std::to_string(v);
      return;
    }
  }
  if (PyUnicode_CheckExact(o)) {
    out += utf8(member);
    return;
  }
  out += utf8(nb::str(member));
}

// "base[k1,k2]": the members of a tuple key joined by ","; a scalar key as it prints.
void append_index_name(std::string &out, const std::string &base, nb::handle key) {
  out += base;
  out += '[';
  if (PyTuple_Check(key.ptr())) {
    Py_ssize_t n = PyTuple_GET_SIZE(key.ptr());
    for (Py_ssize_t i = 0; i < n; ++i) {
      if (i) out += ',';
      append_member(out, PyTuple_GET_ITEM(key.ptr(), i));
    }
  } else {
    append_member(out, key);
  }
  out += ']';
}

// Raises KeyError(message) when `items` holds two equal objects.
void check_distinct(const std::vector<nb::object> &items, const char *message) {
  nb::object seen = nb::steal(PySet_New(nullptr));
  for (const auto &item : items) {
    int r = PySet_Contains(seen.ptr(), item.ptr());
    if (r < 0) throw nb::python_error();
    if (r) raise_python(PyExc_KeyError, message);
    if (PySet_Add(seen.ptr(), item.ptr())) throw nb::python_error();
  }
}

// ---------------------------------------------------------------- addVars
// One of lb, ub, obj, vtype, name: a scalar for all variables, a sequence in key order, or a
// dict looked up by key.
struct PerVar {
  enum { kScalar, kSequence, kDict } kind = kScalar;
  nb::object value;  // the scalar, the fast sequence or the dict
};

PerVar per_var(nb::handle value, const char *what, size_t n, bool text_scalar) {
  PerVar p;
  PyObject *o = value.ptr();
  if (PyDict_Check(o)) {
    p.kind = PerVar::kDict;
    p.value = nb::borrow(value);
  } else if ((text_scalar && (PyUnicode_Check(o) || PyBytes_Check(o))) || value.is_none() ||
             isscalar(value)) {
    p.value = nb::borrow(value);
  } else {
    p.value = nb::steal(PySequence_Fast(o, ""));
    if (!p.value.is_valid()) {
      PyErr_Clear();
      raise_error(KVR_ERROR_INVALID_ARGUMENT,
                  std::string("Invalid value for ") + what + " argument of Model.addVars");
    }
    p.kind = PerVar::kSequence;
    size_t m = static_cast<size_t>(PySequence_Fast_GET_SIZE(p.value.ptr()));
    if (m != n)
      raise_error(KVR_ERROR_INVALID_ARGUMENT,
                  std::string("Length of ") + what + " list (" + std::to_string(m) +
                      ") differs from number of variables (" + std::to_string(n) + ")");
  }
  return p;
}

// The value for variable i with key `key`; an absent dict key gives None (the default).
nb::handle per_var_item(const PerVar &p, size_t i, nb::handle key) {
  if (p.kind == PerVar::kScalar) return p.value;
  if (p.kind == PerVar::kSequence) return PySequence_Fast_GET_ITEM(p.value.ptr(), i);
  PyObject *v = PyDict_GetItemWithError(p.value.ptr(), key.ptr());
  if (!v && PyErr_Occurred()) throw nb::python_error();
  return v ? nb::handle(v) : nb::none();
}

// Fills a double array for lb, ub or obj; empty when every value is the library's default.
std::vector<double> per_var_doubles(const PerVar &p, const std::vector<nb::object> &keys,
                                    double def, const char *what) {
  std::vector<double> out;
  auto convert = [&](nb::handle v) {
    if (v.is_none()) return def;
    double d = 0;
    if (!isscalar(v, &d) || std::isnan(d))
      raise_error(KVR_ERROR_INVALID_ARGUMENT,
                  std::string("Invalid ") + what + " value in Model.addVars");
    return to_library(d);
  };
  if (p.kind == PerVar::kScalar) {
    double d = convert(p.value);
    if (d != def) out.assign(keys.size(), d);
    return out;
  }
  out.resize(keys.size());
  for (size_t i = 0; i < keys.size(); ++i) out[i] = convert(per_var_item(p, i, keys[i]));
  return out;
}

char vtype_char(nb::handle v) {
  if (v.is_none()) return KVR_CONTINUOUS;
  std::string s;
  if ((PyUnicode_Check(v.ptr()) || PyBytes_Check(v.ptr())) && (s = utf8(v)).size() == 1)
    return s[0];
  raise_error(KVR_ERROR_INVALID_ARGUMENT, "Variable type must be a one-character string");
}

nb::object add_vars(nb::handle self, nb::args indexes, nb::kwargs kwargs) {
  static const char *kAllowed[] = {"lb", "ub", "obj", "vtype", "name"};
  nb::object args[5] = {nb::float_(0.0), nb::float_(INFINITY), nb::float_(0.0), nb::str("C"),
                        nb::str("")};
  std::string unexpected;
  for (auto [k, v] : kwargs) {
    std::string key = utf8(k);
    bool found = false;
    for (int i = 0; i < 5; ++i)
      if (key == kAllowed[i]) args[i] = nb::borrow(v), found = true;
    if (!found) unexpected += (unexpected.empty() ? "" : ", ") + key;
  }
  if (!unexpected.empty())
    raise_python(PyExc_TypeError, "addVars() got unexpected keyword argument(s) " + unexpected);
  KVRmodel *model = prepared_model(self);
  if (indexes.size() == 0)
    raise_error(KVR_ERROR_INVALID_ARGUMENT, "Model.addVars() needs at least one index argument");

  // Index sets: an integer n is range(n); anything else is iterated. Tuples are flattened into
  // the keys of a cross product.
  size_t nsets = indexes.size();
  std::vector<std::vector<nb::object>> sets(nsets);
  bool uniform = true;
  size_t total = 1;
  for (size_t s = 0; s < nsets; ++s) {
    nb::handle arg = indexes[s];
    auto &elems = sets[s];
    if (PyLong_Check(arg.ptr()) || (PyIndex_Check(arg.ptr()) && !PySequence_Check(arg.ptr()))) {
      long long n = PyLong_AsLongLong(nb::steal(PyNumber_Index(arg.ptr())).ptr());
      if (n == -1 && PyErr_Occurred()) throw nb::python_error();
      if (n > std::numeric_limits<int>::max())
        raise_error(KVR_ERROR_INVALID_ARGUMENT, "Too many variables for Model.addVars()");
      elems.reserve(static_cast<size_t>(std::max<long long>(n, 0)));
      for (long long i = 0; i < n; ++i) elems.push_back(nb::int_(i));
    } else {
      nb::object seq = nb::steal(PySequence_Fast(arg.ptr(), ""));
      if (!seq.is_valid()) {
        PyErr_Clear();
        raise_error(KVR_ERROR_INVALID_ARGUMENT,
                    "Index arguments of Model.addVars() must be integers or iterables");
      }
      Py_ssize_t n = PySequence_Fast_GET_SIZE(seq.ptr());
      elems.reserve(static_cast<size_t>(n));
      Py_ssize_t width = -1;
      for (Py_ssize_t i = 0; i < n; ++i) {
        nb::handle e = PySequence_Fast_GET_ITEM(seq.ptr(), i);
        Py_ssize_t w = PyTuple_Check(e.ptr()) ? PyTuple_GET_SIZE(e.ptr()) : 1;
        if (width >= 0 && w != width) uniform = false;
        width = w;
        elems.push_back(nb::borrow(e));
      }
      check_distinct(elems, "Duplicate keys in Model.addVars()");
    }
    total *= elems.size();
    if (total > static_cast<size_t>(std::numeric_limits<int>::max()))
      raise_error(KVR_ERROR_INVALID_ARGUMENT, "Too many variables for Model.addVars()");
  }
  const size_t n = total;
  // Keys, handles and the result dict are all new objects: no collections while they are made.
  GcPause pause(3 * n);

  // Keys in cross-product order (the last index runs fastest).
  std::vector<nb::object> keys;
  keys.reserve(n);
  if (nsets == 1) {
    keys = sets[0];
  } else if (n) {
    std::vector<size_t> pos(nsets, 0);
    std::vector<PyObject *> members;
    for (size_t k = 0; k < n; ++k) {
      members.clear();
      for (size_t s = 0; s < nsets; ++s) {
        PyObject *e = sets[s][pos[s]].ptr();
        if (PyTuple_Check(e))
          for (Py_ssize_t j = 0; j < PyTuple_GET_SIZE(e); ++j)
            members.push_back(PyTuple_GET_ITEM(e, j));
        else
          members.push_back(e);
      }
      PyObject *key = PyTuple_New(static_cast<Py_ssize_t>(members.size()));
      if (!key) throw nb::python_error();
      for (size_t j = 0; j < members.size(); ++j) {
        Py_INCREF(members[j]);
        PyTuple_SET_ITEM(key, static_cast<Py_ssize_t>(j), members[j]);
      }
      keys.push_back(nb::steal(key));
      for (size_t s = nsets; s-- > 0;) {
        if (++pos[s] < sets[s].size()) break;
        pos[s] = 0;
      }
    }
    // Flattening tuples of different lengths can make equal keys out of distinct elements.
    if (!uniform) check_distinct(keys, "Duplicate keys in Model.addVars()");
  }

  PerVar lb = per_var(args[0], "lb", n, false), ub = per_var(args[1], "ub", n, false),
         obj = per_var(args[2], "obj", n, false), vtype = per_var(args[3], "vtype", n, true),
         name = per_var(args[4], "name", n, true);
  std::vector<double> lbv = per_var_doubles(lb, keys, 0.0, "lb");
  std::vector<double> ubv = per_var_doubles(ub, keys, KVR_INFINITY, "ub");
  std::vector<double> objv = per_var_doubles(obj, keys, 0.0, "obj");
  std::vector<char> vtv;
  if (vtype.kind != PerVar::kScalar || vtype_char(vtype.value) != KVR_CONTINUOUS) {
    vtv.resize(n);
    for (size_t i = 0; i < n; ++i) vtv[i] = vtype_char(per_var_item(vtype, i, keys[i]));
  }

  // Names in one block; offsets first, pointers once the block stops growing.
  std::string pool;
  std::vector<size_t> offsets;
  bool named = false;
  try {
    if (name.kind == PerVar::kScalar) {
      std::string base = name_arg(name.value);
      if (!base.empty() && n) {
        named = true;
        offsets.reserve(n);
        pool.reserve(n * (base.size() + 8));
        for (size_t i = 0; i < n; ++i) {
          offsets.push_back(pool.size());
          append_index_name(pool, base, keys[i]);
          pool += '\0';
        }
      }
    } else {
      named = true;
      offsets.reserve(n);
      std::string one;
      for (size_t i = 0; i < n; ++i) {
        if (!name_text(per_var_item(name, i, keys[i]), one))
          raise_error(KVR_ERROR_INVALID_ARGUMENT, "Variable names must be strings");
        offsets.push_back(pool.size());
        pool += one;
        pool += '\0';
      }
    }
  } catch (const std::bad_alloc &) {
    raise_error(KVR_ERROR_OUT_OF_MEMORY, "Out of memory for variable namespace");
  }
  std::vector<const char *> names;
  if (named) {
    names.resize(n);
    for (size_t i = 0; i < n; ++i) names[i] = pool.data() + offsets[i];
  }

  // Everything that can run out of memory (the handles, their tupledict, the model's handle
  // list) is made before the variables are added, so that a failure adds nothing.
  std::vector<nb::object> handles;
  handles.reserve(n);
  for (size_t i = 0; i < n; ++i) handles.push_back(new_handle(kVar, model, -1));
  nb::object result = make_tupledict(keys, handles);
  auto &list = model_ref(self).lists[kVar];
  list.reserve(list.size() + n);

  auto ptr = [](const auto &v) { return v.empty() ? nullptr : v.data(); };
  check_model(KVRaddvars(model, static_cast<int>(n), 0, nullptr, nullptr, nullptr, ptr(objv),
                         ptr(lbv), ptr(ubv), ptr(vtv), named ? names.data() : nullptr),
              model);

  const bool numbered = model_updatemode(self) == 1;
  for (nb::object &h : handles) {
    if (numbered) handle_data(h.ptr())->index = static_cast<int>(list.size());
    list.push_back(std::move(h));
  }
  return result;
}

// ---------------------------------------------------------------- general constraints
// Column indices of a list of variables: a Var, a tupledict (its values) or any iterable of Var.
// With `constant`, numbers among the operands are folded into it with `fold`.
std::vector<int> var_list(nb::handle vars, KVRmodel *model, double *constant = nullptr,
                          double (*fold)(double, double) = nullptr) {
  std::vector<int> out;
  if (as_var(vars)) {
    out.push_back(var_column(vars, model));
    return out;
  }
  nb::object items = is_tupledict(vars)      ? vars.attr("values")()
                     : is_handle_array(vars) ? nb::object(flat_handles(vars))
                                             : nb::borrow(vars);
  nb::object seq = nb::steal(PySequence_Fast(items.ptr(), ""));
  if (!seq.is_valid()) {
    PyErr_Clear();
    raise_error(KVR_ERROR_INVALID_ARGUMENT, "Invalid data in vars array");
  }
  Py_ssize_t n = PySequence_Fast_GET_SIZE(seq.ptr());
  out.reserve(static_cast<size_t>(n));
  for (Py_ssize_t i = 0; i < n; ++i) {
    nb::handle item = PySequence_Fast_GET_ITEM(seq.ptr(), i);
    double v = 0;
    if (constant && !as_var(item) && isscalar(item, &v)) {
      *constant = fold(*constant, to_library(v));
      continue;
    }
    out.push_back(var_column(item, model));
  }
  return out;
}

std::vector<double> number_list(nb::handle values, const char *what) {
  nb::object seq = nb::steal(PySequence_Fast(values.ptr(), ""));
  if (!seq.is_valid()) {
    PyErr_Clear();
    raise_error(KVR_ERROR_INVALID_ARGUMENT, std::string("Invalid data in ") + what + " array");
  }
  Py_ssize_t n = PySequence_Fast_GET_SIZE(seq.ptr());
  std::vector<double> out(static_cast<size_t>(n));
  for (Py_ssize_t i = 0; i < n; ++i)
    if (!isscalar(PySequence_Fast_GET_ITEM(seq.ptr(), i), &out[static_cast<size_t>(i)]))
      raise_error(KVR_ERROR_INVALID_ARGUMENT, std::string("Invalid data in ") + what + " array");
  return out;
}

nb::object gen_added(nb::handle self, int code, KVRmodel *model) {
  check_model(code, model);
  return model_append(self, kGenConstr, false);
}

double fold_max(double a, double b) { return std::max(a, b); }
double fold_min(double a, double b) { return std::min(a, b); }

nb::object add_maxmin(nb::handle self, nb::handle resvar, nb::handle vars, nb::handle constant,
                      nb::handle name, bool is_max) {
  KVRmodel *model = prepared_model(self);
  int res = var_column(resvar, model);
  double c = is_max ? -KVR_INFINITY : KVR_INFINITY;
  if (!constant.is_none()) c = number_arg(constant, "constant");
  std::vector<int> ind = var_list(vars, model, &c, is_max ? fold_max : fold_min);
  std::string n = name_arg(name);
  auto fn = is_max ? KVRaddgenconstrMax : KVRaddgenconstrMin;
  return gen_added(self, fn(model, name_ptr(n), res, static_cast<int>(ind.size()), ind.data(), c),
                   model);
}

// Model.addGenConstr<Suffix>(xvar, yvar[, a], name="", options="") for every function kind.
void def_function_adds(nb::class_<Model> &cls) {
  for (const FunctionKind &kind : kFunctionKinds) {
    std::string method = std::string("addGenConstr") + kind.suffix;
    if (kind.add) {
      cls.def(
          method.c_str(),
          [fn = kind.add](nb::handle self, nb::handle xvar, nb::handle yvar, nb::handle name,
                          nb::handle options) {
            KVRmodel *model = prepared_model(self);
            int x = var_column(xvar, model), y = var_column(yvar, model);
            std::string n = name_arg(name), o = name_arg(options);
            return gen_added(self, fn(model, name_ptr(n), x, y, o.c_str()), model);
          },
          nb::arg("xvar").none(), nb::arg("yvar").none(), nb::arg("name").none() = "",
          nb::arg("options").none() = "", function_add_doc(kind).c_str());
    } else {
      cls.def(
          method.c_str(),
          [fn = kind.add_param](nb::handle self, nb::handle xvar, nb::handle yvar, nb::handle a,
                                nb::handle name, nb::handle options) {
            KVRmodel *model = prepared_model(self);
            int x = var_column(xvar, model), y = var_column(yvar, model);
            double av = number_arg(a, "a");
            std::string n = name_arg(name), o = name_arg(options);
            return gen_added(self, fn(model, name_ptr(n), x, y, av, o.c_str()), model);
          },
          nb::arg("xvar").none(), nb::arg("yvar").none(), nb::arg("a").none(),
          nb::arg("name").none() = "", nb::arg("options").none() = "",
          function_add_doc(kind).c_str());
    }
  }
}

// ---------------------------------------------------------------- objectives
void set_objective(nb::handle self, nb::handle expr, nb::handle sense) {
  if (is_matrix_expression(expr)) return set_matrix_objective(self, expr, sense);
  KVRmodel *model = prepared_model(self);
  QuadData q;
  if (!collect_quadratic(expr, 1.0, model, q))
    raise_error(kInputError, "Unable to convert argument to an expression");
  check_finite(q.lin.val);
  check_finite(q.qval);
  check_constant(q.lin.constant);
  clean(q);
  int s = 0;
  if (!sense.is_none()) {
    double v = 0;
    if (!isscalar(sense, &v) || (v != KVR_MINIMIZE && v != KVR_MAXIMIZE))
      raise_error(KVR_ERROR_INVALID_ARGUMENT,
                  "Objective sense must be KVR.MINIMIZE or KVR.MAXIMIZE");
    s = static_cast<int>(v);
  }
  check_model(KVRsetobjective(model, s, q.lin.constant, static_cast<int>(q.lin.ind.size()),
                              q.lin.ind.data(), q.lin.val.data(), static_cast<int>(q.qval.size()),
                              q.qrow.data(), q.qcol.data(), q.qval.data()),
              model);
}

// ---------------------------------------------------------------- addConstrs
nb::object add_constrs(nb::handle self, nb::handle generator, nb::handle name) {
  KVRmodel *model = prepared_model(self);
  if (!PyGen_Check(generator.ptr()))
    raise_error(KVR_ERROR_INVALID_ARGUMENT,
                "Model.addConstrs() takes a generator expression of constraints");
  std::string base = name_arg(name);
  // The loop variables of the generator name the keys, in the order the generator assigns
  // them. A loop variable that an inner expression captures is a cell rather than a plain
  // local, so the order comes from the generator's stores, not from its list of locals.
  std::vector<nb::object> loopvars;
  {
    nb::object seen = nb::steal(PySet_New(nullptr));
    nb::object instructions =
        nb::module_::import_("dis").attr("get_instructions")(generator.attr("gi_code"));
    for (nb::handle ins : instructions) {
      std::string op = utf8(ins.attr("opname"));
      if (op != "STORE_FAST" && op != "STORE_DEREF") continue;
      nb::object name = ins.attr("argval");
      if (utf8(name).rfind('.', 0) == 0 || PySet_Contains(seen.ptr(), name.ptr()) == 1) continue;
      PySet_Add(seen.ptr(), name.ptr());
      loopvars.push_back(name);
    }
  }

  std::vector<nb::object> keys;
  std::vector<Prepared> items;
  // Matrix TempConstrs become MConstr/MQConstr values; matrix_of[i] is the position of item i
  // in `matrices`, or -1 for a single constraint.
  std::vector<MatrixRows> matrices;
  std::vector<int> matrix_of;
  nb::object iter = nb::borrow(generator);
  while (true) {
    nb::object tc = nb::steal(PyIter_Next(iter.ptr()));
    if (!tc.is_valid()) {
      if (PyErr_Occurred()) throw nb::python_error();
      break;
    }
    nb::object locals = generator.attr("gi_frame").attr("f_locals");
    nb::object key;
    if (loopvars.size() == 1) {
      key = locals[loopvars[0]];
    } else {
      nb::object t = nb::steal(PyTuple_New(static_cast<Py_ssize_t>(loopvars.size())));
      for (size_t i = 0; i < loopvars.size(); ++i)
        PyTuple_SET_ITEM(t.ptr(), static_cast<Py_ssize_t>(i),
                         nb::object(locals[loopvars[i]]).release().ptr());
      key = t;
    }
    items.emplace_back();
    if (is_tempconstr(tc) && is_matrix_expression(tc_part(tc, "_lhs"))) {
      // A matrix row: its elements are named "base[key][i,j]".
      std::string row_name;
      if (!base.empty()) append_index_name(row_name, base, key);
      matrix_of.push_back(static_cast<int>(matrices.size()));
      matrices.push_back(
          prepare_matrix_tempconstr(self, tc, nb::str(row_name.c_str(), row_name.size())));
    } else {
      matrix_of.push_back(-1);
      prepare_tempconstr(self, tc, model, items.back());
    }
    keys.push_back(std::move(key));
  }
  check_distinct(keys, "Duplicate keys in Model.addConstrs()");

  std::vector<std::string> names(items.size());
  if (!base.empty())
    for (size_t i = 0; i < items.size(); ++i) append_index_name(names[i], base, keys[i]);

  std::vector<nb::object> handles;
  handles.reserve(items.size());
  bool all_linear = matrices.empty() &&
                    std::all_of(items.begin(), items.end(),
                                [](const Prepared &p) { return p.type == Prepared::kLinear; });
  if (all_linear && !items.empty()) {
    // One library call for all rows.
    size_t nnz = 0;
    for (auto &p : items) nnz += p.data.lin.ind.size();
    if (nnz > static_cast<size_t>(std::numeric_limits<int>::max()))
      raise_error(KVR_ERROR_INVALID_ARGUMENT, "Too many nonzeros for one call of addConstrs");
    std::vector<int> beg, ind;
    std::vector<double> val, rhs;
    std::vector<char> sense;
    std::vector<const char *> cnames;
    beg.reserve(items.size());
    ind.reserve(nnz);
    val.reserve(nnz);
    for (size_t i = 0; i < items.size(); ++i) {
      const Prepared &p = items[i];
      beg.push_back(static_cast<int>(ind.size()));
      ind.insert(ind.end(), p.data.lin.ind.begin(), p.data.lin.ind.end());
      val.insert(val.end(), p.data.lin.val.begin(), p.data.lin.val.end());
      sense.push_back(p.sense);
      rhs.push_back(p.rhs);
      if (!base.empty()) cnames.push_back(names[i].c_str());
    }
    check_model(KVRaddconstrs(model, static_cast<int>(items.size()), static_cast<int>(nnz),
                              beg.data(), ind.data(), val.data(), sense.data(), rhs.data(),
                              base.empty() ? nullptr : cnames.data()),
                model);
    bool numbered = model_updatemode(self) == 1;
    GcPause pause(items.size());
    for (size_t i = 0; i < items.size(); ++i)
      handles.push_back(model_append(self, kConstr, numbered));
  } else {
    for (size_t i = 0; i < items.size(); ++i)
      handles.push_back(matrix_of[i] >= 0 ? add_matrix_rows(self, matrices[matrix_of[i]])
                                          : add_prepared(self, items[i], names[i]));
  }
  return make_tupledict(keys, handles);
}

}  // namespace

void init_model_add(nb::class_<Model> &cls) {
  cls.def(
      "addVar",
      [](nb::handle self, nb::handle lb, nb::handle ub, nb::handle obj, nb::handle vtype,
         nb::handle name, nb::handle column) {
        KVRmodel *model = prepared_model(self);
        double l = number_arg(lb, "lb"), u = number_arg(ub, "ub"), o = number_arg(obj, "obj");
        if (std::isnan(l) || std::isnan(u) || std::isnan(o))
          raise_error(KVR_ERROR_INVALID_ARGUMENT, "Bounds and objective must not be Nan");
        char vt = vtype_char(vtype);
        std::string n = name_arg(name);
        std::vector<int> ind;
        std::vector<double> val;
        if (!column.is_none()) {
          if (!is_column(column))
            raise_error(KVR_ERROR_INVALID_ARGUMENT,
                        "Argument column of Model.addVar must be a Column");
          collect_column(column, model, ind, val);
          check_finite(val);
        }
        check_model(KVRaddvar(model, static_cast<int>(ind.size()), ind.data(), val.data(), o, l, u,
                              vt, name_ptr(n)),
                    model);
        return model_append(self, kVar, model_updatemode(self) == 1);
      },
      nb::arg("lb").none() = 0.0, nb::arg("ub").none() = KVR_INFINITY, nb::arg("obj").none() = 0.0,
      nb::arg("vtype").none() = "C", nb::arg("name").none() = "",
      nb::arg("column").none() = nb::none(),
      "Adds one variable (with its coefficients in existing constraints when column is given).");
  cls.def("addVars", &add_vars,
          "addVars(*indexes, lb=0.0, ub=KVR.INFINITY, obj=0.0, vtype=KVR.CONTINUOUS, name=\"\"): "
          "adds one variable per key of the cross product of the index sets, in one library "
          "call; returns a tupledict. lb, ub, obj, vtype and name may be scalars, lists in key "
          "order, or dicts by key.");
  cls.def(
      "addLConstr",
      [](nb::handle self, nb::handle lhs, nb::handle sense, nb::handle rhs, nb::handle name) {
        KVRmodel *model = prepared_model(self);
        nb::object l = nb::borrow(lhs), s = nb::borrow(sense), r = nb::borrow(rhs);
        if (is_tempconstr(lhs)) {
          l = tc_part(lhs, "_lhs");
          s = tc_part(lhs, "_sense");
          r = tc_part(lhs, "_rhs");
        }
        Prepared p;
        LinearData &d = p.data.lin;
        if (!collect_linear(l, 1.0, model, d) || !collect_linear(r, -1.0, model, d))
          raise_error(kUsageError, "Invalid argument to Model.addLConstr");
        std::string n;
        p.sense = sense_char(s);
        if (!p.sense || !name_text(name, n))
          raise_error(kUsageError, "Invalid sense or name to Model.addLConstr");
        check_finite(d.val);
        check_constant(d.constant);
        clean(d);
        p.rhs = row_rhs(d.constant);
        return add_prepared(self, p, n);
      },
      nb::arg("lhs").none(), nb::arg("sense").none() = nb::none(),
      nb::arg("rhs").none() = nb::none(), nb::arg("name").none() = "",
      "Adds a linear constraint lhs sense rhs (or a linear TempConstr).");
  cls.def(
      "addConstr",
      [](nb::handle self, nb::args args, nb::kwargs kwargs) {
        KVRmodel *model = prepared_model(self);
        nb::object name = nb::str("");
        for (auto [k, v] : kwargs) {
          if (utf8(k) != "name")
            raise_python(PyExc_TypeError,
                         "addConstr() got an unexpected keyword argument '" + utf8(k) + "'");
          name = nb::borrow(v);
        }
        if (args.size() == 0) invalid_addconstr();
        nb::handle tc = args[0];
        if (!is_tempconstr(tc) && args.size() >= 3) {
          PyErr_WarnEx(PyExc_DeprecationWarning,
                       "Deprecated, pass a TempConstr or use Model.addLConstr", 1);
          nb::object n = args.size() >= 4 ? nb::borrow(args[3]) : name;
          return self.attr("addLConstr")(args[0], args[1], args[2], n);
        }
        if (args.size() == 2) name = nb::borrow(args[1]);
        if (args.size() > 2) invalid_addconstr();
        if (is_tempconstr(tc) && is_matrix_expression(tc_part(tc, "_lhs")))
          return add_matrix_tempconstr(self, tc, name);
        Prepared p;
        prepare_tempconstr(self, tc, model, p);
        return add_prepared(self, p, name_arg(name));
      },
      "addConstr(constr, name=\"\"): adds a linear, quadratic, general or indicator constraint "
      "from a TempConstr; returns its handle.");
  cls.def(
      "addRange",
      [](nb::handle self, nb::handle expr, nb::handle lower, nb::handle upper, nb::handle name) {
        KVRmodel *model = prepared_model(self);
        LinearData d;
        if (!collect_linear(expr, 1.0, model, d))
          raise_error(kUsageError, "Invalid argument to Model.addRange");
        double lo = number_arg(lower, "lower"), up = number_arg(upper, "upper");
        if (std::isnan(lo) || std::isnan(up))
          raise_error(KVR_ERROR_INVALID_ARGUMENT, "Range bounds must not be Nan");
        check_finite(d.val);
        check_constant(d.constant);
        clean(d);
        if (lo > -KVR_INFINITY) lo -= d.constant;
        if (up < KVR_INFINITY) up -= d.constant;
        std::string n = name_arg(name);
        check_model(KVRaddrangeconstr(model, static_cast<int>(d.ind.size()), d.ind.data(),
                                      d.val.data(), lo, up, name_ptr(n)),
                    model);
        bool numbered = model_updatemode(self) == 1;
        nb::object constr = model_append(self, kConstr, numbered);
        // The library adds a range variable right after the row when both sides are finite or
        // both infinite; its handle is appended at once so that positions keep matching the
        // library's numbering (a deferred count would misnumber variables added after it).
        // Sides at or beyond 1e25 count as infinite here, as in the library.
        if ((lo <= -1e25) == (up >= 1e25)) model_append(self, kVar, numbered);
        return constr;
      },
      nb::arg("expr").none(), nb::arg("lower").none(), nb::arg("upper").none(),
      nb::arg("name").none() = "", "Adds the range constraint lower <= expr <= upper.");
  cls.def("addConstrs", &add_constrs, nb::arg("generator").none(), nb::arg("name").none() = "",
          "Adds one constraint per item of a generator expression; returns a tupledict keyed "
          "by the generator's loop variables. An item that is a matrix comparison becomes an "
          "MConstr or MQConstr value, its elements named \"name[key][i,j]\".");
  cls.def(
      "addQConstr",
      [](nb::handle self, nb::handle lhs, nb::handle sense, nb::handle rhs, nb::handle name) {
        KVRmodel *model = prepared_model(self);
        if (lhs.is_none())
          raise_error(KVR_ERROR_INVALID_ARGUMENT,
                      "Invalid None value for lhs when calling Model.addQConstr");
        nb::object l = nb::borrow(lhs), s = nb::borrow(sense), r = nb::borrow(rhs);
        if (is_tempconstr(lhs)) {
          l = tc_part(lhs, "_lhs");
          s = tc_part(lhs, "_sense");
          r = tc_part(lhs, "_rhs");
        }
        char sc = sense_char(s);
        if (!sc) raise_error(KVR_ERROR_INVALID_ARGUMENT, "Invalid sense to Model.addQConstr");
        Prepared p;
        prepare_quadratic(l, r, sc, model, p, "Invalid argument to Model.addQConstr");
        return add_prepared(self, p, name_arg(name));
      },
      nb::arg("lhs").none(), nb::arg("sense").none() = nb::none(),
      nb::arg("rhs").none() = nb::none(), nb::arg("name").none() = "",
      "Adds a quadratic constraint lhs sense rhs (or a quadratic TempConstr).");
  cls.def(
      "addSOS",
      [](nb::handle self, nb::handle type, nb::handle vars, nb::handle wts) {
        KVRmodel *model = prepared_model(self);
        double t = 0;
        if (!isscalar(type, &t) || (t != KVR_SOS_TYPE1 && t != KVR_SOS_TYPE2))
          raise_error(KVR_ERROR_INVALID_ARGUMENT,
                      "SOS type must be KVR.SOS_TYPE1 or KVR.SOS_TYPE2");
        std::vector<int> ind = var_list(vars, model);
        std::vector<double> w;
        if (wts.is_none()) {
          // Distinct weights in the order given: the library orders the set by weight.
          for (size_t i = 0; i < ind.size(); ++i) w.push_back(static_cast<double>(i + 1));
        } else {
          w = number_list(wts, "weights");
          if (w.size() != ind.size())
            raise_error(kUsageError, "Length of weight list differs from length of variable list");
          check_finite(w);
        }
        int types[1] = {static_cast<int>(t)}, beg[1] = {0};
        check_model(
            KVRaddsos(model, 1, static_cast<int>(ind.size()), types, beg, ind.data(), w.data()),
            model);
        return model_append(self, kSOS, false);
      },
      nb::arg("type").none(), nb::arg("vars").none(), nb::arg("wts").none() = nb::none(),
      "Adds an SOS constraint of type KVR.SOS_TYPE1 or KVR.SOS_TYPE2 (default weights 1, 2, ...).");

  for (bool is_max : {true, false})
    cls.def(
        is_max ? "addGenConstrMax" : "addGenConstrMin",
        [is_max](nb::handle self, nb::handle resvar, nb::handle vars, nb::handle constant,
                 nb::handle name) {
          return add_maxmin(self, resvar, vars, constant, name, is_max);
        },
        nb::arg("resvar").none(), nb::arg("vars").none(), nb::arg("constant").none() = nb::none(),
        nb::arg("name").none() = "",
        is_max ? "Adds resvar = max(vars, constant)." : "Adds resvar = min(vars, constant).");
  cls.def(
      "addGenConstrAbs",
      [](nb::handle self, nb::handle resvar, nb::handle argvar, nb::handle name) {
        KVRmodel *model = prepared_model(self);
        int r = var_column(resvar, model), a = var_column(argvar, model);
        std::string n = name_arg(name);
        return gen_added(self, KVRaddgenconstrAbs(model, name_ptr(n), r, a), model);
      },
      nb::arg("resvar").none(), nb::arg("argvar").none(), nb::arg("name").none() = "",
      "Adds resvar = |argvar|.");
  for (bool is_and : {true, false})
    cls.def(
        is_and ? "addGenConstrAnd" : "addGenConstrOr",
        [is_and](nb::handle self, nb::handle resvar, nb::handle vars, nb::handle name) {
          KVRmodel *model = prepared_model(self);
          int r = var_column(resvar, model);
          std::vector<int> ind = var_list(vars, model);
          std::string n = name_arg(name);
          auto fn = is_and ? KVRaddgenconstrAnd : KVRaddgenconstrOr;
          return gen_added(
              self, fn(model, name_ptr(n), r, static_cast<int>(ind.size()), ind.data()), model);
        },
        nb::arg("resvar").none(), nb::arg("vars").none(), nb::arg("name").none() = "",
        is_and ? "Adds resvar = and(vars) over binary variables."
               : "Adds resvar = or(vars) over binary variables.");
  cls.def(
      "addGenConstrNorm",
      [](nb::handle self, nb::handle resvar, nb::handle vars, nb::handle which, nb::handle name) {
        KVRmodel *model = prepared_model(self);
        int r = var_column(resvar, model);
        std::vector<int> ind = var_list(vars, model);
        double w = number_arg(which, "which");
        std::string n = name_arg(name);
        return gen_added(
            self,
            KVRaddgenconstrNorm(model, name_ptr(n), r, static_cast<int>(ind.size()), ind.data(), w),
            model);
      },
      nb::arg("resvar").none(), nb::arg("vars").none(), nb::arg("which").none(),
      nb::arg("name").none() = "", "Adds resvar = norm(vars) for which = 0, 1, 2 or infinity.");
  cls.def(
      "addGenConstrIndicator",
      [](nb::handle self, nb::handle binvar, nb::handle binval, nb::handle lhs, nb::handle sense,
         nb::handle rhs, nb::handle name) {
        KVRmodel *model = prepared_model(self);
        Prepared p;
        prepare_indicator(binvar, binval, lhs, sense, rhs, model, p);
        return add_prepared(self, p, name_arg(name));
      },
      nb::arg("binvar").none(), nb::arg("binval").none(), nb::arg("lhs").none(),
      nb::arg("sense").none() = nb::none(), nb::arg("rhs").none() = nb::none(),
      nb::arg("name").none() = "",
      "Adds: binvar == binval implies the linear constraint lhs sense rhs.");
  cls.def(
      "addGenConstrPWL",
      [](nb::handle self, nb::handle xvar, nb::handle yvar, nb::handle xpts, nb::handle ypts,
         nb::handle name) {
        KVRmodel *model = prepared_model(self);
        int x = var_column(xvar, model), y = var_column(yvar, model);
        std::vector<double> xp = number_list(xpts, "xpts"), yp = number_list(ypts, "ypts");
        if (xp.size() != yp.size())
          raise_error(kInputError, "Arguments xpts and ypts must have the same length");
        std::string n = name_arg(name);
        return gen_added(self,
                         KVRaddgenconstrPWL(model, name_ptr(n), x, y, static_cast<int>(xp.size()),
                                            xp.data(), yp.data()),
                         model);
      },
      nb::arg("xvar").none(), nb::arg("yvar").none(), nb::arg("xpts").none(),
      nb::arg("ypts").none(), nb::arg("name").none() = "",
      "Adds yvar = the piecewise-linear function through the points (xpts, ypts) of xvar.");
  cls.def(
      "addGenConstrPoly",
      [](nb::handle self, nb::handle xvar, nb::handle yvar, nb::handle p, nb::handle name,
         nb::handle options) {
        KVRmodel *model = prepared_model(self);
        int x = var_column(xvar, model), y = var_column(yvar, model);
        std::vector<double> coeffs = number_list(p, "p");
        if (coeffs.empty()) raise_error(kInputError, "Error: empty polynomial function");
        std::string n = name_arg(name), o = name_arg(options);
        return gen_added(
            self,
            KVRaddgenconstrPoly(model, name_ptr(n), x, y, static_cast<int>(coeffs.size()),
                                coeffs.data(), o.c_str()),
            model);
      },
      nb::arg("xvar").none(), nb::arg("yvar").none(), nb::arg("p").none(),
      nb::arg("name").none() = "", nb::arg("options").none() = "",
      "Adds yvar = p[0] xvar^(n-1) + ... + p[n-1] (coefficients from the highest degree).");
  def_function_adds(cls);

  cls.def(
      "setObjective",
      [](nb::handle self, nb::handle expr, nb::handle sense) { set_objective(self, expr, sense); },
      nb::arg("expr").none(), nb::arg("sense").none() = nb::none(),
      "Replaces the objective by expr (a number, Var, LinExpr or QuadExpr); sets the sense "
      "when given.");
  cls.def(
      "setObjectiveN",
      [](nb::handle self, nb::handle expr, int index, int priority, nb::handle weight,
         nb::handle abstol, nb::handle reltol, nb::handle name) {
        KVRmodel *model = prepared_model(self);
        LinearData d;
        if (!collect_linear(expr, 1.0, model, d))
          raise_error(kInputError, "Objective must be linear for multi-objective model");
        check_finite(d.val);
        check_constant(d.constant);
        clean(d);
        double w = number_arg(weight, "weight"), at = number_arg(abstol, "abstol"),
               rt = number_arg(reltol, "reltol");
        std::string n = name_arg(name);
        check_model(KVRsetobjectiven(model, index, priority, w, at, rt, name_ptr(n), d.constant,
                                     static_cast<int>(d.ind.size()), d.ind.data(), d.val.data()),
                    model);
      },
      nb::arg("expr").none(), nb::arg("index"), nb::arg("priority") = 0,
      nb::arg("weight").none() = 1.0, nb::arg("abstol").none() = 1e-6,
      nb::arg("reltol").none() = 0.0, nb::arg("name").none() = "",
      "Sets objective number index of a multi-objective model (linear expressions only).");
  cls.def(
      "setPWLObj",
      [](nb::handle self, nb::handle var, nb::handle x, nb::handle y) {
        KVRmodel *model = prepared_model(self);
        if (!as_var(var)) raise_error(kInputError, "First argument must be a Var");
        int col = var_column(var, model);
        std::vector<double> xs = number_list(x, "x"), ys = number_list(y, "y");
        if (xs.size() != ys.size())
          raise_error(kInputError, "Arguments x and y must have the same length");
        check_finite(xs);
        check_finite(ys);
        check_model(KVRsetpwlobj(model, col, static_cast<int>(xs.size()), xs.data(), ys.data()),
                    model);
      },
      nb::arg("var").none(), nb::arg("x").none(), nb::arg("y").none(),
      "Sets a piecewise-linear objective term on one variable through the points (x, y).");
}

}  // namespace kvrpy
