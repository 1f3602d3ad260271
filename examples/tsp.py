"""Travelling salesman with lazy subtour elimination.

The model has one binary variable per pair of cities and a degree-2 constraint per city. Every
time the solver finds a new integer solution, the callback looks for the shortest cycle in the
chosen edges; when that cycle misses some cities, the callback adds the constraint that the cycle
must be left at least once (a lazy constraint). The final tour visits every city once.

    python examples/tsp.py [number of cities] [seed]
"""

import itertools
import math
import random
import sys

import kaviropy as kp
from kaviropy import KVR


def shortest_cycle(n, edges):
    """The shortest cycle (list of cities) in a graph where every city has degree two."""
    neighbours = {i: [] for i in range(n)}
    for i, j in edges:
        neighbours[i].append(j)
        neighbours[j].append(i)
    unvisited = set(range(n))
    best = list(range(n + 1))
    while unvisited:
        start = next(iter(unvisited))
        cycle, current = [], start
        while current in unvisited:
            unvisited.remove(current)
            cycle.append(current)
            current = next((k for k in neighbours[current] if k in unvisited), current)
        if len(cycle) < len(best):
            best = cycle
    return best


def subtour_elimination(model, where):
    if where != KVR.Callback.MIPSOL:
        return
    values = model.cbGetSolution(model._x)
    chosen = [e for e, v in values.items() if v > 0.5]
    cycle = shortest_cycle(model._n, chosen)
    if len(cycle) < model._n:
        model._cuts += 1
        model.cbLazy(
            kp.quicksum(model._x[min(i, j), max(i, j)]
                        for i, j in itertools.combinations(cycle, 2))
            <= len(cycle) - 1)


def solve(n=20, seed=1, env=None):
    """Solves a random instance; returns (tour, length, number of lazy constraints added)."""
    rng = random.Random(seed)
    points = [(rng.random(), rng.random()) for _ in range(n)]
    dist = {(i, j): math.dist(points[i], points[j]) for i, j in itertools.combinations(range(n), 2)}
    m = kp.Model("tsp", env=env) if env is not None else kp.Model("tsp")
    x = m.addVars(list(dist), vtype=KVR.BINARY, name="e")
    m.setObjective(kp.quicksum(d * x[e] for e, d in dist.items()), KVR.MINIMIZE)
    for i in range(n):
        m.addConstr(kp.quicksum(x[min(i, j), max(i, j)] for j in range(n) if j != i) == 2,
                    name=f"deg{i}")
    m._x, m._n, m._cuts = x, n, 0
    m.Params.LazyConstraints = 1
    m.optimize(subtour_elimination)
    chosen = [e for e in dist if x[e].X > 0.5]
    tour = shortest_cycle(n, chosen)
    length, cuts = m.ObjVal, m._cuts
    m.dispose()
    return tour, length, cuts


if __name__ == "__main__":
    n = int(sys.argv[1]) if len(sys.argv) > 1 else 20
    seed = int(sys.argv[2]) if len(sys.argv) > 2 else 1
    tour, length, cuts = solve(n, seed)
    print(f"Tour of {n} cities, length {length:.4f}, {cuts} lazy constraints: {tour}")
