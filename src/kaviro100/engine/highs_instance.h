// One instance of the HiGHS engine, and the task scheduler its runs use.
//
// The engine runs its parallel work on a scheduler that belongs to the calling thread: the first
// run on a thread creates it, sized by that run's threads option, and later runs on the thread
// must use the same size. The scheduler stays on the thread between solves; the outermost solve
// of a thread that asks for another size resets it first, never while another solve uses it (the
// user's callback can solve or free another model), and so does a fork of the process (the
// child would have the scheduler without its worker threads). Instances are released without
// touching it at all, wherever and whenever that happens (in a callback, on another thread, in
// garbage collection).
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "engine/engine.h"
#include "engine/highs_api.h"
#include "util/error.h"

namespace kvr {

// Frees an engine instance without shutting down the calling thread's scheduler.
void release_highs(void *highs);

class HighsInstance {
 public:
  HighsInstance() : h_(Highs_create()) {
    if (!h_) fail(KVR_ERROR_OUT_OF_MEMORY, "Unable to create an engine instance");
    // The engine's event function is given once, while the instance has no columns: given
    // again on a loaded model, the engine sizes a per-column buffer that it then copies at
    // every event of every later run (every simplex iteration). route_events() redirects.
    Highs_setCallback(h_, dispatch_event, this);
  }
  ~HighsInstance() { release_highs(h_); }
  HighsInstance(const HighsInstance &) = delete;
  HighsInstance &operator=(const HighsInstance &) = delete;
  void *get() const { return h_; }

  // The bit of one kind of engine event in route_events' `kinds`.
  static constexpr uint32_t event_kind(HighsInt kind) { return uint32_t{1} << kind; }
  // Sends the engine's events of the kinds in `kinds` (event_kind bits) to `fn` with `data`,
  // and no others; with `fn` null, none.
  void route_events(HighsCCallbackType fn, void *data, uint32_t kinds);

  void set_bool(const char *name, bool v) {
    if (!unchanged(name, 'b', v, nullptr)) check(Highs_setBoolOptionValue(h_, name, v), name);
  }
  void set_int(const char *name, long long v) {
    HighsInt iv = static_cast<HighsInt>(std::clamp<long long>(v, 0, 2147483647LL));
    if (!unchanged(name, 'i', iv, nullptr)) check(Highs_setIntOptionValue(h_, name, iv), name);
  }
  void set_dbl(const char *name, double v) {
    if (!unchanged(name, 'd', v, nullptr)) check(Highs_setDoubleOptionValue(h_, name, v), name);
  }
  void set_str(const char *name, const char *v) {
    if (!unchanged(name, 's', 0, v)) check(Highs_setStringOptionValue(h_, name, v), name);
  }
  // An option given as text (any type); returns false when the engine rejects it.
  bool set_text(const char *name, const char *v) {
    if (unchanged(name, 't', 0, v)) return true;
    if (Highs_setOptionValue(h_, name, v) != kHighsStatusError) return true;
    forget(name);
    return false;
  }
  // The options of a solve on this instance are set between begin_options(), which starts the
  // solve, and end_options(): options the last solve gave with the same value are not passed
  // again, and those it gave that this one does not go back to their defaults.
  void begin_options();
  void end_options();
  // Counts the solves started on the instance and the changes of its model: what a solve left
  // on it is valid while the count has not moved on.
  uint64_t generation() const { return generation_; }
  void model_changes() { ++generation_; }
  double info_dbl(const char *name) const;
  long long info_int(const char *name) const;
  // Whether the instance holds a basis for its model (kept through changes of the model).
  bool has_basis() const { return basis_valid_; }
  // Records whether the last run ended with a valid basis; call right after a run.
  void note_basis();
  // Before deleting the columns and rows marked in the masks: the engine keeps its basis only
  // when no basic column and no nonbasic row goes.
  void before_deletion(const std::vector<HighsInt> &delcols, const std::vector<HighsInt> &delrows);

 private:
  void check(HighsInt status, const char *name) {
    if (status != kHighsStatusError) return;
    forget(name);
    fail(KVR_ERROR_INTERNAL, "The engine rejected its option '%s'", name);
  }
  // Whether option `name` holds the value given already in this solve or the last one; notes
  // the value as given in this solve either way.
  bool unchanged(const char *name, char type, double num, const char *text);
  void forget(const char *name);
  static void dispatch_event(int type, const char *msg, const HighsCallbackDataOut *out,
                             HighsCallbackDataIn *in, void *self);
  void *h_;
  HighsCCallbackType event_fn_ = nullptr;
  void *event_data_ = nullptr;
  uint32_t event_kinds_ = 0;  // bit k: kind k is started
  bool basis_valid_ = false;
  uint64_t generation_ = 0;
  struct Given {
    std::string name;
    char type;
    double num;
    std::string text;
    uint64_t solve;  // the generation of the last solve that gave it
  };
  // The options given in the last solve and in this one, in the order they were first given.
  // Solves give their options in the same order, so the next one asked for is usually the one
  // after the last found: an unchanged set is checked in one comparison per option.
  std::vector<Given> given_;
  size_t next_ = 0;
};

// The engine's bounds of variable j of m (a binary within [0, 1]), its type, and the bounds of
// row i: what the engine is given for them.
void engine_col_bounds(const ModelData &m, int j, double &lb, double &ub);
HighsInt engine_integrality(const ModelData &m, int j);
void engine_row_bounds(const ModelData &m, int i, double &lo, double &up);

// An engine instance kept by a model between its solves: the engine's copy of the model, its
// last basis, and the last MIP solution (in the model's numbering of that solve).
struct HighsState final : EngineState {
  std::shared_ptr<HighsInstance> instance;
  std::vector<double> incumbent;
  bool mip = false;  // whether the engine's copy has integer columns
};

// What bringing a kept instance up to date handed to the engine.
struct InstanceUpdate {
  size_t deleted = 0, added = 0, changed = 0;  // elements deleted and added, other changes
  std::vector<double> incumbent;  // the last MIP solution mapped onto m (empty when none)
};

// Brings the kept instance's model up to date with m: the deletions recorded in the state, then
// changed bounds, sides, objective, coefficients and types, then the added columns and rows.
// `mip` tells whether m has integer variables. Returns false when that is more work than handing
// the model over in full; the instance is then to be dropped.
bool update_instance(HighsState &state, const ModelData &m, bool mip, InstanceUpdate &out);

// Marks the calling thread as running a solve with the Threads value `threads` for the lifetime
// of the object. threads_used is the threads option the solve must give the engine: the value
// asked for, unless a solve further out on this thread already fixed the scheduler's size.
class SchedulerUse {
 public:
  SchedulerUse(int threads, SolveContext &ctx);
  ~SchedulerUse();
  SchedulerUse(const SchedulerUse &) = delete;
  SchedulerUse &operator=(const SchedulerUse &) = delete;
  int threads_used = -1;
};

// Marks the calling thread as running inside an engine event of a solve using `threads` for the
// lifetime of the object: engine events can run on the engine's own worker threads, whose
// scheduler is the solve's, and a solve started from the user's code there must share it.
class EngineEventScope {
 public:
  explicit EngineEventScope(int threads);
  ~EngineEventScope();
  EngineEventScope(const EngineEventScope &) = delete;
  EngineEventScope &operator=(const EngineEventScope &) = delete;

 private:
  int saved_threads_;
};

}  // namespace kvr
