// Small operator fusions: short patterns folded into one Conv, Clip or Mul,
// and data conversions that do nothing taken away.
#pragma once

#include "reduce/rule.h"

namespace tolm {

// Focus stems (fuse_focus_slice.cpp).
// Four Slices that each pick one phase of a 2x2 grid on two neighbouring
// axes, joined by a Concat: one fixed-weight 2x2 Conv striding as they step.
RuleResult _p_fuse_focus_slice(IR& ir, const NodeList& nodes, QuantTable* quant_tab);
// The two-stage form: two Slices on the first axis, four on the second.
RuleResult _p_fuse_focus_slice2(IR& ir, const NodeList& nodes, QuantTable* quant_tab);

// Channel selection (fuse_slice_slice_mul_concat_to_conv.cpp).
// Two Slices of one tensor on one axis, one of them perhaps scaled by a
// scalar Mul, joined again on that axis: one 1x1 Conv.
RuleResult _p_fuse_slice_slice_mul_concat_to_conv(IR& ir, const NodeList& nodes, QuantTable* quant_tab);

// Data conversions and casts.
// Two exDataConvert nodes in a row become one (fuse_two_dataconvert.cpp).
RuleResult _p_fuse_two_dataconvert(IR& ir, const NodeList& nodes, QuantTable* quant_tab);
// An integer-to-float conversion, an operator that runs on the integer data
// as well, and the conversion back: the conversions go
// (remove_dataconvert_for_q_op.cpp).
RuleResult _p_remove_dataconvert_for_q_op(IR& ir, const NodeList& nodes, QuantTable* quant_tab);
// A Cast from or to bool ahead of an Equal with a constant: the constant
// takes the Cast's input type and the Cast goes (fuse_cast_into_equal.cpp).
RuleResult _p_fuse_cast_into_equal(IR& ir, const NodeList& nodes, QuantTable* quant_tab);

// Arithmetic folds.
// Min and Max against scalar constants, in either order: one Clip
// (fuse_min_max_to_clip.cpp).
RuleResult _p_fuse_min_max_to_clip(IR& ir, const NodeList& nodes, QuantTable* quant_tab);
// x * c1 + x * c2: x * (c1 + c2) (fuse_mul_mul_add_to_mul.cpp).
RuleResult _p_fuse_mul_mul_add_to_mul(IR& ir, const NodeList& nodes, QuantTable* quant_tab);

}  // namespace tolm
