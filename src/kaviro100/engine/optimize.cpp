// KVRoptimize and its companions: the log header and closing summary, interrupt handling, the
// mapping of engine results onto the model's solution, and the environments of concurrent and
// multi-objective passes.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <optional>

#include "engine/emulation.h"
#include "engine/engine.h"
#include "engine/outer_approx.h"
#include "engine/pool.h"
#include "engine/registry.h"
#include "engine/solve.h"
#include "model/attrs.h"
#include "model/integral.h"
#include "model/model.h"
#include "reform/psd.h"
#include "reform/reform.h"
#include "util/error.h"
#include "util/interrupt.h"
#include "util/machine.h"

namespace kvr {

// ---------------------------------------------------------------- LinRow, CallbackData, context

double LinRow::violation(const double *x) const {
  double act = 0.0;
  for (size_t k = 0; k < ind.size(); ++k) act += val[k] * x[ind[k]];
  switch (sense) {
    case KVR_LESS_EQUAL:
      return std::max(0.0, act - rhs);
    case KVR_GREATER_EQUAL:
      return std::max(0.0, rhs - act);
    default:
      return std::fabs(act - rhs);
  }
}

bool CallbackData::has(int what) const {
  for (auto &[w, v] : values)
    if (w == what) return true;
  return false;
}

double CallbackData::get(int what) const {
  for (auto &[w, v] : values)
    if (w == what) return v;
  return kNaN;
}

SolveContext SolveContext::side(const ParamValues &side_params, const ModelData &side_model) const {
  SolveContext sub;
  sub.model = model;
  sub.env = env;
  sub.params = &side_params;
  sub.started = started;
  sub.user_vars = user_vars;
  sub.sense = sense;
  sub.is_mip = side_model.is_mip();
  sub.engine_model = &side_model;
  sub.rewritten = true;
  sub.forward_events = false;
  sub.quiet = true;
  return sub;
}

bool SolveContext::absorb_memory(const SolveContext &sub) {
  if (sub.memory_stop == StopReason::None) return false;
  memory_stop = sub.memory_stop;
  memory_seen = sub.memory_seen;
  return true;
}

double SolveContext::elapsed() const {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
}

void SolveContext::logf(const char *fmt, ...) const {
  if (quiet || !env->output_on()) return;  // nothing would be shown: skip the formatting
  va_list ap;
  va_start(ap, fmt);
  std::string text = vformat(fmt, ap);
  va_end(ap);
  env->log(text);
}

bool SolveContext::has_callback() const { return forward_events && model && model->callback; }

void SolveContext::invoke(CallbackData &cb) {
  if (!has_callback()) return;
  int rc = model->callback(model, &cb, cb.where, model->cbusrdata);
  memory_check_due = true;  // the callback may have used memory
  if (rc != 0 && callback_error == 0) {
    callback_error = rc;
    stop = StopReason::CallbackError;
  }
}

bool SolveContext::progress_due() {
  double now = elapsed();
  if (last_progress_call >= 0 && now - last_progress_call < 0.02) return false;
  last_progress_call = now;
  return true;
}

StopReason SolveContext::check_memory(bool force) {
  if (memory_stop != StopReason::None || !params) return memory_stop;
  const double hard = params->get_dbl(ParamId::MemLimit);
  const double soft = params->get_dbl(ParamId::SoftMemLimit);
  if (hard >= KVR_INFINITY && soft >= KVR_INFINITY) return StopReason::None;
  // Reading the figure costs a system call; engine events come far more often than that.
  const double now = elapsed();
  if (!force && !memory_check_due && last_memory_check >= 0 && now - last_memory_check < 1e-3)
    return StopReason::None;
  last_memory_check = now;
  memory_check_due = false;
  const double gb = resident_gigabytes();
  if (std::isnan(gb)) return StopReason::None;
  if (gb > hard)
    memory_stop = StopReason::HardMemory;
  else if (gb > soft)
    memory_stop = StopReason::SoftMemory;
  if (memory_stop != StopReason::None) memory_seen = gb;
  return memory_stop;
}

bool SolveContext::must_stop() {
  if (stop != StopReason::None) return true;
  if (check_memory(false) != StopReason::None) {
    stop = memory_stop;
  } else if (model && (model->terminate_requested.load() ||
                       (model->also_stop_on && model->also_stop_on->load()))) {
    stop = StopReason::User;
  } else if (stop_objective >= 0 && std::find(pass_objectives.begin(), pass_objectives.end(),
                                              stop_objective) != pass_objectives.end()) {
    stop = StopReason::Pass;
  } else if (work_now >= params->get_dbl(ParamId::WorkLimit)) {
    stop = StopReason::Work;
  } else if (is_mip && iters_now >= params->get_dbl(ParamId::IterationLimit)) {
    stop = StopReason::IterLimit;
  }
  return stop != StopReason::None;
}

int SolveContext::status_after_stop(int engine_status) const {
  switch (stop) {
    case StopReason::ObjStop:
    case StopReason::BdStop:
      return KVR_USER_OBJ_LIMIT;
    case StopReason::Work:
      return KVR_WORK_LIMIT;
    case StopReason::IterLimit:
      return KVR_ITERATION_LIMIT;
    case StopReason::User:
    case StopReason::CallbackError:
    case StopReason::Pass:
      return KVR_INTERRUPTED;
    case StopReason::SoftMemory:
    case StopReason::HardMemory:
      return KVR_MEM_LIMIT;
    default:
      return engine_status;
  }
}

void SolveContext::check_objective_limits(double objbst, double objbnd) {
  if (stop != StopReason::None) return;
  double objstop = params->get_dbl(ParamId::BestObjStop);
  double bdstop = params->get_dbl(ParamId::BestBdStop);
  bool min = sense == KVR_MINIMIZE;
  if (std::fabs(objstop) < KVR_INFINITY && !std::isnan(objbst) &&
      (min ? objbst <= objstop : objbst >= objstop))
    stop = StopReason::ObjStop;
  else if (std::fabs(bdstop) < KVR_INFINITY && !std::isnan(objbnd) &&
           std::fabs(objbnd) < KVR_INFINITY && (min ? objbnd >= bdstop : objbnd <= bdstop))
    stop = StopReason::BdStop;
}

// ---------------------------------------------------------------- shared solve steps

const char *status_text(int status) {
  switch (status) {
    case KVR_LOADED:
      return "not solved";
    case KVR_OPTIMAL:
      return "optimal";
    case KVR_INFEASIBLE:
      return "infeasible";
    case KVR_INF_OR_UNBD:
      return "infeasible or unbounded";
    case KVR_UNBOUNDED:
      return "unbounded";
    case KVR_CUTOFF:
      return "objective worse than the cutoff";
    case KVR_ITERATION_LIMIT:
      return "iteration limit reached";
    case KVR_NODE_LIMIT:
      return "node limit reached";
    case KVR_TIME_LIMIT:
      return "time limit reached";
    case KVR_SOLUTION_LIMIT:
      return "solution limit reached";
    case KVR_INTERRUPTED:
      return "interrupted";
    case KVR_NUMERIC:
      return "numerical difficulties";
    case KVR_SUBOPTIMAL:
      return "suboptimal solution";
    case KVR_USER_OBJ_LIMIT:
      return "objective limit reached";
    case KVR_WORK_LIMIT:
      return "work limit reached";
    case KVR_MEM_LIMIT:
      return "memory limit reached";
    default:
      return "unknown";
  }
}

namespace {

const std::vector<double> *extra_column(const ExtraAttrs &extra, int key) {
  auto it = extra.num.find(key);
  return it == extra.num.end() ? nullptr : &it->second;
}

const std::vector<double> *extra_column(const ExtraAttrs &extra, AttrId id) {
  return extra_column(extra, static_cast<int>(id));
}

// Entry j of an extra column, which may be shorter than the element count.
double extra_at(const std::vector<double> *col, int j, double def) {
  return col && j < static_cast<int>(col->size()) ? (*col)[j] : def;
}

bool any_defined(const std::vector<double> *v) {
  if (!v) return false;
  for (double e : *v)
    if (e != KVR_UNDEFINED) return true;
  return false;
}

}  // namespace

EngineProblem make_problem(const kvr_model *model, const Reformulated &rf) {
  EngineProblem p;
  p.model = &rf.model();
  p.user_vars = rf.user_vars;
  const ModelData &user = model->data;
  const int n = rf.model().num_vars(), m = rf.model().num_constrs();
  const int nu = rf.user_vars, mu = rf.user_constrs;
  const std::vector<double> *start = extra_column(user.vars.extra, AttrId::Start);
  const std::vector<double> *hint = extra_column(user.vars.extra, AttrId::VarHintVal);
  if (any_defined(start) || any_defined(hint)) {
    p.mip_start.assign(n, KVR_UNDEFINED);
    for (int j = 0; j < nu; ++j) {
      double v = extra_at(start, j, KVR_UNDEFINED);
      p.mip_start[j] = v != KVR_UNDEFINED ? v : extra_at(hint, j, KVR_UNDEFINED);
    }
  }
  const std::vector<double> *vb = extra_column(user.vars.extra, AttrId::VBasis);
  const std::vector<double> *cb = extra_column(user.constrs.extra, AttrId::CBasis);
  // A basis is complete only for the user's own model.
  if ((vb || cb) && !rf.changed && n == nu && m == mu) {
    p.vbasis.resize(n);
    p.cbasis.resize(m);
    int basic = 0;
    for (int j = 0; j < n; ++j)
      basic += (p.vbasis[j] = static_cast<int>(extra_at(vb, j, KVR_NONBASIC_LOWER))) == KVR_BASIC;
    for (int i = 0; i < m; ++i)
      basic += (p.cbasis[i] = static_cast<int>(extra_at(cb, i, KVR_BASIC))) == KVR_BASIC;
    if (basic != m) p.vbasis.clear(), p.cbasis.clear();
  }
  const std::vector<double> *ps = extra_column(user.vars.extra, AttrId::PStart);
  const std::vector<double> *ds = extra_column(user.constrs.extra, AttrId::DStart);
  if (any_defined(ps)) {
    p.pstart.assign(n, KVR_UNDEFINED);
    for (int j = 0; j < nu; ++j) p.pstart[j] = extra_at(ps, j, KVR_UNDEFINED);
  }
  if (any_defined(ds)) {
    p.dstart.assign(m, KVR_UNDEFINED);
    for (int i = 0; i < mu; ++i) p.dstart[i] = extra_at(ds, i, KVR_UNDEFINED);
  }
  return p;
}

// MIP starts beyond the first (NumStart > 1) are offered to the engine as user solutions.
void queue_extra_starts(const kvr_model *model, const Reformulated &rf, SolveContext &ctx) {
  const ExtraAttrs &extra = model->data.vars.extra;
  for (const auto &[key, col] : extra.num) {
    if (key < attr_count() || !any_defined(&col)) continue;
    std::vector<double> x(rf.model().num_vars(), KVR_UNDEFINED);
    for (int j = 0; j < rf.user_vars; ++j) x[j] = extra_at(&col, j, KVR_UNDEFINED);
    ctx.user_solutions.push_back(std::move(x));
  }
}

double true_objective(const Reformulated &rf, const ModelData &m, const std::vector<double> &x) {
  double v = m.objective_value(x.data());
  if (rf.epigraph < 0) return v;
  for (int j = rf.epigraph; j < m.num_vars(); ++j) v -= m.vars.obj[j] * x[j];
  const QuadTerms &q = rf.moved_q;
  for (size_t k = 0; k < q.size(); ++k) v += q.val[k] * x[q.row[k]] * x[q.col[k]];
  return v;
}

void fill_solution(const kvr_model *model, const Reformulated &rf, const SolveContext &ctx,
                   EngineResult &&r, Solution &sol, const PolishFunction &polish) {
  const ModelData &user = model->data;
  const int nu = rf.user_vars, mu = rf.user_constrs;
  const bool mip = ctx.engine_model == &rf.model() ? ctx.is_mip : rf.model().is_mip();
  auto truncate = [](std::vector<double> &v, size_t n) {
    if (v.size() > n) v.resize(n);
  };
  sol.status = r.status;
  sol.itercount = r.itercount;
  sol.baritercount = static_cast<int>(r.baritercount);
  sol.nodecount = r.nodecount;
  sol.work = r.work;
  int method = ctx.params->get_int(ParamId::Method);
  sol.concurrent_win_method = (!mip && (method == 3 || method == 4)) ? r.method_used : -1;

  // Pool: engine incumbents and accepted user solutions, best first, without duplicates.
  if (mip) {
    // Integer variables come back as integers; objectives are those of the values returned.
    const double inttol = ctx.params->get_dbl(ParamId::IntFeasTol);
    auto rounded = [&](std::vector<double> x) {
      round_integral(rf.model(), inttol, x.data(), static_cast<size_t>(nu));
      return x;
    };
    std::vector<std::pair<double, std::vector<double>>> pool;
    for (auto &x : r.found_x) {
      x = rounded(std::move(x));
      pool.emplace_back(true_objective(rf, rf.model(), x), std::move(x));
    }
    // User solutions were checked when given; lazy constraints added later may cut them off.
    const double ftol = ctx.params->get_dbl(ParamId::FeasibilityTol);
    for (const auto &x : ctx.accepted_user_solutions) {
      if (static_cast<int>(x.size()) != rf.model().num_vars()) continue;
      bool ok = true;
      for (const LinRow &row : ctx.lazy) ok = ok && row.violation(x.data()) <= ftol;
      if (!ok) continue;
      std::vector<double> xr = rounded(x);
      const double obj = true_objective(rf, rf.model(), xr);
      pool.emplace_back(obj, std::move(xr));
    }
    std::stable_sort(pool.begin(), pool.end(), [&](const auto &a, const auto &b) {
      return rf.model().sense == KVR_MAXIMIZE ? a.first > b.first : a.first < b.first;
    });
    if (polish && !pool.empty()) {
      std::vector<double> original = pool.front().second;
      if (polish(pool.front().second)) {
        pool.front().second = rounded(std::move(pool.front().second));
        pool.front().first = true_objective(rf, rf.model(), pool.front().second);
        // Copies of the solution as found (the engine reports it more than once) go with it.
        pool.erase(std::remove_if(pool.begin() + 1, pool.end(),
                                  [&](const auto &e) { return e.second == original; }),
                   pool.end());
      }
    }
    size_t limit = static_cast<size_t>(ctx.params->get_int(ParamId::PoolSolutions));
    for (auto &[obj, x] : pool) {
      truncate(x, nu);
      bool dup = false;
      for (const auto &kept : sol.pool_x)
        if (kept == x) dup = true;
      if (dup) continue;
      if (sol.pool_x.size() >= limit) break;
      sol.pool_x.push_back(x);
      sol.pool_obj.push_back(obj);
    }
    if (!sol.pool_x.empty()) {
      // The best known solution is the result, even when the engine ended on another one.
      sol.x = sol.pool_x.front();
      sol.objval = sol.pool_obj.front();
    }
    sol.objbound = r.objbound;
    if (!sol.x.empty() && !std::isnan(sol.objbound)) {
      // A bound better than the incumbent by less than the tolerances is still a bound; a
      // proven optimum reads with bound equal to the objective when the engine closed the gap.
      double gap = std::fabs(sol.objbound - sol.objval);
      sol.mipgap =
          sol.objval == 0.0 ? (gap == 0.0 ? 0.0 : KVR_INFINITY) : gap / std::fabs(sol.objval);
    } else if (sol.x.empty() && std::isnan(sol.objbound) == false) {
      sol.mipgap = kNaN;
    }
    sol.objboundc = sol.objbound;
    sol.pool_objbound = sol.objbound;
  } else {
    // A model without variables has an empty solution whose objective is the constant.
    if (!r.x.empty() || (rf.model().num_vars() == 0 && r.status == KVR_OPTIMAL)) {
      // Without an epigraph column the objective at x is the one the engine result has.
      sol.objval = r.objval_at_x && rf.epigraph < 0 && !r.x.empty()
                       ? r.objval
                       : true_objective(rf, rf.model(), r.x);
      sol.x = std::move(r.x);
      truncate(sol.x, nu);
      // The pool of an LP is its solution, which the pool's readers fall back to; only the
      // empty solution of a model without variables is stored, so that it counts.
      if (sol.x.empty() && (r.status == KVR_OPTIMAL || r.status == KVR_SUBOPTIMAL)) {
        sol.pool_x.emplace_back();
        sol.pool_obj.push_back(sol.objval);
      }
    }
    // The multiplier of a quadratic constraint is the weighted sum of the duals of its cuts.
    const int nq = user.qconstrs.size();
    const bool qcp_duals = nq > 0 && ctx.params->get_int(ParamId::QCPDual) != 0;
    if (nq > 0 && !qcp_duals) r.pi.clear();
    if (qcp_duals && !r.rc.empty() && r.cut_pi.size() <= ctx.lazy.size()) {
      sol.qcpi.assign(nq, 0.0);
      for (size_t k = 0; k < r.cut_pi.size(); ++k) {
        const LinRow &cut = ctx.lazy[k];
        if (cut.qconstr >= 0 && cut.qconstr < nq)
          sol.qcpi[cut.qconstr] += cut.dual_weight * r.cut_pi[k];
      }
    }
    sol.objbound = r.objbound;
    sol.objboundc = r.objbound;
    sol.rc = std::move(r.rc);
    truncate(sol.rc, nu);
    sol.pi = std::move(r.pi);
    truncate(sol.pi, mu);
    if (!rf.changed && rf.model().num_constrs() == mu) {
      if (r.basis)
        sol.basis_source = [source = std::move(r.basis)](Solution &s) {
          if (!source(s.vbasis, s.cbasis)) s.vbasis.clear(), s.cbasis.clear();
        };
      sol.unbdray = std::move(r.unbdray);
      sol.farkasdual = std::move(r.farkasdual);
      sol.farkasproof = r.farkasproof;
      if (r.sensitivity) {
        sol.sensitivity_source = [source = std::move(r.sensitivity)](Solution &s) {
          Sensitivity sa;
          if (!source(sa)) return;
          s.saobjlow = std::move(sa.objlow), s.saobjup = std::move(sa.objup);
          s.salblow = std::move(sa.lblow), s.salbup = std::move(sa.lbup);
          s.saublow = std::move(sa.ublow), s.saubup = std::move(sa.ubup);
          s.sarhslow = std::move(sa.rhslow), s.sarhsup = std::move(sa.rhsup);
        };
      }
    }
  }
  // Slacks of the user's rows: right-hand side minus activity, which the engine reports for the
  // solution it returned when it solved the user's model itself.
  const bool engine_activity =
      !mip && !rf.changed && r.row_activity.size() >= size_t(mu) && user.num_constrs() == mu;
  if (r.lp_values && !mip && !rf.changed && user.num_constrs() == mu &&
      rf.model().num_vars() == nu) {
    // Read from the engine on first use. A later solve that fails after changing the engine's
    // copy leaves the slacks to be computed from x, and no duals.
    sol.lp_values_source = [source = std::move(r.lp_values)](Solution &s) {
      if (!source(s.rc, s.pi, s.slack)) s.rc.clear(), s.pi.clear(), s.slack.clear();
    };
  } else if (engine_activity && !sol.x.empty()) {
    // Computed in place of the activities, which are not needed afterwards.
    std::vector<double> &slack = r.row_activity;
    slack.resize(mu);
    for (int i = 0; i < mu; ++i) slack[i] = user.constrs.rhs[i] - slack[i];
    sol.slack = std::move(slack);
  } else if (!sol.x.empty()) {
    sol.slack.resize(mu);
    const SparseMatrix &A = user.constrs.rows;
    for (int i = 0; i < mu; ++i) {
      double act = 0.0;
      for (int64_t k = A.beg[i]; k < A.beg[i + 1]; ++k) act += A.val[k] * sol.x[A.ind[k]];
      sol.slack[i] = user.constrs.rhs[i] - act;
    }
  }
  sol.solved = true;
}

// ---------------------------------------------------------------- interrupt handling

namespace {

std::mutex g_signal_mutex;
std::vector<kvr_model *> g_armed;  // models whose next solve stops on Ctrl-C

}  // namespace

SignalScope::SignalScope(kvr_model *model) {
  {
    std::lock_guard<std::mutex> lock(g_signal_mutex);
    auto it = std::find(g_armed.begin(), g_armed.end(), model);
    if (it == g_armed.end()) return;
    g_armed.erase(it);
  }
  scope_.emplace(&model->terminate_requested);
}

SignalScope::~SignalScope() = default;

OptimizingFlag::OptimizingFlag(kvr_model *m) : model(m) {
  if (model->optimizing.load())
    fail(KVR_ERROR_OPTIMIZATION_IN_PROGRESS, "The model is being optimized already");
  model->terminate_requested.store(false);
  model->optimizing.store(true);
}

OptimizingFlag::~OptimizingFlag() { model->optimizing.store(false); }

void check_solvable(ModelData &m) {
  m.check_values();
  for (int i = 0; i < m.qconstrs.size(); ++i)
    if (m.qconstrs.items[i].sense == KVR_EQUAL) {
      std::string_view name = m.qconstrs.names.get(static_cast<size_t>(i));
      std::string shown = name.empty() ? format("QC%d", i) : std::string(name);
      fail(KVR_ERROR_QCP_EQUALITY_CONSTRAINT,
           "Quadratic constraint '%s' is an equality; quadratic constraints must be inequalities "
           "(<= or >=)",
           shown.c_str());
    }
}

void check_memory_at_start(SolveContext &ctx, const char *what) {
  if (ctx.check_memory(true) == StopReason::HardMemory)
    fail(KVR_ERROR_OUT_OF_MEMORY,
         "Out of memory: the process already uses %.3f GB, above MemLimit (%g GB); %s not started",
         ctx.memory_seen, ctx.params->get_dbl(ParamId::MemLimit), what);
  if (ctx.memory_stop == StopReason::SoftMemory)
    ctx.env->logf("The process already uses %.3f GB, above SoftMemLimit (%g GB); %s not started\n",
                  ctx.memory_seen, ctx.params->get_dbl(ParamId::SoftMemLimit), what);
}

void fail_if_memory_exceeded(const SolveContext &ctx, const char *what) {
  if (ctx.memory_stop == StopReason::HardMemory)
    fail(KVR_ERROR_OUT_OF_MEMORY,
         "Out of memory: the process reached %.3f GB, above MemLimit (%g GB); %s stopped",
         ctx.memory_seen, ctx.params->get_dbl(ParamId::MemLimit), what);
}

void check_nodefile_settings(kvr_env &env) {
  double start = env.params.get_dbl(ParamId::NodefileStart);
  if (start >= KVR_INFINITY) return;
  const std::string &dir = env.params.get_str(ParamId::NodefileDir);
  struct stat st {};
  if (dir.empty())
    fail(KVR_ERROR_NODEFILE, "NodefileDir is empty; with NodefileStart %g it must name a directory",
         start);
  if (::stat(dir.c_str(), &st) != 0)
    fail(KVR_ERROR_NODEFILE, "Node file directory '%s' (NodefileDir) does not exist", dir.c_str());
  if (!S_ISDIR(st.st_mode))
    fail(KVR_ERROR_NODEFILE, "Node file directory '%s' (NodefileDir) is not a directory",
         dir.c_str());
  // Writability is tried, not inferred from permission bits.
  std::string probe = dir + "/.kaviro_nodefile_XXXXXX";
  int fd = ::mkstemp(probe.data());
  if (fd < 0)
    fail(KVR_ERROR_NODEFILE, "Node file directory '%s' (NodefileDir) is not writable: %s",
         dir.c_str(), std::strerror(errno));
  ::close(fd);
  ::unlink(probe.c_str());
  env.logf(
      "NodefileStart %g: the engine keeps its search tree in memory; no node files are written "
      "to '%s'\n",
      start, dir.c_str());
}

namespace {

// ---------------------------------------------------------------- log header and summary

void range_of(const std::vector<double> &v, double &lo, double &hi, bool finite_only) {
  for (double e : v) {
    double a = std::fabs(e);
    if (a == 0.0 || (finite_only && a >= KVR_INFINITY)) continue;
    lo = std::min(lo, a);
    hi = std::max(hi, a);
  }
}

std::string range_text(double lo, double hi) {
  if (lo > hi) return "[none]";
  return format("[%.0e, %.0e]", lo, hi);
}

void log_header(const kvr_model *model, const ModelData &m, int threads,
                const EngineChoice &choice) {
  const kvr_env &env = model->env;
  kvr_env &out = const_cast<kvr_env &>(env);
  unsigned hw = machine_threads();
  std::string thread_text = threads > 0 ? format("%d threads", threads)
                                        : format("threads chosen by the engine (%u available)", hw);
  if (std::strcmp(choice.entry->name, "SCIP") == 0) thread_text = "one thread";
  out.logf("Kaviro %d.%d.%d, engine %s %s, %s\n", KVR_VERSION_MAJOR, KVR_VERSION_MINOR,
           KVR_VERSION_TECHNICAL, choice.entry->name, choice.entry->version().c_str(),
           thread_text.c_str());
  out.logf("Engine %s: %s\n", choice.entry->name, choice.reason.c_str());
  out.log(unapplied_settings(*choice.entry, model->env.params));
  std::string name = m.name.empty() ? std::string("(unnamed)") : "'" + m.name + "'";
  out.logf("Model %s: %d rows, %d columns, %lld nonzeros, %s\n", name.c_str(), m.num_constrs(),
           m.num_vars(), static_cast<long long>(m.constrs.rows.nnz()),
           m.sense == KVR_MAXIMIZE ? "maximize" : "minimize");
  int ints = 0, bins = 0;
  for (char t : m.vars.vtype) ints += t == KVR_INTEGER, bins += t == KVR_BINARY;
  if (ints + bins > 0) out.logf("  %d integer variables (%d binary)\n", ints + bins, bins);
  if (m.q.size() > 0) out.logf("  quadratic objective with %zu terms\n", m.q.size());
  if (m.objn.size() > 1) out.logf("  %zu objectives\n", m.objn.size());
  if (m.qconstrs.size() + m.sos.size() + m.gens.size() > 0)
    out.logf("  %d quadratic, %d SOS and %d general constraints\n", m.qconstrs.size(), m.sos.size(),
             m.gens.size());
  double alo = INFINITY, ahi = 0, olo = INFINITY, ohi = 0, blo = INFINITY, bhi = 0, rlo = INFINITY,
         rhi = 0;
  range_of(m.constrs.rows.val, alo, ahi, false);
  range_of(m.vars.obj, olo, ohi, false);
  range_of(m.vars.lb, blo, bhi, true);
  range_of(m.vars.ub, blo, bhi, true);
  range_of(m.constrs.rhs, rlo, rhi, true);
  out.logf("Coefficient ranges: matrix %s, objective %s, bounds %s, right-hand sides %s\n",
           range_text(alo, ahi).c_str(), range_text(olo, ohi).c_str(), range_text(blo, bhi).c_str(),
           range_text(rlo, rhi).c_str());
  out.log("\n");
}

void log_summary(kvr_env &env, const Solution &sol, bool mip) {
  env.log("\n");
  env.logf("Result: %s\n", status_text(sol.status));
  if (!sol.x.empty() && !std::isnan(sol.objval)) {
    std::string line = format("  objective %.10e", sol.objval);
    if (!std::isnan(sol.objbound) && std::fabs(sol.objbound) < KVR_INFINITY)
      line += format(", bound %.10e", sol.objbound);
    if (mip && !std::isnan(sol.mipgap) && sol.mipgap < KVR_INFINITY)
      line += format(", gap %.4f%%", 100.0 * sol.mipgap);
    env.logf("%s\n", line.c_str());
  } else if (mip && !std::isnan(sol.objbound) && std::fabs(sol.objbound) < KVR_INFINITY) {
    env.logf("  no solution; bound %.10e\n", sol.objbound);
  }
  if (mip) env.logf("  %d solutions kept, %.0f nodes\n", sol.solcount(), sol.nodecount);
  env.logf("  %.0f simplex and %d barrier iterations, work %.3f units, %.2f seconds\n",
           sol.itercount, sol.baritercount, sol.work, sol.runtime);
}

}  // namespace

void optimize(kvr_model *model) {
  if (model->optimizing.load())
    fail(KVR_ERROR_OPTIMIZATION_IN_PROGRESS, "The model is being optimized already");
  update_model(model);
  model->data.refresh_facts();
  check_remote_settings(&model->env);
  const ParamValues &params = model->env.params;
  const EngineChoice choice =
      choose_engine(model->data, params, model->callback != nullptr, model->callback_wheres);
  const EngineCapabilities &caps = choice.entry->caps;
  // Spatial branch and bound takes quadratic equalities too.
  const bool global = caps.nonconvex && params.get_int(ParamId::NonConvex) == 2;
  if (!global) check_solvable(model->data);
  OptimizingFlag flag(model);
  SignalScope signals(model);
  model->env.sync_logfile();

  SolveContext ctx;
  ctx.model = model;
  ctx.env = &model->env;
  ctx.params = &params;
  ctx.started = std::chrono::steady_clock::now();
  ctx.sense = model->data.sense;
  check_memory_at_start(ctx, "optimization");

  // With output off the header and summary would be formatted only to be dropped.
  const bool output = model->env.output_on();
  ctx.caps = caps;
  if (output) log_header(model, model->data, params.get_int(ParamId::Threads), choice);
  Reformulated rf = reformulate(model->data, params, caps);
  if (rf.changed)
    model->env.logf("Rewritten for the engine: %d rows, %d columns\n", rf.model().num_constrs(),
                    rf.model().num_vars());
  if (!global) check_convex_objective(rf.model(), params);
  if (rf.model().qconstrs.size() > 0 && !global && caps.convex_qcons) {
    OuterApprox check(rf.model(), params);  // fails here for a nonconvex one
  } else if (rf.model().qconstrs.size() > 0 && !global) {
    OuterApprox oa(rf.model(), params);  // fails here, before any solve, for a nonconvex one
    int cones, balls, general;
    oa.counts(cones, balls, general);
    model->env.logf(
        "Quadratic constraints by outer approximation: %d cones, %d balls, %d general convex\n",
        cones, balls, general);
    if (oa.unchecked() > 0)
      model->env.logf(
          "  %d blocks of quadratic terms too large to check for convexity are taken as convex\n",
          oa.unchecked());
  }
  ctx.user_vars = rf.user_vars;
  ctx.is_mip = rf.model().is_mip();
  ctx.engine_model = &rf.model();
  ctx.rewritten = rf.changed;
  if (ctx.is_mip) check_nodefile_settings(model->env);
  if (ctx.is_mip) check_pool_search(model->data, rf, params);

  if (!model->env.concurrent_envs.empty())
    model->env.log(
        "Concurrent environments are not used: the engine runs one method at a time with the "
        "model's own parameters\n");
  std::unique_ptr<Engine> engine = choice.entry->make();
  Solution sol;
  // The engine keeps no copy of a rewritten model or of one with several objectives.
  if ((rf.changed || model->data.objn.size() > 1) && model->engine_state) {
    model->env.log(
        "Re-solve: the model is handed to the engine in full (rewritten or with several "
        "objectives)\n");
    model->engine_state.reset();
  }
  if (ctx.memory_stop == StopReason::SoftMemory) {
    sol.status = KVR_MEM_LIMIT;
    sol.solved = true;
  } else if (model->data.objn.size() > 1) {
    solve_multiobjective(model, rf, *engine, ctx, sol);
  } else {
    if (ctx.has_callback()) {
      CallbackData cb{&ctx, KVR_CB_POLLING, {}};
      cb.values = {{KVR_CB_RUNTIME, ctx.elapsed()}, {KVR_CB_WORK, 0.0}};
      ctx.invoke(cb);
    }
    EngineProblem problem = make_problem(model, rf);
    if (ctx.is_mip) queue_extra_starts(model, rf, ctx);
    // The engine keeps its copy of a model it solves as given, for the next solve; the basis
    // of the last solve is read from that copy before it changes.
    if (!rf.changed) model->sol.ensure_basis();
    EngineResult r = rf.changed ? engine->solve(problem, params, ctx)
                                : engine->solve_kept(problem, params, ctx, model->engine_state);
    // A convex QP the engine's QP method failed on is solved again through its epigraph.
    std::optional<Reformulated> epigraph;
    solve_failed_qp_by_epigraph(
        model->data, rf, params, caps, *engine, ctx,
        [&](const Reformulated &again) { return make_problem(model, again); }, r, epigraph);
    const Reformulated &solved = epigraph ? *epigraph : rf;
    PolishFunction polish;
    // Polishing re-solves the linear part only: not for models that keep SOS or indicators.
    if (solved.changed && ctx.is_mip && solved.model().sos.size() == 0 &&
        solved.model().gens.size() == 0)
      polish = [&](std::vector<double> &x) {
        return polish_mip_solution(solved.model(), *engine, ctx, x);
      };
    fill_solution(model, solved, ctx, std::move(r), sol, polish);
    if (ctx.is_mip) fill_pool(model, rf, *engine, ctx, sol);
    solve_scenarios(model, rf, *engine, ctx, sol);
  }
  fail_if_memory_exceeded(ctx, "optimization");
  sol.runtime = ctx.elapsed();
  recycle_solution(model);
  model->sol = std::move(sol);
  if (output) log_summary(model->env, model->sol, ctx.is_mip);
  if (ctx.callback_error)
    fail(KVR_ERROR_CALLBACK, "The callback returned %d; optimization stopped", ctx.callback_error);
}

}  // namespace kvr

extern "C" {

int KVRoptimize(KVRmodel *model) {
  return kvr::run_on_model(model, [&] { kvr::optimize(model); });
}

int KVRsetsignal(KVRmodel *model) {
  if (int status = kvr::handle_status(model)) return status;
  std::lock_guard<std::mutex> lock(kvr::g_signal_mutex);
  if (std::find(kvr::g_armed.begin(), kvr::g_armed.end(), model) == kvr::g_armed.end())
    kvr::g_armed.push_back(model);
  return 0;
}

void KVRterminate(KVRmodel *model) {
  if (kvr::is_live(model)) model->terminate_requested.store(true);
}

KVRenv *KVRgetconcurrentenv(KVRmodel *model, int num) {
  if (!kvr::is_live(model)) return nullptr;
  if (num < 0 || num >= KVR_MAX_CONCURRENT) {
    model->errmsg = kvr::format("Concurrent environment %d does not exist (0 to %d)", num,
                                KVR_MAX_CONCURRENT - 1);
    return nullptr;
  }
  auto &envs = model->env.concurrent_envs;
  while (static_cast<int>(envs.size()) <= num)
    envs.push_back(std::make_unique<kvr_env>(model->env));
  return envs[num].get();
}

void KVRdiscardconcurrentenvs(KVRmodel *model) {
  if (kvr::is_live(model)) model->env.concurrent_envs.clear();
}

KVRenv *KVRgetmultiobjenv(KVRmodel *model, int num) {
  if (!kvr::is_live(model)) return nullptr;
  if (num < 0 || num >= 100000) {
    model->errmsg = kvr::format("Multi-objective environment %d does not exist (0 to 99999)", num);
    return nullptr;
  }
  auto &envs = model->env.multiobj_envs;
  while (static_cast<int>(envs.size()) <= num) envs.push_back(nullptr);
  if (!envs[num]) envs[num] = std::make_unique<kvr_env>(model->env);
  return envs[num].get();
}

void KVRdiscardmultiobjenvs(KVRmodel *model) {
  if (kvr::is_live(model)) model->env.multiobj_envs.clear();
}

}  // extern "C"
