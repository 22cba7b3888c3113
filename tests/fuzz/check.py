"""The checks one fuzz case goes through, and model validation.

``check_case(model)`` reduces the model and returns a list of
``(class, detail)``; an empty list means the case passed. The classes:

  exception      reduce raised
  input_mutated  reduce changed the model it was given
  checker        the reduced model fails onnx.checker (full check)
  io             graph input/output names, order, element types or shapes changed
  ort_error      the reduced model passes the checker but onnxruntime cannot run it
  mismatch       an output differs in shape, type or value
  idempotence    reducing the reduced model again changes it (or raises)
  determinism    two reductions of the same model give different bytes
  names_matter   clearing node names changes what the reduction leaves

``crash`` and ``hang`` are recorded by the runner, which runs cases in
worker processes.
"""

from __future__ import annotations

import zlib
from collections import Counter
from typing import Callable, Dict, List, Optional, Tuple

import numpy as np
import onnx
from onnx import helper

RTOL = 1e-4
ATOL = 1e-5
# A value cast to float16 holds 11 significant bits: float32 work before the
# cast that a fusion reassociates (x * k into a weight) may round either way
# there, one unit in the last place, up to 1e-3 of the value. Outputs of a
# model that rounds to a half-precision type anywhere are compared at that.
RTOL_HALF = 1e-3
HALF_TYPES = (onnx.TensorProto.FLOAT16, onnx.TensorProto.BFLOAT16)

Reducer = Callable[[onnx.ModelProto], onnx.ModelProto]
Failure = Tuple[str, str]

_OPTIONS = None


def _first_line(exc: BaseException) -> str:
    text = str(exc).strip()
    line = text.splitlines()[0] if text else ""
    return f"{type(exc).__name__}: {line}"[:300]


def session_options():
    """One SessionOptions for every session: no graph optimisation (so the
    runtime computes the graph as written), one thread, quiet."""
    global _OPTIONS
    if _OPTIONS is None:
        import onnxruntime as ort

        opts = ort.SessionOptions()
        opts.graph_optimization_level = ort.GraphOptimizationLevel.ORT_DISABLE_ALL
        opts.intra_op_num_threads = 1
        opts.inter_op_num_threads = 1
        opts.execution_mode = ort.ExecutionMode.ORT_SEQUENTIAL
        opts.log_severity_level = 4
        _OPTIONS = opts
    return _OPTIONS


def run_model(model: onnx.ModelProto, feeds: Dict[str, np.ndarray]) -> Dict[str, np.ndarray]:
    import onnxruntime as ort

    sess = ort.InferenceSession(model.SerializeToString(), session_options(), providers=["CPUExecutionProvider"])
    names = [o.name for o in sess.get_outputs()]
    wanted = {i.name for i in sess.get_inputs()}
    return dict(zip(names, sess.run(names, {k: v for k, v in feeds.items() if k in wanted})))


def make_feeds(model: onnx.ModelProto, seed: int) -> Dict[str, np.ndarray]:
    """Random inputs: floats normal, integers small and non-negative. Each
    input's values depend only on the seed and its name, so a shrunk model
    whose other inputs are gone still sees the same numbers."""
    inits = {i.name for i in model.graph.initializer}
    feeds = {}
    for vi in model.graph.input:
        if vi.name in inits:
            continue
        rng = np.random.default_rng([seed, zlib.crc32(vi.name.encode())])
        tt = vi.type.tensor_type
        shape = [d.dim_value if d.dim_value > 0 else 1 for d in tt.shape.dim]
        dtype = helper.tensor_dtype_to_np_dtype(tt.elem_type)
        if np.issubdtype(dtype, np.floating):
            feeds[vi.name] = rng.standard_normal(shape).astype(dtype)
        elif dtype == np.bool_:
            feeds[vi.name] = rng.random(shape) < 0.5
        else:
            feeds[vi.name] = rng.integers(0, 3, size=shape).astype(dtype)
    return feeds


def value_type(vi: onnx.ValueInfoProto) -> Tuple[int, Tuple]:
    tt = vi.type.tensor_type
    dims = tuple(d.dim_value if d.HasField("dim_value") else d.dim_param for d in tt.shape.dim) if tt.HasField("shape") else None
    return tt.elem_type, dims


def signature(model: onnx.ModelProto) -> List[Tuple]:
    inits = {i.name for i in model.graph.initializer}
    ins = [("input", vi.name) + value_type(vi) for vi in model.graph.input if vi.name not in inits]
    outs = [("output", vi.name) + value_type(vi) for vi in model.graph.output]
    return ins + outs


def validate(model: onnx.ModelProto, seed: int = 0):
    """Fills value_info by strict shape inference, runs the full checker and
    onnxruntime, and compares the output shapes with the declared ones.
    Returns (ok, model, feeds, outputs, reason)."""
    try:
        bare = onnx.ModelProto()
        bare.CopyFrom(model)
        del bare.graph.value_info[:]
        model = onnx.shape_inference.infer_shapes(bare, check_type=True, strict_mode=True)
        onnx.checker.check_model(model, full_check=True)
        feeds = make_feeds(model, seed)
        ref = run_model(model, feeds)
    except Exception as exc:  # noqa: BLE001 - any failure makes the model unusable
        return False, model, None, None, _first_line(exc)
    for vi in model.graph.output:
        _, dims = value_type(vi)
        if dims is not None and tuple(ref[vi.name].shape) != dims:
            return False, model, None, None, f"shape of {vi.name}: declared {dims}, computed {ref[vi.name].shape}"
    return True, model, feeds, ref, ""


def default_reducer(model: onnx.ModelProto) -> onnx.ModelProto:
    import tolm

    # Strict: a rule that breaks its contract raises instead of being undone
    # quietly, so the case fails as an exception.
    return tolm.reduce(model, strict=True)[0]


def _structure(model: onnx.ModelProto) -> Counter:
    return Counter(n.op_type for n in model.graph.node)


def rounds_to_half(model: onnx.ModelProto) -> bool:
    """True if a value of the model passes through float16 or bfloat16."""
    g = model.graph
    if any(n.op_type == "Cast" and any(a.name == "to" and a.i in HALF_TYPES for a in n.attribute) for n in g.node):
        return True
    if any(t.data_type in HALF_TYPES for t in g.initializer):
        return True
    return any(vi.type.tensor_type.elem_type in HALF_TYPES for vi in [*g.input, *g.value_info, *g.output])


def _compare_outputs(ref: Dict[str, np.ndarray], got: Dict[str, np.ndarray], rtol: float = RTOL) -> List[str]:
    bad = []
    for name, want in ref.items():
        if name not in got:
            continue  # reported as io
        have = got[name]
        if have.shape != want.shape or have.dtype != want.dtype:
            bad.append(f"{name}: {have.dtype}{list(have.shape)} instead of {want.dtype}{list(want.shape)}")
        elif want.dtype == np.bool_ or np.issubdtype(want.dtype, np.integer):
            if not np.array_equal(have, want):
                bad.append(f"{name}: {int(np.sum(have != want))} of {want.size} values differ")
        elif not np.allclose(have, want, rtol=rtol, atol=ATOL, equal_nan=True):
            with np.errstate(invalid="ignore"):
                err = np.nanmax(np.abs(have.astype(np.float64) - want))
            bad.append(f"{name}: max abs diff {err:.3g}")
    return bad


def check_case(
    model: onnx.ModelProto,
    feeds: Optional[Dict[str, np.ndarray]] = None,
    ref: Optional[Dict[str, np.ndarray]] = None,
    reducer: Optional[Reducer] = None,
    names: bool = True,
) -> List[Failure]:
    """Reduces ``model`` and checks the result. ``feeds``/``ref`` are the
    inputs and original outputs when the caller already has them."""
    reducer = reducer or default_reducer
    original = model.SerializeToString()
    try:
        reduced = reducer(model)
    except Exception as exc:  # noqa: BLE001
        return [("exception", _first_line(exc))]
    failures: List[Failure] = []
    if model.SerializeToString() != original:
        failures.append(("input_mutated", "the model passed to reduce was changed"))
        model = onnx.load_from_string(original)

    checker_ok = True
    try:
        onnx.checker.check_model(reduced, full_check=True)
    except Exception as exc:  # noqa: BLE001
        checker_ok = False
        failures.append(("checker", _first_line(exc)))

    want_sig, got_sig = signature(model), signature(reduced)
    if want_sig != got_sig:
        lost = [s for s in want_sig if s not in got_sig]
        new = [s for s in got_sig if s not in want_sig]
        failures.append(("io", f"lost {lost[:3]}, new {new[:3]}" if lost or new else "order changed"))

    if feeds is None:
        feeds = make_feeds(model, 0)
    try:
        if ref is None:
            ref = run_model(model, feeds)
        got = run_model(reduced, feeds)
    except Exception as exc:  # noqa: BLE001
        if checker_ok:
            failures.append(("ort_error", _first_line(exc)))
    else:
        bad = _compare_outputs(ref, got, RTOL_HALF if rounds_to_half(model) else RTOL)
        if bad:
            failures.append(("mismatch", "; ".join(bad[:3])))

    reduced_bytes = reduced.SerializeToString()
    try:
        again = reducer(reduced).SerializeToString()
        if again != reduced_bytes:
            failures.append(("idempotence", _diff_summary(reduced, onnx.load_from_string(again))))
    except Exception as exc:  # noqa: BLE001
        failures.append(("idempotence", "second reduce raised " + _first_line(exc)))

    try:
        twice = reducer(model).SerializeToString()
        if twice != reduced_bytes:
            failures.append(("determinism", _diff_summary(reduced, onnx.load_from_string(twice))))
    except Exception as exc:  # noqa: BLE001
        failures.append(("determinism", "the same model raised on a second run: " + _first_line(exc)))

    if names and any(n.name for n in model.graph.node):
        unnamed = onnx.ModelProto()
        unnamed.CopyFrom(model)
        for n in unnamed.graph.node:
            n.name = ""
        try:
            other = reducer(unnamed)
        except Exception as exc:  # noqa: BLE001
            failures.append(("names_matter", "raised without names: " + _first_line(exc)))
        else:
            a, b = _structure(reduced), _structure(other)
            if a != b:
                failures.append(("names_matter", f"named {_ops(a)} vs unnamed {_ops(b)}"))
    return failures


def _ops(c: Counter) -> str:
    return ",".join(f"{k}x{v}" for k, v in sorted(c.items()))


def _diff_summary(a: onnx.ModelProto, b: onnx.ModelProto) -> str:
    ca, cb = _structure(a), _structure(b)
    if ca != cb:
        return f"{_ops(ca)} -> {_ops(cb)}"
    if len(a.graph.node) != len(b.graph.node):
        return f"{len(a.graph.node)} -> {len(b.graph.node)} nodes"
    for x, y in zip(a.graph.node, b.graph.node):
        if x != y:
            return f"node {x.op_type} {x.name!r} differs"
    for field in ("input", "output", "initializer", "value_info"):
        if getattr(a.graph, field) != getattr(b.graph, field):
            return f"graph {field} differs"
    return "model fields differ"
