#include "host/ir.h"

#include <algorithm>
#include <queue>
#include <stdexcept>

namespace tolm {

// ---------------------------------------------------------------- PortList

bool PortList::contains(const std::string& name) const {
  return std::find(names_.begin(), names_.end(), name) != names_.end();
}

void PortList::set(size_t i, const std::string& name) {
  if (i >= names_.size()) throw std::out_of_range("port index out of range");
  if (node_->owner_) {
    node_->owner_->port_write(*node_, is_output_, i, name);
  } else {
    names_[i] = name;
  }
}

void PortList::push_back(const std::string& name) {
  if (node_->owner_) {
    node_->owner_->port_resize(*node_, is_output_, names_.size() + 1);
    node_->owner_->port_write(*node_, is_output_, names_.size() - 1, name);
  } else {
    names_.push_back(name);
  }
}

void PortList::resize(size_t n) {
  if (node_->owner_) {
    node_->owner_->port_resize(*node_, is_output_, n);
  } else {
    names_.resize(n);
  }
}

void PortList::assign(const std::vector<std::string>& names) {
  resize(names.size());
  for (size_t i = 0; i < names.size(); ++i) set(i, names[i]);
}

void PortList::erase(size_t i) {
  if (i >= names_.size()) throw std::out_of_range("port index out of range");
  if (node_->owner_) {
    node_->owner_->port_erase(*node_, is_output_, i);
  } else {
    names_.erase(names_.begin() + static_cast<std::ptrdiff_t>(i));
  }
}

// -------------------------------------------------------------------- Node

namespace {
uint64_t next_uid() {
  static uint64_t counter = 0;
  return ++counter;
}
}  // namespace

Node::Node(Token) : input(this, false), output(this, true), uid_(next_uid()) {}

NodePtr Node::make(const std::string& op_type, const std::vector<std::string>& inputs,
                   const std::vector<std::string>& outputs, const std::string& name,
                   const std::vector<Attr>& attrs, const std::string& domain) {
  auto n = std::make_shared<Node>(Token{});
  n->op_type = op_type;
  n->name = name;
  n->domain = domain;
  n->input.names_ = inputs;
  n->output.names_ = outputs;
  n->attribute = attrs;
  return n;
}

NodePtr Node::clone() const {
  auto n = make(op_type, input.names_, output.names_, name, attribute, domain);
  n->doc_string = doc_string;
  n->implicit_inputs = implicit_inputs;
  return n;
}

const Attr* Node::find_attr(const std::string& key) const {
  for (const auto& a : attribute)
    if (a.name == key) return &a;
  return nullptr;
}

// ---------------------------------------------------------------------- IR

IR::IR() = default;

IR::~IR() {
  for (auto& n : slots_)
    if (n) n->owner_ = nullptr;
}

TensorInfo& IR::info(const std::string& t) { return tensors_[t]; }

const TensorInfo* IR::tensor(const std::string& t) const {
  auto it = tensors_.find(t);
  return it == tensors_.end() ? nullptr : &it->second;
}

Shape IR::get_shape(const std::string& t) const {
  auto it = tensors_.find(t);
  if (it == tensors_.end() || !it->second.has_shape) return {};
  return it->second.shape;
}

bool IR::has_shape(const std::string& t) const {
  auto it = tensors_.find(t);
  return it != tensors_.end() && it->second.has_shape;
}

void IR::set_shape(const std::string& t, const Shape& shape, bool check_size, int32_t dtype) {
  TensorInfo& ti = info(t);
  if (check_size && ti.has_shape && shape_size(ti.shape) != shape_size(shape)) {
    throw std::logic_error("set_shape changes the element count of " + t);
  }
  ti.shape = shape;
  ti.has_shape = true;
  if (dtype != dt::UNDEFINED) ti.dtype = dtype;
}

void IR::clear_shape(const std::string& t) {
  auto it = tensors_.find(t);
  if (it == tensors_.end()) return;
  it->second.has_shape = false;
  it->second.shape.clear();
}

int32_t IR::get_dtype(const std::string& t) const {
  auto it = tensors_.find(t);
  if (it != tensors_.end() && it->second.dtype != dt::UNDEFINED) return it->second.dtype;
  auto c = consts_.find(t);
  if (c != consts_.end()) return c->second.dtype();
  return dt::UNDEFINED;
}

void IR::set_dtype(const std::string& t, int32_t dtype) { info(t).dtype = dtype; }

// -------------------------------------------------------------- attributes

const Attr* IR::get_attr(const Node& node, const std::string& key) { return node.find_attr(key); }

std::optional<int64_t> IR::get_attr_int(const Node& node, const std::string& key) {
  const Attr* a = node.find_attr(key);
  if (!a || a->kind != Attr::INT) return std::nullopt;
  return a->i;
}

std::optional<std::vector<int64_t>> IR::get_attr_ints(const Node& node, const std::string& key) {
  const Attr* a = node.find_attr(key);
  if (!a || a->kind != Attr::INTS) return std::nullopt;
  return a->ints;
}

std::optional<std::string> IR::get_attr_str(const Node& node, const std::string& key) {
  const Attr* a = node.find_attr(key);
  if (!a || a->kind != Attr::STRING) return std::nullopt;
  return a->s;
}

std::optional<float> IR::get_attr_float(const Node& node, const std::string& key) {
  const Attr* a = node.find_attr(key);
  if (!a || a->kind != Attr::FLOAT) return std::nullopt;
  return a->f;
}

void IR::set_attr(Node& node, const Attr& attr) {
  for (auto& a : node.attribute) {
    if (a.name == attr.name) {
      a = attr;
      if (node.owner_ == this) touch(&node);
      return;
    }
  }
  node.attribute.push_back(attr);
  if (node.owner_ == this) touch(&node);
}

bool IR::same_attr(const Node& a, const Node& b) {
  if (a.attribute.size() != b.attribute.size()) return false;
  for (const auto& x : a.attribute) {
    const Attr* y = b.find_attr(x.name);
    if (!y || *y != x) return false;
  }
  return true;
}

// --------------------------------------------------------------- constants

const NDArray* IR::get_const(const std::string& t) const {
  auto it = consts_.find(t);
  return it == consts_.end() ? nullptr : &it->second;
}

const NDArray* IR::get_const_optional(const Node& node, size_t i) const {
  if (i >= node.input.size() || node.input[i].empty()) return nullptr;
  return get_const(node.input[i]);
}

void IR::set_const(const std::string& t, const NDArray& value) {
  auto it = consts_.find(t);
  if (it == consts_.end()) {
    consts_.emplace(t, value);
    const_order.push_back(t);
  } else {
    it->second = value;
  }
  TensorInfo& ti = info(t);
  ti.shape = value.shape();
  ti.has_shape = true;
  ti.dtype = value.dtype();
  if (journal_on_) touch_tensor_neighbours(t);
}

void IR::erase_const(const std::string& t) {
  consts_.erase(t);
  auto it = tensors_.find(t);
  if (it != tensors_.end() && it->second.uses.empty() && it->second.producers.empty() &&
      !is_input(t) && !is_output(t)) {
    tensors_.erase(it);
  }
}

// ------------------------------------------------------------ connectivity

void IR::sort_consumers(NodeList& list) const {
  std::stable_sort(list.begin(), list.end(), [](const NodePtr& a, const NodePtr& b) {
    if (a->order_ != b->order_) return a->order_ < b->order_;
    return a->uid_ < b->uid_;
  });
}

NodeList IR::next_nodes(const std::string& t) const {
  NodeList out;
  auto it = tensors_.find(t);
  if (it == tensors_.end()) return out;
  out.reserve(it->second.uses.size());
  for (const auto& u : it->second.uses) {
    bool seen = false;
    for (const auto& o : out)
      if (o.get() == u.first) {
        seen = true;
        break;
      }
    if (!seen) out.push_back(u.first->shared_from_this());
  }
  sort_consumers(out);
  return out;
}

NodeList IR::next_nodes(const Node& node) const {
  NodeList out;
  for (const auto& t : node.output) {
    if (t.empty()) continue;
    NodeList part = next_nodes(t);
    for (auto& n : part) {
      bool seen = false;
      for (const auto& o : out)
        if (o == n) {
          seen = true;
          break;
        }
      if (!seen) out.push_back(std::move(n));
    }
  }
  return out;
}

NodePtr IR::producer(const std::string& t) const {
  auto it = tensors_.find(t);
  if (it == tensors_.end() || it->second.producers.empty()) return nullptr;
  return it->second.producers.back()->shared_from_this();
}

NodeList IR::pre_nodes(const std::string& t) const {
  NodeList out;
  if (auto p = producer(t)) out.push_back(std::move(p));
  return out;
}

NodeList IR::pre_nodes(const Node& node) const {
  NodeList out;
  for (const auto& t : node.input) {
    if (t.empty()) continue;
    NodePtr p = producer(t);
    if (!p) continue;
    if (std::find(out.begin(), out.end(), p) == out.end()) out.push_back(std::move(p));
  }
  return out;
}

size_t IR::use_count(const std::string& t) const {
  auto it = tensors_.find(t);
  return it == tensors_.end() ? 0 : it->second.uses.size();
}

void IR::set_input(Node& node, size_t i, const std::string& t) { node.input.set(i, t); }
void IR::set_output(Node& node, size_t i, const std::string& t) { node.output.set(i, t); }

void IR::add_graph_input(const std::string& t) {
  if (input_set_.insert(t).second) inputs_.push_back(t);
  info(t);
}

void IR::add_graph_output(const std::string& t) {
  if (output_set_.insert(t).second) outputs_.push_back(t);
  info(t);
}

void IR::attach_use(const std::string& t, Node* n, uint32_t slot) {
  if (t.empty()) return;
  info(t).uses.emplace_back(n, slot);
}

void IR::detach_use(const std::string& t, Node* n, uint32_t slot) {
  if (t.empty()) return;
  auto it = tensors_.find(t);
  if (it == tensors_.end()) return;
  auto& uses = it->second.uses;
  for (size_t k = 0; k < uses.size(); ++k) {
    if (uses[k].first == n && uses[k].second == slot) {
      uses.erase(uses.begin() + static_cast<std::ptrdiff_t>(k));
      break;
    }
  }
  if (journal_on_ && uses.empty()) released_.push_back(t);
}

void IR::attach_producer(const std::string& t, Node* n) {
  if (t.empty()) return;
  info(t).producers.push_back(n);
}

void IR::detach_producer(const std::string& t, Node* n) {
  if (t.empty()) return;
  auto it = tensors_.find(t);
  if (it == tensors_.end()) return;
  auto& ps = it->second.producers;
  for (size_t k = ps.size(); k-- > 0;) {
    if (ps[k] == n) {
      ps.erase(ps.begin() + static_cast<std::ptrdiff_t>(k));
      break;
    }
  }
}

void IR::touch(Node* n) {
  if (journal_on_ && n && n->owner_ == this) touched_.push_back(n->shared_from_this());
}

void IR::touch_tensor_neighbours(const std::string& t) {
  if (!journal_on_ || t.empty()) return;
  auto it = tensors_.find(t);
  if (it == tensors_.end()) return;
  for (Node* p : it->second.producers) touch(p);
  for (const auto& u : it->second.uses) touch(u.first);
}

void IR::port_write(Node& node, bool is_output, size_t i, const std::string& t) {
  auto& names = is_output ? node.output.names_ : node.input.names_;
  const std::string old = names[i];
  if (old == t) return;
  if (journal_on_) {
    touch(&node);
    touch_tensor_neighbours(old);
    touch_tensor_neighbours(t);
  }
  if (is_output) {
    detach_producer(old, &node);
    names[i] = t;
    attach_producer(t, &node);
  } else {
    detach_use(old, &node, static_cast<uint32_t>(i));
    names[i] = t;
    attach_use(t, &node, static_cast<uint32_t>(i));
  }
  invalidate_order();
}

void IR::port_resize(Node& node, bool is_output, size_t n) {
  auto& names = is_output ? node.output.names_ : node.input.names_;
  while (names.size() > n) port_erase(node, is_output, names.size() - 1);
  names.resize(n);
}

void IR::port_erase(Node& node, bool is_output, size_t i) {
  auto& names = is_output ? node.output.names_ : node.input.names_;
  // Slots after i shift down: re-key their uses.
  for (size_t k = i; k < names.size(); ++k) {
    if (is_output)
      detach_producer(names[k], &node);
    else
      detach_use(names[k], &node, static_cast<uint32_t>(k));
  }
  names.erase(names.begin() + static_cast<std::ptrdiff_t>(i));
  for (size_t k = i; k < names.size(); ++k) {
    if (is_output)
      attach_producer(names[k], &node);
    else
      attach_use(names[k], &node, static_cast<uint32_t>(k));
  }
  touch(&node);
  invalidate_order();
}

// ------------------------------------------------------------------- nodes

void IR::add_node(const NodePtr& node) { add_node(node, ++max_order_); }

void IR::add_node(const NodePtr& node, int64_t order) {
  if (node->owner_ == this) return;
  if (node->owner_ != nullptr) throw std::logic_error("node " + node->name + " is in another graph");
  node->owner_ = this;
  node->order_ = order;
  if (order > max_order_) max_order_ = order;
  if (!free_slots_.empty()) {
    node->slot_ = free_slots_.back();
    free_slots_.pop_back();
    slots_[node->slot_] = node;
  } else {
    node->slot_ = slots_.size();
    slots_.push_back(node);
  }
  ++alive_;
  if (!node->name.empty()) by_name_[node->name] = node.get();
  for (size_t i = 0; i < node->input.names_.size(); ++i)
    attach_use(node->input.names_[i], node.get(), static_cast<uint32_t>(i));
  for (const auto& t : node->implicit_inputs) attach_use(t, node.get(), kImplicit);
  for (const auto& t : node->output.names_) attach_producer(t, node.get());
  if (journal_on_) {
    touch(node.get());
    for (const auto& t : node->input.names_) touch_tensor_neighbours(t);
    for (const auto& t : node->output.names_) touch_tensor_neighbours(t);
  }
  invalidate_order();
}

void IR::remove_node(Node& node) {
  if (node.owner_ != this) return;
  NodePtr keep = node.shared_from_this();
  if (journal_on_) {
    for (const auto& t : node.input.names_) touch_tensor_neighbours(t);
    for (const auto& t : node.output.names_) touch_tensor_neighbours(t);
  }
  for (size_t i = 0; i < node.input.names_.size(); ++i)
    detach_use(node.input.names_[i], &node, static_cast<uint32_t>(i));
  for (const auto& t : node.implicit_inputs) detach_use(t, &node, kImplicit);
  for (const auto& t : node.output.names_) detach_producer(t, &node);
  auto bn = by_name_.find(node.name);
  if (bn != by_name_.end() && bn->second == &node) by_name_.erase(bn);
  slots_[node.slot_] = nullptr;
  free_slots_.push_back(node.slot_);
  --alive_;
  node.owner_ = nullptr;
  invalidate_order();
}

NodePtr IR::find_node(const std::string& name) const {
  auto it = by_name_.find(name);
  if (it != by_name_.end() && it->second->owner_ == this) return it->second->shared_from_this();
  return nullptr;
}

bool IR::name_taken(const std::string& name) const {
  return tensors_.count(name) != 0 || consts_.count(name) != 0 || by_name_.count(name) != 0;
}

std::string IR::unique_tensor_name(const std::string& base) const {
  if (!name_taken(base)) return base;
  for (int64_t k = 1;; ++k) {
    std::string cand = base + "_" + std::to_string(k);
    if (!name_taken(cand)) return cand;
  }
}

std::string IR::unique_node_name(const std::string& base) const { return unique_tensor_name(base); }

const NodeList& IR::node() const {
  if (order_valid_) return order_cache_;
  // Kahn's algorithm; among ready nodes the one with the smallest order key
  // goes first, so an unchanged graph keeps its order and output is stable.
  std::vector<Node*> alive;
  alive.reserve(alive_);
  for (const auto& n : slots_)
    if (n) alive.push_back(n.get());
  std::unordered_map<Node*, int> indeg;
  indeg.reserve(alive.size() * 2);
  for (Node* n : alive) {
    int d = 0;
    auto count = [&](const std::string& t) {
      if (t.empty()) return;
      auto it = tensors_.find(t);
      if (it == tensors_.end() || it->second.producers.empty()) return;
      Node* p = it->second.producers.back();
      if (p != n) ++d;
    };
    for (const auto& t : n->input.names_) count(t);
    for (const auto& t : n->implicit_inputs) count(t);
    indeg[n] = d;
  }
  auto later = [](const Node* a, const Node* b) {
    if (a->order_ != b->order_) return a->order_ > b->order_;
    return a->uid_ > b->uid_;
  };
  std::priority_queue<Node*, std::vector<Node*>, decltype(later)> ready(later);
  for (Node* n : alive)
    if (indeg[n] == 0) ready.push(n);
  order_cache_.clear();
  order_cache_.reserve(alive.size());
  while (!ready.empty()) {
    Node* n = ready.top();
    ready.pop();
    order_cache_.push_back(n->shared_from_this());
    for (const auto& t : n->output.names_) {
      if (t.empty()) continue;
      auto it = tensors_.find(t);
      if (it == tensors_.end() || it->second.producers.empty() || it->second.producers.back() != n)
        continue;
      for (const auto& u : it->second.uses) {
        if (u.first == n) continue;
        if (--indeg[u.first] == 0) ready.push(u.first);
      }
    }
  }
  if (order_cache_.size() != alive.size()) {
    // A cycle: keep the rest in key order so callers still see every node.
    std::vector<Node*> rest;
    for (Node* n : alive)
      if (indeg[n] > 0) rest.push_back(n);
    std::sort(rest.begin(), rest.end(), [&](Node* a, Node* b) { return later(b, a); });
    for (Node* n : rest) order_cache_.push_back(n->shared_from_this());
  }
  order_valid_ = true;
  return order_cache_;
}

bool IR::depends_on(const Node& node, const std::string& t) const {
  std::vector<const Node*> stack{&node};
  std::unordered_set<const Node*> seen{&node};
  while (!stack.empty()) {
    const Node* n = stack.back();
    stack.pop_back();
    auto visit = [&](const std::string& in) {
      if (in.empty()) return false;
      if (in == t) return true;
      auto it = tensors_.find(in);
      if (it == tensors_.end() || it->second.producers.empty()) return false;
      const Node* p = it->second.producers.back();
      if (seen.insert(p).second) stack.push_back(p);
      return false;
    };
    for (const auto& in : n->input.names_)
      if (visit(in)) return true;
    for (const auto& in : n->implicit_inputs)
      if (visit(in)) return true;
  }
  return false;
}

std::vector<NodePtr> IR::take_touched() {
  std::vector<NodePtr> out;
  out.swap(touched_);
  return out;
}

std::vector<std::string> IR::take_released() {
  std::vector<std::string> out;
  out.swap(released_);
  return out;
}

}  // namespace tolm
