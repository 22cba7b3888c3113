// Rules that simplify data movement: Slice, Split, Concat and Gather.
#pragma once

#include "reduce/rule.h"

namespace tolm {

// Slice rules (slice_rules.cpp).
// Two Slice nodes in a row become one.
RuleResult _p_fuse_two_slice(IR& ir, const NodeList& nodes, QuantTable* quant_tab);
// Slices of one tensor along one axis, side by side, become Split nodes.
RuleResult _p_replace_parallel_slice_by_split(IR& ir, const NodeList& nodes, QuantTable* quant_tab);
// A Slice that takes exactly one input of a Concat is that input.
RuleResult _p_remove_concat_slice(IR& ir, const NodeList& nodes, QuantTable* quant_tab);

// Split and Concat rules (split_concat_rules.cpp).
// A Concat undone at once by a Split into the same pieces: the pieces stay.
RuleResult _p_remove_concat_split(IR& ir, const NodeList& nodes, QuantTable* quant_tab);
// Neighbouring Split outputs that a Concat joins again in order stay one piece.
RuleResult _p_fuse_split_concat(IR& ir, const NodeList& nodes, QuantTable* quant_tab);
// A Split of a Split output on the same axis joins the first Split.
RuleResult _p_fuse_split_split(IR& ir, const NodeList& nodes, QuantTable* quant_tab);
// A Split whose pieces are joined in order on another axis that keeps the
// memory order is a Reshape.
RuleResult _p_replace_split_concat_by_reshape(IR& ir, const NodeList& nodes, QuantTable* quant_tab);
// A Concat read only by a Concat on the same axis hands it its inputs.
RuleResult _p_fuse_two_concat(IR& ir, const NodeList& nodes, QuantTable* quant_tab);
// A rank-4 Split whose pieces are joined in another order on the same axis
// is one Gather.
RuleResult _p_fuse_dim_shuffle_split_concat_to_gather(IR& ir, const NodeList& nodes, QuantTable* quant_tab);
// Two Splits of one geometry whose pieces meet pairwise in one elementwise
// op: the op on the whole tensors, then one Split.
RuleResult _p_fuse_split_split_elements_op(IR& ir, const NodeList& nodes, QuantTable* quant_tab);

// Gather rules (gather_rules.cpp).
// A Gather of a Gather on the same axis is one Gather.
RuleResult _p_fuse_two_gather(IR& ir, const NodeList& nodes, QuantTable* quant_tab);
// Gathers on two axes that a Reshape then merges: one Reshape, one Gather.
RuleResult _p_fuse_gather_gather_reshape(IR& ir, const NodeList& nodes, QuantTable* quant_tab);
// A Gather on the channels of a Conv output selects filters.
RuleResult _p_fuse_conv_gather(IR& ir, const NodeList& nodes, QuantTable* quant_tab);
// A Gather on an exMatMul output axis that comes from its constant operand.
RuleResult _p_fuse_exmatmul_gather(IR& ir, const NodeList& nodes, QuantTable* quant_tab);
// A 1x1 pool that strides along one spatial axis picks rows or columns.
RuleResult _p_replace_step_pick_pool_to_gather(IR& ir, const NodeList& nodes, QuantTable* quant_tab);
// A Tile along one axis is a Concat of copies.
RuleResult _p_convert_tile_to_concat(IR& ir, const NodeList& nodes, QuantTable* quant_tab);
// A Resize of a 1x1 map is two Concat nodes of copies.
RuleResult _p_convert_resize_to_concat(IR& ir, const NodeList& nodes, QuantTable* quant_tab);

// Split-axis relocation (split_axis_relocation.cpp).
// An equal-parts Split on a spatial axis behind a Reshape moves to the
// channels, so that the Reshape moves no data.
RuleResult _p_relocate_rs_split_axis(IR& ir, const NodeList& nodes, QuantTable* quant_tab);
// Transpose, Reshape, Split becomes Reshape, Transpose, Split on the axis
// the split axis comes from.
RuleResult _p_relocate_tp_rs_split_axis(IR& ir, const NodeList& nodes, QuantTable* quant_tab);

// Reshapes around elementwise ops (reshape_around_elementwise.cpp).
// A Reshape in front of a two-input elementwise node that one behind it
// undoes: both go, and the other operand is brought to the shape in front.
RuleResult _p_remove_reshape_after_add(IR& ir, const NodeList& nodes, QuantTable* quant_tab);
// Two like Reshapes feeding an elementwise node become one behind it.
RuleResult _p_remove_reshape_before_add(IR& ir, const NodeList& nodes, QuantTable* quant_tab);
// (a*c) + (b*c) with one constant c becomes (a+b)*c.
RuleResult _p_remove_mul_before_add(IR& ir, const NodeList& nodes, QuantTable* quant_tab);

// Reshapes and Transposes around Concat and Split
// (reshape_transpose_around_concat_split.cpp).
// The Reshapes feeding a Concat move behind it as one node.
RuleResult _p_remove_reshape_before_concat(IR& ir, const NodeList& nodes, QuantTable* quant_tab);
// A Reshape behind a Concat of Reshapes folds into them.
RuleResult _p_remove_reshape_after_concat(IR& ir, const NodeList& nodes, QuantTable* quant_tab);
// The Reshapes reading a Split's pieces move in front of it as one node.
RuleResult _p_remove_reshape_after_split(IR& ir, const NodeList& nodes, QuantTable* quant_tab);
// The Transposes reading a Split's pieces: the most common one moves in
// front of it, the others keep what is left to do.
RuleResult _p_remove_transpose_after_split(IR& ir, const NodeList& nodes, QuantTable* quant_tab);

}  // namespace tolm
