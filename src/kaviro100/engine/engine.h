// The boundary between the library and the solver engines. An engine solves a plain model
// (continuous, integer and binary variables, linear rows, a convex quadratic objective) plus what
// its capabilities say it takes as it is, under the library's parameters and reports back through a
// SolveContext: log lines, progress events for the user's callback, solutions found, and the
// requests that come back from the callback (terminate, user solutions, lazy constraints).
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "env/env.h"
#include "model/model.h"
#include "model/modeldata.h"
#include "model/solution.h"
#include "params/params.h"
#include "reform/capabilities.h"

struct kvr_model;

namespace kvr {

// One linear row sum val[k] x[ind[k]] (sense) rhs, for example a lazy constraint.
struct LinRow {
  std::vector<int> ind;
  std::vector<double> val;
  char sense = KVR_LESS_EQUAL;
  double rhs = 0.0;
  // A cut of the outer approximation: the quadratic constraint it supports (-1 for other rows)
  // and the factor that turns the row's dual into that constraint's multiplier.
  int qconstr = -1;
  double dual_weight = 0.0;
  // Amount by which x violates the row (0 when satisfied).
  double violation(const double *x) const;
};

// What an engine is asked to solve, with the optional warm-start information. Vectors are empty
// when the information is absent; starts use KVR_UNDEFINED for "no value".
struct EngineProblem {
  const ModelData *model = nullptr;
  int user_vars = 0;  // the first user_vars variables are the user's (callbacks report these)
  std::vector<double> mip_start;
  std::vector<int> vbasis, cbasis;
  std::vector<double> pstart, dstart;
};

// LP sensitivity ranges, filled on request after an optimal LP solve.
struct Sensitivity {
  std::vector<double> objlow, objup, lblow, lbup, ublow, ubup, rhslow, rhsup;
};

struct EngineResult {
  int status = KVR_LOADED;
  double objval = kNaN, objbound = kNaN;
  bool objval_at_x = false;  // objval is the solved model's objective at x, computed from x
  double itercount = 0, baritercount = 0, nodecount = 0;
  double work = 0;
  int method_used = -1;  // 0 primal simplex, 1 dual simplex, 2 barrier (ConcurrentWinMethod)
  std::vector<double> x, rc, pi, row_activity;
  // Duals of the rows added during the solve (the first rows of SolveContext::lazy), for
  // continuous models solved to optimality.
  std::vector<double> cut_pi;
  // Reads the final basis (one status per column and per row of the model) on request; false
  // when the engine has none for this result or has moved on to another solve.
  std::function<bool(std::vector<int> &, std::vector<int> &)> basis;
  // When set, rc, pi and row_activity are left empty and this reads them on request, as the
  // row slacks (right-hand side minus activity) in place of the activities; false when the
  // engine has moved on to another solve or model. Reduced costs and duals stay empty when the
  // result has none.
  std::function<bool(std::vector<double> &rc, std::vector<double> &pi, std::vector<double> &slack)>
      lp_values;
  // Feasible solutions met during the search (any order; the library sorts and trims them).
  std::vector<std::vector<double>> found_x;
  std::vector<double> unbdray, farkasdual;
  double farkasproof = kNaN;
  // Computes the LP sensitivity ranges; empty when the engine cannot give them for this result.
  std::function<bool(Sensitivity &)> sensitivity;
};

// The data of one callback invocation; handed to the user's callback as the opaque cbdata.
struct CallbackData {
  struct SolveContext *ctx = nullptr;
  int where = 0;
  // Values available in this invocation, by "what" code.
  std::vector<std::pair<int, double>> values;
  const double *sol = nullptr;  // MIPSOL_SOL / MULTIOBJ_SOL (user variables)
  const char *msg = nullptr;    // MSG_STRING
  bool has(int what) const;
  double get(int what) const;
};

// Why the library itself stopped a solve (status to report instead of the engine's).
enum class StopReason {
  None,
  User,
  ObjStop,
  BdStop,
  Work,
  IterLimit,
  CallbackError,
  Restart,
  Pass,
  SoftMemory,  // SoftMemLimit reached: stop cleanly with status MEM_LIMIT
  HardMemory   // MemLimit reached: the call fails with OUT_OF_MEMORY
};

// Resident memory of the whole process (the resident set of /proc/self/statm), in gigabytes of
// 10^9 bytes; NaN when the system does not report it.
double resident_gigabytes();

// State shared between the library, the engine and the user's callback during one optimize.
struct SolveContext {
  kvr_model *model = nullptr;
  kvr_env *env = nullptr;               // where the log goes (the model's environment)
  const ParamValues *params = nullptr;  // parameters of this pass
  std::chrono::steady_clock::time_point started;
  int user_vars = 0;
  int sense = KVR_MINIMIZE;
  bool is_mip = false;
  const ModelData *engine_model = nullptr;  // the model the engine solves (user model first)
  bool rewritten = false;                   // the engine model has more than the user's model

  // Progress as last reported by the engine.
  double work_now = 0, iters_now = 0;

  // Multi-objective pass information: the objectives of the pass being solved (empty outside
  // multi-objective solves) and the objective whose pass the callback asked to stop.
  std::vector<int> pass_objectives;
  int stop_objective = -1;

  // What the engine of this solve takes natively (callbacks check cuts and node queries here).
  EngineCapabilities caps;

  // Requests from the callback.
  std::vector<LinRow> cuts;    // user cuts waiting to be handed to the engine
  std::vector<LinRow> lazy;    // every lazy constraint added so far (user indices)
  size_t lazy_in_engine = 0;   // lazy[0 .. lazy_in_engine) are rows of the engine model
  bool lazy_violated = false;  // the current incumbent violates a new lazy constraint
  std::vector<std::vector<double>> user_solutions;           // waiting to be handed to the engine
  std::vector<std::vector<double>> accepted_user_solutions;  // feasible ones, for the pool
  StopReason stop = StopReason::None;
  int callback_error = 0;
  double solcount = 0;  // solutions found so far in this solve

  // Throttle of the progress callbacks (SIMPLEX, BARRIER, MIP).
  double last_progress_call = -1.0;

  // Sub-solves of an analysis (the IIS feasibility tests) run with forward_events false (the
  // user's callback sees only the analysis's own events) and quiet (no engine log lines).
  bool forward_events = true;
  bool quiet = false;

  // Memory limits (MemLimit, SoftMemLimit) measured on the whole process. A limit that was
  // reached stays reached for the rest of the call, across engine runs and passes.
  StopReason memory_stop = StopReason::None;
  double memory_seen = 0.0;  // gigabytes at the check that found a limit exceeded
  double last_memory_check = -1.0;
  bool memory_check_due = true;  // forces the next check (after user code ran)
  // Compares the process's resident memory with the limits; returns the reason when one is
  // exceeded (also remembered in memory_stop). Throttled to one reading per millisecond unless
  // force is set.
  StopReason check_memory(bool force);

  // A quiet context for a solve of engine_model on the side of this one (a relaxation, a
  // polishing LP, an IIS test): same model, log, clock and sense; no log lines, no callback
  // events.
  SolveContext side(const ParamValues &side_params, const ModelData &side_model) const;
  // Keeps a memory limit that a side solve reached; returns whether it reached one.
  bool absorb_memory(const SolveContext &side);

  double elapsed() const;
  bool has_callback() const;
  // Calls the user's callback (if any) for this event. A non-zero return stops the solve.
  void invoke(CallbackData &cb);
  // True when a progress callback may run now (first call, then at most every 20 ms).
  bool progress_due();
  // Checks every reason to stop early; sets `stop` and returns true when the solve must end.
  bool must_stop();
  // Checks the objective limits against an incumbent value and a bound (NaN: not known).
  void check_objective_limits(double objbst, double objbnd);
  // The status to report when the library stopped the solve (`stop`), else engine_status.
  int status_after_stop(int engine_status) const;
  // Work units: one unit is 10,000 engine iterations or nodes (deterministic).
  static double work_units(double iterations, double nodes) { return (iterations + nodes) / 1e4; }
  // The log of this solve (nothing when quiet).
  void log(std::string_view text) const {
    if (!quiet) env->log(text);
  }
  void logf(const char *fmt, ...) const __attribute__((format(printf, 2, 3)));
};

// An engine whose capabilities lack lazy rows during the search or quadratic constraints runs
// the steps of engine/emulation.h around its runs (HiGHS does; SCIP needs none).
class Engine {
 public:
  virtual ~Engine() = default;
  virtual const char *name() const = 0;
  // What the engine takes as it is (its entry in the registry of engines).
  EngineCapabilities capabilities() const;
  // Solves the problem. Throws kvr::Error for models it cannot take (NOT_SUPPORTED, Q_NOT_PSD).
  virtual EngineResult solve(const EngineProblem &problem, const ParamValues &params,
                             SolveContext &ctx) = 0;
  // Solves like solve(), for a model that is solved again and again: `state` is what this
  // engine kept from the model's last solve (null at first, or after a reset); the engine may
  // keep its copy of the model and its solver state there, bring that copy up to date with
  // the changes made since (EngineState::deletions lists the deletions), and start from the
  // last basis or solution. An engine without such support solves cold and keeps nothing.
  virtual EngineResult solve_kept(const EngineProblem &problem, const ParamValues &params,
                                  SolveContext &ctx, std::shared_ptr<EngineState> &state) {
    state.reset();
    return solve(problem, params, ctx);
  }
  // An infeasible subsystem of a continuous linear model found by the engine itself: the rows
  // and the variables whose lower and upper bounds take part. Returns false when the engine
  // offers none (the caller then has to find one on its own); the set is not checked here.
  struct Subsystem {
    std::vector<int> rows, lower, upper;
  };
  virtual bool infeasible_subsystem(const ModelData &lp, const ParamValues &params,
                                    SolveContext &ctx, Subsystem &out) {
    return false;
  }
};

std::unique_ptr<Engine> make_highs_engine();
// Version text of the engine library, for the log.
std::string highs_version();

}  // namespace kvr
