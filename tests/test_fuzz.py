"""Seeded mutations of model files (the shipped instances and what the writers produce) and of
data files, read in a child process with bounded memory: every input must end in a model or a
KaviroError, never in a signal, another exception, or a model whose written files read back
different. The default run tries a few hundred inputs; `-m slow` a few thousand."""

import bz2
import gzip
import json
import random
import subprocess
import sys
import textwrap

import pytest

import kaviropy as kp
from kaviropy import KVR

from conftest import INSTANCES

SMALL_INSTANCES = ["afiro", "avgas", "blending", "chip", "galenet", "flugpl", "small_mip",
                   "infeas_mip0"]
DATA_SUFFIXES = ["sol", "mst", "hnt", "ord", "bas", "prm", "attr"]

# Text a hostile file might hold: numbers at and past the ends of the double range, words the
# readers treat specially, bytes that are not text, and nesting.
NASTY = [b"1e999", b"-1e999", b"0." + b"0" * 330 + b"1", b"1" + b"0" * 400 + b"e-400", b"nan",
         b"-inf", b"+infinity", b"Infinity", b"4e-320", b"-0", b"1e", b".", b"-", b"\x00",
         b"\xff\xfe", b"\xe9", b"\r", b"\t", b":", b"::", b"<=", b">=", b"=", b"->", b"[", b"]",
         b"(", b")", b"^", b"/", b"*", b"\\", b'"', b"{", b"}", b"[" * 300, b"{\"a\":" * 300,
         b"x" * 300, b" S1 ", b" S2 ", b"RHS", b"BOUNDS", b"RANGES", b"MARKER", b"'MARKER'",
         b"Subject To", b"Bounds", b"General", b"SOS", b"End", b"ENDATA", b"ROWS", b"COLUMNS",
         b"QUADOBJ", b"QCMATRIX", b"INDICATORS", b"GENCONS", b"PWLOBJ", b"semi-continuous",
         b"\\u0000", b"\\ud800", b"-2147483649", b"99999999999999999999", b"LogFile", b"Threads"]


def rich_model(env):
    """A model using every element the writers know, solved so that every data file exists."""
    m = kp.Model("fuzz", env=env)
    x = m.addVars(6, ub=4, name="x")
    b = m.addVar(vtype=KVR.BINARY, name="b")
    s = m.addVar(vtype=KVR.SEMICONT, lb=1, ub=3, name="s")
    n = m.addVar(vtype=KVR.INTEGER, lb=-2, ub=5, name="n")
    m.addConstr(x[0] + 2 * x[1] - x[2] <= 7, name="c0")
    m.addConstr(x[3] + x[4] >= 1, name="c1")
    m.addRange(x[0] + x[5], -1, 6, name="rg")
    m.addQConstr(x[0] * x[0] + x[1] * x[1] <= 9, name="q0")
    m.addSOS(KVR.SOS_TYPE1, [x[2], x[3], x[4]], [-1, 2.5, 3])
    m.addGenConstrMax(x[5], [x[0], x[1]], 0.5, name="g0")
    m.addGenConstrIndicator(b, True, x[2] + x[3] <= 2, name="ind")
    m.setPWLObj(x[4], [0, 1, 4], [0, 2, 3])
    m.setObjective(x.sum() - n + s + 0.5 * x[1] * x[1] + 3, KVR.MINIMIZE)
    m.optimize()
    return m


def mutate(data, rng):
    """One to four random edits: flipped bytes, inserted nasty text, deleted, repeated or swapped
    spans, a cut end."""
    data = bytearray(data)
    for _ in range(rng.randint(1, 4)):
        op = rng.randrange(6)
        at = rng.randrange(len(data) + 1)
        if op == 0 and data:
            data[min(at, len(data) - 1)] = rng.randrange(256)
        elif op == 1:
            data[at:at] = rng.choice(NASTY)
        elif op == 2:
            del data[at:at + rng.randint(1, 40)]
        elif op == 3:
            piece = data[at:at + rng.randint(1, 80)]
            data[at:at] = piece * rng.randint(1, 30)
        elif op == 4:
            lines = bytes(data).split(b"\n")
            i, j = rng.randrange(len(lines)), rng.randrange(len(lines))
            lines[i], lines[j] = lines[j], lines[i]
            data = bytearray(b"\n".join(lines))
        else:
            del data[at:]
    return bytes(data)


def make_cases(env, out, count, seed):
    """Writes `count` mutated inputs into out; returns (what, path) pairs: what is "model" for
    a model file, else the model file a data file is read into."""
    rng = random.Random(seed)
    model = rich_model(env)
    sources = []
    for name in SMALL_INSTANCES:
        sources.append(("model", ".mps", (INSTANCES / (name + ".mps")).read_bytes()))
        instance = kp.read(str(INSTANCES / (name + ".mps")), env=env)
        instance.write(str(out / (name + ".lp")))
        instance.dispose()
        sources.append(("model", ".lp", (out / (name + ".lp")).read_bytes()))
    written_lp = out / "written.lp"
    for suffix in ["lp", "mps"] + DATA_SUFFIXES:
        if suffix == "bas":
            continue
        path = out / ("written." + suffix)
        model.write(str(path))
        sources.append(("model" if suffix in ("lp", "mps") else str(written_lp), "." + suffix,
                        path.read_bytes()))
    model.dispose()
    # A MIP has no basis: the basis file comes from an LP, and is read into that LP.
    lp = kp.read(str(INSTANCES / "afiro.mps"), env=env)
    lp.optimize()
    lp.write(str(out / "afiro.bas"))
    lp.dispose()
    sources.append((str(INSTANCES / "afiro.mps"), ".bas", (out / "afiro.bas").read_bytes()))
    cases = []
    for i in range(count):
        kind, suffix, data = rng.choice(sources)
        data = mutate(data, rng)
        compress = rng.random()
        if compress < 0.1:
            data, suffix = gzip.compress(data), suffix + ".gz"
        elif compress < 0.15:
            data, suffix = bz2.compress(data), suffix + ".bz2"
        if compress < 0.15 and rng.random() < 0.5:
            data = mutate(data, rng)  # damage the compressed stream itself
        path = out / ("case%05d%s" % (i, suffix))
        path.write_bytes(data)
        cases.append((kind, str(path)))
    return cases


# The child: reads each case, reports how it ended; a model that reads is written as LP and MPS
# and read back, and must come back with the same counts, bounds, objective, types, names and
# right-hand sides.
CHILD = textwrap.dedent("""
    import json, os, resource, sys
    if not os.environ.get("KAVIRO_SANITIZE"):  # the sanitizers reserve terabytes of addresses
        resource.setrlimit(resource.RLIMIT_AS, (3 << 30, resource.RLIM_INFINITY))
    import kaviropy as kp
    env = kp.Env(empty=True); env.setParam("OutputFlag", 0); env.start()
    COUNTS = ("NumVars", "NumConstrs", "NumSOS", "NumQConstrs", "NumGenConstrs", "NumNZs",
              "ObjCon", "ModelSense")
    def counts(m):
        m.update()
        return ([m.getAttr(a) for a in COUNTS]
                + [m.getAttr(a, m.getVars()) for a in ("LB", "UB", "Obj", "VType", "VarName")]
                + [m.getAttr(a, m.getConstrs()) for a in ("RHS", "Sense", "ConstrName")])
    targets = {}
    for line in open(sys.argv[1]):
        what, path = json.loads(line)
        print("begin", path, flush=True)
        try:
            if what == "model":
                m = kp.read(path, env=env)
                for suffix in (".lp", ".mps"):
                    try:
                        m.write(path + ".back" + suffix)
                    except kp.KaviroError:  # e.g. rows of the same name have no MPS form
                        continue
                    try:
                        back = kp.read(path + ".back" + suffix, env=env)
                    except kp.KaviroError as e:  # what a writer writes must read back
                        print("differs", suffix, e.message, flush=True)
                        continue
                    if counts(back) != counts(m):
                        print("differs", suffix, flush=True)
                    back.dispose()
                m.dispose()
            else:
                if what not in targets:
                    targets[what] = kp.read(what, env=env)
                    targets[what].optimize()
                t = targets[what].copy()
                t.read(path)
                t.dispose()
            print("result", flush=True)
        except kp.KaviroError as e:
            print("error", e.errno, flush=True)
    print("done", flush=True)
""")


def run_cases(env, tmp_path, count, seed):
    cases = make_cases(env, tmp_path, count, seed)
    listing = tmp_path / "cases.jsonl"
    listing.write_text("".join(json.dumps(c) + "\n" for c in cases))
    run = subprocess.run([sys.executable, "-c", CHILD, str(listing)],
                         capture_output=True, text=True, timeout=1800)
    lines = run.stdout.splitlines()
    last = [ln for ln in lines if ln.startswith("begin")][-1:] or ["(before the first case)"]
    assert run.returncode == 0, "child ended with %d at %s\n%s" % (run.returncode, last[0],
                                                                    run.stderr[-3000:])
    assert lines[-1] == "done"
    assert not [ln for ln in lines if ln.startswith("differs")], "\n".join(lines)
    outcomes = [ln.split()[0] for ln in lines if ln.split()[0] in ("result", "error")]
    assert len(outcomes) == count
    return outcomes


def test_mutated_files_end_in_a_result_or_an_error(env, tmp_path):
    outcomes = run_cases(env, tmp_path, 300, seed=11)
    # The mutations leave some inputs readable and break others.
    assert 0 < outcomes.count("result") < len(outcomes)


@pytest.mark.slow
@pytest.mark.parametrize("seed", [1, 2, 3])
def test_many_mutated_files_end_in_a_result_or_an_error(env, tmp_path, seed):
    run_cases(env, tmp_path, 1200, seed=seed)
