// A small language for building test graphs so that a test reads like the
// pattern it exercises:
//
//   TestGraph t;
//   t.input("x", {1, 3, 4, 4});
//   t.node("Transpose", {"x"}, {"a"}, {{"perm", ints{0, 2, 3, 1}}});
//   t.shape("a", {1, 4, 4, 3});
//   t.output("a");
//
// Shapes are given explicitly: tests do not depend on shape inference.
#pragma once

#include <algorithm>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "host/attr.h"
#include "host/ir.h"
#include "host/ndarray.h"
#include "reduce/rule.h"

namespace tolm {
namespace testing_dsl {

using ints = std::vector<int64_t>;
using names = std::vector<std::string>;

// One attribute written as {"key", value}.
struct A {
  A(const std::string& n, int v) : attr(Attr::make_int(n, v)) {}
  A(const std::string& n, int64_t v) : attr(Attr::make_int(n, v)) {}
  A(const std::string& n, double v) : attr(Attr::make_float(n, static_cast<float>(v))) {}
  A(const std::string& n, const char* v) : attr(Attr::make_string(n, v)) {}
  A(const std::string& n, const std::string& v) : attr(Attr::make_string(n, v)) {}
  A(const std::string& n, const ints& v) : attr(Attr::make_ints(n, v)) {}
  Attr attr;
};

class TestGraph {
  std::unique_ptr<IR> owned_;  // held by pointer so that a TestGraph can be returned

 public:
  IR& ir;

  TestGraph() : owned_(std::make_unique<IR>()), ir(*owned_) {}
  TestGraph(TestGraph&& other) noexcept : owned_(std::move(other.owned_)), ir(*owned_) {}
  TestGraph(const TestGraph&) = delete;
  TestGraph& operator=(const TestGraph&) = delete;
  TestGraph& operator=(TestGraph&&) = delete;

  TestGraph& input(const std::string& name, const Shape& dims, int32_t dtype = dt::FLOAT) {
    ir.add_graph_input(name);
    ir.set_shape(name, dims, false, dtype);
    return *this;
  }
  TestGraph& output(const std::string& name) {
    ir.add_graph_output(name);
    return *this;
  }
  TestGraph& shape(const std::string& name, const Shape& dims, int32_t dtype = dt::FLOAT) {
    ir.set_shape(name, dims, false, dtype);
    return *this;
  }
  // Integer constant; 1-D unless a shape is given. Its shape is recorded too.
  TestGraph& const_i64(const std::string& name, const ints& values, Shape dims = {},
                       int32_t dtype = dt::INT64) {
    if (dims.empty()) dims = {static_cast<int64_t>(values.size())};
    return constant(name, NDArray::from_i64(values, dims, dtype));
  }
  TestGraph& const_f32(const std::string& name, const std::vector<double>& values,
                       Shape dims = {}) {
    if (dims.empty()) dims = {static_cast<int64_t>(values.size())};
    return constant(name, NDArray::from_f64(values, dims, dt::FLOAT));
  }
  TestGraph& constant(const std::string& name, const NDArray& value) {
    ir.set_const(name, value);
    ir.set_shape(name, value.shape(), false, value.dtype());
    return *this;
  }

  // Adds a node; its name defaults to its first output's name.
  NodePtr node(const std::string& op, const names& ins, const names& outs,
               std::initializer_list<A> attrs = {}, std::string name = "") {
    std::vector<Attr> as;
    for (const A& a : attrs) as.push_back(a.attr);
    if (name.empty()) name = outs.empty() ? op : outs[0];
    NodePtr n = Node::make(op, ins, outs, name, as);
    ir.add_node(n);
    return n;
  }

  // The node that produces tensor t now, or null.
  NodePtr producer(const std::string& t) const { return ir.producer(t); }
  // Names of the ops reading tensor t, in graph order.
  names readers(const std::string& t) const {
    names out;
    for (const NodePtr& n : ir.next_nodes(t)) out.push_back(n->name());
    return out;
  }
};

// Applies a rule result as the driver does: removals first, then additions.
inline void apply(IR& ir, const RuleResult& r) {
  for (const NodePtr& n : r.remove) ir.remove_node(*n);
  for (const NodePtr& n : r.add) ir.add_node(n);
}

inline names node_names(const NodeList& list) {
  names out;
  for (const NodePtr& n : list) out.push_back(n->name());
  return out;
}

inline names op_types(const IR& ir) {
  names out;
  for (const NodePtr& n : ir.node()) out.push_back(n->op_type());
  return out;
}

}  // namespace testing_dsl
}  // namespace tolm
