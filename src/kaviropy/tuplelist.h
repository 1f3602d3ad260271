// Private interface of the indexed containers: the tuplelist object, the selection indices that
// tuplelist and tupledict share, and the guard that turns C++ errors into Python errors in the
// raw type slots of both classes.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <new>
#include <unordered_map>
#include <vector>

#include "containers.h"

namespace kvrpy {

// ---------------------------------------------------------------- errors in raw slots
// Slot functions are called by the interpreter and must not throw: run the body, and on failure
// leave the Python error set and return the failure value.
template <class R, class F>
R guarded(R failure, F &&body) noexcept {
  try {
    return body();
  } catch (nb::python_error &e) {
    e.restore();
  } catch (nb::builtin_exception &e) {
    PyErr_SetString(PyExc_RuntimeError, e.what());
  } catch (std::bad_alloc &) {
    PyErr_NoMemory();
  } catch (std::exception &e) {
    PyErr_SetString(PyExc_RuntimeError, e.what());
  }
  return failure;
}

// Throws the pending Python error when p is null; otherwise takes ownership of the new reference.
inline nb::object owned(PyObject *p) {
  if (!p) throw nb::python_error();
  return nb::steal(p);
}
inline void ok(int status) {
  if (status < 0) throw nb::python_error();
}

// Raises KeyError(key) the way dict lookups do (a tuple key stays one argument).
[[noreturn]] void raise_key_error(PyObject *key);

// ---------------------------------------------------------------- patterns
// The positions of the selection arguments that are not the wildcard, in increasing order.
class Pattern {
 public:
  void push(Py_ssize_t position);
  Py_ssize_t size() const { return n_; }
  Py_ssize_t operator[](Py_ssize_t i) const { return data()[i]; }
  const Py_ssize_t *data() const { return big_.empty() ? small_.data() : big_.data(); }
  // Bit i set for position i; meaningful when narrow().
  uint64_t mask() const { return mask_; }
  bool narrow() const { return narrow_; }
  std::vector<Py_ssize_t> positions() const { return {data(), data() + n_}; }

 private:
  std::array<Py_ssize_t, 16> small_{};
  std::vector<Py_ssize_t> big_;
  Py_ssize_t n_ = 0;
  uint64_t mask_ = 0;
  bool narrow_ = true;
};

// Selection key of one member (a tuple's fields at the pattern's positions, or the member itself
// for a list of scalars). items/n are the member's fields. New reference.
nb::object pattern_key(PyObject *const *items, Py_ssize_t n, const Pattern &pattern);

// The members of one list grouped by their key under one pattern. Group g holds the list
// positions members[start[g] .. start[g + 1]) in list order.
struct GroupIndex {
  nb::object groups;  // dict: key -> group number
  std::vector<uint32_t> start;
  std::vector<uint32_t> members;
  std::vector<nb::object> lists;  // tuplelist of a group, made on its first lookup
  Py_ssize_t list_size = 0;       // length of the list when the index was built

  int traverse(visitproc visit, void *arg) const;
};
using GroupIndexPtr = std::shared_ptr<GroupIndex>;

// Builds the index of a list (scalar: its kind) for one pattern: one pass over the members.
GroupIndexPtr build_groups(PyObject *list, bool scalar, const Pattern &pattern);

// The indices of one list, one per pattern. Holders of a GroupIndexPtr keep it alive when the
// list drops its indices while a selection is still running.
class PatternIndices {
 public:
  GroupIndexPtr find(const Pattern &pattern) const;
  void store(const Pattern &pattern, GroupIndexPtr index);
  bool empty() const { return by_mask_.empty() && by_positions_.empty(); }
  int traverse(visitproc visit, void *arg) const;
  // Calls f(positions, index) for every pattern.
  template <class F>
  void for_each(F &&f) const {
    for (const auto &[mask, index] : by_mask_) {
      std::vector<Py_ssize_t> positions;
      for (Py_ssize_t i = 0; i < 64; ++i)
        if (mask >> i & 1) positions.push_back(i);
      f(positions, index);
    }
    for (const auto &[positions, index] : by_positions_) f(positions, index);
  }

 private:
  std::unordered_map<uint64_t, GroupIndexPtr> by_mask_;
  std::map<std::vector<Py_ssize_t>, GroupIndexPtr> by_positions_;
};

// ---------------------------------------------------------------- tuplelist
struct TupleListCaches {
  PatternIndices index;
  nb::object contents;                  // dict member -> True, for membership tests
  nb::object prev, next, prevc, nextc;  // neighbour maps
};

struct TupleList {
  PyListObject list;
  PyObject *inst_dict;
  PyObject *weakrefs;
  PyObject *wild;
  int scalar;           // -1 while the kind is open, 1 scalars, 0 tuples
  Py_ssize_t tuplelen;  // -1 while open
  uint64_t version;     // advanced by every clean(): lets tupledict notice changes of its keys
  TupleListCaches *caches;
};

extern PyTypeObject TupleListType;
inline bool tuplelist_check(PyObject *o) { return PyObject_TypeCheck(o, &TupleListType); }
inline TupleList *as_tuplelist(PyObject *o) { return reinterpret_cast<TupleList *>(o); }

// A new, empty tuplelist with the given wildcard (nullptr: "*").
nb::object new_tuplelist(PyObject *wild = nullptr);
// Kind check of items about to be added (ValueError on a mix of kinds or tuple lengths).
void tuplelist_add_check(TupleList *self, PyObject *const *items, Py_ssize_t n);
// Moves new references into an empty list object in one allocation.
void list_adopt(PyObject *list, std::vector<PyObject *> &&items);
// Drops every index of the list.
void tuplelist_clean(TupleList *self);

// What a selection matched: call on_all() when the whole list matches, and on_group(index, g)
// for each matching group, in order. The caller keeps `list` alive; `indices` is where the
// indices of the list live (looked up again after every call into Python code).
struct SelectTarget {
  PyObject *list;
  PyObject *wild;
  int scalar;
  // The indices of `list` kept by `owner` (made when `create`), or nullptr.
  PatternIndices *(*indices)(void *owner, PyObject *list, bool create);
  void *owner;
};

struct SelectVisitor {
  virtual void all() = 0;
  virtual void group(const GroupIndexPtr &index, uint32_t g) = 0;
  virtual ~SelectVisitor() = default;
};

// Runs a selection. Returns true when an argument was expanded (the result is then a
// concatenation); false when the top level made one lookup, where tuplelist.select hands out the
// stored object itself.
bool select_visit(const SelectTarget &target, PyObject *const *args, Py_ssize_t nargs,
                  SelectVisitor &visitor);

// ---------------------------------------------------------------- tupledict
extern PyTypeObject TupleDictType;
// A new, empty tupledict (wildcard "*", no ranks).
nb::object new_tupledict();
// tupledict.keys(): the cached key tuplelist.
nb::object tupledict_keys(PyObject *self);

}  // namespace kvrpy
