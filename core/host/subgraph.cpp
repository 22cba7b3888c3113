#include "host/subgraph.h"

#include <unordered_set>

#include <onnx/onnx_pb.h>

#include "host/onnx_convert.h"

namespace tolm {

using namespace onnx_convert;

namespace {

bool parse(const Attr& a, onnx::AttributeProto& ap) {
  if (a.opaque.empty() || !ap.ParseFromString(a.opaque)) return false;
  return ap.has_g() || ap.graphs_size() > 0;
}

void declare(GraphBody& body, const onnx::ValueInfoProto& vi) {
  if (!vi.type().has_tensor_type()) return;
  const auto& tt = vi.type().tensor_type();
  DeclaredType d;
  d.dtype = tt.elem_type();
  if (tt.has_shape()) {
    d.has_shape = true;
    for (const auto& dim : tt.shape().dim()) {
      if (!dim.has_dim_value() || dim.dim_value() < 0) {
        d.has_shape = false;
        d.shape.clear();
        break;
      }
      d.shape.push_back(dim.dim_value());
    }
  }
  body.declared[vi.name()] = std::move(d);
}

// Renames the free names of one graph in place. Names the graph declares
// shadow the outer ones, here and in its own sub-graphs.
void rename_free(onnx::GraphProto& g, const std::unordered_map<std::string, std::string>& renames) {
  std::unordered_set<std::string> declared;
  for (const auto& v : g.input()) declared.insert(v.name());
  for (const auto& t : g.initializer()) declared.insert(t.name());
  for (const auto& t : g.sparse_initializer()) declared.insert(t.values().name());
  for (const auto& n : g.node())
    for (const auto& o : n.output()) declared.insert(o);
  std::unordered_map<std::string, std::string> inner;
  for (const auto& kv : renames)
    if (!declared.count(kv.first)) inner.insert(kv);
  if (inner.empty()) return;
  auto renamed = [&](std::string* t) {
    auto it = inner.find(*t);
    if (it != inner.end()) *t = it->second;
  };
  for (auto& n : *g.mutable_node()) {
    for (auto& i : *n.mutable_input()) renamed(&i);
    for (auto& a : *n.mutable_attribute()) {
      if (a.has_g()) rename_free(*a.mutable_g(), inner);
      for (auto& sg : *a.mutable_graphs()) rename_free(sg, inner);
    }
  }
  for (auto& o : *g.mutable_output()) renamed(o.mutable_name());
}

}  // namespace

bool is_graph_attr(const Attr& a) { return a.kind == Attr::GRAPH || a.kind == Attr::GRAPHS; }

bool decode_graph_attr(const Attr& a, GraphBody& body) {
  if (a.kind != Attr::GRAPH) return false;
  onnx::AttributeProto ap;
  if (!parse(a, ap) || !ap.has_g()) return false;
  const onnx::GraphProto& g = ap.g();
  if (g.sparse_initializer_size() > 0) return false;
  GraphBody out;
  for (const auto& v : g.input()) out.inputs.push_back(v.name());
  for (const auto& v : g.output()) {
    out.outputs.push_back(v.name());
    declare(out, v);
  }
  for (const auto& v : g.value_info()) declare(out, v);
  for (const auto& tp : g.initializer()) {
    NDArray value;
    if (!tensor_from_proto(tp, value).empty()) return false;
    out.consts.emplace_back(tp.name(), std::move(value));
  }
  for (const auto& np : g.node()) {
    const bool default_domain = np.domain().empty() || np.domain() == "ai.onnx";
    if (np.op_type() == "Constant" && default_domain) {
      NDArray value;
      if (np.output_size() != 1 || !constant_value(np, value)) return false;
      out.consts.emplace_back(np.output(0), std::move(value));
      continue;
    }
    std::vector<Attr> attrs;
    attrs.reserve(static_cast<size_t>(np.attribute_size()));
    for (const auto& p : np.attribute()) attrs.push_back(attr_from_proto(p));
    NodePtr node = Node::make(np.op_type(), std::vector<std::string>(np.input().begin(), np.input().end()),
                              std::vector<std::string>(np.output().begin(), np.output().end()), np.name(), attrs,
                              np.domain());
    node->doc_string = np.doc_string();
    node->implicit_inputs = implicit_inputs_of(np);
    out.nodes.push_back(std::move(node));
  }
  body = std::move(out);
  return true;
}

std::vector<std::string> outer_names(const std::vector<Attr>& attrs) {
  std::vector<std::string> out;
  std::unordered_set<std::string> seen;
  for (const Attr& a : attrs) {
    if (!is_graph_attr(a)) continue;
    onnx::AttributeProto ap;
    if (!parse(a, ap)) continue;
    std::vector<std::string> sub;
    if (ap.has_g()) free_names(ap.g(), sub);
    for (const auto& sg : ap.graphs()) free_names(sg, sub);
    for (auto& t : sub)
      if (seen.insert(t).second) out.push_back(std::move(t));
  }
  return out;
}

Attr rename_outer_names(const Attr& a, const std::unordered_map<std::string, std::string>& renames) {
  if (!is_graph_attr(a) || renames.empty()) return a;
  onnx::AttributeProto ap;
  if (!parse(a, ap)) return a;
  if (ap.has_g()) rename_free(*ap.mutable_g(), renames);
  for (auto& sg : *ap.mutable_graphs()) rename_free(sg, renames);
  Attr out = a;
  out.opaque = ap.SerializeAsString();
  return out;
}

}  // namespace tolm
