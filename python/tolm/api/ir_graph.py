"""The IR graph that rules work on.

``IRGraph`` takes an ``onnx.ModelProto``, serialized model bytes or a path.
Before the graph is built, a model that lacks shapes for some node outputs goes
through ONNX shape inference (with data propagation, so that shape-computing
subgraphs give concrete shapes); whatever is still unknown is inferred by the
native loader.
"""

from __future__ import annotations

import os
from typing import Dict, Iterable, List, Mapping, Optional, Sequence, Union

import onnx

from tolm.api.rules import reduce as _reduce

LoadError = _reduce.LoadError
Node = _reduce.Node
to_np_type = _reduce.to_np_type

ELEMENTWISE_ALU_OPS = list(_reduce.ELEMENTWISE_ALU_OPS)
ACTIVATION_OPS = list(_reduce.ACTIVATION_OPS)
REDUCE_OPS = list(_reduce.REDUCE_OPS)

TARGETS = tuple("npu_" + c for c in "abcdefgh")

ModelLike = Union[onnx.ModelProto, bytes, bytearray, memoryview, str, "os.PathLike[str]"]


def check_target(target: str) -> str:
    if target not in TARGETS:
        raise ValueError(f"unknown target '{target}' (expected one of npu_a .. npu_h)")
    return target


# The key under which normalize_input_shapes keeps dimensions given without
# a name: they belong to the model's one graph input.
SINGLE_INPUT = ""


def normalize_input_shapes(input_shapes, what: str = "input_shapes") -> Dict[str, List[int]]:
    """Checks input shapes: a mapping name -> dims (each a non-negative
    integer), or bare dims for a model with one graph input (kept under the
    key ``SINGLE_INPUT``). Raises TypeError or ValueError naming ``what``."""
    if input_shapes is None:
        return {}
    if isinstance(input_shapes, (str, bytes)):
        raise TypeError(f"{what} must be a mapping from input name to a list of dimensions, got a string")
    if not isinstance(input_shapes, Mapping):
        if not hasattr(input_shapes, "__iter__"):
            raise TypeError(
                f"{what} must be a mapping from input name to a list of dimensions, got {type(input_shapes).__name__}"
            )
        input_shapes = {SINGLE_INPUT: input_shapes}
    out: Dict[str, List[int]] = {}
    for name, dims in input_shapes.items():
        if not isinstance(name, str):
            raise TypeError(f"{what}: input names must be strings, got {name!r}")
        label = f"{what}['{name}']" if name else what
        if isinstance(dims, (str, bytes)) or not hasattr(dims, "__iter__"):
            raise TypeError(f"{label} must be a list of integers, got {dims!r}")
        shape = []
        for d in dims:
            if isinstance(d, bool) or not hasattr(d, "__index__"):
                raise TypeError(f"{label} must be a list of integers, got {list(dims)!r}")
            d = int(d)
            if d < 0:
                raise ValueError(f"{label} has a negative dimension: {list(dims)!r}")
            shape.append(d)
        out[name] = shape
    return out


def resolve_single_input(shapes: Dict[str, List[int]], input_names: Sequence[str], what: str = "input_shapes"):
    """Gives bare dimensions the name of the model's one graph input."""
    if SINGLE_INPUT not in shapes:
        return shapes
    if len(input_names) != 1:
        raise ValueError(
            f"{what} gives dimensions without an input name, and the model has {len(input_names)} graph inputs"
            f" ({', '.join(input_names)}): name the input"
        )
    out = dict(shapes)
    out[input_names[0]] = out.pop(SINGLE_INPUT)
    return out


def read_model_bytes(model: ModelLike) -> bytes:
    """Serialized model bytes from a ModelProto, bytes or a path."""
    if isinstance(model, onnx.ModelProto):
        return model.SerializeToString()
    if isinstance(model, (bytes, bytearray, memoryview)):
        return bytes(model)
    if isinstance(model, (str, os.PathLike)):
        with open(os.fspath(model), "rb") as f:
            return f.read()
    raise TypeError(f"expected an onnx.ModelProto, serialized bytes or a path, got {type(model).__name__}")


def _has_shape(vi: onnx.ValueInfoProto) -> bool:
    t = vi.type
    return t.HasField("tensor_type") and t.tensor_type.HasField("shape")


def _missing_shapes(graph: onnx.GraphProto) -> bool:
    known = {vi.name for vi in graph.value_info if _has_shape(vi)}
    known.update(vi.name for vi in graph.output if _has_shape(vi))
    known.update(init.name for init in graph.initializer)
    return any(out and out not in known for node in graph.node for out in node.output)


def check_fixed_dims(graph: onnx.GraphProto, shapes: Dict[str, List[int]]) -> None:
    """Given input shapes may fix symbolic or unknown dimensions only: the rank
    and every dimension the model fixes must stay. Raises LoadError, worded as
    the native loader words it."""
    for vi in graph.input:
        if vi.name not in shapes or not vi.type.tensor_type.HasField("shape"):
            continue
        given, dims = shapes[vi.name], vi.type.tensor_type.shape.dim
        if len(dims) != len(given):
            raise LoadError(
                f"input_shapes gives {vi.name} rank {len(given)}, the model's input has rank {len(dims)}"
            )
        for k, (d, g) in enumerate(zip(dims, given)):
            if d.HasField("dim_value") and d.dim_value > 0 and d.dim_value != g:
                raise LoadError(
                    f"input_shapes gives {vi.name} dimension {k} as {g}, the model's input fixes it at {d.dim_value}"
                )


def _fix_input_dims(model: onnx.ModelProto, shapes: Dict[str, List[int]]) -> None:
    for vi in model.graph.input:
        if vi.name not in shapes or not vi.type.HasField("tensor_type"):
            continue
        dims = vi.type.tensor_type.shape.dim
        del dims[:]
        for d in shapes[vi.name]:
            dims.add().dim_value = d


# The native loader's own operator inference knows operator sets up to this
# version; models of later sets that lack shapes go through ONNX's Python
# inference first, which knows the current operator definitions.
NATIVE_INFERENCE_OPSET = 17


def _read_varint(buf: bytes, pos: int):
    value = shift = 0
    while True:
        b = buf[pos]
        pos += 1
        value |= (b & 0x7F) << shift
        if b < 0x80:
            return value, pos
        shift += 7


def default_opset(data: bytes) -> Optional[int]:
    """The default-domain opset of serialized model bytes, read from the
    top-level fields only (the graph is skipped, not parsed). None if the bytes
    do not read as a model."""
    pos, end, found = 0, len(data), None
    try:
        while pos < end:
            key, pos = _read_varint(data, pos)
            field, wire = key >> 3, key & 7
            if wire == 0:
                _, pos = _read_varint(data, pos)
            elif wire == 1:
                pos += 8
            elif wire == 5:
                pos += 4
            elif wire == 2:
                length, pos = _read_varint(data, pos)
                if field == 8:  # opset_import
                    domain, version, p, stop = "", None, pos, pos + length
                    while p < stop:
                        k, p = _read_varint(data, p)
                        if k == (1 << 3 | 2):
                            n, p = _read_varint(data, p)
                            domain = data[p:p + n].decode("utf-8", "replace")
                            p += n
                        elif k == (2 << 3 | 0):
                            version, p = _read_varint(data, p)
                        else:
                            return None
                    if domain in ("", "ai.onnx") and version is not None:
                        found = version
                pos += length
            else:
                return None
    except IndexError:
        return None
    return found if pos == end else None


def prepare_model_bytes(model: ModelLike, input_shapes: Optional[Dict[str, List[int]]] = None) -> bytes:
    """Model bytes ready for the native loader. A model of an operator set newer
    than the loader's inference knows, and lacking shapes, gets ONNX's shape
    inference first. Bytes that are no valid model pass unchanged: the loader
    reports what is wrong with them."""
    data = read_model_bytes(model)
    opset = default_opset(data)
    if opset is None or opset <= NATIVE_INFERENCE_OPSET:
        return data
    proto = model if isinstance(model, onnx.ModelProto) else None
    if proto is None:
        try:
            proto = onnx.load_from_string(data)
        except Exception:
            return data
    if input_shapes:
        inits = {t.name for t in proto.graph.initializer}
        graph_inputs = [vi.name for vi in proto.graph.input if vi.name not in inits]
        input_shapes = resolve_single_input(input_shapes, graph_inputs)
        for name in input_shapes:
            if name not in graph_inputs:
                raise LoadError(
                    f"input_shapes names {name}, which is not a graph input (graph inputs: {', '.join(graph_inputs)})"
                )
        check_fixed_dims(proto.graph, input_shapes)
    if not (input_shapes or _missing_shapes(proto.graph)):
        return data
    work = onnx.ModelProto()
    work.CopyFrom(proto)
    if input_shapes:
        _fix_input_dims(work, input_shapes)
    try:
        work = onnx.shape_inference.infer_shapes(work, data_prop=True)
    except Exception:
        # ONNX's inference gives up on some models (unknown domains, partial
        # shapes); the native loader infers what it can on its own.
        pass
    return work.SerializeToString()


class _OpsetEntry:
    """One opset_import entry; the default domain's version is the graph's."""

    def __init__(self, ir: "IRGraph", domain: str, version: int):
        self._ir = ir
        self.domain = domain
        self._version = version

    @property
    def version(self) -> int:
        return self._ir.opset if self.domain in ("", "ai.onnx") else self._version

    @version.setter
    def version(self, v: int) -> None:
        if self.domain in ("", "ai.onnx"):
            self._ir.opset = int(v)
        self._version = int(v)

    def __repr__(self) -> str:
        return f"opset_import(domain={self.domain!r}, version={self.version})"


class _ModelView:
    """What rules read of the model around the graph: its opsets and graph."""

    def __init__(self, ir: "IRGraph"):
        self._ir = ir
        shell = onnx.ModelProto()
        if ir.model_shell:
            shell.ParseFromString(ir.model_shell)
        self.ir_version = shell.ir_version
        self.producer_name = shell.producer_name
        entries = [_OpsetEntry(ir, o.domain, o.version) for o in shell.opset_import]
        entries.sort(key=lambda e: e.domain not in ("", "ai.onnx"))
        if not entries or entries[0].domain not in ("", "ai.onnx"):
            entries.insert(0, _OpsetEntry(ir, "", ir.opset))
        self.opset_import = entries

    @property
    def graph(self):
        return self._ir.graph


class IRGraph(_reduce.IRGraph):
    """The graph object rules receive as ``ir``."""

    def __init__(
        self,
        model: Optional[ModelLike] = None,
        input_shapes: Optional[Mapping[str, Sequence[int]]] = None,
        target: str = "npu_c",
        external_data_dir: Optional[Union[str, "os.PathLike[str]"]] = None,
    ):
        """``model`` as a path reads tensor data kept in external files from
        the model's folder; for bytes or a ModelProto that refer to such
        files, ``external_data_dir`` says where they are."""
        check_target(target)
        if model is None:
            super().__init__()
            self.npu_target = target
        else:
            shapes = normalize_input_shapes(input_shapes)
            if external_data_dir is None and isinstance(model, (str, os.PathLike)):
                external_data_dir = os.path.dirname(os.path.abspath(os.fspath(model)))
            data = prepare_model_bytes(model, shapes)
            super().__init__(data, shapes or None, target, external_data_dir=external_data_dir)
        self._model_view: Optional[_ModelView] = None

    @property
    def model(self) -> _ModelView:
        if self._model_view is None:
            self._model_view = _ModelView(self)
        return self._model_view

    def to_onnx(self) -> onnx.ModelProto:
        """The graph as it stands, as an ONNX model."""
        return onnx.load_from_string(self.to_bytes())

    def apply(self, remove: Iterable, add: Iterable) -> None:
        """Applies one rule result as the driver does; ``add`` may hold
        ``onnx.NodeProto`` objects from ``onnx.helper.make_node``."""
        super().apply(list(remove), list(add))


__all__ = [
    "IRGraph",
    "Node",
    "LoadError",
    "to_np_type",
    "ELEMENTWISE_ALU_OPS",
    "ACTIVATION_OPS",
    "REDUCE_OPS",
    "TARGETS",
    "SINGLE_INPUT",
]
