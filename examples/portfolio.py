"""Mean-variance portfolio selection: a convex quadratic objective with linear constraints.

The smallest variance of return among portfolios that reach a target expected return; the
fractions invested sum to one, no short sales.

    python examples/portfolio.py
"""

import kaviropy as kp
from kaviropy import KVR

assets = ["bonds", "stocks", "gold", "property"]
expected = {"bonds": 0.03, "stocks": 0.09, "gold": 0.05, "property": 0.07}
covariance = {
    ("bonds", "bonds"): 0.0016, ("bonds", "stocks"): -0.0008, ("bonds", "gold"): 0.0002,
    ("bonds", "property"): 0.0004, ("stocks", "stocks"): 0.0400, ("stocks", "gold"): -0.0020,
    ("stocks", "property"): 0.0120, ("gold", "gold"): 0.0225, ("gold", "property"): 0.0010,
    ("property", "property"): 0.0196,
}


def solve(target=0.06, verbose=True):
    """Returns (variance, fractions) of the least risky portfolio reaching the target return."""
    m = kp.Model("portfolio")
    m.Params.OutputFlag = 1 if verbose else 0
    w = m.addVars(assets, lb=0, ub=1, name="w")
    risk = kp.QuadExpr()
    for (a, b), c in covariance.items():
        risk += (c if a == b else 2 * c) * w[a] * w[b]
    m.setObjective(risk, KVR.MINIMIZE)
    m.addConstr(w.sum() == 1, name="budget")
    m.addConstr(w.prod(expected) >= target, name="return")
    m.optimize()
    result = (m.ObjVal, {a: w[a].X for a in assets})
    m.dispose()
    return result


if __name__ == "__main__":
    variance, fractions = solve()
    print("\nvariance %.6f (standard deviation %.4f)" % (variance, variance ** 0.5))
    for a, f in fractions.items():
        print("  %-8s %5.1f%%" % (a, 100 * f))
