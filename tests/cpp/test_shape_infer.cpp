#include <gtest/gtest.h>

#include "host/ir.h"
#include "host/onnx_io.h"
#include "host/shape_infer.h"
#include "onnx_model_util.h"

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

}  // namespace

TEST(ShapeInfer, ReshapeFromConstantShape) {
  IR ir;
  input(ir, "x", {2, 3, 4});
  ir.set_const("shape", NDArray::from_i64({0, -1}));
  NodePtr n = add(ir, "Reshape", {"x", "shape"}, {"y"});
  EXPECT_TRUE(infer_node(ir, *n));
  EXPECT_EQ(ir.get_shape("y"), Shape({2, 12}));
  EXPECT_EQ(ir.get_dtype("y"), dt::FLOAT);
}

TEST(ShapeInfer, ReshapeWithoutShapeValueFails) {
  IR ir;
  input(ir, "x", {2, 3, 4});
  input(ir, "s", {2}, dt::INT64);
  NodePtr n = add(ir, "Reshape", {"x", "s"}, {"y"});
  EXPECT_FALSE(infer_node(ir, *n));
  EXPECT_FALSE(ir.has_shape("y"));
  EXPECT_EQ(ir.get_dtype("y"), dt::FLOAT);  // the type is known all the same
}

TEST(ShapeInfer, Transpose) {
  IR ir;
  input(ir, "x", {2, 3, 4}, dt::FLOAT16);
  NodePtr n = add(ir, "Transpose", {"x"}, {"y"}, {Attr::make_ints("perm", {2, 0, 1})});
  EXPECT_TRUE(infer_node(ir, *n));
  EXPECT_EQ(ir.get_shape("y"), Shape({4, 2, 3}));
  EXPECT_EQ(ir.get_dtype("y"), dt::FLOAT16);
  NodePtr d = add(ir, "Transpose", {"x"}, {"z"});  // default: reversed
  EXPECT_TRUE(infer_node(ir, *d));
  EXPECT_EQ(ir.get_shape("z"), Shape({4, 3, 2}));
}

TEST(ShapeInfer, Conv) {
  IR ir;
  input(ir, "x", {1, 3, 32, 32});
  ir.set_const("w", NDArray::from_f64(std::vector<double>(16 * 3 * 3 * 3, 0.5), {16, 3, 3, 3}, dt::FLOAT));
  ir.set_const("b", NDArray::from_f64(std::vector<double>(16, 0.0), {16}, dt::FLOAT));
  NodePtr n = add(ir, "Conv", {"x", "w", "b"}, {"y"},
                  {Attr::make_ints("kernel_shape", {3, 3}), Attr::make_ints("pads", {1, 1, 1, 1}),
                   Attr::make_ints("strides", {2, 2})});
  EXPECT_TRUE(infer_node(ir, *n));
  EXPECT_EQ(ir.get_shape("y"), Shape({1, 16, 16, 16}));
}

TEST(ShapeInfer, OverwriteAndKeep) {
  IR ir;
  input(ir, "x", {2, 3});
  NodePtr n = add(ir, "Relu", {"x"}, {"y"});
  ir.set_shape("y", {6}, false, dt::FLOAT);
  EXPECT_TRUE(infer_node(ir, *n));
  EXPECT_EQ(ir.get_shape("y"), Shape({6}));  // held shapes stay
  EXPECT_TRUE(infer_node(ir, *n, true));
  EXPECT_EQ(ir.get_shape("y"), Shape({2, 3}));
}

TEST(ShapeInfer, FailuresReturnFalse) {
  IR ir;
  input(ir, "x", {2, 3});
  NodePtr unknown = add(ir, "NoSuchOp", {"x"}, {"y"});
  EXPECT_FALSE(infer_node(ir, *unknown));
  ir.add_graph_input("u");  // no shape, no type
  NodePtr relu = add(ir, "Relu", {"u"}, {"z"});
  EXPECT_FALSE(infer_node(ir, *relu));
  EXPECT_FALSE(ir.has_shape("z"));
  // Bad attributes make ONNX's inference throw: caught.
  NodePtr bad = add(ir, "Transpose", {"x"}, {"t"}, {Attr::make_ints("perm", {0, 5})});
  EXPECT_FALSE(infer_node(ir, *bad));
  NodePtr mm = add(ir, "MatMul", {"x", "x"}, {"m"});
  EXPECT_FALSE(infer_node(ir, *mm));
}

TEST(ShapeInfer, ExDataConvert) {
  IR ir;
  input(ir, "x", {2, 3});
  NodePtr a = add(ir, "exDataConvert", {"x"}, {"a"},
                  {Attr::make_string("i_dtype", "float32"), Attr::make_string("o_dtype", "int4")});
  EXPECT_TRUE(infer_node(ir, *a));
  EXPECT_EQ(ir.get_shape("a"), Shape({2, 3}));
  EXPECT_EQ(ir.get_dtype("a"), dt::INT8);
  NodePtr b = add(ir, "exDataConvert", {"a"}, {"b"}, {Attr::make_string("o_dtype", "float16")});
  EXPECT_TRUE(infer_node(ir, *b));
  EXPECT_EQ(ir.get_dtype("b"), dt::FLOAT16);
  NodePtr c = add(ir, "exDataConvert", {"b"}, {"c"}, {Attr::make_string("o_dtype", "int6")});
  EXPECT_TRUE(infer_node(ir, *c));
  EXPECT_EQ(ir.get_dtype("c"), dt::INT8);
  NodePtr d = add(ir, "exDataConvert", {"c"}, {"d"}, {Attr::make_string("o_dtype", "something")});
  EXPECT_TRUE(infer_node(ir, *d));
  EXPECT_EQ(ir.get_dtype("d"), dt::INT8);
  NodePtr e = add(ir, "exDataConvert", {"x"}, {"e"}, {Attr::make_string("o_dtype", "uint8")});
  EXPECT_TRUE(infer_node(ir, *e));
  EXPECT_EQ(ir.get_dtype("e"), dt::UINT8);
  NodePtr f = add(ir, "exDataConvert", {"x"}, {"f"}, {Attr::make_string("o_dtype", "int16")});
  EXPECT_TRUE(infer_node(ir, *f));
  EXPECT_EQ(ir.get_dtype("f"), dt::INT16);
  NodePtr g = add(ir, "exDataConvert", {"f"}, {"g"}, {Attr::make_string("o_dtype", "int32")});
  EXPECT_TRUE(infer_node(ir, *g));
  EXPECT_EQ(ir.get_dtype("g"), dt::INT32);
  NodePtr h = add(ir, "exDataConvert", {"g"}, {"h"}, {Attr::make_string("o_dtype", "float32")});
  EXPECT_TRUE(infer_node(ir, *h));
  EXPECT_EQ(ir.get_dtype("h"), dt::FLOAT);
}

TEST(ShapeInfer, ExMatMul) {
  IR ir;
  input(ir, "a", {2, 1, 4, 8});
  input(ir, "b", {3, 8, 5});
  input(ir, "v", {8});
  input(ir, "bad", {7, 5});
  NodePtr m = add(ir, "exMatMul", {"a", "b"}, {"m"});
  EXPECT_TRUE(infer_node(ir, *m));
  EXPECT_EQ(ir.get_shape("m"), Shape({2, 3, 4, 5}));
  NodePtr mv = add(ir, "exMatMul", {"a", "v"}, {"mv"});
  EXPECT_TRUE(infer_node(ir, *mv));
  EXPECT_EQ(ir.get_shape("mv"), Shape({2, 1, 4}));
  NodePtr vm = add(ir, "exMatMul", {"v", "b"}, {"vm"});
  EXPECT_TRUE(infer_node(ir, *vm));
  EXPECT_EQ(ir.get_shape("vm"), Shape({3, 5}));
  NodePtr vv = add(ir, "exMatMul", {"v", "v"}, {"vv"});
  EXPECT_TRUE(infer_node(ir, *vv));
  EXPECT_EQ(ir.get_shape("vv"), Shape({}));
  EXPECT_TRUE(ir.has_shape("vv"));
  NodePtr bad = add(ir, "exMatMul", {"a", "bad"}, {"x"});
  EXPECT_FALSE(infer_node(ir, *bad));
  EXPECT_FALSE(ir.has_shape("x"));
  EXPECT_EQ(ir.get_dtype("m"), dt::FLOAT);
}

TEST(ShapeInfer, ExSameShapeOps) {
  IR ir;
  input(ir, "x", {1, 8, 16}, dt::FLOAT16);
  for (const char* op : {"exNorm", "exSoftmax13", "exSwish"}) {
    const std::string out = std::string(op) + "_out";
    NodePtr n = add(ir, op, {"x"}, {out}, {Attr::make_ints("axes", {-1})});
    EXPECT_TRUE(infer_node(ir, *n)) << op;
    EXPECT_EQ(ir.get_shape(out), Shape({1, 8, 16})) << op;
    EXPECT_EQ(ir.get_dtype(out), dt::FLOAT16) << op;
  }
  ir.add_graph_input("u");
  ir.set_dtype("u", dt::FLOAT);
  NodePtr n = add(ir, "exSwish", {"u"}, {"su"});
  EXPECT_FALSE(infer_node(ir, *n));
  EXPECT_EQ(ir.get_dtype("su"), dt::FLOAT);
}

TEST(ShapeInfer, ExGlu) {
  IR ir;
  input(ir, "x", {2, 6, 10});
  NodePtr a = add(ir, "exGlu", {"x"}, {"a"});
  EXPECT_TRUE(infer_node(ir, *a));
  EXPECT_EQ(ir.get_shape("a"), Shape({2, 6, 5}));
  NodePtr b = add(ir, "exGlu", {"x"}, {"b"}, {Attr::make_int("axis", 1)});
  EXPECT_TRUE(infer_node(ir, *b));
  EXPECT_EQ(ir.get_shape("b"), Shape({2, 3, 10}));
  NodePtr c = add(ir, "exGlu", {"x"}, {"c"}, {Attr::make_int("axis", -3)});
  EXPECT_TRUE(infer_node(ir, *c));
  EXPECT_EQ(ir.get_shape("c"), Shape({1, 6, 10}));
  NodePtr d = add(ir, "exGlu", {"x"}, {"d"}, {Attr::make_int("axis", 3)});
  EXPECT_FALSE(infer_node(ir, *d));
}

TEST(ShapeInfer, ShapeComputationReachesReshape) {
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
  infer_missing(ir);
  EXPECT_EQ(ir.get_shape("s"), Shape({3}));
  EXPECT_EQ(ir.get_shape("target"), Shape({2}));
  EXPECT_EQ(ir.get_shape("y"), Shape({4, 48}));
}

TEST(ShapeInfer, ReduceAxesAsInputFromOpset18) {
  IR ir;
  ir.set_opset(18);
  input(ir, "x", {2, 3, 4});
  ir.set_const("axes", NDArray::from_i64({1, -1}));
  NodePtr a = add(ir, "ReduceMean", {"x", "axes"}, {"a"});
  EXPECT_TRUE(infer_node(ir, *a));
  EXPECT_EQ(ir.get_shape("a"), Shape({2, 1, 1}));
  NodePtr b = add(ir, "ReduceMax", {"x", "axes"}, {"b"}, {Attr::make_int("keepdims", 0)});
  EXPECT_TRUE(infer_node(ir, *b));
  EXPECT_EQ(ir.get_shape("b"), Shape({2}));
  NodePtr c = add(ir, "ReduceMin", {"x"}, {"c"}, {Attr::make_int("keepdims", 0)});
  EXPECT_TRUE(infer_node(ir, *c));
  EXPECT_EQ(ir.get_shape("c"), Shape({}));
  NodePtr s = add(ir, "ReduceSum", {"x", "axes"}, {"s"});
  EXPECT_TRUE(infer_node(ir, *s));
  EXPECT_EQ(ir.get_shape("s"), Shape({2, 1, 1}));
}

TEST(ShapeInfer, InferMissingFillsOnlyUnknown) {
  IR ir;
  input(ir, "x", {2, 3});
  add(ir, "Relu", {"x"}, {"r"});
  add(ir, "Transpose", {"r"}, {"t"});
  add(ir, "exGlu", {"t"}, {"g"}, {Attr::make_int("axis", 1)});
  ir.set_shape("r", {2, 3}, false, dt::FLOAT);
  infer_missing(ir);
  EXPECT_EQ(ir.get_shape("t"), Shape({3, 2}));
  EXPECT_EQ(ir.get_shape("g"), Shape({3, 1}));
}
