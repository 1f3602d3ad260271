// The bridge from library callbacks into Python: the log callback stub and CallbackClass.
#include "callback.h"

#include "constants.h"

namespace kvrpy {

int log_callback_stub(char *msg, void *) {
  PyGILState_STATE gil = PyGILState_Ensure();
  try {
    nb::str line = display_text(msg ? msg : "");
    nb::module_ sys = nb::module_::import_("sys");
    nb::object out = sys.attr("stdout");
    if (!out.is_none()) {
      out.attr("write")(line);
      out.attr("flush")();
    }
    static nb::object *logger = nullptr;
    if (!logger)
      logger = new nb::object(nb::module_::import_("logging").attr("getLogger")("kaviropy"));
    std::string s = msg ? msg : "";
    if (!s.empty() && s.back() == '\n') s.pop_back();
    logger->attr("info")(display_text(s));
  } catch (nb::python_error &e) {
    e.discard_as_unraisable("kaviropy.logcallbackstub");
  } catch (...) {
  }
  PyGILState_Release(gil);
  return 0;
}

Constants callback_constants() {
  Constants c;
  auto add = [&](const char *name, int v) { c.emplace_back(name, nb::int_(v)); };
  add("POLLING", KVR_CB_POLLING);
  add("PRESOLVE", KVR_CB_PRESOLVE);
  add("SIMPLEX", KVR_CB_SIMPLEX);
  add("MIP", KVR_CB_MIP);
  add("MIPSOL", KVR_CB_MIPSOL);
  add("MIPNODE", KVR_CB_MIPNODE);
  add("MESSAGE", KVR_CB_MESSAGE);
  add("BARRIER", KVR_CB_BARRIER);
  add("MULTIOBJ", KVR_CB_MULTIOBJ);
  add("IIS", KVR_CB_IIS);
  add("PRE_COLDEL", KVR_CB_PRE_COLDEL);
  add("PRE_ROWDEL", KVR_CB_PRE_ROWDEL);
  add("PRE_SENCHG", KVR_CB_PRE_SENCHG);
  add("PRE_BNDCHG", KVR_CB_PRE_BNDCHG);
  add("PRE_COECHG", KVR_CB_PRE_COECHG);
  add("SPX_ITRCNT", KVR_CB_SPX_ITRCNT);
  add("SPX_OBJVAL", KVR_CB_SPX_OBJVAL);
  add("SPX_PRIMINF", KVR_CB_SPX_PRIMINF);
  add("SPX_DUALINF", KVR_CB_SPX_DUALINF);
  add("SPX_ISPERT", KVR_CB_SPX_ISPERT);
  add("MIP_OBJBST", KVR_CB_MIP_OBJBST);
  add("MIP_OBJBND", KVR_CB_MIP_OBJBND);
  add("MIP_NODCNT", KVR_CB_MIP_NODCNT);
  add("MIP_SOLCNT", KVR_CB_MIP_SOLCNT);
  add("MIP_CUTCNT", KVR_CB_MIP_CUTCNT);
  add("MIP_NODLFT", KVR_CB_MIP_NODLFT);
  add("MIP_ITRCNT", KVR_CB_MIP_ITRCNT);
  add("MIP_OPENSCENARIOS", KVR_CB_MIP_OPENSCENARIOS);
  add("MIP_PHASE", KVR_CB_MIP_PHASE);
  add("MIPSOL_SOL", KVR_CB_MIPSOL_SOL);
  add("MIPSOL_OBJ", KVR_CB_MIPSOL_OBJ);
  add("MIPSOL_OBJBST", KVR_CB_MIPSOL_OBJBST);
  add("MIPSOL_OBJBND", KVR_CB_MIPSOL_OBJBND);
  add("MIPSOL_NODCNT", KVR_CB_MIPSOL_NODCNT);
  add("MIPSOL_SOLCNT", KVR_CB_MIPSOL_SOLCNT);
  add("MIPSOL_OPENSCENARIOS", KVR_CB_MIPSOL_OPENSCENARIOS);
  add("MIPSOL_PHASE", KVR_CB_MIPSOL_PHASE);
  add("MIPNODE_STATUS", KVR_CB_MIPNODE_STATUS);
  add("MIPNODE_REL", KVR_CB_MIPNODE_REL);
  add("MIPNODE_OBJBST", KVR_CB_MIPNODE_OBJBST);
  add("MIPNODE_OBJBND", KVR_CB_MIPNODE_OBJBND);
  add("MIPNODE_NODCNT", KVR_CB_MIPNODE_NODCNT);
  add("MIPNODE_SOLCNT", KVR_CB_MIPNODE_SOLCNT);
  add("MIPNODE_BRVAR", KVR_CB_MIPNODE_BRVAR);
  add("MIPNODE_OPENSCENARIOS", KVR_CB_MIPNODE_OPENSCENARIOS);
  add("MIPNODE_PHASE", KVR_CB_MIPNODE_PHASE);
  add("MSG_STRING", KVR_CB_MSG_STRING);
  add("RUNTIME", KVR_CB_RUNTIME);
  add("WORK", KVR_CB_WORK);
  add("BARRIER_ITRCNT", KVR_CB_BARRIER_ITRCNT);
  add("BARRIER_PRIMOBJ", KVR_CB_BARRIER_PRIMOBJ);
  add("BARRIER_DUALOBJ", KVR_CB_BARRIER_DUALOBJ);
  add("BARRIER_PRIMINF", KVR_CB_BARRIER_PRIMINF);
  add("BARRIER_DUALINF", KVR_CB_BARRIER_DUALINF);
  add("BARRIER_COMPL", KVR_CB_BARRIER_COMPL);
  add("MULTIOBJ_OBJCNT", KVR_CB_MULTIOBJ_OBJCNT);
  add("MULTIOBJ_SOLCNT", KVR_CB_MULTIOBJ_SOLCNT);
  add("MULTIOBJ_SOL", KVR_CB_MULTIOBJ_SOL);
  add("IIS_CONSTRMIN", KVR_CB_IIS_CONSTRMIN);
  add("IIS_CONSTRMAX", KVR_CB_IIS_CONSTRMAX);
  add("IIS_CONSTRGUESS", KVR_CB_IIS_CONSTRGUESS);
  add("IIS_BOUNDMIN", KVR_CB_IIS_BOUNDMIN);
  add("IIS_BOUNDMAX", KVR_CB_IIS_BOUNDMAX);
  add("IIS_BOUNDGUESS", KVR_CB_IIS_BOUNDGUESS);
  return c;
}

// ---------------------------------------------------------------- CallbackClass

CallbackState &callback_state(nb::handle obj) { return nb::cast<CallbackState &>(obj); }

void CallbackState::begin(void *data, int w) {
  cbdata = data;
  where = w;
  sol = nb::none();
  noderel = nb::none();
  setsol = nb::none();
}

nb::object CallbackState::solnow() {
  if (setsol.is_none()) return nb::none();
  std::vector<double> values(static_cast<size_t>(n), KVR_UNDEFINED);
  nb::list items = nb::borrow<nb::list>(setsol);
  for (size_t i = 0; i < values.size() && i < nb::len(items); ++i)
    values[i] = nb::cast<double>(nb::float_(items[i]));
  setsol = nb::none();
  double objective = 0.0;
  int code = KVRcbsolution(cbdata, values.data(), &objective);
  if (code) raise_error(code, "Callback error: the solution could not be handed over");
  return nb::float_(objective);
}

namespace {

// Called by the library for every callback event of a model optimized with a Python callback.
int callback_stub(KVRmodel *model, void *cbdata, int where, void *) {
  PyGILState_STATE gil = PyGILState_Ensure();
  try {
    nb::object key = handle_object(model);
    nb::dict map = nb::borrow<nb::dict>(module().attr("__modelmap"));
    if (map.contains(key)) {
      nb::object m = map[key];
      nb::object state = m.attr("_callback");
      if (!state.is_none()) {
        nb::object data = cbdata ? handle_object(cbdata) : nb::none();
        state.attr("callback")(m, data, where);
      }
    }
  } catch (nb::python_error &e) {
    e.discard_as_unraisable("kaviropy.callbackstub");
  } catch (std::exception &e) {
    PyErr_SetString(PyExc_RuntimeError, e.what());
    PyErr_WriteUnraisable(nullptr);
  }
  PyGILState_Release(gil);
  return 0;
}

}  // namespace

KVRcallback callback_function() { return callback_stub; }

void init_callback(nb::module_ &m) {
  nb::class_<CallbackState> cls(m, "CallbackClass", nb::dynamic_attr(),
                                "Callback codes, and the state of a running callback.");
  cls.attr("__module__") = "kaviropy";
  for (auto &[name, value] : callback_constants()) cls.attr(name.c_str()) = value;
  cls.def(
         "__init__",
         [](CallbackState *self, nb::handle model, nb::object function) {
           new (self) CallbackState();
           self->func = std::move(function);
           if (is_instance(model, "Model"))
             self->n = nb::cast<int>(model.attr("getAttr")("NumVars"));
         },
         nb::arg("model").none(), nb::arg("function").none(),
         "State of one optimization's callback: the user's function(model, where) and the "
         "data of the current invocation.")
      .def_prop_rw(
          "_CallbackClass__cbfunc", [](CallbackState &s) { return s.func; },
          [](CallbackState &s, nb::object v) { s.func = std::move(v); }, nb::arg("value").none(),
          "The user's callback function.")
      .def_rw("_n", &CallbackState::n, "Number of variables of the model.")
      .def_prop_rw(
          "_cbdata",
          [](CallbackState &s) { return s.cbdata ? handle_object(s.cbdata) : nb::none(); },
          [](CallbackState &s, nb::object v) { s.cbdata = handle_pointer<void>(v); },
          nb::arg("value").none(), "Library data of the current invocation, or None.")
      .def_rw("_where", &CallbackState::where, "Where code of the current invocation.")
      .def_rw("_sol", &CallbackState::sol, nb::arg("value").none(),
              "Cached new solution of this invocation, or None.")
      .def_rw("_noderel", &CallbackState::noderel, nb::arg("value").none(),
              "Cached node relaxation of this invocation, or None.")
      .def_rw("_setsol", &CallbackState::setsol, nb::arg("value").none(),
              "Values collected by cbSetSolution, or None.")
      .def(
          "callback",
          [](CallbackState &s, nb::handle model, nb::handle cbdata, int where) {
            s.begin(handle_pointer<void>(cbdata), where);
            s.func(model, where);
            s.sol = nb::none();
            s.noderel = nb::none();
            s.solnow();
          },
          nb::arg("model"), nb::arg("cbdata").none(), nb::arg("where"),
          "Runs the user's function for one library callback invocation.")
      .def(
          "_solnow", [](CallbackState &s) { return s.solnow(); },
          "Hands the values of cbSetSolution to the library; returns the objective of the "
          "solution (None when no values were given).");
  m.attr("__modelmap") = nb::dict();
}

}  // namespace kvrpy
