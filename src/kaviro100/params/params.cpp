#include "params/params.h"

#include <cmath>
#include <unordered_map>

#include "kaviro_c.h"
#include "util/error.h"
#include "util/strings.h"

namespace kvr {
namespace {

constexpr int flags_for(std::string_view name) {
  for (std::string_view secret : {"Password", "Secret", "AccessID", "AuthToken"})
    if (name.find(secret) != std::string_view::npos) return kParamFlagSecret;
  return 0;
}

const ParamDef kDefs[] = {
#define KVR_PARAM(name, type, def, mn, mx, sdef, group, effect) \
  {#name, ParamType::type, def, mn, mx, sdef, group, effect, flags_for(#name)},
#include "params/param_table.inc"
#undef KVR_PARAM
};

static_assert(sizeof kDefs / sizeof kDefs[0] == static_cast<size_t>(ParamId::Count));

const std::unordered_map<std::string, ParamId> &name_index() {
  static const std::unordered_map<std::string, ParamId> index = [] {
    std::unordered_map<std::string, ParamId> m;
    for (int i = 0; i < param_count(); ++i)
      m.emplace(lower(kDefs[i].name), static_cast<ParamId>(i));
    return m;
  }();
  return index;
}

std::string range_text(const ParamDef &d) {
  std::string s = "[";
  s.append(num_text(d.min)).append(", ").append(num_text(d.max)).append("]");
  return s;
}

}  // namespace

const ParamDef &param_def(ParamId id) { return kDefs[static_cast<size_t>(id)]; }
int param_count() { return static_cast<int>(ParamId::Count); }

ParamId find_param(std::string_view name) {
  auto it = name_index().find(lower(name));
  return it == name_index().end() ? ParamId::Count : it->second;
}

ParamValues::ParamValues() { reset(); }

void ParamValues::reset() {
  num_.assign(static_cast<size_t>(ParamId::Count), 0.0);
  str_.assign(static_cast<size_t>(ParamId::Count), std::string());
  tune_fixed.assign(static_cast<size_t>(ParamId::Count), false);
  for (size_t i = 0; i < num_.size(); ++i) {
    num_[i] = kDefs[i].def;
    if (kDefs[i].type == ParamType::Str) str_[i] = kDefs[i].sdef;
  }
}

bool ParamValues::is_default(ParamId id) const {
  const ParamDef &d = param_def(id);
  if (d.type == ParamType::Str) return get_str(id) == d.sdef;
  return get_dbl(id) == d.def;
}

void ParamValues::set_int(ParamId id, long long value) {
  const ParamDef &d = param_def(id);
  if (d.type == ParamType::Dbl) return set_dbl(id, static_cast<double>(value));
  if (d.type != ParamType::Int)
    fail(KVR_ERROR_INVALID_ARGUMENT, "Parameter '%s' takes a string value", d.name);
  if (value < d.min || value > d.max)
    fail(KVR_ERROR_VALUE_OUT_OF_RANGE, "Unable to set parameter %s to %lld (allowed range %s)",
         d.name, value, range_text(d).c_str());
  num_[static_cast<size_t>(id)] = static_cast<double>(value);
}

void ParamValues::set_dbl(ParamId id, double value) {
  const ParamDef &d = param_def(id);
  if (d.type == ParamType::Str)
    fail(KVR_ERROR_INVALID_ARGUMENT, "Parameter '%s' takes a string value", d.name);
  if (std::isnan(value))
    fail(KVR_ERROR_INVALID_ARGUMENT, "Unable to set parameter %s to NaN", d.name);
  if (d.type == ParamType::Int) {
    if (value != std::floor(value))
      fail(KVR_ERROR_INVALID_ARGUMENT, "Parameter '%s' takes an integer value, not %s", d.name,
           num_text(value).c_str());
    if (value < d.min || value > d.max)
      fail(KVR_ERROR_VALUE_OUT_OF_RANGE, "Unable to set parameter %s to %s (allowed range %s)",
           d.name, num_text(value).c_str(), range_text(d).c_str());
    num_[static_cast<size_t>(id)] = value;
    return;
  }
  // Values at or beyond the library's infinity are clipped to it, as everywhere in the library.
  if (value >= KVR_INFINITY && d.max >= KVR_INFINITY) value = KVR_INFINITY;
  if (value <= -KVR_INFINITY && d.min <= -KVR_INFINITY) value = -KVR_INFINITY;
  if (value < d.min || value > d.max)
    fail(KVR_ERROR_VALUE_OUT_OF_RANGE, "Unable to set parameter %s to %s (allowed range %s)",
         d.name, num_text(value).c_str(), range_text(d).c_str());
  num_[static_cast<size_t>(id)] = value;
}

void ParamValues::set_str(ParamId id, std::string_view value) {
  const ParamDef &d = param_def(id);
  if (d.type != ParamType::Str) return set_text(id, value);
  str_[static_cast<size_t>(id)] = std::string(value);
}

void ParamValues::set_text(ParamId id, std::string_view text) {
  const ParamDef &d = param_def(id);
  if (d.type == ParamType::Str) return set_str(id, text);
  double v;
  if (!parse_double(text, v))
    fail(KVR_ERROR_INVALID_ARGUMENT, "Invalid value '%.*s' for parameter %s",
         static_cast<int>(text.size()), text.data(), d.name);
  set_dbl(id, v);
}

std::string ParamValues::value_text(ParamId id) const {
  const ParamDef &d = param_def(id);
  if (d.type == ParamType::Str) return get_str(id);
  if (d.type == ParamType::Int) return std::to_string(get_int(id));
  return num_text(get_dbl(id));
}

}  // namespace kvr
