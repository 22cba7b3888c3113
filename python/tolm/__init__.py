"""tolm-reduce: graph-reduction rules for ONNX models on their way to an NPU.

``reduce(model)`` loads a model into the IR graph, runs the rule tables until
nothing applies, and returns the reduced ONNX model with a report.
"""

from __future__ import annotations

import os
import time
from typing import Any, Callable, Dict, List, Mapping, Optional, Sequence, Tuple, Union

import numpy as np
import onnx

from tolm.api.rules.reduce import LoadError, RuleError

__version__ = "0.1.0"

# Version of the report's layout; it changes when a key changes meaning or
# goes away.
REPORT_SCHEMA_VERSION = 1

# Most random input sets the numeric check runs: each is a full run of both
# models in onnxruntime.
MAX_CHECK_RUNS = 1000

# Constants above this many bytes in all are written to a data file beside
# the model unless told otherwise; a model over 2 GB must be.
DEFAULT_EXTERNAL_DATA_THRESHOLD = 1 << 30
# The protobuf limit on one serialized model, less room for the graph itself.
_MAX_INLINE_BYTES = (1 << 31) - 1 - (64 << 20)
# Tensors smaller than this stay inside the model even when data goes out.
MIN_EXTERNAL_TENSOR_BYTES = 1024

ModelLike = Union[onnx.ModelProto, bytes, bytearray, memoryview, str, "os.PathLike[str]"]
Shapes = Union[Mapping[str, Sequence[int]], Sequence[int]]


def _ms(seconds: float) -> float:
    return round(seconds * 1000.0, 3)


def _check_count(check: Any) -> int:
    if isinstance(check, bool) or not isinstance(check, (int, np.integer)):
        raise TypeError(f"check must be a number of input sets (an int), got {check!r}")
    check = int(check)
    if check < 0:
        raise ValueError(f"check must be >= 0, got {check}")
    if check > MAX_CHECK_RUNS:
        raise ValueError(f"check runs at most {MAX_CHECK_RUNS} input sets, got {check}")
    return check


def _tolerance(value: Any, what: str) -> float:
    if isinstance(value, bool) or not isinstance(value, (int, float, np.floating, np.integer)):
        raise TypeError(f"{what} must be a number, got {value!r}")
    value = float(value)
    if not value >= 0 or value == float("inf"):
        raise ValueError(f"{what} must be a finite number >= 0, got {value}")
    return value


def _int_range(value: Any) -> Optional[Tuple[int, int]]:
    if value is None:
        return None
    try:
        lo, hi = value
    except (TypeError, ValueError):
        raise TypeError(f"check_int_range must be a pair (low, high), got {value!r}") from None
    if any(isinstance(v, bool) or not hasattr(v, "__index__") for v in (lo, hi)):
        raise TypeError(f"check_int_range must hold two integers, got {value!r}")
    if int(lo) > int(hi):
        raise ValueError(f"check_int_range: low {lo} is above high {hi}")
    return int(lo), int(hi)


def _keys(value: Any, what: str) -> List[str]:
    if value is None:
        return []
    if isinstance(value, str) or not hasattr(value, "__iter__"):
        raise TypeError(f"{what} must be a list of rule keys, got {value!r}")
    keys = list(value)
    for k in keys:
        if not isinstance(k, str):
            raise TypeError(f"{what} must be a list of rule keys, got {k!r}")
    return keys


def _check_inputs(value: Any) -> Dict[str, Any]:
    """Name -> array or .npy path; a single array or path for a one-input model
    (kept under the empty name)."""
    if value is None:
        return {}
    if isinstance(value, (str, os.PathLike, np.ndarray)):
        value = {"": value}
    if not isinstance(value, Mapping):
        raise TypeError(f"check_inputs must map input names to arrays or .npy paths, got {type(value).__name__}")
    out = {}
    for name, v in value.items():
        if not isinstance(name, str):
            raise TypeError(f"check_inputs: input names must be strings, got {name!r}")
        if isinstance(v, (str, os.PathLike)):
            try:
                v = np.load(os.fspath(v), allow_pickle=False)
            except (OSError, ValueError) as exc:
                raise ValueError(f"check input '{os.fspath(v)}' is not a readable .npy file: {exc}") from None
        out[name] = np.asarray(v)
    return out


def _file_size(path: Optional[str]) -> Optional[int]:
    try:
        return os.path.getsize(path) if path else None
    except OSError:
        return None


def _empty_report(target: str) -> Dict[str, Any]:
    """The report with every key it ever has; values are filled in as the
    run goes."""
    from tolm.check import not_run

    return {
        "schema_version": REPORT_SCHEMA_VERSION,
        "tool": "tolm-reduce",
        "version": __version__,
        "target": target,
        "input": {"path": None, "bytes": None, "external_data_bytes": 0},
        "output": {"path": None, "bytes": None, "external_data": None, "external_data_bytes": 0},
        "skip": [],
        "only": [],
        "nodes_before": 0,
        "nodes_after_load": 0,
        "nodes_after": 0,
        "ops_before": {},
        "ops_after": {},
        "load": {"constant_nodes": 0, "external_tensors": 0},
        "fired": {},
        "rewrites": 0,
        "attempts": 0,
        "rounds": 0,
        "subgraph_nodes_removed": 0,
        "pruned_nodes": 0,
        "converged": True,
        "rule_faults": [],
        "rule_times_ms": {},
        "fold": {"enabled": False, "removed_nodes": 0, "folded": {}, "fusions": {}, "kept_by_size": []},
        "table_rows": 0,
        "unavailable_rules": [],
        "log": [],
        "times_ms": {"load": 0.0, "reduce": 0.0, "save": None, "check": None},
        "check": not_run(),
    }


class _Run:
    """One reduce from load to save; what the CLI and ``reduce`` share.
    Construction loads the model; ``run_tables`` reduces it."""

    def __init__(
        self,
        model: ModelLike,
        target: str = "npu_c",
        quant_tab: Optional[dict] = None,
        input_shapes: Optional[Shapes] = None,
        strict: Optional[bool] = None,
        fold: bool = True,
        matmul_add_to_gemm: bool = False,
        skip: Optional[Sequence[str]] = None,
        only: Optional[Sequence[str]] = None,
        progress: Optional[Callable[[str], None]] = None,
        keep: Optional[list] = None,
        subgraphs: bool = True,
    ):
        from tolm.api.ir_graph import (
            IRGraph,
            check_target,
            normalize_input_shapes,
            read_model_bytes,
            resolve_single_input,
        )

        check_target(target)
        if quant_tab is not None and not isinstance(quant_tab, dict):
            raise TypeError(f"quant_tab must be a dict or None, got {type(quant_tab).__name__}")
        if strict is None:
            strict = os.environ.get("TOLM_STRICT", "") not in ("", "0")
        shapes = normalize_input_shapes(input_shapes)
        skip_keys, only_keys = _keys(skip, "skip"), _keys(only, "only")
        self.report = report = _empty_report(target)
        self.progress = progress
        path = os.fspath(model) if isinstance(model, (str, os.PathLike)) else None
        if path is not None and os.path.isdir(path):
            raise ValueError(f"{path} is a directory, not a model file")
        report["input"]["path"] = path
        report["skip"], report["only"] = skip_keys, only_keys

        t0 = time.perf_counter()
        self.original_bytes = read_model_bytes(model)
        report["input"]["bytes"] = len(self.original_bytes)
        external_dir = os.path.dirname(os.path.abspath(path)) if path else None
        self.ir = ir = IRGraph(self.original_bytes, shapes, target, external_data_dir=external_dir)
        self.input_path = path
        self.shapes = resolve_single_input(shapes, list(ir.graph.input))
        t1 = time.perf_counter()
        info = ir.load_info
        ops_after_load = ir.op_counts()
        report["input"]["external_data_bytes"] = info["external_bytes"]
        report["ops_before"] = dict(sorted(info["file_ops"].items()))
        report["nodes_before"] = sum(info["file_ops"].values())
        report["nodes_after_load"] = sum(ops_after_load.values())
        report["load"] = {"constant_nodes": info["constant_nodes"], "external_tensors": info["external_tensors"]}
        report["times_ms"]["load"] = _ms(t1 - t0)
        self._tell(f"loaded {report['nodes_before']} nodes in {_ms(t1 - t0):.0f} ms")
        self._reduce_args = (quant_tab, strict, fold, matmul_add_to_gemm, skip_keys, only_keys, keep, subgraphs)

    def run_tables(self) -> None:
        """Folding, then both rule tables until nothing applies."""
        from tolm.api.rules import reduce as rules

        quant_tab, strict, fold, matmul_add_to_gemm, skip_keys, only_keys, keep, subgraphs = self._reduce_args
        ir, report, progress = self.ir, self.report, self.progress
        t1 = time.perf_counter()
        rules.clear_log_history()
        stats = rules.run_reduce(
            ir,
            quant_tab,
            strict=strict,
            fold=fold,
            matmul_add_to_gemm=matmul_add_to_gemm,
            skip=skip_keys,
            only=only_keys,
            progress=self._tell if progress else None,
            subgraphs=bool(subgraphs),
        )
        t2 = time.perf_counter()
        if keep is not None:
            keep.append(ir)
        ops_after = ir.op_counts()
        report.update(
            nodes_after=sum(ops_after.values()),
            ops_after=ops_after,
            fired={k: v for k, v in sorted(stats["fired"].items()) if v},
            rewrites=stats["rewrites"],
            attempts=stats["attempts"],
            rounds=stats["rounds"],
            subgraph_nodes_removed=stats["subgraph_nodes_removed"],
            pruned_nodes=stats["pruned_nodes"],
            converged=stats["converged"],
            rule_faults=list(stats["rule_faults"]),
            rule_times_ms={k: _ms(v) for k, v in sorted(stats["rule_seconds"].items())},
            table_rows=len(rules.fuse_reduce) + len(rules.cvt_reduce),
            unavailable_rules=list(rules.unavailable_rules()),
            log=list(rules.log_history()),
        )
        fs = stats["fold"]
        report["fold"] = {
            "enabled": bool(fold),
            "removed_nodes": fs["removed_nodes"],
            "folded": dict(sorted(fs["folded"].items())),
            "fusions": dict(sorted(fs["fusions"].items())),
            "kept_by_size": list(fs["kept_by_size"]),
        }
        report["times_ms"]["reduce"] = _ms(t2 - t1)

    def _tell(self, line: str) -> None:
        if self.progress:
            self.progress(line)

    def wants_external(self, external_data: Optional[bool], threshold: int) -> bool:
        if external_data is not None:
            return bool(external_data)
        size = self.ir.constant_bytes()
        return self.report["load"]["external_tensors"] > 0 or size > threshold or size > _MAX_INLINE_BYTES

    def save(self, output: str, external_data: Optional[bool], threshold: int) -> None:
        """Writes the model (and its data file when tensor data goes out)."""
        t = time.perf_counter()
        out = self.report["output"]
        data_path = None
        if self.wants_external(external_data, threshold):
            data_path = output + ".data"
        elif self.ir.constant_bytes() > _MAX_INLINE_BYTES:
            raise ValueError("the reduced model is larger than 2 GB: it can only be written with external data")
        try:
            out["bytes"] = self.ir.save(output, data_path, MIN_EXTERNAL_TENSOR_BYTES)
        except RuntimeError as exc:
            raise OSError(str(exc)) from None
        out["path"] = output
        if data_path is not None and os.path.exists(data_path):
            out["external_data"] = data_path
            out["external_data_bytes"] = _file_size(data_path)
        self.report["times_ms"]["save"] = _ms(time.perf_counter() - t)
        self._tell(f"saved {output} in {self.report['times_ms']['save']:.0f} ms")

    def to_bytes(self) -> bytes:
        t = time.perf_counter()
        if self.ir.constant_bytes() > _MAX_INLINE_BYTES:
            raise ValueError(
                "the reduced model is larger than 2 GB, too large for one ModelProto: give output= to write it"
                " with its tensor data in an external file"
            )
        data = self.ir.to_bytes()
        self.report["times_ms"]["save"] = _ms(time.perf_counter() - t)
        return data

    def check(
        self,
        reduced: Union[onnx.ModelProto, str],
        runs: int,
        check_input_shapes: Optional[Shapes] = None,
        check_inputs: Optional[Mapping[str, Any]] = None,
        rtol: Optional[float] = None,
        atol: Optional[float] = None,
        int_range: Optional[Tuple[int, int]] = None,
    ) -> None:
        """Compares the reduced model with the original in onnxruntime."""
        from tolm.api.ir_graph import normalize_input_shapes, resolve_single_input
        from tolm.check import ATOL, RTOL, check_models

        t = time.perf_counter()
        inputs = list(self.ir.graph.input)
        shapes = dict(self.shapes)
        shapes.update(resolve_single_input(normalize_input_shapes(check_input_shapes, "check_input_shapes"), inputs,
                                           "check_input_shapes"))
        given = resolve_single_input(dict(check_inputs or {}), inputs, "check_inputs")
        if self.report["input"]["external_data_bytes"] and self.input_path:
            original: Union[onnx.ModelProto, str] = self.input_path
        else:
            original = onnx.load_from_string(self.original_bytes)
        self.report["check"] = check_models(
            original,
            reduced,
            runs=runs,
            input_shapes=shapes,
            rtol=RTOL if rtol is None else rtol,
            atol=ATOL if atol is None else atol,
            inputs=given,
            int_range=int_range,
        )
        self.report["times_ms"]["check"] = _ms(time.perf_counter() - t)


def reduce(
    model: ModelLike,
    target: str = "npu_c",
    quant_tab: Optional[dict] = None,
    input_shapes: Optional[Shapes] = None,
    check: int = 0,
    strict: Optional[bool] = None,
    fold: bool = True,
    matmul_add_to_gemm: bool = False,
    *,
    skip: Optional[Sequence[str]] = None,
    only: Optional[Sequence[str]] = None,
    output: Optional[Union[str, "os.PathLike[str]"]] = None,
    external_data: Optional[bool] = None,
    external_data_threshold: int = DEFAULT_EXTERNAL_DATA_THRESHOLD,
    check_input_shapes: Optional[Shapes] = None,
    check_inputs: Optional[Mapping[str, Any]] = None,
    check_rtol: Optional[float] = None,
    check_atol: Optional[float] = None,
    check_int_range: Optional[Tuple[int, int]] = None,
    progress: Optional[Callable[[str], None]] = None,
    subgraphs: bool = True,
) -> Tuple[onnx.ModelProto, Dict[str, Any]]:
    """Reduces a model (ModelProto, serialized bytes or path).

    ``quant_tab`` (tensor name -> {"min", "max", "name"}) is updated in place
    by the rules that move quantisation records. ``input_shapes`` maps graph
    input names to dimensions that fix their symbolic ones (bare dimensions
    for a one-input model). ``skip`` leaves out the rule rows with those keys;
    ``only`` runs just those rows (see ``list_rules``).

    With ``check`` > 0 the reduced model is compared with the original in
    onnxruntime on that many input sets: ``check_input_shapes`` gives their
    shapes (else ``input_shapes`` and the model's own), ``check_inputs`` gives
    arrays or ``.npy`` paths for some inputs, ``check_rtol``/``check_atol``
    the tolerances, ``check_int_range`` the (low, high) range of integer
    inputs. ``report["check"]["status"]`` is "passed", "failed" or "not
    checked" (the check could not run; ``reason`` says why).

    With ``strict`` a rule that breaks its contract (throws, or edits the
    graph and then does not apply) raises ``RuleError``; otherwise its edit is
    undone and listed under ``rule_faults``. ``strict=None`` takes the
    environment variable ``TOLM_STRICT``. ``fold`` folds what is constant and
    applies the standard fusions; ``matmul_add_to_gemm`` also turns MatMul +
    constant Add into Gemm. ``subgraphs`` also reduces the bodies of If, Loop
    and Scan nodes, with the outer-scope names they read left as they are.

    With ``output`` the model is written there: its tensor data goes to
    ``output + ".data"`` when ``external_data`` is true, or, with
    ``external_data=None``, when the input kept its data outside or the
    constants pass ``external_data_threshold`` bytes (always above 2 GB). The
    returned model then refers to that file as onnx does. A model read from a
    path finds its external data in the model's folder.

    ``progress`` is called with a line of text after load, each table pass
    and save. Returns ``(reduced_model, report)``."""
    check = _check_count(check)
    rtol = None if check_rtol is None else _tolerance(check_rtol, "check_rtol")
    atol = None if check_atol is None else _tolerance(check_atol, "check_atol")
    int_range = _int_range(check_int_range)
    inputs = _check_inputs(check_inputs)
    if isinstance(external_data_threshold, bool) or not isinstance(external_data_threshold, (int, np.integer)):
        raise TypeError(f"external_data_threshold must be a number of bytes, got {external_data_threshold!r}")
    if external_data and output is None:
        raise ValueError("external_data needs output=: the data file is written beside the model")
    run = _Run(
        model, target, quant_tab, input_shapes, strict, fold, matmul_add_to_gemm, skip, only, progress,
        subgraphs=subgraphs,
    )
    run.run_tables()
    if output is not None:
        out = os.fspath(output)
        run.save(out, external_data, int(external_data_threshold))
        reduced = onnx.load(out, load_external_data=False)
        checked: Union[onnx.ModelProto, str] = out
    else:
        reduced = onnx.load_from_string(run.to_bytes())
        checked = reduced
    if check > 0:
        run.check(checked, check, check_input_shapes, inputs, rtol, atol, int_range)
    return reduced, run.report


def list_rules() -> List[Dict[str, Any]]:
    """Every rule row in the order the driver tries them: ``key``, ``table``,
    ``ops``, ``proc``, ``available`` (whether this build has the rule) and
    ``summary`` (one line of what it does)."""
    from tolm.api.rules import reduce as rules
    from tolm.rule_catalog import summary

    return [dict(row, summary=summary(row["key"])) for row in rules.rule_rows()]


def format_report(report: Dict[str, Any], verbose: bool = False) -> str:
    """The report as a readable table; ``verbose`` adds the time per rule
    and the rules' log."""
    from tolm.check import describe

    lines = []
    before, after = report["ops_before"], report["ops_after"]
    ops = sorted(set(before) | set(after))
    width = max([len("op type"), len("total")] + [len(o) for o in ops])
    lines.append(f"target {report['target']}: {report['nodes_before']} -> {report['nodes_after']} nodes")
    constant_nodes = report["load"]["constant_nodes"]
    if constant_nodes:
        lines.append(
            f"load took in {constant_nodes} Constant node(s) as initializers"
            f" ({report['nodes_before']} -> {report['nodes_after_load']} nodes before any rule ran)"
        )
    if report["load"]["external_tensors"]:
        lines.append(
            f"read {report['load']['external_tensors']} tensor(s), "
            f"{report['input']['external_data_bytes']} bytes, from external data"
        )
    lines.append("")
    lines.append(f"{'op type':<{width}}  {'before':>7}  {'after':>7}  {'change':>7}")
    lines.append(f"{'-' * width}  {'-' * 7}  {'-' * 7}  {'-' * 7}")
    for op in ops:
        b, a = before.get(op, 0), after.get(op, 0)
        lines.append(f"{op:<{width}}  {b:>7}  {a:>7}  {a - b:>+7}")
    lines.append(f"{'-' * width}  {'-' * 7}  {'-' * 7}  {'-' * 7}")
    nb, na = report["nodes_before"], report["nodes_after"]
    lines.append(f"{'total':<{width}}  {nb:>7}  {na:>7}  {na - nb:>+7}")
    lines.append("")
    fired = report["fired"]
    times = report.get("rule_times_ms", {})
    if fired:
        kw = max(len("rule"), max(len(k) for k in fired))
        lines.append(f"{'rule':<{kw}}  {'fired':>7}" + (f"  {'ms':>9}" if verbose else ""))
        lines.append(f"{'-' * kw}  {'-' * 7}" + (f"  {'-' * 9}" if verbose else ""))
        for key, n in sorted(fired.items(), key=lambda kv: (-kv[1], kv[0])):
            lines.append(f"{key:<{kw}}  {n:>7}" + (f"  {times.get(key, 0.0):>9.3f}" if verbose else ""))
    else:
        lines.append("no rule fired")
    lines.append("")
    lines.append(
        f"rewrites {report['rewrites']}, rule calls {report['attempts']}, "
        f"pruned nodes {report['pruned_nodes']}" + ("" if report["converged"] else ", stopped at the rewrite limit")
    )
    if report["subgraph_nodes_removed"]:
        lines.append(f"sub-graph bodies lost {report['subgraph_nodes_removed']} node(s) (not in the counts above)")
    if report["skip"] or report["only"]:
        lines.append(
            ("skipped: " + ", ".join(report["skip"]) if report["skip"] else "")
            + ("; " if report["skip"] and report["only"] else "")
            + ("only: " + ", ".join(report["only"]) if report["only"] else "")
        )
    unavailable = report["unavailable_rules"]
    if unavailable:
        lines.append(
            f"{len(unavailable)} of {report['table_rows']} table rows are not available in this build"
            " (tolm-reduce --list-rules)"
        )
    fold = report["fold"]
    if not fold["enabled"]:
        lines.append("folding off")
    else:
        lines.append(f"folding removed {fold['removed_nodes']} node(s)")
        if fold["folded"]:
            lines.append("  folded: " + ", ".join(f"{op} {n}" for op, n in fold["folded"].items()))
        if fold["fusions"]:
            lines.append("  fused: " + ", ".join(f"{k} {n}" for k, n in fold["fusions"].items()))
        if fold["kept_by_size"]:
            lines.append(f"  kept by the size limit: {len(fold['kept_by_size'])} node(s)")
    faults = report["rule_faults"]
    if faults:
        lines.append(f"{len(faults)} rule fault(s), each undone:")
        lines.extend("  " + f for f in faults)
    if verbose and report["log"]:
        lines.append("log:")
        lines.extend("  " + m for m in report["log"])
    t = report["times_ms"]
    parts = [f"load {t['load']:.0f} ms", f"reduce {t['reduce']:.0f} ms"]
    if t["save"] is not None:
        parts.append(f"save {t['save']:.0f} ms")
    if t["check"] is not None:
        parts.append(f"check {t['check']:.0f} ms")
    lines.append("time: " + ", ".join(parts))
    if report["check"]["status"] != "not run":
        lines.append("check: " + describe(report["check"]))
    return "\n".join(lines)


__all__ = [
    "reduce",
    "list_rules",
    "format_report",
    "LoadError",
    "RuleError",
    "MAX_CHECK_RUNS",
    "DEFAULT_EXTERNAL_DATA_THRESHOLD",
    "REPORT_SCHEMA_VERSION",
    "__version__",
]
