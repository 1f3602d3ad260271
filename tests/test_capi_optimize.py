"""Builds and runs the C test program of the optimization and callback entry points."""

from clib import build_c_program, run_c_program


def test_optimize_c_interface(tmp_path):
    run_c_program(build_c_program("optimize_test", tmp_path), timeout=300)
