// Adjacent Transpose/Transpose and Reshape/Reshape pairs: the bypass rules walk
// every branch of one root node, the fuse rules merge a pair into one node.
#include <algorithm>
#include <string>
#include <vector>

#include "chains/chains.h"
#include "host/builder.h"
#include "host/helpers.h"

namespace tolm {
namespace {

bool is_permutation_of_rank(const Perm& perm) {
  std::vector<bool> seen(perm.size(), false);
  for (int64_t p : perm) {
    if (p < 0 || p >= static_cast<int64_t>(perm.size()) || seen[p]) return false;
    seen[p] = true;
  }
  return true;
}

Perm iota_perm(size_t n) {
  Perm p(n);
  for (size_t i = 0; i < n; ++i) p[i] = static_cast<int64_t>(i);
  return p;
}

}  // namespace

RuleResult _p_bypass_two_transpose(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.empty()) return no_match();
  const NodePtr& transpose0 = nodes[0];
  const auto perm = IR::get_attr_ints(*transpose0, "perm");
  if (!perm || !is_permutation_of_rank(*perm)) return no_match();

  Perm perm_inv(perm->size());
  for (size_t i = 0; i < perm->size(); ++i) perm_inv[(*perm)[i]] = static_cast<int64_t>(i);

  const std::string root_in = transpose0->input[0];
  NodeList remove_ops;
  for (const NodePtr& tp : ir.next_nodes(*transpose0)) {
    if (tp->op_type != "Transpose" || ir.is_output(tp->output[0])) continue;
    const auto perm_out = IR::get_attr_ints(*tp, "perm");
    if (!perm_out) continue;
    const Shape in_shape = ir.get_shape(tp->input[0]);
    // A branch whose perm differs from the inverse only in where it puts
    // dimensions of size 1 undoes the root just as well.
    const std::vector<Perm> eq_perms = get_equivalent_perm_for_tp(*perm_out, in_shape);
    const bool bypass_able = std::find(eq_perms.begin(), eq_perms.end(), perm_inv) != eq_perms.end();
    if (!bypass_able) continue;

    const std::string tp_out = tp->output[0];
    for (const NodePtr& n : ir.next_nodes(*tp)) {
      for (size_t i = 0; i < n->input.size(); ++i)
        if (n->input[i] == tp_out) n->input.set(i, root_in);
    }
    remove_ops.push_back(tp);
  }

  if (remove_ops.size() == ir.next_nodes(*transpose0).size() &&
      !ir.is_output(transpose0->output[0]))
    remove_ops.push_back(transpose0);
  return {remove_ops, {}};
}

RuleResult _p_bypass_two_reshape(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.empty()) return no_match();
  const NodePtr& reshape0 = nodes[0];
  const Shape in_shape = ir.get_shape(reshape0->input[0]);
  if (in_shape.empty()) return no_match();
  if (ir.pre_nodes(*reshape0).size() > 1) return no_match();

  const std::string root_in = reshape0->input[0];
  NodeList remove_ops;
  std::string new_in_name;
  for (const NodePtr& rs : ir.next_nodes(*reshape0)) {
    if (rs->op_type != "Reshape") continue;
    const Shape out_shape = ir.get_shape(rs->output[0]);
    if (out_shape != in_shape) continue;
    if (ir.is_output(rs->output[0])) {
      // The graph output's name must survive: the producer of the root's
      // input takes it over, which only one branch can ask for.
      if (ir.is_input(root_in) || ir.is_output(root_in) || !new_in_name.empty())
        return no_match();
      new_in_name = rs->output[0];
    }
    remove_ops.push_back(rs);
  }

  if (!new_in_name.empty()) {
    // A constant root input has no producer to take the name.
    const NodeList prev = ir.pre_nodes(root_in);
    if (prev.empty()) return no_match();
    const NodePtr p = prev[0];
    for (const NodePtr& n : ir.next_nodes(*p)) {
      if (n == reshape0) continue;
      for (size_t i = 0; i < n->input.size(); ++i)
        if (n->input[i] == root_in) ir.set_input(*n, i, new_in_name);
    }
    for (size_t i = 0; i < p->output.size(); ++i)
      if (p->output[i] == root_in) ir.set_output(*p, i, new_in_name);
    reshape0->input.set(0, new_in_name);
  }

  const std::string survivor = reshape0->input[0];
  for (const NodePtr& n : remove_ops) {
    const std::string n_out = n->output[0];
    for (const NodePtr& consumer : ir.next_nodes(*n)) {
      for (size_t i = 0; i < consumer->input.size(); ++i)
        if (consumer->input[i] == n_out) ir.set_input(*consumer, i, survivor);
    }
  }

  if (ir.next_nodes(*reshape0).size() == remove_ops.size() && !ir.is_output(reshape0->output[0]))
    remove_ops.push_back(reshape0);
  return {remove_ops, {}};
}

RuleResult _p_fuse_two_reshape(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.size() < 2) return no_match();
  const NodePtr& reshape0 = nodes[0];
  const NodePtr& reshape1 = nodes[1];
  const std::string input0 = reshape0->input[0];

  const Shape i_shape = ir.get_shape(reshape0->input[0]);
  const Shape o_shape = ir.get_shape(reshape1->output[0]);
  std::string retain_mid;
  if (!i_shape.empty() && !o_shape.empty() && i_shape == o_shape && ir.dynamic_shapes.empty()) {
    const Shape m_shape = ir.get_shape(reshape0->output[0]);
    if (!m_shape.empty() && m_shape.size() != 4 && i_shape.size() == 4)
      retain_mid = reshape0->output[0];
  }

  if (!retain_mid.empty() && !ir.is_input(input0) && !ir.is_output(input0)) {
    // A 4-D tensor that went to another rank and back: the middle tensor
    // carries the source model's name, so it replaces the input's name and
    // the second Reshape is left as an identity for a later pass.
    const NodeList node_pre = ir.pre_nodes(input0);
    if (node_pre.empty()) return no_match();
    const NodePtr producer = node_pre[0];
    for (size_t i = 0; i < producer->output.size(); ++i)
      if (producer->output[i] == input0) producer->output.set(i, retain_mid);
    for (const NodePtr& nod : ir.next_nodes(input0)) {
      if (nod == reshape0) continue;
      for (size_t i = 0; i < nod->input.size(); ++i)
        if (nod->input[i] == input0) nod->input.set(i, retain_mid);
    }
    ir.set_shape(retain_mid, i_shape, false);
    // Its recorded shape is out of date.
    auto& vi = ir.value_info();
    const auto it = std::find(vi.begin(), vi.end(), retain_mid);
    if (it != vi.end()) vi.erase(it);
  } else {
    reshape1->input.set(0, input0);
  }
  return {{reshape0}, {}};
}

RuleResult _p_fuse_two_transpose(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.empty()) return no_match();
  const NodePtr& transpose0 = nodes[0];
  const NodeList consumers = ir.next_nodes(*transpose0);
  std::vector<bool> next_op_is_tp;
  for (const NodePtr& n : consumers) next_op_is_tp.push_back(n->op_type == "Transpose");
  if (std::none_of(next_op_is_tp.begin(), next_op_is_tp.end(), [](bool b) { return b; }))
    return no_match();

  const auto perm0 = IR::get_attr_ints(*transpose0, "perm");
  if (!perm0 || !is_permutation_of_rank(*perm0)) return no_match();
  // Every pair must compose before anything is rewritten.
  for (const NodePtr& n : consumers) {
    if (n->op_type != "Transpose") continue;
    const auto perm1 = IR::get_attr_ints(*n, "perm");
    if (!perm1 || perm1->size() != perm0->size() || !is_permutation_of_rank(*perm1))
      return no_match();
  }

  Graph g(ir);
  const std::string root_in = transpose0->input[0];
  NodeList rm_nodes;
  for (const NodePtr& n : consumers) {
    if (n->op_type != "Transpose") continue;
    const Perm perm1 = *IR::get_attr_ints(*n, "perm");
    Perm mr_perm(perm1.size());
    for (size_t i = 0; i < perm1.size(); ++i) mr_perm[i] = (*perm0)[perm1[i]];

    OpSpec opts;
    opts.outputs = n->output.names();
    opts.name = n->name;
    if (mr_perm == iota_perm(mr_perm.size())) {
      const std::string n_out = n->output[0];
      if (ir.is_output(n_out)) {
        // The graph output keeps its name through an Identity.
        g.op("Identity", {root_in}, opts);
      } else {
        for (const NodePtr& nn : ir.next_nodes(*n)) {
          for (size_t i = 0; i < nn->input.size(); ++i)
            if (nn->input[i] == n_out) ir.set_input(*nn, i, root_in);
        }
      }
    } else {
      opts.attrs = {Attr::make_ints("perm", mr_perm)};
      g.op("Transpose", {root_in}, opts);
    }
    rm_nodes.push_back(n);
  }

  const bool all_tp = std::all_of(next_op_is_tp.begin(), next_op_is_tp.end(), [](bool b) { return b; });
  if (all_tp && !ir.is_output(transpose0->output[0])) rm_nodes.push_back(transpose0);
  return {rm_nodes, g.nodes};
}

}  // namespace tolm
