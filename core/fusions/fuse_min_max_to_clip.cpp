// Min and Max against scalar constants, in either order, clamp the data to
// [lower, upper]: one Clip does the same in one pass.
#include <cmath>
#include <string>
#include <vector>

#include "fusions/fusions.h"
#include "host/builder.h"
#include "host/helpers.h"

namespace tolm {
namespace {

// Clip takes its bounds as inputs from opset 11 on, for float types only;
// integer types follow at 12 and bfloat16 at 13.
bool clip_takes_type(int64_t opset, int32_t dtype) {
  if (opset >= 13) return true;
  if (opset == 12) return dtype != dt::BFLOAT16;
  if (opset == 11) return dtype == dt::FLOAT || dtype == dt::FLOAT16 || dtype == dt::DOUBLE;
  return false;
}

}  // namespace

RuleResult _p_fuse_min_max_to_clip(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.size() != 2) return no_match();
  const NodePtr& first = nodes[0];
  const NodePtr& second = nodes[1];
  if (first->output.empty() || second->output.empty() || !second->input.contains(first->output[0]))
    return no_match();
  const bool min_first = first->op_type() == "Min";
  const NodePtr& min_op = min_first ? first : second;
  const NodePtr& max_op = min_first ? second : first;
  // One Min and one Max: two of a kind are no clamp.
  if (min_op->op_type() != "Min" || max_op->op_type() != "Max") return no_match();
  if (min_op->input.size() != 2 || max_op->input.size() != 2) return no_match();

  std::vector<std::string> min_const, max_const, min_data, max_data;
  for (const std::string& t : min_op->input) (ir.is_const(t) ? min_const : min_data).push_back(t);
  for (const std::string& t : max_op->input) (ir.is_const(t) ? max_const : max_data).push_back(t);
  if (min_const.size() != 1 || max_const.size() != 1) return no_match();
  if (min_data.size() != 1 || max_data.size() != 1) return no_match();

  const NDArray* min_c = ir.get_const(min_const[0]);
  const NDArray* max_c = ir.get_const(max_const[0]);
  if (!min_c || !max_c || min_c->size() != 1 || max_c->size() != 1) return no_match();
  const double lower = max_c->f64_at(0);
  const double upper = min_c->f64_at(0);
  if (std::isnan(lower) || std::isnan(upper) || lower > upper) return no_match();

  const std::vector<std::string>& second_data = min_first ? max_data : min_data;
  if (second_data[0] != first->output[0]) return no_match();
  const std::string& inp = min_first ? min_data[0] : max_data[0];

  // The first node's output goes with it: nobody else may read it.
  if (!only_read_by(ir, first->output[0], *second)) return no_match();
  // A bound with more axes than the data widens the result by broadcasting;
  // Clip keeps the data's shape.
  const bool data_shaped = ir.has_shape(inp);
  const size_t rank = ir.get_shape(inp).size();
  for (const NDArray* c : {min_c, max_c})
    if (c->ndim() > 0 && (!data_shaped || c->ndim() > rank)) return no_match();
  if (min_c->dtype() != max_c->dtype() || !clip_takes_type(ir.opset(), max_c->dtype())) return no_match();

  Graph g(ir);
  g.op("Clip", {inp, max_c->reshaped({}), min_c->reshaped({})},
       {{second->output[0]}, first->name() + "_to_clip"});
  return {nodes, g.nodes};
}

}  // namespace tolm
