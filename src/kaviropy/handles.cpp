// Registration of the handle classes: constructor, library model, index field, index, sameAs.
#include "handles.h"

namespace kvrpy {
namespace {

template <class H>
void register_handle(nb::module_ &m, const char *name, const char *index_field, const char *doc) {
  nb::class_<H> cls(m, name, nb::dynamic_attr(), doc);
  cls.attr("__module__") = "kaviropy";
  cls.def(
         "__init__",
         [](H *self, nb::object cmodel, int index) {
           new (self) H();
           self->model = handle_pointer<KVRmodel>(cmodel);
           self->index = index;
         },
         nb::arg("cmodel").none(), nb::arg("index"),
         "Handle of element `index` of a library model.")
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
          nb::arg("other"), "True when other is a handle of the same element.");
  cls.def_prop_rw(
      index_field, [](H &h) { return h.index; }, [](H &h, int v) { h.index = v; },
      "The index field with its state encoding.");
}

}  // namespace

void init_handles(nb::module_ &m) {
  register_handle<Var>(m, "Var", "_colno", "A variable of a model.");
  register_handle<Constr>(m, "Constr", "_rowno", "A linear constraint of a model.");
  register_handle<SOS>(m, "SOS", "_sosno", "A special-ordered-set constraint of a model.");
  register_handle<QConstr>(m, "QConstr", "_qconstrno", "A quadratic constraint of a model.");
  register_handle<GenConstr>(m, "GenConstr", "_genconstrno", "A general constraint of a model.");
}

}  // namespace kvrpy
