// Attribute definitions: one table, generated from attrs.tsv by scripts/gen_tables.py. Besides
// each attribute's type and class, the table says where its value lives, when it has one and
// which values a write accepts; attrs/attr_access.cpp reads and checks and model/attr_apply.cpp
// writes through these descriptions.
#pragma once

#include <cstdint>
#include <string_view>

#include "kaviro_c.h"

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

// Where an attribute's value lives.
enum class AttrStore : uint8_t {
  Model,        // a field of the model data
  Column,       // an array of the element kind, one entry per element
  Item,         // a field of each element's record
  Names,        // the element kind's name pool
  Extra,        // a column of the element kind's extra attributes, allocated on first write
  Basis,        // the last solve's basis, else the warm-start basis in the extra column
  Objective,    // a field of the objective that ObjNumber selects
  Scenario,     // a field of the scenario that ScenarioNumber selects
  Solution,     // a value or vector of the last solve
  Sensitivity,  // a vector of LP sensitivity ranges, computed on first use
  Computed,     // a function of its own
  Batch,        // read through the batch interface only
};

// The parameter that selects which objective, scenario, MIP start or pool solution an attribute
// refers to.
enum class AttrSelector : uint8_t { None, ObjNumber, ScenarioNumber, StartNumber, SolutionNumber };

// Conditions for an attribute to have a value, checked in this order.
enum AttrNeeds : uint8_t {
  kNeedsSolved = 1,      // an optimize call finished since the last change
  kNeedsIis = 2,         // an IIS was computed
  kNeedsContinuous = 4,  // the model has no discrete elements
  kNeedsSelected = 8,    // the selector picks an existing objective, scenario, start or solution
  kNeedsValue = 16,      // the store holds a value
};

// The values a write accepts (NaN never; integers for integer attributes). A value equal to one
// of `points` or inside the range is accepted; the words widen or narrow that.
struct AttrValueRule {
  enum : uint8_t {
    kUndefined = 1,  // KVR_UNDEFINED is kept as it is ("none given")
    kBound = 2,      // any other value, infinities clipped to KVR_INFINITY
    kFinite = 4,     // any finite value; infinities fail with NUMERIC
    kVType = 8,      // a variable type code
    kSense = 16,     // a constraint sense code
  };
  uint8_t words;
  uint8_t npoints;
  double points[4];
  bool has_range;
  double lo, hi;
  bool hi_open;
  const char *invalid;  // the reason given for a value outside points and range
};

enum class AttrId {
#define KVR_ATTR(name, ...) name,
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
  AttrStore store;
  AttrSelector selector;
  uint8_t needs;            // AttrNeeds bits
  int missing_code;         // error code when a solved, iis or continuous condition fails
  const char *missing_why;  // reason added to the message then, or nullptr
  AttrValueRule values;
  double extra_default;  // value of new entries of an extra column
  bool compared;         // a write lists the variable or constraint for the engine to compare
};

const AttrDef &attr_def(AttrId id);
int attr_count();
// Case-insensitive lookup; AttrId::Count when unknown.
AttrId find_attr(std::string_view name);

}  // namespace kvr
