import gc
import pickle
import weakref

import pytest

import kaviropy as kp


@pytest.fixture
def td():
    d = kp.tupledict()
    d[1, "a"] = "x"
    d[2, "a"] = "y"
    d[1, "b"] = "z"
    return d


def test_is_a_dict_with_private_state(td):
    assert isinstance(td, dict) and type(td).__name__ == "tupledict"
    assert td.wild == "*" and td._tupledict__keys is None
    assert td._tupledict__pos == {(1, "a"): 0, (2, "a"): 1, (1, "b"): 2}
    assert "subclass of dict" in kp.tupledict.__doc__ and "kaviro" in kp.tupledict.__doc__
    assert kp.tupledict({"k": 1}, j=2) == {"k": 1, "j": 2}


def test_selection(td):
    assert td.keys() == [(1, "a"), (2, "a"), (1, "b")] and type(td.keys()) is kp.tuplelist
    assert td.select("*", "b") == ["z"]
    assert td.select(1, "*") == ["x", "z"] and td.select(1) == ["x", "z"]
    assert td.select([2, 1], "a") == ["y", "x"]
    assert td.select() == ["x", "y", "z"] and td.select(9) == []
    assert list(td.iteritems("*", "a")) == [((1, "a"), "x"), ((2, "a"), "y")]
    assert td.items() == [((1, "a"), "x"), ((2, "a"), "y"), ((1, "b"), "z")]
    assert td.values() == ["x", "y", "z"]
    assert list(td.itervalues()) == td.values() and list(td.iterkeys()) == td.keys()
    assert list(td) == td.keys()
    assert dict(td) == {(1, "a"): "x", (2, "a"): "y", (1, "b"): "z"}


def test_keys_cache_lives_until_a_change(td):
    keys = td.keys()
    assert td.keys() is keys and td._tupledict__keys is keys
    td.select(1, "*")
    assert td.keys() is keys
    td[3, "c"] = "w"
    assert td._tupledict__keys is None and td.keys() is not keys
    td.clean()
    assert td._tupledict__keys is None
    empty = kp.tupledict()
    assert empty.keys() == [] and empty.keys() is not empty.keys()


def test_insertion_rank_ordering():
    d = kp.tupledict()
    d["p"], d["q"], d["r"] = 1, 2, 3
    d["q"] = 20  # the new rank equals the count: behind every other ranked key
    assert d.keys() == ["p", "r", "q"]
    assert d._tupledict__pos == {"p": 0, "q": 3, "r": 2}
    d["s"] = 4  # same rank as q: the tie keeps the dict's order, q was inserted first
    assert d.keys() == ["p", "r", "q", "s"]
    # Keys without rank (constructor, update) follow the ranked ones in dict order.
    e = kp.tupledict([("u", 1), ("v", 2)])
    e["w"] = 3
    e.update({"a": 0})
    assert e.keys() == ["w", "u", "v", "a"]
    # setord ranks by a sequence and leaves the key cache alone until the next change.
    keys = e.keys()
    e.setord(["a", "v"])
    assert e.keys() is keys
    e.clean()
    assert e.keys() == ["a", "v", "u", "w"]
    # Deleting leaves stale ranks, which only order present keys.
    del e["v"]
    assert e.keys() == ["a", "u", "w"] and "v" in e._tupledict__pos


CHANGES = {
    "setitem": lambda d: d.__setitem__((3, "c"), "w"),
    "delitem": lambda d: d.__delitem__((2, "a")),
    "pop": lambda d: d.pop((2, "a")),
    "popitem": lambda d: d.popitem(),
    "update": lambda d: d.update({(3, "c"): "w"}, ),
    "update_kwargs": lambda d: d.update([((3, "c"), "w")]),
    "clear": lambda d: d.clear(),
    "setdefault": lambda d: d.setdefault((3, "c"), "w"),
    "ior": lambda d: d.__ior__({(3, "c"): "w"}),
    "dict_setitem": lambda d: dict.__setitem__(d, (1, "a"), "X"),
}


@pytest.mark.parametrize("name", sorted(CHANGES))
def test_changes_are_seen_by_selection(td, name):
    assert td.select(1, "*") == ["x", "z"]
    td.values()
    CHANGES[name](td)
    plain = {k: dict.__getitem__(td, k) for k in dict.keys(td)}
    expected = [v for k, v in plain.items() if k[0] == 1]
    assert sorted(td.select(1, "*")) == sorted(expected)
    assert sorted(td.values()) == sorted(plain.values())


def test_dict_operations_return_what_dict_returns(td):
    assert td.pop((2, "a")) == "y" and td.pop("nope", 5) == 5
    assert td.setdefault((1, "a"), "other") == "x"
    assert td.popitem() == ((1, "b"), "z")
    with pytest.raises(KeyError):
        td.pop("nope")
    with pytest.raises(KeyError):
        del td["nope"]
    with pytest.raises(TypeError):
        td[[1]] = 2
    assert td._tupledict__pos == {(1, "a"): 0, (2, "a"): 1, (1, "b"): 2}
    td.clear()
    assert td == {} and td.keys() == []


def test_subset(td):
    sub = td.subset(1, "*")
    assert type(sub) is kp.tupledict and sub.keys() == [(1, "a"), (1, "b")]
    assert sub == {(1, "a"): "x", (1, "b"): "z"}
    td.wild = None
    sub = td.subset(None, "a")  # the cached key list still has the old wildcard
    assert sub == {}
    td.clean()
    sub = td.subset(None, "a")
    assert sub.keys() == [(1, "a"), (2, "a")] and sub.wild is None
    assert sub._tupledict__pos == {(1, "a"): 0, (2, "a"): 1}


def test_key_kind_errors_arise_on_first_use():
    d = kp.tupledict({(1, 2): "a", 3: "b"})
    d[(1, 2, 3)] = "c"
    for use in (d.keys, d.values, d.items, lambda: d.select(1), lambda: d.sum(),
                lambda: d.prod({3: 1.0}, 1), lambda: list(d)):
        with pytest.raises(ValueError, match="^Cannot mix scalar and tuple values in a tuplelist$"):
            use()
    e = kp.tupledict({(1, 2): "a", (1, 2, 3): "b"})
    with pytest.raises(ValueError, match="^All tuples in a tuplelist must be the same length$"):
        e.keys()


def test_changing_the_handed_out_key_list(td):
    keys = td.keys()
    keys.append((7, "q"))  # not a key of the dict
    with pytest.raises(KeyError):
        td.values()
    keys.pop()
    assert td.values() == ["x", "y", "z"]


def test_multidict():
    keys, first, second = kp.multidict({"key1": [1, 2], "key2": [1, 3], "key3": [1, 4]})
    assert type(keys) is kp.tuplelist and keys == ["key1", "key2", "key3"]
    assert type(second) is kp.tupledict and second == {"key1": 2, "key2": 3, "key3": 4}
    assert first == {"key1": 1, "key2": 1, "key3": 1}
    keys, scalars = kp.multidict({"a": 1, "b": 2})
    assert keys == ["a", "b"] and scalars == {"a": 1, "b": 2} and type(scalars) is kp.tupledict
    # As many dictionaries as the shortest list has items; tuple keys select as usual.
    keys, only = kp.multidict({(1, 1): [5, 6], (1, 2): [7]})
    assert only == {(1, 1): 5, (1, 2): 7} and keys.select(1, "*") == [(1, 1), (1, 2)]
    assert kp.multidict({}) == [[]]
    with pytest.raises(TypeError):
        kp.multidict([1, 2])  # neither a mapping nor pairs


def test_state_errors(td):
    with pytest.raises(AttributeError):
        del td.wild
    with pytest.raises(AttributeError):
        td._tupledict__pos = {}
    with pytest.raises(TypeError):
        td.__setstate__(("*", [], None))
    with pytest.raises(TypeError):
        td.__setstate__("*")
    assert td.wild == "*" and len(td._tupledict__pos) == 3


def test_pickle_subclass_and_gc(td):
    td.wild = None
    td.label = "cost"
    back = pickle.loads(pickle.dumps(td))
    assert type(back) is kp.tupledict and back == td and back.keys() == td.keys()
    assert back.wild is None and back.label == "cost"
    assert back._tupledict__pos == td._tupledict__pos

    class Mine(kp.tupledict):
        pass

    mine = Mine({(1, 1): 3})
    mine[0, 0] = 4
    assert mine.keys() == [(0, 0), (1, 1)] and mine.select(1) == [3]
    cyc = kp.tupledict()
    cyc["me"] = cyc
    cyc.keys()
    ref = weakref.ref(cyc)
    del cyc
    gc.collect()
    assert ref() is None


@pytest.fixture
def grid():
    """Numbers that tell by their sum which entries were taken: key (i, j) -> 2**(3*i + j)."""
    d = kp.tupledict()
    for i in range(3):
        for j in range(3):
            d[i, j] = 2 ** (3 * i + j)
    return d


def total(expr):
    assert type(expr) is kp.LinExpr and expr.size() == 0
    return expr.getConstant()


def test_sum(grid):
    assert total(grid.sum()) == 2**9 - 1
    assert total(grid.sum(1, "*")) == 8 + 16 + 32
    assert total(grid.sum("*", 2)) == 4 + 32 + 256
    assert total(grid.sum([0, 2], 0)) == 1 + 64
    assert total(grid.sum(7, "*")) == 0
    assert total(kp.tupledict().sum()) == 0


def test_prod_with_dictionaries(grid):
    # Fewer coefficients than entries: unknown keys are ignored.
    assert total(grid.prod({(1, 0): 2.0, (9, 9): 5.0})) == 16
    # As many or more coefficients, or a pattern: the entries are walked, missing ones skipped.
    many = {k: 0.5 for k in grid.keys()}
    many["extra"] = 7
    assert total(grid.prod(many)) == (2**9 - 1) / 2
    # Equal keys made anew, in the same order until one is missing and comes last.
    fresh = {(i, j): 1.0 for i in range(3) for j in range(3) if (i, j) != (1, 1)}
    fresh[1, 1] = 100.0
    assert total(grid.prod(fresh)) == (2**9 - 1) - 16 + 1600
    assert total(grid.prod({(0, 1): 3, (2, 1): 1, (0, 0): 10}, 0, "*")) == 6 + 10
    assert total(grid.prod(kp.tupledict({(2, 2): 2}))) == 512


def test_prod_with_a_list():
    d = kp.tupledict({0: 1.0, 1: 10.0, 2: 100.0})
    assert total(d.prod([1.0, 2.0, 3.0, 4.0])) == 321  # no key 3: its coefficient is skipped
    assert total(d.prod([5])) == 5
    with pytest.raises(TypeError, match="^Invalid tupledict.prod argument$"):
        d.prod([1.0, "two"])


class Triples(dict):
    def items(self):
        return [(k, v, 0) for k, v in dict.items(self)]


def test_prod_errors(grid):
    for bad in ((5,), ([1.0], "*"), ((1.0, 2.0),), ("text",)):
        with pytest.raises(TypeError, match="^tupledict.prod requires a dictionary$"):
            grid.prod(*bad)
    with pytest.raises(TypeError):
        grid.prod()
    with pytest.raises(TypeError, match="must be pairs"):
        grid.prod(Triples({(0, 0): 1.0}))


def same_terms(expr, expected):
    got = [(expr.getCoeff(i), expr.getVar(i)) for i in range(expr.size())]
    return len(got) == len(expected) and all(
        c == ec and v is ev for (c, v), (ec, ev) in zip(got, expected))


def test_sums_of_variables_keep_the_key_order():
    x = kp.tupledict()
    for key in [(2, "b"), (1, "a"), (2, "a"), (1, "b")]:
        x[key] = kp.Var(None, len(x))
    v = {k: dict.__getitem__(x, k) for k in dict.keys(x)}
    assert same_terms(x.sum(2, "*"), [(1.0, v[2, "b"]), (1.0, v[2, "a"])])
    # Fewer coefficients than entries: the coefficients' order; otherwise the keys' order.
    coeffs = {(1, "b"): 3.0, (2, "b"): -1.0, (1, "a"): 0.5}
    assert same_terms(x.prod(coeffs), [(3.0, v[1, "b"]), (-1.0, v[2, "b"]), (0.5, v[1, "a"])])
    coeffs[9, "z"] = 1.0
    assert same_terms(x.prod(coeffs), [(-1.0, v[2, "b"]), (0.5, v[1, "a"]), (3.0, v[1, "b"])])
    # A coefficient that is not a number multiplies as Python does: a quadratic term here.
    q = x.prod({(1, "a"): v[2, "a"]}, 1, "*")
    assert type(q) is kp.QuadExpr and q.size() == 1
    with pytest.raises(kp.KaviroError):
        x.prod({(1, "a"): float("nan")}, 1, "a")
    assert same_terms(kp.quicksum(x), [(1.0, w) for w in x.values()])


class Scaled(dict):
    """A coefficient dictionary with its own lookup."""

    def __getitem__(self, key):
        return 10 * dict.__getitem__(self, key)


def test_prod_asks_a_dict_subclass_for_its_coefficients(grid):
    coeffs = Scaled({k: 1.0 for k in grid.keys()})
    assert total(grid.prod(coeffs)) == 10 * (2**9 - 1)
    assert total(grid.prod(coeffs, 0, "*")) == 10 * 7
