// Two chained ScatterND writes whose updates differ in size on one axis
// besides the one they are joined on: the smaller write is padded to the
// larger one's grid with the values the constant data already holds there,
// which changes nothing, and the two become one write.
#include <algorithm>
#include <set>

#include "host/builder.h"
#include "host/edit.h"
#include "host/helpers.h"
#include "host/ndarray_join.h"
#include "scatternd/scatternd.h"

namespace tolm {
namespace {

using scatternd_detail::ScatterPair;

// Row-major strides of a shape.
std::vector<int64_t> strides_of(const Shape& s) {
  std::vector<int64_t> st(s.size(), 1);
  for (int64_t d = static_cast<int64_t>(s.size()) - 2; d >= 0; --d) st[d] = st[d + 1] * s[d + 1];
  return st;
}

// Flat offset in the data of the block an index row points at.
int64_t block_start(const Shape& data_shape, const int64_t* row, int64_t k) {
  const std::vector<int64_t> st = strides_of(data_shape);
  int64_t off = 0;
  for (int64_t d = 0; d < k; ++d) off += row[d] * st[d];
  return off;
}

struct PadPlan {
  std::vector<int64_t> require_indices;  // the padded write's indices, of the normal shape
  NDArray update_pad;
  bool pad_first = false;
};

// The padded indices of the narrower write, the values its pad writes, and
// whether the pad goes ahead of its updates. Absent when the narrower write
// does not sit on the grid of the other, or the pad would sit in the middle.
std::optional<PadPlan> get_pad_indices_update(const NDArray& data_const, const Shape& data_shape,
                                              const std::vector<int64_t>& indices_misalign,
                                              const Shape& indices_norm_shape,
                                              const Shape& indices_misalign_shape,
                                              int64_t update_concat_axis, int64_t indices_concat_axis) {
  const int64_t r = static_cast<int64_t>(indices_norm_shape.size());
  const int64_t k = indices_norm_shape.back();
  // The last axis holds the index tuple of the other axes: one column each.
  if (k != r - 1) return std::nullopt;
  Shape pad_shape = indices_norm_shape;
  pad_shape[update_concat_axis] -= indices_misalign_shape[update_concat_axis];
  const int64_t pad_n = pad_shape[update_concat_axis];
  if (pad_n <= 0) return std::nullopt;

  PadPlan plan;
  const Shape grid(indices_norm_shape.begin(), indices_norm_shape.end() - 1);
  const int64_t rows = shape_size(grid);
  const std::vector<int64_t> gst = strides_of(grid);
  plan.require_indices.resize(static_cast<size_t>(rows * k));
  for (int64_t q = 0; q < rows; ++q)
    for (int64_t c = 0; c < k; ++c)
      plan.require_indices[q * k + c] =
          c == indices_concat_axis ? indices_norm_shape[indices_concat_axis] : (q / gst[c]) % grid[c];

  // Columns other than the padded one hold nothing new; the padded one the
  // pad's values.
  std::vector<int64_t> diff_elem_uca;
  for (int64_t c = 0; c < k; ++c) {
    std::set<int64_t> have, missing;
    for (size_t e = static_cast<size_t>(c); e < indices_misalign.size(); e += static_cast<size_t>(k))
      have.insert(indices_misalign[e]);
    for (int64_t q = 0; q < rows; ++q)
      if (!have.count(plan.require_indices[q * k + c])) missing.insert(plan.require_indices[q * k + c]);
    if (c == update_concat_axis) {
      if (static_cast<int64_t>(missing.size()) != pad_n) return std::nullopt;
      diff_elem_uca.assign(missing.begin(), missing.end());
    } else if (!missing.empty()) {
      return std::nullopt;
    }
  }
  std::vector<int64_t> head(static_cast<size_t>(pad_n)), tail(static_cast<size_t>(pad_n));
  for (int64_t i = 0; i < pad_n; ++i) {
    head[i] = i;
    tail[i] = indices_norm_shape[update_concat_axis] - pad_n + i;
  }
  if (diff_elem_uca == head) plan.pad_first = true;
  else if (diff_elem_uca != tail) return std::nullopt;

  // The pad rows: rows of the grid the narrower write lacks, in order.
  std::set<std::vector<int64_t>> mis_rows;
  for (size_t e = 0; e + k <= indices_misalign.size(); e += static_cast<size_t>(k))
    mis_rows.emplace(indices_misalign.begin() + e, indices_misalign.begin() + e + k);
  std::vector<std::vector<int64_t>> pad_rows;
  for (int64_t q = 0; q < rows; ++q) {
    std::vector<int64_t> row(plan.require_indices.begin() + q * k, plan.require_indices.begin() + (q + 1) * k);
    if (!mis_rows.count(row)) pad_rows.push_back(row);
  }
  std::sort(pad_rows.begin(), pad_rows.end());
  if (static_cast<int64_t>(pad_rows.size()) != shape_size(pad_shape) / k) return std::nullopt;
  const int64_t block = shape_size(data_shape) / shape_size(Shape(data_shape.begin(), data_shape.begin() + k));
  std::vector<double> values;
  values.reserve(static_cast<size_t>(pad_rows.size() * block));
  for (std::vector<int64_t>& row : pad_rows) {
    row[indices_concat_axis] = pad_shape[indices_concat_axis] - 1;
    const int64_t start = block_start(data_shape, row.data(), k);
    for (int64_t e = 0; e < block; ++e) values.push_back(data_const.f64_at(start + e));
  }
  Shape upd_shape(pad_shape.begin(), pad_shape.end() - 1);
  upd_shape.insert(upd_shape.end(), data_shape.begin() + k, data_shape.end());
  plan.update_pad = NDArray::from_f64(values, upd_shape, data_const.dtype());
  return plan;
}

// The padded write does what the narrower one did, and where it writes
// more, it writes what the data holds there: each row of the new grid takes
// its update from the old write (at the same place) or from the pad (the
// data's value at that place).
bool pad_keeps_numbers(const PadPlan& plan, const NDArray& data_const, const Shape& data_shape,
                       const std::vector<int64_t>& indices_misalign, const Shape& indices_norm_shape,
                       const Shape& indices_misalign_shape, int64_t uca) {
  const int64_t k = indices_norm_shape.back();
  const Shape grid(indices_norm_shape.begin(), indices_norm_shape.end() - 1);
  const Shape mis_grid(indices_misalign_shape.begin(), indices_misalign_shape.end() - 1);
  Shape pad_grid = grid;
  pad_grid[uca] -= mis_grid[uca];
  const std::vector<int64_t> gst = strides_of(grid), mst = strides_of(mis_grid), pst = strides_of(pad_grid);
  const int64_t block = shape_size(data_shape) / shape_size(Shape(data_shape.begin(), data_shape.begin() + k));
  for (int64_t q = 0, rows = shape_size(grid); q < rows; ++q) {
    const int64_t* row = &plan.require_indices[q * k];
    int64_t at = (q / gst[uca]) % grid[uca];
    const bool in_pad = plan.pad_first ? at < pad_grid[uca] : at >= mis_grid[uca];
    if (!in_pad && plan.pad_first) at -= pad_grid[uca];
    if (in_pad && !plan.pad_first) at -= mis_grid[uca];
    const std::vector<int64_t>& sst = in_pad ? pst : mst;
    int64_t flat = 0;
    for (size_t d = 0; d < grid.size(); ++d)
      flat += (static_cast<int64_t>(d) == uca ? at : (q / gst[d]) % grid[d]) * sst[d];
    if (!in_pad) {
      if (!std::equal(row, row + k, indices_misalign.begin() + flat * k)) return false;
      continue;
    }
    const int64_t start = block_start(data_shape, row, k);
    for (int64_t e = 0; e < block; ++e)
      if (plan.update_pad.f64_at(flat * block + e) != data_const.f64_at(start + e)) return false;
  }
  return true;
}

}  // namespace

RuleResult _p_fuse_two_scatternd2(IR& ir, const NodeList& nodes, QuantTable*) {
  auto pair = scatternd_detail::fusable_pair(ir, nodes);
  if (!pair) return no_match();
  const NodePtr& scatternd_1 = nodes[0];
  const NodePtr& scatternd_2 = nodes[1];
  const ScatterPair& p = *pair;
  if (scatternd_detail::reduction_of(*scatternd_1) != "none") return no_match();
  const auto indices_concat_axis = scatternd_detail::side_by_side_axis(p);
  if (!indices_concat_axis) return no_match();
  const int64_t k = p.indices_1_shape.back();

  std::vector<int64_t> update_diff_dim;
  for (int64_t d = 0; d < 4; ++d)
    if (d != *indices_concat_axis && p.update_1_shape[d] != p.update_2_shape[d]) update_diff_dim.push_back(d);
  if (update_diff_dim.size() > 1) return no_match();

  std::vector<int64_t> indices_1 = p.indices_1, indices_2 = p.indices_2;
  Shape ind1_shape = p.indices_1_shape, ind2_shape = p.indices_2_shape;
  std::optional<PadPlan> pad;
  int pad_side = -1;  // 0: scatternd_1 is padded, 1: scatternd_2
  if (!update_diff_dim.empty()) {
    const int64_t uca = update_diff_dim[0];
    const NDArray* data_const = ir.get_const(scatternd_1->input[0]);
    if (data_const == nullptr || data_const->dtype() == dt::STRING || uca >= static_cast<int64_t>(ind1_shape.size()) - 1) return no_match();
    pad_side = ind1_shape[uca] > ind2_shape[uca] ? 1 : 0;
    const std::vector<int64_t>& mis = pad_side == 1 ? indices_2 : indices_1;
    const Shape& norm_shape = pad_side == 1 ? ind1_shape : ind2_shape;
    const Shape& mis_shape = pad_side == 1 ? ind2_shape : ind1_shape;
    pad = get_pad_indices_update(*data_const, p.data_shape, mis, norm_shape, mis_shape, uca, *indices_concat_axis);
    if (!pad || !pad_keeps_numbers(*pad, *data_const, p.data_shape, mis, norm_shape, mis_shape, uca))
      return no_match();
    (pad_side == 1 ? indices_2 : indices_1) = pad->require_indices;
    (pad_side == 1 ? ind2_shape : ind1_shape) = norm_shape;
  }
  // One write holds each place once: the writes, padded, must be disjoint.
  if (!scatternd_detail::rows_disjoint(indices_1, indices_2, k)) return no_match();
  for (size_t d = 0; d < ind1_shape.size(); ++d)
    if (static_cast<int64_t>(d) != *indices_concat_axis && ind1_shape[d] != ind2_shape[d]) return no_match();
  const int32_t idx_type = ir.get_const(scatternd_1->input[1])->dtype();
  const NDArray a1 = NDArray::from_i64(indices_1, ind1_shape, idx_type);
  const NDArray a2 = NDArray::from_i64(indices_2, ind2_shape, idx_type);
  const auto indices_concat = concat_arrays({&a1, &a2}, *indices_concat_axis);
  if (!indices_concat) return no_match();

  Graph g(ir);
  std::string updates[2] = {scatternd_1->input[2], scatternd_2->input[2]};
  if (pad) {
    const Node& padded = pad_side == 1 ? *scatternd_2 : *scatternd_1;
    const std::string update_pad_name = oper_name_join(ir, padded.input[2], "_pad");
    ir.set_const(update_pad_name, pad->update_pad);
    std::vector<OpInput> ins{update_pad_name, padded.input[2]};
    if (!pad->pad_first) std::swap(ins[0], ins[1]);
    updates[pad_side] = g.op("Concat", ins,
                             {{}, padded.name() + "_pad_for_update", {Attr::make_int("axis", update_diff_dim[0])}});
  }
  const std::string new_indices_name = oper_name_join(ir, scatternd_1->input[1], "_concat");
  ir.set_const(new_indices_name, *indices_concat);
  const std::string new_update = g.op("Concat", {updates[0], updates[1]},
                                      {{}, scatternd_1->name() + "_update_concat",
                                       {Attr::make_int("axis", *indices_concat_axis)}});
  const std::vector<std::string> old_in = scatternd_2->input.names();
  replace_input(ir, *scatternd_2, old_in[0], scatternd_1->input[0]);
  replace_input(ir, *scatternd_2, old_in[1], new_indices_name);
  replace_input(ir, *scatternd_2, old_in[2], new_update);
  return {{scatternd_1}, g.nodes};
}

}  // namespace tolm
