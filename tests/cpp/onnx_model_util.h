// Small ONNX models built in C++ for the tests: a thin layer over the
// protobuf classes of libonnx.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <onnx/checker.h>
#include <onnx/onnx_pb.h>
#include <onnx/shape_inference/implementation.h>

namespace testutil {

// A dimension below 0 is written as the symbolic dimension "N".
using Dims = std::vector<int64_t>;
using AP = onnx::AttributeProto;

inline void set_type(onnx::TypeProto* type, int32_t elem, const std::optional<Dims>& dims) {
  auto* tt = type->mutable_tensor_type();
  tt->set_elem_type(elem);
  if (!dims) return;
  auto* sh = tt->mutable_shape();
  for (int64_t d : *dims) {
    auto* dim = sh->add_dim();
    if (d < 0) dim->set_dim_param("N");
    else dim->set_dim_value(d);
  }
}

inline onnx::ValueInfoProto make_vi(const std::string& name, int32_t elem, const std::optional<Dims>& dims) {
  onnx::ValueInfoProto vi;
  vi.set_name(name);
  set_type(vi.mutable_type(), elem, dims);
  return vi;
}

inline AP attr(const std::string& n, AP::AttributeType type) {
  AP a;
  a.set_name(n);
  a.set_type(type);
  return a;
}
// clang-format off
inline AP attr_i(const std::string& n, int64_t v) { AP a = attr(n, AP::INT); a.set_i(v); return a; }
inline AP attr_f(const std::string& n, float v) { AP a = attr(n, AP::FLOAT); a.set_f(v); return a; }
inline AP attr_s(const std::string& n, const std::string& v) { AP a = attr(n, AP::STRING); a.set_s(v); return a; }
inline AP attr_t(const std::string& n, const onnx::TensorProto& v) { AP a = attr(n, AP::TENSOR); *a.mutable_t() = v; return a; }
inline AP attr_g(const std::string& n, const onnx::GraphProto& v) { AP a = attr(n, AP::GRAPH); *a.mutable_g() = v; return a; }
inline AP attr_ints(const std::string& n, const std::vector<int64_t>& v) {
  AP a = attr(n, AP::INTS); for (int64_t x : v) a.add_ints(x); return a;
}
inline AP attr_floats(const std::string& n, const std::vector<float>& v) {
  AP a = attr(n, AP::FLOATS); for (float x : v) a.add_floats(x); return a;
}
inline AP attr_strings(const std::string& n, const std::vector<std::string>& v) {
  AP a = attr(n, AP::STRINGS); for (const auto& x : v) a.add_strings(x); return a;
}
// clang-format on

// Float (typed data when `raw` is false) or int64 tensors, raw data by default.
template <typename T>
onnx::TensorProto tensor_of(const std::string& name, const Dims& dims, const std::vector<T>& v, bool raw = true) {
  onnx::TensorProto t;
  t.set_name(name);
  t.set_data_type(sizeof(T) == 4 ? onnx::TensorProto::FLOAT : onnx::TensorProto::INT64);
  for (int64_t d : dims) t.add_dims(d);
  if (raw) t.set_raw_data(std::string(reinterpret_cast<const char*>(v.data()), v.size() * sizeof(T)));
  else
    for (T x : v) sizeof(T) == 4 ? t.add_float_data(static_cast<float>(x)) : t.add_int64_data(static_cast<int64_t>(x));
  return t;
}
inline onnx::TensorProto tensor_f32(const std::string& name, const Dims& dims, const std::vector<float>& v,
                                    bool raw = true) {
  return tensor_of<float>(name, dims, v, raw);
}
inline onnx::TensorProto tensor_i64(const std::string& name, const Dims& dims, const std::vector<int64_t>& v) {
  return tensor_of<int64_t>(name, dims, v);
}

inline onnx::NodeProto make_node(const std::string& op, const std::vector<std::string>& ins,
                                 const std::vector<std::string>& outs, const std::string& name = "",
                                 const std::vector<AP>& attrs = {}, const std::string& domain = "") {
  onnx::NodeProto n;
  n.set_op_type(op);
  if (!name.empty()) n.set_name(name);
  if (!domain.empty()) n.set_domain(domain);
  for (const auto& i : ins) n.add_input(i);
  for (const auto& o : outs) n.add_output(o);
  for (const auto& a : attrs) *n.add_attribute() = a;
  return n;
}

struct ModelBuilder {
  onnx::ModelProto m;

  explicit ModelBuilder(int64_t opset = 13, int64_t ir_version = 8) {
    m.set_ir_version(ir_version);
    m.set_producer_name("tolm-test");
    auto* op = m.add_opset_import();
    op->set_domain("");
    op->set_version(opset);
    m.mutable_graph()->set_name("g");
  }
  onnx::GraphProto* g() { return m.mutable_graph(); }

  ModelBuilder& input(const std::string& name, int32_t elem, const std::optional<Dims>& dims) {
    *g()->add_input() = make_vi(name, elem, dims);
    return *this;
  }
  ModelBuilder& output(const std::string& name, int32_t elem, const std::optional<Dims>& dims) {
    *g()->add_output() = make_vi(name, elem, dims);
    return *this;
  }
  ModelBuilder& value_info(const std::string& name, int32_t elem, const std::optional<Dims>& dims) {
    *g()->add_value_info() = make_vi(name, elem, dims);
    return *this;
  }
  ModelBuilder& init(const onnx::TensorProto& t) {
    *g()->add_initializer() = t;
    return *this;
  }
  onnx::NodeProto* node(const std::string& op, const std::vector<std::string>& ins,
                        const std::vector<std::string>& outs, const std::string& name = "",
                        const std::vector<AP>& attrs = {}, const std::string& domain = "") {
    return &(*g()->add_node() = make_node(op, ins, outs, name, attrs, domain));
  }
  std::string bytes() const { return m.SerializeAsString(); }
};

// onnx::checker plus strict type and shape inference, as onnx.checker's
// full_check does. Returns the error text, empty if the model passes.
inline std::string full_check(const std::string& bytes) {
  onnx::ModelProto m;
  if (!m.ParseFromString(bytes)) return "does not parse";
  try {
    onnx::checker::check_model(m);
    onnx::shape_inference::InferShapes(m, onnx::OpSchemaRegistry::Instance(),
                                       onnx::ShapeInferenceOptions(true, 1, false));
  } catch (const std::exception& e) {
    return e.what();
  }
  return "";
}

}  // namespace testutil
