// A ScatterND that writes the same updates to the same places as the
// ScatterND it writes over changes nothing: it goes.
#include "host/edit.h"
#include "scatternd/scatternd.h"

namespace tolm {

RuleResult _p_remove_redundant_scatternd(IR& ir, const NodeList& nodes, QuantTable*) {
  using scatternd_detail::reduction_of;
  if (nodes.size() < 2) return no_match();
  const NodePtr& scatternd_1 = nodes[0];
  const NodePtr& scatternd_2 = nodes[1];
  if (scatternd_1->input.size() != 3 || scatternd_2->input.size() != 3 || scatternd_1->output.empty())
    return no_match();
  if (scatternd_1->output[0] != scatternd_2->input[0]) return no_match();
  for (const std::string* t : {&scatternd_1->input[0], &scatternd_1->input[2], &scatternd_2->input[2],
                               &scatternd_1->input[1], &scatternd_2->input[1]})
    if (!ir.has_shape(*t)) return no_match();
  if (ir.get_shape(scatternd_1->input[0]).size() != 4 || ir.get_shape(scatternd_1->input[2]).size() != 4 ||
      ir.get_shape(scatternd_2->input[2]).size() != 4)
    return no_match();
  if (ir.get_shape(scatternd_1->input[1]) != ir.get_shape(scatternd_2->input[1])) return no_match();
  if (reduction_of(*scatternd_1) != "none" || reduction_of(*scatternd_2) != "none") return no_match();

  const std::string& ind_1 = scatternd_1->input[1];
  const std::string& ind_2 = scatternd_2->input[1];
  bool same_indices = ind_1 == ind_2;
  if (!same_indices) {
    const NDArray* c1 = ir.get_const(ind_1);
    const NDArray* c2 = ir.get_const(ind_2);
    same_indices = c1 && c2 && c1->shape() == c2->shape() && c1->to_i64() == c2->to_i64();
  }
  if (!same_indices) return no_match();
  if (scatternd_1->input[2] != scatternd_2->input[2]) return no_match();
  if (ir.is_output(scatternd_2->output[0])) return no_match();
  if (!bypass_node(ir, *scatternd_2, scatternd_1->output[0])) return no_match();
  return {{scatternd_2}, {}};
}

}  // namespace tolm
