#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include <xtensor/xmanipulation.hpp>

#include "host/attr.h"
#include "host/ndarray.h"
#include "host/xarray_bridge.h"

using namespace tolm;
using i64s = std::vector<int64_t>;

TEST(NDArrayTypes, HalfAndBFloat16) {
  const float inf = std::numeric_limits<float>::infinity();
  for (auto [f, h] : std::vector<std::pair<float, uint16_t>>{
           {1.0f, 0x3c00}, {-2.0f, 0xc000}, {65504.0f, 0x7bff}, {65520.0f, 0x7c00},  // rounds to infinity
           {-inf, 0xfc00}, {-0.0f, 0x8000},
           {std::ldexp(1.0f, -24), 0x0001},  // smallest subnormal
           {std::ldexp(1.0f, -25), 0x0000}, {std::ldexp(1.5f, -25), 0x0001},
           {1.0f + std::ldexp(1.0f, -11), 0x3c00}, {1.0f + 3 * std::ldexp(1.0f, -11), 0x3c02}})  // ties to even
    EXPECT_EQ(float_to_half(f), h) << f;
  EXPECT_EQ(half_to_float(0x3555), 0.333251953125f);
  EXPECT_EQ(float_to_bfloat16(1.0f), 0x3f80);
  EXPECT_TRUE(std::isnan(half_to_float(float_to_half(std::nanf("")))));
  EXPECT_TRUE(std::isnan(bfloat16_to_float(float_to_bfloat16(std::nanf("")))));
  for (uint32_t h = 0; h < 0x10000; ++h) {
    const auto b = static_cast<uint16_t>(h);
    if (!std::isnan(half_to_float(b))) {
      ASSERT_EQ(float_to_half(half_to_float(b)), h) << std::hex << h;
    }
    if (!std::isnan(bfloat16_to_float(b))) {
      ASSERT_EQ(float_to_bfloat16(bfloat16_to_float(b)), h) << std::hex << h;
    }
  }
}

TEST(NDArray, ConstructConvertAndReject) {
  NDArray f = NDArray::from_f64({1.5, -2.5, 0.25, 4}, {2, 2}, dt::FLOAT16);
  EXPECT_EQ(f.raw().size(), 8u);
  EXPECT_EQ(f.to_f64(), std::vector<double>({1.5, -2.5, 0.25, 4}));
  EXPECT_EQ(f.to_i64(), i64s({1, -2, 0, 4}));  // truncation
  EXPECT_THROW(f.f64_at(4), std::out_of_range);
  EXPECT_EQ(NDArray::scalar_i64(7, dt::INT32).i64_at(0), 7);
  EXPECT_EQ(NDArray::scalar_f64(2.0, dt::DOUBLE).ndim(), 0u);
  EXPECT_THROW(NDArray(dt::FLOAT, {2}, std::vector<uint8_t>(7)), std::invalid_argument);
  EXPECT_THROW(NDArray::from_i64({1, 2}, Shape{3}), std::invalid_argument);
  EXPECT_THROW(NDArray::from_strings({"a", "bc"}, {2}).to_f64(), std::invalid_argument);
}

TEST(NDArray, Astype) {
  NDArray f = NDArray::from_f64({-1.7, 0.0, 2.9, 300.0}, {4}, dt::FLOAT);
  EXPECT_EQ(f.astype(dt::INT32).to_i64(), i64s({-1, 0, 2, 300}));
  EXPECT_EQ(f.astype(dt::UINT8).to_i64(), i64s({255, 0, 2, 44}));  // C-style wrap
  EXPECT_EQ(f.astype(dt::BOOL).to_i64(), i64s({1, 0, 1, 1}));
  NDArray h = f.astype(dt::FLOAT16);
  EXPECT_NEAR(h.f64_at(0), -1.7, 1e-3);
  EXPECT_EQ(h.astype(dt::FLOAT).astype(dt::FLOAT16), h);
  NDArray i = NDArray::from_i64({-1, 256, 7});
  EXPECT_EQ(i.astype(dt::UINT8).to_i64(), i64s({255, 0, 7}));
  EXPECT_DOUBLE_EQ(NDArray::from_i64({-1}, dt::UINT64).astype(dt::DOUBLE).f64_at(0), 18446744073709551615.0);
  EXPECT_THROW(i.astype(dt::STRING), std::invalid_argument);
}

TEST(NDArray, ReshapedAndCompare) {
  NDArray a = NDArray::from_i64({1, 2, 3, 4, 5, 6});
  NDArray b = a.reshaped({2, 3});
  EXPECT_EQ(b.raw(), a.raw());
  EXPECT_EQ(a.reshaped({3, -1}).shape(), Shape({3, 2}));
  EXPECT_THROW(a.reshaped({4}), std::invalid_argument);
  EXPECT_NE(a, b);
  EXPECT_NE(a, a.astype(dt::INT32));
  EXPECT_TRUE(NDArray::from_f64({1, 1}, {2}, dt::FLOAT).all_equal(1.0));
  EXPECT_FALSE(a.all_equal(1.0));
  EXPECT_TRUE(a.any_less(2) && !a.any_less(1) && a.any_greater(5) && !a.any_greater(6));
  NDArray empty = NDArray::from_i64({});
  EXPECT_TRUE(empty.all_equal(3));
  EXPECT_FALSE(empty.any_less(3));
}

TEST(XArrayBridge, RoundTripAndCompute) {
  NDArray a = NDArray::from_f64({0, 1, 2, 3, 4, 5}, {2, 3}, dt::FLOAT);
  xt::xarray<float> x = to_xarray<float>(a);
  EXPECT_EQ(x(1, 2), 5.f);
  NDArray back = from_xarray<float>(xt::xarray<float>(xt::transpose(x)), dt::FLOAT);
  EXPECT_EQ(back.shape(), Shape({3, 2}));
  EXPECT_EQ(back.to_f64(), std::vector<double>({0, 3, 1, 4, 2, 5}));

  // Cross-type: int64 view of a float16 array, and back as int32.
  NDArray h = NDArray::from_f64({1.5, -2.5}, {2}, dt::FLOAT16);
  NDArray i32 = from_xarray<int64_t>(to_xarray<int64_t>(h), dt::INT32);
  EXPECT_EQ(i32.dtype(), dt::INT32);
  EXPECT_EQ(i32.to_i64(), i64s({1, -2}));
  EXPECT_EQ(from_xarray<double>(to_xarray<double>(h), dt::FLOAT16), h);
  NDArray nb = from_xarray<bool>(to_xarray<bool>(NDArray::from_i64({0, 3})), dt::BOOL);
  EXPECT_EQ(nb.dtype(), dt::BOOL);
  EXPECT_EQ(nb.to_i64(), i64s({0, 1}));
  NDArray sc = NDArray::scalar_i64(9);
  EXPECT_EQ(to_xarray<int64_t>(sc).dimension(), 0u);
  EXPECT_EQ(from_xarray<int64_t>(to_xarray<int64_t>(sc), dt::INT64), sc);
}

TEST(Attr, EqualityComparesNameKindAndValue) {
  EXPECT_EQ(Attr::make_int("axis", 1), Attr::make_int("axis", 1));
  EXPECT_NE(Attr::make_int("axis", 1), Attr::make_int("axis", 2));
  EXPECT_NE(Attr::make_int("axis", 1), Attr::make_int("other", 1));
  EXPECT_NE(Attr::make_int("a", 1), Attr::make_float("a", 1.f));
  EXPECT_NE(Attr::make_ints("perm", {0, 2, 1}), Attr::make_ints("perm", {0, 1, 2}));
  EXPECT_NE(Attr::make_strings("s", {"a"}), Attr::make_strings("s", {"b"}));
  EXPECT_NE(Attr::make_floats("s", {1.f}), Attr::make_floats("s", {2.f}));
  EXPECT_EQ(Attr::make_tensor("v", NDArray::from_i64({1})), Attr::make_tensor("v", NDArray::from_i64({1})));
  EXPECT_NE(Attr::make_tensor("v", NDArray::from_i64({1})), Attr::make_tensor("v", NDArray::from_i64({1}, dt::INT32)));
  Attr g1, g2;
  g1.name = g2.name = "then_branch";
  g1.kind = g2.kind = Attr::GRAPH;
  g1.opaque = "abc";
  g2.opaque = "abd";
  EXPECT_NE(g1, g2);
  g2.opaque = "abc";
  EXPECT_EQ(g1, g2);
  // The value of another kind does not count.
  Attr i1 = Attr::make_int("k", 3), i2 = Attr::make_int("k", 3);
  i2.f = 9.f;
  EXPECT_EQ(i1, i2);
}
