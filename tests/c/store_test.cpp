// The model store on its own (compiled with its sources, without the rest of the library): every
// change keeps the parallel arrays, the names and the extra attribute columns of an element kind
// in step, deletions renumber every reference, and a refused change leaves the model as it was.
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "model/modeldata.h"
#include "util/error.h"

using namespace kvr;

static int g_checks = 0, g_failed = 0;

static void check_at(bool ok, int line, const char *text) {
  ++g_checks;
  if (ok) return;
  ++g_failed;
  std::fprintf(stderr, "store_test.cpp:%d: check failed: %s\n", line, text);
}
#define CHECK(cond) check_at((cond), __LINE__, #cond)

// Runs body, which must fail with a kvr::Error of this code.
template <class Body>
static bool fails_with(int code, Body body) {
  try {
    body();
  } catch (const Error &e) {
    return e.code() == code;
  }
  return false;
}

static const int kHint = static_cast<int>(AttrId::VarHintVal);
static const int kCBasis = static_cast<int>(AttrId::CBasis);
static const int kVTag = static_cast<int>(AttrId::VTag);

// Every per-element array of each kind has the kind's length (extra columns too).
static bool in_step(const ModelData &d) {
  const size_t n = static_cast<size_t>(d.num_vars()), m = static_cast<size_t>(d.num_constrs());
  bool ok = d.vars.ub.size() == n && d.vars.obj.size() == n && d.vars.vtype.size() == n &&
            d.vars.names.size() == n && d.constrs.rhs.size() == m && d.constrs.names.size() == m &&
            d.constrs.rows.rows() == static_cast<int>(m) &&
            d.qconstrs.names.size() == d.qconstrs.items.size() &&
            d.gens.names.size() == d.gens.items.size() && d.sos.beg.size() == d.sos.type.size() + 1;
  for (const auto &[key, column] : d.vars.extra.num) ok = ok && column.size() == n;
  for (const auto &[key, pool] : d.vars.extra.str) ok = ok && pool.size() == n;
  for (const auto &[key, column] : d.constrs.extra.num) ok = ok && column.size() == m;
  for (const auto &[key, column] : d.gens.extra.num)
    ok = ok && column.size() == d.gens.items.size();
  return ok;
}

static void additions_keep_columns_in_step() {
  ModelData d;
  d.add_var(0, 1, 2, KVR_BINARY, "x");
  d.add_var(-1, 1, 0, KVR_CONTINUOUS);
  // A column appears on its first write, holding the default for every other element.
  d.set_extra(AttrClass::Var, kHint, 1, 5.0);
  d.set_extra_str(AttrClass::Var, kVTag, 0, "tag");
  CHECK(d.vars.extra.get(kHint, 0) == KVR_UNDEFINED && d.vars.extra.get(kHint, 1) == 5.0);
  // Later variables and constraints take the defaults of the existing columns.
  d.add_var(0, 3, 1, KVR_INTEGER, "z");
  d.add_constr({0, 2}, {1.0, 1.0}, KVR_LESS_EQUAL, 4.0, "c0");
  d.set_extra(AttrClass::Constr, kCBasis, 0, KVR_NONBASIC_LOWER);
  d.add_constr({1}, {2.0}, KVR_GREATER_EQUAL, -1.0);
  CHECK(in_step(d));
  CHECK(d.vars.extra.get(kHint, 2) == KVR_UNDEFINED);
  CHECK(d.vars.extra.str.at(kVTag).get(2).empty());
  CHECK(d.constrs.extra.get(kCBasis, 1) == KVR_BASIC);
  CHECK(d.vars.names.get(2) == "z" && d.vars.names.find("z") == 2 && d.vars.names.find("y") == -1);

  // A whole column is padded with the default, or cut, to the element count.
  d.set_extra_column(AttrClass::Constr, static_cast<int>(AttrId::Lazy), {2.0});
  CHECK(in_step(d) && d.constrs.extra.get(static_cast<int>(AttrId::Lazy), 1) == 0.0);
  d.set_extra_column(AttrClass::Var, kHint, {1, 2, 3, 4, 5});
  CHECK(in_step(d) && d.vars.extra.get(kHint, 2) == 3.0);

  // Undoing additions drops their names and extra entries too.
  d.truncate_vars(1);
  CHECK(d.num_vars() == 1 && d.vars.names.find("z") == -1);
  CHECK(d.vars.extra.num.at(kHint).size() == 1 && d.vars.extra.str.at(kVTag).size() == 1);

  // SOS, quadratic and general constraints.
  ModelData e;
  for (int j = 0; j < 3; ++j) e.add_var(0, 1, 0, KVR_CONTINUOUS);
  e.add_sos(KVR_SOS_TYPE1);
  e.add_sos_member(0, 1.0);
  e.add_sos_member(2, 2.0);
  e.add_sos(KVR_SOS_TYPE2);
  e.add_sos_member(1, 1.0);
  CHECK(e.sos.size() == 2 && e.sos.beg == std::vector<int64_t>({0, 2, 3}));
  GenConstr g;
  g.type = KVR_GENCONSTR_ABS;
  g.resvar = 0;
  g.vars = {1};
  e.add_genconstr(g, "abs");
  e.set_extra(AttrClass::GenConstr, static_cast<int>(AttrId::IISGenConstrForce), 0, 1.0);
  e.add_genconstr(g, "abs2");
  CHECK(e.gens.extra.get(static_cast<int>(AttrId::IISGenConstrForce), 1) == -1.0);
  QConstr qc;
  qc.q.push(0, 1, 1.0);
  e.add_qconstr(qc, "q0");
  e.add_qconstr_term(0, 2, 3.0);
  CHECK(e.qconstrs.items[0].lind == std::vector<int>({2}) && e.qconstrs.items[0].lval[0] == 3.0);
  CHECK(in_step(e));
}

// A model with every kind of reference to variables 0..3.
static ModelData referencing_model() {
  ModelData d;
  for (int j = 0; j < 4; ++j) d.add_var(0, 10, j + 1.0, KVR_CONTINUOUS, "x" + std::to_string(j));
  d.set_extra(AttrClass::Var, kHint, 3, 7.0);
  d.add_constr({0, 1, 3}, {1, 2, 3}, KVR_LESS_EQUAL, 5, "c");
  QuadTerms q;
  q.push(1, 3, 1.0);
  q.push(0, 2, 1.0);
  d.set_q(q);
  d.add_sos(KVR_SOS_TYPE1);
  d.add_sos_member(1, 1.0);
  d.add_sos_member(3, 2.0);
  GenConstr keep, lose;
  keep.type = lose.type = KVR_GENCONSTR_MAX;
  keep.resvar = 3, keep.vars = {0, 1};
  lose.resvar = 1, lose.vars = {3};
  d.add_genconstr(keep, "keep");
  d.add_genconstr(lose, "lose");
  ObjectiveN o;
  o.ind = {1, 3};
  o.val = {4, 5};
  d.set_objective_n(1, o);
  d.add_pwl_obj(PwlObj{1, {0, 1}, {0, 1}});
  d.add_pwl_obj(PwlObj{3, {0, 1}, {1, 0}});
  Scenario s;
  s.lb = {{1, 2.0}, {3, 3.0}};
  s.rhs = {{0, 9.0}};
  d.apply_scenario(s);
  return d;
}

static void deletions_renumber_every_reference() {
  ModelData d = referencing_model();
  CHECK(d.vars.lb[1] == 2.0 && d.vars.lb[3] == 3.0 && d.constrs.rhs[0] == 9.0);
  d.delete_vars({0, -1, 1, 2});  // variable 1 goes; 2 and 3 become 1 and 2
  CHECK(in_step(d) && d.num_vars() == 3);
  CHECK(d.vars.names.get(2) == "x3" && d.vars.extra.get(kHint, 2) == 7.0);
  CHECK(d.constrs.rows.ind == std::vector<int>({0, 2}) && d.constrs.rows.val[1] == 3.0);
  CHECK(d.q.size() == 1 && d.q.row[0] == 0 && d.q.col[0] == 1);
  CHECK(d.sos.ind == std::vector<int>({2}) && d.sos.beg.back() == 1);
  // The constraint whose resultant went is deleted with it; the other loses the operand.
  CHECK(d.gens.size() == 1 && d.gens.names.get(0) == "keep");
  CHECK(d.gens.items[0].resvar == 2 && d.gens.items[0].vars == std::vector<int>({0}));
  CHECK(d.objn[1].ind == std::vector<int>({2}) && d.objn[1].val[0] == 5.0);
  CHECK(d.pwlobj.size() == 1 && d.pwlobj[0].var == 2);

  d.delete_constrs({-1});
  CHECK(in_step(d) && d.num_constrs() == 0 && d.constrs.rows.nnz() == 0);
}

// The update appends queued elements after the model's own, then the queued column entries.
static void appending_queued_elements() {
  ModelData d;
  d.add_var(0, 1, 0, KVR_CONTINUOUS, "a");
  d.add_constr({0}, {1.0}, KVR_EQUAL, 1.0, "r0");
  d.set_extra(AttrClass::Var, kHint, 0, 2.0);
  ModelData added;
  added.add_var(0, 2, 1, KVR_INTEGER, "b");
  added.add_constr({0, 1}, {1.0, -1.0}, KVR_LESS_EQUAL, 0.0, "r1");
  added.add_sos(KVR_SOS_TYPE2);
  added.add_sos_member(1, 1.0);
  d.append(std::move(added), {{0, 1, 4.0}});
  CHECK(in_step(d) && d.num_vars() == 2 && d.num_constrs() == 2);
  CHECK(d.vars.names.find("b") == 1 && d.vars.extra.get(kHint, 1) == KVR_UNDEFINED);
  CHECK(d.constrs.rows.ind == std::vector<int>({0, 1, 0, 1}));
  CHECK(d.constrs.rows.val[1] == 4.0 && d.sos.ind == std::vector<int>({1}));
}

static void objective_and_start_helpers() {
  ModelData d = referencing_model();
  d.set_objsense(KVR_MAXIMIZE);
  d.set_objcon(3.0);
  d.clear_objective();
  CHECK(d.sense == KVR_MAXIMIZE && d.objcon == 0.0 && d.q.size() == 0 && d.pwlobj.empty());
  CHECK(d.objn.size() == 1 && d.objn[0].ind.empty());
  for (int j = 0; j < d.num_vars(); ++j) CHECK(d.vars.obj[j] == 0.0);

  // MIP starts beyond the kept ones lose their values.
  d.set_extra(AttrClass::Var, start_key(0), 0, 1.0);
  d.set_extra(AttrClass::Var, start_key(1), 0, 2.0);
  d.set_extra(AttrClass::Var, start_key(2), 0, 3.0);
  d.set_num_starts(3);
  d.set_num_starts(1);
  CHECK(d.numstart == 1 && d.vars.extra.get(start_key(0), 0) == 1.0);
  CHECK(d.vars.extra.num.count(start_key(1)) == 0 && d.vars.extra.num.count(start_key(2)) == 0);

  // Only binaries change type; their bounds are clipped to [0, 1].
  ModelData b;
  b.add_var(-2, 5, 0, KVR_BINARY);
  b.add_var(-2, 5, 0, KVR_INTEGER);
  b.binary_to_integer(0);
  b.binary_to_integer(1);
  CHECK(b.vars.vtype[0] == KVR_INTEGER && b.vars.lb[0] == 0.0 && b.vars.ub[0] == 1.0);
  CHECK(b.vars.lb[1] == -2.0 && b.vars.ub[1] == 5.0);
}

static void refused_changes_leave_the_model() {
  ModelData d = referencing_model();
  const std::vector<double> obj = d.vars.obj;
  CHECK(fails_with(KVR_ERROR_INTERNAL, [&] { d.set_linear_objective({1.0}, 2.0); }));
  CHECK(d.vars.obj == obj && d.objcon == 0.0);
  CHECK(fails_with(KVR_ERROR_INTERNAL, [&] { d.set_element_name(AttrClass::Sos, 0, "s"); }));
  CHECK(fails_with(KVR_ERROR_INTERNAL, [&] { d.set_extra(AttrClass::Model, kHint, 0, 1.0); }));
  CHECK(in_step(d));
  d.drop_names();
  CHECK(in_step(d) && !d.vars.names.any_named() && !d.gens.names.any_named());
}

// Copies and moves carry the data; each model's views show its own data, whatever happens to the
// model it came from.
static void copies_are_independent() {
  ModelData d = referencing_model();
  ModelData c = d;
  c.set_lb(0, -5.0);
  c.add_var(0, 1, 0, KVR_CONTINUOUS, "extra");
  CHECK(d.vars.lb[0] == 0.0 && d.num_vars() == 4 && c.num_vars() == 5 && &c.vars != &d.vars);
  ModelData moved = std::move(c);
  CHECK(moved.num_vars() == 5 && moved.vars.lb[0] == -5.0 && moved.vars.names.find("extra") == 4);
  ModelData assigned;
  assigned = d;
  d.set_ub(0, 1.0);
  CHECK(assigned.vars.ub[0] == 10.0 && assigned.gens.names.get(1) == "lose");
  {
    ModelData temporary = d;
    assigned = std::move(temporary);
  }
  CHECK(assigned.vars.ub[0] == 1.0 && in_step(assigned) && assigned.objn.size() == 2);
}

int main() {
  additions_keep_columns_in_step();
  deletions_renumber_every_reference();
  appending_queued_elements();
  objective_and_start_helpers();
  refused_changes_leave_the_model();
  copies_are_independent();
  std::printf("%d checks, %d failed\n", g_checks, g_failed);
  return g_failed ? 1 : 0;
}
