#include "io/json.h"

#include <cmath>
#include <cstdio>

#include "kaviro_c.h"

namespace kvr::io {

namespace {

class JsonParser {
 public:
  explicit JsonParser(LineReader &in) : in_(in) {}

  JsonValue document() {
    JsonValue v = value();
    skip();
    if (!eof()) in_.fail("unexpected text after the JSON document");
    return v;
  }

 private:
  bool eof() {
    while (pos_ >= line_.size()) {
      if (!in_.next(line_)) {
        line_ = {};
        pos_ = 0;
        return true;
      }
      pos_ = 0;
    }
    return false;
  }
  void skip() {
    for (;;) {
      if (eof()) return;
      char c = line_[pos_];
      if (c != ' ' && c != '\t' && c != '\r') return;
      ++pos_;
    }
  }
  char peek() {
    skip();
    if (eof()) in_.fail("unexpected end of the JSON document");
    return line_[pos_];
  }
  void expect(char c) {
    if (peek() != c) in_.fail("expected '%c' in the JSON document, found '%c'", c, line_[pos_]);
    ++pos_;
  }

  // Values nest by recursion; a limit keeps hostile files from exhausting the stack.
  static constexpr int kMaxDepth = 200;

  JsonValue value() {
    char c = peek();
    if ((c == '{' || c == '[') && depth_ == kMaxDepth)
      in_.fail("the JSON document nests arrays and objects more than %d deep", kMaxDepth);
    struct Nest {
      int &depth;
      explicit Nest(int &d) : depth(++d) {}
      ~Nest() { --depth; }
    } nest(depth_);
    JsonValue v;
    v.line = in_.line_number();
    if (c == '{') {
      v.kind = JsonValue::Object;
      ++pos_;
      if (peek() == '}') {
        ++pos_;
        return v;
      }
      for (;;) {
        if (peek() != '"') in_.fail("expected a member name in quotes in the JSON document");
        std::string key = string();
        expect(':');
        v.members.emplace_back(std::move(key), value());
        if (peek() == ',') {
          ++pos_;
          continue;
        }
        expect('}');
        return v;
      }
    }
    if (c == '[') {
      v.kind = JsonValue::Array;
      ++pos_;
      if (peek() == ']') {
        ++pos_;
        return v;
      }
      for (;;) {
        v.items.push_back(value());
        if (peek() == ',') {
          ++pos_;
          continue;
        }
        expect(']');
        return v;
      }
    }
    if (c == '"') {
      v.kind = JsonValue::String;
      v.text = string();
      return v;
    }
    size_t b = pos_;
    while (pos_ < line_.size() && line_[pos_] != ',' && line_[pos_] != '}' && line_[pos_] != ']' &&
           line_[pos_] != ' ' && line_[pos_] != '\t' && line_[pos_] != '\r')
      ++pos_;
    std::string_view word = line_.substr(b, pos_ - b);
    if (word == "true" || word == "false") {
      v.kind = JsonValue::Bool;
      v.boolean = word == "true";
    } else if (word == "null") {
      v.kind = JsonValue::Null;
    } else if (to_double(word, v.number)) {
      v.kind = JsonValue::Number;
    } else {
      in_.fail("expected a JSON value, found '%.*s'", static_cast<int>(word.size()), word.data());
    }
    return v;
  }

  std::string string() {
    ++pos_;  // the opening quote
    std::string s;
    for (;;) {
      if (pos_ >= line_.size()) in_.fail("unterminated string in the JSON document");
      char c = line_[pos_++];
      if (c == '"') return s;
      if (c != '\\') {
        s += c;
        continue;
      }
      if (pos_ >= line_.size()) in_.fail("unterminated string in the JSON document");
      char e = line_[pos_++];
      switch (e) {
        case 'n':
          s += '\n';
          break;
        case 't':
          s += '\t';
          break;
        case 'r':
          s += '\r';
          break;
        case 'b':
          s += '\b';
          break;
        case 'f':
          s += '\f';
          break;
        case 'u': {
          if (pos_ + 4 > line_.size()) in_.fail("malformed \\u escape in the JSON document");
          unsigned code = 0;
          for (int k = 0; k < 4; ++k) {
            char h = line_[pos_++];
            code <<= 4;
            if (h >= '0' && h <= '9')
              code |= static_cast<unsigned>(h - '0');
            else if (h >= 'a' && h <= 'f')
              code |= static_cast<unsigned>(h - 'a' + 10);
            else if (h >= 'A' && h <= 'F')
              code |= static_cast<unsigned>(h - 'A' + 10);
            else
              in_.fail("malformed \\u escape in the JSON document");
          }
          // UTF-8 encoding of the code point (surrogate pairs are kept as they come).
          if (code < 0x80) {
            s += static_cast<char>(code);
          } else if (code < 0x800) {
            s += static_cast<char>(0xC0 | (code >> 6));
            s += static_cast<char>(0x80 | (code & 0x3F));
          } else {
            s += static_cast<char>(0xE0 | (code >> 12));
            s += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
            s += static_cast<char>(0x80 | (code & 0x3F));
          }
          break;
        }
        default:
          s += e;  // \" \\ \/
      }
    }
  }

  LineReader &in_;
  std::string_view line_;
  size_t pos_ = 0;
  int depth_ = 0;
};

}  // namespace

JsonValue parse_json(LineReader &in) { return JsonParser(in).document(); }

void json_string(std::string &out, std::string_view s) {
  out += '"';
  for (char c : s) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\r':
        out += "\\r";
        break;
      default:
        if (static_cast<unsigned char>(c) < 0x20) {
          char buf[8];
          std::snprintf(buf, sizeof buf, "\\u%04x", static_cast<unsigned>(c));
          out += buf;
        } else {
          out += c;
        }
    }
  }
  out += '"';
}

void json_number(std::string &out, double v) {
  char buf[32];
  if (std::isnan(v)) v = KVR_UNDEFINED;
  int n = format_double(v, buf);
  out.append(buf, static_cast<size_t>(n));
}

}  // namespace kvr::io
