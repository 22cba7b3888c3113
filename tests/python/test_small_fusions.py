"""Small fusions, each rule called by name: focus stems and channel selections
into one Conv, Min/Max into Clip, Mul-Mul-Add into one Mul and a Cast into an
Equal keep the model valid and its numbers in onnxruntime; the exDataConvert
rules (no runtime) are checked by structure and by the quantisation table.
Where a rule does not apply, nothing changes."""

import numpy as np
import pytest
from onnx import TensorProto, helper, numpy_helper

from conftest import call_rule, make_model
from tolm.api.ir_graph import IRGraph
from tolm.api.rules import reduce

F = np.float32
BIG = 2**63 - 1


def const_of(model, name):
    return numpy_helper.to_array(next(i for i in model.graph.initializer if i.name == name))


def node_of(model, op):
    return next(n for n in model.graph.node if n.op_type == op)


def attrs(node):
    return {a.name: helper.get_attribute_value(a) for a in node.attribute}


def sl(src, dst, name, starts, ends, axes, steps=None):
    """A Slice with constant operands named after it; steps default to 1s."""
    steps = steps or [1] * len(axes)
    ins = [src] + [f"{name}_{k}" for k in "seap"]
    return ("Slice", ins, [dst], {"name": name}), dict(zip(ins[1:], (starts, ends, axes, steps)))


def build(parts, inputs, outputs, consts=None, opset=13):
    nodes, cs = [], dict(consts or {})
    for p in parts:
        if isinstance(p[1], dict):
            nodes.append(p[0])
            cs.update(p[1])
        else:
            nodes.append(p)
    return make_model(nodes, inputs, outputs, cs, opset=opset)


# ---- fuse_min_max_to_clip ----------------------------------------------------------

def min_max(first, c_first, second, c_second, extra=(), x_shape=(2, 3)):
    return make_model([(first, ["x", "c0"], ["a"], {"name": "n0"}), (second, ["a", "c1"], ["y"], {"name": "n1"}),
                       *extra], {"x": list(x_shape)}, {"y": None, **({"z": None} if extra else {})},
                      {"c0": np.asarray(c_first, F), "c1": np.asarray(c_second, F)})


@pytest.mark.parametrize("first, c0, second, c1", [("Min", 6, "Max", 0), ("Max", 0, "Min", 6)])
def test_min_max_becomes_clip(first, c0, second, c1):
    removed, added, out = call_rule(min_max(first, c0, second, c1), "_p_fuse_min_max_to_clip", ["n0", "n1"])
    assert (removed, added) == (["n0", "n1"], ["Clip"])
    clip = node_of(out, "Clip")
    assert clip.name == "n0_to_clip" and clip.output[0] == "y" and clip.input[0] == "x"
    assert (const_of(out, clip.input[1]), const_of(out, clip.input[2])) == (0, 6)


@pytest.mark.parametrize("model", [
    min_max("Min", 0, "Max", 6),                         # lower above upper
    min_max("Min", [6, 7], "Max", 0, x_shape=(2, 2)),    # a bound of two values
    min_max("Min", [[6]], "Max", 0, x_shape=(3,)),       # the bound would widen the result
    min_max("Min", 6, "Max", 0, extra=[("Neg", ["a"], ["z"], {"name": "n2"})]),  # a second reader
    make_model([("Min", ["c0", "c1"], ["a"], {"name": "n0"}), ("Max", ["a", "x"], ["y"], {"name": "n1"})],
               {"x": [1]}, {"y": None}, {"c0": np.asarray(6, F), "c1": np.asarray(7, F)}),  # two constants
    make_model([("Min", ["x", "c0"], ["a"], {"name": "n0"}), ("Max", ["a", "x"], ["y"], {"name": "n1"})],
               {"x": [2]}, {"y": None}, {"c0": np.asarray(6, F)}),  # Max against a computed tensor
])
def test_min_max_refused(model):
    assert call_rule(model, "_p_fuse_min_max_to_clip", ["n0", "n1"]) == ([], [], None)


# ---- fuse_mul_mul_add_to_mul --------------------------------------------------------

def mul_add(c1, c2, feature2="x", second="Mul", extra=()):
    return make_model([("Mul", ["x", "c1"], ["a"], {"name": "m1"}), (second, ["c2", feature2], ["b"], {"name": "m2"}),
                       ("Add", ["a", "b"], ["y"], {"name": "add"}), *extra],
                      {"x": [2, 3], "w": [2, 3]}, {"y": None, **({"z": None} if extra else {})},
                      {"c1": np.asarray(c1, F), "c2": np.asarray(c2, F)})


def test_mul_mul_add_becomes_one_mul():
    removed, added, out = call_rule(mul_add([2.0, 1.0, 0.5], [3.0, 4.0, 5.0]), "_p_fuse_mul_mul_add_to_mul", ["m1", "add"])
    assert sorted(removed) == ["add", "m1", "m2"] and added == ["Mul"]
    mul = node_of(out, "Mul")
    assert mul.name == "m1" and list(mul.output) == ["y"]
    assert const_of(out, mul.input[1]).tolist() == [5.0, 5.0, 5.5]


@pytest.mark.parametrize("model", [
    mul_add([2.0], [[3.0]]),                               # constants of other shapes
    mul_add(2.0, 3.0, feature2="w"),                       # x * 2 + w * 3
    mul_add(2.0, 3.0, second="Add"),                       # x * 2 + (x + 3)
    mul_add(2.0, 3.0, extra=[("Neg", ["b"], ["z"], {"name": "n"})]),  # the second product read elsewhere
])
def test_mul_mul_add_refused(model):
    assert call_rule(model, "_p_fuse_mul_mul_add_to_mul", ["m1", "add"]) == ([], [], None)


# ---- fuse_focus_slice / fuse_focus_slice2 --------------------------------------------

PHASES = [(0, 0), (1, 0), (0, 1), (1, 1)]


def focus4(shape, axes, cat_axis, phases=PHASES, end=BIG):
    parts = [sl("x", f"p{k}", f"s{k}", list(ph), [end, end], axes, [2, 2]) for k, ph in enumerate(phases)]
    parts.append(("Concat", [f"p{k}" for k in range(4)], ["y"], {"name": "cat", "axis": cat_axis}))
    return build(parts, {"x": shape}, {"y": None})


NAMES4 = ["s0", "s1", "s2", "s3", "cat"]


@pytest.mark.parametrize("shape, axes, cat_axis, ops, group", [
    ([1, 3, 8, 6], [2, 3], 1, ["Conv"], None),                                  # the image stem
    ([2, 4, 8, 6], [2, 3], 1, ["Conv"], 1),                                     # other channel count
    ([1, 8, 6, 3], [1, 2], 3, ["Transpose", "Conv", "Transpose"], 1),           # channels last
    ([1, 8, 6, 3], [-3, -2], -1, ["Transpose", "Conv", "Transpose"], 1),        # axes counted from the end
])
def test_focus_slice_becomes_conv(shape, axes, cat_axis, ops, group):
    removed, added, out = call_rule(focus4(shape, axes, cat_axis), "_p_fuse_focus_slice", NAMES4)
    assert sorted(removed) == sorted(NAMES4) and added == ops
    conv = node_of(out, "Conv")
    a = attrs(conv)
    assert conv.name == "cat_2conv" and a["strides"] == [2, 2] and a["kernel_shape"] == [2, 2]
    assert a.get("group") == group
    c = shape[3] if ops[0] == "Transpose" else shape[1]
    w = const_of(out, conv.input[1])
    assert w.shape == (4 * c, c, 2, 2) and w.dtype == F and w.sum() == 4 * c
    # Output channel p*c + i copies input channel i at the kernel place of phase p.
    for p, (r, col) in enumerate(PHASES):
        assert np.array_equal(w[p * c:(p + 1) * c, :, r, col], np.eye(c))
    if ops[0] == "Transpose":
        tps = [attrs(n)["perm"] for n in out.graph.node if n.op_type == "Transpose"]
        assert tps == [[0, 3, 1, 2], [0, 2, 3, 1]]


@pytest.mark.parametrize("model", [
    focus4([1, 3, 8, 6], [2, 3], 1, phases=[(0, 0), (0, 1), (1, 0), (1, 1)]),  # phases in another order
    focus4([1, 3, 7, 6], [2, 3], 1),                                            # odd height
    focus4([1, 3, 8, 6], [2, 3], 0),                                            # joined on the batch axis
    focus4([1, 3, 8, 6], [2, 3], 1, end=5),                                     # Slices stop short
])
def test_focus_slice_refused(model):
    assert call_rule(model, "_p_fuse_focus_slice", NAMES4) == ([], [], None)


def focus6(shape, ends=(BIG,) * 6, axes=(2, 3), extra=()):
    a, b = axes
    cuts = [("x", "h0", 0, a), ("x", "h1", 1, a), ("h0", "q0", 0, b), ("h0", "q2", 1, b), ("h1", "q1", 0, b),
            ("h1", "q3", 1, b)]
    parts = [sl(src, dst, "t_" + dst, [st], [e], [ax], [2]) for (src, dst, st, ax), e in zip(cuts, ends)]
    parts += [("Concat", ["q0", "q1", "q2", "q3"], ["y"], {"name": "cat", "axis": 1}), *extra]
    return build(parts, {"x": shape}, {"y": None, **({"z": None} if extra else {})})


# The matcher offers the Slices in any order: the second stage first here.
NAMES6 = ["t_q0", "t_q2", "t_q1", "t_q3", "t_h1", "t_h0", "cat"]


@pytest.mark.parametrize("model", [
    focus6([1, 3, 8, 8]),
    focus6([1, 2, 4, 8], ends=(4, 4, 8, 8, 8, 8)),  # not square: each Slice ends at its own axis's size
])
def test_focus_slice2_becomes_conv(model):
    removed, added, out = call_rule(model, "_p_fuse_focus_slice2", NAMES6)
    assert sorted(removed) == sorted(NAMES6) and added == ["Conv"]


@pytest.mark.parametrize("model", [
    focus6([1, 2, 4, 8], ends=(4, 4, 4, 4, 4, 4)),            # columns cut at the height: half the width lost
    focus6([2, 3, 4, 8], axes=(0, 2)),                          # cut axes not neighbours
    focus6([1, 3, 8, 8], extra=[("Neg", ["h0"], ["z"], {"name": "n"})]),  # a first-stage part read elsewhere
])
def test_focus_slice2_refused(model):
    assert call_rule(model, "_p_fuse_focus_slice2", NAMES6) == ([], [], None)


# ---- fuse_slice_slice(_mul)_concat_to_conv -------------------------------------------

def pick(first, second, axis=1, mul=None, scale=2.0, shape=(1, 8, 4, 4)):
    """Two Slices on `axis` joined again on `cat_axis`; `mul` names the scaled branch."""
    axis, cat_axis = axis if isinstance(axis, tuple) else (axis, axis)
    parts = [sl("x", "a0", "s0", [first[0]], [first[1]], [axis], [first[2]]),
             sl("x", "a1", "s1", [second[0]], [second[1]], [axis], [second[2]])]
    cat_in = ["a0", "a1"]
    consts = {}
    for k in mul or ():
        parts.append(("Mul", [f"a{k}", f"c{k}"], [f"m{k}"], {"name": f"mul{k}"}))
        consts[f"c{k}"] = np.asarray(scale, F)
        cat_in[k] = f"m{k}"
    parts.append(("Concat", cat_in, ["y"], {"name": "cat", "axis": cat_axis}))
    return build(parts, {"x": list(shape)}, {"y": None}, consts)


@pytest.mark.parametrize("model, names, ops, rows", [
    (pick((4, 8, 1), (0, 4, 1)), ["s0", "s1", "cat"], ["Conv"], [(r + 4) % 8 for r in range(8)]),
    (pick((4, 8, 1), (0, 4, 1), mul=[1]), ["s0", "s1", "mul1", "cat"], ["Conv"], [4, 5, 6, 7, 0, 1, 2, 3]),
    (pick((0, 100, 2), (1, 8, 3)), ["s0", "s1", "cat"], ["Conv"], [0, 2, 4, 6, 1, 4, 7]),  # end past the axis, steps
    (pick((0, 2, 1), (2, 4, 1), axis=2), ["s0", "s1", "cat"], ["Transpose", "Conv", "Transpose"], [0, 1, 2, 3]),
])
def test_slice_concat_becomes_conv(model, names, ops, rows):
    removed, added, out = call_rule(model, "_p_fuse_slice_slice_mul_concat_to_conv", names)
    assert sorted(removed) == sorted(names) and added == ops
    w = const_of(out, node_of(out, "Conv").input[1])[:, :, 0, 0]
    assert w.argmax(axis=1).tolist() == rows
    scaled = 4 if "mul1" in names else len(rows)
    assert (w.max(axis=1) == [1.0] * scaled + [2.0] * (len(rows) - scaled)).all()
    if ops[0] == "Transpose":
        assert [attrs(n)["perm"] for n in out.graph.node if n.op_type == "Transpose"] == [[0, 2, 1, 3]] * 2


@pytest.mark.parametrize("model, names", [
    (pick((0, 4, 1), (4, 8, 1), mul=[0, 1]), ["s0", "mul0", "s1", "cat"]),   # both branches scaled
    (pick((0, 4, 1), (4, 8, 1), mul=[1], scale=[2.0, 3.0]), ["s0", "s1", "mul1", "cat"]),  # not a scalar
    (pick((0, 2, 1), (2, 4, 1), axis=(1, 2), shape=(1, 4, 4, 4)), ["s0", "s1", "cat"]),  # slice axis 1, join on 2
])
def test_slice_concat_refused(model, names):
    assert call_rule(model, "_p_fuse_slice_slice_mul_concat_to_conv", names) == ([], [], None)


# ---- fuse_cast_into_equal ------------------------------------------------------------

def cast_equal(src_type, to, c, extra=()):
    return make_model([("Cast", ["x"], ["b"], {"name": "cast", "to": to}), ("Equal", ["b", "c"], ["y"], {"name": "eq"}),
                       *extra], {"x": (src_type, [2, 3])},
                      {"y": (TensorProto.BOOL, [2, 3]), **({"z": (TensorProto.BOOL, [3])} if extra else {})},
                      {"c": c})


@pytest.mark.parametrize("src_type, to, c, want", [
    (TensorProto.INT32, TensorProto.BOOL, np.array([False, False, False]), np.int32),
    (TensorProto.BOOL, TensorProto.FLOAT, np.array([1.0, 0.0, 1.0], F), np.bool_),
])
def test_cast_folds_into_equal(src_type, to, c, want):
    removed, added, out = call_rule(cast_equal(src_type, to, c), "_p_fuse_cast_into_equal", ["cast", "eq"])
    assert (removed, added) == (["cast"], [])
    eq = node_of(out, "Equal")
    assert eq.input[0] == "x" and const_of(out, eq.input[1]).dtype == want


def test_cast_into_equal_leaves_a_shared_constant_to_its_other_reader():
    m = cast_equal(TensorProto.INT32, TensorProto.BOOL, np.array([False] * 3),
                   extra=[("Not", ["c"], ["z"], {"name": "other"})])
    _, _, out = call_rule(m, "_p_fuse_cast_into_equal", ["cast", "eq"])
    assert const_of(out, "c").dtype == np.bool_ and node_of(out, "Equal").input[1] != "c"


@pytest.mark.parametrize("src_type, to, c", [
    # x != 0 against true is not x == 1 (x = 2 tells them apart).
    (TensorProto.INT32, TensorProto.BOOL, np.array([True, False, False])),
    # 0.5 is never the value of a bool, but would become true.
    (TensorProto.BOOL, TensorProto.FLOAT, np.array([0.5, 0.0, 1.0], F)),
    (TensorProto.INT32, TensorProto.INT64, np.array([1, 0, 1], np.int64)),   # no bool on either side
])
def test_cast_into_equal_refused(src_type, to, c):
    assert call_rule(cast_equal(src_type, to, c), "_p_fuse_cast_into_equal", ["cast", "eq"]) == ([], [], None)


# ---- exDataConvert: fuse_two_dataconvert, remove_dataconvert_for_q_op ----------------

def cvt(src, dst, i, o, name):
    return ("exDataConvert", [src], [dst], {"i_dtype": i, "o_dtype": o, "name": name})


def two_cvt(mid_in="int8"):
    return make_model([cvt("x", "a", "float32", "int8", "c0"), cvt("a", "y", mid_in, "float32", "c1")],
                      {"x": [2, 3]}, {"y": None})


def test_two_dataconverts_become_one():
    ir = IRGraph(two_cvt())
    remove, add = reduce._p_fuse_two_dataconvert(ir, list(ir.node), None)
    assert [n.name for n in remove] == ["c0", "c1"]
    assert [(n.name, list(n.input), list(n.output)) for n in add] == [("c0", ["x"], ["y"])]
    assert (ir.get_attr(add[0], "i_dtype"), ir.get_attr(add[0], "o_dtype")) == ("float32", "float32")


def test_two_dataconverts_kept_in_a_quantisation_aware_model_and_mismatch_logged():
    ir = IRGraph(two_cvt())
    ir.qat = True
    assert reduce._p_fuse_two_dataconvert(ir, list(ir.node), None) == ([], [])
    reduce.clear_log_history()
    ir = IRGraph(two_cvt(mid_in="int16"))
    remove, add = reduce._p_fuse_two_dataconvert(ir, list(ir.node), None)
    assert len(remove) == 2 and len(add) == 1
    assert "o_dtype_0 'int8' != i_dtype_1 'int16' in 'c0'" in reduce.log_history()


def q_model(q_op=("MaxPool", ["xf"], ["p"], {"kernel_shape": [2, 2], "name": "q"}), extra=(), outputs=("y",)):
    return make_model([cvt("x", "xf", "int8", "float32", "c0"), q_op, cvt("p", "y", "float32", "int8", "c1"), *extra],
                      {"x": (TensorProto.INT8, [1, 2, 4, 4]), "w": [1, 2, 4, 4]}, {o: None for o in outputs})


def run_q(model, tab):
    ir = IRGraph(model)
    remove, add = reduce._p_remove_dataconvert_for_q_op(ir, [ir.find_node("c0")], tab)
    if remove or add:
        ir.apply(remove, add)
    return [n.name for n in remove], ir


def test_dataconverts_around_q_op_go():
    tab = {"x": {"min": -1.0, "max": 1.0, "name": "x"}, "y": {"min": -1.0, "max": 1.0, "name": "y"}}
    removed, ir = run_q(q_model(), tab)
    assert removed == ["c0", "c1"]
    assert [(n.op_type, list(n.input), list(n.output)) for n in ir.node] == [("MaxPool", ["x"], ["y"])]


def test_range_change_is_written_back_to_the_table():
    # y's range is not x's: only c0 goes, and the MaxPool output takes x's
    # range under its own name; the records given stay as they were.
    x_rec = {"min": -1.0, "max": 1.0, "name": "x", "extra": 7}
    tab = {"x": x_rec, "y": {"min": -2.0, "max": 2.0, "name": "y"}}
    assert run_q(q_model(), tab)[0] == ["c0"]
    assert (tab["p"]["min"], tab["p"]["max"], tab["p"]["name"]) == (-1.0, 1.0, "p")
    assert tab["x"] is x_rec and x_rec["extra"] == 7 and tab["y"] == {"min": -2.0, "max": 2.0, "name": "y"}


def test_dataconvert_with_a_second_reader_stays_for_it():
    m = q_model(extra=[("Relu", ["xf"], ["r"], {"name": "other"})], outputs=("y", "r"))
    removed, ir = run_q(m, {})
    assert removed == ["c1"] and ir.find_node("c0") is not None and ir.find_node("q").input[0] == "x"


@pytest.mark.parametrize("model, tab", [
    # The other operand of an Add has a range of 0: no quantisation data.
    (q_model(("Add", ["xf", "w"], ["p"], {"name": "q"})), {"w": {"min": 0.0, "max": 1.0, "name": "w"}}),
    (q_model(extra=[("Relu", ["p"], ["r"], {"name": "r"})], outputs=("y", "r")), {}),  # q_op read twice
    (q_model(outputs=("y", "p")), {}),                                                 # q_op output kept
])
def test_dataconverts_around_q_op_kept(model, tab):
    assert run_q(model, tab)[0] == []


# ---- the driver ----------------------------------------------------------------------

def test_reduce_folds_a_focus_stem_on_the_graph_input():
    """The stem reads the model's input directly; the whole reduce keeps the numbers."""
    import tolm
    from conftest import assert_same_outputs

    m = focus6([1, 3, 8, 8])
    m.graph.node.append(helper.make_node("Relu", ["y"], ["r"], name="relu"))
    m.graph.output[0].name = "r"
    out, _ = tolm.reduce(m)
    assert [n.op_type for n in out.graph.node] == ["Conv", "Relu"]
    assert_same_outputs(m, out)
