#include "engine/shared_library.h"

#include <dlfcn.h>
#include <glob.h>

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

}  // namespace kvr
