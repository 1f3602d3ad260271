/*
 * kaviro_c.h - C interface of the Kaviro solver library (kaviro100).
 *
 * Every function that can fail returns an int error code: 0 on success, otherwise one of the
 * KVR_ERROR_* codes below. The latest message of an environment is read with KVRgeterrormsg,
 * that of a model with KVRgetmerrormsg. Environments, models and batches are opaque handles.
 *
 * Array conventions: counts come before the arrays they size, index arrays before value arrays,
 * out-pointers last. A NULL optional array means "the default for every element".
 */
#ifndef KAVIRO_C_H
#define KAVIRO_C_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(KVR_BUILDING_LIBRARY)
#define KVR_API __attribute__((visibility("default")))
#else
#define KVR_API
#endif

typedef struct kvr_env KVRenv;
typedef struct kvr_model KVRmodel;
typedef struct kvr_batch KVRbatch;

/* ---------------------------------------------------------------- version ----------------------
 */
#define KVR_VERSION_MAJOR 10
#define KVR_VERSION_MINOR 0
#define KVR_VERSION_TECHNICAL 3

/* ---------------------------------------------------------------- error codes ------------------
 */
#define KVR_ERROR_OUT_OF_MEMORY 10001
#define KVR_ERROR_NULL_ARGUMENT 10002
#define KVR_ERROR_INVALID_ARGUMENT 10003
#define KVR_ERROR_UNKNOWN_ATTRIBUTE 10004
#define KVR_ERROR_DATA_NOT_AVAILABLE 10005
#define KVR_ERROR_INDEX_OUT_OF_RANGE 10006
#define KVR_ERROR_UNKNOWN_PARAMETER 10007
#define KVR_ERROR_VALUE_OUT_OF_RANGE 10008
#define KVR_ERROR_CALLBACK 10011
#define KVR_ERROR_FILE_READ 10012
#define KVR_ERROR_FILE_WRITE 10013
#define KVR_ERROR_NUMERIC 10014
#define KVR_ERROR_IIS_NOT_INFEASIBLE 10015
#define KVR_ERROR_NOT_FOR_MIP 10016
#define KVR_ERROR_OPTIMIZATION_IN_PROGRESS 10017
#define KVR_ERROR_DUPLICATES 10018
#define KVR_ERROR_NODEFILE 10019
#define KVR_ERROR_Q_NOT_PSD 10020
#define KVR_ERROR_QCP_EQUALITY_CONSTRAINT 10021
#define KVR_ERROR_NETWORK 10022
#define KVR_ERROR_JOB_REJECTED 10023
#define KVR_ERROR_NOT_SUPPORTED 10024
#define KVR_ERROR_EXCEED_2B_NONZEROS 10025
#define KVR_ERROR_INVALID_PIECEWISE_OBJ 10026
#define KVR_ERROR_UPDATEMODE_CHANGE 10027
#define KVR_ERROR_CLOUD 10028
#define KVR_ERROR_MODEL_MODIFICATION 10029
#define KVR_ERROR_CSWORKER 10030
#define KVR_ERROR_TUNE_MODEL_TYPES 10031
#define KVR_ERROR_SECURITY 10032
#define KVR_ERROR_NOT_IN_MODEL 20001
#define KVR_ERROR_FAILED_TO_CREATE_MODEL 20002
#define KVR_ERROR_INTERNAL 20003

/* ---------------------------------------------------------------- constants --------------------
 */
#define KVR_INFINITY 1e100
#define KVR_UNDEFINED 1e101
#define KVR_MAXINT 2000000000
#define KVR_MAX_NAMELEN 255
#define KVR_MAX_STRLEN 512
#define KVR_MAX_TAGLEN 10240
#define KVR_MAX_CONCURRENT 64

#define KVR_LESS_EQUAL '<'
#define KVR_GREATER_EQUAL '>'
#define KVR_EQUAL '='

#define KVR_CONTINUOUS 'C'
#define KVR_BINARY 'B'
#define KVR_INTEGER 'I'
#define KVR_SEMICONT 'S'
#define KVR_SEMIINT 'N'

#define KVR_MINIMIZE 1
#define KVR_MAXIMIZE -1

#define KVR_SOS_TYPE1 1
#define KVR_SOS_TYPE2 2

#define KVR_GENCONSTR_MAX 0
#define KVR_GENCONSTR_MIN 1
#define KVR_GENCONSTR_ABS 2
#define KVR_GENCONSTR_AND 3
#define KVR_GENCONSTR_OR 4
#define KVR_GENCONSTR_NORM 5
#define KVR_GENCONSTR_INDICATOR 6
#define KVR_GENCONSTR_PWL 7
#define KVR_GENCONSTR_POLY 8
#define KVR_GENCONSTR_EXP 9
#define KVR_GENCONSTR_EXPA 10
#define KVR_GENCONSTR_LOG 11
#define KVR_GENCONSTR_LOGA 12
#define KVR_GENCONSTR_POW 13
#define KVR_GENCONSTR_SIN 14
#define KVR_GENCONSTR_COS 15
#define KVR_GENCONSTR_TAN 16
#define KVR_GENCONSTR_LOGISTIC 17

#define KVR_BASIC 0
#define KVR_NONBASIC_LOWER -1
#define KVR_NONBASIC_UPPER -2
#define KVR_SUPERBASIC -3

/* Optimization status codes (attribute Status). */
#define KVR_LOADED 1
#define KVR_OPTIMAL 2
#define KVR_INFEASIBLE 3
#define KVR_INF_OR_UNBD 4
#define KVR_UNBOUNDED 5
#define KVR_CUTOFF 6
#define KVR_ITERATION_LIMIT 7
#define KVR_NODE_LIMIT 8
#define KVR_TIME_LIMIT 9
#define KVR_SOLUTION_LIMIT 10
#define KVR_INTERRUPTED 11
#define KVR_NUMERIC 12
#define KVR_SUBOPTIMAL 13
#define KVR_INPROGRESS 14
#define KVR_USER_OBJ_LIMIT 15
#define KVR_WORK_LIMIT 16
#define KVR_MEM_LIMIT 17

/* Parameter types returned by KVRgetparamtype. */
#define KVR_PARAM_INT 1
#define KVR_PARAM_DBL 2
#define KVR_PARAM_STR 3

/* Attribute data types and classes reported by KVRgetattrinfo. */
#define KVR_ATTRTYPE_CHAR 0
#define KVR_ATTRTYPE_INT 1
#define KVR_ATTRTYPE_DBL 2
#define KVR_ATTRTYPE_STR 3

#define KVR_ATTRCLASS_MODEL 0
#define KVR_ATTRCLASS_VAR 1
#define KVR_ATTRCLASS_CONSTR 2
#define KVR_ATTRCLASS_SOS 3
#define KVR_ATTRCLASS_QCONSTR 4
#define KVR_ATTRCLASS_GENCONSTR 5
#define KVR_ATTRCLASS_BATCH 6

/* Callback "where" codes. */
#define KVR_CB_POLLING 0
#define KVR_CB_PRESOLVE 1
#define KVR_CB_SIMPLEX 2
#define KVR_CB_MIP 3
#define KVR_CB_MIPSOL 4
#define KVR_CB_MIPNODE 5
#define KVR_CB_MESSAGE 6
#define KVR_CB_BARRIER 7
#define KVR_CB_MULTIOBJ 8
#define KVR_CB_IIS 9

/* Callback "what" codes. */
#define KVR_CB_PRE_COLDEL 1000
#define KVR_CB_PRE_ROWDEL 1001
#define KVR_CB_PRE_SENCHG 1002
#define KVR_CB_PRE_BNDCHG 1003
#define KVR_CB_PRE_COECHG 1004
#define KVR_CB_SPX_ITRCNT 2000
#define KVR_CB_SPX_OBJVAL 2001
#define KVR_CB_SPX_PRIMINF 2002
#define KVR_CB_SPX_DUALINF 2003
#define KVR_CB_SPX_ISPERT 2004
#define KVR_CB_MIP_OBJBST 3000
#define KVR_CB_MIP_OBJBND 3001
#define KVR_CB_MIP_NODCNT 3002
#define KVR_CB_MIP_SOLCNT 3003
#define KVR_CB_MIP_CUTCNT 3004
#define KVR_CB_MIP_NODLFT 3005
#define KVR_CB_MIP_ITRCNT 3006
#define KVR_CB_MIP_OPENSCENARIOS 3007
#define KVR_CB_MIP_PHASE 3008
#define KVR_CB_MIPSOL_SOL 4001
#define KVR_CB_MIPSOL_OBJ 4002
#define KVR_CB_MIPSOL_OBJBST 4003
#define KVR_CB_MIPSOL_OBJBND 4004
#define KVR_CB_MIPSOL_NODCNT 4005
#define KVR_CB_MIPSOL_SOLCNT 4006
#define KVR_CB_MIPSOL_OPENSCENARIOS 4007
#define KVR_CB_MIPSOL_PHASE 4008
#define KVR_CB_MIPNODE_STATUS 5001
#define KVR_CB_MIPNODE_REL 5002
#define KVR_CB_MIPNODE_OBJBST 5003
#define KVR_CB_MIPNODE_OBJBND 5004
#define KVR_CB_MIPNODE_NODCNT 5005
#define KVR_CB_MIPNODE_SOLCNT 5006
#define KVR_CB_MIPNODE_BRVAR 5007
#define KVR_CB_MIPNODE_OPENSCENARIOS 5008
#define KVR_CB_MIPNODE_PHASE 5009
#define KVR_CB_MSG_STRING 6001
#define KVR_CB_RUNTIME 6002
#define KVR_CB_WORK 6003
#define KVR_CB_BARRIER_ITRCNT 7001
#define KVR_CB_BARRIER_PRIMOBJ 7002
#define KVR_CB_BARRIER_DUALOBJ 7003
#define KVR_CB_BARRIER_PRIMINF 7004
#define KVR_CB_BARRIER_DUALINF 7005
#define KVR_CB_BARRIER_COMPL 7006
#define KVR_CB_MULTIOBJ_OBJCNT 8001
#define KVR_CB_MULTIOBJ_SOLCNT 8002
#define KVR_CB_MULTIOBJ_SOL 8003
/* IIS progress: constraints and bounds known to be in the IIS (MIN) and still possibly in it
   (MAX). The GUESS codes exist but are not reported. */
#define KVR_CB_IIS_CONSTRMIN 9001
#define KVR_CB_IIS_CONSTRMAX 9002
#define KVR_CB_IIS_CONSTRGUESS 9003
#define KVR_CB_IIS_BOUNDMIN 9004
#define KVR_CB_IIS_BOUNDMAX 9005
#define KVR_CB_IIS_BOUNDGUESS 9006

/* ---------------------------------------------------------------- environments -----------------
 */
/* Creates an environment that is not started yet. The interface version of the caller must match
   the library's major and minor version. On failure *envP may still hold an environment whose
   message tells why; it must be freed with KVRfreeenv. */
KVR_API int KVRemptyenvadvinternal(KVRenv **envP, int major, int minor, int technical);
KVR_API int KVRemptyenv(KVRenv **envP);
/* Creates and starts an environment that logs to logfilename (NULL or "" for no file). */
KVR_API int KVRloadenv(KVRenv **envP, const char *logfilename);
KVR_API int KVRstartenv(KVRenv *env);
KVR_API void KVRfreeenv(KVRenv *env);
KVR_API const char *KVRgeterrormsg(KVRenv *env);
/* Writes a message to the environment's log (file, log callback, console). */
KVR_API void KVRmsg(KVRenv *env, const char *message);
/* The log callback receives every log line (with its trailing newline). */
typedef int (*KVRlogcallback)(char *msg, void *logdata);
KVR_API int KVRsetlogcallbackfuncenv(KVRenv *env, KVRlogcallback cb, void *logdata);
KVR_API int KVRgetlogcallbackfuncenv(KVRenv *env, KVRlogcallback *cbP);
KVR_API void KVRversion(int *majorP, int *minorP, int *technicalP);
KVR_API const char *KVRplatform(void);
/* Communication statistics of a remote connection: bytes and messages sent and received. */
KVR_API int KVRgetcommstats(KVRenv *env, double *sentbytesP, double *recvbytesP, int *sentmsgsP,
                            int *recvmsgsP);
/* Releases memory the library handed out (JSON solutions and the like). */
KVR_API void KVRfree(void *ptr);

/* ---------------------------------------------------------------- parameters -------------------
 */
/* Names are case-insensitive. */
KVR_API int KVRgetparamtype(KVRenv *env, const char *paramname); /* KVR_PARAM_* or -1 */
/* Flags: 1 the value is a credential (never shown), 2 only meaningful with a remote service,
   4 accepted and stored, but neither the library nor the engine in use (the one named in
   KAVIRO_ENGINE_OPTIONS, else HiGHS) acts on it. */
KVR_API int KVRgetparamflags(KVRenv *env, const char *paramname, int *flagsP);
/* What the engines say about a parameter where they differ from its description: one line
   "<engine>: <sentence>" per engine that has something to say, "" when none has. The text stays
   valid until the next call of this function on the same thread. */
KVR_API int KVRgetparamenginenotes(KVRenv *env, const char *paramname, const char **notesP);
KVR_API int KVRgetintparam(KVRenv *env, const char *paramname, int *valueP);
KVR_API int KVRgetdblparam(KVRenv *env, const char *paramname, double *valueP);
/* value must hold KVR_MAX_STRLEN bytes; a longer value (string parameters have no length limit)
   is cut to KVR_MAX_STRLEN - 1 bytes: KVRgetlongstrparam reads it whole. */
KVR_API int KVRgetstrparam(KVRenv *env, const char *paramname, char *value);
/* Copies up to size-1 bytes and the terminator; *lengthP receives the full length. */
KVR_API int KVRgetlongstrparam(KVRenv *env, const char *paramname, char *value, int size,
                               int *lengthP);
KVR_API int KVRsetintparam(KVRenv *env, const char *paramname, int value);
KVR_API int KVRsetdblparam(KVRenv *env, const char *paramname, double value);
KVR_API int KVRsetstrparam(KVRenv *env, const char *paramname, const char *value);
/* Sets a parameter of any type from its text form. */
KVR_API int KVRsetparam(KVRenv *env, const char *paramname, const char *value);
KVR_API int KVRgetintparaminfo(KVRenv *env, const char *paramname, int *valueP, int *minP,
                               int *maxP, int *defP);
KVR_API int KVRgetdblparaminfo(KVRenv *env, const char *paramname, double *valueP, double *minP,
                               double *maxP, double *defP);
/* valueP and defP, when not NULL, must hold KVR_MAX_STRLEN bytes. */
KVR_API int KVRgetstrparaminfo(KVRenv *env, const char *paramname, char *valueP, char *defP);
KVR_API int KVRresetparams(KVRenv *env);
/* The parameter table is global: env may be NULL for these two. */
KVR_API int KVRgetnumparams(KVRenv *env);
KVR_API int KVRgetparamname(KVRenv *env, int i, char **paramnameP);
KVR_API int KVRreadparams(KVRenv *env, const char *filename);
KVR_API int KVRwriteparams(KVRenv *env, const char *filename);
/* Marks a parameter as fixed for tuning (the tuner will not change it). */
KVR_API int KVRfixtuneparam(KVRenv *env, const char *paramname);

/* ---------------------------------------------------------------- models -----------------------
 */
KVR_API int KVRnewmodel(KVRenv *env, KVRmodel **modelP, const char *Pname, int numvars,
                        const double *obj, const double *lb, const double *ub, const char *vtype,
                        const char *const *varnames);
KVR_API int KVRfreemodel(KVRmodel *model);
KVR_API KVRmodel *KVRcopymodel(KVRmodel *model);
KVR_API KVRenv *KVRgetenv(KVRmodel *model);
KVR_API const char *KVRgetmerrormsg(KVRmodel *model);
/* Applies the queued additions, deletions and changes. Counts (NumVars, NumNZs, ...), name
   lookups and model-wide reads show the model as of the last update. With UpdateMode 1 new
   variables and linear constraints are usable by index at once (element attributes,
   coefficients, later rows and columns); with UpdateMode 0 only by queued additions. */
KVR_API int KVRupdatemodel(KVRmodel *model);
KVR_API int KVRsetlogcallbackfunc(KVRmodel *model, KVRlogcallback cb, void *logdata);
KVR_API int KVRreset(KVRmodel *model, int clearall);

KVR_API int KVRaddvar(KVRmodel *model, int numnz, const int *vind, const double *vval, double obj,
                      double lb, double ub, char vtype, const char *varname);
KVR_API int KVRaddvars(KVRmodel *model, int numvars, int numnz, const int *vbeg, const int *vind,
                       const double *vval, const double *obj, const double *lb, const double *ub,
                       const char *vtype, const char *const *varnames);
KVR_API int KVRaddconstr(KVRmodel *model, int numnz, const int *cind, const double *cval,
                         char sense, double rhs, const char *constrname);
KVR_API int KVRaddconstrs(KVRmodel *model, int numconstrs, int numnz, const int *cbeg,
                          const int *cind, const double *cval, const char *sense, const double *rhs,
                          const char *const *constrnames);
/* lower <= expr <= upper; adds one range variable (see the model's documentation). */
KVR_API int KVRaddrangeconstr(KVRmodel *model, int numnz, const int *cind, const double *cval,
                              double lower, double upper, const char *constrname);
KVR_API int KVRaddrangeconstrs(KVRmodel *model, int numconstrs, int numnz, const int *cbeg,
                               const int *cind, const double *cval, const double *lower,
                               const double *upper, const char *const *constrnames);
KVR_API int KVRaddqconstr(KVRmodel *model, int numlnz, const int *lind, const double *lval,
                          int numqnz, const int *qrow, const int *qcol, const double *qval,
                          char sense, double rhs, const char *QCname);
KVR_API int KVRaddsos(KVRmodel *model, int numsos, int nummembers, const int *types, const int *beg,
                      const int *ind, const double *weight);
KVR_API int KVRaddqpterms(KVRmodel *model, int numqnz, const int *qrow, const int *qcol,
                          const double *qval);
KVR_API int KVRdelq(KVRmodel *model);

KVR_API int KVRaddgenconstrMax(KVRmodel *model, const char *name, int resvar, int nvars,
                               const int *vars, double constant);
KVR_API int KVRaddgenconstrMin(KVRmodel *model, const char *name, int resvar, int nvars,
                               const int *vars, double constant);
KVR_API int KVRaddgenconstrAbs(KVRmodel *model, const char *name, int resvar, int argvar);
KVR_API int KVRaddgenconstrAnd(KVRmodel *model, const char *name, int resvar, int nvars,
                               const int *vars);
KVR_API int KVRaddgenconstrOr(KVRmodel *model, const char *name, int resvar, int nvars,
                              const int *vars);
/* which is 0, 1, 2 or KVR_INFINITY. */
KVR_API int KVRaddgenconstrNorm(KVRmodel *model, const char *name, int resvar, int nvars,
                                const int *vars, double which);
KVR_API int KVRaddgenconstrIndicator(KVRmodel *model, const char *name, int binvar, int binval,
                                     int nvars, const int *ind, const double *val, char sense,
                                     double rhs);
KVR_API int KVRaddgenconstrPWL(KVRmodel *model, const char *name, int xvar, int yvar, int npts,
                               const double *xpts, const double *ypts);
/* y = p[0] x^(plen-1) + ... + p[plen-1] */
KVR_API int KVRaddgenconstrPoly(KVRmodel *model, const char *name, int xvar, int yvar, int plen,
                                const double *p, const char *options);
KVR_API int KVRaddgenconstrExp(KVRmodel *model, const char *name, int xvar, int yvar,
                               const char *options);
KVR_API int KVRaddgenconstrExpA(KVRmodel *model, const char *name, int xvar, int yvar, double a,
                                const char *options);
KVR_API int KVRaddgenconstrLog(KVRmodel *model, const char *name, int xvar, int yvar,
                               const char *options);
KVR_API int KVRaddgenconstrLogA(KVRmodel *model, const char *name, int xvar, int yvar, double a,
                                const char *options);
KVR_API int KVRaddgenconstrPow(KVRmodel *model, const char *name, int xvar, int yvar, double a,
                               const char *options);
KVR_API int KVRaddgenconstrLogistic(KVRmodel *model, const char *name, int xvar, int yvar,
                                    const char *options);
KVR_API int KVRaddgenconstrSin(KVRmodel *model, const char *name, int xvar, int yvar,
                               const char *options);
KVR_API int KVRaddgenconstrCos(KVRmodel *model, const char *name, int xvar, int yvar,
                               const char *options);
KVR_API int KVRaddgenconstrTan(KVRmodel *model, const char *name, int xvar, int yvar,
                               const char *options);

/* General-constraint readers: pass NULL arrays to learn the lengths first. */
KVR_API int KVRgetgenconstrMax(KVRmodel *model, int id, int *resvarP, int *nvarsP, int *vars,
                               double *constantP);
KVR_API int KVRgetgenconstrMin(KVRmodel *model, int id, int *resvarP, int *nvarsP, int *vars,
                               double *constantP);
KVR_API int KVRgetgenconstrAbs(KVRmodel *model, int id, int *resvarP, int *argvarP);
KVR_API int KVRgetgenconstrAnd(KVRmodel *model, int id, int *resvarP, int *nvarsP, int *vars);
KVR_API int KVRgetgenconstrOr(KVRmodel *model, int id, int *resvarP, int *nvarsP, int *vars);
KVR_API int KVRgetgenconstrNorm(KVRmodel *model, int id, int *resvarP, int *nvarsP, int *vars,
                                double *whichP);
KVR_API int KVRgetgenconstrIndicator(KVRmodel *model, int id, int *binvarP, int *binvalP,
                                     int *nvarsP, int *ind, double *val, char *senseP,
                                     double *rhsP);
KVR_API int KVRgetgenconstrPWL(KVRmodel *model, int id, int *xvarP, int *yvarP, int *nptsP,
                               double *xpts, double *ypts);
KVR_API int KVRgetgenconstrPoly(KVRmodel *model, int id, int *xvarP, int *yvarP, int *plenP,
                                double *p);
KVR_API int KVRgetgenconstrExp(KVRmodel *model, int id, int *xvarP, int *yvarP);
KVR_API int KVRgetgenconstrExpA(KVRmodel *model, int id, int *xvarP, int *yvarP, double *aP);
KVR_API int KVRgetgenconstrLog(KVRmodel *model, int id, int *xvarP, int *yvarP);
KVR_API int KVRgetgenconstrLogA(KVRmodel *model, int id, int *xvarP, int *yvarP, double *aP);
KVR_API int KVRgetgenconstrPow(KVRmodel *model, int id, int *xvarP, int *yvarP, double *aP);
KVR_API int KVRgetgenconstrLogistic(KVRmodel *model, int id, int *xvarP, int *yvarP);
KVR_API int KVRgetgenconstrSin(KVRmodel *model, int id, int *xvarP, int *yvarP);
KVR_API int KVRgetgenconstrCos(KVRmodel *model, int id, int *xvarP, int *yvarP);
KVR_API int KVRgetgenconstrTan(KVRmodel *model, int id, int *xvarP, int *yvarP);
/* The general constraints (as of the last update) that deleting the given variables deletes with
   them: those losing their resultant, indicator, x or y variable, or the argument of an absolute
   value. Their count goes to *countP and, when ind is not NULL, their indices to ind (room for
   every general constraint is enough). */
KVR_API int KVRgetgenconstrslosingvars(KVRmodel *model, int numvars, const int *vars, int *countP,
                                       int *ind);

/* Replaces the whole objective. sense 0 keeps the model's sense. */
KVR_API int KVRsetobjective(KVRmodel *model, int sense, double constant, int lnz, const int *lind,
                            const double *lval, int qnz, const int *qrow, const int *qcol,
                            const double *qval);
KVR_API int KVRsetobjectiven(KVRmodel *model, int index, int priority, double weight, double abstol,
                             double reltol, const char *name, double constant, int lnz,
                             const int *lind, const double *lval);
KVR_API int KVRsetpwlobj(KVRmodel *model, int var, int npoints, const double *x, const double *y);
/* x and y NULL: only *npointsP is set. */
KVR_API int KVRgetpwlobj(KVRmodel *model, int var, int *npointsP, double *x, double *y);

/* Queries. Array arguments NULL: only the counts are returned. */
KVR_API int KVRgetq(KVRmodel *model, int *numqnzP, int *qrow, int *qcol, double *qval);
KVR_API int KVRgetqconstr(KVRmodel *model, int qconstr, int *numlnzP, int *lind, double *lval,
                          int *numqnzP, int *qrow, int *qcol, double *qval);
KVR_API int KVRgetsos(KVRmodel *model, int *nummembersP, int *sostype, int *beg, int *ind,
                      double *weight, int start, int len);
KVR_API int KVRgetcoeff(KVRmodel *model, int constr, int var, double *valP);
KVR_API int KVRchgcoeffs(KVRmodel *model, int cnt, const int *cind, const int *vind,
                         const double *val);
KVR_API int KVRXgetvars(KVRmodel *model, size_t *numnzP, size_t *vbeg, int *vind, double *vval,
                        int start, int len);
KVR_API int KVRXgetconstrs(KVRmodel *model, size_t *numnzP, size_t *cbeg, int *cind, double *cval,
                           int start, int len);
KVR_API int KVRgetvarbyname(KVRmodel *model, const char *name, int *indexP);
KVR_API int KVRgetconstrbyname(KVRmodel *model, const char *name, int *indexP);

/* Merge duplicate indices (summing values) and drop zeros, in place, keeping the order of first
   occurrence; *lenP becomes the new length, which is also returned (-1 for invalid arguments).
   KVRclean3 treats (i, j) and (j, i) as the same pair. */
KVR_API int KVRclean2(int *lenP, int *ind, double *val);
KVR_API int KVRclean3(int *lenP, int *ind0, int *ind1, double *val);

/* Deletions take effect at the next update. */
KVR_API int KVRdelvars(KVRmodel *model, int numdel, const int *ind);
KVR_API int KVRdelconstrs(KVRmodel *model, int numdel, const int *ind);
KVR_API int KVRdelsos(KVRmodel *model, int numdel, const int *ind);
KVR_API int KVRdelqconstrs(KVRmodel *model, int numdel, const int *ind);
KVR_API int KVRdelgenconstrs(KVRmodel *model, int numdel, const int *ind);

/* ---------------------------------------------------------------- attributes -------------------
 */
/* 1 when the attribute has a value in the current state, else 0. */
KVR_API int KVRisattravailable(KVRmodel *model, const char *attrname);
/* The attribute table is global: model may be NULL for these three. */
KVR_API int KVRgetattrinfo(KVRmodel *model, const char *attrname, int *datatypeP, int *attrclassP,
                           int *settableP);
KVR_API int KVRgetnumattributes(KVRmodel *model);
KVR_API int KVRgetattrname(KVRmodel *model, int i, char **attrnameP);
KVR_API int KVRprefetchattr(KVRmodel *model, const char *attrname);

KVR_API int KVRgetintattr(KVRmodel *model, const char *attrname, int *valueP);
KVR_API int KVRsetintattr(KVRmodel *model, const char *attrname, int newvalue);
KVR_API int KVRgetdblattr(KVRmodel *model, const char *attrname, double *valueP);
KVR_API int KVRsetdblattr(KVRmodel *model, const char *attrname, double newvalue);
/* The string stays valid until the model is next changed or queried for a string. */
KVR_API int KVRgetstrattr(KVRmodel *model, const char *attrname, char **valueP);
KVR_API int KVRsetstrattr(KVRmodel *model, const char *attrname, const char *newvalue);

KVR_API int KVRgetcharattrelement(KVRmodel *model, const char *attrname, int element, char *valueP);
KVR_API int KVRsetcharattrelement(KVRmodel *model, const char *attrname, int element,
                                  char newvalue);
KVR_API int KVRgetintattrelement(KVRmodel *model, const char *attrname, int element, int *valueP);
KVR_API int KVRsetintattrelement(KVRmodel *model, const char *attrname, int element, int newvalue);
KVR_API int KVRgetdblattrelement(KVRmodel *model, const char *attrname, int element,
                                 double *valueP);
KVR_API int KVRsetdblattrelement(KVRmodel *model, const char *attrname, int element,
                                 double newvalue);
KVR_API int KVRgetstrattrelement(KVRmodel *model, const char *attrname, int element, char **valueP);
KVR_API int KVRsetstrattrelement(KVRmodel *model, const char *attrname, int element,
                                 const char *newvalue);

KVR_API int KVRgetcharattrarray(KVRmodel *model, const char *attrname, int first, int len,
                                char *values);
KVR_API int KVRsetcharattrarray(KVRmodel *model, const char *attrname, int first, int len,
                                const char *newvalues);
KVR_API int KVRgetintattrarray(KVRmodel *model, const char *attrname, int first, int len,
                               int *values);
KVR_API int KVRsetintattrarray(KVRmodel *model, const char *attrname, int first, int len,
                               const int *newvalues);
KVR_API int KVRgetdblattrarray(KVRmodel *model, const char *attrname, int first, int len,
                               double *values);
KVR_API int KVRsetdblattrarray(KVRmodel *model, const char *attrname, int first, int len,
                               const double *newvalues);
KVR_API int KVRgetstrattrarray(KVRmodel *model, const char *attrname, int first, int len,
                               char **values);
KVR_API int KVRsetstrattrarray(KVRmodel *model, const char *attrname, int first, int len,
                               const char *const *newvalues);

KVR_API int KVRgetcharattrlist(KVRmodel *model, const char *attrname, int len, const int *ind,
                               char *values);
KVR_API int KVRsetcharattrlist(KVRmodel *model, const char *attrname, int len, const int *ind,
                               const char *newvalues);
KVR_API int KVRgetintattrlist(KVRmodel *model, const char *attrname, int len, const int *ind,
                              int *values);
KVR_API int KVRsetintattrlist(KVRmodel *model, const char *attrname, int len, const int *ind,
                              const int *newvalues);
KVR_API int KVRgetdblattrlist(KVRmodel *model, const char *attrname, int len, const int *ind,
                              double *values);
KVR_API int KVRsetdblattrlist(KVRmodel *model, const char *attrname, int len, const int *ind,
                              const double *newvalues);
KVR_API int KVRgetstrattrlist(KVRmodel *model, const char *attrname, int len, const int *ind,
                              char **values);
KVR_API int KVRsetstrattrlist(KVRmodel *model, const char *attrname, int len, const int *ind,
                              const char *const *newvalues);

/* ---------------------------------------------------------------- optimization -----------------
 */
KVR_API int KVRoptimize(KVRmodel *model);
/* Installs the library's interrupt handling (Ctrl-C stops the next solve of this model). */
KVR_API int KVRsetsignal(KVRmodel *model);
/* Asks a running optimization to stop; safe from any thread and from callbacks. */
KVR_API void KVRterminate(KVRmodel *model);
KVR_API KVRenv *KVRgetconcurrentenv(KVRmodel *model, int num);
KVR_API void KVRdiscardconcurrentenvs(KVRmodel *model);
KVR_API KVRenv *KVRgetmultiobjenv(KVRmodel *model, int num);
KVR_API void KVRdiscardmultiobjenvs(KVRmodel *model);
/* Computes an irreducible infeasible subsystem of an infeasible model into the IIS attributes
   (IISConstr, IISLB, IISUB, ..., IISMinimal); IIS_NOT_INFEASIBLE for a feasible model. */
KVR_API int KVRcomputeIIS(KVRmodel *model);

typedef int (*KVRcallback)(KVRmodel *model, void *cbdata, int where, void *usrdata);
KVR_API int KVRsetcallbackfunc(KVRmodel *model, KVRcallback cb, void *usrdata);
KVR_API int KVRgetcallbackfunc(KVRmodel *model, KVRcallback *cbP);
/* Declares where the model's callback acts, as bits 1 << where (0, the default after every
   KVRsetcallbackfunc, declares nothing). The automatic engine choice reads it: a MIP whose
   callback acts at MIPNODE is solved by SCIP, the engine that calls it there. */
KVR_API int KVRsetcallbackwheres(KVRmodel *model, int wheremask);
/* Type (1 int, 2 double, 3 string) and size (number of values) of a "what". */
KVR_API int KVRgetcbwhatinfo(void *cbdata, int what, int *typeP, int *sizeP);
KVR_API int KVRcbget(void *cbdata, int where, int what, void *resultP);
KVR_API int KVRcbsolution(void *cbdata, const double *solution, double *objvalP);
KVR_API int KVRcbcut(void *cbdata, int cutlen, const int *cutind, const double *cutval,
                     char cutsense, double cutrhs);
KVR_API int KVRcblazy(void *cbdata, int lazylen, const int *lazyind, const double *lazyval,
                      char lazysense, double lazyrhs);
KVR_API int KVRcbproceed(void *cbdata);
KVR_API int KVRcbstoponemultiobj(KVRmodel *model, void *cbdata, int objnum);

/* ---------------------------------------------------------------- tuning -----------------------
 */
/* Searches for parameter settings that solve the model faster (or, by TuneCriterion, to a
   better gap, objective or bound), solving copies of it; the model's own parameters and
   solution stay as they are. Parameters marked with KVRfixtuneparam and parameters already
   changed in the model's environment are never varied. Afterwards TuneResultCount gives the
   number of improved sets kept; KVRgettuneresult applies one. KVRterminate and, after
   KVRsetsignal, Ctrl-C stop the search and keep what was found so far. */
KVR_API int KVRtunemodel(KVRmodel *model);
/* Tunes one parameter set for several models together (TuneMetric aggregates over them); all
   models must be MIPs or all continuous (else TUNE_MODEL_TYPES). The models use the parameters
   of their own environments; the results are stored on models[0] and relative to its
   parameters. */
KVR_API int KVRtunemodels(int nummodels, KVRmodel **models);
/* Sets the model's parameters to tuning result i (0 is the best): the parameters in force when
   tuning started, with that result's changes. */
KVR_API int KVRgettuneresult(KVRmodel *model, int i);

/* ---------------------------------------------------------------- model transformations --------
 */
/* Each call hands out a new model (its own copy of the model's environment, names kept, no
   solution) in *resultP, or fails and leaves *resultP NULL. Relax, fix, feasibility, linearize
   and single-scenario take the model as of its last update (pending changes are not applied);
   presolve and dual apply them first. */

/* Continuous relaxation: integer and binary variables become continuous (binaries within [0, 1]),
   semi-continuous and semi-integer ones continuous over [min(lb, 0), max(ub, 0)]; SOS
   constraints are dropped. General constraints keep a linear relaxation: max and min keep
   resultant >= (<=) each operand and the constant, abs and norm keep resultant >= +-operand,
   and keeps resultant <= each operand and resultant >= sum - (n - 1), or keeps resultant >= each
   operand and resultant <= sum; indicator, piecewise-linear and function constraints are
   dropped. Quadratic parts and piecewise-linear objectives stay as they are. */
KVR_API int KVRrelaxmodel(KVRmodel *model, KVRmodel **resultP);
/* The continuous model of the current MIP solution (DATA_NOT_AVAILABLE without one): integer,
   binary and semi-integer variables are fixed at their rounded values, semi-continuous ones at 0
   when they are 0 and continuous within their bounds otherwise; SOS members that are 0 are fixed
   at 0 and the SOS constraints dropped; an indicator whose condition holds becomes its linear
   row, one whose condition fails is dropped; the variables of the other general constraints are
   fixed at their values and the constraints dropped. */
KVR_API int KVRfixmodel(KVRmodel *model, KVRmodel **resultP);
/* A reduced model with the same optimal value: fixed variables are substituted out (into the
   rows and the objective constant), rows with one entry become bounds and empty rows are checked
   and dropped, repeated until nothing changes. Variables in quadratic terms, SOS, general
   constraints, further objectives, piecewise-linear objectives or scenarios, and rows changed by
   scenarios, are kept. When the reductions prove the model infeasible the result is a model
   with one variable "Infeasible" fixed at 0 and one row "Infeasible" asking it to be >= 1. */
KVR_API int KVRpresolvemodel(KVRmodel *model, KVRmodel **resultP);
/* The LP dual: one variable per row (named after the row; >= 0 for >= rows of a minimization,
   <= 0 for <= rows, free for equalities), one per finite bound ("lb_<var>" >= 0, "ub_<var>" <= 0)
   and one equality row per variable (named after it). Its optimal value equals the primal's (the
   dual of a maximization is stated as a minimization). NOT_FOR_MIP for integer variables, SOS or
   general constraints; NOT_SUPPORTED for quadratic parts, several objectives, piecewise-linear
   objectives or scenarios. */
KVR_API int KVRdualmodel(KVRmodel *model, KVRmodel **resultP);
/* The same constraints with no objective (all objectives, quadratic and piecewise-linear parts
   removed; minimization). */
KVR_API int KVRfeasibility(KVRmodel *model, KVRmodel **resultP);
/* Products of a binary variable with a variable of finite bounds (and squares of binaries) in
   the quadratic objective and quadratic constraints become new variables "<x>_<y>" tied to the
   factors by four exact rows; quadratic constraints become linear rows appended after the
   others. Max, min, abs, and, or, norm, indicator and piecewise-linear constraints become rows
   with binaries; function constraints, SOS and semi-continuous variables stay. NOT_SUPPORTED
   names a product that cannot be linearized exactly. */
KVR_API int KVRlinearizemodel(KVRmodel *model, KVRmodel **resultP);
/* The scenario chosen by the ScenarioNumber parameter applied to the base model (its bounds,
   objective coefficients and right-hand sides), without scenarios; DATA_NOT_AVAILABLE for a
   model without scenarios, INVALID_ARGUMENT for a ScenarioNumber not below NumScenarios. */
KVR_API int KVRsinglescenariomodel(KVRmodel *model, KVRmodel **resultP);
/* Feasibility relaxation of the model itself (after an update). Penalty arrays: lbpen and ubpen
   one entry per variable, rhspen one per linear constraint followed by one per quadratic
   constraint; NULL or KVR_INFINITY (or more) means "may not be relaxed". A relaxed lower bound
   of x becomes the row "ArtLB_<x>": x + ArtL_<x> >= lb, an upper bound "ArtUB_<x>":
   x - ArtU_<x> <= ub; a relaxed row gets ArtP_<row> (+1) when it is >= or =, ArtN_<row> (-1) when
   it is <= or =. relaxobjtype 0 penalizes pen * violation, 1 pen * violation^2, 2 pen for each
   violated bound or row (binary "<art>_on" with the row "<art>_M": art <= FeasRelaxBigM * on).
   minrelax 0: the relaxation objective replaces the objective, *feasobjP = 0. minrelax 1: the
   relaxation is solved, the row (or quadratic constraint) "FeasRelaxObj" keeps its objective at
   most at the minimum found, the original objective stays, and
   *feasobjP is that minimum. On failure the model is unchanged. */
KVR_API int KVRfeasrelax(KVRmodel *model, int relaxobjtype, int minrelax, const double *lbpen,
                         const double *ubpen, const double *rhspen, double *feasobjP);

/* ---------------------------------------------------------------- files ------------------------
 */
/* Reads a model file (type from the suffix; .gz and .bz2 accepted). */
KVR_API int KVRreadmodel(KVRenv *env, const char *filename, KVRmodel **modelP);
/* Reads a data file (solution, start, hints, priorities, basis, parameters, attributes) into an
   existing model. */
KVR_API int KVRread(KVRmodel *model, const char *filename);
/* Ctrl-C stops the next KVRreadmodel, KVRread or KVRreadparams the calling thread starts: the
   read fails with FILE_READ and changes nothing. */
KVR_API void KVRsetreadsignal(void);
KVR_API int KVRwrite(KVRmodel *model, const char *filename);
/* 1 when the suffix names a model file (or attribute file), 0 when it names another known file
   type, -1 when the suffix is unknown. */
KVR_API int KVRismodelfile(const char *filename);
KVR_API int KVRisattrfile(const char *filename);
/* The buffer is released with KVRfree. */
KVR_API int KVRgetjsonsolution(KVRmodel *model, char **buffP);

/* ---------------------------------------------------------------- batch optimization ----------
 */
/* Batch requests run on Dask distributed through the Python package (Model.optimizeBatch,
   kaviropy.Batch). Through this interface they cannot be submitted or followed: the calls below
   fail with NOT_SUPPORTED and a message saying so (on the model, or on the environment), and
   KVRgetbatchenv gives NULL. Only the batch attribute names can be listed here. */
#define KVR_BATCHID_SIZE 64 /* buffer size for a batch request's ID, terminator included */
KVR_API int KVRoptimizebatch(KVRmodel *model, char *batchid);
KVR_API int KVRgetbatch(KVRenv *env, const char *batchid, KVRbatch **batchP);
KVR_API KVRenv *KVRgetbatchenv(KVRbatch *batch);
KVR_API int KVRgetbatchattrflags(KVRbatch *batch, const char *attrname, int *datatypeP,
                                 int *flagsP);
KVR_API int KVRgetbatchintattr(KVRbatch *batch, const char *attrname, int *valueP);
KVR_API int KVRgetbatchstrattr(KVRbatch *batch, const char *attrname, char **valueP);
KVR_API int KVRgetnumbatchattributes(KVRenv *env);
KVR_API int KVRgetbatchattrname(KVRenv *env, int i, char **attrnameP);
KVR_API int KVRupdatebatch(KVRbatch *batch);
KVR_API int KVRabortbatch(KVRbatch *batch);
KVR_API int KVRretrybatch(KVRbatch *batch);
KVR_API int KVRdiscardbatch(KVRbatch *batch);
KVR_API int KVRgetbatchjsonsolution(KVRbatch *batch, char **buffP);
KVR_API int KVRwritebatchjsonsolution(KVRbatch *batch, const char *filename);
KVR_API void KVRfreebatch(KVRbatch *batch);

#ifdef __cplusplus
}
#endif

#endif /* KAVIRO_C_H */
