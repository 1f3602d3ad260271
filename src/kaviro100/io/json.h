// A small JSON reader (for attribute files) and the JSON text helpers the writers share.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "io/stream.h"

namespace kvr::io {

struct JsonValue {
  enum Kind { Null, Bool, Number, String, Array, Object } kind = Null;
  double number = 0;
  bool boolean = false;
  std::string text;
  std::vector<JsonValue> items;                            // Array
  std::vector<std::pair<std::string, JsonValue>> members;  // Object, in file order
  long line = 0;                                           // where the value begins
};

// Parses a whole JSON document; throws FILE_READ with the file and line of a syntax error.
JsonValue parse_json(LineReader &in);

// Appends s as a JSON string literal (with quotes and escapes).
void json_string(std::string &out, std::string_view s);
// Appends a number; non-finite values become the library's infinity (JSON has no inf or nan).
void json_number(std::string &out, double v);

}  // namespace kvr::io
