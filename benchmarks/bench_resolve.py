"""Change-and-resolve loops: kaviropy against pyoptinterface and highspy on the same engine.

Iterative methods change a solved model a little and solve it again, many times. Each loop builds
one model, solves it, then runs ROUNDS rounds of one change and a re-solve:

  addcol   add a column with coefficients in existing rows (column generation)
  addrow   add a row that cuts off the current solution (cutting planes)
  ub       halve the upper bound of a variable (branching)
  obj      raise an objective coefficient by 10%
  mip      a 0/1 model: change an objective coefficient and re-solve the MIP

The LP has 1,500 rows and 1,500 columns (8 random coefficients a row, maximize, 0 <= x <= 10); the
MIP is a multi-constraint knapsack of 40 binaries and 8 rows. Every package runs the dual simplex
method (kaviropy Method 1; the peers get the engine options it maps to, ENGINE_OPTIONS, with the
tolerances of kaviropy's defaults) with output off and the engine's other defaults; the data come from the same seeded generator in every process. Each
loop of each package runs in a fresh process; the time covers the rounds only (not the first
build and solve), and the process's peak resident memory is reported beside it. Each
measurement is repeated (--repeat, in turns so that a change of the machine's load meets every
package) and the median is shown. The table gives the times, the ratio kaviropy/peer, and the
final objectives, which must agree.

pyoptinterface loads the HiGHS library of the highsbox package, as kaviropy does by default;
highspy carries its own build of the same HiGHS version, whose simplex runs a few per cent fewer
instructions. So that each ratio compares one engine binary with itself, kaviropy runs twice: on
highsbox's library for the pyoptinterface ratio, and on highspy's library (KAVIRO_HIGHS_LIBRARY)
for the highspy ratio. --no-same-build compares both peers with the default run instead.

    python benchmarks/bench_resolve.py [--rounds 60] [--repeat 3] [--loops addcol,addrow,ub,obj,mip]
                                       [--peer-python PATH] [--kaviropy-python PATH]
                                       [--no-same-build]
"""

import argparse
import json
import os
import random
import resource
import statistics
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
DEFAULT_PEER_PYTHON = os.path.join(os.path.dirname(os.path.dirname(HERE)), "venvs", "bench-peers",
                                   "bin", "python")
LOOPS = ["addcol", "addrow", "ub", "obj", "mip"]
# The engine options kaviropy's default parameters map to, given to the peers as well.
ENGINE_OPTIONS = {"solver": "simplex", "simplex_strategy": 1, "primal_feasibility_tolerance": 1e-6,
                  "dual_feasibility_tolerance": 1e-6, "mip_feasibility_tolerance": 1e-6,
                  "mip_abs_gap": 1e-10}
PACKAGES = ["kaviropy", "pyoptinterface", "highspy"]
# kaviropy run on highspy's own HiGHS library, the like-for-like partner of the highspy column.
SAME_BUILD = "kaviropy-on-highspy-build"


# ---------------------------------------------------------------- shared data

def lp_data(n=1500, per_row=8, seed=7):
    rnd = random.Random(seed)
    rows = [([(j, rnd.uniform(1, 5)) for j in sorted(rnd.sample(range(n), per_row))],
             rnd.uniform(10, 50)) for _ in range(n)]
    obj = [rnd.uniform(1, 3) for _ in range(n)]
    return n, rows, obj, 10.0


def mip_data(n=40, m=8, seed=11):
    rnd = random.Random(seed)
    rows = [([(j, rnd.randint(1, 30)) for j in range(n)], rnd.randint(150, 250)) for _ in range(m)]
    obj = [rnd.randint(5, 40) for _ in range(n)]
    return n, rows, obj, 1.0


def changes(loop, rounds, n, nrows, seed=5):
    """The change of each round, as plain data: the same for every package."""
    rnd = random.Random(seed)
    out = []
    for r in range(rounds):
        if loop == "addcol":
            out.append(([(i, rnd.uniform(0.5, 3)) for i in sorted(rnd.sample(range(nrows), 6))],
                        rnd.uniform(2, 4)))
        elif loop == "addrow":
            out.append(sorted(rnd.sample(range(n), 10)))
        elif loop in ("ub", "obj", "mip"):
            out.append(rnd.randrange(n))
    return out


def clocks():
    """Wall-clock and CPU time of the process now."""
    return time.perf_counter(), time.process_time()


def since(start):
    """Wall-clock and CPU seconds since clocks() gave start."""
    wall, cpu = clocks()
    return wall - start[0], cpu - start[1]


def cut_rhs(cols, x):
    """A row sum x[cols] <= 0.9 * its value at x (cuts x off when positive)."""
    return 0.9 * sum(x[j] for j in cols)


# ---------------------------------------------------------------- kaviropy

def run_kaviropy(loop, rounds):
    import kaviropy as kp
    from kaviropy import KVR

    n, rows, obj, ub = mip_data() if loop == "mip" else lp_data()
    env = kp.Env(empty=True)
    env.setParam("OutputFlag", 0)
    env.start()
    m = kp.Model(env=env)
    m.Params.Method = 1
    vt = KVR.BINARY if loop == "mip" else KVR.CONTINUOUS
    x = m.addVars(n, ub=ub, obj=obj, vtype=vt).values()
    cons = [m.addConstr(kp.quicksum(v * x[j] for j, v in terms) <= rhs) for terms, rhs in rows]
    m.ModelSense = KVR.MAXIMIZE
    m.optimize()
    todo = changes(loop, rounds, n, len(rows))
    t0 = clocks()
    for ch in todo:
        if loop == "addcol":
            coeffs, cost = ch
            x.append(m.addVar(ub=ub, obj=cost, column=kp.Column([v for _, v in coeffs],
                                                                 [cons[i] for i, _ in coeffs])))
        elif loop == "addrow":
            xs = m.getAttr("X", [x[j] for j in ch])
            m.addConstr(kp.quicksum(x[j] for j in ch) <= 0.9 * sum(xs))
        elif loop == "ub":
            x[ch].UB = x[ch].UB * 0.5
        else:
            x[ch].Obj = x[ch].Obj * 1.1
        m.optimize()
    return since(t0), m.ObjVal


# ---------------------------------------------------------------- pyoptinterface

def run_pyoptinterface(loop, rounds):
    import pyoptinterface as poi
    from pyoptinterface import highs

    def saf(coefficients, variables):
        return poi.ScalarAffineFunction(coefficients, [v.index for v in variables])

    n, rows, obj, ub = mip_data() if loop == "mip" else lp_data()
    m = highs.Model()
    m.set_model_attribute(poi.ModelAttribute.Silent, True)
    for name, v in ENGINE_OPTIONS.items():
        setter = {str: m.set_raw_option_string, int: m.set_raw_option_int,
                  float: m.set_raw_option_double}[type(v)]
        setter(name, v)
    dom = poi.VariableDomain.Binary if loop == "mip" else poi.VariableDomain.Continuous
    x = [m.add_variable(lb=0, ub=ub, domain=dom) for _ in range(n)]
    costs = list(obj)
    cons = [m.add_linear_constraint(saf([v for _, v in terms], [x[j] for j, _ in terms]), poi.Leq,
                                    rhs) for terms, rhs in rows]
    m.set_objective(saf(costs, x), poi.ObjectiveSense.Maximize)
    m.optimize()
    todo = changes(loop, rounds, n, len(rows))
    value = poi.VariableAttribute.Value
    t0 = clocks()
    for ch in todo:
        if loop == "addcol":
            coeffs, cost = ch
            v = m.add_variable(lb=0, ub=ub)
            x.append(v)
            for i, a in coeffs:
                m.set_normalized_coefficient(cons[i], v, a)
            m.set_objective_coefficient(v, cost)
        elif loop == "addrow":
            xs = [m.get_variable_attribute(x[j], value) for j in ch]
            m.add_linear_constraint(saf([1.0] * len(ch), [x[j] for j in ch]), poi.Leq,
                                    0.9 * sum(xs))
        elif loop == "ub":
            bound = m.get_variable_attribute(x[ch], poi.VariableAttribute.UpperBound)
            m.set_variable_attribute(x[ch], poi.VariableAttribute.UpperBound, bound * 0.5)
        else:
            costs[ch] *= 1.1
            m.set_objective_coefficient(x[ch], costs[ch])
        m.optimize()
    return since(t0), m.get_model_attribute(poi.ModelAttribute.ObjectiveValue)


# ---------------------------------------------------------------- highspy

def run_highspy(loop, rounds):
    import highspy
    import numpy as np

    n, rows, obj, ub = mip_data() if loop == "mip" else lp_data()
    h = highspy.Highs()
    h.setOptionValue("output_flag", False)
    for name, v in ENGINE_OPTIONS.items():
        h.setOptionValue(name, v)
    inf = highspy.kHighsInf
    h.addCols(n, np.array(obj), np.zeros(n), np.full(n, ub), 0, np.array([], dtype=np.int32),
              np.array([], dtype=np.int32), np.array([]))
    if loop == "mip":
        h.changeColsIntegrality(n, np.arange(n, dtype=np.int32),
                                np.full(n, highspy.HighsVarType.kInteger))
    starts, idx, val = [], [], []
    for terms, _ in rows:
        starts.append(len(idx))
        idx += [j for j, _ in terms]
        val += [v for _, v in terms]
    h.addRows(len(rows), np.full(len(rows), -inf), np.array([r for _, r in rows]), len(idx),
              np.array(starts, dtype=np.int32), np.array(idx, dtype=np.int32), np.array(val))
    h.changeObjectiveSense(highspy.ObjSense.kMaximize)
    h.run()
    todo = changes(loop, rounds, n, len(rows))
    costs = list(obj)
    ubs = [ub] * n
    t0 = clocks()
    for ch in todo:
        if loop == "addcol":
            coeffs, cost = ch
            h.addCol(cost, 0.0, ub, len(coeffs), np.array([i for i, _ in coeffs], dtype=np.int32),
                     np.array([a for _, a in coeffs]))
        elif loop == "addrow":
            xs = h.getSolution().col_value
            h.addRow(-inf, 0.9 * sum(xs[j] for j in ch), len(ch), np.array(ch, dtype=np.int32),
                     np.ones(len(ch)))
        elif loop == "ub":
            ubs[ch] *= 0.5
            h.changeColBounds(ch, 0.0, ubs[ch])
        else:
            costs[ch] *= 1.1
            h.changeColCost(ch, costs[ch])
        h.run()
    return since(t0), h.getInfo().objective_function_value


# ---------------------------------------------------------------- driver

def worker(package, loop, rounds):
    (seconds, cpu), objective = globals()[f"run_{package}"](loop, rounds)
    peak = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss / 1024.0
    print(json.dumps({"time": seconds, "cpu": cpu, "obj": objective, "peak_mb": peak}))


def highspy_library(peer_python):
    """The HiGHS library file inside the peer environment's highspy package."""
    out = subprocess.run([peer_python, "-c", "import highspy, os; "
                          "print(os.path.dirname(highspy.__file__))"],
                         capture_output=True, text=True, timeout=120, check=True)
    folder = out.stdout.strip()
    names = sorted(f for f in os.listdir(folder) if f.startswith("libhighs.so"))
    if not names:
        raise SystemExit(f"no HiGHS library in {folder}")
    return os.path.join(folder, names[0])


def measure(python, package, loop, rounds, library=None):
    env = dict(os.environ, OMP_NUM_THREADS="1", OPENBLAS_NUM_THREADS="1")
    if library:
        env["KAVIRO_HIGHS_LIBRARY"] = library
    out = subprocess.run([python, os.path.abspath(__file__), "--worker", package, loop,
                          str(rounds)], capture_output=True, text=True, env=env, timeout=3600)
    if out.returncode != 0:
        return {"error": out.stderr.strip().splitlines()[-1] if out.stderr.strip() else "failed"}
    return json.loads(out.stdout.strip().splitlines()[-1])


def median_of(runs):
    """The median time and peak memory of repeated measurements (an error if any failed)."""
    for r in runs:
        if "error" in r:
            return r
    return {key: statistics.median(r[key] for r in runs) for key in ("time", "cpu", "peak_mb")} | {
        "obj": runs[0]["obj"]}


def main():
    if len(sys.argv) > 1 and sys.argv[1] == "--worker":
        worker(sys.argv[2], sys.argv[3], int(sys.argv[4]))
        return
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--rounds", type=int, default=60)
    ap.add_argument("--repeat", type=int, default=3)
    ap.add_argument("--loops", default=",".join(LOOPS))
    ap.add_argument("--peer-python", default=DEFAULT_PEER_PYTHON)
    ap.add_argument("--kaviropy-python", default=sys.executable)
    ap.add_argument("--no-same-build", action="store_true",
                    help="compare highspy with kaviropy on highsbox's library too")
    args = ap.parse_args()
    library = None if args.no_same_build else highspy_library(args.peer_python)
    print(f"{args.rounds} rounds a loop, median of {args.repeat} runs; every side: the engine "
          f"options {ENGINE_OPTIONS}, output off. Times of the rounds only: CPU seconds of the "
          "process (wall-clock seconds in brackets; the ratios are of CPU time, which a busy "
          "machine disturbs less), peak resident memory of the process (MB)")
    print("kaviropy and pyoptinterface run highsbox's HiGHS library; " +
          (f"for the highspy ratio kaviropy runs highspy's own build ({library}), "
           "shown in the kaviropy* column" if library else
           "highspy runs its own build, compared with that same kaviropy run"))
    header = (f"{'loop':8} {'kaviropy':>16} {'MB':>4} {'pyoptinterface':>16} {'MB':>4} {'ratio':>5} "
              + (f"{'kaviropy*':>16} {'MB':>4} " if library else "")
              + f"{'highspy':>16} {'MB':>4} {'ratio':>5}  objectives")
    print(header)
    pythons = {"kaviropy": args.kaviropy_python, "pyoptinterface": args.peer_python,
               "highspy": args.peer_python}
    sides = PACKAGES + ([SAME_BUILD] if library else [])
    for loop in args.loops.split(","):
        runs = {p: [] for p in sides}
        for _ in range(args.repeat):
            for p in sides:
                if p == SAME_BUILD:
                    runs[p].append(measure(args.kaviropy_python, "kaviropy", loop, args.rounds,
                                           library))
                else:
                    runs[p].append(measure(pythons[p], p, loop, args.rounds))
        res = {p: median_of(runs[p]) for p in sides}
        partner = {"pyoptinterface": res["kaviropy"], "highspy": res[SAME_BUILD if library
                                                                      else "kaviropy"]}

        def cell(r):
            return (f"{r['cpu']:7.3f} ({r['time']:6.3f}) {r['peak_mb']:4.0f}" if "cpu" in r
                    else f"{'failed':>16} {'':4}")

        cells = [f"{loop:8}", cell(res["kaviropy"])]
        for p in ("pyoptinterface", "highspy"):
            r, k = res[p], partner[p]
            if p == "highspy" and library:
                cells.append(cell(k))
            ratio = f"{k['cpu'] / r['cpu']:5.2f}" if "cpu" in r and "cpu" in k else f"{'':5}"
            cells.append(f"{cell(r)} {ratio}")
        objs = [res[p].get("obj") for p in sides]
        same = all(o is not None for o in objs) and max(objs) - min(objs) <= 1e-6 * (1 + abs(objs[0]))
        cells.append(" ".join("-" if o is None else f"{o:.6f}" for o in objs) +
                     ("  (same)" if same else "  (DIFFER)"))
        print(" ".join(cells), flush=True)
        for p in sides:
            if "error" in res[p]:
                print(f"  {p}: {res[p]['error']}")


if __name__ == "__main__":
    main()
