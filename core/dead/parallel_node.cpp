// Duplicate siblings: nodes of one op type that read the same tensor and
// compute the same thing. The matched node survives; the readers of the
// others move to its outputs and the others go.
//
// A tensor may have thousands of readers (an embedding table, the input of
// every layer), and the driver offers each of them. Readers are never
// compared with each other: one call looks at each reader once, rejecting on
// its own data first. On a wide tensor the call also sorts all readers by a
// signature that siblings must share; a reader alone with its signature can
// have no sibling, and is paused for the rest of the driver's round (as the
// transpose mesh pauses a mesh that does not pay), so the tensor is not
// scanned again from it.
#include <algorithm>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <tuple>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "dead/dead.h"
#include "host/edit.h"
#include "host/helpers.h"

namespace tolm {
namespace {

// Both present, of one shape and equal in every element. Arrays of one
// element type compare as bytes (no copy), others by value.
bool same_const(const NDArray* a, const NDArray* b) {
  if (a == nullptr || b == nullptr || a->shape() != b->shape()) return false;
  if (a == b) return true;
  if (a->dtype() == b->dtype()) return *a == *b;
  if (a->dtype() == dt::STRING || b->dtype() == dt::STRING) return false;
  return a->to_f64() == b->to_f64();
}

bool has_reader(const IR& ir, const Node& node) {
  for (const std::string& o : node.output)
    if (!o.empty() && (ir.use_count(o) > 0 || ir.is_output(o))) return true;
  return false;
}

std::optional<Perm> effective_perm(const IR& ir, const Node& transpose) {
  if (auto perm = IR::get_attr_ints(transpose, "perm")) return perm;
  // Without the attribute the axes are reversed.
  if (!ir.has_shape(transpose.input[0])) return std::nullopt;
  Perm rev(ir.get_shape(transpose.input[0]).size());
  for (size_t i = 0; i < rev.size(); ++i) rev[i] = static_cast<int64_t>(rev.size() - 1 - i);
  return rev;
}

// The op types whose siblings have a test of their own; the others (a
// Gather's axis among them) are told by attributes and operands alone.
enum class Kind { kPlain, kReshape, kSlice, kConv, kTwoInput, kDataConvert, kTranspose, kConcat };

Kind kind_of(const std::string& op) {
  if (op == "Reshape") return Kind::kReshape;
  if (op == "Slice") return Kind::kSlice;
  if (op == "Conv") return Kind::kConv;
  if (op == "Mul" || op == "Sub" || op == "Equal") return Kind::kTwoInput;
  if (op == "exDataConvert") return Kind::kDataConvert;
  if (op == "Transpose") return Kind::kTranspose;
  if (op == "Concat") return Kind::kConcat;
  return Kind::kPlain;
}

// Everything about the matched node that each candidate is compared with,
// worked out once per call, so that a candidate costs at most one constant
// lookup per input whose name differs.
class SiblingTest {
 public:
  SiblingTest(const IR& ir, const Node& cur, const QuantTable* quant_tab)
      : ir_(ir), cur_(cur), quant_tab_(quant_tab), kind_(kind_of(cur.op_type())) {
    for (const std::string& t : cur.input) cur_consts_.push_back(t.empty() ? nullptr : ir.get_const(t));
    switch (kind_) {
      case Kind::kReshape:
        possible_ = const_at(1);
        break;
      case Kind::kSlice:
        // A Slice with absent axes or steps is never a sibling.
        possible_ = const_at(1) && const_at(2) && const_at(3) && const_at(4);
        break;
      case Kind::kConv:
        possible_ = cur.input.size() == 2 && const_at(1) && cur_consts_[1]->size() <= 1024 &&
                    IR::get_attr_ints(cur, "kernel_shape") == std::vector<int64_t>{1, 1};
        break;
      case Kind::kTwoInput:
        possible_ = cur.input.size() == 2;
        break;
      case Kind::kDataConvert:
        // Without a quantisation table there is nothing to tell ranges by.
        possible_ = quant_tab && quant_tab->count(cur.input[0]) && quant_tab->count(cur.output[0]);
        break;
      case Kind::kTranspose:
        perm_cur_ = effective_perm(ir, cur);
        possible_ = perm_cur_.has_value();
        if (possible_)
          perm_equals_ = get_equivalent_perm_for_tp(*perm_cur_, ir.get_shape(cur.input[0]),
                                                    ir.get_shape(cur.output[0]));
        out_shape_cur_ = ir.get_shape(cur.output[0]);
        break;
      default:
        break;
    }
  }

  // False when no node can be a sibling of the matched one.
  bool possible() const { return possible_; }

  // Whether `nod` (of the same op type, with as many inputs and outputs)
  // computes what the matched node does: the op type's own test, and for
  // all but Transpose and Concat the same attributes and, at each input, the
  // same tensor or a constant of the same value. Two nodes that read
  // different computed tensors (a Gather's indices, an Expand's shape) are
  // no duplicates whatever their attributes say.
  bool matches(const Node& nod) const {
    for (size_t i = 0; i < cur_.input.size(); ++i) {
      const std::string& theirs = nod.input[i];
      if (theirs == cur_.input[i]) continue;
      if (kind_ == Kind::kConcat || !cur_consts_[i]) return false;
      if (!same_const(cur_consts_[i], ir_.get_const(theirs))) return false;
    }
    switch (kind_) {
      case Kind::kDataConvert:
        if (!same_quant_ranges(nod)) return false;
        break;
      case Kind::kTranspose: {
        const auto perm = effective_perm(ir_, nod);
        return perm && out_shape_cur_ == ir_.get_shape(nod.output[0]) &&
               std::find(perm_equals_.begin(), perm_equals_.end(), *perm) != perm_equals_.end();
      }
      case Kind::kConcat:
        return IR::get_attr_int(cur_, "axis") == IR::get_attr_int(nod, "axis");
      default:
        break;
    }
    return IR::same_attr(cur_, nod);
  }

 private:
  bool const_at(size_t i) const { return i < cur_consts_.size() && cur_consts_[i] != nullptr; }

  bool same_quant_ranges(const Node& nod) const {
    const std::string* names[] = {&cur_.input[0], &cur_.output[0], &nod.input[0], &nod.output[0]};
    const QuantRecord* rec[4];
    for (size_t k = 0; k < 4; ++k) {
      auto it = quant_tab_->find(*names[k]);
      if (it == quant_tab_->end()) return false;
      rec[k] = &it->second;
    }
    return rec[0]->min == rec[2]->min && rec[0]->max == rec[2]->max && rec[1]->min == rec[3]->min &&
           rec[1]->max == rec[3]->max;
  }

  const IR& ir_;
  const Node& cur_;
  const QuantTable* quant_tab_;
  const Kind kind_;
  bool possible_ = true;
  std::vector<const NDArray*> cur_consts_;
  std::optional<Perm> perm_cur_;
  std::vector<Perm> perm_equals_;
  Shape out_shape_cur_;
};

// The readers of each used output of `nod` can move to the same output of
// `cur`: `cur` has it, and no sub-graph reads the old one.
bool outputs_can_move(const IR& ir, const Node& cur, const Node& nod) {
  for (size_t j = 0; j < nod.output.size(); ++j) {
    const std::string& o = nod.output[j];
    if (o.empty() || ir.use_count(o) == 0) continue;
    if (cur.output[j].empty() || has_implicit_reader(ir, o)) return false;
  }
  return true;
}

// The reader's first slot naming `t`: a node that reads `t` twice is seen once.
bool first_slot(const Node& n, uint32_t slot, const std::string& t) {
  for (uint32_t i = 0; i < slot && i < n.input.size(); ++i)
    if (n.input[i] == t) return false;
  return true;
}

// The rows of the duplicate-sibling rule, by the op type they match.
const std::unordered_map<std::string, std::string>& parallel_row_keys() {
  static const std::unordered_map<std::string, std::string> keys = {
      {"Relu", "remove_parallel_relu"},        {"MaxPool", "remove_parallel_maxpool"},
      {"AveragePool", "remove_parallel_avgpool"}, {"Reshape", "remove_parallel_reshape"},
      {"Transpose", "remove_parallel_transpose"}, {"Slice", "remove_parallel_slice"},
      {"Softmax", "remove_parallel_softmax"},  {"exSoftmax13", "remove_parallel_exsoftmax13"},
      {"Cast", "remove_parallel_cast"},        {"Sub", "remove_parallel_sub"},
      {"LeakyRelu", "remove_parallel_leakyrelu"}, {"Conv", "remove_parallel_1x1_conv"},
      {"exSwish", "remove_parallel_swish"},    {"Equal", "remove_parallel_equal"},
      {"Mul", "remove_parallel_mul"},          {"Expand", "remove_parallel_expand"},
      {"Split", "remove_parallel_split"},      {"Gather", "remove_parallel_gather"},
      {"ScatterND", "remove_parallel_scatternd"}, {"exDataConvert", "remove_parallel_exdataconvert"},
      {"Floor", "remove_parallel_floor"},      {"Concat", "remove_parallel_concat"},
      {"exNorm", "remove_parallel_exnorm"},
  };
  return keys;
}

uint64_t mix(uint64_t h, uint64_t v) { return (h ^ v) * 0x100000001b3ull + (h >> 29); }
uint64_t hash_text(const std::string& t) { return std::hash<std::string>()(t); }

// Equal values give equal hashes whatever the element type, as same_const
// compares them; different ones mostly do not.
uint64_t hash_value(const NDArray& a) {
  uint64_t h = a.shape().size();
  for (int64_t d : a.shape()) h = mix(h, static_cast<uint64_t>(d));
  if (a.dtype() == dt::STRING) {
    for (const std::string& t : a.strings()) h = mix(h, hash_text(t));
    return h;
  }
  // Equal arrays agree on any prefix: a few values tell most constants apart.
  for (int64_t k = 0, n = std::min<int64_t>(a.size(), 16); k < n; ++k) {
    double v = a.f64_at(k);
    if (v == 0.0) v = 0.0;  // -0 equals 0
    uint64_t bits;
    std::memcpy(&bits, &v, sizeof bits);
    h = mix(h, bits);
  }
  return h;
}

uint64_t hash_attr(const Attr& a) {
  uint64_t h = mix(hash_text(a.name), static_cast<uint64_t>(a.kind));
  h = mix(h, static_cast<uint64_t>(a.i));
  uint32_t fbits;
  std::memcpy(&fbits, &a.f, sizeof fbits);
  h = mix(h, fbits);
  h = mix(h, hash_text(a.s));
  for (int64_t v : a.ints) h = mix(h, static_cast<uint64_t>(v));
  for (float f : a.floats) {
    std::memcpy(&fbits, &f, sizeof fbits);
    h = mix(h, fbits);
  }
  for (const std::string& t : a.strings) h = mix(h, hash_text(t));
  return mix(h, hash_text(a.opaque));
}

// What two siblings always share: op type, input and output counts, each
// input's name (a constant: its value), and the attributes (for a Transpose,
// whose perms may differ, the output shape instead).
uint64_t sibling_signature(const IR& ir, const Node& n) {
  uint64_t h = mix(hash_text(n.op_type()), n.input.size() * 131 + n.output.size());
  for (const std::string& t : n.input) {
    const NDArray* c = t.empty() ? nullptr : ir.get_const(t);
    h = mix(h, c ? hash_value(*c) : hash_text(t));
  }
  if (n.op_type() == "Transpose") {
    for (int64_t d : ir.get_shape(n.output[0])) h = mix(h, static_cast<uint64_t>(d));
    return h;
  }
  uint64_t attrs = 0;  // in any order, as same_attr compares them
  for (const Attr& a : n.attribute()) attrs += hash_attr(a);
  return mix(h, attrs);
}

// Wide tensors whose readers were sorted by signature in this round of the
// driver (which clears the pause map each round), under a key no row has.
constexpr const char* kGroupedTensors = "remove_parallel_node";

bool grouped_this_round(IR& ir, const std::string& t) {
  std::vector<std::string>& grouped = ir.op_ruler_pause[kGroupedTensors];
  if (std::find(grouped.begin(), grouped.end(), t) != grouped.end()) return true;
  grouped.push_back(t);
  return false;
}

// The readers of `t` that may be siblings of `node_cur`, each once. The first
// time in a round that a wide tensor is seen, these are the readers of
// node_cur's signature, and every reader with a duplicate-sibling row that
// shares its signature with no other reader is paused under that row for the
// rest of the round; afterwards, and on narrow tensors, all readers of
// node_cur's op type.
std::vector<const Node*> sibling_pool(IR& ir, const TensorInfo& track, const std::string& t,
                                      const Node& node_cur) {
  std::vector<const Node*> pool;
  const bool wide = track.uses.size() > IR::kWideFanOut && !grouped_this_round(ir, t);
  const auto& keys = parallel_row_keys();
  // (signature, uid, node): sorted, readers of one signature stand together,
  // in an order that does not depend on where nodes sit in memory.
  std::vector<std::tuple<uint64_t, uint64_t, const Node*>> sigs;
  for (const auto& use : track.uses) {
    const Node* n = use.first;
    if ((use.second & IR::kImplicit) || !first_slot(*n, use.second, t)) continue;
    if (!wide) {
      if (n != &node_cur && n->op_type() == node_cur.op_type()) pool.push_back(n);
      continue;
    }
    if (keys.count(n->op_type())) sigs.emplace_back(sibling_signature(ir, *n), n->uid(), n);
  }
  if (!wide) return pool;

  std::sort(sigs.begin(), sigs.end());
  std::unordered_map<std::string, std::unordered_set<std::string>> paused;
  for (size_t a = 0, b; a < sigs.size(); a = b) {
    for (b = a + 1; b < sigs.size() && std::get<0>(sigs[b]) == std::get<0>(sigs[a]);) ++b;
    if (b - a > 1) {
      bool has_cur = false;
      for (size_t k = a; k < b; ++k) has_cur |= std::get<2>(sigs[k]) == &node_cur;
      for (size_t k = a; k < b && has_cur; ++k) {
        const Node* n = std::get<2>(sigs[k]);
        if (n != &node_cur && n->op_type() == node_cur.op_type()) pool.push_back(n);
      }
      continue;
    }
    const Node* alone = std::get<2>(sigs[a]);
    const std::string& key = keys.at(alone->op_type());
    std::vector<std::string>& list = ir.op_ruler_pause[key];
    auto known = paused.find(key);
    if (known == paused.end())
      known = paused.emplace(key, std::unordered_set<std::string>(list.begin(), list.end())).first;
    if (known->second.insert(alone->name()).second) list.push_back(alone->name());
  }
  return pool;
}

}  // namespace

RuleResult _p_remove_parallel_node(IR& ir, const NodeList& nodes, QuantTable* quant_tab) {
  if (nodes.empty()) return no_match();
  const NodePtr& node_cur = nodes[0];
  if (node_cur->input.empty() || node_cur->output.empty()) return no_match();

  // The track tensor: the first input that is no constant.
  std::string input_0 = node_cur->input[0];
  if (ir.is_const(input_0)) {
    for (const std::string& inp : node_cur->input)
      if (!inp.empty() && !ir.is_const(inp)) {
        input_0 = inp;
        break;
      }
  }
  const TensorInfo* track = ir.tensor(input_0);
  if (!track) return no_match();
  // Most nodes are the only reader of their op type on the track: then no
  // sibling can be found, and the test below need not read constants and
  // attributes. Widely read tracks are grouped by signature instead.
  if (track->uses.size() <= IR::kWideFanOut &&
      std::none_of(track->uses.begin(), track->uses.end(), [&](const TensorUse& u) {
        return u.first != node_cur.get() && u.first->op_type() == node_cur->op_type();
      }))
    return no_match();
  const SiblingTest test(ir, *node_cur, quant_tab);
  if (!test.possible()) return no_match();
  const std::vector<const Node*> pool = sibling_pool(ir, *track, input_0, *node_cur);

  // Candidates are told apart by their own data first; graph outputs and
  // readers are looked up only for the siblings.
  NodeList siblings;
  for (const Node* nod : pool) {
    if (nod->output.size() != node_cur->output.size() || nod->input.size() != node_cur->input.size())
      continue;
    if (!test.matches(*nod)) continue;
    bool output_is_graph_output = false;
    for (const std::string& o : nod->output)
      if (!o.empty() && ir.is_output(o)) output_is_graph_output = true;
    if (output_is_graph_output || !outputs_can_move(ir, *node_cur, *nod)) continue;
    siblings.push_back(const_cast<Node*>(nod)->shared_from_this());
  }
  if (siblings.empty()) return no_match();
  // In graph order, as the tensor's readers are listed.
  std::sort(siblings.begin(), siblings.end(), [](const NodePtr& a, const NodePtr& b) {
    return a->order() != b->order() ? a->order() < b->order() : a->uid() < b->uid();
  });
  NodeList nodes_para{node_cur};
  nodes_para.insert(nodes_para.end(), siblings.begin(), siblings.end());

  // A node nobody reads blocks the rule.
  for (const NodePtr& nod : nodes_para)
    if (!has_reader(ir, *nod)) return no_match();

  for (size_t k = 1; k < nodes_para.size(); ++k) {
    const Node& nod = *nodes_para[k];
    for (size_t j = 0; j < nod.output.size(); ++j)
      if (!nod.output[j].empty()) replace_all_uses(ir, nod.output[j], node_cur->output[j]);
  }
  return {nodes_para, {node_cur->clone()}};
}

}  // namespace tolm
