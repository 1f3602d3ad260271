// tupledict: a dict subclass whose keys are held, for selection, in a cached tuplelist ordered by
// insertion rank; select, sum and prod run on indices of key positions and a list of the values
// parallel to the keys, so a repeated pattern costs one dictionary lookup.
#include <algorithm>
#include <numeric>
#include <utility>

#include "expr.h"
#include "tuplelist.h"

namespace kvrpy {

PyTypeObject TupleDictType = {PyVarObject_HEAD_INIT(nullptr, 0)};

namespace {

// Everything derived from the dictionary's contents; dropped by clean().
struct TupleDictCache {
  nb::object keys;    // the key tuplelist
  nb::object values;  // list of the values, parallel to keys
  uint64_t keys_version = 0;
#if PY_VERSION_HEX < 0x030C0000
  uint64_t dict_version = 0;
#endif
  PatternIndices index;  // key positions per pattern
};

struct TupleDict {
  PyDictObject dict;
  PyObject *inst_dict;
  PyObject *weakrefs;
  PyObject *wild;
  PyObject *pos;  // key -> insertion rank
  TupleDictCache *cache;
};

PyTypeObject TupleDictIterType = {PyVarObject_HEAD_INIT(nullptr, 0)};

PyObject *g_star = nullptr;
PyObject *g_dict_clear, *g_dict_pop, *g_dict_popitem, *g_dict_update, *g_dict_setdefault;

TupleDict *as_tupledict(PyObject *o) { return reinterpret_cast<TupleDict *>(o); }
PyObject *as_object(TupleDict *t) { return reinterpret_cast<PyObject *>(t); }

void td_clean(TupleDict *self) { delete std::exchange(self->cache, nullptr); }

void replace(PyObject *&field, PyObject *value) {
  PyObject *old = field;
  field = Py_NewRef(value);
  Py_XDECREF(old);
}

bool dict_unchanged(TupleDict *self, const TupleDictCache &c) {
#if PY_VERSION_HEX < 0x030C0000
  return self->dict.ma_version_tag == c.dict_version;
#else
  (void)self;
  (void)c;
  return true;
#endif
}

void stamp(TupleDict *self, TupleDictCache &c) {
  c.keys_version = as_tuplelist(c.keys.ptr())->version;
#if PY_VERSION_HEX < 0x030C0000
  c.dict_version = self->dict.ma_version_tag;
#else
  (void)self;
#endif
}

// ---------------------------------------------------------------- keys and values

// Rebuilds the key tuplelist: the dict's keys sorted, stably, by insertion rank; keys without a
// rank share the rank len(pos).
void build_cache(TupleDict *self) {
  td_clean(self);
  std::vector<PyObject *> keys, values;  // new references until adopted
  auto release = [&] {
    for (PyObject *o : keys) Py_DECREF(o);
    for (PyObject *o : values) Py_DECREF(o);
  };
  try {
    Py_ssize_t n = PyDict_GET_SIZE(self), at = 0;
    keys.reserve(static_cast<size_t>(n));
    values.reserve(static_cast<size_t>(n));
    PyObject *key, *value;
    while (PyDict_Next(as_object(self), &at, &key, &value)) {
      keys.push_back(Py_NewRef(key));
      values.push_back(Py_NewRef(value));
    }
    n = static_cast<Py_ssize_t>(keys.size());
    nb::object pos = nb::borrow(self->pos);
    Py_ssize_t unranked = PyDict_GET_SIZE(pos.ptr());
    if (unranked > 0 && n > 1) {
      std::vector<Py_ssize_t> rank(keys.size());
      for (size_t i = 0; i < keys.size(); ++i) {
        PyObject *r = PyDict_GetItemWithError(pos.ptr(), keys[i]);
        if (!r && PyErr_Occurred()) throw nb::python_error();
        rank[i] = r ? PyLong_AsSsize_t(r) : unranked;
        if (rank[i] == -1 && PyErr_Occurred()) throw nb::python_error();
      }
      if (!std::is_sorted(rank.begin(), rank.end())) {
        std::vector<size_t> order(keys.size());
        std::iota(order.begin(), order.end(), size_t{0});
        std::stable_sort(order.begin(), order.end(),
                         [&](size_t a, size_t b) { return rank[a] < rank[b]; });
        std::vector<PyObject *> k2, v2;
        k2.reserve(keys.size());
        v2.reserve(keys.size());
        for (size_t i : order) {
          k2.push_back(keys[i]);
          v2.push_back(values[i]);
        }
        keys.swap(k2);
        values.swap(v2);
      }
    }
    nb::object key_list = new_tuplelist(self->wild);
    tuplelist_add_check(as_tuplelist(key_list.ptr()), keys.data(), n);
    nb::object value_list = owned(PyList_New(n));
    for (Py_ssize_t i = 0; i < n; ++i)
      PyList_SET_ITEM(value_list.ptr(), i, values[static_cast<size_t>(i)]);
    values.clear();
    list_adopt(key_list.ptr(), std::move(keys));
    td_clean(self);  // ranks were looked up with Python code
    auto *cache = new TupleDictCache();
    cache->keys = std::move(key_list);
    cache->values = std::move(value_list);
    stamp(self, *cache);
    self->cache = cache;
  } catch (...) {
    release();
    throw;
  }
}

nb::object keys_of(TupleDict *self) {
  if (!self->cache || PyList_GET_SIZE(self->cache->keys.ptr()) == 0) build_cache(self);
  return self->cache->keys;
}

// The key tuplelist and the values in its order, as references that stay valid whatever Python
// code run later does to the dictionary.
struct Snapshot {
  nb::object keys;
  nb::object values;
  Py_ssize_t size() const { return PyList_GET_SIZE(values.ptr()); }
  PyObject *key(Py_ssize_t i) const {
    return i < PyList_GET_SIZE(keys.ptr()) ? PyList_GET_ITEM(keys.ptr(), i) : nullptr;
  }
  PyObject *value(Py_ssize_t i) const { return PyList_GET_ITEM(values.ptr(), i); }
};

Snapshot snapshot(TupleDict *self) {
  nb::object keys = keys_of(self);
  TupleDictCache &c = *self->cache;
  if (as_tuplelist(keys.ptr())->version == c.keys_version && dict_unchanged(self, c))
    return {keys, c.values};
  // The key list was changed through the object keys() handed out, or the dict through a base
  // class method: look the values up again.
  Py_ssize_t n = PyList_GET_SIZE(keys.ptr());
  nb::object values = owned(PyList_New(n));
  for (Py_ssize_t i = 0; i < n && i < PyList_GET_SIZE(keys.ptr()); ++i)
    PyList_SET_ITEM(
        values.ptr(), i,
        owned(PyObject_GetItem(as_object(self), PyList_GET_ITEM(keys.ptr(), i))).release().ptr());
  if (self->cache && self->cache->keys.is(keys)) {
    self->cache->values = values;
    self->cache->index = PatternIndices();
    stamp(self, *self->cache);
  }
  return {keys, values};
}

// The indices in the cache, while the cache still belongs to the key list being searched.
PatternIndices *tupledict_indices(void *owner, PyObject *list, bool) {
  auto *self = static_cast<TupleDict *>(owner);
  return self->cache && self->cache->keys.ptr() == list ? &self->cache->index : nullptr;
}

// The key positions a selection matched, in order.
class Positions : public SelectVisitor {
 public:
  void all() override { pieces_.push_back({nullptr, 0}); }
  void group(const GroupIndexPtr &index, uint32_t g) override { pieces_.push_back({index, g}); }
  // Number of positions matched, for reserving room (for_each may skip some past `size`).
  Py_ssize_t count(Py_ssize_t size) const {
    Py_ssize_t n = 0;
    for (const Piece &piece : pieces_)
      n += piece.index ? piece.index->start[piece.group + 1] - piece.index->start[piece.group]
                       : size;
    return n;
  }
  template <class F>
  void for_each(Py_ssize_t size, F &&f) const {
    for (const Piece &piece : pieces_) {
      if (!piece.index) {
        for (Py_ssize_t i = 0; i < size; ++i) f(i);
        continue;
      }
      const GroupIndex &index = *piece.index;
      for (uint32_t k = index.start[piece.group]; k < index.start[piece.group + 1]; ++k)
        if (static_cast<Py_ssize_t>(index.members[k]) < size) f(index.members[k]);
    }
  }

 private:
  struct Piece {
    GroupIndexPtr index;
    uint32_t group;
  };
  std::vector<Piece> pieces_;
};

Positions select_positions(TupleDict *self, const Snapshot &s, PyObject *const *args,
                           Py_ssize_t nargs) {
  Positions positions;
  TupleList *keys = as_tuplelist(s.keys.ptr());
  nb::object wild = nb::borrow(keys->wild);
  SelectTarget target{s.keys.ptr(), wild.ptr(), keys->scalar, tupledict_indices, self};
  select_visit(target, args, nargs, positions);
  return positions;
}

// The running sum of sum() and prod(): one expression built in place, no expression per item.
class TermSum {
 public:
  void reserve(Py_ssize_t terms) { sum_.reserve(static_cast<size_t>(terms)); }
  void add(PyObject *item) { sum_.add(item); }
  // coeff * item; a coefficient that is a number scales the item as it is added.
  void add_product(PyObject *coeff, PyObject *item) {
    double c;
    if (isscalar(coeff, &c))
      sum_.add(item, c);
    else
      sum_.add(owned(PyNumber_Multiply(coeff, item)));
  }
  nb::object result() { return sum_.result(); }

 private:
  ExprSum sum_;
};

// ---------------------------------------------------------------- type slots

PyObject *td_new(PyTypeObject *type, PyObject *args, PyObject *kwds) {
  PyObject *self = PyDict_Type.tp_new(type, args, kwds);
  if (!self) return nullptr;
  TupleDict *t = as_tupledict(self);
  t->inst_dict = nullptr;
  t->weakrefs = nullptr;
  t->wild = Py_NewRef(g_star);
  t->pos = PyDict_New();
  t->cache = nullptr;
  if (!t->pos) {
    Py_DECREF(self);
    return nullptr;
  }
  return self;
}

int td_init(PyObject *self, PyObject *args, PyObject *kwds) {
  return guarded(-1, [&] {
    ok(PyDict_Type.tp_init(self, args, kwds));
    TupleDict *t = as_tupledict(self);
    replace(t->wild, g_star);
    nb::object pos = owned(PyDict_New());
    replace(t->pos, pos.ptr());
    td_clean(t);
    return 0;
  });
}

int td_traverse(PyObject *self, visitproc visit, void *arg) {
  TupleDict *t = as_tupledict(self);
  Py_VISIT(t->wild);
  Py_VISIT(t->pos);
  Py_VISIT(t->inst_dict);
  if (TupleDictCache *c = t->cache) {
    Py_VISIT(c->keys.ptr());
    Py_VISIT(c->values.ptr());
    if (int r = c->index.traverse(visit, arg)) return r;
  }
  return PyDict_Type.tp_traverse(self, visit, arg);
}

int td_clear(PyObject *self) {
  TupleDict *t = as_tupledict(self);
  td_clean(t);
  replace(t->wild, g_star);
  if (PyObject *pos = PyDict_New()) {
    replace(t->pos, pos);
    Py_DECREF(pos);
  } else {
    PyErr_Clear();
  }
  Py_CLEAR(t->inst_dict);
  return PyDict_Type.tp_clear(self);
}

void td_dealloc(PyObject *self) {
  PyObject_GC_UnTrack(self);
  TupleDict *t = as_tupledict(self);
  if (t->weakrefs) PyObject_ClearWeakRefs(self);
  td_clean(t);
  Py_CLEAR(t->wild);
  Py_CLEAR(t->pos);
  Py_CLEAR(t->inst_dict);
  PyDict_Type.tp_dealloc(self);
}

// d[key] = value ranks the key behind every ranked key; del d[key] leaves the ranks alone.
int td_ass_subscript(PyObject *self, PyObject *key, PyObject *value) {
  return guarded(-1, [&] {
    TupleDict *t = as_tupledict(self);
    int r = PyDict_Type.tp_as_mapping->mp_ass_subscript(self, key, value);
    if (r == 0 && value) {
      nb::object pos = nb::borrow(t->pos);
      nb::object rank = owned(PyLong_FromSsize_t(PyDict_GET_SIZE(pos.ptr())));
      ok(PyDict_SetItem(pos.ptr(), key, rank.ptr()));
    }
    td_clean(t);
    return r;
  });
}

// A dict method that changes the contents: the dict operation, then clean.
template <PyObject **method>
PyObject *changing_method(PyObject *self, PyObject *const *args, Py_ssize_t nargs,
                          PyObject *kwnames) {
  return guarded<PyObject *>(nullptr, [&] {
    size_t nkw = kwnames ? static_cast<size_t>(PyTuple_GET_SIZE(kwnames)) : 0;
    std::vector<PyObject *> stack(1 + static_cast<size_t>(nargs) + nkw);
    stack[0] = self;
    std::copy(args, args + nargs + static_cast<Py_ssize_t>(nkw), stack.begin() + 1);
    PyObject *r =
        PyObject_Vectorcall(*method, stack.data(), 1 + static_cast<size_t>(nargs), kwnames);
    td_clean(as_tupledict(self));
    return r;
  });
}

PyObject *td_inplace_or(PyObject *self, PyObject *other) {
  PyObject *r = PyDict_Type.tp_as_number->nb_inplace_or(self, other);
  if (PyObject_TypeCheck(self, &TupleDictType)) td_clean(as_tupledict(self));
  return r;
}

// Iterator over the keys of a key list yielding (key, d[key]) or d[key], looked up when reached.
struct TupleDictIter {
  PyObject_HEAD PyObject *keys;
  PyObject *dict;
  Py_ssize_t next;
  bool items;
};

nb::object new_iter(PyObject *keys, PyObject *dict, bool items) {
  auto *it = PyObject_GC_New(TupleDictIter, &TupleDictIterType);
  if (!it) throw nb::python_error();
  it->keys = Py_NewRef(keys);
  it->dict = Py_NewRef(dict);
  it->next = 0;
  it->items = items;
  PyObject_GC_Track(it);
  return nb::steal(reinterpret_cast<PyObject *>(it));
}

PyObject *iter_next(PyObject *self) {
  auto *it = reinterpret_cast<TupleDictIter *>(self);
  if (!it->keys || it->next >= PyList_GET_SIZE(it->keys)) return nullptr;
  PyObject *key = Py_NewRef(PyList_GET_ITEM(it->keys, it->next++));
  PyObject *value = PyObject_GetItem(it->dict, key);
  PyObject *result = value && it->items ? PyTuple_Pack(2, key, value) : Py_XNewRef(value);
  Py_DECREF(key);
  Py_XDECREF(value);
  return result;
}

int iter_traverse(PyObject *self, visitproc visit, void *arg) {
  auto *it = reinterpret_cast<TupleDictIter *>(self);
  Py_VISIT(it->keys);
  Py_VISIT(it->dict);
  return 0;
}

int iter_clear(PyObject *self) {
  auto *it = reinterpret_cast<TupleDictIter *>(self);
  Py_CLEAR(it->keys);
  Py_CLEAR(it->dict);
  return 0;
}

void iter_dealloc(PyObject *self) {
  PyObject_GC_UnTrack(self);
  iter_clear(self);
  PyObject_GC_Del(self);
}

PyObject *td_iter(PyObject *self) {
  return guarded<PyObject *>(nullptr, [&] {
    return owned(PyObject_GetIter(keys_of(as_tupledict(self)).ptr())).release().ptr();
  });
}

// ---------------------------------------------------------------- methods

PyObject *td_keys(PyObject *self, PyObject *) {
  return guarded<PyObject *>(nullptr, [&] { return keys_of(as_tupledict(self)).release().ptr(); });
}

PyObject *td_iterkeys(PyObject *self, PyObject *) { return td_iter(self); }

PyObject *td_itervalues(PyObject *self, PyObject *) {
  return guarded<PyObject *>(nullptr, [&] {
    return new_iter(keys_of(as_tupledict(self)).ptr(), self, false).release().ptr();
  });
}

PyObject *td_iteritems(PyObject *self, PyObject *const *args, Py_ssize_t nargs) {
  return guarded<PyObject *>(nullptr, [&] {
    TupleDict *t = as_tupledict(self);
    Snapshot s = snapshot(t);
    if (nargs == 0) return new_iter(s.keys.ptr(), self, true).release().ptr();
    Positions matched = select_positions(t, s, args, nargs);
    nb::object keys = owned(PyList_New(0));
    matched.for_each(s.size(), [&](Py_ssize_t i) {
      if (PyObject *k = s.key(i)) ok(PyList_Append(keys.ptr(), k));
    });
    return new_iter(keys.ptr(), self, true).release().ptr();
  });
}

PyObject *td_items(PyObject *self, PyObject *) {
  return guarded<PyObject *>(nullptr, [&] {
    Snapshot s = snapshot(as_tupledict(self));
    Py_ssize_t n = s.size();
    nb::object out = owned(PyList_New(n));
    for (Py_ssize_t i = 0; i < n; ++i) {
      PyObject *k = s.key(i);
      PyList_SET_ITEM(out.ptr(), i,
                      owned(PyTuple_Pack(2, k ? k : Py_None, s.value(i))).release().ptr());
    }
    return out.release().ptr();
  });
}

PyObject *td_values(PyObject *self, PyObject *) {
  return guarded<PyObject *>(nullptr, [&] {
    Snapshot s = snapshot(as_tupledict(self));
    return owned(PyList_GetSlice(s.values.ptr(), 0, s.size())).release().ptr();
  });
}

PyObject *td_select(PyObject *self, PyObject *const *args, Py_ssize_t nargs) {
  return guarded<PyObject *>(nullptr, [&] {
    TupleDict *t = as_tupledict(self);
    Snapshot s = snapshot(t);
    Positions matched = select_positions(t, s, args, nargs);
    Py_ssize_t count = 0;
    matched.for_each(s.size(), [&](Py_ssize_t) { ++count; });
    nb::object out = owned(PyList_New(count));
    Py_ssize_t at = 0;
    matched.for_each(
        s.size(), [&](Py_ssize_t i) { PyList_SET_ITEM(out.ptr(), at++, Py_NewRef(s.value(i))); });
    return out.release().ptr();
  });
}

void setord(TupleDict *self, PyObject *order) {
  nb::object pos = owned(PyDict_New());
  nb::object it = owned(PyObject_GetIter(order));
  Py_ssize_t i = 0;
  while (PyObject *item = PyIter_Next(it.ptr())) {
    nb::object key = nb::steal(item);
    nb::object rank = owned(PyLong_FromSsize_t(i++));
    ok(PyDict_SetItem(pos.ptr(), key.ptr(), rank.ptr()));
  }
  if (PyErr_Occurred()) throw nb::python_error();
  replace(self->pos, pos.ptr());
}

PyObject *td_setord(PyObject *self, PyObject *order) {
  return guarded<PyObject *>(nullptr, [&] {
    setord(as_tupledict(self), order);
    Py_RETURN_NONE;
  });
}

PyObject *td_subset(PyObject *self, PyObject *const *args, Py_ssize_t nargs) {
  return guarded<PyObject *>(nullptr, [&] {
    TupleDict *t = as_tupledict(self);
    Snapshot s = snapshot(t);
    Positions matched = select_positions(t, s, args, nargs);
    nb::object out = new_tupledict();
    nb::object keys = owned(PyList_New(0));
    matched.for_each(s.size(), [&](Py_ssize_t i) {
      PyObject *k = s.key(i);
      if (!k) return;
      ok(PyDict_SetItem(out.ptr(), k, s.value(i)));
      ok(PyList_Append(keys.ptr(), k));
    });
    setord(as_tupledict(out.ptr()), keys.ptr());
    replace(as_tupledict(out.ptr())->wild, t->wild);
    return out.release().ptr();
  });
}

PyObject *td_sum(PyObject *self, PyObject *const *args, Py_ssize_t nargs) {
  return guarded<PyObject *>(nullptr, [&] {
    TupleDict *t = as_tupledict(self);
    Snapshot s = snapshot(t);
    Positions matched = select_positions(t, s, args, nargs);
    TermSum sum;
    sum.reserve(matched.count(s.size()));
    matched.for_each(s.size(), [&](Py_ssize_t i) { sum.add(s.value(i)); });
    return sum.result().release().ptr();
  });
}

[[noreturn]] void type_error(const char *message) {
  PyErr_SetString(PyExc_TypeError, message);
  throw nb::python_error();
}

// Walks the entries of a coefficient dictionary in its own order.
template <class F>
void for_each_entry(PyObject *d, F &&f) {
  if (PyDict_CheckExact(d)) {
    PyObject *key, *value;
    Py_ssize_t at = 0;
    while (PyDict_Next(d, &at, &key, &value)) {
      nb::object k = nb::borrow(key), v = nb::borrow(value);
      f(k.ptr(), v.ptr());
    }
    return;
  }
  nb::object items = owned(PyObject_CallMethod(d, "items", nullptr));
  nb::object it = owned(PyObject_GetIter(items.ptr()));
  while (PyObject *next = PyIter_Next(it.ptr())) {
    nb::object pair = nb::steal(next);
    nb::object seq = owned(PySequence_Tuple(pair.ptr()));
    if (PyTuple_GET_SIZE(seq.ptr()) != 2) type_error("items() of the coefficients must be pairs");
    f(PyTuple_GET_ITEM(seq.ptr(), 0), PyTuple_GET_ITEM(seq.ptr(), 1));
  }
  if (PyErr_Occurred()) throw nb::python_error();
}

// Keys of built-in types whose equality agrees with their hash: equal keys are the same entry.
bool same_key(PyObject *a, PyObject *b) {
  if (a == b) return true;
  if (Py_TYPE(a) != Py_TYPE(b) ||
      !(PyTuple_CheckExact(a) || PyLong_CheckExact(a) || PyUnicode_CheckExact(a)))
    return false;
  int equal = PyObject_RichCompareBool(a, b, Py_EQ);
  ok(equal);
  return equal == 1;
}

nb::object prod(TupleDict *self, PyObject *coeffs, PyObject *const *args, Py_ssize_t nargs) {
  PyObject *me = as_object(self);
  if (PyDict_Check(coeffs)) {
    TermSum sum;
    if (nargs == 0 && PyObject_Length(coeffs) < PyDict_GET_SIZE(me)) {
      // Fewer coefficients than entries: walk the coefficients.
      for_each_entry(coeffs, [&](PyObject *key, PyObject *coeff) {
        PyObject *value = PyDict_GetItemWithError(me, key);
        if (!value) {
          if (PyErr_Occurred()) throw nb::python_error();
          return;
        }
        nb::object keep = nb::borrow(value);
        sum.add_product(coeff, keep.ptr());
      });
      return sum.result();
    }
    Snapshot s = snapshot(self);
    Positions matched = select_positions(self, s, args, nargs);
    sum.reserve(matched.count(s.size()));
    // Coefficient dictionaries are often built in the same key order: while the entries line up
    // with the keys, take them in step instead of looking each key up.
    // A dict subclass may define its own lookup: ask it as Python code would.
    bool plain = PyDict_CheckExact(coeffs) || PyObject_TypeCheck(coeffs, &TupleDictType);
    bool in_step = nargs == 0 && plain;
    Py_ssize_t at = 0;
    matched.for_each(s.size(), [&](Py_ssize_t i) {
      PyObject *key = s.key(i);
      if (!key) return;
      nb::object coeff;
      if (in_step) {
        PyObject *entry_key, *entry_value;
        in_step = PyDict_Next(coeffs, &at, &entry_key, &entry_value) && same_key(entry_key, key);
        if (in_step) coeff = nb::borrow(entry_value);
      }
      if (!coeff.is_valid() && plain) {
        PyObject *found = PyDict_GetItemWithError(coeffs, key);
        if (!found && PyErr_Occurred()) throw nb::python_error();
        if (found) coeff = nb::borrow(found);
      } else if (!coeff.is_valid()) {
        int present = PySequence_Contains(coeffs, key);
        ok(present);
        if (present) coeff = owned(PyObject_GetItem(coeffs, key));
      }
      if (coeff.is_valid()) sum.add_product(coeff.ptr(), s.value(i));
    });
    return sum.result();
  }
  if (PyList_Check(coeffs) && nargs == 0) {
    // Coefficients by position, for dictionaries keyed 0, 1, 2, ...
    try {
      TermSum sum;
      for (Py_ssize_t i = 0; i < PyList_GET_SIZE(coeffs); ++i) {
        nb::object key = owned(PyLong_FromSsize_t(i));
        PyObject *value = PyDict_GetItemWithError(me, key.ptr());
        if (!value) {
          if (PyErr_Occurred()) throw nb::python_error();
          continue;
        }
        nb::object keep = nb::borrow(value);
        nb::object coeff = nb::borrow(PyList_GET_ITEM(coeffs, i));
        sum.add_product(coeff.ptr(), keep.ptr());
      }
      return sum.result();
    } catch (nb::python_error &e) {
      if (!e.matches(PyExc_Exception)) throw;
      type_error("Invalid tupledict.prod argument");
    }
  }
  type_error("tupledict.prod requires a dictionary");
}

PyObject *td_prod(PyObject *self, PyObject *const *args, Py_ssize_t nargs) {
  return guarded<PyObject *>(nullptr, [&]() -> PyObject * {
    if (nargs < 1) {
      PyErr_SetString(PyExc_TypeError, "prod() missing required argument 'coeff' (pos 1)");
      return nullptr;
    }
    return prod(as_tupledict(self), args[0], args + 1, nargs - 1).release().ptr();
  });
}

PyObject *td_clean_method(PyObject *self, PyObject *) {
  td_clean(as_tupledict(self));
  Py_RETURN_NONE;
}

PyObject *td_reduce(PyObject *self, PyObject *) {
  return guarded<PyObject *>(nullptr, [&] {
    TupleDict *t = as_tupledict(self);
    nb::object items = owned(PyDict_New());
    PyObject *key, *value;
    Py_ssize_t at = 0;
    while (PyDict_Next(self, &at, &key, &value)) ok(PyDict_SetItem(items.ptr(), key, value));
    nb::object state = nb::borrow(t->inst_dict ? t->inst_dict : Py_None);
    return owned(Py_BuildValue("(O(O)(OOO))", Py_TYPE(self), items.ptr(), t->wild, t->pos,
                               state.ptr()))
        .release()
        .ptr();
  });
}

PyObject *td_setstate(PyObject *self, PyObject *state) {
  return guarded<PyObject *>(nullptr, [&]() -> PyObject * {
    PyObject *wild, *pos, *attrs;
    if (!PyTuple_Check(state)) {
      PyErr_SetString(PyExc_TypeError, "__setstate__ expects a tuple (wild, pos, attributes)");
      return nullptr;
    }
    if (!PyArg_ParseTuple(state, "OO!O:__setstate__", &wild, &PyDict_Type, &pos, &attrs))
      return nullptr;
    TupleDict *t = as_tupledict(self);
    replace(t->wild, wild);
    nb::object copy = owned(PyDict_Copy(pos));
    replace(t->pos, copy.ptr());
    if (attrs != Py_None) {
      nb::object dict = owned(PyObject_GenericGetDict(self, nullptr));
      ok(PyDict_Update(dict.ptr(), attrs));
    }
    td_clean(t);
    Py_RETURN_NONE;
  });
}

// ---------------------------------------------------------------- attributes

PyObject *get_wild(PyObject *self, void *) { return Py_NewRef(as_tupledict(self)->wild); }

int set_wild(PyObject *self, PyObject *value, void *) {
  if (!value) {
    PyErr_SetString(PyExc_AttributeError, "the wildcard cannot be deleted");
    return -1;
  }
  replace(as_tupledict(self)->wild, value);
  return 0;
}

PyObject *get_keys_cache(PyObject *self, void *) {
  TupleDict *t = as_tupledict(self);
  if (!t->cache) Py_RETURN_NONE;
  return Py_NewRef(t->cache->keys.ptr());
}

PyObject *get_pos(PyObject *self, void *) { return Py_NewRef(as_tupledict(self)->pos); }

PyGetSetDef td_getset[] = {
    {"wild", get_wild, set_wild, "The wildcard value of the key tuplelist ('*').", nullptr},
    {"_tupledict__keys", get_keys_cache, nullptr, "The cached key tuplelist, or None.", nullptr},
    {"_tupledict__pos", get_pos, nullptr, "Key -> insertion rank.", nullptr},
    {"__dict__", PyObject_GenericGetDict, PyObject_GenericSetDict, nullptr, nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

#define FASTCALL(f) reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(f))

PyMethodDef td_methods[] = {
    {"keys", td_keys, METH_NOARGS,
     "keys()\n\nThe keys as a tuplelist, in insertion order. The same tuplelist is returned until "
     "the dictionary changes, so that its selection indices are reused."},
    {"iterkeys", td_iterkeys, METH_NOARGS, "iterkeys()\n\nIterator over keys()."},
    {"itervalues", td_itervalues, METH_NOARGS,
     "itervalues()\n\nIterator over the values, in keys() order."},
    {"iteritems", FASTCALL(td_iteritems), METH_FASTCALL,
     "iteritems(*args)\n\nIterator over the (key, value) pairs whose keys match the pattern, in "
     "keys() order."},
    {"items", td_items, METH_NOARGS, "items()\n\nThe list of (key, value) pairs, in keys() order."},
    {"values", td_values, METH_NOARGS, "values()\n\nThe list of the values, in keys() order."},
    {"select", FASTCALL(td_select), METH_FASTCALL,
     "select(*args)\n\nThe list of the values whose keys match the pattern: one value per key "
     "field, the wildcard '*' for any value, a list for any of its items.\n\n"
     "Example: x.select(1, '*')"},
    {"subset", FASTCALL(td_subset), METH_FASTCALL,
     "subset(*args)\n\nA new tupledict of the entries whose keys match the pattern, in the same "
     "order."},
    {"sum", FASTCALL(td_sum), METH_FASTCALL,
     "sum(*args)\n\nThe sum (as quicksum forms it) of the values whose keys match the pattern.\n\n"
     "Example: m.addConstr(x.sum(1, '*') <= 1)"},
    {"prod", FASTCALL(td_prod), METH_FASTCALL,
     "prod(coeff, *args)\n\nThe sum of coeff[key] * value over the keys that match the pattern and "
     "have a coefficient. coeff is a dictionary; for a tupledict keyed 0, 1, 2, ... and no "
     "pattern it may also be a list of coefficients by position.\n\n"
     "Example: m.setObjective(x.prod(cost))"},
    {"clean", td_clean_method, METH_NOARGS,
     "clean()\n\nDrops the cached key tuplelist and its indices, to give back their memory."},
    {"setord", td_setord, METH_O,
     "setord(ord)\n\nRanks the keys in the order of the sequence ord."},
    {"clear", FASTCALL(changing_method<&g_dict_clear>), METH_FASTCALL | METH_KEYWORDS,
     "clear()\n\nRemoves every entry."},
    {"pop", FASTCALL(changing_method<&g_dict_pop>), METH_FASTCALL | METH_KEYWORDS,
     "pop(key[, default])\n\nRemoves the key and returns its value."},
    {"popitem", FASTCALL(changing_method<&g_dict_popitem>), METH_FASTCALL | METH_KEYWORDS,
     "popitem()\n\nRemoves and returns the last inserted (key, value) pair."},
    {"update", FASTCALL(changing_method<&g_dict_update>), METH_FASTCALL | METH_KEYWORDS,
     "update(*args, **kwargs)\n\nAdds the entries as dict.update does; new keys get no rank."},
    {"setdefault", FASTCALL(changing_method<&g_dict_setdefault>), METH_FASTCALL | METH_KEYWORDS,
     "setdefault(key, default=None)\n\nAs dict.setdefault."},
    {"__reduce__", td_reduce, METH_NOARGS, "Pickling support."},
    {"__setstate__", td_setstate, METH_O, "Pickling support."},
    {nullptr, nullptr, 0, nullptr},
};

PyMappingMethods td_as_mapping = {};
PyNumberMethods td_as_number = {};

const char kTupleDictDoc[] =
    "tupledict(*args, **kwargs)\n\n"
    "kaviro tupledict: a subclass of dict whose keys are a tuplelist. It adds selection of the "
    "values by key pattern (select, subset) and the sums that models need (sum, prod), answered "
    "from indices that are kept until the dictionary changes.\n\n"
    "Keys are listed in insertion order: keys assigned one at a time come first, in the order of "
    "their latest assignment; keys given to the constructor or to update follow.\n\n"
    "Example:\n"
    "  x = m.addVars(3, 4)\n"
    "  m.addConstrs(x.sum(i, '*') <= 1 for i in range(3))\n";

}  // namespace

bool is_tupledict(nb::handle obj) { return PyObject_TypeCheck(obj.ptr(), &TupleDictType); }
bool is_tuplelist(nb::handle obj) { return tuplelist_check(obj.ptr()); }

nb::object new_tupledict() {
  nb::object empty = owned(PyTuple_New(0));
  return owned(td_new(&TupleDictType, empty.ptr(), nullptr));
}

nb::object tupledict_keys(PyObject *self) { return keys_of(as_tupledict(self)); }

nb::object make_tupledict(const std::vector<nb::object> &keys,
                          const std::vector<nb::object> &values) {
  if (keys.size() != values.size()) {
    PyErr_SetString(PyExc_ValueError, "make_tupledict: keys and values differ in length");
    throw nb::python_error();
  }
  nb::object result = new_tupledict();
  for (size_t i = 0; i < keys.size(); ++i)
    ok(PyDict_SetItem(result.ptr(), keys[i].ptr(), values[i].ptr()));
  return result;
}

void init_tupledict(nb::module_ &m) {
  g_star = PyUnicode_InternFromString("*");
  auto dict_method = [](const char *name) {
    PyObject *method = PyDict_GetItemString(PyDict_Type.tp_dict, name);
    if (!method) throw std::runtime_error(std::string("dict has no method ") + name);
    return Py_NewRef(method);
  };
  g_dict_clear = dict_method("clear");
  g_dict_pop = dict_method("pop");
  g_dict_popitem = dict_method("popitem");
  g_dict_update = dict_method("update");
  g_dict_setdefault = dict_method("setdefault");

  td_as_mapping.mp_ass_subscript = td_ass_subscript;
  td_as_number.nb_inplace_or = td_inplace_or;

  PyTypeObject &t = TupleDictType;
  t.tp_name = "kaviropy.tupledict";
  t.tp_basicsize = sizeof(TupleDict);
  t.tp_flags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE | Py_TPFLAGS_HAVE_GC;
  t.tp_doc = kTupleDictDoc;
  t.tp_base = &PyDict_Type;
  t.tp_new = td_new;
  t.tp_init = td_init;
  t.tp_dealloc = td_dealloc;
  t.tp_traverse = td_traverse;
  t.tp_clear = td_clear;
  t.tp_iter = td_iter;
  t.tp_methods = td_methods;
  t.tp_getset = td_getset;
  t.tp_as_mapping = &td_as_mapping;
  t.tp_as_number = &td_as_number;
  t.tp_dictoffset = offsetof(TupleDict, inst_dict);
  t.tp_weaklistoffset = offsetof(TupleDict, weakrefs);
  if (PyType_Ready(&t) < 0) throw nb::python_error();

  PyTypeObject &it = TupleDictIterType;
  it.tp_name = "kaviropy.tupledict_iterator";
  it.tp_basicsize = sizeof(TupleDictIter);
  it.tp_flags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC;
  it.tp_dealloc = iter_dealloc;
  it.tp_traverse = iter_traverse;
  it.tp_clear = iter_clear;
  it.tp_iter = PyObject_SelfIter;
  it.tp_iternext = iter_next;
  if (PyType_Ready(&it) < 0) throw nb::python_error();

  m.attr("tupledict") = nb::handle(reinterpret_cast<PyObject *>(&t));
}

}  // namespace kvrpy
