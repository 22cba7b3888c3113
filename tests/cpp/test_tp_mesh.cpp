// The transpose mesh internals: tensor classification, the layout vote and its
// cache, which nodes can follow a layout, and the retry limit. Whole rewrites
// of standard ops are run end to end from Python.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <tuple>

#include "graph_dsl.h"
#include "layout/layout.h"

namespace tolm {
namespace {

using namespace testing_dsl;

const ints kToNhwc{0, 2, 3, 1};
const ints kToNchw{0, 3, 1, 2};

Names free_types() {
  return {"Relu", "Add", "Clip", "Conv", "Sigmoid", "Tanh"};
}

bool contains(const Names& list, const std::string& s) {
  return std::find(list.begin(), list.end(), s) != list.end();
}

// ---- classification ----------------------------------------------------------

TEST(TpFree, ConstantsInputsAndForksAreSorted) {
  TestGraph t;
  t.input("x", {1, 2, 3, 4}).const_f32("k", {1.0, 2.0, 3.0, 4.0}, {1, 1, 1, 4});
  t.node("Add", {"x", "k"}, {"a"});
  t.node("Relu", {"a"}, {"b"});
  t.node("Sigmoid", {"a"}, {"c"});
  t.node("MatMul", {"x", "x"}, {"m"});
  t.shape("a", {1, 2, 3, 4}).shape("b", {1, 2, 3, 4}).shape("c", {1, 2, 3, 4});
  t.shape("m", {1, 2, 3, 3}).output("b").output("c").output("m");
  const OpIoIgnore ignore;
  Names free_l, block_l, cand, branch_l;
  OrderedDict<Names> groups;

  // A constant is free without looking around it.
  _func_is_tensor_tp_free(t.ir, free_types(), ignore, "k", free_l, block_l, cand, branch_l,
                          groups, {});
  EXPECT_EQ(free_l, Names{"k"});
  EXPECT_TRUE(cand.empty());

  // A model input is an edge even with a blocking consumer; its one
  // non-constant neighbour is queued with the constant.
  _func_is_tensor_tp_free(t.ir, free_types(), ignore, "x", free_l, block_l, cand, branch_l,
                          groups, {});
  EXPECT_EQ(block_l, Names{"x"});
  EXPECT_EQ(cand, (Names{"a"}));  // "k" is already free, "m" is behind MatMul

  // Two unexplored neighbours make a fork: nothing queued, a group kept.
  _func_is_tensor_tp_free(t.ir, free_types(), ignore, "a", free_l, block_l, cand, branch_l,
                          groups, {});
  EXPECT_EQ(branch_l, Names{"a"});
  ASSERT_NE(groups.find("a"), nullptr);
  EXPECT_EQ(*groups.find("a"), (Names{"b", "c"}));
  EXPECT_EQ(cand, (Names{"a"}));

  // An excluded node blocks its tensors.
  Names f2, b2, c2, br2;
  OrderedDict<Names> g2;
  _func_is_tensor_tp_free(t.ir, free_types(), ignore, "c", f2, b2, c2, br2, g2, {"c"});
  EXPECT_EQ(b2, Names{"c"});
}

TEST(TpFree, WideNodesBlockAndClipMaxIsNoPartOfTheMesh) {
  for (size_t width : {128u, 129u}) {
    TestGraph t;
    names ins;
    for (size_t i = 0; i < width; ++i) {
      ins.push_back("i" + std::to_string(i));
      t.input(ins.back(), {1, 1, 1, 1});
    }
    t.node("Add", ins, {"s"});
    t.shape("s", {1, 1, 1, 1}).output("s");
    Names f, b, c, br;
    OrderedDict<Names> g;
    _func_is_tensor_tp_free(t.ir, free_types(), {}, "i0", f, b, c, br, g, {});
    if (width == 128) {
      EXPECT_NE(g.find("i0"), nullptr);  // opened through the Add
    } else {
      EXPECT_EQ(g.find("i0"), nullptr);
      EXPECT_TRUE(c.empty());
    }
  }

  TestGraph t;
  t.input("a", {1, 2, 3, 4}).input("lo", {1, 1, 1, 1}).input("hi", {1, 1, 1, 1});
  t.node("Clip", {"a", "lo", "hi"}, {"b"});
  t.shape("b", {1, 2, 3, 4}).output("b");
  OpIoIgnore ignore;
  ignore.first["Clip"] = {2, 3};
  Names f, b, c, br;
  OrderedDict<Names> g;
  _func_is_tensor_tp_free(t.ir, free_types(), ignore, "b", f, b, c, br, g, {});
  ASSERT_NE(g.find("b"), nullptr);
  EXPECT_EQ(*g.find("b"), (Names{"a", "lo"}));
}

TEST(TpFree, PassOpsNeedEveryMeshOperandInside) {
  TestGraph t;
  t.input("x", {1, 2, 3, 4}).const_f32("w", std::vector<double>(4, 1.0), {2, 2, 1, 1});
  t.node("Conv", {"x", "w"}, {"c"}, {{"kernel_shape", ints{1, 1}}});
  t.node("Add", {"c", "x"}, {"d"});
  t.shape("c", {1, 2, 3, 4}).shape("d", {1, 2, 3, 4}).output("d");
  OpIoIgnore ignore;
  ignore.first["Conv"] = {1, 2};
  auto r = _func_get_tp_pass_op(t.ir, free_types(), {"Conv"}, ignore, {"c"}, {"x"}, {});
  EXPECT_EQ(r.first, Names{"c"});  // the weight is ignored, "d" is outside
  EXPECT_EQ(r.second, Names{"c"});
  r = _func_get_tp_pass_op(t.ir, free_types(), {"Conv"}, ignore, {"c"}, {"x"}, {"c"});
  EXPECT_TRUE(r.first.empty());
  // A model input has no producer and gives no pass op.
  r = _func_get_tp_pass_op(t.ir, free_types(), {}, ignore, {"x"}, {}, {});
  EXPECT_TRUE(r.first.empty());
}

// ---- the vote ------------------------------------------------------------------

TEST(MeshVote, EarlierFirstVoteWinsATieAndCacheFollowsDynamicProfiles) {
  // Two Transpose nodes voting for different layouts of the same region.
  TestGraph t;
  t.input("x", {1, 2, 3, 4}).input("z", {1, 2, 3, 4});
  t.node("Transpose", {"x"}, {"a"}, {{"perm", kToNhwc}}, "tp_a");
  t.node("Transpose", {"z"}, {"b"}, {{"perm", ints{0, 1, 3, 2}}}, "tp_b");
  t.node("Relu", {"a"}, {"c"});
  t.node("Relu", {"b"}, {"d"});
  t.shape("a", {1, 3, 4, 2}).shape("b", {1, 2, 4, 3}).shape("c", {1, 3, 4, 2});
  t.shape("d", {1, 2, 4, 3}).output("c").output("d");
  Names block{"a", "b"};
  OptResult r = _func_compute_opt_result(t.ir, free_types(), {}, {}, {}, block, nullptr, {});
  ASSERT_TRUE(r.most_perm);
  EXPECT_EQ(*r.most_perm, kToNchw);

  // The first profile fixes the layout; a later one takes it while it is voted for.
  t.ir.dynamic_idx = 0;
  block = {"a", "b"};
  _func_compute_opt_result(t.ir, free_types(), {}, {}, {}, block, nullptr, {});
  EXPECT_TRUE(t.ir.tmp_reduce_tp_cache.set);
  EXPECT_EQ(t.ir.tmp_reduce_tp_cache.most_perm, "0,3,1,2");
  t.ir.dynamic_idx = 1;
  t.ir.tmp_reduce_tp_cache.most_perm = "0,1,3,2";
  block = {"b", "a"};
  r = _func_compute_opt_result(t.ir, free_types(), {}, {}, {}, block, nullptr, {});
  EXPECT_EQ(*r.most_perm, (ints{0, 1, 3, 2}));
  t.ir.tmp_reduce_tp_cache.most_perm = "3,2,1,0";  // not on the ballot: the vote decides
  block = {"a", "b"};
  r = _func_compute_opt_result(t.ir, free_types(), {}, {}, {}, block, nullptr, {});
  EXPECT_EQ(*r.most_perm, kToNchw);
}

TEST(MeshVote, RankAndNeighbourChecksFailTheMesh) {
  TestGraph t;
  t.input("x", {1, 2, 3, 4});
  t.node("Transpose", {"x"}, {"a"}, {{"perm", kToNhwc}});
  t.node("Relu", {"a"}, {"b"});
  t.const_f32("one", {2.0}, {1}).const_f32("vec", {1.0, 2.0}, {2});
  t.shape("a", {1, 3, 4, 2}).shape("b", {1, 3, 4, 2}).output("b");
  const std::vector<std::tuple<Names, Names, bool>> cases = {
      {{"one"}, {"a"}, true},   // a one-element free tensor fits any layout
      {{"vec"}, {"a"}, false},  // a lower-rank vector does not
      {{}, {"b"}, false},       // no Transpose around: nothing to vote for
      {{}, {"x"}, false},       // an edge tensor without any free neighbour
  };
  for (auto [free_l, block, ok] : cases) {
    EXPECT_EQ(_func_compute_opt_result(t.ir, free_types(), {}, {}, free_l, block, nullptr, {})
                  .most_perm.has_value(),
              ok);
  }
}

// ---- which nodes follow a layout --------------------------------------------------

// Extension ops and the refusals that leave the graph unchanged; the standard
// ops that move are run end to end from Python. Each case sits in
// x -> Transpose to NHWC -> a -> op -> b -> Transpose to NCHW -> y.
TEST(MeshFeasibility, EachLayoutDependentNodeAcceptsOrRefuses) {
  struct Case {
    const char* op;
    std::vector<A> attrs;
    std::function<names(TestGraph&)> extra;  // adds the inputs after "a"
    int64_t axis_after;                      // -1: refused; 0: no axis to check
  };
  const std::vector<Case> cases = {
      {"exSoftmax13", {{"axis", 3}}, nullptr, 1},
      {"exSoftmax13", {{"axis", 1}}, nullptr, -1},
      {"exGlu", {{"axis", -1}}, nullptr, 1},
      {"exGlu", {{"axis", 2}}, nullptr, -1},
      {"exNorm", {{"axes", ints{1, 2, 3}}}, nullptr, 0},
      {"exNorm", {{"axes", ints{3}}}, nullptr, -1},
      {"Expand", {}, [](TestGraph& t) { t.input("sh", {4}, dt::INT64); return names{"sh"}; }, -1},
      {"Slice", {}, [](TestGraph& t) { t.const_i64("st", {0}).const_i64("en", {3}); return names{"st", "en"}; }, -1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.op) + " " + std::to_string(c.axis_after));
    TestGraph t;
    t.input("x", {1, 2, 3, 4}).shape("a", {1, 3, 4, 2}).shape("b", {1, 3, 4, 2}).shape("y", {1, 2, 3, 4});
    const NodePtr tp_in = t.node("Transpose", {"x"}, {"a"}, {{"perm", kToNhwc}}, "tp_in");
    names ins = c.extra ? c.extra(t) : names{};
    ins.insert(ins.begin(), "a");
    NodePtr op = t.node(c.op, ins, {"b"}, {}, "op");
    for (const A& a : c.attrs) t.ir.set_attr(*op, a.attr);
    t.node("Transpose", {"b"}, {"y"}, {{"perm", kToNchw}}, "tp_out");
    t.output("y");
    MeshResult r = _p_reduce_tp_in_mesh(t.ir, {tp_in}, nullptr, "forward", {});
    EXPECT_EQ(r.has_unsupported, c.axis_after < 0);
    if (c.axis_after < 0) {
      EXPECT_TRUE(contains(r.unsupported, "op"));
    } else {
      EXPECT_FALSE(r.remove.empty());
      if (c.axis_after > 0) {
        EXPECT_EQ(IR::get_attr_int(*t.ir.find_node("op"), "axis"), c.axis_after);
      }
    }
  }
}

TEST(MeshRetries, WrapperGivesUpAfterSixAttempts) {
  // A chain seed -> s0 -> Relu -> u1 -> N1 -> s1 -> ... -> N6 -> s6, where s_j
  // (j >= 1) feeds j + 1 Transpose nodes voting for q[j]; the seed votes q[0],
  // its own inverse. Each attempt the farthest
  // segment still reached wins the vote, and exactly one node, N_j for that
  // segment, cannot follow it; excluding it cuts that segment off, so the
  // next attempt votes again and names the next node.
  const std::vector<ints> q = {{0, 3, 2, 1}, {1, 0, 2, 3}, {0, 3, 1, 2}, {0, 2, 3, 1},
                               {0, 2, 1, 3}, {0, 1, 3, 2}, {0, 1, 2, 3}};
  struct Step {
    const char* op;
    A attr;
    Shape in_shape;
  };
  const std::vector<Step> steps = {
      {"exNorm", {"axes", ints{0}}, {5, 5, 5, 5}},  {"exNorm", {"axes", ints{1}}, {5, 1, 1, 5}},
      {"exNorm", {"axes", ints{3}}, {5, 5, 1, 1}},  {"exGlu", {"axis", 1}, {2, 3, 4, 5}},
      {"exSoftmax13", {"axis", 3}, {2, 3, 4, 5}},  {"exGlu", {"axis", 0}, {2, 3, 4, 5}},
  };
  // The farthest `refusers` steps refuse; the nearer ones are plain Relu nodes.
  auto build = [&](TestGraph& t, size_t refusers) {
    t.input("x", {2, 3, 4, 5});
    NodePtr seed = t.node("Transpose", {"x"}, {"s0"}, {{"perm", q[0]}}, "seed");
    t.shape("s0", {2, 3, 4, 5});
    for (size_t j = 1; j <= steps.size(); ++j) {
      const std::string u = "u" + std::to_string(j), s = "s" + std::to_string(j);
      t.node("Relu", {"s" + std::to_string(j - 1)}, {u});
      const bool refuses = j + refusers > steps.size();
      NodePtr n = t.node(refuses ? steps[j - 1].op : "Relu", {u}, {s}, {}, "N" + std::to_string(j));
      if (refuses) t.ir.set_attr(*n, steps[j - 1].attr.attr);
      t.shape(u, steps[j - 1].in_shape).shape(s, {2, 3, 4, 5});
      for (size_t v = 0; v <= j; ++v) {
        const std::string y = s + "_v" + std::to_string(v);
        t.node("Transpose", {s}, {y}, {{"perm", q[j]}}, y);
        t.shape(y, {2, 3, 4, 5}).output(y);
      }
    }
    return seed;
  };
  auto pause_of = [](IR& ir) { return ir.op_ruler_pause["reduce_tp_in_mesh_forward"]; };

  {
    TestGraph t;
    const NodePtr seed = build(t, 6);
    Names excluded;
    for (size_t attempt = 1; attempt <= steps.size(); ++attempt) {
      MeshResult r = _p_reduce_tp_in_mesh(t.ir, {seed}, nullptr, "forward", excluded);
      ASSERT_TRUE(r.has_unsupported) << attempt;
      EXPECT_EQ(r.unsupported, Names{"N" + std::to_string(steps.size() + 1 - attempt)});
      excluded.insert(excluded.end(), r.unsupported.begin(), r.unsupported.end());
    }
    // A refusal pauses nothing; a seventh attempt would find no gain and pause the seed.
    EXPECT_TRUE(pause_of(t.ir).empty());
    EXPECT_FALSE(_p_reduce_tp_in_mesh(t.ir, {seed}, nullptr, "forward", excluded).has_unsupported);
    EXPECT_EQ(pause_of(t.ir), Names{"seed"});
  }
  {
    // Five refusals: the sixth attempt runs and cancels the seed's region.
    TestGraph t;
    const NodePtr seed = build(t, 5);
    EXPECT_TRUE(_p_reduce_tp_in_mesh_forward(t.ir, {seed}, nullptr).applied());
  }
  // Six refusals: the wrapper gives up without a seventh attempt.
  TestGraph t;
  const NodePtr seed = build(t, 6);
  const size_t nodes_before = t.ir.node().size();
  const RuleResult r = _p_reduce_tp_in_mesh_forward(t.ir, {seed}, nullptr);
  EXPECT_FALSE(r.applied());
  EXPECT_TRUE(pause_of(t.ir).empty());
  EXPECT_EQ(t.ir.node().size(), nodes_before);
  EXPECT_EQ(t.ir.get_shape("s1"), (Shape{2, 3, 4, 5}));
}

}  // namespace
}  // namespace tolm
