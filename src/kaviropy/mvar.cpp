// MVar and the parts shared by all handle arrays (MVar, MConstr, MQConstr): NumPy object arrays
// of the model's own handles, indexed with NumPy's rules; Model.addMVar.
#include <algorithm>
#include <cmath>
#include <limits>

#include "attrutil.h"
#include "matrix.h"
#include "model.h"

namespace kvrpy {

// ---------------------------------------------------------------- NumPy helpers
nb::module_ &numpy() {
  static nb::module_ *np = new nb::module_(nb::module_::import_("numpy"));  // process lifetime
  return *np;
}

nb::module_ &scipy_sparse() {
  static nb::module_ *sp = new nb::module_(nb::module_::import_("scipy.sparse"));
  return *sp;
}

nb::object contiguous(nb::handle values, const char *dtype) {
  return numpy().attr("ascontiguousarray")(values, nb::arg("dtype") = dtype);
}

nb::object new_array(size_t n, const char *dtype) {
  return numpy().attr("empty")(n, nb::arg("dtype") = dtype);
}

nb::object object_array(nb::handle items) {
  return numpy().attr("fromiter")(items, nb::arg("dtype") = "O", nb::arg("count") = nb::len(items));
}

nb::tuple shape_of(nb::handle arr) { return nb::tuple(numpy().attr("shape")(arr)); }

Py_ssize_t size_of(nb::handle arr) { return py_index(numpy().attr("size")(arr)); }

nb::tuple broadcast_shapes(nb::handle a, nb::handle b) {
  try {
    return nb::tuple(numpy().attr("broadcast_shapes")(a, b));
  } catch (nb::python_error &) {
    raise_python(PyExc_ValueError, "operands could not be broadcast together with shapes " +
                                       utf8(nb::str(a)) + " " + utf8(nb::str(b)));
  }
}

// ---------------------------------------------------------------- handle arrays
bool is_mvar(nb::handle obj) { return nb::isinstance<MVar>(obj); }

bool is_handle_array(nb::handle obj) {
  return nb::isinstance<MVar>(obj) || nb::isinstance<MConstr>(obj) || nb::isinstance<MQConstr>(obj);
}

namespace {

HandleArray &array_of(nb::handle self) {
  if (nb::isinstance<MVar>(self)) return *nb::inst_ptr<MVar>(self);
  if (nb::isinstance<MConstr>(self)) return *nb::inst_ptr<MConstr>(self);
  return *nb::inst_ptr<MQConstr>(self);
}

// A handle array of self's class around `handles`; a single handle (what NumPy returns for a
// full integer index) becomes a 0-d array.
nb::object like(nb::handle self, nb::object handles) {
  if (!nb::isinstance(handles, numpy().attr("ndarray"))) {
    nb::object arr = numpy().attr("empty")(nb::tuple(), nb::arg("dtype") = "O");
    arr[nb::tuple()] = handles;
    handles = arr;
  }
  if (nb::isinstance<MVar>(self)) return make_mvar(handles);
  if (nb::isinstance<MConstr>(self)) return make_mconstr(handles);
  return make_mqconstr(handles);
}

// The model object of the handles (None when empty or disposed).
nb::object owner_model(const HandleArray &a) {
  if (size_of(a.handles) == 0) return nb::none();
  nb::object first = a.handles.attr("item")(0);
  Handle *h = as_handle(first);
  return h && h->model ? model_object(h->model) : nb::none();
}

nb::object owner_model_checked(const HandleArray &a) {
  nb::object m = owner_model(a);
  if (m.is_none()) raise_error(kUsageError, "Model has already been freed");
  return m;
}

nb::object get_attr_array(nb::handle self, nb::handle name) {
  HandleArray &a = array_of(self);
  if (size_of(a.handles) == 0) return numpy().attr("empty")(shape_of(a.handles));
  nb::object values = owner_model_checked(a).attr("getAttr")(name, flat_handles(self));
  return numpy().attr("array")(values).attr("reshape")(shape_of(a.handles));
}

void set_attr_array(nb::handle self, nb::handle name, nb::handle values) {
  HandleArray &a = array_of(self);
  if (size_of(a.handles) == 0) return;
  nb::object arr = numpy().attr("asarray")(values);
  nb::object full;
  try {
    full = numpy().attr("broadcast_to")(arr, shape_of(a.handles));
  } catch (nb::python_error &) {
    raise_python(PyExc_ValueError, "could not broadcast values of shape " +
                                       utf8(nb::str(shape_of(arr))) + " to shape " +
                                       utf8(nb::str(shape_of(a.handles))));
  }
  owner_model_checked(a).attr("setAttr")(name, flat_handles(self),
                                         full.attr("ravel")().attr("tolist")());
}

template <class F>
void def_method(nb::handle cls, const char *name, F &&fn, const char *doc) {
  cls.attr(name) =
      nb::cpp_function(std::forward<F>(fn), nb::scope(cls), nb::name(name), nb::is_method(), doc);
}

template <class F, class... Extra>
void def_method_args(nb::handle cls, const char *name, F &&fn, const char *doc,
                     const Extra &...extra) {
  cls.attr(name) = nb::cpp_function(std::forward<F>(fn), nb::scope(cls), nb::name(name),
                                    nb::is_method(), extra..., doc);
}

void def_property(nb::handle cls, const char *name, nb::object getter) {
  cls.attr(name) = nb::handle(reinterpret_cast<PyObject *>(&PyProperty_Type))(getter);
}

}  // namespace

nb::object column_list(nb::handle handles, nb::object &positions) {
  nb::object ndarray = numpy().attr("ndarray");
  nb::object root = nb::borrow(handles);
  while (nb::isinstance(root.attr("base"), ndarray)) root = root.attr("base");
  bool shared = nb::len(shape_of(root)) == 1 && py_index(root.attr("itemsize")) == 8 &&
                py_index(handles.attr("itemsize")) == 8 &&
                nb::cast<bool>(root.attr("flags").attr("c_contiguous")) &&
                root.attr("dtype").equal(handles.attr("dtype"));
  if (!shared) {
    positions = numpy().attr("arange")(size_of(handles));
    return handles.attr("ravel")();
  }
  // The view's elements sit at fixed strides from its first element inside the root list.
  auto address = [](nb::handle a) {
    return py_index(a.attr("__array_interface__")["data"][nb::int_(0)]);
  };
  Py_ssize_t offset = (address(handles) - address(root)) / 8;
  nb::object all = numpy().attr("arange")(size_of(root), nb::arg("dtype") = "int64");
  positions =
      numpy()
          .attr("lib")
          .attr("stride_tricks")
          .attr("as_strided")(
              all[nb::slice(nb::int_(offset), nb::int_(size_of(root)), nb::int_(1))],
              nb::arg("shape") = shape_of(handles), nb::arg("strides") = handles.attr("strides"))
          .attr("ravel")();
  return root;
}

PyObject *const *object_items(nb::handle arr) {
  if (!nb::cast<bool>(arr.attr("flags").attr("c_contiguous")) ||
      !arr.attr("dtype").equal(numpy().attr("dtype")("O")))
    raise_python(PyExc_TypeError, "expected a contiguous object array");
  return reinterpret_cast<PyObject *const *>(
      py_index(arr.attr("__array_interface__")["data"][nb::int_(0)]));
}

nb::list flat_handles(nb::handle arr) {
  return nb::list(array_of(arr).handles.attr("ravel")().attr("tolist")());
}

nb::object all_vars(nb::handle model) {
  prepared_model(model);
  nb::list items;
  for (const nb::object &v : model_ref(model).lists[kVar]) items.append(v);
  return make_mvar(object_array(items));
}

nb::object make_mvar(nb::object handles) { return nb::cast(MVar{{std::move(handles)}}); }
nb::object make_mconstr(nb::object handles) { return nb::cast(MConstr{{std::move(handles)}}); }
nb::object make_mqconstr(nb::object handles) { return nb::cast(MQConstr{{std::move(handles)}}); }

void def_handle_array_methods(nb::handle cls, const char *what) {
  using H = nb::handle;
  std::string w = what;
  auto prop = [&](const char *name, auto fn, const char *doc) {
    def_property(cls, name,
                 nb::cpp_function(fn, nb::scope(cls), nb::name(name), nb::is_method(), doc));
  };
  prop(
      "shape", [](H s) { return shape_of(array_of(s).handles); }, "The shape (a tuple).");
  prop(
      "ndim", [](H s) { return nb::len(shape_of(array_of(s).handles)); }, "Number of axes.");
  prop(
      "size", [](H s) { return size_of(array_of(s).handles); }, "Number of elements.");
  prop(
      "T", [](H s) { return like(s, array_of(s).handles.attr("T")); }, "The transposed view.");
  prop(
      "_cmodel",
      [](H s) -> nb::object {
        HandleArray &a = array_of(s);
        if (size_of(a.handles) == 0) return nb::none();
        Handle *h = as_handle(a.handles.attr("item")(0));
        return handle_object(h ? h->model : nullptr);
      },
      "The library model of the elements (None when empty or disposed).");
  def_method(
      cls, "__len__",
      [](H s) -> Py_ssize_t {
        nb::tuple shape = shape_of(array_of(s).handles);
        if (shape.size() == 0) raise_python(PyExc_TypeError, "len() of unsized object");
        return py_index(shape[0]);
      },
      "Length of the first axis.");
  def_method(
      cls, "__iter__",
      [](H s) {
        nb::tuple shape = shape_of(array_of(s).handles);
        if (shape.size() == 0) raise_python(PyExc_TypeError, "iteration over a 0-d array");
        nb::list items;
        Py_ssize_t n = py_index(shape[0]);
        for (Py_ssize_t i = 0; i < n; ++i) items.append(like(s, array_of(s).handles[nb::int_(i)]));
        return nb::iter(items);
      },
      "Iterates over the first axis.");
  def_method_args(
      cls, "__getitem__", [](H s, H key) { return like(s, array_of(s).handles[key]); },
      "A view selected with NumPy's indexing rules (ints, slices, None, ..., int and bool "
      "arrays).",
      nb::arg("key").none());
  def_method(
      cls, "item", [](H s, nb::args at) { return array_of(s).handles.attr("item")(*at); },
      ("The " + w + " of a one-element array, or the one at a position (NumPy's item).").c_str());
  def_method(
      cls, "tolist", [](H s) { return array_of(s).handles.attr("tolist")(); },
      ("The elements as nested lists of " + w + " handles.").c_str());
  def_method(
      cls, "copy", [](H s) { return like(s, array_of(s).handles.attr("copy")()); },
      "A copy of the array (the handles are the same).");
  def_method(
      cls, "reshape",
      [](H s, nb::args shape, nb::kwargs kw) {
        return like(s, array_of(s).handles.attr("reshape")(*shape, **kw));
      },
      "The array in a new shape (NumPy's reshape).");
  def_method(
      cls, "transpose",
      [](H s, nb::args axes) { return like(s, array_of(s).handles.attr("transpose")(*axes)); },
      "The view with axes permuted (reversed without arguments).");
  def_method(
      cls, "diagonal",
      [](H s, nb::args args, nb::kwargs kw) {
        return like(s, array_of(s).handles.attr("diagonal")(*args, **kw));
      },
      "The diagonal (NumPy's diagonal(offset=0, axis1=0, axis2=1)).");
  def_method(
      cls, "getAttr", [](H s, H name) { return get_attr_array(s, name); },
      "The attribute of every element as an ndarray of the array's shape.");
  def_method(
      cls, "setAttr", [](H s, H name, H values) { set_attr_array(s, name, values); },
      "Sets the attribute of every element; values broadcast to the array's shape.");
  def_method(
      cls, "__getattr__",
      [](H s, H name) -> nb::object {
        std::string n = utf8(name);
        if (n.empty() || n[0] == '_')
          raise_python(PyExc_AttributeError, "'kaviropy." + utf8(s.type().attr("__name__")) +
                                                 "' object has no attribute '" + n + "'");
        return get_attr_array(s, name);
      },
      "Attributes of the elements as ndarrays (x.X, x.LB, c.Pi, ...).");
  def_method(
      cls, "__setattr__",
      [](H s, H name, H value) {
        std::string n = utf8(name);
        if (n.empty() || n[0] == '_')
          raise_python(PyExc_AttributeError, "'kaviropy." + utf8(s.type().attr("__name__")) +
                                                 "' object attribute '" + n + "' is read-only");
        set_attr_array(s, name, value);
      },
      "Sets an attribute of every element (values broadcast to the shape).");
  def_method(
      cls, "__array__",
      [](H s, nb::args, nb::kwargs) {
        // Array conversion would copy handles into arithmetic that works per element; a 0-d
        // wrapper makes NumPy and scipy.sparse hand their operators to this class instead.
        nb::object arr = numpy().attr("empty")(nb::tuple(), nb::arg("dtype") = "O");
        arr[nb::tuple()] = s;
        return arr;
      },
      "A 0-d object array holding the array itself.");
  def_method(
      cls, "__repr__",
      [](H s) {
        std::string name = utf8(s.type().attr("__name__"));
        nb::object handles = array_of(s).handles;
        std::string out = "<kaviro." + name + " " + utf8(nb::str(shape_of(handles))) + ">";
        if (size_of(handles) <= 20) out += "\n" + utf8(nb::repr(handles));
        return out;
      },
      "The class, the shape and (for small arrays) the elements.");
}

// ---------------------------------------------------------------- addMVar
namespace {

// A value broadcast to the shape as a flat float array (empty when it is the default).
std::vector<double> flat_doubles(nb::handle value, nb::handle shape, const char *what,
                                 double fallback) {
  nb::object arr;
  try {
    arr = numpy().attr("asarray")(value, nb::arg("dtype") = "float64");
  } catch (nb::python_error &) {
    raise_error(KVR_ERROR_INVALID_ARGUMENT, std::string("Invalid ") + what + " argument");
  }
  nb::object full;
  try {
    full = numpy().attr("broadcast_to")(arr, shape);
  } catch (nb::python_error &) {
    raise_python(PyExc_ValueError, std::string(what) + " of shape " + utf8(nb::str(shape_of(arr))) +
                                       " does not broadcast to shape " + utf8(nb::str(shape)));
  }
  nb::object flat = contiguous(full.attr("ravel")(), "float64");
  size_t n = static_cast<size_t>(size_of(flat));
  const double *p = array_data<double>(flat);
  std::vector<double> out(p, p + n);
  for (double &v : out) {
    if (std::isnan(v))
      raise_error(KVR_ERROR_INVALID_ARGUMENT, "Bounds and objective must not be Nan");
    v = to_library(v);
  }
  if (size_of(arr) == 1 && out.size() > 0 && out[0] == fallback) out.clear();
  return out;
}

std::vector<char> flat_vtypes(nb::handle vtype, nb::handle shape) {
  nb::object arr = numpy().attr("asarray")(vtype);
  nb::object full;
  try {
    full = numpy().attr("broadcast_to")(arr, shape);
  } catch (nb::python_error &) {
    raise_python(PyExc_ValueError, "vtype of shape " + utf8(nb::str(shape_of(arr))) +
                                       " does not broadcast to shape " + utf8(nb::str(shape)));
  }
  nb::list items(full.attr("ravel")().attr("tolist")());
  std::vector<char> out;
  out.reserve(items.size());
  for (nb::handle v : items) {
    std::string t = PyUnicode_Check(v.ptr()) ? utf8(v) : std::string();
    if (t.size() != 1 || std::string("CBISN").find(t[0]) == std::string::npos)
      raise_error(KVR_ERROR_INVALID_ARGUMENT, "Invalid vtype argument");
    out.push_back(t[0]);
  }
  return out;
}

nb::object normalized_shape(nb::handle shape) {
  nb::object s;
  if (PyLong_Check(shape.ptr()) || PyIndex_Check(shape.ptr()))
    s = nb::make_tuple(shape);
  else
    s = nb::tuple(shape);
  for (nb::handle d : s)
    if (py_index(d) < 0) raise_python(PyExc_ValueError, "negative dimensions are not allowed");
  return s;
}

nb::object add_mvar(nb::handle self, nb::handle shape_arg, nb::handle lb, nb::handle ub,
                    nb::handle obj, nb::handle vtype, nb::handle name) {
  KVRmodel *model = prepared_model(self);
  nb::object shape = normalized_shape(shape_arg);
  size_t n = static_cast<size_t>(py_index(numpy().attr("prod")(shape, nb::arg("dtype") = "int64")));
  if (n > static_cast<size_t>(std::numeric_limits<int>::max()))
    raise_error(KVR_ERROR_INVALID_ARGUMENT, "Too many variables for one call of addMVar");
  std::vector<double> l =
      flat_doubles(lb.is_none() ? nb::float_(0.0) : nb::borrow(lb), shape, "lb", 0.0);
  std::vector<double> u = flat_doubles(ub.is_none() ? nb::float_(KVR_INFINITY) : nb::borrow(ub),
                                       shape, "ub", KVR_INFINITY);
  std::vector<double> o =
      flat_doubles(obj.is_none() ? nb::float_(0.0) : nb::borrow(obj), shape, "obj", 0.0);
  std::vector<char> vt = flat_vtypes(vtype.is_none() ? nb::str("C") : nb::borrow(vtype), shape);
  if (std::all_of(vt.begin(), vt.end(), [](char c) { return c == 'C'; })) vt.clear();
  std::vector<std::string> names =
      name.is_none() ? std::vector<std::string>() : element_names(name, shape);
  std::vector<const char *> cnames;
  for (auto &s : names) cnames.push_back(s.c_str());
  check_model(KVRaddvars(model, static_cast<int>(n), 0, nullptr, nullptr, nullptr,
                         o.empty() ? nullptr : o.data(), l.empty() ? nullptr : l.data(),
                         u.empty() ? nullptr : u.data(), vt.empty() ? nullptr : vt.data(),
                         cnames.empty() ? nullptr : cnames.data()),
              model);
  bool numbered = model_updatemode(self) == 1;
  nb::list items;
  {
    GcPause pause(n);
    for (size_t i = 0; i < n; ++i) items.append(model_append(self, kVar, numbered));
  }
  nb::object handles = object_array(items);
  return make_mvar(handles.attr("reshape")(shape));
}

}  // namespace

std::vector<std::string> element_names(nb::handle name, nb::handle shape) {
  std::vector<std::string> out;
  if (PyUnicode_Check(name.ptr()) || PyBytes_Check(name.ptr())) {
    std::string base = utf8(name);
    if (base.empty()) return out;
    nb::tuple dims(shape);
    size_t nd = dims.size();
    std::vector<long long> ext(nd), idx(nd, 0);
    size_t n = 1;
    for (size_t k = 0; k < nd; ++k) {
      ext[k] = py_index(dims[k]);
      n *= static_cast<size_t>(ext[k]);
    }
    out.reserve(n);
    for (size_t i = 0; i < n; ++i) {
      std::string s = base;
      if (nd) {
        s += '[';
        for (size_t k = 0; k < nd; ++k) {
          if (k) s += ',';
          s += std::to_string(idx[k]);
        }
        s += ']';
      }
      out.push_back(std::move(s));
      for (size_t k = nd; k-- > 0;) {
        if (++idx[k] < ext[k]) break;
        idx[k] = 0;
      }
    }
    return out;
  }
  // An array of names in the shape.
  nb::object full;
  try {
    full =
        numpy().attr("broadcast_to")(numpy().attr("asarray")(name, nb::arg("dtype") = "O"), shape);
  } catch (nb::python_error &) {
    raise_python(PyExc_ValueError, "names of shape " + utf8(nb::str(shape_of(name))) +
                                       " do not broadcast to shape " + utf8(nb::str(shape)));
  }
  for (nb::handle s : nb::list(full.attr("ravel")().attr("tolist")()))
    out.push_back(utf8(nb::str(s)));
  return out;
}

void init_mvar(nb::module_ &m) {
  auto cls = nb::class_<MVar>(m, "MVar",
                              "An array of variables of one model with NumPy's shape, indexing "
                              "and broadcasting rules; arithmetic gives matrix expressions.");
  def_handle_array_methods(cls, "Var");
  def_matrix_operators(cls);
  cls.def_static(
      "fromlist",
      [](nb::handle vars) {
        nb::object arr = numpy().attr("array")(vars, nb::arg("dtype") = "O");
        for (nb::handle v : nb::list(arr.attr("ravel")().attr("tolist")()))
          if (!as_var(v)) raise_error(KVR_ERROR_INVALID_ARGUMENT, "Invalid data in vars array");
        return make_mvar(arr);
      },
      nb::arg("vars"), "An MVar of the variables of a (nested) list, in its shape.");
  cls.def_static(
      "fromvar",
      [](nb::handle var) {
        if (!as_var(var)) raise_error(KVR_ERROR_INVALID_ARGUMENT, "Invalid data in vars array");
        nb::object arr = numpy().attr("empty")(nb::tuple(), nb::arg("dtype") = "O");
        arr[nb::tuple()] = var;
        return make_mvar(arr);
      },
      nb::arg("var"), "A 0-d MVar holding one variable.");

  ModelMethods def;
  def("addMVar", &add_mvar, nb::arg("shape"), nb::arg("lb").none() = 0.0,
      nb::arg("ub").none() = KVR_INFINITY, nb::arg("obj").none() = 0.0,
      nb::arg("vtype").none() = "C", nb::arg("name").none() = "",
      "addMVar(shape, lb=0.0, ub=KVR.INFINITY, obj=0.0, vtype=KVR.CONTINUOUS, name=\"\"): adds "
      "an array of variables in one library call; lb, ub, obj and vtype are scalars or arrays "
      "that broadcast to shape; the elements are named name[i,j].");
}

}  // namespace kvrpy
