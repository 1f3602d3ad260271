"""Memory limits (measured on the whole process) and node file settings. Memory growth during a
solve is produced by the callback, which allocates a block the size of the limit's margin."""

import os

import pytest

import kaviropy as kp
from conftest import INSTANCES
from kaviropy import KVR


BLOCK = 256 << 20  # bytes the callback allocates
MARGIN = 0.1  # gigabytes (10^9 bytes) above the current figure


def resident_gb():
    with open("/proc/self/statm") as f:
        return int(f.read().split()[1]) * os.sysconf("SC_PAGE_SIZE") / 1e9


@pytest.fixture
def mip(env):
    model = kp.read(str(INSTANCES / "p0548.mps"), env=env)
    yield model
    model.dispose()


def grow_on_first_solution(held):
    def cb(model, where):
        if where == KVR.Callback.MIPSOL and not held:
            held.append(b"x" * BLOCK)  # written, so resident
    return cb


def test_limits_below_the_current_figure(mip):
    mip.Params.TimeLimit = 5
    mip.optimize()
    x = mip.getAttr("X", mip.getVars())
    mip.Params.MemLimit = 0.001
    with pytest.raises(kp.KaviroError) as err:
        mip.optimize()
    assert err.value.errno == KVR.ERROR_OUT_OF_MEMORY
    assert err.value.message.startswith("Out of memory: the process already uses")
    assert "above MemLimit (0.001 GB); optimization not started" in err.value.message
    assert mip.getAttr("X", mip.getVars()) == x  # the earlier result stays
    with pytest.raises(kp.KaviroError) as err:
        mip.computeIIS()
    assert err.value.errno == KVR.ERROR_OUT_OF_MEMORY and "IIS computation" in err.value.message

    mip.Params.MemLimit = 1e100
    mip.Params.SoftMemLimit = 0.001
    mip.optimize()
    assert (mip.Status, mip.SolCount) == (KVR.MEM_LIMIT, 0)


def test_soft_limit_during_the_solve_keeps_the_best_solution(mip):
    held = []
    mip.Params.SoftMemLimit = resident_gb() + MARGIN
    mip.optimize(grow_on_first_solution(held))
    assert held, "the model has a solution"
    assert mip.Status == KVR.MEM_LIMIT and mip.SolCount >= 1
    assert mip.ObjVal >= 8691 - 1e-6  # the optimum: a feasible solution is no better
    assert mip.MaxVio <= 1e-6
    held.clear()


def test_hard_limit_during_the_solve_fails(mip):
    held = []
    mip.Params.MemLimit = resident_gb() + MARGIN
    with pytest.raises(kp.KaviroError) as err:
        mip.optimize(grow_on_first_solution(held))
    held.clear()
    assert err.value.errno == KVR.ERROR_OUT_OF_MEMORY
    assert err.value.message.startswith("Out of memory: the process reached")
    assert err.value.message.endswith("; optimization stopped")
    with pytest.raises(AttributeError):
        mip.ObjVal


def test_node_file_directory_is_checked_for_mips_only(env, tmp_path):
    m = kp.Model("nodes", env=env)
    x = m.addVar(vtype=KVR.INTEGER, ub=7, obj=-1, name="x")
    y = m.addVar(ub=3, obj=-1, name="y")
    m.addConstr(2 * x + y <= 9)
    m.Params.NodefileDir = str(tmp_path / "missing")
    m.optimize()  # NodefileStart is infinite: no node files, no check
    assert m.Status == KVR.OPTIMAL
    m.Params.NodefileStart = 0.5
    (tmp_path / "file").write_text("")
    cases = [(tmp_path / "missing", "does not exist"), (tmp_path / "file", "is not a directory")]
    if os.path.isdir("/proc/self"):
        cases.append(("/proc/self", "is not writable"))
    for directory, why in cases:
        m.Params.NodefileDir = str(directory)
        with pytest.raises(kp.KaviroError) as err:
            m.optimize()
        assert err.value.errno == KVR.ERROR_NODEFILE
        assert err.value.message.startswith(f"Node file directory '{directory}' (NodefileDir) {why}")
    # A continuous model has no search tree.
    x.VType = KVR.CONTINUOUS
    m.optimize()
    assert m.Status == KVR.OPTIMAL
    x.VType = KVR.INTEGER
    m.Params.NodefileDir = str(tmp_path)
    m.Params.OutputFlag = 1
    m.Params.LogToConsole = 0
    m.Params.LogFile = str(tmp_path / "solve.log")
    m.optimize()
    assert m.Status == KVR.OPTIMAL and m.ObjVal == pytest.approx(-6)
    assert "the engine keeps its search tree in memory" in (tmp_path / "solve.log").read_text()
    assert [p.name for p in tmp_path.iterdir() if p.name.startswith(".")] == []
    m.dispose()
