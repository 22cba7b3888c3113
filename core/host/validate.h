// Checks that refuse a model the rules must not work on: one whose graph
// reads tensors nobody defines, or whose shapes or layout attributes cannot
// hold. Each failure is a LoadError with a one-line message naming the node
// and tensor.
#pragma once

#include "host/ir.h"

namespace onnx {
class GraphProto;
}

namespace tolm {

// Dimensions the graph declares for its inputs, outputs and value_info
// records: -1, which some exporters write for a free dimension, becomes an
// unknown dimension; any other negative size throws LoadError.
void validate_declared_shapes(onnx::GraphProto& g);

// The loaded graph, after shape inference: every tensor a node reads (also
// inside its sub-graphs) and every graph output is defined, Transpose
// permutations fit their input's rank, constant Reshape targets are well
// formed and hold the input's element count where that is known.
// Throws LoadError.
void validate_graph(const IR& ir);

}  // namespace tolm
