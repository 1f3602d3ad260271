// StatusConstClass: the optimization status codes.
#include "constants.h"

namespace kvrpy {

Constants status_constants() {
  return {{"LOADED", nb::int_(KVR_LOADED)},
          {"OPTIMAL", nb::int_(KVR_OPTIMAL)},
          {"INFEASIBLE", nb::int_(KVR_INFEASIBLE)},
          {"INF_OR_UNBD", nb::int_(KVR_INF_OR_UNBD)},
          {"UNBOUNDED", nb::int_(KVR_UNBOUNDED)},
          {"CUTOFF", nb::int_(KVR_CUTOFF)},
          {"ITERATION_LIMIT", nb::int_(KVR_ITERATION_LIMIT)},
          {"NODE_LIMIT", nb::int_(KVR_NODE_LIMIT)},
          {"TIME_LIMIT", nb::int_(KVR_TIME_LIMIT)},
          {"SOLUTION_LIMIT", nb::int_(KVR_SOLUTION_LIMIT)},
          {"INTERRUPTED", nb::int_(KVR_INTERRUPTED)},
          {"NUMERIC", nb::int_(KVR_NUMERIC)},
          {"SUBOPTIMAL", nb::int_(KVR_SUBOPTIMAL)},
          {"INPROGRESS", nb::int_(KVR_INPROGRESS)},
          {"USER_OBJ_LIMIT", nb::int_(KVR_USER_OBJ_LIMIT)},
          {"WORK_LIMIT", nb::int_(KVR_WORK_LIMIT)},
          {"MEM_LIMIT", nb::int_(KVR_MEM_LIMIT)}};
}

nb::object make_status_const_class(nb::module_ &m) {
  return make_constant_class(m, "StatusConstClass", "Optimization status codes.",
                             status_constants(), "Modifying Kaviro status constant not allowed");
}

}  // namespace kvrpy
