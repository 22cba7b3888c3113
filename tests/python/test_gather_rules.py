"""Gather rules and the conversions to Concat, each called by name: where a
rule applies the model stays valid and keeps its numbers in onnxruntime (the
compiler's exMatMul is checked by structure); where it does not, nothing
changes."""

import numpy as np
import pytest
from onnx import helper, numpy_helper

from conftest import call_rule, const_of, make_model, neg, node_of, run_proc

F = np.float32


def idx(values):
    return np.asarray(values, dtype=np.int64)


# ---- fuse_two_gather --------------------------------------------------------------

@pytest.mark.parametrize("i0, i1, fused", [
    ([4, 3, 2], [2, 0], [2, 4]),
    ([4, 3, 2], [-1, 0], [2, 4]),            # a negative index counts from the end of i0
    ([[1, 2], [3, 0]], [1], [[3, 0]]),       # two-dimensional first indices
    ([0, 4], [[1, 1, 0]], [[4, 4, 0]]),      # two-dimensional second indices
])
def test_fuse_two_gather(i0, i1, fused):
    m = make_model([("Gather", ["x", "i0"], ["a"], {"name": "g0", "axis": 1}),
                    ("Gather", ["a", "i1"], ["b"], {"name": "g1", "axis": 1}), neg("b", "y")],
                   {"x": [2, 5, 3]}, {"y": None}, {"i0": idx(i0), "i1": idx(i1)})
    removed, added, out = call_rule(m, "_p_fuse_two_gather", ["g0", "g1"])
    assert (removed, added) == (["g0", "g1"], ["Gather"])
    g = node_of(out, "g1")
    assert list(g.input) == ["x", "i1_fuse"] and const_of(out, "i1_fuse").tolist() == fused


def test_fuse_two_gather_keeps_a_first_gather_others_read():
    m = make_model([("Gather", ["x", "i0"], ["a"], {"name": "g0", "axis": 0}),
                    ("Gather", ["a", "i1"], ["y"], {"name": "g1", "axis": 0}), neg("a", "z")],
                   {"x": [5, 3]}, {"y": None, "z": None}, {"i0": idx([4, 3, 2]), "i1": idx([2, 0])})
    removed, added, _ = call_rule(m, "_p_fuse_two_gather", ["g0", "g1"])
    assert (removed, added) == (["g1"], ["Gather"])


@pytest.mark.parametrize("i0, i1, a0, a1", [
    (3, [0], 0, 0),                  # scalar index
    ([1, 2], 0, 0, 0),
    ([1, 2], [0], 0, 1),             # other axes
    ([[1, 2], [0, 1]], [0], -1, -1), # -1 names another position after a 2-D index
])
def test_fuse_two_gather_refused(i0, i1, a0, a1):
    m = make_model([("Gather", ["x", "i0"], ["a"], {"name": "g0", "axis": a0}),
                    ("Gather", ["a", "i1"], ["y"], {"name": "g1", "axis": a1})],
                   {"x": [4, 3]}, {"y": None}, {"i0": idx(i0), "i1": idx(i1)})
    assert call_rule(m, "_p_fuse_two_gather", ["g0", "g1"]) == ([], [], None)


# ---- fuse_gather_gather_reshape --------------------------------------------------

@pytest.mark.parametrize("first_axis", [0, 1])
def test_gather_gather_reshape(first_axis):
    # [4, 5]: rows [0, 2], columns [1, 3], merged into one axis.
    rows, cols = idx([0, 2]), idx([1, 3])
    g0 = ("Gather", ["x", "i0"], ["a"], {"name": "g0", "axis": first_axis})
    g1 = ("Gather", ["a", "i1"], ["b"], {"name": "g1", "axis": 1 - first_axis})
    m = make_model([g0, g1, ("Reshape", ["b", "s"], ["c"], {"name": "rs"}), neg("c", "y")],
                   {"x": [4, 5]}, {"y": None},
                   {"i0": rows if first_axis == 0 else cols, "i1": cols if first_axis == 0 else rows, "s": [4]})
    removed, added, out = call_rule(m, "_p_fuse_gather_gather_reshape", ["g0", "g1", "rs"])
    assert (removed, added) == (["g0", "g1", "rs"], ["Reshape", "Gather"])
    assert const_of(out, node_of(out, "g0").input[1]).tolist() == [1, 3, 11, 13]


@pytest.mark.parametrize("i0, target, second_reader", [
    ([0, 0], [4], False),        # repeated indices
    ([0, 2], [2, 2], False),     # the Reshape merges nothing
    ([0, 2], [4], True),         # the first Gather is read elsewhere
])
def test_gather_gather_reshape_refused(i0, target, second_reader):
    nodes = [("Gather", ["x", "i0"], ["a"], {"name": "g0", "axis": 0}),
             ("Gather", ["a", "i1"], ["b"], {"name": "g1", "axis": 1}),
             ("Reshape", ["b", "s"], ["y"], {"name": "rs"})]
    outputs = {"y": None}
    if second_reader:
        nodes.append(neg("a", "z"))
        outputs["z"] = None
    m = make_model(nodes, {"x": [4, 5]}, outputs, {"i0": idx(i0), "i1": idx([1, 3]), "s": target})
    assert call_rule(m, "_p_fuse_gather_gather_reshape", ["g0", "g1", "rs"]) == ([], [], None)


# ---- fuse_conv_gather -------------------------------------------------------------

def conv_gather(n_idx, kernel=3, group=1, bias=True, idx_values=None, out_name="y"):
    cin = 4 if group == 1 else 10
    w = np.linspace(-1, 1, 10 * (cin // group) * kernel * kernel, dtype=F).reshape(10, cin // group, kernel, kernel)
    consts = {"w": w, "i": idx(idx_values if idx_values is not None else [k % 10 for k in range(n_idx)])}
    ins = ["x", "w"]
    if bias:
        consts["b"] = np.linspace(0, 1, 10, dtype=F)
        ins.append("b")
    attrs = {"name": "conv", "kernel_shape": [kernel, kernel], "pads": [kernel // 2] * 4}
    if group != 1:
        attrs["group"] = group
    return make_model([("Conv", ins, ["c"], attrs), ("Gather", ["c", "i"], [out_name], {"name": "g", "axis": 1})],
                      {"x": [1, cin, 5, 5]}, {out_name: None}, consts)


@pytest.mark.parametrize("n_idx, kernel, applies", [(12, 3, True), (13, 3, False), (30, 1, True), (3, 3, True)])
def test_conv_gather_limit(n_idx, kernel, applies):
    removed, added, out = call_rule(conv_gather(n_idx, kernel), "_p_fuse_conv_gather", ["conv", "g"])
    assert (removed, added) == ((["conv", "g"], ["Conv"]) if applies else ([], []))


def test_conv_gather_negative_indices_and_no_bias():
    removed, _, out = call_rule(conv_gather(0, bias=False, idx_values=[-1, 0, 3]), "_p_fuse_conv_gather", ["conv", "g"])
    assert removed == ["conv", "g"]
    w = const_of(out, node_of(out, "conv").input[1])
    assert w.shape == (3, 4, 3, 3)


def test_conv_gather_refuses_grouped_filters_and_scalar_index():
    assert call_rule(conv_gather(4, group=2), "_p_fuse_conv_gather", ["conv", "g"]) == ([], [], None)
    m = conv_gather(1)
    next(t for t in m.graph.initializer if t.name == "i").CopyFrom(numpy_helper.from_array(np.int64(2), "i"))
    m.graph.output[0].type.tensor_type.ClearField("shape")
    assert call_rule(m, "_p_fuse_conv_gather", ["conv", "g"]) == ([], [], None)


# ---- fuse_exmatmul_gather (structure only: no runtime has exMatMul) -------------

def exmatmul_model(const_first, gather_axis, bias=None, feature=(1, 1, 3, 4), const=(1, 1, 4, 6)):
    nodes = [helper.make_node("exMatMul", (["w", "x"] if const_first else ["x", "w"]) + (["b"] if bias is not None else []),
                              ["m"], name="mm"),
             helper.make_node("Gather", ["m", "i"], ["y"], name="g", axis=gather_axis)]
    inits = [numpy_helper.from_array(np.arange(np.prod(const), dtype=F).reshape(const), "w"),
             numpy_helper.from_array(idx([2, 0]), "i")]
    inputs = [helper.make_tensor_value_info("x", 1, list(feature))]
    if isinstance(bias, np.ndarray):
        inits.append(numpy_helper.from_array(bias, "b"))
    elif bias is not None:
        inputs.append(helper.make_tensor_value_info("b", 1, list(bias)))
    graph = helper.make_graph(nodes, "t", inputs, [helper.make_tensor_value_info("y", 1, None)], initializer=inits)
    return helper.make_model(graph, opset_imports=[helper.make_opsetid("", 13)])


def test_exmatmul_gather_on_columns_takes_the_weight():
    bias = np.arange(6, dtype=F).reshape(1, 1, 1, 6)
    ir, removed, add = run_proc(exmatmul_model(False, 3, bias=bias), "_p_fuse_exmatmul_gather", ["mm", "g"])
    assert removed == ["mm", "g"] and [n.op_type for n in add] == ["exMatMul"]
    new = add[0]
    assert list(new.output) == ["y"]
    w = np.arange(24, dtype=F).reshape(1, 1, 4, 6)
    np.testing.assert_array_equal(ir.get_const(new.input[1]), w[..., [2, 0]])
    np.testing.assert_array_equal(ir.get_const(new.input[2]), bias[..., [2, 0]])


def test_exmatmul_gather_on_batch_the_constant_provides():
    ir, removed, add = run_proc(exmatmul_model(True, 0, feature=(1, 1, 4, 3), const=(3, 1, 5, 4)),
                                "_p_fuse_exmatmul_gather", ["mm", "g"])
    assert removed == ["mm", "g"]
    assert ir.get_const(add[0].input[0]).shape == (2, 1, 5, 4)


@pytest.mark.parametrize("const_first, axis, bias", [
    (True, 1, None),                 # constant ahead, axis 1: not an axis of the constant's columns
    (False, 2, None),                # rows come from the feature
    (False, 3, (1, 1, 1, 6)),        # computed bias that varies along the axis
])
def test_exmatmul_gather_refused(const_first, axis, bias):
    feature, const = ((1, 1, 4, 3), (1, 1, 5, 4)) if const_first else ((1, 1, 3, 4), (1, 1, 4, 6))
    _, removed, add = run_proc(exmatmul_model(const_first, axis, bias=bias, feature=feature, const=const),
                               "_p_fuse_exmatmul_gather", ["mm", "g"])
    assert (removed, add) == ([], [])


def test_exmatmul_gather_leaves_a_broadcast_computed_bias():
    _, removed, add = run_proc(exmatmul_model(False, 3, bias=(1, 1, 3, 1)), "_p_fuse_exmatmul_gather", ["mm", "g"])
    assert removed == ["mm", "g"] and add[0].input[2] == "b"


# ---- replace_step_pick_pool_to_gather ----------------------------------------------

@pytest.mark.parametrize("op, strides, h, axis", [
    ("MaxPool", [1, 2], 6, 3), ("AveragePool", [3, 1], 6, 2),
    ("MaxPool", [2, 2], 6, None), ("MaxPool", [1, 1], 6, None), ("MaxPool", [2, 1], 7, None),
])
def test_step_pick_pool(op, strides, h, axis):
    m = make_model([(op, ["x"], ["p"], {"name": "pool", "kernel_shape": [1, 1], "strides": strides, "pads": [0] * 4}),
                    neg("p", "y")], {"x": [1, 2, h, 6]}, {"y": None})
    removed, added, out = call_rule(m, "_p_replace_step_pick_pool_to_gather", ["pool"])
    if axis is None:
        assert out is None
        return
    assert (removed, added) == (["pool"], ["Gather"])
    g = node_of(out, "pool_2gather")
    assert g.attribute[0].i == axis


def test_step_pick_maxpool_after_an_infinity_stays():
    # onnxruntime's MaxPool turns -inf into the lowest finite float, a Gather does not.
    m = make_model([("Mul", ["x", "k"], ["m"]),
                    ("MaxPool", ["m"], ["p"], {"name": "pool", "kernel_shape": [1, 1], "strides": [1, 2], "pads": [0] * 4}),
                    neg("p", "y")], {"x": [1, 2, 6, 6]}, {"y": None}, {"k": np.array([-np.inf], np.float32)})
    assert call_rule(m, "_p_replace_step_pick_pool_to_gather", ["pool"])[2] is None


# ---- convert_tile_to_concat, convert_resize_to_concat (rowless) ---------------------

@pytest.mark.parametrize("repeats, applies", [([1, 3, 1, 1], True), ([1, 2, 2, 1], False), ([1, 1, 1, 1], False)])
def test_tile_to_concat(repeats, applies):
    m = make_model([("Tile", ["x", "r"], ["t"], {"name": "tile"}), neg("t", "y")],
                   {"x": [1, 2, 3, 1]}, {"y": None}, {"r": repeats})
    removed, added, out = call_rule(m, "_p_convert_tile_to_concat", ["tile"])
    assert (removed, added) == ((["tile"], ["Concat"]) if applies else ([], []))


@pytest.mark.parametrize("out_hw, mode, applies", [
    ((4, 3), "nearest", True), ((2, 2), "linear", True), ((33, 2), "nearest", False)])
def test_resize_to_concat(out_hw, mode, applies):
    m = make_model([("Resize", ["x", "", "sc"], ["r"], {"name": "rz", "mode": mode}), neg("r", "y")],
                   {"x": [1, 3, 1, 1]}, {"y": None}, {"sc": np.array([1, 1, *out_hw], dtype=F)})
    removed, added, out = call_rule(m, "_p_convert_resize_to_concat", ["rz"])
    assert (removed, added) == ((["rz"], ["Concat", "Concat"]) if applies else ([], []))
