// Reshapes (and Muls) moved across a two-input elementwise node, whatever its
// op type (Add, Mul, Div): a Reshape that one behind the node undoes cancels
// with it, two alike in front become one behind, and (a*c) + (b*c) needs
// one Mul. The local name `add` stands for the matched node.
#include <cmath>
#include <cstdint>
#include <functional>
#include <numeric>
#include <optional>
#include <string>
#include <vector>

#include "host/builder.h"
#include "host/edit.h"
#include "host/helpers.h"
#include "host/ndarray_join.h"
#include "restructure/restructure.h"

namespace tolm {
namespace {

using Ints = std::vector<int64_t>;

// A constant operand grows by tiling only up to this many new elements.
constexpr int64_t kMaxTileGrowth = 10000;

int64_t prod(const Ints& s) { return std::accumulate(s.begin(), s.end(), int64_t{1}, std::multiplies<>()); }

// A tensor a rule may leave without its producer or give to another one: no
// graph output keeps the name, and no sub-graph reads it from outside.
bool internal(const IR& ir, const std::string& t) {
  return !ir.is_output(t) && !has_implicit_reader(ir, t);
}

// A constant the model cannot override at run time.
bool fixed_const(const IR& ir, const std::string& t) { return ir.is_const(t) && !ir.is_input(t); }

// The array repeated `reps[k]` times along each axis k, as numpy.tile with
// as many repeats as the array has axes.
std::optional<NDArray> tile(const NDArray& a, const Ints& reps) {
  NDArray out = a;
  for (size_t k = 0; k < reps.size(); ++k) {
    if (reps[k] == 1) continue;
    const std::vector<const NDArray*> copies(static_cast<size_t>(reps[k]), &out);
    std::optional<NDArray> joined = concat_arrays(copies, static_cast<int64_t>(k));
    if (!joined) return std::nullopt;
    out = std::move(*joined);
  }
  return out;
}

// The producers of the node's inputs of `op_type` that nothing else reads.
NodeList private_producers(const IR& ir, const Node& add, const std::string& op_type) {
  NodeList found;
  for (const NodePtr& nod : ir.pre_nodes(add))
    if (nod->op_type() == op_type && ir.next_nodes(nod->output[0]).size() <= 1) found.push_back(nod);
  return found;
}

// The node writes `fresh` (of `shape`) instead of its output, which a new
// node behind it now writes: its readers and a graph output keep the name.
void route_through(IR& ir, Node& add, const std::string& fresh, const Shape& shape) {
  const std::string out = add.output[0];
  ir.set_shape(fresh, shape, false, ir.get_dtype(out));
  rename_output(ir, add, out, fresh);
}

}  // namespace

RuleResult _p_remove_reshape_after_add(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.empty()) return no_match();
  const NodePtr& add = nodes[0];
  if (add->input.size() != 2 || add->output.size() != 1) return no_match();
  const std::string add_out = add->output[0];

  // Reshapes in front that feed the node alone; one that feeds its second
  // operand rules the node out.
  NodeList reshape0_nodes;
  for (const NodePtr& nod : ir.pre_nodes(*add)) {
    if (nod->op_type() != "Reshape") continue;
    const NodeList nexts = ir.next_nodes(*nod);
    if (nexts.size() != 1) continue;
    if (nexts[0]->input.empty() || nexts[0]->input[0] != nod->output[0]) return no_match();
    reshape0_nodes.push_back(nod);
  }
  if (reshape0_nodes.empty()) return no_match();
  const NodeList add_nexts = ir.next_nodes(add_out);
  NodeList reshape1_nodes;
  for (const NodePtr& n : add_nexts)
    if (n->op_type() == "Reshape" && n->input[0] == add_out) reshape1_nodes.push_back(n);
  if (reshape1_nodes.empty()) return no_match();

  // The first Reshape in front whose input shape one behind restores.
  NodePtr reshape0, reshape1;
  for (const NodePtr& r0 : reshape0_nodes) {
    if (!ir.has_shape(r0->input[0])) continue;
    const Shape& before = ir.get_shape(r0->input[0]);
    for (const NodePtr& r1 : reshape1_nodes)
      if (ir.has_shape(r1->output[0]) && ir.get_shape(r1->output[0]) == before) {
        reshape0 = r0;
        reshape1 = r1;
        break;
      }
    if (reshape0) break;
  }
  if (!reshape0) return no_match();

  const std::string mid = reshape0->output[0];
  const std::string x = reshape0->input[0];
  const Shape i_shape_reshape0 = ir.get_shape(x);
  const size_t another_in_idx = mid == add->input[0] ? 1 : 0;
  const std::string other = add->input[another_in_idx];
  const bool another_in_is_const = fixed_const(ir, other);
  const Shape i_shape_reshape1 = ir.get_shape(reshape1->input[0]);
  if (i_shape_reshape1.empty()) return no_match();
  if (i_shape_reshape0.size() != 4 && i_shape_reshape1.size() == 4) return no_match();
  if (add_nexts.size() > 1 && reshape0_nodes.size() == 1) return no_match();
  // Sub-graphs reading the node's output or the Reshape's could not follow.
  if (has_implicit_reader(ir, add_out) || has_implicit_reader(ir, mid)) return no_match();

  // The rewrite must take out more Reshapes than it puts in. A Reshape in
  // front that is a graph output stays; an operand without a producer that
  // is no constant (a graph input) gets a Reshape of its own.
  const bool reshape0_stays = ir.next_nodes(mid).size() > 1 || ir.is_output(mid);
  const int rm_reshape_num = reshape0_stays ? 1 : 2;
  int insert_reshape_num = 0;
  const NodeList pre_nods = ir.pre_nodes(other);
  if (!pre_nods.empty() && pre_nods[0]->op_type() != "Reshape") ++insert_reshape_num;
  if (pre_nods.empty() && !ir.is_const(other)) ++insert_reshape_num;
  for (const NodePtr& n : add_nexts)
    if (n->op_type() != "Reshape") ++insert_reshape_num;
  if (ir.is_output(add_out)) ++insert_reshape_num;
  if (rm_reshape_num <= insert_reshape_num) return no_match();

  // The other operand, in the layout in front of the Reshape.
  if (!ir.has_shape(mid) || !ir.has_shape(other) || !ir.has_shape(add_out)) return no_match();
  const Shape i_shape0_add = ir.get_shape(mid);
  const Shape i_shape1_add = ir.get_shape(other);
  // An operand that broadcasts the result beyond the reshaped one would
  // leave the node with another output shape.
  if (ir.get_shape(add_out) != i_shape0_add) return no_match();
  const bool is_scalar = prod(i_shape0_add) == 1 || prod(i_shape1_add) == 1;
  if (is_scalar && i_shape1_add.size() > i_shape_reshape0.size()) return no_match();
  Shape require_i_shape1_add, new_i_shape1_add;
  if (i_shape0_add == i_shape1_add || is_scalar) {
    require_i_shape1_add = i_shape1_add;
    new_i_shape1_add = i_shape_reshape0;
  } else {
    // An operand of lower rank broadcasts from the right: its axes do not
    // line up with the reshaped operand's.
    if (i_shape1_add.size() != i_shape0_add.size()) return no_match();
    const std::vector<IndependentPart> ind_parts =
        seperate_independent_part_for_reshape(i_shape0_add, i_shape_reshape0);
    if (ind_parts.empty()) return no_match();
    for (const IndependentPart& part : ind_parts) {
      bool all_one = true;
      for (int64_t a : part.first) all_one = all_one && i_shape1_add[static_cast<size_t>(a)] == 1;
      for (int64_t a : part.first)
        require_i_shape1_add.push_back(all_one ? 1 : i_shape0_add[static_cast<size_t>(a)]);
      for (int64_t b : part.second)
        new_i_shape1_add.push_back(all_one ? 1 : i_shape_reshape0[static_cast<size_t>(b)]);
    }
    if (require_i_shape1_add.size() != i_shape1_add.size() ||
        new_i_shape1_add.size() != i_shape_reshape0.size())
      return no_match();
  }
  if (require_i_shape1_add != i_shape1_add && !another_in_is_const) return no_match();
  Ints tile_param;
  for (size_t k = 0; k < require_i_shape1_add.size(); ++k)
    tile_param.push_back(require_i_shape1_add[k] == i_shape1_add[k] ? 1 : require_i_shape1_add[k]);
  if ((prod(tile_param) - 1) * prod(i_shape1_add) > kMaxTileGrowth) return no_match();
  // New Reshape targets must name every dimension.
  const bool restore = add_nexts.size() > 1 || ir.is_output(add_out);
  if (restore && !shape_holds_data(i_shape_reshape1)) return no_match();
  if (!is_scalar && !shape_holds_data(new_i_shape1_add)) return no_match();

  std::optional<NDArray> const_in;
  if (!is_scalar && another_in_is_const) {
    const NDArray* c = ir.get_const(other);
    if (!c || c->shape() != i_shape1_add) return no_match();
    const_in = *c;
    if (require_i_shape1_add != i_shape1_add) const_in = tile(*const_in, tile_param);
    if (!const_in || const_in->size() != prod(new_i_shape1_add)) return no_match();
  }

  Graph g(ir);
  if (!is_scalar) {
    if (const_in) {
      const std::string new_const_name = oper_name_join(ir, other, "_tile");
      ir.set_const(new_const_name, const_in->reshaped(new_i_shape1_add));
      replace_input(ir, *add, other, new_const_name);
    } else if (add->input[0] != add->input[1]) {
      const std::string add_inp1 = g.op("Reshape", {other, Ints(new_i_shape1_add)});
      replace_input(ir, *add, other, add_inp1);
    }
  }
  replace_input(ir, *add, mid, x);
  // Readers other than the Reshape behind, and a graph output, keep the old
  // tensor with its old shape, fed from the new result.
  const std::string y = reshape1->output[0];
  if (restore) g.op("Reshape", {y, Ints(i_shape_reshape1)}, {{add_out}});
  rename_output(ir, *add, add_out, y);
  if (reshape0_stays) return {{reshape1}, g.nodes};
  return {{reshape0, reshape1}, g.nodes};
}

RuleResult _p_remove_reshape_before_add(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.empty()) return no_match();
  const NodePtr& add = nodes[0];
  if (add->input.size() != 2 || add->output.size() != 1) return no_match();
  const NodeList pre_reshapes = private_producers(ir, *add, "Reshape");
  if (pre_reshapes.size() != 2) return no_match();
  const Shape i_shape0 = ir.get_shape(pre_reshapes[0]->input[0]);
  const Shape i_shape1 = ir.get_shape(pre_reshapes[1]->input[0]);
  if (i_shape0.empty() || i_shape1.empty() || i_shape0 != i_shape1) return no_match();
  const Shape o_shape0 = ir.get_shape(pre_reshapes[0]->output[0]);
  const Shape o_shape1 = ir.get_shape(pre_reshapes[1]->output[0]);
  if (o_shape0.empty() || o_shape1.empty() || o_shape0 != o_shape1) return no_match();
  const Shape o_shape_add = ir.get_shape(add->output[0]);
  if (i_shape0.size() != 4 && o_shape_add.size() == 4) return no_match();
  // The Reshapes go: their outputs must not be needed elsewhere. The new
  // Reshape's target is the node's output shape, which the equal operands
  // fix.
  for (const NodePtr& r : pre_reshapes)
    if (!internal(ir, r->output[0])) return no_match();
  if (o_shape_add != o_shape0 || !shape_holds_data(o_shape_add)) return no_match();

  const std::string a = pre_reshapes[0]->output[0] == add->input[0] ? pre_reshapes[0]->input[0]
                                                                     : pre_reshapes[1]->input[0];
  const std::string b = pre_reshapes[0]->output[0] == add->input[0] ? pre_reshapes[1]->input[0]
                                                                     : pre_reshapes[0]->input[0];
  const std::string old0 = add->input[0], old1 = add->input[1];
  replace_input(ir, *add, old0, a);
  replace_input(ir, *add, old1, b);
  Graph g(ir);
  const std::string fresh = g.op("Reshape", {Absent{}, Ints(o_shape_add)}, {{add->output[0]}});
  route_through(ir, *add, fresh, i_shape0);
  return {pre_reshapes, g.nodes};
}

RuleResult _p_remove_mul_before_add(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.empty()) return no_match();
  const NodePtr& add = nodes[0];
  if (add->input.size() != 2 || add->output.size() != 1) return no_match();
  const NodeList pre_muls = private_producers(ir, *add, "Mul");
  if (pre_muls.size() != 2) return no_match();
  const ElemwiseConst e0 = get_elemwise_const(ir, *pre_muls[0]);
  if (!e0.const_name) return no_match();
  const ElemwiseConst e1 = get_elemwise_const(ir, *pre_muls[1]);
  if (!e1.const_name) return no_match();
  const Shape i_shape0 = ir.get_shape(e0.other_name);
  const Shape i_shape1 = ir.get_shape(e1.other_name);
  if (i_shape0.empty() || i_shape1.empty() || i_shape0 != i_shape1) return no_match();
  const NDArray* const0 = ir.get_const(*e0.const_name);
  const NDArray* const1 = ir.get_const(*e1.const_name);
  if (!const0 || !const1 || const0->shape() != const1->shape()) return no_match();
  if (*const0 != *const1) return no_match();
  for (const NodePtr& m : pre_muls)
    if (!internal(ir, m->output[0])) return no_match();
  // a*c + b*c and (a+b)*c differ where c is infinite (a*inf + b*inf with
  // a = 0 is NaN, (0+b)*inf is not) and where a+b overflows alone.
  if (dtype_is_float(const0->dtype()))
    for (double v : const0->to_f64())
      if (!std::isfinite(v)) return no_match();
  if (ir.is_input(*e0.const_name) || ir.is_input(*e1.const_name)) return no_match();

  const bool first = pre_muls[0]->output[0] == add->input[0];
  const std::string a = first ? e0.other_name : e1.other_name;
  const std::string b = first ? e1.other_name : e0.other_name;
  const std::string old0 = add->input[0], old1 = add->input[1];
  replace_input(ir, *add, old0, a);
  replace_input(ir, *add, old1, b);
  Graph g(ir);
  const std::string out = add->output[0];
  const std::string fresh = g.op("Mul", {Absent{}, *e0.const_name}, {{out}});
  route_through(ir, *add, fresh, i_shape0);
  return {pre_muls, g.nodes};
}

}  // namespace tolm
