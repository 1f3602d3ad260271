import os
import pathlib

import pytest

import kaviropy as kp

INSTANCES = pathlib.Path(__file__).resolve().parent / "data" / "instances"


@pytest.fixture
def env():
    """A started environment that logs nothing."""
    e = kp.Env(empty=True)
    e.setParam("OutputFlag", 0)
    e.start()
    yield e
    e.dispose()


@pytest.fixture
def tmp_cwd(tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    return tmp_path
