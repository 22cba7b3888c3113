// Shapes and element types for tensors the graph does not know yet: ONNX's own
// per-operator inference for standard ops, ours for the compiler's extended
// ops (exDataConvert, exMatMul, exNorm, exSoftmax13, exSwish, exGlu).
#pragma once

#include "host/ir.h"

namespace tolm {

// Infers the node's output shapes and types from its inputs. Outputs that
// already hold a shape keep it unless `overwrite`. Returns false if the
// operator's inference could not run (unknown op, missing input shape).
bool infer_node(IR& ir, Node& node, bool overwrite = false);

// Runs infer_node over the graph in execution order for every node with an
// output whose shape is not held.
void infer_missing(IR& ir);

}  // namespace tolm
