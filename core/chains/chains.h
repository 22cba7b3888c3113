// Rules over chains of Reshape and Transpose.
#pragma once

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

}  // namespace tolm
