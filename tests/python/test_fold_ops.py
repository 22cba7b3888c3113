"""Each operator the folder evaluates, on random constants, against onnxruntime.

A case is one node whose inputs are all initializers and whose outputs are
graph outputs: after reduce the graph holds only Constant nodes, and their
values are the runtime's, bit for bit for integers and booleans, within
float rounding for floats. Cases cover broadcasting, negative axes and
empty tensors. Cases the folder must leave alone (the runtime's result is
undefined or too large) are at the end."""

from __future__ import annotations

import numpy as np
import onnx
import pytest
from onnx import TensorProto, helper, numpy_helper

import tolm
from conftest import run_ort

RNG = np.random.default_rng(20240611)
I64_MAX, I64_MIN = np.iinfo(np.int64).max, np.iinfo(np.int64).min


def f32(*shape, lo=-3.0, hi=3.0):
    return RNG.uniform(lo, hi, shape).astype(np.float32)


def i64(*shape, lo=-5, hi=6):
    return RNG.integers(lo, hi, shape).astype(np.int64)


def ints(*values):
    return np.array(values, dtype=np.int64)


def one_node_model(op, inputs, attrs, n_out, opset):
    names = list(inputs)
    inits = [numpy_helper.from_array(np.asarray(v), k) for k, v in inputs.items() if v is not None]
    ins = [k if inputs[k] is not None else "" for k in names]
    outs = [f"y{i}" for i in range(n_out)]
    node = helper.make_node(op, ins, outs, name="n", **attrs)
    graph = helper.make_graph([node], "fold", [], [helper.make_empty_tensor_value_info(o) for o in outs], inits)
    model = helper.make_model(graph, opset_imports=[helper.make_opsetid("", opset)])
    model.ir_version = 8
    inferred = onnx.shape_inference.infer_shapes(model, strict_mode=True)
    typed = {vi.name: vi for vi in inferred.graph.output}
    del model.graph.output[:]
    model.graph.output.extend(typed[o] for o in outs)
    return model


# id: (op, inputs, attrs, outputs, opset); an input of None is left out.
CASES = {
    # shapes and reshapes
    "reshape 0 and -1": ("Reshape", {"x": f32(2, 3, 4), "s": ints(0, -1)}, {}, 1, 17),
    "reshape allowzero empty": ("Reshape", {"x": f32(0, 3), "s": ints(3, 0)}, {"allowzero": 1}, 1, 17),
    "flatten negative axis": ("Flatten", {"x": i64(2, 3, 4)}, {"axis": -1}, 1, 17),
    "flatten axis 0": ("Flatten", {"x": f32(2, 3)}, {"axis": 0}, 1, 17),
    "squeeze negative axes": ("Squeeze", {"x": f32(1, 3, 1, 2), "a": ints(-2, 0)}, {}, 1, 17),
    "squeeze all ones": ("Squeeze", {"x": i64(1, 3, 1)}, {}, 1, 17),
    "squeeze attribute": ("Squeeze", {"x": f32(3, 1)}, {"axes": [1]}, 1, 11),
    "unsqueeze negative axes": ("Unsqueeze", {"x": f32(2, 3), "a": ints(-1, 0)}, {}, 1, 17),
    "unsqueeze scalar": ("Unsqueeze", {"x": np.array(4, np.int64), "a": ints(0)}, {}, 1, 17),
    "identity bool": ("Identity", {"x": RNG.random((2, 2)) < 0.5}, {}, 1, 17),
    "constant of shape int": ("ConstantOfShape", {"s": ints(2, 3)}, {"value": numpy_helper.from_array(np.array([7], np.int64))}, 1, 17),
    "constant of shape default": ("ConstantOfShape", {"s": ints(3)}, {}, 1, 17),
    "constant of shape empty": ("ConstantOfShape", {"s": ints(2, 0)}, {}, 1, 17),
    "constant of shape scalar": ("ConstantOfShape", {"s": np.zeros(0, np.int64)}, {}, 1, 17),
    "range int": ("Range", {"a": np.array(-3, np.int64), "b": np.array(10, np.int64), "d": np.array(4, np.int64)}, {}, 1, 17),
    "range float": ("Range", {"a": np.float32(0.1), "b": np.float32(3.7), "d": np.float32(0.3)}, {}, 1, 17),
    "range float down": ("Range", {"a": np.float32(5.0), "b": np.float32(-1.3), "d": np.float32(-0.7)}, {}, 1, 17),
    "range empty": ("Range", {"a": np.array(5, np.int32), "b": np.array(1, np.int32), "d": np.array(1, np.int32)}, {}, 1, 17),
    # data movement
    "transpose": ("Transpose", {"x": f32(2, 3, 4)}, {"perm": [2, 0, 1]}, 1, 17),
    "transpose default reverses": ("Transpose", {"x": i64(2, 3, 4)}, {}, 1, 17),
    "transpose empty": ("Transpose", {"x": f32(0, 3)}, {"perm": [1, 0]}, 1, 17),
    "transpose float16": ("Transpose", {"x": f32(2, 3).astype(np.float16)}, {}, 1, 17),
    "expand both ways": ("Expand", {"x": f32(3, 1), "s": ints(2, 1, 4)}, {}, 1, 17),
    "expand to empty": ("Expand", {"x": i64(1, 3), "s": ints(0, 3)}, {}, 1, 17),
    "tile": ("Tile", {"x": i64(2, 3), "r": ints(2, 3)}, {}, 1, 17),
    "tile zero": ("Tile", {"x": f32(2, 3), "r": ints(0, 1)}, {}, 1, 17),
    "concat negative axis": ("Concat", {"a": f32(2, 1), "b": f32(2, 3), "c": f32(2, 0)}, {"axis": -1}, 1, 17),
    "concat int64 shape pieces": ("Concat", {"a": ints(1), "b": ints(-1), "c": ints(4, 4)}, {"axis": 0}, 1, 17),
    "slice negative steps": ("Slice", {"x": i64(5, 6), "s": ints(-1, 4), "e": ints(I64_MIN, 0), "a": ints(0, 1), "t": ints(-2, -1)}, {}, 1, 17),
    "slice clamped ends": ("Slice", {"x": f32(4, 5), "s": ints(1, -100), "e": ints(I64_MAX, 100), "a": ints(-1, 0), "t": None}, {}, 1, 17),
    "slice empty": ("Slice", {"x": f32(4, 5), "s": ints(3), "e": ints(1), "a": ints(1)}, {}, 1, 17),
    "slice big step": ("Slice", {"x": i64(6), "s": ints(1), "e": ints(6), "a": ints(0), "t": ints(I64_MAX)}, {}, 1, 17),
    "slice attributes": ("Slice", {"x": f32(4, 5)}, {"starts": [1, 0], "ends": [3, -1], "axes": [0, 1]}, 1, 9),
    "split lengths": ("Split", {"x": f32(2, 7), "l": ints(3, 0, 4)}, {"axis": -1}, 3, 17),
    "split equal": ("Split", {"x": i64(6, 2)}, {}, 3, 17),
    "split attribute": ("Split", {"x": f32(5, 2)}, {"split": [2, 3]}, 2, 11),
    "split num_outputs uneven": ("Split", {"x": f32(7, 2)}, {"num_outputs": 3}, 3, 18),
    "gather negative indices": ("Gather", {"x": f32(4, 3), "i": ints(-1, 0, 2)}, {"axis": 0}, 1, 17),
    "gather scalar index": ("Gather", {"x": ints(2, 8, 16), "i": np.array(0, np.int64)}, {}, 1, 17),
    "gather 2d indices axis -1": ("Gather", {"x": f32(2, 5), "i": np.array([[0, 4], [-2, 1]], np.int32)}, {"axis": -1}, 1, 17),
    "gather empty indices": ("Gather", {"x": f32(3, 4), "i": np.zeros((0,), np.int64)}, {"axis": 1}, 1, 17),
    "gather elements": ("GatherElements", {"x": f32(3, 4), "i": RNG.integers(-4, 4, (2, 4)).astype(np.int64)}, {"axis": 1}, 1, 17),
    "gather elements axis 0": ("GatherElements", {"x": i64(3, 2, 2), "i": RNG.integers(-3, 3, (2, 2, 1)).astype(np.int64)}, {"axis": 0}, 1, 17),
    "pad constant": ("Pad", {"x": f32(2, 3), "p": ints(1, 0, 2, 3), "v": np.float32(1.5)}, {}, 1, 17),
    "pad negative crops": ("Pad", {"x": i64(4, 5), "p": ints(-1, 2, 0, -2)}, {}, 1, 17),
    "pad reflect": ("Pad", {"x": f32(3, 4), "p": ints(2, 1, 1, 3)}, {"mode": "reflect"}, 1, 17),
    "pad edge": ("Pad", {"x": i64(2, 3), "p": ints(1, 4, 2, 0)}, {"mode": "edge"}, 1, 17),
    "pad wrap": ("Pad", {"x": f32(3, 4), "p": ints(0, 2, 1, 4)}, {"mode": "wrap"}, 1, 19),
    "pad axes": ("Pad", {"x": f32(2, 3, 4), "p": ints(1, 2, 0, 1), "v": None, "a": ints(-1, 0)}, {}, 1, 18),
    "pad attribute": ("Pad", {"x": f32(2, 3)}, {"pads": [0, 1, 1, 0], "value": 2.0}, 1, 10),
    "trilu upper k": ("Trilu", {"x": f32(2, 3, 4), "k": np.array(1, np.int64)}, {}, 1, 17),
    "trilu lower negative k": ("Trilu", {"x": i64(4, 4), "k": np.array(-1, np.int64)}, {"upper": 0}, 1, 17),
    "where broadcast": ("Where", {"c": RNG.random((2, 1)) < 0.5, "x": f32(3), "y": f32(1, 3)}, {}, 1, 17),
    "where int": ("Where", {"c": RNG.random((4,)) < 0.5, "x": i64(4), "y": np.array(-1, np.int64)}, {}, 1, 17),
    "nonzero": ("NonZero", {"x": i64(3, 4, lo=-1, hi=2)}, {}, 1, 17),
    "nonzero none": ("NonZero", {"x": np.zeros((2, 3), np.float32)}, {}, 1, 17),
    # casts
    "cast float to int64": ("Cast", {"x": f32(3, 4, lo=-1e6, hi=1e6)}, {"to": TensorProto.INT64}, 1, 17),
    "cast float to int8": ("Cast", {"x": f32(6, lo=-100, hi=100)}, {"to": TensorProto.INT8}, 1, 17),
    "cast int to float16": ("Cast", {"x": i64(5, lo=-70000, hi=70000)}, {"to": TensorProto.FLOAT16}, 1, 17),
    "cast double to float16": ("Cast", {"x": RNG.standard_normal(8) * 1000}, {"to": TensorProto.FLOAT16}, 1, 17),
    "cast float to bool": ("Cast", {"x": np.array([0.0, -0.0, 0.5, np.nan], np.float32)}, {"to": TensorProto.BOOL}, 1, 17),
    "cast int64 to int32 wraps": ("Cast", {"x": np.array([2**40 + 3, -(2**35) - 1], np.int64)}, {"to": TensorProto.INT32}, 1, 17),
    "cast bool to float": ("Cast", {"x": RNG.random(5) < 0.5}, {"to": TensorProto.FLOAT}, 1, 17),
    "cast int64 to double": ("Cast", {"x": np.array([2**60 + 1, -3], np.int64)}, {"to": TensorProto.DOUBLE}, 1, 17),
    "castlike": ("CastLike", {"x": f32(3, lo=-50, hi=50), "t": np.zeros(1, np.int32)}, {}, 1, 17),
    # arithmetic
    "add broadcast": ("Add", {"a": f32(2, 1, 3), "b": f32(4, 1)}, {}, 1, 17),
    "sub int wraps": ("Sub", {"a": np.array([I64_MIN, 5], np.int64), "b": np.array([1, -7], np.int64)}, {}, 1, 17),
    "mul int32 wraps": ("Mul", {"a": np.array([2**20, -7], np.int32), "b": np.array([2**15, 3], np.int32)}, {}, 1, 17),
    "mul uint8": ("Mul", {"a": np.array([200, 3], np.uint8), "b": np.array([2, 5], np.uint8)}, {}, 1, 17),
    "div int truncates": ("Div", {"a": np.array([7, -7, 7, -7], np.int64), "b": np.array([2, 2, -2, -2], np.int64)}, {}, 1, 17),
    "div float": ("Div", {"a": f32(3, 2), "b": f32(2, lo=0.5, hi=2.0)}, {}, 1, 17),
    "add empty": ("Add", {"a": f32(0, 3), "b": f32(3)}, {}, 1, 17),
    "mod int sign of divisor": ("Mod", {"a": ints(7, -7, 7, -7, 0), "b": ints(3, 3, -3, -3, 5)}, {}, 1, 17),
    "mod int fmod": ("Mod", {"a": np.array([7, -7, 7, -7], np.int32), "b": np.array([3, 3, -3, -3], np.int32)}, {"fmod": 1}, 1, 17),
    "mod float fmod broadcast": ("Mod", {"a": f32(2, 3, lo=-9, hi=9), "b": f32(3, lo=0.5, hi=3)}, {"fmod": 1}, 1, 17),
    "pow float": ("Pow", {"a": f32(5, lo=0.1, hi=3.0), "b": np.float32(2.0)}, {}, 1, 17),
    "pow float by int": ("Pow", {"a": f32(4, lo=-2, hi=2), "b": ints(3)}, {}, 1, 17),
    "pow int": ("Pow", {"a": ints(2, -3, 5), "b": ints(3)}, {}, 1, 17),
    "min variadic": ("Min", {"a": f32(2, 3), "b": f32(3), "c": f32(1, 1)}, {}, 1, 17),
    "max int": ("Max", {"a": i64(3, 1), "b": i64(2)}, {}, 1, 17),
    "neg int": ("Neg", {"x": np.array([I64_MIN, 3, -4], np.int64)}, {}, 1, 17),
    "abs int": ("Abs", {"x": np.array([-128, 3, -4], np.int8)}, {}, 1, 17),
    "abs float": ("Abs", {"x": f32(4)}, {}, 1, 17),
    "floor": ("Floor", {"x": f32(6)}, {}, 1, 17),
    "ceil": ("Ceil", {"x": f32(6)}, {}, 1, 17),
    "sqrt": ("Sqrt", {"x": f32(6, lo=0.0, hi=10.0)}, {}, 1, 17),
    "reciprocal": ("Reciprocal", {"x": f32(4, lo=0.5, hi=3)}, {}, 1, 17),
    "sign int": ("Sign", {"x": i64(6)}, {}, 1, 17),
    "relu": ("Relu", {"x": f32(6)}, {}, 1, 17),
    "exp": ("Exp", {"x": f32(6)}, {}, 1, 17),
    "log": ("Log", {"x": f32(6, lo=0.1, hi=9)}, {}, 1, 17),
    "tanh": ("Tanh", {"x": f32(6)}, {}, 1, 17),
    "sigmoid": ("Sigmoid", {"x": f32(6)}, {}, 1, 17),
    "erf": ("Erf", {"x": f32(6)}, {}, 1, 17),
    # comparisons and logic
    "equal int broadcast": ("Equal", {"a": i64(3, 1, lo=0, hi=3), "b": i64(4, lo=0, hi=3)}, {}, 1, 17),
    "equal bool": ("Equal", {"a": RNG.random(4) < 0.5, "b": RNG.random(4) < 0.5}, {}, 1, 17),
    "less float": ("Less", {"a": f32(2, 3), "b": f32(3)}, {}, 1, 17),
    "greater int": ("Greater", {"a": i64(5), "b": np.array(0, np.int64)}, {}, 1, 17),
    "less or equal": ("LessOrEqual", {"a": i64(5, lo=0, hi=3), "b": i64(5, lo=0, hi=3)}, {}, 1, 17),
    "greater or equal": ("GreaterOrEqual", {"a": f32(3), "b": f32(2, 1)}, {}, 1, 17),
    "not": ("Not", {"x": RNG.random((2, 3)) < 0.5}, {}, 1, 17),
    "and": ("And", {"a": RNG.random((2, 3)) < 0.5, "b": RNG.random(3) < 0.5}, {}, 1, 17),
    "or": ("Or", {"a": RNG.random((2, 1)) < 0.5, "b": RNG.random(3) < 0.5}, {}, 1, 17),
    "xor": ("Xor", {"a": RNG.random(4) < 0.5, "b": RNG.random(4) < 0.5}, {}, 1, 17),
    # reductions
    "reduce sum axes input": ("ReduceSum", {"x": f32(3, 4, 5), "a": ints(-1, 0)}, {"keepdims": 0}, 1, 17),
    "reduce sum all int": ("ReduceSum", {"x": np.array([[2**50, -(2**49)], [2**48, 3]], np.int64)}, {}, 1, 17),
    "reduce sum empty axes noop": ("ReduceSum", {"x": f32(2, 3), "a": np.zeros(0, np.int64)}, {"noop_with_empty_axes": 1}, 1, 17),
    "reduce sum of empty": ("ReduceSum", {"x": f32(0, 3), "a": ints(0)}, {}, 1, 17),
    "reduce prod attribute": ("ReduceProd", {"x": i64(2, 3, lo=1, hi=4)}, {"axes": [1]}, 1, 17),
    "reduce prod input": ("ReduceProd", {"x": f32(2, 3), "a": ints(-2)}, {"keepdims": 0}, 1, 18),
    "reduce max": ("ReduceMax", {"x": i64(3, 4)}, {"axes": [0], "keepdims": 0}, 1, 17),
    "reduce min": ("ReduceMin", {"x": f32(3, 4)}, {"axes": [-1]}, 1, 17),
    "reduce mean": ("ReduceMean", {"x": f32(3, 4)}, {"axes": [1]}, 1, 17),
}


def _check_same(original, reduced):
    want, got = run_ort(original, {}), run_ort(reduced, {})
    for name, w in want.items():
        g = got[name]
        assert g.dtype == w.dtype and g.shape == w.shape, name
        if np.issubdtype(w.dtype, np.floating):
            np.testing.assert_allclose(g.astype(np.float64), w.astype(np.float64), rtol=1e-6, atol=1e-7, err_msg=name)
        else:
            np.testing.assert_array_equal(g, w, err_msg=name)


@pytest.mark.parametrize("case", sorted(CASES))
def test_folded_value_matches_runtime(case):
    op, inputs, attrs, n_out, opset = CASES[case]
    model = one_node_model(op, inputs, attrs, n_out, opset)
    reduced, report = tolm.reduce(model)
    onnx.checker.check_model(reduced, full_check=True)
    assert [n.op_type for n in reduced.graph.node] == ["Constant"] * n_out, report["ops_after"]
    assert report["fold"]["folded"].get(op) == 1
    _check_same(model, reduced)


EXACT_OPS = {"Add", "Sub", "Mul", "Div", "Neg", "Abs", "Floor", "Ceil", "Sqrt", "Cast", "Relu", "Range", "Min", "Max"}


@pytest.mark.parametrize("case", sorted(c for c, v in CASES.items() if v[0] in EXACT_OPS))
def test_exact_ops_match_bit_for_bit(case):
    """Arithmetic the runtime does in one IEEE operation comes out identical."""
    op, inputs, attrs, n_out, opset = CASES[case]
    model = one_node_model(op, inputs, attrs, n_out, opset)
    reduced, _ = tolm.reduce(model)
    want, got = run_ort(model, {}), run_ort(reduced, {})
    for name in want:
        assert want[name].tobytes() == got[name].tobytes(), name


# Nodes the runtime cannot compute the same way (or at all), or whose result
# is over the size limit: they stay, and the model stays valid.
KEPT = {
    "int division by zero": ("Div", {"a": ints(4, 5), "b": ints(1, 0)}, {}, 17),
    "int mod by zero": ("Mod", {"a": ints(4, 5), "b": ints(1, 0)}, {}, 17),
    "float cast out of int32 range": ("Cast", {"x": np.array([3e9], np.float32)}, {"to": TensorProto.INT32}, 17),
    "float cast of nan to int": ("Cast", {"x": np.array([np.nan], np.float32)}, {"to": TensorProto.INT64}, 17),
    "gather index out of range": ("Gather", {"x": f32(3), "i": ints(3)}, {}, 17),
    "expand above the size limit": ("Expand", {"x": np.float32(1.0), "s": ints(1024, 1024)}, {}, 17),
    "constant of shape above the size limit": ("ConstantOfShape", {"s": ints(600, 600)}, {}, 17),
    "tile growing past its inputs": ("Tile", {"x": f32(4, 4), "r": ints(64, 64)}, {}, 17),
    "int sum that overflows": ("ReduceSum", {"x": np.array([2**62, 2**62, 2**62], np.int64)}, {}, 17),
    "int sum past double precision": ("ReduceSum", {"x": np.array([2**60, 3], np.int64)}, {}, 17),
    "min with nan": ("Min", {"a": np.array([np.nan, 1.0], np.float32), "b": f32(2)}, {}, 17),
}


@pytest.mark.parametrize("case", sorted(KEPT))
def test_node_is_kept(case):
    op, inputs, attrs, opset = KEPT[case]
    names = list(inputs)
    inits = [numpy_helper.from_array(np.asarray(v), k) for k, v in inputs.items()]
    node = helper.make_node(op, names, ["y"], name="n", **attrs)
    g = helper.make_graph([node], "kept", [], [helper.make_empty_tensor_value_info("y")], inits)
    model = helper.make_model(g, opset_imports=[helper.make_opsetid("", opset)])
    model.ir_version = 8
    reduced, report = tolm.reduce(model)
    assert [n.op_type for n in reduced.graph.node] == [op]
    onnx.checker.check_model(reduced)
    if "limit" in case or "growing" in case:
        assert report["fold"]["kept_by_size"] == ["n"]
