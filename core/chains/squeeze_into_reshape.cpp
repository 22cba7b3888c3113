// Squeeze after Reshape: the Reshape can produce the squeezed shape itself.
#include "chains/chains.h"

namespace tolm {

RuleResult _p_fuse_squeeze_into_reshape(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.size() < 2) return no_match();
  const NodePtr& reshape = nodes[0];
  const NodePtr& squeeze = nodes[1];
  if (reshape->input.size() < 2 || reshape->output.empty() || squeeze->output.empty())
    return no_match();

  const Shape out_shape = ir.get_shape(squeeze->output[0]);
  if (out_shape.empty()) return no_match();

  // The target-shape constant now holds the squeezed shape, and the Reshape
  // takes over the Squeeze's output, so its consumers need no rewiring.
  ir.set_const(reshape->input[1], NDArray::from_i64(out_shape, dt::INT64));
  const std::string squeezed = squeeze->output[0];
  reshape->output.set(0, squeezed);
  return {{squeeze}, {}};
}

}  // namespace tolm
