"""The model rewriting seen from Python: models with SOS constraints, semi-continuous variables,
general constraints, piecewise-linear objectives and function constraints solve to their known
optima, and what cannot be rewritten raises a KaviroError that names the culprit and leaves the
model usable. (tests/c/reform_test.c covers every construct and error in detail.)"""

import math

import pytest

import kaviropy as kp
from kaviropy import KVR, KaviroError


@pytest.fixture
def model():
    m = kp.Model("reform")
    m.Params.OutputFlag = 0
    yield m
    m.dispose()


def solve(m, objective, sense=KVR.MINIMIZE):
    m.setObjective(objective, sense)
    m.optimize()
    assert m.Status == KVR.OPTIMAL
    return m.ObjVal


def test_general_expressions(model):
    x = model.addVar(lb=-3, ub=2, name="x")
    y = model.addVar(lb=-1, ub=4, name="y")
    model.addConstr(x + y == 0.5)
    top = model.addVar(lb=-KVR.INFINITY, name="top")
    low = model.addVar(lb=-KVR.INFINITY, name="low")
    size = model.addVar(name="size")
    l1 = model.addVar(name="l1")
    model.addConstr(top == kp.max_(x, y, constant=1))
    model.addConstr(low == kp.min_([x, y], constant=0))
    model.addConstr(size == kp.abs_(x))
    model.addConstr(l1 == kp.norm([x, y], 1.0))
    assert solve(model, top) == pytest.approx(1.0)
    assert solve(model, top, KVR.MAXIMIZE) == pytest.approx(3.5)
    assert solve(model, low) == pytest.approx(-3.0)
    assert solve(model, low, KVR.MAXIMIZE) == pytest.approx(0.0)
    assert solve(model, size, KVR.MAXIMIZE) == pytest.approx(3.0)
    assert solve(model, l1, KVR.MAXIMIZE) == pytest.approx(6.5)
    assert l1.X == pytest.approx(abs(x.X) + abs(y.X))
    # the user's variables and rows are all the model shows
    model.update()
    assert model.NumVars == 6 and model.NumConstrs == 1 and model.NumGenConstrs == 4


def test_logic_and_indicators(model):
    a, b, both, either, on = (model.addVar(vtype=KVR.BINARY, name=n)
                              for n in ("a", "b", "both", "either", "on"))
    model.addConstr(both == kp.and_(a, b))
    model.addConstr(either == kp.or_(a, b))
    x = model.addVar(ub=5, name="x")
    model.addConstr((on == 1) >> (x + a <= 2))
    model.addConstr(a + b == 1)
    # rewards: both and either are decided by a and b; on costs x its room
    assert solve(model, x + 10 * on + 4 * both + 2 * either, KVR.MAXIMIZE) == pytest.approx(14.0)
    assert (both.X, either.X, on.X) == pytest.approx((0, 1, 1))
    assert a.X == pytest.approx(0) and x.X == pytest.approx(2)


def test_sos_and_semicontinuous(model):
    x = [model.addVar(ub=u, name="x%d" % k) for k, u in enumerate((2, 4, 1, 3))]
    model.addSOS(KVR.SOS_TYPE2, x, [4, 1, 3, 2])  # order x1, x3, x2, x0
    assert solve(model, 3 * x[0] + 2 * x[1] + x[2] + x[3], KVR.MAXIMIZE) == pytest.approx(11.0)
    model.addSOS(KVR.SOS_TYPE1, [x[1], x[3]])
    assert solve(model, 3 * x[0] + 2 * x[1] + x[2] + x[3], KVR.MAXIMIZE) == pytest.approx(8.0)

    s = model.addVar(lb=2.5, ub=6, vtype=KVR.SEMIINT, name="s")
    c = model.addVar(lb=1, ub=3, vtype=KVR.SEMICONT, name="c")
    model.addConstr(s + c <= 5.5)
    assert solve(model, -s - 0.5 * c) == pytest.approx(-5.0)
    assert (s.X, c.X) == pytest.approx((5, 0), abs=1e-4)


def test_piecewise_linear(model):
    x = model.addVar(lb=-KVR.INFINITY, name="x")
    y = model.addVar(lb=-KVR.INFINITY, name="y")
    # a convex objective term stays linear: the row has a dual value
    floor = model.addConstr(x >= -4, name="floor")
    model.setPWLObj(x, [-1, 0, 2], [1, 0, 4])
    model.optimize()
    assert model.ObjVal == pytest.approx(0) and x.X == pytest.approx(0)
    assert floor.Pi == pytest.approx(0)
    model.setPWLObj(x, [], [])
    # y = f(x) with a jump at 1 and the end segments continued (slope 1 before 0, -1 after 2)
    model.addGenConstrPWL(x, y, [0, 1, 1, 2], [0, 1, 3, 2], name="f")
    model.addConstr(x <= 6)
    assert solve(model, y) == pytest.approx(-4.0)
    assert x.X == pytest.approx(-4.0)
    assert solve(model, y, KVR.MAXIMIZE) == pytest.approx(3.0)
    assert x.X == pytest.approx(1.0)


def test_functions_solve_near_their_optima(model):
    x = model.addVar(lb=0.5, ub=4, name="x")
    y = model.addVar(lb=-KVR.INFINITY, name="y")
    model.addGenConstrLog(x, y, name="ln")
    assert solve(model, y - x, KVR.MAXIMIZE) == pytest.approx(-1.0, abs=2e-3)
    model.Params.FuncPieces = 400
    assert solve(model, y - 0.5 * x, KVR.MAXIMIZE) == pytest.approx(math.log(2) - 1, abs=1e-4)


def test_what_cannot_be_rewritten(model):
    x = model.addVar(lb=-KVR.INFINITY, name="x")
    on = model.addVar(vtype=KVR.BINARY, name="on")
    model.addGenConstrIndicator(on, 1, x >= 2, name="push")
    model.setObjective(x)
    with pytest.raises(KaviroError) as e:
        model.optimize()
    assert e.value.errno == KVR.ERROR_NOT_SUPPORTED
    assert "General constraint push (INDICATOR): variable x has no finite lower bound" in \
        e.value.message
    x.LB = -10  # nothing was lost: a bound is all the model needs
    model.optimize()
    assert model.ObjVal == pytest.approx(-10)

    z = model.addVar(vtype=KVR.CONTINUOUS, name="z")
    model.addConstr(on == kp.or_(z, on))
    with pytest.raises(KaviroError) as e:
        model.optimize()
    assert e.value.errno == KVR.ERROR_INVALID_ARGUMENT
    assert "operand z is not a binary variable" in e.value.message


def test_malformed_points_from_a_file(tmp_path):
    path = tmp_path / "pwl.lp"
    path.write_text("Minimize\n y\nSubject To\n c: x <= 4\nBounds\n y free\nGeneral Constraints\n"
                    " f: y = PWL ( x ) POINTS ( 0 , 0 ) ( 2 , 1 ) ( 1 , 3 )\nEnd\n")
    with kp.Env(params={"OutputFlag": 0}) as env, kp.read(str(path), env) as m:
        with pytest.raises(KaviroError) as e:
            m.optimize()
        assert e.value.errno == KVR.ERROR_INVALID_ARGUMENT
        assert "General constraint f (PWL): x values must not decrease (point 2 has x = 1 after 2)" \
            in e.value.message
