"""Builds the C test program of the library's C interface against the installed package and runs
it (once more under valgrind when KAVIRO_VALGRIND=1 and valgrind is installed)."""

import importlib.util
import os
import pathlib
import shutil
import subprocess

import pytest

import kaviropy

SOURCE = pathlib.Path(__file__).resolve().parent / "c" / "capi_test.c"


def _package_dir():
    """The directory holding libkaviro100.so and include/kaviro_c.h: the package itself, or, for
    an editable install, the directory of the compiled extension."""
    candidates = [pathlib.Path(kaviropy.__file__).resolve().parent]
    spec = importlib.util.find_spec("kaviropy._core")
    if spec is not None and spec.origin:
        candidates.append(pathlib.Path(spec.origin).resolve().parent)
    for d in candidates:
        if (d / "libkaviro100.so").exists() and (d / "include" / "kaviro_c.h").exists():
            return d
    pytest.fail("libkaviro100.so and include/kaviro_c.h not found in %s" % candidates)


@pytest.fixture(scope="module")
def capi_test(tmp_path_factory):
    compiler = os.environ.get("CC") or shutil.which("cc") or shutil.which("gcc")
    if compiler is None:
        pytest.skip("no C compiler on this system")
    pkg = _package_dir()
    exe = tmp_path_factory.mktemp("capi") / "capi_test"
    cmd = [compiler, "-std=c11", "-Wall", "-Wextra", "-Werror", "-O1", "-g",
           "-I", str(pkg / "include"), str(SOURCE), "-o", str(exe),
           "-L", str(pkg), "-lkaviro100", "-Wl,-rpath," + str(pkg), "-lm"]
    build = subprocess.run(cmd, capture_output=True, text=True)
    assert build.returncode == 0, "compiling capi_test.c failed:\n" + build.stderr
    return exe


def _run(cmd):
    return subprocess.run(cmd, capture_output=True, text=True, timeout=600)


def test_c_interface(capi_test):
    result = _run([str(capi_test)])
    assert result.returncode == 0, result.stdout + result.stderr
    assert " 0 failed" in result.stdout


@pytest.mark.skipif(os.environ.get("KAVIRO_VALGRIND") != "1" or shutil.which("valgrind") is None,
                    reason="set KAVIRO_VALGRIND=1 (with valgrind installed) to run under valgrind")
def test_c_interface_under_valgrind(capi_test):
    result = _run(["valgrind", "--error-exitcode=99", "--leak-check=full",
                   "--errors-for-leak-kinds=definite,indirect", "--quiet", str(capi_test)])
    assert result.returncode == 0, result.stdout + result.stderr
