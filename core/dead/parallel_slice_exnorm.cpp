// Several Slice nodes on one tensor, each followed by an exNorm that
// normalises over axes the slices leave whole: the exNorm moves ahead of the
// slices and runs once on the full tensor.
#include <algorithm>
#include <string>
#include <vector>

#include "dead/dead.h"
#include "host/builder.h"
#include "host/edit.h"
#include "host/helpers.h"

namespace tolm {
namespace {

int64_t norm_axis(int64_t a, int64_t rank) { return a < 0 ? a + rank : a; }

}  // namespace

RuleResult _p_merge_parallel_slice_exnorm(IR& ir, const NodeList& nodes, QuantTable*) {
  if (nodes.size() < 2) return no_match();
  const NodePtr& slice = nodes[0];
  const NodePtr& exnorm = nodes[1];
  if (slice->input.empty() || exnorm->input.size() != 1 || exnorm->input[0] != slice->output[0])
    return no_match();
  const std::string input_0 = slice->input[0];
  if (single_reader(ir, slice->output[0]) != exnorm || !ir.has_shape(input_0)) return no_match();
  const int64_t rank = static_cast<int64_t>(ir.get_shape(input_0).size());

  NodeList nodes_para_slice{slice}, nodes_para_exnorm{exnorm};
  for (const NodePtr& nod : ir.next_nodes(input_0)) {
    if (nod == slice || nod->op_type() != "Slice") continue;
    if (nod->input[0] != input_0) continue;
    const NodeList next = ir.next_nodes(nod->output[0]);
    if (next.size() != 1) return no_match();
    if (next[0]->op_type() != "exNorm") continue;
    // Its output is about to name the exNorm's result: no one else may read it.
    if (single_reader(ir, nod->output[0]) != next[0] || next[0]->input.size() != 1) return no_match();
    nodes_para_slice.push_back(nod);
    nodes_para_exnorm.push_back(next[0]);
  }
  if (nodes_para_slice.size() <= 1) return no_match();

  std::vector<int64_t> slice_axes;
  for (const NodePtr& nod : nodes_para_slice) {
    const NDArray* axes = ir.get_const_optional(*nod, 3);
    const NDArray* steps = ir.get_const_optional(*nod, 4);
    if (axes == nullptr || steps == nullptr) return no_match();
    if (steps->to_i64() != std::vector<int64_t>{1}) return no_match();
    const std::vector<int64_t> ax = axes->to_i64();
    if (ax.size() != 1) return no_match();
    slice_axes.push_back(norm_axis(ax[0], rank));
  }
  if (std::count(slice_axes.begin(), slice_axes.end(), slice_axes[0]) !=
      static_cast<std::ptrdiff_t>(slice_axes.size()))
    return no_match();
  const auto norm_axes = IR::get_attr_ints(*exnorm, "axes");
  if (!norm_axes) return no_match();
  for (int64_t a : *norm_axes)
    if (norm_axis(a, rank) == slice_axes[0]) return no_match();
  for (const NodePtr& nod : nodes_para_exnorm)
    if (!IR::same_attr(*exnorm, *nod) || nod->domain != exnorm->domain) return no_match();
  for (size_t k = 0; k < nodes_para_slice.size(); ++k)
    if (!can_move_output_name(ir, nodes_para_slice[k]->output[0], nodes_para_exnorm[k]->output[0]))
      return no_match();

  Graph g(ir);
  std::vector<Attr> attrs;
  for (const char* key : {"axes", "eps", "mode"})
    if (const Attr* a = IR::get_attr(*exnorm, key)) attrs.push_back(*a);
  const std::string exnorm_outp =
      g.op("exNorm", {input_0}, {{}, exnorm->name() + "_swap_parallel_slice_exnorm", attrs});
  g.nodes.back()->domain = exnorm->domain;
  ir.set_shape(exnorm_outp, ir.get_shape(input_0), false, ir.get_dtype(input_0));

  for (size_t k = 0; k < nodes_para_slice.size(); ++k) {
    Node& sl = *nodes_para_slice[k];
    const Node& exn = *nodes_para_exnorm[k];
    replace_input(ir, sl, input_0, exnorm_outp);
    move_output_name(ir, sl.output[0], exn.output[0], {nodes_para_exnorm[k]});
  }
  return {nodes_para_exnorm, g.nodes};
}

}  // namespace tolm
