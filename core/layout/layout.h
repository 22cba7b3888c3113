// Layout optimisation: the search that moves a whole region of layout-free
// operators (the mesh) into a permuted layout so that Transpose nodes at its
// edge cancel.
#pragma once

#include <algorithm>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "host/helpers.h"
#include "reduce/rule.h"

namespace tolm {

// Tensor or node names, in the order they were found.
using Names = std::vector<std::string>;

// A map that remembers insertion order; setting an existing key keeps its
// place, and a key erased and set again goes to the end. Keys are hashed, so
// lookups and erasing cost the same however many keys the map holds.
template <class V>
class OrderedDict {
  using Item = std::pair<std::string, V>;

 public:
  // Value of `key`, inserted with a default value at the end if new.
  V& operator[](const std::string& key) {
    auto it = index_.find(key);
    if (it != index_.end()) return items_[it->second].second;
    index_.emplace(key, items_.size());
    items_.emplace_back(key, V());
    live_.push_back(true);
    return items_.back().second;
  }
  // Value of `key`, or null.
  const V* find(const std::string& key) const {
    auto it = index_.find(key);
    return it == index_.end() ? nullptr : &items_[it->second].second;
  }
  // Removes `key` if present.
  void erase(const std::string& key) {
    auto it = index_.find(key);
    if (it == index_.end()) return;
    live_[it->second] = false;
    items_[it->second].second = V();
    index_.erase(it);
    while (head_ < items_.size() && !live_[head_]) ++head_;
    // Erased entries are dropped once they outnumber the live ones, so a
    // map used as a queue stays as large as what it holds.
    if (items_.size() - index_.size() > std::max<size_t>(16, index_.size())) compact();
  }
  // Number of keys.
  size_t size() const { return index_.size(); }
  // True when no key is held.
  bool empty() const { return index_.empty(); }
  // The first entry still held; the map must not be empty.
  const Item& front() const { return items_[head_]; }

  // Entries still held, in insertion order.
  class const_iterator {
   public:
    const_iterator(const OrderedDict* d, size_t i) : d_(d), i_(i) { skip(); }
    const Item& operator*() const { return d_->items_[i_]; }
    const Item* operator->() const { return &d_->items_[i_]; }
    const_iterator& operator++() {
      ++i_;
      skip();
      return *this;
    }
    bool operator!=(const const_iterator& o) const { return i_ != o.i_; }
    bool operator==(const const_iterator& o) const { return i_ == o.i_; }

   private:
    void skip() {
      while (i_ < d_->items_.size() && !d_->live_[i_]) ++i_;
    }
    const OrderedDict* d_;
    size_t i_;
  };
  struct Range {
    const OrderedDict* d;
    const_iterator begin() const { return const_iterator(d, d->head_); }
    const_iterator end() const { return const_iterator(d, d->items_.size()); }
  };
  Range items() const { return Range{this}; }

 private:
  void compact() {
    std::vector<Item> kept;
    kept.reserve(index_.size());
    for (size_t i = 0; i < items_.size(); ++i)
      if (live_[i]) kept.push_back(std::move(items_[i]));
    items_ = std::move(kept);
    live_.assign(items_.size(), true);
    head_ = 0;
    for (size_t i = 0; i < items_.size(); ++i) index_[items_[i].first] = i;
  }

  std::vector<Item> items_;
  std::vector<bool> live_;
  std::unordered_map<std::string, size_t> index_;
  size_t head_ = 0;
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

// Moves a Split and the point-wise branches under it into the layout its
// Transpose neighbours would cancel against.
RuleResult _p_reduce_transpose_op_around_sub_graph(IR& ir, const NodeList& nodes,
                                                   QuantTable* quant_tab);
// Runs a Concat or Split in the shape its Reshape neighbours have, where that
// saves Reshape nodes that move data (a Gather repairs the order if needed).
RuleResult _p_reduce_reshape_op_around_axis_op(IR& ir, const NodeList& nodes,
                                               QuantTable* quant_tab);

// The nodes of the graph with these names, each once, in graph order: found
// through the name index, so the cost follows the list, not the graph.
NodeList _func_nodes_named(const IR& ir, const std::vector<std::string>& names);

}  // namespace tolm
