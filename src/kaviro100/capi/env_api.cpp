// C entry points for environments, logging and version information.
#include <cstdlib>
#include <memory>

#include "env/env.h"
#include "util/error.h"
#include "util/live.h"

namespace {

const char kNoEnvMessage[] = "No environment";

}  // namespace

extern "C" {

int KVRemptyenvadvinternal(KVRenv **envP, int major, int minor, int technical) {
  if (!envP) return KVR_ERROR_NULL_ARGUMENT;
  *envP = nullptr;
  auto env = std::make_unique<kvr_env>();
  env->user_created = true;
  int code = env->run([&] {
    if (major != KVR_VERSION_MAJOR || minor != KVR_VERSION_MINOR)
      kvr::fail(KVR_ERROR_INVALID_ARGUMENT,
                "Version number is %d.%d, linked library version is %d.%d.%d", major, minor,
                KVR_VERSION_MAJOR, KVR_VERSION_MINOR, KVR_VERSION_TECHNICAL);
    (void)technical;  // technical releases of one minor version are interchangeable
  });
  *envP = env.release();
  return code;
}

int KVRemptyenv(KVRenv **envP) {
  return KVRemptyenvadvinternal(envP, KVR_VERSION_MAJOR, KVR_VERSION_MINOR, KVR_VERSION_TECHNICAL);
}

int KVRloadenv(KVRenv **envP, const char *logfilename) {
  int code = KVRemptyenv(envP);
  if (code) return code;
  if (logfilename && *logfilename && (code = KVRsetstrparam(*envP, "LogFile", logfilename)))
    return code;
  return KVRstartenv(*envP);
}

int KVRstartenv(KVRenv *env) {
  if (int status = kvr::handle_status(env)) return status;
  return env->run([&] {
    kvr::check_remote_settings(env);
    env->sync_logfile();
    env->started = true;
  });
}

// Environments of models (KVRgetenv) and sub-environments die with their owner; only the
// environments made by KVRemptyenv/KVRloadenv are freed here.
void KVRfreeenv(KVRenv *env) {
  if (kvr::is_live(env) && env->user_created) delete env;
}

const char *KVRgeterrormsg(KVRenv *env) {
  if (!env) return kNoEnvMessage;
  return kvr::is_live(env) ? env->errmsg.c_str() : kvr::kNotLiveMessage;
}

void KVRmsg(KVRenv *env, const char *message) {
  if (kvr::is_live(env) && message) env->log(message);
}

int KVRsetlogcallbackfuncenv(KVRenv *env, KVRlogcallback cb, void *logdata) {
  if (int status = kvr::handle_status(env)) return status;
  env->logcb = cb;
  env->logdata = logdata;
  return 0;
}

int KVRgetlogcallbackfuncenv(KVRenv *env, KVRlogcallback *cbP) {
  if (int status = kvr::handle_status(env)) return status;
  if (!cbP) return KVR_ERROR_NULL_ARGUMENT;
  *cbP = env->logcb;
  return 0;
}

void KVRversion(int *majorP, int *minorP, int *technicalP) {
  if (majorP) *majorP = KVR_VERSION_MAJOR;
  if (minorP) *minorP = KVR_VERSION_MINOR;
  if (technicalP) *technicalP = KVR_VERSION_TECHNICAL;
}

const char *KVRplatform(void) {
#if defined(__linux__) && defined(__x86_64__)
  return "linux64";
#elif defined(__linux__) && defined(__aarch64__)
  return "armlinux64";
#elif defined(__APPLE__)
  return "macos_universal2";
#else
  return "unknown";
#endif
}

int KVRgetcommstats(KVRenv *env, double *sentbytesP, double *recvbytesP, int *sentmsgsP,
                    int *recvmsgsP) {
  if (int status = kvr::handle_status(env)) return status;
  // Every solve is local: nothing is ever sent or received.
  if (sentbytesP) *sentbytesP = 0.0;
  if (recvbytesP) *recvbytesP = 0.0;
  if (sentmsgsP) *sentmsgsP = 0;
  if (recvmsgsP) *recvmsgsP = 0;
  return 0;
}

void KVRfree(void *ptr) { std::free(ptr); }

}  // extern "C"
