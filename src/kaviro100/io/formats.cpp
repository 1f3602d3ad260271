#include "io/formats.h"

#include "util/error.h"
#include "util/strings.h"

namespace kvr::io {

namespace {
constexpr int kLazyKey = static_cast<int>(AttrId::Lazy);

const char *const kGenKeywords[] = {"MAX",       "MIN", "ABS",  "AND", "OR",   "NORM",
                                    "INDICATOR", "PWL", "POLY", "EXP", "EXPA", "LOG",
                                    "LOGA",      "POW", "SIN",  "COS", "TAN",  "LOGISTIC"};
}  // namespace

int lazy_level(const ModelData &d, int i) {
  auto it = d.constrs.extra.num.find(kLazyKey);
  if (it == d.constrs.extra.num.end() || static_cast<size_t>(i) >= it->second.size()) return 0;
  return static_cast<int>(it->second[i]);
}

void set_lazy_levels(ModelData &d, const std::vector<int> &levels) {
  d.set_extra_column(AttrClass::Constr, kLazyKey,
                     std::vector<double>(levels.begin(), levels.end()));
}

const char *genconstr_keyword(int type) {
  return type >= 0 && type <= KVR_GENCONSTR_LOGISTIC ? kGenKeywords[type] : "?";
}

int genconstr_type(std::string_view keyword) {
  for (int t = 0; t <= KVR_GENCONSTR_LOGISTIC; ++t)
    if (iequals(keyword, kGenKeywords[t])) return t;
  return -1;
}

bool is_function_genconstr(int type) { return type >= KVR_GENCONSTR_PWL; }

bool has_parameter_a(int type) {
  return type == KVR_GENCONSTR_EXPA || type == KVR_GENCONSTR_LOGA || type == KVR_GENCONSTR_POW;
}

bool has_constant_operand(const GenConstr &g) {
  return (g.type == KVR_GENCONSTR_MAX && g.constant != -KVR_INFINITY) ||
         (g.type == KVR_GENCONSTR_MIN && g.constant != KVR_INFINITY);
}

namespace {
// The approximation settings in file order.
const struct {
  const char *key;
  double (*get)(const GenConstr &);
  void (*set)(GenConstr &, double);
} kFuncPieceSettings[] = {
    {"FuncPieces", [](const GenConstr &g) -> double { return g.funcpieces; },
     [](GenConstr &g, double v) { g.funcpieces = static_cast<int>(v); }},
    {"FuncPieceError", [](const GenConstr &g) { return g.funcpieceerror; },
     [](GenConstr &g, double v) { g.funcpieceerror = v; }},
    {"FuncPieceLength", [](const GenConstr &g) { return g.funcpiecelength; },
     [](GenConstr &g, double v) { g.funcpiecelength = v; }},
    {"FuncPieceRatio", [](const GenConstr &g) { return g.funcpieceratio; },
     [](GenConstr &g, double v) { g.funcpieceratio = v; }},
};
}  // namespace

std::vector<std::pair<const char *, double>> funcpiece_changes(const GenConstr &g) {
  static const GenConstr kDefault;
  std::vector<std::pair<const char *, double>> out;
  for (const auto &s : kFuncPieceSettings)
    if (s.get(g) != s.get(kDefault)) out.emplace_back(s.key, s.get(g));
  return out;
}

std::string funcpiece_settings(const GenConstr &g) {
  std::string out;
  for (const auto &[key, value] : funcpiece_changes(g)) {
    if (!out.empty()) out += ' ';
    out += key;
    out += '=';
    out += num_text(value);
  }
  return out;
}

bool set_funcpiece(GenConstr &g, std::string_view key, double value) {
  for (const auto &s : kFuncPieceSettings) {
    if (!iequals(key, s.key)) continue;
    s.set(g, value);
    return true;
  }
  return false;
}

void check_writable(const ModelData &d, const char *format) {
  if (!d.scenarios.empty())
    fail(KVR_ERROR_NOT_SUPPORTED,
         "Unable to write a model with scenarios in %s format (the scenarios would be lost)",
         format);
}

void check_model_name(const ModelData &d, const char *format) {
  if (d.name.find_first_of("\r\n") != std::string::npos)
    fail(KVR_ERROR_INVALID_ARGUMENT,
         "Unable to write the model name in %s format: it contains a line break", format);
}

void check_options(const GenConstr &g, int i) {
  if (g.options.find_first_of("\r\n") != std::string::npos)
    fail(KVR_ERROR_INVALID_ARGUMENT,
         "Unable to write general constraint %d: its options contain a line break", i);
}

}  // namespace kvr::io
