"""Numeric check of a reduced model against the original in onnxruntime.

Both models run on the same random inputs; every graph output of the original
must come out of the reduced model under the same name, with the same shape,
and within the tolerances below.
"""

from __future__ import annotations

from typing import Dict, List, Mapping, Optional, Sequence, Tuple, Union

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


def _session(model: ModelOrPath):
    import onnxruntime as ort

    opts = ort.SessionOptions()
    opts.log_severity_level = 3
    # The check compares the graphs as written, not as onnxruntime rewrites them.
    opts.graph_optimization_level = ort.GraphOptimizationLevel.ORT_DISABLE_ALL
    source = model.SerializeToString() if isinstance(model, onnx.ModelProto) else model
    return ort.InferenceSession(source, sess_options=opts, providers=["CPUExecutionProvider"])


# Integer inputs are drawn from 0 up to this bound (inclusive), or up to the
# last valid index where the input indexes a Gather: token ids, positions
# and class ids then cover more than the values 0 and 1.
DEFAULT_INT_HIGH = 15


def _random_input(rng: np.random.Generator, dtype, shape: Sequence[int], int_range: Tuple[int, int]) -> np.ndarray:
    if np.issubdtype(dtype, np.floating):
        return rng.standard_normal(shape).astype(dtype)
    if dtype == np.bool_:
        return rng.random(shape) < 0.5
    lo, hi = int_range
    info = np.iinfo(dtype)
    lo, hi = max(lo, int(info.min)), min(hi, int(info.max))
    return rng.integers(lo, hi, size=shape, endpoint=True).astype(dtype)


def _known_dims(graph: onnx.GraphProto) -> Dict[str, List[int]]:
    dims: Dict[str, List[int]] = {t.name: list(t.dims) for t in graph.initializer}
    for vi in list(graph.value_info) + list(graph.input):
        if vi.name in dims or not vi.type.tensor_type.HasField("shape"):
            continue
        dims[vi.name] = [d.dim_value if d.HasField("dim_value") else -1 for d in vi.type.tensor_type.shape.dim]
    return dims


def index_bounds(model: onnx.ModelProto) -> Dict[str, int]:
    """Graph input -> largest value it may take where it indexes a Gather or
    GatherElements along an axis of known size."""
    dims = _known_dims(model.graph)
    inputs = {vi.name for vi in model.graph.input}
    out: Dict[str, int] = {}
    for node in model.graph.node:
        if node.op_type not in ("Gather", "GatherElements") or len(node.input) < 2 or node.input[1] not in inputs:
            continue
        axis = next((a.i for a in node.attribute if a.name == "axis"), 0)
        data = dims.get(node.input[0])
        if not data or not -len(data) <= axis < len(data) or data[axis] <= 0:
            continue
        bound = data[axis] - 1
        out[node.input[1]] = min(out.get(node.input[1], bound), bound)
    return out


def _input_shape(arg, reduced_arg, input_shapes: Mapping[str, Sequence[int]], guessed: List[str]) -> List[int]:
    if arg.name in input_shapes:
        return list(input_shapes[arg.name])
    dims = []
    for i, d in enumerate(arg.shape):
        if isinstance(d, int) and d >= 0:
            dims.append(d)
            continue
        r = reduced_arg.shape[i] if reduced_arg is not None and i < len(reduced_arg.shape) else None
        if isinstance(r, int) and r >= 0:
            dims.append(r)
        else:
            # Nothing fixes it: 1 is a guess, and the result says so.
            dims.append(1)
            guessed.append(f"{arg.name}[{i}]")
    return dims


def _result(status: str, reason: str, runs: int, rtol: float, atol: float, **more) -> Dict:
    """A check result; every result has the same keys."""
    out = {
        "requested": status != "not run",
        "status": status,
        "reason": reason,
        "runs": runs,
        "rtol": rtol,
        "atol": atol,
        "input_shapes": {},
        "guessed_dims": [],
        "inputs_from_files": [],
        "int_range": None,
        "max_abs_diff": None,
        "outputs": {},
    }
    out.update(more)
    return out


def not_run(rtol: float = RTOL, atol: float = ATOL) -> Dict:
    return _result("not run", "", 0, rtol, atol)


def not_checked(reason: str, runs: int, rtol: float = RTOL, atol: float = ATOL, **more) -> Dict:
    return _result("not checked", reason, runs, rtol, atol, **more)


ModelOrPath = Union[onnx.ModelProto, str]


def _graph_only(model: ModelOrPath) -> onnx.ModelProto:
    if isinstance(model, onnx.ModelProto):
        return model
    return onnx.load(model, load_external_data=False)


def check_models(
    original: ModelOrPath,
    reduced: ModelOrPath,
    runs: int = 1,
    input_shapes: Optional[Mapping[str, Sequence[int]]] = None,
    seed: int = 0,
    rtol: float = RTOL,
    atol: float = ATOL,
    inputs: Optional[Mapping[str, np.ndarray]] = None,
    int_range: Optional[Tuple[int, int]] = None,
) -> Dict:
    """Runs both models on ``runs`` input sets and compares outputs.

    A model is an ``onnx.ModelProto`` or a path (a model whose tensor data
    lies in external files must be given by path). ``input_shapes`` fixes the
    shapes of the random inputs; ``inputs`` gives arrays for some or all
    graph inputs (with all given, one run). Integer inputs are drawn from
    ``int_range`` (inclusive), by default 0 to 15 or to the last valid index
    where an input indexes a Gather.

    Returns a dict with ``status`` ("passed", "failed" or "not checked"),
    ``reason`` (empty when passed), ``runs``, ``rtol``, ``atol``,
    ``input_shapes`` (the shapes used), ``guessed_dims`` (dimensions nothing
    fixed, taken as 1), ``inputs_from_files``, ``int_range``,
    ``max_abs_diff`` and ``outputs`` (output name -> largest difference)."""
    input_shapes = dict(input_shapes or {})
    given = dict(inputs or {})
    graph_a = _graph_only(original)
    bad = unrunnable_ops(graph_a) or unrunnable_ops(_graph_only(reduced))
    if bad:
        return not_checked("model holds operators onnxruntime cannot run: " + ", ".join(bad), runs, rtol, atol)
    try:
        sess_a = _session(original)
    except Exception as exc:
        return not_checked("onnxruntime cannot load the original model: " + _first_line(exc), runs, rtol, atol)
    args_a = sess_a.get_inputs()
    unknown = sorted(set(given) - {a.name for a in args_a})
    if unknown:
        raise ValueError(
            f"check inputs name {', '.join(unknown)}, not graph inputs ({', '.join(a.name for a in args_a)})"
        )
    for arg in args_a:
        if arg.type not in _ORT_TYPES:
            return not_checked(f"graph input '{arg.name}' has type {arg.type}", runs, rtol, atol)
    feeds_given: Dict[str, np.ndarray] = {}
    for arg in args_a:
        if arg.name not in given:
            continue
        arr = np.asarray(given[arg.name])
        want = np.dtype(_ORT_TYPES[arg.type])
        if arr.dtype != want:
            if not np.can_cast(arr.dtype, want, casting="same_kind"):
                raise ValueError(f"check input '{arg.name}' holds {arr.dtype}, the model's input is {want}")
            arr = arr.astype(want)
        feeds_given[arg.name] = arr
    if len(feeds_given) == len(args_a):
        runs = 1
    try:
        sess_b = _session(reduced)
    except Exception as exc:
        return _result(
            "failed", "onnxruntime cannot load the reduced model: " + _first_line(exc), runs, rtol, atol
        )
    args_b = {a.name: a for a in sess_b.get_inputs()}
    missing_in = [a.name for a in args_a if a.name not in args_b]
    if missing_in:
        return _result("failed", "reduced model lacks graph inputs " + ", ".join(missing_in), runs, rtol, atol)
    names_a = [o.name for o in sess_a.get_outputs()]
    names_b = {o.name for o in sess_b.get_outputs()}
    missing_out = [n for n in names_a if n not in names_b]
    if missing_out:
        return _result("failed", "reduced model lacks graph outputs " + ", ".join(missing_out), runs, rtol, atol)

    guessed: List[str] = []
    shapes: Dict[str, List[int]] = {}
    for arg in args_a:
        if arg.name in feeds_given:
            shapes[arg.name] = list(feeds_given[arg.name].shape)
        else:
            shapes[arg.name] = _input_shape(arg, args_b.get(arg.name), input_shapes, guessed)
    int_inputs = [a.name for a in args_a if a.name not in feeds_given and np.dtype(_ORT_TYPES[a.type]).kind in "iu"]
    bounds = index_bounds(graph_a) if int_range is None else {}
    used_range = None
    if int_inputs:
        used_range = list(int_range) if int_range is not None else [0, DEFAULT_INT_HIGH]

    def range_of(name: str) -> Tuple[int, int]:
        if used_range is None:
            return 0, 1
        lo, hi = used_range
        return lo, min(hi, bounds[name]) if name in bounds else hi

    info = dict(
        input_shapes=shapes,
        guessed_dims=guessed,
        inputs_from_files=sorted(feeds_given),
        int_range=used_range,
    )
    rng = np.random.default_rng(seed)
    diffs = {n: 0.0 for n in names_a}
    failures: List[str] = []
    for _ in range(runs):
        feeds = {}
        for arg in args_a:
            if arg.name in feeds_given:
                feeds[arg.name] = feeds_given[arg.name]
            else:
                feeds[arg.name] = _random_input(rng, _ORT_TYPES[arg.type], shapes[arg.name], range_of(arg.name))
        try:
            outs_a = sess_a.run(names_a, feeds)
        except Exception as exc:
            hint = ""
            if guessed:
                hint = f" (dimensions {', '.join(guessed)} were guessed as 1: give the check input shapes)"
            return not_checked(
                "onnxruntime cannot run the original model: " + _first_line(exc) + hint, runs, rtol, atol, **info
            )
        try:
            outs_b = sess_b.run(names_a, {k: v for k, v in feeds.items() if k in args_b})
        except Exception as exc:
            return _result(
                "failed", "onnxruntime cannot run the reduced model: " + _first_line(exc), runs, rtol, atol, **info
            )
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
    result = _result("passed", "", runs, rtol, atol, **info)
    result["outputs"] = diffs
    result["max_abs_diff"] = max(diffs.values()) if diffs else 0.0
    if failures:
        result.update(status="failed", reason="; ".join(sorted(set(failures))))
    return result


def describe_inputs(check: Dict) -> str:
    """Which inputs the check used: shapes, guesses, files, integer range."""
    parts = []
    for name, dims in check.get("input_shapes", {}).items():
        src = " from file" if name in check.get("inputs_from_files", []) else ""
        parts.append(f"{name} [{','.join(str(d) for d in dims)}]{src}")
    text = "inputs " + "; ".join(parts) if parts else ""
    if check.get("guessed_dims"):
        text += f" (guessed as 1: {', '.join(check['guessed_dims'])})"
    if check.get("int_range"):
        lo, hi = check["int_range"]
        text += f", integers {lo}..{hi}"
    return text


def describe(check: Optional[Dict]) -> str:
    """One line for a check result (two when it says which inputs it used)."""
    if not check or check["status"] == "not run":
        return "not run"
    inputs = describe_inputs(check)
    tail = f"\n  {inputs}" if inputs else ""
    if check["status"] == "not checked":
        return "NOT CHECKED: " + check["reason"] + tail
    tol = f"rtol={check['rtol']:g}, atol={check['atol']:g}"
    if check["status"] == "passed":
        diff = check.get("max_abs_diff") or 0.0
        return f"passed on {check['runs']} input set(s), max |diff| {diff:.3g} ({tol})" + tail
    return f"FAILED ({tol}): {check['reason']}" + tail
