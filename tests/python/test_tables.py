"""The rule tables as Python sees them, procedure calls and quant_tab write-back."""

from collections import Counter, OrderedDict

import numpy as np
import pytest

from conftest import assert_same_outputs, make_model, proc_or_skip
from tolm.api.ir_graph import IRGraph
from tolm.api.rules import reduce

FUSE_KEYS = """
bypass_two_transpose bypass_two_reshape fuse_two_reshape fuse_two_transpose fuse_two_dataconvert
fuse_focus_slice fuse_focus_slice2 fuse_two_slice fuse_cast_into_equal fuse_transpose_reshape_transpose
fuse_reshape_transpose fuse_transpose_reshape fuse_transformer_FFN_reshape
fuse_channel_shuffle_split_concat_to_gather fuse_two_concat fuse_two_scatternd fuse_two_scatternd2
fuse_gather_add_scatternd fuse_two_gather fuse_conv_gather fuse_exmatmul_gather fuse_split_split_elements_op
fuse_mul_mul_add_to_mul fuse_multihead_attention_reshape_to_gather_split fuse_slice_slice_concat_to_conv
fuse_slice_slice_mul_concat_to_conv fuse_slice_slice_mul_concat_to_conv2
replace_inner_dim_shuffle_tp_rs_to_rs_gather replace_inner_dim_shuffle_rs_tp_to_gather_rs
replace_split_concat_by_reshape replace_parallel_slice_by_split replace_step_pick_maxpool_to_gather
replace_step_pick_avgpool_to_gather remove_invalid_reshape remove_invalid_transpose remove_invalid_cast
remove_invalid_clip remove_invalid_slice remove_invalid_dataconvert remove_invalid_add remove_invalid_sub
remove_invalid_mul remove_invalid_expand remove_invalid_concat remove_invalid_split remove_invalid_resize
remove_invalid_pad remove_invalid_where remove_invalid_relu remove_invalid_scatternd remove_invalid_gathernd
remove_invalid_bn remove_invalid_reducemen remove_invalid_reducesum remove_invalid_reducemax
remove_redundant_scatternd remove_invalid_maxpool remove_invalid_avgpool remove_invalid_gather
remove_parallel_relu remove_parallel_maxpool remove_parallel_avgpool remove_parallel_reshape
remove_parallel_transpose remove_parallel_slice remove_parallel_softmax remove_parallel_exsoftmax13
remove_parallel_cast remove_parallel_sub remove_parallel_leakyrelu remove_parallel_1x1_conv
remove_parallel_swish remove_parallel_equal remove_parallel_mul remove_parallel_expand remove_parallel_split
remove_parallel_gather remove_parallel_scatternd remove_parallel_exdataconvert remove_parallel_floor
remove_parallel_concat remove_parallel_exnorm merge_parallel_op_after_split merge_parallel_op_before_concat
merge_inner_math_op_between_split_concat merge_parallel_slice_exnorm remove_top_reshape
remove_reshape_after_add remove_reshape_after_mul remove_reshape_after_div remove_reshape_before_add
remove_reshape_before_mul remove_mul_before_add remove_dataconvert_for_q_op remove_concat_split
remove_concat_slice fuse_split_concat fuse_split_split fuse_gather_gather_reshape
reduce_transpose_op_around_split_sub_graph reduce_reshape_op_around_concat reduce_reshape_op_around_split
reduce_tp_in_mesh_forward reduce_tp_in_mesh_backward relocate_tp_rs_split_axis relocate_rs_split_axis
fuse_min_max_to_clip fuse_max_min_to_clip absorb_gather_into_attention_conv fuse_split_exmatmul_concat
""".split()

CVT_KEYS = """
convert_reshape_to_transpose convert_squeeze_to_reshape convert_unsqueeze_to_reshape convert_flatten_to_reshape
convert_dropout_to_reshape convert_identity_to_reshape convert_expand_to_reshape convert_gather_to_reshape
convert_gather_to_slice_reshape convert_rs_add_rs_to_rs_gather_elements convert_rs_mul_rs_to_rs_gather_elements
convert_rs_sub_rs_to_rs_gather_elements convert_rs_div_rs_to_rs_gather_elements
""".split()

LIMIT_ROWS = {
    "replace_inner_dim_shuffle_tp_rs_to_rs_gather",
    "replace_inner_dim_shuffle_rs_tp_to_gather_rs",
    "reduce_transpose_op_around_split_sub_graph",
    "reduce_reshape_op_around_concat",
    "reduce_reshape_op_around_split",
    "reduce_tp_in_mesh_forward",
    "reduce_tp_in_mesh_backward",
    "convert_reshape_to_transpose",
    "convert_gather_to_reshape",
    "convert_gather_to_slice_reshape",
}
Q_EQUAL_ROWS = {
    "fuse_multihead_attention_reshape_to_gather_split",
    "replace_split_concat_by_reshape",
    "fuse_split_exmatmul_concat",
}
N_PRE_NODES = {
    "fuse_focus_slice": (["Slice"] * 4 + ["Concat"], [1, 1, 1, 1, 4]),
    "fuse_focus_slice2": (["Slice"] * 6 + ["Concat"], [1, 1, 1, 1, 1, 1, 4]),
    "fuse_slice_slice_concat_to_conv": (["Slice", "Slice", "Concat"], [1, 1, 2]),
    "fuse_slice_slice_mul_concat_to_conv": (["Slice", "Slice", "Mul", "Concat"], [1, 1, 1, 2]),
    "fuse_slice_slice_mul_concat_to_conv2": (["Slice", "Mul", "Slice", "Concat"], [1, 1, 1, 2]),
}


def all_rows():
    return list(reduce.fuse_reduce.items()) + list(reduce.cvt_reduce.items())


class TestTableShape:
    def test_keys_in_order(self):
        assert isinstance(reduce.fuse_reduce, OrderedDict) and isinstance(reduce.cvt_reduce, OrderedDict)
        assert list(reduce.fuse_reduce) == FUSE_KEYS
        assert list(reduce.cvt_reduce) == CVT_KEYS
        assert len(FUSE_KEYS) == 110 and len(CVT_KEYS) == 13

    def test_row_fields(self):
        for key, row in all_rows():
            expected = {"ops", "proc"}
            if key in LIMIT_ROWS:
                expected.add("limit")
                assert row["limit"] is True
            if key in Q_EQUAL_ROWS:
                expected.add("q_equal")
                assert row["q_equal"] is False
            if key in N_PRE_NODES:
                expected.add("n_pre_nodes")
                assert (row["ops"], row["n_pre_nodes"]) == N_PRE_NODES[key]
            assert set(row) == expected, key
            assert row["ops"] and all(isinstance(o, str) for o in row["ops"])
            assert callable(row["proc"])

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

    def test_not_applying_leaves_graph_alone(self):
        proc = proc_or_skip("_p_bypass_two_transpose")
        m = make_model(
            [
                ("Transpose", ["x"], ["t"], {"perm": [1, 0, 2]}),
                ("Transpose", ["t"], ["y"], {"perm": [0, 2, 1]}),
            ],
            inputs={"x": [2, 3, 4]},
            outputs={"y": None},
        )
        ir = IRGraph(m)
        before = ir.to_bytes()
        remove, add = proc(ir, [ir.node[0]])
        assert (remove, add) == ([], [])
        assert ir.to_bytes() == before

    def test_cancelling_transposes_through_proc_and_apply(self):
        proc = proc_or_skip("_p_bypass_two_transpose")
        m = make_model(
            [
                ("Transpose", ["x"], ["t"], {"perm": [0, 2, 1]}),
                ("Transpose", ["t"], ["u"], {"perm": [0, 2, 1]}),
                ("Relu", ["u"], ["y"]),
            ],
            inputs={"x": [2, 3, 4]},
            outputs={"y": None},
        )
        ir = IRGraph(m)
        remove, add = proc(ir, [ir.node[0]])
        assert remove and all(n.op_type == "Transpose" for n in remove)
        ir.apply(remove, add)
        assert [n.op_type for n in ir.node] == ["Relu"]
        assert ir.next_nodes("x")[0].op_type == "Relu"
        assert_same_outputs(m, ir.to_onnx())

    def test_fused_transposes_keep_values(self):
        # The pair becomes one Transpose under the second one's name and output;
        # the rule's new node must be placed and wired so the values hold.
        proc = proc_or_skip("_p_fuse_two_transpose")
        m = make_model(
            [
                ("Transpose", ["x"], ["t"], {"perm": [1, 0, 2], "name": "tp0"}),
                ("Transpose", ["t"], ["y"], {"perm": [0, 2, 1], "name": "tp1"}),
            ],
            inputs={"x": [2, 3, 4]},
            outputs={"y": None},
        )
        ir = IRGraph(m)
        nodes = list(ir.node)
        remove, add = proc(ir, nodes)
        assert set(n.name for n in remove) == {"tp0", "tp1"}
        assert [(n.op_type, n.name) for n in add] == [("Transpose", "tp1")]
        ir.apply(remove, add)
        assert len(ir.node) == 1 and ir.get_attr(ir.node[0], "perm") == [1, 2, 0]
        assert_same_outputs(m, ir.to_onnx())


class TestQuantTab:
    def q_model(self):
        # int8 -> float -> MaxPool -> int8: the conversions can go around the MaxPool.
        cvt = {"domain": ""}
        return make_model(
            [
                ("exDataConvert", ["x"], ["xf"], {"i_dtype": "int8", "o_dtype": "float32", "name": "cvt0", **cvt}),
                ("MaxPool", ["xf"], ["p"], {"kernel_shape": [2, 2], "name": "pool"}),
                ("exDataConvert", ["p"], ["y"], {"i_dtype": "float32", "o_dtype": "int8", "name": "cvt1", **cvt}),
            ],
            inputs={"x": (3, [1, 2, 4, 4])},
            outputs={"y": None},
        )

    def test_range_change_written_back(self):
        proc = proc_or_skip("_p_remove_dataconvert_for_q_op")
        ir = IRGraph(self.q_model())
        x_rec = {"min": -1.0, "max": 1.0, "name": "x", "extra": 7}
        tab = {"x": x_rec, "y": {"min": -2.0, "max": 2.0, "name": "y"}}
        cvt0 = ir.find_node("cvt0")
        remove, add = proc(ir, [cvt0], tab)
        assert [n.name for n in remove] == ["cvt0"]
        # The MaxPool output now carries the input's range under its own name.
        assert tab["p"]["min"] == -1.0 and tab["p"]["max"] == 1.0 and tab["p"]["name"] == "p"
        assert tab["x"] is x_rec and x_rec["extra"] == 7
        assert tab["y"] == {"min": -2.0, "max": 2.0, "name": "y"}

    def test_untouched_table_stays_as_given(self):
        proc = proc_or_skip("_p_remove_invalid_node")
        m = make_model([("Relu", ["x"], ["y"])], inputs={"x": [2]}, outputs={"y": None})
        ir = IRGraph(m)
        rec = {"min": np.float32(-1), "max": [1.0, 2.0], "name": "x"}
        tab = {"x": rec}
        proc(ir, list(ir.node), tab)
        assert tab == {"x": rec} and tab["x"] is rec and tab["x"]["max"] == [1.0, 2.0]

    def test_bad_table_is_a_type_error(self):
        proc = proc_or_skip("_p_remove_invalid_node")
        m = make_model([("Relu", ["x"], ["y"])], inputs={"x": [2]}, outputs={"y": None})
        ir = IRGraph(m)
        with pytest.raises(TypeError):
            proc(ir, list(ir.node), {"x": 3})
        with pytest.raises(TypeError):
            proc(ir, list(ir.node), ["x"])


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
