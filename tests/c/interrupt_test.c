/*
 * Ctrl-C shared by a read and a solve on two threads: a read of an endless pipe (armed with
 * KVRsetreadsignal) runs while another thread solves an armed model and finishes first. SIGINT
 * must still end the read with FILE_READ, be taken from the program's own handler only while
 * the library needs it, and leave that handler in place afterwards.
 */
#define _POSIX_C_SOURCE 200809L
#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "checks.h"

static volatile sig_atomic_t g_own_calls = 0;
static void own_handler(int sig) {
  (void)sig;
  ++g_own_calls;
}

static char g_fifo[64];
static volatile int g_read_done = 0;
static int g_read_code = -1;
static char g_read_message[512];

/* Writes an MPS header and then column lines until the reader closes the pipe. */
static void *feed(void *arg) {
  (void)arg;
  FILE *out = fopen(g_fifo, "w");
  if (!out) return NULL;
  fputs("NAME endless\nROWS\n N obj\n L c\nCOLUMNS\n", out);
  for (long j = 0; fprintf(out, "    x%ld obj 1 c 1\n", j) > 0 && !ferror(out); ++j) {
  }
  fclose(out);
  return NULL;
}

static void *read_endless(void *arg) {
  KVRenv *env = arg;
  KVRmodel *m = NULL;
  KVRsetreadsignal();
  g_read_code = KVRreadmodel(env, g_fifo, &m);
  snprintf(g_read_message, sizeof g_read_message, "%s", KVRgeterrormsg(env));
  if (m) KVRfreemodel(m);
  __atomic_store_n(&g_read_done, 1, __ATOMIC_SEQ_CST);
  return NULL;
}

static void sleep_ms(long ms) {
  struct timespec t = {ms / 1000, (ms % 1000) * 1000000L};
  nanosleep(&t, NULL);
}

static void (*current_handler(void))(int) {
  struct sigaction now;
  sigaction(SIGINT, NULL, &now);
  return now.sa_handler;
}

int main(void) {
  if (checks_start()) return 1;
  signal(SIGPIPE, SIG_IGN);
  struct sigaction own;
  memset(&own, 0, sizeof own);
  own.sa_handler = own_handler;
  sigemptyset(&own.sa_mask);
  sigaction(SIGINT, &own, NULL);

  char dir[] = "/tmp/kvrintXXXXXX";
  CHECK(mkdtemp(dir) != NULL);
  snprintf(g_fifo, sizeof g_fifo, "%s/endless.mps", dir);
  CHECK(mkfifo(g_fifo, 0600) == 0);

  KVRenv *read_env = NULL;
  CHECK(KVRemptyenv(&read_env) == 0);
  CHECK(KVRsetintparam(read_env, "OutputFlag", 0) == 0);
  CHECK(KVRstartenv(read_env) == 0);
  pthread_t feeder, reader;
  pthread_create(&feeder, NULL, feed, NULL);
  pthread_create(&reader, NULL, read_endless, read_env);
  sleep_ms(300);

  /* A solve that starts and ends while the read goes on. */
  KVRmodel *m = NULL;
  double obj = 1.0;
  CHECK(KVRnewmodel(g_env, &m, "small", 1, &obj, NULL, NULL, NULL, NULL) == 0);
  CHECK(KVRsetsignal(m) == 0);
  CHECK(KVRoptimize(m) == 0);
  KVRfreemodel(m);
  CHECK(!__atomic_load_n(&g_read_done, __ATOMIC_SEQ_CST));
  CHECK(current_handler() != own_handler); /* the read still holds Ctrl-C */

  raise(SIGINT);
  for (int waited = 0; waited < 10000 && !__atomic_load_n(&g_read_done, __ATOMIC_SEQ_CST);
       waited += 10)
    sleep_ms(10);
  CHECK(__atomic_load_n(&g_read_done, __ATOMIC_SEQ_CST));
  if (!g_read_done) {
    /* A read that did not stop would hang the program at exit: report and leave at once. */
    fprintf(stderr, "the read did not stop on SIGINT\n");
    int code = checks_finish();
    fflush(stdout);
    fflush(stderr);
    _exit(code);
  }
  pthread_join(reader, NULL);
  pthread_join(feeder, NULL);
  CHECK(g_read_code == KVR_ERROR_FILE_READ);
  CHECK(strstr(g_read_message, "reading stopped by Ctrl-C") != NULL);
  CHECK(g_own_calls == 0);
  CHECK(current_handler() == own_handler);
  raise(SIGINT);
  CHECK(g_own_calls == 1);

  KVRfreeenv(read_env);
  unlink(g_fifo);
  rmdir(dir);
  return checks_finish();
}
