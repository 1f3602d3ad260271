#include "model/attrs.h"

#include <string>
#include <unordered_map>

#include "util/strings.h"

namespace kvr {
namespace {

const AttrDef kDefs[] = {
#define KVR_ATTR(name, type, cls, settable, ...) \
  {#name, AttrType::type, AttrClass::cls, settable != 0, __VA_ARGS__},
#include "model/attr_table.inc"
#undef KVR_ATTR
};

static_assert(sizeof kDefs / sizeof kDefs[0] == static_cast<size_t>(AttrId::Count));

}  // namespace

const AttrDef &attr_def(AttrId id) { return kDefs[static_cast<size_t>(id)]; }
int attr_count() { return static_cast<int>(AttrId::Count); }

AttrId find_attr(std::string_view name) {
  static const std::unordered_map<std::string, AttrId> index = [] {
    std::unordered_map<std::string, AttrId> m;
    for (int i = 0; i < attr_count(); ++i) m.emplace(lower(kDefs[i].name), static_cast<AttrId>(i));
    return m;
  }();
  auto it = index.find(lower(name));
  return it == index.end() ? AttrId::Count : it->second;
}

}  // namespace kvr
