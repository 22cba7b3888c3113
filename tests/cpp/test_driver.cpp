// The driver: matching (chains and n_pre_nodes patterns), applying results,
// dead-branch pruning, convergence, determinism and its guarantees to end.
#include <gtest/gtest.h>

#include <algorithm>

#include "graph_dsl.h"
#include "host/builder.h"
#include "host/onnx_io.h"
#include "reduce/driver.h"
#include "reduce/tables.h"

namespace tolm {
namespace {

using namespace testing_dsl;

// A graph with a Reshape pair that cancels, a Transpose pair that cancels and
// an identity Reshape, between a Relu and a Sigmoid.
TestGraph redundant_chain() {
  TestGraph t;
  t.input("x", {1, 4, 2, 2});
  t.const_i64("flat", {1, 16});
  t.const_i64("full", {1, 4, 2, 2});
  t.node("Relu", {"x"}, {"a"});
  t.shape("a", {1, 4, 2, 2});
  t.node("Reshape", {"a", "flat"}, {"r1"});
  t.shape("r1", {1, 16});
  t.node("Reshape", {"r1", "full"}, {"r2"});
  t.shape("r2", {1, 4, 2, 2});
  t.node("Transpose", {"r2"}, {"t1"}, {{"perm", ints{0, 2, 3, 1}}});
  t.shape("t1", {1, 2, 2, 4});
  t.node("Transpose", {"t1"}, {"t2"}, {{"perm", ints{0, 3, 1, 2}}});
  t.shape("t2", {1, 4, 2, 2});
  t.node("Reshape", {"t2", "full"}, {"r3"});
  t.shape("r3", {1, 4, 2, 2});
  t.node("Sigmoid", {"r3"}, {"y"});
  t.shape("y", {1, 4, 2, 2});
  t.output("y");
  return t;
}

TEST(Driver, ReducesChainToFixedPointAndSecondRunChangesNothing) {
  TestGraph t = redundant_chain();
  DriverStats s = run_reduce(t.ir, nullptr);
  EXPECT_TRUE(s.converged);
  EXPECT_EQ(op_types(t.ir), (names{"Relu", "Sigmoid"}));
  EXPECT_EQ(t.producer("y")->input[0], "a");
  // Unused shape constants are pruned; graph input and output stay.
  EXPECT_FALSE(t.ir.is_const("flat"));
  EXPECT_TRUE(t.ir.is_input("x"));
  EXPECT_TRUE(t.ir.is_output("y"));

  DriverStats again = run_reduce(t.ir, nullptr);
  EXPECT_EQ(again.rewrites, 0);
  EXPECT_TRUE(again.fired.empty());
}

TEST(Driver, SameInputGivesSameResult) {
  auto run = [] {
    TestGraph t = redundant_chain();
    DriverStats s = run_reduce(t.ir, nullptr);
    names out;
    for (const NodePtr& n : t.ir.node()) {
      out.push_back(n->name());
      for (const auto& i : n->input) out.push_back(i);
    }
    for (const auto& kv : s.fired) out.push_back(kv.first + std::to_string(kv.second));
    return out;
  };
  EXPECT_EQ(run(), run());
}

TEST(Driver, KeepsAGraphOutputBehindARemovedNode) {
  TestGraph t;
  t.input("x", {2, 3});
  t.const_i64("s", {2, 3});
  t.node("Relu", {"x"}, {"a"});
  t.shape("a", {2, 3});
  t.node("Reshape", {"a", "s"}, {"y"});
  t.shape("y", {2, 3});
  t.output("y");
  run_reduce(t.ir, nullptr);
  ASSERT_NE(t.producer("y"), nullptr);
  EXPECT_EQ(t.producer("y")->op_type(), "Relu");
  EXPECT_EQ(t.ir.node_count(), 1u);
}

TEST(Driver, PrunesDeadBranchesButNotGraphOutputs) {
  TestGraph t;
  t.input("x", {2});
  t.const_f32("w", {1, 2});
  t.node("Relu", {"x"}, {"dead1"});
  t.node("Mul", {"dead1", "w"}, {"dead2"});
  t.node("Neg", {"x"}, {"y"});
  t.output("y");
  EXPECT_EQ(prune_dead(t.ir), 2);
  EXPECT_EQ(op_types(t.ir), (names{"Neg"}));
  EXPECT_FALSE(t.ir.is_const("w"));
}

// Test procedures for custom rows.
NodeList g_seen;
RuleResult record_pattern(IR&, const NodeList& nodes, QuantTable*) {
  g_seen = nodes;
  return {};
}

TEST(Driver, OffersNPreNodesPatternsEndingInTheSink) {
  TestGraph t;
  t.input("x", {1, 4, 4, 4});
  t.node("Relu", {"x"}, {"r"});
  t.node("Slice", {"r"}, {"s0"});
  t.node("Slice", {"r"}, {"s1"});
  t.node("Mul", {"s1", "k"}, {"m"});
  t.const_f32("k", {2.0});
  NodePtr cat = t.node("Concat", {"s0", "m"}, {"y"}, {{"axis", 1}});
  t.output("y");
  Row row;
  row.key = "probe";
  row.ops = {"Slice", "Slice", "Mul", "Concat"};
  row.n_pre_nodes = {1, 1, 1, 2};
  row.proc = record_pattern;
  g_seen.clear();
  try_row(t.ir, row, cat, nullptr);
  ASSERT_EQ(g_seen.size(), 4u);
  EXPECT_EQ(g_seen.back(), cat);
  EXPECT_EQ(g_seen[2]->op_type(), "Mul");
  // The sink's producer count must match too.
  row.n_pre_nodes = {1, 1, 1, 3};
  g_seen.clear();
  try_row(t.ir, row, cat, nullptr);
  EXPECT_TRUE(g_seen.empty());
}

TEST(Driver, NPreNodesPatternsCountAGraphInputAsAProducer) {
  // An image stem slices the model's input itself.
  TestGraph t;
  t.input("x", {1, 4, 4, 4});
  t.node("Slice", {"x"}, {"s0"});
  t.node("Slice", {"x"}, {"s1"});
  NodePtr cat = t.node("Concat", {"s0", "s1"}, {"y"}, {{"axis", 1}});
  t.output("y");
  Row row;
  row.key = "probe";
  row.ops = {"Slice", "Slice", "Concat"};
  row.n_pre_nodes = {1, 1, 2};
  row.proc = record_pattern;
  g_seen.clear();
  try_row(t.ir, row, cat, nullptr);
  EXPECT_EQ(g_seen.size(), 3u);
}

TEST(Driver, ChainsAreOfferedOnlyOverPrivateInnerTensors) {
  TestGraph t;
  t.input("x", {2, 2});
  NodePtr a = t.node("Transpose", {"x"}, {"a"}, {{"perm", ints{1, 0}}});
  t.node("Transpose", {"a"}, {"b"}, {{"perm", ints{1, 0}}});
  t.node("Relu", {"a"}, {"c"});
  t.output("b");
  t.output("c");
  Row row;
  row.key = "probe";
  row.ops = {"Transpose", "Transpose"};
  row.proc = record_pattern;
  g_seen.clear();
  try_row(t.ir, row, a, nullptr);
  EXPECT_TRUE(g_seen.empty());  // "a" has a second reader
  row.handles_branches = true;
  try_row(t.ir, row, a, nullptr);
  EXPECT_EQ(g_seen.size(), 2u);
}

// Two rules that undo each other: the budget and the limit cap must end it.
RuleResult flip_to_neg(IR& ir, const NodeList& nodes, QuantTable*) {
  Graph g(ir);
  g.op("Neg", {nodes[0]->input[0]}, {nodes[0]->output.names(), nodes[0]->name() + "_n"});
  return {{nodes[0]}, g.nodes};
}
RuleResult flip_to_relu(IR& ir, const NodeList& nodes, QuantTable*) {
  Graph g(ir);
  g.op("Relu", {nodes[0]->input[0]}, {nodes[0]->output.names(), nodes[0]->name() + "_r"});
  return {{nodes[0]}, g.nodes};
}

TEST(Driver, EndsOnRulesThatRewriteWithoutShrinking) {
  std::vector<Row> first(1), second(1);
  first[0].key = "to_neg";
  first[0].ops = {"Relu"};
  first[0].proc = flip_to_neg;
  second[0].key = "to_relu";
  second[0].ops = {"Neg"};
  second[0].proc = flip_to_relu;
  {
    TestGraph t;
    t.input("x", {2});
    t.node("Relu", {"x"}, {"y"});
    t.output("y");
    DriverOptions opt;
    opt.max_rewrites = 50;
    DriverStats s = run_tables(t.ir, first, second, nullptr, opt);
    EXPECT_FALSE(s.converged);
    EXPECT_EQ(s.rewrites, 50);
    EXPECT_EQ(t.ir.node_count(), 1u);
    EXPECT_NE(t.producer("y"), nullptr);
  }
  {
    // As `limit` rows they fire a bounded number of times per anchor and
    // round; the rounds are capped and the result says no fixed point came.
    first[0].has_limit = second[0].has_limit = true;
    TestGraph t;
    t.input("x", {2});
    t.node("Relu", {"x"}, {"y"});
    t.output("y");
    DriverStats s = run_tables(t.ir, first, second, nullptr);
    EXPECT_FALSE(s.converged);
    EXPECT_LT(s.rewrites, 50);
    EXPECT_EQ(t.ir.node_count(), 1u);
  }
}

TEST(Driver, PausedRowIsNotStartedAtAPausedNode) {
  std::vector<Row> rows(1), none;
  rows[0].key = "to_neg";
  rows[0].ops = {"Relu"};
  rows[0].proc = flip_to_neg;
  TestGraph t;
  t.input("x", {2});
  t.node("Relu", {"x"}, {"y"}, {}, "r");
  t.output("y");
  t.ir.op_ruler_pause["to_neg"].push_back("r");
  DriverStats s = run_tables(t.ir, none, rows, nullptr);
  EXPECT_EQ(s.rewrites, 0);
  EXPECT_EQ(t.producer("y")->op_type(), "Relu");
}

TEST(Driver, ApplyResultPlacesAddedNodesInAValidOrder) {
  TestGraph t;
  t.input("x", {2, 3});
  NodePtr relu = t.node("Relu", {"x"}, {"a"});
  t.node("Neg", {"a"}, {"y"});
  t.output("y");
  // Built from its end: the reader is created before its producer.
  Graph g(t.ir);
  std::string mid = g.op("Sigmoid", {Absent{}}, {{"a"}, "sig"});
  g.op("Tanh", {std::string("x")}, {{mid}, "tanh"});
  apply_result(t.ir, {{relu}, g.nodes});
  EXPECT_EQ(op_types(t.ir), (names{"Tanh", "Sigmoid", "Neg"}));
}

TEST(Driver, TablesHaveTheirRowsAndEveryRowANamedProcedure) {
  EXPECT_EQ(fuse_reduce().size(), 110u);
  EXPECT_EQ(cvt_reduce().size(), 13u);
  EXPECT_EQ(rule_procs().size(), 69u);
  for (const auto* table : {&fuse_reduce(), &cvt_reduce()})
    for (const Row& r : *table) {
      bool known = false;
      for (const auto& p : rule_procs()) known = known || p.name == r.proc_name;
      EXPECT_TRUE(known) << r.key;
      EXPECT_TRUE(r.n_pre_nodes.empty() || r.n_pre_nodes.size() == r.ops.size()) << r.key;
    }
  EXPECT_EQ(fuse_reduce().front().key, "bypass_two_transpose");
  EXPECT_EQ(fuse_reduce()[52].key, "remove_invalid_reducemen");
}

}  // namespace
}  // namespace tolm

namespace tolm {
namespace {
using namespace testing_dsl;

TEST(Driver, ZeroInAReshapeTargetSurvivesFusingThePair) {
  // [40, 360] -> [1, 40, 360] -> [0, 40, 3, 8, 15]: the 0 copies the 1 of the
  // middle tensor, not the 40 of the first input.
  TestGraph t;
  t.input("x", {40, 360});
  t.const_i64("s1", {1, 40, 360});
  t.const_i64("s2", {0, 40, 3, 8, 15});
  t.node("Reshape", {"x", "s1"}, {"a"});
  t.shape("a", {1, 40, 360});
  t.node("Reshape", {"a", "s2"}, {"b"});
  t.shape("b", {1, 40, 3, 8, 15});
  t.node("Relu", {"b"}, {"y"});
  t.shape("y", {1, 40, 3, 8, 15});
  t.output("y");
  run_reduce(t.ir, nullptr);
  NodePtr rs = t.producer("b");
  ASSERT_NE(rs, nullptr);
  EXPECT_EQ(rs->input[0], "x");
  EXPECT_EQ(t.ir.get_const(rs->input[1])->to_i64(), (ints{1, 40, 3, 8, 15}));
}

// Rows can be left out, or picked alone, by key; the driver runs no other.
TEST(Driver, SkipAndOnlyChooseTheRows) {
  auto op_count = [](const IR& ir, const std::string& op) {
    const names ops = op_types(ir);
    return std::count(ops.begin(), ops.end(), op);
  };
  DriverOptions skip;
  skip.skip = {"bypass_two_reshape", "fuse_two_reshape", "remove_parallel_reshape", "remove_invalid_reshape",
               "convert_reshape_to_transpose", "bypass_two_transpose", "fuse_two_transpose"};
  TestGraph a = redundant_chain();
  DriverStats s = run_reduce(a.ir, nullptr, skip);
  for (const auto& key : skip.skip) EXPECT_EQ(s.fired.count(key), 0u) << key;
  EXPECT_GT(op_count(a.ir, "Reshape"), 0);  // without them the chain does not reduce to Relu, Sigmoid

  DriverOptions only;
  only.only = {"remove_invalid_reshape"};
  TestGraph b = redundant_chain();
  s = run_reduce(b.ir, nullptr, only);
  EXPECT_EQ(s.fired, (std::map<std::string, int64_t>{{"remove_invalid_reshape", 1}}));
  EXPECT_EQ(op_count(b.ir, "Transpose"), 2);
  EXPECT_GT(s.rule_seconds.count("remove_invalid_reshape"), 0u);

  EXPECT_THROW(check_row_keys({"no_such_rule"}, "skip"), std::invalid_argument);
  EXPECT_NO_THROW(check_row_keys({"fuse_two_reshape", "convert_squeeze_to_reshape"}, "only"));
}

}  // namespace
}  // namespace tolm
