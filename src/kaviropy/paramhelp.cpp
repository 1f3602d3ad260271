// paramHelp texts: what each parameter is for, in prose; type, range and default come from the
// library at the time of the call.
#include "paramhelp.h"

#include <cstring>

#include "env.h"

namespace kvrpy {
namespace {

// KVRgetparamflags: the library accepts and stores the setting but nothing acts on it.
constexpr int kParamFlagNotApplied = 4;

struct Purpose {
  const char *name;
  const char *text;
};

// One entry per parameter of the library, in the library's order.
const Purpose kPurposes[] = {
#include "paramhelp_texts.inc"
};

const char *purpose_of(const std::string &name) {
  for (const Purpose &p : kPurposes)
    if (strcasecmp(p.name, name.c_str()) == 0) return p.text;
  return nullptr;
}

std::string number(nb::handle v) {
  double d = nb::cast<double>(nb::float_(v));
  if (d >= KVR_INFINITY) return "infinity";
  if (d <= -KVR_INFINITY) return "-infinity";
  return nb::cast<std::string>(nb::str(v));
}

std::string wrap(const std::string &prose, size_t width, const std::string &indent) {
  std::string out, line;
  size_t pos = 0;
  while (pos < prose.size()) {
    size_t end = prose.find(' ', pos);
    if (end == std::string::npos) end = prose.size();
    std::string word = prose.substr(pos, end - pos);
    if (!line.empty() && line.size() + 1 + word.size() > width) {
      out += indent + line + "\n";
      line.clear();
    }
    line += (line.empty() ? "" : " ") + word;
    pos = end + 1;
  }
  if (!line.empty()) out += indent + line + "\n";
  return out;
}

}  // namespace

std::string param_help_text(nb::handle env, const std::string &name) {
  nb::tuple info = param_info(env, name);
  char *canonical = nullptr;
  for (int i = 0, n = KVRgetnumparams(nullptr); i < n; ++i)
    if (KVRgetparamname(nullptr, i, &canonical) == 0 && strcasecmp(canonical, name.c_str()) == 0)
      break;
  std::string shown = canonical ? canonical : name;
  nb::handle type = info[1];
  bool is_str = type.is(reinterpret_cast<PyObject *>(&PyUnicode_Type));
  bool is_int = type.is(reinterpret_cast<PyObject *>(&PyLong_Type));
  std::string s = "  PARAMETER NAME:\n    " + shown + "\n";
  s += std::string("  TYPE:\n    ") + (is_str ? "String" : is_int ? "Integer" : "Double") + "\n";
  if (is_str) {
    s += "  DEFAULT:\n    \"" + nb::cast<std::string>(info[5]) + "\"\n";
  } else {
    s += "  RANGE:\n    [" + number(info[3]) + ", " + number(info[4]) + "]\n";
    s += "  DEFAULT:\n    " + number(info[5]) + "\n";
  }
  const char *purpose = purpose_of(shown);
  s += "  PURPOSE:\n" + wrap(purpose ? purpose : "No description is available.", 72, "    ");
  if (nb::cast<int>(info[6]) & kParamFlagNotApplied)
    s += wrap(
        "Note: the engine in use does not act on this setting. The value is accepted, "
        "checked against its range and stored, but it has no effect on solves.",
        72, "    ");
  // The engines' own limits, as the library states them.
  const char *notes = nullptr;
  if (KVRgetparamenginenotes(nb::cast<Env &>(env).cenv, shown.c_str(), &notes) == 0 && notes &&
      *notes) {
    std::string all(notes);
    for (size_t pos = 0; pos < all.size();) {
      size_t end = all.find('\n', pos);
      if (end == std::string::npos) end = all.size();
      s += wrap("Note for engine " + all.substr(pos, end - pos), 72, "    ");
      pos = end + 1;
    }
  }
  return s;
}

}  // namespace kvrpy
