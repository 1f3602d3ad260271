// Model methods that run the solver (optimize, reset, terminate), write to the model's log, work
// inside callbacks (cbGet, cbGetSolution, cbSetSolution, cbLazy, ...) and reach the environments
// of concurrent and multi-objective passes.
#include "model_optimize.h"

#include <string>
#include <vector>

#include "callback.h"
#include "containers.h"
#include "expr.h"
#include "model.h"

namespace kvrpy {

KVRmodel *library_model(nb::handle self) {
  nb::object cm = nb::getattr(self, "_cmodel", nb::none());
  if (cm.is_none()) raise_error(kUsageError, "Model has already been freed");
  return handle_pointer<KVRmodel>(cm);
}

namespace {

constexpr int kCallbackError = KVR_ERROR_CALLBACK;

CallbackState &state_of(nb::handle self) {
  // Outside a callback _callback is None: the attribute access below fails as Python's own
  // error, like any method call on None.
  nb::object cb = self.attr("_callback");
  if (cb.is_none()) {
    PyErr_SetString(PyExc_AttributeError, "'NoneType' object has no attribute '_where'");
    throw nb::python_error();
  }
  return callback_state(cb);
}

// Where the callback acts, as far as its code shows (bits 1 << where): MIPNODE when it names
// MIPNODE (to compare where with it), itself or in a function defined inside it. The engine
// choice reads it; what the code does not show (a helper defined elsewhere) goes unseen.
int callback_wheres(nb::handle fn) {
  int mask = 0;
  std::vector<nb::object> codes{fn.attr("__code__")};
  while (!codes.empty()) {
    nb::object code = std::move(codes.back());
    codes.pop_back();
    for (nb::handle name : code.attr("co_names")) {
      std::string n = nb::cast<std::string>(name);
      if (n == "MIPNODE") mask |= 1 << KVR_CB_MIPNODE;
    }
    for (nb::handle c : code.attr("co_consts"))
      if (PyCode_Check(c.ptr())) codes.push_back(nb::borrow(c));
  }
  return mask;
}

// The sequence optimize and computeIIS share: update, install the callback, run the library call
// with the interpreter lock released, unregister the callback, raise on failure.
void run_solver(nb::handle self, nb::handle callback, int (*call)(KVRmodel *)) {
  KVRmodel *cm = library_model(self);
  self.attr("update")();
  if (!callback.is_none()) {
    if (!PyFunction_Check(callback.ptr()))
      raise_error(kInputError, "Callback argument must be a function");
    self.attr("_callback") = module_attr("CallbackClass")(self, callback);
  }
  bool with_callback = !self.attr("_callback").is_none();
  // The model map lets the callback trampoline find the model; without a callback it is untouched.
  nb::object map, key;
  if (with_callback) {
    map = module().attr("__modelmap");
    key = handle_object(cm);
    map[key] = self;
    int code = KVRsetcallbackfunc(cm, callback_function(), nullptr);
    if (!code) code = KVRsetcallbackwheres(cm, callback_wheres(callback));
    if (code) {
      PyDict_DelItem(map.ptr(), key.ptr());
      self.attr("_callback") = nb::none();
      raise_owner(code, self);
    }
  }
  KVRsetsignal(cm);
  int code;
  {
    nb::gil_scoped_release release;
    code = call(cm);
  }
  if (with_callback) {
    // The text is saved first: unregistering may replace the model's latest message.
    std::string saved = KVRgetmerrormsg(cm);
    if (PyDict_Contains(map.ptr(), key.ptr()) == 1) PyDict_DelItem(map.ptr(), key.ptr());
    KVRsetcallbackfunc(cm, nullptr, nullptr);
    self.attr("_callback") = nb::none();
    if (code) raise_error(code, saved);
  }
  check(code, self);
}

void reset(nb::handle self, int clearall) {
  KVRmodel *cm = library_model(self);
  check(KVRreset(cm, clearall), self);
  std::string text = "Discarded solution information";
  if (clearall) text += " including additional information";
  KVRmsg(KVRgetenv(cm), (text + "\n").c_str());
}

void message(nb::handle self, nb::handle msg) {
  KVRmodel *cm = library_model(self);
  std::string text = utf8(msg);
  KVRmsg(KVRgetenv(cm), (text + "\n").c_str());
}

nb::object cb_get(nb::handle self, int what) {
  CallbackState &s = state_of(self);
  int type = 0, size = 0;
  int code = KVRgetcbwhatinfo(s.cbdata, what, &type, &size);
  if (code) raise_error(code, "Callback error");
  if (size != 1) raise_error(kUsageError, "Array data requested from cbGet()");
  if (type == 1) {
    int v = 0;
    if ((code = KVRcbget(s.cbdata, s.where, what, &v))) raise_error(code, "Callback error");
    return nb::int_(v);
  }
  if (type == 2) {
    double v = 0;
    if ((code = KVRcbget(s.cbdata, s.where, what, &v))) raise_error(code, "Callback error");
    return nb::float_(v);
  }
  const char *v = nullptr;
  if ((code = KVRcbget(s.cbdata, s.where, what, &v))) raise_error(code, "Callback error");
  return text(v);
}

// The per-column list data in the shape of `vars`: one float for a Var, a NumPy array for an
// array of variables (an MVar or anything with tolist() and a shape), a dict for a tupledict, a
// list for any other iterable of Var.
nb::object map_coldata_to_vars(KVRmodel *cm, nb::handle vars, nb::handle data);

nb::object nested_values(KVRmodel *cm, nb::handle item, nb::handle data) {
  if (as_var(item)) return map_coldata_to_vars(cm, item, data);
  nb::list out;
  for (nb::handle sub : nb::iter(item)) out.append(nested_values(cm, sub, data));
  return out;
}

nb::object map_coldata_to_vars(KVRmodel *cm, nb::handle vars, nb::handle data) {
  nb::list values = nb::borrow<nb::list>(data);
  if (as_var(vars)) return values[var_column(vars, cm)];
  if (is_tupledict(vars)) {
    nb::dict out;
    for (auto item : nb::borrow<nb::dict>(vars).items()) {
      nb::tuple kv = nb::borrow<nb::tuple>(item);
      out[kv[0]] = values[var_column(kv[1], cm)];
    }
    return out;
  }
  if (nb::hasattr(vars, "shape") && nb::hasattr(vars, "tolist")) {
    nb::object np = nb::module_::import_("numpy");
    return np.attr("array")(nested_values(cm, vars.attr("tolist")(), data), nb::arg("dtype") = "d");
  }
  nb::list out;
  for (nb::handle item : nb::iter(vars)) out.append(values[var_column(item, cm)]);
  return out;
}

nb::object cb_get_array(nb::handle self, nb::handle vars, int what, const char *failure) {
  CallbackState &s = state_of(self);
  nb::object &cache = what == KVR_CB_MIPNODE_REL ? s.noderel : s.sol;
  if (cache.is_none()) {
    std::vector<double> buffer(static_cast<size_t>(s.n));
    int code = KVRcbget(s.cbdata, s.where, what, buffer.data());
    if (code) raise_error(code, failure);
    nb::list l;
    for (double v : buffer) l.append(v);
    cache = l;
  }
  return map_coldata_to_vars(library_model(self), vars, cache);
}

nb::object cb_get_solution(nb::handle self, nb::handle vars) {
  CallbackState &s = state_of(self);
  if (s.where != KVR_CB_MIPSOL && s.where != KVR_CB_MULTIOBJ)
    raise_error(kCallbackError, "where != KVR.Callback.MIPSOL");
  return cb_get_array(self, vars,
                      s.where == KVR_CB_MULTIOBJ ? KVR_CB_MULTIOBJ_SOL : KVR_CB_MIPSOL_SOL,
                      "Failed to retrieve solution in callback");
}

nb::object cb_get_noderel(nb::handle self, nb::handle vars) {
  CallbackState &s = state_of(self);
  if (s.where != KVR_CB_MIPNODE) raise_error(kCallbackError, "where != KVR.Callback.MIPNODE");
  return cb_get_array(self, vars, KVR_CB_MIPNODE_REL, "Node relaxation not available");
}

void check_solution_where(const CallbackState &s) {
  if (s.where != KVR_CB_MIP && s.where != KVR_CB_MIPNODE && s.where != KVR_CB_MIPSOL)
    raise_error(kCallbackError,
                "where != KVR.Callback.MIP, KVR.Callback.MIPNODE, or KVR.Callback.MIPSOL");
}

void cb_set_solution(nb::handle self, nb::handle vars, nb::handle solution) {
  CallbackState &s = state_of(self);
  check_solution_where(s);
  KVRmodel *cm = library_model(self);
  std::vector<std::pair<int, double>> entries;
  auto add = [&](nb::handle var, nb::handle value) {
    int col = var_column(var, cm);
    double v;
    if (!isscalar(value, &v)) raise_error(KVR_ERROR_INVALID_ARGUMENT, "Invalid solution value");
    entries.emplace_back(col, v);
  };
  if (as_var(vars)) {
    add(vars, solution);
  } else if (PyDict_Check(vars.ptr())) {
    for (auto item : nb::borrow<nb::dict>(vars).items()) {
      nb::tuple kv = nb::borrow<nb::tuple>(item);
      add(kv[0], kv[1]);
    }
  } else {
    nb::list vl = nb::list(vars), sl = nb::list(solution);
    if (nb::len(vl) != nb::len(sl))
      raise_error(kUsageError, "Length of solution list differs from length of variable list");
    for (size_t i = 0; i < nb::len(vl); ++i) add(vl[i], sl[i]);
  }
  if (s.setsol.is_none()) {
    nb::list l;
    for (int j = 0; j < s.n; ++j) l.append(KVR_UNDEFINED);
    s.setsol = l;
  }
  nb::list l = nb::borrow<nb::list>(s.setsol);
  for (auto &[col, v] : entries)
    if (col < s.n) l[col] = v;
}

nb::object cb_use_solution(nb::handle self) {
  CallbackState &s = state_of(self);
  check_solution_where(s);
  return s.solnow();
}

void cut_or_lazy(nb::handle self, nb::handle lhs, nb::handle sense, nb::handle rhs, bool lazy) {
  CallbackState &s = state_of(self);
  if (lazy) {
    if (s.where != KVR_CB_MIPNODE && s.where != KVR_CB_MIPSOL)
      raise_error(kCallbackError, "where != KVR.Callback.MIPNODE or KVR.Callback.MIPSOL");
  } else if (s.where != KVR_CB_MIPNODE) {
    raise_error(kCallbackError, "where != KVR.Callback.MIPNODE");
  }
  nb::object l = nb::borrow(lhs), r = nb::borrow(rhs);
  nb::object sn = nb::borrow(sense);
  if (is_tempconstr(lhs)) {
    l = lhs.attr("_lhs");
    sn = lhs.attr("_sense");
    r = lhs.attr("_rhs");
  }
  KVRmodel *cm = library_model(self);
  LinearData data;
  try {
    if (!collect_linear(l, 1.0, cm, data) || !collect_linear(r, -1.0, cm, data))
      raise_error(kInputError, "Unable to convert argument to an expression");
  } catch (nb::python_error &e) {
    if (e.matches(kaviro_error_type())) raise_error(kUsageError, "Variable not in model");
    throw;
  }
  std::string sstr = nb::isinstance<nb::str>(sn) ? nb::cast<std::string>(sn) : std::string();
  char c = sstr.empty() ? 0 : sstr[0];
  int code = lazy ? KVRcblazy(s.cbdata, static_cast<int>(data.ind.size()), data.ind.data(),
                              data.val.data(), c, -data.constant)
                  : KVRcbcut(s.cbdata, static_cast<int>(data.ind.size()), data.ind.data(),
                             data.val.data(), c, -data.constant);
  check(code, self);
}

nb::object sub_env(nb::handle self, int num, bool multiobj) {
  KVRmodel *cm = library_model(self);
  if (num < 0) raise_error(kInputError, "Environment number must be non-negative");
  KVRenv *env = multiobj ? KVRgetmultiobjenv(cm, num) : KVRgetconcurrentenv(cm, num);
  if (!env) raise_error(KVR_ERROR_INVALID_ARGUMENT, KVRgetmerrormsg(cm));
  return wrap_env(env);
}

}  // namespace

void init_model_optimize(nb::module_ &m) {
  ModelMethods def;
  def(
      "optimize",
      [](nb::handle self, nb::handle callback) { run_solver(self, callback, KVRoptimize); },
      nb::arg("callback").none() = nb::none(),
      "Optimizes the model; callback(model, where), when given, is called during the solve.");
  def(
      "computeIIS",
      [](nb::handle self, nb::handle callback) { run_solver(self, callback, KVRcomputeIIS); },
      nb::arg("callback").none() = nb::none(),
      "Computes an irreducible infeasible subsystem of an infeasible model; the IIS attributes "
      "(IISConstr, IISLB, IISUB, ..., IISMinimal) then tell its members. callback(model, where) "
      "sees the IIS progress (where KVR.Callback.IIS).");
  def(
      "optimizeBatch",
      [](nb::handle self) {
        library_model(self);
        self.attr("update")();
        // The batch client runs on Dask distributed, a Python engine: it lives in the package.
        return nb::module_::import_("kaviropy._batch").attr("submit_model")(self);
      },
      "Submits the model to the batch manager (CSManager; empty: a local manager started on "
      "first use) for later solution and returns the request's ID; kaviropy.Batch(ID) follows "
      "it from this or any other process.");
  def(
      "reset", [](nb::handle self, int clearall) { reset(self, clearall); },
      nb::arg("clearall") = 0,
      "Discards the solution (and with clearall also starts and other stored information).");
  def(
      "message", [](nb::handle self, nb::handle msg) { message(self, msg); }, nb::arg("msg"),
      "Writes a line to the model's log.");
  def(
      "terminate", [](nb::handle self) { KVRterminate(library_model(self)); },
      "Asks the running optimization to stop (also from a callback or another thread).");
  def(
      "cbGet", [](nb::handle self, int what) { return cb_get(self, what); }, nb::arg("what"),
      "Inside a callback: the value of a progress quantity (KVR.Callback what code).");
  def(
      "cbGetSolution", [](nb::handle self, nb::handle vars) { return cb_get_solution(self, vars); },
      nb::arg("vars"), "Inside a MIPSOL or MULTIOBJ callback: values of the new solution.");
  def(
      "cbGetNodeRel", [](nb::handle self, nb::handle vars) { return cb_get_noderel(self, vars); },
      nb::arg("vars"), "Inside a MIPNODE callback: values of the node relaxation.");
  def(
      "cbSetSolution",
      [](nb::handle self, nb::handle vars, nb::handle solution) {
        cb_set_solution(self, vars, solution);
      },
      nb::arg("vars"), nb::arg("solution").none() = nb::none(),
      "Inside a MIP or MIPSOL callback: proposes values for variables as a new solution.");
  def(
      "cbUseSolution", [](nb::handle self) { return cb_use_solution(self); },
      "Hands the values given with cbSetSolution to the solver now; returns their objective "
      "(KVR.INFINITY when they do not form a feasible solution that can be checked here).");
  def(
      "cbCut",
      [](nb::handle self, nb::handle lhs, nb::handle sense, nb::handle rhs) {
        cut_or_lazy(self, lhs, sense, rhs, false);
      },
      nb::arg("lhs"), nb::arg("sense").none() = nb::none(), nb::arg("rhs").none() = nb::none(),
      "Inside a MIPNODE callback: adds a user cut.");
  def(
      "cbLazy",
      [](nb::handle self, nb::handle lhs, nb::handle sense, nb::handle rhs) {
        cut_or_lazy(self, lhs, sense, rhs, true);
      },
      nb::arg("lhs"), nb::arg("sense").none() = nb::none(), nb::arg("rhs").none() = nb::none(),
      "Inside a MIPSOL callback: adds a lazy constraint; every solution must satisfy it.");
  def(
      "cbProceed",
      [](nb::handle self) {
        int code = KVRcbproceed(state_of(self).cbdata);
        if (code) raise_error(code, "Callback error");
      },
      "Inside a callback: moves the search on from its current phase.");
  def(
      "cbStopOneMultiObj",
      [](nb::handle self, int objnum) {
        check(KVRcbstoponemultiobj(library_model(self), state_of(self).cbdata, objnum), self);
      },
      nb::arg("objnum"),
      "Inside a callback of a multi-objective solve: stops the pass of objective objnum and "
      "continues with the next one.");
  def(
      "getConcurrentEnv", [](nb::handle self, int num) { return sub_env(self, num, false); },
      nb::arg("num"), "The environment holding the parameters of concurrent solve num.");
  def(
      "getMultiobjEnv", [](nb::handle self, int num) { return sub_env(self, num, true); },
      nb::arg("num"),
      "The environment holding the parameters of multi-objective pass num (0: the highest "
      "priority).");
  def(
      "discardConcurrentEnvs",
      [](nb::handle self) { KVRdiscardconcurrentenvs(library_model(self)); },
      "Drops the concurrent environments.");
  def(
      "discardMultiobjEnvs", [](nb::handle self) { KVRdiscardmultiobjenvs(library_model(self)); },
      "Drops the multi-objective environments.");
}

}  // namespace kvrpy
