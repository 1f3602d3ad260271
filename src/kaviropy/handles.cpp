// The handle classes Var, Constr, SOS, QConstr and GenConstr: plain extension types holding the
// library model and one index, with an instance dictionary for Python attributes. Attribute
// names that do not begin with "_" are routed to the library.
#include "handles.h"

#include <structmember.h>

#include "attrutil.h"
#include "model.h"

namespace kvrpy {
namespace {

const KindInfo kKinds[kNumKinds] = {
    {"Var", "_colno", "NumVars", "Variable not in model",
     "Tried to remove a variable that does not exist"},
    {"Constr", "_rowno", "NumConstrs", "Constraint not in model",
     "Tried to remove a constraint that does not exist"},
    {"SOS", "_sosno", "NumSOS", "SOS not in model", "Tried to remove an SOS that does not exist"},
    {"QConstr", "_qconstrno", "NumQConstrs", "Quadratic constraint not in model",
     "Tried to remove a quadratic constraint that does not exist"},
    {"GenConstr", "_genconstrno", "NumGenConstrs", "general constraint not in model",
     "Tried to remove a general constraint that does not exist"},
};
const char *kQualifiedNames[kNumKinds] = {"kaviropy.Var", "kaviropy.Constr", "kaviropy.SOS",
                                          "kaviropy.QConstr", "kaviropy.GenConstr"};
const char *kDocs[kNumKinds] = {"A variable of a model.", "A linear constraint of a model.",
                                "A special-ordered-set constraint of a model.",
                                "A quadratic constraint of a model.",
                                "A general constraint of a model."};

PyTypeObject *g_types[kNumKinds] = {};

HandleObject *object_of(PyObject *o) { return reinterpret_cast<HandleObject *>(o); }

// Runs body, turning C++ exceptions into a set Python error (for the type slots).
template <class Body>
auto guarded(Body &&body, decltype(body()) failure) noexcept -> decltype(body()) {
  try {
    return body();
  } catch (nb::python_error &e) {
    e.restore();
  } catch (const nb::cast_error &) {
    PyErr_SetString(PyExc_TypeError, "invalid argument type");
  } catch (const std::exception &e) {
    PyErr_SetString(PyExc_RuntimeError, e.what());
  }
  return failure;
}

int handle_traverse(PyObject *self, visitproc visit, void *arg) {
  Py_VISIT(object_of(self)->dict);
  Py_VISIT(Py_TYPE(self));
  return 0;
}

int handle_clear(PyObject *self) {
  Py_CLEAR(object_of(self)->dict);
  return 0;
}

void handle_dealloc(PyObject *self) {
  PyTypeObject *type = Py_TYPE(self);
  PyObject_GC_UnTrack(self);
  Py_CLEAR(object_of(self)->dict);
  type->tp_free(self);
  Py_DECREF(type);
}

// Handles start untracked by the garbage collector: without an instance dictionary they can
// be part of no reference cycle, and a model's millions of handles then cost the collector
// nothing. A handle is tracked from the moment it gets a dictionary.
void track_with_dict(PyObject *self) {
  if (object_of(self)->dict && !PyObject_GC_IsTracked(self)) PyObject_GC_Track(self);
}

bool is_base_type(PyTypeObject *type) {
  for (PyTypeObject *t : g_types)
    if (t == type) return true;
  return false;
}

PyObject *get_dict(PyObject *self, void *context) {
  PyObject *dict = PyObject_GenericGetDict(self, context);
  track_with_dict(self);
  return dict;
}

int set_dict(PyObject *self, PyObject *value, void *context) {
  int r = PyObject_GenericSetDict(self, value, context);
  track_with_dict(self);
  return r;
}

// Handle(cmodel, index): exactly two positional arguments.
PyObject *handle_new(PyTypeObject *type, PyObject *args, PyObject *kwds) {
  Py_ssize_t n = PyTuple_GET_SIZE(args) + (kwds ? PyDict_GET_SIZE(kwds) : 0);
  if (n != 2 || (kwds && PyDict_GET_SIZE(kwds))) {
    int kind = 0;
    for (int k = 0; k < kNumKinds; ++k)
      if (PyType_IsSubtype(type, g_types[k])) kind = k;
    PyErr_Format(PyExc_TypeError, "%s() takes exactly 2 positional arguments (%zd given)",
                 kKinds[kind].type_name, n);
    return nullptr;
  }
  return guarded(
      [&]() -> PyObject * {
        KVRmodel *model = handle_pointer<KVRmodel>(PyTuple_GET_ITEM(args, 0));
        int index = nb::cast<int>(nb::handle(PyTuple_GET_ITEM(args, 1)));
        PyObject *self = type->tp_alloc(type, 0);
        if (!self) return nullptr;
        object_of(self)->h = Handle{model, index};
        if (is_base_type(type)) PyObject_GC_UnTrack(self);
        return self;
      },
      nullptr);
}

// Names that normal lookup does not find go to the library, except those beginning with "_".
PyObject *handle_getattro(PyObject *self, PyObject *name) {
  PyObject *found = PyObject_GenericGetAttr(self, name);
  if (found || !PyErr_ExceptionMatches(PyExc_AttributeError)) return found;
  PyErr_Clear();
  return guarded(
      [&]() -> PyObject * {
        std::string n = utf8(name);
        if (n.empty() || n[0] == '_') raise_no_attribute(kKinds[handle_kind(self)].type_name, n);
        return get_attr(self, n).release().ptr();
      },
      nullptr);
}

int handle_setattro(PyObject *self, PyObject *name, PyObject *value) {
  if (!value || !PyUnicode_Check(name) || PyUnicode_GET_LENGTH(name) == 0 ||
      PyUnicode_READ_CHAR(name, 0) == '_') {
    int r = PyObject_GenericSetAttr(self, name, value);
    track_with_dict(self);
    return r;
  }
  return guarded(
      [&]() -> int {
        set_attr(self, utf8(name), value);
        return 0;
      },
      -1);
}

PyObject *get_cmodel(PyObject *self, void *) {
  return guarded([&] { return handle_object(object_of(self)->h.model).release().ptr(); },
                 static_cast<PyObject *>(nullptr));
}

int set_cmodel(PyObject *self, PyObject *value, void *) {
  if (!value) {
    PyErr_SetString(PyExc_AttributeError, "_cmodel cannot be deleted");
    return -1;
  }
  return guarded(
      [&] {
        object_of(self)->h.model = handle_pointer<KVRmodel>(value);
        return 0;
      },
      -1);
}

PyObject *get_index(PyObject *self, void *) { return PyLong_FromLong(object_of(self)->h.index); }

int set_index(PyObject *self, PyObject *value, void *) {
  if (!value) {
    PyErr_SetString(PyExc_AttributeError, "the index field cannot be deleted");
    return -1;
  }
  long v = PyLong_AsLong(value);
  if (v == -1 && PyErr_Occurred()) return -1;
  object_of(self)->h.index = static_cast<int>(v);
  return 0;
}

PyGetSetDef g_getsets[kNumKinds][4];
PyMemberDef g_members[] = {
    {"__dictoffset__", T_PYSSIZET, offsetof(HandleObject, dict), READONLY, nullptr},
    {nullptr, 0, 0, 0, nullptr}};

PyTypeObject *make_type(nb::module_ &m, int kind) {
  g_getsets[kind][0] = {"_cmodel", get_cmodel, set_cmodel,
                        "The library model (an integer handle), or None once disposed.", nullptr};
  g_getsets[kind][1] = {kKinds[kind].index_field, get_index, set_index,
                        "The index field with its state encoding.", nullptr};
  g_getsets[kind][2] = {"__dict__", get_dict, set_dict, nullptr, nullptr};
  g_getsets[kind][3] = {nullptr, nullptr, nullptr, nullptr, nullptr};
  PyType_Slot slots[] = {{Py_tp_dealloc, reinterpret_cast<void *>(handle_dealloc)},
                         {Py_tp_traverse, reinterpret_cast<void *>(handle_traverse)},
                         {Py_tp_clear, reinterpret_cast<void *>(handle_clear)},
                         {Py_tp_new, reinterpret_cast<void *>(handle_new)},
                         {Py_tp_getattro, reinterpret_cast<void *>(handle_getattro)},
                         {Py_tp_setattro, reinterpret_cast<void *>(handle_setattro)},
                         {Py_tp_getset, g_getsets[kind]},
                         {Py_tp_members, g_members},
                         {Py_tp_doc, const_cast<char *>(kDocs[kind])},
                         {0, nullptr}};
  PyType_Spec spec = {kQualifiedNames[kind], static_cast<int>(sizeof(HandleObject)), 0,
                      Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE | Py_TPFLAGS_HAVE_GC, slots};
  PyObject *type = PyType_FromSpec(&spec);
  if (!type) throw nb::python_error();
  m.attr(kKinds[kind].type_name) = nb::steal(type);
  return reinterpret_cast<PyTypeObject *>(type);
}

void add_common_methods(int kind) {
  nb::handle type(reinterpret_cast<PyObject *>(g_types[kind]));
  type.attr("_typeenum") = kind + 1;
  type.attr("_typename") = kKinds[kind].type_name;
  def_handle_method(
      kind, "__cindex__",
      [](nb::handle self) { return public_index(handle_data(self.ptr())->index); },
      "The element's current index (-1 pending, -2 removed).");
  def_handle_method(
      kind, "index", [](nb::handle self) { return public_index(handle_data(self.ptr())->index); },
      "The element's current index (-1 pending, -2 removed).");
  def_handle_method(
      kind, "sameAs",
      [](nb::handle self, nb::handle other) {
        if (Py_TYPE(self.ptr()) != Py_TYPE(other.ptr())) return false;
        const Handle &a = *handle_data(self.ptr()), &b = *handle_data(other.ptr());
        if (a.model != b.model || a.index != b.index) return false;
        // The instance dictionaries hold the user's attributes; a missing one equals an empty one.
        nb::dict empty;
        PyObject *da = object_of(self.ptr())->dict, *db = object_of(other.ptr())->dict;
        int same = PyObject_RichCompareBool(da ? da : empty.ptr(), db ? db : empty.ptr(), Py_EQ);
        if (same < 0) throw nb::python_error();
        return same == 1;
      },
      nb::arg("other").none(), "True when other is a handle of the same element.");
  // A handle pickles as (kind, process, model, index, dict). Restored in the same process while
  // its model lives, it is that model's shared handle; anywhere else it comes back detached,
  // since the library model does not exist there.
  def_handle_method(
      kind, "__reduce__",
      [kind](nb::handle self) {
        const Handle &h = *handle_data(self.ptr());
        PyObject *d = object_of(self.ptr())->dict;
        nb::object pid = nb::module_::import_("os").attr("getpid")();
        return nb::make_tuple(module_attr("_restore_handle"),
                              nb::make_tuple(kind, pid, handle_object(h.model), h.index,
                                             d ? nb::borrow(d) : nb::none()));
      },
      "Pickling support: the element, resolved again in the same process.");
  def_handle_method(
      kind, "getAttr", [](nb::handle self, nb::handle name) { return get_attr(self, utf8(name)); },
      nb::arg("attrname").none(), "Value of a library attribute of this element.");
  def_handle_method(
      kind, "setAttr",
      [](nb::handle self, nb::handle name, nb::handle value) { set_attr(self, utf8(name), value); },
      nb::arg("attrname").none(), nb::arg("newvalue").none(),
      "Sets a library attribute of this element (applied at the next update).");
  def_handle_method(
      kind, "prefetchAttr",
      [](nb::handle self, nb::handle name) { prefetch_attr(self, utf8(name)); },
      nb::arg("attrname").none(), "Asks the library to cache an attribute for later reads.");
  def_handle_method(
      kind, "__dir__",
      [kind](nb::handle self) {
        nb::handle object_type(reinterpret_cast<PyObject *>(&PyBaseObject_Type));
        nb::list names = nb::borrow<nb::list>(nb::list(object_type.attr("__dir__")(self)));
        for (nb::handle n : attr_names(kind + 1)) names.append(n);
        return names;
      },
      "Python attributes and the library attributes of this kind of element.");
}

}  // namespace

const KindInfo &kind_info(int kind) { return kKinds[kind]; }

PyTypeObject *handle_type(int kind) { return g_types[kind]; }

int handle_kind(nb::handle obj) {
  PyTypeObject *t = Py_TYPE(obj.ptr());
  for (int k = 0; k < kNumKinds; ++k)
    if (t == g_types[k]) return k;
  for (int k = 0; k < kNumKinds; ++k)
    if (g_types[k] && PyType_IsSubtype(t, g_types[k])) return k;
  return -1;
}

Handle *as_handle(nb::handle obj, int *kind) {
  int k = handle_kind(obj);
  if (k < 0) return nullptr;
  if (kind) *kind = k;
  return handle_data(obj.ptr());
}

nb::object new_handle(int kind, KVRmodel *model, int index) {
  PyTypeObject *type = g_types[kind];
  PyObject *obj = type->tp_alloc(type, 0);
  if (!obj) throw nb::python_error();
  object_of(obj)->h = Handle{model, index};
  PyObject_GC_UnTrack(obj);
  return nb::steal(obj);
}

std::string element_name(KVRmodel *model, const char *attr, int index) {
  char *name = nullptr;
  if (KVRgetstrattrelement(model, attr, index, &name) || !name)
    raise_error(kUsageError, KVRgetmerrormsg(model));
  return display(name);
}

int live_position(nb::handle obj, int kind, KVRmodel *model) {
  int k = -1;
  Handle *h = as_handle(obj, &k);
  if (!h || k != kind || h->index == -1 || h->index == -2 || h->model != model)
    raise_error(KVR_ERROR_NOT_IN_MODEL, kKinds[kind].not_in_model);
  return public_index(h->index);
}

// Inverse of __reduce__: the shared handle of a live model of this process, else a detached one.
nb::object restore_handle(int kind, nb::handle pid, nb::handle cmodel, int index, nb::handle dict) {
  if (kind < 0 || kind >= kNumKinds) raise_error(KVR_ERROR_INVALID_ARGUMENT, "Invalid handle kind");
  nb::object here = nb::module_::import_("os").attr("getpid")();
  if (!cmodel.is_none() && here.equal(pid) && public_index(index) >= 0) {
    nb::object model = model_object(handle_pointer<KVRmodel>(cmodel));
    if (!model.is_none()) {
      try {
        nb::object shared = model_handle(model, kind, public_index(index));
        if (handle_data(shared.ptr())->index == index) return shared;
      } catch (nb::python_error &) {
        // The element is gone since the pickle was made: restore it detached.
      }
    }
  }
  nb::object h = new_handle(kind, nullptr, -1);
  if (!dict.is_none()) {
    object_of(h.ptr())->dict = PyDict_Copy(dict.ptr());
    if (!object_of(h.ptr())->dict) throw nb::python_error();
    track_with_dict(h.ptr());
  }
  return h;
}

PyObject *restore_handle_entry(PyObject *, PyObject *const *args, Py_ssize_t nargs) {
  return guarded(
      [&]() -> PyObject * {
        if (nargs != 5) raise_python(PyExc_TypeError, "_restore_handle takes 5 arguments");
        nb::handle a[5] = {args[0], args[1], args[2], args[3], args[4]};
        return restore_handle(nb::cast<int>(a[0]), a[1], a[2], nb::cast<int>(a[3]), a[4])
            .release()
            .ptr();
      },
      nullptr);
}

void init_handles(nb::module_ &m) {
  static PyMethodDef restore = {
      "_restore_handle",
      reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(restore_handle_entry)),
      METH_FASTCALL,
      "_restore_handle(kind, pid, cmodel, index, dict)\n--\n\n"
      "Rebuilds a pickled handle (see the handles' __reduce__)."};
  add_module_function(m, &restore);
  for (int k = 0; k < kNumKinds; ++k) g_types[k] = make_type(m, k);
  for (int k = 0; k < kNumKinds; ++k) add_common_methods(k);
  init_var();
  init_constr();
  init_sos();
  init_qconstr();
  init_genconstr();
}

}  // namespace kvrpy
