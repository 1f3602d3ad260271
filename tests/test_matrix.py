"""The matrix API: MVar, MLinExpr, MQuadExpr, MConstr, MQConstr and the matrix model methods."""
import numpy as np
import pytest
import scipy.sparse as sp

import kaviropy as kp
from kaviropy import KVR

MODEL_NAME = "matrix"


def fixed_values(m, x, values):
    """Fixes x to values and solves, so that expressions over x have known values."""
    x.LB = values
    x.UB = values
    m.optimize()
    assert m.Status == KVR.OPTIMAL


# ---------------------------------------------------------------- the same model in two forms

def unit_commitment(env, matrix):
    """Three generators over four periods: capacity, ramping, demand, commitment with minimum
    output (indicators), quadratic cost. Returns the optimum."""
    cap = np.array([40.0, 30.0, 25.0])
    pmin = np.array([10.0, 8.0, 5.0])
    cost = np.array([1.0, 2.0, 3.5])
    demand = np.array([50.0, 70.0, 60.0, 30.0])
    ramp = 15.0
    G, T = cap.size, demand.size
    m = kp.Model("uc", env=env)
    if matrix:
        x = m.addMVar((G, T), lb=0, ub=cap[:, None], vtype=KVR.CONTINUOUS, name="p")
        u = m.addMVar((G, T), vtype=KVR.BINARY, name="u")
        r = m.addMVar(T, name="r")
        m.addConstr(x.sum(axis=0) + r == demand)
        m.addConstr(x[:, 1:] - x[:, :-1] <= ramp)
        m.addConstr(x <= cap[:, None] * u)
        for g in range(G):
            for t in range(T):
                m.addGenConstrIndicator(u[g, t], True, x[g, t] >= pmin[g])
        m.setObjective((cost[:, None] * x).sum() + 0.01 * (cost[:, None] * x * x).sum()
                       + 1000 * r.sum() + 5 * u.sum(), KVR.MINIMIZE)
    else:
        x = {(g, t): m.addVar(ub=cap[g], name=f"p{g}{t}") for g in range(G) for t in range(T)}
        u = {(g, t): m.addVar(vtype=KVR.BINARY) for g in range(G) for t in range(T)}
        r = [m.addVar() for t in range(T)]
        for t in range(T):
            m.addConstr(kp.quicksum(x[g, t] for g in range(G)) + r[t] == demand[t])
        for g in range(G):
            for t in range(1, T):
                m.addConstr(x[g, t] - x[g, t - 1] <= ramp)
            for t in range(T):
                m.addConstr(x[g, t] <= cap[g] * u[g, t])
                m.addGenConstrIndicator(u[g, t], True, x[g, t] >= pmin[g])
        m.setObjective(kp.quicksum(cost[g] * x[g, t] + 0.01 * cost[g] * x[g, t] * x[g, t] + 5 * u[g, t]
                                   for g in range(G) for t in range(T))
                       + 1000 * kp.quicksum(r), KVR.MINIMIZE)
    m.optimize()
    assert m.Status == KVR.OPTIMAL
    obj = m.ObjVal
    m.dispose()
    return obj


def test_miqp_with_indicators_matches_scalar_twin(env):
    assert unit_commitment(env, True) == pytest.approx(unit_commitment(env, False), rel=1e-6)


def lp_data():
    rng = np.random.default_rng(7)
    A = sp.random(30, 20, density=0.3, random_state=3, format="csr")
    A.data = np.round(A.data * 10, 1)
    b = rng.uniform(5, 10, 30)
    c = -rng.uniform(1, 2, 20)
    return A, b, c


@pytest.mark.parametrize("dense", [False, True])
def test_lp_matches_scalar_twin_and_reports_arrays(m, env, dense):
    A, b, c = lp_data()
    x = m.addMVar(20, ub=3, name="x")
    con = m.addConstr((A.toarray() if dense else A) @ x <= b, name="c")
    m.setObjective(c @ x, KVR.MINIMIZE)
    m.optimize()

    twin = kp.Model("twin", env=env)
    xs = [twin.addVar(ub=3) for _ in range(20)]
    Ad = A.toarray()
    cs = [twin.addConstr(kp.quicksum(Ad[i, j] * xs[j] for j in range(20) if Ad[i, j]) <= b[i])
          for i in range(30)]
    twin.setObjective(kp.quicksum(c[j] * xs[j] for j in range(20)), KVR.MINIMIZE)
    twin.optimize()
    assert m.ObjVal == pytest.approx(twin.ObjVal, rel=1e-9)

    assert isinstance(con, kp.MConstr) and con.shape == (30,)
    assert con.Pi.shape == (30,) and con.Slack.shape == (30,)
    np.testing.assert_allclose(con.Pi, [ci.Pi for ci in cs], atol=1e-9)
    np.testing.assert_allclose(con.Slack, b - A @ x.X, atol=1e-7)
    np.testing.assert_allclose(x.X, m.getAttr("X", x))
    np.testing.assert_allclose((A @ x).getValue(), A @ x.X)
    assert con.ConstrName[3] == "c[3]" and con[3].item().ConstrName == "c[3]"
    np.testing.assert_allclose(con.RHS, b)
    assert (m.getA() != A).nnz == 0
    twin.dispose()


def test_qp_in_matrix_forms_matches_scalar_twin(m, env):
    rng = np.random.default_rng(1)
    B = rng.normal(size=(6, 6))
    Q = B @ B.T + np.eye(6)
    c = rng.normal(size=6)
    x = m.addMVar(6, lb=-10, name="x")
    m.addConstr(x.sum() == 1)
    m.setObjective(x @ Q @ x + c @ x, KVR.MINIMIZE)
    m.optimize()
    expr_obj = m.ObjVal
    np.testing.assert_allclose(m.getQ().toarray() + m.getQ().toarray().T, Q + Q.T)

    m.setMObjective(Q, c, 0.0, x, x, x, KVR.MINIMIZE)
    m.optimize()
    assert m.ObjVal == pytest.approx(expr_obj, rel=1e-7)
    np.testing.assert_allclose((x @ Q @ x + c @ x).getValue(), m.ObjVal, rtol=1e-7)

    twin = kp.Model("twin", env=env)
    xs = [twin.addVar(lb=-10) for _ in range(6)]
    twin.addConstr(kp.quicksum(xs) == 1)
    twin.setObjective(kp.quicksum(Q[i, j] * xs[i] * xs[j] for i in range(6) for j in range(6))
                      + kp.quicksum(c[i] * xs[i] for i in range(6)), KVR.MINIMIZE)
    twin.optimize()
    assert expr_obj == pytest.approx(twin.ObjVal, rel=1e-7)
    twin.dispose()


def test_quadratic_constraints_as_arrays(m):
    x = m.addMVar((2, 2), lb=-5, name="x")
    qc = m.addConstr((x ** 2).sum(axis=1) <= np.array([1.0, 4.0]), name="disk")
    assert isinstance(qc, kp.MQConstr) and qc.shape == (2,)
    one = m.addMQConstr(np.eye(2), [1.0, 0.0], "<", 3.0, x[1], x[1], x[0])  # |x[1]|^2 + x00 <= 3
    assert isinstance(one, kp.MQConstr) and one.shape == ()
    m.setObjective(-x.sum(), KVR.MINIMIZE)
    m.optimize()
    np.testing.assert_allclose(qc.QCRHS, [1.0, 4.0])
    assert m.ObjVal < -(2 ** 0.5 + 2 ** 0.5 * (3 - 2 ** -0.5) ** 0.5) + 1e-4
    assert (x[1] @ x[1] + x[0, 0]).getValue() == pytest.approx(3.0, abs=1e-5)
    assert list(qc.QCName) == ["disk[0]", "disk[1]"]


# ---------------------------------------------------------------- MVar

def test_addmvar_shapes_bounds_types_names_in_one_call(m):
    x = m.addMVar((2, 3), lb=np.array([1.0, 2.0, 3.0]), ub=[[5.0], [6.0]], obj=2.0,
                  vtype=np.array([["C", "I", "B"]] * 2), name="x")
    m.update()
    assert (x.shape, x.ndim, x.size, len(x)) == ((2, 3), 2, 6, 2)
    np.testing.assert_array_equal(x.LB, [[1, 2, 3], [1, 2, 3]])
    np.testing.assert_array_equal(x.UB, [[5, 5, 5], [6, 6, 6]])
    np.testing.assert_array_equal(x.Obj, np.full((2, 3), 2.0))
    assert x.VType.tolist() == [["C", "I", "B"]] * 2
    assert x.VarName[1, 2] == "x[1,2]"
    s = m.addMVar(4)
    z = m.addMVar((), name="z")
    m.update()
    assert s.shape == (4,) and z.shape == () and z.item().VarName == "z"
    x.LB = 0
    x.UB = np.array([7.0, 8.0, 9.0])
    m.setAttr("Obj", x, [[1, 2, 3], [4, 5, 6]])
    m.update()
    np.testing.assert_array_equal(m.getAttr("UB", x), [[7, 8, 9]] * 2)
    np.testing.assert_array_equal(x.Obj.ravel(), np.arange(1, 7))
    assert np.all(x.LB == 0)
    assert m.NumVars == 11


def test_views_follow_numpy_indexing(m):
    x = m.addMVar((3, 4), name="x")
    m.update()
    idx = np.arange(12).reshape(3, 4)
    names = x.VarName
    for key in [1, None, (1, 2), np.s_[:, 1:3], np.s_[::-1, None, 2], np.s_[..., 0], np.s_[[0, 2], 1:],
                idx % 3 == 0, (np.array([0, 1]), np.array([3, 2]))]:
        view = x[key]
        assert isinstance(view, kp.MVar)
        assert view.shape == idx[key].shape
        np.testing.assert_array_equal(view.VarName, names[key])
    assert x[1, 2].item() is x.tolist()[1][2] is x.item(1, 2) is x.item(6)
    assert x.T.shape == (4, 3) and x.transpose().VarName[3, 2] == "x[2,3]"
    assert x.reshape(2, 6).VarName[1, 0] == "x[1,2]" and x.reshape((12,)).shape == (12,)
    assert list(x.diagonal().VarName) == ["x[0,0]", "x[1,1]", "x[2,2]"]
    assert [row.shape for row in x] == [(4,)] * 3
    assert x.copy().tolist() == x.tolist()
    v = x.tolist()
    assert kp.MVar.fromlist(v).VarName[2, 3] == "x[2,3]"
    assert kp.MVar.fromvar(v[0][0]).shape == ()
    with pytest.raises(ValueError):
        x.item()
    with pytest.raises(TypeError):
        len(x[0, 0])


# ---------------------------------------------------------------- expressions

@pytest.fixture
def valued(m):
    """x (3, 4) fixed at known values; returns (model, x, values)."""
    x = m.addMVar((3, 4), lb=-100, name="x")
    vals = np.arange(12.0).reshape(3, 4) - 5
    fixed_values(m, x, vals)
    return m, x, vals


def test_linear_arithmetic_broadcasts_like_numpy(valued):
    m, x, v = valued
    w = np.array([1.0, -2.0, 0.5, 3.0])
    cases = [
        (x + 1, v + 1), (2 - x, 2 - v), (-x, -v), (x * w, v * w), (w[None, :] * x, w * v),
        (x / 4, v / 4), (x / w, v / w), (x[:, 1:] - x[:, :-1], v[:, 1:] - v[:, :-1]),
        (x.sum(axis=0) + x[0], v.sum(axis=0) + v[0]), (x.sum(axis=1), v.sum(axis=1)),
        (x.sum(), v.sum()), (x[None].sum(axis=(0, 2)), v[None].sum(axis=(0, 2))), (x + x[:, :1], v + v[:, :1]), (x[:, None, :] + x[None, :, 0:1], v[:, None, :] + v[None, :, 0:1]),
        (x.sum(axis=-1)[:, None] * w, v.sum(axis=-1)[:, None] * w),
        ((x + 1).T[1:3], (v + 1).T[1:3]), (x[::-1, ::2] - x[:, 1::2], v[::-1, ::2] - v[:, 1::2]),
        (x[[2, 0]][:, [True, False, True, True]] + x.T[1:, 0], v[[2, 0]][:, [True, False, True, True]] + v.T[1:, 0]),
        (x.T.reshape(12)[3:7] * x.reshape(12)[:4], v.T.reshape(12)[3:7] * v.reshape(12)[:4]),
        (x.diagonal() + x[0, :3], v.diagonal() + v[0, :3]), ((x * 2).reshape(12)[::5], (v * 2).reshape(12)[::5]),
    ]
    for expr, expected in cases:
        assert expr.shape == np.shape(expected)
        np.testing.assert_allclose(expr.getValue(), expected)
    e = x[0, 0] + 3 * x[1, 1] - 2
    assert isinstance(e.item(), kp.LinExpr)
    assert e.item().getValue() == pytest.approx(v[0, 0] + 3 * v[1, 1] - 2)
    assert [t.getValue() for t in (x[0] + 1).tolist()] == list(v[0] + 1)


@pytest.mark.parametrize("fmt", ["dense", "csr", "csc"])
def test_matrix_products_on_both_sides(valued, fmt):
    m, x, v = valued
    rng = np.random.default_rng(5)
    L, R, r = rng.normal(size=(2, 3)), rng.normal(size=(4, 5)), rng.normal(size=4)
    conv = (lambda a: a) if fmt == "dense" else (lambda a: getattr(sp, fmt + "_matrix")(a))
    cases = [(conv(L) @ x, L @ v), (x @ conv(R), v @ R), (x[0] @ conv(R), v[0] @ R),
             (conv(L) @ x[:, 0], L @ v[:, 0]), (x @ r, v @ r), (r @ x.T, r @ v.T)]
    for expr, expected in cases:
        assert expr.shape == expected.shape
        np.testing.assert_allclose(expr.getValue(), expected, atol=1e-9)


def test_stacked_products_and_numpy_sums(m):
    """@ on stacks of matrices broadcasts the leading axes as NumPy does; numpy.sum works."""
    rng = np.random.default_rng(7)
    vx, vy, vz = rng.normal(size=(2, 3, 4)), rng.normal(size=4), rng.normal(size=(3, 4))
    x, y, z = (m.addMVar(np.shape(v), lb=-100, name=n) for v, n in ((vx, "x"), (vy, "y"), (vz, "z")))
    for var, v in ((x, vx), (y, vy), (z, vz)):
        fixed_values(m, var, v)
    B, C, D, E = (rng.normal(size=s) for s in ((4, 5), (2, 5, 3), (5, 3), (1, 4, 2)))
    cases = [(x @ B, vx @ B), (x @ sp.csr_matrix(B), vx @ B), (x @ y, vx @ vy), (C @ x, C @ vx),
             (D @ x, D @ vx), (sp.csr_matrix(D) @ x, D @ vx), (x @ E, vx @ E),
             (E.transpose(0, 2, 1) @ y, E.transpose(0, 2, 1) @ vy),
             (y @ x.transpose(0, 2, 1), vy @ vx.transpose(0, 2, 1)), (x @ (z.T + 1), vx @ (vz.T + 1)),
             (z @ x.reshape(2, 4, 3), vz @ vx.reshape(2, 4, 3)), ((x + 1)[None] @ y, (vx + 1)[None] @ vy),
             (B[:, 0] @ x.reshape(2, 4, 3), B[:, 0] @ vx.reshape(2, 4, 3)), (x @ B[:, 0], vx @ B[:, 0]),
             ((x * x) @ B, (vx * vx) @ B), (C @ (x * x + 1), C @ (vx * vx + 1)),
             (np.sum(x), vx.sum()), (np.sum(x, axis=1), vx.sum(axis=1)),
             (x.sum(axis=(0, 2), keepdims=True), vx.sum(axis=(0, 2), keepdims=True)),
             (np.sum(x * x, axis=-1, keepdims=True), np.sum(vx * vx, axis=-1, keepdims=True)),
             (np.sum(x + 1, keepdims=True), np.sum(vx + 1, keepdims=True))]
    for expr, expected in cases:
        assert expr.shape == np.shape(expected)
        np.testing.assert_allclose(expr.getValue(), expected, atol=1e-9)
    for bad in (lambda: x @ np.ones((3, 3, 4)), lambda: np.ones((3, 2, 4)) @ x.reshape(2, 4, 3),
                lambda: x @ x):
        with pytest.raises(ValueError, match="not aligned"):
            bad()
    with pytest.raises(ValueError, match="duplicate"):
        x.sum(axis=(0, -3))
    with pytest.raises(TypeError, match="dtype"):
        np.sum(x, dtype=int)
    with pytest.raises(TypeError, match="out"):
        np.sum(x, axis=0, out=np.zeros((3, 4)))


def test_quadratic_arithmetic(valued):
    m, x, v = valued
    w = np.array([1.0, 2.0, 3.0])
    Q = np.arange(16.0).reshape(4, 4)
    cases = [(x * x, v * v), (x ** 2, v ** 2), ((w[:, None] * x * x).sum(), (w[:, None] * v * v).sum()),
             (x[0] @ Q @ x[1], v[0] @ Q @ v[1]), (x @ x.T, v @ v.T), (x[0] @ x.T, v[0] @ v.T),
             ((x + 1) * (x[0] - 2), (v + 1) * (v[0] - 2)), (x * x + x, v * v + v),
             ((x * x).sum(axis=0) - 3, (v * v).sum(axis=0) - 3)]
    for expr, expected in cases:
        assert isinstance(expr, kp.MQuadExpr) and expr.shape == np.shape(expected)
        np.testing.assert_allclose(expr.getValue(), expected)
    q = (x[0] * x[1]).sum().item()
    assert isinstance(q, kp.QuadExpr) and q.getValue() == pytest.approx((v[0] * v[1]).sum())


def test_scalar_expressions_and_matrix_elements_mix(valued):
    m, x, v = valued
    y = x.tolist()
    lin = 2 * y[0][0] + 1
    assert (lin + x[1]).shape == (4,)
    np.testing.assert_allclose((lin + x[1]).getValue(), 2 * v[0, 0] + 1 + v[1])
    np.testing.assert_allclose((x[0] - y[1][1] * y[1][1]).getValue(), v[0] - v[1, 1] ** 2)
    assert kp.quicksum(x).shape == (4,)
    np.testing.assert_allclose(kp.quicksum(x).getValue(), v.sum(axis=0))
    assert (kp.quicksum([x[0, 0], x[1, 1]]) + y[2][2]).getValue() == pytest.approx(v[0, 0] + v[1, 1] + v[2, 2])


# ---------------------------------------------------------------- constraints and model methods

def test_comparisons_build_matrix_constraints(m):
    x = m.addMVar((2, 3), name="x")
    b = np.array([1.0, 2.0, 3.0])
    tc = x <= b
    assert isinstance(tc, kp.TempConstr) and tc._rhs == 0.0 and tc._lhs.shape == (2, 3)
    for t in (b >= x, x[0] == 1, 1 <= x.sum(axis=0)):
        assert isinstance(m.addConstr(t), kp.MConstr)
    c = m.addConstr(x >= np.array([[0.5], [1.5]]), name="lo")
    m.update()
    assert c.shape == (2, 3) and c.Sense[0, 0] == ">"
    np.testing.assert_allclose(c.RHS, [[0.5] * 3, [1.5] * 3])
    assert m.NumConstrs == 6 + 3 + 3 + 6  # the first comparison was never added
    with pytest.raises(kp.KaviroError):
        x != b


def test_addmconstr_with_sense_array_and_all_variables(m):
    x = m.addMVar(3, ub=10, name="x")
    A = np.array([[1.0, 1.0, 0.0], [0.0, 1.0, 1.0]])
    con = m.addMConstr(A, x, np.array(["<", ">"]), [4.0, 5.0], name="r")
    full = m.addMConstr(sp.csr_matrix(np.ones((1, 3))), None, "=", [6.0])
    m.setObjective(x @ np.array([1.0, 2.0, 3.0]), KVR.MAXIMIZE)
    m.optimize()
    np.testing.assert_allclose(m.getA().toarray(), np.vstack([A, np.ones((1, 3))]))
    assert con.Sense.tolist() == ["<", ">"] and full.shape == (1,)
    assert m.ObjVal == pytest.approx(18.0)  # x = (0, 0, 6)
    np.testing.assert_allclose(x.X, [0, 0, 6], atol=1e-9)


def test_handle_arrays_in_scalar_model_methods(m):
    x = m.addMVar(4, ub=1, name="x")
    r = m.addMVar((), name="r")
    sos = m.addSOS(KVR.SOS_TYPE1, x)
    gc = m.addGenConstrMax(r, x)
    s = m.addMVar(2, name="s")
    general = m.addConstr(s[0] == kp.max_(x[0], x[1]))
    assert isinstance(general, kp.GenConstr)
    m.setObjective(x @ np.array([1.0, 2.0, 3.0, 4.0]), KVR.MAXIMIZE)
    m.optimize()
    assert m.ObjVal == pytest.approx(4.0)
    assert r.X == pytest.approx(1.0)
    assert len(m.getSOS(sos)[1]) == 4 and len(m.getGenConstrMax(gc)[1]) == 4


def test_removal_of_arrays(m):
    x = m.addMVar((2, 2), name="x")
    y = m.addMVar(3, name="y")
    c = m.addConstr(x.sum(axis=1) <= 1)
    q = m.addConstr(y * y <= 1)
    m.update()
    m.remove(x[0])
    m.remove([c, q[1:]])
    m.update()
    assert (m.NumVars, m.NumConstrs, m.NumQConstrs) == (5, 0, 1)
    assert [v.VarName for v in m.getVars()] == ["x[1,0]", "x[1,1]", "y[0]", "y[1]", "y[2]"]
    with pytest.raises(kp.KaviroError):
        x.X
    # the remaining elements of a partly removed array still make expressions and constraints
    m.addConstr(x[1] + y[:2] >= 1)
    m.setObjective(x[1].sum() + y.sum(), KVR.MINIMIZE)
    m.optimize()
    assert m.ObjVal == pytest.approx(2.0)
    np.testing.assert_allclose((x[1] + y[:2]).getValue(), [1.0, 1.0])


def test_addconstrs_takes_matrix_rows(m):
    x = m.addMVar((3, 4), ub=10, name="x")
    q = m.addMVar(2, ub=3, name="q")
    cap = np.array([1.0, 2.0, 3.0])
    rows = m.addConstrs((x[i, :] <= cap[i] for i in range(3)), name="cap")
    mixed = m.addConstrs((x[0, j].item() >= 0.5 if j < 2 else x[:, j] >= 0.5 for j in range(3)), name="mx")
    quad = m.addConstrs((q * q <= k + 1 for k in range(2)), name="qc")
    assert isinstance(rows, kp.tupledict) and list(rows) == [0, 1, 2]
    assert all(isinstance(c, kp.MConstr) and c.shape == (4,) for c in rows.values())
    assert all(isinstance(c, kp.MQConstr) and c.shape == (2,) for c in quad.values())
    m.setObjective(x.sum() + q.sum(), KVR.MAXIMIZE)
    m.optimize()
    assert m.NumConstrs == 12 + 5 and m.NumQConstrs == 4
    assert list(rows[2].ConstrName) == ["cap[2][0]", "cap[2][1]", "cap[2][2]", "cap[2][3]"]
    assert quad[1].QCName[1] == "qc[1][1]"
    np.testing.assert_allclose(x.X, np.repeat(cap[:, None], 4, axis=1), atol=1e-6)
    np.testing.assert_allclose(q.X, [1.0, 1.0], atol=1e-5)  # the first quadratic rows bind
    np.testing.assert_allclose(rows[1].RHS, 2.0)
    # single constraints among matrix rows keep their places in the model's numbering
    assert isinstance(mixed[1], kp.Constr) and mixed[1].ConstrName == "mx[1]"
    assert list(mixed[2].ConstrName) == ["mx[2][0]", "mx[2][1]", "mx[2][2]"]
    assert [c.ConstrName for c in m.getConstrs()[12:]] == ["mx[0]", "mx[1]", "mx[2][0]", "mx[2][1]", "mx[2][2]"]

    before = (m.NumVars, m.NumConstrs, m.NumQConstrs)
    # the first item of each generator is valid, a later one is not: nothing is added
    bad_rows = [
        lambda: m.addConstrs((x[i] * np.array([1.0, 1.0 - i, 1.0, 1.0]) * x[i] + x[i] <= 1 for i in range(2))),
        lambda: m.addConstrs((x[i] <= np.array([1.0, np.nan if i else 1.0, 1.0, 1.0]) for i in range(2))),
        lambda: m.addConstrs((x[i] <= np.ones(3 if i else 4) for i in range(2))),
        lambda: m.addConstrs((x[0] <= i for i in (1, 1))),
    ]
    for bad in bad_rows:
        with pytest.raises((kp.KaviroError, ValueError, KeyError)):
            bad()
        m.update()
        assert (m.NumVars, m.NumConstrs, m.NumQConstrs) == before


def test_duals_and_attribute_arrays_of_a_continuous_qp(m):
    """Pi of a matrix constraint in a QP satisfies stationarity with the objective's gradient."""
    rng = np.random.default_rng(3)
    A = sp.random(6, 8, density=0.5, random_state=4, format="csr")
    c = rng.uniform(-3, 3, 8)
    Q = np.diag(rng.uniform(0.5, 1.5, 8))
    y = m.addMVar(8, lb=-5, ub=5, name="y")
    con = m.addConstr(A @ y <= np.full(6, 1.0))
    m.setObjective(c @ y + y @ Q @ y, KVR.MINIMIZE)
    m.optimize()
    assert m.Status == KVR.OPTIMAL
    yx = m.getAttr("X", y)
    assert isinstance(yx, np.ndarray) and yx.shape == (8,)
    np.testing.assert_allclose(yx, y.X)
    pi, slack = con.Pi, con.Slack
    assert pi.shape == slack.shape == (6,)
    assert (pi <= 1e-9).all() and (pi < -1e-6).any()
    np.testing.assert_allclose(pi * slack, 0, atol=1e-6)  # complementary slackness
    interior = np.abs(yx) < 5 - 1e-6
    grad = c + 2 * Q @ yx - A.T @ pi
    np.testing.assert_allclose(grad[interior], 0, atol=1e-5)
    np.testing.assert_allclose(m.getAttr("Pi", con), pi)
    sub = m.getAttr("X", y.reshape(2, 4)[:, 1:])
    assert sub.shape == (2, 3)
    np.testing.assert_allclose(sub, yx.reshape(2, 4)[:, 1:])


# ---------------------------------------------------------------- errors

def test_errors_name_shapes_and_leave_the_model_unchanged(m, env):
    x = m.addMVar((3, 4), name="x")
    m.update()
    with pytest.raises(ValueError, match=r"\(3, 4\).*\(3,\)|\(3,\).*\(3, 4\)"):
        x + np.ones(3)
    with pytest.raises(ValueError, match=r"\(2, 5\).*\(3, 4\)"):
        np.ones((2, 5)) @ x
    with pytest.raises(ValueError, match=r"\(3, 4\).*\(2,\)"):
        x @ np.ones(2)
    with pytest.raises(ValueError, match=r"\(3, 4\)"):
        m.addMVar((3, 4), lb=np.zeros(5))
    with pytest.raises(kp.KaviroError, match="power of two"):
        x ** 3
    with pytest.raises(kp.KaviroError, match="linear"):
        (x * x) * x
    other = kp.Model("other", env=env)
    z = other.addMVar(4)
    other.update()
    before = (m.NumVars, m.NumConstrs)
    with pytest.raises(kp.KaviroError) as err:
        m.addConstr(x[0] + z <= 1)
    assert err.value.errno == KVR.ERROR_NOT_IN_MODEL
    with pytest.raises(kp.KaviroError):
        m.addConstr(x[0] * np.array([1, np.nan, 1, 1]) <= 1)
    with pytest.raises(kp.KaviroError):
        m.addMConstr(np.ones((1, 4)), x[0], "?", [1.0])
    with pytest.raises(ValueError):
        m.addMConstr(np.ones((2, 4)), x[0], "<", [1.0, 2.0, 3.0])
    with pytest.raises(kp.KaviroError):
        m.setObjective(x.sum(axis=0))
    m.update()
    assert (m.NumVars, m.NumConstrs) == before
    other.dispose()
    with pytest.raises(kp.KaviroError, match="freed"):
        z.X
    with pytest.raises(TypeError):
        x + "text"


def test_mixed_rows_disposed_models_and_error_owners(m, env):
    x = m.addMVar(3, ub=1, name="x")
    m.update()
    with pytest.raises(kp.KaviroError, match="element 1 is linear"):
        m.addConstr(x * np.array([1.0, 0.0, 2.0]) * x + x <= 1)
    m.update()
    assert m.NumQConstrs == 0
    assert "x[0]" in repr(x + 1) and "<kaviro.MLinExpr (3,)>" in repr(x + 1)
    err = kp.KaviroError(0, x)  # the message of the owning model
    assert isinstance(err.message, str)
    other = kp.Model("other", env=env)
    y = other.addMVar(2)
    other.dispose()
    with pytest.raises(kp.KaviroError, match="freed"):
        other.addConstr(y <= 1)
    with pytest.raises(kp.KaviroError, match="freed"):
        other.addMVar(2)


def test_scalar_expressions_take_arrays_of_variables(valued):
    m, x, v = valued
    e = kp.LinExpr(np.arange(4.0), x[1])
    assert e.getValue() == pytest.approx(np.arange(4.0) @ v[1])
    e.addTerms([1.0, 1.0], x[2, :2])
    assert e.getValue() == pytest.approx(np.arange(4.0) @ v[1] + v[2, 0] + v[2, 1])
    q = kp.QuadExpr()
    q.addTerms([2.0] * 3, x[:, 0], x[:, 1])
    assert q.getValue() == pytest.approx(2 * (v[:, 0] * v[:, 1]).sum())
    assert "x[1,3]" in str(e)


def test_issue_style_program_runs_as_written(m, capsys):
    rng = np.random.default_rng(3)
    cap = np.array([50.0, 40.0, 30.0])
    pmin = np.array([5.0, 4.0, 3.0])
    T = 6
    demand = rng.uniform(40, 90, T)
    ramp = 20.0
    A = sp.random(6, 8, density=0.5, random_state=4, format="csr")
    b = np.full(6, 4.0)
    c = rng.uniform(-1, 1, 8)
    Q = np.diag(rng.uniform(0.5, 1.5, 8))

    x = m.addMVar((3, T), lb=0, ub=cap[:, None], vtype=KVR.CONTINUOUS, name="p")
    u = m.addMVar((3, T), vtype=KVR.BINARY, name="u")
    y = m.addMVar(8, lb=-5, ub=5, name="y")
    r = m.addMVar(T, name="r")
    con = m.addConstr(A @ y <= b)
    m.addConstr(x.sum(axis=0) + r == demand)
    m.addConstr(x[:, 1:] - x[:, :-1] <= ramp)
    m.addConstr(x <= cap[:, None] * u)
    cost = np.array([1.0, 2.0, 3.0])
    m.setObjective(c @ y + y @ Q @ y + (cost[:, None] * x).sum() + (0.01 * cost[:, None] * x * x).sum()
                   + 100 * r.sum() + 10 * u.sum(), KVR.MINIMIZE)
    for g in range(3):
        for t in range(T):
            m.addGenConstrIndicator(u[g, t], True, x[g, t] >= pmin[g])
    m.optimize()
    print(y.X, m.getAttr("X", y), con.Slack)
    assert m.Status == KVR.OPTIMAL
    assert y.X.shape == (8,) and con.Slack.shape == (6,)
    np.testing.assert_allclose(x.X.sum(axis=0) + r.X, demand, atol=1e-6)
    on = u.X > 0.5
    assert (x.X[on] >= np.broadcast_to(pmin[:, None], (3, T))[on] - 1e-6).all()
    assert (x.X[~on] <= 1e-6).all()
    assert "[" in capsys.readouterr().out
