"""Builds the C test program of the library's C interface against the installed package and runs
it (once more under valgrind when KAVIRO_VALGRIND=1 and valgrind is installed)."""

import os
import shutil

import pytest

from clib import build_c_program, run_c_program


@pytest.fixture(scope="module")
def capi_test(tmp_path_factory):
    return build_c_program("capi_test", tmp_path_factory.mktemp("capi"))


def test_c_interface(capi_test):
    run_c_program(capi_test)


@pytest.mark.skipif(os.environ.get("KAVIRO_VALGRIND") != "1" or shutil.which("valgrind") is None,
                    reason="set KAVIRO_VALGRIND=1 (with valgrind installed) to run under valgrind")
def test_c_interface_under_valgrind(capi_test):
    run_c_program(["valgrind", "--error-exitcode=99", "--leak-check=full",
                   "--errors-for-leak-kinds=definite,indirect", "--quiet", capi_test])
