// Adjacent Transpose/Transpose and Reshape/Reshape pairs: the bypass rules walk
// every branch of one root node, the fuse rules merge a pair into one node.
#include <algorithm>
#include <string>
#include <vector>

#include "chains/chains.h"
#include "host/builder.h"
#include "host/edit.h"
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
    if (tp->op_type() != "Transpose" || ir.port_is_output(*tp, 0)) continue;
    const auto perm_out = IR::get_attr_ints(*tp, "perm");
    if (!perm_out) continue;
    const Shape in_shape = ir.port_shape(*tp, false, 0);
    // A branch whose perm differs from the inverse only in where it puts
    // dimensions of size 1 undoes the root just as well.
    const std::vector<Perm> eq_perms = get_equivalent_perm_for_tp(*perm_out, in_shape);
    const bool bypass_able = std::find(eq_perms.begin(), eq_perms.end(), perm_inv) != eq_perms.end();
    if (!bypass_able) continue;
    if (!bypass_node(ir, *tp, root_in)) continue;
    remove_ops.push_back(tp);
  }

  if (remove_ops.size() == ir.next_nodes(*transpose0).size() && !ir.port_is_output(*transpose0, 0))
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
    if (rs->op_type() != "Reshape" || rs->input[0] != reshape0->output[0]) continue;
    const Shape out_shape = ir.get_shape(rs->output[0]);
    if (out_shape != in_shape) continue;
    // Readers inside a sub-graph cannot be moved to another tensor.
    if (has_implicit_reader(ir, rs->output[0])) continue;
    if (ir.is_output(rs->output[0])) {
      // The graph output's name must survive: the producer of the root's
      // input takes it over, which only one branch can ask for.
      if (ir.is_input(root_in) || ir.is_output(root_in) || !new_in_name.empty())
        return no_match();
      new_in_name = rs->output[0];
    }
    remove_ops.push_back(rs);
  }

  // The producer of the root's input takes the graph output's name, and all
  // readers of that input (the root among them) follow. A constant root
  // input has no producer to take it.
  if (!new_in_name.empty() && !move_output_name(ir, root_in, new_in_name)) return no_match();

  const std::string survivor = reshape0->input[0];
  for (const NodePtr& n : remove_ops) replace_all_uses(ir, n->output[0], survivor);

  if (ir.next_nodes(*reshape0).size() == remove_ops.size() && !ir.is_output(reshape0->output[0]))
    remove_ops.push_back(reshape0);
  return {remove_ops, {}};
}

RuleResult _p_fuse_two_reshape(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.size() < 2) return no_match();
  const NodePtr& reshape0 = nodes[0];
  const NodePtr& reshape1 = nodes[1];
  const std::string input0 = reshape0->input[0];

  // The first Reshape goes: its output must have no other use.
  const std::string mid = reshape0->output[0];
  if (ir.is_output(mid) || has_implicit_reader(ir, mid) || ir.next_nodes(mid) != NodeList{reshape1})
    return no_match();

  const Shape i_shape = ir.get_shape(reshape0->input[0]);
  const Shape o_shape = ir.get_shape(reshape1->output[0]);
  std::string retain_mid;
  if (!i_shape.empty() && !o_shape.empty() && i_shape == o_shape && ir.dynamic_shapes.empty()) {
    const Shape m_shape = ir.get_shape(reshape0->output[0]);
    if (!m_shape.empty() && m_shape.size() != 4 && i_shape.size() == 4)
      retain_mid = reshape0->output[0];
  }

  if (!retain_mid.empty() && can_move_output_name(ir, input0, retain_mid)) {
    // A 4-D tensor that went to another rank and back: the middle tensor
    // carries the source model's name, so it replaces the input's name and
    // the second Reshape is left as an identity for a later pass. (A
    // constant input has no producer to take the name: plain merge below.)
    move_output_name(ir, input0, retain_mid, {reshape0});
    ir.set_shape(retain_mid, i_shape, false);
    // Its recorded shape is out of date.
    ir.erase_value_info(retain_mid);
  } else {
    ir.set_input(*reshape1, 0, input0);
  }
  return {{reshape0}, {}};
}

RuleResult _p_fuse_two_transpose(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.empty()) return no_match();
  const NodePtr& transpose0 = nodes[0];
  const NodeList consumers = ir.next_nodes(*transpose0);
  std::vector<bool> next_op_is_tp;
  for (const NodePtr& n : consumers) next_op_is_tp.push_back(n->op_type() == "Transpose");
  if (std::none_of(next_op_is_tp.begin(), next_op_is_tp.end(), [](bool b) { return b; }))
    return no_match();

  const auto perm0 = IR::get_attr_ints(*transpose0, "perm");
  if (!perm0 || !is_permutation_of_rank(*perm0)) return no_match();
  // Every pair must compose before anything is rewritten.
  for (const NodePtr& n : consumers) {
    if (n->op_type() != "Transpose") continue;
    const auto perm1 = IR::get_attr_ints(*n, "perm");
    if (!perm1 || perm1->size() != perm0->size() || !is_permutation_of_rank(*perm1))
      return no_match();
  }

  Graph g(ir);
  const std::string root_in = transpose0->input[0];
  NodeList rm_nodes;
  for (const NodePtr& n : consumers) {
    if (n->op_type() != "Transpose") continue;
    const Perm perm1 = *IR::get_attr_ints(*n, "perm");
    Perm mr_perm(perm1.size());
    for (size_t i = 0; i < perm1.size(); ++i) mr_perm[i] = (*perm0)[perm1[i]];

    OpSpec opts;
    opts.outputs = n->output.names();
    opts.name = n->name();
    if (mr_perm == iota_perm(mr_perm.size())) {
      // The pair cancels. A graph output keeps its name through an Identity
      // (as does a tensor read inside a sub-graph, whose readers cannot move).
      if (ir.is_output(n->output[0]) || !bypass_node(ir, *n, root_in))
        g.op("Identity", {root_in}, opts);
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
