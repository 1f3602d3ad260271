// The expression family (LinExpr, QuadExpr, TempConstr, GenExpr, Column, quicksum) as seen by
// the rest of the module: type tests, collection of terms into library arrays, and builders.
#pragma once

#include <vector>

#include "handles.h"

namespace kvrpy {

// Terms of a linear expression in library form for one model.
struct LinearData {
  std::vector<int> ind;
  std::vector<double> val;
  double constant = 0.0;
};

// Terms of a quadratic expression in library form: sum qval[k] x[qrow[k]] x[qcol[k]] + lin.
struct QuadData {
  LinearData lin;
  std::vector<int> qrow, qcol;
  std::vector<double> qval;
};

bool is_linexpr(nb::handle obj);
bool is_quadexpr(nb::handle obj);
bool is_tempconstr(nb::handle obj);
bool is_genexpr(nb::handle obj);
bool is_column(nb::handle obj);

// Appends mult * obj to out. obj may be a number, a Var or a LinExpr; returns false (and appends
// nothing) for anything else. Column indices come from var_column(), which raises for pending,
// removed and foreign variables; nothing is appended when it raises. Terms are not merged.
bool collect_linear(nb::handle obj, double mult, KVRmodel *model, LinearData &out);
// The same for a number, Var, LinExpr or QuadExpr.
bool collect_quadratic(nb::handle obj, double mult, KVRmodel *model, QuadData &out);

// Appends the (row index, coefficient) terms of a Column for a library call on `model`. Raises
// as constr_row() for constraints that are pending, removed or of another model (nothing is
// appended then), and TypeError when column is not a Column.
void collect_column(nb::handle column, KVRmodel *model, std::vector<int> &ind,
                    std::vector<double> &val);

// Builds a LinExpr from terms (vars must hold Var objects) and a constant, without checks.
nb::object make_linexpr(std::vector<double> coeffs, std::vector<nb::object> vars, double constant);
// Builds a QuadExpr: linear part plus quadratic terms.
nb::object make_quadexpr(nb::object linexpr, std::vector<double> coeffs,
                         std::vector<nb::object> vars1, std::vector<nb::object> vars2);

// A running sum with the rules of quicksum: numbers, Var, LinExpr and QuadExpr items are added
// in place; other items are added with Python's += on the running result. Used by quicksum and
// the sums of tupledict, so that no intermediate expression is built per item.
class ExprSum {
 public:
  ExprSum();
  // Adds mult * item. NaN or infinite mult raises KaviroError as LinExpr.add does.
  void add(nb::handle item, double mult = 1.0);
  // Room for this many linear terms (a size hint; the sum stays correct without it).
  void reserve(size_t terms);
  // The sum: a LinExpr, a QuadExpr, or whatever += produced for other item types.
  nb::object result();

 private:
  nb::object acc_;
};

}  // namespace kvrpy
