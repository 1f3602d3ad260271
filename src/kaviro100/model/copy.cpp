// Copies of a model (KVRcopymodel, the tuner's working copies): data, queued changes, parameters,
// solution and tuning results; never the callback, the engine's state or the caches.
#include "model/model.h"

kvr_model::kvr_model(const kvr_model &other)
    : env(other.env),
      data(other.data),
      pending(other.pending),
      sol(other.sol),
      tune(other.tune),
      changed_since_update(other.changed_since_update),
      unshown_vars(other.unshown_vars),
      unshown_constrs(other.unshown_constrs) {}
