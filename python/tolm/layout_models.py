"""Models laid out the way exporters from channels-last frameworks write them:
a Transpose to channels-first before every Conv and one back after it, and
attention heads wrapped in Transpose nodes. Used by the benchmarks and tests."""

from __future__ import annotations

import numpy as np
import onnx
from onnx import TensorProto, helper, numpy_helper


class _Builder:
    def __init__(self, seed: int):
        self.rng = np.random.default_rng(seed)
        self.nodes = []
        self.inits = []

    def const(self, name: str, value) -> str:
        self.inits.append(numpy_helper.from_array(np.asarray(value), name))
        return name

    def weight(self, name: str, shape, scale: float = 0.1) -> str:
        return self.const(name, (self.rng.standard_normal(shape) * scale).astype(np.float32))

    def node(self, op: str, inputs, outputs, name: str, **attrs) -> str:
        self.nodes.append(helper.make_node(op, inputs, outputs, name=name, **attrs))
        return outputs[0]


def channels_last_cnn(blocks: int, channels: int = 8, size: int = 8, seed: int = 0,
                      channel_const_rank: int = 4) -> onnx.ModelProto:
    """`blocks` residual blocks over an NHWC tensor. Each block: Transpose to
    NCHW, Conv, Transpose back; then in NHWC a per-channel Mul and Add, Sigmoid
    gate, a Split over channels into a Relu branch and a Clip branch with a
    Slice, Concat, and the residual Add.

    The per-channel constants have shape [1, 1, 1, C] (`channel_const_rank` 4)
    or [C] (1), as TensorFlow converters and hand-written graphs store them;
    both broadcast alike."""
    if channel_const_rank not in (1, 4):
        raise ValueError(f"channel_const_rank is 1 or 4, got {channel_const_rank}")
    b = _Builder(seed)
    c, h, w = channels, size, size
    per_channel = (1, 1, 1, c) if channel_const_rank == 4 else (c,)
    x = "x"
    for i in range(blocks):
        p = f"b{i}_"
        t = b.node("Transpose", [x], [p + "nchw"], p + "to_nchw", perm=[0, 3, 1, 2])
        t = b.node("Conv", [t, b.weight(p + "w", (c, c, 3, 3)), b.weight(p + "cb", (c,))], [p + "conv"],
                   p + "conv", pads=[1, 1, 1, 1], kernel_shape=[3, 3])
        t = b.node("Transpose", [t], [p + "nhwc"], p + "to_nhwc", perm=[0, 2, 3, 1])
        t = b.node("Mul", [t, b.weight(p + "scale", per_channel, 0.05)], [p + "scaled"], p + "scale")
        t = b.node("Add", [t, b.weight(p + "shift", per_channel)], [p + "shifted"], p + "shift")
        g = b.node("Sigmoid", [t], [p + "gate"], p + "sigmoid")
        t = b.node("Mul", [t, g], [p + "gated"], p + "gated")
        half = c // 2
        s0, s1 = p + "s0", p + "s1"
        b.node("Split", [t, b.const(p + "split", np.array([half, c - half], np.int64))], [s0, s1], p + "split",
               axis=3)
        r0 = b.node("Relu", [s0], [p + "r0"], p + "relu")
        r1 = b.node("Clip", [s1, b.const(p + "lo", np.array(-1.0, np.float32)),
                              b.const(p + "hi", np.array(1.0, np.float32))], [p + "r1"], p + "clip")
        r1 = b.node("Slice", [r1, b.const(p + "st", np.array([0], np.int64)),
                              b.const(p + "en", np.array([c - half], np.int64)),
                              b.const(p + "ax", np.array([3], np.int64))], [p + "r1s"], p + "slice")
        t = b.node("Concat", [r0, r1], [p + "cat"], p + "concat", axis=3)
        out = "y" if i == blocks - 1 else p + "out"
        x = b.node("Add", [t, x], [out], p + "residual")
    graph = helper.make_graph(
        b.nodes, "channels_last_cnn",
        [helper.make_tensor_value_info("x", TensorProto.FLOAT, [1, h, w, c])],
        [helper.make_tensor_value_info("y", TensorProto.FLOAT, [1, h, w, c])], b.inits)
    model = helper.make_model(graph, opset_imports=[helper.make_opsetid("", 13)], producer_name="tolm-bench")
    model.ir_version = 8
    return model


def transformer_encoder(layers: int, seq: int = 16, dim: int = 32, heads: int = 4,
                        seed: int = 0) -> onnx.ModelProto:
    """`layers` encoder layers as exporters write them: Q, K, V projections,
    Reshape to heads, Transpose to [batch, heads, seq, head_dim] (K to
    [.., head_dim, seq]), MatMul, Softmax, MatMul, Transpose back, Reshape,
    output projection, residual Add, LayerNormalization-free feed-forward with
    a second residual."""
    b = _Builder(seed)
    hd = dim // heads
    x = "x"
    to_heads = b.const("to_heads", np.array([1, seq, heads, hd], np.int64))
    to_model = b.const("to_model", np.array([1, seq, dim], np.int64))
    scale = b.const("scale", np.array(1.0 / np.sqrt(hd), np.float32))
    for i in range(layers):
        p = f"l{i}_"

        def proj(tag, inp, out_dim=dim):
            t = b.node("MatMul", [inp, b.weight(p + tag + "_w", (dim if tag != "ff2" else 2 * dim, out_dim),
                                               0.2)], [p + tag], p + tag)
            return b.node("Add", [t, b.weight(p + tag + "_b", (out_dim,))], [p + tag + "_b_out"], p + tag + "_bias")

        q = b.node("Reshape", [proj("q", x), to_heads], [p + "q4"], p + "q_heads")
        k = b.node("Reshape", [proj("k", x), to_heads], [p + "k4"], p + "k_heads")
        v = b.node("Reshape", [proj("v", x), to_heads], [p + "v4"], p + "v_heads")
        q = b.node("Transpose", [q], [p + "qt"], p + "q_tp", perm=[0, 2, 1, 3])
        k = b.node("Transpose", [k], [p + "kt"], p + "k_tp", perm=[0, 2, 3, 1])
        v = b.node("Transpose", [v], [p + "vt"], p + "v_tp", perm=[0, 2, 1, 3])
        s = b.node("MatMul", [q, k], [p + "scores"], p + "qk")
        s = b.node("Mul", [s, scale], [p + "scaled"], p + "scale")
        s = b.node("Softmax", [s], [p + "probs"], p + "softmax", axis=-1)
        a = b.node("MatMul", [s, v], [p + "ctx"], p + "av")
        a = b.node("Transpose", [a], [p + "ctx_t"], p + "ctx_tp", perm=[0, 2, 1, 3])
        a = b.node("Reshape", [a, to_model], [p + "ctx3"], p + "ctx_merge")
        a = proj("o", a)
        x1 = b.node("Add", [a, x], [p + "res1"], p + "res1")
        f = b.node("Relu", [proj("ff1", x1, 2 * dim)], [p + "ff_act"], p + "ff_relu")
        f = proj("ff2", f)
        out = "y" if i == layers - 1 else p + "out"
        x = b.node("Add", [f, x1], [out], p + "res2")
    graph = helper.make_graph(
        b.nodes, "transformer_encoder",
        [helper.make_tensor_value_info("x", TensorProto.FLOAT, [1, seq, dim])],
        [helper.make_tensor_value_info("y", TensorProto.FLOAT, [1, seq, dim])], b.inits)
    model = helper.make_model(graph, opset_imports=[helper.make_opsetid("", 13)], producer_name="tolm-bench")
    model.ir_version = 8
    return model


def multi_branch_blocks(blocks: int, channels: int = 8, size: int = 8, seed: int = 0) -> onnx.ModelProto:
    """`blocks` multi-branch blocks over an NCHW tensor, as exporters write
    grouped branches. Each block: a 1x1 Conv; a channels-last stage (Transpose
    to NHWC, Split over channels, Relu and Sigmoid pieces added back together,
    Transpose to NCHW, the half-width result doubled by a Concat); a flattened
    stage (Reshape to [N, C, H*W], Split over channels, each piece reshaped
    back to a map: one through a channels-last Sigmoid between two Transpose
    nodes, the other through a Tanh; each flattened again, joined by a
    Concat, reshaped to a map and through a Relu)."""
    b = _Builder(seed)
    c, h, w = channels, size, size
    half = c // 2
    x = "x"
    for i in range(blocks):
        p = f"b{i}_"
        t = b.node("Conv", [x, b.weight(p + "w", (c, c, 1, 1)), b.weight(p + "cb", (c,))], [p + "conv"], p + "conv")
        t = b.node("Transpose", [t], [p + "nhwc"], p + "to_nhwc", perm=[0, 2, 3, 1])
        lens = b.const(p + "halves", np.array([half, half], np.int64))
        b.node("Split", [t, lens], [p + "a0", p + "a1"], p + "split_nhwc", axis=3)
        r = b.node("Relu", [p + "a0"], [p + "ar"], p + "relu")
        s = b.node("Sigmoid", [p + "a1"], [p + "as"], p + "sigmoid")
        t = b.node("Add", [r, s], [p + "sum"], p + "add")
        t = b.node("Transpose", [t], [p + "nchw"], p + "to_nchw", perm=[0, 3, 1, 2])
        t = b.node("Concat", [t, t], [p + "wide"], p + "widen", axis=1)
        flat = b.const(p + "flat_shape", np.array([1, c, h * w], np.int64))
        t = b.node("Reshape", [t, flat], [p + "flat"], p + "flatten")
        b.node("Split", [t, lens], [p + "f0", p + "f1"], p + "split_flat", axis=1)
        piece = b.const(p + "piece", np.array([1, half, h, w], np.int64))
        piece_flat = b.const(p + "piece_flat", np.array([1, half, h * w], np.int64))
        u = b.node("Reshape", [p + "f0", piece], [p + "u"], p + "unflatten0")
        u = b.node("Transpose", [u], [p + "u_nhwc"], p + "u_to_nhwc", perm=[0, 2, 3, 1])
        u = b.node("Sigmoid", [u], [p + "u_act"], p + "u_sigmoid")
        u = b.node("Transpose", [u], [p + "u_nchw"], p + "u_to_nchw", perm=[0, 3, 1, 2])
        u = b.node("Reshape", [u, piece_flat], [p + "u_flat"], p + "u_flatten")
        v = b.node("Reshape", [p + "f1", piece], [p + "v"], p + "unflatten1")
        v = b.node("Tanh", [v], [p + "v_act"], p + "v_tanh")
        v = b.node("Reshape", [v, piece_flat], [p + "v_flat"], p + "v_flatten")
        t = b.node("Concat", [u, v], [p + "joined"], p + "join", axis=1)
        t = b.node("Reshape", [t, b.const(p + "map_shape", np.array([1, c, h, w], np.int64))], [p + "map"], p + "unflatten")
        x = b.node("Relu", [t], [p + "out"], p + "out")
    graph = helper.make_graph(
        b.nodes, "multi_branch_blocks",
        [helper.make_tensor_value_info("x", TensorProto.FLOAT, [1, c, h, w])],
        [helper.make_tensor_value_info(x, TensorProto.FLOAT, [1, c, h, w])],
        initializer=b.inits)
    model = helper.make_model(graph, opset_imports=[helper.make_opsetid("", 17)])
    model.ir_version = 8
    return model
