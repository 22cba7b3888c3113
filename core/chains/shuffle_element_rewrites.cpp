// Cheaper forms for Reshape and Transpose: a Reshape read only by Reshape
// nodes goes; a Transpose that shuffles an inner dimension beside a Reshape
// becomes a Gather; and Reshape, elementwise op, Reshape becomes one Reshape
// of the feature and a Gather on the other operand.
#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "chains/chains.h"
#include "host/builder.h"
#include "host/edit.h"
#include "host/helpers.h"

namespace tolm {
namespace {

int64_t product_at(const Shape& shape, const Axes& axes) {
  int64_t p = 1;
  for (int64_t a : axes) p *= shape[static_cast<size_t>(a)];
  return p;
}

// The Gather that lays the operand `b` out as the broadcast over one
// independent part `idx_in` of a Reshape input of shape `c`: along the part's
// first axis where `b` has data, the indices repeat as a whole for each
// broadcast axis before it and element by element for each one behind it.
// Absent where one Gather cannot do it: a broadcast axis behind another axis
// with data would have to repeat inside that axis.
struct PartGather {
  int64_t axis = 0;
  std::vector<int64_t> indices;
};

std::optional<PartGather> part_gather(const Shape& b, const Shape& c, const Axes& idx_in) {
  Axes non_1;
  for (int64_t k : idx_in)
    if (b[static_cast<size_t>(k)] != 1) non_1.push_back(k);
  if (non_1.empty()) return std::nullopt;
  PartGather pg;
  pg.axis = non_1.front();
  for (int64_t k : idx_in) {
    const bool broadcast = b[static_cast<size_t>(k)] == 1 && c[static_cast<size_t>(k)] != 1;
    if (broadcast && k > pg.axis && non_1.size() > 1 && k > non_1[1]) return std::nullopt;
  }
  std::vector<int64_t> seq(static_cast<size_t>(b[static_cast<size_t>(pg.axis)]));
  for (size_t i = 0; i < seq.size(); ++i) seq[i] = static_cast<int64_t>(i);
  for (int64_t k : idx_in) {
    if (b[static_cast<size_t>(k)] != 1) continue;
    const size_t times = static_cast<size_t>(c[static_cast<size_t>(k)]);
    std::vector<int64_t> next;
    next.reserve(seq.size() * times);
    if (k < pg.axis) {
      for (size_t t = 0; t < times; ++t) next.insert(next.end(), seq.begin(), seq.end());
    } else {
      for (int64_t v : seq) next.insert(next.end(), times, v);
    }
    seq.swap(next);
  }
  pg.indices = std::move(seq);
  return pg;
}

bool broadcasts_to(const Shape& b, const Shape& c) {
  if (b.size() != c.size()) return false;
  for (size_t k = 0; k < b.size(); ++k)
    if (b[k] != 1 && b[k] != c[k]) return false;
  return true;
}

}  // namespace

RuleResult _p_remove_top_reshape(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.empty()) return no_match();
  const NodePtr& top = nodes[0];
  if (top->input.empty() || top->output.empty()) return no_match();
  const NodeList nodes_next = ir.next_nodes(*top);
  if (nodes_next.size() <= 1) return no_match();
  if (ir.is_output(top->output[0])) return no_match();
  for (const NodePtr& nod : nodes_next)
    if (nod->op_type() != "Reshape") return no_match();
  // Each reader reads the tensor as its data, never as its target, and means
  // the same when it reads the data in the shape before `top`.
  for (const NodePtr& nod : nodes_next) {
    if (nod->input.size() < 2 || nod->input[0] != top->output[0] || nod->input[1] == top->output[0])
      return no_match();
    if (!can_pin_reshape_target(ir, *nod)) return no_match();
  }
  if (has_implicit_reader(ir, top->output[0])) return no_match();

  for (const NodePtr& nod : nodes_next) pin_reshape_target(ir, *nod);
  replace_all_uses(ir, top->output[0], top->input[0]);
  return {{top}, {}};
}

RuleResult _p_replace_inner_dim_shuffle_to_gather(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  for (size_t k = 0; k + 1 < nodes.size(); ++k)
    if (ir.is_output(nodes[k]->output[0]) || ir.next_nodes(*nodes[k]).size() > 1) return no_match();
  if (nodes.size() != 2) return no_match();
  const bool tp_fisrt = nodes[0]->op_type() == "Transpose";
  const NodePtr& tp = tp_fisrt ? nodes[0] : nodes[1];
  const NodePtr& rs = tp_fisrt ? nodes[1] : nodes[0];
  if (tp->op_type() != "Transpose" || rs->op_type() != "Reshape" || rs->input.size() < 2)
    return no_match();
  if (nodes[1]->input[0] != nodes[0]->output[0] ||
      !only_read_by(ir, nodes[0]->output[0], *nodes[1]))
    return no_match();

  const Shape src_shape = ir.get_shape(nodes[0]->input[0]);
  const Shape tp_in_shape = ir.get_shape(tp->input[0]);
  const auto tp_perm = IR::get_attr_ints(*tp, "perm");
  const Shape out_shape = ir.get_shape(nodes[1]->output[0]);
  if (src_shape.empty() || tp_in_shape.empty() || !tp_perm || tp_perm->empty() || out_shape.empty())
    return no_match();
  const bool rs_is_bypass =
      reshape_is_bypass(ir, ir.get_shape(rs->input[0]), ir.get_shape(rs->output[0]));

  const NodeList prev_nods = ir.pre_nodes(*nodes[0]);
  const NodeList next_nods = ir.next_nodes(*nodes[1]);
  const std::string prev_op_type = prev_nods.size() == 1 ? prev_nods[0]->op_type() : "";
  const std::string next_op_type =
      next_nods.size() == 1 && !ir.is_output(nodes[1]->output[0]) ? next_nods[0]->op_type() : "";

  // With the Transpose first, the Reshape moves ahead and the Gather works on
  // the chain's output layout; otherwise it works on the input layout, ahead
  // of the Reshape.
  const GatherPlan plan = gen_gather_for_rs_tp_rs(src_shape, tp_in_shape, *tp_perm, out_shape, tp_fisrt);
  const std::optional<int64_t> gather_axis = plan.axis;

  bool rs_absort = false, to_bypass = false;
  if (tp_fisrt) {
    rs_absort = prev_op_type == "Reshape" || (gather_axis == 1 && next_op_type == "Conv");
    to_bypass = reshape_is_bypass(ir, ir.get_shape(tp->input[0]), out_shape) && !rs_is_bypass;
  } else {
    rs_absort = next_op_type == "Reshape" || (gather_axis == 1 && prev_op_type == "Conv");
    to_bypass = reshape_is_bypass(ir, ir.get_shape(rs->input[0]), ir.get_shape(tp->output[0])) &&
                !rs_is_bypass;
  }
  if ((!rs_absort && !to_bypass) || !gather_axis) return no_match();
  if (!shape_holds_data(out_shape)) return no_match();
  // The Reshape reads another tensor afterwards: its target must name every
  // dimension (with the Transpose first it already yields the chain's shape).
  if (tp_fisrt && !can_pin_reshape_target(ir, *rs)) return no_match();

  const std::string old_rs_in = rs->input[0];
  const std::string old_rs_out = rs->output[0];
  Graph g(ir);
  OpSpec gather_opts;
  gather_opts.attrs = {Attr::make_int("axis", *gather_axis)};
  std::string new_rs_in, new_rs_out;
  if (tp_fisrt) {
    gather_opts.outputs = {old_rs_out};
    new_rs_out = g.op("Gather", {Absent{}, plan.indices}, gather_opts);
    new_rs_in = tp->input[0];
    pin_reshape_target(ir, *rs);
    ir.set_shape(new_rs_out, out_shape, false, ir.get_dtype(old_rs_out));
  } else {
    new_rs_in = g.op("Gather", {old_rs_in, plan.indices}, gather_opts);
    new_rs_out = tp->output[0];
    // The Reshape now yields what the Transpose did, in that shape.
    set_own_const(ir, *rs, 1, NDArray::from_i64(out_shape), "_2gather");
  }
  replace_input(ir, *rs, old_rs_in, new_rs_in);
  rename_output(ir, *rs, old_rs_out, new_rs_out);
  return {{tp}, g.nodes};
}

RuleResult _p_convert_rs_elements_rs_to_rs_gather_elements(IR& ir, const NodeList& nodes,
                                                          QuantTable* /*quant_tab*/) {
  if (nodes.size() < 3) return no_match();
  const NodePtr& rs1 = nodes[0];
  const NodePtr& ele_op = nodes[1];
  const NodePtr& rs2 = nodes[2];
  if (rs1->input.size() < 2 || rs2->input.size() < 2 || ele_op->input.size() != 2 ||
      ele_op->output.size() != 1)
    return no_match();

  const Shape rs1_in_s = ir.get_shape(rs1->input[0]);
  const Shape rs1_out_s = ir.get_shape(rs1->output[0]);
  const Shape rs2_in_s = ir.get_shape(rs2->input[0]);
  const Shape rs2_out_s = ir.get_shape(rs2->output[0]);
  for (const Shape* s : {&rs1_in_s, &rs1_out_s, &rs2_in_s, &rs2_out_s})
    if (!shape_holds_data(*s) || s->size() != 4) return no_match();
  if (shape_size(rs1_in_s) != shape_size(rs2_out_s)) return no_match();

  const int already_bypass_num = static_cast<int>(reshape_is_bypass(ir, rs1_in_s, rs1_out_s)) +
                                 static_cast<int>(reshape_is_bypass(ir, rs2_in_s, rs2_out_s));
  int after_bypass_num = reshape_is_bypass(ir, rs1_in_s, rs2_out_s) ? 1 : 0;
  // The number of Reshape nodes the target must really run would not fall.
  if (2 - already_bypass_num <= 1 - after_bypass_num) return no_match();

  const std::string feature = rs1->output[0];
  const size_t rs1_pos = ele_op->input[0] == feature ? 0 : 1;
  const std::string another_in = ele_op->input[1 - rs1_pos];
  if (ele_op->input[rs1_pos] != feature || another_in == feature) return no_match();
  const Shape another_in_shape = ir.get_shape(another_in);
  if (another_in_shape.empty()) return no_match();
  if (another_in_shape == rs2_in_s || another_in_shape.size() != rs2_in_s.size()) return no_match();
  // The feature keeps its shape through the op; the other operand broadcasts.
  if (rs1_out_s != rs2_in_s || !broadcasts_to(another_in_shape, rs2_in_s)) return no_match();
  // All three nodes go: the tensors between them must have no other reader.
  if (rs2->input[0] != ele_op->output[0] || !only_read_by(ir, feature, *ele_op) ||
      !only_read_by(ir, ele_op->output[0], *rs2))
    return no_match();

  Shape new_another_in_shape = another_in_shape;
  Shape new_rs_in;
  std::vector<PartGather> gathers;
  for (const IndependentPart& part : seperate_independent_part_for_reshape(rs2_in_s, rs2_out_s)) {
    const Axes& idx_in = part.first;
    const Axes& idx_out = part.second;
    if (product_at(another_in_shape, idx_in) == 1) {
      new_rs_in.insert(new_rs_in.end(), idx_out.size(), 1);
      continue;
    }
    for (int64_t k : idx_out) new_rs_in.push_back(rs2_out_s[static_cast<size_t>(k)]);
    if (product_at(another_in_shape, idx_in) == product_at(rs2_out_s, idx_out)) continue;
    const auto pg = part_gather(another_in_shape, rs1_out_s, idx_in);
    if (!pg) return no_match();
    new_another_in_shape[static_cast<size_t>(pg->axis)] = static_cast<int64_t>(pg->indices.size());
    gathers.push_back(*pg);
  }
  if (new_rs_in.size() != rs2_out_s.size()) return no_match();

  if (reshape_is_bypass(ir, new_another_in_shape, new_rs_in)) ++after_bypass_num;
  // Two Gather nodes to save one Reshape is a loss.
  if ((2 - after_bypass_num) + static_cast<int>(gathers.size()) > 2 - already_bypass_num)
    return no_match();

  Graph g(ir);
  std::string new_another_in = another_in;
  for (const PartGather& pg : gathers)
    new_another_in = g.op("Gather", {new_another_in, pg.indices}, {{}, "", {Attr::make_int("axis", pg.axis)}});
  new_another_in = g.op("Reshape", {new_another_in, std::vector<int64_t>(new_rs_in)});
  const std::string new_rs = g.op("Reshape", {rs1->input[0], std::vector<int64_t>(rs2_out_s)});
  std::vector<OpInput> ins(2);
  ins[rs1_pos] = new_rs;
  ins[1 - rs1_pos] = new_another_in;
  g.op(ele_op->op_type(), ins, {{rs2->output[0]}, "", ele_op->attribute()});
  return {{rs1, ele_op, rs2}, g.nodes};
}

}  // namespace tolm
