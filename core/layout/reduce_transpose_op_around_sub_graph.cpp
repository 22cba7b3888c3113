// A Split whose pieces run through point-wise activations and element-wise
// arithmetic, with Transpose nodes all around it: the little region runs in
// the transposed layout instead, so that the outer Transpose nodes cancel and
// few new ones appear. The local cousin of the transpose mesh.
#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include <xtensor/xarray.hpp>
#include <xtensor/xmanipulation.hpp>

#include "host/builder.h"
#include "host/edit.h"
#include "host/helpers.h"
#include "host/xarray_bridge.h"
#include "layout/layout.h"

namespace tolm {
namespace {

struct SubGraphPattern {
  const char* match_graph_name;
  std::vector<std::vector<std::string>> types;
};

// Tried in this order; the first that fits the region under the Split wins.
const std::vector<SubGraphPattern>& match_nodes() {
  static const std::vector<SubGraphPattern> patterns = {
      {"split_activation_alu", {{"Split"}, ACTIVATION_OPS(), ELEMENTWISE_ALU_OPS()}},
      {"split_alu_activation", {{"Split"}, ELEMENTWISE_ALU_OPS(), ACTIVATION_OPS()}},
  };
  return patterns;
}

std::string perm_text(const Perm& perm) {
  std::string s;
  for (size_t k = 0; k < perm.size(); ++k) s += (k ? "," : "") + std::to_string(perm[k]);
  return s;
}

// Constants of these element types can be moved into another layout
// (strings and complex numbers cannot).
bool can_transpose_const(const NDArray& a) {
  return dtype_is_float(a.dtype()) || dtype_is_integer(a.dtype()) || a.dtype() == dt::BOOL;
}

NDArray transposed_const(const NDArray& a, const Perm& perm) {
  const std::vector<size_t> order(perm.begin(), perm.end());
  if (dtype_is_float(a.dtype())) {
    const xt::xarray<double> t = xt::transpose(to_xarray<double>(a), order);
    return from_xarray(t, a.dtype());
  }
  const xt::xarray<int64_t> t = xt::transpose(to_xarray<int64_t>(a), order);
  return from_xarray(t, a.dtype());
}

// The nodes of the list, in list order, that some node outside it reads.
NodeList _get_last_node(const IR& ir, const NodeList& sub_graph_nodes,
                        const std::unordered_set<const Node*>& members) {
  NodeList last_nodes;
  for (const NodePtr& nod : sub_graph_nodes) {
    bool outside = false;
    for (const NodePtr& c : ir.next_nodes(*nod)) outside = outside || !members.count(c.get());
    if (outside) last_nodes.push_back(nod);
  }
  return last_nodes;
}

}  // namespace

RuleResult _p_reduce_transpose_op_around_sub_graph(IR& ir, const NodeList& nodes,
                                                   QuantTable* /*quant_tab*/) {
  if (nodes.empty() || nodes[0]->op_type() != "Split") return no_match();
  const NodePtr& split = nodes[0];

  NodeList sub_graph_nodes;
  for (const SubGraphPattern& p : match_nodes()) {
    const auto levels = get_continuous_nodes(ir, split, p.types.size());
    if (match_sub_graph(levels, p.types)) {
      sub_graph_nodes = flatten_levels(levels);
      break;
    }
  }
  if (sub_graph_nodes.empty()) return no_match();
  std::unordered_set<const Node*> members;
  for (const NodePtr& n : sub_graph_nodes) members.insert(n.get());

  size_t out_degree = 0, in_degree = 0;
  for (const NodePtr& n : sub_graph_nodes) {
    out_degree += n->output.size();
    for (const std::string& t : n->input) in_degree += !t.empty() && !ir.is_const(t);
  }
  if (out_degree != in_degree) return no_match();

  const NodePtr& first_node = sub_graph_nodes[0];
  const NodeList last_nodes = _get_last_node(ir, sub_graph_nodes, members);
  if (last_nodes.size() != 1) return no_match();
  const NodePtr last_node = last_nodes[0];

  // The ranks around the region agree; the lengths input of the Split is no
  // feature map.
  std::vector<std::string> feature_ins;
  for (size_t k = 0; k < first_node->input.size(); ++k)
    if (!(first_node->op_type() == "Split" && k == 1)) feature_ins.push_back(first_node->input[k]);
  const size_t rank = ir.get_shape(feature_ins.empty() ? std::string() : feature_ins[0]).size();
  for (const std::string& t : feature_ins)
    if (ir.get_shape(t).size() != rank) return no_match();
  for (const std::string& t : last_node->output)
    if (ir.get_shape(t).size() != rank) return no_match();
  if (rank == 0) return no_match();

  // Only the region's edge changes layout through Transpose nodes, so every
  // tensor inside must belong to the region alone: an input from elsewhere
  // would be read in the wrong layout, an inner graph output would change
  // under its name, and a region node reading the edge output would get the
  // new layout where it expects the old. Constants inside stay as they are,
  // which only a one-element constant of no higher rank survives.
  for (const NodePtr& n : sub_graph_nodes) {
    if (n.get() != first_node.get()) {
      for (const std::string& t : n->input) {
        if (t.empty()) continue;
        if (const NDArray* c = ir.get_const(t)) {
          if (c->size() != 1 || c->ndim() > rank) return no_match();
          continue;
        }
        const NodePtr p = ir.producer(t);
        if (!p || !members.count(p.get())) return no_match();
        if (p.get() == last_node.get()) return no_match();
      }
    }
    if (n.get() == last_node.get()) continue;
    for (const std::string& t : n->output)
      if (!t.empty() && (ir.is_output(t) || ir.get_shape(t).size() != rank)) return no_match();
  }
  const NDArray* data = ir.get_const(first_node->input[0]);
  if (data && (!can_transpose_const(*data) || data->ndim() != rank)) return no_match();
  int64_t axis = IR::get_attr_int(*first_node, "axis").value_or(0);
  if (axis < 0) axis += static_cast<int64_t>(rank);
  if (axis < 0 || axis >= static_cast<int64_t>(rank)) return no_match();

  // Counting: the region profits only where Transpose neighbours outnumber
  // the plain ones (graph inputs and outputs count as neighbours too).
  const NodeList prev_nods = ir.pre_nodes(*first_node);
  const NodeList next_nods = ir.next_nodes(*last_node);
  int64_t tp_in_num = 0, tp_out_num = 0, model_in_num = 0, model_out_num = 0;
  for (const NodePtr& n : prev_nods) tp_in_num += n->op_type() == "Transpose";
  for (const NodePtr& n : next_nods) tp_out_num += n->op_type() == "Transpose";
  for (const std::string& t : first_node->input) model_in_num += ir.is_input(t);
  for (const std::string& t : last_node->output) model_out_num += ir.is_output(t);
  int64_t feature_num = static_cast<int64_t>(prev_nods.size() + next_nods.size());
  if (first_node->op_type() == "Split" && first_node->input.size() > 1 &&
      !first_node->input[1].empty() && !ir.is_const(first_node->input[1]))
    feature_num -= 1;
  const int64_t non_tp_num = feature_num - tp_in_num - tp_out_num + model_in_num + model_out_num;
  if (tp_in_num + tp_out_num <= non_tp_num) return no_match();

  NodeList in_tps, out_tps;
  for (const NodePtr& n : prev_nods)
    if (n->op_type() == "Transpose") in_tps.push_back(n);
  for (const NodePtr& n : next_nods)
    if (n->op_type() == "Transpose") out_tps.push_back(n);
  // Transpose chains are the pair rules' work.
  for (const NodePtr& tp : out_tps) {
    const NodeList after = ir.next_nodes(*tp);
    if (after.size() == 1 && after[0]->op_type() == "Transpose") return no_match();
  }
  for (const NodePtr& tp : in_tps) {
    const NodeList before = ir.pre_nodes(*tp);
    if (before.size() == 1 && before[0]->op_type() == "Transpose") return no_match();
  }

  // The vote: the layout most Transpose neighbours would cancel against.
  std::vector<std::pair<Perm, Shape>> perms;
  for (const NodePtr& tp : in_tps)
    perms.emplace_back(inverse_perm(_func_tp_perm(ir, *tp)), ir.get_shape(tp->output[0]));
  for (const NodePtr& tp : out_tps)
    perms.emplace_back(_func_tp_perm(ir, *tp), ir.get_shape(tp->input[0]));
  OrderedDict<int64_t> all_perm_type;
  std::unordered_map<std::string, Perm> perm_of_text;
  for (const auto& [_perm, _shape] : perms) {
    int64_t ones = 0;
    for (int64_t d : _shape) ones += d == 1;
    const std::vector<Perm> counted =
        ones <= 1 ? std::vector<Perm>{_perm} : get_equivalent_perm_for_tp(_perm, _shape);
    for (const Perm& p : counted) {
      const std::string key = perm_text(p);
      all_perm_type[key] += 1;
      perm_of_text.emplace(key, p);
    }
  }
  std::string max_perm_type_str;
  int64_t max_count = -1;
  for (const auto& [key, count] : all_perm_type.items())
    if (count > max_count) max_perm_type_str = key, max_count = count;
  if (max_count <= non_tp_num) return no_match();
  const Perm new_in_perm = perm_of_text.at(max_perm_type_str);
  if (!is_perm_of(new_in_perm, rank)) return no_match();
  const Perm new_out_perm = inverse_perm(new_in_perm);
  auto perm_attr = [](const Perm& p) { return std::vector<Attr>{Attr::make_ints("perm", p)}; };

  // Which Transpose consumers of the edge output cancel against the new
  // layout. At most one of them may hand its graph-output name to the region
  // (the tensor keeps one producer); the others whose output is a graph
  // output stay, reading the old layout. Decided before any edit.
  std::vector<NodeList> cancel_tps(last_node->output.size());
  std::vector<std::string> kept_name(last_node->output.size());
  std::vector<bool> need_insert_tp_after(last_node->output.size(), false);
  for (size_t idx = 0; idx < last_node->output.size(); ++idx) {
    const std::string& _out = last_node->output[idx];
    if (_out.empty()) continue;
    need_insert_tp_after[idx] = ir.is_output(_out);
    for (const NodePtr& tp : ir.next_nodes(_out)) {
      const bool cancels = tp->op_type() == "Transpose" && tp->input[0] == _out &&
                           check_equivalent_perm_for_tp(ir, _out, _func_tp_perm(ir, *tp), new_in_perm) &&
                           !has_implicit_reader(ir, tp->output[0]);
      const bool names_output = cancels && ir.is_output(tp->output[0]);
      if (!cancels || (names_output && !kept_name[idx].empty())) {
        need_insert_tp_after[idx] = true;
        continue;
      }
      if (names_output) kept_name[idx] = tp->output[0];
      cancel_tps[idx].push_back(tp);
    }
  }

  Graph g(ir);
  NodeList rm_ops;
  std::unordered_map<std::string, std::string> already_fix_input;
  const std::vector<std::string> first_ins = first_node->input.names();
  for (size_t idx = 0; idx < first_ins.size(); ++idx) {
    const std::string& _in = first_ins[idx];
    if (_in.empty() || already_fix_input.count(_in)) continue;
    if (split->op_type() == "Split" && idx == 1) continue;
    std::string new_in = oper_name_join(ir, _in, "_tp4", g.names_assign);
    if (const NDArray* c = ir.get_const(_in)) {
      ir.set_const(new_in, transposed_const(*c, new_in_perm));
    } else {
      const NodeList _prev_nods = ir.pre_nodes(_in);
      if (_prev_nods.size() == 1 && _prev_nods[0]->op_type() == "Transpose" &&
          check_equivalent_perm_for_tp(ir, _prev_nods[0]->input[0], _func_tp_perm(ir, *_prev_nods[0]),
                                       new_out_perm)) {
        new_in = _prev_nods[0]->input[0];
        if (ir.next_nodes(_in).size() == 1 && !ir.is_output(_in)) rm_ops.push_back(_prev_nods[0]);
      } else {
        g.names_assign.push_back(new_in);
        g.op("Transpose", {_in}, OpSpec{{new_in}, "", perm_attr(new_in_perm)});
      }
    }
    replace_input(ir, *first_node, _in, new_in);
    already_fix_input[_in] = new_in;
  }

  // Tensors inside the region take the new layout under new names, so that
  // no old name carries a shape that no longer holds.
  for (const NodePtr& nod : sub_graph_nodes) {
    if (nod.get() == last_node.get()) continue;
    for (const std::string& t : std::vector<std::string>(nod->output.names())) {
      if (t.empty()) continue;
      const std::string renamed = oper_name_join(ir, t, "_rewrite_graph", g.names_assign);
      const Shape shape = apply_perm(new_in_perm, ir.get_shape(t));
      const int32_t dtype = ir.get_dtype(t);
      replace_all_uses(ir, t, renamed);
      rename_output(ir, *nod, t, renamed);
      ir.set_shape(renamed, shape, false, dtype);
    }
  }

  const std::vector<std::string> last_outs = last_node->output.names();
  for (size_t idx = 0; idx < last_outs.size(); ++idx) {
    const std::string& _out = last_outs[idx];
    if (_out.empty()) continue;
    const std::string new_out =
        kept_name[idx].empty() ? oper_name_join(ir, _out, "_tp4", g.names_assign) : kept_name[idx];
    g.names_assign.push_back(new_out);
    const Shape shape = apply_perm(new_in_perm, ir.get_shape(_out));
    const int32_t dtype = ir.get_dtype(_out);
    for (const NodePtr& tp : cancel_tps[idx]) {
      if (tp->output[0] != new_out) replace_all_uses(ir, tp->output[0], new_out);
      rm_ops.push_back(tp);
    }
    rename_output(ir, *last_node, _out, new_out);
    ir.set_shape(new_out, shape, false, dtype);
    if (need_insert_tp_after[idx])
      g.op("Transpose", {new_out}, OpSpec{{_out}, "", perm_attr(new_out_perm)});
  }

  if (first_node->op_type() == "Split" || first_node->op_type() == "Concat")
    ir.set_attr(*first_node, Attr::make_int("axis", index_of(new_in_perm, axis)));
  return {rm_ops, g.nodes};
}

}  // namespace tolm
