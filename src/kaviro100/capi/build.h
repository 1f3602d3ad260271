// Helpers shared by the C entry points that add elements to a model (defined in build_api.cpp).
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "model/model.h"

namespace kvr {

// Data of new variables as the C interface passes it; NULL arrays mean defaults (objective 0,
// bounds [0, infinity), continuous, unnamed).
struct NewVars {
  int n;
  const double *obj, *lb, *ub;
  const char *vtype;
  const char *const *names;
};

// Checks the data of new variables; first_index is the index the first one will get (for
// messages).
void check_new_vars(const NewVars &nv, int first_index);
// Appends checked variables (and resizes the extra attribute columns).
void append_new_vars(ModelData &d, const NewVars &nv, bool ignore_names);

// Checks the terms of a linear expression over `count` elements of kind `kind` ("variable" or
// "constraint"): indices in range, values finite. `what` names the expression in messages
// ("constraint 3", "the objective").
void check_terms(int n, const int *ind, const double *val, int count, const char *kind,
                 const std::string &what);
void check_quad_terms(int n, const int *row, const int *col, const double *val, int nvars,
                      const std::string &what);
// Copies terms and cleans them (clean_terms).
void cleaned_terms(int n, const int *ind, const double *val, std::vector<int> &oind,
                   std::vector<double> &oval);
QuadTerms normalized_quad(int n, const int *row, const int *col, const double *val);

// Counts that additions may refer to: elements of the model plus the queued additions.
inline int all_vars(const kvr_model *m) { return m->data.num_vars() + m->pending.added.num_vars(); }
inline int all_constrs(const kvr_model *m) {
  return m->data.num_constrs() + m->pending.added.num_constrs();
}

// Entry check of every function that adds elements: the model must not be under optimization,
// and the update mode must not have gone from 0 to 1 while additions made in mode 0 wait for the
// update (UPDATEMODE_CHANGE). Returns true when new variables and linear constraints join the
// model at once (update mode 1).
bool start_adding(kvr_model *m);
// Where new variables and linear constraints go: the model itself or the queue.
ModelData &linear_target(kvr_model *m, bool at_once);
// Marks an addition of vars variables and constrs linear constraints made directly to the model
// data: they stay out of counts and model-wide queries until the update.
void added_at_once(kvr_model *m, int vars, int constrs);
bool ignore_names(const kvr_model *m);

}  // namespace kvr
