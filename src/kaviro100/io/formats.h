// The model file formats (LP, MPS) and the helpers their readers and writers share.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "io/nameindex.h"
#include "io/stream.h"
#include "model/attrs.h"
#include "model/modeldata.h"
#include "util/error.h"

namespace kvr::io {

ModelData read_mps(LineReader &in);
ModelData read_lp(LineReader &in);
void write_mps(const ModelData &d, TextWriter &out);
void write_lp(const ModelData &d, TextWriter &out);

// Throws NOT_SUPPORTED when the model holds something neither model format can express.
void check_writable(const ModelData &d, const char *format);
// The model name must fit on its line of the file.
void check_model_name(const ModelData &d, const char *format);
// The options text of general constraint i must fit on its line of the file.
void check_options(const GenConstr &g, int i);

// Names as files show them: an unnamed element is written (and read back) as its generated name:
// "C<i>" for variables, "R<i>" for linear constraints, "QC<i>" for quadratic constraints,
// "GC<i>" for general constraints.
class ElementNames {
 public:
  ElementNames(const NamePool &pool, const char *prefix) : pool_(pool), prefix_(prefix) {}
  std::string_view operator()(int i) const {
    std::string_view s = pool_.get(static_cast<size_t>(i));
    if (!s.empty()) return s;
    scratch_ = prefix_;
    scratch_ += std::to_string(i);
    return scratch_;
  }

 private:
  const NamePool &pool_;
  const char *prefix_;
  mutable std::string scratch_;
};

// What the model-file writers share: the model, the output and the file names of its elements.
class ModelFileWriter {
 protected:
  ModelFileWriter(const ModelData &d, TextWriter &out)
      : d_(d),
        out_(out),
        vname_(d.vars.names, "C"),
        cname_(d.constrs.names, "R"),
        qname_(d.qconstrs.names, "QC"),
        gname_(d.gens.names, "GC") {}

  const ModelData &d_;
  TextWriter &out_;
  ElementNames vname_, cname_, qname_, gname_;
};

// Runs check(name, "variable", j) on each variable's file name and fails when two variables share
// a name.
template <class Check>
void check_variable_names(const ModelData &d, const ElementNames &names, const char *format,
                          Check &&check) {
  NamePool cols;
  NameIndex colidx(cols);
  for (int j = 0; j < d.vars.size(); ++j) {
    std::string_view n = names(j);
    check(n, "variable", j);
    cols.push_back(n);
    if (colidx.add(j) != j)
      fail(KVR_ERROR_INVALID_ARGUMENT,
           "Unable to write the model in %s format: variables %d and %d are both named '%.*s'",
           format, colidx.find(n), j, static_cast<int>(n.size()), n.data());
  }
}

// Lazy level of constraint i (0 when the model never set one).
int lazy_level(const ModelData &d, int i);
void set_lazy_levels(ModelData &d, const std::vector<int> &levels);

// The general-constraint type keywords both formats use ("MAX", "EXPA", ...) and back.
const char *genconstr_keyword(int type);
int genconstr_type(std::string_view keyword);  // -1 when unknown (case-insensitive)
bool is_function_genconstr(int type);          // the y = f(x) kinds (PWL and POLY included)
bool has_parameter_a(int type);                // EXPA, LOGA and POW: y = f(x, a)
// MAX and MIN with a finite constant among their operands.
bool has_constant_operand(const GenConstr &g);

// The per-constraint approximation settings of a function constraint that differ from their
// defaults, as (key, value) pairs and as "Key=value" text; and setting one of them from such a
// pair (false: unknown key).
std::vector<std::pair<const char *, double>> funcpiece_changes(const GenConstr &g);
std::string funcpiece_settings(const GenConstr &g);
bool set_funcpiece(GenConstr &g, std::string_view key, double value);

}  // namespace kvr::io
