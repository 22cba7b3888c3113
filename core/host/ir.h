// The IR graph: operator nodes over named tensors, with constants, shapes and
// element types, and a producer/consumer index that every edit keeps current.
//
// Connections change only through IR::set_input / IR::set_output or through a
// node's PortList::set, which route to the same place; nothing else writes a
// node's inputs or outputs, so the index never needs a rebuild. Nodes that are
// not (yet) in a graph are free to change: they are indexed when added.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "host/attr.h"
#include "host/name_index.h"
#include "host/ndarray.h"
#include "host/small_vector.h"

namespace tolm {

class IR;
class Node;
using NodePtr = std::shared_ptr<Node>;
using NodeList = std::vector<NodePtr>;

// The input or output names of a node. Reads are plain; every write goes
// through the owning graph when the node is in one.
class PortList {
 public:
  size_t size() const { return names_.size(); }
  bool empty() const { return names_.empty(); }
  const std::string& operator[](size_t i) const { return names_[i]; }
  const std::string& at(size_t i) const { return names_.at(i); }
  const std::string& back() const { return names_.back(); }
  std::vector<std::string>::const_iterator begin() const { return names_.begin(); }
  std::vector<std::string>::const_iterator end() const { return names_.end(); }
  const std::vector<std::string>& names() const { return names_; }
  bool contains(const std::string& name) const;

  void set(size_t i, const std::string& name);
  void push_back(const std::string& name);
  void resize(size_t n);
  void assign(const std::vector<std::string>& names);
  void erase(size_t i);

 private:
  friend class Node;
  friend class IR;
  PortList(Node* node, bool is_output) : node_(node), is_output_(is_output) {}
  Node* node_;
  bool is_output_;
  std::vector<std::string> names_;
};

struct TensorInfo;

class Node : public std::enable_shared_from_this<Node> {
  struct Token {};

 public:
  explicit Node(Token);
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;

  static NodePtr make(std::string op_type, std::vector<std::string> inputs,
                      std::vector<std::string> outputs, std::string name = "",
                      std::vector<Attr> attrs = {}, std::string domain = "");

  // Read freely; changed only through set_name / set_op_type / set_attr,
  // which go through the owning graph (its name index, its change journal).
  const std::string& op_type() const { return op_type_; }
  const std::string& name() const { return name_; }
  const std::vector<Attr>& attribute() const { return attribute_; }
  void set_name(const std::string& name);
  void set_op_type(const std::string& op_type);
  void set_attr(const Attr& attr);
  // Drops the attribute of that name; false if there was none.
  bool remove_attr(const std::string& key);

  std::string domain;
  std::string doc_string;
  PortList input;
  PortList output;
  // Outer-scope tensors read inside sub-graph attributes (If, Loop, Scan):
  // indexed as uses so that their producers are never taken for dead.
  std::vector<std::string> implicit_inputs;

  // Deep copy, not in any graph, with the same names and attributes.
  NodePtr clone() const;
  const Attr* find_attr(const std::string& key) const;
  IR* graph() const { return owner_; }
  // The index entry of input i / output i while the node is in a graph (null
  // outside one, or for an empty name): no name lookup needed.
  const TensorInfo* input_info(size_t i) const {
    return owner_ && i < in_ti_.size() ? in_ti_[i] : nullptr;
  }
  const TensorInfo* output_info(size_t i) const {
    return owner_ && i < out_ti_.size() ? out_ti_[i] : nullptr;
  }
  const TensorInfo* implicit_info(size_t i) const {
    return owner_ && i < implicit_ti_.size() ? implicit_ti_[i] : nullptr;
  }
  uint64_t uid() const { return uid_; }
  // Bookkeeping bits for whoever walks the graph (the driver marks the
  // worklists a node is on); no meaning to the graph itself.
  mutable uint8_t work_flags = 0;
  int64_t order() const { return order_; }

 private:
  friend class IR;
  friend class PortList;
  std::string op_type_;
  std::string name_;
  std::vector<Attr> attribute_;
  IR* owner_ = nullptr;
  // Where each input's (and implicit input's) use entry sits in its tensor's
  // use list, so that dropping a use is O(1) however many readers it has.
  SmallVector<uint32_t, 3> in_pos_;
  std::vector<uint32_t> implicit_pos_;
  // The index entry of each port's tensor (entries never move), so edits on
  // a node's own ports need no name lookup.
  // Held in the node itself for the usual few ports: walking the graph then
  // touches one block per node, not four.
  SmallVector<TensorInfo*, 3> in_ti_;
  SmallVector<TensorInfo*, 3> out_ti_;
  std::vector<TensorInfo*> implicit_ti_;
  uint64_t uid_ = 0;
  int64_t order_ = 0;
  size_t slot_ = 0;
};

// One reader of a tensor: the node and the input slot it reads it at.
struct TensorUse {
  Node* first;
  uint32_t second;
};

struct TensorInfo {
  std::string name;
  bool constant = false;
  bool graph_input = false;
  bool graph_output = false;
  Shape shape;
  bool has_shape = false;
  int32_t dtype = dt::UNDEFINED;
  SmallVector<Node*, 1> producers;  // the last one is the producer
  // (consumer, input slot), in no particular order; a sub-graph reference has
  // kImplicit set in its slot. Readers come out sorted by next_nodes.
  SmallVector<TensorUse, 2> uses;
};

// A tensor's shape sets across the dynamic-shape profiles of a model.
using DynamicShapes = std::map<std::string, std::vector<Shape>>;

// Memory of the transpose-mesh rule across calls: the classification and the
// permutation chosen at the first dynamic-shape profile.
struct TpCache {
  bool set = false;
  std::vector<std::string> free_tensors;
  std::vector<std::string> block_tensors;
  std::string most_perm;
};

// One quantisation record: a tensor's range and its quantisation name.
struct QuantRecord {
  std::vector<double> min;
  std::vector<double> max;
  std::string name;
};
using QuantTable = std::map<std::string, QuantRecord>;

// One recorded edit of an open edit transaction: enough to put back what the
// edit changed. Records are replayed newest first.
struct UndoRecord {
  enum Kind : uint8_t {
    kPortSet,     // one input/output slot: `name` was there
    kPortList,    // a whole input/output list: `names` was there
    kHeader,      // op type, name and attributes of `node`
    kTensor,      // shape, type and constant flag of tensor `name`
    kConst,       // constant `name`: `value` (absent: there was none)
    kEraseConst,  // constant `name` was dropped: `value`
    kAddNode,     // `node` was put into the graph
    kRemoveNode,  // `node` was taken out, with order key `order`
    kValueInfo,   // the value_info list was `names`
  };
  Kind kind;
  NodePtr node;
  bool is_output = false;
  size_t index = 0;
  int64_t order = 0;
  std::string name;
  std::vector<std::string> names;
  std::string op_type;
  std::vector<Attr> attrs;
  // The tensor's index entry as it was; `existed` false when there was none.
  bool existed = false;
  bool constant = false;
  bool has_shape = false;
  Shape shape;
  int32_t dtype = 0;
  std::optional<NDArray> value;
};

class IR {
 public:
  static constexpr uint32_t kImplicit = 0x80000000u;
  // Readers of a tensor read more widely than this are not touched when a
  // neighbour of theirs changes (see touch_tensor_neighbours).
  static constexpr size_t kWideFanOut = 64;

  IR();
  ~IR();
  IR(const IR&) = delete;
  IR& operator=(const IR&) = delete;

  // ---- shapes and types -------------------------------------------------
  // The tensor's dimensions; empty when none is held (see has_shape) and for
  // scalars. A reference into the tensor's record: copy it to edit it, or
  // before changing that tensor's shape.
  const Shape& get_shape(const std::string& t) const;
  bool has_shape(const std::string& t) const;
  // check_size: the element count must stay what it was, if a shape was held.
  void set_shape(const std::string& t, const Shape& shape, bool check_size = true,
                 int32_t dtype = dt::UNDEFINED);
  void clear_shape(const std::string& t);
  int32_t get_dtype(const std::string& t) const;
  void set_dtype(const std::string& t, int32_t dtype);

  // ---- node records -----------------------------------------------------
  // Node names are unique within a graph: a node put in without a name, or
  // under a name another node holds, gets a free one (its op type plus a
  // counter), so whatever is keyed by node name names one node.
  void rename_node(Node& node, const std::string& name);
  void set_op_type(Node& node, const std::string& op_type);
  bool remove_attr(Node& node, const std::string& key);

  // ---- attributes -------------------------------------------------------
  static const Attr* get_attr(const Node& node, const std::string& key);
  static std::optional<int64_t> get_attr_int(const Node& node, const std::string& key);
  static std::optional<std::vector<int64_t>> get_attr_ints(const Node& node,
                                                           const std::string& key);
  static std::optional<std::string> get_attr_str(const Node& node, const std::string& key);
  static std::optional<float> get_attr_float(const Node& node, const std::string& key);
  void set_attr(Node& node, const Attr& attr);
  static bool same_attr(const Node& a, const Node& b);

  // ---- constants --------------------------------------------------------
  const NDArray* get_const(const std::string& t) const;
  // Value of input i of the node: null if the input is missing or no constant.
  const NDArray* get_const_optional(const Node& node, size_t i) const;
  void set_const(const std::string& t, NDArray value);
  bool is_const(const std::string& t) const {
    const TensorInfo* ti = tensors_.find(t);
    return ti && ti->constant;
  }
  const std::unordered_map<std::string, NDArray>& consts() const { return consts_; }
  // Drops a constant (the driver's clean-up of unused initializers).
  void erase_const(const std::string& t);

  // ---- connectivity -----------------------------------------------------
  // Consumers in graph order, each once; of a node's outputs in output order.
  NodeList next_nodes(const Node& node) const;
  NodeList next_nodes(const std::string& t) const;
  // Producers of a node's inputs in input order, each once; of a tensor, its
  // producer or nothing.
  NodeList pre_nodes(const Node& node) const;
  NodeList pre_nodes(const std::string& t) const;
  NodePtr producer(const std::string& t) const;
  size_t use_count(const std::string& t) const;
  void set_input(Node& node, size_t i, const std::string& t);
  void set_output(Node& node, size_t i, const std::string& t);

  bool is_input(const std::string& t) const {
    const TensorInfo* ti = tensors_.find(t);
    return ti && ti->graph_input;
  }
  bool is_output(const std::string& t) const {
    const TensorInfo* ti = tensors_.find(t);
    return ti && ti->graph_output;
  }
  const std::vector<std::string>& inputs() const { return inputs_; }
  const std::vector<std::string>& outputs() const { return outputs_; }
  void add_graph_input(const std::string& t);
  void add_graph_output(const std::string& t);
  bool has_tensor(const std::string& t) const { return tensors_.find(t) != nullptr; }
  const TensorInfo* tensor(const std::string& t) const;
  // The index entry of input (or output) slot i of a node, without a name
  // lookup for a node of this graph; null for an empty slot.
  const TensorInfo* port_tensor(const Node& node, bool is_output, size_t i) const {
    return port_info(node, is_output, i);
  }
  // get_shape of that slot's tensor, read through the node's port record.
  const Shape& port_shape(const Node& node, bool is_output, size_t i) const {
    const TensorInfo* ti = port_info(node, is_output, i);
    return ti && ti->has_shape ? ti->shape : no_shape();
  }
  // is_output of that slot's tensor, read through the node's port record.
  bool port_is_output(const Node& node, size_t i) const {
    const TensorInfo* ti = port_info(node, true, i);
    return ti && ti->graph_output;
  }

  // ---- nodes ------------------------------------------------------------
  // All nodes in a valid execution order (cached until the graph changes).
  const NodeList& node() const;
  // The same order as plain pointers, for walks that hold no node: it costs
  // no reference counting on a graph of a million nodes.
  const std::vector<Node*>& node_order() const;
  // Gives every node the order key of its place in node(), as a graph read
  // back from its saved form would have: ties that rules break by order
  // then fall the same way in both.
  void renumber_order();
  // The loader's word that the nodes, in the order they were put in, already
  // run in a valid order: node() then needs no sort until the graph changes.
  void trust_insertion_order();
  // Each node once, in no particular order, without sorting the graph.
  template <class F>
  void for_each_node(F&& f) const {
    for (const NodePtr& n : slots_)
      if (n) f(n);
  }
  size_t node_count() const { return alive_; }
  bool contains(const Node& n) const { return n.owner_ == this; }
  // Puts a node into the graph; its order key comes from `order`.
  void add_node(const NodePtr& node, int64_t order);
  void add_node(const NodePtr& node);
  void remove_node(Node& node);
  NodePtr find_node(const std::string& name) const;
  // Room for this many nodes and tensors, so a large model loads without rehashing.
  void reserve(size_t nodes, size_t tensors);
  // A name that no tensor, constant or node holds or held, from base and suffix.
  std::string unique_tensor_name(const std::string& base) const;
  // A name that no node holds or held: base itself, or base plus "_k".
  std::string unique_node_name(const std::string& base) const;
  bool name_taken(const std::string& name) const;
  // stem itself if free, else stem plus the first "_k" that `taken` refuses.
  // The search for a stem resumes where it last stopped: every smaller k was
  // taken then, and a name once handed out is never free again, so a
  // thousand rewrites naming from one stem cost linear time, not quadratic.
  template <class Taken>
  std::string free_suffixed(const std::string& stem, Taken taken) const {
    if (!taken(stem)) return stem;
    int64_t& next = suffix_next_[stem];
    for (int64_t k = next + 1;; ++k) {
      std::string cand = stem + "_" + std::to_string(k);
      if (!taken(cand)) {
        next = k;
        return cand;
      }
    }
  }

  // True if tensor t is computed upstream of the node (its inputs or theirs).
  bool depends_on(const Node& node, const std::string& t) const;

  // ---- value_info records held from the model -----------------------------
  const std::vector<std::string>& value_info() const { return value_info_; }
  void set_value_info(std::vector<std::string> names);
  // Drops the first record of that name (its shape is out of date); false if none.
  bool erase_value_info(const std::string& name);

  // ---- model facts ------------------------------------------------------
  int64_t opset() const { return opset_; }
  void set_opset(int64_t v) { opset_ = v; }

  std::string npu_target = "npu_c";
  bool qat = false;
  DynamicShapes dynamic_shapes;
  std::optional<int64_t> dynamic_idx;
  TpCache tmp_reduce_tp_cache;
  std::map<std::string, std::vector<std::string>> op_ruler_pause;

  // ---- edit transactions ---------------------------------------------------
  // While a transaction is open, every edit of the graph (connections, node
  // records, shapes, constants, nodes in and out) is recorded, so that the
  // driver can tell whether a rule changed anything and can put the graph
  // back as it was when a rule fails half-way. State kept for the rules
  // across calls (op_ruler_pause, tmp_reduce_tp_cache) is no edit.
  void begin_edit();
  bool in_edit() const { return recording_; }
  // Anything recorded since begin_edit.
  bool edited() const { return !undo_.empty(); }
  void commit_edit();
  void rollback_edit();

  // ---- change journal (read by the driver) --------------------------------
  // While on, every edit records the nodes whose neighbourhood changed and the
  // tensors that lost a use.
  void set_journal(bool on) { journal_on_ = on; }
  std::vector<NodePtr> take_touched();
  std::vector<std::string> take_released();

  // Everything that load/save keeps but no rule reads: the serialized model
  // without its graph body, and per-tensor records of graph inputs/outputs.
  std::string model_shell;
  std::map<std::string, std::string> io_value_info;  // name -> serialized ValueInfoProto
  std::vector<std::string> const_order;              // initializer order for save

  // What the model file held before load took it in: the nodes by op type,
  // the Constant nodes that became constants, and the tensor data read from
  // files beside the model.
  struct LoadInfo {
    std::map<std::string, int64_t> file_ops;
    int64_t constant_nodes = 0;
    int64_t external_tensors = 0;
    int64_t external_bytes = 0;
  };
  LoadInfo load_info;

 private:
  friend class PortList;
  void touch(Node* n);
  void touch_tensor_neighbours(const std::string& t);
  void touch_tensor_neighbours(const TensorInfo* ti);
  void attach_use(const std::string& t, Node* n, uint32_t slot);
  void detach_use(Node* n, uint32_t slot);
  void attach_producer(const std::string& t, Node* n, size_t slot);
  void detach_producer(Node* n, size_t slot);
  void port_write(Node& node, bool is_output, size_t i, const std::string& t);
  void port_resize(Node& node, bool is_output, size_t n);
  void record_port_list(Node& node, bool is_output);
  void port_erase(Node& node, bool is_output, size_t i);
  void invalidate_order() {
    order_valid_ = false;
    shared_valid_ = false;
  }
  TensorInfo& info(const std::string& t);
  static const Shape& no_shape();
  void record_tensor(const std::string& t);
  void record_header(Node& node);
  void undo(UndoRecord& r);
  const TensorInfo* port_info(const Node& node, bool is_output, size_t i) const;
  void sort_consumers(NodeList& list) const;

  struct TensorKey {
    std::string_view operator()(const TensorInfo& ti) const { return ti.name; }
  };
  struct NodeKey {
    std::string_view operator()(const Node& n) const { return n.name_; }
  };
  // Tensor records live in a deque so that their addresses stay put (nodes
  // hold them); records dropped are reused.
  std::deque<TensorInfo> tensor_store_;
  std::vector<TensorInfo*> free_tensors_;
  NameIndex<TensorInfo, TensorKey> tensors_;
  void drop_tensor(TensorInfo& ti);
  std::unordered_map<std::string, NDArray> consts_;
  std::vector<NodePtr> slots_;  // nullptr where a node was removed
  std::vector<size_t> free_slots_;
  size_t alive_ = 0;
  NameIndex<Node, NodeKey> by_name_;
  std::vector<std::string> inputs_, outputs_;
  std::vector<std::string> value_info_;
  int64_t opset_ = 17;
  mutable std::vector<Node*> order_raw_;
  mutable bool order_valid_ = false;
  mutable NodeList order_cache_;  // order_raw_ as shared pointers, built on request
  mutable bool shared_valid_ = false;
  bool journal_on_ = false;
  std::vector<NodePtr> touched_;
  std::vector<std::string> released_;
  int64_t max_order_ = 0;
  // Names of nodes taken out. A new name is never one of these: records kept
  // by node name (paused rules) must not pass to an unrelated new node.
  struct StringKey {
    std::string_view operator()(const std::string& s) const { return s; }
  };
  std::deque<std::string> retired_store_;
  NameIndex<std::string, StringKey> retired_index_;
  // Next counter per op type for the names of unnamed nodes.
  std::unordered_map<std::string, int64_t> auto_name_next_;
  // Last suffix handed out per stem by free_suffixed.
  mutable std::unordered_map<std::string, int64_t> suffix_next_;
  std::vector<UndoRecord> undo_;
  bool recording_ = false;
};

}  // namespace tolm
