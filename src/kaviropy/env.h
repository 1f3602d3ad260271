// Environment helpers shared with ParamClass and Model.
#pragma once

#include "module.h"

namespace kvrpy {

// (name, type, current, minimum, maximum, default, flags) of a parameter.
nb::tuple param_info(nb::handle env, const std::string &name);
nb::tuple param_info(KVRenv *cenv, const std::string &name);
// Parameter names that a name or fnmatch pattern denotes, in library order.
nb::list param_list(nb::handle env, const std::string &pattern);
nb::list param_list(KVRenv *cenv, const std::string &pattern);
// Env.setParam: name resolution, "default", and propagation from the default environment.
void set_param(nb::handle env, const std::string &paramname, nb::handle newval);
// "No parameter changes" or "Parameter changes: a=1, b=2".
std::string change_list(nb::handle env);
// Writes msg and a newline to the log of a started environment with output on.
void env_message(nb::handle env, const std::string &msg);
void env_message(KVRenv *cenv, const std::string &msg);

}  // namespace kvrpy
