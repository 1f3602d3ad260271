"""Multiple objectives: hierarchical passes with degradation tolerances, blending within a
priority, per-pass parameters, ObjNVal, and the MULTIOBJ callback."""

import pytest

import kaviropy as kp
from kaviropy import KVR

# These tests drive the Model class; they run once it is part of the build.

CB = KVR.Callback


@pytest.fixture
def m(env):
    """x, y in [0, 10], x + y <= 10; objective 0: x, objective 1: y; maximize."""
    model = kp.Model("mo", env=env)
    x = model.addVar(ub=10, name="x")
    y = model.addVar(ub=10, name="y")
    model.addConstr(x + y <= 10, name="cap")
    model.ModelSense = KVR.MAXIMIZE
    model._xy = (x, y)
    yield model
    model.dispose()


def objvals(m):
    out = []
    for k in range(m.NumObj):
        m.Params.ObjNumber = k
        out.append(m.ObjNVal)
    return out


def test_hierarchical_respects_priorities_and_tolerances(m):
    x, y = m._xy
    m.setObjectiveN(x, 0, priority=2, abstol=0)
    m.setObjectiveN(y, 1, priority=1)
    m.optimize()
    assert m.Status == KVR.OPTIMAL
    assert (x.X, y.X) == pytest.approx((10, 0), abs=1e-6)
    m.setObjectiveN(x, 0, priority=2, abstol=3)
    m.optimize()
    assert (x.X, y.X) == pytest.approx((7, 3), abs=1e-6)
    assert objvals(m) == pytest.approx([7, 3], abs=1e-6)
    assert m.ObjVal == pytest.approx(7, abs=1e-6)
    m.setObjectiveN(x, 0, priority=2, abstol=0, reltol=0.5)  # half of 10 may be given up
    m.optimize()
    assert (x.X, y.X) == pytest.approx((5, 5), abs=1e-6)


def test_blended_objectives_within_one_priority(m):
    x, y = m._xy
    m.setObjectiveN(x, 0, priority=1, weight=1)
    m.setObjectiveN(y, 1, priority=1, weight=2)
    m.optimize()
    assert (x.X, y.X) == pytest.approx((0, 10), abs=1e-6)
    assert objvals(m) == pytest.approx([0, 10], abs=1e-6)


def test_per_pass_parameters(m):
    x, y = m._xy
    z = m.addVar(vtype=KVR.INTEGER, ub=5, name="z")
    m.addConstr(z <= x)
    m.setObjectiveN(x, 0, priority=2)
    m.setObjectiveN(z, 1, priority=1)
    m.getMultiobjEnv(1).setParam("SolutionLimit", 1)
    m.getMultiobjEnv(1).setParam("Heuristics", 0)
    m.optimize()
    assert x.X == pytest.approx(10, abs=1e-5)
    m.discardMultiobjEnvs()
    m.optimize()
    assert m.Status == KVR.OPTIMAL and z.X == pytest.approx(5)


def test_multiobj_callback_and_stop_one_objective(m):
    x, y = m._xy
    m.setObjectiveN(x, 0, priority=2)
    m.setObjectiveN(y, 1, priority=1)
    passes = []

    def cb(model, where):
        if where == CB.MULTIOBJ:
            passes.append((model.cbGet(CB.MULTIOBJ_OBJCNT), model.cbGetSolution([x, y])))
            with pytest.raises(kp.KaviroError) as err:
                model.cbStopOneMultiObj(5)
            assert err.value.errno == KVR.ERROR_INDEX_OUT_OF_RANGE
            model.cbStopOneMultiObj(0)  # a finished pass: nothing left to stop

    m.optimize(cb)
    assert [p[0] for p in passes] == [1, 2]
    assert passes[-1][1] == pytest.approx([x.X, y.X])


def test_multiobjective_rejects_quadratic_objective(m):
    x, y = m._xy
    m.setObjectiveN(y, 1, priority=1)
    m.setObjective(x * x, KVR.MINIMIZE)  # objective 0 becomes quadratic
    with pytest.raises(kp.KaviroError) as err:
        m.optimize()
    assert err.value.errno == KVR.ERROR_NOT_SUPPORTED
