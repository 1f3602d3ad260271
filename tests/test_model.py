"""Model lifecycle: construction, lazy handle lists, update() and the index states of handles,
dispose/close/context manager, copy, getters, names, attribute routing and parameters."""

import gc

import pytest

import kaviropy as kp
from kaviropy import KVR


MODEL_NAME = "m"  # the name of the model the m fixture makes


def test_new_model_is_empty_and_counts_on_its_env(env):
    assert env._modcnt == 0
    m = kp.Model(env=env)
    assert env._modcnt == 1
    assert m.getVars() == m.getConstrs() == m.getSOSs() == m.getQConstrs() == []
    assert m.getGenConstrs() == []
    assert repr(m) == ("<kaviro.Model Continuous instance Unnamed: 0 constrs, 0 vars, "
                       "Parameter changes: OutputFlag=0>")
    assert m.ModelName == "" and m.NumVars == 0
    assert m._uenv is env and isinstance(m._env, kp.Env) and m._env is not env
    assert m.Params is m.params and isinstance(m.Params, kp.ParamClass)
    m2 = kp.Model("other", env=env)
    assert env._modcnt == 2
    m2.dispose()
    m2.dispose()  # twice is harmless
    assert env._modcnt == 1
    m.close()
    assert env._modcnt == 0


def test_model_on_default_environment():
    m = kp.Model("d")
    try:
        assert m._uenv is kp.kaviro._getdefaultenv(create=False)
        assert m.ModelName == "d"
    finally:
        m.dispose()


def test_model_rejects_non_environment():
    with pytest.raises(kp.KaviroError) as err:
        kp.Model(env="not an env")
    assert err.value.errno == -1 and err.value.message == "Invalid Environment"


def test_pending_variable_is_numbered_at_update(m):
    m.Params.UpdateMode = 0
    m.update()  # the update mode is read again after an update
    x = m.addVar(name="x")
    assert x._colno == -1 and x.index() == -1
    assert m.getVars() == []
    assert repr(x) == "<kaviro.Var *Awaiting Model Update*>"
    with pytest.raises(kp.KaviroError) as err:
        hash(x)
    assert err.value.message == "Variable has not yet been added to the model"
    assert (m.NumVars, m.NumConstrs) == (0, 0) and "0 constrs, 0 vars" in repr(m)
    with pytest.raises(kp.KaviroError) as err:
        x.LB
    assert (err.value.errno, err.value.message) == (0, "Var has not yet been added to the model")
    m.update()
    assert x.index() == 0 and m.getVars() == [x]
    assert hash(x) == hash(0) and m.NumVars == 1
    assert repr(x) == "<kaviro.Var x>"


def test_update_mode_one_numbers_at_once_but_lists_after_update(m):
    x = m.addVar(name="x")
    c = m.addLConstr(x, "<", 1, name="c")
    assert x.index() == 0 and c.index() == 0
    assert m.getVars() == [] and m.getConstrs() == []
    # Counts, the model's text and the handles show the model as of the last update.
    assert (m.NumVars, m.NumConstrs, m.NumNZs) == (0, 0, 0)
    assert "0 constrs, 0 vars" in repr(m)
    assert repr(x) == "<kaviro.Var *Awaiting Model Update*>"
    assert repr(c) == "<kaviro.Constr *Awaiting Model Update*>"
    with pytest.raises(kp.KaviroError) as err:
        hash(x)
    assert (err.value.errno, err.value.message) == (0, "Variable has not yet been added to the model")
    assert m.getVarByName("x") is None
    m.update()
    assert m.getVars() == [x] and m.getConstrs() == [c]
    assert (m.NumVars, m.NumConstrs, m.NumNZs) == (1, 1, 1)
    assert repr(x) == "<kaviro.Var x>" and hash(x) == hash(0) and m.getVarByName("x") is x


def test_update_mode_change_between_additions(m):
    x = m.addVar(name="x")  # update mode 1: in the model at once
    m.Params.UpdateMode = 0
    y = m.addVar(name="y")  # queued by the library, so pending here too
    assert (x.index(), y.index()) == (0, -1)
    m.update()
    assert [v.VarName for v in m.getVars()] == ["x", "y"] and y.index() == 1


def test_removal_is_pending_until_update_then_renumbers(m):
    xs = [m.addVar(name="x%d" % i) for i in range(5)]
    m.update()
    m.remove([xs[1], xs[3]])
    assert xs[1]._colno == -4 and xs[1].index() == 1  # removal pending keeps the old position
    assert xs[1].VarName == "x1"
    assert m.getVars() == xs
    assert repr(xs[3]) == "<kaviro.Var x3 (Removed)>"
    m.remove(xs[1])  # twice before the update is harmless
    m.update()
    assert m.getVars() == [xs[0], xs[2], xs[4]]
    assert [v.index() for v in m.getVars()] == [0, 1, 2]
    assert [v.VarName for v in m.getVars()] == ["x0", "x2", "x4"]
    assert xs[1].index() == -2 and repr(xs[1]) == "<kaviro.Var *Removed*>"
    with pytest.raises(kp.KaviroError) as err:
        m.remove(xs[1])
    assert err.value.errno == -1
    assert err.value.message == "Tried to remove a variable that does not exist"


def test_remove_errors_leave_every_mark_unset(env, m):
    x = m.addVar()
    c = m.addLConstr(x, ">", 0)
    m.update()
    other = kp.Model(env=env)
    y = other.addVar()
    other.update()
    with pytest.raises(kp.KaviroError) as err:
        m.remove([x, c, y])
    assert (err.value.errno, err.value.message) == (-1, "Item to be removed is not in model")
    with pytest.raises(kp.KaviroError) as err:
        m.remove([x, "x"])
    assert err.value.message == "Item to be removed not a Var, Constr, SOS, QConstr, or GenConstr"
    assert x._colno == 0 and c._rowno == 0  # nothing was marked
    m.remove({"k": x})  # a dict removes its values
    assert x._colno == -3
    other.dispose()


def test_remove_pending_handles_of_each_kind(m):
    m.Params.UpdateMode = 0
    m.update()
    x = m.addVar()
    y = m.addVar()
    m.update()
    pending = [
        (m.addVar(), "Tried to remove a variable that does not exist"),
        (m.addLConstr(x, "<", 1), "Tried to remove a constraint that does not exist"),
        (m.addSOS(KVR.SOS_TYPE1, [x, y]), "Tried to remove an SOS that does not exist"),
        (m.addQConstr(x * x, "<", 1), "Tried to remove a quadratic constraint that does not exist"),
        (m.addGenConstrAbs(x, y), "Tried to remove a general constraint that does not exist"),
    ]
    for handle, text in pending:
        with pytest.raises(kp.KaviroError) as err:
            m.remove(handle)
        assert (err.value.errno, err.value.message) == (-1, text)


def test_two_removals_from_the_middle_keep_order(m):
    cs = [m.addLConstr(0, "<", i, name="c%d" % i) for i in range(6)]
    m.update()
    m.remove(cs[2])
    m.remove(cs[4])
    m.update()
    assert [c.ConstrName for c in m.getConstrs()] == ["c0", "c1", "c3", "c5"]
    assert [c.index() for c in m.getConstrs()] == [0, 1, 2, 3]
    assert m.NumConstrs == 4


def test_dispose_detaches_handles_and_frees(env):
    with kp.Model("w", env=env) as m:
        x = m.addVar(name="x")
        m.update()
        assert env._modcnt == 1
    assert env._modcnt == 0
    assert m._cmodel is None
    assert repr(m) == "<kaviro.Model empty model>"
    assert x._cmodel is None and x._colno == -1
    assert repr(x) == "<kaviro.Var *Awaiting Model Update*>"
    with pytest.raises(kp.KaviroError) as err:
        m.update()
    assert (err.value.errno, err.value.message) == (0, "Model has already been freed")
    with pytest.raises(kp.KaviroError):
        m.addVar()


def test_garbage_collection_frees_the_model(env):
    m = kp.Model(env=env)
    x = m.addVar()
    m._self = m  # a cycle through the instance dictionary
    del m
    gc.collect()
    assert env._modcnt == 0
    assert x._cmodel is None


def test_copy_and_adopted_models_index_lazily(m):
    x = m.addVar(name="x")
    m.addLConstr(x, "<", 1, name="c")
    m.addSOS(KVR.SOS_TYPE1, [x, m.addVar(name="y")])
    m.update()
    c = m.copy()
    try:
        assert c._uenv is m._uenv and c._Model__vars is None
        assert [v.VarName for v in c.getVars()] == ["x", "y"]
        assert c.getVars()[0] is not x
        assert c.getSOSs() == []  # numbered by the next update
        c.update()
        assert len(c.getSOSs()) == 1 and c.getSOSs()[0].index() == 0
        assert c.getConstrByName("c").index() == 0
    finally:
        c.dispose()


def test_names_and_shared_handles(m):
    x = m.addVar(name="x")
    y = m.addVar(name="y")
    m.addLConstr(x + y, "<", 1, name="cap")
    m.update()
    assert m.getVarByName("y") is y
    assert m.getVarByName("nope") is None
    assert m.getConstrByName("cap") is m.getConstrs()[0]
    assert m.getConstrByName("nope") is None
    assert m._Model__getVar(0) is x
    x._tag = "kept"
    assert m.getVars()[0]._tag == "kept"  # the same object every time


def test_model_attribute_routing(m):
    m.ModelName = "renamed"
    m.update()
    assert m.ModelName == "renamed" and m.modelname == "renamed"
    m._private = 5
    assert m._private == 5 and "_private" in dir(m)
    with pytest.raises(AttributeError) as err:
        m.NumVars = 3
    assert str(err.value) == "Attribute 'NumVars' cannot be set"
    with pytest.raises(AttributeError) as err:
        m.NoSuchAttr
    assert str(err.value) == "'kaviropy.Model' object has no attribute 'NoSuchAttr'"
    assert m.LB == []  # a variable attribute reads over all variables
    with pytest.raises(AttributeError):
        m._missing
    assert not hasattr(m, "ObjVal")  # no solution yet
    names = dir(m)
    assert "NumVars" in names and "addVar" in names and "LB" not in names
    assert names == sorted(names)


def test_params_of_the_model(m, env):
    m.Params.TimeLimit = 10
    assert m.Params.TimeLimit == 10.0
    assert env.getParamInfo("TimeLimit")[2] == 1e100  # the user's env is untouched
    m.setParam("MIPGap", 0.25)
    assert m.getParamInfo("MIPGap")[2] == 0.25
    assert "TimeLimit=10.0" in repr(m) and "MIPGap=0.25" in repr(m)
    m.Params.TimeLimit = "default"
    assert m.Params.TimeLimit == 1e100


def test_owns_and_private_fields(env, m):
    x = m.addVar()
    other = kp.Model(env=env)
    y = other.addVar()
    assert m._owns(x) and not m._owns(y) and m._owns(m)
    assert m._Model__newranges == 0
    other.dispose()


def test_setup_raises_gc_threshold_only_while_building(env):
    thresholds = gc.get_threshold()
    m = kp.Model(env=env)
    m.addVars(20000)
    m.update()
    c = m.copy()
    assert len(c.getVars()) == 20000
    assert gc.get_threshold() == thresholds
    c.dispose()
    m.dispose()


def test_resync_adds_handles_for_elements_the_library_added(m):
    import ctypes
    import os
    lib = ctypes.CDLL(os.path.join(os.path.dirname(kp._core.__file__), "libkaviro100.so"))
    x = m.addVar(name="x")
    m.update()
    assert m.getVars() == [x]
    code = lib.KVRaddvar(ctypes.c_void_p(m._cmodel), 0, None, None, ctypes.c_double(0.0),
                         ctypes.c_double(0.0), ctypes.c_double(1.0), ctypes.c_char(b"C"), b"extra")
    assert code == 0
    m.update()
    m._Model__resync()
    vs = m.getVars()
    assert len(vs) == 2 and vs[0] is x
    assert vs[1].VarName == "extra" and vs[1].index() == 1
