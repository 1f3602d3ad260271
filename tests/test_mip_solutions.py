"""MIP solutions as programs read them: integer variables carry exact integers (X, Xn, callback
values, solution files), and the solution pool follows PoolSearchMode, PoolSolutions, PoolGap and
PoolGapAbs."""

import itertools
import json
import math

import pytest

import kaviropy as kp
from conftest import raises
from kaviropy import KVR

CB = KVR.Callback


# ---------------------------------------------------------------- exact integers

WIDTHS = [45.5, 36.2, 31.7, 14.3]
DEMAND = [97, 610, 395, 211]
ROLL = 100.0


def master_lp(env, patterns):
    """The cutting-stock master LP over the given patterns: its objective and row duals."""
    m = kp.Model("master", env=env)
    rows = [m.addConstr(kp.LinExpr() >= d) for d in DEMAND]
    for p in patterns:
        m.addVar(obj=1, column=kp.Column(list(p), rows))
    m.optimize()
    return m, rows


def test_column_generation_with_an_integer_knapsack_converges(env):
    """The pricing knapsack's pattern is read with int(v.X) and compared with == 1 (as programs
    do): values a hair below an integer would truncate to a wrong pattern that is generated again
    and again. The master reaches the optimum of the LP over all patterns in a few rounds."""
    patterns = [tuple(int(ROLL // w) if j == i else 0 for j in range(4)) for i, w in enumerate(WIDTHS)]
    master, rows = master_lp(env, patterns)
    price = kp.Model("price", env=env)
    use = [price.addVar(vtype=KVR.INTEGER, ub=int(ROLL // w)) for w in WIDTHS]
    price.addConstr(kp.quicksum(w * u for w, u in zip(WIDTHS, use)) <= ROLL)
    for rounds in range(1, 50):
        price.setObjective(kp.quicksum(c.Pi * u for c, u in zip(rows, use)), KVR.MAXIMIZE)
        price.optimize()
        assert all(u.X == int(u.X) for u in use)
        if price.ObjVal <= 1 + 1e-9:
            break
        pattern = tuple(int(u.X) for u in use)
        assert pattern not in patterns
        patterns.append(pattern)
        master.addVar(obj=1, column=kp.Column(list(pattern), rows))
        master.optimize()
    assert rounds < 10
    # Every feasible pattern at once gives the same optimum.
    every = [p for p in itertools.product(*(range(int(ROLL // w) + 1) for w in WIDTHS))
             if 0 < sum(a * w for a, w in zip(p, WIDTHS)) <= ROLL]
    full, _ = master_lp(env, every)
    assert master.ObjVal == pytest.approx(full.ObjVal, rel=1e-9)
    assert master.ObjVal == pytest.approx(452.25, rel=1e-9)


def fractional_knapsacks(env, count):
    """Integer knapsacks with fractional data, whose engine solutions are integral only within the
    engine's tolerance."""
    import random
    rnd = random.Random(1)
    for _ in range(count):
        m = kp.Model(env=env)
        w = [rnd.uniform(5, 40) for _ in range(8)]
        p = [rnd.uniform(0.1, 2) for _ in range(8)]
        x = [m.addVar(vtype=KVR.INTEGER, ub=5) for _ in range(8)]
        m.addConstr(kp.quicksum(a * v for a, v in zip(w, x)) <= 100)
        m.setObjective(kp.quicksum(a * v for a, v in zip(p, x)), KVR.MAXIMIZE)
        yield m, x, p


def test_integer_values_are_exact_everywhere_they_are_read(env, tmp_cwd):
    for m, x, p in fractional_knapsacks(env, 40):
        seen = []

        def cb(model, where):
            if where == CB.MIPSOL:
                seen.extend(model.cbGetSolution(x))

        m.optimize(cb)
        assert all(v.X == round(v.X) for v in x)
        assert m.ObjVal == sum(a * v.X for a, v in zip(p, x))  # the objective of these values
        assert m.IntVio == 0.0
        for k in range(m.SolCount):
            m.Params.SolutionNumber = k
            assert all(v.Xn == round(v.Xn) for v in x)
        assert seen and all(v == round(v) for v in seen)
        m.dispose()
    # Solution files print the integers as such.
    m, x, _ = next(fractional_knapsacks(env, 1))
    m.optimize()
    m.write("k.sol")
    m.write("k.json")
    values = [float(line.split()[1]) for line in open("k.sol") if line[0] not in "#"]
    assert values == [v.X for v in x] and all(v == int(v) for v in values)
    sol = json.loads(open("k.json").read())
    assert all(v["X"] == int(v["X"]) for v in sol["Vars"])


# ---------------------------------------------------------------- solution pools

WEIGHTS = [3, 4, 5, 6, 7]


def pool_model(env, mode, solutions, vtype=KVR.BINARY, ub=1, **params):
    """A knapsack (capacity 13, profit = weight + 1) with a continuous slack bonus."""
    m = kp.Model("pool", env=env)
    x = [m.addVar(vtype=vtype, ub=ub, obj=w + 1, name="x%d" % i) for i, w in enumerate(WEIGHTS)]
    s = m.addVar(ub=0.5, obj=0.25, name="s")
    m.addConstr(kp.quicksum(w * v for w, v in zip(WEIGHTS, x)) + s <= 13.25, name="cap")
    m.ModelSense = KVR.MAXIMIZE
    m.Params.PoolSearchMode = mode
    m.Params.PoolSolutions = solutions
    for name, value in params.items():
        m.setParam(name, value)
    return m, x


def every_objective(ub):
    """Objectives of all integer assignments of pool_model, best first (brute force)."""
    objs = []
    for a in itertools.product(range(ub + 1), repeat=len(WEIGHTS)):
        used = sum(w * v for w, v in zip(WEIGHTS, a))
        if used <= 13.25:
            objs.append(sum((w + 1) * v for w, v in zip(WEIGHTS, a)) + 0.25 * min(0.5, 13.25 - used))
    return sorted(objs, reverse=True)


def read_pool(m, x):
    pool = []
    for k in range(m.SolCount):
        m.Params.SolutionNumber = k
        pool.append((m.PoolObjVal, tuple(v.Xn for v in x)))
    return pool


@pytest.mark.parametrize("vtype, ub", [(KVR.BINARY, 1), (KVR.INTEGER, 2)])
def test_mode_2_finds_the_n_best_solutions(env, vtype, ub):
    """Binaries and bounded general integers: the pool holds the best PoolSolutions assignments
    in order, each one feasible and different; PoolObjBound bounds what is not in the pool."""
    expected = every_objective(ub)
    for n in (1, 4, 7):
        m, x = pool_model(env, 2, n, vtype, ub)
        m.optimize()
        pool = read_pool(m, x)
        assert m.SolCount == n
        assert [o for o, _ in pool] == pytest.approx(expected[:n], abs=1e-6)
        assert len({xs for _, xs in pool}) == n
        assert all(sum(w * v for w, v in zip(WEIGHTS, xs)) <= 13.25 for _, xs in pool)
        assert pool[0][0] == pytest.approx(m.ObjVal) and pool[0][1] == tuple(v.X for v in x)
        if n > 1:
            assert m.PoolObjBound == pytest.approx(expected[n - 1], abs=1e-6)
        m.dispose()
    # Asking for more than exist gives all of them, and nothing else can be found.
    m, x = pool_model(env, 2, 1000, vtype, ub)
    m.optimize()
    assert [o for o, _ in read_pool(m, x)] == pytest.approx(expected, abs=1e-6)
    assert m.PoolObjBound == -math.inf
    m.dispose()


def test_two_best_with_no_gap_are_the_optimal_ones(env):
    """The program of the bug report: the 2 best solutions with PoolGap 0 are two optimal ones,
    not three solutions of different value."""
    m, x = pool_model(env, 2, 2, KVR.INTEGER, 2, PoolGap=0.0)
    m.optimize()
    pool = read_pool(m, x)
    assert m.SolCount == 2 and pool[0][1] != pool[1][1]
    assert [o for o, _ in pool] == pytest.approx([m.ObjVal] * 2)
    m.dispose()


def test_gap_limits_trim_the_pool_in_every_mode(env):
    best = every_objective(1)
    for mode in (0, 1, 2):
        m, x = pool_model(env, mode, 100, PoolGapAbs=2.0)
        m.optimize()
        objs = [o for o, _ in read_pool(m, x)]
        assert objs and all(o >= best[0] - 2.0 - 1e-6 for o in objs), mode
        if mode == 2:
            assert objs == pytest.approx([o for o in best if o >= best[0] - 2.0 - 1e-9])
        m.dispose()
    m, x = pool_model(env, 2, 100, PoolGap=0.1)
    m.optimize()
    assert [o for o, _ in read_pool(m, x)] == pytest.approx(
        [o for o in best if o >= best[0] * 0.9 - 1e-9])
    m.dispose()


def test_mode_1_fills_the_pool_with_good_distinct_solutions(env):
    m0, x0 = pool_model(env, 0, 6)
    m0.optimize()
    m, x = pool_model(env, 1, 6)
    m.optimize()
    pool = read_pool(m, x)
    assert m.SolCount == 6 and len({xs for _, xs in pool}) == 6
    assert pool[0][0] == pytest.approx(every_objective(1)[0])
    assert [o for o, _ in pool] == sorted((o for o, _ in pool), reverse=True)
    # At least as good, solution by solution, as what the engine met on its way.
    for (o1, _), (o0, _) in zip(pool, read_pool(m0, x0)):
        assert o1 >= o0 - 1e-9
    m.dispose()
    m0.dispose()


def test_search_needs_bounded_integers_and_says_so(env):
    m, x = pool_model(env, 2, 3, KVR.INTEGER, 2)
    x[1].UB = math.inf
    raises(KVR.ERROR_NOT_SUPPORTED,
           "PoolSearchMode 2 needs finite bounds on every general integer variable, and integer "
           "variable 'x1' has none on one side: give it bounds or use PoolSearchMode 0",
           m.optimize)
    assert m.SolCount == 0  # refused before any solve
    m.Params.PoolSearchMode = 0
    m.optimize()
    assert m.Status == KVR.OPTIMAL and m.SolCount >= 1
    m.dispose()
