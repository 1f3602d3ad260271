"""Batch optimization against a real Dask cluster: a scheduler and two worker processes on
127.0.0.1, started once for the module and stopped at its end."""

import ctypes as C
import json
import os
import random
import signal
import socket
import subprocess
import sys
import textwrap
import time

import pytest

import kaviropy as kp
from kaviropy import KVR, _batch

pytest.importorskip("distributed")

WAIT = 60  # seconds: the bound on every wait for the cluster


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def wait_until(predicate, timeout=WAIT, step=0.05):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        value = predicate()
        if value:
            return value
        time.sleep(step)
    raise AssertionError("condition not reached within %g s" % timeout)


@pytest.fixture(scope="module")
def cluster(tmp_path_factory):
    """The scheduler address; the scheduler and the two worker processes (with their nannies)
    run until the module's tests are done."""
    from distributed import Client

    logs = tmp_path_factory.mktemp("cluster")
    address = "tcp://127.0.0.1:%d" % free_port()
    procs = []

    # The scheduler gives a task up when the first worker running it dies (default: the third).
    env = dict(os.environ, DASK_DISTRIBUTED__SCHEDULER__ALLOWED_FAILURES="0")

    def spawn(name, *args):
        log = open(logs / (name + ".log"), "wb")
        procs.append(subprocess.Popen([sys.executable, "-m", *args], stdout=log, stderr=log,
                                      stdin=subprocess.DEVNULL, env=env))
        log.close()

    local = ["--host", "127.0.0.1", "--dashboard-address", "127.0.0.1:0"]
    spawn("scheduler", "distributed.cli.dask_scheduler", "--port", address.rsplit(":", 1)[1],
          *local)
    for i in range(2):
        spawn("worker%d" % i, "distributed.cli.dask_worker", address, "--nthreads", "1",
              "--death-timeout", str(WAIT), *local)
    worker_pids = set()
    try:
        with Client(address, timeout=WAIT) as client:
            client.wait_for_workers(2, timeout=WAIT)
            yield address
            worker_pids = set(client.run(os.getpid).values())
            client.shutdown()
    finally:
        stale = _batch._clients.pop(address, None)
        if stale is not None:
            stale.close()
        for p in reversed(procs):
            p.terminate()
        for p in procs:
            try:
                p.wait(timeout=20)
            except subprocess.TimeoutExpired:
                p.kill()
                p.wait()
        for pid in worker_pids:  # the nannies stop their workers; make sure of it
            if _batch._alive(pid):
                os.kill(pid, signal.SIGKILL)


@pytest.fixture
def env(cluster):
    e = kp.Env(empty=True)
    e.setParam("OutputFlag", 0)
    e.setParam("CSManager", cluster)
    e.start()
    yield e
    e.dispose()


def knapsack(env, seed, n=12):
    rng = random.Random(seed)
    m = kp.Model("knap%d" % seed, env=env)
    x = m.addVars(n, vtype=KVR.BINARY, name="x")
    w = [rng.randint(5, 40) for _ in range(n)]
    m.addConstr(kp.quicksum(w[j] * x[j] for j in range(n)) <= sum(w) // 2, name="cap")
    m.setObjective(kp.quicksum(rng.randint(1, 30) * x[j] for j in range(n)), KVR.MAXIMIZE)
    return m


def market_split(env, time_limit, rows=4, cols=30):
    """A small MIP that takes the engine far longer than `time_limit` seconds."""
    rng = random.Random(1)
    m = kp.Model("split", env=env)
    x = m.addVars(cols, vtype=KVR.BINARY, name="x")
    s = m.addVars(rows, 2, name="s")
    for i in range(rows):
        a = [rng.randint(0, 99) for _ in range(cols)]
        m.addConstr(kp.quicksum(a[j] * x[j] for j in range(cols)) + s[i, 0] - s[i, 1]
                    == sum(a) // 2)
    m.setObjective(s.sum(), KVR.MINIMIZE)
    m.Params.Threads = 1
    m.Params.TimeLimit = time_limit
    return m


def finished(batch):
    batch.update()
    return batch.BatchStatus not in (KVR.BATCH_CREATED, KVR.BATCH_SUBMITTED)


def run(batch_id, env):
    """The current run of a request as the scheduler records it."""
    rec = _batch._record(_batch._client(env), batch_id)
    return rec["runs"][str(rec["attempt"])]


def solution(batch):
    return json.loads(batch.getJSONSolution())


def test_twenty_requests_give_what_optimize_gives(env, tmp_path):
    models = [knapsack(env, seed) for seed in range(17)]
    # Parameters, starts and hints travel with the model.
    started = knapsack(env, 100)
    started.Params.MIPGap = 0.5
    started.update()
    for v in started.getVars():
        v.Start = 0
    started.getVars()[1].VarHintVal = 1
    detailed = knapsack(env, 101)
    detailed.Params.JSONSolDetail = 1
    lp = kp.Model("lp", env=env)
    y = lp.addVars(3, name="y")
    lp.addConstr(y[0] + 2 * y[1] + y[2] >= 4, name="need")
    lp.setObjective(y.sum() + y[1])
    models += [started, detailed, lp]

    ids = [m.optimizeBatch() for m in models]
    assert len(set(ids)) == 20
    batches = [kp.Batch(i, env) for i in ids]
    wait_until(lambda: all(finished(b) for b in batches))
    for m, b in zip(models, batches):
        assert (b.BatchStatus, b.BatchErrorCode, b.BatchErrorMessage) == (
            KVR.BATCH_COMPLETED, 0, "")
        m.optimize()
        got, local = solution(b), json.loads(m.getJSONSolution())
        for s in (got, local):
            del s["SolutionInfo"]["Runtime"]
        assert got == local and got["SolutionInfo"]["ObjVal"] == pytest.approx(m.ObjVal)
    data = _batch._client(env).get_metadata([_batch._ROOT, ids[17], "data"])
    assert "x[0] 0" in data["start.mst"] and "x[1] 1" in data["hints.hnt"]
    assert "MIPGap" in data["params.prm"] and "CSManager" in data["params.prm"]
    # JSONSolDetail 1 lists every variable, 0 only the nonzero ones.
    assert len(solution(batches[18])["Vars"]) == 12 > len(solution(batches[0])["Vars"])

    batches[0].writeJSONSolution(str(tmp_path / "s.json"))
    assert json.loads((tmp_path / "s.json").read_text()) == solution(batches[0])
    with pytest.raises(kp.KaviroError) as err:
        batches[0].writeJSONSolution(str(tmp_path / "missing" / "s.json"))
    assert err.value.errno == KVR.ERROR_FILE_WRITE and "missing" in err.value.message
    for b in batches:
        b.discard()


def test_another_process_follows_a_request_by_its_id(env, cluster):
    m = knapsack(env, 7)
    batch_id = m.optimizeBatch()
    m.optimize()
    script = textwrap.dedent("""
        import json, sys, time
        import kaviropy as kp
        env = kp.Env(empty=True)
        env.setParam("OutputFlag", 0)
        env.setParam("CSManager", sys.argv[1])
        env.start()
        with kp.Batch(sys.argv[2], env) as b:
            deadline = time.monotonic() + 60
            while b.BatchStatus != kp.KVR.BATCH_COMPLETED and time.monotonic() < deadline:
                time.sleep(0.05)
                b.update()
            print(b.BatchStatus, json.loads(b.getJSONSolution())["SolutionInfo"]["ObjVal"])
    """)
    out = subprocess.run([sys.executable, "-c", script, cluster, batch_id], capture_output=True,
                         text=True, timeout=WAIT)
    assert out.returncode == 0, out.stderr
    status, objval = out.stdout.split()
    assert int(status) == KVR.BATCH_COMPLETED and float(objval) == pytest.approx(m.ObjVal)
    kp.Batch(batch_id, env).discard()


def test_abort_stops_a_running_solve_and_retry_runs_it_again(env):
    m = market_split(env, time_limit=30)
    b = kp.Batch(m.optimizeBatch(), env)
    for attempt in (1, 2):
        wait_until(lambda: "started" in run(b.BatchID, env))
        time.sleep(0.3)
        b.abort()
        assert b.BatchStatus == KVR.BATCH_ABORTED
        # The worker stops the solve long before its time limit and stores what it had.
        wait_until(lambda: "result" in run(b.BatchID, env), timeout=10)
        assert finished(b) and b.BatchStatus == KVR.BATCH_ABORTED
        assert solution(b)["SolutionInfo"]["Status"] == KVR.INTERRUPTED
        b.abort()  # a finished request stays as it is
        assert b.BatchStatus == KVR.BATCH_ABORTED
        if attempt == 1:
            b.retry()
            assert b.BatchStatus == KVR.BATCH_SUBMITTED
            with pytest.raises(kp.KaviroError) as err:
                b.getJSONSolution()  # the aborted run's solution is not the current one
            assert err.value.errno == KVR.ERROR_DATA_NOT_AVAILABLE
    assert _batch._record(_batch._client(env), b.BatchID)["attempt"] == 2
    b.discard()


def test_a_model_the_worker_cannot_solve_fails_with_code_and_message(env):
    m = knapsack(env, 3)
    m.Params.NodefileStart = 0
    m.Params.NodefileDir = "/nonexistent/dir"
    b = kp.Batch(m.optimizeBatch(), env)
    wait_until(lambda: finished(b))
    assert b.BatchStatus == KVR.BATCH_FAILED
    assert b.BatchErrorCode == KVR.ERROR_NODEFILE
    assert "/nonexistent/dir" in b.BatchErrorMessage
    with pytest.raises(kp.KaviroError) as err:
        b.getJSONSolution()
    assert err.value.errno == KVR.ERROR_DATA_NOT_AVAILABLE and "FAILED" in err.value.message
    b.retry()  # the same data fail the same way
    wait_until(lambda: finished(b))
    assert (b.BatchStatus, b.BatchErrorCode) == (KVR.BATCH_FAILED, KVR.ERROR_NODEFILE)
    b.discard()


def test_a_request_whose_worker_dies_fails_and_can_be_retried(env):
    m = market_split(env, time_limit=2)
    b = kp.Batch(m.optimizeBatch(), env)
    first = wait_until(lambda: run(b.BatchID, env).get("started"))
    os.kill(first["pid"], signal.SIGKILL)
    wait_until(lambda: finished(b))
    assert b.BatchStatus == KVR.BATCH_FAILED and b.BatchErrorCode == KVR.ERROR_CSWORKER
    assert "workers that ran it died" in b.BatchErrorMessage
    b.retry()  # the nanny has started a new worker process meanwhile
    wait_until(lambda: finished(b))
    assert b.BatchStatus == KVR.BATCH_COMPLETED
    assert run(b.BatchID, env)["started"]["pid"] != first["pid"]
    assert solution(b)["SolutionInfo"]["Status"] == KVR.TIME_LIMIT
    b.discard()


def test_discard_removes_the_request_and_stops_its_solve(env, cluster):
    m = market_split(env, time_limit=30)
    batch_id = m.optimizeBatch()
    b = kp.Batch(batch_id, env)
    wait_until(lambda: "started" in run(batch_id, env))
    b.discard()
    for call in (b.update, b.abort, b.retry, b.discard, b.getJSONSolution):
        with pytest.raises(kp.KaviroError, match="was discarded"):
            call()
    with pytest.raises(kp.KaviroError, match="was discarded") as err:
        kp.Batch(batch_id, env)
    assert err.value.errno == KVR.ERROR_INVALID_ARGUMENT
    client = _batch._client(env)
    assert list(client.get_metadata([_batch._ROOT, batch_id])) == ["discarded"]  # data gone
    # The solve stopped: both workers take new requests at once.
    quick = [kp.Batch(knapsack(env, s).optimizeBatch(), env) for s in range(2)]
    wait_until(lambda: all(finished(q) for q in quick), timeout=10)
    assert all(q.BatchStatus == KVR.BATCH_COMPLETED for q in quick)
    wait_until(lambda: not any(client.processing().values()), timeout=5)  # (time limit: 30 s)
    for q in quick:
        q.discard()


def test_the_handle_protocol(env):
    batch_id = knapsack(env, 5).optimizeBatch()
    b = kp.Batch(batch_id, env)
    same = kp.Batch(batch_id, env)
    assert b == same and hash(b) == hash(same) and b != kp.Batch(knapsack(env, 6).optimizeBatch(),
                                                                 env)
    assert (b == batch_id) is False
    assert repr(b) == "<kaviropy.Batch, ID %s>" % batch_id
    assert b.BatchID == b.batchid == batch_id and b.BatchStatus in (KVR.BATCH_SUBMITTED,
                                                                    KVR.BATCH_COMPLETED)
    assert {"BatchErrorCode", "BatchErrorMessage", "BatchID", "BatchStatus"} <= set(dir(b))
    with pytest.raises(kp.KaviroError) as err:
        b.BatchStatus = 1
    assert err.value.message == "Attribute 'BatchStatus' cannot be set"
    with pytest.raises(kp.KaviroError) as err:
        b.NoSuchThing
    assert err.value.errno == KVR.ERROR_UNKNOWN_ATTRIBUTE and "NoSuchThing" in err.value.message
    b._note = 1  # private names are ordinary attributes
    assert b._note == 1
    assert kp.KaviroError(5, b).message == ""  # the user environment's latest message

    with same:
        pass
    assert repr(same) == "<kaviropy.Batch, invalid or closed state>"
    for call in (lambda: same.BatchStatus, same.update, same.abort, same.getJSONSolution):
        with pytest.raises(kp.KaviroError) as err:
            call()
        assert (err.value.errno, err.value.message) == (0, "Batch has already been freed")
    same.dispose()  # twice is harmless
    assert kp.KaviroError(5, same).message == "Failed to create batch request"
    wait_until(lambda: finished(b))
    with pytest.raises(kp.KaviroError) as err:
        b.retry()
    assert err.value.errno == KVR.ERROR_INVALID_ARGUMENT and "COMPLETED" in err.value.message
    b.discard()

    with pytest.raises(kp.KaviroError, match="not known") as err:
        kp.Batch("no-such-request", env)
    assert err.value.errno == KVR.ERROR_INVALID_ARGUMENT
    with pytest.raises(kp.KaviroError, match="must be a string"):
        kp.Batch(42, env)


def test_unreachable_or_missing_manager_and_missing_dask(monkeypatch, tmp_path):
    monkeypatch.setenv("KAVIRO_BATCH_STATE", str(tmp_path / "manager.json"))
    e = kp.Env(empty=True)
    e.setParam("OutputFlag", 0)
    e.start()
    with pytest.raises(kp.KaviroError, match="kaviro-batch start") as err:
        kp.Batch("x", e)
    assert err.value.errno == KVR.ERROR_NETWORK
    e.setParam("CSManager", "tcp://127.0.0.1:%d" % free_port())
    e.setParam("ServerTimeout", 1)
    with pytest.raises(kp.KaviroError, match="Unable to reach the batch manager") as err:
        kp.Batch("x", e)
    assert err.value.errno == KVR.ERROR_NETWORK

    m = kp.Model("m", env=e)
    m.addVar(name="x")
    monkeypatch.setitem(sys.modules, "distributed", None)
    with pytest.raises(kp.KaviroError, match=r"pip install 'kaviropy\[batch\]'") as err:
        m.optimizeBatch()
    assert err.value.errno == KVR.ERROR_NOT_SUPPORTED
    assert m.NumVars == 1
    m.dispose()
    with pytest.raises(kp.KaviroError, match="Model has already been freed"):
        m.optimizeBatch()
    e.dispose()


def test_the_c_interface_says_batch_runs_in_python():
    from clib import lib

    env, model, batch, name = C.c_void_p(), C.c_void_p(), C.c_void_p(), C.c_char_p()
    assert lib.KVRemptyenv(C.byref(env)) == 0
    lib.KVRsetintparam(env, b"OutputFlag", 0)
    lib.KVRsetparam(env, b"CSManager", b"tcp://10.0.0.1:8786")
    assert lib.KVRstartenv(env) == 0  # an address for batch requests does not stop local solves
    lib.KVRnewmodel.argtypes = [C.c_void_p, C.POINTER(C.c_void_p)] + [C.c_void_p] * 7
    assert lib.KVRnewmodel(env, C.byref(model), b"m", 0, None, None, None, None, None) == 0
    buf = C.create_string_buffer(b"x" * 63)
    lib.KVRoptimizebatch.argtypes = [C.c_void_p, C.c_char_p]
    assert lib.KVRoptimizebatch(model, buf) == KVR.ERROR_NOT_SUPPORTED and buf.value == b""
    assert b"Model.optimizeBatch" in lib.KVRgetmerrormsg(model)
    lib.KVRgetbatch.argtypes = [C.c_void_p, C.c_char_p, C.POINTER(C.c_void_p)]
    assert lib.KVRgetbatch(env, b"id", C.byref(batch)) == KVR.ERROR_NOT_SUPPORTED
    assert batch.value is None and b"'tcp://10.0.0.1:8786'" in lib.KVRgeterrormsg(env)
    lib.KVRupdatebatch.argtypes = [C.c_void_p]
    assert lib.KVRupdatebatch(None) == KVR.ERROR_NULL_ARGUMENT
    lib.KVRgetnumbatchattributes.argtypes = [C.c_void_p]
    lib.KVRgetbatchattrname.argtypes = [C.c_void_p, C.c_int, C.POINTER(C.c_char_p)]
    names = []
    for i in range(lib.KVRgetnumbatchattributes(env)):
        assert lib.KVRgetbatchattrname(env, i, C.byref(name)) == 0
        names.append(name.value.decode())
    assert names == ["BatchErrorCode", "BatchErrorMessage", "BatchID", "BatchStatus"]
    assert lib.KVRgetbatchattrname(env, 4, C.byref(name)) == KVR.ERROR_INDEX_OUT_OF_RANGE
    lib.KVRfreemodel(model)
    lib.KVRfreeenv(env)


def test_the_local_manager(monkeypatch, tmp_path, capsys):
    """With CSManager empty: kaviro-batch starts a manager that outlives its caller; without one,
    optimizeBatch starts a manager that ends with the submitting process."""
    state = tmp_path / "manager.json"
    monkeypatch.setenv("KAVIRO_BATCH_STATE", str(state))
    assert _batch.main(["status"]) == 1
    assert _batch.main(["start", "--workers", "1"]) == 0
    try:
        rec = json.loads(state.read_text())
        assert rec["owner"] is None and rec["workers"] == 1
        assert _batch.main(["status"]) == 0
        assert rec["address"] in capsys.readouterr().out
        e = kp.Env(empty=True)
        e.setParam("OutputFlag", 0)
        e.start()
        m = knapsack(e, 9)
        b = kp.Batch(m.optimizeBatch(), e)
        assert json.loads(state.read_text())["pid"] == rec["pid"]  # the running one was used
        wait_until(lambda: finished(b))
        m.optimize()
        assert solution(b)["SolutionInfo"]["ObjVal"] == pytest.approx(m.ObjVal)
        b.dispose()
        e.dispose()
    finally:
        assert _batch.main(["stop"]) == 0
    assert not state.exists() and not _batch._alive(rec["pid"])
    assert _batch.main(["bogus"]) == 2 and "usage: kaviro-batch" in capsys.readouterr().err

    script = textwrap.dedent("""
        import json
        import kaviropy as kp
        m = kp.Model("m")
        x = m.addVar(vtype="B", obj=-1)
        m.optimizeBatch()
        print(json.dumps(kp._batch.running_manager()))
    """)
    out = subprocess.run([sys.executable, "-c", script], capture_output=True, text=True,
                         timeout=WAIT, env=dict(os.environ, KAVIRO_BATCH_STATE=str(state)))
    assert out.returncode == 0, out.stderr
    rec = json.loads(out.stdout)
    assert rec["owner"] is not None and rec["workers"] == os.cpu_count()
    wait_until(lambda: not _batch._alive(rec["pid"]), timeout=20)
    assert not state.exists()
