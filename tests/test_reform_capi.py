"""Builds the C test program of the model rewriting (SOS, semi-continuous variables, general
constraints, piecewise-linear objectives, function approximations) against the installed package
and runs it."""

from clib import build_c_program, run_c_program


def test_rewriting_through_the_c_interface(tmp_path):
    run_c_program(build_c_program("reform_test", tmp_path))
