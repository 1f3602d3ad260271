"""The tour of the README: a few variables, one constraint, an objective, a solve.

    python examples/quickstart.py
"""

import kaviropy as kp
from kaviropy import KVR


def solve(verbose=True):
    """Returns the objective value and the values of the variables."""
    m = kp.Model("tour")
    m.Params.OutputFlag = 1 if verbose else 0
    x = m.addVars(3, lb=0, name="x")
    m.addConstr(x[0] + 2 * x[1] + x[2] >= 4, name="need")
    m.addConstr(x[0] - x[2] == 1, name="balance")
    m.setObjective(x.sum() + x[1], KVR.MINIMIZE)
    m.optimize()
    result = (m.ObjVal, [v.X for v in x.values()])
    m.dispose()
    return result


if __name__ == "__main__":
    obj, values = solve()
    print("objective", obj, "values", values)
