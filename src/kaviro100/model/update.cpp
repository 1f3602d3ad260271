// The model update: queued changes, then queued additions, then deletions with renumbering.
#include <algorithm>

#include "model/model.h"

namespace kvr {

bool PendingChanges::has_additions() const {
  return added.num_vars() > 0 || added.num_constrs() > 0 || added.qconstrs.size() > 0 ||
         added.sos.size() > 0 || added.gens.size() > 0;
}

bool PendingChanges::empty() const {
  return log.empty() && !has_additions() && del_vars.empty() && del_constrs.empty() &&
         del_sos.empty() && del_qconstrs.empty() && del_gens.empty();
}

void PendingChanges::clear() { *this = PendingChanges(); }

namespace {

// New positions after deleting the listed elements (duplicates allowed); empty when none go.
Renumbering renumbering(int n, const std::vector<int> &del) {
  if (del.empty()) return {};
  Renumbering newpos(static_cast<size_t>(n), 0);
  for (int i : del) newpos[i] = -1;
  int next = 0;
  for (int &p : newpos) p = p < 0 ? -1 : next++;
  return newpos;
}

void delete_elements(ModelData &d, const PendingChanges &p, EngineState *engine) {
  // General constraints first: deleting variables deletes (and renumbers) the general
  // constraints that lose their resultant, so the user's indices must be applied before.
  if (auto r = renumbering(d.gens.size(), p.del_gens); !r.empty()) d.delete_gens(r);
  if (auto r = renumbering(d.qconstrs.size(), p.del_qconstrs); !r.empty()) d.delete_qconstrs(r);
  if (auto r = renumbering(d.sos.size(), p.del_sos); !r.empty()) d.delete_sos(r);
  if (auto r = renumbering(d.num_constrs(), p.del_constrs); !r.empty()) {
    d.delete_constrs(r);
    if (engine) engine->deletions.emplace_back('C', std::move(r));
  }
  if (auto r = renumbering(d.num_vars(), p.del_vars); !r.empty()) {
    d.delete_vars(r);
    if (engine) engine->deletions.emplace_back('V', std::move(r));
  }
}

}  // namespace

void update_model(kvr_model *model) {
  PendingChanges &p = model->pending;
  const bool changed = model->changed_since_update || !p.empty();
  if (!p.empty()) {
    apply_change_log(model->data, p);
    if (p.has_additions()) model->data.append(std::move(p.added), p.added_cols);
    delete_elements(model->data, p, model->engine_state.get());
    p.clear();
  }
  model->changed_since_update = false;
  model->unshown_vars = model->unshown_constrs = 0;
  if (changed) {
    data_changed(model);
    discard_solution(model);
  }
}

const ModelData &shown_data(const kvr_model *m, ModelData &scratch) {
  if (m->unshown_vars == 0 && m->unshown_constrs == 0) return m->data;
  scratch = m->data;
  auto keep_first = [](int n, int keep) {
    Renumbering r(static_cast<size_t>(n), -1);
    for (int i = 0; i < keep; ++i) r[i] = i;
    return r;
  };
  if (m->unshown_constrs > 0)
    scratch.delete_constrs(keep_first(scratch.num_constrs(), shown_constrs(m)));
  if (m->unshown_vars > 0) scratch.delete_vars(keep_first(scratch.num_vars(), shown_vars(m)));
  return scratch;
}

void discard_solution(kvr_model *model) { model->sol.clear(); }

void data_changed(kvr_model *model) { ++model->version; }

void check_modifiable(const kvr_model *model) {
  if (model->optimizing)
    fail(KVR_ERROR_MODEL_MODIFICATION,
         "The model cannot be changed while it is being optimized; change it after KVRoptimize "
         "returns");
}

void check_queryable(const kvr_model *model) {
  if (model->optimizing)
    fail(KVR_ERROR_OPTIMIZATION_IN_PROGRESS,
         "Optimization in progress: query the model after KVRoptimize returns (inside a callback, "
         "use KVRcbget)");
}

int update_mode(const kvr_model *model) { return model->env.params.get_int(ParamId::UpdateMode); }

const SparseMatrix &column_view(kvr_model *model) {
  if (model->colview_version != model->version) {
    model->colview = model->data.constrs.rows.transposed(model->data.num_vars());
    model->colview_version = model->version;
  }
  return model->colview;
}

}  // namespace kvr
