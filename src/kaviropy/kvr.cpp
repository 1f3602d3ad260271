// KVR: the constants class, and the read-only constant objects it refers to.
#include <initializer_list>

#include "constants.h"

namespace kvrpy {

nb::object make_constant_class(nb::module_ &m, const char *name, const char *doc,
                               const Constants &constants, const char *guard_message) {
  nb::dict body;
  for (auto &[key, value] : constants) body[key.c_str()] = value;
  body["__doc__"] = doc;
  body["__module__"] = "kaviropy";
  if (*guard_message) {
    std::string message = guard_message;
    body["__setattr__"] = nb::cpp_function(
        [message](nb::handle, nb::handle, nb::handle) { raise_error(kUsageError, message); },
        nb::is_method(), nb::arg("name"), nb::arg("value").none(), "Constants cannot be changed.");
  }
  nb::handle type_type(reinterpret_cast<PyObject *>(&PyType_Type));
  nb::object cls = type_type(
      name, nb::make_tuple(nb::handle(reinterpret_cast<PyObject *>(&PyBaseObject_Type))), body);
  m.attr(name) = cls;
  return cls;
}

void init_constants(nb::module_ &m) {
  nb::object attr = make_attr_const_class(m)();
  nb::object param = make_param_const_class(m)();
  nb::object error = make_error_const_class(m)();
  nb::object status = make_status_const_class(m)();
  nb::object callback = m.attr("CallbackClass");

  Constants kvr{{"attr", attr},         {"Attr", attr},         {"param", param}, {"Param", param},
                {"callback", callback}, {"Callback", callback}, {"error", error}, {"Error", error},
                {"status", status},     {"Status", status}};
  for (auto &c : status_constants()) kvr.push_back(c);
  auto add = [&](std::string key, nb::object v) { kvr.emplace_back(std::move(key), std::move(v)); };
  auto i = [](long v) { return nb::int_(v); };
  auto f = [](double v) { return nb::float_(v); };
  auto s = [](const char *v) { return nb::str(v); };
  // Names with consecutive codes from `first`.
  auto numbered = [&](const char *prefix, long first, std::initializer_list<const char *> names) {
    for (const char *name : names) add(prefix + std::string(name), i(first++));
  };
  numbered("BATCH_", 1, {"CREATED", "SUBMITTED", "ABORTED", "FAILED", "COMPLETED"});
  add("VERSION_MAJOR", i(KVR_VERSION_MAJOR));
  add("VERSION_MINOR", i(KVR_VERSION_MINOR));
  add("VERSION_TECHNICAL", i(KVR_VERSION_TECHNICAL));
  add("BASIC", i(KVR_BASIC));
  add("NONBASIC_LOWER", i(KVR_NONBASIC_LOWER));
  add("NONBASIC_UPPER", i(KVR_NONBASIC_UPPER));
  add("SUPERBASIC", i(KVR_SUPERBASIC));
  add("LESS_EQUAL", s("<"));
  add("GREATER_EQUAL", s(">"));
  add("EQUAL", s("="));
  add("CONTINUOUS", s("C"));
  add("BINARY", s("B"));
  add("INTEGER", s("I"));
  add("SEMICONT", s("S"));
  add("SEMIINT", s("N"));
  add("MINIMIZE", i(KVR_MINIMIZE));
  add("MAXIMIZE", i(KVR_MAXIMIZE));
  add("SOS_TYPE1", i(KVR_SOS_TYPE1));
  add("SOS_TYPE2", i(KVR_SOS_TYPE2));
  numbered("GENCONSTR_", 0,
           {"MAX", "MIN", "ABS", "AND", "OR", "NORM", "INDICATOR", "PWL", "POLY", "EXP", "EXPA",
            "LOG", "LOGA", "POW", "SIN", "COS", "TAN", "LOGISTIC"});
  add("INFINITY", f(KVR_INFINITY));
  add("UNDEFINED", f(KVR_UNDEFINED));
  add("MAXINT", i(KVR_MAXINT));
  add("MAX_NAMELEN", i(KVR_MAX_NAMELEN));
  add("MAX_STRLEN", i(KVR_MAX_STRLEN));
  add("MAX_TAGLEN", i(KVR_MAX_TAGLEN));
  add("MAX_CONCURRENT", i(KVR_MAX_CONCURRENT));
  add("DEFAULT_CS_PORT", i(61000));
  for (auto &[name, value] : error_constants()) add("ERROR_" + name, value);
  numbered("CUTS_", -1, {"AUTO", "OFF", "CONSERVATIVE", "AGGRESSIVE", "VERYAGGRESSIVE"});
  add("METHOD_NONE", i(-1));
  numbered("METHOD_", -1,
           {"AUTO", "PRIMAL", "DUAL", "BARRIER", "CONCURRENT", "DETERMINISTIC_CONCURRENT",
            "DETERMINISTIC_CONCURRENT_SIMPLEX"});
  numbered("FEASRELAX_", 0, {"LINEAR", "QUADRATIC", "CARDINALITY"});
  numbered("PHASE_MIP_", 0, {"NOREL", "SEARCH", "IMPROVE"});
  make_constant_class(m, "KVR", "Constants of the solver library and the module.", kvr, "");
}

}  // namespace kvrpy
