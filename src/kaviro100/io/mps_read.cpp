// MPS reader, free and fixed format.
//
// Lines are split at blanks (free format). A data line that does not make sense that way is read
// again by the fixed-format columns (2-3, 5-12, 15-22, 25-36, 40-47, 50-61), which allow blanks
// inside names. Besides the classic sections (NAME, OBJSENSE, OBJNAME, ROWS, COLUMNS, RHS, RANGES,
// BOUNDS, ENDATA) the reader knows LAZYCONS (rows with a lazy level), QUADOBJ / QMATRIX
// (quadratic objective), QCMATRIX (quadratic constraints), SOS, INDICATORS, GENCONS (general
// constraints) and PWLOBJ (piecewise-linear objectives); see mps_write.cpp for their layout.
//
// Conventions: the objective is the first N row (or the one OBJNAME names); further N rows are
// dropped. The RHS of the objective row is minus the objective constant. An integer column (between
// INTORG/INTEND markers) without any bound entry has bounds [0, 1]. UP with a negative value on a
// column whose lower bound was never given makes the lower bound -infinity. A range on a row gives
// it a range variable "Rg<row>" (appended after the file's columns), as the library does for range
// constraints.
#include <cmath>
#include <string>
#include <unordered_map>
#include <vector>

#include "io/formats.h"
#include "io/nameindex.h"
#include "util/error.h"

namespace kvr::io {

namespace {

constexpr int kMaxFields = 16;

// Splits at blanks; returns the number of fields (fields beyond kMaxFields are counted only).
int split(std::string_view line, std::string_view *f) {
  int n = 0;
  size_t i = 0, len = line.size();
  const char *s = line.data();
  while (i < len) {
    while (i < len && (s[i] == ' ' || s[i] == '\t')) ++i;
    if (i >= len) break;
    size_t b = i;
    while (i < len && s[i] != ' ' && s[i] != '\t') ++i;
    if (n < kMaxFields) f[n] = std::string_view(s + b, i - b);
    ++n;
  }
  return n;
}

std::string_view trim_blanks(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
}

// Field of a fixed-format line: 1-based columns [from, to], blanks trimmed.
std::string_view fixed_field(std::string_view line, size_t from, size_t to) {
  if (line.size() < from) return {};
  return trim_blanks(line.substr(from - 1, std::min(to, line.size()) - from + 1));
}

bool upper_equals(std::string_view s, std::string_view upper) {
  if (s.size() != upper.size()) return false;
  for (size_t i = 0; i < s.size(); ++i) {
    char c = s[i];
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    if (c != upper[i]) return false;
  }
  return true;
}

enum class Section {
  None,
  Name,
  ObjSense,
  ObjName,
  Rows,
  Columns,
  Rhs,
  Ranges,
  Bounds,
  QuadObj,
  QMatrix,
  QCMatrix,
  Sos,
  Indicators,
  GenCons,
  PwlObj,
  End
};

enum RowKind : char { kLinear = 0, kQuadratic = 1, kIndicator = 2, kFree = 3 };

// Bits of the per-column bound state.
enum : uint8_t { kLbGiven = 1, kUbGiven = 2, kAnyBound = 4 };

class MpsReader {
 public:
  explicit MpsReader(LineReader &in) : in_(in), col_index_(d_.vars.names), row_index_(row_names_) {}

  ModelData read() {
    std::string_view line;
    while (in_.next(line)) {
      if (line.empty() || line[0] == '*') continue;
      if (line[0] != ' ' && line[0] != '\t') {
        header(line);
        if (section_ == Section::End) break;
        continue;
      }
      if (trim_blanks(line).empty()) continue;
      data_line(line);
    }
    if (section_ != Section::End) in_.fail("unexpected end of file: expected ENDATA");
    finish();
    return std::move(d_);
  }

 private:
  // ---------------------------------------------------------------- section headers

  void header(std::string_view line) {
    int n = split(line, f_);  // a NAME line may hold many: the name runs to its end
    std::string_view key = f_[0];
    static const struct {
      const char *name;
      Section section;
    } kSections[] = {{"NAME", Section::Name},        {"OBJSENSE", Section::ObjSense},
                     {"OBJSENS", Section::ObjSense}, {"OBJNAME", Section::ObjName},
                     {"ROWS", Section::Rows},        {"LAZYCONS", Section::Rows},
                     {"COLUMNS", Section::Columns},  {"RHS", Section::Rhs},
                     {"RANGES", Section::Ranges},    {"BOUNDS", Section::Bounds},
                     {"QUADOBJ", Section::QuadObj},  {"QSECTION", Section::QuadObj},
                     {"QMATRIX", Section::QMatrix},  {"QCMATRIX", Section::QCMatrix},
                     {"SOS", Section::Sos},          {"INDICATORS", Section::Indicators},
                     {"GENCONS", Section::GenCons},  {"PWLOBJ", Section::PwlObj},
                     {"ENDATA", Section::End}};
    Section s = Section::None;
    for (const auto &k : kSections)
      if (upper_equals(key, k.name)) s = k.section;
    if (s == Section::None)
      in_.fail("unknown section '%.*s' (data lines must begin with a blank)",
               static_cast<int>(key.size()), key.data());
    // Row declarations, matrix and right-hand sides come in the classic order; later sections
    // refer to rows and columns by name.
    int rank = section_rank(s);
    if (rank < last_rank_)
      in_.fail("section %.*s cannot follow section %s", static_cast<int>(key.size()), key.data(),
               rank_name_);
    if (s != Section::ObjSense) {
      last_rank_ = rank;
      rank_name_ = nullptr;
      for (const auto &k : kSections)
        if (k.section == s) {
          rank_name_ = k.name;
          break;
        }
    }
    section_ = s;
    switch (s) {
      case Section::Name: {
        // The rest of the line up to a run of blanks: fixed-format files put the name in
        // columns 15-22 and may add notes after it ("AFIRO   SIZE: ...").
        std::string_view rest = trim_blanks(trim_blanks(line).substr(key.size()));
        size_t cut = std::min(rest.find("  "), rest.find('\t'));
        d_.set_model_name(trim_blanks(rest.substr(0, cut)));
      } break;
      case Section::ObjSense:
        if (n >= 2) set_sense(f_[1]);
        break;
      case Section::ObjName:
        if (n >= 2) set_objname(f_[1]);
        break;
      case Section::Rows:
        lazy_ = 0;
        if (upper_equals(key, "LAZYCONS")) {
          lazy_ = 1;
          long long level;
          if (n >= 2) {
            if (!to_int(f_[1], level) || level < -1 || level > 3 || level == 0)
              in_.fail("expected a lazy level (-1, 1, 2 or 3) after LAZYCONS, found '%.*s'",
                       static_cast<int>(f_[1].size()), f_[1].data());
            lazy_ = static_cast<int>(level);
          }
        }
        break;
      case Section::QCMatrix: {
        if (n < 2) in_.fail("expected the name of a row after QCMATRIX");
        int r = find_row(f_[1]);
        if (row_kind_[r] == kFree) in_.fail("QCMATRIX for objective or free row '%s'", row_name(r));
        if (row_kind_[r] == kIndicator)
          in_.fail("row '%s' is an indicator constraint and cannot be quadratic", row_name(r));
        if (has_range(r)) in_.fail("row '%s' has a range; quadratic rows cannot", row_name(r));
        if (row_kind_[r] == kQuadratic) in_.fail("second QCMATRIX for row '%s'", row_name(r));
        row_kind_[r] = kQuadratic;
        qc_row_ = r;
        qrows_[r];
        break;
      }
      default:
        if (n > 1)
          in_.fail("unexpected text after section name %.*s", static_cast<int>(key.size()),
                   key.data());
    }
    gen_ = -1;
  }

  static int section_rank(Section s) {
    switch (s) {
      case Section::Name:
        return 0;
      case Section::ObjSense:  // anywhere before the extension sections
      case Section::ObjName:
        return 1;
      case Section::Rows:
        return 2;
      case Section::Columns:
        return 3;
      case Section::Rhs:
      case Section::Ranges:
      case Section::Bounds:
        return 4;
      default:
        return 5;  // the extension sections, in any order, repeatable
    }
  }

  void set_sense(std::string_view s) {
    if (upper_equals(s, "MAX") || upper_equals(s, "MAXIMIZE") || upper_equals(s, "MAXIMISE"))
      d_.set_objsense(KVR_MAXIMIZE);
    else if (upper_equals(s, "MIN") || upper_equals(s, "MINIMIZE") || upper_equals(s, "MINIMISE"))
      d_.set_objsense(KVR_MINIMIZE);
    else
      in_.fail("expected MAX or MIN as the objective sense, found '%.*s'",
               static_cast<int>(s.size()), s.data());
  }

  void set_objname(std::string_view s) {
    objname_ = std::string(s);
    objname_line_ = in_.line_number();
  }

  // ---------------------------------------------------------------- data lines

  void data_line(std::string_view line) {
    int n = split(line, f_);
    // No data line has this many fields; the line handlers index f_ by n.
    if (n > kMaxFields)
      in_.fail("%d fields on one line (at most %d are meaningful)", n, kMaxFields);
    switch (section_) {
      case Section::None:
        in_.fail("data line before the first section");
      case Section::Name:
        in_.fail("unexpected data line in NAME section");
      case Section::ObjSense:
        if (n != 1) in_.fail("expected MAX or MIN in OBJSENSE section");
        set_sense(f_[0]);
        return;
      case Section::ObjName:
        if (n != 1) in_.fail("expected the name of the objective row in OBJNAME section");
        set_objname(f_[0]);
        return;
      case Section::Rows:
        return row_line(line, n);
      case Section::Columns:
        return column_line(line, n);
      case Section::Rhs:
      case Section::Ranges:
        return rhs_line(line, n, section_ == Section::Ranges);
      case Section::Bounds:
        return bound_line(line, n);
      case Section::QuadObj:
      case Section::QMatrix:
      case Section::QCMatrix:
        return quad_line(n);
      case Section::Sos:
        return sos_line(n);
      case Section::Indicators:
        return indicator_line(n);
      case Section::GenCons:
        return gencon_line(line, n);
      case Section::PwlObj:
        return pwl_line(n);
      case Section::End:
        return;
    }
  }

  const char *row_name(int r) const {
    name_buf_ = row_names_.get(static_cast<size_t>(r));
    return name_buf_.c_str();
  }
  const char *col_name(int j) const {
    name_buf2_ = d_.vars.names.get(static_cast<size_t>(j));
    return name_buf2_.c_str();
  }

  int find_row(std::string_view name) {
    int r = row_index_.find(name);
    if (r < 0) in_.fail("unknown row '%.*s'", static_cast<int>(name.size()), name.data());
    return r;
  }
  int find_col(std::string_view name) {
    int j = col_index_.find(name);
    if (j < 0) in_.fail("unknown column '%.*s'", static_cast<int>(name.size()), name.data());
    return j;
  }

  bool has_range(int r) const { return !std::isnan(range_[r]); }

  void check_name(std::string_view name) {
    if (name.size() > KVR_MAX_NAMELEN)
      in_.fail("name '%.20s...' is longer than %d characters", name.data(), KVR_MAX_NAMELEN);
  }

  void row_line(std::string_view line, int n) {
    std::string_view type, name;
    if (n == 2) {
      type = f_[0], name = f_[1];
    } else {
      // Fixed format: a name with blanks in columns 5-12.
      type = fixed_field(line, 2, 3), name = fixed_field(line, 5, 12);
      if (type.empty() || name.empty() ||
          (line.size() > 12 && !trim_blanks(line.substr(12)).empty()))
        in_.fail("expected a row type and a row name");
    }
    char t = type.size() == 1 ? static_cast<char>(type[0] & ~0x20) : '?';
    if (t != 'N' && t != 'L' && t != 'G' && t != 'E')
      in_.fail("unknown row type '%.*s' (expected N, L, G or E)", static_cast<int>(type.size()),
               type.data());
    check_name(name);
    int r = static_cast<int>(row_names_.size());
    row_names_.push_back(name);
    if (row_index_.add(r) != r)
      in_.fail("row '%.*s' is declared twice", static_cast<int>(name.size()), name.data());
    row_type_.push_back(t);
    row_kind_.push_back(t == 'N' ? kFree : kLinear);
    rhs_.push_back(0.0);
    range_.push_back(std::nan(""));
    row_lazy_.push_back(static_cast<signed char>(t == 'N' ? 0 : lazy_));
    if (t == 'N' && obj_row_ < 0 && (objname_.empty() || objname_ == name)) obj_row_ = r;
  }

  // Adds a column; returns its index.
  int new_column(std::string_view name) {
    check_name(name);
    int j = d_.add_var(0.0, KVR_INFINITY, 0.0, integer_ ? KVR_INTEGER : KVR_CONTINUOUS, name);
    col_index_.add(j);
    bound_state_.push_back(0);
    return j;
  }

  void column_entry(int j, std::string_view rowname, std::string_view value) {
    int r = row_index_.find(rowname);
    if (r < 0)
      in_.fail("unknown row '%.*s' in the entry of column '%s'", static_cast<int>(rowname.size()),
               rowname.data(), col_name(j));
    double v;
    if (!to_double(value, v))
      in_.fail("expected a number for the coefficient of column '%s' in row '%s', found '%.*s'",
               col_name(j), row_name(r), static_cast<int>(value.size()), value.data());
    if (v <= -KVR_INFINITY || v >= KVR_INFINITY)
      in_.fail(
          "the coefficient of column '%s' in row '%s' is infinite; coefficients must be finite",
          col_name(j), row_name(r));
    if (r == obj_row_) {
      if (obj_seen_.size() <= static_cast<size_t>(j)) obj_seen_.resize(static_cast<size_t>(j) + 1);
      if (obj_seen_[j]) in_.fail("second objective entry for column '%s'", col_name(j));
      obj_seen_[j] = 1;
      d_.set_obj(j, v);
      return;
    }
    if (row_kind_[r] == kFree) return;
    if (mark_col_[r] == j)
      in_.fail("second entry for column '%s' in row '%s'", col_name(j), row_name(r));
    mark_col_[r] = j;
    trow_.push_back(r);
    tcol_.push_back(j);
    tval_.push_back(v);
  }

  // A data line of COLUMNS, RHS or RANGES: a name (column or set) and one or two (row, value)
  // pairs.
  struct Entries {
    std::string_view name, r1, v1, r2, v2;
  };
  // Free format from field `first` (1: field 0 is the name): one or two pairs of a known row and
  // a number.
  bool free_entries_fit(int first, int n) const {
    int k = n - first;
    if (k != 2 && k != 4) return false;
    double v;
    return row_index_.find(f_[first]) >= 0 && to_double(f_[first + 1], v) &&
           (k == 2 || (row_index_.find(f_[first + 2]) >= 0 && to_double(f_[first + 3], v)));
  }
  Entries free_entries(int first, int n) const {
    Entries e;
    if (first == 1) e.name = f_[0];
    e.r1 = f_[first], e.v1 = f_[first + 1];
    if (n == first + 4) e.r2 = f_[first + 2], e.v2 = f_[first + 3];
    return e;
  }
  // Fixed format (columns 5-12, 15-22, 25-36, 40-47, 50-61), recognised by a known first row.
  bool fixed_entries_fit(std::string_view line) const {
    return line.size() >= 25 && row_index_.find(fixed_field(line, 15, 22)) >= 0;
  }
  static Entries fixed_entries(std::string_view line) {
    return {fixed_field(line, 5, 12), fixed_field(line, 15, 22), fixed_field(line, 25, 36),
            fixed_field(line, 40, 47), fixed_field(line, 50, 61)};
  }

  void column_line(std::string_view line, int n) {
    if (mark_col_.size() != row_names_.size()) mark_col_.assign(row_names_.size(), -1);
    if (n >= 3 && f_[1] == "'MARKER'") {
      if (f_[2] == "'INTORG'")
        integer_ = true;
      else if (f_[2] == "'INTEND'")
        integer_ = false;
      else
        in_.fail("expected 'INTORG' or 'INTEND' after 'MARKER', found '%.*s'",
                 static_cast<int>(f_[2].size()), f_[2].data());
      return;
    }
    Entries e;
    if (free_entries_fit(1, n)) {
      e = free_entries(1, n);
    } else if (fixed_entries_fit(line)) {
      e = fixed_entries(line);
      if (e.name.empty()) in_.fail("expected a column name");
      if (!e.r2.empty() && e.v2.empty())
        in_.fail("expected a value after row '%.*s'", static_cast<int>(e.r2.size()), e.r2.data());
    } else if (n == 3 || n == 5) {
      e = free_entries(1, n);
    } else {
      in_.fail("expected a column name followed by one or two pairs of row name and value");
    }
    std::string_view col = e.name;
    int j = cur_col_;
    if (j < 0 || d_.vars.names.get(static_cast<size_t>(j)) != col) {
      j = col_index_.find(col);
      if (j < 0) {
        j = new_column(col);
      } else if (integer_ != (d_.vars.vtype[j] == KVR_INTEGER)) {
        in_.fail("column '%.*s' appears again with another integer marker",
                 static_cast<int>(col.size()), col.data());
      } else {
        // A column that appears again later: its entries may repeat rows of other runs.
        mark_col_.assign(row_names_.size(), -1);
      }
      cur_col_ = j;
    }
    column_entry(j, e.r1, e.v1);
    if (!e.r2.empty()) column_entry(j, e.r2, e.v2);
  }

  // RHS and RANGES: [set] row value [row value].
  void rhs_line(std::string_view line, int n, bool ranges) {
    Entries e;
    if (free_entries_fit(0, n)) {
      e = free_entries(0, n);
    } else if (free_entries_fit(1, n)) {
      e = free_entries(1, n);
    } else if (fixed_entries_fit(line)) {
      e = fixed_entries(line);
    } else {
      // Report the first thing that is wrong in the free reading.
      int first = (n % 2 == 1) ? 1 : 0;
      if (n < 2 || n > 5)
        in_.fail("expected an optional set name and one or two pairs of row name and value");
      for (int k = first; k + 1 < n; k += 2) {
        find_row(f_[k]);
        in_.number(f_[k + 1], ranges ? "a range" : "a right-hand side");
      }
      in_.fail("expected an optional set name and one or two pairs of row name and value");
    }
    std::string_view set = e.name;
    std::string &chosen = ranges ? range_set_ : rhs_set_;
    bool &chosen_set = ranges ? range_set_chosen_ : rhs_set_chosen_;
    if (!set.empty()) {
      if (!chosen_set) {
        chosen = std::string(set);
        chosen_set = true;
      } else if (chosen != set) {
        return;  // only the first set counts
      }
    }
    rhs_entry(e.r1, e.v1, ranges);
    if (!e.r2.empty()) rhs_entry(e.r2, e.v2, ranges);
  }

  void rhs_entry(std::string_view rowname, std::string_view value, bool ranges) {
    int r = find_row(rowname);
    double v = in_.number(value, ranges ? "a range" : "a right-hand side");
    if (ranges) {
      if (row_type_[r] == 'N') return;
      if (row_kind_[r] != kLinear)
        in_.fail("row '%s' is a quadratic or indicator constraint and cannot have a range",
                 row_name(r));
      range_[r] = v;
    } else if (r == obj_row_) {
      d_.set_objcon(-v);
    } else if (row_type_[r] != 'N') {
      rhs_[r] = v;
    }
  }

  void bound_line(std::string_view line, int n) {
    if (n < 2) in_.fail("expected a bound type and a column name");
    std::string_view type = f_[0];
    static const char *kTypes[] = {"UP", "LO", "FX", "FR", "MI", "PL",
                                   "BV", "LI", "UI", "SC", "SI"};
    int kind = -1;
    for (int k = 0; k < 11; ++k)
      if (upper_equals(type, kTypes[k])) kind = k;
    if (kind < 0)
      in_.fail("unknown bound type '%.*s' (expected UP, LO, FX, FR, MI, PL, BV, LI, UI, SC or SI)",
               static_cast<int>(type.size()), type.data());
    // FR, MI, PL and BV take no value; SC and SI may omit it; BV may carry one.
    bool needs_value = kind <= 2 || kind == 7 || kind == 8;
    bool optional_value = kind == 6 || kind == 9 || kind == 10;
    std::string_view set, col, value;
    double v = 0.0;
    auto known = [&](std::string_view c) { return col_index_.find(c) >= 0; };
    bool ok = false;
    if (needs_value) {
      if (n == 3 && known(f_[1]) && to_double(f_[2], v))
        col = f_[1], value = f_[2], ok = true;
      else if (n == 4 && known(f_[2]) && to_double(f_[3], v))
        set = f_[1], col = f_[2], value = f_[3], ok = true;
    } else if (optional_value) {
      if (n == 2 && known(f_[1]))
        col = f_[1], ok = true;
      else if (n == 3 && known(f_[1]) && to_double(f_[2], v))
        col = f_[1], value = f_[2], ok = true;
      else if (n == 3 && known(f_[2]))
        set = f_[1], col = f_[2], ok = true;
      else if (n == 4 && known(f_[2]) && to_double(f_[3], v))
        set = f_[1], col = f_[2], value = f_[3], ok = true;
    } else {
      if (n == 2 && known(f_[1]))
        col = f_[1], ok = true;
      else if (n == 3 && known(f_[2]))
        set = f_[1], col = f_[2], ok = true;
    }
    if (!ok && line.size() >= 15 && known(fixed_field(line, 15, 22))) {
      set = fixed_field(line, 5, 12), col = fixed_field(line, 15, 22);
      value = fixed_field(line, 25, 36);
      ok = value.empty() ? !needs_value : to_double(value, v);
    }
    if (!ok) {
      // Say what is wrong with the free reading: the column, else the value, else the layout.
      int ci = needs_value                                 ? std::max(1, n - 2)
               : optional_value && n >= 3 && !known(f_[1]) ? 2
                                                           : n - 1;
      if (ci < n && !known(f_[ci]))
        in_.fail("unknown column '%.*s' in bound of type %s", static_cast<int>(f_[ci].size()),
                 f_[ci].data(), kTypes[kind]);
      if (needs_value && n >= 3) in_.number(f_[n - 1], "a bound");
      in_.fail("expected %s after bound type %s",
               needs_value ? "[set name] column name and value" : "[set name] column name",
               kTypes[kind]);
    }
    if (!set.empty()) {
      if (!bound_set_chosen_) {
        bound_set_ = std::string(set);
        bound_set_chosen_ = true;
      } else if (bound_set_ != set) {
        return;
      }
    }
    int j = col_index_.find(col);
    double lb = d_.vars.lb[j], ub = d_.vars.ub[j];
    char vt = d_.vars.vtype[j];
    uint8_t &st = bound_state_[j];
    st |= kAnyBound;
    switch (kind) {
      case 0:  // UP
        if (v < 0 && lb == 0.0 && !(st & kLbGiven)) lb = -KVR_INFINITY;
        ub = v, st |= kUbGiven;
        break;
      case 1:  // LO
        lb = v, st |= kLbGiven;
        break;
      case 2:  // FX
        lb = ub = v, st |= kLbGiven | kUbGiven;
        break;
      case 3:  // FR
        lb = -KVR_INFINITY, ub = KVR_INFINITY, st |= kLbGiven | kUbGiven;
        break;
      case 4:  // MI
        lb = -KVR_INFINITY, st |= kLbGiven;
        break;
      case 5:  // PL
        ub = KVR_INFINITY, st |= kUbGiven;
        break;
      case 6:  // BV
        vt = KVR_BINARY, lb = 0.0, ub = 1.0, st |= kLbGiven | kUbGiven;
        break;
      case 7:  // LI
        vt = KVR_INTEGER, lb = v, st |= kLbGiven;
        break;
      case 8:  // UI
        if (v < 0 && lb == 0.0 && !(st & kLbGiven)) lb = -KVR_INFINITY;
        vt = KVR_INTEGER, ub = v, st |= kUbGiven;
        break;
      case 9:   // SC
      case 10:  // SI
        vt = (kind == 10 || vt == KVR_INTEGER) ? KVR_SEMIINT : KVR_SEMICONT;
        ub = value.empty() ? KVR_INFINITY : v, st |= kUbGiven;
        break;
    }
    d_.set_bounds(j, lb, ub);
    d_.set_vtype(j, vt);
  }

  // QUADOBJ (upper triangle of Q in 1/2 x'Qx), QMATRIX (all of Q), QCMATRIX (all of Q in x'Qx).
  void quad_line(int n) {
    if (n != 3) in_.fail("expected two column names and a value");
    int a = find_col(f_[0]), b = find_col(f_[1]);
    double v = in_.number(f_[2], "a quadratic coefficient");
    if (section_ == Section::QuadObj) {
      if (a == b) v *= 0.5;
      q_.push(a, b, v);
      return;
    }
    // Both triangles are listed: in x'Qx each entry is a term of its own.
    if (section_ == Section::QMatrix) v *= 0.5;
    QuadTerms &q = section_ == Section::QMatrix ? q_ : qrows_[qc_row_];
    q.push(a, b, v);
  }

  void sos_line(int n) {
    bool is_header = false;
    int type = 0;
    if (n >= 1 && (upper_equals(f_[0], "S1") || upper_equals(f_[0], "S2"))) {
      double w;
      is_header = n == 1 || !to_double(f_[1], w) || n > 2;
      type = f_[0][1] == '1' ? KVR_SOS_TYPE1 : KVR_SOS_TYPE2;
    }
    if (is_header) {
      d_.add_sos(type);
      return;
    }
    if (d_.sos.size() == 0) in_.fail("expected S1 or S2 to begin a set");
    std::string_view col, w;
    if (n == 2) {
      col = f_[0], w = f_[1];
    } else if (n == 1 && f_[0].find(':') != std::string_view::npos) {
      size_t c = f_[0].rfind(':');
      col = f_[0].substr(0, c), w = f_[0].substr(c + 1);
    } else {
      in_.fail("expected a column name and a weight");
    }
    int j = find_col(col);
    d_.add_sos_member(j, in_.number(w, "an SOS weight"));
  }

  void indicator_line(int n) {
    if (n != 4 || !upper_equals(f_[0], "IF"))
      in_.fail("expected IF, a row name, a binary column name and 0 or 1");
    int r = find_row(f_[1]);
    if (row_type_[r] == 'N') in_.fail("row '%s' is the objective or free", row_name(r));
    if (row_kind_[r] == kQuadratic)
      in_.fail("row '%s' is quadratic and cannot be an indicator", row_name(r));
    if (row_kind_[r] == kIndicator) in_.fail("row '%s' has an indicator already", row_name(r));
    if (has_range(r)) in_.fail("row '%s' has a range; indicator rows cannot", row_name(r));
    int b = find_col(f_[2]);
    long long val;
    if (!to_int(f_[3], val) || (val != 0 && val != 1))
      in_.fail("expected 0 or 1 as the indicator value, found '%.*s'",
               static_cast<int>(f_[3].size()), f_[3].data());
    row_kind_[r] = kIndicator;
    GenConstr g;
    g.type = KVR_GENCONSTR_INDICATOR;
    g.binvar = b;
    g.binval = static_cast<int>(val);
    g.resvar = r;  // the row, resolved in finish()
    add_genconstr(std::move(g), row_names_.get(static_cast<size_t>(r)));
  }

  // GENCONS: a header line "TYPE name", then one line per item ("RES r", "ARG x", "CONST c",
  // "WHICH w", "X x", "Y y", "POINT x y", "COEF c", "A a", "FUNCPIECES n", ..., "OPTIONS text").
  void gencon_line(std::string_view line, int n) {
    int type = genconstr_type(f_[0]);
    if (type >= 0 && type != KVR_GENCONSTR_INDICATOR) {
      if (n != 2) in_.fail("expected a general constraint type and name");
      GenConstr g;
      g.type = type;
      if (type == KVR_GENCONSTR_MAX) g.constant = -KVR_INFINITY;
      if (type == KVR_GENCONSTR_MIN) g.constant = KVR_INFINITY;
      if (type == KVR_GENCONSTR_NORM) g.constant = -1;  // must be given
      gen_ = add_genconstr(std::move(g), f_[1]);
      gen_lines_.resize(static_cast<size_t>(gen_) + 1);
      gen_lines_[gen_] = in_.line_number();
      return;
    }
    if (gen_ < 0) in_.fail("expected a general constraint type (MAX, MIN, ABS, ...) and a name");
    GenConstr &g = gens_[gen_];
    std::string_view key = f_[0];
    bool fn = is_function_genconstr(g.type);
    auto need = [&](int count) {
      if (n != count)
        in_.fail("expected %d field%s after %.*s", count - 1, count == 2 ? "" : "s",
                 static_cast<int>(key.size()), key.data());
    };
    if (upper_equals(key, "OPTIONS") && fn) {
      std::string_view rest = trim_blanks(line);
      rest = trim_blanks(rest.substr(key.size()));
      g.options = std::string(rest);
    } else if (upper_equals(key, "RES") && !fn) {
      need(2);
      g.resvar = find_col(f_[1]);
    } else if (upper_equals(key, "ARG") && !fn) {
      need(2);
      g.vars.push_back(find_col(f_[1]));
    } else if (upper_equals(key, "CONST") &&
               (g.type == KVR_GENCONSTR_MAX || g.type == KVR_GENCONSTR_MIN)) {
      need(2);
      g.constant = in_.number(f_[1], "the constant");
    } else if (upper_equals(key, "WHICH") && g.type == KVR_GENCONSTR_NORM) {
      need(2);
      g.constant = in_.number(f_[1], "the norm");
      if (g.constant != 0 && g.constant != 1 && g.constant != 2 && g.constant != KVR_INFINITY)
        in_.fail("the norm must be 0, 1, 2 or infinity");
    } else if (upper_equals(key, "X") && fn) {
      need(2);
      g.xvar = find_col(f_[1]);
    } else if (upper_equals(key, "Y") && fn) {
      need(2);
      g.yvar = find_col(f_[1]);
    } else if (upper_equals(key, "POINT") && g.type == KVR_GENCONSTR_PWL) {
      need(3);
      g.xpts.push_back(in_.number(f_[1], "a point"));
      g.ypts.push_back(in_.number(f_[2], "a point"));
    } else if (upper_equals(key, "COEF") && g.type == KVR_GENCONSTR_POLY) {
      need(2);
      g.p.push_back(in_.number(f_[1], "a coefficient"));
    } else if (upper_equals(key, "A") && has_parameter_a(g.type)) {
      need(2);
      g.a = in_.number(f_[1], "the parameter a");
    } else if (fn && n == 2 && set_funcpiece(g, key, 0.0)) {
      set_funcpiece(g, key, in_.number(f_[1], "the approximation setting"));
    } else {
      in_.fail("unexpected item '%.*s' in general constraint '%s' of type %s",
               static_cast<int>(key.size()), key.data(),
               std::string(gen_names_.get(static_cast<size_t>(gen_))).c_str(),
               genconstr_keyword(g.type));
    }
  }

  void pwl_line(int n) {
    if (n != 3) in_.fail("expected a column name and the x and y of a point");
    int j = find_col(f_[0]);
    double x = in_.number(f_[1], "a point"), y = in_.number(f_[2], "a point");
    if (pwls_.empty() || pwls_.back().var != j) {
      if (pwl_seen_.size() < d_.vars.lb.size()) pwl_seen_.resize(d_.vars.lb.size());
      if (pwl_seen_[j]) in_.fail("the points of column '%s' are not contiguous", col_name(j));
      pwl_seen_[j] = 1;
      pwls_.push_back(PwlObj{j, {}, {}});
    }
    PwlObj &p = pwls_.back();
    if (!p.x.empty() && x < p.x.back())
      in_.fail("the x values of the points of column '%s' decrease", col_name(j));
    p.x.push_back(x), p.y.push_back(y);
  }

  // ---------------------------------------------------------------- the model

  void finish() {
    ModelData &d = d_;
    int nrows = static_cast<int>(row_names_.size());
    int ncols_file = d.vars.size();
    // Integer columns without any bound entry are binary-like: [0, 1].
    for (int j = 0; j < ncols_file; ++j)
      if (d.vars.vtype[j] == KVR_INTEGER && !(bound_state_[j] & kAnyBound)) d.set_ub(j, 1.0);
    if (!objname_.empty() && obj_row_ < 0)
      fail(KVR_ERROR_FILE_READ,
           "%s, line %ld: the objective row '%s' named by OBJNAME is not a row",
           in_.filename().c_str(), objname_line_, objname_.c_str());
    if (obj_row_ >= 0) {
      ObjectiveN o = d.objn[0];
      o.name = std::string(row_names_.get(static_cast<size_t>(obj_row_)));
      d.set_objective_n(0, std::move(o));
    }

    // Entries by row, in the order of the file (column order for ordinary files).
    std::vector<int64_t> beg(static_cast<size_t>(nrows) + 1, 0);
    for (int r : trow_) ++beg[static_cast<size_t>(r) + 1];
    for (int r = 0; r < nrows; ++r) beg[r + 1] += beg[r];
    std::vector<int> ind(trow_.size());
    std::vector<double> val(trow_.size());
    {
      std::vector<int64_t> next(beg.begin(), beg.end() - 1);
      for (size_t k = 0; k < trow_.size(); ++k) {
        int64_t p = next[trow_[k]]++;
        ind[p] = tcol_[k];
        val[p] = tval_[k];
      }
    }
    std::vector<int>().swap(trow_);
    std::vector<int>().swap(tcol_);
    std::vector<double>().swap(tval_);
    // A column that appears again later may list a row again: its entries for that row are one
    // coefficient, their sum, at the place of the first (explicit zeros are kept).
    {
      std::vector<int64_t> at(static_cast<size_t>(d.vars.size()), -1);
      int64_t out = 0;
      for (int r = 0; r < nrows; ++r) {
        const int64_t b = beg[r], e = beg[r + 1], first = out;
        for (int64_t k = b; k < e; ++k) {
          int64_t &p = at[static_cast<size_t>(ind[k])];
          if (p >= first) {
            val[p] += val[k];
          } else {
            p = out;
            ind[out] = ind[k], val[out] = val[k];
            ++out;
          }
        }
        beg[r] = first;
      }
      beg[nrows] = out;
      ind.resize(static_cast<size_t>(out));
      val.resize(static_cast<size_t>(out));
    }

    // Linear rows, their ranges and lazy levels.
    std::vector<int> row_pos(static_cast<size_t>(nrows), -1);
    d.reserve_constrs(static_cast<size_t>(nrows), ind.size());
    std::vector<int> lazy, row_ind;
    std::vector<double> row_val;
    bool any_lazy = false;
    for (int r = 0; r < nrows; ++r) {
      if (row_kind_[r] != kLinear) continue;
      row_ind.assign(ind.begin() + beg[r], ind.begin() + beg[r + 1]);
      row_val.assign(val.begin() + beg[r], val.begin() + beg[r + 1]);
      std::string_view name = row_names_.get(static_cast<size_t>(r));
      double rhs = rhs_[r];
      char sense = row_type_[r] == 'L'   ? KVR_LESS_EQUAL
                   : row_type_[r] == 'G' ? KVR_GREATER_EQUAL
                                         : KVR_EQUAL;
      if (has_range(r)) {
        double R = range_[r], lo, hi;
        if (row_type_[r] == 'E')
          lo = R >= 0 ? rhs : rhs + R, hi = R >= 0 ? rhs + R : rhs;
        else if (row_type_[r] == 'L')
          lo = rhs - std::fabs(R), hi = rhs;
        else
          lo = rhs, hi = rhs + std::fabs(R);
        std::string rg = "Rg";
        rg += name;
        row_ind.push_back(d.add_var(lo, hi, 0.0, KVR_CONTINUOUS, rg));
        row_val.push_back(-1.0);
        sense = KVR_EQUAL, rhs = 0.0;
      }
      row_pos[r] = d.add_constr(row_ind, row_val, sense, rhs, name);
      lazy.push_back(row_lazy_[r]);
      any_lazy |= row_lazy_[r] != 0;
    }
    if (any_lazy) set_lazy_levels(d, lazy);

    // Quadratic rows.
    for (int r = 0; r < nrows; ++r) {
      if (row_kind_[r] != kQuadratic) continue;
      QConstr qc;
      qc.lind.assign(ind.begin() + beg[r], ind.begin() + beg[r + 1]);
      qc.lval.assign(val.begin() + beg[r], val.begin() + beg[r + 1]);
      qc.q = std::move(qrows_[r]);
      qc.q.normalize();
      qc.sense = row_type_[r] == 'L'   ? KVR_LESS_EQUAL
                 : row_type_[r] == 'G' ? KVR_GREATER_EQUAL
                                       : KVR_EQUAL;
      qc.rhs = rhs_[r];
      d.add_qconstr(std::move(qc), row_names_.get(static_cast<size_t>(r)));
    }

    // Indicator rows carry their row in resvar until here.
    for (GenConstr &g : gens_) {
      if (g.type == KVR_GENCONSTR_INDICATOR) {
        int r = g.resvar;
        g.resvar = -1;
        g.ind.assign(ind.begin() + beg[r], ind.begin() + beg[r + 1]);
        g.val.assign(val.begin() + beg[r], val.begin() + beg[r + 1]);
        g.sense = row_type_[r] == 'L'   ? KVR_LESS_EQUAL
                  : row_type_[r] == 'G' ? KVR_GREATER_EQUAL
                                        : KVR_EQUAL;
        g.rhs = rhs_[r];
      }
    }
    for (size_t i = 0; i < gens_.size(); ++i)
      d.add_genconstr(std::move(gens_[i]), gen_names_.get(i));
    for (PwlObj &p : pwls_) d.add_pwl_obj(std::move(p));
    q_.normalize();
    d.set_q(std::move(q_));
    check_genconstrs();
  }

  // General constraints are completed line by line, so they join the model at the end.
  int add_genconstr(GenConstr g, std::string_view name) {
    gens_.push_back(std::move(g));
    gen_names_.push_back(name);
    return static_cast<int>(gens_.size()) - 1;
  }

  void check_genconstrs() {
    for (int i = 0; i < d_.gens.size(); ++i) {
      const GenConstr &g = d_.gens.items[i];
      std::string name(d_.gens.names.get(static_cast<size_t>(i)));
      const char *what = nullptr;
      if (g.type == KVR_GENCONSTR_INDICATOR) continue;
      if (is_function_genconstr(g.type)) {
        if (g.xvar < 0 || g.yvar < 0)
          what = "needs X and Y";
        else if (g.type == KVR_GENCONSTR_PWL && g.xpts.empty())
          what = "needs POINT entries";
        else if (g.type == KVR_GENCONSTR_POLY && g.p.empty())
          what = "needs COEF entries";
      } else {
        if (g.resvar < 0)
          what = "needs RES";
        else if (g.type == KVR_GENCONSTR_ABS && g.vars.size() != 1)
          what = "needs exactly one ARG";
        else if (g.type == KVR_GENCONSTR_NORM && g.constant < 0)
          what = "needs WHICH";
      }
      if (what)
        fail(KVR_ERROR_FILE_READ, "%s, line %ld: general constraint '%s' of type %s %s",
             in_.filename().c_str(), gen_lines_[i], name.c_str(), genconstr_keyword(g.type), what);
    }
  }

  LineReader &in_;
  ModelData d_;
  NameIndex col_index_;
  NamePool row_names_;
  NameIndex row_index_;
  std::string_view f_[kMaxFields];
  mutable std::string name_buf_, name_buf2_;

  Section section_ = Section::None;
  int last_rank_ = 0;
  const char *rank_name_ = "";
  int lazy_ = 0;
  bool integer_ = false;
  int cur_col_ = -1;
  int obj_row_ = -1;
  std::string objname_;
  long objname_line_ = 0;
  std::vector<long> gen_lines_;  // line of each general constraint's header
  int qc_row_ = -1;
  int gen_ = -1;

  std::vector<char> row_type_, row_kind_;
  std::vector<double> rhs_, range_;
  std::vector<signed char> row_lazy_;
  std::vector<int> mark_col_;
  std::vector<uint8_t> bound_state_, obj_seen_, pwl_seen_;
  std::vector<int> trow_, tcol_;
  std::vector<double> tval_;
  std::unordered_map<int, QuadTerms> qrows_;
  QuadTerms q_;  // of the objective
  std::vector<GenConstr> gens_;
  NamePool gen_names_;
  std::vector<PwlObj> pwls_;
  std::string rhs_set_, range_set_, bound_set_;
  bool rhs_set_chosen_ = false, range_set_chosen_ = false, bound_set_chosen_ = false;
};

}  // namespace

ModelData read_mps(LineReader &in) { return MpsReader(in).read(); }

}  // namespace kvr::io
