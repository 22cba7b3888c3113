"""Bodies of If and Loop nodes are reduced too, and read the same outer-scope
names afterwards."""

import numpy as np
import onnx
import pytest
from onnx import TensorProto, helper, numpy_helper

import tolm
from conftest import run_ort


def vi(name, elem=TensorProto.FLOAT, shape=None):
    return helper.make_tensor_value_info(name, elem, shape)


def if_model():
    # then: a Transpose pair that cancels and an identity Reshape on the outer
    # x; else: a Neg of x. The condition is a graph input, so the If stays.
    shape = numpy_helper.from_array(np.array([2, 3], np.int64), "then_shape")
    then_branch = helper.make_graph(
        [
            helper.make_node("Transpose", ["x"], ["t1"], perm=[1, 0], name="t1"),
            helper.make_node("Transpose", ["t1"], ["t2"], perm=[1, 0], name="t2"),
            helper.make_node("Reshape", ["t2", "then_shape"], ["t3"], name="rs"),
            helper.make_node("Relu", ["t3"], ["then_out"], name="relu"),
        ],
        "then",
        [],
        [vi("then_out", shape=[2, 3])],
        initializer=[shape],
    )
    else_branch = helper.make_graph(
        [helper.make_node("Neg", ["x"], ["else_out"], name="neg")], "else", [], [vi("else_out", shape=[2, 3])]
    )
    graph = helper.make_graph(
        [
            helper.make_node("Sigmoid", ["x0"], ["x"], name="sig"),
            helper.make_node("If", ["cond"], ["y"], then_branch=then_branch, else_branch=else_branch, name="if"),
        ],
        "g",
        [vi("x0", shape=[2, 3]), vi("cond", TensorProto.BOOL, [])],
        [vi("y", shape=[2, 3])],
    )
    m = helper.make_model(graph, opset_imports=[helper.make_opsetid("", 13)])
    m.ir_version = 8
    return m


def loop_model():
    # A Loop body with an identity Reshape and a Transpose pair on its carried
    # value, adding the outer w each time.
    w = numpy_helper.from_array(np.arange(6, dtype=np.float32).reshape(2, 3), "w")
    s = numpy_helper.from_array(np.array([2, 3], np.int64), "body_shape")
    body = helper.make_graph(
        [
            helper.make_node("Reshape", ["v_in", "body_shape"], ["r"], name="rs"),
            helper.make_node("Transpose", ["r"], ["t1"], perm=[1, 0], name="t1"),
            helper.make_node("Transpose", ["t1"], ["t2"], perm=[1, 0], name="t2"),
            helper.make_node("Add", ["t2", "w"], ["v_out"], name="add"),
            helper.make_node("Identity", ["c_in"], ["c_out"], name="keep_going"),
        ],
        "body",
        [vi("i", TensorProto.INT64, []), vi("c_in", TensorProto.BOOL, []), vi("v_in", shape=[2, 3])],
        [vi("c_out", TensorProto.BOOL, []), vi("v_out", shape=[2, 3])],
        initializer=[s],
    )
    trip = numpy_helper.from_array(np.array(3, np.int64), "trip")
    cond = numpy_helper.from_array(np.array(True), "go")
    graph = helper.make_graph(
        [helper.make_node("Loop", ["trip", "go", "x"], ["y"], body=body, name="loop")],
        "g",
        [vi("x", shape=[2, 3])],
        [vi("y", shape=[2, 3])],
        initializer=[w, trip, cond],
    )
    m = helper.make_model(graph, opset_imports=[helper.make_opsetid("", 13)])
    m.ir_version = 8
    return m


def body_ops(model, node_op, attr):
    node = next(n for n in model.graph.node if n.op_type == node_op)
    g = next(a.g for a in node.attribute if a.name == attr)
    return [n.op_type for n in g.node], {i for n in g.node for i in n.input}


def test_if_branches_are_reduced_and_keep_outer_names():
    m = if_model()
    reduced, report = tolm.reduce(m)
    onnx.checker.check_model(reduced, full_check=True)
    ops, reads = body_ops(reduced, "If", "then_branch")
    assert ops == ["Relu"] and reads == {"x"}
    assert report["subgraph_nodes_removed"] == 3
    x0 = np.random.default_rng(0).standard_normal((2, 3)).astype(np.float32)
    for cond in (True, False):
        feeds = {"x0": x0, "cond": np.array(cond)}
        np.testing.assert_allclose(run_ort(reduced, feeds)["y"], run_ort(m, feeds)["y"], rtol=1e-6)
    again, report2 = tolm.reduce(reduced)
    assert again.SerializeToString() == reduced.SerializeToString()
    assert report2["subgraph_nodes_removed"] == 0 and report2["rewrites"] == 0


def test_loop_body_is_reduced():
    m = loop_model()
    reduced, _ = tolm.reduce(m, check=2)
    onnx.checker.check_model(reduced, full_check=True)
    ops, reads = body_ops(reduced, "Loop", "body")
    assert "Transpose" not in ops and "Reshape" not in ops and "w" in reads
    x = np.ones((2, 3), np.float32)
    np.testing.assert_allclose(run_ort(reduced, {"x": x})["y"], run_ort(m, {"x": x})["y"])


@pytest.mark.parametrize("how", ["python", "cli"])
def test_subgraphs_can_be_left_alone(tmp_path, tmp_model, how):
    m = if_model()
    if how == "python":
        reduced, _ = tolm.reduce(m, subgraphs=False)
    else:
        from tolm import cli

        out = str(tmp_path / "o.onnx")
        assert cli.main([tmp_model(m), "-o", out, "--no-subgraphs", "-q"]) == 0
        reduced = onnx.load(out)
    assert body_ops(reduced, "If", "then_branch")[0] == ["Transpose", "Transpose", "Reshape", "Relu"]
