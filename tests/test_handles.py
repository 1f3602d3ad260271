"""Handles: index states, reprs of every kind and state, hash, names, identity and the routing
of attribute names."""

import pytest

import kaviropy as kp
from kaviropy import KVR


MODEL_NAME = "h"  # the name of the model the m fixture makes


def test_class_constants_and_constructor():
    for cls, enum in [(kp.Var, 1), (kp.Constr, 2), (kp.SOS, 3), (kp.QConstr, 4), (kp.GenConstr, 5)]:
        assert cls._typeenum == enum and cls._typename == cls.__name__
        assert cls.__module__ == "kaviropy"
    v = kp.Var(None, 7)
    assert v._cmodel is None and v._colno == 7 and v.index() == 7
    with pytest.raises(TypeError) as err:
        kp.Var(None)
    assert str(err.value) == "Var() takes exactly 2 positional arguments (1 given)"
    assert kp.GenConstr(None, -5).__cindex__() == 2


def test_reprs_of_every_kind_and_state(m):
    m.Params.UpdateMode = 0
    m.update()
    x, y = m.addVar(name="x"), m.addVar(name="y")
    m.update()
    c = m.addLConstr(x, "<", 1, name="c")
    q = m.addQConstr(x * x, "<", 1, name="q")
    s = m.addSOS(KVR.SOS_TYPE1, [x, y])
    g = m.addGenConstrAbs(x, y)
    assert repr(c) == "<kaviro.Constr *Awaiting Model Update*>"
    assert repr(q) == "<kaviro.QConstr Not Yet Added>"
    assert repr(s) == "<kaviro.SOS *Awaiting Model Update*>"
    assert repr(g) == "<kaviro.GenConstr *Awaiting Model Update*>"
    m.update()
    assert repr(x) == "<kaviro.Var x>"
    assert repr(c) == "<kaviro.Constr c>"
    assert repr(q) == "<kaviro.QConstr q>"
    assert repr(s) == "<kaviro.SOS 0>" and repr(g) == "<kaviro.GenConstr 0>"
    m.remove([x, c, q, s, g])
    assert repr(x) == "<kaviro.Var x (Removed)>"
    assert repr(c) == "<kaviro.Constr c (Removed)>"
    assert repr(q) == "<kaviro.QConstr q (Deleted)>"
    assert repr(s) == "<kaviro.SOS 0 (Removed)>"
    assert repr(g) == "<kaviro.GenConstr 0 (Removed)>"
    m.update()
    assert repr(x) == "<kaviro.Var *Removed*>"
    assert repr(c) == "<kaviro.Constr *Removed*>"
    assert repr(q) == "<kaviro.QConstr Deleted>"
    assert repr(s) == "<kaviro.SOS *Removed*>" and repr(g) == "<kaviro.GenConstr *Removed*>"
    assert repr(y) == "<kaviro.Var y>" and y.index() == 0


def test_unnamed_elements_read_generated_names(m):
    x = m.addVar()
    c = m.addLConstr(x, ">", 0)
    m.update()
    assert x._safename() == "C0" and repr(x) == "<kaviro.Var C0>"
    assert repr(c) == "<kaviro.Constr R0>"


def test_hash_follows_the_index(m):
    x = m.addVar()
    y = m.addVar()
    m.update()
    assert hash(y) == hash(1)
    assert {x: 1, y: 2}[y] == 2
    m.remove(x)
    with pytest.raises(kp.KaviroError) as err:
        hash(x)
    assert (err.value.errno, err.value.message) == (0, "Variable was removed from the model")
    m.update()
    assert hash(y) == hash(0)
    assert y.__numcols__() == 1


def test_same_as_compares_model_index_and_python_attributes(m, env):
    x = m.addVar()
    m.update()
    twin = kp.Var(x._cmodel, 0)
    assert x.sameAs(twin) and not x.sameAs(kp.Constr(x._cmodel, 0))
    twin._note = 1
    assert not x.sameAs(twin)
    assert not x.sameAs(kp.Var(x._cmodel, 1))


def test_attribute_routing_on_handles(m):
    x = m.addVar(lb=-1, ub=4, name="x")
    m.update()
    assert x.LB == -1.0 and x.lb == -1.0 and x.getAttr("UB") == 4.0
    x.UB = 7
    x.setAttr("Obj", 2)
    assert x.UB == 4.0  # writes wait for the update
    m.update()
    assert (x.UB, x.Obj) == (7.0, 2.0)
    x._mine = "python"
    assert x._mine == "python" and "_mine" in x.__dict__
    names = dir(x)
    assert "LB" in names and "VarName" in names and "RHS" not in names and "sameAs" in names
    x.prefetchAttr("LB")
    with pytest.raises(AttributeError) as err:
        x._missing
    assert str(err.value) == "'kaviropy.Var' object has no attribute '_missing'"


def test_attribute_errors_of_handles(m):
    m.Params.UpdateMode = 0
    m.update()
    x = m.addVar()
    with pytest.raises(kp.KaviroError) as err:
        x.LB
    assert (err.value.errno, err.value.message) == (0, "Var has not yet been added to the model")
    m.update()
    c = m.addLConstr(x, "<", 1)
    m.update()
    with pytest.raises(AttributeError) as err:
        c.LB
    assert str(err.value) == "'kaviropy.Constr' object has no attribute 'LB'"
    with pytest.raises(AttributeError) as err:
        x.Nonsense
    assert str(err.value) == "'kaviropy.Var' object has no attribute 'Nonsense'"
    with pytest.raises(AttributeError) as err:
        x.X  # no solution
    assert "X" in str(err.value)
    assert not hasattr(x, "X") and getattr(x, "RC", "none") == "none"
    m.remove(c)
    m.update()
    with pytest.raises(kp.KaviroError) as err:
        c.RHS
    assert err.value.message == "Constr was removed from the model"
    with pytest.raises(kp.KaviroError) as err:
        c.RHS = 3
    assert err.value.message == "Constr was removed from the model"


def test_detached_and_removed_handles_never_reach_a_freed_model(env):
    m = kp.Model(env=env)
    x, y = m.addVar(), m.addVar()
    m.update()
    m.remove(x)
    m.update()
    m.dispose()
    # x keeps its removed state; y was detached by dispose.
    assert repr(x) == "<kaviro.Var *Removed*>" and x._safename() == "*Removed*"
    assert repr(y) == "<kaviro.Var *Awaiting Model Update*>"
    with pytest.raises(kp.KaviroError):
        x.LB
    with pytest.raises(AttributeError):
        x.Bogus
    with pytest.raises(kp.KaviroError) as err:
        y.LB
    assert err.value.message == (
        "Var belongs to no live model (its model was disposed, or it was unpickled without it)")


def test_handles_join_the_collector_when_they_get_attributes(m):
    import gc
    x = m.addVar()
    m.update()
    assert not gc.is_tracked(x)  # no dictionary: no cycle possible
    x._self = x
    assert gc.is_tracked(x)
    y = m.addVar()
    y.__dict__["_z"] = 1
    assert gc.is_tracked(y) and y._z == 1
    gc.collect()
    assert m.getVars()[0]._self is x


def test_pickled_handles_resolve_to_the_live_model(m):
    import copy
    import pickle

    x, y = m.addVar(name="x"), m.addVar(name="y")
    c = m.addConstr(x + y <= 1, name="c")
    m.update()
    x._tag = "kept"
    assert pickle.loads(pickle.dumps(x)) is x and pickle.loads(pickle.dumps(c)) is c
    e = pickle.loads(pickle.dumps(2 * x + 3 * y + 1))
    assert str(e) == "1.0 + 2.0 x + 3.0 y" and e.getVar(0) is x
    q = copy.deepcopy(x * y + x)
    assert q.getVar1(0) is x and q.getVar2(0) is y

    # Once the model is gone (or in another process) a handle comes back detached.
    data = pickle.dumps(x)
    m.dispose()
    d = pickle.loads(data)
    assert d is not x and d._colno == -1 and d._cmodel is None and d._tag == "kept"
    assert repr(d) == "<kaviro.Var *Awaiting Model Update*>"
    assert kp._restore_handle(0, -1, None, 3, None)._colno == -1
    with pytest.raises(kp.KaviroError):
        kp._restore_handle(7, 0, None, 0, None)


def test_empty_object_lists_read_nothing(m):
    assert m.getAttr("RHS", []) == [] and m.getAttr("X", []) == []
    m.setAttr("LB", [], [])
    x = m.addVar()
    m.update()
    assert m.getAttr("X", []) == [] and m.getAttr("LB", {}) == {}
    with pytest.raises(AttributeError):
        x.X
