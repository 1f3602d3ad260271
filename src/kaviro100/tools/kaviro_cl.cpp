// kaviro_cl: solves or tunes model files from the command line.
//
//   kaviro_cl [Name=value ...] modelfile
//   kaviro_cl --tune [Name=value ...] modelfile [modelfile ...]
//
// Sets the parameters (given before or after the file), reads the model (LP or MPS, optionally .gz
// / .bz2), optimizes it with the log on the console, and writes the ResultFile when one is given
// (any file type the library writes: .sol, .json, .mst, .bas, .lp, .mps, ...). With --tune the
// models are tuned instead (together when there are several), the best parameter set is printed
// and ResultFile (.prm) receives it. Exit status 0 on success, 1 on errors (the library's message
// goes to standard error), 2 on a usage error.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "kaviro_c.h"

namespace {

int fail(const char *what, const char *message) {
  std::fprintf(stderr, "kaviro_cl: %s: %s\n", what, message);
  return 1;
}

void usage(std::FILE *out) {
  std::fprintf(out,
               "Usage: kaviro_cl [--help] [--version] [Name=value ...] modelfile\n"
               "       kaviro_cl --tune [Name=value ...] modelfile [modelfile ...]\n"
               "\n"
               "Reads a model file (.lp or .mps, optionally compressed as .gz or .bz2), solves\n"
               "it and prints the log. Name=value pairs set parameters before the model is read,\n"
               "for example TimeLimit=60 MIPGap=0.01 Threads=2. ResultFile=name writes the result\n"
               "after the solve; the suffix chooses the kind: .sol (solution), .json (solution\n"
               "as JSON), .mst (MIP start), .bas (basis), .lp or .mps (the model), .prm\n"
               "(parameters), .attr (attributes).\n"
               "\n"
               "--tune searches for parameter settings that solve the model faster instead of\n"
               "solving it once; with several model files they are tuned together (all MIPs or\n"
               "all continuous). TuneTimeLimit=seconds bounds the search, TuneTrials=n sets the\n"
               "runs per setting, TuneOutput=0..3 the detail of the log. The best set found is\n"
               "printed, and ResultFile=name.prm writes it as a parameter file.\n");
}

// A string parameter of any length ("" when it cannot be read).
std::string str_param(KVRenv *env, const char *name) {
  std::string value(KVR_MAX_STRLEN, '\0');
  int length = 0;
  if (KVRgetlongstrparam(env, name, value.data(), static_cast<int>(value.size()), &length))
    return "";
  if (length >= static_cast<int>(value.size())) {
    value.assign(static_cast<size_t>(length) + 1, '\0');
    if (KVRgetlongstrparam(env, name, value.data(), static_cast<int>(value.size()), &length))
      return "";
  }
  value.resize(static_cast<size_t>(length));
  return value;
}

// Name and value of every parameter whose value differs between the two environments.
std::vector<std::string> differences(KVRenv *from, KVRenv *to) {
  std::vector<std::string> lines;
  for (int i = 0; i < KVRgetnumparams(to); ++i) {
    char *name = nullptr;
    if (KVRgetparamname(to, i, &name)) continue;
    int ia = 0, ib = 0;
    double da = 0, db = 0;
    std::string value;
    switch (KVRgetparamtype(to, name)) {
      case 1:
        if (!KVRgetintparam(from, name, &ia) && !KVRgetintparam(to, name, &ib) && ia != ib)
          value = std::to_string(ib);
        break;
      case 2:
        if (!KVRgetdblparam(from, name, &da) && !KVRgetdblparam(to, name, &db) && da != db) {
          char text[64];
          std::snprintf(text, sizeof text, "%g", db);
          value = text;
        }
        break;
      case 3:
        if (std::string sa = str_param(from, name), sb = str_param(to, name); sa != sb) value = sb;
        break;
      default:
        break;
    }
    if (!value.empty()) lines.push_back(std::string(name) + " " + value);
  }
  return lines;
}

// Tunes the models (together when there are several) and reports the best set; writes it to
// resultfile when one is given. Returns the exit status.
int tune(KVRenv *env, std::vector<KVRmodel *> &models, const std::string &resultfile) {
  KVRmodel *first = models.front();
  int code = models.size() == 1 ? KVRtunemodel(first)
                                : KVRtunemodels(static_cast<int>(models.size()), models.data());
  if (code) return fail("tuning failed", KVRgetmerrormsg(first));
  int count = 0;
  KVRgetintattr(first, "TuneResultCount", &count);
  if (count == 0) {
    std::printf("No parameter set improved on the given settings\n");
    return 0;
  }
  if (KVRgettuneresult(first, 0)) return fail("tuning result", KVRgetmerrormsg(first));
  std::printf("Best parameter set (result 0 of %d):\n", count);
  for (const std::string &line : differences(env, KVRgetenv(first)))
    std::printf("  %s\n", line.c_str());
  if (!resultfile.empty()) {
    if (KVRwrite(first, resultfile.c_str()))
      return fail(("unable to write " + resultfile).c_str(), KVRgetmerrormsg(first));
    std::printf("Wrote result file '%s'\n", resultfile.c_str());
  }
  return 0;
}

bool ends_with(const std::string &s, const char *suffix) {
  size_t n = std::strlen(suffix);
  return s.size() >= n && s.compare(s.size() - n, n, suffix) == 0;
}

}  // namespace

int main(int argc, char **argv) {
  std::vector<std::pair<std::string, std::string>> params;
  std::vector<const char *> modelfiles;
  bool tuning = false;
  for (int i = 1; i < argc; ++i) {
    const char *arg = argv[i];
    if (!std::strcmp(arg, "--help") || !std::strcmp(arg, "-h")) {
      usage(stdout);
      return 0;
    }
    if (!std::strcmp(arg, "--version")) {
      int major, minor, technical;
      KVRversion(&major, &minor, &technical);
      std::printf("kaviro_cl %d.%d.%d (%s)\n", major, minor, technical, KVRplatform());
      return 0;
    }
    if (!std::strcmp(arg, "--tune")) {
      tuning = true;
      continue;
    }
    if (const char *eq = std::strchr(arg, '='); eq && arg[0] != '-') {
      params.emplace_back(std::string(arg, eq), std::string(eq + 1));
      continue;
    }
    if (arg[0] == '-') {
      std::fprintf(stderr, "kaviro_cl: unexpected argument '%s'\n\n", arg);
      usage(stderr);
      return 2;
    }
    modelfiles.push_back(arg);
  }
  if (modelfiles.empty()) {
    usage(stderr);
    return 2;
  }
  if (!tuning && modelfiles.size() > 1) {
    std::fprintf(stderr, "kaviro_cl: unexpected argument '%s' (one model file, or --tune)\n\n",
                 modelfiles[1]);
    usage(stderr);
    return 2;
  }

  KVRenv *env = nullptr;
  int code = KVRemptyenv(&env);
  if (code) {
    int rc = fail("unable to create an environment", env ? KVRgeterrormsg(env) : "out of memory");
    KVRfreeenv(env);
    return rc;
  }
  std::string resultfile;
  for (const auto &[name, value] : params) {
    if (KVRsetparam(env, name.c_str(), value.c_str())) {
      int rc = fail(("parameter " + name).c_str(), KVRgeterrormsg(env));
      KVRfreeenv(env);
      return rc;
    }
  }
  resultfile = str_param(env, "ResultFile");
  if (tuning && !resultfile.empty() && !ends_with(resultfile, ".prm")) {
    std::fprintf(stderr, "kaviro_cl: with --tune, ResultFile must name a parameter file (.prm)\n");
    KVRfreeenv(env);
    return 2;
  }
  if (KVRstartenv(env)) {
    int rc = fail("unable to start the environment", KVRgeterrormsg(env));
    KVRfreeenv(env);
    return rc;
  }
  for (const auto &[name, value] : params)
    KVRmsg(env, ("Set parameter " + name + " to value " + value + "\n").c_str());

  std::vector<KVRmodel *> models;
  auto free_all = [&] {
    for (KVRmodel *m : models) KVRfreemodel(m);
    KVRfreeenv(env);
  };
  for (const char *file : modelfiles) {
    KVRmodel *model = nullptr;
    if (KVRreadmodel(env, file, &model)) {
      int rc = fail(file, KVRgeterrormsg(env));
      free_all();
      return rc;
    }
    models.push_back(model);
  }
  int rc = 0;
  KVRmodel *model = models.front();
  if (tuning) {
    rc = tune(env, models, resultfile);
  } else if (KVRoptimize(model)) {
    rc = fail("optimization failed", KVRgetmerrormsg(model));
  } else if (!resultfile.empty()) {
    if (KVRwrite(model, resultfile.c_str()))
      rc = fail(("unable to write " + resultfile).c_str(), KVRgetmerrormsg(model));
    else
      std::printf("Wrote result file '%s'\n", resultfile.c_str());
  }
  free_all();
  return rc;
}
