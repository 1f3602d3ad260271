"""What every engine must do alike: each case runs once per available engine (forced through
KAVIRO_ENGINE_OPTIONS) and must give the same answer."""

import importlib.util
import pathlib

import pytest

import kaviropy as kp
from kaviropy import KVR

ENGINES = ["highs"] + (["scip"] if importlib.util.find_spec("pyscipopt") else [])
INSTANCES = pathlib.Path(__file__).resolve().parent / "data" / "instances"
MODEL_NAME = "conform"


@pytest.fixture(params=ENGINES)
def engine(request, monkeypatch):
    monkeypatch.setenv("KAVIRO_ENGINE_OPTIONS", f"engine={request.param}")
    return request.param


def test_lp_mip_and_objective_constant(m, engine):
    x = m.addVar(ub=4, name="x")
    y = m.addVar(vtype=KVR.INTEGER, ub=10, name="y")
    m.addConstr(x + 2 * y <= 7.5)
    m.addConstr(x - y >= -2)
    m.setObjective(3 * x + 2 * y + 1, KVR.MAXIMIZE)
    m.optimize()
    assert m.Status == KVR.OPTIMAL
    # x = 3.5, y = 2: 10.5 + 4 + 1 (y = 1 allows x = 4 only: 15)
    assert m.ObjVal == pytest.approx(15.5) and (x.X, y.X) == (pytest.approx(3.5), pytest.approx(2))
    assert m.ObjBound == pytest.approx(15.5, abs=1e-6)


def test_infeasible_and_unbounded(m, engine):
    x = m.addVar(vtype=KVR.INTEGER, ub=5)
    c = m.addConstr(x >= 6)
    m.setObjective(x)
    m.optimize()
    assert m.Status in (KVR.INFEASIBLE, KVR.INF_OR_UNBD) and m.SolCount == 0
    m.remove(c)
    x.LB = -KVR.INFINITY
    m.Params.DualReductions = 0
    m.optimize()
    assert m.Status in (KVR.UNBOUNDED, KVR.INF_OR_UNBD)


def test_convex_quadratic_objective_with_integers(m, engine):
    x = m.addVar(vtype=KVR.INTEGER, lb=-5, ub=5)
    y = m.addVar(lb=-5, ub=5)
    m.addConstr(x + y >= 1.2)
    m.setObjective(x * x + y * y)
    m.optimize()
    # x = 1, y = 0.2 -> 1.04 (x = 0 needs y = 1.2: 1.44)
    assert m.Status == KVR.OPTIMAL and m.ObjVal == pytest.approx(1.04, abs=1e-5)


def test_sos_indicator_semicontinuous(m, engine):
    x = [m.addVar(ub=3) for _ in range(3)]
    m.addSOS(KVR.SOS_TYPE1, x, [1, 2, 3])
    s = m.addVar(lb=2, ub=5, vtype=KVR.SEMICONT)
    b = m.addVar(vtype=KVR.BINARY)
    m.addGenConstrIndicator(b, False, s <= 0)
    m.addConstr(s <= 4 * b)
    m.setObjective(kp.quicksum(x) + s - 0.5 * b, KVR.MAXIMIZE)
    m.optimize()
    # one x at 3, b = 1 and s = 4: 3 + 4 - 0.5
    assert m.Status == KVR.OPTIMAL and m.ObjVal == pytest.approx(6.5, abs=1e-6)
    assert sum(v.X > 1e-6 for v in x) == 1


def test_limits_and_pool(m, engine):
    x = [m.addVar(vtype=KVR.BINARY) for _ in range(14)]
    m.addConstr(kp.quicksum((j % 5 + 2) * x[j] for j in range(14)) <= 19)
    m.setObjective(kp.quicksum((j % 7 + 1) * x[j] for j in range(14)), KVR.MAXIMIZE)
    m.optimize()
    assert m.Status == KVR.OPTIMAL and m.SolCount >= 1
    objs = [m.getAttr("PoolObjVal") for _ in range(1)]
    assert objs[0] == pytest.approx(m.ObjVal)
    best = m.ObjVal
    m.Params.Cutoff = best + 1
    m.optimize()
    assert m.Status == KVR.CUTOFF and m.SolCount == 0
    m.Params.Cutoff = best - 1
    m.optimize()
    assert m.Status == KVR.OPTIMAL and m.ObjVal == pytest.approx(best)
    m.Params.Cutoff = KVR.INFINITY * -1
    m.Params.BestObjStop = 1  # the first solution that is not empty stops the search
    m.optimize()
    assert m.Status == KVR.USER_OBJ_LIMIT and m.ObjVal >= 1
    m.Params.BestObjStop = KVR.INFINITY
    m.Params.TimeLimit = 0
    m.optimize()
    assert m.Status == KVR.TIME_LIMIT


def test_mip_start_is_used(m, engine):
    x = [m.addVar(vtype=KVR.BINARY) for _ in range(8)]
    m.addConstr(kp.quicksum(x) <= 3)
    m.setObjective(kp.quicksum((j + 1) * x[j] for j in range(8)), KVR.MAXIMIZE)
    for j, v in enumerate(x):
        v.Start = 1.0 if j >= 5 else 0.0
    m.Params.NodeLimit = 0
    m.Params.Heuristics = 0
    m.optimize()
    assert m.SolCount >= 1 and m.ObjVal == pytest.approx(21)


@pytest.mark.parametrize("name", ["p0548.mps", "egout.mps", "afiro.mps"])
def test_shared_instances(env, engine, name):
    expected = {"p0548.mps": 8691, "egout.mps": 568.1007, "afiro.mps": -464.7531429}[name]
    m = kp.read(str(INSTANCES / name), env=env)
    m.optimize()
    assert m.Status == KVR.OPTIMAL and m.ObjVal == pytest.approx(expected, rel=1e-6)
    m.dispose()


def test_terminate_and_interrupt_signal_stop_the_search(env, engine):
    import os
    import signal
    import threading
    for stop in ("terminate", "signal"):
        m = kp.read(str(INSTANCES / "dcmulti.mps"), env=env)
        act = m.terminate if stop == "terminate" else (
            lambda: os.kill(os.getpid(), signal.SIGINT))
        timers = []

        def arm(model, where):
            # Armed from inside the solve, so a slow start on a loaded machine cannot let the
            # stop arrive before the search runs.
            if not timers:
                timers.append(threading.Timer(0.3, act))
                timers[0].start()

        m.optimize(arm)  # the library handles the signal: no KeyboardInterrupt here
        timers[0].join()
        assert m.Status == KVR.INTERRUPTED and m.Runtime < 30, stop
        assert signal.getsignal(signal.SIGINT) is signal.default_int_handler
        m.dispose()


def test_a_raising_callback_does_not_stop_the_solve(m, engine, monkeypatch):
    x = [m.addVar(vtype=KVR.BINARY) for _ in range(10)]
    m.addConstr(kp.quicksum((j % 4 + 2) * x[j] for j in range(10)) <= 13)
    m.setObjective(kp.quicksum((j % 6 + 1) * x[j] for j in range(10)), KVR.MAXIMIZE)
    m.Params.LazyConstraints = 1
    reports = []
    monkeypatch.setattr("sys.unraisablehook", lambda info: reports.append(
        (type(info.exc_value), str(info.exc_value))))

    def cb(model, where):
        if where == KVR.Callback.MIPSOL:
            raise ValueError("boom")

    m.optimize(cb)
    assert m.Status == KVR.OPTIMAL and reports and reports[0] == (ValueError, "boom")
