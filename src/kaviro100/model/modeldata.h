// The data of one optimization model, as the library stores it: structure of arrays for the
// elements, compressed sparse rows for the linear constraints, one name pool per element kind.
// This is what the file readers produce, the writers and the reformulation consume, and what
// kvr_model holds as its state "as of the last update".
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "kaviro_c.h"
#include "model/attrs.h"

namespace kvr {

// Renumbering after deletions: newpos[i] is the new index of element i, or -1 when deleted.
using Renumbering = std::vector<int>;

// Names of one kind of element in one character pool; an unnamed element has an empty name.
// The name-to-index map is built on the first lookup and dropped by every change.
class NamePool {
 public:
  NamePool() = default;
  // The lookup map holds views into chars_, so copies and moves rebuild it on demand.
  NamePool(const NamePool &o)
      : chars_(o.chars_), start_(o.start_), len_(o.len_), named_(o.named_), live_(o.live_) {}
  NamePool(NamePool &&o) noexcept
      : chars_(std::move(o.chars_)),
        start_(std::move(o.start_)),
        len_(std::move(o.len_)),
        named_(o.named_),
        live_(o.live_) {
    o.clear();
  }
  NamePool &operator=(const NamePool &o) {
    if (this != &o) *this = NamePool(o);
    return *this;
  }
  NamePool &operator=(NamePool &&o) noexcept {
    chars_ = std::move(o.chars_);
    start_ = std::move(o.start_);
    len_ = std::move(o.len_);
    named_ = o.named_;
    live_ = o.live_;
    index_.clear();
    indexed_ = false;
    o.clear();
    return *this;
  }
  size_t size() const { return len_.size(); }
  void resize(size_t n);
  void push_back(std::string_view name);
  void set(size_t i, std::string_view name);
  std::string_view get(size_t i) const {
    return std::string_view(chars_.data() + start_[i], len_[i]);
  }
  bool any_named() const { return named_ > 0; }
  // Index of the first element with this name, or -1.
  int find(std::string_view name) const;
  void renumber(const Renumbering &newpos);
  void append(const NamePool &other);
  void clear();
  size_t bytes() const { return live_; }

 private:
  std::string chars_;
  std::vector<uint64_t> start_;
  std::vector<uint32_t> len_;
  size_t named_ = 0;
  size_t live_ = 0;  // bytes of the current names (chars_ may also hold replaced ones)
  mutable std::unordered_map<std::string_view, int> index_;
  mutable bool indexed_ = false;
};

// Compressed sparse rows (or columns): entries of row r are [beg[r], beg[r+1]).
struct SparseMatrix {
  std::vector<int64_t> beg{0};
  std::vector<int> ind;
  std::vector<double> val;

  int rows() const { return static_cast<int>(beg.size()) - 1; }
  int64_t nnz() const { return beg.back(); }
  // Row r times x.
  double row_value(int r, const double *x) const {
    double a = 0.0;
    for (int64_t k = beg[r]; k < beg[r + 1]; ++k) a += val[k] * x[ind[k]];
    return a;
  }
  void add_row(int n, const int *idx, const double *vals);
  // Appends entries (row, col, val) at the ends of their rows, in the order given; one pass over
  // the matrix however many entries there are.
  struct Entry {
    int row, col;
    double val;
  };
  void append_entries(const std::vector<Entry> &entries);
  // Transpose into a matrix with `ncols` rows (the column view).
  SparseMatrix transposed(int ncols) const;
  // Drops rows with newrow[r] < 0 and maps column indices through newcol (entries of deleted
  // columns are dropped). Either renumbering may be empty, meaning "unchanged".
  void renumber(const Renumbering &newrow, const Renumbering &newcol);
  void clear();
};

// Merges duplicate indices (summing their values, keeping the order of first occurrence) and
// drops zero values; returns the new length.
size_t clean_terms(int *ind, double *val, size_t n);
// The same for pairs; (i, j) and (j, i) are the same pair.
size_t clean_pairs(int *ind0, int *ind1, double *val, size_t n);

// Quadratic terms sum val[k] * x[row[k]] * x[col[k]], kept with row <= col, merged.
struct QuadTerms {
  std::vector<int> row, col;
  std::vector<double> val;
  size_t size() const { return val.size(); }
  // sum val[k] x[row[k]] x[col[k]].
  double value(const double *x) const {
    double v = 0.0;
    for (size_t k = 0; k < val.size(); ++k) v += val[k] * x[row[k]] * x[col[k]];
    return v;
  }
  void push(int a, int b, double v) {
    row.push_back(a < b ? a : b);
    col.push_back(a < b ? b : a);
    val.push_back(v);
  }
  void add(int n, const int *r, const int *c, const double *v);
  // Merges duplicate pairs and drops zeros, keeping the order of first occurrence.
  void normalize();
  void renumber(const Renumbering &newcol);
  void clear() { row.clear(), col.clear(), val.clear(); }
};

// Settable per-element attributes that most models never touch (Start, hints, priorities, tags,
// IIS forces, lazy flags, warm-start basis, ...): a column is allocated on its first write, filled
// with the attribute's default (extra_default). Keys are attribute ids (see model/attrs.h), except
// MIP starts beyond the first, which use start_key(k). A column may be shorter than the element
// count only transiently; readers treat missing entries as the default.
struct ExtraAttrs {
  std::unordered_map<int, std::vector<double>> num;
  std::unordered_map<int, NamePool> str;
  void resize(size_t n, const std::unordered_map<int, double> &defaults);
  // Resizes every column, new entries taking extra_default of the column's key.
  void resize(size_t n);
  // Sets entry i of column key, creating the column (n entries of its default) when needed.
  void set(int key, size_t n, size_t i, double v);
  void set_str(int key, size_t n, size_t i, std::string_view s);
  // Value of element i in column key, or the default when the column does not exist.
  double get(int key, size_t i) const;
  void renumber(const Renumbering &newpos);
  void clear() { num.clear(), str.clear(); }
};

// Key of MIP start k in VarData::extra: start 0 is the Start attribute's column.
int start_key(int k);
// Default of an extra column, from the attribute table: KVR_UNDEFINED for start values, hints,
// PStart, DStart and PreFixVal (meaning "none given"), -1 for the IIS forces ("let the algorithm
// decide"), the slack basis for the warm-start VBasis (nonbasic at lower) and CBasis (basic), 0 for
// the rest.
double extra_default(int key);

struct VarData {
  std::vector<double> lb, ub, obj;
  std::vector<char> vtype;
  NamePool names;
  ExtraAttrs extra;
  int size() const { return static_cast<int>(lb.size()); }
  // Appends one variable with every column, its name and its extra attributes in step (extra
  // columns take their defaults); returns its index.
  int append(double lower, double upper, double cost, char type, std::string_view name = {});
  void reserve(size_t n);
  // Keeps the first n variables (undoes appends; references elsewhere are not renumbered).
  void truncate(int n);
};

struct ConstrData {
  SparseMatrix rows;
  std::vector<char> sense;
  std::vector<double> rhs;
  NamePool names;
  ExtraAttrs extra;
  int size() const { return static_cast<int>(sense.size()); }
  // Appends the row sum val[k] x[ind[k]] `row_sense` `row_rhs` with its name, keeping the matrix,
  // the columns and the extra attributes in step; returns its index.
  int append(int n, const int *ind, const double *val, char row_sense, double row_rhs,
             std::string_view name = {});
  int append(const std::vector<int> &ind, const std::vector<double> &val, char row_sense,
             double row_rhs, std::string_view name = {}) {
    return append(static_cast<int>(ind.size()), ind.data(), val.data(), row_sense, row_rhs, name);
  }
  void reserve(size_t n);
};

struct QConstr {
  std::vector<int> lind;
  std::vector<double> lval;
  QuadTerms q;
  char sense = KVR_LESS_EQUAL;
  double rhs = 0.0;
  // The left-hand side at x.
  double value(const double *x) const {
    double a = 0.0;
    for (size_t k = 0; k < lind.size(); ++k) a += lval[k] * x[lind[k]];
    return a + q.value(x);
  }
};

// An element kind stored as one record per element (quadratic and general constraints), its
// names and extra attributes kept in step with the records.
template <class Item>
struct RecordData {
  std::vector<Item> items;
  NamePool names;
  ExtraAttrs extra;
  int size() const { return static_cast<int>(items.size()); }
  // Appends one element with its name and extra attributes; returns its index.
  int append(Item item, std::string_view name = {}) {
    items.push_back(std::move(item));
    names.push_back(name);
    extra.resize(items.size());
    return size() - 1;
  }
};

using QConstrData = RecordData<QConstr>;

struct SosData {
  std::vector<int> type;  // KVR_SOS_TYPE1 or KVR_SOS_TYPE2
  std::vector<int64_t> beg{0};
  std::vector<int> ind;
  std::vector<double> weight;
  ExtraAttrs extra;
  int size() const { return static_cast<int>(type.size()); }
  // Opens an empty set of this type (members follow with add_member); returns its index.
  int append(int set_type);
  // Adds a member to the last set.
  void add_member(int var, double member_weight) {
    ind.push_back(var);
    weight.push_back(member_weight);
    ++beg.back();
  }
};

// One general constraint; which members are used depends on the type (KVR_GENCONSTR_*).
struct GenConstr {
  int type = KVR_GENCONSTR_MAX;
  // MAX, MIN, ABS, AND, OR, NORM: resvar = f(vars); ABS has one operand in vars.
  // MAX/MIN: constant is the extra operand; NORM: constant is `which` (0, 1, 2 or KVR_INFINITY).
  int resvar = -1;
  std::vector<int> vars;
  double constant = 0.0;
  // INDICATOR: binvar == binval implies sum val[k] x[ind[k]] sense rhs.
  int binvar = -1, binval = 1;
  std::vector<int> ind;
  std::vector<double> val;
  char sense = KVR_LESS_EQUAL;
  double rhs = 0.0;
  // PWL and function constraints: y = f(x). PWL: points (xpts, ypts); POLY: coefficients p,
  // highest degree first; EXPA/LOGA/POW: the parameter a.
  int xvar = -1, yvar = -1;
  std::vector<double> xpts, ypts, p;
  double a = 0.0;
  std::string options;
  // Per-constraint approximation controls; the defaults below the parameters' ranges (FuncPieces
  // -3, FuncPieceError and FuncPieceLength -1, FuncPieceRatio -2) mean "use the parameter of the
  // same name".
  int funcpieces = -3;
  double funcpieceerror = -1.0, funcpiecelength = -1.0, funcpieceratio = -2.0;
};

// Whether g loses its meaning when the variables for which gone(v) holds are deleted (its
// resultant, indicator, x or y variable, or the argument of an absolute value): deleting them
// deletes g too.
template <class Gone>
bool gen_loses_meaning(const GenConstr &g, Gone gone) {
  auto lost = [&](int v) { return v >= 0 && gone(v); };
  return lost(g.resvar) || lost(g.binvar) || lost(g.xvar) || lost(g.yvar) ||
         (g.type == KVR_GENCONSTR_ABS && !g.vars.empty() && lost(g.vars[0]));
}

using GenConstrData = RecordData<GenConstr>;

// Objective n of a multi-objective model (n >= 1; objective 0 is the ordinary objective, whose
// coefficients are VarData::obj and ModelData::objcon).
struct ObjectiveN {
  std::vector<int> ind;
  std::vector<double> val;
  double constant = 0.0;
  int priority = 0;
  double weight = 1.0, abstol = 1e-6, reltol = 0.0;
  std::string name;
};

// Piecewise-linear objective term of one variable: points (x, y) with non-decreasing x.
struct PwlObj {
  int var = -1;
  std::vector<double> x, y;
};

// A scenario changes some bounds, objective coefficients and right-hand sides; values not listed
// are those of the base model.
struct Scenario {
  std::string name;
  std::unordered_map<int, double> lb, ub, obj, rhs;
};

// The fields of one model's data. ModelData shows them read-only and changes them only through
// its member functions; the one other writer is the update's change log (apply_change_log).
struct ModelFields {
  std::string name;
  int sense = KVR_MINIMIZE;
  double objcon = 0.0;
  VarData vars;
  ConstrData constrs;
  QuadTerms q;  // quadratic objective terms
  QConstrData qconstrs;
  SosData sos;
  GenConstrData gens;
  // Objective 0's priority, weight, tolerances and name live in objn[0]; its coefficients do not.
  std::vector<ObjectiveN> objn{ObjectiveN{}};
  std::vector<PwlObj> pwlobj;
  std::vector<Scenario> scenarios;
  // Number of MIP starts (NumStart); start k lives in vars.extra under start_key(k).
  int numstart = 0;
};

struct PendingChanges;

// Facts about a model that every solve asks for.
struct ModelFacts {
  int non_continuous = 0;  // variables of any type but continuous
  int semicontinuous = 0;  // semi-continuous and semi-integer variables
};

class ModelData {
  ModelFields f_;
  // What refresh_facts() counted and whether check_values() passed, both dropped by every change
  // (apply_change_log keeps them through changes of values they do not depend on).
  std::optional<ModelFacts> facts_;
  bool values_checked_ = false;
  // The fields for writing: whatever writes may alter the facts.
  ModelFields &w() {
    facts_.reset();
    values_checked_ = false;
    return f_;
  }

 public:
  // Read-only views of the fields, under the fields' names: readers write `d.vars.lb[j]`, and
  // every change goes through the member functions below.
  const std::string &name = f_.name;
  const int &sense = f_.sense;
  const double &objcon = f_.objcon;
  const VarData &vars = f_.vars;
  const ConstrData &constrs = f_.constrs;
  const QuadTerms &q = f_.q;
  const QConstrData &qconstrs = f_.qconstrs;
  const SosData &sos = f_.sos;
  const GenConstrData &gens = f_.gens;
  const std::vector<ObjectiveN> &objn = f_.objn;
  const std::vector<PwlObj> &pwlobj = f_.pwlobj;
  const std::vector<Scenario> &scenarios = f_.scenarios;
  // All fields at once, read-only (the attribute table addresses them by member pointer).
  const ModelFields &fields() const { return f_; }
  const int &numstart = f_.numstart;

  // Copies copy the fields; the views always refer to the object's own fields.
  ModelData() = default;
  ModelData(const ModelData &o) : f_(o.f_) {}
  ModelData(ModelData &&o) noexcept : f_(std::move(o.f_)) {}
  ModelData &operator=(const ModelData &o) {
    w() = o.f_;
    return *this;
  }
  ModelData &operator=(ModelData &&o) noexcept {
    w() = std::move(o.f_);
    return *this;
  }

  int num_vars() const { return vars.size(); }
  int num_constrs() const { return constrs.size(); }
  bool is_mip() const;
  // Counts by variable type: kept from the last refresh_facts() while no change touched the
  // types, counted afresh otherwise.
  ModelFacts facts() const;
  // Keeps the counts of facts() until the next change that may alter them (every optimize asks
  // for them; only non-const code stores them, so that concurrent readers never write).
  void refresh_facts();
  // check_possible_values, skipped while nothing changed since it last passed.
  void check_values();
  // The (single) objective at x: constant, linear and quadratic parts.
  double objective_value(const double *x) const {
    double v = objcon + q.value(x);
    for (int j = 0; j < num_vars(); ++j) v += vars.obj[j] * x[j];
    return v;
  }

  // ---- Changes. Code outside the store changes a model only through these: they keep the
  // parallel arrays, the names and the extra attribute columns of each element kind in step.

  void set_model_name(std::string_view s) { w().name = s; }
  void set_objsense(int s) { w().sense = s; }
  void set_objcon(double c) { w().objcon = c; }
  // Objective 0: coefficient j, all coefficients (one per variable) with the constant, the
  // quadratic terms.
  void set_obj(int j, double c) { w().vars.obj[j] = c; }
  void add_obj(int j, double c) { w().vars.obj[j] += c; }
  void set_linear_objective(const std::vector<double> &coef, double constant);
  void set_q(QuadTerms terms) { w().q = std::move(terms); }
  // Objective k's record (k >= 1; objective 0's record holds only its settings and name); the
  // list grows to k + 1 objectives when needed.
  void set_objective_n(int k, ObjectiveN o);
  // Removes every objective: coefficients, constant, quadratic and piecewise-linear parts, the
  // further objectives and the scenarios' objective changes. The sense stays.
  void clear_objective();
  void add_pwl_obj(PwlObj p) { w().pwlobj.push_back(std::move(p)); }
  void clear_pwl_objs() { w().pwlobj.clear(); }
  void clear_scenarios() { w().scenarios.clear(); }
  // Writes the bounds, objective coefficients and right-hand sides a scenario changes.
  void apply_scenario(const Scenario &s);
  // Keeps MIP starts 0..n-1 and drops the values of the others.
  void set_num_starts(int n);

  int add_var(double lower, double upper, double cost, char type, std::string_view name = {}) {
    return w().vars.append(lower, upper, cost, type, name);
  }
  void reserve_vars(size_t n) { w().vars.reserve(n); }
  // Keeps the first n variables (undoes additions that no other element refers to yet).
  void truncate_vars(int n) { w().vars.truncate(n); }
  void set_lb(int j, double v) { w().vars.lb[j] = v; }
  void set_ub(int j, double v) { w().vars.ub[j] = v; }
  void set_bounds(int j, double lower, double upper) {
    w().vars.lb[j] = lower, w().vars.ub[j] = upper;
  }
  void set_vtype(int j, char t) { w().vars.vtype[j] = t; }
  // A binary variable becomes an integer one with its bounds clipped to [0, 1], so that its
  // bounds can change on their own.
  void binary_to_integer(int j);

  int add_constr(int n, const int *ind, const double *val, char row_sense, double row_rhs,
                 std::string_view name = {}) {
    return w().constrs.append(n, ind, val, row_sense, row_rhs, name);
  }
  int add_constr(const std::vector<int> &ind, const std::vector<double> &val, char row_sense,
                 double row_rhs, std::string_view name = {}) {
    return w().constrs.append(ind, val, row_sense, row_rhs, name);
  }
  void reserve_constrs(size_t rows, size_t nonzeros);
  // Adds entries (row, column, value) at the ends of their rows.
  void add_matrix_entries(const std::vector<SparseMatrix::Entry> &entries) {
    w().constrs.rows.append_entries(entries);
  }
  void set_rhs(int i, double v) { w().constrs.rhs[i] = v; }
  void set_constr_sense(int i, char s) { w().constrs.sense[i] = s; }

  int add_qconstr(QConstr item, std::string_view name = {}) {
    return w().qconstrs.append(std::move(item), name);
  }
  // Adds the linear term coef * x[var] to quadratic constraint i.
  void add_qconstr_term(int i, int var, double coef);
  void clear_qconstrs() { w().qconstrs = QConstrData{}; }

  // Opens an empty SOS of this type; add_sos_member adds members to the last one.
  int add_sos(int set_type) { return w().sos.append(set_type); }
  void add_sos_member(int var, double weight) { w().sos.add_member(var, weight); }
  void clear_sos() { w().sos = SosData{}; }

  int add_genconstr(GenConstr item, std::string_view name = {}) {
    return w().gens.append(std::move(item), name);
  }
  void clear_gens() { w().gens = GenConstrData{}; }

  // Name of element i of one kind (Var, Constr, QConstr or GenConstr).
  void set_element_name(AttrClass kind, int i, std::string_view s);
  // Removes the names of every element.
  void drop_names();
  // Extra attribute columns of one element kind (see ExtraAttrs): one value, a whole column
  // (padded with the default or cut to the element count), a column removed, all removed.
  void set_extra(AttrClass kind, int key, int i, double v);
  void set_extra_str(AttrClass kind, int key, int i, std::string_view s);
  void set_extra_column(AttrClass kind, int key, std::vector<double> values);
  void erase_extra(AttrClass kind, int key);
  void clear_extras(AttrClass kind);

  // Deletes the elements whose newpos entry is -1 and renumbers every reference to them.
  // General constraints whose resultant, binary, x or y variable is deleted are deleted too.
  void delete_vars(const Renumbering &newpos);
  void delete_constrs(const Renumbering &newpos);
  void delete_sos(const Renumbering &newpos);
  void delete_qconstrs(const Renumbering &newpos);
  void delete_gens(const Renumbering &newpos);
  // Appends the elements of `added` (whose variable and constraint references already use this
  // model's numbering followed by the added elements) and then the column entries `cols`.
  void append(ModelData &&added, const std::vector<SparseMatrix::Entry> &cols);
  size_t bytes() const;

 private:
  friend void apply_change_log(ModelData &data, PendingChanges &pending);
  struct KindData {
    ExtraAttrs &extra;
    NamePool *names;  // null for SOS, which have no names
    size_t count;
  };
  KindData kind_data(AttrClass kind);
};

// Fails with INVALID_ARGUMENT naming the first variable or constraint no value can satisfy (a
// lower bound of +infinity, an upper bound of -infinity, "<= -infinity", ">= +infinity").
void check_possible_values(const ModelData &d);

}  // namespace kvr
