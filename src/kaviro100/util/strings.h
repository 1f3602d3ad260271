// Small string helpers shared by the library: case-insensitive names and number texts.
#pragma once

#include <string>
#include <string_view>

namespace kvr {

bool iequals(std::string_view a, std::string_view b);
std::string lower(std::string_view s);
std::string_view trim(std::string_view s);
// Shortest "%g"-style text that reads back as the same double (17 significant digits at most).
std::string num_text(double v);
// Parses a whole string as a number; false when it is not one. Accepts inf/infinity.
bool parse_double(std::string_view s, double &out);
bool parse_int(std::string_view s, long long &out);

}  // namespace kvr
