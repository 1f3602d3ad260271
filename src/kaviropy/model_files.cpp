// Model.read merges a data file (start, hints, priorities, basis, parameters, attributes) into the
// model; Model.write writes the model or one of its data files, the kind chosen by the suffix;
// Model.getJSONSolution returns the last solve's results as JSON text.
#include "model_files.h"

#include "model.h"

namespace kvrpy {

namespace {

// File names may be str, bytes or path-like objects.
std::string file_name(nb::handle filename) {
  if (PyUnicode_Check(filename.ptr()) || PyBytes_Check(filename.ptr())) return utf8(filename);
  return utf8(nb::module_::import_("os").attr("fspath")(filename));
}

void read(nb::handle self, nb::handle filename) {
  KVRmodel *cm = live_model(self);
  std::string name = file_name(filename);
  KVRsetreadsignal();  // Ctrl-C ends a long read with an error
  check(KVRread(cm, name.c_str()), self);
}

void write(nb::handle self, nb::handle filename) {
  KVRmodel *cm = live_model(self);
  std::string name = file_name(filename);
  // Model and attribute files show pending changes, so the handles are numbered first.
  if (KVRismodelfile(name.c_str()) == 1 || KVRisattrfile(name.c_str()) == 1) model_update(self);
  check(KVRwrite(cm, name.c_str()), self);
}

nb::str json_solution(nb::handle self) {
  KVRmodel *cm = live_model(self);
  char *buffer = nullptr;
  check(KVRgetjsonsolution(cm, &buffer), self);
  std::string copy(buffer);
  KVRfree(buffer);
  return text(copy.c_str());
}

}  // namespace

void init_model_files(nb::module_ &m) {
  ModelMethods def;
  def(
      "read", [](nb::handle self, nb::handle filename) { read(self, filename); },
      nb::arg("filename"),
      "Reads a data file into the model: MIP start (.mst, .sol), hints (.hnt), branching "
      "priorities (.ord), basis (.bas), parameters (.prm) or attributes (.attr); compressed "
      "files (.gz, .bz2) are accepted.");
  def(
      "write", [](nb::handle self, nb::handle filename) { write(self, filename); },
      nb::arg("filename"),
      "Writes the model (.lp, .mps) or one of its data files (.sol, .json, .mst, .hnt, .ord, "
      ".bas, .prm, .attr); the suffix chooses the kind, .gz or .bz2 compresses.");
  def(
      "getJSONSolution", [](nb::handle self) { return json_solution(self); },
      "The results of the last optimization as JSON text.");
}

}  // namespace kvrpy
