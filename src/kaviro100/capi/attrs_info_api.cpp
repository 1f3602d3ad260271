// C entry points describing attributes: the registry is global, the model only receives messages.
#include <string>

#include "model/attrs.h"
#include "model/model.h"
#include "util/live.h"

extern "C" {

int KVRgetattrinfo(KVRmodel *model, const char *attrname, int *datatypeP, int *attrclassP,
                   int *settableP) {
  std::string scratch;
  return kvr::guarded(kvr::is_live(model) ? model->errmsg : scratch, [&] {
    if (!attrname) kvr::fail(KVR_ERROR_NULL_ARGUMENT, "No attribute name given");
    kvr::AttrId id = kvr::find_attr(attrname);
    if (id == kvr::AttrId::Count)
      kvr::fail(KVR_ERROR_UNKNOWN_ATTRIBUTE, "Unknown attribute '%s'", attrname);
    const kvr::AttrDef &d = kvr::attr_def(id);
    if (datatypeP) *datatypeP = static_cast<int>(d.type);
    if (attrclassP) *attrclassP = static_cast<int>(d.cls);
    if (settableP) *settableP = d.settable ? 1 : 0;
  });
}

int KVRgetnumattributes(KVRmodel *) { return kvr::attr_count(); }

int KVRgetattrname(KVRmodel *model, int i, char **attrnameP) {
  std::string scratch;
  return kvr::guarded(kvr::is_live(model) ? model->errmsg : scratch, [&] {
    if (i < 0 || i >= kvr::attr_count())
      kvr::fail(KVR_ERROR_INDEX_OUT_OF_RANGE, "Attribute index %d out of range [0, %d)", i,
                kvr::attr_count());
    if (!attrnameP) kvr::fail(KVR_ERROR_NULL_ARGUMENT, "No place given for the name");
    *attrnameP = const_cast<char *>(kvr::attr_def(static_cast<kvr::AttrId>(i)).name);
  });
}

}  // extern "C"
