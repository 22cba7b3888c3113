#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>

#include "host/ir.h"
#include "host/onnx_io.h"
#include "onnx_model_util.h"

using namespace tolm;
using namespace testutil;

namespace {

onnx::ModelProto parse(const std::string& bytes) {
  onnx::ModelProto m;
  EXPECT_TRUE(m.ParseFromString(bytes));
  return m;
}

// Saved models go to $TOLM_DUMP_DIR when set, for checks with onnx/onnxruntime.
void dump(const std::string& name, const std::string& bytes) {
  const char* dir = std::getenv("TOLM_DUMP_DIR");
  if (!dir) return;
  std::ofstream(std::string(dir) + "/" + name + ".onnx", std::ios::binary) << bytes;
}

std::string load_error(const std::string& bytes, const LoadOptions& opt = {}) {
  try {
    load_model(bytes, opt);
  } catch (const LoadError& e) {
    return e.what();
  }
  return "";
}

const onnx::NodeProto* find_node(const onnx::GraphProto& g, const std::string& name) {
  for (const auto& n : g.node())
    if (n.name() == name) return &n;
  return nullptr;
}

// x[2,3] -> Relu -> Add(w) -> y
ModelBuilder simple_model() {
  ModelBuilder b(13);
  b.input("x", onnx::TensorProto::FLOAT, Dims{2, 3});
  b.output("y", onnx::TensorProto::FLOAT, Dims{2, 3});
  b.init(tensor_f32("w", {3}, {1, 2, 3}));
  b.node("Relu", {"x"}, {"r"}, "relu");
  b.node("Add", {"r", "w"}, {"y"}, "add");
  return b;
}

}  // namespace

TEST(OnnxIO, SimpleLoad) {
  auto ir = load_model(simple_model().bytes());
  EXPECT_EQ(ir->node_count(), 2u);
  EXPECT_EQ(ir->opset(), 13);
  EXPECT_EQ(ir->inputs(), std::vector<std::string>({"x"}));
  EXPECT_EQ(ir->outputs(), std::vector<std::string>({"y"}));
  EXPECT_EQ(ir->get_shape("x"), Shape({2, 3}));
  EXPECT_EQ(ir->get_dtype("x"), dt::FLOAT);
  ASSERT_NE(ir->get_const("w"), nullptr);
  EXPECT_EQ(ir->get_const("w")->to_f64(), std::vector<double>({1, 2, 3}));
  EXPECT_EQ(ir->const_order, std::vector<std::string>({"w"}));
  // Inferred on load.
  EXPECT_EQ(ir->get_shape("r"), Shape({2, 3}));
  EXPECT_EQ(ir->get_dtype("r"), dt::FLOAT);
  EXPECT_EQ(ir->node()[0]->name, "relu");
  EXPECT_EQ(ir->node()[1]->name, "add");
  EXPECT_EQ(ir->io_value_info.count("x"), 1u);
  EXPECT_EQ(ir->io_value_info.count("y"), 1u);
}

TEST(OnnxIO, SaveKeepsModelFacts) {
  ModelBuilder b = simple_model();
  b.m.set_doc_string("model doc");
  b.m.set_producer_version("9.9");
  b.m.set_model_version(42);
  auto* md = b.m.add_metadata_props();
  md->set_key("author");
  md->set_value("me");
  auto* op = b.m.add_opset_import();
  op->set_domain("com.test");
  op->set_version(3);
  b.g()->set_doc_string("graph doc");
  b.g()->mutable_node(0)->set_doc_string("node doc");
  auto* fn = b.m.add_functions();
  fn->set_name("MyFn");
  fn->set_domain("com.test");
  fn->add_input("a");
  fn->add_output("b");
  *fn->add_node() = make_node("Identity", {"a"}, {"b"});
  auto* fop = fn->add_opset_import();
  fop->set_domain("");
  fop->set_version(13);

  const std::string out = save_model(*load_model(b.bytes()));
  const onnx::ModelProto m = parse(out);
  EXPECT_EQ(m.ir_version(), 8);
  EXPECT_EQ(m.producer_name(), "tolm-test");
  EXPECT_EQ(m.producer_version(), "9.9");
  EXPECT_EQ(m.model_version(), 42);
  EXPECT_EQ(m.doc_string(), "model doc");
  ASSERT_EQ(m.metadata_props_size(), 1);
  EXPECT_EQ(m.metadata_props(0).value(), "me");
  ASSERT_EQ(m.opset_import_size(), 2);
  EXPECT_EQ(m.opset_import(1).domain(), "com.test");
  ASSERT_EQ(m.functions_size(), 1);
  EXPECT_EQ(m.functions(0).name(), "MyFn");
  EXPECT_EQ(m.graph().doc_string(), "graph doc");
  EXPECT_EQ(m.graph().name(), "g");
  ASSERT_EQ(m.graph().node_size(), 2);
  EXPECT_EQ(m.graph().node(0).doc_string(), "node doc");
  ASSERT_EQ(m.graph().value_info_size(), 1);
  EXPECT_EQ(m.graph().value_info(0).name(), "r");
  EXPECT_EQ(full_check(out), "");
  dump("facts", out);
}

TEST(OnnxIO, SaveIsDeterministic) {
  ModelBuilder b(13);
  b.input("x", onnx::TensorProto::FLOAT, Dims{3});
  b.output("y", onnx::TensorProto::FLOAT, Dims{3});
  b.init(tensor_f32("c_b", {3}, {1, 2, 3}));
  b.init(tensor_f32("c_a", {3}, {4, 5, 6}));
  b.init(tensor_f32("unused", {1}, {0}));
  b.node("Add", {"x", "c_a"}, {"t"}, "a1");
  b.node("Mul", {"t", "c_b"}, {"y"}, "m1");
  auto ir = load_model(b.bytes());
  // Constants made later come after the model's, sorted by name if unknown to const_order.
  ir->set_const("zz_new", NDArray::from_f64({1, 1, 1}, {3}, dt::FLOAT));
  auto sub = Node::make("Sub", {"y_pre", "zz_new"}, {"y"}, "s1");
  ir->set_output(*ir->find_node("m1"), 0, "y_pre");
  ir->add_node(sub);
  ir->set_shape("y_pre", {3}, false, dt::FLOAT);
  const std::string s1 = save_model(*ir);
  const std::string s2 = save_model(*ir);
  EXPECT_EQ(s1, s2);
  const onnx::ModelProto m = parse(s1);
  ASSERT_EQ(m.graph().initializer_size(), 3);  // "unused" is read by nobody
  EXPECT_EQ(m.graph().initializer(0).name(), "c_b");
  EXPECT_EQ(m.graph().initializer(1).name(), "c_a");
  EXPECT_EQ(m.graph().initializer(2).name(), "zz_new");
  ASSERT_EQ(m.graph().node_size(), 3);
  EXPECT_EQ(m.graph().node(2).name(), "s1");
  ASSERT_EQ(m.graph().value_info_size(), 2);
  EXPECT_EQ(m.graph().value_info(0).name(), "t");
  EXPECT_EQ(m.graph().value_info(1).name(), "y_pre");
  EXPECT_EQ(full_check(s1), "");
}

TEST(OnnxIO, ConstantsOfManyTypesRoundTrip) {
  ModelBuilder b(13);
  struct Case {
    int32_t dtype;
    std::vector<double> values;
  };
  const std::vector<Case> cases = {
      {dt::FLOAT, {1.5, -2.25, 3}},      {dt::DOUBLE, {1e100, -2, 0.5}}, {dt::FLOAT16, {1.5, -2.25, 65504}},
      {dt::BFLOAT16, {1.5, -2.25, 256}}, {dt::INT8, {-128, 0, 127}},     {dt::UINT8, {0, 1, 255}},
      {dt::INT16, {-32768, 5, 32767}},   {dt::UINT16, {0, 1, 65535}},    {dt::INT32, {-7, 0, 2147483647}},
      {dt::INT64, {-9, 0, 1e15}},        {dt::UINT32, {0, 1, 4294967295.0}},
      {dt::UINT64, {0, 1, 1e18}},        {dt::BOOL, {1, 0, 1}},
  };
  std::vector<NDArray> expect;
  int k = 0;
  for (const auto& c : cases) {
    NDArray a = NDArray::from_f64(c.values, {3}, c.dtype);
    expect.push_back(a);
    for (int raw = 0; raw < 2; ++raw) {
      const std::string name = "c" + std::to_string(k) + (raw ? "_raw" : "_typed");
      onnx::TensorProto tp;
      tp.set_name(name);
      tp.set_data_type(c.dtype);
      tp.add_dims(3);
      if (raw) {
        tp.set_raw_data(std::string(reinterpret_cast<const char*>(a.raw().data()), a.raw().size()));
      } else {
        const size_t es = dtype_size(c.dtype);
        for (int64_t e = 0; e < 3; ++e) {
          const uint8_t* p = a.raw().data() + e * es;
          switch (c.dtype) {
            case dt::FLOAT: tp.add_float_data(static_cast<float>(a.f64_at(e))); break;
            case dt::DOUBLE: tp.add_double_data(a.f64_at(e)); break;
            case dt::INT64: tp.add_int64_data(a.i64_at(e)); break;
            case dt::UINT32:
            case dt::UINT64: tp.add_uint64_data(static_cast<uint64_t>(a.i64_at(e))); break;
            case dt::FLOAT16:
            case dt::BFLOAT16: {
              uint16_t bits;
              std::memcpy(&bits, p, 2);
              tp.add_int32_data(bits);
              break;
            }
            default: tp.add_int32_data(static_cast<int32_t>(a.i64_at(e))); break;
          }
        }
      }
      b.init(tp);
      b.node("Identity", {name}, {name + "_out"}, "id_" + name);
      b.output(name + "_out", c.dtype, Dims{3});
    }
    ++k;
  }
  // A string constant and a scalar.
  onnx::TensorProto st;
  st.set_name("strs");
  st.set_data_type(onnx::TensorProto::STRING);
  st.add_dims(2);
  st.add_string_data("hello");
  st.add_string_data("");
  b.init(st);
  b.node("Identity", {"strs"}, {"strs_out"}, "id_strs");
  b.output("strs_out", onnx::TensorProto::STRING, Dims{2});
  b.init(tensor_f32("scalar", {}, {7}));
  b.node("Identity", {"scalar"}, {"scalar_out"}, "id_scalar");
  b.output("scalar_out", onnx::TensorProto::FLOAT, Dims{});

  auto ir = load_model(b.bytes());
  for (size_t c = 0; c < cases.size(); ++c) {
    for (const char* suffix : {"_raw", "_typed"}) {
      const std::string name = "c" + std::to_string(c) + suffix;
      const NDArray* a = ir->get_const(name);
      ASSERT_NE(a, nullptr) << name;
      EXPECT_EQ(*a, expect[c]) << name;
      EXPECT_EQ(ir->get_dtype(name + "_out"), cases[c].dtype);
      EXPECT_EQ(ir->get_shape(name + "_out"), Shape({3}));
    }
  }
  ASSERT_NE(ir->get_const("strs"), nullptr);
  EXPECT_EQ(ir->get_const("strs")->strings(), std::vector<std::string>({"hello", ""}));
  EXPECT_EQ(ir->get_const("scalar")->ndim(), 0u);

  const std::string out = save_model(*ir);
  EXPECT_EQ(full_check(out), "");
  dump("dtypes", out);
  auto ir2 = load_model(out);
  for (const auto& kv : ir->consts()) {
    const NDArray* a = ir2->get_const(kv.first);
    ASSERT_NE(a, nullptr) << kv.first;
    EXPECT_EQ(*a, kv.second) << kv.first;
  }
  EXPECT_EQ(save_model(*ir2), out);
}

TEST(OnnxIO, AttributesOfEveryKindRoundTrip) {
  ModelBuilder b(13);
  b.m.add_opset_import()->set_domain("com.test");
  b.m.mutable_opset_import(1)->set_version(1);
  b.input("x", onnx::TensorProto::FLOAT, Dims{2});
  b.input("cond", onnx::TensorProto::BOOL, Dims{});
  b.output("y", onnx::TensorProto::FLOAT, Dims{2});
  b.output("z", onnx::TensorProto::FLOAT, std::nullopt);
  b.output("w", onnx::TensorProto::FLOAT, Dims{2});

  onnx::GraphProto branch;
  branch.set_name("branch");
  *branch.add_node() = make_node("Identity", {"x"}, {"bo"}, "inner");
  *branch.add_output() = make_vi("bo", onnx::TensorProto::FLOAT, Dims{2});

  onnx::AttributeProto tensors;
  tensors.set_name("tensors");
  tensors.set_type(onnx::AttributeProto::TENSORS);
  *tensors.add_tensors() = tensor_f32("", {1}, {1});
  onnx::AttributeProto graphs;
  graphs.set_name("graphs");
  graphs.set_type(onnx::AttributeProto::GRAPHS);
  *graphs.add_graphs() = branch;
  onnx::AttributeProto sparse;
  sparse.set_name("sparse");
  sparse.set_type(onnx::AttributeProto::SPARSE_TENSOR);
  *sparse.mutable_sparse_tensor()->mutable_values() = tensor_f32("", {1}, {2});
  *sparse.mutable_sparse_tensor()->mutable_indices() = tensor_i64("", {1}, {0});
  sparse.mutable_sparse_tensor()->add_dims(4);
  onnx::AttributeProto tp;
  tp.set_name("tp");
  tp.set_type(onnx::AttributeProto::TYPE_PROTO);
  set_type(tp.mutable_tp(), onnx::TensorProto::FLOAT, Dims{1});

  const std::vector<onnx::AttributeProto> all = {
      attr_f("f", 0.5f),
      attr_i("i", -3),
      attr_s("s", "text"),
      attr_t("t", tensor_f32("", {2, 1}, {1, 2})),
      attr_g("g", branch),
      attr_floats("floats", {1.f, 2.5f}),
      attr_ints("ints", {1, -2, 3}),
      attr_strings("strings", {"a", "b"}),
      tensors,
      graphs,
      sparse,
      tp,
      attr_ints("empty_ints", {}),
  };
  b.node("Custom", {"x"}, {"w"}, "custom", all, "com.test");
  b.node("If", {"cond"}, {"y"}, "if", {attr_g("then_branch", branch), attr_g("else_branch", branch)});
  b.node("Constant", {}, {"z"}, "const_out", {attr_t("value", tensor_f32("", {1}, {3}))});

  auto ir = load_model(b.bytes());
  NodePtr custom = ir->find_node("custom");
  ASSERT_NE(custom, nullptr);
  EXPECT_EQ(custom->domain, "com.test");
  EXPECT_EQ(IR::get_attr_float(*custom, "f").value(), 0.5f);
  EXPECT_EQ(IR::get_attr_int(*custom, "i").value(), -3);
  EXPECT_EQ(IR::get_attr_str(*custom, "s").value(), "text");
  EXPECT_EQ(IR::get_attr_ints(*custom, "ints").value(), std::vector<int64_t>({1, -2, 3}));
  EXPECT_EQ(IR::get_attr_ints(*custom, "empty_ints").value(), std::vector<int64_t>());
  const Attr* t = IR::get_attr(*custom, "t");
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(t->kind, Attr::TENSOR);
  EXPECT_EQ(t->t.shape(), Shape({2, 1}));
  EXPECT_EQ(t->t.to_f64(), std::vector<double>({1, 2}));
  EXPECT_EQ(IR::get_attr(*custom, "floats")->floats, std::vector<float>({1.f, 2.5f}));
  EXPECT_EQ(IR::get_attr(*custom, "strings")->strings, std::vector<std::string>({"a", "b"}));
  for (const char* opaque : {"g", "tensors", "graphs", "sparse", "tp"}) {
    const Attr* a = IR::get_attr(*custom, opaque);
    ASSERT_NE(a, nullptr) << opaque;
    EXPECT_FALSE(a->opaque.empty()) << opaque;
  }
  EXPECT_EQ(IR::get_attr(*custom, "g")->kind, Attr::GRAPH);
  // The If reads "x" inside its branches.
  NodePtr if_node = ir->find_node("if");
  ASSERT_NE(if_node, nullptr);
  EXPECT_EQ(if_node->implicit_inputs, std::vector<std::string>({"x"}));
  EXPECT_EQ(custom->implicit_inputs, std::vector<std::string>({"x"}));
  // A Constant that is a graph output stays a node.
  EXPECT_NE(ir->find_node("const_out"), nullptr);
  EXPECT_FALSE(ir->is_const("z"));
  EXPECT_EQ(ir->get_shape("y"), Shape({2}));

  const std::string out = save_model(*ir);
  const onnx::ModelProto m = parse(out);
  const onnx::NodeProto* saved = find_node(m.graph(), "custom");
  ASSERT_NE(saved, nullptr);
  ASSERT_EQ(saved->attribute_size(), static_cast<int>(all.size()));
  for (size_t k = 0; k < all.size(); ++k) {
    // Tensor attributes come back as raw_data: compare decoded.
    if (all[k].type() == onnx::AttributeProto::TENSOR) {
      EXPECT_EQ(saved->attribute(static_cast<int>(k)).t().raw_data(), all[k].t().raw_data());
      EXPECT_EQ(saved->attribute(static_cast<int>(k)).t().dims_size(), 2);
      continue;
    }
    EXPECT_EQ(saved->attribute(static_cast<int>(k)).SerializeAsString(), all[k].SerializeAsString())
        << all[k].name();
  }
  const onnx::NodeProto* saved_if = find_node(m.graph(), "if");
  ASSERT_NE(saved_if, nullptr);
  EXPECT_EQ(saved_if->attribute(0).g().SerializeAsString(), branch.SerializeAsString());
  EXPECT_EQ(full_check(out), "");
  EXPECT_EQ(save_model(*load_model(out)), out);
}

TEST(OnnxIO, ConstantNodesFold) {
  ModelBuilder b(13);
  b.input("x", onnx::TensorProto::FLOAT, Dims{3});
  b.output("y", onnx::TensorProto::FLOAT, Dims{3});
  b.output("k", onnx::TensorProto::INT64, Dims{2});
  b.node("Constant", {}, {"c"}, "c_node", {attr_t("value", tensor_f32("", {3}, {1, 2, 3}))});
  b.node("Constant", {}, {"cf"}, "cf_node", {attr_f("value_float", 2.f)});
  b.node("Constant", {}, {"k"}, "k_node", {attr_ints("value_ints", {4, 5})});
  b.node("Add", {"x", "c"}, {"t"}, "add");
  b.node("Mul", {"t", "cf"}, {"y"}, "mul");
  auto ir = load_model(b.bytes());
  EXPECT_EQ(ir->node_count(), 3u);  // add, mul, and k_node (a graph output)
  EXPECT_EQ(ir->find_node("c_node"), nullptr);
  ASSERT_TRUE(ir->is_const("c"));
  EXPECT_EQ(ir->get_const("c")->to_f64(), std::vector<double>({1, 2, 3}));
  ASSERT_TRUE(ir->is_const("cf"));
  EXPECT_EQ(ir->get_const("cf")->ndim(), 0u);
  EXPECT_EQ(ir->get_const("cf")->dtype(), dt::FLOAT);
  EXPECT_NE(ir->find_node("k_node"), nullptr);
  EXPECT_EQ(ir->get_shape("k"), Shape({2}));
  const std::string out = save_model(*ir);
  const onnx::ModelProto m = parse(out);
  EXPECT_EQ(m.graph().node_size(), 3);
  EXPECT_EQ(m.graph().initializer_size(), 2);
  EXPECT_EQ(full_check(out), "");
  dump("constants", out);
}

TEST(OnnxIO, ImplicitInputKeepsProducerAlive) {
  ModelBuilder b(13);
  b.input("x", onnx::TensorProto::FLOAT, Dims{2});
  b.input("cond", onnx::TensorProto::BOOL, Dims{});
  b.output("y", onnx::TensorProto::FLOAT, Dims{2});
  onnx::GraphProto then_g, else_g;
  then_g.set_name("then");
  *then_g.add_node() = make_node("Neg", {"hidden"}, {"t_out"}, "t_neg");
  *then_g.add_output() = make_vi("t_out", onnx::TensorProto::FLOAT, Dims{2});
  else_g.set_name("else");
  // A nested If: names read two levels down still count.
  onnx::GraphProto inner;
  inner.set_name("inner");
  *inner.add_node() = make_node("Abs", {"hidden2"}, {"i_out"}, "i_abs");
  *inner.add_output() = make_vi("i_out", onnx::TensorProto::FLOAT, Dims{2});
  *else_g.add_node() =
      make_node("If", {"cond"}, {"e_out"}, "nested", {attr_g("then_branch", inner), attr_g("else_branch", inner)});
  *else_g.add_output() = make_vi("e_out", onnx::TensorProto::FLOAT, Dims{2});
  b.node("Relu", {"x"}, {"hidden"}, "relu");
  b.node("Sigmoid", {"x"}, {"hidden2"}, "sig");
  b.node("If", {"cond"}, {"y"}, "if", {attr_g("then_branch", then_g), attr_g("else_branch", else_g)});
  auto ir = load_model(b.bytes());
  NodePtr if_node = ir->find_node("if");
  ASSERT_NE(if_node, nullptr);
  EXPECT_EQ(if_node->implicit_inputs, std::vector<std::string>({"hidden", "cond", "hidden2"}));
  EXPECT_EQ(ir->use_count("hidden"), 1u);
  ASSERT_EQ(ir->next_nodes("hidden").size(), 1u);
  EXPECT_EQ(ir->next_nodes("hidden")[0], if_node);
  // Execution order puts producers first.
  const NodeList& order = ir->node();
  ASSERT_EQ(order.size(), 3u);
  EXPECT_EQ(order[2]->name, "if");
  EXPECT_EQ(ir->get_shape("y"), Shape({2}));  // inferred through the branches
  const std::string out = save_model(*ir);
  EXPECT_EQ(parse(out).graph().node_size(), 3);
  EXPECT_EQ(full_check(out), "");
  dump("implicit", out);
}

TEST(OnnxIO, UnsortedNodesLoad) {
  ModelBuilder b(13);
  b.input("x", onnx::TensorProto::FLOAT, Dims{2});
  b.output("y", onnx::TensorProto::FLOAT, Dims{2});
  b.node("Neg", {"a"}, {"y"}, "second");
  b.node("Relu", {"x"}, {"a"}, "first");
  auto ir = load_model(b.bytes());
  ASSERT_EQ(ir->node().size(), 2u);
  EXPECT_EQ(ir->node()[0]->name, "first");
  EXPECT_EQ(ir->get_shape("y"), Shape({2}));
  EXPECT_EQ(full_check(save_model(*ir)), "");
}

TEST(OnnxIO, LoadErrors) {
  EXPECT_EQ(load_error(""), "not an ONNX model: the input is empty");
  EXPECT_EQ(load_error("this is plain text, not a model\n").rfind("not an ONNX model: ", 0), 0u);
  const std::string good = simple_model().bytes();
  EXPECT_EQ(load_error(good), "");
  // Truncated in the middle of the graph.
  EXPECT_EQ(load_error(good.substr(0, good.size() / 2)).rfind("not an ONNX model: ", 0), 0u);
  // Truncated after the graph: the opset import is gone.
  {
    ModelBuilder b = simple_model();
    b.m.clear_opset_import();
    EXPECT_EQ(load_error(b.bytes()), "not an ONNX model: no opset import for the default domain (truncated?)");
  }
  {
    ModelBuilder b = simple_model();
    b.m.clear_graph();
    EXPECT_EQ(load_error(b.bytes()), "not an ONNX model: it has no graph");
  }
  {
    ModelBuilder b(13);
    b.input("x", onnx::TensorProto::FLOAT, Dims{2});
    b.output("y", onnx::TensorProto::FLOAT, Dims{2});
    b.node("Add", {"x", "c"}, {"a"}, "n1");
    b.node("Relu", {"a"}, {"b"}, "n2");
    b.node("Neg", {"b"}, {"c"}, "n3");
    b.node("Identity", {"a"}, {"y"}, "n4");
    const std::string e = load_error(b.bytes());
    EXPECT_TRUE(e == "graph has a cycle through node n1" || e == "graph has a cycle through node n2" ||
                e == "graph has a cycle through node n3")
        << e;
  }
  {
    ModelBuilder b(13);
    b.input("x", onnx::TensorProto::FLOAT, Dims{2});
    b.output("y", onnx::TensorProto::FLOAT, Dims{2});
    b.node("Relu", {"x"}, {"y"}, "p1");
    b.node("Neg", {"x"}, {"y"}, "p2");
    EXPECT_EQ(load_error(b.bytes()), "tensor y has two producers: p1, p2");
  }
  {
    ModelBuilder b = simple_model();
    onnx::TensorProto* w = b.g()->mutable_initializer(0);
    w->clear_raw_data();
    w->set_data_location(onnx::TensorProto::EXTERNAL);
    auto* e = w->add_external_data();
    e->set_key("location");
    e->set_value("weights.bin");
    EXPECT_EQ(load_error(b.bytes()), "external tensor data is not supported: w");
  }
  {
    ModelBuilder b = simple_model();
    b.g()->mutable_initializer(0)->set_raw_data("abc");
    EXPECT_EQ(load_error(b.bytes()), "initializer w: holds 3 bytes, its shape needs 12");
  }
  {
    LoadOptions opt;
    opt.input_shapes["w"] = {3};
    EXPECT_EQ(load_error(simple_model().bytes(), opt), "input_shapes names w, which is not a graph input");
    opt.input_shapes.clear();
    opt.input_shapes["nope"] = {3};
    EXPECT_EQ(load_error(simple_model().bytes(), opt), "input_shapes names nope, which is not a graph input");
    opt.input_shapes.clear();
    opt.input_shapes["x"] = {2, 3, 1};
    EXPECT_EQ(load_error(simple_model().bytes(), opt),
              "input_shapes gives x rank 3, the model's input has rank 2");
  }
}

TEST(OnnxIO, InputShapesOverride) {
  ModelBuilder b(13);
  b.input("x", onnx::TensorProto::FLOAT, Dims{-1, 4});
  b.output("y", onnx::TensorProto::FLOAT, Dims{-1, 4});
  b.node("Relu", {"x"}, {"r"}, "relu");
  b.node("Transpose", {"r"}, {"tp"}, "tp", {attr_ints("perm", {1, 0})});
  b.node("Transpose", {"tp"}, {"y"}, "tp2", {attr_ints("perm", {1, 0})});
  {
    auto ir = load_model(b.bytes());
    EXPECT_FALSE(ir->has_shape("x"));  // symbolic dimension
    EXPECT_EQ(ir->get_dtype("x"), dt::FLOAT);
    EXPECT_FALSE(ir->has_shape("tp"));
    const onnx::ModelProto m = parse(save_model(*ir));
    EXPECT_EQ(m.graph().input(0).type().tensor_type().shape().dim(0).dim_param(), "N");
  }
  LoadOptions opt;
  opt.input_shapes["x"] = {5, 4};
  auto ir = load_model(b.bytes(), opt);
  EXPECT_EQ(ir->get_shape("x"), Shape({5, 4}));
  EXPECT_EQ(ir->get_shape("tp"), Shape({4, 5}));
  EXPECT_EQ(ir->get_shape("y"), Shape({5, 4}));
  const std::string out = save_model(*ir);
  const onnx::ModelProto m = parse(out);
  const auto& in_shape = m.graph().input(0).type().tensor_type().shape();
  ASSERT_EQ(in_shape.dim_size(), 2);
  EXPECT_EQ(in_shape.dim(0).dim_value(), 5);
  EXPECT_EQ(in_shape.dim(1).dim_value(), 4);
  EXPECT_EQ(m.graph().output(0).type().tensor_type().shape().dim(0).dim_value(), 5);
  EXPECT_EQ(full_check(out), "");

  // An override that contradicts a fixed dimension: the model's inner shapes go.
  ModelBuilder c(13);
  c.input("x", onnx::TensorProto::FLOAT, Dims{2, 4});
  c.output("y", onnx::TensorProto::FLOAT, Dims{2, 4});
  c.value_info("r", onnx::TensorProto::FLOAT, Dims{2, 4});
  c.node("Relu", {"x"}, {"r"}, "relu");
  c.node("Neg", {"r"}, {"y"}, "neg");
  LoadOptions opt2;
  opt2.input_shapes["x"] = {3, 4};
  auto ir2 = load_model(c.bytes(), opt2);
  EXPECT_EQ(ir2->get_shape("r"), Shape({3, 4}));
  EXPECT_EQ(ir2->get_shape("y"), Shape({3, 4}));
  EXPECT_EQ(ir2->value_info(), std::vector<std::string>({"r"}));
}

TEST(OnnxIO, LegacyInitializerInputsAndSparse) {
  ModelBuilder b(9, 3);
  b.input("x", onnx::TensorProto::FLOAT, Dims{3});
  b.input("w", onnx::TensorProto::FLOAT, Dims{3});  // old style: initializers are inputs too
  b.output("y", onnx::TensorProto::FLOAT, Dims{3});
  b.init(tensor_f32("w", {3}, {1, 2, 3}, false));
  b.node("Add", {"x", "w"}, {"y"}, "add");
  auto ir = load_model(b.bytes());
  EXPECT_EQ(ir->inputs(), std::vector<std::string>({"x"}));
  EXPECT_TRUE(ir->is_const("w"));
  const std::string out = save_model(*ir);
  const onnx::ModelProto m = parse(out);
  ASSERT_EQ(m.graph().input_size(), 2);
  EXPECT_EQ(m.graph().input(1).name(), "w");
  EXPECT_EQ(full_check(out), "");

  ModelBuilder s(13);
  s.input("x", onnx::TensorProto::FLOAT, Dims{4});
  s.output("y", onnx::TensorProto::FLOAT, Dims{4});
  auto* sp = s.g()->add_sparse_initializer();
  *sp->mutable_values() = tensor_f32("sw", {2}, {5, 6});
  *sp->mutable_indices() = tensor_i64("", {2}, {1, 3});
  sp->add_dims(4);
  s.node("Add", {"x", "sw"}, {"y"}, "add");
  auto irs = load_model(s.bytes());
  ASSERT_TRUE(irs->is_const("sw"));
  EXPECT_EQ(irs->get_const("sw")->to_f64(), std::vector<double>({0, 5, 0, 6}));
  EXPECT_EQ(full_check(save_model(*irs)), "");
}

TEST(OnnxIO, FileLoadAndMissingFile) {
  const std::string path = ::testing::TempDir() + "/tolm_io_test.onnx";
  {
    std::ofstream f(path, std::ios::binary);
    f << simple_model().bytes();
  }
  EXPECT_EQ(load_model_file(path)->node_count(), 2u);
  EXPECT_THROW(load_model_file(path + ".missing"), LoadError);
}

TEST(OnnxIO, UnnamedNodesInMessages) {
  ModelBuilder b(13);
  b.input("x", onnx::TensorProto::FLOAT, Dims{2});
  b.output("y", onnx::TensorProto::FLOAT, Dims{2});
  b.node("Relu", {"x"}, {"y"});
  b.node("Neg", {"x"}, {"y"});
  EXPECT_EQ(load_error(b.bytes()), "tensor y has two producers: Relu node #0, Neg node #1");
  ModelBuilder c(13);
  c.input("x", onnx::TensorProto::FLOAT, Dims{2});
  c.output("y", onnx::TensorProto::FLOAT, Dims{2});
  c.node("Neg", {"y"}, {"y"});
  EXPECT_EQ(load_error(c.bytes()), "graph has a cycle through node Neg node #0");
}

// A long chain: load, infer, save and reload stay linear (a quadratic step
// would take minutes here) and keep every node and shape.
TEST(OnnxIO, LongChainRoundTrip) {
  const int n = 50000;
  ModelBuilder b(13);
  b.input("x", onnx::TensorProto::FLOAT, Dims{1, 16});
  b.init(tensor_f32("c", {16}, std::vector<float>(16, 1.f)));
  b.init(tensor_i64("s", {2}, {4, 4}));
  b.init(tensor_i64("s2", {2}, {1, 16}));
  std::string cur = "x";
  for (int i = 0; i < n; ++i) {
    const std::string out = "t" + std::to_string(i);
    const std::string name = "n" + std::to_string(i);
    switch (i % 4) {
      case 0: b.node("Add", {cur, "c"}, {out}, name); break;
      case 1: b.node("Reshape", {cur, "s"}, {out}, name); break;
      case 2: b.node("Transpose", {cur}, {out}, name, {attr_ints("perm", {1, 0})}); break;
      default: b.node("Reshape", {cur, "s2"}, {out}, name); break;
    }
    cur = out;
  }
  b.output(cur, onnx::TensorProto::FLOAT, std::nullopt);
  auto ir = load_model(b.bytes());
  EXPECT_EQ(ir->node_count(), static_cast<size_t>(n));
  EXPECT_EQ(ir->get_shape("t2"), Shape({4, 4}));
  EXPECT_EQ(ir->get_shape(cur), Shape({1, 16}));
  const std::string out = save_model(*ir);
  const onnx::ModelProto m = parse(out);
  EXPECT_EQ(m.graph().node_size(), n);
  EXPECT_EQ(m.graph().value_info_size(), n - 1);
  EXPECT_EQ(m.graph().initializer_size(), 3);
  auto ir2 = load_model(out);
  EXPECT_EQ(save_model(*ir2), out);
}
