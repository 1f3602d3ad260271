"""Model build times of kaviropy side by side with other Python modelling packages.

Models (see benchmarks/README.md): nqueens-N (binary MIP), lqcp-N (convex QP), lp-N (sparse LP),
fac-F (mixed-integer model with second-order cone constraints).
Each measurement runs in a fresh Python process that imports the package, builds the model and
hands it to the engine; the time runs from just before the model is created to just after the
last step. Five runs per package and size, alternating packages, medians reported, and the ratio
of each package's median to kaviropy's.

Phases:
  solve  the full protocol: build, output off, TimeLimit 0, Presolve 0, optimize (lp-N: solved to
         optimality, build and solve reported separately).
  build  build only. kaviropy builds and calls update(), so the whole model is in the solver
         library; pyoptinterface and python-mip load straight into their engines while building;
         pyomo and pulp only make Python objects. Used while Model.optimize is not available.

The peers come from benchmarks/requirements.txt in their own virtual environment
(benchmarks/setup_peers.sh); kaviropy runs in the interpreter that runs this script.

  python benchmarks/bench_build.py [--models nqueens,lqcp,lp] [--sizes small|all|N,...]
         [--runs 5] [--phase auto|build|solve] [--peer-python PATH] [--packages ...]
"""

import argparse
import json
import math
import os
import resource
import signal
import statistics
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
DEFAULT_PEER_PYTHON = os.path.join(os.path.dirname(os.path.dirname(HERE)), "venvs", "bench-peers",
                                   "bin", "python")

SIZES = {"nqueens": [400, 800, 1200], "lqcp": [200, 500, 1000], "lp": [100, 300, 500],
         "fac": [25, 50]}
PACKAGES = ["kaviropy", "pyoptinterface", "mip", "pyomo", "pulp"]
# Packages that cannot express a model: quadratic objectives for python-mip and pulp.
UNSUPPORTED = {("mip", "lqcp"): "no quadratic objective", ("pulp", "lqcp"): "no quadratic objective",
               ("mip", "fac"): "no quadratic constraints", ("pulp", "fac"): "no quadratic constraints"}
# pyomo builds lqcp, but its appsi HiGHS interface refuses the quadratic objective.
UNSUPPORTED_SOLVE = {("pyomo", "lqcp"): "appsi HiGHS takes no quadratic objective",
                     ("pyomo", "fac"): "appsi HiGHS takes no quadratic constraints",
                     ("pyoptinterface", "fac"): "its HiGHS model takes no quadratic constraints"}
# CBC reads a time limit of 0 as "no limit": the CBC-based packages get the smallest limit it
# honours instead.
CBC_TIME_LIMIT = 0.01


# ---------------------------------------------------------------- model data shared by all

def lqcp_data(n):
    m = n
    dx = 1.0 / n
    T = 1.58
    dt = T / n
    h2 = dx * dx
    a = 0.001
    yt = [0.5 * (1 - (j * dx) ** 2) for j in range(n + 1)]
    return m, dx, dt, h2, a, yt


# ---------------------------------------------------------------- kaviropy

def kaviropy_build(model_name, n, phase):
    import kaviropy as kp
    from kaviropy import KVR

    env = kp.Env(empty=True)
    env.setParam("OutputFlag", 0)
    env.start()
    t0 = time.perf_counter()
    m = kp.Model(model_name, env=env)
    if model_name == "nqueens":
        x = m.addVars(n, n, vtype=KVR.BINARY, name="x")
        m.addConstrs((x.sum(i, "*") == 1 for i in range(n)), name="row")
        m.addConstrs((x.sum("*", j) == 1 for j in range(n)), name="col")
        m.addConstrs((kp.quicksum(x[i, i - d] for i in range(max(0, d), min(n, n + d))) <= 1
                      for d in range(-n + 1, n)), name="diag")
        m.addConstrs((kp.quicksum(x[i, s - i] for i in range(max(0, s - n + 1), min(n, s + 1))) <= 1
                      for s in range(2 * n - 1)), name="anti")
    elif model_name == "lqcp":
        mm, dx, dt, h2, a, yt = lqcp_data(n)
        y = m.addVars(mm + 1, n + 1, lb=-KVR.INFINITY, name="y")
        u = m.addVars(range(1, mm + 1), lb=-1, ub=1, name="u")
        obj = 0.25 * dx * ((y[mm, 0] - yt[0]) * (y[mm, 0] - yt[0])
                           + 2 * kp.quicksum((y[mm, j] - yt[j]) * (y[mm, j] - yt[j]) for j in range(1, n))
                           + (y[mm, n] - yt[n]) * (y[mm, n] - yt[n]))
        obj += 0.25 * a * dt * (2 * kp.quicksum(u[i] * u[i] for i in range(1, mm)) + u[mm] * u[mm])
        m.setObjective(obj, KVR.MINIMIZE)
        m.addConstrs(((y[i + 1, j] - y[i, j]) / dt
                      == 0.5 * (y[i, j - 1] - 2 * y[i, j] + y[i, j + 1] + y[i + 1, j - 1]
                                - 2 * y[i + 1, j] + y[i + 1, j + 1]) / h2
                      for i in range(mm) for j in range(1, n)), name="pde")
        m.addConstrs((y[0, j] == 0 for j in range(n + 1)), name="init")
        m.addConstrs((y[i, 2] - 4 * y[i, 1] + 3 * y[i, 0] == 0 for i in range(1, mm + 1)), name="left")
        m.addConstrs(((y[i, n - 2] - 4 * y[i, n - 1] + 3 * y[i, n]) / (2 * dx) == u[i] - y[i, n]
                      for i in range(1, mm + 1)), name="right")
    elif model_name == "fac":
        F = G = n
        big_m = 2 * math.sqrt(2)
        cells = [(i, j, f) for i in range(G + 1) for j in range(G + 1) for f in range(1, F + 1)]
        d = m.addVar(name="d")
        y = m.addVars(range(1, F + 1), (1, 2), ub=1, name="y")
        z = m.addVars(cells, vtype=KVR.BINARY, name="z")
        s = m.addVars(cells, name="s")
        r = m.addVars(cells, (1, 2), lb=-KVR.INFINITY, name="r")
        m.setObjective(d, KVR.MINIMIZE)
        m.addConstrs((z.sum(i, j, "*") == 1 for i in range(G + 1) for j in range(G + 1)), name="assign")
        m.addConstrs((s[c] == d + big_m * (1 - z[c]) for c in cells), name="dist")
        m.addConstrs((r[i, j, f, 1] == i / G - y[f, 1] for i, j, f in cells), name="rx")
        m.addConstrs((r[i, j, f, 2] == j / G - y[f, 2] for i, j, f in cells), name="ry")
        m.addConstrs((r[i, j, f, 1] * r[i, j, f, 1] + r[i, j, f, 2] * r[i, j, f, 2] <= s[i, j, f] * s[i, j, f]
                      for i, j, f in cells), name="cone")
    else:
        x = m.addVars(n, n, lb=-KVR.INFINITY, name="x")
        y = m.addVars(n, n, lb=-KVR.INFINITY, name="y")
        m.setObjective(2 * x.sum() + y.sum(), KVR.MINIMIZE)
        m.addConstrs((x[i, j] - y[i, j] >= i for i in range(n) for j in range(n)), name="a")
        m.addConstrs((x[i, j] + y[i, j] >= 0 for i in range(n) for j in range(n)), name="b")
    if phase == "build":
        m.update()
        return {"time": time.perf_counter() - t0}
    built = time.perf_counter()
    if model_name != "lp":
        m.Params.TimeLimit = 0
    m.Params.Presolve = 0
    m.optimize()
    done = time.perf_counter()
    return {"time": done - t0, "build": built - t0, "solve": done - built}


# ---------------------------------------------------------------- pyoptinterface (HiGHS)

def pyoptinterface_build(model_name, n, phase):
    import pyoptinterface as poi
    from pyoptinterface import highs

    t0 = time.perf_counter()
    m = highs.Model()
    m.set_model_attribute(poi.ModelAttribute.Silent, True)
    if model_name == "nqueens":
        x = {(i, j): m.add_variable(domain=poi.VariableDomain.Binary, name=f"x[{i},{j}]")
             for i in range(n) for j in range(n)}
        for i in range(n):
            m.add_linear_constraint(poi.quicksum(x[i, j] for j in range(n)), poi.Eq, 1.0)
        for j in range(n):
            m.add_linear_constraint(poi.quicksum(x[i, j] for i in range(n)), poi.Eq, 1.0)
        for d in range(-n + 1, n):
            m.add_linear_constraint(poi.quicksum(x[i, i - d] for i in range(max(0, d), min(n, n + d))),
                                    poi.Leq, 1.0)
        for s in range(2 * n - 1):
            m.add_linear_constraint(
                poi.quicksum(x[i, s - i] for i in range(max(0, s - n + 1), min(n, s + 1))), poi.Leq, 1.0)
    elif model_name == "lqcp":
        mm, dx, dt, h2, a, yt = lqcp_data(n)
        y = {(i, j): m.add_variable(name=f"y[{i},{j}]") for i in range(mm + 1) for j in range(n + 1)}
        u = {i: m.add_variable(lb=-1, ub=1, name=f"u[{i}]") for i in range(1, mm + 1)}
        obj = poi.ExprBuilder()
        obj += 0.25 * dx * (y[mm, 0] - yt[0]) * (y[mm, 0] - yt[0])
        for j in range(1, n):
            obj += 0.5 * dx * (y[mm, j] - yt[j]) * (y[mm, j] - yt[j])
        obj += 0.25 * dx * (y[mm, n] - yt[n]) * (y[mm, n] - yt[n])
        for i in range(1, mm):
            obj += 0.5 * a * dt * u[i] * u[i]
        obj += 0.25 * a * dt * u[mm] * u[mm]
        m.set_objective(obj, poi.ObjectiveSense.Minimize)
        # HiGHS takes each variable once per row, so the coefficients are merged by hand.
        c_next, c_here, c_side = 1 / dt + 1 / h2, -1 / dt + 1 / h2, -0.5 / h2
        for i in range(mm):
            for j in range(1, n):
                m.add_linear_constraint(
                    c_next * y[i + 1, j] + c_here * y[i, j] + c_side * y[i, j - 1] + c_side * y[i, j + 1]
                    + c_side * y[i + 1, j - 1] + c_side * y[i + 1, j + 1], poi.Eq, 0.0)
        for j in range(n + 1):
            m.add_linear_constraint(1.0 * y[0, j], poi.Eq, 0.0)
        for i in range(1, mm + 1):
            m.add_linear_constraint(y[i, 2] - 4 * y[i, 1] + 3 * y[i, 0], poi.Eq, 0.0)
        for i in range(1, mm + 1):
            m.add_linear_constraint(
                (1 / (2 * dx)) * y[i, n - 2] - (4 / (2 * dx)) * y[i, n - 1]
                + (3 / (2 * dx) + 1) * y[i, n] - u[i], poi.Eq, 0.0)
    else:
        x = {(i, j): m.add_variable(name=f"x[{i},{j}]") for i in range(n) for j in range(n)}
        y = {(i, j): m.add_variable(name=f"y[{i},{j}]") for i in range(n) for j in range(n)}
        m.set_objective(2 * poi.quicksum(x.values()) + poi.quicksum(y.values()), poi.ObjectiveSense.Minimize)
        for i in range(n):
            for j in range(n):
                m.add_linear_constraint(x[i, j] - y[i, j], poi.Geq, float(i))
                m.add_linear_constraint(x[i, j] + y[i, j], poi.Geq, 0.0)
    if phase == "build":
        return {"time": time.perf_counter() - t0}
    built = time.perf_counter()
    if model_name != "lp":
        m.set_model_attribute(poi.ModelAttribute.TimeLimitSec, 0.0)
    m.set_raw_parameter("presolve", "off")
    m.optimize()
    done = time.perf_counter()
    return {"time": done - t0, "build": built - t0, "solve": done - built}


# ---------------------------------------------------------------- python-mip (CBC)

def mip_build(model_name, n, phase):
    import mip

    t0 = time.perf_counter()
    m = mip.Model(solver_name=mip.CBC)
    m.verbose = 0
    if model_name == "nqueens":
        x = [[m.add_var(name=f"x[{i},{j}]", var_type=mip.BINARY) for j in range(n)] for i in range(n)]
        for i in range(n):
            m += mip.xsum(x[i][j] for j in range(n)) == 1
        for j in range(n):
            m += mip.xsum(x[i][j] for i in range(n)) == 1
        for d in range(-n + 1, n):
            m += mip.xsum(x[i][i - d] for i in range(max(0, d), min(n, n + d))) <= 1
        for s in range(2 * n - 1):
            m += mip.xsum(x[i][s - i] for i in range(max(0, s - n + 1), min(n, s + 1))) <= 1
    else:
        x = [[m.add_var(name=f"x[{i},{j}]", lb=-mip.INF) for j in range(n)] for i in range(n)]
        y = [[m.add_var(name=f"y[{i},{j}]", lb=-mip.INF) for j in range(n)] for i in range(n)]
        m.objective = mip.minimize(2 * mip.xsum(v for row in x for v in row) + mip.xsum(v for row in y for v in row))
        for i in range(n):
            for j in range(n):
                m += x[i][j] - y[i][j] >= i
                m += x[i][j] + y[i][j] >= 0
    if phase == "build":
        return {"time": time.perf_counter() - t0}
    built = time.perf_counter()
    m.preprocess = 0
    if model_name == "lp":
        m.optimize()
    else:
        m.optimize(max_seconds=CBC_TIME_LIMIT)
    done = time.perf_counter()
    return {"time": done - t0, "build": built - t0, "solve": done - built}


# ---------------------------------------------------------------- pyomo (appsi HiGHS)

def pyomo_build(model_name, n, phase):
    import pyomo.environ as pyo
    from pyomo.contrib import appsi

    t0 = time.perf_counter()
    m = pyo.ConcreteModel()
    if model_name == "nqueens":
        m.x = pyo.Var(range(n), range(n), within=pyo.Binary)
        m.row = pyo.Constraint(range(n), rule=lambda b, i: sum(b.x[i, j] for j in range(n)) == 1)
        m.col = pyo.Constraint(range(n), rule=lambda b, j: sum(b.x[i, j] for i in range(n)) == 1)
        m.diag = pyo.Constraint(range(-n + 1, n), rule=lambda b, d: sum(
            b.x[i, i - d] for i in range(max(0, d), min(n, n + d))) <= 1)
        m.anti = pyo.Constraint(range(2 * n - 1), rule=lambda b, s: sum(
            b.x[i, s - i] for i in range(max(0, s - n + 1), min(n, s + 1))) <= 1)
        m.obj = pyo.Objective(expr=0)
    elif model_name == "lqcp":
        mm, dx, dt, h2, a, yt = lqcp_data(n)
        m.y = pyo.Var(range(mm + 1), range(n + 1))
        m.u = pyo.Var(range(1, mm + 1), bounds=(-1, 1))
        y, u = m.y, m.u
        sq = lambda e: e * e  # noqa: E731
        m.obj = pyo.Objective(expr=0.25 * dx * (sq(y[mm, 0] - yt[0])
                                                + 2 * sum(sq(y[mm, j] - yt[j]) for j in range(1, n))
                                                + sq(y[mm, n] - yt[n]))
                              + 0.25 * a * dt * (2 * sum(sq(u[i]) for i in range(1, mm)) + sq(u[mm])))
        m.pde = pyo.Constraint(range(mm), range(1, n), rule=lambda b, i, j: (y[i + 1, j] - y[i, j]) / dt == 0.5 * (
            y[i, j - 1] - 2 * y[i, j] + y[i, j + 1] + y[i + 1, j - 1] - 2 * y[i + 1, j] + y[i + 1, j + 1]) / h2)
        m.init = pyo.Constraint(range(n + 1), rule=lambda b, j: y[0, j] == 0)
        m.left = pyo.Constraint(range(1, mm + 1), rule=lambda b, i: y[i, 2] - 4 * y[i, 1] + 3 * y[i, 0] == 0)
        m.right = pyo.Constraint(range(1, mm + 1), rule=lambda b, i: (
            y[i, n - 2] - 4 * y[i, n - 1] + 3 * y[i, n]) / (2 * dx) == u[i] - y[i, n])
    else:
        m.x = pyo.Var(range(n), range(n))
        m.y = pyo.Var(range(n), range(n))
        m.obj = pyo.Objective(expr=2 * sum(m.x.values()) + sum(m.y.values()))
        m.a = pyo.Constraint(range(n), range(n), rule=lambda b, i, j: b.x[i, j] - b.y[i, j] >= i)
        m.b = pyo.Constraint(range(n), range(n), rule=lambda b, i, j: b.x[i, j] + b.y[i, j] >= 0)
    if phase == "build":
        return {"time": time.perf_counter() - t0}
    built = time.perf_counter()
    opt = appsi.solvers.Highs()
    opt.config.stream_solver = False
    opt.config.load_solution = False
    if model_name != "lp":
        opt.config.time_limit = 0
    opt.highs_options = {"presolve": "off"}
    opt.solve(m)
    done = time.perf_counter()
    return {"time": done - t0, "build": built - t0, "solve": done - built}


# ---------------------------------------------------------------- pulp (LP file and CBC)

def pulp_build(model_name, n, phase):
    import pulp

    t0 = time.perf_counter()
    prob = pulp.LpProblem(model_name, pulp.LpMinimize)
    if model_name == "nqueens":
        x = pulp.LpVariable.dicts("x", (range(n), range(n)), cat="Binary")
        for i in range(n):
            prob += pulp.lpSum(x[i][j] for j in range(n)) == 1
        for j in range(n):
            prob += pulp.lpSum(x[i][j] for i in range(n)) == 1
        for d in range(-n + 1, n):
            prob += pulp.lpSum(x[i][i - d] for i in range(max(0, d), min(n, n + d))) <= 1
        for s in range(2 * n - 1):
            prob += pulp.lpSum(x[i][s - i] for i in range(max(0, s - n + 1), min(n, s + 1))) <= 1
    else:
        x = pulp.LpVariable.dicts("x", (range(n), range(n)))
        y = pulp.LpVariable.dicts("y", (range(n), range(n)))
        prob += 2 * pulp.lpSum(x[i][j] for i in range(n) for j in range(n)) + pulp.lpSum(
            y[i][j] for i in range(n) for j in range(n))
        for i in range(n):
            for j in range(n):
                prob += x[i][j] - y[i][j] >= i
                prob += x[i][j] + y[i][j] >= 0
    if phase == "build":
        return {"time": time.perf_counter() - t0}
    built = time.perf_counter()
    options = ["presolve off"]
    if model_name == "lp":
        prob.solve(pulp.PULP_CBC_CMD(msg=0, options=options))
    else:
        prob.solve(pulp.PULP_CBC_CMD(msg=0, timeLimit=CBC_TIME_LIMIT, options=options))
    done = time.perf_counter()
    return {"time": done - t0, "build": built - t0, "solve": done - built}


BUILDERS = {
    "kaviropy": kaviropy_build,
    "pyoptinterface": pyoptinterface_build,
    "mip": mip_build,
    "pyomo": pyomo_build,
    "pulp": pulp_build,
}


# ---------------------------------------------------------------- driver

def kaviropy_can_optimize():
    code = "import kaviropy, sys; sys.exit(0 if hasattr(kaviropy.Model, 'optimize') else 1)"
    return subprocess.run([sys.executable, "-c", code]).returncode == 0


def measure(python, package, model_name, n, phase, timeout):
    cmd = [python, os.path.abspath(__file__), "--worker", package, model_name, str(n), phase]
    # Its own process group, so that a timeout also stops the solver processes a peer package
    # starts (killing only the worker would leave them running).
    proc = subprocess.Popen(cmd, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                            start_new_session=True)
    try:
        stdout, stderr = proc.communicate(timeout=timeout)
    except subprocess.TimeoutExpired:
        os.killpg(proc.pid, signal.SIGKILL)
        proc.communicate()
        return None, "timeout"
    out = subprocess.CompletedProcess(cmd, proc.returncode, stdout, stderr)
    if out.returncode != 0:
        lines = (out.stderr or out.stdout).strip().splitlines()
        return None, lines[-1] if lines else "failed"
    return json.loads(out.stdout.strip().splitlines()[-1]), None


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--worker", nargs=4, metavar=("PACKAGE", "MODEL", "N", "PHASE"), help=argparse.SUPPRESS)
    parser.add_argument("--models", default="nqueens,lqcp,lp,fac")
    parser.add_argument("--sizes", default="all", help="'all', 'small' (the smallest size of each model), or N,N,...")
    parser.add_argument("--runs", type=int, default=5)
    parser.add_argument("--phase", choices=["auto", "build", "solve"], default="auto")
    parser.add_argument("--packages", default=",".join(PACKAGES))
    parser.add_argument("--peer-python", default=DEFAULT_PEER_PYTHON)
    parser.add_argument("--timeout", type=float, default=600.0, help="seconds per measurement")
    args = parser.parse_args()

    if args.worker:
        package, model_name, n, phase = args.worker
        result = BUILDERS[package](model_name, int(n), phase)
        # Peak resident memory of this process plus that of the largest solver process it
        # started (pulp runs CBC as a child), in MB.
        peak_kb = (resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
                   + resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss)
        result["peak_mb"] = peak_kb / 1024.0
        print(json.dumps(result))
        return

    phase = args.phase
    if phase == "auto":
        phase = "solve" if kaviropy_can_optimize() else "build"
    packages = [p for p in args.packages.split(",") if p]
    if not os.path.exists(args.peer_python):
        print(f"peer environment not found ({args.peer_python}); run benchmarks/setup_peers.sh", file=sys.stderr)
        packages = ["kaviropy"]
    print(f"phase: {phase}" + ("  (Model.optimize not available: kaviropy times build + update(); "
                               "pyoptinterface and mip load their engines while building; pyomo and "
                               "pulp make Python objects only)" if phase == "build" else ""))
    print(f"runs: {args.runs} per package and size, medians in seconds, ratio = median / kaviropy median; "
          "peak MB: median peak resident memory of the measuring process and its solver process")
    if phase == "solve":
        print(f"time limit 0 (CBC-based mip and pulp: {CBC_TIME_LIMIT} s, as CBC reads 0 as no limit); "
              "lp-N solved to optimality")
    rows = []
    for model_name in args.models.split(","):
        if args.sizes == "all":
            sizes = SIZES[model_name]
        elif args.sizes == "small":
            sizes = SIZES[model_name][:1]
        else:
            sizes = [int(s) for s in args.sizes.split(",")]
        for n in sizes:
            times = {p: [] for p in packages}
            parts = {p: {"build": [], "solve": []} for p in packages}
            peaks = {p: [] for p in packages}
            errors = {}
            unsupported = {**UNSUPPORTED, **(UNSUPPORTED_SOLVE if phase == "solve" else {})}
            for _ in range(args.runs):
                for p in packages:  # alternate the packages within each round
                    if (p, model_name) in unsupported or p in errors:
                        continue
                    python = sys.executable if p == "kaviropy" else args.peer_python
                    result, error = measure(python, p, model_name, n, phase, args.timeout)
                    if error:
                        errors[p] = error
                    else:
                        times[p].append(result["time"])
                        peaks[p].append(result["peak_mb"])
                        for part in ("build", "solve"):
                            if part in result:
                                parts[p][part].append(result[part])
            base = statistics.median(times["kaviropy"]) if times.get("kaviropy") else None
            for p in packages:
                if (p, model_name) in unsupported:
                    rows.append((f"{model_name}-{n}", p, "n/a", "", "", unsupported[p, model_name]))
                elif p in errors:
                    rows.append((f"{model_name}-{n}", p, "error", "", "", errors[p][:60]))
                else:
                    med = statistics.median(times[p])
                    ratio = f"{med / base:.2f}" if base else ""
                    note = ""
                    if model_name == "lp" and parts[p]["solve"]:
                        note = "build %.3f + solve %.3f" % (statistics.median(parts[p]["build"]),
                                                            statistics.median(parts[p]["solve"]))
                    peak = f"{statistics.median(peaks[p]):.0f}"
                    rows.append((f"{model_name}-{n}", p, f"{med:.3f}", ratio, peak, note))
            for row in rows[-len(packages):]:
                print("  " + "  ".join(row), flush=True)
    print(f"{'model':<14} {'package':<16} {'median s':>10} {'ratio':>7} {'peak MB':>8}  note")
    for model_label, p, med, ratio, peak, note in rows:
        print(f"{model_label:<14} {p:<16} {med:>10} {ratio:>7} {peak:>8}  {note}")


if __name__ == "__main__":
    main()
