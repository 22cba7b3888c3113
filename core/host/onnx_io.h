// ONNX load and save for the IR graph.
#pragma once

#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/ir.h"

namespace tolm {

// A model that cannot be taken in: the message is one line, for the user.
struct LoadError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct LoadOptions {
  // Fixed shapes for graph inputs with unknown or symbolic dimensions.
  std::map<std::string, Shape> input_shapes;
  // Infer the shapes the model does not carry.
  bool infer_shapes = true;
  // Folder that tensor data kept outside the model is read from (the model
  // file's folder). Empty: such a model is refused, there is nowhere to look.
  std::string external_data_dir;
};

struct SaveOptions {
  // Where tensor data goes when it is kept outside the model: the data file
  // to write, and its name as the model records it (relative to the model's
  // folder). Empty data_path: every tensor stays inside the model.
  std::string data_path;
  std::string data_location;
  // Tensors of fewer bytes stay inside the model.
  int64_t min_external_bytes = 1024;
};

// The protobuf limit on a serialized model: above it, tensor data must be
// kept outside the model.
constexpr int64_t kMaxModelBytes = 2147483647;

// Bytes of tensor data the graph's constants would take when saved.
int64_t constant_bytes(const IR& ir);

// From serialized ModelProto bytes. Throws LoadError.
std::unique_ptr<IR> load_model(const std::string& bytes, const LoadOptions& options = {});
std::unique_ptr<IR> load_model_file(const std::string& path, const LoadOptions& options = {});
// Serialized ModelProto of the graph as it stands.
// With options.data_path set, tensors of at least min_external_bytes go to
// that file (written here) and the model refers to them. Throws
// std::runtime_error when the model would pass 2 GB inside one file, or the
// data file cannot be written.
std::string save_model(const IR& ir, const SaveOptions& options = {});

// Sub-graphs (the bodies of If, Loop and Scan) as graphs of their own, as
// serialized GraphProto. Loaded with the outer-scope names the body reads as
// further graph inputs, typed and shaped as the outer graph has them, so that
// rules see them as inputs they may neither produce nor rename. Throws
// LoadError when the body cannot be taken in (an outer name of unknown type).
std::unique_ptr<IR> load_subgraph(const IR& outer, const std::string& graph_bytes);
// The body back, without the outer-scope inputs load_subgraph added; its name
// and doc string as they were.
std::string save_subgraph(const IR& body, const std::string& original_graph_bytes);
// The outer-scope names a serialized GraphProto reads, in first-use order.
std::vector<std::string> subgraph_outer_names(const std::string& graph_bytes);

}  // namespace tolm
