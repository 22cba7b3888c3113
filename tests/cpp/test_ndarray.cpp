#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>

#include <xtensor/xmanipulation.hpp>

#include "host/attr.h"
#include "host/ndarray.h"
#include "host/xarray_bridge.h"

using namespace tolm;

TEST(NDArrayTypes, SizesAndNames) {
  EXPECT_EQ(dtype_size(dt::FLOAT), 4u);
  EXPECT_EQ(dtype_size(dt::FLOAT16), 2u);
  EXPECT_EQ(dtype_size(dt::BFLOAT16), 2u);
  EXPECT_EQ(dtype_size(dt::INT64), 8u);
  EXPECT_EQ(dtype_size(dt::BOOL), 1u);
  EXPECT_EQ(dtype_size(dt::COMPLEX128), 16u);
  EXPECT_EQ(dtype_size(dt::STRING), 0u);
  EXPECT_EQ(dtype_size(12345), 0u);
  EXPECT_EQ(dtype_name(dt::FLOAT), "float32");
  EXPECT_EQ(dtype_name(dt::DOUBLE), "float64");
  EXPECT_EQ(dtype_name(dt::FLOAT16), "float16");
  EXPECT_EQ(dtype_name(dt::INT64), "int64");
  EXPECT_EQ(dtype_name(dt::BOOL), "bool");
  EXPECT_TRUE(dtype_is_float(dt::BFLOAT16));
  EXPECT_FALSE(dtype_is_float(dt::INT8));
  EXPECT_TRUE(dtype_is_integer(dt::UINT64));
  EXPECT_FALSE(dtype_is_integer(dt::BOOL));
  EXPECT_EQ(shape_size({}), 1);
  EXPECT_EQ(shape_size({2, 3, 4}), 24);
  EXPECT_EQ(shape_size({2, 0}), 0);
}

TEST(NDArrayTypes, HalfKnownValues) {
  EXPECT_EQ(float_to_half(1.0f), 0x3c00);
  EXPECT_EQ(float_to_half(-2.0f), 0xc000);
  EXPECT_EQ(float_to_half(65504.0f), 0x7bff);
  EXPECT_EQ(float_to_half(65520.0f), 0x7c00);  // rounds to infinity
  EXPECT_EQ(float_to_half(1e10f), 0x7c00);
  EXPECT_EQ(float_to_half(-std::numeric_limits<float>::infinity()), 0xfc00);
  EXPECT_EQ(float_to_half(std::ldexp(1.0f, -24)), 0x0001);  // smallest subnormal
  EXPECT_EQ(float_to_half(std::ldexp(1.0f, -25)), 0x0000);  // tie to even
  EXPECT_EQ(float_to_half(std::ldexp(1.5f, -25)), 0x0001);
  EXPECT_EQ(float_to_half(-0.0f), 0x8000);
  EXPECT_EQ(float_to_half(1.0f + std::ldexp(1.0f, -11)), 0x3c00);        // tie -> even
  EXPECT_EQ(float_to_half(1.0f + 3 * std::ldexp(1.0f, -11)), 0x3c02);    // tie -> even
  EXPECT_TRUE(std::isnan(half_to_float(float_to_half(std::nanf("")))));
  EXPECT_EQ(half_to_float(0x3555), 0.333251953125f);
  EXPECT_EQ(half_to_float(0x0400), std::ldexp(1.0f, -14));
}

TEST(NDArrayTypes, HalfRoundTripAllPatterns) {
  for (uint32_t h = 0; h < 0x10000; ++h) {
    const float f = half_to_float(static_cast<uint16_t>(h));
    if (std::isnan(f)) continue;
    ASSERT_EQ(float_to_half(f), h) << std::hex << h;
  }
}

TEST(NDArrayTypes, BFloat16) {
  EXPECT_EQ(float_to_bfloat16(1.0f), 0x3f80);
  EXPECT_EQ(bfloat16_to_float(0x3f80), 1.0f);
  EXPECT_EQ(bfloat16_to_float(float_to_bfloat16(3.140625f)), 3.140625f);
  EXPECT_TRUE(std::isnan(bfloat16_to_float(float_to_bfloat16(std::nanf("")))));
  for (uint32_t h = 0; h < 0x10000; ++h) {
    const float f = bfloat16_to_float(static_cast<uint16_t>(h));
    if (std::isnan(f)) continue;
    ASSERT_EQ(float_to_bfloat16(f), h);
  }
}

TEST(NDArray, ConstructAndConvert) {
  NDArray a = NDArray::from_i64({1, -2, 3});
  EXPECT_EQ(a.dtype(), dt::INT64);
  EXPECT_EQ(a.shape(), Shape({3}));
  EXPECT_EQ(a.to_i64(), std::vector<int64_t>({1, -2, 3}));
  EXPECT_EQ(a.to_f64(), std::vector<double>({1, -2, 3}));

  NDArray f = NDArray::from_f64({1.5, -2.5, 0.25, 4}, {2, 2}, dt::FLOAT16);
  EXPECT_EQ(f.raw().size(), 8u);
  EXPECT_EQ(f.to_f64(), std::vector<double>({1.5, -2.5, 0.25, 4}));
  EXPECT_EQ(f.to_i64(), std::vector<int64_t>({1, -2, 0, 4}));  // truncation
  EXPECT_DOUBLE_EQ(f.f64_at(1), -2.5);
  EXPECT_EQ(f.i64_at(3), 4);
  EXPECT_THROW(f.f64_at(4), std::out_of_range);

  NDArray s = NDArray::scalar_f64(2.0, dt::DOUBLE);
  EXPECT_EQ(s.ndim(), 0u);
  EXPECT_EQ(s.size(), 1);
  EXPECT_EQ(NDArray::scalar_i64(7, dt::INT32).i64_at(0), 7);

  EXPECT_THROW(NDArray(dt::FLOAT, {2}, std::vector<uint8_t>(7)), std::invalid_argument);
  EXPECT_THROW(NDArray::from_i64({1, 2}, Shape{3}), std::invalid_argument);

  NDArray str = NDArray::from_strings({"a", "bc"}, {2});
  EXPECT_EQ(str.dtype(), dt::STRING);
  EXPECT_EQ(str.strings()[1], "bc");
  EXPECT_THROW(str.to_f64(), std::invalid_argument);
}

TEST(NDArray, Astype) {
  NDArray f = NDArray::from_f64({-1.7, 0.0, 2.9, 300.0}, {4}, dt::FLOAT);
  EXPECT_EQ(f.astype(dt::INT32).to_i64(), std::vector<int64_t>({-1, 0, 2, 300}));
  EXPECT_EQ(f.astype(dt::UINT8).to_i64(), std::vector<int64_t>({255, 0, 2, 44}));  // C-style wrap
  EXPECT_EQ(f.astype(dt::BOOL).to_i64(), std::vector<int64_t>({1, 0, 1, 1}));
  NDArray h = f.astype(dt::FLOAT16);
  EXPECT_EQ(h.dtype(), dt::FLOAT16);
  EXPECT_NEAR(h.f64_at(0), -1.7, 1e-3);
  EXPECT_EQ(h.astype(dt::FLOAT).astype(dt::FLOAT16), h);
  NDArray i = NDArray::from_i64({-1, 256, 7});
  EXPECT_EQ(i.astype(dt::UINT8).to_i64(), std::vector<int64_t>({255, 0, 7}));
  EXPECT_EQ(i.astype(dt::DOUBLE).to_f64(), std::vector<double>({-1, 256, 7}));
  NDArray u = NDArray::from_i64({-1}, dt::UINT64);  // 2^64 - 1
  EXPECT_DOUBLE_EQ(u.astype(dt::DOUBLE).f64_at(0), 18446744073709551615.0);
  EXPECT_EQ(i.astype(dt::INT64), i);
  EXPECT_THROW(i.astype(dt::STRING), std::invalid_argument);
}

TEST(NDArray, ReshapedAndCompare) {
  NDArray a = NDArray::from_i64({1, 2, 3, 4, 5, 6});
  NDArray b = a.reshaped({2, 3});
  EXPECT_EQ(b.shape(), Shape({2, 3}));
  EXPECT_EQ(b.raw(), a.raw());
  EXPECT_EQ(a.reshaped({3, -1}).shape(), Shape({3, 2}));
  EXPECT_THROW(a.reshaped({4}), std::invalid_argument);
  EXPECT_NE(a, b);
  EXPECT_EQ(b, a.reshaped({2, 3}));
  EXPECT_NE(a, a.astype(dt::INT32));
  EXPECT_TRUE(NDArray::from_f64({1, 1}, {2}, dt::FLOAT).all_equal(1.0));
  EXPECT_FALSE(a.all_equal(1.0));
  EXPECT_TRUE(a.any_less(2));
  EXPECT_FALSE(a.any_less(1));
  EXPECT_TRUE(a.any_greater(5));
  EXPECT_FALSE(a.any_greater(6));
  NDArray empty = NDArray::from_i64({});
  EXPECT_TRUE(empty.all_equal(3));
  EXPECT_FALSE(empty.any_less(3));
}

TEST(XArrayBridge, RoundTripAndCompute) {
  NDArray a = NDArray::from_f64({0, 1, 2, 3, 4, 5}, {2, 3}, dt::FLOAT);
  xt::xarray<float> x = to_xarray<float>(a);
  ASSERT_EQ(x.dimension(), 2u);
  EXPECT_EQ(x(1, 2), 5.f);
  xt::xarray<float> t = xt::transpose(x);
  NDArray back = from_xarray<float>(t, dt::FLOAT);
  EXPECT_EQ(back.shape(), Shape({3, 2}));
  EXPECT_EQ(back.to_f64(), std::vector<double>({0, 3, 1, 4, 2, 5}));
  EXPECT_EQ(from_xarray<float>(x, dt::FLOAT), a);

  // Cross-type: int64 view of a float16 array, and back as int32.
  NDArray h = NDArray::from_f64({1.5, -2.5}, {2}, dt::FLOAT16);
  xt::xarray<int64_t> xi = to_xarray<int64_t>(h);
  EXPECT_EQ(xi(0), 1);
  EXPECT_EQ(xi(1), -2);
  NDArray i32 = from_xarray<int64_t>(xi, dt::INT32);
  EXPECT_EQ(i32.dtype(), dt::INT32);
  EXPECT_EQ(i32.to_i64(), std::vector<int64_t>({1, -2}));
  NDArray hf = from_xarray<double>(to_xarray<double>(h), dt::FLOAT16);
  EXPECT_EQ(hf, h);

  xt::xarray<bool> xb = to_xarray<bool>(NDArray::from_i64({0, 3}));
  EXPECT_FALSE(xb(0));
  EXPECT_TRUE(xb(1));
  NDArray nb = from_xarray<bool>(xb, dt::BOOL);
  EXPECT_EQ(nb.dtype(), dt::BOOL);
  EXPECT_EQ(nb.to_i64(), std::vector<int64_t>({0, 1}));

  NDArray sc = NDArray::scalar_i64(9);
  xt::xarray<int64_t> xs = to_xarray<int64_t>(sc);
  EXPECT_EQ(xs.dimension(), 0u);
  EXPECT_EQ(from_xarray<int64_t>(xs, dt::INT64), sc);
}

TEST(Attr, FactoriesAndEquality) {
  EXPECT_EQ(Attr::make_int("axis", 1), Attr::make_int("axis", 1));
  EXPECT_NE(Attr::make_int("axis", 1), Attr::make_int("axis", 2));
  EXPECT_NE(Attr::make_int("axis", 1), Attr::make_int("other", 1));
  EXPECT_NE(Attr::make_int("a", 1), Attr::make_float("a", 1.f));
  EXPECT_EQ(Attr::make_float("alpha", 0.5f).f, 0.5f);
  EXPECT_EQ(Attr::make_string("mode", "x").kind, Attr::STRING);
  EXPECT_EQ(Attr::make_ints("perm", {0, 2, 1}), Attr::make_ints("perm", {0, 2, 1}));
  EXPECT_NE(Attr::make_ints("perm", {0, 2, 1}), Attr::make_ints("perm", {0, 1, 2}));
  EXPECT_EQ(Attr::make_floats("s", {1.f}), Attr::make_floats("s", {1.f}));
  EXPECT_EQ(Attr::make_strings("s", {"a"}), Attr::make_strings("s", {"a"}));
  EXPECT_NE(Attr::make_strings("s", {"a"}), Attr::make_strings("s", {"b"}));
  EXPECT_EQ(Attr::make_tensor("value", NDArray::from_i64({1})), Attr::make_tensor("value", NDArray::from_i64({1})));
  EXPECT_NE(Attr::make_tensor("value", NDArray::from_i64({1})),
            Attr::make_tensor("value", NDArray::from_i64({1}, dt::INT32)));
  Attr g1, g2;
  g1.name = g2.name = "then_branch";
  g1.kind = g2.kind = Attr::GRAPH;
  g1.opaque = "abc";
  g2.opaque = "abc";
  EXPECT_EQ(g1, g2);
  g2.opaque = "abd";
  EXPECT_NE(g1, g2);
  // The value of another kind does not count.
  Attr i1 = Attr::make_int("k", 3), i2 = Attr::make_int("k", 3);
  i2.f = 9.f;
  EXPECT_EQ(i1, i2);
}
