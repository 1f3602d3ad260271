// Model methods that move data between a model and files, attached to the Model class.
#pragma once

#include "module.h"

namespace kvrpy {

// Model.read (data files), Model.write and Model.getJSONSolution.
void init_model_files(nb::module_ &m);

}  // namespace kvrpy
