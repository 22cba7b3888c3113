// Canonical forms: operators that only re-label the shape of their data
// become Reshape (most chain rules are written for it), a Reshape that keeps
// the data order becomes a Transpose (easier to cancel), and a Gather of a
// whole axis or of consecutive indices becomes a Reshape or a Slice, which
// the target runs better.
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

// Inputs of the Gather node this module rewrites: axis in range, constant
// indices as a flat list (a scalar is a list of one).
struct GatherParts {
  int64_t axis = 0;
  std::vector<int64_t> indices;
  size_t indices_ndim = 0;
};

std::optional<GatherParts> gather_parts(const IR& ir, const Node& gather, const Shape& i_shape) {
  if (gather.input.size() < 2) return std::nullopt;
  const NDArray* indices = ir.get_const(gather.input[1]);
  if (!indices || !dtype_is_integer(indices->dtype())) return std::nullopt;
  GatherParts p;
  p.axis = IR::get_attr_int(gather, "axis").value_or(0);
  const int64_t rank = static_cast<int64_t>(i_shape.size());
  if (p.axis < 0) p.axis += rank;
  if (p.axis < 0 || p.axis >= rank) return std::nullopt;
  p.indices = indices->to_i64();
  p.indices_ndim = indices->ndim();
  return p;
}

// Outputs past the first are unused (a Dropout's mask): a Reshape has none.
bool only_first_output_used(const IR& ir, const Node& node) {
  for (size_t k = 1; k < node.output.size(); ++k) {
    const std::string& o = node.output[k];
    if (!o.empty() && (ir.use_count(o) > 0 || ir.is_output(o))) return false;
  }
  return true;
}

}  // namespace

RuleResult _p_convert_reshape_to_transpose(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.empty()) return no_match();
  const NodePtr& reshape = nodes[0];
  if (reshape->input.empty() || reshape->output.empty()) return no_match();
  const std::string i_name = reshape->input[0];
  const std::string o_name = reshape->output[0];
  const Shape i_shape = ir.get_shape(i_name);
  const Shape o_shape = ir.get_shape(o_name);
  if (i_shape.empty() || o_shape.empty() || i_shape.size() != o_shape.size() || i_shape.size() != 4)
    return no_match();
  if (!squeeze_same(i_shape, o_shape)) return no_match();
  // A Reshape that changes nothing is remove_invalid_reshape's. Where that
  // cannot remove it (it joins two graph outputs), a Transpose in its place
  // would only be merged into an Identity and come back here, for ever.
  if (i_shape == o_shape) return no_match();
  // Each size of the output from the first unused place of the input.
  const Perm perm = get_equivalent_perm_for_reshape(i_shape, o_shape);
  if (perm.size() != 4) return no_match();

  Graph g(ir);
  g.op("Transpose", {i_name}, {{o_name}, reshape->name(), {Attr::make_ints("perm", perm)}});
  return {{reshape}, g.nodes};
}

RuleResult _p_convert_transpose_to_reshape(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.empty()) return no_match();
  const NodePtr& transpose = nodes[0];
  if (transpose->input.empty() || transpose->output.empty()) return no_match();
  const Shape in_shape = ir.get_shape(transpose->input[0]);
  const Shape out_shape = ir.get_shape(transpose->output[0]);
  if (in_shape.empty() || out_shape.empty()) return no_match();
  const auto perm = IR::get_attr_ints(*transpose, "perm");
  if (!perm || !is_perm_of(*perm, in_shape.size())) return no_match();
  Perm perm_not_1;
  for (int64_t p : *perm)
    if (in_shape[static_cast<size_t>(p)] != 1) perm_not_1.push_back(p);
  if (!std::is_sorted(perm_not_1.begin(), perm_not_1.end())) return no_match();
  // Such a node came out of converting a Reshape already.
  const std::string& name = transpose->name();
  const std::string tag = "_2rs";
  if (name.size() >= tag.size() && name.compare(name.size() - tag.size(), tag.size(), tag) == 0)
    return no_match();
  if (!shape_holds_data(out_shape)) return no_match();

  Graph g(ir);
  g.op("Reshape", {transpose->input[0], std::vector<int64_t>(out_shape)},
       {transpose->output.names(), name + "_2rs"});
  return {{transpose}, g.nodes};
}

RuleResult _p_convert_node_to_reshape(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.empty()) return no_match();
  const NodePtr& node = nodes[0];
  if (node->input.empty() || node->output.empty()) return no_match();
  const std::string input0 = node->input[0];
  const std::string output0 = node->output[0];
  const Shape in_shape = ir.get_shape(input0);
  const Shape out_shape = ir.get_shape(output0);
  if (in_shape.empty() || out_shape.empty()) return no_match();

  const std::string& op = node->op_type();
  if (op == "Expand" && shape_size(in_shape) != shape_size(out_shape)) return no_match();
  if (op == "Dropout") {
    // In training mode the node drops data; a mode that is computed may be.
    const bool has_mode = node->input.size() > 2 && !node->input[2].empty();
    const NDArray* training_mode = ir.get_const_optional(*node, 2);
    if (has_mode && (!training_mode || training_mode->any_greater(0.0) ||
                     training_mode->any_less(0.0)))
      return no_match();
  }
  // A Reshape has one output and a size-0 target would copy a dimension.
  if (!only_first_output_used(ir, *node) || !shape_holds_data(out_shape)) return no_match();

  // The node does nothing: the producer of its input takes over its output's
  // name (a graph output keeps it), and the input's other readers follow.
  // A graph input or output, or a constant, has no such producer.
  const bool in_io = ir.is_input(input0) || ir.is_output(input0);
  if (!in_io && in_shape == out_shape && can_move_output_name(ir, input0, output0) &&
      ir.get_dtype(input0) == ir.get_dtype(output0)) {
    NodeList rm_nod{node}, new_nod;
    for (const NodePtr& nod : ir.next_nodes(input0)) {
      if (nod == node) continue;
      rm_nod.push_back(nod);
      new_nod.push_back(nod);
    }
    const NodePtr prev = ir.producer(input0);
    move_output_name(ir, input0, output0, {node});
    // The driver takes these out and puts them back: their connections are
    // refreshed, and the producer comes back as a copy.
    rm_nod.push_back(prev);
    new_nod.push_back(prev->clone());
    return {rm_nod, new_nod};
  }

  Graph g(ir);
  g.op("Reshape", {input0, std::vector<int64_t>(out_shape)}, {{output0}, node->name() + "_2rs"});
  return {{node}, g.nodes};
}

RuleResult _p_convert_gather_to_reshape(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.empty()) return no_match();
  const NodePtr& gather = nodes[0];
  if (gather->input.empty() || gather->output.empty()) return no_match();
  const Shape i_shape = ir.get_shape(gather->input[0]);
  const Shape o_shape = ir.get_shape(gather->output[0]);
  if (i_shape.empty() || o_shape.empty()) return no_match();
  const auto parts = gather_parts(ir, *gather, i_shape);
  if (!parts) return no_match();
  // Every index of the axis, in order: the data keeps its order.
  const int64_t n = i_shape[static_cast<size_t>(parts->axis)];
  if (static_cast<int64_t>(parts->indices.size()) != n) return no_match();
  for (int64_t i = 0; i < n; ++i)
    if (parts->indices[static_cast<size_t>(i)] != i) return no_match();
  if (!shape_holds_data(o_shape)) return no_match();

  Graph g(ir);
  g.op("Reshape", {gather->input[0], std::vector<int64_t>(o_shape)},
       {{gather->output[0]}, gather->name() + "_2rs"});
  return {nodes, g.nodes};
}

RuleResult _p_convert_gather_to_slice_reshape(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.empty()) return no_match();
  const NodePtr& gather = nodes[0];
  if (gather->input.empty() || gather->output.empty()) return no_match();
  const Shape i_shape = ir.get_shape(gather->input[0]);
  if (i_shape.size() < 2) return no_match();
  const auto parts = gather_parts(ir, *gather, i_shape);
  if (!parts || parts->indices_ndim > 1 || parts->indices.empty()) return no_match();
  const std::vector<int64_t>& indices = parts->indices;
  for (size_t k = 1; k < indices.size(); ++k)
    if (indices[k] != indices[k - 1] + 1) return no_match();
  if (indices.front() < 0) return no_match();
  // Out of range, the Gather fails at run time; a Slice would clamp instead.
  if (indices.back() >= i_shape[static_cast<size_t>(parts->axis)]) return no_match();
  const Shape o_shape = ir.get_shape(gather->output[0]);
  if (!shape_holds_data(o_shape)) return no_match();

  Graph g(ir);
  const std::string slice_ = g.op(
      "Slice",
      {gather->input[0], std::vector<int64_t>{indices.front()}, std::vector<int64_t>{indices.back() + 1},
       std::vector<int64_t>{parts->axis}},
      {{}, gather->name() + "_2sl"});
  g.op("Reshape", {slice_, std::vector<int64_t>(o_shape)},
       {{gather->output[0]}, gather->name() + "_2rs"});
  return {nodes, g.nodes};
}

}  // namespace tolm
