#include "reduce/tables.h"

#include <unordered_map>

#include "attention/attention.h"
#include "chains/chains.h"
#include "dead/dead.h"
#include "fusions/fusions.h"
#include "layout/layout.h"
#include "restructure/restructure.h"
#include "scatternd/scatternd.h"

namespace tolm {

namespace {

// Every procedure of the library. A null entry is a rule whose subsystem is not
// built yet: its rows exist, the driver skips them, and the module lists them.
const std::vector<ProcEntry>& registry() {
  static const std::vector<ProcEntry> procs = {
      // Reshape and transpose chains
      {"_p_fuse_squeeze_into_reshape", _p_fuse_squeeze_into_reshape},
      {"_p_bypass_two_transpose", _p_bypass_two_transpose},
      {"_p_bypass_two_reshape", _p_bypass_two_reshape},
      {"_p_fuse_two_reshape", _p_fuse_two_reshape},
      {"_p_fuse_two_transpose", _p_fuse_two_transpose},
      {"_p_fuse_transpose_reshape_transpose", _p_fuse_transpose_reshape_transpose},
      {"_p_fuse_reshape_transpose", _p_fuse_reshape_transpose},
      {"_p_fuse_transpose_reshape_avoid_batch", _p_fuse_transpose_reshape_avoid_batch},
      {"_p_fuse_reshape_transpose_avoid_batch", _p_fuse_reshape_transpose_avoid_batch},
      {"_p_convert_reshape_to_transpose", _p_convert_reshape_to_transpose},
      {"_p_convert_node_to_reshape", _p_convert_node_to_reshape},
      {"_p_convert_gather_to_reshape", _p_convert_gather_to_reshape},
      {"_p_convert_gather_to_slice_reshape", _p_convert_gather_to_slice_reshape},
      {"_p_convert_transpose_to_reshape", _p_convert_transpose_to_reshape},
      {"_p_convert_tile_to_concat", _p_convert_tile_to_concat},
      {"_p_convert_resize_to_concat", _p_convert_resize_to_concat},
      {"_p_replace_inner_dim_shuffle_to_gather", _p_replace_inner_dim_shuffle_to_gather},
      {"_p_remove_top_reshape", _p_remove_top_reshape},
      {"_p_convert_rs_elements_rs_to_rs_gather_elements", _p_convert_rs_elements_rs_to_rs_gather_elements},
      // Dead and duplicate nodes
      {"_p_remove_invalid_node", _p_remove_invalid_node},
      {"_p_remove_parallel_node", _p_remove_parallel_node},
      {"_p_merge_parallel_op_around_split_concat", _p_merge_parallel_op_around_split_concat},
      {"_p_merge_inner_math_op_in_split_concat", _p_merge_inner_math_op_in_split_concat},
      {"_p_merge_parallel_slice_exnorm", _p_merge_parallel_slice_exnorm},
      // Split, concat, slice and gather restructuring
      {"_p_fuse_two_slice", _p_fuse_two_slice},
      {"_p_replace_parallel_slice_by_split", _p_replace_parallel_slice_by_split},
      {"_p_remove_concat_slice", _p_remove_concat_slice},
      {"_p_remove_concat_split", _p_remove_concat_split},
      {"_p_fuse_split_concat", _p_fuse_split_concat},
      {"_p_fuse_split_split", _p_fuse_split_split},
      {"_p_replace_split_concat_by_reshape", _p_replace_split_concat_by_reshape},
      {"_p_fuse_two_concat", _p_fuse_two_concat},
      {"_p_fuse_dim_shuffle_split_concat_to_gather", _p_fuse_dim_shuffle_split_concat_to_gather},
      {"_p_fuse_split_split_elements_op", _p_fuse_split_split_elements_op},
      {"_p_remove_reshape_after_add", _p_remove_reshape_after_add},
      {"_p_remove_reshape_before_add", _p_remove_reshape_before_add},
      {"_p_remove_mul_before_add", _p_remove_mul_before_add},
      {"_p_remove_reshape_before_concat", _p_remove_reshape_before_concat},
      {"_p_remove_reshape_after_concat", _p_remove_reshape_after_concat},
      {"_p_remove_reshape_after_split", _p_remove_reshape_after_split},
      {"_p_remove_transpose_after_split", _p_remove_transpose_after_split},
      {"_p_fuse_two_gather", _p_fuse_two_gather},
      {"_p_fuse_gather_gather_reshape", _p_fuse_gather_gather_reshape},
      {"_p_fuse_conv_gather", _p_fuse_conv_gather},
      {"_p_fuse_exmatmul_gather", _p_fuse_exmatmul_gather},
      {"_p_replace_step_pick_pool_to_gather", _p_replace_step_pick_pool_to_gather},
      {"_p_relocate_tp_rs_split_axis", _p_relocate_tp_rs_split_axis},
      {"_p_relocate_rs_split_axis", _p_relocate_rs_split_axis},
      // Layout optimisation
      {"_p_reduce_tp_in_mesh", _p_reduce_tp_in_mesh},
      {"_p_reduce_tp_in_mesh_forward", _p_reduce_tp_in_mesh_forward},
      {"_p_reduce_tp_in_mesh_backward", _p_reduce_tp_in_mesh_backward},
      {"_p_reduce_transpose_op_around_sub_graph", _p_reduce_transpose_op_around_sub_graph},
      {"_p_reduce_reshape_op_around_axis_op", _p_reduce_reshape_op_around_axis_op},
      // ScatterND
      {"_p_fuse_two_scatternd", _p_fuse_two_scatternd},
      {"_p_fuse_two_scatternd2", _p_fuse_two_scatternd2},
      {"_p_remove_redundant_scatternd", _p_remove_redundant_scatternd},
      {"_p_fuse_to_reduction_scatternd", _p_fuse_to_reduction_scatternd},
      // Attention and transformer blocks
      {"_p_fuse_multihead_attention_reshape_to_gather_split", _p_fuse_multihead_attention_reshape_to_gather_split},
      {"_p_absorb_gather_into_attention_conv", _p_absorb_gather_into_attention_conv},
      {"_p_fuse_split_exmatmul_concat", _p_fuse_split_exmatmul_concat},
      {"_p_fuse_transformer_FFN_reshape", _p_fuse_transformer_FFN_reshape},
      // Small operator fusions
      {"_p_fuse_focus_slice", _p_fuse_focus_slice},
      {"_p_fuse_focus_slice2", _p_fuse_focus_slice2},
      {"_p_fuse_slice_slice_mul_concat_to_conv", _p_fuse_slice_slice_mul_concat_to_conv},
      {"_p_fuse_two_dataconvert", _p_fuse_two_dataconvert},
      {"_p_remove_dataconvert_for_q_op", _p_remove_dataconvert_for_q_op},
      {"_p_fuse_cast_into_equal", _p_fuse_cast_into_equal},
      {"_p_fuse_min_max_to_clip", _p_fuse_min_max_to_clip},
      {"_p_fuse_mul_mul_add_to_mul", _p_fuse_mul_mul_add_to_mul},
  };
  return procs;
}

struct RowSpec {
  const char* key;
  std::vector<std::string> ops;
  const char* proc;
  std::vector<int> n_pre_nodes;
  bool limit;
  bool q_equal;
  bool branches;
};

Row make_row(const RowSpec& s) {
  Row r;
  r.key = s.key;
  r.ops = s.ops;
  r.proc_name = s.proc;
  r.proc = find_proc(s.proc);
  r.n_pre_nodes = s.n_pre_nodes;
  r.has_limit = s.limit;
  r.has_q_equal = s.q_equal;
  r.handles_branches = s.branches;
  return r;
}

std::vector<Row> build(const std::vector<RowSpec>& specs) {
  std::vector<Row> rows;
  rows.reserve(specs.size());
  for (const auto& s : specs) rows.push_back(make_row(s));
  return rows;
}

constexpr bool L = true;   // `limit` present
constexpr bool Q = true;   // `q_equal` present
constexpr bool B = true;   // procedure handles branching chains itself
const std::vector<int> none;

}  // namespace

const std::vector<ProcEntry>& rule_procs() { return registry(); }

RuleProc find_proc(const std::string& name) {
  static const std::unordered_map<std::string, RuleProc> by_name = [] {
    std::unordered_map<std::string, RuleProc> m;
    for (const auto& e : registry()) m.emplace(e.name, e.proc);
    return m;
  }();
  auto it = by_name.find(name);
  return it == by_name.end() ? nullptr : it->second;
}

const std::vector<Row>& fuse_reduce() {
  static const std::vector<Row> rows = build({
      {"bypass_two_transpose", {"Transpose"}, "_p_bypass_two_transpose", none, false, false, false},
      {"bypass_two_reshape", {"Reshape"}, "_p_bypass_two_reshape", none, false, false, false},
      {"fuse_two_reshape", {"Reshape", "Reshape"}, "_p_fuse_two_reshape", none, false, false, false},
      {"fuse_two_transpose", {"Transpose", "Transpose"}, "_p_fuse_two_transpose", none, false, false, B},
      {"fuse_two_dataconvert", {"exDataConvert", "exDataConvert"}, "_p_fuse_two_dataconvert", none, false, false, false},
      {"fuse_focus_slice", {"Slice", "Slice", "Slice", "Slice", "Concat"}, "_p_fuse_focus_slice", {1, 1, 1, 1, 4}, false, false, false},
      {"fuse_focus_slice2", {"Slice", "Slice", "Slice", "Slice", "Slice", "Slice", "Concat"}, "_p_fuse_focus_slice2", {1, 1, 1, 1, 1, 1, 4}, false, false, false},
      {"fuse_two_slice", {"Slice", "Slice"}, "_p_fuse_two_slice", none, false, false, false},
      {"fuse_cast_into_equal", {"Cast", "Equal"}, "_p_fuse_cast_into_equal", none, false, false, false},
      {"fuse_transpose_reshape_transpose", {"Transpose", "Reshape", "Transpose"}, "_p_fuse_transpose_reshape_transpose", none, false, false, false},
      {"fuse_reshape_transpose", {"Reshape", "Transpose"}, "_p_fuse_reshape_transpose", none, false, false, false},
      {"fuse_transpose_reshape", {"Transpose", "Reshape"}, "_p_fuse_reshape_transpose", none, false, false, false},
      {"fuse_transformer_FFN_reshape", {"Reshape", "Add"}, "_p_fuse_transformer_FFN_reshape", none, false, false, false},
      {"fuse_channel_shuffle_split_concat_to_gather", {"Split", "Concat"}, "_p_fuse_dim_shuffle_split_concat_to_gather", none, false, false, false},
      {"fuse_two_concat", {"Concat", "Concat"}, "_p_fuse_two_concat", none, false, false, false},
      {"fuse_two_scatternd", {"ScatterND", "ScatterND"}, "_p_fuse_two_scatternd", none, false, false, false},
      {"fuse_two_scatternd2", {"ScatterND", "ScatterND"}, "_p_fuse_two_scatternd2", none, false, false, false},
      {"fuse_gather_add_scatternd", {"Gather", "Add", "ScatterND"}, "_p_fuse_to_reduction_scatternd", none, false, false, false},
      {"fuse_two_gather", {"Gather", "Gather"}, "_p_fuse_two_gather", none, false, false, false},
      {"fuse_conv_gather", {"Conv", "Gather"}, "_p_fuse_conv_gather", none, false, false, false},
      {"fuse_exmatmul_gather", {"exMatMul", "Gather"}, "_p_fuse_exmatmul_gather", none, false, false, false},
      {"fuse_split_split_elements_op", {"Split"}, "_p_fuse_split_split_elements_op", none, false, false, false},
      {"fuse_mul_mul_add_to_mul", {"Mul", "Add"}, "_p_fuse_mul_mul_add_to_mul", none, false, false, false},
      {"fuse_multihead_attention_reshape_to_gather_split", {"Split"}, "_p_fuse_multihead_attention_reshape_to_gather_split", none, false, Q, false},
      {"fuse_slice_slice_concat_to_conv", {"Slice", "Slice", "Concat"}, "_p_fuse_slice_slice_mul_concat_to_conv", {1, 1, 2}, false, false, false},
      {"fuse_slice_slice_mul_concat_to_conv", {"Slice", "Slice", "Mul", "Concat"}, "_p_fuse_slice_slice_mul_concat_to_conv", {1, 1, 1, 2}, false, false, false},
      {"fuse_slice_slice_mul_concat_to_conv2", {"Slice", "Mul", "Slice", "Concat"}, "_p_fuse_slice_slice_mul_concat_to_conv", {1, 1, 1, 2}, false, false, false},
      {"replace_inner_dim_shuffle_tp_rs_to_rs_gather", {"Transpose", "Reshape"}, "_p_replace_inner_dim_shuffle_to_gather", none, L, false, false},
      {"replace_inner_dim_shuffle_rs_tp_to_gather_rs", {"Reshape", "Transpose"}, "_p_replace_inner_dim_shuffle_to_gather", none, L, false, false},
      {"replace_split_concat_by_reshape", {"Split", "Concat"}, "_p_replace_split_concat_by_reshape", none, false, Q, false},
      {"replace_parallel_slice_by_split", {"Slice"}, "_p_replace_parallel_slice_by_split", none, false, false, false},
      {"replace_step_pick_maxpool_to_gather", {"MaxPool"}, "_p_replace_step_pick_pool_to_gather", none, false, false, false},
      {"replace_step_pick_avgpool_to_gather", {"AveragePool"}, "_p_replace_step_pick_pool_to_gather", none, false, false, false},
      {"remove_invalid_reshape", {"Reshape"}, "_p_remove_invalid_node", none, false, false, false},
      {"remove_invalid_transpose", {"Transpose"}, "_p_remove_invalid_node", none, false, false, false},
      {"remove_invalid_cast", {"Cast"}, "_p_remove_invalid_node", none, false, false, false},
      {"remove_invalid_clip", {"Clip"}, "_p_remove_invalid_node", none, false, false, false},
      {"remove_invalid_slice", {"Slice"}, "_p_remove_invalid_node", none, false, false, false},
      {"remove_invalid_dataconvert", {"exDataConvert"}, "_p_remove_invalid_node", none, false, false, false},
      {"remove_invalid_add", {"Add"}, "_p_remove_invalid_node", none, false, false, false},
      {"remove_invalid_sub", {"Sub"}, "_p_remove_invalid_node", none, false, false, false},
      {"remove_invalid_mul", {"Mul"}, "_p_remove_invalid_node", none, false, false, false},
      {"remove_invalid_expand", {"Expand"}, "_p_remove_invalid_node", none, false, false, false},
      {"remove_invalid_concat", {"Concat"}, "_p_remove_invalid_node", none, false, false, false},
      {"remove_invalid_split", {"Split"}, "_p_remove_invalid_node", none, false, false, false},
      {"remove_invalid_resize", {"Resize"}, "_p_remove_invalid_node", none, false, false, false},
      {"remove_invalid_pad", {"Pad"}, "_p_remove_invalid_node", none, false, false, false},
      {"remove_invalid_where", {"Where"}, "_p_remove_invalid_node", none, false, false, false},
      {"remove_invalid_relu", {"Relu"}, "_p_remove_invalid_node", none, false, false, false},
      {"remove_invalid_scatternd", {"ScatterND"}, "_p_remove_invalid_node", none, false, false, false},
      {"remove_invalid_gathernd", {"GatherND"}, "_p_remove_invalid_node", none, false, false, false},
      {"remove_invalid_bn", {"BatchNormalization"}, "_p_remove_invalid_node", none, false, false, false},
      {"remove_invalid_reducemen", {"ReduceMean"}, "_p_remove_invalid_node", none, false, false, false},
      {"remove_invalid_reducesum", {"ReduceSum"}, "_p_remove_invalid_node", none, false, false, false},
      {"remove_invalid_reducemax", {"ReduceMax"}, "_p_remove_invalid_node", none, false, false, false},
      {"remove_redundant_scatternd", {"ScatterND", "ScatterND"}, "_p_remove_redundant_scatternd", none, false, false, false},
      {"remove_invalid_maxpool", {"MaxPool"}, "_p_remove_invalid_node", none, false, false, false},
      {"remove_invalid_avgpool", {"AveragePool"}, "_p_remove_invalid_node", none, false, false, false},
      {"remove_invalid_gather", {"Gather"}, "_p_remove_invalid_node", none, false, false, false},
      {"remove_parallel_relu", {"Relu"}, "_p_remove_parallel_node", none, false, false, false},
      {"remove_parallel_maxpool", {"MaxPool"}, "_p_remove_parallel_node", none, false, false, false},
      {"remove_parallel_avgpool", {"AveragePool"}, "_p_remove_parallel_node", none, false, false, false},
      {"remove_parallel_reshape", {"Reshape"}, "_p_remove_parallel_node", none, false, false, false},
      {"remove_parallel_transpose", {"Transpose"}, "_p_remove_parallel_node", none, false, false, false},
      {"remove_parallel_slice", {"Slice"}, "_p_remove_parallel_node", none, false, false, false},
      {"remove_parallel_softmax", {"Softmax"}, "_p_remove_parallel_node", none, false, false, false},
      {"remove_parallel_exsoftmax13", {"exSoftmax13"}, "_p_remove_parallel_node", none, false, false, false},
      {"remove_parallel_cast", {"Cast"}, "_p_remove_parallel_node", none, false, false, false},
      {"remove_parallel_sub", {"Sub"}, "_p_remove_parallel_node", none, false, false, false},
      {"remove_parallel_leakyrelu", {"LeakyRelu"}, "_p_remove_parallel_node", none, false, false, false},
      {"remove_parallel_1x1_conv", {"Conv"}, "_p_remove_parallel_node", none, false, false, false},
      {"remove_parallel_swish", {"exSwish"}, "_p_remove_parallel_node", none, false, false, false},
      {"remove_parallel_equal", {"Equal"}, "_p_remove_parallel_node", none, false, false, false},
      {"remove_parallel_mul", {"Mul"}, "_p_remove_parallel_node", none, false, false, false},
      {"remove_parallel_expand", {"Expand"}, "_p_remove_parallel_node", none, false, false, false},
      {"remove_parallel_split", {"Split"}, "_p_remove_parallel_node", none, false, false, false},
      {"remove_parallel_gather", {"Gather"}, "_p_remove_parallel_node", none, false, false, false},
      {"remove_parallel_scatternd", {"ScatterND"}, "_p_remove_parallel_node", none, false, false, false},
      {"remove_parallel_exdataconvert", {"exDataConvert"}, "_p_remove_parallel_node", none, false, false, false},
      {"remove_parallel_floor", {"Floor"}, "_p_remove_parallel_node", none, false, false, false},
      {"remove_parallel_concat", {"Concat"}, "_p_remove_parallel_node", none, false, false, false},
      {"remove_parallel_exnorm", {"exNorm"}, "_p_remove_parallel_node", none, false, false, false},
      {"merge_parallel_op_after_split", {"Split"}, "_p_merge_parallel_op_around_split_concat", none, false, false, false},
      {"merge_parallel_op_before_concat", {"Concat"}, "_p_merge_parallel_op_around_split_concat", none, false, false, false},
      {"merge_inner_math_op_between_split_concat", {"Split"}, "_p_merge_inner_math_op_in_split_concat", none, false, false, false},
      {"merge_parallel_slice_exnorm", {"Slice", "exNorm"}, "_p_merge_parallel_slice_exnorm", none, false, false, false},
      {"remove_top_reshape", {"Reshape"}, "_p_remove_top_reshape", none, false, false, false},
      {"remove_reshape_after_add", {"Add"}, "_p_remove_reshape_after_add", none, false, false, false},
      {"remove_reshape_after_mul", {"Mul"}, "_p_remove_reshape_after_add", none, false, false, false},
      {"remove_reshape_after_div", {"Div"}, "_p_remove_reshape_after_add", none, false, false, false},
      {"remove_reshape_before_add", {"Add"}, "_p_remove_reshape_before_add", none, false, false, false},
      {"remove_reshape_before_mul", {"Mul"}, "_p_remove_reshape_before_add", none, false, false, false},
      {"remove_mul_before_add", {"Add"}, "_p_remove_mul_before_add", none, false, false, false},
      {"remove_dataconvert_for_q_op", {"exDataConvert"}, "_p_remove_dataconvert_for_q_op", none, false, false, false},
      {"remove_concat_split", {"Concat", "Split"}, "_p_remove_concat_split", none, false, false, false},
      {"remove_concat_slice", {"Concat", "Slice"}, "_p_remove_concat_slice", none, false, false, false},
      {"fuse_split_concat", {"Split"}, "_p_fuse_split_concat", none, false, false, false},
      {"fuse_split_split", {"Split"}, "_p_fuse_split_split", none, false, false, false},
      {"fuse_gather_gather_reshape", {"Gather", "Gather", "Reshape"}, "_p_fuse_gather_gather_reshape", none, false, false, false},
      {"reduce_transpose_op_around_split_sub_graph", {"Split"}, "_p_reduce_transpose_op_around_sub_graph", none, L, false, false},
      {"reduce_reshape_op_around_concat", {"Concat"}, "_p_reduce_reshape_op_around_axis_op", none, L, false, false},
      {"reduce_reshape_op_around_split", {"Split"}, "_p_reduce_reshape_op_around_axis_op", none, L, false, false},
      {"reduce_tp_in_mesh_forward", {"Transpose"}, "_p_reduce_tp_in_mesh_forward", none, L, false, false},
      {"reduce_tp_in_mesh_backward", {"Transpose"}, "_p_reduce_tp_in_mesh_backward", none, L, false, false},
      {"relocate_tp_rs_split_axis", {"Transpose", "Reshape", "Split"}, "_p_relocate_tp_rs_split_axis", none, false, false, false},
      {"relocate_rs_split_axis", {"Reshape", "Split"}, "_p_relocate_rs_split_axis", none, false, false, false},
      {"fuse_min_max_to_clip", {"Min", "Max"}, "_p_fuse_min_max_to_clip", none, false, false, false},
      {"fuse_max_min_to_clip", {"Max", "Min"}, "_p_fuse_min_max_to_clip", none, false, false, false},
      {"absorb_gather_into_attention_conv", {"Conv"}, "_p_absorb_gather_into_attention_conv", none, false, false, false},
      {"fuse_split_exmatmul_concat", {"exMatMul"}, "_p_fuse_split_exmatmul_concat", none, false, Q, false},
  });
  return rows;
}

const std::vector<Row>& cvt_reduce() {
  static const std::vector<Row> rows = build({
      {"convert_reshape_to_transpose", {"Reshape"}, "_p_convert_reshape_to_transpose", none, L, false, false},
      {"convert_squeeze_to_reshape", {"Squeeze"}, "_p_convert_node_to_reshape", none, false, false, false},
      {"convert_unsqueeze_to_reshape", {"Unsqueeze"}, "_p_convert_node_to_reshape", none, false, false, false},
      {"convert_flatten_to_reshape", {"Flatten"}, "_p_convert_node_to_reshape", none, false, false, false},
      {"convert_dropout_to_reshape", {"Dropout"}, "_p_convert_node_to_reshape", none, false, false, false},
      {"convert_identity_to_reshape", {"Identity"}, "_p_convert_node_to_reshape", none, false, false, false},
      {"convert_expand_to_reshape", {"Expand"}, "_p_convert_node_to_reshape", none, false, false, false},
      {"convert_gather_to_reshape", {"Gather"}, "_p_convert_gather_to_reshape", none, L, false, false},
      {"convert_gather_to_slice_reshape", {"Gather"}, "_p_convert_gather_to_slice_reshape", none, L, false, false},
      {"convert_rs_add_rs_to_rs_gather_elements", {"Reshape", "Add", "Reshape"}, "_p_convert_rs_elements_rs_to_rs_gather_elements", none, false, false, false},
      {"convert_rs_mul_rs_to_rs_gather_elements", {"Reshape", "Mul", "Reshape"}, "_p_convert_rs_elements_rs_to_rs_gather_elements", none, false, false, false},
      {"convert_rs_sub_rs_to_rs_gather_elements", {"Reshape", "Sub", "Reshape"}, "_p_convert_rs_elements_rs_to_rs_gather_elements", none, false, false, false},
      {"convert_rs_div_rs_to_rs_gather_elements", {"Reshape", "Div", "Reshape"}, "_p_convert_rs_elements_rs_to_rs_gather_elements", none, false, false, false},
  });
  return rows;
}

std::vector<std::string> unavailable_rules() {
  std::vector<std::string> keys;
  for (const auto* table : {&cvt_reduce(), &fuse_reduce()})
    for (const auto& r : *table)
      if (!r.proc) keys.push_back(r.key);
  return keys;
}

}  // namespace tolm
