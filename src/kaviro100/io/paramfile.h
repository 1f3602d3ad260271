// Parameter files: one "Name value" per line; '#' starts a comment.
#pragma once

#include <string>
#include <vector>

#include "params/params.h"

namespace kvr {

// Reads a parameter file into values, all or nothing; the names set are added to applied when
// given. Throws on error.
void read_param_file(ParamValues &values, const std::string &filename,
                     std::vector<std::string> *applied = nullptr);
void write_param_file(const ParamValues &values, const std::string &filename);

}  // namespace kvr
