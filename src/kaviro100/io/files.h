// File types by suffix and the model-file entry points the rest of the library may use.
#pragma once

#include <string>
#include <string_view>

#include "env/env.h"
#include "model/modeldata.h"

namespace kvr::io {

enum class FileType { Lp, Mps, Sol, Mst, Hnt, Ord, Bas, Prm, Attr, Json, Ilp, Unknown };

// Type named by the suffix after a compression suffix is stripped ("m.lp.gz" is Lp). Throws
// NOT_SUPPORTED for compressions this build cannot handle.
FileType file_type(std::string_view filename);
const char *file_type_name(FileType t);

// Reads an LP or MPS file (logging what was read to env); throws FILE_READ on malformed input.
ModelData read_model_file(const std::string &filename, kvr_env &env);
// Writes an LP or MPS file; a failed write removes the partial file.
void write_model_file(const ModelData &d, const std::string &filename, FileType t);

}  // namespace kvr::io
