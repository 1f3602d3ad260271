// Parameter files: "Name value" lines, blank lines and '#' comments ignored.
#include <cstdio>
#include <string>

#include "io/stream.h"
#include "kaviro_c.h"
#include "io/paramfile.h"
#include "util/error.h"
#include "util/strings.h"

namespace kvr {

void read_param_file(ParamValues &values, const std::string &filename,
                     std::vector<std::string> *applied) {
  io::LineReader in(filename);
  // Apply to a copy so that a bad line leaves every parameter as it was.
  ParamValues result = values;
  std::vector<std::string> names;
  std::string_view s;
  while (in.next(s)) {
    if (size_t hash = s.find('#'); hash != std::string_view::npos) s = s.substr(0, hash);
    s = trim(s);
    if (s.empty()) continue;
    size_t sep = s.find_first_of(" \t=");
    std::string_view name = s.substr(0, sep);
    std::string_view value =
        sep == std::string_view::npos ? std::string_view() : trim(s.substr(sep + 1));
    if (!value.empty() && value.front() == '=') value = trim(value.substr(1));
    ParamId id = find_param(name);
    if (id == ParamId::Count)
      in.fail("unknown parameter '%.*s'", static_cast<int>(name.size()), name.data());
    if (value.empty() && param_def(id).type != ParamType::Str)
      in.fail("no value given for parameter %s", param_def(id).name);
    if (value.find('\0') != std::string_view::npos)
      in.fail("the value of parameter %s contains a NUL character", param_def(id).name);
    try {
      result.set_text(id, value);
    } catch (const Error &e) {
      in.fail("%s", e.what());
    }
    names.emplace_back(param_def(id).name);
  }
  values = std::move(result);
  if (applied) *applied = std::move(names);
}

void write_param_file(const ParamValues &values, const std::string &filename) {
  std::FILE *f = std::fopen(filename.c_str(), "w");
  if (!f) fail(KVR_ERROR_FILE_WRITE, "Unable to open '%s' for writing", filename.c_str());
  std::fprintf(f, "# Parameter settings that differ from their defaults\n");
  for (int i = 0; i < param_count(); ++i) {
    auto id = static_cast<ParamId>(i);
    if (values.is_default(id) || (param_def(id).flags & kParamFlagSecret)) continue;
    std::fprintf(f, "%s  %s\n", param_def(id).name, values.value_text(id).c_str());
  }
  if (std::fclose(f) != 0)
    fail(KVR_ERROR_FILE_WRITE, "Error while writing parameter file '%s'", filename.c_str());
}

}  // namespace kvr
