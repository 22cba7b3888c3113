// Reduction inside the sub-graphs of If, Loop and Scan nodes.
#pragma once

#include "reduce/driver.h"

namespace tolm {

// Reduces every sub-graph of the graph's nodes with the same options, nested
// ones included; the rows fired inside are added to `total`. Returns how
// many nodes got reduced bodies.
int64_t reduce_subgraphs(IR& ir, QuantTable* quant_tab, const DriverOptions& options, DriverStats& total);

}  // namespace tolm
