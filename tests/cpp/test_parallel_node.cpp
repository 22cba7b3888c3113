// Duplicate siblings of the compiler's extended ops, which onnxruntime cannot
// run: the survivor, the rewired readers, and what keeps siblings apart.
#include <gtest/gtest.h>

#include <algorithm>

#include "dead/dead.h"
#include "graph_dsl.h"

namespace tolm {
namespace {

using namespace testing_dsl;

// Two nodes of `op` read x; each output feeds a Neg. Returns the two nodes.
struct Twins : TestGraph {
  NodePtr a, b;
  Twins(const std::string& op, std::initializer_list<A> attrs_a, std::initializer_list<A> attrs_b) {
    input("x", {1, 8, 4, 4});
    a = node(op, {"x"}, {"oa"}, attrs_a, "a");
    b = node(op, {"x"}, {"ob"}, attrs_b, "b");
    node("Neg", {"oa"}, {"ya"}, {}, "na");
    node("Neg", {"ob"}, {"yb"}, {}, "nb");
    for (const char* t : {"oa", "ob", "ya", "yb"}) shape(t, {1, 8, 4, 4});
    output("ya").output("yb");
  }
  RuleResult run(QuantTable* qt = nullptr) { return _p_remove_parallel_node(ir, {a}, qt); }
};

TEST(ParallelNode, ExtendedOpsMergeOnEqualAttributes) {
  struct Case {
    const char* op;
    std::function<Twins()> make;
    bool merges;
  };
  const std::vector<Case> cases = {
      {"exSwish", [] { return Twins("exSwish", {}, {}); }, true},
      {"exSoftmax13", [] { return Twins("exSoftmax13", {{"axis", 1}}, {{"axis", 1}}); }, true},
      {"exSoftmax13", [] { return Twins("exSoftmax13", {{"axis", 1}}, {{"axis", 3}}); }, false},
      {"exNorm", [] { return Twins("exNorm", {{"axes", ints{1}}, {"eps", 1e-5}, {"mode", "ln"}},
                                   {{"axes", ints{1}}, {"eps", 1e-5}, {"mode", "ln"}}); }, true},
      {"exNorm", [] { return Twins("exNorm", {{"axes", ints{1}}, {"eps", 1e-5}},
                                   {{"axes", ints{1}}, {"eps", 1e-6}}); }, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.op) + (c.merges ? " alike" : " different"));
    Twins t = c.make();
    const RuleResult res = t.run();
    if (!c.merges) {
      EXPECT_FALSE(res.applied());
      EXPECT_EQ(t.readers("ob"), names{"nb"});
      continue;
    }
    EXPECT_EQ(res.remove, (NodeList{t.a, t.b}));
    ASSERT_EQ(res.add.size(), 1u);
    EXPECT_EQ(res.add[0]->name(), "a");
    EXPECT_EQ(res.add[0]->output.names(), names{"oa"});
    EXPECT_EQ(t.readers("oa"), (names{"na", "nb"}));
  }
}

TEST(ParallelNode, DataConvertSiblingsNeedEqualRanges) {
  auto rec = [](double lo, double hi) { return QuantRecord{{lo}, {hi}, ""}; };
  auto twins = [] {
    return Twins("exDataConvert", {{"i_dtype", "int8"}, {"o_dtype", "int16"}},
                 {{"i_dtype", "int8"}, {"o_dtype", "int16"}});
  };
  {
    Twins t = twins();
    QuantTable qt{{"x", rec(-1, 1)}, {"oa", rec(-2, 2)}, {"ob", rec(-2, 2)}};
    EXPECT_EQ(t.run(&qt).remove, (NodeList{t.a, t.b}));
  }
  {
    Twins t = twins();
    QuantTable qt{{"x", rec(-1, 1)}, {"oa", rec(-2, 2)}, {"ob", rec(-3, 3)}};
    EXPECT_FALSE(t.run(&qt).applied());
  }
  {
    // A range missing from the table, or no table: nothing to compare.
    Twins t = twins();
    QuantTable qt{{"x", rec(-1, 1)}, {"oa", rec(-2, 2)}};
    EXPECT_FALSE(t.run(&qt).applied());
    EXPECT_FALSE(t.run(nullptr).applied());
  }
}

TEST(ParallelNode, ManyReadersMergeInOneCall) {
  // One tensor read by 3000 nodes: Relu duplicates among Sigmoid and Neg
  // readers. One call on the first Relu takes every Relu sibling.
  TestGraph t;
  t.input("x", {4});
  NodePtr first;
  NodeList relus;
  for (int k = 0; k < 3000; ++k) {
    const std::string op = k % 3 == 0 ? "Relu" : (k % 3 == 1 ? "Sigmoid" : "Neg");
    const std::string o = "o" + std::to_string(k);
    NodePtr n = t.node(op, {"x"}, {o});
    t.node("Exp", {o}, {"e" + std::to_string(k)});
    t.output("e" + std::to_string(k));
    if (op == "Relu") relus.push_back(n);
  }
  const RuleResult res = _p_remove_parallel_node(t.ir, {relus[0]}, nullptr);
  EXPECT_EQ(res.remove, relus);
  EXPECT_EQ(t.readers("o0").size(), 1000u);
}

TEST(ParallelNode, ReadersOfAWideTensorWithoutATwinArePausedForTheRound) {
  // 100 Gathers of one table, each with its own indices but for two that
  // hold equal indices under different names.
  TestGraph t;
  t.input("x", {200, 4});
  NodeList gathers;
  for (int k = 0; k < 100; ++k) {
    const std::string i = "i" + std::to_string(k), g = "g" + std::to_string(k);
    t.const_i64(i, {k == 99 ? 7 : k});
    gathers.push_back(t.node("Gather", {"x", i}, {g}, {{"axis", 0}}, g));
    t.node("Neg", {g}, {"y" + std::to_string(k)});
    t.shape(g, {1, 4}).output("y" + std::to_string(k));
  }
  EXPECT_FALSE(_p_remove_parallel_node(t.ir, {gathers[0]}, nullptr).applied());
  const auto& paused = t.ir.op_ruler_pause["remove_parallel_gather"];
  EXPECT_EQ(paused.size(), 98u);
  for (const char* twin : {"g7", "g99"})
    EXPECT_EQ(std::count(paused.begin(), paused.end(), twin), 0) << twin;
  // The twins still find each other.
  const RuleResult res = _p_remove_parallel_node(t.ir, {gathers[99]}, nullptr);
  EXPECT_EQ(res.remove, (NodeList{gathers[99], gathers[7]}));
  EXPECT_EQ(t.readers("g99"), (names{"y7", "y99"}));
}

}  // namespace
}  // namespace tolm
