"""The parameter tuner: what it varies (never fixed or already changed parameters, only settings
that fit the model's kind), what it leaves alone (the model's own parameters and solution),
how results are kept and applied, the log levels, interruption, and the errors of tuning and of
retrieving results."""

import ctypes as C
import pathlib
import re
import shutil
import subprocess
import sys
import threading
import time

import pytest

import clib
import kaviropy as kp
from conftest import INSTANCES, raises
from kaviropy import KVR


clib.lib.KVRtunemodels.argtypes = [C.c_int, C.POINTER(C.c_void_p)]
clib.lib.KVRtunemodel.argtypes = [C.c_void_p]

# flugpl solves in a few hundredths of a second; without presolve it is clearly faster, so a
# short search finds an improvement.
QUICK = {"TuneTimeLimit": 3, "TuneTrials": 1}
TUNER_SETS = re.compile(r"^(?:Set \d+|Improved set after [\d.]+ s): (.*)$", re.M)


@pytest.fixture(autouse=True)
def on_highs(monkeypatch):
    """The tuner's trials on HiGHS, whose settings it tries: left to the automatic choice,
    tiny_mip (set partitioning) goes to SCIP, and a trial setting that SCIP leaves alone brings
    it back."""
    monkeypatch.setenv("KAVIRO_ENGINE_OPTIONS", "engine=highs")


@pytest.fixture
def loud_env():
    """An environment whose log reaches the console (captured by capsys)."""
    e = kp.Env(empty=True)
    e.setParam("OutputFlag", 1)
    e.setParam("LogToConsole", 1)
    e.start()
    yield e
    e.dispose()


def read(env, name, **params):
    m = kp.read(str(INSTANCES / name), env=env)
    for k, v in params.items():
        m.setParam(k, v)
    return m


def changes(m):
    """The model's parameter changes from their defaults, as a dict."""
    text = repr(m.Params)[len("<kaviropy.ParamClass: "):-1]
    if text == "No parameter changes":
        return {}
    pairs = text[len("Parameter changes: "):].split(", ")
    return dict(p.split("=", 1) for p in pairs)


def tried_sets(log):
    """The parameter names changed by every set the log shows as measured."""
    return [{c.split("=")[0] for c in sets.split(", ")} for sets in TUNER_SETS.findall(log)]


@pytest.fixture(scope="module")
def tuned():
    """flugpl tuned with Symmetry fixed and ScaleFlag set by the user; solved before tuning."""
    e = kp.Env(empty=True)
    e.setParam("OutputFlag", 0)
    e.fixTuneParam("Symmetry")
    e.start()
    m = read(e, "flugpl.mps", ScaleFlag=1, **QUICK)
    m.optimize()
    before = (changes(m), m.Status, m.ObjVal, m.Runtime, m.NodeCount)
    m.tune()
    yield m, before
    m.dispose()
    e.dispose()


def test_tuning_leaves_the_model_alone_and_finds_a_faster_set(tuned):
    m, (params, status, objval, runtime, nodes) = tuned
    assert changes(m) == params
    assert (m.Status, m.ObjVal, m.Runtime, m.NodeCount) == (status, objval, runtime, nodes)
    assert m.TuneResultCount >= 1
    for i in range(m.TuneResultCount):
        m.getTuneResult(i)
        now = changes(m)
        changed = {k for k in set(now) | set(params) if now.get(k) != params.get(k)}
        # Only free parameters change; the user's ScaleFlag and the fixed Symmetry stay.
        assert changed and changed <= {"Presolve", "Heuristics"}, now
        assert now["ScaleFlag"] == "1" and "Symmetry" not in now
        m.optimize()
        assert m.Status == KVR.OPTIMAL and m.ObjVal == pytest.approx(1201500)


def test_results_replace_later_changes_with_the_tuning_baseline(tuned):
    m, (params, *_) = tuned
    m.Params.TimeLimit = 7
    m.Params.ScaleFlag = 0
    m.getTuneResult(0)
    assert m.Params.TimeLimit == 1e100 and m.Params.ScaleFlag == 1
    assert changes(m)["TuneTimeLimit"] == params["TuneTimeLimit"]


def test_bad_result_index_changes_nothing(tuned):
    m, _ = tuned
    m.getTuneResult(0)
    before = changes(m)
    n = m.TuneResultCount
    word = "is" if n == 1 else "are"
    for i in (n, -1):
        raises(KVR.ERROR_INDEX_OUT_OF_RANGE,
               f"Tuning result {i} does not exist: there {word} {n} (0 to {n - 1})",
               m.getTuneResult, i)
    assert changes(m) == before


def test_fixed_parameters_are_never_tried(loud_env, capsys):
    loud_env.fixTuneParam("Presolve")
    m = read(loud_env, "flugpl.mps", TuneOutput=2, **QUICK)
    capsys.readouterr()
    m.tune()
    log = capsys.readouterr().out
    sets = tried_sets(log)
    assert sets and all("Presolve" not in s for s in sets)
    assert "Parameters varied: Heuristics, Symmetry, ScaleFlag" in log
    for i in range(m.TuneResultCount):
        m.getTuneResult(i)
        assert m.Params.Presolve == -1
    m.dispose()


def test_continuous_models_vary_the_method_not_mip_settings(loud_env, capsys):
    m = read(loud_env, "afiro.mps", TuneOutput=2, TuneTargetTime=0, **QUICK)
    capsys.readouterr()
    m.tune()
    log = capsys.readouterr().out
    assert "Parameters varied: Presolve, Method, Crossover, ScaleFlag" in log
    tried = set().union(*tried_sets(log))
    assert "Method" in tried and not tried & {"Heuristics", "Symmetry"}
    # Crossover is tried only together with the barrier method.
    for sets in TUNER_SETS.findall(log):
        if "Crossover" in sets:
            assert "Method=2" in sets, sets
    m.dispose()


def test_output_levels_and_target_time(loud_env, capsys):
    """A model that solves within TuneTargetTime is measured and not tuned; TuneOutput decides
    what the log shows."""
    m = read(loud_env, "tiny_mip.mps", TuneTargetTime=100, **QUICK)
    logs = {}
    for level in (0, 1, 2, 3):
        m.Params.TuneOutput = level
        capsys.readouterr()
        m.tune()
        logs[level] = capsys.readouterr().out
        assert m.TuneResultCount == 0
    assert logs[0] == ""
    assert "already solves within the target time (TuneTargetTime 100 s)" in logs[1]
    assert "trial 1 (Seed 0)" not in logs[1] and "trial 1 (Seed 0)" in logs[2]
    assert "time limit" not in logs[2].split("Baseline, trial 1")[1].splitlines()[0]
    assert "nodes" in logs[3].split("Baseline, trial 1")[1].splitlines()[0]
    raises(KVR.ERROR_DATA_NOT_AVAILABLE,
           "No tuning result available: the model was not tuned, or tuning found no improved "
           "parameter set", m.getTuneResult, 0)
    m.dispose()


def test_result_count_is_limited_and_a_new_run_replaces_results(loud_env, capsys):
    m = read(loud_env, "flugpl.mps", TuneOutput=1, TuneResults=0, **QUICK)
    capsys.readouterr()
    m.tune()
    log = capsys.readouterr().out
    assert "Improved set after" in log and m.TuneResultCount == 0
    m.Params.TuneResults = 1
    m.tune()
    assert m.TuneResultCount == 1
    m.dispose()


def test_interrupt_stops_tuning_and_keeps_what_was_found(loud_env, capsys):
    m = read(loud_env, "lseu.mps", TuneOutput=1, TuneTimeLimit=120, TuneTrials=50,
             TuneTargetTime=0)
    timer = threading.Timer(0.5, m.terminate)
    timer.start()
    start = time.time()
    m.tune()
    elapsed = time.time() - start
    timer.join()
    assert elapsed < 10
    log = capsys.readouterr().out
    assert "Tuning interrupted" in log
    m.optimize()  # the model is usable again and solves as before
    assert m.ObjVal == pytest.approx(1120)
    m.dispose()


def pointers(*models):
    return (C.c_void_p * len(models))(*[mm._cmodel for mm in models])


def test_several_models_are_tuned_together(env):
    a = read(env, "flugpl.mps", **QUICK)
    b = read(env, "tiny_mip.mps", **QUICK)
    assert clib.lib.KVRtunemodels(2, pointers(a, b)) == 0
    assert a.TuneResultCount >= 1 and b.TuneResultCount == 0
    a.getTuneResult(0)
    assert set(changes(a)) - set(QUICK) - {"OutputFlag"} <= {"Presolve", "Heuristics", "Symmetry",
                                                           "ScaleFlag"}
    a.dispose()
    b.dispose()


def test_tuning_errors(env):
    a = read(env, "tiny_mip.mps")
    b = read(env, "small_mip.mps")
    lib = clib.lib
    assert lib.KVRtunemodels(2, None) == KVR.ERROR_NULL_ARGUMENT
    assert lib.KVRtunemodels(0, pointers(a)) == KVR.ERROR_INVALID_ARGUMENT
    cases = [
        ((a, a), KVR.ERROR_DUPLICATES, "The list holds the same model twice (0 and 1)"),
    ]
    for models, code, message in cases:
        assert lib.KVRtunemodels(len(models), pointers(*models)) == code
        assert lib.KVRgetmerrormsg(a._cmodel).decode() == message
    with_null = (C.c_void_p * 2)(a._cmodel, None)
    assert lib.KVRtunemodels(2, with_null) == KVR.ERROR_NULL_ARGUMENT
    assert lib.KVRgetmerrormsg(a._cmodel).decode() == "Model 1 of the list is NULL"
    freed = b._cmodel
    b.dispose()
    assert lib.KVRtunemodels(2, (C.c_void_p * 2)(a._cmodel, freed)) == KVR.ERROR_INVALID_ARGUMENT
    assert lib.KVRgetmerrormsg(a._cmodel).decode().startswith("Model 1 of the list: Invalid handle")
    assert a.TuneResultCount == 0

    # Tuning a model while it is being optimized.
    codes = []

    def cb(model, where):
        if where == KVR.Callback.MIPSOL and not codes:
            codes.append(lib.KVRtunemodel(model._cmodel))
    a.optimize(cb)
    assert codes == [KVR.ERROR_OPTIMIZATION_IN_PROGRESS]
    a.dispose()
    raises(0, "Model has already been freed", a.tune)


def test_command_line_tunes_one_or_more_files(tmp_path):
    exe = shutil.which("kaviro_cl", path=str(pathlib.Path(sys.executable).parent))
    assert exe, "kaviro_cl is not installed beside %s" % sys.executable

    def run(*args):
        return subprocess.run([exe, *args], capture_output=True, text=True, cwd=tmp_path,
                              timeout=60)

    mips = [str(INSTANCES / "flugpl.mps"), str(INSTANCES / "tiny_mip.mps")]
    r = run("--tune", "TuneTimeLimit=3", "TuneTrials=1", "ResultFile=best.prm", *mips)
    assert r.returncode == 0, r.stderr
    assert "Tuning 2 models together" in r.stdout
    shown = r.stdout.split("Best parameter set (result 0 of ")[1].splitlines()[1:]
    shown = [line.split() for line in shown if line.startswith("  ")]
    assert shown and {name for name, _ in shown} <= {"Presolve", "Heuristics", "Symmetry",
                                                    "ScaleFlag"}
    written = (tmp_path / "best.prm").read_text()
    for name, value in shown:
        assert re.search(r"^%s\s+%s$" % (name, re.escape(value)), written, re.M), written
    r = run("--tune", mips[0], str(INSTANCES / "afiro.mps"))
    assert r.returncode == 1 and "is a MIP and model 1 ('AFIRO') is a continuous LP" in r.stderr
    r = run("--tune", "ResultFile=x.sol", mips[0])
    assert r.returncode == 2 and "ResultFile must name a parameter file (.prm)" in r.stderr
    r = run(*mips)
    assert r.returncode == 2 and "one model file, or --tune" in r.stderr
