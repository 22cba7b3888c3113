"""A small built-in model with the kinds of redundancy the rules remove.

A conv net whose middle is full of operators that do nothing or undo each
other: a Reshape pair that comes back to the start shape, two Transposes that
cancel, a Reshape to the shape it already has, Add 0, Mul 1, a Cast to the
type it already has, an Unsqueeze/Squeeze pair, and graph outputs produced by
nodes that can go.
"""

from __future__ import annotations

import numpy as np
import onnx
from onnx import TensorProto, helper, numpy_helper


def _const(name: str, value) -> onnx.TensorProto:
    return numpy_helper.from_array(np.asarray(value), name)


def example_model(seed: int = 0) -> onnx.ModelProto:
    rng = np.random.default_rng(seed)
    inits = [
        _const("w1", rng.standard_normal((8, 3, 3, 3)).astype(np.float32) * 0.2),
        _const("b1", rng.standard_normal(8).astype(np.float32) * 0.1),
        _const("w2", rng.standard_normal((4, 8, 1, 1)).astype(np.float32) * 0.3),
        _const("b2", rng.standard_normal(4).astype(np.float32) * 0.1),
        _const("shape_flat", np.array([1, 8, 256], np.int64)),
        _const("shape_map", np.array([1, 8, 16, 16], np.int64)),
        _const("shape_same", np.array([1, 8, 16, 16], np.int64)),
        _const("shape_logits", np.array([1, 4], np.int64)),
        _const("zero", np.zeros((1,), np.float32)),
        _const("one", np.ones((1,), np.float32)),
        _const("axis0", np.array([0], np.int64)),
    ]
    mk = helper.make_node
    nodes = [
        mk("Conv", ["image", "w1", "b1"], ["c1"], name="conv1", pads=[1, 1, 1, 1], kernel_shape=[3, 3]),
        mk("Relu", ["c1"], ["r1"], name="relu1"),
        # A reshape pair that lands back on the shape it started from.
        mk("Reshape", ["r1", "shape_flat"], ["flat"], name="to_flat"),
        mk("Reshape", ["flat", "shape_map"], ["map"], name="from_flat"),
        # Two transposes that cancel.
        mk("Transpose", ["map"], ["nhwc"], name="to_nhwc", perm=[0, 2, 3, 1]),
        mk("Transpose", ["nhwc"], ["nchw"], name="to_nchw", perm=[0, 3, 1, 2]),
        # A reshape to the shape the tensor already has.
        mk("Reshape", ["nchw", "shape_same"], ["same"], name="same_shape"),
        mk("Add", ["same", "zero"], ["plus0"], name="add_zero"),
        mk("Mul", ["plus0", "one"], ["times1"], name="mul_one"),
        mk("Cast", ["times1"], ["cast"], name="cast_float", to=TensorProto.FLOAT),
        # Unsqueeze then Squeeze of the same axis.
        mk("Unsqueeze", ["cast", "axis0"], ["unsq"], name="unsqueeze0"),
        mk("Squeeze", ["unsq", "axis0"], ["sq"], name="squeeze0"),
        mk("Conv", ["sq", "w2", "b2"], ["c2"], name="conv2", kernel_shape=[1, 1]),
        # A graph output behind a node that does nothing.
        mk("Identity", ["c2"], ["features"], name="features_id"),
        mk("GlobalAveragePool", ["c2"], ["pooled"], name="gap"),
        mk("Flatten", ["pooled"], ["pooled_flat"], name="flatten", axis=1),
        mk("Reshape", ["pooled_flat", "shape_logits"], ["logits"], name="logits_reshape"),
    ]
    graph = helper.make_graph(
        nodes,
        "tolm_example",
        [helper.make_tensor_value_info("image", TensorProto.FLOAT, [1, 3, 16, 16])],
        [
            helper.make_tensor_value_info("logits", TensorProto.FLOAT, [1, 4]),
            helper.make_tensor_value_info("features", TensorProto.FLOAT, [1, 4, 16, 16]),
        ],
        initializer=inits,
    )
    model = helper.make_model(graph, opset_imports=[helper.make_opsetid("", 13)], producer_name="tolm-example")
    model.ir_version = 8
    onnx.checker.check_model(model, full_check=True)
    return model
