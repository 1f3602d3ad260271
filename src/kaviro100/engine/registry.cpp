#include "engine/registry.h"

#include <strings.h>

#include <cstdlib>
#include <cstring>

#include "engine/highs_api.h"
#include "engine/scip/scip_api.h"
#include "reform/psd.h"
#include "util/error.h"
#include "util/strings.h"

namespace kvr {

namespace {

EngineCapabilities highs_caps() {
  EngineCapabilities c;
  c.duals = true;
  return c;
}

EngineCapabilities scip_caps() {
  EngineCapabilities c;
  c.sos = c.indicator = c.semicontinuous = c.and_or = true;
  c.convex_qcons = c.nonconvex = c.quadratic_mip = true;
  c.lazy_in_search = c.user_cuts = c.node_relaxation = true;
  c.lp_duals = true;
  return c;
}

std::string scip_version() {
  return scip::unavailable_reason().empty() ? scip::api().version : std::string();
}

// Every name=value item of KAVIRO_ENGINE_OPTIONS, in order.
std::vector<std::pair<std::string, std::string>> all_options() {
  std::vector<std::pair<std::string, std::string>> out;
  const char *given = std::getenv("KAVIRO_ENGINE_OPTIONS");
  if (!given) return out;
  std::string_view rest(given);
  while (!rest.empty()) {
    size_t semi = rest.find(';');
    std::string_view item = trim(rest.substr(0, semi));
    rest = semi == std::string_view::npos ? std::string_view() : rest.substr(semi + 1);
    if (item.empty()) continue;
    size_t eq = item.find('=');
    if (eq == std::string_view::npos)
      fail(KVR_ERROR_INVALID_ARGUMENT, "KAVIRO_ENGINE_OPTIONS: '%.*s' is not name=value",
           static_cast<int>(item.size()), item.data());
    out.emplace_back(std::string(trim(item.substr(0, eq))), std::string(trim(item.substr(eq + 1))));
  }
  return out;
}

std::string forced_engine() {
  for (auto &[name, value] : all_options())
    if (name == "engine") return value;
  return "";
}

// Why SCIP rather than HiGHS should solve a MIP that both can solve, or "" when HiGHS should.
// Measured with bench_solve --engines --families (CPU time, engines taking turns; the table is in
// benchmarks/README.md): SCIP was faster on pure general-integer programs (knapsacks 1.1-3.5x up
// to six rows per column, HiGHS 1.2x faster at sixteen; integer covering either way) and on set
// covering, packing and partitioning models (1.2-4.3x on the seven taking HiGHS 0.23 s or more).
// HiGHS was as fast or faster on binary programs with other rows (lseu 2x), on general integers
// beside continuous columns (lot sizing in integer batches 3.7x and 12x, though flugpl 1.4x the
// other way) and on most mixed-binary models (dcmulti 2.5x, batches with setups 33x), where the
// winner changes between instances of one shape. Only plain MIPs qualify: linear rows, integer or
// continuous columns, no callback and no setting that SCIP would leave unapplied.
std::string scip_is_faster(const ModelData &m, const ParamValues &params, bool has_callback) {
  if (has_callback || m.q.size() > 0 || m.sos.size() > 0 || m.gens.size() > 0 ||
      m.facts().semicontinuous > 0 || m.objn.size() > 1 || !m.scenarios.empty() ||
      !m.pwlobj.empty())
    return "";
  if (!unapplied_settings(*find_engine("SCIP"), params).empty()) return "";
  const int n = m.num_vars(), rows = m.num_constrs();
  int binaries = 0, general = 0, unbounded = 0;
  for (int j = 0; j < n; ++j) {
    const char t = m.vars.vtype[j];
    if (t == KVR_CONTINUOUS) continue;
    const bool binary = t == KVR_BINARY || (m.vars.lb[j] >= 0.0 && m.vars.ub[j] <= 1.0);
    binaries += binary;
    general += !binary;
    unbounded += m.vars.lb[j] <= -KVR_INFINITY || m.vars.ub[j] >= KVR_INFINITY;
  }
  // Every column a general integer between finite bounds, with at most ten rows per column. The
  // bounds keep out unbounded relaxations, on which SCIP 10.0.2 can loop until a time limit.
  if (general == n && unbounded == 0 && static_cast<int64_t>(rows) <= 10LL * n)
    return format("general integer columns only (%d columns, %d rows)", n, rows);
  // Every column binary, every row a sum of some of them against 1 (covering, packing or
  // partitioning).
  if (binaries < n || rows == 0) return "";
  for (int i = 0; i < rows; ++i) {
    if (m.constrs.rhs[i] != 1.0) return "";
    for (int64_t k = m.constrs.rows.beg[i]; k < m.constrs.rows.beg[i + 1]; ++k)
      if (m.constrs.rows.val[k] != 1.0) return "";
  }
  return format("set covering, packing or partitioning rows only (%d rows over %d binaries)", rows,
                n);
}

}  // namespace

const std::vector<EngineEntry> &engines() {
  static const std::vector<EngineEntry> list = {
      {"HiGHS", highs_caps(), [] { return highs_version(); }, highs::unavailable_reason,
       [] { return make_highs_engine(); }, highs_params},
      {"SCIP", scip_caps(), scip_version, scip::unavailable_reason,
       [] { return make_scip_engine(); }, scip_params},
  };
  return list;
}

const EngineEntry *find_engine(std::string_view name) {
  for (const EngineEntry &e : engines())
    if (name.size() == std::strlen(e.name) && ::strncasecmp(name.data(), e.name, name.size()) == 0)
      return &e;
  return nullptr;
}

EngineCapabilities Engine::capabilities() const {
  const EngineEntry *e = find_engine(name());
  return e ? e->caps : EngineCapabilities();
}

const EngineEntry &engine_in_use() {
  const EngineEntry *e = nullptr;
  try {
    e = find_engine(forced_engine());
  } catch (const Error &) {
    // A malformed KAVIRO_ENGINE_OPTIONS fails the solve that reads it, not this question.
  }
  return e ? *e : engines()[0];
}

std::vector<std::pair<std::string, std::string>> engine_options() {
  auto out = all_options();
  std::erase_if(out, [](const auto &item) { return item.first == "engine"; });
  return out;
}

std::string unapplied_settings(const EngineEntry &engine, const ParamValues &params) {
  std::string names;
  for (ParamId id : engine.params().not_applied)
    if (!params.is_default(id))
      names += std::string(names.empty() ? "" : ", ") + param_def(id).name;
  if (names.empty()) return "";
  return std::string("Not applied by engine ") + engine.name + ": " + names + "\n";
}

bool quadratics_convex(const ModelData &m, const ParamValues &params) {
  const double tol = params.get_dbl(ParamId::PSDTol);
  const int n = m.num_vars();
  if (find_negative_curvature(m.q, n, m.sense == KVR_MAXIMIZE ? -1.0 : 1.0, tol)) return false;
  for (const QConstr &c : m.qconstrs.items) {
    if (c.q.size() == 0) continue;
    if (c.sense == KVR_EQUAL) return false;
    if (find_negative_curvature(c.q, n, c.sense == KVR_GREATER_EQUAL ? -1.0 : 1.0, tol))
      return false;
  }
  return true;
}

EngineChoice choose_engine(const ModelData &m, const ParamValues &params, bool has_callback,
                           int callback_wheres) {
  const EngineEntry *highs = &engines()[0], *scip = find_engine("SCIP");
  const bool mip = m.is_mip();
  const bool at_nodes = mip && has_callback && (callback_wheres & (1 << KVR_CB_MIPNODE)) != 0;
  // What HiGHS cannot give this callback, said where HiGHS solves the model all the same.
  const char *no_nodes =
      at_nodes ? "; HiGHS never calls the callback at MIPNODE, where it acts (no node "
                 "relaxations, no user cuts)"
               : "";
  std::string forced = forced_engine();
  if (!forced.empty() && forced != "auto") {
    const EngineEntry *e = find_engine(forced);
    if (!e)
      fail(KVR_ERROR_INVALID_ARGUMENT,
           "KAVIRO_ENGINE_OPTIONS: unknown engine '%s' (HiGHS, SCIP or auto)", forced.c_str());
    std::string why = e->unavailable();
    if (!why.empty())
      fail(KVR_ERROR_NOT_SUPPORTED, "Engine %s is not available: %s", e->name, why.c_str());
    return {e, std::string("chosen with KAVIRO_ENGINE_OPTIONS") + (e == highs ? no_nodes : "")};
  }
  std::string need;
  if (params.get_int(ParamId::NonConvex) == 2 && (m.q.size() > 0 || m.qconstrs.size() > 0) &&
      !quadratics_convex(m, params))
    need = "nonconvex quadratic terms with NonConvex 2 need spatial branch and bound";
  else if (mip && m.qconstrs.size() > 0)
    need = "quadratic constraints with integer variables";
  else if (mip && has_callback && params.get_int(ParamId::LazyConstraints) == 1)
    need = "lazy constraints from the callback join the running search";
  else if (mip && has_callback && params.get_int(ParamId::PreCrush) == 1)
    need = "user cuts and node relaxations in callbacks (PreCrush 1)";
  else if (at_nodes)
    need = "the callback acts at MIPNODE (node relaxations, user cuts)";
  if (need.empty()) {
    // SCIP's library is only looked for once the model's shape favours it.
    std::string faster = mip ? scip_is_faster(m, params, has_callback) : "";
    if (faster.empty() || !scip->unavailable().empty())
      return {highs, "the model needs nothing beyond it"};
    return {scip, faster + ": SCIP solves such models faster"};
  }
  std::string why = scip->unavailable();
  if (!why.empty())
    return {highs, need + " would call for SCIP, which is not available: " + why + no_nodes};
  return {scip, need};
}

}  // namespace kvr
