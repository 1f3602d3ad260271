#include "engine/highs_instance.h"

#include <pthread.h>

#include <algorithm>
#include <limits>
#include <mutex>
#include <numeric>

#include "util/machine.h"

namespace kvr {

void release_highs(void *highs) { highs_delete_instance(highs); }

void HighsInstance::dispatch_event(int type, const char *msg, const HighsCallbackDataOut *out,
                                   HighsCallbackDataIn *in, void *self) {
  const auto &hi = *static_cast<const HighsInstance *>(self);
  if (hi.event_fn_)
    hi.event_fn_(type, msg, out, in, hi.event_data_);
  else if (in)
    in->user_interrupt = 0;  // the engine keeps the flag: an earlier run may have raised it
}

void HighsInstance::route_events(HighsCCallbackType fn, void *data, uint32_t kinds) {
  event_fn_ = fn;
  event_data_ = data;
  const uint32_t wanted = fn ? kinds : 0;
  for (HighsInt k = 0; k < 32; ++k) {
    const uint32_t bit = 1u << k;
    if ((wanted & bit) && !(event_kinds_ & bit)) Highs_startCallback(h_, k);
    if (!(wanted & bit) && (event_kinds_ & bit)) Highs_stopCallback(h_, k);
  }
  event_kinds_ = wanted;
}

double HighsInstance::info_dbl(const char *name) const {
  double v = kNaN;
  if (Highs_getDoubleInfoValue(h_, name, &v) != kHighsStatusOk) return kNaN;
  return v;
}

long long HighsInstance::info_int(const char *name) const {
  HighsInt type = 0;
  if (Highs_getInfoType(h_, name, &type) != kHighsStatusOk) return 0;
  if (type == kHighsInfoTypeInt64) {
    int64_t v64 = 0;
    return Highs_getInt64InfoValue(h_, name, &v64) == kHighsStatusOk ? std::max<int64_t>(v64, 0)
                                                                     : 0;
  }
  HighsInt v = 0;  // counts the engine did not keep read -1
  return Highs_getIntInfoValue(h_, name, &v) == kHighsStatusOk ? std::max<HighsInt>(v, 0) : 0;
}

void HighsInstance::note_basis() {
  HighsInt valid = 0;
  basis_valid_ = Highs_getIntInfoValue(h_, "basis_validity", &valid) == kHighsStatusOk &&
                 valid == kHighsBasisValidityValid;
}

void HighsInstance::before_deletion(const std::vector<HighsInt> &delcols,
                                    const std::vector<HighsInt> &delrows) {
  if (!basis_valid_) return;
  std::vector<HighsInt> cs(delcols.size()), rs(delrows.size());
  if (Highs_getBasis(h_, cs.data(), rs.data()) != kHighsStatusOk) {
    basis_valid_ = false;
    return;
  }
  for (size_t j = 0; j < cs.size(); ++j)
    if (delcols[j] && cs[j] == kHighsBasisStatusBasic) basis_valid_ = false;
  for (size_t i = 0; i < rs.size(); ++i)
    if (delrows[i] && rs[i] != kHighsBasisStatusBasic) basis_valid_ = false;
}

bool HighsInstance::unchanged(const char *name, char type, double num, const char *text) {
  size_t k = next_ < given_.size() && given_[next_].name == name ? next_ : given_.size();
  if (k == given_.size())
    k = static_cast<size_t>(
        std::find_if(given_.begin(), given_.end(), [&](const Given &g) { return g.name == name; }) -
        given_.begin());
  next_ = k + 1;
  if (k == given_.size()) {
    given_.push_back(Given{name, type, num, text ? text : "", generation_});
    return false;
  }
  Given &g = given_[k];
  g.solve = generation_;
  if (g.type == type && (text ? g.text == text : g.num == num)) return true;
  g.type = type;
  g.num = num;
  g.text = text ? text : "";
  return false;
}

void HighsInstance::forget(const char *name) {
  std::erase_if(given_, [&](const Given &g) { return g.name == name; });
  next_ = 0;
}

void HighsInstance::begin_options() {
  ++generation_;
  next_ = 0;
}

void HighsInstance::end_options() {
  // Back to the default: the options the last solve gave and this one does not.
  for (const Given &g : given_) {
    if (g.solve == generation_) continue;
    const char *name = g.name.c_str();
    HighsInt type = -1;
    if (Highs_getOptionType(h_, name, &type) != kHighsStatusOk) continue;
    HighsInt icur = 0, imin = 0, imax = 0, idef = 0;
    double dcur = 0, dmin = 0, dmax = 0, ddef = 0;
    std::string scur(kHighsMaximumStringLength, '\0'), sdef(kHighsMaximumStringLength, '\0');
    // An option's own default is always accepted.
    if (type == kHighsOptionTypeBool && Highs_getBoolOptionValues(h_, name, &icur, &idef) == 0)
      Highs_setBoolOptionValue(h_, name, idef);
    else if (type == kHighsOptionTypeInt &&
             Highs_getIntOptionValues(h_, name, &icur, &imin, &imax, &idef) == 0)
      Highs_setIntOptionValue(h_, name, idef);
    else if (type == kHighsOptionTypeDouble &&
             Highs_getDoubleOptionValues(h_, name, &dcur, &dmin, &dmax, &ddef) == 0)
      Highs_setDoubleOptionValue(h_, name, ddef);
    else if (type == kHighsOptionTypeString &&
             Highs_getStringOptionValues(h_, name, scur.data(), sdef.data()) == 0)
      Highs_setStringOptionValue(h_, name, sdef.c_str());
  }
  std::erase_if(given_, [&](const Given &g) { return g.solve != generation_; });
  next_ = 0;
}

namespace {
constexpr double kInf = std::numeric_limits<double>::infinity();
double to_engine(double v) {
  if (v >= KVR_INFINITY) return kInf;
  if (v <= -KVR_INFINITY) return -kInf;
  return v;
}
}  // namespace

void engine_col_bounds(const ModelData &m, int j, double &lb, double &ub) {
  lb = to_engine(m.vars.lb[j]);
  ub = to_engine(m.vars.ub[j]);
  if (m.vars.vtype[j] == KVR_BINARY) {
    lb = std::max(lb, 0.0);
    ub = std::min(ub, 1.0);
  }
}

HighsInt engine_integrality(const ModelData &m, int j) {
  const char t = m.vars.vtype[j];
  return t == KVR_BINARY || t == KVR_INTEGER ? kHighsVarTypeInteger : kHighsVarTypeContinuous;
}

void engine_row_bounds(const ModelData &m, int i, double &lo, double &up) {
  const double rhs = to_engine(m.constrs.rhs[i]);
  const char s = m.constrs.sense[i];
  lo = s == KVR_LESS_EQUAL ? -kInf : rhs;
  up = s == KVR_GREATER_EQUAL ? kInf : rhs;
}

namespace {

// What differs between the model and the engine's copy among the elements both have.
struct Differences {
  std::vector<HighsInt> bset, cset, tset, rset;
  std::vector<double> blo, bup, cval, slo, sup;
  std::vector<HighsInt> types;
  struct Coeff {
    int row, col;
    double val;
  };
  std::vector<Coeff> coeffs;
  size_t count() const {
    return bset.size() + cset.size() + tset.size() + rset.size() + coeffs.size();
  }
};

// Compares the bounds, costs and types of the engine's columns `cols` (each below the number of
// columns it has) with the model's.
bool compare_cols(void *h, const ModelData &m, const std::vector<HighsInt> &cols, bool mip,
                  Differences &d) {
  const HighsInt k = static_cast<HighsInt>(cols.size());
  if (k == 0) return true;
  std::vector<double> cost(k), lo(k), up(k);
  HighsInt got = 0, nz = 0;
  if (Highs_getColsBySet(h, k, cols.data(), &got, cost.data(), lo.data(), up.data(), &nz, nullptr,
                         nullptr, nullptr) != kHighsStatusOk)
    return false;
  for (HighsInt q = 0; q < k; ++q) {
    const int j = cols[q];
    double l, u;
    engine_col_bounds(m, j, l, u);
    if (l != lo[q] || u != up[q]) d.bset.push_back(j), d.blo.push_back(l), d.bup.push_back(u);
    if (m.vars.obj[j] != cost[q]) d.cset.push_back(j), d.cval.push_back(m.vars.obj[j]);
    HighsInt t = kHighsVarTypeContinuous;
    Highs_getColIntegrality(h, j, &t);  // fails, leaving continuous, on a model without types
    const HighsInt want = mip ? engine_integrality(m, j) : kHighsVarTypeContinuous;
    if (t != want) d.tset.push_back(j), d.types.push_back(want);
  }
  return true;
}

// Compares the sides of the engine's rows `rows` with the model's.
bool compare_sides(void *h, const ModelData &m, const std::vector<HighsInt> &rows, Differences &d) {
  const HighsInt k = static_cast<HighsInt>(rows.size());
  if (k == 0) return true;
  std::vector<double> rlo(k), rup(k);
  HighsInt got = 0, nz = 0;
  if (Highs_getRowsBySet(h, k, rows.data(), &got, rlo.data(), rup.data(), &nz, nullptr, nullptr,
                         nullptr) != kHighsStatusOk)
    return false;
  for (HighsInt q = 0; q < k; ++q) {
    double l, u;
    engine_row_bounds(m, rows[q], l, u);
    if (l != rlo[q] || u != rup[q])
      d.rset.push_back(rows[q]), d.slo.push_back(l), d.sup.push_back(u);
  }
  return true;
}

// Compares every column, row and coefficient the engine has with the model.
bool compare_all(void *h, const ModelData &m, int nkeep, int mkeep, bool mip, Differences &d) {
  std::vector<HighsInt> all(std::max(nkeep, mkeep));
  std::iota(all.begin(), all.end(), 0);
  if (!compare_cols(h, m, std::vector<HighsInt>(all.begin(), all.begin() + nkeep), mip, d))
    return false;
  if (!compare_sides(h, m, std::vector<HighsInt>(all.begin(), all.begin() + mkeep), d))
    return false;
  // Coefficients in the columns the engine has.
  HighsInt got = 0, nz = 0;
  std::vector<double> rlo(mkeep), rup(mkeep);
  std::vector<HighsInt> rstart(mkeep + 1);
  if (mkeep > 0 && Highs_getRowsByRange(h, 0, mkeep - 1, &got, rlo.data(), rup.data(), &nz,
                                        rstart.data(), nullptr, nullptr) != kHighsStatusOk)
    return false;
  std::vector<HighsInt> rindex(nz);
  std::vector<double> rvalue(nz);
  if (mkeep > 0 &&
      Highs_getRowsByRange(h, 0, mkeep - 1, &got, rlo.data(), rup.data(), &nz, rstart.data(),
                           rindex.data(), rvalue.data()) != kHighsStatusOk)
    return false;
  rstart[mkeep] = nz;
  std::vector<double> dense(nkeep, 0.0);
  std::vector<int> mark(nkeep, -1);
  const SparseMatrix &a = m.constrs.rows;
  for (int i = 0; i < mkeep; ++i) {
    for (HighsInt k = rstart[i]; k < rstart[i + 1]; ++k) {
      dense[rindex[k]] = rvalue[k];
      mark[rindex[k]] = i;
    }
    for (int64_t k = a.beg[i]; k < a.beg[i + 1]; ++k) {
      const int j = a.ind[k];
      if (j >= nkeep) continue;  // a new column brings it
      const double have = mark[j] == i ? dense[j] : 0.0;
      if (a.val[k] != have) d.coeffs.push_back({i, j, a.val[k]});
      mark[j] = -2 - i;  // seen in the model's row
    }
    for (HighsInt k = rstart[i]; k < rstart[i + 1]; ++k)
      if (mark[rindex[k]] == i) d.coeffs.push_back({i, rindex[k], 0.0});  // gone from the model
  }
  return true;
}

// The listed elements of those the engine has (below `limit`), each once, in order.
template <class T>
std::vector<T> listed(std::vector<T> list, auto below) {
  std::sort(list.begin(), list.end());
  list.erase(std::unique(list.begin(), list.end()), list.end());
  std::erase_if(list, [&](const T &e) { return !below(e); });
  return list;
}

// Compares only the elements the model recorded as changed in place.
bool compare_listed(void *h, const HighsState &state, const ModelData &m, int nkeep, int mkeep,
                    bool mip, Differences &d) {
  std::vector<int> cols(state.objective_replaced ? nkeep : 0);
  if (state.objective_replaced)
    std::iota(cols.begin(), cols.end(), 0);  // every cost
  else
    cols = listed(state.changed_vars, [&](int j) { return j < nkeep; });
  auto rows = listed(state.changed_constrs, [&](int i) { return i < mkeep; });
  if (!compare_cols(h, m, std::vector<HighsInt>(cols.begin(), cols.end()), mip, d)) return false;
  if (!compare_sides(h, m, std::vector<HighsInt>(rows.begin(), rows.end()), d)) return false;
  const SparseMatrix &a = m.constrs.rows;
  for (auto [i, j] : listed(state.changed_coeffs, [&](std::pair<int, int> c) {
         return c.first < mkeep && c.second < nkeep;
       })) {
    double want = 0.0, have = 0.0;
    for (int64_t k = a.beg[i]; k < a.beg[i + 1]; ++k)
      if (a.ind[k] == j) want = a.val[k];
    if (Highs_getCoeff(h, i, j, &have) == kHighsStatusError) return false;
    if (want != have) d.coeffs.push_back({i, j, want});
  }
  return true;
}

}  // namespace

bool update_instance(HighsState &state, const ModelData &m, bool mip, InstanceUpdate &out) {
  state.instance->model_changes();
  void *h = state.instance->get();
  const int n0 = Highs_getNumCol(h), m0 = Highs_getNumRow(h);
  const int n = m.num_vars(), rows = m.num_constrs();
  int nkeep = n0, mkeep = m0;
  std::vector<int> colpos;
  if (!state.deletions.empty()) {
    // Where each of the engine's columns and rows is now (-1: deleted). Elements added since
    // the engine took its copy come after the engine's in the model, whatever was deleted.
    std::vector<int> rowpos(m0);
    colpos.resize(n0);
    std::iota(colpos.begin(), colpos.end(), 0);
    std::iota(rowpos.begin(), rowpos.end(), 0);
    for (const auto &[kind, renumbering] : state.deletions) {
      std::vector<int> &pos = kind == 'V' ? colpos : rowpos;
      for (int &p : pos)
        if (p >= 0) p = p < static_cast<int>(renumbering.size()) ? renumbering[p] : -1;
    }
    std::vector<HighsInt> delcols(n0), delrows(m0);
    nkeep = mkeep = 0;
    for (int j = 0; j < n0; ++j) nkeep += !(delcols[j] = colpos[j] < 0);
    for (int i = 0; i < m0; ++i) mkeep += !(delrows[i] = rowpos[i] < 0);
    if (nkeep > n || mkeep > rows) return false;  // not the model the engine was given
    // Many new elements are handed over faster in one piece.
    if (n - nkeep + rows - mkeep > n0 + m0 + 100) return false;
    state.instance->before_deletion(delcols, delrows);
    if (nkeep < n0 && Highs_deleteColsByMask(h, delcols.data()) != kHighsStatusOk) return false;
    if (mkeep < m0 && Highs_deleteRowsByMask(h, delrows.data()) != kHighsStatusOk) return false;
  }
  if (nkeep > n || mkeep > rows) return false;  // not the model the engine was given
  out.deleted = static_cast<size_t>(n0 - nkeep + m0 - mkeep);
  out.added = static_cast<size_t>(n - nkeep + rows - mkeep);
  if (out.added > static_cast<size_t>(n0 + m0) + 100) return false;
  if (!state.incumbent.empty() && static_cast<int>(state.incumbent.size()) == n0) {
    out.incumbent.assign(n, 0.0);
    for (int j = 0; j < n0; ++j) {
      const int p = colpos.empty() ? j : colpos[j];
      if (p >= 0) out.incumbent[p] = state.incumbent[j];
    }
    for (int j = nkeep; j < n; ++j) out.incumbent[j] = std::clamp(0.0, m.vars.lb[j], m.vars.ub[j]);
  }

  const SparseMatrix &a = m.constrs.rows;
  Differences diff;
  const bool compared = state.scan_all || mip != state.mip
                            ? compare_all(h, m, nkeep, mkeep, mip, diff)
                            : compare_listed(h, state, m, nkeep, mkeep, mip, diff);
  if (!compared) return false;
  out.changed = diff.count();
  if (diff.coeffs.size() > static_cast<size_t>(a.nnz() / 2) + 100) return false;
  auto &[bset, cset, tset, rset, blo, bup, cval, slo, sup, types, coeffs] = diff;

  auto ok = [](HighsInt status) { return status != kHighsStatusError; };
  bool done = true;
  if (!bset.empty())
    done &= ok(Highs_changeColsBoundsBySet(h, static_cast<HighsInt>(bset.size()), bset.data(),
                                           blo.data(), bup.data()));
  if (!cset.empty())
    done &= ok(
        Highs_changeColsCostBySet(h, static_cast<HighsInt>(cset.size()), cset.data(), cval.data()));
  if (!tset.empty())
    done &= ok(Highs_changeColsIntegralityBySet(h, static_cast<HighsInt>(tset.size()), tset.data(),
                                                types.data()));
  if (!rset.empty())
    done &= ok(Highs_changeRowsBoundsBySet(h, static_cast<HighsInt>(rset.size()), rset.data(),
                                           slo.data(), sup.data()));
  for (const auto &c : coeffs) done &= ok(Highs_changeCoeff(h, c.row, c.col, c.val));

  // New columns with their coefficients in the rows the engine has, then new rows whole.
  if (n > nkeep) {
    const int added = n - nkeep;
    std::vector<std::vector<std::pair<int, double>>> cols(added);
    for (int i = 0; i < mkeep; ++i)
      for (int64_t k = a.beg[i]; k < a.beg[i + 1]; ++k)
        if (a.ind[k] >= nkeep) cols[a.ind[k] - nkeep].emplace_back(i, a.val[k]);
    std::vector<double> c(added), l(added), u(added), val;
    std::vector<HighsInt> start(added), idx, set(added), t(added);
    for (int q = 0; q < added; ++q) {
      const int j = nkeep + q;
      engine_col_bounds(m, j, l[q], u[q]);
      c[q] = m.vars.obj[j];
      start[q] = static_cast<HighsInt>(idx.size());
      for (auto [i, v] : cols[q]) idx.push_back(i), val.push_back(v);
      set[q] = j;
      t[q] = mip ? engine_integrality(m, j) : kHighsVarTypeContinuous;
    }
    done &=
        ok(Highs_addCols(h, added, c.data(), l.data(), u.data(), static_cast<HighsInt>(idx.size()),
                         start.data(), idx.data(), val.data()));
    if (mip) done &= ok(Highs_changeColsIntegralityBySet(h, added, set.data(), t.data()));
  }
  if (rows > mkeep) {
    const int added = rows - mkeep;
    std::vector<double> l(added), u(added);
    std::vector<HighsInt> start(added);
    for (int q = 0; q < added; ++q) {
      engine_row_bounds(m, mkeep + q, l[q], u[q]);
      start[q] = static_cast<HighsInt>(a.beg[mkeep + q] - a.beg[mkeep]);
    }
    const int64_t from = a.beg[mkeep], count = a.beg[rows] - from;
    done &= ok(Highs_addRows(h, added, l.data(), u.data(), static_cast<HighsInt>(count),
                             start.data(), a.ind.data() + from, a.val.data() + from));
  }
  // The objective's sense and constant.
  HighsInt sense = 0;
  double offset = 0.0;
  Highs_getObjectiveSense(h, &sense);
  Highs_getObjectiveOffset(h, &offset);
  const HighsInt want_sense =
      m.sense == KVR_MAXIMIZE ? kHighsObjSenseMaximize : kHighsObjSenseMinimize;
  if (sense != want_sense) done &= ok(Highs_changeObjectiveSense(h, want_sense)), ++out.changed;
  if (offset != m.objcon) done &= ok(Highs_changeObjectiveOffset(h, m.objcon)), ++out.changed;
  state.clear_changes();
  return done;
}

namespace {

// The calling thread's use of its scheduler: how many solves and engine events are under way on
// it, the Threads value its scheduler was made for (-1: none made by a solve of ours), and the
// workers of the scheduler an earlier solve left on it (0: none).
struct ThreadScheduler {
  int depth = 0;
  int threads = -1;
  int kept_workers = 0;
};
thread_local ThreadScheduler t_sched;

// The workers of the scheduler the engine makes for a threads option (0: its own choice).
int scheduler_workers(int threads) {
  return threads > 0 ? threads : static_cast<int>((machine_threads() + 1) / 2);
}

// A forked child has the forking thread's scheduler but none of its worker threads, and would
// wait for them at its first parallel step: the forking thread stops them first.
void stop_workers_before_fork() {
  if (t_sched.depth == 0 && t_sched.kept_workers > 1) {
    highs_reset_scheduler();
    t_sched.kept_workers = 0;
  }
}

}  // namespace

SchedulerUse::SchedulerUse(int threads, SolveContext &ctx) {
  if (t_sched.depth > 0 && t_sched.threads != -1 && t_sched.threads != threads) {
    ctx.logf("Threads %d ignored: the solve this one runs inside uses %d threads\n", threads,
             t_sched.threads);
    threads_used = t_sched.threads;
  } else {
    // A kept scheduler of another size would refuse this solve.
    if (t_sched.depth == 0 && t_sched.kept_workers != 0 &&
        t_sched.kept_workers != scheduler_workers(threads))
      highs_reset_scheduler();
    t_sched.kept_workers = 0;
    threads_used = threads;
    t_sched.threads = threads;
  }
  ++t_sched.depth;
}

SchedulerUse::~SchedulerUse() {
  // The scheduler stays for the thread's next solve, which would otherwise make it again (and
  // start its worker threads again); its workers wait idle in between.
  if (--t_sched.depth == 0) {
    t_sched.kept_workers = std::max(1, scheduler_workers(t_sched.threads));
    if (t_sched.kept_workers > 1) {
      static std::once_flag fork_guard;
      std::call_once(fork_guard,
                     [] { pthread_atfork(stop_workers_before_fork, nullptr, nullptr); });
    }
    t_sched.threads = -1;
  }
}

EngineEventScope::EngineEventScope(int threads) : saved_threads_(t_sched.threads) {
  ++t_sched.depth;
  t_sched.threads = threads;
}

EngineEventScope::~EngineEventScope() {
  --t_sched.depth;
  t_sched.threads = saved_threads_;
}

}  // namespace kvr
