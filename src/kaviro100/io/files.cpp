// Reading and writing files: the file type follows from the suffix (after a compression suffix).
#include "io/files.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <unordered_set>

#include "io/datafiles.h"
#include "io/formats.h"
#include "model/checks.h"
#include "model/model.h"
#include "util/error.h"
#include "util/interrupt.h"
#include "util/live.h"
#include "util/strings.h"

namespace kvr::io {

FileType file_type(std::string_view filename) {
  std::string_view inner;
  compression_of(filename, &inner);
  size_t dot = inner.rfind('.');
  size_t slash = inner.find_last_of("/\\");
  if (dot == std::string_view::npos || (slash != std::string_view::npos && dot < slash))
    return FileType::Unknown;
  std::string_view ext = inner.substr(dot + 1);
  static const struct {
    const char *ext;
    FileType type;
  } kTypes[] = {{"lp", FileType::Lp},     {"mps", FileType::Mps}, {"sol", FileType::Sol},
                {"mst", FileType::Mst},   {"hnt", FileType::Hnt}, {"ord", FileType::Ord},
                {"bas", FileType::Bas},   {"prm", FileType::Prm}, {"attr", FileType::Attr},
                {"json", FileType::Json}, {"ilp", FileType::Ilp}};
  for (const auto &t : kTypes)
    if (iequals(ext, t.ext)) return t.type;
  return FileType::Unknown;
}

const char *file_type_name(FileType t) {
  switch (t) {
    case FileType::Lp:
      return "LP";
    case FileType::Mps:
      return "MPS";
    case FileType::Sol:
      return "solution";
    case FileType::Mst:
      return "MIP start";
    case FileType::Hnt:
      return "hint";
    case FileType::Ord:
      return "branching priority";
    case FileType::Bas:
      return "basis";
    case FileType::Prm:
      return "parameter";
    case FileType::Attr:
      return "attribute";
    case FileType::Json:
      return "JSON solution";
    case FileType::Ilp:
      return "IIS";
    default:
      return "unknown";
  }
}

namespace {

double seconds_since(std::chrono::steady_clock::time_point t0) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

[[noreturn]] void unknown_type(const char *filename, const char *what) {
  fail(KVR_ERROR_INVALID_ARGUMENT,
       "Unknown file type for file '%s': %s (known suffixes: .lp, .mps, .sol, .mst, .hnt, .ord, "
       ".bas, .prm, .attr, .json, .ilp, optionally followed by .gz or .bz2)",
       filename, what);
}

// What the library's own calls refuse is refused in a file as well: names too long or holding a
// NUL, SOS constraints with repeated members or weights or infinite weights, and bounds or
// right-hand sides no value can meet. Fails with FILE_READ naming the file.
void check_read_model(const ModelData &d, const std::string &filename) {
  try {
    if (d.name.find('\0') != std::string::npos)
      fail(KVR_ERROR_INVALID_ARGUMENT, "The model name contains a NUL character");
    struct Kind {
      const NamePool *names;
      const char *what;
    };
    for (Kind k : {Kind{&d.vars.names, "variable"}, Kind{&d.constrs.names, "constraint"},
                   Kind{&d.qconstrs.names, "quadratic constraint"},
                   Kind{&d.gens.names, "general constraint"}})
      for (size_t i = 0; i < k.names->size(); ++i) {
        std::string_view name = k.names->get(i);
        check_no_nul(name, k.what, static_cast<int>(i));
        if (name.size() > KVR_MAX_NAMELEN)
          fail(KVR_ERROR_INVALID_ARGUMENT, "Name of %s %zu is longer than %d characters", k.what, i,
               KVR_MAX_NAMELEN);
      }
    for (int s = 0; s < d.sos.size(); ++s) {
      std::unordered_set<int> members;
      std::unordered_set<double> weights;
      for (int64_t k = d.sos.beg[s]; k < d.sos.beg[s + 1]; ++k) {
        std::string_view var = d.vars.names.get(static_cast<size_t>(d.sos.ind[k]));
        if (!members.insert(d.sos.ind[k]).second)
          fail(KVR_ERROR_INVALID_ARGUMENT, "Variable '%.*s' appears twice in SOS constraint %d",
               static_cast<int>(var.size()), var.data(), s);
        if (is_infinite(d.sos.weight[k]))
          fail(KVR_ERROR_INVALID_ARGUMENT,
               "Weight of variable '%.*s' in SOS constraint %d is infinite",
               static_cast<int>(var.size()), var.data(), s);
        if (!weights.insert(d.sos.weight[k]).second)
          fail(KVR_ERROR_INVALID_ARGUMENT,
               "Weight %g appears twice in SOS constraint %d: the weights order the set and must "
               "differ",
               d.sos.weight[k], s);
      }
    }
    check_possible_values(d);
  } catch (const Error &e) {
    throw Error(KVR_ERROR_FILE_READ, format("%s: %s", filename.c_str(), e.what()));
  }
}

}  // namespace

ModelData read_model_file(const std::string &filename, kvr_env &env) {
  FileType t = file_type(filename);
  if (t != FileType::Lp && t != FileType::Mps) {
    if (t == FileType::Unknown) unknown_type(filename.c_str(), "cannot read a model from it");
    fail(KVR_ERROR_INVALID_ARGUMENT,
         "Unable to read a model from '%s': it is %s %s file, not a model file (.lp or .mps)",
         filename.c_str(), std::strchr("aeiouAEIOU", file_type_name(t)[0]) ? "an" : "a",
         file_type_name(t));
  }
  auto t0 = std::chrono::steady_clock::now();
  LineReader in(filename);
  env.logf("Read %s format model from file %s\n", file_type_name(t), filename.c_str());
  ModelData d = t == FileType::Lp ? read_lp(in) : read_mps(in);
  check_read_model(d, filename);
  if (env.params.get_int(ParamId::IgnoreNames)) d.drop_names();
  env.logf("Reading time = %.2f seconds\n", seconds_since(t0));
  env.logf("%s: %d rows, %d columns, %lld nonzeros\n", d.name.c_str(), d.num_constrs(),
           d.num_vars(), static_cast<long long>(d.constrs.rows.nnz()));
  return d;
}

void write_model_file(const ModelData &d, const std::string &filename, FileType t) {
  TextWriter out(filename);
  if (t == FileType::Lp)
    write_lp(d, out);
  else
    write_mps(d, out);
  out.finish();
}

}  // namespace kvr::io

using namespace kvr::io;

extern "C" {

int KVRreadmodel(KVRenv *env, const char *filename, KVRmodel **modelP) {
  if (modelP) *modelP = nullptr;
  if (int status = kvr::handle_status(env)) return status;
  return env->run([&] {
    if (!filename || !modelP) kvr::fail(KVR_ERROR_NULL_ARGUMENT, "Null argument to KVRreadmodel");
    if (!env->started) kvr::fail(KVR_ERROR_INVALID_ARGUMENT, "Environment not started");
    kvr::ReadInterruptScope interrupt;
    kvr::ModelData d = read_model_file(filename, *env);
    *modelP = new kvr_model(*env, std::move(d));
  });
}

int KVRread(KVRmodel *model, const char *filename) {
  return kvr::run_on_model(model, [&] {
    if (!filename) kvr::fail(KVR_ERROR_NULL_ARGUMENT, "Null file name given to KVRread");
    kvr::check_modifiable(model);
    FileType t = file_type(filename);
    if (t == FileType::Unknown) unknown_type(filename, "cannot read it into a model");
    if (t == FileType::Lp || t == FileType::Mps)
      kvr::fail(KVR_ERROR_INVALID_ARGUMENT,
                "Unable to read model file '%s' into an existing model: read it as a new model",
                filename);
    if (t == FileType::Json || t == FileType::Ilp)
      kvr::fail(KVR_ERROR_INVALID_ARGUMENT, "Unable to read '%s': %s files are written, not read",
                filename, file_type_name(t));
    kvr::ReadInterruptScope interrupt;
    read_data_file(model, filename, t);
    model->env.logf("Read %s file %s\n", file_type_name(t), filename);
  });
}

void KVRsetreadsignal(void) { kvr::arm_read_interrupt(); }

int KVRwrite(KVRmodel *model, const char *filename) {
  return kvr::run_on_model(model, [&] {
    if (!filename) kvr::fail(KVR_ERROR_NULL_ARGUMENT, "Null file name given to KVRwrite");
    kvr::check_queryable(model);
    FileType t = file_type(filename);
    if (t == FileType::Unknown) unknown_type(filename, "cannot write it");
    kvr::update_model(model);
    if (t == FileType::Lp || t == FileType::Mps)
      write_model_file(model->data, filename, t);
    else
      write_data_file(model, filename, t);
  });
}

int KVRgetjsonsolution(KVRmodel *model, char **buffP) {
  if (buffP) *buffP = nullptr;
  return kvr::run_on_model(model, [&] {
    if (!buffP)
      kvr::fail(KVR_ERROR_NULL_ARGUMENT, "Null buffer pointer given to KVRgetjsonsolution");
    kvr::check_queryable(model);
    std::string s = json_solution(model);
    char *p = static_cast<char *>(std::malloc(s.size() + 1));
    if (!p) throw std::bad_alloc();
    std::memcpy(p, s.c_str(), s.size() + 1);
    *buffP = p;
  });
}

int KVRismodelfile(const char *filename) {
  if (!filename) return -1;
  try {
    FileType t = file_type(filename);
    if (t == FileType::Unknown) return -1;
    return t == FileType::Lp || t == FileType::Mps ? 1 : 0;
  } catch (...) {
    return -1;  // a compression this build cannot handle
  }
}

int KVRisattrfile(const char *filename) {
  if (!filename) return -1;
  try {
    FileType t = file_type(filename);
    if (t == FileType::Unknown) return -1;
    return t == FileType::Attr ? 1 : 0;
  } catch (...) {
    return -1;
  }
}

}  // extern "C"
