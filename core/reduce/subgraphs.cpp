// The bodies of If, Loop and Scan nodes are graphs of their own: each is
// reduced by the same driver, with the outer-scope names it reads standing
// as inputs it may not produce or rename, and put back only when a rule or
// a fold changed it.
#include "reduce/subgraphs.h"

#include <unordered_set>

#include <onnx/onnx_pb.h>

#include "host/onnx_io.h"

namespace tolm {

namespace {

// Reduces one body; true (and `bytes` replaced) when it changed.
bool reduce_body(const IR& outer, std::string& bytes, QuantTable* quant_tab, const DriverOptions& options,
                 DriverStats& total) {
  std::unique_ptr<IR> body;
  try {
    body = load_subgraph(outer, bytes);
  } catch (const LoadError&) {
    return false;  // a body we cannot take in stays as it is
  }
  body->npu_target = outer.npu_target;
  DriverOptions opt = options;
  opt.progress = nullptr;
  opt.max_rewrites = 0;
  const DriverStats s = run_reduce(*body, quant_tab, opt);
  for (const auto& kv : s.fired) total.fired[kv.first] += kv.second;
  for (const auto& kv : s.rule_seconds) total.rule_seconds[kv.first] += kv.second;
  total.rewrites += s.rewrites;
  total.attempts += s.attempts;
  total.rule_faults.insert(total.rule_faults.end(), s.rule_faults.begin(), s.rule_faults.end());
  total.fold.add(s.fold);
  total.subgraph_nodes_removed += s.subgraph_nodes_removed;
  if (s.rewrites == 0 && s.fold.steps == 0 && s.pruned_nodes == 0 && s.subgraph_nodes_removed == 0) return false;
  onnx::GraphProto before;
  before.ParseFromString(bytes);
  const std::string after = save_subgraph(*body, bytes);
  onnx::GraphProto reduced;
  reduced.ParseFromString(after);
  // The body must still read only names the outer graph had given it.
  const std::vector<std::string> was = subgraph_outer_names(bytes);
  const std::unordered_set<std::string> allowed(was.begin(), was.end());
  for (const auto& name : subgraph_outer_names(after))
    if (!allowed.count(name)) return false;
  total.subgraph_nodes_removed += before.node_size() - reduced.node_size();
  bytes = after;
  return true;
}

}  // namespace

int64_t reduce_subgraphs(IR& ir, QuantTable* quant_tab, const DriverOptions& options, DriverStats& total) {
  int64_t changed = 0;
  std::vector<NodePtr> holders;
  for (Node* n : ir.node_order())
    for (const Attr& a : n->attribute())
      if ((a.kind == Attr::GRAPH || a.kind == Attr::GRAPHS) && !a.opaque.empty()) {
        holders.push_back(n->shared_from_this());
        break;
      }
  for (const NodePtr& n : holders) {
    std::vector<Attr> attrs = n->attribute();
    bool node_changed = false;
    std::vector<std::string> outer_names;
    std::unordered_set<std::string> seen;
    for (Attr& a : attrs) {
      if ((a.kind != Attr::GRAPH && a.kind != Attr::GRAPHS) || a.opaque.empty()) continue;
      onnx::AttributeProto ap;
      if (!ap.ParseFromString(a.opaque)) continue;
      std::vector<onnx::GraphProto*> graphs;
      if (ap.has_g()) graphs.push_back(ap.mutable_g());
      for (auto& g : *ap.mutable_graphs()) graphs.push_back(&g);
      bool attr_changed = false;
      for (onnx::GraphProto* g : graphs) {
        std::string bytes = g->SerializeAsString();
        if (reduce_body(ir, bytes, quant_tab, options, total)) {
          g->ParseFromString(bytes);
          attr_changed = true;
        }
        for (auto& t : subgraph_outer_names(g->SerializeAsString()))
          if (seen.insert(t).second) outer_names.push_back(t);
      }
      if (attr_changed) {
        a.opaque = ap.SerializeAsString();
        node_changed = true;
      }
    }
    if (!node_changed) continue;
    // A new node in the old one's place: its outer-scope uses follow the
    // reduced bodies, so a name no body reads any more frees its producer.
    NodePtr fresh = Node::make(n->op_type(), std::vector<std::string>(n->input.begin(), n->input.end()),
                               std::vector<std::string>(n->output.begin(), n->output.end()), n->name(),
                               std::move(attrs), n->domain);
    fresh->doc_string = n->doc_string;
    fresh->implicit_inputs = std::move(outer_names);
    apply_result(ir, RuleResult{{n}, {fresh}});
    ++changed;
  }
  return changed;
}

}  // namespace tolm
