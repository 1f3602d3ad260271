"""Files from Python: kaviropy.read, Model.read / write / getJSONSolution, and the kaviro_cl
command; written models solve to the same optimum as the originals."""

import json
import pathlib
import re
import shutil
import subprocess
import sys

import pytest

import kaviropy as kp
from conftest import INSTANCES
from kaviropy import KVR


def optimum(name):
    for line in (INSTANCES / "README.md").read_text().splitlines():
        m = re.match(r"\|\s*%s\s*\|\s*(LP|MIP)\s*\|\s*(\S+)\s*\|" % re.escape(name), line)
        if m:
            return m.group(2)
    raise KeyError(name)


# Written in LP format (names, bounds, integer columns, ranges all rewritten) and read back, these
# solve to the published optimum; the instances cover integer markers without bounds (small_mip)
# and ranges (small_mip), BV bounds (p01), FR/FX/MI bounds (stair, etamacro, greenbea's cousins).
@pytest.mark.parametrize("name", ["small_mip.mps", "p01.mps", "stair.mps", "etamacro.mps",
                                  "flugpl.mps", "egout.mps", "adlittle.mps", "infeas_mip0.mps"])
@pytest.mark.parametrize("suffix", [".lp", ".mps.gz"])
def test_written_instance_solves_to_the_optimum(env, tmp_cwd, name, suffix):
    m = kp.read(str(INSTANCES / name), env=env)
    m.write("copy" + suffix)
    copy = kp.read("copy" + suffix, env=env)
    copy.optimize()
    expected = optimum(name)
    if expected == "infeasible":
        assert copy.Status in (KVR.INFEASIBLE, KVR.INF_OR_UNBD)
    else:
        assert copy.Status == KVR.OPTIMAL
        assert copy.ObjVal == pytest.approx(float(expected), rel=1e-6, abs=1e-6)
    m.dispose(), copy.dispose()


def tiny(env):
    m = kp.Model("tiny", env=env)
    x = m.addVar(ub=4, obj=-3, name="x")
    y = m.addVar(ub=3, obj=-2, vtype=KVR.INTEGER, name="y")
    z = m.addVar(obj=0, name="z")
    m.addConstr(x + y <= 5, name="cap")
    m.addConstr(x - z == 0, name="link")
    m.update()
    return m, x, y, z


def test_write_applies_pending_changes(env, tmp_cwd):
    m, x, y, z = tiny(env)
    w = m.addVar(lb=1, ub=2, name="late")
    m.addConstr(w + x >= 1, name="late_c")
    m.write(tmp_cwd / "m.lp")  # a path object works too
    assert w.index() == 3
    back = kp.read("m.lp", env=env)
    assert [v.VarName for v in back.getVars()] == ["x", "y", "z", "late"]
    assert [c.ConstrName for c in back.getConstrs()] == ["cap", "link", "late_c"]
    assert back.getVarByName("late").UB == 2
    m.dispose(), back.dispose()


def test_solution_files_and_json(env, tmp_cwd):
    m, x, y, z = tiny(env)
    for name in ("before.sol", "before.json"):
        with pytest.raises(kp.KaviroError) as err:
            m.write(name)
        assert err.value.errno == KVR.ERROR_DATA_NOT_AVAILABLE
    with pytest.raises(kp.KaviroError) as err:
        m.getJSONSolution()
    assert err.value.errno == KVR.ERROR_DATA_NOT_AVAILABLE
    m.optimize()
    assert m.Status == KVR.OPTIMAL
    doc = json.loads(m.getJSONSolution())
    assert doc["SolutionInfo"]["Status"] == KVR.OPTIMAL
    assert doc["SolutionInfo"]["ObjVal"] == pytest.approx(m.ObjVal)
    assert doc["SolutionInfo"]["SolCount"] == 1
    values = {v["VarName"]: v["X"] for v in doc["Vars"]}
    # Detail 0: only nonzero values.
    assert values == {v.VarName: v.X for v in m.getVars() if v.X != 0}
    m.Params.JSONSolDetail = 1
    m.optimize()
    m.write("all.json")
    doc = json.loads((tmp_cwd / "all.json").read_text())
    assert [v["VarName"] for v in doc["Vars"]] == ["x", "y", "z"]
    assert [c["ConstrName"] for c in doc["Constrs"]] == ["cap", "link"]
    m.write("s.sol")
    lines = (tmp_cwd / "s.sol").read_text().splitlines()
    assert lines[0] == "# Solution for model tiny"
    assert float(lines[1].split("=")[1]) == m.ObjVal
    assert {n: float(v) for n, v in (line.split() for line in lines[2:])} == {
        v.VarName: v.X for v in m.getVars()}
    m.dispose()


def test_start_from_a_solution_file(env, tmp_cwd):
    m, x, y, z = tiny(env)
    m.optimize()
    m.write("best.sol")
    other, *_ = tiny(env)
    other.read("best.sol")
    other.update()
    assert [v.Start for v in other.getVars()] == [v.X for v in m.getVars()]
    m.dispose(), other.dispose()


def test_failed_read_leaves_the_model_unchanged(env, tmp_cwd):
    m, x, y, z = tiny(env)
    x.Start, y.Start = 1, 2
    m.update()
    (tmp_cwd / "bad.mst").write_text("x 3\ny 1\nw 4\n")
    with pytest.raises(kp.KaviroError) as err:
        m.read("bad.mst")
    assert err.value.errno == KVR.ERROR_FILE_READ
    assert "bad.mst, line 3: unknown variable 'w'" in str(err.value)
    m.update()
    assert (x.Start, y.Start) == (1, 2)
    assert m.NumVars == 3 and m.NumConstrs == 2
    with pytest.raises(kp.KaviroError) as err:
        m.read(str(INSTANCES / "afiro.mps"))
    assert err.value.errno == KVR.ERROR_INVALID_ARGUMENT
    assert m.NumVars == 3
    m.dispose()


def test_read_malformed_model_raises_with_position(env, tmp_cwd):
    (tmp_cwd / "bad.lp").write_text("Minimize\n x + y\nSubject To\n c1: x + y >= 1\n c2: x + * y <= 3\nEnd\n")
    with pytest.raises(kp.KaviroError) as err:
        kp.read("bad.lp", env=env)
    assert err.value.errno == KVR.ERROR_FILE_READ
    assert "bad.lp, line 5: " in str(err.value)


class TestCommandLine:
    """The console command that pip installs beside this Python."""

    def run(self, *args, cwd=None):
        exe = shutil.which("kaviro_cl", path=str(pathlib.Path(sys.executable).parent))
        assert exe, "kaviro_cl is not installed beside %s" % sys.executable
        return subprocess.run([exe, *args], capture_output=True, text=True, cwd=cwd, timeout=120)

    def test_solves_and_writes_the_result(self, tmp_path):
        r = self.run("TimeLimit=100", str(INSTANCES / "afiro.mps"), "ResultFile=out.json",
                     cwd=tmp_path)
        assert r.returncode == 0, r.stderr
        assert "Set parameter TimeLimit to value 100" in r.stdout
        assert "Read MPS format model" in r.stdout
        doc = json.loads((tmp_path / "out.json").read_text())
        assert doc["SolutionInfo"]["ObjVal"] == pytest.approx(-464.7531428571, rel=1e-8)

    def test_result_file_with_a_long_path(self, tmp_path):
        d = tmp_path
        while len(str(d)) < 600:
            d = d / ("r" * 200)
        d.mkdir(parents=True)
        r = self.run(str(INSTANCES / "afiro.mps"), "ResultFile=" + str(d / "out.sol"))
        assert r.returncode == 0, r.stderr
        assert "# Objective value = -464.75314" in (d / "out.sol").read_text()

    def test_errors(self, tmp_path):
        r = self.run()
        assert r.returncode == 2 and "Usage: kaviro_cl" in r.stderr
        r = self.run("--help")
        assert r.returncode == 0 and "Usage: kaviro_cl" in r.stdout
        r = self.run("NoSuchParam=1", str(INSTANCES / "afiro.mps"))
        assert r.returncode == 1 and "Unknown parameter 'NoSuchParam'" in r.stderr
        r = self.run(str(tmp_path / "missing.mps"))
        assert r.returncode == 1 and "missing.mps" in r.stderr
        r = self.run("ResultFile=/nonexistent/dir/x.sol", str(INSTANCES / "afiro.mps"))
        assert r.returncode == 1 and "unable to write /nonexistent/dir/x.sol" in r.stderr
