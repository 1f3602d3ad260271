// Which parameters the library and its engines act on, and what the engines say about them.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "params/params.h"

namespace kvr {

// How one engine treats the library's parameters where that differs from their descriptions:
// the settings it leaves alone (accepted, validated and stored, so that a script written for
// another setup keeps working) and the sentences that state its limits in the help texts.
struct EngineParams {
  std::vector<ParamId> not_applied;
  std::vector<std::pair<ParamId, const char *>> notes;
  bool applies(ParamId id) const;
  const char *note(ParamId id) const;  // nullptr when there is none
};

// Strategy settings (cut classes, heuristics, node methods, presolve reductions) that neither
// engine exposes an option for; each engine's table counts them among those it leaves alone.
const std::vector<ParamId> &unexposed_strategies();

// False for the settings that are stored but not acted on: those no part of the library reads
// (remote services, for example) and those the engine in use leaves alone (the engine named in
// KAVIRO_ENGINE_OPTIONS, else HiGHS, which solves every model that needs nothing else).
bool param_applied(ParamId id);

// What each engine says about the parameter: "<engine>: <sentence>" lines, "" when none does.
std::string param_engine_notes(ParamId id);

}  // namespace kvr
