// Slices of one tensor, each followed by a like exNorm: the exNorm moves
// ahead of the slices. exNorm is the compiler's own op, so these tests look
// at the wiring rather than at numbers.
#include <gtest/gtest.h>

#include "dead/dead.h"
#include "graph_dsl.h"

namespace tolm {
namespace {

using namespace testing_dsl;

// x [1, 8, 6, 4] -> Slice k (axis `slice_axis`, rows 3k..3k+2) -> exNorm k -> yk.
struct SlicedNorms : TestGraph {
  NodePtr slice0, norm0;
  explicit SlicedNorms(int64_t slice_axis = 2, double eps1 = 1e-5, int64_t step = 1, bool extra_reader = false) {
    input("x", {1, 8, 6, 4});
    const_i64("ax", {slice_axis});
    const_i64("st", {step});
    for (int k = 0; k < 2; ++k) {
      const std::string s = std::to_string(k);
      const_i64("b" + s, {3 * k});
      const_i64("e" + s, {3 * k + 3});
      NodePtr sl = node("Slice", {"x", "b" + s, "e" + s, "ax", "st"}, {"s" + s}, {}, "slice" + s);
      NodePtr nm = node("exNorm", {"s" + s}, {"y" + s},
                        {{"axes", ints{1}}, {"eps", k == 0 ? 1e-5 : eps1}, {"mode", "ln"}}, "norm" + s);
      shape("s" + s, {1, 8, 3, 4}).shape("y" + s, {1, 8, 3, 4}).output("y" + s);
      if (k == 0) slice0 = sl, norm0 = nm;
    }
    if (extra_reader) {
      node("Neg", {"s1"}, {"z"}, {}, "neg");
      shape("z", {1, 8, 3, 4}).output("z");
    }
  }
  RuleResult run() { return _p_merge_parallel_slice_exnorm(ir, {slice0, norm0}, nullptr); }
};

TEST(ParallelSliceExNorm, OneNormAheadOfTheSlices) {
  SlicedNorms t;
  const RuleResult res = t.run();
  ASSERT_TRUE(res.applied());
  EXPECT_EQ(node_names(res.remove), (names{"norm0", "norm1"}));
  ASSERT_EQ(res.add.size(), 1u);
  const NodePtr& norm = res.add[0];
  EXPECT_EQ(norm->name(), "norm0_swap_parallel_slice_exnorm");
  EXPECT_EQ(norm->input.names(), names{"x"});
  EXPECT_EQ(IR::get_attr_ints(*norm, "axes"), ints{1});
  apply(t.ir, res);
  // The slices read the normalised tensor and now make the graph outputs.
  for (const char* s : {"slice0", "slice1"}) {
    const NodePtr sl = t.ir.find_node(s);
    EXPECT_EQ(sl->input[0], norm->output[0]);
  }
  EXPECT_EQ(t.producer("y0")->name(), "slice0");
  EXPECT_EQ(t.producer("y1")->name(), "slice1");
}

TEST(ParallelSliceExNorm, StaysWhereTheMoveWouldChangeWhatIsComputed) {
  struct Case {
    const char* why;
    SlicedNorms graph;
  };
  Case cases[] = {
      {"slices cut the normalised axis", SlicedNorms(1)},
      {"exNorm attributes differ", SlicedNorms(2, 1e-6)},
      {"a slice with step 2", SlicedNorms(2, 1e-5, 2)},
      {"a slice read by another node too", SlicedNorms(2, 1e-5, 1, true)},
  };
  for (Case& c : cases) {
    SCOPED_TRACE(c.why);
    EXPECT_FALSE(c.graph.run().applied());
    EXPECT_EQ(c.graph.producer("y1")->name(), "norm1");
  }
}

}  // namespace
}  // namespace tolm
