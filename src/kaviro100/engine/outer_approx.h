// Outer approximation of convex quadratic constraints. The engine solves the model without its
// quadratic rows; at each candidate point every constraint the point violates gives a linear cut
// that supports the constraint's feasible set, so the cuts only ever remove infeasible points
// and the bound of the approximation stays valid.
//
// Each constraint is classified once:
// - second-order cone: sum a_i x_i^2 - c y^2 <= b with a_i, c > 0, b <= 0 and y >= 0, that is
//   ||r(x)|| <= Y(x); rotated cone: sum a_i x_i^2 - s y z <= b with s > 0, b <= 0 and y, z >= 0,
//   in its standard form ||(2 sqrt(a) x, 2 sqrt(-b), sqrt(s)(y - z))|| <= sqrt(s)(y + z);
// - ball: positive diagonal terms with linear terms on the same variables, ||r(x)|| <= rho after
//   completing the squares;
// - any other quadratic with a positive semi-definite matrix (negative semi-definite for >=).
// Cones and balls are cut at the exact support r*'r/||r*|| <= Y; general quadratics by their
// linearization at the point (at its radial projection onto the boundary when the constraint is
// x'Qx <= b with b > 0).
#pragma once

#include <vector>

#include "engine/engine.h"

namespace kvr {

class OuterApprox {
 public:
  // Classifies the quadratic constraints of m. Throws KVR_ERROR_Q_NOT_PSD for a nonconvex one,
  // naming it and the reason.
  OuterApprox(const ModelData &m, const ParamValues &params);
  ~OuterApprox();
  OuterApprox(const OuterApprox &) = delete;
  OuterApprox &operator=(const OuterApprox &) = delete;

  bool empty() const;
  // Number of constraints of each kind: cones (plain and rotated), balls, general quadratics.
  void counts(int &cones, int &balls, int &general) const;
  // Largest violation of the quadratic constraints at x, in the constraints' own units.
  double max_violation(const double *x) const;
  // Appends a supporting cut for each constraint that x violates by more than tol; returns how
  // many were added.
  int separate(const double *x, double tol, std::vector<LinRow> &cuts) const;
  // The relaxation is unbounded along d from x (both over the n variables). Appends cuts that
  // stop d from being a recession direction and returns how many; -1 (adding nothing) when d is
  // a recession direction of every constraint.
  int block_ray(const double *x, const double *d, int n, std::vector<LinRow> &cuts) const;
  // Appends planes u'r <= Y that support each cone and ball ||r|| <= Y at fixed unit directions u
  // (+-e_i, and `circle` directions evenly around the circle when r has two components), at most
  // `limit` cuts in all; returns how many were added. They make a polyhedral approximation that
  // holds before any point is known.
  int initial_cuts(int circle, size_t limit, std::vector<LinRow> &cuts) const;
  // Appends the linearization at x of every general quadratic (not the cones and balls, which
  // initial_cuts covers); returns how many were added. Taken at a point inside the bounds, they
  // bound each epigraph variable from the first solve.
  int tangents_at(const double *x, std::vector<LinRow> &cuts) const;
  // Blocks of general constraints too large to be checked for convexity (taken as convex).
  int unchecked() const { return unchecked_; }

 private:
  struct Constraint;
  std::vector<Constraint> rows_;
  int unchecked_ = 0;
};

}  // namespace kvr
