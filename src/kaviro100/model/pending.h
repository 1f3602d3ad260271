// Changes made since the last update; kvr::update_model applies them to the model data.
//
// Attribute writes, coefficient changes and objective changes form one log, applied in call order
// (so a later write wins) with element indices as of the last update. Additions that are not
// visible yet wait in `added`, numbered after the model's elements: a queued constraint may refer
// to a queued variable by the index it will have. Deletions are applied last.
#pragma once

#include <cstdint>
#include <vector>

#include "model/attrs.h"
#include "model/modeldata.h"

namespace kvr {

enum class ChangeKind : uint8_t {
  Attr,        // attr of element elem (-1 for model attributes), selector sub, value num or str
  Coeff,       // matrix entry (elem = row, sub = column) becomes num
  Objective,   // whole objective replaced by objectives[ref]
  ObjectiveN,  // objective ref into objns
  PwlObj,      // piecewise-linear objective pwls[ref] of one variable
  QpTerms,     // quadratic objective terms qpterms[ref] added
  DelQ,        // quadratic objective terms dropped
};

struct Change {
  ChangeKind kind;
  AttrId attr;
  int elem;
  // For attributes: the selector in force when the value was written (ObjNumber, ScenarioNumber,
  // StartNumber, ...); -1 when the attribute has none.
  int sub;
  double num;
  int64_t ref;  // string value index in PendingChanges::strings, or payload index
};

// A full objective given by KVRsetobjective.
struct ObjectiveSet {
  int sense = 0;  // 0 keeps the sense
  double constant = 0.0;
  std::vector<int> lind;
  std::vector<double> lval;
  QuadTerms q;
};

struct ObjectiveNSet {
  int index = 0;
  ObjectiveN obj;  // coefficients, constant, priority, weight, tolerances and name
};

struct PendingChanges {
  std::vector<Change> log;
  NamePool strings;
  std::vector<ObjectiveSet> objectives;
  std::vector<ObjectiveNSet> objns;
  std::vector<PwlObj> pwls;
  std::vector<QuadTerms> qpterms;
  // Counts that queued changes ask for (NumObj, NumScenarios, NumStart and writes to objectives,
  // scenarios or starts beyond them): selectors up to these are accepted before the update.
  int objn_limit = 0, scen_limit = 0, start_limit = 0;

  // Elements added since the last update and not yet part of the model data. Variables and
  // linear constraints land here only in update mode 0 (queued_mode0 is then set); quadratic,
  // SOS and general constraints always do.
  ModelData added;
  // Constraint coefficients of queued variables: (row, column, value), columns numbered after the
  // model's variables.
  std::vector<SparseMatrix::Entry> added_cols;
  bool queued_mode0 = false;

  // Elements whose deletion waits for the update (indices as of the last update).
  std::vector<int> del_vars, del_constrs, del_sos, del_qconstrs, del_gens;

  bool empty() const;
  bool has_additions() const;
  void clear();
};

// Applies the queued change log to the data (used by update_model; model/attr_apply.cpp).
void apply_change_log(ModelData &data, PendingChanges &pending);

}  // namespace kvr
