"""Attribute access: typed single reads and writes, infinity mapping, value checks, and reads and
writes of many elements in one call (lists, dicts, tupledicts)."""

import math

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
