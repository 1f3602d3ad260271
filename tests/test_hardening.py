"""Hostile input: files and calls a careless or malicious user might give. Each ends in a result
or a KaviroError that names the problem, and a failed call or read changes nothing."""

import bz2
import ctypes as C
import gzip
import math
import os
import subprocess
import sys
import textwrap

import pytest

import kaviropy as kp
from kaviropy import KVR

import clib

MODEL_NAME = "hard"


def read_error(path, env, reader=None):
    """The KaviroError of reading path as a model (or with reader), which must be FILE_READ."""
    with pytest.raises(kp.KaviroError) as err:
        (reader or (lambda p: kp.read(str(p), env=env)))(path)
    assert err.value.errno == KVR.ERROR_FILE_READ, err.value.message
    return err.value.message


def lp_model(tmp_path, env, text, name="m.lp"):
    path = tmp_path / name
    path.write_bytes(text if isinstance(text, bytes) else text.encode())
    return kp.read(str(path), env=env)


def test_deeply_nested_json_is_a_read_error_not_a_stack_overflow(m, tmp_path):
    x = m.addVar(name="x", lb=1)
    m.update()
    for depth in (40_000, 201):
        path = tmp_path / ("deep%d.attr" % depth)
        path.write_text("[" * depth + "]" * depth)
        message = read_error(path, None, m.read)
        assert "nests arrays and objects more than 200 deep" in message
    # Within the limit the document is read (and then refused for its content).
    path = tmp_path / "ok.attr"
    path.write_text('{"Var": {"x": {"LB": [[[2]]]}}}')
    assert "takes a number" in read_error(path, None, m.read)
    assert x.LB == 1


@pytest.mark.parametrize("text, value", [
    ("0." + "0" * 330 + "1", 0.0),              # below the smallest double: zero, not infinity
    ("1" + "0" * 400 + "e-400", 1.0),           # huge mantissa, small value
    ("1" + "0" * 400 + "e-395", 1e5),
    ("0.00000000000000000000000001e-300", 0.0),  # 1e-326
    ("4e-320", 4e-320),                         # a denormal keeps its value
    ("0.0000" + "0" * 400 + "1e+405", 1e0),
    ("1e400", math.inf),
    ("1" + "0" * 400, math.inf),
])
def test_numbers_are_read_by_their_value(env, tmp_path, text, value):
    m = lp_model(tmp_path, env, "min\n obj: x\nst\n c: x >= 0\nbounds\n x <= %s\nend\n" % text)
    assert m.getVars()[0].UB == pytest.approx(value, rel=1e-15)
    m.optimize()
    assert m.Status == KVR.OPTIMAL and m.ObjVal == 0


def test_underflowing_rhs_solves_as_zero(env, tmp_path):
    m = lp_model(tmp_path, env, "max\n obj: x\nst\n c: x <= 0." + "0" * 330 + "1\nend\n")
    m.optimize()
    assert m.Status == KVR.OPTIMAL and m.ObjVal == 0


def sos_model(env):
    m = kp.Model("sos", env=env)
    x = m.addVars(4, ub=1, obj=[-1, -2, -3, -1], name="x")
    m.addSOS(KVR.SOS_TYPE1, [x[0], x[1], x[2]], [-2.5, -1, 3])
    m.addSOS(KVR.SOS_TYPE2, [x[1], x[2], x[3]], [-7, 0, 7e-300])
    m.addGenConstrMax(x[3], [x[0], x[1]], name="g" * 255)
    m.update()
    return m


def sos_data(m):
    m.update()
    out = []
    for s in m.getSOSs():
        vars_, weights = m.getSOS(s)[1:]
        out.append(([v.VarName for v in vars_], weights))
    return out


@pytest.mark.parametrize("suffix", ["lp", "mps", "lp.gz", "mps.bz2"])
def test_written_sos_and_general_constraints_read_back_equal(env, tmp_path, suffix):
    m = sos_model(env)
    path = str(tmp_path / ("w." + suffix))
    m.write(path)
    back = kp.read(path, env=env)
    assert sos_data(back) == sos_data(m)
    assert [g.GenConstrName for g in back.getGenConstrs()] == ["g" * 255]
    m.optimize()
    back.optimize()
    assert back.ObjVal == pytest.approx(m.ObjVal)


@pytest.mark.parametrize("lines, message, members, weights", [
    (" S1 SOS s1\n x -inf\n y 2\n", "Weight of variable 'x' in SOS constraint 0 is infinite",
     [0, 1], [-math.inf, 2]),
    (" S1 SOS s1\n x 1\n y 1\n", "Weight 1 appears twice in SOS constraint 0", [0, 1], [1, 1]),
    (" S2 SOS s1\n x 1\n x 2\n", "Variable 'x' appears twice in SOS constraint 0", [0, 0],
     [1, 2]),
])
def test_mps_reader_refuses_sos_the_library_refuses(env, tmp_path, lines, message, members,
                                                    weights):
    path = tmp_path / "s.mps"
    path.write_text("NAME t\nROWS\n N obj\nCOLUMNS\n x obj 1\n y obj 1\nRHS\nBOUNDS\n UP BND x 1\n"
                    " UP BND y 1\nSOS\n" + lines + "ENDATA\n")
    assert message in read_error(path, env)
    m = kp.Model(env=env)
    xy = [m.addVar(ub=1), m.addVar(ub=1)]
    with pytest.raises(kp.KaviroError):
        m.addSOS(KVR.SOS_TYPE1, [xy[k] for k in members], weights)


def test_general_constraint_names_follow_the_library_rules(env, tmp_path):
    path = tmp_path / "g.mps"
    path.write_text("NAME t\nROWS\n N obj\nCOLUMNS\n x obj 1\n y obj 1\n z obj 1\nRHS\n"
                    "GENCONS\n MAX " + "n" * 256 + "\n RES y\n ARG x\n ARG z\nENDATA\n")
    assert "longer than 255 characters" in read_error(path, env)
    m = kp.Model(env=env)
    x, y = m.addVar(), m.addVar()
    with pytest.raises(kp.KaviroError):
        m.addGenConstrMax(x, [y], name="n" * 256)


@pytest.mark.parametrize("compressed", [False, True])
def test_parameter_file_read_is_all_or_nothing(m, tmp_path, compressed):
    m.addVar(obj=1)
    text = "TimeLimit 5\nLogFile %s\nMIPGap 0.5\n" % (tmp_path / "missing" / "x.log")
    path = tmp_path / ("p.prm.gz" if compressed else "p.prm")
    path.write_bytes(gzip.compress(text.encode()) if compressed else text.encode())
    with pytest.raises(kp.KaviroError) as err:
        m.read(str(path))
    assert err.value.message.startswith(str(path) + ": Unable to open log file")
    assert (m.Params.TimeLimit, m.Params.LogFile, m.Params.MIPGap) == (1e100, "", 1e-4)
    m.optimize()
    assert m.Status == KVR.OPTIMAL
    path.write_text("TimeLimit 5\nMIPGap nonsense\n")
    with pytest.raises(kp.KaviroError):
        m.read(str(path).replace(".gz", ""))
    assert m.Params.TimeLimit == 1e100


def test_model_without_variables_has_its_constant_as_objective(m):
    m.setObjective(kp.LinExpr(3.5))
    m.optimize()
    assert (m.Status, m.ObjVal) == (KVR.OPTIMAL, 3.5)
    m.ModelSense = KVR.MAXIMIZE
    m.optimize()
    assert m.ObjVal == 3.5


def test_nul_characters_in_text_are_refused(env, m, tmp_path):
    x = m.addVar(name="x")
    m.update()
    calls = [
        lambda: m.addVar(name="a\x00b"),
        lambda: m.addVars(2, name=["a", "b\x00"]),
        lambda: m.addConstr(x <= 1, name="c\x00"),
        lambda: setattr(x, "VarName", "y\x00z"),
        lambda: setattr(m, "ModelName", "\x00"),
        lambda: m.write(str(tmp_path / "a\x00.lp")),
        lambda: m.setParam("LogFile", "l\x00og"),
    ]
    for call in calls:
        with pytest.raises(kp.KaviroError) as err:
            call()
        assert err.value.errno == KVR.ERROR_INVALID_ARGUMENT and "NUL character" in err.value.message
    m.update()
    assert (m.NumVars, m.NumConstrs, x.VarName, m.Params.LogFile) == (1, 0, "x", "")
    # Files: a NUL byte inside a name, and an attribute file naming one by an escape.
    (tmp_path / "n.mps").write_bytes(b"NAME t\nROWS\n N obj\nCOLUMNS\n a\x00b obj 1\nRHS\nENDATA\n")
    assert "contains a NUL character" in read_error(tmp_path / "n.mps", None,
                                                    lambda p: kp.read(str(p), env=env))
    (tmp_path / "n.attr").write_text('{"Var": {"x": {"VarName": "p\\u0000q"}}}')
    assert "contains a NUL character" in read_error(tmp_path / "n.attr", None, m.read)
    assert x.VarName == "x"


# Address-space limits cannot be combined with the sanitizers' shadow memory.
needs_address_limit = pytest.mark.skipif(bool(os.environ.get("KAVIRO_SANITIZE")),
                                         reason="address-space limit under the sanitizers")


@needs_address_limit
def test_failed_huge_add_vars_adds_nothing(tmp_path):
    script = textwrap.dedent("""
        import resource, sys
        import kaviropy as kp
        env = kp.Env(empty=True); env.setParam("OutputFlag", 0); env.start()
        m = kp.Model(env=env)
        m.addVar(name="x"); m.update()
        resource.setrlimit(resource.RLIMIT_AS, (int(sys.argv[1]) << 20, resource.RLIM_INFINITY))
        try:
            m.addVars(int(sys.argv[2]))
            print("added")
        except (MemoryError, kp.KaviroError):
            print("failed")
        m.update()
        print(m.NumVars, len(m.getVars()))
    """)
    outcomes = set()
    for limit_mb, n in [(1200, 10**7), (900, 5 * 10**6), (2000, 3 * 10**7)]:
        run = subprocess.run([sys.executable, "-c", script, str(limit_mb), str(n)],
                             capture_output=True, text=True, timeout=120)
        assert run.returncode == 0, run.stderr
        status, counts = run.stdout.split("\n")[:2]
        outcomes.add(status)
        expected = 1 + (n if status == "added" else 0)
        assert counts == "%d %d" % (expected, expected)
    assert "failed" in outcomes


def test_names_that_are_not_utf8_round_trip_exactly(env, tmp_path):
    lp = b"\\ LP format\nMinimize\n obj: caf\xe9 + y\nSubject To\n r\xe9s: caf\xe9 + y >= 1\nEnd\n"
    m = lp_model(tmp_path, env, lp)
    x = m.getVars()[0]
    assert x.VarName == "caf\udce9" and m.getConstrs()[0].ConstrName == "r\udce9s"
    assert repr(x) == "<kaviro.Var caf\ufffd>"
    assert repr(m.getConstrs()[0]) == "<kaviro.Constr r\ufffds>"
    assert m.getVarByName("caf\udce9").sameAs(x)
    m.Params.OutputFlag = 1
    m.Params.LogToConsole = 0
    m.setParam("LogFile", str(tmp_path / "run.log"))
    m.optimize()
    assert m.Status == KVR.OPTIMAL
    # Listings and the log show the name readably.
    m.Params.LogToConsole = 1
    for show in (m.printStats, m.display, lambda: m.printAttr("X")):
        show()
    assert "caf\ufffd" in (tmp_path / "run.log").read_text(errors="strict")
    assert '"VarName": "caf\udce9"' in m.getJSONSolution()
    for suffix in ("lp", "mps", "sol", "mst"):
        m.write(str(tmp_path / ("out." + suffix)))
    assert b"caf\xe9" in (tmp_path / "out.lp").read_bytes()
    back = kp.read(str(tmp_path / "out.mps"), env=env)
    assert [v.VarName for v in back.getVars()] == ["caf\udce9", "y"]
    back.read(str(tmp_path / "out.sol"))
    back.update()
    assert back.getVars()[0].Start == x.X
    # A name set from Python with the escaped bytes writes the same bytes.
    y = m.getVars()[1]
    y.VarName = "na\udcefve"
    m.write(str(tmp_path / "renamed.lp"))
    assert b"na\xefve" in (tmp_path / "renamed.lp").read_bytes()
    # Messages that quote such a name are readable text.
    with pytest.raises(kp.KaviroError) as err:
        m.read(str(tmp_path / "missing.sol"))
    assert err.value.errno == KVR.ERROR_FILE_READ
    (tmp_path / "bad.sol").write_bytes(b"caf\xe9 nope\n")
    message = read_error(tmp_path / "bad.sol", None, m.read)
    assert "nope" in message


def test_impossible_bounds_and_sides_are_named(m):
    x = m.addVar(name="x")
    inf = math.inf
    calls = [
        (lambda: m.addVar(lb=inf), "Variable 1 cannot take any value: its lower bound is +infinity"),
        (lambda: m.addVar(ub=-inf), "Variable 1 cannot take any value: its upper bound is -infinity"),
        (lambda: m.addLConstr(x, "<", -inf),
         "Constraint 0 cannot be satisfied: its left-hand side must be <= -infinity"),
        (lambda: m.addLConstr(x, ">", inf),
         "Constraint 0 cannot be satisfied: its left-hand side must be >= +infinity"),
        (lambda: m.addLConstr(x, "=", inf),
         "Constraint 0 cannot be satisfied: it equals an infinite right-hand side"),
        (lambda: m.addRange(x, inf, inf),
         "Constraint 0 cannot be satisfied: its lower bound is +infinity"),
    ]
    for call, message in calls:
        with pytest.raises(kp.KaviroError) as err:
            call()
        assert (err.value.errno, err.value.message) == (KVR.ERROR_INVALID_ARGUMENT, message)
    m.update()
    assert (m.NumVars, m.NumConstrs) == (1, 0)
    # Values set later are named when the model is solved.
    c = m.addLConstr(x, "<", inf, name="cap")
    m.update()
    c.Sense = ">"
    with pytest.raises(kp.KaviroError) as err:
        m.optimize()
    assert err.value.message == ("Constraint 'cap' cannot be satisfied: its left-hand side must "
                                 "be >= +infinity")
    c.Sense = "<"
    x.LB = inf
    with pytest.raises(kp.KaviroError) as err:
        m.optimize()
    assert err.value.message == "Variable 'x' cannot take any value: its lower bound is +infinity"


def test_impossible_bounds_in_files(env, tmp_path):
    path = tmp_path / "b.lp"
    path.write_text("min\n obj: x\nst\n c: x >= 0\nbounds\n x >= inf\nend\n")
    assert read_error(path, env) == ("%s: Variable 'x' cannot take any value: its lower bound is "
                                     "+infinity" % path)


def test_decompression_errors_are_our_own_words(env, tmp_path):
    text = b"NAME t\nROWS\n N obj\nCOLUMNS\n x obj 1\nRHS\nENDATA\n" * 200
    packed = gzip.compress(text)
    (tmp_path / "cut.mps.gz").write_bytes(packed[: len(packed) // 2])
    damaged = bytearray(packed)
    damaged[40:60] = b"\xff" * 20
    (tmp_path / "bad.mps.gz").write_bytes(bytes(damaged))
    (tmp_path / "plain.mps.bz2").write_bytes(text)
    bz = bz2.compress(text)
    (tmp_path / "cut.mps.bz2").write_bytes(bz[: len(bz) // 2])
    expected = {
        "cut.mps.gz": "the file ends inside the compressed data",
        "bad.mps.gz": "the compressed data is corrupt",
        "plain.mps.bz2": "it is not bzip2 data",
        "cut.mps.bz2": "the file ends inside the compressed data",
    }
    for name, words in expected.items():
        path = tmp_path / name
        assert read_error(path, env) == "Error while decompressing '%s': %s" % (path, words)


@needs_address_limit
def test_a_line_longer_than_the_cap_fails_with_bounded_memory(tmp_path):
    path = tmp_path / "long.lp.gz"
    with gzip.open(path, "wb", compresslevel=1) as f:
        f.write(b"min\n obj: ")
        chunk = b"x + " * (1 << 18)
        for _ in range(300):
            f.write(chunk)
    script = textwrap.dedent("""
        import resource, sys
        import kaviropy as kp
        resource.setrlimit(resource.RLIMIT_AS, (1500 << 20, resource.RLIM_INFINITY))
        env = kp.Env(empty=True); env.setParam("OutputFlag", 0); env.start()
        try:
            kp.read(sys.argv[1], env=env)
        except kp.KaviroError as e:
            print(e.errno, e.message)
    """)
    run = subprocess.run([sys.executable, "-c", script, str(path)], capture_output=True,
                         text=True, timeout=300)
    assert run.stdout.strip() == "%d %s, line 2: the line is longer than 256 MiB" % (
        KVR.ERROR_FILE_READ, path)


def test_smaller_messages(env, m, tmp_path):
    (tmp_path / "empty.lp").write_text("")
    assert read_error(tmp_path / "empty.lp", env) == (
        "%s: the file is empty: unexpected end of file: expected End" % (tmp_path / "empty.lp"))
    (tmp_path / "a.attr").write_text("{}")
    with pytest.raises(kp.KaviroError) as err:
        kp.read(str(tmp_path / "a.attr"), env=env)
    assert "it is an attribute file, not a model file" in err.value.message
    gone = kp.Model(env=env)
    v = gone.addVar()
    gone.update()
    gone.dispose()
    for touch in (lambda: v.LB, lambda: m.getAttr("LB", [v])):
        with pytest.raises(kp.KaviroError) as err:
            touch()
        assert "its model was disposed" in err.value.message


def test_c_interface_names_the_wrong_begin(m):
    m.addVars(3)
    m.update()
    add = clib.lib.KVRaddconstrs
    add.argtypes = [C.c_void_p, C.c_int, C.c_int, clib.IP, clib.IP, clib.DP, C.c_char_p, clib.DP,
                    C.c_void_p]
    ind = (C.c_int * 4)(0, 1, 2, 0)
    val = (C.c_double * 4)(1, 1, 1, 1)
    rhs = (C.c_double * 3)(1, 1, 1)
    for begins, message in [((0, 5, 2), "cbeg[1] = 5 is out of range (4 entries in all)"),
                            ((0, 3, 2), "cbeg[2] = 2 is below cbeg[1] = 3: begins must not "
                                        "decrease"),
                            ((-1, 0, 2), "cbeg[0] = -1 is out of range (4 entries in all)")]:
        beg = (C.c_int * 3)(*begins)
        assert add(m._cmodel, 3, 4, beg, ind, val, b"<<<", rhs, None) == KVR.ERROR_INVALID_ARGUMENT
        assert clib.lib.KVRgetmerrormsg(m._cmodel).decode() == message


def test_mps_column_listed_again_sums_its_entries_for_a_row(env, tmp_path):
    path = tmp_path / "again.mps"
    path.write_text("NAME t\nROWS\n N obj\n L c1\nCOLUMNS\n x obj 1 c1 2\n y c1 1\n x c1 3\n"
                    "RHS\n rhs c1 10\nENDATA\n")
    m = kp.read(str(path), env=env)
    assert m.NumNZs == 2 and m.getCoeff(m.getConstrs()[0], m.getVars()[0]) == 5
    m.write(str(tmp_path / "again.lp"))
    assert kp.read(str(tmp_path / "again.lp"), env=env).NumNZs == 2


def test_mps_data_lines_with_too_many_fields_fail_but_long_names_read(env, tmp_path):
    path = tmp_path / "wide.mps"
    path.write_text("NAME t\nROWS\n N obj\nCOLUMNS\n x obj 1\nRHS\nBOUNDS\n UP B x" + " 1" * 30
                    + "\nENDATA\n")
    assert read_error(path, env) == "%s, line 8: 33 fields on one line (at most 16 are meaningful)" % path
    m = kp.Model("a b " * 20, env=env)
    m.addVar(name="x")
    m.write(str(tmp_path / "named.mps"))
    assert kp.read(str(tmp_path / "named.mps"), env=env).NumVars == 1


# An endless file: a pipe fed until the reader goes away.
ENDLESS = {
    "endless.mps": ("NAME endless\nROWS\n N obj\n L c\nCOLUMNS\n", "    x{0} obj 1 c 1\n"),
    "endless.mst": ("", "x 1\n"),
}


@pytest.mark.parametrize("name", sorted(ENDLESS))
def test_interrupt_signal_stops_a_long_read(tmp_path, name):
    """Ctrl-C ends a read that would take forever with FILE_READ at once, the model keeps what
    it had, and afterwards Ctrl-C is Python's again (KeyboardInterrupt)."""
    import signal
    import threading

    fifo = tmp_path / name
    os.mkfifo(fifo)
    child = subprocess.Popen([sys.executable, "-c", textwrap.dedent(f"""
        import os, signal, time
        import kaviropy as kp
        env = kp.Env(empty=True)
        env.setParam("OutputFlag", 0)
        env.start()
        m = kp.Model(env=env)
        x = m.addVar(name="x")
        m.update()
        print("reading", flush=True)
        try:
            kp.read({str(fifo)!r}, env=env) if {name!r}.endswith(".mps") else m.read({str(fifo)!r})
        except kp.KaviroError as e:
            print(e.errno, e.message)
        print("start", x.Start)
        try:
            os.kill(os.getpid(), signal.SIGINT)
            time.sleep(5)
        except KeyboardInterrupt:
            print("KeyboardInterrupt")
        """)], stdout=subprocess.PIPE, text=True)
    head, line = ENDLESS[name]

    def feed():
        try:
            with open(fifo, "w") as out:
                out.write(head)
                for i in range(10**9):
                    out.write(line.format(i))
        except BrokenPipeError:
            pass

    writer = threading.Thread(target=feed, daemon=True)
    writer.start()
    try:
        assert child.stdout.readline() == "reading\n"
        import time
        time.sleep(0.5)
        child.send_signal(signal.SIGINT)
        out, _ = child.communicate(timeout=30)
    finally:
        child.kill()
    writer.join(timeout=10)
    lines = out.splitlines()
    assert lines[0].startswith(f"{KVR.ERROR_FILE_READ} {fifo}, line ")
    assert lines[0].endswith(": reading stopped by Ctrl-C")
    assert lines[1:] == [f"start {KVR.UNDEFINED}", "KeyboardInterrupt"]


def test_interrupt_signal_shared_by_a_read_and_a_solve_on_two_threads(tmp_path):
    clib.run_c_program(clib.build_c_program("interrupt_test", tmp_path), timeout=60)
