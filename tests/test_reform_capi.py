"""Builds the C test program of the model rewriting (SOS, semi-continuous variables, general
constraints, piecewise-linear objectives, function approximations) against the installed package
and runs it."""

import os
import pathlib
import shutil
import subprocess

import pytest

from test_capi import _package_dir

SOURCE = pathlib.Path(__file__).resolve().parent / "c" / "reform_test.c"


def test_rewriting_through_the_c_interface(tmp_path):
    compiler = os.environ.get("CC") or shutil.which("cc") or shutil.which("gcc")
    if compiler is None:
        pytest.skip("no C compiler on this system")
    pkg = _package_dir()
    exe = tmp_path / "reform_test"
    cmd = [compiler, "-std=c11", "-Wall", "-Wextra", "-Werror", "-O1", "-g",
           "-I", str(pkg / "include"), str(SOURCE), "-o", str(exe),
           "-L", str(pkg), "-lkaviro100", "-Wl,-rpath," + str(pkg), "-lm"]
    build = subprocess.run(cmd, capture_output=True, text=True)
    assert build.returncode == 0, "compiling reform_test.c failed:\n" + build.stderr
    result = subprocess.run([str(exe)], capture_output=True, text=True, timeout=600)
    assert result.returncode == 0, result.stdout + result.stderr
    assert " 0 failed" in result.stdout
