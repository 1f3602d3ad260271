// Shared declarations of the kaviropy extension: every source file includes this header.
// Helpers here are the one place for error raising, string conversion, number checks and
// library-handle conversion.
#pragma once

#include <nanobind/nanobind.h>
#include <nanobind/stl/string.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "kaviro_c.h"

namespace nb = nanobind;

namespace kvrpy {

// ---------------------------------------------------------------- module registration
// Each class family registers itself; kaviropy.cpp calls these in import order.
void init_util(nb::module_ &m);
void init_exception(nb::module_ &m);
void init_env(nb::module_ &m);
void init_param(nb::module_ &m);
void init_constants(nb::module_ &m);  // AttrConstClass, ParamConstClass, ErrorConstClass,
                                      // StatusConstClass, CallbackClass codes and KVR
void init_callback(nb::module_ &m);
void init_kaviro(nb::module_ &m);

// The module object, for run-time lookups of classes defined in other files.
nb::module_ &module();
// Attribute of the module (for example a class defined by another family).
nb::object module_attr(const char *name);
// isinstance(obj, kaviropy.<class_name>); false when the module has no such class.
bool is_instance(nb::handle obj, const char *class_name);

// ---------------------------------------------------------------- errors
// The KaviroError class object.
nb::handle kaviro_error_type();
// Codes (errno) of the errors the module detects itself, before any library call. Both are in use
// and fixed per message, since callers test errno: kUsageError mostly for calls the object's
// state does not allow, kInputError mostly for arguments and handles the module cannot take and
// for library calls that returned no object.
constexpr int kUsageError = 0;
constexpr int kInputError = -1;
// Raises KaviroError(code, message).
[[noreturn]] void raise_error(int code, const std::string &message);
// Raises KaviroError(code, owner): the message is the owner's latest library message.
[[noreturn]] void raise_owner(int code, nb::handle owner);
// Raises KaviroError(code, owner) when code is not zero.
inline void check(int code, nb::handle owner) {
  if (code) raise_owner(code, owner);
}
// Raises the given Python exception type with a message.
[[noreturn]] void raise_python(PyObject *type, const std::string &message);
// Latest library message of a model owner (_cmodel) or environment owner (_cenv), else "".
std::string latest_message(nb::handle obj);

// ---------------------------------------------------------------- strings
// Names and other library text are bytes, UTF-8 when they come from Python. Bytes that are not
// UTF-8 (read from a file) round-trip exactly through str by the "surrogateescape" error
// handler, and show as U+FFFD where text is displayed (reprs, messages, the log).
//
// str -> UTF-8 bytes (escaped bytes restored); bytes pass through. Anything else raises
// TypeError; text holding a NUL character raises KaviroError (the library takes C strings).
std::string utf8(nb::handle text);
// Library text -> str, invalid bytes escaped ("surrogateescape"). NULL -> "".
nb::str text(const char *s);
// Library bytes -> valid UTF-8 for display, invalid bytes replaced by U+FFFD.
std::string display(std::string_view bytes);
nb::str display_text(std::string_view bytes);

// ---------------------------------------------------------------- numbers
// True (and *out set) when x converts to a double: Python numbers and NumPy scalars.
bool isscalar(nb::handle x, double *out = nullptr);
// Library double -> Python float with the infinity mapping of attribute values.
double from_library(double v);
// Python float -> library double (inf -> KVR_INFINITY).
double to_library(double v);

// A plain CPython function in the module, named "kaviropy.<name>": unlike a nanobind function it
// pickles by reference, which the unpicklers that __reduce__ methods name need.
void add_module_function(nb::module_ &m, PyMethodDef *def);

// ---------------------------------------------------------------- library handles
// Library pointers are held in Python objects as integers (None when absent).
nb::object handle_object(const void *ptr);
template <class T>
T *handle_pointer(nb::handle obj) {
  if (obj.is_none()) return nullptr;
  return reinterpret_cast<T *>(static_cast<uintptr_t>(nb::cast<unsigned long long>(obj)));
}

// ---------------------------------------------------------------- disposable objects
// close(), __del__, __enter__ and __exit__ of a class whose dispose() frees its library object
// (Env, Model): close() disposes, collection closes unless the interpreter is exiting, and a
// with block closes at its end and lets exceptions propagate. `what` names the object in the
// docstrings ("environment", "model").
bool exiting();
template <class Class>
void def_disposable(Class &cls, const char *what) {
  std::string w = what;
  cls.def(
         "close", [](nb::handle self) { self.attr("dispose")(); }, "Same as dispose().")
      .def(
          "__del__",
          [](nb::handle self) {
            if (!exiting()) self.attr("close")();
          },
          ("Frees the " + w + " when the object is collected.").c_str())
      .def(
          "__enter__", [](nb::handle self) { return nb::borrow(self); },
          ("Returns the " + w + " for a with block.").c_str())
      .def(
          "__exit__",
          [](nb::handle self, nb::handle, nb::handle, nb::handle) {
            self.attr("close")();
            return false;
          },
          nb::arg("exc_type").none(), nb::arg("exc_value").none(), nb::arg("traceback").none(),
          ("Closes the " + w + " at the end of a with block.").c_str());
}

// ---------------------------------------------------------------- environments
struct Env {
  KVRenv *cenv = nullptr;
  bool user = true;
  bool is_default = false;
  bool empty = false;
  int modcnt = 0;
  ~Env();
};
// The Env object wrapped around a library environment (not owned).
nb::object wrap_env(KVRenv *cenv);
// kaviro._getdefaultenv(create)
nb::object default_env(bool create = true);
// kaviro._getmodels()
nb::list main_models();
// kaviro._exiting (declared above)

// The log callback every environment and model installs (routes lines to sys.stdout and logging).
int log_callback_stub(char *msg, void *logdata);

}  // namespace kvrpy
