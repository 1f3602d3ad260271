// Env: owns one library environment; parameter access by name (with wildcards) is built here and
// reused by ParamClass, Model and the module functions.
#include "env.h"

#include <cmath>
#include <vector>

namespace kvrpy {

Env::~Env() {
  if (user && cenv) KVRfreeenv(cenv);
}

namespace {

KVRenv *live_env(nb::handle self) {
  KVRenv *cenv = nb::cast<Env &>(self).cenv;
  if (!cenv) raise_error(kInputError, "Invalid Environment");
  return cenv;
}

// Raises KaviroError(code, <the environment's latest message>) when code is not zero.
void check_env(int code, KVRenv *cenv) {
  if (code) raise_error(code, KVRgeterrormsg(cenv));
}

bool has_wildcard(const std::string &s) { return s.find_first_of("*?[") != std::string::npos; }

std::string lower(std::string s) {
  for (char &c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

// Python text of a parameter value, as shown in change lists.
std::string value_repr(nb::handle v) { return nb::cast<std::string>(nb::repr(v)); }

void set_one(KVRenv *cenv, const std::string &name, nb::handle value) {
  int type = KVRgetparamtype(cenv, name.c_str());
  int code;
  if (type == KVR_PARAM_INT && PyLong_Check(value.ptr())) {
    long long v = PyLong_AsLongLong(value.ptr());
    if (v == -1 && PyErr_Occurred()) {
      PyErr_Clear();  // too large for an int: let the library report the range
      code = KVRsetdblparam(cenv, name.c_str(), nb::cast<double>(nb::float_(value)));
    } else if (v < INT32_MIN || v > INT32_MAX) {
      code = KVRsetdblparam(cenv, name.c_str(), static_cast<double>(v));
    } else {
      code = KVRsetintparam(cenv, name.c_str(), static_cast<int>(v));
    }
  } else if (type == KVR_PARAM_INT || type == KVR_PARAM_DBL) {
    // Through float, as Python would convert; an integer parameter rejects fractional values.
    code = KVRsetdblparam(cenv, name.c_str(), nb::cast<double>(nb::float_(value)));
  } else {
    code = KVRsetstrparam(cenv, name.c_str(), utf8(value).c_str());
  }
  check_env(code, cenv);
}

}  // namespace

nb::tuple param_info(nb::handle self, const std::string &name) {
  return param_info(live_env(self), name);
}

nb::tuple param_info(KVRenv *cenv, const std::string &name) {
  int type = KVRgetparamtype(cenv, name.c_str());
  if (type < 0) raise_error(KVR_ERROR_UNKNOWN_PARAMETER, "Unknown parameter " + name);
  int flags = 0;
  check_env(KVRgetparamflags(cenv, name.c_str(), &flags), cenv);
  if (type == KVR_PARAM_INT) {
    int cur, mn, mx, def;
    check_env(KVRgetintparaminfo(cenv, name.c_str(), &cur, &mn, &mx, &def), cenv);
    return nb::make_tuple(name, nb::handle(reinterpret_cast<PyObject *>(&PyLong_Type)), cur, mn, mx,
                          def, flags);
  }
  if (type == KVR_PARAM_DBL) {
    double cur, mn, mx, def;
    check_env(KVRgetdblparaminfo(cenv, name.c_str(), &cur, &mn, &mx, &def), cenv);
    return nb::make_tuple(name, nb::handle(reinterpret_cast<PyObject *>(&PyFloat_Type)), cur, mn,
                          mx, def, flags);
  }
  char def[KVR_MAX_STRLEN];
  check_env(KVRgetstrparaminfo(cenv, name.c_str(), nullptr, def), cenv);
  std::vector<char> buf(KVR_MAX_STRLEN);
  int length = 0;
  check_env(
      KVRgetlongstrparam(cenv, name.c_str(), buf.data(), static_cast<int>(buf.size()), &length),
      cenv);
  if (length >= static_cast<int>(buf.size())) {
    buf.resize(static_cast<size_t>(length) + 1);
    check_env(
        KVRgetlongstrparam(cenv, name.c_str(), buf.data(), static_cast<int>(buf.size()), &length),
        cenv);
  }
  return nb::make_tuple(name, nb::handle(reinterpret_cast<PyObject *>(&PyUnicode_Type)),
                        text(buf.data()), nb::none(), nb::none(), text(def), flags);
}

nb::list param_list(nb::handle self, const std::string &pattern) {
  return param_list(live_env(self), pattern);
}

nb::list param_list(KVRenv *cenv, const std::string &pattern) {
  nb::list out;
  if (KVRgetparamtype(cenv, pattern.c_str()) >= 0) {
    out.append(pattern);
    return out;
  }
  nb::object fnmatchcase = nb::module_::import_("fnmatch").attr("fnmatchcase");
  nb::str pat(lower(pattern).c_str());
  int n = KVRgetnumparams(cenv);
  for (int i = 0; i < n; ++i) {
    char *name = nullptr;
    check_env(KVRgetparamname(cenv, i, &name), cenv);
    if (nb::cast<bool>(fnmatchcase(nb::str(lower(name).c_str()), pat))) out.append(text(name));
  }
  return out;
}

void env_message(nb::handle self, const std::string &msg) {
  Env &env = nb::cast<Env &>(self);
  if (!env.empty) env_message(env.cenv, msg);
}

void env_message(KVRenv *cenv, const std::string &msg) {
  int output = 0;
  if (!cenv || KVRgetintparam(cenv, "OutputFlag", &output) || !output) return;
  KVRmsg(cenv, (msg + "\n").c_str());
}

std::string change_list(nb::handle self) {
  KVRenv *cenv = live_env(self);
  std::string items;
  int n = KVRgetnumparams(cenv);
  for (int i = 0; i < n; ++i) {
    char *name = nullptr;
    check_env(KVRgetparamname(cenv, i, &name), cenv);
    nb::tuple info = param_info(cenv, name);
    nb::object current = info[2], def = info[5];
    int same = PyObject_RichCompareBool(current.ptr(), def.ptr(), Py_EQ);
    if (same < 0) throw nb::python_error();
    if (same) continue;
    if (!items.empty()) items += ", ";
    items += std::string(name) + "=";
    items += (nb::cast<int>(info[6]) & 1) ? "(user-defined)" : value_repr(info[2]);
  }
  return items.empty() ? "No parameter changes" : "Parameter changes: " + items;
}

// Sets one parameter of cenv by name or pattern; returns the value set (None when nothing was).
nb::object set_param_value(KVRenv *cenv, const std::string &paramname, nb::handle newval,
                           std::string &resolved) {
  resolved = paramname;
  if (paramname.find("KAVO_PAR_") == std::string::npos) {
    nb::list matches = param_list(cenv, paramname);
    if (matches.size() == 0) {
      if (has_wildcard(paramname)) {
        env_message(cenv, "No parameters matching '" + paramname + "' found");
        return nb::none();
      }
      raise_error(KVR_ERROR_UNKNOWN_PARAMETER, "Unknown parameter " + paramname);
    }
    if (matches.size() > 1) {
      env_message(cenv, "Matching parameters: " + nb::cast<std::string>(nb::str(matches)));
      return nb::none();
    }
    resolved = nb::cast<std::string>(matches[0]);
  }
  nb::object value = nb::borrow(newval);
  if (PyUnicode_Check(newval.ptr()) && lower(utf8(newval)) == "default")
    value = param_info(cenv, resolved)[5];
  set_one(cenv, resolved, value);
  return value;
}

void set_param(nb::handle self, const std::string &paramname, nb::handle newval) {
  KVRenv *cenv = live_env(self);
  std::string name;
  nb::object value = set_param_value(cenv, paramname, newval, name);
  if (value.is_none() && !newval.is_none()) return;

  // Settings on the default environment reach the models made from it.
  nb::object def = default_env(false);
  if (!def.is(self)) return;
  for (nb::handle model : main_models()) {
    if (!nb::getattr(model, "_uenv", nb::none()).is(self)) continue;
    nb::object menv = nb::getattr(model, "_env", nb::none());
    if (menv.is_none() || nb::cast<Env &>(menv).cenv == nullptr) continue;
    set_one(nb::cast<Env &>(menv).cenv, name, value);
  }
}

nb::object wrap_env(KVRenv *cenv) {
  return module_attr("Env")(nb::arg("cenv") = handle_object(cenv));
}

void init_env(nb::module_ &m) {
  nb::class_<Env> cls(m, "Env", nb::dynamic_attr(),
                      "A solver environment: parameter settings and log destination for the models "
                      "created from it.");
  cls.attr("__module__") = "kaviropy";
  def_disposable(cls, "environment");
  cls.def(
         "__init__",
         [](Env *self, nb::object logfilename, bool empty, nb::object params, nb::object cenv,
            bool isDefault) {
           if (!cenv.is_none()) {
             new (self) Env();
             self->cenv = handle_pointer<KVRenv>(cenv);
             self->user = false;
             return;
           }
           KVRenv *env = nullptr;
           int code = KVRemptyenvadvinternal(&env, KVR_VERSION_MAJOR, KVR_VERSION_MINOR,
                                             KVR_VERSION_TECHNICAL);
           // Until the object is built, failures free the environment and report its text.
           auto fail = [&](int c) {
             std::string msg = env ? KVRgeterrormsg(env) : "Failed to create environment";
             if (env) KVRfreeenv(env);
             raise_error(c, msg);
           };
           if (code) fail(code);
           if ((code = KVRsetstrparam(env, "LogFile", utf8(logfilename).c_str()))) fail(code);
           if ((code = KVRsetlogcallbackfuncenv(env, log_callback_stub, nullptr))) fail(code);
           new (self) Env();
           self->cenv = env;
           self->empty = true;
           // The object is not usable from Python before __init__ returns: work on the
           // library environment, and free it if anything fails.
           try {
             if (!params.is_none())
               for (nb::handle item : params.attr("items")()) {
                 nb::tuple kv = nb::borrow<nb::tuple>(item);
                 std::string resolved;
                 set_param_value(env, nb::cast<std::string>(nb::str(kv[0])), kv[1], resolved);
               }
             if (!empty) check_env(KVRstartenv(env), env);
           } catch (...) {
             self->~Env();
             throw;
           }
           if (!empty) {
             self->empty = false;
             self->is_default = isDefault;
           }
         },
         nb::arg("logfilename") = "", nb::arg("empty") = false, nb::arg("params") = nb::none(),
         nb::arg("cenv") = nb::none(), nb::arg("isDefault") = false,
         "Creates an environment; with empty=True it is started later by start().")
      .def_prop_rw(
          "_cenv", [](Env &e) { return handle_object(e.cenv); },
          [](Env &e, nb::object v) { e.cenv = handle_pointer<KVRenv>(v); }, nb::arg("value").none())
      .def_rw("_user", &Env::user)
      .def_rw("_default", &Env::is_default)
      .def_rw("_modcnt", &Env::modcnt)
      .def_rw("_empty", &Env::empty)
      .def(
          "start",
          [](nb::handle self) {
            Env &e = nb::cast<Env &>(self);
            KVRenv *cenv = live_env(self);
            e.empty = false;
            int code = KVRstartenv(cenv);
            if (code) {
              e.empty = true;
              raise_owner(code, self);
            }
            return nb::borrow(self);
          },
          "Starts an environment created with empty=True; returns the environment.")
      .def(
          "dispose",
          [](nb::handle self) {
            Env &e = nb::cast<Env &>(self);
            if (!e.cenv || !e.user) return;
            if (e.is_default && !exiting()) {
              KVRmsg(e.cenv, "Freeing default Kaviro environment\n");
              for (nb::handle model : main_models()) model.attr("close")();
            }
            KVRfreeenv(e.cenv);
            e.cenv = nullptr;
          },
          "Frees the library environment; the object cannot be used afterwards.")
      .def(
          "__repr__",
          [](nb::handle self) {
            if (!nb::cast<Env &>(self).cenv)
              return std::string("<kaviropy.Env, invalid or closed state>");
            return "<kaviropy.Env, " + change_list(self) + ">";
          },
          "Text form listing the changed parameters.")
      .def(
          "setParam",
          [](nb::handle self, nb::handle name, nb::handle value) {
            set_param(self, utf8(name), value);
          },
          nb::arg("paramname"), nb::arg("newval").none(),
          "Sets a parameter by name; wildcards select one parameter, and \"default\" restores "
          "the default value.")
      .def(
          "getParamInfo",
          [](nb::handle self, nb::handle name) {
            nb::tuple info = param_info(self, utf8(name));
            return nb::make_tuple(info[0], info[1], info[2], info[3], info[4], info[5]);
          },
          nb::arg("paramname"),
          "Returns (name, type, current value, minimum, maximum, default) of a parameter.")
      .def(
          "_getParamInfo",
          [](nb::handle self, nb::handle name) { return param_info(self, utf8(name)); },
          nb::arg("paramname"), "Returns the parameter information with the flags.")
      .def(
          "resetParams",
          [](nb::handle self) {
            KVRenv *cenv = live_env(self);
            check(KVRresetparams(cenv), self);
            env_message(self, "Reset all parameters");
            if (!default_env(false).is(self)) return;
            nb::handle kaviro = module_attr("kaviro");
            if (nb::cast<bool>(kaviro.attr("_kaviro__interactive")))
              set_param(self, "LogFile", nb::str("kaviro.log"));
            for (nb::handle model : main_models()) {
              nb::object menv = nb::getattr(model, "_env", nb::none());
              if (menv.is_none() || !nb::cast<Env &>(menv).cenv) continue;
              check(KVRresetparams(nb::cast<Env &>(menv).cenv), model);
              KVRmsg(nb::cast<Env &>(menv).cenv, "Reset all parameters to their default values\n");
            }
          },
          "Resets every parameter to its default value.")
      .def(
          "readParams",
          [](nb::handle self, nb::handle filename) {
            std::string f = utf8(filename);
            KVRsetreadsignal();  // Ctrl-C ends a long read with an error
            check(KVRreadparams(live_env(self), f.c_str()), self);
            env_message(self, "Read parameters from file " + f);
          },
          nb::arg("filename"), "Reads parameter settings from a file (\"Name value\" lines).")
      .def(
          "writeParams",
          [](nb::handle self, nb::handle filename) {
            std::string f = utf8(filename);
            check(KVRwriteparams(live_env(self), f.c_str()), self);
            env_message(self, "Wrote non-default parameter settings to file " + f);
          },
          nb::arg("filename"), "Writes the parameters that differ from their defaults to a file.")
      .def(
          "fixTuneParam",
          [](nb::handle self, nb::handle paramname) {
            nb::list names = param_list(self, utf8(paramname));
            if (names.size() != 1)
              raise_error(KVR_ERROR_UNKNOWN_PARAMETER, "Unknown parameter " + utf8(paramname));
            check(KVRfixtuneparam(live_env(self), nb::cast<std::string>(names[0]).c_str()), self);
          },
          nb::arg("paramname"), "Keeps the tuner from changing a parameter.")
      .def(
          "_paramlist",
          [](nb::handle self, nb::handle pattern) { return param_list(self, utf8(pattern)); },
          nb::arg("paramname"), "Names of the parameters that a name or pattern denotes.")
      .def(
          "_message", [](nb::handle self, nb::handle msg) { env_message(self, utf8(msg)); },
          nb::arg("msg"), "Writes a line to the environment's log.")
      .def(
          "_getCommStats",
          [](nb::handle self) {
            double sent = 0, recv = 0;
            int nsent = 0, nrecv = 0;
            check(KVRgetcommstats(live_env(self), &sent, &recv, &nsent, &nrecv), self);
            return nb::make_tuple(sent, recv, nsent, nrecv);
          },
          "Communication statistics (bytes sent, bytes received, messages sent, received).");
}

}  // namespace kvrpy
