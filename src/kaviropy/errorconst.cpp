// ErrorConstClass: the library's error codes (its instance is not guarded against assignment).
#include "constants.h"

namespace kvrpy {

Constants error_constants() {
  return {{"OUT_OF_MEMORY", nb::int_(KVR_ERROR_OUT_OF_MEMORY)},
          {"NULL_ARGUMENT", nb::int_(KVR_ERROR_NULL_ARGUMENT)},
          {"INVALID_ARGUMENT", nb::int_(KVR_ERROR_INVALID_ARGUMENT)},
          {"UNKNOWN_ATTRIBUTE", nb::int_(KVR_ERROR_UNKNOWN_ATTRIBUTE)},
          {"DATA_NOT_AVAILABLE", nb::int_(KVR_ERROR_DATA_NOT_AVAILABLE)},
          {"INDEX_OUT_OF_RANGE", nb::int_(KVR_ERROR_INDEX_OUT_OF_RANGE)},
          {"UNKNOWN_PARAMETER", nb::int_(KVR_ERROR_UNKNOWN_PARAMETER)},
          {"VALUE_OUT_OF_RANGE", nb::int_(KVR_ERROR_VALUE_OUT_OF_RANGE)},
          {"CALLBACK", nb::int_(KVR_ERROR_CALLBACK)},
          {"FILE_READ", nb::int_(KVR_ERROR_FILE_READ)},
          {"FILE_WRITE", nb::int_(KVR_ERROR_FILE_WRITE)},
          {"NUMERIC", nb::int_(KVR_ERROR_NUMERIC)},
          {"IIS_NOT_INFEASIBLE", nb::int_(KVR_ERROR_IIS_NOT_INFEASIBLE)},
          {"NOT_FOR_MIP", nb::int_(KVR_ERROR_NOT_FOR_MIP)},
          {"OPTIMIZATION_IN_PROGRESS", nb::int_(KVR_ERROR_OPTIMIZATION_IN_PROGRESS)},
          {"DUPLICATES", nb::int_(KVR_ERROR_DUPLICATES)},
          {"NODEFILE", nb::int_(KVR_ERROR_NODEFILE)},
          {"Q_NOT_PSD", nb::int_(KVR_ERROR_Q_NOT_PSD)},
          {"QCP_EQUALITY_CONSTRAINT", nb::int_(KVR_ERROR_QCP_EQUALITY_CONSTRAINT)},
          {"NETWORK", nb::int_(KVR_ERROR_NETWORK)},
          {"JOB_REJECTED", nb::int_(KVR_ERROR_JOB_REJECTED)},
          {"NOT_SUPPORTED", nb::int_(KVR_ERROR_NOT_SUPPORTED)},
          {"EXCEED_2B_NONZEROS", nb::int_(KVR_ERROR_EXCEED_2B_NONZEROS)},
          {"INVALID_PIECEWISE_OBJ", nb::int_(KVR_ERROR_INVALID_PIECEWISE_OBJ)},
          {"UPDATEMODE_CHANGE", nb::int_(KVR_ERROR_UPDATEMODE_CHANGE)},
          {"CLOUD", nb::int_(KVR_ERROR_CLOUD)},
          {"MODEL_MODIFICATION", nb::int_(KVR_ERROR_MODEL_MODIFICATION)},
          {"CSWORKER", nb::int_(KVR_ERROR_CSWORKER)},
          {"TUNE_MODEL_TYPES", nb::int_(KVR_ERROR_TUNE_MODEL_TYPES)},
          {"SECURITY", nb::int_(KVR_ERROR_SECURITY)},
          {"NOT_IN_MODEL", nb::int_(KVR_ERROR_NOT_IN_MODEL)},
          {"FAILED_TO_CREATE_MODEL", nb::int_(KVR_ERROR_FAILED_TO_CREATE_MODEL)},
          {"INTERNAL", nb::int_(KVR_ERROR_INTERNAL)}};
}

nb::object make_error_const_class(nb::module_ &m) {
  Constants codes;
  for (auto &[name, value] : error_constants())
    if (name != "SECURITY") codes.emplace_back(name, value);
  return make_constant_class(m, "ErrorConstClass", "Error codes of the solver library.", codes, "");
}

}  // namespace kvrpy
