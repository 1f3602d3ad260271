// Model methods that derive new models from a model (relax, fixed, presolve, dualize,
// feasibility, linearize, singleScenarioModel) and the feasibility relaxation that extends the
// model itself (feasRelax, feasRelaxS).
#include <vector>

#include "model.h"

namespace kvrpy {

namespace {

using DeriveCall = int (*)(KVRmodel *, KVRmodel **);

// Runs a derived-model call of the library and wraps its result as a new Model.
nb::object derive(nb::handle self, DeriveCall call, bool update_first, const char *failure) {
  KVRmodel *cm = live_model(self);
  if (update_first) model_update(self);
  KVRmodel *result = nullptr;
  check(call(cm, &result), self);
  if (!result) raise_error(kInputError, failure);
  return model_adopt(self, result);
}

double penalty_value(nb::handle x) {
  double v = 0.0;
  if (!isscalar(x, &v)) raise_error(KVR_ERROR_INVALID_ARGUMENT, "Penalty must be a number");
  return to_library(v);
}

// Library index of a constraint for the right-hand-side penalties: linear constraints first,
// then quadratic constraints after NumConstrs.
int penalty_row(nb::handle obj, KVRmodel *cm, int numconstrs) {
  int kind = -1;
  Handle *h = as_handle(obj, &kind);
  if (h && kind == kQConstr && h->model == cm && public_index(h->index) >= 0)
    return numconstrs + public_index(h->index);
  return constr_row(obj, cm);
}

// Stores pen[k] at index_of(objects[k]) for each k; None for either list stores nothing.
template <class IndexOf>
void fill_penalties(std::vector<double> &out, nb::handle objects, nb::handle pen,
                    const char *length_message, IndexOf &&index_of) {
  if (objects.is_none() || pen.is_none()) return;
  nb::list objs(objects), pens(pen);
  if (objs.size() != pens.size()) raise_error(kUsageError, length_message);
  for (size_t k = 0; k < objs.size(); ++k) out[index_of(objs[k])] = penalty_value(pens[k]);
}

// Flags accept anything with a truth value (True, 1, ...).
bool flag(nb::handle x) {
  int truth = PyObject_IsTrue(x.ptr());
  if (truth < 0) throw nb::python_error();
  return truth != 0;
}

double feas_relax(nb::handle self, int relaxobjtype, nb::handle minrelax, nb::handle vars,
                  nb::handle lbpen, nb::handle ubpen, nb::handle constrs, nb::handle rhspen) {
  KVRmodel *cm = live_model(self);
  model_update(self);
  if (relaxobjtype < 0 || relaxobjtype > 2)
    raise_error(kUsageError, "Invalid argument of relaxobjtype");
  int nvars = num_vars(cm), nconstrs = num_constrs(cm), nq = 0;
  check(KVRgetintattr(cm, "NumQConstrs", &nq), self);
  std::vector<double> lb(nvars, KVR_INFINITY), ub(nvars, KVR_INFINITY),
      rhs(static_cast<size_t>(nconstrs) + nq, KVR_INFINITY);
  const char *var_length = "Length of penalty list differs from length of variable list";
  auto column = [&](nb::handle v) { return var_column(v, cm); };
  fill_penalties(lb, vars, lbpen, var_length, column);
  fill_penalties(ub, vars, ubpen, var_length, column);
  fill_penalties(rhs, constrs, rhspen,
                 "Length of penalty list differs from length of constraint list",
                 [&](nb::handle c) { return penalty_row(c, cm, nconstrs); });
  double feasobj = 0.0;
  check(KVRfeasrelax(cm, relaxobjtype, flag(minrelax) ? 1 : 0, lb.data(), ub.data(), rhs.data(),
                     &feasobj),
        self);
  model_resync(self);
  return feasobj;
}

double feas_relax_s(nb::handle self, int relaxobjtype, nb::handle minrelax, nb::handle vrelax,
                    nb::handle crelax) {
  model_update(self);  // also refuses a freed model
  nb::object none = nb::none();
  nb::object vars = flag(vrelax) ? self.attr("getVars")() : none;
  nb::object constrs = none;
  if (flag(crelax)) {
    nb::list all = nb::borrow<nb::list>(self.attr("getConstrs")());
    for (nb::handle qc : self.attr("getQConstrs")()) all.append(qc);
    constrs = all;
  }
  auto ones = [](nb::handle objs) -> nb::object {
    if (objs.is_none()) return nb::none();
    nb::list l;
    for (size_t k = 0, n = nb::len(objs); k < n; ++k) l.append(1.0);
    return l;
  };
  return feas_relax(self, relaxobjtype, minrelax, vars, ones(vars), ones(vars), constrs,
                    ones(constrs));
}

}  // namespace

void init_model_transform(nb::module_ &) {
  ModelMethods def;
  // Derived models: method, library call, whether pending changes are applied first, the
  // message when no model comes back, docstring.
  struct Derived {
    const char *name;
    DeriveCall call;
    bool update_first;
    const char *failure;
    const char *doc;
  };
  static const Derived derived[] = {
      {"relax", KVRrelaxmodel, false, "Failed to create relaxation",
       "A continuous relaxation of the model as of its last update: integrality dropped, SOS "
       "constraints dropped, general constraints replaced by valid linear rows or dropped."},
      {"fixed", KVRfixmodel, false, "Failed to create fixed model",
       "The continuous model with the integer variables fixed at their values in the current "
       "solution; its optimum gives duals for that solution."},
      {"presolve", KVRpresolvemodel, true, "Unable to create presolved model",
       "Applies pending changes, then returns a reduced model with the same optimal value."},
      {"dualize", KVRdualmodel, true, "Unable to create dual model",
       "Applies pending changes, then returns the dual of the linear program; its optimal value "
       "equals the model's."},
      {"feasibility", KVRfeasibility, false, "Failed to create feasibility model",
       "The model with the same constraints and no objective."},
      {"linearize", KVRlinearizemodel, false, "Failed to create linearized model",
       "The model with products of binary and bounded variables and the logical general "
       "constraints replaced by exact linear rows."},
      {"singleScenarioModel", KVRsinglescenariomodel, false,
       "Failed to create single scenario model",
       "The scenario chosen by the ScenarioNumber parameter as a model of its own."},
  };
  for (const Derived &d : derived)
    def(
        d.name, [&d](nb::handle self) { return derive(self, d.call, d.update_first, d.failure); },
        d.doc);
  def("feasRelaxS", feas_relax_s, nb::arg("relaxobjtype"), nb::arg("minrelax"), nb::arg("vrelax"),
      nb::arg("crelax"),
      "Feasibility relaxation with penalty 1 for every variable bound (vrelax) and every "
      "constraint (crelax); the model is extended. Returns the minimal relaxation objective when "
      "minrelax is true, else 0.");
  def("feasRelax", feas_relax, nb::arg("relaxobjtype"), nb::arg("minrelax"), nb::arg("vars").none(),
      nb::arg("lbpen").none(), nb::arg("ubpen").none(), nb::arg("constrs").none(),
      nb::arg("rhspen").none(),
      "Feasibility relaxation: the listed bounds and constraints may be violated at the given "
      "penalties (relaxobjtype 0 linear, 1 quadratic, 2 count of violations); the model is "
      "extended with the artificial variables. Returns the minimal relaxation objective when "
      "minrelax is true, else 0.");
}

}  // namespace kvrpy
