"""Irreducible infeasible subsystems: the members found are checked independently (the subsystem
is infeasible, and dropping any one member makes it feasible), for continuous models, MIPs,
binaries, SOS and general constraints, the force attributes, the methods, callbacks and
interruption, the IIS file, and the infeasible instances of tests/data/instances."""

import pytest

import kaviropy as kp
from conftest import INSTANCES
from kaviropy import KVR


INF = float("inf")
CB = KVR.Callback


MODEL_NAME = "iis"  # the name of the model the m fixture makes


def members(m):
    """The IIS as a set of ("constr"|"lb"|"ub"|"sos"|"gen", index)."""
    out = {("constr", i) for i, c in enumerate(m.getConstrs()) if c.IISConstr}
    for j, v in enumerate(m.getVars()):
        if v.IISLB:
            out.add(("lb", j))
        if v.IISUB:
            out.add(("ub", j))
    out |= {("sos", i) for i, s in enumerate(m.getSOSs()) if s.IISSOS}
    out |= {("gen", i) for i, g in enumerate(m.getGenConstrs()) if g.IISGenConstr}
    return out


def status_of_subsystem(m, keep):
    """Status of a copy of m that holds only the elements in keep, with a zero objective. Binaries
    become integers so that their bounds can be dropped one by one."""
    s = m.copy()
    try:
        vs = s.getVars()
        for v in vs:
            if v.VType == KVR.BINARY:
                v.VType, v.LB, v.UB = KVR.INTEGER, max(v.LB, 0), min(v.UB, 1)
        s.update()
        for j, v in enumerate(vs):
            if ("lb", j) not in keep:
                v.LB = -INF
            if ("ub", j) not in keep:
                v.UB = INF
        drop = [c for i, c in enumerate(s.getConstrs()) if ("constr", i) not in keep]
        drop += [c for i, c in enumerate(s.getSOSs()) if ("sos", i) not in keep]
        drop += [c for i, c in enumerate(s.getGenConstrs()) if ("gen", i) not in keep]
        s.remove(drop)
        s.setObjective(0)
        s.optimize()
        return s.Status
    finally:
        s.dispose()


def assert_infeasible(m, iis):
    assert status_of_subsystem(m, iis) in (KVR.INFEASIBLE, KVR.INF_OR_UNBD)


def assert_irreducible(m, iis):
    assert_infeasible(m, iis)
    for e in sorted(iis):
        assert status_of_subsystem(m, iis - {e}) == KVR.OPTIMAL, e


def two_conflicts(m):
    """c0: x >= 5 against x <= 3, and c1: y >= 5 against y <= 3; c2 and c3 are satisfiable."""
    x = m.addVar(ub=3, name="x")
    y = m.addVar(ub=3, name="y")
    m.addConstr(x >= 5, name="c0")
    m.addConstr(y >= 5, name="c1")
    m.addConstr(x + y <= 100, name="c2")
    m.addConstr(x - y >= -50, name="c3")
    m.setObjective(x + y)
    m.update()
    return x, y


def test_lp_iis_is_exact_and_leaves_the_model_alone(m):
    x = m.addVar(ub=3, name="x")
    y = m.addVar(ub=4, name="y")
    z = m.addVar(lb=-1, ub=1, name="z")
    m.addConstr(x + y >= 10, name="need")
    m.addConstr(2 * x + y <= 30, name="loose")
    m.addConstr(x - z <= 100, name="other")
    m.setObjective(x + y + z)
    m.computeIIS()
    assert members(m) == {("constr", 0), ("ub", 0), ("ub", 1)}
    assert m.IISMinimal == 1
    assert [v.IISLB for v in (x, y, z)] == [0, 0, 0]
    assert_irreducible(m, members(m))
    # Nothing of the model changed, and a change discards the IIS.
    assert (m.NumConstrs, x.UB, y.UB, z.LB) == (3, 3, 4, -1)
    y.UB = 8
    m.update()
    with pytest.raises(AttributeError, match="Unable to retrieve attribute 'IISConstr'"):
        m.getConstrs()[0].IISConstr
    m.optimize()
    assert m.Status == KVR.OPTIMAL


def test_feasible_model_is_refused(m):
    two_conflicts(m)
    m.getConstrs()[0].RHS = 2
    m.getConstrs()[1].RHS = 2
    with pytest.raises(kp.KaviroError) as err:
        m.computeIIS()
    assert err.value.errno == KVR.ERROR_IIS_NOT_INFEASIBLE
    assert err.value.message == "Cannot compute an IIS: the model is feasible"
    with pytest.raises(AttributeError):
        m.IISMinimal


def test_one_of_two_conflicts_and_the_forces(m):
    x, y = two_conflicts(m)
    c0, c1, c2, c3 = m.getConstrs()
    m.computeIIS()
    iis = members(m)
    assert iis in ({("constr", 0), ("ub", 0)}, {("constr", 1), ("ub", 1)})
    assert_irreducible(m, iis)

    # Excluding c0 leaves the other conflict.
    c0.IISConstrForce = 0
    m.computeIIS()
    assert members(m) == {("constr", 1), ("ub", 1)} and m.IISMinimal == 1
    # Excluding the bound of y as well leaves no IIS without an excluded element.
    y.IISUBForce = 0
    with pytest.raises(kp.KaviroError) as err:
        m.computeIIS()
    assert err.value.errno == KVR.ERROR_IIS_NOT_INFEASIBLE
    assert "feasible without the elements whose IIS force attribute is 0" in err.value.message

    # An element forced in is reported even when it is not needed: the IIS is then not minimal.
    c0.IISConstrForce, y.IISUBForce, x.IISUBForce = -1, -1, 0
    c3.IISConstrForce = 1
    m.computeIIS()
    assert members(m) == {("constr", 1), ("ub", 1), ("constr", 3)}
    assert m.IISMinimal == 0
    x.IISUBForce = -1
    c3.IISConstrForce = -1
    x.IISLBForce = 1  # lb 0 of x is not part of either conflict
    m.computeIIS()
    assert ("lb", 0) in members(m) and m.IISMinimal == 0


def test_method_2_keeps_the_bounds_and_reports_constraints_only(m):
    x = m.addVar(ub=3)
    y = m.addVar(ub=4)
    m.addConstr(x + y >= 10, name="need")
    m.addConstr(x <= 50)
    m.Params.IISMethod = 2
    m.computeIIS()
    assert members(m) == {("constr", 0)} and m.IISMinimal == 1
    m.Params.IISMethod = 1
    m.computeIIS()
    assert members(m) == {("constr", 0), ("ub", 0), ("ub", 1)} and m.IISMinimal == 1


def test_conflicting_bounds_alone(m):
    x = m.addVar(lb=2, ub=1, name="x")
    y = m.addVar(ub=5)
    m.addConstr(x + y <= 10)
    m.computeIIS()
    assert members(m) == {("lb", 0), ("ub", 0)} and m.IISMinimal == 1


def test_mip_integrality_stays_in_every_subsystem(m):
    x = m.addVar(vtype=KVR.INTEGER, ub=10, name="x")
    y = m.addVar(ub=10, name="y")
    m.addConstr(2 * x == 3, name="odd")
    m.addConstr(x + y <= 20, name="loose")
    m.computeIIS()
    assert members(m) == {("constr", 0)} and m.IISMinimal == 1
    assert_irreducible(m, members(m))


def test_binaries_report_their_implied_bounds(m):
    b = [m.addVar(vtype=KVR.BINARY, name=f"b{i}") for i in range(3)]
    m.addConstr(b[0] + b[1] + b[2] >= 4, name="too_many")
    m.addConstr(b[0] - b[1] <= 1, name="loose")
    m.computeIIS()
    assert members(m) == {("constr", 0), ("ub", 0), ("ub", 1), ("ub", 2)}
    assert m.IISMinimal == 1
    assert_irreducible(m, members(m))


def test_method_3_gives_an_iis_of_the_relaxation(m):
    x = m.addVar(vtype=KVR.INTEGER, ub=3, name="x")
    y = m.addVar(vtype=KVR.INTEGER, ub=3, name="y")
    m.addConstr(x + y >= 7, name="sum")
    m.addConstr(x - y <= 5, name="loose")
    m.Params.IISMethod = 3
    m.computeIIS()
    assert members(m) == {("constr", 0), ("ub", 0), ("ub", 1)}
    assert m.IISMinimal == 0  # irreducible for the relaxation; not claimed for the MIP
    assert_infeasible(m, members(m))


def test_sos_and_general_constraints_take_part(m):
    x = m.addVar(ub=10, name="x")
    y = m.addVar(ub=10, name="y")
    sos = m.addSOS(KVR.SOS_TYPE1, [x, y])
    m.addConstr(x >= 1, name="x_on")
    m.addConstr(y >= 1, name="y_on")
    z = m.addVar(ub=1, name="z")
    w = m.addVar(ub=10, name="w")
    m.addGenConstrMax(z, [w], name="zmax")
    w_on = m.addConstr(w >= 2, name="w_on")
    w_on.IISConstrForce = 0  # keep the second conflict out
    m.computeIIS()
    iis = members(m)
    assert {("sos", 0), ("constr", 0), ("constr", 1)} <= iis
    assert ("gen", 0) not in iis and ("constr", 2) not in iis
    assert_infeasible(m, iis)
    # Without bounds the rewriting of the SOS constraint has no big-M: those tests cannot be
    # decided, and such bounds stay in the IIS, which then does not claim to be minimal.
    if iis != {("sos", 0), ("constr", 0), ("constr", 1)}:
        assert iis - {("ub", 0), ("ub", 1)} == {("sos", 0), ("constr", 0), ("constr", 1)}
        assert m.IISMinimal == 0

    w_on.IISConstrForce = -1
    sos.IISSOSForce = 0
    m.computeIIS()
    iis = members(m)
    assert {("gen", 0), ("constr", 2), ("ub", 2)} <= iis and ("sos", 0) not in iis
    assert_infeasible(m, iis)


def test_quadratic_constraints_take_part(m):
    x = m.addVar(ub=1, name="x")
    y = m.addVar(name="y")
    m.addConstr(x >= 2, name="c0")
    q = m.addQConstr(x * x + y * y <= 4, name="disk")
    m.computeIIS()
    assert members(m) == {("constr", 0), ("ub", 0)} and q.IISQConstr == 0
    x.UB = 10  # now the disk is what keeps x below 2.5
    m.getConstrs()[0].RHS = 2.5
    m.computeIIS()
    assert members(m) == {("constr", 0)} and q.IISQConstr == 1


def test_callback_sees_progress_and_can_stop_the_search(m, tmp_path):
    n = 12
    x = [m.addVar(ub=1, name=f"x{i}") for i in range(n)]
    m.addConstr(kp.quicksum(x) >= n + 1, name="sum")
    for i in range(n - 1):
        m.addConstr(x[i] - x[i + 1] <= 5, name=f"loose{i}")
    seen = []

    def record(model, where):
        if where == CB.IIS:
            seen.append((model.cbGet(CB.IIS_CONSTRMIN), model.cbGet(CB.IIS_CONSTRMAX),
                         model.cbGet(CB.IIS_BOUNDMIN), model.cbGet(CB.IIS_BOUNDMAX)))
            try:
                model.cbGet(CB.IIS_CONSTRGUESS)
            except kp.KaviroError as e:
                seen.append(e.errno)

    m.Params.IISMethod = 1  # the filter runs over every element
    m.computeIIS(record)
    assert KVR.ERROR_DATA_NOT_AVAILABLE in seen
    progress = [s for s in seen if isinstance(s, tuple)]
    assert len(progress) > 3
    assert all(lo <= hi for lo, hi, _, _ in progress) and all(lo <= hi for _, _, lo, hi in progress)
    assert [s[1] for s in progress] == sorted((s[1] for s in progress), reverse=True)
    assert progress[-1] == (1, 1, n, n)
    assert members(m) == {("constr", 0)} | {("ub", j) for j in range(n)}

    # Stopped after its second event, the search keeps an infeasible, larger subsystem.
    calls = []

    def stop(model, where):
        if where == CB.IIS:
            calls.append(where)
            if len(calls) == 2:
                model.terminate()

    m.Params.OutputFlag = 1
    m.Params.LogToConsole = 0
    m.Params.LogFile = str(tmp_path / "iis.log")
    m.computeIIS(stop)
    assert m.IISMinimal == 0 and len(members(m)) > n + 1
    assert_infeasible(m, members(m))
    assert "search stopped early: interrupted" in (tmp_path / "iis.log").read_text()
    with pytest.raises(kp.KaviroError) as err:
        m.computeIIS(print)
    assert (err.value.errno, err.value.message) == (-1, "Callback argument must be a function")


def test_time_limit_before_infeasibility_is_known(m):
    two_conflicts(m)
    m.Params.TimeLimit = 0
    m.computeIIS()
    with pytest.raises(AttributeError, match="no IIS has been computed"):
        m.IISMinimal


def test_iis_file(m, tmp_path):
    two_conflicts(m)
    with pytest.raises(kp.KaviroError) as err:
        m.write(str(tmp_path / "none.ilp"))
    assert err.value.errno == KVR.ERROR_DATA_NOT_AVAILABLE
    assert err.value.message == ("Unable to write IIS file '%s': no IIS has been computed (call "
                                 "computeIIS first)" % (tmp_path / "none.ilp"))
    assert not (tmp_path / "none.ilp").exists()
    m.getConstrs()[1].IISConstrForce = 0
    m.computeIIS()
    m.write(str(tmp_path / "conflict.ilp"))
    text = (tmp_path / "conflict.ilp").read_text()
    assert "c0" in text and "c1" not in text and "c2" not in text and " y" not in text
    # The file is a model in LP format: the conflict alone, infeasible.
    (tmp_path / "conflict.lp").write_text(text)
    sub = kp.read(str(tmp_path / "conflict.lp"), env=m._uenv)
    try:
        assert (sub.NumConstrs, sub.NumVars) == (1, 1)
        v = sub.getVars()[0]
        assert (v.VarName, v.LB, v.UB) == ("x", -INF, 3)
        sub.optimize()
        assert sub.Status in (KVR.INFEASIBLE, KVR.INF_OR_UNBD)
    finally:
        sub.dispose()
    with pytest.raises(kp.KaviroError) as err:
        m.read(str(tmp_path / "conflict.ilp"))
    assert err.value.errno == KVR.ERROR_INVALID_ARGUMENT
    assert "IIS files are written, not read" in err.value.message


SMALL = {"galenet.mps", "woodinfe.mps", "infeas_mip0.mps"}


@pytest.mark.parametrize("name", [
    "galenet.mps", "woodinfe.mps", "klein1.mps", "forest6.mps", "infeas_mip0.mps",
    pytest.param("infeas_mip1.mps", marks=pytest.mark.slow)])
def test_infeasible_instances(env, name):
    m = kp.read(str(INSTANCES / name), env=env)
    try:
        m.computeIIS()
        iis = members(m)
        assert iis and m.IISMinimal == 1
        if name in SMALL:
            assert_irreducible(m, iis)
        else:
            assert_infeasible(m, iis)
    finally:
        m.dispose()
