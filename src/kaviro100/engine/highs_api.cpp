// Finding and loading the HiGHS library at run time. It sits in highs_dist/lib of the installed
// highsbox package. Where to look, in order: KAVIRO_HIGHS_LIBRARY (the library file or its
// directory; the Python package sets it at import from the location of highsbox), the highsbox
// package beside the directory this library was installed into, then the highsbox package the
// library was built with.
#include "engine/highs_api.h"

#include <atomic>
#include <cstdlib>
#include <vector>

#include "engine/shared_library.h"
#include "util/error.h"

namespace kvr::highs {
namespace {

constexpr int kMajor = 1, kMinor = 15;

std::vector<std::string> candidate_dirs() {
  std::vector<std::string> dirs;
  if (const char *given = std::getenv("KAVIRO_HIGHS_LIBRARY"); given && *given)
    dirs.push_back(given);
  if (std::string here = library_dir(); !here.empty()) {
    // here is <site-packages>/kaviropy (or a directory below it)
    for (int up = 0; up < 3; ++up) {
      here = dirname_of(here);
      dirs.push_back(here + "/highsbox/highs_dist/lib");
    }
  }
#ifdef KVR_HIGHS_BUILD_DIR
  dirs.push_back(KVR_HIGHS_BUILD_DIR);
#endif
  return dirs;
}

using Loaded = LoadedEngine<Api>;

Loaded load() {
  auto resolve = [](void *handle, Api &a, std::string &missing) {
#define KVR_HIGHS_RESOLVE(name, type) resolve_symbol(handle, #name, a.name, &missing);
    KVR_HIGHS_FUNCTIONS(KVR_HIGHS_RESOLVE)
#undef KVR_HIGHS_RESOLVE
    // HighsStatus Highs::getCoeff(HighsInt, HighsInt, double &) const
    resolve_symbol(handle, "_ZNK5Highs8getCoeffEiiRd", a.get_coeff, nullptr);
    if (!a.get_coeff) note_missing(missing, "Highs::getCoeff");
  };
  auto check_version = [](Api &a) -> std::string {
    a.version = a.Highs_version();
    if (a.Highs_versionMajor() == kMajor && a.Highs_versionMinor() == kMinor) return "";
    return "the HiGHS library " + a.path + " is version " + a.version + "; the engine needs " +
           std::to_string(kMajor) + "." + std::to_string(kMinor) + " (highsbox==1.15.1)";
  };
  return load_engine<Api>("HiGHS", "highsbox==1.15.1", candidate_dirs(), {"libhighs.so"}, resolve,
                          check_version);
}

// Loaded on first use; the static's initialisation is thread-safe.
const Loaded &loaded() {
  static const Loaded result = load();
  return result;
}

// Whether the library was loaded without trying to load it.
std::atomic<bool> g_loaded{false};

}  // namespace

const Api &api() {
  const Loaded &l = loaded();
  if (!l.error.empty())
    fail(KVR_ERROR_NOT_SUPPORTED, "Engine HiGHS is not available: %s", l.error.c_str());
  g_loaded.store(true, std::memory_order_relaxed);
  return l.api;
}

std::string unavailable_reason() { return loaded().error; }

}  // namespace kvr::highs

namespace kvr {

void highs_delete_instance(void *highs) {
  if (!highs) return;
  // The instance class has a virtual destructor (its only virtual function), so the vtable's
  // second entry is the deleting destructor (Itanium C++ ABI); the destroy function of the C
  // interface calls it the same way after resetting the scheduler.
  using DeletingDestructor = void (*)(void *);
  DeletingDestructor *vtable = *static_cast<DeletingDestructor **>(highs);
  vtable[1](highs);
}

void highs_reset_scheduler() {
  if (highs::g_loaded.load(std::memory_order_relaxed)) highs::api().Highs_resetGlobalScheduler(1);
}

}  // namespace kvr
