#include "util/live.h"

#include <mutex>
#include <shared_mutex>
#include <unordered_set>

#include "kaviro_c.h"

namespace kvr {
namespace {

// Never destroyed: handles may be freed by static destructors of the program using the library.
struct Registry {
  std::shared_mutex mutex;
  std::unordered_set<const void *> live;
};

Registry &registry() {
  static Registry *r = new Registry();
  return *r;
}

}  // namespace

void register_handle(const void *handle) {
  Registry &r = registry();
  std::unique_lock lock(r.mutex);
  r.live.insert(handle);
}

void unregister_handle(const void *handle) {
  Registry &r = registry();
  std::unique_lock lock(r.mutex);
  r.live.erase(handle);
}

bool is_live(const void *handle) {
  Registry &r = registry();
  std::shared_lock lock(r.mutex);
  return r.live.count(handle) > 0;
}

int handle_status(const void *handle) {
  if (!handle) return KVR_ERROR_NULL_ARGUMENT;
  return is_live(handle) ? 0 : KVR_ERROR_INVALID_ARGUMENT;
}

}  // namespace kvr
