"""Expressions over the variables and constraints of real models: names, values, term data."""
import pytest

import kaviropy as kp
from kaviropy import KVR, Column, LinExpr, QuadExpr



@pytest.fixture
def model(env):
    m = kp.Model(env=env)
    yield m
    m.dispose()


@pytest.fixture
def xyz(model):
    x, y, z = (model.addVar(name=n, ub=3) for n in "xyz")
    model.update()
    return x, y, z


def test_names_follow_the_model_update(model, xyz):
    x, _, _ = xyz
    w = model.addVar(name="w")
    e = LinExpr(2, w) + x
    # A variable added after the last update prints by name only where the library already
    # numbers it (update mode 1).
    assert str(e) in ("2.0 *Awaiting Model Update* + x", "2.0 w + x")
    model.update()
    assert str(e) == "2.0 w + x"


def test_column_prints_constraint_names(model, xyz):
    x, y, _ = xyz
    c0 = model.addConstr(x + y <= 1, name="c0")
    c1 = model.addConstr(x >= 0, name="c1")
    model.update()
    assert repr(Column([1, 2.5], [c0, c1])) == "<kaviro.Column: c0 + 2.5 c1>"


def test_normalize_merges_by_column(model, xyz):
    x, y, _ = xyz
    e = LinExpr([1, 2, 3], [x, y, x])
    e._normalize()
    assert str(e) == "4.0 x + 2.0 y"
    q = x * y + 2 * y * x + x * x
    q._normalize()
    assert str(q) == "[ 3.0 x * y + x ^ 2 ]"


def test_quicksum_and_tupledict_sums(model):
    v = model.addVars(2, 3, name="v")
    model.update()
    assert str(kp.quicksum(v)) == "v[0,0] + v[0,1] + v[0,2] + v[1,0] + v[1,1] + v[1,2]"
    assert str(kp.quicksum(v.select(1, "*"))) == "v[1,0] + v[1,1] + v[1,2]"
    q = kp.quicksum(v[i, j] * v[i, j] for i in range(2) for j in range(2))
    assert type(q) is QuadExpr and q.size() == 4


def test_expressions_reach_the_model(env, model, xyz):
    x, y, z = xyz
    c = model.addConstr(2 * x + y - x <= 4 - z, name="c")
    model.update()
    row = model.getRow(c) if hasattr(model, "getRow") else None
    if row is not None:
        row._normalize()
        coeffs = {row.getVar(i).VarName: row.getCoeff(i) for i in range(row.size())}
        assert coeffs == {"x": 1.0, "y": 1.0, "z": 1.0}
    other = kp.Model(env=env)
    try:
        u = other.addVar()
        other.update()
        with pytest.raises(kp.KaviroError) as info:
            model.addConstr(x + u <= 1)
        assert info.value.errno == KVR.ERROR_NOT_IN_MODEL
    finally:
        other.dispose()


def test_value_needs_a_solution(model, xyz):
    x, y, _ = xyz
    with pytest.raises(Exception) as direct:
        x.X
    # The expression raises what reading a variable's value raises.
    for e in (x + 2 * y, x * y):
        with pytest.raises(type(direct.value), match=str(direct.value)):
            e.getValue()
    assert LinExpr(2).getValue() == 2.0 and QuadExpr(2).getValue() == 2.0


def test_values_after_optimize(model, xyz):
    x, y, z = xyz
    model.addConstr(x + 2 * y <= 4)
    model.setObjective(x + y + z, KVR.MAXIMIZE)
    model.optimize()
    assert (x + 2 * y + 1).getValue() == pytest.approx(5.0)
    assert (x * y + z).getValue() == pytest.approx(x.X * y.X + z.X)
