import math

import numpy as np
import pytest

import kaviropy as kp
from kaviropy import KVR, Column, LinExpr, QuadExpr
from conftest import PENDING_NAME as P, raises

INVALID = KVR.ERROR_INVALID_ARGUMENT


@pytest.fixture
def cs():
    return [kp.Constr(None, i) for i in range(3)]


@pytest.fixture
def xs():
    return [kp.Var(None, i) for i in range(5)]


def col_terms(col):
    return [(col.getCoeff(i), col.getConstr(i)) for i in range(col.size())]


def same(col, expected):
    got = col_terms(col)
    return len(got) == len(expected) and all(
        c == ec and k is ek for (c, k), (ec, ek) in zip(got, expected))


# ---------------------------------------------------------------- Column


def test_column_construction(cs):
    c0, c1 = cs[:2]
    assert Column().size() == 0 and repr(Column()) == "<kaviro.Column: empty>"
    assert same(Column(2, c0), [(2.0, c0)])
    assert same(Column([1, 2.5], [c0, c1]), [(1.0, c0), (2.5, c1)])
    assert same(Column(np.array([3.0]), (c for c in [c1])), [(3.0, c1)])
    assert same(Column(coeffs=[1], constrs=[c0]), [(1.0, c0)])
    assert repr(Column([1, 2], [c0, c1])) == f"<kaviro.Column: {P} + 2.0 {P}>"


def test_column_construction_errors(cs, xs):
    c0 = cs[0]
    raises(INVALID, "Array lengths don't match", Column, [1, 2], [c0])
    raises(INVALID, "Second argument should be a list of Constr", Column, [1], [xs[0]])
    raises(INVALID, "First argument should be a list of floats", Column, ["a"], [c0])
    raises(INVALID, "Coefficient is Nan or Inf", Column, math.nan, c0)
    raises(INVALID, "Coefficient is Nan or Inf", Column, [math.inf], [c0])
    raises(INVALID, "No constructor available for Column(<class 'int'>, <class 'NoneType'>)",
           Column, 1, None)
    raises(INVALID, "No constructor available for Column(<class 'str'>, "
           "<class 'kaviropy.Constr'>)", Column, "a", c0)


def test_column_methods(cs):
    c0, c1, c2 = cs
    col = Column()
    col.addTerms(1, c0)
    col.addTerms([2, 3, 4], [c1, c2, kp.Constr(None, 0)])
    assert same(col, [(1.0, c0), (2.0, c1), (3.0, c2), (4.0, col.getConstr(3))])
    copy = col.copy()
    col._normalize()  # the two handles of row 0 merge
    assert same(col, [(5.0, c0), (2.0, c1), (3.0, c2)])
    col.remove(1)
    assert same(col, [(5.0, c0), (3.0, c2)]) and col.getCoeff(-1) == 3.0
    assert col._coeffs == [5.0, 3.0] and col._constrs[1] is c2
    col.clear()
    assert col.size() == 0 and copy.size() == 4
    raises(KVR.ERROR_INDEX_OUT_OF_RANGE, "Index 0 out of range for a Column with 0 terms",
           col.getConstr, 0)
    raises(INVALID, "Term position must be an integer, not str", copy.remove, "0")


def test_column_add_terms_errors(cs, xs):
    c0 = cs[0]
    col = Column(1, c0)
    for args, message in [(([1, 2], [c0]), "Array lengths don't match"),
                          (([1], [xs[0]]), "Second argument should be a list of Constr"),
                          ((1, xs[0]), "Unsupported data type (<class 'kaviropy.Var'>) for "
                                       "constraint argument"),
                          ((1, 5), "Unsupported data type (<class 'int'>) for constraint argument"),
                          (("a", c0), "First argument should be a number"),
                          ((1, [c0]), "First argument should be a list of floats"),
                          (([1, math.nan], [c0, c0]), "Coefficient is Nan or Inf")]:
        raises(INVALID, message, col.addTerms, *args)
    assert col.size() == 1


# ---------------------------------------------------------------- quicksum


def test_quicksum(xs):
    x, y = xs[:2]
    e = kp.quicksum([])
    assert type(e) is LinExpr and str(e) == "0.0"
    e = kp.quicksum([x, 2 * y, 3])
    assert type(e) is LinExpr and e.size() == 2 and e.getConstant() == 3.0
    assert e.getVar(0) is x and e.getCoeff(1) == 2.0
    e = kp.quicksum(v for v in xs)
    assert e.size() == 5 and e.getVar(4) is xs[4]
    assert kp.quicksum((x, np.float64(1.5))).getConstant() == 1.5
    q = kp.quicksum([x * x, y, 2 * x * y, 1])
    assert type(q) is QuadExpr and q.size() == 2 and q.getLinExpr().getVar(0) is y
    q = kp.quicksum([y, x * x])  # terms before the first quadratic item are kept
    assert q.getLinExpr().getVar(0) is y and q.size() == 1


def test_quicksum_survives_a_wrong_length_hint(xs):
    class Wrong:
        def __iter__(self):
            return iter(xs)

        def __length_hint__(self):
            return 10 ** 15

    assert kp.quicksum(Wrong()).size() == len(xs)


def test_quicksum_does_not_change_items(xs):
    x, y = xs[:2]
    item = x + 1
    q = x * y
    kp.quicksum([item, item, q])
    assert item.size() == 1 and item.getConstant() == 1.0 and q.size() == 1


def test_quicksum_hands_other_items_to_their_operators(xs):
    x = xs[0]
    result = kp.quicksum([x, np.array([1.0, 2.0]), 1])
    assert isinstance(result, np.ndarray) and result[1].getConstant() == 3.0
    with pytest.raises(TypeError):
        kp.quicksum([x, kp.abs_(x)])


def test_quicksum_errors(xs):
    raises(INVALID, "quicksum needs an iterable of terms, not <class 'kaviropy.Var'>", kp.quicksum,
           xs[0])
    raises(INVALID, "quicksum needs an iterable of terms, not <class 'int'>", kp.quicksum, 3)
    raises(INVALID, "Constant is Nan", kp.quicksum, [xs[0], math.nan])

    def failing():
        yield xs[0]
        raise RuntimeError("stop")

    with pytest.raises(RuntimeError, match="stop"):
        kp.quicksum(failing())


def test_quicksum_of_a_tupledict(xs):
    td = kp.tupledict({(i,): v for i, v in enumerate(xs)})
    e = kp.quicksum(td)
    assert e.size() == 5 and e.getVar(2) is xs[2]
