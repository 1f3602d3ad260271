"""Matrix-form model building: kaviropy's matrix API against handing the same CSR arrays to HiGHS
directly (highspy's passModel, the physical limit of this path) and against the matrix or array
forms of pyoptinterface (HiGHS), cvxpy and linopy.

Models:
  sparse-NNZ  A @ x <= b with a scipy.sparse A of NNZ nonzeros (10 per row, NNZ/10 rows and
              columns), 0 <= x <= 1, a linear objective
  lqcp-N      the boundary-control QP of the shared benchmark list on an N x N grid, written with
              array slices (kaviropy, pyoptinterface object arrays, cvxpy, linopy)

Phases (each measurement is a fresh process; the median of --runs is shown):
  build   the model reaches the solver library: kaviropy build + update(); highspy passModel
          (+ passHessian) of prepared arrays; pyoptinterface build (its models live in HiGHS);
          cvxpy Problem + get_problem_data(HIGHS or CLARABEL for the QP); linopy build + to_highspy
  engine  build, then the engine starts: optimize with TimeLimit 0 and Presolve 0 on every side
          (highspy: run with time_limit 0, presolve off); the LP runs dual simplex everywhere
          (Method 1; HiGHS solver=simplex, simplex_strategy=1)

Memory: peak resident memory of the process during the measured phase minus its resident memory
before it (data and imports loaded), in bytes per nonzero of the constraint matrix.

  python benchmarks/bench_matrix.py [--models sparse,lqcp] [--nnz 1000000] [--lqcp-n 300]
         [--phase build,engine] [--runs 3] [--packages highspy,pyoptinterface,cvxpy,linopy]
         [--peer-python ../venvs/bench-matrix/bin/python]

kaviropy runs in the interpreter that starts the script; the other packages in --peer-python
(benchmarks/setup_peers.sh installs them, benchmarks/requirements.txt lists them).
"""
import argparse
import json
import os
import pathlib
import statistics
import subprocess
import sys
import tempfile
import time

HERE = pathlib.Path(__file__).resolve()
DEFAULT_PEER = HERE.parents[2] / "venvs" / "bench-peers" / "bin" / "python"


def rss_field(name):
    """VmRSS or VmHWM (peak) of this process in bytes."""
    with open("/proc/self/status") as f:
        for line in f:
            if line.startswith(name + ":"):
                return int(line.split()[1]) * 1024
    return 0


def reset_peak():
    """Starts a new peak-memory measurement (Linux: writing 5 to clear_refs resets VmHWM)."""
    try:
        with open("/proc/self/clear_refs", "w") as f:
            f.write("5")
    except OSError:
        pass


# ---------------------------------------------------------------- shared data

def sparse_data(nnz):
    import numpy as np
    import scipy.sparse as sp
    rng = np.random.default_rng(12345)
    n = nnz // 10
    rows = np.repeat(np.arange(n), 10)
    cols = rng.integers(0, n, nnz)
    A = sp.csr_array((rng.uniform(-1, 1, nnz), (rows, cols)), shape=(n, n))
    A.sum_duplicates()
    b = rng.uniform(1, 2, n)
    c = -rng.uniform(0, 1, n)
    return A, b, c


def lqcp_consts(n):
    import numpy as np
    m = n
    dx = 1.0 / n
    dt = 1.58 / n
    h2 = dx * dx
    a = 0.001
    yt = 0.5 * (1 - (np.arange(n + 1) * dx) ** 2)
    wy = np.full(n + 1, 2.0)
    wy[[0, -1]] = 1.0
    wu = np.full(m, 2.0)
    wu[-1] = 1.0
    return m, dx, dt, h2, a, yt, wy, wu


# ---------------------------------------------------------------- kaviropy

def kaviropy_model(model, size, data):
    import numpy as np
    import kaviropy as kp
    from kaviropy import KVR

    env = kp.Env(empty=True)
    env.setParam("OutputFlag", 0)
    env.start()
    m = kp.Model(model, env=env)
    if model == "sparse":
        A, b, c = data
        x = m.addMVar(A.shape[1], ub=1.0, name="x")
        m.addConstr(A @ x <= b, name="c")
        m.setObjective(c @ x, KVR.MINIMIZE)
    else:
        M, dx, dt, h2, a, yt, wy, wu = lqcp_consts(size)
        n = size
        y = m.addMVar((M + 1, n + 1), lb=-np.inf, name="y")
        u = m.addMVar(M, lb=-1, ub=1, name="u")
        d = y[M] - yt
        m.setObjective(0.25 * dx * (wy * d * d).sum() + 0.25 * a * dt * (wu * u * u).sum(), KVR.MINIMIZE)
        y0, y1 = y[:-1], y[1:]
        m.addConstr((y1[:, 1:-1] - y0[:, 1:-1]) / dt
                    == 0.5 * (y0[:, :-2] - 2 * y0[:, 1:-1] + y0[:, 2:]
                              + y1[:, :-2] - 2 * y1[:, 1:-1] + y1[:, 2:]) / h2, name="pde")
        m.addConstr(y[0] == 0, name="init")
        m.addConstr(y1[:, 2] - 4 * y1[:, 1] + 3 * y1[:, 0] == 0, name="left")
        m.addConstr((y1[:, n - 2] - 4 * y1[:, n - 1] + 3 * y1[:, n]) / (2 * dx) == u - y1[:, n], name="right")
    m.update()
    return m


def kaviropy_run(model, size, data, phase):
    t0 = time.perf_counter()
    m = kaviropy_model(model, size, data)
    if phase == "engine":
        m.Params.TimeLimit = 0
        m.Params.Presolve = 0
        if model == "sparse":
            m.Params.Method = 1  # dual simplex on every side
        m.optimize()
    return time.perf_counter() - t0


def kaviropy_export(model, size, data, path):
    """The library's arrays of the model (what highspy is handed)."""
    import numpy as np
    m = kaviropy_model(model, size, data)
    A = m.getA().tocsr()
    x = m.getVars()
    cons = m.getConstrs()
    lb = np.array(m.getAttr("LB", x))
    ub = np.array(m.getAttr("UB", x))
    obj = np.array(m.getAttr("Obj", x))
    rhs = np.array(m.getAttr("RHS", cons))
    sense = np.array(m.getAttr("Sense", cons))
    rlo = np.where(sense == "<", -np.inf, rhs)
    rup = np.where(sense == ">", np.inf, rhs)
    Q = m.getQ().tocsc()
    H = (Q + Q.T).tocsc()  # HiGHS minimises c'x + 1/2 x'Hx
    import scipy.sparse as sp
    H = sp.tril(H, format="csc")
    np.savez(path, Aptr=A.indptr, Aind=A.indices, Aval=A.data, lb=lb, ub=ub, obj=obj, rlo=rlo, rup=rup,
             Hptr=H.indptr, Hind=H.indices, Hval=H.data, shape=np.array(A.shape))
    return A.nnz


# ---------------------------------------------------------------- highspy

def highspy_run(model, size, d, phase):
    import highspy
    ncol, nrow = int(d["shape"][1]), int(d["shape"][0])
    h = highspy.Highs()
    h.setOptionValue("output_flag", False)
    t0 = time.perf_counter()
    lp = highspy.HighsLp()
    lp.num_col_ = ncol
    lp.num_row_ = nrow
    lp.col_cost_ = d["obj"]
    lp.col_lower_ = d["lb"]
    lp.col_upper_ = d["ub"]
    lp.row_lower_ = d["rlo"]
    lp.row_upper_ = d["rup"]
    lp.a_matrix_.format_ = highspy.MatrixFormat.kRowwise
    lp.a_matrix_.num_col_ = ncol
    lp.a_matrix_.num_row_ = nrow
    lp.a_matrix_.start_ = d["Aptr"]
    lp.a_matrix_.index_ = d["Aind"]
    lp.a_matrix_.value_ = d["Aval"]
    h.passModel(lp)
    if len(d["Hval"]):
        hess = highspy.HighsHessian()
        hess.dim_ = ncol
        hess.format_ = highspy.HessianFormat.kTriangular
        hess.start_ = d["Hptr"]
        hess.index_ = d["Hind"]
        hess.value_ = d["Hval"]
        h.passHessian(hess)
    if phase == "engine":
        h.setOptionValue("time_limit", 0.0)
        h.setOptionValue("presolve", "off")
        if model == "sparse":
            h.setOptionValue("solver", "simplex")
            h.setOptionValue("simplex_strategy", 1)
        h.run()
    return time.perf_counter() - t0


# ---------------------------------------------------------------- pyoptinterface

def pyoptinterface_run(model, size, data, phase):
    import numpy as np
    import pyoptinterface as poi
    from pyoptinterface import highs
    t0 = time.perf_counter()
    m = highs.Model()
    m.set_model_attribute(poi.ModelAttribute.Silent, True)
    if model == "sparse":
        A, b, c = data
        x = m.add_m_variables(A.shape[1], lb=0.0, ub=1.0)
        m.add_m_linear_constraints(A, x, poi.Leq, b)
        m.set_objective(poi.quicksum(c[j] * x[j] for j in range(len(c))), poi.ObjectiveSense.Minimize)
    else:
        M, dx, dt, h2, a, yt, wy, wu = lqcp_consts(size)
        n = size
        y = m.add_m_variables((M + 1, n + 1), lb=-np.inf)
        u = m.add_m_variables(M, lb=-1.0, ub=1.0)
        obj = poi.ExprBuilder()
        for j in range(n + 1):
            e = y[M, j] - yt[j]
            obj += 0.25 * dx * wy[j] * e * e
        for i in range(M):
            obj += 0.25 * a * dt * wu[i] * u[i] * u[i]
        m.set_objective(obj, poi.ObjectiveSense.Minimize)
        y0, y1 = y[:-1], y[1:]
        # numpy object arrays of pyoptinterface expressions: the array form this package has
        pde = (y1[:, 1:-1] - y0[:, 1:-1]) / dt - 0.5 * (y0[:, :-2] - 2 * y0[:, 1:-1] + y0[:, 2:]
                                                        + y1[:, :-2] - 2 * y1[:, 1:-1] + y1[:, 2:]) / h2
        for e in pde.ravel():
            m.add_linear_constraint(e, poi.Eq, 0.0)
        for j in range(n + 1):
            m.add_linear_constraint(y[0, j], poi.Eq, 0.0)
        for e in (y1[:, 2] - 4 * y1[:, 1] + 3 * y1[:, 0]):
            m.add_linear_constraint(e, poi.Eq, 0.0)
        for e in ((y1[:, n - 2] - 4 * y1[:, n - 1] + 3 * y1[:, n]) / (2 * dx) - u + y1[:, n]):
            m.add_linear_constraint(poi.ExprBuilder(e), poi.Eq, 0.0)  # merges the y[i, n] terms
    if phase == "engine":
        m.set_raw_parameter("time_limit", 0.0)
        m.set_raw_parameter("presolve", "off")
        if model == "sparse":
            m.set_raw_parameter("solver", "simplex")
            m.set_raw_parameter("simplex_strategy", 1)
        m.optimize()
    return time.perf_counter() - t0


# ---------------------------------------------------------------- cvxpy

def cvxpy_run(model, size, data, phase):
    import cvxpy as cp
    t0 = time.perf_counter()
    if model == "sparse":
        A, b, c = data
        x = cp.Variable(A.shape[1])
        prob = cp.Problem(cp.Minimize(c @ x), [A @ x <= b, x >= 0, x <= 1])
        solver = cp.HIGHS
    else:
        M, dx, dt, h2, a, yt, wy, wu = lqcp_consts(size)
        n = size
        y = cp.Variable((M + 1, n + 1))
        u = cp.Variable(M)
        obj = 0.25 * dx * wy @ cp.square(y[M] - yt) + 0.25 * a * dt * wu @ cp.square(u)
        y0, y1 = y[:-1], y[1:]
        cons = [(y1[:, 1:-1] - y0[:, 1:-1]) / dt
                == 0.5 * (y0[:, :-2] - 2 * y0[:, 1:-1] + y0[:, 2:] + y1[:, :-2] - 2 * y1[:, 1:-1] + y1[:, 2:]) / h2,
                y[0] == 0, y1[:, 2] - 4 * y1[:, 1] + 3 * y1[:, 0] == 0,
                (y1[:, n - 2] - 4 * y1[:, n - 1] + 3 * y1[:, n]) / (2 * dx) == u - y1[:, n], u >= -1, u <= 1]
        prob = cp.Problem(cp.Minimize(obj), cons)
        solver = cp.HIGHS if cp.HIGHS in cp.installed_solvers() else cp.CLARABEL
    if phase == "build":
        prob.get_problem_data(solver)
    else:
        try:
            extra = {"solver": "simplex", "simplex_strategy": 1} if model == "sparse" else {}
            prob.solve(solver=solver, time_limit=0.0, presolve="off", highs_options=extra)
        except cp.error.SolverError:
            pass  # a time limit of 0 is reported as a solver failure
    return time.perf_counter() - t0


# ---------------------------------------------------------------- linopy

def linopy_run(model, size, data, phase):
    import numpy as np
    import linopy
    import pandas as pd
    t0 = time.perf_counter()
    m = linopy.Model()
    if model == "sparse":
        A, b, c = data
        n = A.shape[1]
        x = m.add_variables(lower=0, upper=1, coords=[pd.RangeIndex(n, name="j")], name="x")
        # linopy has no sparse product: the rows are given as (row, term) coefficient and
        # variable-label arrays of a fixed number of terms per row.
        A = A.tocsr()
        per_row = np.diff(A.indptr)
        k = int(per_row.max())
        coeffs = np.zeros((A.shape[0], k))
        labels = np.full((A.shape[0], k), -1)
        pos = np.arange(A.nnz) - np.repeat(A.indptr[:-1], per_row)
        rows = np.repeat(np.arange(A.shape[0]), per_row)
        coeffs[rows, pos] = A.data
        labels[rows, pos] = x.labels.values[A.indices]
        import xarray as xr
        lhs = linopy.LinearExpression(xr.Dataset({"coeffs": (("i", "_term"), coeffs),
                                                  "vars": (("i", "_term"), labels)}), m)
        m.add_constraints(lhs <= xr.DataArray(b, dims="i"), name="c")
        m.add_objective((xr.DataArray(c, dims="j") * x).sum())
    else:
        M, dx, dt, h2, a, yt, wy, wu = lqcp_consts(size)
        n = size
        i_idx, j_idx = pd.RangeIndex(M + 1, name="i"), pd.RangeIndex(n + 1, name="j")
        y = m.add_variables(coords=[i_idx, j_idx], name="y")
        u = m.add_variables(lower=-1, upper=1, coords=[pd.RangeIndex(1, M + 1, name="i")], name="u")
        import xarray as xr
        # linopy takes no objective constant: (y - yt)^2 without the yt^2 term
        ytj = xr.DataArray(yt, dims="j", coords={"j": j_idx})
        wyj = xr.DataArray(wy, dims="j", coords={"j": j_idx})
        ym = y.sel(i=M)
        m.add_objective(0.25 * dx * (wyj * ym * ym - 2 * wyj * ytj * ym).sum()
                        + 0.25 * a * dt * (xr.DataArray(wu, dims="i", coords={"i": u.coords["i"]}) * u * u).sum())
        # shift(i=-1) is y[i + 1], shift(j=1) is y[:, j - 1]
        y1 = y.shift(i=-1)
        inner = dict(i=slice(0, M - 1), j=slice(1, n - 1))
        pde = ((y1 - y) / dt - 0.5 * (y.shift(j=1) - 2 * y + y.shift(j=-1)
                                      + y1.shift(j=1) - 2 * y1 + y1.shift(j=-1)) / h2).sel(**inner)
        m.add_constraints(pde == 0, name="pde")
        m.add_constraints(y.sel(i=0) == 0, name="init")
        yb = y.sel(i=slice(1, M))
        m.add_constraints(yb.sel(j=2) - 4 * yb.sel(j=1) + 3 * yb.sel(j=0) == 0, name="left")
        m.add_constraints((yb.sel(j=n - 2) - 4 * yb.sel(j=n - 1) + 3 * yb.sel(j=n)) / (2 * dx)
                          - u + yb.sel(j=n) == 0, name="right")
    if phase == "build":
        m.to_highspy()
    else:
        extra = {"solver": "simplex", "simplex_strategy": 1} if model == "sparse" else {}
        m.solve("highs", io_api="direct", time_limit=0.0, presolve="off", output_flag=False, **extra)
    return time.perf_counter() - t0


# ---------------------------------------------------------------- driver

RUNNERS = {"kaviropy": kaviropy_run, "pyoptinterface": pyoptinterface_run, "cvxpy": cvxpy_run,
           "linopy": linopy_run}


def child(args):
    package, model, size, phase, path = args.child
    size = int(size)
    # Imports are not part of any measurement.
    import importlib
    import numpy as np
    import scipy.sparse  # noqa: F401
    importlib.import_module({"pyoptinterface": "pyoptinterface.highs"}.get(package, package))
    if package == "highspy":
        data = dict(np.load(path))
    else:
        data = sparse_data(size) if model == "sparse" else None
    import gc
    gc.collect()
    reset_peak()
    base = rss_field("VmRSS")
    if package == "highspy":
        t = highspy_run(model, size, data, phase)
    else:
        t = RUNNERS[package](model, size, data, phase)
    print(json.dumps({"time": t, "mem": max(0, rss_field("VmHWM") - base)}))


def measure(python, package, model, size, phase, path):
    proc = subprocess.run([str(python), str(HERE), "--child", package, model, str(size), phase, path],
                          capture_output=True, text=True, timeout=3600)
    if proc.returncode != 0:
        last = (proc.stderr.strip().splitlines() or ["failed"])[-1]
        return {"error": last[:100]}
    return json.loads(proc.stdout.strip().splitlines()[-1])


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--models", default="sparse,lqcp")
    ap.add_argument("--nnz", type=int, default=1_000_000)
    ap.add_argument("--lqcp-n", type=int, default=300)
    ap.add_argument("--phase", default="build,engine")
    ap.add_argument("--runs", type=int, default=3)
    ap.add_argument("--packages", default="highspy,pyoptinterface,cvxpy,linopy")
    ap.add_argument("--peer-python", default=str(DEFAULT_PEER))
    ap.add_argument("--child", nargs=5)
    args = ap.parse_args()
    if args.child:
        child(args)
        return

    peers = [p for p in args.packages.split(",") if p]
    tmp = tempfile.mkdtemp(prefix="bench_matrix_")
    print(f"kaviropy: {sys.executable}\npeers: {args.peer_python}\n"
          "engine settings on every side: output off; phase engine: time limit 0, presolve off, "
          "dual simplex for the LP\n")
    header = "%-12s %-7s %-15s %10s %8s %10s" % ("model", "phase", "package", "median s", "ratio", "B/nnz")
    for model in args.models.split(","):
        size = args.nnz if model == "sparse" else args.lqcp_n
        path = os.path.join(tmp, f"{model}.npz")
        data = sparse_data(size) if model == "sparse" else None
        nnz = kaviropy_export(model, size, data, path)
        del data
        print(f"{model}-{size}: {nnz} nonzeros in the constraint matrix")
        print(header)
        for phase in args.phase.split(","):
            results = {}
            for _ in range(args.runs):
                for package in ["kaviropy"] + peers:
                    python = sys.executable if package == "kaviropy" else args.peer_python
                    r = measure(python, package, model, size, phase, path)
                    results.setdefault(package, []).append(r)
            base = statistics.median(r["time"] for r in results["kaviropy"])
            for package, rs in results.items():
                ok = [r for r in rs if "error" in r]
                if ok:
                    print("%-12s %-7s %-15s %s" % (model, phase, package, "failed: " + ok[0]["error"]))
                    continue
                t = statistics.median(r["time"] for r in rs)
                mem = statistics.median(r["mem"] for r in rs) / nnz
                # kaviropy against highspy: kaviropy / highspy; against the modelling packages:
                # package / kaviropy (above 1 means kaviropy is faster)
                ratio = base / t if package == "highspy" else t / base
                label = "1.00" if package == "kaviropy" else "%.2f" % ratio
                print("%-12s %-7s %-15s %10.3f %8s %10.1f" % (model, phase, package, t, label, mem))
        print()
    print("ratio: for highspy kaviropy/highspy (2.00 = kaviropy takes twice as long); "
          "for the modelling packages package/kaviropy (above 1: kaviropy is faster)")


if __name__ == "__main__":
    main()
