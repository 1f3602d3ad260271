"""Environments and parameters: creation, settings by name and pattern, files, reprs, logging."""

import logging

import pytest

import kaviropy as kp
from kaviropy import KVR


def test_empty_env_is_configured_before_start():
    e = kp.Env(empty=True)
    assert e._empty
    e.setParam("OutputFlag", 0)
    assert e.start() is e
    assert not e._empty
    assert e.getParamInfo("OutputFlag")[2] == 0
    e.dispose()


def test_param_info_and_defaults_of_every_parameter(env):
    names = env._paramlist("*")
    assert len(names) == 172
    for name in names:
        info = env.getParamInfo(name)
        assert info[0] == name
        if name != "OutputFlag":  # the fixture silences the log
            assert info[2] == info[5], name
        if info[1] is not str:
            assert info[3] <= info[5] <= info[4], name
    assert env.getParamInfo("TimeLimit") == ("TimeLimit", float, 1e100, 0.0, 1e100, 1e100)
    assert env.getParamInfo("Threads") == ("Threads", int, 0, 0, 1024, 0)
    assert env.getParamInfo("NodefileDir") == ("NodefileDir", str, ".", None, None, ".")


def test_names_are_case_insensitive_and_default_restores(env):
    env.setParam("timelimit", 12.5)
    assert env.getParamInfo("TIMELIMIT")[2] == 12.5
    env.setParam("TimeLimit", "DeFaUlt")
    assert env.getParamInfo("TimeLimit")[2] == 1e100
    env.setParam("Method", 2.0)  # an integral float is fine for an integer parameter
    assert env.getParamInfo("Method")[2] == 2


def test_out_of_range_and_bad_values_keep_the_old_value(env):
    env.setParam("MIPGap", 0.5)
    with pytest.raises(kp.KaviroError) as err:
        env.setParam("MIPGap", -1)
    assert err.value.errno == KVR.ERROR_VALUE_OUT_OF_RANGE
    assert "MIPGap" in err.value.message and "[0, 1e+100]" in err.value.message
    assert env.getParamInfo("MIPGap")[2] == 0.5
    with pytest.raises(kp.KaviroError) as err:
        env.setParam("Threads", 5000)
    assert err.value.errno == KVR.ERROR_VALUE_OUT_OF_RANGE
    with pytest.raises(kp.KaviroError) as err:
        env.setParam("Threads", 1.5)
    assert err.value.errno == KVR.ERROR_INVALID_ARGUMENT and "integer" in err.value.message
    with pytest.raises(kp.KaviroError) as err:
        env.setParam("Threads", 2**40)
    assert err.value.errno == KVR.ERROR_VALUE_OUT_OF_RANGE
    assert env.getParamInfo("Threads")[2] == 0


def long_dir(tmp_path):
    """A directory whose path is longer than 600 characters."""
    d = tmp_path
    while len(str(d)) < 600:
        d = d / ("d" * 200)
    d.mkdir(parents=True)
    return d


def test_string_parameters_of_any_length(env, tmp_path, capsys):
    d = long_dir(tmp_path)
    log = d / "run.log"
    e = kp.Env(str(log), params={"LogToConsole": 0})
    assert e.getParamInfo("LogFile")[2] == str(log)
    m = kp.Model("long", env=e)
    assert m.Params.LogFile == str(log)
    m.addVar(obj=1)
    m.optimize()
    assert "Result: optimal" in log.read_text()
    m.dispose()
    e.dispose()
    # Long values travel through parameter files unchanged.
    env.setParam("NodefileDir", str(d))
    env.writeParams(str(d / "p.prm"))
    other = kp.Env(empty=True)
    other.readParams(str(d / "p.prm"))
    assert other.getParamInfo("NodefileDir")[2] == str(d)
    other.dispose()


def test_unknown_names_and_patterns(env, capsys):
    with pytest.raises(kp.KaviroError) as err:
        env.setParam("NoSuchParam", 1)
    assert err.value.errno == KVR.ERROR_UNKNOWN_PARAMETER
    assert err.value.message == "Unknown parameter NoSuchParam"
    with pytest.raises(kp.KaviroError) as err:
        env.getParamInfo("NoSuchParam")
    assert err.value.errno == KVR.ERROR_UNKNOWN_PARAMETER
    assert env._paramlist("Cut*") == ["Cutoff", "Cuts", "CutAggPasses", "CutPasses"]
    assert env._paramlist("MIPGAP") == ["MIPGAP"]

    loud = kp.Env()
    loud.setParam("Cut*", 3)  # several matches: nothing is set, the names are listed
    loud.setParam("Zzz*", 3)
    out = capsys.readouterr().out
    assert "Matching parameters: ['Cutoff', 'Cuts', 'CutAggPasses', 'CutPasses']" in out
    assert "No parameters matching 'Zzz*' found" in out
    assert repr(loud) == "<kaviropy.Env, No parameter changes>"
    loud.setParam("Cutof?", 7)  # exactly one match is set
    assert loud.getParamInfo("Cutoff")[2] == 7.0
    loud.dispose()


def test_repr_lists_changes_and_hides_secrets(env):
    assert repr(env) == "<kaviropy.Env, Parameter changes: OutputFlag=0>"
    env.setParam("ServerPassword", "hunter2")
    env.setParam("Threads", 2)
    assert repr(env) == ("<kaviropy.Env, Parameter changes: ServerPassword=(user-defined), "
                         "OutputFlag=0, Threads=2>")
    env.dispose()
    assert repr(env) == "<kaviropy.Env, invalid or closed state>"
    env.dispose()  # twice is harmless
    with pytest.raises(kp.KaviroError) as err:
        env.setParam("Threads", 1)
    assert (err.value.errno, err.value.message) == (-1, "Invalid Environment")


def test_with_block_closes_even_when_raising():
    with pytest.raises(ZeroDivisionError):
        with kp.Env(empty=True) as e:
            assert e._cenv is not None
            1 / 0
    assert e._cenv is None


def test_params_dict_at_construction():
    e = kp.Env(empty=True, params={"OutputFlag": 0, "TimeLimit": 5})
    assert e.getParamInfo("TimeLimit")[2] == 5.0
    with pytest.raises(kp.KaviroError):
        kp.Env(params={"OutputFlag": 0, "Bogus": 1})
    e.dispose()


def test_param_file_round_trip(env, tmp_path):
    env.setParam("TimeLimit", 30)
    env.setParam("Threads", 3)
    env.setParam("NodefileDir", "/tmp/nodes dir")
    path = tmp_path / "s.prm"
    env.writeParams(str(path))
    text = path.read_text().splitlines()
    assert [l.split()[0] for l in text if not l.startswith("#")] == [
        "TimeLimit", "NodefileDir", "OutputFlag", "Threads"]

    other = kp.Env(empty=True)
    other.readParams(str(path))
    for name in ("TimeLimit", "Threads", "NodefileDir", "OutputFlag"):
        assert other.getParamInfo(name)[2] == env.getParamInfo(name)[2]
    other.dispose()


def test_bad_param_files_change_nothing(env, tmp_path):
    bad = tmp_path / "bad.prm"
    bad.write_text("# settings\nTimeLimit 10\nThreads 9999\n")
    with pytest.raises(kp.KaviroError) as err:
        env.readParams(str(bad))
    assert err.value.errno == KVR.ERROR_FILE_READ
    assert "line 3" in err.value.message and "Threads" in err.value.message
    assert env.getParamInfo("TimeLimit")[2] == 1e100
    bad.write_text("Bogus 1\n")
    with pytest.raises(kp.KaviroError) as err:
        env.readParams(str(bad))
    assert "unknown parameter 'Bogus'" in err.value.message
    with pytest.raises(kp.KaviroError) as err:
        env.readParams(str(tmp_path / "missing.prm"))
    assert err.value.errno == KVR.ERROR_FILE_READ
    with pytest.raises(kp.KaviroError) as err:
        env.writeParams(str(tmp_path / "no" / "such" / "dir.prm"))
    assert err.value.errno == KVR.ERROR_FILE_WRITE


def test_reset_params(env):
    env.setParam("MIPGap", 0.1)
    env.resetParams()
    assert repr(env) == "<kaviropy.Env, No parameter changes>"


def test_log_reaches_stdout_logging_and_log_file(tmp_path, capsys, caplog):
    log = tmp_path / "run.log"
    e = kp.Env(logfilename=str(log))
    with caplog.at_level(logging.INFO, logger="kaviropy"):
        e._message("hello from the log")
    assert "hello from the log\n" in capsys.readouterr().out
    assert "hello from the log" in caplog.messages
    assert "hello from the log" in log.read_text()

    e.setParam("LogToConsole", 0)  # the file still gets it, the console does not
    e._message("file only")
    assert capsys.readouterr().out == ""
    assert "file only" in log.read_text()

    e.setParam("OutputFlag", 0)  # silences everything
    e._message("nowhere")
    assert capsys.readouterr().out == ""
    assert "nowhere" not in log.read_text()
    with pytest.raises(kp.KaviroError) as err:
        e.setParam("LogFile", str(tmp_path / "missing" / "x.log"))
    assert err.value.errno == KVR.ERROR_FILE_WRITE
    assert e.getParamInfo("LogFile")[2] == str(log)
    e.dispose()


def test_remote_settings_are_refused_at_start():
    cases = [("ComputeServer", "srv:61000", KVR.ERROR_NETWORK),
             ("CloudAccessID", "id", KVR.ERROR_CLOUD),
             ("JobID", "42", KVR.ERROR_JOB_REJECTED),
             ("WorkerPool", "pool", KVR.ERROR_CSWORKER),
             ("CSAuthToken", "t", KVR.ERROR_SECURITY)]
    for name, value, code in cases:
        e = kp.Env(empty=True)
        e.setParam(name, value)
        with pytest.raises(kp.KaviroError) as err:
            e.start()
        assert err.value.errno == code
        assert err.value.message  # the library says why
        assert e._empty  # a failed start leaves the environment configurable
        e.setParam(name, "")
        e.start()
        e.dispose()


def test_param_class(env):
    p = kp.ParamClass(env)
    p.TimeLimit = 10
    assert p.TimeLimit == 10.0
    p.TimeLimit = "default"
    assert p.TimeLimit == 1e100
    assert repr(p) == "<kaviropy.ParamClass: Parameter changes: OutputFlag=0>"
    assert p._getChangeList() == "Parameter changes: OutputFlag=0"
    with pytest.raises(AttributeError, match="No parameter named 'Bogus'"):
        p.Bogus
    assert not hasattr(p, "Bogus")
    with pytest.raises(kp.KaviroError):
        p.Bogus = 1
    p._private = 5  # underscore names stay on the Python object
    assert p._private == 5
    names = dir(p)
    assert "TimeLimit" in names and "UpdateMode" in names and "_private" in names
