// Reshape and Transpose nodes carried across a Concat or a Split, so that the
// nodes on its many inputs or outputs become one on its single side: the
// Reshapes feeding a Concat move behind it, one behind it folds into those in
// front, and the Reshapes or Transposes reading a Split move in front of it.
//
// A Reshape can cross the joined (or cut) axis when it leaves that axis
// intact: the axis's size stands on the other side at a place where the
// elements before it and after it agree in number. Both sides then hold the
// data as [before, axis, after], and joining or cutting the middle commutes
// with the Reshape. A Reshape that only moves size-1 axes is a Transpose,
// which commutes with joining and cutting anyway.
#include <algorithm>
#include <cstdint>
#include <functional>
#include <numeric>
#include <optional>
#include <string>
#include <vector>

#include "host/builder.h"
#include "host/edit.h"
#include "host/helpers.h"
#include "host/log.h"
#include "restructure/restructure.h"

namespace tolm {
namespace {

using Ints = std::vector<int64_t>;

int64_t prod(Ints::const_iterator b, Ints::const_iterator e) {
  return std::accumulate(b, e, int64_t{1}, std::multiplies<>());
}

// Position of `axis` in a shape of `rank` (negative counts from the back), or
// absent when it lies outside.
std::optional<size_t> axis_pos(int64_t axis, size_t rank) {
  const int64_t r = static_cast<int64_t>(rank);
  const int64_t a = axis < 0 ? axis + r : axis;
  if (a < 0 || a >= r) return std::nullopt;
  return static_cast<size_t>(a);
}

// The first place of `from[axis]` in `to` with as many elements before it
// and after it as `from` has around `axis`.
std::optional<size_t> intact_axis(const Shape& from, size_t axis, const Shape& to) {
  const int64_t before = prod(from.begin(), from.begin() + static_cast<std::ptrdiff_t>(axis));
  const int64_t after = prod(from.begin() + static_cast<std::ptrdiff_t>(axis) + 1, from.end());
  for (size_t idx = 0; idx < to.size(); ++idx) {
    if (to[idx] != from[axis]) continue;
    if (prod(to.begin(), to.begin() + static_cast<std::ptrdiff_t>(idx)) == before &&
        prod(to.begin() + static_cast<std::ptrdiff_t>(idx) + 1, to.end()) == after)
      return idx;
  }
  return std::nullopt;
}

Shape head(const Shape& s, size_t n) { return Shape(s.begin(), s.begin() + static_cast<std::ptrdiff_t>(n)); }
Shape tail(const Shape& s, size_t n) { return Shape(s.begin() + static_cast<std::ptrdiff_t>(n) + 1, s.end()); }

// Keeps the first value seen; false when a later one differs.
template <class T>
bool agree(std::optional<T>& held, const T& v) {
  if (!held) held = v;
  return *held == v;
}

bool known(const IR& ir, const std::string& t) { return ir.has_shape(t) && !ir.get_shape(t).empty(); }

// A tensor whose producer may go or whose shape may change unseen: no graph
// output and no sub-graph reads it.
bool internal(const IR& ir, const std::string& t) {
  return !ir.is_output(t) && !has_implicit_reader(ir, t);
}

// Channels a target stores per group when a Concat joins channels.
std::optional<int64_t> concat_ci_align(const std::string& target) {
  if (target == "npu_e") return 16;
  for (const char* t : {"npu_f", "npu_c", "npu_d", "npu_a", "npu_b", "npu_g", "npu_h"})
    if (target == t) return 8;
  return std::nullopt;
}

// The permutation met most often; on a tie the one seen first.
Perm find_most_common(const std::vector<Perm>& perms) {
  std::vector<std::pair<Perm, int>> counts;  // first-seen order
  for (const Perm& p : perms) {
    auto it = std::find_if(counts.begin(), counts.end(), [&](const auto& c) { return c.first == p; });
    if (it == counts.end()) counts.emplace_back(p, 1);
    else ++it->second;
  }
  Perm most_common_item;
  int max_count = 0;
  for (const auto& [p, count] : counts)
    if (count > max_count) {
      most_common_item = p;
      max_count = count;
    }
  return most_common_item;
}

}  // namespace

RuleResult _p_remove_reshape_before_concat(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.empty()) return no_match();
  const NodePtr& concat = nodes[0];
  const auto axis = IR::get_attr_int(*concat, "axis");
  if (!axis || concat->output.size() != 1) return no_match();
  const NodeList pre_nodes = ir.pre_nodes(*concat);
  if (pre_nodes.size() != concat->input.size()) return no_match();

  NodeList reshapes;
  std::optional<Shape> i_shape_pre, i_shape_post;
  std::optional<int64_t> new_axis;
  std::optional<Perm> tp_perm;
  for (const NodePtr& nod : pre_nodes) {
    if (nod->op_type() != "Reshape") return no_match();
    if (!known(ir, nod->input[0]) || !known(ir, nod->output[0])) return no_match();
    const Shape i_shape = ir.get_shape(nod->input[0]);
    const Shape o_shape = ir.get_shape(nod->output[0]);
    if (ir.next_nodes(*nod).size() != 1 || !internal(ir, nod->output[0])) return no_match();
    const auto a = axis_pos(*axis, o_shape.size());
    if (!a) return no_match();
    std::optional<size_t> i_axis = intact_axis(o_shape, *a, i_shape);
    Perm tp_perm_;
    if (!i_axis) {
      const Perm perm_i_o = get_equivalent_perm_for_reshape(i_shape, o_shape);
      if (perm_i_o.empty()) return no_match();
      const Perm perm_o_i = get_equivalent_perm_for_reshape(o_shape, i_shape);
      const int64_t at = index_of(perm_o_i, static_cast<int64_t>(*a));
      // The Transpose put behind the Concat must bring that axis back to `a`.
      if (at < 0 || perm_i_o[*a] != at) return no_match();
      tp_perm_ = perm_i_o;
      i_axis = static_cast<size_t>(at);
    }
    if (!agree(tp_perm, tp_perm_) || !agree(new_axis, static_cast<int64_t>(*i_axis)) ||
        !agree(i_shape_pre, head(i_shape, *i_axis)) || !agree(i_shape_post, tail(i_shape, *i_axis)))
      return no_match();
    if (i_shape.size() != 4 && o_shape.size() == 4) return no_match();
    reshapes.push_back(nod);
  }
  if (reshapes.size() < 2) return no_match();

  if (*new_axis == 1) {
    const std::optional<int64_t> ci_align = concat_ci_align(ir.npu_target);
    if (!ci_align) {
      tolmLog::w("remove reshape before concat failed, platform-[" + ir.npu_target +
                 "] not valid for this rule");
      return no_match();
    }
    int need_tiling_num = 0;
    for (const NodePtr& nod : pre_nodes)
      if (ir.get_shape(nod->input[0])[1] % *ci_align != 0) ++need_tiling_num;
    if (need_tiling_num > static_cast<double>(pre_nodes.size()) / 3) return no_match();
  }
  const std::string out_name = concat->output[0];
  if (tp_perm->empty() && !shape_holds_data(ir.get_shape(out_name))) return no_match();

  // The Concat joins the Reshapes' inputs and hands its result to one node
  // that does what they did, under the old output name.
  Shape joined = ir.get_shape(pre_nodes[0]->input[0]);
  joined[static_cast<size_t>(*new_axis)] = 0;
  for (const NodePtr& rs : reshapes) {
    joined[static_cast<size_t>(*new_axis)] += ir.get_shape(rs->input[0])[static_cast<size_t>(*new_axis)];
    replace_input(ir, *concat, rs->output[0], rs->input[0]);
  }
  const std::string mid = oper_name_join(ir, out_name, "_before_reshape");
  ir.set_shape(mid, joined, false, ir.get_dtype(out_name));
  rename_output(ir, *concat, out_name, mid);
  ir.set_attr(*concat, Attr::make_int("axis", *new_axis));
  Graph g(ir);
  if (!tp_perm->empty()) {
    g.op("Transpose", {mid},
         {{out_name}, node_name_join(ir, concat->name(), "_tp"), {Attr::make_ints("perm", *tp_perm)}});
  } else {
    const std::string new_node_name = node_name_join(ir, concat->name(), "_reshape");
    const std::string new_node_shape = oper_name_join(ir, new_node_name, "_shape");
    ir.set_const(new_node_shape, NDArray::from_i64(ir.get_shape(out_name)));
    g.op("Reshape", {mid, new_node_shape}, {{out_name}, new_node_name});
  }
  return {reshapes, g.nodes};
}

RuleResult _p_remove_reshape_after_concat(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.size() < 2) return no_match();
  const NodePtr& concat = nodes[0];
  const NodePtr& reshape = nodes[1];
  const auto axis_attr = IR::get_attr_int(*concat, "axis");
  if (!axis_attr || concat->output.size() != 1 || reshape->input.empty() ||
      reshape->input[0] != concat->output[0] || !only_read_by(ir, concat->output[0], *reshape))
    return no_match();
  for (const std::string& inp : concat->input)
    if (ir.is_input(inp)) return no_match();
  const NodeList nods_pre = ir.pre_nodes(*concat);
  size_t n_reshape = 0;
  for (const NodePtr& n : nods_pre)
    if (n->op_type() == "Reshape") ++n_reshape;
  if (n_reshape == 0 || n_reshape < nods_pre.size()) return no_match();
  for (const NodePtr& n : nods_pre)
    if (ir.next_nodes(*n).size() != 1 || !internal(ir, n->output[0])) return no_match();
  const Shape m_shape = ir.get_shape(reshape->input[0]);
  const Shape o_shape = ir.get_shape(reshape->output[0]);
  if (m_shape.size() != 4 || o_shape.size() != 4) return no_match();
  if (!shape_holds_data(m_shape) || !shape_holds_data(o_shape)) return no_match();

  const auto axis = axis_pos(*axis_attr, m_shape.size());
  if (!axis) return no_match();
  const int64_t m_size_pre = prod(m_shape.begin(), m_shape.begin() + static_cast<std::ptrdiff_t>(*axis));
  std::optional<size_t> axis_new;
  int64_t o_size_pre = 1;
  for (size_t i = 0; i < o_shape.size(); ++i) {
    o_size_pre *= o_shape[i];
    if (o_size_pre > m_size_pre) {
      axis_new = i;
      break;
    }
  }
  if (!axis_new || m_shape[*axis] != o_shape[*axis_new]) return no_match();
  // The joined axis must also keep the elements before it: with as many in
  // front on both sides, the Reshape sees every input as [front, axis, rest]
  // and can be done input by input.
  if (o_size_pre / o_shape[*axis_new] != m_size_pre) return no_match();

  auto new_shape = [&](const std::string& name) {
    Shape s = o_shape;
    s[*axis_new] = ir.get_shape(name)[*axis];
    return s;
  };
  // Every input is a Reshape's output or a constant, in the joined layout.
  for (const std::string& inp : concat->input) {
    const NodePtr p = ir.producer(inp);
    if (!p && !ir.is_const(inp)) return no_match();
    if (ir.get_shape(inp).size() != m_shape.size() || !shape_holds_data(new_shape(inp))) return no_match();
    if (!p && (!ir.get_const(inp) || ir.get_const(inp)->shape() != ir.get_shape(inp))) return no_match();
  }

  ir.set_attr(*concat, Attr::make_int("axis", static_cast<int64_t>(*axis_new)));
  for (const NodePtr& nod : nods_pre) {
    const Shape shape = new_shape(nod->output[0]);
    set_own_const(ir, *nod, 1, NDArray::from_i64(shape), "_rs");
    ir.set_shape(nod->output[0], shape);
  }
  // A constant input is given the same shape, its data in the same order.
  for (size_t i = 0; i < concat->input.size(); ++i) {
    const std::string inp = concat->input[i];
    if (ir.producer(inp)) continue;
    const Shape shape = new_shape(inp);
    if (ir.get_shape(inp) != shape) set_own_const(ir, *concat, i, ir.get_const(inp)->reshaped(shape), "_rs");
  }
  rename_output(ir, *concat, concat->output[0], reshape->output[0]);
  return {{reshape}, {}};
}

RuleResult _p_remove_reshape_after_split(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.empty()) return no_match();
  const NodePtr& split = nodes[0];
  if (split->input.empty()) return no_match();
  const int64_t axis_attr = IR::get_attr_int(*split, "axis").value_or(0);

  NodeList next_nodes;
  std::vector<std::string> invalid_outp;
  for (const std::string& outp : split->output) {
    if (ir.is_output(outp) || has_implicit_reader(ir, outp)) return no_match();
    const NodeList nods = ir.next_nodes(outp);
    if (nods.size() > 1) return no_match();
    // The reader must take the piece as its data, not as its target shape.
    if (nods.size() == 1 && (nods[0]->input.empty() || nods[0]->input[0] != outp)) return no_match();
    if (nods.size() == 1) next_nodes.push_back(nods[0]);
    else invalid_outp.push_back(outp);
  }

  NodeList reshapes;
  std::vector<Shape> new_split_o_shape;
  std::optional<Shape> o_shape_pre, o_shape_post;
  std::optional<int64_t> new_axis;
  std::optional<Perm> tp_perm;
  size_t axis = 0;
  for (const NodePtr& nod : next_nodes) {
    if (nod->op_type() != "Reshape") return no_match();
    if (!known(ir, nod->input[0]) || !known(ir, nod->output[0])) return no_match();
    const Shape i_shape = ir.get_shape(nod->input[0]);
    const Shape o_shape = ir.get_shape(nod->output[0]);
    new_split_o_shape.push_back(o_shape);
    const auto a = axis_pos(axis_attr, i_shape.size());
    if (!a) return no_match();
    axis = *a;
    std::optional<size_t> o_axis = intact_axis(i_shape, axis, o_shape);
    Perm tp_perm_;
    if (!o_axis) {
      const Perm perm_i_o = get_equivalent_perm_for_reshape(i_shape, o_shape);
      if (perm_i_o.empty()) return no_match();
      tp_perm_ = perm_i_o;
      o_axis = static_cast<size_t>(index_of(perm_i_o, static_cast<int64_t>(axis)));
    }
    if (!agree(tp_perm, tp_perm_) || !agree(new_axis, static_cast<int64_t>(*o_axis)) ||
        !agree(o_shape_pre, head(o_shape, *o_axis)) || !agree(o_shape_post, tail(o_shape, *o_axis)))
      return no_match();
    if (i_shape.size() == 4 && o_shape.size() != 4) return no_match();
    reshapes.push_back(nod);
  }
  if (reshapes.empty()) return no_match();

  // Outputs nobody reads keep their names and take the shape of their piece
  // in the new layout.
  std::vector<Shape> invalid_shapes;
  for (const std::string& outp : invalid_outp) {
    if (!known(ir, outp) || ir.get_shape(outp).size() <= axis) return no_match();
    Shape shape_new;
    if (!tp_perm->empty()) {
      shape_new = apply_perm(*tp_perm, ir.get_shape(outp));
    } else {
      shape_new = new_split_o_shape[0];
      shape_new[static_cast<size_t>(*new_axis)] = ir.get_shape(outp)[axis];
    }
    invalid_shapes.push_back(shape_new);
  }
  Shape new_split_i_shape = new_split_o_shape[0];
  const auto na = static_cast<size_t>(*new_axis);
  for (size_t k = 1; k < new_split_o_shape.size(); ++k) new_split_i_shape[na] += new_split_o_shape[k][na];
  for (const Shape& s : invalid_shapes) new_split_i_shape[na] += s[na];
  if (tp_perm->empty() && !shape_holds_data(new_split_i_shape)) return no_match();

  const std::string in_name = split->input[0];
  for (const NodePtr& nod : reshapes) rename_output(ir, *split, nod->input[0], nod->output[0]);
  for (size_t k = 0; k < invalid_outp.size(); ++k) ir.set_shape(invalid_outp[k], invalid_shapes[k]);
  const std::string new_in = oper_name_join(ir, in_name, "_after_reshape_" + split->name());
  replace_input(ir, *split, in_name, new_in);
  ir.set_attr(*split, Attr::make_int("axis", *new_axis));
  Graph g(ir);
  if (!tp_perm->empty()) {
    g.op("Transpose", {in_name},
         {{new_in}, node_name_join(ir, split->name(), "_tp" + std::to_string(tp_perm->size())),
          {Attr::make_ints("perm", *tp_perm)}});
  } else {
    const std::string new_node_name =
        node_name_join(ir, split->name(), "_reshape" + std::to_string(new_split_i_shape.size()));
    const std::string new_node_shape = oper_name_join(ir, new_node_name, "_shape");
    ir.set_const(new_node_shape, NDArray::from_i64(new_split_i_shape));
    g.op("Reshape", {in_name, new_node_shape}, {{new_in}, new_node_name});
  }
  return {reshapes, g.nodes};
}

RuleResult _p_remove_transpose_after_split(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.empty()) return no_match();
  const NodePtr& split = nodes[0];
  if (split->input.empty()) return no_match();
  const int64_t axis_attr = IR::get_attr_int(*split, "axis").value_or(0);

  // Every piece is read by one Transpose alone: a piece that is a graph
  // output would change under its own name.
  NodeList next_nodes;
  for (const std::string& outp : split->output) {
    const NodeList nods = ir.next_nodes(outp);
    if (nods.size() != 1 || !internal(ir, outp)) return no_match();
    next_nodes.push_back(nods[0]);
  }
  NodeList transposes;
  std::vector<Perm> perms;
  for (const NodePtr& nod : next_nodes) {
    if (nod->op_type() != "Transpose" || nod->input[0] != split->output[transposes.size()]) return no_match();
    if (!known(ir, nod->input[0]) || !known(ir, nod->output[0])) return no_match();
    const Shape& i_shape = ir.get_shape(nod->input[0]);
    if (i_shape.size() == 4 && ir.get_shape(nod->output[0]).size() != 4) return no_match();
    const auto perm = IR::get_attr_ints(*nod, "perm");
    if (!perm || !is_perm_of(*perm, i_shape.size())) return no_match();
    perms.push_back(*perm);
    transposes.push_back(nod);
  }
  if (transposes.empty()) return no_match();
  const Perm perm = find_most_common(perms);
  const auto axis = axis_pos(axis_attr, perm.size());
  if (!axis) return no_match();
  // A Transpose that moves nothing gains nothing in front, and one that
  // takes out no Transpose behind only adds one.
  if (is_identity_perm(perm)) return no_match();
  bool any_goes = false;
  for (size_t i = 0; i < transposes.size(); ++i)
    any_goes = any_goes || (perms[i] == perm && !ir.is_output(transposes[i]->output[0]));
  if (!any_goes) return no_match();

  const std::string in_name = split->input[0];
  const Perm perm_inv = inverse_perm(perm);
  NodeList transposes_rm;
  for (size_t i = 0; i < transposes.size(); ++i) {
    const std::string piece = transposes[i]->input[0];
    if (perms[i] == perm && !ir.is_output(transposes[i]->output[0])) {
      rename_output(ir, *split, piece, transposes[i]->output[0]);
      transposes_rm.push_back(transposes[i]);
    } else {
      // The piece now comes transposed by `perm`; this Transpose does the rest.
      Perm perm_new;
      for (int64_t p : perms[i]) perm_new.push_back(perm_inv[static_cast<size_t>(p)]);
      ir.set_attr(*transposes[i], Attr::make_ints("perm", perm_new));
      ir.set_shape(piece, apply_perm(perm, ir.get_shape(piece)));
    }
  }
  const std::string new_in = oper_name_join(ir, in_name, "_after_tp_" + split->name());
  replace_input(ir, *split, in_name, new_in);
  ir.set_attr(*split, Attr::make_int("axis", index_of(perm, static_cast<int64_t>(*axis))));
  Graph g(ir);
  g.op("Transpose", {in_name},
       {{new_in}, node_name_join(ir, split->name(), "_tp" + std::to_string(perm.size())),
        {Attr::make_ints("perm", perm)}});
  return {transposes_rm, g.nodes};
}

}  // namespace tolm
