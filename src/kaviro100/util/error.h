// Errors inside the library are exceptions carrying a KVR_ERROR_* code and a message; the C entry
// points turn them into return codes and store the message on the environment or model.
#pragma once

#include <cstdarg>
#include <exception>
#include <string>

#include "kaviro_c.h"

namespace kvr {

class Error : public std::exception {
 public:
  Error(int code, std::string message) : code_(code), message_(std::move(message)) {}
  int code() const noexcept { return code_; }
  const char *what() const noexcept override { return message_.c_str(); }

 private:
  int code_;
  std::string message_;
};

// printf-style formatting into a std::string.
std::string format(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
std::string vformat(const char *fmt, va_list ap);

// Throws Error(code, formatted message).
[[noreturn]] void fail(int code, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

// Runs body, converting any escaping exception into an error code stored in *message.
template <class Body>
int guarded(std::string &message, Body &&body) noexcept {
  try {
    body();
    return 0;
  } catch (const Error &e) {
    message = e.what();
    return e.code();
  } catch (const std::bad_alloc &) {
    message = "Out of memory";
    return KVR_ERROR_OUT_OF_MEMORY;
  } catch (const std::exception &e) {
    message = std::string("Internal error: ") + e.what();
    return KVR_ERROR_INTERNAL;
  } catch (...) {
    message = "Internal error";
    return KVR_ERROR_INTERNAL;
  }
}

}  // namespace kvr
