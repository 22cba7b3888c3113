// A Reshape pair around a Mul whose rewrite must not feed itself: the tables
// reach a fixed point. (The shapes recorded for pieces of a Split that change
// layout are checked by the full checker in the Python rule tests.)
#include <gtest/gtest.h>

#include "graph_dsl.h"
#include "reduce/driver.h"

namespace tolm {
namespace {

using namespace testing_dsl;

TEST(ReshapeAfterAdd, TablesReachAFixedPoint) {
  TestGraph t;
  t.input("x", {81, 128});
  t.const_i64("mid", {81, 1, 128}).const_i64("back", {81, 128});
  t.constant("c", NDArray::from_f64(std::vector<double>(81 * 128, 0.5), {81, 1, 128}));
  t.node("Reshape", {"x", "mid"}, {"m"});
  t.node("Mul", {"m", "c"}, {"a"});
  t.node("Reshape", {"a", "back"}, {"y"});
  t.shape("m", {81, 1, 128}).shape("a", {81, 1, 128}).shape("y", {81, 128}).output("y");
  DriverOptions opts;
  opts.only = {"remove_reshape_after_mul"};
  opts.fold = false;
  EXPECT_EQ(run_reduce(t.ir, nullptr, opts).fired["remove_reshape_after_mul"], 1);
  EXPECT_EQ(op_types(t.ir), names{"Mul"});
  EXPECT_EQ(t.ir.get_shape(t.ir.producer("y")->input[1]), (Shape{81, 128}));
  EXPECT_EQ(run_reduce(t.ir, nullptr, opts).rewrites, 0);
}

}  // namespace
}  // namespace tolm
