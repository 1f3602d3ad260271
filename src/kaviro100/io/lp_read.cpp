// LP reader.
//
// Sections (keywords alone on their line, any case): Minimize | Maximize [multi-objectives],
// Subject To, Lazy Constraints [level], Bounds, Generals, Binaries, Semi-Continuous, SOS,
// General Constraints, PWLObj, End. Statements may span lines; a label ("name:") and the start
// of an indicator ("b = 1 ->") must each stay on one line. '\' starts a comment;
// "\Problem name: text" names the model.
//
//   objective      [name:] expr          expr: terms "3 x", "- y", constants, and
//                                        "[ 2 x ^ 2 + 4 x * y ] / 2" quadratic parts
//   multi-obj      name: Priority=2 Weight=1 AbsTol=0 RelTol=0   then the objective's expr
//   constraint     [name:] expr sense rhs | [name:] lo <= expr <= hi | [name:] b = 1 -> expr
//                  sense rhs        sense: <, <=, =<, >, >=, =>, =; a bracket makes it quadratic
//   bounds         x free | x <= u | x >= l | x = v | l <= x <= u   (-inf, +inf, infinity)
//   SOS            [name:] S1 :: x:1 y:2 z:3
//   general        see lp_write.cpp
//   PWLObj         x: ( 0 , 0 ) ( 1 , 2 ) ...
//
// Variables are numbered in the order of their first appearance; default bounds are [0, inf),
// binaries get [0, 1] unless the Bounds section gives their bounds. Range constraints with both
// sides finite get a range variable "Rg<name>" after the file's variables, as the library does.
#include <charconv>
#include <cmath>
#include <string>
#include <vector>

#include "io/formats.h"
#include "io/lp_format.h"
#include "io/nameindex.h"
#include "util/error.h"
#include "util/strings.h"

namespace kvr::io {

namespace {

enum class Tk : char {
  Num,
  Name,
  Label,
  Plus,
  Minus,
  Times,
  Div,
  Pow,
  Colon,
  LBrack,
  RBrack,
  LParen,
  RParen,
  Comma,
  Le,
  Ge,
  Eq,
  Arrow,
  Section,
  Eof
};

enum class Sec : char {
  None,
  Objective,
  Constraints,
  Lazy,
  Bounds,
  Generals,
  Binaries,
  Semis,
  Sos,
  GenCons,
  PwlObj,
  End
};

struct Token {
  Tk type;
  std::string_view text;
  double num;
};

// Splits a line into words (blank separated), at most 4.
int words(std::string_view s, std::string_view *w) {
  int n = 0;
  size_t i = 0;
  while (i < s.size()) {
    while (i < s.size() && lp::is_blank(s[i])) ++i;
    if (i >= s.size()) break;
    size_t b = i;
    while (i < s.size() && !lp::is_blank(s[i])) ++i;
    if (n == 4) return 5;
    w[n++] = s.substr(b, i - b);
  }
  return n;
}

class LpReader {
 public:
  explicit LpReader(LineReader &in) : in_(in), vars_(d_.vars.names) {}

  ModelData read() {
    for (;;) {
      const Token &t = cur();
      if (t.type == Tk::Eof) in_.fail("unexpected end of file: expected End");
      if (t.type == Tk::Section) {
        enter_section();
        if (section_ == Sec::End) break;
        continue;
      }
      switch (section_) {
        case Sec::None:
          in_.fail("expected Minimize or Maximize before '%.*s'", static_cast<int>(t.text.size()),
                   t.text.data());
        case Sec::Objective:
          objective();
          break;
        case Sec::Constraints:
        case Sec::Lazy:
          constraint();
          break;
        case Sec::Bounds:
          bound();
          break;
        case Sec::Generals:
        case Sec::Binaries:
        case Sec::Semis:
          type_list();
          break;
        case Sec::Sos:
          sos();
          break;
        case Sec::GenCons:
          genconstr();
          break;
        case Sec::PwlObj:
          pwlobj();
          break;
        case Sec::End:
          break;
      }
    }
    finish();
    return std::move(d_);
  }

 private:
  // ---------------------------------------------------------------- lines and tokens

  // Recognizes a section header line; sets pending_ (and pending_level_) when it is one.
  bool header(std::string_view line) {
    std::string_view w[4];
    size_t b = 0;
    while (b < line.size() && lp::is_blank(line[b])) ++b;
    if (b == line.size()) return false;
    char c = line[b];
    if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'))) return false;
    int n = words(line, w);
    if (n > 3) return false;
    auto is = [&](int i, std::initializer_list<const char *> alts) {
      if (i >= n) return false;
      for (const char *a : alts)
        if (iequals(w[i], a)) return true;
      return false;
    };
    pending_level_ = 1;
    if (is(0,
           {"minimize", "minimise", "minimum", "min", "maximize", "maximise", "maximum", "max"})) {
      if (n == 1 || (n == 2 && is(1, {"multi-objectives"}))) {
        pending_ = Sec::Objective;
        pending_sense_ = (w[0][1] | 0x20) == 'a' ? KVR_MAXIMIZE : KVR_MINIMIZE;
        pending_multi_ = n == 2;
        return true;
      }
      return false;
    }
    if ((n == 2 && is(0, {"subject"}) && is(1, {"to"})) ||
        (n == 2 && is(0, {"such"}) && is(1, {"that"})) ||
        (n == 1 && is(0, {"st", "s.t.", "st."}))) {
      pending_ = Sec::Constraints;
      return true;
    }
    if (n >= 2 && is(0, {"lazy"}) && is(1, {"constraints", "constraint"})) {
      if (n == 3) {
        long long level;
        if (!to_int(w[2], level)) return false;
        pending_level_ = static_cast<int>(level);
      }
      pending_ = Sec::Lazy;
      return true;
    }
    if (n == 2 && is(0, {"general"}) && is(1, {"constraints", "constraint"})) {
      pending_ = Sec::GenCons;
      return true;
    }
    if (n != 1) return false;
    static const struct {
      const char *word;
      Sec sec;
    } kOne[] = {{"bounds", Sec::Bounds},
                {"bound", Sec::Bounds},
                {"general", Sec::Generals},
                {"generals", Sec::Generals},
                {"gen", Sec::Generals},
                {"integer", Sec::Generals},
                {"integers", Sec::Generals},
                {"binary", Sec::Binaries},
                {"binaries", Sec::Binaries},
                {"bin", Sec::Binaries},
                {"semi-continuous", Sec::Semis},
                {"semis", Sec::Semis},
                {"semi", Sec::Semis},
                {"sos", Sec::Sos},
                {"pwlobj", Sec::PwlObj},
                {"end", Sec::End}};
    for (const auto &k : kOne)
      if (iequals(w[0], k.word)) {
        pending_ = k.sec;
        return true;
      }
    return false;
  }

  // Reads the next line with content into toks_; false at the end of the file.
  bool load_line() {
    std::string_view line;
    for (;;) {
      if (!in_.next(line)) return false;
      line_ = line;
      toks_.clear();
      pos_ = 0;
      if (!line.empty() && line[0] == '\\') {
        static constexpr std::string_view kName = "\\Problem name:";
        if (line.substr(0, kName.size()) == kName && d_.name.empty())
          d_.set_model_name(trim(line.substr(kName.size())));
        continue;
      }
      if (header(line)) {
        toks_.push_back(Token{Tk::Section, line, 0});
        return true;
      }
      tokenize(line);
      if (!toks_.empty()) return true;
    }
  }

  void tokenize(std::string_view line) {
    const char *s = line.data();
    size_t n = line.size(), i = 0;
    while (i < n) {
      char c = s[i];
      if (lp::is_blank(c)) {
        ++i;
        continue;
      }
      if (c == '\\') break;
      // A label ("name:") is the first thing on its line; its name may hold any characters.
      if (toks_.empty()) {
        size_t len = lp::scan_label(s + i, n - i);
        if (len > 0) {
          toks_.push_back(Token{Tk::Label, std::string_view(s + i, len), 0});
          i += len + 1;
          continue;
        }
      }
      if (size_t len = lp::scan_name(s + i, n - i)) {
        toks_.push_back(Token{Tk::Name, std::string_view(s + i, len), 0});
        i += len;
        continue;
      }
      if (size_t len = lp::scan_number(s + i, n - i)) {
        double v;
        std::string_view text(s + i, len);
        if (!to_double(text, v))
          in_.fail("malformed number '%.*s'", static_cast<int>(text.size()), text.data());
        toks_.push_back(Token{Tk::Num, text, v});
        i += len;
        continue;
      }
      Tk t;
      size_t len = 1;
      switch (c) {
        case '+':
          t = Tk::Plus;
          break;
        case '-':
          t = Tk::Minus;
          if (i + 1 < n && s[i + 1] == '>') t = Tk::Arrow, len = 2;
          break;
        case '*':
          t = Tk::Times;
          break;
        case '/':
          t = Tk::Div;
          break;
        case '^':
          t = Tk::Pow;
          break;
        case ':':
          t = Tk::Colon;
          break;
        case '[':
          t = Tk::LBrack;
          break;
        case ']':
          t = Tk::RBrack;
          break;
        case '(':
          t = Tk::LParen;
          break;
        case ')':
          t = Tk::RParen;
          break;
        case ',':
          t = Tk::Comma;
          break;
        case '<':
          t = Tk::Le;
          if (i + 1 < n && s[i + 1] == '=') len = 2;
          break;
        case '>':
          t = Tk::Ge;
          if (i + 1 < n && s[i + 1] == '=') len = 2;
          break;
        case '=':
          t = Tk::Eq;
          if (i + 1 < n && s[i + 1] == '<')
            t = Tk::Le, len = 2;
          else if (i + 1 < n && s[i + 1] == '>')
            t = Tk::Ge, len = 2;
          else if (i + 1 < n && s[i + 1] == '=')
            len = 2;
          break;
        default:
          in_.fail("unexpected character '%c'", c);
      }
      toks_.push_back(Token{t, std::string_view(s + i, len), 0});
      i += len;
    }
  }

  // The current token; moves on to the next line when this one is used up.
  const Token &cur() {
    while (pos_ >= toks_.size()) {
      if (!load_line()) {
        toks_.clear();
        toks_.push_back(Token{Tk::Eof, {}, 0});
        pos_ = 0;
        eof_ = true;
        return toks_[0];
      }
    }
    return toks_[pos_];
  }
  // Token k places ahead on the current line (Eof type when the line ends before).
  Tk peek(size_t k) {
    cur();
    return pos_ + k < toks_.size() ? toks_[pos_ + k].type : Tk::Eof;
  }
  const Token &peek_token(size_t k) { return toks_[pos_ + k]; }
  void advance() {
    if (!eof_) ++pos_;
  }
  bool accept(Tk t) {
    if (cur().type != t) return false;
    advance();
    return true;
  }
  static const char *describe(Tk t) {
    switch (t) {
      case Tk::Num:
        return "a number";
      case Tk::Name:
        return "a name";
      case Tk::Colon:
        return "':'";
      case Tk::LBrack:
        return "'['";
      case Tk::RBrack:
        return "']'";
      case Tk::LParen:
        return "'('";
      case Tk::RParen:
        return "')'";
      case Tk::Comma:
        return "','";
      case Tk::Eq:
        return "'='";
      case Tk::Arrow:
        return "'->'";
      default:
        return "something else";
    }
  }
  [[noreturn]] void expected(const char *what) {
    const Token &t = cur();
    if (t.type == Tk::Eof) in_.fail("expected %s, found the end of the file", what);
    if (t.type == Tk::Section)
      in_.fail("expected %s, found section header '%.*s'", what,
               static_cast<int>(trim(t.text).size()), trim(t.text).data());
    in_.fail("expected %s, found '%.*s'", what, static_cast<int>(t.text.size()), t.text.data());
  }
  void expect(Tk t) {
    if (!accept(t)) expected(describe(t));
  }

  void enter_section() {
    Sec s = pending_;
    if (s == Sec::Objective) {
      if (objective_seen_) in_.fail("second objective section");
      objective_seen_ = true;
      d_.set_objsense(pending_sense_);
      multi_ = pending_multi_;
      objective_index_ = -1;
    } else if (!objective_seen_ && s != Sec::End) {
      in_.fail("expected Minimize or Maximize before this section");
    }
    if (s == Sec::Lazy) {
      if (pending_level_ == 0 || pending_level_ < -1 || pending_level_ > 3)
        in_.fail("lazy level must be -1, 1, 2 or 3");
      lazy_ = pending_level_;
    }
    if (s == Sec::Constraints) lazy_ = 0;
    section_ = s;
    advance();
  }

  // ---------------------------------------------------------------- variables and terms

  int var(std::string_view name) {
    int j = vars_.find(name);
    if (j >= 0) return j;
    if (lp::is_reserved(name) && (iequals(name, "inf") || iequals(name, "infinity")))
      in_.fail("'%.*s' cannot be a variable name here", static_cast<int>(name.size()), name.data());
    if (name.size() > KVR_MAX_NAMELEN)
      in_.fail("name '%.20s...' is longer than %d characters", name.data(), KVR_MAX_NAMELEN);
    j = d_.add_var(0.0, KVR_INFINITY, 0.0, KVR_CONTINUOUS, name);
    vars_.add(j);
    given_.push_back(0);
    slot_.push_back(-1);
    return j;
  }

  // Linear terms with duplicates merged.
  struct Linear {
    std::vector<int> ind;
    std::vector<double> val;
  };
  void add_term(Linear &lin, int j, double v) {
    if (slot_[j] >= 0) {
      lin.val[slot_[j]] += v;
      return;
    }
    slot_[j] = static_cast<int>(lin.ind.size());
    lin.ind.push_back(j);
    lin.val.push_back(v);
  }
  void release(const Linear &lin) {
    for (int j : lin.ind) slot_[j] = -1;
  }

  bool at_label() {
    Tk t = cur().type;
    return t == Tk::Label || (t == Tk::Name && peek(1) == Tk::Colon);
  }

  // Parses a signed number or infinity; returns false (consuming nothing) when there is none.
  bool signed_value(double &v, bool allow_inf) {
    const Token *t = &cur();
    size_t save = pos_;
    double sign = 1;
    if (t->type == Tk::Plus || t->type == Tk::Minus) {
      if (pos_ + 1 >= toks_.size()) return false;  // the sign ends the line: not a value
      sign = t->type == Tk::Minus ? -1 : 1;
      ++pos_;
      t = &toks_[pos_];
    }
    if (t->type == Tk::Num) {
      v = sign * t->num;
      advance();
      return true;
    }
    if (allow_inf && t->type == Tk::Name &&
        (iequals(t->text, "inf") || iequals(t->text, "infinity"))) {
      v = sign * KVR_INFINITY;
      advance();
      return true;
    }
    pos_ = save;
    return false;
  }
  double value(const char *what, bool allow_inf = true) {
    double v;
    if (!signed_value(v, allow_inf)) expected(what);
    return v;
  }

  // Parses an expression: linear terms into lin, quadratic brackets into q (an error when q is
  // null), constants into constant.
  void expression(Linear &lin, QuadTerms *q, double &constant) {
    bool first = true;
    for (;;) {
      const Token *t = &cur();
      if (t->type == Tk::Section || t->type == Tk::Eof) return;
      double sign = 1;
      bool signed_term = false;
      while (t->type == Tk::Plus || t->type == Tk::Minus) {
        if (t->type == Tk::Minus) sign = -sign;
        signed_term = true;
        advance();
        t = &cur();
      }
      if (!first && !signed_term) return;
      if (t->type == Tk::LBrack) {
        if (!q) in_.fail("quadratic terms are not allowed here");
        bracket(*q, sign);
      } else if (t->type == Tk::Num) {
        double c = sign * t->num;
        if (c <= -KVR_INFINITY || c >= KVR_INFINITY)
          in_.fail("'%.*s' is infinite; coefficients must be finite",
                   static_cast<int>(t->text.size()), t->text.data());
        advance();
        if (cur().type == Tk::Times && peek(1) == Tk::Name) advance();
        if (cur().type == Tk::Name && !at_label() && !is_inf(cur().text)) {
          add_term(lin, var(cur().text), c);
          advance();
        } else {
          constant += c;
        }
      } else if (t->type == Tk::Name && !(at_label())) {
        add_term(lin, var(t->text), sign);
        advance();
      } else {
        if (signed_term) expected("a term after the sign");
        return;
      }
      first = false;
    }
  }
  static bool is_inf(std::string_view s) { return iequals(s, "inf") || iequals(s, "infinity"); }

  // [ c x ^ 2 + c x * y ... ] [/ divisor]
  void bracket(QuadTerms &q, double sign) {
    expect(Tk::LBrack);
    size_t start = q.size();
    bool first = true;
    while (cur().type != Tk::RBrack) {
      double s = sign;
      bool signed_term = false;
      while (cur().type == Tk::Plus || cur().type == Tk::Minus) {
        if (cur().type == Tk::Minus) s = -s;
        signed_term = true;
        advance();
      }
      if (!first && !signed_term) expected("'+', '-' or ']' in the quadratic terms");
      double c = 1;
      if (cur().type == Tk::Num) {
        c = cur().num;
        advance();
      }
      if (cur().type != Tk::Name) expected("a variable in the quadratic terms");
      int a = var(cur().text), b;
      advance();
      if (accept(Tk::Pow)) {
        if (cur().type != Tk::Num || cur().num != 2) expected("the exponent 2");
        advance();
        b = a;
      } else if (accept(Tk::Times)) {
        if (cur().type != Tk::Name) expected("a variable after '*'");
        b = var(cur().text);
        advance();
      } else {
        expected("'^ 2' or '* variable' in the quadratic terms");
      }
      q.push(a, b, s * c);
      first = false;
    }
    advance();
    if (cur().type == Tk::Div) {
      advance();
      if (cur().type != Tk::Num || cur().num == 0) expected("a nonzero divisor after '/'");
      double div = cur().num;
      advance();
      for (size_t k = start; k < q.size(); ++k) q.val[k] /= div;
    }
    has_bracket_ = true;
  }

  // ---------------------------------------------------------------- sections

  std::string label() {
    std::string name;
    if (at_label()) {
      name = std::string(cur().text);
      if (name.size() > KVR_MAX_NAMELEN)
        in_.fail("name '%.20s...' is longer than %d characters", name.c_str(), KVR_MAX_NAMELEN);
      if (cur().type == Tk::Name) advance();  // the colon
      advance();
    }
    return name;
  }

  void objective() {
    ++objective_index_;
    if (!multi_ && objective_index_ > 0) expected("a section header after the objective");
    std::string name = label();
    if (multi_ && name.empty()) expected("the name of an objective (name:)");
    ObjectiveN o;
    o.name = name;
    if (multi_) {
      // Priority=2 Weight=1 AbsTol=0 RelTol=0
      while (cur().type == Tk::Name && peek(1) == Tk::Eq) {
        std::string key(cur().text);
        advance();
        advance();
        double v = value("a number");
        if (iequals(key, "Priority"))
          o.priority = static_cast<int>(v);
        else if (iequals(key, "Weight"))
          o.weight = v;
        else if (iequals(key, "AbsTol"))
          o.abstol = v;
        else if (iequals(key, "RelTol"))
          o.reltol = v;
        else
          in_.fail("unknown objective setting '%s' (expected Priority, Weight, AbsTol or RelTol)",
                   key.c_str());
      }
    }
    if (objective_index_ == 0) {
      Linear lin;
      double constant = 0;
      QuadTerms q;
      expression(lin, &q, constant);
      release(lin);
      for (size_t k = 0; k < lin.ind.size(); ++k) d_.add_obj(lin.ind[k], lin.val[k]);
      d_.set_objcon(constant);
      q.normalize();
      d_.set_q(std::move(q));
    } else {
      Linear lin;
      double constant = 0;
      expression(lin, nullptr, constant);
      release(lin);
      o.ind = std::move(lin.ind);
      o.val = std::move(lin.val);
      o.constant = constant;
    }
    d_.set_objective_n(objective_index_, std::move(o));
    const Token &t = cur();
    if (t.type != Tk::Section && t.type != Tk::Eof && !(multi_ && at_label()))
      expected("'+' or '-' or the next section");
  }

  void constraint() {
    std::string name = label();
    // Indicator: b = 0|1 -> linear sense rhs
    if (cur().type == Tk::Name && peek(1) == Tk::Eq && peek(2) == Tk::Num && peek(3) == Tk::Arrow) {
      indicator(std::move(name));
      return;
    }
    // The row buffer keeps its capacity from one constraint to the next.
    Linear &lin = row_;
    lin.ind.clear();
    lin.val.clear();
    double lhs_const = 0;
    has_bracket_ = false;
    QuadTerms q;
    // A range "lo <= expr <= hi" (or "hi >= expr >= lo") begins with a value and a sense.
    double lo;
    cur();
    size_t save = pos_;
    if (signed_value(lo, true) && is_sense(cur().type)) {
      Tk s1 = cur().type;
      advance();
      double c = 0;
      expression(lin, &q, c);
      if (has_bracket_) in_.fail("a range constraint cannot be quadratic");
      if (is_sense(cur().type)) {
        Tk s2 = cur().type;
        advance();
        double hi = value("a right-hand side");
        if (s1 != s2 || s1 == Tk::Eq)
          in_.fail("the two senses of a range constraint must both be <= or both be >=");
        if (s1 == Tk::Ge) std::swap(lo, hi);
        add_range_row(std::move(name), lin, lo - c, hi - c);
      } else if (lin.ind.empty()) {
        // "0 <= 3": a row without terms.
        add_row(std::move(name), lin, sense_char(s1), c - lo);
      } else {
        // "lo <= expr" is "expr >= lo".
        char s = s1 == Tk::Le ? KVR_GREATER_EQUAL : s1 == Tk::Ge ? KVR_LESS_EQUAL : KVR_EQUAL;
        add_row(std::move(name), lin, s, lo - c);
      }
      release(lin);
      return;
    }
    pos_ = save;
    expression(lin, &q, lhs_const);
    if (!is_sense(cur().type)) {
      release(lin);
      expected("'+', '-' or a sense (<=, >=, =)");
    }
    char sense = sense_char(cur().type);
    advance();
    double rhs = value("a right-hand side") - lhs_const;
    release(lin);
    if (has_bracket_) {
      if (lazy_ != 0) in_.fail("a lazy constraint cannot be quadratic");
      QConstr qc;
      qc.lind = std::move(lin.ind);
      qc.lval = std::move(lin.val);
      q.normalize();
      qc.q = std::move(q);
      qc.sense = sense;
      qc.rhs = rhs;
      d_.add_qconstr(std::move(qc), name);
      return;
    }
    add_row(std::move(name), lin, sense, rhs);
  }

  static bool is_sense(Tk t) { return t == Tk::Le || t == Tk::Ge || t == Tk::Eq; }
  static char sense_char(Tk t) {
    return t == Tk::Le ? KVR_LESS_EQUAL : t == Tk::Ge ? KVR_GREATER_EQUAL : KVR_EQUAL;
  }

  void add_row(std::string name, const Linear &lin, char sense, double rhs) {
    d_.add_constr(lin.ind, lin.val, sense, rhs, name);
    lazy_levels_.push_back(lazy_);
  }

  void add_range_row(std::string name, const Linear &lin, double lo, double hi) {
    bool lo_inf = lo <= -KVR_INFINITY, hi_inf = hi >= KVR_INFINITY;
    if (lo_inf != hi_inf) {
      add_row(std::move(name), lin, lo_inf ? KVR_LESS_EQUAL : KVR_GREATER_EQUAL, lo_inf ? hi : lo);
      return;
    }
    int row = d_.constrs.size();
    std::string rgname = "Rg";
    if (name.empty()) {
      rgname += 'R';
      rgname += std::to_string(row);
    } else {
      rgname += name;
    }
    add_row(std::move(name), lin, KVR_EQUAL, 0.0);
    // The range variable (coefficient -1 at the end of the row) comes after every file variable.
    ranges_.push_back(Range{d_.num_constrs() - 1, lo, hi, std::move(rgname)});
  }

  void indicator(std::string name) {
    int b = var(cur().text);
    advance();
    advance();
    double bv = cur().num;
    if (bv != 0 && bv != 1) in_.fail("the indicator value must be 0 or 1");
    advance();
    advance();
    Linear lin;
    double c = 0;
    expression(lin, nullptr, c);
    release(lin);
    if (!is_sense(cur().type)) expected("a sense (<=, >=, =) in the indicator constraint");
    GenConstr g;
    g.type = KVR_GENCONSTR_INDICATOR;
    g.binvar = b;
    g.binval = static_cast<int>(bv);
    g.sense = sense_char(cur().type);
    advance();
    g.rhs = value("a right-hand side") - c;
    g.ind = std::move(lin.ind);
    g.val = std::move(lin.val);
    d_.add_genconstr(std::move(g), name);
  }

  void bound() {
    const Token &t = cur();
    if (t.type == Tk::Name && !is_inf(t.text)) {
      int j = var(t.text);
      advance();
      if (cur().type == Tk::Name && iequals(cur().text, "free")) {
        advance();
        set_lb(j, -KVR_INFINITY), set_ub(j, KVR_INFINITY);
        return;
      }
      if (!is_sense(cur().type)) expected("'free' or a sense (<=, >=, =) after the variable");
      Tk s = cur().type;
      advance();
      double v = value("a bound");
      if (s == Tk::Le)
        set_ub(j, v);
      else if (s == Tk::Ge)
        set_lb(j, v);
      else
        set_lb(j, v), set_ub(j, v);
      return;
    }
    double v = value("a variable or a bound");
    if (!is_sense(cur().type)) expected("a sense (<=, >=, =)");
    Tk s = cur().type;
    advance();
    if (cur().type != Tk::Name || is_inf(cur().text)) expected("a variable");
    int j = var(cur().text);
    advance();
    if (s == Tk::Le)
      set_lb(j, v);
    else if (s == Tk::Ge)
      set_ub(j, v);
    else
      set_lb(j, v), set_ub(j, v);
    if (is_sense(cur().type)) {
      Tk s2 = cur().type;
      advance();
      double w = value("a bound");
      if (s2 != s || s == Tk::Eq)
        in_.fail("the two senses of a bound must both be <= or both be >=");
      if (s2 == Tk::Le)
        set_ub(j, w);
      else
        set_lb(j, w);
    }
  }
  void set_lb(int j, double v) { d_.set_lb(j, v), given_[j] |= 1; }
  void set_ub(int j, double v) { d_.set_ub(j, v), given_[j] |= 2; }

  void type_list() {
    const Token &t = cur();
    if (t.type != Tk::Name) expected("a variable name");
    int j = var(t.text);
    advance();
    const char vt = d_.vars.vtype[j];
    if (section_ == Sec::Binaries) {
      d_.set_vtype(j, KVR_BINARY);
    } else if (section_ == Sec::Generals) {
      d_.set_vtype(j, vt == KVR_SEMICONT || vt == KVR_SEMIINT ? KVR_SEMIINT : KVR_INTEGER);
    } else {
      d_.set_vtype(j, vt == KVR_INTEGER || vt == KVR_SEMIINT ? KVR_SEMIINT : KVR_SEMICONT);
    }
  }

  void sos() {
    label();
    const Token &t = cur();
    if ((t.type != Tk::Name && t.type != Tk::Label) || !is_sos_type(t.text)) expected("S1 or S2");
    int type = t.text[1] == '1' ? KVR_SOS_TYPE1 : KVR_SOS_TYPE2;
    bool colon_taken = t.type == Tk::Label;  // "S1:" first on a line
    advance();
    if (!colon_taken) expect(Tk::Colon);
    expect(Tk::Colon);
    d_.add_sos(type);
    // Members "x:1" or "x:-1" (a label when first on a line).
    auto signed_number_at = [&](size_t k) {
      Tk t = peek(k);
      return t == Tk::Num || ((t == Tk::Minus || t == Tk::Plus) && peek(k + 1) == Tk::Num);
    };
    for (;;) {
      int j;
      if (cur().type == Tk::Label && signed_number_at(1)) {
        j = var(cur().text);
        advance();
      } else if (cur().type == Tk::Name && peek(1) == Tk::Colon && signed_number_at(2)) {
        j = var(cur().text);
        advance();
        advance();
      } else {
        break;
      }
      double sign = 1;
      if (cur().type == Tk::Minus || cur().type == Tk::Plus) {
        sign = cur().type == Tk::Minus ? -1 : 1;
        advance();
      }
      d_.add_sos_member(j, sign * cur().num);
      advance();
    }
    const Token &e = cur();
    if (e.type != Tk::Section && e.type != Tk::Eof && !at_label() &&
        !(e.type == Tk::Name && is_sos_type(e.text)))
      expected("a member 'variable:weight'");
  }
  static bool is_sos_type(std::string_view s) { return iequals(s, "S1") || iequals(s, "S2"); }

  void genconstr() {
    std::string name = label();
    if (cur().type != Tk::Name) expected("a variable");
    if (peek(1) == Tk::Eq && peek(2) == Tk::Num && peek(3) == Tk::Arrow) {
      indicator(std::move(name));
      return;
    }
    int res = var(cur().text);
    advance();
    expect(Tk::Eq);
    if (cur().type != Tk::Name) expected("a function (MAX, MIN, ABS, AND, OR, NORM, PWL, ...)");
    std::string_view fn = cur().text;
    GenConstr g;
    int type = genconstr_type(fn);
    if (type < 0 && fn.size() > 4 && iequals(fn.substr(0, 4), "NORM")) {
      type = KVR_GENCONSTR_NORM;
      std::string_view w = fn.substr(4);
      if (iequals(w, "INF")) {
        g.constant = KVR_INFINITY;
      } else if (!to_double(w, g.constant) ||
                 (g.constant != 0 && g.constant != 1 && g.constant != 2)) {
        in_.fail("unknown norm '%.*s' (expected NORM0, NORM1, NORM2 or NORMINF)",
                 static_cast<int>(fn.size()), fn.data());
      }
    } else if (type == KVR_GENCONSTR_NORM || type == KVR_GENCONSTR_INDICATOR || type < 0) {
      in_.fail("unknown function '%.*s' of a general constraint", static_cast<int>(fn.size()),
               fn.data());
    }
    g.type = type;
    advance();
    expect(Tk::LParen);
    if (!is_function_genconstr(type)) {
      g.resvar = res;
      if (type == KVR_GENCONSTR_MAX) g.constant = -KVR_INFINITY;
      if (type == KVR_GENCONSTR_MIN) g.constant = KVR_INFINITY;
      bool have_constant = false;
      for (bool first = true; cur().type != Tk::RParen; first = false) {
        if (!first) expect(Tk::Comma);
        double v;
        if (cur().type == Tk::Name && !is_inf(cur().text)) {
          g.vars.push_back(var(cur().text));
          advance();
        } else if ((type == KVR_GENCONSTR_MAX || type == KVR_GENCONSTR_MIN) && !have_constant &&
                   signed_value(v, true)) {
          g.constant = v;
          have_constant = true;
        } else {
          expected(type == KVR_GENCONSTR_MAX || type == KVR_GENCONSTR_MIN
                       ? "a variable or one constant"
                       : "a variable");
        }
      }
      advance();
      if (type == KVR_GENCONSTR_ABS && g.vars.size() != 1)
        in_.fail("ABS takes exactly one variable");
    } else {
      g.yvar = res;
      if (cur().type != Tk::Name) expected("a variable");
      g.xvar = var(cur().text);
      advance();
      if (has_parameter_a(type)) {
        expect(Tk::Comma);
        g.a = value("the parameter a");
      }
      expect(Tk::RParen);
      if (type == KVR_GENCONSTR_PWL) {
        if (!(cur().type == Tk::Name && iequals(cur().text, "POINTS"))) expected("POINTS");
        advance();
        while (cur().type == Tk::LParen) {
          advance();
          g.xpts.push_back(value("the x of a point"));
          expect(Tk::Comma);
          g.ypts.push_back(value("the y of a point"));
          expect(Tk::RParen);
        }
        if (g.xpts.empty()) expected("a point '( x , y )'");
      }
      if (type == KVR_GENCONSTR_POLY) {
        if (!(cur().type == Tk::Name && iequals(cur().text, "COEFS"))) expected("COEFS");
        advance();
        expect(Tk::LParen);
        for (bool first = true; cur().type != Tk::RParen; first = false) {
          if (!first) expect(Tk::Comma);
          g.p.push_back(value("a coefficient"));
        }
        advance();
        if (g.p.empty()) in_.fail("POLY needs at least one coefficient");
      }
      // FuncPieces=.. FuncPieceError=.. FuncPieceLength=.. FuncPieceRatio=.. Options=text
      while (cur().type == Tk::Name && peek(1) == Tk::Eq) {
        std::string key(cur().text);
        if (iequals(key, "Options")) {
          const Token &eq = peek_token(1);
          std::string_view rest(
              eq.text.data() + 1,
              static_cast<size_t>(line_.data() + line_.size() - eq.text.data() - 1));
          g.options = std::string(trim(rest));
          pos_ = toks_.size();
          break;
        }
        advance();
        advance();
        double v = value("a number");
        if (!set_funcpiece(g, key, v))
          in_.fail(
              "unknown setting '%s' (expected FuncPieces, FuncPieceError, FuncPieceLength, "
              "FuncPieceRatio or Options)",
              key.c_str());
      }
    }
    d_.add_genconstr(std::move(g), name);
  }

  void pwlobj() {
    if (!at_label()) expected("a variable followed by ':'");
    int j = var(label());
    for (const PwlObj &p : d_.pwlobj)
      if (p.var == j)
        in_.fail("second piecewise-linear objective for variable '%.*s'",
                 static_cast<int>(d_.vars.names.get(j).size()), d_.vars.names.get(j).data());
    PwlObj p;
    p.var = j;
    while (cur().type == Tk::LParen) {
      advance();
      p.x.push_back(value("the x of a point"));
      expect(Tk::Comma);
      p.y.push_back(value("the y of a point"));
      expect(Tk::RParen);
      if (p.x.size() > 1 && p.x[p.x.size() - 1] < p.x[p.x.size() - 2])
        in_.fail("the x values of the points decrease");
    }
    if (p.x.empty()) expected("a point '( x , y )'");
    d_.add_pwl_obj(std::move(p));
  }

  // ---------------------------------------------------------------- the model

  void finish() {
    int n = d_.vars.size();
    for (int j = 0; j < n; ++j)
      if (d_.vars.vtype[j] == KVR_BINARY) {
        if (!(given_[j] & 1)) d_.set_lb(j, 0.0);
        if (!(given_[j] & 2)) d_.set_ub(j, 1.0);
      }
    std::vector<SparseMatrix::Entry> range_entries;
    for (const Range &r : ranges_)
      range_entries.push_back({r.row, d_.add_var(r.lo, r.hi, 0.0, KVR_CONTINUOUS, r.name), -1.0});
    d_.add_matrix_entries(range_entries);
    for (int level : lazy_levels_)
      if (level != 0) {
        set_lazy_levels(d_, lazy_levels_);
        break;
      }
  }

  struct Range {
    int row;
    double lo, hi;
    std::string name;
  };

  LineReader &in_;
  ModelData d_;
  NameIndex vars_;
  std::string_view line_;
  std::vector<Token> toks_;
  size_t pos_ = 0;
  bool eof_ = false;

  Sec section_ = Sec::None, pending_ = Sec::None;
  int pending_level_ = 1, pending_sense_ = KVR_MINIMIZE;
  bool pending_multi_ = false, multi_ = false, objective_seen_ = false, has_bracket_ = false;
  int objective_index_ = -1;
  int lazy_ = 0;

  std::vector<uint8_t> given_;  // bit 0: lower bound given, bit 1: upper bound given
  std::vector<int> slot_;
  std::vector<int> lazy_levels_;
  std::vector<Range> ranges_;
  Linear row_;
};

}  // namespace

ModelData read_lp(LineReader &in) { return LpReader(in).read(); }

}  // namespace kvr::io
