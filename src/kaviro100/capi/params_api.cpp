// C entry points for parameters.
#include <cstring>
#include <vector>

#include "engine/applied_params.h"
#include "env/env.h"
#include "io/paramfile.h"
#include "params/params.h"
#include "util/error.h"
#include "util/interrupt.h"
#include "util/live.h"

namespace {

using kvr::ParamId;
using kvr::ParamType;

// Resolves a parameter name or throws UNKNOWN_PARAMETER / NULL_ARGUMENT.
ParamId lookup(const char *name) {
  if (!name) kvr::fail(KVR_ERROR_NULL_ARGUMENT, "No parameter name given");
  ParamId id = kvr::find_param(name);
  if (id == ParamId::Count) kvr::fail(KVR_ERROR_UNKNOWN_PARAMETER, "Unknown parameter '%s'", name);
  return id;
}

ParamId lookup_typed(const char *name, ParamType type) {
  ParamId id = lookup(name);
  const kvr::ParamDef &d = kvr::param_def(id);
  if (d.type != type) {
    static const char *const kTypeNames[] = {"", "an integer", "a double", "a string"};
    kvr::fail(KVR_ERROR_INVALID_ARGUMENT, "Parameter %s is not %s parameter", d.name,
              kTypeNames[static_cast<int>(type)]);
  }
  return id;
}

void copy_str(char *dst, const std::string &src) {
  size_t n = std::min(src.size(), static_cast<size_t>(KVR_MAX_STRLEN - 1));
  std::memcpy(dst, src.data(), n);
  dst[n] = '\0';
}

template <class Body>
int with_env(KVRenv *env, Body &&body) {
  if (int status = kvr::handle_status(env)) return status;
  return env->run(body);
}

}  // namespace

extern "C" {

int KVRgetparamtype(KVRenv *env, const char *paramname) {
  if (!kvr::is_live(env) || !paramname) return -1;
  ParamId id = kvr::find_param(paramname);
  return id == ParamId::Count ? -1 : static_cast<int>(kvr::param_def(id).type);
}

int KVRgetparamflags(KVRenv *env, const char *paramname, int *flagsP) {
  return with_env(env, [&] {
    ParamId id = lookup(paramname);
    if (flagsP)
      *flagsP = kvr::param_def(id).flags | (kvr::param_applied(id) ? 0 : kvr::kParamFlagNotApplied);
  });
}

int KVRgetparamenginenotes(KVRenv *env, const char *paramname, const char **notesP) {
  return with_env(env, [&] {
    ParamId id = lookup(paramname);
    if (!notesP)
      kvr::fail(KVR_ERROR_NULL_ARGUMENT, "No place given for the notes of %s", paramname);
    thread_local std::string notes;
    notes = kvr::param_engine_notes(id);
    *notesP = notes.c_str();
  });
}

int KVRgetintparam(KVRenv *env, const char *paramname, int *valueP) {
  return with_env(env, [&] {
    ParamId id = lookup_typed(paramname, ParamType::Int);
    if (!valueP)
      kvr::fail(KVR_ERROR_NULL_ARGUMENT, "No place given for the value of %s", paramname);
    *valueP = env->params.get_int(id);
  });
}

int KVRgetdblparam(KVRenv *env, const char *paramname, double *valueP) {
  return with_env(env, [&] {
    ParamId id = lookup_typed(paramname, ParamType::Dbl);
    if (!valueP)
      kvr::fail(KVR_ERROR_NULL_ARGUMENT, "No place given for the value of %s", paramname);
    *valueP = env->params.get_dbl(id);
  });
}

int KVRgetstrparam(KVRenv *env, const char *paramname, char *value) {
  return with_env(env, [&] {
    ParamId id = lookup_typed(paramname, ParamType::Str);
    if (!value) kvr::fail(KVR_ERROR_NULL_ARGUMENT, "No place given for the value of %s", paramname);
    copy_str(value, env->params.get_str(id));
  });
}

int KVRgetlongstrparam(KVRenv *env, const char *paramname, char *value, int size, int *lengthP) {
  return with_env(env, [&] {
    ParamId id = lookup_typed(paramname, ParamType::Str);
    const std::string &s = env->params.get_str(id);
    if (lengthP) *lengthP = static_cast<int>(s.size());
    if (value && size > 0) {
      size_t n = std::min(s.size(), static_cast<size_t>(size - 1));
      std::memcpy(value, s.data(), n);
      value[n] = '\0';
    }
  });
}

int KVRsetintparam(KVRenv *env, const char *paramname, int value) {
  return with_env(env, [&] {
    ParamId id = lookup(paramname);
    env->params.set_int(id, value);
    kvr::after_param_change(env, id);
  });
}

int KVRsetdblparam(KVRenv *env, const char *paramname, double value) {
  return with_env(env, [&] {
    ParamId id = lookup(paramname);
    env->params.set_dbl(id, value);
    kvr::after_param_change(env, id);
  });
}

int KVRsetstrparam(KVRenv *env, const char *paramname, const char *value) {
  return with_env(env, [&] {
    ParamId id = lookup_typed(paramname, ParamType::Str);
    if (!value) kvr::fail(KVR_ERROR_NULL_ARGUMENT, "No value given for parameter %s", paramname);
    kvr::ParamValues before = env->params;
    env->params.set_str(id, value);
    try {
      kvr::after_param_change(env, id);
    } catch (...) {
      env->params = std::move(before);  // a log file that cannot be opened is not kept
      throw;
    }
  });
}

int KVRsetparam(KVRenv *env, const char *paramname, const char *value) {
  return with_env(env, [&] {
    ParamId id = lookup(paramname);
    if (!value) kvr::fail(KVR_ERROR_NULL_ARGUMENT, "No value given for parameter %s", paramname);
    env->params.set_text(id, value);
    kvr::after_param_change(env, id);
  });
}

int KVRgetintparaminfo(KVRenv *env, const char *paramname, int *valueP, int *minP, int *maxP,
                       int *defP) {
  return with_env(env, [&] {
    ParamId id = lookup_typed(paramname, ParamType::Int);
    const kvr::ParamDef &d = kvr::param_def(id);
    if (valueP) *valueP = env->params.get_int(id);
    if (minP) *minP = static_cast<int>(d.min);
    if (maxP) *maxP = static_cast<int>(d.max);
    if (defP) *defP = static_cast<int>(d.def);
  });
}

int KVRgetdblparaminfo(KVRenv *env, const char *paramname, double *valueP, double *minP,
                       double *maxP, double *defP) {
  return with_env(env, [&] {
    ParamId id = lookup_typed(paramname, ParamType::Dbl);
    const kvr::ParamDef &d = kvr::param_def(id);
    if (valueP) *valueP = env->params.get_dbl(id);
    if (minP) *minP = d.min;
    if (maxP) *maxP = d.max;
    if (defP) *defP = d.def;
  });
}

int KVRgetstrparaminfo(KVRenv *env, const char *paramname, char *valueP, char *defP) {
  return with_env(env, [&] {
    ParamId id = lookup_typed(paramname, ParamType::Str);
    if (valueP) copy_str(valueP, env->params.get_str(id));
    if (defP) copy_str(defP, kvr::param_def(id).sdef);
  });
}

int KVRresetparams(KVRenv *env) {
  return with_env(env, [&] {
    env->params.reset();
    env->sync_logfile();
  });
}

// The parameter table is the same for every environment, so env may be NULL here.
int KVRgetnumparams(KVRenv *env) { return kvr::param_count(); }

int KVRgetparamname(KVRenv *env, int i, char **paramnameP) {
  std::string scratch;
  std::string &message = kvr::is_live(env) ? env->errmsg : scratch;
  return kvr::guarded(message, [&] {
    if (i < 0 || i >= kvr::param_count())
      kvr::fail(KVR_ERROR_INDEX_OUT_OF_RANGE, "Parameter index %d out of range [0, %d)", i,
                kvr::param_count());
    if (!paramnameP) kvr::fail(KVR_ERROR_NULL_ARGUMENT, "No place given for the name");
    *paramnameP = const_cast<char *>(kvr::param_def(static_cast<ParamId>(i)).name);
  });
}

int KVRreadparams(KVRenv *env, const char *filename) {
  return with_env(env, [&] {
    if (!filename) kvr::fail(KVR_ERROR_NULL_ARGUMENT, "No file name given");
    kvr::ParamValues before = env->params;
    kvr::ReadInterruptScope interrupt;
    kvr::read_param_file(env->params, filename);
    try {
      env->sync_logfile();
    } catch (...) {
      env->params = std::move(before);
      throw;
    }
  });
}

int KVRwriteparams(KVRenv *env, const char *filename) {
  return with_env(env, [&] {
    if (!filename) kvr::fail(KVR_ERROR_NULL_ARGUMENT, "No file name given");
    kvr::write_param_file(env->params, filename);
  });
}

int KVRfixtuneparam(KVRenv *env, const char *paramname) {
  return with_env(env,
                  [&] { env->params.tune_fixed[static_cast<size_t>(lookup(paramname))] = true; });
}

}  // extern "C"
