"""Every error code of the library, provoked through the public interface: the module where it
can reach the code, the library's C interface (through ctypes) where the module checks first or
cannot pass the argument. Each test checks the code, the message, and that the failing call left
the model as it was. Two codes have no test (see UNREACHABLE)."""

import ctypes as C
import re

import pytest

import clib
import kaviropy as kp
from kaviropy import KVR


INF = float("inf")
CODES = {n: getattr(KVR.Error, n) for n in dir(KVR.Error) if not n.startswith("_")}
CODES["SECURITY"] = KVR.ERROR_SECURITY
# EXCEED_2B_NONZEROS needs a model with more than 2^31-1 nonzeros; INTERNAL reports unexpected
# failures only.
UNREACHABLE = {"EXCEED_2B_NONZEROS", "INTERNAL"}

CALLBACK = C.CFUNCTYPE(C.c_int, C.c_void_p, C.c_void_p, C.c_int, C.c_void_p)
clib.lib.KVRsetcallbackfunc.argtypes = [C.c_void_p, CALLBACK, C.c_void_p]
clib.lib.KVRoptimize.argtypes = [C.c_void_p]
clib.lib.KVRsetdblattrelement.argtypes = [C.c_void_p, C.c_char_p, C.c_int, C.c_double]
clib.lib.KVRtunemodels.argtypes = [C.c_int, C.POINTER(C.c_void_p)]


def test_every_reachable_code_has_a_test():
    tested = {name[len("test_"):].upper() for name in globals() if name.startswith("test_")}
    tested |= {code for code, *_ in REMOTE}
    assert set(CODES) - UNREACHABLE <= tested
    assert len(CODES) == 33


@pytest.fixture
def m(env):
    """x in [0, 2], integer y in [0, 3]; c: x + y <= 4; maximize x + y."""
    model = kp.Model("codes", env=env)
    x = model.addVar(ub=2, name="x")
    y = model.addVar(vtype=KVR.INTEGER, ub=3, name="y")
    model.addConstr(x + y <= 4, name="c")
    model.setObjective(x + y, KVR.MAXIMIZE)
    model.update()
    yield model
    model.dispose()


def snapshot(m):
    """Everything a failing call must not change (after applying whatever it may have queued)."""
    m.update()
    vs, cs = m.getVars(), m.getConstrs()
    counts = [m.getAttr(a) for a in ("NumVars", "NumConstrs", "NumSOS", "NumQConstrs",
                                     "NumGenConstrs", "NumNZs", "ModelSense", "ObjCon")]
    return (counts, [m.getAttr(a, vs) for a in ("LB", "UB", "Obj", "VType", "VarName")],
            [m.getAttr(a, cs) for a in ("RHS", "Sense", "ConstrName")] if cs else [],
            [str(m.getRow(c)) for c in cs], m.Params.UpdateMode)


def fails(m, code, call, message=None, match=None):
    """call() raises KaviroError(code) with exactly `message` (or matching `match`), and the model
    is as it was."""
    before = snapshot(m) if m is not None else None
    with pytest.raises(kp.KaviroError) as err:
        call()
    assert err.value.errno == code
    if message is not None:
        assert err.value.message == message
    if match is not None:
        assert re.fullmatch(match, err.value.message), err.value.message
    if m is not None:
        assert snapshot(m) == before


def library_fails(m, code, result, message):
    """A C interface call on m's library model returned `code` with `message`."""
    assert result == code
    assert clib.lib.KVRgetmerrormsg(m._cmodel).decode() == message


def in_mipsol_callback(m, call):
    """Runs call(model) inside a MIPSOL callback; returns the exception it raised."""
    caught = []

    def cb(model, where):
        if where == KVR.Callback.MIPSOL and not caught:
            try:
                call(model)
                caught.append(None)
            except kp.KaviroError as e:
                caught.append(e)

    m.optimize(cb)
    assert caught and caught[0] is not None
    return caught[0]


def test_out_of_memory(m):
    m.Params.MemLimit = 0.001
    fails(m, KVR.ERROR_OUT_OF_MEMORY, m.optimize,
          match=r"Out of memory: the process already uses \d+\.\d{3} GB, above MemLimit "
                r"\(0\.001 GB\); optimization not started")


def test_null_argument(m):
    before = snapshot(m)
    library_fails(m, KVR.ERROR_NULL_ARGUMENT,
                  clib.lib.KVRgetintattr(m._cmodel, b"NumVars", None), "No place for the value given")
    assert snapshot(m) == before


def test_invalid_argument(m):
    fails(m, KVR.ERROR_INVALID_ARGUMENT, lambda: m.addVar(vtype="X"),
          "Invalid type 'X' (code 88) of variable 2: use 'C', 'B', 'I', 'S' or 'N'")


def test_unknown_attribute(m):
    before = snapshot(m)
    value = C.c_int()
    library_fails(m, KVR.ERROR_UNKNOWN_ATTRIBUTE,
                  clib.lib.KVRgetintattr(m._cmodel, b"NoSuchAttr", C.byref(value)),
                  "Unknown attribute 'NoSuchAttr'")
    assert snapshot(m) == before


def test_data_not_available(m):
    fails(m, KVR.ERROR_DATA_NOT_AVAILABLE, lambda: m.getAttr("X", m.getVars()),
          "Unable to retrieve attribute 'X'")


def test_index_out_of_range(m):
    before = snapshot(m)
    library_fails(m, KVR.ERROR_INDEX_OUT_OF_RANGE,
                  clib.lib.KVRsetdblattrelement(m._cmodel, b"LB", 2, 1.0),
                  "Index 2 out of range for attribute 'LB': the model has 2 variables")
    assert snapshot(m) == before


def test_unknown_parameter(m):
    fails(m, KVR.ERROR_UNKNOWN_PARAMETER, lambda: m.setParam("NoSuchParam", 1),
          "Unknown parameter NoSuchParam")


def test_value_out_of_range(m):
    fails(m, KVR.ERROR_VALUE_OUT_OF_RANGE, lambda: setattr(m.Params, "Method", 99),
          "Unable to set parameter Method to 99 (allowed range [-1, 5])")
    assert m.Params.Method == -1


def test_callback(m):
    # The module's callback always returns 0; a C callback can fail.
    before = snapshot(m)
    failing = CALLBACK(lambda model, cbdata, where, usrdata: 1)
    assert clib.lib.KVRsetcallbackfunc(m._cmodel, failing, None) == 0
    try:
        library_fails(m, KVR.ERROR_CALLBACK, clib.lib.KVRoptimize(m._cmodel),
                      "The callback returned 1; optimization stopped")
    finally:
        clib.lib.KVRsetcallbackfunc(m._cmodel, CALLBACK(), None)
    assert snapshot(m) == before


def test_file_read(env, tmp_path):
    missing = tmp_path / "missing.mps"
    fails(None, KVR.ERROR_FILE_READ, lambda: kp.read(str(missing), env=env),
          f"Unable to open '{missing}' for reading: No such file or directory")
    bad = tmp_path / "bad.lp"
    bad.write_text("Minimize\n obj: x +\nSubject To\n c0: x >= 1 ??\nEnd\n")
    fails(None, KVR.ERROR_FILE_READ, lambda: kp.read(str(bad), env=env),
          match=re.escape(str(bad)) + r".*line \d+.*")


def test_file_write(env, tmp_path):
    target = tmp_path / "missing" / "p.prm"
    fails(None, KVR.ERROR_FILE_WRITE, lambda: env.writeParams(str(target)),
          f"Unable to open '{target}' for writing")


def test_numeric(m):
    x = m.getVars()[0]
    fails(m, KVR.ERROR_NUMERIC, lambda: m.setObjective(x + INF),
          "The constant of the objective is infinite; it must be finite")


def test_iis_not_infeasible(m):
    fails(m, KVR.ERROR_IIS_NOT_INFEASIBLE, m.computeIIS,
          "Cannot compute an IIS: the model is feasible")


def test_not_for_mip(m):
    m.optimize()
    fails(m, KVR.ERROR_NOT_FOR_MIP, lambda: m.getAttr("SAObjLow", m.getVars()),
          "Unable to retrieve attribute 'SAObjLow': sensitivity ranges do not exist for models "
          "with discrete elements")
    assert m.ObjVal == pytest.approx(4)


def test_optimization_in_progress(m):
    before = snapshot(m)
    err = in_mipsol_callback(m, lambda model: model.getAttr("X", model.getVars()))
    assert err.errno == KVR.ERROR_OPTIMIZATION_IN_PROGRESS
    assert err.message == ("Optimization in progress: query the model after KVRoptimize returns "
                           "(inside a callback, use KVRcbget)")
    assert snapshot(m) == before and m.Status == KVR.OPTIMAL


def test_duplicates(m):
    x = m.getVars()[0]
    fails(m, KVR.ERROR_DUPLICATES, lambda: m.addSOS(KVR.SOS_TYPE1, [x, x]),
          "Variable 0 appears twice in SOS constraint 0")


def test_nodefile(m, tmp_path):
    m.Params.NodefileStart = 0.5
    m.Params.NodefileDir = str(tmp_path / "nodes")
    fails(m, KVR.ERROR_NODEFILE, m.optimize,
          f"Node file directory '{tmp_path / 'nodes'}' (NodefileDir) does not exist")


def test_q_not_psd(env):
    m = kp.Model("q", env=env)
    x = m.addVar(ub=1, name="x")
    y = m.addVar(ub=1, name="y")
    m.setObjective(x * y)
    fails(m, KVR.ERROR_Q_NOT_PSD, m.optimize,
          match=r"Objective Q not positive semi-definite.*the engine solves convex quadratic "
                r"objectives only")
    m.dispose()


def test_qcp_equality_constraint(m):
    x, y = m.getVars()
    m.addQConstr(x * x + y * y == 1, name="circle")
    fails(m, KVR.ERROR_QCP_EQUALITY_CONSTRAINT, m.optimize,
          "Quadratic constraint 'circle' is an equality; quadratic constraints must be "
          "inequalities (<= or >=)")
    m.getQConstrs()[0].QCName = ""
    fails(m, KVR.ERROR_QCP_EQUALITY_CONSTRAINT, m.optimize, match=r"Quadratic constraint 'QC0' .*")


REMOTE = [
    ("NETWORK", "ComputeServer", "server:61000",
     "Unable to connect to compute server 'server:61000': this library solves locally only"),
    ("JOB_REJECTED", "JobID", "job-1",
     "Job 'job-1' rejected: there is no server that holds remote jobs"),
    ("CLOUD", "CloudAccessID", "id", "Unable to start a cloud session: no cloud service is available"),
    ("CSWORKER", "WorkerPool", "pool:61000",
     "Distributed optimization needs a worker pool, and this library has none"),
    ("SECURITY", "ServerPassword", "secret",
     "Credentials were given, but there is no server to present them to"),
]


@pytest.mark.parametrize("code, param, value, message", REMOTE, ids=[r[0] for r in REMOTE])
def test_remote_services(code, param, value, message):
    e = kp.Env(empty=True)
    e.setParam("OutputFlag", 0)
    e.setParam(param, value)
    fails(None, CODES[code], e.start, message)
    e.dispose()


def test_not_supported(m):
    x, y = m.getVars()
    z = m.addVar(name="z")
    m.addGenConstrNorm(z, [x, y], 2.0, name="n2")
    fails(m, KVR.ERROR_NOT_SUPPORTED, m.optimize,
          "General constraint n2 (NORM): the 2-norm as an equality is not convex; only the cone "
          "y >= ||x|| is, written as the quadratic constraint sum x_i^2 <= y^2 with y >= 0")


def test_invalid_piecewise_obj(m):
    x = m.getVars()[0]
    fails(m, KVR.ERROR_INVALID_PIECEWISE_OBJ, lambda: m.setPWLObj(x, [2, 1], [0, 1]),
          "The x values of the piecewise-linear objective of variable 0 decrease at point 1 (1 "
          "after 2); they must be non-decreasing")


def test_updatemode_change(m):
    m.Params.UpdateMode = 0
    m.addVar(name="queued")
    m.Params.UpdateMode = 1
    with pytest.raises(kp.KaviroError) as err:
        m.addVar(name="now")
    assert err.value.errno == KVR.ERROR_UPDATEMODE_CHANGE
    assert err.value.message.startswith("UpdateMode was changed to 1 while variables or "
                                        "constraints added in update mode 0 are waiting")
    m.update()
    assert [v.VarName for v in m.getVars()] == ["x", "y", "queued"]


def test_model_modification(m):
    before = snapshot(m)
    err = in_mipsol_callback(m, lambda model: model.addVar(name="late"))
    assert err.errno == KVR.ERROR_MODEL_MODIFICATION
    assert err.message == ("The model cannot be changed while it is being optimized; change it "
                           "after KVRoptimize returns")
    assert snapshot(m) == before


def test_tune_model_types(m, env):
    # The module tunes one model at a time; several models are tuned through the C interface.
    lp = kp.Model("lp", env=env)
    lp.addVar(obj=1, name="z")
    lp.update()
    before = snapshot(m)
    models = (C.c_void_p * 2)(m._cmodel, lp._cmodel)
    library_fails(m, KVR.ERROR_TUNE_MODEL_TYPES, clib.lib.KVRtunemodels(2, models),
                  "Model 0 ('codes') is a MIP and model 1 ('lp') is a continuous LP: models tuned "
                  "together must be all MIPs or all continuous")
    assert snapshot(m) == before and m.TuneResultCount == 0
    lp.dispose()


def test_not_in_model(m, env):
    other = kp.Model("other", env=env)
    z = other.addVar(name="z")
    fails(m, KVR.ERROR_NOT_IN_MODEL, lambda: m.addConstr(z <= 1), "Variable not in model")
    other.dispose()


def test_failed_to_create_model():
    unstarted = kp.Env(empty=True)
    fails(None, KVR.ERROR_FAILED_TO_CREATE_MODEL, lambda: kp.Model("m", env=unstarted),
          "Unable to create the model: the environment has not been started (call KVRstartenv "
          "first)")
    unstarted.dispose()
