"""The fold pass through tolm.reduce: what exporters leave folds away, If on a
constant condition is inlined, the standard fusions keep the numbers, the
size limits keep big results as nodes, and folding can be switched off."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import onnx
import pytest
from onnx import numpy_helper

import tolm
from conftest import make_model, reduced_ok, run_cli
from fold_models import SCENARIOS, constant_if, foldable_left

DATA = Path(__file__).resolve().parent / "data"


def ops(model):
    return sorted(n.op_type for n in model.graph.node)


# ---- what exporters leave ----------------------------------------------------

# Scenario -> the operators left after reduce.
LEFT = {
    "bert_shape_block": ["Reshape", "Transpose"],
    "torch_same_pad_conv": ["Conv"],
    "attention_mask": ["Add", "Add"],
    "identity_on_weights": ["Add", "Constant", "MatMul", "MatMul"],
    "constant_if": ["Mul", "Relu", "Sigmoid"],
}


@pytest.mark.parametrize("name", sorted(SCENARIOS))
def test_scenario_folds_to_its_computation(name):
    model = SCENARIOS[name]()
    reduced, report = reduced_ok(model)
    assert ops(reduced) == LEFT[name]
    assert foldable_left(reduced) == []
    assert report["fold"]["removed_nodes"] > 0


def test_identity_on_weights_keeps_one_copy_of_the_weight():
    reduced, _ = reduced_ok(SCENARIOS["identity_on_weights"]())
    assert len(reduced.graph.initializer) == 1
    readers = [n.input[1] for n in reduced.graph.node if n.op_type == "MatMul"]
    assert readers == [reduced.graph.initializer[0].name] * 2
    # The weight that was a graph output keeps its name, from a Constant node.
    (const,) = [n for n in reduced.graph.node if n.op_type == "Constant"]
    assert list(const.output) == ["w_out"]


def test_if_inlined_with_outputs_renamed_and_nested_if_taken():
    reduced, report = reduced_ok(constant_if())
    assert report["fold"]["folded"]["If"] == 2
    # The taken branch's Sigmoid makes the graph output under its own name.
    (sig,) = [n for n in reduced.graph.node if n.op_type == "Sigmoid"]
    assert list(sig.output) == ["a"]
    names = [n.name for n in reduced.graph.node]
    assert len(set(names)) == len(names)


def test_if_taking_the_else_branch():
    model = constant_if()
    model.graph.initializer[0].CopyFrom(numpy_helper.from_array(np.array(5, np.int64), "six"))
    reduced, _ = reduced_ok(model)
    assert ops(reduced) == ["Abs", "Mul", "Neg"]


@pytest.mark.parametrize("name", ["silero_vad.onnx", "yolo_focus.onnx"])
def test_corpus_model_leaves_nothing_foldable(name):
    model = onnx.load(str(DATA / name))
    reduced, report = tolm.reduce(model)
    assert foldable_left(reduced) == []
    unfolded, _ = tolm.reduce(model, fold=False)
    assert len(reduced.graph.node) < len(unfolded.graph.node)
    if name == "silero_vad.onnx":
        # Its If nodes are inlined: as many nodes as onnxruntime's own basic
        # optimisation leaves.
        assert "If" not in ops(reduced) and report["fold"]["folded"]["If"] >= 3
        assert len(reduced.graph.node) <= 39


# ---- fusions -------------------------------------------------------------------

RNG = np.random.default_rng(5)


def w(*shape, lo=-1.0, hi=1.0):
    return RNG.uniform(lo, hi, shape).astype(np.float32)


def bn_params(c):
    return {"s": w(c, lo=0.5, hi=2), "b": w(c), "m": w(c), "v": w(c, lo=0.2, hi=2)}


FUSIONS = {
    "conv + batchnorm": (
        [("Conv", ["x", "W"], ["c"], {"pads": [1, 1, 1, 1]}), ("BatchNormalization", ["c", "s", "b", "m", "v"], ["y"])],
        {"W": w(4, 3, 3, 3), **bn_params(4)},
        ["Conv"],
    ),
    "grouped conv with bias + batchnorm": (
        [("Conv", ["x", "W", "B"], ["c"], {"group": 3}), ("BatchNormalization", ["c", "s", "b", "m", "v"], ["y"], {"epsilon": 1e-3})],
        {"W": w(6, 1, 1, 1), "B": w(6), **bn_params(6)},
        ["Conv"],
    ),
    "grouped conv transpose + batchnorm": (
        [("ConvTranspose", ["x", "W"], ["c"], {"group": 3, "strides": [2, 2]}), ("BatchNormalization", ["c", "s", "b", "m", "v"], ["y"])],
        {"W": w(3, 2, 3, 3), **bn_params(6)},
        ["ConvTranspose"],
    ),
    "zero pad + conv": (
        [("Pad", ["x", "p"], ["q"]), ("Conv", ["q", "W"], ["y"], {"pads": [1, 0, 0, 1]})],
        {"p": [0, 0, 2, 1, 0, 0, 0, 3], "W": w(2, 3, 3, 2)},
        ["Conv"],
    ),
    "zero pad + average pool": (
        [("Pad", ["x", "p"], ["q"]), ("AveragePool", ["q"], ["y"], {"kernel_shape": [3, 3]})],
        {"p": [0, 0, 1, 2, 0, 0, 1, 0]},
        ["AveragePool"],
    ),
    "zero pad + max pool after relu": (
        [("Relu", ["x"], ["r"]), ("Pad", ["r", "p"], ["q"]), ("MaxPool", ["q"], ["y"], {"kernel_shape": [2, 2]})],
        {"p": [0, 0, 1, 1, 0, 0, 1, 1]},
        ["MaxPool", "Relu"],
    ),
    "-inf pad + max pool": (
        [("Pad", ["x", "p", "ninf"], ["q"]), ("MaxPool", ["q"], ["y"], {"kernel_shape": [3, 3], "strides": [2, 2]})],
        {"p": [0, 0, 1, 1, 0, 0, 1, 1], "ninf": np.float32(-np.inf)},
        ["MaxPool"],
    ),
    "conv + per-channel add": (
        [("Conv", ["x", "W"], ["c"]), ("Add", ["k", "c"], ["y"])],
        {"W": w(4, 3, 1, 1), "k": w(1, 4, 1, 1)},
        ["Conv"],
    ),
    "conv with bias + scalar add": (
        [("Conv", ["x", "W", "B"], ["c"]), ("Add", ["c", "k"], ["y"])],
        {"W": w(4, 3, 1, 1), "B": w(4), "k": w(1)},
        ["Conv"],
    ),
    "conv with bias + per-channel mul + add": (
        [("Conv", ["x", "W", "B"], ["c"]), ("Mul", ["s", "c"], ["m"]), ("Add", ["m", "k"], ["y"])],
        {"W": w(4, 3, 3, 3), "B": w(4), "s": w(1, 4, 1, 1), "k": w(1, 1, 1, 1)},
        ["Conv"],
    ),
    "grouped conv transpose + scalar mul": (
        [("ConvTranspose", ["x", "W"], ["c"], {"group": 3}), ("Mul", ["c", "s"], ["y"])],
        {"W": w(3, 2, 3, 3), "s": np.float32(-0.7)},
        ["ConvTranspose"],
    ),
    "grouped conv transpose with bias + per-channel mul": (
        [("ConvTranspose", ["x", "W", "B"], ["c"], {"group": 3, "strides": [2, 2]}), ("Mul", ["c", "s"], ["y"])],
        {"W": w(3, 2, 3, 3), "B": w(6), "s": w(6, 1, 1)},
        ["ConvTranspose"],
    ),
    "mul after a conv whose weight another conv reads": (
        [("Conv", ["x", "W"], ["c"]), ("Mul", ["c", "s"], ["m"]), ("Conv", ["x", "W"], ["d"]), ("Add", ["m", "d"], ["y"])],
        {"W": w(4, 3, 1, 1), "s": w(4, 1, 1)},
        ["Add", "Conv", "Conv"],
    ),
    "scalar mul + grouped conv with padding": (
        [("Mul", ["x", "s"], ["m"]), ("Conv", ["m", "W", "B"], ["y"], {"group": 3, "pads": [1, 1, 1, 1]})],
        {"s": np.float32(0.5), "W": w(6, 1, 3, 3), "B": w(6)},
        ["Conv"],
    ),
    "per-channel mul + conv": (
        [("Mul", ["s", "x"], ["m"]), ("Conv", ["m", "W"], ["y"], {"pads": [1, 0, 1, 0]})],
        {"s": w(1, 3, 1, 1), "W": w(4, 3, 3, 3)},
        ["Conv"],
    ),
    "mul chain": (
        [("Mul", ["x", "a"], ["m"]), ("Mul", ["b", "m"], ["y"])],
        {"a": w(3, 1, 1, lo=0.5, hi=2), "b": np.float32(1.5)},
        ["Mul"],
    ),
    "add chain": (
        [("Add", ["x", "a"], ["m"]), ("Add", ["m", "b"], ["y"])],
        {"a": w(8), "b": w(1, 8)},
        ["Add"],
    ),
    # Each of these misses one condition of a fusion: nothing fuses.
    "max pool after zero pad of data that may be negative": (
        [("Pad", ["x", "p"], ["q"]), ("MaxPool", ["q"], ["y"], {"kernel_shape": [2, 2]})],
        {"p": [0, 0, 1, 1, 0, 0, 1, 1]},
        ["MaxPool", "Pad"],
    ),
    "average pool with padding it does not count": (
        [("Pad", ["x", "p"], ["q"]), ("AveragePool", ["q"], ["y"], {"kernel_shape": [3, 3], "pads": [1, 1, 1, 1]})],
        {"p": [0, 0, 1, 1, 0, 0, 1, 1]},
        ["AveragePool", "Pad"],
    ),
    "non-zero pad + conv": (
        [("Pad", ["x", "p", "one"], ["q"]), ("Conv", ["q", "W"], ["y"])],
        {"p": [0, 0, 1, 1, 0, 0, 1, 1], "one": np.float32(1.0), "W": w(2, 3, 3, 3)},
        ["Conv", "Pad"],
    ),
    "pad of the channel axis + conv": (
        [("Pad", ["x", "p"], ["q"]), ("Conv", ["q", "W"], ["y"])],
        {"p": [0, 1, 0, 0, 0, 0, 0, 0], "W": w(2, 4, 1, 1)},
        ["Conv", "Pad"],
    ),
    "conv + add that is not per channel": (
        [("Conv", ["x", "W"], ["c"]), ("Add", ["c", "k"], ["y"])],
        {"W": w(4, 3, 1, 1), "k": w(1, 4, 8, 1)},
        ["Add", "Conv"],
    ),
    "conv + mul by an infinite factor": (
        [("Conv", ["x", "W"], ["c"]), ("Mul", ["c", "s"], ["y"])],
        {"W": w(4, 3, 1, 1), "s": np.array([1, np.inf, 1, 1], np.float32).reshape(4, 1, 1)},
        ["Conv", "Mul"],
    ),
    "conv + mul that broadcasts to a higher rank": (
        [("Conv", ["x", "W"], ["c"]), ("Mul", ["c", "s"], ["y"])],
        {"W": w(4, 3, 1, 1), "s": w(1, 1, 1, 1, 1)},
        ["Conv", "Mul"],
    ),
    "per-channel mul + grouped conv": (
        [("Mul", ["x", "s"], ["m"]), ("Conv", ["m", "W"], ["y"], {"group": 3})],
        {"s": w(3, 1, 1), "W": w(3, 1, 1, 1)},
        ["Conv", "Mul"],
    ),
    "mul that widens the data + conv": (
        [("Mul", ["x", "s"], ["m"]), ("Conv", ["m", "W"], ["y"])],
        {"s": w(2, 1, 1, 1), "W": w(4, 3, 1, 1)},
        ["Conv", "Mul"],
    ),
    "conv output read twice before batchnorm": (
        [("Conv", ["x", "W"], ["c"]), ("BatchNormalization", ["c", "s", "b", "m", "v"], ["n"]), ("Add", ["c", "n"], ["y"])],
        {"W": w(4, 3, 1, 1), **bn_params(4)},
        ["Add", "BatchNormalization", "Conv"],
    ),
}


@pytest.mark.parametrize("case", sorted(FUSIONS))
def test_fusion(case):
    nodes, consts, left = FUSIONS[case]
    m = make_model(nodes, inputs={"x": [1, 3, 8, 8]}, outputs={"y": None}, consts=consts, opset=17)
    m = onnx.shape_inference.infer_shapes(m)
    reduced, _ = reduced_ok(m)
    assert ops(reduced) == left


def test_fusion_keeps_a_graph_output_between_its_nodes():
    m = make_model(
        [("Mul", ["x", "a"], ["m"]), ("Mul", ["m", "b"], ["y"])],
        inputs={"x": [2, 3]},
        outputs={"y": [2, 3], "m": [2, 3]},
        consts={"a": np.float32(2.0), "b": np.float32(3.0)},
        opset=17,
    )
    reduced, _ = reduced_ok(m)
    assert ops(reduced) == ["Mul", "Mul"]


def test_fusion_freed_by_pruning_a_dead_reader_lands_in_the_first_round():
    # The dead Relu blocks the fusion during the fold pass; pruning it before
    # the tables must hand the Add back to the fold step, or a third round
    # would be needed to find it.
    m = make_model(
        [("Conv", ["x", "W"], ["c"]), ("Add", ["c", "k"], ["y"]), ("Relu", ["c"], ["dead"])],
        inputs={"x": [1, 3, 8, 8]},
        outputs={"y": None},
        consts={"W": w(4, 3, 1, 1), "k": w(4, 1, 1)},
        opset=17,
    )
    reduced, report = reduced_ok(onnx.shape_inference.infer_shapes(m))
    assert ops(reduced) == ["Conv"]
    assert report["fold"]["fusions"] == {"add_into_conv_bias": 1}
    assert report["rounds"] == 2


def test_fusions_that_change_no_value_keep_the_shared_weight_and_bias():
    # Mul by 1 and Add of 0 after convolutions that share W and B fuse away
    # without a copy of W or B per convolution; a real factor still copies.
    m = make_model(
        [("Conv", ["x", "W", "B"], ["c1"]), ("Mul", ["c1", "one"], ["m1"]), ("Add", ["m1", "zero"], ["a1"]),
         ("Conv", ["a1", "W", "B"], ["c2"]), ("Mul", ["c2", "one"], ["m2"]), ("Add", ["m2", "zero"], ["a2"]),
         ("Conv", ["a2", "W", "B"], ["c3"]), ("Mul", ["c3", "half"], ["y"])],
        inputs={"x": [1, 4, 5, 5]},
        outputs={"y": None},
        consts={"W": w(4, 4, 1, 1), "B": w(4), "one": np.float32(1.0), "zero": np.zeros(4, np.float32).reshape(4, 1, 1),
                "half": np.float32(0.5)},
        opset=17,
    )
    reduced, report = reduced_ok(onnx.shape_inference.infer_shapes(m))
    assert ops(reduced) == ["Conv"] * 3
    assert report["fold"]["fusions"] == {"mul_into_conv": 3, "add_into_conv_bias": 2}
    convs = [list(n.input[1:]) for n in reduced.graph.node]
    assert convs[0] == convs[1] == ["W", "B"] and convs[2] != ["W", "B"]
    assert len(reduced.graph.initializer) == 4


def matmul_add_model() -> onnx.ModelProto:
    return make_model(
        [("MatMul", ["x", "W"], ["mm"]), ("Add", ["mm", "B"], ["y"])],
        inputs={"x": [3, 4]},
        outputs={"y": [3, 5]},
        consts={"W": w(4, 5), "B": w(5)},
        opset=17,
    )


# ---- limits, switches, report ----------------------------------------------------------


def test_big_results_stay_as_nodes():
    m = make_model(
        [("ConstantOfShape", ["s"], ["big"], {"value": numpy_helper.from_array(np.array([1.0], np.float32))}),
         ("Add", ["x", "big"], ["y"])],
        inputs={"x": [512, 1024]},
        outputs={"y": [512, 1024]},
        consts={"s": [512, 1024]},
        opset=17,
    )
    reduced, report = reduced_ok(m)
    assert "ConstantOfShape" in ops(reduced)
    assert report["fold"]["kept_by_size"] == ["n0"]
    assert "kept by the size limit: 1" in tolm.format_report(report)


def test_report_names_folded_ops_and_fusions():
    _, report = tolm.reduce(SCENARIOS["torch_same_pad_conv"]())
    fold = report["fold"]
    assert fold["folded"]["ConstantOfShape"] == 1 and fold["folded"]["Shape"] == 1
    assert fold["fusions"] == {"pad_into_conv": 1}
    assert fold["removed_nodes"] == report["nodes_before"] - report["nodes_after"]
    text = tolm.format_report(report)
    assert f"folding removed {fold['removed_nodes']} node(s)" in text and "pad_into_conv 1" in text


@pytest.mark.parametrize("flag, fused", [([], False), (["--matmul-add-to-gemm"], True)])
def test_cli_switches(tmp_model, tmp_path, flag, fused):
    # MatMul + constant Add into Gemm only on request, with the same numbers.
    m = matmul_add_model()
    out = tmp_path / "out.onnx"
    p = run_cli(tmp_model(m), "-o", str(out), "--check", "2", *flag)
    assert p.returncode == 0, p.stderr
    assert ("Gemm" in ops(onnx.load(str(out)))) == fused


def test_cli_no_fold(tmp_model, tmp_path):
    out = tmp_path / "out.onnx"
    p = run_cli(tmp_model(SCENARIOS["bert_shape_block"]()), "-o", str(out), "--no-fold")
    assert p.returncode == 0, p.stderr
    assert "Shape" in ops(onnx.load(str(out))) and "folding off" in p.stdout


def test_fold_pass_alone_from_python():
    from tolm.api.ir_graph import IRGraph
    from tolm.api.rules import reduce

    ir = IRGraph(SCENARIOS["attention_mask"]())
    stats = reduce.fold_constants(ir)
    assert stats["folded"]["Range"] == 1 and stats["steps"] > 0
    reduce.prune_dead(ir)
    assert sorted(n.op_type for n in ir.node) == ["Add", "Add"]
