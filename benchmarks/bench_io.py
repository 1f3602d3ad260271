"""Model file speed: reading and writing MPS (and LP) files with kaviro's library against highspy's
reader and writer on the same files, side by side in one run.

Files: the largest instances of tests/data/instances and a generated model with a million
nonzeros (written once as MPS into a temporary directory). Each measurement is repeated
(--repeat, default 5) with the packages alternating; medians are reported with the ratio
kaviro / highspy (below 1 means kaviro is faster). Needs highspy (pip install highspy).

    python benchmarks/bench_io.py [--repeat 5] [--nnz 1000000] [--instances 4]
"""

import argparse
import os
import pathlib
import random
import statistics
import sys
import tempfile
import time

import highspy

ROOT = pathlib.Path(__file__).resolve().parents[1]
INSTANCES = ROOT / "tests" / "data" / "instances"
sys.path.insert(0, str(ROOT / "tests"))
import clib  # noqa: E402  (the library kaviropy ships, through ctypes, as the tests use it)


class Kaviro:
    name = "kaviro"

    def __init__(self):
        self.env = clib.new_env()

    def read(self, path):
        return clib.Model.read(self.env, path)

    def write(self, model, path):
        model.call("KVRwrite", str(path).encode())

    def free(self, model):
        model.free()


class Highs:
    name = "highspy"

    def read(self, path):
        h = highspy.Highs()
        h.setOptionValue("output_flag", False)
        status = h.readModel(str(path))
        assert status != highspy.HighsStatus.kError, path
        return h

    def write(self, h, path):
        assert h.writeModel(str(path)) != highspy.HighsStatus.kError

    def free(self, h):
        pass


def generate(path, nnz, seed=1):
    """A sparse LP with about `nnz` nonzeros: rows of 10 entries, integer and bounded columns."""
    rnd = random.Random(seed)
    rows = nnz // 10
    cols = rows * 2
    entries = [[] for _ in range(cols)]
    for r in range(rows):
        for j in rnd.sample(range(cols), 10):
            entries[j].append((r, rnd.randint(1, 999) / 10))
    with open(path, "w") as f:
        f.write("NAME gen\nROWS\n N obj\n")
        f.writelines(" %s r%d\n" % ("LGE"[r % 3], r) for r in range(rows))
        f.write("COLUMNS\n")
        for j, col in enumerate(entries):
            f.write("    x%d obj %g\n" % (j, (j % 17) - 8))
            f.writelines("    x%d r%d %g\n" % (j, r, v) for r, v in col)
        f.write("RHS\n")
        f.writelines("    rhs r%d %d\n" % (r, 5 + r % 50) for r in range(rows))
        f.write("BOUNDS\n")
        f.writelines(" UP bnd x%d %d\n" % (j, 10 + j % 7) for j in range(0, cols, 3))
        f.write("ENDATA\n")


def median_time(fn, repeat):
    times = []
    for _ in range(repeat):
        t0 = time.perf_counter()
        fn()
        times.append(time.perf_counter() - t0)
    return statistics.median(times)


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--repeat", type=int, default=5)
    ap.add_argument("--nnz", type=int, default=1_000_000)
    ap.add_argument("--instances", type=int, default=4, help="how many of the largest instances")
    args = ap.parse_args()

    packages = [Kaviro(), Highs()]
    tmp = pathlib.Path(tempfile.mkdtemp(prefix="bench_io_"))
    files = sorted(INSTANCES.glob("*.mps"), key=lambda p: p.stat().st_size, reverse=True)[: args.instances]
    gen = tmp / "generated.mps"
    t0 = time.perf_counter()
    generate(gen, args.nnz)
    print("generated %s (%.1f MB) in %.1f s" % (gen.name, gen.stat().st_size / 1e6, time.perf_counter() - t0))
    files.append(gen)

    print("\n%-16s %-10s %12s %12s %8s" % ("file", "operation", "kaviro s", "highspy s", "ratio"))
    ratios = {"read": [], "write mps": []}
    for path in files:
        results = {}
        # Alternate the packages within each repetition.
        for op in ("read", "write mps"):
            samples = {p.name: [] for p in packages}
            for _ in range(args.repeat):
                for p in packages:
                    if op == "read":
                        t = time.perf_counter()
                        m = p.read(path)
                        samples[p.name].append(time.perf_counter() - t)
                    else:
                        m = p.read(path)
                        out = tmp / ("out_%s.mps" % p.name)
                        t = time.perf_counter()
                        p.write(m, out)
                        samples[p.name].append(time.perf_counter() - t)
                    p.free(m)
            results[op] = {k: statistics.median(v) for k, v in samples.items()}
        for op, r in results.items():
            ratio = r["kaviro"] / r["highspy"]
            ratios[op].append(ratio)
            print("%-16s %-10s %12.4f %12.4f %8.2f" % (path.name, op, r["kaviro"], r["highspy"], ratio))
        # kaviro's LP writer and reader (highspy has no counterpart timed here).
        k = packages[0]
        m = k.read(path)
        lp = tmp / "out.lp"
        w = median_time(lambda: k.write(m, lp), args.repeat)
        k.free(m)
        r = median_time(lambda: k.free(k.read(lp)), args.repeat)
        print("%-16s %-10s %12.4f %12s %8s" % (path.name, "write lp", w, "-", "-"))
        print("%-16s %-10s %12.4f %12s %8s" % (path.name, "read lp", r, "-", "-"))

    print("\ngeometric mean of the ratios kaviro / highspy (below 1: kaviro faster)")
    for op, rs in ratios.items():
        gm = statistics.geometric_mean(rs)
        print("  %-10s %.2f" % (op, gm))
    for f in tmp.iterdir():
        f.unlink()
    os.rmdir(tmp)


if __name__ == "__main__":
    main()
