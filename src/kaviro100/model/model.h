// The library's model object: the model data as of the last update, the changes waiting for the
// next update, its own copy of the environment, the last solution and the optimization state.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "env/env.h"
#include "model/modeldata.h"
#include "model/pending.h"
#include "model/solution.h"
#include "util/live.h"

namespace kvr {
// One parameter value of a tuning result (integer parameters hold exact values).
struct ParamChange {
  ParamId id;
  double value;
  bool operator==(const ParamChange &) const = default;
};
// What an engine keeps between solves of one model (its own copy of the model and solver state;
// see Engine::solve_kept), owned by the model and freed with it. The model records here the
// deletions it applies after the engine took its copy: each is the renumbering of the variables
// (kind 'V') or constraints ('C') as they were before it.
//
// The model also records which elements it changed in place since then, numbered as in the model
// now, so that a re-solve compares only those with the engine's copy: variables whose bounds, cost
// or type were written, constraints whose side or sense were, and matrix entries (row, column).
// scan_all is set when changes of another kind happened (or too many to list): every element is
// then compared.
struct EngineState {
  virtual ~EngineState() = default;
  std::vector<std::pair<char, Renumbering>> deletions;
  std::vector<int> changed_vars, changed_constrs;
  std::vector<std::pair<int, int>> changed_coeffs;
  bool scan_all = false;
  bool objective_replaced = false;  // the whole linear objective: every cost is given again
  // Vectors of a discarded solution, sized as they were: the next solve fills them instead of
  // new, cleared ones.
  struct Spare {
    std::vector<double> x, slack, rc, pi;
  } spare;
  void clear_changes() {
    deletions.clear();
    changed_vars.clear();
    changed_constrs.clear();
    changed_coeffs.clear();
    scan_all = false;
    objective_replaced = false;
  }
};
// The outcome of the last tuning run: the parameters in force when it started and the improved
// sets, each a list of changes to those, best set first.
struct TuneResults {
  ParamValues baseline;
  std::vector<std::vector<ParamChange>> sets;
};
}  // namespace kvr

struct kvr_model {
  kvr_env env;  // the model's own copy of its environment's parameters and log destinations
  std::string errmsg;
  kvr::ModelData data;  // the state as of the last update
  kvr::PendingChanges pending;
  kvr::Solution sol;

  // Optimization callback and its state.
  KVRcallback callback = nullptr;
  void *cbusrdata = nullptr;
  int callback_wheres = 0;  // where the callback acts, as declared (bits 1 << where)
  std::atomic<bool> terminate_requested{false};
  std::atomic<bool> optimizing{false};

  kvr::TuneResults tune;
  // The engine's state from the last solve, when it kept one (never copied with the model).
  std::shared_ptr<kvr::EngineState> engine_state;
  // While set, a solve of this model also stops when the flag is raised (the tuner's working
  // copies follow the interrupt state of the model being tuned).
  const std::atomic<bool> *also_stop_on = nullptr;

  // Counts changes of `data`; caches derived from the data remember the version they were built
  // from. Code that changes `data` directly calls kvr::data_changed.
  uint64_t version = 0;
  // Set when `data` changed outside an update (additions in update mode 1): the next update then
  // discards the solution even when nothing is queued.
  bool changed_since_update = false;
  // Variables and linear constraints added to `data` since the last update (update mode 1): they
  // sit at the end of their arrays, usable by index, but counts and model-wide queries leave them
  // out until the update.
  int unshown_vars = 0, unshown_constrs = 0;

  // Column view of the constraint matrix, built on demand.
  kvr::SparseMatrix colview;
  uint64_t colview_version = UINT64_MAX;

  // Storage behind the strings handed out by the string attribute queries.
  std::string strbuf;
  std::vector<char *> strptrs;

  kvr_model(const kvr_env &parent, kvr::ModelData d) : env(parent), data(std::move(d)) {
    kvr::register_handle(this);
  }
  // A full, independent copy (data, pending changes, parameters, solution); no callback.
  kvr_model(const kvr_model &other);
  kvr_model &operator=(const kvr_model &) = delete;
  ~kvr_model() { kvr::unregister_handle(this); }

  // Runs body and stores the message of a failure on the model; returns the error code.
  template <class Body>
  int run(Body &&body) noexcept {
    int code = kvr::guarded(errmsg, body);
    if (code == 0) errmsg.clear();
    return code;
  }
};

namespace kvr {
// The body of a C entry point on a model: NULL_ARGUMENT for a null model, INVALID_ARGUMENT for
// one that was freed (its message is then kNotLiveMessage), else model->run(body).
template <class Body>
int run_on_model(kvr_model *model, Body &&body) noexcept {
  if (int status = handle_status(model)) return status;
  return model->run(body);
}

// Applies the pending changes (what KVRupdatemodel does); throws kvr::Error on failure.
void update_model(kvr_model *model);
// Drops the results of the last solve (a change of the model makes them stale).
void discard_solution(kvr_model *model);
// Hands the vectors of the solution to the engine's state for reuse, leaving them empty.
void recycle_solution(kvr_model *model);
// Marks `data` as changed (invalidates the caches derived from it).
void data_changed(kvr_model *model);

// Entry checks: a change of the model while it is being optimized fails with
// MODEL_MODIFICATION; a query with OPTIMIZATION_IN_PROGRESS.
void check_modifiable(const kvr_model *model);
void check_queryable(const kvr_model *model);
int update_mode(const kvr_model *model);

// Numbers of variables and linear constraints as of the last update.
inline int shown_vars(const kvr_model *m) { return m->data.num_vars() - m->unshown_vars; }
inline int shown_constrs(const kvr_model *m) { return m->data.num_constrs() - m->unshown_constrs; }
// The model data as of the last update: `data` itself, or, while elements added in update mode 1
// wait for the update, a copy without them (kept in `scratch`).
const ModelData &shown_data(const kvr_model *m, ModelData &scratch);

// Column view of data.constrs.rows: row j holds the entries of variable j (constraint index,
// value), in constraint order.
const SparseMatrix &column_view(kvr_model *model);
}  // namespace kvr
