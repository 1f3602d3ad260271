#include "util/error.h"

#include <cstdio>
#include <vector>

namespace kvr {

std::string vformat(const char *fmt, va_list ap) {
  va_list copy;
  va_copy(copy, ap);
  char small[256];
  int n = std::vsnprintf(small, sizeof small, fmt, copy);
  va_end(copy);
  if (n < 0) return std::string();
  if (static_cast<size_t>(n) < sizeof small) return std::string(small, static_cast<size_t>(n));
  std::vector<char> big(static_cast<size_t>(n) + 1);
  std::vsnprintf(big.data(), big.size(), fmt, ap);
  return std::string(big.data(), static_cast<size_t>(n));
}

std::string format(const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  std::string s = vformat(fmt, ap);
  va_end(ap);
  return s;
}

void fail(int code, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  std::string s = vformat(fmt, ap);
  va_end(ap);
  throw Error(code, std::move(s));
}

}  // namespace kvr
