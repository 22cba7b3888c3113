// Rules that drop operators which do nothing or repeat a sibling.
#pragma once

#include "reduce/rule.h"

namespace tolm {

// Bypasses a node whose output equals one of its inputs, value for value.
RuleResult _p_remove_invalid_node(IR& ir, const NodeList& nodes, QuantTable* quant_tab);

// Drops siblings of a node that read the same tensor and compute the same
// thing; their readers move to the node's outputs.
RuleResult _p_remove_parallel_node(IR& ir, const NodeList& nodes, QuantTable* quant_tab);

// Like operators on the branches of a Split, or feeding one Concat, become
// one operator on the joined tensor between a Concat and a Split.
RuleResult _p_merge_parallel_op_around_split_concat(IR& ir, const NodeList& nodes, QuantTable* quant_tab);

// A Split whose parts meet again in one Concat, some through an Add, Sub, Mul
// or Div with a scalar: one such node on the whole tensor does the math.
RuleResult _p_merge_inner_math_op_in_split_concat(IR& ir, const NodeList& nodes, QuantTable* quant_tab);

// Slices of one tensor, each followed by a like exNorm over axes they leave
// whole: one exNorm runs first, on the whole tensor.
RuleResult _p_merge_parallel_slice_exnorm(IR& ir, const NodeList& nodes, QuantTable* quant_tab);

}  // namespace tolm
