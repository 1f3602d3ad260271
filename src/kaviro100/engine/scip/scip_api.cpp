// Finding and loading the SCIP library at run time. The library sits in the pyscipopt.libs
// directory beside the installed pyscipopt package (its Python extension is never imported).
// Where to look, in order: KAVIRO_SCIP_LIBRARY (the library file or its directory; the Python
// package sets it at import from the location of pyscipopt), then the site-packages directory
// this library was installed into.
#include "engine/scip/scip_api.h"

#include <cstdlib>
#include <vector>

#include "engine/shared_library.h"
#include "util/error.h"

namespace kvr::scip {
namespace {

// Directories that may hold the library, most specific first.
std::vector<std::string> candidate_dirs() {
  std::vector<std::string> dirs;
  if (const char *given = std::getenv("KAVIRO_SCIP_LIBRARY"); given && *given) {
    std::string g(given);
    dirs.push_back(g);
    dirs.push_back(g + "/pyscipopt.libs");
  }
  if (std::string here = library_dir(); !here.empty()) {
    // here is <site-packages>/kaviropy (or a directory below it)
    for (int up = 0; up < 3; ++up) {
      dirs.push_back(here + "/pyscipopt.libs");
      here = dirname_of(here);
    }
  }
  return dirs;
}

// Older wheels lack a run path to their sibling libraries: those are loaded by path first.
void load_siblings(const std::string &path) {
  const std::string dir = dirname_of(path);
  for (const char *sibling : {"/libquadmath-*.so*", "/libgfortran-*.so*"})
    for (const std::string &f : glob_files(dir + sibling)) {
      std::string ignored;  // the library's own load reports what is missing
      open_library(f, ignored);
    }
}

using Loaded = LoadedEngine<Api>;

Loaded load() {
  auto resolve = [](void *handle, Api &a, std::string &missing) {
#define KVR_SCIP_RESOLVE(name, type) resolve_symbol(handle, #name, a.name, &missing);
    KVR_SCIP_FUNCTIONS(KVR_SCIP_RESOLVE)
#undef KVR_SCIP_RESOLVE
#define KVR_SCIP_RESOLVE_OPTIONAL(name, type) resolve_symbol(handle, #name, a.name, nullptr);
    KVR_SCIP_OPTIONAL_FUNCTIONS(KVR_SCIP_RESOLVE_OPTIONAL)
#undef KVR_SCIP_RESOLVE_OPTIONAL
  };
  auto check_version = [](Api &a) -> std::string {
    const int major = a.SCIPmajorVersion();
    a.version = std::to_string(major) + "." + std::to_string(a.SCIPminorVersion()) + "." +
                std::to_string(a.SCIPtechVersion());
    if (major == 10) return "";
    return "the SCIP library " + a.path + " is version " + a.version +
           "; the engine needs SCIP 10 (pyscipopt==6.3.0)";
  };
  return load_engine<Api>("SCIP", "pyscipopt==6.3.0", candidate_dirs(),
                          {"libscip-*.so*", "libscip.so*"}, resolve, check_version, load_siblings);
}

// Loaded on first use; the static's initialisation is thread-safe.
const Loaded &loaded() {
  static const Loaded result = load();
  return result;
}

}  // namespace

const Api &api() {
  const Loaded &l = loaded();
  if (!l.error.empty())
    fail(KVR_ERROR_NOT_SUPPORTED, "Engine SCIP is not available: %s", l.error.c_str());
  return l.api;
}

std::string unavailable_reason() { return loaded().error; }

}  // namespace kvr::scip
