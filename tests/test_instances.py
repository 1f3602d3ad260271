"""Every model of tests/data/instances solves to its published optimum or is found infeasible."""

import re

import pytest

import kaviropy as kp
from conftest import INSTANCES
from kaviropy import KVR

# These tests drive the Model class; they run once it is part of the build.

# Instances that take more than about half a second run with -m slow.
SLOW = {"dcmulti.mps", "bell5.mps"}


def known_results():
    rows = []
    for line in (INSTANCES / "README.md").read_text().splitlines():
        m = re.match(r"\|\s*(\S+\.mps)\s*\|\s*(LP|MIP)\s*\|\s*(\S+)\s*\|", line)
        if m:
            name, kind, value = m.groups()
            marks = [pytest.mark.slow] if name in SLOW else []
            rows.append(pytest.param(name, kind, value, id=name, marks=marks))
    return rows


@pytest.mark.parametrize("name, kind, expected", known_results())
def test_instance(env, name, kind, expected):
    m = kp.read(str(INSTANCES / name), env=env)
    try:
        m.optimize()
        assert m.IsMIP == (1 if kind == "MIP" else 0)
        if expected == "infeasible":
            assert m.Status in (KVR.INFEASIBLE, KVR.INF_OR_UNBD)
            assert m.SolCount == 0
            return
        assert m.Status == KVR.OPTIMAL
        value = float(expected)
        tol = 1e-6 if kind == "LP" else max(m.Params.MIPGap, 1e-6)
        assert m.ObjVal == pytest.approx(value, rel=tol, abs=1e-6)
        if kind == "MIP":
            assert m.ObjBound == pytest.approx(value, rel=2 * tol, abs=1e-6)
            ints = [v for v in m.getVars() if v.VType != "C"]
            assert max(abs(x - round(x)) for x in m.getAttr("X", ints)) <= 1e-5
    finally:
        m.dispose()


def test_readme_lists_every_instance():
    listed = {p.values[0] for p in known_results()}
    assert listed == {p.name for p in INSTANCES.glob("*.mps")}
