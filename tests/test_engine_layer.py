"""The engine layer: engines loaded at run time, what each engine reports about itself, and the
steps that make up for what an engine lacks."""

import importlib.util
import math
import os
import pathlib
import subprocess
import sys

import pytest

import kaviropy as kp
from kaviropy import KVR


def run_with_highs_library(location):
    """Builds and solves a small model in a fresh process whose HiGHS library is `location`;
    returns the lines printed."""
    script = """
import kaviropy as kp
m = kp.Model()
m.Params.OutputFlag = 0
x = m.addVar(ub=2, obj=-1)
m.addConstr(x <= 1)
m.update()
try:
    m.optimize()
    print("solved", m.ObjVal)
except kp.KaviroError as e:
    print("error", e.errno, e.message)
print("kept", m.NumVars, m.NumConstrs)
"""
    env = dict(os.environ, KAVIRO_HIGHS_LIBRARY=str(location), KAVIRO_ENGINE_OPTIONS="engine=highs")
    done = subprocess.run([sys.executable, "-c", script], capture_output=True, text=True, env=env,
                          timeout=60)
    assert done.returncode == 0, done.stderr
    return done.stdout.splitlines()


def test_highs_library_missing_or_wrong_is_refused_at_first_use(tmp_path):
    # A file that is no library, and a library without the engine's functions (our own): both
    # refused with NOT_SUPPORTED when a solve needs the engine; the model is untouched.
    fake = tmp_path / "libhighs.so"
    fake.write_text("not a library")
    own = pathlib.Path(kp._core.__file__).parent / "libkaviro100.so"
    for location, reason in [(fake, "could not be loaded"),
                             (own, "is not a usable HiGHS library: it lacks Highs_")]:
        out = run_with_highs_library(location)
        assert out[0].startswith(f"error {KVR.ERROR_NOT_SUPPORTED} Engine HiGHS is not available: ")
        assert reason in out[0] and str(location) in out[0]
        assert out[1] == "kept 1 1"
    # A directory without the library is passed over: the package's highsbox is found next.
    (tmp_path / "empty").mkdir()
    assert run_with_highs_library(tmp_path / "empty")[0] == "solved -1.0"


ENGINES = ["highs"] + (["scip"] if importlib.util.find_spec("pyscipopt") else [])


@pytest.mark.parametrize("engine", ENGINES)
def test_lazy_rows_and_quadratic_constraints_together(m, engine, monkeypatch, tmp_path):
    # HiGHS lacks both lazy rows in its search and quadratic constraints: the restart and the
    # outer approximation steps run side by side (their rows screen the same incumbents). SCIP
    # takes both as they are: neither step runs, and the answer is the same.
    monkeypatch.setenv("KAVIRO_ENGINE_OPTIONS", f"engine={engine}")
    x = m.addVar(vtype=KVR.INTEGER, lb=-5, ub=5, name="x")
    y = m.addVar(vtype=KVR.INTEGER, lb=-5, ub=5, name="y")
    z = m.addVar(lb=-10, ub=10, name="z")
    m.addQConstr(x * x + y * y <= 10)
    m.addQConstr(z * z <= 2 + x)
    m.setObjective(x + 2 * y + z, KVR.MAXIMIZE)
    m.Params.LazyConstraints = 1
    m.Params.LogFile = str(tmp_path / "both.log")
    m.Params.OutputFlag = 1
    m.Params.LogToConsole = 0
    added = []

    def cb(model, where):
        if where == KVR.Callback.MIPSOL:
            vx, vy = model.cbGetSolution([x, y])
            if vx + vy > 2.5:
                model.cbLazy(x + y <= 2)
                added.append((vx, vy))

    m.optimize(cb)
    best = max(a + 2 * b + math.sqrt(2 + a) for a in range(-2, 6) for b in range(-5, 6)
               if a * a + b * b <= 10 and a + b <= 2)
    assert m.Status == KVR.OPTIMAL and added
    assert m.ObjVal == pytest.approx(best, abs=1e-4) and m.ObjBound >= m.ObjVal - 1e-6
    assert x.X + y.X <= 2 + 1e-6 and x.X**2 + y.X**2 <= 10 + 1e-6 and z.X**2 <= 2 + x.X + 1e-5
    log = (tmp_path / "both.log").read_text()
    emulated = "restarting the search" in log and "Outer approximation:" in log
    assert emulated == (engine == "highs")


def help_text(capsys, name):
    capsys.readouterr()
    kp.paramHelp(name)
    return " ".join(capsys.readouterr().out.split())


def test_settings_not_applied_and_limits_come_from_the_engine_in_use(env, capsys, monkeypatch):
    # HiGHS applies Method and Threads; SCIP, forced, does not. Cut classes neither engine has.
    def flagged(name):
        return bool(env._getParamInfo(name)[6] & 4)

    for engine, method_applied in [("highs", True), ("scip", False), ("auto", True)]:
        monkeypatch.setenv("KAVIRO_ENGINE_OPTIONS", f"engine={engine}")
        assert flagged("Method") != method_applied and flagged("Threads") != method_applied
        assert flagged("MIRCuts") and not flagged("TimeLimit")
        assert ("does not act on this setting" in help_text(capsys, "Method")) != method_applied
    # The engines' limits are stated per engine, whichever is in use.
    text = help_text(capsys, "NonConvex")
    assert "Note for engine HiGHS: solves convex models only" in text
    assert "Note for engine SCIP: with 2, solves nonconvex" in text
    assert "Note for engine" not in help_text(capsys, "MIPGap")
    # A malformed setting is the solve's error, not the help's.
    monkeypatch.setenv("KAVIRO_ENGINE_OPTIONS", "engine")
    assert not flagged("Method")


def test_engine_notes_through_the_c_interface(env):
    import ctypes as C

    import clib

    get = clib.lib.KVRgetparamenginenotes
    get.argtypes = [C.c_void_p, C.c_char_p, C.POINTER(C.c_char_p)]
    cenv = C.c_void_p(env._cenv)
    notes = C.c_char_p()
    assert get(cenv, b"threads", C.byref(notes)) == 0
    assert notes.value.decode() == "SCIP: runs on one thread whatever the value."
    assert get(cenv, b"MIPGap", C.byref(notes)) == 0 and notes.value == b""
    assert get(cenv, b"NoSuchParam", C.byref(notes)) == KVR.ERROR_UNKNOWN_PARAMETER
    assert get(cenv, b"Threads", None) == KVR.ERROR_NULL_ARGUMENT


def test_log_names_settings_the_engine_leaves_alone(m, monkeypatch, tmp_path):
    m.addVar(obj=1)
    m.Params.MIRCuts = 1
    m.Params.LogFile = str(tmp_path / "na.log")
    m.Params.OutputFlag = 1
    m.Params.LogToConsole = 0
    m.optimize()
    assert "Not applied by engine HiGHS: MIRCuts" in (tmp_path / "na.log").read_text()


def knapsack(m, n=30):
    w = [(7 * j) % 11 + 3 for j in range(n)]
    x = [m.addVar(vtype=KVR.BINARY, obj=(5 * j) % 13 + 1) for j in range(n)]
    m.addConstr(kp.quicksum(wj * xj for wj, xj in zip(w, x)) <= sum(w) / 3)
    m.ModelSense = KVR.MAXIMIZE
    m.Params.Presolve = 0
    m.Params.Heuristics = 0
    return x


def solve_logged(m, cb, tmp_path, name):
    m.Params.LogFile = str(tmp_path / name)
    m.Params.OutputFlag = 1
    m.Params.LogToConsole = 0
    m.optimize(cb)
    return [line for line in (tmp_path / name).read_text().splitlines()
            if line.startswith("Engine ")]


@pytest.mark.skipif("scip" not in ENGINES, reason="needs pyscipopt")
def test_engine_choice_sees_a_callback_acting_at_mipnode(m, monkeypatch, tmp_path):
    x = knapsack(m)
    seen = {"node": 0, "sol": 0}

    def at_nodes(model, where):
        if where == KVR.Callback.MIPNODE:
            model.cbGetNodeRel(x[0])
            seen["node"] += 1

    def helper_based(model, where):
        def count():  # a function defined inside the callback counts as its code
            if where == KVR.Callback.MIPNODE:
                seen["node"] += 1
        count()

    def at_solutions(model, where):
        if where == KVR.Callback.MIPSOL:
            seen["sol"] += 1

    monkeypatch.delenv("KAVIRO_ENGINE_OPTIONS", raising=False)
    header = solve_logged(m, at_nodes, tmp_path, "auto.log")
    assert header == ["Engine SCIP: the callback acts at MIPNODE (node relaxations, user cuts)"]
    assert m.Status == KVR.OPTIMAL and seen["node"] > 0
    seen["node"] = 0
    m.reset()
    assert solve_logged(m, helper_based, tmp_path, "helper.log")[0].startswith("Engine SCIP")
    assert seen["node"] > 0
    # Forced onto HiGHS the callback never runs there, and the log says so.
    monkeypatch.setenv("KAVIRO_ENGINE_OPTIONS", "engine=highs")
    seen["node"] = 0
    m.reset()
    header = solve_logged(m, at_nodes, tmp_path, "highs.log")
    assert header == ["Engine HiGHS: chosen with KAVIRO_ENGINE_OPTIONS; HiGHS never calls the "
                      "callback at MIPNODE, where it acts (no node relaxations, no user cuts)"]
    assert m.Status == KVR.OPTIMAL and seen["node"] == 0
    # A callback that only looks at solutions stays on HiGHS, and nothing is said about nodes.
    monkeypatch.delenv("KAVIRO_ENGINE_OPTIONS")
    m.reset()
    header = solve_logged(m, at_solutions, tmp_path, "sol.log")
    assert header == ["Engine HiGHS: the model needs nothing beyond it"] and seen["sol"] > 0


def test_callback_places_through_the_c_interface(m):
    import ctypes as C

    import clib

    put = clib.lib.KVRsetcallbackwheres
    put.argtypes = [C.c_void_p, C.c_int]
    cm = C.c_void_p(m._cmodel)
    assert put(cm, 1 << 5) == 0 and put(cm, 0) == 0
    for bad in (-1, 1 << 10):
        assert put(cm, bad) == KVR.ERROR_INVALID_ARGUMENT
        assert "not a set of where codes" in clib.lib.KVRgetmerrormsg(cm).decode()


def test_kept_basis_survives_deleting_a_slack_row_only(m):
    # A large LP re-solved after deletions starts from its basis (simplex, no barrier run) when
    # the engine keeps the basis through them: deleting a basic row keeps it, deleting a basic
    # column does not (the automatic method then takes barrier for an LP this size).
    import random

    rng = random.Random(3)
    n, rows = 60, 200
    x = [m.addVar(ub=10, obj=-rng.uniform(1, 2)) for _ in range(n)]
    cons = [m.addConstr(kp.quicksum(rng.uniform(0.1, 1) * v for v in x) <= rng.uniform(50, 100))
            for _ in range(rows)]
    slack = m.addConstr(kp.quicksum(x) <= 1e6)
    m.optimize()
    assert m.Status == KVR.OPTIMAL and m.NumNZs >= 10000
    m.remove(slack)
    m.optimize()
    assert m.Status == KVR.OPTIMAL and m.BarIterCount == 0 and m.IterCount <= 1
    basic = next(v for v in x if v.VBasis == KVR.BASIC)
    m.remove(basic)
    m.optimize()
    assert m.Status == KVR.OPTIMAL and m.BarIterCount > 0
    assert len(cons) == rows
