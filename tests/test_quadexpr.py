import copy
import math
import pickle

import numpy as np
import pytest

import kaviropy as kp
from kaviropy import KVR, LinExpr, QuadExpr
from conftest import PENDING_NAME as P, raises

INVALID = KVR.ERROR_INVALID_ARGUMENT


@pytest.fixture
def xs():
    return [kp.Var(None, i) for i in range(100)]


def qterms(q):
    return [(q.getCoeff(i), q.getVar1(i), q.getVar2(i)) for i in range(q.size())]


def same_qterms(q, expected):
    got = qterms(q)
    return len(got) == len(expected) and all(
        c == ec and a is ea and b is eb for (c, a, b), (ec, ea, eb) in zip(got, expected))


def lterms(e):
    return [(e.getCoeff(i), e.getVar(i)) for i in range(e.size())]


def test_construction_and_add(xs):
    x, y = xs[:2]
    assert QuadExpr().size() == 0 and str(QuadExpr()) == "0.0"
    assert QuadExpr(3).getLinExpr().getConstant() == 3.0
    assert QuadExpr(x).getLinExpr().getVar(0) is x
    assert QuadExpr(x + 1).getLinExpr().size() == 1
    src = x * y + 2
    q = QuadExpr(src)
    src.addTerms(1, x, x)
    assert same_qterms(q, [(1.0, x, y)]) and q.getLinExpr().getConstant() == 2.0
    q.add(x * x, 2)
    q.add(y, -1)
    q.add(LinExpr(4))
    q.add(q)  # through itself
    assert same_qterms(q, 2 * [(1.0, x, y), (2.0, x, x)])
    assert q.getLinExpr().getConstant() == 12.0 and q.getLinExpr().size() == 2
    raises(INVALID, "Invalid argument to QuadExpr addition", q.add, "x")
    raises(INVALID, "Coefficient is Nan or Inf", q.add, x, math.nan)
    raises(INVALID, "Invalid argument to QuadExpr multiplication", q.add, x, None)
    raises(-1, "Unable to convert argument to an expression", QuadExpr, "x")
    assert q.size() == 4


def test_add_terms_and_constant(xs):
    x, y, z = xs[:3]
    q = QuadExpr()
    q.addTerms(2, x, y)
    q.addTerms([1, 3], [x, y], [z, z])
    q.addTerms([5], [z])  # linear terms
    q.addTerms(4, y)
    q.addConstant(1.5)
    assert same_qterms(q, [(2.0, x, y), (1.0, x, z), (3.0, y, z)])
    lin = q.getLinExpr()
    assert lterms(lin)[0] == (5.0, z) and lin.size() == 2 and lin.getConstant() == 1.5
    for args, message in [(([1, 2], [x], [y]), "Array lengths don't match"),
                          (([1], [1], [y]), "Second argument should be a list of Var"),
                          (([1], [x], [1]), "Third argument should be a list of Var"),
                          (([math.inf], [x], [y]), "Coefficient is Nan or Inf"),
                          ((math.nan, x, y), "Coefficient is Nan or Inf"),
                          ((["a"], [x], [y]), "First argument should be a list of floats"),
                          ((1, [x], y), "Unrecognized arguments"),
                          (([1], [2]), "Second argument should be a list of Var")]:
        raises(INVALID, message, q.addTerms, *args)
    raises(INVALID, "Constant is Nan", q.addConstant, math.nan)
    assert q.size() == 3 and lin.size() == 2


def test_linear_part_is_the_stored_object(xs):
    x, y = xs[:2]
    q = x * y + x
    lin = q.getLinExpr()
    lin.add(y, 2)
    assert q.getLinExpr() is lin and lin.size() == 2
    q2 = q + 1  # a new expression has its own linear part
    assert q2.getLinExpr() is not lin and lin.getConstant() == 0.0


def test_remove_clear_copy_normalize(xs):
    x, y, z = xs[:3]
    q = QuadExpr()
    q.addTerms([1, 2, 3, 4], [x, y, z, y], [y, y, z, x])
    q.addTerms([1, 1], [x, z])
    q.remove(2)
    assert same_qterms(q, [(1.0, x, y), (2.0, y, y), (4.0, y, x)])
    c = q.copy()
    c._normalize()  # x*y and y*x are one product
    assert same_qterms(c, [(5.0, x, y), (2.0, y, y)])
    q.remove(kp.Var(None, 0))
    assert same_qterms(q, [(2.0, y, y)]) and lterms(q.getLinExpr()) == [(1.0, z)]
    raises(KVR.ERROR_INDEX_OUT_OF_RANGE, "Index 1 out of range for a QuadExpr with 1 terms",
           q.getVar2, 1)
    raises(INVALID, "Argument to remove must be a term position or a Var", q.remove, 1.5)
    q.clear()
    assert q.size() == 0 and q.getLinExpr().size() == 0 and str(q) == "0.0"
    assert c.size() == 2


def test_printing(named):
    x, y, _ = named
    assert str(x * x + 2 * x * y + 3) == "3.0 + [ x ^ 2 + 2.0 x * y ]"
    assert str(x * y) == "[ x * y ]"
    assert str(QuadExpr(x + 1)) == "1.0 + x"
    assert repr(-(x * x)) == "<kaviro.QuadExpr: [ -1.0 x ^ 2 ]>"
    twin = kp.Var(None, 0)
    assert str(twin * kp.Var(None, 0)) == f"[ {P} ^ 2 ]"  # sameAs, not identity
    assert str(twin * kp.Var(None, 1)) == f"[ {P} * {P} ]"


def test_operators(xs):
    x, y = xs[:2]
    q = x * y + 1
    r = q + x
    assert type(r) is QuadExpr and same_qterms(r, [(1.0, x, y)]) and r.getLinExpr().size() == 1
    assert type(x + q) is QuadExpr and type((x + 1) + q) is QuadExpr and type(2 + q) is QuadExpr
    r = q - x * x
    assert same_qterms(r, [(1.0, x, y), (-1.0, x, x)])
    r = (x + 3) - q
    assert same_qterms(r, [(-1.0, x, y)]) and r.getLinExpr().getConstant() == 2.0
    r = 3 - q
    assert r.getLinExpr().getConstant() == 2.0 and r.getCoeff(0) == -1.0
    for r in (q * 2, 2 * q, q * LinExpr(2), q * QuadExpr(2), q / 0.5, np.float64(2) * q):
        assert same_qterms(r, [(2.0, x, y)]) and r.getLinExpr().getConstant() == 2.0
    assert same_qterms(-q, [(-1.0, x, y)])
    assert same_qterms(q, [(1.0, x, y)]) and q.getLinExpr().getConstant() == 1.0


def test_in_place_operators(xs):
    x, y = xs[:2]
    q = x * y
    before = q
    q += x
    q -= y * y
    q *= 2
    q /= 4
    q += LinExpr(3)
    assert q is before
    assert same_qterms(q, [(0.5, x, y), (-0.5, y, y)]) and q.getLinExpr().getConstant() == 3.0
    e = LinExpr(x)
    e += x * y  # the linear expression hands over: e becomes a new QuadExpr
    assert type(e) is QuadExpr and e.size() == 1


def test_operator_errors(xs):
    x, y = xs[:2]
    q = x * y
    raises(INVALID, "Invalid argument to QuadExpr multiplication", lambda: q * x)
    raises(INVALID, "Invalid argument to QuadExpr multiplication", lambda: (x + 1) * q)
    raises(INVALID, "Invalid argument to QuadExpr multiplication", lambda: q * q)
    raises(INVALID, "Divisor must be a constant", lambda: q / x)
    raises(INVALID, "Divisor must be a constant", lambda: 1 / q)
    raises(INVALID, "Constant is Nan", lambda: q * math.nan)
    raises(INVALID, "Multiplier is Nan or Inf", lambda: q * math.inf)
    raises(0, "Inequality constraints not supported", lambda: q != 1)
    with pytest.raises(ZeroDivisionError):
        q / 0
    q2 = q
    with pytest.raises(kp.KaviroError):
        q2 *= x
    assert same_qterms(q, [(1.0, x, y)])
    for op in (lambda: q + "a", lambda: q ** 2, lambda: q < 1):
        with pytest.raises(TypeError):
            op()
    a = np.array([1.0, 2.0])
    assert isinstance(q + a, np.ndarray) and all(type(v) is QuadExpr for v in q * a)


def test_wrong_self_type(xs):
    with pytest.raises(TypeError):
        QuadExpr.size(LinExpr())
    with pytest.raises(TypeError):
        QuadExpr.getLinExpr(xs[0])


def test_mul_method(xs):
    x, y = xs[:2]
    q = x * y + x
    q._mul(3)
    assert q.getCoeff(0) == 3.0 and q.getLinExpr().getCoeff(0) == 3.0
    raises(INVALID, "Invalid argument to QuadExpr multiplication", q._mul, "3")
    raises(INVALID, "Constant is Nan", q._mul, math.nan)
    raises(INVALID, "Multiplier is Nan or Inf", q._mul, math.inf)
    assert q.getCoeff(0) == 3.0 and q.getLinExpr().getCoeff(0) == 3.0


def test_linked_pieces(xs, capsys):
    base = QuadExpr()
    for v in xs[:70]:
        base.addTerms(1, v, v)
    a = base + xs[0] * xs[1]
    b = base.copy()
    base.addTerms(5, xs[2], xs[3])
    assert a._is_nested() and b._is_nested()
    a._dbgprint()
    assert capsys.readouterr().out.startswith(
        "<DBGQuadExpr len=1>\n  |  <DBGQuadExpr len=70>\nlinear part:\n")
    assert same_qterms(a, [(1.0, v, v) for v in xs[:70]] + [(1.0, xs[0], xs[1])])
    assert same_qterms(b, [(1.0, v, v) for v in xs[:70]])
    assert same_qterms(base, [(1.0, v, v) for v in xs[:70]] + [(5.0, xs[2], xs[3])])


def test_pickle_and_copy(xs):
    x, y = xs[:2]
    assert pickle.loads(pickle.dumps(QuadExpr(4))).getLinExpr().getConstant() == 4.0
    q = 2 * x * y + x + 1
    fn, args = q.__reduce__()
    assert fn is kp._unpickle_QuadExpr and args[0] is QuadExpr and args[1] == 100190607
    lin, coeffs, v1, v2, nxt = args[2]
    assert type(lin) is LinExpr and coeffs == [2.0] and v1[0] is x and v2[0] is y and nxt is None
    c = copy.copy(q)
    assert same_qterms(c, [(2.0, x, y)]) and c.getLinExpr().getConstant() == 1.0
    for args, message in [
        ((LinExpr, 100190607, (LinExpr(), [], [], [], None)), "Pickled data is not a QuadExpr"),
        ((QuadExpr, 76435576, (LinExpr(), [], [], [], None)), "Unknown layout of a pickled QuadExpr"),
        ((QuadExpr, 100190607, (1.0, [], [], [], None)), "Malformed state of a pickled QuadExpr"),
        ((QuadExpr, 100190607, (LinExpr(), [1.0], [x], [], None)),
         "Malformed state of a pickled QuadExpr"),
    ]:
        raises(INVALID, message, kp._unpickle_QuadExpr, *args)
