// KaviroError: the module's exception, and the helpers that raise it.
#include "module.h"

namespace kvrpy {
namespace {

PyObject *g_error_type = nullptr;

// The owner's latest library message, or nullptr when the owner is not a library owner.
bool owner_message(nb::handle owner, std::string &message) {
  if (is_instance(owner, "Env")) {
    nb::object cenv = owner.attr("_cenv");
    message = cenv.is_none() ? "Failed to create environment"
                             : std::string(KVRgeterrormsg(handle_pointer<KVRenv>(cenv)));
    return true;
  }
  if (is_instance(owner, "Batch")) {
    nb::object cenv = owner.attr("_cenv");
    message = cenv.is_none() ? "Failed to create batch request"
                             : std::string(KVRgeterrormsg(handle_pointer<KVRenv>(cenv)));
    return true;
  }
  for (const char *cls :
       {"Model", "Var", "Constr", "SOS", "QConstr", "MVar", "MConstr", "MQConstr"}) {
    if (!is_instance(owner, cls)) continue;
    nb::object cmodel = owner.attr("_cmodel");
    message =
        cmodel.is_none() ? "" : std::string(KVRgetmerrormsg(handle_pointer<KVRmodel>(cmodel)));
    return true;
  }
  return false;
}

void error_init(nb::handle self, nb::handle errno_, nb::handle argument) {
  nb::setattr(self, "errno", errno_);
  nb::setattr(self, "args", nb::make_tuple(errno_, argument));
  if (PyUnicode_Check(argument.ptr())) {
    nb::setattr(self, "message", argument);
    return;
  }
  std::string message;
  if (owner_message(argument, message)) nb::setattr(self, "message", display_text(message));
}

}  // namespace

nb::handle kaviro_error_type() { return g_error_type; }

void raise_error(int code, const std::string &message) {
  nb::object err = nb::handle(g_error_type)(code, display_text(message));
  PyErr_SetObject(g_error_type, err.ptr());
  throw nb::python_error();
}

void raise_owner(int code, nb::handle owner) {
  nb::object err = nb::handle(g_error_type)(code, owner);
  PyErr_SetObject(g_error_type, err.ptr());
  throw nb::python_error();
}

void raise_python(PyObject *type, const std::string &message) {
  PyErr_SetString(type, message.c_str());
  throw nb::python_error();
}

std::string latest_message(nb::handle obj) {
  if (nb::hasattr(obj, "_cmodel")) {
    nb::object cm = obj.attr("_cmodel");
    return cm.is_none() ? std::string()
                        : std::string(KVRgetmerrormsg(handle_pointer<KVRmodel>(cm)));
  }
  if (nb::hasattr(obj, "_cenv")) {
    nb::object ce = obj.attr("_cenv");
    return ce.is_none() ? std::string() : std::string(KVRgeterrormsg(handle_pointer<KVRenv>(ce)));
  }
  return std::string();
}

void init_exception(nb::module_ &m) {
  g_error_type = PyErr_NewExceptionWithDoc("kaviropy.KaviroError", "Kaviro exception class",
                                           PyExc_Exception, nullptr);
  if (!g_error_type) throw nb::python_error();
  nb::handle cls(g_error_type);
  cls.attr("__init__") = nb::cpp_function(
      [](nb::handle self, nb::handle errno_, nb::handle argument) {
        error_init(self, errno_, argument);
      },
      nb::name("__init__"), nb::is_method(), nb::arg("errno").none(), nb::arg("argument").none(),
      "Creates the exception from an error code and a message or a library owner.");
  cls.attr("_get_message") =
      nb::cpp_function([](nb::handle self) { return nb::getattr(self, "_message"); },
                       nb::name("message"), nb::is_method(), "Returns the message.");
  cls.attr("_set_message") = nb::cpp_function(
      [](nb::handle self, nb::handle value) { nb::setattr(self, "_message", value); },
      nb::name("message"), nb::is_method(), nb::arg("value").none(), "Sets the message.");
  nb::handle property_type(reinterpret_cast<PyObject *>(&PyProperty_Type));
  cls.attr("message") = property_type(cls.attr("_get_message"), cls.attr("_set_message"));
  cls.attr("__str__") =
      nb::cpp_function([](nb::handle self) { return nb::getattr(self, "message"); },
                       nb::name("__str__"), nb::is_method(), "Returns the message.");
  cls.attr("__module__") = "kaviropy";
  m.attr("KaviroError") = cls;
  m.attr("__geterrormsg") = nb::cpp_function(
      [](nb::handle obj) { return display_text(latest_message(obj)); }, nb::arg("obj"),
      "Latest library message of a model or environment owner, else the empty string.");
}

}  // namespace kvrpy
