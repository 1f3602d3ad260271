"""Attribute access: typed single reads and writes, infinity mapping, value checks, and reads and
writes of many elements in one call (lists, dicts, tupledicts)."""

import math
import pathlib

import pytest

import kaviropy as kp
from kaviropy import KVR


MODEL_NAME = "a"  # the name of the model the m fixture makes


def test_infinity_maps_both_ways(m):
    x = m.addVar(lb=-math.inf, name="x")
    m.update()
    assert x.LB == -math.inf and x.UB == math.inf
    x.UB = 5
    m.update()
    assert x.UB == 5.0
    x.UB = float("inf")
    m.update()
    assert x.UB == math.inf
    assert m.getAttr("UB", [x]) == [math.inf]
    m.setAttr("LB", [x], [-math.inf])
    m.update()
    assert m.getAttr("LB", [x]) == [-math.inf]


def test_value_types_are_checked(m):
    x = m.addVar(name="x")
    c = m.addLConstr(x, "<", 1, name="c")
    m.update()
    cases = [
        (lambda: setattr(x, "LB", "low"), "Attribute 'LB' takes double value"),
        (lambda: setattr(x, "BranchPriority", 1.5), "Attribute 'BranchPriority' takes integer value"),
        (lambda: setattr(x, "VarName", 3), "Attribute 'VarName' takes string value"),
        (lambda: setattr(x, "X", 1.0), "Attribute 'X' cannot be set"),
        (lambda: setattr(m, "NumConstrs", 1), "Attribute 'NumConstrs' cannot be set"),
        (lambda: setattr(c, "LB", 1.0), "'kaviropy.Constr' object has no attribute 'LB'"),
    ]
    for action, text in cases:
        with pytest.raises(AttributeError) as err:
            action()
        assert str(err.value) == text
    x.BranchPriority = 2.0  # an integral float is an integer
    x.VType = "I"
    c.Sense = ">"
    m.update()
    assert x.BranchPriority == 2 and x.VType == "I" and c.Sense == ">"
    with pytest.raises(AttributeError):
        x.VType = "IB"


def test_library_refusal_is_an_attribute_error_with_its_message(m):
    x = m.addVar()
    m.update()
    with pytest.raises(AttributeError) as err:
        x.VType = "Q"
    assert str(err.value)  # the library says why
    m.update()
    assert x.VType == "C"


def test_list_reads_and_writes_in_every_shape(m):
    xs = m.addVars(3, lb=[1, 2, 3], name="x")
    m.update()
    vars_ = list(xs.values())
    assert m.getAttr("LB", vars_) == [1.0, 2.0, 3.0]
    assert m.getAttr("VarName", vars_) == ["x[0]", "x[1]", "x[2]"]
    assert m.getAttr("VType", vars_) == ["C", "C", "C"]
    by_key = m.getAttr("LB", xs)
    assert isinstance(by_key, kp.tupledict) and by_key[2] == 3.0
    assert m.getAttr("LB", {"a": vars_[1]}) == {"a": 2.0}
    assert m.getAttr("LB", []) == []
    assert m.getAttr("LB", (v for v in vars_)) == [1.0, 2.0, 3.0]
    m.setAttr("UB", vars_, 10)
    m.setAttr("Obj", vars_, [1, 2, 3])
    m.setAttr("VarName", xs, {0: "a", 1: "b", 2: "c"})
    m.setAttr("VType", vars_, ["B", "I", "C"])
    m.update()
    assert m.getAttr("UB", vars_) == [10.0] * 3
    assert m.getAttr("Obj", vars_) == [1.0, 2.0, 3.0]
    assert m.getAttr("VarName", vars_) == ["a", "b", "c"]
    assert m.getAttr("VType", vars_) == ["B", "I", "C"]
    m.setAttr("ModelName", "renamed")
    m.update()
    assert m.getAttr("ModelName") == "renamed"


def test_list_errors(m, env):
    xs = [m.addVar() for _ in range(2)]
    c = m.addLConstr(xs[0], "<", 1)
    m.update()
    with pytest.raises(kp.KaviroError) as err:
        m.getAttr("LB", 5)
    assert (err.value.errno, err.value.message) == (-1, "Unrecognized argument to getAttr")
    with pytest.raises(kp.KaviroError) as err:
        m.getAttr("LB", [xs[0], "x"])
    assert err.value.message == "Unrecognized argument to getAttr"
    with pytest.raises(AttributeError) as err:
        m.getAttr("LB", [c])
    assert str(err.value) == "'kaviropy.Constr' object has no attribute 'LB'"
    with pytest.raises(AttributeError) as err:
        m.getAttr("Nope", xs)
    assert str(err.value) == "'kaviropy.Model' object has no attribute 'Nope'"
    with pytest.raises(kp.KaviroError) as err:
        m.getAttr("X", xs)  # no solution: the library's code and message
    assert err.value.errno == KVR.ERROR_DATA_NOT_AVAILABLE and err.value.message
    other = kp.Model(env=env)
    y = other.addVar()
    other.update()
    with pytest.raises(kp.KaviroError) as err:
        m.getAttr("LB", [y])
    assert (err.value.errno, err.value.message) == (KVR.ERROR_NOT_IN_MODEL, "Variable not in model")
    other.dispose()
    with pytest.raises(kp.KaviroError) as err:
        m.setAttr("LB", xs, [1.0])
    assert err.value.errno == KVR.ERROR_INVALID_ARGUMENT
    with pytest.raises(AttributeError) as err:
        m.setAttr("LB", xs, ["a", "b"])
    assert str(err.value) == "Attribute 'LB' takes double value"
    with pytest.raises(TypeError):
        m.setAttr("VType", xs, ["BB", "C"])  # Python's ord() error
    with pytest.raises(AttributeError) as err:
        m.setAttr("X", xs, 1.0)
    assert str(err.value) == "Attribute 'X' cannot be set"
    with pytest.raises(AttributeError) as err:
        m.setAttr("VType", xs, ["Q", "C"])  # refused by the library
    assert str(err.value)
    m.update()
    assert m.getAttr("LB", xs) == [0.0, 0.0] and m.getAttr("VType", xs) == ["C", "C"]


def test_module_level_attribute_functions(m):
    x = m.addVar(ub=3, name="x")
    m.update()
    assert kp.__getattrinfo(x, "LB") == (2, 1, 1)
    assert kp.__getattrinfo(m, "NumVars") == (1, 0, 0)
    with pytest.raises(AttributeError):
        kp.__getattrinfo(x, "Bogus")
    assert kp.__getattr(x, "UB") == 3.0
    kp.__setattr(x, "UB", 4.0)
    kp.__prefetchattr(x, "UB")
    m.update()
    assert kp.__gettypedattrlist(m, "UB", 2, [0]) == [4.0]
    kp.__settypedattrlist(m, "VarName", 3, [0], ["renamed"])
    m.update()
    assert kp.__gettypedattrlist(m, "VarName", 3, [0]) == ["renamed"]
    names = kp.__attrlist(m._cmodel, 2)
    assert "RHS" in names and "LB" not in names and "ConstrName" in names


# ---------------------------------------------------------------- model-wide element reads

ATTRS_TSV = pathlib.Path(__file__).resolve().parent.parent / "src" / "kaviro100" / "model" / "attrs.tsv"
HANDLE_GETTERS = {"var": "getVars", "constr": "getConstrs", "sos": "getSOSs",
                  "qconstr": "getQConstrs", "genconstr": "getGenConstrs"}


def element_attrs():
    rows = [line.split("\t") for line in ATTRS_TSV.read_text().splitlines()[1:] if line]
    return [(r[0], r[2]) for r in rows if r[2] in HANDLE_GETTERS]


def per_handle(handles, name):
    """The attribute of each handle, or the exception type when a read fails."""
    try:
        return [h.getAttr(name) for h in handles]
    except (AttributeError, kp.KaviroError) as e:
        return type(e)


def test_model_reads_every_element_attribute_over_all_elements(env):
    """A small facility model with every element kind, solved: m.<attr> and m.getAttr(attr) give
    the values of all elements of the attribute's kind in model order, exactly what the handles
    give one by one; an attribute without a value fails the same way as the single reads."""
    m = kp.Model("plants", env=env)
    open_ = m.addVars(3, vtype=KVR.BINARY, name="open")
    ship = m.addVars(3, ub=10, name="ship")
    m.addConstrs((ship[i] <= 10 * open_[i] for i in range(3)), name="cap")
    m.addConstr(ship.sum() >= 12, name="demand")
    m.addSOS(KVR.SOS_TYPE1, [open_[0], open_[1]], [1, 2])
    m.addQConstr(ship[0] * ship[0] + ship[1] * ship[1] <= 80, name="spread")
    top = m.addVar(name="top")
    m.addGenConstrMax(top, [ship[0], ship[1], ship[2]], name="peak")
    m.setObjective(5 * open_.sum() + ship.sum() + 0.1 * top)
    m.optimize()
    assert m.Status == KVR.OPTIMAL
    names = element_attrs()
    assert len(names) == 70
    for name, cls in names:
        handles = getattr(m, HANDLE_GETTERS[cls])()
        expected = per_handle(handles, name)
        if expected is AttributeError or expected is kp.KaviroError:
            assert not hasattr(m, name), name
            with pytest.raises(AttributeError):
                m.getAttr(name)
            continue
        got = m.getAttr(name)
        assert got == getattr(m, name), name
        assert len(got) == len(handles) and got == expected, name
    assert m.VarName[:3] == ["open[0]", "open[1]", "open[2]"] and m.VarName[-1] == "top"
    assert m.X == m.Xn == m.getAttr("X", m.getVars())
    assert m.ConstrName == ["cap[0]", "cap[1]", "cap[2]", "demand"]
    m.dispose()


def test_model_wide_reads_follow_updates_and_failures(m):
    assert m.X == [] and m.VarName == []
    x = m.addVar(name="x", obj=1)
    assert m.VarName == []  # not yet part of the model
    m.update()
    assert m.VarName == ["x"] and m.LB == [0.0] and m.UB == [math.inf]
    with pytest.raises(AttributeError, match="Unable to retrieve attribute 'X'"):
        m.X
    assert not hasattr(m, "Xn") and getattr(m, "RC", None) is None
    m.optimize()
    assert m.X == [0.0] and m.RC == [1.0]
    m.dispose()
    with pytest.raises(AttributeError):
        m.X
