// Constant folding and the standard fusions.
//
// A node whose inputs are all constant, or whose result follows from static
// shapes alone (Shape, Size), is computed here and its outputs become
// constants; an If whose condition is constant is replaced by the branch it
// takes; and a few patterns every ONNX optimiser simplifies are fused:
// BatchNormalization into the Conv before it, a zero Pad into the Conv or
// pool after it, a constant Mul or Add after a Conv into its weight and bias,
// a constant Mul before a Conv into its weight, Mul and Add chains by
// constants, and (on request) MatMul + Add into Gemm.
//
// This is the product's own pass, not a table rule: it runs over the whole
// graph before the rule tables, and the driver calls fold_step on every node
// it takes up, so that what a rewrite makes constant folds at once.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "host/ir.h"

namespace tolm {

struct FoldOptions {
  // The fusions besides folding proper.
  bool fusions = true;
  // MatMul followed by a constant Add becomes Gemm. Off by default: the NPU
  // flow prefers MatMul.
  bool matmul_add_to_gemm = false;
  // Results larger than this many bytes stay as nodes.
  int64_t max_bytes = int64_t(1) << 20;
  // Up to this many bytes a result is always materialised (within max_bytes);
  // above it, only if it is at most `max_growth` times the bytes of its
  // constant inputs. Expand, Tile or ConstantOfShape of big shapes stay.
  int64_t free_bytes = int64_t(64) << 10;
  double max_growth = 16.0;
};

struct FoldStats {
  // Steps that changed the graph.
  int64_t steps = 0;
  // Nodes folding took out of the graph, net of the nodes it put in (the
  // nodes of an inlined branch count against its If).
  int64_t removed_nodes = 0;
  // Op type -> nodes computed into constants (If: branches inlined).
  std::map<std::string, int64_t> folded;
  // Fusion name -> times applied.
  std::map<std::string, int64_t> fusions;
  // Names of nodes left in place because their result was too large.
  std::set<std::string> kept_by_size;

  void add(const FoldStats& other);
};

// One step at `node`: folds it, inlines it, or fuses it with its producer;
// first, if its inputs have shapes and its outputs lack some, it infers
// them. Each is an edit transaction of its own, committed when it changed
// the graph. Returns whether anything changed; false with the graph
// untouched otherwise.
// Throws only on a fault of its own, after rolling its edits back.
bool fold_step(IR& ir, Node& node, const FoldOptions& options, FoldStats& stats);

// The pass over the whole graph: every node in execution order, then the
// nodes each step touched, until nothing more folds. Cost follows what the
// steps touch, never the graph size per step. Nodes left without readers
// are for the caller's dead-node pruning.
FoldStats fold_graph(IR& ir, const FoldOptions& options = {});

}  // namespace tolm
