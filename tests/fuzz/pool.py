"""Worker processes that generate and check cases, and survive the reducer
crashing or hanging: a worker that dies is restarted and the case it held is
recorded as ``crash``; one that overruns the per-case timeout is killed,
restarted, and the case recorded as ``hang``.
"""

from __future__ import annotations

import importlib
import multiprocessing as mp
import os
import sys
import threading
import time
from dataclasses import dataclass, field
from typing import Iterable, List, Optional, Tuple

HERE = os.path.dirname(os.path.abspath(__file__))

# What a worker is doing, so a death can be told apart: one inside the
# generator (onnxruntime on a fresh model) is not the reducer's fault.
IDLE, GENERATING, REDUCING, CHECKING = 0, 1, 2, 3
STAGE_NAMES = {IDLE: "idle", GENERATING: "generating", REDUCING: "reduce", CHECKING: "checking the reduced model"}



def _run_threads(loop, jobs: int) -> None:
    """Runs ``loop`` on ``jobs`` threads (each drives one worker) and waits."""
    threads = [threading.Thread(target=loop, daemon=True) for _ in range(max(1, jobs))]
    for t in threads:
        t.start()
    for t in threads:
        t.join()


def load_reducer(target: Optional[str]):
    """``module:function`` (a ModelProto -> ModelProto function), or None
    for tolm.reduce."""
    import check

    if not target:
        return check.default_reducer
    module, _, name = target.partition(":")
    return getattr(importlib.import_module(module), name)


def _worker_main(conn, stage, names: bool, reducer_name: Optional[str]) -> None:
    if HERE not in sys.path:
        sys.path.insert(0, HERE)
    import onnx

    import check
    import gen

    base = load_reducer(reducer_name)

    def reducer(model):
        stage.value = REDUCING
        try:
            return base(model)
        finally:
            stage.value = CHECKING

    if not reducer_name:
        base(gen.make_case(0))  # loads the native module before the clock starts
    conn.send(("ready",))
    while True:
        try:
            msg = conn.recv()
        except EOFError:
            return
        if msg is None:
            return
        kind = msg[0]
        if kind == "case":
            seed = msg[1]
            stage.value = GENERATING
            try:
                case = gen.generate(seed)
            except Exception as exc:  # noqa: BLE001
                stage.value = IDLE
                conn.send(("gen_error", str(exc)[:300]))
                continue
            stage.value = CHECKING
            try:
                failures = check.check_case(case.model, case.feeds, case.ref, reducer=reducer, names=names)
            except Exception as exc:  # noqa: BLE001 - a fault of the checks, not of the reducer
                stage.value = IDLE
                conn.send(("gen_error", f"fuzzer error in the checks: {type(exc).__name__}: {str(exc)[:300]}"))
                continue
            stage.value = IDLE
            conn.send(
                (
                    "done",
                    {
                        "discards": case.discards,
                        "reasons": case.discard_reasons,
                        "failures": failures,
                        "nodes": len(case.model.graph.node),
                        "model": case.model.SerializeToString() if failures else None,
                    },
                )
            )
        elif kind == "gen":
            stage.value = GENERATING
            conn.send(("model", gen.make_case(msg[1]).SerializeToString()))
            stage.value = IDLE
        elif kind == "eval":
            model_bytes, seed = msg[1], msg[2]
            stage.value = GENERATING
            ok, model, feeds, ref, why = check.validate(onnx.load_from_string(model_bytes), seed)
            if not ok:
                stage.value = IDLE
                conn.send(("invalid", why))
                continue
            stage.value = CHECKING
            try:
                failures = check.check_case(model, feeds, ref, reducer=reducer, names=names)
            except Exception as exc:  # noqa: BLE001
                stage.value = IDLE
                conn.send(("invalid", f"fuzzer error in the checks: {exc}"))
                continue
            stage.value = IDLE
            conn.send(("classes", [c for c, _ in failures]))


def package_stamp() -> float:
    """The newest modification time among the installed tolm package's files.
    The package is reinstalled under running fuzz jobs now and then; a native
    module replaced under a worker can kill it, so such a run's crashes may
    not be the reducer's."""
    where = next((os.path.join(p or ".", "tolm") for p in sys.path if os.path.isfile(os.path.join(p or ".", "tolm", "__init__.py"))), None)
    if where is None:
        return 0.0
    newest = 0.0
    for root, _, files in os.walk(where):
        for f in files:
            if f.endswith((".py", ".so")):
                newest = max(newest, os.path.getmtime(os.path.join(root, f)))
    return newest


_CTX = None


def _context():
    global _CTX
    if _CTX is None:
        # A fork server: workers start from a clean process (no onnxruntime
        # state inherited from the parent) yet restart quickly after a crash.
        _CTX = mp.get_context("forkserver")
        _CTX.set_forkserver_preload(["numpy", "onnx", "onnxruntime", "tolm"])
    return _CTX


class Worker:
    def __init__(self, names: bool = True, reducer: Optional[str] = None):
        self.names = names
        self.reducer = reducer
        self.proc = None
        self.restarts = 0
        self._start()

    def _start(self) -> None:
        ctx = _context()
        parent, child = ctx.Pipe()
        self.stage = ctx.Value("i", IDLE, lock=False)
        self.proc = ctx.Process(target=_worker_main, args=(child, self.stage, self.names, self.reducer), daemon=True)
        self.proc.start()
        child.close()
        self.conn = parent
        if not self.conn.poll(300):
            raise RuntimeError("fuzz worker did not start")
        self.conn.recv()

    def _restart(self) -> None:
        self._stop(kill=True)
        self.restarts += 1
        self._start()

    def _stop(self, kill: bool) -> None:
        if self.proc is None:
            return
        if kill and self.proc.is_alive():
            self.proc.kill()
        self.proc.join(5)
        self.conn.close()
        self.proc = None

    def request(self, msg, timeout: float):
        """The worker's answer, or ("crash", stage) / ("hang", stage)."""
        try:
            self.conn.send(msg)
            if self.conn.poll(timeout):
                return self.conn.recv()
            outcome = "hang"
        except (EOFError, OSError, BrokenPipeError):
            outcome = "crash"
        stage = self.stage.value
        self._restart()
        return (outcome, stage)

    def close(self) -> None:
        if self.proc is not None:
            try:
                self.conn.send(None)
            except OSError:
                pass
            self._stop(kill=False)


@dataclass
class Result:
    seed: int
    failures: List[Tuple[str, str]] = field(default_factory=list)
    discards: int = 0
    reasons: List[str] = field(default_factory=list)
    gen_problem: Optional[str] = None
    nodes: int = 0
    model: Optional[bytes] = None


def _case(worker: Worker, seed: int, timeout: float) -> Result:
    answer = worker.request(("case", seed), timeout)
    kind = answer[0]
    if kind == "done":
        d = answer[1]
        return Result(seed, d["failures"], d["discards"], d["reasons"], None, d["nodes"], d["model"])
    if kind == "gen_error":
        return Result(seed, gen_problem=answer[1])
    stage = answer[1]
    if stage == GENERATING:
        return Result(seed, gen_problem=f"{kind} while generating")
    return Result(seed, [(kind, f"worker {'died' if kind == 'crash' else 'timed out'} in {STAGE_NAMES.get(stage, stage)}")])


def run_seeds(
    seeds: Iterable[int],
    jobs: int = 1,
    case_timeout: float = 20.0,
    time_limit: Optional[float] = None,
    names: bool = True,
    on_result=None,
    reducer: Optional[str] = None,
) -> List[Result]:
    """Checks every seed (until ``time_limit`` seconds have passed) on ``jobs``
    workers; results come back in seed order."""
    it = iter(seeds)
    lock = threading.Lock()
    results: List[Result] = []
    deadline = None if time_limit is None else time.monotonic() + time_limit
    errors: List[BaseException] = []

    def loop() -> None:
        try:
            worker = Worker(names, reducer)
        except BaseException as exc:  # noqa: BLE001
            errors.append(exc)
            return
        try:
            while deadline is None or time.monotonic() < deadline:
                with lock:
                    seed = next(it, None)
                if seed is None:
                    break
                res = _case(worker, seed, case_timeout)
                with lock:
                    results.append(res)
                    if on_result:
                        on_result(res)
        finally:
            worker.close()

    _run_threads(loop, jobs)
    if errors and not results:
        raise errors[0]
    return sorted(results, key=lambda r: r.seed)


def shrink_in_worker(worker: Worker, model_bytes: bytes, cls: str, seed: int, case_timeout: float, time_budget: float = 60.0):
    """Shrinks a failing model; every candidate is judged by ``worker`` so a
    crash or hang of the reducer only costs a restart."""
    import onnx

    import shrink

    def still_fails(cand: onnx.ModelProto) -> bool:
        answer = worker.request(("eval", cand.SerializeToString(), seed), case_timeout)
        if answer[0] == "classes":
            return cls in answer[1]
        if answer[0] in ("crash", "hang"):
            return answer[0] == cls and answer[1] != GENERATING
        return False

    model = onnx.load_from_string(model_bytes)
    if not still_fails(model):  # flaky, or depends on what the process reduced before
        return model, 0, False
    small, evals = shrink.shrink(model, still_fails, time_budget=time_budget)
    return small, evals, True


def shrink_all(
    todo: List[Tuple[int, str, Optional[bytes]]],
    jobs: int = 1,
    case_timeout: float = 20.0,
    time_budget: float = 60.0,
    names: bool = True,
    on_done=None,
    reducer: Optional[str] = None,
) -> None:
    """Shrinks each (seed, class, model bytes or None) on ``jobs`` workers and
    calls ``on_done(seed, cls, original, shrunk, evals, reproduced)``;
    ``reproduced`` is False when the case did not fail again in a fresh worker. A missing model
    (the worker died with it) is generated again from its seed."""
    import onnx

    it = iter(todo)
    lock = threading.Lock()

    def loop() -> None:
        worker = Worker(names, reducer)
        try:
            while True:
                with lock:
                    item = next(it, None)
                if item is None:
                    break
                seed, cls, model_bytes = item
                if model_bytes is None:
                    answer = worker.request(("gen", seed), case_timeout)
                    if answer[0] != "model":
                        continue
                    model_bytes = answer[1]
                shrunk, evals, reproduced = shrink_in_worker(worker, model_bytes, cls, seed, case_timeout, time_budget)
                with lock:
                    if on_done:
                        on_done(seed, cls, onnx.load_from_string(model_bytes), shrunk, evals, reproduced)
        finally:
            worker.close()

    _run_threads(loop, jobs)
