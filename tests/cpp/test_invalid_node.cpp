// Invalid node removal: the guards that keep a node, variants the end-to-end
// tests do not reach, and the bypass at graph edges.
#include <gtest/gtest.h>

#include <functional>

#include "dead/dead.h"
#include "graph_dsl.h"

namespace tolm {
namespace {

using namespace testing_dsl;

// x[dims] -> Relu -> p -> <node under test "op"> -> y -> Sigmoid -> z (graph output).
// `p` has a producer, so a bypass rewires the Sigmoid to it.
struct Chain : TestGraph {
  NodePtr op, post;
  explicit Chain(const Shape& dims) {
    input("x", dims);
    node("Relu", {"x"}, {"p"});
    shape("p", dims);
  }
  void make(const std::string& type, const names& ins, std::initializer_list<A> attrs,
            const Shape& out) {
    op = node(type, ins, {"y"}, attrs, "op");
    post = node("Sigmoid", {"y"}, {"z"});
    shape("y", out).shape("z", out).output("z");
  }
  RuleResult run(QuantTable* q = nullptr) { return _p_remove_invalid_node(ir, {op}, q); }
};

struct Case {
  const char* what;
  Shape dims;
  std::function<void(Chain&)> build;
  const char* survivor;  // tensor the consumer reads afterwards; null: the node stays
};

// Index array that walks a [2, 3] tensor in row-major order.
const ints kGrid23{0, 0, 0, 1, 0, 2, 1, 0, 1, 1, 1, 2};

TEST(InvalidNodeOps, BypassedExactlyWhenOutputEqualsInput) {
  const std::vector<Case> cases = {
      // General gates.
      {"reshape of scalar", {}, [](Chain& c) { c.const_i64("s", {}, {0}); c.make("Reshape", {"p", "s"}, {}, {}); }, nullptr},
      {"reshape to new shape", {2, 3}, [](Chain& c) { c.const_i64("s", {3, 2}); c.make("Reshape", {"p", "s"}, {}, {3, 2}); }, nullptr},
      {"cast scalar to own type", {}, [](Chain& c) { c.make("Cast", {"p"}, {{"to", dt::FLOAT}}, {}); }, "p"},
      {"cast to other type", {}, [](Chain& c) { c.make("Cast", {"p"}, {{"to", dt::INT32}}, {}); }, nullptr},
      // Neutral constants, on either side.
      {"x + -0", {2, 3}, [](Chain& c) { c.const_f32("k", {-0.0f, -0.0f, -0.0f}); c.make("Add", {"p", "k"}, {}, {2, 3}); }, "p"},
      // -0 + +0 is +0: not the input.
      {"x + +0", {2, 3}, [](Chain& c) { c.const_f32("k", {0, 0, 0}); c.make("Add", {"p", "k"}, {}, {2, 3}); }, nullptr},
      {"0 - x", {2, 3}, [](Chain& c) { c.const_f32("k", {0, 0, 0, 0, 0, 0}, {2, 3}); c.make("Sub", {"k", "p"}, {}, {2, 3}); }, nullptr},
      {"x * [1,1,2]", {2, 3}, [](Chain& c) { c.const_f32("k", {1, 1, 2}); c.make("Mul", {"p", "k"}, {}, {2, 3}); }, nullptr},
      {"x + x", {2, 3}, [](Chain& c) { c.make("Add", {"p", "x"}, {}, {2, 3}); }, nullptr},
      // Clip at the 16-bit float limits still clamps larger float32 values and infinities.
      {"clip at half limits", {4}, [](Chain& c) { c.const_f32("lo", {-65504}).const_f32("hi", {65504}); c.make("Clip", {"p", "lo", "hi"}, {}, {4}); }, nullptr},
      {"clip low bound inside", {4}, [](Chain& c) { c.const_f32("lo", {-65503}).const_f32("hi", {65504}); c.make("Clip", {"p", "lo", "hi"}, {}, {4}); }, nullptr},
      {"clip without bounds", {4}, [](Chain& c) { c.make("Clip", {"p"}, {}, {4}); }, nullptr},
      {"clip low bound only", {4}, [](Chain& c) { c.const_f32("lo", {-70000}); c.make("Clip", {"p", "lo"}, {}, {4}); }, nullptr},
      // Where with a constant condition.
      {"where all false", {2, 3}, [](Chain& c) { c.const_i64("cond", {0, 0, 0, 0, 0, 0}, {2, 3}, dt::BOOL).input("o", {2, 3}); c.make("Where", {"cond", "o", "p"}, {}, {2, 3}); }, "p"},
      {"where picks broadcast branch", {2, 3}, [](Chain& c) { c.const_i64("cond", {0, 0, 0, 0, 0, 0}, {2, 3}, dt::BOOL).input("o", {3}); c.make("Where", {"cond", "p", "o"}, {}, {2, 3}); }, nullptr},
      {"where mixed", {2, 3}, [](Chain& c) { c.const_i64("cond", {1, 0, 1, 1, 1, 1}, {2, 3}, dt::BOOL).input("o", {2, 3}); c.make("Where", {"cond", "p", "o"}, {}, {2, 3}); }, nullptr},
      // Pad, Expand, Slice, Concat, Split, Resize.
      {"pad not constant", {1, 2, 3}, [](Chain& c) { c.input("pads", {6}, dt::INT64); c.make("Pad", {"p", "pads"}, {}, {1, 2, 3}); }, nullptr},
      {"pad in and crop out", {1, 2, 3}, [](Chain& c) { c.const_i64("pads", {0, 0, 1, 0, 0, -1}); c.make("Pad", {"p", "pads"}, {}, {1, 2, 3}); }, nullptr},
      {"expand to own shape", {2, 3}, [](Chain& c) { c.const_i64("s", {2, 3}); c.make("Expand", {"p", "s"}, {}, {2, 3}); }, nullptr},
      {"slice reversed", {2, 3}, [](Chain& c) { c.const_i64("b", {-1}).const_i64("e", {-3}).const_i64("a", {0}).const_i64("st", {-1}); c.make("Slice", {"p", "b", "e", "a", "st"}, {}, {2, 3}); }, nullptr},
      {"slice without steps", {2, 3}, [](Chain& c) { c.const_i64("b", {0}).const_i64("e", {2}); c.make("Slice", {"p", "b", "e"}, {}, {2, 3}); }, nullptr},
      {"resize crop", {1, 2, 4, 4}, [](Chain& c) { c.make("Resize", {"p"}, {{"coordinate_transformation_mode", "tf_crop_and_resize"}}, {1, 2, 4, 4}); }, nullptr},
      // Transpose, Relu, reductions.
      {"transpose of square", {3, 3}, [](Chain& c) { c.make("Transpose", {"p"}, {{"perm", ints{1, 0}}}, {3, 3}); }, nullptr},
      {"relu of graph input", {4}, [](Chain& c) { c.make("Relu", {"x"}, {}, {4}); }, nullptr},
      // Gather, GatherND, ScatterND.
      {"gather shuffled", {2, 4}, [](Chain& c) { c.const_i64("i", {0, 2, 1, 3}); c.make("Gather", {"p", "i"}, {{"axis", 1}}, {2, 4}); }, nullptr},
      {"gather of constant", {4}, [](Chain& c) { c.const_f32("d", {1, 2, 3, 4}).const_i64("i", {0, 1, 2, 3}); c.make("Gather", {"d", "i"}, {{"axis", 0}}, {4}); }, nullptr},
      {"gathernd grid", {2, 3}, [](Chain& c) { c.const_i64("i", kGrid23, {2, 3, 2}); c.make("GatherND", {"p", "i"}, {{"batch_dims", 0}}, {2, 3}); }, "p"},
      {"gathernd grid swapped", {2, 3}, [](Chain& c) { c.const_i64("i", {0, 0, 0, 2, 0, 1, 1, 0, 1, 1, 1, 2}, {2, 3, 2}); c.make("GatherND", {"p", "i"}, {{"batch_dims", 0}}, {2, 3}); }, nullptr},
      {"gathernd no batch_dims", {3, 4}, [](Chain& c) { c.const_i64("i", {0, 1, 2}, {3, 1}); c.make("GatherND", {"p", "i"}, {}, {3, 4}); }, nullptr},
      {"scatternd whole rows", {2, 3}, [](Chain& c) { c.input("base", {2, 3}).const_i64("i", {0, 1}, {2, 1}); c.make("ScatterND", {"base", "i", "p"}, {{"reduction", "none"}}, {2, 3}); }, "p"},
      {"scatternd rows swapped", {2, 3}, [](Chain& c) { c.input("base", {2, 3}).const_i64("i", {1, 0}, {2, 1}); c.make("ScatterND", {"base", "i", "p"}, {{"reduction", "none"}}, {2, 3}); }, nullptr},
      {"scatternd add onto zeros", {2, 3}, [](Chain& c) { c.const_f32("base", {0, 0, 0, 0, 0, 0}, {2, 3}).const_i64("i", kGrid23, {2, 3, 2}); c.make("ScatterND", {"base", "i", "p"}, {{"reduction", "add"}}, {2, 3}); }, "p"},
      {"scatternd add onto data", {2, 3}, [](Chain& c) { c.const_f32("base", {0, 0, 1, 0, 0, 0}, {2, 3}).const_i64("i", kGrid23, {2, 3, 2}); c.make("ScatterND", {"base", "i", "p"}, {{"reduction", "add"}}, {2, 3}); }, nullptr},
      // Batch norm and pools.
      {"bn scales", {1, 2, 3, 3}, [](Chain& c) { c.const_f32("s", {2, 1}).const_f32("b", {0, 0}).const_f32("m", {0, 0}).const_f32("v", {1, 1}); c.make("BatchNormalization", {"p", "s", "b", "m", "v"}, {}, {1, 2, 3, 3}); }, nullptr},
      {"avgpool 3x3 padded", {1, 2, 3, 3}, [](Chain& c) { c.make("AveragePool", {"p"}, {{"kernel_shape", ints{3, 3}}, {"strides", ints{1, 1}}, {"pads", ints{1, 1, 1, 1}}, {"dilations", ints{1, 1}}}, {1, 2, 3, 3}); }, nullptr},
      {"dataconvert same type", {4}, [](Chain& c) { c.make("exDataConvert", {"p"}, {{"i_dtype", "float32"}, {"o_dtype", "float32"}}, {4}); }, "p"},
      {"dataconvert other type", {4}, [](Chain& c) { c.make("exDataConvert", {"p"}, {{"i_dtype", "int8"}, {"o_dtype", "int16"}}, {4}); }, nullptr},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(k.what);
    Chain c(k.dims);
    k.build(c);
    RuleResult r = c.run();
    if (k.survivor == nullptr) {
      EXPECT_FALSE(r.applied());
      EXPECT_EQ(c.post->input[0], "y");
    } else {
      EXPECT_EQ(r.remove, NodeList{c.op});
      EXPECT_TRUE(r.add.empty());
      EXPECT_EQ(c.post->input[0], k.survivor);
    }
  }
}

TEST(InvalidNodeOps, DataConvertComparesQuantRanges) {
  auto run = [](QuantTable q) {
    Chain c({4});
    c.make("exDataConvert", {"p"}, {{"i_dtype", "int8"}, {"o_dtype", "int8"}}, {4});
    return c.run(&q).applied();
  };
  EXPECT_FALSE(run({{"p", {{-1.0}, {1.0}, "p"}}, {"y", {{-2.0}, {2.0}, "y"}}}));  // requantises
  EXPECT_TRUE(run({{"p", {{-1.0}, {1.0}, "p"}}, {"y", {{-1.0}, {1.0}, "y"}}}));
  EXPECT_TRUE(run({{"p", {{-1.0}, {1.0}, "p"}}}));  // no record for the output: dtypes decide
}

// ---- the bypass -------------------------------------------------------------

TEST(InvalidNodeBypass, ConsumerReadingTwiceIsRewiredTwice) {
  Chain c({2, 3});
  c.const_i64("s", {2, 3});
  c.make("Reshape", {"p", "s"}, {}, {2, 3});
  auto add = c.node("Add", {"y", "y"}, {"w"});
  c.output("w");
  EXPECT_EQ(c.run().remove, NodeList{c.op});
  EXPECT_EQ(add->input.names(), (names{"p", "p"}));
}

TEST(InvalidNodeBypass, GraphOutputNameMovesToSurvivorsProducer) {
  TestGraph t;
  t.input("x", {2, 3}).const_i64("s", {2, 3});
  auto pre = t.node("Relu", {"x"}, {"p"});
  auto other = t.node("Exp", {"p"}, {"e"});
  auto rs = t.node("Reshape", {"p", "s"}, {"y"});
  t.shape("p", {2, 3}).shape("y", {2, 3}).shape("e", {2, 3}).output("y").output("e");

  RuleResult r = _p_remove_invalid_node(t.ir, {rs}, nullptr);
  EXPECT_EQ(r.remove, NodeList{rs});
  EXPECT_EQ(pre->output[0], "y");
  EXPECT_EQ(other->input[0], "y");
  apply(t.ir, r);
  EXPECT_EQ(t.producer("y"), pre);
  EXPECT_EQ(t.readers("y"), names{"e"});
  EXPECT_EQ(t.ir.use_count("p"), 0u);
}

TEST(InvalidNodeBypass, GraphOutputOverGraphInputOrConstantStays) {
  {
    TestGraph t;
    t.input("x", {2, 3}).const_i64("s", {2, 3});
    auto rs = t.node("Reshape", {"x", "s"}, {"y"});
    t.shape("y", {2, 3}).output("y");
    EXPECT_FALSE(_p_remove_invalid_node(t.ir, {rs}, nullptr).applied());
    EXPECT_EQ(rs->output[0], "y");
  }
  {
    // Where picks a constant branch: no producer can take the output name.
    TestGraph t;
    t.input("x", {2}).const_i64("cond", {0, 0}, {2}, dt::BOOL).const_f32("k", {1, 2});
    auto w = t.node("Where", {"cond", "x", "k"}, {"y"});
    t.shape("y", {2}).output("y");
    EXPECT_FALSE(_p_remove_invalid_node(t.ir, {w}, nullptr).applied());
  }
}

}  // namespace
}  // namespace tolm
