// Gather rules: a Gather folds into the Gather, Conv or exMatMul ahead of it,
// two Gathers that a Reshape merges become one, and a pool that only picks
// every n-th row becomes a Gather. Tile and Resize that only copy become
// Concat nodes.
#include <algorithm>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <xtensor/xarray.hpp>
#include <xtensor/xdynamic_view.hpp>

#include "host/builder.h"
#include "host/edit.h"
#include "host/helpers.h"
#include "host/xarray_bridge.h"
#include "restructure/restructure.h"

namespace tolm {
namespace {

using Ints = std::vector<int64_t>;

std::optional<size_t> axis_pos(int64_t axis, size_t rank) {
  const int64_t r = static_cast<int64_t>(rank);
  const int64_t a = axis < 0 ? axis + r : axis;
  if (a < 0 || a >= r) return std::nullopt;
  return static_cast<size_t>(a);
}

// Index values made non-negative against `dim`; absent if one lies outside.
std::optional<Ints> norm_indices(const NDArray& idx, int64_t dim) {
  if (!dtype_is_integer(idx.dtype())) return std::nullopt;
  Ints v = idx.to_i64();
  for (int64_t& i : v) {
    if (i < 0) i += dim;
    if (i < 0 || i >= dim) return std::nullopt;
  }
  return v;
}

template <class T>
NDArray take_typed(const NDArray& a, const Ints& indices, size_t axis) {
  const xt::xarray<T> x = to_xarray<T>(a);
  xt::xdynamic_slice_vector sv(x.dimension(), xt::all());
  sv[axis] = xt::keep(std::vector<int64_t>(indices));
  const xt::xarray<T> taken = xt::dynamic_view(x, sv);
  return from_xarray<T>(taken, a.dtype());
}

// The slices of `a` at `indices` along `axis`, in the order of the indices
// (indices already non-negative). Absent for element types without exact
// arithmetic counterparts.
std::optional<NDArray> take_along(const NDArray& a, const Ints& indices, size_t axis) {
  if (axis >= a.ndim()) return std::nullopt;
  switch (a.dtype()) {
    case dt::FLOAT: return take_typed<float>(a, indices, axis);
    case dt::DOUBLE: return take_typed<double>(a, indices, axis);
    case dt::INT64: return take_typed<int64_t>(a, indices, axis);
    case dt::INT32: return take_typed<int32_t>(a, indices, axis);
    case dt::INT8: return take_typed<int8_t>(a, indices, axis);
    case dt::UINT8: return take_typed<uint8_t>(a, indices, axis);
    default: return std::nullopt;
  }
}

int64_t gather_axis_of(const Node& g) { return IR::get_attr_int(g, "axis").value_or(0); }

}  // namespace

RuleResult _p_fuse_two_gather(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.size() < 2) return no_match();
  const NodePtr& gather_0 = nodes[0];
  const NodePtr& gather_1 = nodes[1];
  if (gather_1->input.size() < 2 || gather_1->input[0] != gather_0->output[0]) return no_match();
  const int64_t axis_0 = gather_axis_of(*gather_0);
  if (axis_0 != gather_axis_of(*gather_1)) return no_match();
  const NDArray* idx_0 = ir.get_const(gather_0->input[1]);
  const NDArray* idx_1 = ir.get_const(gather_1->input[1]);
  if (!idx_0 || !idx_1) return no_match();
  if (idx_0->shape().empty() || idx_1->shape().empty()) return no_match();
  // The same stored axis is the same position only while the first Gather
  // keeps the rank, or when the axis counts from the front.
  if (axis_0 < 0 && idx_0->ndim() != 1) return no_match();
  const auto picks = norm_indices(*idx_1, idx_0->shape()[0]);
  if (!picks) return no_match();
  const auto taken = take_along(*idx_0, *picks, 0);
  if (!taken) return no_match();
  // Laid out as the second indices, each holding a row of the first.
  Shape new_shape = idx_1->shape();
  new_shape.insert(new_shape.end(), idx_0->shape().begin() + 1, idx_0->shape().end());
  const NDArray new_idx = taken->reshaped(new_shape);

  NodePtr new_gather = gather_1->clone();
  const std::string idx_name = oper_name_join(ir, gather_1->input[1], "_fuse");
  ir.set_const(idx_name, new_idx);
  new_gather->input.assign({gather_0->input[0], idx_name});
  // The first Gather goes unless others still read it.
  if (only_read_by(ir, gather_0->output[0], *gather_1)) return {{gather_0, gather_1}, {new_gather}};
  return {{gather_1}, {new_gather}};
}

RuleResult _p_fuse_gather_gather_reshape(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.size() < 3) return no_match();
  const NodePtr& gather_0 = nodes[0];
  const NodePtr& gather_1 = nodes[1];
  const NodePtr& reshape = nodes[2];
  const Shape in_shape = ir.get_shape(reshape->input[0]);
  const Shape out_shape = ir.get_shape(reshape->output[0]);
  if (in_shape.empty() || out_shape.empty()) return no_match();
  if (gather_axis_of(*gather_0) == gather_axis_of(*gather_1)) return no_match();
  // Both Gathers go: what they make has no other reader.
  if (gather_1->input[0] != gather_0->output[0] || reshape->input[0] != gather_1->output[0]) return no_match();
  if (!only_read_by(ir, gather_0->output[0], *gather_1) || !only_read_by(ir, gather_1->output[0], *reshape))
    return no_match();
  const NDArray* idx_c0 = ir.get_const(gather_0->input[1]);
  const NDArray* idx_c1 = ir.get_const(gather_1->input[1]);
  // One-dimensional indices keep the rank, so the axes name the same
  // positions in the data, between the Gathers and ahead of the Reshape.
  if (!idx_c0 || !idx_c1 || idx_c0->ndim() != 1 || idx_c1->ndim() != 1) return no_match();
  const Shape gather_in_shape = ir.get_shape(gather_0->input[0]);
  if (gather_in_shape.size() != in_shape.size()) return no_match();
  const auto a0 = axis_pos(gather_axis_of(*gather_0), in_shape.size());
  const auto a1 = axis_pos(gather_axis_of(*gather_1), in_shape.size());
  if (!a0 || !a1 || *a0 == *a1) return no_match();

  const auto ind_parts = seperate_independent_part_for_reshape(in_shape, out_shape);
  const IndependentPart* part = nullptr;
  for (const auto& p : ind_parts) {
    const auto has = [&](size_t a) { return std::find(p.first.begin(), p.first.end(), static_cast<int64_t>(a)) != p.first.end(); };
    if (has(*a0) && has(*a1) && p.second.size() == 1) {
      part = &p;
      break;
    }
  }
  if (!part) return no_match();
  const Axes& src_axes = part->first;
  if (src_axes.size() != 2)
    for (int64_t a : src_axes)
      if (a != static_cast<int64_t>(*a0) && a != static_cast<int64_t>(*a1) && in_shape[static_cast<size_t>(a)] != 1)
        return no_match();

  const bool first_is_0 = *a0 < *a1;
  const size_t ax_first = first_is_0 ? *a0 : *a1, ax_second = first_is_0 ? *a1 : *a0;
  const auto idx_first = norm_indices(first_is_0 ? *idx_c0 : *idx_c1, gather_in_shape[ax_first]);
  const auto idx_second = norm_indices(first_is_0 ? *idx_c1 : *idx_c0, gather_in_shape[ax_second]);
  if (!idx_first || !idx_second) return no_match();
  const int64_t size_of_second_gather_dim = gather_in_shape[ax_second];
  Ints new_idx;
  for (int64_t f : *idx_first)
    for (int64_t s : *idx_second) new_idx.push_back(f * size_of_second_gather_dim + s);
  if (std::set<int64_t>(new_idx.begin(), new_idx.end()).size() != new_idx.size()) return no_match();

  const auto new_axis = static_cast<size_t>(part->second[0]);
  Shape new_reshape_out_shape = out_shape;
  int64_t merged = 1;
  for (int64_t a : src_axes) merged *= gather_in_shape[static_cast<size_t>(a)];
  new_reshape_out_shape[new_axis] = merged;
  Graph g(ir);
  const std::string rs_ = g.op("Reshape", {gather_0->input[0], NDArray::from_i64(new_reshape_out_shape)});
  g.op("Gather", {rs_, NDArray::from_i64(new_idx)},
       OpSpec{{reshape->output[0]}, gather_0->name(), {Attr::make_int("axis", static_cast<int64_t>(new_axis))}});
  return {{gather_0, gather_1, reshape}, g.nodes};
}

RuleResult _p_fuse_conv_gather(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.size() < 2) return no_match();
  const NodePtr& conv = nodes[0];
  const NodePtr& gather = nodes[1];
  const Shape conv_out_shape = ir.get_shape(conv->output[0]);
  const NDArray* gather_indices = ir.get_const(gather->input[1]);
  if (gather_axis_of(*gather) != 1 || !gather_indices || conv_out_shape.size() != 4) return no_match();
  if (conv->input.size() < 2) return no_match();
  for (size_t i = 1; i < conv->input.size(); ++i)
    if (!ir.is_const(conv->input[i])) return no_match();
  if (ir.is_output(conv->output[0]) || ir.next_nodes(*conv).size() != 1) return no_match();
  if (gather->input[0] != conv->output[0] || has_implicit_reader(ir, conv->output[0])) return no_match();
  // Grouped filters read only their group's channels: picking some of them
  // breaks the groups.
  if (IR::get_attr_int(*conv, "group").value_or(1) != 1) return no_match();
  // A scalar index drops the channel axis, a 2-D one adds an axis: only a
  // list of channels is a selection of filters.
  if (gather_indices->ndim() != 1) return no_match();
  const auto conv_kernel = IR::get_attr_ints(*conv, "kernel_shape");
  const NDArray* weight = ir.get_const(conv->input[1]);
  const auto n = static_cast<double>(gather_indices->size());
  if (conv_kernel != Ints{1, 1} && n > static_cast<double>(conv_out_shape[1]) * 1.2) return no_match();
  const auto picks = norm_indices(*gather_indices, conv_out_shape[1]);
  if (!picks) return no_match();
  const auto new_weight = take_along(*weight, *picks, 0);
  if (!new_weight) return no_match();
  std::vector<OpInput> in_list{conv->input[0], *new_weight};
  if (conv->input.size() == 3 && !conv->input[2].empty()) {
    const auto new_bias = take_along(*ir.get_const(conv->input[2]), *picks, 0);
    if (!new_bias) return no_match();
    in_list.push_back(*new_bias);
  }
  Graph g(ir);
  g.op("Conv", in_list, OpSpec{{gather->output[0]}, conv->name(), conv->attribute()});
  if (static_cast<int64_t>(picks->size()) != conv_out_shape[1]) {
    Shape new_out_shape = conv_out_shape;
    new_out_shape[1] = static_cast<int64_t>(picks->size());
    ir.set_shape(gather->output[0], new_out_shape, false);
  }
  return {{conv, gather}, g.nodes};
}

RuleResult _p_fuse_exmatmul_gather(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.size() < 2) return no_match();
  const NodePtr& exmatmul = nodes[0];
  const NodePtr& gather = nodes[1];
  if (exmatmul->input.size() < 2 || gather->input[0] != exmatmul->output[0]) return no_match();
  const Shape in_0_shape = ir.get_shape(exmatmul->input[0]);
  const Shape in_1_shape = ir.get_shape(exmatmul->input[1]);
  const int64_t gather_axis = gather_axis_of(*gather);
  const NDArray* indices = ir.get_const(gather->input[1]);
  const bool has_bias = exmatmul->input.size() > 2 && !exmatmul->input[2].empty();
  const bool const_bias = has_bias && ir.is_const(exmatmul->input[2]);
  const Shape bias_shape = has_bias ? ir.get_shape(exmatmul->input[2]) : Shape{};
  if (!indices || ir.is_output(exmatmul->output[0]) || ir.next_nodes(*exmatmul).size() != 1) return no_match();
  if (has_implicit_reader(ir, exmatmul->output[0])) return no_match();
  // The gathered axis of the bias is read below: it must be known.
  if (gather_axis < 0 || (has_bias && static_cast<int64_t>(bias_shape.size()) <= gather_axis)) return no_match();
  if (has_bias && !const_bias && bias_shape[static_cast<size_t>(gather_axis)] != 1) return no_match();
  const size_t const_idx = ir.is_const(exmatmul->input[0]) ? 0 : 1;
  if (!ir.is_const(exmatmul->input[const_idx])) return no_match();
  if (in_0_shape.empty() || in_1_shape.empty()) return no_match();
  const Shape& const_shape = const_idx == 0 ? in_0_shape : in_1_shape;
  const Shape& feature_shape = const_idx == 0 ? in_1_shape : in_0_shape;
  // Axes 0 and 3 of the constant are the output's batch and columns only
  // when both operands have four dimensions.
  if (const_shape.size() != 4 || feature_shape.size() != 4) return no_match();
  const bool const_provide_batch = const_shape[0] > feature_shape[0];
  // The constant ahead (input 0) gives the output's rows, not its axis 1,
  // so a Gather on axis 1 has nothing to fold into.
  const bool mergeable = (gather_axis == 3 && const_idx == 1) || (const_provide_batch && gather_axis == 0);
  if (!mergeable) return no_match();
  // A scalar index drops the axis: only a list of positions folds.
  if (indices->ndim() != 1) return no_match();
  const size_t take_axis = gather_axis == 0 ? 0 : 3;
  const auto picks = norm_indices(*indices, const_shape[take_axis]);
  if (!picks) return no_match();
  const auto new_const = take_along(*ir.get_const(exmatmul->input[const_idx]), *picks, take_axis);
  if (!new_const) return no_match();
  std::optional<NDArray> new_bias;
  if (const_bias && bias_shape[static_cast<size_t>(gather_axis)] != 1) {
    new_bias = take_along(*ir.get_const(exmatmul->input[2]), *picks, static_cast<size_t>(gather_axis));
    if (!new_bias) return no_match();
  }

  NodePtr new_exmatmul = exmatmul->clone();
  const std::string c_name = oper_name_join(ir, exmatmul->input[const_idx], "_2gather");
  ir.set_const(c_name, *new_const);
  std::vector<std::string> ins = exmatmul->input.names();
  ins[const_idx] = c_name;
  if (new_bias) {
    ins[2] = oper_name_join(ir, exmatmul->input[2], "_2gather");
    ir.set_const(ins[2], *new_bias);
  }
  new_exmatmul->input.assign(ins);
  std::vector<std::string> outs = exmatmul->output.names();
  outs[0] = gather->output[0];
  new_exmatmul->output.assign(outs);
  return {{exmatmul, gather}, {new_exmatmul}};
}

RuleResult _p_replace_step_pick_pool_to_gather(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.empty()) return no_match();
  const NodePtr& pool = nodes[0];
  const Shape in_shape = ir.get_shape(pool->input[0]);
  const auto kernel_shape = IR::get_attr_ints(*pool, "kernel_shape");
  const auto strides = IR::get_attr_ints(*pool, "strides");
  const auto pads = IR::get_attr_ints(*pool, "pads");
  if (kernel_shape != Ints{1, 1} || pads != Ints{0, 0, 0, 0} || !strides || strides->size() != 2) return no_match();
  if (std::count(strides->begin(), strides->end(), 1) != 1) return no_match();
  // Padding the runtime works out for itself would shift the picked rows.
  const auto auto_pad = IR::get_attr_str(*pool, "auto_pad");
  if (auto_pad && *auto_pad != "NOTSET" && *auto_pad != "VALID") return no_match();
  // A MaxPool's second output (the argmax positions) has no Gather form.
  for (size_t k = 1; k < pool->output.size(); ++k)
    if (!pool->output[k].empty() && (ir.use_count(pool->output[k]) > 0 || ir.is_output(pool->output[k])))
      return no_match();
  // onnxruntime's MaxPool turns -inf and NaN into the lowest finite float,
  // even in a 1x1 window; a Gather keeps them.
  if (pool->op_type() == "MaxPool" && may_carry_non_finite(ir, pool->input[0])) return no_match();
  const size_t one_at = (*strides)[0] == 1 ? 0 : 1;
  const int64_t step = (*strides)[1 - one_at];
  const size_t gather_axis = (1 - one_at) + 2;
  if (in_shape.size() != 4 || step <= 0 || in_shape[gather_axis] % step != 0) return no_match();
  Ints gather_index;
  for (int64_t v = 0; v < in_shape[gather_axis]; v += step) gather_index.push_back(v);
  Graph g(ir);
  g.op("Gather", {pool->input[0], NDArray::from_i64(gather_index)},
       OpSpec{{pool->output[0]}, pool->name() + "_2gather", {Attr::make_int("axis", static_cast<int64_t>(gather_axis))}});
  return {{pool}, g.nodes};
}

RuleResult _p_convert_tile_to_concat(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.empty()) return no_match();
  const NodePtr& tile = nodes[0];
  if (tile->input.size() < 2) return no_match();
  const NDArray* repeats = ir.get_const(tile->input[1]);
  if (!repeats) return no_match();
  const Ints r = repeats->to_i64();
  if (std::count_if(r.begin(), r.end(), [](int64_t v) { return v != 1; }) != 1) return no_match();
  const auto axis = static_cast<size_t>(std::find_if(r.begin(), r.end(), [](int64_t v) { return v != 1; }) - r.begin());
  const int64_t num_input = r[axis];
  // No copies is an empty tensor, which no Concat makes.
  if (num_input < 2) return no_match();
  const std::vector<std::string> ins(static_cast<size_t>(num_input), tile->input[0]);
  NodePtr concat = Node::make("Concat", ins, tile->output.names(), "", {Attr::make_int("axis", static_cast<int64_t>(axis))});
  return {{tile}, {concat}};
}

RuleResult _p_convert_resize_to_concat(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.empty()) return no_match();
  const NodePtr& resize = nodes[0];
  const Shape i_shape = ir.get_shape(resize->input[0]);
  const Shape o_shape = ir.get_shape(resize->output[0]);
  if (i_shape.empty() || o_shape.empty()) return no_match();
  const int64_t scale_x = o_shape.back();
  const int64_t scale_y = o_shape[o_shape.size() - 2];
  if (i_shape.size() != 4 || i_shape[2] != 1 || i_shape[3] != 1 || scale_x > 32 || scale_y > 32) return no_match();
  // Only the map is resized, and a single pixel is copied: a crop with its
  // extrapolation value would fill in other numbers.
  if (o_shape.size() != 4 || o_shape[0] != i_shape[0] || o_shape[1] != i_shape[1] || scale_x < 1 || scale_y < 1)
    return no_match();
  if (IR::get_attr_str(*resize, "coordinate_transformation_mode") == std::optional<std::string>("tf_crop_and_resize"))
    return no_match();
  const std::string x_out_name = oper_name_join(ir, resize->input[0], "_" + std::to_string(scale_x));
  NodePtr concat_x = Node::make("Concat", std::vector<std::string>(static_cast<size_t>(scale_x), resize->input[0]),
                                {x_out_name}, resize->name() + "_1", {Attr::make_int("axis", 3)});
  NodePtr concat_y = Node::make("Concat", std::vector<std::string>(static_cast<size_t>(scale_y), x_out_name),
                                {resize->output[0]}, resize->name() + "_2", {Attr::make_int("axis", 2)});
  return {{resize}, {concat_x, concat_y}};
}

}  // namespace tolm
