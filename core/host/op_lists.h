// Families of operator types that rules treat alike. Each list is in a fixed
// order (the order rules iterate in); the `is_*` helpers answer membership in
// constant time.
#pragma once

#include <string>
#include <vector>

namespace tolm {

// Element-wise binary arithmetic: the output element depends only on the
// elements at the same (broadcast) position, so layout changes pass through.
const std::vector<std::string>& ELEMENTWISE_ALU_OPS();
// Unary point-wise activations (some with constant parameters).
const std::vector<std::string>& ACTIVATION_OPS();
// Reductions over axes.
const std::vector<std::string>& REDUCE_OPS();
// Operators whose output takes its values from its input unchanged (data
// movement and selection): the output can share the input's quantisation
// range.
const std::vector<std::string>& no_change_node();

bool is_elementwise_alu_op(const std::string& op_type);
bool is_activation_op(const std::string& op_type);
bool is_reduce_op(const std::string& op_type);
bool is_no_change_node(const std::string& op_type);

}  // namespace tolm
