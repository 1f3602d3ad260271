// The indexed containers (tuplelist, tupledict, multidict) as seen by the rest of the module.
#pragma once

#include <vector>

#include "module.h"

namespace kvrpy {

bool is_tupledict(nb::handle obj);
// A new tupledict holding keys[i] -> values[i] in this order (keys distinct, already checked).
nb::object make_tupledict(const std::vector<nb::object> &keys,
                          const std::vector<nb::object> &values);

}  // namespace kvrpy
