// Duplicate siblings: nodes of one op type that read the same tensor and
// compute the same thing. The matched node survives; the readers of the
// others move to its outputs and the others go.
//
// A tensor may have thousands of readers (an embedding table, the input of
// every layer). One call looks at each reader once, rejecting on the cheap
// facts first (op type, output count) and comparing constants only for the
// few that pass; readers are never compared with each other.
#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "dead/dead.h"
#include "host/edit.h"
#include "host/helpers.h"

namespace tolm {
namespace {

// Both present, of one shape and equal in every element. Arrays of one
// element type compare as bytes (no copy), others by value.
bool same_const(const NDArray* a, const NDArray* b) {
  if (a == nullptr || b == nullptr || a->shape() != b->shape()) return false;
  if (a == b) return true;
  if (a->dtype() == b->dtype()) return *a == *b;
  if (a->dtype() == dt::STRING || b->dtype() == dt::STRING) return false;
  return a->to_f64() == b->to_f64();
}

// Equal in every element, whatever the names: the same tensor, or two
// constants of the same shape and values.
bool same_value(const IR& ir, const std::string& a, const std::string& b) {
  if (a == b) return true;
  return same_const(ir.get_const(a), ir.get_const(b));
}

bool has_reader(const IR& ir, const Node& node) {
  for (const std::string& o : node.output)
    if (!o.empty() && (ir.use_count(o) > 0 || ir.is_output(o))) return true;
  return false;
}

std::optional<Perm> effective_perm(const IR& ir, const Node& transpose) {
  if (auto perm = IR::get_attr_ints(transpose, "perm")) return perm;
  // Without the attribute the axes are reversed.
  if (!ir.has_shape(transpose.input[0])) return std::nullopt;
  Perm rev(ir.get_shape(transpose.input[0]).size());
  for (size_t i = 0; i < rev.size(); ++i) rev[i] = static_cast<int64_t>(rev.size() - 1 - i);
  return rev;
}

class SiblingTest {
 public:
  SiblingTest(const IR& ir, const Node& cur, const std::string& input_0, const QuantTable* quant_tab)
      : ir_(ir), cur_(cur), input_0_(input_0), quant_tab_(quant_tab), op_(cur.op_type()) {
    if (op_ == "Transpose") {
      perm_cur_ = effective_perm(ir, cur);
      if (perm_cur_)
        perm_equals_ = get_equivalent_perm_for_tp(*perm_cur_, ir.get_shape(cur.input[0]),
                                                  ir.get_shape(cur.output[0]));
      out_shape_cur_ = ir.get_shape(cur.output[0]);
    }
  }

  // Whether `nod` is a sibling by its op type's own test (step 6 of the
  // search); `general_check` turns false for the ops whose siblings are not
  // compared by constants and attributes afterwards.
  bool operator()(const Node& nod, bool& general_check) const {
    if (op_ == "Reshape") {
      return nod.input.size() > 1 && cur_.input.size() > 1 &&
             same_const(ir_.get_const(cur_.input[1]), ir_.get_const(nod.input[1]));
    }
    if (op_ == "Slice") {
      for (size_t i : {1, 2})
        if (!same_const(ir_.get_const_optional(cur_, i), ir_.get_const_optional(nod, i))) return false;
      // A Slice with absent axes or steps is never a sibling.
      for (size_t i : {3, 4})
        if (!same_const(ir_.get_const_optional(cur_, i), ir_.get_const_optional(nod, i))) return false;
      return true;
    }
    if (op_ == "Conv") {
      if (cur_.input.size() != 2 || nod.input.size() != 2) return false;
      if (IR::get_attr_ints(cur_, "kernel_shape") != std::vector<int64_t>{1, 1}) return false;
      if (!IR::same_attr(cur_, nod)) return false;
      const Shape w_cur = ir_.get_shape(cur_.input[1]);
      if (w_cur != ir_.get_shape(nod.input[1]) || shape_size(w_cur) > 1024) return false;
      return same_const(ir_.get_const(cur_.input[1]), ir_.get_const(nod.input[1]));
    }
    if (op_ == "Mul" || op_ == "Sub" || op_ == "Equal") return two_input_test(nod);
    if (op_ == "exDataConvert") return same_quant_ranges(nod);
    if (op_ == "Transpose") {
      const auto perm = effective_perm(ir_, nod);
      if (!perm_cur_ || !perm || out_shape_cur_ != ir_.get_shape(nod.output[0])) return false;
      if (std::find(perm_equals_.begin(), perm_equals_.end(), *perm) == perm_equals_.end())
        return false;
      general_check = false;
      return true;
    }
    if (op_ == "Gather") return IR::get_attr_int(cur_, "axis") == IR::get_attr_int(nod, "axis");
    if (op_ == "Concat") {
      if (IR::get_attr_int(cur_, "axis") != IR::get_attr_int(nod, "axis") ||
          cur_.input.names() != nod.input.names())
        return false;
      general_check = false;
      return true;
    }
    return true;
  }

 private:
  bool two_input_test(const Node& nod) const {
    if (cur_.input.size() != 2 || nod.input.size() != 2) return false;
    const int64_t track_in_index = index_of_name(cur_, input_0_);
    const int64_t nod_index = index_of_name(nod, input_0_);
    if (track_in_index < 0 || nod_index < 0) return false;
    const size_t track = static_cast<size_t>(track_in_index);
    const size_t extern_in_index = track == 0 ? 1 : 0;
    const bool order_independent = op_ != "Sub";
    const bool same_input_order = nod_index == track_in_index;
    bool same_extern_input = false;
    if (nod.input[extern_in_index] == cur_.input[extern_in_index] &&
        nod.input[track] == cur_.input[track]) {
      same_extern_input = true;
    } else if (ir_.is_const(nod.input[extern_in_index]) && ir_.is_const(cur_.input[extern_in_index])) {
      same_extern_input =
          same_const(ir_.get_const(cur_.input[extern_in_index]), ir_.get_const(nod.input[extern_in_index]));
    }
    return same_extern_input && (order_independent || same_input_order);
  }

  bool same_quant_ranges(const Node& nod) const {
    // Without a quantisation table there is nothing to tell the ranges by.
    if (!quant_tab_) return false;
    const std::string* names[] = {&cur_.input[0], &cur_.output[0], &nod.input[0], &nod.output[0]};
    const QuantRecord* rec[4];
    for (size_t k = 0; k < 4; ++k) {
      auto it = quant_tab_->find(*names[k]);
      if (it == quant_tab_->end()) return false;
      rec[k] = &it->second;
    }
    return rec[0]->min == rec[2]->min && rec[0]->max == rec[2]->max && rec[1]->min == rec[3]->min &&
           rec[1]->max == rec[3]->max;
  }

  static int64_t index_of_name(const Node& n, const std::string& t) {
    for (size_t i = 0; i < n.input.size(); ++i)
      if (n.input[i] == t) return static_cast<int64_t>(i);
    return -1;
  }

  const IR& ir_;
  const Node& cur_;
  const std::string& input_0_;
  const QuantTable* quant_tab_;
  const std::string& op_;
  std::optional<Perm> perm_cur_;
  std::vector<Perm> perm_equals_;
  Shape out_shape_cur_;
};

// Every input of `nod` holds what the same input of `cur` holds: the same
// tensor, or constants that the checks compare by value. Two nodes that read
// different computed tensors (a Gather's indices, an Expand's shape) are no
// duplicates whatever their attributes say.
bool same_operands(const IR& ir, const Node& cur, const Node& nod) {
  if (cur.input.size() != nod.input.size()) return false;
  for (size_t i = 0; i < cur.input.size(); ++i) {
    if (cur.input[i] == nod.input[i]) continue;
    if (!ir.is_const(cur.input[i]) || !ir.is_const(nod.input[i])) return false;
  }
  return true;
}

// The readers of each used output of `nod` can move to the same output of
// `cur`: `cur` has it, and no sub-graph reads the old one.
bool outputs_can_move(const IR& ir, const Node& cur, const Node& nod) {
  for (size_t j = 0; j < nod.output.size(); ++j) {
    const std::string& o = nod.output[j];
    if (o.empty() || ir.use_count(o) == 0) continue;
    if (cur.output[j].empty() || has_implicit_reader(ir, o)) return false;
  }
  return true;
}

// The reader's first slot naming `t`: a node that reads `t` twice is seen once.
bool first_slot(const Node& n, uint32_t slot, const std::string& t) {
  for (uint32_t i = 0; i < slot && i < n.input.size(); ++i)
    if (n.input[i] == t) return false;
  return true;
}

}  // namespace

RuleResult _p_remove_parallel_node(IR& ir, const NodeList& nodes, QuantTable* quant_tab) {
  if (nodes.empty()) return no_match();
  const NodePtr& node_cur = nodes[0];
  if (node_cur->input.empty() || node_cur->output.empty()) return no_match();

  // The track tensor: the first input that is no constant.
  std::string input_0 = node_cur->input[0];
  if (ir.is_const(input_0)) {
    for (const std::string& inp : node_cur->input)
      if (!inp.empty() && !ir.is_const(inp)) {
        input_0 = inp;
        break;
      }
  }
  const TensorInfo* track = ir.tensor(input_0);
  if (!track) return no_match();

  // Candidate search, on the tensor's use list as it stands (no sorted copy).
  const SiblingTest sibling_test(ir, *node_cur, input_0, quant_tab);
  const std::string& op = node_cur->op_type();
  bool general_check = true;
  NodeList siblings;
  for (const auto& use : track->uses) {
    const Node* nod = use.first;
    if ((use.second & IR::kImplicit) || nod == node_cur.get()) continue;
    if (nod->op_type() != op || nod->output.size() != node_cur->output.size()) continue;
    if (!first_slot(*nod, use.second, input_0)) continue;
    bool output_is_graph_output = false;
    for (const std::string& o : nod->output)
      if (!o.empty() && ir.is_output(o)) output_is_graph_output = true;
    if (output_is_graph_output) continue;
    if (!sibling_test(*nod, general_check)) continue;
    if (!same_operands(ir, *node_cur, *nod) || !outputs_can_move(ir, *node_cur, *nod)) continue;
    siblings.push_back(const_cast<Node*>(nod)->shared_from_this());
  }
  if (siblings.empty()) return no_match();
  // In graph order, as the tensor's readers are listed.
  std::sort(siblings.begin(), siblings.end(), [](const NodePtr& a, const NodePtr& b) {
    return a->order() != b->order() ? a->order() < b->order() : a->uid() < b->uid();
  });
  NodeList nodes_para{node_cur};
  nodes_para.insert(nodes_para.end(), siblings.begin(), siblings.end());

  // A node nobody reads blocks the rule.
  for (const NodePtr& nod : nodes_para)
    if (!has_reader(ir, *nod)) return no_match();

  if (general_check) {
    // Constants of node_cur, by position, and the attributes must agree.
    std::vector<size_t> const_idx_list;
    for (size_t i = 0; i < node_cur->input.size(); ++i)
      if (ir.get_const(node_cur->input[i])) const_idx_list.push_back(i);
    NodeList kept{node_cur};
    for (size_t k = 1; k < nodes_para.size(); ++k) {
      const Node& nod = *nodes_para[k];
      bool match = IR::same_attr(*node_cur, nod);
      for (size_t c_idx : const_idx_list) {
        if (!match) break;
        if (c_idx >= nod.input.size()) continue;
        match = same_value(ir, node_cur->input[c_idx], nod.input[c_idx]);
      }
      if (match) kept.push_back(nodes_para[k]);
    }
    nodes_para.swap(kept);
  }
  if (nodes_para.size() <= 1) return no_match();

  for (size_t k = 1; k < nodes_para.size(); ++k) {
    const Node& nod = *nodes_para[k];
    for (size_t j = 0; j < nod.output.size(); ++j)
      if (!nod.output[j].empty()) replace_all_uses(ir, nod.output[j], node_cur->output[j]);
  }
  return {nodes_para, {node_cur->clone()}};
}

}  // namespace tolm
