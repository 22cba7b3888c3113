#include "host/shape_infer.h"

#include <algorithm>
#include <climits>
#include <unordered_map>

#include <onnx/defs/schema.h>
#include <onnx/onnx_pb.h>
#include <onnx/shape_inference/implementation.h>

#include "host/onnx_convert.h"

namespace tolm {

namespace {

// Constant inputs handed to ONNX's inference functions: small ones only, which
// is what shape-like operands (Reshape, Slice, Expand, Tile, Resize...) are.
constexpr int64_t kMaxConstElements = 4096;

using GeneratedShapes = std::unordered_map<std::string, onnx::TensorShapeProto>;

struct Facts {
  int32_t dtype = dt::UNDEFINED;
  bool has_shape = false;
  Shape shape;
};

Facts facts(const IR& ir, const std::string& t) {
  Facts f;
  if (t.empty()) return f;
  // One look-up for the common case: ir.tensor() holds type and shape.
  if (const TensorInfo* ti = ir.tensor(t)) {
    f.dtype = ti->dtype;
    if (ti->has_shape) {
      f.has_shape = true;
      f.shape = ti->shape;
    }
  }
  if (f.dtype == dt::UNDEFINED || !f.has_shape) {
    if (const NDArray* c = ir.get_const(t)) {
      if (f.dtype == dt::UNDEFINED) f.dtype = c->dtype();
      if (!f.has_shape) {
        f.has_shape = true;
        f.shape = c->shape();
      }
    }
  }
  return f;
}

bool has_shape(const IR& ir, const std::string& t) {
  const TensorInfo* ti = ir.tensor(t);
  return ti && ti->has_shape;
}

bool all_outputs_shaped(const IR& ir, const Node& node) {
  for (const auto& t : node.output)
    if (!t.empty() && !has_shape(ir, t)) return false;
  return true;
}

// Records an output's type and shape, respecting `overwrite`.
void put(IR& ir, const std::string& t, int32_t dtype, const Shape* shape, bool overwrite) {
  if (t.empty()) return;
  const TensorInfo* ti = ir.tensor(t);
  const bool held = ti && ti->has_shape;
  if (shape && (!held || overwrite)) {
    ir.set_shape(t, *shape, false, dtype);
    return;
  }
  if (dtype != dt::UNDEFINED && (overwrite || !ti || ti->dtype == dt::UNDEFINED)) ir.set_dtype(t, dtype);
}

// ------------------------------------------------------ extended ops

int32_t dtype_from_name(const std::string& s, int32_t fallback) {
  if (s == "float32") return dt::FLOAT;
  if (s == "float16") return dt::FLOAT16;
  if (s == "int8" || s == "int4" || s == "int6") return dt::INT8;
  if (s == "uint8") return dt::UINT8;
  if (s == "int16") return dt::INT16;
  if (s == "int32") return dt::INT32;
  return fallback;
}

bool matmul_shape(const Shape& a_in, const Shape& b_in, Shape& out) {
  if (a_in.empty() || b_in.empty()) return false;
  const bool a1 = a_in.size() == 1, b1 = b_in.size() == 1;
  Shape a = a1 ? Shape{1, a_in[0]} : a_in;
  Shape b = b1 ? Shape{b_in[0], 1} : b_in;
  if (a[a.size() - 1] != b[b.size() - 2]) return false;
  const size_t ra = a.size() - 2, rb = b.size() - 2, r = std::max(ra, rb);
  Shape batch(r);
  for (size_t k = 0; k < r; ++k) {
    const int64_t da = k + ra >= r ? a[k + ra - r] : 1;
    const int64_t db = k + rb >= r ? b[k + rb - r] : 1;
    if (da != db && da != 1 && db != 1) return false;
    batch[k] = da == 1 ? db : da;
  }
  out = batch;
  if (!a1) out.push_back(a[a.size() - 2]);
  if (!b1) out.push_back(b[b.size() - 1]);
  return true;
}

// Our inference for the compiler's extended ops. Returns -1 when the op is not
// one of them, else 0/1 for failure/success.
int infer_extended(IR& ir, Node& node, bool overwrite) {
  const std::string& op = node.op_type();
  if (op != "exDataConvert" && op != "exMatMul" && op != "exNorm" && op != "exSoftmax13" &&
      op != "exSwish" && op != "exGlu")
    return -1;
  if (node.input.empty() || node.output.empty()) return 0;
  const Facts in = facts(ir, node.input[0]);
  int32_t dtype = in.dtype;
  if (op == "exDataConvert") {
    if (auto s = IR::get_attr_str(node, "o_dtype")) dtype = dtype_from_name(*s, in.dtype);
  }
  Shape out;
  bool ok = in.has_shape;
  if (ok) {
    if (op == "exMatMul") {
      const Facts b = node.input.size() > 1 ? facts(ir, node.input[1]) : Facts{};
      ok = b.has_shape && matmul_shape(in.shape, b.shape, out);
    } else if (op == "exGlu") {
      const int64_t rank = static_cast<int64_t>(in.shape.size());
      int64_t axis = IR::get_attr_int(node, "axis").value_or(-1);
      if (axis < 0) axis += rank;
      ok = axis >= 0 && axis < rank && in.shape[static_cast<size_t>(axis)] % 2 == 0;
      if (ok) {
        out = in.shape;
        out[static_cast<size_t>(axis)] /= 2;
      }
    } else {
      out = in.shape;
    }
  }
  put(ir, node.output[0], dtype, ok ? &out : nullptr, overwrite);
  return ok ? 1 : 0;
}

// ------------------------------------- reductions past what libonnx knows

// Opset 18 moved `axes` of the Reduce* ops (ReduceSum: 13) from attribute to
// input; libonnx 1.12 knows only the attribute form.
bool is_reduce18(const std::string& op) {
  return op == "ReduceL1" || op == "ReduceL2" || op == "ReduceLogSum" || op == "ReduceLogSumExp" ||
         op == "ReduceMax" || op == "ReduceMean" || op == "ReduceMin" || op == "ReduceProd" ||
         op == "ReduceSumSquare";
}

bool infer_reduce(IR& ir, Node& node, bool overwrite) {
  if (node.input.empty() || node.output.empty()) return false;
  const Facts in = facts(ir, node.input[0]);
  const bool keep = IR::get_attr_int(node, "keepdims").value_or(1) != 0;
  const bool noop = IR::get_attr_int(node, "noop_with_empty_axes").value_or(0) != 0;
  std::vector<int64_t> axes;
  bool ok = in.has_shape;
  if (node.input.size() > 1 && !node.input[1].empty()) {
    const NDArray* a = ir.get_const(node.input[1]);
    if (a && a->dtype() != dt::STRING) axes = a->to_i64();
    else ok = false;
  }
  Shape out;
  if (ok) {
    const int64_t rank = static_cast<int64_t>(in.shape.size());
    std::vector<char> reduce(in.shape.size(), axes.empty() && !noop ? 1 : 0);
    for (int64_t a : axes) {
      if (a < 0) a += rank;
      if (a < 0 || a >= rank) {
        ok = false;
        break;
      }
      reduce[static_cast<size_t>(a)] = 1;
    }
    for (size_t k = 0; ok && k < in.shape.size(); ++k) {
      if (!reduce[k]) out.push_back(in.shape[k]);
      else if (keep) out.push_back(1);
    }
  }
  put(ir, node.output[0], in.dtype, ok ? &out : nullptr, overwrite);
  return ok;
}

// ---------------------------------------------------------- ONNX ops

int default_opset_max() {
  static const int v = [] {
    const auto& m = onnx::OpSchemaRegistry::DomainToVersionRange::Instance().Map();
    auto it = m.find("");
    return it == m.end() ? 17 : it->second.second;
  }();
  return v;
}

void fill_type(const Facts& f, onnx::TypeProto& type) {
  auto* tt = type.mutable_tensor_type();
  tt->set_elem_type(f.dtype);
  if (f.has_shape) {
    auto* sh = tt->mutable_shape();
    for (int64_t d : f.shape) sh->add_dim()->set_dim_value(d);
  }
}

// The value of an integer tensor that data propagation worked out, as a
// TensorProto, when every element is known.
bool value_from_generated(const GeneratedShapes& generated, const std::string& t, const Facts& f,
                          onnx::TensorProto& out) {
  if (f.dtype != dt::INT64 && f.dtype != dt::INT32) return false;
  auto it = generated.find(t);
  if (it == generated.end()) return false;
  const auto& dims = it->second.dim();
  std::vector<int64_t> values;
  values.reserve(static_cast<size_t>(dims.size()));
  for (const auto& d : dims) {
    if (!d.has_dim_value()) return false;
    values.push_back(d.dim_value());
  }
  Shape shape{static_cast<int64_t>(values.size())};
  if (f.has_shape && shape_size(f.shape) == static_cast<int64_t>(values.size())) shape = f.shape;
  onnx_convert::tensor_to_proto(NDArray::from_i64(values, shape, f.dtype), t, &out);
  return true;
}

bool infer_onnx(IR& ir, Node& node, bool overwrite, GeneratedShapes* generated) {
  const bool default_domain = node.domain.empty() || node.domain == "ai.onnx";
  const std::string domain = default_domain ? std::string() : node.domain;
  const onnx::OpSchema* schema =
      default_domain ? onnx::OpSchemaRegistry::Schema(node.op_type(), static_cast<int>(ir.opset()), domain)
                     : onnx::OpSchemaRegistry::Schema(node.op_type(), domain);
  if (!schema || !schema->has_type_and_shape_inference_function()) return false;

  onnx::NodeProto np;
  np.set_op_type(node.op_type());
  if (!domain.empty()) np.set_domain(domain);
  np.set_name(node.name());
  for (const auto& t : node.input) np.add_input(t);
  for (const auto& t : node.output) np.add_output(t);
  bool has_graph_attr = false;
  for (const auto& a : node.attribute()) {
    onnx::AttributeProto* ap = np.add_attribute();
    onnx_convert::attr_to_proto(a, ap);
    if (ap->has_g() || ap->graphs_size() > 0) has_graph_attr = true;
  }

  const size_t n_in = node.input.size();
  std::vector<onnx::TypeProto> types(n_in);
  std::vector<onnx::TensorProto> datas(n_in);
  std::unordered_map<std::string, onnx::TypeProto*> type_by_name;
  std::unordered_map<std::string, const onnx::TensorProto*> data_by_name;
  for (size_t k = 0; k < n_in; ++k) {
    const std::string& t = node.input[k];
    if (t.empty() || type_by_name.count(t)) continue;
    const Facts f = facts(ir, t);
    if (f.dtype == dt::UNDEFINED) continue;
    fill_type(f, types[k]);
    type_by_name.emplace(t, &types[k]);
    const NDArray* c = ir.get_const(t);
    if (c && c->dtype() != dt::STRING && c->size() <= kMaxConstElements) {
      onnx_convert::tensor_to_proto(*c, t, &datas[k]);
      data_by_name.emplace(t, &datas[k]);
    } else if (!c && generated && value_from_generated(*generated, t, f, datas[k])) {
      // libonnx 1.12's Reshape (and others) read only constant data: hand
      // them the propagated value of a shape computation as a constant.
      data_by_name.emplace(t, &datas[k]);
    }
  }

  // Sub-graphs (If, Loop, Scan) see the outer tensors they capture.
  std::vector<onnx::TypeProto> outer_types;
  std::unordered_map<std::string, onnx::TypeProto*> outer_by_name;
  const std::unordered_map<std::string, int> opsets{{"", static_cast<int>(ir.opset())}};
  const onnx::shape_inference::ModelLocalFunctionsMap no_functions;
  std::unique_ptr<onnx::shape_inference::GraphInferenceContext> graph_ctx;
  if (has_graph_attr) {
    outer_types.resize(node.implicit_inputs.size());
    for (size_t k = 0; k < node.implicit_inputs.size(); ++k) {
      const Facts f = facts(ir, node.implicit_inputs[k]);
      if (f.dtype == dt::UNDEFINED) continue;
      fill_type(f, outer_types[k]);
      outer_by_name.emplace(node.implicit_inputs[k], &outer_types[k]);
    }
    for (const auto& kv : type_by_name) outer_by_name.emplace(kv.first, kv.second);
    graph_ctx = std::make_unique<onnx::shape_inference::GraphInferenceContext>(outer_by_name, opsets, nullptr,
                                                                               no_functions);
  }

  const std::unordered_map<std::string, const onnx::SparseTensorProto*> no_sparse;
  onnx::shape_inference::InferenceContextImpl ctx(np, type_by_name, data_by_name, no_sparse, generated,
                                                  graph_ctx.get());
  try {
    schema->GetTypeAndShapeInferenceFunction()(ctx);
  } catch (...) {
    return false;
  }

  for (size_t k = 0; k < node.output.size(); ++k) {
    const std::string& t = node.output[k];
    if (t.empty()) continue;
    const onnx::TypeProto* ot = ctx.getOutputType(k);
    if (!ot || !ot->has_tensor_type()) continue;
    const auto& tt = ot->tensor_type();
    Shape s;
    bool full = tt.has_shape();
    if (full) {
      s.reserve(static_cast<size_t>(tt.shape().dim_size()));
      for (const auto& d : tt.shape().dim()) {
        if (!d.has_dim_value() || d.dim_value() < 0) {
          full = false;
          break;
        }
        s.push_back(d.dim_value());
      }
    }
    put(ir, t, tt.elem_type(), full ? &s : nullptr, overwrite);
  }

  // Values of small shape-like tensors, for Reshape/Expand/... further down.
  if (generated && schema->has_data_propagation_function()) {
    std::vector<onnx::TypeProto> out_types(node.output.size());
    for (size_t k = 0; k < node.output.size(); ++k) {
      const std::string& t = node.output[k];
      if (t.empty() || type_by_name.count(t)) continue;
      const Facts f = facts(ir, t);
      if (f.dtype == dt::UNDEFINED) continue;
      fill_type(f, out_types[k]);
      type_by_name.emplace(t, &out_types[k]);
    }
    try {
      onnx::shape_inference::DataPropagationContextImpl dctx(np, type_by_name, data_by_name, *generated);
      schema->GetDataPropagationFunction()(dctx);
    } catch (...) {
    }
  }
  return all_outputs_shaped(ir, node);
}

bool infer_impl(IR& ir, Node& node, bool overwrite, GeneratedShapes* generated) {
  try {
    const int ext = infer_extended(ir, node, overwrite);
    if (ext >= 0) return ext == 1;
    const bool default_domain = node.domain.empty() || node.domain == "ai.onnx";
    if (default_domain && ir.opset() >= 18 && is_reduce18(node.op_type())) return infer_reduce(ir, node, overwrite);
    if (default_domain && ir.opset() > default_opset_max() && node.op_type() == "Split" &&
        IR::get_attr_int(node, "num_outputs")) {
      // Split-18 num_outputs: like Split-13 with no lengths, but the last
      // chunk may be smaller; compute it ourselves.
      const Facts in = facts(ir, node.input.empty() ? std::string() : node.input[0]);
      if (!in.has_shape) return false;
      const int64_t rank = static_cast<int64_t>(in.shape.size());
      int64_t axis = IR::get_attr_int(node, "axis").value_or(0);
      if (axis < 0) axis += rank;
      if (axis < 0 || axis >= rank) return false;
      const int64_t n = static_cast<int64_t>(node.output.size());
      const int64_t dim = in.shape[static_cast<size_t>(axis)];
      const int64_t chunk = (dim + n - 1) / n;
      for (int64_t k = 0; k < n; ++k) {
        Shape s = in.shape;
        s[static_cast<size_t>(axis)] = std::max<int64_t>(0, std::min(chunk, dim - k * chunk));
        put(ir, node.output[static_cast<size_t>(k)], in.dtype, &s, overwrite);
      }
      return true;
    }
    return infer_onnx(ir, node, overwrite, generated);
  } catch (...) {
    return false;
  }
}

}  // namespace

bool infer_node(IR& ir, Node& node, bool overwrite) { return infer_impl(ir, node, overwrite, nullptr); }

void infer_missing(IR& ir) {
  GeneratedShapes generated;
  // Inference writes shapes and types only, which leaves the order valid.
  const NodeList& nodes = ir.node();
  for (const auto& n : nodes) {
    bool run = false;
    for (size_t k = 0; k < n->output.size() && !run; ++k) {
      const TensorInfo* ti = n->output_info(k);
      run = !n->output[k].empty() && !(ti && ti->has_shape);
    }
    // Nodes of shape computations run even when their outputs are known, so
    // that the values they carry reach a Reshape or Expand further down.
    if (!run) run = n->op_type() == "Shape" && n->domain.empty();
    if (!run && !generated.empty())
      for (const auto& t : n->input)
        if (generated.count(t)) {
          run = true;
          break;
        }
    if (run) infer_impl(ir, *n, false, &generated);
  }
}

}  // namespace tolm
