"""Batch optimization on Dask distributed.

A request is one Dask task. Its record lives in the scheduler's metadata, so every client
connected to the same scheduler sees the same request:

    ["kaviro-batch", id, "data"]   the serialized model: LP text, .prm, .mst, .hnt and .ord texts
    ["kaviro-batch", id, "state"]  {"attempt": n, "created": t, "runs": {"n": run}}  (small, polled)

A run is {"submitted": t, "started": {...}, "abort": True, "result": {...}}. The client writes
"submitted" and "abort", the worker "started" and "result"; each writer owns its leaves, so no
write overwrites another's. Tasks are submitted fire-and-forget: the scheduler keeps each until it
ends, also after the submitting client is gone. Discarding leaves a small {"discarded": t} record so
that later lookups can say what happened.

With CSManager empty the requests go to a manager on this machine: a process that runs a
scheduler and one single-threaded worker process per core (see `kaviro-batch`).
"""

import atexit
import fcntl
import json
import os
import signal
import subprocess
import sys
import tempfile
import threading
import time
import uuid

from . import _core
from ._core import KVR, KaviroError

# errno of the errors detected here rather than by the library (the extension's usage-error code).
_USAGE_ERROR = 0
_ROOT = "kaviro-batch"
_FILES = ("model.lp", "params.prm", "start.mst", "hints.hnt", "order.ord")
_ABORT_POLL = 0.1  # seconds between the worker's looks at the abort flag
_STATUS_NAMES = {KVR.BATCH_CREATED: "CREATED", KVR.BATCH_SUBMITTED: "SUBMITTED",
                 KVR.BATCH_ABORTED: "ABORTED", KVR.BATCH_FAILED: "FAILED",
                 KVR.BATCH_COMPLETED: "COMPLETED"}
# The batch attributes, by lower-case name: (name, type).
_ATTRS = {n.lower(): (n, t) for n, t in (("BatchErrorCode", int), ("BatchErrorMessage", str),
                                         ("BatchID", str), ("BatchStatus", int))}


def _distributed():
    try:
        import distributed
    except ImportError:
        raise KaviroError(KVR.ERROR_NOT_SUPPORTED,
                          "Batch optimization runs on Dask distributed, which is not installed: "
                          "pip install 'kaviropy[batch]' (or pip install 'dask[distributed]')"
                          ) from None
    return distributed


# ---------------------------------------------------------------------------------------------
# The local manager: where it is recorded, starting and stopping it


def state_file():
    """The file that records the local manager of this user (KAVIRO_BATCH_STATE overrides it)."""
    path = os.environ.get("KAVIRO_BATCH_STATE")
    if path:
        return path
    base = os.environ.get("XDG_CACHE_HOME") or os.path.join(os.path.expanduser("~"), ".cache")
    return os.path.join(base, "kaviro", "batch-manager.json")


def _alive(pid):
    try:  # a manager this process started is its child: collect it once it has ended
        if os.waitpid(pid, os.WNOHANG)[0] == pid:
            return False
    except ChildProcessError:
        pass
    try:
        os.kill(pid, 0)
    except ProcessLookupError:
        return False
    except PermissionError:
        return True
    return True


def running_manager():
    """The record of the local manager ({"address", "pid", "owner", "workers"}), or None."""
    try:
        with open(state_file()) as f:
            rec = json.load(f)
    except (OSError, ValueError):
        return None
    if not isinstance(rec, dict) or not _alive(int(rec.get("pid", 0)) or -1):
        return None
    try:  # the process of that number may be another one by now
        with open("/proc/%d/cmdline" % rec["pid"], "rb") as f:
            if b"_serve_main" not in f.read():
                return None
    except OSError:  # no /proc here: trust the number
        pass
    return rec


_started = []  # the manager processes started here (kept so that they are collected quietly)
_SERVE = "import sys; from kaviropy._batch import _serve_main; _serve_main(sys.argv[1:])"


def start_manager(workers=None, owner=None, wait=60.0):
    """Starts a local manager process (scheduler plus `workers` single-threaded worker processes,
    one per core by default) unless one runs already, and returns its record. With `owner` the
    manager ends when that process ends; without, it runs until `stop_manager`."""
    _distributed()
    path = state_file()
    os.makedirs(os.path.dirname(os.path.abspath(path)), exist_ok=True)
    with open(path + ".lock", "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        rec = running_manager()
        if rec is not None:
            return rec
        args = [sys.executable, "-c", _SERVE, "--workers", str(workers or os.cpu_count() or 1),
                "--state", path]
        if owner is not None:
            args += ["--owner", str(owner)]
        with open(path + ".log", "ab") as log:
            proc = subprocess.Popen(args, stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                                    start_new_session=True, close_fds=True)
        _started.append(proc)
        deadline = time.monotonic() + wait
        while time.monotonic() < deadline:
            rec = running_manager()
            if rec is not None and rec.get("pid") == proc.pid:
                return rec
            if proc.poll() is not None:
                break
            time.sleep(0.1)
        if proc.poll() is None:
            proc.kill()
        proc.wait()
        raise KaviroError(KVR.ERROR_NETWORK, "The local batch manager did not start within %g s; "
                          "its log is %s" % (wait, path + ".log"))


def stop_manager(wait=30.0):
    """Stops the local manager and its workers; returns its record, or None when none ran."""
    rec = running_manager()
    if rec is None:
        return None
    pid = int(rec["pid"])
    os.kill(pid, signal.SIGTERM)
    deadline = time.monotonic() + wait
    while _alive(pid) and time.monotonic() < deadline:
        time.sleep(0.1)
    if _alive(pid):
        os.kill(pid, signal.SIGKILL)
    _forget_state(pid)
    client = _clients.pop(rec["address"], None)
    if client is not None:
        client.close(timeout=2)
    return rec


def _forget_state(pid):
    path = state_file()
    try:
        with open(path) as f:
            if json.load(f).get("pid") == pid:
                os.remove(path)
    except (OSError, ValueError):
        pass


def _serve(workers, state, owner):
    """The manager process: a scheduler and worker processes on 127.0.0.1 until SIGTERM, the
    scheduler's shutdown, or the end of the owner process."""
    from distributed import LocalCluster

    stop = threading.Event()
    signal.signal(signal.SIGTERM, lambda *_: stop.set())
    signal.signal(signal.SIGINT, lambda *_: stop.set())
    cluster = LocalCluster(n_workers=workers, threads_per_worker=1, processes=True,
                           host="127.0.0.1", scheduler_port=0,
                           dashboard_address="127.0.0.1:0")
    rec = {"address": cluster.scheduler_address, "pid": os.getpid(), "owner": owner,
           "workers": workers}
    tmp = state + ".%d" % os.getpid()
    with open(tmp, "w") as f:
        json.dump(rec, f)
    os.replace(tmp, state)
    try:
        while not stop.wait(0.5):
            if owner is not None and not _alive(owner):
                break
            if cluster.status.name in ("closing", "closed", "failed"):
                break
    finally:
        _forget_state(os.getpid())
        cluster.close(timeout=20)


# ---------------------------------------------------------------------------------------------
# Connections

_clients = {}
_clients_lock = threading.Lock()


def _client(owner, start=False):
    """The client for the manager that the CSManager parameter of `owner` (an Env or a Model)
    names; with CSManager empty, the local manager, which is started (tied to this process) when
    `start` is true and none runs. ServerTimeout bounds the connection."""
    distributed = _distributed()
    address = owner.getParamInfo("CSManager")[2]
    timeout = owner.getParamInfo("ServerTimeout")[2]
    timeout = 60 if timeout < 0 else max(timeout, 1)
    if not address:
        rec = running_manager()
        if rec is None:
            if not start:
                raise KaviroError(KVR.ERROR_NETWORK,
                                  "No batch manager runs on this machine: set CSManager to a "
                                  "scheduler address or start one with 'kaviro-batch start'")
            rec = start_manager(owner=os.getpid())
        address = rec["address"]
    with _clients_lock:
        client = _clients.get(address)
        if client is not None and client.status == "running":
            return client
        try:
            client = distributed.Client(address, timeout=timeout, set_as_default=False)
        except (OSError, TimeoutError) as e:
            raise KaviroError(KVR.ERROR_NETWORK, "Unable to reach the batch manager at '%s': %s"
                              % (address, e)) from None
        _clients[address] = client
        return client


@atexit.register
def _close_clients():
    for client in list(_clients.values()):
        try:
            client.close(timeout=2)
        except Exception:  # the manager may be gone already; nothing is left to release
            pass
    _clients.clear()


# ---------------------------------------------------------------------------------------------
# Requests as the scheduler keeps them


def _state_key(batch_id, *path):
    return [_ROOT, batch_id, "state", *path]


def _task_name(batch_id, attempt):
    return "kaviro-batch-task-%s-%d" % (batch_id, attempt)


def _submit(client, batch_id, attempt, data=None):
    """Records run `attempt` as submitted (for a new request, together with its `data`) and hands
    its task to the scheduler, which keeps it until it ends even when this client is gone."""
    from distributed import fire_and_forget

    run = {"submitted": time.time()}
    if data is None:
        client.set_metadata(_state_key(batch_id, "runs", str(attempt)), run)
        client.set_metadata(_state_key(batch_id, "attempt"), attempt)
    else:
        state = {"attempt": attempt, "created": time.time(), "runs": {str(attempt): run}}
        client.set_metadata([_ROOT, batch_id], {"data": data, "state": state})
    fire_and_forget(client.submit(_solve_request, batch_id, attempt,
                                  key=_task_name(batch_id, attempt), pure=False))


def submit_model(model):
    """Serializes `model` (updated), stores it on the batch manager and submits it; returns the
    new request's ID. Called by Model.optimizeBatch."""
    client = _client(model, start=True)
    data = {"name": model.ModelName}
    with tempfile.TemporaryDirectory(prefix="kaviro-batch-") as d:
        for name in _FILES:
            path = os.path.join(d, name)
            model.write(path)
            with open(path) as f:
                data[name] = f.read()
    batch_id = uuid.uuid4().hex
    _submit(client, batch_id, 1, data)
    return batch_id


def _record(client, batch_id):
    """The state record of a request; a clear error for an unknown or discarded one."""
    rec = client.get_metadata(_state_key(batch_id), None)
    if rec is None or "attempt" not in rec:
        known = client.get_metadata([_ROOT, batch_id], None) is not None
        raise KaviroError(KVR.ERROR_INVALID_ARGUMENT, "Batch request '%s' %s" % (
            batch_id, "was discarded" if known else "is not known to the batch manager"))
    return rec


def _failed(code, message):
    return {"status": KVR.BATCH_FAILED, "code": code, "message": message}


def _state(client, batch_id):
    """The current state of a request: {"status", "code", "message", "attempt"}. A submitted run
    whose task the scheduler gave up (its workers kept dying) or lost is recorded as FAILED. An
    aborted run stays ABORTED even when its solve finished before the worker saw the abort."""
    rec = _record(client, batch_id)
    attempt = rec["attempt"]
    run = rec["runs"].get(str(attempt), {})
    result = run.get("result")
    if run.get("abort"):
        result = {"status": KVR.BATCH_ABORTED}
    elif result is None:
        if "submitted" not in run:
            result = {"status": KVR.BATCH_CREATED}
        else:
            result = _task_outcome(client, batch_id, attempt, run)
    return {"status": result["status"], "code": result.get("code", 0),
            "message": result.get("message", ""), "attempt": attempt}


_GRACE = 10.0  # seconds in which a new task may not yet be known to the scheduler


def _task_outcome(client, batch_id, attempt, run):
    """The state of a submitted run without a result, from its task on the scheduler. The task
    ends by storing its result; a task that is gone without one erred (its workers kept dying)
    or was lost with the scheduler's workers, and the run is recorded as FAILED."""
    key = _task_name(batch_id, attempt)
    state = client.sync(client.scheduler.get_task_status, keys=[key])[key]
    if state is None and "started" not in run and time.time() - run["submitted"] < _GRACE:
        state = "waiting"  # submitted by another client an instant ago
    if state not in (None, "erred", "memory", "forgotten"):
        return {"status": KVR.BATCH_SUBMITTED}
    # The result may have been stored since the record was read.
    result = _record(client, batch_id)["runs"][str(attempt)].get("result")
    if result is not None:
        return result
    result = _failed(KVR.ERROR_CSWORKER, "The task of batch request '%s' ended without a result: "
                     "the workers that ran it died (the scheduler stops after "
                     "distributed.scheduler.allowed-failures deaths) or lost the scheduler"
                     % batch_id)
    client.set_metadata(_state_key(batch_id, "runs", str(attempt), "result"), result)
    return result


# ---------------------------------------------------------------------------------------------
# The worker side


def _solve_request(batch_id, attempt):
    """The task: solves run `attempt` of a request and stores its result in the record. Stops early
    when the run is aborted, retried or discarded meanwhile."""
    from distributed import get_client, get_worker

    client = get_client()
    run_key = _state_key(batch_id, "runs", str(attempt))

    def current(state):
        return (state is not None and state.get("attempt") == attempt
                and not state["runs"].get(str(attempt), {}).get("abort"))

    def store(result):
        # A superseded run keeps its own result; a discarded request gets none.
        if client.get_metadata(_state_key(batch_id), None) is not None:
            client.set_metadata(run_key + ["result"], result)

    request = client.get_metadata([_ROOT, batch_id], None) or {}
    if not current(request.get("state")):
        store({"status": KVR.BATCH_ABORTED})
        return
    client.set_metadata(run_key + ["started"], {"time": time.time(), "pid": os.getpid(),
                                                "worker": get_worker().address})
    data = request.get("data")
    stopped = threading.Event()
    done = threading.Event()
    try:
        if not data:
            raise KaviroError(KVR.ERROR_DATA_NOT_AVAILABLE,
                              "The data of batch request '%s' are gone" % batch_id)
        env = _core.Env(empty=True)
        env.setParam("OutputFlag", 0)
        env.start()
        try:
            with tempfile.TemporaryDirectory(prefix="kaviro-batch-") as d:
                for name in _FILES:
                    with open(os.path.join(d, name), "w") as f:
                        f.write(data[name])
                model = _core.read(os.path.join(d, _FILES[0]), env)
                for name in _FILES[1:]:
                    model.read(os.path.join(d, name))
            # Settings that name this client's files or services mean nothing on a worker.
            for name in ("LogFile", "ResultFile", "CSManager"):
                model.setParam(name, "")
            model.setParam("OutputFlag", 0)

            def watch():
                while not done.wait(_ABORT_POLL):
                    try:
                        if not current(client.get_metadata(_state_key(batch_id), None)):
                            stopped.set()
                            model.terminate()
                            return
                    except Exception:  # the scheduler is unreachable: keep solving
                        pass

            watcher = threading.Thread(target=watch, daemon=True)
            watcher.start()
            try:
                model.optimize()
            finally:
                done.set()
                watcher.join()
            solution = model.getJSONSolution()
            model.dispose()
        finally:
            env.dispose()
        if stopped.is_set():
            result = {"status": KVR.BATCH_ABORTED, "json": solution}
        else:
            result = {"status": KVR.BATCH_COMPLETED, "json": solution}
    except KaviroError as e:
        result = _failed(e.errno, e.message)
    except Exception as e:
        result = _failed(KVR.ERROR_INTERNAL, "%s: %s" % (type(e).__name__, e))
    store(result)


# ---------------------------------------------------------------------------------------------
# The client handle


class Batch:
    """A batch optimization request on the batch manager, followed by its ID.

    Batch(batchID, env=None) connects to the manager that env's CSManager names (with CSManager
    empty, the local manager) and reads the request's state. The attributes BatchID, BatchStatus
    (KVR.BATCH_CREATED, SUBMITTED, ABORTED, FAILED, COMPLETED), BatchErrorCode and
    BatchErrorMessage hold the state as of the latest update()."""

    def __init__(self, batchID, env=None):
        self._cbatch = None
        self._cenv = None
        self._uenv = None
        if env is None:
            env = _core.kaviro._getdefaultenv(True)
        if not isinstance(env, _core.Env):
            raise KaviroError(KVR.ERROR_INVALID_ARGUMENT, "env must be an Env")
        if not isinstance(batchID, str):
            raise KaviroError(KVR.ERROR_INVALID_ARGUMENT, "Batch ID must be a string")
        client = _client(env)
        state = _state(client, batchID)
        self._batchid = batchID
        self._cbatch = client
        self._state = state
        self._cenv = env._cenv
        self._uenv = env

    # Attributes ------------------------------------------------------------------------------

    def _client(self):
        if self._cbatch is None:
            raise KaviroError(_USAGE_ERROR, "Batch has already been freed")
        return self._cbatch

    def __getattr__(self, name):
        if name.startswith("_"):
            raise AttributeError("'kaviropy.Batch' object has no attribute '%s'" % name)
        self._client()
        key = name.lower()
        if key not in _ATTRS:
            raise KaviroError(KVR.ERROR_UNKNOWN_ATTRIBUTE, "Unknown batch attribute '%s'" % name)
        if key == "batchid":
            return self._batchid
        field = {"batchstatus": "status", "batcherrorcode": "code",
                 "batcherrormessage": "message"}[key]
        return self._state[field]

    def __setattr__(self, name, value):
        if name.startswith("_"):
            object.__setattr__(self, name, value)
            return
        self._client()
        key = name.lower()
        if key not in _ATTRS:
            raise KaviroError(KVR.ERROR_UNKNOWN_ATTRIBUTE, "Unknown batch attribute '%s'" % name)
        raise KaviroError(KVR.ERROR_INVALID_ARGUMENT, "Attribute '%s' cannot be set" % name)

    def __dir__(self):
        return [n for n, _ in _ATTRS.values()] + list(self.__dict__) + [
            n for n in type(self).__dict__ if not n.startswith("__")]

    # Actions ---------------------------------------------------------------------------------

    def update(self):
        """Reads the request's current state from the batch manager into the attributes."""
        self._state = _state(self._client(), self._batchid)

    def abort(self):
        """Stops the request: a queued request does not start, a running solve is asked to stop
        (the worker terminates it within a fraction of a second). The status becomes ABORTED. A
        finished request (COMPLETED, FAILED, ABORTED) is left as it is."""
        client = self._client()
        state = _state(client, self._batchid)
        if state["status"] in (KVR.BATCH_CREATED, KVR.BATCH_SUBMITTED):
            client.set_metadata(_state_key(self._batchid, "runs", str(state["attempt"]), "abort"),
                                True)
        self.update()

    def retry(self):
        """Submits an ABORTED or FAILED request again with its original data."""
        client = self._client()
        state = _state(client, self._batchid)
        if state["status"] not in (KVR.BATCH_ABORTED, KVR.BATCH_FAILED):
            raise KaviroError(KVR.ERROR_INVALID_ARGUMENT,
                              "Batch request '%s' is %s; only an aborted or failed request can be "
                              "retried" % (self._batchid, _STATUS_NAMES[state["status"]]))
        _submit(client, self._batchid, state["attempt"] + 1)
        self.update()

    def discard(self):
        """Removes the request and its data from the batch manager; a running solve is stopped.
        The handle stays usable only for dispose()."""
        client = self._client()
        _record(client, self._batchid)
        client.set_metadata([_ROOT, self._batchid], {"discarded": time.time()})

    def getJSONSolution(self):
        """The JSON solution the worker stored (what Model.getJSONSolution gives, JSONSolDetail
        honoured)."""
        client = self._client()
        rec = _record(client, self._batchid)
        run = rec["runs"].get(str(rec["attempt"]), {})
        result = run.get("result") or {}
        if "json" not in result:
            state = _state(client, self._batchid)
            raise KaviroError(KVR.ERROR_DATA_NOT_AVAILABLE,
                              "No solution available for batch request '%s' (status %s)"
                              % (self._batchid, _STATUS_NAMES[state["status"]]))
        return result["json"]

    def writeJSONSolution(self, filename):
        """Writes the JSON solution to a file (compressed when the name ends in .gz or .bz2)."""
        text = self.getJSONSolution()
        try:
            if filename.endswith(".gz"):
                import gzip
                with gzip.open(filename, "wt") as f:
                    f.write(text)
            elif filename.endswith(".bz2"):
                import bz2
                with bz2.open(filename, "wt") as f:
                    f.write(text)
            else:
                with open(filename, "w") as f:
                    f.write(text)
        except OSError as e:
            raise KaviroError(KVR.ERROR_FILE_WRITE,
                              "Unable to write file '%s': %s" % (filename, e.strerror)) from None

    # Lifecycle -------------------------------------------------------------------------------

    def dispose(self):
        """Releases the handle (the request stays on the batch manager)."""
        self._cbatch = None
        self._cenv = None
        self._uenv = None

    def close(self):
        """Same as dispose()."""
        self.dispose()

    def __del__(self):
        self.dispose()

    def __enter__(self):
        return self

    def __exit__(self, exc_type, exc_value, traceback):
        self.close()

    def __eq__(self, other):
        if not isinstance(other, Batch):
            return NotImplemented
        return self.__dict__.get("_batchid") == other.__dict__.get("_batchid")

    def __hash__(self):
        return hash(self.__dict__.get("_batchid"))

    def __repr__(self):
        if self._cbatch is None:
            return "<kaviropy.Batch, invalid or closed state>"
        return "<kaviropy.Batch, ID {}>".format(self._batchid)


# ---------------------------------------------------------------------------------------------
# kaviro-batch


_USAGE = """usage: kaviro-batch start [--workers N] | stop | status

Runs the local batch manager that Model.optimizeBatch uses when CSManager is empty: a Dask
scheduler on 127.0.0.1 and N single-threaded worker processes (default: one per core). A manager
started here runs until 'kaviro-batch stop'; its address is recorded in
%s
"""


def main(argv=None):
    """The kaviro-batch command: start, stop or show the local batch manager."""
    argv = sys.argv[1:] if argv is None else argv
    cmd = argv[0] if argv else ""
    try:
        if cmd == "start" and len(argv) in (1, 3) and (len(argv) == 1 or argv[1] == "--workers"):
            workers = int(argv[2]) if len(argv) == 3 else None
            rec = start_manager(workers=workers)
            print("batch manager at %s (pid %d, %d workers)" % (rec["address"], rec["pid"],
                                                               rec["workers"]))
            return 0
        if cmd == "stop" and len(argv) == 1:
            rec = stop_manager()
            print("no batch manager runs" if rec is None
                  else "stopped the batch manager at %s" % rec["address"])
            return 0
        if cmd == "status" and len(argv) == 1:
            rec = running_manager()
            if rec is None:
                print("no batch manager runs")
                return 1
            owner = rec.get("owner")
            print("batch manager at %s (pid %d, %d workers%s)" % (
                rec["address"], rec["pid"], rec["workers"],
                ", ends with process %d" % owner if owner else ""))
            return 0
    except (KaviroError, ValueError) as e:
        print("kaviro-batch: %s" % getattr(e, "message", e), file=sys.stderr)
        return 1
    print(_USAGE % state_file(), file=sys.stderr, end="")
    return 2


def _serve_main(argv):
    """Entry of the manager process: --workers N --state FILE [--owner PID]."""
    opts = dict(zip(argv[::2], argv[1::2]))
    owner = opts.get("--owner")
    _serve(int(opts["--workers"]), opts["--state"], int(owner) if owner else None)

