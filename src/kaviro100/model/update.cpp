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

// Notes in the engine's state the elements the change log changes in place (indices as of the
// last update, before this update's deletions).
void note_changes(EngineState &e, const PendingChanges &p, const ModelData &d) {
  for (const Change &c : p.log) {
    if (c.kind == ChangeKind::Coeff) {
      e.changed_coeffs.emplace_back(c.elem, c.sub);
    } else if (c.kind == ChangeKind::Objective) {
      e.objective_replaced = true;
    } else if (c.kind != ChangeKind::Attr) {
      e.scan_all = true;  // another objective or quadratic terms
    } else if (const AttrDef &def = attr_def(c.attr); def.compared) {
      // The objective's sense and constant are always compared; other writes are not given.
      (def.cls == AttrClass::Var ? e.changed_vars : e.changed_constrs).push_back(c.elem);
    }
  }
  // A long list costs more than comparing everything.
  const size_t limit = static_cast<size_t>(d.num_vars() + d.num_constrs()) + 100;
  if (e.changed_vars.size() + e.changed_constrs.size() + e.changed_coeffs.size() > limit)
    e.scan_all = true;
  if (e.scan_all) {
    e.changed_vars.clear();
    e.changed_constrs.clear();
    e.changed_coeffs.clear();
  }
}

// Renumbers a list of changed elements, or of changed coefficients by their row or column
// (`index` picks it from an entry), after a deletion, dropping the entries deleted.
template <class T, class Index>
void renumber(std::vector<T> &list, const Renumbering &r, Index index) {
  size_t out = 0;
  for (T entry : list) {
    int &i = index(entry);
    if (i >= static_cast<int>(r.size()) || r[i] < 0) continue;
    i = r[i];
    list[out++] = entry;
  }
  list.resize(out);
}

int &itself(int &i) { return i; }
int &row_of(std::pair<int, int> &c) { return c.first; }
int &column_of(std::pair<int, int> &c) { return c.second; }

// Renumbers the engine's lists after deleting variables ('V') or constraints ('C') and records
// the deletion for it.
void note_deletion(EngineState *engine, char kind, Renumbering r) {
  if (!engine) return;
  renumber(kind == 'V' ? engine->changed_vars : engine->changed_constrs, r, itself);
  renumber(engine->changed_coeffs, r, kind == 'V' ? column_of : row_of);
  engine->deletions.emplace_back(kind, std::move(r));
}

void delete_elements(ModelData &d, const PendingChanges &p, EngineState *engine) {
  // General constraints first: deleting variables deletes (and renumbers) the general
  // constraints that lose their resultant, so the user's indices must be applied before.
  if (auto r = renumbering(d.gens.size(), p.del_gens); !r.empty()) d.delete_gens(r);
  if (auto r = renumbering(d.qconstrs.size(), p.del_qconstrs); !r.empty()) d.delete_qconstrs(r);
  if (auto r = renumbering(d.sos.size(), p.del_sos); !r.empty()) d.delete_sos(r);
  if (auto r = renumbering(d.num_constrs(), p.del_constrs); !r.empty()) {
    d.delete_constrs(r);
    note_deletion(engine, 'C', std::move(r));
  }
  if (auto r = renumbering(d.num_vars(), p.del_vars); !r.empty()) {
    d.delete_vars(r);
    note_deletion(engine, 'V', std::move(r));
  }
}

}  // namespace

void update_model(kvr_model *model) {
  PendingChanges &p = model->pending;
  const bool changed = model->changed_since_update || !p.empty();
  if (!p.empty()) {
    if (model->engine_state) note_changes(*model->engine_state, p, model->data);
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

void discard_solution(kvr_model *model) {
  recycle_solution(model);
  model->sol.clear();
}

void recycle_solution(kvr_model *model) {
  if (!model->engine_state) return;
  Solution &sol = model->sol;
  EngineState::Spare &spare = model->engine_state->spare;
  // A vector the solution did not use keeps the spare one.
  auto keep = [](std::vector<double> &from, std::vector<double> &to) {
    if (from.capacity() > 0) to = std::move(from);
  };
  keep(sol.x, spare.x), keep(sol.slack, spare.slack), keep(sol.rc, spare.rc),
      keep(sol.pi, spare.pi);
}

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
