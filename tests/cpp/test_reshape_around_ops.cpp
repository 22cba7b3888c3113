// Reshapes and Transposes moved across elementwise ops and Split, where the
// numbers alone do not show a fault: the shapes recorded for tensors that
// change layout, and the tables reaching a fixed point.
#include <gtest/gtest.h>

#include "graph_dsl.h"
#include "reduce/driver.h"
#include "restructure/restructure.h"

namespace tolm {
namespace {

using namespace testing_dsl;

TEST(ReshapeAfterAdd, TablesReachAFixedPoint) {
  TestGraph t;
  t.input("x", {81, 128});
  t.const_i64("mid", {81, 1, 128}).const_i64("back", {81, 128});
  t.constant("c", NDArray::from_f64(std::vector<double>(81 * 128, 0.5), {81, 1, 128}));
  t.node("Reshape", {"x", "mid"}, {"m"});
  t.node("Mul", {"m", "c"}, {"a"});
  t.node("Reshape", {"a", "back"}, {"y"});
  t.shape("m", {81, 1, 128}).shape("a", {81, 1, 128}).shape("y", {81, 128}).output("y");
  DriverOptions opts;
  opts.only = {"remove_reshape_after_mul"};
  opts.fold = false;
  EXPECT_EQ(run_reduce(t.ir, nullptr, opts).fired["remove_reshape_after_mul"], 1);
  EXPECT_EQ(op_types(t.ir), names{"Mul"});
  EXPECT_EQ(t.ir.get_shape(t.ir.producer("y")->input[1]), (Shape{81, 128}));
  EXPECT_EQ(run_reduce(t.ir, nullptr, opts).rewrites, 0);
}

TEST(TransposeAfterSplit, KeptTransposesReadTheirPieceInTheNewLayout) {
  TestGraph t;
  t.input("x", {2, 9, 4});
  t.const_i64("lens", {3, 3, 3});
  NodePtr split = t.node("Split", {"x", "lens"}, {"p0", "p1", "p2"}, {{"axis", 1}}, "sp");
  for (const char* p : {"p0", "p1", "p2"}) t.shape(p, {2, 3, 4});
  t.node("Transpose", {"p0"}, {"y0"}, {{"perm", ints{0, 2, 1}}});
  t.node("Transpose", {"p1"}, {"y1"}, {{"perm", ints{0, 2, 1}}});
  t.node("Transpose", {"p2"}, {"y2"}, {{"perm", ints{1, 0, 2}}});
  // A Transpose that writes a graph output would stay: these have readers.
  for (const char* y : {"y0", "y1"}) {
    t.shape(y, {2, 4, 3});
    t.node("Relu", {y}, {std::string(y) + "r"});
  }
  t.shape("y2", {3, 2, 4}).output("y2");
  const RuleResult r = _p_remove_transpose_after_split(t.ir, {split}, nullptr);
  EXPECT_EQ(node_names(r.remove), (names{"y0", "y1"}));
  apply(t.ir, r);
  EXPECT_EQ(IR::get_attr_int(*split, "axis"), 2);
  EXPECT_EQ(split->output.names(), (names{"y0", "y1", "p2"}));
  // p2 now holds its piece transposed by (0, 2, 1): [2, 4, 3]; (1, 0, 2)
  // after (0, 2, 1) is (2, 0, 1).
  EXPECT_EQ(t.ir.get_shape("p2"), (Shape{2, 4, 3}));
  EXPECT_EQ(IR::get_attr_ints(*t.ir.producer("y2"), "perm"), (ints{2, 0, 1}));
}

TEST(ReshapeAfterSplit, AnUnreadPieceTakesTheNewLayout) {
  TestGraph t;
  t.input("x", {1, 12, 4});
  t.const_i64("lens", {4, 2, 6}).const_i64("t0", {1, 4, 2, 2}).const_i64("t2", {1, 6, 2, 2});
  NodePtr split = t.node("Split", {"x", "lens"}, {"p0", "p1", "p2"}, {{"axis", 1}}, "sp");
  t.shape("p0", {1, 4, 4}).shape("p1", {1, 2, 4}).shape("p2", {1, 6, 4});
  t.node("Reshape", {"p0", "t0"}, {"y0"});
  t.node("Reshape", {"p2", "t2"}, {"y2"});
  t.shape("y0", {1, 4, 2, 2}).shape("y2", {1, 6, 2, 2}).output("y0").output("y2");
  const RuleResult r = _p_remove_reshape_after_split(t.ir, {split}, nullptr);
  ASSERT_EQ(r.add.size(), 1u);
  apply(t.ir, r);
  EXPECT_EQ(t.ir.get_shape("p1"), (Shape{1, 2, 2, 2}));
  EXPECT_EQ(t.ir.get_const(r.add[0]->input[1])->to_i64(), (ints{1, 12, 2, 2}));
}

}  // namespace
}  // namespace tolm
