// C entry points used by optimization callbacks: registration, queries by "what" code, user
// solutions, lazy constraints and the multi-objective controls.
#include <cmath>
#include <cstring>

#include "engine/engine.h"
#include "model/integral.h"
#include "model/model.h"
#include "util/error.h"

namespace kvr {
namespace {

enum class WhatType { Int = 1, Dbl = 2, Str = 3 };

struct WhatInfo {
  int what;
  const char *name;
  WhatType type;
  bool array;
};

const WhatInfo kWhats[] = {
    {KVR_CB_PRE_COLDEL, "PRE_COLDEL", WhatType::Int, false},
    {KVR_CB_PRE_ROWDEL, "PRE_ROWDEL", WhatType::Int, false},
    {KVR_CB_PRE_SENCHG, "PRE_SENCHG", WhatType::Int, false},
    {KVR_CB_PRE_BNDCHG, "PRE_BNDCHG", WhatType::Int, false},
    {KVR_CB_PRE_COECHG, "PRE_COECHG", WhatType::Int, false},
    {KVR_CB_SPX_ITRCNT, "SPX_ITRCNT", WhatType::Dbl, false},
    {KVR_CB_SPX_OBJVAL, "SPX_OBJVAL", WhatType::Dbl, false},
    {KVR_CB_SPX_PRIMINF, "SPX_PRIMINF", WhatType::Dbl, false},
    {KVR_CB_SPX_DUALINF, "SPX_DUALINF", WhatType::Dbl, false},
    {KVR_CB_SPX_ISPERT, "SPX_ISPERT", WhatType::Int, false},
    {KVR_CB_MIP_OBJBST, "MIP_OBJBST", WhatType::Dbl, false},
    {KVR_CB_MIP_OBJBND, "MIP_OBJBND", WhatType::Dbl, false},
    {KVR_CB_MIP_NODCNT, "MIP_NODCNT", WhatType::Dbl, false},
    {KVR_CB_MIP_SOLCNT, "MIP_SOLCNT", WhatType::Int, false},
    {KVR_CB_MIP_CUTCNT, "MIP_CUTCNT", WhatType::Int, false},
    {KVR_CB_MIP_NODLFT, "MIP_NODLFT", WhatType::Dbl, false},
    {KVR_CB_MIP_ITRCNT, "MIP_ITRCNT", WhatType::Dbl, false},
    {KVR_CB_MIP_OPENSCENARIOS, "MIP_OPENSCENARIOS", WhatType::Int, false},
    {KVR_CB_MIP_PHASE, "MIP_PHASE", WhatType::Int, false},
    {KVR_CB_MIPSOL_SOL, "MIPSOL_SOL", WhatType::Dbl, true},
    {KVR_CB_MIPSOL_OBJ, "MIPSOL_OBJ", WhatType::Dbl, false},
    {KVR_CB_MIPSOL_OBJBST, "MIPSOL_OBJBST", WhatType::Dbl, false},
    {KVR_CB_MIPSOL_OBJBND, "MIPSOL_OBJBND", WhatType::Dbl, false},
    {KVR_CB_MIPSOL_NODCNT, "MIPSOL_NODCNT", WhatType::Dbl, false},
    {KVR_CB_MIPSOL_SOLCNT, "MIPSOL_SOLCNT", WhatType::Int, false},
    {KVR_CB_MIPSOL_OPENSCENARIOS, "MIPSOL_OPENSCENARIOS", WhatType::Int, false},
    {KVR_CB_MIPSOL_PHASE, "MIPSOL_PHASE", WhatType::Int, false},
    {KVR_CB_MIPNODE_STATUS, "MIPNODE_STATUS", WhatType::Int, false},
    {KVR_CB_MIPNODE_REL, "MIPNODE_REL", WhatType::Dbl, true},
    {KVR_CB_MIPNODE_OBJBST, "MIPNODE_OBJBST", WhatType::Dbl, false},
    {KVR_CB_MIPNODE_OBJBND, "MIPNODE_OBJBND", WhatType::Dbl, false},
    {KVR_CB_MIPNODE_NODCNT, "MIPNODE_NODCNT", WhatType::Dbl, false},
    {KVR_CB_MIPNODE_SOLCNT, "MIPNODE_SOLCNT", WhatType::Int, false},
    {KVR_CB_MIPNODE_BRVAR, "MIPNODE_BRVAR", WhatType::Int, false},
    {KVR_CB_MIPNODE_OPENSCENARIOS, "MIPNODE_OPENSCENARIOS", WhatType::Int, false},
    {KVR_CB_MIPNODE_PHASE, "MIPNODE_PHASE", WhatType::Int, false},
    {KVR_CB_MSG_STRING, "MSG_STRING", WhatType::Str, false},
    {KVR_CB_RUNTIME, "RUNTIME", WhatType::Dbl, false},
    {KVR_CB_WORK, "WORK", WhatType::Dbl, false},
    {KVR_CB_BARRIER_ITRCNT, "BARRIER_ITRCNT", WhatType::Int, false},
    {KVR_CB_BARRIER_PRIMOBJ, "BARRIER_PRIMOBJ", WhatType::Dbl, false},
    {KVR_CB_BARRIER_DUALOBJ, "BARRIER_DUALOBJ", WhatType::Dbl, false},
    {KVR_CB_BARRIER_PRIMINF, "BARRIER_PRIMINF", WhatType::Dbl, false},
    {KVR_CB_BARRIER_DUALINF, "BARRIER_DUALINF", WhatType::Dbl, false},
    {KVR_CB_BARRIER_COMPL, "BARRIER_COMPL", WhatType::Dbl, false},
    {KVR_CB_MULTIOBJ_OBJCNT, "MULTIOBJ_OBJCNT", WhatType::Int, false},
    {KVR_CB_MULTIOBJ_SOLCNT, "MULTIOBJ_SOLCNT", WhatType::Int, false},
    {KVR_CB_MULTIOBJ_SOL, "MULTIOBJ_SOL", WhatType::Dbl, true},
    {KVR_CB_IIS_CONSTRMIN, "IIS_CONSTRMIN", WhatType::Int, false},
    {KVR_CB_IIS_CONSTRMAX, "IIS_CONSTRMAX", WhatType::Int, false},
    {KVR_CB_IIS_CONSTRGUESS, "IIS_CONSTRGUESS", WhatType::Int, false},
    {KVR_CB_IIS_BOUNDMIN, "IIS_BOUNDMIN", WhatType::Int, false},
    {KVR_CB_IIS_BOUNDMAX, "IIS_BOUNDMAX", WhatType::Int, false},
    {KVR_CB_IIS_BOUNDGUESS, "IIS_BOUNDGUESS", WhatType::Int, false},
};

const char *where_name(int where) {
  static const char *const names[] = {"POLLING", "PRESOLVE", "SIMPLEX", "MIP",      "MIPSOL",
                                      "MIPNODE", "MESSAGE",  "BARRIER", "MULTIOBJ", "IIS"};
  return where >= 0 && where <= 9 ? names[where] : "unknown";
}

const WhatInfo &what_info(int what) {
  for (const WhatInfo &w : kWhats)
    if (w.what == what) return w;
  fail(KVR_ERROR_INVALID_ARGUMENT, "Unknown callback 'what' code %d", what);
}

// The "where" a what code belongs to (-1: valid everywhere).
int what_where(int what) {
  if (what == KVR_CB_RUNTIME || what == KVR_CB_WORK) return -1;
  switch (what / 1000) {
    case 1:
      return KVR_CB_PRESOLVE;
    case 2:
      return KVR_CB_SIMPLEX;
    case 3:
      return KVR_CB_MIP;
    case 4:
      return KVR_CB_MIPSOL;
    case 5:
      return KVR_CB_MIPNODE;
    case 6:
      return KVR_CB_MESSAGE;
    case 7:
      return KVR_CB_BARRIER;
    case 8:
      return KVR_CB_MULTIOBJ;
    case 9:
      return KVR_CB_IIS;
    default:
      return -2;
  }
}

CallbackData &data_of(void *cbdata) {
  auto *cb = static_cast<CallbackData *>(cbdata);
  if (!cb->ctx) fail(KVR_ERROR_CALLBACK, "Callback data used outside of its callback");
  return *cb;
}

// Runs body with the error message stored on the model being optimized.
template <class Body>
int with_callback(void *cbdata, Body &&body) {
  if (!cbdata) return KVR_ERROR_NULL_ARGUMENT;
  auto *cb = static_cast<CallbackData *>(cbdata);
  if (!cb->ctx || !cb->ctx->model) return KVR_ERROR_CALLBACK;
  return cb->ctx->model->run([&] { body(*cb); });
}

LinRow make_row(const CallbackData &cb, int len, const int *ind, const double *val, char sense,
                double rhs, const char *what) {
  const int n = cb.ctx->user_vars;
  if (len < 0) fail(KVR_ERROR_INVALID_ARGUMENT, "%s: negative length %d", what, len);
  if (len > 0 && (!ind || !val)) fail(KVR_ERROR_NULL_ARGUMENT, "%s: no index or value array", what);
  if (sense != KVR_LESS_EQUAL && sense != KVR_GREATER_EQUAL && sense != KVR_EQUAL)
    fail(KVR_ERROR_INVALID_ARGUMENT, "%s: invalid sense '%c'", what, sense);
  if (!std::isfinite(rhs) || std::fabs(rhs) >= KVR_INFINITY)
    fail(KVR_ERROR_INVALID_ARGUMENT, "%s: right-hand side %g is not finite", what, rhs);
  LinRow row;
  row.sense = sense;
  row.rhs = rhs;
  for (int k = 0; k < len; ++k) {
    if (ind[k] < 0 || ind[k] >= n)
      fail(KVR_ERROR_INDEX_OUT_OF_RANGE, "%s: variable index %d out of range (0 to %d)", what,
           ind[k], n - 1);
    if (!std::isfinite(val[k]))
      fail(KVR_ERROR_INVALID_ARGUMENT, "%s: coefficient %g of variable %d is not finite", what,
           val[k], ind[k]);
    if (val[k] == 0.0) continue;
    row.ind.push_back(ind[k]);
    row.val.push_back(val[k]);
  }
  return row;
}

// Objective of a complete user solution that satisfies the user's model (and the lazy
// constraints so far), else NaN.
double feasible_objective(const SolveContext &ctx, const ModelData &m,
                          const std::vector<double> &x) {
  const double ftol = ctx.params->get_dbl(ParamId::FeasibilityTol);
  const double itol = ctx.params->get_dbl(ParamId::IntFeasTol);
  const int n = m.num_vars();
  for (int j = 0; j < n; ++j) {
    double v = x[j];
    if (v == KVR_UNDEFINED || !std::isfinite(v)) return kNaN;
    if (v < m.vars.lb[j] - ftol || v > m.vars.ub[j] + ftol) return kNaN;
    char t = m.vars.vtype[j];
    if ((t == KVR_INTEGER || t == KVR_BINARY) && std::fabs(v - std::round(v)) > itol) return kNaN;
  }
  const SparseMatrix &A = m.constrs.rows;
  for (int i = 0; i < m.num_constrs(); ++i) {
    double act = A.row_value(i, x.data());
    double rhs = m.constrs.rhs[i];
    char s = m.constrs.sense[i];
    if ((s == KVR_LESS_EQUAL && act > rhs + ftol) || (s == KVR_GREATER_EQUAL && act < rhs - ftol) ||
        (s == KVR_EQUAL && std::fabs(act - rhs) > ftol))
      return kNaN;
  }
  for (const LinRow &row : ctx.lazy)
    if (row.violation(x.data()) > ftol) return kNaN;
  return m.objective_value(x.data());
}

}  // namespace
}  // namespace kvr

using kvr::CallbackData;
using kvr::fail;

extern "C" {

int KVRsetcallbackfunc(KVRmodel *model, KVRcallback cb, void *usrdata) {
  return kvr::run_on_model(model, [&] {
    model->callback = cb;
    model->cbusrdata = cb ? usrdata : nullptr;
    model->callback_wheres = 0;
  });
}

int KVRsetcallbackwheres(KVRmodel *model, int wheremask) {
  return kvr::run_on_model(model, [&] {
    if (wheremask < 0 || wheremask >= (1 << (KVR_CB_IIS + 1)))
      fail(KVR_ERROR_INVALID_ARGUMENT, "Callback places %d: not a set of where codes 0 to %d",
           wheremask, KVR_CB_IIS);
    model->callback_wheres = wheremask;
  });
}

int KVRgetcallbackfunc(KVRmodel *model, KVRcallback *cbP) {
  return kvr::run_on_model(model, [&] {
    if (!cbP) fail(KVR_ERROR_NULL_ARGUMENT, "No place for the callback function given");
    *cbP = model->callback;
  });
}

int KVRgetcbwhatinfo(void *cbdata, int what, int *typeP, int *sizeP) {
  return kvr::with_callback(cbdata, [&](CallbackData &cb) {
    const kvr::WhatInfo &w = kvr::what_info(what);
    if (typeP) *typeP = static_cast<int>(w.type);
    if (sizeP) *sizeP = w.array ? cb.ctx->user_vars : 1;
  });
}

int KVRcbget(void *cbdata, int where, int what, void *resultP) {
  return kvr::with_callback(cbdata, [&](CallbackData &cb) {
    if (!resultP) fail(KVR_ERROR_NULL_ARGUMENT, "No place for the callback value given");
    if (where != cb.where)
      fail(KVR_ERROR_INVALID_ARGUMENT, "Callback query for where=%d (%s) inside a %s callback",
           where, kvr::where_name(where), kvr::where_name(cb.where));
    const kvr::WhatInfo &w = kvr::what_info(what);
    int group = kvr::what_where(what);
    if (group == KVR_CB_MIPNODE && !cb.ctx->caps.node_relaxation)
      fail(KVR_ERROR_NOT_SUPPORTED,
           "%s is not available: the engine does not report node relaxations to callbacks, so "
           "MIPNODE callbacks never occur",
           w.name);
    if (group >= 0 && group != cb.where)
      fail(KVR_ERROR_INVALID_ARGUMENT, "%s cannot be queried in a %s callback", w.name,
           kvr::where_name(cb.where));
    if (w.array) {
      if (!cb.sol) fail(KVR_ERROR_DATA_NOT_AVAILABLE, "%s is not available here", w.name);
      const size_t n = static_cast<size_t>(cb.ctx->user_vars);
      std::memcpy(resultP, cb.sol, sizeof(double) * n);
      if (cb.where == KVR_CB_MIPSOL && cb.ctx->engine_model)
        kvr::round_integral(*cb.ctx->engine_model,
                            cb.ctx->params->get_dbl(kvr::ParamId::IntFeasTol),
                            static_cast<double *>(resultP), n);
      return;
    }
    if (w.type == kvr::WhatType::Str) {
      if (!cb.msg) fail(KVR_ERROR_DATA_NOT_AVAILABLE, "%s is not available here", w.name);
      *static_cast<const char **>(resultP) = cb.msg;
      return;
    }
    if (!cb.has(what))
      fail(KVR_ERROR_DATA_NOT_AVAILABLE, "%s is not reported by the engine in %s callbacks", w.name,
           kvr::where_name(cb.where));
    double v = cb.get(what);
    if (w.type == kvr::WhatType::Int)
      *static_cast<int *>(resultP) = static_cast<int>(v);
    else
      *static_cast<double *>(resultP) = v;
  });
}

int KVRcbsolution(void *cbdata, const double *solution, double *objvalP) {
  return kvr::with_callback(cbdata, [&](CallbackData &cb) {
    if (cb.where != KVR_CB_MIP && cb.where != KVR_CB_MIPSOL && cb.where != KVR_CB_MIPNODE)
      fail(KVR_ERROR_CALLBACK,
           "Solutions can be handed over only in MIP, MIPSOL and MIPNODE callbacks");
    if (!solution) fail(KVR_ERROR_NULL_ARGUMENT, "No solution array given");
    kvr::SolveContext &ctx = *cb.ctx;
    std::vector<double> x(solution, solution + ctx.user_vars);
    double obj = kvr::kNaN;
    // Only a complete solution of a model the engine takes unchanged can be checked here; other
    // solutions go to the engine, which completes and checks them.
    if (!ctx.rewritten) obj = kvr::feasible_objective(ctx, *ctx.engine_model, x);
    if (!std::isnan(obj)) ctx.accepted_user_solutions.push_back(x);
    ctx.user_solutions.push_back(std::move(x));
    if (objvalP) *objvalP = std::isnan(obj) ? KVR_INFINITY : obj;
  });
}

int KVRcbcut(void *cbdata, int cutlen, const int *cutind, const double *cutval, char cutsense,
             double cutrhs) {
  return kvr::with_callback(cbdata, [&](CallbackData &cb) {
    if (!cb.ctx->caps.user_cuts)
      fail(KVR_ERROR_NOT_SUPPORTED,
           "User cuts are not supported: the engine offers no way for callbacks to add cutting "
           "planes to node relaxations");
    if (cb.where != KVR_CB_MIPNODE)
      fail(KVR_ERROR_CALLBACK, "User cuts can be added only in MIPNODE callbacks");
    cb.ctx->cuts.push_back(kvr::make_row(cb, cutlen, cutind, cutval, cutsense, cutrhs, "User cut"));
  });
}

int KVRcblazy(void *cbdata, int lazylen, const int *lazyind, const double *lazyval, char lazysense,
              double lazyrhs) {
  return kvr::with_callback(cbdata, [&](CallbackData &cb) {
    const bool at_node = cb.where == KVR_CB_MIPNODE && cb.ctx->caps.lazy_in_search;
    if (cb.where != KVR_CB_MIPSOL && !at_node)
      fail(KVR_ERROR_CALLBACK,
           "Lazy constraints can be added only in MIPSOL and MIPNODE callbacks");
    kvr::LinRow row =
        kvr::make_row(cb, lazylen, lazyind, lazyval, lazysense, lazyrhs, "Lazy constraint");
    kvr::SolveContext &ctx = *cb.ctx;
    if (cb.sol && row.violation(cb.sol) > ctx.params->get_dbl(kvr::ParamId::FeasibilityTol))
      ctx.lazy_violated = true;
    ctx.lazy.push_back(std::move(row));
  });
}

int KVRcbproceed(void *cbdata) {
  // Proceeding skips the phases that come before the tree search. The engine has none that a
  // callback can see (MIP_PHASE always reports the search phase), so there is nothing to skip.
  return kvr::with_callback(cbdata, [&](CallbackData &) {});
}

int KVRcbstoponemultiobj(KVRmodel *model, void *cbdata, int objnum) {
  return kvr::run_on_model(model, [&] {
    if (!cbdata) fail(KVR_ERROR_NULL_ARGUMENT, "No callback data given");
    CallbackData &cb = kvr::data_of(cbdata);
    kvr::SolveContext &ctx = *cb.ctx;
    if (ctx.model != model)
      fail(KVR_ERROR_INVALID_ARGUMENT, "The callback data belongs to another model");
    if (ctx.pass_objectives.empty())
      fail(KVR_ERROR_INVALID_ARGUMENT, "No multi-objective optimization is running");
    int numobj = static_cast<int>(model->data.objn.size());
    if (objnum < 0 || objnum >= numobj)
      fail(KVR_ERROR_INDEX_OUT_OF_RANGE, "Objective %d does not exist (0 to %d)", objnum,
           numobj - 1);
    ctx.stop_objective = objnum;
  });
}

}  // extern "C"
