"""The rule tables as Python sees them, procedure calls and quant_tab write-back."""

import hashlib
from collections import Counter, OrderedDict

import numpy as np
import pytest

from conftest import assert_same_outputs, make_model, proc_or_skip
from tolm.api.ir_graph import IRGraph
from tolm.api.rules import reduce

N_PRE_NODES = {
    "fuse_focus_slice": (["Slice"] * 4 + ["Concat"], [1, 1, 1, 1, 4]),
    "fuse_focus_slice2": (["Slice"] * 6 + ["Concat"], [1, 1, 1, 1, 1, 1, 4]),
    "fuse_slice_slice_concat_to_conv": (["Slice", "Slice", "Concat"], [1, 1, 2]),
    "fuse_slice_slice_mul_concat_to_conv": (["Slice", "Slice", "Mul", "Concat"], [1, 1, 1, 2]),
    "fuse_slice_slice_mul_concat_to_conv2": (["Slice", "Mul", "Slice", "Concat"], [1, 1, 1, 2]),
}


def all_rows():
    return list(reduce.fuse_reduce.items()) + list(reduce.cvt_reduce.items())


def digest(keys):
    return hashlib.sha256(" ".join(keys).encode()).hexdigest()[:16]


class TestTableShape:
    @pytest.mark.parametrize(
        "table, count, first, last, order",
        [
            ("fuse_reduce", 110, "bypass_two_transpose", "fuse_split_exmatmul_concat", "f3aadb3319f890f9"),
            ("cvt_reduce", 13, "convert_reshape_to_transpose", "convert_rs_div_rs_to_rs_gather_elements",
             "f565474196a73182"),
        ],
    )
    def test_keys_in_order(self, table, count, first, last, order):
        keys = list(getattr(reduce, table))
        assert isinstance(getattr(reduce, table), OrderedDict)
        assert (len(keys), keys[0], keys[-1]) == (count, first, last)
        assert digest(keys) == order  # any reordering, renaming or loss changes this

    def test_row_fields(self):
        extra = Counter()
        for key, row in all_rows():
            assert set(row) - {"limit", "q_equal", "n_pre_nodes"} == {"ops", "proc"}, key
            assert row.get("limit", True) is True and row.get("q_equal", False) is False, key
            extra.update(f for f in ("limit", "q_equal", "n_pre_nodes") if f in row)
            if "n_pre_nodes" in row:
                assert (row["ops"], row["n_pre_nodes"]) == N_PRE_NODES[key]
            assert row["ops"] and all(isinstance(o, str) for o in row["ops"])
            assert callable(row["proc"])
        assert extra == {"limit": 10, "q_equal": 3, "n_pre_nodes": 5}
        assert reduce.cvt_reduce["convert_reshape_to_transpose"]["limit"] is True
        assert reduce.fuse_reduce["fuse_split_exmatmul_concat"]["q_equal"] is False

    def test_pattern_lengths(self):
        lengths = Counter(len(row["ops"]) for _, row in all_rows())
        assert lengths == {1: 84, 2: 26, 3: 9, 4: 2, 5: 1, 7: 1}


class TestProcs:
    def test_unavailable_rows_raise_and_are_listed(self):
        missing = set(reduce.unavailable_rules())
        for key, row in all_rows():
            if key in missing:
                with pytest.raises(RuntimeError, match=f"^rule {key} is not available in this build$"):
                    row["proc"](IRGraph(), [])
        available = {n for n, ok in reduce.rule_procs().items() if ok}
        assert all(hasattr(reduce, n) and callable(getattr(reduce, n)) for n in available)
        assert len(missing) < 123

    def test_rows_share_their_procedure(self):
        remove_invalid = [k for k, r in reduce.fuse_reduce.items() if k.startswith("remove_invalid_")]
        if not hasattr(reduce, "_p_remove_invalid_node"):
            pytest.skip("_p_remove_invalid_node is not in this build")
        served = [k for k in remove_invalid if reduce.fuse_reduce[k]["proc"] is reduce._p_remove_invalid_node]
        assert len(served) >= 20

    @staticmethod
    def two_transposes(p0, p1, tail=()):
        last = "u" if tail else "y"
        nodes = [("Transpose", ["x"], ["t"], {"perm": p0, "name": "tp0"})]
        nodes += [("Transpose", ["t"], [last], {"perm": p1, "name": "tp1"})] + [(op, ["u"], ["y"]) for op in tail]
        return make_model(nodes, inputs={"x": [2, 3, 4]}, outputs={"y": None})

    def test_not_applying_leaves_graph_alone(self):
        ir = IRGraph(self.two_transposes([1, 0, 2], [0, 2, 1]))
        before = ir.to_bytes()
        assert proc_or_skip("_p_bypass_two_transpose")(ir, [ir.node[0]]) == ([], [])
        assert ir.to_bytes() == before

    def test_cancelling_transposes_through_proc_and_apply(self):
        m = self.two_transposes([0, 2, 1], [0, 2, 1], tail=["Relu"])
        ir = IRGraph(m)
        remove, add = proc_or_skip("_p_bypass_two_transpose")(ir, [ir.node[0]])
        assert remove and all(n.op_type == "Transpose" for n in remove)
        ir.apply(remove, add)
        assert [n.op_type for n in ir.node] == ["Relu"] and ir.next_nodes("x")[0].op_type == "Relu"
        assert_same_outputs(m, ir.to_onnx())

    def test_fused_transposes_keep_values(self):
        # One Transpose under the second one's name and output, placed and wired so values hold.
        m = self.two_transposes([1, 0, 2], [0, 2, 1])
        ir = IRGraph(m)
        remove, add = proc_or_skip("_p_fuse_two_transpose")(ir, list(ir.node))
        assert set(n.name for n in remove) == {"tp0", "tp1"}
        assert [(n.op_type, n.name) for n in add] == [("Transpose", "tp1")]
        ir.apply(remove, add)
        assert len(ir.node) == 1 and ir.get_attr(ir.node[0], "perm") == [1, 2, 0]
        assert_same_outputs(m, ir.to_onnx())


class TestQuantTab:
    def q_model(self):
        # int8 -> float -> MaxPool -> int8: the conversions can go around the MaxPool.
        return make_model(
            [
                ("exDataConvert", ["x"], ["xf"], {"i_dtype": "int8", "o_dtype": "float32", "name": "cvt0"}),
                ("MaxPool", ["xf"], ["p"], {"kernel_shape": [2, 2], "name": "pool"}),
                ("exDataConvert", ["p"], ["y"], {"i_dtype": "float32", "o_dtype": "int8", "name": "cvt1"}),
            ],
            inputs={"x": (3, [1, 2, 4, 4])},
            outputs={"y": None},
        )

    def test_range_change_written_back(self):
        proc = proc_or_skip("_p_remove_dataconvert_for_q_op")
        ir = IRGraph(self.q_model())
        x_rec = {"min": -1.0, "max": 1.0, "name": "x", "extra": 7}
        tab = {"x": x_rec, "y": {"min": -2.0, "max": 2.0, "name": "y"}}
        remove, add = proc(ir, [ir.find_node("cvt0")], tab)
        assert [n.name for n in remove] == ["cvt0"]
        # The MaxPool output now carries the input's range under its own name.
        assert tab["p"]["min"] == -1.0 and tab["p"]["max"] == 1.0 and tab["p"]["name"] == "p"
        assert tab["x"] is x_rec and x_rec["extra"] == 7
        assert tab["y"] == {"min": -2.0, "max": 2.0, "name": "y"}

    def test_untouched_table_stays_as_given_and_bad_table_raises(self):
        proc = proc_or_skip("_p_remove_invalid_node")
        ir = IRGraph(make_model([("Relu", ["x"], ["y"])], inputs={"x": [2]}, outputs={"y": None}))
        rec = {"min": np.float32(-1), "max": [1.0, 2.0], "name": "x"}
        tab = {"x": rec}
        proc(ir, list(ir.node), tab)
        assert tab == {"x": rec} and tab["x"] is rec and tab["x"]["max"] == [1.0, 2.0]
        for bad in ({"x": 3}, ["x"]):
            with pytest.raises(TypeError):
                proc(ir, list(ir.node), bad)


def test_op_lists_and_log():
    assert "Add" in reduce.ELEMENTWISE_ALU_OPS and "Relu" in reduce.ACTIVATION_OPS
    assert "ReduceSum" in reduce.REDUCE_OPS and "Reshape" in reduce.no_change_node
    reduce.clear_log_history()
    seen = []
    reduce.set_log_sink(lambda level, msg: seen.append((level, msg)))
    try:
        reduce.log_e("first")
        reduce.log_w("second")
    finally:
        reduce.set_log_sink(None)
    assert reduce.log_history() == ["first", "second"]
    assert seen == [("e", "first"), ("w", "second")]
