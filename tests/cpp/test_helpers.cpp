// Support helpers: permutation and reshape algebra checked against a direct
// simulation of the data movement, plus the graph and naming helpers.
#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>

#include "graph_dsl.h"
#include "host/helpers.h"
#include "host/log.h"

namespace tolm {
namespace {

using testing_dsl::ints;
using testing_dsl::TestGraph;

// ---- a tiny n-d reference over flat element ids ------------------------------

struct Tensor {
  Shape shape;
  std::vector<int64_t> data;
};

Tensor iota_tensor(const Shape& shape) {
  Tensor t{shape, std::vector<int64_t>(static_cast<size_t>(shape_size(shape)))};
  std::iota(t.data.begin(), t.data.end(), int64_t{0});
  return t;
}

Shape strides_of(const Shape& s) {
  Shape st(s.size(), 1);
  for (size_t i = s.size(); i-- > 1;) st[i - 1] = st[i] * s[i];
  return st;
}

Tensor transpose(const Tensor& x, const Perm& perm) {
  Shape out_shape;
  for (int64_t p : perm) out_shape.push_back(x.shape[p]);
  const Shape in_st = strides_of(x.shape), out_st = strides_of(out_shape);
  Tensor y{out_shape, std::vector<int64_t>(x.data.size())};
  for (int64_t f = 0; f < static_cast<int64_t>(y.data.size()); ++f) {
    int64_t src = 0;
    for (size_t i = 0; i < perm.size(); ++i) src += (f / out_st[i]) % out_shape[i] * in_st[perm[i]];
    y.data[f] = x.data[src];
  }
  return y;
}

Tensor gather(const Tensor& x, int64_t axis, const std::vector<int64_t>& idx) {
  Shape out_shape = x.shape;
  out_shape[axis] = static_cast<int64_t>(idx.size());
  const Shape in_st = strides_of(x.shape), out_st = strides_of(out_shape);
  Tensor y{out_shape, std::vector<int64_t>(static_cast<size_t>(shape_size(out_shape)))};
  for (int64_t f = 0; f < static_cast<int64_t>(y.data.size()); ++f) {
    int64_t src = 0;
    for (size_t i = 0; i < out_shape.size(); ++i) {
      int64_t c = (f / out_st[i]) % out_shape[i];
      if (static_cast<int64_t>(i) == axis) c = idx[c];
      src += c * in_st[i];
    }
    y.data[f] = x.data[src];
  }
  return y;
}

Tensor concat(const std::vector<Tensor>& parts, int64_t axis) {
  Shape out_shape = parts[0].shape;
  out_shape[axis] = 0;
  for (const auto& p : parts) out_shape[axis] += p.shape[axis];
  const int64_t pre = std::accumulate(out_shape.begin(), out_shape.begin() + axis, int64_t{1},
                                      std::multiplies<int64_t>());
  Tensor y{out_shape, {}};
  for (int64_t p = 0; p < pre; ++p)
    for (const auto& part : parts) {
      const int64_t block = static_cast<int64_t>(part.data.size()) / pre;
      y.data.insert(y.data.end(), part.data.begin() + p * block,
                    part.data.begin() + (p + 1) * block);
    }
  return y;
}

Tensor reshape(Tensor x, const Shape& s) {
  x.shape = s;
  return x;
}

// ---- permutations -------------------------------------------------------------

TEST(HelperPerm, EquivalentPermsMoveDataAlike) {
  // The perm itself comes first; a shape that does not fit claims nothing more.
  EXPECT_EQ(get_equivalent_perm_for_tp({0, 2, 1}, {1, 3, 1}).front(), (Perm{0, 2, 1}));
  EXPECT_EQ(get_equivalent_perm_for_tp({1, 0}, {}), (std::vector<Perm>{{1, 0}}));
  // Against a direct transpose: every listed perm gives the same tensor, and
  // every perm that does is listed.
  const std::vector<std::pair<Perm, Shape>> cases = {
      {{0, 2, 1}, {1, 3, 1}},       {{1, 0}, {3, 3}},           {{0, 2, 3, 1}, {1, 4, 1, 3}},
      {{3, 1, 0, 2}, {1, 2, 1, 1}}, {{2, 0, 1, 3}, {2, 1, 3, 1}}, {{4, 3, 2, 1, 0}, {1, 1, 2, 1, 3}}};
  for (const auto& [perm, shape] : cases) {
    const Tensor x = iota_tensor(shape);
    const Tensor ref = transpose(x, perm);
    auto listed = get_equivalent_perm_for_tp(perm, shape);
    Perm p(perm.size());
    std::iota(p.begin(), p.end(), int64_t{0});
    do {
      const Tensor y = transpose(x, p);
      const bool same = y.shape == ref.shape && y.data == ref.data;
      EXPECT_EQ(same, std::find(listed.begin(), listed.end(), p) != listed.end());
    } while (std::next_permutation(p.begin(), p.end()));
  }
}

TEST(HelperPerm, CheckEquivalentUsesEveryShapeProfile) {
  TestGraph t;
  t.shape("x", {1, 3, 1});
  EXPECT_TRUE(check_equivalent_perm_for_tp(t.ir, "x", {0, 2, 1}, {2, 0, 1}));
  EXPECT_FALSE(check_equivalent_perm_for_tp(t.ir, "x", {0, 2, 1}, {1, 0, 2}));
  // A second profile where axis 0 is not 1 breaks the equivalence.
  t.ir.dynamic_shapes["x"] = {{1, 3, 1}, {2, 3, 1}};
  EXPECT_FALSE(check_equivalent_perm_for_tp(t.ir, "x", {0, 2, 1}, {2, 0, 1}));
  // No shape known: only identical perms.
  EXPECT_TRUE(check_equivalent_perm_for_tp(t.ir, "unknown", {1, 0}, {1, 0}));
  EXPECT_FALSE(check_equivalent_perm_for_tp(t.ir, "unknown", {0, 1}, {1, 0}));
}

// ---- reshapes -------------------------------------------------------------------

TEST(HelperReshape, ReshapeAsTranspose) {
  // Size-1 axes move, the rest keep order; repeated sizes match in order.
  EXPECT_EQ(get_equivalent_perm_for_reshape({2, 1, 2}, {1, 2, 2}), (Perm{1, 0, 2}));
  // Not a transpose: data order changes, or the rank does.
  EXPECT_TRUE(get_equivalent_perm_for_reshape({2, 3}, {3, 2}).empty());
  EXPECT_TRUE(get_equivalent_perm_for_reshape({1, 6}, {6}).empty());
  // The perm really reproduces the reshape.
  for (const auto& [in, out] : std::vector<std::pair<Shape, Shape>>{{{1, 3, 1, 5}, {3, 1, 5, 1}},
                                                                    {{1, 4, 1, 4, 3}, {4, 1, 4, 3, 1}}}) {
    const Tensor y = transpose(iota_tensor(in), get_equivalent_perm_for_reshape(in, out));
    EXPECT_EQ(y.shape, out);
    EXPECT_EQ(y.data, iota_tensor(out).data);
  }
  EXPECT_TRUE(squeeze_same({1, 3, 1, 5}, {3, 5, 1}));
  EXPECT_FALSE(squeeze_same({3, 5}, {5, 3}));
}

TEST(HelperReshape, IndependentPartsAndPureSplits) {
  using P = std::vector<IndependentPart>;
  EXPECT_EQ(seperate_independent_part_for_reshape({60, 2, 64, 600}, {60, 128, 1, 600}),
            (P{{{0}, {0}}, {{1, 2}, {1}}, {{3}, {2, 3}}}));
  // Leading 1s join the part after them, trailing 1s the last part.
  EXPECT_EQ(seperate_independent_part_for_reshape({1, 6}, {2, 3}), (P{{{0, 1}, {0, 1}}}));
  EXPECT_EQ(seperate_independent_part_for_reshape({1, 768, 5, 1}, {12, 64, 5, 1}),
            (P{{{0, 1}, {0, 1}}, {{2}, {2}}, {{3}, {3}}}));
  EXPECT_TRUE(seperate_independent_part_for_reshape({2, 3}, {7}).empty());

  EXPECT_EQ(calc_map_fuse({1, 12, 1}, {1, 3, 4}), (std::vector<Axes>{{0}, {1, 2}, {}}));
  EXPECT_EQ(calc_map_fuse({6, 1}, {6, 1}), (std::vector<Axes>{{0}, {1}}));
  // A merge, or a split that crosses an axis boundary, is no pure split.
  EXPECT_TRUE(calc_map_fuse({2, 3}, {6, 1}).empty());
  EXPECT_TRUE(calc_map_fuse({4, 6}, {8, 3}).empty());
}

TEST(HelperReshape, BypassFollowsChannelGroups) {
  TestGraph t;
  struct Case {
    const char* target;
    Shape in, out;
    bool bypass;
  };
  const std::vector<Case> cases = {
      {"npu_c", {1, 8, 24, 1}, {1, 8, 4, 6}, true},            // the plane is re-split, channels stay
      {"npu_c", {120, 64, 1, 600}, {60, 128, 1, 600}, true},   // whole channel groups move
      {"npu_c", {2, 8, 3, 3}, {1, 16, 3, 3}, false},           // half groups
      {"npu_c", {120, 64, 1, 600}, {60, 2, 64, 600}, false},   // channels meet the plane
      {"npu_c", {1, 32, 4, 4}, {1, 16, 8, 4}, false},
      {"npu_c", {1, 16, 1, 1}, {1, 1, 1, 16}, false},
      {"npu_c", {2, 1, 3, 4}, {1, 1, 6, 4}, true},             // one channel: one row-major run
      {"npu_c", {8, 4, 6}, {1, 8, 24, 1}, true},               // lower ranks count as leading 1s
      {"npu_c", {1, 1, 8, 4, 6}, {8, 24, 1}, true},            // higher ranks need them
      {"npu_c", {2, 1, 8, 4, 6}, {2, 8, 24, 1}, false},
      {"npu_e", {2, 16, 3, 3}, {1, 32, 3, 3}, false},          // 32-channel groups
      {"npu_e", {2, 32, 3, 3}, {1, 64, 3, 3}, true},
  };
  for (const auto& c : cases) {
    t.ir.npu_target = c.target;
    EXPECT_EQ(reshape_is_bypass(t.ir, c.in, c.out), c.bypass) << c.target << " " << c.in.size();
  }
  EXPECT_EQ(align_sub_c(t.ir), 32);
}

// ---- gathers ----------------------------------------------------------------------

TEST(HelperGather, RsTpRsMatchesTheChain) {
  struct Case {
    Shape in, mid;
    Perm perm;
    Shape out;
  };
  const std::vector<Case> cases = {
      // Channels split in two and the halves interleaved.
      {{1, 16, 3, 4}, {1, 8, 2, 3, 4}, {0, 2, 1, 3, 4}, {1, 16, 3, 4}},
      // Inner axis reversed in blocks: the last axis is gathered.
      {{2, 6}, {2, 2, 3}, {0, 2, 1}, {}},
  };
  for (const auto& c : cases) {
    const GatherPlan plan = gen_gather_for_rs_tp_rs(c.in, c.mid, c.perm, c.out);
    ASSERT_TRUE(plan.axis.has_value());
    EXPECT_TRUE(plan.before);
    const Tensor x = iota_tensor(c.in);
    const Tensor chain = transpose(reshape(x, c.mid), c.perm);
    const Tensor g = gather(x, *plan.axis, plan.indices);
    EXPECT_EQ(g.data, chain.data);
    // Fitted on the output layout, the Gather reads the input reshaped to it.
    const Shape out = c.out.empty() ? c.in : c.out;
    const GatherPlan after = gen_gather_for_rs_tp_rs(c.in, c.mid, c.perm, out, true);
    ASSERT_TRUE(after.axis.has_value());
    EXPECT_FALSE(after.before);
    EXPECT_EQ(gather(reshape(x, out), *after.axis, after.indices).data, chain.data);
  }
  // The output layout must be known to fit a Gather on it.
  EXPECT_FALSE(gen_gather_for_rs_tp_rs({2, 6}, {2, 2, 3}, {0, 2, 1}, {}, true).axis.has_value());

  // A movement across two input axes has no single Gather.
  EXPECT_FALSE(gen_gather_for_rs_tp_rs({6, 4}, {6, 4}, {1, 0}, {}).axis.has_value());
  // An identity chain: ascending indices, nothing to do.
  auto plan = gen_gather_for_rs_tp_rs({1, 6, 2}, {1, 6, 2}, {0, 1, 2}, {});
  ASSERT_TRUE(plan.axis.has_value());
  EXPECT_TRUE(std::is_sorted(plan.indices.begin(), plan.indices.end()));
  // Sizes that do not fit.
  EXPECT_FALSE(gen_gather_for_rs_tp_rs({6, 4}, {5, 4}, {1, 0}, {}).axis.has_value());
}

// The parts of a Split of `src` on `axis`, each reshaped to the target with
// the new axis sized to fit, laid side by side on `new_axis`.
Tensor desired_on_target(const Shape& src, int64_t axis, const ints& chunks, const Shape& target,
                         int64_t new_axis) {
  const Tensor x = iota_tensor(src);
  std::vector<Tensor> parts;
  int64_t off = 0;
  const int64_t rest = shape_size(target) / target[new_axis];
  for (int64_t c : chunks) {
    std::vector<int64_t> idx(static_cast<size_t>(c));
    std::iota(idx.begin(), idx.end(), off);
    off += c;
    Tensor p = gather(x, axis, idx);
    Shape ts = target;
    ts[new_axis] = static_cast<int64_t>(p.data.size()) / rest;
    parts.push_back(reshape(p, ts));
  }
  return concat(parts, new_axis);
}

TEST(HelperGather, ChangeSplitShapeRepairsElementOrder) {
  struct Case {
    Shape src;
    int64_t axis;
    ints chunks;
    Shape target;
    int64_t new_axis;
  };
  const std::vector<Case> cases = {
      {{1, 4, 6}, 1, {2, 2}, {1, 8, 3}, 1},      // order already right
      {{1, 6, 4}, 2, {2, 2}, {1, 12, 2}, 1},     // split on the inner axis
      {{1, 4, 6}, 2, {3, 3}, {1, 24, 1}, 1},     // split on W, moved to C
      {{2, 6, 1, 4}, 1, {2, 4}, {1, 24, 2}, 1},  // uneven parts
  };
  for (const auto& c : cases) {
    const Tensor want = desired_on_target(c.src, c.axis, c.chunks, c.target, c.new_axis);
    const Tensor x = iota_tensor(c.src);
    for (std::string op : {"Split", "Concat"}) {
      auto plan = gen_gather_for_change_split_shape(c.src, c.target, c.axis, c.new_axis,
                                                    c.chunks, op);
      ASSERT_TRUE(plan.has_value()) << op;
      ASSERT_TRUE(plan->axis.has_value());
      if (op == "Split") {
        // Split: the target tensor fed to the new Split must equal `want`.
        const Tensor fed = plan->before ? reshape(gather(x, *plan->axis, plan->indices), c.target)
                                        : gather(reshape(x, c.target), *plan->axis, plan->indices);
        EXPECT_EQ(fed.data, want.data) << "split";
      } else {
        // Concat: from the parts side by side (`want`) back to the source.
        const Tensor back = plan->before
                                ? reshape(gather(want, *plan->axis, plan->indices), c.src)
                                : gather(reshape(want, c.src), *plan->axis, plan->indices);
        EXPECT_EQ(back.data, x.data) << "concat";
      }
    }
  }
  auto plan = gen_gather_for_change_split_shape({1, 4, 6}, {1, 8, 3}, 1, 1, {2, 2}, "Split");
  ASSERT_TRUE(plan.has_value());
  EXPECT_TRUE(std::is_sorted(plan->indices.begin(), plan->indices.end()));
  // Parts that do not fill whole slices of the new axis.
  EXPECT_FALSE(gen_gather_for_change_split_shape({1, 3, 5}, {1, 5, 3}, 1, 1, {1, 2}, "Split")
                   .has_value());
  EXPECT_FALSE(gen_gather_for_change_split_shape({1, 4}, {1, 4}, 1, 1, {1, 2}, "Split")
                   .has_value());
}

// ---- small graph facts -------------------------------------------------------------

TEST(HelperSlice, RemoveInvalidParams) {
  ints starts{0, 0, 2}, ends{1, 8, 6}, axes{0, 1, 2}, steps{1, 1, 1};
  EXPECT_EQ(remove_slice_invalid_param(&starts, &ends, axes, &steps, {1, 8, 8}, {1, 8, 4}), 2u);
  EXPECT_EQ(axes, (ints{2}));
  EXPECT_EQ(starts, (ints{2}));
  EXPECT_EQ(ends, (ints{6}));
  EXPECT_EQ(steps, (ints{1}));

  // Negative axes; starts and ends absent.
  axes = {-3, -1};
  steps = {1, 1};
  remove_slice_invalid_param(nullptr, nullptr, axes, &steps, {4, 2, 8}, {2, 2, 8});
  EXPECT_EQ(axes, (ints{-3}));

  // A reversed axis keeps its size but moves data: it stays.
  axes = {1, 2};
  steps = {-1, 1};
  remove_slice_invalid_param(nullptr, nullptr, axes, &steps, {1, 8, 8}, {1, 8, 4});
  EXPECT_EQ(axes, (ints{1, 2}));

  // Nothing cuts: one entry stays so the Slice stays well-formed.
  starts = {0, 0};
  ends = {8, 8};
  axes = {1, 2};
  remove_slice_invalid_param(&starts, &ends, axes, nullptr, {1, 8, 8}, {1, 8, 8});
  EXPECT_EQ(axes, (ints{1}));
  EXPECT_EQ(starts.size(), 1u);
}

TEST(HelperSplit, LengthsFromEveryStorage) {
  TestGraph t;
  t.input("x", {1, 10, 4});
  t.const_i64("len", {3, 7});
  auto by_input = t.node("Split", {"x", "len"}, {"a", "b"}, {{"axis", 1}});
  auto by_attr = t.node("Split", {"x"}, {"c", "d"}, {{"axis", 1}, {"split", ints{4, 6}}});
  auto equal = t.node("Split", {"x"}, {"e", "f", "g", "h"}, {{"axis", -2}});
  EXPECT_EQ(get_split_split(t.ir, *by_input), (ints{3, 7}));
  EXPECT_EQ(get_split_split(t.ir, *by_attr), (ints{4, 6}));
  // Not stored: equal parts, the last one smaller.
  EXPECT_EQ(get_split_split(t.ir, *equal), (ints{3, 3, 3, 1}));
  EXPECT_TRUE(get_split_split(t.ir, *equal, false).empty());
  // Output shapes, where known, say it exactly.
  for (auto [n, s] : std::vector<std::pair<std::string, int64_t>>{
           {"e", 1}, {"f", 2}, {"g", 3}, {"h", 4}})
    t.shape(n, {1, s, 4});
  EXPECT_EQ(get_split_split(t.ir, *equal), (ints{1, 2, 3, 4}));
  // Lengths computed at run time: only output shapes can tell.
  t.input("dyn_len", {2}, dt::INT64);
  auto dynamic = t.node("Split", {"x", "dyn_len"}, {"i", "j"}, {{"axis", 1}});
  EXPECT_TRUE(get_split_split(t.ir, *dynamic).empty());
}

TEST(HelperSplit, MakeNodeSplitFollowsOpset) {
  TestGraph t;
  t.input("x", {1, 10});
  t.ir.set_opset(13);
  auto s13 = make_node_split(t.ir, {"x"}, {"a", "b"}, 1, {4, 6}, "sp");
  ASSERT_EQ(s13->input.size(), 2u);
  EXPECT_FALSE(s13->find_attr("split"));
  const NDArray* len = t.ir.get_const(s13->input[1]);
  ASSERT_NE(len, nullptr);
  EXPECT_EQ(len->dtype(), dt::INT64);
  EXPECT_EQ(len->to_i64(), (ints{4, 6}));
  EXPECT_EQ(IR::get_attr_int(*s13, "axis"), 1);
  t.ir.add_node(s13);
  EXPECT_EQ(get_split_split(t.ir, *s13), (ints{4, 6}));

  t.ir.set_opset(11);
  auto s11 = make_node_split(t.ir, {"x"}, {"c", "d"}, 1, {4, 6}, "sp11");
  EXPECT_EQ(s11->input.size(), 1u);
  EXPECT_EQ(IR::get_attr_ints(*s11, "split"), (ints{4, 6}));
  EXPECT_EQ(s11->name(), "sp11");
}

TEST(HelperNames, JoinAvoidsTakenNames) {
  TestGraph t;
  t.input("x", {1});
  t.node("Relu", {"x"}, {"x_fuse"}, {}, "relu_fuse");
  t.const_i64("x_fuse_1", {1});
  EXPECT_EQ(oper_name_join(t.ir, "y", "_fuse"), "y_fuse");
  EXPECT_EQ(oper_name_join(t.ir, "x", "_fuse"), "x_fuse_2");
  EXPECT_EQ(oper_name_join(t.ir, "x", "_2sp", 3), "x_2sp3");
  // Names handed out but not yet in the graph are avoided as well.
  EXPECT_EQ(oper_name_join(t.ir, "s", "_mr", std::vector<std::string>{"s_mr", "s_mr_1"}),
            "s_mr_2");
  // A stem named again and again resumes after its last suffix; a name
  // planted ahead is skipped, and one freed later is not handed out again.
  t.const_i64("w_scaled_4", {1});
  std::vector<std::string> got;
  for (int k = 0; k < 4; ++k) {
    got.push_back(oper_name_join(t.ir, "w", "_scaled"));
    t.const_i64(got.back(), {1});
    if (k == 1) t.ir.erase_const("w_scaled_1");
  }
  EXPECT_EQ(got, (std::vector<std::string>{"w_scaled", "w_scaled_1", "w_scaled_2", "w_scaled_3"}));
  EXPECT_EQ(oper_name_join(t.ir, "w", "_scaled"), "w_scaled_5");
  EXPECT_EQ(node_name_join(t.ir, "relu", "_fuse"), "relu_fuse_1");
  EXPECT_EQ(node_name_join(t.ir, "conv", "output", 0), "convoutput0");
  EXPECT_EQ(to_np_type(dt::FLOAT16), dt::FLOAT16);
}

TEST(HelperGraph, NeighboursAndSubGraphs) {
  TestGraph t;
  t.input("x", {1, 8, 4, 4});
  t.const_i64("len", {4, 4});
  t.const_f32("c", {2.0});
  auto split = t.node("Split", {"x", "len"}, {"s0", "s1"}, {{"axis", 1}});
  auto sig = t.node("Sigmoid", {"s0"}, {"g"});
  auto mul = t.node("Mul", {"s0", "g"}, {"m"});  // reads the Split and the Sigmoid
  auto add = t.node("Add", {"m", "s1"}, {"y"});
  auto scale = t.node("Mul", {"c", "y"}, {"z"});
  t.output("z");

  auto ec = get_elemwise_const(t.ir, *scale);
  ASSERT_TRUE(ec.const_name.has_value());
  EXPECT_EQ(*ec.const_name, "c");
  EXPECT_EQ(ec.const_idx, 0);
  EXPECT_EQ(ec.other_name, "y");
  EXPECT_EQ(ec.other_idx, 1);
  EXPECT_FALSE(get_elemwise_const(t.ir, *add).const_name.has_value());

  auto around = get_op_type_around_node(t.ir, *mul);
  EXPECT_EQ(around["Split"], 1);
  EXPECT_EQ(around["Sigmoid"], 1);
  EXPECT_EQ(around["Add"], 1);

  // Mul is reached at levels 1 and 2 and stands at its deepest; Add, read
  // straight from the Split too, lies one level beyond the run through Mul.
  auto levels = get_continuous_nodes(t.ir, split, 3);
  ASSERT_EQ(levels.size(), 3u);
  EXPECT_EQ(levels[0], (NodeList{split}));
  EXPECT_EQ(levels[1], (NodeList{sig}));
  EXPECT_EQ(levels[2], (NodeList{mul}));
  EXPECT_TRUE(match_sub_graph(levels, {{"Split"}, ACTIVATION_OPS(), ELEMENTWISE_ALU_OPS()}));
  EXPECT_FALSE(match_sub_graph(levels, {{"Split"}, ELEMENTWISE_ALU_OPS(), ACTIVATION_OPS()}));
  EXPECT_FALSE(match_sub_graph(levels, {{"Split"}, ACTIVATION_OPS()}));
  auto two = get_continuous_nodes(t.ir, sig, 2);
  EXPECT_TRUE(match_sub_graph(two, {ACTIVATION_OPS(), ELEMENTWISE_ALU_OPS()}));
  EXPECT_EQ(flatten_levels(two), (NodeList{sig, mul}));

  const NodeList path{split, sig, mul, add};
  EXPECT_EQ(get_subgraph_nodes(t.ir, path, {"Mul", "Add"}), (NodeList{mul, add}));
  EXPECT_TRUE(get_subgraph_nodes(t.ir, path, {"Split", "Mul"}).empty());  // Sigmoid between
  EXPECT_EQ(get_subgraph_nodes(t.ir, path, {"Sigmoid"}), (NodeList{sig}));

  EXPECT_EQ(find_gcd({12, -18, 30}), 6);
  EXPECT_EQ(find_gcd({}), 0);

  // s0 is read by Sigmoid and Mul; g by Mul alone; z is a graph output.
  EXPECT_TRUE(only_read_by(t.ir, "g", *mul));
  EXPECT_FALSE(only_read_by(t.ir, "s0", *mul));
  EXPECT_FALSE(only_read_by(t.ir, "z", *scale));
  EXPECT_FALSE(only_read_by(t.ir, "y", *mul));
}

TEST(HelperQuant, QuantisationFacts) {
  TestGraph t;
  t.input("x", {1, 4});
  t.input("idx", {2}, dt::INT64);
  t.const_i64("shape", {4, 1});
  auto rs = t.node("Reshape", {"x", "shape"}, {"r"});
  auto g = t.node("Gather", {"x", "idx"}, {"gx"}, {{"axis", 1}});
  auto add = t.node("Add", {"x", "r"}, {"a"});
  EXPECT_TRUE(skip_no_quant(t.ir, *rs, 1));
  EXPECT_FALSE(skip_no_quant(t.ir, *rs, 0));
  EXPECT_TRUE(skip_no_quant(t.ir, *g, 1));
  EXPECT_FALSE(skip_no_quant(t.ir, *add, 1));
  EXPECT_TRUE(skip_no_quant(t.ir, *add, 5));

  EXPECT_FALSE(get_want_need_fp16(t.ir).want_fp16.empty());
  t.ir.qat = true;
  EXPECT_TRUE(get_want_need_fp16(t.ir).want_fp16.empty());
}

TEST(HelperLog, HistoryIsCappedAndSinkSees) {
  std::vector<tolmLog::Level> levels;
  tolmLog::set_sink([&](tolmLog::Level l, const std::string&) { levels.push_back(l); });
  tolmLog::clear_history();
  tolmLog::e("first");
  for (int i = 0; i < 1500; ++i) tolmLog::w("m" + std::to_string(i));
  tolmLog::set_sink({});
  EXPECT_EQ(levels.front(), tolmLog::Level::Error);
  EXPECT_EQ(levels.back(), tolmLog::Level::Warning);
  const auto h = tolmLog::history();
  EXPECT_EQ(h.size(), 1000u);  // the oldest fell off
  EXPECT_EQ(h.back(), "m1499");  // messages are kept as written
  tolmLog::clear_history();
}

}  // namespace
}  // namespace tolm
