// IIS files (.ilp): the irreducible infeasible subsystem of the last computeIIS as a model in LP
// format. It holds the constraints of the IIS, the variables they use (and those with a bound in
// the IIS), and only the bounds that belong to the IIS; everything else is free. The objective is
// empty: the file describes a conflict, not an optimization.
#include <algorithm>

#include "io/datafiles.h"
#include "io/formats.h"
#include "model/model.h"
#include "util/error.h"

namespace kvr::io {

namespace {

Renumbering keep_flags(const std::vector<int> &in_iis, int count, int &kept) {
  Renumbering pos(static_cast<size_t>(count), -1);
  kept = 0;
  for (int i = 0; i < count; ++i)
    if (i < static_cast<int>(in_iis.size()) && in_iis[i]) pos[i] = kept++;
  return pos;
}

}  // namespace

void write_iis_file(kvr_model *model, const std::string &filename) {
  const Solution &s = model->sol;
  if (!s.iis_available)
    fail(KVR_ERROR_DATA_NOT_AVAILABLE,
         "Unable to write IIS file '%s': no IIS has been computed (call computeIIS first)",
         filename.c_str());
  const ModelData &d = model->data;
  ModelData sub = d;
  sub.clear_objective();
  sub.clear_scenarios();
  sub.set_num_starts(0);
  sub.clear_extras(AttrClass::Var);
  sub.clear_extras(AttrClass::Constr);

  // Unnamed elements keep the names they have in the model ("R3" stays "R3" after deletions).
  auto name_unnamed = [&sub](AttrClass kind, const NamePool &names, const std::vector<int> &in_iis,
                             const char *prefix) {
    for (size_t i = 0; i < names.size(); ++i)
      if (i < in_iis.size() && in_iis[i] && names.get(i).empty())
        sub.set_element_name(kind, static_cast<int>(i), format("%s%zu", prefix, i));
  };
  name_unnamed(AttrClass::Constr, sub.constrs.names, s.iis_constr, "R");
  name_unnamed(AttrClass::QConstr, sub.qconstrs.names, s.iis_qconstr, "QC");
  name_unnamed(AttrClass::GenConstr, sub.gens.names, s.iis_genconstr, "GC");

  int kept = 0;
  sub.delete_constrs(keep_flags(s.iis_constr, d.num_constrs(), kept));
  sub.delete_sos(keep_flags(s.iis_sos, d.sos.size(), kept));
  sub.delete_qconstrs(keep_flags(s.iis_qconstr, d.qconstrs.size(), kept));
  sub.delete_gens(keep_flags(s.iis_genconstr, d.gens.size(), kept));

  // Bounds outside the IIS are dropped; a binary keeps its type only while both of its bounds
  // belong to the IIS (the file format implies them), otherwise it is written as an integer.
  const int n = d.num_vars();
  std::vector<char> used(static_cast<size_t>(n), 0);
  for (int j = 0; j < n; ++j) {
    bool lb = s.iis_lb[j] != 0, ub = s.iis_ub[j] != 0;
    if (!(lb && ub)) sub.binary_to_integer(j);
    if (!lb) sub.set_lb(j, -KVR_INFINITY);
    if (!ub) sub.set_ub(j, KVR_INFINITY);
    used[j] = lb || ub;
  }
  for (int idx : sub.constrs.rows.ind) used[idx] = 1;
  for (int idx : sub.sos.ind) used[idx] = 1;
  for (const QConstr &q : sub.qconstrs.items) {
    for (int idx : q.lind) used[idx] = 1;
    for (size_t k = 0; k < q.q.size(); ++k) used[q.q.row[k]] = used[q.q.col[k]] = 1;
  }
  for (const GenConstr &g : sub.gens.items) {
    for (int v : {g.resvar, g.binvar, g.xvar, g.yvar})
      if (v >= 0) used[v] = 1;
    for (int v : g.vars) used[v] = 1;
    for (int v : g.ind) used[v] = 1;
  }
  Renumbering vars(static_cast<size_t>(n), -1);
  int next = 0;
  for (int j = 0; j < n; ++j)
    if (used[j]) vars[j] = next++;
  for (int j = 0; j < n; ++j)
    if (used[j] && sub.vars.names.get(j).empty())
      sub.set_element_name(AttrClass::Var, j, format("C%d", j));
  sub.delete_vars(vars);
  write_model_file(sub, filename, FileType::Lp);
}

}  // namespace kvr::io
