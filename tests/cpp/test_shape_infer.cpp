#include <gtest/gtest.h>

#include <optional>

#include "host/ir.h"
#include "host/shape_infer.h"

using namespace tolm;

namespace {

NodePtr add(IR& ir, const std::string& op, const std::vector<std::string>& ins,
            const std::vector<std::string>& outs, const std::vector<Attr>& attrs = {}) {
  NodePtr n = Node::make(op, ins, outs, op + "_" + outs[0], attrs);
  ir.add_node(n);
  return n;
}

void input(IR& ir, const std::string& t, const Shape& s, int32_t dtype = dt::FLOAT) {
  ir.add_graph_input(t);
  ir.set_shape(t, s, false, dtype);
}

// One node per case; nullopt means inference must fail and leave no shape.
struct Case {
  std::string op;
  std::vector<std::string> ins;
  std::vector<Attr> attrs;
  std::optional<Shape> shape;
  int32_t dtype = dt::FLOAT;
};

void check_cases(IR& ir, const std::vector<Case>& cases) {
  for (size_t k = 0; k < cases.size(); ++k) {
    const Case& c = cases[k];
    const std::string out = "out" + std::to_string(k);
    NodePtr n = add(ir, c.op, c.ins, {out}, c.attrs);
    EXPECT_EQ(infer_node(ir, *n), c.shape.has_value()) << c.op << " #" << k;
    EXPECT_EQ(ir.has_shape(out), c.shape.has_value()) << c.op << " #" << k;
    if (c.shape) {
      EXPECT_EQ(ir.get_shape(out), *c.shape) << c.op << " #" << k;
    }
    if (c.dtype) {
      EXPECT_EQ(ir.get_dtype(out), c.dtype) << c.op << " #" << k;
    }
  }
}

Attr o_dtype(const std::string& v) { return Attr::make_string("o_dtype", v); }

}  // namespace

TEST(ShapeInfer, OnnxOps) {
  IR ir;
  ir.set_opset(18);
  input(ir, "x", {2, 3, 4});
  input(ir, "h", {2, 3, 4}, dt::FLOAT16);
  input(ir, "img", {1, 3, 32, 32});
  input(ir, "s", {2}, dt::INT64);
  ir.add_graph_input("u");  // no shape, no type
  ir.set_const("shape", NDArray::from_i64({0, -1}));
  ir.set_const("axes", NDArray::from_i64({1, -1}));
  ir.set_const("w", NDArray::from_f64(std::vector<double>(16 * 27, 0.5), {16, 3, 3, 3}, dt::FLOAT));
  ir.set_const("b", NDArray::from_f64(std::vector<double>(16, 0.0), {16}, dt::FLOAT));
  const Attr keep0 = Attr::make_int("keepdims", 0);
  check_cases(ir, {
      {"Reshape", {"x", "shape"}, {}, Shape{2, 12}},
      {"Reshape", {"x", "s"}, {}, std::nullopt},  // the type is known all the same
      {"Transpose", {"h"}, {Attr::make_ints("perm", {2, 0, 1})}, Shape{4, 2, 3}, dt::FLOAT16},
      {"Transpose", {"x"}, {}, Shape{4, 3, 2}},  // default: reversed
      {"Conv", {"img", "w", "b"},
       {Attr::make_ints("kernel_shape", {3, 3}), Attr::make_ints("pads", {1, 1, 1, 1}),
        Attr::make_ints("strides", {2, 2})},
       Shape{1, 16, 16, 16}},
      // Reduce axes come as an input from opset 18.
      {"ReduceMean", {"x", "axes"}, {}, Shape{2, 1, 1}},
      {"ReduceSum", {"x", "axes"}, {}, Shape{2, 1, 1}},
      {"ReduceMax", {"x", "axes"}, {keep0}, Shape{2}},
      {"ReduceMin", {"x"}, {keep0}, Shape{}},
      // Failures return false, ONNX's throwing on bad attributes included.
      {"NoSuchOp", {"x"}, {}, std::nullopt, 0},
      {"Relu", {"u"}, {}, std::nullopt, 0},
      {"Transpose", {"x"}, {Attr::make_ints("perm", {0, 5})}, std::nullopt, 0},
      {"MatMul", {"img", "x"}, {}, std::nullopt, 0},
  });
}

TEST(ShapeInfer, CustomOps) {
  IR ir;
  input(ir, "x", {2, 3});
  input(ir, "a", {2, 1, 4, 8});
  input(ir, "b", {3, 8, 5});
  input(ir, "v", {8});
  input(ir, "bad", {7, 5});
  input(ir, "g", {2, 6, 10});
  input(ir, "h", {1, 8, 16}, dt::FLOAT16);
  ir.add_graph_input("u");
  ir.set_dtype("u", dt::FLOAT);
  const Attr axes = Attr::make_ints("axes", {-1});
  check_cases(ir, {
      {"exDataConvert", {"x"}, {Attr::make_string("i_dtype", "float32"), o_dtype("int4")}, Shape{2, 3}, dt::INT8},
      {"exDataConvert", {"x"}, {o_dtype("int6")}, Shape{2, 3}, dt::INT8},
      {"exDataConvert", {"out0"}, {o_dtype("something")}, Shape{2, 3}, dt::INT8},  // unknown: the input type
      {"exDataConvert", {"x"}, {o_dtype("float16")}, Shape{2, 3}, dt::FLOAT16},
      {"exDataConvert", {"x"}, {o_dtype("uint8")}, Shape{2, 3}, dt::UINT8},
      {"exDataConvert", {"x"}, {o_dtype("int16")}, Shape{2, 3}, dt::INT16},
      {"exDataConvert", {"x"}, {o_dtype("int32")}, Shape{2, 3}, dt::INT32},
      {"exDataConvert", {"out6"}, {o_dtype("float32")}, Shape{2, 3}, dt::FLOAT},
      {"exMatMul", {"a", "b"}, {}, Shape{2, 3, 4, 5}},
      {"exMatMul", {"a", "v"}, {}, Shape{2, 1, 4}},
      {"exMatMul", {"v", "b"}, {}, Shape{3, 5}},
      {"exMatMul", {"v", "v"}, {}, Shape{}},
      {"exMatMul", {"a", "bad"}, {}, std::nullopt, 0},
      {"exGlu", {"g"}, {}, Shape{2, 6, 5}},
      {"exGlu", {"g"}, {Attr::make_int("axis", 1)}, Shape{2, 3, 10}},
      {"exGlu", {"g"}, {Attr::make_int("axis", -3)}, Shape{1, 6, 10}},
      {"exGlu", {"g"}, {Attr::make_int("axis", 3)}, std::nullopt, 0},
      {"exNorm", {"h"}, {axes}, Shape{1, 8, 16}, dt::FLOAT16},
      {"exSoftmax13", {"h"}, {axes}, Shape{1, 8, 16}, dt::FLOAT16},
      {"exSwish", {"h"}, {axes}, Shape{1, 8, 16}, dt::FLOAT16},
      {"exSwish", {"u"}, {}, std::nullopt, dt::FLOAT},
  });
}

TEST(ShapeInfer, OverwriteKeepsHeldShapesUnlessAsked) {
  IR ir;
  input(ir, "x", {2, 3});
  NodePtr n = add(ir, "Relu", {"x"}, {"y"});
  ir.set_shape("y", {6}, false, dt::FLOAT);
  EXPECT_TRUE(infer_node(ir, *n));
  EXPECT_EQ(ir.get_shape("y"), Shape({6}));
  EXPECT_TRUE(infer_node(ir, *n, true));
  EXPECT_EQ(ir.get_shape("y"), Shape({2, 3}));
}

TEST(ShapeInfer, InferMissingFollowsShapeComputation) {
  // Shape -> Gather -> Unsqueeze -> Concat -> Reshape, as exporters write it.
  IR ir;
  ir.set_opset(13);
  input(ir, "x", {4, 6, 8});
  ir.set_const("i0", NDArray::scalar_i64(0));
  ir.set_const("ax0", NDArray::from_i64({0}));
  ir.set_const("m1", NDArray::from_i64({-1}));
  add(ir, "Shape", {"x"}, {"s"});
  add(ir, "Gather", {"s", "i0"}, {"d0"}, {Attr::make_int("axis", 0)});
  add(ir, "Unsqueeze", {"d0", "ax0"}, {"d0u"});
  add(ir, "Concat", {"d0u", "m1"}, {"target"}, {Attr::make_int("axis", 0)});
  add(ir, "Reshape", {"x", "target"}, {"y"});
  // A held shape stays and feeds what follows.
  add(ir, "Relu", {"y"}, {"r"});
  add(ir, "Transpose", {"r"}, {"t"});
  add(ir, "exGlu", {"t"}, {"g"}, {Attr::make_int("axis", 1)});
  ir.set_shape("r", {4, 2, 24}, false, dt::FLOAT);
  infer_missing(ir);
  EXPECT_EQ(ir.get_shape("target"), Shape({2}));
  EXPECT_EQ(ir.get_shape("y"), Shape({4, 48}));
  EXPECT_EQ(ir.get_shape("t"), Shape({24, 2, 4}));
  EXPECT_EQ(ir.get_shape("g"), Shape({24, 1, 4}));
}
