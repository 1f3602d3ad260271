import pytest

import kaviropy as kp
from kaviropy import KVR, LinExpr, QuadExpr, TempConstr
from conftest import PENDING_NAME as P, raises

INVALID = KVR.ERROR_INVALID_ARGUMENT
GENEXPR_LHS = ("General expressions can only be the right hand side part of an assignment to a "
               "single variable")


@pytest.fixture
def xs():
    return [kp.Var(None, i) for i in range(4)]


def test_comparisons_build_records(xs):
    x, y = xs[:2]
    e = x + y
    for tc, sense in [(e <= 3, KVR.LESS_EQUAL), (e >= 3, KVR.GREATER_EQUAL), (e == 3, KVR.EQUAL)]:
        assert type(tc) is TempConstr and tc._lhs is e and tc._sense == sense and tc._rhs == 3
    q = x * y
    tc = q >= e
    assert tc._lhs is q and tc._sense == ">" and tc._rhs is e
    # A number on the left reaches the reflected comparison of the expression.
    tc = 3 >= e
    assert tc._lhs is e and tc._sense == "<" and tc._rhs == 3
    tc = e == None  # noqa: E711 (a comparison never gives a bool)
    assert tc._sense == "=" and tc._rhs is None


def test_var_comparisons(xs):
    x, y = xs[:2]
    for tc, sense in [(x <= y, "<"), (x >= 1, ">"), (x == y, "=")]:
        assert type(tc) is TempConstr and type(tc._lhs) is LinExpr and tc._sense == sense
        assert tc._lhs.size() == 1 and tc._lhs.getVar(0) is x
    assert (x == y)._rhs is y
    tc = 2 <= x
    assert tc._sense == ">" and tc._rhs == 2 and tc._lhs.getVar(0) is x
    raises(0, "Inequality constraints not supported", lambda: x != y)
    raises(0, "Inequality constraints not supported", lambda: x.__ne__(1))
    with pytest.raises(TypeError):
        x < 1
    assert x.__lt__(1) is NotImplemented


def test_record_errors(xs):
    x = xs[0]
    bool_message = 'Constraint has no bool value (are you trying "lb <= expr <= ub"?)'
    raises(0, bool_message, bool, x <= 1)
    raises(0, bool_message, lambda: 0 <= x <= 1)
    raises(0, bool_message, (x <= 1).__nonzero__)
    raises(0, "Constraint comparison not implemented", lambda: (x <= 1) <= 2)
    raises(0, "Constraint comparison not implemented", lambda: (x <= 1) >= (x >= 0))
    raises(0, "Constraint comparison not implemented", lambda: 2 >= (x <= 1))
    with pytest.raises(TypeError):
        (x <= 1) < 2


def test_indicator_and_construction(xs):
    b, x, y = xs[:3]
    first, second = b == 1, x + y <= 1
    ind = first >> second
    assert ind._lhs is first and ind._sense == "I" and ind._rhs is second
    assert (x <= 1).__rshift__(2)._sense == "I"
    with pytest.raises(TypeError):
        1 >> (x <= 1)
    tc = TempConstr(3, "<", x)
    assert (tc._lhs, tc._sense, tc._rhs) == (3, "<", x)
    tc._rhs = 4  # fields are plain attributes
    assert tc._rhs == 4
    with pytest.raises(TypeError):
        TempConstr(1, "<")


def test_repr(named):
    x, y, _ = named
    assert repr(x + y <= 3) == "<kaviro.TempConstr: x + y <= 3>"
    assert repr(x >= 2.5) == "<kaviro.TempConstr: x >= 2.5>"
    assert repr(x * x == y) == f"<kaviro.TempConstr: [ x ^ 2 ] == {y!r}>"
    ind = (x == 1) >> (y <= 2)
    assert repr(ind) == ("<kaviro.TempConstr: <kaviro.TempConstr: x == 1> == "
                         "<kaviro.TempConstr: y <= 2>>")
    assert repr(kp.Var(None, 0) <= 1) == f"<kaviro.TempConstr: {P} <= 1>"


@pytest.mark.skipif(not hasattr(kp, "MVar"), reason="the matrix classes are not part of the module")
def test_matrix_sides_move_left():
    import numpy as np
    m = kp.Model()
    mx = m.addMVar(2)
    b = np.array([1.0, 2.0])
    tc = (mx + 0) <= b
    assert tc._sense == KVR.LESS_EQUAL and tc._rhs == 0.0 and not isinstance(tc._lhs, np.ndarray)


# ---------------------------------------------------------------- general expressions


def test_general_expressions(xs):
    x, y, z, w = xs
    tc = z == kp.max_(x, [y, w], constant=2)
    g = tc._rhs
    assert type(g) is kp.GenExprMax and isinstance(g, kp.GenExpr)
    assert g.argvars == [x, y, w] and g.constant == 2
    assert kp.min_(x, y).constant is None and type(kp.min_(x)) is kp.GenExprMin
    assert kp.abs_(x).argvar is x and (z == kp.abs_(x))._lhs.getVar(0) is z
    assert kp.and_(x, (y, z)).argvars == [x, y, z] and type(kp.or_([x])) is kp.GenExprOr
    n = kp.norm([x, y], 2.0)
    assert n.argvars == [x, y] and n.which == 2.0
    assert kp._special_gcargs_concat(x, [y], (z,)) == [x, y, z]
    g = kp.GenExprMax([x], 1)  # constructors as the module functions use them
    g.extra = 5  # operands are plain instance attributes
    assert vars(g) == {"argvars": [x], "constant": 1, "extra": 5}
    with pytest.raises(TypeError):
        kp.GenExprNorm([x])


def test_general_expression_of_a_tupledict(xs):
    td = kp.tupledict({(0,): xs[0], (1,): xs[1]})
    assert kp.max_(td).argvars == [xs[0], xs[1]]


def test_general_expression_errors(xs):
    x, z = xs[0], xs[3]
    raises(INVALID, GENEXPR_LHS, lambda: kp.abs_(x) == z)
    raises(INVALID, GENEXPR_LHS, lambda: kp.max_(x) != z)
    raises(INVALID, GENEXPR_LHS, lambda: 3 == kp.min_(x))
    # <= and >= are not defined on general expressions: the variable's mirrored comparison runs.
    tc = kp.abs_(x) <= z
    assert tc._sense == ">" and tc._lhs.getVar(0) is z and type(tc._rhs) is kp.GenExprAbs


def test_general_expression_reprs(named):
    x, y, z = named
    assert repr(kp.abs_(x)) == "<kaviro.GenExprAbs: (x)>"
    assert repr(kp.and_(x, y)) == "<kaviro.GenExprAnd: (x, y)>"
    assert repr(kp.or_(x, y)) == "<kaviro.GenExprOr: (x, y)>"
    assert repr(kp.max_(x, y, constant=1.5)) == "<kaviro.GenExprMax: (x, y), constant=1.5>"
    assert repr(kp.min_(x)) == "<kaviro.GenExprMin: (x), constant=None>"
    assert repr(kp.norm([x, y], 2.0)) == "<kaviro.GenExprNorm-2.0: (x, y)>"
    assert repr(z == kp.max_(x, 3)) == (
        "<kaviro.TempConstr: z == <kaviro.GenExprMax: (x, 3), constant=None>>")
    assert repr(kp.abs_(kp.Var(None, 0))) == f"<kaviro.GenExprAbs: ({P})>"


def test_add_as_constr_calls_the_model_method(xs):
    x, y, z = xs[:3]
    calls = []

    class Recorder:
        def __getattr__(self, name):
            return lambda *args: calls.append((name,) + args) or "handle"

    m = Recorder()
    assert kp.max_(x, y)._addAsConstr(m, z, "c") == "handle"
    kp.min_(x, constant=3)._addAsConstr(m, z, "d")
    kp.abs_(x)._addAsConstr(m, z, "e")
    kp.and_(x, y)._addAsConstr(m, z, "f")
    kp.or_(x)._addAsConstr(m, z, "g")
    kp.norm([x], 1)._addAsConstr(m, z, "h")
    assert calls == [("addGenConstrMax", z, [x, y], None, "c"),
                     ("addGenConstrMin", z, [x], 3, "d"),
                     ("addGenConstrAbs", z, x, "e"),
                     ("addGenConstrAnd", z, [x, y], "f"),
                     ("addGenConstrOr", z, [x], "g"),
                     ("addGenConstrNorm", z, [x], 1, "h")]
