// The edit primitives rules rewire with, the graph-output policy they hold,
// node names kept unique, and the edit transaction that can put a graph back.
#include <gtest/gtest.h>

#include "graph_dsl.h"
#include "host/edit.h"
#include "host/onnx_io.h"
#include "onnx_model_util.h"
#include "reduce/driver.h"

namespace tolm {
namespace {

using namespace testing_dsl;

// x -> Relu -> a -> Identity(mid) -> b; a is also read by Exp -> e.
struct BypassGraph {
  TestGraph t;
  NodePtr relu, mid, exp;
  BypassGraph() {
    t.input("x", {2, 3});
    relu = t.node("Relu", {"x"}, {"a"});
    mid = t.node("Identity", {"a"}, {"b"});
    exp = t.node("Exp", {"a"}, {"e"});
    t.node("Sigmoid", {"b"}, {"s"});
    t.shape("a", {2, 3}).shape("b", {2, 3}).shape("e", {2, 3}).shape("s", {2, 3});
  }
};

TEST(Bypass, ReadersOfTheOutputReadTheSurvivingTensor) {
  BypassGraph g;
  g.t.output("s").output("e");
  ASSERT_TRUE(bypass_node(g.t.ir, *g.mid, "a"));
  EXPECT_EQ(g.t.readers("a"), (names{"b", "e", "s"}));
  EXPECT_TRUE(g.t.readers("b").empty());
}

TEST(Bypass, GraphOutputNameMovesToTheSurvivingTensorsProducer) {
  BypassGraph g;
  g.t.output("b").output("e");
  ASSERT_TRUE(bypass_node(g.t.ir, *g.mid, "a"));
  g.t.ir.remove_node(*g.mid);
  EXPECT_EQ(g.t.producer("b"), g.relu);
  // Every other reader of the old tensor follows the name.
  EXPECT_EQ(g.exp->input[0], "b");
  EXPECT_EQ(g.t.readers("b"), (names{"e", "s"}));
}

TEST(Bypass, RefusesWhereAGraphInputOrOutputWouldLoseItsName) {
  struct Case {
    const char* what;
    std::function<void(BypassGraph&)> setup;
    std::string surviving;
  };
  const std::vector<Case> cases = {
      {"surviving tensor is itself a graph output",
       [](BypassGraph& g) { g.t.output("b").output("a"); }, "a"},
      {"surviving tensor is a graph input",
       [](BypassGraph& g) {
         g.t.output("b");
         g.t.ir.set_input(*g.mid, 0, "x");
       },
       "x"},
      {"surviving tensor is a constant",
       [](BypassGraph& g) {
         g.t.output("b");
         g.t.const_f32("k", {1, 2, 3, 4, 5, 6}, {2, 3});
         g.t.ir.set_input(*g.mid, 0, "k");
       },
       "k"},
      {"surviving tensor broadcasts to the output",
       [](BypassGraph& g) {
         g.t.output("s");
         g.t.shape("a", {3});
       },
       "a"},
      {"surviving tensor has another element type",
       [](BypassGraph& g) {
         g.t.output("s");
         g.t.shape("a", {2, 3}, dt::INT64);
       },
       "a"},
  };
  for (const Case& c : cases) {
    BypassGraph g;
    c.setup(g);
    const names readers_before = g.t.readers(c.surviving);
    EXPECT_FALSE(can_bypass(g.t.ir, *g.mid, c.surviving)) << c.what;
    EXPECT_FALSE(bypass_node(g.t.ir, *g.mid, c.surviving)) << c.what;
    EXPECT_EQ(g.t.readers(c.surviving), readers_before) << c.what;
    EXPECT_EQ(g.t.producer("b"), g.mid) << c.what;
  }
}

TEST(Bypass, ASecondOutputInUseKeepsTheNode) {
  TestGraph t;
  t.input("x", {4});
  t.const_i64("one", {4});
  NodePtr split = t.node("Split", {"x", "one"}, {"p", "q"});
  t.node("Relu", {"q"}, {"y"});
  t.shape("p", {4}).shape("q", {4});
  t.output("p").output("y");
  EXPECT_FALSE(can_bypass(t.ir, *split, "x"));
}

TEST(SetOwnConst, SharedConstantIsCopiedPrivateOneRewritten) {
  TestGraph t;
  t.input("x", {4});
  t.const_i64("s", {2, 2});
  NodePtr a = t.node("Reshape", {"x", "s"}, {"a"});
  NodePtr b = t.node("Reshape", {"x", "s"}, {"b"});
  const std::string mine = set_own_const(t.ir, *a, 1, NDArray::from_i64({4, 1}), "_own");
  EXPECT_NE(mine, "s");
  EXPECT_EQ(a->input[1], mine);
  EXPECT_EQ(t.ir.get_const("s")->to_i64(), (ints{2, 2}));
  EXPECT_EQ(t.ir.get_const(mine)->to_i64(), (ints{4, 1}));
  // Now b is the only reader of s: rewritten in place.
  EXPECT_EQ(set_own_const(t.ir, *b, 1, NDArray::from_i64({1, 4}), "_own"), "s");
  EXPECT_EQ(t.ir.get_const("s")->to_i64(), (ints{1, 4}));
}

TEST(PinReshapeTarget, ZerosAreSpelledOutBeforeTheReshapeReadsAnotherTensor) {
  TestGraph t;
  t.input("x", {2, 3, 4});
  t.const_i64("copy", {0, -1}).const_i64("plain", {2, 12});
  NodePtr a = t.node("Reshape", {"x", "copy"}, {"a"});
  NodePtr b = t.node("Reshape", {"x", "copy"}, {"b"});
  NodePtr c = t.node("Reshape", {"x", "plain"}, {"c"});
  NodePtr d = t.node("Reshape", {"x", "copy"}, {"d"});
  t.shape("a", {2, 12}).shape("b", {2, 12}).shape("c", {2, 12});
  // Explicit already: nothing to do. A 0 and a known output: pinnable.
  EXPECT_TRUE(pin_reshape_target(t.ir, *c));
  EXPECT_EQ(c->input[1], "plain");
  ASSERT_TRUE(pin_reshape_target(t.ir, *a));
  EXPECT_NE(a->input[1], "copy");  // the shared target stays the others'
  EXPECT_EQ(t.ir.get_const(a->input[1])->to_i64(), (ints{2, 12}));
  EXPECT_EQ(t.ir.get_const("copy")->to_i64(), (ints{0, -1}));
  // With allowzero a 0 means an empty axis: explicit as it stands.
  b->set_attr(Attr::make_int("allowzero", 1));
  EXPECT_TRUE(pin_reshape_target(t.ir, *b));
  EXPECT_EQ(b->input[1], "copy");
  // No output shape to spell out: refused, nothing changed.
  EXPECT_FALSE(can_pin_reshape_target(t.ir, *d));
  EXPECT_FALSE(pin_reshape_target(t.ir, *d));
  EXPECT_EQ(d->input[1], "copy");
}

TEST(NodeNames, UniqueInAGraphAndRenamedThroughIt) {
  TestGraph t;
  t.input("x", {2});
  NodePtr a = t.node("Relu", {"x"}, {"a"}, {}, "same");
  NodePtr b = t.node("Relu", {"a"}, {"b"}, {}, "same");
  NodePtr c = Node::make("Exp", {"b"}, {"c"});
  t.ir.add_node(c);
  EXPECT_EQ(a->name(), "same");
  EXPECT_NE(b->name(), "same");
  EXPECT_FALSE(c->name().empty());
  EXPECT_EQ(t.ir.find_node(b->name()), b);
  b->set_name("renamed");
  EXPECT_EQ(t.ir.find_node("renamed"), b);
  EXPECT_THROW(c->set_name("same"), std::logic_error);
}

TEST(NodeNames, UnnamedNodesGetOpTypeAndCounterAtLoadClearOfGivenNames) {
  testutil::ModelBuilder m;
  m.input("x", onnx::TensorProto::FLOAT, testutil::Dims{2});
  m.output("c", onnx::TensorProto::FLOAT, testutil::Dims{2});
  m.node("Relu", {"x"}, {"a"});
  m.node("Relu", {"a"}, {"b"}, "Relu_0");
  m.node("Exp", {"b"}, {"c"});
  auto ir = load_model(m.bytes());
  std::vector<std::string> got;
  for (const NodePtr& n : ir->node()) got.push_back(n->name());
  EXPECT_EQ(got, (names{"Relu_1", "Relu_0", "Exp_0"}));
}

// Everything a transaction must put back: connections, node records,
// shapes, constants, nodes in and out.
TEST(EditTransaction, RollbackRestoresTheGraphExactly) {
  TestGraph t;
  t.input("x", {2, 3});
  t.const_i64("k", {1, 2});
  NodePtr relu = t.node("Relu", {"x"}, {"a"});
  NodePtr tp = t.node("Transpose", {"a"}, {"b"}, {{"perm", ints{1, 0}}});
  t.shape("a", {2, 3}).shape("b", {3, 2});
  t.output("b");
  auto snapshot = [&] { return save_model(t.ir); };
  const std::string before = snapshot();

  t.ir.begin_edit();
  EXPECT_FALSE(t.ir.edited());
  t.ir.set_input(*tp, 0, "x");
  t.ir.set_attr(*tp, Attr::make_ints("perm", {0, 1}));
  tp->set_name("renamed");
  t.ir.set_shape("b", {2, 3}, false);
  t.ir.set_const("k", NDArray::from_i64({9}));
  t.ir.set_const("fresh", NDArray::from_i64({1}));
  t.ir.erase_const("k");
  tp->input.push_back("a");
  t.ir.remove_node(*relu);
  t.ir.add_node(Node::make("Exp", {"x"}, {"e"}));
  EXPECT_TRUE(t.ir.edited());
  t.ir.rollback_edit();

  EXPECT_EQ(snapshot(), before);
  EXPECT_EQ(t.ir.find_node("b"), tp);
  EXPECT_EQ(t.producer("a"), relu);
  EXPECT_EQ(t.readers("a"), (names{"b"}));
  EXPECT_FALSE(t.ir.is_const("fresh"));
  EXPECT_EQ(t.ir.get_const("k")->to_i64(), (ints{1, 2}));
}

RuleResult edits_then_declines(IR& ir, const NodeList& nodes, QuantTable*) {
  ir.set_attr(*nodes[0], Attr::make_int("alpha", 2));
  return {};
}

RuleResult throws_half_way(IR& ir, const NodeList& nodes, QuantTable*) {
  ir.set_input(*nodes[0], 0, "nowhere");
  throw std::runtime_error("cannot handle this graph");
}

TEST(DriverContract, ARuleThatBreaksItIsUndoneReportedOrFatalWhenStrict) {
  for (RuleProc proc : {&edits_then_declines, &throws_half_way}) {
    std::vector<Row> rows(1), none;
    rows[0].key = "faulty_rule";
    rows[0].ops = {"Relu"};
    rows[0].proc = proc;
    TestGraph t;
    t.input("x", {2});
    t.node("Relu", {"x"}, {"y"}, {}, "the_relu");
    t.shape("y", {2});
    t.output("y");
    const std::string before = save_model(t.ir);

    DriverOptions lenient;
    lenient.strict = false;
    DriverStats s = run_tables(t.ir, none, rows, nullptr, lenient);
    EXPECT_EQ(save_model(t.ir), before);
    ASSERT_EQ(s.rule_faults.size(), 1u);
    EXPECT_NE(s.rule_faults[0].find("faulty_rule"), std::string::npos);
    EXPECT_NE(s.rule_faults[0].find("the_relu"), std::string::npos);

    DriverOptions strict;
    strict.strict = true;
    EXPECT_THROW(run_tables(t.ir, none, rows, nullptr, strict), RuleError);
    EXPECT_EQ(save_model(t.ir), before);
  }
}

TEST(Journal, AShapeChangeRequeuesTheTensorsReaders) {
  TestGraph t;
  t.input("x", {2, 3});
  NodePtr relu = t.node("Relu", {"x"}, {"a"});
  NodePtr exp = t.node("Exp", {"a"}, {"e"});
  t.shape("a", {2, 3});
  t.ir.set_journal(true);
  t.ir.take_touched();
  t.ir.set_shape("a", {3, 2}, false);
  const std::vector<NodePtr> touched = t.ir.take_touched();
  EXPECT_NE(std::find(touched.begin(), touched.end(), exp), touched.end());
  EXPECT_NE(std::find(touched.begin(), touched.end(), relu), touched.end());
}

}  // namespace
}  // namespace tolm
