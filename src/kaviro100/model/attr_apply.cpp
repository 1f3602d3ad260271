// Applying the queued attribute, coefficient and objective changes at an update. Every change was
// checked when it was queued; here they are carried out in call order, and the ones that touch
// many entries of one structure (coefficients, multi-objective coefficients, quadratic terms) are
// gathered and applied in one pass at the end.
#include <algorithm>
#include <map>
#include <type_traits>
#include <unordered_map>

#include "model/checks.h"
#include "model/pending.h"
#include "util/error.h"

namespace kvr {
namespace {

class Applier {
 public:
  Applier(ModelFields &d, PendingChanges &p) : d_(d), p_(p) {}

  void run() {
    for (const Change &c : p_.log) {
      switch (c.kind) {
        case ChangeKind::Attr:
          attr(c);
          break;
        case ChangeKind::Coeff:
          coeffs_.push_back(c);
          break;
        case ChangeKind::Objective:
          objective(p_.objectives[c.ref]);
          break;
        case ChangeKind::ObjectiveN:
          objective_n(p_.objns[c.ref]);
          break;
        case ChangeKind::PwlObj:
          pwl(std::move(p_.pwls[c.ref]));
          break;
        case ChangeKind::QpTerms: {
          const QuadTerms &t = p_.qpterms[c.ref];
          d_.q.add(static_cast<int>(t.size()), t.row.data(), t.col.data(), t.val.data());
          q_dirty_ = true;
          break;
        }
        case ChangeKind::DelQ:
          d_.q.clear();
          break;
      }
    }
    finish();
  }

  // What the attribute appliers work on.
  ModelFields &data() { return d_; }
  std::string_view str(const Change &c) const { return p_.strings.get(static_cast<size_t>(c.ref)); }

  ObjectiveN &objn(int k) {
    if (static_cast<size_t>(k) >= d_.objn.size()) d_.objn.resize(static_cast<size_t>(k) + 1);
    return d_.objn[k];
  }

  // Coefficients of objective k >= 1 being changed, dense until finish() stores them sparse.
  std::vector<double> &dense(int k) {
    auto it = dense_objn_.find(k);
    if (it != dense_objn_.end()) return it->second;
    std::vector<double> c(static_cast<size_t>(d_.vars.size()), 0.0);
    const ObjectiveN &o = objn(k);
    for (size_t t = 0; t < o.ind.size(); ++t) c[o.ind[t]] += o.val[t];
    return dense_objn_.emplace(k, std::move(c)).first->second;
  }

  // Objectives about to go lose their pending dense coefficients too.
  void resize_objectives(size_t n) {
    for (auto it = dense_objn_.begin(); it != dense_objn_.end();)
      it = static_cast<size_t>(it->first) >= n ? dense_objn_.erase(it) : std::next(it);
    d_.objn.resize(n);
  }

  Scenario &scenario(int k) {
    if (static_cast<size_t>(k) >= d_.scenarios.size())
      d_.scenarios.resize(static_cast<size_t>(k) + 1);
    return d_.scenarios[k];
  }

 private:
  ModelFields &d_;
  PendingChanges &p_;
  std::vector<Change> coeffs_;
  std::map<int, std::vector<double>> dense_objn_;  // objectives >= 1 being changed
  std::unordered_map<int, size_t> pwl_index_;
  bool pwl_indexed_ = false;
  bool q_dirty_ = false;

  void attr(const Change &c);

  void objective(const ObjectiveSet &o) {
    std::fill(d_.vars.obj.begin(), d_.vars.obj.end(), 0.0);
    for (size_t t = 0; t < o.lind.size(); ++t) d_.vars.obj[o.lind[t]] += o.lval[t];
    d_.q = o.q;
    q_dirty_ = false;  // stored normalized when queued
    d_.objcon = o.constant;
    if (o.sense != 0) d_.sense = o.sense;
  }

  void objective_n(const ObjectiveNSet &s) {
    ObjectiveN &dst = objn(s.index);
    if (s.index == 0) {
      std::fill(d_.vars.obj.begin(), d_.vars.obj.end(), 0.0);
      for (size_t t = 0; t < s.obj.ind.size(); ++t) d_.vars.obj[s.obj.ind[t]] += s.obj.val[t];
      d_.objcon = s.obj.constant;
      d_.q.clear();
      q_dirty_ = false;
      dst.priority = s.obj.priority, dst.weight = s.obj.weight, dst.abstol = s.obj.abstol;
      dst.reltol = s.obj.reltol, dst.name = s.obj.name;
      return;
    }
    dense_objn_.erase(s.index);
    dst = s.obj;
  }

  void pwl(PwlObj &&p) {
    if (!pwl_indexed_) {
      for (size_t k = 0; k < d_.pwlobj.size(); ++k) pwl_index_[d_.pwlobj[k].var] = k;
      pwl_indexed_ = true;
    }
    auto it = pwl_index_.find(p.var);
    if (it != pwl_index_.end()) {
      d_.pwlobj[it->second] = std::move(p);  // an empty point list is removed in finish()
    } else if (!p.x.empty()) {
      pwl_index_[p.var] = d_.pwlobj.size();
      d_.pwlobj.push_back(std::move(p));
    }
  }

  void finish() {
    for (auto &[k, c] : dense_objn_) {
      ObjectiveN &o = d_.objn[k];
      o.ind.clear();
      o.val.clear();
      for (size_t j = 0; j < c.size(); ++j)
        if (c[j] != 0.0) o.ind.push_back(static_cast<int>(j)), o.val.push_back(c[j]);
    }
    if (pwl_indexed_)
      d_.pwlobj.erase(std::remove_if(d_.pwlobj.begin(), d_.pwlobj.end(),
                                     [](const PwlObj &p) { return p.x.empty(); }),
                      d_.pwlobj.end());
    if (q_dirty_) d_.q.normalize();
    apply_coeffs();
  }

  // Coefficient changes: the last change of each (row, column) wins; zeros remove entries.
  void apply_coeffs() {
    if (coeffs_.empty()) return;
    std::stable_sort(coeffs_.begin(), coeffs_.end(), [](const Change &a, const Change &b) {
      return a.elem != b.elem ? a.elem < b.elem : a.sub < b.sub;
    });
    SparseMatrix &m = d_.constrs.rows;
    std::vector<SparseMatrix::Entry> added;
    bool removed = false;
    size_t k = 0;
    while (k < coeffs_.size()) {
      const int r = coeffs_[k].elem;
      size_t end = k;
      while (end < coeffs_.size() && coeffs_[end].elem == r) ++end;
      std::unordered_map<int, int64_t> pos;
      for (int64_t e = m.beg[r]; e < m.beg[r + 1]; ++e) pos.emplace(m.ind[e], e);
      for (size_t t = k; t < end; ++t) {
        if (t + 1 < end && coeffs_[t + 1].sub == coeffs_[t].sub) continue;  // a later one wins
        const int col = coeffs_[t].sub;
        const double v = coeffs_[t].num;
        auto it = pos.find(col);
        if (it != pos.end()) {
          m.val[it->second] = v;
          if (v == 0.0) m.ind[it->second] = -1, removed = true;
        } else if (v != 0.0) {
          added.push_back({r, col, v});
        }
      }
      k = end;
    }
    if (removed) {
      int64_t out = 0;
      std::vector<int64_t> nbeg{0};
      nbeg.reserve(m.beg.size());
      for (int r = 0; r < m.rows(); ++r) {
        for (int64_t e = m.beg[r]; e < m.beg[r + 1]; ++e)
          if (m.ind[e] >= 0) m.ind[out] = m.ind[e], m.val[out] = m.val[e], ++out;
        nbeg.push_back(out);
      }
      m.ind.resize(out);
      m.val.resize(out);
      m.beg = std::move(nbeg);
    }
    m.append_entries(added);
  }
};

// ---------------------------------------------------------------- attribute appliers

template <class T>
T stored_as(double v) {
  if constexpr (std::is_integral_v<T>)
    return static_cast<T>(static_cast<int>(v));  // checked integral (or a char code) when queued
  else
    return static_cast<T>(v);
}

template <auto Field>
void apply_model_field(Applier &a, const Change &c) {
  auto &field = a.data().*Field;
  field = stored_as<std::remove_reference_t<decltype(field)>>(c.num);
}
template <auto Field>
void apply_model_text(Applier &a, const Change &c) {
  a.data().*Field = a.str(c);
}

template <auto Part, auto Column>
void apply_column(Applier &a, const Change &c) {
  auto &column = (a.data().*Part).*Column;
  column[c.elem] = stored_as<typename std::remove_reference_t<decltype(column)>::value_type>(c.num);
}

template <auto Part, auto Field>
void apply_item(Applier &a, const Change &c) {
  auto &field = (a.data().*Part).items[c.elem].*Field;
  field = stored_as<std::remove_reference_t<decltype(field)>>(c.num);
}

template <auto Part>
void apply_name(Applier &a, const Change &c) {
  (a.data().*Part).names.set(c.elem, a.str(c));
}

template <auto Part>
void apply_extra_column(Applier &a, const Change &c) {
  auto &part = a.data().*Part;
  part.extra.set(static_cast<int>(c.attr), static_cast<size_t>(part.size()), c.elem, c.num);
}
template <auto Part>
void apply_extra_text(Applier &a, const Change &c) {
  auto &part = a.data().*Part;
  part.extra.set_str(static_cast<int>(c.attr), static_cast<size_t>(part.size()), c.elem, a.str(c));
}

template <auto Field>
void apply_objective_field(Applier &a, const Change &c) {
  auto &field = a.objn(c.sub).*Field;
  field = stored_as<std::remove_reference_t<decltype(field)>>(c.num);
}
template <auto Field>
void apply_objective_text(Applier &a, const Change &c) {
  a.objn(c.sub).*Field = a.str(c);
}

// KVR_UNDEFINED removes a scenario's value (the base model's applies again).
template <auto Map>
void apply_scenario_map(Applier &a, const Change &c) {
  auto &map = a.scenario(c.sub).*Map;
  if (c.num == KVR_UNDEFINED)
    map.erase(c.elem);
  else
    map[c.elem] = c.num;
}
template <auto Field>
void apply_scenario_text(Applier &a, const Change &c) {
  a.scenario(c.sub).*Field = a.str(c);
}

// Computed attributes that can be set.
void apply_num_start(Applier &a, const Change &c) {
  ModelFields &d = a.data();
  int n = static_cast<int>(c.num);
  for (int k = n; k < d.numstart; ++k) d.vars.extra.num.erase(start_key(k));
  d.numstart = n;
}
void apply_start(Applier &a, const Change &c) {
  ModelFields &d = a.data();
  d.vars.extra.set(start_key(c.sub), static_cast<size_t>(d.vars.size()), c.elem, c.num);
  d.numstart = std::max(d.numstart, c.sub + 1);
}
// Objective 0's coefficients and constant are the ordinary objective's.
void apply_objn(Applier &a, const Change &c) {
  if (c.sub == 0)
    a.data().vars.obj[c.elem] = c.num;
  else
    a.dense(c.sub)[c.elem] = c.num;
}
void apply_objn_con(Applier &a, const Change &c) {
  if (c.sub == 0)
    a.data().objcon = c.num;
  else
    a.objn(c.sub).constant = c.num;
}
void apply_num_obj(Applier &a, const Change &c) { a.resize_objectives(static_cast<size_t>(c.num)); }
void apply_num_scenarios(Applier &a, const Change &c) {
  a.data().scenarios.resize(static_cast<size_t>(c.num));
}

using AttrApplier = void (*)(Applier &, const Change &);
const AttrApplier kAppliers[] = {
#include "model/attr_apply.inc"
};
static_assert(std::size(kAppliers) == static_cast<size_t>(AttrId::Count));

void Applier::attr(const Change &c) {
  AttrApplier apply = kAppliers[static_cast<size_t>(c.attr)];
  if (!apply) fail(KVR_ERROR_INTERNAL, "Attribute '%s' has no writer", attr_def(c.attr).name);
  apply(*this, c);
}

// Whether the facts ModelData keeps (type counts, possible values) survive these changes: only
// value changes of bounds, costs, right-hand sides and row senses, coefficients and objectives do
// not touch the types; of these, the bounds and row data are checked again entry by entry.
bool keeps_facts(const std::vector<Change> &log) {
  for (const Change &c : log)
    if (c.kind == ChangeKind::Attr && c.attr != AttrId::LB && c.attr != AttrId::UB &&
        c.attr != AttrId::Obj && c.attr != AttrId::RHS && c.attr != AttrId::Sense)
      return false;
  return true;
}

bool changed_values_possible(const ModelFields &d, const std::vector<Change> &log) {
  for (const Change &c : log) {
    if (c.kind != ChangeKind::Attr) continue;
    if ((c.attr == AttrId::LB || c.attr == AttrId::UB) &&
        impossible_bounds(d.vars.lb[c.elem], d.vars.ub[c.elem]))
      return false;
    if ((c.attr == AttrId::RHS || c.attr == AttrId::Sense) &&
        impossible_rhs(d.constrs.sense[c.elem], d.constrs.rhs[c.elem]))
      return false;
  }
  return true;
}

}  // namespace

void apply_change_log(ModelData &data, PendingChanges &pending) {
  const std::optional<ModelFacts> facts = data.facts_;
  const bool values_checked = data.values_checked_;
  Applier(data.w(), pending).run();
  if (!keeps_facts(pending.log)) return;
  data.facts_ = facts;
  data.values_checked_ = values_checked && changed_values_possible(data.f_, pending.log);
}

}  // namespace kvr
