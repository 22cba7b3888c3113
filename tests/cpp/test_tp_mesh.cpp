// The transpose mesh: tensor classification, the layout vote with its
// feasibility table, and the rewrite with its retries, pauses and caps.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "graph_dsl.h"
#include "host/log.h"
#include "layout/layout.h"
#include "reduce/driver.h"

namespace tolm {
namespace {

using namespace testing_dsl;

const ints kToNhwc{0, 2, 3, 1};
const ints kToNchw{0, 3, 1, 2};

Names free_types() {
  return {"Relu", "Add", "Clip", "Conv", "Sigmoid", "Tanh"};
}

int count_op(const IR& ir, const std::string& op) {
  const names ops = op_types(ir);
  return static_cast<int>(std::count(ops.begin(), ops.end(), op));
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
  Names block{"a"};
  EXPECT_TRUE(_func_compute_opt_result(t.ir, free_types(), {}, {}, {"one"}, block, nullptr, {})
                  .most_perm);
  block = {"a"};
  EXPECT_FALSE(_func_compute_opt_result(t.ir, free_types(), {}, {}, {"vec"}, block, nullptr, {})
                   .most_perm);
  // No Transpose around: nothing to vote for.
  block = {"b"};
  EXPECT_FALSE(
      _func_compute_opt_result(t.ir, free_types(), {}, {}, {}, block, nullptr, {}).most_perm);
  // An edge tensor without any free neighbour.
  block = {"x"};
  EXPECT_FALSE(
      _func_compute_opt_result(t.ir, free_types(), {}, {}, {}, block, nullptr, {}).most_perm);
}

// ---- the rewrite -----------------------------------------------------------------

// x -> Transpose to NHWC -> a -> op -> b -> Transpose to NCHW -> y
struct Sandwich {
  TestGraph t;
  NodePtr tp_in, op, tp_out;
};

Sandwich sandwich(const std::function<NodePtr(TestGraph&)>& make_op) {
  Sandwich s;
  s.t.input("x", {1, 2, 3, 4});
  s.tp_in = s.t.node("Transpose", {"x"}, {"a"}, {{"perm", kToNhwc}}, "tp_in");
  s.t.shape("a", {1, 3, 4, 2});
  s.op = make_op(s.t);
  s.t.shape("b", {1, 3, 4, 2});
  s.tp_out = s.t.node("Transpose", {"b"}, {"y"}, {{"perm", kToNchw}}, "tp_out");
  s.t.shape("y", {1, 2, 3, 4}).output("y");
  return s;
}

TEST(Mesh, ForwardAndBackwardCancelAPairAndKeepTheOutputName) {
  for (const bool forward : {true, false}) {
    Sandwich s = sandwich([](TestGraph& t) {
      t.const_f32("bias", {1.0, -1.0}, {1, 1, 1, 2});
      t.node("Add", {"a", "bias"}, {"s"});
      t.shape("s", {1, 3, 4, 2});
      return t.node("Relu", {"s"}, {"b"});
    });
    IR& ir = s.t.ir;
    RuleResult r = forward ? _p_reduce_tp_in_mesh_forward(ir, {s.tp_in}, nullptr)
                           : _p_reduce_tp_in_mesh_backward(ir, {s.tp_out}, nullptr);
    ASSERT_TRUE(r.applied());
    apply(ir, r);
    EXPECT_EQ(count_op(ir, "Transpose"), 0);
    EXPECT_EQ(s.t.producer("s")->input[0], "x");
    EXPECT_EQ(s.t.producer("y")->op_type, "Identity");
    EXPECT_EQ(s.t.producer("y")->input[0], "b");
    EXPECT_EQ(ir.get_shape("b"), (Shape{1, 2, 3, 4}));
    EXPECT_EQ(ir.get_shape("s"), (Shape{1, 2, 3, 4}));
    // The per-channel bias now lies along axis 1.
    EXPECT_EQ(ir.get_const(s.t.producer("s")->input[1])->shape(), (Shape{1, 2, 1, 1}));
  }
}

TEST(Mesh, ScalarConstantKeepsDataAndFullConstantIsTransposed) {
  Sandwich s = sandwich([](TestGraph& t) {
    t.const_f32("k", {0.5}, {1});
    std::vector<double> vals(24);
    for (int i = 0; i < 24; ++i) vals[i] = i;
    t.const_f32("full", vals, {1, 3, 4, 2});
    t.node("Mul", {"a", "k"}, {"m"});
    t.shape("m", {1, 3, 4, 2});
    return t.node("Add", {"m", "full"}, {"b"});
  });
  Names types = free_types();
  IR& ir = s.t.ir;
  RuleResult r = _p_reduce_tp_in_mesh_forward(ir, {s.tp_in}, nullptr);
  ASSERT_TRUE(r.applied());
  EXPECT_EQ(ir.get_const("k")->to_f64(), (std::vector<double>{0.5}));
  const NDArray* full = ir.get_const("full");
  ASSERT_EQ(full->shape(), (Shape{1, 2, 3, 4}));
  // new[0][c][h][w] = old[0][h][w][c] = h*8 + w*2 + c
  EXPECT_EQ(full->f64_at(1 * 12 + 2 * 4 + 3), 2 * 8 + 3 * 2 + 1);
}

TEST(Mesh, NoGainIsPausedUnderTheRowThatWouldFindItAgain) {
  {
    TestGraph t;
    t.input("x", {1, 2, 3, 4});
    auto tp = t.node("Transpose", {"x"}, {"a"}, {{"perm", kToNhwc}}, "tp");
    t.node("Relu", {"a"}, {"b"});
    t.shape("a", {1, 3, 4, 2}).shape("b", {1, 3, 4, 2}).output("b");
    EXPECT_FALSE(_p_reduce_tp_in_mesh_forward(t.ir, {tp}, nullptr).applied());
    EXPECT_EQ(t.ir.op_ruler_pause["reduce_tp_in_mesh_forward"], Names{"tp"});
    EXPECT_EQ(t.ir.get_shape("b"), (Shape{1, 3, 4, 2}));
    EXPECT_EQ(count_op(t.ir, "Transpose"), 1);
  }
  {
    TestGraph t;
    t.input("x", {1, 2, 3, 4});
    t.node("Relu", {"x"}, {"a"});
    auto tp = t.node("Transpose", {"a"}, {"y"}, {{"perm", kToNhwc}}, "tp");
    t.shape("a", {1, 2, 3, 4}).shape("y", {1, 3, 4, 2}).output("y");
    EXPECT_FALSE(_p_reduce_tp_in_mesh_backward(t.ir, {tp}, nullptr).applied());
    EXPECT_EQ(t.ir.op_ruler_pause["reduce_tp_in_mesh_backward"], Names{"tp"});
    EXPECT_EQ(t.ir.op_ruler_pause.count("reduce_tp_in_mesh_forward"), 0u);
  }
}

TEST(Mesh, RefusingNodeIsExcludedOnRetry) {
  // The softmax at the side refuses the layout; without it the pair still cancels.
  TestGraph t;
  t.input("x", {1, 2, 3, 4});
  auto tp_in = t.node("Transpose", {"x"}, {"a"}, {{"perm", kToNhwc}}, "tp_in");
  t.node("Relu", {"a"}, {"b"}, {}, "relu");
  t.node("Transpose", {"b"}, {"y"}, {{"perm", kToNchw}}, "tp_out");
  t.node("exSoftmax13", {"b"}, {"s"}, {{"axis", 1}}, "sm");
  t.shape("a", {1, 3, 4, 2}).shape("b", {1, 3, 4, 2}).shape("y", {1, 2, 3, 4});
  t.shape("s", {1, 3, 4, 2}).output("y").output("s");

  MeshResult first = _p_reduce_tp_in_mesh(t.ir, {tp_in}, nullptr, "forward", {});
  EXPECT_TRUE(first.has_unsupported);
  EXPECT_EQ(first.unsupported, Names{"sm"});
  EXPECT_TRUE(first.remove.empty() && first.add.empty());

  RuleResult r = _p_reduce_tp_in_mesh_forward(t.ir, {tp_in}, nullptr);
  ASSERT_TRUE(r.applied());
  apply(t.ir, r);
  // Relu runs in NCHW; the softmax still reads NHWC through a new Transpose.
  const NodePtr relu = t.ir.find_node("relu");
  EXPECT_EQ(relu->input[0], "x");
  const NodePtr back = t.producer("b");
  ASSERT_EQ(back->op_type, "Transpose");
  EXPECT_EQ(IR::get_attr_ints(*back, "perm"), kToNhwc);
  EXPECT_EQ(back->input[0], relu->output[0]);
  EXPECT_EQ(t.producer("y")->op_type, "Identity");
  EXPECT_EQ(t.producer("y")->input[0], relu->output[0]);
  EXPECT_EQ(t.ir.find_node("sm")->input[0], "b");
  EXPECT_EQ(t.ir.get_shape("b"), (Shape{1, 3, 4, 2}));
}

TEST(Mesh, ForkFallsBackToTheLastProfitableSnapshot) {
  // b forks; one branch loses a dimension (Gather), so the grown mesh fails
  // and the mesh as it stood at the fork is used.
  TestGraph t;
  t.input("x", {1, 2, 3, 4}).const_i64("idx", {0}, {1});
  t.ir.set_shape("idx", {}, false);
  auto tp_in = t.node("Transpose", {"x"}, {"a"}, {{"perm", kToNhwc}}, "tp_in");
  t.node("Relu", {"a"}, {"b"}, {}, "relu");
  t.node("Transpose", {"b"}, {"y1"}, {{"perm", kToNchw}}, "tp_out");
  t.node("Sigmoid", {"b"}, {"c"}, {}, "sig");
  t.node("Gather", {"c", "idx"}, {"d"}, {{"axis", 3}});
  t.node("Tanh", {"b"}, {"e"}, {}, "tanh");
  t.node("Transpose", {"e"}, {"y2"}, {{"perm", kToNchw}}, "tp_e");
  for (const char* n : {"a", "b", "c", "e"}) t.shape(n, {1, 3, 4, 2});
  t.shape("y1", {1, 2, 3, 4}).shape("y2", {1, 2, 3, 4}).shape("d", {1, 3, 4});
  t.output("y1").output("d").output("y2");

  RuleResult r = _p_reduce_tp_in_mesh_forward(t.ir, {tp_in}, nullptr);
  ASSERT_TRUE(r.applied());
  apply(t.ir, r);
  EXPECT_EQ(t.ir.find_node("relu")->input[0], "x");
  EXPECT_EQ(t.producer("y1")->op_type, "Identity");
  EXPECT_EQ(t.producer("b")->op_type, "Transpose");
  EXPECT_EQ(t.ir.find_node("sig")->input[0], "b");
  EXPECT_EQ(t.ir.find_node("tanh")->input[0], "b");
  EXPECT_NE(t.ir.find_node("tp_e"), nullptr);  // beyond the fork: untouched
  EXPECT_EQ(t.ir.get_shape("e"), (Shape{1, 3, 4, 2}));
}

TEST(Mesh, SearchStopsAtTheFirstForkPastOneHundredFreeTensors) {
  for (const int chain : {50, 101}) {
    TestGraph t;
    t.input("x", {1, 2, 3, 4});
    auto tp_in = t.node("Transpose", {"x"}, {"t0"}, {{"perm", kToNhwc}}, "tp_in");
    t.shape("t0", {1, 3, 4, 2});
    std::string prev = "t0";
    for (int i = 1; i <= chain + 1; ++i) {
      const std::string cur = "t" + std::to_string(i);
      t.node("Relu", {prev}, {cur});
      t.shape(cur, {1, 3, 4, 2});
      prev = cur;
    }
    t.node("Transpose", {prev}, {"y"}, {{"perm", kToNchw}}, "tp_y");
    t.node("Relu", {prev}, {"g1"});
    t.node("Relu", {prev}, {"g2"});
    t.node("Transpose", {"g1"}, {"y1"}, {{"perm", kToNchw}}, "tp_g1");
    t.node("Transpose", {"g2"}, {"y2"}, {{"perm", kToNchw}}, "tp_g2");
    t.shape("g1", {1, 3, 4, 2}).shape("g2", {1, 3, 4, 2});
    for (const char* y : {"y", "y1", "y2"}) t.shape(y, {1, 2, 3, 4}).output(y);

    RuleResult r = _p_reduce_tp_in_mesh_forward(t.ir, {tp_in}, nullptr);
    ASSERT_TRUE(r.applied());
    apply(t.ir, r);
    if (chain == 50) {
      EXPECT_EQ(count_op(t.ir, "Transpose"), 0);
    } else {
      // The forks were left unopened: the branches keep their Transpose nodes
      // and read the old layout again.
      EXPECT_NE(t.ir.find_node("tp_g1"), nullptr);
      EXPECT_EQ(t.ir.get_shape("g1"), (Shape{1, 3, 4, 2}));
      EXPECT_EQ(t.producer(prev)->op_type, "Transpose");
      EXPECT_EQ(t.ir.get_shape("t50"), (Shape{1, 2, 3, 4}));
    }
  }
}

// ---- layout-dependent nodes ----------------------------------------------------

struct Case {
  std::string label;
  std::function<NodePtr(TestGraph&)> make;
  bool accept;
  std::function<void(IR&)> check;
};

TEST(MeshFeasibility, EachLayoutDependentNodeAcceptsOrRefuses) {
  auto single = [](const std::string& op, std::initializer_list<A> attrs, names extra = {}) {
    return [op, attrs = std::vector<A>(attrs), extra](TestGraph& t) {
      names ins{"a"};
      ins.insert(ins.end(), extra.begin(), extra.end());
      NodePtr n = t.node(op, ins, {"b"}, {}, "op");
      for (const A& a : attrs) t.ir.set_attr(*n, a.attr);
      return n;
    };
  };
  auto axes_of = [](IR& ir, size_t i) { return ir.get_const(ir.find_node("op")->input[i])->to_i64(); };
  const std::vector<Case> cases = {
      {"softmax channel", single("exSoftmax13", {{"axis", 3}}), true,
       [](IR& ir) { EXPECT_EQ(IR::get_attr_int(*ir.find_node("op"), "axis"), 1); }},
      {"softmax height", single("exSoftmax13", {{"axis", 1}}), false, nullptr},
      {"glu channel", single("exGlu", {{"axis", -1}}), true,
       [](IR& ir) { EXPECT_EQ(IR::get_attr_int(*ir.find_node("op"), "axis"), 1); }},
      {"glu width", single("exGlu", {{"axis", 2}}), false, nullptr},
      {"norm all", single("exNorm", {{"axes", ints{1, 2, 3}}}), true, nullptr},
      {"norm channel", single("exNorm", {{"axes", ints{3}}}), false, nullptr},
      {"reducemax const axes",
       [&](TestGraph& t) {
         t.const_i64("ax", {3});
         return single("ReduceMax", {{"keepdims", 1}}, {"ax"})(t);
       },
       true, [&](IR& ir) { EXPECT_EQ(axes_of(ir, 1), ints{1}); }},
      {"reducemax live axes",
       [&](TestGraph& t) {
         t.input("ax", {1}, dt::INT64);
         return single("ReduceMax", {{"keepdims", 1}}, {"ax"})(t);
       },
       false, nullptr},
      {"expand const",
       [&](TestGraph& t) {
         t.const_i64("sh", {1, 3, 4, 2});
         return single("Expand", {}, {"sh"})(t);
       },
       true, [&](IR& ir) { EXPECT_EQ(axes_of(ir, 1), (ints{1, 2, 3, 4})); }},
      {"expand live",
       [&](TestGraph& t) {
         t.input("sh", {4}, dt::INT64);
         return single("Expand", {}, {"sh"})(t);
       },
       false, nullptr},
      {"slice with axes",
       [&](TestGraph& t) {
         t.const_i64("st", {0}).const_i64("en", {3}).const_i64("ax", {1});
         return single("Slice", {}, {"st", "en", "ax"})(t);
       },
       true, [&](IR& ir) { EXPECT_EQ(axes_of(ir, 3), ints{2}); }},
      {"slice without axes",
       [&](TestGraph& t) {
         t.const_i64("st", {0}).const_i64("en", {3});
         return single("Slice", {}, {"st", "en"})(t);
       },
       false, nullptr},
      {"gather live data",
       [&](TestGraph& t) {
         t.const_i64("gi", {0, 1});
         return single("Gather", {{"axis", 3}}, {"gi"})(t);
       },
       true, [](IR& ir) { EXPECT_EQ(IR::get_attr_int(*ir.find_node("op"), "axis"), 1); }},
      {"conv 3x3",
       [&](TestGraph& t) {
         t.const_f32("w", std::vector<double>(2 * 4 * 9, 0.1), {2, 4, 3, 3});
         return single("Conv", {{"kernel_shape", ints{3, 3}}}, {"w"})(t);
       },
       false, nullptr},
      {"conv moving channels",
       [&](TestGraph& t) {
         t.const_f32("w", std::vector<double>(2 * 4, 0.1), {2, 4, 1, 1});
         return single("Conv", {{"kernel_shape", ints{1, 1}}}, {"w"})(t);
       },
       false, nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    Sandwich s = sandwich(c.make);
    MeshResult r = _p_reduce_tp_in_mesh(s.t.ir, {s.tp_in}, nullptr, "forward", {});
    if (c.accept) {
      EXPECT_FALSE(r.has_unsupported);
      EXPECT_FALSE(r.remove.empty());
      if (c.check) c.check(s.t.ir);
    } else {
      EXPECT_TRUE(r.has_unsupported);
      EXPECT_TRUE(contains(r.unsupported, "op"));
    }
  }
}

TEST(MeshFeasibility, PointwiseConvFollowsASwapOfHeightAndWidth) {
  TestGraph t;
  t.input("x", {1, 4, 3, 5}).const_f32("w", std::vector<double>(8, 0.5), {2, 4, 1, 1});
  auto tp_in = t.node("Transpose", {"x"}, {"a"}, {{"perm", ints{0, 1, 3, 2}}});
  t.node("Conv", {"a", "w"}, {"b"}, {{"kernel_shape", ints{1, 1}}}, "conv");
  t.node("Transpose", {"b"}, {"y"}, {{"perm", ints{0, 1, 3, 2}}});
  t.shape("a", {1, 4, 5, 3}).shape("b", {1, 2, 5, 3}).shape("y", {1, 2, 3, 5}).output("y");
  RuleResult r = _p_reduce_tp_in_mesh_forward(t.ir, {tp_in}, nullptr);
  ASSERT_TRUE(r.applied());
  apply(t.ir, r);
  EXPECT_EQ(count_op(t.ir, "Transpose"), 0);
  EXPECT_EQ(t.ir.find_node("conv")->input[0], "x");
  EXPECT_EQ(t.ir.get_const("w")->shape(), (Shape{2, 4, 1, 1}));  // weights are no mesh tensor
}

TEST(MeshFeasibility, GatherOnConstantDataRefusesToJumpOverRealAxes) {
  // NCHW sandwich: the vote gives 0,2,3,1, so the Gather's axis 1 becomes 3.
  // Moving constant data that far is refused unless the axes it jumps over
  // are of size 1.
  for (const bool jump_over_ones : {true, false}) {
    SCOPED_TRACE(jump_over_ones);
    TestGraph t;
    const Shape data_shape = jump_over_ones ? Shape{1, 5, 1, 1} : Shape{1, 5, 3, 4};
    std::vector<double> vals(jump_over_ones ? 5 : 60, 0.25);
    t.input("x", {1, 3, 4, 2}).const_f32("gd", vals, data_shape).const_i64("gi", {0});
    auto tp_in = t.node("Transpose", {"x"}, {"a"}, {{"perm", kToNchw}}, "tp_in");
    t.node("Gather", {"gd", "gi"}, {"g"}, {{"axis", 1}}, "gather");
    t.node("Add", {"a", "g"}, {"b"});
    t.node("Transpose", {"b"}, {"y"}, {{"perm", kToNhwc}}, "tp_out");
    t.shape("a", {1, 2, 3, 4}).shape("b", {1, 2, 3, 4}).shape("y", {1, 3, 4, 2}).output("y");
    t.shape("g", jump_over_ones ? Shape{1, 1, 1, 1} : Shape{1, 1, 3, 4});

    MeshResult first = _p_reduce_tp_in_mesh(t.ir, {tp_in}, nullptr, "forward", {});
    if (jump_over_ones) {
      EXPECT_FALSE(first.has_unsupported);
      EXPECT_FALSE(first.remove.empty());
      EXPECT_EQ(IR::get_attr_int(*t.ir.find_node("gather"), "axis"), 3);
      EXPECT_EQ(t.ir.get_const("gd")->shape(), (Shape{1, 1, 1, 5}));
    } else {
      EXPECT_TRUE(first.has_unsupported);
      EXPECT_EQ(first.unsupported, Names{"gather"});
      EXPECT_EQ(t.ir.get_const("gd")->shape(), data_shape);
      // Without the Gather the pair still cancels around it.
      RuleResult r = _p_reduce_tp_in_mesh_forward(t.ir, {tp_in}, nullptr);
      ASSERT_TRUE(r.applied());
      apply(t.ir, r);
      EXPECT_EQ(count_op(t.ir, "Transpose"), 1);  // g alone is brought into the new layout
      EXPECT_EQ(IR::get_attr_int(*t.ir.find_node("gather"), "axis"), 1);
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

// ---- through the driver ------------------------------------------------------------

TEST(MeshDriver, ChannelsLastBlocksLoseTheirInnerTransposePairs) {
  TestGraph t;
  t.input("x", {1, 8, 8, 16});
  t.const_f32("w1", std::vector<double>(16 * 16 * 9, 0.01), {16, 16, 3, 3});
  t.const_f32("w2", std::vector<double>(16 * 32 * 9, 0.01), {16, 32, 3, 3});
  t.node("Transpose", {"x"}, {"x_nchw"}, {{"perm", kToNchw}});
  t.node("Conv", {"x_nchw", "w1"}, {"c1"},
         {{"kernel_shape", ints{3, 3}}, {"pads", ints{1, 1, 1, 1}}});
  t.node("Transpose", {"c1"}, {"d"}, {{"perm", kToNhwc}});
  t.node("Add", {"d", "x"}, {"e"});
  t.node("Relu", {"e"}, {"f"});
  t.node("Concat", {"f", "e"}, {"g"}, {{"axis", 3}}, "cat");
  t.node("Transpose", {"g"}, {"h"}, {{"perm", kToNchw}});
  t.node("Conv", {"h", "w2"}, {"c2"}, {{"kernel_shape", ints{3, 3}}, {"pads", ints{1, 1, 1, 1}}});
  t.node("Transpose", {"c2"}, {"out"}, {{"perm", kToNhwc}});
  t.shape("x_nchw", {1, 16, 8, 8}).shape("c1", {1, 16, 8, 8});
  t.shape("d", {1, 8, 8, 16}).shape("e", {1, 8, 8, 16}).shape("f", {1, 8, 8, 16});
  t.shape("g", {1, 8, 8, 32}).shape("h", {1, 32, 8, 8}).shape("c2", {1, 16, 8, 8});
  t.shape("out", {1, 8, 8, 16}).output("out");

  run_reduce(t.ir, nullptr);
  EXPECT_EQ(count_op(t.ir, "Transpose"), 2);  // the model's own input and output layouts
  EXPECT_EQ(IR::get_attr_int(*t.ir.find_node("cat"), "axis"), 1);
  EXPECT_EQ(t.ir.get_shape("g"), (Shape{1, 32, 8, 8}));
  ASSERT_NE(t.producer("out"), nullptr);
  EXPECT_EQ(t.producer("out")->op_type, "Transpose");
  EXPECT_EQ(t.ir.outputs(), names{"out"});
  // The second convolution reads the concatenation directly.
  EXPECT_EQ(t.producer(t.ir.find_node("c2")->input[0])->op_type, "Concat");
}

}  // namespace
}  // namespace tolm
