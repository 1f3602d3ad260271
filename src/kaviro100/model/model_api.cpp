// C entry points for the life of a model.
#include "model/model.h"

extern "C" {

const char *KVRgetmerrormsg(KVRmodel *model) { return model ? model->errmsg.c_str() : "No model"; }

KVRenv *KVRgetenv(KVRmodel *model) { return model ? &model->env : nullptr; }

int KVRfreemodel(KVRmodel *model) {
  delete model;
  return 0;
}

}  // extern "C"
