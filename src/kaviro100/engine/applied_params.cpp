#include "engine/applied_params.h"

#include <algorithm>
#include <array>

#include "engine/registry.h"

namespace kvr {

namespace {

// Settings for remote services and for the multi-objective passes' engine methods: the library
// solves in this process and runs each pass with the model's own parameters.
bool library_ignores(ParamId id) {
  static constexpr std::array kIgnored = {
      ParamId::TuneJobs,       ParamId::ServerTimeout, ParamId::CSGroup,     ParamId::CSPriority,
      ParamId::CSQueueTimeout, ParamId::CSTLSInsecure, ParamId::CSAppName,   ParamId::CSClientLog,
      ParamId::CSIdleTimeout,  ParamId::CloudHost,     ParamId::CSBatchMode, ParamId::UserName,
      ParamId::MultiObjMethod, ParamId::MultiObjPre};
  return std::find(kIgnored.begin(), kIgnored.end(), id) != kIgnored.end();
}

}  // namespace

bool EngineParams::applies(ParamId id) const {
  return std::find(not_applied.begin(), not_applied.end(), id) == not_applied.end();
}

const char *EngineParams::note(ParamId id) const {
  for (const auto &[p, text] : notes)
    if (p == id) return text;
  return nullptr;
}

const std::vector<ParamId> &unexposed_strategies() {
  static const std::vector<ParamId> list = {ParamId::BarQCPConvTol,
                                            ParamId::MarkowitzTol,
                                            ParamId::NetworkAlg,
                                            ParamId::NormAdjust,
                                            ParamId::ObjScale,
                                            ParamId::PerturbValue,
                                            ParamId::Quad,
                                            ParamId::Sifting,
                                            ParamId::SiftMethod,
                                            ParamId::SimplexPricing,
                                            ParamId::BarCorrectors,
                                            ParamId::BarHomogeneous,
                                            ParamId::BarOrder,
                                            ParamId::CrossoverBasis,
                                            ParamId::BranchDir,
                                            ParamId::DegenMoves,
                                            ParamId::ConcurrentMIP,
                                            ParamId::Disconnected,
                                            ParamId::ImproveStartGap,
                                            ParamId::ImproveStartNodes,
                                            ParamId::ImproveStartTime,
                                            ParamId::MinRelNodes,
                                            ParamId::MIPFocus,
                                            ParamId::MIQCPMethod,
                                            ParamId::NLPHeur,
                                            ParamId::NodeMethod,
                                            ParamId::NoRelHeurTime,
                                            ParamId::NoRelHeurWork,
                                            ParamId::OBBT,
                                            ParamId::PartitionPlace,
                                            ParamId::PumpPasses,
                                            ParamId::RINS,
                                            ParamId::SubMIPNodes,
                                            ParamId::VarBranch,
                                            ParamId::ZeroObjNodes,
                                            ParamId::BQPCuts,
                                            ParamId::Cuts,
                                            ParamId::CliqueCuts,
                                            ParamId::CoverCuts,
                                            ParamId::FlowCoverCuts,
                                            ParamId::FlowPathCuts,
                                            ParamId::GUBCoverCuts,
                                            ParamId::ImpliedCuts,
                                            ParamId::InfProofCuts,
                                            ParamId::MIPSepCuts,
                                            ParamId::MIRCuts,
                                            ParamId::ModKCuts,
                                            ParamId::NetworkCuts,
                                            ParamId::ProjImpliedCuts,
                                            ParamId::PSDCuts,
                                            ParamId::LiftProjectCuts,
                                            ParamId::RelaxLiftCuts,
                                            ParamId::RLTCuts,
                                            ParamId::StrongCGCuts,
                                            ParamId::SubMIPCuts,
                                            ParamId::ZeroHalfCuts,
                                            ParamId::CutAggPasses,
                                            ParamId::CutPasses,
                                            ParamId::GomoryPasses,
                                            ParamId::AggFill,
                                            ParamId::Aggregate,
                                            ParamId::IntegralityFocus,
                                            ParamId::NumericFocus,
                                            ParamId::PreDepRow,
                                            ParamId::PreDual,
                                            ParamId::PrePasses,
                                            ParamId::PreQLinearize,
                                            ParamId::PreSparsify,
                                            ParamId::PreMIQCPForm,
                                            ParamId::StartNodeLimit};
  return list;
}

bool param_applied(ParamId id) {
  return !library_ignores(id) && engine_in_use().params().applies(id);
}

std::string param_engine_notes(ParamId id) {
  std::string out;
  for (const EngineEntry &e : engines())
    if (const char *text = e.params().note(id))
      out += std::string(out.empty() ? "" : "\n") + e.name + ": " + text;
  return out;
}

}  // namespace kvr
