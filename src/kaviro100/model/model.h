// The library's model object: the model data as of the last update, the changes waiting for the
// next update, its own copy of the environment, the last solution and the optimization state.
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "env/env.h"
#include "model/modeldata.h"
#include "model/pending.h"
#include "model/solution.h"

struct kvr_model {
  kvr_env env;  // the model's own copy of its environment's parameters and log destinations
  std::string errmsg;
  kvr::ModelData data;  // the state as of the last update
  kvr::PendingChanges pending;
  kvr::Solution sol;

  // Optimization callback and its state.
  KVRcallback callback = nullptr;
  void *cbusrdata = nullptr;
  std::atomic<bool> terminate_requested{false};
  std::atomic<bool> optimizing{false};

  kvr_model(const kvr_env &parent, kvr::ModelData d) : env(parent), data(std::move(d)) {}

  // Runs body and stores the message of a failure on the model; returns the error code.
  template <class Body>
  int run(Body &&body) noexcept {
    int code = kvr::guarded(errmsg, body);
    if (code == 0) errmsg.clear();
    return code;
  }
};

namespace kvr {
// Applies the pending changes (what KVRupdatemodel does); throws kvr::Error on failure.
void update_model(kvr_model *model);
// Drops the results of the last solve (a change of the model makes them stale).
void discard_solution(kvr_model *model);
}  // namespace kvr
