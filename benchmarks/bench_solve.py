"""Read-and-solve times of the test instances: kaviropy against highspy on the same files.

Each measurement is a fresh Python process that reads one MPS file and solves it with output off
and default parameters (highspy gets the tolerances kaviropy's defaults map to, so that both
engines follow the same search path);
the time runs from just before the read to just after the solve returns. The two packages run
alternately, RUNS times each per instance; the table shows medians, the ratio kaviropy/highspy
and whether both reached the same objective.

    python benchmarks/bench_solve.py [--runs N] [instance.mps ...]

highspy comes from benchmarks/requirements.txt (a separate environment from the package's own).
"""

import argparse
import json
import pathlib
import re
import statistics
import subprocess
import sys

HERE = pathlib.Path(__file__).resolve().parent
INSTANCES = HERE.parent / "tests" / "data" / "instances"

KAVIRO = """
import json, sys, time
import kaviropy as kp
env = kp.Env(empty=True); env.setParam("OutputFlag", 0); env.start()
t = time.perf_counter()
m = kp.read(sys.argv[1], env=env)
m.optimize()
t = time.perf_counter() - t
print(json.dumps({"time": t, "status": m.Status, "obj": m.ObjVal if m.SolCount else None}))
"""

HIGHSPY = """
import json, sys, time
import highspy
h = highspy.Highs(); h.setOptionValue("output_flag", False)
# The tolerances kaviropy hands to the engine by default, so that both follow the same path.
for name, value in (("primal_feasibility_tolerance", 1e-6), ("dual_feasibility_tolerance", 1e-6),
                    ("mip_feasibility_tolerance", 1e-5), ("mip_abs_gap", 1e-10)):
    h.setOptionValue(name, value)
t = time.perf_counter()
h.readModel(sys.argv[1])
h.run()
t = time.perf_counter() - t
info = h.getInfo()
ok = info.primal_solution_status == 2
print(json.dumps({"time": t, "status": str(h.getModelStatus()),
                  "obj": info.objective_function_value if ok else None}))
"""


def measure(script, path):
    out = subprocess.run([sys.executable, "-c", script, str(path)], capture_output=True, text=True,
                         check=True).stdout
    return json.loads(out.strip().splitlines()[-1])


def instances(names):
    kinds = {}
    for line in (INSTANCES / "README.md").read_text().splitlines():
        m = re.match(r"\|\s*(\S+\.mps)\s*\|\s*(LP|MIP)\s*\|\s*(\S+)\s*\|", line)
        if m and m.group(3) != "infeasible":
            kinds[m.group(1)] = m.group(2)
    chosen = names or sorted(kinds)
    return [(INSTANCES / n, kinds.get(n, "?")) for n in chosen]


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--runs", type=int, default=3)
    ap.add_argument("names", nargs="*")
    args = ap.parse_args()
    print(f"{'instance':16} {'kind':4} {'kaviropy s':>11} {'highspy s':>10} {'ratio':>7}  same objective")
    worst = 0.0
    for path, kind in instances(args.names):
        ours, theirs = [], []
        for _ in range(args.runs):
            ours.append(measure(KAVIRO, path))
            theirs.append(measure(HIGHSPY, path))
        a = statistics.median(r["time"] for r in ours)
        b = statistics.median(r["time"] for r in theirs)
        oa, ob = ours[0]["obj"], theirs[0]["obj"]
        same = oa is not None and ob is not None and abs(oa - ob) <= 1e-6 * max(1.0, abs(ob))
        ratio = a / b if b > 0 else float("inf")
        if b > 1.0:
            worst = max(worst, ratio)
        print(f"{path.name:16} {kind:4} {a:11.3f} {b:10.3f} {ratio:7.2f}  {'yes' if same else 'NO'}"
              f" ({oa} / {ob})")
    print(f"largest ratio among instances where highspy needs more than 1 s: {worst:.3f}"
          if worst else "no instance takes highspy more than 1 s")


if __name__ == "__main__":
    main()
