"""Model files (LP, MPS, compressed) through the library's C interface: the shipped instances
read and round-trip, models with every feature round-trip, names, and malformed files."""

import bz2
import gzip
import math

import pytest

import clib
from clib import INF, LibraryError, Model
from conftest import INSTANCES

FILE_READ, FILE_WRITE, NOT_SUPPORTED = 10012, 10013, 10024
INVALID_ARGUMENT, DATA_NOT_AVAILABLE = 10003, 10005


@pytest.fixture(scope="module")
def env():
    e = clib.new_env()
    yield e
    clib.lib.KVRfreeenv(e)


def read_text(env, path, text):
    """Writes a model file with this text and reads it (the caller frees the model)."""
    path.write_text(text)
    return Model.read(env, path)


def roundtrip(env, m, path):
    m.write(path)
    back = Model.read(env, path)
    try:
        return clib.dump(back)
    finally:
        back.free()


# ---------------------------------------------------------------- the instances


@pytest.mark.parametrize("name", sorted(p.name for p in INSTANCES.glob("*.mps")))
def test_instance_reads_and_roundtrips(env, tmp_path, name):
    m = Model.read(env, INSTANCES / name)
    try:
        original = clib.dump(m)
        assert m.num("NumVars") > 0 and m.num("NumConstrs") > 0
        assert roundtrip(env, m, tmp_path / "a.lp") == original
        assert roundtrip(env, m, tmp_path / "a.mps") == original
    finally:
        m.free()


@pytest.mark.parametrize("name, rows, cols, nnz", [
    ("afiro.mps", 27, 32, 83), ("greenbea.mps", 2392, 5405, 30877),
    ("p0548.mps", 176, 548, 1711), ("standgub.mps", 361, 1184, 3140)])
def test_instance_sizes(env, name, rows, cols, nnz):
    # standgub holds one explicit zero coefficient, which is kept.
    m = Model.read(env, INSTANCES / name)
    assert (m.num("NumConstrs"), m.num("NumVars"), m.num("NumNZs")) == (rows, cols, nnz)
    m.free()


def test_mps_conventions_of_small_mip(env):
    """Integer columns without bounds get [0, 1]; ranges become range variables 'Rg<row>'."""
    m = Model.read(env, INSTANCES / "small_mip.mps")
    d = clib.dump(m)
    names = d["varnames"]
    assert names[-2:] == ["RgROW04", "RgROW05"]
    col = {n: i for i, n in enumerate(names)}
    assert d["vtype"][col["COL03"]] == "I" and (d["lb"][col["COL03"]], d["ub"][col["COL03"]]) == (0, 1)
    assert (d["lb"][col["COL01"]], d["ub"][col["COL01"]]) == (2.5, INF)
    # ROW04: G row, rhs 1.8, range 3.2 -> [1.8, 5.0]; ROW05: G row, rhs 3, range 12 -> [3, 15].
    assert (d["lb"][col["RgROW04"]], d["ub"][col["RgROW04"]]) == (1.8, 1.8 + 3.2)
    assert (d["lb"][col["RgROW05"]], d["ub"][col["RgROW05"]]) == (3.0, 15.0)
    r4 = d["constrnames"].index("ROW04")
    assert d["rsense"][r4] == "=" and d["rhs"][r4] == 0.0
    assert (col["RgROW04"], -1.0) in d["rows"][r4]
    m.free()


# ---------------------------------------------------------------- every feature


def feature_model(env, multi=False):
    m = Model.new(env, "features")
    x = m.var(0, 10, 1.5, "C", "x[0,1]")
    y = m.var(-5, 5, -2, "I", "f(a,b)")
    b1 = m.var(0, 1, 0, "B", "b1")
    b2 = m.var(0, 1, 0, "B", "b.2")
    s = m.var(2, 8, 0, "S", "sc")
    n = m.var(1, 6, 0, "N", "semiint")
    z = m.var(-INF, INF, 0, "C", "z#free")
    w = m.var(-INF, 3, 0, "C", "w")
    u = m.var(2, 2, 0, "C", "fixed")
    t = m.var(0, INF, 0, "I", "intfree")
    neg = m.var(0, -1, 0, "C", "negub")      # upper bound below the lower bound of 0
    bb = m.var(-1, 3, 0, "B", "oddbin")       # a binary with bounds other than [0, 1]
    p = m.var(0, 4, 0, "C", "pwlvar")
    r = m.var(-INF, INF, 0, "C", "res")
    e = m.var(0, INF, 0, "C", None)           # unnamed: written as C<i>
    m.constr([x, y, z], [1, 2, -1], "<", 10, "c1")
    m.constr([y, x], [3, -1.25], ">", -4, "c2")
    m.constr([s, n, e], [1, 1, 1e-7], "=", 3, "c3")
    m.constr([], [], "<", 5, "empty")
    m.constr([w], [1], "<", INF, None)
    m.call("KVRaddrangeconstr", 2, clib._ints([x, w]), clib._dbls([1, 1]), -2.0, 7.5, b"rng")
    m.call("KVRaddqpterms", 3, clib._ints([x, x, y]), clib._ints([x, y, y]), clib._dbls([2, -1, 0.5]))
    m.call("KVRaddqconstr", 1, clib._ints([z]), clib._dbls([1]), 2, clib._ints([x, x]),
           clib._ints([x, y]), clib._dbls([1, 3]), b"<", 4.0, b"qc1")
    m.call("KVRaddqconstr", 1, clib._ints([y]), clib._dbls([2]), 1, clib._ints([w]),
           clib._ints([w]), clib._dbls([-1]), b">", -9.0, None)
    m.call("KVRaddsos", 2, 5, clib._ints([1, 2]), clib._ints([0, 2]), clib._ints([x, y, s, n, t]),
           clib._dbls([1, 2, 1, 2, 3]))
    gc = [("KVRaddgenconstrMax", b"mx", r, 2, clib._ints([x, y]), 3.5),
          ("KVRaddgenconstrMin", b"mn", r, 2, clib._ints([x, y]), INF),
          ("KVRaddgenconstrAbs", b"ab", r, x),
          ("KVRaddgenconstrAnd", b"an", b1, 1, clib._ints([b2])),
          ("KVRaddgenconstrOr", None, b1, 2, clib._ints([b2, bb])),
          ("KVRaddgenconstrNorm", b"n2", r, 2, clib._ints([x, y]), 2.0),
          ("KVRaddgenconstrNorm", b"ninf", r, 1, clib._ints([x]), INF),
          ("KVRaddgenconstrIndicator", b"ind", b1, 0, 2, clib._ints([x, y]), clib._dbls([1, -1]), b"<", 2.0),
          ("KVRaddgenconstrPWL", b"pw", x, p, 3, clib._dbls([0, 1, 1]), clib._dbls([0, 2, 3])),
          ("KVRaddgenconstrPoly", b"po", x, p, 3, clib._dbls([1, 0, -2.5]), b""),
          ("KVRaddgenconstrExp", b"ex", x, p, b"FuncPieces=5 FuncPieceError=0.01"),
          ("KVRaddgenconstrExpA", b"exa", x, p, 2.0, b""),
          ("KVRaddgenconstrLog", b"lg", x, p, b""),
          ("KVRaddgenconstrLogA", b"lga", x, p, 10.0, b""),
          ("KVRaddgenconstrPow", b"pw2", x, p, 1.5, b""),
          ("KVRaddgenconstrSin", b"si", x, p, b""),
          ("KVRaddgenconstrCos", b"co", x, p, b""),
          ("KVRaddgenconstrTan", b"ta", x, p, b""),
          ("KVRaddgenconstrLogistic", b"lo", x, p, b"")]
    for name, *args in gc:
        m.call(name, *args)
    m.call("KVRsetpwlobj", p, 3, clib._dbls([0, 1, 4]), clib._dbls([0, -1, 5]))
    m.call("KVRsetdblattr", b"ObjCon", 4.25)
    m.call("KVRsetintattr", b"ModelSense", -1)
    m.update()
    m.call("KVRsetintattrarray", b"Lazy", 0, 6, clib._ints([0, 2, 1, 0, 3, 0]))
    if multi:
        m.call("KVRsetobjectiven", 1, 2, 0.5, 0.01, 0.1, b"second", 1.0, 2, clib._ints([y, z]),
               clib._dbls([3, -1]))
        m.call("KVRsetobjectiven", 2, 0, -1.0, 0.0, 0.0, None, 0.0, 1, clib._ints([w]), clib._dbls([1]))
    m.update()
    return m


@pytest.mark.parametrize("suffix", [".lp", ".mps", ".lp.gz", ".mps.bz2"])
def test_every_feature_roundtrips(env, tmp_path, suffix):
    m = feature_model(env)
    d = clib.dump(m)
    # The model holds what was built (a check of the dump itself).
    assert d["lazy"] == [0, 2, 1, 0, 3, 0] and len(d["gens"]) == 19 and d["pwl"]
    # Unnamed elements show (and are written with) their generated names.
    assert d["varnames"][14] == "C14" and d["constrnames"][4] == "R4"
    assert roundtrip(env, m, tmp_path / ("m" + suffix)) == d
    m.free()


def test_multiple_objectives_roundtrip_in_lp_only(env, tmp_path):
    m = feature_model(env, multi=True)
    d = clib.dump(m)
    assert len(d["objn"]) == 3
    back = roundtrip(env, m, tmp_path / "multi.lp")
    # Objectives without a name read back with their generated names.
    d["objn"][0] = d["objn"][0][:-1] + ("OBJ0",)
    d["objn"][2] = d["objn"][2][:-1] + ("OBJ2",)
    assert back == d
    with pytest.raises(LibraryError) as err:
        m.write(tmp_path / "multi.mps")
    assert err.value.code == NOT_SUPPORTED and "LP format" in err.value.message
    assert not (tmp_path / "multi.mps").exists()
    m.free()


def test_written_lp_is_readable_text(env, tmp_path):
    m = Model.new(env, "tiny")
    x, y = m.var(0, 4, 3, "C", "x"), m.var(0, INF, 2, "I", "y")
    m.constr([x, y], [1, 1], "<", 5, "cap")
    m.write(tmp_path / "t.lp")
    text = (tmp_path / "t.lp").read_text()
    assert "Minimize\n obj" not in text  # unnamed objective: no label
    assert " 3 x + 2 y" in text and " cap: x + y <= 5" in text
    assert " x <= 4" in text and "Generals\n y" in text and text.endswith("End\n")
    m.free()


# ---------------------------------------------------------------- names


@pytest.mark.parametrize("suffix", [".lp", ".mps"])
def test_names_with_allowed_characters_roundtrip(env, tmp_path, suffix):
    names = ["x[1,2]", "a.b/c", "#$%&!?@_~'{}|", "v(a,[b])", "1G0EXP", "...100", "\u00fcber"]
    m = Model.new(env)
    for k, nm in enumerate(names):
        m.var(0, k + 1, 1, "C", nm)
    m.constr([0, 1], [1, 1], "<", 3, "2")     # a label that is a number
    m.constr([2], [1], ">", 0, "c:d" if suffix == ".mps" else "c-d")
    back = roundtrip(env, m, tmp_path / ("n" + suffix))
    assert back == clib.dump(m)
    m.free()


@pytest.mark.parametrize("suffix, name, why", [
    (".lp", "a b", "LP variable names"), (".lp", "x-y", "LP variable names"),
    (".lp", "3", "LP variable names"), (".lp", "free", "keyword"),
    (".mps", "a b", "blanks"), (".lp", "c:d", "labels cannot contain")])
def test_names_a_format_cannot_hold_fail_the_write(env, tmp_path, suffix, name, why):
    m = Model.new(env)
    if why.startswith("labels"):
        m.var(0, 1, 1, "C", "x")
        m.constr([0], [1], "<", 1, name)
    else:
        m.var(0, 1, 1, "C", name)
    path = tmp_path / ("bad" + suffix)
    with pytest.raises(LibraryError) as err:
        m.write(path)
    assert err.value.code == INVALID_ARGUMENT and why in err.value.message and name in err.value.message
    assert not path.exists()  # no partial file
    m.free()


@pytest.mark.parametrize("suffix", [".lp", ".mps"])
def test_duplicate_names_fail_the_write(env, tmp_path, suffix):
    m = Model.new(env)
    m.var(name="x")
    m.var(name="x")
    with pytest.raises(LibraryError) as err:
        m.write(tmp_path / ("d" + suffix))
    assert err.value.code == INVALID_ARGUMENT and "both named 'x'" in err.value.message
    m.free()
    # Rows are named in the COLUMNS section of MPS files: their names must differ too.
    m = Model.new(env)
    m.var(name="x")
    m.constr([0], [1], "<", 1, "c")
    m.constr([0], [1], ">", 0, "c")
    if suffix == ".mps":
        with pytest.raises(LibraryError) as err:
            m.write(tmp_path / "rows.mps")
        assert err.value.code == INVALID_ARGUMENT and "constraint 1 has the name 'c'" in err.value.message
    else:
        assert roundtrip(env, m, tmp_path / "rows.lp") == clib.dump(m)
    m.free()


def test_what_no_model_file_holds_fails_the_write(env, tmp_path):
    m = Model.new(env)
    m.var(name="x")
    m.call("KVRsetintattr", b"NumScenarios", 1)
    for suffix in (".lp", ".mps"):
        with pytest.raises(LibraryError) as err:
            m.write(tmp_path / ("s" + suffix))
        assert err.value.code == NOT_SUPPORTED and "scenarios" in err.value.message
    m.free()


def test_null_arguments(env):
    p = clib.P()
    assert clib.lib.KVRreadmodel(env, None, clib.C.byref(p)) == 10002
    assert clib.lib.KVRreadmodel(None, b"x.lp", clib.C.byref(p)) == 10002
    m = Model.new(env)
    assert clib.lib.KVRwrite(m.ptr, None) == 10002 and clib.lib.KVRread(m.ptr, None) == 10002
    assert clib.lib.KVRgetjsonsolution(m.ptr, None) == 10002
    assert clib.lib.KVRismodelfile(None) == -1
    m.free()


# ---------------------------------------------------------------- malformed files

MPS_HEAD = "NAME t\nROWS\n N obj\n L c1\nCOLUMNS\n x obj 1 c1 1\n"
MPS_ERRORS = [
    ("NAME t\nROW\n", 2, "unknown section 'ROW'"),
    ("NAME t\nROWS\n X c1\n", 3, "unknown row type 'X'"),
    ("NAME t\nROWS\n L c1\n G c1\n", 4, "row 'c1' is declared twice"),
    (MPS_HEAD + " y c2 1\n", 7, "unknown row 'c2'"),
    (MPS_HEAD + " y c1 abc\n", 7, "expected a number for the coefficient of column 'y' in row 'c1'"),
    (MPS_HEAD + " x c1 2\n", 7, "second entry for column 'x' in row 'c1'"),
    (MPS_HEAD + " M 'MARKER' 'INTBEGIN'\n", 7, "expected 'INTORG' or 'INTEND'"),
    (MPS_HEAD + "RHS\n rhs c1 1x\n", 8, "expected a number for a right-hand side"),
    (MPS_HEAD + "BOUNDS\n UP bnd y 1\n", 8, "unknown column 'y'"),
    (MPS_HEAD + "BOUNDS\n XX bnd x 1\n", 8, "unknown bound type 'XX'"),
    (MPS_HEAD + "BOUNDS\n UP bnd x\n", 8, "unknown column 'bnd' in bound of type UP"),
    (MPS_HEAD + "BOUNDS\n UP bnd x 1e\n", 8, "expected a number for a bound, found '1e'"),
    (MPS_HEAD + "RHS\n", 7, "unexpected end of file: expected ENDATA"),
    (" x obj 1\n", 1, "data line before the first section"),
    (MPS_HEAD + "ROWS\n", 7, "section ROWS cannot follow section COLUMNS"),
    (MPS_HEAD + "QCMATRIX c9\n", 7, "unknown row 'c9'"),
    (MPS_HEAD + "INDICATORS\n IF c1 x 2\n", 8, "expected 0 or 1 as the indicator value"),
    (MPS_HEAD + "GENCONS\n MAX g\n    FOO x\n", 9, "unexpected item 'FOO'"),
    (MPS_HEAD + "PWLOBJ\n x 1 0\n x 0 1\n", 9, "x values of the points of column 'x' decrease"),
    (MPS_HEAD + "SOS\n x 1\n", 8, "expected S1 or S2 to begin a set"),
    (MPS_HEAD + " y c1 1e999\n", 7, "coefficient of column 'y' in row 'c1' is infinite"),
    ("NAME t\nOBJNAME\n cost\nROWS\n N obj\nCOLUMNS\n x obj 1\nENDATA\n", 3,
     "the objective row 'cost' named by OBJNAME is not a row"),
    (MPS_HEAD + "GENCONS\n EXP g\n    X x\nENDATA\n", 8, "general constraint 'g' of type EXP needs X and Y"),
    (MPS_HEAD + "GENCONS\n NORM g\n    WHICH 3\n", 9, "the norm must be 0, 1, 2 or infinity"),
    (MPS_HEAD + "QCMATRIX obj\n", 7, "QCMATRIX for objective or free row 'obj'"),
    (MPS_HEAD + "RANGES\n rng c1 2\nINDICATORS\n IF c1 x 1\n", 10, "row 'c1' has a range"),
    ("NAME t\nROWS\n L " + "r" * 256 + "\n", 3, "longer than 255 characters"),
]
LP_ERRORS = [
    ("Subject To\n c: x <= 1\nEnd\n", 1, "expected Minimize or Maximize before this section"),
    ("Minimize\n x + y\nSubject To\n c: x + y 3\nEnd\n", 4, "expected '+', '-' or a sense"),
    ("Minimize\n x\nSubject To\n c: x <= \nEnd\n", 5, "expected a right-hand side, found section header 'End'"),
    ("Minimize\n x\nSubject To\n c: x + $ <= 1\n", 4, "unexpected end of file: expected End"),
    ("Minimize\n x\nSubject To\n c: x % ; <= 1\nEnd\n", 4, "expected '+', '-' or a sense"),
    ("Minimize\n x + [ x ^ 3 ]\nEnd\n", 2, "expected the exponent 2"),
    ("Minimize\n x\nSubject To\n c: -1 <= x >= 2\nEnd\n", 4, "both be <= or both be >="),
    ("Minimize\n x\nBounds\n x <> 3\nEnd\n", 4, "expected a bound, found '>'"),
    ("Minimize\n x\nBounds\n x 3\nEnd\n", 4, "expected 'free' or a sense"),
    ("Minimize\n x\nSOS\n s: S3 :: x:1\nEnd\n", 4, "expected S1 or S2"),
    ("Minimize\n x\nGeneral Constraints\n g: x = FOO ( x )\nEnd\n", 4, "unknown function 'FOO'"),
    ("Minimize\n x\nLazy Constraints 7\n c: x <= 1\nEnd\n", 3, "lazy level must be -1, 1, 2 or 3"),
    ("Minimize\n x\nSubject To\n c: x <= 1\n\x01\nEnd\n", 5, "unexpected character"),
    ("Minimize\n x\nPWLObj\n x: ( 1 , 0 ) ( 0 , 1 )\nEnd\n", 4, "x values of the points decrease"),
    ("Minimize multi-objectives\n o1: Prio=1\n x\nEnd\n", 2, "unknown objective setting 'Prio'"),
    ("Minimize\n 1e400 x\nEnd\n", 2, "'1e400' is infinite"),
    ("Minimize\n x\nMaximize\n y\nEnd\n", 3, "second objective section"),
    ("Minimize\n x\nSubject To\n r: 1 <= x + [ x ^ 2 ] <= 2\nEnd\n", 4, "a range constraint cannot be quadratic"),
    ("Minimize\n x\nLazy Constraints\n r: x + [ x ^ 2 ] <= 2\nEnd\n", 4, "a lazy constraint cannot be quadratic"),
    ("Minimize\n x\nGeneral Constraints\n g: x = ABS ( y , z )\nEnd\n", 4, "ABS takes exactly one variable"),
    ("Minimize\n x\nGeneral Constraints\n g: x = NORM3 ( y )\nEnd\n", 4, "unknown norm 'NORM3'"),
    ("Minimize\n x\nGeneral Constraints\n g: x = NORMX ( y )\nEnd\n", 4, "unknown norm 'NORMX'"),
    ("Minimize\n x\nGeneral Constraints\n g: x = EXP ( y ) Pieces=3\nEnd\n", 4, "unknown setting 'Pieces'"),
    ("Minimize\n x\nGeneral Constraints\n g: x = POLY ( y ) COEFS ( )\nEnd\n", 4, "POLY needs at least one coefficient"),
    ("Minimize\n x\nSubject To\n g: b = 2 -> x <= 1\nEnd\n", 4, "the indicator value must be 0 or 1"),
    ("Minimize\n x\nPWLObj\n x: ( 0 , 0 )\n x: ( 1 , 1 )\nEnd\n", 5, "second piecewise-linear objective"),
    ("Minimize\n x\nBounds\n 3 <= inf\nEnd\n", 4, "expected a variable"),
    ("Minimize\n x\nSubject To\n " + "c" * 300 + ": x >= 1\nEnd\n", 4, "longer than 255"),
]


@pytest.mark.parametrize("text, line, what", MPS_ERRORS + LP_ERRORS)
def test_malformed_file_names_file_and_line(env, tmp_path, text, line, what):
    suffix = ".mps" if (text, line, what) in MPS_ERRORS else ".lp"
    path = tmp_path / ("bad" + suffix)
    with pytest.raises(LibraryError) as err:
        read_text(env, path, text)
    assert err.value.code == FILE_READ
    assert err.value.message.startswith("%s, line %d: " % (path, line)), err.value.message
    assert what in err.value.message


def test_fixed_format_names_with_blanks(env, tmp_path):
    def line(*fields):
        # Fields start in columns 2, 5, 15, 25, 40 and 50.
        out = ""
        for col, f in zip((2, 5, 15, 25, 40, 50), fields):
            out = out.ljust(col - 1) + f
        return out + "\n"
    text = ("NAME          FIXED\nROWS\n" + line("N", "COST") + line("L", "LIM 1") + "COLUMNS\n"
            + line("", "X 1", "COST", "1.0", "LIM 1", "2.0") + line("", "Y", "LIM 1", "1.0")
            + "RHS\n" + line("", "RHS", "LIM 1", "4.0") + "BOUNDS\n"
            + line("UP", "BND", "X 1", "3.0") + "ENDATA\n")
    path = tmp_path / "fixed.mps"
    m = read_text(env, path, text)
    d = clib.dump(m)
    assert d["varnames"] == ["X 1", "Y"] and d["constrnames"] == ["LIM 1"]
    assert d["rows"] == [[(0, 2.0), (1, 1.0)]] and d["rhs"] == [4.0] and d["ub"][0] == 3.0
    assert d["obj"] == [1.0, 0.0]
    m.free()


def test_mps_reading_conventions(env, tmp_path):
    text = ("NAME conv\nOBJSENSE\n    MAX\nROWS\n N obj\n N other\n E e1\n L l1\nCOLUMNS\n"
            " a obj 2 e1 1\n a other 9 l1 1\n b e1 1\nRHS\n rhs obj 3 e1 5\n rhs l1 4\n"
            "RANGES\n rng e1 -2\nBOUNDS\n UP bnd a -1\n MI bnd b\n UP bnd b 7\nENDATA\n")
    path = tmp_path / "conv.mps"
    m = read_text(env, path, text)
    d = clib.dump(m)
    assert d["sense"] == -1 and d["objcon"] == -3          # objective RHS is minus the constant
    assert d["obj"][:2] == [2.0, 0.0]                       # the second N row is dropped
    assert (d["lb"][0], d["ub"][0]) == (-INF, -1.0)          # negative UP frees the lower bound
    assert (d["lb"][1], d["ub"][1]) == (-INF, 7.0)
    assert d["varnames"][2] == "Rge1" and (d["lb"][2], d["ub"][2]) == (3.0, 5.0)
    m.free()


def test_lp_reading_conventions(env, tmp_path):
    text = ("\\Problem name: conv\nMaximize\n obj: 3 x + 2 y - [ x ^ 2 + 4 x * y ] / 2 + 7\n"
            "Subject To\n c1: x + y + x <= 4\n c2: -3 <= x - y <= 8\n 2 x >= 1\n"
            " c4: 5 >= y\nBounds\n -inf <= y <= 10\n x free\nBinaries\n b\nEnd\n")
    path = tmp_path / "conv.lp"
    m = read_text(env, path, text)
    d = clib.dump(m)
    assert m.string("ModelName") == "conv" and d["sense"] == -1 and d["objcon"] == 7
    assert d["q"] == [(0, 0, -0.5), (0, 1, -2.0)]
    assert d["rows"][0] == [(0, 2.0), (1, 1.0)]             # repeated terms are merged
    assert d["varnames"] == ["x", "y", "b", "Rgc2"] and (d["lb"][3], d["ub"][3]) == (-3, 8)
    # "2 x >= 1" has no label; "5 >= y" is "y <= 5".
    assert d["constrnames"][2] == "R2" and d["rsense"][2:] == "><" and d["rhs"][2:] == [1, 5]
    m.free()


# ---------------------------------------------------------------- compression and file types


def test_compressed_files_are_detected_by_suffix(env, tmp_path):
    src = (INSTANCES / "afiro.mps").read_bytes()
    (tmp_path / "a.mps.gz").write_bytes(gzip.compress(src))
    (tmp_path / "a.mps.bz2").write_bytes(bz2.compress(src))
    plain = clib.dump(Model.read(env, INSTANCES / "afiro.mps"))
    for name in ("a.mps.gz", "a.mps.bz2"):
        assert clib.dump(Model.read(env, tmp_path / name)) == plain
    m = Model.read(env, INSTANCES / "afiro.mps")
    m.write(tmp_path / "w.lp.gz")
    m.write(tmp_path / "w.lp.bz2")
    assert gzip.decompress((tmp_path / "w.lp.gz").read_bytes()) == bz2.decompress(
        (tmp_path / "w.lp.bz2").read_bytes())
    m.free()


def test_corrupt_and_unsupported_compression(env, tmp_path):
    (tmp_path / "c.mps.gz").write_bytes(gzip.compress(b"NAME x\nROWS\n")[:-12] + b"garbage!")
    (tmp_path / "c.mps.bz2").write_bytes(bz2.compress(b"NAME x\nROWS\n" * 100)[:-20])
    for name in ("c.mps.gz", "c.mps.bz2"):
        with pytest.raises(LibraryError) as err:
            Model.read(env, tmp_path / name)
        assert err.value.code == FILE_READ and name in err.value.message
    (tmp_path / "z.mps.zip").write_bytes(b"PK")
    with pytest.raises(LibraryError) as err:
        Model.read(env, tmp_path / "z.mps.zip")
    assert err.value.code == NOT_SUPPORTED and ".zip compression is not supported" in err.value.message
    m = Model.new(env)
    with pytest.raises(LibraryError) as err:
        m.write(tmp_path / "out.lp.7z")
    assert err.value.code == NOT_SUPPORTED
    m.free()


def test_missing_file_and_unknown_types(env, tmp_path):
    with pytest.raises(LibraryError) as err:
        Model.read(env, tmp_path / "none.lp")
    assert err.value.code == FILE_READ and "none.lp" in err.value.message
    (tmp_path / "m.txt").write_text("x")
    with pytest.raises(LibraryError) as err:
        Model.read(env, tmp_path / "m.txt")
    assert err.value.code == INVALID_ARGUMENT and "Unknown file type" in err.value.message
    (tmp_path / "m.mst").write_text("x 1\n")
    with pytest.raises(LibraryError) as err:
        Model.read(env, tmp_path / "m.mst")
    assert err.value.code == INVALID_ARGUMENT and "not a model file" in err.value.message
    m = Model.new(env)
    with pytest.raises(LibraryError) as err:
        m.write(tmp_path / "nodir" / "m.lp")
    assert err.value.code == FILE_WRITE
    with pytest.raises(LibraryError) as err:
        m.readdata(INSTANCES / "afiro.mps")
    assert err.value.code == INVALID_ARGUMENT and "read it as a new model" in err.value.message
    m.free()


@pytest.mark.parametrize("name, model, attr", [
    ("m.lp", 1, 0), ("m.MPS", 1, 0), ("m.lp.gz", 1, 0), ("m.mps.bz2", 1, 0), ("m.sol", 0, 0),
    ("m.mst", 0, 0), ("m.hnt", 0, 0), ("m.ord", 0, 0), ("m.bas", 0, 0), ("m.prm", 0, 0),
    ("m.json", 0, 0), ("m.attr", 0, 1), ("m.attr.gz", 0, 1), ("m.txt", -1, -1), ("m", -1, -1),
    ("dir.lp/m", -1, -1), ("m.lp.zip", -1, -1)])
def test_file_kinds_by_suffix(name, model, attr):
    assert clib.lib.KVRismodelfile(name.encode()) == model
    assert clib.lib.KVRisattrfile(name.encode()) == attr


def test_ignore_names_drops_the_names_of_a_read_model():
    e = clib.new_env(IgnoreNames=1)
    m = Model.read(e, INSTANCES / "afiro.mps")
    d = clib.dump(m)
    assert d["varnames"][:2] == ["C0", "C1"] and d["constrnames"][0] == "R0"
    m.free()
    clib.lib.KVRfreeenv(e)


def test_mps_bound_and_range_kinds(env, tmp_path):
    cols = ["up", "lo", "fx", "fr", "mi", "pl", "bv", "li", "ui", "sc", "si", "scint", "neg"]
    text = ["NAME kinds", "ROWS", " N obj", " E e_pos", " E e_neg", " L l", " G g", "COLUMNS"]
    text += ["    %s e_pos 1" % c for c in cols[:9]]
    text += ["    MARKER 'MARKER' 'INTORG'", "    scint l 1", "    MARKER 'MARKER' 'INTEND'"]
    text += ["    sc g 1", "    si g 1", "    neg e_neg 1",
             "RHS", "    rhs e_pos 1 e_neg 2", "    rhs l 3 g 4",
             "RANGES", "    rng e_pos 2 e_neg -2", "    rng l -5 g 6",
             "BOUNDS", " UP bnd up 4", " LO bnd lo -3", " FX bnd fx 2.5", " FR bnd fr", " MI bnd mi",
             " UP bnd pl 7", " PL bnd pl", " BV bnd bv", " LI bnd li -2", " UI bnd ui 9", " SC bnd sc 5",
             " SI bnd si 6", " SC bnd scint 8", " LO bnd neg -1", " UP bnd neg -0.5", "ENDATA"]
    d = clib.dump(read_text(env, tmp_path / "k.mps", "\n".join(text) + "\n"))
    got = {n: (d["lb"][i], d["ub"][i], d["vtype"][i]) for i, n in enumerate(d["varnames"])}
    assert got["up"] == (0, 4, "C") and got["lo"] == (-3, INF, "C") and got["fx"] == (2.5, 2.5, "C")
    assert got["fr"] == (-INF, INF, "C") and got["mi"] == (-INF, INF, "C") and got["pl"] == (0, INF, "C")
    assert got["bv"] == (0, 1, "B") and got["li"] == (-2, INF, "I") and got["ui"] == (0, 9, "I")
    assert got["sc"] == (0, 5, "S") and got["si"] == (0, 6, "N") and got["scint"] == (0, 8, "N")
    assert got["neg"] == (-1, -0.5, "C")  # the lower bound was given: it stays
    # E with R > 0: [rhs, rhs + R]; E with R < 0: [rhs + R, rhs]; L: [rhs - |R|, rhs]; G: [rhs, rhs + |R|]
    assert got["Rge_pos"][:2] == (1, 3) and got["Rge_neg"][:2] == (0, 2)
    assert got["Rgl"][:2] == (-2, 3) and got["Rgg"][:2] == (4, 10)
    assert d["rsense"] == "====" and d["rhs"] == [0, 0, 0, 0]


@pytest.mark.parametrize("objective, constraints, generals, semis", [
    ("Maximize", "Subject To", "Generals", "Semi-Continuous"),
    ("MAX", "such that", "Integers", "Semis"),
    ("maximum", "st", "GEN", "semi"),
    ("Maximise", "s.t.", "General", "Semi-continuous")])
def test_lp_section_spellings(env, tmp_path, objective, constraints, generals, semis):
    text = ("\\ a comment line\n%s\n obj: 2 x + 3 y + z \\ trailing comment\n%s\n"
            " c1: x + y =< 4\n c2: x - y => -1\n c3: 3 x + 2 y < 9\n c4: z > 1\n"
            "Bounds\n z <= 10\n%s\n y z\n%s\n z\nEnd\n") % (objective, constraints, generals, semis)
    d = clib.dump(read_text(env, tmp_path / "s.lp", text))
    assert d["sense"] == -1 and d["obj"] == [2, 3, 1] and d["rsense"] == "<><>"
    assert d["vtype"] == "CIN" and d["ub"] == [INF, INF, 10] and d["rhs"] == [4, -1, 9, 1]
