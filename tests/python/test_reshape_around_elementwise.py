"""Reshapes and Muls moved across Add, Mul and Div, each rule called by name:
where it applies the model stays valid and keeps its numbers in onnxruntime
(call_rule checks both); where it does not, nothing changes."""

import numpy as np
import pytest

from conftest import call_rule, make_model, op_counts


def f32(shape, seed=0):
    return np.random.default_rng(seed).standard_normal(shape).astype(np.float32)


def around(op, x_shape, mid_shape, other, other_shape, extra=(), outputs=None, consts=None):
    """x -> Reshape(mid) -> op(., other) -> Reshape back -> y."""
    nodes = [("Reshape", ["x", "s_mid"], ["m"], {"name": "rs0"}),
             (op, ["m", other], ["a"], {"name": "add"}),
             ("Reshape", ["a", "s_back"], ["y"], {"name": "rs1"}), *extra]
    inputs = {"x": x_shape}
    cs = {"s_mid": list(mid_shape), "s_back": list(x_shape), **(consts or {})}
    if other == "c":
        cs["c"] = f32(other_shape, 1) + 2.0
    elif other == "o":
        nodes.insert(0, ("Neg", ["w"], ["o"], {"name": "neg_w"}))
        inputs["w"] = other_shape
    return make_model(nodes, inputs, outputs or {"y": x_shape}, cs)


def const_shape(model, name):
    return next(list(i.dims) for i in model.graph.initializer if i.name == name)


# (id, op, x shape, reshaped shape, other operand, its shape, removed, added, new constant shape)
AFTER_ADD = [
    ("constant brought back to the input shape", "Add", [81, 128], [81, 1, 128], "c", [81, 1, 128],
     ["rs0", "rs1"], [], [81, 128]),
    ("operand from another node gets one Reshape", "Add", [81, 128], [81, 1, 128], "o", [81, 1, 128],
     ["rs0", "rs1"], ["Reshape"], None),
    ("broadcast part of ones needs no tiling", "Mul", [2, 2, 3], [2, 6], "c", [2, 1], ["rs0", "rs1"], [], [2, 1, 1]),
    ("mixed part is tiled", "Div", [6], [2, 3], "c", [1, 3], ["rs0", "rs1"], [], [6]),
    ("tiling to exactly the limit", "Add", [11000], [11, 1000], "c", [1, 1000], ["rs0", "rs1"], [], [11000]),
    ("a single-element operand stays", "Mul", [4, 6], [24], "c", [1], ["rs0", "rs1"], [], None),
]


@pytest.mark.parametrize("case", AFTER_ADD, ids=[c[0] for c in AFTER_ADD])
def test_reshape_after_add(case):
    _, op, xs, ms, other, os_, removed, added, new_shape = case
    m = around(op, xs, ms, other, os_)
    got_removed, got_added, out = call_rule(m, "_p_remove_reshape_after_add", ["add"])
    assert (sorted(got_removed), got_added) == (removed, added)
    add = next(n for n in out.graph.node if n.name == "add")
    assert add.input[0] == "x" and add.output[0] == "y"
    if new_shape is not None:
        assert add.input[1] == "c_tile" and const_shape(out, "c_tile") == new_shape


def test_reshape_after_add_graph_output_is_restored():
    m = around("Add", [81, 128], [81, 1, 128], "c", [81, 1, 128], outputs={"y": [81, 128], "a": [81, 1, 128]})
    removed, added, out = call_rule(m, "_p_remove_reshape_after_add", ["add"])
    assert (sorted(removed), added) == (["rs0", "rs1"], ["Reshape"])
    restore = next(n for n in out.graph.node if n.output[0] == "a")
    assert restore.op_type == "Reshape" and restore.input[0] == "y"


AFTER_ADD_REFUSES = [
    ("operand from another node would need tiling", lambda: around("Add", [6], [2, 3], "o", [1, 3])),
    ("tiling past the limit", lambda: around("Add", [12000], [12, 1000], "c", [1, 1000])),
    ("operand of lower rank", lambda: around("Add", [2, 2, 3], [2, 6], "c", [6])),
    # A single element of higher rank gives the result more axes.
    ("single-element operand adds axes", lambda: around("Add", [2, 3], [6], "c", [1, 1, 1])),
    # A new Reshape for the operand and one for the other reader: nothing saved.
    ("operand from another node and a second reader", lambda: around(
        "Add", [81, 128], [81, 1, 128], "o", [81, 1, 128], extra=[("Neg", ["a"], ["z"], {"name": "neg_a"})],
        outputs={"y": [81, 128], "z": [81, 1, 128]})),
    ("graph input operand and a graph output", lambda: make_model(
        [("Reshape", ["x", "s_mid"], ["m"], {"name": "rs0"}), ("Add", ["m", "w"], ["a"], {"name": "add"}),
         ("Reshape", ["a", "s_back"], ["y"], {"name": "rs1"})],
        {"x": [6, 4], "w": [24]}, {"y": [6, 4], "a": [24]}, {"s_mid": [24], "s_back": [6, 4]})),
    ("Reshape on the second operand", lambda: make_model(
        [("Reshape", ["x", "s_mid"], ["m"], {"name": "rs0"}), ("Add", ["c", "m"], ["a"], {"name": "add"}),
         ("Reshape", ["a", "s_back"], ["y"], {"name": "rs1"})],
        {"x": [6, 4]}, {"y": [6, 4]}, {"s_mid": [24], "s_back": [6, 4], "c": f32([24])})),
]


@pytest.mark.parametrize("case", AFTER_ADD_REFUSES, ids=[c[0] for c in AFTER_ADD_REFUSES])
def test_reshape_after_add_refuses(case):
    assert call_rule(case[1](), "_p_remove_reshape_after_add", ["add"]) == ([], [], None)


def pair_into(op, pre_op, a_shape, b_shape, mid_a, mid_b, consts_a=None, outputs=None, extra=()):
    """Two producers of `pre_op` (Reshape by a target, or Mul by a constant) into `op`."""
    nodes = [(pre_op, ["x", "pa"], ["u"], {"name": "pre0"}), (pre_op, ["w", "pb"], ["v"], {"name": "pre1"}),
             (op, ["u", "v"], ["y"], {"name": "add"}), *extra]
    return make_model(nodes, {"x": a_shape, "w": b_shape}, outputs or {"y": None},
                      {"pa": mid_a, "pb": mid_b, **(consts_a or {})})


@pytest.mark.parametrize("op", ["Add", "Mul"])
def test_reshape_before_add(op):
    m = pair_into(op, "Reshape", [2, 3, 4], [2, 3, 4], [6, 4], [6, 4])
    removed, added, out = call_rule(m, "_p_remove_reshape_before_add", ["add"])
    assert (sorted(removed), added) == (["pre0", "pre1"], ["Reshape"])
    assert [n.op_type for n in out.graph.node if "y" in n.output] == ["Reshape"]


@pytest.mark.parametrize("a, b, ma, mb, outputs", [
    ([2, 3, 4], [3, 2, 4], [6, 4], [6, 4], None),          # different inputs
    ([2, 3, 4], [2, 3, 4], [1, 6, 2, 2], [1, 6, 2, 2], None),  # gains a fourth axis
    ([2, 3, 4], [2, 3, 4], [6, 4], [6, 4], {"y": None, "u": None}),  # a Reshape output is a graph output
])
def test_reshape_before_add_refuses(a, b, ma, mb, outputs):
    m = pair_into("Add", "Reshape", a, b, ma, mb, outputs=outputs)
    assert call_rule(m, "_p_remove_reshape_before_add", ["add"]) == ([], [], None)


def test_mul_before_add():
    c = f32([3, 1], 3)
    m = pair_into("Add", "Mul", [2, 3, 4], [2, 3, 4], c, c.copy())
    removed, added, out = call_rule(m, "_p_remove_mul_before_add", ["add"])
    assert (sorted(removed), added) == (["pre0", "pre1"], ["Mul"])
    assert op_counts(out) == {"Add": 1, "Mul": 1}


@pytest.mark.parametrize("ca, cb", [
    (np.float32([2.0]), np.float32([[2.0]])),    # equal values, other shapes
    (np.float32([2.0]), np.float32([3.0])),
    (np.float32([np.inf]), np.float32([np.inf])),  # 0*inf + b*inf is NaN, (0+b)*inf is not
])
def test_mul_before_add_refuses(ca, cb):
    m = pair_into("Add", "Mul", [2, 3], [2, 3], ca, cb)
    assert call_rule(m, "_p_remove_mul_before_add", ["add"]) == ([], [], None)
