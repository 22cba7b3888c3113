"""Greedy shrinking of a failing model to a small reproducer.

Each round tries, and keeps whatever still fails the same way:
  - dropping every node that no graph output needs, and unused constants and inputs;
  - dropping one graph output (at least one stays);
  - deleting runs of nodes, then single nodes: a deleted node's readers read
    one of its inputs of the same type and shape instead, or, when there is
    none, its output becomes a graph input;
  - replacing a float constant by a smaller one (one element broadcast, or
    one value repeated).
Rounds repeat until nothing more goes or the budget is spent. Whether a
candidate "still fails" (valid model, same failure class) is the caller's
predicate, so crashes can be judged in a separate process.
"""

from __future__ import annotations

import time
from typing import Callable, Dict, Iterator, List, Optional, Tuple

import numpy as np
import onnx
from onnx import helper, numpy_helper

Predicate = Callable[[onnx.ModelProto], bool]


def _copy(model: onnx.ModelProto) -> onnx.ModelProto:
    m = onnx.ModelProto()
    m.CopyFrom(model)
    return m


def _infer(model: onnx.ModelProto) -> Optional[onnx.ModelProto]:
    """The model with value_info recomputed, or None when shapes do not check."""
    del model.graph.value_info[:]
    try:
        return onnx.shape_inference.infer_shapes(model, check_type=True, strict_mode=True)
    except Exception:  # noqa: BLE001
        return None


def _types(model: onnx.ModelProto) -> Dict[str, onnx.TypeProto]:
    g = model.graph
    types = {vi.name: vi.type for vi in list(g.input) + list(g.value_info) + list(g.output)}
    for t in g.initializer:
        types[t.name] = helper.make_tensor_type_proto(t.data_type, list(t.dims))
    for n in g.node:
        if n.op_type == "Constant" and n.attribute and n.attribute[0].name == "value":
            t = n.attribute[0].t
            types[n.output[0]] = helper.make_tensor_type_proto(t.data_type, list(t.dims))
    return types


def _constant_names(model: onnx.ModelProto) -> set:
    g = model.graph
    return {t.name for t in g.initializer} | {o for n in g.node if n.op_type == "Constant" for o in n.output}


def drop_dead(model: onnx.ModelProto) -> onnx.ModelProto:
    """Drops the nodes no graph output needs, then what ``drop_unused`` drops."""
    m = _copy(model)
    g = m.graph
    needed = {o.name for o in g.output}
    keep = []
    for n in reversed(list(g.node)):
        if any(o in needed for o in n.output):
            keep.append(n)
            needed.update(i for i in n.input if i)
    keep.reverse()
    del g.node[:]
    g.node.extend(keep)
    return drop_unused(m)


def drop_unused(model: onnx.ModelProto) -> onnx.ModelProto:
    """Drops initializers and graph inputs that nothing reads."""
    m = _copy(model)
    g = m.graph
    needed = {o.name for o in g.output} | {i for n in g.node for i in n.input}
    inits = [t for t in g.initializer if t.name in needed]
    del g.initializer[:]
    g.initializer.extend(inits)
    ins = [vi for vi in g.input if vi.name in needed]
    del g.input[:]
    g.input.extend(ins)
    return m


def drop_output(model: onnx.ModelProto, idx: int) -> onnx.ModelProto:
    m = _copy(model)
    del m.graph.output[idx]
    return m


def delete_node(model: onnx.ModelProto, idx: int) -> Optional[onnx.ModelProto]:
    m = _copy(model)
    g = m.graph
    node = g.node[idx]
    types = _types(m)
    consts = _constant_names(m)
    out_names = [o.name for o in g.output]
    read = {i for k, n in enumerate(g.node) if k != idx for i in n.input}
    renames: Dict[str, str] = {}
    new_inputs = []
    for o in node.output:
        if not o or (o not in read and o not in out_names):
            continue
        t = types.get(o)
        if t is None:
            return None
        same = [i for i in node.input if i and i in types and types[i] == t]
        same.sort(key=lambda i: i in consts)  # prefer a tensor over a constant
        if same:
            renames[o] = same[0]
        else:
            new_inputs.append(helper.make_value_info(o, t))
    del g.node[idx]
    for n in g.node:
        for k, i in enumerate(n.input):
            if i in renames:
                n.input[k] = renames[i]
    kept = []
    names = set()
    for vi in g.output:
        name = renames.get(vi.name, vi.name)
        if name in names:
            continue
        names.add(name)
        vi.name = name
        kept.append(vi)
    del g.output[:]
    g.output.extend(kept)
    g.input.extend(new_inputs)
    return m


def cut_after(model: onnx.ModelProto, idx: int) -> Optional[onnx.ModelProto]:
    """The graph up to node ``idx``: its first output is the only graph
    output, and what no longer leads there goes. Shape-changing chains
    behind the failing node cannot be deleted one by one, but they can be
    cut off."""
    m = _copy(model)
    node = m.graph.node[idx]
    t = _types(m).get(node.output[0]) if node.output and node.output[0] else None
    if t is None:
        return None
    del m.graph.output[:]
    m.graph.output.append(helper.make_value_info(node.output[0], t))
    return drop_dead(m)


def delete_nodes(model: onnx.ModelProto, indices) -> Optional[onnx.ModelProto]:
    """``delete_node`` for each index, last first."""
    m = model
    for i in sorted(indices, reverse=True):
        if i >= len(m.graph.node):
            continue
        m = delete_node(m, i)
        if m is None:
            return None
    return m


def _const_tensors(model: onnx.ModelProto) -> List[Tuple[str, onnx.TensorProto]]:
    g = model.graph
    out = [(t.name, t) for t in g.initializer]
    for n in g.node:
        if n.op_type == "Constant" and n.attribute and n.attribute[0].name == "value":
            out.append((n.output[0], n.attribute[0].t))
    return out


def simpler_constants(model: onnx.ModelProto, name: str) -> Iterator[onnx.ModelProto]:
    """The model with float constant ``name`` made smaller: one element that
    broadcasts the same way, then one value repeated over its shape."""
    arr = next((numpy_helper.to_array(t) for n, t in _const_tensors(model) if n == name), None)
    if arr is None or arr.size <= 1 or not np.issubdtype(arr.dtype, np.floating):
        return
    first = arr.reshape(-1)[0]
    variants = [np.full((1,) * arr.ndim, first, dtype=arr.dtype)]
    if not np.all(arr == first):
        variants.append(np.full(arr.shape, first, dtype=arr.dtype))
    for new in variants:
        m = _copy(model)
        _replace_const(m, name, numpy_helper.from_array(new, name))
        yield m


def _replace_const(model: onnx.ModelProto, name: str, tensor: onnx.TensorProto) -> None:
    g = model.graph
    for t in g.initializer:
        if t.name == name:
            t.CopyFrom(tensor)
            return
    for n in g.node:
        if n.op_type == "Constant" and n.output[0] == name:
            n.attribute[0].t.CopyFrom(tensor)
            return


def shrink(
    model: onnx.ModelProto,
    still_fails: Predicate,
    max_evals: int = 400,
    time_budget: float = 60.0,
) -> Tuple[onnx.ModelProto, int]:
    """The smallest model found that ``still_fails``; also the number of
    candidates tried. ``model`` itself is assumed to fail."""
    deadline = time.monotonic() + time_budget
    current = _infer(_copy(model)) or _copy(model)
    evals = 0

    def attempt(cand: Optional[onnx.ModelProto]) -> bool:
        nonlocal current, evals
        if cand is None or evals >= max_evals or time.monotonic() > deadline:
            return False
        cand = _infer(cand)
        if cand is None:
            return False
        if cand.SerializeToString() == current.SerializeToString():
            return False
        evals += 1
        if still_fails(cand):
            current = cand
            return True
        return False

    def spent() -> bool:
        return evals >= max_evals or time.monotonic() > deadline

    progress = True
    while progress and not spent():
        progress = False
        progress |= attempt(drop_dead(current)) or attempt(drop_unused(current))
        for i in reversed(range(len(current.graph.output))):
            if len(current.graph.output) > 1 and i < len(current.graph.output):
                progress |= attempt(drop_output(current, i))
        size = len(current.graph.node) // 2
        while size >= 2 and not spent():  # whole runs of nodes first: fewer tries when most can go
            for end in range(len(current.graph.node), 0, -size):
                progress |= attempt(delete_nodes(current, range(max(0, end - size), end)))
            size //= 2
        for i in reversed(range(len(current.graph.node))):
            if spent():
                break
            if i < len(current.graph.node):
                progress |= attempt(delete_node(current, i))
        if not progress:
            for i in range(len(current.graph.node)):
                if spent() or i >= len(current.graph.node):
                    break
                if attempt(cut_after(current, i)):
                    progress = True
                    break
        if not progress:
            for name, _ in _const_tensors(current):
                for cand in simpler_constants(current, name):
                    if attempt(cand):
                        progress = True
                        break
    return current, evals
