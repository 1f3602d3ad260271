// tuplelist: a list subclass of scalars or of tuples of one length, with wildcard selection
// answered from per-pattern indices that every change of contents drops.
#include "tuplelist.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>

namespace kvrpy {

// ---------------------------------------------------------------- shared helpers

void raise_key_error(PyObject *key) {
  // A tuple passed as the exception value would become the argument list.
  PyObject *args = PyTuple_Pack(1, key);
  if (args) {
    PyErr_SetObject(PyExc_KeyError, args);
    Py_DECREF(args);
  }
  throw nb::python_error();
}

void Pattern::push(Py_ssize_t position) {
  if (big_.empty() && n_ < static_cast<Py_ssize_t>(small_.size())) {
    small_[n_] = position;
  } else {
    if (big_.empty()) big_.assign(small_.begin(), small_.begin() + n_);
    big_.push_back(position);
  }
  ++n_;
  if (position < 64)
    mask_ |= uint64_t{1} << position;
  else
    narrow_ = false;
}

namespace {

[[noreturn]] void tuple_index_error() {
  PyErr_SetString(PyExc_IndexError, "tuple index out of range");
  throw nb::python_error();
}

// Field `position` of a member that is not a tuple (a list changed behind the class's back).
nb::object sequence_field(PyObject *member, Py_ssize_t position) {
  return owned(PySequence_GetItem(member, position));
}

}  // namespace

nb::object pattern_key(PyObject *const *items, Py_ssize_t n, const Pattern &pattern) {
  if (pattern.size() == 1) {
    if (pattern[0] >= n) tuple_index_error();
    return nb::borrow(items[pattern[0]]);
  }
  nb::object key = owned(PyTuple_New(pattern.size()));
  for (Py_ssize_t i = 0; i < pattern.size(); ++i) {
    if (pattern[i] >= n) tuple_index_error();
    PyTuple_SET_ITEM(key.ptr(), i, Py_NewRef(items[pattern[i]]));
  }
  return key;
}

namespace {

nb::object member_key(PyObject *member, bool scalar, const Pattern &pattern) {
  if (scalar) return nb::borrow(member);
  // Every field constrained: the key equals the member itself.
  if (PyTuple_CheckExact(member) && pattern.size() > 1 &&
      PyTuple_GET_SIZE(member) == pattern.size() &&
      pattern[pattern.size() - 1] == pattern.size() - 1)
    return nb::borrow(member);
  if (PyTuple_Check(member))
    return pattern_key(&PyTuple_GET_ITEM(member, 0), PyTuple_GET_SIZE(member), pattern);
  if (pattern.size() == 1) return sequence_field(member, pattern[0]);
  nb::object key = owned(PyTuple_New(pattern.size()));
  for (Py_ssize_t i = 0; i < pattern.size(); ++i)
    PyTuple_SET_ITEM(key.ptr(), i, sequence_field(member, pattern[i]).release().ptr());
  return key;
}

}  // namespace

int GroupIndex::traverse(visitproc visit, void *arg) const {
  Py_VISIT(groups.ptr());
  for (const nb::object &l : lists) Py_VISIT(l.ptr());
  return 0;
}

GroupIndexPtr build_groups(PyObject *list, bool scalar, const Pattern &pattern) {
  Py_ssize_t n = PyList_GET_SIZE(list);
  if (static_cast<uint64_t>(n) >= UINT32_MAX) {
    PyErr_SetString(PyExc_OverflowError, "too many members to index");
    throw nb::python_error();
  }
  auto index = std::make_shared<GroupIndex>();
  index->groups = owned(PyDict_New());
  index->list_size = n;
  std::vector<uint32_t> group_of(static_cast<size_t>(n));
  std::vector<uint32_t> count;
  nb::object last_key;  // consecutive members often share the very key object
  uint32_t last_group = 0;
  auto check_size = [&] {
    if (PyList_GET_SIZE(list) != n) {
      PyErr_SetString(PyExc_RuntimeError, "tuplelist changed size during selection");
      throw nb::python_error();
    }
  };
  for (Py_ssize_t i = 0; i < n; ++i) {
    check_size();
    nb::object member = nb::borrow(PyList_GET_ITEM(list, i));
    nb::object key = member_key(member.ptr(), scalar, pattern);
    uint32_t g;
    if (last_key.is_valid() && key.ptr() == last_key.ptr()) {
      g = last_group;
    } else {
      PyObject *found = PyDict_GetItemWithError(index->groups.ptr(), key.ptr());
      if (found) {
        g = static_cast<uint32_t>(PyLong_AsUnsignedLong(found));
      } else {
        if (PyErr_Occurred()) throw nb::python_error();
        g = static_cast<uint32_t>(count.size());
        count.push_back(0);
        nb::object number = owned(PyLong_FromUnsignedLong(g));
        ok(PyDict_SetItem(index->groups.ptr(), key.ptr(), number.ptr()));
      }
      last_key = std::move(key);
      last_group = g;
    }
    group_of[static_cast<size_t>(i)] = g;
    ++count[g];
  }
  check_size();
  index->start.resize(count.size() + 1);
  index->start[0] = 0;
  for (size_t g = 0; g < count.size(); ++g) index->start[g + 1] = index->start[g] + count[g];
  index->members.resize(static_cast<size_t>(n));
  std::vector<uint32_t> cursor(index->start.begin(), index->start.end() - 1);
  for (size_t i = 0; i < group_of.size(); ++i)
    index->members[cursor[group_of[i]]++] = static_cast<uint32_t>(i);
  return index;
}

GroupIndexPtr PatternIndices::find(const Pattern &pattern) const {
  if (pattern.narrow()) {
    auto it = by_mask_.find(pattern.mask());
    return it == by_mask_.end() ? nullptr : it->second;
  }
  auto it = by_positions_.find(pattern.positions());
  return it == by_positions_.end() ? nullptr : it->second;
}

void PatternIndices::store(const Pattern &pattern, GroupIndexPtr index) {
  if (pattern.narrow())
    by_mask_[pattern.mask()] = std::move(index);
  else
    by_positions_[pattern.positions()] = std::move(index);
}

int PatternIndices::traverse(visitproc visit, void *arg) const {
  for (const auto &[mask, index] : by_mask_)
    if (int r = index->traverse(visit, arg)) return r;
  for (const auto &[positions, index] : by_positions_)
    if (int r = index->traverse(visit, arg)) return r;
  return 0;
}

// ---------------------------------------------------------------- selection

namespace {

PyObject *g_star = nullptr;  // the default wildcard "*"

// True when a selection argument stands for any value: it does not compare unequal (!=) to the
// wildcard.
bool is_wild(PyObject *arg, PyObject *wild) {
  bool simple = PyUnicode_CheckExact(arg) || PyLong_CheckExact(arg) || arg == Py_None;
  if (arg == wild && simple) return true;
  if (PyUnicode_CheckExact(arg) && PyUnicode_CheckExact(wild))
    return PyUnicode_Compare(arg, wild) == 0;
  if ((PyLong_CheckExact(arg) && PyUnicode_CheckExact(wild)) ||
      (PyUnicode_CheckExact(arg) && PyLong_CheckExact(wild)))
    return false;
  nb::object differs = owned(PyObject_RichCompare(arg, wild, Py_NE));
  int truth = PyObject_IsTrue(differs.ptr());
  ok(truth);
  return truth == 0;
}

// Arguments of these types are matched as values without trying to iterate over them.
bool plain_value(PyObject *arg) {
  return PyUnicode_Check(arg) || PyLong_CheckExact(arg) || PyFloat_CheckExact(arg) ||
         arg == Py_None || PyBool_Check(arg);
}

struct RecursionGuard {
  RecursionGuard() {
    if (Py_EnterRecursiveCall(" in a selection")) throw nb::python_error();
  }
  ~RecursionGuard() { Py_LeaveRecursiveCall(); }
};

}  // namespace

bool select_visit(const SelectTarget &target, PyObject *const *args, Py_ssize_t nargs,
                  SelectVisitor &visitor) {
  RecursionGuard guard;
  // The first argument that is an iterable other than a string stands for each of its items.
  for (Py_ssize_t i = 0; i < nargs; ++i) {
    if (plain_value(args[i])) continue;
    PyObject *it = PyObject_GetIter(args[i]);
    if (!it) {
      if (!PyErr_ExceptionMatches(PyExc_TypeError)) throw nb::python_error();
      PyErr_Clear();
      continue;
    }
    nb::object iter = nb::steal(it);
    std::vector<PyObject *> sub(args, args + nargs);
    while (PyObject *item = PyIter_Next(it)) {
      nb::object value = nb::steal(item);
      sub[static_cast<size_t>(i)] = value.ptr();
      select_visit(target, sub.data(), nargs, visitor);
    }
    if (PyErr_Occurred()) throw nb::python_error();
    return true;
  }

  Pattern pattern;
  for (Py_ssize_t i = 0; i < nargs; ++i)
    if (!is_wild(args[i], target.wild)) pattern.push(i);
  if (pattern.size() == 0) {
    visitor.all();
    return false;
  }

  GroupIndexPtr index;
  if (PatternIndices *indices = target.indices(target.owner, target.list, false))
    index = indices->find(pattern);
  if (index && index->list_size != PyList_GET_SIZE(target.list)) index.reset();
  if (!index) {
    uint64_t version = as_tuplelist(target.list)->version;
    index = build_groups(target.list, target.scalar == 1, pattern);
    // Keep it only when the list did not change while its keys were hashed.
    if (as_tuplelist(target.list)->version == version)
      if (PatternIndices *indices = target.indices(target.owner, target.list, true))
        indices->store(pattern, index);
  }
  nb::object key = target.scalar == 1 ? nb::borrow(args[0]) : pattern_key(args, nargs, pattern);
  PyObject *found = PyDict_GetItemWithError(index->groups.ptr(), key.ptr());
  if (!found) {
    if (PyErr_Occurred()) throw nb::python_error();
    return false;
  }
  visitor.group(index, static_cast<uint32_t>(PyLong_AsUnsignedLong(found)));
  return false;
}

// ---------------------------------------------------------------- the tuplelist object

PyTypeObject TupleListType = {PyVarObject_HEAD_INIT(nullptr, 0)};

namespace {

PyObject *g_list_pop, *g_list_remove, *g_list_sort, *g_list_reverse, *g_list_clear;

TupleListCaches &caches_of(TupleList *self) {
  if (!self->caches) self->caches = new TupleListCaches();
  return *self->caches;
}

PatternIndices *tuplelist_indices(void *owner, PyObject *, bool create) {
  TupleList *self = static_cast<TupleList *>(owner);
  if (!self->caches && !create) return nullptr;
  return &caches_of(self).index;
}

// An empty list reopens its kind.
void del_check(TupleList *self) {
  if (PyList_GET_SIZE(self) == 0) {
    self->scalar = -1;
    self->tuplelen = -1;
  }
}

void copy_kind(TupleList *to, const TupleList *from) {
  if (PyList_GET_SIZE(to) == 0) return;
  to->scalar = from->scalar;
  to->tuplelen = from->tuplelen;
}

PyObject *tl_new(PyTypeObject *type, PyObject *args, PyObject *kwds) {
  PyObject *self = PyList_Type.tp_new(type, args, kwds);
  if (!self) return nullptr;
  TupleList *t = as_tuplelist(self);
  t->inst_dict = nullptr;
  t->weakrefs = nullptr;
  t->wild = Py_NewRef(g_star);
  t->scalar = -1;
  t->tuplelen = -1;
  t->version = 0;
  t->caches = nullptr;
  return self;
}

void set_wild(TupleList *self, PyObject *wild) {
  PyObject *old = self->wild;
  self->wild = Py_NewRef(wild);
  Py_XDECREF(old);
}

// extend(L): L is first turned into a list.
void extend(TupleList *self, PyObject *data) {
  nb::object items = owned(PySequence_List(data));
  tuplelist_add_check(self, &PyList_GET_ITEM(items.ptr(), 0), PyList_GET_SIZE(items.ptr()));
  tuplelist_clean(self);
  Py_ssize_t n = PyList_GET_SIZE(self);
  ok(PyList_SetSlice(reinterpret_cast<PyObject *>(self), n, n, items.ptr()));
}

int tl_init(PyObject *self, PyObject *args, PyObject *kwds) {
  return guarded(-1, [&] {
    static const char *kwlist[] = {"data", "wild", nullptr};
    PyObject *data = nullptr, *wild = g_star;
    if (!PyArg_ParseTupleAndKeywords(args, kwds, "|OO:tuplelist", const_cast<char **>(kwlist),
                                     &data, &wild))
      return -1;
    TupleList *t = as_tuplelist(self);
    set_wild(t, wild);
    del_check(t);
    if (data) extend(t, data);
    return 0;
  });
}

int tl_traverse(PyObject *self, visitproc visit, void *arg) {
  TupleList *t = as_tuplelist(self);
  Py_VISIT(t->wild);
  Py_VISIT(t->inst_dict);
  if (TupleListCaches *c = t->caches) {
    Py_VISIT(c->contents.ptr());
    Py_VISIT(c->prev.ptr());
    Py_VISIT(c->next.ptr());
    Py_VISIT(c->prevc.ptr());
    Py_VISIT(c->nextc.ptr());
    if (int r = c->index.traverse(visit, arg)) return r;
  }
  return PyList_Type.tp_traverse(self, visit, arg);
}

int tl_clear(PyObject *self) {
  TupleList *t = as_tuplelist(self);
  delete std::exchange(t->caches, nullptr);
  set_wild(t, g_star);
  Py_CLEAR(t->inst_dict);
  return PyList_Type.tp_clear(self);
}

void tl_dealloc(PyObject *self) {
  PyObject_GC_UnTrack(self);
  TupleList *t = as_tuplelist(self);
  if (t->weakrefs) PyObject_ClearWeakRefs(self);
  delete std::exchange(t->caches, nullptr);
  Py_CLEAR(t->wild);
  Py_CLEAR(t->inst_dict);
  PyList_Type.tp_dealloc(self);
}

// Calls a method of list on self with the given arguments.
nb::object call_list_method(PyObject *method, PyObject *self, PyObject *const *args, size_t nargs,
                            PyObject *kwnames) {
  size_t nkw = kwnames ? static_cast<size_t>(PyTuple_GET_SIZE(kwnames)) : 0;
  std::vector<PyObject *> stack(1 + nargs + nkw);
  stack[0] = self;
  std::copy(args, args + nargs + nkw, stack.begin() + 1);
  return owned(PyObject_Vectorcall(method, stack.data(), 1 + nargs, kwnames));
}

// A list method that changes the members: the list operation, then the kind reset when it may
// remove members, then clean (also when the operation failed halfway).
template <PyObject **method, bool removes>
PyObject *changing_method(PyObject *self, PyObject *const *args, Py_ssize_t nargs,
                          PyObject *kwnames) {
  return guarded<PyObject *>(nullptr, [&] {
    TupleList *t = as_tuplelist(self);
    auto after = [t] {
      if (removes) del_check(t);
      tuplelist_clean(t);
    };
    nb::object result;
    try {
      result = call_list_method(*method, self, args, static_cast<size_t>(nargs), kwnames);
    } catch (nb::python_error &) {
      after();
      throw;
    }
    after();
    return result.release().ptr();
  });
}
template <PyObject **method>
constexpr auto removing_method = changing_method<method, true>;
template <PyObject **method>
constexpr auto reordering_method = changing_method<method, false>;

PyObject *tl_append(PyObject *self, PyObject *item) {
  return guarded<PyObject *>(nullptr, [&] {
    TupleList *t = as_tuplelist(self);
    tuplelist_add_check(t, &item, 1);
    tuplelist_clean(t);
    ok(PyList_Append(self, item));
    Py_RETURN_NONE;
  });
}

PyObject *tl_extend(PyObject *self, PyObject *data) {
  return guarded<PyObject *>(nullptr, [&] {
    extend(as_tuplelist(self), data);
    Py_RETURN_NONE;
  });
}

PyObject *tl_insert(PyObject *self, PyObject *const *args, Py_ssize_t nargs) {
  return guarded<PyObject *>(nullptr, [&]() -> PyObject * {
    if (nargs != 2) {
      PyErr_Format(PyExc_TypeError, "insert expected 2 arguments, got %zd", nargs);
      return nullptr;
    }
    TupleList *t = as_tuplelist(self);
    tuplelist_add_check(t, &args[1], 1);
    tuplelist_clean(t);
    Py_ssize_t where = PyNumber_AsSsize_t(args[0], PyExc_OverflowError);
    if (where == -1 && PyErr_Occurred()) return nullptr;
    ok(PyList_Insert(self, where, args[1]));
    Py_RETURN_NONE;
  });
}

PyObject *tl_clean(PyObject *self, PyObject *) {
  tuplelist_clean(as_tuplelist(self));
  Py_RETURN_NONE;
}

// Collects what a selection on a tuplelist matched.
class TupleListResult : public SelectVisitor {
 public:
  explicit TupleListResult(PyObject *list) : list_(list) {}
  void all() override { pieces_.push_back({nullptr, 0}); }
  void group(const GroupIndexPtr &index, uint32_t g) override { pieces_.push_back({index, g}); }
  bool matched_all() const { return pieces_.size() == 1 && !pieces_[0].index; }

  // The concatenation of everything matched, as a new tuplelist.
  nb::object concatenation() const {
    std::vector<PyObject *> items;
    Py_ssize_t n = PyList_GET_SIZE(list_);
    for (const Piece &piece : pieces_) {
      if (!piece.index) {
        for (Py_ssize_t i = 0; i < n; ++i) items.push_back(Py_NewRef(PyList_GET_ITEM(list_, i)));
        continue;
      }
      const GroupIndex &index = *piece.index;
      for (uint32_t k = index.start[piece.group]; k < index.start[piece.group + 1]; ++k)
        if (static_cast<Py_ssize_t>(index.members[k]) < n)
          items.push_back(Py_NewRef(PyList_GET_ITEM(list_, index.members[k])));
    }
    nb::object result = new_tuplelist();
    list_adopt(result.ptr(), std::move(items));
    copy_kind(as_tuplelist(result.ptr()), as_tuplelist(list_));
    return result;
  }

  // The tuplelist stored for the single group that matched (made on first use), or a new empty
  // tuplelist when nothing matched.
  nb::object stored_group() const {
    if (pieces_.empty()) return new_tuplelist();
    GroupIndex &index = *pieces_[0].index;
    if (index.lists.empty()) index.lists.resize(index.start.size() - 1);
    nb::object &stored = index.lists[pieces_[0].group];
    if (!stored.is_valid()) stored = concatenation();
    return stored;
  }

 private:
  struct Piece {
    GroupIndexPtr index;  // null: the whole list
    uint32_t group;
  };
  PyObject *list_;
  std::vector<Piece> pieces_;
};

PyObject *tl_select(PyObject *self, PyObject *const *args, Py_ssize_t nargs) {
  return guarded<PyObject *>(nullptr, [&] {
    TupleList *t = as_tuplelist(self);
    nb::object wild = nb::borrow(t->wild);  // the attribute may be reassigned meanwhile
    SelectTarget target{self, wild.ptr(), t->scalar, tuplelist_indices, t};
    TupleListResult result(self);
    bool expanded = select_visit(target, args, nargs, result);
    if (expanded) return result.concatenation().release().ptr();
    if (result.matched_all()) return Py_NewRef(self);
    return result.stored_group().release().ptr();
  });
}

// Member -> True for every member; built on the first membership test after a change.
int tl_contains(PyObject *self, PyObject *value) {
  return guarded(-1, [&] {
    TupleList *t = as_tuplelist(self);
    nb::object contents = t->caches ? t->caches->contents : nb::object();
    if (!contents.is_valid()) {
      uint64_t version = t->version;
      contents = owned(PyDict_New());
      Py_ssize_t n = PyList_GET_SIZE(self);
      for (Py_ssize_t i = 0; i < n && i < PyList_GET_SIZE(self); ++i) {
        nb::object member = nb::borrow(PyList_GET_ITEM(self, i));
        ok(PyDict_SetItem(contents.ptr(), member.ptr(), Py_True));
      }
      if (t->version == version) caches_of(t).contents = contents;
    }
    PyObject *found = PyDict_GetItemWithError(contents.ptr(), value);
    if (!found && PyErr_Occurred()) throw nb::python_error();
    return found ? PyObject_IsTrue(found) : 0;
  });
}

enum class Neighbour { Prev, Next, PrevCyclic, NextCyclic };

nb::object &neighbour_slot(TupleListCaches &c, Neighbour which) {
  switch (which) {
    case Neighbour::Prev:
      return c.prev;
    case Neighbour::Next:
      return c.next;
    case Neighbour::PrevCyclic:
      return c.prevc;
    default:
      return c.nextc;
  }
}

template <Neighbour which>
PyObject *tl_neighbour(PyObject *self, PyObject *value) {
  return guarded<PyObject *>(nullptr, [&] {
    TupleList *t = as_tuplelist(self);
    nb::object map = t->caches ? neighbour_slot(*t->caches, which) : nb::object();
    if (!map.is_valid() || PyDict_GET_SIZE(map.ptr()) == 0) {
      uint64_t version = t->version;
      nb::object members = owned(PyList_GetSlice(self, 0, PyList_GET_SIZE(self)));
      Py_ssize_t n = PyList_GET_SIZE(members.ptr());
      auto at = [&](Py_ssize_t i) { return PyList_GET_ITEM(members.ptr(), i); };
      map = owned(PyDict_New());
      bool cyclic = which == Neighbour::PrevCyclic || which == Neighbour::NextCyclic;
      Py_ssize_t pairs = cyclic ? n : n - 1;
      for (Py_ssize_t i = 0; i < pairs; ++i) {
        PyObject *key, *val;
        switch (which) {
          case Neighbour::Prev:
            key = at(i + 1);
            val = at(i);
            break;
          case Neighbour::Next:
            key = at(i);
            val = at(i + 1);
            break;
          case Neighbour::PrevCyclic:
            key = at(i);
            val = at((i + n - 1) % n);
            break;
          default:
            key = at(i);
            val = at((i + 1) % n);
            break;
        }
        ok(PyDict_SetItem(map.ptr(), key, val));
      }
      if (PyDict_GET_SIZE(map.ptr()) != pairs) {
        PyErr_SetString(PyExc_KeyError, "Duplicate values in tupledict");
        throw nb::python_error();
      }
      if (t->version == version) neighbour_slot(caches_of(t), which) = map;
    }
    PyObject *found = PyDict_GetItemWithError(map.ptr(), value);
    if (!found) {
      if (PyErr_Occurred()) throw nb::python_error();
      raise_key_error(value);
    }
    return Py_NewRef(found);
  });
}

// Subscript assignment and deletion (index or slice).
int tl_ass_subscript(PyObject *self, PyObject *key, PyObject *value) {
  return guarded(-1, [&] {
    TupleList *t = as_tuplelist(self);
    auto base = PyList_Type.tp_as_mapping->mp_ass_subscript;
    if (!value) {
      int r = base(self, key, nullptr);
      del_check(t);
      tuplelist_clean(t);
      return r;
    }
    nb::object items;
    if (PySlice_Check(key)) {
      items = owned(PySequence_List(value));
      tuplelist_add_check(t, &PyList_GET_ITEM(items.ptr(), 0), PyList_GET_SIZE(items.ptr()));
    } else {
      items = nb::borrow(value);
      tuplelist_add_check(t, &value, 1);
    }
    tuplelist_clean(t);
    int r = base(self, key, items.ptr());
    del_check(t);
    return r;
  });
}

PyObject *tl_inplace_repeat(PyObject *self, Py_ssize_t count) {
  PyObject *r = PyList_Type.tp_as_sequence->sq_inplace_repeat(self, count);
  del_check(as_tuplelist(self));
  tuplelist_clean(as_tuplelist(self));
  return r;
}

// tuplelist(list(self) + other, wild).
PyObject *tl_add(PyObject *a, PyObject *b) {
  if (!tuplelist_check(a)) Py_RETURN_NOTIMPLEMENTED;
  return guarded<PyObject *>(nullptr, [&] {
    nb::object items = owned(PyList_GetSlice(a, 0, PyList_GET_SIZE(a)));
    nb::object joined = owned(PySequence_Concat(items.ptr(), b));
    nb::object result = new_tuplelist(as_tuplelist(a)->wild);
    extend(as_tuplelist(result.ptr()), joined.ptr());
    return result.release().ptr();
  });
}

PyObject *tl_inplace_add(PyObject *self, PyObject *other) {
  return guarded<PyObject *>(nullptr, [&] {
    extend(as_tuplelist(self), other);
    return Py_NewRef(self);
  });
}

// Python 2 style slice access by name: a tuplelist with the same wildcard.
// The slice(i, j) of the two arguments of a Python 2 style slice method.
nb::object slice_arguments(const char *method, PyObject *const *args, Py_ssize_t nargs) {
  if (nargs != 2) {
    PyErr_Format(PyExc_TypeError, "%s expected 2 arguments, got %zd", method, nargs);
    throw nb::python_error();
  }
  return owned(PySlice_New(args[0], args[1], nullptr));
}

PyObject *tl_getslice(PyObject *self, PyObject *const *args, Py_ssize_t nargs) {
  return guarded<PyObject *>(nullptr, [&]() -> PyObject * {
    nb::object slice = slice_arguments("__getslice__", args, nargs);
    nb::object items = owned(PyList_Type.tp_as_mapping->mp_subscript(self, slice.ptr()));
    nb::object result = new_tuplelist(as_tuplelist(self)->wild);
    extend(as_tuplelist(result.ptr()), items.ptr());
    return result.release().ptr();
  });
}

PyObject *tl_delslice(PyObject *self, PyObject *const *args, Py_ssize_t nargs) {
  return guarded<PyObject *>(nullptr, [&]() -> PyObject * {
    nb::object slice = slice_arguments("__delslice__", args, nargs);
    ok(tl_ass_subscript(self, slice.ptr(), nullptr));
    Py_RETURN_NONE;
  });
}

void append_utf8(std::string &out, PyObject *text) {
  Py_ssize_t n = 0;
  const char *s = PyUnicode_AsUTF8AndSize(text, &n);
  if (!s) throw nb::python_error();
  out.append(s, static_cast<size_t>(n));
}

PyObject *tl_repr(PyObject *self) {
  return guarded<PyObject *>(nullptr, [&]() -> PyObject * {
    TupleList *t = as_tuplelist(self);
    Py_ssize_t n = PyList_GET_SIZE(self);
    if (n == 0 || t->scalar != 0) return PyList_Type.tp_repr(self);
    Py_ssize_t fields = t->tuplelen;
    nb::object members = owned(PyList_GetSlice(self, 0, n));
    // Text and length (in characters) of every field.
    std::vector<nb::object> texts;
    std::vector<Py_ssize_t> width(static_cast<size_t>(fields), 0);
    for (Py_ssize_t i = 0; i < n; ++i) {
      PyObject *m = PyList_GET_ITEM(members.ptr(), i);
      if (!PyTuple_Check(m) || PyTuple_GET_SIZE(m) != fields) return PyList_Type.tp_repr(self);
      for (Py_ssize_t f = 0; f < fields; ++f) {
        nb::object s = owned(PyObject_Str(PyTuple_GET_ITEM(m, f)));
        width[static_cast<size_t>(f)] =
            std::max(width[static_cast<size_t>(f)], PyUnicode_GET_LENGTH(s.ptr()));
        texts.push_back(std::move(s));
      }
    }
    std::string out = "<kaviro.tuplelist (" + std::to_string(n) + " tuples, " +
                      std::to_string(fields) + " values each):\n";
    size_t k = 0;
    for (Py_ssize_t i = 0; i < n; ++i) {
      out += " ( ";
      for (Py_ssize_t f = 0; f < fields; ++f, ++k) {
        if (f) out += ", ";
        append_utf8(out, texts[k].ptr());
        Py_ssize_t pad = width[static_cast<size_t>(f)] - PyUnicode_GET_LENGTH(texts[k].ptr());
        out.append(static_cast<size_t>(pad), ' ');
      }
      out += ")\n";
    }
    out += ">";
    return PyUnicode_FromStringAndSize(out.data(), static_cast<Py_ssize_t>(out.size()));
  });
}

PyObject *tl_reduce(PyObject *self, PyObject *) {
  return guarded<PyObject *>(nullptr, [&] {
    TupleList *t = as_tuplelist(self);
    nb::object items = owned(PyList_GetSlice(self, 0, PyList_GET_SIZE(self)));
    nb::object state =
        t->inst_dict && PyDict_GET_SIZE(t->inst_dict) ? nb::borrow(t->inst_dict) : nb::none();
    return owned(Py_BuildValue("(O(OO)O)", Py_TYPE(self), items.ptr(), t->wild, state.ptr()))
        .release()
        .ptr();
  });
}

// ---------------------------------------------------------------- private state as attributes

PyObject *get_wild(PyObject *self, void *) { return Py_NewRef(as_tuplelist(self)->wild); }

int set_wild_attr(PyObject *self, PyObject *value, void *) {
  if (!value) {
    PyErr_SetString(PyExc_AttributeError, "the wildcard cannot be deleted");
    return -1;
  }
  set_wild(as_tuplelist(self), value);
  return 0;
}

PyObject *get_scalar(PyObject *self, void *) {
  int s = as_tuplelist(self)->scalar;
  if (s < 0) Py_RETURN_NONE;
  return PyBool_FromLong(s);
}

PyObject *get_tuplelen(PyObject *self, void *) {
  Py_ssize_t n = as_tuplelist(self)->tuplelen;
  if (n < 0) Py_RETURN_NONE;
  return PyLong_FromSsize_t(n);
}

// {pattern: {key: tuplelist of the members with that key}} for every pattern indexed so far.
PyObject *get_index(PyObject *self, void *) {
  return guarded<PyObject *>(nullptr, [&] {
    TupleList *t = as_tuplelist(self);
    nb::object out = owned(PyDict_New());
    if (!t->caches) return out.release().ptr();
    std::vector<std::pair<std::vector<Py_ssize_t>, GroupIndexPtr>> all;
    t->caches->index.for_each(
        [&](const std::vector<Py_ssize_t> &positions, const GroupIndexPtr &index) {
          all.emplace_back(positions, index);
        });
    for (auto &[positions, index] : all) {
      nb::object pattern = owned(PyTuple_New(static_cast<Py_ssize_t>(positions.size())));
      for (size_t i = 0; i < positions.size(); ++i)
        PyTuple_SET_ITEM(pattern.ptr(), static_cast<Py_ssize_t>(i),
                         owned(PyLong_FromSsize_t(positions[i])).release().ptr());
      nb::object groups = owned(PyDict_New());
      PyObject *key, *number;
      Py_ssize_t pos = 0;
      while (PyDict_Next(index->groups.ptr(), &pos, &key, &number)) {
        TupleListResult members(self);
        members.group(index, static_cast<uint32_t>(PyLong_AsUnsignedLong(number)));
        ok(PyDict_SetItem(groups.ptr(), key, members.stored_group().ptr()));
      }
      ok(PyDict_SetItem(out.ptr(), pattern.ptr(), groups.ptr()));
    }
    return out.release().ptr();
  });
}

PyObject *get_contents(PyObject *self, void *) {
  TupleList *t = as_tuplelist(self);
  if (!t->caches || !t->caches->contents.is_valid()) Py_RETURN_NONE;
  return Py_NewRef(t->caches->contents.ptr());
}

template <Neighbour which>
PyObject *get_neighbours(PyObject *self, void *) {
  TupleList *t = as_tuplelist(self);
  if (t->caches && neighbour_slot(*t->caches, which).is_valid())
    return Py_NewRef(neighbour_slot(*t->caches, which).ptr());
  return PyDict_New();
}

PyGetSetDef tl_getset[] = {
    {"_tuplelist__wild", get_wild, set_wild_attr, "The wildcard value of select.", nullptr},
    {"_tuplelist__scalar", get_scalar, nullptr,
     "None while the kind is open, True for scalars, False for tuples.", nullptr},
    {"_tuplelist__tuplelen", get_tuplelen, nullptr,
     "The common length of the tuples, None while the kind is open.", nullptr},
    {"_tuplelist__index", get_index, nullptr, "The selection indices, per pattern.", nullptr},
    {"_tuplelist__contents", get_contents, nullptr, "The membership map, or None.", nullptr},
    {"_tuplelist__prev", get_neighbours<Neighbour::Prev>, nullptr, "Member -> previous member.",
     nullptr},
    {"_tuplelist__next", get_neighbours<Neighbour::Next>, nullptr, "Member -> next member.",
     nullptr},
    {"_tuplelist__prevc", get_neighbours<Neighbour::PrevCyclic>, nullptr,
     "Member -> previous member, cyclic.", nullptr},
    {"_tuplelist__nextc", get_neighbours<Neighbour::NextCyclic>, nullptr,
     "Member -> next member, cyclic.", nullptr},
    {"__dict__", PyObject_GenericGetDict, PyObject_GenericSetDict, nullptr, nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

#define FASTCALL_KW(f) reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(f))

PyMethodDef tl_methods[] = {
    {"select", FASTCALL_KW(tl_select), METH_FASTCALL,
     "select(*args)\n\nThe members that match the arguments field by field. The wildcard ('*' "
     "unless another was given) matches any value; a list (or other non-string iterable) matches "
     "any of its items; fields beyond the last argument are not constrained. Without a constraint "
     "the result is this list itself; otherwise it is a tuplelist, empty when nothing "
     "matches.\n\nExample: m = l.select('*', 1, '*', 'a')"},
    {"clean", tl_clean, METH_NOARGS,
     "clean()\n\nDrops the selection indices, the membership map and the neighbour maps, to give "
     "back their memory. They are rebuilt when next needed."},
    {"append", tl_append, METH_O, "append(x)\n\nAppends x after checking its kind."},
    {"extend", tl_extend, METH_O, "extend(L)\n\nAppends the items of L after checking their kind."},
    {"insert", FASTCALL_KW(tl_insert), METH_FASTCALL,
     "insert(i, x)\n\nInserts x before position i after checking its kind."},
    {"pop", FASTCALL_KW(removing_method<&g_list_pop>), METH_FASTCALL | METH_KEYWORDS,
     "pop(i=-1)\n\nRemoves and returns the member at position i."},
    {"remove", FASTCALL_KW(removing_method<&g_list_remove>), METH_FASTCALL | METH_KEYWORDS,
     "remove(x)\n\nRemoves the first member equal to x."},
    {"clear", FASTCALL_KW(removing_method<&g_list_clear>), METH_FASTCALL | METH_KEYWORDS,
     "clear()\n\nRemoves every member."},
    {"sort", FASTCALL_KW(reordering_method<&g_list_sort>), METH_FASTCALL | METH_KEYWORDS,
     "sort(*, key=None, reverse=False)\n\nSorts the members in place."},
    {"reverse", FASTCALL_KW(reordering_method<&g_list_reverse>), METH_FASTCALL | METH_KEYWORDS,
     "reverse()\n\nReverses the order of the members in place."},
    {"prev", tl_neighbour<Neighbour::Prev>, METH_O,
     "prev(v)\n\nThe member just before v (KeyError for the first member and for non-members)."},
    {"next", tl_neighbour<Neighbour::Next>, METH_O,
     "next(v)\n\nThe member just after v (KeyError for the last member and for non-members)."},
    {"prevc", tl_neighbour<Neighbour::PrevCyclic>, METH_O,
     "prevc(v)\n\nThe member just before v; the member before the first is the last."},
    {"nextc", tl_neighbour<Neighbour::NextCyclic>, METH_O,
     "nextc(v)\n\nThe member just after v; the member after the last is the first."},
    {"__getslice__", FASTCALL_KW(tl_getslice), METH_FASTCALL,
     "__getslice__(b, c)\n\nThe members from position b to c as a tuplelist with the same "
     "wildcard."},
    {"__delslice__", FASTCALL_KW(tl_delslice), METH_FASTCALL,
     "__delslice__(i, j)\n\nRemoves the members from position i to j."},
    {"__reduce__", tl_reduce, METH_NOARGS, "Pickling support."},
    {nullptr, nullptr, 0, nullptr},
};

PySequenceMethods tl_as_sequence = {};
PyMappingMethods tl_as_mapping = {};
PyNumberMethods tl_as_number = {};

const char kTupleListDoc[] =
    "tuplelist(data=[], wild='*')\n\n"
    "kaviro tuplelist: a list of tuples of one common length (or of scalars) with fast "
    "selection of the members that match given values in chosen fields.\n\n"
    "It is designed for tuples of scalar values (int, float, string, ...); other members, such as "
    "tuples of tuples, may give unpredictable results.\n\n"
    "Selection indices are built on first use, one per pattern of constrained fields, and dropped "
    "whenever the contents change.\n\n"
    "Example:\n"
    "  l = tuplelist([(1, 2), (1, 3), (2, 3), (2, 4)])\n"
    "  print(l.select(1, '*'))    # (1, 2) and (1, 3)\n"
    "  print(l.select('*', 3))    # (1, 3) and (2, 3)\n"
    "  print(l.select('*', '*'))  # all four tuples\n";

}  // namespace

nb::object new_tuplelist(PyObject *wild) {
  nb::object empty = owned(PyTuple_New(0));
  nb::object result = owned(tl_new(&TupleListType, empty.ptr(), nullptr));
  if (wild) set_wild(as_tuplelist(result.ptr()), wild);
  return result;
}

void tuplelist_add_check(TupleList *self, PyObject *const *items, Py_ssize_t n) {
  if (n == 0) return;
  if (self->scalar < 0) self->scalar = !PyTuple_CheckExact(items[0]);
  for (Py_ssize_t i = 0; i < n; ++i)
    if (!PyTuple_CheckExact(items[i]) != (self->scalar == 1)) {
      PyErr_SetString(PyExc_ValueError, "Cannot mix scalar and tuple values in a tuplelist");
      throw nb::python_error();
    }
  if (self->scalar == 1) return;
  if (self->tuplelen < 0) self->tuplelen = PyTuple_GET_SIZE(items[0]);
  for (Py_ssize_t i = 0; i < n; ++i)
    if (PyTuple_GET_SIZE(items[i]) != self->tuplelen) {
      PyErr_SetString(PyExc_ValueError, "All tuples in a tuplelist must be the same length");
      throw nb::python_error();
    }
}

void list_adopt(PyObject *list, std::vector<PyObject *> &&items) {
  PyListObject *l = reinterpret_cast<PyListObject *>(list);
  if (items.empty()) return;
  if (Py_SIZE(l) != 0) {
    for (PyObject *o : items) Py_DECREF(o);
    items.clear();
    PyErr_SetString(PyExc_SystemError, "list_adopt on a non-empty list");
    throw nb::python_error();
  }
  PyObject **storage = PyMem_New(PyObject *, items.size());
  if (!storage) {
    for (PyObject *o : items) Py_DECREF(o);
    items.clear();
    throw std::bad_alloc();
  }
  std::memcpy(storage, items.data(), items.size() * sizeof(PyObject *));
  PyMem_Free(l->ob_item);
  l->ob_item = storage;
  l->allocated = static_cast<Py_ssize_t>(items.size());
  Py_SET_SIZE(l, static_cast<Py_ssize_t>(items.size()));
  items.clear();
}

void tuplelist_clean(TupleList *self) {
  ++self->version;
  delete std::exchange(self->caches, nullptr);
}

void init_tuplelist(nb::module_ &m) {
  g_star = PyUnicode_InternFromString("*");
  auto list_method = [](const char *name) {
    PyObject *method = PyDict_GetItemString(PyList_Type.tp_dict, name);
    if (!method) throw std::runtime_error(std::string("list has no method ") + name);
    return Py_NewRef(method);
  };
  g_list_pop = list_method("pop");
  g_list_remove = list_method("remove");
  g_list_sort = list_method("sort");
  g_list_reverse = list_method("reverse");
  g_list_clear = list_method("clear");

  tl_as_sequence.sq_contains = tl_contains;
  tl_as_sequence.sq_inplace_repeat = tl_inplace_repeat;
  tl_as_mapping.mp_ass_subscript = tl_ass_subscript;
  tl_as_number.nb_add = tl_add;
  tl_as_number.nb_inplace_add = tl_inplace_add;

  PyTypeObject &t = TupleListType;
  t.tp_name = "kaviropy.tuplelist";
  t.tp_basicsize = sizeof(TupleList);
  t.tp_flags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE | Py_TPFLAGS_HAVE_GC;
  t.tp_doc = kTupleListDoc;
  t.tp_base = &PyList_Type;
  t.tp_new = tl_new;
  t.tp_init = tl_init;
  t.tp_dealloc = tl_dealloc;
  t.tp_traverse = tl_traverse;
  t.tp_clear = tl_clear;
  t.tp_repr = tl_repr;
  t.tp_methods = tl_methods;
  t.tp_getset = tl_getset;
  t.tp_as_sequence = &tl_as_sequence;
  t.tp_as_mapping = &tl_as_mapping;
  t.tp_as_number = &tl_as_number;
  t.tp_dictoffset = offsetof(TupleList, inst_dict);
  t.tp_weaklistoffset = offsetof(TupleList, weakrefs);
  if (PyType_Ready(&t) < 0) throw nb::python_error();
  m.attr("tuplelist") = nb::handle(reinterpret_cast<PyObject *>(&t));
}

}  // namespace kvrpy
