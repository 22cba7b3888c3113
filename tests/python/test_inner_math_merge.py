"""Scalar math on some parts of a Split whose parts meet again in one Concat
runs once on the whole tensor; call_rule checks the numbers in onnxruntime."""

import numpy as np
import pytest

from conftest import call_rule, make_model, op_counts

F = np.float32
RULE = "_p_merge_inner_math_op_in_split_concat"


def split_math_concat(ops, order=None, cat_axis=1, lens=(2, 3, 4), extra_cat=False):
    """x [1, 9, 4, 4] split on axis 1; part k through ops[k] = (op, value,
    const_first) or None; the parts meet in a Concat in `order`."""
    parts = [f"s{k}" for k in range(len(lens))]
    nodes = [("Split", ["x", "len"], parts, {"name": "split", "axis": 1})]
    consts = {"len": list(lens)}
    cat_in = []
    for k, entry in enumerate(ops):
        if entry is None:
            cat_in.append(parts[k])
            continue
        op, value, const_first = entry
        consts[f"c{k}"] = np.array(value, F)
        ins = [f"c{k}", parts[k]] if const_first else [parts[k], f"c{k}"]
        nodes.append((op, ins, [f"m{k}"], {"name": f"math{k}"}))
        cat_in.append(f"m{k}")
    cat_in = [cat_in[i] for i in (order or range(len(cat_in)))]
    inputs = {"x": [1, sum(lens), 4, 4]}
    if extra_cat:
        cat_in.append("e")
        inputs["e"] = [1, 2, 4, 4]
    out_shape = [1, sum(lens) + (2 if extra_cat else 0), 4, 4]
    if cat_axis != 1:
        out_shape = None
    nodes.append(("Concat", cat_in, ["y"], {"name": "cat", "axis": cat_axis}))
    return make_model(nodes, inputs, {"y": out_shape}, consts, opset=17)


def test_add_on_two_parts_becomes_one_add_with_a_vector():
    model = split_math_concat([("Add", 1.0, False), None, ("Add", [2.0], True)])
    removed, added, out = call_rule(model, RULE, ["split"])
    assert added == ["Add"] and set(removed) == {"split", "math0", "math2", "cat"}
    vec = [i for i in out.graph.initializer if i.dims == [1, 9, 1, 1]]
    assert vec and list(np.frombuffer(vec[0].raw_data, F)) == [1, 1, 0, 0, 0, 2, 2, 2, 2]


def test_mul_leaves_the_straight_part_at_one():
    removed, added, out = call_rule(split_math_concat([None, ("Mul", 3.0, True), None]), RULE, ["split"])
    assert added == ["Mul"] and op_counts(out) == {"Mul": 1}


@pytest.mark.parametrize("ops, kw", [
    ([("Add", 1.0, False), ("Mul", 2.0, False), None], {}),  # two kinds of math
    ([None, None, None], {}),  # no math at all
    ([("Sub", 1.0, True), None, None], {}),  # c - part: no vector does that
    ([("Div", 2.0, True), None, None], {}),
    ([("Add", [1.0, 2.0], False), None, None], {}),  # not a scalar
    ([("Add", 1.0, False), None, None], {"cat_axis": 2, "lens": (3, 3, 3)}),  # the Concat on another axis
    # The extra tensor would be lost if one Add took the Concat's place.
    ([("Add", 1.0, False), None, None], {"extra_cat": True}),
], ids=["add and mul", "no math", "sub from constant", "div of constant", "vector", "other axis", "extra input"])
def test_does_not_apply(ops, kw):
    assert call_rule(split_math_concat(ops, **kw), RULE, ["split"]) == ([], [], None)


def test_sub_of_a_constant_applies():
    _, added, _ = call_rule(split_math_concat([("Sub", 0.5, False), None, None]), RULE, ["split"])
    assert added == ["Sub"]


@pytest.mark.parametrize("order", [(1, 0, 2), (2, 0, 1)], ids=["swap", "rotation"])
def test_reordered_parts_keep_a_split_and_concat_around_the_math(order):
    model = split_math_concat([("Mul", 2.0, False), ("Mul", 3.0, False), None], order=order)
    removed, added, out = call_rule(model, RULE, ["split"])
    assert added == ["Mul", "Split", "Concat"]
    split = [n for n in out.graph.node if n.op_type == "Split"][0]
    assert split.name == "split" and list(split.output) == ["s0", "s1", "s2"]
