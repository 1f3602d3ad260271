"""Printing: printStats, printQuality, printAttr, display and the long-line splitting."""

import pytest

import kaviropy as kp
from kaviropy import KVR

# These tests drive the Model class; they run once it is part of the build.


@pytest.fixture
def m(env):
    model = kp.Model("pr", env=env)
    model.Params.OutputFlag = 1
    yield model
    model.dispose()


def lines(capsys):
    return capsys.readouterr().out.split("\n")


def small(m):
    x = m.addVar(ub=4, name="x")
    y = m.addVar(ub=3, obj=0, name="y")
    m.addConstr(x + 2 * y <= 8, name="c0")
    m.addConstr(x - y >= -2, name="c1")
    m.setObjective(3 * x + 2 * y, KVR.MAXIMIZE)
    return x, y


def test_print_stats_of_lp_and_mip(m, capsys):
    small(m)
    m.update()
    capsys.readouterr()
    m.printStats()
    assert lines(capsys) == [
        "",
        "Statistics for model pr:",
        "  Linear constraint matrix    : 2 Constrs, 2 Vars, 4 NZs",
        "  Matrix coefficient range    : [ 1, 2 ]",
        "  Objective coefficient range : [ 2, 3 ]",
        "  Variable bound range        : [ 3, 4 ]",
        "  RHS coefficient range       : [ 2, 8 ]",
        "",
    ]
    m.addVar(vtype=KVR.BINARY, name="b")
    m.addVar(vtype=KVR.INTEGER, ub=7, name="i")
    m.ModelName = ""
    m.update()
    capsys.readouterr()
    m.printStats()
    out = lines(capsys)
    assert out[1] == "Statistics for model Unnamed:"
    assert out[3] == "  Variable types              : 2 Continuous,2 Integer (1 Binary)"


def test_print_quality(m, capsys):
    x, y = small(m)
    m.optimize()
    capsys.readouterr()
    m.printQuality()
    out = lines(capsys)
    assert out[1] == "Solution quality statistics for model pr :"
    assert out[2] == "  Maximum violation (unscaled/scaled):"
    assert out[3].startswith("    Bound       : ") and out[4].startswith("    Constraint  : ")


def test_print_quality_of_mip_without_solution(m):
    m.addVar(vtype=KVR.BINARY, name="b")
    m.update()
    with pytest.raises(kp.KaviroError) as err:
        m.printQuality()
    assert (err.value.errno, err.value.message) == (0, "No solution information available")


def test_print_attr(m, capsys):
    x, y = small(m)
    z = m.addVar(ub=1, name="zero")
    m.optimize()
    capsys.readouterr()
    m.printAttr("X")
    out = lines(capsys)
    assert out[0] == "%12s %12s " % ("Variable", "X")
    assert out[1] == "-" * 26
    assert out[2:4] == ["%12s %12g " % ("x", 4.0), "%12s %12g " % ("y", 2.0)]
    assert all("zero" not in line for line in out)  # rows of zeros are skipped
    m.printAttr(["X", "Obj"], "y*")
    out = lines(capsys)
    assert out[2] == "%12s %12g %12g " % ("y", 2.0, 2.0) and len([l for l in out if l]) == 3
    for bad, message in ((["X", "Pi"], "Attribute types are not compatible"),
                         (5, "Invalid argument")):
        with pytest.raises(kp.KaviroError) as err:
            m.printAttr(bad)
        assert (err.value.errno, err.value.message) == (0, message)


def test_display_and_long_lines(m, capsys):
    x, y = small(m)
    b = m.addVar(vtype=KVR.BINARY, name="b")
    f = m.addVar(lb=-KVR.INFINITY, name="f")
    m.update()
    capsys.readouterr()
    m.display()
    out = lines(capsys)
    assert out[0] == "Maximize" and out[2] == "Subject To"
    assert out[3].startswith("  c0: ") and out[3].endswith(" <= 8")
    assert out[4].startswith("  c1: ") and out[4].endswith(" >= -2")
    assert out[5:9] == ["Bounds", "  0 <= x <= 4", "  0 <= y <= 3", "  f free"]
    assert out[9:11] == ["Binaries", "  b"]
    text = " ".join("word%03d" % i for i in range(30))  # 239 characters
    m._splitlongmessage(text)
    pieces = [l for l in lines(capsys) if l]
    assert " ".join(pieces) == text and all(len(p) <= 90 for p in pieces) and len(pieces) == 3


def test_constraint_names_by_flat_index(m):
    x, y = small(m)
    m.addConstr(x <= 3)
    m.update()
    assert [m._getConstrName(i) for i in range(3)] == ["c0", "c1", "R2"]
