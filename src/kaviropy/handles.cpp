// Registration of the handle classes: constructor, library model, index field, index, sameAs,
// and the routing of attribute names to the library.
#include "handles.h"

#include "attrutil.h"

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

PyTypeObject *g_types[kNumKinds] = {};

template <class H>
void construct(nb::handle obj, KVRmodel *model, int index) {
  H *h = nb::inst_ptr<H>(obj);
  new (h) H();
  h->model = model;
  h->index = index;
}

template <class H>
nb::class_<H> register_handle(nb::module_ &m, int kind, const char *doc) {
  const KindInfo &info = kKinds[kind];
  nb::class_<H> cls(m, info.type_name, nb::dynamic_attr(), doc);
  g_types[kind] = reinterpret_cast<PyTypeObject *>(cls.ptr());
  cls.attr("__module__") = "kaviropy";
  cls.attr("_typeenum") = kind + 1;
  cls.attr("_typename") = info.type_name;
  cls.def(
         "__init__",
         [kind](H *self, nb::args args) {
           if (args.size() != 2)
             raise_python(PyExc_TypeError, std::string(kKinds[kind].type_name) +
                                               "() takes exactly 2 positional arguments (" +
                                               std::to_string(args.size()) + " given)");
           KVRmodel *model = handle_pointer<KVRmodel>(args[0]);
           int index = nb::cast<int>(args[1]);
           new (self) H();
           self->model = model;
           self->index = index;
         },
         "Handle of element `index` of a library model (cmodel, index).")
      .def_prop_rw(
          "_cmodel", [](H &h) { return handle_object(h.model); },
          [](H &h, nb::object v) { h.model = handle_pointer<KVRmodel>(v); },
          nb::arg("value").none(),
          "The library model (an integer handle), or None once the model is disposed.")
      .def(
          "__cindex__", [](H &h) { return public_index(h.index); },
          "The element's current index (-1 pending, -2 removed).")
      .def(
          "index", [](H &h) { return public_index(h.index); },
          "The element's current index (-1 pending, -2 removed).")
      .def(
          "sameAs",
          [](nb::handle self, nb::handle other) {
            if (Py_TYPE(self.ptr()) != Py_TYPE(other.ptr())) return false;
            H &a = nb::cast<H &>(self), &b = nb::cast<H &>(other);
            if (a.model != b.model || a.index != b.index) return false;
            nb::object da = nb::getattr(self, "__dict__", nb::dict());
            nb::object db = nb::getattr(other, "__dict__", nb::dict());
            return PyObject_RichCompareBool(da.ptr(), db.ptr(), Py_EQ) == 1;
          },
          nb::arg("other"), "True when other is a handle of the same element.")
      .def(
          "getAttr", [](nb::handle self, nb::handle name) { return get_attr(self, utf8(name)); },
          nb::arg("attrname"), "Value of a library attribute of this element.")
      .def(
          "setAttr",
          [](nb::handle self, nb::handle name, nb::handle value) {
            set_attr(self, utf8(name), value);
          },
          nb::arg("attrname"), nb::arg("newvalue").none(),
          "Sets a library attribute of this element (applied at the next update).")
      .def(
          "prefetchAttr", [](nb::handle self, nb::handle name) { prefetch_attr(self, utf8(name)); },
          nb::arg("attrname"), "Asks the library to cache an attribute for later reads.")
      .def(
          "__getattr__",
          [kind](nb::handle self, nb::handle name) {
            std::string n = utf8(name);
            if (n.empty() || n[0] == '_') raise_no_attribute(kKinds[kind].type_name, n);
            return get_attr(self, n);
          },
          nb::arg("name"), "Reads the library attribute of that name.")
      .def(
          "__setattr__",
          [](nb::handle self, nb::handle name, nb::handle value) {
            std::string n = utf8(name);
            if (!n.empty() && n[0] == '_') {
              if (PyObject_GenericSetAttr(self.ptr(), name.ptr(), value.ptr()))
                throw nb::python_error();
              return;
            }
            set_attr(self, n, value);
          },
          nb::arg("name"), nb::arg("value").none(),
          "Names beginning with '_' are Python attributes; others set the library attribute.")
      .def(
          "__dir__",
          [kind](nb::handle self) {
            nb::handle object_type(reinterpret_cast<PyObject *>(&PyBaseObject_Type));
            nb::list names = nb::borrow<nb::list>(nb::list(object_type.attr("__dir__")(self)));
            for (nb::handle n : attr_names(kind + 1)) names.append(n);
            return names;
          },
          "Python attributes and the library attributes of this kind of element.");
  cls.def_prop_rw(
      info.index_field, [](H &h) { return h.index; }, [](H &h, int v) { h.index = v; },
      "The index field with its state encoding.");
  return cls;
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
  // Every handle class stores exactly a Handle; the derived structs add nothing.
  return nb::inst_ptr<Handle>(obj);
}

nb::object new_handle(int kind, KVRmodel *model, int index) {
  nb::object obj = nb::inst_alloc(nb::handle(reinterpret_cast<PyObject *>(g_types[kind])));
  switch (kind) {
    case kVar:
      construct<Var>(obj, model, index);
      break;
    case kConstr:
      construct<Constr>(obj, model, index);
      break;
    case kSOS:
      construct<SOS>(obj, model, index);
      break;
    case kQConstr:
      construct<QConstr>(obj, model, index);
      break;
    default:
      construct<GenConstr>(obj, model, index);
      break;
  }
  nb::inst_mark_ready(obj);
  return obj;
}

std::string element_name(KVRmodel *model, const char *attr, int index) {
  char *name = nullptr;
  if (KVRgetstrattrelement(model, attr, index, &name) || !name)
    raise_error(0, KVRgetmerrormsg(model));
  return name;
}

int live_position(nb::handle obj, int kind, KVRmodel *model) {
  int k = -1;
  Handle *h = as_handle(obj, &k);
  if (!h || k != kind || h->index == -1 || h->index == -2 || h->model != model)
    raise_error(KVR_ERROR_NOT_IN_MODEL, kKinds[kind].not_in_model);
  return public_index(h->index);
}

void init_handles(nb::module_ &m) {
  auto var = register_handle<Var>(m, kVar, "A variable of a model.");
  auto constr = register_handle<Constr>(m, kConstr, "A linear constraint of a model.");
  auto sos = register_handle<SOS>(m, kSOS, "A special-ordered-set constraint of a model.");
  auto qconstr = register_handle<QConstr>(m, kQConstr, "A quadratic constraint of a model.");
  auto gen = register_handle<GenConstr>(m, kGenConstr, "A general constraint of a model.");
  init_var(var);
  init_constr(constr);
  init_sos(sos);
  init_qconstr(qconstr);
  init_genconstr(gen);
}

}  // namespace kvrpy
