"""Derived models (relax, fixed, presolve, dualize, feasibility, linearize, singleScenarioModel)
and the feasibility relaxation: every result is checked by solving it and comparing with an
independent computation or a known optimum."""

import pytest

import kaviropy as kp
from conftest import INSTANCES, raises
from kaviropy import KVR


INF = float("inf")


MODEL_NAME = "t"  # the name of the model the m fixture makes


def read(env, name):
    return kp.read(str(INSTANCES / (name + ".mps")), env=env)


def optimum(model):
    model.optimize()
    assert model.Status == KVR.OPTIMAL
    return model.ObjVal


def infeasible_pair(m):
    """x + y >= 10 and x + y <= 4 with x, y <= 3: no solution."""
    x = m.addVar(ub=3, name="x")
    y = m.addVar(ub=3, name="y")
    c0 = m.addConstr(x + y >= 10, name="c0")
    c1 = m.addConstr(x + y <= 4, name="c1")
    m.setObjective(x + 2 * y)
    m.update()
    return x, y, c0, c1


# ---------------------------------------------------------------- relax and fixed


@pytest.mark.parametrize("name", ["lseu", "egout", "flugpl"])
def test_relax_and_fixed_of_mip_instances(env, name):
    model = read(env, name)
    mip = optimum(model)
    # The LP bound, computed independently by changing the types on a copy.
    lp = model.copy()
    lp.setAttr("VType", lp.getVars(), ["C"] * lp.NumVars)
    bound = optimum(lp)
    relaxed = model.relax()
    assert relaxed.IsMIP == 0 and relaxed.NumVars == model.NumVars
    assert optimum(relaxed) == pytest.approx(bound, rel=1e-6)
    assert relaxed.getVars()[0].VarName == model.getVars()[0].VarName

    fixed = model.fixed()
    assert fixed.IsMIP == 0
    assert optimum(fixed) == pytest.approx(mip, rel=1e-6)
    assert len(fixed.getAttr("Pi", fixed.getConstrs())) == model.NumConstrs
    for model_ in (lp, relaxed, fixed, model):
        model_.dispose()


def test_relax_keeps_valid_rows_of_special_constraints(m):
    a, b = (m.addVar(lb=1, vtype=KVR.BINARY, name=n) for n in ("a", "b"))
    both = m.addVar(vtype=KVR.BINARY, name="both")
    x = m.addVar(lb=3, ub=3, name="x")
    top = m.addVar(lb=-INF, name="top")
    s = m.addVar(lb=2, ub=6, vtype=KVR.SEMICONT, name="s")
    on = m.addVar(vtype=KVR.BINARY, name="on")
    m.addConstr(both == kp.and_(a, b))
    m.addConstr(top == kp.max_(x, constant=1))
    m.addConstr((on == 1) >> (s <= 0))
    m.addSOS(KVR.SOS_TYPE1, [x, s])
    m.addConstr(s >= 1, name="s1")
    m.setObjective(both + top + s)
    m.update()
    relaxed = m.relax()
    relaxed.update()
    assert (relaxed.IsMIP, relaxed.NumSOS, relaxed.NumGenConstrs) == (0, 0, 0)
    # and: both >= a + b - 1 = 1; max: top >= x = 3; semi-continuous s relaxed to [0, 6]
    assert optimum(relaxed) == pytest.approx(1 + 3 + 1)
    assert relaxed.getVarByName("s").LB == 0

    # The library model as it stands: a pending bound change is not part of the relaxation
    # (with it, top >= 5 would give 7).
    x.UB = 5
    x.LB = 5
    assert optimum(m.relax()) == pytest.approx(5)
    relaxed.dispose()


def test_fixed_respects_the_solution_pattern(m):
    x = [m.addVar(ub=10, name="x%d" % k) for k in range(3)]
    n = m.addVar(vtype=KVR.INTEGER, ub=10, name="n")
    on = m.addVar(vtype=KVR.BINARY, name="on")
    m.addSOS(KVR.SOS_TYPE1, x)
    m.addConstr((on == 1) >> (x[1] + n <= 5), name="ind")
    m.addConstr(x[0] + x[1] + x[2] + n <= 7.5, name="cap")
    m.setObjective(3 * x[0] + 2 * x[1] + x[2] + n + 4 * on, KVR.MAXIMIZE)
    mip = optimum(m)
    assert mip == pytest.approx(3 * 7.5 + 4)
    fixed = m.fixed()
    assert optimum(fixed) == pytest.approx(mip)
    fixed.update()
    assert (fixed.NumSOS, fixed.NumGenConstrs) == (0, 0)
    # the integer and the zero SOS members are fixed; the active indicator became a row
    assert fixed.getVarByName("n").LB == fixed.getVarByName("n").UB == round(n.X)
    assert fixed.getConstrByName("ind") is not None
    # x0 fills the capacity: the fixed LP prices it at x0's objective coefficient
    assert abs(fixed.getConstrByName("cap").Pi) == pytest.approx(3.0)
    fixed.dispose()

    fresh = kp.Model(env=m._uenv)
    fresh.addVar(vtype=KVR.INTEGER)
    fresh.update()
    raises(KVR.ERROR_DATA_NOT_AVAILABLE,
           "Unable to create the fixed model: the model has no solution (optimize it first)",
           fresh.fixed)
    fresh.dispose()


# ---------------------------------------------------------------- dual


@pytest.mark.parametrize("name", ["afiro", "adlittle", "blending", "smalllp", "israel", "stair"])
def test_dual_optimum_equals_primal_optimum(env, name):
    model = read(env, name)
    primal = optimum(model)
    dual = model.dualize()
    assert dual.NumConstrs == model.NumVars
    assert optimum(dual) == pytest.approx(primal, rel=1e-6)
    dual.dispose()
    model.dispose()


@pytest.mark.parametrize("sense", [KVR.MINIMIZE, KVR.MAXIMIZE])
def test_dual_of_every_row_sense_and_bound_kind(m, sense):
    free = m.addVar(lb=-INF, name="free")
    neg = m.addVar(lb=-INF, ub=-1, name="neg")
    box = m.addVar(lb=-2, ub=5, name="box")
    fix = m.addVar(lb=1.5, ub=1.5, name="fix")
    m.addConstr(free + box <= 6, name="le")
    m.addConstr(free - neg >= -3, name="ge")
    m.addConstr(free + 2 * neg + box == 1, name="eq")
    m.addRange(box + fix, 0, 4, name="rng")
    s = 1 if sense == KVR.MINIMIZE else -1
    m.setObjective(s * (free + 3 * box - neg + 2 * fix) + 7, sense)
    primal = optimum(m)
    dual = m.dualize()
    assert optimum(dual) == pytest.approx(primal)
    assert dual.getVarByName("le") is not None and dual.getConstrByName("box") is not None
    dual.dispose()


def test_dualize_refuses_other_models(m):
    x = m.addVar(vtype=KVR.INTEGER, name="n")
    m.update()
    raises(KVR.ERROR_NOT_FOR_MIP,
           "Unable to create the dual model: variable n is not continuous (type 'I')", m.dualize)
    x.VType = KVR.CONTINUOUS
    m.setObjective(x * x)
    raises(KVR.ERROR_NOT_SUPPORTED,
           "Unable to create the dual model: only linear programs have one, and the model has a "
           "quadratic objective", m.dualize)


# ---------------------------------------------------------------- presolve


@pytest.mark.parametrize("name", ["afiro", "adlittle", "scrs8", "egout", "flugpl", "lseu"])
def test_presolve_keeps_the_optimum(env, name):
    model = read(env, name)
    reduced = model.presolve()
    assert reduced.NumVars <= model.NumVars and reduced.NumConstrs <= model.NumConstrs
    assert optimum(reduced) == pytest.approx(optimum(model), rel=1e-6)
    reduced.dispose()
    model.dispose()


def test_presolve_reductions(m):
    x = m.addVar(ub=10, name="x")
    y = m.addVar(ub=10, vtype=KVR.INTEGER, name="y")
    z = m.addVar(lb=2, ub=2, name="z")
    w = m.addVar(name="w")
    m.addConstr(2 * y >= 3, name="single")  # y >= 1.5 -> y >= 2
    m.addConstr(z + w == 5, name="chain")  # z fixed: w == 3, then w is fixed too
    m.addConstr(x + y + w >= 8, name="keep")
    m.setObjective(x + 3 * y + w + 10 * z)
    z.UB = 2.5  # pending: presolve applies it first, so z is no longer fixed
    reduced = m.presolve()
    assert m.getVars()[2].UB == 2.5
    assert optimum(reduced) == pytest.approx(optimum(m))
    z.UB = 2
    reduced = m.presolve()
    assert reduced.NumConstrs == 1 and [v.VarName for v in reduced.getVars()] == ["x", "y"]
    assert reduced.getVarByName("y").LB == 2
    assert optimum(reduced) == pytest.approx(optimum(m)) == pytest.approx(3 + 6 + 3 + 20)

    m.addConstr(x <= -1, name="bad")
    infeasible = m.presolve()
    assert infeasible.NumVars == 1 and infeasible.getConstrs()[0].ConstrName == "Infeasible"
    infeasible.optimize()
    assert infeasible.Status in (KVR.INFEASIBLE, KVR.INF_OR_UNBD)


# ---------------------------------------------------------------- feasibility, scenarios


def test_feasibility_model_has_no_objective(m):
    x = m.addVar(lb=1, ub=4, name="x")
    y = m.addVar(ub=4, name="y")
    m.addConstr(x + y >= 3)
    m.setObjective(x * x + y + 5, KVR.MAXIMIZE)
    m.NumObj = 2
    m.update()
    f = m.feasibility()
    assert (f.NumObj, f.NumQNZs, f.ModelSense) == (1, 0, KVR.MINIMIZE)
    assert optimum(f) == 0.0
    assert m.NumQNZs == 1  # the model itself keeps its objective
    f.dispose()


def test_single_scenario_model(m):
    x = m.addVar(name="x")
    y = m.addVar(name="y")
    c0 = m.addConstr(x + y >= 2, name="c0")
    m.setObjective(x + 2 * y)
    raises(KVR.ERROR_DATA_NOT_AVAILABLE,
           "Unable to create a single-scenario model: the model has no scenarios",
           m.singleScenarioModel)
    m.NumScenarios = 2
    m.update()
    m.Params.ScenarioNumber = 0
    c0.ScenNRHS = 4
    m.Params.ScenarioNumber = 1
    x.ScenNUB = 0.5
    m.update()
    values = []
    for k in (0, 1):
        m.Params.ScenarioNumber = k
        s = m.singleScenarioModel()
        assert s.NumScenarios == 0
        values.append(optimum(s))
        s.dispose()
    assert values == pytest.approx([4.0, 0.5 + 3.0])
    m.optimize()
    m.Params.ScenarioNumber = 1
    assert m.ScenNObjVal == pytest.approx(values[1])
    m.NumScenarios = 1
    m.update()
    raises(KVR.ERROR_INVALID_ARGUMENT,
           "Unable to create a single-scenario model: ScenarioNumber 1 is not below NumScenarios 1",
           m.singleScenarioModel)


# ---------------------------------------------------------------- linearize


def test_linearize_products_exactly(m):
    z = m.addVar(vtype=KVR.BINARY, name="z")
    w = m.addVar(lb=-2, ub=3, name="w")
    u = m.addVar(vtype=KVR.BINARY, name="u")
    x = m.addVar(ub=10, name="x")
    # z = 0: w at -2, objective -2; z = 1: -2 w at w = 3 gives -6 (u z <= ... keeps u off)
    m.setObjective(-3 * z * w + w - 5 * u + u * u)
    m.addConstr(z * w + u * z + x >= 4, name="q")
    m.addConstr(x <= 1.5 + 4 * (1 - u))
    m.update()
    lin = m.linearize()
    lin.update()
    assert (lin.NumQConstrs, lin.NumQNZs) == (0, 0) and lin.getConstrByName("q") is not None
    # brute force over the binaries, with the continuous part solved as an LP
    best = INF
    for zv in (0, 1):
        for uv in (0, 1):
            sub = kp.Model(env=m._uenv)
            ws = sub.addVar(lb=-2, ub=3)
            xs = sub.addVar(ub=10)
            sub.addConstr(zv * ws + uv * zv + xs >= 4)
            sub.addConstr(xs <= 1.5 + 4 * (1 - uv))
            sub.setObjective((1 - 3 * zv) * ws - 4 * uv)
            sub.optimize()
            if sub.Status == KVR.OPTIMAL:
                best = min(best, sub.ObjVal)
            sub.dispose()
    assert optimum(lin) == pytest.approx(best)
    lin.dispose()


def test_linearize_general_constraints_and_refusals(m):
    x = m.addVar(lb=-3, ub=2, name="x")
    y = m.addVar(lb=-1, ub=4, name="y")
    top = m.addVar(lb=-INF, name="top")
    m.addConstr(top == kp.max_(x, y, constant=1))
    m.addConstr(x + y == 0.5)
    m.setObjective(top, KVR.MAXIMIZE)
    original = optimum(m)
    lin = m.linearize()
    lin.update()
    assert lin.NumGenConstrs == 0 and lin.IsMIP == 1
    assert optimum(lin) == pytest.approx(original, rel=1e-5) == pytest.approx(3.5, rel=1e-5)
    lin.dispose()

    # a semi-continuous factor may also be 0: the product's rows must allow it
    b = m.addVar(vtype=KVR.BINARY, name="b")
    s = m.addVar(lb=2, ub=4, vtype=KVR.SEMICONT, name="s")
    m.addConstr(b >= 1)
    m.setObjective(b * s, KVR.MINIMIZE)
    m.update()
    lin = m.linearize()
    assert optimum(lin) == pytest.approx(0)
    lin.dispose()

    m.setObjective(x * y)
    m.update()
    raises(KVR.ERROR_NOT_SUPPORTED,
           "Quadratic term x*y of the objective cannot be linearized exactly: neither factor is "
           "binary", m.linearize)
    m.setObjective(b * top)
    m.update()
    raises(KVR.ERROR_NOT_SUPPORTED,
           "Quadratic term top*b of the objective cannot be linearized exactly: top has no finite "
           "lower bound", m.linearize)


# ---------------------------------------------------------------- feasibility relaxation


def test_feasrelax_finds_the_minimal_violation(m):
    x, y, c0, c1 = infeasible_pair(m)
    assert m.feasRelax(0, True, None, None, None, [c0, c1], [1, 1]) == pytest.approx(6)
    names = [v.VarName for v in m.getVars()]
    assert names == ["x", "y", "ArtP_c0", "ArtN_c1"]
    assert m.getVars()[0] is x  # existing handles stay
    # any x + y in [4, 6] violates by 6 in total; the original objective then takes x + y = 4
    assert optimum(m) == pytest.approx(3 + 2 * 1)
    assert x.X + y.X == pytest.approx(4)
    assert m.getConstrByName("FeasRelaxObj") is not None


def test_feasrelax_elements_take_default_element_attributes(m):
    x, y, c0, c1 = infeasible_pair(m)
    x.Start, y.VarHintVal, c0.Lazy = 2.0, 1.0, 1
    m.update()
    m.feasRelax(0, True, [x], [1], [1], [c0, c1], [1, 1])
    added = m.getVars()[2:]
    assert [v.VarName for v in added] == ["ArtL_x", "ArtU_x", "ArtP_c0", "ArtN_c1"]
    assert (x.Start, y.VarHintVal, c0.Lazy) == (2.0, 1.0, 1)
    assert all(v.Start == 1e101 and v.VarHintVal == 1e101 for v in added)
    rows = m.getConstrs()[2:]
    assert [c.ConstrName for c in rows] == ["ArtLB_x", "ArtUB_x", "FeasRelaxObj"]
    assert [c.Lazy for c in rows] == [0, 0, 0]


def test_feasrelax_objective_kinds(env):
    results = []
    for objtype, minrelax in ((1, False), (2, True), (0, False)):
        m = kp.Model(env=env)
        x, y, c0, c1 = infeasible_pair(m)
        # Counting violations, a relaxed bound would let its variable run off to the big-M.
        bounds = [x, y] if objtype != 2 else None
        val = m.feasRelax(objtype, minrelax, bounds, [1, 1], [1, 1], [c0, c1], [1, 2])
        results.append((val, optimum(m)))
        m.dispose()
    # squares, s = x + y: (10 - s)^2 + 2 (s - 4)^2 (+ (s - 6)^2 / 2 beyond the bounds) is
    # smallest at s = 6: 16 + 8; minrelax 0 returns 0 and the objective is the relaxation's
    assert results[0] == (0.0, pytest.approx(24))
    # cardinality: violating c0 alone suffices; then x = y = 0 is best for x + 2 y
    assert results[1] == (pytest.approx(1), pytest.approx(0))
    # linear: (10 - s) + 2 (s - 4) for s in [4, 6] is smallest at s = 4
    assert results[2] == (0.0, pytest.approx(6))


def test_feasrelaxS_relaxes_everything_listed(m):
    x, y, c0, c1 = infeasible_pair(m)
    c1.RHS = 100
    m.update()
    assert m.feasRelaxS(0, 1, 1, 0) == pytest.approx(4)  # upper bounds up by 4
    assert m.NumVars == 6 and m.getVarByName("ArtU_x") is not None
    assert m.getConstrByName("ArtUB_x").RHS == 3 and x.UB == INF
    # all of the violation goes to x, the cheaper variable: x = 7, y = 3
    assert optimum(m) == pytest.approx(7 + 2 * 3)


def test_feasrelax_errors_leave_the_model_unchanged(m):
    x, y, c0, c1 = infeasible_pair(m)
    raises(0, "Invalid argument of relaxobjtype", m.feasRelax, 3, False, [x], [1], [1], None, None)
    raises(0, "Length of penalty list differs from length of variable list",
           m.feasRelax, 0, False, [x, y], [1], None, None, None)
    raises(0, "Length of penalty list differs from length of constraint list",
           m.feasRelax, 0, False, None, None, None, [c0], [1, 2])
    raises(KVR.ERROR_INVALID_ARGUMENT, "Penalty must be a number",
           m.feasRelax, 0, False, [x], ["a"], None, None, None)
    raises(KVR.ERROR_INVALID_ARGUMENT,
           "Invalid lower-bound penalty -1 of x: penalties must be >= 0",
           m.feasRelax, 0, False, [x], [-1], None, None, None)
    # only bounds relaxable: the rows still contradict each other
    raises(KVR.ERROR_INVALID_ARGUMENT,
           "The feasibility relaxation is infeasible: the bounds and constraints that may not be "
           "relaxed contradict each other",
           m.feasRelaxS, 0, True, True, False)
    assert (m.NumVars, m.NumConstrs) == (2, 2) and m.getObjective().getCoeff(1) == 2
    m.dispose()
    raises(0, "Model has already been freed", m.feasRelax, 0, False, None, None, None, None, None)
    raises(0, "Model has already been freed", m.relax)


def test_feasrelax_refusals_of_the_library(m):
    x, y, c0, c1 = infeasible_pair(m)
    s = m.addVar(lb=1, ub=2, vtype=KVR.SEMICONT, name="s")
    raises(KVR.ERROR_NOT_SUPPORTED,
           "The bounds of semi-continuous or semi-integer variable s cannot be relaxed",
           m.feasRelax, 0, False, [s], [1], None, None, None)
    m.Params.TimeLimit = 0
    raises(KVR.ERROR_DATA_NOT_AVAILABLE,
           "The feasibility relaxation was not solved to optimality (status 9); no minimum to keep",
           m.feasRelax, 0, True, None, None, None, [c0], [1])
    assert (m.NumVars, m.NumConstrs) == (3, 2)


def test_library_entry_points_check_their_arguments():
    from clib import Model as CModel, lib, new_env
    import ctypes as C

    cenv = new_env()
    cm = CModel.new(cenv)
    cm.var(ub=1, name="x")
    cm.update()
    for fn in ("KVRrelaxmodel", "KVRpresolvemodel", "KVRdualmodel"):
        getattr(lib, fn).argtypes = [C.c_void_p, C.POINTER(C.c_void_p)]
        getattr(lib, fn).restype = C.c_int
        assert getattr(lib, fn)(cm.ptr, None) == KVR.ERROR_NULL_ARGUMENT
        assert lib.KVRgetmerrormsg(cm.ptr) == b"No place given for the new model"
    lib.KVRfeasrelax.argtypes = [C.c_void_p, C.c_int, C.c_int, C.c_void_p, C.c_void_p,
                                 C.c_void_p, C.POINTER(C.c_double)]
    lib.KVRfeasrelax.restype = C.c_int
    out = C.c_double()
    assert lib.KVRfeasrelax(cm.ptr, 0, 2, None, None, None, C.byref(out)) == \
        KVR.ERROR_INVALID_ARGUMENT
    assert lib.KVRgetmerrormsg(cm.ptr) == b"Invalid minrelax 2: use 0 or 1"
    assert lib.KVRfeasrelax(cm.ptr, 5, 0, None, None, None, C.byref(out)) == \
        KVR.ERROR_INVALID_ARGUMENT
    assert lib.KVRgetmerrormsg(cm.ptr) == \
        b"Invalid relaxobjtype 5: use 0 (linear), 1 (quadratic) or 2 (cardinality)"
    assert lib.KVRfeasrelax(cm.ptr, 0, 0, None, None, None, None) == KVR.ERROR_NULL_ARGUMENT
    result = C.c_void_p()
    assert lib.KVRrelaxmodel(cm.ptr, C.byref(result)) == 0 and result.value
    assert lib.KVRfreemodel(result) == 0
    # a freed model is refused, and the out-pointer is cleared
    result = C.c_void_p(1)
    ptr = cm.ptr
    cm.free()
    assert lib.KVRrelaxmodel(ptr, C.byref(result)) == KVR.ERROR_INVALID_ARGUMENT
    assert result.value is None
    lib.KVRfreeenv(cenv)
