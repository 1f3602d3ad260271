// Attribute access shared by Model and the handle classes: every value is read from and written
// to the library; the module keeps no copy.
#pragma once

#include <string>
#include <vector>

#include "handles.h"

namespace kvrpy {

struct AttrInfo {
  int type = 0;  // KVR_ATTRTYPE_*
  int cls = 0;   // KVR_ATTRCLASS_*
  bool settable = false;
};

// The class name used in attribute messages: "Model", "Var", ... or obj._typename.
std::string attr_type_name(nb::handle obj);
// AttributeError "'kaviropy.<type>' object has no attribute '<name>'".
[[noreturn]] void raise_no_attribute(const std::string &type_name, const std::string &name);
// Names starting with '_' are the object's own Python attributes, set the ordinary way; the
// others are model attributes or parameters. Returns true when `name` was of the first kind.
bool set_private_attr(nb::handle self, nb::handle name, nb::handle value);
// Type, class and settable flag of an attribute; raises the "no attribute" AttributeError for
// names the library does not know.
AttrInfo attr_info(const std::string &type_name, const std::string &name);

// Single values of a Model or a handle (the routing of `obj.Name`). An element attribute read
// from a Model gives the list of its values over all elements of that kind, in model order.
nb::object get_attr(nb::handle obj, const std::string &name);
void set_attr(nb::handle obj, const std::string &name, nb::handle value);
void prefetch_attr(nb::handle obj, const std::string &name);

// Values of many elements in one library call. `owner` gives the message of a failure.
nb::list get_attr_list(KVRmodel *model, nb::handle owner, const std::string &name, int type,
                       const std::vector<int> &ind);
// Values of an element attribute over all elements of its kind as of the last update, in one
// library call; failures raise AttributeError with the library's message.
nb::list get_attr_all(KVRmodel *model, const std::string &name, const AttrInfo &info);
// Writes values[i] to element ind[i]; values holds one Python value per index, or a single
// value (a str counts as one value) used for all.
void set_attr_list(KVRmodel *model, nb::handle owner, const std::string &name, int type,
                   const std::vector<int> &ind, nb::handle values, bool single);

// Names of the library's attributes of one class, in the library's order.
nb::list attr_names(int attrclass);

void init_attrutil(nb::module_ &m);

}  // namespace kvrpy
