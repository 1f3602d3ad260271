import collections
import gc
import pickle
import weakref

import pytest

import kaviropy as kp

PAIRS = [(1, 2), (1, 3), (2, 3), (2, 4)]


@pytest.fixture
def tl():
    return kp.tuplelist(PAIRS)


def test_is_a_list_with_private_state(tl):
    assert isinstance(tl, list) and type(tl).__name__ == "tuplelist"
    assert tl == PAIRS and len(tl) == 4
    assert tl._tuplelist__wild == "*"
    assert tl._tuplelist__scalar is False and tl._tuplelist__tuplelen == 2
    assert tl._tuplelist__index == {} and tl._tuplelist__contents is None
    assert tl._tuplelist__prev == {} and tl._tuplelist__nextc == {}
    empty = kp.tuplelist()
    assert empty._tuplelist__scalar is None and empty._tuplelist__tuplelen is None
    assert "unpredictable" in kp.tuplelist.__doc__ and "kaviro" in kp.tuplelist.__doc__
    assert "select('*', 1, '*', 'a')" in kp.tuplelist.select.__doc__


def test_select_patterns(tl):
    assert tl.select("*", 3) == [(1, 3), (2, 3)]
    assert tl.select(1, "*") == [(1, 2), (1, 3)]
    assert tl.select(1) == [(1, 2), (1, 3)]  # fields beyond the arguments are free
    assert tl.select(2, 4) == [(2, 4)]
    assert tl.select(9, "*") == [] and type(tl.select(9, "*")) is kp.tuplelist
    # The index of a pattern is kept and hands out the same stored list.
    first = tl.select("*", 3)
    assert tl.select("*", 3) is first
    assert set(tl._tuplelist__index) == {(1,), (0,), (0, 1)}
    assert tl._tuplelist__index[(1,)][3] is first


def test_select_without_constraint_is_the_list_itself(tl):
    assert tl.select() is tl and tl.select("*", "*") is tl
    tl.select("*").append((5, 5))
    assert tl[-1] == (5, 5) and tl.select(5, "*") == [(5, 5)]


def test_select_with_lists(tl):
    assert tl.select([1, 2], 3) == [(1, 3), (2, 3)]
    assert tl.select([2, 1], 3) == [(2, 3), (1, 3)]
    assert tl.select([1, 2], [3, 4]) == [(1, 3), (2, 3), (2, 4)]
    # A list holding the wildcard contributes all members: the result is a new list.
    everything = tl.select(["*"])
    assert everything == PAIRS and everything is not tl
    assert tl.select(range(2, 3), "*") == [(2, 3), (2, 4)]
    assert tl.select([], "*") == []


def test_strings_are_values_and_custom_wildcards():
    words = kp.tuplelist([("ab", "x"), ("a", "y"), ("*", "z")])
    assert words.select("ab") == [("ab", "x")]  # not expanded into characters
    assert words.select("*", "*") is words
    nowild = kp.tuplelist(words, wild=None)
    assert nowild._tuplelist__wild is None
    assert nowild.select("*", None) == [("*", "z")]
    assert nowild.select(None, "y") == [("a", "y")]
    joined = nowild + [("c", "w")]
    assert type(joined) is kp.tuplelist and joined._tuplelist__wild is None
    assert joined.select("c", None) == [("c", "w")]
    assert nowild.__getslice__(0, 2)._tuplelist__wild is None
    nowild._tuplelist__wild = "*"
    assert nowild.select("*", "y") == [("a", "y")]


def test_scalar_lists():
    s = kp.tuplelist([3, 1, 3, 2])
    assert s._tuplelist__scalar is True and s._tuplelist__tuplelen is None
    assert s.select(3) == [3, 3] and s.select(7) == []
    assert s.select([1, 2]) == [1, 2]
    assert repr(s) == repr([3, 1, 3, 2])
    # Named tuples are scalars: members match as a whole, never field by field.
    P = collections.namedtuple("P", "a b")
    named = kp.tuplelist([P(1, 2), P(3, 4)])
    assert named._tuplelist__scalar is True
    assert named.select(1, "*") == [] and named.select(1) == []


def test_kind_checks():
    with pytest.raises(ValueError, match="^Cannot mix scalar and tuple values in a tuplelist$"):
        kp.tuplelist([(1, 2), 3])
    with pytest.raises(ValueError, match="^All tuples in a tuplelist must be the same length$"):
        kp.tuplelist([(1, 2), (1, 2, 3)])
    tl = kp.tuplelist([(1, 2)])
    for add in (lambda: tl.append(5), lambda: tl.insert(0, (1,)), lambda: tl.extend([(1, 2), 3]),
                lambda: tl.__iadd__([7]), lambda: tl.__setitem__(0, 9),
                lambda: tl.__setitem__(slice(0, 1), [(1, 2, 3)])):
        with pytest.raises(ValueError):
            add()
        assert tl == [(1, 2)]
    # A failed first batch fixes the kind of the empty list until a removal empties it again.
    fresh = kp.tuplelist()
    with pytest.raises(ValueError):
        fresh.extend([(1, 2), (1,)])
    assert fresh == [] and fresh._tuplelist__tuplelen == 2
    with pytest.raises(ValueError):
        fresh.append((1,))
    fresh.append((1, 2))
    fresh.pop()
    fresh.append((1, 2, 3))
    assert fresh._tuplelist__tuplelen == 3
    # Emptying by any removal reopens the kind.
    for empty in (lambda l: l.remove((1, 2, 3)), lambda l: l.clear(), lambda l: l.__delitem__(0),
                  lambda l: l.__delslice__(0, 5), lambda l: l.__imul__(0)):
        l = kp.tuplelist([(1, 2, 3)])
        empty(l)
        assert l._tuplelist__scalar is None
        l.append(4)
        assert l.select(4) == [4]
    # A tuple subclass counts as a scalar.
    P = collections.namedtuple("P", "a b")
    with pytest.raises(ValueError, match="Cannot mix"):
        kp.tuplelist([(1, 2), P(1, 2)])


MUTATIONS = {
    "append": lambda l: l.append((3, 3)),
    "extend": lambda l: l.extend([(3, 3)]),
    "insert": lambda l: l.insert(0, (3, 3)),
    "iadd": lambda l: l.__iadd__([(3, 3)]),
    "setitem": lambda l: l.__setitem__(0, (3, 3)),
    "setslice": lambda l: l.__setitem__(slice(0, 1), [(3, 3), (3, 4)]),
    "pop": lambda l: l.pop(0),
    "remove": lambda l: l.remove((1, 3)),
    "delitem": lambda l: l.__delitem__(1),
    "delslice": lambda l: l.__delslice__(0, 2),
    "sort": lambda l: l.sort(reverse=True),
    "reverse": lambda l: l.reverse(),
    "clear": lambda l: l.clear(),
    "imul": lambda l: l.__imul__(2),
}


@pytest.mark.parametrize("name", sorted(MUTATIONS))
def test_every_change_drops_the_indices(name):
    tl = kp.tuplelist(PAIRS)
    tl.select("*", 3), tl.select(1, "*"), (1, 2) in tl, tl.next((1, 2))
    MUTATIONS[name](tl)
    assert tl._tuplelist__index == {} and tl._tuplelist__contents is None
    assert tl._tuplelist__next == {}
    plain = list(tl)
    for args in (("*", 3), (1, "*"), (3, "*")):
        assert tl.select(*args) == [m for m in plain if all(
            a == "*" or m[i] == a for i, a in enumerate(args))]
    assert ((3, 3) in tl) == ((3, 3) in plain) and ((1, 2) in tl) == ((1, 2) in plain)
    if len(set(plain)) == len(plain) > 1:
        assert tl.next(plain[0]) == plain[1]


def test_contains(tl):
    assert (1, 3) in tl and (3, 1) not in tl
    assert tl._tuplelist__contents == {m: True for m in PAIRS}
    with pytest.raises(TypeError):
        [1, 2] in tl
    tl.clean()
    assert tl._tuplelist__contents is None and (2, 4) in tl


def test_neighbours(tl):
    assert tl.next((1, 2)) == (1, 3) and tl.prev((1, 3)) == (1, 2)
    assert tl.nextc((2, 4)) == (1, 2) and tl.prevc((1, 2)) == (2, 4)
    with pytest.raises(KeyError):
        tl.next((2, 4))
    with pytest.raises(KeyError):
        tl.prev((1, 2))
    with pytest.raises(KeyError):
        tl.prevc((7, 7))
    assert tl._tuplelist__next[(1, 3)] == (2, 3)
    dup = kp.tuplelist([1, 2, 1, 2])
    for method in (dup.prev, dup.next, dup.prevc, dup.nextc):
        with pytest.raises(KeyError, match="Duplicate values in tupledict"):
            method(2)
    empty = kp.tuplelist()
    with pytest.raises(KeyError, match="Duplicate values in tupledict"):
        empty.next(1)
    with pytest.raises(KeyError) as err:
        empty.prevc(1)
    assert err.value.args == (1,)
    single = kp.tuplelist([5])
    assert single.nextc(5) == 5 and single.prevc(5) == 5


def test_arithmetic_and_slices(tl):
    joined = tl + [(9, 9)]
    assert type(joined) is kp.tuplelist and joined == PAIRS + [(9, 9)] and tl == PAIRS
    with pytest.raises(TypeError):
        tl + ((9, 9),)
    with pytest.raises(ValueError, match="same length"):
        tl + [(9,)]
    assert type([(0, 0)] + tl) is list
    same = tl
    tl += [(9, 9)]
    assert tl is same and tl.select(9) == [(9, 9)]
    part = tl.__getslice__(1, 3)
    assert type(part) is kp.tuplelist and part == PAIRS[1:3]
    assert type(tl[1:3]) is list  # subscript slicing stays the list operation
    tl.__delslice__(0, 4)
    assert tl == [(9, 9)]


def test_repr():
    rows = kp.tuplelist([(1, "alpha", 2.5), (10, "b", None)])
    assert repr(rows) == ("<kaviro.tuplelist (2 tuples, 3 values each):\n"
                          " ( 1 , alpha, 2.5 )\n"
                          " ( 10, b    , None)\n"
                          ">")
    assert repr(kp.tuplelist()) == "[]"
    assert str(kp.tuplelist(["a", 1])) == str(["a", 1])


def test_errors_of_select_and_methods(tl):
    with pytest.raises(IndexError):
        tl.select(1, 2, 3)  # a constrained field the tuples do not have
    assert tl.select(1, 2, "*") == [(1, 2)]
    with pytest.raises(TypeError):
        tl.select(2, Unhashable())
    with pytest.raises(TypeError):
        tl.insert(0)
    with pytest.raises(TypeError):
        tl.__getslice__(1)
    with pytest.raises(TypeError):
        tl.__delslice__(1)
    with pytest.raises(IndexError):
        tl.pop(10)
    with pytest.raises(ValueError):
        tl.remove((7, 7))
    with pytest.raises(AttributeError):
        del tl._tuplelist__wild
    with pytest.raises(AttributeError):
        tl._tuplelist__scalar = True
    assert tl == PAIRS


class Unhashable:
    __hash__ = None


class Chain:
    """An iterable whose items are again Chains: select expands it without end."""

    def __iter__(self):
        yield Chain()


class Grower:
    """A member whose hash adds to the list that is being indexed."""

    def __init__(self, owner):
        self.owner = owner

    def __hash__(self):
        list.append(self.owner, 0)
        return 1


def test_select_recursion_and_changes_during_indexing(tl):
    with pytest.raises(RecursionError):
        tl.select(Chain())
    s = kp.tuplelist([1])
    s.append(Grower(s))
    with pytest.raises(RuntimeError, match="changed size during selection"):
        s.select(1)


def test_pickle_subclass_and_gc(tl):
    tl.note = "kept"
    other = pickle.loads(pickle.dumps(kp.tuplelist(tl, wild=None)))
    assert type(other) is kp.tuplelist and other == PAIRS and other._tuplelist__wild is None
    back = pickle.loads(pickle.dumps(tl))
    assert back.note == "kept" and back.select(1) == [(1, 2), (1, 3)]

    class Mine(kp.tuplelist):
        pass

    mine = Mine(PAIRS)
    assert mine.select(2, "*") == [(2, 3), (2, 4)]
    # A cycle through the instance dictionary and the indices is collected.
    cyc = kp.tuplelist([1, 2])
    cyc.me = cyc
    cyc.select(1)
    ref = weakref.ref(cyc)
    del cyc
    gc.collect()
    assert ref() is None
