// Private to host/: conversions between the IR's values and ONNX protobuf
// messages, shared by onnx_io.cpp and shape_infer.cpp. Not part of the
// library's interface; include only from .cpp files.
#pragma once

#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <onnx/onnx_pb.h>

#include "host/attr.h"
#include "host/ndarray.h"

namespace tolm {
namespace onnx_convert {

// Reads tensor data that a model keeps in files beside it. Locations are
// relative to `dir` and may not leave it; each file is opened once.
class ExternalDataReader {
 public:
  explicit ExternalDataReader(std::string dir) : dir_(std::move(dir)) {}
  // Fills `raw` (already sized to the tensor's bytes) from the tensor's
  // location; returns an empty string, else why it cannot.
  std::string read(const onnx::TensorProto& tp, std::vector<uint8_t>& raw);
  int64_t tensors = 0;
  int64_t bytes = 0;

 private:
  std::string dir_;
  std::map<std::string, std::unique_ptr<std::ifstream>> files_;
};

// Decodes a TensorProto (raw_data, the typed fields, or with `external` the
// data file it names). Returns an empty string on success, else why it
// cannot be decoded (external data without a reader, element type, size
// mismatch). `out` is untouched on failure.
std::string tensor_from_proto(const onnx::TensorProto& tp, NDArray& out,
                              ExternalDataReader* external = nullptr);
// Encodes an array as TensorProto: raw_data, or string_data for strings.
void tensor_to_proto(const NDArray& a, const std::string& name, onnx::TensorProto* tp);

// Kinds FLOAT, INT, STRING, FLOATS, INTS, STRINGS and TENSOR come decoded;
// every other kind (and a tensor that cannot be decoded) is kept opaque.
Attr attr_from_proto(const onnx::AttributeProto& ap);
void attr_to_proto(const Attr& a, onnx::AttributeProto* ap);

// Whether the TensorProto keeps its data outside the model.
bool has_external_data(const onnx::TensorProto& tp);

// Names read inside the graph (and its own sub-graphs) that it does not
// declare itself: the outer-scope names it captures, in first-use order,
// appended to `out`.
void free_names(const onnx::GraphProto& g, std::vector<std::string>& out);
// The outer-scope names the node's graph attributes capture, each once.
std::vector<std::string> implicit_inputs_of(const onnx::NodeProto& n);
// The value of a Constant node, if it can be held as a constant (false for
// sparse values and attribute references).
bool constant_value(const onnx::NodeProto& n, NDArray& out, ExternalDataReader* external = nullptr);

}  // namespace onnx_convert
}  // namespace tolm
