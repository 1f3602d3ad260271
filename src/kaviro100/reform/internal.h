// Shared pieces of the model rewriting: the builder that appends variables and rows to the
// rewritten model, the implied bounds every big-M value is taken from, and the stages (bounds,
// piecewise-linear functions, function approximations, logical constraints).
#pragma once

#include <cmath>
#include <string>
#include <vector>

#include "model/modeldata.h"
#include "params/params.h"

namespace kvr::reform {

// Bounds at or beyond this magnitude are infinite for the rewriting (a big-M needs less).
constexpr double kInf = 1e20;
inline bool is_finite(double v) { return std::fabs(v) < kInf; }

struct Term {
  int var;
  double coef;
};

// Appends variables and rows to the rewritten model and keeps the implied bounds of every
// variable of it: propagated bounds for the user's variables, declared bounds for added ones.
class Builder {
 public:
  Builder(ModelData &model, const ModelData &user);

  ModelData &model() { return m_; }
  const ModelData &user() const { return user_; }
  int num_vars() const { return m_.num_vars(); }

  // Implied bounds (never looser than the declared ones).
  double lb(int j) const { return lb_[j]; }
  double ub(int j) const { return ub_[j]; }
  std::vector<double> &lbs() { return lb_; }
  std::vector<double> &ubs() { return ub_; }
  // Tightens the implied bounds of j (the declared bounds stay).
  void tighten(int j, double lo, double hi);
  bool integral(int j) const;

  int add_var(double lb, double ub, char vtype, const std::string &name);
  int add_binary(const std::string &name) { return add_var(0.0, 1.0, KVR_BINARY, name); }
  // Adds sum coef * x sense rhs with duplicate variables merged and zero coefficients dropped.
  void add_row(const std::vector<Term> &terms, char sense, double rhs, const std::string &name);

  // The lower (upper = false) or upper end of the range of sum coef * x over the implied bounds;
  // an infinite end is +-kInf. `culprit` receives a variable that makes that end infinite (or -1).
  double activity_bound(const std::vector<Term> &terms, bool upper, int *culprit = nullptr) const;

 private:
  ModelData &m_;
  const ModelData &user_;
  std::vector<double> lb_, ub_;
};

// Display names used in messages and derived names: the element's name, or the generated one
// ("C3", "R1", "QC0", "GC0").
std::string element_name(const NamePool &names, int i, const char *prefix);
std::string var_name(const ModelData &m, int j);
std::string constr_name(const ModelData &m, int i);
std::string qconstr_name(const ModelData &m, int i);
std::string gen_name(const ModelData &m, int i);
const char *gen_type_name(int type);
// Number text for messages.
std::string num(double v);

// True when j can only take the values 0 and 1 (binary, or integer within [0, 1]).
bool is_binary_var(const ModelData &m, int j);

// ---------------------------------------------------------------- bound propagation

// Tightens the implied bounds of the user's variables over the user's linear rows and the
// implications of the general constraints (resultants of max, min, abs, norm; y of PWL), for at
// most `rounds` passes. Only safe conclusions are drawn: every derived bound is relaxed slightly
// outward, integer bounds are rounded with a tolerance, and a pass that would cross a lower and
// an upper bound (an infeasible model) is abandoned, keeping the bounds of the previous pass.
void propagate_bounds(Builder &b, int rounds);

// ---------------------------------------------------------------- piecewise-linear functions

// One piece of a piecewise-linear function: the segment from (xa, ya) to (xb, yb), xa <= xb
// (xa == xb is a single point).
struct Piece {
  double xa, xb, ya, yb;
  double slope() const { return xb > xa ? (yb - ya) / (xb - xa) : 0.0; }
};

// Pieces of the function through the points (x non-decreasing) on [lo, hi] (finite). Consecutive
// points with equal x form a jump: at that x the function takes either one-sided value. Before the
// first point and after the last one the function continues along the first and last segment
// (horizontally when that segment is a jump, or when there is one point only), up to lo and hi.
// Points that start or end no segment are isolated values. Only pieces that reach into [lo, hi]
// are returned.
std::vector<Piece> pwl_pieces(const std::vector<double> &x, const std::vector<double> &y, double lo,
                              double hi);

// Checks the points of a piecewise-linear function (equal lengths, at least one point, finite
// values, x non-decreasing); throws `code` with "<what>: <problem>" otherwise.
void check_points(const std::vector<double> &x, const std::vector<double> &y, int code,
                  const std::string &what);

// Adds y = f(x) for the piecewise-linear f given by pieces (non-empty), restricting x to the union
// of the pieces. With one piece that covers x's declared range no binary is needed; otherwise one
// binary per piece chooses it ("multiple choice": x and y are sums of per-piece offsets).
void add_pwl(Builder &b, int x, int y, const std::vector<Piece> &pieces, const std::string &owner);

// Adds rows that make the rewritten model infeasible (a constraint nothing can satisfy).
void add_infeasible(Builder &b, const std::string &owner);

// ---------------------------------------------------------------- stages

// Each stage appends what its constructs need; the user's data is only read.
void rewrite_semicontinuous(Builder &b);
void rewrite_sos(Builder &b, const ParamValues &params);
void rewrite_pwl_constraint(Builder &b, int gen, const ParamValues &params);
void rewrite_function(Builder &b, int gen, const ParamValues &params);
void rewrite_pwl_objectives(Builder &b, const ParamValues &params);
void rewrite_logical(Builder &b, int gen, const ParamValues &params);
// Fails with INVALID_ARGUMENT on an indicator constraint that has no meaning (also when the engine
// takes indicators as they are).
void check_indicator(const ModelData &u, int gen);

}  // namespace kvr::reform
