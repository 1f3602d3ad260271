// MPS writer (free format).
//
// Layout of the sections beyond the classic ones, as the reader expects them:
//   ROWS / LAZYCONS [level]   row declarations; rows with a lazy level go to LAZYCONS sections,
//                             in runs that keep the order of the rows
//   QUADOBJ                   col1 col2 value: upper triangle of Q in the objective 1/2 x'Qx
//   QCMATRIX row              col1 col2 value: all of Q (symmetric) of the row's x'Qx
//   SOS                       " S1 SOS name" or " S2 SOS name", then "col weight" lines
//   INDICATORS                " IF row binvar value": the row is the implied linear constraint
//   GENCONS                   " TYPE name" (MAX, MIN, ABS, AND, OR, NORM, PWL, POLY, EXP, EXPA,
//                             LOG, LOGA, POW, SIN, COS, TAN, LOGISTIC), then item lines: RES col,
//                             ARG col, CONST value, WHICH value, X col, Y col, POINT x y,
//                             COEF value (highest degree first), A value, FuncPieces value (and
//                             the other approximation settings), OPTIONS text
//   PWLOBJ                    col x y: the points of a piecewise-linear objective term
// Ranges are written as the model holds them: as range variables.
#include <algorithm>
#include <cstring>

#include "io/formats.h"
#include "io/nameindex.h"
#include "util/error.h"

namespace kvr::io {

namespace {

class MpsWriter : ModelFileWriter {
 public:
  MpsWriter(const ModelData &d, TextWriter &out) : ModelFileWriter(d, out) {}

  void write() {
    check_writable(d_, "MPS");
    if (d_.objn.size() > 1)
      fail(KVR_ERROR_NOT_SUPPORTED,
           "Unable to write a model with %zu objectives in MPS format; write it in LP format",
           d_.objn.size());
    check_names();
    out_.put("NAME");
    if (!d_.name.empty()) {
      check_model_name(d_, "MPS");
      out_.put(' ').put(d_.name);
    }
    out_.put('\n');
    if (d_.sense == KVR_MAXIMIZE) out_.put("OBJSENSE\n    MAX\n");
    rows();
    columns();
    rhs();
    bounds();
    quadratic();
    sos();
    general();
    pwl();
    out_.put("ENDATA\n");
  }

 private:
  // Names of every row kind and of the columns must be written without blanks and be unique.
  void check_names() {
    auto check = [&](std::string_view name, const char *kind, int i) {
      for (char c : name)
        if (static_cast<unsigned char>(c) <= ' ')
          fail(KVR_ERROR_INVALID_ARGUMENT,
               "Unable to write %s %d named '%.*s' in MPS format: names cannot contain blanks",
               kind, i, static_cast<int>(name.size()), name.data());
    };
    check_variable_names(d_, vname_, "MPS", check);
    NamePool rows;
    NameIndex rowidx(rows);
    auto add_row = [&](std::string_view n, const char *kind, int i) {
      check(n, kind, i);
      int r = static_cast<int>(rows.size());
      rows.push_back(n);
      if (rowidx.add(r) != r)
        fail(KVR_ERROR_INVALID_ARGUMENT,
             "Unable to write the model in MPS format: %s %d has the name '%.*s' of another row "
             "(MPS rows need distinct names)",
             kind, i, static_cast<int>(n.size()), n.data());
    };
    for (int i = 0; i < d_.constrs.size(); ++i) add_row(cname_(i), "constraint", i);
    for (int i = 0; i < d_.qconstrs.size(); ++i) add_row(qname_(i), "quadratic constraint", i);
    for (int i = 0; i < d_.gens.size(); ++i)
      if (d_.gens.items[i].type == KVR_GENCONSTR_INDICATOR)
        add_row(gname_(i), "general constraint", i);
    objname_ = d_.objn[0].name;
    if (objname_.empty()) {
      objname_ = "OBJ";
      for (int k = 1; rowidx.find(objname_) >= 0; ++k) objname_ = "OBJ" + std::to_string(k);
    }
    add_row(objname_, "objective", 0);
  }

  void pad(std::string_view s, size_t width) {
    out_.put(s);
    for (size_t i = s.size(); i < width; ++i) out_.put(' ');
  }
  static char sense_letter(char sense) {
    return sense == KVR_LESS_EQUAL ? 'L' : sense == KVR_GREATER_EQUAL ? 'G' : 'E';
  }

  void rows() {
    out_.put("ROWS\n N  ").put(objname_).put('\n');
    int level = 0;
    for (int i = 0; i < d_.constrs.size(); ++i) {
      int lz = lazy_level(d_, i);
      if (lz != level) {
        if (lz == 0)
          out_.put("ROWS\n");
        else if (lz == 1)
          out_.put("LAZYCONS\n");
        else
          out_.put("LAZYCONS ").num(lz).put('\n');
        level = lz;
      }
      out_.put(' ').put(sense_letter(d_.constrs.sense[i])).put("  ").put(cname_(i)).put('\n');
    }
    if (level != 0) out_.put("ROWS\n");
    for (int i = 0; i < d_.qconstrs.size(); ++i)
      out_.put(' ')
          .put(sense_letter(d_.qconstrs.items[i].sense))
          .put("  ")
          .put(qname_(i))
          .put('\n');
    for (int i = 0; i < d_.gens.size(); ++i)
      if (d_.gens.items[i].type == KVR_GENCONSTR_INDICATOR)
        out_.put(' ').put(sense_letter(d_.gens.items[i].sense)).put("  ").put(gname_(i)).put('\n');
  }

  // Names of the file rows: linear constraints, then quadratic rows, then indicator rows.
  std::string_view file_row(int r) const {
    int m = d_.constrs.size(), mq = d_.qconstrs.size();
    if (r < m) return cname_(r);
    if (r < m + mq) return qname_(r - m);
    return gname_(indicator_gen_[r - m - mq]);
  }

  void columns() {
    // Column views of the linear constraints and of the linear parts of the other rows.
    int m = d_.constrs.size(), n = d_.vars.size();
    SparseMatrix other;
    for (const QConstr &qc : d_.qconstrs.items)
      other.add_row(static_cast<int>(qc.lind.size()), qc.lind.data(), qc.lval.data());
    for (int i = 0; i < d_.gens.size(); ++i) {
      const GenConstr &g = d_.gens.items[i];
      if (g.type != KVR_GENCONSTR_INDICATOR) continue;
      indicator_gen_.push_back(i);
      other.add_row(static_cast<int>(g.ind.size()), g.ind.data(), g.val.data());
    }
    SparseMatrix cols = d_.constrs.rows.transposed(n);
    SparseMatrix other_cols = other.transposed(n);
    other.clear();
    out_.put("COLUMNS\n");
    bool integer = false;
    for (int j = 0; j < n; ++j) {
      bool is_int = d_.vars.vtype[j] == KVR_INTEGER;
      if (is_int != integer) {
        out_.put(is_int ? "    MARKER    'MARKER'    'INTORG'\n"
                        : "    MARKER    'MARKER'    'INTEND'\n");
        integer = is_int;
      }
      std::string_view name = vname_(j);
      int written = 0;
      auto entry = [&](std::string_view row, double v) {
        if (written % 2 == 0) {
          out_.put("    ");
          pad(name, 8);
        }
        out_.put("  ");
        pad(row, 8);
        out_.put("  ").num(v);
        if (++written % 2 == 0) out_.put('\n');
      };
      if (d_.vars.obj[j] != 0.0) entry(objname_, d_.vars.obj[j]);
      for (const SparseMatrix *c : {&cols, &other_cols}) {
        int offset = c == &cols ? 0 : m;
        for (int64_t k = c->beg[j]; k < c->beg[j + 1]; ++k) {
          double v = c->val[k];
          // Duplicate entries of a row (possible in stored rows) are written as their sum.
          while (k + 1 < c->beg[j + 1] && c->ind[k + 1] == c->ind[k]) v += c->val[++k];
          entry(file_row(offset + c->ind[k]), v);
        }
      }
      if (written == 0) entry(objname_, 0.0);  // declares a column without entries
      if (written % 2) out_.put('\n');
    }
    if (integer) out_.put("    MARKER    'MARKER'    'INTEND'\n");
  }

  void rhs() {
    out_.put("RHS\n");
    auto entry = [&](std::string_view row, double v) {
      out_.put("    RHS       ");
      pad(row, 8);
      out_.put("  ").num(v).put('\n');
    };
    if (d_.objcon != 0.0) entry(objname_, -d_.objcon);
    for (int i = 0; i < d_.constrs.size(); ++i)
      if (d_.constrs.rhs[i] != 0.0) entry(cname_(i), d_.constrs.rhs[i]);
    for (int i = 0; i < d_.qconstrs.size(); ++i)
      if (d_.qconstrs.items[i].rhs != 0.0) entry(qname_(i), d_.qconstrs.items[i].rhs);
    for (int i = 0; i < d_.gens.size(); ++i) {
      const GenConstr &g = d_.gens.items[i];
      if (g.type == KVR_GENCONSTR_INDICATOR && g.rhs != 0.0) entry(gname_(i), g.rhs);
    }
  }

  void bound(const char *type, std::string_view col) {
    out_.put(' ').put(type).put(" BND       ").put(col).put('\n');
  }
  void bound(const char *type, std::string_view col, double v) {
    out_.put(' ').put(type).put(" BND       ");
    pad(col, 8);
    out_.put("  ").num(v).put('\n');
  }

  void bounds() {
    out_.put("BOUNDS\n");
    for (int j = 0; j < d_.vars.size(); ++j) {
      double lb = d_.vars.lb[j], ub = d_.vars.ub[j];
      char vt = d_.vars.vtype[j];
      bool lb_inf = lb <= -KVR_INFINITY, ub_inf = ub >= KVR_INFINITY;
      std::string_view name = vname_(j);
      auto lower = [&] {
        if (lb_inf)
          bound("MI", name);
        else if (lb != 0.0)
          bound("LO", name, lb);
      };
      if (vt == KVR_BINARY) {
        bound("BV", name);
        lower();
        if (ub != 1.0) ub_inf ? bound("PL", name) : bound("UP", name, ub);
      } else if (vt == KVR_SEMICONT || vt == KVR_SEMIINT) {
        lower();
        bound(vt == KVR_SEMICONT ? "SC" : "SI", name, ub_inf ? KVR_INFINITY : ub);
      } else if (lb == ub && !lb_inf && !ub_inf) {
        bound("FX", name, lb);
      } else if (lb_inf && ub_inf) {
        bound("FR", name);
      } else {
        lower();
        // An upper bound below zero would free the lower bound if that were never given.
        if (lb == 0.0 && ub < 0.0) bound("LO", name, 0.0);
        if (!ub_inf)
          bound("UP", name, ub);
        else if (vt == KVR_INTEGER)
          bound("PL", name);  // an integer column without bounds would get [0, 1]
      }
    }
  }

  void quad_entry(int a, int b, double v) {
    out_.put("    ");
    pad(vname_(a), 8);
    out_.put("  ");
    pad(vname_(b), 8);
    out_.put("  ").num(v).put('\n');
  }

  void quadratic() {
    if (d_.q.size() > 0) {
      out_.put("QUADOBJ\n");
      for (size_t k = 0; k < d_.q.size(); ++k) {
        int r = d_.q.row[k], c = d_.q.col[k];
        quad_entry(std::min(r, c), std::max(r, c), r == c ? 2.0 * d_.q.val[k] : d_.q.val[k]);
      }
    }
    for (int i = 0; i < d_.qconstrs.size(); ++i) {
      out_.put("QCMATRIX   ").put(qname_(i)).put('\n');
      const QuadTerms &q = d_.qconstrs.items[i].q;
      for (size_t k = 0; k < q.size(); ++k) {
        int r = q.row[k], c = q.col[k];
        if (r == c) {
          quad_entry(r, c, q.val[k]);
        } else {
          quad_entry(r, c, 0.5 * q.val[k]);
          quad_entry(c, r, 0.5 * q.val[k]);
        }
      }
    }
  }

  void sos() {
    if (d_.sos.size() == 0) return;
    out_.put("SOS\n");
    for (int s = 0; s < d_.sos.size(); ++s) {
      out_.put(d_.sos.type[s] == KVR_SOS_TYPE1 ? " S1 SOS s" : " S2 SOS s").num(s).put('\n');
      for (int64_t k = d_.sos.beg[s]; k < d_.sos.beg[s + 1]; ++k) {
        out_.put("    ");
        pad(vname_(d_.sos.ind[k]), 8);
        out_.put("  ").num(d_.sos.weight[k]).put('\n');
      }
    }
  }

  void item(const char *key, std::string_view text) {
    out_.put("    ").put(key).put(' ').put(text).put('\n');
  }
  void item(const char *key, double v) { out_.put("    ").put(key).put(' ').num(v).put('\n'); }

  void general() {
    enum { kNone, kInd, kGen } open = kNone;
    for (int i = 0; i < d_.gens.size(); ++i) {
      const GenConstr &g = d_.gens.items[i];
      if (g.type == KVR_GENCONSTR_INDICATOR) {
        if (open != kInd) out_.put("INDICATORS\n"), open = kInd;
        out_.put(" IF ")
            .put(gname_(i))
            .put(' ')
            .put(vname_(g.binvar))
            .put(' ')
            .num(g.binval)
            .put('\n');
        continue;
      }
      if (open != kGen) out_.put("GENCONS\n"), open = kGen;
      out_.put(' ').put(genconstr_keyword(g.type)).put(' ').put(gname_(i)).put('\n');
      if (!is_function_genconstr(g.type)) {
        item("RES", vname_(g.resvar));
        for (int v : g.vars) item("ARG", vname_(v));
        if (has_constant_operand(g)) item("CONST", g.constant);
        if (g.type == KVR_GENCONSTR_NORM) item("WHICH", g.constant);
        continue;
      }
      item("X", vname_(g.xvar));
      item("Y", vname_(g.yvar));
      if (g.type == KVR_GENCONSTR_PWL)
        for (size_t k = 0; k < g.xpts.size(); ++k)
          out_.put("    POINT ").num(g.xpts[k]).put(' ').num(g.ypts[k]).put('\n');
      if (g.type == KVR_GENCONSTR_POLY)
        for (double c : g.p) item("COEF", c);
      if (has_parameter_a(g.type)) item("A", g.a);
      for (const auto &[key, value] : funcpiece_changes(g)) item(key, value);
      if (!g.options.empty()) {
        check_options(g, i);
        item("OPTIONS", std::string_view(g.options));
      }
    }
  }

  void pwl() {
    if (d_.pwlobj.empty()) return;
    out_.put("PWLOBJ\n");
    for (const PwlObj &p : d_.pwlobj)
      for (size_t k = 0; k < p.x.size(); ++k) {
        out_.put("    ");
        pad(vname_(p.var), 8);
        out_.put("  ").num(p.x[k]).put("  ").num(p.y[k]).put('\n');
      }
  }

  std::string objname_;
  std::vector<int> indicator_gen_;
};

}  // namespace

void write_mps(const ModelData &d, TextWriter &out) { MpsWriter(d, out).write(); }

}  // namespace kvr::io
