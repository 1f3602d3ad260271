#include "model/modeldata.h"

#include <algorithm>
#include <string>
#include <unordered_map>
#include <utility>

#include "model/checks.h"

namespace kvr {

// ---------------------------------------------------------------- NamePool

void NamePool::resize(size_t n) {
  if (n < len_.size()) {
    for (size_t i = n; i < len_.size(); ++i) named_ -= len_[i] > 0, live_ -= len_[i];
    start_.resize(n);
    len_.resize(n);
  } else {
    start_.resize(n, chars_.size());
    len_.resize(n, 0);
  }
  indexed_ = false;
}

void NamePool::push_back(std::string_view name) {
  start_.push_back(chars_.size());
  len_.push_back(static_cast<uint32_t>(name.size()));
  chars_.append(name);
  named_ += !name.empty();
  live_ += name.size();
  indexed_ = false;
}

void NamePool::set(size_t i, std::string_view name) {
  named_ -= len_[i] > 0;
  named_ += !name.empty();
  live_ = live_ - len_[i] + name.size();
  start_[i] = chars_.size();
  len_[i] = static_cast<uint32_t>(name.size());
  chars_.append(name);
  indexed_ = false;
  // Renaming leaves the old text behind; compact once the garbage outweighs the live text.
  if (chars_.size() > 4096 && chars_.size() > 4 * bytes()) renumber({});
}

int NamePool::find(std::string_view name) const {
  if (!indexed_) {
    index_.clear();
    index_.reserve(named_);
    for (size_t i = 0; i < len_.size(); ++i)
      if (len_[i]) index_.emplace(get(i), static_cast<int>(i));  // emplace keeps the first
    indexed_ = true;
  }
  auto it = index_.find(name);
  return it == index_.end() ? -1 : it->second;
}

void NamePool::renumber(const Renumbering &newpos) {
  std::string chars;
  std::vector<uint64_t> start;
  std::vector<uint32_t> len;
  start.reserve(len_.size());
  len.reserve(len_.size());
  named_ = 0;
  live_ = 0;
  for (size_t i = 0; i < len_.size(); ++i) {
    if (!newpos.empty() && newpos[i] < 0) continue;
    start.push_back(chars.size());
    len.push_back(len_[i]);
    chars.append(get(i));
    named_ += len_[i] > 0;
    live_ += len_[i];
  }
  chars_ = std::move(chars);
  start_ = std::move(start);
  len_ = std::move(len);
  indexed_ = false;
}

void NamePool::append(const NamePool &other) {
  for (size_t i = 0; i < other.size(); ++i) push_back(other.get(i));
}

void NamePool::clear() {
  chars_.clear();
  start_.clear();
  len_.clear();
  named_ = 0;
  live_ = 0;
  indexed_ = false;
}

// ---------------------------------------------------------------- SparseMatrix

void SparseMatrix::add_row(int n, const int *idx, const double *vals) {
  ind.insert(ind.end(), idx, idx + n);
  val.insert(val.end(), vals, vals + n);
  beg.push_back(static_cast<int64_t>(ind.size()));
}

void SparseMatrix::append_entries(const std::vector<Entry> &entries) {
  if (entries.empty()) return;
  const int nrows = rows();
  std::vector<int64_t> extra(static_cast<size_t>(nrows) + 1, 0);
  for (const Entry &e : entries) ++extra[static_cast<size_t>(e.row) + 1];
  for (int r = 0; r < nrows; ++r) extra[r + 1] += extra[r];
  const size_t total = ind.size() + entries.size();
  std::vector<int> nind(total);
  std::vector<double> nval(total);
  std::vector<int64_t> nbeg(beg.size());
  // next[r]: where the next appended entry of row r goes in the new arrays.
  std::vector<int64_t> next(static_cast<size_t>(nrows));
  for (int r = 0; r < nrows; ++r) {
    nbeg[r] = beg[r] + extra[r];
    const int64_t len = beg[r + 1] - beg[r];
    std::copy(ind.begin() + beg[r], ind.begin() + beg[r + 1], nind.begin() + nbeg[r]);
    std::copy(val.begin() + beg[r], val.begin() + beg[r + 1], nval.begin() + nbeg[r]);
    next[r] = nbeg[r] + len;
  }
  nbeg[nrows] = static_cast<int64_t>(total);
  for (const Entry &e : entries) {
    int64_t p = next[e.row]++;
    nind[p] = e.col;
    nval[p] = e.val;
  }
  ind = std::move(nind);
  val = std::move(nval);
  beg = std::move(nbeg);
}

SparseMatrix SparseMatrix::transposed(int ncols) const {
  SparseMatrix t;
  t.beg.assign(static_cast<size_t>(ncols) + 1, 0);
  for (int j : ind) ++t.beg[static_cast<size_t>(j) + 1];
  for (int j = 0; j < ncols; ++j) t.beg[j + 1] += t.beg[j];
  t.ind.resize(ind.size());
  t.val.resize(val.size());
  std::vector<int64_t> next(t.beg.begin(), t.beg.end() - 1);
  for (int r = 0; r < rows(); ++r)
    for (int64_t k = beg[r]; k < beg[r + 1]; ++k) {
      int64_t p = next[ind[k]]++;
      t.ind[p] = r;
      t.val[p] = val[k];
    }
  return t;
}

void SparseMatrix::renumber(const Renumbering &newrow, const Renumbering &newcol) {
  int64_t out = 0;
  std::vector<int64_t> nbeg{0};
  nbeg.reserve(beg.size());
  for (int r = 0; r < rows(); ++r) {
    if (!newrow.empty() && newrow[r] < 0) continue;
    for (int64_t k = beg[r]; k < beg[r + 1]; ++k) {
      int j = newcol.empty() ? ind[k] : newcol[ind[k]];
      if (j < 0) continue;
      ind[out] = j;
      val[out] = val[k];
      ++out;
    }
    nbeg.push_back(out);
  }
  ind.resize(out);
  val.resize(out);
  beg = std::move(nbeg);
}

void SparseMatrix::clear() {
  beg.assign(1, 0);
  ind.clear();
  val.clear();
}

// ---------------------------------------------------------------- term cleaning

size_t clean_terms(int *ind, double *val, size_t n) {
  size_t out = 0;
  if (n <= 32) {
    for (size_t k = 0; k < n; ++k) {
      size_t j = 0;
      while (j < out && ind[j] != ind[k]) ++j;
      if (j < out) {
        val[j] += val[k];
      } else {
        ind[out] = ind[k], val[out] = val[k];
        ++out;
      }
    }
  } else {
    std::unordered_map<int, size_t> first;
    first.reserve(n);
    for (size_t k = 0; k < n; ++k) {
      auto [it, fresh] = first.emplace(ind[k], out);
      if (fresh) {
        ind[out] = ind[k], val[out] = val[k];
        ++out;
      } else {
        val[it->second] += val[k];
      }
    }
  }
  size_t keep = 0;
  for (size_t k = 0; k < out; ++k)
    if (val[k] != 0.0) ind[keep] = ind[k], val[keep] = val[k], ++keep;
  return keep;
}

size_t clean_pairs(int *ind0, int *ind1, double *val, size_t n) {
  auto key = [&](size_t k) {
    uint32_t a = static_cast<uint32_t>(std::min(ind0[k], ind1[k]));
    uint32_t b = static_cast<uint32_t>(std::max(ind0[k], ind1[k]));
    return (static_cast<uint64_t>(a) << 32) | b;
  };
  std::unordered_map<uint64_t, size_t> first;
  first.reserve(n);
  size_t out = 0;
  for (size_t k = 0; k < n; ++k) {
    auto [it, fresh] = first.emplace(key(k), out);
    if (fresh) {
      ind0[out] = ind0[k], ind1[out] = ind1[k], val[out] = val[k];
      ++out;
    } else {
      val[it->second] += val[k];
    }
  }
  size_t keep = 0;
  for (size_t k = 0; k < out; ++k)
    if (val[k] != 0.0) ind0[keep] = ind0[k], ind1[keep] = ind1[k], val[keep] = val[k], ++keep;
  return keep;
}

// ---------------------------------------------------------------- QuadTerms

void QuadTerms::add(int n, const int *r, const int *c, const double *v) {
  for (int k = 0; k < n; ++k) push(r[k], c[k], v[k]);
}

void QuadTerms::normalize() {
  size_t keep = clean_pairs(row.data(), col.data(), val.data(), val.size());
  row.resize(keep), col.resize(keep), val.resize(keep);
}

void QuadTerms::renumber(const Renumbering &newcol) {
  size_t out = 0;
  for (size_t k = 0; k < val.size(); ++k) {
    int r = newcol[row[k]], c = newcol[col[k]];
    if (r < 0 || c < 0) continue;
    row[out] = std::min(r, c), col[out] = std::max(r, c), val[out] = val[k];
    ++out;
  }
  row.resize(out), col.resize(out), val.resize(out);
}

// ---------------------------------------------------------------- ExtraAttrs

int start_key(int k) { return k == 0 ? static_cast<int>(AttrId::Start) : attr_count() + k; }

double extra_default(int key) {
  if (key >= attr_count()) return KVR_UNDEFINED;  // MIP starts beyond the first
  return attr_def(static_cast<AttrId>(key)).extra_default;
}

void ExtraAttrs::resize(size_t n) {
  for (auto &[key, column] : num) column.resize(n, extra_default(key));
  for (auto &[key, pool] : str) pool.resize(n);
}

int VarData::append(double lower, double upper, double cost, char type, std::string_view name) {
  lb.push_back(lower);
  ub.push_back(upper);
  obj.push_back(cost);
  vtype.push_back(type);
  names.push_back(name);
  extra.resize(lb.size());
  return size() - 1;
}

void VarData::reserve(size_t n) { lb.reserve(n), ub.reserve(n), obj.reserve(n), vtype.reserve(n); }

void VarData::truncate(int n) {
  const auto k = static_cast<size_t>(n);
  lb.resize(k), ub.resize(k), obj.resize(k), vtype.resize(k);
  names.resize(k);
  extra.resize(k);
}

int ConstrData::append(int n, const int *ind, const double *val, char row_sense, double row_rhs,
                       std::string_view name) {
  rows.add_row(n, ind, val);
  sense.push_back(row_sense);
  rhs.push_back(row_rhs);
  names.push_back(name);
  extra.resize(sense.size());
  return size() - 1;
}

void ConstrData::reserve(size_t n) { rows.beg.reserve(n + 1), sense.reserve(n), rhs.reserve(n); }

int SosData::append(int set_type) {
  type.push_back(set_type);
  beg.push_back(beg.back());
  extra.resize(type.size());
  return size() - 1;
}

void ExtraAttrs::set(int key, size_t n, size_t i, double v) {
  std::vector<double> &column = num[key];
  if (column.size() < n) column.resize(n, extra_default(key));
  column[i] = v;
}

void ExtraAttrs::set_str(int key, size_t n, size_t i, std::string_view s) {
  NamePool &pool = str[key];
  if (pool.size() < n) pool.resize(n);
  pool.set(i, s);
}

double ExtraAttrs::get(int key, size_t i) const {
  auto it = num.find(key);
  if (it == num.end() || i >= it->second.size()) return extra_default(key);
  return it->second[i];
}

void ExtraAttrs::resize(size_t n, const std::unordered_map<int, double> &defaults) {
  for (auto &[attr, column] : num) {
    auto d = defaults.find(attr);
    column.resize(n, d == defaults.end() ? 0.0 : d->second);
  }
  for (auto &[attr, pool] : str) pool.resize(n);
}

namespace {

template <class T>
void keep_entries(std::vector<T> &v, const Renumbering &newpos) {
  size_t out = 0;
  for (size_t i = 0; i < v.size(); ++i) {
    if (newpos[i] < 0) continue;
    if (out != i) v[out] = std::move(v[i]);  // moving onto itself would empty a record
    ++out;
  }
  v.resize(out);
}

// Maps an index list through newpos, dropping deleted entries (and their parallel values).
void renumber_list(std::vector<int> &idx, std::vector<double> *vals, const Renumbering &newpos) {
  size_t out = 0;
  for (size_t k = 0; k < idx.size(); ++k) {
    int j = newpos[idx[k]];
    if (j < 0) continue;
    idx[out] = j;
    if (vals) (*vals)[out] = (*vals)[k];
    ++out;
  }
  idx.resize(out);
  if (vals) vals->resize(out);
}

// Keys of a sparse (index -> value) map after deletions; entries of deleted indices go.
void renumber_keys(std::unordered_map<int, double> &m, const Renumbering &newpos) {
  std::unordered_map<int, double> moved;
  for (auto [i, x] : m)
    if (newpos[i] >= 0) moved.emplace(newpos[i], x);
  m = std::move(moved);
}

// Rebuilds the SOS member arrays: sets for which keep_set(s) is false go, and within the kept
// sets each member j becomes member_pos(j), or goes when that is negative.
template <class KeepSet, class MemberPos>
void compact_sos(SosData &sos, KeepSet keep_set, MemberPos member_pos) {
  int64_t out = 0;
  std::vector<int64_t> nbeg{0};
  for (int s = 0; s < sos.size(); ++s) {
    if (!keep_set(s)) continue;
    for (int64_t k = sos.beg[s]; k < sos.beg[s + 1]; ++k) {
      int j = member_pos(sos.ind[k]);
      if (j < 0) continue;
      sos.ind[out] = j;
      sos.weight[out] = sos.weight[k];
      ++out;
    }
    nbeg.push_back(out);
  }
  sos.ind.resize(out);
  sos.weight.resize(out);
  sos.beg = std::move(nbeg);
}

}  // namespace

void ExtraAttrs::renumber(const Renumbering &newpos) {
  for (auto &[attr, column] : num) keep_entries(column, newpos);
  for (auto &[attr, pool] : str) pool.renumber(newpos);
}

// ---------------------------------------------------------------- ModelData

bool ModelData::is_mip() const {
  return facts().non_continuous > 0 || f_.sos.size() > 0 || f_.gens.size() > 0;
}

ModelFacts ModelData::facts() const {
  if (facts_) return *facts_;
  ModelFacts f;
  for (char t : f_.vars.vtype) {
    f.non_continuous += t != KVR_CONTINUOUS;
    f.semicontinuous += t == KVR_SEMICONT || t == KVR_SEMIINT;
  }
  return f;
}

void ModelData::refresh_facts() {
  if (!facts_) facts_ = facts();
}

void ModelData::check_values() {
  if (values_checked_) return;
  check_possible_values(*this);
  values_checked_ = true;
}

void ModelData::delete_vars(const Renumbering &newpos) {
  Renumbering gennew(static_cast<size_t>(w().gens.size()));
  int ng = 0;
  auto gone = [&](int v) { return newpos[v] < 0; };
  for (int i = 0; i < w().gens.size(); ++i)
    gennew[i] = gen_loses_meaning(w().gens.items[i], gone) ? -1 : ng++;
  if (ng != w().gens.size()) {
    keep_entries(w().gens.items, gennew);
    w().gens.names.renumber(gennew);
    w().gens.extra.renumber(gennew);
  }
  auto map_var = [&](int &v) {
    if (v >= 0) v = newpos[v];
  };
  for (GenConstr &g : w().gens.items) {
    map_var(g.resvar), map_var(g.binvar), map_var(g.xvar), map_var(g.yvar);
    renumber_list(g.vars, nullptr, newpos);
    renumber_list(g.ind, &g.val, newpos);
  }

  w().constrs.rows.renumber({}, newpos);
  w().q.renumber(newpos);
  for (QConstr &qc : w().qconstrs.items) {
    renumber_list(qc.lind, &qc.lval, newpos);
    qc.q.renumber(newpos);
  }
  // SOS members: entries of deleted variables go; the set itself stays.
  compact_sos(
      w().sos, [](int) { return true; }, [&](int j) { return newpos[j]; });
  for (ObjectiveN &o : w().objn) renumber_list(o.ind, &o.val, newpos);
  {
    size_t out = 0;
    for (size_t k = 0; k < w().pwlobj.size(); ++k) {
      const int j = newpos[w().pwlobj[k].var];
      if (j < 0) continue;
      if (out != k) w().pwlobj[out] = std::move(w().pwlobj[k]);
      w().pwlobj[out++].var = j;
    }
    w().pwlobj.resize(out);
  }
  for (Scenario &s : w().scenarios)
    for (auto *m : {&s.lb, &s.ub, &s.obj}) renumber_keys(*m, newpos);

  keep_entries(w().vars.lb, newpos);
  keep_entries(w().vars.ub, newpos);
  keep_entries(w().vars.obj, newpos);
  keep_entries(w().vars.vtype, newpos);
  w().vars.names.renumber(newpos);
  w().vars.extra.renumber(newpos);
}

void ModelData::delete_constrs(const Renumbering &newpos) {
  w().constrs.rows.renumber(newpos, {});
  keep_entries(w().constrs.sense, newpos);
  keep_entries(w().constrs.rhs, newpos);
  w().constrs.names.renumber(newpos);
  w().constrs.extra.renumber(newpos);
  for (Scenario &s : w().scenarios) renumber_keys(s.rhs, newpos);
}

void ModelData::delete_sos(const Renumbering &newpos) {
  compact_sos(
      w().sos, [&](int s) { return newpos[s] >= 0; }, [](int j) { return j; });
  keep_entries(w().sos.type, newpos);
  w().sos.extra.renumber(newpos);
}

void ModelData::delete_qconstrs(const Renumbering &newpos) {
  keep_entries(w().qconstrs.items, newpos);
  w().qconstrs.names.renumber(newpos);
  w().qconstrs.extra.renumber(newpos);
}

void ModelData::delete_gens(const Renumbering &newpos) {
  keep_entries(w().gens.items, newpos);
  w().gens.names.renumber(newpos);
  w().gens.extra.renumber(newpos);
}

void ModelData::append(ModelData &&added, const std::vector<SparseMatrix::Entry> &cols) {
  VarData &av = added.w().vars;
  w().vars.lb.insert(w().vars.lb.end(), av.lb.begin(), av.lb.end());
  w().vars.ub.insert(w().vars.ub.end(), av.ub.begin(), av.ub.end());
  w().vars.obj.insert(w().vars.obj.end(), av.obj.begin(), av.obj.end());
  w().vars.vtype.insert(w().vars.vtype.end(), av.vtype.begin(), av.vtype.end());
  w().vars.names.append(av.names);
  w().vars.extra.resize(w().vars.lb.size());

  ConstrData &ac = added.w().constrs;
  for (int r = 0; r < ac.size(); ++r)
    w().constrs.rows.add_row(static_cast<int>(ac.rows.beg[r + 1] - ac.rows.beg[r]),
                             ac.rows.ind.data() + ac.rows.beg[r],
                             ac.rows.val.data() + ac.rows.beg[r]);
  w().constrs.sense.insert(w().constrs.sense.end(), ac.sense.begin(), ac.sense.end());
  w().constrs.rhs.insert(w().constrs.rhs.end(), ac.rhs.begin(), ac.rhs.end());
  w().constrs.names.append(ac.names);
  w().constrs.extra.resize(w().constrs.sense.size());
  w().constrs.rows.append_entries(cols);

  for (QConstr &qc : added.w().qconstrs.items) w().qconstrs.items.push_back(std::move(qc));
  w().qconstrs.names.append(added.w().qconstrs.names);
  w().qconstrs.extra.resize(w().qconstrs.items.size());

  const int64_t base = w().sos.beg.back();
  for (int s = 0; s < added.w().sos.size(); ++s) {
    w().sos.type.push_back(added.w().sos.type[s]);
    w().sos.beg.push_back(base + added.w().sos.beg[s + 1]);
  }
  w().sos.ind.insert(w().sos.ind.end(), added.w().sos.ind.begin(), added.w().sos.ind.end());
  w().sos.weight.insert(w().sos.weight.end(), added.w().sos.weight.begin(),
                        added.w().sos.weight.end());
  w().sos.extra.resize(w().sos.type.size());

  for (GenConstr &g : added.w().gens.items) w().gens.items.push_back(std::move(g));
  w().gens.names.append(added.w().gens.names);
  w().gens.extra.resize(w().gens.items.size());
}

// ---------------------------------------------------------------- ModelData changes

ModelData::KindData ModelData::kind_data(AttrClass kind) {
  switch (kind) {
    case AttrClass::Var:
      return {w().vars.extra, &w().vars.names, static_cast<size_t>(w().vars.size())};
    case AttrClass::Constr:
      return {w().constrs.extra, &w().constrs.names, static_cast<size_t>(w().constrs.size())};
    case AttrClass::Sos:
      return {w().sos.extra, nullptr, static_cast<size_t>(w().sos.size())};
    case AttrClass::QConstr:
      return {w().qconstrs.extra, &w().qconstrs.names, static_cast<size_t>(w().qconstrs.size())};
    case AttrClass::GenConstr:
      return {w().gens.extra, &w().gens.names, static_cast<size_t>(w().gens.size())};
    default:
      fail(KVR_ERROR_INTERNAL, "Model attributes have no element columns");
  }
}

void ModelData::set_linear_objective(const std::vector<double> &coef, double constant) {
  if (coef.size() != w().vars.obj.size())
    fail(KVR_ERROR_INTERNAL, "%zu objective coefficients for %d variables", coef.size(),
         num_vars());
  w().vars.obj = coef;
  w().objcon = constant;
}

void ModelData::set_objective_n(int k, ObjectiveN o) {
  if (static_cast<size_t>(k) >= w().objn.size()) w().objn.resize(static_cast<size_t>(k) + 1);
  w().objn[k] = std::move(o);
}

void ModelData::clear_objective() {
  std::fill(w().vars.obj.begin(), w().vars.obj.end(), 0.0);
  w().objcon = 0.0;
  w().q.clear();
  w().objn.assign(1, ObjectiveN{});
  w().pwlobj.clear();
  for (Scenario &s : w().scenarios) s.obj.clear();
}

void ModelData::apply_scenario(const Scenario &s) {
  for (const auto &[j, v] : s.lb) w().vars.lb[j] = v;
  for (const auto &[j, v] : s.ub) w().vars.ub[j] = v;
  for (const auto &[j, v] : s.obj) w().vars.obj[j] = v;
  for (const auto &[i, v] : s.rhs) w().constrs.rhs[i] = v;
}

void ModelData::set_num_starts(int n) {
  for (int k = n; k < std::max(w().numstart, 1); ++k) w().vars.extra.num.erase(start_key(k));
  w().numstart = n;
}

void ModelData::binary_to_integer(int j) {
  if (w().vars.vtype[j] != KVR_BINARY) return;
  w().vars.vtype[j] = KVR_INTEGER;
  w().vars.lb[j] = std::max(w().vars.lb[j], 0.0);
  w().vars.ub[j] = std::min(w().vars.ub[j], 1.0);
}

void ModelData::reserve_constrs(size_t rows, size_t nonzeros) {
  w().constrs.reserve(rows);
  w().constrs.rows.ind.reserve(nonzeros);
  w().constrs.rows.val.reserve(nonzeros);
}

void ModelData::add_qconstr_term(int i, int var, double coef) {
  QConstr &qc = w().qconstrs.items[i];
  qc.lind.push_back(var);
  qc.lval.push_back(coef);
}

void ModelData::set_element_name(AttrClass kind, int i, std::string_view s) {
  KindData k = kind_data(kind);
  if (!k.names) fail(KVR_ERROR_INTERNAL, "SOS constraints have no names");
  k.names->set(static_cast<size_t>(i), s);
}

void ModelData::drop_names() {
  for (NamePool *names :
       {&w().vars.names, &w().constrs.names, &w().qconstrs.names, &w().gens.names}) {
    const size_t n = names->size();
    names->clear();
    names->resize(n);
  }
}

void ModelData::set_extra(AttrClass kind, int key, int i, double v) {
  KindData k = kind_data(kind);
  k.extra.set(key, k.count, static_cast<size_t>(i), v);
}

void ModelData::set_extra_str(AttrClass kind, int key, int i, std::string_view s) {
  KindData k = kind_data(kind);
  k.extra.set_str(key, k.count, static_cast<size_t>(i), s);
}

void ModelData::set_extra_column(AttrClass kind, int key, std::vector<double> values) {
  KindData k = kind_data(kind);
  values.resize(k.count, extra_default(key));
  k.extra.num[key] = std::move(values);
}

void ModelData::erase_extra(AttrClass kind, int key) {
  KindData k = kind_data(kind);
  k.extra.num.erase(key);
  k.extra.str.erase(key);
}

void ModelData::clear_extras(AttrClass kind) { kind_data(kind).extra.clear(); }

size_t ModelData::bytes() const {
  size_t b = f_.vars.lb.size() * (3 * sizeof(double) + 1 + 12) + f_.vars.names.bytes();
  b += f_.constrs.rows.ind.size() * (sizeof(int) + sizeof(double)) +
       f_.constrs.rows.beg.size() * sizeof(int64_t) +
       f_.constrs.sense.size() * (1 + sizeof(double) + 12) + f_.constrs.names.bytes();
  b += f_.q.size() * (2 * sizeof(int) + sizeof(double));
  for (const QConstr &qc : f_.qconstrs.items)
    b += sizeof(QConstr) + qc.lind.size() * 12 + qc.q.size() * 16;
  b += f_.sos.ind.size() * 12 + f_.gens.items.size() * sizeof(GenConstr);
  return b;
}

void check_possible_values(const ModelData &d) {
  auto shown = [](const NamePool &names, int i, const char *prefix) {
    std::string_view n = names.get(static_cast<size_t>(i));
    return n.empty() ? prefix + std::to_string(i) : std::string(n);
  };
  for (int j = 0; j < d.num_vars(); ++j)
    if (const char *why = impossible_bounds(d.vars.lb[j], d.vars.ub[j]))
      fail(KVR_ERROR_INVALID_ARGUMENT, "Variable '%s' cannot take any value: %s",
           shown(d.vars.names, j, "C").c_str(), why);
  for (int i = 0; i < d.num_constrs(); ++i)
    if (const char *why = impossible_rhs(d.constrs.sense[i], d.constrs.rhs[i]))
      fail(KVR_ERROR_INVALID_ARGUMENT, "Constraint '%s' cannot be satisfied: %s",
           shown(d.constrs.names, i, "R").c_str(), why);
  for (int i = 0; i < d.qconstrs.size(); ++i)
    if (const char *why = impossible_rhs(d.qconstrs.items[i].sense, d.qconstrs.items[i].rhs))
      fail(KVR_ERROR_INVALID_ARGUMENT, "Quadratic constraint '%s' cannot be satisfied: %s",
           shown(d.qconstrs.names, i, "QC").c_str(), why);
}

}  // namespace kvr
