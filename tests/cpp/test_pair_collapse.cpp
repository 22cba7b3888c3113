// Adjacent Reshape/Transpose pairs and the Squeeze fold: the guards, second
// consumers and graph edges (the plain pairs are run end to end from Python).
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <tuple>

#include "chains/chains.h"
#include "graph_dsl.h"

namespace tolm {
namespace {

using namespace testing_dsl;

using Rule = RuleResult (*)(IR&, const NodeList&, QuantTable*);

// x[2,3] -> Transpose -> a[3,2] -> Transpose -> b[2,3]
TestGraph& transpose_pair(TestGraph& t) {
  t.input("x", {2, 3});
  t.node("Transpose", {"x"}, {"a"}, {{"perm", ints{1, 0}}});
  t.node("Transpose", {"a"}, {"b"}, {{"perm", ints{1, 0}}});
  return t.shape("a", {3, 2}).shape("b", {2, 3});
}

// x -> Relu -> p[2,3,4] -> Reshape -> m[6,4] -> Reshape -> q[2,3,4]
TestGraph& reshape_trip(TestGraph& t) {
  t.input("x", {2, 3, 4}).const_i64("s0", {6, 4}).const_i64("s1", {2, 3, 4});
  t.node("Relu", {"x"}, {"p"});
  t.node("Reshape", {"p", "s0"}, {"m"});
  t.node("Reshape", {"m", "s1"}, {"q"});
  return t.shape("p", {2, 3, 4}).shape("m", {6, 4}).shape("q", {2, 3, 4});
}

TEST(PairCollapse, RemovesOnlyWhatNoOtherReaderNeeds) {
  struct Case {
    const char* what;
    std::function<void(TestGraph&)> build;
    Rule rule;
    names seeds, removed;
    std::map<std::string, names> reads;  // node -> its inputs afterwards
  };
  const std::vector<Case> cases = {
      {"squeeze: unknown output shape", [](TestGraph& t) {
         t.input("x", {1, 3}).const_i64("s", {1, 3}).output("y");
         t.node("Reshape", {"x", "s"}, {"r"});
         t.node("Squeeze", {"r"}, {"y"});
       }, _p_fuse_squeeze_into_reshape, {"r", "y"}, {}, {{"r", {"x", "s"}}, {"y", {"r"}}}},
      // On [1,1,5,3], perm [1,3,0,2] differs from the inverse [0,3,1,2] only in
      // where the size-1 dimensions go; swapping the two others is a real move.
      {"bypass: inverse up to unit dims", [](TestGraph& t) {
         t.input("x", {1, 3, 1, 5}).output("y").output("z");
         t.node("Transpose", {"x"}, {"a"}, {{"perm", ints{0, 2, 3, 1}}});
         t.node("Transpose", {"a"}, {"b"}, {{"perm", ints{1, 3, 0, 2}}});
         t.node("Transpose", {"a"}, {"c"}, {{"perm", ints{0, 1, 3, 2}}});
         t.node("Relu", {"b"}, {"y"});
         t.node("Relu", {"c"}, {"z"});
         t.shape("a", {1, 1, 5, 3}).shape("b", {1, 3, 1, 5}).shape("c", {1, 1, 3, 5});
       }, _p_bypass_two_transpose, {"a"}, {"b"}, {{"y", {"x"}}, {"z", {"c"}}}},
      {"bypass: only the undoing branch goes, read twice", [](TestGraph& t) {
         transpose_pair(t).output("y").output("c");
         t.node("Relu", {"a"}, {"c"});
         t.node("Add", {"b", "b"}, {"y"});
       }, _p_bypass_two_transpose, {"a"}, {"b"}, {{"y", {"x", "x"}}, {"c", {"a"}}}},
      {"bypass: root feeding a graph output stays", [](TestGraph& t) {
         transpose_pair(t).output("a").output("y");
         t.node("Relu", {"b"}, {"y"});
       }, _p_bypass_two_transpose, {"a"}, {"b"}, {{"y", {"x"}}}},
      {"bypass reshape: restoring branches go, root stays for the other", [](TestGraph& t) {
         reshape_trip(t).output("y").output("w").output("e");
         t.node("Sigmoid", {"q"}, {"y"});
         t.node("Reshape", {"m", "s1"}, {"q2"});
         t.node("Reshape", {"m", "s0"}, {"w"});  // [6,4]: not the start shape
         t.node("Exp", {"q2"}, {"e"});
         t.shape("q2", {2, 3, 4}).shape("w", {6, 4});
       }, _p_bypass_two_reshape, {"m"}, {"q", "q2"}, {{"y", {"p"}}, {"e", {"p"}}, {"w", {"m", "s0"}}}},
      {"bypass reshape: root output is a graph output", [](TestGraph& t) {
         reshape_trip(t).output("m").output("y");
         t.node("Sigmoid", {"q"}, {"y"});
       }, _p_bypass_two_reshape, {"m"}, {"q"}, {{"y", {"p"}}}},
      {"fuse transpose: identity pair", [](TestGraph& t) {
         t.input("x", {2, 3, 4}).output("y");
         t.node("Transpose", {"x"}, {"a"}, {{"perm", ints{2, 0, 1}}});
         t.node("Transpose", {"a"}, {"b"}, {{"perm", ints{1, 2, 0}}});
         t.node("Relu", {"b"}, {"y"});
         t.shape("a", {4, 2, 3}).shape("b", {2, 3, 4});
       }, _p_fuse_two_transpose, {"a", "b"}, {"b", "a"}, {{"y", {"x"}}}},
      {"fuse transpose: root kept for a second reader", [](TestGraph& t) {
         transpose_pair(t).output("c").output("y");
         t.node("Relu", {"a"}, {"c"});
         t.node("Sigmoid", {"b"}, {"y"});
       }, _p_fuse_two_transpose, {"a", "b"}, {"b"}, {{"y", {"x"}}, {"c", {"a"}}}},
      {"fuse transpose: no Transpose reader", [](TestGraph& t) {
         t.input("x", {2, 3}).output("y");
         t.node("Transpose", {"x"}, {"a"}, {{"perm", ints{1, 0}}});
         t.node("Relu", {"a"}, {"y"});
       }, _p_fuse_two_transpose, {"a"}, {}, {{"y", {"a"}}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    TestGraph t;
    c.build(t);
    NodeList seeds;
    for (const std::string& n : c.seeds) seeds.push_back(t.ir.find_node(n));
    const RuleResult r = c.rule(t.ir, seeds, nullptr);
    EXPECT_EQ(node_names(r.remove), c.removed);
    EXPECT_TRUE(r.add.empty());
    for (const auto& [node, ins] : c.reads) {
      EXPECT_EQ(t.ir.find_node(node)->input.names(), ins) << node;
    }
  }
}

TEST(PairCollapseBypassTranspose, GraphOutputBranchIsLeftForFuse) {
  // The pair undoes itself but its end is a graph output: the bypass leaves
  // it, and the fuse rule then puts an Identity in the second node's place.
  TestGraph t;
  t.input("x", {2, 3});
  auto t0 = t.node("Transpose", {"x"}, {"a"}, {{"perm", ints{1, 0}}});
  auto t1 = t.node("Transpose", {"a"}, {"b"}, {{"perm", ints{1, 0}}}, "tp1");
  t.shape("a", {3, 2}).shape("b", {2, 3}).output("b");

  EXPECT_FALSE(_p_bypass_two_transpose(t.ir, {t0}, nullptr).applied());

  RuleResult r = _p_fuse_two_transpose(t.ir, {t0, t1}, nullptr);
  EXPECT_EQ(r.remove, (NodeList{t1, t0}));
  ASSERT_EQ(r.add.size(), 1u);
  EXPECT_EQ(r.add[0]->op_type(), "Identity");
  EXPECT_EQ(r.add[0]->name(), "tp1");
  EXPECT_EQ(r.add[0]->input.names(), names{"x"});
  EXPECT_EQ(r.add[0]->output.names(), names{"b"});
  apply(t.ir, r);
  EXPECT_EQ(t.producer("b")->op_type(), "Identity");
}

struct ReshapeRoundTrip : TestGraph {
  // x -> Relu -> p[2,3,4] -> Reshape -> m[6,4] -> Reshape -> q[2,3,4]
  NodePtr pre, r0, r1;
  explicit ReshapeRoundTrip(bool x_feeds_root = false) {
    input("x", {2, 3, 4});
    const_i64("s0", {6, 4}).const_i64("s1", {2, 3, 4});
    std::string root_in = "x";
    if (!x_feeds_root) {
      pre = node("Relu", {"x"}, {"p"});
      shape("p", {2, 3, 4});
      root_in = "p";
    }
    r0 = node("Reshape", {root_in, "s0"}, {"m"});
    r1 = node("Reshape", {"m", "s1"}, {"q"});
    shape("m", {6, 4}).shape("q", {2, 3, 4});
  }
};

TEST(PairCollapseBypassReshape, GraphOutputBranchRenamesProducer) {
  ReshapeRoundTrip t;
  auto other = t.node("Exp", {"p"}, {"e"});
  t.output("q").output("e");

  RuleResult r = _p_bypass_two_reshape(t.ir, {t.r0}, nullptr);
  EXPECT_EQ(r.remove, (NodeList{t.r1, t.r0}));
  EXPECT_EQ(t.pre->output[0], "q");
  EXPECT_EQ(other->input[0], "q");
  EXPECT_EQ(t.r0->input[0], "q");
  apply(t.ir, r);
  EXPECT_EQ(t.producer("q"), t.pre);
  EXPECT_EQ(t.readers("q"), names{"e"});
  EXPECT_EQ(t.ir.node_count(), 2u);
}

TEST(PairCollapseBypassReshape, EachGuardLeavesThePairAlone) {
  using Setup = std::function<void(ReshapeRoundTrip&)>;
  const auto sigmoid_out = [](ReshapeRoundTrip& t) { t.node("Sigmoid", {"q"}, {"y"}); t.output("y"); };
  const std::vector<std::tuple<const char*, bool, Setup>> cases = {
      {"graph-output branch over a graph input", true, [](ReshapeRoundTrip& t) { t.output("q"); }},
      {"two graph-output branches", false, [](ReshapeRoundTrip& t) { t.node("Reshape", {"m", "s1"}, {"q2"}); t.shape("q2", {2, 3, 4}).output("q").output("q2"); }},
      {"unknown start shape", false, [&](ReshapeRoundTrip& t) { t.ir.clear_shape("p"); sigmoid_out(t); }},
      {"computed target shape", false, [&](ReshapeRoundTrip& t) { t.node("Shape", {"x"}, {"dyn"}); t.ir.set_input(*t.r0, 1, "dyn"); sigmoid_out(t); }},
  };
  for (const auto& [what, x_feeds_root, setup] : cases) {
    SCOPED_TRACE(what);
    ReshapeRoundTrip t(x_feeds_root);
    setup(t);
    const std::string root_in = t.r0->input[0];
    EXPECT_FALSE(_p_bypass_two_reshape(t.ir, {t.r0}, nullptr).applied());
    EXPECT_EQ(t.r0->input[0], root_in);
    EXPECT_EQ(t.r1->input[0], "m");
  }
}

struct ReshapePair4D : TestGraph {
  // x -> Relu -> p[1,3,4,4] -> Reshape -> m[1,3,16] -> Reshape -> q[1,3,4,4] -> Sigmoid
  NodePtr pre, r0, r1, other;
  explicit ReshapePair4D(Shape out = {1, 3, 4, 4}) {
    input("x", {1, 3, 4, 4});
    const_i64("s0", {1, 3, 16}).const_i64("s1", out);
    pre = node("Relu", {"x"}, {"p"});
    r0 = node("Reshape", {"p", "s0"}, {"m"});
    r1 = node("Reshape", {"m", "s1"}, {"q"});
    other = node("Exp", {"p"}, {"e"});
    node("Sigmoid", {"q"}, {"y"});
    shape("p", {1, 3, 4, 4}).shape("m", {1, 3, 16}).shape("q", out).shape("e", {1, 3, 4, 4});
    output("y").output("e");
    ir.set_value_info({"p", "m", "q"});
  }
};

TEST(PairCollapseFuseReshape, FourDRoundTripKeepsMiddleName) {
  ReshapePair4D t;
  RuleResult r = _p_fuse_two_reshape(t.ir, {t.r0, t.r1}, nullptr);
  EXPECT_EQ(r.remove, NodeList{t.r0});
  EXPECT_TRUE(r.add.empty());
  EXPECT_EQ(t.pre->output[0], "m");
  EXPECT_EQ(t.other->input[0], "m");
  EXPECT_EQ(t.r1->input[0], "m");
  EXPECT_EQ(t.ir.get_shape("m"), (Shape{1, 3, 4, 4}));
  EXPECT_EQ(t.ir.value_info(), (names{"p", "q"}));
  apply(t.ir, r);
  EXPECT_EQ(t.producer("m"), t.pre);
}

TEST(PairCollapseFuseReshape, PlainMergeWhenRenameDoesNotFit) {
  {
    ReshapePair4D t;  // dynamic-shape models never rename
    t.ir.dynamic_shapes["x"] = {{1, 3, 4, 4}, {1, 3, 8, 8}};
    RuleResult r = _p_fuse_two_reshape(t.ir, {t.r0, t.r1}, nullptr);
    EXPECT_EQ(r.remove, NodeList{t.r0});
    EXPECT_EQ(t.r1->input[0], "p");
    EXPECT_EQ(t.pre->output[0], "p");
    EXPECT_EQ(t.ir.value_info().size(), 3u);
  }
  {
    ReshapePair4D t({1, 12, 4, 1});  // ends in another shape
    _p_fuse_two_reshape(t.ir, {t.r0, t.r1}, nullptr);
    EXPECT_EQ(t.r1->input[0], "p");
    EXPECT_EQ(t.pre->output[0], "p");
  }
  {
    ReshapeRoundTrip t;  // 3-D round trip
    RuleResult r = _p_fuse_two_reshape(t.ir, {t.r0, t.r1}, nullptr);
    EXPECT_EQ(r.remove, NodeList{t.r0});
    EXPECT_EQ(t.r1->input[0], "p");
    EXPECT_EQ(t.pre->output[0], "p");
  }
  {
    // The pair's input is a graph input: its name cannot go.
    TestGraph t;
    t.input("x", {1, 3, 4, 4}).const_i64("s0", {3, 16}).const_i64("s1", {1, 3, 4, 4});
    auto r0 = t.node("Reshape", {"x", "s0"}, {"m"});
    auto r1 = t.node("Reshape", {"m", "s1"}, {"q"});
    t.shape("m", {3, 16}).shape("q", {1, 3, 4, 4}).output("q");
    _p_fuse_two_reshape(t.ir, {r0, r1}, nullptr);
    EXPECT_EQ(r1->input[0], "x");
  }
}

}  // namespace
}  // namespace tolm
