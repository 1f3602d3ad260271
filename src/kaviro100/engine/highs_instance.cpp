#include "engine/highs_instance.h"

#include <limits>

// The engine's C++ class is needed only to free an instance the way its C interface does minus
// the scheduler shutdown that comes with it there.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wunused-variable"
#pragma GCC diagnostic ignored "-Wunused-parameter"
#include "Highs.h"
#pragma GCC diagnostic pop

namespace kvr {

void release_highs(void *highs) { delete static_cast<Highs *>(highs); }

double HighsInstance::info_dbl(const char *name) const {
  double v = kNaN;
  if (Highs_getDoubleInfoValue(h_, name, &v) != kHighsStatusOk) return kNaN;
  return v;
}

long long HighsInstance::info_int(const char *name) const {
  HighsInt type = 0;
  if (Highs_getInfoType(h_, name, &type) != kHighsStatusOk) return 0;
  if (type == kHighsInfoTypeInt64) {
    int64_t v64 = 0;
    return Highs_getInt64InfoValue(h_, name, &v64) == kHighsStatusOk ? std::max<int64_t>(v64, 0)
                                                                     : 0;
  }
  HighsInt v = 0;  // counts the engine did not keep read -1
  return Highs_getIntInfoValue(h_, name, &v) == kHighsStatusOk ? std::max<HighsInt>(v, 0) : 0;
}

namespace {

// The calling thread's use of its scheduler: how many solves and engine events are under way on
// it, and the Threads value its scheduler was made for (-1: none made by a solve of ours).
struct ThreadScheduler {
  int depth = 0;
  int threads = -1;
};
thread_local ThreadScheduler t_sched;

}  // namespace

SchedulerUse::SchedulerUse(int threads, SolveContext &ctx) {
  if (t_sched.depth > 0 && t_sched.threads != -1 && t_sched.threads != threads) {
    ctx.logf("Threads %d ignored: the solve this one runs inside uses %d threads\n", threads,
             t_sched.threads);
    threads_used = t_sched.threads;
  } else {
    threads_used = threads;
    t_sched.threads = threads;
  }
  ++t_sched.depth;
}

SchedulerUse::~SchedulerUse() {
  // The outermost solve of the thread stops the scheduler's workers, so that no thread outlives
  // the solves and the next one may choose another size.
  if (--t_sched.depth == 0) {
    Highs_resetGlobalScheduler(1);
    t_sched.threads = -1;
  }
}

EngineEventScope::EngineEventScope(int threads) : saved_threads_(t_sched.threads) {
  ++t_sched.depth;
  t_sched.threads = threads;
}

EngineEventScope::~EngineEventScope() {
  --t_sched.depth;
  t_sched.threads = saved_threads_;
}

}  // namespace kvr
