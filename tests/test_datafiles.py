"""Data files merged into a model (starts, hints, priorities, bases, parameters, attributes) and
the files that need a solution, through the library's C interface."""

import json

import pytest

import clib
from clib import INF, LibraryError, Model

FILE_READ, INVALID_ARGUMENT, DATA_NOT_AVAILABLE = 10012, 10003, 10005
UNDEFINED = 1e101


@pytest.fixture(scope="module")
def env():
    e = clib.new_env()
    yield e
    clib.lib.KVRfreeenv(e)


def small(env, name="m"):
    m = Model.new(env, name)
    m.var(0, 10, 1, "C", "x")
    m.var(0, 10, 2, "I", "y[1]")
    m.var(0, 1, 0, "B", None)  # written as C2
    m.constr([0, 1], [1, 1], "<", 4, "c0")
    m.constr([1, 2], [1, -1], ">", 0, None)
    m.update()
    return m


def test_start_hint_priority_files_move_between_models(env, tmp_path):
    a, b = small(env), small(env)
    a.call("KVRsetdblattrarray", b"Start", 0, 3, clib._dbls([1.5, 2, UNDEFINED]))
    a.call("KVRsetdblattrarray", b"VarHintVal", 0, 3, clib._dbls([UNDEFINED, 3, 1]))
    a.call("KVRsetintattrarray", b"VarHintPri", 0, 3, clib._ints([0, 5, -2]))
    a.call("KVRsetintattrarray", b"BranchPriority", 0, 3, clib._ints([0, 7, 1]))
    a.update()
    for suffix in (".mst", ".hnt", ".ord"):
        a.write(tmp_path / ("a" + suffix))
        b.readdata(tmp_path / ("a" + suffix))
    assert (tmp_path / "a.mst").read_text().splitlines()[1:] == ["x 1.5", "y[1] 2"]
    b.update()
    assert b.dbls("Start", 3) == [1.5, 2, UNDEFINED]
    assert b.dbls("VarHintVal", 3) == [UNDEFINED, 3, 1]
    assert b.ints("VarHintPri", 3) == [0, 5, -2]
    assert b.ints("BranchPriority", 3) == [0, 7, 1]
    a.free(), b.free()


def test_basis_file_roundtrip(env, tmp_path):
    a, b = small(env), small(env)
    a.call("KVRsetintattrarray", b"VBasis", 0, 3, clib._ints([0, -2, 0]))
    a.call("KVRsetintattrarray", b"CBasis", 0, 2, clib._ints([-1, 0]))
    a.update()
    a.write(tmp_path / "a.bas")
    lines = (tmp_path / "a.bas").read_text().splitlines()
    assert lines == ["NAME m", " XL x c0", " UL y[1]", " BS C2", "ENDATA"]
    b.readdata(tmp_path / "a.bas")
    b.update()
    assert b.ints("VBasis", 3) == [0, -2, 0] and b.ints("CBasis", 2) == [-1, 0]
    with pytest.raises(LibraryError) as err:
        small(env).write(tmp_path / "none.bas")
    assert err.value.code == DATA_NOT_AVAILABLE
    a.free(), b.free()


def test_attribute_file_roundtrip(env, tmp_path):
    a, b = small(env), small(env)
    a.call("KVRsetintattrarray", b"Lazy", 0, 2, clib._ints([0, 2]))
    a.call("KVRsetdblattrarray", b"Start", 0, 3, clib._dbls([1, UNDEFINED, 0]))
    a.call("KVRsetstrattrarray", b"VTag", 0, 3, (clib.C.c_char_p * 3)(b"first", b"", b"third"))
    a.call("KVRsetintattrarray", b"IISLBForce", 0, 3, clib._ints([-1, 1, 0]))
    a.update()
    a.write(tmp_path / "a.attr")
    doc = json.loads((tmp_path / "a.attr").read_text())
    # Only values other than the defaults are written; unnamed elements by their generated names.
    assert doc["Var"] == {"x": {"Start": 1, "VTag": "first"}, "y[1]": {"IISLBForce": 1},
                          "C2": {"Start": 0, "IISLBForce": 0, "VTag": "third"}}
    assert doc["Constr"] == {"R1": {"Lazy": 2}}
    b.readdata(tmp_path / "a.attr")
    b.update()
    assert b.ints("Lazy", 2) == [0, 2] and b.dbls("Start", 3) == [1, UNDEFINED, 0]
    assert b.strs("VTag", 3) == ["first", "", "third"] and b.ints("IISLBForce", 3) == [-1, 1, 0]
    a.free(), b.free()


def test_parameter_files_plain_and_compressed(env, tmp_path):
    a, b = small(env), small(env)
    a.setparam("TimeLimit", 12.5)
    a.setparam("MIPGap", 0.02)
    for name in ("p.prm", "p.prm.gz"):
        a.write(tmp_path / name)
        b.readdata(tmp_path / name)
    v = clib.C.c_double()
    assert clib.lib.KVRgetdblparam(clib.lib.KVRgetenv(b.ptr), b"TimeLimit", clib.C.byref(v)) == 0
    assert v.value == 12.5
    (tmp_path / "bad.prm.gz").write_bytes(__import__("gzip").compress(b"TimeLimit 5\nNoSuch 1\n"))
    with pytest.raises(LibraryError) as err:
        b.readdata(tmp_path / "bad.prm.gz")
    assert err.value.code == FILE_READ and "bad.prm.gz, line 2" in err.value.message
    assert clib.lib.KVRgetdblparam(clib.lib.KVRgetenv(b.ptr), b"TimeLimit", clib.C.byref(v)) == 0
    assert v.value == 12.5  # nothing of the bad file was applied
    a.free(), b.free()


BAD_DATA = [
    ("s.mst", "x 1\ny[1] 2\nnope 3\n", 3, "unknown variable 'nope'"),
    ("s.sol", "# comment\nx 1 2\n", 2, "expected a variable name and a value"),
    ("s.mst", "x one\n", 1, "expected a number for the value, found 'one'"),
    ("h.hnt", "x 1 high\n", 1, "expected an integer priority"),
    ("o.ord", "x 1.5\n", 1, "expected a variable name and an integer priority"),
    ("b.bas", "NAME m\n XU x nosuchrow\nENDATA\n", 2, "unknown constraint 'nosuchrow'"),
    ("b.bas", "NAME m\n XX x\nENDATA\n", 2, "expected XU/XL column row"),
    ("b.bas", "NAME m\n LL x\n", 2, "unexpected end of file: expected ENDATA"),
    ("a.attr", '{"Var": {"x": {"Start": 1}}, "Constr": {"c0": {"Lazy": 9}}}', 1, "lazy levels are -1 to 3"),
    ("a.attr", '{"Var": {"x": {"X": 1}}}', 1, "attribute 'X' cannot be set"),
    ("a.attr", '{"Var": {"x": {"Start": 1},\n "zz": {"Start": 2}}}', 2, "unknown Var 'zz'"),
    ("a.attr", '{"Var": {"x": {"Start": "one"}}}', 1, "attribute 'Start' takes a number"),
    ("a.attr", '{"Var": {"x": {"NumVars": 1}}}', 1, "does not belong here"),
    ("a.attr", '{"Var": {"x": {"Start": 1}\n', 1, "unexpected end of the JSON document"),
    ("a.attr", '{"Vars": {}}', 1, 'unknown section "Vars"'),
]


@pytest.mark.parametrize("name, text, line, what", BAD_DATA)
def test_malformed_data_file_changes_nothing(env, tmp_path, name, text, line, what):
    m = small(env)
    m.call("KVRsetdblattrarray", b"Start", 0, 3, clib._dbls([9, 9, 9]))
    m.update()
    before = (m.dbls("Start", 3), m.ints("Lazy", 2), m.dbls("VarHintVal", 3))
    path = tmp_path / name
    path.write_text(text)
    with pytest.raises(LibraryError) as err:
        m.readdata(path)
    assert err.value.code == FILE_READ
    assert err.value.message.startswith("%s, line %d: " % (path, line)), err.value.message
    assert what in err.value.message
    m.update()
    assert (m.dbls("Start", 3), m.ints("Lazy", 2), m.dbls("VarHintVal", 3)) == before
    m.free()


def test_files_that_need_a_solution(env, tmp_path):
    m = small(env)
    for name in ("s.sol", "s.json"):
        with pytest.raises(LibraryError) as err:
            m.write(tmp_path / name)
        assert err.value.code == DATA_NOT_AVAILABLE
        assert not (tmp_path / name).exists()
    buf = clib.P()
    assert clib.lib.KVRgetjsonsolution(m.ptr, clib.C.byref(buf)) == DATA_NOT_AVAILABLE
    assert not buf.value
    # Without a solution, a MIP start file holds the Start values only.
    m.write(tmp_path / "s.mst")
    assert (tmp_path / "s.mst").read_text() == "# MIP start for model m\n"
    m.free()


def test_read_applies_with_the_lazy_update_rules(env, tmp_path):
    m = small(env)
    (tmp_path / "p.ord").write_text("y[1] 4\n")
    m.readdata(tmp_path / "p.ord")
    assert m.ints("BranchPriority", 3) == [0, 0, 0]  # queued like any attribute write
    m.update()
    assert m.ints("BranchPriority", 3) == [0, 4, 0]
    m.free()
