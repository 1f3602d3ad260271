// C entry points for reading and writing attribute values in the model, element, array and list
// forms.
#include <vector>

#include "attrs/attr_access.h"

namespace {

using kvr::AttrId;
using kvr::AttrType;
using kvr::IndexSet;

void need(const void *p, const char *what) {
  if (!p) kvr::fail(KVR_ERROR_NULL_ARGUMENT, "No %s given", what);
}

IndexSet element(int i) { return IndexSet{nullptr, i, 1}; }
IndexSet range(int first, int len) { return IndexSet{nullptr, first, len}; }
IndexSet list(int len, const int *ind) {
  if (len > 0 && !ind)
    kvr::fail(KVR_ERROR_NULL_ARGUMENT, "No index list given for %d elements", len);
  return IndexSet{ind, 0, len};
}

// Element reads of numeric attributes.
AttrId start_read(KVRmodel *m, const char *name, AttrType type, IndexSet ix, const void *out) {
  kvr::check_queryable(m);
  AttrId id = kvr::lookup_attr(name);
  kvr::check_attr_form(id, type, true);
  kvr::check_indices(m, id, ix);
  if (ix.len > 0) {
    need(out, "array for the values");
    kvr::check_available(m, id);  // an empty list asks for nothing, so nothing can be missing
  }
  return id;
}

AttrId start_write(KVRmodel *m, const char *name, AttrType type, IndexSet ix, const void *in) {
  kvr::check_modifiable(m);
  AttrId id = kvr::lookup_attr(name);
  kvr::check_attr_form(id, type, true);
  if (ix.len > 0) need(in, "array of new values");
  return id;
}

void get_dbls(KVRmodel *m, const char *name, IndexSet ix, double *out) {
  AttrId id = start_read(m, name, AttrType::Dbl, ix, out);
  kvr::read_elem_num(m, id, ix, out);
}

void get_ints(KVRmodel *m, const char *name, IndexSet ix, int *out) {
  AttrId id = start_read(m, name, AttrType::Int, ix, out);
  std::vector<double> v(static_cast<size_t>(ix.len));
  kvr::read_elem_num(m, id, ix, v.data());
  for (int k = 0; k < ix.len; ++k) out[k] = static_cast<int>(v[k]);
}

void get_chars(KVRmodel *m, const char *name, IndexSet ix, char *out) {
  AttrId id = start_read(m, name, AttrType::Char, ix, out);
  kvr::read_elem_char(m, id, ix, out);
}

void get_strs(KVRmodel *m, const char *name, IndexSet ix, char **out) {
  AttrId id = start_read(m, name, AttrType::Str, ix, out);
  kvr::read_elem_str(m, id, ix, out);
}

void set_dbls(KVRmodel *m, const char *name, IndexSet ix, const double *in) {
  AttrId id = start_write(m, name, AttrType::Dbl, ix, in);
  kvr::write_elem_num(m, id, ix, in);
}

void set_ints(KVRmodel *m, const char *name, IndexSet ix, const int *in) {
  AttrId id = start_write(m, name, AttrType::Int, ix, in);
  std::vector<double> v(in, in + (ix.len > 0 ? ix.len : 0));
  kvr::write_elem_num(m, id, ix, v.data());
}

void set_chars(KVRmodel *m, const char *name, IndexSet ix, const char *in) {
  AttrId id = start_write(m, name, AttrType::Char, ix, in);
  std::vector<double> v(in, in + (ix.len > 0 ? ix.len : 0));
  kvr::write_elem_num(m, id, ix, v.data());
}

void set_strs(KVRmodel *m, const char *name, IndexSet ix, const char *const *in) {
  AttrId id = start_write(m, name, AttrType::Str, ix, in);
  kvr::write_elem_str(m, id, ix, in);
}

// Model-form reads.
AttrId start_model_read(KVRmodel *m, const char *name, AttrType type, const void *out) {
  kvr::check_queryable(m);
  AttrId id = kvr::lookup_attr(name);
  kvr::check_attr_form(id, type, false);
  need(out, "place for the value");
  kvr::check_available(m, id);
  return id;
}

AttrId start_model_write(KVRmodel *m, const char *name, AttrType type) {
  kvr::check_modifiable(m);
  AttrId id = kvr::lookup_attr(name);
  kvr::check_attr_form(id, type, false);
  return id;
}

}  // namespace

extern "C" {

int KVRisattravailable(KVRmodel *model, const char *attrname) {
  if (!model || !attrname || model->optimizing) return 0;
  kvr::AttrId id = kvr::find_attr(attrname);
  if (id == kvr::AttrId::Count || kvr::attr_def(id).cls == kvr::AttrClass::Batch) return 0;
  std::string scratch;
  return kvr::guarded(scratch, [&] { kvr::check_available(model, id); }) == 0 ? 1 : 0;
}

int KVRprefetchattr(KVRmodel *model, const char *attrname) {
  // Every value is read straight from the model's arrays, so there is nothing to prepare; the
  // call still tells a wrong name or a running optimization.
  return kvr::run_on_model(model, [&] {
    kvr::check_queryable(model);
    kvr::AttrId id = kvr::lookup_attr(attrname);
    if (kvr::attr_def(id).cls == kvr::AttrClass::Batch)
      kvr::fail(KVR_ERROR_INVALID_ARGUMENT, "Attribute '%s' is a batch attribute",
                kvr::attr_def(id).name);
  });
}

int KVRgetintattr(KVRmodel *model, const char *attrname, int *valueP) {
  return kvr::run_on_model(model, [&] {
    AttrId id = start_model_read(model, attrname, AttrType::Int, valueP);
    *valueP = static_cast<int>(kvr::read_model_num(model, id));
  });
}

int KVRsetintattr(KVRmodel *model, const char *attrname, int newvalue) {
  return kvr::run_on_model(model, [&] {
    kvr::write_model_num(model, start_model_write(model, attrname, AttrType::Int), newvalue);
  });
}

int KVRgetdblattr(KVRmodel *model, const char *attrname, double *valueP) {
  return kvr::run_on_model(model, [&] {
    AttrId id = start_model_read(model, attrname, AttrType::Dbl, valueP);
    *valueP = kvr::read_model_num(model, id);
  });
}

int KVRsetdblattr(KVRmodel *model, const char *attrname, double newvalue) {
  return kvr::run_on_model(model, [&] {
    kvr::write_model_num(model, start_model_write(model, attrname, AttrType::Dbl), newvalue);
  });
}

int KVRgetstrattr(KVRmodel *model, const char *attrname, char **valueP) {
  return kvr::run_on_model(model, [&] {
    AttrId id = start_model_read(model, attrname, AttrType::Str, valueP);
    *valueP = const_cast<char *>(kvr::read_model_str(model, id));
  });
}

int KVRsetstrattr(KVRmodel *model, const char *attrname, const char *newvalue) {
  return kvr::run_on_model(model, [&] {
    kvr::write_model_str(model, start_model_write(model, attrname, AttrType::Str), newvalue);
  });
}

// ---------------------------------------------------------------- element forms

int KVRgetcharattrelement(KVRmodel *model, const char *attrname, int element, char *valueP) {
  return kvr::run_on_model(model, [&] { get_chars(model, attrname, ::element(element), valueP); });
}
int KVRsetcharattrelement(KVRmodel *model, const char *attrname, int element, char newvalue) {
  return kvr::run_on_model(model,
                           [&] { set_chars(model, attrname, ::element(element), &newvalue); });
}
int KVRgetintattrelement(KVRmodel *model, const char *attrname, int element, int *valueP) {
  return kvr::run_on_model(model, [&] { get_ints(model, attrname, ::element(element), valueP); });
}
int KVRsetintattrelement(KVRmodel *model, const char *attrname, int element, int newvalue) {
  return kvr::run_on_model(model,
                           [&] { set_ints(model, attrname, ::element(element), &newvalue); });
}
int KVRgetdblattrelement(KVRmodel *model, const char *attrname, int element, double *valueP) {
  return kvr::run_on_model(model, [&] { get_dbls(model, attrname, ::element(element), valueP); });
}
int KVRsetdblattrelement(KVRmodel *model, const char *attrname, int element, double newvalue) {
  return kvr::run_on_model(model,
                           [&] { set_dbls(model, attrname, ::element(element), &newvalue); });
}
int KVRgetstrattrelement(KVRmodel *model, const char *attrname, int element, char **valueP) {
  return kvr::run_on_model(model, [&] { get_strs(model, attrname, ::element(element), valueP); });
}
int KVRsetstrattrelement(KVRmodel *model, const char *attrname, int element, const char *newvalue) {
  return kvr::run_on_model(model, [&] {
    if (!newvalue)
      kvr::fail(KVR_ERROR_NULL_ARGUMENT, "No value given for attribute '%s'", attrname);
    set_strs(model, attrname, ::element(element), &newvalue);
  });
}

// ---------------------------------------------------------------- array forms

int KVRgetcharattrarray(KVRmodel *model, const char *attrname, int first, int len, char *values) {
  return kvr::run_on_model(model, [&] { get_chars(model, attrname, range(first, len), values); });
}
int KVRsetcharattrarray(KVRmodel *model, const char *attrname, int first, int len,
                        const char *newvalues) {
  return kvr::run_on_model(model,
                           [&] { set_chars(model, attrname, range(first, len), newvalues); });
}
int KVRgetintattrarray(KVRmodel *model, const char *attrname, int first, int len, int *values) {
  return kvr::run_on_model(model, [&] { get_ints(model, attrname, range(first, len), values); });
}
int KVRsetintattrarray(KVRmodel *model, const char *attrname, int first, int len,
                       const int *newvalues) {
  return kvr::run_on_model(model, [&] { set_ints(model, attrname, range(first, len), newvalues); });
}
int KVRgetdblattrarray(KVRmodel *model, const char *attrname, int first, int len, double *values) {
  return kvr::run_on_model(model, [&] { get_dbls(model, attrname, range(first, len), values); });
}
int KVRsetdblattrarray(KVRmodel *model, const char *attrname, int first, int len,
                       const double *newvalues) {
  return kvr::run_on_model(model, [&] { set_dbls(model, attrname, range(first, len), newvalues); });
}
int KVRgetstrattrarray(KVRmodel *model, const char *attrname, int first, int len, char **values) {
  return kvr::run_on_model(model, [&] { get_strs(model, attrname, range(first, len), values); });
}
int KVRsetstrattrarray(KVRmodel *model, const char *attrname, int first, int len,
                       const char *const *newvalues) {
  return kvr::run_on_model(model, [&] { set_strs(model, attrname, range(first, len), newvalues); });
}

// ---------------------------------------------------------------- list forms

int KVRgetcharattrlist(KVRmodel *model, const char *attrname, int len, const int *ind,
                       char *values) {
  return kvr::run_on_model(model, [&] { get_chars(model, attrname, list(len, ind), values); });
}
int KVRsetcharattrlist(KVRmodel *model, const char *attrname, int len, const int *ind,
                       const char *newvalues) {
  return kvr::run_on_model(model, [&] { set_chars(model, attrname, list(len, ind), newvalues); });
}
int KVRgetintattrlist(KVRmodel *model, const char *attrname, int len, const int *ind, int *values) {
  return kvr::run_on_model(model, [&] { get_ints(model, attrname, list(len, ind), values); });
}
int KVRsetintattrlist(KVRmodel *model, const char *attrname, int len, const int *ind,
                      const int *newvalues) {
  return kvr::run_on_model(model, [&] { set_ints(model, attrname, list(len, ind), newvalues); });
}
int KVRgetdblattrlist(KVRmodel *model, const char *attrname, int len, const int *ind,
                      double *values) {
  return kvr::run_on_model(model, [&] { get_dbls(model, attrname, list(len, ind), values); });
}
int KVRsetdblattrlist(KVRmodel *model, const char *attrname, int len, const int *ind,
                      const double *newvalues) {
  return kvr::run_on_model(model, [&] { set_dbls(model, attrname, list(len, ind), newvalues); });
}
int KVRgetstrattrlist(KVRmodel *model, const char *attrname, int len, const int *ind,
                      char **values) {
  return kvr::run_on_model(model, [&] { get_strs(model, attrname, list(len, ind), values); });
}
int KVRsetstrattrlist(KVRmodel *model, const char *attrname, int len, const int *ind,
                      const char *const *newvalues) {
  return kvr::run_on_model(model, [&] { set_strs(model, attrname, list(len, ind), newvalues); });
}

}  // extern "C"
