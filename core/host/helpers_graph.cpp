// Graph, naming and quantisation helpers.
#include <algorithm>
#include <cmath>
#include <numeric>
#include <unordered_map>
#include <unordered_set>

#include "host/helpers.h"

namespace tolm {
namespace {

std::string join_free(const IR& ir, const std::string& stem, const std::vector<std::string>& avoid) {
  return ir.free_suffixed(stem, [&](const std::string& name) {
    return ir.name_taken(name) || std::find(avoid.begin(), avoid.end(), name) != avoid.end();
  });
}

std::string stem_of(const std::string& base, const std::string& suffix,
                    std::optional<int64_t> number) {
  return base + suffix + (number ? std::to_string(*number) : std::string());
}

bool reads_output_of(const Node& consumer, const Node& producer) {
  for (const auto& t : producer.output)
    if (!t.empty() && consumer.input.contains(t)) return true;
  return false;
}

}  // namespace

// ---- small graph facts --------------------------------------------------------

ElemwiseConst get_elemwise_const(const IR& ir, const Node& node) {
  ElemwiseConst r;
  const size_t n = node.input.size();
  for (size_t i = 0; i < n; ++i) {
    if (!node.input[i].empty() && ir.is_const(node.input[i])) {
      r.const_name = node.input[i];
      r.const_idx = static_cast<int64_t>(i);
      break;
    }
  }
  // The other operand: the first input that is not the constant, preferring
  // one that is computed.
  int64_t fallback = -1;
  for (size_t i = 0; i < n; ++i) {
    if (static_cast<int64_t>(i) == r.const_idx || node.input[i].empty()) continue;
    if (!ir.is_const(node.input[i])) {
      r.other_idx = static_cast<int64_t>(i);
      break;
    }
    if (fallback < 0) fallback = static_cast<int64_t>(i);
  }
  if (r.other_idx < 0) r.other_idx = fallback;
  if (r.other_idx >= 0) r.other_name = node.input[r.other_idx];
  return r;
}

bool only_read_by(const IR& ir, const std::string& t, const Node& reader) {
  if (t.empty() || ir.is_output(t)) return false;
  const TensorInfo* ti = ir.tensor(t);
  if (!ti || ti->uses.empty()) return false;
  for (const auto& u : ti->uses)
    if (u.first != &reader || (u.second & IR::kImplicit)) return false;
  return true;
}

namespace {

// Operators that can make an infinity or NaN out of finite data: division
// by a value that may be 0, roots and logarithms of values that may be
// negative or 0, powers whose exponent is not a whole number of at least 0,
// and exponentials, which overflow.
bool makes_non_finite(const IR& ir, const Node& p) {
  static const std::unordered_set<std::string> always = {
      "Reciprocal", "Log", "Sqrt", "Exp", "Acos", "Asin", "Acosh", "Atanh", "Tan", "Softplus",
      "LogSoftmax", "ReduceLogSum", "ReduceLogSumExp", "Mod"};
  const std::string& op = p.op_type();
  if (always.count(op)) return true;
  if (op != "Div" && op != "Pow") return false;
  const NDArray* k = p.input.size() > 1 ? ir.get_const(p.input[1]) : nullptr;
  if (!k) return true;
  for (int64_t i = 0; i < k->size(); ++i) {
    const double v = k->f64_at(i);
    if (!std::isfinite(v)) return true;
    if (op == "Div" ? v == 0.0 : (v < 0.0 || v != std::floor(v))) return true;
  }
  return false;
}

}  // namespace

bool may_carry_non_finite(const IR& ir, const std::string& t) {
  // Almost any operator hands an infinity or NaN in its input on to its
  // output (a Conv sums it in, a Relu keeps NaN): the walk goes up through
  // every producer of a float tensor. Integer, boolean and shape tensors
  // hold no such value and end it.
  constexpr size_t kMaxVisits = 64;
  auto non_finite = [](const NDArray& a) {
    if (!dtype_is_float(a.dtype())) return false;
    for (int64_t i = 0; i < a.size(); ++i)
      if (!std::isfinite(a.f64_at(i))) return true;
    return false;
  };
  std::vector<std::string> work{t};
  std::unordered_set<std::string> seen{t};
  while (!work.empty()) {
    const std::string cur = std::move(work.back());
    work.pop_back();
    if (const NDArray* c = ir.get_const(cur)) {
      if (non_finite(*c)) return true;
      continue;
    }
    const int32_t dtype = ir.get_dtype(cur);
    if (dtype != dt::UNDEFINED && !dtype_is_float(dtype)) continue;
    const NodePtr p = ir.producer(cur);
    if (!p) continue;
    if (p->op_type() == "Constant") return true;  // not taken in as a constant: its value is unread
    if (makes_non_finite(ir, *p)) return true;
    if (p->op_type() == "Pad") {  // the fill value, an attribute before opset 11
      const auto fill = IR::get_attr_float(*p, "value");
      if (fill && !std::isfinite(*fill)) return true;
    }
    for (const auto& in : p->input) {
      if (in.empty() || !seen.insert(in).second) continue;
      // The walk looks at the neighbourhood of the data: beyond its bound
      // it stops and takes the data as finite, as it does at graph inputs.
      if (seen.size() > kMaxVisits) return false;
      work.push_back(in);
    }
  }
  return false;
}

NodePtr single_reader(const IR& ir, const std::string& t) {
  if (ir.is_output(t) || ir.use_count(t) != 1) return nullptr;
  const NodeList next = ir.next_nodes(t);
  return next.size() == 1 ? next[0] : nullptr;
}

std::map<std::string, int64_t> get_op_type_around_node(const IR& ir, const Node& node) {
  std::map<std::string, int64_t> counts;
  for (const auto& n : ir.pre_nodes(node)) ++counts[n->op_type()];
  for (const auto& n : ir.next_nodes(node)) ++counts[n->op_type()];
  return counts;
}

int64_t find_gcd(const std::vector<int64_t>& numbers) {
  int64_t g = 0;
  for (int64_t v : numbers) g = std::gcd(g, v < 0 ? -v : v);
  return g;
}

size_t remove_slice_invalid_param(std::vector<int64_t>* starts, std::vector<int64_t>* ends,
                                  std::vector<int64_t>& axes, std::vector<int64_t>* steps,
                                  const Shape& in_shape, const Shape& out_shape) {
  if (in_shape.empty() || in_shape.size() != out_shape.size() || axes.empty()) return 0;
  const int64_t rank = static_cast<int64_t>(in_shape.size());
  std::vector<bool> drop(axes.size(), false);
  for (size_t k = 0; k < axes.size(); ++k) {
    int64_t ax = axes[k] < 0 ? axes[k] + rank : axes[k];
    if (ax < 0 || ax >= rank) continue;
    const int64_t step = steps && k < steps->size() ? (*steps)[k] : 1;
    // Same size and forward: the slice takes the whole axis. A reversed axis
    // keeps its size yet moves data, unless it holds one element.
    drop[k] = in_shape[ax] == out_shape[ax] && (step > 0 || in_shape[ax] <= 1);
  }
  if (std::all_of(drop.begin(), drop.end(), [](bool d) { return d; })) drop[0] = false;
  size_t dropped = 0;
  for (size_t k = axes.size(); k-- > 0;) {
    if (!drop[k]) continue;
    ++dropped;
    const auto at = static_cast<std::ptrdiff_t>(k);
    axes.erase(axes.begin() + at);
    for (std::vector<int64_t>* list : {starts, ends, steps})
      if (list && k < list->size()) list->erase(list->begin() + at);
  }
  return dropped;
}

// ---- names ------------------------------------------------------------------

std::string oper_name_join(const IR& ir, const std::string& base, const std::string& suffix,
                           std::optional<int64_t> number, const std::vector<std::string>& avoid) {
  return join_free(ir, stem_of(base, suffix, number), avoid);
}

std::string oper_name_join(const IR& ir, const std::string& base, const std::string& suffix,
                           const std::vector<std::string>& avoid) {
  return oper_name_join(ir, base, suffix, std::nullopt, avoid);
}

// Node and tensor names share one pool in the IR, so a node never takes a
// tensor's name either; that keeps names unambiguous in dumps and reports.
std::string node_name_join(const IR& ir, const std::string& base, const std::string& suffix,
                           std::optional<int64_t> number, const std::vector<std::string>& avoid) {
  return join_free(ir, stem_of(base, suffix, number), avoid);
}

std::string node_name_join(const IR& ir, const std::string& base, const std::string& suffix,
                           const std::vector<std::string>& avoid) {
  return node_name_join(ir, base, suffix, std::nullopt, avoid);
}

int32_t to_np_type(int64_t onnx_type) { return static_cast<int32_t>(onnx_type); }

// ---- Split ------------------------------------------------------------------

NodePtr make_node_split(IR& ir, const std::vector<std::string>& inputs,
                        const std::vector<std::string>& outputs, int64_t axis,
                        const std::vector<int64_t>& lengths, const std::string& name) {
  std::vector<std::string> ins;
  if (!inputs.empty()) ins.push_back(inputs[0]);
  std::vector<Attr> attrs{Attr::make_int("axis", axis)};
  if (!lengths.empty()) {
    if (ir.opset() >= 13) {
      const std::string len_name = oper_name_join(ir, name, "_split");
      ir.set_const(len_name, NDArray::from_i64(lengths));
      ins.push_back(len_name);
    } else {
      attrs.push_back(Attr::make_ints("split", lengths));
    }
  }
  return Node::make("Split", ins, outputs, name, attrs);
}

std::vector<int64_t> get_split_split(const IR& ir, const Node& node, bool ret_equal) {
  if (auto attr = IR::get_attr_ints(node, "split")) return *attr;
  const bool has_len_input = node.input.size() > 1 && !node.input[1].empty();
  if (has_len_input) {
    if (const NDArray* c = ir.get_const(node.input[1])) return c->to_i64();
  }
  if (!ret_equal || node.input.empty()) return {};

  const Shape in_shape = ir.get_shape(node.input[0]);
  const Shape first_out = node.output.empty() ? Shape{} : ir.get_shape(node.output[0]);
  const int64_t rank = static_cast<int64_t>(in_shape.empty() ? first_out.size() : in_shape.size());
  int64_t axis = IR::get_attr_int(node, "axis").value_or(0);
  if (rank == 0) return {};
  if (axis < 0) axis += rank;
  if (axis < 0 || axis >= rank) return {};

  // Shapes of the outputs say it exactly, where they are all known (and add
  // up to the input, when that is known).
  std::vector<int64_t> from_outputs;
  for (const auto& out : node.output) {
    const Shape s = ir.get_shape(out);
    if (static_cast<int64_t>(s.size()) != rank) break;
    from_outputs.push_back(s[axis]);
  }
  if (!from_outputs.empty() && from_outputs.size() == node.output.size() &&
      (in_shape.empty() || std::accumulate(from_outputs.begin(), from_outputs.end(),
                                           int64_t{0}) == in_shape[axis]))
    return from_outputs;
  // Computed lengths: the equal split is no answer.
  if (has_len_input || in_shape.empty()) return {};

  // Equal parts; as ONNX does, the last one is smaller when the size does not
  // divide.
  const int64_t n = static_cast<int64_t>(node.output.size());
  const int64_t dim = in_shape[axis];
  if (n <= 0 || dim <= 0) return {};
  const int64_t chunk = (dim + n - 1) / n;
  const int64_t last = dim - chunk * (n - 1);
  if (last <= 0) return {};
  std::vector<int64_t> lengths(static_cast<size_t>(n), chunk);
  lengths.back() = last;
  return lengths;
}

// ---- sub-graphs -------------------------------------------------------------

NodeList get_subgraph_nodes(const IR& ir, const NodeList& nodes,
                            const std::vector<std::string>& op_types) {
  const size_t k = op_types.size();
  if (k == 0 || nodes.size() < k) return {};
  for (size_t i = 0; i + k <= nodes.size(); ++i) {
    bool fits = true;
    for (size_t j = 0; j < k && fits; ++j) {
      const NodePtr& n = nodes[i + j];
      fits = n && n->op_type() == op_types[j] && (j == 0 || reads_output_of(*n, *nodes[i + j - 1]));
    }
    if (fits) return NodeList(nodes.begin() + static_cast<std::ptrdiff_t>(i),
                              nodes.begin() + static_cast<std::ptrdiff_t>(i + k));
  }
  return {};
}

std::vector<NodeList> get_continuous_nodes(const IR& ir, const NodePtr& node, size_t n) {
  if (!node || n == 0) return {};
  // Longest-path depth from `node`, capped at n: nodes that reach depth n lie
  // beyond the run and are not expanded further.
  std::unordered_map<const Node*, size_t> depth{{node.get(), 0}};
  NodeList found{node};
  bool changed = true;
  while (changed) {
    changed = false;
    for (size_t idx = 0; idx < found.size(); ++idx) {
      const NodePtr u = found[idx];
      const size_t du = depth[u.get()];
      if (du >= n) continue;
      for (const NodePtr& c : ir.next_nodes(*u)) {
        if (c.get() == node.get()) continue;
        const size_t dc = du + 1;
        auto it = depth.find(c.get());
        if (it == depth.end()) {
          depth.emplace(c.get(), dc);
          found.push_back(c);
          changed = true;
        } else if (it->second < dc) {
          it->second = dc;
          changed = true;
        }
      }
    }
  }
  std::vector<NodeList> levels(n);
  for (const NodePtr& x : found) {
    const size_t d = depth[x.get()];
    if (d < n) levels[d].push_back(x);
  }
  while (!levels.empty() && levels.back().empty()) levels.pop_back();
  return levels;
}

bool match_sub_graph(const std::vector<NodeList>& levels,
                     const std::vector<std::vector<std::string>>& types) {
  if (levels.size() != types.size()) return false;
  for (size_t i = 0; i < levels.size(); ++i) {
    if (levels[i].empty()) return false;
    for (const NodePtr& n : levels[i])
      if (std::find(types[i].begin(), types[i].end(), n->op_type()) == types[i].end()) return false;
  }
  return true;
}

NodeList flatten_levels(const std::vector<NodeList>& levels) {
  NodeList out;
  for (const auto& level : levels) out.insert(out.end(), level.begin(), level.end());
  return out;
}

// ---- quantisation -------------------------------------------------------------

bool skip_no_quant(const IR& ir, const Node& node, size_t input_index) {
  if (input_index >= node.input.size() || node.input[input_index].empty()) return true;
  // Inputs that steer an operator (shapes, indices, axes, sizes, lengths)
  // rather than carry feature values.
  static const std::unordered_map<std::string, std::unordered_set<size_t>> kParamInputs = {
      {"Reshape", {1}},        {"Expand", {1}},         {"Tile", {1}},
      {"Slice", {1, 2, 3, 4}}, {"Gather", {1}},         {"GatherElements", {1}},
      {"GatherND", {1}},       {"ScatterND", {1}},      {"ScatterElements", {1}},
      {"Split", {1}},          {"Squeeze", {1}},        {"Unsqueeze", {1}},
      {"Resize", {1, 2, 3}},   {"Upsample", {1}},       {"Pad", {1, 3}},
      {"ReduceMean", {1}},     {"ReduceSum", {1}},      {"ReduceMax", {1}},
      {"ReduceMin", {1}},      {"ReduceProd", {1}},     {"ReduceL1", {1}},
      {"ReduceL2", {1}},       {"ReduceLogSum", {1}},   {"ReduceLogSumExp", {1}},
      {"ReduceSumSquare", {1}}, {"TopK", {1}},          {"CumSum", {1}},
      {"Where", {0}},          {"OneHot", {0, 1}},      {"ConstantOfShape", {0}},
  };
  auto it = kParamInputs.find(node.op_type());
  if (it != kParamInputs.end() && it->second.count(input_index)) return true;
  const int32_t dtype = ir.get_dtype(node.input[input_index]);
  return dtype != dt::UNDEFINED && !dtype_is_float(dtype);
}

FloatOpTypes get_want_need_fp16(const IR& ir) {
  FloatOpTypes r;
  // No integer kernel on the target, or one too coarse to be of use.
  r.need_fp16 = {"Exp",     "Log",         "Pow",        "Sqrt",
                 "Reciprocal", "Erf",      "Div",        "Softmax",
                 "exSoftmax13", "LogSoftmax", "exNorm",  "LayerNormalization",
                 "InstanceNormalization", "GroupNormalization", "ReduceL2", "ReduceLogSumExp"};
  // Curved activations and averages lose accuracy in 8 bits. A model trained
  // with quantisation in the loop has ranges that already account for it.
  if (!ir.qat)
    r.want_fp16 = {"Sigmoid", "Tanh", "HardSigmoid", "HardSwish", "exSwish", "Gelu", "exGlu",
                   "Mish",    "Softplus", "Softsign", "Elu", "Selu", "Celu", "ReduceMean"};
  return r;
}

}  // namespace tolm
