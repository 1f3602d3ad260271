// The indexed containers (tuplelist, tupledict, multidict) as seen by the rest of the module.
#pragma once

#include <vector>

#include "module.h"

namespace kvrpy {

bool is_tupledict(nb::handle obj);
bool is_tuplelist(nb::handle obj);
// A new tupledict holding keys[i] -> values[i] in this order (keys distinct, already checked).
// Like the constructor it gives the keys no insertion rank: keys() lists them in this order.
nb::object make_tupledict(const std::vector<nb::object> &keys,
                          const std::vector<nb::object> &values);

// Registration, in import order: the module function multidict, then the two classes.
void init_multidict(nb::module_ &m);
void init_tupledict(nb::module_ &m);
void init_tuplelist(nb::module_ &m);

}  // namespace kvrpy
