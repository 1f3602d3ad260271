// Input checks shared by the functions that build and change models. Each throws kvr::Error with
// a message that names the offending argument and position; none changes anything.
#pragma once

#include <cmath>
#include <string>
#include <string_view>

#include "kaviro_c.h"
#include "util/error.h"

namespace kvr {

// The library's infinity: values at or beyond it are stored as +-KVR_INFINITY.
inline double clip_infinite(double v) {
  return v >= KVR_INFINITY ? KVR_INFINITY : v <= -KVR_INFINITY ? -KVR_INFINITY : v;
}
inline bool is_infinite(double v) { return v >= KVR_INFINITY || v <= -KVR_INFINITY; }

// A bound, right-hand side or constant: NaN is rejected, infinities are clipped.
inline double checked_bound(double v, const char *what, int pos) {
  if (std::isnan(v)) fail(KVR_ERROR_INVALID_ARGUMENT, "%s %d is NaN", what, pos);
  return clip_infinite(v);
}

// A matrix or objective coefficient: must be finite.
inline double checked_coeff(double v, const char *what, int pos) {
  if (std::isnan(v)) fail(KVR_ERROR_INVALID_ARGUMENT, "%s %d is NaN", what, pos);
  if (is_infinite(v))
    fail(KVR_ERROR_NUMERIC, "%s %d is infinite (%g); coefficients must be finite", what, pos, v);
  return v;
}

// Why no value can meet a bound pair or a right-hand side, or nullptr when one can. Values are
// taken as the library stores them (clipped to +-KVR_INFINITY).
inline const char *impossible_bounds(double lb, double ub) {
  if (lb >= KVR_INFINITY) return "its lower bound is +infinity";
  if (ub <= -KVR_INFINITY) return "its upper bound is -infinity";
  return nullptr;
}
inline const char *impossible_rhs(char sense, double rhs) {
  if (!is_infinite(rhs)) return nullptr;
  if (sense == KVR_EQUAL) return "it equals an infinite right-hand side";
  if (sense == KVR_LESS_EQUAL && rhs < 0) return "its left-hand side must be <= -infinity";
  if (sense == KVR_GREATER_EQUAL && rhs > 0) return "its left-hand side must be >= +infinity";
  return nullptr;
}

// Text that names elements is a C string: a NUL inside it would cut it.
inline void check_no_nul(std::string_view s, const char *kind, int pos) {
  if (s.find('\0') != std::string_view::npos)
    fail(KVR_ERROR_INVALID_ARGUMENT, "Name of %s %d contains a NUL character", kind, pos);
}

inline void check_sense(char s, const char *what, int pos) {
  if (s != KVR_LESS_EQUAL && s != KVR_GREATER_EQUAL && s != KVR_EQUAL)
    fail(KVR_ERROR_INVALID_ARGUMENT, "Invalid sense '%c' (code %d) of %s %d: use '<', '>' or '='",
         s > 31 && s < 127 ? s : '?', static_cast<int>(static_cast<unsigned char>(s)), what, pos);
}

inline void check_vtype(char t, int pos) {
  if (t != KVR_CONTINUOUS && t != KVR_BINARY && t != KVR_INTEGER && t != KVR_SEMICONT &&
      t != KVR_SEMIINT)
    fail(KVR_ERROR_INVALID_ARGUMENT,
         "Invalid type '%c' (code %d) of variable %d: use 'C', 'B', 'I', 'S' or 'N'",
         t > 31 && t < 127 ? t : '?', static_cast<int>(static_cast<unsigned char>(t)), pos);
}

// Element index in [0, n); kind is "variable", "constraint", ...
inline void check_index(int i, int n, const char *kind, const char *where) {
  if (i < 0 || i >= n)
    fail(KVR_ERROR_INDEX_OUT_OF_RANGE, "%s: %s index %d out of range (the model has %d %ss)", where,
         kind, i, n, kind);
}

inline void check_count(int n, const char *what) {
  if (n < 0) fail(KVR_ERROR_INVALID_ARGUMENT, "Negative %s (%d)", what, n);
}

inline void check_array(const void *p, int n, const char *what) {
  if (n > 0 && !p) fail(KVR_ERROR_NULL_ARGUMENT, "No %s array given for %d entries", what, n);
}

inline std::string_view checked_name(const char *name, const char *kind, int pos) {
  if (!name) return {};
  std::string_view s(name);
  if (s.size() > KVR_MAX_NAMELEN)
    fail(KVR_ERROR_INVALID_ARGUMENT, "Name of %s %d is too long (%zu characters, at most %d)", kind,
         pos, s.size(), KVR_MAX_NAMELEN);
  return s;
}

}  // namespace kvr
