// Helpers for engines loaded at run time: finding a library file and opening it.
#pragma once

#include <initializer_list>
#include <string>
#include <vector>

namespace kvr {

// The files matching a shell pattern, sorted.
std::vector<std::string> glob_files(const std::string &pattern);
// The directory part of a path ("." when there is none).
std::string dirname_of(const std::string &path);
// The directory this library (libkaviro100) was loaded from; "" when unknown.
std::string library_dir();
// Opens a shared library with its symbols kept local to it; nullptr and the reason in error when
// it cannot be opened.
void *open_library(const std::string &path, std::string &error);
// The address of a symbol of an opened library (nullptr when it has none).
void *library_symbol(void *handle, const char *name);
void close_library(void *handle);

// An engine's library, opened; handle is nullptr and error says why when it cannot be used.
struct EngineLibrary {
  void *handle = nullptr;
  std::string path;
  std::string error;
};
// Opens the first file matching one of `names` (shell patterns) in the first of `dirs` that has
// one; an entry of dirs may also be the library file itself. `before_open`, when given, runs with
// the file's path first (to load libraries it needs). The messages name the engine and the
// `package` that provides it.
EngineLibrary open_engine_library(const char *engine, const char *package,
                                  const std::vector<std::string> &dirs,
                                  std::initializer_list<const char *> names,
                                  void (*before_open)(const std::string &path) = nullptr);
// Adds `name` to a comma-separated list of missing symbols.
void note_missing(std::string &missing, const char *name);
// Looks up function `name` of an opened library into fn; when it is absent, fn is nullptr and the
// name joins `missing` (unless the function is optional: missing is nullptr).
template <class Fn>
void resolve_symbol(void *handle, const char *name, Fn &fn, std::string *missing) {
  fn = reinterpret_cast<Fn>(library_symbol(handle, name));
  if (!fn && missing) note_missing(*missing, name);
}

// An engine's function table once loaded; error says why the engine cannot be used ("" when it
// can), and then the library is closed again.
template <class Api>
struct LoadedEngine {
  Api api;
  std::string error;
};
// Opens an engine's library (see open_engine_library), fills its table with
// `resolve(handle, api, missing)` and checks it with `check_version(api)`, which returns why the
// version cannot be used ("" when it can). Api has a `path` member.
template <class Api, class Resolve, class CheckVersion>
LoadedEngine<Api> load_engine(const char *engine, const char *package,
                              const std::vector<std::string> &dirs,
                              std::initializer_list<const char *> names, Resolve resolve,
                              CheckVersion check_version,
                              void (*before_open)(const std::string &path) = nullptr) {
  LoadedEngine<Api> out;
  EngineLibrary lib = open_engine_library(engine, package, dirs, names, before_open);
  if (!lib.handle) {
    out.error = lib.error;
    return out;
  }
  out.api.path = lib.path;
  std::string missing;
  resolve(lib.handle, out.api, missing);
  out.error = missing.empty() ? check_version(out.api)
                              : "the library " + lib.path + " is not a usable " + engine +
                                    " library: it lacks " + missing;
  if (!out.error.empty()) close_library(lib.handle);
  return out;
}

}  // namespace kvr
