// Lexical rules of the LP format, shared by its reader and writer.
//
// Names: a run of printable characters without blanks that contains none of + - * ^ : < > = and
// the backslash, and does not begin with a slash; brackets and parentheses may appear inside a name
// when they are balanced there ("x[1,2]", "f(a,b)"), commas only inside such brackets. A run that
// begins like a number is a name when name characters follow the number directly ("1G0EXP"), so a
// coefficient and its variable must be separated by a blank. Pure numbers and a few keywords are
// not names. Labels ("name:") may hold any characters except blanks, the colon and the backslash.
#pragma once

#include <cstddef>
#include <string_view>

namespace kvr::io::lp {

inline bool is_blank(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\f' || c == '\v';
}

inline bool is_operator(char c) {
  switch (c) {
    case '+':
    case '-':
    case '*':
    case '^':
    case ':':
    case '<':
    case '>':
    case '=':
    case '\\':
      return true;
    default:
      return false;
  }
}

inline bool is_digit(char c) { return c >= '0' && c <= '9'; }

// Length of the number at s[0] (digits, optional fraction, optional exponent), 0 when none.
inline size_t scan_number(const char *s, size_t len) {
  size_t i = 0, digits = 0;
  while (i < len && is_digit(s[i])) ++i, ++digits;
  if (i < len && s[i] == '.') {
    ++i;
    while (i < len && is_digit(s[i])) ++i, ++digits;
  }
  if (digits == 0) return 0;
  if (i < len && (s[i] == 'e' || s[i] == 'E')) {
    size_t k = i + 1;
    if (k < len && (s[k] == '+' || s[k] == '-')) ++k;
    if (k < len && is_digit(s[k])) {
      i = k;
      while (i < len && is_digit(s[i])) ++i;
    }
  }
  return i;
}

// A character that cannot continue a name outside brackets.
inline bool ends_name(char c) {
  return static_cast<unsigned char>(c) <= ' ' || is_operator(c) || c == ')' || c == ']' || c == ',';
}

// Length of the name that starts at s[0]; 0 when a number, an operator or a bracket starts there.
inline size_t scan_name(const char *s, size_t len) {
  if (len == 0) return 0;
  char c = s[0];
  if (ends_name(c) || c == '/' || c == '[' || c == '(') return 0;
  if (is_digit(c) || c == '.') {
    size_t n = scan_number(s, len);
    if (n > 0 && (n == len || ends_name(s[n]) || s[n] == '/')) return 0;  // a number
  }
  size_t i = 1;
  int depth = 0;
  for (; i < len; ++i) {
    char ch = s[i];
    if (static_cast<unsigned char>(ch) <= ' ' || is_operator(ch)) break;
    if (ch == '[' || ch == '(') {
      ++depth;
    } else if (ch == ']' || ch == ')') {
      if (depth == 0) break;
      --depth;
    } else if (ch == ',' && depth == 0) {
      break;
    }
  }
  return i;
}

// Length of the label ("name:") that starts at s[0] without its colon; 0 when there is none.
inline size_t scan_label(const char *s, size_t len) {
  for (size_t i = 0; i < len; ++i) {
    char c = s[i];
    if (c == ':') return i;
    if (static_cast<unsigned char>(c) <= ' ' || c == '\\') return 0;
  }
  return 0;
}

// Words that cannot be variable names: they would read as values or section headers.
bool is_reserved(std::string_view name);

}  // namespace kvr::io::lp
