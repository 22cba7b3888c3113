// Graph-valued attributes: the branches of If and the bodies of Loop and
// Scan. The IR holds them serialized (host/attr.h); these functions open one
// up as free nodes and constants, so that a pass can put a branch's nodes into
// the outer graph, and rename the outer-scope names a body reads.
#pragma once

#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "host/attr.h"
#include "host/ir.h"

namespace tolm {

// What a body declares about one of its tensors.
struct DeclaredType {
  int32_t dtype = dt::UNDEFINED;
  bool has_shape = false;  // every dimension known
  Shape shape;
};

struct GraphBody {
  // The body's nodes as free nodes (in no graph), in the body's order, with
  // their implicit inputs set. Constant nodes are not among them: their
  // values are in `consts`.
  NodeList nodes;
  // Initializers and the values of Constant nodes, in the body's order.
  std::vector<std::pair<std::string, NDArray>> consts;
  std::vector<std::string> inputs;
  std::vector<std::string> outputs;
  // Types the body declares for its tensors (value_info, outputs).
  std::unordered_map<std::string, DeclaredType> declared;
};

// Decodes a GRAPH attribute. False when the attribute holds no graph, or one
// this host cannot hold (external or sparse data, a Constant node that
// refers to a function attribute).
bool decode_graph_attr(const Attr& a, GraphBody& body);

// True if the attribute is a graph or a list of graphs.
bool is_graph_attr(const Attr& a);

// The outer-scope names that the graph attributes among `attrs` read, each
// once, in first-use order: the implicit inputs of a node holding them.
std::vector<std::string> outer_names(const std::vector<Attr>& attrs);

// The attribute with every outer-scope name its graphs read renamed by
// `renames` (names a graph declares itself are left alone, at any depth).
// Any other attribute comes back unchanged.
Attr rename_outer_names(const Attr& a, const std::unordered_map<std::string, std::string>& renames);

}  // namespace tolm
