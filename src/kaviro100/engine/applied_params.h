// Which parameters the library and its engine act on.
#pragma once

#include "params/params.h"

namespace kvr {

// False for the settings that are stored but not acted on (see applied_params.cpp).
bool param_applied(ParamId id);

}  // namespace kvr
