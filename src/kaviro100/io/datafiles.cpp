// Data files that go with a model: solutions (.sol), MIP starts (.mst), hints (.hnt), branching
// priorities (.ord), bases (.bas), parameters (.prm), attributes (.attr, JSON) and JSON solutions.
//
// Reading parses and checks the whole file first and then sets the attributes through the attribute
// core (the same writes as the C interface's), so a malformed file changes nothing and the usual
// checks and lazy-update rules apply.
// Elements are named as in model files: unnamed ones by their generated names (C<i>, R<i>, ...).
//
//   .sol, .mst   "name value" lines; '#' starts a comment. Read as the MIP start (Start).
//   .hnt         "name value [priority]": VarHintVal and VarHintPri.
//   .ord         "name priority": BranchPriority.
//   .bas         NAME line, then XU col row / XL col row (column basic, row nonbasic at its upper /
//                lower bound), UL col / LL col (column nonbasic at upper / lower), SB col
//                (superbasic), BS col (basic column without a row partner), RU row / RL row
//                (nonbasic row without a column partner), ENDATA. Columns not listed are
//                nonbasic at lower, rows not listed are basic.
//   .attr        {"Model": {attr: value}, "Var": {name: {attr: value}}, "Constr": ...,
//                 "QConstr": ..., "GenConstr": ..., "SOS": {index: {attr: value}}}
#include "io/datafiles.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "attrs/attr_access.h"
#include "io/formats.h"
#include "io/json.h"
#include "io/paramfile.h"
#include "model/model.h"
#include "util/error.h"
#include "util/strings.h"

namespace kvr::io {

namespace {

// Element lookup by name; generated names find unnamed elements.
int find_element(const NamePool &pool, const char *prefix, std::string_view name) {
  int i = pool.find(name);
  if (i >= 0) return i;
  size_t p = std::strlen(prefix);
  long long k;
  if (name.size() > p && name.substr(0, p) == prefix && to_int(name.substr(p), k) && k >= 0 &&
      static_cast<size_t>(k) < pool.size() && pool.get(static_cast<size_t>(k)).empty() &&
      name[p] != '+')
    return static_cast<int>(k);
  return -1;
}

// Sets element attribute values (all elements when ind is null) through the attribute core, as the
// C interface's set calls do: checked again and queued for the next update.
template <class T>
void set_values(kvr_model *m, AttrId id, const std::vector<int> *ind,
                const std::vector<T> &values) {
  check_modifiable(m);
  std::vector<double> v(values.begin(), values.end());
  int n = static_cast<int>(v.size());
  write_elem_num(m, id, ind ? IndexSet{ind->data(), 0, n} : IndexSet{nullptr, 0, n}, v.data());
}

// Values of an element attribute for the first n elements; DATA_NOT_AVAILABLE when it has none.
std::vector<int> int_values(kvr_model *m, AttrId id, int n) {
  std::vector<double> v(static_cast<size_t>(n));
  if (n > 0) {
    check_available(m, id);
    read_elem_num(m, id, IndexSet{nullptr, 0, n}, v.data());
  }
  return std::vector<int>(v.begin(), v.end());
}

// Splits a data line at blanks; '#' starts a comment.
int fields(std::string_view line, std::string_view *f, int max) {
  if (size_t hash = line.find('#'); hash != std::string_view::npos) line = line.substr(0, hash);
  int n = 0;
  size_t i = 0;
  while (i < line.size()) {
    while (i < line.size() && (line[i] == ' ' || line[i] == '\t' || line[i] == '\r')) ++i;
    if (i >= line.size()) break;
    size_t b = i;
    while (i < line.size() && line[i] != ' ' && line[i] != '\t' && line[i] != '\r') ++i;
    if (n < max) f[n] = line.substr(b, i - b);
    ++n;
  }
  return n;
}

class VarLines {
 public:
  VarLines(kvr_model *m, LineReader &in) : m_(m), in_(in) {}
  int var(std::string_view name) {
    int j = find_element(m_->data.vars.names, "C", name);
    if (j < 0) in_.fail("unknown variable '%.*s'", static_cast<int>(name.size()), name.data());
    return j;
  }
  // The value must be acceptable for the attribute (checked here, before anything is set).
  double attr_value(AttrId id, int elem, double v) {
    try {
      return checked_attr_value(id, elem, v);
    } catch (const Error &e) {
      in_.fail("%s", e.what());
    }
  }

 private:
  kvr_model *m_;
  LineReader &in_;
};

void read_start(kvr_model *m, LineReader &in) {
  VarLines vl(m, in);
  std::vector<int> ind;
  std::vector<double> val;
  std::string_view line, f[3];
  while (in.next(line)) {
    int n = fields(line, f, 3);
    if (n == 0) continue;
    if (n != 2) in.fail("expected a variable name and a value");
    ind.push_back(vl.var(f[0]));
    val.push_back(vl.attr_value(AttrId::Start, ind.back(), in.number(f[1], "the value")));
  }
  set_values(m, AttrId::Start, &ind, val);
}

void read_hints(kvr_model *m, LineReader &in) {
  VarLines vl(m, in);
  std::vector<int> ind, pind, pri;
  std::vector<double> val;
  std::string_view line, f[4];
  while (in.next(line)) {
    int n = fields(line, f, 4);
    if (n == 0) continue;
    if (n != 2 && n != 3)
      in.fail("expected a variable name, a hint value and an optional priority");
    int j = vl.var(f[0]);
    ind.push_back(j);
    val.push_back(vl.attr_value(AttrId::VarHintVal, j, in.number(f[1], "the hint value")));
    if (n == 3) {
      long long p;
      if (!to_int(f[2], p))
        in.fail("expected an integer priority, found '%.*s'", static_cast<int>(f[2].size()),
                f[2].data());
      pind.push_back(j);
      pri.push_back(static_cast<int>(vl.attr_value(AttrId::VarHintPri, j, static_cast<double>(p))));
    }
  }
  set_values(m, AttrId::VarHintVal, &ind, val);
  set_values(m, AttrId::VarHintPri, &pind, pri);
}

void read_priorities(kvr_model *m, LineReader &in) {
  VarLines vl(m, in);
  std::vector<int> ind, pri;
  std::string_view line, f[3];
  while (in.next(line)) {
    int n = fields(line, f, 3);
    if (n == 0) continue;
    long long p;
    if (n != 2 || !to_int(f[1], p)) in.fail("expected a variable name and an integer priority");
    int j = vl.var(f[0]);
    ind.push_back(j);
    pri.push_back(
        static_cast<int>(vl.attr_value(AttrId::BranchPriority, j, static_cast<double>(p))));
  }
  set_values(m, AttrId::BranchPriority, &ind, pri);
}

void read_basis(kvr_model *m, LineReader &in) {
  VarLines vl(m, in);
  const ModelData &d = m->data;
  std::vector<int> vb(static_cast<size_t>(d.num_vars()), KVR_NONBASIC_LOWER);
  std::vector<int> cb(static_cast<size_t>(d.num_constrs()), KVR_BASIC);
  auto row = [&](std::string_view name) {
    int r = find_element(d.constrs.names, "R", name);
    if (r < 0) in.fail("unknown constraint '%.*s'", static_cast<int>(name.size()), name.data());
    return r;
  };
  std::string_view line, f[4];
  bool ended = false, named = false;
  while (!ended && in.next(line)) {
    if (line.empty() || line[0] == '*') continue;
    int n = fields(line, f, 4);
    if (n == 0) continue;
    if (line[0] != ' ' && line[0] != '\t') {
      if (f[0] == "NAME") {
        named = true;
      } else if (f[0] == "ENDATA") {
        ended = true;
      } else {
        in.fail("expected NAME, ENDATA or an indented basis entry");
      }
      continue;
    }
    if (!named) in.fail("expected the NAME line first");
    std::string_view k = f[0];
    if ((k == "XU" || k == "XL") && n == 3) {
      vb[vl.var(f[1])] = KVR_BASIC;
      cb[row(f[2])] = k == "XU" ? KVR_NONBASIC_UPPER : KVR_NONBASIC_LOWER;
    } else if ((k == "UL" || k == "LL" || k == "SB" || k == "BS") && n == 2) {
      vb[vl.var(f[1])] = k == "UL"   ? KVR_NONBASIC_UPPER
                         : k == "LL" ? KVR_NONBASIC_LOWER
                         : k == "SB" ? KVR_SUPERBASIC
                                     : KVR_BASIC;
    } else if ((k == "RU" || k == "RL") && n == 2) {
      cb[row(f[1])] = k == "RU" ? KVR_NONBASIC_UPPER : KVR_NONBASIC_LOWER;
    } else {
      in.fail("expected XU/XL column row, UL/LL/SB/BS column or RU/RL row");
    }
  }
  if (!ended) in.fail("unexpected end of file: expected ENDATA");
  set_values(m, AttrId::VBasis, nullptr, vb);
  set_values(m, AttrId::CBasis, nullptr, cb);
}

// ---------------------------------------------------------------- attribute files

struct ClassInfo {
  const char *key;
  AttrClass cls;
  const char *prefix;  // generated names; nullptr: elements by index
};
constexpr ClassInfo kClasses[] = {{"Var", AttrClass::Var, "C"},
                                  {"Constr", AttrClass::Constr, "R"},
                                  {"QConstr", AttrClass::QConstr, "QC"},
                                  {"GenConstr", AttrClass::GenConstr, "GC"},
                                  {"SOS", AttrClass::Sos, nullptr}};

const NamePool *class_names(const ModelData &d, AttrClass c) {
  switch (c) {
    case AttrClass::Var:
      return &d.vars.names;
    case AttrClass::Constr:
      return &d.constrs.names;
    case AttrClass::QConstr:
      return &d.qconstrs.names;
    case AttrClass::GenConstr:
      return &d.gens.names;
    default:
      return nullptr;
  }
}

const ExtraAttrs &class_extra(const ModelData &d, AttrClass c) {
  switch (c) {
    case AttrClass::Var:
      return d.vars.extra;
    case AttrClass::Constr:
      return d.constrs.extra;
    case AttrClass::QConstr:
      return d.qconstrs.extra;
    case AttrClass::GenConstr:
      return d.gens.extra;
    default:
      return d.sos.extra;
  }
}

int class_count(const ModelData &d, AttrClass c) {
  switch (c) {
    case AttrClass::Var:
      return d.num_vars();
    case AttrClass::Constr:
      return d.num_constrs();
    case AttrClass::QConstr:
      return d.qconstrs.size();
    case AttrClass::GenConstr:
      return d.gens.size();
    default:
      return d.sos.size();
  }
}

// Values of one attribute for a list of elements, collected before anything is set.
struct AttrValues {
  AttrId id;
  std::vector<int> ind;
  std::vector<double> num;
  std::vector<std::string> text;
};

void read_attrs(kvr_model *m, LineReader &in) {
  JsonValue doc = parse_json(in);
  const std::string &file = in.filename();
  auto bad = [&](long line, const std::string &what) {
    throw Error(KVR_ERROR_FILE_READ, format("%s, line %ld: %s", file.c_str(), line, what.c_str()));
  };
  if (doc.kind != JsonValue::Object) bad(doc.line, "an attribute file holds a JSON object");
  const ModelData &d = m->data;
  std::vector<AttrValues> lists;
  std::vector<std::pair<AttrId, const JsonValue *>> model_attrs;

  // Checks one value for attribute `name` of class `cls`; returns the attribute.
  auto check_value = [&](const std::string &name, AttrClass cls, const JsonValue &v, int elem,
                         double &num) {
    AttrId id = find_attr(name);
    if (id == AttrId::Count) bad(v.line, "unknown attribute '" + name + "'");
    const AttrDef &def = attr_def(id);
    if (def.cls != cls)
      bad(v.line, "attribute '" + std::string(def.name) + "' does not belong here");
    if (!def.settable) bad(v.line, "attribute '" + std::string(def.name) + "' cannot be set");
    if (def.type == AttrType::Str) {
      if (v.kind != JsonValue::String)
        bad(v.line, "attribute '" + std::string(def.name) + "' takes a string");
      if (v.text.find('\0') != std::string::npos)
        bad(v.line,
            "the value of attribute '" + std::string(def.name) + "' contains a NUL character");
      if (v.text.size() > KVR_MAX_NAMELEN)
        bad(v.line, "the value of attribute '" + std::string(def.name) + "' is longer than " +
                        std::to_string(KVR_MAX_NAMELEN) + " characters");
      return id;
    }
    if (def.type == AttrType::Char) {
      if (v.kind != JsonValue::String || v.text.size() != 1)
        bad(v.line, "attribute '" + std::string(def.name) + "' takes a one-character string");
      num = static_cast<unsigned char>(v.text[0]);
    } else {
      if (v.kind != JsonValue::Number)
        bad(v.line, "attribute '" + std::string(def.name) + "' takes a number");
      num = v.number;
      if (def.type == AttrType::Int && num != static_cast<double>(static_cast<long long>(num)))
        bad(v.line, "attribute '" + std::string(def.name) + "' takes an integer");
    }
    try {
      num = checked_attr_value(id, elem, num);
    } catch (const Error &e) {
      bad(v.line, e.what());
    }
    return id;
  };

  for (const auto &[key, section] : doc.members) {
    if (key == "Model") {
      if (section.kind != JsonValue::Object) bad(section.line, "\"Model\" holds an object");
      for (const auto &[name, v] : section.members) {
        double num = 0;
        AttrId id = check_value(name, AttrClass::Model, v, -1, num);
        model_attrs.emplace_back(id, &v);
      }
      continue;
    }
    const ClassInfo *ci = nullptr;
    for (const ClassInfo &c : kClasses)
      if (key == c.key) ci = &c;
    if (!ci)
      bad(section.line, "unknown section \"" + key +
                            "\" (expected Model, Var, Constr, QConstr, GenConstr or SOS)");
    if (section.kind != JsonValue::Object) bad(section.line, "\"" + key + "\" holds an object");
    const NamePool *names = class_names(d, ci->cls);
    int count = class_count(d, ci->cls);
    for (const auto &[ename, attrs] : section.members) {
      int elem = -1;
      if (names) {
        elem = find_element(*names, ci->prefix, ename);
      } else {
        long long k;
        if (to_int(ename, k) && k >= 0 && k < count) elem = static_cast<int>(k);
      }
      if (elem < 0) bad(attrs.line, "unknown " + std::string(ci->key) + " '" + ename + "'");
      if (attrs.kind != JsonValue::Object)
        bad(attrs.line, "the attributes of '" + ename + "' are an object");
      for (const auto &[aname, v] : attrs.members) {
        double num = 0;
        AttrId id = check_value(aname, ci->cls, v, elem, num);
        AttrValues *list = nullptr;
        for (AttrValues &l : lists)
          if (l.id == id) list = &l;
        if (!list) list = &lists.emplace_back(AttrValues{id, {}, {}, {}});
        list->ind.push_back(elem);
        if (attr_def(id).type == AttrType::Str)
          list->text.push_back(v.text);
        else
          list->num.push_back(num);
      }
    }
  }

  // Everything is checked: set.
  check_modifiable(m);
  for (const auto &[id, v] : model_attrs) {
    if (attr_def(id).type == AttrType::Str)
      write_model_str(m, id, v->text.c_str());
    else
      write_model_num(m, id, v->number);
  }
  for (AttrValues &l : lists) {
    if (attr_def(l.id).type != AttrType::Str) {
      set_values(m, l.id, &l.ind, l.num);  // checked values: integral, char codes in range
      continue;
    }
    std::vector<const char *> p;
    for (const std::string &s : l.text) p.push_back(s.c_str());
    write_elem_str(m, l.id, IndexSet{l.ind.data(), 0, static_cast<int>(l.ind.size())}, p.data());
  }
}

// ---------------------------------------------------------------- writing

void put(TextWriter &out, const std::string &s) { out.put(std::string_view(s)); }

void write_values(TextWriter &out, const ElementNames &names, const std::vector<double> &v,
                  bool skip_undefined) {
  for (size_t j = 0; j < v.size(); ++j) {
    if (skip_undefined && v[j] == KVR_UNDEFINED) continue;
    out.put(names(static_cast<int>(j))).put(' ').num(v[j]).put('\n');
  }
}

void write_sol(kvr_model *m, TextWriter &out) {
  m->sol.ensure_lp_values();
  const Solution &s = m->sol;
  if (s.x.empty())
    fail(KVR_ERROR_DATA_NOT_AVAILABLE,
         "Unable to write solution file '%s': the model has no solution", out.filename().c_str());
  out.put("# Solution for model ").put(m->data.name).put('\n');
  out.put("# Objective value = ").num(s.objval).put('\n');
  write_values(out, ElementNames(m->data.vars.names, "C"), s.x, false);
}

void write_mst(kvr_model *m, TextWriter &out) {
  const ModelData &d = m->data;
  ElementNames names(d.vars.names, "C");
  out.put("# MIP start for model ").put(d.name).put('\n');
  if (!m->sol.x.empty()) {
    write_values(out, names, m->sol.x, false);
    return;
  }
  std::vector<double> start(static_cast<size_t>(d.num_vars()));
  for (int j = 0; j < d.num_vars(); ++j) start[j] = d.vars.extra.get(start_key(0), j);
  write_values(out, names, start, true);
}

void write_hints(kvr_model *m, TextWriter &out) {
  const ModelData &d = m->data;
  ElementNames names(d.vars.names, "C");
  const int kv = static_cast<int>(AttrId::VarHintVal), kp = static_cast<int>(AttrId::VarHintPri);
  for (int j = 0; j < d.num_vars(); ++j) {
    double v = d.vars.extra.get(kv, j);
    if (v == KVR_UNDEFINED) continue;
    out.put(names(j)).put(' ').num(v).put(' ').num(d.vars.extra.get(kp, j)).put('\n');
  }
}

void write_priorities(kvr_model *m, TextWriter &out) {
  const ModelData &d = m->data;
  ElementNames names(d.vars.names, "C");
  const int key = static_cast<int>(AttrId::BranchPriority);
  for (int j = 0; j < d.num_vars(); ++j) {
    double p = d.vars.extra.get(key, j);
    if (p != 0) out.put(names(j)).put(' ').num(p).put('\n');
  }
}

void write_basis(kvr_model *m, TextWriter &out) {
  const ModelData &d = m->data;
  int n = d.num_vars(), rows = d.num_constrs();
  // The basis of the last solve, else the warm-start basis; the reads say when there is none.
  std::vector<int> vb = int_values(m, AttrId::VBasis, n);
  std::vector<int> cb = int_values(m, AttrId::CBasis, rows);
  ElementNames vn(d.vars.names, "C"), cn(d.constrs.names, "R");
  out.put("NAME ").put(d.name).put('\n');
  size_t r = 0;
  auto next_row = [&] {
    while (r < cb.size() && cb[r] == KVR_BASIC) ++r;
    return r < cb.size() ? static_cast<int>(r++) : -1;
  };
  for (int j = 0; j < n; ++j) {
    if (vb[j] == KVR_BASIC) {
      int i = next_row();
      if (i < 0) {
        out.put(" BS ").put(vn(j)).put('\n');
      } else {
        out.put(cb[i] == KVR_NONBASIC_UPPER ? " XU " : " XL ")
            .put(vn(j))
            .put(' ')
            .put(cn(i))
            .put('\n');
      }
    } else if (vb[j] == KVR_NONBASIC_UPPER) {
      out.put(" UL ").put(vn(j)).put('\n');
    } else if (vb[j] == KVR_SUPERBASIC) {
      out.put(" SB ").put(vn(j)).put('\n');
    }
  }
  for (int i; (i = next_row()) >= 0;)
    out.put(cb[i] == KVR_NONBASIC_UPPER ? " RU " : " RL ").put(cn(i)).put('\n');
  out.put("ENDATA\n");
}

void write_attrs(kvr_model *m, TextWriter &out) {
  const ModelData &d = m->data;
  std::string s = "{";
  bool first_class = true;
  for (const ClassInfo &ci : kClasses) {
    const ExtraAttrs &ex = class_extra(d, ci.cls);
    int count = class_count(d, ci.cls);
    // Attribute columns in key order; MIP starts beyond the first are not attributes.
    std::map<int, const std::vector<double> *> num;
    std::map<int, const NamePool *> str;
    for (const auto &[key, col] : ex.num)
      if (key < attr_count()) num.emplace(key, &col);
    for (const auto &[key, pool] : ex.str)
      if (key < attr_count()) str.emplace(key, &pool);
    if (num.empty() && str.empty()) continue;
    const NamePool *names = class_names(d, ci.cls);
    std::string section;
    for (int i = 0; i < count; ++i) {
      std::string item;
      for (const auto &[key, col] : num) {
        double v = static_cast<size_t>(i) < col->size() ? (*col)[i] : extra_default(key);
        if (v == extra_default(key)) continue;
        item += item.empty() ? "" : ", ";
        json_string(item, attr_def(static_cast<AttrId>(key)).name);
        item += ": ";
        if (attr_def(static_cast<AttrId>(key)).type == AttrType::Char)
          json_string(item, std::string(1, static_cast<char>(v)));
        else
          json_number(item, v);
      }
      for (const auto &[key, pool] : str) {
        if (static_cast<size_t>(i) >= pool->size() || pool->get(i).empty()) continue;
        item += item.empty() ? "" : ", ";
        json_string(item, attr_def(static_cast<AttrId>(key)).name);
        item += ": ";
        json_string(item, pool->get(i));
      }
      if (item.empty()) continue;
      section += section.empty() ? "\n    " : ",\n    ";
      json_string(section, names ? ElementNames(*names, ci.prefix)(i) : std::to_string(i));
      section += ": {" + item + "}";
    }
    if (section.empty()) continue;
    s += first_class ? "\n  " : ",\n  ";
    first_class = false;
    json_string(s, ci.key);
    s += ": {" + section + "\n  }";
  }
  s += "\n}\n";
  put(out, s);
}

// Parameter files go through the parameter module; compressed ones are written through a plain
// copy.
std::string temp_copy_name(const std::string &filename) {
  char tmpl[] = "/tmp/kaviro_prm_XXXXXX";
  int fd = mkstemp(tmpl);
  if (fd < 0)
    fail(KVR_ERROR_FILE_WRITE, "Unable to create a temporary file for '%s'", filename.c_str());
  close(fd);
  return tmpl;
}

void read_params_unguarded(kvr_model *m, const std::string &filename) {
  std::vector<std::string> applied;
  read_param_file(m->env.params, filename, &applied);
  try {
    for (const std::string &name : applied) after_param_change(&m->env, find_param(name));
  } catch (const Error &e) {
    throw Error(KVR_ERROR_FILE_READ, format("%s: %s", filename.c_str(), e.what()));
  }
}

void read_params(kvr_model *m, const std::string &filename) {
  // All or nothing: a setting that fails as it takes effect (a log file that cannot be opened)
  // puts every parameter back as it was.
  const ParamValues before = m->env.params;
  try {
    read_params_unguarded(m, filename);
  } catch (...) {
    m->env.params = before;
    try {
      m->env.sync_logfile();
    } catch (const Error &) {
      // The earlier log file is gone as well; logging goes on without it.
    }
    throw;
  }
}

void write_params(kvr_model *m, const std::string &filename) {
  if (compression_of(filename) == Compression::None) {
    write_param_file(m->env.params, filename);
    return;
  }
  std::string tmp = temp_copy_name(filename);
  try {
    write_param_file(m->env.params, tmp);
    LineReader in(tmp);
    TextWriter out(filename);
    std::string_view line;
    while (in.next(line)) out.put(line).put('\n');
    out.finish();
  } catch (...) {
    std::remove(tmp.c_str());
    throw;
  }
  std::remove(tmp.c_str());
}

}  // namespace

void read_data_file(kvr_model *model, const std::string &filename, FileType t) {
  if (t == FileType::Prm) {
    read_params(model, filename);
    return;
  }
  LineReader in(filename);
  switch (t) {
    case FileType::Sol:
    case FileType::Mst:
      return read_start(model, in);
    case FileType::Hnt:
      return read_hints(model, in);
    case FileType::Ord:
      return read_priorities(model, in);
    case FileType::Bas:
      return read_basis(model, in);
    case FileType::Attr:
      return read_attrs(model, in);
    default:
      fail(KVR_ERROR_INVALID_ARGUMENT, "Unable to read '%s' into a model: %s files cannot be read",
           filename.c_str(), file_type_name(t));
  }
}

void write_data_file(kvr_model *model, const std::string &filename, FileType t) {
  if (t == FileType::Prm) {
    write_params(model, filename);
    return;
  }
  if (t == FileType::Ilp) {
    write_iis_file(model, filename);
    return;
  }
  if (t == FileType::Json) {
    std::string s = json_solution(model);
    TextWriter out(filename);
    put(out, s);
    out.put('\n');
    out.finish();
    return;
  }
  if (t == FileType::Sol && model->sol.x.empty())
    fail(KVR_ERROR_DATA_NOT_AVAILABLE, "Unable to write solution file '%s': no solution available",
         filename.c_str());
  TextWriter out(filename);
  switch (t) {
    case FileType::Sol:
      write_sol(model, out);
      break;
    case FileType::Mst:
      write_mst(model, out);
      break;
    case FileType::Hnt:
      write_hints(model, out);
      break;
    case FileType::Ord:
      write_priorities(model, out);
      break;
    case FileType::Bas:
      write_basis(model, out);
      break;
    case FileType::Attr:
      write_attrs(model, out);
      break;
    default:
      fail(KVR_ERROR_INVALID_ARGUMENT, "Unable to write '%s': unknown file type", filename.c_str());
  }
  out.finish();
}

// ---------------------------------------------------------------- JSON solution

std::string json_solution(kvr_model *m) {
  m->sol.ensure_lp_values();
  const Solution &s = m->sol;
  if (!s.solved)
    fail(KVR_ERROR_DATA_NOT_AVAILABLE,
         "Unable to retrieve the JSON solution: the model has not been solved");
  const ModelData &d = m->data;
  bool all = m->env.params.get_int(ParamId::JSONSolDetail) != 0;
  std::string o = "{\n  \"SolutionInfo\": {\n    \"Status\": ";
  json_number(o, s.status);
  auto field = [&](const char *name, double v) {
    if (std::isnan(v)) return;
    o += ",\n    \"";
    o += name;
    o += "\": ";
    json_number(o, v);
  };
  field("Runtime", s.runtime);
  field("Work", s.work);
  field("ObjVal", s.objval);
  field("ObjBound", s.objbound);
  field("MIPGap", s.mipgap);
  field("IterCount", s.itercount);
  field("BarIterCount", s.baritercount);
  if (d.is_mip()) field("NodeCount", s.nodecount);
  field("SolCount", s.solcount());
  if (!s.objnval.empty()) {
    o += ",\n    \"ObjNVal\": [";
    for (size_t k = 0; k < s.objnval.size(); ++k) {
      if (k) o += ", ";
      json_number(o, s.objnval[k]);
    }
    o += "]";
  }
  o += "\n  }";

  // One array of elements: name, optional tag, and the value fields that are present.
  auto elements =
      [&](const char *title, const char *name_attr, const NamePool &pool, const char *prefix,
          const NamePool *tags, int count,
          std::initializer_list<std::pair<const char *, const std::vector<double> *>> values) {
        std::string arr;
        ElementNames names(pool, prefix);
        for (int i = 0; i < count; ++i) {
          std::string item;
          for (const auto &[vname, vec] : values) {
            if (static_cast<size_t>(i) >= vec->size()) continue;
            double v = (*vec)[i];
            if (!all && v == 0.0) continue;
            item += ", \"";
            item += vname;
            item += "\": ";
            json_number(item, v);
          }
          if (item.empty()) continue;
          arr += arr.empty() ? "\n    {" : ",\n    {";
          arr += '"';
          arr += name_attr;
          arr += "\": ";
          json_string(arr, names(i));
          if (tags && static_cast<size_t>(i) < tags->size() && !tags->get(i).empty()) {
            arr += ", \"Tag\": ";
            json_string(arr, tags->get(i));
          }
          arr += item + "}";
        }
        if (arr.empty()) return;
        o += ",\n  \"";
        o += title;
        o += "\": [" + arr + "\n  ]";
      };
  auto tag_pool = [](const ExtraAttrs &ex, AttrId id) -> const NamePool * {
    auto it = ex.str.find(static_cast<int>(id));
    return it == ex.str.end() ? nullptr : &it->second;
  };
  elements("Vars", "VarName", d.vars.names, "C", tag_pool(d.vars.extra, AttrId::VTag), d.num_vars(),
           {{"X", &s.x}, {"RC", &s.rc}});
  elements("Constrs", "ConstrName", d.constrs.names, "R", tag_pool(d.constrs.extra, AttrId::CTag),
           d.num_constrs(), {{"Slack", &s.slack}, {"Pi", &s.pi}});
  elements("QConstrs", "QCName", d.qconstrs.names, "QC", tag_pool(d.qconstrs.extra, AttrId::QCTag),
           d.qconstrs.size(), {{"QCSlack", &s.qcslack}, {"QCPi", &s.qcpi}});
  o += "\n}";
  return o;
}

}  // namespace kvr::io
