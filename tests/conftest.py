import os
import pathlib
import signal

import pytest

import kaviropy as kp

# Tests of Ctrl-C expect Python's own SIGINT handler (here and in the processes they start); a
# launcher that runs the suite in the background starts it with SIGINT ignored.
if signal.getsignal(signal.SIGINT) is signal.SIG_IGN:
    signal.signal(signal.SIGINT, signal.default_int_handler)

INSTANCES = pathlib.Path(__file__).resolve().parent / "data" / "instances"
# The name printed for a handle that is not (yet) in a model.
PENDING_NAME = "*Awaiting Model Update*"


def raises(code, message, fn, *args):
    """fn(*args) raises KaviroError with exactly this code and message."""
    with pytest.raises(kp.KaviroError) as info:
        fn(*args)
    assert (info.value.errno, info.value.message) == (code, message)


@pytest.fixture
def env():
    """A started environment that logs nothing."""
    e = kp.Env(empty=True)
    e.setParam("OutputFlag", 0)
    e.start()
    yield e
    e.dispose()


@pytest.fixture
def m(env, request):
    """An empty model, named by the test module's MODEL_NAME."""
    model = kp.Model(getattr(request.module, "MODEL_NAME", "m"), env=env)
    yield model
    model.dispose()


@pytest.fixture
def named(env):
    """Variables x, y, z of a real model, numbered."""
    m = kp.Model(env=env)
    vs = [m.addVar(name=n) for n in "xyz"]
    m.update()
    yield vs
    m.dispose()


@pytest.fixture
def tmp_cwd(tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    return tmp_path
