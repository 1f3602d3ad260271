#include "env/env.h"

#include <cstdarg>
#include <cstdio>

#include "util/error.h"
#include "util/live.h"
#include "util/strings.h"

kvr_env::kvr_env() { kvr::register_handle(this); }

kvr_env::kvr_env(const kvr_env &other)
    : params(other.params), started(other.started), logcb(other.logcb), logdata(other.logdata) {
  sync_logfile();
  kvr::register_handle(this);
}

kvr_env::~kvr_env() {
  kvr::unregister_handle(this);
  if (!pending_line_.empty()) log("\n");
  if (logfile_) std::fclose(logfile_);
}

void kvr_env::sync_logfile() {
  const std::string &name = params.get_str(kvr::ParamId::LogFile);
  if (name == logfile_name_ && (logfile_ || name.empty())) return;
  if (logfile_) std::fclose(logfile_);
  logfile_ = nullptr;
  logfile_name_ = name;
  if (name.empty()) return;
  logfile_ = std::fopen(name.c_str(), "a");
  if (!logfile_) {
    logfile_name_.clear();
    kvr::fail(KVR_ERROR_FILE_WRITE, "Unable to open log file '%s'", name.c_str());
  }
}

void kvr_env::log(std::string_view text) {
  if (!output_on() || text.empty()) return;
  // Log lines are delivered whole: partial text waits for its newline.
  pending_line_.append(text);
  size_t start = 0;
  for (size_t nl; (nl = pending_line_.find('\n', start)) != std::string::npos; start = nl + 1) {
    std::string line = pending_line_.substr(start, nl - start + 1);
    if (logfile_) {
      std::fwrite(line.data(), 1, line.size(), logfile_);
      std::fflush(logfile_);
    }
    if (params.get_int(kvr::ParamId::LogToConsole)) {
      if (logcb) {
        logcb(line.data(), logdata);
      } else {
        std::fwrite(line.data(), 1, line.size(), stdout);
        std::fflush(stdout);
      }
    }
  }
  pending_line_.erase(0, start);
}

void kvr_env::logf(const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  std::string s = kvr::vformat(fmt, ap);
  va_end(ap);
  log(s);
}

namespace kvr {

void after_param_change(kvr_env *env, ParamId id) {
  if (id == ParamId::LogFile) env->sync_logfile();
}

void check_remote_settings(const kvr_env *env) {
  const ParamValues &p = env->params;
  auto set = [&](ParamId id) { return !p.get_str(id).empty(); };
  if (set(ParamId::ComputeServer))
    fail(KVR_ERROR_NETWORK,
         "Unable to connect to compute server '%s': this library solves locally only",
         p.get_str(ParamId::ComputeServer).c_str());
  // CSManager names the Dask scheduler of batch optimization; solves themselves stay local.
  if (set(ParamId::CSRouter))
    fail(KVR_ERROR_NETWORK,
         "Unable to reach cluster manager '%s': this library solves locally only",
         p.get_str(ParamId::CSRouter).c_str());
  if (set(ParamId::CloudAccessID) || set(ParamId::CloudSecretKey) || set(ParamId::CloudPool))
    fail(KVR_ERROR_CLOUD, "Unable to start a cloud session: no cloud service is available");
  if (set(ParamId::JobID))
    fail(KVR_ERROR_JOB_REJECTED, "Job '%s' rejected: there is no server that holds remote jobs",
         p.get_str(ParamId::JobID).c_str());
  if (set(ParamId::WorkerPool) || p.get_int(ParamId::DistributedMIPJobs) > 0 ||
      p.get_int(ParamId::ConcurrentJobs) > 0)
    fail(KVR_ERROR_CSWORKER,
         "Distributed optimization needs a worker pool, and this library has none");
  if (set(ParamId::ServerPassword) || set(ParamId::WorkerPassword) || set(ParamId::CSAuthToken) ||
      set(ParamId::CSAPISecret) || set(ParamId::CSAPIAccessID))
    fail(KVR_ERROR_SECURITY, "Credentials were given, but there is no server to present them to");
}

}  // namespace kvr
