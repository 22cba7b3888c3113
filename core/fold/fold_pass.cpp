// The fold pass: which step applies at a node, the folding of one node into
// constants, and the worklist over the graph.
#include <algorithm>
#include <deque>
#include <stdexcept>
#include <string_view>

#include "fold/evaluate.h"
#include "fold/steps.h"
#include "host/edit.h"
#include "host/shape_infer.h"

namespace tolm {

void FoldStats::add(const FoldStats& other) {
  steps += other.steps;
  removed_nodes += other.removed_nodes;
  for (const auto& kv : other.folded) folded[kv.first] += kv.second;
  for (const auto& kv : other.fusions) fusions[kv.first] += kv.second;
  kept_by_size.insert(other.kept_by_size.begin(), other.kept_by_size.end());
}

namespace fold {

bool in_default_domain(const Node& node) { return node.domain.empty() || node.domain == "ai.onnx"; }

const NDArray* constant_value(const IR& ir, const std::string& t, NDArray& holder) {
  if (t.empty()) return nullptr;
  if (const NDArray* c = ir.get_const(t)) return c;
  const NodePtr p = ir.producer(t);
  if (!p || p->op_type() != "Constant" || !in_default_domain(*p) || p->output.size() != 1) return nullptr;
  const OpEvaluator* ev = find_evaluator("Constant");
  EvalContext ctx{*p, {}, ir.opset(), {}};
  ctx.budget.allowed = INT64_MAX;
  Outputs out;
  if (!ev->fn(ctx, out)) return nullptr;
  holder = std::move(out[0]);
  return &holder;
}

bool sole_reader(const IR& ir, const std::string& t, const Node& reader) {
  if (t.empty() || ir.is_output(t) || ir.use_count(t) != 1) return false;
  const TensorInfo* ti = ir.tensor(t);
  return ti && ti->uses[0].first == &reader && (ti->uses[0].second & IR::kImplicit) == 0;
}

void replace_nodes(IR& ir, const NodeList& old, const NodePtr& fresh) {
  int64_t order = old.front()->order();
  for (const NodePtr& n : old) {
    order = std::min(order, n->order());
    ir.remove_node(*n);
  }
  ir.add_node(fresh, order);
  for (const auto& t : fresh->output)
    if (!t.empty() && !ir.has_shape(t)) {
      infer_node(ir, *fresh, false);
      break;
    }
}

bool fold_identity_of_constant(IR& ir, Node& node, FoldStats& stats) {
  if (node.op_type() != "Identity" || !in_default_domain(node) || node.input.size() != 1 ||
      !ir.is_const(node.input[0]))
    return false;
  // The readers take the stored weight itself: no copy of it is made.
  if (!bypass_node(ir, node, node.input[0])) return false;
  ir.remove_node(node);
  ++stats.folded["Identity"];
  return true;
}

namespace {

// The bytes a result may take: small results always, larger ones only in
// proportion to the constants they come from, none above max_bytes.
int64_t allowed_bytes(const FoldOptions& o, int64_t input_bytes) {
  const double grown = o.max_growth * static_cast<double>(input_bytes);
  const int64_t by_growth = grown >= static_cast<double>(o.max_bytes) ? o.max_bytes : static_cast<int64_t>(grown);
  return std::min(o.max_bytes, std::max(o.free_bytes, by_growth));
}

// A shape is only fixed if every dynamic-shape profile of the model agrees
// with it.
bool same_in_every_profile(const IR& ir, const std::string& t, const Shape& shape) {
  auto it = ir.dynamic_shapes.find(t);
  if (it == ir.dynamic_shapes.end()) return true;
  for (const Shape& s : it->second)
    if (s != shape) return false;
  return true;
}

}  // namespace

bool fold_constant_node(IR& ir, Node& node, const FoldOptions& options, FoldStats& stats) {
  if (node.output.empty() || !in_default_domain(node)) return false;
  const OpEvaluator* ev = find_evaluator(node.op_type());
  if (!ev) return false;
  const bool is_constant = std::string_view(node.op_type()) == "Constant";
  // A Constant node that produces a graph output is how that output keeps a
  // producer: it stays.
  for (const auto& t : node.output)
    if (is_constant && ir.is_output(t)) return false;
  // The common case first, with no name looked up: an input that is no
  // constant and not made by a Constant node.
  if (ev->needs != Needs::kStaticShape) {
    const size_t known = ev->needs == Needs::kValues ? node.input.size() : std::min<size_t>(1, node.input.size());
    for (size_t i = 0; i < known; ++i) {
      const TensorInfo* ti = ir.port_tensor(node, false, i);
      if (!ti || ti->constant) continue;
      if (ti->producers.empty() || std::string_view(ti->producers.back()->op_type()) != "Constant") return false;
    }
  }

  EvalContext ctx{node, std::vector<EvalInput>(node.input.size()), ir.opset(), {}};
  std::vector<NDArray> holders(node.input.size());
  std::vector<Shape> shapes(node.input.size());
  int64_t input_bytes = 0;
  for (size_t i = 0; i < node.input.size(); ++i) {
    const std::string& t = node.input[i];
    EvalInput& e = ctx.in[i];
    e.present = !t.empty();
    if (!e.present) continue;
    e.value = constant_value(ir, t, holders[i]);
    e.dtype = e.value ? e.value->dtype() : ir.get_dtype(t);
    if (e.value) {
      shapes[i] = e.value->shape();
      e.shape = &shapes[i];
      input_bytes += static_cast<int64_t>(e.value->raw().size());
    } else if (ir.has_shape(t)) {
      shapes[i] = ir.get_shape(t);
      e.shape = &shapes[i];
    }
    const bool first = i == 0;
    switch (ev->needs) {
      case Needs::kValues:
        if (!e.value) return false;
        break;
      case Needs::kFirstValue:
        if (first ? !e.value : e.dtype == dt::UNDEFINED) return false;
        break;
      case Needs::kStaticShape:
        if (first && (!e.shape || !same_in_every_profile(ir, t, *e.shape))) return false;
        break;
    }
  }
  if (ev->needs != Needs::kValues && ctx.in.empty()) return false;
  ctx.budget.allowed = allowed_bytes(options, input_bytes);

  Outputs out;
  if (!ev->fn(ctx, out)) {
    if (ctx.budget.exceeded) stats.kept_by_size.insert(node.name());
    return false;
  }
  if (out.size() != node.output.size()) return false;
  // What the graph already knows of the outputs must hold: a mismatch means
  // the model's own records are off, and then the node is left alone.
  for (size_t k = 0; k < out.size(); ++k) {
    const std::string& t = node.output[k];
    if (t.empty()) continue;
    if (ir.has_shape(t) && ir.get_shape(t) != out[k].shape()) return false;
    const int32_t known = ir.get_dtype(t);
    if (known != dt::UNDEFINED && known != out[k].dtype()) return false;
  }

  const NodePtr keep = node.shared_from_this();
  const int64_t order = node.order();
  const std::string name = node.name();
  const std::vector<std::string> outputs = node.output.names();
  ir.remove_node(node);
  for (size_t k = 0; k < outputs.size(); ++k) {
    const std::string& t = outputs[k];
    if (t.empty()) continue;
    if (ir.is_output(t)) {
      // A graph output keeps its name and a producer.
      ir.add_node(Node::make("Constant", {}, {t}, name, {Attr::make_tensor("value", out[k])}), order);
    } else if (ir.use_count(t) > 0) {
      ir.set_const(t, out[k]);
    }
  }
  ++stats.folded[node.op_type()];
  return true;
}

// A node whose inputs all have shapes but whose outputs lack some (a
// Reshape target or Pad widths that were computed, and now folded) gets its
// outputs inferred, so that Shape and Size further down can fold too.
bool infer_missing_outputs(IR& ir, Node& node) {
  auto shaped = [&](bool is_output, size_t i) {
    const TensorInfo* ti = ir.port_tensor(node, is_output, i);
    return !ti || ti->has_shape;
  };
  bool missing = false;
  for (size_t i = 0; i < node.output.size(); ++i)
    if (!shaped(true, i)) missing = true;
  if (!missing) return false;
  for (size_t i = 0; i < node.input.size(); ++i)
    if (!shaped(false, i)) return false;
  ir.begin_edit();
  try {
    infer_node(ir, node, false);
  } catch (...) {
    ir.rollback_edit();
    throw;
  }
  const bool edited = ir.edited();
  ir.commit_edit();
  return edited;
}

}  // namespace fold

bool fold_step(IR& ir, Node& node, const FoldOptions& options, FoldStats& stats) {
  using namespace fold;
  if (!ir.contains(node)) return false;
  const NodePtr keep = node.shared_from_this();
  const int64_t before = static_cast<int64_t>(ir.node_count());
  const bool shaped = infer_missing_outputs(ir, node);
  ir.begin_edit();
  bool changed = false;
  try {
    // Compared as a view: each test is a length check before any bytes,
    // and this runs for every node of every round.
    const std::string_view op = node.op_type();
    changed = (op == "Identity" && fold_identity_of_constant(ir, node, stats)) ||
              fold_constant_node(ir, node, options, stats) || (op == "If" && inline_constant_if(ir, node, stats));
    if (!changed && options.fusions) {
      if (op == "BatchNormalization") changed = fuse_batchnorm_into_conv(ir, node, stats);
      else if (op == "Conv" || op == "MaxPool" || op == "AveragePool")
        changed = fuse_pad_into_conv_or_pool(ir, node, stats) || (op == "Conv" && fuse_input_mul_into_conv(ir, node, stats));
      else if (op == "Add" || op == "Mul") {
        changed = (op == "Add" && fuse_add_into_conv_bias(ir, node, stats)) ||
                  (op == "Mul" && fuse_mul_into_conv(ir, node, stats)) ||
                  fuse_constant_chain(ir, node, options, stats) ||
                  (op == "Add" && options.matmul_add_to_gemm && fuse_matmul_add_into_gemm(ir, node, stats));
      }
    }
  } catch (...) {
    ir.rollback_edit();
    throw;
  }
  if (!changed) {
    if (ir.edited()) {
      ir.rollback_edit();
      throw std::logic_error("fold step at " + node.name() + " changed the graph and then did not apply");
    }
    ir.commit_edit();
    return shaped;
  }
  ir.commit_edit();
  ++stats.steps;
  stats.removed_nodes += before - static_cast<int64_t>(ir.node_count());
  return true;
}

FoldStats fold_graph(IR& ir, const FoldOptions& options) {
  // Membership of the worklist is a bit on the node, apart from the bits the
  // driver's own worklists use.
  constexpr uint8_t kQueued = 0x10;
  FoldStats stats;
  std::deque<NodePtr> work;
  auto push = [&](const NodePtr& n) {
    if (n->work_flags & kQueued) return;
    n->work_flags |= kQueued;
    work.push_back(n);
  };
  // The plain order: the shared list of node() would cost a reference count
  // per node on top of the worklist's own.
  for (Node* n : ir.node_order()) push(n->shared_from_this());
  ir.set_journal(true);
  ir.take_touched();
  try {
    while (!work.empty()) {
      NodePtr n = std::move(work.front());
      work.pop_front();
      n->work_flags &= static_cast<uint8_t>(~kQueued);
      const bool changed = fold_step(ir, *n, options, stats);
      for (const NodePtr& t : ir.take_touched())
        if (changed && ir.contains(*t)) push(t);
    }
  } catch (...) {
    for (const NodePtr& n : work) n->work_flags &= static_cast<uint8_t>(~kQueued);
    ir.set_journal(false);
    throw;
  }
  ir.take_released();
  ir.set_journal(false);
  return stats;
}

}  // namespace tolm
