// Two exDataConvert nodes in a row are one conversion from the first's input
// type to the second's output type. A pair that converts back to where it
// started is left for remove_invalid_dataconvert.
#include <optional>
#include <string>

#include "fusions/fusions.h"
#include "host/helpers.h"
#include "host/log.h"

namespace tolm {

RuleResult _p_fuse_two_dataconvert(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.size() != 2) return no_match();
  const NodePtr& cvt0 = nodes[0];
  const NodePtr& cvt1 = nodes[1];
  const std::optional<std::string> i_dtype_0 = IR::get_attr_str(*cvt0, "i_dtype");
  const std::optional<std::string> o_dtype_0 = IR::get_attr_str(*cvt0, "o_dtype");
  const std::optional<std::string> i_dtype_1 = IR::get_attr_str(*cvt1, "i_dtype");
  const std::optional<std::string> o_dtype_1 = IR::get_attr_str(*cvt1, "o_dtype");
  if (!i_dtype_0 || !o_dtype_0 || !i_dtype_1 || !o_dtype_1) return no_match();
  // The first conversion's output goes with it: the second must be its only reader.
  if (cvt0->output.size() != 1 || cvt1->input.size() != 1 || cvt1->input[0] != cvt0->output[0] ||
      !only_read_by(ir, cvt0->output[0], *cvt1))
    return no_match();
  if (*o_dtype_0 != *i_dtype_1)
    tolmLog::e("o_dtype_0 '" + *o_dtype_0 + "' != i_dtype_1 '" + *i_dtype_1 + "' in '" + cvt0->name() + "'");
  // A quantisation-aware model keeps its integer steps: they carry the
  // rounding it was trained with.
  if (ir.qat && (*o_dtype_0 == "int8" || *o_dtype_0 == "int16")) return no_match();

  NodePtr cvt = Node::make("exDataConvert", cvt0->input.names(), cvt1->output.names(), cvt0->name(),
                           {Attr::make_string("i_dtype", *i_dtype_0), Attr::make_string("o_dtype", *o_dtype_1)},
                           cvt0->domain);
  return {nodes, {cvt}};
}

}  // namespace tolm
