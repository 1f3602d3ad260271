"""Batch optimization throughput: N small MIPs submitted with Model.optimizeBatch to the embedded
local manager (CSManager empty: a scheduler and one single-threaded worker process per core,
started by the first submission), against solving the same models one after another with
Model.optimize in this process.

Both sides solve the same models with the same parameters (Threads 1, output off). Reported:
the manager's start-up, the client's cost per submission and per solution fetched, the batch
wall time from the first submission to the last solution, the throughput of both sides in
requests per second, and the overhead per request: the worker time a request costs beyond its
solve, (batch wall time x workers - sequential time) / N, and the part of it spent outside the
engine (the engine's own time on the workers, from the JSON solutions, grows when the machine
has fewer free cores than workers). Needs dask[distributed].

    python benchmarks/bench_batch.py [--n 200] [--items 25] [--rows 2]

The manager is a fresh one recorded in a temporary state file (KAVIRO_BATCH_STATE), so a
manager the user runs is not disturbed; it ends with this process.
"""

import argparse
import json
import os
import random
import tempfile
import time


def build(kp, seed, items, rows):
    """A multi-dimensional knapsack: `items` binaries, `rows` capacity rows."""
    rng = random.Random(seed)
    m = kp.Model("mkp%d" % seed)
    m.Params.OutputFlag = 0
    m.Params.Threads = 1
    x = m.addVars(items, vtype=kp.KVR.BINARY, name="x")
    for r in range(rows):
        w = [rng.randint(5, 60) for _ in range(items)]
        m.addConstr(kp.quicksum(w[j] * x[j] for j in range(items)) <= sum(w) // 3, name="c%d" % r)
    m.setObjective(kp.quicksum(rng.randint(1, 50) * x[j] for j in range(items)), kp.KVR.MAXIMIZE)
    m.update()
    return m


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--n", type=int, default=200, help="number of models")
    ap.add_argument("--items", type=int, default=25, help="binaries per model")
    ap.add_argument("--rows", type=int, default=2, help="constraints per model")
    args = ap.parse_args()
    state = tempfile.mkdtemp(prefix="kaviro-bench-")
    os.environ["KAVIRO_BATCH_STATE"] = os.path.join(state, "manager.json")

    import kaviropy as kp
    from kaviropy import KVR, _batch

    models = [build(kp, s, args.items, args.rows) for s in range(args.n)]
    load = os.getloadavg()[0]

    t0 = time.perf_counter()
    objs, runtime_seq = [], 0.0
    for m in models:
        m.optimize()
        objs.append(m.ObjVal)
        runtime_seq += m.Runtime
    t_seq = time.perf_counter() - t0

    # The first submission starts the manager; it is timed on its own and not counted below.
    t0 = time.perf_counter()
    warm = kp.Batch(build(kp, -1, args.items, args.rows).optimizeBatch())
    t_start = time.perf_counter() - t0
    workers = _batch.running_manager()["workers"]
    while warm.BatchStatus == KVR.BATCH_SUBMITTED:
        time.sleep(0.01)
        warm.update()
    warm.discard()

    t0 = time.perf_counter()
    ids = [m.optimizeBatch() for m in models]
    t_submit = time.perf_counter() - t0
    # Requests finish about in the order of submission: wait for each in turn, so that the
    # polling costs the scheduler about one look per request.
    batches = [kp.Batch(i) for i in ids]
    for b in batches:
        while b.BatchStatus == KVR.BATCH_SUBMITTED:
            time.sleep(0.01)
            b.update()
    t1 = time.perf_counter()
    got = [json.loads(b.getJSONSolution())["SolutionInfo"] for b in batches]
    t_fetch = time.perf_counter() - t1
    t_batch = time.perf_counter() - t0
    runtime_batch = sum(g["Runtime"] for g in got)
    got = [g["ObjVal"] for g in got]
    bad = [i for i in range(args.n) if batches[i].BatchStatus != KVR.BATCH_COMPLETED
           or abs(got[i] - objs[i]) > 1e-6 * max(1.0, abs(objs[i]))]
    for b in batches:
        b.discard()

    n = args.n
    print("%d MIPs (%d binaries, %d rows each), Threads 1, output off, on both sides"
          % (n, args.items, args.rows))
    print("sequential: Model.optimize one after another in one process")
    print("batch:      Model.optimizeBatch to the embedded manager, %d single-threaded workers"
          % workers)
    print("load average before the run: %.1f on %d cores" % (load, os.cpu_count()))
    print()
    print("manager start-up (first submission)     %8.2f s" % t_start)
    print("sequential: total %8.3f s   %8.1f requests/s   %7.2f ms per model"
          % (t_seq, n / t_seq, 1e3 * t_seq / n))
    print("batch:      total %8.3f s   %8.1f requests/s   %7.2f ms per model"
          % (t_batch, n / t_batch, 1e3 * t_batch / n))
    print("  submit (client)   %7.2f ms per request" % (1e3 * t_submit / n))
    print("  fetch (client)    %7.2f ms per solution" % (1e3 * t_fetch / n))
    print("  solve (engine)    %7.2f ms per request on the workers, %.2f ms in the sequential run"
          % (1e3 * runtime_batch / n, 1e3 * runtime_seq / n))
    print("  overhead          %7.2f ms per request  ((batch wall x %d workers - sequential) / %d)"
          % (1e3 * (t_batch * workers - t_seq) / n, workers, n))
    print("    outside solves  %7.2f ms per request  ((batch wall x %d workers - engine time on "
          "the workers) / %d)" % (1e3 * (t_batch * workers - runtime_batch) / n, workers, n))
    print("ratio batch / sequential wall time: %.2f" % (t_batch / t_seq))
    print("solutions matching optimize(): %d of %d" % (n - len(bad), n))


if __name__ == "__main__":
    main()
