#include "host/builder.h"

#include <algorithm>

#include "host/shape_infer.h"

namespace tolm {

std::string Graph::fresh(const std::string& base) {
  std::string name = ir_.unique_tensor_name(base);
  // Names handed out by this builder are not in the graph yet: skip them too.
  for (int k = 1; std::find(names_assign.begin(), names_assign.end(), name) != names_assign.end(); ++k)
    name = ir_.unique_tensor_name(base + "_" + std::to_string(k));
  names_assign.push_back(name);
  return name;
}

std::string Graph::op(const std::string& op_type, const std::vector<OpInput>& inputs,
                      const OpSpec& opts) {
  const std::string node_name = opts.name.empty() ? fresh(op_type) : opts.name;
  std::vector<std::string> in_names;
  in_names.reserve(inputs.size());
  std::string absent_name;
  for (size_t i = 0; i < inputs.size(); ++i) {
    const OpInput& in = inputs[i];
    if (const auto* s = std::get_if<std::string>(&in)) {
      in_names.push_back(*s);
    } else if (const auto* v = std::get_if<std::vector<int64_t>>(&in)) {
      std::string c = fresh(node_name + "_in" + std::to_string(i));
      ir_.set_const(c, NDArray::from_i64(*v));
      in_names.push_back(c);
    } else if (const auto* a = std::get_if<NDArray>(&in)) {
      std::string c = fresh(node_name + "_in" + std::to_string(i));
      ir_.set_const(c, *a);
      in_names.push_back(c);
    } else {
      std::string t = fresh(node_name + "_in" + std::to_string(i));
      if (absent_name.empty()) absent_name = t;
      in_names.push_back(t);
    }
  }
  std::vector<std::string> outs = opts.outputs;
  if (outs.empty()) {
    for (int k = 0; k < opts.num_outputs; ++k)
      outs.push_back(fresh(node_name + (opts.num_outputs == 1 ? std::string("_out")
                                                              : "_out" + std::to_string(k))));
  }
  NodePtr n = Node::make(op_type, in_names, outs, node_name, opts.attrs);
  nodes.push_back(n);
  // Give the outputs their shapes now, so the rule itself can ask for them.
  infer_node(ir_, *n, false);
  return absent_name.empty() ? outs.front() : absent_name;
}

}  // namespace tolm
