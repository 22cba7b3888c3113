"""One line per rule row: what the rule does to the graph, for --list-rules."""

from __future__ import annotations

from typing import Dict

# Rows that bypass an operator doing nothing, and rows that merge identical
# siblings, say the same about their own op type.
_INVALID = {
    "reshape": "Reshape to the shape it already has",
    "transpose": "Transpose with the identity permutation",
    "cast": "Cast to the type the tensor already has",
    "clip": "Clip whose bounds cannot cut its input",
    "slice": "Slice that keeps the whole tensor",
    "dataconvert": "exDataConvert between equal types",
    "add": "Add of zero",
    "sub": "Sub of zero",
    "mul": "Mul by one",
    "expand": "Expand to the shape its input already has",
    "concat": "Concat of a single input",
    "split": "Split into one piece",
    "resize": "Resize to the size its input already has",
    "pad": "Pad that adds nothing",
    "where": "Where whose condition is constant and uniform",
    "relu": "Relu of values that cannot be negative",
    "scatternd": "ScatterND that writes nothing or overwrites all",
    "gathernd": "GatherND that gathers everything in order",
    "bn": "BatchNormalization that scales by one and shifts by zero",
    "reducemen": "ReduceMean over axes of size one",
    "reducesum": "ReduceSum over axes of size one",
    "reducemax": "ReduceMax over axes of size one",
    "maxpool": "MaxPool with a 1x1 window and stride 1",
    "avgpool": "AveragePool with a 1x1 window and stride 1",
    "gather": "Gather that takes every index in order",
}

_PARALLEL = {
    "relu": "Relu",
    "maxpool": "MaxPool",
    "avgpool": "AveragePool",
    "reshape": "Reshape",
    "transpose": "Transpose",
    "slice": "Slice",
    "softmax": "Softmax",
    "exsoftmax13": "exSoftmax13",
    "cast": "Cast",
    "sub": "Sub",
    "leakyrelu": "LeakyRelu",
    "1x1_conv": "1x1 Conv",
    "swish": "exSwish",
    "equal": "Equal",
    "mul": "Mul",
    "expand": "Expand",
    "split": "Split",
    "gather": "Gather",
    "scatternd": "ScatterND",
    "exdataconvert": "exDataConvert",
    "floor": "Floor",
    "concat": "Concat",
    "exnorm": "exNorm",
}

_SUMMARIES: Dict[str, str] = {
    # cvt_reduce
    "convert_reshape_to_transpose": "Reshape that only moves axes of size one becomes a Transpose",
    "convert_squeeze_to_reshape": "Squeeze becomes the Reshape to its output shape",
    "convert_unsqueeze_to_reshape": "Unsqueeze becomes the Reshape to its output shape",
    "convert_flatten_to_reshape": "Flatten becomes the Reshape to its output shape",
    "convert_dropout_to_reshape": "Dropout (inference) becomes an identity Reshape",
    "convert_identity_to_reshape": "Identity becomes an identity Reshape",
    "convert_expand_to_reshape": "Expand that adds only axes of size one becomes a Reshape",
    "convert_gather_to_reshape": "Gather of one whole axis in order becomes a Reshape",
    "convert_gather_to_slice_reshape": "Gather of one index becomes a Slice and a Reshape",
    "convert_rs_add_rs_to_rs_gather_elements": "Reshape-Add-Reshape becomes one Reshape, a Gather on the constant",
    "convert_rs_mul_rs_to_rs_gather_elements": "Reshape-Mul-Reshape becomes one Reshape, a Gather on the constant",
    "convert_rs_sub_rs_to_rs_gather_elements": "Reshape-Sub-Reshape becomes one Reshape, a Gather on the constant",
    "convert_rs_div_rs_to_rs_gather_elements": "Reshape-Div-Reshape becomes one Reshape, a Gather on the constant",
    # fuse_reduce: reshape and transpose chains
    "bypass_two_transpose": "Transpose pair that cancels is bypassed, readers of the middle kept",
    "bypass_two_reshape": "Reshape pair back to the start shape is bypassed, readers of the middle kept",
    "fuse_two_reshape": "two Reshapes in a row become one",
    "fuse_two_transpose": "two Transposes in a row become one (or none)",
    "fuse_transpose_reshape_transpose": "Transpose-Reshape-Transpose becomes a single Reshape or Transpose",
    "fuse_reshape_transpose": "Reshape-Transpose pair merges, swaps or turns into one Reshape",
    "fuse_transpose_reshape": "Transpose-Reshape pair merges, swaps or turns into one Reshape",
    "replace_inner_dim_shuffle_tp_rs_to_rs_gather": "inner-dimension shuffle Transpose-Reshape becomes Reshape-Gather",
    "replace_inner_dim_shuffle_rs_tp_to_gather_rs": "inner-dimension shuffle Reshape-Transpose becomes Gather-Reshape",
    "remove_top_reshape": "Reshape straight after a graph input is folded into the input's use",
    # small fusions
    "fuse_two_dataconvert": "two exDataConvert in a row become one",
    "fuse_focus_slice": "four-slice focus (space-to-depth) pattern becomes one fixed-weight Conv",
    "fuse_focus_slice2": "six-slice focus pattern becomes one fixed-weight Conv",
    "fuse_cast_into_equal": "Cast before Equal is dropped where the comparison is the same",
    "fuse_mul_mul_add_to_mul": "(a*c) + (b*c) folds into (a+b)*c",
    "fuse_slice_slice_concat_to_conv": "two Slices concatenated become one fixed-weight Conv",
    "fuse_slice_slice_mul_concat_to_conv": "Slices with a scale concatenated become one fixed-weight Conv",
    "fuse_slice_slice_mul_concat_to_conv2": "Slices with a scale concatenated become one fixed-weight Conv",
    "remove_dataconvert_for_q_op": "exDataConvert ahead of an op that quantises itself is removed",
    "fuse_min_max_to_clip": "Min then Max by constants becomes Clip",
    "fuse_max_min_to_clip": "Max then Min by constants becomes Clip",
    # split, concat, slice and gather
    "fuse_two_slice": "two Slices in a row become one",
    "fuse_channel_shuffle_split_concat_to_gather": "channel shuffle by Split-Concat becomes one Gather",
    "fuse_two_concat": "Concat into Concat on the same axis becomes one",
    "fuse_two_gather": "two Gathers in a row on one axis become one",
    "fuse_conv_gather": "Gather of Conv output channels folds into the Conv weights",
    "fuse_exmatmul_gather": "Gather of exMatMul outputs folds into its weights",
    "fuse_split_split_elements_op": "parallel elementwise ops on two Splits of one tensor merge",
    "replace_split_concat_by_reshape": "Split then Concat on another axis becomes a Reshape",
    "replace_parallel_slice_by_split": "parallel Slices covering a tensor become one Split",
    "replace_step_pick_maxpool_to_gather": "MaxPool that only picks strided elements becomes a Gather",
    "replace_step_pick_avgpool_to_gather": "AveragePool that only picks strided elements becomes a Gather",
    "remove_redundant_scatternd": "ScatterND whose writes a later one overwrites is removed",
    "remove_concat_split": "Concat then Split into the same pieces is bypassed",
    "remove_concat_slice": "Slice of a Concat that takes one input whole reads that input",
    "fuse_split_concat": "Split whose pieces are concatenated back in order is bypassed",
    "fuse_split_split": "Split of a Split piece on the same axis becomes one Split",
    "fuse_gather_gather_reshape": "two Gathers and a Reshape become one Gather and a Reshape",
    "remove_reshape_after_add": "a Reshape ahead of an Add that one behind it undoes: both go",
    "remove_reshape_after_mul": "a Reshape ahead of a Mul that one behind it undoes: both go",
    "remove_reshape_after_div": "a Reshape ahead of a Div that one behind it undoes: both go",
    "remove_reshape_before_add": "two like Reshapes ahead of an Add become one behind it",
    "remove_reshape_before_mul": "two like Reshapes ahead of a Mul become one behind it",
    "remove_mul_before_add": "(a*c) + (b*c) with one constant c becomes (a+b)*c",
    "relocate_tp_rs_split_axis": "Split behind Transpose-Reshape moves to a better axis",
    "relocate_rs_split_axis": "Split behind a Reshape moves to a better axis",
    # dead and duplicate branches
    "merge_parallel_op_after_split": "identical ops on every piece of a Split become one op before it",
    "merge_parallel_op_before_concat": "identical ops on every input of a Concat become one op after it",
    "merge_inner_math_op_between_split_concat": "math between a Split and a Concat merges into one wider op",
    "merge_parallel_slice_exnorm": "parallel Slice-exNorm branches merge into one exNorm",
    # layout
    "reduce_transpose_op_around_split_sub_graph": "Transposes in the branches under a Split move out of them",
    "reduce_reshape_op_around_concat": "Reshapes around a Concat are removed where the count profits",
    "reduce_reshape_op_around_split": "Reshapes around a Split are removed where the count profits",
    "reduce_tp_in_mesh_forward": "Transposes cancel across a region of layout-free ops, searched forward",
    "reduce_tp_in_mesh_backward": "Transposes cancel across a region of layout-free ops, searched backward",
    # ScatterND
    "fuse_two_scatternd": "two ScatterND on one tensor become one",
    "fuse_two_scatternd2": "two unequal ScatterND on one tensor fuse with padding",
    "fuse_gather_add_scatternd": "Gather-Add-ScatterND becomes a reducing ScatterND",
    # attention
    "fuse_transformer_FFN_reshape": "Reshapes around a feed-forward block leave the block",
    "fuse_multihead_attention_reshape_to_gather_split": "fused QKV attention becomes per-head Gather, Reshape, Split",
    "absorb_gather_into_attention_conv": "Gather after an attention Conv folds into its weights",
    "fuse_split_exmatmul_concat": "Split-exMatMul-Concat becomes one exMatMul",
}


def summary(key: str) -> str:
    """What the row of this key does, in one line."""
    if key in _SUMMARIES:
        return _SUMMARIES[key]
    if key.startswith("remove_invalid_") and key[len("remove_invalid_"):] in _INVALID:
        return "bypasses a " + _INVALID[key[len("remove_invalid_"):]]
    if key.startswith("remove_parallel_") and key[len("remove_parallel_"):] in _PARALLEL:
        op = _PARALLEL[key[len("remove_parallel_"):]]
        return f"identical {op} nodes reading one tensor become one"
    return ""
