"""The example programs run and give their known answers (the README tour is one of them)."""

import importlib.util
import pathlib
import subprocess
import sys

import numpy as np
import pytest

EXAMPLES = pathlib.Path(__file__).resolve().parent.parent / "examples"


def load(name):
    spec = importlib.util.spec_from_file_location(name, EXAMPLES / f"{name}.py")
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    return module


def test_quickstart():
    obj, values = load("quickstart").solve(verbose=False)
    assert obj == pytest.approx(4.0)
    assert values == pytest.approx([1.0, 1.5, 0.0])


def test_diet():
    cost, servings = load("diet").solve(verbose=False)
    assert cost == pytest.approx(11.8288611111, rel=1e-8)
    assert set(servings) == {"hamburger", "milk", "ice cream"}


def test_portfolio():
    example = load("portfolio")
    variance, fractions = example.solve(verbose=False)
    assert sum(fractions.values()) == pytest.approx(1.0)
    assert sum(example.expected[a] * f for a, f in fractions.items()) >= 0.06 - 1e-7
    assert variance == pytest.approx(0.0065336526, rel=1e-5)
    # A higher target return costs more risk.
    assert example.solve(target=0.08, verbose=False)[0] > variance


def test_quickstart_runs_as_a_program():
    out = subprocess.run([sys.executable, str(EXAMPLES / "quickstart.py")], capture_output=True,
                         text=True, check=True).stdout
    assert "Result: optimal" in out
    assert out.strip().endswith("objective 4.0 values [1.0, 1.5, 0.0]")


def test_dispatch_in_matrix_form():
    example = load("dispatch")
    total, output, price = example.solve(verbose=False)
    assert total == pytest.approx(346.0)
    assert output.shape == (3, 4) and price.shape == (4,)
    assert output.sum(axis=0) == pytest.approx(example.demand)
    assert (output <= example.cap[:, None] + 1e-9).all()
    assert abs(np.diff(output, axis=1)).max() <= example.ramp + 1e-9
    # The cheapest generator's marginal cost sets the price of the first period.
    assert price[0] == pytest.approx(example.cost[0] + 0.02 * output[0, 0], rel=1e-4)
