// A fused QKV projection: one Gemm (or MatMul by a weight) makes Q, K and V
// side by side, a Split cuts them apart and each path splits its block into
// heads with a Reshape ahead of a Transpose. One Gather that lays the channels
// out head by head (Q, K, V of head 0, then of head 1, ...), one Reshape and
// one Split deliver the same three tensors, and the per-head layout is what
// the target runs well. Scale or bias nodes by a single value that stood ahead
// of a path's Reshape move behind its Transpose.
#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <xtensor/xarray.hpp>
#include <xtensor/xbuilder.hpp>
#include <xtensor/xmanipulation.hpp>

#include "attention/attention.h"
#include "host/builder.h"
#include "host/edit.h"
#include "host/helpers.h"

namespace tolm {
namespace {

const std::vector<std::string> elementwise_ops = {"Add", "Sub", "Mul", "Div"};
const std::vector<std::string> attention_ops = {"MatMul", "Softmax"};
const std::vector<std::string> data_transport_ops = {"Transpose", "Reshape"};

bool is_in(const std::vector<std::string>& set, const std::string& op) {
  return std::find(set.begin(), set.end(), op) != set.end();
}

bool holds(const NodeList& list, const NodePtr& n) {
  return std::find(list.begin(), list.end(), n) != list.end();
}

size_t count_matmul(const NodeList& path) {
  return static_cast<size_t>(
      std::count_if(path.begin(), path.end(), [](const NodePtr& n) { return n->op_type() == "MatMul"; }));
}

struct QkvPath {
  size_t id = 0;   // which Split output the path starts from
  NodeList nodes;  // from the Split's consumer on
};
struct QkvInfo {
  QkvPath q, k, v;
};

// Follows single consumers through the ops an attention block is made of; the
// Q and K paths meet at the score MatMul, all three at the output MatMul.
NodeList walk_path(const IR& ir, const NodePtr& start) {
  NodeList visited{start};
  NodePtr cur = start;
  for (;;) {
    const NodeList next = ir.next_nodes(*cur);
    if (next.size() != 1) break;
    const std::string& op = next[0]->op_type();
    if (!is_in(elementwise_ops, op) && !is_in(attention_ops, op) && !is_in(data_transport_ops, op)) break;
    if (holds(visited, next[0])) break;
    visited.push_back(next[0]);
    cur = next[0];
  }
  return visited;
}

// V is the path with the fewest MatMul nodes (the first such in order); Q is
// the path that feeds the first input of the score MatMul.
std::optional<QkvInfo> _get_qkv_paths(const IR& ir, size_t a, size_t b, size_t c, const NodeList& a_nodes,
                                      const NodeList& b_nodes, const NodeList& c_nodes) {
  const size_t m = std::min({a, b, c});
  const NodeList* paths[3] = {&a_nodes, &b_nodes, &c_nodes};
  const size_t v_id = a == m ? 0 : (b == m ? 1 : 2);
  const size_t probe = v_id == 0 ? 1 : 0;             // the path the score MatMul is looked for on
  const size_t other = v_id == 2 ? 1 : 2;             // the remaining path
  const NodeList qk_matmul = get_subgraph_nodes(ir, *paths[probe], {"MatMul"});
  if (qk_matmul.empty()) return std::nullopt;
  const bool probe_is_q = std::any_of(paths[probe]->begin(), paths[probe]->end(), [&](const NodePtr& n) {
    return !n->output.empty() && n->output[0] == qk_matmul[0]->input[0];
  });
  const size_t q_id = probe_is_q ? probe : other;
  const size_t k_id = probe_is_q ? other : probe;
  return QkvInfo{{q_id, *paths[q_id]}, {k_id, *paths[k_id]}, {v_id, *paths[v_id]}};
}

std::optional<QkvInfo> _get_qkv_path_nodes(const IR& ir, const NodeList& qkv) {
  if (qkv.size() != 3) return std::nullopt;
  const NodeList a_visited = walk_path(ir, qkv[0]);
  const NodeList b_visited = walk_path(ir, qkv[1]);
  const NodeList c_visited = walk_path(ir, qkv[2]);
  const size_t a = count_matmul(a_visited), b = count_matmul(b_visited), c = count_matmul(c_visited);
  if (a == 0 || b == 0 || c == 0) return std::nullopt;
  const bool has_same_subnode = std::any_of(a_visited.begin(), a_visited.end(), [&](const NodePtr& n) {
    return holds(b_visited, n) && holds(c_visited, n);
  });
  if (!has_same_subnode) return std::nullopt;
  return _get_qkv_paths(ir, a, b, c, a_visited, b_visited, c_visited);
}

bool all_positive(const Shape& s) {
  return !s.empty() && std::all_of(s.begin(), s.end(), [](int64_t d) { return d > 0; });
}

// One path, with what the rewrite needs of it.
struct PathPlan {
  size_t id = 0;
  NodeList elementwise;  // the nodes ahead of the Reshape, in flow order
  NodePtr reshape, transpose;
  Shape in_s, out_s;
};

// The path runs elementwise nodes (each by one constant of a single value, so
// that it means the same in any layout), a Reshape, then a Transpose; every
// tensor on the way has no reader but the next node.
std::optional<PathPlan> plan_path(const IR& ir, const QkvPath& path, const std::string& split_out) {
  const NodeList rs_tp = get_subgraph_nodes(ir, path.nodes, {"Reshape", "Transpose"});
  if (rs_tp.empty()) return std::nullopt;
  PathPlan p;
  p.id = path.id;
  p.reshape = rs_tp[0];
  p.transpose = rs_tp[1];
  std::string feed = split_out;
  for (const NodePtr& n : path.nodes) {
    if (n == p.reshape) break;
    if (!is_in(elementwise_ops, n->op_type()) || n->input.size() != 2 || n->output.size() != 1) return std::nullopt;
    const ElemwiseConst ec = get_elemwise_const(ir, *n);
    if (!ec.const_name || ec.other_name != feed) return std::nullopt;
    const NDArray* c = ir.get_const(*ec.const_name);
    if (!c || c->size() != 1) return std::nullopt;
    if (!only_read_by(ir, feed, *n)) return std::nullopt;
    p.elementwise.push_back(n);
    feed = n->output[0];
  }
  if (p.reshape->input[0] != feed || !only_read_by(ir, feed, *p.reshape)) return std::nullopt;
  if (!only_read_by(ir, p.reshape->output[0], *p.transpose)) return std::nullopt;
  p.in_s = ir.get_shape(p.reshape->input[0]);
  p.out_s = ir.get_shape(p.reshape->output[0]);
  if (!all_positive(p.in_s) || !all_positive(p.out_s)) return std::nullopt;
  // A moved node may not widen the Transpose's output by its constant's rank.
  const Shape feat_shape = ir.get_shape(p.transpose->output[0]);
  for (const NodePtr& n : p.elementwise) {
    const NDArray* c = ir.get_const(*get_elemwise_const(ir, *n).const_name);
    if (feat_shape.empty() || c->ndim() > feat_shape.size()) return std::nullopt;
    if (ir.get_shape(n->output[0]) != p.in_s) return std::nullopt;
  }
  if (!p.elementwise.empty() && has_implicit_reader(ir, p.transpose->output[0])) return std::nullopt;
  if (!p.elementwise.empty() && ir.is_output(p.transpose->output[0])) return std::nullopt;
  return p;
}

// The weight side of the block: a Gemm, or a MatMul by a constant, possibly
// behind Reshape nodes.
bool comes_from_projection(const IR& ir, const Node& split) {
  NodeList prev_nodes = ir.pre_nodes(split);
  for (;;) {
    if (prev_nodes.size() != 1) return false;
    const NodePtr prev_node = prev_nodes[0];
    if (prev_node->op_type() == "Gemm") return true;
    if (prev_node->op_type() == "MatMul" && prev_node->input.size() == 2 &&
        (ir.is_const(prev_node->input[0]) || ir.is_const(prev_node->input[1])))
      return true;
    if (prev_node->op_type() != "Reshape") return false;
    prev_nodes = ir.pre_nodes(*prev_node);
  }
}

}  // namespace

RuleResult _p_fuse_multihead_attention_reshape_to_gather_split(IR& ir, const NodeList& nodes,
                                                               QuantTable* /*quant_tab*/) {
  if (nodes.empty()) return no_match();
  const NodePtr& node = nodes[0];
  if (node->op_type() != "Split" || node->output.size() != 3) return no_match();
  const auto qkv_info = _get_qkv_path_nodes(ir, ir.next_nodes(*node));
  if (!qkv_info) return no_match();
  // Each output of the Split feeds exactly the path that starts there.
  for (const QkvPath* p : {&qkv_info->q, &qkv_info->k, &qkv_info->v}) {
    const std::string& out = node->output[p->id];
    if (!only_read_by(ir, out, *p->nodes[0])) return no_match();
  }
  std::optional<PathPlan> plans[3];
  const QkvPath* paths[3] = {&qkv_info->q, &qkv_info->k, &qkv_info->v};
  for (size_t i = 0; i < 3; ++i) {
    plans[i] = plan_path(ir, *paths[i], node->output[paths[i]->id]);
    if (!plans[i]) return no_match();
  }
  PathPlan& q = *plans[0];
  const NodeList attention_tp_reshapes = get_subgraph_nodes(ir, qkv_info->q.nodes, {"Transpose", "Reshape"});
  if (attention_tp_reshapes.empty()) return no_match();
  const Shape atten_shape = ir.get_shape(attention_tp_reshapes.back()->input[0]);
  if (q.out_s != plans[1]->out_s || q.out_s != plans[2]->out_s) return no_match();
  if (atten_shape.empty() || atten_shape.back() != q.out_s.back()) return no_match();

  const Shape split_in_shape = ir.get_shape(node->input[0]);
  if (!all_positive(split_in_shape)) return no_match();
  const int64_t rank = static_cast<int64_t>(split_in_shape.size());
  int64_t axis_attr = IR::get_attr_int(*node, "axis").value_or(0);
  if (axis_attr < 0) axis_attr += rank;
  if (axis_attr < 0 || axis_attr >= rank) return no_match();
  const auto split_axis = static_cast<size_t>(axis_attr);
  for (const auto& p : plans)
    if (p->in_s.size() <= split_axis || p->out_s.size() <= split_axis) return no_match();
  if (q.out_s[split_axis] >= q.in_s[split_axis] || plans[1]->out_s[split_axis] > plans[1]->in_s[split_axis] ||
      plans[2]->out_s[split_axis] > plans[2]->in_s[split_axis])
    return no_match();
  // The three blocks are equal thirds of the fused tensor, and each path
  // reshapes its whole block as it comes out of the Split.
  Shape block_shape = split_in_shape;
  if (block_shape[split_axis] % 3 != 0) return no_match();
  block_shape[split_axis] /= 3;
  for (const auto& p : plans)
    if (p->in_s != block_shape) return no_match();
  const std::vector<int64_t> lengths = get_split_split(ir, *node, true);
  if (lengths.size() != 3 || std::any_of(lengths.begin(), lengths.end(),
                                         [&](int64_t l) { return l != block_shape[split_axis]; }))
    return no_match();
  if (!comes_from_projection(ir, *node)) return no_match();

  // The Reshape splits the channels into heads and head channels.
  const auto independent_parts = seperate_independent_part_for_reshape(q.in_s, q.out_s);
  const IndependentPart* part = nullptr;
  for (const auto& ip : independent_parts)
    if (std::find(ip.first.begin(), ip.first.end(), static_cast<int64_t>(split_axis)) != ip.first.end()) {
      part = &ip;
      break;
    }
  if (!part || part->second.size() != 2) return no_match();
  const Shape part_out{q.out_s[static_cast<size_t>(part->second[0])], q.out_s[static_cast<size_t>(part->second[1])]};
  // The head channels must land on the split axis with the heads ahead of
  // it: only then does a Split of the regrouped tensor on that axis cut each
  // head into its Q, K and V. With the heads on the split axis (the
  // [1, S, H, d] layout) it would hand out Q, K and V of mixed heads.
  if (part->second[1] != static_cast<int64_t>(split_axis)) return no_match();
  if (part_out[0] * part_out[1] != q.in_s[split_axis]) return no_match();
  const int64_t num_head = q.in_s[split_axis] / part_out[1];

  const NodeList from_nodes = ir.pre_nodes(*node);
  if (from_nodes.size() != 1) return no_match();
  const NodePtr& from_node = from_nodes[0];

  // Q, K and V positions of head 0, then of head 1, and so on.
  const auto total = static_cast<size_t>(split_in_shape[split_axis]);
  xt::xarray<int64_t> index = xt::arange<int64_t>(static_cast<int64_t>(total));
  index.reshape({size_t{3}, static_cast<size_t>(num_head), total / 3 / static_cast<size_t>(num_head)});
  const xt::xarray<int64_t> by_head = xt::transpose(index, {1, 0, 2});
  const NDArray gather_index = NDArray::from_i64(std::vector<int64_t>(by_head.begin(), by_head.end()));
  Shape merge_shape = q.out_s;
  merge_shape[split_axis] *= 3;

  // The lengths of the new Split: one input no other node reads is rewritten
  // in place, keeping its name.
  const bool lengths_attr = IR::get_attr(*node, "split") != nullptr;
  const bool lengths_input = !lengths_attr && node->input.size() > 1 && !node->input[1].empty();
  if (lengths_input && !ir.is_const(node->input[1])) return no_match();

  // ---- rewrite ----
  Graph g(ir);
  const std::string gather_ = g.op("Gather", {node->input[0], gather_index},
                                   OpSpec{{}, node_name_join(ir, from_node->name(), "_2gather"),
                                          {Attr::make_int("axis", axis_attr)}});
  const std::string rs_ = g.op("Reshape", {gather_, NDArray::from_i64(merge_shape)});

  NodeList removed{node};
  NodeList moved_copies;
  std::vector<std::string> taken;  // names handed out here, not yet in the graph
  for (auto& p : plans) {
    for (const NodePtr& n : p->elementwise) removed.push_back(n);
    removed.push_back(p->reshape);
    if (p->elementwise.empty()) continue;
    NodeList copies;
    for (const NodePtr& n : p->elementwise) copies.push_back(n->clone());
    const std::string last_tp_out = p->transpose->output[0];
    const ElemwiseConst ec = get_elemwise_const(ir, *p->elementwise[0]);
    copies[0]->input.set(static_cast<size_t>(ec.other_idx), last_tp_out);
    const std::string new_name = node_name_join(ir, p->elementwise.back()->name(), "output0", taken);
    taken.push_back(new_name);
    copies.back()->output.set(0, new_name);
    replace_all_uses(ir, last_tp_out, new_name);
    // The tensors of the moved run now hold the Transpose's layout.
    const Shape feat_shape = ir.get_shape(last_tp_out);
    const int32_t feat_dtype = ir.get_dtype(last_tp_out);
    for (const NodePtr& c : copies) ir.set_shape(c->output[0], feat_shape, false, feat_dtype);
    moved_copies.insert(moved_copies.end(), copies.begin(), copies.end());
  }

  NodePtr new_split = node->clone();
  new_split->input.set(0, rs_);
  new_split->set_attr(Attr::make_int("axis", axis_attr));
  const int64_t head_ch = q.out_s[split_axis];
  if (lengths_attr) new_split->set_attr(Attr::make_ints("split", {head_ch, head_ch, head_ch}));
  if (lengths_input) {
    const NDArray equal = NDArray::from_i64({head_ch, head_ch, head_ch}, ir.get_const(node->input[1])->dtype());
    if (only_read_by(ir, node->input[1], *node)) {
      ir.set_const(node->input[1], equal);
    } else {
      const std::string fresh = oper_name_join(ir, node->input[1], "_2gather", taken);
      taken.push_back(fresh);
      ir.set_const(fresh, equal);
      new_split->input.set(1, fresh);
    }
  }
  std::vector<std::string> split_outs;
  for (size_t i = 0; i < 3; ++i) {
    split_outs.push_back(node_name_join(ir, new_split->name(), "output" + std::to_string(i), taken));
    taken.push_back(split_outs.back());
  }
  new_split->output.assign(split_outs);
  // Each Transpose now reads its block straight from the new Split.
  for (const auto& p : plans) {
    Node& tp = *p->transpose;
    replace_input(ir, tp, tp.input[0], split_outs[p->id]);
  }

  g.nodes.push_back(new_split);
  g.nodes.insert(g.nodes.end(), moved_copies.begin(), moved_copies.end());
  return {removed, g.nodes};
}

}  // namespace tolm
