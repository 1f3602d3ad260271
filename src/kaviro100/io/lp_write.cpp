// LP writer.
//
// The file reads back as the same model: variables are numbered by their first appearance, so
// when the natural order of appearance differs from the model's order, the objective lists every
// variable (with coefficient 0 where it has none). Constraints are written in the model's order;
// runs of lazy constraints go to "Lazy Constraints" sections between "Subject To" sections.
// Extensions beyond the classic sections (see lp_read.cpp for the grammar):
//   Minimize multi-objectives         objectives with "name: Priority=.. Weight=.. AbsTol=..
//                                     RelTol=.." headers
//   Lazy Constraints [level]          lazy level (1 when omitted)
//   General Constraints               r = MAX ( x , y , 3 ), MIN, ABS, AND, OR,
//                                     NORM0/NORM1/NORM2/NORMINF, b = 1 -> x + y <= 3,
//                                     y = PWL ( x ) POINTS ( 0 , 1 ) ( 1 , 2 ),
//                                     y = POLY ( x ) COEFS ( 1 , 0 , 2 ), y = EXP ( x ),
//                                     y = EXPA ( x , a ), LOG, LOGA ( x , a ), POW ( x , a ), SIN,
//                                     COS, TAN, LOGISTIC, followed by FuncPieces=.. settings and
//                                     Options=text
//   PWLObj                            x: ( 0 , 0 ) ( 1 , 2 ) ...
#include <algorithm>
#include <cmath>
#include <cstring>

#include "io/formats.h"
#include "io/lp_format.h"
#include "io/nameindex.h"
#include "util/error.h"
#include "util/strings.h"

namespace kvr::io {

namespace lp {
bool is_reserved(std::string_view name) {
  static const char *const kWords[] = {
      "inf",      "infinity", "free",     "minimize", "maximize",
      "minimise", "maximise", "minimum",  "maximum",  "min",
      "max",      "st",       "s.t.",     "st.",      "bounds",
      "bound",    "general",  "generals", "gen",      "integer",
      "integers", "binary",   "binaries", "bin",      "semi-continuous",
      "semis",    "semi",     "sos",      "end",      "pwlobj",
      "subject",  "such",     "lazy",     "user"};
  for (const char *w : kWords)
    if (iequals(name, w)) return true;
  return false;
}
}  // namespace lp

namespace {

constexpr size_t kLineWidth = 100;

class LpWriter : ModelFileWriter {
 public:
  LpWriter(const ModelData &d, TextWriter &out) : ModelFileWriter(d, out) {}

  void write() {
    check_writable(d_, "LP");
    check_names();
    out_.put("\\ LP format");
    if (!d_.name.empty()) {
      check_model_name(d_, "LP");
      out_.put("\n\\Problem name: ").put(d_.name);
    }
    out_.put('\n');
    bool pad = !natural_order();
    objectives(pad);
    constraints();
    bounds();
    types();
    sos();
    general();
    pwl();
    out_.put("End\n");
  }

 private:
  // ---------------------------------------------------------------- names

  // Variable names must read back as one name; labels must not hold blanks, ':' or '\'.
  void check_names() {
    auto check = [&](std::string_view n, const char *kind, int i) {
      if (lp::scan_name(n.data(), n.size()) != n.size() || n.empty())
        fail(
            KVR_ERROR_INVALID_ARGUMENT,
            "Unable to write %s %d named '%.*s' in LP format: LP variable names cannot be numbers, "
            "begin with '/', or contain blanks or any of + - * ^ : < > = \\",
            kind, i, static_cast<int>(n.size()), n.data());
      if (lp::is_reserved(n))
        fail(KVR_ERROR_INVALID_ARGUMENT,
             "Unable to write %s %d named '%.*s' in LP format: the name is a keyword of the format",
             kind, i, static_cast<int>(n.size()), n.data());
    };
    auto check_label = [&](std::string_view n, const char *kind, int i) {
      bool ok = !n.empty();
      for (char c : n) ok = ok && static_cast<unsigned char>(c) > ' ' && c != ':' && c != '\\';
      if (!ok)
        fail(KVR_ERROR_INVALID_ARGUMENT,
             "Unable to write %s %d named '%.*s' in LP format: LP labels cannot contain blanks, "
             "':' or '\\'",
             kind, i, static_cast<int>(n.size()), n.data());
    };
    check_variable_names(d_, vname_, "LP", check);
    for (int i = 0; i < d_.constrs.size(); ++i) check_label(cname_(i), "constraint", i);
    for (int i = 0; i < d_.qconstrs.size(); ++i) check_label(qname_(i), "quadratic constraint", i);
    for (int i = 0; i < d_.gens.size(); ++i) check_label(gname_(i), "general constraint", i);
    for (size_t k = 0; k < d_.objn.size(); ++k)
      if (!d_.objn[k].name.empty()) check_label(d_.objn[k].name, "objective", static_cast<int>(k));
  }

  // ---------------------------------------------------------------- order of appearance

  // True when the variables appear in the file in the model's order without padding.
  bool natural_order() {
    int n = d_.vars.size();
    std::vector<char> seen(static_cast<size_t>(n), 0);
    int next = 0;
    bool ok = true;
    auto see = [&](int j) {
      if (seen[j]) return;
      seen[j] = 1;
      if (j != next) ok = false;
      ++next;
    };
    for (int j = 0; j < n && ok; ++j)
      if (d_.vars.obj[j] != 0.0) see(j);
    for (size_t k = 0; ok && k < d_.q.size(); ++k) see(d_.q.row[k]), see(d_.q.col[k]);
    for (size_t o = 1; ok && o < d_.objn.size(); ++o)
      for (int j : d_.objn[o].ind) see(j);
    const SparseMatrix &A = d_.constrs.rows;
    for (size_t k = 0; ok && k < A.ind.size(); ++k) see(A.ind[k]);
    for (const QConstr &qc : d_.qconstrs.items) {
      for (int j : qc.lind) see(j);
      for (size_t k = 0; k < qc.q.size(); ++k) see(qc.q.row[k]), see(qc.q.col[k]);
      if (!ok) return false;
    }
    for (int j = 0; j < n && ok; ++j)
      if (has_bounds(j)) see(j);
    for (char type : {KVR_BINARY, KVR_INTEGER, KVR_SEMICONT})
      for (int j = 0; j < n && ok; ++j)
        if (in_type_section(j, type)) see(j);
    for (int s = 0; ok && s < d_.sos.size(); ++s)
      for (int64_t k = d_.sos.beg[s]; k < d_.sos.beg[s + 1]; ++k) see(d_.sos.ind[k]);
    for (const GenConstr &g : d_.gens.items) {
      if (g.type == KVR_GENCONSTR_INDICATOR) {
        see(g.binvar);
        for (int j : g.ind) see(j);
      } else if (is_function_genconstr(g.type)) {
        see(g.yvar), see(g.xvar);
      } else {
        see(g.resvar);
        for (int j : g.vars) see(j);
      }
      if (!ok) return false;
    }
    for (const PwlObj &p : d_.pwlobj) see(p.var);
    return ok && next == n;
  }

  bool has_bounds(int j) const {
    double lb = d_.vars.lb[j], ub = d_.vars.ub[j];
    if (d_.vars.vtype[j] == KVR_BINARY) return lb != 0.0 || ub != 1.0;
    return lb != 0.0 || ub < KVR_INFINITY;
  }
  bool in_type_section(int j, char section) const {
    char t = d_.vars.vtype[j];
    if (section == KVR_BINARY) return t == KVR_BINARY;
    if (section == KVR_INTEGER) return t == KVR_INTEGER || t == KVR_SEMIINT;
    return t == KVR_SEMICONT || t == KVR_SEMIINT;
  }

  // ---------------------------------------------------------------- expressions

  void wrap() {
    if (col_ > kLineWidth) {
      out_.put("\n  ");
      col_ = 2;
    }
  }
  void text(std::string_view s) {
    out_.put(s);
    col_ += s.size();
  }
  void number(double v) {
    char buf[32];
    int n = format_double(v, buf);
    text(std::string_view(buf, static_cast<size_t>(n)));
  }
  // " + 3 x", " - x", or without the sign's blank for the first term.
  void term(double coef, std::string_view name, bool first) {
    wrap();
    bool neg = std::signbit(coef) && coef != 0.0;
    if (first)
      text(neg ? "- " : "");
    else
      text(neg ? " - " : " + ");
    double a = neg ? -coef : coef;
    if (a != 1.0) {
      number(a);
      text(" ");
    }
    text(name);
  }
  void constant(double c, bool first) {
    wrap();
    bool neg = c < 0;
    text(first ? (neg ? "- " : "") : (neg ? " - " : " + "));
    number(neg ? -c : c);
  }
  // "[ 2 x ^ 2 + 3 x * y ]", coefficients scaled by `scale`.
  void quad(const QuadTerms &q, double scale, bool first) {
    text(first ? "[ " : " + [ ");
    for (size_t k = 0; k < q.size(); ++k) {
      wrap();
      double c = scale * q.val[k];
      bool neg = std::signbit(c) && c != 0.0;
      if (k > 0 || neg) text(neg ? (k ? " - " : "- ") : " + ");
      double a = neg ? -c : c;
      if (a != 1.0) {
        number(a);
        text(" ");
      }
      text(vname_(q.row[k]));
      if (q.row[k] == q.col[k]) {
        text(" ^ 2");
      } else {
        text(" * ");
        text(vname_(q.col[k]));
      }
    }
    text(" ]");
  }
  void sense_rhs(char sense, double rhs) {
    text(sense == KVR_LESS_EQUAL ? " <= " : sense == KVR_GREATER_EQUAL ? " >= " : " = ");
    number(rhs);
    newline();
  }
  void newline() {
    out_.put('\n');
    col_ = 0;
  }
  void label(std::string_view name) {
    text(" ");
    text(name);
    text(": ");
  }
  // Linear terms of a sparse list; returns whether anything was written.
  bool linear(const int *ind, const double *val, size_t n, bool first) {
    for (size_t k = 0; k < n; ++k) {
      term(val[k], vname_(ind[k]), first);
      first = false;
    }
    return !first;
  }

  // ---------------------------------------------------------------- sections

  std::string objective_name(size_t k) const {
    if (!d_.objn[k].name.empty()) return d_.objn[k].name;
    return "OBJ" + std::to_string(k);
  }

  void objectives(bool pad) {
    bool multi = d_.objn.size() > 1;
    text(d_.sense == KVR_MAXIMIZE ? "Maximize" : "Minimize");
    if (multi) text(" multi-objectives");
    newline();
    for (size_t k = 0; k < d_.objn.size(); ++k) {
      const ObjectiveN &o = d_.objn[k];
      if (multi) {
        label(objective_name(k));
        text("Priority=");
        number(o.priority);
        text(" Weight=");
        number(o.weight);
        text(" AbsTol=");
        number(o.abstol);
        text(" RelTol=");
        number(o.reltol);
        newline();
        text("  ");
      } else if (!o.name.empty()) {
        label(o.name);
      } else {
        text(" ");
      }
      bool first = true;
      double con = k == 0 ? d_.objcon : o.constant;
      if (k == 0) {
        for (int j = 0; j < d_.vars.size(); ++j)
          if (pad || d_.vars.obj[j] != 0.0) {
            term(d_.vars.obj[j], vname_(j), first);
            first = false;
          }
        if (d_.q.size() > 0) {
          quad(d_.q, 2.0, first);
          text(" / 2");
          first = false;
        }
      } else {
        first = !linear(o.ind.data(), o.val.data(), o.ind.size(), first);
      }
      if (con != 0.0 || first) constant(con, first);
      newline();
    }
  }

  void constraints() {
    text("Subject To");
    newline();
    int level = 0;
    const SparseMatrix &A = d_.constrs.rows;
    for (int i = 0; i < d_.constrs.size(); ++i) {
      int lz = lazy_level(d_, i);
      if (lz != level) {
        if (lz == 0) {
          text("Subject To");
        } else {
          text("Lazy Constraints");
          if (lz != 1) {
            text(" ");
            number(lz);
          }
        }
        newline();
        level = lz;
      }
      label(cname_(i));
      size_t n = static_cast<size_t>(A.beg[i + 1] - A.beg[i]);
      if (!linear(A.ind.data() + A.beg[i], A.val.data() + A.beg[i], n, true)) number(0.0);
      sense_rhs(d_.constrs.sense[i], d_.constrs.rhs[i]);
    }
    if (level != 0 && d_.qconstrs.size() > 0) {
      text("Subject To");
      newline();
    }
    for (int i = 0; i < d_.qconstrs.size(); ++i) {
      const QConstr &qc = d_.qconstrs.items[i];
      label(qname_(i));
      bool wrote = linear(qc.lind.data(), qc.lval.data(), qc.lind.size(), true);
      quad(qc.q, 1.0, !wrote);
      sense_rhs(qc.sense, qc.rhs);
    }
  }

  void bound_value(double v) {
    if (v <= -KVR_INFINITY)
      text("-inf");
    else if (v >= KVR_INFINITY)
      text("+inf");
    else
      number(v);
  }

  void bounds() {
    bool any = false;
    for (int j = 0; j < d_.vars.size(); ++j) {
      if (!has_bounds(j)) continue;
      if (!any) text("Bounds"), newline(), any = true;
      double lb = d_.vars.lb[j], ub = d_.vars.ub[j];
      std::string_view name = vname_(j);
      text(" ");
      if (d_.vars.vtype[j] == KVR_BINARY) {
        bound_value(lb);  // both bounds: a binary without them gets [0, 1]
        text(" <= ");
        text(name);
        text(" <= ");
        bound_value(ub);
      } else if (lb <= -KVR_INFINITY && ub >= KVR_INFINITY) {
        text(name);
        text(" free");
      } else if (lb == ub) {
        text(name);
        text(" = ");
        bound_value(lb);
      } else if (ub >= KVR_INFINITY) {
        text(name);
        text(" >= ");
        bound_value(lb);
      } else if (lb == 0.0) {
        text(name);
        text(" <= ");
        bound_value(ub);
      } else {
        bound_value(lb);
        text(" <= ");
        text(name);
        text(" <= ");
        bound_value(ub);
      }
      newline();
    }
  }

  void types() {
    static const struct {
      char type;
      const char *header;
    } kSections[] = {
        {KVR_BINARY, "Binaries"}, {KVR_INTEGER, "Generals"}, {KVR_SEMICONT, "Semi-Continuous"}};
    for (const auto &s : kSections) {
      bool any = false;
      for (int j = 0; j < d_.vars.size(); ++j) {
        if (!in_type_section(j, s.type)) continue;
        if (!any) text(s.header), newline(), any = true;
        wrap();
        text(" ");
        text(vname_(j));
      }
      if (any) newline();
    }
  }

  void sos() {
    if (d_.sos.size() == 0) return;
    text("SOS");
    newline();
    for (int s = 0; s < d_.sos.size(); ++s) {
      text(" s");
      number(s);
      text(d_.sos.type[s] == KVR_SOS_TYPE1 ? ": S1 ::" : ": S2 ::");
      for (int64_t k = d_.sos.beg[s]; k < d_.sos.beg[s + 1]; ++k) {
        wrap();
        text(" ");
        text(vname_(d_.sos.ind[k]));
        text(":");
        number(d_.sos.weight[k]);
      }
      newline();
    }
  }

  void list_open() { text(" ( "); }
  void list_item(std::string_view s, bool first) {
    wrap();
    if (!first) text(" , ");
    text(s);
  }
  void list_number(double v, bool first) {
    wrap();
    if (!first) text(" , ");
    bound_value(v);
  }

  void general() {
    if (d_.gens.size() == 0) return;
    text("General Constraints");
    newline();
    for (int i = 0; i < d_.gens.size(); ++i) {
      const GenConstr &g = d_.gens.items[i];
      label(gname_(i));
      if (g.type == KVR_GENCONSTR_INDICATOR) {
        text(vname_(g.binvar));
        text(g.binval ? " = 1 -> " : " = 0 -> ");
        if (!linear(g.ind.data(), g.val.data(), g.ind.size(), true)) number(0.0);
        sense_rhs(g.sense, g.rhs);
        continue;
      }
      if (!is_function_genconstr(g.type)) {
        text(vname_(g.resvar));
        text(" = ");
        if (g.type == KVR_GENCONSTR_NORM) {
          text("NORM");
          if (g.constant >= KVR_INFINITY)
            text("INF");
          else
            number(g.constant);
        } else {
          text(genconstr_keyword(g.type));
        }
        list_open();
        bool first = true;
        for (int v : g.vars) list_item(vname_(v), first), first = false;
        if (has_constant_operand(g)) list_number(g.constant, first);
        text(" )");
        newline();
        continue;
      }
      text(vname_(g.yvar));
      text(" = ");
      text(genconstr_keyword(g.type));
      list_open();
      text(vname_(g.xvar));
      if (has_parameter_a(g.type)) {
        text(" , ");
        number(g.a);
      }
      text(" )");
      if (g.type == KVR_GENCONSTR_PWL) {
        text(" POINTS");
        for (size_t k = 0; k < g.xpts.size(); ++k) {
          wrap();
          text(" ( ");
          number(g.xpts[k]);
          text(" , ");
          number(g.ypts[k]);
          text(" )");
        }
      }
      if (g.type == KVR_GENCONSTR_POLY) {
        text(" COEFS");
        list_open();
        for (size_t k = 0; k < g.p.size(); ++k) list_number(g.p[k], k == 0);
        text(" )");
      }
      std::string settings = funcpiece_settings(g);
      if (!settings.empty()) {
        text(" ");
        text(settings);
      }
      if (!g.options.empty()) {
        check_options(g, i);
        text(" Options=");
        out_.put(g.options);
      }
      newline();
    }
  }

  void pwl() {
    if (d_.pwlobj.empty()) return;
    text("PWLObj");
    newline();
    for (const PwlObj &p : d_.pwlobj) {
      label(vname_(p.var));
      for (size_t k = 0; k < p.x.size(); ++k) {
        wrap();
        text(k == 0 ? "( " : " ( ");
        number(p.x[k]);
        text(" , ");
        number(p.y[k]);
        text(" )");
      }
      newline();
    }
  }

  size_t col_ = 0;
};

}  // namespace

void write_lp(const ModelData &d, TextWriter &out) { LpWriter(d, out).write(); }

}  // namespace kvr::io
