"""A small diet problem: the cheapest mix of foods that meets every nutrient requirement.

Shows multidict data, addVars over a key list, addConstrs from a generator, tupledict.prod and
reading results as attributes.

    python examples/diet.py
"""

import kaviropy as kp
from kaviropy import KVR

# Nutrient requirements: (minimum, maximum) per day.
nutrients, min_need, max_need = kp.multidict({
    "calories": [1800, 2200],
    "protein": [91, KVR.INFINITY],
    "fat": [0, 65],
    "sodium": [0, 1779],
})

# Foods and their cost per serving.
foods, cost = kp.multidict({
    "hamburger": 2.49, "chicken": 2.89, "hot dog": 1.50, "fries": 1.89,
    "macaroni": 2.09, "pizza": 1.99, "salad": 2.49, "milk": 0.89, "ice cream": 1.59,
})

# Nutrient content of one serving of each food.
content = {
    ("hamburger", "calories"): 410, ("hamburger", "protein"): 24, ("hamburger", "fat"): 26,
    ("hamburger", "sodium"): 730, ("chicken", "calories"): 420, ("chicken", "protein"): 32,
    ("chicken", "fat"): 10, ("chicken", "sodium"): 1190, ("hot dog", "calories"): 560,
    ("hot dog", "protein"): 20, ("hot dog", "fat"): 32, ("hot dog", "sodium"): 1800,
    ("fries", "calories"): 380, ("fries", "protein"): 4, ("fries", "fat"): 19,
    ("fries", "sodium"): 270, ("macaroni", "calories"): 320, ("macaroni", "protein"): 12,
    ("macaroni", "fat"): 10, ("macaroni", "sodium"): 930, ("pizza", "calories"): 320,
    ("pizza", "protein"): 15, ("pizza", "fat"): 12, ("pizza", "sodium"): 820,
    ("salad", "calories"): 320, ("salad", "protein"): 31, ("salad", "fat"): 12,
    ("salad", "sodium"): 1230, ("milk", "calories"): 100, ("milk", "protein"): 8,
    ("milk", "fat"): 2.5, ("milk", "sodium"): 125, ("ice cream", "calories"): 330,
    ("ice cream", "protein"): 8, ("ice cream", "fat"): 10, ("ice cream", "sodium"): 180,
}


def solve(verbose=True):
    """Builds and solves the model; returns (cost, servings per food)."""
    with kp.Env(empty=True) as env:
        env.setParam("OutputFlag", 1 if verbose else 0)
        env.start()
        with kp.Model("diet", env=env) as m:
            buy = m.addVars(foods, obj=cost, name="buy")
            m.addConstrs(
                (kp.quicksum(content[f, n] * buy[f] for f in foods) >= min_need[n]
                 for n in nutrients), name="min")
            m.addConstrs(
                (kp.quicksum(content[f, n] * buy[f] for f in foods) <= max_need[n]
                 for n in nutrients if max_need[n] < KVR.INFINITY), name="max")
            m.ModelSense = KVR.MINIMIZE
            m.optimize()
            if m.Status != KVR.OPTIMAL:
                raise RuntimeError("no optimal diet (status %d)" % m.Status)
            return m.ObjVal, {f: buy[f].X for f in foods if buy[f].X > 1e-6}


if __name__ == "__main__":
    total, servings = solve()
    print("\nCost: %.2f" % total)
    for food, amount in servings.items():
        print("  %-10s %6.2f servings" % (food, amount))
