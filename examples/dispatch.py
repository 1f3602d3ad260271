"""Economic dispatch in matrix form: three generators over four periods.

Every generator's output per period is one element of a (3, 4) array of variables; capacities,
costs and demands are NumPy arrays that broadcast against it. The demand rows give their dual
prices (the marginal cost of one more unit in each period) as an array.

    python examples/dispatch.py
"""

import numpy as np

import kaviropy as kp
from kaviropy import KVR

cap = np.array([40.0, 30.0, 25.0])           # capacity of each generator
cost = np.array([1.0, 2.0, 3.5])             # linear cost per unit
demand = np.array([50.0, 70.0, 60.0, 30.0])  # demand per period
ramp = 15.0                                  # largest change of output between periods


def solve(verbose=True):
    """Returns (cost, output per generator and period, marginal price per period)."""
    m = kp.Model("dispatch")
    m.Params.OutputFlag = 1 if verbose else 0
    p = m.addMVar((3, 4), ub=cap[:, None], name="p")  # bounds broadcast to the shape
    balance = m.addConstr(p.sum(axis=0) == demand, name="demand")
    m.addConstr(p[:, 1:] - p[:, :-1] <= ramp, name="rampup")
    m.addConstr(p[:, :-1] - p[:, 1:] <= ramp, name="rampdown")
    m.setObjective((cost[:, None] * p).sum() + 0.01 * (p * p).sum(), KVR.MINIMIZE)
    m.optimize()
    result = m.ObjVal, p.X, balance.Pi
    m.dispose()
    return result


if __name__ == "__main__":
    total, output, price = solve()
    print("cost", round(total, 4))
    print("output\n", output.round(3))
    print("price per period", price.round(4))
