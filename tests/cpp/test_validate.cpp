// Models the loader must refuse, and near misses it must take.
#include <gtest/gtest.h>

#include "host/ir.h"
#include "host/onnx_io.h"
#include "onnx_model_util.h"

using namespace tolm;
using namespace testutil;
using TP = onnx::TensorProto;

namespace {

std::string load_error(const ModelBuilder& b, const LoadOptions& opt = {}) {
  try {
    load_model(b.bytes(), opt);
  } catch (const LoadError& e) {
    return e.what();
  }
  return "";
}

// x[dims] -> one node -> y, the node named "n".
ModelBuilder one_node(const std::optional<Dims>& dims, const std::string& op, const std::vector<std::string>& ins,
                      const std::vector<AP>& attrs = {}) {
  ModelBuilder b;
  b.input("x", TP::FLOAT, dims);
  b.output("y", TP::FLOAT, std::nullopt);
  b.node(op, ins, {"y"}, "n", attrs);
  return b;
}

ModelBuilder reshape(const std::optional<Dims>& dims, const std::vector<int64_t>& target, int64_t allowzero = -1) {
  ModelBuilder b = one_node(dims, "Reshape", {"x", "s"});
  if (allowzero >= 0) {
    b.m.mutable_opset_import(0)->set_version(14);
    *b.g()->mutable_node(0)->add_attribute() = attr_i("allowzero", allowzero);
  }
  b.init(tensor_i64("s", {static_cast<int64_t>(target.size())}, target));
  return b;
}

ModelBuilder transpose(const std::optional<Dims>& dims, const std::vector<int64_t>& perm) {
  return one_node(dims, "Transpose", {"x"}, {attr_ints("perm", perm)});
}

// A graph input whose declared dimension 1 is `d`.
ModelBuilder declared_dim(int64_t d, bool on_output) {
  ModelBuilder b;
  b.input("x", TP::FLOAT, Dims{2, 3});
  b.output("y", TP::FLOAT, Dims{2, 3});
  b.node("Relu", {"x"}, {"y"}, "n");
  auto* vi = on_output ? b.g()->mutable_output(0) : b.g()->mutable_input(0);
  vi->mutable_type()->mutable_tensor_type()->mutable_shape()->mutable_dim(1)->set_dim_value(d);
  return b;
}

onnx::GraphProto branch(const std::string& reads) {
  onnx::GraphProto g;
  g.set_name("branch");
  *g.add_node() = make_node("Identity", {reads}, {"bo"}, "inner");
  *g.add_output() = make_vi("bo", TP::FLOAT, Dims{2});
  return g;
}

ModelBuilder if_reading(const std::string& reads) {
  ModelBuilder b;
  b.input("x", TP::FLOAT, Dims{2});
  b.input("cond", TP::BOOL, Dims{});
  b.output("y", TP::FLOAT, Dims{2});
  b.node("If", {"cond"}, {"y"}, "if", {attr_g("then_branch", branch(reads)), attr_g("else_branch", branch("x"))});
  return b;
}

}  // namespace

TEST(Validate, RefusesBadModels) {
  ModelBuilder unnamed = one_node(Dims{2}, "Add", {"x", "ghost"});
  unnamed.g()->mutable_node(0)->clear_name();
  ModelBuilder undefined_output = one_node(Dims{2}, "Relu", {"x"});
  undefined_output.output("z", TP::FLOAT, Dims{2});

  const std::vector<std::pair<ModelBuilder, std::string>> cases = {
      {one_node(Dims{2}, "Add", {"x", "ghost"}),
       "node n reads tensor ghost, which no graph input, initializer or node defines"},
      {unnamed, "node Add_0 reads tensor ghost, which no graph input, initializer or node defines"},
      {if_reading("ghost"),
       "node if reads tensor ghost in a sub-graph, which no graph input, initializer or node defines"},
      {undefined_output, "graph output z is not defined by any graph input, initializer or node"},
      {transpose(Dims{2, 3, 4}, {0, 2}), "node n: perm [0,2] is not a permutation of the 3 axes of its input x"},
      {transpose(Dims{2, 3}, {0, 2}), "node n: perm [0,2] is not a permutation of the 2 axes of its input x"},
      {transpose(Dims{2, 3}, {1, 1}), "node n: perm [1,1] is not a permutation of the 2 axes of its input x"},
      {transpose(std::nullopt, {0, 0, 1}), "node n: perm [0,0,1] is not a permutation"},
      {reshape(Dims{3, 4}, {5, 2}), "node n: target shape [5,2] (s) does not hold the 12 elements of its input x [3,4]"},
      {reshape(Dims{3, 4}, {-1, 5}), "node n: target shape [-1,5] (s) does not hold the 12 elements of its input x [3,4]"},
      {reshape(Dims{3, 4}, {0, 3}), "node n: target shape [0,3] (s) does not hold the 12 elements of its input x [3,4]"},
      {reshape(Dims{3, 4}, {0, 0, 0}), "node n: target shape [0,0,0] (s) copies dimension 2 of its input x, which has rank 2"},
      {reshape(Dims{3, 4}, {3, 4, 0}, 1),
       "node n: target shape [3,4,0] (s) does not hold the 12 elements of its input x [3,4]"},
      {reshape(std::nullopt, {-1, -1}), "node n: target shape [-1,-1] (s) has more than one -1"},
      {reshape(Dims{-1, 4}, {2, -2}), "node n: target shape [2,-2] (s) has the negative dimension -2"},
      {reshape(Dims{3, 4}, {0, -1}, 1), "node n: target shape [0,-1] (s) has both 0 and -1, which allowzero=1 forbids"},
      {declared_dim(-3, false), "graph input x has the negative dimension -3"},
      {declared_dim(-5, true), "graph output y has the negative dimension -5"},
  };
  for (const auto& [model, msg] : cases) EXPECT_EQ(load_error(model), msg);

  ModelBuilder vi = declared_dim(3, false);
  vi.value_info("r", TP::FLOAT, Dims{2, 3});
  vi.g()->mutable_value_info(0)->mutable_type()->mutable_tensor_type()->mutable_shape()->mutable_dim(0)
      ->set_dim_value(-5);
  EXPECT_EQ(load_error(vi), "value_info of tensor r has the negative dimension -5");
}

TEST(Validate, TakesWellFormedModels) {
  ModelBuilder optional_input = one_node(Dims{2, 3}, "Clip", {"x", "", "hi"});
  optional_input.init(tensor_f32("hi", {}, {1}));
  ModelBuilder folded = one_node(Dims{2, 3}, "Add", {"x", "c"});
  folded.node("Constant", {}, {"c"}, "c_node", {attr_t("value", tensor_f32("", {1}, {1}))});
  ModelBuilder init_output = one_node(Dims{2}, "Relu", {"x"});
  init_output.init(tensor_f32("w", {1}, {1}));
  init_output.output("w", TP::FLOAT, Dims{1});

  const std::vector<std::pair<std::string, ModelBuilder>> cases = {
      {"empty name is an absent optional input", optional_input},
      {"Constant output", folded},
      {"initializer as graph output", init_output},
      {"outer-scope tensor read in a branch", if_reading("x")},
      {"perm fits the rank", transpose(Dims{2, 3, 4}, {2, 0, 1})},
      {"rank unknown", transpose(std::nullopt, {1, 0})},
      {"symbolic dims", transpose(Dims{-1, 3}, {1, 0})},
      {"0 copies a dimension", reshape(Dims{3, 4}, {0, 2, 2})},
      {"one -1", reshape(Dims{3, 4}, {-1, 6})},
      {"0 and -1", reshape(Dims{3, 4, 5}, {0, -1})},
      {"allowzero keeps 0 literal", reshape(Dims{0, 4}, {2, 0}, 1)},
      {"empty tensor, -1 with 0", reshape(Dims{0, 4}, {0, -1})},
      {"input shape unknown", reshape(Dims{-1, 4}, {-1, 2})},
      {"dim 0 declared", declared_dim(0, false)},
  };
  for (const auto& [what, model] : cases) EXPECT_EQ(load_error(model), "") << what;
}

TEST(Validate, InputShapesKeepFixedDimensions) {
  ModelBuilder b;
  b.input("x", TP::FLOAT, Dims{-1, 4});
  b.output("y", TP::FLOAT, std::nullopt);
  b.node("Reshape", {"x", "s"}, {"y"}, "n");
  b.init(tensor_i64("s", {2}, {-1, 8}));
  const std::vector<std::pair<Shape, std::string>> cases = {
      {{6, 4}, ""},  // the symbolic dimension is fixed
      {{6, 5}, "input_shapes gives x dimension 1 as 5, the model's input fixes it at 4"},
      {{3, 4}, "node n: target shape [-1,8] (s) does not hold the 12 elements of its input x [3,4]"},
  };
  for (const auto& [shape, msg] : cases) {
    LoadOptions opt;
    opt.input_shapes["x"] = shape;
    EXPECT_EQ(load_error(b, opt), msg);
  }
}
