"""Reshapes and Transposes carried across Concat and Split, each rule called by
name: where it applies the model stays valid and keeps its numbers in
onnxruntime (call_rule checks both); where it does not, nothing changes."""

import numpy as np
import pytest

from conftest import call_rule, make_model, op_counts
from tolm.api.ir_graph import IRGraph
from tolm.api.rules import reduce


def rs_concat(shapes, axis, consts=None, outputs=None):
    """Input k of shape in_k -> Reshape(out_k) -> one Concat on `axis` -> y."""
    nodes, inputs, cs = [], {}, dict(consts or {})
    names = []
    for k, (i_shape, o_shape) in enumerate(shapes):
        nodes.append(("Reshape", [f"x{k}", f"t{k}"], [f"r{k}"], {"name": f"rs{k}"}))
        inputs[f"x{k}"] = i_shape
        cs[f"t{k}"] = list(o_shape)
        names.append(f"r{k}")
    nodes.append(("Concat", names, ["y"], {"name": "cat", "axis": axis}))
    return make_model(nodes, inputs, outputs or {"y": None}, cs)


def with_target(target):
    """Calls a rule on an IR set to `target`; returns (removed, added, IR)."""
    def call(model, proc, names):
        ir = IRGraph(model)
        ir.npu_target = target
        by = {n.name: n for n in ir.node}
        remove, add = getattr(reduce, proc)(ir, [by[n] for n in names], None)
        return [n.name for n in remove], [n.op_type for n in add]
    return call


def test_reshape_before_concat_moves_behind():
    m = rs_concat([([1, 8, 2, 2], [1, 8, 4]), ([1, 16, 2, 2], [1, 16, 4])], 1)
    removed, added, out = call_rule(m, "_p_remove_reshape_before_concat", ["cat"])
    assert (sorted(removed), added) == (["rs0", "rs1"], ["Reshape"])
    cat = next(n for n in out.graph.node if n.name == "cat")
    assert list(cat.input) == ["x0", "x1"] and cat.output[0] == "y_before_reshape"


def test_reshape_before_concat_that_only_moves_ones_becomes_a_transpose():
    m = rs_concat([([2, 3, 1], [2, 1, 3]), ([2, 3, 1], [2, 1, 3])], 1)
    removed, added, _ = call_rule(m, "_p_remove_reshape_before_concat", ["cat"])
    assert (sorted(removed), added) == (["rs0", "rs1"], ["Transpose"])


@pytest.mark.parametrize("target, channels, applies", [
    ("npu_e", [16, 16, 24], True),    # one of three unaligned: 1 is not above 3/3
    ("npu_e", [16, 24, 24], False),
    ("npu_a", [8, 24, 24], True),     # 24 is aligned to 8
])
def test_reshape_before_concat_channel_alignment(target, channels, applies):
    m = rs_concat([([1, c, 2, 2], [1, c, 4]) for c in channels], 1)
    removed, _ = with_target(target)(m, "_p_remove_reshape_before_concat", ["cat"])
    assert bool(removed) == applies


def test_reshape_before_concat_unknown_target_warns_on_channels_only():
    reduce.clear_log_history()
    m = rs_concat([([1, 8, 2, 2], [1, 8, 4]), ([1, 16, 2, 2], [1, 16, 4])], 1)
    assert with_target("npu_x")(m, "_p_remove_reshape_before_concat", ["cat"]) == ([], [])
    assert reduce.log_history() == ["remove reshape before concat failed, platform-[npu_x] not valid for this rule"]
    # On another axis the target is not asked.
    m = rs_concat([([2, 3, 4], [6, 4]), ([2, 3, 4], [6, 4])], 1)
    assert with_target("npu_x")(m, "_p_remove_reshape_before_concat", ["cat"])[0] == ["rs0", "rs1"]


def test_reshape_before_concat_refuses():
    # Gains a fourth axis: the Concat would not stay 4-dimensional.
    m = rs_concat([([1, 8, 4], [1, 8, 2, 2]), ([1, 16, 4], [1, 16, 2, 2])], 1)
    assert call_rule(m, "_p_remove_reshape_before_concat", ["cat"]) == ([], [], None)
    # An input without a producer.
    m = make_model([("Reshape", ["x", "t"], ["r"], {"name": "rs0"}),
                    ("Concat", ["r", "w"], ["y"], {"name": "cat", "axis": 0})],
                   {"x": [2, 3, 4], "w": [6, 4]}, {"y": None}, {"t": [6, 4]})
    assert call_rule(m, "_p_remove_reshape_before_concat", ["cat"]) == ([], [], None)
    # A Reshape output that is a graph output too.
    m = rs_concat([([2, 3, 4], [6, 4]), ([2, 3, 4], [6, 4])], 0, outputs={"y": None, "r0": None})
    assert call_rule(m, "_p_remove_reshape_before_concat", ["cat"]) == ([], [], None)


def concat_rs(pieces, m_shape, o_shape, axis, const_piece=None):
    """Reshapes (in -> out) and maybe a constant into a Concat, then one Reshape."""
    m = rs_concat(pieces, axis)
    g = m.graph
    cat = next(n for n in g.node if n.name == "cat")
    if const_piece is not None:
        from onnx import numpy_helper
        g.initializer.append(numpy_helper.from_array(const_piece, "k"))
        cat.input.append("k")
    cat.output[0] = "c"
    from onnx import helper
    g.node.append(helper.make_node("Reshape", ["c", "t_after"], ["y"], name="after"))
    g.initializer.append(helper.make_tensor("t_after", 7, [4], o_shape))
    g.output[0].CopyFrom(helper.make_tensor_value_info("y", 1, o_shape))
    return m


def test_reshape_after_concat_folds_into_the_inputs():
    pieces = [([1, 2, 16], [1, 2, 4, 4]), ([1, 3, 16], [1, 3, 4, 4])]
    k = np.arange(16, dtype=np.float32).reshape(1, 1, 4, 4)
    m = concat_rs(pieces, [1, 6, 4, 4], [1, 6, 16, 1], 1, const_piece=k)
    removed, added, out = call_rule(m, "_p_remove_reshape_after_concat", ["cat", "after"])
    assert (removed, added) == (["after"], [])
    cat = next(n for n in out.graph.node if n.name == "cat")
    assert cat.output[0] == "y" and op_counts(out) == {"Reshape": 2, "Concat": 1}


def test_reshape_after_concat_needs_as_many_elements_in_front():
    # The first product above 2 ends at the 6, but only 1 element stands in
    # front of it there: the inputs would be cut across the joined axis.
    pieces = [([2, 2, 4], [2, 2, 2, 2]), ([2, 4, 4], [2, 4, 2, 2])]
    m = concat_rs(pieces, [2, 6, 2, 2], [1, 6, 2, 4], 1)
    assert call_rule(m, "_p_remove_reshape_after_concat", ["cat", "after"]) == ([], [], None)


def split_into(op, in_shape, axis, parts, readers, outputs=None, opset=13):
    """Split of x on `axis` into `parts`; reader k of piece k: a target shape
    or a perm (by `op`), or None for a piece nobody reads."""
    outs = [f"p{k}" for k in range(len(parts))]
    nodes = [("Split", ["x", "lens"], outs, {"name": "sp", "axis": axis})]
    cs = {"lens": list(parts)}
    graph_outs = {}
    for k, r in enumerate(readers):
        if r is None:
            continue
        if op == "Reshape":
            cs[f"t{k}"] = list(r)
            nodes.append(("Reshape", [f"p{k}", f"t{k}"], [f"y{k}"], {"name": f"r{k}"}))
            graph_outs[f"y{k}"] = None
        else:
            nodes.append(("Transpose", [f"p{k}"], [f"y{k}"], {"name": f"r{k}", "perm": list(r)}))
        nodes.append(("Neg", [f"y{k}"], [f"z{k}"], {"name": f"neg{k}"}))
        graph_outs[f"z{k}"] = None
    return make_model(nodes, {"x": in_shape}, outputs or graph_outs, cs, opset)


def test_reshape_after_split_moves_in_front():
    m = split_into("Reshape", [1, 12, 4], 1, [4, 2, 6], [[1, 4, 2, 2], None, [1, 6, 2, 2]])
    removed, added, out = call_rule(m, "_p_remove_reshape_after_split", ["sp"])
    assert (sorted(removed), added) == (["r0", "r2"], ["Reshape"])
    sp = next(n for n in out.graph.node if n.name == "sp")
    assert list(sp.output) == ["y0", "p1", "y2"]
    assert next(n for n in out.graph.node if n.op_type == "Reshape").name == "sp_reshape4"


def test_reshape_after_split_that_only_moves_ones_becomes_a_transpose():
    m = split_into("Reshape", [2, 4, 1], 1, [1, 3], [[2, 1, 1], [2, 1, 3]])
    # [2,1,1] -> [2,1,1] keeps the axis; [2,3,1] -> [2,1,3] moves it: no single way.
    assert call_rule(m, "_p_remove_reshape_after_split", ["sp"]) == ([], [], None)
    m = split_into("Reshape", [2, 2, 3], 1, [1, 1], [[2, 3, 1], [2, 3, 1]])
    removed, added, _ = call_rule(m, "_p_remove_reshape_after_split", ["sp"])
    assert (sorted(removed), added) == (["r0", "r1"], ["Transpose"])


def test_reshape_after_split_refuses_a_reader_that_does_not_keep_the_axis():
    m = split_into("Reshape", [1, 12, 4], 1, [6, 6], [[1, 2, 12], [1, 2, 12]])
    assert call_rule(m, "_p_remove_reshape_after_split", ["sp"]) == ([], [], None)


A, B = [0, 2, 1], [1, 0, 2]


@pytest.mark.parametrize("perms, removed", [
    ([A, A, B], ["r0", "r1"]),
    ([A, B, B, A], ["r0", "r3"]),    # a tie goes to the perm seen first
    ([A, B, [2, 1, 0]], ["r0"]),     # all different: one goes, one comes
])
def test_transpose_after_split(perms, removed):
    m = split_into("Transpose", [2, 3 * len(perms), 4], 1, [3] * len(perms), perms)
    got_removed, added, out = call_rule(m, "_p_remove_transpose_after_split", ["sp"])
    assert (sorted(got_removed), added) == (removed, ["Transpose"])
    front = next(n for n in out.graph.node if n.input[0] == "x")
    assert list(front.attribute[0].ints) == A


def test_transpose_after_split_keeps_a_graph_output_transpose():
    # A piece that is a graph output would change under its own name.
    m = split_into("Transpose", [2, 6, 4], 1, [3, 3], [A, A], outputs={"z0": None, "z1": None, "p0": None})
    assert call_rule(m, "_p_remove_transpose_after_split", ["sp"]) == ([], [], None)
    outs = {"z0": None, "z1": None, "z2": None, "y2": None}
    m = split_into("Transpose", [2, 9, 4], 1, [3, 3, 3], [A, A, A], outputs=outs)
    removed, _, out = call_rule(m, "_p_remove_transpose_after_split", ["sp"])
    assert sorted(removed) == ["r0", "r1"]
    kept = next(n for n in out.graph.node if n.name == "r2")
    assert list(kept.attribute[0].ints) == [0, 1, 2] and kept.output[0] == "y2"


def test_transpose_after_split_refuses_when_nothing_goes():
    # Every Transpose writes a graph output: moving one in front only adds one.
    outs = {"z0": None, "z1": None, "y0": None, "y1": None}
    m = split_into("Transpose", [2, 6, 4], 1, [3, 3], [A, A], outputs=outs)
    assert call_rule(m, "_p_remove_transpose_after_split", ["sp"]) == ([], [], None)
