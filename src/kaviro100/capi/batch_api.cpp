// C entry points of batch optimization. Requests run on Dask distributed, whose client is the
// Python package's; through this interface they can be neither submitted nor followed, so every
// call that would need a request says so. The batch attribute names come from the attribute table.
#include <string>
#include <vector>

#include "env/env.h"
#include "model/attrs.h"
#include "model/model.h"
#include "util/live.h"

namespace {

constexpr const char *kUsePython =
    "Batch optimization is not available through the C interface: submit and follow requests "
    "with the Python package (Model.optimizeBatch, kaviropy.Batch), which runs them on Dask "
    "distributed";

// The names of the batch attributes, in table order.
std::vector<kvr::AttrId> batch_attrs() {
  std::vector<kvr::AttrId> ids;
  for (int i = 0; i < kvr::attr_count(); ++i) {
    auto id = static_cast<kvr::AttrId>(i);
    if (kvr::attr_def(id).cls == kvr::AttrClass::Batch) ids.push_back(id);
  }
  return ids;
}

int not_supported_on_env(KVRenv *env) {
  if (int status = kvr::handle_status(env)) return status;
  return env->run([&] {
    const std::string &manager = env->params.get_str(kvr::ParamId::CSManager);
    if (manager.empty()) kvr::fail(KVR_ERROR_NOT_SUPPORTED, "%s", kUsePython);
    kvr::fail(KVR_ERROR_NOT_SUPPORTED, "%s (cluster manager '%s')", kUsePython, manager.c_str());
  });
}

// No batch handle is ever made here, so a call on one only has a null pointer to look at.
int no_batch(KVRbatch *batch) { return batch ? KVR_ERROR_NOT_SUPPORTED : KVR_ERROR_NULL_ARGUMENT; }

}  // namespace

extern "C" {

int KVRoptimizebatch(KVRmodel *model, char *batchid) {
  return kvr::run_on_model(model, [&] {
    if (batchid) batchid[0] = '\0';
    kvr::fail(KVR_ERROR_NOT_SUPPORTED, "%s", kUsePython);
  });
}

int KVRgetbatch(KVRenv *env, const char *, KVRbatch **batchP) {
  if (batchP) *batchP = nullptr;
  return not_supported_on_env(env);
}

KVRenv *KVRgetbatchenv(KVRbatch *) { return nullptr; }

int KVRgetbatchattrflags(KVRbatch *batch, const char *, int *, int *) { return no_batch(batch); }
int KVRgetbatchintattr(KVRbatch *batch, const char *, int *) { return no_batch(batch); }
int KVRgetbatchstrattr(KVRbatch *batch, const char *, char **) { return no_batch(batch); }
int KVRupdatebatch(KVRbatch *batch) { return no_batch(batch); }
int KVRabortbatch(KVRbatch *batch) { return no_batch(batch); }
int KVRretrybatch(KVRbatch *batch) { return no_batch(batch); }
int KVRdiscardbatch(KVRbatch *batch) { return no_batch(batch); }
int KVRgetbatchjsonsolution(KVRbatch *batch, char **buffP) {
  if (buffP) *buffP = nullptr;
  return no_batch(batch);
}
int KVRwritebatchjsonsolution(KVRbatch *batch, const char *) { return no_batch(batch); }
void KVRfreebatch(KVRbatch *) {}

int KVRgetnumbatchattributes(KVRenv *) { return static_cast<int>(batch_attrs().size()); }

int KVRgetbatchattrname(KVRenv *env, int i, char **attrnameP) {
  if (int status = kvr::handle_status(env)) return status;
  return env->run([&] {
    std::vector<kvr::AttrId> ids = batch_attrs();
    if (i < 0 || i >= static_cast<int>(ids.size()))
      kvr::fail(KVR_ERROR_INDEX_OUT_OF_RANGE, "Batch attribute index %d out of range [0, %zu)", i,
                ids.size());
    if (!attrnameP) kvr::fail(KVR_ERROR_NULL_ARGUMENT, "No place given for the name");
    *attrnameP = const_cast<char *>(kvr::attr_def(ids[static_cast<size_t>(i)]).name);
  });
}

}  // extern "C"
