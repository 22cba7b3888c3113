"""Duplicate siblings on one tensor collapse into the matched node, for every
standard op type of the parallel-node rows; outputs stay the same in
onnxruntime, and siblings that differ in anything that matters stay apart."""

import numpy as np
import pytest
from onnx import TensorProto

from conftest import call_rule, make_model

F = np.float32
X = [1, 4, 6, 6]
W1 = np.linspace(-1, 1, 12, dtype=F).reshape(3, 4, 1, 1)

# op -> (inputs after x, attrs, consts, output shapes): two such nodes n1, n2
# read x; each output feeds an Identity to its own graph output.
SIBLINGS = {
    "Relu": ([], {}, {}, [X]),
    "MaxPool": ([], {"kernel_shape": [2, 2]}, {}, [[1, 4, 5, 5]]),
    "AveragePool": ([], {"kernel_shape": [2, 2]}, {}, [[1, 4, 5, 5]]),
    # Equal shapes under two names still make siblings.
    "Reshape": (["{s}"], {}, {"s1": [4, 36], "s2": [4, 36]}, [[4, 36]]),
    "Transpose": ([], {"perm": [0, 2, 3, 1]}, {}, [[1, 6, 6, 4]]),
    "Slice": (["b", "e", "ax", "st"], {}, {"b": [1], "e": [3], "ax": [1], "st": [1]}, [[1, 2, 6, 6]]),
    "Softmax": ([], {"axis": 1}, {}, [X]),
    "Cast": ([], {"to": TensorProto.FLOAT}, {}, [X]),
    "Sub": (["c"], {}, {"c": np.full(6, 0.5, F)}, [X]),
    "LeakyRelu": ([], {"alpha": 0.1}, {}, [X]),
    "Conv": (["w"], {"kernel_shape": [1, 1]}, {"w": W1}, [[1, 3, 6, 6]]),
    "Equal": (["c"], {}, {"c": np.zeros(6, F)}, [(TensorProto.BOOL, X)]),
    "Mul": (["{s}"], {}, {"s1": np.full(6, 2, F), "s2": np.full(6, 2, F)}, [X]),
    "Expand": (["s"], {}, {"s": [2, 4, 6, 6]}, [[2, 4, 6, 6]]),
    "Split": (["s"], {"axis": 1}, {"s": [1, 3]}, [[1, 1, 6, 6], [1, 3, 6, 6]]),
    "Gather": (["i"], {"axis": 1}, {"i": [3, 0]}, [[1, 2, 6, 6]]),
    "ScatterND": (["i", "u"], {}, {"i": np.array([[0, 1]], np.int64), "u": np.ones((1, 6, 6), F)}, [X]),
    "Floor": ([], {}, {}, [X]),
    "Concat": (["x"], {"axis": 1}, {}, [[1, 8, 6, 6]]),
}


def siblings_model(op, n=2, attrs_of=None, graph_outputs=None):
    extra, attrs, consts, outs = SIBLINGS[op]
    nodes, outputs = [], {}
    for k in range(1, n + 1):
        ins = ["x"] + [e.format(s=f"s{k}") for e in extra]
        names = [f"o{k}_{j}" for j in range(len(outs))]
        a = dict(attrs, **(attrs_of(k) if attrs_of else {}))
        nodes.append((op, ins, names, dict(a, name=f"p{k}")))
        for j, (name, shape) in enumerate(zip(names, outs)):
            nodes.append(("Identity", [name], [f"y{k}_{j}"], {"name": f"id{k}_{j}"}))
            outputs[f"y{k}_{j}"] = shape
    for name in graph_outputs or []:
        outputs[name] = outs[0]
    return make_model(nodes, {"x": X}, outputs, consts, opset=16)


@pytest.mark.parametrize("op", sorted(SIBLINGS))
def test_identical_siblings_collapse(op):
    removed, added, out = call_rule(siblings_model(op), "_p_remove_parallel_node", ["p1"])
    assert (removed, added) == (["p1", "p2"], [op])
    names = [n.name for n in out.graph.node]
    assert "p1" in names and "p2" not in names
    ids = [n for n in out.graph.node if n.op_type == "Identity"]
    assert all(i.input[0].startswith("o1_") for i in ids)


def test_softmax_on_other_axis_stays_apart():
    axes = {1: 1, 2: 1, 3: 2}
    model = siblings_model("Softmax", 3, lambda k: {"axis": axes[k]})
    removed, _, _ = call_rule(model, "_p_remove_parallel_node", ["p1"])
    assert removed == ["p1", "p2"]
    # Matched on the odd one out, nothing is left to merge.
    assert call_rule(model, "_p_remove_parallel_node", ["p3"]) == ([], [], None)


@pytest.mark.parametrize("out_channels,merges", [(16, True), (32, False)])
def test_conv_weights_above_1024_elements_stay_apart(out_channels, merges):
    w = np.linspace(-1, 1, out_channels * 64, dtype=F).reshape(out_channels, 64, 1, 1)
    nodes = [("Conv", ["x", "w"], [f"o{k}"], {"name": f"p{k}", "kernel_shape": [1, 1]}) for k in (1, 2)]
    nodes += [("Relu", [f"o{k}"], [f"y{k}"]) for k in (1, 2)]
    shape = [1, out_channels, 2, 2]
    model = make_model(nodes, {"x": [1, 64, 2, 2]}, {"y1": shape, "y2": shape}, {"w": w})
    removed, _, _ = call_rule(model, "_p_remove_parallel_node", ["p1"])
    assert bool(removed) == merges


def test_transposes_that_move_the_same_data_merge():
    # On [1, 3, 1] both perms give [1, 1, 3] with the data in place.
    nodes = [("Transpose", ["x"], ["a"], {"name": "p1", "perm": [0, 2, 1]}),
             ("Transpose", ["x"], ["b"], {"name": "p2", "perm": [2, 0, 1]}),
             ("Neg", ["a"], ["y"]), ("Relu", ["b"], ["z"])]
    model = make_model(nodes, {"x": [1, 3, 1]}, {"y": [1, 1, 3], "z": [1, 1, 3]})
    assert call_rule(model, "_p_remove_parallel_node", ["p1"])[0] == ["p1", "p2"]


def two_readers(first, second, consts, xs=(2, 3), inputs=None, out_types=None):
    def named(node, name):
        op, ins, outs, *attrs = node
        return (op, ins, outs, dict(attrs[0] if attrs else {}, name=name))

    nodes = [named(first, "p1"), named(second, "p2"),
             ("Identity", [first[2][0]], ["y"]), ("Identity", [second[2][0]], ["z"])]
    ins = {"x": list(xs)}
    ins.update(inputs or {})
    outs = out_types or {"y": list(xs), "z": list(xs)}
    return make_model(nodes, ins, outs, consts)


@pytest.mark.parametrize("first,second,consts,merges", [
    (("Sub", ["x", "c"], ["a"]), ("Sub", ["c", "x"], ["b"]), {"c": np.ones(3, F)}, False),
    (("Mul", ["x", "c1"], ["a"]), ("Mul", ["x", "c2"], ["b"]), {"c1": np.ones(3, F), "c2": np.ones(3, F)}, True),
    (("Mul", ["x", "c1"], ["a"]), ("Mul", ["x", "c2"], ["b"]), {"c1": np.ones(3, F), "c2": np.zeros(3, F)}, False),
    # By position: the same constant on the other side is no sibling.
    (("Mul", ["x", "c"], ["a"]), ("Mul", ["c", "x"], ["b"]), {"c": np.ones(3, F)}, False),
], ids=["sub swapped", "mul equal constants", "mul other constants", "mul swapped"])
def test_two_input_ops_compare_operands_by_position(first, second, consts, merges):
    removed, _, _ = call_rule(two_readers(first, second, consts), "_p_remove_parallel_node", ["p1"])
    assert bool(removed) == merges


def test_gathers_with_computed_indices_compare_them_by_name():
    # Same data, same axis, different index tensors: not the same values.
    model = two_readers(("Gather", ["x", "i"], ["a"], {"axis": 1}), ("Gather", ["x", "j"], ["b"], {"axis": 1}), {},
                        inputs={"i": (TensorProto.INT64, [2]), "j": (TensorProto.INT64, [2])},
                        out_types={"y": [2, 2], "z": [2, 2]})
    assert call_rule(model, "_p_remove_parallel_node", ["p1"]) == ([], [], None)


def test_split_with_and_without_lengths_stay_apart():
    # Split(x, [1, 3]) and Split(x) into halves have the same attributes.
    nodes = [("Split", ["x", "s"], ["a0", "a1"], {"name": "p1", "axis": 1}),
             ("Split", ["x"], ["b0", "b1"], {"name": "p2", "axis": 1})]
    nodes += [("Identity", [t], ["y" + t]) for t in ("a0", "a1", "b0", "b1")]
    outs = {"ya0": [2, 1], "ya1": [2, 3], "yb0": [2, 2], "yb1": [2, 2]}
    model = make_model(nodes, {"x": [2, 4]}, outs, {"s": [1, 3]})
    assert call_rule(model, "_p_remove_parallel_node", ["p1"]) == ([], [], None)


def test_graph_outputs_of_siblings_and_of_the_survivor():
    # The sibling's output is a graph output: it is left alone.
    model = siblings_model("Relu", graph_outputs=["o2_0"])
    assert call_rule(model, "_p_remove_parallel_node", ["p1"]) == ([], [], None)
    # The matched node's output is one: it survives all the same.
    model = siblings_model("Relu", graph_outputs=["o1_0"])
    assert call_rule(model, "_p_remove_parallel_node", ["p1"])[0] == ["p1", "p2"]


def test_sibling_without_reader_blocks_the_rule():
    nodes = [("Relu", ["x"], ["a"], {"name": "p1"}), ("Relu", ["x"], ["b"], {"name": "p2"}),
             ("Relu", ["x"], ["c"], {"name": "p3"}), ("Neg", ["a"], ["y"]), ("Neg", ["b"], ["z"])]
    model = make_model(nodes, {"x": [2, 3]}, {"y": [2, 3], "z": [2, 3]})
    assert call_rule(model, "_p_remove_parallel_node", ["p1"]) == ([], [], None)
