"""Small models written the way exporters write what folding is for: shape
arithmetic on static shapes, torch's "same" padding chain, attention masks
from static sizes, Identity on weights, If on a condition fixed by shapes.
Shared by the folding tests and the fuzzer's seed checks."""

from __future__ import annotations

from typing import Dict, List

import numpy as np
import onnx
from onnx import TensorProto, helper, numpy_helper

I64_MIN = np.iinfo(np.int64).min


class _G:
    def __init__(self, opset: int = 17):
        self.nodes: List[onnx.NodeProto] = []
        self.inits: List[onnx.TensorProto] = []
        self.opset = opset
        self.k = 0

    def const(self, value, dtype=None) -> str:
        self.k += 1
        name = f"c{self.k}"
        arr = np.asarray(value, dtype=dtype) if dtype is not None else np.asarray(value)
        if arr.dtype == np.int32 and dtype is None:
            arr = arr.astype(np.int64)
        self.inits.append(numpy_helper.from_array(arr, name))
        return name

    def op(self, op: str, ins, n_out: int = 1, **attrs):
        self.k += 1
        outs = [f"t{self.k}_{i}" for i in range(n_out)]
        self.nodes.append(helper.make_node(op, list(ins), outs, name=f"{op.lower()}{self.k}", **attrs))
        return outs[0] if n_out == 1 else outs

    def model(self, inputs: Dict[str, tuple], outputs: Dict[str, str]) -> onnx.ModelProto:
        # Graph outputs are renamed to their public names through the last node.
        for public, t in outputs.items():
            for n in self.nodes:
                for i, o in enumerate(n.output):
                    if o == t:
                        n.output[i] = public
                for i, x in enumerate(n.input):
                    if x == t:
                        n.input[i] = public
        g = helper.make_graph(
            self.nodes,
            "m",
            [helper.make_tensor_value_info(k, e, s) for k, (e, s) in inputs.items()],
            [helper.make_empty_tensor_value_info(k) for k in outputs],
            self.inits,
        )
        m = helper.make_model(g, opset_imports=[helper.make_opsetid("", self.opset)])
        m.ir_version = 8
        inferred = onnx.shape_inference.infer_shapes(m, strict_mode=True, data_prop=True)
        typed = {vi.name: vi for vi in inferred.graph.output}
        del m.graph.output[:]
        m.graph.output.extend(typed[k] for k in outputs)
        onnx.checker.check_model(m, full_check=True)
        return m


def bert_shape_block() -> onnx.ModelProto:
    """Shape -> Gather -> Unsqueeze -> Concat -> Reshape, then the heads'
    Transpose: the split into heads of every transformer export."""
    g = _G()
    s = g.op("Shape", ["x"])
    b = g.op("Unsqueeze", [g.op("Gather", [s, g.const(0)], axis=0), g.const([0])])
    n = g.op("Unsqueeze", [g.op("Gather", [s, g.const(1)], axis=0), g.const([0])])
    target = g.op("Concat", [b, n, g.const([4]), g.const([8])], axis=0)
    r = g.op("Reshape", ["x", target])
    t = g.op("Transpose", [r], perm=[0, 2, 1, 3])
    return g.model({"x": (TensorProto.FLOAT, [2, 6, 32])}, {"y": t})


def torch_same_pad_conv() -> onnx.ModelProto:
    """torch's F.pad as exported in front of a convolution: the pad widths
    go ConstantOfShape -> Concat -> Reshape -> Slice -> Transpose -> Reshape
    -> Cast -> Pad."""
    g = _G()
    widths = g.const([1, 1, 2, 0])  # last axis first, as torch writes them
    count = g.op("Sub", [g.op("Mul", [g.const([2]), g.const([4])]), g.op("Shape", [widths])])
    zeros = g.op("ConstantOfShape", [count], value=numpy_helper.from_array(np.array([0], np.int64)))
    pairs = g.op("Reshape", [g.op("Concat", [widths, zeros], axis=0), g.const([-1, 2])])
    flipped = g.op("Slice", [pairs, g.const([-1]), g.const([I64_MIN]), g.const([0]), g.const([-1])])
    pads = g.op("Cast", [g.op("Reshape", [g.op("Transpose", [flipped], perm=[1, 0]), g.const([-1])])], to=TensorProto.INT64)
    padded = g.op("Pad", ["x", pads, g.const(np.float32(0.0))], mode="constant")
    rng = np.random.default_rng(1)
    w = g.const(rng.standard_normal((4, 3, 3, 3)).astype(np.float32) / 3)
    y = g.op("Conv", [padded, w, g.const(rng.standard_normal(4).astype(np.float32))], kernel_shape=[3, 3])
    return g.model({"x": (TensorProto.FLOAT, [1, 3, 8, 8])}, {"y": y})


def attention_mask() -> onnx.ModelProto:
    """A causal mask and position embeddings built from static sizes with
    Range, Expand, Equal and Where, added to attention scores."""
    g = _G()
    n = g.op("Gather", [g.op("Shape", ["scores"]), g.const(2)], axis=0)
    pos = g.op("Range", [g.const(np.int64(0)), n, g.const(np.int64(1))])
    row = g.op("Unsqueeze", [pos, g.const([0])])
    col = g.op("Unsqueeze", [pos, g.const([1])])
    future = g.op("Greater", [row, col])
    sizes = g.op("Concat", [g.const([1, 1]), g.op("Unsqueeze", [n, g.const([0])]), g.op("Unsqueeze", [n, g.const([0])])], axis=0)
    allowed = g.op("Equal", [g.op("Expand", [future, sizes]), g.const(np.array(False))])
    bias = g.op("Where", [allowed, g.const(np.float32(0.0)), g.const(np.float32(-1e4))])
    masked = g.op("Add", ["scores", bias])
    table = g.const(np.random.default_rng(2).standard_normal((16, 6)).astype(np.float32))
    ids = g.op("Expand", [row, g.const([2, 1])])
    emb = g.op("Gather", [table, ids], axis=0)
    return g.model(
        {"scores": (TensorProto.FLOAT, [2, 3, 6, 6]), "h": (TensorProto.FLOAT, [2, 6, 6])},
        {"y": masked, "z": g.op("Add", ["h", emb])},
    )


def identity_on_weights() -> onnx.ModelProto:
    """Identity nodes reading stored weights, as tied weights are exported;
    one of them is a graph output."""
    g = _G()
    w = g.const(np.random.default_rng(3).standard_normal((4, 3)).astype(np.float32))
    a = g.op("MatMul", ["x", g.op("Identity", [w])])
    b = g.op("MatMul", ["x", g.op("Identity", [w])])
    return g.model({"x": (TensorProto.FLOAT, [2, 4])}, {"y": g.op("Add", [a, b]), "w_out": g.op("Identity", [w])})


def _branch(name: str, nodes, outputs, inits=()) -> onnx.GraphProto:
    return helper.make_graph(nodes, name, [], [helper.make_empty_tensor_value_info(o) for o in outputs], list(inits))


def constant_if() -> onnx.ModelProto:
    """If nodes whose conditions are fixed once shapes are static, one nested
    in a branch, with branch outputs that are an outer tensor and a constant."""
    inner = helper.make_node(
        "If",
        ["inner_cond"],
        ["inner_out"],
        name="inner_if",
        then_branch=_branch("it", [helper.make_node("Sigmoid", ["relu_out"], ["sig"])], ["sig"]),
        else_branch=_branch("ie", [helper.make_node("Neg", ["relu_out"], ["neg"])], ["neg"]),
    )
    then_b = _branch(
        "then",
        [
            helper.make_node("Relu", ["x"], ["relu_out"]),
            helper.make_node("Greater", ["size", "zero"], ["inner_cond"]),
            inner,
            helper.make_node("Identity", ["x"], ["passed"]),
        ],
        ["inner_out", "passed", "two"],
        [numpy_helper.from_array(np.array(0, np.int64), "zero"), numpy_helper.from_array(np.float32(2.0), "two")],
    )
    else_b = _branch(
        "else",
        [helper.make_node("Neg", ["x"], ["e0"]), helper.make_node("Abs", ["x"], ["e1"])],
        ["e0", "e1", "three"],
        [numpy_helper.from_array(np.float32(3.0), "three")],
    )
    nodes = [
        helper.make_node("Size", ["x"], ["size"], name="size"),
        helper.make_node("Equal", ["size", "six"], ["cond"], name="eq"),
        helper.make_node("If", ["cond"], ["a", "b", "k"], name="outer_if", then_branch=then_b, else_branch=else_b),
        helper.make_node("Mul", ["b", "k"], ["y"], name="mul"),
    ]
    g = helper.make_graph(
        nodes,
        "m",
        [helper.make_tensor_value_info("x", TensorProto.FLOAT, [2, 3])],
        [helper.make_tensor_value_info("a", TensorProto.FLOAT, [2, 3]), helper.make_tensor_value_info("y", TensorProto.FLOAT, [2, 3])],
        [numpy_helper.from_array(np.array(6, np.int64), "six")],
    )
    m = helper.make_model(g, opset_imports=[helper.make_opsetid("", 17)])
    m.ir_version = 8
    onnx.checker.check_model(m, full_check=True)
    return m


SCENARIOS = {
    "bert_shape_block": bert_shape_block,
    "torch_same_pad_conv": torch_same_pad_conv,
    "attention_mask": attention_mask,
    "identity_on_weights": identity_on_weights,
    "constant_if": constant_if,
}


def foldable_left(model: onnx.ModelProto) -> List[str]:
    """Nodes that compute from constants or static shapes alone: every input
    an initializer, a Shape or Size of a tensor with a static shape, an If
    on a constant condition. Constant nodes (a constant graph output keeps
    one as its producer) are not counted."""
    inferred = onnx.shape_inference.infer_shapes(model)
    inits = {i.name for i in model.graph.initializer}
    static = set()
    for vi in list(inferred.graph.value_info) + list(inferred.graph.input) + list(inferred.graph.output):
        tt = vi.type.tensor_type
        if tt.HasField("shape") and all(d.HasField("dim_value") for d in tt.shape.dim):
            static.add(vi.name)
    left = []
    for n in model.graph.node:
        ins = [i for i in n.input if i]
        if n.op_type == "Constant":
            continue
        if ins and all(i in inits for i in ins):
            left.append(f"{n.op_type} {n.name}")
        elif n.op_type in ("Shape", "Size") and ins and ins[0] in static:
            left.append(f"{n.op_type} {n.name}")
        elif n.op_type == "If" and ins[0] in inits:
            left.append(f"{n.op_type} {n.name}")
    return left
