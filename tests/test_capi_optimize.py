"""Builds and runs the C test program of the optimization and callback entry points."""

import os
import shutil
import subprocess

import pytest

from test_capi import SOURCE, _package_dir

PROGRAM = SOURCE.parent / "optimize_test.c"


def test_optimize_c_interface(tmp_path):
    compiler = os.environ.get("CC") or shutil.which("cc") or shutil.which("gcc")
    if compiler is None:
        pytest.skip("no C compiler on this system")
    pkg = _package_dir()
    exe = tmp_path / "optimize_test"
    build = subprocess.run(
        [compiler, "-std=c11", "-Wall", "-Wextra", "-Werror", "-O1", "-I", str(pkg / "include"),
         str(PROGRAM), "-o", str(exe), "-L", str(pkg), "-lkaviro100", "-Wl,-rpath," + str(pkg),
         "-lm"], capture_output=True, text=True)
    assert build.returncode == 0, build.stderr
    result = subprocess.run([str(exe)], capture_output=True, text=True, timeout=300)
    assert result.returncode == 0 and " 0 failed" in result.stdout, result.stdout + result.stderr
