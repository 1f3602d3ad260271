// Pieces shared by the attribute readers of attrs/attr_access.cpp and the computed attributes of
// attrs/computed.cpp.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "attrs/attr_access.h"

namespace kvr {

// DATA_NOT_AVAILABLE: "Unable to retrieve attribute 'name'", with the reason when given.
[[noreturn]] void unavailable(AttrId id);
[[noreturn]] void unavailable(AttrId id, const std::string &why);

// out[k] = f(index k of ix).
template <class F>
void fill(IndexSet ix, double *out, F &&f) {
  if (ix.list) {
    for (int k = 0; k < ix.len; ++k) out[k] = f(ix.list[k]);
  } else {
    for (int k = 0; k < ix.len; ++k) out[k] = f(ix.first + k);
  }
}

// Copies the entries ix of v; unavailable when v does not reach that far (an empty v: no value).
template <class T>
void copy_vec(AttrId id, const std::vector<T> &v, IndexSet ix, double *out) {
  if (ix.len == 0) return;  // nothing asked, nothing missing: also on a model without elements
  const int top = ix.list ? *std::max_element(ix.list, ix.list + ix.len) : ix.first + ix.len - 1;
  if (top >= static_cast<int>(v.size())) unavailable(id);
  const T *p = v.data();
  fill(ix, out, [p](int i) { return static_cast<double>(p[i]); });
}

// Entries ix of an extra column; its default where the column or the entry does not exist.
void copy_extra(const ExtraAttrs &ex, int key, IndexSet ix, double *out);

// The selected objective or scenario; unavailable, saying why, when it does not exist.
int selected_objn(kvr_model &m, AttrId id);
int selected_scen(kvr_model &m, AttrId id);

// Computed attributes: the functions attrs.tsv names.
namespace computed {
#include "attrs/attr_computed.inc"
}  // namespace computed

}  // namespace kvr
