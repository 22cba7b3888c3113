"""tolm-reduce: graph-reduction rules for ONNX models on their way to an NPU.

``reduce(model)`` loads a model into the IR graph, runs the rule tables until
nothing applies, and returns the reduced ONNX model with a report.
"""

from __future__ import annotations

import os
import time
from typing import Dict, Mapping, Optional, Sequence, Tuple

import onnx

__version__ = "0.1.0"

# Most random input sets the numeric check runs: each is a full run of both
# models in onnxruntime.
MAX_CHECK_RUNS = 1000


def _fold_report(stats: dict) -> dict:
    return {
        "removed_nodes": stats["removed_nodes"],
        "folded": dict(sorted(stats["folded"].items())),
        "fusions": dict(sorted(stats["fusions"].items())),
        "kept_by_size": list(stats["kept_by_size"]),
    }


def _reduce_bytes(
    model,
    target: str,
    quant_tab: Optional[dict],
    input_shapes: Optional[Mapping[str, Sequence[int]]],
    check: int,
    strict: Optional[bool],
    keep: Optional[list] = None,
    fold: bool = True,
    matmul_add_to_gemm: bool = False,
):
    """The reduced model as serialized bytes, the report, the original bytes
    and the checked input shapes; the model is never parsed in Python here, so
    a caller that only writes the result pays for no second parse. With
    ``keep`` (a list) the graph is appended to it instead of being freed: a
    process about to exit need not take a large graph apart."""
    from tolm.api.ir_graph import IRGraph, check_target, normalize_input_shapes, read_model_bytes
    from tolm.api.rules import reduce as rules

    check_target(target)
    if strict is None:
        strict = os.environ.get("TOLM_STRICT", "") not in ("", "0")
    if check > MAX_CHECK_RUNS:
        raise ValueError(f"check runs at most {MAX_CHECK_RUNS} input sets, got {check}")
    shapes = normalize_input_shapes(input_shapes)
    t0 = time.perf_counter()
    original_bytes = read_model_bytes(model)
    ir = IRGraph(original_bytes, input_shapes=shapes, target=target)
    t1 = time.perf_counter()
    ops_before = ir.op_counts()
    rules.clear_log_history()
    stats = rules.run_reduce(ir, quant_tab, strict=strict, fold=fold, matmul_add_to_gemm=matmul_add_to_gemm)
    t2 = time.perf_counter()
    ops_after = ir.op_counts()
    data = ir.to_bytes()
    t3 = time.perf_counter()
    if keep is not None:
        keep.append(ir)

    report = {
        "target": target,
        "nodes_before": sum(ops_before.values()),
        "nodes_after": sum(ops_after.values()),
        "ops_before": ops_before,
        "ops_after": ops_after,
        "fired": {k: v for k, v in sorted(stats["fired"].items()) if v},
        "rewrites": stats["rewrites"],
        "attempts": stats["attempts"],
        "pruned_nodes": stats["pruned_nodes"],
        "converged": stats["converged"],
        "rule_faults": list(stats["rule_faults"]),
        "fold": _fold_report(stats["fold"]) if fold else None,
        "unavailable_rules": list(rules.unavailable_rules()),
        "log": list(rules.log_history()),
        "times": {"load": t1 - t0, "reduce": t2 - t1, "save": t3 - t2},
        "check": None,
    }
    return data, report, original_bytes, shapes


def _run_check(report: dict, original_bytes: bytes, reduced: onnx.ModelProto, runs: int, shapes) -> None:
    from tolm.check import check_models

    t4 = time.perf_counter()
    original = onnx.load_from_string(original_bytes)
    report["check"] = check_models(original, reduced, runs=runs, input_shapes=shapes)
    report["times"]["check"] = time.perf_counter() - t4


def reduce(
    model,
    target: str = "npu_c",
    quant_tab: Optional[dict] = None,
    input_shapes: Optional[Mapping[str, Sequence[int]]] = None,
    check: int = 0,
    strict: Optional[bool] = None,
    fold: bool = True,
    matmul_add_to_gemm: bool = False,
) -> Tuple[onnx.ModelProto, dict]:
    """Reduces a model (ModelProto, serialized bytes or path).

    ``quant_tab`` (tensor name -> {"min", "max", "name"}) is updated in place
    by the rules that move quantisation records. With ``check`` > 0 the reduced
    model is compared with the original in onnxruntime on that many random
    input sets. With ``strict`` a rule that breaks its contract (throws, or
    edits the graph and then does not apply) raises ``RuleError``; otherwise
    its edit is undone and listed under ``rule_faults``. ``strict=None``
    takes the environment variable ``TOLM_STRICT`` (set to 1 by the test
    suites). ``fold`` folds what is constant (shape arithmetic on static
    shapes, If nodes with a constant condition, Identity on weights) and
    applies the standard fusions (BatchNormalization and zero Pad into Conv,
    constant Add into a Conv bias, chains of Mul or Add by constants);
    ``matmul_add_to_gemm`` also turns MatMul + constant Add into Gemm.
    Returns ``(reduced_model, report)``."""
    data, report, original_bytes, shapes = _reduce_bytes(
        model, target, quant_tab, input_shapes, check, strict, fold=fold, matmul_add_to_gemm=matmul_add_to_gemm
    )
    reduced = onnx.load_from_string(data)
    if check > 0:
        _run_check(report, original_bytes, reduced, check, shapes)
    return reduced, report


def format_report(report: dict) -> str:
    """The report as a readable table."""
    from tolm.check import describe

    lines = []
    before, after = report["ops_before"], report["ops_after"]
    ops = sorted(set(before) | set(after))
    width = max([len("op type"), len("total")] + [len(o) for o in ops])
    lines.append(f"target {report['target']}: {report['nodes_before']} -> {report['nodes_after']} nodes")
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
    if fired:
        kw = max(len("rule"), max(len(k) for k in fired))
        lines.append(f"{'rule':<{kw}}  {'fired':>7}")
        lines.append(f"{'-' * kw}  {'-' * 7}")
        for key, n in sorted(fired.items(), key=lambda kv: (-kv[1], kv[0])):
            lines.append(f"{key:<{kw}}  {n:>7}")
    else:
        lines.append("no rule fired")
    lines.append("")
    lines.append(
        f"rewrites {report['rewrites']}, rule calls {report['attempts']}, "
        f"pruned nodes {report['pruned_nodes']}" + ("" if report["converged"] else ", stopped at the rewrite limit")
    )
    fold = report.get("fold")
    if fold is None:
        lines.append("folding off")
    else:
        lines.append(f"folding removed {fold['removed_nodes']} node(s)")
        if fold["folded"]:
            lines.append("  folded: " + ", ".join(f"{op} {n}" for op, n in fold["folded"].items()))
        if fold["fusions"]:
            lines.append("  fused: " + ", ".join(f"{k} {n}" for k, n in fold["fusions"].items()))
        if fold["kept_by_size"]:
            lines.append(f"  kept by the size limit: {len(fold['kept_by_size'])} node(s)")
    faults = report.get("rule_faults") or []
    if faults:
        lines.append(f"{len(faults)} rule fault(s), each undone:")
        lines.extend("  " + f for f in faults)
    t = report["times"]
    lines.append(
        "time: load {:.3f}s, reduce {:.3f}s, save {:.3f}s".format(t["load"], t["reduce"], t["save"])
        + (", check {:.3f}s".format(t["check"]) if "check" in t else "")
    )
    if report.get("check") is not None:
        lines.append("check: " + describe(report["check"]))
    return "\n".join(lines)


__all__ = ["reduce", "format_report", "MAX_CHECK_RUNS", "__version__"]
