// Split and Concat rules: pieces that are cut apart only to be joined again
// (in order, in another order, on another axis, or combined pairwise) need
// fewer data-movement nodes.
#include <algorithm>
#include <cstdint>
#include <functional>
#include <numeric>
#include <optional>
#include <string>
#include <vector>

#include "host/builder.h"
#include "host/edit.h"
#include "host/helpers.h"
#include "restructure/restructure.h"

namespace tolm {
namespace {

using Ints = std::vector<int64_t>;

int64_t split_axis_of(const Node& split) { return IR::get_attr_int(split, "axis").value_or(0); }

// Position of `axis` in a shape of `rank` (negative counts from the back), or
// absent when it lies outside.
std::optional<size_t> axis_pos(int64_t axis, size_t rank) {
  const int64_t r = static_cast<int64_t>(rank);
  const int64_t a = axis < 0 ? axis + r : axis;
  if (a < 0 || a >= r) return std::nullopt;
  return static_cast<size_t>(a);
}

bool is_output_of(const Node& node, const std::string& t) {
  return std::find(node.output.begin(), node.output.end(), t) != node.output.end();
}

bool any_graph_output(const IR& ir, const Node& node) {
  for (const std::string& o : node.output)
    if (ir.is_output(o)) return true;
  return false;
}

// Every output of `node` is read by `reader` alone (or not at all).
bool outputs_only_read_by(const IR& ir, const Node& node, const Node& reader) {
  for (const std::string& o : node.output)
    if (!o.empty() && (ir.use_count(o) > 0 || ir.is_output(o)) && !only_read_by(ir, o, reader))
      return false;
  return true;
}

}  // namespace

RuleResult _p_remove_concat_split(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.size() < 2) return no_match();
  const NodePtr& concat = nodes[0];
  const NodePtr& split = nodes[1];
  if (split->input.empty() || concat->output.empty() || split->input[0] != concat->output[0])
    return no_match();
  if (any_graph_output(ir, *split)) return no_match();
  const auto axis_0 = IR::get_attr_int(*concat, "axis");
  if (!axis_0 || *axis_0 != split_axis_of(*split)) return no_match();
  if (concat->input.size() != split->output.size()) return no_match();
  Ints split_0;
  for (const std::string& inp : concat->input) {
    const Shape& s = ir.get_shape(inp);
    const auto a = axis_pos(*axis_0, s.size());
    if (s.empty() || !a) return no_match();
    split_0.push_back(s[*a]);
  }
  if (split_0 != get_split_split(ir, *split, true)) return no_match();
  for (const std::string& out : split->output)
    if (has_implicit_reader(ir, out)) return no_match();

  // The Concat goes with the Split unless others still read it.
  const bool concat_goes = only_read_by(ir, concat->output[0], *split);
  for (size_t i = 0; i < split->output.size(); ++i)
    replace_all_uses(ir, split->output[i], concat->input[i]);
  if (concat_goes) return {{concat, split}, {}};
  return {{split}, {}};
}

RuleResult _p_fuse_split_concat(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.empty()) return no_match();
  const NodePtr& split = nodes[0];
  const NDArray* len_c = ir.get_const_optional(*split, 1);
  if (split->input.size() < 2 || !len_c) return no_match();
  const Ints split_length = len_c->to_i64();
  if (split_length.size() != split->output.size()) return no_match();
  const int64_t axis = split_axis_of(*split);
  Graph g(ir);

  for (const NodePtr& concat : ir.next_nodes(*split)) {
    if (concat->op_type() != "Concat" || IR::get_attr_int(*concat, "axis") != axis) continue;
    std::vector<std::vector<std::string>> in_from_split_groups;
    std::vector<std::string> part_in;
    for (const std::string& in : concat->input) {
      const bool qualifies = is_output_of(*split, in) && only_read_by(ir, in, *concat);
      if (qualifies) {
        part_in.push_back(in);
      } else if (!part_in.empty()) {
        in_from_split_groups.push_back(part_in);
        part_in.clear();
      }
    }
    if (!part_in.empty()) in_from_split_groups.push_back(part_in);

    for (const auto& group : in_from_split_groups) {
      Ints part_idx;
      for (const std::string& in : group)
        for (size_t k = 0; k < split->output.size(); ++k)
          if (split->output[k] == in) part_idx.push_back(static_cast<int64_t>(k));
      bool run = true;
      for (size_t k = 0; k < part_idx.size(); ++k) run = run && part_idx[k] == part_idx[0] + static_cast<int64_t>(k);
      if (!run) continue;
      // One piece of several, renamed, saves nothing and would match again
      // on its own result.
      if (group.size() == 1 && split->output.size() > 1) continue;
      // The group's tensors stand together in the Concat and nowhere else in
      // it, so the run they occupy is exactly what the new piece replaces.
      std::vector<size_t> concat_in_idx;
      for (size_t k = 0; k < concat->input.size(); ++k)
        if (std::find(group.begin(), group.end(), concat->input[k]) != group.end()) concat_in_idx.push_back(k);
      if (concat_in_idx.size() != group.size() ||
          concat_in_idx.back() - concat_in_idx.front() + 1 != group.size())
        continue;
      const bool whole_concat = group.size() == concat->input.size();
      const std::string cat_out = concat->output[0];
      if (whole_concat && has_implicit_reader(ir, cat_out)) continue;

      NodeList rm_nodes{split, concat}, new_nodes;
      std::string new_concat_in;
      if (group.size() == split->output.size()) {
        new_concat_in = split->input[0];
      } else {
        new_concat_in = oper_name_join(ir, split->name(), "_mr_concat", split->output.names());
        const auto start = static_cast<size_t>(part_idx.front());
        const auto end = static_cast<size_t>(part_idx.back());
        int64_t new_sp_length = 0;
        for (size_t k = start; k <= end; ++k) new_sp_length += split_length[k];
        std::vector<std::string> outs(split->output.begin(), split->output.begin() + static_cast<std::ptrdiff_t>(start));
        outs.push_back(new_concat_in);
        outs.insert(outs.end(), split->output.begin() + static_cast<std::ptrdiff_t>(end + 1), split->output.end());
        Ints lens(split_length.begin(), split_length.begin() + static_cast<std::ptrdiff_t>(start));
        lens.push_back(new_sp_length);
        lens.insert(lens.end(), split_length.begin() + static_cast<std::ptrdiff_t>(end + 1), split_length.end());
        new_nodes.push_back(make_node_split(ir, {split->input[0]}, outs, axis, lens, split->name()));
      }
      if (whole_concat) {
        if (ir.is_output(cat_out)) {
          g.op("Identity", {new_concat_in}, OpSpec{{cat_out}});
          new_nodes.insert(new_nodes.end(), g.nodes.begin(), g.nodes.end());
        } else {
          replace_all_uses(ir, cat_out, new_concat_in);
        }
      } else {
        std::vector<std::string> ins(concat->input.begin(),
                                     concat->input.begin() + static_cast<std::ptrdiff_t>(concat_in_idx.front()));
        ins.push_back(new_concat_in);
        ins.insert(ins.end(), concat->input.begin() + static_cast<std::ptrdiff_t>(concat_in_idx.back() + 1),
                   concat->input.end());
        NodePtr new_concat = concat->clone();
        new_concat->input.assign(ins);
        new_nodes.push_back(new_concat);
      }
      return {rm_nodes, new_nodes};
    }
  }
  return no_match();
}

RuleResult _p_fuse_split_split(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.empty()) return no_match();
  const NodePtr& split_0 = nodes[0];
  const int64_t axis = split_axis_of(*split_0);
  if (split_0->input.size() < 2) return no_match();
  for (const NodePtr& split_1 : ir.next_nodes(*split_0)) {
    if (split_1->op_type() != "Split" || split_axis_of(*split_1) != axis || split_1->input.size() < 2) continue;
    const std::string piece = split_1->input[0];
    if (!only_read_by(ir, piece, *split_1)) continue;
    // The second Split must cut a piece of the first, not read one as its
    // lengths.
    const auto at = std::find(split_0->output.begin(), split_0->output.end(), piece);
    if (at == split_0->output.end()) continue;
    const auto out_idx = static_cast<size_t>(at - split_0->output.begin());
    const NDArray* len_0 = ir.get_const_optional(*split_0, 1);
    const NDArray* len_1 = ir.get_const_optional(*split_1, 1);
    if (!len_0 || !len_1) continue;
    const Ints l0 = len_0->to_i64(), l1 = len_1->to_i64();
    if (l0.size() != split_0->output.size() || l1.size() != split_1->output.size()) continue;

    Ints lens(l0.begin(), l0.begin() + static_cast<std::ptrdiff_t>(out_idx));
    lens.insert(lens.end(), l1.begin(), l1.end());
    lens.insert(lens.end(), l0.begin() + static_cast<std::ptrdiff_t>(out_idx + 1), l0.end());
    std::vector<std::string> outs(split_0->output.begin(), split_0->output.begin() + static_cast<std::ptrdiff_t>(out_idx));
    outs.insert(outs.end(), split_1->output.begin(), split_1->output.end());
    outs.insert(outs.end(), split_0->output.begin() + static_cast<std::ptrdiff_t>(out_idx + 1), split_0->output.end());
    return {{split_0, split_1}, {make_node_split(ir, {split_0->input[0]}, outs, axis, lens, split_0->name())}};
  }
  return no_match();
}

RuleResult _p_replace_split_concat_by_reshape(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.size() < 2) return no_match();
  const NodePtr& split = nodes[0];
  const NodePtr& concat = nodes[1];
  if (split->output.size() != concat->input.size()) return no_match();
  for (size_t i = 0; i < split->output.size(); ++i)
    if (split->output[i] != concat->input[i]) return no_match();
  // The Split goes: its pieces must have no reader but the Concat.
  if (!outputs_only_read_by(ir, *split, *concat)) return no_match();
  const Shape i_shape = ir.get_shape(split->input[0]);
  if (i_shape.empty()) return no_match();
  // Axes as positions: -1 and 0 are no order of axes.
  const auto split_axis = axis_pos(split_axis_of(*split), i_shape.size());
  const auto cat_attr = IR::get_attr_int(*concat, "axis");
  if (!split_axis || !cat_attr) return no_match();
  const auto concat_axis = axis_pos(*cat_attr, i_shape.size());
  if (!concat_axis) return no_match();
  auto prod = [&](size_t from, size_t to) {
    int64_t p = 1;
    for (size_t k = from; k < to; ++k) p *= i_shape[k];
    return p;
  };
  if (*concat_axis < *split_axis && prod(*concat_axis, *split_axis) != 1) return no_match();
  if (*split_axis < *concat_axis) {
    const Ints split_split = get_split_split(ir, *split, true);
    if (split_split.empty()) return no_match();
    int64_t p = 1;
    for (int64_t v : split_split) p *= v;
    if (p != 1 || prod(*split_axis + 1, *concat_axis) != 1) return no_match();
  }
  const std::string out_name = concat->output[0];
  const Shape out_shape = ir.get_shape(out_name);
  if (!shape_holds_data(out_shape)) return no_match();
  Graph g(ir);
  g.op("Reshape", {split->input[0], NDArray::from_i64(out_shape)}, OpSpec{{out_name}, split->name() + "_2rs"});
  return {{split, concat}, g.nodes};
}

RuleResult _p_fuse_two_concat(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.size() < 2) return no_match();
  const NodePtr& concat_1 = nodes[0];
  const NodePtr& concat_2 = nodes[1];
  const auto axis_1 = IR::get_attr_int(*concat_1, "axis");
  const auto axis_2 = IR::get_attr_int(*concat_2, "axis");
  const bool same_axis = axis_1 && axis_1 == axis_2;
  const bool only_used_by_concat_2 = only_read_by(ir, concat_1->output[0], *concat_2);
  if (!same_axis || !only_used_by_concat_2) return no_match();
  std::vector<std::string> ins;
  for (const std::string& t : concat_2->input) {
    if (t == concat_1->output[0])
      ins.insert(ins.end(), concat_1->input.begin(), concat_1->input.end());
    else
      ins.push_back(t);
  }
  NodePtr new_concat_2 = Node::make("Concat", ins, concat_2->output.names(), concat_2->name(),
                                    {Attr::make_int("axis", *axis_2)});
  return {{concat_1, concat_2}, {new_concat_2}};
}

RuleResult _p_fuse_dim_shuffle_split_concat_to_gather(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.size() < 2) return no_match();
  const NodePtr& split = nodes[0];
  const NodePtr& concat = nodes[1];
  if (ir.get_shape(split->input[0]).size() != 4) return no_match();
  const int64_t split_axis = split_axis_of(*split);
  if (IR::get_attr_int(*concat, "axis") != split_axis) return no_match();
  std::vector<size_t> idx_from_split;
  for (const std::string& in : concat->input) {
    if (!is_output_of(*split, in)) return no_match();
    idx_from_split.push_back(std::find(split->output.begin(), split->output.end(), in) - split->output.begin());
  }
  const NodeList next_nodes = ir.next_nodes(*split);
  if (next_nodes.size() != 1 || next_nodes[0] != concat) return no_match();
  // The Split goes: none of its pieces may be a graph output.
  if (any_graph_output(ir, *split)) return no_match();
  Ints split_nums;
  if (ir.opset() < 13) {
    const auto attr = IR::get_attr_ints(*split, "split");
    if (!attr) return no_match();
    split_nums = *attr;
  } else {
    const NDArray* c = split->input.size() > 1 ? ir.get_const(split->input[1]) : nullptr;
    if (!c || c->ndim() != 1) return no_match();
    split_nums = c->to_i64();
  }
  if (split_nums.size() != split->output.size()) return no_match();
  Ints split_points{0};
  for (int64_t n : split_nums) split_points.push_back(split_points.back() + n);
  Ints gather_idx;
  for (size_t idx : idx_from_split)
    for (int64_t v = split_points[idx]; v < split_points[idx + 1]; ++v) gather_idx.push_back(v);
  const Shape& out_shape = ir.get_shape(concat->output[0]);
  if (const auto a = axis_pos(split_axis, out_shape.size());
      a && out_shape[*a] != static_cast<int64_t>(gather_idx.size()))
    return no_match();
  Graph g(ir);
  g.op("Gather", {split->input[0], NDArray::from_i64(gather_idx)},
       OpSpec{{concat->output[0]}, concat->name() + "_2gather", {Attr::make_int("axis", split_axis)}});
  return {{split, concat}, g.nodes};
}

RuleResult _p_fuse_split_split_elements_op(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.empty()) return no_match();
  static const std::vector<std::string> elements_op_type = {"Add", "Mul", "Sub", "Div"};
  auto _unique_elements_next = [&](const Node& _split) {
    const NodeList _n_node = ir.next_nodes(_split);
    if (_n_node.empty()) return false;
    const std::string& t = _n_node[0]->op_type();
    for (const NodePtr& n : _n_node)
      if (n->op_type() != t) return false;
    if (std::find(elements_op_type.begin(), elements_op_type.end(), t) == elements_op_type.end()) return false;
    return !any_graph_output(ir, _split);
  };
  const NodePtr& split_1 = nodes[0];
  if (!_unique_elements_next(*split_1)) return no_match();
  const NodeList next_nodes = ir.next_nodes(*split_1);
  const NodeList para = ir.pre_nodes(*next_nodes[0]);
  if (para.size() < 2) return no_match();
  const NodePtr split_2 = para[1] == split_1 ? para[0] : para[1];
  if (split_2->op_type() != "Split" || split_2 == split_1) return no_match();
  if (!_unique_elements_next(*split_2)) return no_match();
  const NDArray* len_1 = ir.get_const_optional(*split_1, 1);
  const NDArray* len_2 = ir.get_const_optional(*split_2, 1);
  if (!len_1 || !len_2) return no_match();
  const Ints split_1_len = len_1->to_i64(), split_2_len = len_2->to_i64();
  const int64_t split_1_axis = split_axis_of(*split_1);
  if (split_1_axis != split_axis_of(*split_2)) return no_match();
  const Shape& s1 = ir.get_shape(split_1->input[0]);
  if (s1.empty() || s1 != ir.get_shape(split_2->input[0])) return no_match();
  if (ir.get_dtype(split_1->input[0]) != ir.get_dtype(split_2->input[0])) return no_match();
  if (split_1_len != split_2_len || split_1->output.size() != split_2->output.size()) return no_match();

  const NodePtr& base_nod = next_nodes[0];
  // The op of each pair, in the order of the pieces: the new Split's
  // outputs follow the pieces, whatever order the graph lists the ops in.
  NodeList pair_ops;
  for (size_t k = 0; k < split_1->output.size(); ++k) {
    const std::string& sp1 = split_1->output[k];
    const std::string& sp2 = split_2->output[k];
    const NodeList readers = ir.next_nodes(sp1);
    if (readers.size() != 1) return no_match();
    const NodePtr& nod = readers[0];
    // Both pieces feed this op, and nothing else reads either of them.
    if (nod->input.size() != 2 || !only_read_by(ir, sp1, *nod) || !only_read_by(ir, sp2, *nod))
      return no_match();
    if (!((nod->input[0] == sp1 && nod->input[1] == sp2) || (nod->input[0] == sp2 && nod->input[1] == sp1)))
      return no_match();
    if ((nod->op_type() == "Sub" || nod->op_type() == "Div") && nod->input.names() != base_nod->input.names())
      return no_match();
    // Pairs of Add or Mul may put their operands either way round.
    pair_ops.push_back(nod);
  }
  if (pair_ops.size() != next_nodes.size()) return no_match();

  NodeList rm_ops{split_1, split_2};
  rm_ops.insert(rm_ops.end(), next_nodes.begin(), next_nodes.end());
  Graph g(ir);
  const bool first_is_1 = is_output_of(*split_1, base_nod->input[0]);
  const std::string in_a = first_is_1 ? split_1->input[0] : split_2->input[0];
  const std::string in_b = first_is_1 ? split_2->input[0] : split_1->input[0];
  // The whole-tensor op takes the name of the first; the old one goes first.
  const std::string e_out = g.op(base_nod->op_type(), {in_a, in_b}, OpSpec{{}, base_nod->name()});
  std::vector<std::string> outs;
  for (const NodePtr& n : pair_ops) outs.push_back(n->output[0]);
  g.nodes.push_back(make_node_split(ir, {e_out}, outs, split_1_axis, split_1_len, split_1->name()));
  return {rm_ops, g.nodes};
}

}  // namespace tolm
