// Reading and writing attribute values of a model. Reads show the model as of the last update and
// the results of the last solve; writes are checked at once and queued for the next update.
#pragma once

#include <string>
#include <string_view>

#include "model/attrs.h"
#include "model/model.h"

namespace kvr {

// The elements a call addresses: a list of indices, or the range [first, first + len).
struct IndexSet {
  const int *list = nullptr;
  int first = 0;
  int len = 0;
  int operator[](int k) const { return list ? list[k] : first + k; }
};

// Looks the name up; UNKNOWN_ATTRIBUTE when there is no such attribute.
AttrId lookup_attr(const char *name);
// Checks that the attribute has the data type and class a call expects; INVALID_ARGUMENT saying
// what the attribute is otherwise. `element` selects the element forms (any element class).
void check_attr_form(AttrId id, AttrType type, bool element);
// Number of elements of the attribute's class as of the last update.
int element_count(const kvr_model *model, AttrClass cls);
// Checks every index against the element count; INDEX_OUT_OF_RANGE naming the first bad one.
void check_indices(const kvr_model *model, AttrId id, IndexSet ix);

// Throws DATA_NOT_AVAILABLE (or NOT_FOR_MIP) when the attribute has no value in the current state.
void check_available(kvr_model *model, AttrId id);

// Reads. Int attributes travel as doubles (exact in this range). Strings returned by
// read_elem_str / read_model_str point into model->strbuf until the next string query.
double read_model_num(kvr_model *model, AttrId id);
const char *read_model_str(kvr_model *model, AttrId id);
void read_elem_num(kvr_model *model, AttrId id, IndexSet ix, double *out);
void read_elem_char(kvr_model *model, AttrId id, IndexSet ix, char *out);
void read_elem_str(kvr_model *model, AttrId id, IndexSet ix, char **out);

// Checks a value for a numeric or char attribute of element elem (-1 for the model) and returns
// the value to store (infinities clipped); INVALID_ARGUMENT or NUMERIC with the reason otherwise.
double checked_attr_value(AttrId id, int elem, double v);

// Writes: checked, then queued. Char values travel as their codes.
void write_model_num(kvr_model *model, AttrId id, double value);
void write_model_str(kvr_model *model, AttrId id, const char *value);
void write_elem_num(kvr_model *model, AttrId id, IndexSet ix, const double *values);
void write_elem_str(kvr_model *model, AttrId id, IndexSet ix, const char *const *values);

// Statistics and solution quality of the model (attrs/stats.cpp, attrs/quality.cpp).
double statistic(kvr_model *model, AttrId id);
// Whether the current solution has what the quality attribute needs.
bool quality_available(kvr_model *model, AttrId id);
double quality(kvr_model *model, AttrId id);
int fingerprint(const kvr_model *model);

// Selectors: attributes of one objective (ObjNumber), scenario (ScenarioNumber), MIP start
// (StartNumber) or pool solution (SolutionNumber) read the selecting parameter's value.
bool has_selector(AttrId id);
int selector_of(const kvr_model *model, AttrId id);

}  // namespace kvr
