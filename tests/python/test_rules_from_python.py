"""Each rule called by name from Python, as the compiler calls it: the result
applied to the graph keeps the model valid, its I/O names and its numbers."""

import numpy as np
import pytest
from onnx import TensorProto

from conftest import call_rule, make_model

F = np.float32
X = {"x": [2, 3, 4, 5]}


# (nodes, consts, the matched node names) for a node that does nothing; the
# node is the first matched one and ends before a Neg that reads its output.
INVALID = {
    "Reshape": ([("Reshape", ["x", "s"], ["a"], {"name": "t"})], {"s": [2, 3, 4, 5]}),
    "Transpose": ([("Transpose", ["x2"], ["a"], {"name": "t", "perm": [0, 2, 1, 3]})], {}),
    "Cast": ([("Cast", ["x"], ["a"], {"name": "t", "to": TensorProto.FLOAT})], {}),
    "Clip": ([("Clip", ["x", "lo", "hi"], ["a"], {"name": "t"})],
             {"lo": np.array(-np.inf, F), "hi": np.array(np.inf, F)}),
    "Slice": ([("Slice", ["x", "b", "e", "ax", "st"], ["a"], {"name": "t"})],
              {"b": [0], "e": [4], "ax": [2], "st": [1]}),
    # A constant first input must have the full shape: the shape test reads input 0.
    # Only -0 is neutral for Add (and +0 for Sub): -0 + +0 is +0.
    "Add": ([("Add", ["z", "x"], ["a"], {"name": "t"})], {"z": np.full((2, 3, 4, 5), -0.0, F)}),
    "Sub": ([("Sub", ["x", "z"], ["a"], {"name": "t"})], {"z": np.zeros((5,), F)}),
    "Mul": ([("Mul", ["one", "x"], ["a"], {"name": "t"})], {"one": np.ones((2, 3, 4, 5), F)}),
    "Expand": ([("Expand", ["x", "s"], ["a"], {"name": "t"})], {"s": [1, 1, 1, 1]}),
    "Concat": ([("Concat", ["x"], ["a"], {"name": "t", "axis": 1})], {}),
    "Split": ([("Split", ["x"], ["a"], {"name": "t", "axis": 1})], {}),
    "Pad": ([("Pad", ["x", "p"], ["a"], {"name": "t"})], {"p": [0] * 8}),
    "Where": ([("Where", ["c", "x", "w"], ["a"], {"name": "t"})],
              {"c": np.ones((2, 3, 4, 5), bool), "w": np.zeros((2, 3, 4, 5), F)}),
    "Relu": ([("Relu", ["x"], ["r"], {"name": "r0"}), ("Relu", ["r"], ["a"], {"name": "t"})], {}),
    "ScatterND": ([("ScatterND", ["base", "idx", "x"], ["a"], {"name": "t", "reduction": "none"})],
                  {"base": np.zeros((2, 3, 4, 5), F),
                   "idx": np.stack(np.meshgrid(range(2), range(3), range(4), range(5), indexing="ij"),
                                   -1).astype(np.int64)}),
    # batch_dims must be stated: the rule reads it and gives up when absent.
    "GatherND": ([("GatherND", ["x", "idx"], ["a"], {"name": "t", "batch_dims": 0})],
                 {"idx": np.arange(2, dtype=np.int64).reshape(2, 1)}),
    "BatchNormalization": ([("BatchNormalization", ["x", "s", "b", "m", "v"], ["a"], {"name": "t"})],
                           {"s": np.ones(3, F), "b": np.zeros(3, F), "m": np.zeros(3, F),
                            "v": np.ones(3, F)}),
    "ReduceMean": ([("ReduceMean", ["x1"], ["a"], {"name": "t", "axes": [2], "keepdims": 1})], {}),
    "ReduceSum": ([("ReduceSum", ["x1", "ax"], ["a"], {"name": "t", "keepdims": 1})], {"ax": [2]}),
    "ReduceMax": ([("ReduceMax", ["x1"], ["a"], {"name": "t", "axes": [2], "keepdims": 1})], {}),
    "MaxPool": ([("MaxPool", ["x"], ["a"], {"name": "t", "kernel_shape": [1, 1], "strides": [1, 1],
                                            "pads": [0, 0, 0, 0], "dilations": [1, 1]})], {}),
    # dilations exist on AveragePool from opset 19 and are part of the test.
    "AveragePool": ([("AveragePool", ["x"], ["a"], {"name": "t", "kernel_shape": [1, 1], "strides": [1, 1],
                                                    "pads": [0, 0, 0, 0], "dilations": [1, 1]})], {}),
    "Gather": ([("Gather", ["x", "i"], ["a"], {"name": "t", "axis": 2})], {"i": [0, 1, 2, 3]}),
    "Resize": ([("Resize", ["x", "", "sc"], ["a"], {"name": "t"})], {"sc": np.ones(4, F)}),
}


@pytest.mark.parametrize("op", sorted(INVALID))
def test_remove_invalid_node_bypasses_every_op_type(op):
    nodes, consts = INVALID[op]
    # x1 has a size-1 axis for the reductions, x2 two of them for Transpose.
    shapes = {"x": [2, 3, 4, 5], "x1": [2, 3, 1, 5], "x2": [2, 1, 1, 5]}
    src = nodes[0][1][0] if nodes[0][1][0] in shapes else "x"
    model = make_model(nodes + [("Neg", ["a"], ["y"], {"name": "neg"})], {src: shapes[src]},
                       {"y": shapes[src]}, consts, opset={"ScatterND": 16, "AveragePool": 19}.get(op, 13))
    removed, added, out = call_rule(model, "_p_remove_invalid_node", ["t"])
    assert removed == ["t"] and added == []
    assert "t" not in [n.name for n in out.graph.node]


@pytest.mark.parametrize("op, zero", [("Add", 0.0), ("Sub", -0.0)])
def test_adding_a_zero_that_flips_negative_zero_stays(op, zero):
    model = make_model([(op, ["x", "z"], ["a"], {"name": "t"}), ("Neg", ["a"], ["y"], {"name": "neg"})],
                       X, {"y": [2, 3, 4, 5]}, {"z": np.full((5,), zero, F)})
    assert call_rule(model, "_p_remove_invalid_node", ["t"])[0] == []


def test_a_one_by_one_maxpool_after_an_infinity_stays():
    # onnxruntime's pool turns -inf into the lowest finite float even in a
    # 1x1 window; x * inf holds -inf wherever x is negative.
    pool = {**INVALID["MaxPool"][0][0][3]}
    model = make_model([("Mul", ["x", "k"], ["m"]), ("MaxPool", ["m"], ["y"], pool)],
                       X, {"y": [2, 3, 4, 5]}, {"k": np.array([np.inf], F)})
    assert call_rule(model, "_p_remove_invalid_node", ["t"])[0] == []


def test_invalid_node_before_graph_output_hands_its_name_to_the_producer():
    model = make_model([("Relu", ["x"], ["a"], {"name": "r"}), ("Reshape", ["a", "s"], ["y"], {"name": "t"})],
                       X, {"y": [2, 3, 4, 5]}, {"s": [2, 3, 4, 5]})
    removed, _, out = call_rule(model, "_p_remove_invalid_node", ["t"])
    assert removed == ["t"] and [n.name for n in out.graph.node] == ["r"]


def test_gathernd_with_other_shape_becomes_reshape():
    # The whole grid of the first two axes, listed flat: [6, 4, 5] out of [2, 3, 4, 5].
    idx = np.stack(np.meshgrid(range(2), range(3), indexing="ij"), -1).astype(np.int64).reshape(6, 2)
    model = make_model([("GatherND", ["x", "idx"], ["a"], {"name": "t", "batch_dims": 0}), ("Neg", ["a"], ["y"])],
                       X, {"y": [6, 4, 5]}, {"idx": idx})
    removed, added, out = call_rule(model, "_p_remove_invalid_node", ["t"])
    assert removed == ["t"] and added == ["Reshape"]
    assert any(n.name == "t_2rs" for n in out.graph.node)


PAIRS = [
    ("_p_fuse_squeeze_into_reshape", ["rs", "sq"],
     [("Reshape", ["x", "s"], ["a"], {"name": "rs"}), ("Squeeze", ["a", "ax"], ["b"], {"name": "sq"}),
      ("Neg", ["b"], ["y"])], {"s": [2, 3, 1, 20], "ax": [2]}, {"y": [2, 3, 20]}),
    ("_p_bypass_two_transpose", ["t0"],
     [("Transpose", ["x"], ["a"], {"name": "t0", "perm": [0, 2, 3, 1]}),
      ("Transpose", ["a"], ["b"], {"name": "t1", "perm": [0, 3, 1, 2]}),
      ("Neg", ["b"], ["y"]), ("Relu", ["a"], ["z"])], {}, {"y": [2, 3, 4, 5], "z": [2, 4, 5, 3]}),
    ("_p_bypass_two_reshape", ["r0"],
     [("Relu", ["x"], ["p"]), ("Reshape", ["p", "s1"], ["a"], {"name": "r0"}),
      ("Reshape", ["a", "s0"], ["y"], {"name": "r1"})], {"s1": [6, 20], "s0": [2, 3, 4, 5]},
     {"y": [2, 3, 4, 5]}),
    ("_p_fuse_two_reshape", ["r0", "r1"],
     [("Relu", ["x"], ["p"]), ("Reshape", ["p", "s1"], ["a"], {"name": "r0"}),
      ("Reshape", ["a", "s2"], ["b"], {"name": "r1"}), ("Neg", ["b"], ["y"])],
     {"s1": [6, 20], "s2": [2, 60]}, {"y": [2, 60]}),
    ("_p_fuse_two_transpose", ["t0", "t1"],
     [("Transpose", ["x"], ["a"], {"name": "t0", "perm": [0, 2, 3, 1]}),
      ("Transpose", ["a"], ["y"], {"name": "t1", "perm": [0, 3, 1, 2]}),
      ("Transpose", ["a"], ["z"], {"name": "t2", "perm": [1, 0, 2, 3]})], {},
     {"y": [2, 3, 4, 5], "z": [4, 2, 5, 3]}),
]


@pytest.mark.parametrize("proc,matched,nodes,consts,outputs", PAIRS, ids=[p[0] for p in PAIRS])
def test_chain_rules_keep_numbers(proc, matched, nodes, consts, outputs):
    model = make_model(nodes, X, outputs, consts)
    removed, _, out = call_rule(model, proc, matched)
    assert removed
    assert len(out.graph.node) < len(model.graph.node) or proc == "_p_fuse_two_transpose"
