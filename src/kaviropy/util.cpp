// String helpers, number checks and library-handle conversion shared by every class family.
#include <cmath>
#include <cstring>

#include "module.h"

namespace kvrpy {

std::string utf8(nb::handle s) {
  std::string out;
  if (PyUnicode_Check(s.ptr())) {
    Py_ssize_t n = 0;
    const char *p = PyUnicode_AsUTF8AndSize(s.ptr(), &n);
    if (p) {
      out.assign(p, static_cast<size_t>(n));
    } else {
      // Escaped bytes of a name read from a file: give the library its bytes back.
      PyErr_Clear();
      nb::object b = nb::steal(PyUnicode_AsEncodedString(s.ptr(), "utf-8", "surrogateescape"));
      if (!b.is_valid()) throw nb::python_error();
      out.assign(PyBytes_AS_STRING(b.ptr()), static_cast<size_t>(PyBytes_GET_SIZE(b.ptr())));
    }
  } else if (PyBytes_Check(s.ptr())) {
    out.assign(PyBytes_AS_STRING(s.ptr()), static_cast<size_t>(PyBytes_GET_SIZE(s.ptr())));
  } else {
    raise_python(PyExc_TypeError, std::string("expected str, got ") + Py_TYPE(s.ptr())->tp_name);
  }
  if (out.find('\0') != std::string::npos)
    raise_error(KVR_ERROR_INVALID_ARGUMENT,
                "Text " + utf8(nb::repr(s)) +
                    " contains a NUL character, which names, file names "
                    "and other text given to the library cannot hold");
  return out;
}

nb::str text(const char *s) {
  if (!s) return nb::str("");
  PyObject *o = PyUnicode_DecodeUTF8(s, static_cast<Py_ssize_t>(std::strlen(s)), "surrogateescape");
  if (!o) throw nb::python_error();
  return nb::steal<nb::str>(o);
}

nb::str display_text(std::string_view bytes) {
  PyObject *o =
      PyUnicode_DecodeUTF8(bytes.data(), static_cast<Py_ssize_t>(bytes.size()), "replace");
  if (!o) throw nb::python_error();
  return nb::steal<nb::str>(o);
}

std::string display(std::string_view bytes) {
  nb::str s = display_text(bytes);
  Py_ssize_t n = 0;
  const char *p = PyUnicode_AsUTF8AndSize(s.ptr(), &n);
  if (!p) throw nb::python_error();
  return std::string(p, static_cast<size_t>(n));
}

bool isscalar(nb::handle x, double *out) {
  PyObject *o = x.ptr();
  double v;
  if (PyFloat_CheckExact(o)) {
    v = PyFloat_AS_DOUBLE(o);
  } else if (PyLong_CheckExact(o)) {
    v = PyLong_AsDouble(o);
    if (v == -1.0 && PyErr_Occurred()) {
      PyErr_Clear();
      return false;
    }
  } else {
    // Strings convert to float in Python, but they are not numbers for modelling purposes.
    if (PyUnicode_Check(o) || PyBytes_Check(o)) return false;
    v = PyFloat_AsDouble(o);
    if (v == -1.0 && PyErr_Occurred()) {
      PyErr_Clear();
      return false;
    }
  }
  if (out) *out = v;
  return true;
}

double from_library(double v) {
  if (v == KVR_UNDEFINED) return v;
  if (v >= KVR_INFINITY) return INFINITY;
  if (v <= -KVR_INFINITY) return -INFINITY;
  return v;
}

double to_library(double v) {
  if (std::isinf(v)) return v > 0 ? KVR_INFINITY : -KVR_INFINITY;
  return v;
}

bool is_instance(nb::handle obj, const char *class_name) {
  PyObject *cls = PyObject_GetAttrString(module().ptr(), class_name);
  if (!cls) {
    PyErr_Clear();
    return false;
  }
  int r = PyObject_IsInstance(obj.ptr(), cls);
  Py_DECREF(cls);
  if (r < 0) throw nb::python_error();
  return r == 1;
}

void add_module_function(nb::module_ &m, PyMethodDef *def) {
  nb::object module_name = nb::str("kaviropy");
  PyObject *f = PyCFunction_NewEx(def, nullptr, module_name.ptr());
  if (!f) throw nb::python_error();
  m.attr(def->ml_name) = nb::steal(f);
}

nb::object handle_object(const void *ptr) {
  if (!ptr) return nb::none();
  return nb::int_(reinterpret_cast<uintptr_t>(ptr));
}

void init_util(nb::module_ &m) {
  m.attr("__stringtobytes") = nb::cpp_function(
      [](nb::handle s) -> nb::object {
        if (!PyUnicode_Check(s.ptr())) return nb::borrow(s);
        std::string b = utf8(s);
        return nb::bytes(b.data(), b.size());
      },
      nb::arg("s"), "Encodes a str as UTF-8 bytes; other objects are returned unchanged.");
  m.attr("__bytestostring") = nb::cpp_function(
      [](nb::handle b) -> nb::object {
        return nb::steal(PyObject_CallMethod(b.ptr(), "decode", nullptr));
      },
      nb::arg("b"), "Decodes library bytes (UTF-8, strict) into a str.");
  m.attr("__isscalar") = nb::cpp_function([](nb::handle x) { return isscalar(x); }, nb::arg("x"),
                                          "True when x converts to a float.");
}

}  // namespace kvrpy
