// Model methods of the optimize and print families, attached to the Model class after it exists.
#pragma once

#include "module.h"

namespace kvrpy {

// The library model of a Model object; raises KaviroError(0, "Model has already been freed").
KVRmodel *library_model(nb::handle self);

// optimize, reset, message, terminate, the cb* methods and the sub-environments.
void init_model_optimize(nb::module_ &m);
// tune and getTuneResult.
void init_model_tune(nb::module_ &m);
// printStats, printQuality, printAttr, display and their helpers.
void init_model_print(nb::module_ &m);

}  // namespace kvrpy
