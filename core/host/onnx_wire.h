// Private to host/: reads the bulk of a serialized ModelProto (the main
// graph's nodes, value_info and initializers) straight from the bytes.
//
// Parsing a million-node model into protobuf messages builds seven messages
// per value_info record and one per port name, all thrown away once the graph
// is loaded: that costs more than loading itself. The records here are views
// into the model's bytes. Everything else of the model (opset imports, graph
// inputs and outputs, metadata, fields this reader does not know) stays in a
// small "shell" that protobuf parses as before. Records of a form this reader
// does not take (sub-graph attributes, unusual encodings) are handed to
// protobuf one by one, so the result is the same as a full protobuf parse.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "host/attr.h"

namespace tolm {
namespace wire {

// The main graph's bulk records, as views into the model bytes, and the
// model without them.
struct ModelBody {
  bool has_graph = false;
  // The model with the graph's node, initializer, value_info and
  // sparse_initializer lists left out; a valid serialized ModelProto.
  std::string shell;
  std::vector<std::string_view> nodes;
  std::vector<std::string_view> initializers;
  std::vector<std::string_view> value_info;
  std::vector<std::string_view> sparse_initializers;
};

// False when the bytes are not well-formed protobuf at the levels read here.
bool split_model(std::string_view bytes, ModelBody& out);

// A NodeProto's fields; attributes stay serialized.
struct NodeFields {
  std::string_view name, op_type, domain, doc_string;
  uint32_t inputs_at = 0, inputs = 0;    // into NodeTable::ports
  uint32_t outputs_at = 0, outputs = 0;  // into NodeTable::ports
  uint32_t attrs_at = 0, attrs = 0;      // into NodeTable::attrs
};

struct NodeTable {
  std::vector<NodeFields> nodes;
  std::vector<std::string_view> ports;
  std::vector<std::string_view> attrs;
  std::vector<std::string_view> scratch;  // a node's outputs while it is read
  std::string_view input(const NodeFields& n, uint32_t k) const { return ports[n.inputs_at + k]; }
  std::string_view output(const NodeFields& n, uint32_t k) const { return ports[n.outputs_at + k]; }
};

// Appends the node's fields to the table; false on malformed bytes.
bool read_node(std::string_view bytes, NodeTable& table);

// An attribute of kind FLOAT, INT, STRING, FLOATS, INTS or STRINGS, decoded
// as protobuf would decode it. False for any other form (other kinds, an
// attribute reference, a field given twice that protobuf would merge, an
// unknown type code) and for malformed bytes: protobuf then takes it.
bool read_plain_attr(std::string_view bytes, Attr& out);

// What loading needs of a ValueInfoProto: its name, and for a tensor type
// the element type and dimensions (-1 for one without a value), kept in a
// list shared by all records.
struct ValueInfoFields {
  std::string_view name;
  bool tensor = false;
  int32_t elem_type = 0;
  bool has_shape = false;
  uint32_t dims_at = 0, rank = 0;
  // The first dimension below -1 (a broken model); 0 when there is none.
  int64_t bad_dim = 0;
};

// Appends the record's dimensions to `dims`. False for forms this reader
// leaves to protobuf (types other than tensor, a message field given twice)
// and for malformed bytes; `dims` is then as it was.
bool read_value_info(std::string_view bytes, ValueInfoFields& out, std::vector<int64_t>& dims);

// A string field of a serialized message (the last one given, as protobuf
// reads it; empty if none); false on malformed bytes.
bool read_string_field(std::string_view bytes, uint32_t field, std::string_view& value);
constexpr uint32_t kTensorName = 8;     // TensorProto.name
constexpr uint32_t kValueInfoName = 1;  // ValueInfoProto.name

// ---- writing, as protobuf writes: fields in number order, lists unpacked,
// lengths in the fewest bytes. A model written here reads back as the same
// messages, and protobuf writing those again gives the same bytes.

void put_varint(std::string& out, uint64_t v);
void put_varint_field(std::string& out, uint32_t field, uint64_t v);
void put_bytes_field(std::string& out, uint32_t field, std::string_view v);

// An attribute of kind FLOAT, INT, STRING, FLOATS, INTS or STRINGS, held
// decoded, as AttributeProto bytes; false (nothing written) for any other.
bool write_plain_attr(const Attr& a, std::string& out);

// A tensor-typed ValueInfoProto with every dimension known, as a
// GraphProto.value_info field (tag included).
void write_value_info_field(std::string& out, std::string_view name, int32_t elem_type, const int64_t* dims,
                            size_t rank);

// A TensorProto of raw data (tag and length not included).
void write_raw_tensor(std::string& out, std::string_view name, int32_t data_type, const int64_t* dims, size_t rank,
                      std::string_view raw);

// Field numbers of GraphProto's lists.
constexpr uint32_t kGraphNode = 1, kGraphInitializer = 5, kGraphValueInfo = 13;

// The serialized model `shell` with the graph's node, initializer and
// value_info fields (each a run of whole fields, tags included) put in at
// their places in its graph. Throws std::runtime_error when the result
// would pass `limit` bytes.
std::string join_model(std::string_view shell, std::string_view nodes, std::string_view initializers,
                       std::string_view value_info, size_t limit);

}  // namespace wire
}  // namespace tolm
