// An attention block made of convolutions: a Conv computes the projections,
// a Reshape lays its channels out in groups, a Split cuts them apart, and one
// piece passes a Gather that reorders it. The reordering folds into the order
// of the Conv's filters (and bias), and the Gather goes.
#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <xtensor/xarray.hpp>
#include <xtensor/xbuilder.hpp>
#include <xtensor/xdynamic_view.hpp>
#include <xtensor/xmanipulation.hpp>

#include "attention/attention.h"
#include "host/edit.h"
#include "host/helpers.h"
#include "host/xarray_bridge.h"

namespace tolm {
namespace {

using Ints = std::vector<int64_t>;

template <class T>
xt::xarray<T> take_axis(const xt::xarray<T>& x, const Ints& indices, size_t axis) {
  xt::xdynamic_slice_vector sv(x.dimension(), xt::all());
  sv[axis] = xt::keep(Ints(indices));
  return xt::dynamic_view(x, sv);
}

template <class T>
NDArray take_typed(const NDArray& a, const Ints& indices) {
  return from_xarray<T>(take_axis(to_xarray<T>(a), indices, 0), a.dtype());
}

// The filters (or bias entries) of `a` in the order of `indices`. Absent for
// element types without an exact counterpart.
std::optional<NDArray> take_filters(const NDArray& a, const Ints& indices) {
  if (a.ndim() == 0) return std::nullopt;
  switch (a.dtype()) {
    case dt::FLOAT: return take_typed<float>(a, indices);
    case dt::DOUBLE: return take_typed<double>(a, indices);
    case dt::INT8: return take_typed<int8_t>(a, indices);
    case dt::UINT8: return take_typed<uint8_t>(a, indices);
    case dt::INT32: return take_typed<int32_t>(a, indices);
    default: return std::nullopt;
  }
}

std::optional<size_t> norm_axis(int64_t axis, size_t rank) {
  const int64_t r = static_cast<int64_t>(rank);
  if (axis < 0) axis += r;
  if (axis < 0 || axis >= r) return std::nullopt;
  return static_cast<size_t>(axis);
}

}  // namespace

RuleResult _p_absorb_gather_into_attention_conv(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.empty()) return no_match();
  const NodePtr& conv = nodes[0];
  // A first look without building reader lists: this row is asked at every
  // Conv each time a neighbour changes.
  const TensorInfo* conv_out = conv->output.size() == 1 ? ir.port_tensor(*conv, true, 0) : nullptr;
  if (!conv_out || conv_out->uses.empty() || conv_out->uses[0].first->op_type() != "Reshape") return no_match();
  // Conv, Reshape and Split in a single line.
  NodePtr cur_node = conv;
  NodeList line;
  for (const char* next_op_require : {"Reshape", "Split"}) {
    const NodeList n_nodes = ir.next_nodes(*cur_node);
    if (n_nodes.size() != 1 || ir.port_is_output(*cur_node, 0)) return no_match();
    if (n_nodes[0]->op_type() != next_op_require) return no_match();
    if (!only_read_by(ir, cur_node->output[0], *n_nodes[0])) return no_match();
    cur_node = n_nodes[0];
    line.push_back(cur_node);
  }
  const NodePtr& rs = line[0];
  const NodePtr& split = line[1];
  if (rs->input[0] != conv->output[0] || split->input[0] != rs->output[0]) return no_match();
  const Shape rs_out_shape = ir.get_shape(rs->output[0]);
  const Shape rs_in_shape = ir.get_shape(rs->input[0]);
  if (rs_out_shape.size() != 4 || rs_in_shape.size() != 4) return no_match();
  const auto split_axis = norm_axis(IR::get_attr_int(*split, "axis").value_or(0), rs_out_shape.size());
  if (!split_axis) return no_match();

  // The Conv's channels alone make up some axes of the Reshape's output.
  const auto parts = seperate_independent_part_for_reshape(rs_in_shape, rs_out_shape);
  const IndependentPart* part = nullptr;
  for (const auto& p : parts)
    if (std::find(p.first.begin(), p.first.end(), 1) != p.first.end()) {
      part = &p;
      break;
    }
  if (!part) return no_match();
  Ints in_axes_non_1, out_axes_non_1;
  for (int64_t a : part->first)
    if (rs_in_shape[static_cast<size_t>(a)] != 1) in_axes_non_1.push_back(a);
  for (int64_t a : part->second)
    if (rs_out_shape[static_cast<size_t>(a)] != 1) out_axes_non_1.push_back(a);
  if (in_axes_non_1 != Ints{1}) return no_match();
  const auto in_out = [&](int64_t a) {
    return std::find(out_axes_non_1.begin(), out_axes_non_1.end(), a) != out_axes_non_1.end();
  };
  if (!in_out(static_cast<int64_t>(*split_axis))) return no_match();

  // The first Split output that only a permuting Gather on the split axis
  // reads.
  NodePtr gather;
  size_t soi = 0;
  Ints gather_index;
  for (size_t i = 0; i < split->output.size() && !gather; ++i) {
    const std::string& out = split->output[i];
    if (out.empty() || ir.is_output(out)) continue;
    const NodeList out_nexts = ir.next_nodes(out);
    if (out_nexts.size() != 1 || out_nexts[0]->op_type() != "Gather") continue;
    const NodePtr& cand = out_nexts[0];
    if (cand->input.size() < 2 || cand->input[0] != out || !only_read_by(ir, out, *cand)) continue;
    const NDArray* idx = ir.get_const_optional(*cand, 1);
    // Only a list of positions keeps the rank; a scalar or a table would not.
    if (!idx || !dtype_is_integer(idx->dtype()) || idx->ndim() != 1) continue;
    const Shape gather_in_shape = ir.get_shape(cand->input[0]);
    const auto gather_axis = norm_axis(IR::get_attr_int(*cand, "axis").value_or(0), gather_in_shape.size());
    if (!gather_axis || *gather_axis != *split_axis) continue;
    const int64_t dim = gather_in_shape[*gather_axis];
    Ints v = idx->to_i64();
    for (int64_t& k : v)
      if (k < 0) k += dim;
    Ints sorted = v;
    std::sort(sorted.begin(), sorted.end());
    Ints ascending(static_cast<size_t>(dim));
    for (size_t k = 0; k < ascending.size(); ++k) ascending[k] = static_cast<int64_t>(k);
    if (sorted != ascending) continue;  // drops or repeats channels
    gather = cand;
    soi = i;
    gather_index = v;
  }
  if (!gather) return no_match();

  const std::vector<int64_t> split_len = get_split_split(ir, *split, false);
  if (split_len.size() != split->output.size()) return no_match();
  Ints split_len_accumulate{0};
  for (int64_t l : split_len) split_len_accumulate.push_back(split_len_accumulate.back() + l);
  if (split_len_accumulate.back() != rs_out_shape[*split_axis]) return no_match();

  // Grouped filters read only their own group's input channels: reordering
  // them across groups would change what they compute.
  if (IR::get_attr_int(*conv, "group").value_or(1) != 1) return no_match();
  if (conv->input.size() < 2 || !ir.is_const(conv->input[1])) return no_match();
  const NDArray& weight = *ir.get_const(conv->input[1]);
  if (weight.ndim() < 1 || weight.shape()[0] != rs_in_shape[1]) return no_match();
  const bool has_bias = conv->input.size() > 2 && !conv->input[2].empty();
  if (has_bias && !ir.is_const(conv->input[2])) return no_match();
  if (!can_bypass(ir, *gather, gather->input[0])) return no_match();

  // The whole split axis: each piece in place, the gathered piece reordered.
  Ints gather_index_fullfill;
  for (size_t i = 0; i < split_len.size(); ++i) {
    if (i == soi) {
      for (int64_t k : gather_index) gather_index_fullfill.push_back(k + split_len_accumulate[i]);
    } else {
      for (int64_t k = split_len_accumulate[i]; k < split_len_accumulate[i + 1]; ++k)
        gather_index_fullfill.push_back(k);
    }
  }
  std::vector<size_t> grid;
  for (int64_t a : out_axes_non_1) grid.push_back(static_cast<size_t>(rs_out_shape[static_cast<size_t>(a)]));
  xt::xarray<int64_t> shuffling_index = xt::arange<int64_t>(rs_in_shape[1]);
  shuffling_index.reshape(grid);
  const auto take_pos = static_cast<size_t>(
      std::find(out_axes_non_1.begin(), out_axes_non_1.end(), static_cast<int64_t>(*split_axis)) -
      out_axes_non_1.begin());
  const xt::xarray<int64_t> taken = take_axis(shuffling_index, gather_index_fullfill, take_pos);
  const Ints gather_for_out_ch(taken.begin(), taken.end());

  const auto new_weight = take_filters(weight, gather_for_out_ch);
  if (!new_weight) return no_match();
  std::optional<NDArray> new_bias;
  if (has_bias) {
    const NDArray& bias = *ir.get_const(conv->input[2]);
    if (bias.ndim() != 1 || bias.shape()[0] != rs_in_shape[1]) return no_match();
    new_bias = take_filters(bias, gather_for_out_ch);
    if (!new_bias) return no_match();
  }

  // ---- rewrite ----
  set_own_const(ir, *conv, 1, *new_weight, "_2gather");
  if (new_bias) set_own_const(ir, *conv, 2, *new_bias, "_2gather");
  bypass_node(ir, *gather, gather->input[0]);
  return {{gather, conv}, {conv->clone()}};
}

}  // namespace tolm
