"""Read-and-solve times of the test instances: kaviropy against highspy on the same files.

Each measurement is a fresh Python process that reads one MPS file and solves it with output off
and default parameters, kaviropy on HiGHS (forced through KAVIRO_ENGINE_OPTIONS: the automatic
choice takes SCIP for some MIPs; highspy gets the tolerances kaviropy's defaults map to, so that
both follow the same search path; both leave the thread count to the engine). numpy, which
highspy imports, starts a BLAS thread that spins for a while after the import, taking a core and
CPU time of its own; the processes run with one BLAS thread, so both sides run the engine's
threads only. The clock runs from just before the read to just after the solve returns; the
process's CPU time over the same span is recorded too, as it depends less on the load of a
shared machine. The two packages run alternately, RUNS times each per instance; the table shows
medians, the ratios kaviropy/highspy and whether both reached the same objective, then the
geometric means of the ratios.

With --callgrind each package instead runs once per instance under valgrind's callgrind, which
counts executed instructions (repeatable under any load). Only the library calls that read and
solve are counted (KVRreadmodel and KVRoptimize; Highs::readModel and Highs::run), with all they
call; the Python calls around them are a few thousand instructions on either side.

    python benchmarks/bench_solve.py [--runs N] [--callgrind] [--peer-python PY] [name.mps ...]
    python benchmarks/bench_solve.py --engines [--families] [--runs N] [model ...]

With --engines kaviropy alone runs each shared MIP, with --families also generated MIPs
(ENGINE_FAMILIES), and a set of nonconvex models (built in the measuring process; `NonConvex` 2)
three ways: HiGHS forced, SCIP forced and the automatic choice (KAVIRO_ENGINE_OPTIONS), same
parameters otherwise, each run a fresh process, the three taking turns. The table shows the
model's columns, rows, binaries and general integers, median CPU seconds, the automatic choice's
CPU and wall-clock time over the better of the two engines and the engine it took (from its log),
then the models where it needs more than 1.10 times the better engine's CPU time (and 10 ms more).
Models named on the command line (shared ones by file name, generated ones by name, such as
knap-5-30) replace the default list.

With --methods the LP instances and lp-N (N from --lp-sizes; see ../shared/benchmarks.md; once with
presolve as set by default and once with Presolve 0, as bench_build solves it) are solved by
kaviropy alone with each value of Method that runs one method: -1 (automatic), 0 primal simplex,
1 dual simplex, 2 barrier with crossover; with --families also generated LPs of other shapes (see
FAMILIES). Every method runs with Threads 1, so that none gets more of the machine than another.
One process per model reads or builds it once and solves fresh copies of it cold (a model solved
again after reset() may keep engine state that changes the path of the next solve) with the
methods in turn, each round starting with another one, RUNS rounds; a method still running after
--cap seconds (wall clock) is stopped there from another thread (a time limit would change the
engine's path) and not repeated. The table names the method the automatic choice took
(from its log), gives median process CPU times (less sensitive than the wall clock to the load of a
shared machine) and the ratio of the automatic choice to the best of the single methods by CPU and
by wall time, marked when the CPU ratio exceeds 1.10 by more than 10 ms (below that the clock's
noise dominates); the last lines give the largest ratio over models whose best single method needs
50 ms or more and the models that miss 1.10.

    python benchmarks/bench_solve.py --methods [--families] [--runs N] [--cap S]
                                     [--lp-sizes 100,300,500] [name.mps ...]

highspy comes from benchmarks/requirements.txt, usually in an environment of its own: give its
interpreter with --peer-python (kaviropy runs under --python, default the current interpreter).
"""

import argparse
import json
import math
import os
import pathlib
import re
import statistics
import subprocess
import sys
import tempfile

HERE = pathlib.Path(__file__).resolve().parent
INSTANCES = HERE.parent / "tests" / "data" / "instances"

KAVIRO = """
import json, sys, time
import kaviropy as kp
env = kp.Env(empty=True); env.setParam("OutputFlag", 0); env.start()
t, c = time.perf_counter(), time.process_time()
m = kp.read(sys.argv[1], env=env)
m.optimize()
t, c = time.perf_counter() - t, time.process_time() - c
print(json.dumps({"time": t, "cpu": c, "status": m.Status,
                  "obj": m.ObjVal if m.SolCount else None}))
"""

HIGHSPY = """
import json, sys, time
import highspy
h = highspy.Highs(); h.setOptionValue("output_flag", False)
# The tolerances kaviropy hands to the engine by default, so that both follow the same path (a
# MIP's one tolerance is the tighter of IntFeasTol 1e-5 and FeasibilityTol 1e-6).
for name, value in (("primal_feasibility_tolerance", 1e-6), ("dual_feasibility_tolerance", 1e-6),
                    ("mip_feasibility_tolerance", 1e-6), ("mip_abs_gap", 1e-10)):
    h.setOptionValue(name, value)
t, c = time.perf_counter(), time.process_time()
h.readModel(sys.argv[1])
h.run()
t, c = time.perf_counter() - t, time.process_time() - c
info = h.getInfo()
ok = info.primal_solution_status == 2
print(json.dumps({"time": t, "cpu": c, "status": str(h.getModelStatus()),
                  "obj": info.objective_function_value if ok else None}))
"""


# The models of --methods besides the shared LPs. lp-N is the sparse LP of ../shared/benchmarks.md,
# solved with presolve as set by default and with Presolve 0 (as bench_build solves it); the others
# are families with other shapes: transp-S-D a balanced transportation problem (S + D equation
# rows, S D columns), flow-N a minimum-cost flow on an N x N grid with arcs both ways between
# neighbours (one equation per node, capacities on the arcs), pack-R-C-K a random packing LP (R
# rows of K random columns each, C columns in [0, 1]) and heat-N the heat-equation constraints of
# lqcp-N with an L1 tracking objective (mostly equation rows over free columns).
BUILDERS = r"""
import random
import kaviropy as kp
from kaviropy import KVR


def build(name, env):
    kind, *a = name.split("-")
    a = [int(v) for v in a]
    rng = random.Random(7)
    m = kp.Model(env=env)
    if kind == "lp":
        n = a[0]
        x = m.addVars(n, n, lb=-KVR.INFINITY)
        y = m.addVars(n, n, lb=-KVR.INFINITY)
        m.setObjective(2 * x.sum() + y.sum(), KVR.MINIMIZE)
        m.addConstrs(x[i, j] - y[i, j] >= i for i in range(n) for j in range(n))
        m.addConstrs(x[i, j] + y[i, j] >= 0 for i in range(n) for j in range(n))
    elif kind == "transp":
        s, d = a
        supply = [rng.randint(50, 150) for _ in range(s)]
        demand = [sum(supply) // d] * d
        demand[-1] += sum(supply) - sum(demand)
        x = m.addVars(s, d)
        m.setObjective(kp.quicksum(rng.uniform(1, 100) * v for v in x.values()))
        m.addConstrs(x.sum(i, "*") == supply[i] for i in range(s))
        m.addConstrs(x.sum("*", j) == demand[j] for j in range(d))
    elif kind == "flow":
        n = a[0]
        nodes = [(i, j) for i in range(n) for j in range(n)]
        arcs = [(u, v) for u in nodes for v in ((u[0] + 1, u[1]), (u[0], u[1] + 1))
                if v[0] < n and v[1] < n]
        arcs += [(v, u) for u, v in arcs]
        x = {arc: m.addVar(ub=rng.uniform(5, 50)) for arc in arcs}
        m.setObjective(kp.quicksum(rng.uniform(1, 10) * v for v in x.values()))
        supply = dict.fromkeys(nodes, 0)
        for _ in range(2 * n):
            s, t, q = rng.choice(nodes), rng.choice(nodes), rng.randint(1, 10)
            supply[s] += q
            supply[t] -= q
        balance = {v: kp.LinExpr() for v in nodes}
        for (u, v), var in x.items():
            balance[u] += var
            balance[v] -= var
        m.addConstrs(balance[v] == supply[v] for v in nodes)
    elif kind == "pack":
        rows, cols, k = a
        x = m.addVars(cols, ub=1.0)
        m.setObjective(kp.quicksum(rng.uniform(1, 10) * v for v in x.values()), KVR.MAXIMIZE)
        for _ in range(rows):
            m.addConstr(kp.quicksum(rng.uniform(1, 5) * x[j] for j in rng.sample(range(cols), k))
                        <= rng.uniform(k, 3 * k))
    elif kind == "heat":
        n = a[0]
        dx, dt = 1.0 / n, 1.58 / n
        h2 = dx * dx
        y = m.addVars(n + 1, n + 1, lb=-KVR.INFINITY)
        u = m.addVars(range(1, n + 1), lb=-1, ub=1)
        e = m.addVars(n + 1)
        w = m.addVars(range(1, n + 1))
        m.setObjective(dx * e.sum() + 0.001 * dt * w.sum())
        for j in range(n + 1):
            target = 0.5 * (1 - (j * dx) ** 2)
            m.addConstr(e[j] >= y[n, j] - target)
            m.addConstr(e[j] >= target - y[n, j])
        m.addConstrs(w[i] >= u[i] for i in range(1, n + 1))
        m.addConstrs(w[i] >= -u[i] for i in range(1, n + 1))
        m.addConstrs((y[i + 1, j] - y[i, j]) / dt
                     == 0.5 * (y[i, j - 1] - 2 * y[i, j] + y[i, j + 1] + y[i + 1, j - 1]
                               - 2 * y[i + 1, j] + y[i + 1, j + 1]) / h2
                     for i in range(n) for j in range(1, n))
        m.addConstrs(y[0, j] == 0 for j in range(n + 1))
        m.addConstrs(y[i, 2] - 4 * y[i, 1] + 3 * y[i, 0] == 0 for i in range(1, n + 1))
        m.addConstrs((y[i, n - 2] - 4 * y[i, n - 1] + 3 * y[i, n]) / (2 * dx) == u[i] - y[i, n]
                     for i in range(1, n + 1))
    elif kind == "knap":
        # Multi-row knapsack over general integers in [0, 10].
        rows, cols = a
        x = m.addVars(cols, ub=10, vtype=KVR.INTEGER)
        m.setObjective(kp.quicksum(rng.randint(10, 60) * v for v in x.values()), KVR.MAXIMIZE)
        for _ in range(rows):
            w = [rng.randint(5, 40) for _ in range(cols)]
            m.addConstr(kp.quicksum(w[j] * x[j] for j in range(cols)) <= 2 * sum(w))
    elif kind == "icover":
        # Covering with general integers: ROWS demands met by multiples of COLS sparse columns.
        rows, cols = a
        x = m.addVars(cols, ub=10, vtype=KVR.INTEGER)
        m.setObjective(kp.quicksum(rng.randint(5, 40) * v for v in x.values()))
        for _ in range(rows):
            m.addConstr(kp.quicksum(rng.randint(1, 9) * x[j]
                                    for j in rng.sample(range(cols), max(2, cols // 5)))
                        >= rng.randint(20, 60))
    elif kind == "fcnf":
        # Fixed-charge flow on a random digraph: continuous flows, a binary opens each arc.
        n, deg = a
        arcs = {(u, v) for u in range(n) for v in rng.sample(range(n), deg) if u != v}
        arcs = sorted(arcs)
        supply = [0] * n
        for _ in range(n // 2):
            s, t, q = rng.randrange(n), rng.randrange(n), rng.randint(5, 20)
            supply[s] += q
            supply[t] -= q
        cap = sum(abs(v) for v in supply)
        f = {e: m.addVar() for e in arcs}
        y = {e: m.addVar(vtype=KVR.BINARY) for e in arcs}
        # A ring of expensive uncapacitated arcs keeps every instance feasible.
        ring = m.addVars(n)
        m.setObjective(kp.quicksum(rng.uniform(1, 5) * f[e] + rng.uniform(20, 80) * y[e]
                                   for e in arcs) + 100 * ring.sum())
        balance = [kp.LinExpr() for _ in range(n)]
        for (u, v), var in list(f.items()) + [((u, (u + 1) % n), ring[u]) for u in range(n)]:
            balance[u] += var
            balance[v] -= var
        m.addConstrs(balance[v] == supply[v] for v in range(n))
        m.addConstrs(f[e] <= min(cap, rng.randint(10, 40)) * y[e] for e in arcs)
    elif kind == "cover":
        # Set covering: each row needs one of K random columns, costs in [1, 100].
        rows, cols, k = a
        x = m.addVars(cols, vtype=KVR.BINARY)
        m.setObjective(kp.quicksum(rng.randint(1, 100) * v for v in x.values()))
        for _ in range(rows):
            m.addConstr(kp.quicksum(x[j] for j in rng.sample(range(cols), k)) >= 1)
    elif kind == "spack":
        # Set packing: each row allows one of K random columns, values in [1, 100] maximized.
        rows, cols, k = a
        x = m.addVars(cols, vtype=KVR.BINARY)
        m.setObjective(kp.quicksum(rng.randint(1, 100) * v for v in x.values()), KVR.MAXIMIZE)
        for _ in range(rows):
            m.addConstr(kp.quicksum(x[j] for j in rng.sample(range(cols), k)) <= 1)
    elif kind == "spart":
        # Set partitioning: each of ROWS elements in exactly one chosen column; COLS random
        # columns of K elements, and columns cutting the elements into blocks of K keep it
        # feasible.
        rows, cols, k = a
        subsets = [rng.sample(range(rows), k) for _ in range(cols)]
        order = rng.sample(range(rows), rows)
        subsets += [order[i:i + k] for i in range(0, rows, k)]
        x = m.addVars(len(subsets), vtype=KVR.BINARY)
        m.setObjective(kp.quicksum(rng.randint(k, 10 * k) * v for v in x.values()))
        members = [[] for _ in range(rows)]
        for j, subset in enumerate(subsets):
            for i in subset:
                members[i].append(x[j])
        m.addConstrs(kp.quicksum(members[i]) == 1 for i in range(rows))
    elif kind == "lot":
        # Capacitated lot sizing: P products over T periods share a capacity; a binary setup
        # per product and period, continuous production and stock, demand met in each period.
        periods, products = a
        prod = m.addVars(products, periods)
        stock = m.addVars(products, periods)
        setup = m.addVars(products, periods, vtype=KVR.BINARY)
        demand = {(p, t): rng.randint(0, 40) for p in range(products) for t in range(periods)}
        big = {(p, t): sum(demand[p, s] for s in range(t, periods))
               for p in range(products) for t in range(periods)}
        m.setObjective(kp.quicksum(rng.uniform(50, 200) * setup[k] + rng.uniform(1, 3) * stock[k]
                                   for k in setup))
        for p in range(products):
            for t in range(periods):
                before = stock[p, t - 1] if t else 0
                m.addConstr(before + prod[p, t] == demand[p, t] + stock[p, t])
                m.addConstr(prod[p, t] <= big[p, t] * setup[p, t])
        # Room for every period's own demand and a few setups, tight enough to bind at times.
        cap = max(sum(demand[p, t] for p in range(products)) for t in range(periods))
        cap = max(cap + 5 * products, 1.3 * sum(demand.values()) / periods)
        m.addConstrs(prod.sum("*", t) + 5 * setup.sum("*", t) <= cap for t in range(periods))
    elif kind in ("batch", "ibatch"):
        # Lot sizing in whole batches: a general integer number of batches of a fixed size per
        # product and period (at most 8), continuous stock, and with "batch" a binary setup
        # allowing them (ibatch: general integers and continuous columns only).
        periods, products = a
        size = [rng.randint(10, 30) for _ in range(products)]
        batches = m.addVars(products, periods, ub=8, vtype=KVR.INTEGER)
        stock = m.addVars(products, periods)
        setup = m.addVars(products, periods, vtype=KVR.BINARY) if kind == "batch" else {}
        m.setObjective(kp.quicksum(rng.uniform(50, 200) * setup.get(k, 0)
                                   + rng.uniform(1, 3) * stock[k]
                                   + rng.uniform(5, 15) * batches[k] for k in stock))
        for p in range(products):
            for t in range(periods):
                before = stock[p, t - 1] if t else 0
                m.addConstr(before + size[p] * batches[p, t] == rng.randint(0, 40) + stock[p, t])
                if setup:
                    m.addConstr(batches[p, t] <= 8 * setup[p, t])
        m.addConstrs(kp.quicksum(size[p] * batches[p, t] for p in range(products))
                     <= 60 * products for t in range(periods))
    else:
        raise SystemExit(f"unknown model {name}")
    return m
"""

METHODS = BUILDERS + r"""
import json, os, re, sys, tempfile, threading, time
env = kp.Env(empty=True); env.setParam("OutputFlag", 0); env.start()
spec, runs, cap = sys.argv[1], int(sys.argv[2]), float(sys.argv[3])
name, _, presolve = spec.partition("/presolve=")
m = kp.read(name, env=env) if name.endswith(".mps") else build(name, env)
m.update()
m.Params.Threads = 1
if presolve:
    m.Params.Presolve = int(presolve)
# One untimed solve with the log on names the method the automatic choice takes.
with tempfile.TemporaryDirectory() as tmp:
    log = os.path.join(tmp, "auto.log")
    m.Params.LogFile, m.Params.OutputFlag, m.Params.LogToConsole = log, 1, 0
    m.optimize()
    m.Params.LogFile, m.Params.OutputFlag = "", 0
    chosen = re.search(r"Automatic method: (barrier|primal|dual)", open(log).read())
# The cap stops a solve from another thread: a time limit would change the engine's path.
model = m
times, cpus, objs, iters, capped = {}, {}, {}, {}, set()
for r in range(runs):
    # Each round starts with another method: the first solve in a process pays for warming up.
    for method in [(-1, 0, 1, 2)[(r + k) % 4] for k in range(4)]:
        if method in capped:
            continue
        # A fresh copy each time: a solve after reset() may keep engine state that changes the
        # path of the next one (the dual simplex method's iteration counts differ by half).
        m = model.copy()
        m.Params.Method = method
        stop = threading.Timer(cap, m.terminate)
        stop.start()
        t, c = time.perf_counter(), time.process_time()
        m.optimize()
        times.setdefault(method, []).append(time.perf_counter() - t)
        cpus.setdefault(method, []).append(time.process_time() - c)
        stop.cancel()
        if m.Status == KVR.INTERRUPTED:
            capped.add(method)
        objs[method] = m.ObjVal if m.SolCount and m.Status == KVR.OPTIMAL else None
        iters.setdefault(method, []).append(m.IterCount + m.BarIterCount)
        m.dispose()
m = model
print(json.dumps({"rows": m.NumConstrs, "cols": m.NumVars, "nnz": m.NumNZs,
                  "auto": chosen.group(1) if chosen else "?", "times": times,
                  "cpus": cpus, "objs": objs, "iters": iters, "capped": sorted(capped)}))
"""

METHOD_NAMES = {"-1": "auto", "0": "primal", "1": "dual", "2": "barrier"}
SINGLE = ("0", "1", "2")
# The automatic choice loses when it needs more than this over the best single method, by more
# than NOISE seconds (below that the clock's resolution and the load dominate).
GOAL, NOISE = 1.10, 0.01
FAMILIES = ["transp-50-100", "transp-100-200", "transp-30-1000", "flow-40", "flow-60",
            "flow-120", "pack-1000-8000-20", "pack-3000-6000-8", "pack-6000-3000-6", "heat-40",
            "heat-60", "heat-70"]


def engine_version(python):
    script = "import importlib.metadata as m; print(m.version('highsbox'))"
    out = subprocess.run([python, "-c", script], capture_output=True, text=True).stdout
    return out.strip() or "?"


def run_methods(args, chosen):
    models = [str(path) for path, kind in chosen if kind == "LP"]
    sizes = [n for n in args.lp_sizes.split(",") if n]
    models += [f"lp-{n}" for n in sizes] + [f"lp-{n}/presolve=0" for n in sizes]
    if args.families:
        models += FAMILIES
    print(f"kaviropy on HiGHS (highsbox {engine_version(args.python)}).")
    print("Each model is read or built once in a process of its own and fresh copies of it are")
    print("solved cold with each Method in turn, Threads 1, presolve as set (default, or the")
    print(f"Presolve given), {args.runs} rounds, each round starting with another method; medians")
    print("of the process CPU time (ms) are shown, and the ratio automatic / best of the single")
    print("methods 0 (primal simplex), 1 (dual simplex), 2 (barrier with crossover), by CPU and by")
    print("wall time.")
    print(f"A method still running after {args.cap:g} s (wall clock) is stopped there (shown as >) and not repeated.")
    print("'auto ran' is the method the automatic choice took (from its log).\n")
    print(f"{'model':22} {'rows':>7} {'cols':>7} {'nonzeros':>8} {'auto ran':>8} "
          + " ".join(f"{v:>8}" for v in METHOD_NAMES.values()) + f" {'cpu':>5} {'wall':>5}")
    missed = []
    worst = 0.0
    for model in models:
        out = subprocess.run([args.python, "-c", METHODS, model, str(args.runs), str(args.cap)],
                             capture_output=True, text=True, check=True, env=ENV).stdout
        r = json.loads(out.strip().splitlines()[-1])
        cpu = {k: statistics.median(v) for k, v in r["cpus"].items()}
        wall = {k: statistics.median(v) for k, v in r["times"].items()}
        capped = {str(k) for k in r["capped"]}
        finished = [k for k in SINGLE if k not in capped] or list(SINGLE)
        best = min(finished, key=lambda k: cpu[k])
        cpu_ratio = cpu["-1"] / max(cpu[best], 1e-9)
        wall_ratio = wall["-1"] / max(min(wall[k] for k in finished), 1e-9)
        lost = cpu_ratio > GOAL and cpu["-1"] - cpu[best] > NOISE
        worst = max(worst, cpu_ratio if cpu[best] >= 0.05 else 0.0)
        objs = [o for o in r["objs"].values() if o is not None]
        agree = objs and max(objs) - min(objs) <= 1e-6 * max(1.0, abs(objs[0]))
        label = pathlib.Path(model).stem if model.endswith(".mps") else model
        if lost:
            # The same method as the best one can only lose to the noise of the clock.
            why = ("the same method: the machine's noise" if r["auto"] == METHOD_NAMES[best]
                   else f"the rule chose {r['auto']}")
            missed.append(f"{label} (best {METHOD_NAMES[best]}, {why})")
        cells = " ".join((">" if k in capped else " ") + f"{1000 * cpu[k]:7.1f}"
                         for k in METHOD_NAMES)
        print(f"{label:22} {r['rows']:7} {r['cols']:7} {r['nnz']:8} {r['auto']:>8} {cells} "
              f"{cpu_ratio:5.2f} {wall_ratio:5.2f}" + (f" > {GOAL:.2f}" if lost else "")
              + ("" if agree else "  objectives differ"))
    print(f"\nlargest CPU ratio automatic / best single method where the best needs 50 ms or more: "
          f"{worst:.2f}")
    print("the automatic choice is within {:.0%} of the best single method on every model".format(
        GOAL - 1) if not missed else "over {:.2f} (by more than {:g} s): {}".format(
        GOAL, NOISE, "; ".join(missed)))


ENV = dict(os.environ, OPENBLAS_NUM_THREADS="1", OMP_NUM_THREADS="1")


# The side-by-side runs against highspy keep kaviropy on HiGHS.
ON_HIGHS = dict(ENV, KAVIRO_ENGINE_OPTIONS="engine=highs")


def measure(python, script, path):
    out = subprocess.run([python, "-c", script, str(path)], capture_output=True, text=True,
                         check=True, env=ON_HIGHS).stdout
    return json.loads(out.strip().splitlines()[-1])


ENGINE_MIPS = ["p0548.mps", "lseu.mps", "egout.mps", "flugpl.mps", "bell5.mps", "dcmulti.mps",
               "rgn.mps", "p01.mps", "small_mip.mps", "mip2171.mps", "tiny_mip.mps"]
# Generated MIP families of --engines --families (see BUILDERS): general-integer knapsacks
# (knap-ROWS-COLS) and covering (icover-ROWS-COLS), fixed-charge network flow
# (fcnf-NODES-DEGREE), set covering (cover-ROWS-COLS-K), packing (spack-ROWS-COLS-K) and
# partitioning (spart-ROWS-COLS-K),
# capacitated lot sizing with binary setups (lot-PERIODS-PRODUCTS) and in integer batches with
# and without binary setups (batch-PERIODS-PRODUCTS, ibatch-PERIODS-PRODUCTS).
ENGINE_FAMILIES = ["knap-3-20", "knap-5-30", "knap-5-40", "knap-20-10", "knap-40-8",
                   "knap-60-10", "knap-100-6",
                   "icover-30-40", "icover-40-50", "icover-25-60", "fcnf-20-3", "fcnf-25-3",
                   "fcnf-40-3", "cover-100-60-4", "cover-150-80-5", "cover-200-100-5",
                   "cover-300-150-5", "spack-200-100-5", "spack-250-120-5", "spart-20-100-3",
                   "spart-24-150-4", "spart-40-300-3", "lot-10-3",
                   "lot-20-6", "lot-30-8", "batch-10-3", "ibatch-10-3", "ibatch-12-4"]

# One model of --engines solved in a process of its own: a shared MIP (read and solve timed) or a
# generated family (solve timed; the build is the same for every engine). With a third argument
# the model is solved once more, untimed, with time limit 0 and the log on, to name the engine the
# automatic choice took and the model's counts.
ENGINE_RUN = BUILDERS + r"""
import json, os, re, sys, tempfile, time
env = kp.Env(empty=True); env.setParam("OutputFlag", 0); env.start()
name = sys.argv[1]
t, c = time.perf_counter(), time.process_time()
if name.endswith(".mps"):
    m = kp.read(name, env=env)
else:
    m = build(name, env)
    m.update()
    t, c = time.perf_counter(), time.process_time()
m.optimize()
t, c = time.perf_counter() - t, time.process_time() - c
out = {"time": t, "cpu": c, "status": m.Status, "obj": m.ObjVal if m.SolCount else None}
if len(sys.argv) > 2:
    probe = m.copy()
    with tempfile.TemporaryDirectory() as tmp:
        log = os.path.join(tmp, "probe.log")
        probe.Params.TimeLimit, probe.Params.LogFile = 0, log
        probe.Params.OutputFlag, probe.Params.LogToConsole = 1, 0
        probe.optimize()
        engine = re.search(r"^Engine (\w+): (.*)$", open(log).read(), re.M)
    out["engine"] = engine.group(1) if engine else "?"
    out["reason"] = engine.group(2) if engine else ""
    # Binary: an integer column within [0, 1], whatever its declared type.
    v = m.getVars()
    kinds = zip(m.getAttr("VType", v), m.getAttr("LB", v), m.getAttr("UB", v))
    binary = sum(t == "B" or (t == "I" and lb >= 0 and ub <= 1) for t, lb, ub in kinds)
    out["shape"] = [m.NumVars, m.NumConstrs, binary, m.NumIntVars - binary]
print(json.dumps(out))
"""

# Nonconvex models: max sum x_i x_{i+1} - ... over a ball cut by a hyperplane, seeded, with
# half of the variables integer for the mixed-integer ones.
NONCONVEX = """
import json, random, sys, time
import kaviropy as kp
from kaviropy import KVR
n, seed, mixed = (int(v) for v in sys.argv[1].split(":"))
rng = random.Random(seed)
env = kp.Env(empty=True); env.setParam("OutputFlag", 0); env.start()
t, c = time.perf_counter(), time.process_time()
m = kp.Model(env=env)
x = [m.addVar(lb=-3, ub=3, vtype=KVR.INTEGER if mixed and i % 2 else KVR.CONTINUOUS)
     for i in range(n)]
m.addConstr(kp.quicksum(v * v for v in x) <= n)
m.addConstr(kp.quicksum(rng.uniform(-1, 1) * v for v in x) <= 1)
m.setObjective(kp.quicksum(rng.uniform(-1, 1) * x[i] * x[(i + 1) % n] for i in range(n)))
m.Params.NonConvex = 2
try:
    m.optimize()
    status, obj = m.Status, (m.ObjVal if m.SolCount else None)
except kp.KaviroError as e:
    status, obj = "error %d" % e.errno, None
t, c = time.perf_counter() - t, time.process_time() - c
print(json.dumps({"time": t, "cpu": c, "status": status, "obj": obj}))
"""


ENGINES = ("highs", "scip", "auto")


def run_engines(args):
    if args.names:
        mips = [n if n.endswith(".mps") or "-" in n else n + ".mps" for n in args.names]
    else:
        mips = ENGINE_MIPS + (ENGINE_FAMILIES if args.families else [])
    rows = [(name, ENGINE_RUN, str(INSTANCES / name) if name.endswith(".mps") else name)
            for name in mips]
    if not args.names:
        rows += [(f"nonconvex n={n} seed={s}{' mixed' if mixed else ''}", NONCONVEX,
                  f"{n}:{s}:{mixed}") for n in (6, 10) for s in (1, 2) for mixed in (0, 1)]
    print(f"{args.runs} runs of each engine forced and of the automatic choice, taking turns, a fresh "
          "process each;\nmedian CPU and wall-clock seconds of read and solve (shared MIPs) or of "
          "the solve (generated\nmodels); the ratios are automatic / the better engine. "
          f"Load average at the start: {os.getloadavg()[0]:.2f}.")
    print(f"{'model':26s} {'cols':>5s} {'rows':>5s} {'bin':>4s} {'int':>4s} {'HiGHS cpu':>9s} "
          f"{'SCIP cpu':>9s} {'auto cpu':>9s} {'cpu':>5s} {'wall':>5s} {'auto ran':>8s}  notes")
    ratios = {"time": [], "cpu": []}
    missed = []
    for name, script, arg in rows:
        notes = []
        runs = {engine: [] for engine in ENGINES}
        # The engines take turns, each round starting with another one, so that a change in the
        # machine's load falls on all of them alike.
        for k in range(args.runs):
            for engine in ENGINES[k % 3:] + ENGINES[:k % 3]:
                env = dict(ENV, KAVIRO_ENGINE_OPTIONS=f"engine={engine}")
                probe = ["probe"] if engine == "auto" and k == 0 and script is ENGINE_RUN else []
                out = subprocess.run([args.python, "-c", script, arg, *probe], capture_output=True,
                                     text=True, env=env)
                ok = out.returncode == 0
                runs[engine].append(json.loads(out.stdout.strip().splitlines()[-1]) if ok else None)
        first_auto = runs["auto"][0] or {}
        med = {"time": {}, "cpu": {}}
        for engine in ENGINES:
            ok = [r for r in runs[engine] if r and r["obj"] is not None]
            if not ok:
                first = runs[engine][0]
                notes.append(f"{engine}: {first['status'] if first else 'failed'}")
            for key in med:
                if ok:
                    med[key][engine] = statistics.median(r[key] for r in ok)
        objs = [r["obj"] for e in ENGINES for r in runs[e] if r and r["obj"] is not None]
        if objs and max(objs) - min(objs) > 1e-4 * max(1.0, abs(objs[0])):
            notes.append("objectives differ")
        ratio = {}
        for key, t in med.items():
            best = min((t[e] for e in ("highs", "scip") if e in t), default=None)
            ratio[key] = t["auto"] / best if best and "auto" in t else None
            if ratio[key]:
                ratios[key].append(ratio[key])
        cpu = med["cpu"]
        cells = [f"{cpu[e]:9.3f}" if e in cpu else f"{'-':>9s}" for e in ENGINES]
        cells += [f"{ratio[k]:5.2f}" if ratio[k] else f"{'-':>5s}" for k in ("cpu", "time")]
        shape = first_auto.get("shape", ["", "", "", ""])
        label = pathlib.Path(name).stem if name.endswith(".mps") else name
        best = min(cpu.get("highs", math.inf), cpu.get("scip", math.inf))
        # Below 10 ms of difference the clock's noise and the load dominate.
        if ratio["cpu"] and ratio["cpu"] > GOAL and cpu["auto"] - best > NOISE:
            missed.append(f"{label} ({ratio['cpu']:.2f})")
        print(f"{label:26s} {shape[0]:>5} {shape[1]:>5} {shape[2]:>4} {shape[3]:>4} "
              f"{' '.join(cells)} {first_auto.get('engine', ''):>8s}  {'; '.join(notes)}")
    for key, label in (("cpu", "CPU time"), ("time", "wall clock")):
        if ratios[key]:
            print(f"automatic choice over the better engine by {label}: geometric mean "
                  f"{geomean(ratios[key]):.2f}, worst {max(ratios[key]):.2f}")
    print(f"over {GOAL:.2f} by CPU time (and by more than {NOISE:g} s): "
          + ("; ".join(missed) if missed else "none"))


# The library calls that read and solve, for callgrind's --toggle-collect.
KAVIRO_CALLS = ["KVRreadmodel", "KVRoptimize"]
HIGHSPY_CALLS = ["Highs::readModel(*", "Highs::run()"]


def instructions(python, script, calls, path):
    """Instructions executed inside the given calls while the script runs on path (callgrind),
    and the script's last output line."""
    with tempfile.TemporaryDirectory() as tmp:
        src = pathlib.Path(tmp) / "run.py"
        src.write_text(script)
        toggles = [f"--toggle-collect={c}" for c in calls]
        run = subprocess.run(["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null",
                              "--collect-atstart=no", *toggles, python, str(src), str(path)],
                             capture_output=True, text=True, check=True, env=ON_HIGHS)
    count = re.search(r"Collected : (\d+)", run.stderr)
    if not count:
        raise SystemExit(f"no instruction count from callgrind:\n{run.stderr[-2000:]}")
    return int(count.group(1)), json.loads(run.stdout.strip().splitlines()[-1])


def instances(names):
    kinds = {}
    for line in (INSTANCES / "README.md").read_text().splitlines():
        m = re.match(r"\|\s*(\S+\.mps)\s*\|\s*(LP|MIP)\s*\|\s*(\S+)\s*\|", line)
        if m and m.group(3) != "infeasible":
            kinds[m.group(1)] = m.group(2)
    chosen = names or sorted(kinds)
    return [(INSTANCES / n, kinds.get(n, "?")) for n in chosen]


def same(oa, ob):
    return oa is not None and ob is not None and abs(oa - ob) <= 1e-6 * max(1.0, abs(ob))


def geomean(values):
    return math.exp(statistics.fmean(math.log(v) for v in values)) if values else float("nan")


def run_clock(args, chosen):
    print(f"{'instance':16} {'kind':4} {'kaviropy s':>10} {'highspy s':>9} {'wall':>6} "
          f"{'cpu':>6}  same objective")
    walls, cpus, long_walls, long_cpus = [], [], [], []
    for path, kind in chosen:
        ours, theirs = [], []
        for _ in range(args.runs):
            ours.append(measure(args.python, KAVIRO, path))
            theirs.append(measure(args.peer_python, HIGHSPY, path))
        a = statistics.median(r["time"] for r in ours)
        b = statistics.median(r["time"] for r in theirs)
        wall = a / b
        cpu = statistics.median(r["cpu"] for r in ours) / statistics.median(r["cpu"] for r in theirs)
        walls.append(wall)
        cpus.append(cpu)
        if b > 1.0:
            long_walls.append(wall)
            long_cpus.append(cpu)
        oa, ob = ours[0]["obj"], theirs[0]["obj"]
        print(f"{path.name:16} {kind:4} {a:10.3f} {b:9.3f} {wall:6.3f} {cpu:6.3f}  "
              f"{'yes' if same(oa, ob) else 'NO'} ({oa} / {ob})")
    print(f"geometric mean of the ratios: wall {geomean(walls):.3f}, cpu {geomean(cpus):.3f}")
    if long_walls:
        print(f"largest ratio where highspy needs more than 1 s: wall {max(long_walls):.3f}, "
              f"cpu {max(long_cpus):.3f}")
    else:
        print("no instance takes highspy more than 1 s")


def run_callgrind(args, chosen):
    print(f"{'instance':16} {'kind':4} {'kaviropy':>15} {'highspy':>15} {'ratio':>6}  same objective")
    ratios = []
    for path, kind in chosen:
        a, ra = instructions(args.python, KAVIRO, KAVIRO_CALLS, path)
        b, rb = instructions(args.peer_python, HIGHSPY, HIGHSPY_CALLS, path)
        ratios.append(a / b)
        oa, ob = ra["obj"], rb["obj"]
        print(f"{path.name:16} {kind:4} {a:15,} {b:15,} {a / b:6.3f}  "
              f"{'yes' if same(oa, ob) else 'NO'} ({oa} / {ob})")
    print(f"geometric mean of the instruction ratios: {geomean(ratios):.3f}")


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--runs", type=int, default=3)
    ap.add_argument("--callgrind", action="store_true",
                    help="count instructions under valgrind instead of timing")
    ap.add_argument("--python", default=sys.executable, help="interpreter with kaviropy")
    ap.add_argument("--peer-python", default=sys.executable, help="interpreter with highspy")
    ap.add_argument("--engines", action="store_true",
                    help="HiGHS, SCIP and the automatic choice on MIPs and nonconvex models")
    ap.add_argument("--methods", action="store_true",
                    help="compare the automatic LP method with each method (kaviropy only)")
    ap.add_argument("--lp-sizes", default="100,300,500", help="lp-N sizes for --methods")
    ap.add_argument("--families", action="store_true",
                    help="--methods: also generated LPs of other shapes (transp, pack, heat); "
                         "--engines: also generated MIPs (knap, fcnf, cover, lot)")
    ap.add_argument("--cap", type=float, default=20.0,
                    help="--methods: seconds after which a method is stopped")
    ap.add_argument("names", nargs="*")
    args = ap.parse_args()
    if args.engines:
        run_engines(args)
        return
    chosen = instances(args.names)
    if args.methods:
        run_methods(args, chosen)
    elif args.callgrind:
        run_callgrind(args, chosen)
    else:
        run_clock(args, chosen)


if __name__ == "__main__":
    main()
