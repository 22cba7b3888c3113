// Constants that elementwise ops broadcast from a lower rank are written at
// full rank: which operands change, which stay, and how a shared constant is
// split. The plain cases (a per-channel constant, PRelu slopes, Where
// operands) run end to end with numbers in test_layout_mesh.py.
#include <gtest/gtest.h>

#include "graph_dsl.h"
#include "layout/broadcast_rank.h"

namespace tolm {
namespace {

using namespace testing_dsl;

Shape const_shape(const IR& ir, const std::string& t) {
  const NDArray* c = ir.get_const(t);
  return c ? c->shape() : Shape{99};
}

TEST(BroadcastRank, SharedConstantIsCopiedOnlyForTheReadersThatNeedIt) {
  TestGraph t;
  t.input("x", {2, 3, 4}).input("v", {4}).const_f32("k", {1.0, 2.0, 3.0, 4.0});
  NodePtr add4 = t.node("Add", {"x", "k"}, {"a"});
  NodePtr add1 = t.node("Add", {"v", "k"}, {"b"});  // same rank: keeps k
  NodePtr conv_like = t.node("Relu", {"k"}, {"r"});  // not a broadcasting op
  t.shape("a", {2, 3, 4}).shape("b", {4}).shape("r", {4}).output("a").output("b").output("r");
  EXPECT_EQ(make_broadcast_ranks_explicit(t.ir), 1);
  EXPECT_NE(add4->input[1], "k");
  EXPECT_EQ(const_shape(t.ir, add4->input[1]), (Shape{1, 1, 4}));
  EXPECT_EQ(add1->input[1], "k");
  EXPECT_EQ(conv_like->input[0], "k");
  EXPECT_EQ(const_shape(t.ir, "k"), (Shape{4}));

  // Readers that all need the same rank share one rewrite: the constant
  // changes in place when they are all its readers.
  TestGraph u;
  u.input("x", {2, 4}).const_f32("k", {1.0, 2.0, 3.0, 4.0});
  NodePtr m1 = u.node("Mul", {"x", "k"}, {"a"});
  NodePtr m2 = u.node("Sub", {"k", "x"}, {"b"});
  u.shape("a", {2, 4}).shape("b", {2, 4}).output("a").output("b");
  EXPECT_EQ(make_broadcast_ranks_explicit(u.ir), 1);
  EXPECT_EQ(m1->input[1], "k");
  EXPECT_EQ(m2->input[0], "k");
  EXPECT_EQ(const_shape(u.ir, "k"), (Shape{1, 4}));
}

TEST(BroadcastRank, ManyReadersAtTwoRanksGetOneCopyPerRank) {
  // A constant read by hundreds of nodes (a bias shared along an unrolled
  // model) at two ranks: one copy for one rank, the original for the other.
  TestGraph t;
  t.input("x3", {2, 3, 4}).input("x4", {1, 2, 3, 4}).const_f32("k", {1.0, 2.0, 3.0, 4.0});
  std::vector<NodePtr> r3, r4;
  for (int i = 0; i < 300; ++i) {
    const std::string a = "a" + std::to_string(i), b = "b" + std::to_string(i);
    r3.push_back(t.node("Add", {"x3", "k"}, {a}));
    r4.push_back(t.node("Mul", {"k", "x4"}, {b}));
    t.shape(a, {2, 3, 4}).shape(b, {1, 2, 3, 4}).output(a).output(b);
  }
  EXPECT_EQ(make_broadcast_ranks_explicit(t.ir), 2);
  const std::string k3 = r3[0]->input[1], k4 = r4[0]->input[0];
  EXPECT_NE(k3, k4);
  for (const NodePtr& n : r3) EXPECT_EQ(n->input[1], k3);
  for (const NodePtr& n : r4) EXPECT_EQ(n->input[0], k4);
  EXPECT_EQ(const_shape(t.ir, k3), (Shape{1, 1, 4}));
  EXPECT_EQ(const_shape(t.ir, k4), (Shape{1, 1, 1, 4}));
  EXPECT_EQ(t.ir.get_const(k4)->to_f64(), (std::vector<double>{1.0, 2.0, 3.0, 4.0}));
  EXPECT_EQ(make_broadcast_ranks_explicit(t.ir), 0);
}

TEST(BroadcastRank, LeavesWhatIsNotAPlainBroadcastConstant) {
  struct Case {
    const char* what;
    std::function<void(TestGraph&)> build;
  };
  const std::vector<Case> cases = {
      {"scalar", [](TestGraph& t) {
         t.ir.set_const("k", NDArray::from_f64({2.0}, {}, dt::FLOAT));
         t.node("Mul", {"x", "k"}, {"y"});
       }},
      {"constant that is also a graph input", [](TestGraph& t) {
         t.const_f32("k", {1.0, 2.0, 3.0});
         t.ir.add_graph_input("k");
         t.node("Add", {"x", "k"}, {"y"});
       }},
      {"operand of unknown rank", [](TestGraph& t) {
         t.const_f32("k", {1.0, 2.0, 3.0});
         t.node("Relu", {"x"}, {"h"});  // "h" has no shape
         t.node("Add", {"h", "k"}, {"y"});
       }},
      {"legacy broadcast by axis before opset 7", [](TestGraph& t) {
         t.ir.set_opset(6);
         t.const_f32("k", {1.0, 2.0, 3.0});
         t.node("Add", {"x", "k"}, {"y"}, {{"broadcast", 1}, {"axis", 3}});
       }},
      {"variadic Max before opset 8", [](TestGraph& t) {
         t.ir.set_opset(7);
         t.const_f32("k", {1.0, 2.0, 3.0});
         t.node("Max", {"x", "k"}, {"y"});
       }},
      {"op of another domain", [](TestGraph& t) {
         t.const_f32("k", {1.0, 2.0, 3.0});
         NodePtr n = Node::make("Add", {"x", "k"}, {"y"}, "custom", {}, "com.vendor");
         t.ir.add_node(n);
       }},
  };
  for (const Case& c : cases) {
    TestGraph t;
    t.input("x", {1, 4, 5, 3});
    c.build(t);
    t.shape("y", {1, 4, 5, 3}).output("y");
    const Shape before = const_shape(t.ir, "k");
    EXPECT_EQ(make_broadcast_ranks_explicit(t.ir), 0) << c.what;
    EXPECT_EQ(const_shape(t.ir, "k"), before) << c.what;
  }
}

}  // namespace
}  // namespace tolm
