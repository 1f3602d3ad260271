// What the last solve left behind: status, statistics and the solution vectors. Vectors are empty
// when the solve did not produce that kind of information; attribute reads then fail with
// DATA_NOT_AVAILABLE.
#pragma once

#include <cmath>
#include <functional>
#include <limits>
#include <vector>

#include "kaviro_c.h"

namespace kvr {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

struct Solution {
  int status = KVR_LOADED;
  bool solved = false;  // an optimize call finished since the last change of the model

  // Statistics of the last solve (valid when solved).
  double runtime = 0.0, work = 0.0, itercount = 0.0, nodecount = 0.0;
  int baritercount = 0;
  int concurrent_win_method = -1;  // -1: not a concurrent LP solve

  // Objective information (NaN = not available).
  double objval = kNaN, objbound = kNaN, objboundc = kNaN, mipgap = kNaN;

  // Primal solution (empty = none), duals and reduced costs (continuous models only).
  std::vector<double> x, slack, qcslack;
  std::vector<double> rc, pi, qcpi;
  // An engine that keeps its solver state hands over the slacks, reduced costs and duals of an
  // LP on first use: call ensure_lp_values() before reading slack, rc or pi.
  std::function<void(Solution &)> lp_values_source;
  void ensure_lp_values() { take_from(lp_values_source); }
  std::vector<double> barx;
  // The final basis. An engine that keeps its solver state hands it over on first use: call
  // ensure_basis() before reading it (false when the last solve has none).
  std::vector<int> vbasis, cbasis;
  std::function<void(Solution &)> basis_source;
  bool ensure_basis() {
    if (vbasis.empty() && cbasis.empty()) take_from(basis_source);
    return !vbasis.empty() || !cbasis.empty();
  }

  // Solution pool, best first: pool_x[k] has one value per variable; pool_obj[k] its objective.
  std::vector<std::vector<double>> pool_x;
  std::vector<double> pool_obj;
  double pool_objbound = kNaN;

  // Certificates (InfUnbdInfo 1). FarkasDual lambda has lambda_i <= 0 on <= rows and >= 0 on >=
  // rows, so lambda'Ax >= lambda'b holds for every feasible x; FarkasProof is
  // lambda'b - max{lambda'Ax : lb <= x <= ub} > 0. UnbdRay d keeps feasibility along x + t d and
  // improves the objective without limit.
  std::vector<double> unbdray, farkasdual;
  double farkasproof = kNaN;

  // LP sensitivity ranges. They are computed on first use: call ensure_sensitivity() before
  // reading them (false when the last solve cannot give them).
  std::vector<double> saobjlow, saobjup, salblow, salbup, saublow, saubup, sarhslow, sarhsup;
  std::function<void(Solution &)> sensitivity_source;
  bool ensure_sensitivity() {
    if (saobjlow.empty()) take_from(sensitivity_source);
    return !saobjlow.empty();
  }

  // Condition number estimates of the final basis (NaN = not available).
  double kappa = kNaN, kappa_exact = kNaN;

  // Irreducible infeasible subsystem (after computeIIS; iis_available tells whether one exists):
  // one flag (0 or 1) per element of each kind.
  bool iis_available = false;
  int iis_minimal = 0;
  std::vector<int> iis_lb, iis_ub, iis_constr, iis_sos, iis_qconstr, iis_genconstr;

  // Status of each variable in the presolved model (empty = not available).
  std::vector<int> varprestat;

  // Objective values of a multi-objective solve, one per objective.
  std::vector<double> objnval;
  // Scenario results, one entry per scenario.
  std::vector<std::vector<double>> scen_x;
  std::vector<double> scen_objval, scen_objbound;

  // Stored solutions: the pool, or the single solution x when the pool was not filled.
  int solcount() const {
    return !pool_x.empty() ? static_cast<int>(pool_x.size()) : x.empty() ? 0 : 1;
  }
  void clear() { *this = Solution(); }

 private:
  // Runs a source of values read on first use, once: it is dropped before it runs.
  void take_from(std::function<void(Solution &)> &source) {
    if (!source) return;
    auto run = std::move(source);
    source = nullptr;
    run(*this);
  }
};

}  // namespace kvr
