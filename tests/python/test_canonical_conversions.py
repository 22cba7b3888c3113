"""Canonical forms: Squeeze, Unsqueeze, Flatten, Dropout, Identity and Expand
become Reshape (or vanish), a Reshape that keeps the data order becomes a
Transpose, and Gather of a whole axis or of consecutive indices becomes Reshape
or Slice; the cvt_reduce table runs them around the fuse_reduce rules."""

import numpy as np
import pytest
from onnx import TensorProto, numpy_helper

from conftest import call_rule, make_model, op_counts, reduced_ok

F = np.float32


def relu_op_neg(op, op_inputs, attrs=None):
    """x -> Relu -> a -> op -> b -> Neg -> y: the op between two inner tensors."""
    return [("Relu", ["x"], ["a"], {"name": "relu"}),
            (op, ["a"] + op_inputs, ["b"], dict(attrs or {}, name="t")),
            ("Neg", ["b"], ["y"], {"name": "neg"})]


# (id, op, extra inputs, attrs, x shape, output shape, consts, opset)
TO_RESHAPE = [
    ("Squeeze", "Squeeze", ["ax"], {}, [2, 1, 3], [2, 3], {"ax": [1]}, 13),
    ("Unsqueeze", "Unsqueeze", ["ax"], {}, [2, 3], [1, 2, 3], {"ax": [0]}, 13),
    ("Flatten", "Flatten", [], {"axis": 2}, [2, 3, 4], [6, 4], {}, 13),
    ("Expand without replication", "Expand", ["s"], {}, [1, 4], [1, 1, 4], {"s": [1, 1, 4]}, 13),
]
VANISH = [
    ("Identity", "Identity", [], {}, {}),
    ("Dropout", "Dropout", [], {}, {}),
    ("Dropout in inference mode", "Dropout", ["r", "m"], {}, {"r": np.array(0.5, F), "m": np.array(False)}),
    ("Expand to its own shape", "Expand", ["s"], {}, {"s": [2, 3]}),
]


@pytest.mark.parametrize("case", TO_RESHAPE, ids=[c[0] for c in TO_RESHAPE])
def test_shape_changing_op_becomes_reshape(case):
    _, op, extra, attrs, xs, ys, consts, opset = case
    model = make_model(relu_op_neg(op, extra, attrs), {"x": xs}, {"y": ys}, consts, opset=opset)
    removed, added, out = call_rule(model, "_p_convert_node_to_reshape", ["t"])
    assert (removed, added) == (["t"], ["Reshape"])
    assert "t_2rs" in [n.name for n in out.graph.node]


@pytest.mark.parametrize("case", VANISH, ids=[c[0] for c in VANISH])
def test_op_that_changes_nothing_vanishes(case):
    _, op, extra, attrs, consts = case
    model = make_model(relu_op_neg(op, extra, attrs), {"x": [2, 3]}, {"y": [2, 3]}, consts)
    removed, added, out = call_rule(model, "_p_convert_node_to_reshape", ["t"])
    # The producer comes back as a copy that writes the op's output itself.
    assert removed == ["t", "relu"] and added == ["Relu"]
    assert [(n.op_type, list(n.output)) for n in out.graph.node] == [("Relu", ["b"]), ("Neg", ["y"])]


def test_identity_before_graph_output_hands_its_name_to_the_producer():
    model = make_model([("Relu", ["x"], ["a"], {"name": "relu"}), ("Identity", ["a"], ["y"], {"name": "t"}),
                        ("Neg", ["a"], ["z"], {"name": "neg"})], {"x": [2, 3]}, {"y": [2, 3], "z": [2, 3]})
    removed, added, out = call_rule(model, "_p_convert_node_to_reshape", ["t"])
    # The other reader of the input is put back too, reading the new name.
    assert removed == ["t", "neg", "relu"] and added == ["Neg", "Relu"]
    assert {n.op_type: list(n.input) for n in out.graph.node}["Neg"] == ["y"]


@pytest.mark.parametrize("where", ["graph input", "constant"])
def test_identity_on_input_or_constant_becomes_reshape(where):
    src = "x" if where == "graph input" else "c"
    model = make_model([("Identity", [src], ["b"], {"name": "t"}), ("Add", ["b", "x"], ["y"], {"name": "add"})],
                       {"x": [2, 3]}, {"y": [2, 3]}, {"c": np.ones((2, 3), F)})
    removed, added, out = call_rule(model, "_p_convert_node_to_reshape", ["t"])
    assert (removed, added) == (["t"], ["Reshape"])
    assert "t_2rs" in [n.name for n in out.graph.node]


def test_op_that_must_stay_is_left_alone():
    cases = [
        # Expand that replicates data.
        (relu_op_neg("Expand", ["s"]), {"x": [1, 4]}, {"y": [2, 4]}, {"s": [2, 4]}),
        # Dropout in training mode drops data.
        (relu_op_neg("Dropout", ["r", "m"]), {"x": [2, 3]}, {"y": [2, 3]},
         {"r": np.array(0.5, F), "m": np.array(True)}),
    ]
    for nodes, xs, ys, consts in cases:
        assert call_rule(make_model(nodes, xs, ys, consts), "_p_convert_node_to_reshape", ["t"]) == ([], [], None)
    # A Dropout whose mask is read: a Reshape has no second output.
    nodes = [("Relu", ["x"], ["a"], {"name": "relu"}), ("Dropout", ["a"], ["b", "mask"], {"name": "t"}),
             ("Neg", ["b"], ["y"], {"name": "neg"}), ("Not", ["mask"], ["z"], {"name": "not"})]
    model = make_model(nodes, {"x": [2, 3]}, {"y": [2, 3], "z": (TensorProto.BOOL, [2, 3])})
    assert call_rule(model, "_p_convert_node_to_reshape", ["t"]) == ([], [], None)


def transpose_perm(model):
    tp = next(n for n in model.graph.node if n.op_type == "Transpose")
    return list(next(a.ints for a in tp.attribute if a.name == "perm"))


@pytest.mark.parametrize("xs,ys,perm", [
    ([1, 2, 3, 1], [2, 1, 1, 3], [1, 0, 3, 2]),
    # Sizes that repeat take their places in the order they appear.
    ([2, 1, 2, 1], [1, 2, 2, 1], [1, 0, 2, 3]),
])
def test_reshape_keeping_data_order_becomes_transpose(xs, ys, perm):
    model = make_model([("Reshape", ["x", "s"], ["b"], {"name": "t"}), ("Neg", ["b"], ["y"])],
                       {"x": xs}, {"y": ys}, {"s": ys})
    removed, added, out = call_rule(model, "_p_convert_reshape_to_transpose", ["t"])
    assert (removed, added) == (["t"], ["Transpose"])
    assert transpose_perm(out) == perm


@pytest.mark.parametrize("xs,ys", [([1, 2, 3], [2, 3, 1]), ([1, 2, 3, 1], [1, 2, 3, 1]), ([1, 6, 1, 1], [2, 3, 1, 1])],
                         ids=["rank 3", "identity", "moves data"])
def test_reshape_that_is_no_4d_transpose_stays(xs, ys):
    model = make_model([("Reshape", ["x", "s"], ["b"], {"name": "t"}), ("Neg", ["b"], ["y"])],
                       {"x": xs}, {"y": ys}, {"s": ys})
    assert call_rule(model, "_p_convert_reshape_to_transpose", ["t"]) == ([], [], None)


@pytest.mark.parametrize("name,perm,applies", [("t", [1, 0, 2], True), ("t_2rs", [1, 0, 2], False),
                                               ("t", [2, 1, 0], False)])
def test_transpose_keeping_data_order_becomes_reshape(name, perm, applies):
    shapes = {(1, 0, 2): [1, 2, 3], (2, 1, 0): [3, 2, 1]}
    model = make_model([("Transpose", ["x"], ["b"], {"name": name, "perm": perm}), ("Neg", ["b"], ["y"])],
                       {"x": [2, 1, 3]}, {"y": shapes[tuple(perm)]})
    removed, added, out = call_rule(model, "_p_convert_transpose_to_reshape", [name])
    assert (removed, added) == (([name], ["Reshape"]) if applies else ([], []))
    if applies:
        assert name + "_2rs" in [n.name for n in out.graph.node]


TO_RS, TO_SL = "_p_convert_gather_to_reshape", "_p_convert_gather_to_slice_reshape"
GATHERS = [
    # (id, x shape, axis, indices, output shape, the procs that apply); a
    # whole axis is consecutive too: the table tries the Reshape first.
    ("scalar 0 on a size-1 axis", [2, 1, 3], 1, np.array(0, np.int64), [2, 3], (TO_RS, TO_SL)),
    ("the whole axis in order", [2, 3], 1, np.array([0, 1, 2], np.int64), [2, 3], (TO_RS, TO_SL)),
    ("consecutive", [2, 8], 1, np.array([3, 4, 5], np.int64), [2, 3], (TO_SL,)),
    ("one index", [2, 8], -1, np.array(7, np.int64), [2], (TO_SL,)),
    ("a gap", [2, 8], 1, np.array([3, 5], np.int64), [2, 2], ()),
    ("negative", [2, 8], 1, np.array([-2, -1], np.int64), [2, 2], ()),
    ("reordered", [2, 3], 1, np.array([0, 2, 1], np.int64), [2, 3], ()),
]


@pytest.mark.parametrize("case", GATHERS, ids=[c[0] for c in GATHERS])
def test_gather_conversions(case):
    _, xs, axis, idx, ys, applies = case
    model = make_model([("Gather", ["x", "i"], ["b"], {"name": "g", "axis": axis}), ("Neg", ["b"], ["y"])],
                       {"x": xs}, {"y": ys}, {"i": idx})
    for proc in (TO_RS, TO_SL):
        removed, added, out = call_rule(model, proc, ["g"])
        if proc not in applies:
            assert out is None, proc
            continue
        assert removed == ["g"]
        if proc == TO_RS:
            assert added == ["Reshape"]
            continue
        assert added == ["Slice", "Reshape"]
        sl = next(n for n in out.graph.node if n.op_type == "Slice")
        assert sl.name == "g_2sl"
        inits = {i.name: numpy_helper.to_array(i).tolist() for i in out.graph.initializer}
        flat = np.atleast_1d(idx)
        assert [inits[sl.input[k]] for k in (1, 2)] == [[int(flat[0])], [int(flat[-1]) + 1]]


def test_conversions_run_before_the_chain_rules():
    # Unsqueeze and Squeeze become Reshape first, then the Reshape chain merges.
    model = make_model([("Relu", ["x"], ["a"]), ("Unsqueeze", ["a", "ax0"], ["b"]),
                        ("Reshape", ["b", "s"], ["c"]), ("Squeeze", ["c", "ax1"], ["d"]), ("Neg", ["d"], ["y"])],
                       {"x": [2, 6]}, {"y": [3, 4]}, {"ax0": [0], "s": [1, 3, 4], "ax1": [0]})
    reduced, report = reduced_ok(model)
    fired = report["fired"]
    assert op_counts(reduced) == {"Relu": 1, "Reshape": 1, "Neg": 1}
    assert fired["convert_unsqueeze_to_reshape"] == 1 and fired["convert_squeeze_to_reshape"] == 1


def test_conversions_run_again_on_what_chain_rules_make():
    # The Transpose pair cancels before a graph output: the pair rule leaves
    # an Identity to keep the name, which the conversion then dissolves.
    model = make_model([("Relu", ["x"], ["a"]), ("Transpose", ["a"], ["b"], {"perm": [1, 0]}),
                        ("Transpose", ["b"], ["y"], {"perm": [1, 0]})], {"x": [2, 3]}, {"y": [2, 3]})
    reduced, report = reduced_ok(model)
    fired = report["fired"]
    assert op_counts(reduced) == {"Relu": 1}
    assert fired["fuse_two_transpose"] == 1 and fired["convert_identity_to_reshape"] == 1
