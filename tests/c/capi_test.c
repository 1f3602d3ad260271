/*
 * Tests of the library's C interface for models, their lazy updates and attributes. Plain C; uses
 * only kaviro_c.h. Prints every failed check and a summary line; exits with 1 on any failure.
 *
 *   capi_test              run the tests
 *   capi_test bench N      time building a model of N variables and reading attributes over it
 */
#include <stdlib.h>
#include <time.h>

#define NEAR_TOLERANCE 1e-9
#include "checks.h"

/* ------------------------------------------------------------------ helpers */

static KVRmodel *new_model(int n) {
  KVRmodel *m = NULL;
  code_at(0, KVRnewmodel(g_env, &m, "test", n, NULL, NULL, NULL, NULL, NULL), NULL, __FILE__,
          __LINE__, "KVRnewmodel");
  return m;
}

static int int_attr(KVRmodel *m, const char *name) {
  int v = -12345;
  OK(m, KVRgetintattr(m, name, &v));
  return v;
}

static double dbl_attr(KVRmodel *m, const char *name) {
  double v = -12345.0;
  OK(m, KVRgetdblattr(m, name, &v));
  return v;
}

static double dbl_elem(KVRmodel *m, const char *name, int i) {
  double v = -12345.0;
  OK(m, KVRgetdblattrelement(m, name, i, &v));
  return v;
}

static int int_elem(KVRmodel *m, const char *name, int i) {
  int v = -12345;
  OK(m, KVRgetintattrelement(m, name, i, &v));
  return v;
}

static const char *str_elem(KVRmodel *m, const char *name, int i) {
  char *v = NULL;
  OK(m, KVRgetstrattrelement(m, name, i, &v));
  return v ? v : "(null)";
}

static int same_str(const char *a, const char *b) { return strcmp(a, b) == 0; }

static unsigned long hash_text(unsigned long h, const char *s) {
  while (*s) h = (h ^ (unsigned char)*s++) * 1099511628211UL;
  return (h ^ 0xff) * 1099511628211UL;
}

/* Everything observable about a model after its pending changes are applied: the fingerprint
   covers the data and parameters, the rest adds names and counts. */
static unsigned long model_state(KVRmodel *m) {
  static const char *counts[] = {"NumVars",       "NumConstrs", "NumSOS",   "NumQConstrs",
                                 "NumGenConstrs", "NumObj",     "NumStart", "NumScenarios"};
  static const char *names[] = {"VarName", "ConstrName", "QCName", "GenConstrName"};
  static const char *numbers[] = {"NumVars", "NumConstrs", "NumQConstrs", "NumGenConstrs"};
  unsigned long h = 14695981039346656037UL;
  size_t k;
  int i, n, v;
  char *s;
  OK(m, KVRupdatemodel(m));
  h = h * 31 + (unsigned long)(unsigned int)int_attr(m, "Fingerprint");
  for (k = 0; k < sizeof counts / sizeof counts[0]; ++k)
    h = h * 31 + (unsigned long)int_attr(m, counts[k]);
  for (k = 0; k < 4; ++k) {
    n = int_attr(m, numbers[k]);
    for (i = 0; i < n; ++i) {
      OK(m, KVRgetstrattrelement(m, names[k], i, &s));
      h = hash_text(h, s);
    }
  }
  OK(m, KVRgetstrattr(m, "ModelName", &s));
  h = hash_text(h, s);
  v = 0;
  OK(m, KVRgetintattr(m, "ModelSense", &v));
  return h * 31 + (unsigned long)(v + 2);
}

/* A model with three variables x0..x2 and two constraints, already updated. */
static KVRmodel *small_model(void) {
  double obj[3] = {1, 2, 3}, lb[3] = {0, -1, 0}, ub[3] = {10, 10, 1};
  char vt[3] = {'C', 'I', 'B'};
  const char *nm[3] = {"x0", "x1", "x2"};
  int ind[3] = {0, 1, 2};
  double val[3] = {1, 2, 3};
  KVRmodel *m = NULL;
  OK(NULL, KVRnewmodel(g_env, &m, "small", 3, obj, lb, ub, vt, nm));
  OK(m, KVRaddconstr(m, 3, ind, val, '<', 10, "c0"));
  OK(m, KVRaddconstr(m, 2, ind, val, '>', 1, "c1"));
  OK(m, KVRupdatemodel(m));
  return m;
}

/* ------------------------------------------------------------------ lifecycle */

static int g_log_lines = 0;
static char g_last_log[256];
static int log_cb(char *msg, void *data) {
  ++*(int *)data;
  strncpy(g_last_log, msg, sizeof g_last_log - 1);
  return 0;
}

static void test_lifecycle(void) {
  KVRenv *idle = NULL;
  KVRmodel *m = (KVRmodel *)1, *copy;
  double obj[2] = {1.5, -2}, lb[2] = {-1e300, 1}, ub[2] = {5, 1e200}, v[2];
  char vt[2] = {'I', 'S'}, c[2];
  const char *nm[2] = {"a", NULL};
  char *s;
  int n;

  /* An environment that was not started cannot make models. */
  OK(NULL, KVRemptyenv(&idle));
  CHECK(KVRnewmodel(idle, &m, "m", 0, NULL, NULL, NULL, NULL, NULL) ==
        KVR_ERROR_FAILED_TO_CREATE_MODEL);
  CHECK(m == NULL);
  CHECK(strstr(KVRgeterrormsg(idle), "started") != NULL);
  KVRfreeenv(idle);
  CHECK(KVRnewmodel(NULL, &m, "m", 0, NULL, NULL, NULL, NULL, NULL) == KVR_ERROR_NULL_ARGUMENT);
  CHECK(KVRnewmodel(g_env, NULL, "m", 0, NULL, NULL, NULL, NULL, NULL) == KVR_ERROR_NULL_ARGUMENT);

  /* Bad initial variables. */
  lb[0] = NAN;
  CHECK(KVRnewmodel(g_env, &m, "m", 2, obj, lb, ub, vt, nm) == KVR_ERROR_INVALID_ARGUMENT);
  CHECK(m == NULL && strstr(KVRgeterrormsg(g_env), "variable 0") != NULL);
  lb[0] = -1e300;
  obj[1] = INFINITY;
  CHECK(KVRnewmodel(g_env, &m, "m", 2, obj, lb, ub, vt, nm) == KVR_ERROR_NUMERIC);
  obj[1] = -2;
  vt[1] = 'X';
  CHECK(KVRnewmodel(g_env, &m, "m", 2, obj, lb, ub, vt, nm) == KVR_ERROR_INVALID_ARGUMENT);
  vt[1] = 'S';
  CHECK(KVRnewmodel(g_env, &m, "m", -1, NULL, NULL, NULL, NULL, NULL) ==
        KVR_ERROR_INVALID_ARGUMENT);

  /* Initial variables, with infinities clipped and generated names for the unnamed. */
  OK(NULL, KVRnewmodel(g_env, &m, "first", 2, obj, lb, ub, vt, nm));
  CHECK(int_attr(m, "NumVars") == 2 && int_attr(m, "NumConstrs") == 0);
  OK(m, KVRgetdblattrarray(m, "LB", 0, 2, v));
  CHECK(v[0] == -KVR_INFINITY && v[1] == 1);
  OK(m, KVRgetdblattrarray(m, "UB", 0, 2, v));
  CHECK(v[0] == 5 && v[1] == KVR_INFINITY);
  OK(m, KVRgetdblattrarray(m, "Obj", 0, 2, v));
  CHECK(v[0] == 1.5 && v[1] == -2);
  OK(m, KVRgetcharattrarray(m, "VType", 0, 2, c));
  CHECK(c[0] == 'I' && c[1] == 'S');
  CHECK(same_str(str_elem(m, "VarName", 0), "a") && same_str(str_elem(m, "VarName", 1), "C1"));
  OK(m, KVRgetstrattr(m, "ModelName", &s));
  CHECK(same_str(s, "first"));
  CHECK(int_attr(m, "ModelSense") == 1 && dbl_attr(m, "ObjCon") == 0);
  CHECK(int_attr(m, "Status") == KVR_LOADED && int_attr(m, "SolCount") == 0);

  /* Defaults for NULL arrays. */
  copy = new_model(2);
  OK(copy, KVRgetdblattrarray(copy, "UB", 0, 2, v));
  CHECK(v[0] == KVR_INFINITY && v[1] == KVR_INFINITY);
  OK(copy, KVRgetcharattrarray(copy, "VType", 0, 2, c));
  CHECK(c[0] == 'C' && c[1] == 'C');
  CHECK(dbl_elem(copy, "LB", 1) == 0 && dbl_elem(copy, "Obj", 1) == 0);
  KVRfreemodel(copy);

  /* The model's environment is its own copy. */
  CHECK(KVRgetenv(m) != NULL && KVRgetenv(m) != g_env);
  OK(NULL, KVRsetintparam(KVRgetenv(m), "Threads", 3));
  n = -1;
  OK(NULL, KVRgetintparam(g_env, "Threads", &n));
  CHECK(n == 0);

  /* Log lines of the model go to the model's callback only. */
  g_log_lines = 0;
  OK(m, KVRsetlogcallbackfunc(m, log_cb, &g_log_lines));
  OK(NULL, KVRsetintparam(KVRgetenv(m), "OutputFlag", 1));
  OK(NULL, KVRsetintparam(KVRgetenv(m), "LogToConsole", 1));
  KVRmsg(KVRgetenv(m), "hello model\n");
  CHECK(g_log_lines == 1 && same_str(g_last_log, "hello model\n"));
  KVRmsg(g_env, "not for the model\n");
  CHECK(g_log_lines == 1);
  OK(NULL, KVRsetintparam(KVRgetenv(m), "OutputFlag", 0));
  KVRmsg(KVRgetenv(m), "silenced\n");
  CHECK(g_log_lines == 1);
  CHECK(KVRsetlogcallbackfunc(NULL, log_cb, NULL) == KVR_ERROR_NULL_ARGUMENT);

  /* A copy takes data, pending changes and parameters, and is independent afterwards. */
  OK(m, KVRsetdblattrelement(m, "UB", 0, 7));
  copy = KVRcopymodel(m);
  CHECK(copy != NULL);
  n = -1;
  OK(NULL, KVRgetintparam(KVRgetenv(copy), "Threads", &n));
  CHECK(n == 3);
  CHECK(dbl_elem(copy, "UB", 0) == 5); /* the change is still pending in the copy */
  OK(copy, KVRupdatemodel(copy));
  CHECK(dbl_elem(copy, "UB", 0) == 7);
  OK(m, KVRupdatemodel(m));
  CHECK(int_attr(m, "Fingerprint") == int_attr(copy, "Fingerprint"));
  OK(copy, KVRsetdblattrelement(copy, "UB", 0, 8));
  OK(copy, KVRsetstrattr(copy, "ModelName", "second"));
  OK(copy, KVRupdatemodel(copy));
  CHECK(dbl_elem(m, "UB", 0) == 7 && dbl_elem(copy, "UB", 0) == 8);
  OK(m, KVRgetstrattr(m, "ModelName", &s));
  CHECK(same_str(s, "first"));
  CHECK(int_attr(m, "Fingerprint") != int_attr(copy, "Fingerprint"));
  OK(copy, KVRfreemodel(copy));
  CHECK(KVRcopymodel(NULL) == NULL);

  /* Null models. */
  CHECK(KVRupdatemodel(NULL) == KVR_ERROR_NULL_ARGUMENT);
  CHECK(KVRgetintattr(NULL, "NumVars", &n) == KVR_ERROR_NULL_ARGUMENT);
  CHECK(KVRgetenv(NULL) == NULL);
  CHECK(strlen(KVRgetmerrormsg(NULL)) > 0);
  CHECK(KVRfreemodel(NULL) == 0);
  KVRfreemodel(m);
}

/* Calls with a freed model or environment fail cleanly instead of touching freed memory. */
static void test_freed_handles(void) {
  KVRmodel *m = NULL;
  double lb = 0.0, x;
  int ind = 0, n;
  char *s = NULL;
  OK(NULL, KVRnewmodel(g_env, &m, "gone", 2, NULL, NULL, NULL, NULL, NULL));
  KVRenv *menv = KVRgetenv(m);
  KVRfreeenv(menv); /* a model's own environment dies with the model, not here */
  CHECK(KVRgetparamtype(menv, "TimeLimit") == KVR_PARAM_DBL);
  OK(m, KVRfreemodel(m));
  const char *gone = "Invalid handle: it was freed, or it was never created by this library";
  CHECK(strcmp(KVRgetmerrormsg(m), gone) == 0);
  CHECK(KVRgetintattr(m, "NumVars", &n) == KVR_ERROR_INVALID_ARGUMENT);
  CHECK(KVRsetdblattrelement(m, "LB", 0, 1.0) == KVR_ERROR_INVALID_ARGUMENT);
  CHECK(KVRgetdblattrlist(m, "LB", 1, &ind, &lb) == KVR_ERROR_INVALID_ARGUMENT);
  CHECK(KVRgetstrattrelement(m, "VarName", 0, &s) == KVR_ERROR_INVALID_ARGUMENT);
  CHECK(KVRaddvar(m, 0, NULL, NULL, 0, 0, 1, KVR_CONTINUOUS, "x") == KVR_ERROR_INVALID_ARGUMENT);
  CHECK(KVRdelvars(m, 1, &ind) == KVR_ERROR_INVALID_ARGUMENT);
  CHECK(KVRupdatemodel(m) == KVR_ERROR_INVALID_ARGUMENT);
  CHECK(KVRoptimize(m) == KVR_ERROR_INVALID_ARGUMENT &&
        KVRcomputeIIS(m) == KVR_ERROR_INVALID_ARGUMENT);
  CHECK(KVRsetcallbackfunc(m, NULL, NULL) == KVR_ERROR_INVALID_ARGUMENT);
  CHECK(KVRgetmultiobjenv(m, 0) == NULL && KVRgetconcurrentenv(m, 0) == NULL);
  KVRterminate(m);                                     /* ignored */
  CHECK(KVRgetattrinfo(m, "LB", &n, NULL, NULL) == 0); /* the attribute table needs no model */
  CHECK(KVRgetenv(m) == NULL && KVRcopymodel(m) == NULL);
  CHECK(KVRfreemodel(m) == KVR_ERROR_INVALID_ARGUMENT); /* freeing twice is refused */
  CHECK(KVRgetparamtype(menv, "TimeLimit") == -1);

  KVRenv *e = NULL;
  OK(NULL, KVRemptyenv(&e));
  KVRfreeenv(e);
  CHECK(strcmp(KVRgeterrormsg(e), gone) == 0);
  CHECK(KVRsetdblparam(e, "TimeLimit", 1.0) == KVR_ERROR_INVALID_ARGUMENT);
  CHECK(KVRgetdblparam(e, "TimeLimit", &x) == KVR_ERROR_INVALID_ARGUMENT);
  CHECK(KVRstartenv(e) == KVR_ERROR_INVALID_ARGUMENT);
  CHECK(KVRnewmodel(e, &m, "x", 0, NULL, NULL, NULL, NULL, NULL) == KVR_ERROR_INVALID_ARGUMENT);
  KVRmsg(e, "nothing happens\n");
  KVRfreeenv(e); /* twice: ignored */
}

/* ------------------------------------------------------------------ lazy updates */

static void test_update_mode_1(void) {
  KVRmodel *m = small_model();
  int ind[2] = {0, 3}, del[2] = {1, 1};
  double val[2] = {4, 5}, v;

  /* Variables and linear constraints are usable by index at once, with their coefficients; counts
     and name lookups show them only after the update. */
  OK(m, KVRaddvar(m, 1, ind, val, 0.5, -2, 3, 'C', "x3"));
  CHECK(int_attr(m, "NumVars") == 3 && int_attr(m, "NumNZs") == 5);
  CHECK(dbl_elem(m, "LB", 3) == -2 && same_str(str_elem(m, "VarName", 3), "x3"));
  OK(m, KVRgetcoeff(m, 0, 3, &v));
  CHECK(v == 4);
  OK(m, KVRaddconstr(m, 2, ind, val, '=', 2, "c2"));
  CHECK(int_attr(m, "NumConstrs") == 2);
  {
    int n = 0;
    OK(m, KVRgetconstrbyname(m, "c2", &n));
    CHECK(n == -1);
  }
  OK(m, KVRgetcoeff(m, 2, 3, &v));
  CHECK(v == 5);

  /* Attribute writes wait for the update; the last write wins. */
  OK(m, KVRsetdblattrelement(m, "UB", 3, 9));
  OK(m, KVRsetdblattrelement(m, "UB", 3, 8));
  CHECK(dbl_elem(m, "UB", 3) == 3);
  OK(m, KVRupdatemodel(m));
  CHECK(dbl_elem(m, "UB", 3) == 8);
  CHECK(int_attr(m, "NumVars") == 4 && int_attr(m, "NumConstrs") == 3);
  CHECK(int_attr(m, "NumNZs") == 8);

  /* Deletions wait too; deleting twice is harmless; the rest is renumbered in order. */
  OK(m, KVRdelvars(m, 2, del));
  OK(m, KVRdelvars(m, 1, del));
  CHECK(int_attr(m, "NumVars") == 4);
  OK(m, KVRupdatemodel(m));
  CHECK(int_attr(m, "NumVars") == 3);
  CHECK(same_str(str_elem(m, "VarName", 1), "x2") && same_str(str_elem(m, "VarName", 2), "x3"));
  OK(m, KVRgetcoeff(m, 0, 2, &v));
  CHECK(v == 4);
  OK(m, KVRgetcoeff(m, 0, 1, &v));
  CHECK(v == 3);
  OK(m, KVRdelconstrs(m, 1, ind));
  OK(m, KVRupdatemodel(m));
  CHECK(int_attr(m, "NumConstrs") == 2 && same_str(str_elem(m, "ConstrName", 0), "c1"));

  /* With IgnoreNames the names given are dropped. */
  OK(m, KVRsetintparam(KVRgetenv(m), "IgnoreNames", 1));
  OK(m, KVRaddvar(m, 0, NULL, NULL, 0, 0, 1, 'C', "dropped"));
  OK(m, KVRaddrangeconstr(m, 0, NULL, NULL, 0, 1, "dropped"));
  CHECK(same_str(str_elem(m, "VarName", 3), "C3") && same_str(str_elem(m, "VarName", 4), "C4"));
  CHECK(same_str(str_elem(m, "ConstrName", 2), "R2"));
  OK(m, KVRsetintparam(KVRgetenv(m), "IgnoreNames", 0));
  {
    int newvars[2] = {3, 4}, newrow = 2;
    OK(m, KVRdelvars(m, 2, newvars));
    OK(m, KVRdelconstrs(m, 1, &newrow));
  }
  OK(m, KVRupdatemodel(m));
  CHECK(int_attr(m, "NumVars") == 3 && int_attr(m, "NumConstrs") == 2);

  /* SOS, quadratic and general constraints wait for the update in mode 1 too. */
  {
    int t = 1, b = 0, sind[2] = {0, 1};
    double w[2] = {1, 2};
    OK(m, KVRaddsos(m, 1, 2, &t, &b, sind, w));
    OK(m, KVRaddqconstr(m, 0, NULL, NULL, 1, sind, sind, val, '<', 1, "q"));
    OK(m, KVRaddgenconstrAbs(m, "g", 0, 1));
    CHECK(int_attr(m, "NumSOS") == 0 && int_attr(m, "NumQConstrs") == 0);
    CHECK(int_attr(m, "NumGenConstrs") == 0);
    OK(m, KVRupdatemodel(m));
    CHECK(int_attr(m, "NumSOS") == 1 && int_attr(m, "NumQConstrs") == 1);
    CHECK(int_attr(m, "NumGenConstrs") == 1);
  }
  KVRfreemodel(m);
}

static void test_update_mode_0(void) {
  KVRmodel *m = small_model();
  int ind[3] = {0, 3, 4}, del = 0, n;
  double val[3] = {1, 1, 1}, v, ub[2];
  OK(m, KVRsetintparam(KVRgetenv(m), "UpdateMode", 0));

  /* Additions are queued; a queued constraint may use the index a queued variable will get. */
  OK(m, KVRaddvar(m, 0, NULL, NULL, 0, 0, 1, 'C', "y3"));
  OK(m, KVRaddvar(m, 1, ind, val, 0, 0, 2, 'C', "y4"));
  CHECK(int_attr(m, "NumVars") == 3);
  ERR(m, KVR_ERROR_INDEX_OUT_OF_RANGE, KVRgetdblattrelement(m, "UB", 3, &v));
  OK(m, KVRaddconstr(m, 3, ind, val, '<', 5, "late"));
  CHECK(int_attr(m, "NumConstrs") == 2);
  ERR(m, KVR_ERROR_INDEX_OUT_OF_RANGE, KVRsetdblattrelement(m, "UB", 3, 1));

  /* Order at the update: changes with the old indices, then additions, then deletions. */
  OK(m, KVRsetdblattrelement(m, "UB", 1, 4));
  OK(m, KVRdelvars(m, 1, &del));
  OK(m, KVRupdatemodel(m));
  CHECK(int_attr(m, "NumVars") == 4 && int_attr(m, "NumConstrs") == 3);
  CHECK(same_str(str_elem(m, "VarName", 0), "x1") && same_str(str_elem(m, "VarName", 3), "y4"));
  CHECK(dbl_elem(m, "UB", 0) == 4);
  OK(m, KVRgetdblattrarray(m, "UB", 2, 2, ub));
  CHECK(ub[0] == 1 && ub[1] == 2);
  OK(m, KVRgetcoeff(m, 0, 3, &v)); /* the column of y4 in c0 */
  CHECK(v == 1);
  OK(m, KVRgetcoeff(m, 2, 2, &v)); /* row "late" with y3 */
  CHECK(v == 1);
  n = -1;
  OK(m, KVRgetconstrbyname(m, "late", &n));
  CHECK(n == 2);

  /* Switching to update mode 1 while additions of mode 0 wait: the next add is refused. */
  OK(m, KVRaddvar(m, 0, NULL, NULL, 0, 0, 1, 'C', "z"));
  OK(m, KVRsetintparam(KVRgetenv(m), "UpdateMode", 1));
  ERR(m, KVR_ERROR_UPDATEMODE_CHANGE, KVRaddvar(m, 0, NULL, NULL, 0, 0, 1, 'C', "w"));
  MSG(m, "UpdateMode");
  ERR(m, KVR_ERROR_UPDATEMODE_CHANGE, KVRaddconstr(m, 0, NULL, NULL, '<', 0, "w"));
  OK(m, KVRupdatemodel(m));
  CHECK(int_attr(m, "NumVars") == 5);
  OK(m, KVRaddvar(m, 0, NULL, NULL, 0, 0, 1, 'C', "w"));
  CHECK(int_attr(m, "NumVars") == 5);
  OK(m, KVRupdatemodel(m));
  CHECK(int_attr(m, "NumVars") == 6);
  KVRfreemodel(m);
}

static void test_range_constraints(void) {
  KVRmodel *m = new_model(2);
  int ind[2] = {0, 1}, beg[3] = {0, 2, 3}, ind3[3] = {0, 1, 1};
  double val[2] = {1, 2}, val3[3] = {1, 2, 1}, lo[3] = {-KVR_INFINITY, 1, -1e30},
         up[3] = {4, KVR_INFINITY, 1e30}, v;
  const char *names[3] = {"le", "ge", "free"};
  char sense;

  OK(m, KVRaddrangeconstr(m, 2, ind, val, 1, 4, "r"));
  CHECK(int_attr(m, "NumVars") == 2 && int_attr(m, "NumConstrs") == 0);
  OK(m, KVRupdatemodel(m));
  CHECK(int_attr(m, "NumVars") == 3 && int_attr(m, "NumConstrs") == 1);
  CHECK(same_str(str_elem(m, "VarName", 2), "Rgr"));
  CHECK(dbl_elem(m, "LB", 2) == 1 && dbl_elem(m, "UB", 2) == 4);
  OK(m, KVRgetcoeff(m, 0, 2, &v));
  CHECK(v == -1);
  OK(m, KVRgetcharattrelement(m, "Sense", 0, &sense));
  CHECK(sense == '=' && dbl_elem(m, "RHS", 0) == 0);

  /* One infinite side (beyond 1e25): a plain inequality; both infinite: a range variable. */
  OK(m, KVRaddrangeconstrs(m, 3, 3, beg, ind3, val3, lo, up, names));
  OK(m, KVRupdatemodel(m));
  CHECK(int_attr(m, "NumVars") == 4 && int_attr(m, "NumConstrs") == 4);
  OK(m, KVRgetcharattrelement(m, "Sense", 1, &sense));
  CHECK(sense == '<' && dbl_elem(m, "RHS", 1) == 4);
  OK(m, KVRgetcharattrelement(m, "Sense", 2, &sense));
  CHECK(sense == '>' && dbl_elem(m, "RHS", 2) == 1);
  CHECK(same_str(str_elem(m, "VarName", 3), "Rgfree"));
  CHECK(dbl_elem(m, "LB", 3) == -1e30 && dbl_elem(m, "UB", 3) == 1e30);
  OK(m, KVRgetcoeff(m, 3, 3, &v));
  CHECK(v == -1);

  /* In update mode 0 the range variable appears at the update, named after a generated name. */
  OK(m, KVRsetintparam(KVRgetenv(m), "UpdateMode", 0));
  OK(m, KVRaddrangeconstr(m, 1, ind, val, 0, 1, NULL));
  CHECK(int_attr(m, "NumVars") == 4);
  OK(m, KVRupdatemodel(m));
  CHECK(int_attr(m, "NumVars") == 5 && same_str(str_elem(m, "VarName", 4), "RgR4"));

  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRaddrangeconstr(m, 1, ind, val, NAN, 1, NULL));
  ERR(m, KVR_ERROR_NULL_ARGUMENT, KVRaddrangeconstrs(m, 1, 0, NULL, NULL, NULL, lo, NULL, NULL));
  OK(m, KVRupdatemodel(m));
  CHECK(int_attr(m, "NumConstrs") == 5);
  KVRfreemodel(m);
}

/* ------------------------------------------------------------------ building errors */

static void test_build_errors(void) {
  KVRmodel *m = small_model();
  int ind[3] = {0, 1, 2}, bad[2] = {0, 7}, beg[2] = {0, 2}, badbeg[2] = {2, 1};
  double val[3] = {1, 2, 3}, nanv[2] = {1, NAN}, infv[2] = {1, KVR_INFINITY}, v;
  char sense[2] = {'<', '>'}, badsense[2] = {'<', '!'};
  double rhs[2] = {1, 2};
  char longname[300];
  unsigned long before = model_state(m);
  memset(longname, 'n', sizeof longname - 1);
  longname[sizeof longname - 1] = 0;

  ERR(m, KVR_ERROR_INDEX_OUT_OF_RANGE, KVRaddconstr(m, 2, bad, val, '<', 1, "c"));
  MSG(m, "variable index 7");
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRaddconstr(m, 2, ind, nanv, '<', 1, "c"));
  MSG(m, "NaN");
  ERR(m, KVR_ERROR_NUMERIC, KVRaddconstr(m, 2, ind, infv, '<', 1, "c"));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRaddconstr(m, 2, ind, val, 'x', 1, "c"));
  MSG(m, "sense");
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRaddconstr(m, 2, ind, val, '<', NAN, "c"));
  ERR(m, KVR_ERROR_NULL_ARGUMENT, KVRaddconstr(m, 2, NULL, val, '<', 1, "c"));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRaddconstr(m, -1, ind, val, '<', 1, "c"));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRaddconstr(m, 1, ind, val, '<', 1, longname));
  /* The second constraint of a batch is bad: the first is not added either. */
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRaddconstrs(m, 2, 3, beg, ind, val, badsense, rhs, NULL));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRaddconstrs(m, 2, 3, badbeg, ind, val, sense, rhs, NULL));
  ERR(m, KVR_ERROR_NULL_ARGUMENT, KVRaddconstrs(m, 2, 3, beg, ind, val, NULL, rhs, NULL));
  ERR(m, KVR_ERROR_INDEX_OUT_OF_RANGE, KVRaddvar(m, 2, bad, val, 0, 0, 1, 'C', "v"));
  MSG(m, "constraint index 7");
  ERR(m, KVR_ERROR_NUMERIC, KVRaddvar(m, 2, ind, infv, 0, 0, 1, 'C', "v"));
  ERR(m, KVR_ERROR_NUMERIC, KVRaddvar(m, 0, NULL, NULL, KVR_INFINITY, 0, 1, 'C', "v"));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRaddvar(m, 0, NULL, NULL, 0, NAN, 1, 'C', "v"));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRaddvar(m, 0, NULL, NULL, 0, 0, 1, 'Q', "v"));
  MSG(m, "'Q'");
  ERR(m, KVR_ERROR_INVALID_ARGUMENT,
      KVRaddvars(m, 2, 2, badbeg, ind, val, NULL, NULL, NULL, NULL, NULL));
  ERR(m, KVR_ERROR_NULL_ARGUMENT,
      KVRaddvars(m, 2, 2, beg, ind, NULL, NULL, NULL, NULL, NULL, NULL));
  ERR(m, KVR_ERROR_NULL_ARGUMENT,
      KVRaddvars(m, 2, 2, NULL, ind, val, NULL, NULL, NULL, NULL, NULL));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT,
      KVRaddvars(m, -2, 0, NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL));
  ERR(m, KVR_ERROR_INDEX_OUT_OF_RANGE, KVRdelvars(m, 2, bad));
  MSG(m, "variable 7");
  ERR(m, KVR_ERROR_INDEX_OUT_OF_RANGE, KVRdelconstrs(m, 1, &bad[1]));
  ERR(m, KVR_ERROR_INDEX_OUT_OF_RANGE, KVRdelsos(m, 1, ind));
  ERR(m, KVR_ERROR_INDEX_OUT_OF_RANGE, KVRdelqconstrs(m, 1, ind));
  ERR(m, KVR_ERROR_INDEX_OUT_OF_RANGE, KVRdelgenconstrs(m, 1, ind));
  ERR(m, KVR_ERROR_NULL_ARGUMENT, KVRdelvars(m, 1, NULL));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRdelvars(m, -1, ind));
  CHECK(model_state(m) == before);

  /* Duplicate terms of one row are summed, zero terms dropped. */
  {
    int dup[4] = {0, 2, 0, 1};
    double dval[4] = {1, 2, 3, 0};
    size_t nz;
    OK(m, KVRaddconstr(m, 4, dup, dval, '<', 1, "dup"));
    OK(m, KVRgetcoeff(m, 2, 0, &v));
    CHECK(v == 4);
    OK(m, KVRXgetconstrs(m, &nz, NULL, NULL, NULL, 2, 1));
    CHECK(nz == 2);
  }
  KVRfreemodel(m);
}

/* ------------------------------------------------------------------ quadratic, SOS */

static void test_quadratic(void) {
  KVRmodel *m = small_model();
  int lind[3] = {0, 1, 0}, qrow[3] = {0, 1, 2}, qcol[3] = {1, 0, 2}, bad[1] = {9}, n, nq;
  double lval[3] = {1, 2, 3}, qval[3] = {1, 1, 4}, rv[4], qv[4], infq[1] = {KVR_INFINITY};
  int ri[4], rr[4], rc[4];
  char sense;
  unsigned long before;

  /* Duplicate terms merge; x0*x1 and x1*x0 are one term. */
  OK(m, KVRaddqconstr(m, 3, lind, lval, 3, qrow, qcol, qval, '<', 5, "qc"));
  OK(m, KVRaddqconstr(m, 0, NULL, NULL, 1, qrow, qrow, qval, '=', 1, NULL));
  OK(m, KVRupdatemodel(m));
  CHECK(int_attr(m, "NumQConstrs") == 2 && int_attr(m, "IsQCP") == 1);
  CHECK(int_attr(m, "NumQCNZs") == 3);
  OK(m, KVRgetqconstr(m, 0, &n, NULL, NULL, &nq, NULL, NULL, NULL));
  CHECK(n == 2 && nq == 2);
  OK(m, KVRgetqconstr(m, 0, &n, ri, rv, &nq, rr, rc, qv));
  CHECK(ri[0] == 0 && rv[0] == 4 && ri[1] == 1 && rv[1] == 2);
  CHECK(rr[0] == 0 && rc[0] == 1 && qv[0] == 2 && rr[1] == 2 && rc[1] == 2 && qv[1] == 4);
  OK(m, KVRgetcharattrelement(m, "QCSense", 1, &sense));
  CHECK(sense == '=' && dbl_elem(m, "QCRHS", 0) == 5);
  CHECK(same_str(str_elem(m, "QCName", 0), "qc") && same_str(str_elem(m, "QCName", 1), "QC1"));
  CHECK(dbl_attr(m, "MaxQCCoeff") == 4 && dbl_attr(m, "MinQCCoeff") == 1);
  CHECK(dbl_attr(m, "MaxQCLCoeff") == 4 && dbl_attr(m, "MinQCLCoeff") == 2);
  CHECK(dbl_attr(m, "MaxQCRHS") == 5 && dbl_attr(m, "MinQCRHS") == 1);

  before = model_state(m);
  ERR(m, KVR_ERROR_INDEX_OUT_OF_RANGE,
      KVRaddqconstr(m, 1, bad, lval, 0, NULL, NULL, NULL, '<', 1, "q"));
  ERR(m, KVR_ERROR_INDEX_OUT_OF_RANGE,
      KVRaddqconstr(m, 0, NULL, NULL, 1, bad, qrow, qval, '<', 1, "q"));
  ERR(m, KVR_ERROR_NUMERIC, KVRaddqconstr(m, 0, NULL, NULL, 1, qrow, qrow, infq, '<', 1, "q"));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT,
      KVRaddqconstr(m, 0, NULL, NULL, 1, qrow, qrow, qval, '?', 1, "q"));
  ERR(m, KVR_ERROR_NULL_ARGUMENT,
      KVRaddqconstr(m, 0, NULL, NULL, 1, NULL, qrow, qval, '<', 1, "q"));
  ERR(m, KVR_ERROR_INDEX_OUT_OF_RANGE, KVRgetqconstr(m, 2, &n, NULL, NULL, &nq, NULL, NULL, NULL));
  ERR(m, KVR_ERROR_INDEX_OUT_OF_RANGE, KVRaddqpterms(m, 1, bad, qrow, qval));
  CHECK(model_state(m) == before);

  /* Quadratic objective terms: added at the update, merged, dropped by KVRdelq. */
  OK(m, KVRaddqpterms(m, 2, qrow, qcol, qval));
  CHECK(int_attr(m, "NumQNZs") == 0);
  OK(m, KVRupdatemodel(m));
  CHECK(int_attr(m, "NumQNZs") == 1 && int_attr(m, "IsQP") == 1);
  OK(m, KVRgetq(m, &nq, rr, rc, qv));
  CHECK(nq == 1 && rr[0] == 0 && rc[0] == 1 && qv[0] == 2);
  OK(m, KVRaddqpterms(m, 1, qrow, qrow, qval));
  OK(m, KVRupdatemodel(m));
  CHECK(int_attr(m, "NumQNZs") == 2 && dbl_attr(m, "MaxQObjCoeff") == 2);
  OK(m, KVRdelq(m));
  OK(m, KVRupdatemodel(m));
  CHECK(int_attr(m, "NumQNZs") == 0 && int_attr(m, "IsQP") == 0);

  /* Deleting a variable removes its terms; deleting a constraint renumbers the rest. */
  OK(m, KVRdelvars(m, 1, &lind[1]));
  OK(m, KVRdelqconstrs(m, 1, &lind[0]));
  OK(m, KVRupdatemodel(m));
  CHECK(int_attr(m, "NumQConstrs") == 1 && same_str(str_elem(m, "QCName", 0), "QC0"));
  OK(m, KVRgetqconstr(m, 0, &n, NULL, NULL, &nq, rr, rc, qv));
  CHECK(nq == 1 && rr[0] == 0 && rc[0] == 0);
  KVRfreemodel(m);
}

static void test_sos(void) {
  KVRmodel *m = small_model();
  int types[2] = {1, 2}, beg[2] = {0, 2}, ind[5] = {0, 1, 0, 1, 2}, n, t[2], b[2], mi[5];
  int dup[2] = {1, 1}, badtype = 3, badvar[1] = {9}, badbeg[2] = {3, 1};
  double w[5] = {1, 2, 1, 2, 3}, mw[5], samew[2] = {1, 1};
  unsigned long before;

  OK(m, KVRaddsos(m, 2, 5, types, beg, ind, w));
  CHECK(int_attr(m, "NumSOS") == 0);
  OK(m, KVRupdatemodel(m));
  CHECK(int_attr(m, "NumSOS") == 2 && int_attr(m, "IsMIP") == 1);
  OK(m, KVRgetsos(m, &n, NULL, NULL, NULL, NULL, 0, 2));
  CHECK(n == 5);
  OK(m, KVRgetsos(m, &n, t, b, mi, mw, 1, 1));
  CHECK(n == 3 && t[0] == 2 && b[0] == 0 && mi[2] == 2 && mw[2] == 3);

  before = model_state(m);
  ERR(m, KVR_ERROR_DUPLICATES, KVRaddsos(m, 1, 2, types, beg, dup, w));
  MSG(m, "twice");
  ERR(m, KVR_ERROR_DUPLICATES, KVRaddsos(m, 1, 2, types, beg, ind, samew));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRaddsos(m, 1, 2, &badtype, beg, ind, w));
  ERR(m, KVR_ERROR_INDEX_OUT_OF_RANGE, KVRaddsos(m, 1, 1, types, beg, badvar, w));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRaddsos(m, 2, 5, types, badbeg, ind, w));
  ERR(m, KVR_ERROR_INDEX_OUT_OF_RANGE, KVRgetsos(m, &n, NULL, NULL, NULL, NULL, 1, 2));
  CHECK(model_state(m) == before);

  /* A deleted variable leaves its sets; a deleted set renumbers the others. */
  OK(m, KVRdelvars(m, 1, &ind[0]));
  OK(m, KVRdelsos(m, 1, &ind[0]));
  OK(m, KVRupdatemodel(m));
  CHECK(int_attr(m, "NumSOS") == 1);
  OK(m, KVRgetsos(m, &n, t, b, mi, mw, 0, 1));
  CHECK(n == 2 && t[0] == 2 && mi[0] == 0 && mi[1] == 1 && mw[0] == 2);
  KVRfreemodel(m);
}

/* ------------------------------------------------------------------ general constraints */

static void test_genconstrs(void) {
  KVRmodel *m = new_model(6);
  int vars[3] = {1, 2, 3}, res, nv, got[3], bin, bval, ind[2] = {4, 4}, gi[2], x, y, del = 5;
  double c, pts[3] = {0, 1, 2}, ypts[3] = {0, 1, 4}, gx[3], gy[3], p[3] = {1, 0, -1}, gp[3];
  double val[2] = {1, 2}, gv[2], a, rhs;
  char sense;
  unsigned long before;

  OK(m, KVRaddgenconstrMax(m, "max", 0, 3, vars, -KVR_INFINITY));       /* 0 */
  OK(m, KVRaddgenconstrMin(m, "min", 0, 2, vars, 3));                   /* 1 */
  OK(m, KVRaddgenconstrAbs(m, "abs", 0, 1));                            /* 2 */
  OK(m, KVRaddgenconstrAnd(m, "and", 0, 3, vars));                      /* 3 */
  OK(m, KVRaddgenconstrOr(m, "or", 0, 2, vars));                        /* 4 */
  OK(m, KVRaddgenconstrNorm(m, "norm", 0, 3, vars, 2));                 /* 5 */
  OK(m, KVRaddgenconstrIndicator(m, "ind", 1, 0, 2, ind, val, '>', 2)); /* 6 */
  OK(m, KVRaddgenconstrPWL(m, "pwl", 1, 2, 3, pts, ypts));              /* 7 */
  OK(m, KVRaddgenconstrPoly(m, "poly", 1, 2, 3, p, ""));                /* 8 */
  OK(m, KVRaddgenconstrExp(m, "exp", 1, 2, "FuncPieces=5"));            /* 9 */
  OK(m, KVRaddgenconstrExpA(m, "expa", 1, 2, 3, NULL));                 /* 10 */
  OK(m, KVRaddgenconstrLog(m, NULL, 1, 2, NULL));                       /* 11 */
  OK(m, KVRaddgenconstrLogA(m, "loga", 1, 2, 10, NULL));                /* 12 */
  OK(m, KVRaddgenconstrPow(m, "pow", 1, 2, 0.5, NULL));                 /* 13 */
  OK(m, KVRaddgenconstrSin(m, "sin", 1, 2, NULL));                      /* 14 */
  OK(m, KVRaddgenconstrCos(m, "cos", 1, 2, NULL));                      /* 15 */
  OK(m, KVRaddgenconstrTan(m, "tan", 1, 2, NULL));                      /* 16 */
  OK(m, KVRaddgenconstrLogistic(m, "logistic", 1, 2, "FuncPieceError=0.01, FuncPieceRatio=0.5"));
  CHECK(int_attr(m, "NumGenConstrs") == 0);
  ERR(m, KVR_ERROR_INDEX_OUT_OF_RANGE, KVRgetgenconstrAbs(m, 2, &res, &x));
  OK(m, KVRupdatemodel(m));
  CHECK(int_attr(m, "NumGenConstrs") == 18 && int_attr(m, "IsMIP") == 1);
  {
    int types[18], k;
    OK(m, KVRgetintattrarray(m, "GenConstrType", 0, 18, types));
    for (k = 0; k < 17; ++k) CHECK(types[k] == k);
    CHECK(types[17] == KVR_GENCONSTR_LOGISTIC);
  }
  CHECK(same_str(str_elem(m, "GenConstrName", 0), "max") &&
        same_str(str_elem(m, "GenConstrName", 11), "GC11"));

  /* NULL arrays first for the lengths, then the data. */
  OK(m, KVRgetgenconstrMax(m, 0, &res, &nv, NULL, &c));
  CHECK(res == 0 && nv == 3 && c == -KVR_INFINITY);
  OK(m, KVRgetgenconstrMax(m, 0, &res, &nv, got, &c));
  CHECK(got[0] == 1 && got[2] == 3);
  OK(m, KVRgetgenconstrMin(m, 1, &res, &nv, got, &c));
  CHECK(nv == 2 && c == 3);
  OK(m, KVRgetgenconstrAbs(m, 2, &res, &x));
  CHECK(res == 0 && x == 1);
  OK(m, KVRgetgenconstrAnd(m, 3, &res, &nv, got));
  CHECK(nv == 3 && got[1] == 2);
  OK(m, KVRgetgenconstrOr(m, 4, &res, &nv, got));
  CHECK(nv == 2);
  OK(m, KVRgetgenconstrNorm(m, 5, &res, &nv, got, &c));
  CHECK(nv == 3 && c == 2);
  OK(m, KVRgetgenconstrIndicator(m, 6, &bin, &bval, &nv, NULL, NULL, &sense, &rhs));
  CHECK(bin == 1 && bval == 0 && nv == 1 && sense == '>' && rhs == 2); /* duplicates summed */
  OK(m, KVRgetgenconstrIndicator(m, 6, &bin, &bval, &nv, gi, gv, &sense, &rhs));
  CHECK(gi[0] == 4 && gv[0] == 3);
  OK(m, KVRgetgenconstrPWL(m, 7, &x, &y, &nv, NULL, NULL));
  CHECK(x == 1 && y == 2 && nv == 3);
  OK(m, KVRgetgenconstrPWL(m, 7, &x, &y, &nv, gx, gy));
  CHECK(gx[2] == 2 && gy[2] == 4);
  OK(m, KVRgetgenconstrPoly(m, 8, &x, &y, &nv, NULL));
  CHECK(nv == 3);
  OK(m, KVRgetgenconstrPoly(m, 8, &x, &y, &nv, gp));
  CHECK(gp[0] == 1 && gp[2] == -1);
  OK(m, KVRgetgenconstrExp(m, 9, &x, &y));
  CHECK(x == 1 && y == 2);
  OK(m, KVRgetgenconstrExpA(m, 10, &x, &y, &a));
  CHECK(a == 3);
  OK(m, KVRgetgenconstrLog(m, 11, &x, &y));
  OK(m, KVRgetgenconstrLogA(m, 12, &x, &y, &a));
  CHECK(a == 10);
  OK(m, KVRgetgenconstrPow(m, 13, &x, &y, &a));
  CHECK(a == 0.5);
  OK(m, KVRgetgenconstrSin(m, 14, &x, &y));
  OK(m, KVRgetgenconstrCos(m, 15, &x, &y));
  OK(m, KVRgetgenconstrTan(m, 16, &x, &y));
  OK(m, KVRgetgenconstrLogistic(m, 17, &x, &y));
  CHECK(x == 1 && y == 2);
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRgetgenconstrMax(m, 2, &res, &nv, NULL, &c));
  MSG(m, "type Abs");
  ERR(m, KVR_ERROR_INDEX_OUT_OF_RANGE, KVRgetgenconstrExp(m, 18, &x, &y));

  /* Which constraints deleting variables takes along: x of the functions, the indicator's binary
     and the absolute value's argument go with variable 1; operands alone do not count. */
  {
    int lost[18], count = -1, one = 1, three = 3, six = 6;
    OK(m, KVRgetgenconstrslosingvars(m, 1, &one, &count, NULL));
    CHECK(count == 13);
    OK(m, KVRgetgenconstrslosingvars(m, 1, &one, &count, lost));
    CHECK(lost[0] == 2 && lost[1] == 6 && lost[2] == 7 && lost[12] == 17);
    OK(m, KVRgetgenconstrslosingvars(m, 1, &three, &count, lost));
    CHECK(count == 0);
    ERR(m, KVR_ERROR_INDEX_OUT_OF_RANGE, KVRgetgenconstrslosingvars(m, 1, &six, &count, lost));
    ERR(m, KVR_ERROR_NULL_ARGUMENT, KVRgetgenconstrslosingvars(m, 1, NULL, &count, lost));
  }

  /* Approximation controls: from the options, as attributes, defaults meaning "the parameter". */
  CHECK(int_elem(m, "FuncPieces", 9) == 5 && int_elem(m, "FuncPieces", 10) == -3);
  CHECK(dbl_elem(m, "FuncPieceError", 17) == 0.01 && dbl_elem(m, "FuncPieceRatio", 17) == 0.5);
  CHECK(dbl_elem(m, "FuncPieceLength", 17) == -1);
  OK(m, KVRsetdblattrelement(m, "FuncPieceLength", 16, 0.1));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRsetdblattrelement(m, "FuncPieceRatio", 16, 3));
  OK(m, KVRupdatemodel(m));
  CHECK(dbl_elem(m, "FuncPieceLength", 16) == 0.1);

  /* Bad general constraints change nothing. */
  before = model_state(m);
  ERR(m, KVR_ERROR_INDEX_OUT_OF_RANGE, KVRaddgenconstrMax(m, "m", 6, 3, vars, 0));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRaddgenconstrMax(m, "m", 0, 3, vars, NAN));
  ERR(m, KVR_ERROR_NULL_ARGUMENT, KVRaddgenconstrAnd(m, "a", 0, 3, NULL));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRaddgenconstrNorm(m, "n", 0, 3, vars, 3));
  ERR(m, KVR_ERROR_DUPLICATES, KVRaddgenconstrNorm(m, "n", 0, 2, ind, 1));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRaddgenconstrIndicator(m, "i", 1, 2, 2, ind, val, '<', 1));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRaddgenconstrIndicator(m, "i", 1, 1, 2, ind, val, 'x', 1));
  ypts[1] = -1; /* x points 0, -1, 4 decrease */
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRaddgenconstrPWL(m, "p", 1, 2, 3, ypts, pts));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRaddgenconstrPWL(m, "p", 1, 2, 1, pts, pts));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRaddgenconstrPoly(m, "p", 1, 2, 0, p, NULL));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRaddgenconstrExpA(m, "e", 1, 2, -2, NULL));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRaddgenconstrLogA(m, "l", 1, 2, 1, NULL));
  ERR(m, KVR_ERROR_NUMERIC, KVRaddgenconstrPow(m, "p", 1, 2, KVR_INFINITY, NULL));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRaddgenconstrSin(m, "s", 1, 2, "Pieces=3"));
  MSG(m, "unknown option");
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRaddgenconstrCos(m, "c", 1, 2, "FuncPieces=abc"));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRaddgenconstrTan(m, "t", 1, 2, "FuncPieceError=1e9"));
  ERR(m, KVR_ERROR_INDEX_OUT_OF_RANGE, KVRaddgenconstrLogistic(m, "l", 1, -1, NULL));
  CHECK(model_state(m) == before);

  /* Deleting a resultant deletes the constraint; deleting an operand shortens it. */
  OK(m, KVRdelvars(m, 1, &vars[2]));
  OK(m, KVRupdatemodel(m));
  CHECK(int_attr(m, "NumGenConstrs") == 18);
  OK(m, KVRgetgenconstrMax(m, 0, &res, &nv, got, &c));
  CHECK(nv == 2 && got[0] == 1 && got[1] == 2);
  OK(m, KVRdelgenconstrs(m, 1, &vars[0]));
  OK(m, KVRupdatemodel(m));
  CHECK(int_attr(m, "NumGenConstrs") == 17);
  CHECK(same_str(str_elem(m, "GenConstrName", 1), "abs"));
  del = 0;
  OK(m, KVRdelvars(m, 1, &del)); /* the resultant of max, abs, and, or and norm */
  OK(m, KVRupdatemodel(m));
  CHECK(int_attr(m, "NumGenConstrs") == 12);
  CHECK(same_str(str_elem(m, "GenConstrName", 0), "ind"));
  KVRfreemodel(m);

  /* An absolute value goes with its argument. */
  m = new_model(2);
  OK(m, KVRaddgenconstrAbs(m, "abs", 0, 1));
  OK(m, KVRupdatemodel(m));
  del = 1;
  OK(m, KVRdelvars(m, 1, &del));
  OK(m, KVRupdatemodel(m));
  CHECK(int_attr(m, "NumGenConstrs") == 0);
  KVRfreemodel(m);
}

/* ------------------------------------------------------------------ objectives */

static void test_objectives(void) {
  KVRmodel *m = small_model();
  int lind[3] = {2, 0, 2}, qr[1] = {1}, bad[1] = {3}, n;
  double lval[3] = {1, 5, 1}, qv[1] = {2}, obj[3], px[4] = {0, 1, 1, 3}, py[4] = {0, 1, 2, 2};
  double gx[4], gy[4], nanv[1] = {NAN}, nanpts[2] = {NAN, 1};
  unsigned long before;
  char *s;

  /* The whole objective is replaced; sense 0 keeps the sense. */
  OK(m, KVRsetobjective(m, KVR_MAXIMIZE, 7, 3, lind, lval, 1, qr, qr, qv));
  CHECK(dbl_attr(m, "ObjCon") == 0);
  OK(m, KVRupdatemodel(m));
  OK(m, KVRgetdblattrarray(m, "Obj", 0, 3, obj));
  CHECK(obj[0] == 5 && obj[1] == 0 && obj[2] == 2);
  CHECK(dbl_attr(m, "ObjCon") == 7 && int_attr(m, "ModelSense") == -1 &&
        int_attr(m, "NumQNZs") == 1);
  OK(m, KVRsetobjective(m, 0, 0, 1, lind, lval, 0, NULL, NULL, NULL));
  OK(m, KVRsetdblattrelement(m, "Obj", 1, 4)); /* later writes apply over the new objective */
  OK(m, KVRupdatemodel(m));
  OK(m, KVRgetdblattrarray(m, "Obj", 0, 3, obj));
  CHECK(obj[0] == 0 && obj[1] == 4 && obj[2] == 1);
  CHECK(int_attr(m, "ModelSense") == -1 && int_attr(m, "NumQNZs") == 0 &&
        dbl_attr(m, "ObjCon") == 0);

  before = model_state(m);
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRsetobjective(m, 2, 0, 0, NULL, NULL, 0, NULL, NULL, NULL));
  ERR(m, KVR_ERROR_NUMERIC,
      KVRsetobjective(m, 1, KVR_INFINITY, 0, NULL, NULL, 0, NULL, NULL, NULL));
  ERR(m, KVR_ERROR_INDEX_OUT_OF_RANGE, KVRsetobjective(m, 1, 0, 1, bad, lval, 0, NULL, NULL, NULL));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRsetobjective(m, 1, 0, 1, lind, nanv, 0, NULL, NULL, NULL));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRsetobjectiven(m, -1, 0, 1, 0, 0, NULL, 0, 0, NULL, NULL));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRsetobjectiven(m, 1, 0, 1, -1, 0, NULL, 0, 0, NULL, NULL));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRsetobjectiven(m, 1, 0, NAN, 0, 0, NULL, 0, 0, NULL, NULL));
  ERR(m, KVR_ERROR_INDEX_OUT_OF_RANGE, KVRsetobjectiven(m, 1, 0, 1, 0, 0, NULL, 0, 1, bad, lval));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRsetintattr(m, "ModelSense", 0));
  ERR(m, KVR_ERROR_NUMERIC, KVRsetdblattr(m, "ObjCon", -KVR_INFINITY));
  CHECK(model_state(m) == before);

  /* Multiple objectives: objective 0 is the ordinary one; NumObj grows as needed. */
  OK(m, KVRsetobjectiven(m, 2, 5, 0.5, 0.1, 0.2, "second", 3, 2, lind, lval));
  CHECK(int_attr(m, "NumObj") == 1 && int_attr(m, "IsMultiObj") == 0);
  OK(m, KVRupdatemodel(m));
  CHECK(int_attr(m, "NumObj") == 3 && int_attr(m, "IsMultiObj") == 1);
  OK(m, KVRsetintparam(KVRgetenv(m), "ObjNumber", 2));
  CHECK(int_attr(m, "ObjNPriority") == 5 && dbl_attr(m, "ObjNWeight") == 0.5);
  CHECK(dbl_attr(m, "ObjNAbsTol") == 0.1 && dbl_attr(m, "ObjNRelTol") == 0.2);
  CHECK(dbl_attr(m, "ObjNCon") == 3);
  OK(m, KVRgetstrattr(m, "ObjNName", &s));
  CHECK(same_str(s, "second"));
  OK(m, KVRgetdblattrarray(m, "ObjN", 0, 3, obj));
  CHECK(obj[0] == 5 && obj[1] == 0 && obj[2] == 1);
  OK(m, KVRsetdblattrelement(m, "ObjN", 1, -1));
  OK(m, KVRsetintattr(m, "ObjNPriority", 9));
  OK(m, KVRsetstrattr(m, "ObjNName", "renamed"));
  OK(m, KVRupdatemodel(m));
  CHECK(dbl_elem(m, "ObjN", 1) == -1 && dbl_elem(m, "ObjN", 0) == 5 &&
        int_attr(m, "ObjNPriority") == 9);
  OK(m, KVRsetintparam(KVRgetenv(m), "ObjNumber", 0));
  CHECK(dbl_elem(m, "ObjN", 1) == 4); /* objective 0 reads the Obj attribute */
  OK(m, KVRsetintparam(KVRgetenv(m), "ObjNumber", 3));
  ERR(m, KVR_ERROR_DATA_NOT_AVAILABLE, KVRgetintattr(m, "ObjNPriority", &n));
  MSG(m, "ObjNumber 3");
  ERR(m, KVR_ERROR_INDEX_OUT_OF_RANGE, KVRsetintattr(m, "ObjNPriority", 1));
  OK(m, KVRsetintattr(m, "NumObj", 5)); /* queued: objective 3 may be written before the update */
  OK(m, KVRsetdblattr(m, "ObjNWeight", 2));
  OK(m, KVRupdatemodel(m));
  CHECK(int_attr(m, "NumObj") == 5 && dbl_attr(m, "ObjNWeight") == 2);
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRsetintattr(m, "NumObj", 0));
  OK(m, KVRsetintattr(m, "NumObj", 1));
  OK(m, KVRupdatemodel(m));
  CHECK(int_attr(m, "NumObj") == 1 && int_attr(m, "IsMultiObj") == 0);
  OK(m, KVRsetintparam(KVRgetenv(m), "ObjNumber", 0));

  /* Piecewise-linear objectives: queued; a jump is allowed, decreasing x is not. */
  OK(m, KVRsetpwlobj(m, 1, 4, px, py));
  OK(m, KVRgetpwlobj(m, 1, &n, NULL, NULL));
  CHECK(n == 0);
  OK(m, KVRupdatemodel(m));
  OK(m, KVRgetpwlobj(m, 1, &n, NULL, NULL));
  CHECK(n == 4 && int_attr(m, "NumPWLObjVars") == 1);
  OK(m, KVRgetpwlobj(m, 1, &n, gx, gy));
  CHECK(gx[2] == 1 && gy[2] == 2 && gy[3] == 2);
  CHECK(int_elem(m, "PWLObjCvx", 1) == 0 && int_elem(m, "PWLObjCvx", 0) == 1);
  before = model_state(m);
  px[2] = 0.5;
  ERR(m, KVR_ERROR_INVALID_PIECEWISE_OBJ, KVRsetpwlobj(m, 0, 4, px, py));
  MSG(m, "non-decreasing");
  px[2] = 1;
  px[3] = 1;
  ERR(m, KVR_ERROR_INVALID_PIECEWISE_OBJ, KVRsetpwlobj(m, 0, 4, px, py));
  ERR(m, KVR_ERROR_INVALID_PIECEWISE_OBJ, KVRsetpwlobj(m, 0, 1, px, py));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRsetpwlobj(m, 0, 2, nanpts, py));
  ERR(m, KVR_ERROR_INDEX_OUT_OF_RANGE, KVRsetpwlobj(m, 3, 2, px, py));
  ERR(m, KVR_ERROR_NULL_ARGUMENT, KVRsetpwlobj(m, 0, 2, px, NULL));
  ERR(m, KVR_ERROR_INDEX_OUT_OF_RANGE, KVRgetpwlobj(m, 3, &n, NULL, NULL));
  CHECK(model_state(m) == before);
  px[3] = 3;
  OK(m, KVRsetpwlobj(m, 1, 2, px, px));
  OK(m, KVRupdatemodel(m));
  CHECK(int_elem(m, "PWLObjCvx", 1) == 1);
  OK(m, KVRsetpwlobj(m, 1, 0, NULL, NULL));
  OK(m, KVRupdatemodel(m));
  CHECK(int_attr(m, "NumPWLObjVars") == 0);
  KVRfreemodel(m);
}

/* ------------------------------------------------------------------ coefficients and views */

static void test_coefficients(void) {
  KVRmodel *m = small_model();
  int ci[3] = {0, 1, 1}, vi[3] = {1, 2, 0}, bad[1] = {5}, ind[4];
  double nv[3] = {0, 7, 9}, v, val[4], nanv[1] = {NAN}, infv[1] = {KVR_INFINITY};
  size_t nz, beg[3];
  unsigned long before;

  /* Columns come from the rows. */
  OK(m, KVRXgetvars(m, &nz, NULL, NULL, NULL, 0, 3));
  CHECK(nz == 5);
  OK(m, KVRXgetvars(m, &nz, beg, ind, val, 1, 2));
  CHECK(nz == 3 && beg[0] == 0 && beg[1] == 2);
  CHECK(ind[0] == 0 && val[0] == 2 && ind[1] == 1 && val[1] == 2 && ind[2] == 0 && val[2] == 3);
  OK(m, KVRXgetconstrs(m, &nz, beg, ind, val, 1, 1));
  CHECK(nz == 2 && ind[1] == 1 && val[1] == 2);

  /* Changes are queued; a zero removes the entry, a new position adds one; the last wins. */
  OK(m, KVRchgcoeffs(m, 3, ci, vi, nv));
  OK(m, KVRchgcoeffs(m, 1, &ci[2], &vi[2], &nv[1]));
  OK(m, KVRchgcoeffs(m, 1, &ci[1], &vi[1], &nv[2])); /* the new entry changes again: 9 */
  OK(m, KVRgetcoeff(m, 0, 1, &v));
  CHECK(v == 2);
  OK(m, KVRupdatemodel(m));
  OK(m, KVRgetcoeff(m, 0, 1, &v));
  CHECK(v == 0);
  OK(m, KVRgetcoeff(m, 1, 2, &v));
  CHECK(v == 9);
  OK(m, KVRgetcoeff(m, 1, 0, &v));
  CHECK(v == 7);
  CHECK(int_attr(m, "NumNZs") == 5 && dbl_attr(m, "DNumNZs") == 5);
  OK(m, KVRXgetvars(m, &nz, beg, ind, val, 2, 1));
  CHECK(nz == 2 && ind[0] == 0 && val[0] == 3 && ind[1] == 1 && val[1] == 9);

  before = model_state(m);
  ERR(m, KVR_ERROR_INDEX_OUT_OF_RANGE, KVRchgcoeffs(m, 1, bad, vi, nv));
  ERR(m, KVR_ERROR_INDEX_OUT_OF_RANGE, KVRchgcoeffs(m, 1, ci, bad, nv));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRchgcoeffs(m, 1, ci, vi, nanv));
  ERR(m, KVR_ERROR_NUMERIC, KVRchgcoeffs(m, 1, ci, vi, infv));
  ERR(m, KVR_ERROR_NULL_ARGUMENT, KVRchgcoeffs(m, 1, ci, NULL, nv));
  ERR(m, KVR_ERROR_INDEX_OUT_OF_RANGE, KVRgetcoeff(m, 2, 0, &v));
  ERR(m, KVR_ERROR_INDEX_OUT_OF_RANGE, KVRXgetvars(m, &nz, NULL, NULL, NULL, 2, 2));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRXgetconstrs(m, &nz, NULL, NULL, NULL, 0, -1));
  ERR(m, KVR_ERROR_NULL_ARGUMENT, KVRXgetconstrs(m, &nz, beg, NULL, val, 0, 1));
  ERR(m, KVR_ERROR_NULL_ARGUMENT, KVRXgetconstrs(m, NULL, NULL, NULL, NULL, 0, 1));
  CHECK(model_state(m) == before);

  /* The column view follows later additions. */
  OK(m, KVRaddvar(m, 2, ci, nv + 1, 0, 0, 1, 'C', "new"));
  OK(m, KVRXgetvars(m, &nz, beg, ind, val, 3, 1));
  CHECK(nz == 2 && ind[0] == 0 && val[0] == 7 && ind[1] == 1 && val[1] == 9);
  KVRfreemodel(m);
}

/* ------------------------------------------------------------------ attributes */

static void test_attribute_forms(void) {
  KVRmodel *m = small_model();
  int list[4] = {2, 0, 2, 1}, iv[4], dt, cls, st, i;
  double dv[4], nd[4] = {5, 6, 7, 8};
  char cv[4], types[2] = {'I', 'C'};
  char *sv[4];
  const char *names[2] = {"first", "second"};
  unsigned long before;

  /* List reads follow the list, repeats included; array reads a range. */
  OK(m, KVRgetdblattrlist(m, "Obj", 4, list, dv));
  CHECK(dv[0] == 3 && dv[1] == 1 && dv[2] == 3 && dv[3] == 2);
  OK(m, KVRgetcharattrlist(m, "VType", 3, list, cv));
  CHECK(cv[0] == 'B' && cv[1] == 'C');
  OK(m, KVRgetstrattrlist(m, "VarName", 4, list, sv));
  CHECK(same_str(sv[0], "x2") && same_str(sv[1], "x0") && same_str(sv[3], "x1"));
  OK(m, KVRgetstrattrarray(m, "ConstrName", 0, 2, sv));
  CHECK(same_str(sv[0], "c0") && same_str(sv[1], "c1"));
  OK(m, KVRgetdblattrlist(m, "LB", 0, NULL, NULL)); /* empty lists are fine */
  OK(m, KVRgetintattrarray(m, "BranchPriority", 0, 3, iv));
  CHECK(iv[0] == 0 && iv[2] == 0);

  /* Writes in every form. */
  OK(m, KVRsetdblattrlist(m, "UB", 2, list, nd));
  OK(m, KVRsetdblattrarray(m, "LB", 1, 2, nd));
  OK(m, KVRsetcharattrlist(m, "VType", 2, list, types));
  OK(m, KVRsetcharattrarray(m, "Sense", 0, 1, "="));
  OK(m, KVRsetcharattrelement(m, "VType", 1, 'N'));
  OK(m, KVRsetintattrlist(m, "BranchPriority", 2, list, iv + 0));
  OK(m, KVRsetintattrarray(m, "VarHintPri", 0, 2, list));
  OK(m, KVRsetintattrelement(m, "Partition", 2, 4));
  OK(m, KVRsetstrattrlist(m, "VarName", 2, list, names));
  OK(m, KVRsetstrattrarray(m, "ConstrName", 1, 1, names));
  OK(m, KVRsetstrattrelement(m, "VTag", 0, "tag0"));
  OK(m, KVRsetdblattrarray(m, "RHS", 0, 2, nd));
  OK(m, KVRsetstrattr(m, "ModelName", "renamed"));
  OK(m, KVRsetintattr(m, "ModelSense", -1));
  OK(m, KVRsetdblattr(m, "ObjCon", 2.5));
  OK(m, KVRupdatemodel(m));
  OK(m, KVRgetdblattrarray(m, "UB", 0, 3, dv));
  CHECK(dv[0] == 6 && dv[2] == 5);
  OK(m, KVRgetdblattrarray(m, "LB", 0, 3, dv));
  CHECK(dv[0] == 0 && dv[1] == 5 && dv[2] == 6);
  OK(m, KVRgetcharattrarray(m, "VType", 0, 3, cv));
  CHECK(cv[0] == 'C' && cv[1] == 'N' && cv[2] == 'I');
  OK(m, KVRgetcharattrelement(m, "Sense", 0, cv));
  CHECK(cv[0] == '=');
  CHECK(int_elem(m, "VarHintPri", 1) == 0 && int_elem(m, "VarHintPri", 0) == 2);
  CHECK(int_elem(m, "Partition", 2) == 4);
  CHECK(same_str(str_elem(m, "VarName", 2), "first") &&
        same_str(str_elem(m, "VarName", 0), "second"));
  CHECK(same_str(str_elem(m, "ConstrName", 1), "first"));
  CHECK(same_str(str_elem(m, "VTag", 0), "tag0") && same_str(str_elem(m, "VTag", 1), ""));
  CHECK(int_attr(m, "ModelSense") == -1 && dbl_attr(m, "ObjCon") == 2.5);
  OK(m, KVRgetstrattr(m, "ModelName", sv));
  CHECK(same_str(sv[0], "renamed"));

  /* Infinite values are stored as the library's infinity. */
  OK(m, KVRsetdblattrelement(m, "UB", 0, INFINITY));
  OK(m, KVRsetdblattrelement(m, "LB", 0, -1e300));
  OK(m, KVRsetdblattrelement(m, "RHS", 0, 1e100));
  OK(m, KVRupdatemodel(m));
  CHECK(dbl_elem(m, "UB", 0) == KVR_INFINITY && dbl_elem(m, "LB", 0) == -KVR_INFINITY);
  CHECK(dbl_elem(m, "RHS", 0) == KVR_INFINITY);

  /* Attribute information. */
  OK(m, KVRgetattrinfo(m, "vtype", &dt, &cls, &st));
  CHECK(dt == KVR_ATTRTYPE_CHAR && cls == KVR_ATTRCLASS_VAR && st == 1);
  CHECK(KVRisattravailable(m, "NumVars") == 1 && KVRisattravailable(m, "X") == 0);
  CHECK(KVRisattravailable(m, "NoSuchThing") == 0 && KVRisattravailable(m, "LB") == 1);
  OK(m, KVRprefetchattr(m, "X"));
  ERR(m, KVR_ERROR_UNKNOWN_ATTRIBUTE, KVRprefetchattr(m, "Nope"));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRprefetchattr(m, "BatchStatus"));

  /* Errors of every kind; none changes the model. */
  before = model_state(m);
  ERR(m, KVR_ERROR_UNKNOWN_ATTRIBUTE, KVRgetdblattrelement(m, "Colour", 0, dv));
  MSG(m, "'Colour'");
  ERR(m, KVR_ERROR_UNKNOWN_ATTRIBUTE, KVRsetintattr(m, "Colour", 1));
  ERR(m, KVR_ERROR_NULL_ARGUMENT, KVRgetintattr(m, NULL, iv));
  ERR(m, KVR_ERROR_NULL_ARGUMENT, KVRgetintattr(m, "NumVars", NULL));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRgetintattrelement(m, "LB", 0, iv));
  MSG(m, "double variable attribute");
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRgetdblattr(m, "NumVars", dv));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRgetdblattr(m, "LB", dv));
  MSG(m, "variable attribute");
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRgetintattrelement(m, "NumVars", 0, iv));
  MSG(m, "model attribute");
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRgetintattr(m, "BatchStatus", iv));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRsetintattr(m, "NumVars", 4));
  MSG(m, "read-only");
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRsetdblattrelement(m, "X", 0, 1));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRsetintattrelement(m, "GenConstrType", 0, 1));
  ERR(m, KVR_ERROR_INDEX_OUT_OF_RANGE, KVRgetdblattrelement(m, "LB", 3, dv));
  MSG(m, "3 variables");
  ERR(m, KVR_ERROR_INDEX_OUT_OF_RANGE, KVRgetdblattrelement(m, "LB", -1, dv));
  ERR(m, KVR_ERROR_INDEX_OUT_OF_RANGE, KVRgetdblattrarray(m, "LB", 1, 3, dv));
  ERR(m, KVR_ERROR_INDEX_OUT_OF_RANGE, KVRsetdblattrarray(m, "LB", 2, 2, nd));
  list[1] = 3;
  ERR(m, KVR_ERROR_INDEX_OUT_OF_RANGE, KVRgetdblattrlist(m, "LB", 2, list, dv));
  ERR(m, KVR_ERROR_INDEX_OUT_OF_RANGE, KVRsetdblattrlist(m, "LB", 2, list, nd));
  ERR(m, KVR_ERROR_INDEX_OUT_OF_RANGE, KVRgetcharattrelement(m, "Sense", 2, cv));
  ERR(m, KVR_ERROR_INDEX_OUT_OF_RANGE, KVRgetintattrelement(m, "IISSOSForce", 0, iv));
  list[1] = 0;
  ERR(m, KVR_ERROR_NULL_ARGUMENT, KVRgetdblattrlist(m, "LB", 2, NULL, dv));
  ERR(m, KVR_ERROR_NULL_ARGUMENT, KVRgetdblattrlist(m, "LB", 2, list, NULL));
  ERR(m, KVR_ERROR_NULL_ARGUMENT, KVRsetdblattrarray(m, "LB", 0, 2, NULL));
  ERR(m, KVR_ERROR_NULL_ARGUMENT, KVRsetstrattrelement(m, "VarName", 0, NULL));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRgetdblattrarray(m, "LB", 0, -1, dv));
  /* Values a model cannot hold; the bad one is second, so the first is not written either. */
  nd[1] = NAN;
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRsetdblattrarray(m, "UB", 0, 2, nd));
  MSG(m, "NaN");
  nd[1] = 6;
  ERR(m, KVR_ERROR_NUMERIC, KVRsetdblattrelement(m, "Obj", 0, -KVR_INFINITY));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRsetcharattrelement(m, "VType", 0, 'z'));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRsetcharattrelement(m, "Sense", 0, 'L'));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRsetintattrelement(m, "VBasis", 0, 1));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRsetintattrelement(m, "CBasis", 0, -3));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRsetintattrelement(m, "IISLBForce", 0, 2));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRsetintattrelement(m, "PoolIgnore", 0, 2));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRsetintattrelement(m, "Lazy", 0, 4));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRsetintattr(m, "NumStart", -1));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRsetdblattr(m, "ObjNRelTol", -0.5));
  {
    char longname[300];
    const char *two[2];
    memset(longname, 'a', sizeof longname - 1);
    longname[sizeof longname - 1] = 0;
    two[0] = "fine";
    two[1] = longname;
    ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRsetstrattrarray(m, "VarName", 0, 2, two));
    MSG(m, "too long");
    ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRsetstrattr(m, "ModelName", longname));
  }
  CHECK(model_state(m) == before);

  /* Names may be looked up, generated names included; absent names give -1. */
  OK(m, KVRgetvarbyname(m, "first", &i));
  CHECK(i == 2);
  OK(m, KVRgetvarbyname(m, "C1", &i));
  CHECK(i == -1); /* variable 1 has a name of its own */
  OK(m, KVRsetstrattrelement(m, "VarName", 1, ""));
  OK(m, KVRupdatemodel(m));
  OK(m, KVRgetvarbyname(m, "C1", &i));
  CHECK(i == 1);
  OK(m, KVRgetvarbyname(m, "C01", &i));
  CHECK(i == -1);
  OK(m, KVRgetconstrbyname(m, "nothing", &i));
  CHECK(i == -1);
  OK(m, KVRgetconstrbyname(m, "R0", &i));
  CHECK(i == -1);
  ERR(m, KVR_ERROR_NULL_ARGUMENT, KVRgetvarbyname(m, NULL, &i));
  KVRfreemodel(m);
}

static void test_user_data(void) {
  KVRmodel *m = small_model();
  double st[3] = {1, 2, 3}, v[3];
  int iv[3], n;

  /* MIP starts: undefined until written; StartNumber -1 makes a new one. */
  CHECK(int_attr(m, "NumStart") == 0);
  CHECK(dbl_elem(m, "Start", 0) == KVR_UNDEFINED);
  OK(m, KVRsetdblattrarray(m, "Start", 0, 2, st));
  OK(m, KVRupdatemodel(m));
  CHECK(int_attr(m, "NumStart") == 1 && dbl_elem(m, "Start", 1) == 2);
  CHECK(dbl_elem(m, "Start", 2) == KVR_UNDEFINED);
  OK(m, KVRsetintparam(KVRgetenv(m), "StartNumber", -1));
  ERR(m, KVR_ERROR_DATA_NOT_AVAILABLE, KVRgetdblattrelement(m, "Start", 0, v));
  OK(m, KVRsetdblattrelement(m, "Start", 0, 10));
  OK(m, KVRsetdblattrelement(m, "Start", 1, 11));
  OK(m, KVRupdatemodel(m));
  CHECK(int_attr(m, "NumStart") == 2);
  OK(m, KVRsetintparam(KVRgetenv(m), "StartNumber", 1));
  OK(m, KVRgetdblattrarray(m, "Start", 0, 3, v));
  CHECK(v[0] == 10 && v[1] == 11 && v[2] == KVR_UNDEFINED);
  OK(m, KVRsetintparam(KVRgetenv(m), "StartNumber", 4));
  ERR(m, KVR_ERROR_INDEX_OUT_OF_RANGE, KVRsetdblattrelement(m, "Start", 0, 1));
  MSG(m, "StartNumber 4");
  ERR(m, KVR_ERROR_DATA_NOT_AVAILABLE, KVRgetdblattrelement(m, "Start", 0, v));
  OK(m, KVRsetintparam(KVRgetenv(m), "StartNumber", 0));
  /* Deleting a variable renumbers every start. */
  n = 0;
  OK(m, KVRdelvars(m, 1, &n));
  OK(m, KVRupdatemodel(m));
  CHECK(dbl_elem(m, "Start", 0) == 2);
  OK(m, KVRsetintparam(KVRgetenv(m), "StartNumber", 1));
  CHECK(dbl_elem(m, "Start", 0) == 11);
  OK(m, KVRsetintparam(KVRgetenv(m), "StartNumber", 0));
  OK(m, KVRsetintattr(m, "NumStart", 1));
  OK(m, KVRupdatemodel(m));
  CHECK(int_attr(m, "NumStart") == 1);

  /* Hints, warm starts, IIS forces and lazy flags keep their values. */
  OK(m, KVRsetdblattrelement(m, "VarHintVal", 0, 0.5));
  OK(m, KVRsetintattrelement(m, "VarHintPri", 0, 3));
  OK(m, KVRsetdblattrelement(m, "PStart", 1, 4));
  OK(m, KVRsetdblattrelement(m, "DStart", 0, -1));
  OK(m, KVRsetdblattrelement(m, "PreFixVal", 1, 0));
  OK(m, KVRsetintattrelement(m, "IISUBForce", 1, 1));
  OK(m, KVRsetintattrelement(m, "IISConstrForce", 1, 0));
  OK(m, KVRsetintattrelement(m, "Lazy", 1, 2));
  OK(m, KVRsetintattrelement(m, "PoolIgnore", 0, 1));
  OK(m, KVRsetstrattrelement(m, "CTag", 1, "row tag"));
  CHECK(KVRisattravailable(m, "VBasis") == 0);
  ERR(m, KVR_ERROR_DATA_NOT_AVAILABLE, KVRgetintattrelement(m, "VBasis", 0, iv));
  OK(m, KVRsetintattrelement(m, "VBasis", 1, KVR_NONBASIC_UPPER));
  OK(m, KVRsetintattrelement(m, "CBasis", 0, KVR_NONBASIC_LOWER));
  OK(m, KVRupdatemodel(m));
  CHECK(dbl_elem(m, "VarHintVal", 0) == 0.5 && dbl_elem(m, "VarHintVal", 1) == KVR_UNDEFINED);
  CHECK(int_elem(m, "VarHintPri", 0) == 3 && dbl_elem(m, "PStart", 1) == 4);
  CHECK(dbl_elem(m, "DStart", 0) == -1 && dbl_elem(m, "DStart", 1) == KVR_UNDEFINED);
  CHECK(dbl_elem(m, "PreFixVal", 1) == 0);
  CHECK(int_elem(m, "IISUBForce", 1) == 1 && int_elem(m, "IISUBForce", 0) == -1);
  CHECK(int_elem(m, "IISConstrForce", 1) == 0 && int_elem(m, "Lazy", 1) == 2);
  CHECK(int_elem(m, "PoolIgnore", 0) == 1 && same_str(str_elem(m, "CTag", 1), "row tag"));
  OK(m, KVRgetintattrarray(m, "VBasis", 0, 2, iv));
  CHECK(iv[0] == KVR_NONBASIC_LOWER && iv[1] == KVR_NONBASIC_UPPER);
  OK(m, KVRgetintattrarray(m, "CBasis", 0, 2, iv));
  CHECK(iv[0] == KVR_NONBASIC_LOWER && iv[1] == KVR_BASIC);

  /* A reset keeps them; a full reset drops starts, hints and the basis. */
  OK(m, KVRreset(m, 0));
  CHECK(int_attr(m, "NumStart") == 1 && dbl_elem(m, "VarHintVal", 0) == 0.5);
  OK(m, KVRreset(m, 1));
  CHECK(int_attr(m, "NumStart") == 0 && dbl_elem(m, "Start", 0) == KVR_UNDEFINED);
  CHECK(dbl_elem(m, "VarHintVal", 0) == KVR_UNDEFINED && dbl_elem(m, "PStart", 1) == KVR_UNDEFINED);
  CHECK(KVRisattravailable(m, "VBasis") == 0 && KVRisattravailable(m, "CBasis") == 0);
  CHECK(int_elem(m, "Lazy", 1) == 2); /* not warm-start data */
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRreset(m, 2));
  CHECK(KVRreset(NULL, 0) == KVR_ERROR_NULL_ARGUMENT);

  /* Scenarios: values not set read as undefined (the base model's). */
  OK(m, KVRsetintattr(m, "NumScenarios", 2));
  OK(m, KVRsetintparam(KVRgetenv(m), "ScenarioNumber", 1));
  OK(m, KVRsetdblattrelement(m, "ScenNUB", 0, 3));
  OK(m, KVRsetdblattrelement(m, "ScenNObj", 1, -1));
  OK(m, KVRsetdblattrelement(m, "ScenNRHS", 0, 4));
  OK(m, KVRsetstrattr(m, "ScenNName", "high"));
  OK(m, KVRupdatemodel(m));
  CHECK(int_attr(m, "NumScenarios") == 2);
  CHECK(dbl_elem(m, "ScenNUB", 0) == 3 && dbl_elem(m, "ScenNUB", 1) == KVR_UNDEFINED);
  CHECK(dbl_elem(m, "ScenNObj", 1) == -1 && dbl_elem(m, "ScenNRHS", 0) == 4);
  CHECK(dbl_elem(m, "ScenNLB", 0) == KVR_UNDEFINED);
  OK(m, KVRsetintparam(KVRgetenv(m), "ScenarioNumber", 0));
  CHECK(dbl_elem(m, "ScenNUB", 0) == KVR_UNDEFINED);
  OK(m, KVRsetintparam(KVRgetenv(m), "ScenarioNumber", 2));
  ERR(m, KVR_ERROR_DATA_NOT_AVAILABLE, KVRgetdblattrelement(m, "ScenNUB", 0, v));
  MSG(m, "ScenarioNumber 2");
  ERR(m, KVR_ERROR_INDEX_OUT_OF_RANGE, KVRsetdblattrelement(m, "ScenNUB", 0, 1));
  OK(m, KVRsetintparam(KVRgetenv(m), "ScenarioNumber", 1));
  OK(m, KVRsetdblattrelement(m, "ScenNUB", 0, KVR_UNDEFINED)); /* back to the base value */
  OK(m, KVRupdatemodel(m));
  CHECK(dbl_elem(m, "ScenNUB", 0) == KVR_UNDEFINED);
  KVRfreemodel(m);
}

static void test_results_absent(void) {
  static const char *model_attrs[] = {
      "ObjVal",    "ObjBound",  "ObjBoundC",    "MIPGap",         "Runtime", "Work",
      "IterCount", "NodeCount", "PoolObjBound", "FarkasProof",    "Kappa",   "KappaExact",
      "MaxVio",    "BoundVio",  "ConstrVio",    "ConstrResidual", "DualVio", "DualResidual",
      "ComplVio",  "IntVio",    "ObjNVal",      "PoolObjVal"};
  static const char *var_attrs[] = {"X", "RC", "Xn", "BarX", "UnbdRay"};
  static const char *constr_attrs[] = {"Pi", "Slack", "FarkasDual"};
  KVRmodel *m = small_model();
  double v;
  int i, iv;
  size_t k;
  for (k = 0; k < sizeof model_attrs / sizeof model_attrs[0]; ++k) {
    ERR(m, KVR_ERROR_DATA_NOT_AVAILABLE, KVRgetdblattr(m, model_attrs[k], &v));
    CHECK(strstr(KVRgetmerrormsg(m), "Unable to retrieve attribute") != NULL);
    CHECK(KVRisattravailable(m, model_attrs[k]) == 0);
  }
  for (k = 0; k < sizeof var_attrs / sizeof var_attrs[0]; ++k)
    ERR(m, KVR_ERROR_DATA_NOT_AVAILABLE, KVRgetdblattrelement(m, var_attrs[k], 0, &v));
  for (k = 0; k < sizeof constr_attrs / sizeof constr_attrs[0]; ++k)
    ERR(m, KVR_ERROR_DATA_NOT_AVAILABLE, KVRgetdblattrelement(m, constr_attrs[k], 0, &v));
  ERR(m, KVR_ERROR_DATA_NOT_AVAILABLE, KVRgetintattr(m, "BoundVioIndex", &iv));
  ERR(m, KVR_ERROR_DATA_NOT_AVAILABLE, KVRgetintattr(m, "BarIterCount", &iv));
  ERR(m, KVR_ERROR_DATA_NOT_AVAILABLE, KVRgetintattr(m, "IISMinimal", &iv));
  MSG(m, "IIS");
  ERR(m, KVR_ERROR_DATA_NOT_AVAILABLE, KVRgetintattrelement(m, "IISLB", 0, &iv));
  ERR(m, KVR_ERROR_DATA_NOT_AVAILABLE, KVRgetintattrelement(m, "VarPreStat", 0, &iv));
  /* Sensitivity ranges do not exist for a model with integer variables. */
  ERR(m, KVR_ERROR_NOT_FOR_MIP, KVRgetdblattrelement(m, "SAObjLow", 0, &v));
  ERR(m, KVR_ERROR_NOT_FOR_MIP, KVRgetdblattrelement(m, "SARHSUp", 0, &v));
  i = 1;
  OK(m, KVRdelvars(m, 1, &i));
  i = 2;
  OK(m, KVRsetcharattrelement(m, "VType", 2, 'C'));
  OK(m, KVRsetcharattrelement(m, "VType", 0, 'C'));
  OK(m, KVRupdatemodel(m));
  CHECK(int_attr(m, "IsMIP") == 0);
  ERR(m, KVR_ERROR_DATA_NOT_AVAILABLE, KVRgetdblattrelement(m, "SAUBUp", 0, &v));
  CHECK(int_attr(m, "Status") == KVR_LOADED && int_attr(m, "SolCount") == 0);
  CHECK(int_attr(m, "TuneResultCount") == 0);
  KVRfreemodel(m);
}

/* ------------------------------------------------------------------ results of a solve */

static int g_cb_calls = 0, g_cb_query = -1, g_cb_modify = -1, g_cb_update = -1, g_cb_free = -1;
static int probe_callback(KVRmodel *m, void *cbdata, int where, void *usrdata) {
  int n;
  (void)cbdata, (void)where, (void)usrdata;
  if (g_cb_calls++ > 0) return 0;
  g_cb_query = KVRgetintattr(m, "NumVars", &n);
  g_cb_modify = KVRsetdblattrelement(m, "UB", 0, 1);
  g_cb_update = KVRupdatemodel(m);
  g_cb_free = KVRfreemodel(m);
  return 0;
}

/* min -x0 - 2 x1 subject to x0 + x1 <= 4, x0 + 3 x1 <= 6, x >= 0: x = (3, 1), duals -1/2. */
static KVRmodel *solved_lp(int sense) {
  double obj[2] = {-1, -2};
  int ind[2] = {0, 1};
  double a[2] = {1, 1}, b[2] = {1, 3};
  KVRmodel *m = NULL;
  OK(NULL, KVRnewmodel(g_env, &m, "lp", 2, obj, NULL, NULL, NULL, NULL));
  OK(m, KVRaddconstr(m, 2, ind, a, '<', 4, "a"));
  OK(m, KVRaddconstr(m, 2, ind, b, '<', 6, "b"));
  if (sense == KVR_MAXIMIZE)
    OK(m, KVRsetobjective(m, KVR_MAXIMIZE, 0, 2, ind, a, 0, NULL, NULL, NULL));
  OK(m, KVRoptimize(m));
  return m;
}

static void test_results(void) {
  static const char *zero[] = {"MaxVio",    "BoundVio",     "ConstrVio", "ConstrResidual",
                               "DualVio",   "DualResidual", "ComplVio",  "IntVio",
                               "BoundSVio", "ConstrSVioSum"};
  KVRmodel *m = solved_lp(KVR_MINIMIZE);
  double x[2], pi[2], rc[2], slack[2], v;
  int iv[2], k;

  /* While the model is being optimized, queries and changes are refused. */
  OK(m, KVRsetcallbackfunc(m, probe_callback, NULL));
  OK(m, KVRoptimize(m));
  CHECK(g_cb_calls > 0);
  CHECK(g_cb_query == KVR_ERROR_OPTIMIZATION_IN_PROGRESS);
  CHECK(g_cb_modify == KVR_ERROR_MODEL_MODIFICATION && g_cb_update == KVR_ERROR_MODEL_MODIFICATION);
  CHECK(g_cb_free == KVR_ERROR_OPTIMIZATION_IN_PROGRESS);
  OK(m, KVRsetcallbackfunc(m, NULL, NULL));
  CHECK(dbl_elem(m, "UB", 0) == KVR_INFINITY);

  CHECK(int_attr(m, "Status") == KVR_OPTIMAL && int_attr(m, "SolCount") == 1);
  NEAR(dbl_attr(m, "ObjVal"), -5);
  OK(m, KVRgetdblattrarray(m, "X", 0, 2, x));
  OK(m, KVRgetdblattrarray(m, "Pi", 0, 2, pi));
  OK(m, KVRgetdblattrarray(m, "RC", 0, 2, rc));
  OK(m, KVRgetdblattrarray(m, "Slack", 0, 2, slack));
  NEAR(x[0], 3);
  NEAR(x[1], 1);
  NEAR(pi[0], -0.5);
  NEAR(pi[1], -0.5);
  CHECK(fabs(rc[0]) < 1e-9 && fabs(slack[1]) < 1e-9);
  NEAR(dbl_elem(m, "Xn", 1), 1);
  NEAR(dbl_attr(m, "PoolObjVal"), -5);
  CHECK(dbl_attr(m, "Runtime") >= 0 && dbl_attr(m, "IterCount") >= 0);
  for (k = 0; k < (int)(sizeof zero / sizeof zero[0]); ++k)
    CHECK(fabs(dbl_attr(m, zero[k])) < 1e-9);
  CHECK(int_attr(m, "BoundVioIndex") == -1 && int_attr(m, "DualVioIndex") == -1);
  OK(m, KVRgetintattrarray(m, "VBasis", 0, 2, iv));
  CHECK(iv[0] == KVR_BASIC && iv[1] == KVR_BASIC);
  OK(m, KVRgetdblattrelement(m, "SAObjUp", 0, &v));
  CHECK(v >= -1 - 1e-9);

  /* Rows added in update mode 1 join at once while the solution stays until the update: the
     solution's quality is measured against them. */
  {
    int ind[2] = {0, 1}, rows[3] = {2, 3, 4};
    double d[2] = {1, -1}, one[2] = {1, 1};
    OK(m, KVRaddconstr(m, 2, ind, d, '<', 1, "vio1"));    /* 3 - 1 = 2 > 1 */
    OK(m, KVRaddconstr(m, 1, ind, one, '>', 5, "vio2"));  /* 3 < 5 */
    OK(m, KVRaddconstr(m, 2, ind, one, '=', 3, "vio1b")); /* 4 != 3 */
    NEAR(dbl_attr(m, "ConstrVio"), 2);
    CHECK(int_attr(m, "ConstrVioIndex") == 3);
    NEAR(dbl_attr(m, "ConstrVioSum"), 4);
    NEAR(dbl_attr(m, "MaxVio"), 2);
    ERR(m, KVR_ERROR_DATA_NOT_AVAILABLE, KVRgetdblattrelement(m, "Slack", 2, &v));
    ERR(m, KVR_ERROR_DATA_NOT_AVAILABLE, KVRgetdblattr(m, "ConstrResidual", &v));
    ERR(m, KVR_ERROR_DATA_NOT_AVAILABLE, KVRgetdblattr(m, "DualVio", &v));
    OK(m, KVRdelconstrs(m, 3, rows));
    OK(m, KVRupdatemodel(m));
    OK(m, KVRoptimize(m));
  }

  /* The solution stays until the model changes: a variable added in update mode 1 has no value
     yet, and the update drops the solution. */
  OK(m, KVRaddvar(m, 0, NULL, NULL, 0, 0, 1, 'C', "late"));
  NEAR(dbl_elem(m, "X", 0), 3);
  ERR(m, KVR_ERROR_DATA_NOT_AVAILABLE, KVRgetdblattrelement(m, "X", 2, &v));
  ERR(m, KVR_ERROR_DATA_NOT_AVAILABLE, KVRgetdblattr(m, "MaxVio", &v));
  OK(m, KVRupdatemodel(m));
  ERR(m, KVR_ERROR_DATA_NOT_AVAILABLE, KVRgetdblattrelement(m, "X", 0, &v));
  CHECK(int_attr(m, "Status") == KVR_LOADED);
  OK(m, KVRoptimize(m));
  CHECK(int_attr(m, "SolCount") == 1);
  OK(m, KVRreset(m, 0));
  CHECK(int_attr(m, "SolCount") == 0 && KVRisattravailable(m, "ObjVal") == 0);
  KVRfreemodel(m);

  /* Dual signs of a maximization. */
  m = solved_lp(KVR_MAXIMIZE);
  NEAR(dbl_attr(m, "ObjVal"), 4);
  CHECK(fabs(dbl_attr(m, "DualVio")) < 1e-9 && fabs(dbl_attr(m, "DualResidual")) < 1e-9);
  CHECK(fabs(dbl_attr(m, "ComplVio")) < 1e-9);

  /* A MIP solution has values and quality, but no duals and no sensitivity ranges. */
  OK(m, KVRsetcharattrelement(m, "VType", 1, 'I'));
  OK(m, KVRoptimize(m));
  CHECK(int_attr(m, "Status") == KVR_OPTIMAL && int_attr(m, "IsMIP") == 1);
  NEAR(dbl_attr(m, "ObjVal"), 4);
  CHECK(fabs(dbl_attr(m, "IntVio")) < 1e-9 && fabs(dbl_attr(m, "MaxVio")) < 1e-6);
  ERR(m, KVR_ERROR_DATA_NOT_AVAILABLE, KVRgetdblattrelement(m, "Pi", 0, &v));
  ERR(m, KVR_ERROR_DATA_NOT_AVAILABLE, KVRgetdblattr(m, "DualVio", &v));
  ERR(m, KVR_ERROR_NOT_FOR_MIP, KVRgetdblattrelement(m, "SAObjLow", 0, &v));
  KVRfreemodel(m);
}

/* Every attribute of the table can be read in its own form (or says why it has no value), and
   every settable one takes back the value it reads. */
static void test_every_attribute(void) {
  KVRmodel *m = small_model();
  int i, n = KVRgetnumattributes(NULL), type, cls, settable, rc, iv, t = 1, b = 0, sind[1] = {0};
  double dv, w[1] = {1};
  char cv, *name, *sv, copy[KVR_MAX_STRLEN];
  OK(m, KVRaddsos(m, 1, 1, &t, &b, sind, w));
  OK(m, KVRaddqconstr(m, 1, sind, w, 0, NULL, NULL, NULL, '<', 1, "q"));
  OK(m, KVRaddgenconstrExp(m, "e", 0, 1, NULL));
  OK(m, KVRupdatemodel(m));
  CHECK(n > 170);
  for (i = 0; i < n; ++i) {
    OK(m, KVRgetattrname(m, i, &name));
    OK(m, KVRgetattrinfo(m, name, &type, &cls, &settable));
    if (cls == KVR_ATTRCLASS_BATCH) {
      ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRgetintattr(m, name, &iv));
      continue;
    }
    if (cls == KVR_ATTRCLASS_MODEL) {
      rc = type == KVR_ATTRTYPE_INT   ? KVRgetintattr(m, name, &iv)
           : type == KVR_ATTRTYPE_DBL ? KVRgetdblattr(m, name, &dv)
                                      : KVRgetstrattr(m, name, &sv);
    } else {
      rc = type == KVR_ATTRTYPE_CHAR  ? KVRgetcharattrelement(m, name, 0, &cv)
           : type == KVR_ATTRTYPE_INT ? KVRgetintattrelement(m, name, 0, &iv)
           : type == KVR_ATTRTYPE_DBL ? KVRgetdblattrelement(m, name, 0, &dv)
                                      : KVRgetstrattrelement(m, name, 0, &sv);
    }
    if (rc != 0 && rc != KVR_ERROR_DATA_NOT_AVAILABLE && rc != KVR_ERROR_NOT_FOR_MIP) {
      ++g_failed;
      fprintf(stderr, "reading attribute %s failed with %d: %s\n", name, rc, KVRgetmerrormsg(m));
    }
    if (rc != 0 || !settable) continue;
    if (type == KVR_ATTRTYPE_STR) {
      strncpy(copy, sv, sizeof copy - 1);
      copy[sizeof copy - 1] = 0;
    }
    if (cls == KVR_ATTRCLASS_MODEL) {
      rc = type == KVR_ATTRTYPE_INT   ? KVRsetintattr(m, name, iv)
           : type == KVR_ATTRTYPE_DBL ? KVRsetdblattr(m, name, dv)
                                      : KVRsetstrattr(m, name, copy);
    } else {
      rc = type == KVR_ATTRTYPE_CHAR  ? KVRsetcharattrelement(m, name, 0, cv)
           : type == KVR_ATTRTYPE_INT ? KVRsetintattrelement(m, name, 0, iv)
           : type == KVR_ATTRTYPE_DBL ? KVRsetdblattrelement(m, name, 0, dv)
                                      : KVRsetstrattrelement(m, name, 0, copy);
    }
    if (rc != 0) {
      ++g_failed;
      fprintf(stderr, "writing back attribute %s failed with %d: %s\n", name, rc,
              KVRgetmerrormsg(m));
    }
  }
  OK(m, KVRupdatemodel(m));
  KVRfreemodel(m);
}

static void test_statistics(void) {
  KVRmodel *m = small_model(), *copy;
  int fp, ind[2] = {0, 1};
  double val[2] = {-0.25, 0};

  CHECK(int_attr(m, "NumVars") == 3 && int_attr(m, "NumConstrs") == 2);
  CHECK(int_attr(m, "NumNZs") == 5 && int_attr(m, "NumIntVars") == 2);
  CHECK(int_attr(m, "NumBinVars") == 1 && int_attr(m, "IsMIP") == 1);
  CHECK(int_attr(m, "IsQP") == 0 && int_attr(m, "IsQCP") == 0 && int_attr(m, "IsMultiObj") == 0);
  CHECK(dbl_attr(m, "MaxCoeff") == 3 && dbl_attr(m, "MinCoeff") == 1);
  CHECK(dbl_attr(m, "MaxBound") == 10 && dbl_attr(m, "MinBound") == 1);
  CHECK(dbl_attr(m, "MaxObjCoeff") == 3 && dbl_attr(m, "MinObjCoeff") == 1);
  CHECK(dbl_attr(m, "MaxRHS") == 10 && dbl_attr(m, "MinRHS") == 1);
  CHECK(dbl_attr(m, "MaxQObjCoeff") == 0 && dbl_attr(m, "MinQCRHS") == 0);
  OK(m, KVRaddconstr(m, 2, ind, val, '<', KVR_INFINITY, NULL));
  OK(m, KVRsetdblattrelement(m, "UB", 0, KVR_INFINITY));
  OK(m, KVRupdatemodel(m));
  CHECK(dbl_attr(m, "MinCoeff") == 0.25 && dbl_attr(m, "MaxRHS") == 10);
  CHECK(dbl_attr(m, "MaxBound") == 10 && int_attr(m, "NumNZs") == 6);

  /* The fingerprint: equal for equal models and copies, different after a change of data or of
     a parameter that affects solving, unaffected by output settings. */
  fp = int_attr(m, "Fingerprint");
  copy = KVRcopymodel(m);
  CHECK(int_attr(copy, "Fingerprint") == fp);
  OK(NULL, KVRsetintparam(KVRgetenv(copy), "OutputFlag", 1));
  OK(NULL, KVRsetintparam(KVRgetenv(copy), "OutputFlag", 0));
  OK(NULL, KVRsetintparam(KVRgetenv(copy), "LogToConsole", 0));
  CHECK(int_attr(copy, "Fingerprint") == fp);
  OK(NULL, KVRsetdblparam(KVRgetenv(copy), "MIPGap", 0.5));
  CHECK(int_attr(copy, "Fingerprint") != fp);
  OK(NULL, KVRsetdblparam(KVRgetenv(copy), "MIPGap", 1e-4));
  CHECK(int_attr(copy, "Fingerprint") == fp);
  OK(copy, KVRsetdblattrelement(copy, "Obj", 0, 1.0000001));
  OK(copy, KVRupdatemodel(copy));
  CHECK(int_attr(copy, "Fingerprint") != fp);
  KVRfreemodel(copy);
  KVRfreemodel(m);
}

static void test_clean(void) {
  int ind[6] = {3, 1, 3, 2, 1, 5}, len = 6, a[4] = {1, 2, 1, 3}, b[4] = {2, 1, 3, 3};
  double val[6] = {1, 2, 3, 4, -2, 0}, q[4] = {1, 1, 2, 0};
  CHECK(KVRclean2(&len, ind, val) == 2 && len == 2);
  CHECK(ind[0] == 3 && val[0] == 4 && ind[1] == 2 && val[1] == 4);
  len = 4;
  CHECK(KVRclean3(&len, a, b, q) == 2 && len == 2);
  CHECK(a[0] == 1 && b[0] == 2 && q[0] == 2 && a[1] == 1 && b[1] == 3 && q[1] == 2);
  len = 0;
  CHECK(KVRclean2(&len, NULL, NULL) == 0);
  len = 2;
  CHECK(KVRclean2(&len, NULL, val) == -1);
  CHECK(KVRclean2(NULL, ind, val) == -1);
  len = -1;
  CHECK(KVRclean3(&len, a, b, q) == -1);
}

/* ------------------------------------------------------------------ timing */

static double seconds(void) {
  struct timespec ts;
  timespec_get(&ts, TIME_UTC);
  return (double)ts.tv_sec + 1e-9 * (double)ts.tv_nsec;
}

static int bench(int n) {
  double *lb = malloc(sizeof(double) * (size_t)n), *out = malloc(sizeof(double) * (size_t)n);
  int *ind = malloc(sizeof(int) * (size_t)n), i, rc;
  KVRmodel *m = NULL;
  double t0, t1, t2, t3;
  for (i = 0; i < n; ++i) lb[i] = i % 7, ind[i] = n - 1 - i;
  t0 = seconds();
  rc = KVRnewmodel(g_env, &m, "bench", n, NULL, lb, NULL, NULL, NULL);
  t1 = seconds();
  rc |= KVRgetdblattrlist(m, "LB", n, ind, out);
  t2 = seconds();
  rc |= KVRgetdblattrarray(m, "UB", 0, n, out);
  t3 = seconds();
  printf(
      "%d variables: KVRnewmodel %.1f ms, KVRgetdblattrlist(LB) %.1f ms, "
      "KVRgetdblattrarray(UB) %.1f ms\n",
      n, 1e3 * (t1 - t0), 1e3 * (t2 - t1), 1e3 * (t3 - t2));
  KVRfreemodel(m);
  free(lb);
  free(out);
  free(ind);
  return rc != 0;
}

int main(int argc, char **argv) {
  int rc;
  if (checks_start()) return 2;
  if (argc == 3 && strcmp(argv[1], "bench") == 0) {
    rc = bench(atoi(argv[2]));
    KVRfreeenv(g_env);
    return rc;
  }
  test_lifecycle();
  test_freed_handles();
  test_update_mode_1();
  test_update_mode_0();
  test_range_constraints();
  test_build_errors();
  test_quadratic();
  test_sos();
  test_genconstrs();
  test_objectives();
  test_coefficients();
  test_attribute_forms();
  test_user_data();
  test_results_absent();
  test_results();
  test_every_attribute();
  test_statistics();
  test_clean();
  return checks_finish();
}
