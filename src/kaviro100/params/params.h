// Parameter definitions (one table, generated from params.tsv) and the values an environment holds.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kvr {

enum class ParamType { Int = 1, Dbl = 2, Str = 3 };

enum class ParamId {
#define KVR_PARAM(name, type, def, mn, mx, sdef, group, effect) name,
#include "params/param_table.inc"
#undef KVR_PARAM
  Count
};

// Flags reported by KVRgetparamflags.
constexpr int kParamFlagSecret = 1;      // the value is a credential and is never shown
constexpr int kParamFlagRemoteOnly = 2;  // only meaningful with a remote service
constexpr int kParamFlagNotApplied = 4;  // accepted and stored, but nothing acts on it

struct ParamDef {
  const char *name;
  ParamType type;
  double def, min, max;  // for Int and Dbl
  const char *sdef;      // for Str
  const char *group;
  const char *effect;
  int flags;
};

const ParamDef &param_def(ParamId id);
int param_count();
// Case-insensitive lookup; returns ParamId::Count when the name is unknown.
ParamId find_param(std::string_view name);

// The values of every parameter, indexed by ParamId. Int values are held exactly in doubles.
class ParamValues {
 public:
  ParamValues();
  void reset();
  int get_int(ParamId id) const { return static_cast<int>(num_[static_cast<size_t>(id)]); }
  double get_dbl(ParamId id) const { return num_[static_cast<size_t>(id)]; }
  const std::string &get_str(ParamId id) const { return str_[static_cast<size_t>(id)]; }
  bool is_default(ParamId id) const;
  // Validated setters: throw kvr::Error with VALUE_OUT_OF_RANGE or INVALID_ARGUMENT.
  void set_int(ParamId id, long long value);
  void set_dbl(ParamId id, double value);
  void set_str(ParamId id, std::string_view value);
  // Sets any type from its text form ("Threads 4", "TimeLimit 1e3", "LogFile x.log").
  void set_text(ParamId id, std::string_view text);
  // Text of the current value as written to parameter files.
  std::string value_text(ParamId id) const;
  // Marked for tuning: the tuner leaves these alone.
  std::vector<bool> tune_fixed;

 private:
  std::vector<double> num_;
  std::vector<std::string> str_;
};

}  // namespace kvr
