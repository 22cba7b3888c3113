// A Transpose beside a Reshape whose 4-D tensor between them has a batch
// above 1: only axes of size 1 change places, so that the tensor gets batch 1
// and its other sizes a fixed layout, with the element order kept.
#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "chains/chains.h"
#include "host/edit.h"
#include "host/helpers.h"

namespace tolm {
namespace {

Shape _list_pop_1(const Shape& shape) {
  Shape out;
  for (int64_t d : shape)
    if (d != 1) out.push_back(d);
  return out;
}

// Batch 1, the sizes above 1 after it, padded with 1s to 4 axes.
std::optional<Shape> best_layout_of(const Shape& shape) {
  const Shape b = _list_pop_1(shape);
  switch (b.size()) {
    case 1:
      return Shape{1, b[0], 1, 1};
    case 2:
      return Shape{1, b[0], 1, b[1]};
    case 3:
      return Shape{1, b[0], b[1], b[2]};
    default:
      return std::nullopt;
  }
}

// Channels that fill the target's groups now and would not afterwards.
bool loses_channel_alignment(const Shape& now, const Shape& best) {
  return now[1] % 8 == 0 && best[1] < 8;
}

}  // namespace

RuleResult _p_fuse_transpose_reshape_avoid_batch(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.size() < 2) return no_match();
  const NodePtr& transpose = nodes[0];
  const NodePtr& reshape = nodes[1];
  if (transpose->input.empty() || reshape->input.empty()) return no_match();
  const Shape transpose_in = ir.get_shape(transpose->input[0]);
  const Shape transpose_out = ir.get_shape(transpose->output[0]);
  for (const NodePtr& next_node : ir.next_nodes(*reshape))
    if (next_node->op_type() == "Reshape") return no_match();
  if (transpose_in.size() != 4 || transpose_out.size() != 4) return no_match();
  if (!shape_holds_data(transpose_out)) return no_match();
  if (transpose_out[0] == 1) return no_match();
  const auto best_layout = best_layout_of(transpose_out);
  if (!best_layout) return no_match();
  if (loses_channel_alignment(transpose_out, *best_layout)) return no_match();

  auto src_perm = IR::get_attr_ints(*transpose, "perm");
  if (!src_perm || !is_perm_of(*src_perm, 4)) return no_match();
  // The axes of size 1 go first, the others keep their order.
  Perm new_perm;
  for (size_t i = 0; i < transpose_out.size(); ++i) {
    if (transpose_out[i] != 1) continue;
    const size_t index_after_pop = i - new_perm.size();
    new_perm.push_back((*src_perm)[index_after_pop]);
    src_perm->erase(src_perm->begin() + static_cast<std::ptrdiff_t>(index_after_pop));
  }
  new_perm.insert(new_perm.end(), src_perm->begin(), src_perm->end());
  if (apply_perm(new_perm, transpose_in) != *best_layout) return no_match();
  // The Transpose's output takes another shape: the Reshape must be its only
  // reader, with a target that copies no dimension of it.
  if (reshape->input[0] != transpose->output[0] ||
      !only_read_by(ir, transpose->output[0], *reshape) || !can_pin_reshape_target(ir, *reshape))
    return no_match();

  NodePtr transpose_new = copy_with_attrs(*transpose, {Attr::make_ints("perm", new_perm)});
  pin_reshape_target(ir, *reshape);
  ir.set_shape(transpose_new->output[0], *best_layout);
  return {{transpose}, {transpose_new}};
}

RuleResult _p_fuse_reshape_transpose_avoid_batch(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.size() < 2) return no_match();
  const NodePtr& reshape = nodes[0];
  const NodePtr& transpose = nodes[1];
  if (reshape->input.size() < 2 || transpose->input.empty()) return no_match();
  for (const NodePtr& next_node : ir.next_nodes(*transpose))
    if (next_node->op_type() == "Transpose") return no_match();
  const Shape reshape_in = ir.get_shape(reshape->input[0]);
  const Shape transpose_in = ir.get_shape(transpose->input[0]);
  const Shape transpose_out = ir.get_shape(transpose->output[0]);
  if (reshape_in == transpose_in) return no_match();
  if (transpose_in.size() != 4 || reshape_in.size() != 4) return no_match();
  if (!shape_holds_data(transpose_in)) return no_match();
  if (transpose_in[0] == 1) return no_match();
  const auto best_layout = best_layout_of(transpose_in);
  if (!best_layout) return no_match();
  if (loses_channel_alignment(transpose_in, *best_layout)) return no_match();

  // Where each size of best_layout comes from in transpose_in; a size that
  // repeats takes its next place.
  Perm sort_index;
  for (int64_t d : *best_layout) {
    int64_t idx = index_of(transpose_in, d);
    if (idx >= 0 && std::find(sort_index.begin(), sort_index.end(), idx) != sort_index.end()) {
      const auto begin_idx = transpose_in.begin() + idx + 1;
      const auto it = std::find(begin_idx, transpose_in.end(), d);
      idx = it == transpose_in.end() ? -1 : static_cast<int64_t>(it - transpose_in.begin());
    }
    if (idx < 0) return no_match();
    sort_index.push_back(idx);
  }
  // A size found three times can land on one place twice: no permutation.
  if (!is_perm_of(sort_index, 4)) return no_match();
  if (apply_perm(sort_index, transpose_in) != *best_layout) return no_match();
  const auto src_perm = IR::get_attr_ints(*transpose, "perm");
  if (!src_perm || !is_perm_of(*src_perm, 4)) return no_match();
  Perm new_perm;
  for (int64_t p : *src_perm) new_perm.push_back(index_of(sort_index, p));
  if (apply_perm(new_perm, *best_layout) != transpose_out) return no_match();
  // The Reshape's output takes another shape: only the Transpose may read it.
  if (transpose->input[0] != reshape->output[0] ||
      !only_read_by(ir, reshape->output[0], *transpose))
    return no_match();

  set_own_const(ir, *reshape, 1, NDArray::from_i64(*best_layout), "_fuse");
  NodePtr reshape_new = reshape->clone();
  NodePtr transpose_new = copy_with_attrs(*transpose, {Attr::make_ints("perm", new_perm)});
  ir.set_shape(reshape_new->output[0], *best_layout);
  return {{reshape, transpose}, {reshape_new, transpose_new}};
}

}  // namespace tolm
