// Rules that drop operators which do nothing or repeat a sibling.
#pragma once

#include "reduce/rule.h"

namespace tolm {

// Bypasses a node whose output equals one of its inputs, value for value.
RuleResult _p_remove_invalid_node(IR& ir, const NodeList& nodes, QuantTable* quant_tab);

// Drops siblings of a node that read the same tensor and compute the same
// thing; their readers move to the node's outputs.
RuleResult _p_remove_parallel_node(IR& ir, const NodeList& nodes, QuantTable* quant_tab);

}  // namespace tolm
