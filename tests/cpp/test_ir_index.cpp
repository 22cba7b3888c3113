// The producer/consumer index must match the nodes' own port lists after every
// kind of edit, without ever being rebuilt.
#include <gtest/gtest.h>

#include <map>
#include <set>

#include "graph_dsl.h"
#include "host/builder.h"

namespace tolm {
namespace {

using namespace testing_dsl;

// Recomputes uses and producers from the nodes and compares with the index.
void expect_index_consistent(const IR& ir) {
  std::map<std::string, std::multiset<std::pair<const Node*, uint32_t>>> uses;
  std::map<std::string, std::set<const Node*>> producers;
  for (const NodePtr& n : ir.node()) {
    for (size_t i = 0; i < n->input.size(); ++i)
      if (!n->input[i].empty()) uses[n->input[i]].insert({n.get(), static_cast<uint32_t>(i)});
    for (size_t k = 0; k < n->implicit_inputs.size(); ++k)
      uses[n->implicit_inputs[k]].insert({n.get(), IR::kImplicit | static_cast<uint32_t>(k)});
    for (const auto& t : n->output)
      if (!t.empty()) producers[t].insert(n.get());
  }
  for (const auto& kv : uses) {
    const TensorInfo* ti = ir.tensor(kv.first);
    ASSERT_NE(ti, nullptr) << kv.first;
    std::multiset<std::pair<const Node*, uint32_t>> got;
    for (const TensorUse& u : ti->uses) got.insert({u.first, u.second});
    EXPECT_EQ(got, kv.second) << "uses of " << kv.first;
  }
  for (const auto& kv : producers) {
    const TensorInfo* ti = ir.tensor(kv.first);
    ASSERT_NE(ti, nullptr);
    std::set<const Node*> got(ti->producers.begin(), ti->producers.end());
    EXPECT_EQ(got, kv.second) << "producers of " << kv.first;
  }
  // No stale entries: every indexed use belongs to a node still in the graph.
  for (const NodePtr& n : ir.node())
    for (const auto& t : n->input) {
      if (t.empty()) continue;
      for (const auto& u : ir.tensor(t)->uses) EXPECT_TRUE(ir.contains(*u.first));
    }
}

TestGraph diamond() {
  TestGraph t;
  t.input("x", {1, 4});
  t.node("Relu", {"x"}, {"a"});
  t.node("Sigmoid", {"x"}, {"b"});
  t.node("Add", {"a", "b"}, {"c"});
  t.node("Mul", {"c", "a"}, {"y"});
  t.output("y");
  return t;
}

TEST(IrIndex, EveryKindOfRewireKeepsTheIndexTrue) {
  TestGraph t = diamond();
  IR& ir = t.ir;
  NodePtr add = t.producer("c"), mul = t.producer("y"), relu = t.producer("a");
  expect_index_consistent(ir);

  ir.set_input(*add, 1, "x");  // setter
  EXPECT_EQ(t.readers("b").size(), 0u);
  EXPECT_EQ(node_names(ir.next_nodes("x")), (names{"a", "b", "c"}));
  expect_index_consistent(ir);

  mul->input.set(1, "x");  // direct assignment on the node
  EXPECT_EQ(node_names(ir.next_nodes("a")), (names{"c"}));
  expect_index_consistent(ir);

  relu->output.set(0, "a2");  // the producer renames its output
  EXPECT_EQ(ir.producer("a"), nullptr);
  EXPECT_EQ(ir.producer("a2"), relu);
  expect_index_consistent(ir);

  add->input.push_back("a2");
  add->input.erase(0);  // later slots shift down and are re-keyed
  EXPECT_EQ(add->input.names(), (names{"x", "a2"}));
  expect_index_consistent(ir);

  add->input.resize(1);
  EXPECT_EQ(ir.use_count("a2"), 0u);
  expect_index_consistent(ir);

  ir.remove_node(*relu);
  EXPECT_EQ(ir.producer("a2"), nullptr);
  NodePtr n = Node::make("Neg", {"x"}, {"a2"}, "neg");
  ir.add_node(n);
  EXPECT_EQ(ir.producer("a2"), n);
  expect_index_consistent(ir);
}

TEST(IrIndex, DetachedNodesChangeFreelyAndAreIndexedWhenAdded) {
  TestGraph t = diamond();
  NodePtr n = Node::make("Neg", {"x"}, {"z"}, "neg");
  n->input.set(0, "a");
  EXPECT_EQ(t.ir.use_count("z"), 0u);
  EXPECT_EQ(node_names(t.ir.next_nodes("a")).size(), 2u);
  t.ir.add_node(n);
  EXPECT_EQ(node_names(t.ir.next_nodes("a")), (names{"c", "y", "neg"}));
  expect_index_consistent(t.ir);
}

TEST(IrIndex, RemovingOneOfTwoProducersKeepsTheOther) {
  // A rule may move a tensor to its new producer before the old one goes.
  TestGraph t;
  t.input("x", {2, 3});
  NodePtr rs = t.node("Reshape", {"x", "s"}, {"r"});
  NodePtr sq = t.node("Squeeze", {"r"}, {"y"});
  t.output("y");
  rs->output.set(0, "y");
  t.ir.remove_node(*sq);
  EXPECT_EQ(t.ir.producer("y"), rs);
  expect_index_consistent(t.ir);
}

TEST(IrIndex, NextNodesFollowGraphOrderAndSplitOutputOrder) {
  TestGraph t;
  t.input("x", {4, 2});
  NodePtr split = t.node("Split", {"x"}, {"s0", "s1"}, {{"axis", 0}});
  // Readers of the second output come first in the node list.
  t.node("Relu", {"s1"}, {"r1"});
  t.node("Relu", {"s0"}, {"r0"});
  t.node("Add", {"s0", "s1"}, {"y"});
  t.output("y");
  EXPECT_EQ(node_names(t.ir.next_nodes(*split)), (names{"r0", "y", "r1"}));
  EXPECT_EQ(node_names(t.ir.pre_nodes(*t.producer("y"))), (names{"s0"}));
}

TEST(IrIndex, NodeListIsAValidExecutionOrderAfterEdits) {
  TestGraph t = diamond();
  // A new node added last but read by an early one must come before it.
  NodePtr neg = Node::make("Neg", {"x"}, {"n"}, "neg");
  t.ir.add_node(neg);
  t.producer("b")->input.set(0, "n");
  std::map<std::string, size_t> pos;
  const NodeList& order = t.ir.node();
  for (size_t i = 0; i < order.size(); ++i) pos[order[i]->name()] = i;
  for (const NodePtr& n : order)
    for (const NodePtr& p : t.ir.pre_nodes(*n)) EXPECT_LT(pos[p->name()], pos[n->name()]);
  EXPECT_LT(pos["neg"], pos["b"]);
}

TEST(IrIndex, BuilderRegistersConstantsAndFreshNames) {
  TestGraph t;
  t.input("x", {2, 3});
  t.node("Relu", {"x"}, {"r"}, {}, "rs");
  Graph g(t.ir);
  std::string out = g.op("Reshape", {std::string("x"), std::vector<int64_t>{3, 2}}, {{}, "rs"});
  ASSERT_EQ(g.nodes.size(), 1u);
  const NodePtr& n = g.nodes[0];
  ASSERT_TRUE(t.ir.is_const(n->input[1]));
  EXPECT_EQ(t.ir.get_const(n->input[1])->to_i64(), (ints{3, 2}));
  EXPECT_NE(out, "r");
  EXPECT_EQ(t.ir.get_shape(out), (Shape{3, 2}));  // known before the node is added
  // Absent input: a chain can be built from its end.
  std::string hole = g.op("Relu", {Absent{}}, {{"r2"}, "relu2"});
  EXPECT_EQ(g.nodes.back()->input[0], hole);
  EXPECT_NE(hole, out);
}

}  // namespace
}  // namespace tolm
