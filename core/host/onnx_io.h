// ONNX load and save for the IR graph.
#pragma once

#include <map>
#include <memory>
#include <stdexcept>
#include <string>

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
};

// From serialized ModelProto bytes. Throws LoadError.
std::unique_ptr<IR> load_model(const std::string& bytes, const LoadOptions& options = {});
std::unique_ptr<IR> load_model_file(const std::string& path, const LoadOptions& options = {});
// Serialized ModelProto of the graph as it stands.
std::string save_model(const IR& ir);

}  // namespace tolm
