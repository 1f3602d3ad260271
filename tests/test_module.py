"""The module frame: KaviroError, constants and their guards, the default environment, help."""

import pytest

import kaviropy as kp
from kaviropy import KVR


def test_kaviro_error_construction():
    e = kp.KaviroError(10003, "x")
    assert (e.errno, e.message, str(e)) == (10003, "x", "x")
    e.message = "y"
    assert str(e) == "y"
    assert kp.KaviroError.__doc__ == "Kaviro exception class"
    assert isinstance(e, Exception)
    odd = kp.KaviroError(5, 3.0)
    assert odd.errno == 5
    with pytest.raises(AttributeError):
        odd.message
    with pytest.raises(TypeError):
        kp.KaviroError(1)
    none = kp.KaviroError(7, None)
    assert none.errno == 7 and none.args == (7, None)
    with pytest.raises(AttributeError):
        none.message
    none.message = "set later"
    assert str(none) == "set later"


def test_kaviro_error_takes_the_owners_message():
    e = kp.Env(empty=True)
    with pytest.raises(kp.KaviroError):
        e.setParam("Threads", -5)
    err = kp.KaviroError(KVR.ERROR_VALUE_OUT_OF_RANGE, e)
    assert "Threads" in err.message
    e.dispose()
    assert kp.KaviroError(1, e).message == "Failed to create environment"


def test_string_helpers():
    assert kp.__stringtobytes(b"abc") == b"abc"
    assert kp.__stringtobytes("\u00e9") == b"\xc3\xa9"
    assert kp.__stringtobytes(3) == 3
    assert kp.__bytestostring(b"\xc3\xa9") == "\u00e9"
    with pytest.raises(UnicodeDecodeError):
        kp.__bytestostring(b"\xff")
    assert kp.__isscalar(2) and kp.__isscalar(2.5) and not kp.__isscalar("2")
    import numpy as np
    assert kp.__isscalar(np.float32(1.5)) and kp.__isscalar(np.int64(3))


def test_constant_objects():
    assert KVR.Attr is KVR.attr and KVR.Status is KVR.status and KVR.Param is KVR.param
    assert KVR.Error is KVR.error and KVR.Callback is kp.CallbackClass
    assert KVR.Status.OPTIMAL == KVR.OPTIMAL == 2
    assert KVR.Error.NOT_IN_MODEL == KVR.ERROR_NOT_IN_MODEL == 20001
    assert KVR.ERROR_SECURITY == 10032 and not hasattr(KVR.Error, "SECURITY")
    assert KVR.Attr.NumVars == "NumVars" and KVR.Attr.BatchStatus == "BatchStatus"
    assert KVR.Param.TimeLimit == "TimeLimit" and KVR.Param.UpdateMode == "UpdateMode"
    assert KVR.METHOD_NONE == KVR.METHOD_AUTO == -1
    assert (KVR.VERSION_MAJOR, KVR.VERSION_MINOR, KVR.VERSION_TECHNICAL) == kp.kaviro.version()
    assert (KVR.INFINITY, KVR.UNDEFINED, KVR.GENCONSTR_LOGISTIC) == (1e100, 1e101, 17)
    assert KVR.Callback.MIPSOL == 4 and KVR.Callback.MIPSOL_SOL == 4001
    assert KVR.Callback.IIS_BOUNDGUESS == 9006
    assert [n for n in dir(KVR.Attr) if not n.startswith("_")].__len__() == 179


@pytest.mark.parametrize("obj, message", [
    (KVR.Attr, "Modifying Kaviro attribute constant not allowed"),
    (KVR.Param, "Modifying Kaviro parameter constant not allowed"),
    (KVR.Status, "Modifying Kaviro status constant not allowed"),
])
def test_guarded_constants(obj, message):
    before = {n: getattr(obj, n) for n in dir(obj) if not n.startswith("_")}
    with pytest.raises(kp.KaviroError) as err:
        obj.X = 1
    assert (err.value.errno, err.value.message) == (0, message)
    assert {n: getattr(obj, n) for n in dir(obj) if not n.startswith("_")} == before


def test_error_constants_are_not_guarded():
    KVR.Error.CALLBACK = 5
    try:
        assert KVR.Error.CALLBACK == 5
    finally:
        del KVR.Error.CALLBACK
    assert KVR.Error.CALLBACK == 10011


def test_default_environment_lifecycle(capsys):
    kp.disposeDefaultEnv()
    kp.disposeDefaultEnv()  # harmless when there is none
    assert kp.kaviro._getdefaultenv(create=False) is None
    kp.setParam("TimeLimit", 7)
    d = kp.kaviro._getdefaultenv(create=False)
    assert d is not None and d._default
    assert kp.getParamInfo("TimeLimit")[2] == 7.0
    kp.resetParams()
    assert kp.getParamInfo("TimeLimit")[2] == 1e100
    kp.disposeDefaultEnv()
    assert "Freeing default Kaviro environment" in capsys.readouterr().out
    assert kp.kaviro._getdefaultenv(create=False) is None
    assert d._cenv is None


def test_module_parameter_files(tmp_path):
    kp.setParam("OutputFlag", 0)
    kp.setParam("Seed", 11)
    f = tmp_path / "p.prm"
    kp.writeParams(str(f))
    kp.resetParams()
    kp.setParam("OutputFlag", 0)
    kp.readParams(str(f))
    assert kp.getParamInfo("Seed")[2] == 11
    kp.disposeDefaultEnv()


def test_read_wildcard_without_match(tmp_path):
    with pytest.raises(kp.KaviroError) as err:
        kp.read(str(tmp_path / "nothing*.mps"))
    assert err.value.message == "No file matching '" + str(tmp_path / "nothing*.mps") + "' found"


def test_help_texts(capsys):
    kp.help()
    out = capsys.readouterr().out
    assert out.startswith("\n  Kaviro shell.  Available top-level commands are:\n")
    for cmd in ("read()", "models()", "setParam()", "readParams()", "resetParams()",
                "paramHelp()", "writeParams()", "system()"):
        assert cmd in out
    kp.paramHelp("timelimit")
    out = capsys.readouterr().out
    assert out.startswith("  PARAMETER NAME:\n    TimeLimit\n  TYPE:\n    Double\n")
    assert "  PURPOSE:\n" in out
    kp.paramHelp("Cut*")
    assert capsys.readouterr().out.startswith("Matching parameters:")
    kp.paramHelp("Zzz")
    assert capsys.readouterr().out == "No help found for parameter Zzz\n"
    kp.disposeDefaultEnv()


def test_models_and_platform(capsys):
    kp.models()
    assert "No models currently loaded" in capsys.readouterr().out
    assert isinstance(kp.kaviro.platform(), str) and kp.kaviro.platform()
    assert kp.system("true") == 0


def test_type_information_ships_with_the_package():
    """py.typed and stubs beside the extension: valid Python, every public name of the module,
    signatures and docstrings of the classes' methods."""
    import ast
    import pathlib
    where = pathlib.Path(kp._core.__file__).parent
    assert (where / "py.typed").is_file()
    trees = {name: ast.parse((where / name).read_text()) for name in ("__init__.pyi", "_core.pyi")}
    package = trees["__init__.pyi"]
    declared = set()
    for node in package.body:
        if isinstance(node, (ast.ClassDef, ast.FunctionDef)):
            declared.add(node.name)
        elif isinstance(node, ast.ImportFrom):
            declared.update(a.asname or a.name for a in node.names)
    public = {n for n in dir(kp) if not n.startswith("_") and not isinstance(getattr(kp, n), type(kp))}
    assert public - declared == set()
    model = next(n for n in package.body if isinstance(n, ast.ClassDef) and n.name == "Model")
    methods = {f.name: f for f in model.body if isinstance(f, ast.FunctionDef)}
    assert {"addVar", "addConstr", "optimize", "getAttr", "setObjective"} <= set(methods)
    assert "callback" in [a.arg for a in methods["optimize"].args.args]
    assert all(ast.get_docstring(f) for name, f in methods.items() if not name.startswith("_"))
