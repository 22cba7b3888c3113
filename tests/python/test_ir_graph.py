"""IRGraph as rules see it: queries, in-place rewiring, applying results."""

import numpy as np
import onnx
import pytest
from onnx import TensorProto, helper

from conftest import assert_same_outputs, make_model
from tolm.api.ir_graph import IRGraph, LoadError, Node, to_np_type


def small_model():
    # x -> Transpose -> Reshape -> Relu -> y ; x -> Add(c) -> Split -> (s0, s1)
    return make_model(
        [
            ("Transpose", ["x"], ["t"], {"perm": [0, 2, 1], "name": "tp"}),
            ("Reshape", ["t", "shape"], ["r"], {"name": "rs"}),
            ("Relu", ["r"], ["y"], {"name": "relu"}),
            ("Add", ["x", "c"], ["a"], {"name": "add"}),
            ("Split", ["a", "split"], ["s0", "s1"], {"axis": 2, "name": "split"}),
            ("Neg", ["s1"], ["n1"], {"name": "neg1"}),
            ("Neg", ["s0"], ["n0"], {"name": "neg0"}),
            ("ReduceSum", ["y"], ["total"], {"keepdims": 0, "name": "sum"}),
        ],
        inputs={"x": [1, 4, 6]},
        outputs={"y": None, "n0": None, "n1": None, "total": None},
        consts={"shape": [1, 24], "c": np.ones((1, 4, 6), np.float32), "split": [2, 4]},
    )


@pytest.fixture
def ir():
    return IRGraph(small_model())


class TestQueries:
    def test_shapes_and_dtypes(self, ir):
        assert ir.get_shape("t") == [1, 6, 4] and ir.get_shape("total") == []  # a scalar: empty shape
        assert ir.get_shape("no_such_tensor") is None
        ir.get_shape("t")[0] = 99  # a fresh list: the graph is not changed through it
        assert ir.get_shape("t") == [1, 6, 4]
        with pytest.raises(ValueError):  # a shape that does not hold the tensor's elements
            ir.set_shape("t", [1, 5, 4])
        ir.set_shape("fresh", [2, 3], dtype=np.int64)
        assert ir.get_shape("fresh") == [2, 3] and ir.get_dtype("fresh") == np.int64
        ir.operands["t"].shape = [24]
        assert ir.get_shape("t") == [24]
        assert to_np_type(TensorProto.FLOAT16) == np.float16

    def test_attributes(self, ir):
        tp = ir.find_node("tp")
        assert ir.get_attr(tp, "perm") == [0, 2, 1] and ir.get_attr(tp, "missing") is None
        values = {"i": 3, "f": 0.5, "s": "int8", "fl": [1.0, 2.5], "ss": ["a", "b"], "perm": [2, 1, 0]}
        for k, v in values.items():
            ir.set_attr(tp, k, v)
        ir.set_attr(tp, "t", np.arange(6, dtype=np.float16).reshape(2, 3))
        assert {k: ir.get_attr(tp, k) for k in values} == values and isinstance(ir.get_attr(tp, "i"), int)
        t = ir.get_attr(tp, "t")
        assert t.dtype == np.float16 and t.shape == (2, 3)
        assert [a.name for a in tp.attribute][0] == "perm"
        neg0, neg1 = ir.find_node("neg0"), ir.find_node("neg1")
        assert ir.same_attr(neg0, neg1) and not ir.same_attr(neg0, tp)

    @pytest.mark.parametrize(
        "value",
        [
            np.arange(6, dtype=np.float16).reshape(2, 3),
            np.array([True, False, True]),
            np.array([-3, 4], np.int8),
            np.array([2**63 + 5], np.uint64),
            np.array(1.25, np.float64),
            np.array(["a", "bc"], dtype=object),
        ],
    )
    def test_const_roundtrip_keeps_type_and_values(self, ir, value):
        ir.set_const("k", value)
        got = ir.get_const("k")
        assert got.dtype == value.dtype and got.shape == value.shape
        assert (got == value).all()
        assert "k" in ir.consts and ir.consts["k"].shape == value.shape

    def test_optional_constant_inputs(self, ir):
        rs = ir.find_node("rs")
        assert ir.get_const_optional(rs, 1).tolist() == ir.get_const_optional(rs, -1).tolist() == [1, 24]
        assert ir.get_const_optional(rs, 0) is None and ir.get_const_optional(rs, 5) is None
        assert set(ir.consts) == {"shape", "c", "split"} and ir.get_const("x") is None

    def test_neighbours_io_and_order(self, ir):
        names = lambda nodes: [n.name for n in nodes]  # noqa: E731
        assert names(ir.next_nodes("x")) == ["tp", "add"]
        assert names(ir.next_nodes(ir.find_node("split"))) == ["neg0", "neg1"]  # output order
        assert names(ir.pre_nodes(ir.find_node("relu"))) == names(ir.pre_nodes("r")) == ["rs"]
        assert ir.pre_nodes("x") == ir.pre_nodes(ir.find_node("tp")) == ir.next_nodes("n0") == []
        assert "x" in ir.inputs and "t" not in ir.outputs and list(ir.outputs) == ["y", "n0", "n1", "total"]
        order = [n.name for n in ir.node]
        assert order.index("tp") < order.index("rs") < order.index("relu") < order.index("sum")
        assert order.index("split") < order.index("neg0")
        deps = ir.node_dependency_map
        assert "x" in deps["relu"] and "t" in deps["relu"]
        assert "a" not in deps["relu"] and "y" not in deps["relu"]

    def test_value_info_removal(self):
        ir = IRGraph(onnx.shape_inference.infer_shapes(small_model()))
        first = ir.graph.value_info[0]
        n = len(ir.graph.value_info)
        ir.graph.value_info.remove(first)
        assert first.name not in [r.name for r in ir.graph.value_info]
        del ir.graph.value_info[0]
        assert len(ir.graph.value_info) == n - 2

    def test_loading_sources_options_and_errors(self, tmp_model):
        m = small_model()
        for src in (m, m.SerializeToString(), tmp_model(m)):
            assert len(IRGraph(src).node) == len(m.graph.node)
        sym = make_model([("Relu", ["x"], ["y"])], inputs={"x": ["N", 3]}, outputs={"y": None})
        assert IRGraph(sym, input_shapes={"x": [5, 3]}).get_shape("y") == [5, 3]
        for bad in ({"target": "npu_z"}, {"input_shapes": {"nope": [1]}}):
            with pytest.raises(ValueError):
                IRGraph(sym, **bad)
        with pytest.raises(LoadError) as err:
            IRGraph(b"definitely not a model")
        assert isinstance(err.value, ValueError)
        # A name in the message that is no valid UTF-8 shows escaped; it does
        # not turn the error into a decoding one.
        data = make_model([("Relu", ["x"], ["y"])], inputs={"x": [2]}, outputs={"y": [2]}).SerializeToString()
        broken = data.replace(b"\x0a\x01x\x12\x01y", b"\x0a\x01\xff\x12\x01y", 1)
        assert broken != data
        with pytest.raises(LoadError, match=r"reads tensor \\xff"):
            IRGraph(broken)


class TestRewiring:
    def test_set_output_moves_producer(self, ir):
        rs, relu = ir.find_node("rs"), ir.find_node("relu")
        ir.set_input(relu, 0, "x")
        ir.set_output(rs, 0, "rs_new")
        assert ir.pre_nodes("rs_new") == [rs]
        assert ir.pre_nodes("r") == []
        assert ir.next_nodes("rs_new") == []
        assert ir.pre_nodes(relu) == []

    def test_node_rename_keeps_lookup_and_identity(self, ir):
        rs = ir.find_node("rs")
        rs.name = "reshape_renamed"
        assert ir.find_node("reshape_renamed") is rs and ir.find_node("rs") is None
        assert ir.next_nodes("t") == [rs]
        a = ir.find_node("relu")
        assert ir.next_nodes("r")[0] is a and ir.pre_nodes("y")[0] is a
        assert len({a, ir.next_nodes("r")[0]}) == 1
        neg0, neg1 = ir.find_node("neg0"), ir.find_node("neg1")
        clone = neg0.clone()
        assert neg0 != neg1 and neg0 != clone and clone.name == neg0.name
        assert neg0 in [neg1, neg0] and clone not in [neg0, neg1]


class TestApply:
    def test_apply_nodeproto_and_node_adds(self, ir):
        m = small_model()
        relu, rs = ir.find_node("relu"), ir.find_node("rs")
        sig = helper.make_node("Sigmoid", ["r"], ["y"], name="sig")
        node = Node("Transpose", ["t"], ["t2"], name="tp2", perm=[0, 2, 1])
        assert ir.get_attr(node, "perm") == [0, 2, 1]
        rs.input[0] = "t2"
        ir.apply([relu], [sig, node])
        assert ir.find_node("relu") is None and ir.next_nodes("t2") == [rs]
        new = ir.find_node("sig")
        assert new.op_type == "Sigmoid" and ir.pre_nodes("y") == [new]
        assert ir.next_nodes("y")[0].name == "sum"
        out = ir.to_onnx()
        onnx.checker.check_model(out, full_check=True)
        # A Sigmoid in place of the Relu and a Transpose pair in front of the
        # Reshape: same graph I/O and numbers as the model edited by hand.
        m.graph.node[2].op_type = "Sigmoid"
        m.graph.node[1].input[0] = "t2"
        m.graph.node.insert(1, helper.make_node("Transpose", ["t"], ["t2"], name="tp2", perm=[0, 2, 1]))
        assert_same_outputs(m, out)
