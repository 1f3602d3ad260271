// The part of HiGHS's C interface this engine uses, declared here and resolved at run time from
// the library of the highsbox package (loaded with RTLD_LOCAL on first use). The layouts of the
// event structures and the constants below are those of HiGHS 1.15, the only version accepted.
//
// Each function is called through a table of pointers by a same-named wrapper in namespace kvr, so
// the engine's code reads like calls into the C interface; the first call loads the library and
// fails with NOT_SUPPORTED (a KaviroError) when it is missing or is not a usable HiGHS 1.15.
#pragma once

#include <cstdint>
#include <string>
#include <type_traits>
#include <utility>

namespace kvr {

using HighsInt = int32_t;  // the library is built with 32-bit indices

// What the engine reports to an event function.
struct HighsCallbackDataOut {
  void *cbdata;
  int log_type;
  double running_time;
  HighsInt simplex_iteration_count;
  HighsInt ipm_iteration_count;
  HighsInt pdlp_iteration_count;
  double objective_function_value;
  int64_t mip_node_count;
  int64_t mip_total_lp_iterations;
  double mip_primal_bound;
  double mip_dual_bound;
  double mip_gap;
  double *mip_solution;
  HighsInt mip_solution_size;
  HighsInt cutpool_num_col;
  HighsInt cutpool_num_cut;
  HighsInt cutpool_num_nz;
  HighsInt *cutpool_start;
  HighsInt *cutpool_index;
  double *cutpool_value;
  double *cutpool_lower;
  double *cutpool_upper;
  HighsInt external_solution_query_origin;
};

// What an event function hands back to the engine.
struct HighsCallbackDataIn {
  int user_interrupt;
  double *user_solution;
  void *cbdata;
  int user_has_solution;
  HighsInt user_solution_size;
};

using HighsCCallbackType = void (*)(int, const char *, const HighsCallbackDataOut *,
                                    HighsCallbackDataIn *, void *);

constexpr HighsInt kHighsStatusError = -1;
constexpr HighsInt kHighsStatusOk = 0;
constexpr HighsInt kHighsMaximumStringLength = 512;
constexpr HighsInt kHighsOptionTypeBool = 0;
constexpr HighsInt kHighsOptionTypeInt = 1;
constexpr HighsInt kHighsOptionTypeDouble = 2;
constexpr HighsInt kHighsOptionTypeString = 3;

constexpr HighsInt kHighsVarTypeContinuous = 0;
constexpr HighsInt kHighsVarTypeInteger = 1;
constexpr HighsInt kHighsObjSenseMinimize = 1;
constexpr HighsInt kHighsObjSenseMaximize = -1;
constexpr HighsInt kHighsMatrixFormatRowwise = 2;
constexpr HighsInt kHighsHessianFormatTriangular = 1;
constexpr HighsInt kHighsInfoTypeInt64 = -1;

constexpr HighsInt kHighsSolutionStatusNone = 0;
constexpr HighsInt kHighsSolutionStatusFeasible = 2;
constexpr HighsInt kHighsBasisValidityValid = 1;

constexpr HighsInt kHighsBasisStatusLower = 0;
constexpr HighsInt kHighsBasisStatusBasic = 1;
constexpr HighsInt kHighsBasisStatusUpper = 2;
constexpr HighsInt kHighsBasisStatusZero = 3;

constexpr HighsInt kHighsModelStatusLoadError = 1;
constexpr HighsInt kHighsModelStatusModelError = 2;
constexpr HighsInt kHighsModelStatusModelEmpty = 6;
constexpr HighsInt kHighsModelStatusOptimal = 7;
constexpr HighsInt kHighsModelStatusInfeasible = 8;
constexpr HighsInt kHighsModelStatusUnboundedOrInfeasible = 9;
constexpr HighsInt kHighsModelStatusUnbounded = 10;
constexpr HighsInt kHighsModelStatusObjectiveBound = 11;
constexpr HighsInt kHighsModelStatusObjectiveTarget = 12;
constexpr HighsInt kHighsModelStatusTimeLimit = 13;
constexpr HighsInt kHighsModelStatusIterationLimit = 14;
constexpr HighsInt kHighsModelStatusUnknown = 15;
constexpr HighsInt kHighsModelStatusSolutionLimit = 16;
constexpr HighsInt kHighsModelStatusInterrupt = 17;

constexpr HighsInt kHighsCallbackLogging = 0;
constexpr HighsInt kHighsCallbackSimplexInterrupt = 1;
constexpr HighsInt kHighsCallbackIpmInterrupt = 2;
constexpr HighsInt kHighsCallbackMipSolution = 3;
constexpr HighsInt kHighsCallbackMipInterrupt = 6;
constexpr HighsInt kHighsCallbackCallbackMipUserSolution = 9;

constexpr HighsInt kHighsIisStrategyFromLpRowPriority = 6;
constexpr HighsInt kHighsIisBoundLower = 2;
constexpr HighsInt kHighsIisBoundUpper = 3;
constexpr HighsInt kHighsIisBoundBoxed = 4;

// name, then the function's type.
#define KVR_HIGHS_FUNCTIONS(X)                                                                     \
  X(Highs_version, const char *(*)())                                                              \
  X(Highs_versionMajor, HighsInt (*)())                                                            \
  X(Highs_versionMinor, HighsInt (*)())                                                            \
  X(Highs_create, void *(*)())                                                                     \
  X(Highs_resetGlobalScheduler, void (*)(HighsInt))                                                \
  X(Highs_passModel,                                                                               \
    HighsInt (*)(void *, HighsInt, HighsInt, HighsInt, HighsInt, HighsInt, HighsInt, HighsInt,     \
                 double, const double *, const double *, const double *, const double *,           \
                 const double *, const HighsInt *, const HighsInt *, const double *,               \
                 const HighsInt *, const HighsInt *, const double *, const HighsInt *))            \
  X(Highs_run, HighsInt (*)(void *))                                                               \
  X(Highs_clearSolver, HighsInt (*)(void *))                                                       \
  X(Highs_resetOptions, HighsInt (*)(void *))                                                      \
  X(Highs_setBoolOptionValue, HighsInt (*)(void *, const char *, HighsInt))                        \
  X(Highs_setIntOptionValue, HighsInt (*)(void *, const char *, HighsInt))                         \
  X(Highs_setDoubleOptionValue, HighsInt (*)(void *, const char *, double))                        \
  X(Highs_setStringOptionValue, HighsInt (*)(void *, const char *, const char *))                  \
  X(Highs_setOptionValue, HighsInt (*)(void *, const char *, const char *))                        \
  X(Highs_getIntOptionValue, HighsInt (*)(const void *, const char *, HighsInt *))                 \
  X(Highs_getInfoType, HighsInt (*)(const void *, const char *, HighsInt *))                       \
  X(Highs_getIntInfoValue, HighsInt (*)(const void *, const char *, HighsInt *))                   \
  X(Highs_getInt64InfoValue, HighsInt (*)(const void *, const char *, int64_t *))                  \
  X(Highs_getDoubleInfoValue, HighsInt (*)(const void *, const char *, double *))                  \
  X(Highs_setCallback, HighsInt (*)(void *, HighsCCallbackType, void *))                           \
  X(Highs_startCallback, HighsInt (*)(void *, HighsInt))                                           \
  X(Highs_stopCallback, HighsInt (*)(void *, HighsInt))                                            \
  X(Highs_setCallbackSolution, HighsInt (*)(HighsCallbackDataIn *, HighsInt, const double *))      \
  X(Highs_repairCallbackSolution, HighsInt (*)(HighsCallbackDataIn *))                             \
  X(Highs_getModelStatus, HighsInt (*)(const void *))                                              \
  X(Highs_getObjectiveValue, double (*)(const void *))                                             \
  X(Highs_getSolution, HighsInt (*)(const void *, double *, double *, double *, double *))         \
  X(Highs_getBasis, HighsInt (*)(const void *, HighsInt *, HighsInt *))                            \
  X(Highs_setBasis, HighsInt (*)(void *, const HighsInt *, const HighsInt *))                      \
  X(Highs_setSolution,                                                                             \
    HighsInt (*)(void *, const double *, const double *, const double *, const double *))          \
  X(Highs_setSparseSolution, HighsInt (*)(void *, HighsInt, const HighsInt *, const double *))     \
  X(Highs_getDualRay, HighsInt (*)(const void *, HighsInt *, double *))                            \
  X(Highs_getPrimalRay, HighsInt (*)(const void *, HighsInt *, double *))                          \
  X(Highs_getRanging,                                                                              \
    HighsInt (*)(void *, double *, double *, HighsInt *, HighsInt *, double *, double *,           \
                 HighsInt *, HighsInt *, double *, double *, HighsInt *, HighsInt *, double *,     \
                 double *, HighsInt *, HighsInt *, double *, double *, HighsInt *, HighsInt *,     \
                 double *, double *, HighsInt *, HighsInt *))                                      \
  X(Highs_getIis, HighsInt (*)(void *, HighsInt *, HighsInt *, HighsInt *, HighsInt *, HighsInt *, \
                               HighsInt *, HighsInt *, HighsInt *))                                \
  X(Highs_addRows, HighsInt (*)(void *, HighsInt, const double *, const double *, HighsInt,        \
                                const HighsInt *, const HighsInt *, const double *))               \
  X(Highs_addCols, HighsInt (*)(void *, HighsInt, const double *, const double *, const double *,  \
                                HighsInt, const HighsInt *, const HighsInt *, const double *))     \
  X(Highs_changeCoeff, HighsInt (*)(void *, HighsInt, HighsInt, double))                           \
  X(Highs_changeColsBoundsBySet,                                                                   \
    HighsInt (*)(void *, HighsInt, const HighsInt *, const double *, const double *))              \
  X(Highs_changeColsCostBySet, HighsInt (*)(void *, HighsInt, const HighsInt *, const double *))   \
  X(Highs_changeColsIntegralityBySet,                                                              \
    HighsInt (*)(void *, HighsInt, const HighsInt *, const HighsInt *))                            \
  X(Highs_changeRowsBoundsBySet,                                                                   \
    HighsInt (*)(void *, HighsInt, const HighsInt *, const double *, const double *))              \
  X(Highs_changeObjectiveOffset, HighsInt (*)(void *, double))                                     \
  X(Highs_changeObjectiveSense, HighsInt (*)(void *, HighsInt))                                    \
  X(Highs_deleteColsByMask, HighsInt (*)(void *, HighsInt *))                                      \
  X(Highs_deleteRowsByMask, HighsInt (*)(void *, HighsInt *))                                      \
  X(Highs_getNumCol, HighsInt (*)(const void *))                                                   \
  X(Highs_getNumRow, HighsInt (*)(const void *))                                                   \
  X(Highs_getObjectiveOffset, HighsInt (*)(const void *, double *))                                \
  X(Highs_getObjectiveSense, HighsInt (*)(const void *, HighsInt *))                               \
  X(Highs_getColIntegrality, HighsInt (*)(const void *, HighsInt, HighsInt *))                     \
  X(Highs_getColsBySet,                                                                            \
    HighsInt (*)(const void *, HighsInt, const HighsInt *, HighsInt *, double *, double *,         \
                 double *, HighsInt *, HighsInt *, HighsInt *, double *))                          \
  X(Highs_getRowsBySet,                                                                            \
    HighsInt (*)(const void *, HighsInt, const HighsInt *, HighsInt *, double *, double *,         \
                 HighsInt *, HighsInt *, HighsInt *, double *))                                    \
  X(Highs_getOptionType, HighsInt (*)(const void *, const char *, HighsInt *))                     \
  X(Highs_getBoolOptionValues, HighsInt (*)(const void *, const char *, HighsInt *, HighsInt *))   \
  X(Highs_getIntOptionValues,                                                                      \
    HighsInt (*)(const void *, const char *, HighsInt *, HighsInt *, HighsInt *, HighsInt *))      \
  X(Highs_getDoubleOptionValues,                                                                   \
    HighsInt (*)(const void *, const char *, double *, double *, double *, double *))              \
  X(Highs_getStringOptionValues, HighsInt (*)(const void *, const char *, char *, char *))         \
  X(Highs_getColsByRange,                                                                          \
    HighsInt (*)(const void *, HighsInt, HighsInt, HighsInt *, double *, double *, double *,       \
                 HighsInt *, HighsInt *, HighsInt *, double *))                                    \
  X(Highs_getRowsByRange, HighsInt (*)(const void *, HighsInt, HighsInt, HighsInt *, double *,     \
                                       double *, HighsInt *, HighsInt *, HighsInt *, double *))

namespace highs {

struct Api {
#define KVR_HIGHS_MEMBER(name, type) std::type_identity_t<type> name = nullptr;
  KVR_HIGHS_FUNCTIONS(KVR_HIGHS_MEMBER)
#undef KVR_HIGHS_MEMBER
  // One coefficient of the engine's matrix: a member function of the engine's instance class
  // (the C interface has none), called with the instance as its first argument.
  HighsInt (*get_coeff)(const void *, HighsInt, HighsInt, double *) = nullptr;
  std::string path;     // the library file
  std::string version;  // "major.minor.patch"
};

// The loaded library (loaded on the first call); NOT_SUPPORTED when it cannot be used.
const Api &api();
// Why the library cannot be used; "" when it can (loads it on the first call).
std::string unavailable_reason();

}  // namespace highs

#define KVR_HIGHS_WRAPPER(name, type)                      \
  template <class... Args>                                 \
  inline decltype(auto) name(Args &&...args) {             \
    return highs::api().name(std::forward<Args>(args)...); \
  }
KVR_HIGHS_FUNCTIONS(KVR_HIGHS_WRAPPER)
#undef KVR_HIGHS_WRAPPER

// The engine's coefficient at (row, col) of its matrix in value.
inline HighsInt Highs_getCoeff(const void *highs, HighsInt row, HighsInt col, double *value) {
  return highs::api().get_coeff(highs, row, col, value);
}

// Frees an instance without shutting down the calling thread's scheduler (which the C
// interface's destroy function does): through the deleting destructor of the instance class.
void highs_delete_instance(void *highs);

// Resets the calling thread's scheduler; nothing to do when the library was never loaded.
void highs_reset_scheduler();

}  // namespace kvr
