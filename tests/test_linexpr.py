import copy
import gc
import math
import pickle
import weakref

import numpy as np
import pytest

import kaviropy as kp
from kaviropy import KVR, LinExpr, QuadExpr
from conftest import PENDING_NAME as P, raises

INVALID = KVR.ERROR_INVALID_ARGUMENT


@pytest.fixture
def xs():
    return [kp.Var(None, i) for i in range(200)]


def terms(e):
    return [(e.getCoeff(i), e.getVar(i)) for i in range(e.size())]


def same_terms(e, expected):
    got = terms(e)
    return len(got) == len(expected) and all(
        c == ec and v is ev for (c, v), (ec, ev) in zip(got, expected))


# ---------------------------------------------------------------- construction


def test_constructor_forms(xs):
    x, y = xs[:2]
    assert LinExpr().size() == 0 and LinExpr().getConstant() == 0.0
    assert LinExpr(2.5).getConstant() == 2.5 and LinExpr(np.int64(3)).getConstant() == 3.0
    assert same_terms(LinExpr(x), [(1.0, x)])
    assert same_terms(LinExpr(2, x), [(2.0, x)])
    assert same_terms(LinExpr([1, 2], [x, y]), [(1.0, x), (2.0, y)])
    assert same_terms(LinExpr(np.array([1.5, 2.5]), (x, y)), [(1.5, x), (2.5, y)])
    assert same_terms(LinExpr([(3, x), (4.0, y)]), [(3.0, x), (4.0, y)])
    assert LinExpr([]).size() == 0
    assert same_terms(LinExpr(arg1=2, arg2=x), [(2.0, x)])


def test_copy_constructor_is_independent(xs):
    x, y = xs[:2]
    e = 2 * x + 1
    c = LinExpr(e)
    c.add(y)
    e.addConstant(5)
    assert same_terms(c, [(2.0, x), (1.0, y)]) and c.getConstant() == 1.0
    assert same_terms(e, [(2.0, x)]) and e.getConstant() == 6.0


@pytest.mark.parametrize("args, code, message", [
    ((math.nan,), INVALID, "Constant is Nan"),
    (([1, 2], ["x"]), INVALID, "Linear expression arguments of different length"),
    (([1], [3]), INVALID, "Second argument should be a list of Var"),
    (([(1, 2)],), INVALID, "Second tuple member should be a Var"),
    (([1, 2],), -1, "Unable to convert argument to an expression"),
    (("text",), -1, "Unable to convert argument to an expression"),
    ((None,), -1, "Unable to convert argument to an expression"),
    ((1, 2), -1, "Unable to convert argument to an expression"),
])
def test_constructor_errors(args, code, message):
    raises(code, message, LinExpr, *args)


def test_constructor_errors_with_variables(xs):
    x, y = xs[:2]
    raises(INVALID, "Linear expression arguments of different length", LinExpr, [1, 2], [x])
    raises(INVALID, "Coefficient is Nan or Inf", LinExpr, math.inf, x)
    raises(INVALID, "Coefficient is Nan or Inf", LinExpr, [1, math.nan], [x, y])
    raises(INVALID, "Coefficient is Nan or Inf", LinExpr, [(1, x), (math.inf, y)])
    raises(INVALID, "First argument should be a list of floats", LinExpr, ["a"], [x])
    raises(INVALID, "First tuple member should be a number", LinExpr, [("a", x)])
    raises(-1, "Unable to convert argument to an expression", LinExpr, x * x)


# ---------------------------------------------------------------- methods


def test_add_forms_and_errors(xs):
    x, y = xs[:2]
    e = LinExpr()
    e.add(x)
    e.add(y, 3)
    e.add(4, -2)
    e.add(LinExpr([1, 1], [x, y]) + 1, mult=2.0)
    assert same_terms(e, [(1.0, x), (3.0, y), (2.0, x), (2.0, y)])
    assert e.getConstant() == -6.0
    e.add(e)  # doubling through itself
    assert e.size() == 8 and e.getConstant() == -12.0
    assert same_terms(e, 2 * [(1.0, x), (3.0, y), (2.0, x), (2.0, y)])
    raises(INVALID, "Coefficient is Nan or Inf", e.add, x, math.inf)
    raises(INVALID, "Invalid argument to LinExpr multiplication", e.add, x, "2")
    raises(INVALID, "Unsupported type (<class 'kaviropy.QuadExpr'>) for LinExpr addition argument",
           e.add, x * y)
    raises(INVALID, "Unsupported type (<class 'str'>) for LinExpr addition argument", e.add, "x")
    raises(INVALID, "Constant is Nan", e.add, math.nan)
    assert e.size() == 8 and e.getConstant() == -12.0


def test_add_constant(xs):
    e = LinExpr(xs[0])
    e.addConstant(2)
    e.addConstant(np.float32(0.5))
    assert e.getConstant() == 2.5
    raises(INVALID, "Constant is Nan", e.addConstant, math.nan)
    raises(INVALID, "Constant must be a number", e.addConstant, "1")
    assert e.getConstant() == 2.5


def test_add_terms_forms_and_errors(xs):
    x, y, z = xs[:3]
    e = LinExpr()
    e.addTerms(2, x)
    e.addTerms([1, 2], [y, z])
    e.addTerms((c for c in [5.0]), (v for v in [x]))
    assert same_terms(e, [(2.0, x), (1.0, y), (2.0, z), (5.0, x)])
    for args, message in [(([1, 2], [x]), "Array lengths don't match"),
                          (([1], [2]), "Second argument should be a list of Var"),
                          ((["a"], [x]), "First argument should be a list of floats"),
                          (([1, math.nan], [x, y]), "Coefficient is Nan or Inf"),
                          ((math.inf, x), "Coefficient is Nan or Inf"),
                          ((1, [x]), "Unrecognized arguments"),
                          (([1], x), "Unrecognized arguments"),
                          (("ab", [x, y]), "Unrecognized arguments")]:
        raises(INVALID, message, e.addTerms, *args)
    # A failing call appends nothing, even when the bad item comes late.
    assert e.size() == 4


def test_remove_getters_and_positions(xs):
    x, y, z = xs[:3]
    e = LinExpr([1, 2, 3, 4], [x, y, x, z])
    e.remove(1)
    assert same_terms(e, [(1.0, x), (3.0, x), (4.0, z)])
    e.remove(kp.Var(None, 0))  # another handle of the same variable
    assert same_terms(e, [(4.0, z)])
    e.remove(y)  # not present: nothing happens
    assert e.getCoeff(-1) == 4.0 and e.getVar(-1) is z
    raises(KVR.ERROR_INDEX_OUT_OF_RANGE, "Index 1 out of range for a LinExpr with 1 terms",
           e.getVar, 1)
    raises(KVR.ERROR_INDEX_OUT_OF_RANGE, "Index -2 out of range for a LinExpr with 1 terms",
           e.remove, -2)
    raises(INVALID, "Term position must be an integer, not float", e.getCoeff, 0.0)
    raises(INVALID, "Argument to remove must be a term position or a Var", e.remove, "x")
    assert e.size() == 1


def test_remove_compares_instance_attributes(xs):
    x = xs[0]
    twin = kp.Var(None, 0)
    twin._tag = 1  # no longer sameAs x
    e = LinExpr([1, 2], [x, twin])
    e.remove(x)
    assert same_terms(e, [(2.0, twin)])


def test_clear_copy_and_normalize(xs):
    x, y = xs[:2]
    e = LinExpr([1, 2, 3], [x, y, x]) + 5
    c = e.copy()
    e.clear()
    assert e.size() == 0 and e.getConstant() == 0.0 and str(e) == "0.0"
    assert c.size() == 3 and c.getConstant() == 5.0
    c.addTerms([1, -2], [kp.Var(None, 1), y])
    c._normalize()
    assert same_terms(c, [(4.0, x), (1.0, y)]) and c.getConstant() == 5.0


def test_normalize_keeps_unnumbered_variables_apart():
    a, b = kp.Var(None, -1), kp.Var(None, -1)
    e = LinExpr([1, 2, 3], [a, b, a])
    e._normalize()
    assert same_terms(e, [(4.0, a), (2.0, b)])


def test_get_value_reads_each_variable(xs):
    x = xs[0]
    with pytest.raises(Exception):
        (2 * x + 1).getValue()
    assert LinExpr(3).getValue() == 3.0


def test_wrong_self_type(xs):
    with pytest.raises(TypeError):
        LinExpr.size(QuadExpr())
    with pytest.raises(TypeError):
        LinExpr.add(3, xs[0])


# ---------------------------------------------------------------- printing


def test_printing(named):
    x, y, _ = named
    assert str(LinExpr()) == "0.0"
    assert str(2 * x + y + 3) == "3.0 + 2.0 x + y"
    assert str(x - 2 * y) == "x + -2.0 y"
    assert str(LinExpr(-1.5)) == "-1.5"
    assert str(LinExpr(1e-20, x)) == "1e-20 x"
    assert repr(x + 1) == "<kaviro.LinExpr: 1.0 + x>"
    assert (x + 1)._asprettystring() == "1.0 + x"
    assert str(2 * kp.Var(None, 0) + x) == f"2.0 {P} + x"


def test_dbgprint_shows_pieces(xs, capsys):
    big = kp.quicksum(xs[:100])
    linked = big + xs[100] + 7
    linked._dbgprint()
    assert capsys.readouterr().out == (
        "<DBGLinExpr len=1 const=7.0>\n  |  <DBGLinExpr len=100 const=0.0>\n")
    assert linked._is_nested()
    assert linked.size() == 101 and not linked._is_nested()
    linked._dbgprint()
    assert capsys.readouterr().out == "<DBGLinExpr len=101 const=7.0>\n"


# ---------------------------------------------------------------- pieces


def test_linked_pieces_keep_value_semantics(xs):
    base = kp.quicksum(xs[:100]) + 1
    b = base + xs[100]  # base is frozen into a piece shared by both
    c = LinExpr(base)  # shares the same piece
    base += xs[101]
    base.addConstant(1)
    c.add(xs[102], 2)
    assert same_terms(base, [(1.0, v) for v in xs[:100]] + [(1.0, xs[101])])
    assert same_terms(b, [(1.0, v) for v in xs[:100]] + [(1.0, xs[100])])
    assert same_terms(c, [(1.0, v) for v in xs[:100]] + [(2.0, xs[102])])
    assert (base.getConstant(), b.getConstant(), c.getConstant()) == (2.0, 1.0, 1.0)


def test_repeated_binary_sums_build_in_order(xs):
    s = LinExpr()
    for i, v in enumerate(xs):
        s = s + (i + 1) * v
        s = s - 1
    assert s._is_nested()
    assert same_terms(s, [(i + 1.0, v) for i, v in enumerate(xs)])
    assert s.getConstant() == -len(xs)
    q = QuadExpr()
    for v in xs:
        q = q + v * v
    assert q._is_nested() and q.size() == len(xs)
    assert all(q.getVar1(i) is v and q.getVar2(i) is v for i, v in enumerate(xs))


def test_sum_of_an_expression_with_itself(xs):
    e = kp.quicksum(xs[:80])
    d = e + e
    assert d.size() == 160 and d.getVar(80) is xs[0]
    assert e.size() == 80


# ---------------------------------------------------------------- operators


def test_arithmetic(xs):
    x, y = xs[:2]
    e = 2 * x + 1
    assert same_terms(e + y, [(2.0, x), (1.0, y)]) and (3 + e).getConstant() == 4.0
    assert same_terms(e - y, [(2.0, x), (-1.0, y)])
    r = 3 - e
    assert same_terms(r, [(-2.0, x)]) and r.getConstant() == 2.0
    r = y - e
    assert same_terms(r, [(1.0, y), (-2.0, x)]) and r.getConstant() == -1.0
    assert same_terms(e * 3, [(6.0, x)]) and (np.float64(3) * e).getConstant() == 3.0
    assert same_terms(e / 4, [(0.5, x)]) and (e / 4).getConstant() == 0.25
    assert same_terms(-e, [(-2.0, x)]) and (-e).getConstant() == -1.0
    assert same_terms(e, [(2.0, x)]) and e.getConstant() == 1.0  # operands unchanged


def test_in_place_operators_keep_the_object(xs):
    x, y = xs[:2]
    e = LinExpr(x)
    before = e
    e += y
    e -= 2
    e *= 3
    e /= 2
    e += LinExpr(1)
    assert e is before
    assert same_terms(e, [(1.5, x), (1.5, y)]) and e.getConstant() == -2.0
    e *= LinExpr(2)  # a constant expression scales in place
    assert e is before and e.getConstant() == -4.0


def test_products(xs):
    x, y = xs[:2]
    q = (x + y) * (x - y + 2)
    assert type(q) is QuadExpr and q.size() == 4
    assert [q.getCoeff(i) for i in range(4)] == [1.0, -1.0, 1.0, -1.0]
    assert same_terms(q.getLinExpr(), [(2.0, x), (2.0, y)])
    assert type((x + y) * LinExpr(3)) is LinExpr
    assert same_terms(LinExpr(3) * (x + y), [(3.0, x), (3.0, y)])
    assert type(x * (x + 1)) is QuadExpr and (x * (x + 1)).getLinExpr().size() == 1
    sq = (x + 1) ** 2
    assert type(sq) is QuadExpr and sq.size() == 1 and sq.getLinExpr().getConstant() == 1.0
    assert type((x + 1) ** 2.0) is QuadExpr and type(x ** np.int64(2)) is QuadExpr
    e = LinExpr(x)
    e *= y  # a product cannot stay linear: a new QuadExpr
    assert type(e) is QuadExpr
    with pytest.raises(TypeError):
        (x + 1) ** 3
    with pytest.raises(TypeError):
        2 ** (x + 1)


def test_operator_errors(xs):
    x, y = xs[:2]
    e = x + y
    raises(INVALID, "Divisor must be a constant", lambda: e / x)
    raises(INVALID, "Divisor must be a constant", lambda: e / "2")
    raises(INVALID, "Divisor must be a constant", lambda: 3 / e)
    raises(INVALID, "Multiplier is Nan or Inf", lambda: e * math.inf)
    raises(INVALID, "Multiplier is Nan or Inf", lambda: e / math.nan)
    raises(INVALID, "Constant is Nan", lambda: e + math.nan)
    raises(0, "Inequality constraints not supported", lambda: e != 0)
    with pytest.raises(ZeroDivisionError, match="float division by zero"):
        e / 0
    with pytest.raises(ZeroDivisionError):
        e /= 0.0
    assert e.size() == 2
    for op in (lambda: e + "a", lambda: "a" - e, lambda: e * None, lambda: e < 1):
        with pytest.raises(TypeError):
            op()


def test_unknown_operands_get_their_reflected_operator(xs):
    x = xs[0]

    class Other:
        def __radd__(self, o):
            return ("radd", o)

        def __rsub__(self, o):
            return ("rsub", o)

        def __rmul__(self, o):
            return ("rmul", o)

        def __rtruediv__(self, o):
            return ("rdiv", o)

        __array_ufunc__ = None  # an array-like: division hands over too

    e = x + 1
    o = Other()
    for result, name in [(e + o, "radd"), (e - o, "rsub"), (e * o, "rmul"), (e / o, "rdiv"),
                         (x + o, "radd"), (x - o, "rsub"), (x * o, "rmul"), (x / o, "rdiv")]:
        assert result[0] == name
    e2 = e
    e2 += o  # in-place falls back to the reflected operator as well
    assert e2[0] == "radd" and e2[1] is e


def test_numpy_operands(xs):
    x, y = xs[:2]
    e = x + y
    assert type(np.float64(2) * e) is LinExpr and type(e * np.float32(2)) is LinExpr
    assert (e + np.int64(3)).getConstant() == 3.0
    a = np.array([1.0, 2.0])
    for r in (e + a, a + e, e * a, a * e, e - a, e / a, x + a, x * a, a * x):
        assert isinstance(r, np.ndarray) and r.shape == (2,)
        assert all(type(v) is LinExpr for v in r)
    assert (e * a)[1].getCoeff(0) == 2.0
    one = np.array([5.0])  # a one-element array is still an array, not a number
    assert isinstance(e + one, np.ndarray)


# ---------------------------------------------------------------- pickling and cycles


def test_pickle_and_copy(xs):
    x = xs[0]
    e = LinExpr(7)
    assert pickle.loads(pickle.dumps(e)).getConstant() == 7.0
    f = 2 * x + 3
    fn, args = f.__reduce__()
    assert fn is kp._unpickle_LinExpr and args[0] is LinExpr and args[1] == 76435576
    assert args[2][0] == 3.0 and args[2][1] == [2.0] and args[2][2][0] is x and args[2][3] is None
    g = copy.copy(f)
    assert g is not f and same_terms(g, [(2.0, x)]) and g.getConstant() == 3.0
    g = kp._unpickle_LinExpr(LinExpr, 76435576, (1.0, [1.0, 2.0], [x, x], None))
    assert g.size() == 2 and g.getConstant() == 1.0


@pytest.mark.parametrize("args, message", [
    ((QuadExpr, 76435576, (0.0, [], [], None)), "Pickled data is not a LinExpr"),
    ((LinExpr, 76435575, (0.0, [], [], None)), "Unknown layout of a pickled LinExpr"),
    ((LinExpr, "76435576", (0.0, [], [], None)), "Unknown layout of a pickled LinExpr"),
    ((LinExpr, 76435576, (0.0, [], [])), "Malformed state of a pickled LinExpr"),
    ((LinExpr, 76435576, (0.0, [1.0], [], None)), "Malformed state of a pickled LinExpr"),
    ((LinExpr, 76435576, (0.0, [], [], 3)), "Malformed state of a pickled LinExpr"),
])
def test_unpickle_errors(args, message):
    raises(INVALID, message, kp._unpickle_LinExpr, *args)


def test_reference_cycles_are_collected(xs):
    class Marker:
        pass

    v = kp.Var(None, 5)
    marker = Marker()
    v._keep = [marker, 2 * v + 1, v * v, v <= 1]
    ref = weakref.ref(marker)
    del v, marker
    gc.collect()
    assert ref() is None


# ---------------------------------------------------------------- Var operators


def test_var_arithmetic(xs):
    x, y = xs[:2]
    assert same_terms(x + y, [(1.0, x), (1.0, y)]) and (x + 2).getConstant() == 2.0
    r = 2 + x
    assert same_terms(r, [(1.0, x)]) and r.getConstant() == 2.0
    assert same_terms(x - y, [(1.0, x), (-1.0, y)])
    r = 5 - x
    assert same_terms(r, [(-1.0, x)]) and r.getConstant() == 5.0
    assert same_terms(3 * x, [(3.0, x)]) and same_terms(x * np.int32(3), [(3.0, x)])
    assert same_terms(x / 4, [(0.25, x)]) and same_terms(-x, [(-1.0, x)])
    assert same_terms(x * LinExpr(2), [(2.0, x)])
    v = x
    v += 1  # a Var has no in-place form: v becomes an expression, x stays a Var
    assert type(v) is LinExpr and type(x) is kp.Var
    q = x * y
    assert type(q) is QuadExpr and q.getVar1(0) is x and q.getVar2(0) is y
    for sq in (x ** 2, x ** 2.0, x * x):
        assert type(sq) is QuadExpr and sq.getVar1(0) is x and sq.getVar2(0) is x
    q = x * (y + 2)
    assert q.size() == 1 and same_terms(q.getLinExpr(), [(2.0, x)])
    assert type(x + x * y) is QuadExpr and type(x - x * y) is QuadExpr
    assert sum([x, y, 1]).getConstant() == 1.0


def test_var_operator_errors(xs):
    x, y = xs[:2]
    raises(INVALID, "Coefficient is Nan or Inf", lambda: x * math.nan)
    raises(INVALID, "Coefficient is Nan or Inf", lambda: math.inf * x)
    raises(INVALID, "Constant is Nan", lambda: x + math.nan)
    raises(INVALID, "Divisor must be a constant", lambda: x / y)
    raises(INVALID, "Divisor must be a constant", lambda: 1 / x)
    raises(INVALID, "Divisor must be a constant", lambda: x / (x + 1))
    raises(INVALID, "Multiplier is Nan or Inf", lambda: x / math.nan)
    with pytest.raises(ZeroDivisionError, match="float division by zero"):
        x / 0
    for op in (lambda: x ** 3, lambda: 2 ** x, lambda: x + "a", lambda: "a" * x,
               lambda: pow(x, 2, 5)):
        with pytest.raises(TypeError):
            op()
    raises(INVALID, "Invalid argument to QuadExpr multiplication", lambda: x * (x * y))


def test_var_operators_as_methods(xs):
    x, y = xs[:2]
    assert type(x.__add__(y)) is LinExpr and type(x.__rsub__(3)) is LinExpr
    assert x.__add__("a") is NotImplemented and x.__mul__(x * y) is NotImplemented
    assert x.__pow__(3) is NotImplemented and type(x.__pow__(2)) is QuadExpr
    assert x.__rtruediv__("a") is NotImplemented


def test_comparisons_that_change_the_expression_are_safe():
    # sameAs compares instance attributes, which may run arbitrary Python code.
    class Meddler:
        def __eq__(self, other):
            target.clear()
            target.addTerms(5, c)
            return True

    a, b, c = kp.Var(None, 0), kp.Var(None, 0), kp.Var(None, 1)
    a._tag, b._tag = Meddler(), Meddler()
    target = LinExpr([1, 2, 3], [a, b, c])
    target.remove(a)
    assert same_terms(target, [(5.0, c)])
    target = QuadExpr()
    target.addTerms([1, 2], [a, b], [b, a])
    assert "^ 2" in str(target)
    target = QuadExpr()
    target.addTerms([1, 2], [a, c], [b, c])
    target.remove(a)
    assert target.size() == 0 and same_terms(target.getLinExpr(), [(5.0, c)])


def test_random_operation_sequences_match_a_reference(xs):
    # Expressions next to plain (terms, constant) references, through long and short operands so
    # that linked pieces are created, shared, mutated around and flattened in every order.
    import random
    rng = random.Random(7)
    exprs = [(LinExpr(), [], 0.0)]
    for step in range(3000):
        i = rng.randrange(len(exprs))
        e, ref, const = exprs[i]
        op = rng.randrange(7)
        if len(ref) > 500 and op in (1, 5):
            continue
        v = xs[rng.randrange(len(xs))]
        if op == 0:  # binary sum with a variable
            exprs.append((e + v, ref + [(1.0, v)], const))
        elif op == 1:  # binary difference with another expression
            f, fref, fconst = exprs[rng.randrange(len(exprs))]
            exprs.append((e - f, ref + [(-c, w) for c, w in fref], const - fconst))
        elif op == 2:  # in place
            e += 2 * v
            exprs[i] = (e, ref + [(2.0, v)], const)
            for k, (g, gref, gconst) in enumerate(exprs):  # aliases see the change
                if g is e:
                    exprs[k] = exprs[i]
        elif op == 3:
            exprs.append((LinExpr(e), list(ref), const))
        elif op == 4:
            exprs.append((e + 1.5, list(ref), const + 1.5))
        elif op == 5:
            exprs.append((kp.quicksum([e, v, e]), ref + [(1.0, v)] + ref, 2 * const))
        elif op == 6:
            e._flatten()
        if len(exprs) > 40:
            exprs.pop(rng.randrange(len(exprs)))
        if step % 500 == 0:
            gc.collect()
    assert any(e._is_nested() for e, _, _ in exprs)  # the sequence did link pieces
    for e, ref, const in exprs:
        assert same_terms(e, ref) and e.getConstant() == pytest.approx(const)


def test_operations_release_their_references(xs):
    import sys
    x, y, z = xs[:3]
    big = kp.quicksum(xs[3:])

    def workout():
        e = 2 * x + 3 * y - z + 4
        e += x
        e -= y * 1
        e *= 2
        (e / 2, -e, e * e, e ** 2, x * y, x ** 2, (x + 1) * (y - 1), e == 1, x <= y)
        f = big + x
        f = f + big - e
        f.size()
        LinExpr(f).copy()._normalize()
        q = kp.quicksum([e, x * y, f, 3])
        q += e * x
        (q + q, q - x, 2 * q, q / 2, -q, q.copy(), QuadExpr(q))
        q.remove(x)
        f.remove(0)
        str(q), str(f), q.__reduce__(), f.__reduce__(), kp.max_(x, y), kp.Column()
        try:
            e / x
        except kp.KaviroError:
            pass
        LinExpr([1, 2], [x, y]).addTerms([1], [z])

    workout()
    gc.collect()
    before = [sys.getrefcount(v) for v in xs]
    for _ in range(20):
        workout()
    gc.collect()
    assert [sys.getrefcount(v) for v in xs] == before
