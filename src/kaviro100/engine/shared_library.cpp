#include "engine/shared_library.h"

#include <dlfcn.h>
#include <glob.h>

#include <filesystem>

namespace kvr {

std::vector<std::string> glob_files(const std::string &pattern) {
  std::vector<std::string> out;
  glob_t g{};
  if (::glob(pattern.c_str(), 0, nullptr, &g) == 0)
    for (size_t i = 0; i < g.gl_pathc; ++i) out.emplace_back(g.gl_pathv[i]);
  ::globfree(&g);
  return out;
}

std::string dirname_of(const std::string &path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string(".") : path.substr(0, slash);
}

std::string library_dir() {
  Dl_info info{};
  if (::dladdr(reinterpret_cast<void *>(&library_dir), &info) && info.dli_fname)
    return dirname_of(info.dli_fname);
  return "";
}

void *open_library(const std::string &path, std::string &error) {
  // RTLD_LOCAL: the engines bring their own copies of common libraries (BLAS, LAPACK), which
  // must not replace each other's symbols.
  void *handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!handle) {
    const char *why = ::dlerror();
    error = why ? why : "unknown reason";
  }
  return handle;
}

void *library_symbol(void *handle, const char *name) { return ::dlsym(handle, name); }

void close_library(void *handle) { ::dlclose(handle); }

EngineLibrary open_engine_library(const char *engine, const char *package,
                                  const std::vector<std::string> &dirs,
                                  std::initializer_list<const char *> names,
                                  void (*before_open)(const std::string &path)) {
  EngineLibrary out;
  std::string searched;
  for (const std::string &dir : dirs) {
    std::error_code ec;
    if (std::filesystem::is_regular_file(dir, ec)) {
      out.path = dir;
      break;
    }
    for (const char *name : names) {
      std::vector<std::string> files = glob_files(dir + "/" + name);
      if (!files.empty()) {
        out.path = files.front();
        break;
      }
    }
    if (!out.path.empty()) break;
    searched += (searched.empty() ? "" : ", ") + dir;
  }
  if (out.path.empty()) {
    out.error = std::string("the ") + engine + " library was not found (install " + package +
                "; searched " + searched + ")";
    return out;
  }
  if (before_open) before_open(out.path);
  std::string why;
  out.handle = open_library(out.path, why);
  if (!out.handle)
    out.error =
        std::string("the ") + engine + " library " + out.path + " could not be loaded: " + why;
  return out;
}

void note_missing(std::string &missing, const char *name) {
  missing += (missing.empty() ? "" : ", ") + std::string(name);
}

}  // namespace kvr
