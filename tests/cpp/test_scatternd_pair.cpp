// ScatterND pair rules on the C++ side, where the sanitizer build walks their
// index arithmetic: the joined indices, the pad rows, the widened Conv.
#include <gtest/gtest.h>

#include "graph_dsl.h"
#include "scatternd/scatternd.h"

namespace tolm {
namespace {

using namespace testing_dsl;

// Index block [1, heads, 1, 3]: token t of each head.
ints kv_rows(int64_t t, const ints& heads) {
  ints v;
  for (int64_t h : heads) v.insert(v.end(), {0, h, t});
  return v;
}

// cache [1, 4, 6, 2] <- (i1, u1) <- (i2, u2) -> y; the cache a graph input or
// a constant of `cache_value`.
struct TwoWrites : TestGraph {
  NodePtr s1, s2;
  TwoWrites(const ints& heads1, int64_t t1, const ints& heads2, int64_t t2, bool const_cache = false,
            double cache_value = 0.0) {
    const Shape cache{1, 4, 6, 2};
    if (const_cache)
      constant("cache", NDArray::from_f64(std::vector<double>(48, cache_value), cache));
    else
      input("cache", cache);
    const auto n1 = static_cast<int64_t>(heads1.size()), n2 = static_cast<int64_t>(heads2.size());
    const_i64("i1", kv_rows(t1, heads1), {1, n1, 1, 3});
    const_i64("i2", kv_rows(t2, heads2), {1, n2, 1, 3});
    input("u1", {1, n1, 1, 2}).input("u2", {1, n2, 1, 2});
    s1 = node("ScatterND", {"cache", "i1", "u1"}, {"w1"}, {}, "sc1");
    s2 = node("ScatterND", {"w1", "i2", "u2"}, {"y"}, {}, "sc2");
    shape("w1", cache).shape("y", cache).output("y");
  }
};

TEST(ScatterNDPair, TwoTokensJoinOnTheTokenAxis) {
  TwoWrites t({0, 1, 2, 3}, 2, {0, 1, 2, 3}, 3);
  const RuleResult res = _p_fuse_two_scatternd(t.ir, {t.s1, t.s2}, nullptr);
  ASSERT_TRUE(res.applied());
  EXPECT_EQ(node_names(res.remove), names{"sc1"});
  ASSERT_EQ(res.add.size(), 1u);
  EXPECT_EQ(IR::get_attr_int(*res.add[0], "axis"), 2);
  const NDArray* idx = t.ir.get_const(t.s2->input[1]);
  ASSERT_NE(idx, nullptr);
  EXPECT_EQ(idx->shape(), (Shape{1, 4, 2, 3}));
  // Head 1: token 2, then token 3.
  const ints v = idx->to_i64();
  EXPECT_EQ(ints(v.begin() + 6, v.begin() + 12), (ints{0, 1, 2, 0, 1, 3}));
  EXPECT_EQ(t.s2->input[0], "cache");
}

TEST(ScatterNDPair, PaddedWriteTakesTheDataValues) {
  // sc2 writes heads 2 and 3 of token 1 only: padded ahead with heads 0, 1.
  TwoWrites t({0, 1, 2, 3}, 0, {2, 3}, 1, true);
  const RuleResult res = _p_fuse_two_scatternd2(t.ir, {t.s1, t.s2}, nullptr);
  ASSERT_TRUE(res.applied());
  ASSERT_EQ(res.add.size(), 2u);
  EXPECT_EQ(res.add[0]->name(), "sc2_pad_for_update");
  const NDArray* pad = t.ir.get_const(res.add[0]->input[0]);
  ASSERT_NE(pad, nullptr);
  EXPECT_EQ(pad->shape(), (Shape{1, 2, 1, 2}));
  const ints v = t.ir.get_const(t.s2->input[1])->to_i64();
  ASSERT_EQ(v.size(), 24u);
  // Each head now gets token 0 from sc1 and token 1 from the padded write.
  for (int64_t h = 0; h < 4; ++h)
    EXPECT_EQ(ints(v.begin() + 6 * h, v.begin() + 6 * h + 6), (ints{0, h, 0, 0, h, 1}));
}

TEST(ScatterNDPair, RefusalsLeaveTheGraph) {
  {
    SCOPED_TRACE("a pad over non-zero data would write other values");
    TwoWrites t({0, 1, 2, 3}, 0, {2, 3}, 1, true, 0.0);
    NDArray data = *t.ir.get_const("cache");
    data = NDArray::from_f64([] {
      std::vector<double> d(48, 0.0);
      d[2] = 7.0;  // head 0, token 1: where the pad writes what it read at token 0
      return d;
    }(), data.shape());
    t.ir.set_const("cache", data);
    EXPECT_FALSE(_p_fuse_two_scatternd2(t.ir, {t.s1, t.s2}, nullptr).applied());
    EXPECT_EQ(t.s2->input[0], "w1");
  }
  {
    SCOPED_TRACE("a common place");
    TwoWrites t({0, 1}, 2, {1, 2}, 2);
    EXPECT_FALSE(_p_fuse_two_scatternd(t.ir, {t.s1, t.s2}, nullptr).applied());
    EXPECT_FALSE(_p_fuse_two_scatternd2(t.ir, {t.s1, t.s2}, nullptr).applied());
  }
}

TEST(ScatterNDPair, PrivateConvWidensOverZeros) {
  TestGraph t;
  const Shape cache{1, 4, 6, 2};
  t.constant("cache", NDArray::from_f64(std::vector<double>(48, 0.0), cache));
  t.const_i64("i1", kv_rows(0, {0, 1}), {1, 2, 1, 3});
  t.const_i64("i2", kv_rows(1, {0, 1, 2, 3}), {1, 4, 1, 3});
  t.const_f32("w", {1, 2, 3, 4, 5, 6}, {2, 3, 1, 1});
  t.input("a", {1, 3, 1, 2}).input("u2", {1, 4, 1, 2});
  NodePtr conv = t.node("Conv", {"a", "w"}, {"u1"}, {}, "conv");
  t.shape("u1", {1, 2, 1, 2});
  NodePtr s1 = t.node("ScatterND", {"cache", "i1", "u1"}, {"w1"}, {}, "sc1");
  NodePtr s2 = t.node("ScatterND", {"w1", "i2", "u2"}, {"y"}, {}, "sc2");
  t.shape("w1", cache).shape("y", cache).output("y");
  const RuleResult res = _p_fuse_two_scatternd(t.ir, {s1, s2}, nullptr);
  ASSERT_TRUE(res.applied());
  // No bias: the Conv keeps two inputs, its weight four filters.
  ASSERT_EQ(conv->input.size(), 2u);
  EXPECT_EQ(t.ir.get_const(conv->input[1])->shape(), (Shape{4, 3, 1, 1}));
  EXPECT_EQ(t.ir.get_shape("u1"), (Shape{1, 4, 1, 2}));
  const ints v = t.ir.get_const(s2->input[1])->to_i64();
  // The pad rows repeat the first row but for the head, which takes the
  // heads not yet written.
  EXPECT_EQ(ints(v.begin() + 12, v.begin() + 15), (ints{0, 2, 0}));
  EXPECT_EQ(ints(v.begin() + 18, v.begin() + 21), (ints{0, 3, 0}));
}

}  // namespace
}  // namespace tolm
