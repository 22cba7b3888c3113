#include "host/op_lists.h"

#include <unordered_set>

namespace tolm {
namespace {

struct OpList {
  std::vector<std::string> list;
  std::unordered_set<std::string> set;
  explicit OpList(std::vector<std::string> l) : list(std::move(l)), set(list.begin(), list.end()) {}
};

const OpList& alu() {
  // Two operands each: rules address "the other input" as 1 - i. Comparisons
  // and logic are left out, their boolean outputs never stack or quantise like
  // arithmetic results; Pow too, rules name it on its own where it qualifies.
  static const OpList l({"Add", "Sub", "Mul", "Div", "Max", "Min", "Mod"});
  return l;
}

const OpList& activation() {
  // Point-wise on the feature alone. PRelu is not here: its slope is laid out
  // per channel, so it does not follow a layout change or a stacking.
  static const OpList l({"Relu", "LeakyRelu", "Sigmoid", "HardSigmoid", "HardSwish",
                         "Tanh", "Elu", "Selu", "Celu", "ThresholdedRelu", "Softplus", "Softsign",
                         "Mish", "Gelu", "Clip", "exSwish"});
  return l;
}

const OpList& reduce() {
  static const OpList l({"ReduceMean", "ReduceSum", "ReduceMax", "ReduceMin", "ReduceProd",
                         "ReduceL1", "ReduceL2", "ReduceLogSum", "ReduceLogSumExp",
                         "ReduceSumSquare"});
  return l;
}

const OpList& no_change() {
  // Each output value is one of the input values (or their maximum/minimum):
  // the value range cannot widen. Pad is absent since its fill value may lie
  // outside the input range; Concat since it joins several ranges.
  static const OpList l({"Reshape", "Transpose", "Squeeze", "Unsqueeze", "Flatten", "Identity",
                         "Dropout", "Split", "Slice", "Gather", "GatherElements", "GatherND",
                         "Expand", "Tile", "DepthToSpace", "SpaceToDepth", "MaxPool",
                         "GlobalMaxPool", "ReduceMax", "ReduceMin", "Resize", "Upsample"});
  return l;
}

}  // namespace

const std::vector<std::string>& ELEMENTWISE_ALU_OPS() { return alu().list; }
const std::vector<std::string>& ACTIVATION_OPS() { return activation().list; }
const std::vector<std::string>& REDUCE_OPS() { return reduce().list; }
const std::vector<std::string>& no_change_node() { return no_change().list; }

bool is_elementwise_alu_op(const std::string& op_type) { return alu().set.count(op_type) != 0; }
bool is_activation_op(const std::string& op_type) { return activation().set.count(op_type) != 0; }
bool is_reduce_op(const std::string& op_type) { return reduce().set.count(op_type) != 0; }
bool is_no_change_node(const std::string& op_type) { return no_change().set.count(op_type) != 0; }

}  // namespace tolm
