// Attribute definitions: one table, generated from attrs.tsv.
#pragma once

#include <string_view>

namespace kvr {

enum class AttrType { Char = 0, Int = 1, Dbl = 2, Str = 3 };
enum class AttrClass {
  Model = 0,
  Var = 1,
  Constr = 2,
  Sos = 3,
  QConstr = 4,
  GenConstr = 5,
  Batch = 6
};

enum class AttrId {
#define KVR_ATTR(name, type, cls, settable, meaning) name,
#include "model/attr_table.inc"
#undef KVR_ATTR
  Count
};

struct AttrDef {
  const char *name;
  AttrType type;
  AttrClass cls;
  bool settable;
  const char *meaning;
};

const AttrDef &attr_def(AttrId id);
int attr_count();
// Case-insensitive lookup; AttrId::Count when unknown.
AttrId find_attr(std::string_view name);

}  // namespace kvr
