// Integer values as users see them: the engine returns integer variables within its integrality
// tolerance of an integer (0.9999999999999977 for 1); solutions handed out carry the integer.
#pragma once

#include <cstddef>

#include "model/modeldata.h"

namespace kvr {

// Rounds the values of the integer, binary and semi-integer variables among the first n
// variables of m to the nearest integer where they lie within tol of it; other values stay.
void round_integral(const ModelData &m, double tol, double *x, size_t n);

}  // namespace kvr
