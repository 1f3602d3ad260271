// The environment: parameter values, log destinations and the latest error message.
#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "kaviro_c.h"
#include "params/params.h"

struct kvr_env {
  kvr::ParamValues params;
  std::string errmsg;
  bool started = false;
  // Made by KVRemptyenv (freed by KVRfreeenv), not a model's or a solve's own environment.
  bool user_created = false;
  KVRlogcallback logcb = nullptr;
  void *logdata = nullptr;

  // Environments handed out for concurrent and multi-objective passes, owned here.
  std::vector<std::unique_ptr<kvr_env>> concurrent_envs, multiobj_envs;

  kvr_env();
  // A copy for a model: same parameters and log destinations, no error text, no sub-environments.
  kvr_env(const kvr_env &other);
  kvr_env &operator=(const kvr_env &) = delete;
  ~kvr_env();

  // Writes text to the log: the log file and, with LogToConsole 1, the log callback or else
  // the console. Nothing at all when OutputFlag is 0. Lines are split at '\n'.
  void log(std::string_view text);
  // printf-style convenience for log lines.
  void logf(const char *fmt, ...) __attribute__((format(printf, 2, 3)));
  bool output_on() const { return params.get_int(kvr::ParamId::OutputFlag) != 0; }

  // Opens (or reopens) the log file named by the LogFile parameter.
  void sync_logfile();

  // Runs body and stores the message of a failure; returns the error code.
  template <class Body>
  int run(Body &&body) noexcept;

 private:
  std::FILE *logfile_ = nullptr;
  std::string logfile_name_;
  std::string pending_line_;
};

#include "util/error.h"

template <class Body>
int kvr_env::run(Body &&body) noexcept {
  int code = kvr::guarded(errmsg, body);
  if (code == 0) errmsg.clear();
  return code;
}

namespace kvr {
// Applies a parameter change that has effects beyond storing the value (LogFile opens the file).
void after_param_change(kvr_env *env, ParamId id);
// Checks the settings that ask for remote services, which this library does not provide.
void check_remote_settings(const kvr_env *env);
}  // namespace kvr
