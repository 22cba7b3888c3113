"""Like operators on the branches of a Split, or feeding one Concat, become one
operator between a Concat and a Split; call_rule checks every applied merge in
onnxruntime. Merges that would change numbers, or not pay, leave the graph."""

import numpy as np
import pytest

from conftest import call_rule, make_model, op_counts

F = np.float32
RULE = "_p_merge_parallel_op_around_split_concat"


def after_split(op, n, part, attrs=None, extra=(), consts=None, axis=1, out_part=None, outputs=None):
    """x [1, 4n, 3, 3] split on `axis` into n parts; each part through `op`."""
    shape = [1, 3, 3]
    shape.insert(axis, 4 * n)
    parts = [f"s{k}" for k in range(n)]
    nodes = [("Split", ["x", "len"], parts, {"name": "split", "axis": axis})]
    outs = {}
    for k in range(n):
        ins = [parts[k]] + [e.format(k=k) for e in extra]
        nodes.append((op, ins, [f"y{k}"], dict(attrs or {}, name=f"p{k}")))
        outs[f"y{k}"] = out_part or part
    outs.update(outputs or {})
    c = {"len": [4] * n}
    c.update(consts or {})
    return make_model(nodes, {"x": shape}, outs, c, opset=17)


def test_four_relu_after_split_become_one():
    model = after_split("Relu", 4, [1, 4, 3, 3])
    removed, added, out = call_rule(model, RULE, ["split"])
    assert removed == ["p0", "p1", "p2", "p3"] and added == ["Concat", "Relu", "Split"]
    assert op_counts(out)["Relu"] == 1


def test_two_relu_do_not_pay():
    assert call_rule(after_split("Relu", 2, [1, 4, 3, 3]), RULE, ["split"]) == ([], [], None)


@pytest.mark.parametrize("axis,merges", [(0, True), (1, False)])
def test_shared_operand_must_broadcast_on_the_joined_axis(axis, merges):
    # c is [1, 8, 1, 1] on x [16, 8, 3, 3] split on axis 0 (it broadcasts
    # there), [1, 4, 1, 1] on x [1, 16, 3, 3] split on axis 1 (it does not).
    shape_x, part, c = (([16, 8, 3, 3], [4, 8, 3, 3], np.linspace(1, 2, 8, dtype=F).reshape(1, 8, 1, 1))
                        if axis == 0 else
                        ([1, 16, 3, 3], [1, 4, 3, 3], np.linspace(1, 2, 4, dtype=F).reshape(1, 4, 1, 1)))
    parts = [f"s{k}" for k in range(4)]
    nodes = [("Split", ["x", "len"], parts, {"name": "split", "axis": axis})]
    nodes += [("Mul", [parts[k], "c"], [f"y{k}"], {"name": f"p{k}"}) for k in range(4)]
    model = make_model(nodes, {"x": shape_x}, {f"y{k}": part for k in range(4)},
                       {"len": [4] * 4, "c": c}, opset=17)
    removed, _, _ = call_rule(model, RULE, ["split"])
    assert bool(removed) == merges


def test_elementwise_on_one_input_with_three_equal_constants():
    consts = {f"c{k}": np.full((1, 1, 3, 3), 0.5, F) for k in range(3)}
    model = after_split("Sub", 3, [1, 4, 3, 3], extra=["c{k}"], consts=consts)
    removed, added, out = call_rule(model, RULE, ["split"])
    assert added == ["Concat", "Sub", "Split"] and len(removed) == 3


def test_reduce_sum_over_the_joined_axis_becomes_einsum():
    # Before a Concat on axis 1: each ReduceSum sums its own part's channels.
    nodes = [("ReduceSum", [f"a{k}", "ax"], [f"r{k}"], {"name": f"p{k}", "keepdims": 1}) for k in range(3)]
    nodes.append(("Concat", ["r0", "r1", "r2"], ["y"], {"name": "cat", "axis": 1}))
    ins = {f"a{k}": [1, k + 2, 5, 5] for k in range(3)}
    model = make_model(nodes, ins, {"y": [1, 3, 5, 5]}, {"ax": [1]}, opset=17)
    removed, added, out = call_rule(model, RULE, ["cat"])
    assert added == ["Concat", "Einsum", "Split"]
    w = [i for i in out.graph.initializer if i.data_type == 1 and len(i.dims) == 2]
    assert w and list(w[0].dims) == [9, 3]


@pytest.mark.parametrize("op, keepdims, axes, merges", [
    ("ReduceMean", 1, [1], False),  # a mean over the joined axis mixes the parts
    ("ReduceSum", 0, [2], False),
    ("ReduceSum", 1, [2, 1], False),  # the joined axis among others
    ("ReduceMax", 1, [2], True),  # over another axis
])
def test_reductions_before_a_concat(op, keepdims, axes, merges):
    nodes = [(op, [f"a{k}", "ax"], [f"r{k}"], {"name": f"p{k}", "keepdims": keepdims}) for k in range(3)]
    nodes.append(("Concat", ["r0", "r1", "r2"], ["y"], {"name": "cat", "axis": 1}))
    ins = {f"a{k}": [1, 2, 5, 5] for k in range(3)}
    model = make_model(nodes, ins, {"y": None}, {"ax": axes}, opset=18)
    assert call_rule(model, RULE, ["cat"])[1] == (["Concat", op, "Split"] if merges else [])


@pytest.mark.parametrize("same_indices,merges", [(True, True), (False, False)])
def test_gather_off_the_joined_axis_needs_equal_indices(same_indices, merges):
    consts = {f"i{k}": [2, 0] if same_indices or k == 0 else [1, 0] for k in range(3)}
    model = after_split("Gather", 3, [1, 4, 3, 3], attrs={"axis": 2}, extra=["i{k}"], consts=consts,
                        out_part=[1, 4, 2, 3])
    removed, _, _ = call_rule(model, RULE, ["split"])
    assert bool(removed) == merges


def test_gather_on_the_joined_axis_offsets_each_part():
    # Index counts differ from the part sizes, and one index is negative.
    consts = {"i0": [3, 0], "i1": [-1, 1], "i2": [2, 2]}
    model = after_split("Gather", 3, [1, 4, 3, 3], attrs={"axis": 1}, extra=["i{k}"], consts=consts,
                        out_part=[1, 2, 3, 3])
    removed, added, out = call_rule(model, RULE, ["split"])
    assert added == ["Concat", "Gather", "Split"]
    idx = {i.name: list(np.frombuffer(i.raw_data, np.int64)) for i in out.graph.initializer if i.raw_data}
    assert [3, 0, 7, 5, 10, 10] in idx.values()


def test_activation_next_to_conv_before_concat_stays():
    w = np.ones((2, 2, 1, 1), F)
    nodes = [("Conv", [f"a{k}", "w"], [f"c{k}"], {"name": f"conv{k}"}) for k in range(4)]
    nodes += [("Sigmoid", [f"c{k}"], [f"r{k}"], {"name": f"p{k}"}) for k in range(4)]
    nodes.append(("Concat", [f"r{k}" for k in range(4)], ["y"], {"name": "cat", "axis": 1}))
    model = make_model(nodes, {f"a{k}": [1, 2, 3, 3] for k in range(4)}, {"y": [1, 8, 3, 3]}, {"w": w})
    assert call_rule(model, RULE, ["cat"]) == ([], [], None)
    # The same after a Split merges.
    removed, _, _ = call_rule(after_split("Sigmoid", 4, [1, 4, 3, 3]), RULE, ["split"])
    assert len(removed) == 4


def test_elementwise_feeding_its_sibling_stays():
    # p1 reads p0's output: merged, each would wait for the other.
    parts = ["s0", "s1", "s2"]
    nodes = [("Split", ["x", "len"], parts, {"name": "split", "axis": 1}),
             ("Add", ["s0", "t"], ["y0"], {"name": "p0"}),
             ("Add", ["s1", "t"], ["y1"], {"name": "p1"}),
             ("Add", ["s2", "t"], ["y2"], {"name": "p2"}),
             ("Relu", ["y0"], ["t0"])]
    model = make_model(nodes, {"x": [1, 12, 3, 3], "t": [1, 1, 3, 3]},
                       {"y0": [1, 4, 3, 3], "y1": [1, 4, 3, 3], "y2": [1, 4, 3, 3], "t0": [1, 4, 3, 3]},
                       {"len": [4, 4, 4]}, opset=17)
    removed, _, _ = call_rule(model, RULE, ["split"])
    assert removed == ["p0", "p1", "p2"]
    nodes[2] = ("Add", ["s1", "y0"], ["y1"], {"name": "p1"})
    nodes[1] = ("Add", ["s0", "t"], ["y0"], {"name": "p0"})
    model = make_model(nodes, {"x": [1, 12, 3, 3], "t": [1, 4, 3, 3]},
                       {"y0": [1, 4, 3, 3], "y1": [1, 4, 3, 3], "y2": [1, 4, 3, 3], "t0": [1, 4, 3, 3]},
                       {"len": [4, 4, 4]}, opset=17)
    assert call_rule(model, RULE, ["split"]) == ([], [], None)


def test_two_groups_in_one_call_and_graph_outputs_keep_their_names():
    parts = [f"s{k}" for k in range(4)]
    nodes = [("Split", ["x", "len"], parts, {"name": "split", "axis": 1})]
    nodes += [("Relu", [parts[k]], [f"y{k}"], {"name": f"r{k}"}) for k in range(2)]
    nodes += [("Relu", [parts[k]], [f"y{k}"], {"name": f"r{k}"}) for k in range(2, 4)]
    nodes += [("Sigmoid", [parts[k]], [f"z{k}"], {"name": f"g{k}"}) for k in range(4)]
    outs = {f"y{k}": [1, 4, 3, 3] for k in range(4)}
    outs.update({f"z{k}": [1, 4, 3, 3] for k in range(4)})
    model = make_model(nodes, {"x": [1, 16, 3, 3]}, outs, {"len": [4] * 4}, opset=17)
    removed, added, out = call_rule(model, RULE, ["split"])
    assert sorted(removed) == sorted([f"r{k}" for k in range(4)] + [f"g{k}" for k in range(4)])
    assert added.count("Split") == 2
    assert [o.name for o in out.graph.output] == list(outs)
