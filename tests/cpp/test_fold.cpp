// The fold pass as the driver sees it: what a step leaves in the graph (graph
// outputs keep a producer, dead outputs are not made, shapes downstream get
// inferred), the size budget, If inlining where names collide, and folding
// inside the driver's run, strict, so that a step that breaks the edit
// contract fails the test. Values against onnxruntime: tests/python.
#include <gtest/gtest.h>

#include <climits>
#include <optional>

#include "fold/fold.h"
#include "graph_dsl.h"
#include "host/onnx_io.h"
#include "onnx_model_util.h"
#include "reduce/driver.h"

namespace tolm {
namespace {

using namespace testing_dsl;
constexpr int32_t TP_FLOAT = onnx::TensorProto::FLOAT;

TEST(Fold, GraphOutputKeepsItsNameFromAConstantNode) {
  TestGraph t;
  t.const_f32("a", {1, 2, 3});
  t.const_f32("b", {10, 20, 30});
  t.node("Add", {"a", "b"}, {"y"}, {}, "add");
  t.node("Neg", {"y"}, {"z"});
  t.output("y").output("z");
  fold_graph(t.ir);
  // y keeps a producer; z, read by nothing, is a graph output too.
  const NodePtr y = t.producer("y");
  ASSERT_TRUE(y);
  EXPECT_EQ(y->op_type(), "Constant");
  EXPECT_EQ(y->name(), "add");
  ASSERT_TRUE(t.producer("z"));
  EXPECT_EQ(t.producer("z")->op_type(), "Constant");
  EXPECT_EQ(IR::get_attr(*t.producer("z"), "value")->t.to_f64(), (std::vector<double>{-11, -22, -33}));
  // A Constant node that produces a graph output is the end of folding.
  const FoldStats again = fold_graph(t.ir);
  EXPECT_EQ(again.steps, 0);
}

TEST(Fold, UnreadOutputsAreNotMade) {
  TestGraph t;
  t.const_f32("c", {1, 2, 3, 4});
  t.const_i64("len", {1, 3});
  t.node("Split", {"c", "len"}, {"p", "q"}, {{"axis", 0}});
  t.input("x", {1});
  t.node("Add", {"x", "p"}, {"y"});
  t.output("y");
  fold_graph(t.ir);
  EXPECT_TRUE(t.ir.is_const("p"));
  EXPECT_FALSE(t.ir.is_const("q"));
  EXPECT_EQ(op_types(t.ir), (names{"Add"}));
}

TEST(Fold, ShapesDownstreamOfAFoldedTargetAreInferred) {
  // The Reshape's target is computed, so its output has no shape at first;
  // once the target folds, the Shape behind the Relu folds too.
  TestGraph t;
  t.input("x", {2, 3, 4});
  t.const_i64("two", {2});
  t.const_i64("twelve", {12});
  t.node("Concat", {"two", "twelve"}, {"target"}, {{"axis", 0}});
  t.node("Reshape", {"x", "target"}, {"r"});
  t.node("Relu", {"r"}, {"a"});
  t.node("Shape", {"a"}, {"s"});
  t.node("Cast", {"s"}, {"y"}, {{"to", int64_t(dt::FLOAT)}});
  t.output("y").output("a");
  EXPECT_FALSE(t.ir.has_shape("a"));
  fold_graph(t.ir);
  EXPECT_EQ(t.ir.get_shape("a"), (Shape{2, 12}));
  ASSERT_EQ(t.producer("y")->op_type(), "Constant");
  EXPECT_EQ(IR::get_attr(*t.producer("y"), "value")->t.to_f64(), (std::vector<double>{2, 12}));
}

TEST(Fold, ShapesThatDynamicProfilesChangeAreNotFolded) {
  TestGraph t;
  t.input("x", {2, 3});
  t.node("Shape", {"x"}, {"s"});
  t.node("Size", {"x"}, {"n"});
  t.output("s").output("n");
  t.ir.dynamic_shapes["x"] = {{2, 3}, {4, 3}};
  fold_graph(t.ir);
  EXPECT_EQ(op_types(t.ir), (names{"Shape", "Size"}));
  t.ir.dynamic_shapes["x"] = {{2, 3}, {2, 3}};
  fold_graph(t.ir);
  EXPECT_EQ(op_types(t.ir), (names{"Constant", "Constant"}));
}

TEST(Fold, RecordedShapesThatDisagreeLeaveTheNode) {
  TestGraph t;
  t.const_f32("a", {1, 2, 3});
  t.node("Neg", {"a"}, {"n"});
  t.shape("n", {4});  // the model says so; the value says 3
  t.input("x", {3});
  t.node("Add", {"x", "n"}, {"y"});
  t.output("y");
  fold_graph(t.ir);
  EXPECT_EQ(op_types(t.ir), (names{"Neg", "Add"}));
}

// An If on a constant condition whose branch declares `t`, a name the outer
// graph holds as well, and reads it in a nested If.
std::string if_with_clashing_names() {
  using namespace testutil;
  onnx::GraphProto nested_then, nested_else, then_b, else_b;
  nested_then.set_name("nt");
  *nested_then.add_node() = make_node("Neg", {"t"}, {"nt_out"});
  *nested_then.add_output() = make_vi("nt_out", TP_FLOAT, std::nullopt);
  nested_else.set_name("ne");
  *nested_else.add_node() = make_node("Abs", {"t"}, {"ne_out"});
  *nested_else.add_output() = make_vi("ne_out", TP_FLOAT, std::nullopt);
  then_b.set_name("then");
  *then_b.add_node() = make_node("Relu", {"x"}, {"t"}, "t");
  *then_b.add_node() = make_node("If", {"c"}, {"nested"}, "nested_if",
                                 {attr_g("then_branch", nested_then), attr_g("else_branch", nested_else)});
  *then_b.add_output() = make_vi("nested", TP_FLOAT, std::nullopt);
  else_b.set_name("else");
  *else_b.add_node() = make_node("Identity", {"x"}, {"e"});
  *else_b.add_output() = make_vi("e", TP_FLOAT, std::nullopt);
  ModelBuilder mb(13);
  mb.input("x", TP_FLOAT, Dims{2});
  mb.output("y", TP_FLOAT, Dims{2});
  mb.output("t", TP_FLOAT, Dims{2});
  onnx::TensorProto c;
  c.set_name("c");
  c.set_data_type(onnx::TensorProto::BOOL);
  c.set_raw_data(std::string(1, '\1'));
  mb.init(c);
  mb.node("Sigmoid", {"x"}, {"t"}, "t");
  mb.node("If", {"c"}, {"y"}, "outer_if", {attr_g("then_branch", then_b), attr_g("else_branch", else_b)});
  return mb.bytes();
}

TEST(Fold, InlinedBranchGetsFreshNamesWhereTheGraphHoldsThem) {
  auto ir = load_model(if_with_clashing_names());
  const FoldStats s = fold_graph(*ir);
  EXPECT_EQ(s.folded.at("If"), 2);
  // The outer `t` is still the Sigmoid's; the branch's Relu writes a fresh
  // name, which the taken nested branch reads.
  EXPECT_EQ(ir->producer("t")->op_type(), "Sigmoid");
  const NodePtr neg = ir->producer("y");
  ASSERT_TRUE(neg);
  EXPECT_EQ(neg->op_type(), "Neg");
  const NodePtr relu = ir->producer(neg->input[0]);
  ASSERT_TRUE(relu);
  EXPECT_EQ(relu->op_type(), "Relu");
  EXPECT_NE(neg->input[0], "t");
  EXPECT_NE(relu->name(), "t");  // node names stay unique too
  EXPECT_EQ(ir->get_shape("y"), (Shape{2}));
  EXPECT_EQ(testutil::full_check(save_model(*ir)), "");
}

TEST(Fold, DriverFoldsWhatARewriteMakesConstantAndTablesFinishTheJob) {
  // After folding, the Reshape's target equals its input's shape: the
  // tables drop the Reshape. Strict: a fold step that broke the edit
  // contract would throw.
  TestGraph t;
  t.input("x", {2, 3});
  t.node("Relu", {"x"}, {"a"});
  t.shape("a", {2, 3});
  t.node("Shape", {"a"}, {"s"});
  t.node("Reshape", {"a", "s"}, {"r"});
  t.shape("r", {2, 3});
  t.node("Sigmoid", {"r"}, {"y"});
  t.output("y");
  DriverOptions opt;
  opt.strict = true;
  const DriverStats s = run_reduce(t.ir, nullptr, opt);
  EXPECT_EQ(op_types(t.ir), (names{"Relu", "Sigmoid"}));
  EXPECT_EQ(s.fold.folded.at("Shape"), 1);
  EXPECT_TRUE(s.rule_faults.empty());
  opt.fold = false;
  TestGraph u;
  u.input("x", {2, 3});
  u.node("Shape", {"x"}, {"s"});
  u.node("Reshape", {"x", "s"}, {"y"});
  u.output("y");
  const DriverStats off = run_reduce(u.ir, nullptr, opt);
  EXPECT_EQ(op_types(u.ir), (names{"Shape", "Reshape"}));
  EXPECT_EQ(off.fold.steps, 0);
}

// One node on constants, folded: its value, or nothing if it stayed.
std::optional<NDArray> fold_one(const std::string& op, const std::vector<NDArray>& inputs,
                                std::initializer_list<A> attrs = {}) {
  TestGraph t;
  names ins;
  for (size_t k = 0; k < inputs.size(); ++k) {
    ins.push_back("in" + std::to_string(k));
    t.constant(ins.back(), inputs[k]);
  }
  t.node(op, ins, {"v"}, attrs, "op");
  t.input("x", {});
  t.node("Identity", {"v"}, {"y"});
  t.output("y");
  fold_graph(t.ir);
  if (!t.ir.is_const("v")) return std::nullopt;
  return *t.ir.get_const("v");
}

NDArray i64s(const ints& v) { return NDArray::from_i64(v); }

TEST(Fold, ExtremeIntegersWrapOrStayAsTheRuntimeHasThem) {
  // Run under the sanitizers, these would show any overflow of our own.
  constexpr int64_t kMin = INT64_MIN, kMax = INT64_MAX;
  EXPECT_EQ(fold_one("Neg", {i64s({kMin, 3})})->to_i64(), (ints{kMin, -3}));
  EXPECT_EQ(fold_one("Abs", {NDArray::from_i64({-128, -5}, dt::INT8)})->to_i64(), (ints{-128, 5}));
  EXPECT_EQ(fold_one("Sub", {i64s({kMin}), i64s({1})})->to_i64(), (ints{kMax}));
  EXPECT_EQ(fold_one("Mul", {NDArray::from_i64({65537}, dt::INT32), NDArray::from_i64({65537}, dt::INT32)})->to_i64(),
            (ints{131073}));
  EXPECT_EQ(fold_one("Mul", {NDArray::from_i64({65535}, dt::UINT16), NDArray::from_i64({65535}, dt::UINT16)})->to_i64(),
            (ints{1}));
  EXPECT_EQ(fold_one("Div", {i64s({-7}), i64s({2})})->to_i64(), (ints{-3}));
  EXPECT_FALSE(fold_one("Div", {i64s({kMin}), i64s({-1})}));
  EXPECT_FALSE(fold_one("Div", {i64s({1}), i64s({0})}));
  EXPECT_FALSE(fold_one("Cast", {NDArray::from_f64({3e9}, {1}, dt::FLOAT)}, {{"to", int64_t(dt::INT32)}}));
  EXPECT_FALSE(fold_one("ReduceSum", {i64s({kMax, kMax})}));
  const NDArray six = i64s({0, 1, 2, 3, 4, 5});
  EXPECT_EQ(fold_one("Slice", {six, i64s({kMax}), i64s({kMin}), i64s({0}), i64s({kMin})})->to_i64(), (ints{5}));
  EXPECT_EQ(fold_one("Slice", {six, i64s({kMin}), i64s({kMax}), i64s({0}), i64s({kMax})})->to_i64(), (ints{0}));
  EXPECT_EQ(fold_one("Slice", {six, i64s({-2}), i64s({kMin}), i64s({0}), i64s({-2})})->to_i64(), (ints{4, 2, 0}));
  const NDArray square = NDArray::from_i64({1, 2, 3, 4}, {2, 2});
  EXPECT_EQ(fold_one("Trilu", {square, NDArray::scalar_i64(kMax)})->to_i64(), (ints{0, 0, 0, 0}));
  EXPECT_EQ(fold_one("Trilu", {square, NDArray::scalar_i64(kMin)}, {{"upper", 0}})->to_i64(), (ints{0, 0, 0, 0}));
  EXPECT_EQ(fold_one("Range", {NDArray::scalar_i64(5), NDArray::scalar_i64(-4), NDArray::scalar_i64(-3)})->to_i64(),
            (ints{5, 2, -1}));
  EXPECT_FALSE(fold_one("Range", {NDArray::scalar_i64(0), NDArray::scalar_i64(kMax), NDArray::scalar_i64(1)}));
}

TEST(Fold, LongChainFoldsInOnePass) {
  TestGraph t;
  t.const_f32("c0", {1.0});
  for (int i = 0; i < 500; ++i)
    t.node(i % 2 ? "Neg" : "Abs", {"c" + std::to_string(i)}, {"c" + std::to_string(i + 1)});
  t.input("x", {1});
  t.node("Add", {"x", "c500"}, {"y"});
  t.output("y");
  const FoldStats s = fold_graph(t.ir);
  EXPECT_EQ(s.steps, 500);
  EXPECT_EQ(op_types(t.ir), (names{"Add"}));
  EXPECT_EQ(t.ir.get_const("c500")->to_f64(), (std::vector<double>{-1.0}));
}

}  // namespace
}  // namespace tolm
