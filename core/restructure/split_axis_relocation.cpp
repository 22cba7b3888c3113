// Split-axis relocation: a Split moves to another axis so that the Reshape
// ahead of it runs in place, or so that the Transpose ahead of it moves less.
#include <algorithm>
#include <cstdint>
#include <functional>
#include <numeric>
#include <optional>
#include <string>
#include <vector>

#include <xtensor/xarray.hpp>
#include <xtensor/xbuilder.hpp>
#include <xtensor/xdynamic_view.hpp>
#include <xtensor/xmanipulation.hpp>

#include "host/builder.h"
#include "host/edit.h"
#include "host/helpers.h"
#include "restructure/restructure.h"

namespace tolm {
namespace {

using Ints = std::vector<int64_t>;
using Pos = xt::xarray<int64_t>;

// Chains are compared element for element on tensors up to this size.
constexpr int64_t kMaxProofElements = int64_t{1} << 20;

int64_t product(const Shape& s, size_t from, size_t to) {
  to = std::min(to, s.size());
  if (from >= to) return 1;
  return std::accumulate(s.begin() + static_cast<std::ptrdiff_t>(from), s.begin() + static_cast<std::ptrdiff_t>(to),
                         int64_t{1}, std::multiplies<int64_t>());
}
int64_t product(const Shape& s) { return product(s, 0, s.size()); }

std::vector<size_t> dims_of(const Shape& s) { return std::vector<size_t>(s.begin(), s.end()); }

// The pieces a Split of `x` along `axis` into `lengths` makes.
std::vector<Pos> split_positions(const Pos& x, size_t axis, const Ints& lengths) {
  std::vector<Pos> parts;
  int64_t at = 0;
  for (int64_t len : lengths) {
    xt::xdynamic_slice_vector sv(x.dimension(), xt::all());
    sv[axis] = xt::range(at, at + len);
    parts.push_back(xt::dynamic_view(x, sv));
    at += len;
  }
  return parts;
}

// Element positions of a tensor of `shape` after a Transpose by `perm` and a
// Reshape to `out`.
Pos transpose_reshape(const Shape& shape, const Perm& perm, const Shape& out) {
  Pos x = xt::arange<int64_t>(product(shape));
  x.reshape(dims_of(shape));
  Pos t = xt::transpose(x, std::vector<size_t>(perm.begin(), perm.end()));
  t.reshape(dims_of(out));
  return t;
}

}  // namespace

RuleResult _p_relocate_rs_split_axis(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.size() < 2) return no_match();
  const NodePtr& rs = nodes[0];
  const NodePtr& split = nodes[1];
  const Shape rs_in_shape = ir.get_shape(rs->input[0]);
  const Shape rs_out_shape = ir.get_shape(rs->output[0]);
  const int64_t split_axis = IR::get_attr_int(*split, "axis").value_or(0);
  const NDArray* split_len_c = ir.get_const_optional(*split, 1);
  if (!split_len_c || rs_in_shape.size() != 4 || rs_out_shape.size() != 4) return no_match();
  if (ir.is_output(rs->output[0]) || ir.next_nodes(*rs) != NodeList{split}) return no_match();
  if (split->input[0] != rs->output[0] || has_implicit_reader(ir, rs->output[0])) return no_match();
  const Ints split_len = split_len_c->to_i64();
  if (reshape_is_bypass(ir, rs_in_shape, rs_out_shape)) return no_match();
  if (split_axis != 2 && split_axis != 3) return no_match();
  if (split_len.empty() || std::adjacent_find(split_len.begin(), split_len.end(), std::not_equal_to<>()) != split_len.end())
    return no_match();
  // The producer of the data, not of the target.
  const NodePtr prev_node = ir.producer(rs->input[0]);
  if (!prev_node || (prev_node->op_type() != "Conv" && prev_node->op_type() != "Gather")) return no_match();
  if (prev_node->op_type() == "Gather" && IR::get_attr_int(*prev_node, "axis").value_or(0) != 1) return no_match();

  const auto rate = static_cast<int64_t>(split_len.size());
  const auto ax = static_cast<size_t>(split_axis);
  if (rs_out_shape[ax] % rate != 0) return no_match();
  Shape new_rs_out = rs_out_shape;
  new_rs_out[ax] /= rate;
  Shape tmp_out = new_rs_out;
  tmp_out.insert(tmp_out.begin() + split_axis, rate);
  const Perm tmp_perm = split_axis == 2 ? Perm{0, 2, 1, 3, 4} : Perm{0, 3, 1, 2, 4};
  new_rs_out[1] *= rate;
  const Ints new_split_len(static_cast<size_t>(rate), tmp_out[1]);
  if (!reshape_is_bypass(ir, rs_in_shape, new_rs_out)) return no_match();
  const GatherPlan plan = gen_gather_for_rs_tp_rs(rs_in_shape, tmp_out, tmp_perm, {});
  if (!plan.axis) return no_match();
  const bool ascending_order = std::is_sorted(plan.indices.begin(), plan.indices.end());
  // A Gather on the output layout would not sit ahead of the Reshape.
  if (!ascending_order && !plan.before) return no_match();

  Graph g(ir);
  std::string _in = rs->input[0];
  if (!ascending_order)
    _in = g.op("Gather", {_in, NDArray::from_i64(plan.indices)}, OpSpec{{}, "", {Attr::make_int("axis", *plan.axis)}});
  const std::string rs_out =
      g.op("Reshape", {_in, NDArray::from_i64(new_rs_out)}, OpSpec{rs->output.names(), rs->name()});
  ir.set_shape(rs_out, new_rs_out);
  g.nodes.push_back(make_node_split(ir, {rs_out}, split->output.names(), 1, new_split_len, split->name()));
  return {{rs, split}, g.nodes};
}

RuleResult _p_relocate_tp_rs_split_axis(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.size() < 3) return no_match();
  const NodePtr& tp = nodes[0];
  const NodePtr& rs = nodes[1];
  const NodePtr& split = nodes[2];
  const auto perm_attr = IR::get_attr_ints(*tp, "perm");
  const Shape shape_0 = ir.get_shape(tp->input[0]);
  const Shape shape_1 = ir.get_shape(tp->output[0]);
  const Shape shape_2 = ir.get_shape(rs->output[0]);
  if (!perm_attr || shape_0.empty() || shape_1.empty() || shape_2.empty()) return no_match();
  const Perm& perm = *perm_attr;
  if (!is_perm_of(perm, shape_0.size())) return no_match();
  if (ir.is_output(tp->output[0]) || ir.is_output(rs->output[0])) return no_match();
  if (ir.next_nodes(*tp).size() != 1 || ir.next_nodes(*rs).size() != 1) return no_match();
  if (rs->input[0] != tp->output[0] || split->input[0] != rs->output[0]) return no_match();
  if (has_implicit_reader(ir, tp->output[0]) || has_implicit_reader(ir, rs->output[0])) return no_match();
  const int64_t split_axis = IR::get_attr_int(*split, "axis").value_or(0);
  const NDArray* split_len_c = ir.get_const_optional(*split, 1);
  if (!split_len_c) return no_match();
  const Ints split_len = split_len_c->to_i64();
  if (split_len.empty() || std::any_of(split_len.begin(), split_len.end(), [](int64_t v) { return v <= 0; }))
    return no_match();
  const int64_t gcd = find_gcd(split_len);
  Ints min_len;
  for (int64_t l : split_len) min_len.push_back(l / gcd);
  const int64_t sum_min_len = std::accumulate(min_len.begin(), min_len.end(), int64_t{0});

  const auto ind_parts = seperate_independent_part_for_reshape(shape_1, shape_2);
  const IndependentPart* part = nullptr;
  for (const auto& p : ind_parts)
    if (p.second == Axes{split_axis}) {
      part = &p;
      break;
    }
  if (!part) return no_match();
  const Axes& in_axes = part->first;
  size_t sp_ndim = 0;
  for (size_t k = 1; k <= in_axes.size(); ++k)
    if (product(shape_1, 0, k) == sum_min_len) sp_ndim = k;
  if (sp_ndim == 0) return no_match();
  const Axes sp_axes(in_axes.begin(), in_axes.begin() + static_cast<std::ptrdiff_t>(sp_ndim));
  Axes sp_axes_before_tp;
  for (int64_t a : sp_axes) sp_axes_before_tp.push_back(perm[static_cast<size_t>(a)]);
  for (size_t k = 1; k < sp_axes_before_tp.size(); ++k)
    if (sp_axes_before_tp[k] != sp_axes_before_tp[0] + static_cast<int64_t>(k)) return no_match();
  const int64_t mr_axis_before_tp = sp_axes_before_tp.back() + 1;
  if (mr_axis_before_tp >= static_cast<int64_t>(perm.size())) return no_match();
  const int64_t mr_axis = index_of(perm, mr_axis_before_tp);
  for (const auto& p : ind_parts)
    if (std::find(p.first.begin(), p.first.end(), mr_axis) != p.first.end() &&
        (p.first.size() != 1 || p.second.size() != 1))
      return no_match();

  const auto _start = static_cast<size_t>(sp_axes_before_tp[0]);
  const auto _end = static_cast<size_t>(mr_axis_before_tp);
  Shape new_rs_shape(shape_0.begin(), shape_0.begin() + static_cast<std::ptrdiff_t>(_start));
  new_rs_shape.push_back(product(shape_0, _start, _end + 1));
  new_rs_shape.insert(new_rs_shape.end(), shape_0.begin() + static_cast<std::ptrdiff_t>(_end + 1), shape_0.end());
  Perm new_perm = perm;
  std::vector<int64_t> drop(sp_axes.begin(), sp_axes.end());
  std::sort(drop.rbegin(), drop.rend());
  for (int64_t pos : drop) new_perm.erase(new_perm.begin() + pos);
  const int64_t new_split_axis = index_of(new_perm, mr_axis_before_tp);
  Perm sorted = new_perm;
  std::sort(sorted.begin(), sorted.end());
  for (int64_t& v : new_perm) v = index_of(sorted, v);
  Shape final_shape;
  for (int64_t p : new_perm) final_shape.push_back(new_rs_shape[static_cast<size_t>(p)]);

  Shape _shape_2 = shape_2;
  Shape _final_shape = final_shape;
  if (split_axis < 0 || split_axis >= static_cast<int64_t>(_shape_2.size()) || new_split_axis < 0) return no_match();
  _shape_2[static_cast<size_t>(split_axis)] /= sum_min_len;
  _final_shape[static_cast<size_t>(new_split_axis)] /= sum_min_len;
  if (_shape_2 != _final_shape) return no_match();
  Ints new_sp_len;
  for (int64_t l : min_len) new_sp_len.push_back(l * _final_shape[static_cast<size_t>(new_split_axis)]);

  // Equal shapes are not yet equal pieces: with uneven lengths a split axis
  // that moves deals out other shapes. Both chains are followed element by
  // element, and the rewrite stands only where every piece is the same.
  const int64_t total = product(shape_0);
  if (total > kMaxProofElements) return no_match();
  const std::vector<Pos> old_parts =
      split_positions(transpose_reshape(shape_0, perm, shape_2), static_cast<size_t>(split_axis), split_len);
  Perm keep_order(shape_0.size());
  std::iota(keep_order.begin(), keep_order.end(), 0);
  Pos merged = transpose_reshape(shape_0, keep_order, new_rs_shape);
  const Pos moved = xt::transpose(merged, std::vector<size_t>(new_perm.begin(), new_perm.end()));
  const std::vector<Pos> new_parts = split_positions(moved, static_cast<size_t>(new_split_axis), new_sp_len);
  for (size_t k = 0; k < old_parts.size(); ++k)
    if (old_parts[k].shape() != new_parts[k].shape() || old_parts[k] != new_parts[k]) return no_match();

  Graph g(ir);
  const std::string rs_swap = oper_name_join(ir, rs->output[0], "_swap");
  const std::string tp_swap = oper_name_join(ir, tp->output[0], "_swap", {rs_swap});
  g.op("Reshape", {tp->input[0], NDArray::from_i64(new_rs_shape)}, OpSpec{{rs_swap}, rs->name()});
  g.op("Transpose", {rs_swap}, OpSpec{{tp_swap}, tp->name(), {Attr::make_ints("perm", new_perm)}});
  g.nodes.push_back(make_node_split(ir, {tp_swap}, split->output.names(), new_split_axis, new_sp_len, split->name()));
  return {{tp, rs, split}, g.nodes};
}

}  // namespace tolm
