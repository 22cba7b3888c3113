// The steps fold_step tries at a node, and what they share. Private to
// core/fold/. Each step checks its cheapest guard first and returns false,
// with the graph untouched, at the first one that fails; it returns true
// once it has changed the graph. The caller holds the edit transaction.
#pragma once

#include <string>

#include "fold/fold.h"
#include "host/ir.h"

namespace tolm {
namespace fold {

// fold_pass.cpp
bool fold_identity_of_constant(IR& ir, Node& node, FoldStats& stats);
bool fold_constant_node(IR& ir, Node& node, const FoldOptions& options, FoldStats& stats);

// fold_if.cpp
bool inline_constant_if(IR& ir, Node& node, FoldStats& stats);

// fusions_conv.cpp
bool fuse_batchnorm_into_conv(IR& ir, Node& bn, FoldStats& stats);
bool fuse_pad_into_conv_or_pool(IR& ir, Node& consumer, FoldStats& stats);
bool fuse_add_into_conv_bias(IR& ir, Node& add, FoldStats& stats);
bool fuse_mul_into_conv(IR& ir, Node& mul, FoldStats& stats);
bool fuse_input_mul_into_conv(IR& ir, Node& conv, FoldStats& stats);

// fusions_arith.cpp
bool fuse_constant_chain(IR& ir, Node& outer, const FoldOptions& options, FoldStats& stats);
bool fuse_matmul_add_into_gemm(IR& ir, Node& add, FoldStats& stats);

// ---- shared --------------------------------------------------------------------

bool in_default_domain(const Node& node);

// The constant value of tensor `t`: an initializer, or the value of the
// Constant node that produces it (a constant graph output keeps such a
// producer). `holder` keeps a value that had to be decoded. Null if none.
const NDArray* constant_value(const IR& ir, const std::string& t, NDArray& holder);

// True if `reader` is the one node that reads `t`, once, and `t` is no graph
// output and is read by no sub-graph: the tensor may vanish in a fusion.
bool sole_reader(const IR& ir, const std::string& t, const Node& reader);

// Takes `old` out of the graph and puts `fresh` in, where the first of them
// stood in the node order; `fresh` produces names the old nodes produced.
void replace_nodes(IR& ir, const NodeList& old, const NodePtr& fresh);

}  // namespace fold
}  // namespace tolm
