/*
 * End-to-end tests of the model rewriting through the C interface: SOS constraints,
 * semi-continuous variables, general constraints, piecewise-linear objectives and function
 * approximations are solved on small models with known optima, and the rewriting's errors are
 * checked. Plain C; uses only kaviro_c.h. Prints every failed check and a summary line; exits with
 * 1 on any failure.
 */
#include "checks.h"

/* Index and value arrays as compound literals. */
#define IND(...) \
  (int[]) { __VA_ARGS__ }
#define VAL(...) \
  (double[]) { __VA_ARGS__ }

#define INF KVR_INFINITY

/* ------------------------------------------------------------------ helpers */

static KVRmodel *model_of(int n, const double *lb, const double *ub, const char *vtype,
                          const double *obj, int sense) {
  KVRmodel *m = NULL;
  code_at(0, KVRnewmodel(g_env, &m, "reform", n, obj, lb, ub, vtype, NULL), NULL, __FILE__,
          __LINE__, "KVRnewmodel");
  OK(m, KVRsetintattr(m, "ModelSense", sense));
  return m;
}

static double objval(KVRmodel *m) {
  double v = NAN;
  OK(m, KVRgetdblattr(m, "ObjVal", &v));
  return v;
}

static double xval(KVRmodel *m, int j) {
  double v = NAN;
  OK(m, KVRgetdblattrelement(m, "X", j, &v));
  return v;
}

/* Optimizes; the model must be solved to optimality with the given objective value. */
static void optimum_at(KVRmodel *m, double want, double tol, const char *file, int line) {
  int status = 0;
  code_at(0, KVRoptimize(m), m, file, line, "KVRoptimize");
  code_at(0, KVRgetintattr(m, "Status", &status), m, file, line, "Status");
  check_at(status == KVR_OPTIMAL, file, line, "status is OPTIMAL");
  if (status == KVR_OPTIMAL) near_at(objval(m), want, tol, file, line, "ObjVal");
}
#define OPTIMUM(m, want) optimum_at((m), (want), 1e-6, __FILE__, __LINE__)
#define OPTIMUM_TOL(m, want, tol) optimum_at((m), (want), (tol), __FILE__, __LINE__)

static void set_int(KVRmodel *m, const char *name, int v) {
  OK(m, KVRsetintparam(KVRgetenv(m), name, v));
}
static void set_dbl(KVRmodel *m, const char *name, double v) {
  OK(m, KVRsetdblparam(KVRgetenv(m), name, v));
}

/* ------------------------------------------------------------------ logical constraints */

static void test_max_min(void) {
  /* z = max(x, y, 2) with x + y = 5 and x, y in [0, 10] */
  KVRmodel *m = model_of(3, VAL(0, 0, -INF), VAL(10, 10, INF), NULL, VAL(0, 0, 1), KVR_MINIMIZE);
  OK(m, KVRaddconstr(m, 2, IND(0, 1), VAL(1, 1), '=', 5, NULL));
  OK(m, KVRaddgenconstrMax(m, "top", 2, 2, IND(0, 1), 2.0));
  OPTIMUM(m, 2.5);
  OK(m, KVRsetintattr(m, "ModelSense", KVR_MAXIMIZE));
  OPTIMUM(m, 5);
  KVRfreemodel(m);

  /* z = min(x, y, c) with x + y <= 4; x and y have no upper bound but the row gives them one */
  const double constants[3] = {3.0, 1.0, INF}, optima[3] = {2.0, 1.0, 2.0};
  for (int k = 0; k < 3; ++k) {
    m = model_of(3, VAL(0, 0, -INF), VAL(INF, INF, INF), NULL, VAL(0, 0, 1), KVR_MAXIMIZE);
    OK(m, KVRaddconstr(m, 2, IND(0, 1), VAL(1, 1), '<', 4, NULL));
    OK(m, KVRaddgenconstrMin(m, NULL, 2, 2, IND(0, 1), constants[k]));
    OPTIMUM(m, optima[k]);
    KVRfreemodel(m);
  }

  /* An operand with no lower bound leaves the big-M value of max(x, y) unbounded; a bound fixes
     it without rebuilding anything. */
  m = model_of(3, VAL(-INF, 0, -INF), VAL(INF, 3, 5), NULL, VAL(0, 0, 1), KVR_MINIMIZE);
  OK(m, KVRaddgenconstrMax(m, "mx", 2, 2, IND(0, 1), -INF));
  ERR(m, KVR_ERROR_NOT_SUPPORTED, KVRoptimize(m));
  MSG(m, "General constraint mx (MAX): variable C0 has no finite lower bound");
  OK(m, KVRsetdblattrelement(m, "LB", 0, -4));
  OPTIMUM(m, 0);
  KVRfreemodel(m);
}

static void test_abs(void) {
  KVRmodel *m = model_of(2, VAL(-5, 0), VAL(3, INF), NULL, VAL(0, 1), KVR_MAXIMIZE);
  OK(m, KVRaddgenconstrAbs(m, NULL, 1, 0));
  OPTIMUM(m, 5);
  NEAR(xval(m, 0), -5);
  OK(m, KVRsetintattr(m, "ModelSense", KVR_MINIMIZE));
  OK(m, KVRaddconstr(m, 1, IND(0), VAL(1), '<', -1, NULL));
  OPTIMUM(m, 1);
  KVRfreemodel(m);

  /* Free x: no big-M until rows bound it. */
  m = model_of(2, VAL(-INF, 0), VAL(INF, INF), NULL, VAL(0, -1), KVR_MINIMIZE);
  OK(m, KVRaddgenconstrAbs(m, "a", 1, 0));
  ERR(m, KVR_ERROR_NOT_SUPPORTED, KVRoptimize(m));
  MSG(m, "General constraint a (ABS): variable C0 has no finite lower bound");
  OK(m, KVRaddconstr(m, 1, IND(0), VAL(1), '<', 7, NULL));
  OK(m, KVRaddconstr(m, 1, IND(0), VAL(2), '>', -4, NULL));
  OPTIMUM(m, -7);
  KVRfreemodel(m);
}

static void test_and_or(void) {
  /* r1 = a and b, r2 = a or b, with a = 1 and b fixed by a row */
  for (int b = 0; b <= 1; ++b) {
    KVRmodel *m = model_of(4, NULL, NULL, "BBBB", NULL, KVR_MINIMIZE);
    OK(m, KVRaddgenconstrAnd(m, NULL, 2, 2, IND(0, 1)));
    OK(m, KVRaddgenconstrOr(m, NULL, 3, 2, IND(0, 1)));
    OK(m, KVRaddconstr(m, 1, IND(0), VAL(1), '=', 1, NULL));
    OK(m, KVRaddconstr(m, 1, IND(1), VAL(1), '=', b, NULL));
    /* the objective pulls r1 up and r2 down: only the constraints decide them */
    OK(m, KVRsetobjective(m, 0, 0, 2, IND(2, 3), VAL(-1, 1), 0, NULL, NULL, NULL));
    OPTIMUM(m, b ? 0 : 1);
    NEAR(xval(m, 2), b);
    NEAR(xval(m, 3), 1);
    KVRfreemodel(m);
  }
  /* and over nothing is 1, or over nothing 0 */
  KVRmodel *m = model_of(2, NULL, NULL, "BB", VAL(1, -1), KVR_MINIMIZE);
  OK(m, KVRaddgenconstrAnd(m, NULL, 0, 0, NULL));
  OK(m, KVRaddgenconstrOr(m, NULL, 1, 0, NULL));
  OPTIMUM(m, 1);
  KVRfreemodel(m);

  m = model_of(3, VAL(0, 0, 0), VAL(1, 1, 1), "BCB", NULL, KVR_MINIMIZE);
  OK(m, KVRaddgenconstrOr(m, "either", 2, 2, IND(0, 1)));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRoptimize(m));
  MSG(m, "General constraint either (OR): operand C1 is not a binary variable");
  KVRfreemodel(m);
}

static void test_norm(void) {
  /* x in [-3, 2], y in [-1, 4], x + y = 0.5 */
  const double which[4] = {1.0, INF, 0.0, 0.0};
  const int sense[4] = {KVR_MAXIMIZE, KVR_MAXIMIZE, KVR_MAXIMIZE, KVR_MINIMIZE};
  const double optima[4] = {6.5, 3.5, 2.0, 1.0};
  for (int k = 0; k < 4; ++k) {
    KVRmodel *m = model_of(3, VAL(-3, -1, 0), VAL(2, 4, INF), NULL, VAL(0, 0, 1), sense[k]);
    OK(m, KVRaddconstr(m, 2, IND(0, 1), VAL(1, 1), '=', 0.5, NULL));
    OK(m, KVRaddgenconstrNorm(m, NULL, 2, 2, IND(0, 1), which[k]));
    OPTIMUM(m, optima[k]);
    KVRfreemodel(m);
  }
  /* the smallest infinity norm: |x| = |y| = 0.25 */
  KVRmodel *m = model_of(3, VAL(-3, -1, 0), VAL(2, 4, INF), NULL, VAL(0, 0, 1), KVR_MINIMIZE);
  OK(m, KVRaddconstr(m, 2, IND(0, 1), VAL(1, -1), '=', 0.5, NULL));
  OK(m, KVRaddgenconstrNorm(m, NULL, 2, 2, IND(0, 1), INF));
  OPTIMUM(m, 0.25);
  KVRfreemodel(m);

  m = model_of(3, NULL, NULL, NULL, NULL, KVR_MINIMIZE);
  OK(m, KVRaddgenconstrNorm(m, "n2", 2, 2, IND(0, 1), 2.0));
  ERR(m, KVR_ERROR_NOT_SUPPORTED, KVRoptimize(m));
  MSG(m, "General constraint n2 (NORM): the 2-norm as an equality is not convex");
  KVRfreemodel(m);
}

static void test_indicator(void) {
  /* maximize x + y + 20 z with x, y in [0, 5] and z = 1 -> x + y <= 2 */
  KVRmodel *m = model_of(3, VAL(0, 0, 0), VAL(5, 5, 1), "CCB", VAL(1, 1, 20), KVR_MAXIMIZE);
  OK(m, KVRaddgenconstrIndicator(m, "ind", 2, 1, 2, IND(0, 1), VAL(1, 1), '<', 2));
  OPTIMUM(m, 22);
  OK(m, KVRsetdblattrelement(m, "Obj", 2, -20));
  OPTIMUM(m, 10);
  KVRfreemodel(m);

  /* z = 0 -> x + y = 3 (an equality is two big-M rows) */
  m = model_of(3, VAL(0, 0, 0), VAL(5, 5, 1), "CCB", VAL(1, 1, -20), KVR_MAXIMIZE);
  OK(m, KVRaddgenconstrIndicator(m, NULL, 2, 0, 2, IND(0, 1), VAL(1, 1), '=', 3));
  OPTIMUM(m, 3);
  OK(m, KVRsetintattr(m, "ModelSense", KVR_MINIMIZE));
  OPTIMUM(m, -20);
  KVRfreemodel(m);

  /* the activity of the row must be bounded where the indicator can be off */
  m = model_of(2, VAL(0, 0), VAL(INF, 1), "CB", VAL(1, 0), KVR_MAXIMIZE);
  OK(m, KVRaddgenconstrIndicator(m, "open", 1, 1, 1, IND(0), VAL(1), '<', 4));
  ERR(m, KVR_ERROR_NOT_SUPPORTED, KVRoptimize(m));
  MSG(m, "General constraint open (INDICATOR): variable C0 has no finite upper bound");
  KVRfreemodel(m);

  m = model_of(2, VAL(0, 0), VAL(10, 1), "CC", VAL(1, 0), KVR_MAXIMIZE);
  OK(m, KVRaddgenconstrIndicator(m, "cont", 1, 1, 1, IND(0), VAL(1), '<', 4));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRoptimize(m));
  MSG(m, "General constraint cont (INDICATOR): indicator variable C1 is not binary");
  KVRfreemodel(m);
}

/* ------------------------------------------------------------------ SOS and semi-continuous */

static void test_sos(void) {
  for (int enc = -1; enc <= 3; ++enc) {
    /* type 1 with a negative member: min 3x + 2y - z, one of them nonzero -> y = -4 */
    KVRmodel *m = model_of(3, VAL(-2, -4, 0), VAL(3, 1, 5), NULL, VAL(3, 2, -1), KVR_MINIMIZE);
    set_int(m, "PreSOS1Encoding", enc);
    OK(m, KVRaddsos(m, 1, 3, IND(KVR_SOS_TYPE1), IND(0), IND(0, 1, 2), VAL(3, 1, 2)));
    OPTIMUM(m, -8);
    KVRfreemodel(m);

    /* type 2, members in weight order 4, 0, 1, 3, 2, 5; the best adjacent pair is (2, 5) */
    m = model_of(6, VAL(0, 0, 0, -1, 0, 0), VAL(1, 1, 1, 1, 1, 1), NULL, VAL(1, 2, 3, -1, 2.4, 2.5),
                 KVR_MAXIMIZE);
    set_int(m, "PreSOS2Encoding", enc);
    OK(m, KVRaddsos(m, 1, 6, IND(KVR_SOS_TYPE2), IND(0), IND(0, 1, 2, 3, 4, 5),
                    VAL(2, 3, 5, 4, 1, 6)));
    OPTIMUM(m, 5.5);
    NEAR(xval(m, 4), 0);
    KVRfreemodel(m);
  }

  /* a long type 2 set (logarithmic encoding by default): the best adjacent pair of sin(1.7 k) */
  enum { N = 100 };
  double obj[N], wt[N], best = 0;
  int ind[N];
  for (int k = 0; k < N; ++k) obj[k] = sin(1.7 * k), wt[k] = k, ind[k] = k;
  for (int k = 0; k + 1 < N; ++k) {
    double pair = fmax(obj[k], 0) + fmax(obj[k + 1], 0);
    if (pair > best) best = pair;
  }
  KVRmodel *m = model_of(N, NULL, NULL, NULL, obj, KVR_MAXIMIZE);
  for (int k = 0; k < N; ++k) OK(m, KVRsetdblattrelement(m, "UB", k, 1.0));
  OK(m, KVRaddsos(m, 1, N, IND(KVR_SOS_TYPE2), IND(0), ind, wt));
  OPTIMUM(m, best);
  KVRfreemodel(m);

  /* big-M values: capped by PreSOS1BigM, and needed finite (here propagation finds 50) */
  m = model_of(2, VAL(0, 0), VAL(200, 1), NULL, VAL(1, 1), KVR_MAXIMIZE);
  OK(m, KVRaddsos(m, 1, 2, IND(KVR_SOS_TYPE1), IND(0), IND(0, 1), VAL(1, 2)));
  set_dbl(m, "PreSOS1BigM", 100);
  ERR(m, KVR_ERROR_NOT_SUPPORTED, KVRoptimize(m));
  MSG(m, "SOS constraint 0: variable C0 needs a big-M value of 200, more than PreSOS1BigM = 100");
  set_dbl(m, "PreSOS1BigM", -1);
  OK(m, KVRsetdblattrelement(m, "UB", 0, INF));
  ERR(m, KVR_ERROR_NOT_SUPPORTED, KVRoptimize(m));
  MSG(m, "SOS constraint 0: variable C0 has no finite upper bound");
  OK(m, KVRaddconstr(m, 2, IND(0, 1), VAL(1, 1), '<', 50, NULL));
  OPTIMUM(m, 50);
  KVRfreemodel(m);

  m = model_of(3, VAL(0, 0, 0), VAL(10, 10, 10), NULL, VAL(1, 1, 1), KVR_MAXIMIZE);
  OK(m, KVRaddsos(m, 1, 3, IND(KVR_SOS_TYPE2), IND(0), IND(0, 1, 2), VAL(1, 2, 3)));
  set_dbl(m, "PreSOS2BigM", 5);
  ERR(m, KVR_ERROR_NOT_SUPPORTED, KVRoptimize(m));
  MSG(m, "more than PreSOS2BigM = 5");
  KVRfreemodel(m);

  /* a type 1 set of binaries */
  m = model_of(3, NULL, NULL, "BBB", VAL(1, 3, 2), KVR_MAXIMIZE);
  OK(m, KVRaddsos(m, 1, 3, IND(KVR_SOS_TYPE1), IND(0), IND(0, 1, 2), NULL));
  OPTIMUM(m, 3);
  KVRfreemodel(m);
}

static void test_semicontinuous(void) {
  /* x in {0} u [2, 5] costs 1 a unit, y costs c; x + y >= 1 */
  KVRmodel *m = model_of(2, VAL(2, 0), VAL(5, 10), "SC", VAL(1, 3), KVR_MINIMIZE);
  OK(m, KVRaddconstr(m, 2, IND(0, 1), VAL(1, 1), '>', 1, NULL));
  OPTIMUM(m, 2);
  NEAR(xval(m, 0), 2);
  OK(m, KVRsetdblattrelement(m, "Obj", 1, 1.5));
  /* the binary of x may sit within IntFeasTol of 0, which lets x leak up to 5e-5 above it */
  OPTIMUM_TOL(m, 1.5, 1e-4);
  NEAR_TOL(xval(m, 0), 0, 1e-4);
  /* no upper bound: none of its own, then one from a row */
  OK(m, KVRsetdblattrelement(m, "Obj", 1, 3));
  OK(m, KVRsetdblattrelement(m, "UB", 0, INF));
  ERR(m, KVR_ERROR_NOT_SUPPORTED, KVRoptimize(m));
  MSG(m, "Semi-continuous variable C0 has no finite upper bound");
  OK(m, KVRaddconstr(m, 1, IND(0), VAL(1), '<', 9, NULL));
  OPTIMUM(m, 2);
  KVRfreemodel(m);

  /* x in {0} u [-5, -2]: the negative side */
  m = model_of(2, VAL(-5, 0), VAL(-2, 10), "SC", VAL(1, 3), KVR_MINIMIZE);
  OK(m, KVRaddconstr(m, 2, IND(0, 1), VAL(1, -1), '<', -1, NULL));
  OPTIMUM(m, -5);
  KVRfreemodel(m);

  /* semi-integer: {0} u {3, 4, 5} below 5.5 */
  m = model_of(1, VAL(2.5), VAL(6), "N", VAL(-1), KVR_MINIMIZE);
  OK(m, KVRaddconstr(m, 1, IND(0), VAL(1), '<', 5.5, NULL));
  OPTIMUM(m, -5);
  OK(m, KVRaddconstr(m, 1, IND(0), VAL(1), '<', 2.9, NULL));
  OPTIMUM(m, 0);
  KVRfreemodel(m);
}

/* ------------------------------------------------------------------ piecewise-linear */

static void test_pwl_constraint(void) {
  /* y = f(x) through (0, 0) (1, 1) (1, 3) (2, 2): a jump at 1; slope -1 after 2, +1 before 0 */
  const double fixed[6] = {1, 1, 5, -3, 1.5, 0.5};
  const int sense[6] = {KVR_MINIMIZE, KVR_MAXIMIZE, KVR_MINIMIZE,
                        KVR_MINIMIZE, KVR_MINIMIZE, KVR_MAXIMIZE};
  const double optima[6] = {1, 3, -1, -3, 2.5, 0.5};
  for (int k = 0; k < 6; ++k) {
    KVRmodel *m = model_of(2, VAL(-10, -INF), VAL(10, INF), NULL, VAL(0, 1), sense[k]);
    OK(m, KVRaddgenconstrPWL(m, NULL, 0, 1, 4, VAL(0, 1, 1, 2), VAL(0, 1, 3, 2)));
    OK(m, KVRaddconstr(m, 1, IND(0), VAL(1), '=', fixed[k], NULL));
    OPTIMUM(m, optima[k]);
    KVRfreemodel(m);
  }
  /* jumps at both ends: horizontal before 0 (y = 4); three points at 2 give an isolated 6 */
  KVRmodel *m = model_of(2, VAL(-5, -INF), VAL(5, INF), NULL, VAL(0, 1), KVR_MAXIMIZE);
  OK(m, KVRaddgenconstrPWL(m, NULL, 0, 1, 7, VAL(0, 0, 1, 2, 2, 2, 3), VAL(4, 0, 1, 1, 6, 2, 0)));
  OPTIMUM(m, 6);
  NEAR(xval(m, 0), 2);
  OK(m, KVRsetintattr(m, "ModelSense", KVR_MINIMIZE));
  OPTIMUM(m, -4); /* x = 5: 0 - 2 (5 - 3) */
  KVRfreemodel(m);
}

static void test_pwl_objective(void) {
  /* convex |x|-like term, minimized: stays a linear program (duals exist) */
  KVRmodel *m = model_of(2, VAL(-INF, 0), VAL(INF, 4), NULL, VAL(100, 1), KVR_MINIMIZE);
  OK(m, KVRaddconstr(m, 2, IND(0, 1), VAL(1, 1), '>', -0.5, "floor"));
  OK(m, KVRsetpwlobj(m, 0, 3, VAL(-1, 0, 1), VAL(1, 0, 2)));
  OPTIMUM(m, 0);
  double pi = NAN;
  OK(m, KVRgetdblattrelement(m, "Pi", 0, &pi));
  KVRfreemodel(m);

  /* nonconvex with a jump: (0, 0) (1, 1) | (1, 3) (4, 0) on [0, 4] */
  m = model_of(1, VAL(0), VAL(4), NULL, NULL, KVR_MAXIMIZE);
  OK(m, KVRsetpwlobj(m, 0, 4, VAL(0, 1, 1, 4), VAL(0, 1, 3, 0)));
  OPTIMUM(m, 3);
  OK(m, KVRsetintattr(m, "ModelSense", KVR_MINIMIZE));
  OPTIMUM(m, 0);
  KVRfreemodel(m);

  /* concave maximized stays linear; maximized convex needs binaries and the bounds */
  m = model_of(1, VAL(-2), VAL(3), NULL, NULL, KVR_MAXIMIZE);
  OK(m, KVRsetpwlobj(m, 0, 3, VAL(0, 1, 2), VAL(0, 2, 1)));
  OPTIMUM(m, 2);
  OK(m, KVRsetpwlobj(m, 0, 3, VAL(0, 1, 2), VAL(1, 0, 2)));
  OPTIMUM(m, 4); /* x = 3: 2 + 2 */
  KVRfreemodel(m);
}

/* ------------------------------------------------------------------ function constraints */

/* y = f(x) on [lo, hi]; the optimum of c x + y in the given sense. */
static void function_optimum(int type, double a, double lo, double hi, int sense, double c,
                             double want, int line) {
  KVRmodel *m = model_of(2, VAL(lo, -INF), VAL(hi, INF), NULL, VAL(c, 1), sense);
  int rc = 0;
  switch (type) {
    case KVR_GENCONSTR_EXP:
      rc = KVRaddgenconstrExp(m, "f", 0, 1, "");
      break;
    case KVR_GENCONSTR_EXPA:
      rc = KVRaddgenconstrExpA(m, "f", 0, 1, a, "");
      break;
    case KVR_GENCONSTR_LOG:
      rc = KVRaddgenconstrLog(m, "f", 0, 1, "");
      break;
    case KVR_GENCONSTR_LOGA:
      rc = KVRaddgenconstrLogA(m, "f", 0, 1, a, "");
      break;
    case KVR_GENCONSTR_POW:
      rc = KVRaddgenconstrPow(m, "f", 0, 1, a, "");
      break;
    case KVR_GENCONSTR_LOGISTIC:
      rc = KVRaddgenconstrLogistic(m, "f", 0, 1, "");
      break;
    case KVR_GENCONSTR_SIN:
      rc = KVRaddgenconstrSin(m, "f", 0, 1, "");
      break;
    case KVR_GENCONSTR_COS:
      rc = KVRaddgenconstrCos(m, "f", 0, 1, "");
      break;
    case KVR_GENCONSTR_TAN:
      rc = KVRaddgenconstrTan(m, "f", 0, 1, "");
      break;
    default:
      rc = KVRaddgenconstrPoly(m, "f", 0, 1, 4, VAL(1, 0, -3, 0), "");
      break;
  }
  code_at(0, rc, m, __FILE__, line, "adding the function constraint");
  optimum_at(m, want, 1e-3, __FILE__, line);
  KVRfreemodel(m);
}

static void test_functions(void) {
  const double e = exp(1.0);
  function_optimum(KVR_GENCONSTR_POLY, 0, -3, 3, KVR_MINIMIZE, 0, -18, __LINE__);
  function_optimum(KVR_GENCONSTR_POLY, 0, -2, 2, KVR_MAXIMIZE, 0, 2, __LINE__);
  function_optimum(KVR_GENCONSTR_EXP, 0, 0, 2, KVR_MAXIMIZE, 0, e * e, __LINE__);
  function_optimum(KVR_GENCONSTR_EXP, 0, -INF, INF, KVR_MINIMIZE, -1, 1, __LINE__);
  function_optimum(KVR_GENCONSTR_EXPA, 2, -1, 3, KVR_MAXIMIZE, 0, 8, __LINE__);
  function_optimum(KVR_GENCONSTR_LOG, 0, 0, INF, KVR_MAXIMIZE, -1, -1, __LINE__);
  function_optimum(KVR_GENCONSTR_LOGA, 10, 1, 1000, KVR_MAXIMIZE, 0, 3, __LINE__);
  function_optimum(KVR_GENCONSTR_POW, 0.5, -4, 9, KVR_MAXIMIZE, 0, 3, __LINE__);
  function_optimum(KVR_GENCONSTR_POW, 2, -INF, INF, KVR_MINIMIZE, -2, -1, __LINE__);
  function_optimum(KVR_GENCONSTR_POW, -1, 0.5, 4, KVR_MAXIMIZE, 0, 2, __LINE__);
  function_optimum(KVR_GENCONSTR_LOGISTIC, 0, -10, 10, KVR_MAXIMIZE, 0, 1 / (1 + exp(-10.0)),
                   __LINE__);
  function_optimum(KVR_GENCONSTR_SIN, 0, 0, 3, KVR_MAXIMIZE, 0, 1, __LINE__);
  function_optimum(KVR_GENCONSTR_COS, 0, -1, 4, KVR_MINIMIZE, 0, -1, __LINE__);
  function_optimum(KVR_GENCONSTR_TAN, 0, 2, 4, KVR_MINIMIZE, 0, tan(2.0), __LINE__);

  /* y's bounds cut the range of x: y = exp(x) <= 10 */
  KVRmodel *m = model_of(2, VAL(-INF, -INF), VAL(INF, 10), NULL, VAL(1, 0), KVR_MAXIMIZE);
  OK(m, KVRaddgenconstrExp(m, NULL, 0, 1, NULL));
  OPTIMUM_TOL(m, log(10.0), 1e-5);
  OK(m, KVRsetdblattrelement(m, "UB", 1, -1));
  OK(m, KVRoptimize(m));
  int status = 0;
  OK(m, KVRgetintattr(m, "Status", &status));
  CHECK(status == KVR_INFEASIBLE || status == KVR_INF_OR_UNBD);
  KVRfreemodel(m);
}

/* Largest and smallest (signed) deviation y - sin(x) of the approximation of y = sin(x) on
   [0, 6], observed at 17 values of x. x is fixed through an indicator whose binary is fixed to 1,
   so the approximation is built on the whole range of x. The controls are set as attributes of
   the constraint when attr is set, else as parameters. */
static void sin_deviation(int pieces, double error, double ratio, int attr, double *lo,
                          double *hi) {
  *lo = INFINITY, *hi = -INFINITY;
  for (int k = 0; k < 17; ++k) {
    double t = 6.0 * (k + 0.37) / 17;
    KVRmodel *m = model_of(3, VAL(0, -INF, 1), VAL(6, INF, 1), "CCB", NULL, KVR_MINIMIZE);
    OK(m, KVRaddgenconstrSin(m, NULL, 0, 1, NULL));
    OK(m, KVRaddgenconstrIndicator(m, NULL, 2, 1, 1, IND(0), VAL(1), '=', t));
    if (attr) {
      OK(m, KVRupdatemodel(m));
      OK(m, KVRsetintattrelement(m, "FuncPieces", 0, pieces));
      OK(m, KVRsetdblattrelement(m, "FuncPieceError", 0, error));
      OK(m, KVRsetdblattrelement(m, "FuncPieceRatio", 0, ratio));
    } else {
      set_int(m, "FuncPieces", pieces);
      set_dbl(m, "FuncPieceError", error);
      set_dbl(m, "FuncPieceRatio", ratio);
    }
    OK(m, KVRoptimize(m));
    double d = xval(m, 1) - sin(t);
    if (d < *lo) *lo = d;
    if (d > *hi) *hi = d;
    KVRfreemodel(m);
  }
}

static double worst(double lo, double hi) { return fmax(fabs(lo), fabs(hi)); }

static void test_function_pieces(void) {
  double lo, hi, prev = INFINITY;
  /* more pieces, smaller error */
  const int counts[4] = {2, 4, 8, 32};
  for (int k = 0; k < 4; ++k) {
    sin_deviation(counts[k], 1e-3, -1, k % 2, &lo, &hi);
    CHECK(worst(lo, hi) < prev);
    prev = worst(lo, hi);
  }
  CHECK(prev < 0.01);
  /* an error bound holds, and a tighter one is closer */
  sin_deviation(-1, 0.05, -1, 0, &lo, &hi);
  CHECK(worst(lo, hi) <= 0.05 * 1.001);
  prev = worst(lo, hi);
  sin_deviation(-1, 0.002, -1, 1, &lo, &hi);
  CHECK(worst(lo, hi) <= 0.002 * 1.001);
  CHECK(worst(lo, hi) < prev);
  sin_deviation(-2, 0.002, -1, 0, &lo, &hi);
  CHECK(worst(lo, hi) <= 0.002 * 1.001);
  /* ratio 0 stays below the function, 1 above, 0.5 splits the deviation */
  sin_deviation(6, 1e-3, 0, 1, &lo, &hi);
  CHECK(hi <= 1e-6 && lo < -0.01);
  sin_deviation(6, 1e-3, 1, 0, &lo, &hi);
  CHECK(lo >= -1e-6 && hi > 0.01);
  sin_deviation(6, 1e-3, 0.5, 1, &lo, &hi);
  CHECK(lo < -0.01 && hi > 0.01);
  /* pieces of a given length: 0.05 is finer than 6 pieces */
  double coarse;
  sin_deviation(6, 1e-3, -1, 0, &lo, &hi);
  coarse = worst(lo, hi);
  sin_deviation(1, 1e-3, -1, 0, &lo, &hi);
  CHECK(worst(lo, hi) < coarse / 10);
}

static void test_function_errors(void) {
  KVRmodel *m = model_of(2, VAL(-5, -INF), VAL(-1, INF), NULL, NULL, KVR_MINIMIZE);
  OK(m, KVRaddgenconstrLog(m, "lg", 0, 1, NULL));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRoptimize(m));
  MSG(m, "General constraint lg (LOG): the logarithm needs x > 0, but the range of x is [-5, -1]");
  KVRfreemodel(m);

  m = model_of(2, VAL(-3, -INF), VAL(-1, INF), NULL, NULL, KVR_MINIMIZE);
  OK(m, KVRaddgenconstrPow(m, "root", 0, 1, 0.5, NULL));
  ERR(m, KVR_ERROR_INVALID_ARGUMENT, KVRoptimize(m));
  MSG(m, "General constraint root (POW): x^0.5 with a fractional exponent needs x >= 0");
  KVRfreemodel(m);

  m = model_of(2, VAL(-1, -INF), VAL(2, INF), NULL, NULL, KVR_MINIMIZE);
  OK(m, KVRaddgenconstrPow(m, "inv", 0, 1, -1, NULL));
  ERR(m, KVR_ERROR_NOT_SUPPORTED, KVRoptimize(m));
  MSG(m, "General constraint inv (POW): x^-1 has a pole at x = 0");
  KVRfreemodel(m);

  m = model_of(2, VAL(0, -INF), VAL(3, INF), NULL, NULL, KVR_MINIMIZE);
  OK(m, KVRaddgenconstrTan(m, "t", 0, 1, NULL));
  ERR(m, KVR_ERROR_NOT_SUPPORTED, KVRoptimize(m));
  MSG(m, "General constraint t (TAN): the range of x [0, 3] crosses the pole of tan");
  KVRfreemodel(m);

  /* too many pieces: asked for, or needed for an error bound over FuncMaxVal */
  m = model_of(2, VAL(0, -INF), VAL(1, INF), NULL, NULL, KVR_MINIMIZE);
  OK(m, KVRaddgenconstrExp(m, "e", 0, 1, "FuncPieces=200000"));
  ERR(m, KVR_ERROR_NOT_SUPPORTED, KVRoptimize(m));
  MSG(m, "General constraint e (EXP): 200000 pieces on the range of x [0, 1] are more than");
  KVRfreemodel(m);

  m = model_of(2, VAL(-INF, -INF), VAL(INF, INF), NULL, NULL, KVR_MINIMIZE);
  OK(m, KVRaddgenconstrSin(m, "s", 0, 1, NULL));
  ERR(m, KVR_ERROR_NOT_SUPPORTED, KVRoptimize(m));
  MSG(m, "needs more than 100000 pieces on the range of x [-1e+06, 1e+06]");
  set_dbl(m, "FuncMaxVal", 10);
  OK(m, KVRsetdblattrelement(m, "Obj", 1, 1));
  OPTIMUM_TOL(m, -1, 1e-3);
  KVRfreemodel(m);
}

/* ------------------------------------------------------------------ the user's model stays */

static void test_user_model(void) {
  /* after solving with added rows and variables, results are the user's: counts, X, Slack */
  KVRmodel *m = model_of(3, VAL(-2, 0, 0), VAL(2, 8, 1), "CCB", VAL(0, 1, 0), KVR_MAXIMIZE);
  OK(m, KVRaddconstr(m, 2, IND(0, 1), VAL(1, 1), '<', 9, "cap"));
  OK(m, KVRaddgenconstrAbs(m, NULL, 1, 0));
  OK(m, KVRaddgenconstrIndicator(m, NULL, 2, 1, 1, IND(0), VAL(1), '>', 1));
  OPTIMUM(m, 2);
  int n = 0, r = 0;
  OK(m, KVRgetintattr(m, "NumVars", &n));
  OK(m, KVRgetintattr(m, "NumConstrs", &r));
  CHECK(n == 3 && r == 1);
  double x[3], slack = NAN;
  OK(m, KVRgetdblattrarray(m, "X", 0, 3, x));
  NEAR(fabs(x[0]), x[1]);
  OK(m, KVRgetdblattrelement(m, "Slack", 0, &slack));
  NEAR(slack, 9 - x[0] - x[1]);
  ERR(m, KVR_ERROR_INDEX_OUT_OF_RANGE, KVRgetdblattrelement(m, "X", 3, &slack));
  KVRfreemodel(m);

  /* a nonconvex quadratic constraint is refused, naming it */
  m = model_of(2, NULL, NULL, NULL, NULL, KVR_MINIMIZE);
  OK(m, KVRaddqconstr(m, 0, NULL, NULL, 1, IND(0), IND(1), VAL(1), '<', 1, "disc"));
  ERR(m, KVR_ERROR_Q_NOT_PSD, KVRoptimize(m));
  MSG(m, "Quadratic constraint 'disc' is not convex: Q is not positive semi-definite");
  KVRfreemodel(m);
}

int main(void) {
  if (checks_start()) return 2;
  test_max_min();
  test_abs();
  test_and_or();
  test_norm();
  test_indicator();
  test_sos();
  test_semicontinuous();
  test_pwl_constraint();
  test_pwl_objective();
  test_functions();
  test_function_pieces();
  test_function_errors();
  test_user_model();
  return checks_finish();
}
