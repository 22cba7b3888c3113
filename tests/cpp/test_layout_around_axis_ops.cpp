// Reshape nodes around a wide Concat and a wide Split: the operator takes the
// shape its neighbours share, every neighbour goes in one call, and the graph
// stays well-formed (one producer per tensor, graph outputs kept).
#include <gtest/gtest.h>

#include "graph_dsl.h"
#include "host/validate.h"
#include "layout/layout.h"

namespace tolm {
namespace {

using namespace testing_dsl;

constexpr int kPieces = 300;

TEST(ReshapeAroundAxisOp, WideConcatReadsEveryPieceInItsOwnShape) {
  TestGraph t;
  names pieces;
  t.const_i64("flat", {1, 8, 16});
  for (int k = 0; k < kPieces; ++k) {
    const std::string x = "x" + std::to_string(k), p = "p" + std::to_string(k);
    t.input(x, {1, 8, 4, 4}).shape(p, {1, 8, 16});
    t.node("Reshape", {x, "flat"}, {p});
    pieces.push_back(p);
  }
  t.shape("cat", {1, 8 * kPieces, 16}).shape("y", {1, 8 * kPieces, 4, 4}).output("y");
  t.const_i64("back", {1, 8 * kPieces, 4, 4});
  const NodePtr cat = t.node("Concat", pieces, {"cat"}, {{"axis", 1}});
  t.node("Reshape", {"cat", "back"}, {"y"});

  const RuleResult r = _p_reduce_reshape_op_around_axis_op(t.ir, {cat}, nullptr);
  ASSERT_EQ(r.remove.size(), static_cast<size_t>(kPieces) + 1);
  apply(t.ir, r);
  validate_graph(t.ir);
  const NodePtr joined = t.producer("y")->op_type() == "Reshape" ? t.producer(t.producer("y")->input[0]) : nullptr;
  ASSERT_TRUE(joined);
  // The Concat now works on [1, 8, 4, 4] pieces, straight from the inputs.
  ASSERT_TRUE(joined->op_type() == "Concat" || joined->op_type() == "Reshape");
  const NodePtr concat = joined->op_type() == "Concat" ? joined : t.producer(joined->input[0]);
  ASSERT_EQ(concat->op_type(), "Concat");
  EXPECT_EQ(concat->input[0], "x0");
  EXPECT_EQ(concat->input[kPieces - 1], "x" + std::to_string(kPieces - 1));
}

TEST(ReshapeAroundAxisOp, WideSplitWritesTheReshapedPiecesAndKeepsGraphOutputs) {
  TestGraph t;
  t.input("x", {1, 8 * kPieces, 16});
  t.const_i64("lens", ints(kPieces, 8)).const_i64("piece", {1, 8, 4, 4});
  names parts;
  for (int k = 0; k < kPieces; ++k) {
    const std::string p = "p" + std::to_string(k);
    t.shape(p, {1, 8, 16});
    parts.push_back(p);
  }
  const NodePtr split = t.node("Split", {"x", "lens"}, parts, {{"axis", 1}});
  for (int k = 0; k < kPieces; ++k) {
    const std::string q = "q" + std::to_string(k);
    t.shape(q, {1, 8, 4, 4});
    t.node("Reshape", {parts[k], "piece"}, {q});
    if (k == 1) {
      t.output(q);
    } else {
      t.shape("y" + std::to_string(k), {1, 8, 4, 4}).output("y" + std::to_string(k));
      t.node("Relu", {q}, {"y" + std::to_string(k)});
    }
  }
  // One piece's Reshape writes a graph output, which the Split now writes
  // itself; one piece is also read as it is, so the Split keeps a Reshape
  // back for that reader.
  t.shape("r", {1, 8, 16}).output("r");
  t.node("Relu", {"p0"}, {"r"});

  const RuleResult r = _p_reduce_reshape_op_around_axis_op(t.ir, {split}, nullptr);
  ASSERT_TRUE(r.applied());
  apply(t.ir, r);
  validate_graph(t.ir);
  for (int k = 0; k < kPieces; ++k) EXPECT_TRUE(t.producer("q" + std::to_string(k))) << k;
  EXPECT_EQ(t.producer("q1")->op_type(), "Split");
  EXPECT_EQ(t.producer(t.producer("r")->input[0])->op_type(), "Reshape");
}

}  // namespace
}  // namespace tolm
