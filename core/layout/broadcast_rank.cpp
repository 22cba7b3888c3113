// Constant operands of broadcasting elementwise ops, given the full rank.
#include "layout/broadcast_rank.h"

#include <algorithm>
#include <functional>
#include <string>
#include <utility>
#include <unordered_map>

#include "host/edit.h"

namespace tolm {
namespace {

// Ops whose inputs broadcast from the right, so that an operand with leading
// axes of size 1 added gives the same result, by the opset from which they
// do so (before it, Add and its kin broadcast by an `axis` attribute, and the
// variadic ones not at all). PRelu's slope broadcasts one way, to X; the
// same holds for it.
const std::unordered_map<std::string, int64_t>& broadcasting_ops() {
  static const std::unordered_map<std::string, int64_t> kOps = {
      {"Add", 7},     {"Sub", 7},      {"Mul", 7},     {"Div", 7},
      {"Pow", 7},     {"Mod", 10},     {"BitShift", 11}, {"Max", 8},
      {"Min", 8},     {"Mean", 8},     {"Sum", 8},     {"Equal", 7},
      {"Greater", 7}, {"Less", 7},     {"GreaterOrEqual", 12}, {"LessOrEqual", 12},
      {"And", 7},     {"Or", 7},       {"Xor", 7},     {"Where", 9},
      {"PRelu", 7}};
  return kOps;
}

}  // namespace

int64_t make_broadcast_ranks_explicit(IR& ir) {
  const auto& ops = broadcasting_ops();
  // The slots that read one constant at one rank below the op's, in the order
  // the graph first meets them: each such group shares one full-rank copy, so
  // a constant read by many nodes costs one rewrite, not one per reader.
  struct Group {
    std::string constant;
    size_t rank;
    std::vector<InputSlot> slots;
  };
  std::vector<Group> groups;
  // Keyed by the constant's index entry and the rank: no name copied or
  // compared per slot, and a model may have a slot like this per node.
  struct KeyHash {
    size_t operator()(const std::pair<const TensorInfo*, size_t>& k) const {
      return std::hash<const void*>()(k.first) ^ (k.second * 0x9e3779b97f4a7c15ull);
    }
  };
  std::unordered_map<std::pair<const TensorInfo*, size_t>, size_t, KeyHash> group_of;
  for (Node* np : ir.node_order()) {
    Node& n = *np;
    if (!n.domain.empty() && n.domain != "ai.onnx") continue;
    auto op = ops.find(n.op_type());
    if (op == ops.end() || ir.opset() < op->second) continue;
    // The rank the operands broadcast to; unknown if any operand's is.
    // Read off the node's own port records: this walks every node each round.
    size_t rank = 0;
    bool known = true;
    for (size_t i = 0; i < n.input.size() && known; ++i) {
      const TensorInfo* ti = n.input_info(i);
      if (!ti) continue;
      known = ti->has_shape;
      rank = std::max(rank, ti->shape.size());
    }
    if (!known) continue;
    for (size_t i = 0; i < n.input.size(); ++i) {
      const TensorInfo* ti = n.input_info(i);
      if (!ti || !ti->constant || ti->graph_input) continue;
      const std::string& t = n.input[i];
      // A constant's record holds its shape; the value itself is not needed.
      const size_t own = ti->has_shape ? ti->shape.size() : ir.get_const(t)->ndim();
      if (own == 0 || own >= rank) continue;
      auto at = group_of.emplace(std::make_pair(ti, rank), groups.size());
      if (at.second) groups.push_back(Group{t, rank, {}});
      groups[at.first->second].slots.push_back(InputSlot{&n, i});
    }
  }
  for (const Group& g : groups) {
    const NDArray value = *ir.get_const(g.constant);
    Shape full(g.rank - value.ndim(), 1);
    full.insert(full.end(), value.shape().begin(), value.shape().end());
    set_shared_const(ir, g.slots, value.reshaped(full), "_rank" + std::to_string(g.rank));
  }
  return static_cast<int64_t>(groups.size());
}

}  // namespace tolm
