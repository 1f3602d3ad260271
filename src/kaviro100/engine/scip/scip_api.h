// The part of SCIP's C interface this engine uses, declared here and resolved at run time from
// the library shipped in the pyscipopt wheel (loaded with RTLD_LOCAL, so its BLAS symbols never
// meet the ones HiGHS brings). Only SCIP 10 is accepted: the values of its status codes and event
// bits below are those of version 10 and differ from earlier versions.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <type_traits>

namespace kvr::scip {

// Opaque handles.
struct Scip;
struct Var;
struct Cons;
struct ConsData;
struct Conshdlr;
struct ConshdlrData;
struct Eventhdlr;
struct EventhdlrData;
struct Event;
struct EventData;
struct Row;
struct Sol;
struct Heur;
struct Node;
struct Messagehdlr;
struct MessagehdlrData;

using Bool = unsigned int;
using Longint = long long;
using EventType = uint64_t;
using Retcode = int;

constexpr Retcode kOkay = 1;
constexpr Retcode kError = 0;

// Result codes of plugin callbacks.
enum Result : int {
  kDidNotRun = 1,
  kDidNotFind = 3,
  kFeasible = 4,
  kInfeasible = 5,
  kCutoff = 7,
  kSeparated = 8,
  kConsAdded = 11,
};

enum Status : int {
  kStatusUnknown = 0,
  kStatusOptimal = 1,
  kStatusInfeasible = 2,
  kStatusUnbounded = 3,
  kStatusInfOrUnbd = 4,
  kStatusUserInterrupt = 10,
  kStatusTerminate = 11,
  kStatusNodeLimit = 20,
  kStatusTotalNodeLimit = 21,
  kStatusStallNodeLimit = 22,
  kStatusTimeLimit = 23,
  kStatusMemLimit = 24,
  kStatusGapLimit = 25,
  kStatusPrimalLimit = 26,
  kStatusDualLimit = 27,
  kStatusSolLimit = 28,
  kStatusBestSolLimit = 29,
  kStatusRestartLimit = 30,
};

enum VarType : int { kBinary = 0, kInteger = 1, kImplInt = 2, kContinuous = 3 };
enum LpSolStat : int { kLpOptimal = 1 };
enum ObjSense : int { kMaximize = -1, kMinimize = 1 };
enum BoundType : int { kLowerBound = 0, kUpperBound = 1 };
enum ParamSetting : int { kSettingDefault = 0, kSettingOff = 3 };
using LockType = int;

constexpr EventType kEventNodeFocused = UINT64_C(0x0000080000);
constexpr EventType kEventFirstLpSolved = UINT64_C(0x0002000000);
constexpr EventType kEventLpSolved = UINT64_C(0x0004000000);
constexpr EventType kEventBestSolFound = UINT64_C(0x0010000000);

// Callback types.
using ConsEnfoLp = Retcode (*)(Scip *, Conshdlr *, Cons **, int, int, Bool, int *);
using ConsEnfoPs = Retcode (*)(Scip *, Conshdlr *, Cons **, int, int, Bool, Bool, int *);
using ConsCheck = Retcode (*)(Scip *, Conshdlr *, Cons **, int, Sol *, Bool, Bool, Bool, Bool,
                              int *);
using ConsLock = Retcode (*)(Scip *, Conshdlr *, Cons *, LockType, int, int);
using ConsSepaLp = Retcode (*)(Scip *, Conshdlr *, Cons **, int, int, int *);
using ConsSepaSol = Retcode (*)(Scip *, Conshdlr *, Cons **, int, int, Sol *, int *);
using EventExec = Retcode (*)(Scip *, Eventhdlr *, Event *, EventData *);
using EventInit = Retcode (*)(Scip *, Eventhdlr *);
using MessageOut = void (*)(Messagehdlr *, FILE *, const char *);
using MessageFree = Retcode (*)(Messagehdlr *);

// Every function used: name and type. The loader resolves each one by name.
#define KVR_SCIP_FUNCTIONS(X)                                                                      \
  X(SCIPmajorVersion, int (*)())                                                                   \
  X(SCIPminorVersion, int (*)())                                                                   \
  X(SCIPtechVersion, int (*)())                                                                    \
  X(SCIPcreate, Retcode (*)(Scip **))                                                              \
  X(SCIPfree, Retcode (*)(Scip **))                                                                \
  X(SCIPincludeDefaultPlugins, Retcode (*)(Scip *))                                                \
  X(SCIPmessagehdlrCreate, Retcode (*)(Messagehdlr **, Bool, const char *, Bool, MessageOut,       \
                                       MessageOut, MessageOut, MessageFree, MessagehdlrData *))    \
  X(SCIPsetMessagehdlr, Retcode (*)(Scip *, Messagehdlr *))                                        \
  X(SCIPmessagehdlrRelease, Retcode (*)(Messagehdlr **))                                           \
  X(SCIPsetMessagehdlrQuiet, void (*)(Scip *, Bool))                                               \
  X(SCIPsetRealParam, Retcode (*)(Scip *, const char *, double))                                   \
  X(SCIPsetIntParam, Retcode (*)(Scip *, const char *, int))                                       \
  X(SCIPsetBoolParam, Retcode (*)(Scip *, const char *, Bool))                                     \
  X(SCIPsetLongintParam, Retcode (*)(Scip *, const char *, Longint))                               \
  X(SCIPsetCharParam, Retcode (*)(Scip *, const char *, char))                                     \
  X(SCIPsetStringParam, Retcode (*)(Scip *, const char *, const char *))                           \
  X(SCIPsetPresolving, Retcode (*)(Scip *, int, Bool))                                             \
  X(SCIPsetHeuristics, Retcode (*)(Scip *, int, Bool))                                             \
  X(SCIPcreateProbBasic, Retcode (*)(Scip *, const char *))                                        \
  X(SCIPsetObjsense, Retcode (*)(Scip *, int))                                                     \
  X(SCIPaddOrigObjoffset, Retcode (*)(Scip *, double))                                             \
  X(SCIPsetObjlimit, Retcode (*)(Scip *, double))                                                  \
  X(SCIPcreateVarBasic, Retcode (*)(Scip *, Var **, const char *, double, double, double, int))    \
  X(SCIPaddVar, Retcode (*)(Scip *, Var *))                                                        \
  X(SCIPreleaseVar, Retcode (*)(Scip *, Var **))                                                   \
  X(SCIPgetTransformedVar, Retcode (*)(Scip *, Var *, Var **))                                     \
  X(SCIPgetNegatedVar, Retcode (*)(Scip *, Var *, Var **))                                         \
  X(SCIPaddVarLocksType, Retcode (*)(Scip *, Var *, LockType, int, int))                           \
  X(SCIPcreateConsBasicLinear,                                                                     \
    Retcode (*)(Scip *, Cons **, const char *, int, Var **, double *, double, double))             \
  X(SCIPcreateConsBasicQuadraticNonlinear,                                                         \
    Retcode (*)(Scip *, Cons **, const char *, int, Var **, double *, int, Var **, Var **,         \
                double *, double, double))                                                         \
  X(SCIPcreateConsBasicIndicator,                                                                  \
    Retcode (*)(Scip *, Cons **, const char *, Var *, int, Var **, double *, double))              \
  X(SCIPcreateConsBasicAnd, Retcode (*)(Scip *, Cons **, const char *, Var *, int, Var **))        \
  X(SCIPcreateConsBasicOr, Retcode (*)(Scip *, Cons **, const char *, Var *, int, Var **))         \
  X(SCIPcreateConsBasicSOS1, Retcode (*)(Scip *, Cons **, const char *, int, Var **, double *))    \
  X(SCIPcreateConsBasicSOS2, Retcode (*)(Scip *, Cons **, const char *, int, Var **, double *))    \
  X(SCIPcreateConsBasicBounddisjunction,                                                           \
    Retcode (*)(Scip *, Cons **, const char *, int, Var **, int *, double *))                      \
  X(SCIPaddCons, Retcode (*)(Scip *, Cons *))                                                      \
  X(SCIPreleaseCons, Retcode (*)(Scip *, Cons **))                                                 \
  X(SCIPincludeConshdlrBasic,                                                                      \
    Retcode (*)(Scip *, Conshdlr **, const char *, const char *, int, int, int, Bool, ConsEnfoLp,  \
                ConsEnfoPs, ConsCheck, ConsLock, ConshdlrData *))                                  \
  X(SCIPsetConshdlrSepa, Retcode (*)(Scip *, Conshdlr *, ConsSepaLp, ConsSepaSol, int, int, Bool)) \
  X(SCIPincludeEventhdlrBasic,                                                                     \
    Retcode (*)(Scip *, Eventhdlr **, const char *, const char *, EventExec, EventhdlrData *))     \
  X(SCIPsetEventhdlrInit, Retcode (*)(Scip *, Eventhdlr *, EventInit))                             \
  X(SCIPcatchEvent, Retcode (*)(Scip *, EventType, Eventhdlr *, EventData *, int *))               \
  X(SCIPeventGetType, EventType (*)(Event *))                                                      \
  X(SCIPcreateEmptyRowConshdlr,                                                                    \
    Retcode (*)(Scip *, Row **, Conshdlr *, const char *, double, double, Bool, Bool, Bool))       \
  X(SCIPaddVarsToRow, Retcode (*)(Scip *, Row *, int, Var **, double *))                           \
  X(SCIPaddRow, Retcode (*)(Scip *, Row *, Bool, Bool *))                                          \
  X(SCIPreleaseRow, Retcode (*)(Scip *, Row **))                                                   \
  X(SCIPsolve, Retcode (*)(Scip *))                                                                \
  X(SCIPinterruptSolve, Retcode (*)(Scip *))                                                       \
  X(SCIPgetStatus, int (*)(Scip *))                                                                \
  X(SCIPgetStage, int (*)(Scip *))                                                                 \
  X(SCIPgetBestSol, Sol *(*)(Scip *))                                                              \
  X(SCIPgetSolVal, double (*)(Scip *, Sol *, Var *))                                               \
  X(SCIPgetSolOrigObj, double (*)(Scip *, Sol *))                                                  \
  X(SCIPgetNSols, int (*)(Scip *))                                                                 \
  X(SCIPgetSols, Sol **(*)(Scip *))                                                                \
  X(SCIPgetPrimalbound, double (*)(Scip *))                                                        \
  X(SCIPgetDualbound, double (*)(Scip *))                                                          \
  X(SCIPgetNNodes, Longint (*)(Scip *))                                                            \
  X(SCIPgetNLPIterations, Longint (*)(Scip *))                                                     \
  X(SCIPgetLPSolstat, int (*)(Scip *))                                                             \
  X(SCIPgetLPObjval, double (*)(Scip *))                                                           \
  X(SCIPgetVarRedcost, double (*)(Scip *, Var *))                                                  \
  X(SCIPretransformObj, double (*)(Scip *, double))                                                \
  X(SCIPgetCurrentNode, Node *(*)(Scip *))                                                         \
  X(SCIPnodeGetDepth, int (*)(Node *))                                                             \
  X(SCIPinfinity, double (*)(Scip *))                                                              \
  X(SCIPcreateSol, Retcode (*)(Scip *, Sol **, Heur *))                                            \
  X(SCIPsetSolVal, Retcode (*)(Scip *, Sol *, Var *, double))                                      \
  X(SCIPtrySolFree, Retcode (*)(Scip *, Sol **, Bool, Bool, Bool, Bool, Bool, Bool *))

using ErrorPrinting = void (*)(void *, FILE *, const char *);

// Functions used when present (nullptr otherwise).
#define KVR_SCIP_OPTIONAL_FUNCTIONS(X)                            \
  X(SCIPmessageSetErrorPrinting, void (*)(ErrorPrinting, void *)) \
  X(SCIPvarGetLbGlobal, double (*)(Var *))                        \
  X(SCIPvarGetUbGlobal, double (*)(Var *))                        \
  X(SCIPgetNNodesLeft, int (*)(Scip *))                           \
  X(SCIPgetNCutsApplied, int (*)(Scip *))                         \
  KVR_SCIP_KEEP_FUNCTIONS(X)

// What keeping a problem between solves and changing it needs (all of them, or no keeping).
#define KVR_SCIP_KEEP_FUNCTIONS(X)                                 \
  X(SCIPfreeTransform, Retcode (*)(Scip *))                        \
  X(SCIPresetParams, Retcode (*)(Scip *))                          \
  X(SCIPchgVarLb, Retcode (*)(Scip *, Var *, double))              \
  X(SCIPchgVarUb, Retcode (*)(Scip *, Var *, double))              \
  X(SCIPchgVarObj, Retcode (*)(Scip *, Var *, double))             \
  X(SCIPchgVarType, Retcode (*)(Scip *, Var *, int, Bool *))       \
  X(SCIPchgLhsLinear, Retcode (*)(Scip *, Cons *, double))         \
  X(SCIPchgRhsLinear, Retcode (*)(Scip *, Cons *, double))         \
  X(SCIPchgCoefLinear, Retcode (*)(Scip *, Cons *, Var *, double)) \
  X(SCIPaddCoefLinear, Retcode (*)(Scip *, Cons *, Var *, double)) \
  X(SCIPdelCons, Retcode (*)(Scip *, Cons *))                      \
  X(SCIPcaptureCons, Retcode (*)(Scip *, Cons *))                  \
  X(SCIPgetOrigConss, Cons **(*)(Scip *))                          \
  X(SCIPgetNOrigConss, int (*)(Scip *))

// The resolved functions.
struct Api {
#define KVR_SCIP_MEMBER(name, type) std::type_identity_t<type> name = nullptr;
  KVR_SCIP_FUNCTIONS(KVR_SCIP_MEMBER)
  KVR_SCIP_OPTIONAL_FUNCTIONS(KVR_SCIP_MEMBER)
#undef KVR_SCIP_MEMBER
  std::string version;  // "10.0.2"
  std::string path;     // the library loaded
};

// The loaded library, loading it on first use; throws kvr::Error (NOT_SUPPORTED) naming what is
// missing when there is no usable SCIP 10 library. Thread-safe.
const Api &api();
// "" when the library can be loaded, else why not (without throwing).
std::string unavailable_reason();

}  // namespace kvr::scip
