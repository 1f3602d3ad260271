"""Building models: variables, every constraint kind, objectives, queries of what was added,
removal, and bad input that must leave the model as it was."""

import math
import warnings

import pytest

import kaviropy as kp
from kaviropy import KVR


MODEL_NAME = "b"  # the name of the model the m fixture makes


def snapshot(model):
    """Everything an addition could change, after applying pending changes."""
    model.update()
    return (
        model.NumVars, model.NumConstrs, model.NumSOS, model.NumQConstrs, model.NumGenConstrs,
        model.NumNZs, len(model._Model__vars), len(model._Model__constrs),
        len(model._Model__sos), len(model._Model__qconstrs), len(model._Model__genconstrs),
    )


# ---------------------------------------------------------------- variables

def test_add_vars_cross_product_keys_and_names(m):
    x = m.addVars(2, 3, name="x")
    m.update()
    assert list(x.keys()) == [(i, j) for i in range(2) for j in range(3)]
    assert x[1, 2].VarName == "x[1,2]" and x[0, 0].index() == 0 and x[1, 2].index() == 5
    y = m.addVars(["a", "b"], [(1, 2), (3, 4)], name="y")
    m.update()
    assert list(y.keys()) == [("a", 1, 2), ("a", 3, 4), ("b", 1, 2), ("b", 3, 4)]
    assert y["b", 3, 4].VarName == "y[b,3,4]"
    z = m.addVars([(1, 2), (3, 4)])
    m.update()
    assert list(z.keys()) == [(1, 2), (3, 4)] and z[3, 4].VarName == "C11"


def test_add_vars_per_variable_arguments(m):
    x = m.addVars(["p", "q", "r"], lb=[1, 2, 0], ub={"p": 5, "q": 6}, obj=2.5,
                  vtype=["C", "I", "B"], name={"p": "pp", "r": "rr"})
    m.update()
    assert [x[k].LB for k in "pqr"] == [1.0, 2.0, 0.0]
    assert (x["p"].UB, x["q"].UB) == (5.0, 6.0)
    assert [x[k].Obj for k in "pqr"] == [2.5] * 3
    assert [x[k].VType for k in "pqr"] == ["C", "I", "B"]
    assert [x[k].VarName for k in "pqr"] == ["pp", "C1", "rr"]


def test_add_vars_errors_change_nothing(m):
    before = snapshot(m)
    with pytest.raises(KeyError) as err:
        m.addVars([1, 2, 1])
    assert err.value.args[0] == "Duplicate keys in Model.addVars()"
    with pytest.raises(TypeError) as err:
        m.addVars(3, lbb=1, color=2)
    assert str(err.value) == "addVars() got unexpected keyword argument(s) lbb, color"
    with pytest.raises(kp.KaviroError) as err:
        m.addVars(3, lb=[0, 1])
    assert err.value.errno == KVR.ERROR_INVALID_ARGUMENT
    with pytest.raises(kp.KaviroError):
        m.addVars(2, lb=[0, float("nan")])
    with pytest.raises(kp.KaviroError):
        m.addVars(2, vtype="Z")  # refused by the library
    assert snapshot(m) == before


def test_add_var_with_column(m):
    x = m.addVar(name="x")
    c0 = m.addLConstr(x, "<", 4, name="c0")
    c1 = m.addLConstr(x, ">", 1, name="c1")
    m.update()
    y = m.addVar(lb=-1, ub=2, obj=3, vtype=KVR.INTEGER, name="y", column=kp.Column([2, 5], [c0, c1]))
    m.update()
    assert (y.LB, y.UB, y.Obj, y.VType) == (-1.0, 2.0, 3.0, "I")
    col = m.getCol(y)
    assert col.size() == 2
    assert [(col.getCoeff(i), col.getConstr(i).ConstrName) for i in range(2)] == [(2.0, "c0"), (5.0, "c1")]
    alone = m.addVar()
    assert m.getCol(alone).size() == 0
    m.remove(alone)
    m.remove(c1)
    m.update()
    before = snapshot(m)
    with pytest.raises(kp.KaviroError) as err:
        m.addVar(column=kp.Column(1.0, c1))
    assert (err.value.errno, err.value.message) == (KVR.ERROR_NOT_IN_MODEL, "Constraint not in model")
    with pytest.raises(kp.KaviroError) as err:
        m.addVar(column=kp.Column([float("nan")], [c0]))
    assert (err.value.errno, err.value.message) == (KVR.ERROR_INVALID_ARGUMENT, "Coefficient is Nan or Inf")
    with pytest.raises(kp.KaviroError) as err:
        m.addVar(lb=float("nan"))
    assert err.value.errno == KVR.ERROR_INVALID_ARGUMENT
    assert snapshot(m) == before


# ---------------------------------------------------------------- linear constraints

def test_linear_constraints_merge_terms_and_read_back(m):
    x, y = m.addVar(name="x"), m.addVar(name="y")
    c = m.addLConstr(x + x, KVR.LESS_EQUAL, 1)
    d = m.addConstr(3 * x - y + 2 >= y, name="d")
    e = m.addLConstr(x + y == 4)
    m.update()
    assert m.getRow(c).size() == 1 and m.getCoeff(c, x) == 2.0
    assert (d.Sense, d.RHS) == (">", -2.0)
    assert (m.getCoeff(d, x), m.getCoeff(d, y)) == (3.0, -2.0)
    assert (e.Sense, e.RHS) == ("=", 4.0)
    assert m.getCoeff(c, y) == 0.0
    m.chgCoeff(c, y, 7)
    m.update()
    assert m.getCoeff(c, y) == 7.0
    row = m.getRow(c)
    assert sorted((row.getVar(i).VarName, row.getCoeff(i)) for i in range(row.size())) == [("x", 2.0), ("y", 7.0)]
    empty = m.addLConstr(0, "<", 1)
    m.update()
    assert m.getRow(empty).size() == 0


def test_bad_linear_constraints_change_nothing(env, m):
    x = m.addVar()
    m.update()
    other = kp.Model(env=env)
    z = other.addVar()
    other.update()
    gone = m.addVar()
    m.update()
    m.remove(gone)
    m.update()
    before = snapshot(m)
    cases = [
        (lambda: m.addLConstr(x, "!", 1), 0, "Invalid sense or name to Model.addLConstr"),
        (lambda: m.addLConstr(x, "<", 1, name=5), 0, "Invalid sense or name to Model.addLConstr"),
        (lambda: m.addLConstr("x", "<", 1), 0, "Invalid argument to Model.addLConstr"),
        (lambda: m.addLConstr(x, "<", float("nan")), KVR.ERROR_INVALID_ARGUMENT, "Constant is Nan"),
        (lambda: m.addConstr(x + z <= 1), KVR.ERROR_NOT_IN_MODEL, "Variable not in model"),
        (lambda: m.addConstr(x + gone <= 1), 0, "Variable was removed from the model"),
        (lambda: m.addConstr(True), 0, "Invalid argument to Model.addConstr"),
        (lambda: m.addRange(x, 1, float("nan")), KVR.ERROR_INVALID_ARGUMENT, "Range bounds must not be Nan"),
    ]
    for action, errno, text in cases:
        with pytest.raises(kp.KaviroError) as err:
            action()
        assert (err.value.errno, err.value.message) == (errno, text)
    assert snapshot(m) == before
    other.dispose()


def test_deprecated_three_argument_add_constr(m):
    x = m.addVar()
    with warnings.catch_warnings(record=True) as caught:
        warnings.simplefilter("always")
        c = m.addConstr(x, "<", 3, "old")
    assert "Deprecated, pass a TempConstr or use Model.addLConstr" in str(caught[0].message)
    m.update()
    assert (c.ConstrName, c.RHS) == ("old", 3.0)


@pytest.mark.parametrize("mode", [0, 1])
def test_range_variable_handles_match_library_positions(m, mode):
    m.Params.UpdateMode = mode
    x = m.addVar(name="x")
    m.update()
    r = m.addRange(2 * x + 1, 1, 5, name="r")
    y = m.addVar(name="y")
    one_sided = m.addRange(x, -math.inf, 3, name="o")
    z = m.addVar(name="z")
    m.update()
    names = [v.VarName for v in m.getVars()]
    assert names == ["x", "Rgr", "y", "z"]
    assert [y.index(), z.index()] == [2, 3]
    rg = m.getVars()[1]
    assert (rg.LB, rg.UB) == (0.0, 4.0)  # the constant moved to the bounds
    assert (r.Sense, r.RHS) == ("=", 0.0)
    assert (one_sided.Sense, one_sided.RHS) == ("<", 3.0)
    assert m.NumVars == len(m.getVars())


# ---------------------------------------------------------------- addConstrs

def test_add_constrs_keys_names_and_one_call(m):
    x = m.addVars(3, 2, name="x")
    m.update()
    cs = m.addConstrs((x[i, j] + x[i, 1 - j] <= i for i in range(3) for j in range(2) if i != 1), name="c")
    m.update()
    assert list(cs.keys()) == [(0, 0), (0, 1), (2, 0), (2, 1)]
    assert cs[2, 1].ConstrName == "c[2,1]" and cs[2, 1].RHS == 2.0
    single = m.addConstrs(x[i, 0] >= 1 for i in range(3))
    m.update()
    assert list(single.keys()) == [0, 1, 2] and single[2].ConstrName == "R6"
    # Loop variables captured by an inner generator keep their order in the key.
    nested = m.addConstrs((kp.quicksum(x[i, j] for _ in range(1)) <= j for i in range(3) for j in range(2)))
    m.update()
    assert list(nested.keys())[:3] == [(0, 0), (0, 1), (1, 0)] and nested[2, 1].RHS == 1.0
    mixed = m.addConstrs((x[i, 0] * x[i, 1] <= 4 if i else x[i, 0] <= 2) for i in range(2))
    m.update()
    assert isinstance(mixed[0], kp.Constr) and isinstance(mixed[1], kp.QConstr)


def test_add_constrs_is_all_or_nothing(m):
    x = m.addVars(3)
    m.update()
    before = snapshot(m)
    with pytest.raises(kp.KaviroError) as err:
        m.addConstrs((x[i] <= 1 if i < 2 else x[i] <= float("nan")) for i in range(3))
    assert err.value.message == "Constant is Nan"
    with pytest.raises(kp.KaviroError) as err:
        m.addConstrs((x[i] if i else x[i] <= 1) for i in range(3))
    assert err.value.message == "Invalid argument to Model.addConstr"
    with pytest.raises(KeyError):
        m.addConstrs(x[0] <= i for j in range(2) for i in [1, 1])
    with pytest.raises(kp.KaviroError):
        m.addConstrs([x[0] <= 1])
    assert snapshot(m) == before


# ---------------------------------------------------------------- quadratic, SOS, general

def test_quadratic_constraints(m):
    x, y = m.addVar(name="x"), m.addVar(name="y")
    m.update()
    q = m.addConstr(x * x + 2 * x * y + y <= 3, name="q")
    q2 = m.addQConstr(x * y, KVR.GREATER_EQUAL, x, name="q2")
    assert q.index() == -1
    m.update()
    assert m.getQConstrs() == [q, q2]
    assert (q.QCSense, q.QCRHS, q.QCName) == ("<", 3.0, "q")
    row = m.getQCRow(q)
    assert row.size() == 2 and row.getLinExpr().size() == 1
    with pytest.raises(kp.KaviroError) as err:
        m.addQConstr(None)
    assert err.value.message == "Invalid None value for lhs when calling Model.addQConstr"


def test_sos_default_and_given_weights(m):
    xs = [m.addVar(ub=1, name="s%d" % i) for i in range(3)]
    m.update()
    s1 = m.addSOS(KVR.SOS_TYPE1, xs)
    s2 = m.addSOS(KVR.SOS_TYPE2, xs[:2], [3, 7])
    assert m.getSOSs() == []
    m.update()
    assert m.getSOSs() == [s1, s2]
    t, vs, ws = m.getSOS(s1)
    assert (t, vs, ws) == (1, xs, [1.0, 2.0, 3.0])
    assert m.getSOS(s2) == (2, xs[:2], [3.0, 7.0])
    before = snapshot(m)
    with pytest.raises(kp.KaviroError) as err:
        m.addSOS(KVR.SOS_TYPE1, xs, [1, 2])
    assert (err.value.errno, err.value.message) == (0, "Length of weight list differs from length of variable list")
    assert snapshot(m) == before


def test_every_general_constraint_round_trips(m):
    v = m.addVars(8, lb=-10, ub=10, name="v")
    b = m.addVars(3, vtype=KVR.BINARY, name="b")
    m.update()
    x, y, z = v[0], v[1], v[2]
    added = {
        "Max": (m.addGenConstrMax(z, [x, y], 1.5), (z, [x, y], 1.5)),
        "Min": (m.addGenConstrMin(z, [x, y]), (z, [x, y], math.inf)),
        "Abs": (m.addGenConstrAbs(z, x), (z, x)),
        "And": (m.addGenConstrAnd(b[0], [b[1], b[2]]), (b[0], [b[1], b[2]])),
        "Or": (m.addGenConstrOr(b[0], [b[1], b[2]]), (b[0], [b[1], b[2]])),
        "Norm": (m.addGenConstrNorm(z, [x, y], 2), (z, [x, y], 2.0)),
        "PWL": (m.addGenConstrPWL(x, y, [0, 1, 2], [0, 1, 4]), (x, y, [0.0, 1.0, 2.0], [0.0, 1.0, 4.0])),
        "Poly": (m.addGenConstrPoly(x, y, [1, 0, 2]), (x, y, [1.0, 0.0, 2.0])),
        "Exp": (m.addGenConstrExp(x, y), (x, y)),
        "ExpA": (m.addGenConstrExpA(x, y, 3), (x, y, 3.0)),
        "Log": (m.addGenConstrLog(x, y), (x, y)),
        "LogA": (m.addGenConstrLogA(x, y, 10), (x, y, 10.0)),
        "Pow": (m.addGenConstrPow(x, y, 2.5), (x, y, 2.5)),
        "Logistic": (m.addGenConstrLogistic(x, y), (x, y)),
        "Sin": (m.addGenConstrSin(x, y), (x, y)),
        "Cos": (m.addGenConstrCos(x, y), (x, y)),
        "Tan": (m.addGenConstrTan(x, y, name="tan"), (x, y)),
    }
    ind = m.addGenConstrIndicator(b[0], True, x + 2 * y <= 3, name="ind")
    m.update()
    assert m.NumGenConstrs == 18 and len(m.getGenConstrs()) == 18
    for kind, (gc, expected) in added.items():
        got = getattr(m, "getGenConstr" + kind)(gc)
        assert len(got) == len(expected), kind
        for a, e in zip(got, expected):
            if isinstance(e, list):
                assert all((p.sameAs(q) if isinstance(q, kp.Var) else p == q) for p, q in zip(a, e)), kind
            elif isinstance(e, kp.Var):
                assert a is e, kind
            else:
                assert a == e, kind
    bv, val, expr, sense, rhs = m.getGenConstrIndicator(ind)
    assert (bv, val, sense, rhs) == (b[0], 1, "<", 3.0) and expr.size() == 2
    assert ind.GenConstrName == "ind" and added["Tan"][0].GenConstrName == "tan"
    assert added["Abs"][0].GenConstrType == KVR.GENCONSTR_ABS
    # The help texts name the arguments in the formula: x becomes xvar only where it stands alone.
    docs = {"Exp": ("exp(xvar)", "(xvar, yvar) of y = exp(x)."),
            "LogA": ("log_a(xvar)", "(xvar, yvar, a) of y = log_a(x)."),
            "Pow": ("xvar^a", "(xvar, yvar, a) of y = x^a."),
            "Logistic": ("1 / (1 + exp(-xvar))", "(xvar, yvar) of y = 1 / (1 + exp(-x)).")}
    for kind, (formula, get_doc) in docs.items():
        assert "Adds yvar = " + formula + "." in getattr(kp.Model, "addGenConstr" + kind).__doc__
        assert get_doc in getattr(kp.Model, "getGenConstr" + kind).__doc__


def test_general_constraint_errors_change_nothing(m):
    x, y = m.addVar(), m.addVar()
    m.update()
    before = snapshot(m)
    cases = [
        (lambda: m.addGenConstrPWL(x, y, [0, 1], [0]), -1, "Arguments xpts and ypts must have the same length"),
        (lambda: m.addGenConstrPoly(x, y, []), -1, "Error: empty polynomial function"),
        (lambda: m.addGenConstrMax(x, [y, "z"]), KVR.ERROR_INVALID_ARGUMENT, "Invalid data in vars array"),
        (lambda: m.addGenConstrIndicator(x, 1, x <= 1, KVR.LESS_EQUAL),
         KVR.ERROR_INVALID_ARGUMENT, "Additional sense argument provided for general constraint of indicator type"),
        (lambda: m.addGenConstrIndicator(x, 1, x <= 1, None, 2),
         KVR.ERROR_INVALID_ARGUMENT, "Additional rhs argument provided for general constraint of indicator type"),
    ]
    for action, errno, text in cases:
        with pytest.raises(kp.KaviroError) as err:
            action()
        assert (err.value.errno, err.value.message) == (errno, text)
    assert snapshot(m) == before


def test_add_constr_dispatches_general_and_indicator_forms(m):
    x, y, z = m.addVar(lb=-5, name="x"), m.addVar(name="y"), m.addVar(name="z")
    b = m.addVar(vtype=KVR.BINARY, name="b")
    m.update()
    g = m.addConstr(z == kp.max_(x, y, constant=2), name="mx")
    a = m.addConstr(z == kp.abs_(x))
    ind = m.addConstr((b == 0) >> (x + y >= 2), name="ind")
    m.update()
    assert m.getGenConstrMax(g) == (z, [x, y], 2.0)
    assert m.getGenConstrAbs(a) == (z, x)
    assert m.getGenConstrIndicator(ind)[1] == 0 and ind.GenConstrType == KVR.GENCONSTR_INDICATOR
    with pytest.raises(kp.KaviroError):
        m.addConstr(z + 1 == kp.max_(x, y))
    with pytest.raises(kp.KaviroError):
        m.addConstr((x + y == 1) >> (x <= 1))


# ---------------------------------------------------------------- objectives

def test_objectives_round_trip(m):
    x, y = m.addVar(name="x"), m.addVar(name="y")
    m.update()
    m.setObjective(x * x + 2 * y + 3, KVR.MAXIMIZE)
    m.update()
    obj = m.getObjective()
    assert isinstance(obj, kp.QuadExpr) and obj.size() == 1
    lin = obj.getLinExpr()
    assert (lin.size(), lin.getCoeff(0), lin.getConstant()) == (1, 2.0, 3.0)
    assert m.ModelSense == KVR.MAXIMIZE
    m.setObjective(x - y)
    m.update()
    obj = m.getObjective()
    assert isinstance(obj, kp.LinExpr) and obj.size() == 2 and m.ModelSense == KVR.MAXIMIZE
    m.setObjective(0)
    m.update()
    assert m.getObjective().size() == 0 and m.ObjCon == 0.0
    with pytest.raises(kp.KaviroError) as err:
        m.setObjective("x")
    assert (err.value.errno, err.value.message) == (-1, "Unable to convert argument to an expression")
    with pytest.raises(kp.KaviroError) as err:
        m.setObjectiveN(x * x, 0)
    assert (err.value.errno, err.value.message) == (-1, "Objective must be linear for multi-objective model")
    m.setObjectiveN(x + 2 * y, 1, priority=2, name="second")
    m.update()
    assert m.NumObj == 2


def test_piecewise_linear_objective(m):
    x = m.addVar(ub=4, name="x")
    m.update()
    m.setPWLObj(x, [0, 2, 4], [0, 1, 5])
    m.update()
    assert m.getPWLObj(x) == [(0.0, 0.0), (2.0, 1.0), (4.0, 5.0)]
    with pytest.raises(kp.KaviroError) as err:
        m.setPWLObj(x, [0, 1], [0])
    assert (err.value.errno, err.value.message) == (-1, "Arguments x and y must have the same length")
    with pytest.raises(kp.KaviroError) as err:
        m.setPWLObj("x", [0], [0])
    assert err.value.message == "First argument must be a Var"
    with pytest.raises(kp.KaviroError) as err:
        m.getPWLObj(kp.Var(None, -1))
    assert (err.value.errno, err.value.message) == (KVR.ERROR_NOT_IN_MODEL, "Variable not in model")


# ---------------------------------------------------------------- the whole cycle

def test_model_of_every_kind_is_queried_and_emptied(m):
    x = m.addVars(4, lb=-3, ub=3, name="x")
    b = m.addVar(vtype=KVR.BINARY, name="b")
    lin = m.addConstr(x[0] + 2 * x[1] <= 4, name="lin")
    rng = m.addRange(x[2] - x[3], -1, 1, name="rng")
    m.update()
    quad = m.addConstr(x[0] * x[0] + x[1] * x[1] <= 9, name="quad")
    sos = m.addSOS(KVR.SOS_TYPE1, [x[0], x[1]])
    gen = m.addGenConstrAbs(x[2], x[3], name="abs")
    ind = m.addConstr((b == 1) >> (x[0] + x[3] >= 1), name="ind")
    m.setObjective(x[0] + x[1] * x[1])
    m.update()
    assert m.getConstrs() == [lin, rng]
    assert m.getCoeff(lin, x[1]) == 2.0 and m.getCoeff(rng, x[3]) == -1.0
    assert m.getQConstrs() == [quad] and m.getSOSs() == [sos]
    assert m.getGenConstrs() == [gen, ind]
    assert m.getGenConstrAbs(gen) == (x[2], x[3])
    assert m.getSOS(sos)[1] == [x[0], x[1]]
    assert m.NumVars == 6  # four, the binary and the range variable
    m.remove(list(m.getGenConstrs()) + m.getSOSs() + m.getQConstrs() + m.getConstrs())
    m.remove(m.getVars())
    m.update()
    assert (m.NumVars, m.NumConstrs, m.NumSOS, m.NumQConstrs, m.NumGenConstrs) == (0, 0, 0, 0, 0)
    assert m.getVars() == m.getConstrs() == m.getGenConstrs() == []
    assert all(v.index() == -2 for v in x.values()) and lin.index() == -2 and ind.index() == -2


# ---------------------------------------------------------------- argument checks

def test_argument_errors_of_every_method_change_nothing(m):
    x, y = m.addVar(name="x"), m.addVar(vtype=KVR.BINARY, name="y")
    m.update()
    before = snapshot(m)
    IA = KVR.ERROR_INVALID_ARGUMENT
    cases = [
        (lambda: m.addVar(name=3), IA, "Name must be a string"),
        (lambda: m.addVar(vtype="CC"), IA, "Variable type must be a one-character string"),
        (lambda: m.addVar(lb="low"), IA, "Invalid value for lb"),
        (lambda: m.addVar(column=[1]), IA, "Argument column of Model.addVar must be a Column"),
        (lambda: m.addVars(), IA, "Model.addVars() needs at least one index argument"),
        (lambda: m.addVars(2.5), IA, "Index arguments of Model.addVars() must be integers or iterables"),
        (lambda: m.addVars(2, name=[1, 2]), IA, "Variable names must be strings"),
        (lambda: m.addVars(2, vtype=5), IA, "Variable type must be a one-character string"),
        (lambda: m.addVars(2, ub=object()), IA, "Invalid value for ub argument of Model.addVars"),
        (lambda: m.addRange("x", 0, 1), 0, "Invalid argument to Model.addRange"),
        (lambda: m.addQConstr(x * x, "?", 1), IA, "Invalid sense to Model.addQConstr"),
        (lambda: m.addQConstr("q", "<", 1), 0, "Invalid argument to Model.addQConstr"),
        (lambda: m.addSOS(3, [x, y]), IA, "SOS type must be KVR.SOS_TYPE1 or KVR.SOS_TYPE2"),
        (lambda: m.addSOS(1, [x, y], ["a", "b"]), IA, "Invalid data in weights array"),
        (lambda: m.addSOS(1, 5), IA, "Invalid data in vars array"),
        (lambda: m.addGenConstrIndicator(y, 2, x <= 1), IA, "Indicator value must be 0 or 1"),
        (lambda: m.addGenConstrIndicator(y, 1, x, "?", 1), IA, "Invalid sense for indicator constraint"),
        (lambda: m.addGenConstrIndicator(y, 1, "x", "<", 1), IA,
         "Invalid argument to Model.addGenConstrIndicator"),
        (lambda: m.addConstr((x + y == 1) >> (x <= 1)), IA,
         "The condition of an indicator constraint must be a variable == 0 or 1"),
        (lambda: m.addConstr(x <= kp.max_(x, y)), IA,
         "General expressions can only be the right hand side part of an assignment to a single variable"),
        (lambda: m.addConstrs([x <= 1]), IA,
         "Model.addConstrs() takes a generator expression of constraints"),
        (lambda: m.addGenConstrNorm(x, [y], "two"), IA, "Invalid value for which"),
        (lambda: m.addGenConstrExp(x, y, options=1), IA, "Name must be a string"),
        (lambda: m.setObjective(x, 3), IA, "Objective sense must be KVR.MINIMIZE or KVR.MAXIMIZE"),
        (lambda: m.setPWLObj(x, [0, float("nan")], [0, 1]), IA, "Coefficient is Nan or Inf"),
        (lambda: m.chgCoeff(None, x, 1), KVR.ERROR_NOT_IN_MODEL, "Constraint not in model"),
        (lambda: m.setAttr("LB", [x], {y: 1.0}), IA, "No new value given for key <kaviro.Var x>"),
        (lambda: m.setAttr("LB", 5, 1.0), -1, "Unrecognized argument to setAttr"),
        (lambda: m._Model__getVar(99), KVR.ERROR_INDEX_OUT_OF_RANGE, "Var index 99 out of range"),
    ]
    for action, errno, text in cases:
        with pytest.raises(kp.KaviroError) as err:
            action()
        assert (err.value.errno, err.value.message) == (errno, text), text
    with pytest.raises(TypeError) as err:
        m.addConstr(x <= 1, nam="c")
    assert str(err.value) == "addConstr() got an unexpected keyword argument 'nam'"
    with pytest.raises(TypeError):
        m.setAttr("LB")
    assert snapshot(m) == before


def test_library_refusals_surface_with_its_message(env):
    cold = kp.Env(empty=True)  # not started: no model can be made in it
    with pytest.raises(kp.KaviroError) as err:
        kp.Model(env=cold)
    assert err.value.errno != 0 and err.value.message
    assert cold._modcnt == 0
    cold.dispose()
    m = kp.Model(env=env)
    x = m.addVar()
    m.update()
    before = snapshot(m)
    with pytest.raises(kp.KaviroError) as err:
        m.addGenConstrNorm(x, [x], 3)  # which must be 0, 1, 2 or infinity
    assert err.value.errno == KVR.ERROR_INVALID_ARGUMENT and err.value.message
    assert snapshot(m) == before
    m.dispose()
