/*
 * Tests of the optimization part of the C interface: KVRoptimize and its failures, the callback
 * entry points (queries, user solutions, lazy constraints, cuts) with their error codes, the
 * sub-environments and KVRcomputeIIS. Plain C; prints every failed check and a summary line; exits
 * with 1 on any failure.
 */
#include "checks.h"

/* A call whose result must be `want` (for calls without a model message to show). */
#define CODE(want, call) check_at((call) == (want), __FILE__, __LINE__, #call " == " #want)

/* max sum (j+1) x_j over 6 binaries with sum x <= 4. */
static KVRmodel *binary_model(void) {
  KVRmodel *m = NULL;
  double obj[6];
  char vtype[6];
  int ind[6];
  double one[6];
  for (int j = 0; j < 6; ++j) obj[j] = j + 1, vtype[j] = KVR_BINARY, ind[j] = j, one[j] = 1.0;
  CODE(0, KVRnewmodel(g_env, &m, "bin", 6, obj, NULL, NULL, vtype, NULL));
  CODE(0, KVRaddconstr(m, 6, ind, one, KVR_LESS_EQUAL, 4.0, "cap"));
  CODE(0, KVRsetintattr(m, "ModelSense", KVR_MAXIMIZE));
  return m;
}

/* What the callback saw and the codes its calls returned. */
static struct {
  int mipsol_calls, polling_calls, simplex_calls;
  int where_mismatch, mipnode_query, wrong_group, unknown_what, not_reported, null_result;
  int lazy_where, lazy_index, lazy_sense, lazy_rhs, lazy_ok, cut, solution_where, solution_null;
  int whatinfo_type, whatinfo_size, stop_multiobj;
  double solution_obj;
  int return_code;
} g;

static int callback(KVRmodel *model, void *cbdata, int where, void *usrdata) {
  (void)usrdata;
  double d;
  int i;
  if (where == KVR_CB_POLLING) {
    ++g.polling_calls;
    g.lazy_where = KVRcblazy(cbdata, 0, NULL, NULL, KVR_LESS_EQUAL, 0.0);
    g.solution_where = KVRcbsolution(cbdata, NULL, &d);
    g.stop_multiobj = KVRcbstoponemultiobj(model, cbdata, 0);
  }
  if (where == KVR_CB_SIMPLEX && g.simplex_calls++ == 0)
    g.not_reported = KVRcbget(cbdata, where, KVR_CB_SPX_PRIMINF, &d);
  if (where == KVR_CB_MIPSOL && g.mipsol_calls++ == 0) {
    double x[6];
    int idx[2] = {0, 9};
    double val[2] = {1.0, 1.0};
    g.where_mismatch = KVRcbget(cbdata, KVR_CB_MIP, KVR_CB_MIP_OBJBST, &d);
    g.mipnode_query = KVRcbget(cbdata, where, KVR_CB_MIPNODE_STATUS, &i);
    g.wrong_group = KVRcbget(cbdata, where, KVR_CB_SPX_OBJVAL, &d);
    g.unknown_what = KVRcbget(cbdata, where, 4999, &d);
    g.null_result = KVRcbget(cbdata, where, KVR_CB_MIPSOL_OBJ, NULL);
    KVRgetcbwhatinfo(cbdata, KVR_CB_MIPSOL_SOL, &g.whatinfo_type, &g.whatinfo_size);
    CHECK(KVRcbget(cbdata, where, KVR_CB_MIPSOL_SOL, x) == 0);
    g.lazy_index = KVRcblazy(cbdata, 2, idx, val, KVR_LESS_EQUAL, 1.0);
    g.lazy_sense = KVRcblazy(cbdata, 1, idx, val, 'x', 1.0);
    g.lazy_rhs = KVRcblazy(cbdata, 1, idx, val, KVR_LESS_EQUAL, INFINITY);
    g.lazy_ok = KVRcblazy(cbdata, 1, idx, val, KVR_LESS_EQUAL, 0.0); /* x0 <= 0 */
    g.cut = KVRcbcut(cbdata, 1, idx, val, KVR_LESS_EQUAL, 0.0);
    g.solution_null = KVRcbsolution(cbdata, NULL, &d);
    double sol[6] = {0, 0, 1, 1, 1, 1};
    CHECK(KVRcbsolution(cbdata, sol, &g.solution_obj) == 0);
  }
  return g.return_code;
}

static void test_callback_entry_points(void) {
  KVRmodel *m = binary_model();
  KVRcallback cb = NULL;
  CODE(KVR_ERROR_NULL_ARGUMENT, KVRsetcallbackfunc(NULL, callback, NULL));
  CODE(0, KVRsetcallbackfunc(m, callback, NULL));
  CODE(0, KVRgetcallbackfunc(m, &cb));
  CHECK(cb == callback);
  CODE(KVR_ERROR_NULL_ARGUMENT, KVRgetcallbackfunc(m, NULL));
  CODE(0, KVRoptimize(m));
  CHECK(g.polling_calls == 1 && g.mipsol_calls >= 1);
  CHECK(g.where_mismatch == KVR_ERROR_INVALID_ARGUMENT);
  CHECK(g.mipnode_query == KVR_ERROR_NOT_SUPPORTED);
  CHECK(g.wrong_group == KVR_ERROR_INVALID_ARGUMENT);
  CHECK(g.unknown_what == KVR_ERROR_INVALID_ARGUMENT);
  CHECK(g.null_result == KVR_ERROR_NULL_ARGUMENT);
  CHECK(g.whatinfo_type == 2 && g.whatinfo_size == 6);
  CHECK(g.lazy_where == KVR_ERROR_CALLBACK);
  CHECK(g.lazy_index == KVR_ERROR_INDEX_OUT_OF_RANGE);
  CHECK(g.lazy_sense == KVR_ERROR_INVALID_ARGUMENT);
  CHECK(g.lazy_rhs == KVR_ERROR_INVALID_ARGUMENT);
  CHECK(g.lazy_ok == 0);
  CHECK(g.cut == KVR_ERROR_NOT_SUPPORTED);
  CHECK(g.solution_where == KVR_ERROR_CALLBACK);
  CHECK(g.solution_null == KVR_ERROR_NULL_ARGUMENT);
  CHECK(g.solution_obj == 18.0);
  CHECK(g.stop_multiobj == KVR_ERROR_INVALID_ARGUMENT);
  /* The lazy constraint x0 <= 0 holds in the result; the user's solution (18) is optimal. */
  double x0 = -1, obj = -1;
  int status = 0;
  CODE(0, KVRgetintattr(m, "Status", &status));
  CODE(0, KVRgetdblattrelement(m, "X", 0, &x0));
  CODE(0, KVRgetdblattr(m, "ObjVal", &obj));
  CHECK(status == KVR_OPTIMAL && fabs(x0) < 1e-9 && obj == 18.0);
  CODE(KVR_ERROR_NULL_ARGUMENT, KVRcbget(NULL, 0, KVR_CB_RUNTIME, &obj));

  /* The simplex reports no primal infeasibility to callbacks. */
  double one[6] = {1, 1, 1, 1, 1, 1};
  int all[6] = {0, 1, 2, 3, 4, 5};
  char cont[6] = {KVR_CONTINUOUS, KVR_CONTINUOUS, KVR_CONTINUOUS,
                  KVR_CONTINUOUS, KVR_CONTINUOUS, KVR_CONTINUOUS};
  CODE(0, KVRsetcharattrarray(m, "VType", 0, 6, cont));
  CODE(0, KVRaddconstr(m, 6, all, one, KVR_GREATER_EQUAL, 1.0, "cover"));
  CODE(0, KVRsetintparam(KVRgetenv(m), "Presolve", 0));
  CODE(0, KVRoptimize(m));
  CHECK(g.simplex_calls >= 1 && g.not_reported == KVR_ERROR_DATA_NOT_AVAILABLE);

  /* A callback that returns non-zero stops the solve with a CALLBACK error. */
  g.return_code = 7;
  CODE(KVR_ERROR_CALLBACK, KVRoptimize(m));
  CHECK(strstr(KVRgetmerrormsg(m), "returned 7") != NULL);
  g.return_code = 0;
  CODE(0, KVRsetcallbackfunc(m, NULL, NULL));
  CODE(0, KVRfreemodel(m));
}

static void test_optimize_failures(void) {
  KVRmodel *m = binary_model();
  CODE(KVR_ERROR_NULL_ARGUMENT, KVRoptimize(NULL));
  CODE(KVR_ERROR_NULL_ARGUMENT, KVRsetsignal(NULL));
  KVRterminate(NULL); /* harmless */
  /* Quadratic objective with integer variables that is convex where concavity is needed. */
  int r[1] = {0};
  double v[1] = {1.0};
  CODE(0, KVRaddqpterms(m, 1, r, r, v));
  CODE(KVR_ERROR_Q_NOT_PSD, KVRoptimize(m));
  CHECK(strstr(KVRgetmerrormsg(m), "negative semi-definite (maximization)") != NULL);
  int status = 0;
  CODE(0, KVRgetintattr(m, "Status", &status));
  CHECK(status == KVR_LOADED);
  /* A remote server cannot be reached. */
  CODE(0, KVRsetstrparam(KVRgetenv(m), "ComputeServer", "example:1"));
  CODE(KVR_ERROR_NETWORK, KVRoptimize(m));
  CODE(0, KVRfreemodel(m));
}

static void test_sub_environments(void) {
  KVRmodel *m = binary_model();
  KVRenv *e = KVRgetmultiobjenv(m, 2);
  CHECK(e != NULL && KVRgetmultiobjenv(m, 2) == e);
  CHECK(KVRgetmultiobjenv(m, -1) == NULL && strstr(KVRgetmerrormsg(m), "-1") != NULL);
  CHECK(KVRgetconcurrentenv(m, KVR_MAX_CONCURRENT) == NULL);
  CHECK(KVRgetconcurrentenv(m, 0) != NULL);
  KVRdiscardmultiobjenvs(m);
  KVRdiscardconcurrentenvs(m);
  CODE(0, KVRfreemodel(m));
}

static struct {
  int calls, constrmin, constrmax, guess, nested, stop_after;
} g_iis;

static int iis_callback(KVRmodel *model, void *cbdata, int where, void *usrdata) {
  (void)usrdata;
  if (where != KVR_CB_IIS) return 0;
  if (g_iis.calls++ == 0) g_iis.nested = KVRcomputeIIS(model);
  KVRcbget(cbdata, where, KVR_CB_IIS_CONSTRMIN, &g_iis.constrmin);
  KVRcbget(cbdata, where, KVR_CB_IIS_CONSTRMAX, &g_iis.constrmax);
  int guess = 0;
  g_iis.guess = KVRcbget(cbdata, where, KVR_CB_IIS_CONSTRGUESS, &guess);
  return g_iis.stop_after && g_iis.calls >= g_iis.stop_after;
}

static void test_iis(void) {
  KVRmodel *m = binary_model();
  CODE(KVR_ERROR_NULL_ARGUMENT, KVRcomputeIIS(NULL));
  CODE(KVR_ERROR_IIS_NOT_INFEASIBLE, KVRcomputeIIS(m));
  CHECK(strcmp(KVRgetmerrormsg(m), "Cannot compute an IIS: the model is feasible") == 0);
  int minimal = -1;
  CODE(KVR_ERROR_DATA_NOT_AVAILABLE, KVRgetintattr(m, "IISMinimal", &minimal));
  /* sum x >= 5 against the cap sum x <= 4. */
  int all[6] = {0, 1, 2, 3, 4, 5};
  double one[6] = {1, 1, 1, 1, 1, 1};
  CODE(0, KVRaddconstr(m, 6, all, one, KVR_GREATER_EQUAL, 5.0, "five"));
  CODE(0, KVRsetintattrelement(m, "IISConstrForce", 0, 1));
  CODE(0, KVRsetcallbackfunc(m, iis_callback, NULL));
  CODE(0, KVRcomputeIIS(m));
  int in[2] = {-1, -1}, lb[6], ub[6];
  CODE(0, KVRgetintattr(m, "IISMinimal", &minimal));
  CODE(0, KVRgetintattrarray(m, "IISConstr", 0, 2, in));
  CODE(0, KVRgetintattrarray(m, "IISLB", 0, 6, lb));
  CODE(0, KVRgetintattrarray(m, "IISUB", 0, 6, ub));
  int bounds = 0;
  for (int j = 0; j < 6; ++j) bounds += lb[j] + ub[j];
  CHECK(minimal == 1 && in[0] == 1 && in[1] == 1 && bounds == 0);
  CHECK(g_iis.calls >= 1 && g_iis.constrmin == 2 && g_iis.constrmax == 2);
  CHECK(g_iis.guess == KVR_ERROR_DATA_NOT_AVAILABLE);
  CHECK(g_iis.nested == KVR_ERROR_OPTIMIZATION_IN_PROGRESS);
  /* A callback that returns non-zero stops the search with a CALLBACK error. */
  g_iis.calls = 0;
  g_iis.stop_after = 1;
  CODE(KVR_ERROR_CALLBACK, KVRcomputeIIS(m));
  CHECK(strstr(KVRgetmerrormsg(m), "IIS computation stopped") != NULL);
  CODE(0, KVRsetcallbackfunc(m, NULL, NULL));
  CODE(0, KVRfreemodel(m));
}

/* Models solved and freed inside another model's callback: a kept, solved model freed there, and
 * a model built, solved twice (the second time warm) and freed at every MIPSOL event. */
static struct {
  KVRmodel *solved;
  int nested, wrong;
} g_nest;

static int nesting_callback(KVRmodel *model, void *cbdata, int where, void *usrdata) {
  (void)model, (void)cbdata, (void)usrdata;
  if (where != KVR_CB_MIPSOL) return 0;
  if (g_nest.solved) {
    KVRfreemodel(g_nest.solved);
    g_nest.solved = NULL;
  }
  KVRmodel *inner = binary_model();
  double obj = 0.0;
  for (int round = 0; round < 2; ++round) {
    if (KVRoptimize(inner) != 0 || KVRgetdblattr(inner, "ObjVal", &obj) != 0 || obj != 18.0)
      ++g_nest.wrong;
  }
  KVRfreemodel(inner);
  ++g_nest.nested;
  return 0;
}

static void test_nested_solves(void) {
  g_nest.solved = binary_model();
  CODE(0, KVRoptimize(g_nest.solved));
  KVRmodel *m = binary_model();
  CODE(0, KVRsetintparam(KVRgetenv(m), "Threads", 2));
  CODE(0, KVRsetcallbackfunc(m, nesting_callback, NULL));
  CODE(0, KVRoptimize(m));
  double obj = 0.0;
  CODE(0, KVRgetdblattr(m, "ObjVal", &obj));
  CHECK(obj == 18.0 && g_nest.nested > 0 && g_nest.wrong == 0 && g_nest.solved == NULL);
  KVRfreemodel(m);
}

int main(void) {
  if (checks_start()) return 1;
  test_callback_entry_points();
  test_nested_solves();
  test_optimize_failures();
  test_sub_environments();
  test_iis();
  return checks_finish();
}
