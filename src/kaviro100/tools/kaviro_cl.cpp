// kaviro_cl: solves a model file from the command line.
//
//   kaviro_cl [Name=value ...] modelfile
//
// Sets the parameters (given before or after the file), reads the model (LP or MPS, optionally .gz
// / .bz2), optimizes it with the log on the console, and writes the ResultFile when one is given
// (any file type the library writes: .sol, .json, .mst, .bas, .lp, .mps, ...). Exit status 0 on
// success, 1 on errors (the library's message goes to standard error), 2 on a usage error.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "kaviro_c.h"

namespace {

void usage(std::FILE *out) {
  std::fprintf(out,
               "Usage: kaviro_cl [--help] [--version] [Name=value ...] modelfile\n"
               "\n"
               "Reads a model file (.lp or .mps, optionally compressed as .gz or .bz2), solves\n"
               "it and prints the log. Name=value pairs set parameters before the model is read,\n"
               "for example TimeLimit=60 MIPGap=0.01 Threads=2. ResultFile=name writes the result\n"
               "after the solve; the suffix chooses the kind: .sol (solution), .json (solution\n"
               "as JSON), .mst (MIP start), .bas (basis), .lp or .mps (the model), .prm\n"
               "(parameters), .attr (attributes).\n");
}

int fail(const char *what, const char *message) {
  std::fprintf(stderr, "kaviro_cl: %s: %s\n", what, message);
  return 1;
}

}  // namespace

int main(int argc, char **argv) {
  std::vector<std::pair<std::string, std::string>> params;
  const char *modelfile = nullptr;
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
    if (const char *eq = std::strchr(arg, '='); eq && arg[0] != '-') {
      params.emplace_back(std::string(arg, eq), std::string(eq + 1));
      continue;
    }
    if (arg[0] == '-' || modelfile) {
      std::fprintf(stderr, "kaviro_cl: unexpected argument '%s'\n\n", arg);
      usage(stderr);
      return 2;
    }
    modelfile = arg;
  }
  if (!modelfile) {
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
  char buf[KVR_MAX_STRLEN];
  if (KVRgetstrparam(env, "ResultFile", buf) == 0) resultfile = buf;
  if (KVRstartenv(env)) {
    int rc = fail("unable to start the environment", KVRgeterrormsg(env));
    KVRfreeenv(env);
    return rc;
  }
  for (const auto &[name, value] : params)
    KVRmsg(env, ("Set parameter " + name + " to value " + value + "\n").c_str());

  KVRmodel *model = nullptr;
  if (KVRreadmodel(env, modelfile, &model)) {
    int rc = fail(modelfile, KVRgeterrormsg(env));
    KVRfreeenv(env);
    return rc;
  }
  int rc = 0;
  if (KVRoptimize(model)) {
    rc = fail("optimization failed", KVRgetmerrormsg(model));
  } else if (!resultfile.empty()) {
    if (KVRwrite(model, resultfile.c_str()))
      rc = fail(("unable to write " + resultfile).c_str(), KVRgetmerrormsg(model));
    else
      std::printf("Wrote result file '%s'\n", resultfile.c_str());
  }
  KVRfreemodel(model);
  KVRfreeenv(env);
  return rc;
}
