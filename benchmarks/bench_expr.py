"""Expression building: kaviropy side by side with pyoptinterface (HiGHS model), one run.

    python benchmarks/bench_expr.py [--repeat 5] [--n 1000000]

Prints the median time of each case for both packages and the ratio kaviropy / pyoptinterface
(below 1 means kaviropy is faster), then the memory taken by a linear expression of n terms.
Cases that need a part of kaviropy that the installed version does not have are listed as
pending. See benchmarks/README.md for the environment.
"""

import argparse
import gc
import os
import statistics
import sys
import time
import tracemalloc

import kaviropy as kp

try:
    import pyoptinterface as poi
    from pyoptinterface import highs
except ImportError:  # the table then shows kaviropy alone
    poi = None


def median_time(fn, repeat):
    times = []
    for _ in range(repeat):
        gc.collect()
        start = time.perf_counter()
        fn()
        times.append(time.perf_counter() - start)
    return statistics.median(times)


# ---------------------------------------------------------------- variables


def kaviropy_vars(n):
    """n variables of a real model when the module has Model, else unbound handles."""
    if hasattr(kp, "Model"):
        env = kp.Env(empty=True)
        env.setParam("OutputFlag", 0)
        env.start()
        model = kp.Model(env=env)
        xs = list(model.addVars(n).values())
        model.update()
        return xs, (model, env), "model"
    return [kp.Var(None, i) for i in range(n)], None, "unbound handles"


def poi_vars(n):
    highs.autoload_library()
    model = highs.Model()
    model.set_model_attribute(poi.ModelAttribute.Silent, True)
    return [model.add_variable() for _ in range(n)], model


# ---------------------------------------------------------------- cases


def cases(n):
    """(name, kaviropy builder, pyoptinterface builder); builders get (vars, coeffs)."""

    def expr_loop(xs, c):
        x, y, z = xs[0], xs[1], xs[2]
        for _ in range(n):
            2 * x + 3 * y - z + 4

    return [
        (f"quicksum of {n:,} variables",
         lambda xs, c: kp.quicksum(xs),
         lambda xs, c: poi.quicksum(xs)),
        (f"quicksum(c[i]*x[i]) over {n:,} terms",
         lambda xs, c: kp.quicksum(c[i] * xs[i] for i in range(n)),
         lambda xs, c: poi.quicksum(c[i] * xs[i] for i in range(n))),
        (f"2*x + 3*y - z + 4, {n:,} times", expr_loop, expr_loop),
    ]


def tupledict_cases(n):
    """The tupledict sums, over a side x side tupledict (side * side = n keys)."""
    side = int(round(n ** 0.5))

    def kp_dict(xs):
        keys = [(i, j) for i in range(side) for j in range(side)]
        return kp.tupledict(zip(keys, xs)), keys

    def poi_dict(xs):
        keys = [(i, j) for i in range(side) for j in range(side)]
        return poi.tupledict(zip(keys, xs)), keys

    def kp_sum(td, keys, coeffs):
        for i in range(side):
            td.sum(i, "*")

    def poi_sum(td, keys, coeffs):
        for i in range(side):
            poi.quicksum(td.select(i, "*"))

    def kp_prod(td, keys, coeffs):
        td.prod(coeffs)

    def poi_prod(td, keys, coeffs):
        poi.quicksum(coeffs[k] * v for k, v in td.items())

    return side, kp_dict, poi_dict, [
        (f"tupledict.sum(i, '*') for every i, {side} x {side}", kp_sum,
         "quicksum(td.select(i, '*'))", poi_sum),
        (f"tupledict.prod(coeffs) over {side * side:,} keys", kp_prod,
         "quicksum(c[k] * td[k])", poi_prod),
    ]


# ---------------------------------------------------------------- memory


def expression_memory(n):
    """Measured in a fresh process: the memory allocated while one LinExpr over n variables is
    built (tracemalloc sees the term vectors too; current and peak) and sys.getsizeof of it."""
    import subprocess
    code = (f"import sys; sys.path.insert(0, {os.path.dirname(os.path.abspath(__file__))!r}); "
            f"import bench_expr; bench_expr._memory_child({n})")
    out = subprocess.run([sys.executable, "-c", code], check=True, capture_output=True, text=True)
    return [int(v) for v in out.stdout.split()]


def _memory_child(n):
    xs, keep, _ = kaviropy_vars(n)
    gc.collect()
    tracemalloc.start()
    expr = kp.quicksum(xs)
    current, peak = tracemalloc.get_traced_memory()
    tracemalloc.stop()
    assert expr.size() == n
    print(current, peak, sys.getsizeof(expr))


# ---------------------------------------------------------------- main


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--repeat", type=int, default=5)
    parser.add_argument("--n", type=int, default=1_000_000)
    args = parser.parse_args()
    n, repeat = args.n, args.repeat
    coeffs = [float(i % 17 + 1) for i in range(n)]

    kxs, keep, source = kaviropy_vars(n)
    pxs = None
    if poi is not None:
        pxs, pmodel = poi_vars(n)

    rows = []
    for name, kfn, pfn in cases(n):
        ours = median_time(lambda: kfn(kxs, coeffs), repeat)
        theirs = median_time(lambda: pfn(pxs, coeffs), repeat) if pxs is not None else None
        rows.append((name, ours, theirs))

    side, kp_dict, poi_dict, tcases = tupledict_cases(n)
    has_tupledict = hasattr(kp, "tupledict") and hasattr(getattr(kp, "tupledict"), "prod")
    if has_tupledict:
        ktd, keys = kp_dict(kxs[:side * side])
        kcoeffs = dict(zip(keys, coeffs))
        ptd, _ = poi_dict(pxs[:side * side]) if pxs is not None else (None, None)
    for name, kfn, poi_form, pfn in tcases:
        if not has_tupledict:
            rows.append((name, "pending", None))
            continue
        ours = median_time(lambda: kfn(ktd, keys, kcoeffs), repeat)
        theirs = (median_time(lambda: pfn(ptd, keys, kcoeffs), repeat)
                  if ptd is not None else None)
        rows.append((name + f"  [theirs: {poi_form}]", ours, theirs))

    print(f"kaviropy {kp.__version__} ({source}) vs pyoptinterface "
          f"{'(not installed)' if poi is None else '(HiGHS model)'}; "
          f"median of {repeat} runs, Python {sys.version.split()[0]}")
    width = max(len(r[0]) for r in rows)
    print(f"{'case':<{width}}  {'kaviropy s':>11}  {'poi s':>9}  {'ratio':>6}")
    for name, ours, theirs in rows:
        if ours == "pending":
            print(f"{name:<{width}}  {'pending (no tupledict.sum/prod yet)':>28}")
            continue
        ratio = f"{ours / theirs:6.2f}" if theirs else "     -"
        theirs_text = f"{theirs:9.3f}" if theirs is not None else "        -"
        print(f"{name:<{width}}  {ours:11.3f}  {theirs_text}  {ratio}")

    current, peak, size = expression_memory(n)
    print(f"memory of a LinExpr of {n:,} terms: {current / 2**20:.1f} MB allocated "
          f"(peak {peak / 2**20:.1f} MB while building), sys.getsizeof {size / 2**20:.1f} MB")
    del keep


if __name__ == "__main__":
    main()
