// The description of an engine that the reformulation reads to decide what to rewrite.
#pragma once

namespace kvr {

// What an engine takes as it is; the reformulation rewrites the rest into what it does take.
struct EngineCapabilities {
  bool sos = false;             // SOS1 and SOS2 constraints
  bool indicator = false;       // indicator constraints without big-M
  bool semicontinuous = false;  // semi-continuous and semi-integer variables
  // and/or constraints whose operands and resultant are binary. max, min, abs, norm and the
  // function constraints have no engine of their own: they are always rewritten.
  bool and_or = false;
  bool convex_qcons = false;     // convex quadratic constraints (else outer approximation)
  bool nonconvex = false;        // nonconvex quadratic objectives and constraints (NonConvex 2)
  bool quadratic_mip = false;    // quadratic objective together with integers or quadratic rows
  bool lazy_in_search = false;   // lazy rows join the running search (no restart)
  bool user_cuts = false;        // cuts from MIPNODE callbacks
  bool node_relaxation = false;  // MIPNODE callbacks with the node relaxation
  bool duals = false;            // duals, basis, sensitivity ranges, certificates
  bool lp_duals = false;         // duals and reduced costs of continuous linear models only
  bool solution_pool = true;     // several solutions kept from one search
};

}  // namespace kvr
