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

NodePtr Node::make(std::string op_type, std::vector<std::string> inputs,
                   std::vector<std::string> outputs, std::string name, std::vector<Attr> attrs,
                   std::string domain) {
  auto n = std::make_shared<Node>(Token{});
  n->op_type_ = std::move(op_type);
  n->name_ = std::move(name);
  n->domain = std::move(domain);
  n->input.names_ = std::move(inputs);
  n->output.names_ = std::move(outputs);
  n->attribute_ = std::move(attrs);
  return n;
}

NodePtr Node::clone() const {
  auto n = make(op_type_, input.names_, output.names_, name_, attribute_, domain);
  n->doc_string = doc_string;
  n->implicit_inputs = implicit_inputs;
  return n;
}

const Attr* Node::find_attr(const std::string& key) const {
  for (const auto& a : attribute_)
    if (a.name == key) return &a;
  return nullptr;
}

void Node::set_name(const std::string& name) {
  if (owner_)
    owner_->rename_node(*this, name);
  else
    name_ = name;
}

void Node::set_op_type(const std::string& op_type) {
  if (owner_)
    owner_->set_op_type(*this, op_type);
  else
    op_type_ = op_type;
}

void Node::set_attr(const Attr& attr) {
  if (owner_) {
    owner_->set_attr(*this, attr);
    return;
  }
  for (auto& a : attribute_)
    if (a.name == attr.name) {
      a = attr;
      return;
    }
  attribute_.push_back(attr);
}

bool Node::remove_attr(const std::string& key) {
  if (owner_) return owner_->remove_attr(*this, key);
  for (auto it = attribute_.begin(); it != attribute_.end(); ++it)
    if (it->name == key) {
      attribute_.erase(it);
      return true;
    }
  return false;
}

// ---------------------------------------------------------------------- IR

IR::IR() = default;

IR::~IR() {
  for (auto& n : slots_)
    if (n) n->owner_ = nullptr;
}

TensorInfo& IR::info(const std::string& t) {
  if (TensorInfo* ti = tensors_.find(t)) return *ti;
  TensorInfo* ti;
  if (!free_tensors_.empty()) {
    ti = free_tensors_.back();
    free_tensors_.pop_back();
  } else {
    ti = &tensor_store_.emplace_back();
  }
  ti->name = t;
  tensors_.insert(ti);
  return *ti;
}

void IR::drop_tensor(TensorInfo& ti) {
  tensors_.erase(&ti);
  ti = TensorInfo();
  free_tensors_.push_back(&ti);
}

const TensorInfo* IR::tensor(const std::string& t) const { return tensors_.find(t); }

const Shape& IR::no_shape() {
  static const Shape kNone;
  return kNone;
}

const Shape& IR::get_shape(const std::string& t) const {
  const TensorInfo* ti = tensors_.find(t);
  if (!ti || !ti->has_shape) return no_shape();
  return ti->shape;
}

bool IR::has_shape(const std::string& t) const {
  const TensorInfo* ti = tensors_.find(t);
  return ti && ti->has_shape;
}

void IR::set_shape(const std::string& t, const Shape& shape, bool check_size, int32_t dtype) {
  TensorInfo* found = tensors_.find(t);
  if (found && found->has_shape && found->shape == shape &&
      (dtype == dt::UNDEFINED || dtype == found->dtype))
    return;
  if (check_size && found && found->has_shape && shape_size(found->shape) != shape_size(shape)) {
    throw std::logic_error("set_shape changes the element count of " + t);
  }
  record_tensor(t);
  TensorInfo& ti = found ? *found : info(t);
  ti.shape = shape;
  ti.has_shape = true;
  if (dtype != dt::UNDEFINED) ti.dtype = dtype;
  // Readers of a tensor that changed shape may now match differently.
  touch_tensor_neighbours(&ti);
}

void IR::clear_shape(const std::string& t) {
  TensorInfo* ti = tensors_.find(t);
  if (!ti || !ti->has_shape) return;
  record_tensor(t);
  ti->has_shape = false;
  ti->shape.clear();
  touch_tensor_neighbours(ti);
}

int32_t IR::get_dtype(const std::string& t) const {
  const TensorInfo* ti = tensors_.find(t);
  if (ti && ti->dtype != dt::UNDEFINED) return ti->dtype;
  auto c = consts_.find(t);
  if (c != consts_.end()) return c->second.dtype();
  return dt::UNDEFINED;
}

void IR::set_dtype(const std::string& t, int32_t dtype) {
  const TensorInfo* found = tensors_.find(t);
  if (found && found->dtype == dtype) return;
  record_tensor(t);
  TensorInfo& ti = info(t);
  ti.dtype = dtype;
  touch_tensor_neighbours(&ti);
}

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
  if (node.owner_ != this) {
    node.set_attr(attr);
    return;
  }
  record_header(node);
  touch(&node);
  for (auto& a : node.attribute_) {
    if (a.name == attr.name) {
      a = attr;
      return;
    }
  }
  node.attribute_.push_back(attr);
}

bool IR::remove_attr(Node& node, const std::string& key) {
  if (node.owner_ != this) return node.remove_attr(key);
  for (auto it = node.attribute_.begin(); it != node.attribute_.end(); ++it) {
    if (it->name != key) continue;
    record_header(node);
    touch(&node);
    node.attribute_.erase(it);
    return true;
  }
  return false;
}

void IR::rename_node(Node& node, const std::string& name) {
  if (node.owner_ != this) {
    node.set_name(name);
    return;
  }
  if (node.name_ == name) return;
  Node* other = by_name_.find(name);
  if (name.empty() || (other && other != &node))
    throw std::logic_error("node name '" + name + "' is empty or held by another node");
  record_header(node);
  by_name_.erase(&node);
  node.name_ = name;
  by_name_.insert(&node);
  touch(&node);
}

void IR::set_op_type(Node& node, const std::string& op_type) {
  if (node.owner_ != this) {
    node.set_op_type(op_type);
    return;
  }
  if (node.op_type_ == op_type) return;
  record_header(node);
  node.op_type_ = op_type;
  touch(&node);
}

bool IR::same_attr(const Node& a, const Node& b) {
  if (a.attribute_.size() != b.attribute_.size()) return false;
  for (const auto& x : a.attribute_) {
    const Attr* y = b.find_attr(x.name);
    if (!y || *y != x) return false;
  }
  return true;
}

// --------------------------------------------------------------- constants

const NDArray* IR::get_const(const std::string& t) const {
  // Most questions are about tensors that are no constant: the flat tensor
  // index answers those without hashing the name a second time.
  if (!is_const(t)) return nullptr;
  auto it = consts_.find(t);
  return it == consts_.end() ? nullptr : &it->second;
}

const NDArray* IR::get_const_optional(const Node& node, size_t i) const {
  if (i >= node.input.size() || node.input[i].empty()) return nullptr;
  return get_const(node.input[i]);
}

void IR::set_const(const std::string& t, NDArray value) {
  auto it = consts_.find(t);
  if (recording_) {
    record_tensor(t);  // replayed after the constant itself is put back
    UndoRecord r{UndoRecord::kConst};
    r.name = t;
    if (it != consts_.end()) r.value = std::move(it->second);
    undo_.push_back(std::move(r));
  }
  Shape shape = value.shape();
  const int32_t dtype = value.dtype();
  if (it == consts_.end()) {
    consts_.emplace(t, std::move(value));
    const_order.push_back(t);
  } else {
    it->second = std::move(value);
  }
  TensorInfo& ti = info(t);
  ti.constant = true;
  ti.shape = std::move(shape);
  ti.has_shape = true;
  ti.dtype = dtype;
  if (journal_on_) {
    // Its value changed: every reader may now match differently.
    for (const auto& u : ti.uses) touch(u.first);
  }
}

void IR::erase_const(const std::string& t) {
  auto c = consts_.find(t);
  if (c == consts_.end()) return;
  if (recording_) {
    UndoRecord r{UndoRecord::kEraseConst};
    r.name = t;
    r.value = std::move(c->second);
    record_tensor(t);
    undo_.push_back(std::move(r));
  }
  // Its entry in const_order stays: save skips names that are no constant.
  consts_.erase(c);
  TensorInfo* ti = tensors_.find(t);
  if (!ti) return;
  ti->constant = false;
  if (ti->uses.empty() && ti->producers.empty() && !ti->graph_input && !ti->graph_output)
    drop_tensor(*ti);
}

// ------------------------------------------------------------ connectivity

void IR::sort_consumers(NodeList& list) const {
  auto before = [](const NodePtr& a, const NodePtr& b) {
    if (a->order_ != b->order_) return a->order_ < b->order_;
    return a->uid_ < b->uid_;
  };
  // Most tensors have a handful of readers: sorting those in place spares
  // the merge sort its buffer. No two nodes share a uid, so any sort gives
  // the same order.
  if (list.size() <= 16) {
    for (size_t i = 1; i < list.size(); ++i)
      for (size_t j = i; j > 0 && before(list[j], list[j - 1]); --j) std::swap(list[j], list[j - 1]);
    return;
  }
  std::sort(list.begin(), list.end(), before);
}

namespace {
// Distinct readers of one index entry, appended to `out` (which holds no
// reader of it yet): sorted and made unique as plain pointers, so a tensor
// read by thousands of nodes costs a sort, not a quadratic scan.
void append_readers(const TensorInfo& ti, NodeList& out) {
  if (ti.uses.size() == 1) {
    out.push_back(ti.uses[0].first->shared_from_this());
    return;
  }
  std::vector<Node*> readers;
  readers.reserve(ti.uses.size());
  for (const auto& u : ti.uses) readers.push_back(u.first);
  std::sort(readers.begin(), readers.end());
  readers.erase(std::unique(readers.begin(), readers.end()), readers.end());
  for (Node* r : readers) out.push_back(r->shared_from_this());
}
}  // namespace

NodeList IR::next_nodes(const std::string& t) const {
  NodeList out;
  const TensorInfo* ti = tensors_.find(t);
  if (!ti) return out;
  append_readers(*ti, out);
  sort_consumers(out);
  return out;
}

const TensorInfo* IR::port_info(const Node& node, bool is_output, size_t i) const {
  // A node in this graph holds its ports' entries; any other is looked up.
  const auto& cached = is_output ? node.out_ti_ : node.in_ti_;
  if (node.owner_ == this && i < cached.size()) return cached[i];
  const std::string& t = is_output ? node.output[i] : node.input[i];
  return t.empty() ? nullptr : tensor(t);
}

NodeList IR::next_nodes(const Node& node) const {
  NodeList out;
  for (size_t i = 0; i < node.output.size(); ++i) {
    const TensorInfo* ti = port_info(node, true, i);
    if (!ti) continue;
    const size_t from = out.size();
    if (from == 0) {  // the first output with readers: no merging needed
      append_readers(*ti, out);
      sort_consumers(out);
      continue;
    }
    NodeList part;
    append_readers(*ti, part);
    sort_consumers(part);
    // A reader of an earlier output keeps its first place.
    for (auto& n : part) {
      // Recomputed each time: a push may move the list.
      const auto earlier_end = out.begin() + static_cast<std::ptrdiff_t>(from);
      if (std::find(out.begin(), earlier_end, n) == earlier_end) out.push_back(std::move(n));
    }
  }
  return out;
}

NodePtr IR::producer(const std::string& t) const {
  const TensorInfo* ti = tensors_.find(t);
  if (!ti || ti->producers.empty()) return nullptr;
  return ti->producers.back()->shared_from_this();
}

NodeList IR::pre_nodes(const std::string& t) const {
  NodeList out;
  if (auto p = producer(t)) out.push_back(std::move(p));
  return out;
}

NodeList IR::pre_nodes(const Node& node) const {
  NodeList out;
  for (size_t i = 0; i < node.input.size(); ++i) {
    const TensorInfo* ti = port_info(node, false, i);
    if (!ti || ti->producers.empty()) continue;
    Node* p = ti->producers.back();
    bool seen = false;
    for (const auto& o : out)
      if (o.get() == p) seen = true;
    if (!seen) out.push_back(p->shared_from_this());
  }
  return out;
}

size_t IR::use_count(const std::string& t) const {
  const TensorInfo* ti = tensors_.find(t);
  return ti ? ti->uses.size() : 0;
}

void IR::set_input(Node& node, size_t i, const std::string& t) { node.input.set(i, t); }
void IR::set_output(Node& node, size_t i, const std::string& t) { node.output.set(i, t); }

void IR::add_graph_input(const std::string& t) {
  TensorInfo& ti = info(t);
  if (ti.graph_input) return;
  ti.graph_input = true;
  inputs_.push_back(t);
}

void IR::add_graph_output(const std::string& t) {
  TensorInfo& ti = info(t);
  if (ti.graph_output) return;
  ti.graph_output = true;
  outputs_.push_back(t);
}

namespace {
template <class V>
auto& port_entry(V& v, size_t i) {
  if (v.size() <= i) v.resize(i + 1);
  return v[i];
}
}  // namespace

void IR::attach_use(const std::string& t, Node* n, uint32_t slot) {
  if (t.empty()) return;
  TensorInfo& ti = info(t);
  const bool implicit = (slot & kImplicit) != 0;
  const size_t k = slot & ~kImplicit;
  if (implicit) {
    port_entry(n->implicit_pos_, k) = static_cast<uint32_t>(ti.uses.size());
    port_entry(n->implicit_ti_, k) = &ti;
  } else {
    port_entry(n->in_pos_, k) = static_cast<uint32_t>(ti.uses.size());
    port_entry(n->in_ti_, k) = &ti;
  }
  ti.uses.emplace_back(n, slot);
}

void IR::detach_use(Node* n, uint32_t slot) {
  const bool implicit = (slot & kImplicit) != 0;
  const size_t k = slot & ~kImplicit;
  TensorInfo** tis_data = implicit ? n->implicit_ti_.data() : n->in_ti_.data();
  const size_t tis_size = implicit ? n->implicit_ti_.size() : n->in_ti_.size();
  uint32_t* poss = implicit ? n->implicit_pos_.data() : n->in_pos_.data();
  if (k >= tis_size || !tis_data[k]) return;
  TensorInfo& ti = *tis_data[k];
  tis_data[k] = nullptr;
  auto& uses = ti.uses;
  const uint32_t pos = poss[k];
  if (pos >= uses.size() || uses[pos].first != n || uses[pos].second != slot) return;
  // Swap with the last entry and tell that entry's node where it went.
  if (pos + 1 != uses.size()) {
    uses[pos] = uses.back();
    Node* moved = uses[pos].first;
    const uint32_t ms = uses[pos].second;
    if (ms & kImplicit)
      moved->implicit_pos_[ms & ~kImplicit] = pos;
    else
      moved->in_pos_[ms & ~kImplicit] = pos;
  }
  uses.pop_back();
  if (journal_on_ && uses.empty()) released_.push_back(ti.name);
}

void IR::attach_producer(const std::string& t, Node* n, size_t slot) {
  if (t.empty()) return;
  TensorInfo& ti = info(t);
  port_entry(n->out_ti_, slot) = &ti;
  ti.producers.push_back(n);
}

void IR::detach_producer(Node* n, size_t slot) {
  if (slot >= n->out_ti_.size() || !n->out_ti_[slot]) return;
  auto& ps = n->out_ti_[slot]->producers;
  n->out_ti_[slot] = nullptr;
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
  touch_tensor_neighbours(tensors_.find(t));
}

void IR::touch_tensor_neighbours(const TensorInfo* ti) {
  // A constant has no producer, and its readers do not become neighbours by
  // sharing it: a weight or shape read by thousands of nodes must not put them
  // all back on the worklist whenever one of them changes. The same holds for
  // the readers of any tensor read this widely (an embedding table, a
  // block's input read by every layer): a reader that comes or goes is
  // touched itself, and whatever a change opens up among the others, the
  // driver's next round finds.
  if (!journal_on_ || !ti || ti->constant) return;
  for (Node* p : ti->producers) touch(p);
  if (ti->uses.size() > kWideFanOut) return;
  for (const auto& u : ti->uses) touch(u.first);
}

void IR::port_write(Node& node, bool is_output, size_t i, const std::string& t) {
  auto& names = is_output ? node.output.names_ : node.input.names_;
  if (names[i] == t) return;
  if (recording_) {
    UndoRecord r{UndoRecord::kPortSet};
    r.node = node.shared_from_this();
    r.is_output = is_output;
    r.index = i;
    r.name = names[i];
    undo_.push_back(std::move(r));
  }
  if (journal_on_) {
    touch(&node);
    auto& tis = is_output ? node.out_ti_ : node.in_ti_;
    touch_tensor_neighbours(i < tis.size() ? tis[i] : nullptr);
    touch_tensor_neighbours(t);
  }
  if (is_output) {
    detach_producer(&node, i);
    names[i] = t;
    attach_producer(t, &node, i);
  } else {
    detach_use(&node, static_cast<uint32_t>(i));
    names[i] = t;
    attach_use(t, &node, static_cast<uint32_t>(i));
  }
  invalidate_order();
}

void IR::record_port_list(Node& node, bool is_output) {
  if (!recording_) return;
  UndoRecord r{UndoRecord::kPortList};
  r.node = node.shared_from_this();
  r.is_output = is_output;
  r.names = is_output ? node.output.names_ : node.input.names_;
  undo_.push_back(std::move(r));
}

void IR::port_resize(Node& node, bool is_output, size_t n) {
  auto& names = is_output ? node.output.names_ : node.input.names_;
  if (names.size() == n) return;
  record_port_list(node, is_output);
  const bool was = recording_;
  recording_ = false;  // the snapshot above covers the slot edits below
  while (names.size() > n) port_erase(node, is_output, names.size() - 1);
  names.resize(n);
  recording_ = was;
  touch(&node);
  invalidate_order();
}

void IR::port_erase(Node& node, bool is_output, size_t i) {
  auto& names = is_output ? node.output.names_ : node.input.names_;
  record_port_list(node, is_output);
  if (journal_on_) {
    auto& tis = is_output ? node.out_ti_ : node.in_ti_;
    touch_tensor_neighbours(i < tis.size() ? tis[i] : nullptr);
  }
  // Slots after i shift down: re-key their entries.
  for (size_t k = i; k < names.size(); ++k) {
    if (is_output)
      detach_producer(&node, k);
    else
      detach_use(&node, static_cast<uint32_t>(k));
  }
  names.erase(names.begin() + static_cast<std::ptrdiff_t>(i));
  for (size_t k = i; k < names.size(); ++k) {
    if (is_output)
      attach_producer(names[k], &node, k);
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
  if (node->owner_ != nullptr) throw std::logic_error("node " + node->name_ + " is in another graph");
  // Whatever is keyed by node name (paused rules, mesh bookkeeping) must
  // name one node: an unnamed node, or one whose name another node holds,
  // gets a free name.
  if (node->name_.empty() || !by_name_.try_insert(node.get())) {
    const std::string base = node->name_.empty() ? node->op_type_ : node->name_;
    int64_t& k = auto_name_next_[base];
    std::string cand;
    do {
      cand = base + "_" + std::to_string(k++);
    } while (by_name_.find(cand) != nullptr || retired_index_.find(cand) != nullptr);
    node->name_ = cand;
    by_name_.insert(node.get());
  }
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
  // Room for every port's index entry at once, not slot by slot.
  node->in_pos_.resize(node->input.names_.size());
  node->in_ti_.resize(node->input.names_.size());
  node->out_ti_.resize(node->output.names_.size());
  if (recording_) {
    UndoRecord r{UndoRecord::kAddNode};
    r.node = node;
    undo_.push_back(std::move(r));
  }
  for (size_t i = 0; i < node->input.names_.size(); ++i)
    attach_use(node->input.names_[i], node.get(), static_cast<uint32_t>(i));
  for (size_t k = 0; k < node->implicit_inputs.size(); ++k)
    attach_use(node->implicit_inputs[k], node.get(), kImplicit | static_cast<uint32_t>(k));
  for (size_t i = 0; i < node->output.names_.size(); ++i)
    attach_producer(node->output.names_[i], node.get(), i);
  if (journal_on_) {
    touch(node.get());
    for (const TensorInfo* ti : node->in_ti_) touch_tensor_neighbours(ti);
    for (const TensorInfo* ti : node->out_ti_) touch_tensor_neighbours(ti);
  }
  invalidate_order();
}

void IR::remove_node(Node& node) {
  if (node.owner_ != this) return;
  NodePtr keep = node.shared_from_this();
  if (recording_) {
    UndoRecord r{UndoRecord::kRemoveNode};
    r.node = keep;
    r.order = node.order_;
    undo_.push_back(std::move(r));
  }
  if (journal_on_) {
    for (const TensorInfo* ti : node.in_ti_) touch_tensor_neighbours(ti);
    for (const TensorInfo* ti : node.out_ti_) touch_tensor_neighbours(ti);
  }
  for (size_t i = 0; i < node.input.names_.size(); ++i)
    detach_use(&node, static_cast<uint32_t>(i));
  for (size_t k = 0; k < node.implicit_inputs.size(); ++k)
    detach_use(&node, kImplicit | static_cast<uint32_t>(k));
  for (size_t i = 0; i < node.output.names_.size(); ++i) detach_producer(&node, i);
  by_name_.erase(&node);
  if (!retired_index_.find(node.name_)) retired_index_.insert(&retired_store_.emplace_back(node.name_));
  slots_[node.slot_] = nullptr;
  free_slots_.push_back(node.slot_);
  --alive_;
  node.owner_ = nullptr;
  invalidate_order();
}

NodePtr IR::find_node(const std::string& name) const {
  Node* n = by_name_.find(name);
  if (n && n->owner_ == this) return n->shared_from_this();
  return nullptr;
}

bool IR::name_taken(const std::string& name) const {
  return tensors_.find(name) != nullptr || consts_.count(name) != 0 ||
         by_name_.find(name) != nullptr || retired_index_.find(name) != nullptr;
}

std::string IR::unique_tensor_name(const std::string& base) const {
  return free_suffixed(base, [&](const std::string& n) { return name_taken(n); });
}

std::string IR::unique_node_name(const std::string& base) const {
  return free_suffixed(
      base, [&](const std::string& n) { return by_name_.find(n) != nullptr || retired_index_.find(n) != nullptr; });
}

void IR::set_value_info(std::vector<std::string> names) {
  if (recording_) {
    UndoRecord r{UndoRecord::kValueInfo};
    r.names = value_info_;
    undo_.push_back(std::move(r));
  }
  value_info_ = std::move(names);
}

bool IR::erase_value_info(const std::string& name) {
  auto it = std::find(value_info_.begin(), value_info_.end(), name);
  if (it == value_info_.end()) return false;
  std::vector<std::string> next = value_info_;
  next.erase(next.begin() + (it - value_info_.begin()));
  set_value_info(std::move(next));
  return true;
}

// ------------------------------------------------------- edit transactions

void IR::begin_edit() {
  undo_.clear();
  recording_ = true;
}

void IR::commit_edit() {
  undo_.clear();
  recording_ = false;
}

void IR::rollback_edit() {
  recording_ = false;
  for (auto it = undo_.rbegin(); it != undo_.rend(); ++it) undo(*it);
  undo_.clear();
}

void IR::record_tensor(const std::string& t) {
  if (!recording_) return;
  UndoRecord r{UndoRecord::kTensor};
  r.name = t;
  if (const TensorInfo* ti = tensors_.find(t)) {
    r.existed = true;
    r.constant = ti->constant;
    r.has_shape = ti->has_shape;
    r.shape = ti->shape;
    r.dtype = ti->dtype;
  }
  undo_.push_back(std::move(r));
}

void IR::record_header(Node& node) {
  if (!recording_ || node.owner_ != this) return;
  UndoRecord r{UndoRecord::kHeader};
  r.node = node.shared_from_this();
  r.op_type = node.op_type_;
  r.name = node.name_;
  r.attrs = node.attribute_;
  undo_.push_back(std::move(r));
}

void IR::undo(UndoRecord& r) {
  switch (r.kind) {
    case UndoRecord::kPortSet:
      if (r.node->owner_ == this) port_write(*r.node, r.is_output, r.index, r.name);
      break;
    case UndoRecord::kPortList:
      if (r.node->owner_ == this) {
        port_resize(*r.node, r.is_output, r.names.size());
        for (size_t i = 0; i < r.names.size(); ++i) port_write(*r.node, r.is_output, i, r.names[i]);
      }
      break;
    case UndoRecord::kHeader:
      if (r.node->owner_ == this) {
        if (r.node->name_ != r.name) rename_node(*r.node, r.name);
        r.node->op_type_ = r.op_type;
        r.node->attribute_ = r.attrs;
        touch(r.node.get());
      }
      break;
    case UndoRecord::kTensor: {
      TensorInfo* found = tensors_.find(r.name);
      if (!r.existed) {
        if (found && found->uses.empty() && found->producers.empty() && !found->graph_input &&
            !found->graph_output && consts_.count(r.name) == 0) {
          drop_tensor(*found);
        } else if (found) {
          found->has_shape = false;
          found->shape.clear();
          found->dtype = dt::UNDEFINED;
          found->constant = false;
        }
        break;
      }
      TensorInfo& ti = info(r.name);
      ti.constant = r.constant;
      ti.has_shape = r.has_shape;
      ti.shape = r.shape;
      ti.dtype = r.dtype;
      touch_tensor_neighbours(&ti);
      break;
    }
    case UndoRecord::kConst:
      if (r.value) {
        consts_[r.name] = std::move(*r.value);
      } else {
        consts_.erase(r.name);
        for (size_t k = const_order.size(); k-- > 0;)
          if (const_order[k] == r.name) {
            const_order.erase(const_order.begin() + static_cast<std::ptrdiff_t>(k));
            break;
          }
      }
      break;
    case UndoRecord::kEraseConst:
      consts_[r.name] = std::move(*r.value);
      break;
    case UndoRecord::kAddNode:
      remove_node(*r.node);
      break;
    case UndoRecord::kRemoveNode:
      add_node(r.node, r.order);
      break;
    case UndoRecord::kValueInfo:
      value_info_ = std::move(r.names);
      break;
  }
}

const NodeList& IR::node() const {
  if (shared_valid_) return order_cache_;
  const std::vector<Node*>& order = node_order();
  order_cache_.clear();
  order_cache_.reserve(order.size());
  for (Node* n : order) order_cache_.push_back(n->shared_from_this());
  shared_valid_ = true;
  return order_cache_;
}

const std::vector<Node*>& IR::node_order() const {
  if (order_valid_) return order_raw_;
  // Most of the time the order keys already give a valid order (rules put
  // new nodes at the key of what they replace): sort by key, check every
  // reader comes after its producer, and skip the full topological sort.
  {
    struct Key {
      int64_t order;
      uint64_t uid;
      Node* n;
    };
    std::vector<Key> keys;
    keys.reserve(alive_);
    for (const auto& n : slots_)
      if (n) keys.push_back({n->order_, n->uid_, n.get()});
    std::sort(keys.begin(), keys.end(), [](const Key& a, const Key& b) {
      return a.order != b.order ? a.order < b.order : a.uid < b.uid;
    });
    std::vector<uint32_t> pos(slots_.size(), 0);
    for (size_t i = 0; i < keys.size(); ++i) pos[keys[i].n->slot_] = static_cast<uint32_t>(i);
    auto before = [&](const TensorInfo* ti, const Node* n, size_t i) {
      if (!ti || ti->producers.empty()) return true;
      const Node* p = ti->producers.back();
      return p == n || pos[p->slot_] < i;
    };
    bool valid = true;
    for (size_t i = 0; valid && i < keys.size(); ++i) {
      const Node* n = keys[i].n;
      for (const TensorInfo* ti : n->in_ti_)
        if (!before(ti, n, i)) valid = false;
      for (const TensorInfo* ti : n->implicit_ti_)
        if (!before(ti, n, i)) valid = false;
    }
    if (valid) {
      order_raw_.clear();
      order_raw_.reserve(keys.size());
      for (const Key& k : keys) order_raw_.push_back(k.n);
      order_valid_ = true;
      return order_raw_;
    }
  }
  // Kahn's algorithm; among ready nodes the one with the smallest order key
  // goes first, so an unchanged graph keeps its order and output is stable.
  // In-degrees live in a vector indexed by node slot.
  std::vector<int> indeg(slots_.size(), 0);
  auto producer_of = [](const TensorInfo* ti) -> Node* {
    return (ti && !ti->producers.empty()) ? ti->producers.back() : nullptr;
  };
  for (const auto& n : slots_) {
    if (!n) continue;
    int d = 0;
    for (const TensorInfo* ti : n->in_ti_) {
      Node* p = producer_of(ti);
      if (p && p != n.get()) ++d;
    }
    for (const TensorInfo* ti : n->implicit_ti_) {
      Node* p = producer_of(ti);
      if (p && p != n.get()) ++d;
    }
    indeg[n->slot_] = d;
  }
  auto later = [](const Node* a, const Node* b) {
    if (a->order_ != b->order_) return a->order_ > b->order_;
    return a->uid_ > b->uid_;
  };
  std::vector<Node*> heap;
  heap.reserve(64);
  for (const auto& n : slots_)
    if (n && indeg[n->slot_] == 0) heap.push_back(n.get());
  std::make_heap(heap.begin(), heap.end(), later);
  order_raw_.clear();
  order_raw_.reserve(alive_);
  while (!heap.empty()) {
    std::pop_heap(heap.begin(), heap.end(), later);
    Node* n = heap.back();
    heap.pop_back();
    order_raw_.push_back(n);
    for (const TensorInfo* ti : n->out_ti_) {
      if (!ti || ti->producers.empty() || ti->producers.back() != n) continue;
      for (const auto& u : ti->uses) {
        if (u.first == n) continue;
        if (--indeg[u.first->slot_] == 0) {
          heap.push_back(u.first);
          std::push_heap(heap.begin(), heap.end(), later);
        }
      }
    }
  }
  if (order_raw_.size() != alive_) {
    // A cycle: keep the rest in key order so callers still see every node.
    std::vector<Node*> rest;
    for (const auto& n : slots_)
      if (n && indeg[n->slot_] > 0) rest.push_back(n.get());
    std::sort(rest.begin(), rest.end(), [&](Node* a, Node* b) { return later(b, a); });
    for (Node* n : rest) order_raw_.push_back(n);
  }
  order_valid_ = true;
  return order_raw_;
}

void IR::trust_insertion_order() {
  order_raw_.clear();
  order_raw_.reserve(alive_);
  for (const NodePtr& n : slots_)
    if (n) order_raw_.push_back(n.get());
  auto by_key = [](const Node* a, const Node* b) { return a->order_ < b->order_; };
  if (!std::is_sorted(order_raw_.begin(), order_raw_.end(), by_key))
    std::stable_sort(order_raw_.begin(), order_raw_.end(), by_key);
  order_valid_ = true;
  shared_valid_ = false;
}

void IR::renumber_order() {
  const std::vector<Node*>& order = node_order();
  for (size_t i = 0; i < order.size(); ++i) order[i]->order_ = static_cast<int64_t>(i);
  max_order_ = static_cast<int64_t>(order.size());
}

void IR::reserve(size_t nodes, size_t tensors) {
  slots_.reserve(nodes);
  by_name_.reserve(nodes);
  tensors_.reserve(tensors);
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
      const TensorInfo* ti = tensors_.find(in);
      if (!ti || ti->producers.empty()) return false;
      const Node* p = ti->producers.back();
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
