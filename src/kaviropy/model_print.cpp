// Model methods that print summaries of the model into its log: printStats, printQuality,
// printAttr, display, and the helpers _splitlongmessage and _getConstrName.
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <vector>

#include "model.h"
#include "model_optimize.h"

namespace kvrpy {
namespace {

std::string fmt(const char *f, ...) __attribute__((format(printf, 1, 2)));
std::string fmt(const char *f, ...) {
  va_list ap;
  va_start(ap, f);
  char buf[512];
  int n = std::vsnprintf(buf, sizeof buf, f, ap);
  va_end(ap);
  if (n < static_cast<int>(sizeof buf)) return std::string(buf, n < 0 ? 0 : n);
  std::string big(static_cast<size_t>(n) + 1, '\0');
  va_start(ap, f);
  std::vsnprintf(big.data(), big.size(), f, ap);
  va_end(ap);
  big.resize(static_cast<size_t>(n));
  return big;
}

void say(nb::handle self, const std::string &line) { self.attr("message")(line); }

int int_attr(nb::handle self, const char *name) {
  int v = 0;
  check(KVRgetintattr(library_model(self), name, &v), self);
  return v;
}

double dbl_attr(nb::handle self, const char *name) {
  double v = 0;
  check(KVRgetdblattr(library_model(self), name, &v), self);
  return v;
}

std::string str_attr(nb::handle self, const char *name) {
  char *v = nullptr;
  check(KVRgetstrattr(library_model(self), name, &v), self);
  return v ? display(v) : "";
}

std::string element_name(nb::handle self, const char *attr, int index, const char *prefix) {
  char *v = nullptr;
  if (KVRgetstrattrelement(library_model(self), attr, index, &v) == 0 && v && *v) return display(v);
  return prefix + std::to_string(index);
}

std::string model_name(nb::handle self) {
  std::string name = str_attr(self, "ModelName");
  return name.empty() ? "Unnamed" : name;
}

std::string ljust(std::string s, size_t width) {
  if (s.size() < width) s.append(width - s.size(), ' ');
  return s;
}

void print_stats(nb::handle self) {
  int constrs = int_attr(self, "NumConstrs"), vars = int_attr(self, "NumVars");
  int nzs = int_attr(self, "NumNZs"), bins = int_attr(self, "NumBinVars");
  int ints = int_attr(self, "NumIntVars"), sos = int_attr(self, "NumSOS");
  int qcs = int_attr(self, "NumQConstrs"), gens = int_attr(self, "NumGenConstrs");
  int qcnzs = int_attr(self, "NumQCNZs"), pwl = int_attr(self, "NumPWLObjVars");
  std::string name = model_name(self);
  say(self, "");
  say(self, "Statistics for model " + name + ":");
  say(self, fmt("  Linear constraint matrix    : %d Constrs, %d Vars, %d NZs", constrs, vars, nzs));
  if (ints != 0) {
    std::string line = fmt("  Variable types              : %d Continuous,", vars - ints);
    line += bins != 0 ? fmt("%d Integer (%d Binary)", ints, bins) : fmt("%d Integer", ints);
    say(self, line);
  }
  if (pwl != 0) say(self, fmt("  PWL Objective variables     : %d", pwl));
  if (sos != 0) say(self, fmt("  SOS constraints             : %d", sos));
  if (qcs != 0) say(self, fmt("  Quadratic constraints       : %d Constrs, %d NZs", qcs, qcnzs));
  if (gens != 0) say(self, fmt("  General constraints         : %d Constrs", gens));
  say(self, fmt("  Matrix coefficient range    : [ %g, %g ]", dbl_attr(self, "MinCoeff"),
                dbl_attr(self, "MaxCoeff")));
  say(self, fmt("  Objective coefficient range : [ %g, %g ]", dbl_attr(self, "MinObjCoeff"),
                dbl_attr(self, "MaxObjCoeff")));
  say(self, fmt("  Variable bound range        : [ %g, %g ]", dbl_attr(self, "MinBound"),
                dbl_attr(self, "MaxBound")));
  say(self, fmt("  RHS coefficient range       : [ %g, %g ]", dbl_attr(self, "MinRHS"),
                dbl_attr(self, "MaxRHS")));
}

std::string constr_name(nb::handle self, int index) {
  int nc = int_attr(self, "NumConstrs");
  if (index < nc) return element_name(self, "ConstrName", index, "R");
  index -= nc;
  int nq = int_attr(self, "NumQConstrs");
  if (index < nq) return element_name(self, "QCName", index, "QC");
  index -= nq;
  int ns = int_attr(self, "NumSOS");
  if (index < ns) return "SOS" + std::to_string(index);
  index -= ns;
  return element_name(self, "GenConstrName", index, "GC");
}

// Reads a quality attribute; a missing value reads as -1 when `optional`, else raises.
double quality(nb::handle self, const char *name, bool optional = false) {
  double v = 0;
  if (KVRgetdblattr(library_model(self), name, &v) != 0) {
    if (optional) return -1.0;
    raise_error(kUsageError, "No solution information available");
  }
  return v;
}

int quality_index(nb::handle self, const char *name) {
  int v = 0;
  if (KVRgetintattr(library_model(self), name, &v) != 0)
    raise_error(kUsageError, "No solution information available");
  return v;
}

void print_quality(nb::handle self) {
  std::string name = model_name(self);
  say(self, "");
  say(self, "Solution quality statistics for model " + name + " :");
  if (int_attr(self, "IsMIP") == 1) {
    if (int_attr(self, "SolCount") == 0)
      raise_error(kUsageError, "No solution information available");
    double bv = quality(self, "BoundVio"), cv = quality(self, "ConstrVio");
    double iv = quality(self, "IntVio");
    say(self, "  Maximum violation:");
    auto line = [&](const char *label, double v, const std::string &worst) {
      std::string s = fmt("    %s : %.8e", ljust(label, 11).c_str(), v);
      if (v > 0) s += " (" + worst + ")";
      say(self, s);
    };
    line("Bound", bv,
         bv > 0 ? element_name(self, "VarName", quality_index(self, "BoundVioIndex"), "C") : "");
    line("Constraint", cv, cv > 0 ? constr_name(self, quality_index(self, "ConstrVioIndex")) : "");
    line("Integrality", iv,
         iv > 0 ? element_name(self, "VarName", quality_index(self, "IntVioIndex"), "C") : "");
    return;
  }
  double bv = quality(self, "BoundVio"), bsv = quality(self, "BoundSVio", true);
  double cv = quality(self, "ConstrVio"), csv = quality(self, "ConstrSVio", true);
  double dv = quality(self, "DualVio", true), dsv = quality(self, "DualSVio", true);
  double compl_vio = quality(self, "ComplVio", true);
  say(self, "  Maximum violation (unscaled/scaled):");
  auto line = [&](const char *label, double v, double sv, const std::string &worst) {
    std::string s = fmt("    %s : %.8e / %.8e", ljust(label, 11).c_str(), v, sv);
    if (v > 0) s += " (" + worst + ")";
    say(self, s);
  };
  line("Bound", bv, bsv,
       bv > 0 ? element_name(self, "VarName", quality_index(self, "BoundVioIndex"), "C") : "");
  line("Constraint", cv, csv,
       cv > 0 ? constr_name(self, quality_index(self, "ConstrVioIndex")) : "");
  if (dv != -1)
    line("Dual", dv, dsv, dv > 0 ? constr_name(self, quality_index(self, "DualVioIndex")) : "");
  if (compl_vio > 1e-12) {
    int j = quality_index(self, "ComplVioIndex");
    say(self, fmt("    %s : %.8e", "Complementarity", compl_vio) +
                  fmt(" %s (%d)", ljust(element_name(self, "VarName", j, "C"), 16).c_str(), j));
  }
}

void split_long_message(nb::handle self, std::string text, const std::string &sep, size_t length) {
  auto strip = [](const std::string &s) {
    size_t b = s.find_first_not_of(" \t\n"), e = s.find_last_not_of(" \t\n");
    return b == std::string::npos ? std::string() : s.substr(b, e - b + 1);
  };
  while (text.size() > length) {
    size_t pos = sep.empty() ? std::string::npos : text.rfind(sep, length);
    if (pos == std::string::npos || pos == 0) break;
    say(self, text.substr(0, pos));
    text = strip(text.substr(pos));
  }
  say(self, text);
}

// Attribute classes of printAttr, by the KVR_ATTRCLASS_* code.
const char *const kObjectTitle[] = {"",    "Variable",    "Constraint",
                                    "SOS", "QConstraint", "GenConstr"};
const char *const kCountAttr[] = {"",       "NumVars",     "NumConstrs",
                                  "NumSOS", "NumQConstrs", "NumGenConstrs"};
const char *const kNameAttr[] = {"", "VarName", "ConstrName", "", "QCName", "GenConstrName"};

std::string value_text(nb::handle self, KVRmodel *cm, const std::string &attr, int type, int cls,
                       int index, bool &nonzero) {
  int code = 0;
  switch (type) {
    case KVR_ATTRTYPE_CHAR: {
      char c = 0;
      code = KVRgetcharattrelement(cm, attr.c_str(), index, &c);
      check(code, self);
      nonzero = true;
      return fmt("%12s ", std::string(1, c).c_str());
    }
    case KVR_ATTRTYPE_INT: {
      int v = 0;
      code = cls == KVR_ATTRCLASS_MODEL ? KVRgetintattr(cm, attr.c_str(), &v)
                                        : KVRgetintattrelement(cm, attr.c_str(), index, &v);
      check(code, self);
      nonzero = std::abs(v) > 1e-6;
      return fmt("%12g ", static_cast<double>(v));
    }
    case KVR_ATTRTYPE_DBL: {
      double v = 0;
      code = cls == KVR_ATTRCLASS_MODEL ? KVRgetdblattr(cm, attr.c_str(), &v)
                                        : KVRgetdblattrelement(cm, attr.c_str(), index, &v);
      check(code, self);
      nonzero = std::fabs(v) > 1e-6;
      double shown = v >= KVR_INFINITY ? INFINITY : v <= -KVR_INFINITY ? -INFINITY : v;
      return fmt("%12g ", shown);
    }
    default: {
      char *v = nullptr;
      code = cls == KVR_ATTRCLASS_MODEL ? KVRgetstrattr(cm, attr.c_str(), &v)
                                        : KVRgetstrattrelement(cm, attr.c_str(), index, &v);
      check(code, self);
      nonzero = v && *v;
      return fmt("%12s ", v ? v : "");
    }
  }
}

void print_attr(nb::handle self, nb::handle attrname, const std::string &filter) {
  KVRmodel *cm = library_model(self);
  std::vector<std::string> names;
  if (nb::isinstance<nb::str>(attrname)) {
    names.push_back(nb::cast<std::string>(attrname));
  } else if (nb::isinstance(attrname, nb::module_::import_("collections.abc").attr("Iterable"))) {
    for (nb::handle a : nb::iter(attrname)) names.push_back(nb::cast<std::string>(nb::str(a)));
  } else {
    raise_error(kUsageError, "Invalid argument");
  }
  std::vector<int> types;
  int cls = -1;
  for (const std::string &a : names) {
    int type = 0, c = 0;
    check(KVRgetattrinfo(cm, a.c_str(), &type, &c, nullptr), self);
    if (cls >= 0 && c != cls) raise_error(kUsageError, "Attribute types are not compatible");
    cls = c;
    types.push_back(type);
  }
  if (names.empty()) return;
  if (cls == KVR_ATTRCLASS_MODEL) {
    for (size_t k = 0; k < names.size(); ++k) {
      bool nz = false;
      std::string v = value_text(self, cm, names[k], types[k], cls, 0, nz);
      size_t b = v.find_first_not_of(' ');
      say(self,
          "  " + names[k] + ": " + (b == std::string::npos ? "" : v.substr(b, v.size() - b - 1)));
    }
    return;
  }
  if (cls < 1 || cls > 5) raise_error(kUsageError, "Invalid argument");
  std::string header = fmt("%12s ", kObjectTitle[cls]);
  for (const std::string &a : names) header += fmt("%12s ", a.c_str());
  say(self, header);
  say(self, std::string(13 * (names.size() + 1), '-'));
  nb::object fnmatch = nb::module_::import_("fnmatch").attr("fnmatch");
  int count = int_attr(self, kCountAttr[cls]);
  for (int i = 0; i < count; ++i) {
    std::string name = cls == KVR_ATTRCLASS_SOS ? std::to_string(i)
                                                : element_name(self, kNameAttr[cls], i,
                                                               cls == 1   ? "C"
                                                               : cls == 2 ? "R"
                                                               : cls == 4 ? "QC"
                                                                          : "GC");
    if (!nb::cast<bool>(fnmatch(name, filter))) continue;
    std::string row = fmt("%12s ", name.c_str());
    bool any = false;
    for (size_t k = 0; k < names.size(); ++k) {
      bool nz = false;
      row += value_text(self, cm, names[k], types[k], cls, i, nz);
      any = any || nz;
    }
    if (any) say(self, row);
  }
}

// A name attribute's value for a listing: escaped bytes shown as U+FFFD.
std::string name_text_of(nb::handle name) { return kvrpy::display(std::string_view(utf8(name))); }

void display(nb::handle self) {
  int sense = int_attr(self, "ModelSense");
  say(self, sense == KVR_MAXIMIZE ? "Maximize" : "Minimize");
  split_long_message(self, "  " + nb::cast<std::string>(nb::str(self.attr("getObjective")())), " ",
                     90);
  say(self, "Subject To");
  auto sense_text = [](const std::string &s) {
    return s == "<" ? std::string("<=") : s == ">" ? std::string(">=") : std::string("=");
  };
  for (nb::handle c : nb::iter(self.attr("getConstrs")())) {
    std::string row = nb::cast<std::string>(nb::str(self.attr("getRow")(c)));
    std::string line = fmt("  %s: %s %s %g", name_text_of(c.attr("ConstrName")).c_str(),
                           row.c_str(), sense_text(nb::cast<std::string>(c.attr("Sense"))).c_str(),
                           nb::cast<double>(c.attr("RHS")));
    split_long_message(self, line, " ", 90);
  }
  for (nb::handle q : nb::iter(self.attr("getQConstrs")())) {
    std::string row = nb::cast<std::string>(nb::str(self.attr("getQCRow")(q)));
    std::string line = fmt("  %s: %s %s %g", name_text_of(q.attr("QCName")).c_str(), row.c_str(),
                           sense_text(nb::cast<std::string>(q.attr("QCSense"))).c_str(),
                           nb::cast<double>(q.attr("QCRHS")));
    split_long_message(self, line, " ", 90);
  }
  say(self, "Bounds");
  std::vector<std::string> binaries, integers;
  for (nb::handle v : nb::iter(self.attr("getVars")())) {
    std::string name = name_text_of(v.attr("VarName"));
    std::string vtype = nb::cast<std::string>(v.attr("VType"));
    if (vtype == "B") {
      binaries.push_back(name);
      continue;
    }
    if (vtype == "I") integers.push_back(name);
    double lb = nb::cast<double>(v.attr("LB")), ub = nb::cast<double>(v.attr("UB"));
    if (lb == 0.0 && std::isinf(ub) && ub > 0) continue;
    if (lb == ub)
      say(self, fmt("  %s = %g", name.c_str(), lb));
    else if (std::isinf(lb) && std::isinf(ub))
      say(self, fmt("  %s free", name.c_str()));
    else
      say(self, fmt("  %g <= %s <= %g", lb, name.c_str(), ub));
  }
  auto list = [&](const char *title, const std::vector<std::string> &items) {
    if (items.empty()) return;
    say(self, title);
    std::string text = " ";
    for (const std::string &s : items) text += " " + s;
    split_long_message(self, text, " ", 90);
  };
  list("Binaries", binaries);
  list("General Integers", integers);
}

}  // namespace

void init_model_print(nb::module_ &m) {
  ModelMethods def;
  def(
      "printStats", [](nb::handle self) { print_stats(self); },
      "Writes the model's size and coefficient ranges to its log.");
  def(
      "printQuality", [](nb::handle self) { print_quality(self); },
      "Writes the largest violations of the current solution to the model's log.");
  def(
      "printAttr",
      [](nb::handle self, nb::handle attrname, const std::string &filter) {
        print_attr(self, attrname, filter);
      },
      nb::arg("attrname"), nb::arg("filter") = "*",
      "Writes a table of attribute values (one name or a list of names of one kind of object) "
      "for the objects whose names match filter; rows of zeros are skipped.");
  def(
      "display", [](nb::handle self) { display(self); },
      "Writes a readable listing of the model (objective, constraints, bounds, types).");
  def(
      "_splitlongmessage",
      [](nb::handle self, const std::string &text, const std::string &sep, size_t length) {
        split_long_message(self, text, sep, length);
      },
      nb::arg("longstring"), nb::arg("sep") = " ", nb::arg("length") = 90,
      "Writes a long line to the log in pieces of at most length characters, broken at sep.");
  def(
      "_getConstrName", [](nb::handle self, int index) { return constr_name(self, index); },
      nb::arg("index"),
      "Name of a constraint by its index over linear, quadratic, SOS and general constraints.");
}

}  // namespace kvrpy
