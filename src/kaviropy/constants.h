// Building blocks of the constant classes (KVR and the read-only constant objects).
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "module.h"

namespace kvrpy {

using Constants = std::vector<std::pair<std::string, nb::object>>;

// A new class `name` whose class attributes are the constants; when guard_message is not empty,
// assigning to an attribute of an instance raises KaviroError(0, guard_message).
nb::object make_constant_class(nb::module_ &m, const char *name, const char *doc,
                               const Constants &constants, const char *guard_message);

// The constant tables, in the order the constant objects list them.
Constants status_constants();
Constants error_constants();  // without the "ERROR_" prefix, SECURITY included
Constants callback_constants();

nb::object make_attr_const_class(nb::module_ &m);
nb::object make_param_const_class(nb::module_ &m);
nb::object make_status_const_class(nb::module_ &m);
nb::object make_error_const_class(nb::module_ &m);

}  // namespace kvrpy
