// Model: lifecycle (construction, update, dispose, copy), the lazily built handle lists, the
// getters of handles, and the routing of attribute names to the library.
#include "model.h"

#include <algorithm>
#include <climits>
#include <unordered_map>

#include "attrutil.h"

namespace kvrpy {
namespace {

PyTypeObject *g_model_type = nullptr;

Handle &handle_of(const nb::object &obj) { return *handle_data(obj.ptr()); }

// Detaches every handle (no model, index -1) and drops the lists.
void detach_handles(Model &m) {
  for (auto &list : m.lists) {
    for (auto &obj : list) {
      Handle &h = handle_of(obj);
      h.model = nullptr;
      h.index = -1;
    }
    list.clear();
    list.shrink_to_fit();
  }
  m.built = false;
}

Env *env_ptr(const nb::object &obj) {
  Env *e = nullptr;
  if (!obj.is_valid() || !nb::try_cast<Env *>(obj, e)) return nullptr;
  return e;
}

void release_uenv(Model &m) {
  if (Env *e = env_ptr(m.uenv); e && e->modcnt > 0) e->modcnt -= 1;
  m.uenv = nb::none();
}

// The live models by library model, to resolve handles restored from a pickle.
std::unordered_map<KVRmodel *, Model *> &live_models() {
  static auto *models = new std::unordered_map<KVRmodel *, Model *>();
  return *models;
}

// Frees the library model and detaches everything that pointed into it.
// Freeing is refused while the model is being optimized (from its own callback): then nothing
// changes, and the error is raised when `raise` is set (the user's dispose()).
void dispose(Model &m, bool raise = false) {
  if (m.cmodel) {
    if (int code = KVRfreemodel(m.cmodel)) {
      if (raise) check_model(code, m.cmodel);
      return;
    }
    live_models().erase(m.cmodel);
    m.cmodel = nullptr;
  }
  detach_handles(m);
  // The model's own environment died with the library model.
  if (Env *e = env_ptr(m.env)) e->cenv = nullptr;
  release_uenv(m);
}

void setup(Model &m, bool empty) {
  if (m.built) return;
  if (!m.cmodel) raise_error(kUsageError, "Model has already been freed");
  int counts[kNumKinds] = {};
  if (!empty)
    for (int k = 0; k < kNumKinds; ++k) {
      int code = KVRgetintattr(m.cmodel, kind_info(k).count_attr, &counts[k]);
      if (code) check_model(code, m.cmodel);
    }
  size_t total = 0;
  for (int c : counts) total += static_cast<size_t>(c);
  GcPause pause(total);
  for (int k = 0; k < kNumKinds; ++k) {
    auto &list = m.lists[k];
    list.clear();
    list.reserve(static_cast<size_t>(counts[k]));
    // Variables and linear constraints are numbered; the other kinds receive their positions
    // at the next update.
    bool numbered = k == kVar || k == kConstr || m.updated_unbuilt;
    for (int i = 0; i < counts[k]; ++i) list.push_back(new_handle(k, m.cmodel, numbered ? i : -1));
  }
  m.livevars = counts[kVar];
  m.liveconstrs = counts[kConstr];
  m.delvars = m.delconstrs = false;
  m.built = true;
}

using DeleteFn = int (*)(KVRmodel *, int, const int *);

// Drops the handles marked removed (one library deletion each) and renumbers the rest by their
// new position.
void drop_removed(Model &m, std::vector<nb::object> &list, DeleteFn del) {
  std::vector<nb::object> kept;
  kept.reserve(list.size());
  for (auto &obj : list) {
    Handle &h = handle_of(obj);
    if (h.index < -2) {
      int old = -(h.index + 3);
      int code = del(m.cmodel, 1, &old);
      if (code) check_model(code, m.cmodel);
      h.index = -2;
    } else if (h.index >= -1) {
      h.index = static_cast<int>(kept.size());
      kept.push_back(std::move(obj));
    }
  }
  list.swap(kept);
}

// Variables and linear constraints: number the handles added since the last update, then drop
// the removed ones.
void update_linear(Model &m, int kind, int &live, bool &pending_delete, DeleteFn del) {
  auto &list = m.lists[kind];
  for (size_t i = static_cast<size_t>(live); i < list.size(); ++i) {
    Handle &h = handle_of(list[i]);
    if (h.index >= -2) h.index = static_cast<int>(i);
  }
  if (pending_delete) {
    drop_removed(m, list, del);
    pending_delete = false;
  }
  live = static_cast<int>(list.size());
}

// Before variables are deleted: the handles of the general constraints that go with them are
// marked removed (the library deletes those constraints itself).
void mark_gens_losing_vars(Model &m) {
  if (!m.delvars || m.lists[kGenConstr].empty()) return;
  std::vector<int> going;
  for (auto &obj : m.lists[kVar]) {
    int index = handle_of(obj).index;
    if (index < -2) going.push_back(-(index + 3));
  }
  if (going.empty()) return;
  const int n = static_cast<int>(going.size());
  int count = 0;
  check_model(KVRgetgenconstrslosingvars(m.cmodel, n, going.data(), &count, nullptr), m.cmodel);
  if (count == 0) return;
  std::vector<int> lost(static_cast<size_t>(count));
  check_model(KVRgetgenconstrslosingvars(m.cmodel, n, going.data(), &count, lost.data()), m.cmodel);
  for (auto &obj : m.lists[kGenConstr]) {
    Handle &h = handle_of(obj);
    // not in the library yet, or removed already, when negative
    if (h.index >= 0 && std::binary_search(lost.begin(), lost.end(), h.index)) h.index = -2;
  }
}

// SOS, quadratic and general constraints: drop the removed ones, then number every handle with
// its position (the pending ones included).
void update_other(Model &m, int kind, DeleteFn del) {
  auto &list = m.lists[kind];
  if (std::any_of(list.begin(), list.end(),
                  [](const nb::object &o) { return handle_of(o).index <= -2; }))
    drop_removed(m, list, del);
  for (size_t i = 0; i < list.size(); ++i) handle_of(list[i]).index = static_cast<int>(i);
}

void update(Model &m) {
  if (!m.cmodel) raise_error(kUsageError, "Model has already been freed");
  if (m.built) {
    mark_gens_losing_vars(m);
    update_linear(m, kVar, m.livevars, m.delvars, KVRdelvars);
    update_linear(m, kConstr, m.liveconstrs, m.delconstrs, KVRdelconstrs);
    update_other(m, kSOS, KVRdelsos);
    update_other(m, kQConstr, KVRdelqconstrs);
    update_other(m, kGenConstr, KVRdelgenconstrs);
  } else {
    m.updated_unbuilt = true;
  }
  m.updatemode = -1;
  int code = KVRupdatemodel(m.cmodel);
  if (code) check_model(code, m.cmodel);
}

nb::list list_prefix(const std::vector<nb::object> &list, size_t n) {
  n = std::min(n, list.size());
  nb::list out = nb::steal<nb::list>(PyList_New(static_cast<Py_ssize_t>(n)));
  for (size_t i = 0; i < n; ++i) PyList_SET_ITEM(out.ptr(), i, nb::object(list[i]).release().ptr());
  return out;
}

nb::list numbered_handles(nb::handle self, int kind) {
  model_setup(self);
  nb::list out;
  for (auto &obj : model_ref(self).lists[kind])
    if (public_index(handle_of(obj).index) >= 0) out.append(obj);
  return out;
}

nb::object handle_by_name(nb::handle self, int kind, nb::handle name) {
  model_setup(self);
  Model &m = model_ref(self);
  std::string n = utf8(name);
  int index = -1;
  int code = kind == kVar ? KVRgetvarbyname(m.cmodel, n.c_str(), &index)
                          : KVRgetconstrbyname(m.cmodel, n.c_str(), &index);
  check(code, self);
  auto &list = m.lists[kind];
  if (index < 0 || static_cast<size_t>(index) >= list.size()) return nb::none();
  return list[static_cast<size_t>(index)];
}

int model_traverse(PyObject *self, visitproc visit, void *arg) {
  Py_VISIT(Py_TYPE(self));
  PyObject **dict = _PyObject_GetDictPtr(self);
  if (dict) Py_VISIT(*dict);
  if (!nb::inst_ready(self)) return 0;
  Model &m = *nb::inst_ptr<Model>(self);
  Py_VISIT(m.callback.ptr());
  Py_VISIT(m.uenv.ptr());
  Py_VISIT(m.env.ptr());
  for (auto &list : m.lists)
    for (auto &obj : list) Py_VISIT(obj.ptr());
  return 0;
}

int model_clear(PyObject *self) {
  PyObject **dict = _PyObject_GetDictPtr(self);
  if (dict) Py_CLEAR(*dict);
  if (!nb::inst_ready(self)) return 0;
  Model &m = *nb::inst_ptr<Model>(self);
  // The library model must not outlive the handles' link to it: free it before the lists go.
  if (m.cmodel && !exiting()) dispose(m);
  detach_handles(m);
  m.callback = nb::none();
  return 0;
}

PyType_Slot kModelSlots[] = {{Py_tp_traverse, reinterpret_cast<void *>(model_traverse)},
                             {Py_tp_clear, reinterpret_cast<void *>(model_clear)},
                             {0, nullptr}};

std::string model_repr(nb::handle self) {
  Model &m = model_ref(self);
  if (!m.cmodel) return "<kaviro.Model empty model>";
  int ismip = 0, nc = 0, nv = 0;
  char *name = nullptr;
  if (int code = KVRgetintattr(m.cmodel, "IsMIP", &ismip)) check_model(code, m.cmodel);
  if (int code = KVRgetintattr(m.cmodel, "NumConstrs", &nc)) check_model(code, m.cmodel);
  if (int code = KVRgetintattr(m.cmodel, "NumVars", &nv)) check_model(code, m.cmodel);
  if (int code = KVRgetstrattr(m.cmodel, "ModelName", &name)) check_model(code, m.cmodel);
  std::string n = name && *name ? name : "Unnamed";
  nb::object params = nb::steal(PyObject_GenericGetAttr(self.ptr(), nb::str("Params").ptr()));
  if (!params.is_valid()) throw nb::python_error();
  std::string changes = nb::cast<std::string>(params.attr("_getChangeList")());
  return "<kaviro.Model " + std::string(ismip == 1 ? "MIP" : "Continuous") + " instance " + n +
         ": " + std::to_string(nc) + " constrs, " + std::to_string(nv) + " vars, " + changes + ">";
}

void model_init(Model *self, nb::handle name, nb::handle env, nb::handle cmodel) {
  nb::object uenv = env.is_none() ? default_env(true) : nb::borrow(env);
  Env *e = nullptr;
  if (!nb::try_cast<Env *>(uenv, e) || !e) raise_error(kInputError, "Invalid Environment");
  KVRmodel *model = nullptr;
  bool adopted = !cmodel.is_none();
  if (adopted) {
    model = handle_pointer<KVRmodel>(cmodel);
    if (!model) raise_error(kInputError, "Invalid model handle");
  } else {
    if (!e->cenv) raise_error(kInputError, "Invalid Environment");
    std::string n = utf8(name);
    int code =
        KVRnewmodel(e->cenv, &model, n.c_str(), 0, nullptr, nullptr, nullptr, nullptr, nullptr);
    if (code) {
      if (model) KVRfreemodel(model);
      raise_owner(code, uenv);
    }
    if (!model) raise_error(KVR_ERROR_FAILED_TO_CREATE_MODEL, "Failed to create model");
  }
  nb::object menv, params;
  try {
    menv = wrap_env(KVRgetenv(model));
    params = module_attr("ParamClass")(menv);
    int code = KVRsetlogcallbackfunc(model, log_callback_stub, nullptr);
    // The handle lists of a new model are empty, so the update is the library's alone.
    if (!code) code = KVRupdatemodel(model);
    if (code) check_model(code, model);
  } catch (...) {
    KVRfreemodel(model);
    throw;
  }
  new (self) Model();
  self->cmodel = model;
  live_models()[model] = self;
  self->callback = nb::none();
  self->uenv = uenv;
  self->env = menv;
  if (!adopted) self->built = true;  // empty lists: a new model has no elements
  e->modcnt += 1;
  nb::handle py = nb::find(self);
  for (const char *key : {"Params", "params"})
    if (PyObject_GenericSetAttr(py.ptr(), nb::str(key).ptr(), params.ptr()))
      throw nb::python_error();
}

}  // namespace

Model::~Model() {
  if (cmodel && !exiting()) dispose(*this);
}

Model *as_model(nb::handle obj) {
  if (!g_model_type || !PyObject_TypeCheck(obj.ptr(), g_model_type)) return nullptr;
  return nb::inst_ptr<Model>(obj);
}

nb::object model_object(KVRmodel *cmodel) {
  auto it = live_models().find(cmodel);
  if (it == live_models().end()) return nb::none();
  return nb::find(it->second);
}

KVRmodel *live_model(nb::handle self) {
  KVRmodel *model = model_ref(self).cmodel;
  if (!model) raise_error(kUsageError, "Model has already been freed");
  return model;
}

void model_setup(nb::handle self) { setup(model_ref(self), false); }

KVRmodel *prepared_model(nb::handle self) {
  KVRmodel *model = live_model(self);
  model_setup(self);
  return model;
}

void model_update(nb::handle self) { update(model_ref(self)); }

nb::object model_handle(nb::handle self, int kind, int i) {
  model_setup(self);
  auto &list = model_ref(self).lists[kind];
  if (i < 0 || static_cast<size_t>(i) >= list.size())
    raise_error(KVR_ERROR_INDEX_OUT_OF_RANGE, std::string(kind_info(kind).type_name) + " index " +
                                                  std::to_string(i) + " out of range");
  return list[static_cast<size_t>(i)];
}

// Read at every addition, as the library does: a handle is numbered at once exactly when the
// library adds its element at once, also right after the parameter changed.
int model_updatemode(nb::handle self) {
  Model &m = model_ref(self);
  int mode = 0;
  KVRmodel *model = live_model(self);
  if (int code = KVRgetintparam(KVRgetenv(model), "UpdateMode", &mode)) check_model(code, model);
  m.updatemode = mode;
  return mode;
}

nb::object model_append(nb::handle self, int kind, bool numbered) {
  Model &m = model_ref(self);
  auto &list = m.lists[kind];
  nb::object h = new_handle(kind, m.cmodel, numbered ? static_cast<int>(list.size()) : -1);
  list.push_back(h);
  return h;
}

nb::object model_adopt(nb::handle self, KVRmodel *cmodel) {
  return module_attr("Model")(nb::arg("env").none() = model_ref(self).uenv,
                              nb::arg("cmodel").none() = handle_object(cmodel));
}

void model_resync(nb::handle self) {
  Model &m = model_ref(self);
  if (!m.built) return;  // the lazy set-up reads the counts when the lists are first needed
  KVRmodel *model = live_model(self);
  int counts[kNumKinds] = {};
  for (int k = 0; k < kNumKinds; ++k)
    if (int code = KVRgetintattr(model, kind_info(k).count_attr, &counts[k]))
      check_model(code, model);
  for (int k = 0; k < kNumKinds; ++k) {
    auto &list = m.lists[k];
    while (list.size() < static_cast<size_t>(counts[k]))
      list.push_back(new_handle(k, model, static_cast<int>(list.size())));
  }
  m.livevars = static_cast<int>(m.lists[kVar].size());
  m.liveconstrs = static_cast<int>(m.lists[kConstr].size());
}

GcPause::GcPause(size_t objects) {
  if (objects < 10000) return;
  nb::module_ gc = nb::module_::import_("gc");
  nb::tuple saved = nb::borrow<nb::tuple>(gc.attr("get_threshold")());
  long first = nb::cast<long>(saved[0]);
  if (first == 0) return;  // collection is off already
  long wanted = static_cast<long>(std::min<size_t>(objects * 2 + 1000, INT_MAX));
  if (wanted <= first) return;
  gc.attr("set_threshold")(wanted, saved[1], saved[2]);
  saved_ = saved;
}

GcPause::~GcPause() {
  if (!saved_.is_valid()) return;
  // May run while an exception propagates: keep it aside while Python is called.
  PyObject *type, *value, *trace;
  PyErr_Fetch(&type, &value, &trace);
  PyObject *gc = PyImport_ImportModule("gc");
  if (gc) {
    PyObject *r =
        PyObject_CallMethod(gc, "set_threshold", "OOO", PyTuple_GET_ITEM(saved_.ptr(), 0),
                            PyTuple_GET_ITEM(saved_.ptr(), 1), PyTuple_GET_ITEM(saved_.ptr(), 2));
    Py_XDECREF(r);
    Py_DECREF(gc);
  }
  PyErr_Clear();
  PyErr_Restore(type, value, trace);
}

void init_model(nb::module_ &m) {
  nb::class_<Model> cls(m, "Model", nb::dynamic_attr(), nb::type_slots(kModelSlots),
                        "An optimization model: variables, constraints and objectives held by the "
                        "solver library, with handles that stay valid across updates.");
  g_model_type = reinterpret_cast<PyTypeObject *>(cls.ptr());
  cls.attr("__module__") = "kaviropy";
  def_disposable(cls, "model");
  cls.attr("_typename") = "Model";
  cls.def(
         "__init__",
         [](Model *self, nb::handle name, nb::handle env, nb::handle cmodel) {
           model_init(self, name, env, cmodel);
         },
         nb::arg("name").none() = "", nb::arg("env").none() = nb::none(),
         nb::arg("cmodel").none() = nb::none(),
         "Creates an empty model in env (default: the default environment), or adopts the "
         "library model cmodel.")
      .def_prop_ro(
          "_cmodel", [](Model &m) { return handle_object(m.cmodel); },
          "The library model (an integer handle), or None once disposed.")
      .def_prop_rw(
          "_callback", [](Model &m) { return m.callback; },
          [](Model &m, nb::object v) { m.callback = std::move(v); }, nb::arg("value").none(),
          "The callback state of a running optimization, or None.")
      .def_prop_rw(
          "_uenv", [](Model &m) { return m.uenv; },
          [](Model &m, nb::object v) { m.uenv = std::move(v); }, nb::arg("value").none(),
          "The user's environment.")
      .def_prop_rw(
          "_env", [](Model &m) { return m.env; },
          [](Model &m, nb::object v) { m.env = std::move(v); }, nb::arg("value").none(),
          "The model's own environment.")
      .def_prop_ro(
          "_Model__updatemode", [](Model &m) { return m.updatemode; },
          "UpdateMode as read at the last addition (-1 when none was made since the update).")
      .def_prop_ro(
          "_Model__newranges", [](Model &) { return 0; },
          "Kept for compatibility and always 0: a range variable's handle is appended when the "
          "range constraint is added, so it never waits for the update.")
      .def_prop_ro(
          "_Model__livevars", [](Model &m) { return m.livevars; },
          "Variables that existed at the last update.")
      .def_prop_ro(
          "_Model__liveconstrs", [](Model &m) { return m.liveconstrs; },
          "Linear constraints that existed at the last update.")
      .def_prop_ro(
          "_Model__delvars", [](Model &m) { return m.delvars; }, "A variable removal is pending.")
      .def_prop_ro(
          "_Model__delconstrs", [](Model &m) { return m.delconstrs; },
          "A linear constraint removal is pending.");
  const char *list_names[kNumKinds] = {"_Model__vars", "_Model__constrs", "_Model__sos",
                                       "_Model__qconstrs", "_Model__genconstrs"};
  for (int k = 0; k < kNumKinds; ++k)
    cls.def_prop_ro(
        list_names[k],
        [k](Model &m) -> nb::object {
          if (!m.built) return nb::none();
          return list_prefix(m.lists[k], m.lists[k].size());
        },
        "A copy of the handle list of this kind (None until the lists are built).");

  cls.def(
         "_Model__setup", [](nb::handle self, bool empty) { setup(model_ref(self), empty); },
         nb::arg("empty") = false, "Builds the handle lists once.")
      .def(
          "_Model__resync", [](nb::handle self) { model_resync(self); },
          "Appends handles for elements the library added by itself since the lists were made.")
      .def(
          "_Model__getupdatemode", [](nb::handle self) { return model_updatemode(self); },
          "The UpdateMode parameter of the model.")
      .def(
          "update", [](nb::handle self) { model_update(self); },
          "Applies pending additions, removals and changes, and renumbers the handles.")
      .def(
          "dispose", [](nb::handle self) { dispose(model_ref(self), true); },
          "Frees the library model; its handles are detached.")
      .def(
          "copy",
          [](nb::handle self) {
            KVRmodel *copy = KVRcopymodel(live_model(self));
            if (!copy) raise_error(kInputError, "Failed to create copy");
            return model_adopt(self, copy);
          },
          "A new model holding a copy of the library model (pending changes are not applied).")
      .def(
          "getVars",
          [](nb::handle self) {
            model_setup(self);
            Model &m = model_ref(self);
            return list_prefix(m.lists[kVar], static_cast<size_t>(m.livevars));
          },
          "The variables as of the last update (removals still pending included).")
      .def(
          "getConstrs",
          [](nb::handle self) {
            model_setup(self);
            Model &m = model_ref(self);
            return list_prefix(m.lists[kConstr], static_cast<size_t>(m.liveconstrs));
          },
          "The linear constraints as of the last update (removals still pending included).")
      .def(
          "getSOSs", [](nb::handle self) { return numbered_handles(self, kSOS); },
          "The SOS constraints as of the last update.")
      .def(
          "getQConstrs", [](nb::handle self) { return numbered_handles(self, kQConstr); },
          "The quadratic constraints as of the last update.")
      .def(
          "getGenConstrs", [](nb::handle self) { return numbered_handles(self, kGenConstr); },
          "The general constraints as of the last update.")
      .def(
          "getVarByName",
          [](nb::handle self, nb::handle name) { return handle_by_name(self, kVar, name); },
          nb::arg("name").none(), "The variable of that name, or None.")
      .def(
          "getConstrByName",
          [](nb::handle self, nb::handle name) { return handle_by_name(self, kConstr, name); },
          nb::arg("name").none(), "The linear constraint of that name, or None.");
  const char *factories[kNumKinds] = {"_Model__getVar", "_Model__getConstr", "_Model__getSOS",
                                      "_Model__getQConstr", "_Model__getGenConstr"};
  for (int k = 0; k < kNumKinds; ++k)
    cls.def(
        factories[k], [k](nb::handle self, int i) { return model_handle(self, k, i); },
        nb::arg("i"), "The shared handle at position i.");
  cls.def(
         "_owns",
         [](nb::handle self, nb::handle obj) {
           KVRmodel *mine = model_ref(self).cmodel;
           if (Handle *h = as_handle(obj)) return h->model == mine;
           nb::object other = nb::getattr(obj, "_cmodel", nb::none());
           return handle_pointer<KVRmodel>(other) == mine;
         },
         nb::arg("object").none(), "True when the object belongs to this model.")
      .def(
          "_Model__isAttrAvailable",
          [](nb::handle self, nb::handle name) {
            return KVRisattravailable(live_model(self), utf8(name).c_str());
          },
          nb::arg("name").none(), "1 when the attribute has a value in the current state, else 0.")
      .def(
          "__getattr__",
          [](nb::handle self, nb::handle name) {
            std::string n = utf8(name);
            if (n.empty() || n[0] == '_') raise_no_attribute("Model", n);
            return get_attr(self, n);
          },
          nb::arg("name").none(), "Reads the model attribute of that name.")
      .def(
          "__setattr__",
          [](nb::handle self, nb::handle name, nb::handle value) {
            if (set_private_attr(self, name, value)) return;
            std::string n = utf8(name);
            set_attr(self, n, value);
          },
          nb::arg("name").none(), nb::arg("value").none(),
          "Names beginning with '_' are Python attributes; others set the model attribute.")
      .def(
          "__dir__",
          [](nb::handle self) {
            nb::handle object_type(reinterpret_cast<PyObject *>(&PyBaseObject_Type));
            nb::list names = nb::borrow<nb::list>(nb::list(object_type.attr("__dir__")(self)));
            for (nb::handle n : attr_names(KVR_ATTRCLASS_MODEL)) names.append(n);
            names.sort();
            return names;
          },
          "Python attributes and the model attributes of the library.")
      .def("__repr__", &model_repr, "<kaviro.Model kind instance name: sizes, parameter changes>")
      .def(
          "setParam",
          [](nb::handle self, nb::handle name, nb::handle value) {
            model_ref(self).env.attr("setParam")(name, value);
          },
          nb::arg("paramname").none(), nb::arg("newval").none(),
          "Sets a parameter of the model's own environment.")
      .def(
          "getParamInfo",
          [](nb::handle self, nb::handle name) {
            return model_ref(self).env.attr("getParamInfo")(name);
          },
          nb::arg("paramname").none(),
          "(name, type, current value, minimum, maximum, default) of a parameter of the model.");
  init_model_add(cls);
  init_model_query(cls);
}

}  // namespace kvrpy
