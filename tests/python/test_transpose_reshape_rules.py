"""Transpose-Reshape neighbours, the batch-avoiding rewrites and the shuffle and
element rewrites, each called by name: where a rule applies the model stays
valid and keeps its numbers in onnxruntime; where it does not, nothing changes."""

import numpy as np
import pytest

from conftest import call_rule, make_model, neg
from tolm.api.ir_graph import IRGraph
from tolm.api.rules import reduce

F = np.float32


def tp(src, dst, perm, name):
    return ("Transpose", [src], [dst], {"name": name, "perm": perm})


def rs(src, dst, shape_const, name):
    return ("Reshape", [src, shape_const], [dst], {"name": name})


# (id, proc, matched nodes, nodes, input shapes, output shapes, consts, removed, added)
APPLIES = [
    # b = Transpose(a) is only split by the Reshape: a is reshaped first and
    # the two Transpose nodes merge.
    ("tp_rs_tp", "_p_fuse_transpose_reshape_transpose", ["t0", "r", "t1"],
     [tp("x", "b", [2, 0, 1], "t0"), rs("b", "c", "s", "r"), tp("c", "d", [2, 0, 1], "t1"), neg("d")],
     {"x": [4, 1, 6]}, {"y": [4, 2, 3]}, {"s": [2, 3, 4]}, ["t0"], []),
    # Case A: the Reshape only moves axes of size 1 and joins the Transpose.
    ("A: reshape first", "_p_fuse_reshape_transpose", ["r", "t"],
     [rs("x", "a", "s", "r"), tp("a", "b", [0, 2, 1, 3], "t"), neg("b")],
     {"x": [1, 3, 1, 5]}, {"y": [3, 5, 1, 1]}, {"s": [3, 1, 5, 1]}, ["r"], []),
    ("A: transpose first, end is a graph output", "_p_fuse_reshape_transpose", ["t", "r"],
     [tp("x", "a", [0, 2, 1, 3], "t"), rs("a", "y", "s", "r")],
     {"x": [2, 3, 1, 5]}, {"y": [1, 2, 3, 5]}, {"s": [1, 2, 3, 5]}, ["r"], []),
    # Case B: the Transpose only moves axes of size 1 and the Reshape does it.
    ("B: reshape first", "_p_fuse_reshape_transpose", ["r", "t"],
     [rs("x", "a", "s", "r"), tp("a", "b", [0, 2, 1, 3], "t"), neg("b")],
     {"x": [2, 15]}, {"y": [2, 1, 3, 5]}, {"s": [2, 3, 1, 5]}, ["t"], []),
    ("B: transpose first, target copies a dimension", "_p_fuse_reshape_transpose", ["t", "r"],
     [tp("x", "a", [0, 2, 1, 3], "t"), rs("a", "b", "s", "r"), neg("b")],
     {"x": [2, 1, 3, 5]}, {"y": [2, 3, 5]}, {"s": [0, 0, -1]}, ["t"], []),
    # Case C: only the size-1 axis moves, and the target then runs the
    # Reshape in place.
    ("C: reshape first", "_p_fuse_reshape_transpose", ["r", "t"],
     [rs("x", "a", "s", "r"), tp("a", "b", [0, 2, 1, 3], "t"), neg("b")],
     {"x": [1, 16, 2, 8]}, {"y": [1, 16, 4, 4]}, {"s": [1, 4, 16, 4]}, ["t"], ["Transpose"]),
    ("C: transpose first", "_p_fuse_reshape_transpose", ["t", "r"],
     [tp("x", "a", [0, 2, 1, 3], "t"), rs("a", "b", "s", "r"), neg("b")],
     {"x": [1, 16, 4, 4]}, {"y": [1, 16, 2, 8]}, {"s": [1, 16, 2, 8]}, ["t"], ["Transpose"]),
    # Batch 1 between the two nodes, same element order.
    ("avoid batch: transpose, reshape", "_p_fuse_transpose_reshape_avoid_batch", ["t", "r"],
     [tp("x", "a", [0, 3, 1, 2], "t"), rs("a", "b", "s", "r"), neg("b")],
     {"x": [2, 3, 4, 1]}, {"y": [2, 12]}, {"s": [2, 12]}, ["t"], ["Transpose"]),
    ("avoid batch: reshape, transpose", "_p_fuse_reshape_transpose_avoid_batch", ["r", "t"],
     [rs("x", "a", "s", "r"), tp("a", "b", [0, 2, 1, 3], "t"), neg("b")],
     {"x": [6, 4, 1, 1]}, {"y": [2, 1, 3, 4]}, {"s": [2, 3, 1, 4]}, ["r", "t"], ["Reshape", "Transpose"]),
    # Channels split in two and interleaved: a Gather on the channels, with
    # the Reshape absorbed by the Reshape behind (or ahead of) it.
    ("shuffle: reshape, transpose", "_p_replace_inner_dim_shuffle_to_gather", ["r1", "t"],
     [rs("x", "a", "s5", "r1"), tp("a", "b", [0, 2, 1, 3, 4], "t"), rs("b", "c", "s4", "r2"), neg("c")],
     {"x": [1, 16, 3, 4]}, {"y": [1, 16, 3, 4]}, {"s5": [1, 8, 2, 3, 4], "s4": [1, 16, 3, 4]},
     ["t"], ["Gather"]),
    ("shuffle: transpose, reshape", "_p_replace_inner_dim_shuffle_to_gather", ["t", "r"],
     [rs("x", "a", "s5", "r0"), tp("a", "b", [0, 2, 1, 3, 4], "t"), rs("b", "c", "s4", "r"), neg("c")],
     {"x": [1, 16, 3, 4]}, {"y": [1, 16, 3, 4]}, {"s5": [1, 2, 8, 3, 4], "s4": [1, 16, 3, 4]},
     ["t"], ["Gather"]),
    ("shuffle: channels ahead of a Conv", "_p_replace_inner_dim_shuffle_to_gather", ["t", "r"],
     [tp("x", "a", [0, 2, 1, 3, 4], "t"), rs("a", "b", "s4", "r"), ("Conv", ["b", "w"], ["y"], {"name": "conv"})],
     {"x": [1, 2, 8, 3, 4]}, {"y": [1, 4, 3, 4]},
     {"s4": [1, 16, 3, 4], "w": np.linspace(-1, 1, 64, dtype=F).reshape(4, 16, 1, 1)}, ["t"], ["Gather"]),
    # The second Reshape merges whole channel groups: one Reshape of the
    # feature, and a Gather that widens the broadcast operand.
    ("rs add rs", "_p_convert_rs_elements_rs_to_rs_gather_elements", ["r1", "op", "r2"],
     [rs("x", "a", "s1", "r1"), ("Add", ["a", "bias"], ["c"], {"name": "op"}), rs("c", "d", "s2", "r2"), neg("d")],
     {"x": [12, 32, 1, 6]}, {"y": [6, 64, 1, 6]},
     {"s1": [6, 2, 32, 6], "s2": [6, 64, 1, 6], "bias": np.linspace(-1, 1, 72, dtype=F).reshape(6, 2, 1, 6)},
     ["r1", "op", "r2"], ["Gather", "Reshape", "Reshape", "Add"]),
    ("rs sub rs, broadcast operand first", "_p_convert_rs_elements_rs_to_rs_gather_elements", ["r1", "op", "r2"],
     [rs("x", "a", "s1", "r1"), ("Sub", ["bias", "a"], ["c"], {"name": "op"}), rs("c", "d", "s2", "r2"), neg("d")],
     {"x": [12, 32, 1, 6]}, {"y": [6, 64, 1, 6]},
     {"s1": [6, 2, 32, 6], "s2": [6, 64, 1, 6], "bias": np.linspace(-1, 1, 72, dtype=F).reshape(6, 2, 1, 6)},
     ["r1", "op", "r2"], ["Gather", "Reshape", "Reshape", "Sub"]),
    ("top reshape", "_p_remove_top_reshape", ["top"],
     [("Relu", ["x"], ["a"], {"name": "relu"}), rs("a", "b", "s0", "top"), rs("b", "c", "s1", "r1"),
      rs("b", "d", "s2", "r2"), neg("c"), neg("d", "z")],
     {"x": [2, 3, 4]}, {"y": [24], "z": [4, 6]}, {"s0": [6, 4], "s1": [24], "s2": [4, 6]}, ["top"], []),
]


@pytest.mark.parametrize("case", APPLIES, ids=[c[0] for c in APPLIES])
def test_rule_applies_and_keeps_numbers(case):
    _, proc, matched, nodes, inputs, outputs, consts, removed, added = case
    model = make_model(nodes, inputs, outputs, consts)
    got_removed, got_added, out = call_rule(model, proc, matched)
    assert (got_removed, got_added) == (removed, added)


def test_tp_rs_tp_merges_into_one_transpose():
    case = APPLIES[0]
    model = make_model(case[3], case[4], case[5], case[6])
    _, _, out = call_rule(model, case[1], case[2])
    ops = [n.op_type for n in out.graph.node]
    assert ops.count("Transpose") == 1 and ops.count("Reshape") == 1
    reshape = next(n for n in out.graph.node if n.op_type == "Reshape")
    assert reshape.input[0] == "x"


# (id, proc, matched, nodes, inputs, outputs, consts): the rule must not apply.
REFUSES = [
    ("tp_rs_tp: the Reshape changes the rank", "_p_fuse_transpose_reshape_transpose", ["t0", "r", "t1"],
     [tp("x", "b", [1, 0], "t0"), rs("b", "c", "s", "r"), tp("c", "d", [1, 0, 2], "t1"), neg("d")],
     {"x": [4, 6]}, {"y": [3, 2, 4]}, {"s": [2, 3, 4]}),
    ("tp_rs_tp: the middle tensor has a second reader", "_p_fuse_transpose_reshape_transpose", ["t0", "r", "t1"],
     [tp("x", "b", [2, 0, 1], "t0"), rs("b", "c", "s", "r"), tp("c", "d", [2, 0, 1], "t1"), neg("d"), neg("b", "z")],
     {"x": [4, 1, 6]}, {"y": [4, 2, 3], "z": [6, 4, 1]}, {"s": [2, 3, 4]}),
    ("fuse: the tensor between is a graph output", "_p_fuse_reshape_transpose", ["r", "t"],
     [rs("x", "a", "s", "r"), tp("a", "b", [0, 2, 1, 3], "t"), neg("b")],
     {"x": [1, 3, 1, 5]}, {"y": [3, 5, 1, 1], "a": [3, 1, 5, 1]}, {"s": [3, 1, 5, 1]}),
    ("fuse: no bypass order for the Reshape", "_p_fuse_reshape_transpose", ["r", "t"],
     [rs("x", "a", "s", "r"), tp("a", "b", [0, 2, 1, 3], "t"), neg("b")],
     {"x": [1, 3, 8, 8]}, {"y": [1, 3, 8, 8]}, {"s": [1, 8, 3, 8]}),
    # Three sizes of 1 in the tensor between: two of them would be taken from
    # one place, which is no permutation.
    ("avoid batch: a size found three times", "_p_fuse_reshape_transpose_avoid_batch", ["r", "t"],
     [rs("x", "a", "s", "r"), tp("a", "b", [1, 0, 2, 3], "t"), neg("b")],
     {"x": [1, 4, 1, 1]}, {"y": [1, 4, 1, 1]}, {"s": [4, 1, 1, 1]}),
    ("shuffle: the Transpose has a second reader", "_p_replace_inner_dim_shuffle_to_gather", ["t", "r"],
     [rs("x", "a", "s5", "r0"), tp("a", "b", [0, 2, 1, 3, 4], "t"), rs("b", "c", "s4", "r"), neg("c"), neg("b", "z")],
     {"x": [1, 16, 3, 4]}, {"y": [1, 16, 3, 4], "z": [1, 8, 2, 3, 4]}, {"s5": [1, 2, 8, 3, 4], "s4": [1, 16, 3, 4]}),
    # Ahead of a Conv only a Gather on the channels lets the Reshape go.
    ("shuffle: a Conv behind, but the shuffle is on W", "_p_replace_inner_dim_shuffle_to_gather", ["t", "r"],
     [tp("x", "a", [0, 1, 2, 4, 3], "t"), rs("a", "b", "s4", "r"), ("Conv", ["b", "w"], ["y"], {"name": "conv"})],
     {"x": [1, 4, 3, 2, 2]}, {"y": [1, 4, 3, 4]}, {"s4": [1, 4, 3, 4], "w": np.ones((4, 4, 1, 1), F)}),
    # Two parts of the operand need a Gather each: two Gather nodes to save
    # one Reshape is a loss.
    ("rs mul rs: two Gathers", "_p_convert_rs_elements_rs_to_rs_gather_elements", ["r1", "op", "r2"],
     [rs("x", "a", "s1", "r1"), ("Mul", ["a", "k"], ["c"], {"name": "op"}), rs("c", "d", "s2", "r2"), neg("d")],
     {"x": [6, 20, 1, 1]}, {"y": [6, 20, 1, 1]},
     {"s1": [2, 3, 4, 5], "s2": [6, 20, 1, 1], "k": np.linspace(1, 2, 8, dtype=F).reshape(2, 1, 4, 1)}),
    # The operand has data on axes 0 and 1 of the merged part and is
    # broadcast on axis 2 behind them: one Gather on axis 0 would repeat its
    # rows in the wrong places.
    ("rs add rs: broadcast behind two data axes", "_p_convert_rs_elements_rs_to_rs_gather_elements", ["r1", "op", "r2"],
     [rs("x", "a", "s1", "r1"), ("Add", ["a", "k"], ["c"], {"name": "op"}), rs("c", "d", "s2", "r2"), neg("d")],
     {"x": [24, 5, 1, 1]}, {"y": [24, 5, 1, 1]},
     {"s1": [2, 3, 4, 5], "s2": [24, 5, 1, 1], "k": np.linspace(1, 2, 30, dtype=F).reshape(2, 3, 1, 5)}),
    ("top reshape: one reader", "_p_remove_top_reshape", ["top"],
     [rs("x", "b", "s0", "top"), rs("b", "c", "s1", "r1"), neg("c")],
     {"x": [2, 3, 4]}, {"y": [24]}, {"s0": [6, 4], "s1": [24]}),
    ("top reshape: a reader that is no Reshape", "_p_remove_top_reshape", ["top"],
     [rs("x", "b", "s0", "top"), rs("b", "c", "s1", "r1"), neg("c"), neg("b", "z")],
     {"x": [2, 3, 4]}, {"y": [24], "z": [6, 4]}, {"s0": [6, 4], "s1": [24]}),
    ("top reshape: its output is a graph output", "_p_remove_top_reshape", ["top"],
     [rs("x", "b", "s0", "top"), rs("b", "c", "s1", "r1"), rs("b", "d", "s1", "r2"), neg("c"), neg("d", "z")],
     {"x": [2, 3, 4]}, {"y": [24], "z": [24], "b": [6, 4]}, {"s0": [6, 4], "s1": [24]}),
]


@pytest.mark.parametrize("case", REFUSES, ids=[c[0] for c in REFUSES])
def test_rule_does_not_apply(case):
    _, proc, matched, nodes, inputs, outputs, consts = case
    model = make_model(nodes, inputs, outputs, consts)
    removed, added, out = call_rule(model, proc, matched)
    assert (removed, added, out) == ([], [], None)


@pytest.mark.parametrize("case", [c for c in APPLIES if c[0].startswith("C: ")], ids=lambda c: c[0])
def test_bypass_perm_is_not_rewritten_again(case):
    # Case C on its own result would find the perm it already has.
    _, proc, matched, nodes, inputs, outputs, consts, _, _ = case
    ir = IRGraph(make_model(nodes, inputs, outputs, consts))
    by_name = {n.name: n for n in ir.node}
    ir.apply(*getattr(reduce, proc)(ir, [by_name[n] for n in matched], None))
    by_name = {n.name: n for n in ir.node}
    again = getattr(reduce, proc)(ir, [by_name[n] for n in matched], None)
    assert again == ([], [])


def test_gather_made_for_the_operand_repeats_each_element():
    # The example of the rule's design: 64 zeros, then 64 ones, on axis 1
    # (here 32 of each, for a smaller model).
    case = next(c for c in APPLIES if c[0] == "rs add rs")
    _, _, out = call_rule(make_model(*case[3:7]), case[1], case[2])
    gather = next(n for n in out.graph.node if n.op_type == "Gather")
    idx = next(i for i in out.graph.initializer if i.name == gather.input[1])
    from onnx import numpy_helper

    assert numpy_helper.to_array(idx).tolist() == [0] * 32 + [1] * 32
    assert next(a.i for a in gather.attribute if a.name == "axis") == 1
