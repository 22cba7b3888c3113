// The bypass order of a Transpose-Reshape pair and the batch-avoiding layout:
// the parts onnxruntime cannot see (which order, which shapes, which names).
#include <gtest/gtest.h>

#include "chains/chains.h"
#include "graph_dsl.h"

namespace tolm {
namespace {

using namespace testing_dsl;

Shape non_unit(const Shape& s) {
  Shape out;
  for (int64_t d : s)
    if (d != 1) out.push_back(d);
  return out;
}

TEST(BypassReshapePerm, PutsTheSizeOneAxesWhereThePlaneStays) {
  TestGraph t;
  struct Case {
    const char* what;
    Shape i_shape, o_shape;
    Perm perm;  // empty: no such order
  };
  const std::vector<Case> cases = {
      {"the size-1 batch moves into the plane", {1, 16, 2, 8}, {1, 4, 16, 4}, {1, 2, 0, 3}},
      // A plane of 1: the first axis above 1 stops the search at once.
      {"plane of one element", {1, 16, 1, 1}, {1, 1, 16, 1}, {0, 2, 1, 3}},
      {"channels found in the batch place", {1, 16, 2, 2}, {16, 1, 2, 2}, {1, 0, 2, 3}},
      {"channel count the groups cannot hold", {1, 3, 8, 8}, {1, 8, 3, 8}, {}},
      {"rank 3", {16, 2, 8}, {4, 16, 4}, {}},
      {"ranks differ", {1, 16, 2, 8}, {4, 16, 16}, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const Perm perm = bypass_reshape_perm2(t.ir, c.i_shape, c.o_shape);
    EXPECT_EQ(perm, c.perm);
    // Only axes of size 1 move: the Reshape to the new order holds the data
    // in the same order as the Transpose of the old one.
    if (!perm.empty()) {
      EXPECT_EQ(non_unit(apply_perm(perm, c.o_shape)), non_unit(c.o_shape));
    }
  }
}

TEST(FuseReshapeTranspose, BypassCaseKeepsTheReshapeAndReshapesItsOutput) {
  TestGraph t;
  t.input("x", {1, 16, 2, 8}).const_i64("s", {1, 4, 16, 4});
  NodePtr r = t.node("Reshape", {"x", "s"}, {"a"}, {}, "r");
  NodePtr tp = t.node("Transpose", {"a"}, {"b"}, {{"perm", ints{0, 2, 1, 3}}}, "t");
  t.node("Neg", {"b"}, {"y"});
  t.shape("a", {1, 4, 16, 4}).shape("b", {1, 16, 4, 4}).output("y");

  const RuleResult res = _p_fuse_reshape_transpose(t.ir, {r, tp}, nullptr);
  ASSERT_EQ(res.remove, (NodeList{tp}));
  ASSERT_EQ(res.add.size(), 1u);
  EXPECT_EQ(res.add[0]->name(), "t");
  EXPECT_EQ(IR::get_attr_ints(*res.add[0], "perm"), (ints{2, 1, 0, 3}));
  EXPECT_EQ(t.ir.get_shape("a"), (Shape{4, 16, 1, 4}));
  EXPECT_EQ(t.ir.get_const(r->input[1])->to_i64(), (ints{4, 16, 1, 4}));
  EXPECT_EQ(r->name(), "r");
}

// x[transpose_in] -> Transpose(perm) -> Reshape -> Neg
RuleResult transpose_then_reshape(const Shape& transpose_in, const Perm& perm, const Shape& transpose_out) {
  TestGraph t;
  t.input("x", transpose_in).const_i64("s", {shape_size(transpose_in)});
  NodePtr tp = t.node("Transpose", {"x"}, {"a"}, {{"perm", perm}});
  NodePtr rs = t.node("Reshape", {"a", "s"}, {"b"});
  t.node("Neg", {"b"}, {"y"});
  t.shape("a", transpose_out).shape("b", {shape_size(transpose_in)}).output("y");
  return _p_fuse_transpose_reshape_avoid_batch(t.ir, {tp, rs}, nullptr);
}

TEST(AvoidBatch, ChannelsThatFillTheGroupsMustStaySo) {
  struct Case {
    const char* what;
    Shape transpose_in;
    Perm perm;
    Shape transpose_out;
    Perm new_perm;  // empty: does not apply
  };
  const std::vector<Case> cases = {
      {"batch 2 becomes the channel", {2, 3, 4, 1}, {0, 3, 1, 2}, {2, 1, 3, 4}, {3, 0, 1, 2}},
      {"8 channels after is still aligned", {8, 1, 16, 2}, {0, 2, 1, 3}, {8, 16, 1, 2}, {1, 0, 2, 3}},
      {"4 channels after is not", {4, 1, 16, 2}, {0, 2, 1, 3}, {4, 16, 1, 2}, {}},
      // best_layout [1, 16, 1, 32] keeps a 1 between the sizes; the size-1
      // axes can only go first.
      {"two sizes: the perm test decides", {16, 32, 1, 1}, {0, 1, 2, 3}, {16, 32, 1, 1}, {}},
      {"no axis of size 1", {2, 3, 4, 5}, {0, 2, 1, 3}, {2, 4, 3, 5}, {}},
      {"batch 1 already", {1, 3, 4, 2}, {0, 3, 1, 2}, {1, 2, 3, 4}, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const RuleResult res = transpose_then_reshape(c.transpose_in, c.perm, c.transpose_out);
    if (c.new_perm.empty()) {
      EXPECT_FALSE(res.applied());
      continue;
    }
    ASSERT_EQ(res.add.size(), 1u);
    EXPECT_EQ(IR::get_attr_ints(*res.add[0], "perm"), c.new_perm);
  }
}

TEST(AvoidBatch, ReshapeFirstTakesARepeatedSizeFromItsSecondPlace) {
  // [2, 2, 1, 3]: best_layout [1, 2, 2, 3] takes the second 2 from place 1.
  TestGraph t;
  t.input("x", {4, 3, 1, 1}).const_i64("s", {2, 2, 1, 3});
  NodePtr rs = t.node("Reshape", {"x", "s"}, {"a"});
  NodePtr tp = t.node("Transpose", {"a"}, {"b"}, {{"perm", ints{1, 0, 2, 3}}});
  t.node("Neg", {"b"}, {"y"});
  t.shape("a", {2, 2, 1, 3}).shape("b", {2, 2, 1, 3}).output("y");
  const RuleResult res = _p_fuse_reshape_transpose_avoid_batch(t.ir, {rs, tp}, nullptr);
  ASSERT_EQ(res.add.size(), 2u);
  EXPECT_EQ(t.ir.get_const(res.add[0]->input[1])->to_i64(), (ints{1, 2, 2, 3}));
  EXPECT_EQ(t.ir.get_shape("a"), (Shape{1, 2, 2, 3}));
  // sort_index [2, 0, 1, 3]: the two 2s still swap, now on axes 1 and 2.
  EXPECT_EQ(IR::get_attr_ints(*res.add[1], "perm"), (ints{2, 1, 0, 3}));
}

}  // namespace
}  // namespace tolm
