// Data files that go with a model (solutions, starts, hints, priorities, bases, parameters,
// attributes) and the JSON solution.
#pragma once

#include <string>

#include "io/files.h"

struct kvr_model;

namespace kvr::io {

// Merges a data file into the model (through the attribute setters); nothing changes on failure.
void read_data_file(kvr_model *model, const std::string &filename, FileType t);
// Writes a data file; DATA_NOT_AVAILABLE when the model has nothing of that kind to write.
void write_data_file(kvr_model *model, const std::string &filename, FileType t);
// The IIS as a model file in LP format (its constraints, the variables they use, the bounds that
// belong to it); DATA_NOT_AVAILABLE when no IIS has been computed.
void write_iis_file(kvr_model *model, const std::string &filename);
// The last solve's results as JSON text; DATA_NOT_AVAILABLE before any solve.
std::string json_solution(kvr_model *model);

}  // namespace kvr::io
