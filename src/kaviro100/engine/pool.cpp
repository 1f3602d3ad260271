// The solution pool of a MIP solve: the gap limits (PoolGap, PoolGapAbs) and the searches of
// PoolSearchMode 1 and 2.
//
// Both searches re-solve the engine model with no-good rows that exclude the integer assignments
// of the solutions found so far: a binary column x with value v contributes (1 - x) when v = 1 and
// x when v = 0, and the row asks for a sum of at least 1, so every later solution differs in at
// least one integer variable. A general integer variable takes part through its binary expansion
// x = lo + sum_b 2^b z_b (its bounds must be finite). Each re-solve finds the best solution not
// found yet, so mode 2 collects the PoolSolutions best ones in order. Mode 1 re-solves only to
// within 1% of the optimum and also keeps the solutions the first solve met and the incumbents of
// its re-solves; the best PoolSolutions of all of them form the pool.
#include "engine/pool.h"

#include <algorithm>
#include <cmath>
#include <set>

#include "model/integral.h"
#include "util/error.h"

namespace kvr {
namespace {

struct PoolEntry {
  double obj;
  std::vector<double> x;  // engine model columns
};

// The side model and the binary columns that identify an integer assignment.
struct SearchModel {
  ModelData model;
  int engine_cols = 0;  // columns of the engine model (the rest are expansion binaries)
  // The binary columns of the no-good rows: the user's binaries and the expansion bits.
  std::vector<int> bits;
  // Per general integer column: x = lo + sum_b 2^b (column first_bit + b), b < nbits.
  struct Expansion {
    int col;
    double lo;
    int first_bit, nbits;
  };
  std::vector<Expansion> expansions;
};

int add_binary(ModelData &m) { return m.add_var(0.0, 1.0, 0.0, KVR_BINARY); }

void add_row(ModelData &m, const std::vector<int> &ind, const std::vector<double> &val, char sense,
             double rhs) {
  m.add_constr(ind, val, sense, rhs);
}

bool is_integral(char t) { return t == KVR_INTEGER || t == KVR_BINARY || t == KVR_SEMIINT; }

// The integer values column j of m can take, [lo, hi]; hi <= lo when it is fixed. A semi-integer
// column also takes 0.
struct IntRange {
  double lo, hi;
  bool binary() const { return lo == 0.0 && hi == 1.0; }
  bool bounded() const {
    return std::fabs(lo) < KVR_INFINITY && std::fabs(hi) < KVR_INFINITY && hi - lo <= 1e15;
  }
};
IntRange integer_range(const ModelData &m, int j) {
  const char t = m.vars.vtype[j];
  IntRange r{std::ceil(m.vars.lb[j] - 1e-9), std::floor(m.vars.ub[j] + 1e-9)};
  if (t == KVR_BINARY) r.lo = std::max(r.lo, 0.0), r.hi = std::min(r.hi, 1.0);
  if (t == KVR_SEMIINT) r.lo = std::min(r.lo, 0.0), r.hi = std::max(r.hi, 0.0);
  return r;
}

// Builds the side model (check_pool_search has accepted the model).
SearchModel search_model(const Reformulated &rf, const SolveContext &ctx) {
  SearchModel s;
  s.model = rf.model();
  s.engine_cols = s.model.num_vars();
  for (const LinRow &row : ctx.lazy) add_row(s.model, row.ind, row.val, row.sense, row.rhs);
  for (int j = 0; j < rf.user_vars; ++j) {
    if (!is_integral(s.model.vars.vtype[j])) continue;
    const IntRange r = integer_range(s.model, j);
    const double lo = r.lo, hi = r.hi;
    if (hi <= lo) continue;  // fixed: the same in every solution
    if (r.binary() && s.model.vars.vtype[j] != KVR_SEMIINT) {
      s.bits.push_back(j);
      continue;
    }
    SearchModel::Expansion e{j, lo, static_cast<int>(s.model.num_vars()), 0};
    std::vector<int> ind{j};
    std::vector<double> val{1.0};
    for (double range = hi - lo, w = 1.0; range >= w; w *= 2.0, ++e.nbits) {
      int b = add_binary(s.model);
      s.bits.push_back(b);
      ind.push_back(b);
      val.push_back(-w);
    }
    add_row(s.model, ind, val, KVR_EQUAL, lo);
    s.expansions.push_back(e);
  }
  return s;
}

// The values of the expansion bits of an engine-model solution, then the no-good row excluding
// its assignment.
void exclude(SearchModel &s, const std::vector<double> &engine_x) {
  std::vector<double> x(engine_x.begin(), engine_x.end());
  x.resize(static_cast<size_t>(s.model.num_vars()), 0.0);
  for (const auto &e : s.expansions) {
    auto v = static_cast<long long>(std::llround(engine_x[e.col] - e.lo));
    for (int b = 0; b < e.nbits; ++b) x[e.first_bit + b] = static_cast<double>((v >> b) & 1);
  }
  std::vector<int> ind;
  std::vector<double> val;
  double rhs = 1.0;
  for (int b : s.bits) {
    const bool one = x[b] > 0.5;
    ind.push_back(b);
    val.push_back(one ? -1.0 : 1.0);
    if (one) rhs -= 1.0;
  }
  add_row(s.model, ind, val, KVR_GREATER_EQUAL, rhs);
}

// The user's integer values of x as a key (pool entries with the same key are the same
// assignment).
std::vector<double> assignment(const ModelData &m, int user_vars, const std::vector<double> &x) {
  std::vector<double> key;
  for (int j = 0; j < user_vars; ++j)
    if (is_integral(m.vars.vtype[j])) key.push_back(std::nearbyint(x[j]));
  return key;
}

}  // namespace

void check_pool_search(const ModelData &user, const Reformulated &rf, const ParamValues &params) {
  const int mode = params.get_int(ParamId::PoolSearchMode);
  if (mode == 0) return;
  const ModelData &em = rf.model();
  for (int j = 0; j < rf.user_vars; ++j) {
    if (!is_integral(em.vars.vtype[j])) continue;
    const IntRange r = integer_range(em, j);
    if (r.hi <= r.lo || r.binary() || r.bounded()) continue;
    std::string name(user.vars.names.get(static_cast<size_t>(j)));
    if (name.empty()) name = format("C%d", j);
    fail(KVR_ERROR_NOT_SUPPORTED,
         "PoolSearchMode %d needs finite bounds on every general integer variable, and integer "
         "variable '%s' has none on one side: give it bounds or use PoolSearchMode 0",
         mode, name.c_str());
  }
}

void fill_pool(kvr_model *model, const Reformulated &rf, Engine &engine, SolveContext &ctx,
               Solution &sol) {
  const ParamValues &params = *ctx.params;
  const int mode = params.get_int(ParamId::PoolSearchMode);
  const size_t limit = static_cast<size_t>(params.get_int(ParamId::PoolSolutions));
  const double gap_rel = params.get_dbl(ParamId::PoolGap);
  const double gap_abs = params.get_dbl(ParamId::PoolGapAbs);
  if (sol.pool_x.empty()) return;
  const ModelData &em = rf.model();
  const int nu = rf.user_vars;
  const double sign = em.sense == KVR_MAXIMIZE ? -1.0 : 1.0;
  const double best = sol.pool_obj.front();
  // Objectives worse than this are outside the gap limits (1e100 and above: no limit).
  const double rel_limit = gap_rel >= 1e100 ? INFINITY : gap_rel * std::fabs(best);
  const double abs_limit = gap_abs >= 1e100 ? INFINITY : gap_abs;
  const double worst_kept = best + sign * std::min(rel_limit, abs_limit);
  // Ties with the limit (up to rounding of the objective) are kept.
  auto within_gap = [&](double obj) {
    return sign * (obj - worst_kept) <= 1e-9 * (1 + std::fabs(best));
  };
  size_t kept = 0;  // the pool is sorted best first
  while (kept < sol.pool_obj.size() && within_gap(sol.pool_obj[kept])) ++kept;
  sol.pool_x.resize(kept);
  sol.pool_obj.resize(kept);
  if (mode == 0) return;

  const double inttol = params.get_dbl(ParamId::IntFeasTol);
  if (sol.status != KVR_OPTIMAL) {
    ctx.logf("Pool search skipped: the solve ended as %s\n", status_text(sol.status));
    return;
  }
  SearchModel s = search_model(rf, ctx);
  if (s.bits.empty()) {
    ctx.log("Pool search skipped: every integer variable of the model is fixed\n");
    return;
  }

  // Pool entries hold engine-model columns, cut to the user's columns at the end (the no-good
  // rows need only the user's columns, so the first solve's solutions are padded with zeros).
  std::vector<PoolEntry> pool;
  std::set<std::vector<double>> keys;
  auto add_entry = [&](double obj, std::vector<double> x) {
    if (!keys.insert(assignment(em, nu, x)).second) return false;
    exclude(s, x);
    pool.push_back({obj, std::move(x)});
    return true;
  };
  // Mode 1 keeps the solutions the first solve met as candidates; they do not count towards the
  // solutions the re-solves look for.
  const size_t start_count = mode == 2 ? 1 : sol.pool_x.size();
  for (size_t k = 0; k < start_count; ++k) {
    std::vector<double> x = sol.pool_x[k];
    x.resize(static_cast<size_t>(s.engine_cols), 0.0);
    add_entry(sol.pool_obj[k], std::move(x));
  }
  size_t searched = 1;  // the best solution, then those of the re-solves

  ParamValues side_params = params;
  side_params.set_int(ParamId::PoolSearchMode, 0);
  side_params.set_dbl(ParamId::Cutoff, KVR_INFINITY);
  // Mode 1 trades exactness for speed: its re-solves stop within 1% of their optimum.
  if (mode == 1)
    side_params.set_dbl(ParamId::MIPGap, std::max(params.get_dbl(ParamId::MIPGap), 0.01));
  double bound = sol.pool_objbound;  // on the objective of solutions not in the pool
  int solves = 0;
  const char *ended = "the pool is full";
  while (searched < limit) {
    const double remaining = params.get_dbl(ParamId::TimeLimit) - ctx.elapsed();
    if (remaining <= 0 || model->terminate_requested.load()) {
      ended = "the time limit or an interruption stopped it";
      break;
    }
    if (remaining < KVR_INFINITY) side_params.set_dbl(ParamId::TimeLimit, remaining);
    SolveContext sub = ctx.side(side_params, s.model);
    EngineProblem problem;
    problem.model = &s.model;
    problem.user_vars = ctx.user_vars;
    EngineResult r = engine.solve(problem, side_params, sub);
    ++solves;
    if (ctx.absorb_memory(sub)) {
      ended = "a memory limit stopped it";
      break;
    }
    sol.itercount += r.itercount;
    sol.nodecount += r.nodecount;
    sol.work += r.work;
    if (r.status == KVR_INFEASIBLE) {
      bound = sign * KVR_INFINITY;
      ended = "no other solution exists";
      break;
    }
    // The re-solve's solutions, best first, engine columns only.
    std::vector<PoolEntry> found;
    auto take = [&](std::vector<double> x) {
      if (static_cast<int>(x.size()) < s.engine_cols) return;
      x.resize(static_cast<size_t>(s.engine_cols));
      // As for the first solve, the big-M rows of a rewritten model leave values to clean.
      if (rf.changed) {
        SolveContext quiet = ctx.side(params, em);
        quiet.lazy = ctx.lazy;
        polish_mip_solution(em, engine, quiet, x);
        ctx.absorb_memory(quiet);
      }
      round_integral(em, inttol, x.data(), static_cast<size_t>(nu));
      const double obj = true_objective(rf, em, x);
      found.push_back({obj, std::move(x)});
    };
    if (!r.x.empty()) take(r.x);
    if (mode == 1)
      for (auto &x : r.found_x) take(std::move(x));
    std::stable_sort(found.begin(), found.end(), [&](const PoolEntry &a, const PoolEntry &b) {
      return sign * a.obj < sign * b.obj;
    });
    if (found.empty() || (mode == 2 && r.status != KVR_OPTIMAL)) {
      if (!std::isnan(r.objbound)) bound = r.objbound;
      ended = "a re-solve ended without an optimal solution";
      break;
    }
    if (!within_gap(found.front().obj)) {
      bound = found.front().obj;
      ended = "the next solution is outside the gap limits";
      break;
    }
    size_t added = 0;
    for (PoolEntry &e : found)
      if (searched + added < limit && within_gap(e.obj)) added += add_entry(e.obj, std::move(e.x));
    searched += added;
    if (added == 0) {
      ended = "a re-solve found no new solution";
      break;
    }
    bound = found.front().obj;
  }

  std::stable_sort(pool.begin(), pool.end(), [&](const PoolEntry &a, const PoolEntry &b) {
    return sign * a.obj < sign * b.obj;
  });
  if (pool.size() > limit) pool.resize(limit);
  sol.pool_x.clear();
  sol.pool_obj.clear();
  for (PoolEntry &e : pool) {
    e.x.resize(static_cast<size_t>(nu));
    sol.pool_x.push_back(std::move(e.x));
    sol.pool_obj.push_back(e.obj);
  }
  if (mode == 2) sol.pool_objbound = bound;
  // A re-solve may improve on a result that was optimal within MIPGap only.
  if (sol.pool_x.front() != sol.x) {
    sol.x = sol.pool_x.front();
    sol.objval = sol.pool_obj.front();
    const ModelData &user = model->data;
    const SparseMatrix &A = user.constrs.rows;
    for (int i = 0; i < user.num_constrs() && i < static_cast<int>(sol.slack.size()); ++i)
      sol.slack[i] = user.constrs.rhs[i] - A.row_value(i, sol.x.data());
    if (!std::isnan(sol.objbound))
      sol.mipgap = sol.objval == 0.0 ? (sol.objbound == 0.0 ? 0.0 : KVR_INFINITY)
                                     : std::fabs(sol.objbound - sol.objval) / std::fabs(sol.objval);
  }
  ctx.logf(
      "Pool search (PoolSearchMode %d): %zu solutions after %d re-solves; stopped because %s\n",
      mode, sol.pool_x.size(), solves, ended);
}

}  // namespace kvr
