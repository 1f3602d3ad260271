// Derived models: new models made from the data of a model (relaxation, fixed model, presolved
// model, dual, feasibility model, linearization, single scenario). The new data is built
// completely before the new model exists, so a failing call leaves nothing behind.
#pragma once

#include "model/model.h"
#include "util/error.h"

namespace kvr {

// The body of a derived-model entry point: checks the arguments, applies the pending changes when
// update_first (else reads the data as of the last update), and hands out a new model holding
// build(model) with a copy of the model's environment. build only reads the model (and may log).
template <class Build>
int derive_model(kvr_model *model, kvr_model **resultP, bool update_first, Build &&build) noexcept {
  if (resultP) *resultP = nullptr;
  return run_on_model(model, [&] {
    if (!resultP) fail(KVR_ERROR_NULL_ARGUMENT, "No place given for the new model");
    if (update_first) {
      check_modifiable(model);
      update_model(model);
    } else {
      check_queryable(model);
    }
    ModelData derived = build(*model);
    *resultP = new kvr_model(model->env, std::move(derived));
  });
}

}  // namespace kvr
