"""Synthetic models for the reduce benchmark: chains of Conv/Add blocks with the
redundant layout and no-op nodes that exporters leave behind."""
import numpy as np
import onnx
from onnx import TensorProto, helper

C, H, W = 4, 8, 8
NODES_PER_BLOCK = 11


def make_chain_model(num_nodes: int, opset: int = 17) -> onnx.ModelProto:
    """About `num_nodes` nodes; every block is Conv followed by pairs that cancel
    (Reshape there and back, Transpose there and back), no-op Reshape, Add 0,
    Mul 1, Cast to its own type, then Sigmoid and a residual Add (so values
    grow slowly along the chain and stay finite)."""
    blocks = max(1, num_nodes // NODES_PER_BLOCK)
    rng = np.random.default_rng(0)
    inits = [
        helper.make_tensor("w", TensorProto.FLOAT, [C, C, 1, 1],
                           (rng.standard_normal(C * C) * 0.3).astype(np.float32)),
        helper.make_tensor("b", TensorProto.FLOAT, [C], np.zeros(C, np.float32)),
        helper.make_tensor("flat", TensorProto.INT64, [3], [1, C, H * W]),
        helper.make_tensor("full", TensorProto.INT64, [4], [1, C, H, W]),
        helper.make_tensor("zero", TensorProto.FLOAT, [1], [0.0]),
        helper.make_tensor("one", TensorProto.FLOAT, [1], [1.0]),
    ]
    nodes = []
    value_info = []
    full = [1, C, H, W]
    nhwc = [1, H, W, C]
    x = "x"

    def vi(name, shape):
        value_info.append(helper.make_tensor_value_info(name, TensorProto.FLOAT, shape))

    for i in range(blocks):
        p = f"b{i}_"
        out = "y" if i == blocks - 1 else p + "out"
        nodes += [
            helper.make_node("Conv", [x, "w", "b"], [p + "c"], name=p + "conv"),
            helper.make_node("Reshape", [p + "c", "flat"], [p + "r1"], name=p + "rs1"),
            helper.make_node("Reshape", [p + "r1", "full"], [p + "r2"], name=p + "rs2"),
            helper.make_node("Transpose", [p + "r2"], [p + "t1"], name=p + "tp1", perm=[0, 2, 3, 1]),
            helper.make_node("Transpose", [p + "t1"], [p + "t2"], name=p + "tp2", perm=[0, 3, 1, 2]),
            helper.make_node("Reshape", [p + "t2", "full"], [p + "r3"], name=p + "rs3"),
            helper.make_node("Add", [p + "r3", "zero"], [p + "a0"], name=p + "add0"),
            helper.make_node("Mul", [p + "a0", "one"], [p + "m1"], name=p + "mul1"),
            helper.make_node("Cast", [p + "m1"], [p + "cs"], name=p + "cast", to=TensorProto.FLOAT),
            helper.make_node("Sigmoid", [p + "cs"], [p + "rl"], name=p + "act"),
            helper.make_node("Add", [p + "rl", x], [out], name=p + "res"),
        ]
        for t, s in [("c", full), ("r1", [1, C, H * W]), ("r2", full), ("t1", nhwc), ("t2", full),
                     ("r3", full), ("a0", full), ("m1", full), ("cs", full), ("rl", full)]:
            vi(p + t, s)
        if out != "y":
            vi(out, full)
        x = out
    graph = helper.make_graph(
        nodes, "chain",
        [helper.make_tensor_value_info("x", TensorProto.FLOAT, full)],
        [helper.make_tensor_value_info("y", TensorProto.FLOAT, full)],
        inits, value_info=value_info)
    return helper.make_model(graph, opset_imports=[helper.make_opsetid("", opset)],
                             producer_name="tolm-bench")


FOLD_BLOCK = 10


def make_fold_chain_model(num_nodes: int, opset: int = 17) -> onnx.ModelProto:
    """About `num_nodes` nodes in blocks of ten, one of them foldable: a
    Shape of the block's input (static) that a Reshape reads, or a Mul of two
    constants that an Add reads, by turns; the other nine compute on the
    chain. Every tensor carries its shape, as a fully inferred export does."""
    blocks = max(1, num_nodes // FOLD_BLOCK)
    shape = [1, C, H, W]
    inits = [
        helper.make_tensor("k", TensorProto.FLOAT, [C, 1, 1], np.linspace(0.5, 1.5, C).astype(np.float32)),
        helper.make_tensor("half", TensorProto.FLOAT, [1], [0.5]),
    ]
    nodes, value_info = [], []
    x = "x"
    for i in range(blocks):
        p = f"b{i}_"
        out = "y" if i == blocks - 1 else p + "out"
        if i % 2 == 0:
            head = [
                helper.make_node("Shape", [x], [p + "s"], name=p + "shape"),
                helper.make_node("Reshape", [x, p + "s"], [p + "h"], name=p + "reshape"),
            ]
            value_info.append(helper.make_tensor_value_info(p + "s", TensorProto.INT64, [4]))
            mixed = p + "h"
        else:
            head = [
                helper.make_node("Mul", ["k", "half"], [p + "s"], name=p + "scale"),
                helper.make_node("Mul", [x, p + "s"], [p + "h"], name=p + "mul"),
            ]
            value_info.append(helper.make_tensor_value_info(p + "s", TensorProto.FLOAT, [C, 1, 1]))
            mixed = p + "h"
        body = []
        prev = mixed
        for j, op in enumerate(["Relu", "Neg", "Abs", "Sigmoid", "Neg", "Abs", "Tanh"]):
            t = f"{p}u{j}"
            body.append(helper.make_node(op, [prev], [t], name=f"{p}op{j}"))
            prev = t
        body.append(helper.make_node("Add", [prev, x], [out], name=p + "res"))
        nodes += head + body
        for t in [mixed] + [f"{p}u{j}" for j in range(7)] + ([] if out == "y" else [out]):
            value_info.append(helper.make_tensor_value_info(t, TensorProto.FLOAT, shape))
        x = out
    graph = helper.make_graph(
        nodes, "fold_chain",
        [helper.make_tensor_value_info("x", TensorProto.FLOAT, shape)],
        [helper.make_tensor_value_info("y", TensorProto.FLOAT, shape)],
        inits, value_info=value_info)
    return helper.make_model(graph, opset_imports=[helper.make_opsetid("", opset)],
                             producer_name="tolm-bench")
