// An If whose condition is constant is replaced by the branch it takes: the
// branch's nodes and constants move into the graph, and its outputs take
// the names of the If's outputs.
//
// Names: a tensor the branch declares keeps its name unless the graph
// already holds that name, and then gets a fresh one, also inside the
// sub-graphs of the branch's own nodes that read it. Node names follow the
// graph's rule (a name already held gets a suffix).
#include <unordered_map>
#include <unordered_set>

#include "fold/steps.h"
#include "host/edit.h"
#include "host/helpers.h"
#include "host/shape_infer.h"
#include "host/subgraph.h"

namespace tolm {
namespace fold {

namespace {

bool condition_of(const IR& ir, const Node& node, bool& taken) {
  NDArray holder;
  const NDArray* c = constant_value(ir, node.input[0], holder);
  if (!c || c->size() != 1 || c->dtype() == dt::STRING) return false;
  taken = c->f64_at(0) != 0.0;
  return true;
}

std::string renamed(const std::unordered_map<std::string, std::string>& renames, const std::string& t) {
  auto it = renames.find(t);
  return it == renames.end() ? t : it->second;
}

}  // namespace

bool inline_constant_if(IR& ir, Node& node, FoldStats& stats) {
  if (node.op_type() != "If" || !in_default_domain(node) || node.input.size() != 1) return false;
  bool taken = false;
  if (!condition_of(ir, node, taken)) return false;
  const Attr* branch = IR::get_attr(node, taken ? "then_branch" : "else_branch");
  GraphBody body;
  if (!branch || !decode_graph_attr(*branch, body)) return false;
  if (!body.inputs.empty() || body.outputs.size() != node.output.size()) return false;

  // What the branch declares, and what each declared name becomes.
  std::unordered_set<std::string> nodes_declared;
  for (const NodePtr& n : body.nodes)
    for (const auto& o : n->output)
      if (!o.empty()) nodes_declared.insert(o);
  std::unordered_map<std::string, std::string> renames;
  std::vector<std::string> handed_out;
  // A branch output made by a branch node is made under the If's output name.
  std::vector<bool> direct(node.output.size(), false);
  for (size_t k = 0; k < node.output.size(); ++k) {
    const std::string& b = body.outputs[k];
    if (node.output[k].empty() || !nodes_declared.count(b) || renames.count(b)) continue;
    renames[b] = node.output[k];
    direct[k] = true;
  }
  auto fresh = [&](const std::string& t) {
    if (renames.count(t)) return;
    if (!ir.has_tensor(t) && !ir.is_const(t)) return;
    const std::string name = oper_name_join(ir, t, "", handed_out);
    handed_out.push_back(name);
    renames[t] = name;
  };
  for (const auto& kv : body.consts) fresh(kv.first);
  for (const NodePtr& n : body.nodes)
    for (const auto& o : n->output)
      if (!o.empty()) fresh(o);

  const NodePtr keep = node.shared_from_this();
  const int64_t order = node.order();
  const std::string if_name = node.name();
  const std::vector<std::string> if_outputs = node.output.names();
  ir.remove_node(node);

  for (const auto& kv : body.consts) ir.set_const(renamed(renames, kv.first), kv.second);
  NodeList added;
  for (const NodePtr& n : body.nodes) {
    std::vector<std::string> ins, outs;
    for (const auto& t : n->input) ins.push_back(t.empty() ? t : renamed(renames, t));
    for (const auto& t : n->output) outs.push_back(t.empty() ? t : renamed(renames, t));
    std::vector<Attr> attrs;
    for (const Attr& a : n->attribute()) attrs.push_back(rename_outer_names(a, renames));
    const std::string name = n->name().empty() ? std::string() : ir.unique_node_name(n->name());
    NodePtr copy = Node::make(n->op_type(), ins, outs, name, attrs, n->domain);
    copy->doc_string = n->doc_string;
    copy->implicit_inputs = outer_names(copy->attribute());
    ir.add_node(copy, order);
    added.push_back(copy);
  }
  // Outputs the branch does not make with a node of its own (a constant, an
  // outer tensor, an output named twice): their readers read the source
  // itself; a graph output, or one a sub-graph reads, gets an Identity.
  for (size_t k = 0; k < if_outputs.size(); ++k) {
    const std::string& y = if_outputs[k];
    if (y.empty() || direct[k]) continue;
    const std::string from = renamed(renames, body.outputs[k]);
    if (!ir.is_output(y) && !has_implicit_reader(ir, y)) {
      replace_all_uses(ir, y, from);
      continue;
    }
    NodePtr id = Node::make("Identity", {from}, {y}, node_name_join(ir, if_name, "_out"));
    ir.add_node(id, order);
    added.push_back(id);
  }
  // A branch passes outer tensors out through Identity nodes; inlined, they
  // have nothing left to do.
  for (const NodePtr& n : added)
    if (n->op_type() == "Identity" && in_default_domain(*n) && n->input.size() == 1 &&
        bypass_node(ir, *n, n->input[0]))
      ir.remove_node(*n);
  // Shapes: what the branch declares, then inference in the branch's order.
  for (const auto& kv : body.declared) {
    const std::string t = renamed(renames, kv.first);
    if (!kv.second.has_shape || ir.has_shape(t) || !ir.has_tensor(t) || ir.is_const(t)) continue;
    ir.set_shape(t, kv.second.shape, false, kv.second.dtype);
  }
  for (const NodePtr& n : added)
    if (ir.contains(*n)) infer_node(ir, *n, false);
  ++stats.folded["If"];
  return true;
}

}  // namespace fold
}  // namespace tolm
