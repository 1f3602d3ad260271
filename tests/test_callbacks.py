"""Optimization callbacks: where codes and what queries, solutions in MIPSOL callbacks, user
solutions, lazy constraints (with the TSP example), misuse, raising callbacks and termination."""

import importlib.util
import itertools
import pathlib

import pytest

import kaviropy as kp
from kaviropy import KVR

# These tests drive the Model class; they run once it is part of the build.

CB = KVR.Callback


MODEL_NAME = "cb"  # the name of the model the m fixture makes


def knapsack(m, n=12):
    x = [m.addVar(vtype=KVR.BINARY, name=f"x{j}") for j in range(n)]
    m.addConstr(kp.quicksum((j % 5 + 2) * x[j] for j in range(n)) <= 17, name="cap")
    m.setObjective(kp.quicksum((j % 7 + 1) * x[j] for j in range(n)), KVR.MAXIMIZE)
    return x


def test_mip_callback_where_codes_and_queries(m):
    x = knapsack(m)
    m.Params.OutputFlag = 1
    m.Params.LogToConsole = 0
    seen = {}

    def cb(model, where):
        seen.setdefault(where, 0)
        seen[where] += 1
        assert isinstance(model.cbGet(CB.RUNTIME), float)
        if where == CB.MIPSOL:
            vals = model.cbGetSolution(x)
            obj = model.cbGet(CB.MIPSOL_OBJ)
            assert obj == pytest.approx(sum((j % 7 + 1) * v for j, v in enumerate(vals)))
            assert isinstance(model.cbGet(CB.MIPSOL_SOLCNT), int)
            assert model.cbGet(CB.MIPSOL_OBJBND) >= obj - 1e-6
            with pytest.raises(kp.KaviroError) as err:
                model.cbGet(CB.MIPSOL_SOL)
            assert (err.value.errno, err.value.message) == (0, "Array data requested from cbGet()")
            with pytest.raises(kp.KaviroError) as err:
                model.cbGet(CB.MIPNODE_STATUS)
            assert err.value.errno == KVR.ERROR_NOT_SUPPORTED
            with pytest.raises(kp.KaviroError) as err:
                model.cbGet(CB.SPX_OBJVAL)
            assert err.value.errno == KVR.ERROR_INVALID_ARGUMENT
            with pytest.raises(kp.KaviroError) as err:
                model.cbCut(x[0] <= 0)
            assert (err.value.errno, err.value.message) == (
                KVR.ERROR_CALLBACK, "where != KVR.Callback.MIPNODE")
            with pytest.raises(kp.KaviroError) as err:
                model.cbGetNodeRel(x)
            assert err.value.message == "where != KVR.Callback.MIPNODE"
        elif where == CB.MIP:
            assert model.cbGet(CB.MIP_NODCNT) >= 0
            with pytest.raises(kp.KaviroError) as err:
                model.cbGetSolution(x)
            assert (err.value.errno, err.value.message) == (
                KVR.ERROR_CALLBACK, "where != KVR.Callback.MIPSOL")
            with pytest.raises(kp.KaviroError) as err:
                model.cbLazy(x[0] <= 0)
            assert err.value.message == "where != KVR.Callback.MIPNODE or KVR.Callback.MIPSOL"
        elif where == CB.MESSAGE:
            assert isinstance(model.cbGet(CB.MSG_STRING), str)

    m.optimize(cb)
    assert m.Status == KVR.OPTIMAL
    assert seen.get(CB.MIPSOL, 0) >= 1 and seen.get(CB.MESSAGE, 0) >= 1
    assert seen.get(CB.POLLING, 0) == 1
    assert m._callback is None
    with pytest.raises(AttributeError):
        m.cbGet(CB.RUNTIME)  # outside a callback


def test_simplex_callback_and_terminate(env):
    m = kp.read(str(pathlib.Path(__file__).parent / "data/instances/25fv47.mps"), env=env)
    m.Params.Presolve = 0
    m.Params.Method = 1
    counts = []

    def cb(model, where):
        if where == CB.SIMPLEX:
            counts.append(model.cbGet(CB.SPX_ITRCNT))
            model.terminate()

    m.optimize(cb)
    assert m.Status == KVR.INTERRUPTED and len(counts) >= 1
    m.dispose()


def test_raising_callback_does_not_stop_the_solve(m, monkeypatch):
    knapsack(m)
    reports = []
    # Keep only the type: the report's traceback would keep the model's frames alive.
    monkeypatch.setattr("sys.unraisablehook", lambda info: reports.append(
        (type(info.exc_value), str(info.exc_value), str(info.object))))

    def cb(model, where):
        raise ValueError("boom")

    m.optimize(cb)
    assert m.Status == KVR.OPTIMAL
    assert reports and reports[0][:2] == (ValueError, "boom")
    assert "kaviropy.callbackstub" in reports[0][2]


def test_lambda_is_accepted_and_callable_object_is_not(m):
    knapsack(m)
    m.optimize(lambda model, where: None)
    assert m.Status == KVR.OPTIMAL

    class Callable:
        def __call__(self, model, where):
            pass

    with pytest.raises(kp.KaviroError) as err:
        m.optimize(Callable())
    assert err.value.message == "Callback argument must be a function"


def test_user_solution_is_checked_and_kept(m):
    x = knapsack(m)
    m.Params.Heuristics = 0
    results = []

    def cb(model, where):
        if where in (CB.MIP, CB.MIPSOL) and not results:
            model.cbSetSolution(x, [0.0] * len(x))  # feasible, objective 0
            results.append(model.cbUseSolution())
            model.cbSetSolution(x[0], 5.0)  # outside its bounds
            results.append(model.cbUseSolution())

    m.optimize(cb)
    assert results[0] == 0.0 and results[1] == KVR.INFINITY
    assert m.Status == KVR.OPTIMAL and m.SolCount >= 1


def test_lazy_constraints_hold_in_the_final_solution(m):
    n = 8
    x = [m.addVar(vtype=KVR.BINARY, name=f"x{j}") for j in range(n)]
    m.setObjective(kp.quicksum((j + 1) * x[j] for j in range(n)), KVR.MAXIMIZE)
    added = []

    def cb(model, where):
        if where != CB.MIPSOL:
            return
        v = model.cbGetSolution(x)
        on = [j for j in range(n) if v[j] > 0.5]
        if len(on) > 3:
            model.cbLazy(kp.quicksum(x[j] for j in on) <= 3)
            added.append(1)
        for i, j in itertools.combinations(on, 2):
            if (i + j) % 2 == 1:
                model.cbLazy(x[i] + x[j] <= 1)
                added.append(1)

    m.optimize(cb)
    on = [j for j in range(n) if x[j].X > 0.5]
    assert m.Status == KVR.OPTIMAL and added
    assert on == [3, 5, 7] and m.ObjVal == pytest.approx(18)


def test_lazy_constraint_errors(m):
    x = knapsack(m)
    other = kp.Model(env=m._uenv)
    y = other.addVar()
    errors = []

    def cb(model, where):
        if where == CB.MIPSOL and not errors:
            for bad in (lambda: model.cbLazy(y <= 0), lambda: model.cbLazy(x[0], "!", 1)):
                try:
                    bad()
                except kp.KaviroError as e:
                    errors.append(e)

    m.optimize(cb)
    assert [e.errno for e in errors] == [0, KVR.ERROR_INVALID_ARGUMENT]
    assert errors[0].message == "Variable not in model"
    other.dispose()


def test_tsp_example_tour_visits_every_city(env):
    spec = importlib.util.spec_from_file_location(
        "tsp", pathlib.Path(__file__).resolve().parents[1] / "examples" / "tsp.py")
    tsp = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(tsp)
    tour, length, cuts = tsp.solve(15, seed=3, env=env)
    assert sorted(tour) == list(range(15)) and cuts >= 1 and length > 0
