// The class kaviro (process-wide state: default environment, interactive flag, exit flag) and the
// module functions that act on the default environment.
#include <cstdio>

#include "constants.h"
#include "env.h"
#include "paramhelp.h"

namespace kvrpy {
namespace {

struct Kaviro {};

nb::object kaviro_class() { return module_attr("kaviro"); }

nb::object read_model(nb::handle filename, nb::handle env) {
  std::string name = utf8(filename);
  if (name.find('*') != std::string::npos || name.find('?') != std::string::npos) {
    nb::list matches = nb::borrow<nb::list>(nb::module_::import_("glob").attr("glob")(filename));
    if (matches.size() == 0)
      raise_error(KVR_ERROR_FILE_READ, "No file matching '" + name + "' found");
    name = utf8(matches[0]);
  }
  nb::object e = env.is_none() ? default_env(true) : nb::borrow(env);
  KVRenv *cenv = nb::cast<Env &>(e).cenv;
  if (!cenv) raise_error(kInputError, "Invalid Environment");
  KVRmodel *model = nullptr;
  KVRsetreadsignal();  // Ctrl-C ends a long read with an error
  int code = KVRreadmodel(cenv, name.c_str(), &model);
  if (code) raise_error(code, latest_message(e));
  if (!model) raise_error(kUsageError, "Unable to read model");
  return module_attr("Model")(nb::arg("env") = e, nb::arg("cmodel") = handle_object(model));
}

void print_models() {
  nb::list models = main_models();
  nb::object print = nb::module_::import_("builtins").attr("print");
  if (models.size() == 0) {
    print("No models currently loaded");
    return;
  }
  print("Currently loaded models:");
  nb::dict members = nb::borrow<nb::dict>(
      nb::module_::import_("sys").attr("modules")["__main__"].attr("__dict__"));
  for (nb::handle model : models)
    for (auto [key, value] : members)
      if (value.is(model)) print(nb::str("    {}: {}").format(key, nb::repr(model)));
}

void dispose_default() {
  nb::object cls = kaviro_class();
  nb::object env = cls.attr("_defaultenv");
  if (env.is_none()) return;
  env.attr("close")();
  cls.attr("_defaultenv") = nb::none();
}

const char kShellHelp[] =
    "\n  Kaviro shell.  Available top-level commands are:\n"
    "\n"
    "    read()        - Read a model from a file\n"
    "                    Example: m = read('afiro.mps')\n"
    "    models()      - List the models that are currently loaded\n"
    "                    Example: models()\n"
    "    setParam()    - Set the value of a parameter for all loaded models\n"
    "                    Example: setParam('TimeLimit', 60)\n"
    "    readParams()  - Read parameter settings from a file\n"
    "                    Example: readParams('settings.prm')\n"
    "    resetParams() - Restore every parameter to its default value\n"
    "                    Example: resetParams()\n"
    "    paramHelp()   - Show the meaning, type, range and default of a parameter\n"
    "                    Example: paramHelp('MIPGap')\n"
    "    writeParams() - Write the non-default parameter settings to a file\n"
    "                    Example: writeParams('settings.prm')\n"
    "    system()      - Run a shell command\n"
    "                    Example: system('ls')\n"
    "\n"
    "  For more help on a command, call help() on it, for example help(read).\n";

void param_help(const std::string &paramname) {
  nb::object env = default_env(true);
  nb::object print = nb::module_::import_("builtins").attr("print");
  nb::list names = param_list(env, paramname);
  if (names.size() == 0) {
    print("No help found for parameter " + paramname);
    return;
  }
  if (names.size() > 1) {
    std::string list;
    for (nb::handle n : names) list += "  " + nb::cast<std::string>(n) + "\n";
    print("Matching parameters:\n" + list);
    return;
  }
  print(param_help_text(env, nb::cast<std::string>(names[0])));
}

}  // namespace

nb::object default_env(bool create) {
  nb::object cls = kaviro_class();
  nb::object env = cls.attr("_defaultenv");
  if (env.is_none() && create) {
    bool interactive = nb::cast<bool>(cls.attr("_kaviro__interactive"));
    env = module_attr("Env")(nb::arg("logfilename") = interactive ? "kaviro.log" : "",
                             nb::arg("isDefault") = true);
    cls.attr("_defaultenv") = env;
  }
  return env;
}

nb::list main_models() {
  nb::list out;
  nb::object main = nb::module_::import_("sys").attr("modules").attr("get")("__main__");
  if (main.is_none() || !nb::hasattr(module(), "Model")) return out;
  nb::object model_type = module_attr("Model");
  nb::list members = nb::borrow<nb::list>(nb::module_::import_("inspect").attr("getmembers")(main));
  for (nb::handle member : members) {
    nb::handle value = nb::borrow<nb::tuple>(member)[1];
    if (PyObject_IsInstance(value.ptr(), model_type.ptr()) == 1) out.append(value);
  }
  return out;
}

bool exiting() {
  PyObject *cls = PyObject_GetAttrString(module().ptr(), "kaviro");
  if (!cls) {
    PyErr_Clear();
    return true;
  }
  PyObject *flag = PyObject_GetAttrString(cls, "_exiting");
  Py_DECREF(cls);
  if (!flag) {
    PyErr_Clear();
    return true;
  }
  bool r = PyObject_IsTrue(flag) == 1;
  Py_DECREF(flag);
  return r;
}

void init_kaviro(nb::module_ &m) {
  nb::class_<Kaviro> cls(m, "kaviro", "Process-wide state: the default environment.");
  cls.attr("_kaviro__interactive") = false;
  cls.attr("_defaultenv") = nb::none();
  cls.attr("_exiting") = false;
  cls.def_static(
         "interactive", [] { kaviro_class().attr("_kaviro__interactive") = true; },
         "Marks the session as interactive (the default environment then logs to kaviro.log).")
      .def_static(
          "_getdefaultenv", [](bool create) { return default_env(create); },
          nb::arg("create") = true, "The default environment, created on first use.")
      .def_static("_getmodels", &main_models, "The Model objects of the main module.")
      .def_static(
          "_cleanup",
          [] {
            kaviro_class().attr("_exiting") = true;
            dispose_default();
          },
          "Disposes the default environment at interpreter exit.")
      .def_static(
          "version",
          [] {
            int a, b, c;
            KVRversion(&a, &b, &c);
            return nb::make_tuple(a, b, c);
          },
          "The library version as (major, minor, technical).")
      .def_static(
          "platform", [] { return text(KVRplatform()); }, "The platform the library was built for.")
      .def_static(
          "_iscontainer",
          [](nb::handle obj) {
            return PyList_Check(obj.ptr()) || PyTuple_Check(obj.ptr()) || PyDict_Check(obj.ptr()) ||
                   PyAnySet_Check(obj.ptr());
          },
          nb::arg("obj"), "True for list, tuple, dict and set arguments.")
      .def_static("read", &read_model, nb::arg("modelname"), nb::arg("env").none() = nb::none(),
                  "Reads a model file into a new Model.")
      .def_static("models", &print_models, "Prints the models of the main module.")
      .def_static("disposeDefaultEnv", &dispose_default, "Frees the default environment.");
  nb::module_::import_("atexit").attr("register")(cls.attr("_cleanup"));

  m.def(
      "help",
      [](nb::handle argument) {
        if (argument.is_none()) {
          nb::module_::import_("builtins").attr("print")(kShellHelp);
          return;
        }
        nb::module_::import_("pydoc").attr("help")(argument);
      },
      nb::arg("argument").none() = nb::none(),
      "Prints the shell help, or Python's help on the argument.");
  m.def(
      "paramHelp", [](nb::handle name) { param_help(utf8(name)); }, nb::arg("paramname"),
      "Prints the type, range, default and purpose of a parameter (wildcards allowed).");
  m.def(
      "system",
      [](nb::handle command) { return nb::module_::import_("os").attr("system")(command); },
      nb::arg("command"), "Runs a shell command.");
  m.def("read", &read_model, nb::arg("filename"), nb::arg("env").none() = nb::none(),
        "Reads a model file (type from the suffix; .gz and .bz2 accepted) into a new Model.");
  m.def("models", &print_models, "Prints the models of the main module.");
  m.def("disposeDefaultEnv", &dispose_default, "Frees the default environment.");
  m.def(
      "getParamInfo", [](nb::handle name) { return default_env(true).attr("getParamInfo")(name); },
      nb::arg("paramname"),
      "(name, type, value, minimum, maximum, default) of a parameter of the default environment.");
  m.def(
      "fixTuneParam", [](nb::handle name) { default_env(true).attr("fixTuneParam")(name); },
      nb::arg("paramname"), "Keeps the tuner from changing a parameter.");
  m.def(
      "setParam",
      [](nb::handle name, nb::handle value) { default_env(true).attr("setParam")(name, value); },
      nb::arg("paramname"), nb::arg("newval").none(),
      "Sets a parameter of the default environment (and of the models made from it).");
  m.def(
      "resetParams", [] { default_env(true).attr("resetParams")(); },
      "Resets the parameters of the default environment.");
  m.def(
      "readParams", [](nb::handle f) { default_env(true).attr("readParams")(f); },
      nb::arg("filename"), "Reads parameter settings into the default environment.");
  m.def(
      "writeParams", [](nb::handle f) { default_env(true).attr("writeParams")(f); },
      nb::arg("filename"), "Writes the changed parameters of the default environment.");
}

}  // namespace kvrpy
