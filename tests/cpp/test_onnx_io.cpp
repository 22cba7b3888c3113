#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>

#include "host/ir.h"
#include "host/onnx_io.h"
#include "onnx_model_util.h"

using namespace tolm;
using namespace testutil;
using TP = onnx::TensorProto;

namespace {

onnx::ModelProto parse(const std::string& bytes) {
  onnx::ModelProto m;
  EXPECT_TRUE(m.ParseFromString(bytes));
  return m;
}

// Saved models go to $TOLM_DUMP_DIR when set, for checks with onnx/onnxruntime.
void dump(const std::string& name, const std::string& bytes) {
  if (const char* dir = std::getenv("TOLM_DUMP_DIR"))
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

// A model with float input x and output y of the given dims.
ModelBuilder io_model(const Dims& dims, int64_t opset = 13) {
  ModelBuilder b(opset);
  b.input("x", TP::FLOAT, dims);
  b.output("y", TP::FLOAT, dims);
  return b;
}

// x[2,3] -> Relu -> Add(w) -> y
ModelBuilder simple_model() {
  ModelBuilder b = io_model({2, 3});
  b.init(tensor_f32("w", {3}, {1, 2, 3}));
  b.node("Relu", {"x"}, {"r"}, "relu");
  b.node("Add", {"r", "w"}, {"y"}, "add");
  return b;
}

}  // namespace

TEST(OnnxIO, LoadSortsInfersAndKeepsIO) {
  auto ir = load_model(simple_model().bytes());
  EXPECT_EQ(ir->opset(), 13);
  EXPECT_EQ(ir->inputs(), std::vector<std::string>({"x"}));
  EXPECT_EQ(ir->outputs(), std::vector<std::string>({"y"}));
  EXPECT_EQ(ir->get_const("w")->to_f64(), std::vector<double>({1, 2, 3}));
  EXPECT_EQ(ir->get_shape("r"), Shape({2, 3}));  // inferred on load
  EXPECT_EQ(ir->get_dtype("r"), dt::FLOAT);

  ModelBuilder b = io_model({2});  // nodes listed consumer first
  b.node("Neg", {"a"}, {"y"}, "second");
  b.node("Relu", {"x"}, {"a"}, "first");
  auto un = load_model(b.bytes());
  ASSERT_EQ(un->node().size(), 2u);
  EXPECT_EQ(un->node()[0]->name(), "first");
  EXPECT_EQ(un->get_shape("y"), Shape({2}));
  EXPECT_EQ(full_check(save_model(*un)), "");

  const std::string path = ::testing::TempDir() + "/tolm_io_test.onnx";
  std::ofstream(path, std::ios::binary) << simple_model().bytes();
  EXPECT_EQ(load_model_file(path)->node_count(), 2u);
  EXPECT_THROW(load_model_file(path + ".missing"), LoadError);
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
  *fn->add_opset_import() = b.m.opset_import(0);

  const std::string out = save_model(*load_model(b.bytes()));
  const onnx::ModelProto m = parse(out);
  EXPECT_EQ(m.ir_version(), 8);
  EXPECT_EQ(m.producer_name() + m.producer_version() + m.doc_string(), "tolm-test9.9model doc");
  EXPECT_EQ(m.model_version(), 42);
  ASSERT_EQ(m.metadata_props_size(), 1);
  EXPECT_EQ(m.metadata_props(0).value(), "me");
  ASSERT_EQ(m.opset_import_size(), 2);
  EXPECT_EQ(m.opset_import(1).domain(), "com.test");
  ASSERT_EQ(m.functions_size(), 1);
  EXPECT_EQ(m.functions(0).SerializeAsString(), b.m.functions(0).SerializeAsString());
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
  ModelBuilder b = io_model({3});
  b.init(tensor_f32("c_b", {3}, {1, 2, 3}));
  b.init(tensor_f32("c_a", {3}, {4, 5, 6}));
  b.init(tensor_f32("unused", {1}, {0}));
  b.node("Add", {"x", "c_a"}, {"t"}, "a1");
  b.node("Mul", {"t", "c_b"}, {"y"}, "m1");
  auto ir = load_model(b.bytes());
  // Constants made later come after the model's.
  ir->set_const("zz_new", NDArray::from_f64({1, 1, 1}, {3}, dt::FLOAT));
  ir->set_output(*ir->find_node("m1"), 0, "y_pre");
  ir->add_node(Node::make("Sub", {"y_pre", "zz_new"}, {"y"}, "s1"));
  ir->set_shape("y_pre", {3}, false, dt::FLOAT);
  const std::string s1 = save_model(*ir);
  EXPECT_EQ(s1, save_model(*ir));
  const onnx::ModelProto m = parse(s1);
  const auto& g = m.graph();
  std::string inits, vis;
  for (const auto& t : g.initializer()) inits += t.name() + " ";
  for (const auto& v : g.value_info()) vis += v.name() + " ";
  EXPECT_EQ(inits, "c_b c_a zz_new ");  // "unused" is read by nobody
  EXPECT_EQ(vis, "t y_pre ");
  ASSERT_EQ(g.node_size(), 3);
  EXPECT_EQ(g.node(2).name(), "s1");
  EXPECT_EQ(full_check(s1), "");
}

TEST(OnnxIO, ConstantsOfManyTypesRoundTrip) {
  ModelBuilder b(13);
  const std::vector<std::pair<int32_t, std::vector<double>>> cases = {
      {dt::FLOAT, {1.5, -2.25, 3}},      {dt::DOUBLE, {1e100, -2, 0.5}}, {dt::FLOAT16, {1.5, -2.25, 65504}},
      {dt::BFLOAT16, {1.5, -2.25, 256}}, {dt::INT8, {-128, 0, 127}},     {dt::UINT8, {0, 1, 255}},
      {dt::INT16, {-32768, 5, 32767}},   {dt::UINT16, {0, 1, 65535}},    {dt::INT32, {-7, 0, 2147483647}},
      {dt::INT64, {-9, 0, 1e15}},        {dt::UINT32, {0, 1, 4294967295.0}},
      {dt::UINT64, {0, 1, 1e18}},        {dt::BOOL, {1, 0, 1}},
  };
  std::vector<std::pair<std::string, NDArray>> expect;
  for (size_t k = 0; k < cases.size(); ++k) {
    const int32_t dtype = cases[k].first;
    const NDArray a = NDArray::from_f64(cases[k].second, {3}, dtype);
    for (int raw = 0; raw < 2; ++raw) {
      const std::string name = "c" + std::to_string(k) + (raw ? "_raw" : "_typed");
      onnx::TensorProto tp;
      tp.set_name(name);
      tp.set_data_type(dtype);
      tp.add_dims(3);
      if (raw) tp.set_raw_data(std::string(reinterpret_cast<const char*>(a.raw().data()), a.raw().size()));
      for (int64_t e = 0; e < 3 && !raw; ++e) {  // the typed field each dtype is stored in
        if (dtype == dt::FLOAT) tp.add_float_data(static_cast<float>(a.f64_at(e)));
        else if (dtype == dt::DOUBLE) tp.add_double_data(a.f64_at(e));
        else if (dtype == dt::INT64) tp.add_int64_data(a.i64_at(e));
        else if (dtype == dt::UINT32 || dtype == dt::UINT64) tp.add_uint64_data(static_cast<uint64_t>(a.i64_at(e)));
        else if (dtype == dt::FLOAT16 || dtype == dt::BFLOAT16) {
          uint16_t bits = 0;  // 16-bit floats go as their bit patterns
          std::memcpy(&bits, a.raw().data() + e * 2, 2);
          tp.add_int32_data(bits);
        } else {
          tp.add_int32_data(static_cast<int32_t>(a.i64_at(e)));
        }
      }
      b.init(tp);
      b.node("Identity", {name}, {name + "_out"}, "id_" + name);
      b.output(name + "_out", dtype, Dims{3});
      expect.emplace_back(name, a);
    }
  }
  onnx::TensorProto st;
  st.set_name("strs");
  st.set_data_type(TP::STRING);
  st.add_dims(2);
  st.add_string_data("hello");
  st.add_string_data("");
  b.init(st);
  b.node("Identity", {"strs"}, {"strs_out"}, "id_strs");
  b.output("strs_out", TP::STRING, Dims{2});
  b.init(tensor_f32("scalar", {}, {7}));
  b.node("Identity", {"scalar"}, {"scalar_out"}, "id_scalar");
  b.output("scalar_out", TP::FLOAT, Dims{});

  auto ir = load_model(b.bytes());
  for (const auto& [name, a] : expect) {
    ASSERT_NE(ir->get_const(name), nullptr) << name;
    EXPECT_EQ(*ir->get_const(name), a) << name;
    EXPECT_EQ(ir->get_dtype(name + "_out"), a.dtype());
    EXPECT_EQ(ir->get_shape(name + "_out"), Shape({3}));
  }
  EXPECT_EQ(ir->get_const("strs")->strings(), std::vector<std::string>({"hello", ""}));
  EXPECT_EQ(ir->get_const("scalar")->ndim(), 0u);

  const std::string out = save_model(*ir);
  EXPECT_EQ(full_check(out), "");
  dump("dtypes", out);
  auto ir2 = load_model(out);
  for (const auto& kv : ir->consts()) {
    ASSERT_NE(ir2->get_const(kv.first), nullptr) << kv.first;
    EXPECT_EQ(*ir2->get_const(kv.first), kv.second) << kv.first;
  }
  EXPECT_EQ(save_model(*ir2), out);
}

TEST(OnnxIO, AttributesAndSubGraphsRoundTrip) {
  ModelBuilder b = io_model({2});
  *b.m.add_opset_import() = b.m.opset_import(0);
  b.m.mutable_opset_import(1)->set_domain("com.test");
  b.input("cond", TP::BOOL, Dims{});
  b.output("z", TP::FLOAT, std::nullopt);
  b.output("w", TP::FLOAT, Dims{2});

  onnx::GraphProto branch;
  branch.set_name("branch");
  *branch.add_node() = make_node("Identity", {"x"}, {"bo"}, "inner");
  *branch.add_output() = make_vi("bo", TP::FLOAT, Dims{2});
  AP tensors = attr("tensors", AP::TENSORS), graphs = attr("graphs", AP::GRAPHS);
  AP sparse = attr("sparse", AP::SPARSE_TENSOR), tp = attr("tp", AP::TYPE_PROTO);
  *tensors.add_tensors() = tensor_f32("", {1}, {1});
  *graphs.add_graphs() = branch;
  *sparse.mutable_sparse_tensor()->mutable_values() = tensor_f32("", {1}, {2});
  *sparse.mutable_sparse_tensor()->mutable_indices() = tensor_i64("", {1}, {0});
  sparse.mutable_sparse_tensor()->add_dims(4);
  set_type(tp.mutable_tp(), TP::FLOAT, Dims{1});

  const std::vector<AP> all = {
      attr_f("f", 0.5f),       attr_i("i", -3),  attr_s("s", "text"), attr_t("t", tensor_f32("", {2, 1}, {1, 2})),
      attr_g("g", branch),     attr_floats("floats", {1.f, 2.5f}),   attr_ints("ints", {1, -2, 3}),
      attr_strings("strings", {"a", "b"}), tensors, graphs, sparse, tp, attr_ints("empty_ints", {}),
  };
  b.node("Custom", {"x"}, {"w"}, "custom", all, "com.test");
  b.node("If", {"cond"}, {"y"}, "if", {attr_g("then_branch", branch), attr_g("else_branch", branch)});
  b.node("Constant", {}, {"z"}, "const_out", {attr_t("value", tensor_f32("", {1}, {3}))});

  auto ir = load_model(b.bytes());
  NodePtr custom = ir->find_node("custom");
  ASSERT_NE(custom, nullptr);
  EXPECT_EQ(custom->domain, "com.test");
  // Rules read these typed; the saved bytes below compare every attribute.
  EXPECT_EQ(IR::get_attr_float(*custom, "f").value(), 0.5f);
  EXPECT_EQ(IR::get_attr_ints(*custom, "ints").value(), std::vector<int64_t>({1, -2, 3}));
  EXPECT_EQ(IR::get_attr(*custom, "t")->t.to_f64(), std::vector<double>({1, 2}));
  // Sub-graphs read "x": it counts as an implicit input.
  EXPECT_EQ(ir->find_node("if")->implicit_inputs, std::vector<std::string>({"x"}));
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
  for (int k = 0; k < saved->attribute_size(); ++k) {
    if (all[k].type() == AP::TENSOR) {  // comes back as raw_data: compare the bytes
      EXPECT_EQ(saved->attribute(k).t().raw_data(), all[k].t().raw_data());
      EXPECT_EQ(saved->attribute(k).t().dims_size(), 2);
    } else {
      EXPECT_EQ(saved->attribute(k).SerializeAsString(), all[k].SerializeAsString()) << all[k].name();
    }
  }
  EXPECT_EQ(find_node(m.graph(), "if")->attribute(0).g().SerializeAsString(), branch.SerializeAsString());
  EXPECT_EQ(full_check(out), "");
  EXPECT_EQ(save_model(*load_model(out)), out);
}

TEST(OnnxIO, ConstantNodesFold) {
  ModelBuilder b = io_model({3});
  b.output("k", TP::INT64, Dims{2});
  b.node("Constant", {}, {"c"}, "c_node", {attr_t("value", tensor_f32("", {3}, {1, 2, 3}))});
  b.node("Constant", {}, {"cf"}, "cf_node", {attr_f("value_float", 2.f)});
  b.node("Constant", {}, {"k"}, "k_node", {attr_ints("value_ints", {4, 5})});
  b.node("Add", {"x", "c"}, {"t"}, "add");
  b.node("Mul", {"t", "cf"}, {"y"}, "mul");
  auto ir = load_model(b.bytes());
  EXPECT_EQ(ir->node_count(), 3u);  // add, mul, and k_node (a graph output)
  EXPECT_EQ(ir->get_const("c")->to_f64(), std::vector<double>({1, 2, 3}));
  ASSERT_TRUE(ir->is_const("cf"));
  EXPECT_EQ(ir->get_const("cf")->ndim(), 0u);
  EXPECT_EQ(ir->get_const("cf")->dtype(), dt::FLOAT);
  EXPECT_NE(ir->find_node("k_node"), nullptr);
  EXPECT_EQ(ir->get_shape("k"), Shape({2}));
  const std::string out = save_model(*ir);
  EXPECT_EQ(parse(out).graph().node_size(), 3);
  EXPECT_EQ(parse(out).graph().initializer_size(), 2);
  EXPECT_EQ(full_check(out), "");
  dump("constants", out);
}

TEST(OnnxIO, ImplicitInputKeepsProducerAlive) {
  ModelBuilder b = io_model({2});
  b.input("cond", TP::BOOL, Dims{});
  auto sub = [](const char* name, onnx::NodeProto n) {
    onnx::GraphProto g;
    g.set_name(name);
    *g.add_output() = make_vi(n.output(0), TP::FLOAT, Dims{2});
    *g.add_node() = std::move(n);
    return g;
  };
  // A nested If in the else branch: names read two levels down still count.
  const auto inner = sub("inner", make_node("Abs", {"hidden2"}, {"i_out"}, "i_abs"));
  const auto then_g = sub("then", make_node("Neg", {"hidden"}, {"t_out"}, "t_neg"));
  const auto else_g = sub("else", make_node("If", {"cond"}, {"e_out"}, "nested",
                                            {attr_g("then_branch", inner), attr_g("else_branch", inner)}));
  b.node("Relu", {"x"}, {"hidden"}, "relu");
  b.node("Sigmoid", {"x"}, {"hidden2"}, "sig");
  b.node("If", {"cond"}, {"y"}, "if", {attr_g("then_branch", then_g), attr_g("else_branch", else_g)});
  auto ir = load_model(b.bytes());
  NodePtr if_node = ir->find_node("if");
  EXPECT_EQ(if_node->implicit_inputs, std::vector<std::string>({"hidden", "cond", "hidden2"}));
  EXPECT_EQ(ir->next_nodes("hidden"), NodeList({if_node}));
  ASSERT_EQ(ir->node().size(), 3u);
  EXPECT_EQ(ir->node()[2], if_node);           // producers first
  EXPECT_EQ(ir->get_shape("y"), Shape({2}));  // inferred through the branches
  const std::string out = save_model(*ir);
  EXPECT_EQ(parse(out).graph().node_size(), 3);
  EXPECT_EQ(full_check(out), "");
  dump("implicit", out);
}

TEST(OnnxIO, LoadErrors) {
  const std::string good = simple_model().bytes();
  EXPECT_EQ(load_error(good), "");
  EXPECT_EQ(load_error(""), "not an ONNX model: the input is empty");
  for (const std::string& bad : {std::string("this is plain text, not a model\n"), good.substr(0, good.size() / 2)})
    EXPECT_EQ(load_error(bad).rfind("not an ONNX model: ", 0), 0u);

  std::vector<std::pair<ModelBuilder, std::string>> cases;
  auto add = [&](ModelBuilder b, const std::string& msg) { cases.emplace_back(std::move(b), msg); };
  ModelBuilder b = simple_model();
  b.m.clear_opset_import();  // as if truncated after the graph
  add(b, "not an ONNX model: no opset import for the default domain (truncated?)");
  b = simple_model();
  b.m.clear_graph();
  add(b, "not an ONNX model: it has no graph");
  b = simple_model();
  onnx::TensorProto* w = b.g()->mutable_initializer(0);
  w->clear_raw_data();
  w->set_data_location(TP::EXTERNAL);
  auto* e = w->add_external_data();
  e->set_key("location");
  e->set_value("weights.bin");
  add(b, "initializer w: its data is in an external file, and the model's folder is not known (load the model "
         "from its path)");
  b = simple_model();
  b.g()->mutable_initializer(0)->set_raw_data("abc");
  add(b, "initializer w: holds 3 bytes, its shape needs 12");
  b = io_model({2});
  b.node("Relu", {"x"}, {"y"}, "p1");
  b.node("Neg", {"x"}, {"y"}, "p2");
  add(b, "tensor y has two producers: p1, p2");
  b = io_model({2});  // unnamed nodes are named by op and position
  b.node("Relu", {"x"}, {"y"});
  b.node("Neg", {"x"}, {"y"});
  add(b, "tensor y has two producers: Relu node #0, Neg node #1");
  b = io_model({2});
  b.node("Neg", {"y"}, {"y"});
  add(b, "graph has a cycle through node Neg node #0");
  for (const auto& [model, msg] : cases) EXPECT_EQ(load_error(model.bytes()), msg);

  b = io_model({2});
  b.node("Add", {"x", "c"}, {"a"}, "n1");
  b.node("Relu", {"a"}, {"b"}, "n2");
  b.node("Neg", {"b"}, {"c"}, "n3");
  b.node("Identity", {"a"}, {"y"}, "n4");
  const std::string cyc = load_error(b.bytes());
  EXPECT_TRUE(cyc.rfind("graph has a cycle through node n", 0) == 0 && cyc.back() != '4') << cyc;

  const std::vector<std::pair<std::pair<std::string, Shape>, std::string>> shape_cases = {
      {{"w", {3}}, "input_shapes names w, which is not a graph input (graph inputs: x)"},
      {{"nope", {3}}, "input_shapes names nope, which is not a graph input (graph inputs: x)"},
      {{"x", {2, 3, 1}}, "input_shapes gives x rank 3, the model's input has rank 2"},
  };
  for (const auto& [given, msg] : shape_cases) {
    LoadOptions opt;
    opt.input_shapes[given.first] = given.second;
    EXPECT_EQ(load_error(good, opt), msg);
  }
}

TEST(OnnxIO, InputShapesOverride) {
  ModelBuilder b = io_model({-1, 4});
  b.node("Relu", {"x"}, {"r"}, "relu");
  b.node("Transpose", {"r"}, {"tp"}, "tp", {attr_ints("perm", {1, 0})});
  b.node("Transpose", {"tp"}, {"y"}, "tp2", {attr_ints("perm", {1, 0})});
  auto sym = load_model(b.bytes());
  EXPECT_FALSE(sym->has_shape("x") || sym->has_shape("tp"));  // symbolic dimension
  EXPECT_EQ(sym->get_dtype("x"), dt::FLOAT);
  EXPECT_EQ(parse(save_model(*sym)).graph().input(0).type().tensor_type().shape().dim(0).dim_param(), "N");

  LoadOptions opt;
  opt.input_shapes["x"] = {5, 4};
  auto ir = load_model(b.bytes(), opt);
  EXPECT_EQ(ir->get_shape("tp"), Shape({4, 5}));
  EXPECT_EQ(ir->get_shape("y"), Shape({5, 4}));
  const std::string out = save_model(*ir);
  const onnx::ModelProto m = parse(out);
  for (const auto* vi : {&m.graph().input(0), &m.graph().output(0)}) {  // saved as given
    EXPECT_EQ(vi->type().tensor_type().shape().dim(0).dim_value(), 5) << vi->name();
  }
  EXPECT_EQ(full_check(out), "");

  // An override of a dimension written as 0 (an exporter's unknown): the
  // model's inner shapes go.
  ModelBuilder c = io_model({0, 4});
  c.value_info("r", TP::FLOAT, Dims{0, 4});
  c.node("Relu", {"x"}, {"r"}, "relu");
  c.node("Neg", {"r"}, {"y"}, "neg");
  opt.input_shapes["x"] = {3, 4};
  auto ir2 = load_model(c.bytes(), opt);
  EXPECT_EQ(ir2->get_shape("r"), Shape({3, 4}));
  EXPECT_EQ(ir2->get_shape("y"), Shape({3, 4}));
  EXPECT_EQ(ir2->value_info(), std::vector<std::string>({"r"}));
}

TEST(OnnxIO, LegacyInitializerInputsAndSparse) {
  ModelBuilder b(9, 3);
  b.input("x", TP::FLOAT, Dims{3});
  b.input("w", TP::FLOAT, Dims{3});  // old style: initializers are inputs too
  b.output("y", TP::FLOAT, Dims{3});
  b.init(tensor_f32("w", {3}, {1, 2, 3}, false));
  b.node("Add", {"x", "w"}, {"y"}, "add");
  auto ir = load_model(b.bytes());
  EXPECT_EQ(ir->inputs(), std::vector<std::string>({"x"}));
  EXPECT_EQ(ir->get_const("w")->to_f64(), std::vector<double>({1, 2, 3}));
  const std::string out = save_model(*ir);
  const onnx::ModelProto m = parse(out);
  ASSERT_EQ(m.graph().input_size(), 2);
  EXPECT_EQ(m.graph().input(1).name(), "w");
  EXPECT_EQ(full_check(out), "");

  ModelBuilder s = io_model({4});
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

// A long chain: load, infer, save and reload stay linear (a quadratic step
// would take minutes here) and keep every node and shape.
TEST(OnnxIO, LongChainRoundTrip) {
  const int n = 50000;
  ModelBuilder b(13);
  b.input("x", TP::FLOAT, Dims{1, 16});
  b.init(tensor_f32("c", {16}, std::vector<float>(16, 1.f)));
  b.init(tensor_i64("s", {2}, {4, 4}));
  b.init(tensor_i64("s2", {2}, {1, 16}));
  std::string cur = "x";
  for (int i = 0; i < n; ++i) {
    const std::string out = "t" + std::to_string(i), name = "n" + std::to_string(i);
    if (i % 4 == 0) b.node("Add", {cur, "c"}, {out}, name);
    else if (i % 4 == 2) b.node("Transpose", {cur}, {out}, name, {attr_ints("perm", {1, 0})});
    else b.node("Reshape", {cur, i % 4 == 1 ? "s" : "s2"}, {out}, name);
    cur = out;
  }
  b.output(cur, TP::FLOAT, std::nullopt);
  auto ir = load_model(b.bytes());
  EXPECT_EQ(ir->node_count(), static_cast<size_t>(n));
  EXPECT_EQ(ir->get_shape("t2"), Shape({4, 4}));
  EXPECT_EQ(ir->get_shape(cur), Shape({1, 16}));
  const std::string out = save_model(*ir);
  const onnx::ModelProto m = parse(out);
  EXPECT_EQ(m.graph().node_size(), n);
  EXPECT_EQ(m.graph().value_info_size(), n - 1);
  EXPECT_EQ(m.graph().initializer_size(), 3);
  EXPECT_EQ(save_model(*load_model(out)), out);
}

// A branch body taken in as a graph of its own: the outer name it reads
// becomes an input with the outer graph's type and shape, and goes again
// when the body is written back.
TEST(OnnxIO, SubgraphRoundTrip) {
  ModelBuilder b = io_model({2, 3});
  b.input("cond", TP::BOOL, Dims{});
  onnx::GraphProto branch;
  branch.set_name("then");
  *branch.add_node() = make_node("Relu", {"x"}, {"o"}, "relu");
  *branch.add_output() = make_vi("o", TP::FLOAT, Dims{2, 3});
  b.node("If", {"cond"}, {"y"}, "if", {attr_g("then_branch", branch), attr_g("else_branch", branch)});
  auto outer = load_model(b.bytes());
  const std::string bytes = branch.SerializeAsString();
  EXPECT_EQ(subgraph_outer_names(bytes), (std::vector<std::string>{"x"}));
  auto body = load_subgraph(*outer, bytes);
  EXPECT_TRUE(body->is_input("x"));
  EXPECT_EQ(body->get_shape("x"), Shape({2, 3}));
  onnx::GraphProto back;
  ASSERT_TRUE(back.ParseFromString(save_subgraph(*body, bytes)));
  EXPECT_EQ(back.name(), "then");
  EXPECT_EQ(back.input_size(), 0);
  ASSERT_EQ(back.node_size(), 1);
  EXPECT_EQ(back.node(0).input(0), "x");
}
