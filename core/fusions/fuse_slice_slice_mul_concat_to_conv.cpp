// Two Slices of one tensor along one axis, joined again on that axis, one
// part perhaps scaled by a scalar Mul: a selection of channels, each with a
// factor. One 1x1 Conv with a 0/scale weight does it; when the axis is not
// axis 1, a Transpose swaps it there and back.
#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <xtensor/xarray.hpp>
#include <xtensor/xbuilder.hpp>
#include <xtensor/xview.hpp>

#include "fusions/fusions.h"
#include "host/builder.h"
#include "host/helpers.h"
#include "host/xarray_bridge.h"

namespace tolm {
namespace {

using Ints = std::vector<int64_t>;

// The positions a one-axis Slice takes on an axis of size max_d, in order;
// absent for a negative start or a step below 1 (a reversed or unbounded
// selection is left alone).
std::optional<std::vector<size_t>> slice_indices(const IR& ir, const Node& slice, int64_t max_d) {
  const NDArray* s = ir.get_const_optional(slice, 1);
  const NDArray* e = ir.get_const_optional(slice, 2);
  const NDArray* st = ir.get_const_optional(slice, 4);
  if (!s || !e || !st || s->size() != 1 || e->size() != 1 || st->size() != 1) return std::nullopt;
  const int64_t start = s->i64_at(0);
  const int64_t step = st->i64_at(0);
  int64_t end = e->i64_at(0);
  if (start < 0 || step < 1) return std::nullopt;
  // A negative end counts from the end of the axis, as the Slice reads it.
  if (end < 0) end += max_d;
  end = std::clamp<int64_t>(end, 0, max_d);
  if (start >= end) return std::nullopt;
  const xt::xarray<size_t> idx = xt::arange<size_t>(static_cast<size_t>(start), static_cast<size_t>(end),
                                                     static_cast<size_t>(step));
  return std::vector<size_t>(idx.begin(), idx.end());
}

// Rows of the weight for one part: row i picks channel indices[i], times factor.
xt::xarray<float> selection_rows(const std::vector<size_t>& indices, size_t max_d, float factor) {
  const xt::xarray<float> eye = xt::eye<float>(max_d);
  return xt::eval(xt::view(eye, xt::keep(indices), xt::all()) * factor);
}

}  // namespace

RuleResult _p_fuse_slice_slice_mul_concat_to_conv(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.empty()) return no_match();
  const NodePtr& concat = nodes.back();
  if (concat->input.size() > 2) return no_match();
  const NodeList concat_pre_nodes = ir.pre_nodes(*concat);
  if (concat_pre_nodes.size() != 2) return no_match();
  NodePtr mul, slice0, slice1;
  auto role = [&](const NodePtr& n, NodePtr& slice) {
    if (n->op_type() == "Slice") {
      slice = n;
      return true;
    }
    // Only one branch may carry a Mul.
    if (n->op_type() != "Mul" || mul) return false;
    mul = n;
    const NodeList mul_pre_nodes = ir.pre_nodes(*mul);
    if (mul_pre_nodes.size() != 1) return false;
    slice = mul_pre_nodes[0];
    return slice->op_type() == "Slice";
  };
  if (!role(concat_pre_nodes[0], slice0) || !role(concat_pre_nodes[1], slice1)) return no_match();
  auto in_nodes = [&](const NodePtr& n) { return std::find(nodes.begin(), nodes.end(), n) != nodes.end(); };
  if (!in_nodes(slice0) || !in_nodes(slice1) || (mul && !in_nodes(mul))) return no_match();
  for (const NodePtr& s : {slice0, slice1}) {
    if (s->input.size() != 5) return no_match();
    for (size_t i = 1; i < 5; ++i)
      if (!ir.is_const(s->input[i])) return no_match();
  }

  float scale = 1.0f;
  if (mul) {
    if (mul->input.size() != 2) return no_match();
    const std::string& c_name = ir.is_const(mul->input[0]) ? mul->input[0] : mul->input[1];
    const NDArray* c = ir.get_const(c_name);
    if (!c || c->size() != 1) return no_match();
    scale = static_cast<float>(c->f64_at(0));
    // The other operand is the Slice's output, and the factor broadcasts to
    // no new axis.
    const std::string& data = mul->input[0] == c_name ? mul->input[1] : mul->input[0];
    const NodePtr& scaled = concat_pre_nodes[0] == mul ? slice0 : slice1;
    if (data != scaled->output[0] || c->ndim() > 4 || c->dtype() != dt::FLOAT) return no_match();
  }

  const std::optional<int64_t> concat_axis = IR::get_attr_int(*concat, "axis");
  const NDArray* axes0 = ir.get_const_optional(*slice0, 3);
  const NDArray* axes1 = ir.get_const_optional(*slice1, 3);
  if (!concat_axis || slice0->input[0] != slice1->input[0] || !axes0 || !axes1) return no_match();
  if (axes0->size() != 1 || axes1->size() != 1 || axes0->i64_at(0) != axes1->i64_at(0) ||
      axes0->i64_at(0) != *concat_axis)
    return no_match();

  // The Conv and the axis swap need a known float32 tensor of rank 4.
  const std::string& src = slice0->input[0];
  if (!ir.has_shape(src) || ir.get_dtype(src) != dt::FLOAT) return no_match();
  const Shape& shape = ir.get_shape(src);
  if (shape.size() != 4 || !shape_holds_data(shape)) return no_match();
  // The Conv weighs every channel, with 0 where it is not picked: an
  // infinite value would turn the other channels into NaN.
  if (may_carry_non_finite(ir, src)) return no_match();
  const int64_t axis = *concat_axis < 0 ? *concat_axis + 4 : *concat_axis;
  if (axis < 0 || axis >= 4) return no_match();
  const int64_t max_d = shape[static_cast<size_t>(axis)];
  if (max_d <= 0) return no_match();
  const auto slice0_indices = slice_indices(ir, *slice0, max_d);
  const auto slice1_indices = slice_indices(ir, *slice1, max_d);
  if (!slice0_indices || !slice1_indices) return no_match();

  // The parts go with the Concat: nobody else may read them.
  const std::string& out0 = concat_pre_nodes[0]->output[0];
  const std::string& out1 = concat_pre_nodes[1]->output[0];
  if (out0 == out1 || !only_read_by(ir, out0, *concat) || !only_read_by(ir, out1, *concat)) return no_match();
  if (mul && !only_read_by(ir, (mul == concat_pre_nodes[0] ? slice0 : slice1)->output[0], *mul))
    return no_match();

  const auto d = static_cast<size_t>(max_d);
  const bool mul0 = mul && concat_pre_nodes[0] == mul;
  const bool mul1 = mul && concat_pre_nodes[1] == mul;
  xt::xarray<float> w = xt::concatenate(xt::xtuple(selection_rows(*slice0_indices, d, mul0 ? scale : 1.0f),
                                                   selection_rows(*slice1_indices, d, mul1 ? scale : 1.0f)),
                                        0);
  w.reshape({w.shape()[0], d, size_t{1}, size_t{1}});
  const NDArray conv_weight = from_xarray<float>(w, dt::FLOAT);

  // The last node takes over the Concat's output.
  Graph g(ir);
  const std::string& out = concat->output[0];
  if (axis == 1) {
    g.op("Conv", {src, conv_weight}, {{out}});
  } else {
    Perm perm = {0, axis, 2, 3};
    perm[static_cast<size_t>(axis)] = 1;
    const Attr swap = Attr::make_ints("perm", perm);
    const std::string t = g.op("Transpose", {src}, {{}, "", {swap}});
    g.op("Transpose", {g.op("Conv", {t, conv_weight})}, {{out}, "", {swap}});
  }
  return {nodes, g.nodes};
}

}  // namespace tolm
