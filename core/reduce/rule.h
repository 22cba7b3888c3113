// The contract of a rule procedure: `_p_<name>(ir, nodes, quant_tab)` returns
// the nodes to take out and the nodes to put in. Two empty lists mean the rule
// does not apply; a rule never throws for a graph it cannot handle.
#pragma once

#include <string>
#include <vector>

#include "host/ir.h"

namespace tolm {

struct RuleResult {
  NodeList remove;
  NodeList add;
  bool applied() const { return !remove.empty() || !add.empty(); }
};

using RuleProc = RuleResult (*)(IR& ir, const NodeList& nodes, QuantTable* quant_tab);

inline RuleResult no_match() { return {}; }

}  // namespace tolm
