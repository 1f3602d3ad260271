"""Optimization: statuses, solution values, duals, bases and warm starts, certificates, sensitivity
ranges, limits, quadratic objectives, MIP starts and pools, logging, reset and termination."""

import math

import pytest

import kaviropy as kp
from conftest import INSTANCES
from kaviropy import KVR

# These tests drive the Model class; they run once it is part of the build.


MODEL_NAME = "opt"  # the name of the model the m fixture makes


def small_lp(m, sense=KVR.MINIMIZE):
    """min x + 2y  s.t.  c0: x + y >= 2,  c1: x - y <= 1,  x, y >= 0.
    Optimum x = 1.5, y = 0.5, objective 2.5; both rows tight with duals 1.5 and -0.5."""
    x = m.addVar(name="x")
    y = m.addVar(name="y")
    c0 = m.addConstr(x + y >= 2, name="c0")
    c1 = m.addConstr(x - y <= 1, name="c1")
    if sense == KVR.MINIMIZE:
        m.setObjective(x + 2 * y, KVR.MINIMIZE)
    else:
        m.setObjective(-x - 2 * y, KVR.MAXIMIZE)
    return x, y, c0, c1


def knapsack(m, n=10, cap=20):
    """max sum (j+1) x_j  s.t.  sum (j+2) x_j <= cap, x binary; optimum 18 (x7 and x9)."""
    x = [m.addVar(vtype=KVR.BINARY, obj=j + 1, name=f"x{j}") for j in range(n)]
    m.addConstr(kp.quicksum((j + 2) * x[j] for j in range(n)) <= cap, name="cap")
    m.ModelSense = KVR.MAXIMIZE
    return x


def test_lp_values_duals_slacks_and_basis_agree_with_hand_computation(m):
    x, y, c0, c1 = small_lp(m)
    m.optimize()
    assert m.Status == KVR.OPTIMAL and m.SolCount == 1
    assert m.ObjVal == pytest.approx(2.5) and m.ObjBound == pytest.approx(2.5)
    assert (x.X, y.X) == pytest.approx((1.5, 0.5))
    assert m.getAttr("RC", [x, y]) == pytest.approx([0.0, 0.0], abs=1e-9)
    assert (c0.Pi, c1.Pi) == pytest.approx((1.5, -0.5))
    assert (c0.Slack, c1.Slack) == pytest.approx((0.0, 0.0), abs=1e-9)
    assert (x.VBasis, y.VBasis) == (KVR.BASIC, KVR.BASIC)
    assert (c0.CBasis, c1.CBasis) == (KVR.NONBASIC_LOWER, KVR.NONBASIC_LOWER)
    # The solution is the pool's only entry.
    m.Params.SolutionNumber = 0
    assert m.PoolObjVal == pytest.approx(2.5) and (x.Xn, y.Xn) == pytest.approx((1.5, 0.5))
    assert m.IterCount >= 1 and m.BarIterCount == 0 and m.Runtime >= 0
    with pytest.raises(AttributeError):
        m.MIPGap  # not a MIP
    with pytest.raises(AttributeError):
        x.UnbdRay  # InfUnbdInfo is off


def test_lp_duals_of_a_maximization_are_objective_sensitivities(m):
    x, y, c0, c1 = small_lp(m, KVR.MAXIMIZE)
    m.optimize()
    assert m.ObjVal == pytest.approx(-2.5)
    # Raising the right-hand side of c0 by d moves the optimum to -(5 + 3d)/2.
    assert (c0.Pi, c1.Pi) == pytest.approx((-1.5, 0.5))


def test_lp_sensitivity_ranges(m):
    x, y, c0, c1 = small_lp(m)
    m.optimize()
    # The vertex stays optimal while the cost of x is in [-2, 2] and that of y in [1, inf).
    assert (x.SAObjLow, x.SAObjUp) == pytest.approx((-2.0, 2.0))
    assert y.SAObjLow == pytest.approx(1.0) and y.SAObjUp == math.inf
    assert (c0.SARHSLow, c0.SARHSUp) == (pytest.approx(1.0), math.inf)
    assert (c1.SARHSLow, c1.SARHSUp) == pytest.approx((-2.0, 2.0))
    assert x.SALBLow == -math.inf and x.SALBUp == pytest.approx(1.5)


def test_sensitivity_is_not_available_for_mip(m):
    knapsack(m)
    m.optimize()
    with pytest.raises(AttributeError):
        m.getVars()[0].SAObjLow
    with pytest.raises(AttributeError):
        m.getVars()[0].RC


def test_warm_start_from_saved_basis_takes_no_iterations(m):
    x, y, c0, c1 = small_lp(m)
    m.optimize()
    cold = m.IterCount
    vbasis, cbasis = m.getAttr("VBasis", [x, y]), m.getAttr("CBasis", [c0, c1])
    m.reset()
    assert m.Status == KVR.LOADED
    m.Params.Presolve = 0
    m.setAttr("VBasis", [x, y], vbasis)
    m.setAttr("CBasis", [c0, c1], cbasis)
    m.optimize()
    assert m.Status == KVR.OPTIMAL and m.ObjVal == pytest.approx(2.5)
    assert m.IterCount == 0 < cold


def test_infeasible_lp_farkas_certificate(m):
    m.Params.InfUnbdInfo = 1
    x = m.addVar(ub=10, name="x")
    y = m.addVar(ub=10, name="y")
    lo = m.addConstr(x + y <= 1, name="lo")
    hi = m.addConstr(x + y >= 3, name="hi")
    m.optimize()
    assert m.Status == KVR.INFEASIBLE
    lam = [lo.FarkasDual, hi.FarkasDual]
    assert lam[0] <= 0 <= lam[1]
    # lambda'A = 0 here, so the proof is lambda'b.
    assert lam[0] + lam[1] == pytest.approx(0.0, abs=1e-9)
    assert m.FarkasProof == pytest.approx(lam[0] * 1 + lam[1] * 3) and m.FarkasProof > 0
    with pytest.raises(AttributeError):
        x.X


def test_rows_without_variables_are_checked(env):
    # A model without variables: each row reads 0 against its right-hand side.
    for sense, rhs, status in (("<", -1, KVR.INFEASIBLE), (">", 1, KVR.INFEASIBLE),
                               ("=", 0.5, KVR.INFEASIBLE), ("<", 1, KVR.OPTIMAL),
                               ("=", 0, KVR.OPTIMAL)):
        with kp.Model(env=env) as m:
            m.addLConstr(kp.LinExpr(), sense, rhs)
            m.optimize()
            assert m.Status == status, (sense, rhs)


def test_unbounded_lp_ray(m):
    m.Params.InfUnbdInfo = 1
    u = m.addVar(name="u")
    v = m.addVar(name="v")
    m.addConstr(u - v <= 1)
    m.setObjective(-u, KVR.MINIMIZE)
    m.optimize()
    assert m.Status == KVR.UNBOUNDED
    d = [u.UnbdRay, v.UnbdRay]
    assert -d[0] < 0 and d[0] - d[1] <= 1e-9 and min(d) >= -1e-9


def test_methods_agree_and_concurrent_reports_winner(m):
    small_lp(m)
    for method in (0, 1, 2, 5):
        m.Params.Method = method
        m.optimize()
        assert m.ObjVal == pytest.approx(2.5), method
    m.Params.Method = 3
    m.optimize()
    assert m.ConcurrentWinMethod in (0, 1, 2)


def pair_lp(m, n):
    """min 2 sum x + sum y  s.t.  x_ij - y_ij >= i,  x_ij + y_ij >= 0, all free: objective
    n^2 (n - 1) / 4, 4 n^2 nonzeros."""
    x = m.addVars(n, n, lb=-KVR.INFINITY)
    y = m.addVars(n, n, lb=-KVR.INFINITY)
    m.addConstrs(x[i, j] - y[i, j] >= i for i in range(n) for j in range(n))
    m.addConstrs(x[i, j] + y[i, j] >= 0 for i in range(n) for j in range(n))
    m.setObjective(2 * x.sum() + y.sum())
    return n * n * (n - 1) / 4


def test_concurrent_lp_takes_the_first_method_to_finish(env, tmp_path):
    # Instances, an infeasible and an unbounded LP, and limits: the race gives what one method
    # alone gives, and says who won.
    log = tmp_path / "race.log"
    for name, objective in (("25fv47", 5501.845888), ("greenbea", -72555248.13)):
        with kp.read(str(INSTANCES / f"{name}.mps"), env=env) as m:
            m.Params.Method, m.Params.LogFile, m.Params.OutputFlag = 3, str(log), 1
            m.Params.LogToConsole = 0
            m.optimize()
            assert m.Status == KVR.OPTIMAL and m.ObjVal == pytest.approx(objective, rel=1e-8)
            assert m.ConcurrentWinMethod in (1, 2)
    text = log.read_text()
    assert text.count("Concurrent LP: dual simplex and barrier side by side") == 2
    assert text.count("finished first") == 2
    with kp.Model(env=env) as m:
        x = m.addVar(ub=1)
        m.addConstr(x >= 2)
        m.Params.Method = 3
        m.optimize()
        assert m.Status in (KVR.INFEASIBLE, KVR.INF_OR_UNBD)
        m.remove(m.getConstrs()[0])
        x.UB, x.Obj = KVR.INFINITY, -1
        m.optimize()
        assert m.Status in (KVR.UNBOUNDED, KVR.INF_OR_UNBD)
    with kp.Model(env=env) as m:
        optimum = pair_lp(m, 60)
        m.Params.Presolve = 0
        m.Params.Method = 3
        m.Params.TimeLimit = 0
        m.optimize()
        assert m.Status == KVR.TIME_LIMIT
        # Large enough for the automatic method to take the barrier method when it solves cold;
        # a basis at hand makes it a simplex re-solve; it never races.
        m.Params.Method, m.Params.TimeLimit = -1, KVR.INFINITY
        m.Params.LogFile, m.Params.OutputFlag, m.Params.LogToConsole = str(log), 1, 0
        for cold in (True, False):
            log.write_text("")
            if cold:
                m.reset()
            m.optimize()
            assert m.Status == KVR.OPTIMAL and m.ObjVal == pytest.approx(optimum)
            text = log.read_text()
            assert ("Automatic method: barrier" in text) == cold and "side by side" not in text
            assert (m.BarIterCount > 0) == cold


def shaped_lp(m, kind):
    """An LP of at least 10,000 nonzeros: "packing" has 1,000 inequality rows, "transport" 170
    equations (a balanced transportation problem), "chain" 4,000 equations over free columns (each
    determined by the next four, the last four boxed), "nonnegative chain" 4,600 of them over
    nonnegative columns; "pairs" 7,200 inequality rows."""
    if kind == "pairs":
        pair_lp(m, 60)
    elif kind == "packing":
        x = m.addVars(2000, ub=1.0)
        m.addConstrs(kp.quicksum(x[(7 * i + 13 * k) % 2000] for k in range(12)) <= 5
                     for i in range(1000))
        m.setObjective(kp.quicksum((j % 5 + 1) * x[j] for j in range(2000)), KVR.MAXIMIZE)
    elif kind == "transport":
        x = m.addVars(50, 120)
        m.addConstrs(x.sum(i, "*") == 12 for i in range(50))
        m.addConstrs(x.sum("*", j) == 5 for j in range(120))
        m.setObjective(kp.quicksum((3 * i + 7 * j) % 11 * x[i, j] for i in range(50)
                                   for j in range(120)))
    else:
        n = 4000 if kind == "chain" else 4600
        y = m.addVars(n + 4, lb=-KVR.INFINITY if kind == "chain" else 0.0)
        for j in range(n, n + 4):
            y[j].LB, y[j].UB = 0, 1
        m.addConstrs(y[i] - 0.25 * kp.quicksum(y[i + k] for k in range(1, 5)) == 1
                     for i in range(n))
        m.setObjective(y[0] + y.sum())


def test_automatic_method_follows_the_shape_of_the_lp(env, tmp_path, monkeypatch):
    # Each LP solved cold with the automatic method: the log names the method taken, barrier
    # iterations happen exactly when it is the barrier method, and the optimum is the dual
    # simplex method's.
    log = tmp_path / "auto.log"
    expected = [("small", "dual simplex for a small LP"),
                ("pairs", "barrier with crossover for an LP with inequality rows"),
                ("packing", "barrier with crossover for an LP with inequality rows"),
                ("transport", "dual simplex for an LP of equations"),
                ("chain", "primal simplex for an LP of equations over mostly free columns"),
                ("nonnegative chain", "barrier with crossover for a large LP of equations")]
    for kind, method in expected:
        with kp.Model(env=env) as m:
            if kind == "small":
                small_lp(m)
            else:
                shaped_lp(m, kind)
            m.Params.LogFile, m.Params.OutputFlag, m.Params.LogToConsole = str(log), 1, 0
            m.Params.Presolve = 0
            m.Params.Method = 1
            m.optimize()
            optimum = m.ObjVal
            log.write_text("")
            m.reset()
            m.Params.Method = -1
            m.optimize()
            text = log.read_text()
            assert f"Automatic method: {method} ({m.NumConstrs} rows" in text, kind
            assert text.count("Automatic method") == 1
            assert m.Status == KVR.OPTIMAL and m.ObjVal == pytest.approx(optimum), kind
            assert (m.BarIterCount > 0) == method.startswith("barrier"), kind
            if method.startswith("barrier"):
                # Only the simplex method gives a certificate or honours an iteration limit.
                for param, value, default in (("InfUnbdInfo", 1, 0),
                                              ("IterationLimit", 1e9, KVR.INFINITY)):
                    log.write_text("")
                    m.reset()
                    m.setParam(param, value)
                    m.optimize()
                    m.setParam(param, default)
                    assert "Automatic method: dual simplex" in log.read_text(), param
                    assert m.BarIterCount == 0 and m.ObjVal == pytest.approx(optimum)
                # A method named in the engine options is the user's: no automatic choice.
                monkeypatch.setenv("KAVIRO_ENGINE_OPTIONS", "solver=simplex")
                log.write_text("")
                m.reset()
                m.optimize()
                monkeypatch.delenv("KAVIRO_ENGINE_OPTIONS")
                assert "Automatic method" not in log.read_text() and m.BarIterCount == 0


@pytest.mark.parametrize(
    "param, value, status",
    [
        ("TimeLimit", 0.0, KVR.TIME_LIMIT),
        ("SolutionLimit", 1, KVR.SOLUTION_LIMIT),
        ("Cutoff", 100.0, KVR.CUTOFF),
        ("BestObjStop", 5.0, KVR.USER_OBJ_LIMIT),
    ],
)
def test_mip_limits_give_their_status(m, param, value, status):
    knapsack(m)
    m.Params.Heuristics = 0
    setattr(m.Params, param, value)
    m.optimize()
    assert m.Status == status
    if status in (KVR.SOLUTION_LIMIT, KVR.USER_OBJ_LIMIT):
        assert m.SolCount >= 1 and m.ObjVal <= 18


def test_lp_iteration_limit(env):
    m = kp.read(str(INSTANCES / "25fv47.mps"), env=env)
    m.Params.IterationLimit = 10
    m.Params.Presolve = 0
    m.optimize()
    assert m.Status == KVR.ITERATION_LIMIT and m.IterCount <= 10


def test_mip_results_pool_and_bound(m):
    x = knapsack(m)
    m.optimize()
    assert m.Status == KVR.OPTIMAL and m.ObjVal == pytest.approx(18)
    assert [round(v.X) for v in x] == [0, 0, 0, 0, 0, 0, 0, 1, 0, 1]
    assert m.ObjBound >= m.ObjVal - 1e-6 and m.MIPGap <= 1e-4
    assert m.NodeCount >= 0 and m.SolCount >= 1
    # Pool solutions are feasible and sorted best first.
    objs = []
    for k in range(m.SolCount):
        m.Params.SolutionNumber = k
        xs = [v.Xn for v in x]
        assert sum((j + 2) * xs[j] for j in range(10)) <= 20 + 1e-6
        objs.append(m.PoolObjVal)
    assert objs == sorted(objs, reverse=True) and objs[0] == pytest.approx(18)


def test_mip_start_is_handed_to_the_engine(env, tmp_path):
    m = kp.Model(env=env)
    x = knapsack(m)
    for j, v in enumerate(x):
        v.Start = 1.0 if j in (7, 9) else 0.0
    m.Params.OutputFlag = 1
    m.Params.LogToConsole = 0
    m.Params.LogFile = str(tmp_path / "start.log")
    m.optimize()
    assert "MIP start with 10 of 10 values" in (tmp_path / "start.log").read_text()
    assert m.ObjVal == pytest.approx(18)
    m.dispose()


def leaky_sos(m):
    """SOS1 {a, b, c} with only c on (4.6) at the optimum 9.2; b earns more than c per unit of r0,
    so the relaxation raises b as far as the tolerance of its binary allows."""
    a = m.addVar(ub=100, name="a")
    b = m.addVar(ub=10, name="b")
    c = m.addVar(ub=10, name="c")
    m.addSOS(KVR.SOS_TYPE1, [a, b, c], [1, 2, 3])
    m.addConstr(5 * c + 2 * b + 2 * a <= 23, name="r0")
    m.addConstr(3 * a - 2 * c + 5 * b <= 10, name="r1")
    m.setObjective(a + 3 * b + 2 * c, KVR.MAXIMIZE)
    return a, b, c


def test_mip_solutions_of_rewritten_models_are_polished(env, tmp_path):
    """Big-M rows let a variable that is off keep a value within the tolerances of its binary; the
    solution is cleaned by re-solving with the integer variables fixed, so it reads exactly 0."""
    log = tmp_path / "polish.log"
    env.setParam("LogToConsole", 0)

    def solve(m):
        m.Params.OutputFlag = 1
        m.Params.LogFile = str(log)
        m.optimize()
        return log.read_text()

    m = kp.Model(env=env)
    a, b, c = leaky_sos(m)
    text = solve(m)
    assert (repr(a.X), repr(b.X)) == ("0.0", "0.0") and c.X == pytest.approx(4.6, abs=1e-9)
    assert m.ObjVal == pytest.approx(9.2, abs=1e-9) and m.ObjBound >= m.ObjVal
    assert "MIP solution polished" in text
    # The polished solution is the first of the pool, and no copy of the raw one is kept.
    m.Params.SolutionNumber = 0
    assert [v.Xn for v in (a, b, c)] == [a.X, b.X, c.X] and m.PoolObjVal == m.ObjVal
    for k in range(1, m.SolCount):
        m.Params.SolutionNumber = k
        assert [v.Xn for v in (a, b, c)] != [a.X, b.X, c.X]
    # Scenario solutions are polished too.
    m.NumScenarios = 1
    m.update()
    m.Params.ScenarioNumber = 0
    a.ScenNUB = 50
    m.optimize()
    assert [v.ScenNX for v in (a, b)] == [0.0, 0.0] and m.ScenNObjVal == pytest.approx(9.2)
    m.dispose()

    # With several objectives the last pass's model (earlier levels kept by rows) is polished.
    # Minimizing a + b first lets them grow by the level's tolerance later, which the SOS does
    # not: its rows, not the LP tolerance, must decide.
    for first in ("constant", "a + b"):
        m = kp.Model(env=env)
        a, b, c = leaky_sos(m)
        m.setObjectiveN(a + 3 * b + 2 * c, 0, priority=1)
        m.setObjectiveN(0 * a + 1 if first == "constant" else -a - b, 1, priority=2)
        m.optimize()
        assert (repr(a.X), repr(b.X)) == ("0.0", "0.0"), first
        assert m.ObjVal == pytest.approx(9.2, abs=1e-9)
        m.dispose()

    # Semi-continuous x in {0} u [5, 1000]; r0 allows x at most 1.6, so x is off.
    m = kp.Model(env=env)
    x = m.addVar(lb=5, ub=1000, vtype=KVR.SEMICONT, name="x")
    y = m.addVar(ub=100, name="y")
    z = m.addVar(ub=10, name="z")
    m.addConstr(3 * y + 5 * z + 5 * x <= 8, name="r0")
    m.addConstr(-2 * z - 3 * y + 5 * x <= 3, name="r1")
    m.setObjective(2 * x + 2 * y + 3 * z, KVR.MAXIMIZE)
    solve(m)
    assert (repr(x.X), repr(z.X)) == ("0.0", "0.0") and y.X == pytest.approx(8 / 3)
    m.dispose()

    # A model the engine takes as it is keeps the engine's values; nothing is polished.
    log.write_text("")
    m = kp.Model(env=env)
    knapsack(m)
    assert "polished" not in solve(m)
    m.dispose()


def lqcp(m, n):
    """The boundary control QP lqcp-n (a discretized heat equation): badly scaled rows, a
    quadratic objective in few of the variables; returns the objective expression."""
    dx, dt, a = 1.0 / n, 1.58 / n, 0.001
    h2 = dx * dx
    yt = [0.5 * (1 - (j * dx) ** 2) for j in range(n + 1)]
    y = m.addVars(n + 1, n + 1, lb=-KVR.INFINITY, name="y")
    u = m.addVars(range(1, n + 1), lb=-1, ub=1, name="u")
    obj = 0.25 * dx * ((y[n, 0] - yt[0]) * (y[n, 0] - yt[0])
                       + 2 * kp.quicksum((y[n, j] - yt[j]) * (y[n, j] - yt[j]) for j in range(1, n))
                       + (y[n, n] - yt[n]) * (y[n, n] - yt[n]))
    obj += 0.25 * a * dt * (2 * kp.quicksum(u[i] * u[i] for i in range(1, n)) + u[n] * u[n])
    m.setObjective(obj, KVR.MINIMIZE)
    m.addConstrs((y[i + 1, j] - y[i, j]) / dt
                 == 0.5 * (y[i, j - 1] - 2 * y[i, j] + y[i, j + 1] + y[i + 1, j - 1]
                           - 2 * y[i + 1, j] + y[i + 1, j + 1]) / h2
                 for i in range(n) for j in range(1, n))
    m.addConstrs(y[0, j] == 0 for j in range(n + 1))
    m.addConstrs(y[i, 2] - 4 * y[i, 1] + 3 * y[i, 0] == 0 for i in range(1, n + 1))
    m.addConstrs((y[i, n - 2] - 4 * y[i, n - 1] + 3 * y[i, n]) / (2 * dx) == u[i] - y[i, n]
                 for i in range(1, n + 1))
    return obj


@pytest.mark.parametrize("n, optimum", [
    (10, 0.00069076),   # the engine's QP method solves it
    (20, None),         # its QP method fails (numerical trouble): solved by cuts
    pytest.param(30, 0.00065599, marks=pytest.mark.slow),
    # its QP method cycles until the iteration cap, then cuts: seconds, not minutes
    pytest.param(50, None, marks=pytest.mark.slow),
])
def test_badly_scaled_convex_qp_is_solved(env, tmp_path, n, optimum):
    log = tmp_path / "qp.log"
    with kp.Model(env=env) as m:
        obj = lqcp(m, n)
        m.Params.LogFile, m.Params.OutputFlag, m.Params.LogToConsole = str(log), 1, 0
        m.optimize()
        assert m.Status == KVR.OPTIMAL
        # The value is the objective of the returned point, which meets every row.
        assert m.ObjVal == pytest.approx(obj.getValue(), abs=1e-12)
        assert max(abs(c.Slack) for c in m.getConstrs()) <= 1e-6
        if optimum is not None:
            assert m.ObjVal == pytest.approx(optimum, abs=1e-6)
        assert 0.00065 < m.ObjVal < 0.0007
        text = log.read_text()
        assert ("objective approximated by cuts" in text) == (n > 10)
        # Tangents bound every epigraph from the first LP: no rounds spent blocking rays.
        assert "against a ray" not in text


def test_convex_qp_and_rejected_quadratic_objectives(m):
    x = m.addVar(lb=-KVR.INFINITY, name="x")
    y = m.addVar(lb=-KVR.INFINITY, name="y")
    m.addConstr(x + y == 1)
    m.setObjective(x * x + y * y - x, KVR.MINIMIZE)
    m.optimize()
    assert (x.X, y.X) == pytest.approx((0.75, 0.25), abs=1e-5)
    assert m.ObjVal == pytest.approx(-0.125, abs=1e-6)
    m.setObjective(x * y)
    with pytest.raises(kp.KaviroError) as err:
        m.optimize()
    assert err.value.errno == KVR.ERROR_Q_NOT_PSD and "semi-definite" in err.value.message
    m.setObjective(x * x - x * y, KVR.MAXIMIZE)  # concave only for minimization
    with pytest.raises(kp.KaviroError) as err:
        m.optimize()
    assert err.value.errno == KVR.ERROR_Q_NOT_PSD and "maximization" in err.value.message
    z = m.addVar(vtype=KVR.INTEGER, name="z")
    m.setObjective(x * y + z, KVR.MINIMIZE)  # nonconvex with integers: refused before the epigraph
    with pytest.raises(kp.KaviroError) as err:
        m.optimize()
    assert err.value.errno == KVR.ERROR_Q_NOT_PSD and "Objective Q" in err.value.message


def test_log_header_engine_lines_and_summary_go_to_log_file(env, tmp_path, capsys):
    m = kp.Model("logged", env=env)
    small_lp(m)
    m.Params.OutputFlag = 1
    m.Params.LogFile = str(tmp_path / "run.log")
    m.optimize()
    text = (tmp_path / "run.log").read_text()
    out = capsys.readouterr().out
    assert "Kaviro" in text and "Model 'logged': 2 rows, 2 columns, 4 nonzeros" in text
    assert "Coefficient ranges: matrix [1e+00, 1e+00]" in text
    assert "Result: optimal" in text and "objective 2.5000000000e+00" in text
    assert "Result: optimal" in out  # the console got the same text
    m.Params.OutputFlag = 0
    m.optimize()
    assert capsys.readouterr().out == ""
    m.dispose()


def test_reset_message_terminate_and_bad_callback(m, capsys):
    small_lp(m)
    m.optimize()
    m.reset()
    with pytest.raises(AttributeError):
        m.ObjVal
    m.terminate()  # outside optimize: no effect on the next solve
    m.optimize()
    assert m.Status == KVR.OPTIMAL
    with pytest.raises(kp.KaviroError) as err:
        m.optimize(callback=print)
    assert (err.value.errno, err.value.message) == (-1, "Callback argument must be a function")
    assert m._callback is None


def test_reset_writes_to_log(env, capsys):
    m = kp.Model(env=env)
    m.Params.OutputFlag = 1
    m.reset()
    m.reset(1)
    m.message("hello log")
    out = capsys.readouterr().out
    assert "Discarded solution information\n" in out
    assert "Discarded solution information including additional information" in out
    assert "hello log" in out
    m.dispose()


def test_sub_environments(m):
    for getter in (m.getMultiobjEnv, m.getConcurrentEnv):
        with pytest.raises(kp.KaviroError) as err:
            getter(-1)
        assert (err.value.errno, err.value.message) == (
            -1, "Environment number must be non-negative")
    e = m.getMultiobjEnv(1)
    e.setParam("TimeLimit", 5)
    assert m.getMultiobjEnv(1).getParamInfo("TimeLimit")[2] == 5
    m.discardMultiobjEnvs()
    assert m.getMultiobjEnv(1).getParamInfo("TimeLimit")[2] != 5
    with pytest.raises(kp.KaviroError):
        m.getConcurrentEnv(KVR.MAX_CONCURRENT)
    m.discardConcurrentEnvs()


def test_other_thread_can_terminate_while_the_lock_is_released(env):
    import threading
    m = kp.read(str(INSTANCES / "dcmulti.mps"), env=env)
    timer = threading.Timer(0.3, m.terminate)
    timer.start()
    m.optimize()
    timer.join()
    assert m.Status == KVR.INTERRUPTED and m.Runtime < 5
    m.dispose()


def test_interrupt_signal_stops_the_solve_and_keeps_python_handler(env):
    import os
    import signal
    import threading
    m = kp.read(str(INSTANCES / "dcmulti.mps"), env=env)
    timer = threading.Timer(0.3, lambda: os.kill(os.getpid(), signal.SIGINT))
    timer.start()
    m.optimize()  # the library handles the signal: no KeyboardInterrupt here
    timer.join()
    assert m.Status == KVR.INTERRUPTED
    assert signal.getsignal(signal.SIGINT) is signal.default_int_handler
    m.dispose()


def test_work_and_node_limits(env):
    m = kp.read(str(INSTANCES / "25fv47.mps"), env=env)
    m.Params.Presolve = 0
    m.Params.WorkLimit = 0.01  # 100 iterations
    m.optimize()
    assert m.Status == KVR.WORK_LIMIT and m.Work >= 0.01 and m.IterCount < 2000
    m.dispose()
    m = kp.read(str(INSTANCES / "bell5.mps"), env=env)
    m.Params.NodeLimit = 20
    m.optimize()
    assert m.Status == KVR.NODE_LIMIT and 20 <= m.NodeCount < 100
    m.dispose()


def test_convexity_check_of_coupled_terms(m):
    x = m.addVar(lb=-1, ub=1, name="x")
    y = m.addVar(lb=-1, ub=1, name="y")
    m.setObjective(x * x + x * y + y * y)  # [[1, .5], [.5, 1]]: positive definite
    m.optimize()
    assert m.Status == KVR.OPTIMAL and m.ObjVal == pytest.approx(0, abs=1e-6)
    m.setObjective(x * x + 4 * x * y + 4 * y * y)  # (x + 2y)^2: singular but PSD
    m.optimize()
    assert m.Status == KVR.OPTIMAL
    m.setObjective(x * x + 4 * x * y + y * y)  # eigenvalues 3 and -1
    with pytest.raises(kp.KaviroError) as err:
        m.optimize()
    assert err.value.errno == KVR.ERROR_Q_NOT_PSD


def test_scenarios_are_solved_one_by_one(m):
    x, y, c0, c1 = small_lp(m)
    m.NumScenarios = 2
    m.update()
    m.Params.ScenarioNumber = 0
    c0.ScenNRHS = 4  # x + y >= 4: optimum x = 2.5, y = 1.5
    m.Params.ScenarioNumber = 1
    y.ScenNObj = 0.5  # y becomes cheap: x = 0, y = 2
    m.optimize()
    assert m.ObjVal == pytest.approx(2.5)
    m.Params.ScenarioNumber = 0
    assert m.ScenNObjVal == pytest.approx(5.5) and (x.ScenNX, y.ScenNX) == pytest.approx((2.5, 1.5))
    m.Params.ScenarioNumber = 1
    assert m.ScenNObjVal == pytest.approx(1.0) and (x.ScenNX, y.ScenNX) == pytest.approx((0, 2))


def test_engine_options_reach_the_first_order_lp_method(m, monkeypatch):
    x, y, c0, c1 = small_lp(m)
    monkeypatch.setenv("KAVIRO_ENGINE_OPTIONS", "solver=pdlp")
    m.optimize()
    assert m.Status == KVR.OPTIMAL and m.ObjVal == pytest.approx(2.5, rel=1e-4)
    for bad in ("no_such_option=1", "solver"):
        monkeypatch.setenv("KAVIRO_ENGINE_OPTIONS", bad)
        with pytest.raises(kp.KaviroError) as err:
            m.optimize()
        assert err.value.errno == KVR.ERROR_INVALID_ARGUMENT
        assert "KAVIRO_ENGINE_OPTIONS" in err.value.message


def test_model_without_variables_has_one_empty_solution(m):
    m.setObjective(kp.LinExpr(3.0))
    m.optimize()
    assert m.Status == KVR.OPTIMAL and m.SolCount == 1 and m.ObjVal == pytest.approx(3.0)
    m.Params.SolutionNumber = 0
    assert m.PoolObjVal == pytest.approx(3.0)
