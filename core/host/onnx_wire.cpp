#include "host/onnx_wire.h"

#include <cstring>
#include <stdexcept>
#include <utility>

namespace tolm {
namespace wire {

namespace {

enum WireType : uint32_t { kVarint = 0, kFixed64 = 1, kBytes = 2, kStartGroup = 3, kEndGroup = 4, kFixed32 = 5 };

// Field numbers of the ONNX messages read here.
namespace model_field {
constexpr uint32_t kGraph = 7;
}
namespace graph_field {
constexpr uint32_t kNode = 1, kInitializer = 5, kValueInfo = 13, kSparseInitializer = 15;
}
namespace node_field {
constexpr uint32_t kInput = 1, kOutput = 2, kName = 3, kOpType = 4, kAttribute = 5, kDocString = 6,
                   kDomain = 7;
}
namespace attr_field {
constexpr uint32_t kName = 1, kF = 2, kI = 3, kS = 4, kFloats = 7, kInts = 8, kStrings = 9, kDocString = 13,
                   kType = 20, kRefAttrName = 21;
}

// A cursor over one serialized message.
class Reader {
 public:
  explicit Reader(std::string_view bytes) : p_(bytes.data()), end_(bytes.data() + bytes.size()) {}
  bool at_end() const { return p_ == end_; }
  const char* pos() const { return p_; }

  bool varint(uint64_t& v) {
    v = 0;
    for (int shift = 0; shift < 64; shift += 7) {
      if (p_ == end_) return false;
      const uint8_t b = static_cast<uint8_t>(*p_++);
      v |= static_cast<uint64_t>(b & 0x7f) << shift;
      if (!(b & 0x80)) return true;
    }
    return false;  // more than ten bytes
  }
  bool tag(uint32_t& field, uint32_t& type) {
    uint64_t t = 0;
    if (!varint(t) || t > 0xffffffffu) return false;
    field = static_cast<uint32_t>(t >> 3);
    type = static_cast<uint32_t>(t & 7);
    return field != 0;
  }
  bool bytes(std::string_view& v) {
    uint64_t n = 0;
    if (!varint(n) || n > static_cast<uint64_t>(end_ - p_)) return false;
    v = std::string_view(p_, static_cast<size_t>(n));
    p_ += n;
    return true;
  }
  bool fixed32(uint32_t& v) {
    if (end_ - p_ < 4) return false;
    std::memcpy(&v, p_, 4);
    p_ += 4;
    return true;
  }
  // Skips the value of a field of this wire type (a group up to its end).
  bool skip(uint32_t field, uint32_t type, int depth = 0) {
    uint64_t v = 0;
    std::string_view s;
    switch (type) {
      case kVarint: return varint(v);
      case kFixed64:
        if (end_ - p_ < 8) return false;
        p_ += 8;
        return true;
      case kBytes: return bytes(s);
      case kFixed32:
        if (end_ - p_ < 4) return false;
        p_ += 4;
        return true;
      case kStartGroup: {
        if (depth > 64) return false;
        uint32_t f = 0, t = 0;
        while (tag(f, t)) {
          if (t == kEndGroup) return f == field;
          if (!skip(f, t, depth + 1)) return false;
        }
        return false;
      }
      default: return false;  // an end-group without its start, or no wire type at all
    }
  }

 private:
  const char* p_;
  const char* end_;
};

size_t varint_size(uint64_t v) {
  size_t n = 1;
  while (v >= 0x80) {
    v >>= 7;
    ++n;
  }
  return n;
}

// Splits one GraphProto occurrence: the bulk lists into `out`, every other
// field (as it stands in the bytes) onto `rest`.
bool split_graph(std::string_view bytes, ModelBody& out, std::string& rest) {
  Reader r(bytes);
  while (!r.at_end()) {
    const char* start = r.pos();
    uint32_t field = 0, type = 0;
    if (!r.tag(field, type)) return false;
    if (type == kBytes) {
      std::vector<std::string_view>* list = nullptr;
      switch (field) {
        case graph_field::kNode: list = &out.nodes; break;
        case graph_field::kInitializer: list = &out.initializers; break;
        case graph_field::kValueInfo: list = &out.value_info; break;
        case graph_field::kSparseInitializer: list = &out.sparse_initializers; break;
        default: break;
      }
      if (list) {
        std::string_view v;
        if (!r.bytes(v)) return false;
        list->push_back(v);
        continue;
      }
    }
    if (!r.skip(field, type)) return false;
    rest.append(start, static_cast<size_t>(r.pos() - start));
  }
  return true;
}

}  // namespace

void put_varint(std::string& out, uint64_t v) {
  while (v >= 0x80) {
    out.push_back(static_cast<char>((v & 0x7f) | 0x80));
    v >>= 7;
  }
  out.push_back(static_cast<char>(v));
}

bool split_model(std::string_view bytes, ModelBody& out) {
  Reader r(bytes);
  std::string graph_rest;
  out.shell.clear();
  while (!r.at_end()) {
    const char* start = r.pos();
    uint32_t field = 0, type = 0;
    if (!r.tag(field, type)) return false;
    if (field == model_field::kGraph && type == kBytes) {
      std::string_view g;
      if (!r.bytes(g)) return false;
      // A graph given twice is one graph merged from both, as protobuf reads
      // it: the lists concatenate and the other fields join in order.
      if (!split_graph(g, out, graph_rest)) return false;
      out.has_graph = true;
      continue;
    }
    if (!r.skip(field, type)) return false;
    out.shell.append(start, static_cast<size_t>(r.pos() - start));
  }
  if (out.has_graph) {
    put_varint(out.shell, (model_field::kGraph << 3) | kBytes);
    put_varint(out.shell, graph_rest.size());
    out.shell += graph_rest;
  }
  return true;
}

bool read_node(std::string_view bytes, NodeTable& table) {
  NodeFields n;
  n.attrs_at = static_cast<uint32_t>(table.attrs.size());
  // Inputs and outputs may come interleaved in the bytes: gather outputs
  // aside and put them after the inputs.
  const size_t ports_at = table.ports.size();
  std::vector<std::string_view>& outputs = table.scratch;
  outputs.clear();
  std::string_view v;
  Reader r(bytes);
  bool ok = true;
  while (ok && !r.at_end()) {
    uint32_t field = 0, type = 0;
    if (!r.tag(field, type)) {
      ok = false;
    } else if (type != kBytes || field > node_field::kDomain) {
      ok = r.skip(field, type);
    } else if (!r.bytes(v)) {
      ok = false;
    } else {
      switch (field) {
        case node_field::kInput: table.ports.push_back(v); break;
        case node_field::kOutput: outputs.push_back(v); break;
        case node_field::kName: n.name = v; break;
        case node_field::kOpType: n.op_type = v; break;
        case node_field::kAttribute: table.attrs.push_back(v); break;
        case node_field::kDocString: n.doc_string = v; break;
        case node_field::kDomain: n.domain = v; break;
        default: break;
      }
    }
  }
  if (!ok) {
    table.ports.resize(ports_at);
    table.attrs.resize(n.attrs_at);
    return false;
  }
  n.inputs_at = static_cast<uint32_t>(ports_at);
  n.inputs = static_cast<uint32_t>(table.ports.size() - ports_at);
  n.outputs_at = static_cast<uint32_t>(table.ports.size());
  n.outputs = static_cast<uint32_t>(outputs.size());
  table.ports.insert(table.ports.end(), outputs.begin(), outputs.end());
  n.attrs = static_cast<uint32_t>(table.attrs.size() - n.attrs_at);
  table.nodes.push_back(n);
  return true;
}

bool read_plain_attr(std::string_view bytes, Attr& out) {
  Attr a;
  bool has_f = false, has_i = false, has_s = false;
  int32_t type = Attr::UNDEFINED;
  Reader r(bytes);
  std::string_view v;
  uint64_t x = 0;
  uint32_t bits = 0;
  while (!r.at_end()) {
    uint32_t field = 0, wt = 0;
    if (!r.tag(field, wt)) return false;
    switch (field) {
      case attr_field::kName:
        if (wt != kBytes || !r.bytes(v)) return false;
        a.name.assign(v);
        break;
      case attr_field::kF:
        if (wt != kFixed32 || !r.fixed32(bits)) return false;
        std::memcpy(&a.f, &bits, 4);
        has_f = true;
        break;
      case attr_field::kI:
        if (wt != kVarint || !r.varint(x)) return false;
        a.i = static_cast<int64_t>(x);
        has_i = true;
        break;
      case attr_field::kS:
        if (wt != kBytes || !r.bytes(v)) return false;
        a.s.assign(v);
        has_s = true;
        break;
      case attr_field::kFloats:
        if (wt == kFixed32) {
          if (!r.fixed32(bits)) return false;
          float f;
          std::memcpy(&f, &bits, 4);
          a.floats.push_back(f);
        } else if (wt == kBytes) {  // packed
          if (!r.bytes(v) || v.size() % 4) return false;
          const size_t at = a.floats.size();
          a.floats.resize(at + v.size() / 4);
          if (!v.empty()) std::memcpy(a.floats.data() + at, v.data(), v.size());
        } else {
          return false;
        }
        break;
      case attr_field::kInts:
        if (wt == kVarint) {
          if (!r.varint(x)) return false;
          a.ints.push_back(static_cast<int64_t>(x));
        } else if (wt == kBytes) {  // packed
          if (!r.bytes(v)) return false;
          Reader p(v);
          while (!p.at_end()) {
            if (!p.varint(x)) return false;
            a.ints.push_back(static_cast<int64_t>(x));
          }
        } else {
          return false;
        }
        break;
      case attr_field::kStrings:
        if (wt != kBytes || !r.bytes(v)) return false;
        a.strings.emplace_back(v);
        break;
      case attr_field::kType:
        // An enum value protobuf does not know is kept aside by it, and the
        // type reads as unset: leave that case to protobuf.
        if (wt != kVarint || !r.varint(x) || x > Attr::TYPE_PROTOS) return false;
        type = static_cast<int32_t>(x);
        break;
      case attr_field::kRefAttrName:
        if (wt != kBytes || !r.bytes(v)) return false;
        if (!v.empty()) return false;
        break;
      case attr_field::kDocString:
        if (wt != kBytes || !r.bytes(v)) return false;
        break;
      default:
        return false;  // tensors, graphs, type protos, or a field this reader does not know
    }
  }
  if (type == Attr::UNDEFINED) {
    // Very old models leave the type out: take it from the field that is set.
    if (has_f) type = Attr::FLOAT;
    else if (has_i) type = Attr::INT;
    else if (has_s) type = Attr::STRING;
    else if (!a.floats.empty()) type = Attr::FLOATS;
    else if (!a.ints.empty()) type = Attr::INTS;
    else if (!a.strings.empty()) type = Attr::STRINGS;
  }
  a.kind = type;
  // Only the field of the attribute's kind is kept, as a decoded attribute
  // holds no other.
  switch (type) {
    case Attr::FLOAT: a.i = 0; a.s.clear(); a.floats.clear(); a.ints.clear(); a.strings.clear(); break;
    case Attr::INT: a.f = 0.f; a.s.clear(); a.floats.clear(); a.ints.clear(); a.strings.clear(); break;
    case Attr::STRING: a.f = 0.f; a.i = 0; a.floats.clear(); a.ints.clear(); a.strings.clear(); break;
    case Attr::FLOATS: a.f = 0.f; a.i = 0; a.s.clear(); a.ints.clear(); a.strings.clear(); break;
    case Attr::INTS: a.f = 0.f; a.i = 0; a.s.clear(); a.floats.clear(); a.strings.clear(); break;
    case Attr::STRINGS: a.f = 0.f; a.i = 0; a.s.clear(); a.floats.clear(); a.ints.clear(); break;
    default: return false;  // kept opaque: protobuf serializes it
  }
  out = std::move(a);
  return true;
}

namespace {

// What a field visitor did with a field: read its value, left it to be
// skipped, or found it malformed (or of a form left to protobuf).
enum class Field { kRead, kSkip, kRefuse };

// Calls `visit(field, wire_type, reader)` for each field of the message;
// false when a field is refused or the bytes are malformed.
template <class Visit>
bool each_field(std::string_view bytes, Visit&& visit) {
  Reader r(bytes);
  while (!r.at_end()) {
    uint32_t field = 0, type = 0;
    if (!r.tag(field, type)) return false;
    switch (visit(field, type, r)) {
      case Field::kRead: break;
      case Field::kSkip:
        if (!r.skip(field, type)) return false;
        break;
      case Field::kRefuse: return false;
    }
  }
  return true;
}

// The value of a length-delimited field, handed to `then`.
template <class Then>
Field nested(Reader& r, Then&& then) {
  std::string_view s;
  return r.bytes(s) && then(s) ? Field::kRead : Field::kRefuse;
}

// TensorShapeProto.Dimension: dim_value and dim_param share a oneof, the
// last one given wins.
bool read_dim(std::string_view bytes, ValueInfoFields& out, std::vector<int64_t>& dims) {
  bool has_value = false;
  int64_t value = 0;
  const bool ok = each_field(bytes, [&](uint32_t field, uint32_t type, Reader& r) {
    uint64_t x = 0;
    if (field == 1 && type == kVarint) {
      if (!r.varint(x)) return Field::kRefuse;
      value = static_cast<int64_t>(x);
      has_value = true;
      return Field::kRead;
    }
    if (field == 2 && type == kBytes) has_value = false;  // dim_param: skipped below
    return Field::kSkip;
  });
  if (!ok) return false;
  if (!has_value) value = -1;
  else if (value < -1 && out.bad_dim == 0) out.bad_dim = value;
  dims.push_back(value < 0 ? -1 : value);
  return true;
}

bool read_shape(std::string_view bytes, ValueInfoFields& out, std::vector<int64_t>& dims) {
  return each_field(bytes, [&](uint32_t field, uint32_t type, Reader& r) {
    if (field != 1 || type != kBytes) return Field::kSkip;
    return nested(r, [&](std::string_view d) { return read_dim(d, out, dims); });
  });
}

bool read_tensor_type(std::string_view bytes, ValueInfoFields& out, std::vector<int64_t>& dims) {
  return each_field(bytes, [&](uint32_t field, uint32_t type, Reader& r) {
    uint64_t x = 0;
    if (field == 1 && type == kVarint) {
      if (!r.varint(x)) return Field::kRefuse;
      out.elem_type = static_cast<int32_t>(static_cast<uint32_t>(x));
      return Field::kRead;
    }
    if (field != 2 || type != kBytes) return Field::kSkip;
    if (out.has_shape) return Field::kRefuse;  // twice: protobuf merges
    out.has_shape = true;
    return nested(r, [&](std::string_view s) { return read_shape(s, out, dims); });
  });
}

bool read_type(std::string_view bytes, ValueInfoFields& out, std::vector<int64_t>& dims) {
  return each_field(bytes, [&](uint32_t field, uint32_t type, Reader& r) {
    if (field == 6 && type == kBytes) return Field::kSkip;  // denotation
    // Sequence, map, optional, sparse and opaque types are left to protobuf.
    if (field != 1 || type != kBytes || out.tensor) return Field::kRefuse;  // twice: protobuf merges
    out.tensor = true;
    return nested(r, [&](std::string_view s) { return read_tensor_type(s, out, dims); });
  });
}

}  // namespace

bool read_value_info(std::string_view bytes, ValueInfoFields& out, std::vector<int64_t>& dims) {
  out = ValueInfoFields{};
  out.dims_at = static_cast<uint32_t>(dims.size());
  bool has_type = false;
  const bool ok = each_field(bytes, [&](uint32_t field, uint32_t type, Reader& r) {
    if (field == 1 && type == kBytes) return r.bytes(out.name) ? Field::kRead : Field::kRefuse;
    if (field != 2 || type != kBytes) return Field::kSkip;
    if (has_type) return Field::kRefuse;  // twice: protobuf merges
    has_type = true;
    return nested(r, [&](std::string_view s) { return read_type(s, out, dims); });
  });
  if (!ok) {
    dims.resize(out.dims_at);
    return false;
  }
  out.rank = static_cast<uint32_t>(dims.size() - out.dims_at);
  return true;
}

bool read_string_field(std::string_view bytes, uint32_t wanted, std::string_view& value) {
  value = {};
  return each_field(bytes, [&](uint32_t field, uint32_t type, Reader& r) {
    if (field != wanted || type != kBytes) return Field::kSkip;
    return r.bytes(value) ? Field::kRead : Field::kRefuse;
  });
}

void put_varint_field(std::string& out, uint32_t field, uint64_t v) {
  put_varint(out, (static_cast<uint64_t>(field) << 3) | kVarint);
  put_varint(out, v);
}

void put_bytes_field(std::string& out, uint32_t field, std::string_view v) {
  put_varint(out, (static_cast<uint64_t>(field) << 3) | kBytes);
  put_varint(out, v.size());
  out.append(v.data(), v.size());
}

namespace {

void put_fixed32_field(std::string& out, uint32_t field, float v) {
  put_varint(out, (static_cast<uint64_t>(field) << 3) | kFixed32);
  char b[4];
  std::memcpy(b, &v, 4);
  out.append(b, 4);
}

}  // namespace

bool write_plain_attr(const Attr& a, std::string& out) {
  if (!a.opaque.empty()) return false;
  switch (a.kind) {
    case Attr::FLOAT:
    case Attr::INT:
    case Attr::STRING:
    case Attr::FLOATS:
    case Attr::INTS:
    case Attr::STRINGS: break;
    default: return false;
  }
  put_bytes_field(out, attr_field::kName, a.name);
  switch (a.kind) {
    case Attr::FLOAT: put_fixed32_field(out, attr_field::kF, a.f); break;
    case Attr::INT: put_varint_field(out, attr_field::kI, static_cast<uint64_t>(a.i)); break;
    case Attr::STRING: put_bytes_field(out, attr_field::kS, a.s); break;
    case Attr::FLOATS:
      for (float f : a.floats) put_fixed32_field(out, attr_field::kFloats, f);
      break;
    case Attr::INTS:
      for (int64_t v : a.ints) put_varint_field(out, attr_field::kInts, static_cast<uint64_t>(v));
      break;
    default:
      for (const auto& v : a.strings) put_bytes_field(out, attr_field::kStrings, v);
      break;
  }
  put_varint_field(out, attr_field::kType, static_cast<uint64_t>(a.kind));
  return true;
}

void write_value_info_field(std::string& out, std::string_view name, int32_t elem_type, const int64_t* dims,
                            size_t rank) {
  // Sizes from the inside out: Dimension, TensorShapeProto, Tensor,
  // TypeProto, ValueInfoProto.
  size_t shape = 0;
  for (size_t k = 0; k < rank; ++k) {
    const size_t dim = 1 + varint_size(static_cast<uint64_t>(dims[k]));
    shape += 1 + varint_size(dim) + dim;
  }
  const size_t tensor = 1 + varint_size(static_cast<uint64_t>(static_cast<int64_t>(elem_type))) + 1 +
                        varint_size(shape) + shape;
  const size_t type = 1 + varint_size(tensor) + tensor;
  const size_t vi = 1 + varint_size(name.size()) + name.size() + 1 + varint_size(type) + type;
  put_varint(out, (static_cast<uint64_t>(kGraphValueInfo) << 3) | kBytes);
  put_varint(out, vi);
  put_bytes_field(out, 1, name);
  put_varint(out, (2 << 3) | kBytes);  // ValueInfoProto.type
  put_varint(out, type);
  put_varint(out, (1 << 3) | kBytes);  // TypeProto.tensor_type
  put_varint(out, tensor);
  put_varint_field(out, 1, static_cast<uint64_t>(static_cast<int64_t>(elem_type)));  // elem_type
  put_varint(out, (2 << 3) | kBytes);  // shape
  put_varint(out, shape);
  for (size_t k = 0; k < rank; ++k) {
    put_varint(out, (1 << 3) | kBytes);  // dim
    put_varint(out, 1 + varint_size(static_cast<uint64_t>(dims[k])));
    put_varint_field(out, 1, static_cast<uint64_t>(dims[k]));  // dim_value
  }
}

void write_raw_tensor(std::string& out, std::string_view name, int32_t data_type, const int64_t* dims, size_t rank,
                      std::string_view raw) {
  for (size_t k = 0; k < rank; ++k) put_varint_field(out, 1, static_cast<uint64_t>(dims[k]));  // dims
  put_varint_field(out, 2, static_cast<uint64_t>(static_cast<int64_t>(data_type)));        // data_type
  put_bytes_field(out, 8, name);                                                          // name
  put_bytes_field(out, 9, raw);                                                           // raw_data
}

std::string join_model(std::string_view shell, std::string_view nodes, std::string_view initializers,
                       std::string_view value_info, size_t limit) {
  // The shell's graph, found first: the lists go in between its fields.
  std::string_view graph;
  {
    Reader r(shell);
    while (!r.at_end()) {
      uint32_t field = 0, type = 0;
      if (!r.tag(field, type)) throw std::runtime_error("save_model: model shell is corrupt");
      if (field == model_field::kGraph && type == kBytes) {
        if (!r.bytes(graph)) throw std::runtime_error("save_model: model shell is corrupt");
      } else if (!r.skip(field, type)) {
        throw std::runtime_error("save_model: model shell is corrupt");
      }
    }
  }
  const size_t graph_size = graph.size() + nodes.size() + initializers.size() + value_info.size();
  const size_t total = shell.size() - graph.size() + graph_size + varint_size(graph_size) - varint_size(graph.size());
  if (total > limit)
    throw std::runtime_error(
        "the model is larger than 2 GB, the protobuf limit: write its tensor data to an external file");
  std::string out;
  out.reserve(total);
  Reader r(shell);
  while (!r.at_end()) {
    const char* start = r.pos();
    uint32_t field = 0, type = 0;
    r.tag(field, type);
    if (field != model_field::kGraph || type != kBytes) {
      r.skip(field, type);
      out.append(start, static_cast<size_t>(r.pos() - start));
      continue;
    }
    std::string_view g;
    r.bytes(g);
    put_varint(out, (static_cast<uint64_t>(model_field::kGraph) << 3) | kBytes);
    put_varint(out, graph_size);
    // Each list before the first field numbered above it, as protobuf orders them.
    const std::pair<uint32_t, std::string_view> lists[] = {
        {kGraphNode, nodes}, {kGraphInitializer, initializers}, {kGraphValueInfo, value_info}};
    size_t next = 0;
    Reader gr(g);
    while (!gr.at_end()) {
      const char* fs = gr.pos();
      uint32_t f = 0, t = 0;
      gr.tag(f, t);
      while (next < 3 && lists[next].first < f) out.append(lists[next++].second);
      gr.skip(f, t);
      out.append(fs, static_cast<size_t>(gr.pos() - fs));
    }
    while (next < 3) out.append(lists[next++].second);
  }
  return out;
}

}  // namespace wire
}  // namespace tolm
