/*
 * The check harness of the C test programs: counted checks that print each failure with its file
 * and line, and the quiet environment g_env the tests build their models in. A program calls
 * checks_start() first and returns checks_finish(), which prints "N checks, M failed" and gives
 * the exit code (1 on any failure).
 */
#ifndef KAVIRO_TESTS_CHECKS_H
#define KAVIRO_TESTS_CHECKS_H

#include <math.h>
#include <stdio.h>
#include <string.h>

#include "kaviro_c.h"

static int g_checks = 0, g_failed = 0;
static KVRenv *g_env = NULL;

static inline void check_at(int ok, const char *file, int line, const char *text) {
  ++g_checks;
  if (ok) return;
  ++g_failed;
  fprintf(stderr, "%s:%d: check failed: %s\n", file, line, text);
}

/* A library call returned `got`; `want` was expected. The message comes from m, else g_env. */
static inline void code_at(int want, int got, KVRmodel *m, const char *file, int line,
                           const char *text) {
  ++g_checks;
  if (want == got) return;
  ++g_failed;
  fprintf(stderr, "%s:%d: %s returned %d, expected %d (%s)\n", file, line, text, got, want,
          m ? KVRgetmerrormsg(m) : KVRgeterrormsg(g_env));
}

/* got equals want within tol, relative to 1 + |want|. */
static inline void near_at(double got, double want, double tol, const char *file, int line,
                           const char *text) {
  ++g_checks;
  if (fabs(got - want) <= tol * (1.0 + fabs(want))) return;
  ++g_failed;
  fprintf(stderr, "%s:%d: %s is %.10g, expected %.10g\n", file, line, text, got, want);
}

#define CHECK(cond) check_at((cond) != 0, __FILE__, __LINE__, #cond)
/* A call on model m (NULL: on g_env) that must succeed / fail with the given code. */
#define OK(m, call) code_at(0, (call), (m), __FILE__, __LINE__, #call)
#define ERR(m, code, call) code_at((code), (call), (m), __FILE__, __LINE__, #call)
/* The model's latest message contains text. */
#define MSG(m, text) check_at(strstr(KVRgetmerrormsg(m), (text)) != NULL, __FILE__, __LINE__, text)
#define NEAR_TOL(a, b, tol) near_at((a), (b), (tol), __FILE__, __LINE__, #a)
/* A program may define NEAR_TOLERANCE before including this header. */
#ifndef NEAR_TOLERANCE
#define NEAR_TOLERANCE 1e-6
#endif
#define NEAR(a, b) NEAR_TOL((a), (b), NEAR_TOLERANCE)

/* Starts g_env with output off; on failure prints why and returns nonzero. */
static inline int checks_start(void) {
  if (KVRemptyenv(&g_env) || KVRsetintparam(g_env, "OutputFlag", 0) || KVRstartenv(g_env)) {
    fprintf(stderr, "cannot start an environment: %s\n", KVRgeterrormsg(g_env));
    return 1;
  }
  return 0;
}

/* Frees g_env, prints the summary line and returns the program's exit code. */
static inline int checks_finish(void) {
  KVRfreeenv(g_env);
  printf("%d checks, %d failed\n", g_checks, g_failed);
  return g_failed ? 1 : 0;
}

#endif
