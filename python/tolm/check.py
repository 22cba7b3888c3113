"""Numeric check of a reduced model against the original in onnxruntime.

Both models run on the same random inputs; every graph output of the original
must come out of the reduced model under the same name, with the same shape,
and within the tolerances below.
"""

from __future__ import annotations

from typing import Dict, List, Mapping, Optional, Sequence

import numpy as np
import onnx

RTOL = 1e-4
ATOL = 1e-5

# Domains that onnxruntime's CPU provider implements.
_ORT_DOMAINS = {"", "ai.onnx", "ai.onnx.ml", "com.microsoft"}

_ORT_TYPES = {
    "tensor(float)": np.float32,
    "tensor(double)": np.float64,
    "tensor(float16)": np.float16,
    "tensor(int8)": np.int8,
    "tensor(int16)": np.int16,
    "tensor(int32)": np.int32,
    "tensor(int64)": np.int64,
    "tensor(uint8)": np.uint8,
    "tensor(uint16)": np.uint16,
    "tensor(uint32)": np.uint32,
    "tensor(uint64)": np.uint64,
    "tensor(bool)": np.bool_,
}


def unrunnable_ops(model: onnx.ModelProto) -> List[str]:
    """Op types that onnxruntime cannot run: the compiler's extended ops and
    operators of custom domains."""
    domains = {o.domain for o in model.opset_import}
    out = set()
    for node in model.graph.node:
        if node.op_type.startswith("ex") or node.domain not in _ORT_DOMAINS:
            out.add(node.op_type if not node.domain else f"{node.domain}.{node.op_type}")
    for d in domains - _ORT_DOMAINS:
        if any(n.domain == d for n in model.graph.node):
            out.add(d)
    return sorted(out)


def _first_line(exc: BaseException) -> str:
    text = str(exc).strip()
    line = text.splitlines()[0] if text else type(exc).__name__
    return line[:300]


def _session(model: onnx.ModelProto):
    import onnxruntime as ort

    opts = ort.SessionOptions()
    opts.log_severity_level = 3
    # The check compares the graphs as written, not as onnxruntime rewrites them.
    opts.graph_optimization_level = ort.GraphOptimizationLevel.ORT_DISABLE_ALL
    return ort.InferenceSession(model.SerializeToString(), sess_options=opts, providers=["CPUExecutionProvider"])


def _random_input(rng: np.random.Generator, dtype, shape: Sequence[int]) -> np.ndarray:
    if np.issubdtype(dtype, np.floating):
        return rng.standard_normal(shape).astype(dtype)
    if dtype == np.bool_:
        return rng.random(shape) < 0.5
    # Small non-negative integers stay valid as indices and repeat counts.
    return rng.integers(0, 2, size=shape).astype(dtype)


def _input_shape(arg, reduced_arg, input_shapes: Mapping[str, Sequence[int]]) -> List[int]:
    if arg.name in input_shapes:
        return list(input_shapes[arg.name])
    dims = []
    for i, d in enumerate(arg.shape):
        if isinstance(d, int) and d >= 0:
            dims.append(d)
            continue
        r = reduced_arg.shape[i] if reduced_arg is not None and i < len(reduced_arg.shape) else None
        dims.append(r if isinstance(r, int) and r >= 0 else 1)
    return dims


def not_checked(reason: str, runs: int) -> Dict:
    return {"status": "not checked", "reason": reason, "runs": runs, "rtol": RTOL, "atol": ATOL}


def check_models(
    original: onnx.ModelProto,
    reduced: onnx.ModelProto,
    runs: int = 1,
    input_shapes: Optional[Mapping[str, Sequence[int]]] = None,
    seed: int = 0,
    rtol: float = RTOL,
    atol: float = ATOL,
) -> Dict:
    """Runs both models on ``runs`` random input sets and compares outputs.

    Returns a dict with ``status`` ("passed", "failed" or "not checked"),
    ``reason`` (empty when passed), ``runs``, ``rtol``, ``atol``,
    ``max_abs_diff`` and ``outputs`` (output name -> largest difference)."""
    input_shapes = dict(input_shapes or {})
    result = {"status": "passed", "reason": "", "runs": runs, "rtol": rtol, "atol": atol}
    bad = unrunnable_ops(original) or unrunnable_ops(reduced)
    if bad:
        return not_checked("model holds operators onnxruntime cannot run: " + ", ".join(bad), runs)
    try:
        sess_a = _session(original)
    except Exception as exc:
        return not_checked("onnxruntime cannot load the original model: " + _first_line(exc), runs)
    args_a = sess_a.get_inputs()
    for arg in args_a:
        if arg.type not in _ORT_TYPES:
            return not_checked(f"graph input '{arg.name}' has type {arg.type}", runs)
    try:
        sess_b = _session(reduced)
    except Exception as exc:
        result.update(status="failed", reason="onnxruntime cannot load the reduced model: " + _first_line(exc))
        return result
    args_b = {a.name: a for a in sess_b.get_inputs()}
    missing_in = [a.name for a in args_a if a.name not in args_b]
    if missing_in:
        result.update(status="failed", reason="reduced model lacks graph inputs " + ", ".join(missing_in))
        return result
    names_a = [o.name for o in sess_a.get_outputs()]
    names_b = {o.name for o in sess_b.get_outputs()}
    missing_out = [n for n in names_a if n not in names_b]
    if missing_out:
        result.update(status="failed", reason="reduced model lacks graph outputs " + ", ".join(missing_out))
        return result

    rng = np.random.default_rng(seed)
    diffs = {n: 0.0 for n in names_a}
    failures: List[str] = []
    for _ in range(runs):
        feeds = {}
        for arg in args_a:
            shape = _input_shape(arg, args_b.get(arg.name), input_shapes)
            feeds[arg.name] = _random_input(rng, _ORT_TYPES[arg.type], shape)
        try:
            outs_a = sess_a.run(names_a, feeds)
        except Exception as exc:
            return not_checked("onnxruntime cannot run the original model: " + _first_line(exc), runs)
        try:
            outs_b = sess_b.run(names_a, {k: v for k, v in feeds.items() if k in args_b})
        except Exception as exc:
            result.update(status="failed", reason="onnxruntime cannot run the reduced model: " + _first_line(exc))
            return result
        for name, a, b in zip(names_a, outs_a, outs_b):
            a, b = np.asarray(a), np.asarray(b)
            if a.shape != b.shape:
                failures.append(f"{name}: shape {list(b.shape)} instead of {list(a.shape)}")
                diffs[name] = float("inf")
                continue
            if a.dtype.kind in "fc" or b.dtype.kind in "fc":
                fa, fb = a.astype(np.float64), b.astype(np.float64)
                d = np.abs(fa - fb)
                d = d[~(np.isnan(fa) & np.isnan(fb))]
                diffs[name] = max(diffs[name], float(d.max()) if d.size else 0.0)
                ok = np.allclose(fb, fa, rtol=rtol, atol=atol, equal_nan=True)
            else:
                ok = np.array_equal(a, b)
                if not ok:
                    diffs[name] = max(diffs[name], float(np.abs(a.astype(np.float64) - b.astype(np.float64)).max()))
            if not ok:
                failures.append(f"{name}: differs by {diffs[name]:.3g}")
    result["outputs"] = diffs
    result["max_abs_diff"] = max(diffs.values()) if diffs else 0.0
    if failures:
        result.update(status="failed", reason="; ".join(sorted(set(failures))))
    return result


def describe(check: Optional[Dict]) -> str:
    """One line for a check result."""
    if not check:
        return "not run"
    if check["status"] == "not checked":
        return "not checked: " + check["reason"]
    tol = f"rtol={check['rtol']:g}, atol={check['atol']:g}"
    if check["status"] == "passed":
        return f"passed on {check['runs']} random input set(s), max |diff| {check.get('max_abs_diff', 0.0):.3g} ({tol})"
    return f"FAILED ({tol}): {check['reason']}"
