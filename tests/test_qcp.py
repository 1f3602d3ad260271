"""Convex quadratic constraints (general quadratics, balls, second-order and rotated cones) and
quadratic objectives with integers, solved by outer approximation: optima, duals against the
KKT conditions, unbounded and infeasible models, integer models against enumeration, the
analysis paths that share the solve, and the refusal of nonconvex constraints."""

import itertools
import math

import pytest

import kaviropy as kp
from kaviropy import KVR

INF = KVR.INFINITY


MODEL_NAME = "qcp"  # the name of the model the m fixture makes


def free(m, name):
    return m.addVar(lb=-INF, name=name)


def test_disk_optimum_and_duals_satisfy_kkt(m):
    x, y = free(m, "x"), free(m, "y")
    c = m.addQConstr(x * x + y * y <= 1, name="disk")
    m.setObjective(x + y, KVR.MAXIMIZE)
    m.Params.QCPDual = 1
    m.optimize()
    assert m.Status == KVR.OPTIMAL
    assert m.ObjVal == pytest.approx(math.sqrt(2), abs=1e-5)
    assert m.ObjBound >= m.ObjVal - 1e-9
    assert x.X**2 + y.X**2 <= 1 + 1e-6
    assert c.QCSlack == pytest.approx(1 - x.X**2 - y.X**2, abs=1e-12)
    # Stationarity: grad(x + y) = QCPi * grad(x^2 + y^2), with QCPi the rate of change of the
    # optimum in the right-hand side: d sqrt(2 b) / db = 1 / sqrt(2) at b = 1.
    mu = c.QCPi
    assert mu == pytest.approx(1 / math.sqrt(2), abs=1e-3)
    assert 1 - mu * 2 * x.X == pytest.approx(0, abs=2e-3)
    assert 1 - mu * 2 * y.X == pytest.approx(0, abs=2e-3)
    assert (x.RC, y.RC) == pytest.approx((0, 0), abs=1e-9)
    # Without QCPDual the duals are not reported.
    m.Params.QCPDual = 0
    m.optimize()
    with pytest.raises(AttributeError, match="Unable to retrieve attribute 'QCPi'"):
        c.QCPi


def test_general_convex_constraint_with_linear_rows_and_duals(m):
    # min -x - 2y  s.t.  x^2 + xy + y^2 + x <= 3, x + y <= 1.5: both constraints bind.
    x, y = free(m, "x"), free(m, "y")
    q = m.addQConstr(x * x + x * y + y * y + x <= 3, name="ell")
    r = m.addConstr(x + y <= 1.5, name="sum")
    m.setObjective(-x - 2 * y)
    m.Params.QCPDual = 1
    m.optimize()
    assert m.Status == KVR.OPTIMAL
    assert x.X**2 + x.X * y.X + y.X**2 + x.X <= 3 + 1e-6
    # KKT for minimization with <= rows: c = Pi * a + QCPi * grad g, Pi, QCPi <= 0.
    gx, gy = 2 * x.X + y.X + 1, x.X + 2 * y.X
    assert r.Pi <= 1e-9 and q.QCPi <= 1e-9
    assert -1 == pytest.approx(r.Pi + q.QCPi * gx, abs=1e-3)
    assert -2 == pytest.approx(r.Pi + q.QCPi * gy, abs=1e-3)
    # The same constraint written the other way round (>= with a negated Q): the same optimum,
    # and the opposite multiplier, as raising its right-hand side tightens it.
    mu, obj = q.QCPi, m.ObjVal
    m.remove(q)
    q2 = m.addQConstr(-x * x - x * y - y * y - x >= -3, name="ell2")
    m.optimize()
    assert m.ObjVal == pytest.approx(obj, abs=1e-5)
    assert q2.QCPi == pytest.approx(-mu, abs=1e-3) and q2.QCPi > 0


def test_second_order_cone_distance_to_a_box(m):
    # min t  s.t. ||x - (2, 3)|| <= t,  x in [0, 1]^2: the nearest point is (1, 1).
    x = m.addVars(2, ub=1, name="x")
    u = m.addVars(2, lb=-INF, name="u")
    t = m.addVar(name="t")
    m.addConstr(u[0] == x[0] - 2)
    m.addConstr(u[1] == x[1] - 3)
    m.addQConstr(u[0] * u[0] + u[1] * u[1] <= t * t, name="cone")
    m.setObjective(t)
    m.optimize()
    assert m.Status == KVR.OPTIMAL
    assert m.ObjVal == pytest.approx(math.sqrt(5), abs=1e-6)
    assert (x[0].X, x[1].X) == pytest.approx((1, 1), abs=1e-6)


def test_scaled_and_rotated_cones(m):
    # 3 x^2 <= 2 y z with x >= 1: y z >= 1.5, so min y + z = 2 sqrt(1.5) at y = z.
    x = m.addVar(lb=1, name="x")
    y, z = m.addVar(name="y"), m.addVar(name="z")
    m.addQConstr(3 * x * x <= 2 * y * z, name="rot")
    m.setObjective(y + z + x)
    m.optimize()
    assert m.Status == KVR.OPTIMAL
    assert m.ObjVal == pytest.approx(2 * math.sqrt(1.5) + 1, abs=1e-6)
    assert y.X * z.X == pytest.approx(1.5, abs=1e-4)
    # A constant inside the cone: 4 x^2 + 9 <= 4 t^2, t >= 0, x free: t >= 1.5.
    m2 = kp.Model()
    m2.Params.OutputFlag = 0
    a, t = m2.addVar(lb=-INF, name="a"), m2.addVar(name="t")
    m2.addQConstr(4 * a * a - 4 * t * t <= -9, name="c")
    m2.setObjective(t + 0.1 * a)
    m2.optimize()
    assert m2.ObjVal == pytest.approx(min(math.sqrt(2.25 + a_ * a_) + 0.1 * a_
                                          for a_ in [i / 1e4 - 1 for i in range(20001)]), abs=1e-6)
    m2.dispose()


def test_unbounded_first_relaxation_and_truly_unbounded_models(m):
    x = free(m, "x")
    m.addQConstr(x * x <= 4, name="sq")
    m.setObjective(-x)
    m.optimize()
    assert m.Status == KVR.OPTIMAL and x.X == pytest.approx(2, abs=1e-6)
    # A free direction the quadratic constraint does not limit, without and with rows.
    y = free(m, "y")
    m.setObjective(-x - y)
    m.optimize()
    assert m.Status == KVR.UNBOUNDED
    m.addConstr(y >= x - 10)
    m.optimize()
    assert m.Status == KVR.UNBOUNDED
    # A general quadratic that does limit it: (x - y)^2 + y <= 1 recedes only towards y
    # decreasing along x = y. With d = x - y, x + y = 2 y + d <= 2 - 2 d^2 + d, largest at
    # d = 1/4.
    m.addQConstr(x * x - 2 * x * y + y * y + y <= 1, name="parab")
    m.optimize()
    assert m.Status == KVR.OPTIMAL
    assert m.ObjVal == pytest.approx(-2.125, abs=1e-5)
    assert x.X - y.X == pytest.approx(0.25, abs=1e-3)


def test_infeasible_disjoint_disks(m):
    x, y = free(m, "x"), free(m, "y")
    m.addQConstr(x * x + y * y <= 1, name="left")
    m.addQConstr(x * x - 6 * x + y * y <= -8, name="right")  # (x - 3)^2 + y^2 <= 1
    m.setObjective(x + y)
    m.optimize()
    assert m.Status == KVR.INFEASIBLE
    with pytest.raises(AttributeError, match="Unable to retrieve attribute 'X'"):
        x.X


def test_miqcp_against_enumeration(m):
    x = m.addVar(lb=-5, ub=5, vtype=KVR.INTEGER, name="x")
    y = m.addVar(lb=-5, ub=5, vtype=KVR.INTEGER, name="y")
    m.addQConstr(x * x + y * y <= 10, name="disk")
    m.addQConstr(x * x - 2 * x + y * y <= 12, name="shifted")
    m.setObjective(3 * x + 2 * y, KVR.MAXIMIZE)
    seen = []

    def cb(model, where):
        if where == KVR.Callback.MIPSOL:
            a, b = model.cbGetSolution([x, y])
            seen.append(a * a + b * b)

    m.optimize(cb)
    best = max(3 * a + 2 * b for a, b in itertools.product(range(-5, 6), repeat=2)
               if a * a + b * b <= 10 and a * a - 2 * a + b * b <= 12)
    assert m.Status == KVR.OPTIMAL and m.ObjVal == pytest.approx(best, abs=1e-6)
    assert m.ObjBound >= best - 1e-6 and m.MIPGap <= 1e-4
    assert round(x.X) ** 2 + round(y.X) ** 2 <= 10
    # The callback sees only incumbents that satisfy the quadratic constraints.
    assert seen and max(seen) <= 10 + 1e-6


def test_facility_cones_with_big_m_settle_without_cycling(m):
    # Two facilities covering the 3 x 3 grid of [0, 1]^2 with distance cones switched by big-M
    # rows: optimum sqrt(5)/4. Incumbents within the engine's MIP tolerance of a cut but beyond
    # FeasibilityTol of a cone once came back after every restart.
    facility_model(m, 2, 2)
    m.optimize()
    assert m.Status == KVR.OPTIMAL
    assert m.ObjVal == pytest.approx(math.sqrt(5) / 4, abs=1e-5) and m.MaxVio <= 1e-6


def test_convex_miqp_objective_moves_to_an_epigraph(m):
    x = m.addVar(ub=10, vtype=KVR.INTEGER, name="x")
    y = m.addVar(ub=10, vtype=KVR.INTEGER, name="y")
    m.setObjective((x - 2.6) * (x - 2.6) + (y - 1.3) * (y - 1.3))
    m.optimize()
    assert m.Status == KVR.OPTIMAL
    assert (x.X, y.X) == pytest.approx((3, 1), abs=1e-6)
    assert m.ObjVal == pytest.approx(0.16 + 0.09, abs=1e-9)  # the true objective
    assert m.ObjBound <= m.ObjVal + 1e-6 and m.ObjBound >= m.ObjVal - 1e-4
    assert m.NumVars == 2 and len(m.getVars()) == 2  # the epigraph column stays hidden
    # Maximizing a concave objective.
    m.setObjective(-(x - 2.6) * (x - 2.6) - (y - 1.3) * (y - 1.3) + 1, KVR.MAXIMIZE)
    m.optimize()
    assert m.ObjVal == pytest.approx(0.75, abs=1e-9)


ASSETS = ["bonds", "stocks", "gold", "property"]
EXPECTED = {"bonds": 0.03, "stocks": 0.09, "gold": 0.05, "property": 0.07}
COV = {("bonds", "bonds"): 0.0016, ("bonds", "stocks"): -0.0008, ("bonds", "gold"): 0.0002,
       ("bonds", "property"): 0.0004, ("stocks", "stocks"): 0.0400, ("stocks", "gold"): -0.0020,
       ("stocks", "property"): 0.0120, ("gold", "gold"): 0.0225, ("gold", "property"): 0.0010,
       ("property", "property"): 0.0196}


def variance(w):
    return sum((c if a == b else 2 * c) * w[a] * w[b] for (a, b), c in COV.items())


def portfolio(m, lots):
    """Fractions in whole lots of 1/lots (continuous when lots is None)."""
    if lots:
        k = m.addVars(ASSETS, ub=lots, vtype=KVR.INTEGER, name="k")
        w = {a: k[a] * (1.0 / lots) for a in ASSETS}
        m.addConstr(k.sum() == lots, name="budget")
    else:
        w = m.addVars(ASSETS, ub=1, name="w")
        m.addConstr(w.sum() == 1, name="budget")
    risk = kp.QuadExpr()
    for (a, b), c in COV.items():
        risk += (c if a == b else 2 * c) * w[a] * w[b]
    return w, risk


def test_portfolio_in_lots_and_as_a_risk_constraint(m):
    w, risk = portfolio(m, 10)
    m.addConstr(kp.quicksum(EXPECTED[a] * w[a] for a in ASSETS) >= 0.06, name="return")
    m.setObjective(risk)
    m.optimize()
    best = min(variance(dict(zip(ASSETS, (v / 10 for v in ks))))
               for ks in itertools.product(range(11), repeat=4) if sum(ks) == 10
               and sum(EXPECTED[a] * v / 10 for a, v in zip(ASSETS, ks)) >= 0.06 - 1e-12)
    assert m.Status == KVR.OPTIMAL and m.ObjVal == pytest.approx(best, rel=1e-6)

    # Continuous: the least variance for a 6% return, then the best return within that variance.
    qp = kp.Model(env=None)
    qp.Params.OutputFlag = 0
    w, risk = portfolio(qp, None)
    qp.addConstr(kp.quicksum(EXPECTED[a] * w[a] for a in ASSETS) >= 0.06)
    qp.setObjective(risk)
    qp.optimize()
    v = qp.ObjVal
    qp.dispose()
    qc = kp.Model(env=None)
    qc.Params.OutputFlag = 0
    w, risk = portfolio(qc, None)
    qc.addQConstr(risk <= v, name="risk")
    qc.setObjective(kp.quicksum(EXPECTED[a] * w[a] for a in ASSETS), KVR.MAXIMIZE)
    qc.optimize()
    assert qc.Status == KVR.OPTIMAL and qc.ObjVal == pytest.approx(0.06, abs=1e-5)
    qc.dispose()


def test_quadratic_objective_with_quadratic_constraints(m):
    # min (x - 2)^2 + (y - 2)^2 over the unit disk: distance sqrt(8) - 1, squared.
    x, y = free(m, "x"), free(m, "y")
    m.addQConstr(x * x + y * y <= 1, name="disk")
    m.setObjective(x * x - 4 * x + y * y - 4 * y + 8)
    m.optimize()
    assert m.Status == KVR.OPTIMAL
    assert m.ObjVal == pytest.approx((math.sqrt(8) - 1) ** 2, abs=1e-5)
    assert m.NumVars == 2


def test_multiobjective_and_scenarios_go_through_the_approximation(m):
    x, y = free(m, "x"), free(m, "y")
    m.addQConstr(x * x + y * y <= 1, name="disk")
    m.setObjectiveN(-x, 0, priority=2, reltol=0, abstol=0.01)
    m.setObjectiveN(-y, 1, priority=1)
    m.optimize()
    assert m.Status == KVR.OPTIMAL
    # x within 0.01 of 1, then y as large as the disk allows.
    assert x.X == pytest.approx(0.99, abs=1e-4)
    assert y.X == pytest.approx(math.sqrt(1 - 0.99**2), abs=1e-3)

    s = kp.Model(env=None)
    s.Params.OutputFlag = 0
    a, b = free(s, "a"), free(s, "b")
    s.addQConstr(a * a + b * b <= 4, name="disk")
    s.setObjective(-a)
    s.NumScenarios = 1
    s.Params.ScenarioNumber = 0
    a.ScenNObj = -1.0
    b.ScenNObj = -1.0
    s.optimize()
    assert s.ObjVal == pytest.approx(-2, abs=1e-5)
    assert s.ScenNObjVal == pytest.approx(-2 * math.sqrt(2), abs=1e-5)
    s.dispose()


NONCONVEX = [
    (lambda x, y: x * y <= 1, 0,
     "Quadratic constraint 'q' is not convex: Q is not positive semi-definite"),
    (lambda x, y: x * x + y * y >= 1, 0,
     "Quadratic constraint 'q' is not convex: Q is not negative semi-definite, as a >= "
     "constraint needs,"),
    (lambda x, y: x * x <= y * y, 0,
     "it has the form of a second-order cone, but the lower bound of y is negative"),
    (lambda x, y: 1 <= x * y, 0,
     "it has the form of a rotated second-order cone, but the lower bound of x is negative"),
]


@pytest.mark.parametrize("make, nonconvex, text", NONCONVEX)
def test_nonconvex_constraints_are_refused_and_leave_the_model_as_it_was(m, make, nonconvex,
                                                                          text):
    x, y = free(m, "x"), free(m, "y")
    m.addConstr(x + y <= 3, name="c")
    m.setObjective(x + y, KVR.MAXIMIZE)
    m.optimize()
    before = (m.ObjVal, m.NumVars, m.NumConstrs)
    m.Params.NonConvex = nonconvex
    q = m.addQConstr(make(x, y), name="q")
    with pytest.raises(kp.KaviroError) as err:
        m.optimize()
    assert err.value.errno == KVR.ERROR_Q_NOT_PSD and text in err.value.message
    assert (m.NumVars, m.NumConstrs, m.NumQConstrs) == (2, 1, 1)
    assert q.QCName == "q" and m.getQCRow(q).size() >= 1
    assert before[1:] == (m.NumVars, m.NumConstrs)


def test_round_cap_and_limits(m):
    x, y = free(m, "x"), free(m, "y")
    m.addQConstr(x * x + 0.5 * x * y + y * y + x <= 1, name="ell")
    m.setObjective(x + y, KVR.MAXIMIZE)
    m.Params.TimeLimit = 0
    m.optimize()
    assert m.Status == KVR.TIME_LIMIT


def facility_model(m, F, G):
    """F facilities in [0, 1]^2 covering the (G + 1) x (G + 1) grid, minimizing the largest
    distance; each distance is a cone switched off by a big-M row."""
    big_m = 2 * math.sqrt(2)
    cells = [(i, j, f) for i in range(G + 1) for j in range(G + 1) for f in range(F)]
    d = m.addVar(name="d")
    y = m.addVars(F, 2, ub=1)
    z = m.addVars(cells, vtype=KVR.BINARY)
    s = m.addVars(cells)
    r = m.addVars(cells, 2, lb=-INF)
    m.setObjective(d, KVR.MINIMIZE)
    m.addConstrs(z.sum(i, j, "*") == 1 for i in range(G + 1) for j in range(G + 1))
    m.addConstrs(s[c] == d + big_m * (1 - z[c]) for c in cells)
    m.addConstrs(r[i, j, f, 0] == i / G - y[f, 0] for i, j, f in cells)
    m.addConstrs(r[i, j, f, 1] == j / G - y[f, 1] for i, j, f in cells)
    m.addConstrs(r[c + (0,)] ** 2 + r[c + (1,)] ** 2 <= s[c] ** 2 for c in cells)
    return cells, d, r, s


def test_repaired_incumbents_are_pool_solutions_that_meet_the_cones(m, tmp_path, monkeypatch):
    # Outer approximation with incumbent repair is how HiGHS takes a MIQCP (the automatic choice
    # would hand it to SCIP). Three facilities on the 4 x 4 grid: optimum 0.5. Incumbents that violate a cone are
    # repaired at their assignment; every pool solution, repaired or found by the search, is a
    # solution of the model, and the repairs are logged.
    monkeypatch.setenv("KAVIRO_ENGINE_OPTIONS", "engine=highs")
    cells, d, r, s = facility_model(m, 3, 3)
    m.Params.PoolSolutions = 100
    m.Params.OutputFlag = 1
    m.Params.LogToConsole = 0
    m.Params.LogFile = str(tmp_path / "fac.log")
    m.optimize()
    log = (tmp_path / "fac.log").read_text().splitlines()
    assert m.Status == KVR.OPTIMAL and m.ObjVal == pytest.approx(0.5, abs=1e-5)
    assert m.ObjBound <= m.ObjVal + 1e-9 and m.ObjBound >= 0.5 - 1e-4
    assert any("Repaired a rejected incumbent" in line for line in log)
    assert m.SolCount >= 2
    objs = []
    for k in range(m.SolCount):
        m.Params.SolutionNumber = k
        for c in cells:
            assert r[c + (0,)].Xn ** 2 + r[c + (1,)].Xn ** 2 <= s[c].Xn ** 2 + 1e-6
        assert d.Xn == pytest.approx(m.PoolObjVal, abs=1e-9)
        objs.append(m.PoolObjVal)
    assert objs == sorted(objs)
