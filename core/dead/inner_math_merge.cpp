// A Split whose parts meet again in one Concat, some of them through an Add,
// Sub, Mul or Div with a scalar: the math runs once on the whole tensor, with
// a constant vector along the split axis that holds each part's scalar (and
// the neutral value for the parts that went straight through).
#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "dead/dead.h"
#include "host/builder.h"
#include "host/helpers.h"

namespace tolm {
namespace {

std::optional<int64_t> axis_of(const Node& n, size_t rank, int64_t fallback_default) {
  const auto a = IR::get_attr_int(n, "axis");
  if (!a && fallback_default < 0) return std::nullopt;
  const int64_t v = a.value_or(fallback_default);
  const int64_t r = static_cast<int64_t>(rank);
  if (v < -r || v >= r) return std::nullopt;
  return v < 0 ? v + r : v;
}

}  // namespace

RuleResult _p_merge_inner_math_op_in_split_concat(IR& ir, const NodeList& nodes, QuantTable*) {
  static const std::vector<std::string> math_op = {"Add", "Mul", "Sub", "Div"};
  if (nodes.empty()) return no_match();
  const NodePtr& split = nodes[0];
  if (!ir.has_shape(split->input[0]) || ir.get_shape(split->input[0]).empty()) return no_match();
  const Shape in_shape = ir.get_shape(split->input[0]);
  const auto split_axis = axis_of(*split, in_shape.size(), 0);
  if (!split_axis) return no_match();

  NodePtr concat;
  std::vector<std::string> op_types;          // empty: the part goes straight through
  std::vector<std::optional<NDArray>> elements;
  std::vector<int64_t> indices;
  NodeList rm_ops{split};
  auto concat_fits = [&](const NodePtr& n) {
    if (n->op_type() != "Concat") return false;
    if (!concat) concat = n;
    return n == concat && axis_of(*n, in_shape.size(), -1) == split_axis;
  };
  auto position_in_concat = [&](const std::string& t) {
    return static_cast<int64_t>(std::find(concat->input.begin(), concat->input.end(), t) -
                                concat->input.begin());
  };
  for (const std::string& out : split->output) {
    const NodePtr next_node = single_reader(ir, out);
    if (!next_node) return no_match();
    if (next_node->op_type() == "Concat") {
      if (!concat_fits(next_node)) return no_match();
      op_types.emplace_back();
      elements.emplace_back();
      indices.push_back(position_in_concat(out));
      continue;
    }
    if (std::find(math_op.begin(), math_op.end(), next_node->op_type()) == math_op.end() ||
        next_node->input.size() != 2 || next_node->output.size() != 1)
      return no_match();
    const NodePtr nn_node = single_reader(ir, next_node->output[0]);
    if (!nn_node || !concat_fits(nn_node)) return no_match();
    const size_t another_in_idx = next_node->input[1] == out ? 0 : 1;
    const std::string& another_in = next_node->input[another_in_idx];
    const NDArray* c = ir.get_const(another_in);
    if (c == nullptr) return no_match();
    if (another_in_idx == 0 && (next_node->op_type() == "Sub" || next_node->op_type() == "Div"))
      return no_match();
    // One value, and no more axes than the part: it must not widen the result.
    if (c->size() != 1 || c->ndim() > in_shape.size() || c->dtype() != ir.get_dtype(out))
      return no_match();
    rm_ops.push_back(next_node);
    op_types.push_back(next_node->op_type());
    elements.emplace_back(*c);
    indices.push_back(position_in_concat(next_node->output[0]));
  }
  // The Concat joins these parts and nothing else.
  if (!concat || concat->input.size() != split->output.size()) return no_match();
  rm_ops.push_back(concat);

  std::string target_op_type;
  for (const std::string& t : op_types) {
    if (t.empty()) continue;
    if (!target_op_type.empty() && t != target_op_type) return no_match();
    target_op_type = t;
  }
  if (target_op_type.empty()) return no_match();
  // Parts that went straight through get the value that changes nothing,
  // signed zeros included: x + (-0) and x - (+0) are exact, x + (+0) is not.
  const double blank_value = target_op_type == "Add" ? -0.0 : target_op_type == "Sub" ? 0.0 : 1.0;

  const std::vector<int64_t> split_len = get_split_split(ir, *split);
  if (split_len.size() != split->output.size()) return no_match();
  int64_t total = 0;
  for (int64_t l : split_len) total += l;
  if (total != in_shape[*split_axis]) return no_match();

  int32_t dtype = dt::UNDEFINED;
  std::vector<double> new_vec;
  for (size_t i = 0; i < elements.size(); ++i) {
    const double v = elements[i] ? elements[i]->f64_at(0) : blank_value;
    if (elements[i] && dtype == dt::UNDEFINED) dtype = elements[i]->dtype();
    new_vec.insert(new_vec.end(), static_cast<size_t>(split_len[i]), v);
  }
  Shape target_shape(in_shape.size(), 1);
  target_shape[*split_axis] = total;
  const NDArray vec = dtype_is_float(dtype) ? NDArray::from_f64(new_vec, target_shape, dtype)
                                            : NDArray::from_i64(std::vector<int64_t>(new_vec.begin(), new_vec.end()),
                                                                target_shape, dtype);

  Graph g(ir);
  std::vector<int64_t> sorted = indices;
  std::sort(sorted.begin(), sorted.end());
  const std::string math_name = node_name_join(ir, split->name(), "_math");
  if (sorted == indices) {
    g.op(target_op_type, {split->input[0], vec}, {{concat->output[0]}, math_name});
  } else {
    // The parts were reordered: the Split and Concat stay, around the math.
    const std::string math_out = g.op(target_op_type, {split->input[0], vec}, {{}, math_name});
    NodePtr split_copy = split->clone();
    split_copy->input.set(0, math_out);
    g.nodes.push_back(split_copy);
    std::vector<OpInput> cat_in(indices.size());
    for (size_t k = 0; k < indices.size(); ++k) cat_in[indices[k]] = split->output[k];
    g.op("Concat", cat_in,
         {{concat->output[0]}, node_name_join(ir, concat->name(), "_reorder"),
          {Attr::make_int("axis", *split_axis)}});
  }
  return {rm_ops, g.nodes};
}

}  // namespace tolm
