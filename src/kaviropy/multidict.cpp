// multidict: splits a dictionary of value lists into the key tuplelist and one tupledict per
// position of the value lists.
#include "tuplelist.h"

namespace kvrpy {
namespace {

nb::object multidict(nb::handle data) {
  nb::object whole =
      owned(PyObject_CallOneArg(reinterpret_cast<PyObject *>(&TupleDictType), data.ptr()));
  nb::object keys = tupledict_keys(whole.ptr());
  Py_ssize_t n = PyList_GET_SIZE(keys.ptr());
  nb::object result = owned(PyList_New(0));
  ok(PyList_Append(result.ptr(), keys.ptr()));
  // Transpose the value lists as zip does: as many dictionaries as the shortest list has items.
  std::vector<nb::object> columns;
  try {
    std::vector<nb::object> iters;
    for (Py_ssize_t i = 0; i < n; ++i) {
      nb::object value = owned(PyObject_GetItem(whole.ptr(), PyList_GET_ITEM(keys.ptr(), i)));
      iters.push_back(owned(PyObject_GetIter(value.ptr())));
    }
    while (n > 0) {
      nb::object column = new_tupledict();
      bool exhausted = false;
      for (Py_ssize_t i = 0; i < n && !exhausted; ++i) {
        PyObject *item = PyIter_Next(iters[static_cast<size_t>(i)].ptr());
        if (!item) {
          if (PyErr_Occurred()) throw nb::python_error();
          exhausted = true;
          break;
        }
        nb::object value = nb::steal(item);
        ok(PyDict_SetItem(column.ptr(), PyList_GET_ITEM(keys.ptr(), i), value.ptr()));
      }
      if (exhausted) break;
      columns.push_back(std::move(column));
    }
  } catch (nb::python_error &e) {
    if (!e.matches(PyExc_TypeError)) throw;
    // Scalar values: the one dictionary maps each key to its value.
    ok(PyList_Append(result.ptr(), whole.ptr()));
    return result;
  }
  for (const nb::object &column : columns) ok(PyList_Append(result.ptr(), column.ptr()));
  return result;
}

}  // namespace

void init_multidict(nb::module_ &m) {
  m.def(
      "multidict", &multidict, nb::arg("data"),
      "multidict(data)\n\n"
      "Splits a dictionary whose values are lists into the list of its keys (a tuplelist) and one "
      "tupledict per list position, mapping each key to that item of its list. With scalar "
      "values the result is the keys and one tupledict of the values.\n\n"
      "Example:\n"
      "  (keys, cost, cap) = multidict({'a': [1, 10], 'b': [2, 20]})");
}

}  // namespace kvrpy
