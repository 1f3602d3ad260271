"""The engine layer: engines loaded at run time, what each engine reports about itself, and the
steps that make up for what an engine lacks."""

import os
import pathlib
import subprocess
import sys

import pytest

import kaviropy as kp
from kaviropy import KVR


def run_with_highs_library(location):
    """Builds and solves a small model in a fresh process whose HiGHS library is `location`;
    returns the lines printed."""
    script = """
import kaviropy as kp
m = kp.Model()
m.Params.OutputFlag = 0
x = m.addVar(ub=2, obj=-1)
m.addConstr(x <= 1)
m.update()
try:
    m.optimize()
    print("solved", m.ObjVal)
except kp.KaviroError as e:
    print("error", e.errno, e.message)
print("kept", m.NumVars, m.NumConstrs)
"""
    env = dict(os.environ, KAVIRO_HIGHS_LIBRARY=str(location), KAVIRO_ENGINE_OPTIONS="engine=highs")
    done = subprocess.run([sys.executable, "-c", script], capture_output=True, text=True, env=env,
                          timeout=60)
    assert done.returncode == 0, done.stderr
    return done.stdout.splitlines()


def test_highs_library_missing_or_wrong_is_refused_at_first_use(tmp_path):
    # A file that is no library, and a library without the engine's functions (our own): both
    # refused with NOT_SUPPORTED when a solve needs the engine; the model is untouched.
    fake = tmp_path / "libhighs.so"
    fake.write_text("not a library")
    own = pathlib.Path(kp._core.__file__).parent / "libkaviro100.so"
    for location, reason in [(fake, "could not be loaded"),
                             (own, "is not a usable HiGHS library: it lacks Highs_")]:
        out = run_with_highs_library(location)
        assert out[0].startswith(f"error {KVR.ERROR_NOT_SUPPORTED} Engine HiGHS is not available: ")
        assert reason in out[0] and str(location) in out[0]
        assert out[1] == "kept 1 1"
    # A directory without the library is passed over: the package's highsbox is found next.
    (tmp_path / "empty").mkdir()
    assert run_with_highs_library(tmp_path / "empty")[0] == "solved -1.0"
