// The loader reads nodes, value_info and initializers from the model bytes
// without protobuf. Protobuf accepts more encodings than it writes (packed
// or unpacked lists, fields repeated or interleaved, a graph given in two
// pieces): each must load as a protobuf parse of the same bytes would.
#include <gtest/gtest.h>

#include "host/onnx_convert.h"
#include "host/onnx_io.h"
#include "host/onnx_wire.h"
#include "onnx_model_util.h"

using namespace tolm;
using namespace testutil;
using TP = onnx::TensorProto;

namespace {

void varint(std::string& out, uint64_t v) {
  while (v >= 0x80) {
    out.push_back(static_cast<char>((v & 0x7f) | 0x80));
    v >>= 7;
  }
  out.push_back(static_cast<char>(v));
}

std::string tag(uint32_t field, uint32_t wire) {
  std::string s;
  varint(s, (field << 3) | wire);
  return s;
}

std::string bytes_field(uint32_t field, const std::string& payload) {
  std::string s = tag(field, 2);
  varint(s, payload.size());
  return s + payload;
}

std::string varint_field(uint32_t field, uint64_t v) {
  std::string s = tag(field, 0);
  varint(s, v);
  return s;
}

std::string packed_ints(const std::vector<int64_t>& v) {
  std::string p;
  for (int64_t x : v) varint(p, static_cast<uint64_t>(x));
  return p;
}

// What the loader keeps of an attribute given as these bytes: through the
// wire reader when it takes the form, else through protobuf.
Attr decoded(const std::string& bytes, bool& plain) {
  Attr a;
  plain = wire::read_plain_attr(bytes, a);
  if (plain) return a;
  onnx::AttributeProto ap;
  EXPECT_TRUE(ap.ParseFromString(bytes));
  return onnx_convert::attr_from_proto(ap);
}

Attr by_protobuf(const std::string& bytes) {
  onnx::AttributeProto ap;
  EXPECT_TRUE(ap.ParseFromString(bytes));
  return onnx_convert::attr_from_proto(ap);
}

// Saved form of the model loaded from `bytes`, and of the model loaded from
// protobuf's own re-encoding of the same bytes: they must agree.
void expect_loads_as_protobuf(const std::string& bytes) {
  onnx::ModelProto m;
  ASSERT_TRUE(m.ParseFromString(bytes));
  const std::string canonical = m.SerializeAsString();
  EXPECT_EQ(save_model(*load_model(bytes)), save_model(*load_model(canonical)));
}

}  // namespace

TEST(WireAttr, DecodesEveryEncodingAsProtobuf) {
  const std::string name = bytes_field(1, "axes");
  struct Case {
    const char* what;
    std::string bytes;
    bool plain;
  };
  const std::vector<Case> cases = {
      {"unpacked ints", attr_ints("axes", {0, -1, 5}).SerializeAsString(), true},
      {"packed ints", name + bytes_field(8, packed_ints({3, -2, 1LL << 40})) + varint_field(20, 7), true},
      {"packed and unpacked ints mixed", name + varint_field(8, 4) + bytes_field(8, packed_ints({5, 6})) +
                                             varint_field(20, 7), true},
      {"floats", attr_floats("axes", {1.5f, -2.f}).SerializeAsString(), true},
      {"packed floats", name + bytes_field(7, std::string("\x00\x00\xc0\x3f\x00\x00\x00\xc0", 8)) +
                            varint_field(20, 6), true},
      {"type left out: taken from the int", name + varint_field(3, static_cast<uint64_t>(-3)), true},
      {"type left out: taken from the ints", name + varint_field(8, 2) + varint_field(8, 9), true},
      {"int with a stray float", attr_i("axes", 4).SerializeAsString() + tag(2, 5) + std::string(4, '\x01'), true},
      {"strings", attr_strings("axes", {"a", "bc"}).SerializeAsString(), true},
      {"doc string", attr_s("axes", "x").SerializeAsString() + bytes_field(13, "about"), true},
      {"name given twice", attr_i("first", 1).SerializeAsString() + name, true},
      {"tensor", attr_t("axes", tensor_i64("", {2}, {1, 2})).SerializeAsString(), false},
      {"attribute reference", attr_i("axes", 1).SerializeAsString() + bytes_field(21, "outer"), false},
      {"type code protobuf does not know", name + varint_field(3, 1) + varint_field(20, 99), false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    bool plain = false;
    const Attr got = decoded(c.bytes, plain);
    EXPECT_EQ(plain, c.plain);
    EXPECT_TRUE(got == by_protobuf(c.bytes));
    EXPECT_EQ(got.opaque.empty(), by_protobuf(c.bytes).opaque.empty());
  }
  Attr a;
  const std::string cut = attr_ints("axes", {1, 2, 3}).SerializeAsString();
  EXPECT_FALSE(wire::read_plain_attr(cut.substr(0, cut.size() - 1), a));
}

TEST(WireModel, OddEncodingsLoadAsProtobufReadsThem) {
  ModelBuilder b(13);
  b.input("x", TP::FLOAT, Dims{2, 3});
  b.output("y", TP::FLOAT, Dims{2, 3});
  b.init(tensor_f32("w", {3}, {1, 2, 3}));
  b.node("Relu", {"x"}, {"r"}, "relu");
  b.value_info("r", TP::FLOAT, Dims{2, 3});
  const std::string model = b.bytes();

  // A graph given in two pieces: the second adds nodes, a value_info and an
  // initializer; protobuf merges the pieces into one graph.
  onnx::GraphProto more;
  onnx::NodeProto add = make_node("Add", {"s", "w"}, {"y"}, "add");
  // Ports interleaved with the op type and an unknown field in the bytes.
  std::string sig = bytes_field(2, "s") + bytes_field(4, "Sigmoid") + varint_field(99, 5) + bytes_field(1, "r") +
                    bytes_field(3, "sig");
  *more.add_node() = add;
  *more.add_initializer() = tensor_f32("unused", {1}, {0});
  std::string piece = more.SerializeAsString() + bytes_field(1, sig);
  // value_info records: a dimension given as a value then as a name (the
  // name wins), a -1 written for an unknown dimension, and a sequence type
  // that the wire reader leaves to protobuf.
  auto dim_value = [](int64_t v) { return bytes_field(1, varint_field(1, static_cast<uint64_t>(v))); };
  auto vi = [&](const std::string& n, const std::string& dims) {
    const std::string tensor = varint_field(1, TP::FLOAT) + bytes_field(2, dims);
    return bytes_field(13, bytes_field(1, n) + bytes_field(2, bytes_field(1, tensor)));
  };
  piece += vi("s", dim_value(2) + bytes_field(1, varint_field(1, 3) + bytes_field(2, "N")));
  piece += vi("unknown_dim", dim_value(-1));
  piece += bytes_field(13, bytes_field(1, "seq") + bytes_field(2, bytes_field(4, "")));
  const std::string bytes = model + bytes_field(7, piece);
  expect_loads_as_protobuf(bytes);

  auto ir = load_model(bytes);
  EXPECT_EQ(ir->node_count(), 3u);
  const NodePtr s = ir->find_node("sig");
  ASSERT_TRUE(s);
  EXPECT_EQ(s->op_type(), "Sigmoid");
  EXPECT_EQ(s->input.names(), std::vector<std::string>({"r"}));
  EXPECT_EQ(s->output.names(), std::vector<std::string>({"s"}));
  EXPECT_EQ(ir->get_shape("s"), Shape({2, 3}));  // inferred, not the declared [2, N]
  EXPECT_EQ(full_check(save_model(*ir)), "");
}

TEST(WireModel, BrokenBytesAndBrokenRecordsAreRefused) {
  ModelBuilder b(13);
  b.input("x", TP::FLOAT, Dims{2});
  b.output("y", TP::FLOAT, Dims{2});
  b.node("Relu", {"x"}, {"y"}, "relu");
  const std::string model = b.bytes();
  auto error = [](const std::string& bytes) {
    try {
      load_model(bytes);
    } catch (const LoadError& e) {
      return std::string(e.what());
    }
    return std::string();
  };
  for (size_t cut : {model.size() - 1, model.size() / 2, size_t{3}})
    EXPECT_NE(error(model.substr(0, cut)).find("do not parse"), std::string::npos) << cut;
  // A node record whose inner length runs past its end.
  const std::string bad_node = model + bytes_field(7, bytes_field(1, tag(1, 2) + "\x09x"));
  EXPECT_NE(error(bad_node).find("do not parse"), std::string::npos);
  // A node record that ends inside a group it opened.
  const std::string open_group = model + bytes_field(7, bytes_field(1, bytes_field(3, "n") + tag(14, 3) + varint_field(13, 1)));
  EXPECT_NE(error(open_group).find("do not parse"), std::string::npos);
  // A group that is closed is an unknown field like any other.
  const std::string closed_group =
      model + bytes_field(7, bytes_field(1, bytes_field(1, "x") + tag(14, 3) + varint_field(13, 1) + tag(14, 4) +
                                                bytes_field(2, "z") + bytes_field(4, "Neg") + bytes_field(3, "neg")));
  EXPECT_EQ(error(closed_group), "");
  // A value_info dimension below -1.
  const std::string tensor = varint_field(1, TP::FLOAT) + bytes_field(2, bytes_field(1, varint_field(1, static_cast<uint64_t>(-4))));
  const std::string neg = model + bytes_field(7, bytes_field(13, bytes_field(1, "y") + bytes_field(2, bytes_field(1, tensor))));
  EXPECT_EQ(error(neg), "value_info of tensor y has the negative dimension -4");
}

// Save writes nodes, value_info and initializers as bytes itself: protobuf
// must read them back as the messages meant, and writing those again must
// give the same bytes (fields in number order, lists unpacked).
TEST(WireSave, WritesWhatProtobufWouldWrite) {
  ModelBuilder b(13, 3);  // IR version 3: initializers are listed as inputs too
  b.input("x", TP::FLOAT, Dims{2, 3});
  b.output("y", TP::FLOAT, Dims{2, 3});
  b.output("n", TP::INT64, Dims{});
  b.init(tensor_f32("w", {3}, {1, -2, 3}));
  onnx::TensorProto names;
  names.set_name("labels");
  names.set_data_type(TP::STRING);
  names.add_dims(2);
  names.add_string_data("cat");
  names.add_string_data("");
  b.init(names);
  onnx::NodeProto relu = make_node("LeakyRelu", {"x"}, {"r"}, "relu");
  *relu.add_attribute() = attr_f("alpha", 0.f);
  relu.set_doc_string("negative slope 0");
  *b.g()->add_node() = relu;
  onnx::NodeProto add = make_node("Add", {"r", "w"}, {"a"}, "");
  *b.g()->add_node() = add;
  onnx::NodeProto perm = make_node("Transpose", {"a"}, {"t"}, "perm");
  *perm.add_attribute() = attr_ints("perm", {1, 0});
  *b.g()->add_node() = perm;
  onnx::NodeProto back = make_node("Transpose", {"t"}, {"y"}, "back");
  *back.add_attribute() = attr_ints("perm", {1, 0});
  *b.g()->add_node() = back;
  onnx::NodeProto size = make_node("Size", {"labels"}, {"n"}, "size");
  *b.g()->add_node() = size;
  onnx::NodeProto custom = make_node("Note", {"x"}, {"note"}, "note");
  custom.set_domain("example.custom");
  *custom.add_attribute() = attr_ints("axes", {-1, 1LL << 40, 0});
  *custom.add_attribute() = attr_floats("scales", {0.5f, -1e30f});
  *custom.add_attribute() = attr_strings("tags", {"a", ""});
  *custom.add_attribute() = attr_s("mode", "");
  *custom.add_attribute() = attr_i("zero", 0);
  *custom.add_attribute() = attr_t("value", tensor_i64("", {2}, {7, -7}));
  *b.g()->add_node() = custom;
  b.output("note", TP::FLOAT, std::nullopt);

  auto ir = load_model(b.bytes());
  ASSERT_EQ(ir->node_count(), 6u);
  const std::string saved = save_model(*ir);
  onnx::ModelProto m;
  ASSERT_TRUE(m.ParseFromString(saved));
  EXPECT_EQ(m.SerializeAsString(), saved);
  EXPECT_EQ(m.graph().node_size(), 6);
  EXPECT_EQ(m.graph().initializer_size(), 2);
  EXPECT_EQ(m.graph().input_size(), 3);  // x, then w and labels
  EXPECT_EQ(m.graph().node(0).doc_string(), "negative slope 0");
  EXPECT_EQ(m.graph().node(5).attribute(5).t().int64_data_size() + m.graph().node(5).attribute(5).t().raw_data().size(),
            16u);
  // Reading it back changes nothing.
  EXPECT_EQ(save_model(*load_model(saved)), saved);
}
