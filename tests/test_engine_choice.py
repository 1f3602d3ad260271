"""The automatic engine choice for MIPs both engines can solve: the shapes that go to SCIP, both
sides of each limit, and what keeps a model on HiGHS whatever its shape."""

import importlib.util
import os
import subprocess
import sys

import pytest

import kaviropy as kp
from kaviropy import KVR

pytestmark = pytest.mark.skipif(importlib.util.find_spec("pyscipopt") is None,
                                reason="needs pyscipopt")

HIGHS = "Engine HiGHS: the model needs nothing beyond it"


def integer_program(m, ints, rows, binaries=0, continuous=0, ub=5.0):
    """`ints` integer columns in [0, ub], some binaries and continuous columns, and `rows`
    covering rows, each over all columns but one (coefficients 1 to 3, right-hand sides 7 to
    11)."""
    cols = [m.addVar(ub=ub, vtype=KVR.INTEGER) for _ in range(ints)]
    cols += [m.addVar(vtype=KVR.BINARY) for _ in range(binaries)]
    cols += [m.addVar(ub=4) for _ in range(continuous)]
    for i in range(rows):
        m.addConstr(kp.quicksum((1 + (i + j) % 3) * v for j, v in enumerate(cols)
                                if j != i % len(cols)) >= 7 + i % 5)
    m.setObjective(kp.quicksum((2 + j % 4) * v for j, v in enumerate(cols)))
    return cols


def set_rows(m, sense, n=6, vtype=KVR.BINARY):
    """Rows over n 0/1 columns against 1, each a pair of neighbours in a ring (n even: the
    partitioning rows have the alternating solutions)."""
    x = [m.addVar(vtype=vtype, ub=1) for _ in range(n)]
    for i in range(n):
        m.addLConstr(x[i] + x[(i + 1) % n], sense, 1)
    m.setObjective(kp.quicksum((1 + j % 3) * v for j, v in enumerate(x)),
                   KVR.MAXIMIZE if sense == KVR.LESS_EQUAL else KVR.MINIMIZE)
    return x


def header(m, tmp_path, cb=None):
    log = tmp_path / "choice.log"
    log.write_text("")
    m.Params.LogFile, m.Params.OutputFlag, m.Params.LogToConsole = str(log), 1, 0
    m.optimize(cb)
    return [line for line in log.read_text().splitlines() if line.startswith("Engine ")]


def solved_alike(m, tmp_path, monkeypatch):
    """Solves m automatically and on HiGHS; returns the automatic log line after checking that
    both reach the same optimum."""
    line = header(m, tmp_path)
    assert m.Status == KVR.OPTIMAL
    found = m.ObjVal
    monkeypatch.setenv("KAVIRO_ENGINE_OPTIONS", "engine=highs")
    m.reset()
    m.optimize()
    monkeypatch.delenv("KAVIRO_ENGINE_OPTIONS")
    assert m.Status == KVR.OPTIMAL and m.ObjVal == pytest.approx(found, rel=1e-6)
    return line


@pytest.mark.parametrize("ints, rows, binaries, continuous, ub, scip", [
    (6, 60, 0, 0, 5.0, True),           # ten rows per column: the limit
    (6, 61, 0, 0, 5.0, False),          # one row more
    (6, 8, 0, 1, 5.0, False),           # one continuous column beside them
    (6, 8, 1, 0, 5.0, False),           # one binary among them
    (6, 8, 0, 0, KVR.INFINITY, False),  # columns without an upper bound
])
def test_general_integer_programs_go_to_scip_within_the_limits(
        env, tmp_path, monkeypatch, ints, rows, binaries, continuous, ub, scip):
    monkeypatch.delenv("KAVIRO_ENGINE_OPTIONS", raising=False)
    with kp.Model(env=env) as m:
        integer_program(m, ints, rows, binaries, continuous, ub)
        line = solved_alike(m, tmp_path, monkeypatch)
        if scip:
            assert line == [f"Engine SCIP: general integer columns only ({ints} columns, {rows} "
                            "rows): SCIP solves such models faster"]
        else:
            assert line == [HIGHS]


def test_integer_columns_within_zero_one_count_as_binaries(env, tmp_path, monkeypatch):
    monkeypatch.delenv("KAVIRO_ENGINE_OPTIONS", raising=False)
    with kp.Model(env=env) as m:
        # Integer columns in [0, 1] are binaries: no general integers, and the rows are not all
        # set rows, so HiGHS keeps the model.
        integer_program(m, 6, 6, ub=1)
        assert header(m, tmp_path) == [HIGHS]
    with kp.Model(env=env) as m:
        # The same columns under set rows make a set covering model.
        set_rows(m, KVR.GREATER_EQUAL, vtype=KVR.INTEGER)
        assert header(m, tmp_path)[0].startswith("Engine SCIP: set covering, packing or "
                                                 "partitioning rows only (6 rows over 6 binaries)")


@pytest.mark.parametrize("sense", [KVR.GREATER_EQUAL, KVR.LESS_EQUAL, KVR.EQUAL])
def test_set_rows_go_to_scip_and_any_other_row_or_column_keeps_highs(
        env, tmp_path, monkeypatch, sense):
    monkeypatch.delenv("KAVIRO_ENGINE_OPTIONS", raising=False)
    scip = [f"Engine SCIP: set covering, packing or partitioning rows only (6 rows over 6 "
            "binaries): SCIP solves such models faster"]
    with kp.Model(env=env) as m:
        x = set_rows(m, sense)
        assert header(m, tmp_path) == scip and m.Status == KVR.OPTIMAL
        # A coefficient other than 1, a right-hand side other than 1 and a continuous column each
        # make it an ordinary MIP again; undone, the model is a set model once more.
        row = m.getConstrs()[0]
        for change, undo in [(lambda: m.chgCoeff(row, x[0], 2), lambda: m.chgCoeff(row, x[0], 1)),
                             (lambda: setattr(row, "RHS", 2), lambda: setattr(row, "RHS", 1))]:
            change()
            m.reset()
            assert header(m, tmp_path) == [HIGHS]
            undo()
            m.reset()
            assert header(m, tmp_path) == scip and m.Status == KVR.OPTIMAL
        m.addVar(ub=1, obj=1)
        m.reset()
        assert header(m, tmp_path) == [HIGHS]


def test_what_keeps_a_scip_shaped_model_on_highs(env, tmp_path, monkeypatch):
    monkeypatch.delenv("KAVIRO_ENGINE_OPTIONS", raising=False)
    with kp.Model(env=env) as m:
        x = integer_program(m, 6, 8)
        assert header(m, tmp_path)[0].startswith("Engine SCIP")
        optimum = m.ObjVal
        # A callback: HiGHS calls it as it always has.
        seen = []
        m.reset()
        assert header(m, tmp_path, lambda model, where: seen.append(where)) == [HIGHS]
        assert seen and m.ObjVal == pytest.approx(optimum)
        # A setting SCIP would leave unapplied.
        for param, value, default in [("IntFeasTol", 1e-6, 1e-5), ("Threads", 2, 0)]:
            m.setParam(param, value)
            m.reset()
            assert header(m, tmp_path) == [HIGHS], param
            m.setParam(param, default)
        # An SOS constraint or a second objective.
        sos = m.addSOS(KVR.SOS_TYPE1, x[:2], [1, 2])
        m.reset()
        assert header(m, tmp_path) == [HIGHS]
        m.remove(sos)
        m.reset()
        assert header(m, tmp_path)[0].startswith("Engine SCIP")
        # Forced onto HiGHS, and the other way round for a model HiGHS would keep.
        monkeypatch.setenv("KAVIRO_ENGINE_OPTIONS", "engine=highs")
        m.reset()
        assert header(m, tmp_path) == ["Engine HiGHS: chosen with KAVIRO_ENGINE_OPTIONS"]
        assert m.ObjVal == pytest.approx(optimum)


def test_without_scip_the_shapes_stay_on_highs(tmp_path):
    # The loader runs once per process: a fresh one points at a file that is no library. The
    # model SCIP would take for its shape is solved on HiGHS, which needs nothing from SCIP.
    fake = tmp_path / "libscip-0000.so.10.0"
    fake.write_text("not a library")
    script = """
import kaviropy as kp
from kaviropy import KVR
m = kp.Model()
m.Params.OutputFlag, m.Params.LogToConsole = 1, 1
x = m.addVars(4, ub=5, vtype=KVR.INTEGER)
m.addConstr(3 * x[0] + 5 * x[1] + 4 * x[2] + 2 * x[3] <= 17)
m.setObjective(4 * x[0] + 7 * x[1] + 5 * x[2] + 2 * x[3], KVR.MAXIMIZE)
m.optimize()
print("result", m.Status, m.ObjVal)
"""
    env = dict(os.environ, KAVIRO_SCIP_LIBRARY=str(fake))
    env.pop("KAVIRO_ENGINE_OPTIONS", None)
    out = subprocess.run([sys.executable, "-c", script], capture_output=True, text=True, env=env,
                         timeout=60).stdout.splitlines()
    assert [line for line in out if line.startswith("Engine ")] == [HIGHS]
    # The optimum by enumeration of all 6^4 points: 23 (x = 4, 1, 0, 0).
    assert out[-1] == f"result {KVR.OPTIMAL} 23.0"
