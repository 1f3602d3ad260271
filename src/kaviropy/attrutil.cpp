// Attribute access: each read or write asks the library for the attribute's data type and class,
// checks the Python value against them and calls the matching typed function. Lists of elements
// are read and written with one library call.
#include "attrutil.h"

#include <cmath>
#include <limits>

#include "model.h"

namespace kvrpy {
namespace {

// What an attribute access works on: a model, or one element of a model.
struct Target {
  KVRmodel *model = nullptr;
  bool is_model = false;
  int cls = KVR_ATTRCLASS_MODEL;  // attribute class of the element kind
  std::string type_name;
  int index = 0;  // public index of an element
};

Target resolve(nb::handle obj) {
  Target t;
  if (Model *m = as_model(obj)) {
    t.model = m->cmodel;
    t.is_model = true;
    t.type_name = "Model";
    return t;
  }
  int kind = -1;
  if (Handle *h = as_handle(obj, &kind)) {
    t.model = h->model;
    t.cls = kind + 1;
    t.type_name = kind_info(kind).type_name;
    t.index = public_index(h->index);
    return t;
  }
  // Any other element-like object (the matrix classes): the handle protocol by name.
  t.model = handle_pointer<KVRmodel>(obj.attr("_cmodel"));
  t.cls = nb::cast<int>(obj.attr("_typeenum"));
  t.type_name = nb::cast<std::string>(nb::str(obj.attr("_typename")));
  t.index = nb::cast<int>(obj.attr("__cindex__")());
  return t;
}

[[noreturn]] void raise_attribute_error(const std::string &message) {
  raise_python(PyExc_AttributeError, message);
}

// The checks that come before any element access: the element exists, and the attribute is one
// of its kind.
void check_element(const Target &t, const AttrInfo &info, const std::string &name) {
  if (!t.is_model && !t.model) raise_error(kUsageError, t.type_name + kNoLiveModel);
  if (t.index == -1) raise_error(kUsageError, t.type_name + " has not yet been added to the model");
  if (t.index < -1) raise_error(kUsageError, t.type_name + " was removed from the model");
  if (info.cls != t.cls) raise_no_attribute(t.type_name, name);
}

void check_model(const Target &t, const AttrInfo &info, const std::string &name) {
  if (info.cls != KVR_ATTRCLASS_MODEL) raise_no_attribute(t.type_name, name);
  if (!t.model) raise_attribute_error("Model has already been freed");
}

nb::object char_value(char c) {
  return nb::steal(PyUnicode_FromOrdinal(static_cast<unsigned char>(c)));
}

bool to_int(nb::handle value, int *out) {
  PyObject *o = value.ptr();
  long long v;
  if (PyFloat_Check(o)) {
    double d = PyFloat_AS_DOUBLE(o);
    if (!std::isfinite(d) || d != std::floor(d) || std::fabs(d) > 2147483647.0) return false;
    v = static_cast<long long>(d);
  } else if (PyLong_Check(o) || PyIndex_Check(o)) {
    nb::object index = nb::steal(PyNumber_Index(o));
    if (!index.is_valid()) {
      PyErr_Clear();
      return false;
    }
    int overflow = 0;
    v = PyLong_AsLongLongAndOverflow(index.ptr(), &overflow);
    if (overflow) return false;
  } else {
    return false;
  }
  if (v < std::numeric_limits<int>::min() || v > std::numeric_limits<int>::max()) return false;
  *out = static_cast<int>(v);
  return true;
}

bool to_double(nb::handle value, double *out) {
  if (!isscalar(value, out)) return false;
  *out = to_library(*out);
  return true;
}

bool to_text(nb::handle value, std::string *out) {
  if (!PyUnicode_Check(value.ptr()) && !PyBytes_Check(value.ptr())) return false;
  *out = utf8(value);
  return true;
}

// A one-character string as the library's char; the errors of Python's ord().
char to_char(nb::handle value) {
  PyObject *o = value.ptr();
  if (PyUnicode_Check(o)) {
    Py_ssize_t n = PyUnicode_GET_LENGTH(o);
    if (n != 1)
      raise_python(PyExc_TypeError, "ord() expected a character, but string of length " +
                                        std::to_string(n) + " found");
    Py_UCS4 c = PyUnicode_READ_CHAR(o, 0);
    if (c > 255) raise_python(PyExc_ValueError, "character does not fit the library's char type");
    return static_cast<char>(c);
  }
  if (PyBytes_Check(o) && PyBytes_GET_SIZE(o) == 1) return PyBytes_AS_STRING(o)[0];
  raise_python(PyExc_TypeError, std::string("ord() expected string of length 1, but ") +
                                    Py_TYPE(o)->tp_name + " found");
}

[[noreturn]] void raise_wrong_value(const std::string &name, int type) {
  const char *what = type == KVR_ATTRTYPE_INT   ? "integer"
                     : type == KVR_ATTRTYPE_DBL ? "double"
                     : type == KVR_ATTRTYPE_STR ? "string"
                                                : "char";
  raise_attribute_error("Attribute '" + name + "' takes " + what + " value");
}

}  // namespace

std::string attr_type_name(nb::handle obj) {
  if (as_model(obj)) return "Model";
  int kind = handle_kind(obj);
  if (kind >= 0) return kind_info(kind).type_name;
  nb::object tn = nb::getattr(obj, "_typename", nb::none());
  if (!tn.is_none()) return nb::cast<std::string>(nb::str(tn));
  return Py_TYPE(obj.ptr())->tp_name;
}

void raise_no_attribute(const std::string &type_name, const std::string &name) {
  raise_attribute_error("'kaviropy." + type_name + "' object has no attribute '" + name + "'");
}

bool set_private_attr(nb::handle self, nb::handle name, nb::handle value) {
  if (!PyUnicode_Check(name.ptr()) || PyUnicode_GET_LENGTH(name.ptr()) == 0 ||
      PyUnicode_READ_CHAR(name.ptr(), 0) != '_')
    return false;
  if (PyObject_GenericSetAttr(self.ptr(), name.ptr(), value.ptr())) throw nb::python_error();
  return true;
}

AttrInfo attr_info(const std::string &type_name, const std::string &name) {
  // The attribute table is global: asking without a model never touches a model that may be
  // gone (a removed handle keeps the pointer of its former model).
  AttrInfo info;
  int settable = 0;
  if (KVRgetattrinfo(nullptr, name.c_str(), &info.type, &info.cls, &settable))
    raise_no_attribute(type_name, name);
  info.settable = settable != 0;
  return info;
}

nb::object get_attr(nb::handle obj, const std::string &name) {
  Target t = resolve(obj);
  AttrInfo info = attr_info(t.type_name, name);
  const char *n = name.c_str();
  int code = 0;
  nb::object result;
  if (t.is_model && info.cls > KVR_ATTRCLASS_MODEL && info.cls <= kNumKinds)
    return get_attr_all(t.model, name, info);
  if (t.is_model) {
    check_model(t, info, name);
    if (info.type == KVR_ATTRTYPE_INT) {
      int v = 0;
      if (!(code = KVRgetintattr(t.model, n, &v))) result = nb::int_(v);
    } else if (info.type == KVR_ATTRTYPE_DBL) {
      double v = 0;
      if (!(code = KVRgetdblattr(t.model, n, &v))) result = nb::float_(from_library(v));
    } else if (info.type == KVR_ATTRTYPE_STR) {
      char *v = nullptr;
      if (!(code = KVRgetstrattr(t.model, n, &v))) result = text(v);
    } else {
      raise_no_attribute(t.type_name, name);
    }
  } else {
    check_element(t, info, name);
    if (info.type == KVR_ATTRTYPE_CHAR) {
      char v = 0;
      if (!(code = KVRgetcharattrelement(t.model, n, t.index, &v))) result = char_value(v);
    } else if (info.type == KVR_ATTRTYPE_INT) {
      int v = 0;
      if (!(code = KVRgetintattrelement(t.model, n, t.index, &v))) result = nb::int_(v);
    } else if (info.type == KVR_ATTRTYPE_DBL) {
      double v = 0;
      if (!(code = KVRgetdblattrelement(t.model, n, t.index, &v)))
        result = nb::float_(from_library(v));
    } else {
      char *v = nullptr;
      if (!(code = KVRgetstrattrelement(t.model, n, t.index, &v))) result = text(v);
    }
  }
  if (code) raise_attribute_error(KVRgetmerrormsg(t.model));
  return result;
}

void set_attr(nb::handle obj, const std::string &name, nb::handle value) {
  Target t = resolve(obj);
  AttrInfo info = attr_info(t.type_name, name);
  if (t.is_model)
    check_model(t, info, name);
  else
    check_element(t, info, name);
  if (!info.settable) raise_attribute_error("Attribute '" + name + "' cannot be set");
  const char *n = name.c_str();
  int code = 0;
  if (info.type == KVR_ATTRTYPE_INT) {
    int v = 0;
    if (!to_int(value, &v)) raise_wrong_value(name, info.type);
    code = t.is_model ? KVRsetintattr(t.model, n, v) : KVRsetintattrelement(t.model, n, t.index, v);
  } else if (info.type == KVR_ATTRTYPE_DBL) {
    double v = 0;
    if (!to_double(value, &v)) raise_wrong_value(name, info.type);
    code = t.is_model ? KVRsetdblattr(t.model, n, v) : KVRsetdblattrelement(t.model, n, t.index, v);
  } else if (info.type == KVR_ATTRTYPE_STR) {
    std::string v;
    if (!to_text(value, &v)) raise_wrong_value(name, info.type);
    code = t.is_model ? KVRsetstrattr(t.model, n, v.c_str())
                      : KVRsetstrattrelement(t.model, n, t.index, v.c_str());
  } else {
    if (t.is_model) raise_no_attribute(t.type_name, name);
    PyObject *o = value.ptr();
    bool one_char = (PyUnicode_Check(o) && PyUnicode_GET_LENGTH(o) == 1) ||
                    (PyBytes_Check(o) && PyBytes_GET_SIZE(o) == 1);
    if (!one_char) raise_wrong_value(name, info.type);
    code = KVRsetcharattrelement(t.model, n, t.index, to_char(value));
  }
  if (code) raise_attribute_error(KVRgetmerrormsg(t.model));
}

void prefetch_attr(nb::handle obj, const std::string &name) {
  Target t = resolve(obj);
  AttrInfo info = attr_info(t.type_name, name);
  if (t.is_model) {
    if (!t.model) raise_attribute_error("Model has already been freed");
  } else if (info.cls != t.cls) {
    raise_no_attribute(t.type_name, name);
  }
  if (KVRprefetchattr(t.model, name.c_str())) raise_attribute_error(KVRgetmerrormsg(t.model));
}

namespace {

// Values of n elements in one library call: those listed in ind, or elements 0 .. n-1 when ind is
// null. Returns the library's code; the list is complete only when it is 0.
int read_values(KVRmodel *model, const std::string &name, int type, int n, const int *ind,
                nb::list &out) {
  const char *an = name.c_str();
  out = nb::steal<nb::list>(PyList_New(n));
  auto fill = [&](auto &&make) {
    for (int i = 0; i < n; ++i) {
      PyObject *item = make(i);
      if (!item) throw nb::python_error();
      PyList_SET_ITEM(out.ptr(), i, item);
    }
  };
  int code = 0;
  if (type == KVR_ATTRTYPE_CHAR) {
    std::vector<char> v(static_cast<size_t>(n));
    code = ind ? KVRgetcharattrlist(model, an, n, ind, v.data())
               : KVRgetcharattrarray(model, an, 0, n, v.data());
    if (!code) fill([&](int i) { return PyUnicode_FromOrdinal(static_cast<unsigned char>(v[i])); });
  } else if (type == KVR_ATTRTYPE_INT) {
    std::vector<int> v(static_cast<size_t>(n));
    code = ind ? KVRgetintattrlist(model, an, n, ind, v.data())
               : KVRgetintattrarray(model, an, 0, n, v.data());
    if (!code) fill([&](int i) { return PyLong_FromLong(v[i]); });
  } else if (type == KVR_ATTRTYPE_DBL) {
    std::vector<double> v(static_cast<size_t>(n));
    code = ind ? KVRgetdblattrlist(model, an, n, ind, v.data())
               : KVRgetdblattrarray(model, an, 0, n, v.data());
    if (!code) fill([&](int i) { return PyFloat_FromDouble(from_library(v[i])); });
  } else {
    std::vector<char *> v(static_cast<size_t>(n), nullptr);
    code = ind ? KVRgetstrattrlist(model, an, n, ind, v.data())
               : KVRgetstrattrarray(model, an, 0, n, v.data());
    if (!code) fill([&](int i) { return text(v[i]).release().ptr(); });
  }
  return code;
}

}  // namespace

nb::list get_attr_list(KVRmodel *model, nb::handle owner, const std::string &name, int type,
                       const std::vector<int> &ind) {
  if (!model) raise_error(kUsageError, "Model has already been freed");
  nb::list out;
  if (int code = read_values(model, name, type, static_cast<int>(ind.size()), ind.data(), out))
    raise_error(code, KVRgetmerrormsg(model));
  return out;
}

nb::list get_attr_all(KVRmodel *model, const std::string &name, const AttrInfo &info) {
  if (!model) raise_attribute_error("Model has already been freed");
  int n = 0;
  int code = KVRgetintattr(model, kind_info(info.cls - 1).count_attr, &n);
  nb::list out;
  if (!code) code = read_values(model, name, info.type, n, nullptr, out);
  if (code) raise_attribute_error(KVRgetmerrormsg(model));
  return out;
}

void set_attr_list(KVRmodel *model, nb::handle owner, const std::string &name, int type,
                   const std::vector<int> &ind, nb::handle values, bool single) {
  if (!model) raise_error(kUsageError, "Model has already been freed");
  const size_t n = ind.size();
  nb::object seq;
  if (!single) {
    seq = nb::steal(PySequence_Fast(values.ptr(), "attribute values must be a sequence"));
    if (!seq.is_valid()) throw nb::python_error();
    size_t m = static_cast<size_t>(PySequence_Fast_GET_SIZE(seq.ptr()));
    if (m != n)
      raise_error(KVR_ERROR_INVALID_ARGUMENT, "Number of values (" + std::to_string(m) +
                                                  ") differs from number of objects (" +
                                                  std::to_string(n) + ")");
  }
  auto item = [&](size_t i) -> nb::handle {
    return single ? values : nb::handle(PySequence_Fast_GET_ITEM(seq.ptr(), i));
  };
  const char *an = name.c_str();
  const int len = static_cast<int>(n);
  int code = 0;
  if (type == KVR_ATTRTYPE_CHAR) {
    std::vector<char> v(n);
    for (size_t i = 0; i < n; ++i) v[i] = (single && i > 0) ? v[0] : to_char(item(i));
    code = KVRsetcharattrlist(model, an, len, ind.data(), v.data());
  } else if (type == KVR_ATTRTYPE_INT) {
    std::vector<int> v(n);
    for (size_t i = 0; i < n; ++i)
      if (!(single && i > 0 ? (v[i] = v[0], true) : to_int(item(i), &v[i])))
        raise_wrong_value(name, type);
    code = KVRsetintattrlist(model, an, len, ind.data(), v.data());
  } else if (type == KVR_ATTRTYPE_DBL) {
    std::vector<double> v(n);
    for (size_t i = 0; i < n; ++i)
      if (!(single && i > 0 ? (v[i] = v[0], true) : to_double(item(i), &v[i])))
        raise_wrong_value(name, type);
    code = KVRsetdblattrlist(model, an, len, ind.data(), v.data());
  } else {
    std::vector<std::string> v(single ? (n ? 1 : 0) : n);
    for (size_t i = 0; i < v.size(); ++i)
      if (!to_text(item(i), &v[i])) raise_wrong_value(name, type);
    std::vector<const char *> p(n);
    for (size_t i = 0; i < n; ++i) p[i] = v[single ? 0 : i].c_str();
    code = KVRsetstrattrlist(model, an, len, ind.data(), p.data());
  }
  if (code) raise_attribute_error(KVRgetmerrormsg(model));
}

nb::list attr_names(int attrclass) {
  nb::list out;
  int n = KVRgetnumattributes(nullptr);
  for (int i = 0; i < n; ++i) {
    char *name = nullptr;
    int cls = -1;
    if (KVRgetattrname(nullptr, i, &name) || !name) continue;
    if (KVRgetattrinfo(nullptr, name, nullptr, &cls, nullptr) == 0 && cls == attrclass)
      out.append(text(name));
  }
  return out;
}

namespace {

KVRmodel *model_pointer(nb::handle obj) {
  if (Model *m = as_model(obj)) return m->cmodel;
  if (Handle *h = as_handle(obj)) return h->model;
  return handle_pointer<KVRmodel>(obj.attr("_cmodel"));
}

std::vector<int> index_array(nb::handle list) {
  nb::object seq = nb::steal(PySequence_Fast(list.ptr(), "indices must be a sequence"));
  if (!seq.is_valid()) throw nb::python_error();
  size_t n = static_cast<size_t>(PySequence_Fast_GET_SIZE(seq.ptr()));
  std::vector<int> ind(n);
  for (size_t i = 0; i < n; ++i)
    ind[i] = nb::cast<int>(nb::int_(nb::handle(PySequence_Fast_GET_ITEM(seq.ptr(), i))));
  return ind;
}

}  // namespace

void init_attrutil(nb::module_ &m) {
  m.attr("__getattrinfo") = nb::cpp_function(
      [](nb::handle obj, nb::handle name) {
        AttrInfo info = attr_info(attr_type_name(obj), utf8(name));
        return nb::make_tuple(info.type, info.cls, info.settable ? 1 : 0);
      },
      nb::arg("obj").none(), nb::arg("attrname").none(),
      "(datatype, attrclass, settable) of an attribute; AttributeError for unknown names.");
  m.attr("__getattr") =
      nb::cpp_function([](nb::handle obj, nb::handle name) { return get_attr(obj, utf8(name)); },
                       nb::arg("obj").none(), nb::arg("attrname").none(),
                       "Reads an attribute of a model or of one element.");
  m.attr("__setattr") = nb::cpp_function(
      [](nb::handle obj, nb::handle name, nb::handle value) { set_attr(obj, utf8(name), value); },
      nb::arg("obj").none(), nb::arg("attrname").none(), nb::arg("newvalue").none(),
      "Writes an attribute of a model or of one element.");
  m.attr("__prefetchattr") = nb::cpp_function(
      [](nb::handle obj, nb::handle name) { prefetch_attr(obj, utf8(name)); },
      nb::arg("obj").none(), nb::arg("attrname").none(), "Asks the library to cache an attribute.");
  m.attr("__gettypedattrlist") = nb::cpp_function(
      [](nb::handle obj, nb::handle name, int type, nb::handle inputlist) {
        return get_attr_list(model_pointer(obj), obj, utf8(name), type, index_array(inputlist));
      },
      nb::arg("obj").none(), nb::arg("attrname").none(), nb::arg("attrtype"),
      nb::arg("inputlist").none(),
      "Values of an attribute for a list of element indices (one library call).");
  m.attr("__settypedattrlist") = nb::cpp_function(
      [](nb::handle obj, nb::handle name, int type, nb::handle indlist, nb::handle newval) {
        set_attr_list(model_pointer(obj), obj, utf8(name), type, index_array(indlist), newval,
                      false);
      },
      nb::arg("obj").none(), nb::arg("attrname").none(), nb::arg("attrtype"),
      nb::arg("indlist").none(), nb::arg("newval").none(),
      "Writes newval[i] to element indlist[i] (one library call).");
  m.attr("__attrlist") =
      nb::cpp_function([](nb::handle cmodel, int attrclass) { return attr_names(attrclass); },
                       nb::arg("cmodel").none(), nb::arg("attrclass"),
                       "Names of the library's attributes of one class, in the library's order.");
}

}  // namespace kvrpy
