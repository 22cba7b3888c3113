"""Transpose nodes cancel across whole layout-free regions, with the same
numbers in onnxruntime before and after."""

import numpy as np
import onnx
import pytest

import tolm
from conftest import assert_same_outputs, make_model
from tolm.layout_models import channels_last_cnn, transformer_encoder


def transposes(model):
    return sum(n.op_type == "Transpose" for n in model.graph.node)


def reduced_ok(model):
    reduced, report = tolm.reduce(model)
    onnx.checker.check_model(reduced, full_check=True)
    assert [i.name for i in reduced.graph.input] == [i.name for i in model.graph.input]
    assert [o.name for o in reduced.graph.output] == [o.name for o in model.graph.output]
    assert_same_outputs(model, reduced)
    return reduced, report


@pytest.mark.parametrize("blocks", [2, 5, 12])
def test_channels_last_cnn_keeps_only_the_boundary_transposes(blocks):
    model = channels_last_cnn(blocks)
    reduced, report = reduced_ok(model)
    # The graph input and output are NHWC: one Transpose at each end remains.
    assert transposes(model) == 2 * blocks
    assert transposes(reduced) == 2
    fired = report["fired"]
    assert fired.get("reduce_tp_in_mesh_forward", 0) + fired.get("reduce_tp_in_mesh_backward", 0) >= 1
    # Split, Concat and Slice now work on the channel axis of NCHW.
    for n in reduced.graph.node:
        if n.op_type in ("Split", "Concat"):
            assert next(a.i for a in n.attribute if a.name == "axis") == 1


def test_region_without_gain_is_left_alone_and_paused():
    # One Conv between two Transposes and NHWC graph ends: cancelling would
    # need as many new Transpose nodes as it removes.
    model = channels_last_cnn(1)
    reduced, _ = reduced_ok(model)
    assert transposes(reduced) == 2


def test_transpose_feeding_a_graph_output_keeps_the_output_name():
    model = make_model(
        [
            ("Transpose", ["x"], ["a"], {"perm": [0, 2, 3, 1]}),
            ("Relu", ["a"], ["b"]),
            ("Add", ["b", "bias"], ["c"]),
            ("Transpose", ["c"], ["y"], {"perm": [0, 3, 1, 2]}),
            ("Sigmoid", ["a"], ["s"]),
            ("Transpose", ["s"], ["z"], {"perm": [0, 3, 1, 2]}),
        ],
        {"x": [1, 3, 4, 5]},
        {"y": [1, 3, 4, 5], "z": [1, 3, 4, 5]},
        {"bias": np.linspace(-1, 1, 3, dtype=np.float32).reshape(1, 1, 1, 3)},
    )
    reduced, _ = reduced_ok(model)
    assert transposes(reduced) < transposes(model)


def test_rank_one_broadcast_constant_blocks_the_region():
    # A per-channel constant of rank 1 cannot be held in the permuted layout,
    # so the region stays as it is; the numbers must not change either way.
    model = make_model(
        [
            ("Transpose", ["x"], ["a"], {"perm": [0, 2, 3, 1]}),
            ("Add", ["a", "bias"], ["b"]),
            ("Transpose", ["b"], ["c"], {"perm": [0, 3, 1, 2]}),
            ("Relu", ["c"], ["y"]),
        ],
        {"x": [1, 3, 4, 5]},
        {"y": [1, 3, 4, 5]},
        {"bias": np.arange(3, dtype=np.float32)},
    )
    reduced, _ = reduced_ok(model)
    assert transposes(reduced) == 2


def test_attention_transposes_around_matmul_stay():
    model = transformer_encoder(2)
    reduced, _ = reduced_ok(model)
    # MatMul is not layout-free: the head Transposes feed it directly.
    assert transposes(reduced) == transposes(model)
