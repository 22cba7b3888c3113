// Squeeze after Reshape: the Reshape can produce the squeezed shape itself.
#include "chains/chains.h"
#include "host/edit.h"

namespace tolm {

RuleResult _p_fuse_squeeze_into_reshape(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.size() < 2) return no_match();
  const NodePtr& reshape = nodes[0];
  const NodePtr& squeeze = nodes[1];
  if (reshape->input.size() < 2 || reshape->output.empty() || squeeze->output.empty())
    return no_match();

  const Shape out_shape = ir.get_shape(squeeze->output[0]);
  if (out_shape.empty()) return no_match();
  // The Reshape's own output is dropped: only the Squeeze may read it.
  const std::string mid = reshape->output[0];
  if (ir.is_output(mid) || has_implicit_reader(ir, mid) || ir.next_nodes(mid) != NodeList{squeeze})
    return no_match();

  // The target-shape constant now holds the squeezed shape (a target other
  // nodes share stays theirs), and the Reshape takes over the Squeeze's
  // output, so its consumers need no rewiring.
  set_own_const(ir, *reshape, 1, NDArray::from_i64(out_shape, dt::INT64), "_sq");
  ir.set_output(*reshape, 0, squeeze->output[0]);
  return {{squeeze}, {}};
}

}  // namespace tolm
