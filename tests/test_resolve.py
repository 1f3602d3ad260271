"""Re-solves of a changed model: the engine keeps its copy of the model and its basis between
optimize() calls and receives only the changes. Each kind of change must give the optimum of a
fresh model built with the change, on every engine (forced through KAVIRO_ENGINE_OPTIONS); warm
starts follow LPWarmStart, reset() and a user's basis."""

import importlib.util
import json
import random

import pytest

import kaviropy as kp
from kaviropy import KVR

MODEL_NAME = "resolve"
ENGINES = ["highs"] + (["scip"] if importlib.util.find_spec("pyscipopt") else [])


@pytest.fixture(params=ENGINES)
def engine(request, monkeypatch):
    monkeypatch.setenv("KAVIRO_ENGINE_OPTIONS", f"engine={request.param}")
    return request.param


def logged(m, path):
    """Sends the model's log to the file at path (and not to the console)."""
    m.Params.LogFile, m.Params.OutputFlag, m.Params.LogToConsole = str(path), 1, 0


def lp_data(n=40, seed=3):
    rnd = random.Random(seed)
    rows = []
    for i in range(n):
        cols = rnd.sample(range(n), 5)
        rows.append(([(j, rnd.randint(1, 6)) for j in cols], rnd.randint(10, 40)))
    obj = [rnd.randint(1, 4) for _ in range(n)]
    return rows, obj


def build(env, n=40, changes=(), vtype=KVR.CONTINUOUS):
    """The test LP (maximize, <= rows, 0 <= x <= 5) with the named changes built in from the
    start; returns the model and its variables and constraints (already solved: no)."""
    rows, obj = lp_data(n)
    changes = dict(changes)
    m = kp.Model(env=env)
    m.Params.Method = 1
    ub = [5.0] * n
    for j, v in changes.get("ub", []):
        ub[j] = v
    for j, v in changes.get("obj", []):
        obj[j] = v
    x = [m.addVar(ub=ub[j], obj=obj[j], vtype=vtype) for j in range(n)]
    cons = []
    for i, (terms, rhs) in enumerate(rows):
        terms = dict(terms)
        for (r, j), v in changes.get("coeff", {}).items():
            if r == i:
                terms[j] = v
        rhs = dict(changes.get("rhs", [])).get(i, rhs)
        cons.append(m.addConstr(kp.quicksum(v * x[j] for j, v in terms.items()) <= rhs))
    for coeffs, cost in changes.get("newcol", []):   # a column in existing rows
        x.append(m.addVar(ub=5, obj=cost, vtype=vtype, column=kp.Column(
            [v for _, v in coeffs], [cons[i] for i, _ in coeffs])))
    for terms, rhs in changes.get("newrow", []):
        cons.append(m.addConstr(kp.quicksum(v * x[j] for j, v in terms) <= rhs))
    m.ModelSense = KVR.MAXIMIZE
    m.update()
    return m, x, cons


CHANGES = {
    "ub": [(0, 0.5), (7, 1.0), (12, 0.0)],
    "obj": [(3, 9.0), (5, 0.0)],
    "rhs": [(2, 3.0), (9, 60.0)],
    "coeff": {(1, 4): 7.0, (6, 6): 2.5},
    "newcol": [([(0, 1.0), (4, 2.0), (8, 1.5)], 6.0)],
    "newrow": [([(0, 1.0), (1, 1.0), (2, 1.0), (3, 1.0)], 4.0)],
}


def apply(m, x, cons, kind, vtype=KVR.CONTINUOUS):
    """Applies CHANGES[kind] to a solved model built without it."""
    if kind == "ub":
        for j, v in CHANGES[kind]:
            x[j].UB = v
    elif kind == "obj":
        for j, v in CHANGES[kind]:
            x[j].Obj = v
    elif kind == "rhs":
        for i, v in CHANGES[kind]:
            cons[i].RHS = v
    elif kind == "coeff":
        for (i, j), v in CHANGES[kind].items():
            m.chgCoeff(cons[i], x[j], v)
    elif kind == "newcol":
        for coeffs, cost in CHANGES[kind]:
            x.append(m.addVar(ub=5, obj=cost, vtype=vtype, column=kp.Column(
                [v for _, v in coeffs], [cons[i] for i, _ in coeffs])))
    elif kind == "newrow":
        for terms, rhs in CHANGES[kind]:
            cons.append(m.addConstr(kp.quicksum(v * x[j] for j, v in terms) <= rhs))


def cold_optimum(env, changes, vtype=KVR.CONTINUOUS, n=40):
    m, _, _ = build(env, n=n, changes=changes, vtype=vtype)
    m.optimize()
    assert m.Status == KVR.OPTIMAL
    value, iters = m.ObjVal, m.IterCount
    m.dispose()
    return value, iters


def test_unchanged_model_resolves_without_iterations(env):
    m, x, _ = build(env)
    m.optimize()
    first, iters = m.ObjVal, m.IterCount
    assert iters > 0
    m.optimize()
    assert m.Status == KVR.OPTIMAL and m.ObjVal == pytest.approx(first) and m.IterCount == 0
    m.Params.Method = -1   # the automatic choice keeps the basis too
    m.optimize()
    assert m.IterCount == 0 and m.ObjVal == pytest.approx(first)


@pytest.mark.parametrize("vtype", [KVR.CONTINUOUS, KVR.INTEGER])
def test_each_change_resolves_to_the_optimum_of_a_fresh_model(env, engine, vtype, tmp_path):
    n = 40 if vtype == KVR.CONTINUOUS else 20   # a MIP of 20 integers solves fast enough
    m, x, cons = build(env, n=n, vtype=vtype)
    m.optimize()
    logged(m, tmp_path / "changes.log")
    applied = []
    for kind in CHANGES:
        apply(m, x, cons, kind, vtype)
        applied.append((kind, CHANGES[kind]))
        m.optimize()
        expected, cold_iters = cold_optimum(env, applied, vtype, n)
        assert m.Status == KVR.OPTIMAL, kind
        assert m.ObjVal == pytest.approx(expected, abs=1e-7), kind
        if engine == "highs" and vtype == KVR.CONTINUOUS:   # the basis is kept
            assert m.IterCount <= cold_iters, kind
    # Every change reached the engine's kept copy: none was handed over in full.
    text = (tmp_path / "changes.log").read_text()
    assert text.count("Re-solve: 0 deleted") == len(CHANGES) and "in full" not in text
    # Values and slacks are those of the changed model; the duals too where the engine gives them.
    assert len(m.getAttr("X", x)) == n + 1 and min(c.Slack for c in cons) > -1e-6
    if engine == "highs" and vtype == KVR.CONTINUOUS:
        assert len(m.getAttr("Pi", cons)) == n + 1


def test_removed_rows_and_columns_are_handled(env, engine, tmp_path):
    m, x, cons = build(env)
    m.optimize()
    logged(m, tmp_path / "removed.log")
    m.remove([cons[3], cons[10]])        # rows alone are deleted from the engine's copy
    m.optimize()
    ref, rx, rc = build(env)
    ref.remove([rc[3], rc[10]])
    ref.optimize()
    assert m.ObjVal == pytest.approx(ref.ObjVal, abs=1e-7)
    assert "Re-solve: 2 deleted, 0 added" in (tmp_path / "removed.log").read_text()
    m.remove([x[2], x[30]])
    m.optimize()
    ref.remove([rx[2], rx[30]])
    ref.optimize()
    assert m.NumVars == 38 and m.NumConstrs == 38
    assert m.ObjVal == pytest.approx(ref.ObjVal, abs=1e-7)
    # Deletions and additions between the same two solves, over two updates.
    def delete_and_add(model):
        model.remove([model.getConstrs()[0]])
        model.update()
        x = model.getVars()
        x[0].UB = 1.0
        v = model.addVar(ub=2, obj=3.0)
        model.addConstr(v + x[1] <= 1.5)
        model.remove([x[5]])

    delete_and_add(m)
    m.optimize()
    delete_and_add(ref)
    ref.reset()
    ref.optimize()
    assert m.ObjVal == pytest.approx(ref.ObjVal, abs=1e-7)


@pytest.mark.parametrize("cold", ["LPWarmStart", "reset"])
def test_lpwarmstart_zero_and_reset_give_cold_solves(env, cold):
    m, x, _ = build(env)
    m.optimize()
    cold_iters = m.IterCount
    if cold == "reset":
        m.reset()
    else:
        m.Params.LPWarmStart = 0
    m.optimize()
    assert m.IterCount == cold_iters > 0


def test_user_basis_set_between_solves_is_used(env):
    ref, rx, rc = build(env)
    ref.optimize()
    vb, cb = ref.getAttr("VBasis", rx), ref.getAttr("CBasis", rc)
    m, x, cons = build(env)
    x[0].UB = 4.0   # solved once from a basis of another model: iterations
    m.optimize()
    x[0].UB = 5.0
    m.setAttr("VBasis", x, vb)
    m.setAttr("CBasis", cons, cb)
    m.optimize()
    assert m.IterCount == 0 and m.ObjVal == pytest.approx(ref.ObjVal)


def test_mip_resolve_offers_the_previous_incumbent(env, engine, tmp_path):
    m, x, cons = build(env, n=20, vtype=KVR.INTEGER)
    m.optimize()
    first = m.ObjVal
    log = tmp_path / "mip.log"
    logged(m, log)
    x[0].Obj = x[0].Obj + 0.5   # the incumbent stays feasible
    m.optimize()
    text = log.read_text()
    assert "previous solution is" in text
    expected, _ = cold_optimum(env, [("obj", [(0, lp_data(20)[1][0] + 0.5)])], KVR.INTEGER, 20)
    assert m.ObjVal == pytest.approx(expected) and m.ObjVal >= first
    # A bound that cuts the incumbent off: not offered, still the right optimum.
    log.write_text("")
    best = [v.X for v in x]
    j = max(range(len(x)), key=lambda k: best[k])
    x[j].UB = best[j] - 1
    m.optimize()
    if engine == "highs":   # SCIP is offered the solution and finds it infeasible itself
        assert "previous solution is" not in log.read_text()
    m.Params.OutputFlag = 0
    ref, rx, _ = build(env, n=20, changes=[("obj", [(0, lp_data(20)[1][0] + 0.5)])],
                       vtype=KVR.INTEGER)
    rx[j].UB = best[j] - 1
    ref.optimize()
    assert m.ObjVal == pytest.approx(ref.ObjVal)


def test_type_and_sense_changes(env, engine):
    m, x, _ = build(env)
    m.optimize()
    lp_value = m.ObjVal
    for v in x[:10]:
        v.VType = KVR.INTEGER
    m.optimize()
    ref, rx, _ = build(env)
    for v in rx[:10]:
        v.VType = KVR.INTEGER
    ref.optimize()
    assert m.IsMIP == 1 and m.ObjVal == pytest.approx(ref.ObjVal) and m.ObjVal <= lp_value + 1e-9
    for v in x[:10]:
        v.VType = KVR.CONTINUOUS
    m.ModelSense = KVR.MINIMIZE
    m.optimize()
    assert m.IsMIP == 0 and m.ObjVal == pytest.approx(0.0)
    m.ModelSense = KVR.MAXIMIZE
    m.optimize()
    assert m.ObjVal == pytest.approx(lp_value)
    # Binaries take bounds within [0, 1]: to a binary and back to an integer with bound 5.
    for kind in (KVR.BINARY, KVR.INTEGER):
        for v in x[10:16]:
            v.VType = kind
        m.optimize()
        ref, rx, _ = build(env)
        for v in rx[10:16]:
            v.VType = kind
        ref.optimize()
        assert m.ObjVal == pytest.approx(ref.ObjVal), kind
        assert max(v.X for v in x[10:16]) <= (1 if kind == KVR.BINARY else 5) + 1e-9


def test_rewritten_model_is_handed_over_in_full(env, engine, tmp_path):
    m, x, _ = build(env)
    m.optimize()
    log = tmp_path / "sos.log"
    m.Params.LogFile, m.Params.OutputFlag, m.Params.LogToConsole = str(log), 1, 0
    m.addSOS(KVR.SOS_TYPE1, [x[0], x[1], x[2]])   # the engine takes SOS only rewritten
    m.optimize()
    assert "handed to the engine in full" in log.read_text()
    ref, rx, _ = build(env)
    ref.addSOS(KVR.SOS_TYPE1, [rx[0], rx[1], rx[2]])
    ref.optimize()
    assert m.ObjVal == pytest.approx(ref.ObjVal) and sum(v.X > 1e-9 for v in x[:3]) <= 1


def test_in_place_changes_reach_the_engine_through_every_call(env, engine):
    """A re-solve hands the engine only the elements changed in place since its last solve: every
    kind of write must be found, also when renumbered by a deletion in the same update, undone
    before a solve, or replacing the whole objective. The copy of the model solves cold."""
    m, x, cons = build(env)
    m.optimize()

    def undone():        # changed and changed back: nothing to hand over
        x[4].UB = 0.0
        m.update()
        x[4].UB = 5.0

    def renumbered():    # changes to elements that move down when earlier ones are deleted
        m.remove([x[0], cons[0]])
        x[20].Obj = 40.0
        x[21].UB = 0.25
        cons[15].RHS = 2.0
        m.chgCoeff(cons[25], x[30], 0.0)   # an entry dropped from a row

    def coefficient_added():
        m.chgCoeff(cons[3], x[9], 4.0)
        m.chgCoeff(cons[3], x[11], 3.0)

    def bulk():          # several elements in one call each
        m.setAttr("Obj", x[10:20], [6.0] * 10)
        m.setAttr("RHS", cons[20:25], [1.0] * 5)
        m.setAttr("UB", x[30:32], [1.0, 0.5])
        m.setAttr("LB", x[33:35], [0.1, 0.2])

    def sense():
        cons[7].Sense = KVR.GREATER_EQUAL
        cons[7].RHS = 1.0

    def objn():          # the selected objective's coefficients: objective 0 is Obj
        m.Params.ObjNumber = 0
        m.setAttr("ObjN", x[25:28], [60.0, 0.0, 45.0])

    def objective():     # the whole objective replaced
        m.setObjective(kp.quicksum((j % 3) * v for j, v in enumerate(x[1:])), KVR.MAXIMIZE)

    for step in (undone, renumbered, coefficient_added, bulk, sense, objn, objective):
        step()
        m.optimize()
        ref = m.copy()
        ref.optimize()
        assert m.Status == ref.Status == KVR.OPTIMAL, step.__name__
        assert m.ObjVal == pytest.approx(ref.ObjVal, abs=1e-7), step.__name__
        ref.dispose()
    # An undone change leaves the model as the engine has it: no iterations.
    undone()
    m.optimize()
    assert m.IterCount == 0 or engine != "highs"


def test_options_of_the_last_solve_do_not_linger(env):
    """A kept engine instance is given only the options that changed; one that the last solve
    set and this one leaves at its default goes back to the default."""
    m, x, cons = build(env)
    m.optimize()
    optimum = m.ObjVal
    for v in x[:8]:
        v.UB = 0.0
    m.Params.IterationLimit = 1
    m.optimize()
    assert m.Status == KVR.ITERATION_LIMIT
    m.Params.IterationLimit = float("inf")
    m.optimize()
    assert m.Status == KVR.OPTIMAL
    for v in x[:8]:
        v.UB = 5.0
    m.Params.Method = 2          # barrier on the kept instance, then the dual simplex again
    m.Params.Presolve = 0
    m.optimize()
    assert m.Status == KVR.OPTIMAL and m.ObjVal == pytest.approx(optimum, abs=1e-6)
    m.Params.Method = 1
    m.Params.Presolve = -1
    x[0].UB = 4.0
    m.optimize()
    assert m.Status == KVR.OPTIMAL and m.BarIterCount == 0
    m.Params.IterationLimit = 0  # a limit given once and taken back
    x[0].UB = 0.0
    m.optimize()
    assert m.Status == KVR.ITERATION_LIMIT
    x[0].UB = 3.0
    m.Params.IterationLimit = float("inf")
    m.optimize()
    ref, rx, _ = build(env, changes=[("ub", [(0, 3.0)])])
    ref.optimize()
    assert m.Status == KVR.OPTIMAL and m.ObjVal == pytest.approx(ref.ObjVal, abs=1e-7)


def test_sensitivity_ranges_belong_to_the_solve_they_come_from(env):
    """Ranges are read from the engine's kept copy on first use: a copy of the model made before
    a re-solve keeps those of its own solution, and the re-solved model gets its new ones."""
    attrs = ("SAObjLow", "SAObjUp", "SALBUp", "SAUBLow", "SARHSLow", "SARHSUp")

    def ranges(model):
        v, c = model.getVars(), model.getConstrs()
        return [model.getAttr(a, c if a.startswith("SARHS") else v) for a in attrs]

    m, _, cons = build(env)
    m.optimize()
    before = m.copy()
    cons[2].RHS = 3.0
    m.optimize()
    ref, _, _ = build(env)
    ref.optimize()
    changed, _, _ = build(env, changes=[("rhs", [(2, 3.0)])])
    changed.optimize()
    for got, want in zip(ranges(before) + ranges(m), ranges(ref) + ranges(changed)):
        assert got == pytest.approx(want, abs=1e-7)


def test_engine_options_on_a_kept_instance(env, monkeypatch):
    """Options given through the environment reach a kept instance, a rejected one fails the
    solve with the model as it was, and one given no more goes back to the engine's default."""
    m, x, _ = build(env)
    m.optimize()
    optimum = m.ObjVal
    monkeypatch.setenv("KAVIRO_ENGINE_OPTIONS", "simplex_iteration_limit=0")
    x[0].UB = 0.0
    m.optimize()
    assert m.Status == KVR.ITERATION_LIMIT
    monkeypatch.setenv("KAVIRO_ENGINE_OPTIONS", "simplex_iteration_limit=-5")
    with pytest.raises(kp.KaviroError) as err:
        m.optimize()
    assert err.value.errno == KVR.ERROR_INVALID_ARGUMENT and "simplex_iteration_limit" in str(err.value)
    assert m.NumVars == 40 and x[0].UB == 0.0
    monkeypatch.delenv("KAVIRO_ENGINE_OPTIONS")
    x[0].UB = 5.0
    m.optimize()
    assert m.Status == KVR.OPTIMAL and m.ObjVal == pytest.approx(optimum, abs=1e-7)


def test_values_and_types_changed_after_a_solve_are_seen(env):
    """Bound, side and type changes between solves: what the model knew at the last solve
    (possible values, no integer or semi-continuous variables) is not trusted afterwards."""
    inf = float("inf")
    m, x, cons = build(env)
    m.optimize()
    lp_value = m.ObjVal
    for change, undo, message in [
        (lambda: setattr(x[3], "LB", inf), lambda: setattr(x[3], "LB", 0.0),
         "its lower bound is \\+infinity"),
        (lambda: setattr(x[4], "UB", -inf), lambda: setattr(x[4], "UB", 5.0),
         "its upper bound is -infinity"),
    ]:
        change()
        with pytest.raises(kp.KaviroError, match=message):
            m.optimize()
        undo()
        m.optimize()
        assert m.ObjVal == pytest.approx(lp_value)
    # A side that is possible with one sense and not with the other.
    rhs = cons[0].RHS
    cons[0].RHS = inf
    m.optimize()
    cons[0].Sense = ">"
    with pytest.raises(kp.KaviroError, match="must be >= \\+infinity"):
        m.optimize()
    cons[0].Sense, cons[0].RHS = "<", rhs
    m.optimize()
    assert m.ObjVal == pytest.approx(lp_value)
    # A bound and a type changed in one update: the type is seen.
    x[0].UB = 4.0
    x[0].VType = KVR.SEMICONT
    x[0].LB = 4.0
    m.optimize()
    assert m.IsMIP == 1 and (x[0].X == pytest.approx(0.0) or x[0].X >= 4.0 - 1e-6)
    ref, rx, _ = build(env)
    rx[0].UB, rx[0].VType, rx[0].LB = 4.0, KVR.SEMICONT, 4.0
    ref.optimize()
    assert m.ObjVal == pytest.approx(ref.ObjVal)
    x[0].VType, x[0].LB, x[0].UB = KVR.CONTINUOUS, 0.0, 5.0
    m.optimize()
    assert m.IsMIP == 0 and m.ObjVal == pytest.approx(lp_value)


def check_basis(m, x, cons):
    """The model's VBasis/CBasis describe its solution: one basic element per row, nonbasic
    columns at the bound named, nonbasic rows tight."""
    vb, cb = m.getAttr("VBasis", x), m.getAttr("CBasis", cons)
    assert len(vb) == len(x) and len(cb) == len(cons)
    assert sum(s == KVR.BASIC for s in vb + cb) == len(cons)
    for v, s in zip(x, vb):
        if s == KVR.NONBASIC_LOWER:
            assert v.X == pytest.approx(v.LB, abs=1e-9)
        elif s == KVR.NONBASIC_UPPER:
            assert v.X == pytest.approx(v.UB, abs=1e-9)
    for c, s in zip(cons, cb):
        if s != KVR.BASIC:
            assert c.Slack == pytest.approx(0.0, abs=1e-9)
    return vb, cb


def test_basis_is_that_of_the_solve_it_is_read_after(env, monkeypatch):
    """The basis comes from the engine's kept copy when first read: after a re-solve it is the
    new one, a copy made before keeps the old one, and a re-solve that fails keeps the last."""
    m, x, cons = build(env)
    m.optimize()
    before = m.copy()
    vb0, cb0 = check_basis(m, x, cons)
    basic = [j for j, s in enumerate(vb0) if s == KVR.BASIC and x[j].X > 1e-6]
    assert basic
    for j in basic[:3]:   # basic columns fixed to 0 leave the basis
        x[j].UB = 0.0
    m.optimize()
    assert m.IterCount > 0
    vb1, _ = check_basis(m, x, cons)
    assert all(vb1[j] != KVR.BASIC for j in basic[:3]) and vb1 != vb0
    assert before.getAttr("VBasis", before.getVars()) == vb0
    assert before.getAttr("CBasis", before.getConstrs()) == cb0
    # Read only after a failed re-solve of the unchanged model: still the last solve's.
    m.optimize()
    monkeypatch.setenv("KAVIRO_ENGINE_OPTIONS", "simplex_iteration_limit=-5")
    with pytest.raises(kp.KaviroError):
        m.optimize()
    assert m.getAttr("VBasis", x) == vb1
    monkeypatch.delenv("KAVIRO_ENGINE_OPTIONS")
    # Changes wait for the update; after it the basis read is the one the user set.
    x[basic[0]].UB = 5.0
    m.setAttr("VBasis", x, vb0)
    m.setAttr("CBasis", cons, cb0)
    assert m.getAttr("VBasis", x) == vb1
    m.update()
    assert m.getAttr("VBasis", x) == vb0
    m.optimize()
    check_basis(m, x, cons)


def test_results_fit_the_model_after_columns_and_rows_come_and_go(env, engine):
    """The result vectors of one solve are reused by the next: after more or fewer columns and
    rows, and after a solve without a solution, every vector has the model's length and holds
    this solve's values."""
    def check(m):
        x, cons = m.getVars(), m.getConstrs()
        xs = m.getAttr("X", x)
        assert len(xs) == m.NumVars and len(m.getAttr("Slack", cons)) == m.NumConstrs
        assert m.ObjVal == pytest.approx(sum(v.Obj * xv for v, xv in zip(x, xs)), abs=1e-7)
        for c in cons:
            row = m.getRow(c)
            act = sum(row.getCoeff(k) * row.getVar(k).X for k in range(row.size()))
            assert c.Slack == pytest.approx(c.RHS - act, abs=1e-7)
        if engine == "highs":
            assert len(m.getAttr("RC", x)) == m.NumVars and len(m.getAttr("Pi", cons)) == m.NumConstrs
            check_basis(m, x, cons)

    m, x, cons = build(env)
    m.optimize()
    check(m)
    apply(m, x, cons, "newcol")
    apply(m, x, cons, "newrow")
    m.optimize()
    check(m)
    m.remove(x[:3] + cons[:2])
    m.optimize()
    check(m)
    y = m.getVars()
    y[0].LB = 6.0      # infeasible: above its upper bound
    m.optimize()
    assert m.Status in (KVR.INFEASIBLE, KVR.INF_OR_UNBD) and m.SolCount == 0
    with pytest.raises(AttributeError, match="Unable to retrieve attribute 'X'"):
        y[1].X
    y[0].LB = 0.0
    m.remove(y[-5:])
    m.optimize()
    check(m)
    ref = build(env)[0]
    assert m.NumVars == ref.NumVars + 1 - 3 - 5


def test_replaced_objective_is_handed_over_in_place(env, engine, tmp_path):
    """A new linear objective reaches the kept copy cost by cost, together with the other
    changes of the same update; quadratic terms still mean a full hand-over."""
    m, x, cons = build(env)
    m.optimize()
    log = tmp_path / "objective.log"
    logged(m, log)
    m.setObjective(kp.quicksum(((j * 7) % 5) * v for j, v in enumerate(x)), KVR.MAXIMIZE)
    m.chgCoeff(cons[2], x[5], 1.5)
    x[8].UB = 0.5
    m.optimize()
    ref = m.copy()
    ref.optimize()
    assert m.ObjVal == pytest.approx(ref.ObjVal, abs=1e-7)
    text = log.read_text()
    assert "Re-solve: 0 deleted, 0 added" in text and "in full" not in text
    m.setObjective(kp.quicksum(v for v in x) - x[0] * x[0], KVR.MAXIMIZE)
    m.optimize()
    ref = m.copy()
    ref.optimize()
    assert m.ObjVal == pytest.approx(ref.ObjVal, abs=1e-6)
    later = log.read_text()[len(text):]
    assert "Re-solve: 0 deleted" not in later and ("dropped" in later or "in full" in later)


def test_many_new_rows_start_from_the_last_basis(env, tmp_path):
    """Rows too many to add to the engine's copy: the model is handed over in full, and the
    last basis with the new rows basic starts the LP (fewer iterations than a cold solve);
    not with LPWarmStart 0."""
    rnd = random.Random(1)
    results = {}
    for warm in (1, 0):
        m, x, _ = build(env)
        m.optimize()
        log = tmp_path / f"rows{warm}.log"
        logged(m, log)
        m.Params.LPWarmStart = warm
        for _ in range(200):
            m.addConstr(kp.quicksum(x[j] for j in rnd.sample(range(40), 4)) <= rnd.uniform(3, 12))
        m.optimize()
        cold = m.copy()
        cold.optimize()
        assert m.Status == KVR.OPTIMAL and m.ObjVal == pytest.approx(cold.ObjVal, abs=1e-7)
        text = log.read_text()
        assert "handed to the engine in full" in text
        results[warm] = ("with the new rows basic" in text, m.IterCount, cold.IterCount)
    assert results[1][0] and results[1][1] < results[1][2]
    assert not results[0][0] and results[0][1] == results[0][2]


def test_events_of_a_kept_instance_reach_each_solve(env):
    """A run stopped from a callback leaves the kept instance able to solve; a later solve's
    callback hears that solve's events."""
    m, x, _ = build(env, n=200)
    heard = []

    def stop_at_once(model, where):
        if where == KVR.Callback.SIMPLEX:
            heard.append(model.cbGet(KVR.Callback.SPX_ITRCNT))
            model.terminate()

    m.optimize(stop_at_once)
    assert m.Status == KVR.INTERRUPTED and heard
    x[0].UB = 0.5
    m.optimize()
    assert m.Status == KVR.OPTIMAL
    expected, _ = cold_optimum(env, {"ub": [(0, 0.5)]}, n=200)
    assert m.ObjVal == pytest.approx(expected, rel=1e-9)
    heard.clear()
    x[1].UB = 0.0
    m.reset()  # a cold run, long enough to be heard

    def listen(model, where):
        if where == KVR.Callback.SIMPLEX:
            heard.append(model.cbGet(KVR.Callback.SPX_ITRCNT))

    m.optimize(listen)
    assert m.Status == KVR.OPTIMAL and heard


def test_duals_and_slacks_are_those_of_the_solve_they_come_from(env, tmp_path):
    """What a re-solve leaves with the engine is read on request as of that solve: in a copy
    taken before the original changed and solved again, and in a solution file."""
    models = [build(env) for _ in range(2)]
    for m, x, _ in models:
        m.optimize()
        x[0].UB = 0.5
        m.optimize()
    (m, x, cons), (twin, tx, tcons) = models
    copy = m.copy()
    m.write(str(tmp_path / "solved.json"))
    want = [twin.getAttr(a, tcons) for a in ("Slack", "Pi")] + [twin.getAttr("RC", tx)]
    written = json.loads((tmp_path / "solved.json").read_text())
    for key, values in zip(("Slack", "Pi"), want):
        assert [c.get(key, 0.0) for c in written["Constrs"]] == pytest.approx(values, abs=1e-9)
    cons[2].RHS = 1.0
    m.chgCoeff(cons[4], x[1], 9.0)
    m.optimize()
    assert [copy.getAttr(a, copy.getConstrs()) for a in ("Slack", "Pi")] + \
        [copy.getAttr("RC", copy.getVars())] == want
    # The re-solve answers for the changed model.
    fresh = m.copy()
    fresh.reset()
    fresh.optimize()
    assert m.getAttr("Slack", cons) == pytest.approx(fresh.getAttr("Slack", fresh.getConstrs()),
                                                     abs=1e-6)
