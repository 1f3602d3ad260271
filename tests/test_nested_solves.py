"""Solves inside solves: the user's callback (of every kind) optimizes, frees or garbage-collects
other models, or solves them on other threads, while the outer solve goes on; models solved on
several threads at once do the same. Each scenario runs in a child process whose allocator
poisons freed memory, so that a solve touching anything another solve freed fails at once."""

import os
import subprocess
import sys
import textwrap

import pytest

import kaviropy as kp
from kaviropy import KVR

CB = KVR.Callback
MODEL_NAME = "nest"

# Shared by every child: an LP and a MIP with known optima, and an outer knapsack MIP.
PRELUDE = textwrap.dedent("""
    import gc, threading
    import kaviropy as kp
    from kaviropy import KVR
    CB = KVR.Callback
    env = kp.Env(empty=True); env.setParam("OutputFlag", 0); env.start()

    def small(integer, threads=0):
        s = kp.Model(env=env)
        s.Params.Threads = threads
        y = s.addVars(3, ub=4, vtype=KVR.INTEGER if integer else KVR.CONTINUOUS)
        s.addConstr(y.sum() <= 5.5)
        s.setObjective(y.sum(), KVR.MAXIMIZE)
        s.optimize()
        assert s.Status == KVR.OPTIMAL and s.ObjVal == (5 if integer else 5.5), s.ObjVal
        return s

    def knapsack(threads, n=30):
        m = kp.Model(env=env)
        m.Params.Threads = threads
        x = [m.addVar(vtype=KVR.BINARY) for j in range(n)]
        m.addConstr(kp.quicksum((j % 5 + 2) * x[j] for j in range(n)) <= 37)
        m.setObjective(kp.quicksum((j % 7 + 1) * x[j] for j in range(n)), KVR.MAXIMIZE)
        return m

    def lp(n=60):
        m = kp.Model(env=env)
        x = m.addVars(n, ub=10)
        for i in range(n):
            m.addConstr(x[i] + 2 * x[(i + 1) % n] + x[(i + 7) % n] <= 12 + i % 4)
        m.setObjective(kp.quicksum((1 + j % 3) * x[j] for j in range(n)), KVR.MAXIMIZE)
        return m
""")


def run_child(body):
    """Runs PRELUDE + body in a fresh interpreter; the body prints 'done' at its end."""
    envvars = dict(os.environ, MALLOC_PERTURB_="165")
    result = subprocess.run([sys.executable, "-c", PRELUDE + textwrap.dedent(body)],
                            capture_output=True, text=True, timeout=300, env=envvars)
    assert result.returncode == 0, (result.returncode, result.stderr[-3000:])
    assert result.stdout.strip().endswith("done"), result.stdout[-2000:]


@pytest.mark.parametrize("threads", [1, 2])
def test_mip_callback_frees_solves_and_collects_other_models(threads):
    run_child(f"""
        solved = [small(False), small(True)]   # the LP keeps its engine instance for ranging
        m = knapsack({threads})
        m.Params.OutputFlag, m.Params.LogToConsole = 1, 0   # MESSAGE events
        events = {{}}

        def cb(model, where):
            events[where] = events.get(where, 0) + 1
            if events[where] > 3:
                return
            if where == CB.MIPSOL:
                if solved:
                    solved.pop().dispose()
                small(True, threads=1 if {threads} == 2 else 2)   # another scheduler size
                cycle = [small(False)]
                cycle.append(cycle)   # freed only by the garbage collector
                del cycle
                gc.collect()
            elif where in (CB.MIP, CB.MESSAGE, CB.PRESOLVE):
                del_me = small(where == CB.MIP)
                del del_me
                t = threading.Thread(target=small, args=(True, 2))
                t.start(); t.join()

        m.optimize(cb)
        assert m.Status == KVR.OPTIMAL and m.ObjVal == 67, m.ObjVal
        assert events.get(CB.MIPSOL) and events.get(CB.MIP) and events.get(CB.MESSAGE)
        assert not solved
        small(True)   # the thread's engine state is sound afterwards
        print("done")
    """)


@pytest.mark.parametrize("method", [-1, 1, 2, 3])
def test_lp_callbacks_solve_other_models(method):
    run_child(f"""
        outer = lp()
        outer.Params.Method = {method}
        outer.Params.OutputFlag = 1
        outer.Params.LogToConsole = 0
        seen = set()
        ref = lp(); ref.optimize(); expected = ref.ObjVal; ref.dispose()

        def cb(model, where):
            if where in seen:
                return
            seen.add(where)
            s = small(where != CB.MESSAGE)
            s.dispose()
            small(False)
            gc.collect()

        outer.optimize(cb)
        assert outer.Status == KVR.OPTIMAL and abs(outer.ObjVal - expected) < 1e-6
        assert CB.MESSAGE in seen
        print("done")
    """)


def test_threads_solve_models_whose_callbacks_solve_and_free_models():
    run_child("""
        results, failures = [], []

        def work(k):
            try:
                for r in range(3):
                    m = knapsack(2 if k % 2 else 1)
                    kept = [small(False)]

                    def cb(model, where):
                        if where == CB.MIPSOL:
                            small(True, threads=2)
                            if kept:
                                kept.pop().dispose()

                    m.optimize(cb)
                    results.append(m.ObjVal)
                    m.dispose()
            except Exception as e:   # reported by the main thread
                failures.append(repr(e))

        threads = [threading.Thread(target=work, args=(k,)) for k in range(4)]
        for t in threads: t.start()
        for t in threads: t.join()
        assert not failures, failures
        assert results == [67] * 12, results
        print("done")
    """)


def test_a_model_cannot_be_freed_or_solved_from_its_own_callback(m):
    x = [m.addVar(vtype=KVR.BINARY) for _ in range(8)]
    m.addConstr(kp.quicksum((j + 1) * x[j] for j in range(8)) <= 10)
    m.setObjective(kp.quicksum((j % 3 + 1) * x[j] for j in range(8)), KVR.MAXIMIZE)
    errors = []

    def cb(model, where):
        if where == CB.MIPSOL and not errors:
            for call in (model.dispose, model.optimize):
                with pytest.raises(kp.KaviroError) as err:
                    call()
                errors.append(err.value.errno)

    m.optimize(cb)
    assert errors[0] == KVR.ERROR_OPTIMIZATION_IN_PROGRESS and len(errors) == 2
    assert m.Status == KVR.OPTIMAL and m.ObjVal == 7
    assert len(m.getVars()) == 8   # still the whole model, still usable
    m.optimize()
    assert m.ObjVal == 7


def test_solves_after_solves_of_every_size_and_in_forked_children():
    """The scheduler a solve leaves on its thread serves the next solve of the same size, gives
    way to one of another size, and does not keep a process forked in between from solving."""
    run_child("""
        import multiprocessing, os
        tasks = lambda: len(os.listdir("/proc/self/task"))
        sizes = [1, 2, 0, 2, 1, 0, 1]
        for t in sizes:
            small(True, threads=t)
        small(False, threads=2)
        kept = tasks()
        for _ in range(5):
            small(False, threads=2)
        assert tasks() == kept

        def child(t):
            small(True, threads=t)
            small(False, threads=t)
            return t

        with multiprocessing.get_context("fork").Pool(2) as pool:
            assert pool.map(child, sizes) == sizes
        import random, time

        def parallel_mip():
            # Large enough for the engine to hand work to its worker threads.
            rnd = random.Random(3)
            m = kp.Model(env=env)
            m.Params.Threads = 2
            x = [m.addVar(vtype=KVR.BINARY) for _ in range(60)]
            for i in range(30):
                m.addConstr(kp.quicksum(rnd.randint(1, 30) * x[j]
                                        for j in rnd.sample(range(60), 20)) <= 200)
            m.setObjective(kp.quicksum(rnd.randint(1, 20) * v for v in x), KVR.MAXIMIZE)
            m.optimize()
            assert m.Status == KVR.OPTIMAL and m.ObjVal == 512, m.ObjVal

        for t in (1, 2):
            small(False, threads=t)
        parallel_mip()
        pid = os.fork()
        if pid == 0:
            parallel_mip()
            os._exit(0)
        for _ in range(600):
            done, status = os.waitpid(pid, os.WNOHANG)
            if done:
                break
            time.sleep(0.1)
        else:
            os.kill(pid, 9)
            os.waitpid(pid, 0)
            raise AssertionError("the forked process did not finish its solve")
        assert status == 0
        print("done")
    """)
