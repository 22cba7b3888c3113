#include "host/onnx_io.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <deque>
#include <fstream>
#include <queue>
#include <sstream>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include <google/protobuf/arena.h>
#include <onnx/onnx_pb.h>

#include "host/onnx_convert.h"
#include "host/onnx_wire.h"
#include "host/shape_infer.h"
#include "host/validate.h"

namespace tolm {

// ====================================================== value conversions

namespace onnx_convert {

bool has_external_data(const onnx::TensorProto& tp) {
  return tp.data_location() == onnx::TensorProto::EXTERNAL || tp.external_data_size() > 0;
}

namespace {

template <class Dst, class Src>
void copy_cast(const Src& values, std::vector<uint8_t>& raw) {
  Dst* out = reinterpret_cast<Dst*>(raw.data());
  size_t k = 0;
  for (auto v : values) {
    const Dst d = static_cast<Dst>(v);
    std::memcpy(out + k, &d, sizeof(Dst));
    ++k;
  }
}

}  // namespace

namespace {

bool parse_count(const std::string& text, int64_t& out) {
  if (text.empty() || text.size() > 18) return false;
  int64_t v = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    v = v * 10 + (c - '0');
  }
  out = v;
  return true;
}

// A location inside the model's folder: relative, and no step out of it.
bool inside_folder(const std::string& location) {
  if (location.empty() || location[0] == '/' || location[0] == '\\') return false;
  size_t start = 0;
  while (start <= location.size()) {
    size_t end = location.find_first_of("/\\", start);
    if (end == std::string::npos) end = location.size();
    if (location.compare(start, end - start, "..") == 0 && end - start == 2) return false;
    start = end + 1;
  }
  return true;
}

}  // namespace

std::string ExternalDataReader::read(const onnx::TensorProto& tp, std::vector<uint8_t>& raw) {
  std::string location;
  int64_t offset = 0, length = -1;
  for (const auto& e : tp.external_data()) {
    if (e.key() == "location") {
      location = e.value();
    } else if (e.key() == "offset" || e.key() == "length") {
      int64_t v = 0;
      if (!parse_count(e.value(), v)) return "external data " + e.key() + " '" + e.value() + "' is not a byte count";
      (e.key() == "offset" ? offset : length) = v;
    }
  }
  if (location.empty()) return "external data without a location";
  if (!inside_folder(location))
    return "external data location '" + location + "' is not inside the model's folder";
  const int64_t need = static_cast<int64_t>(raw.size());
  if (length >= 0 && length != need)
    return "external data length " + std::to_string(length) + ", its shape needs " + std::to_string(need) +
           " bytes";
  std::unique_ptr<std::ifstream>& f = files_[location];
  const std::string path = dir_ + "/" + location;
  if (!f) {
    f = std::make_unique<std::ifstream>(path, std::ios::binary);
    if (!*f) {
      files_.erase(location);
      return "cannot open its external data file " + path;
    }
  }
  f->clear();
  f->seekg(0, std::ios::end);
  const int64_t size = static_cast<int64_t>(f->tellg());
  if (size < 0 || offset + need > size)
    return "external data file " + location + " holds " + std::to_string(size) + " bytes, the tensor needs bytes " +
           std::to_string(offset) + " to " + std::to_string(offset + need);
  f->seekg(offset, std::ios::beg);
  // In pieces: one read of several GB is more than some stream buffers take.
  constexpr int64_t kPiece = int64_t(1) << 28;
  for (int64_t done = 0; done < need; done += kPiece) {
    const int64_t n = std::min(kPiece, need - done);
    if (!f->read(reinterpret_cast<char*>(raw.data()) + done, static_cast<std::streamsize>(n)))
      return "cannot read external data file " + path;
  }
  ++tensors;
  bytes += need;
  return "";
}

std::string tensor_from_proto(const onnx::TensorProto& tp, NDArray& out, ExternalDataReader* external) {
  Shape shape(tp.dims().begin(), tp.dims().end());
  for (int64_t d : shape)
    if (d < 0) return "negative dimension " + std::to_string(d);
  const int64_t n = shape_size(shape);
  const int32_t dtype = tp.data_type();
  if (has_external_data(tp)) {
    if (!external)
      return "its data is in an external file, and the model's folder is not known (load the model from its path)";
    if (dtype == dt::STRING) return "string data in an external file is not supported";
    const size_t es = dtype_size(dtype);
    if (es == 0) return "unsupported element type " + std::to_string(dtype);
    std::vector<uint8_t> raw(static_cast<size_t>(n) * es);
    const std::string why = external->read(tp, raw);
    if (!why.empty()) return why;
    out = NDArray(dtype, std::move(shape), std::move(raw));
    return "";
  }
  if (dtype == dt::STRING) {
    if (tp.string_data_size() != n)
      return "holds " + std::to_string(tp.string_data_size()) + " strings, its shape needs " +
             std::to_string(n);
    out = NDArray::from_strings(std::vector<std::string>(tp.string_data().begin(), tp.string_data().end()),
                                shape);
    return "";
  }
  const size_t es = dtype_size(dtype);
  if (es == 0) return "unsupported element type " + std::to_string(dtype);
  const size_t bytes = static_cast<size_t>(n) * es;
  std::vector<uint8_t> raw(bytes);
  if (tp.has_raw_data()) {
    if (tp.raw_data().size() != bytes)
      return "holds " + std::to_string(tp.raw_data().size()) + " bytes, its shape needs " +
             std::to_string(bytes);
    if (bytes) std::memcpy(raw.data(), tp.raw_data().data(), bytes);
    out = NDArray(dtype, std::move(shape), std::move(raw));
    return "";
  }
  // Typed fields. Complex numbers take two values per element.
  int64_t have = 0;
  int64_t need = n;
  switch (dtype) {
    case dt::FLOAT:
    case dt::COMPLEX64:
      need = dtype == dt::COMPLEX64 ? 2 * n : n;
      have = tp.float_data_size();
      if (have == need && bytes) std::memcpy(raw.data(), tp.float_data().data(), bytes);
      break;
    case dt::DOUBLE:
    case dt::COMPLEX128:
      need = dtype == dt::COMPLEX128 ? 2 * n : n;
      have = tp.double_data_size();
      if (have == need && bytes) std::memcpy(raw.data(), tp.double_data().data(), bytes);
      break;
    case dt::INT64:
      have = tp.int64_data_size();
      if (have == need && bytes) std::memcpy(raw.data(), tp.int64_data().data(), bytes);
      break;
    case dt::UINT32:
      have = tp.uint64_data_size();
      if (have == need) copy_cast<uint32_t>(tp.uint64_data(), raw);
      break;
    case dt::UINT64:
      have = tp.uint64_data_size();
      if (have == need) copy_cast<uint64_t>(tp.uint64_data(), raw);
      break;
    case dt::INT32:
      have = tp.int32_data_size();
      if (have == need) copy_cast<int32_t>(tp.int32_data(), raw);
      break;
    case dt::INT16:
      have = tp.int32_data_size();
      if (have == need) copy_cast<int16_t>(tp.int32_data(), raw);
      break;
    case dt::UINT16:
    case dt::FLOAT16:
    case dt::BFLOAT16:
      // float16 / bfloat16 keep their bit patterns in the low 16 bits.
      have = tp.int32_data_size();
      if (have == need) copy_cast<uint16_t>(tp.int32_data(), raw);
      break;
    case dt::INT8:
      have = tp.int32_data_size();
      if (have == need) copy_cast<int8_t>(tp.int32_data(), raw);
      break;
    case dt::UINT8:
      have = tp.int32_data_size();
      if (have == need) copy_cast<uint8_t>(tp.int32_data(), raw);
      break;
    case dt::BOOL:
      have = tp.int32_data_size();
      if (have == need) {
        size_t k = 0;
        for (int32_t v : tp.int32_data()) raw[k++] = v != 0 ? 1 : 0;
      }
      break;
    default:
      return "unsupported element type " + std::to_string(dtype);
  }
  if (have != need)
    return "holds " + std::to_string(have) + " values, its shape needs " + std::to_string(need);
  out = NDArray(dtype, std::move(shape), std::move(raw));
  return "";
}

void tensor_to_proto(const NDArray& a, const std::string& name, onnx::TensorProto* tp) {
  tp->set_name(name);
  tp->set_data_type(a.dtype());
  auto* dims = tp->mutable_dims();
  dims->Reserve(static_cast<int>(a.shape().size()));
  for (int64_t d : a.shape()) dims->Add(d);
  if (a.dtype() == dt::STRING) {
    auto* sd = tp->mutable_string_data();
    sd->Reserve(static_cast<int>(a.strings().size()));
    for (const auto& s : a.strings()) *sd->Add() = s;
  } else {
    tp->set_raw_data(reinterpret_cast<const char*>(a.raw().data()), a.raw().size());
  }
}

Attr attr_from_proto(const onnx::AttributeProto& ap) {
  Attr a;
  a.name = ap.name();
  int32_t type = ap.type();
  if (type == Attr::UNDEFINED) {
    // Very old models leave the type out: take it from the field that is set.
    if (ap.has_f()) type = Attr::FLOAT;
    else if (ap.has_i()) type = Attr::INT;
    else if (ap.has_s()) type = Attr::STRING;
    else if (ap.has_t()) type = Attr::TENSOR;
    else if (ap.has_g()) type = Attr::GRAPH;
    else if (ap.floats_size()) type = Attr::FLOATS;
    else if (ap.ints_size()) type = Attr::INTS;
    else if (ap.strings_size()) type = Attr::STRINGS;
    else if (ap.tensors_size()) type = Attr::TENSORS;
    else if (ap.graphs_size()) type = Attr::GRAPHS;
  }
  a.kind = type;
  bool decoded = ap.ref_attr_name().empty();
  if (decoded) {
    switch (type) {
      case Attr::FLOAT: a.f = ap.f(); break;
      case Attr::INT: a.i = ap.i(); break;
      case Attr::STRING: a.s = ap.s(); break;
      case Attr::FLOATS: a.floats.assign(ap.floats().begin(), ap.floats().end()); break;
      case Attr::INTS: a.ints.assign(ap.ints().begin(), ap.ints().end()); break;
      case Attr::STRINGS: a.strings.assign(ap.strings().begin(), ap.strings().end()); break;
      case Attr::TENSOR: decoded = tensor_from_proto(ap.t(), a.t).empty(); break;
      default: decoded = false; break;
    }
  }
  if (!decoded) a.opaque = ap.SerializeAsString();
  return a;
}

void attr_to_proto(const Attr& a, onnx::AttributeProto* ap) {
  if (!a.opaque.empty()) {
    ap->ParseFromString(a.opaque);
    ap->set_name(a.name);
    return;
  }
  ap->set_name(a.name);
  ap->set_type(static_cast<onnx::AttributeProto::AttributeType>(a.kind));
  switch (a.kind) {
    case Attr::FLOAT: ap->set_f(a.f); break;
    case Attr::INT: ap->set_i(a.i); break;
    case Attr::STRING: ap->set_s(a.s); break;
    case Attr::FLOATS: ap->mutable_floats()->Add(a.floats.begin(), a.floats.end()); break;
    case Attr::INTS: ap->mutable_ints()->Add(a.ints.begin(), a.ints.end()); break;
    case Attr::STRINGS:
      for (const auto& s : a.strings) ap->add_strings(s);
      break;
    case Attr::TENSOR: tensor_to_proto(a.t, "", ap->mutable_t()); break;
    default: break;
  }
}

// Names read inside the graph (and its own sub-graphs) that it does not
// declare itself: the outer-scope names it captures. First-use order.
void free_names(const onnx::GraphProto& g, std::vector<std::string>& out) {
  std::unordered_set<std::string_view> declared;
  for (const auto& v : g.input()) declared.insert(v.name());
  for (const auto& t : g.initializer()) declared.insert(t.name());
  for (const auto& t : g.sparse_initializer()) declared.insert(t.values().name());
  for (const auto& n : g.node())
    for (const auto& o : n.output()) declared.insert(o);
  std::unordered_set<std::string> added;
  auto use = [&](const std::string& t) {
    if (!t.empty() && !declared.count(t) && added.insert(t).second) out.push_back(t);
  };
  for (const auto& n : g.node()) {
    for (const auto& i : n.input()) use(i);
    for (const auto& a : n.attribute()) {
      std::vector<std::string> sub;
      if (a.has_g()) free_names(a.g(), sub);
      for (const auto& sg : a.graphs()) free_names(sg, sub);
      for (const auto& t : sub) use(t);
    }
  }
}

std::vector<std::string> implicit_inputs_of(const onnx::NodeProto& n) {
  std::vector<std::string> out;
  std::unordered_set<std::string> seen;
  for (const auto& a : n.attribute()) {
    if (!a.has_g() && a.graphs_size() == 0) continue;
    std::vector<std::string> sub;
    if (a.has_g()) free_names(a.g(), sub);
    for (const auto& sg : a.graphs()) free_names(sg, sub);
    for (auto& t : sub)
      if (seen.insert(t).second) out.push_back(std::move(t));
  }
  return out;
}

// The value of a Constant node, if it can be held as a constant.
bool constant_value(const onnx::NodeProto& n, NDArray& out, ExternalDataReader* external) {
  if (n.attribute_size() != 1) return false;
  const auto& a = n.attribute(0);
  if (!a.ref_attr_name().empty()) return false;
  const std::string& k = a.name();
  if (k == "value") return a.has_t() && tensor_from_proto(a.t(), out, external).empty();
  if (k == "value_float") {
    out = NDArray::scalar_f64(a.f(), dt::FLOAT);
    return true;
  }
  if (k == "value_floats") {
    std::vector<double> v(a.floats().begin(), a.floats().end());
    out = NDArray::from_f64(v, Shape{static_cast<int64_t>(v.size())}, dt::FLOAT);
    return true;
  }
  if (k == "value_int") {
    out = NDArray::scalar_i64(a.i());
    return true;
  }
  if (k == "value_ints") {
    out = NDArray::from_i64(std::vector<int64_t>(a.ints().begin(), a.ints().end()));
    return true;
  }
  if (k == "value_string") {
    out = NDArray::from_strings({a.s()}, Shape{});
    return true;
  }
  if (k == "value_strings") {
    out = NDArray::from_strings(std::vector<std::string>(a.strings().begin(), a.strings().end()),
                                Shape{a.strings_size()});
    return true;
  }
  return false;  // sparse_value
}

}  // namespace onnx_convert

using namespace onnx_convert;

// ================================================================== load

namespace {

bool is_default_domain(std::string_view d) { return d.empty() || d == "ai.onnx"; }

// Shape of a tensor type when every dimension has a value; else false.
bool full_shape(const onnx::TypeProto& type, Shape& out) {
  if (!type.has_tensor_type() || !type.tensor_type().has_shape()) return false;
  const auto& sh = type.tensor_type().shape();
  out.clear();
  out.reserve(static_cast<size_t>(sh.dim_size()));
  for (const auto& d : sh.dim()) {
    if (!d.has_dim_value() || d.dim_value() < 0) return false;
    out.push_back(d.dim_value());
  }
  return true;
}

void apply_type(IR& ir, const std::string& name, const onnx::TypeProto& type, bool with_shape) {
  if (!type.has_tensor_type()) return;
  const int32_t elem = type.tensor_type().elem_type();
  Shape s;
  if (with_shape && full_shape(type, s)) ir.set_shape(name, s, false, elem);
  else if (elem != dt::UNDEFINED) ir.set_dtype(name, elem);
}

std::string node_label(const wire::NodeTable& t, int i) {
  const wire::NodeFields& n = t.nodes[static_cast<size_t>(i)];
  if (!n.name.empty()) return std::string(n.name);
  return std::string(n.op_type) + " node #" + std::to_string(i);
}

// The declared type of a value_info record the wire reader leaves to protobuf.
bool value_info_fields(std::string_view bytes, wire::ValueInfoFields& out, std::vector<int64_t>& dims) {
  onnx::ValueInfoProto vi;
  if (!vi.ParseFromArray(bytes.data(), static_cast<int>(bytes.size()))) return false;
  out = wire::ValueInfoFields{};
  if (!wire::read_string_field(bytes, wire::kValueInfoName, out.name)) return false;
  out.dims_at = static_cast<uint32_t>(dims.size());
  if (!vi.type().has_tensor_type()) return true;
  const auto& tt = vi.type().tensor_type();
  out.tensor = true;
  out.elem_type = tt.elem_type();
  out.has_shape = tt.has_shape();
  for (const auto& d : tt.shape().dim()) {
    const int64_t v = d.has_dim_value() ? d.dim_value() : -1;
    if (v < -1 && out.bad_dim == 0) out.bad_dim = v;
    dims.push_back(v < 0 ? -1 : v);
  }
  out.rank = static_cast<uint32_t>(dims.size() - out.dims_at);
  return true;
}

// Shape and element type of a value_info record, as apply_type takes them
// from a TypeProto.
void apply_fields(IR& ir, const std::string& name, const wire::ValueInfoFields& f, const std::vector<int64_t>& dims,
                  bool with_shape) {
  if (!f.tensor) return;
  const int64_t* d = dims.data() + f.dims_at;
  bool full = f.has_shape;
  for (uint32_t k = 0; full && k < f.rank; ++k) full = d[k] >= 0;
  if (with_shape && full) ir.set_shape(name, Shape(d, d + f.rank), false, f.elem_type);
  else if (f.elem_type != dt::UNDEFINED) ir.set_dtype(name, f.elem_type);
}

// Dense array of a sparse initializer.
NDArray densify(const onnx::SparseTensorProto& sp) {
  const auto& vals = sp.values();
  const std::string name = vals.name();
  NDArray values;
  std::string why = tensor_from_proto(vals, values);
  if (!why.empty()) throw LoadError("sparse initializer " + name + ": " + why);
  if (values.dtype() == dt::STRING)
    throw LoadError("sparse initializer " + name + ": string values are not supported");
  NDArray indices;
  why = tensor_from_proto(sp.indices(), indices);
  if (!why.empty()) throw LoadError("sparse initializer " + name + ": indices " + why);
  Shape dims(sp.dims().begin(), sp.dims().end());
  const int64_t total = shape_size(dims);
  if (total < 0) throw LoadError("sparse initializer " + name + ": negative dimension");
  const size_t es = dtype_size(values.dtype());
  const int64_t nnz = values.size();
  std::vector<uint8_t> raw(static_cast<size_t>(total) * es, 0);
  const std::vector<int64_t> idx = indices.to_i64();
  const bool linear = indices.ndim() == 1;
  if ((linear && static_cast<int64_t>(idx.size()) != nnz) ||
      (!linear && static_cast<int64_t>(idx.size()) != nnz * static_cast<int64_t>(dims.size())))
    throw LoadError("sparse initializer " + name + ": indices do not match the values");
  for (int64_t k = 0; k < nnz; ++k) {
    int64_t flat = 0;
    if (linear) {
      flat = idx[static_cast<size_t>(k)];
    } else {
      for (size_t d = 0; d < dims.size(); ++d) flat = flat * dims[d] + idx[static_cast<size_t>(k) * dims.size() + d];
    }
    if (flat < 0 || flat >= total) throw LoadError("sparse initializer " + name + ": index out of range");
    std::memcpy(raw.data() + static_cast<size_t>(flat) * es,
                values.raw().data() + static_cast<size_t>(k) * es, es);
  }
  return NDArray(values.dtype(), dims, std::move(raw));
}

// Throws LoadError naming a node on a cycle, if the node list has one.
// `deps[i]` are the indices of the nodes whose outputs node i reads.
void check_acyclic(const wire::NodeTable& table, const std::vector<std::vector<int>>& deps) {
  const size_t n = deps.size();
  std::vector<int> indeg(n, 0);
  std::vector<std::vector<int>> users(n);
  for (size_t i = 0; i < n; ++i)
    for (int p : deps[i]) {
      ++indeg[i];
      users[static_cast<size_t>(p)].push_back(static_cast<int>(i));
    }
  std::vector<int> ready;
  for (size_t i = 0; i < n; ++i)
    if (indeg[i] == 0) ready.push_back(static_cast<int>(i));
  size_t done = 0;
  while (!ready.empty()) {
    const int x = ready.back();
    ready.pop_back();
    ++done;
    for (int u : users[static_cast<size_t>(x)])
      if (--indeg[static_cast<size_t>(u)] == 0) ready.push_back(u);
  }
  if (done == n) return;
  // Walk producers among the nodes left until one repeats: it lies on a cycle.
  size_t x = 0;
  while (indeg[x] == 0) ++x;
  std::vector<char> seen(n, 0);
  while (!seen[x]) {
    seen[x] = 1;
    for (int p : deps[x])
      if (indeg[static_cast<size_t>(p)] > 0) {
        x = static_cast<size_t>(p);
        break;
      }
  }
  throw LoadError("graph has a cycle through node " + node_label(table, static_cast<int>(x)));
}

}  // namespace

std::unique_ptr<IR> load_model(const std::string& bytes, const LoadOptions& options) {
  if (bytes.empty()) throw LoadError("not an ONNX model: the input is empty");
  if (bytes.size() > static_cast<size_t>(INT_MAX))
    throw LoadError("not an ONNX model: larger than 2 GB, the protobuf limit (a model this large keeps its "
                    "tensor data in an external file)");
  const char* const corrupt = "not an ONNX model: the bytes do not parse as a ModelProto (truncated or corrupt)";
  // The graph's bulk is read from the bytes where it lies; protobuf parses
  // the rest, a few records.
  wire::ModelBody body;
  if (!wire::split_model(bytes, body)) throw LoadError(corrupt);
  google::protobuf::Arena arena;
  auto* model = google::protobuf::Arena::CreateMessage<onnx::ModelProto>(&arena);
  if (!model->ParseFromString(body.shell)) throw LoadError(corrupt);
  if (model->ir_version() <= 0) throw LoadError("not an ONNX model: no ir_version");
  if (!body.has_graph) throw LoadError("not an ONNX model: it has no graph");
  onnx::GraphProto& g = *model->mutable_graph();

  wire::NodeTable table;
  table.nodes.reserve(body.nodes.size());
  table.ports.reserve(body.nodes.size() * 4);
  for (std::string_view nb : body.nodes)
    if (!wire::read_node(nb, table)) throw LoadError(corrupt);
  std::vector<wire::ValueInfoFields> vis(body.value_info.size());
  std::vector<int64_t> vi_dims;
  vi_dims.reserve(body.value_info.size() * 4);
  for (size_t k = 0; k < vis.size(); ++k)
    if (!wire::read_value_info(body.value_info[k], vis[k], vi_dims) &&
        !value_info_fields(body.value_info[k], vis[k], vi_dims))
      throw LoadError(corrupt);
  std::vector<std::string_view> init_name_list(body.initializers.size());
  for (size_t k = 0; k < init_name_list.size(); ++k)
    if (!wire::read_string_field(body.initializers[k], wire::kTensorName, init_name_list[k])) throw LoadError(corrupt);
  std::vector<onnx::SparseTensorProto> sparse(body.sparse_initializers.size());
  for (size_t k = 0; k < sparse.size(); ++k)
    if (!sparse[k].ParseFromArray(body.sparse_initializers[k].data(),
                                  static_cast<int>(body.sparse_initializers[k].size())))
      throw LoadError(corrupt);

  validate_declared_shapes(g);
  for (const auto& f : vis)
    if (f.bad_dim != 0)
      throw LoadError("value_info of tensor " + std::string(f.name) + " has the negative dimension " +
                      std::to_string(f.bad_dim));

  auto irp = std::make_unique<IR>();
  IR& ir = *irp;
  const int n_nodes = static_cast<int>(table.nodes.size());

  // ---- opset
  bool have_opset = false;
  for (const auto& op : model->opset_import()) {
    if (is_default_domain(op.domain())) {
      ir.set_opset(op.version());
      have_opset = true;
    }
  }
  if (!have_opset) {
    bool uses_default = false;
    for (const auto& n : table.nodes)
      if (is_default_domain(n.domain)) {
        uses_default = true;
        break;
      }
    if (model->ir_version() < 3) {
      ir.set_opset(1);
    } else if (uses_default) {
      throw LoadError("not an ONNX model: no opset import for the default domain (truncated?)");
    }
  }

  // ---- names of initializers
  std::unordered_set<std::string_view> init_names;
  init_names.reserve((init_name_list.size() + sparse.size()) * 2 + 1);
  for (std::string_view t : init_name_list)
    if (!init_names.insert(t).second)
      throw LoadError("tensor " + std::string(t) + " has two producers: initializer, initializer");
  for (const auto& t : sparse)
    if (!init_names.insert(t.values().name()).second)
      throw LoadError("tensor " + t.values().name() + " has two producers: initializer, initializer");

  // ---- graph inputs, input_shapes
  std::unordered_map<std::string, const onnx::ValueInfoProto*> input_vi;
  for (const auto& vi : g.input()) {
    if (init_names.count(vi.name())) continue;  // an initializer listed as input (old models)
    input_vi.emplace(vi.name(), &vi);
  }
  std::string input_list;
  for (const auto& vi : g.input())
    if (!init_names.count(vi.name())) input_list += (input_list.empty() ? "" : ", ") + vi.name();
  // Dimensions given without a name belong to the model's one graph input.
  std::map<std::string, Shape> input_shapes = options.input_shapes;
  auto bare = input_shapes.find("");
  if (bare != input_shapes.end()) {
    if (input_vi.size() != 1)
      throw LoadError("input_shapes gives dimensions without an input name, and the model has " +
                      std::to_string(input_vi.size()) + " graph inputs (" + input_list + "): name the input");
    Shape dims = std::move(bare->second);
    input_shapes.erase(bare);
    input_shapes[input_vi.begin()->first] = std::move(dims);
  }
  bool overrides_conflict = false;
  for (const auto& [name, shape] : input_shapes) {
    auto it = input_vi.find(name);
    if (it == input_vi.end())
      throw LoadError("input_shapes names " + name + ", which is not a graph input (graph inputs: " + input_list +
                      ")");
    for (int64_t d : shape)
      if (d < 0) throw LoadError("input_shapes gives " + name + " a negative dimension");
    const onnx::TypeProto& type = it->second->type();
    if (type.has_tensor_type() && type.tensor_type().has_shape()) {
      const auto& sh = type.tensor_type().shape();
      if (static_cast<size_t>(sh.dim_size()) != shape.size())
        throw LoadError("input_shapes gives " + name + " rank " + std::to_string(shape.size()) +
                        ", the model's input has rank " + std::to_string(sh.dim_size()));
      for (int k = 0; k < sh.dim_size(); ++k) {
        const int64_t given = shape[static_cast<size_t>(k)];
        if (!sh.dim(k).has_dim_value() || sh.dim(k).dim_value() == given) continue;
        // A fixed dimension is part of the model; only symbolic, unknown (and
        // the 0 some exporters write for unknown) dimensions can be fixed.
        if (sh.dim(k).dim_value() > 0)
          throw LoadError("input_shapes gives " + name + " dimension " + std::to_string(k) + " as " +
                          std::to_string(given) + ", the model's input fixes it at " +
                          std::to_string(sh.dim(k).dim_value()));
        overrides_conflict = true;
      }
    }
  }
  // When an override replaces a dimension the model wrote as 0, the model's
  // own intermediate shapes no longer hold: keep only their element types.
  const bool model_shapes = !overrides_conflict;

  // ---- value_info, outputs, inputs (the latter win)
  ir.reserve(table.nodes.size(), table.nodes.size() + vis.size() + init_name_list.size() +
                                     static_cast<size_t>(g.input_size()) + static_cast<size_t>(g.output_size()));
  std::vector<std::string> value_info_names;
  value_info_names.reserve(vis.size());
  for (const auto& f : vis) {
    value_info_names.emplace_back(f.name);
    if (input_vi.count(value_info_names.back())) continue;
    apply_fields(ir, value_info_names.back(), f, vi_dims, model_shapes);
  }
  std::vector<int64_t>().swap(vi_dims);
  ir.set_value_info(std::move(value_info_names));
  for (const auto& vi : g.output()) {
    ir.add_graph_output(vi.name());
    ir.io_value_info[vi.name()] = vi.SerializeAsString();
    apply_type(ir, vi.name(), vi.type(), model_shapes);
  }
  for (const auto& vi : g.input()) {
    if (init_names.count(vi.name())) continue;
    ir.add_graph_input(vi.name());
    ir.io_value_info[vi.name()] = vi.SerializeAsString();
    auto ov = input_shapes.find(vi.name());
    apply_type(ir, vi.name(), vi.type(), ov == input_shapes.end());
    if (ov != input_shapes.end()) ir.set_shape(vi.name(), ov->second, false);
  }

  // ---- initializers, one message at a time: a large model's data is not
  // held twice while the rest loads.
  std::unique_ptr<ExternalDataReader> external;
  if (!options.external_data_dir.empty())
    external = std::make_unique<ExternalDataReader>(options.external_data_dir);
  {
    onnx::TensorProto tp;
    for (std::string_view tb : body.initializers) {
      if (!tp.ParseFromArray(tb.data(), static_cast<int>(tb.size()))) throw LoadError(corrupt);
      NDArray a;
      const std::string why = tensor_from_proto(tp, a, external.get());
      if (!why.empty()) throw LoadError("initializer " + tp.name() + ": " + why);
      ir.set_const(tp.name(), std::move(a));
    }
  }
  for (const auto& sp : sparse) ir.set_const(sp.values().name(), densify(sp));
  std::vector<onnx::SparseTensorProto>().swap(sparse);

  // ---- nodes
  // Exporters often leave node names empty, yet rules keep some records by
  // node name: an unnamed node is named after its op type and a counter,
  // clear of every name the model already gives.
  int unnamed = 0;
  for (const auto& n : table.nodes) unnamed += n.name.empty() ? 1 : 0;
  FlatNameMap<bool> given_names(unnamed > 0 ? table.nodes.size() : 0);
  if (unnamed > 0)
    for (const auto& n : table.nodes)
      if (!n.name.empty()) given_names.emplace(n.name, true);
  std::unordered_map<std::string_view, int64_t> unnamed_next;
  std::deque<std::string> made_names;  // the views of given_names point here
  auto name_for = [&](const wire::NodeFields& n) {
    if (!n.name.empty()) return std::string(n.name);
    int64_t& k = unnamed_next[n.op_type];
    std::string cand;
    do {
      cand = std::string(n.op_type) + "_" + std::to_string(k++);
    } while (given_names.contains(cand));
    given_names.emplace(made_names.emplace_back(cand), true);
    return cand;
  };
  IR::LoadInfo& info = ir.load_info;
  // Op counts by a hash of views into the model: a tree of strings
  // compared per node costs more than the node itself on a large model.
  std::unordered_map<std::string_view, int64_t> op_counts;
  // Nodes of a form the wire reader leaves alone (Constant values, sub-graph
  // and tensor attributes) are parsed by protobuf, each on its own.
  onnx::NodeProto np;
  auto parse_node = [&](int i) {
    const std::string_view nb = body.nodes[static_cast<size_t>(i)];
    if (!np.ParseFromArray(nb.data(), static_cast<int>(nb.size()))) throw LoadError(corrupt);
  };
  std::vector<Attr> attrs;
  for (int i = 0; i < n_nodes; ++i) {
    const wire::NodeFields& nf = table.nodes[static_cast<size_t>(i)];
    ++op_counts[nf.op_type];
    if (nf.op_type == "Constant" && is_default_domain(nf.domain) && nf.outputs == 1 && !table.output(nf, 0).empty() &&
        !ir.is_output(std::string(table.output(nf, 0)))) {
      parse_node(i);
      NDArray v;
      if (constant_value(np, v, external.get())) {
        ir.set_const(np.output(0), v);
        ++info.constant_nodes;
        continue;
      }
    }
    attrs.clear();
    attrs.reserve(nf.attrs);
    bool plain = true;
    for (uint32_t k = 0; plain && k < nf.attrs; ++k) {
      attrs.emplace_back();
      plain = wire::read_plain_attr(table.attrs[nf.attrs_at + k], attrs.back());
    }
    std::vector<std::string> implicit_inputs;
    if (!plain) {
      parse_node(i);
      attrs.clear();
      bool subgraph = false;
      for (const auto& ap : np.attribute()) {
        attrs.push_back(attr_from_proto(ap));
        subgraph |= ap.has_g() || ap.graphs_size() > 0;
      }
      if (subgraph) implicit_inputs = implicit_inputs_of(np);
    }
    std::vector<std::string> ins, outs;
    ins.reserve(nf.inputs);
    for (uint32_t k = 0; k < nf.inputs; ++k) ins.emplace_back(table.input(nf, k));
    outs.reserve(nf.outputs);
    for (uint32_t k = 0; k < nf.outputs; ++k) outs.emplace_back(table.output(nf, k));
    NodePtr node = Node::make(std::string(nf.op_type), std::move(ins), std::move(outs), name_for(nf),
                              std::move(attrs), std::string(nf.domain));
    attrs = std::vector<Attr>();
    if (!nf.doc_string.empty()) node->doc_string = std::string(nf.doc_string);
    if (!implicit_inputs.empty()) node->implicit_inputs = std::move(implicit_inputs);
    ir.add_node(node, i);
  }

  for (const auto& [op, count] : op_counts) info.file_ops[std::string(op)] = count;

  // ---- producers and order, read off the index just built (each node's
  // order key is its place in the file)
  auto label_of = [&](const Node* n) { return node_label(table, static_cast<int>(n->order())); };
  bool sorted = true;
  ir.for_each_node([&](const NodePtr& np) {
    const Node& n = *np;
    for (size_t k = 0; k < n.output.size(); ++k) {
      const TensorInfo* ti = n.output_info(k);
      if (!ti) continue;
      if (ti->constant)
        throw LoadError("tensor " + ti->name + " has two producers: initializer, " + label_of(&n));
      if (ti->graph_input)
        throw LoadError("tensor " + ti->name + " has two producers: graph input, " + label_of(&n));
      if (ti->producers.size() > 1 && ti->producers[1] == &n)
        throw LoadError("tensor " + ti->name + " has two producers: " + label_of(ti->producers[0]) + ", " +
                        label_of(&n));
    }
    auto runs_before = [&](const TensorInfo* ti) {
      return !ti || ti->producers.empty() || ti->producers.back()->order() < n.order();
    };
    for (size_t k = 0; sorted && k < n.input.size(); ++k) sorted = runs_before(n.input_info(k));
    for (size_t k = 0; sorted && k < n.implicit_inputs.size(); ++k) sorted = runs_before(n.implicit_info(k));
  });
  if (!sorted) {
    std::vector<std::vector<int>> deps(static_cast<size_t>(n_nodes));
    ir.for_each_node([&](const NodePtr& np) {
      auto& d = deps[static_cast<size_t>(np->order())];
      auto add = [&](const TensorInfo* ti) {
        if (ti && !ti->producers.empty()) d.push_back(static_cast<int>(ti->producers.back()->order()));
      };
      for (size_t k = 0; k < np->input.size(); ++k) add(np->input_info(k));
      for (size_t k = 0; k < np->implicit_inputs.size(); ++k) add(np->implicit_info(k));
    });
    check_acyclic(table, deps);
  } else {
    // A file whose nodes come in a valid order is taken at its word: no sort.
    ir.trust_insertion_order();
  }

  if (external) {
    info.external_tensors = external->tensors;
    info.external_bytes = external->bytes;
  }

  // ---- the shell: everything but the graph body (its graph inputs and
  // outputs as checked above)
  model->SerializeToString(&ir.model_shell);

  if (options.infer_shapes) infer_missing(ir);
  validate_graph(ir);
  return irp;
}

std::unique_ptr<IR> load_model_file(const std::string& path, const LoadOptions& options) {
  std::ifstream f(path, std::ios::binary);
  if (!f) throw LoadError("cannot open " + path);
  std::string bytes;
  f.seekg(0, std::ios::end);
  const std::streamoff size = f.tellg();
  if (size < 0) throw LoadError("cannot read " + path);
  bytes.resize(static_cast<size_t>(size));
  f.seekg(0, std::ios::beg);
  if (size > 0 && !f.read(&bytes[0], size)) throw LoadError("cannot read " + path);
  return load_model(bytes, options);
}

// ================================================================== save

namespace {

// Writes the IR's shape and element type into a tensor-typed record, where
// the IR holds them.
void refresh_type(const IR& ir, onnx::ValueInfoProto& vi) {
  const std::string& name = vi.name();
  onnx::TypeProto* type = vi.mutable_type();
  if (type->value_case() != onnx::TypeProto::kTensorType && type->value_case() != onnx::TypeProto::VALUE_NOT_SET)
    return;  // sequences, maps, optionals: leave as the model has them
  const int32_t dtype = ir.get_dtype(name);
  if (dtype != dt::UNDEFINED) type->mutable_tensor_type()->set_elem_type(dtype);
  if (!ir.has_shape(name)) return;
  const Shape s = ir.get_shape(name);
  auto* tt = type->mutable_tensor_type();
  if (tt->has_shape()) {
    const auto& old = tt->shape();
    bool same = old.dim_size() == static_cast<int>(s.size());
    for (int k = 0; same && k < old.dim_size(); ++k)
      same = old.dim(k).has_dim_value() && old.dim(k).dim_value() == s[static_cast<size_t>(k)];
    if (same) return;
  }
  auto* sh = tt->mutable_shape();
  sh->clear_dim();
  for (int64_t d : s) sh->add_dim()->set_dim_value(d);
}

void make_value_info(const IR& ir, const std::string& name, onnx::ValueInfoProto* vi) {
  vi->set_name(name);
  refresh_type(ir, *vi);
}

}  // namespace

int64_t constant_bytes(const IR& ir) {
  int64_t total = 0;
  for (const auto& kv : ir.consts()) total += static_cast<int64_t>(kv.second.raw().size());
  return total;
}

namespace {

// Writes tensor data to the file beside the model, one tensor after the
// other, straight from the arrays: no copy into a message on the way.
class ExternalDataWriter {
 public:
  explicit ExternalDataWriter(const SaveOptions& o) : opt_(o) {}
  bool wants(const NDArray& a) const {
    return !opt_.data_path.empty() && a.dtype() != dt::STRING &&
           static_cast<int64_t>(a.raw().size()) >= opt_.min_external_bytes;
  }
  void write(const NDArray& a, const std::string& name, onnx::TensorProto* tp) {
    if (!out_.is_open()) {
      out_.open(opt_.data_path, std::ios::binary | std::ios::trunc);
      if (!out_) throw std::runtime_error("cannot write the external data file " + opt_.data_path);
    }
    tp->set_name(name);
    tp->set_data_type(a.dtype());
    for (int64_t d : a.shape()) tp->add_dims(d);
    tp->set_data_location(onnx::TensorProto::EXTERNAL);
    auto entry = [&](const char* key, const std::string& value) {
      auto* e = tp->add_external_data();
      e->set_key(key);
      e->set_value(value);
    };
    const int64_t n = static_cast<int64_t>(a.raw().size());
    entry("location", opt_.data_location);
    entry("offset", std::to_string(offset_));
    entry("length", std::to_string(n));
    if (n > 0 && !out_.write(reinterpret_cast<const char*>(a.raw().data()), static_cast<std::streamsize>(n)))
      throw std::runtime_error("cannot write the external data file " + opt_.data_path);
    offset_ += n;
  }
  void finish() {
    if (out_.is_open() && !out_.flush())
      throw std::runtime_error("cannot write the external data file " + opt_.data_path);
  }

 private:
  const SaveOptions& opt_;
  std::ofstream out_;
  int64_t offset_ = 0;
};

}  // namespace

std::string save_model(const IR& ir, const SaveOptions& options) {
  google::protobuf::Arena arena;
  auto* model = google::protobuf::Arena::CreateMessage<onnx::ModelProto>(&arena);
  if (!ir.model_shell.empty()) {
    if (!model->ParseFromString(ir.model_shell)) throw std::runtime_error("save_model: model shell is corrupt");
  } else {
    model->set_ir_version(8);
    model->set_producer_name("tolm-reduce");
  }
  onnx::GraphProto* g = model->mutable_graph();
  g->clear_node();
  g->clear_initializer();
  g->clear_value_info();
  g->clear_sparse_initializer();

  // Default-domain opset follows the IR.
  const std::vector<Node*>& nodes = ir.node_order();
  bool have_opset = false;
  for (auto& op : *model->mutable_opset_import()) {
    if (is_default_domain(op.domain())) {
      op.set_version(ir.opset());
      have_opset = true;
    }
  }
  if (!have_opset) {
    bool uses_default = false;
    for (const auto& n : nodes)
      if (is_default_domain(n->domain)) {
        uses_default = true;
        break;
      }
    if (uses_default || ir.model_shell.empty()) {
      auto* op = model->add_opset_import();
      op->set_domain("");
      op->set_version(ir.opset());
    }
  }

  // ---- nodes, and the constants they read
  // Every node holds its ports' index entries: no name lookups here.
  FlatNameMap<bool> used_consts(ir.consts().size());
  std::vector<std::pair<const std::string*, const NDArray*>> init_types;
  auto note_use = [&](const TensorInfo* ti) {
    if (ti && ti->constant) used_consts.emplace(ti->name, true);
  };
  // Node records are written straight as bytes: a message per node, port
  // and attribute, built only to be serialized, costs more than the rest of
  // the save.
  std::string node_bytes, body, attr_bytes;
  node_bytes.reserve(nodes.size() * 64);
  onnx::AttributeProto ap;
  for (const auto& n : nodes) {
    body.clear();
    for (size_t i = 0; i < n->input.size(); ++i) {
      wire::put_bytes_field(body, 1, n->input[i]);
      note_use(n->input_info(i));
    }
    for (size_t k = 0; k < n->implicit_inputs.size(); ++k) note_use(n->implicit_info(k));
    for (const auto& t : n->output) wire::put_bytes_field(body, 2, t);
    if (!n->name().empty()) wire::put_bytes_field(body, 3, n->name());
    wire::put_bytes_field(body, 4, n->op_type());
    for (const auto& a : n->attribute()) {
      attr_bytes.clear();
      if (!wire::write_plain_attr(a, attr_bytes)) {
        ap.Clear();
        attr_to_proto(a, &ap);
        ap.SerializeToString(&attr_bytes);
      }
      wire::put_bytes_field(body, 5, attr_bytes);
    }
    if (!n->doc_string.empty()) wire::put_bytes_field(body, 6, n->doc_string);
    if (!n->domain.empty()) wire::put_bytes_field(body, 7, n->domain);
    wire::put_bytes_field(node_bytes, wire::kGraphNode, body);
  }
  for (const auto& t : ir.outputs()) note_use(ir.tensor(t));

  // ---- initializers, in const_order (every constant is listed there)
  FlatNameMap<bool> emitted(used_consts.size());
  ExternalDataWriter external(options);
  std::string init_bytes;
  {
    onnx::TensorProto tp;
    for (const auto& t : ir.const_order) {
      if (!used_consts.contains(t) || emitted.contains(t)) continue;
      const TensorInfo* ti = ir.tensor(t);
      if (!ti || !ti->producers.empty()) continue;
      const NDArray* a = ir.get_const(t);
      if (!a) continue;
      emitted.emplace(t, true);
      body.clear();
      if (external.wants(*a)) {
        tp.Clear();
        external.write(*a, t, &tp);
        tp.SerializeToString(&body);
      } else if (a->dtype() == dt::STRING) {
        tp.Clear();
        tensor_to_proto(*a, t, &tp);
        tp.SerializeToString(&body);
      } else {
        wire::write_raw_tensor(body, t, a->dtype(), a->shape().data(), a->shape().size(),
                               std::string_view(reinterpret_cast<const char*>(a->raw().data()), a->raw().size()));
      }
      wire::put_bytes_field(init_bytes, wire::kGraphInitializer, body);
      // An old model lists every initializer among the graph inputs too.
      if (model->ir_version() < 4) init_types.push_back({&t, a});
    }
  }
  external.finish();

  // ---- graph inputs: the model's records in the model's order
  std::vector<onnx::ValueInfoProto> old_inputs(g->input().begin(), g->input().end());
  g->clear_input();
  std::unordered_set<std::string> input_done;
  for (auto& vi : old_inputs) {
    const std::string name = vi.name();
    if (ir.is_input(name)) {
      if (!input_done.insert(name).second) continue;
      auto rec = ir.io_value_info.find(name);
      onnx::ValueInfoProto* out = g->add_input();
      if (rec != ir.io_value_info.end()) out->ParseFromString(rec->second);
      else *out = vi;
      refresh_type(ir, *out);
    } else if (emitted.contains(name) && input_done.insert(name).second) {
      *g->add_input() = vi;  // an initializer that the model also lists as input
    }
  }
  for (const auto& name : ir.inputs()) {
    if (!input_done.insert(name).second) continue;
    onnx::ValueInfoProto* out = g->add_input();
    auto rec = ir.io_value_info.find(name);
    if (rec != ir.io_value_info.end()) {
      out->ParseFromString(rec->second);
      refresh_type(ir, *out);
    } else {
      make_value_info(ir, name, out);
    }
  }
  // Before IR version 4 every initializer must also be a graph input.
  for (const auto& [name, a] : init_types) {
    if (!input_done.insert(*name).second) continue;
    onnx::ValueInfoProto* out = g->add_input();
    out->set_name(*name);
    auto* tt = out->mutable_type()->mutable_tensor_type();
    tt->set_elem_type(a->dtype());
    auto* sh = tt->mutable_shape();
    for (int64_t d : a->shape()) sh->add_dim()->set_dim_value(d);
  }

  // ---- graph outputs
  std::unordered_map<std::string, onnx::ValueInfoProto> old_outputs;
  for (const auto& vi : g->output()) old_outputs.emplace(vi.name(), vi);
  g->clear_output();
  for (const auto& name : ir.outputs()) {
    onnx::ValueInfoProto* out = g->add_output();
    auto rec = ir.io_value_info.find(name);
    if (rec != ir.io_value_info.end()) {
      out->ParseFromString(rec->second);
    } else {
      auto old = old_outputs.find(name);
      if (old != old_outputs.end()) *out = old->second;
      else out->set_name(name);
    }
    refresh_type(ir, *out);
  }

  // ---- value_info: inner tensors with known shape and type, in node order
  std::string vi_bytes;
  for (const auto& n : nodes) {
    for (size_t k = 0; k < n->output.size(); ++k) {
      const TensorInfo* ti = n->output_info(k);
      if (!ti || ti->graph_input || ti->graph_output || ti->constant) continue;
      if (!ti->has_shape || ti->dtype == dt::UNDEFINED) continue;
      if (ti->producers.empty() || ti->producers.back() != n) continue;
      wire::write_value_info_field(vi_bytes, ti->name, ti->dtype, ti->shape.data(), ti->shape.size());
    }
  }

  std::string shell;
  if (!model->SerializeToString(&shell)) throw std::runtime_error("save_model: the model does not serialize");
  return wire::join_model(shell, node_bytes, init_bytes, vi_bytes, static_cast<size_t>(kMaxModelBytes));
}

// ============================================================ sub-graphs

std::vector<std::string> subgraph_outer_names(const std::string& graph_bytes) {
  onnx::GraphProto g;
  if (!g.ParseFromString(graph_bytes)) throw LoadError("sub-graph does not parse");
  std::vector<std::string> out;
  free_names(g, out);
  return out;
}

std::unique_ptr<IR> load_subgraph(const IR& outer, const std::string& graph_bytes) {
  onnx::ModelProto model;
  if (!outer.model_shell.empty() && !model.ParseFromString(outer.model_shell))
    throw LoadError("model shell is corrupt");
  if (model.ir_version() <= 0) model.set_ir_version(8);
  bool have_opset = false;
  for (auto& op : *model.mutable_opset_import())
    if (is_default_domain(op.domain())) {
      op.set_version(outer.opset());
      have_opset = true;
    }
  if (!have_opset) {
    auto* op = model.add_opset_import();
    op->set_domain("");
    op->set_version(outer.opset());
  }
  onnx::GraphProto* g = model.mutable_graph();
  if (!g->ParseFromString(graph_bytes)) throw LoadError("sub-graph does not parse");
  std::vector<std::string> outer_names;
  free_names(*g, outer_names);
  for (const auto& name : outer_names) {
    const int32_t dtype = outer.get_dtype(name);
    if (dtype == dt::UNDEFINED) throw LoadError("sub-graph reads " + name + ", whose type the outer graph does not know");
    onnx::ValueInfoProto* vi = g->add_input();
    vi->set_name(name);
    auto* tt = vi->mutable_type()->mutable_tensor_type();
    tt->set_elem_type(dtype);
    if (outer.has_shape(name)) {
      auto* sh = tt->mutable_shape();
      for (int64_t d : outer.get_shape(name)) sh->add_dim()->set_dim_value(d);
    }
  }
  return load_model(model.SerializeAsString());
}

std::string save_subgraph(const IR& body, const std::string& original_graph_bytes) {
  onnx::GraphProto original;
  if (!original.ParseFromString(original_graph_bytes)) throw std::runtime_error("sub-graph does not parse");
  onnx::ModelProto model;
  if (!model.ParseFromString(save_model(body))) throw std::runtime_error("sub-graph does not serialize");
  onnx::GraphProto* g = model.mutable_graph();
  std::unordered_set<std::string> own;
  for (const auto& vi : original.input()) own.insert(vi.name());
  auto* inputs = g->mutable_input();
  for (int i = inputs->size() - 1; i >= 0; --i)
    if (!own.count(inputs->Get(i).name())) inputs->DeleteSubrange(i, 1);
  g->set_name(original.name());
  if (!original.doc_string().empty()) g->set_doc_string(original.doc_string());
  return g->SerializeAsString();
}

}  // namespace tolm
