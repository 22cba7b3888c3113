"""Slice, Split and Concat restructuring, each rule called by name: where it
applies the model stays valid and keeps its numbers in onnxruntime; where it
does not, nothing changes."""

import pytest

from conftest import call_rule, const_of, make_model, neg, node_of
from tolm.api.ir_graph import IRGraph
from tolm.api.rules import reduce

BIG = 2**63 - 1


def sl(src, dst, starts, ends, axes, steps, name):
    """A Slice whose operands are constants named after the node."""
    return ("Slice", [src, name + "_s", name + "_e", name + "_a", name + "_p"], [dst], {"name": name}), {
        name + "_s": starts, name + "_e": ends, name + "_a": axes, name + "_p": steps}


def model_of(parts, inputs, outputs, extra_consts=None):
    nodes, consts = [], dict(extra_consts or {})
    for p in parts:
        if isinstance(p, tuple) and len(p) == 2 and isinstance(p[1], dict):
            nodes.append(p[0])
            consts.update(p[1])
        else:
            nodes.append(p)
    return make_model(nodes, inputs, outputs, consts)


# ---- fuse_two_slice ---------------------------------------------------------

# (id, slice0 params, slice1 params, input shape, output shape, fused (starts, ends, axes, steps) or None)
TWO_SLICE = [
    ("shared axis", ([1], [7], [1], [1]), ([2], [4], [1], [1]), [2, 8, 3], [2, 2, 3], ([3], [5], [1], [1])),
    ("second axis inserted in sorted place", ([1], [7], [2], [1]), ([0], [1], [0], [1]), [3, 4, 8], [1, 4, 6],
     ([0, 1], [1, 7], [0, 2], [1, 1])),
    ("steps off the shared axis do not matter", ([1], [7], [2], [1]), ([2], [-1], [0], [2]), [5, 4, 8], [1, 4, 6],
     ([2, 1], [-1, 7], [0, 2], [2, 1])),
    ("end near the type's largest value is cut", ([2], [BIG], [0], [1]), ([1], [BIG - 1], [0], [1]), [9, 2], [6, 2],
     ([3], [BIG], [0], [1])),
    # The second Slice asks for more than the first left: the first end holds.
    ("second end past the first", ([2], [5], [0], [1]), ([0], [100], [0], [1]), [10, 2], [3, 2],
     ([2], [5], [0], [1])),
    ("negative first end known from the shape", ([1], [-2], [0], [1]), ([1], [100], [0], [1]), [10, 2], [6, 2],
     ([2], [8], [0], [1])),
]


@pytest.mark.parametrize("case", TWO_SLICE, ids=[c[0] for c in TWO_SLICE])
def test_fuse_two_slice(case):
    _, p0, p1, ishape, oshape, fused = case
    m = model_of([sl("x", "a", *p0, "s0"), sl("a", "b", *p1, "s1"), neg("b", "y")], {"x": ishape}, {"y": oshape})
    removed, added, out = call_rule(m, "_p_fuse_two_slice", ["s0", "s1"])
    assert (removed, added) == (["s1"], [])
    s0 = node_of(out, "s0")
    assert [const_of(out, t).tolist() for t in s0.input[1:]] == [list(v) for v in fused]


def test_fuse_two_slice_shared_operands_stay_for_their_other_readers():
    # s0's starts are also read by a third Slice: it keeps the old value.
    m = model_of([sl("x", "a", [1], [7], [1], [1], "s0"), sl("a", "b", [2], [4], [1], [1], "s1"), neg("b", "y"),
                  ("Slice", ["x", "s0_s", "s0_e", "s0_a", "s0_p"], ["c"], {"name": "s2"}), neg("c", "z")],
                 {"x": [2, 8, 3]}, {"y": [2, 2, 3], "z": [2, 6, 3]})
    _, _, out = call_rule(m, "_p_fuse_two_slice", ["s0", "s1"])
    assert const_of(out, "s0_s").tolist() == [1] and const_of(out, "s0_e").tolist() == [7]


def test_fuse_two_slice_keeps_a_graph_output_name():
    m = model_of([sl("x", "a", [1], [7], [1], [1], "s0"), sl("a", "y", [2], [4], [1], [1], "s1")],
                 {"x": [2, 8, 3]}, {"y": [2, 2, 3]})
    _, _, out = call_rule(m, "_p_fuse_two_slice", ["s0", "s1"])
    assert node_of(out, "s0").output[0] == "y"


TWO_SLICE_REFUSES = [
    ("step 2 on the shared axis", ([0], [8], [1], [2]), ([0], [2], [1], [2]), {}),
    ("different steps on the shared axis", ([0], [8], [1], [1]), ([0], [2], [1], [2]), {}),
    ("negative start of the second", ([1], [7], [1], [1]), ([-2], [6], [1], [1]), {}),
    # The same axis stored as -2 and 1 would be listed twice.
    ("same axis stored in two forms", ([1], [7], [1], [1]), ([0], [2], [-2], [1]), {}),
    ("the first output has a second reader", ([1], [7], [1], [1]), ([2], [4], [1], [1]), {"second": True}),
]


@pytest.mark.parametrize("case", TWO_SLICE_REFUSES, ids=[c[0] for c in TWO_SLICE_REFUSES])
def test_fuse_two_slice_refuses(case):
    _, p0, p1, opts = case
    parts = [sl("x", "a", *p0, "s0"), sl("a", "b", *p1, "s1"), neg("b", "y")]
    outputs = {"y": None}
    if opts.get("second"):
        parts.append(neg("a", "z"))
        outputs["z"] = None
    m = model_of(parts, {"x": [2, 8, 3]}, outputs)
    assert call_rule(m, "_p_fuse_two_slice", ["s0", "s1"]) == ([], [], None)


def test_fuse_two_slice_needs_explicit_axes_and_steps():
    m = make_model([("Slice", ["x", "st", "en"], ["a"], {"name": "s0"}),
                    ("Slice", ["a", "st", "en"], ["y"], {"name": "s1"})],
                   {"x": [8]}, {"y": [2]}, {"st": [1], "en": [3]})
    assert call_rule(m, "_p_fuse_two_slice", ["s0", "s1"]) == ([], [], None)


# ---- replace_parallel_slice_by_split ------------------------------------------

def parallel(ranges, dim=8, axis=1, extra=()):
    parts, outputs = [], {}
    for k, (st, en) in enumerate(ranges):
        parts.append(sl("x", f"p{k}", [st], [en], [axis], [1], f"s{k}"))
        parts.append(neg(f"p{k}", f"y{k}"))
        outputs[f"y{k}"] = None
    parts.extend(extra)
    return model_of(parts, {"x": [2, dim, 3]}, outputs)


def split_nodes(model):
    return [n for n in model.graph.node if n.op_type == "Split"]


def split_lengths(model, split):
    return const_of(model, split.input[1]).tolist()


@pytest.mark.parametrize("ranges, dim, lengths, outs", [
    ([(0, 2), (2, 4), (4, 8)], 8, [2, 2, 4], ["p0", "p1", "p2"]),
    # Holes become filler outputs of the Split.
    ([(2, 4), (6, 8)], 10, [2, 2, 2, 2, 2],
     ["s0_2sp_invalid0", "p0", "s0_2sp_invalid2", "p1", "s0_2sp_invalid4"]),
    # Negative and clamped bounds are positions once normalised.
    ([(-8, 3), (3, BIG)], 8, [3, 5], ["p0", "p1"]),
])
def test_parallel_slices_become_one_split(ranges, dim, lengths, outs):
    m = parallel(ranges, dim)
    removed, added, out = call_rule(m, "_p_replace_parallel_slice_by_split", ["s0"])
    assert sorted(removed) == [f"s{k}" for k in range(len(ranges))] and added == ["Split"]
    (split,) = split_nodes(out)
    assert split.name == "s0_2sp"
    assert split_lengths(out, split) == lengths
    assert list(split.output) == outs


def test_overlapping_slices_group_apart():
    # [0,4) and [4,8) chain; [2,6) is a group of one and stays a Slice.
    m = parallel([(0, 4), (2, 6), (4, 8)])
    removed, added, out = call_rule(m, "_p_replace_parallel_slice_by_split", ["s0"])
    assert sorted(removed) == ["s0", "s2"] and added == ["Split"]
    assert [n.name for n in out.graph.node if n.op_type == "Slice"] == ["s1"]


def test_two_chains_make_two_splits():
    m = parallel([(0, 4), (0, 4), (4, 8), (4, 8)])
    removed, added, out = call_rule(m, "_p_replace_parallel_slice_by_split", ["s0"])
    assert len(removed) == 4 and added == ["Split", "Split"]
    assert sorted(n.name for n in split_nodes(out)) == ["s0_2sp", "s0_2sp1"]


def test_parallel_slice_graph_output_keeps_its_name():
    parts = [sl("x", "y0", [0], [3], [1], [1], "s0"), sl("x", "y1", [3], [8], [1], [1], "s1")]
    m = model_of(parts, {"x": [2, 8, 3]}, {"y0": None, "y1": None})
    _, added, out = call_rule(m, "_p_replace_parallel_slice_by_split", ["s0"])
    assert added == ["Split"] and list(split_nodes(out)[0].output) == ["y0", "y1"]


@pytest.mark.parametrize("ranges, extra", [
    ([(0, 4), (0, 4)], ()),                       # same range twice: groups of one
    ([(0, 4)], [sl("x", "q", [4], [8], [2], [1], "other_axis"), neg("q", "z")]),
    ([(0, 4)], [sl("x", "q", [4], [8], [1], [2], "other_step"), neg("q", "z")]),
    ([(0, 4), (4, 4)], ()),                       # an empty piece is no Split output
])
def test_parallel_slices_refused(ranges, extra):
    m = parallel(ranges, extra=extra)
    if extra:
        m.graph.output.extend([m.graph.output[0]])
        m.graph.output[-1].name = "z"
        m.graph.output[-1].type.tensor_type.ClearField("shape")
    assert call_rule(m, "_p_replace_parallel_slice_by_split", ["s0"]) == ([], [], None)


def test_parallel_slice_other_axis_or_step_is_left_out():
    # A slice on another axis does not stop the others from being grouped.
    m = parallel([(0, 4), (4, 8)], extra=[sl("x", "q", [0], [1], [2], [1], "other"), neg("q", "z")])
    m.graph.output.extend([m.graph.output[0]])
    m.graph.output[-1].name = "z"
    removed, added, out = call_rule(m, "_p_replace_parallel_slice_by_split", ["s0"])
    assert sorted(removed) == ["s0", "s1"] and added == ["Split"]


# ---- remove_concat_slice ------------------------------------------------------

def concat_slice(st, en, axes=(1,), steps=None, concat_axis=1, extra=(), outputs=None):
    inputs = {"a": [2, 3, 4], "b": [2, 5, 4], "c": [2, 1, 4]}
    ins = ["sl_in", "st", "en", "ax"] + (["sp"] if steps is not None else [])
    consts = {"st": [st], "en": [en], "ax": list(axes)}
    if steps is not None:
        consts["sp"] = steps
    nodes = [("Concat", ["a", "b", "c"], ["sl_in"], {"name": "cat", "axis": concat_axis}),
             ("Slice", ins, ["p"], {"name": "sl"}), neg("p", "y"), *extra]
    return make_model(nodes, inputs, outputs or {"y": None}, consts)


@pytest.mark.parametrize("st, en, piece, steps", [(0, 3, "a", None), (3, 8, "b", [1]), (8, 9, "c", None)])
def test_concat_slice_is_the_piece(st, en, piece, steps):
    removed, added, out = call_rule(concat_slice(st, en, steps=steps), "_p_remove_concat_slice", ["cat", "sl"])
    assert (removed, added) == (["cat", "sl"], [])
    assert list(node_of(out, "neg_y").input) == [piece]


def test_concat_slice_keeps_a_concat_others_read():
    m = concat_slice(3, 8, extra=[neg("sl_in", "z")], outputs={"y": None, "z": None})
    removed, _, _ = call_rule(m, "_p_remove_concat_slice", ["cat", "sl"])
    assert removed == ["sl"]


@pytest.mark.parametrize("st, en, axes, steps, concat_axis, outputs", [
    (3, BIG, (1,), None, 1, None),          # an end past the sum is not found
    (3, 8, (-2,), None, 1, None),           # axes compare as stored
    (3, 8, (1,), [2], 1, None),             # a stride takes every other element
    (3, 7, (1,), None, 1, None),            # part of a piece
    (3, 8, (1,), None, 1, {"p": None}),     # the slice's output is a graph output
])
def test_concat_slice_refused(st, en, axes, steps, concat_axis, outputs):
    m = concat_slice(st, en, axes=axes, steps=steps, concat_axis=concat_axis)
    if outputs:
        m.graph.output.extend([m.graph.output[0]])
        m.graph.output[-1].name = "p"
    assert call_rule(m, "_p_remove_concat_slice", ["cat", "sl"]) == ([], [], None)


# ---- Split and Concat -----------------------------------------------------------

def split_node(src, outs, lengths, axis, name="sp", lens_name=None):
    lens_name = lens_name or name + "_len"
    return ("Split", [src, lens_name], outs, {"name": name, "axis": axis}), {lens_name: lengths}


def test_remove_concat_split_pieces_stay():
    m = model_of([("Concat", ["a", "b"], ["c"], {"name": "cat", "axis": 1}),
                  split_node("c", ["p", "q"], [2, 3], 1), neg("p", "y"), neg("q", "z")],
                 {"a": [2, 2, 4], "b": [2, 3, 4]}, {"y": None, "z": None})
    removed, added, out = call_rule(m, "_p_remove_concat_split", ["cat", "sp"])
    assert (removed, added) == (["cat", "sp"], [])
    assert node_of(out, "neg_y").input[0] == "a" and node_of(out, "neg_z").input[0] == "b"


@pytest.mark.parametrize("lengths, outputs", [([3, 2], {"y": None, "z": None}), ([2, 3], {"y": None, "p": None})])
def test_remove_concat_split_refused(lengths, outputs):
    # Other pieces than went in, or a piece that is a graph output.
    m = model_of([("Concat", ["a", "b"], ["c"], {"name": "cat", "axis": 1}),
                  split_node("c", ["p", "q"], lengths, 1), neg("p", "y"), neg("q", "z")],
                 {"a": [2, 2, 4], "b": [2, 3, 4]}, {"y": None, "z": None, **outputs})
    assert call_rule(m, "_p_remove_concat_split", ["cat", "sp"]) == ([], [], None)


def test_fuse_split_concat_run_with_an_outside_tensor():
    # Concat(s0, s1, w, s2): s0 and s1 join into one piece of the Split.
    m = model_of([split_node("x", ["s0", "s1", "s2"], [1, 2, 3], 1),
                  ("Concat", ["s0", "s1", "w", "s2"], ["c"], {"name": "cat", "axis": 1}), neg("c", "y")],
                 {"x": [2, 6, 3], "w": [2, 4, 3]}, {"y": None})
    removed, added, out = call_rule(m, "_p_fuse_split_concat", ["sp"])
    assert (removed, added) == (["sp", "cat"], ["Split", "Concat"])
    sp, cat = node_of(out, "sp"), node_of(out, "cat")
    assert split_lengths(out, sp) == [3, 3] and sp.output[1] == "s2"
    assert list(cat.input) == [sp.output[0], "w", "s2"]


@pytest.mark.parametrize("graph_output", [False, True])
def test_fuse_split_concat_whole(graph_output):
    nodes = [split_node("x", ["s0", "s1"], [2, 4], 1),
             ("Concat", ["s0", "s1"], ["c"], {"name": "cat", "axis": 1})]
    if not graph_output:
        nodes.append(neg("c", "y"))
    m = model_of(nodes, {"x": [2, 6, 3]}, {"c" if graph_output else "y": None})
    removed, added, out = call_rule(m, "_p_fuse_split_concat", ["sp"])
    assert removed == ["sp", "cat"] and added == (["Identity"] if graph_output else [])
    if not graph_output:
        assert node_of(out, "neg_y").input[0] == "x"


@pytest.mark.parametrize("concat_ins", [
    ["s1", "s0"],              # swapped order fails the run test
    ["s0", "w", "s1"],         # groups of one piece: no node saved
    ["s0", "s1", "w", "s0"],   # a piece used twice, apart from its run
])
def test_fuse_split_concat_refused(concat_ins):
    m = model_of([split_node("x", ["s0", "s1", "s2"], [2, 2, 2], 1),
                  ("Concat", concat_ins, ["c"], {"name": "cat", "axis": 1}), neg("c", "y"), neg("s2", "z")],
                 {"x": [2, 6, 3], "w": [2, 4, 3]}, {"y": None, "z": None})
    assert call_rule(m, "_p_fuse_split_concat", ["sp"]) == ([], [], None)


def test_fuse_split_split_flattens():
    m = model_of([split_node("x", ["a", "b", "c"], [4, 4, 4], 1),
                  split_node("b", ["b0", "b1"], [1, 3], 1, name="sp2"),
                  *[neg(t, "y" + t) for t in ["a", "b0", "b1", "c"]]],
                 {"x": [2, 12]}, {"y" + t: None for t in ["a", "b0", "b1", "c"]})
    removed, added, out = call_rule(m, "_p_fuse_split_split", ["sp"])
    assert (removed, added) == (["sp", "sp2"], ["Split"])
    (sp,) = split_nodes(out)
    assert split_lengths(out, sp) == [4, 1, 3, 4] and list(sp.output) == ["a", "b0", "b1", "c"]


def test_fuse_split_split_refuses_a_piece_with_a_second_reader():
    m = model_of([split_node("x", ["a", "b"], [4, 4], 1), split_node("b", ["b0", "b1"], [1, 3], 1, name="sp2"),
                  *[neg(t, "y" + t) for t in ["a", "b", "b0", "b1"]]],
                 {"x": [2, 8]}, {"y" + t: None for t in ["a", "b", "b0", "b1"]})
    assert call_rule(m, "_p_fuse_split_split", ["sp"]) == ([], [], None)


@pytest.mark.parametrize("shape, split_axis, lengths, concat_axis, applies", [
    ([1, 1, 8], 2, [4, 4], 0, True),
    ([2, 1, 8], 2, [4, 4], 0, False),       # product over [2, 1] is 2
    ([2, 3], 0, [1, 1], 1, True),
    ([4, 3], 0, [2, 2], 1, False),          # pieces longer than 1
    ([3, 4], -1, [1, 1, 1, 1], 0, False),   # -1 is the last axis, not before 0
    ([2, 6], 1, [3, 3], 1, True),           # same axis: an identity Reshape
])
def test_replace_split_concat_by_reshape(shape, split_axis, lengths, concat_axis, applies):
    n = len(lengths)
    outs = [f"s{k}" for k in range(n)]
    m = model_of([split_node("x", outs, lengths, split_axis),
                  ("Concat", outs, ["c"], {"name": "cat", "axis": concat_axis}), neg("c", "y")],
                 {"x": shape}, {"y": None})
    removed, added, _ = call_rule(m, "_p_replace_split_concat_by_reshape", ["sp", "cat"])
    assert (removed, added) == ((["sp", "cat"], ["Reshape"]) if applies else ([], []))


def test_replace_split_concat_by_reshape_keeps_a_piece_others_read():
    m = model_of([split_node("x", ["s0", "s1"], [1, 1], 0),
                  ("Concat", ["s0", "s1"], ["c"], {"name": "cat", "axis": 1}), neg("c", "y"), neg("s0", "z")],
                 {"x": [2, 3]}, {"y": None, "z": None})
    assert call_rule(m, "_p_replace_split_concat_by_reshape", ["sp", "cat"]) == ([], [], None)


def test_fuse_two_concat_expands_every_place():
    m = make_model([("Concat", ["a", "b"], ["c"], {"name": "c1", "axis": 1}),
                    ("Concat", ["c", "a", "c"], ["y"], {"name": "c2", "axis": 1})],
                   {"a": [2, 1], "b": [2, 2]}, {"y": None})
    removed, added, out = call_rule(m, "_p_fuse_two_concat", ["c1", "c2"])
    assert (removed, added) == (["c1", "c2"], ["Concat"])
    assert list(node_of(out, "c2").input) == ["a", "b", "a", "a", "b"]


@pytest.mark.parametrize("axis_2, second_reader", [(0, False), (1, True)])
def test_fuse_two_concat_refused(axis_2, second_reader):
    nodes = [("Concat", ["a", "b"], ["c"], {"name": "c1", "axis": 1}),
             ("Concat", ["c", "c"], ["y"], {"name": "c2", "axis": axis_2})]
    outputs = {"y": None}
    if second_reader:
        nodes.append(neg("c", "z"))
        outputs["z"] = None
    m = make_model(nodes, {"a": [2, 2], "b": [2, 2]}, outputs)
    assert call_rule(m, "_p_fuse_two_concat", ["c1", "c2"]) == ([], [], None)


@pytest.mark.parametrize("order, rank, opset, applies", [
    (["s2", "s0", "s1"], 4, 13, True),
    (["s1", "s1", "s0", "s2"], 4, 13, True),     # a piece used twice
    (["s2", "s0", "s1"], 4, 11, True),           # lengths as an attribute
    (["s2", "s0", "s1"], 3, 13, False),          # four dimensions only
])
def test_channel_shuffle_split_concat_to_gather(order, rank, opset, applies):
    shape = [1, 6, 2, 3][:rank] if rank == 4 else [6, 2, 3]
    axis = 1 if rank == 4 else 0
    lens = [1, 2, 3]
    if opset >= 13:
        sp, consts = split_node("x", ["s0", "s1", "s2"], lens, axis)
        nodes = [(sp, consts)]
    else:
        nodes = [("Split", ["x"], ["s0", "s1", "s2"], {"name": "sp", "axis": axis, "split": lens})]
    nodes += [("Concat", order, ["c"], {"name": "cat", "axis": axis}), neg("c", "y")]
    m = model_of(nodes, {"x": shape}, {"y": None})
    m.opset_import[0].version = opset
    removed, added, out = call_rule(m, "_p_fuse_dim_shuffle_split_concat_to_gather", ["sp", "cat"])
    assert (removed, added) == ((["sp", "cat"], ["Gather"]) if applies else ([], []))
    if applies and order == ["s2", "s0", "s1"]:
        g = node_of(out, "cat_2gather")
        assert const_of(out, g.input[1]).tolist() == [3, 4, 5, 0, 1, 2]


def elementwise_pair(op, n=2, swap=False, shape=(2, 6, 3)):
    lens = [shape[1] // n] * n
    parts = [split_node("x", [f"a{k}" for k in range(n)], lens, 1, name="sp1"),
             split_node("w", [f"b{k}" for k in range(n)], lens, 1, name="sp2")]
    outputs = {}
    for k in range(n):
        ins = [f"b{k}", f"a{k}"] if swap and k % 2 else [f"a{k}", f"b{k}"]
        parts.append((op, ins, [f"y{k}"], {"name": f"op{k}"}))
        outputs[f"y{k}"] = None
    return model_of(parts, {"x": list(shape), "w": list(shape)}, outputs)


@pytest.mark.parametrize("op, n, swap, applies", [
    ("Add", 2, True, True),
    ("Mul", 3, False, True),
    ("Sub", 1, False, True),
    ("Sub", 2, False, False),   # the second Sub's inputs differ from the first's
])
def test_fuse_split_split_elements_op(op, n, swap, applies):
    m = elementwise_pair(op, n, swap)
    removed, added, out = call_rule(m, "_p_fuse_split_split_elements_op", ["sp1"])
    if not applies:
        assert out is None
        return
    assert sorted(removed) == sorted(["sp1", "sp2"] + [f"op{k}" for k in range(n)])
    assert added == [op, "Split"]
    (sp,) = split_nodes(out)
    assert list(sp.output) == [f"y{k}" for k in range(n)]


def test_fuse_split_split_elements_op_refuses_a_piece_read_twice():
    m = elementwise_pair("Add", 2)
    m.graph.node.append(make_model([neg("b0", "z")], {}, {}).graph.node[0])
    m.graph.output.extend([m.graph.output[0]])
    m.graph.output[-1].name = "z"
    assert call_rule(m, "_p_fuse_split_split_elements_op", ["sp1"]) == ([], [], None)


def test_wide_tensor_of_overlapping_slices_still_splits_what_lines_up():
    # 100 slices on axis 1 that overlap pairwise rest for the round once the
    # first of them finds nothing; two slices on axis 0 still become a Split.
    parts = [sl("x", f"p{k}", [k], [k + 100], [1], [1], f"s{k}") for k in range(100)]
    parts += [sl("x", "q0", [0], [2], [0], [1], "t0"), sl("x", "q1", [2], [4], [0], [1], "t1")]
    outputs = {f"p{k}": None for k in range(100)}
    outputs.update({"q0": None, "q1": None})
    ir = IRGraph(model_of(parts, {"x": [4, 200]}, outputs))
    stats = reduce.run_reduce(ir)
    assert stats["fired"].get("replace_parallel_slice_by_split") == 1
    (split,) = split_nodes(ir.to_onnx())
    assert list(split.output) == ["q0", "q1"]
