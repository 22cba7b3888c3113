// Layout optimisation: the search that moves a whole region of layout-free
// operators (the mesh) into a permuted layout so that Transpose nodes at its
// edge cancel.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/helpers.h"
#include "reduce/rule.h"

namespace tolm {

// Tensor or node names, in the order they were found.
using Names = std::vector<std::string>;

// A map that remembers insertion order; setting an existing key keeps its place.
template <class V>
class OrderedDict {
 public:
  // Value of `key`, inserted with a default value at the end if new.
  V& operator[](const std::string& key) {
    for (auto& kv : items_)
      if (kv.first == key) return kv.second;
    items_.emplace_back(key, V());
    return items_.back().second;
  }
  // Value of `key`, or null.
  const V* find(const std::string& key) const {
    for (const auto& kv : items_)
      if (kv.first == key) return &kv.second;
    return nullptr;
  }
  // Removes `key` if present.
  void erase(const std::string& key) {
    for (auto it = items_.begin(); it != items_.end(); ++it)
      if (it->first == key) {
        items_.erase(it);
        return;
      }
  }
  // Number of keys.
  size_t size() const { return items_.size(); }
  // True when no key is held.
  bool empty() const { return items_.empty(); }
  // Entries in insertion order.
  const std::vector<std::pair<std::string, V>>& items() const { return items_; }

 private:
  std::vector<std::pair<std::string, V>> items_;
};

// Input positions (first) and output positions (second) that are no part of a mesh, by op type.
using OpIoIgnore = std::pair<std::map<std::string, std::vector<int64_t>>,
                             std::map<std::string, std::vector<int64_t>>>;

// Sorts one tensor into the free, edge or fork lists of the search and queues its neighbours.
void _func_is_tensor_tp_free(IR& ir, const Names& tp_free_op_type,
                             const OpIoIgnore& op_io_ignore_dicts, const std::string& t_name,
                             Names& free_list, Names& block_list, Names& candidate_list,
                             Names& branch_block_list,
                             OrderedDict<Names>& branch_tensor_group_dict,
                             const Names& last_time_tp_change_unsupport_op);

// Nodes wholly inside a classified mesh (first), and those of them whose parameters follow the layout (second).
std::pair<Names, Names> _func_get_tp_pass_op(IR& ir, const Names& tp_free_op_type,
                                             const Names& tp_change_param_op_type,
                                             const OpIoIgnore& op_io_ignore_dicts,
                                             const Names& tp_free_tensors,
                                             const Names& tp_block_tensors,
                                             const Names& last_time_tp_change_unsupport_op);

// Verdict on one mesh: the chosen layout, the net Transpose count and how each edge tensor is rewired.
struct OptResult {
  std::optional<Perm> most_perm;  // absent when the mesh cannot be judged or refused
  int64_t tp_num = 0;
  Names change_cross_tp;
  OrderedDict<std::string> t_process_type;
  Names tp_change_unsupport_op;  // non-empty only when the chosen layout was refused
  // The nodes wholly inside the mesh, as judged before the crossing
  // Transpose tensors left the edge list: the rewrite works on these, so that
  // the nodes beside a crossing Transpose move (and renumber their axes) too.
  Names tp_free_pass_op;
  Names param_changed_ops;
};

// Votes the mesh's layout, checks its nodes can follow it and counts the cost; drops crossing Transpose tensors from `tp_block_tensors`.
OptResult _func_compute_opt_result(IR& ir, const Names& tp_free_op_type,
                                   const Names& tp_change_param_op_type,
                                   const OpIoIgnore& op_io_ignore_dicts,
                                   const Names& tp_free_tensors, Names& tp_block_tensors,
                                   OrderedDict<std::string>* tp_dir,
                                   const Names& last_time_tp_change_unsupport_op);

// How a Reshape from `rs_in` to `rs_out` followed by a Transpose `tp_perm` reads an input held in `most_perm` layout.
struct ReshapeCarry {
  bool ok = false;  // false: the parts do not map to contiguous runs, or the walk stalls
  Shape new_rs_out;
  Perm new_rs_next_tp_perm;
  Shape new_tp_out;
};

// Carries a Reshape and the Transpose after it along a change of its input layout by `most_perm`.
ReshapeCarry _func_carry_reshape(const Shape& rs_in, const Shape& rs_out, const Perm& tp_perm,
                                 const Perm& most_perm);

// The value of a Transpose's `perm`, reversed axes when the attribute is absent.
Perm _func_tp_perm(const IR& ir, const Node& tp);

// Outcome of one mesh attempt: a rule result, or the nodes that refused the layout.
struct MeshResult {
  NodeList remove;
  NodeList add;
  bool has_unsupported = false;  // true: the third entry is present
  Names unsupported;
};

// Grows the mesh from nodes[0] in `direction` ("forward" or "backward") and rewrites it if it saves Transpose nodes.
MeshResult _p_reduce_tp_in_mesh(IR& ir, const NodeList& nodes, QuantTable* quant_tab,
                                const std::string& direction,
                                const Names& last_time_tp_change_unsupport_op);
// The same in rule form, seeded with the Transpose's output.
RuleResult _p_reduce_tp_in_mesh(IR& ir, const NodeList& nodes, QuantTable* quant_tab);
// Mesh reduction seeded with the Transpose's output, retried with refused nodes excluded.
RuleResult _p_reduce_tp_in_mesh_forward(IR& ir, const NodeList& nodes, QuantTable* quant_tab);
// Mesh reduction seeded with the Transpose's input, retried with refused nodes excluded.
RuleResult _p_reduce_tp_in_mesh_backward(IR& ir, const NodeList& nodes, QuantTable* quant_tab);

// The nodes of the graph with these names, each once, in graph order: found
// through the name index, so the cost follows the list, not the graph.
NodeList _func_nodes_named(const IR& ir, const std::vector<std::string>& names);

}  // namespace tolm
