// The engines the library can solve with, by name, and the choice of one for a solve.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "engine/applied_params.h"
#include "engine/engine.h"

namespace kvr {

struct EngineEntry {
  const char *name;
  EngineCapabilities caps;
  std::string (*version)();      // "" when not loaded
  std::string (*unavailable)();  // "" when the engine can be used, else why not
  std::unique_ptr<Engine> (*make)();
  // The parameters it leaves alone and its limits (engine/highs_params.cpp, scip/scip_params.cpp).
  const EngineParams &(*params)();
};

// Every engine the library knows, HiGHS first.
const std::vector<EngineEntry> &engines();
// The engine of that name (any letter case), or nullptr.
const EngineEntry *find_engine(std::string_view name);

// The engine that solves a model needing nothing else: the one named in KAVIRO_ENGINE_OPTIONS
// (when it is known), else HiGHS.
const EngineEntry &engine_in_use();

// The engine for a solve and why it was chosen (for the log header).
struct EngineChoice {
  const EngineEntry *entry = nullptr;
  std::string reason;
};

// The engine named by `engine=<name>` in KAVIRO_ENGINE_OPTIONS ("auto" or absent: chosen here),
// else HiGHS when it can do the job and SCIP when the model or the callback needs what only SCIP
// gives: nonconvex quadratics under NonConvex 2, quadratic constraints with integer variables, or
// a MIP callback with LazyConstraints 1 or PreCrush 1 (lazy rows and user cuts during the
// search) or that acts at MIPNODE (callback_wheres, bits 1 << where, as declared with the
// callback). SCIP also takes the plain MIPs it solves faster: general integers only, or set
// covering, packing and partitioning rows only (see scip_is_faster). Fails with INVALID_ARGUMENT
// for an unknown name and NOT_SUPPORTED when the named engine cannot be loaded.
EngineChoice choose_engine(const ModelData &m, const ParamValues &params, bool has_callback,
                           int callback_wheres = 0);

// The log line naming the parameters set away from their defaults that the chosen engine does not
// apply ("" when there are none).
std::string unapplied_settings(const EngineEntry &engine, const ParamValues &params);

// Whether the quadratic parts of m (objective and constraints) are convex within PSDTol.
bool quadratics_convex(const ModelData &m, const ParamValues &params);

// The engine options of KAVIRO_ENGINE_OPTIONS ("name=value;name=value") as name/value pairs, the
// engine choice excluded; INVALID_ARGUMENT for an item that is not name=value.
std::vector<std::pair<std::string, std::string>> engine_options();

std::unique_ptr<Engine> make_scip_engine();
const EngineParams &highs_params();
const EngineParams &scip_params();

}  // namespace kvr
