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
  std::vector<double> &col = d.constrs.extra.num[kLazyKey];
  col.assign(levels.begin(), levels.end());
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

namespace {
const struct {
  const char *key;
  int which;
} kFuncPieceKeys[] = {
    {"FuncPieces", 0}, {"FuncPieceError", 1}, {"FuncPieceLength", 2}, {"FuncPieceRatio", 3}};
}  // namespace

std::string funcpiece_settings(const GenConstr &g) {
  static const GenConstr kDefault;
  std::string out;
  auto add = [&](const char *key, double v) {
    if (!out.empty()) out += ' ';
    out += key;
    out += '=';
    out += num_text(v);
  };
  if (g.funcpieces != kDefault.funcpieces) add("FuncPieces", g.funcpieces);
  if (g.funcpieceerror != kDefault.funcpieceerror) add("FuncPieceError", g.funcpieceerror);
  if (g.funcpiecelength != kDefault.funcpiecelength) add("FuncPieceLength", g.funcpiecelength);
  if (g.funcpieceratio != kDefault.funcpieceratio) add("FuncPieceRatio", g.funcpieceratio);
  return out;
}

bool set_funcpiece(GenConstr &g, std::string_view key, double value) {
  for (const auto &k : kFuncPieceKeys) {
    if (!iequals(key, k.key)) continue;
    switch (k.which) {
      case 0:
        g.funcpieces = static_cast<int>(value);
        break;
      case 1:
        g.funcpieceerror = value;
        break;
      case 2:
        g.funcpiecelength = value;
        break;
      default:
        g.funcpieceratio = value;
    }
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

}  // namespace kvr::io
