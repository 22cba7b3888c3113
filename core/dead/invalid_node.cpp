// Invalid nodes: operators whose output equals one of their inputs, value for
// value. Such a node is bypassed: its consumers read the surviving tensor, or,
// when its output is a graph output, the surviving tensor's producer takes
// over that name.
#include <algorithm>
#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "dead/dead.h"
#include "host/builder.h"
#include "host/edit.h"
#include "host/helpers.h"

namespace tolm {
namespace {

// Flattened coordinate grid in matrix indexing over `dims`, with the
// coordinates stacked along a new last axis: the index array that walks every
// element in row-major order.
std::vector<int64_t> ij_grid_flat(const Shape& dims) {
  std::vector<int64_t> out;
  const int64_t count = shape_size(dims);
  if (count <= 0) return out;
  out.reserve(static_cast<size_t>(count) * dims.size());
  std::vector<int64_t> coord(dims.size(), 0);
  for (int64_t flat = 0; flat < count; ++flat) {
    out.insert(out.end(), coord.begin(), coord.end());
    for (size_t d = dims.size(); d-- > 0;) {
      if (++coord[d] < dims[d]) break;
      coord[d] = 0;
    }
  }
  return out;
}

bool is_int_dtype(const std::string& dtype) {
  return dtype == "int4" || dtype == "int6" || dtype == "int8" || dtype == "int16";
}

// Clip bounds that cut nothing off: only the infinities. Bounds at the 16-bit
// float limits (+-65504) would still turn a float32 value beyond them, or an
// infinity of any float type, into the limit.
constexpr double kNoLowerBound = -std::numeric_limits<double>::infinity();
constexpr double kNoUpperBound = std::numeric_limits<double>::infinity();

bool const_all(const NDArray* a, double v) { return a != nullptr && a->all_equal(v); }

// Adding zeros leaves float data exactly as it is only with zeros of the
// right sign: -0 + +0 is +0, and a later division tells the two apart (-inf
// against +inf). x + (-0) and x - (+0) are exact; integer zeros carry no sign.
bool adds_nothing(const NDArray& c, bool negative_zero) {
  if (!c.all_equal(0.0)) return false;
  if (!dtype_is_float(c.dtype())) return true;
  const std::vector<double> v = c.to_f64();
  return std::all_of(v.begin(), v.end(), [&](double z) { return std::signbit(z) == negative_zero; });
}

bool dataconvert_is_invalid(const IR& ir, const Node& node, const std::string& input0,
                            const std::string& output0, const QuantTable* quant_tab) {
  const auto i_dtype = IR::get_attr_str(node, "i_dtype");
  const auto o_dtype = IR::get_attr_str(node, "o_dtype");
  if (i_dtype != o_dtype) return false;
  // Same integer type but another quantisation range is a requantisation.
  if (i_dtype && is_int_dtype(*i_dtype) && quant_tab != nullptr) {
    const auto in_q = quant_tab->find(input0);
    const auto out_q = quant_tab->find(output0);
    if (in_q != quant_tab->end() && out_q != quant_tab->end()) {
      if (in_q->second.min != out_q->second.min || in_q->second.max != out_q->second.max)
        return false;
    }
  }
  return true;
}

bool clip_is_invalid(const IR& ir, const Node& node) {
  if (node.input.size() <= 1) return false;
  if (node.input[1].empty() || !ir.is_const(node.input[1])) return false;
  if (!const_all(ir.get_const(node.input[1]), kNoLowerBound)) return false;
  if (node.input.size() <= 2) return false;
  if (node.input[2].empty() || !ir.is_const(node.input[2])) return false;
  if (!const_all(ir.get_const(node.input[2]), kNoUpperBound)) return false;
  return true;
}

bool transpose_is_invalid(const Node& node, const Shape& i_shape) {
  const auto perm = IR::get_attr_ints(node, "perm");
  if (!perm) return false;
  // Only the order of the dimensions larger than 1 matters for the data.
  std::vector<int64_t> perm_;
  for (int64_t p : *perm) {
    if (p < 0 || p >= static_cast<int64_t>(i_shape.size())) return false;
    if (i_shape[p] != 1) perm_.push_back(p);
  }
  return std::is_sorted(perm_.begin(), perm_.end());
}

bool pool_is_invalid(const Node& node) {
  using Ints = std::vector<int64_t>;
  const std::pair<const char*, Ints> wanted[] = {
      {"kernel_shape", {1, 1}}, {"strides", {1, 1}}, {"pads", {0, 0, 0, 0}}, {"dilations", {1, 1}}};
  for (const auto& [key, value] : wanted) {
    if (IR::get_attr_ints(node, key) != value) return false;
  }
  return true;
}

bool gather_is_invalid(const IR& ir, const Node& node) {
  if (node.input.size() < 2) return false;
  const Shape in_shape = ir.get_shape(node.input[0]);
  const auto axis_attr = IR::get_attr_int(node, "axis");
  if (!axis_attr) return false;
  int64_t axis = *axis_attr;
  if (axis < 0) axis += static_cast<int64_t>(in_shape.size());
  if (axis < 0 || axis >= static_cast<int64_t>(in_shape.size())) return false;
  if (!ir.is_const(node.input[1]) || ir.is_const(node.input[0])) return false;
  const NDArray* indices = ir.get_const(node.input[1]);
  if (indices->ndim() != 1) return false;
  if (indices->shape()[0] != in_shape[axis]) return false;
  const std::vector<int64_t> values = indices->to_i64();
  for (size_t i = 0; i < values.size(); ++i)
    if (values[i] != static_cast<int64_t>(i)) return false;
  return true;
}

bool scatternd_is_invalid(const IR& ir, const Node& node) {
  if (node.input.size() < 3) return false;
  const NDArray* indices = ir.get_const(node.input[1]);
  if (indices == nullptr) return false;
  const Shape base_shape = ir.get_shape(node.input[0]);
  const Shape update_shape = ir.get_shape(node.input[2]);
  if (base_shape.empty() || update_shape.empty() || base_shape != update_shape) return false;

  const NDArray* base_data = ir.get_const(node.input[0]);
  const auto rd_type = IR::get_attr_str(node, "reduction");
  if (!rd_type) return false;
  if (*rd_type == "none") {
    // Every element is overwritten; the base does not matter.
  } else if (*rd_type == "add") {
    if (!const_all(base_data, 0.0)) return false;
  } else if (*rd_type == "mul") {
    if (!const_all(base_data, 1.0)) return false;
  } else {
    return false;
  }

  // The indices must name every position of the updates in order, so that
  // the output is the updates themselves.
  const Shape& ishape = indices->shape();
  if (ishape.size() < 2) return false;
  Shape grid_dims(ishape.begin(), ishape.end() - 1);
  Shape require_shape = grid_dims;
  require_shape.push_back(static_cast<int64_t>(grid_dims.size()));
  if (require_shape != ishape) return false;
  return indices->to_i64() == ij_grid_flat(grid_dims);
}

}  // namespace

RuleResult _p_remove_invalid_node(IR& ir, const NodeList& nodes, QuantTable* quant_tab) {
  if (nodes.empty()) return no_match();
  const NodePtr& node = nodes[0];
  if (node->input.empty() || node->output.empty()) return no_match();
  const std::string& op = node->op_type();

  std::string input0 = node->input[0];
  const std::string output0 = node->output[0];
  // The shapes are only read: the rule edits the graph last, when it bypasses.
  const Shape& i_shape = ir.port_shape(*node, false, 0);
  const Shape& o_shape = ir.port_shape(*node, true, 0);

  // A scalar keeps its node, except for a Cast.
  if (op != "Cast" && (i_shape.empty() || o_shape.empty())) return no_match();
  if (op != "Where" && op != "GatherND" && i_shape != o_shape) return no_match();

  Graph g(ir);

  if (op == "exDataConvert") {
    if (!dataconvert_is_invalid(ir, *node, input0, output0, quant_tab)) return no_match();
  } else if (op == "Expand") {
    if (node->input.size() < 2 || !const_all(ir.get_const(node->input[1]), 1.0)) return no_match();
  } else if (op == "Add" || op == "Sub" || op == "Mul") {
    if (node->input.size() < 2) return no_match();
    const NDArray* cst = ir.get_const(node->input[0]);
    int const_idx = 0;
    if (cst != nullptr) {
      input0 = node->input[1];
    } else {
      cst = ir.get_const(node->input[1]);
      const_idx = 1;
      if (cst == nullptr) return no_match();
    }
    if (op == "Add" && !adds_nothing(*cst, /*negative_zero=*/true)) return no_match();
    // 0 - x negates x.
    if (op == "Sub" && (const_idx == 0 || !adds_nothing(*cst, /*negative_zero=*/false))) return no_match();
    if (op == "Mul" && !cst->all_equal(1.0)) return no_match();
  } else if (op == "Clip") {
    if (!clip_is_invalid(ir, *node)) return no_match();
  } else if (op == "Where") {
    if (node->input.size() < 3) return no_match();
    const NDArray* condition = ir.get_const(input0);
    if (condition == nullptr) return no_match();
    const std::vector<double> cond = condition->to_f64();
    const bool all_true = std::all_of(cond.begin(), cond.end(), [](double v) { return v != 0.0; });
    const bool all_false = std::all_of(cond.begin(), cond.end(), [](double v) { return v == 0.0; });
    if (all_true) {
      input0 = node->input[1];
    } else if (all_false) {
      input0 = node->input[2];
    } else {
      return no_match();
    }
    // A branch that broadcasts is not the output.
    if (ir.get_shape(input0) != ir.get_shape(output0)) return no_match();
  } else if (op == "Concat") {
    if (node->input.size() > 1 || node->output.size() > 1) return no_match();
  } else if (op == "Split") {
    if (node->output.size() != 1) return no_match();
  } else if (op == "Resize") {
    const auto ct_mode = IR::get_attr_str(*node, "coordinate_transformation_mode");
    if (ct_mode && (*ct_mode == "tf_crop_and_resize" || *ct_mode == "tf_half_pixel_for_nn"))
      return no_match();
  } else if (op == "Pad") {
    if (node->input.size() < 2) return no_match();
    const NDArray* pads = ir.get_const(node->input[1]);
    if (pads == nullptr || pads->any_less(0.0)) return no_match();
  } else if (op == "ScatterND") {
    if (!scatternd_is_invalid(ir, *node)) return no_match();
    input0 = node->input[2];
  } else if (op == "GatherND") {
    if (node->input.size() < 2) return no_match();
    const auto batch_dims = IR::get_attr_int(*node, "batch_dims");
    const NDArray* indices = ir.get_const(node->input[1]);
    if (!batch_dims || indices == nullptr || *batch_dims != 0) return no_match();
    if (indices->ndim() == 0) return no_match();
    const Shape& ishape = indices->shape();
    const int64_t k = ishape.back();
    const std::vector<int64_t> values = indices->to_i64();
    bool is_identity = false;
    // Row form: [[0], [1], ..., [n-1]] picks every row in order.
    if (k == 1 && indices->ndim() == 2 && ishape[0] == i_shape[0]) {
      is_identity = true;
      for (int64_t r = 0; r < ishape[0]; ++r)
        if (values[static_cast<size_t>(r)] != r) is_identity = false;
    }
    // Grid form: the indices walk the leading k dimensions in row-major order.
    if (!is_identity) {
      const size_t lead = std::min(static_cast<size_t>(std::max<int64_t>(k, 0)), i_shape.size());
      if (lead > 0) {
        const Shape grid_dims(i_shape.begin(), i_shape.begin() + lead);
        const std::vector<int64_t> require = ij_grid_flat(grid_dims);
        is_identity = static_cast<int64_t>(require.size()) == indices->size() &&
                      values == require && shape_size(i_shape) == shape_size(o_shape);
      }
    }
    if (!is_identity) return no_match();
    if (i_shape != o_shape) {
      // Same elements in the same order, another shape: a Reshape does it.
      OpSpec opts;
      opts.outputs = {output0};
      opts.name = node->name() + "_2rs";
      g.op("Reshape", {node->input[0], std::vector<int64_t>(o_shape)}, opts);
      return {{node}, g.nodes};
    }
  } else if (op == "Transpose") {
    if (!transpose_is_invalid(*node, i_shape)) return no_match();
  } else if (op == "Relu") {
    const NodeList nods = ir.pre_nodes(node->input[0]);
    if (nods.empty() || nods[0]->op_type() != "Relu") return no_match();
  } else if (op == "Cast") {
    const auto to = IR::get_attr_int(*node, "to");
    if (!to || to_np_type(*to) != ir.get_dtype(input0)) return no_match();
  } else if (op == "Slice") {
    const NDArray* steps = ir.get_const_optional(*node, 4);
    if (steps == nullptr) return no_match();
    const std::vector<int64_t> sv = steps->to_i64();
    if (std::find(sv.begin(), sv.end(), -1) != sv.end()) return no_match();
  } else if (op == "BatchNormalization") {
    if (node->input.size() < 5) return no_match();
    // In training mode the node normalises by the batch's own statistics.
    if (IR::get_attr_int(*node, "training_mode").value_or(0) != 0) return no_match();
    const double identity_params[] = {1.0, 0.0, 0.0, 1.0};  // scale, bias, mean, variance
    for (size_t i = 1; i <= 4; ++i) {
      if (!const_all(ir.get_const(node->input[i]), identity_params[i - 1])) return no_match();
    }
  } else if (op == "MaxPool" || op == "AveragePool") {
    if (!pool_is_invalid(*node)) return no_match();
    // onnxruntime's MaxPool starts each window at the lowest finite float:
    // even a 1x1 window turns -inf and NaN into that number. Where those
    // may come, the pool is no identity.
    if (op == "MaxPool" && may_carry_non_finite(ir, input0)) return no_match();
  } else if (op == "Gather") {
    if (!gather_is_invalid(ir, *node)) return no_match();
  }

  // A node does nothing only if the surviving tensor is its output as it
  // stands: a neutral constant that broadcasts the other operand, or a Where
  // branch of a smaller shape, changes the output's shape.
  if (op != "Cast" && (!ir.has_shape(input0) || ir.get_shape(input0) != o_shape)) return no_match();
  if (!bypass_node(ir, *node, input0)) return no_match();
  return {{node}, {}};
}

}  // namespace tolm
