// Applying the queued attribute, coefficient and objective changes at an update. Every change was
// checked when it was queued; here they are carried out in call order, and the ones that touch
// many entries of one structure (coefficients, multi-objective coefficients, quadratic terms) are
// gathered and applied in one pass at the end.
#include <algorithm>
#include <map>
#include <unordered_map>

#include "model/pending.h"
#include "util/error.h"

namespace kvr {
namespace {

using A = AttrId;

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

 private:
  ModelFields &d_;
  PendingChanges &p_;
  std::vector<Change> coeffs_;
  std::map<int, std::vector<double>> dense_objn_;  // objectives >= 1 being changed
  std::unordered_map<int, size_t> pwl_index_;
  bool pwl_indexed_ = false;
  bool q_dirty_ = false;

  std::string_view str(const Change &c) const { return p_.strings.get(static_cast<size_t>(c.ref)); }

  ObjectiveN &objn(int k) {
    if (static_cast<size_t>(k) >= d_.objn.size()) d_.objn.resize(static_cast<size_t>(k) + 1);
    return d_.objn[k];
  }

  std::vector<double> &dense(int k) {
    auto it = dense_objn_.find(k);
    if (it != dense_objn_.end()) return it->second;
    std::vector<double> c(static_cast<size_t>(d_.vars.size()), 0.0);
    const ObjectiveN &o = objn(k);
    for (size_t t = 0; t < o.ind.size(); ++t) c[o.ind[t]] += o.val[t];
    return dense_objn_.emplace(k, std::move(c)).first->second;
  }

  Scenario &scenario(int k) {
    if (static_cast<size_t>(k) >= d_.scenarios.size())
      d_.scenarios.resize(static_cast<size_t>(k) + 1);
    return d_.scenarios[k];
  }

  static void set_or_erase(std::unordered_map<int, double> &m, int i, double v) {
    if (v == KVR_UNDEFINED)
      m.erase(i);
    else
      m[i] = v;
  }

  void attr(const Change &c) {
    const int i = c.elem;
    const double v = c.num;
    const size_t nv = static_cast<size_t>(d_.vars.size());
    const size_t nc = static_cast<size_t>(d_.constrs.size());
    switch (c.attr) {
      case A::ModelName:
        d_.name = str(c);
        break;
      case A::ModelSense:
        d_.sense = static_cast<int>(v);
        break;
      case A::ObjCon:
        d_.objcon = v;
        break;
      case A::NumStart: {
        int n = static_cast<int>(v);
        for (int k = n; k < d_.numstart; ++k) d_.vars.extra.num.erase(start_key(k));
        d_.numstart = n;
        break;
      }
      case A::ObjNCon:
        if (c.sub == 0)
          d_.objcon = v;
        else
          objn(c.sub).constant = v;
        break;
      case A::ObjNPriority:
        objn(c.sub).priority = static_cast<int>(v);
        break;
      case A::ObjNWeight:
        objn(c.sub).weight = v;
        break;
      case A::ObjNRelTol:
        objn(c.sub).reltol = v;
        break;
      case A::ObjNAbsTol:
        objn(c.sub).abstol = v;
        break;
      case A::ObjNName:
        objn(c.sub).name = str(c);
        break;
      case A::NumObj: {
        size_t n = static_cast<size_t>(v);
        // Objectives about to go lose their pending dense coefficients too.
        for (auto it = dense_objn_.begin(); it != dense_objn_.end();)
          it = static_cast<size_t>(it->first) >= n ? dense_objn_.erase(it) : std::next(it);
        d_.objn.resize(n);
        break;
      }
      case A::ScenNName:
        scenario(c.sub).name = str(c);
        break;
      case A::NumScenarios:
        d_.scenarios.resize(static_cast<size_t>(v));
        break;

      case A::LB:
        d_.vars.lb[i] = v;
        break;
      case A::UB:
        d_.vars.ub[i] = v;
        break;
      case A::Obj:
        d_.vars.obj[i] = v;
        break;
      case A::VType:
        d_.vars.vtype[i] = static_cast<char>(v);
        break;
      case A::VarName:
        d_.vars.names.set(i, str(c));
        break;
      case A::Start:
        d_.vars.extra.set(start_key(c.sub), nv, i, v);
        d_.numstart = std::max(d_.numstart, c.sub + 1);
        break;
      case A::VarHintVal:
      case A::VarHintPri:
      case A::BranchPriority:
      case A::Partition:
      case A::VBasis:
      case A::PoolIgnore:
      case A::IISLBForce:
      case A::IISUBForce:
      case A::PStart:
      case A::PreFixVal:
        d_.vars.extra.set(static_cast<int>(c.attr), nv, i, v);
        break;
      case A::VTag:
        d_.vars.extra.set_str(static_cast<int>(c.attr), nv, i, str(c));
        break;
      case A::ObjN:
        if (c.sub == 0)
          d_.vars.obj[i] = v;
        else
          dense(c.sub)[i] = v;
        break;
      case A::ScenNLB:
        set_or_erase(scenario(c.sub).lb, i, v);
        break;
      case A::ScenNUB:
        set_or_erase(scenario(c.sub).ub, i, v);
        break;
      case A::ScenNObj:
        set_or_erase(scenario(c.sub).obj, i, v);
        break;

      case A::Sense:
        d_.constrs.sense[i] = static_cast<char>(v);
        break;
      case A::RHS:
        d_.constrs.rhs[i] = v;
        break;
      case A::ConstrName:
        d_.constrs.names.set(i, str(c));
        break;
      case A::CBasis:
      case A::IISConstrForce:
      case A::DStart:
      case A::Lazy:
        d_.constrs.extra.set(static_cast<int>(c.attr), nc, i, v);
        break;
      case A::CTag:
        d_.constrs.extra.set_str(static_cast<int>(c.attr), nc, i, str(c));
        break;
      case A::ScenNRHS:
        set_or_erase(scenario(c.sub).rhs, i, v);
        break;

      case A::IISSOSForce:
        d_.sos.extra.set(static_cast<int>(c.attr), static_cast<size_t>(d_.sos.size()), i, v);
        break;

      case A::QCSense:
        d_.qconstrs.items[i].sense = static_cast<char>(v);
        break;
      case A::QCRHS:
        d_.qconstrs.items[i].rhs = v;
        break;
      case A::QCName:
        d_.qconstrs.names.set(i, str(c));
        break;
      case A::IISQConstrForce:
        d_.qconstrs.extra.set(static_cast<int>(c.attr), static_cast<size_t>(d_.qconstrs.size()), i,
                              v);
        break;
      case A::QCTag:
        d_.qconstrs.extra.set_str(static_cast<int>(c.attr), static_cast<size_t>(d_.qconstrs.size()),
                                  i, str(c));
        break;

      case A::GenConstrName:
        d_.gens.names.set(i, str(c));
        break;
      case A::IISGenConstrForce:
        d_.gens.extra.set(static_cast<int>(c.attr), static_cast<size_t>(d_.gens.size()), i, v);
        break;
      case A::FuncPieces:
        d_.gens.items[i].funcpieces = static_cast<int>(v);
        break;
      case A::FuncPieceError:
        d_.gens.items[i].funcpieceerror = v;
        break;
      case A::FuncPieceLength:
        d_.gens.items[i].funcpiecelength = v;
        break;
      case A::FuncPieceRatio:
        d_.gens.items[i].funcpieceratio = v;
        break;
      default:
        fail(KVR_ERROR_INTERNAL, "Attribute '%s' has no writer", attr_def(c.attr).name);
    }
  }

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

}  // namespace

void apply_change_log(ModelData &data, PendingChanges &pending) { Applier(data.f_, pending).run(); }

}  // namespace kvr
