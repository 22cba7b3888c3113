// A Split whose neighbouring outputs a Concat joins again, one of them on the
// way through an exMatMul: one Split output for the whole run and one wider
// exMatMul, whose weight holds the old weight as a block and passes the other
// channels through by ones on its diagonal.
#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include <xtensor/xarray.hpp>
#include <xtensor/xbuilder.hpp>
#include <xtensor/xview.hpp>

#include "attention/attention.h"
#include "host/builder.h"
#include "host/helpers.h"
#include "host/xarray_bridge.h"

namespace tolm {
namespace {

bool known4(const Shape& s) {
  return s.size() == 4 && std::all_of(s.begin(), s.end(), [](int64_t d) { return d > 0; });
}

ptrdiff_t position(const std::vector<std::string>& list, const std::string& name) {
  const auto it = std::find(list.begin(), list.end(), name);
  return it == list.end() ? -1 : it - list.begin();
}

}  // namespace

RuleResult _p_fuse_split_exmatmul_concat(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.empty()) return no_match();
  const NodePtr& exmatmul = nodes[0];
  if (exmatmul->input.size() != 2 || exmatmul->output.size() != 1) return no_match();
  if (ir.is_output(exmatmul->output[0])) return no_match();
  const NodeList prev_nodes = ir.pre_nodes(*exmatmul);
  const NodeList next_nodes = ir.next_nodes(*exmatmul);
  if (prev_nodes.size() != 1 || prev_nodes[0]->op_type() != "Split") return no_match();
  if (next_nodes.size() != 1 || next_nodes[0]->op_type() != "Concat") return no_match();
  const NodePtr& split = prev_nodes[0];
  const NodePtr& concat = next_nodes[0];
  int64_t split_axis = IR::get_attr_int(*split, "axis").value_or(0);
  int64_t concat_axis = IR::get_attr_int(*concat, "axis").value_or(0);
  if (split_axis < 0) split_axis += 4;
  if (concat_axis < 0) concat_axis += 4;
  if (split_axis != 1 || concat_axis != 1) return no_match();

  std::vector<std::string> concat_inputs = concat->input.names();
  if (std::count(concat_inputs.begin(), concat_inputs.end(), exmatmul->output[0]) != 1) return no_match();
  const auto exmatmul_idx = static_cast<size_t>(position(concat_inputs, exmatmul->output[0]));
  concat_inputs[exmatmul_idx] = exmatmul->input[1];
  const std::vector<std::string> split_outputs = split->output.names();
  if (position(split_outputs, exmatmul->input[1]) < 0) return no_match();
  for (const std::string& in : concat_inputs)
    if (position(split_outputs, in) < 0) return no_match();
  const auto start_idx = static_cast<size_t>(position(split_outputs, concat_inputs[0]));
  if (start_idx + concat_inputs.size() > split_outputs.size()) return no_match();
  if (!std::equal(concat_inputs.begin(), concat_inputs.end(), split_outputs.begin() + static_cast<ptrdiff_t>(start_idx)))
    return no_match();
  for (const std::string& split_output : concat_inputs) {
    const NodePtr& expected_next = split_output == exmatmul->input[1] ? exmatmul : concat;
    if (ir.is_output(split_output) || !only_read_by(ir, split_output, *expected_next)) return no_match();
    if (ir.next_nodes(split_output) != NodeList{expected_next}) return no_match();
  }

  const Shape split_input_shape = ir.get_shape(split->input[0]);
  if (!known4(split_input_shape)) return no_match();
  const std::vector<int64_t> split_sec = get_split_split(ir, *split, true);
  if (split_sec.size() != split_outputs.size()) return no_match();
  int64_t sec_sum = 0;
  for (int64_t s : split_sec) {
    if (s <= 0) return no_match();
    sec_sum += s;
  }
  if (sec_sum != split_input_shape[1]) return no_match();

  const NDArray* exmatmul_weight = ir.get_const(exmatmul->input[0]);
  const Shape exmatmul_in_shape = ir.get_shape(exmatmul->input[1]);
  const Shape exmatmul_out_shape = ir.get_shape(exmatmul->output[0]);
  const Shape concat_out_shape = ir.get_shape(concat->output[0]);
  if (!exmatmul_weight || exmatmul_weight->ndim() != 4) return no_match();
  if (!dtype_is_float(exmatmul_weight->dtype())) return no_match();
  if (!known4(exmatmul_in_shape) || !known4(exmatmul_out_shape) || !known4(concat_out_shape)) return no_match();
  std::vector<Shape> concat_in_shapes;
  for (const std::string& in : concat_inputs) {
    concat_in_shapes.push_back(ir.get_shape(in));
    if (!known4(concat_in_shapes.back())) return no_match();
  }
  for (size_t i = 0; i < concat_inputs.size(); ++i) {
    const Shape& shape = concat_in_shapes[i];
    const auto split_idx = static_cast<size_t>(position(split_outputs, concat_inputs[i]));
    if (shape[1] != split_sec[split_idx]) return no_match();
    for (size_t k : {size_t{0}, size_t{2}, size_t{3}})
      if (shape[k] != split_input_shape[k]) return no_match();
  }
  const Shape& w_shape = exmatmul_weight->shape();
  if (concat_in_shapes[exmatmul_idx] != exmatmul_in_shape) return no_match();
  if (w_shape[1] != exmatmul_in_shape[1] || w_shape[3] != exmatmul_out_shape[1]) return no_match();
  int64_t pass_through = 0;
  for (const Shape& s : concat_in_shapes) pass_through += s[1];
  pass_through -= concat_in_shapes[exmatmul_idx][1];
  Shape new_weight_shape = w_shape;
  new_weight_shape[1] += pass_through;
  new_weight_shape[3] += pass_through;
  Shape expected_concat_shape = exmatmul_out_shape;
  expected_concat_shape[1] = new_weight_shape[3];
  if (expected_concat_shape != concat_out_shape) return no_match();
  // The passed-through channels go through the weight as 1 and 0: an
  // infinite value would turn the other channels into NaN.
  if (may_carry_non_finite(ir, split->input[0])) return no_match();

  // The old weight as one block; every passed-through channel maps to itself.
  const auto us = [](int64_t v) { return static_cast<size_t>(v); };
  xt::xarray<double> new_weight = xt::zeros<double>({us(new_weight_shape[0]), us(new_weight_shape[1]),
                                                     us(new_weight_shape[2]), us(new_weight_shape[3])});
  const xt::xarray<double> old_weight = to_xarray<double>(*exmatmul_weight);
  size_t row = 0, col = 0;
  for (size_t i = 0; i < concat_in_shapes.size(); ++i) {
    if (i == exmatmul_idx) {
      xt::view(new_weight, xt::all(), xt::range(row, row + us(w_shape[1])), xt::all(),
               xt::range(col, col + us(w_shape[3]))) = old_weight;
      row += us(w_shape[1]);
      col += us(w_shape[3]);
      continue;
    }
    for (int64_t c = 0; c < concat_in_shapes[i][1]; ++c, ++row, ++col)
      xt::view(new_weight, xt::all(), row, xt::all(), col) = 1.0;
  }

  std::vector<int64_t> split_sec_new(split_sec.begin(), split_sec.begin() + static_cast<ptrdiff_t>(start_idx));
  std::vector<std::string> new_split_outputs(split_outputs.begin(),
                                             split_outputs.begin() + static_cast<ptrdiff_t>(start_idx));
  int64_t run = 0;
  for (size_t i = 0; i < concat_inputs.size(); ++i) run += split_sec[start_idx + i];
  split_sec_new.push_back(run);
  new_split_outputs.push_back(oper_name_join(ir, split_outputs[start_idx], "_mr"));
  for (size_t i = start_idx + concat_inputs.size(); i < split_outputs.size(); ++i) {
    split_sec_new.push_back(split_sec[i]);
    new_split_outputs.push_back(split_outputs[i]);
  }

  // ---- rewrite ----
  Graph g(ir);
  const NodePtr new_split = make_node_split(ir, {split->input[0]}, new_split_outputs, split_axis, split_sec_new,
                                            split->name());
  g.nodes.push_back(new_split);
  ir.set_shape(new_split_outputs[start_idx],
               {split_input_shape[0], run, split_input_shape[2], split_input_shape[3]}, false,
               ir.get_dtype(split->input[0]));
  g.op("exMatMul", {from_xarray<double>(new_weight, exmatmul_weight->dtype()), new_split_outputs[start_idx]},
       OpSpec{{concat->output[0]}, exmatmul->name(), exmatmul->attribute()});
  return {{split, exmatmul, concat}, g.nodes};
}

}  // namespace tolm
