"""Transpose nodes around a Split and its point-wise branches, and Reshape
nodes around a Concat or Split, move out of the way: each rule called by name
keeps names and numbers in onnxruntime, and does nothing where it must not."""

import numpy as np
import pytest

from conftest import call_rule, make_model, op_counts, reduced_ok

F = np.float32


# ---- reduce_transpose_op_around_split_sub_graph ------------------------------------

def split_branches(out_perm=(0, 2, 3, 1), extra=(), outputs=None, mid="Add", c=None, one_piece=False):
    """x NCHW -> Transpose to NWCH... -> Split on 1 -> Relu/Sigmoid -> join -> Transpose back."""
    if one_piece:
        nodes = [("Transpose", ["x"], ["t"], {"name": "tp_in", "perm": [0, 3, 1, 2]}),
                 ("Split", ["t", "ln"], ["s0"], {"name": "sp", "axis": 1}),
                 ("Mul", ["s0", "c"], ["a"], {"name": "mul"}),
                 ("Relu", ["a"], ["j"], {"name": "act"})]
        consts = {"ln": [6], "c": c}
    else:
        nodes = [("Transpose", ["x"], ["t"], {"name": "tp_in", "perm": [0, 3, 1, 2]}),
                 ("Split", ["t", "ln"], ["s0", "s1"], {"name": "sp", "axis": 1}),
                 ("Relu", ["s0"], ["r0"], {"name": "relu"}),
                 ("Sigmoid", ["s1"], ["r1"], {"name": "sig"}),
                 (mid, ["r0", "r1"], ["j"], {"name": "join"})]
        consts = {"ln": [3, 3]}
    nodes += [("Transpose", ["j"], ["y"], {"name": "tp_out", "perm": list(out_perm)})]
    nodes += list(extra)
    return make_model(nodes, {"x": [1, 8, 4, 6]}, outputs or {"y": None}, consts)


@pytest.mark.parametrize("model, tps_left", [
    # Both Transpose neighbours cancel; the Split works on the last axis.
    (split_branches(), 0),
    # A plain reader of the joined tensor gets a Transpose of its own.
    (split_branches(extra=[("Neg", ["j"], ["z"], {"name": "neg"})], outputs={"y": None, "z": None}), 1),
    # Two cancelling Transpose nodes both write graph outputs: one name moves
    # to the region, the other Transpose stays, reading the old layout.
    (split_branches(extra=[("Transpose", ["j"], ["z"], {"name": "tp_z", "perm": [0, 2, 3, 1]})],
                    outputs={"y": None, "z": None}), 2),
    # A one-element constant inside the region follows any layout.
    (split_branches(one_piece=True, c=np.array([1.5], F)), 0),
])
def test_transpose_around_split_sub_graph(model, tps_left):
    removed, added, out = call_rule(model, "_p_reduce_transpose_op_around_sub_graph", ["sp"])
    assert "tp_out" in removed
    assert op_counts(out).get("Transpose", 0) == tps_left
    sp = next(n for n in out.graph.node if n.op_type == "Split")
    assert sp.input[0] == "x" and next(a.i for a in sp.attribute if a.name == "axis") == 3
    # The graph output is written by the region itself, under its own name.
    assert any("y" in n.output and n.op_type != "Transpose" for n in out.graph.node)


@pytest.mark.parametrize("model", [
    # The Transpose neighbours disagree and a plain reader sides with neither.
    split_branches(out_perm=(0, 1, 3, 2), extra=[("Neg", ["j"], ["z"], {"name": "neg"})],
                   outputs={"y": None, "z": None}),
    # A piece also leaves the region: two edge nodes.
    split_branches(extra=[("Neg", ["s1"], ["z"], {"name": "neg"})], outputs={"y": None, "z": None}),
    # A constant laid out per channel would be read in the wrong layout.
    split_branches(one_piece=True, c=np.arange(6, dtype=F).reshape(1, 6, 1, 1)),
    # One branch is dead and the join reads a graph input instead: the
    # degrees balance, yet that input keeps its layout.
    make_model([("Transpose", ["x"], ["t"], {"name": "tp_in", "perm": [0, 3, 1, 2]}),
                ("Split", ["t", "ln"], ["s0", "s1"], {"name": "sp", "axis": 1}),
                ("Relu", ["s0"], ["r0"], {"name": "relu"}),
                ("Sigmoid", ["s1"], ["r1"], {"name": "sig"}),
                ("Add", ["r0", "e"], ["j"], {"name": "join"}),
                ("Transpose", ["j"], ["y"], {"name": "tp_out", "perm": [0, 2, 3, 1]})],
               {"x": [1, 8, 4, 6], "e": [1, 3, 8, 4]}, {"y": None}, {"ln": [3, 3]}),
])
def test_transpose_around_split_sub_graph_refused(model):
    assert call_rule(model, "_p_reduce_transpose_op_around_sub_graph", ["sp"]) == ([], [], None)


# ---- reduce_reshape_op_around_concat / _split --------------------------------------

def rs(src, dst, name):
    return ("Reshape", [src, "s_" + dst], [dst], {"name": name})


def concat_of_reshapes(plain_inputs=0, double=False):
    nodes = [rs("x0", "a0", "rs0"), rs("x1", "a1", "rs1")]
    consts = {"s_a0": [1, 16, 16], "s_a1": [1, 8, 16], "s_y": [1, 24 + 8 * plain_inputs, 4, 4]}
    ins = {"x0": [1, 16, 4, 4], "x1": [1, 8, 4, 4]}
    cat_in = ["a0", "a1"]
    for k in range(plain_inputs):
        ins[f"p{k}"] = [1, 8, 16]
        nodes.append(("Relu", [f"p{k}"], [f"q{k}"], {"name": f"relu{k}"}))
        cat_in.append(f"q{k}")
    if double:
        nodes[0] = rs("w", "x0r", "rs_pre")
        consts["s_x0r"] = [1, 16, 4, 4]
        nodes.insert(1, rs("x0r", "a0", "rs0"))
        ins["w"] = ins.pop("x0")
    nodes += [("Concat", cat_in, ["cat"], {"name": "cat", "axis": 1}), rs("cat", "y", "rs_out")]
    return make_model(nodes, ins, {"y": None}, consts)


def test_concat_runs_in_the_shape_of_its_reshapes():
    removed, added, out = call_rule(concat_of_reshapes(), "_p_reduce_reshape_op_around_axis_op", ["cat"])
    assert set(removed) == {"rs0", "rs1", "cat"}
    cat = next(n for n in out.graph.node if n.op_type == "Concat")
    assert list(cat.input) == ["x0", "x1"]


def split_of_reshape(outputs_at_reshape=(), parts=2):
    lens = [8] * parts
    nodes = [rs("x", "a", "rs_in"),
             ("Split", ["a", "ln"], [f"p{k}" for k in range(parts)], {"name": "sp", "axis": 1})]
    consts = {"s_a": [1, 8 * parts, 16], "ln": lens}
    outs = {}
    for k in range(parts):
        nodes.append(rs(f"p{k}", f"q{k}", f"rs{k}"))
        consts[f"s_q{k}"] = [1, 8, 4, 4]
        if k in outputs_at_reshape:
            outs[f"q{k}"] = None
        else:
            nodes.append(("Relu", [f"q{k}"], [f"y{k}"], {"name": f"relu{k}"}))
            outs[f"y{k}"] = None
    return make_model(nodes, {"x": [1, 8 * parts, 4, 4]}, outs, consts)


@pytest.mark.parametrize("model, kept_graph_outputs", [
    (split_of_reshape(), []),
    # A mount Reshape that writes a graph output goes too: the Split now
    # writes that tensor under its name.
    (split_of_reshape(outputs_at_reshape=(1,), parts=3), ["q1"]),
])
def test_split_writes_the_reshaped_pieces(model, kept_graph_outputs):
    removed, added, out = call_rule(model, "_p_reduce_reshape_op_around_axis_op", ["sp"])
    sp = next(n for n in out.graph.node if n.op_type == "Split")
    assert all(o.startswith("q") for o in sp.output)
    assert "sp" in removed and all(f"rs{k}" in removed for k in range(len(sp.output)))
    producers = [o for n in out.graph.node for o in n.output]
    for name in kept_graph_outputs:
        assert producers.count(name) == 1


@pytest.mark.parametrize("model", [
    # One Reshape among three plain neighbours.
    make_model([rs("x0", "a0", "rs0"), ("Relu", ["x1"], ["a1"]), ("Relu", ["x2"], ["a2"]),
                ("Concat", ["a0", "a1", "a2"], ["y"], {"name": "cat", "axis": 1})],
               {"x0": [1, 16, 4, 4], "x1": [1, 8, 16], "x2": [1, 8, 16]}, {"y": None}, {"s_a0": [1, 16, 16]}),
    # Two Reshape nodes in a row beside the Concat.
    concat_of_reshapes(double=True),
])
def test_reshape_around_axis_op_refused(model):
    assert call_rule(model, "_p_reduce_reshape_op_around_axis_op", ["cat"]) == ([], [], None)


def test_multi_branch_blocks_lose_their_layout_nodes():
    from tolm.layout_models import multi_branch_blocks

    reduced, report = reduced_ok(multi_branch_blocks(3))
    counts = op_counts(reduced)
    assert counts.get("Transpose", 0) == 0 and counts.get("Reshape", 0) <= 3
    assert {"reduce_reshape_op_around_concat", "reduce_reshape_op_around_split"} <= set(report["fired"])
