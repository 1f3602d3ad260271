// Changes made since the last update; KVRupdatemodel applies them to the model data.
#pragma once

#include <vector>

#include "model/modeldata.h"

namespace kvr {

struct PendingChanges {
  // Elements added since the last update and not yet part of the model data.
  ModelData added;
  // Elements whose deletion waits for the update (indices as of the last update).
  std::vector<int> del_vars, del_constrs, del_sos, del_qconstrs, del_gens;
  bool empty() const;
};

}  // namespace kvr
