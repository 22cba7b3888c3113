// Like operators side by side on the branches of a Split, or feeding one
// Concat, become one operator on the joined tensor: a Concat of the inputs
// that differ, one copy of the operator, and a Split back into the old output
// names. The Split/Concat pairs this leaves behind are for the split-concat
// rules to remove.
//
// The work is planned for every group first and built only when the whole
// call pays (no more nodes than it removes), so a merge that does not pay
// leaves the graph untouched.
#include <algorithm>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "dead/dead.h"
#include "host/builder.h"
#include "host/helpers.h"
#include "host/ndarray_join.h"
#include "host/op_lists.h"

namespace tolm {
namespace {

// Both constants present, of one shape and equal in every element.
bool same_value(const NDArray* a, const NDArray* b) {
  if (a == nullptr || b == nullptr || a->shape() != b->shape()) return false;
  if (a->dtype() == b->dtype()) return *a == *b;
  if (a->dtype() == dt::STRING || b->dtype() == dt::STRING) return false;
  return a->to_f64() == b->to_f64();
}

// Two inputs are the same if they name one tensor or hold equal constants.
bool same_input(const IR& ir, const std::string& a, const std::string& b) {
  if (a == b) return true;
  return same_value(ir.get_const(a), ir.get_const(b));
}

// The input slot a Gather's group may differ in without opening a new group:
// its data.
bool may_differ(const Node& n, size_t slot) { return n.op_type() == "Gather" && slot == 0; }

// A node joins a group when its attributes match the group's first node and
// at most one input differs.
bool joins_group(const IR& ir, const Node& first, const Node& n) {
  if (!IR::same_attr(first, n) || first.input.size() != n.input.size()) return false;
  int differ = 0;
  for (size_t i = 0; i < n.input.size(); ++i)
    if (!may_differ(n, i) && !same_input(ir, first.input[i], n.input[i])) ++differ;
  return differ <= 1;
}

// Everything needed to build one merged group.
struct GroupPlan {
  NodeList nodes;
  size_t sp_in_idx = 0;         // the input that differs and is joined
  std::vector<int64_t> length;  // each node's share of the merged output
  std::optional<NDArray> joined_const;  // the joined input, when all parts are constants
  bool reduce_sum_to_einsum = false;
  std::vector<int64_t> in_length;  // Einsum: each node's share of the joined input
  // Gather on the joined axis: the merged indices, and where they go.
  std::optional<NDArray> gather_indices;
};

int64_t norm_axis(int64_t axis, size_t rank) {
  return axis < 0 ? axis + static_cast<int64_t>(rank) : axis;
}

// Shapes of the parts, known and of one rank above `axis`, equal but on
// `axis`.
bool parts_line_up(const IR& ir, const std::vector<std::string>& names, int64_t axis) {
  std::optional<Shape> ref;
  for (const std::string& t : names) {
    if (!ir.has_shape(t)) return false;
    Shape s = ir.get_shape(t);
    if (axis >= static_cast<int64_t>(s.size())) return false;
    s.erase(s.begin() + axis);
    if (ref && *ref != s) return false;
    if (!ref) ref = s;
  }
  return true;
}

// The inputs other than the joined one are the same on every node.
bool others_shared(const IR& ir, const NodeList& nodes, size_t sp_in_idx, bool indices_may_differ) {
  const Node& first = *nodes[0];
  for (const NodePtr& n : nodes)
    for (size_t i = 0; i < first.input.size(); ++i) {
      if (i == sp_in_idx || (indices_may_differ && i == 1)) continue;
      if (!same_input(ir, first.input[i], n->input[i])) return false;
    }
  return true;
}

// The axes of a reduce node, normalised: a constant input, or the attribute
// older opsets use; absent when computed. Empty means every axis.
std::optional<std::vector<int64_t>> reduce_axes(const IR& ir, const Node& n, size_t rank) {
  std::vector<int64_t> axes;
  if (n.input.size() >= 2 && !n.input[1].empty()) {
    const NDArray* c = ir.get_const(n.input[1]);
    if (c == nullptr) return std::nullopt;
    axes = c->to_i64();
  } else {
    axes = IR::get_attr_ints(n, "axes").value_or(std::vector<int64_t>{});
  }
  // With noop_with_empty_axes, no axes reduce nothing: not a shape this rule plans for.
  if (axes.empty() && IR::get_attr_int(n, "noop_with_empty_axes").value_or(0) != 0) return std::nullopt;
  for (int64_t& a : axes) a = norm_axis(a, rank);
  return axes;
}

// Tests one group and works out its merge; absent if it cannot merge.
std::optional<GroupPlan> plan_group(const IR& ir, const Node& stack_op, int64_t stack_axis,
                                    NodeList groups_nodes) {
  GroupPlan plan;
  const std::string op = groups_nodes[0]->op_type();
  for (const NodePtr& n : groups_nodes)
    if (n->output.size() != 1 || n->input.empty()) return std::nullopt;
  bool stack_on_gather_axis = false;

  if (is_elementwise_alu_op(op) || op == "Pow") {
    if (groups_nodes[0]->input.size() != 2) return std::nullopt;
    const Node& n0 = *groups_nodes[0];
    const Node& n1 = *groups_nodes[1];
    const bool same0 = n0.input[0] == n1.input[0], same1 = n0.input[1] == n1.input[1];
    std::optional<size_t> sp;
    if (same0 != same1) {
      sp = same0 ? 1 : 0;
    } else {
      for (size_t i = 0; i < 2 && !sp; ++i)
        if (ir.is_const(n0.input[i]) && same_value(ir.get_const(n0.input[i]), ir.get_const(n1.input[i])))
          sp = 1 - i;
    }
    if (!sp) return std::nullopt;
    plan.sp_in_idx = *sp;
    const std::string& other0 = n0.input[1 - *sp];
    if (!ir.has_shape(other0) || !ir.has_shape(n0.input[*sp])) return std::nullopt;
    const Shape& other_in_shape = ir.get_shape(other0);
    const Shape& sp_in_shape = ir.get_shape(n0.input[*sp]);
    // The shared operand must broadcast along the joined axis.
    if (other_in_shape.size() != sp_in_shape.size() ||
        stack_axis >= static_cast<int64_t>(other_in_shape.size()) || other_in_shape[stack_axis] != 1)
      return std::nullopt;
    NodeList remain;
    for (const NodePtr& n : groups_nodes) {
      bool feeds_same_op = false;
      for (const NodePtr& c : ir.next_nodes(*n)) feeds_same_op |= c->op_type() == op;
      if (feeds_same_op) continue;
      if (same_input(ir, n->input[1 - *sp], other0)) remain.push_back(n);
    }
    groups_nodes = remain;
    if (groups_nodes.size() <= 1) return std::nullopt;
  } else if (is_activation_op(op) || op == "Sqrt") {
    if (is_activation_op(op) && stack_op.op_type() == "Concat") {
      for (const NodePtr& n : groups_nodes)
        if (get_op_type_around_node(ir, *n).count("Conv")) return std::nullopt;
    }
  } else if (is_reduce_op(op)) {
    for (const NodePtr& n : groups_nodes)
      if (IR::get_attr_int(*n, "keepdims").value_or(1) == 0) return std::nullopt;
    if (!ir.has_shape(groups_nodes[0]->input[0])) return std::nullopt;
    const auto axes = reduce_axes(ir, *groups_nodes[0], ir.get_shape(groups_nodes[0]->input[0]).size());
    if (!axes) return std::nullopt;
    // Reducing over the joined axis mixes the parts: only a sum over that
    // axis alone can be kept apart, by a 0/1 weight per part.
    const bool on_stack = axes->empty() || std::count(axes->begin(), axes->end(), stack_axis) > 0;
    if (on_stack) {
      if (op != "ReduceSum" || *axes != std::vector<int64_t>{stack_axis}) return std::nullopt;
      const int32_t t = ir.get_dtype(groups_nodes[0]->input[0]);
      if (t != dt::FLOAT && t != dt::FLOAT16 && t != dt::DOUBLE) return std::nullopt;
      if (ir.opset() < 12 || ir.get_shape(groups_nodes[0]->input[0]).size() >= 25) return std::nullopt;
      // The 0/1 weights multiply every part by 0 somewhere: an infinite
      // value would turn the other sums into NaN.
      for (const NodePtr& n : groups_nodes)
        if (may_carry_non_finite(ir, n->input[0])) return std::nullopt;
      plan.reduce_sum_to_einsum = true;
    }
  } else if (op == "Gather") {
    std::optional<int64_t> axis;
    for (const NodePtr& n : groups_nodes) {
      const std::string& d = n->input[0];
      if (!ir.has_shape(d) || ir.get_shape(d).empty() || !ir.has_shape(n->output[0]) ||
          ir.get_shape(n->output[0]).size() != ir.get_shape(d).size())
        return std::nullopt;
      const int64_t a = norm_axis(IR::get_attr_int(*n, "axis").value_or(0), ir.get_shape(d).size());
      if (axis && *axis != a) return std::nullopt;
      axis = a;
    }
    bool all_const = true;
    for (const NodePtr& n : groups_nodes) all_const &= n->input.size() > 1 && ir.is_const(n->input[1]);
    if (*axis == stack_axis) {
      if (!all_const) return std::nullopt;
      stack_on_gather_axis = true;
    } else {
      if (!all_const) return std::nullopt;
      for (const NodePtr& n : groups_nodes)
        if (!same_value(ir.get_const(groups_nodes[0]->input[1]), ir.get_const(n->input[1])))
          return std::nullopt;
    }
  } else {
    return std::nullopt;
  }

  plan.nodes = groups_nodes;
  const size_t sp = plan.sp_in_idx;
  if (!others_shared(ir, groups_nodes, sp, stack_on_gather_axis)) return std::nullopt;
  std::vector<std::string> concat_in, outs;
  for (const NodePtr& n : groups_nodes) {
    concat_in.push_back(n->input[sp]);
    outs.push_back(n->output[0]);
  }
  if (!parts_line_up(ir, concat_in, stack_axis) || !parts_line_up(ir, outs, stack_axis))
    return std::nullopt;
  // The Split hands each node what it made: its output's size on the axis.
  for (const std::string& o : outs) plan.length.push_back(ir.get_shape(o)[stack_axis]);
  for (const std::string& t : concat_in) plan.in_length.push_back(ir.get_shape(t)[stack_axis]);

  std::vector<const NDArray*> consts;
  bool all_const = true;
  for (const std::string& t : concat_in) {
    consts.push_back(ir.get_const(t));
    all_const &= consts.back() != nullptr;
  }
  if (all_const) {
    bool all_same = true;
    for (const NDArray* c : consts) all_same &= same_value(consts[0], c);
    if (all_same) return std::nullopt;
    plan.joined_const = concat_arrays(consts, stack_axis);
    if (!plan.joined_const) return std::nullopt;
  }

  if (stack_on_gather_axis) {
    // Each part's indices move past the parts before it; negative ones
    // count from their own part's end first.
    std::vector<int64_t> merged;
    int64_t offset = 0;
    for (size_t k = 0; k < groups_nodes.size(); ++k) {
      const int64_t len = plan.in_length[k];
      for (int64_t v : ir.get_const(groups_nodes[k]->input[1])->to_i64()) {
        if (v < -len || v >= len) return std::nullopt;
        merged.push_back((v < 0 ? v + len : v) + offset);
      }
      offset += len;
    }
    const NDArray* first = ir.get_const(groups_nodes[0]->input[1]);
    if (first->ndim() != 1) return std::nullopt;
    plan.gather_indices = NDArray::from_i64(merged, first->dtype());
  }
  // No node may be computed from another's output: merged, they would wait
  // for each other. Ahead of a Concat each node feeds only the Concat. After
  // a Split, the inputs other than the joined one are shared, so a node's
  // own output cannot reach them; the joined input, a part of the Split,
  // lies upstream of every node. Where it is no part of the Split the
  // nodes could depend on each other, and finding out would mean walking
  // the graph: the group stays.
  if (stack_op.op_type() == "Split")
    for (const NodePtr& n : groups_nodes)
      if (!stack_op.output.contains(n->input[sp])) return std::nullopt;
  return plan;
}

}  // namespace

RuleResult _p_merge_parallel_op_around_split_concat(IR& ir, const NodeList& nodes, QuantTable*) {
  if (nodes.empty()) return no_match();
  const Node& stack_op = *nodes[0];
  const bool is_split = stack_op.op_type() == "Split";
  if (!is_split && stack_op.op_type() != "Concat") return no_match();
  const std::string& ref_tensor = is_split ? stack_op.input[0] : stack_op.output[0];
  if (!ir.has_shape(ref_tensor)) return no_match();
  const int64_t rank = static_cast<int64_t>(ir.get_shape(ref_tensor).size());
  const auto axis_attr = IR::get_attr_int(stack_op, "axis");
  if (!is_split && !axis_attr) return no_match();
  const int64_t stack_axis = norm_axis(axis_attr.value_or(0), rank);
  if (stack_axis < 0 || stack_axis >= rank) return no_match();

  // Neighbours of the stack node by op type, in order of discovery.
  std::vector<std::pair<std::string, NodeList>> para_ops;
  auto add_para = [&](const NodePtr& n) {
    auto it = std::find_if(para_ops.begin(), para_ops.end(),
                           [&](const auto& e) { return e.first == n->op_type(); });
    if (it == para_ops.end()) it = para_ops.insert(para_ops.end(), {n->op_type(), {}});
    if (std::find(it->second.begin(), it->second.end(), n) == it->second.end()) it->second.push_back(n);
  };
  const std::vector<std::string> para_tensors =
      is_split ? stack_op.output.names() : stack_op.input.names();
  for (const std::string& t : para_tensors) {
    if (t.empty()) continue;
    const NodeList around = is_split ? ir.next_nodes(t) : ir.pre_nodes(t);
    for (const NodePtr& n : around) {
      if (!is_split && (ir.next_nodes(*n).size() > 1 || ir.is_output(t))) continue;
      add_para(n);
    }
  }
  size_t longest = 0;
  for (const auto& e : para_ops) longest = std::max(longest, e.second.size());
  if (longest < 2) return no_match();

  // Group each op type's nodes, in graph order, and plan each group.
  std::vector<GroupPlan> plans;
  for (auto& [op_type, found] : para_ops) {
    if (found.size() < 2) continue;
    std::sort(found.begin(), found.end(), [](const NodePtr& a, const NodePtr& b) {
      return a->order() != b->order() ? a->order() < b->order() : a->uid() < b->uid();
    });
    std::vector<NodeList> groups;
    for (const NodePtr& n : found) {
      auto g = std::find_if(groups.begin(), groups.end(),
                            [&](const NodeList& grp) { return joins_group(ir, *grp[0], *n); });
      if (g == groups.end()) groups.push_back({n});
      else g->push_back(n);
    }
    for (NodeList& grp : groups) {
      if (grp.size() <= 1) continue;
      if (auto plan = plan_group(ir, stack_op, stack_axis, grp)) plans.push_back(std::move(*plan));
    }
  }
  // A Concat (unless the joined input is a constant), the operator and a
  // Split per group: the merge must not grow the graph.
  size_t new_count = 0, removed_count = 0;
  for (const GroupPlan& p : plans) {
    new_count += (p.joined_const ? 0 : 1) + 2;
    removed_count += p.nodes.size();
  }
  if (plans.empty() || new_count > removed_count) return no_match();

  Graph g(ir);
  NodeList remove_nodes;
  for (const GroupPlan& p : plans) {
    const Node& n0 = *p.nodes[0];
    std::string new_in;
    if (p.joined_const) {
      std::string joined;
      for (const NodePtr& n : p.nodes) joined += (joined.empty() ? "" : "_cat") + n->input[p.sp_in_idx];
      new_in = oper_name_join(ir, joined, "", g.names_assign);
      g.names_assign.push_back(new_in);
      ir.set_const(new_in, *p.joined_const);
    } else {
      std::vector<OpInput> ins;
      for (const NodePtr& n : p.nodes) ins.emplace_back(n->input[p.sp_in_idx]);
      // Names come from the group's first node: a free name is then found
      // at once, however many merges the graph holds.
      const std::string cat_name = node_name_join(ir, n0.name(), "_concat", g.names_assign);
      g.names_assign.push_back(cat_name);
      new_in = g.op("Concat", ins, {{}, cat_name, {Attr::make_int("axis", stack_axis)}});
    }
    std::vector<std::string> outs;
    for (const NodePtr& n : p.nodes) outs.push_back(n->output[0]);
    const std::string mid = oper_name_join(ir, n0.output[0], "_merged", g.names_assign);
    g.names_assign.push_back(mid);
    const std::string split_name = node_name_join(ir, n0.name(), "_split", g.names_assign);
    g.names_assign.push_back(split_name);

    if (p.reduce_sum_to_einsum) {
      // Column k sums the rows of part k: a ReduceSum per part, kept apart.
      const Shape& in_shape = ir.get_shape(n0.input[0]);
      const int64_t n = static_cast<int64_t>(p.nodes.size());
      int64_t total = 0;
      for (int64_t l : p.in_length) total += l;
      std::vector<double> w(static_cast<size_t>(total * n), 0.0);
      int64_t row = 0;
      for (int64_t k = 0; k < n; ++k)
        for (int64_t r = 0; r < p.in_length[k]; ++r, ++row) w[row * n + k] = 1.0;
      const int32_t dtype = ir.get_dtype(n0.input[0]);
      std::string letters;
      for (size_t d = 0; d < in_shape.size(); ++d) letters += static_cast<char>('a' + d);
      const char fresh = static_cast<char>('a' + in_shape.size());
      std::string out_letters = letters;
      out_letters[stack_axis] = fresh;
      const std::string equation =
          letters + "," + letters[stack_axis] + fresh + "->" + out_letters;
      const std::string einsum_name = node_name_join(ir, n0.name(), "_einsum", g.names_assign);
      g.names_assign.push_back(einsum_name);
      g.op("Einsum", {new_in, NDArray::from_f64(w, {total, n}, dtype)},
           {{mid}, einsum_name, {Attr::make_string("equation", equation)}});
      Shape mid_shape = in_shape;
      mid_shape[stack_axis] = n;
      ir.set_shape(mid, mid_shape, false, dtype);
    } else {
      NodePtr new_op = n0.clone();
      new_op->output.set(0, mid);
      new_op->input.set(p.sp_in_idx, new_in);
      if (p.gather_indices) {
        const std::string& idx = n0.input[1];
        if (only_read_by(ir, idx, n0)) {
          ir.set_const(idx, *p.gather_indices);
        } else {
          const std::string own = oper_name_join(ir, idx, "_cat", g.names_assign);
          g.names_assign.push_back(own);
          ir.set_const(own, *p.gather_indices);
          new_op->input.set(1, own);
        }
      }
      g.nodes.push_back(new_op);
      Shape mid_shape = ir.get_shape(n0.output[0]);
      mid_shape[stack_axis] = 0;
      for (int64_t l : p.length) mid_shape[stack_axis] += l;
      ir.set_shape(mid, mid_shape, false, ir.get_dtype(n0.output[0]));
    }
    g.nodes.push_back(make_node_split(ir, {mid}, outs, stack_axis, p.length, split_name));
    remove_nodes.insert(remove_nodes.end(), p.nodes.begin(), p.nodes.end());
  }
  return {remove_nodes, g.nodes};
}

}  // namespace tolm
