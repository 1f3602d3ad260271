// Reading and writing files: the file type follows from the suffix.
#include "model/model.h"

extern "C" {

int KVRreadmodel(KVRenv *env, const char *filename, KVRmodel **modelP) {
  if (!env || !filename || !modelP) return KVR_ERROR_NULL_ARGUMENT;
  *modelP = nullptr;
  return env->run([&] {
    kvr::fail(KVR_ERROR_FILE_READ, "Unable to read '%s': no reader for this file type yet",
              filename);
  });
}

}  // extern "C"
