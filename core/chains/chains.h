// Rules over chains of Reshape and Transpose.
#pragma once

#include "host/helpers.h"
#include "reduce/rule.h"

namespace tolm {

// Folds a Squeeze into the Reshape ahead of it.
RuleResult _p_fuse_squeeze_into_reshape(IR& ir, const NodeList& nodes, QuantTable* quant_tab);
// Drops consumers of a Transpose that undo it; the root goes once all have.
RuleResult _p_bypass_two_transpose(IR& ir, const NodeList& nodes, QuantTable* quant_tab);
// Drops consumers of a Reshape that bring back the shape it started from.
RuleResult _p_bypass_two_reshape(IR& ir, const NodeList& nodes, QuantTable* quant_tab);
// Merges two chained Reshape nodes into the second.
RuleResult _p_fuse_two_reshape(IR& ir, const NodeList& nodes, QuantTable* quant_tab);
// Composes a Transpose with every Transpose that reads it.
RuleResult _p_fuse_two_transpose(IR& ir, const NodeList& nodes, QuantTable* quant_tab);


// Transpose-Reshape neighbours (transpose_reshape_fusion.cpp).
// Moves the first Transpose of Transpose, Reshape, Transpose past a Reshape
// that only splits axes, so that it merges with the second.
RuleResult _p_fuse_transpose_reshape_transpose(IR& ir, const NodeList& nodes, QuantTable* quant_tab);
// A neighbouring Reshape and Transpose, in either order: one folds into the
// other, or the perm changes so that the target runs the Reshape in place.
RuleResult _p_fuse_reshape_transpose(IR& ir, const NodeList& nodes, QuantTable* quant_tab);
// The order of the axes of `o_shape` (4 of them, like `i_shape`) that puts the
// size-1 axes where a Reshape from `i_shape` keeps the H x W plane and a
// channel count the target's groups hold; empty if there is none. It only
// moves axes of size 1 relative to the others, so the data order stays.
Perm bypass_reshape_perm2(const IR& ir, const Shape& i_shape, const Shape& o_shape);

// Batch 1 between a Transpose and a Reshape (transpose_reshape_avoid_batch.cpp).
RuleResult _p_fuse_transpose_reshape_avoid_batch(IR& ir, const NodeList& nodes, QuantTable* quant_tab);
RuleResult _p_fuse_reshape_transpose_avoid_batch(IR& ir, const NodeList& nodes, QuantTable* quant_tab);

// Canonical forms (canonical_conversions.cpp).
// A 4-D Reshape that keeps the data order becomes a Transpose.
RuleResult _p_convert_reshape_to_transpose(IR& ir, const NodeList& nodes, QuantTable* quant_tab);
// A Transpose that keeps the data order becomes a Reshape.
RuleResult _p_convert_transpose_to_reshape(IR& ir, const NodeList& nodes, QuantTable* quant_tab);
// Squeeze, Unsqueeze, Flatten, Dropout, Identity and a non-replicating Expand
// become a Reshape, or vanish where they change nothing.
RuleResult _p_convert_node_to_reshape(IR& ir, const NodeList& nodes, QuantTable* quant_tab);
// A Gather that takes a whole axis in order becomes a Reshape.
RuleResult _p_convert_gather_to_reshape(IR& ir, const NodeList& nodes, QuantTable* quant_tab);
// A Gather of consecutive indices becomes a Slice and a Reshape.
RuleResult _p_convert_gather_to_slice_reshape(IR& ir, const NodeList& nodes, QuantTable* quant_tab);

// Shuffle and element rewrites (shuffle_element_rewrites.cpp).
// A Reshape read only by Reshape nodes hands them its input.
RuleResult _p_remove_top_reshape(IR& ir, const NodeList& nodes, QuantTable* quant_tab);
// A Transpose that shuffles an inner dimension beside a Reshape becomes a Gather.
RuleResult _p_replace_inner_dim_shuffle_to_gather(IR& ir, const NodeList& nodes, QuantTable* quant_tab);
// Reshape, elementwise op, Reshape becomes one Reshape and a Gather on the
// other operand.
RuleResult _p_convert_rs_elements_rs_to_rs_gather_elements(IR& ir, const NodeList& nodes,
                                                          QuantTable* quant_tab);

}  // namespace tolm
