"""Transpose nodes cancel across whole layout-free regions, with the same
numbers in onnxruntime before and after."""

import numpy as np
import onnx
import pytest

from conftest import assert_same_outputs, make_model, reduced_ok
from tolm.layout_models import channels_last_cnn, transformer_encoder


def transposes(model):
    return sum(n.op_type == "Transpose" for n in model.graph.node)


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


def test_rank_one_broadcast_constant_joins_the_region():
    # A per-channel constant stored as [C] broadcasts as [1, 1, 1, C]: written
    # at full rank, it moves with the region like any other constant.
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
    assert transposes(reduced) == 0


def test_attention_transposes_around_matmul_stay():
    model = transformer_encoder(2)
    reduced, _ = reduced_ok(model)
    # MatMul is not layout-free: the head Transposes feed it directly.
    assert transposes(reduced) == transposes(model)


# ---- one rule call from a chosen seed, checked in onnxruntime -------------------------

NHWC, NCHW = [0, 2, 3, 1], [0, 3, 1, 2]
F = np.float32


def _sandwich(*body, consts=None, x=(1, 2, 3, 4), enter=NHWC, leave=NCHW, opset=13):
    """x -> Transpose(enter) "tp_in" -> a -> body -> b -> Transpose(leave) "tp_out" -> y."""
    nodes = [("Transpose", ["x"], ["a"], {"perm": enter, "name": "tp_in"}), *body,
             ("Transpose", ["b"], ["y"], {"perm": leave, "name": "tp_out"})]
    return make_model(nodes, {"x": list(x)}, {"y": list(x)}, consts, opset=opset)


def _chain(n):
    # Relu chain of n + 1 nodes after the seed, then a fork into three Transpose exits.
    nodes = [("Transpose", ["x"], ["t0"], {"perm": NHWC, "name": "tp_in"})]
    nodes += [("Relu", [f"t{i}"], [f"t{i + 1}"]) for i in range(n + 1)]
    last = f"t{n + 1}"
    nodes += [("Transpose", [last], ["y"], {"perm": NCHW}), ("Relu", [last], ["g1"]), ("Relu", [last], ["g2"]),
              ("Transpose", ["g1"], ["y1"], {"perm": NCHW, "name": "tp_g1"}),
              ("Transpose", ["g2"], ["y2"], {"perm": NCHW, "name": "tp_g2"})]
    return make_model(nodes, {"x": [1, 2, 3, 4]}, {k: [1, 2, 3, 4] for k in ("y", "y1", "y2")})


FORK = make_model(
    [("Transpose", ["x"], ["a"], {"perm": NHWC, "name": "tp_in"}), ("Relu", ["a"], ["b"]),
     ("Transpose", ["b"], ["y1"], {"perm": NCHW}), ("Sigmoid", ["b"], ["c"]),
     ("Gather", ["c", "idx"], ["d"], {"axis": 3}), ("Tanh", ["b"], ["e"]),
     ("Transpose", ["e"], ["y2"], {"perm": NCHW, "name": "tp_e"})],
    {"x": [1, 2, 3, 4]}, {"y1": [1, 2, 3, 4], "d": [1, 3, 4], "y2": [1, 2, 3, 4]},
    {"idx": np.array(0, dtype=np.int64)})

W1 = np.full((2, 2, 1, 1), 0.3, F)
MESH_CASES = {
    # name: (model, seed, direction, Transpose count after or None if unapplied, pause key)
    "forward": (_sandwich(("Add", ["a", "bias"], ["s"]), ("Relu", ["s"], ["b"]),
                          consts={"bias": np.array([1, -1], F).reshape(1, 1, 1, 2)}), "tp_in", "forward", 0, None),
    "backward": (_sandwich(("Add", ["a", "bias"], ["s"]), ("Relu", ["s"], ["b"]),
                           consts={"bias": np.array([1, -1], F).reshape(1, 1, 1, 2)}), "tp_out", "backward", 0, None),
    "scalar and full constants": (
        _sandwich(("Mul", ["a", "k"], ["m"]), ("Add", ["m", "full"], ["b"]),
                  consts={"k": np.array([0.5], F), "full": np.arange(24, dtype=F).reshape(1, 3, 4, 2)}),
        "tp_in", "forward", 0, None),
    "clip bounds stay scalars": (
        _sandwich(("Clip", ["a", "lo", "hi"], ["b"]), consts={"lo": np.array(-0.5, F), "hi": np.array(0.7, F)}),
        "tp_in", "forward", 0, None),
    "no gain forward": (make_model([("Transpose", ["x"], ["a"], {"perm": NHWC, "name": "tp"}), ("Relu", ["a"], ["b"])],
                                   {"x": [1, 2, 3, 4]}, {"b": [1, 3, 4, 2]}), "tp", "forward", None,
                        "reduce_tp_in_mesh_forward"),
    "no gain backward": (make_model([("Relu", ["x"], ["a"]), ("Transpose", ["a"], ["y"], {"perm": NHWC, "name": "tp"})],
                                    {"x": [1, 2, 3, 4]}, {"y": [1, 3, 4, 2]}), "tp", "backward", None,
                         "reduce_tp_in_mesh_backward"),
    "fork falls back to snapshot": (FORK, "tp_in", "forward", 2, None),
    "chain below the cap": (_chain(50), "tp_in", "forward", 0, None),
    "chain past the cap": (_chain(101), "tp_in", "forward", 3, None),
    "concat and split on channels": (
        _sandwich(("Split", ["a", "sp"], ["p", "q"], {"axis": 3}), ("Concat", ["q", "p", "p"], ["c"], {"axis": -1}),
                  ("Slice", ["c", "st", "en", "ax"], ["b"]),
                  consts={"sp": [1, 1], "st": [0], "en": [2], "ax": [3]}), "tp_in", "forward", 0, None),
    "reducemax const axes": (_sandwich(("ReduceMax", ["a", "ax"], ["r"], {"keepdims": 1}), ("Add", ["a", "r"], ["b"]),
                                       consts={"ax": [3]}, opset=18), "tp_in", "forward", 0, None),
    "reducemax live axes refused": (
        make_model([("Transpose", ["x"], ["a"], {"perm": NHWC, "name": "tp_in"}),
                    ("ReduceMax", ["a", "ax"], ["r"], {"keepdims": 1}), ("Add", ["a", "r"], ["b"]),
                    ("Transpose", ["b"], ["y"], {"perm": NCHW})],
                   {"x": [1, 2, 3, 4], "ax": (onnx.TensorProto.INT64, [1])}, {"y": [1, 2, 3, 4]}, opset=18),
        "tp_in", "forward", None, None),
    "expand const shape": (_sandwich(("ReduceMax", ["a", "ax"], ["r"], {"keepdims": 1}), ("Expand", ["r", "sh"], ["b"]),
                                     consts={"ax": [3], "sh": [1, 3, 4, 2]}, opset=18), "tp_in", "forward", 0, None),
    "gather live data": (_sandwich(("Gather", ["a", "gi"], ["g"], {"axis": 3}), ("Concat", ["g", "g"], ["b"], {"axis": 3}),
                                   consts={"gi": [1]}), "tp_in", "forward", 0, None),
    "gather constant data over ones": (
        _sandwich(("Gather", ["gd", "gi"], ["g"], {"axis": 1}), ("Add", ["a", "g"], ["b"]),
                  consts={"gd": np.arange(5, dtype=F).reshape(1, 5, 1, 1), "gi": [0]},
                  x=(1, 3, 4, 2), enter=NCHW, leave=NHWC), "tp_in", "forward", 0, None),
    "gather constant data refused, retried": (
        _sandwich(("Gather", ["gd", "gi"], ["g"], {"axis": 1}), ("Add", ["a", "g"], ["b"]),
                  consts={"gd": np.arange(60, dtype=F).reshape(1, 5, 3, 4), "gi": [2]},
                  x=(1, 3, 4, 2), enter=NCHW, leave=NHWC), "tp_in", "forward", 1, None),
    "conv 3x3 refused": (_sandwich(("Conv", ["a", "w"], ["b"], {"kernel_shape": [3, 3], "pads": [1, 1, 1, 1]}),
                                   consts={"w": np.full((3, 3, 3, 3), 0.1, F)}), "tp_in", "forward", None,
                         "reduce_tp_in_mesh_forward"),
    "pointwise conv moving channels refused": (
        _sandwich(("Conv", ["a", "w"], ["b"], {"kernel_shape": [1, 1]}), consts={"w": np.full((3, 3, 1, 1), 0.2, F)}),
        "tp_in", "forward", None, "reduce_tp_in_mesh_forward"),
    "pointwise conv, height and width swapped": (
        _sandwich(("Conv", ["a", "w"], ["b"], {"kernel_shape": [1, 1]}), consts={"w": W1},
                  enter=[0, 1, 3, 2], leave=[0, 1, 3, 2]), "tp_in", "forward", 0, None),
}


@pytest.mark.parametrize("name", list(MESH_CASES))
def test_mesh_rule_from_one_seed(name):
    from tolm.api.ir_graph import IRGraph
    from tolm.api.rules import reduce

    model, seed, direction, left, pause_key = MESH_CASES[name]
    ir = IRGraph(model)
    proc = getattr(reduce, f"_p_reduce_tp_in_mesh_{direction}")
    remove, add = proc(ir, [ir.find_node(seed)], None)
    assert bool(remove or add) == (left is not None)
    ir.apply(remove, add)
    out = ir.to_onnx()
    assert transposes(out) == (transposes(model) if left is None else left)
    if pause_key:
        assert seed in ir.op_ruler_pause[pause_key]
    onnx.checker.check_model(out, full_check=True)
    assert [i.name for i in out.graph.input] == [i.name for i in model.graph.input]
    assert_same_outputs(model, out)


def test_mesh_rule_reports_nodes_that_refuse_the_layout():
    from tolm.api.ir_graph import IRGraph
    from tolm.api.rules import reduce

    model = MESH_CASES["conv 3x3 refused"][0]  # tp_in -> Conv 3x3 "n1" -> tp_out
    ir = IRGraph(model)
    seed = ir.find_node("tp_in")
    for args in [(), ("forward",), ("forward", [])]:  # the short forms default to forward, nothing excluded
        result = reduce._p_reduce_tp_in_mesh(ir, [seed], None, *args)
        assert len(result) == 3 and result[0] == [] and result[1] == [] and set(result[2]) == {"n1"}
    # With the Conv excluded the region holds nothing to gain: no rewrite, the seed is paused.
    result = reduce._p_reduce_tp_in_mesh(ir, [seed], None, "forward", ["n1"])
    assert result == ([], [])
    assert seed.name in ir.op_ruler_pause["reduce_tp_in_mesh_forward"]
    back = reduce._p_reduce_tp_in_mesh(ir, [ir.find_node("tp_out")], None, "backward", [])
    assert len(back) == 3 and set(back[2]) == {"n1"}
    for bad, error in [(("sideways", []), ValueError), (("forward", "n1"), TypeError), (("forward", [1]), TypeError)]:
        with pytest.raises(error):
            reduce._p_reduce_tp_in_mesh(ir, [seed], None, *bad)


# ---- a region that cannot pay rests whole ------------------------------------------------


def _wide_failing_region(length):
    """tp_in -> Add of a rank-1 graph input -> a Relu chain of `length` nodes,
    read along the way by Transpose exits and fed by a Transpose entry. The
    region cannot take a layout of rank 4, from its first fork on."""
    nodes = [("Transpose", ["x"], ["t0"], {"perm": NHWC, "name": "tp_in"}),
             ("Transpose", ["x2"], ["u"], {"perm": NHWC, "name": "tp_entry"}),
             ("Add", ["t0", "r"], ["s0"])]
    nodes += [("Relu", [f"s{i}"], [f"s{i + 1}"]) for i in range(length)]
    nodes += [("Add", [f"s{length // 2}", "u"], ["v"]),
              ("Transpose", [f"s{length // 3}"], ["y1"], {"perm": NCHW, "name": "tp_exit1"}),
              ("Transpose", ["v"], ["y2"], {"perm": NCHW, "name": "tp_exit2"}),
              ("Transpose", [f"s{length}"], ["y3"], {"perm": NCHW, "name": "tp_exit3"})]
    return make_model(nodes, {"x": [1, 2, 3, 4], "x2": [1, 2, 3, 4], "r": [2]},
                      {k: [1, 2, 3, 4] for k in ("y1", "y2", "y3")})


@pytest.mark.parametrize("length, whole_edge", [(120, True), (8, False)])
def test_failed_region_pauses_every_transpose_on_its_edge_when_large(length, whole_edge):
    from tolm.api.ir_graph import IRGraph
    from tolm.api.rules import reduce

    model = _wide_failing_region(length)
    ir = IRGraph(model)
    assert reduce._p_reduce_tp_in_mesh_forward(ir, [ir.find_node("tp_in")], None) == ([], [])
    pause = ir.op_ruler_pause
    forward = set(pause.get("reduce_tp_in_mesh_forward", []))
    backward = set(pause.get("reduce_tp_in_mesh_backward", []))
    if whole_edge:
        # Each Transpose is paused under the rule that would seed it from the
        # region's side: entries forward, exits backward; none the other way.
        assert forward == {"tp_in", "tp_entry"}
        assert backward == {"tp_exit1", "tp_exit2", "tp_exit3"}
    else:
        # A small region is left to be regrown from its other Transpose nodes.
        assert not forward & {"tp_entry"} and not backward
    reduced_ok(model)


# ---- constants that broadcast from a lower rank --------------------------------------------


def test_rank_one_channels_last_cnn_reduces_as_the_rank_four_one():
    rank1, _ = reduced_ok(channels_last_cnn(4, channel_const_rank=1))
    rank4, _ = reduced_ok(channels_last_cnn(4))
    assert transposes(rank1) == 2
    assert rank1.SerializeToString() == rank4.SerializeToString()


@pytest.mark.parametrize("op, operands, consts, mesh_op", [
    ("Sub", ["k", "h"], {"k": np.array([1.0, -2.0, 3.0], F)}, True),
    ("Div", ["h", "k"], {"k": np.array([[2.0, -4.0, 0.5]], F)}, True),
    ("Pow", ["h2", "k"], {"k": np.array([2.0, 1.0, 3.0], F)}, True),
    ("Where", ["cond", "h", "k"], {"cond": np.array([True, False, True]), "k": np.array([9.0, 8.0, 7.0], F)}, True),
    ("Greater", ["h", "k"], {"k": np.array([0.0, 0.5, -0.5], F)}, True),
    # Not layout-free for the mesh, but their constants take the full rank too.
    ("Max", ["h", "k", "k2"], {"k": np.array([0.1, 0.0, -0.3], F), "k2": np.array([[[0.2]]], F)}, False),
    ("PRelu", ["h", "k"], {"k": np.array([0.1, 0.5, 2.0], F)}, False),
])
def test_broadcast_constants_of_lower_rank_keep_the_numbers(op, operands, consts, mesh_op):
    # An NHWC region around one broadcasting op whose constants have lower rank.
    last = ("Cast", ["g"], ["out"], {"to": onnx.TensorProto.FLOAT}) if op == "Greater" else ("Identity", ["g"], ["out"])
    model = make_model(
        [("Transpose", ["x"], ["h"], {"perm": NHWC}), ("Abs", ["h"], ["h2"]), (op, operands, ["g"]), last,
         ("Transpose", ["out"], ["y"], {"perm": NCHW})],
        {"x": [2, 3, 4, 5]}, {"y": [2, 3, 4, 5]}, consts)
    reduced, _ = reduced_ok(model)
    assert all(len(i.dims) in (0, 4) for i in reduced.graph.initializer)
    assert (transposes(reduced) < transposes(model)) == mesh_op
