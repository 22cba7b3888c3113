"""Shared helpers: compact model building and onnxruntime comparison."""

from __future__ import annotations

import os
import subprocess
import sys
from pathlib import Path
from typing import Dict, Iterable, Optional

import numpy as np
import onnx
import pytest
from onnx import TensorProto, helper, numpy_helper

ROOT = Path(__file__).resolve().parents[2]
# A rule that edits the graph and then does not apply, or throws, fails the
# tests instead of being undone quietly.
os.environ.setdefault("TOLM_STRICT", "1")
try:
    import tolm  # noqa: F401
except ImportError:  # running from the source tree
    sys.path.insert(0, str(ROOT / "python"))
    import tolm  # noqa: F401

# Random inputs are drawn the way the fuzzer draws them.
sys.path.insert(0, str(ROOT / "tests" / "fuzz"))
from check import make_feeds  # noqa: E402

PYTHON_DIR = str(Path(tolm.__file__).resolve().parents[1])

def _vi(name: str, desc) -> onnx.ValueInfoProto:
    """desc: a shape list (float32), None (unknown), or (elem_type, shape)."""
    if isinstance(desc, tuple):
        elem, shape = desc
    else:
        elem, shape = TensorProto.FLOAT, desc
    return helper.make_tensor_value_info(name, elem, shape)


def make_model(
    nodes: Iterable,
    inputs: Dict[str, object],
    outputs: Dict[str, object],
    consts: Optional[Dict[str, object]] = None,
    opset: int = 13,
) -> onnx.ModelProto:
    """Builds a model from short node tuples ``(op, inputs, outputs, attrs...)``.

    ``consts`` maps initializer names to arrays; lists of ints become int64.
    Nodes get names n0, n1, ... unless a ``name`` attribute is given."""
    made = []
    for i, n in enumerate(nodes):
        if isinstance(n, onnx.NodeProto):
            made.append(n)
            continue
        op, ins, outs, *rest = n
        attrs = dict(rest[0]) if rest else {}
        name = attrs.pop("name", f"n{i}")
        domain = attrs.pop("domain", "")
        made.append(helper.make_node(op, list(ins), list(outs), name=name, domain=domain, **attrs))
    inits = []
    for name, value in (consts or {}).items():
        arr = np.asarray(value)
        if arr.dtype == np.int32 and isinstance(value, list):
            arr = arr.astype(np.int64)
        inits.append(numpy_helper.from_array(arr, name))
    graph = helper.make_graph(
        made, "test", [_vi(k, v) for k, v in inputs.items()], [_vi(k, v) for k, v in outputs.items()], initializer=inits
    )
    model = helper.make_model(graph, opset_imports=[helper.make_opsetid("", opset)])
    model.ir_version = 8
    return model


def random_feeds(model: onnx.ModelProto, seed: int = 0) -> Dict[str, np.ndarray]:
    return make_feeds(model, seed)


def run_ort(model: onnx.ModelProto, feeds: Dict[str, np.ndarray]) -> Dict[str, np.ndarray]:
    import onnxruntime as ort

    opts = ort.SessionOptions()
    opts.log_severity_level = 3
    opts.graph_optimization_level = ort.GraphOptimizationLevel.ORT_DISABLE_ALL
    sess = ort.InferenceSession(model.SerializeToString(), sess_options=opts, providers=["CPUExecutionProvider"])
    names = [o.name for o in sess.get_outputs()]
    return dict(zip(names, sess.run(names, feeds)))


def assert_same_outputs(original: onnx.ModelProto, reduced: onnx.ModelProto, seeds=(0, 1)) -> None:
    """Same graph output names and values (rtol 1e-4, atol 1e-5) on random inputs."""
    assert [o.name for o in reduced.graph.output] == [o.name for o in original.graph.output]
    for seed in seeds:
        feeds = random_feeds(original, seed)
        want, got = run_ort(original, feeds), run_ort(reduced, feeds)
        assert want.keys() == got.keys()
        for name in want:
            assert got[name].shape == want[name].shape, name
            np.testing.assert_allclose(got[name], want[name], rtol=1e-4, atol=1e-5, err_msg=name)


def run_cli(*args: str, cwd=None) -> subprocess.CompletedProcess:
    env = dict(os.environ)
    env["PYTHONPATH"] = PYTHON_DIR + os.pathsep + env.get("PYTHONPATH", "")
    return subprocess.run(
        [sys.executable, "-m", "tolm.cli", *args], capture_output=True, text=True, env=env, cwd=cwd, timeout=300
    )


def proc_or_skip(name: str):
    from tolm.api.rules import reduce

    if not hasattr(reduce, name):
        pytest.skip(f"{name} is not in this build")
    return getattr(reduce, name)


@pytest.fixture
def tmp_model(tmp_path):
    """Saves a model under tmp_path and returns the path as str."""

    def save(model: onnx.ModelProto, name: str = "m.onnx") -> str:
        path = tmp_path / name
        path.write_bytes(model.SerializeToString())
        return str(path)

    return save


def run_proc(model: onnx.ModelProto, proc_name: str, node_names):
    """Calls a rule by name on the named nodes without applying its result:
    (the graph as the rule left it, removed node names, added nodes), for
    rules on extended ops that no runtime can check."""
    from tolm.api.ir_graph import IRGraph
    from tolm.api.rules import reduce

    ir = IRGraph(model)
    by_name = {n.name: n for n in ir.node}
    remove, add = getattr(reduce, proc_name)(ir, [by_name[n] for n in node_names], None)
    return ir, [n.name for n in remove], add


def call_rule(model: onnx.ModelProto, proc_name: str, node_names, quant_tab=None):
    """Calls a rule by name on the named nodes, as the compiler does, and applies
    its result. Returns (removed node names, added op types, model after). When
    the rule does not apply, the model after must be the model before; when it
    does, the result must pass the full checker and keep I/O names and numbers."""
    from tolm.api.ir_graph import IRGraph
    from tolm.api.rules import reduce

    ir = IRGraph(model)
    before = ir.to_onnx().SerializeToString()
    by_name = {n.name: n for n in ir.node}
    remove, add = getattr(reduce, proc_name)(ir, [by_name[n] for n in node_names], quant_tab)
    removed, added = [n.name for n in remove], [n.op_type for n in add]
    if not remove and not add:
        assert ir.to_onnx().SerializeToString() == before, "a rule that does not apply changed the graph"
        return removed, added, None
    ir.apply(remove, add)
    out = ir.to_onnx()
    onnx.checker.check_model(out, full_check=True)
    assert [i.name for i in out.graph.input] == [i.name for i in model.graph.input]
    assert_same_outputs(model, out)
    return removed, added, out


def op_counts(model: onnx.ModelProto) -> Dict[str, int]:
    counts: Dict[str, int] = {}
    for n in model.graph.node:
        counts[n.op_type] = counts.get(n.op_type, 0) + 1
    return counts


def reduced_ok(model: onnx.ModelProto, **kw):
    """tolm.reduce, then: the full checker passes, graph input names, output
    types and fixed output dims stay, numbers stay, and a second reduce
    changes nothing. Returns (reduced, report)."""
    reduced, report = tolm.reduce(model, **kw)
    onnx.checker.check_model(reduced, full_check=True)
    assert [i.name for i in reduced.graph.input] == [i.name for i in model.graph.input]
    for want, got in zip(model.graph.output, reduced.graph.output):
        assert got.type.tensor_type.elem_type == want.type.tensor_type.elem_type, want.name
        dims = [(d.dim_value or None) for d in want.type.tensor_type.shape.dim]
        assert [(d.dim_value if w else None) for d, w in zip(got.type.tensor_type.shape.dim, dims)] == dims
    assert_same_outputs(model, reduced)
    again, _ = tolm.reduce(reduced, **kw)
    assert again.SerializeToString() == reduced.SerializeToString(), "a second reduce changed the model"
    return reduced, report


def neg(src: str, dst: str = "y"):
    """A Neg node tuple named after its output: a reader that keeps a tensor in use."""
    return ("Neg", [src], [dst], {"name": "neg_" + dst})


def const_of(model: onnx.ModelProto, name: str) -> np.ndarray:
    return numpy_helper.to_array(next(i for i in model.graph.initializer if i.name == name))


def node_of(model: onnx.ModelProto, name: str) -> onnx.NodeProto:
    return next(n for n in model.graph.node if n.name == name)
