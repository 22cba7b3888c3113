// A feed-forward block that runs in its own shape: a Reshape opens it off the
// block's input, a Reshape closes it, and the residual Add joins it with the
// input again, followed by a Reshape. The Add runs in the block's shape just
// as well (both operands are reshaped alike), so the closing Reshape goes and
// the Reshape behind the Add starts from the block's shape.
#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "attention/attention.h"
#include "host/builder.h"
#include "host/edit.h"
#include "host/helpers.h"

namespace tolm {
namespace {

bool all_positive(const Shape& s) {
  return !s.empty() && std::all_of(s.begin(), s.end(), [](int64_t d) { return d > 0; });
}

}  // namespace

RuleResult _p_fuse_transformer_FFN_reshape(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.size() < 2) return no_match();
  const NodePtr& FFN_tail_reshape = nodes[0];
  const NodePtr& add = nodes[1];
  // The block's last op (FFN_out_op) is the one producer of the closing Reshape.
  if (ir.pre_nodes(*FFN_tail_reshape).size() != 1) return no_match();
  if (add->input.size() != 2 || add->output.size() != 1) return no_match();
  const Shape add_in0_shape = ir.get_shape(add->input[0]);
  const Shape add_in1_shape = ir.get_shape(add->input[1]);
  if (add_in0_shape.size() != 4 || add_in0_shape != add_in1_shape || !all_positive(add_in0_shape)) return no_match();
  if (ir.next_nodes(*FFN_tail_reshape).size() != 1) return no_match();
  if (!only_read_by(ir, FFN_tail_reshape->output[0], *add)) return no_match();

  const NodeList op_before_add = ir.pre_nodes(*add);
  if (op_before_add.size() != 2) return no_match();
  const NodePtr& top_op = op_before_add[0] == FFN_tail_reshape ? op_before_add[1] : op_before_add[0];
  if (top_op == FFN_tail_reshape) return no_match();
  const NodeList top_op_branch = ir.next_nodes(*top_op);
  if (top_op_branch.size() != 2) return no_match();
  const NodePtr& FFN_head_reshape = top_op_branch[0] == add ? top_op_branch[1] : top_op_branch[0];
  if (FFN_head_reshape == add || FFN_head_reshape->op_type() != "Reshape") return no_match();
  // The Add and the block read the same tensor: the block's input.
  const std::string& top_out = FFN_head_reshape->input[0];
  const std::string& residual = add->input[0] == FFN_tail_reshape->output[0] ? add->input[1] : add->input[0];
  if (residual != top_out || ir.producer(top_out) != top_op) return no_match();

  const Shape FFN_in_shape = ir.get_shape(FFN_head_reshape->output[0]);
  const Shape FFN_out_shape = ir.get_shape(FFN_tail_reshape->input[0]);
  if (!all_positive(FFN_in_shape) || FFN_in_shape != FFN_out_shape) return no_match();
  if (!ir.is_const(FFN_head_reshape->input[1]) || !ir.is_const(FFN_tail_reshape->input[1])) return no_match();

  const NodeList add_next = ir.next_nodes(*add);
  if (add_next.size() != 1 || add_next[0]->op_type() != "Reshape") return no_match();
  // The Add's output changes shape: no one else may see it.
  if (!only_read_by(ir, add->output[0], *add_next[0]) || add_next[0]->input[0] != add->output[0]) return no_match();
  // The Reshape behind the Add must not copy dimensions from the shape it
  // used to read.
  if (!can_pin_reshape_target(ir, *add_next[0])) return no_match();

  // ---- rewrite ----
  pin_reshape_target(ir, *add_next[0]);
  Graph g(ir);
  const std::string& new_top_shape_const = FFN_head_reshape->input[1];
  const std::string rs_ = g.op("Reshape", {top_out, new_top_shape_const},
                               OpSpec{{FFN_head_reshape->output[0]},
                                      node_name_join(ir, FFN_head_reshape->name(), "_ffn_fuse"),
                                      FFN_head_reshape->attribute()});
  NodePtr new_add = add->clone();
  new_add->input.assign({rs_, FFN_tail_reshape->input[0]});
  g.nodes.push_back(new_add);
  ir.set_shape(new_add->output[0], FFN_in_shape);
  return {{FFN_head_reshape, FFN_tail_reshape, add}, g.nodes};
}

}  // namespace tolm
