"""The solver library's C interface through ctypes, for tests of the library's own behaviour
(model files, data files) independent of the Python object model. `dump` turns a library model
into plain Python data, so that two models can be compared exactly. `build_c_program` and
`run_c_program` compile and run the C test programs of tests/c against the same library."""

import ctypes as C
import importlib.util
import os
import pathlib
import shutil
import subprocess

import kaviropy

INF = 1e100
C_SOURCES = pathlib.Path(__file__).resolve().parent / "c"


def package_dir():
    """The directory holding libkaviro100.so (and include/kaviro_c.h): the package itself, or,
    for an editable install, the directory of the compiled extension."""
    candidates = [pathlib.Path(kaviropy.__file__).resolve().parent]
    spec = importlib.util.find_spec("kaviropy._core")
    if spec is not None and spec.origin:
        candidates.append(pathlib.Path(spec.origin).resolve().parent)
    for d in candidates:
        if (d / "libkaviro100.so").exists():
            return d
    raise RuntimeError("libkaviro100.so not found in %s" % candidates)


def build_c_program(name, out_dir):
    """Compiles tests/c/<name>.c against the installed library into out_dir; skips the test when
    the system has no C compiler."""
    import pytest

    compiler = os.environ.get("CC") or shutil.which("cc") or shutil.which("gcc")
    if compiler is None:
        pytest.skip("no C compiler on this system")
    pkg = package_dir()
    assert (pkg / "include" / "kaviro_c.h").exists(), "no include/kaviro_c.h in %s" % pkg
    exe = pathlib.Path(out_dir) / name
    cmd = [compiler, "-std=c11", "-Wall", "-Wextra", "-Werror", "-O1", "-g",
           "-I", str(pkg / "include"), str(C_SOURCES / (name + ".c")), "-o", str(exe),
           "-L", str(pkg), "-lkaviro100", "-Wl,-rpath," + str(pkg), "-lm"]
    build = subprocess.run(cmd, capture_output=True, text=True)
    assert build.returncode == 0, "compiling %s.c failed:\n%s" % (name, build.stderr)
    return exe


def run_c_program(cmd, timeout=600):
    """Runs a C test program (cmd: its path, or a list with a wrapper in front) and checks that
    it exits with 0 after reporting no failed check."""
    args = cmd if isinstance(cmd, list) else [cmd]
    result = subprocess.run([str(a) for a in args], capture_output=True, text=True,
                            timeout=timeout)
    assert result.returncode == 0, result.stdout + result.stderr
    assert " 0 failed" in result.stdout, result.stdout + result.stderr


lib = C.CDLL(str(package_dir() / "libkaviro100.so"))
P, I, D, S = C.c_void_p, C.c_int, C.c_double, C.c_char_p
IP, DP = C.POINTER(C.c_int), C.POINTER(C.c_double)
_SIGS = {
    "KVRemptyenv": [C.POINTER(P)], "KVRstartenv": [P], "KVRfreeenv": [P],
    "KVRsetintparam": [P, S, I], "KVRsetparam": [P, S, S], "KVRgeterrormsg": [P],
    "KVRgetdblparam": [P, S, DP],
    "KVRnewmodel": [P, C.POINTER(P), S, I, DP, DP, DP, S, C.POINTER(S)],
    "KVRreadmodel": [P, S, C.POINTER(P)], "KVRread": [P, S], "KVRwrite": [P, S],
    "KVRfreemodel": [P], "KVRgetmerrormsg": [P], "KVRupdatemodel": [P], "KVRgetenv": [P],
    "KVRismodelfile": [S], "KVRisattrfile": [S], "KVRgetjsonsolution": [P, C.POINTER(P)],
    "KVRfree": [P],
    "KVRaddvar": [P, I, IP, DP, D, D, D, C.c_char, S],
    "KVRaddconstr": [P, I, IP, DP, C.c_char, D, S],
    "KVRaddrangeconstr": [P, I, IP, DP, D, D, S],
    "KVRaddqconstr": [P, I, IP, DP, I, IP, IP, DP, C.c_char, D, S],
    "KVRaddsos": [P, I, I, IP, IP, IP, DP], "KVRaddqpterms": [P, I, IP, IP, DP],
    "KVRsetobjectiven": [P, I, I, D, D, D, S, D, I, IP, DP],
    "KVRsetpwlobj": [P, I, I, DP, DP], "KVRgetpwlobj": [P, I, IP, DP, DP],
    "KVRaddgenconstrMax": [P, S, I, I, IP, D], "KVRaddgenconstrMin": [P, S, I, I, IP, D],
    "KVRaddgenconstrAbs": [P, S, I, I], "KVRaddgenconstrAnd": [P, S, I, I, IP],
    "KVRaddgenconstrOr": [P, S, I, I, IP], "KVRaddgenconstrNorm": [P, S, I, I, IP, D],
    "KVRaddgenconstrIndicator": [P, S, I, I, I, IP, DP, C.c_char, D],
    "KVRaddgenconstrPWL": [P, S, I, I, I, DP, DP], "KVRaddgenconstrPoly": [P, S, I, I, I, DP, S],
    "KVRaddgenconstrExp": [P, S, I, I, S], "KVRaddgenconstrExpA": [P, S, I, I, D, S],
    "KVRaddgenconstrLog": [P, S, I, I, S], "KVRaddgenconstrLogA": [P, S, I, I, D, S],
    "KVRaddgenconstrPow": [P, S, I, I, D, S], "KVRaddgenconstrSin": [P, S, I, I, S],
    "KVRaddgenconstrCos": [P, S, I, I, S], "KVRaddgenconstrTan": [P, S, I, I, S],
    "KVRaddgenconstrLogistic": [P, S, I, I, S],
    "KVRgetintattr": [P, S, IP], "KVRgetdblattr": [P, S, DP], "KVRgetstrattr": [P, S, C.POINTER(S)],
    "KVRsetintattr": [P, S, I], "KVRsetdblattr": [P, S, D], "KVRsetstrattr": [P, S, S],
    "KVRgetdblattrarray": [P, S, I, I, DP], "KVRgetintattrarray": [P, S, I, I, IP],
    "KVRgetcharattrarray": [P, S, I, I, C.c_char_p], "KVRgetstrattrarray": [P, S, I, I, C.POINTER(S)],
    "KVRsetdblattrarray": [P, S, I, I, DP], "KVRsetintattrarray": [P, S, I, I, IP],
    "KVRsetstrattrarray": [P, S, I, I, C.POINTER(S)],
    "KVRsetcharattrarray": [P, S, I, I, C.c_char_p],
    "KVRXgetconstrs": [P, C.POINTER(C.c_size_t), C.POINTER(C.c_size_t), IP, DP, I, I],
    "KVRgetq": [P, IP, IP, IP, DP], "KVRgetqconstr": [P, I, IP, IP, DP, IP, IP, IP, DP],
    "KVRgetsos": [P, IP, IP, IP, IP, DP, I, I],
    "KVRgetgenconstrMax": [P, I, IP, IP, IP, DP], "KVRgetgenconstrMin": [P, I, IP, IP, IP, DP],
    "KVRgetgenconstrAbs": [P, I, IP, IP], "KVRgetgenconstrAnd": [P, I, IP, IP, IP],
    "KVRgetgenconstrOr": [P, I, IP, IP, IP], "KVRgetgenconstrNorm": [P, I, IP, IP, IP, DP],
    "KVRgetgenconstrIndicator": [P, I, IP, IP, IP, IP, DP, C.c_char_p, DP],
    "KVRgetgenconstrPWL": [P, I, IP, IP, IP, DP, DP], "KVRgetgenconstrPoly": [P, I, IP, IP, IP, DP],
}
for _name, _args in _SIGS.items():
    _f = getattr(lib, _name)
    _f.argtypes = _args
    _f.restype = I
for _name in ("KVRgeterrormsg", "KVRgetmerrormsg"):
    getattr(lib, _name).restype = C.c_char_p
lib.KVRgetenv.restype = P
lib.KVRfreeenv.restype = None
lib.KVRfree.restype = None


class LibraryError(Exception):
    def __init__(self, code, message):
        super().__init__("%d: %s" % (code, message))
        self.code, self.message = code, message


def _ints(v):
    return (C.c_int * max(len(v), 1))(*v)


def _dbls(v):
    return (C.c_double * max(len(v), 1))(*v)


def _b(s):
    return None if s is None else s.encode()


def new_env(**params):
    env = P()
    assert lib.KVRemptyenv(C.byref(env)) == 0
    lib.KVRsetintparam(env, b"OutputFlag", 0)
    for k, v in params.items():
        assert lib.KVRsetparam(env, k.encode(), str(v).encode()) == 0
    assert lib.KVRstartenv(env) == 0
    return env


class Model:
    """Owns a library model; methods raise LibraryError with the model's message."""

    def __init__(self, env, ptr):
        self.env, self.ptr = env, ptr

    @classmethod
    def new(cls, env, name="m"):
        p = P()
        assert lib.KVRnewmodel(env, C.byref(p), _b(name), 0, None, None, None, None, None) == 0
        return cls(env, p)

    @classmethod
    def read(cls, env, filename):
        p = P()
        code = lib.KVRreadmodel(env, str(filename).encode(), C.byref(p))
        if code:
            raise LibraryError(code, lib.KVRgeterrormsg(env).decode())
        return cls(env, p)

    def free(self):
        if self.ptr:
            lib.KVRfreemodel(self.ptr)
            self.ptr = None

    def call(self, name, *args):
        code = getattr(lib, name)(self.ptr, *args)
        if code:
            raise LibraryError(code, lib.KVRgetmerrormsg(self.ptr).decode())

    # building
    def var(self, lb=0.0, ub=INF, obj=0.0, vtype="C", name=None):
        self.call("KVRaddvar", 0, None, None, obj, lb, ub, vtype.encode(), _b(name))
        self.call("KVRupdatemodel")  # counts show the model as of the last update
        return self.num("NumVars") - 1

    def constr(self, ind, val, sense, rhs, name=None):
        self.call("KVRaddconstr", len(ind), _ints(ind), _dbls(val), sense.encode(), rhs, _b(name))

    def write(self, filename):
        self.call("KVRwrite", str(filename).encode())

    def readdata(self, filename):
        self.call("KVRread", str(filename).encode())

    def update(self):
        self.call("KVRupdatemodel")

    def setparam(self, name, value):
        assert lib.KVRsetparam(lib.KVRgetenv(self.ptr), name.encode(), str(value).encode()) == 0

    # queries
    def num(self, attr):
        v = C.c_int()
        self.call("KVRgetintattr", attr.encode(), C.byref(v))
        return v.value

    def dbl(self, attr):
        v = C.c_double()
        self.call("KVRgetdblattr", attr.encode(), C.byref(v))
        return v.value

    def string(self, attr):
        v = C.c_char_p()
        self.call("KVRgetstrattr", attr.encode(), C.byref(v))
        return v.value.decode()

    def dbls(self, attr, n):
        a = (C.c_double * max(n, 1))()
        self.call("KVRgetdblattrarray", attr.encode(), 0, n, a)
        return list(a[:n])

    def ints(self, attr, n):
        a = (C.c_int * max(n, 1))()
        self.call("KVRgetintattrarray", attr.encode(), 0, n, a)
        return list(a[:n])

    def chars(self, attr, n):
        a = C.create_string_buffer(max(n, 1))
        self.call("KVRgetcharattrarray", attr.encode(), 0, n, a)
        return a.raw[:n].decode()

    def strs(self, attr, n):
        a = (C.c_char_p * max(n, 1))()
        self.call("KVRgetstrattrarray", attr.encode(), 0, n, a)
        return [a[i].decode() for i in range(n)]

    def json(self):
        buf = P()
        self.call("KVRgetjsonsolution", C.byref(buf))
        text = C.cast(buf, C.c_char_p).value.decode()
        lib.KVRfree(buf)
        return text


def _rows(m, n):
    nnz = C.c_size_t()
    m.call("KVRXgetconstrs", C.byref(nnz), None, None, None, 0, n)
    beg = (C.c_size_t * (n + 1))()
    ind = (C.c_int * max(nnz.value, 1))()
    val = (C.c_double * max(nnz.value, 1))()
    m.call("KVRXgetconstrs", C.byref(nnz), beg, ind, val, 0, n)
    beg[n] = nnz.value
    return [sorted(zip(ind[beg[i]:beg[i + 1]], val[beg[i]:beg[i + 1]])) for i in range(n)]


def _quad(rows, cols, vals):
    return sorted((min(r, c), max(r, c), v) for r, c, v in zip(rows, cols, vals))


def _genconstr(m, i, gtype):
    a, b, n = C.c_int(), C.c_int(), C.c_int()
    d = C.c_double()
    if gtype in (0, 1, 5):  # max, min, norm: vars and a constant
        fn = {0: "KVRgetgenconstrMax", 1: "KVRgetgenconstrMin", 5: "KVRgetgenconstrNorm"}[gtype]
        m.call(fn, i, C.byref(a), C.byref(n), None, C.byref(d))
        vs = (C.c_int * max(n.value, 1))()
        m.call(fn, i, C.byref(a), C.byref(n), vs, C.byref(d))
        return (a.value, list(vs[:n.value]), d.value)
    if gtype == 2:
        m.call("KVRgetgenconstrAbs", i, C.byref(a), C.byref(b))
        return (a.value, b.value)
    if gtype in (3, 4):
        fn = "KVRgetgenconstrAnd" if gtype == 3 else "KVRgetgenconstrOr"
        m.call(fn, i, C.byref(a), C.byref(n), None)
        vs = (C.c_int * max(n.value, 1))()
        m.call(fn, i, C.byref(a), C.byref(n), vs)
        return (a.value, list(vs[:n.value]))
    if gtype == 6:
        sense, rhs = C.create_string_buffer(1), C.c_double()
        m.call("KVRgetgenconstrIndicator", i, C.byref(a), C.byref(b), C.byref(n), None, None,
               sense, C.byref(rhs))
        ind, val = (C.c_int * max(n.value, 1))(), (C.c_double * max(n.value, 1))()
        m.call("KVRgetgenconstrIndicator", i, C.byref(a), C.byref(b), C.byref(n), ind, val,
               sense, C.byref(rhs))
        return (a.value, b.value, sorted(zip(ind[:n.value], val[:n.value])), sense.raw, rhs.value)
    if gtype == 7:
        m.call("KVRgetgenconstrPWL", i, C.byref(a), C.byref(b), C.byref(n), None, None)
        xs, ys = (C.c_double * n.value)(), (C.c_double * n.value)()
        m.call("KVRgetgenconstrPWL", i, C.byref(a), C.byref(b), C.byref(n), xs, ys)
        return (a.value, b.value, list(xs), list(ys))
    if gtype == 8:
        m.call("KVRgetgenconstrPoly", i, C.byref(a), C.byref(b), C.byref(n), None)
        p = (C.c_double * n.value)()
        m.call("KVRgetgenconstrPoly", i, C.byref(a), C.byref(b), C.byref(n), p)
        return (a.value, b.value, list(p))
    return None  # the other function constraints: their variables are compared through dump


def dump(m, names=True):
    """Everything a model file holds, as plain data (rows as sorted entry lists)."""
    m.update()
    n, r = m.num("NumVars"), m.num("NumConstrs")
    out = {
        "sense": m.num("ModelSense"), "objcon": m.dbl("ObjCon"),
        "lb": m.dbls("LB", n), "ub": m.dbls("UB", n), "obj": m.dbls("Obj", n),
        "vtype": m.chars("VType", n), "rsense": m.chars("Sense", r), "rhs": m.dbls("RHS", r),
        "rows": _rows(m, r), "lazy": m.ints("Lazy", r),
    }
    if names:
        out["varnames"] = m.strs("VarName", n)
        out["constrnames"] = m.strs("ConstrName", r)
    nq = C.c_int()
    m.call("KVRgetq", C.byref(nq), None, None, None)
    qr, qc, qv = (C.c_int * max(nq.value, 1))(), (C.c_int * max(nq.value, 1))(), (C.c_double * max(nq.value, 1))()
    m.call("KVRgetq", C.byref(nq), qr, qc, qv)
    out["q"] = _quad(qr[:nq.value], qc[:nq.value], qv[:nq.value])
    qcs = []
    for i in range(m.num("NumQConstrs")):
        nl, nqq = C.c_int(), C.c_int()
        m.call("KVRgetqconstr", i, C.byref(nl), None, None, C.byref(nqq), None, None, None)
        li, lv = (C.c_int * max(nl.value, 1))(), (C.c_double * max(nl.value, 1))()
        a, b, v = (C.c_int * max(nqq.value, 1))(), (C.c_int * max(nqq.value, 1))(), (C.c_double * max(nqq.value, 1))()
        m.call("KVRgetqconstr", i, C.byref(nl), li, lv, C.byref(nqq), a, b, v)
        qcs.append((sorted(zip(li[:nl.value], lv[:nl.value])), _quad(a[:nqq.value], b[:nqq.value], v[:nqq.value])))
    nqc = len(qcs)
    if nqc:
        out["qcsense"], out["qcrhs"] = m.chars("QCSense", nqc), m.dbls("QCRHS", nqc)
        if names:
            out["qcnames"] = m.strs("QCName", nqc)
    out["qconstrs"] = qcs
    ns = m.num("NumSOS")
    if ns:
        nm = C.c_int()
        m.call("KVRgetsos", C.byref(nm), None, None, None, None, 0, ns)
        t, beg = (C.c_int * ns)(), (C.c_int * (ns + 1))()
        ind, w = (C.c_int * max(nm.value, 1))(), (C.c_double * max(nm.value, 1))()
        m.call("KVRgetsos", C.byref(nm), t, beg, ind, w, 0, ns)
        beg[ns] = nm.value
        out["sos"] = [(t[s], list(zip(ind[beg[s]:beg[s + 1]], w[beg[s]:beg[s + 1]]))) for s in range(ns)]
    ng = m.num("NumGenConstrs")
    if ng:
        types = m.ints("GenConstrType", ng)
        out["gentypes"] = types
        out["gens"] = [_genconstr(m, i, t) for i, t in enumerate(types)]
        if names:
            out["gennames"] = m.strs("GenConstrName", ng)
    nobj = m.num("NumObj")
    objs = []
    for k in range(nobj):
        m.setparam("ObjNumber", k)
        objs.append((m.dbls("ObjN", n), m.dbl("ObjNCon"), m.num("ObjNPriority"), m.dbl("ObjNWeight"),
                     m.dbl("ObjNAbsTol"), m.dbl("ObjNRelTol")) + ((m.string("ObjNName"),) if names and nobj > 1 else ()))
    m.setparam("ObjNumber", 0)
    out["objn"] = objs
    pwl = []
    for j in range(n):
        np_ = C.c_int()
        m.call("KVRgetpwlobj", j, C.byref(np_), None, None)
        if np_.value:
            xs, ys = (C.c_double * np_.value)(), (C.c_double * np_.value)()
            m.call("KVRgetpwlobj", j, C.byref(np_), xs, ys)
            pwl.append((j, list(xs), list(ys)))
    out["pwl"] = pwl
    return out
