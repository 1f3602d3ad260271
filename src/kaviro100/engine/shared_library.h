// Helpers for engines loaded at run time: finding a library file and opening it.
#pragma once

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

}  // namespace kvr
