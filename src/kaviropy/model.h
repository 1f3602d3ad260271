// Model: owns one library model and the lists of its handles. The handle lists mirror the
// library's numbering: after an update the handle at position i of a list carries index i.
//
// Other class families add methods to Model from their own files after init_model() ran:
//   nb::type<Model>().attr("optimize") = nb::cpp_function(fn, nb::is_method(), ...);
// and use the functions below to reach the library model, run update() and turn library
// indices into the shared handles.
#pragma once

#include <vector>

#include "handles.h"

namespace kvrpy {

struct Model {
  KVRmodel *cmodel = nullptr;  // owned; null once disposed
  nb::object callback;         // _callback: the CallbackClass of a running optimization
  nb::object uenv;             // _uenv: the user's Env (its _modcnt counts this model)
  nb::object env;              // _env: Env wrapping the model's own library environment
  int updatemode = -1;         // UpdateMode at the last addition; -1 when none since the update
  bool built = false;          // handle lists made (lazy set-up ran)
  // An update ran before the set-up: the set-up numbers every kind, as that update would have.
  bool updated_unbuilt = false;
  // Handle lists per kind (HandleKind order: vars, constrs, sos, qconstrs, genconstrs).
  std::vector<nb::object> lists[kNumKinds];
  // Leading entries of the variable / constraint list that existed at the last update.
  int livevars = 0, liveconstrs = 0;
  // A removal of a variable / linear constraint is pending.
  bool delvars = false, delconstrs = false;

  ~Model();
};

// The Model inside obj, or nullptr when obj is not a Model.
Model *as_model(nb::handle obj);
// The Model inside a Model object (self of a Model method).
inline Model &model_ref(nb::handle self) { return *nb::inst_ptr<Model>(self); }
// Raises KaviroError(code, the model's latest message) when code is not zero.
inline void check_model(int code, KVRmodel *model) {
  if (code) raise_error(code, model ? KVRgetmerrormsg(model) : "");
}
// The live Model object that owns a library model, or None.
nb::object model_object(KVRmodel *cmodel);
// The library model of a Model object; raises KaviroError(0, "Model has already been freed")
// once it was disposed.
KVRmodel *live_model(nb::handle self);
// Builds the handle lists once (from the library's counts).
void model_setup(nb::handle self);
// The library model of a live Model with its handle lists built (what most methods start with).
KVRmodel *prepared_model(nb::handle self);
// Model.update(): numbers pending handles, issues pending deletions, updates the library.
void model_update(nb::handle self);
// The shared handle at position i of a kind's list (the private factories __getVar(i), ...).
nb::object model_handle(nb::handle self, int kind, int i);
// The UpdateMode of the model, read from its environment (the library reads it at every
// addition too).
int model_updatemode(nb::handle self);
// Appends a new handle of `kind`: numbered at once with its list position when `numbered`,
// else pending (-1). Returns the new handle.
nb::object model_append(nb::handle self, int kind, bool numbered);

// A new Model object owning the library model `cmodel` (a copy or a derived model of self's), in
// self's user environment; its handle lists are built when first needed.
nb::object model_adopt(nb::handle self, KVRmodel *cmodel);

// After the library appended elements by itself (a feasibility relaxation adds penalty
// variables and constraints), appends numbered handles for them, keeping the existing handles.
// Call it right after an update, when no handle is pending.
void model_resync(nb::handle self);

// Keeps the garbage collector from running while many handles are created; restores the
// thresholds when it goes out of scope.
class GcPause {
 public:
  explicit GcPause(size_t objects);
  ~GcPause();
  GcPause(const GcPause &) = delete;
  GcPause &operator=(const GcPause &) = delete;

 private:
  nb::object saved_;
};

// Adds a method to the Model class from another file of the Model family:
//   ModelMethods def; def("optimize", fn, nb::arg("callback").none() = nb::none(), "doc");
class ModelMethods {
 public:
  ModelMethods() : cls_(module_attr("Model")) {}
  template <class Fn, class... Extra>
  void operator()(const char *name, Fn &&fn, const Extra &...extra) {
    cls_.attr(name) = nb::cpp_function(std::forward<Fn>(fn), nb::scope(cls_), nb::name(name),
                                       nb::is_method(), extra...);
  }

 private:
  nb::object cls_;
};

void init_model(nb::module_ &m);
// Registered by model_add.cpp and model_query.cpp on the Model class.
void init_model_add(nb::class_<Model> &cls);
void init_model_query(nb::class_<Model> &cls);
// Derived models and the feasibility relaxation (model_transform.cpp), after init_model.
void init_model_transform(nb::module_ &m);

}  // namespace kvrpy
