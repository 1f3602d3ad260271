// Feasibility relaxation: artificial variables measure how far relaxable bounds and rows are
// violated, and their penalized sum (linear, quadratic, or the number of violations) becomes the
// objective; with minrelax the relaxation is solved first and its minimum is kept as a
// constraint under the original objective. The model itself is extended.
#include <algorithm>
#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "model/checks.h"
#include "model/model.h"
#include "reform/internal.h"
#include "reform/transform.h"

namespace kvr {

namespace {

using reform::Term;

// One artificial variable with its penalty.
struct Artificial {
  int var;
  double penalty;
};

class FeasRelax {
 public:
  FeasRelax(const ModelData &m, int objtype, double bigm)
      : d_(m),
        objtype_(objtype),
        bigm_(bigm),
        nvars_(m.num_vars()),
        nconstrs_(m.num_constrs()),
        nqconstrs_(m.qconstrs.size()) {}

  void relax_bounds(const double *lbpen, const double *ubpen);
  void relax_rows(const double *rhspen);
  // The penalty expression: linear terms and (type 1) squares.
  void penalty_objective(std::vector<Term> &lin, QuadTerms &quad);
  ModelData &data() { return d_; }

 private:
  int add_var(double lb, double ub, char vtype, const std::string &name);
  void add_row(const std::vector<Term> &terms, char sense, double rhs, const std::string &name);
  int add_artificial(const std::string &name, double penalty);

  ModelData d_;
  int objtype_;
  double bigm_;
  // The model's own elements (the penalty arrays describe these; artificials follow them).
  int nvars_, nconstrs_, nqconstrs_;
  std::vector<Artificial> arts_;
  std::vector<SparseMatrix::Entry> row_entries_;  // artificials of existing rows
};

int FeasRelax::add_var(double lb, double ub, char vtype, const std::string &name) {
  return d_.add_var(lb, ub, 0.0, vtype, name);
}

void FeasRelax::add_row(const std::vector<Term> &terms, char sense, double rhs,
                        const std::string &name) {
  std::vector<int> ind;
  std::vector<double> val;
  for (const Term &t : terms) ind.push_back(t.var), val.push_back(t.coef);
  d_.add_constr(ind, val, sense, rhs, name);
}

int FeasRelax::add_artificial(const std::string &name, double penalty) {
  int a = add_var(0.0, KVR_INFINITY, KVR_CONTINUOUS, name);
  arts_.push_back({a, penalty});
  return a;
}

void FeasRelax::relax_bounds(const double *lbpen, const double *ubpen) {
  for (int j = 0; j < nvars_; ++j) {
    bool lower = lbpen && lbpen[j] < KVR_INFINITY && !is_infinite(d_.vars.lb[j]);
    bool upper = ubpen && ubpen[j] < KVR_INFINITY && !is_infinite(d_.vars.ub[j]);
    if (!lower && !upper) continue;
    const char t = d_.vars.vtype[j];
    std::string name = reform::var_name(d_, j);
    if (t == KVR_SEMICONT || t == KVR_SEMIINT)
      fail(KVR_ERROR_NOT_SUPPORTED,
           "The bounds of semi-continuous or semi-integer variable %s cannot be relaxed",
           name.c_str());
    // A binary keeps its values 0 and 1 only through its type; as an integer its bounds move.
    d_.binary_to_integer(j);
    if (lower) {
      int a = add_artificial("ArtL_" + name, lbpen[j]);
      add_row({{j, 1.0}, {a, 1.0}}, KVR_GREATER_EQUAL, d_.vars.lb[j], "ArtLB_" + name);
      d_.set_lb(j, -KVR_INFINITY);
    }
    if (upper) {
      int a = add_artificial("ArtU_" + name, ubpen[j]);
      add_row({{j, 1.0}, {a, -1.0}}, KVR_LESS_EQUAL, d_.vars.ub[j], "ArtUB_" + name);
      d_.set_ub(j, KVR_INFINITY);
    }
  }
}

void FeasRelax::relax_rows(const double *rhspen) {
  if (!rhspen) return;
  const int m = nconstrs_;
  for (int i = 0; i < m + nqconstrs_; ++i) {
    if (rhspen[i] >= KVR_INFINITY) continue;
    bool linear = i < m;
    char sense = linear ? d_.constrs.sense[i] : d_.qconstrs.items[i - m].sense;
    std::string name = linear ? reform::constr_name(d_, i) : reform::qconstr_name(d_, i - m);
    auto attach = [&](int a, double coef) {
      if (linear) {
        row_entries_.push_back({i, a, coef});
      } else {
        d_.add_qconstr_term(i - m, a, coef);
      }
    };
    if (sense != KVR_LESS_EQUAL) attach(add_artificial("ArtP_" + name, rhspen[i]), 1.0);
    if (sense != KVR_GREATER_EQUAL) attach(add_artificial("ArtN_" + name, rhspen[i]), -1.0);
  }
  d_.add_matrix_entries(row_entries_);
}

void FeasRelax::penalty_objective(std::vector<Term> &lin, QuadTerms &quad) {
  for (const Artificial &art : arts_) {
    if (objtype_ == 0) {
      lin.push_back({art.var, art.penalty});
    } else if (objtype_ == 1) {
      quad.push(art.var, art.var, art.penalty);
    } else {
      std::string name(d_.vars.names.get(art.var));
      int on = add_var(0.0, 1.0, KVR_BINARY, name + "_on");
      add_row({{art.var, 1.0}, {on, -bigm_}}, KVR_LESS_EQUAL, 0.0, name + "_M");
      lin.push_back({on, art.penalty});
    }
  }
}

void check_penalties(const double *pen, int n, const char *what, const ModelData &m, bool rows) {
  if (!pen) return;
  for (int k = 0; k < n; ++k)
    if (std::isnan(pen[k]) || pen[k] < 0.0)
      fail(KVR_ERROR_INVALID_ARGUMENT, "Invalid %s penalty %g of %s: penalties must be >= 0", what,
           pen[k],
           rows ? (k < m.num_constrs() ? reform::constr_name(m, k)
                                       : reform::qconstr_name(m, k - m.num_constrs()))
                      .c_str()
                : reform::var_name(m, k).c_str());
}

// Replaces the objective of d by sum lin + quad (minimized).
void set_objective(ModelData &d, const std::vector<Term> &lin, const QuadTerms &quad) {
  d.clear_objective();
  d.set_objsense(KVR_MINIMIZE);
  for (const Term &t : lin) d.add_obj(t.var, t.coef);
  d.set_q(quad);
}

// Solves the relaxation (a copy of the model with the relaxed data) and returns its optimum.
double solve_relaxation(kvr_model *model, ModelData relaxation) {
  auto tmp = std::make_unique<kvr_model>(model->env, std::move(relaxation));
  tmp->data.clear_scenarios();
  if (int code = KVRoptimize(tmp.get())) fail(code, "%s", tmp->errmsg.c_str());
  int status = tmp->sol.status;
  if (status == KVR_INFEASIBLE || status == KVR_INF_OR_UNBD)
    fail(KVR_ERROR_INVALID_ARGUMENT,
         "The feasibility relaxation is infeasible: the bounds and constraints that may not be "
         "relaxed contradict each other");
  if (status != KVR_OPTIMAL)
    fail(KVR_ERROR_DATA_NOT_AVAILABLE,
         "The feasibility relaxation was not solved to optimality (status %d); no minimum to keep",
         status);
  return tmp->sol.objval;
}

double feasrelax(kvr_model *model, int objtype, int minrelax, const double *lbpen,
                 const double *ubpen, const double *rhspen) {
  check_modifiable(model);
  if (objtype < 0 || objtype > 2)
    fail(KVR_ERROR_INVALID_ARGUMENT,
         "Invalid relaxobjtype %d: use 0 (linear), 1 (quadratic) or 2 (cardinality)", objtype);
  if (minrelax != 0 && minrelax != 1)
    fail(KVR_ERROR_INVALID_ARGUMENT, "Invalid minrelax %d: use 0 or 1", minrelax);
  update_model(model);
  const ModelData &m = model->data;
  check_penalties(lbpen, m.num_vars(), "lower-bound", m, false);
  check_penalties(ubpen, m.num_vars(), "upper-bound", m, false);
  check_penalties(rhspen, m.num_constrs() + m.qconstrs.size(), "right-hand-side", m, true);

  FeasRelax fr(m, objtype, model->env.params.get_dbl(ParamId::FeasRelaxBigM));
  fr.relax_bounds(lbpen, ubpen);
  fr.relax_rows(rhspen);
  std::vector<Term> lin;
  QuadTerms quad;
  fr.penalty_objective(lin, quad);
  ModelData &d = fr.data();
  double result = 0.0;
  if (minrelax == 0) {
    set_objective(d, lin, quad);
  } else {
    ModelData relaxation = d;
    set_objective(relaxation, lin, quad);
    double best = solve_relaxation(model, std::move(relaxation));
    // The solution found meets this limit exactly: its objective is the limit.
    const double limit = best;
    if (quad.size() == 0) {
      std::vector<int> ind;
      std::vector<double> val;
      for (const Term &t : lin) ind.push_back(t.var), val.push_back(t.coef);
      d.add_constr(ind, val, KVR_LESS_EQUAL, limit, "FeasRelaxObj");
    } else {
      QConstr qc;
      qc.q = quad;
      qc.sense = KVR_LESS_EQUAL;
      qc.rhs = limit;
      d.add_qconstr(std::move(qc), "FeasRelaxObj");
    }
    result = best;
  }
  model->data = std::move(d);
  model->engine_state.reset();  // rows may have been rewritten in place
  data_changed(model);
  discard_solution(model);
  return result;
}

}  // namespace

}  // namespace kvr

extern "C" {

int KVRfeasrelax(KVRmodel *model, int relaxobjtype, int minrelax, const double *lbpen,
                 const double *ubpen, const double *rhspen, double *feasobjP) {
  return kvr::run_on_model(model, [&] {
    if (!feasobjP) kvr::fail(KVR_ERROR_NULL_ARGUMENT, "No place given for the relaxation value");
    *feasobjP = kvr::feasrelax(model, relaxobjtype, minrelax, lbpen, ubpen, rhspen);
  });
}

}  // extern "C"
