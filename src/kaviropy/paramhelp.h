// Help texts of the parameters (paramHelp).
#pragma once

#include "module.h"

namespace kvrpy {

// The whole help block of one parameter: name, type, range, default and purpose.
std::string param_help_text(nb::handle env, const std::string &name);

}  // namespace kvrpy
