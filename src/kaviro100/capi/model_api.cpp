// C entry points for the life of a model: creation, copies, updates, resets and its environment.
#include <algorithm>
#include <memory>
#include <string_view>

#include "capi/build.h"
#include "model/checks.h"
#include "model/model.h"
#include "util/live.h"

extern "C" {

const char *KVRgetmerrormsg(KVRmodel *model) {
  if (!model) return "No model";
  return kvr::is_live(model) ? model->errmsg.c_str() : kvr::kNotLiveMessage;
}

KVRenv *KVRgetenv(KVRmodel *model) { return kvr::is_live(model) ? &model->env : nullptr; }

int KVRnewmodel(KVRenv *env, KVRmodel **modelP, const char *Pname, int numvars, const double *obj,
                const double *lb, const double *ub, const char *vtype,
                const char *const *varnames) {
  if (int status = kvr::handle_status(env)) return status;
  return env->run([&] {
    if (!modelP) kvr::fail(KVR_ERROR_NULL_ARGUMENT, "No place given for the new model");
    *modelP = nullptr;
    if (!env->started)
      kvr::fail(KVR_ERROR_FAILED_TO_CREATE_MODEL,
                "Unable to create the model: the environment has not been started (call "
                "KVRstartenv first)");
    kvr::check_count(numvars, "number of variables");
    kvr::ModelData d;
    if (Pname) {
      if (std::string_view(Pname).size() > KVR_MAX_NAMELEN)
        kvr::fail(KVR_ERROR_INVALID_ARGUMENT, "Model name is too long (at most %d characters)",
                  KVR_MAX_NAMELEN);
      d.set_model_name(Pname);
    }
    kvr::NewVars nv{numvars, obj, lb, ub, vtype, varnames};
    kvr::check_new_vars(nv, 0);
    bool ignore_names = env->params.get_int(kvr::ParamId::IgnoreNames) != 0;
    kvr::append_new_vars(d, nv, ignore_names);
    *modelP = new kvr_model(*env, std::move(d));
  });
}

int KVRfreemodel(KVRmodel *model) {
  if (!model) return 0;
  if (!kvr::is_live(model)) return KVR_ERROR_INVALID_ARGUMENT;  // freed twice, or not a model
  // A model cannot go away under its own optimization (a callback asking for it is refused).
  if (model->optimizing)
    return model->run([&] {
      kvr::fail(KVR_ERROR_OPTIMIZATION_IN_PROGRESS,
                "The model cannot be freed while it is being optimized");
    });
  delete model;
  return 0;
}

KVRmodel *KVRcopymodel(KVRmodel *model) {
  if (!kvr::is_live(model)) return nullptr;
  KVRmodel *copy = nullptr;
  model->run([&] {
    kvr::check_queryable(model);
    // The basis, the sensitivity ranges and an LP's duals and slacks are read from the engine's
    // copy of the model on first use; that copy stays with the original, whose next solve changes
    // it.
    model->sol.ensure_sensitivity();
    model->sol.ensure_basis();
    model->sol.ensure_lp_values();
    copy = new kvr_model(*model);
  });
  return copy;
}

int KVRupdatemodel(KVRmodel *model) {
  return kvr::run_on_model(model, [&] {
    kvr::check_modifiable(model);
    kvr::update_model(model);
  });
}

int KVRsetlogcallbackfunc(KVRmodel *model, KVRlogcallback cb, void *logdata) {
  return kvr::run_on_model(model, [&] {
    model->env.logcb = cb;
    model->env.logdata = logdata;
  });
}

int KVRreset(KVRmodel *model, int clearall) {
  return kvr::run_on_model(model, [&] {
    kvr::check_modifiable(model);
    if (clearall != 0 && clearall != 1)
      kvr::fail(KVR_ERROR_INVALID_ARGUMENT, "Invalid clearall value %d: use 0 or 1", clearall);
    kvr::discard_solution(model);
    model->engine_state.reset();  // the next solve starts cold
    if (!clearall) return;
    using kvr::AttrId;
    kvr::ModelData &d = model->data;
    d.set_num_starts(0);
    for (AttrId id : {AttrId::VarHintVal, AttrId::VarHintPri, AttrId::VBasis, AttrId::PStart})
      d.erase_extra(kvr::AttrClass::Var, static_cast<int>(id));
    for (AttrId id : {AttrId::CBasis, AttrId::DStart})
      d.erase_extra(kvr::AttrClass::Constr, static_cast<int>(id));
  });
}

}  // extern "C"
