// Adjacent Reshape/Transpose pairs and the Squeeze fold.
#include <gtest/gtest.h>

#include <algorithm>

#include "chains/chains.h"
#include "graph_dsl.h"

namespace tolm {
namespace {

using namespace testing_dsl;

// ---- Squeeze into Reshape ---------------------------------------------------

TEST(SqueezeIntoReshape, WritesSqueezedShapeAndTakesOverOutput) {
  TestGraph t;
  t.input("x", {1, 3, 1, 4}).const_i64("s", {3, 1, 4});
  auto rs = t.node("Reshape", {"x", "s"}, {"r"});
  auto sq = t.node("Squeeze", {"r"}, {"y"});
  t.node("Relu", {"y"}, {"z"});
  t.shape("r", {3, 1, 4}).shape("y", {3, 4}).shape("z", {3, 4}).output("z");

  RuleResult r = _p_fuse_squeeze_into_reshape(t.ir, {rs, sq}, nullptr);
  EXPECT_EQ(node_names(r.remove), names{"y"});
  EXPECT_TRUE(r.add.empty());
  EXPECT_EQ(t.ir.get_const("s")->to_i64(), (ints{3, 4}));
  EXPECT_EQ(t.ir.get_const("s")->dtype(), dt::INT64);
  EXPECT_EQ(rs->output[0], "y");

  apply(t.ir, r);
  EXPECT_EQ(t.producer("y"), rs);  // the survivor keeps the shared output name
  EXPECT_EQ(t.readers("y"), names{"z"});
}

TEST(SqueezeIntoReshape, UnknownOutputShapeDoesNotApply) {
  TestGraph t;
  t.input("x", {1, 3}).const_i64("s", {1, 3});
  auto rs = t.node("Reshape", {"x", "s"}, {"r"});
  auto sq = t.node("Squeeze", {"r"}, {"y"});
  t.output("y");
  EXPECT_FALSE(_p_fuse_squeeze_into_reshape(t.ir, {rs, sq}, nullptr).applied());
  EXPECT_EQ(t.ir.get_const("s")->to_i64(), (ints{1, 3}));
  EXPECT_EQ(rs->output[0], "r");
}

// ---- bypass_two_transpose ---------------------------------------------------

TEST(PairCollapseBypassTranspose, InversePairIsDroppedAndRootGoes) {
  TestGraph t;
  t.input("x", {1, 3, 4, 5});
  auto t0 = t.node("Transpose", {"x"}, {"a"}, {{"perm", ints{0, 2, 3, 1}}});
  auto t1 = t.node("Transpose", {"a"}, {"b"}, {{"perm", ints{0, 3, 1, 2}}});
  auto relu = t.node("Relu", {"b"}, {"y"});
  t.shape("a", {1, 4, 5, 3}).shape("b", {1, 3, 4, 5}).shape("y", {1, 3, 4, 5}).output("y");

  RuleResult r = _p_bypass_two_transpose(t.ir, {t0}, nullptr);
  EXPECT_EQ(r.remove, (NodeList{t1, t0}));
  EXPECT_TRUE(r.add.empty());
  EXPECT_EQ(relu->input[0], "x");
  apply(t.ir, r);
  EXPECT_EQ(op_types(t.ir), names{"Relu"});
}

TEST(PairCollapseBypassTranspose, InverseUpToUnitDimsQualifies) {
  // On [1,1,5,3], perm [1,3,0,2] differs from the inverse [0,3,1,2] only in
  // where the two size-1 dimensions go.
  TestGraph t;
  t.input("x", {1, 3, 1, 5});
  auto t0 = t.node("Transpose", {"x"}, {"a"}, {{"perm", ints{0, 2, 3, 1}}});
  auto t1 = t.node("Transpose", {"a"}, {"b"}, {{"perm", ints{1, 3, 0, 2}}});
  // Swapping the two non-unit dims is a real transpose and must stay.
  auto t2 = t.node("Transpose", {"a"}, {"c"}, {{"perm", ints{0, 1, 3, 2}}});
  auto u = t.node("Relu", {"b"}, {"y"});
  auto v = t.node("Relu", {"c"}, {"z"});
  t.shape("a", {1, 1, 5, 3}).shape("b", {1, 3, 1, 5}).shape("c", {1, 1, 3, 5});
  t.output("y").output("z");

  RuleResult r = _p_bypass_two_transpose(t.ir, {t0}, nullptr);
  EXPECT_EQ(r.remove, NodeList{t1});  // root stays for the other branch
  EXPECT_EQ(u->input[0], "x");
  EXPECT_EQ(v->input[0], "c");
}

TEST(PairCollapseBypassTranspose, OnlyUndoingBranchGoes) {
  TestGraph t;
  t.input("x", {2, 3});
  auto t0 = t.node("Transpose", {"x"}, {"a"}, {{"perm", ints{1, 0}}});
  auto t1 = t.node("Transpose", {"a"}, {"b"}, {{"perm", ints{1, 0}}});
  auto other = t.node("Relu", {"a"}, {"c"});
  auto add = t.node("Add", {"b", "b"}, {"y"});  // reads the dropped tensor twice
  t.shape("a", {3, 2}).shape("b", {2, 3}).shape("c", {3, 2}).shape("y", {2, 3});
  t.output("y").output("c");

  RuleResult r = _p_bypass_two_transpose(t.ir, {t0}, nullptr);
  EXPECT_EQ(r.remove, NodeList{t1});
  EXPECT_EQ(add->input.names(), (names{"x", "x"}));
  EXPECT_EQ(other->input[0], "a");
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
  EXPECT_EQ(r.add[0]->op_type, "Identity");
  EXPECT_EQ(r.add[0]->name, "tp1");
  EXPECT_EQ(r.add[0]->input.names(), names{"x"});
  EXPECT_EQ(r.add[0]->output.names(), names{"b"});
  apply(t.ir, r);
  EXPECT_EQ(t.producer("b")->op_type, "Identity");
}

TEST(PairCollapseBypassTranspose, RootFeedingGraphOutputStays) {
  TestGraph t;
  t.input("x", {2, 3});
  auto t0 = t.node("Transpose", {"x"}, {"a"}, {{"perm", ints{1, 0}}});
  auto t1 = t.node("Transpose", {"a"}, {"b"}, {{"perm", ints{1, 0}}});
  auto relu = t.node("Relu", {"b"}, {"y"});
  t.shape("a", {3, 2}).shape("b", {2, 3}).output("a").output("y");

  RuleResult r = _p_bypass_two_transpose(t.ir, {t0}, nullptr);
  EXPECT_EQ(r.remove, NodeList{t1});
  EXPECT_EQ(relu->input[0], "x");
}

// ---- bypass_two_reshape -----------------------------------------------------

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

TEST(PairCollapseBypassReshape, RestoringBranchesGoRootStaysForOthers) {
  ReshapeRoundTrip t;
  auto sig = t.node("Sigmoid", {"q"}, {"y"});
  auto r2 = t.node("Reshape", {"m", "s1"}, {"q2"});  // also restores
  auto keep = t.node("Reshape", {"m", "s0"}, {"w"});  // [6,4]: not the start shape
  t.shape("q2", {2, 3, 4}).shape("w", {6, 4}).output("y").output("w");
  auto cons2 = t.node("Exp", {"q2"}, {"e"});
  t.output("e");

  RuleResult r = _p_bypass_two_reshape(t.ir, {t.r0}, nullptr);
  EXPECT_EQ(r.remove, (NodeList{t.r1, r2}));  // root stays for `keep`
  EXPECT_EQ(sig->input[0], "p");
  EXPECT_EQ(cons2->input[0], "p");
  EXPECT_EQ(keep->input[0], "m");
}

TEST(PairCollapseBypassReshape, AllBranchesGoneRemovesRoot) {
  ReshapeRoundTrip t;
  auto sig = t.node("Sigmoid", {"q"}, {"y"});
  t.output("y");
  RuleResult r = _p_bypass_two_reshape(t.ir, {t.r0}, nullptr);
  EXPECT_EQ(r.remove, (NodeList{t.r1, t.r0}));
  EXPECT_EQ(sig->input[0], "p");
}

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

TEST(PairCollapseBypassReshape, GraphOutputBranchOverGraphInputDoesNotApply) {
  ReshapeRoundTrip t(/*x_feeds_root=*/true);
  t.output("q");
  EXPECT_FALSE(_p_bypass_two_reshape(t.ir, {t.r0}, nullptr).applied());
  EXPECT_EQ(t.r0->input[0], "x");
  EXPECT_EQ(t.r1->input[0], "m");
}

TEST(PairCollapseBypassReshape, TwoGraphOutputBranchesDoNotApply) {
  ReshapeRoundTrip t;
  t.node("Reshape", {"m", "s1"}, {"q2"});
  t.shape("q2", {2, 3, 4}).output("q").output("q2");
  EXPECT_FALSE(_p_bypass_two_reshape(t.ir, {t.r0}, nullptr).applied());
  EXPECT_EQ(t.pre->output[0], "p");
  EXPECT_EQ(t.r0->input[0], "p");
}

TEST(PairCollapseBypassReshape, RootOutputIsGraphOutputRootStays) {
  ReshapeRoundTrip t;
  auto sig = t.node("Sigmoid", {"q"}, {"y"});
  t.output("m").output("y");
  RuleResult r = _p_bypass_two_reshape(t.ir, {t.r0}, nullptr);
  EXPECT_EQ(r.remove, NodeList{t.r1});
  EXPECT_EQ(sig->input[0], "p");
}

TEST(PairCollapseBypassReshape, GuardsUnknownShapeAndComputedTarget) {
  {
    TestGraph t;
    t.input("x", {2, 3}).const_i64("s", {6}).const_i64("s1", {2, 3});
    auto pre = t.node("Relu", {"x"}, {"p"});  // p has no shape
    auto r0 = t.node("Reshape", {"p", "s"}, {"m"});
    t.node("Reshape", {"m", "s1"}, {"q"});
    t.shape("q", {2, 3}).output("q");
    EXPECT_FALSE(_p_bypass_two_reshape(t.ir, {r0}, nullptr).applied());
    EXPECT_EQ(pre->output[0], "p");
  }
  {
    // The target shape comes from a node: two producers.
    ReshapeRoundTrip t;
    t.node("Shape", {"x"}, {"dyn"});
    t.ir.set_input(*t.r0, 1, "dyn");
    t.node("Sigmoid", {"q"}, {"y"});
    t.output("y");
    EXPECT_FALSE(_p_bypass_two_reshape(t.ir, {t.r0}, nullptr).applied());
  }
}

// ---- fuse_two_reshape -------------------------------------------------------

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
    ir.value_info() = {"p", "m", "q"};
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

// ---- fuse_two_transpose -----------------------------------------------------

TEST(PairCollapseFuseTranspose, ComposesIntoOneTranspose) {
  TestGraph t;
  t.input("x", {1, 2, 3, 4});
  auto t0 = t.node("Transpose", {"x"}, {"a"}, {{"perm", ints{0, 2, 3, 1}}});
  auto t1 = t.node("Transpose", {"a"}, {"b"}, {{"perm", ints{0, 2, 1, 3}}}, "tp1");
  auto relu = t.node("Relu", {"b"}, {"y"});
  t.shape("a", {1, 3, 4, 2}).shape("b", {1, 4, 3, 2}).shape("y", {1, 4, 3, 2}).output("y");

  RuleResult r = _p_fuse_two_transpose(t.ir, {t0, t1}, nullptr);
  EXPECT_EQ(r.remove, (NodeList{t1, t0}));
  ASSERT_EQ(r.add.size(), 1u);
  const NodePtr& fused = r.add[0];
  EXPECT_EQ(fused->op_type, "Transpose");
  EXPECT_EQ(fused->name, "tp1");
  EXPECT_EQ(fused->input.names(), names{"x"});
  EXPECT_EQ(fused->output.names(), names{"b"});
  EXPECT_EQ(IR::get_attr_ints(*fused, "perm"), (ints{0, 3, 2, 1}));
  apply(t.ir, r);
  EXPECT_EQ(t.producer("b"), fused);
  EXPECT_EQ(relu->input[0], "b");
}

TEST(PairCollapseFuseTranspose, IdentityPairRewiresConsumers) {
  TestGraph t;
  t.input("x", {2, 3, 4});
  auto t0 = t.node("Transpose", {"x"}, {"a"}, {{"perm", ints{2, 0, 1}}});
  auto t1 = t.node("Transpose", {"a"}, {"b"}, {{"perm", ints{1, 2, 0}}});
  auto relu = t.node("Relu", {"b"}, {"y"});
  t.shape("a", {4, 2, 3}).shape("b", {2, 3, 4}).output("y");

  RuleResult r = _p_fuse_two_transpose(t.ir, {t0, t1}, nullptr);
  EXPECT_EQ(r.remove, (NodeList{t1, t0}));
  EXPECT_TRUE(r.add.empty());
  EXPECT_EQ(relu->input[0], "x");
}

TEST(PairCollapseFuseTranspose, MixedConsumersKeepRoot) {
  TestGraph t;
  t.input("x", {2, 3});
  auto t0 = t.node("Transpose", {"x"}, {"a"}, {{"perm", ints{1, 0}}});
  auto t1 = t.node("Transpose", {"a"}, {"b"}, {{"perm", ints{1, 0}}});
  auto relu = t.node("Relu", {"a"}, {"c"});
  auto sig = t.node("Sigmoid", {"b"}, {"y"});
  t.shape("a", {3, 2}).shape("b", {2, 3}).output("c").output("y");

  RuleResult r = _p_fuse_two_transpose(t.ir, {t0, t1}, nullptr);
  EXPECT_EQ(r.remove, NodeList{t1});
  EXPECT_EQ(sig->input[0], "x");
  EXPECT_EQ(relu->input[0], "a");
}

TEST(PairCollapseFuseTranspose, NoTransposeConsumerDoesNotApply) {
  TestGraph t;
  t.input("x", {2, 3});
  auto t0 = t.node("Transpose", {"x"}, {"a"}, {{"perm", ints{1, 0}}});
  t.node("Relu", {"a"}, {"y"});
  t.output("y");
  RuleResult r = _p_fuse_two_transpose(t.ir, {t0}, nullptr);
  EXPECT_FALSE(r.applied());
}

}  // namespace
}  // namespace tolm
