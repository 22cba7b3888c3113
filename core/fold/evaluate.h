// Evaluation of single operators on constant inputs: the folder's own
// evaluator over the host's constant arrays. Private to core/fold/.
//
// An evaluator computes a node's outputs from what is known of its inputs:
// their constant values, or for Shape and Size their static shapes. It
// returns false (and the node stays) when it cannot compute the result
// exactly as the runtime would, when the result would be larger than the
// size budget allows, or when the node is not valid for these inputs (the
// runtime would fail on it: that failure is the model's, not ours to hide).
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "host/ir.h"

namespace tolm {
namespace fold {

// What one input of the node is known to be.
struct EvalInput {
  bool present = false;            // the slot names a tensor
  const NDArray* value = nullptr;  // its constant value, if it has one
  int32_t dtype = dt::UNDEFINED;
  const Shape* shape = nullptr;    // its static shape, if known
};

// How large a result may be. Results are materialised as constants only up
// to `allowed` bytes; an evaluator asks before it builds an output.
struct Budget {
  int64_t allowed = 0;
  mutable bool exceeded = false;  // some output was refused for its size
  bool fits(const Shape& shape, int32_t dtype) const;
};

struct EvalContext {
  const Node& node;
  std::vector<EvalInput> in;
  int64_t opset = 17;
  Budget budget;

  // Input i's value, or null.
  const NDArray* value(size_t i) const { return i < in.size() ? in[i].value : nullptr; }
  bool present(size_t i) const { return i < in.size() && in[i].present; }
};

using Outputs = std::vector<NDArray>;
using Evaluator = bool (*)(const EvalContext& ctx, Outputs& out);

// Which inputs an evaluator needs to know.
enum class Needs {
  kValues,       // every present input is constant
  kFirstValue,   // input 0 is constant; the others give their element type (CastLike)
  kStaticShape,  // input 0 has a static shape (Shape, Size)
};

struct OpEvaluator {
  Evaluator fn = nullptr;
  Needs needs = Needs::kValues;
};

using EvaluatorTable = std::unordered_map<std::string, OpEvaluator>;

// The evaluator of a default-domain operator, or null.
const OpEvaluator* find_evaluator(const std::string& op_type);

// Each family adds its operators.
void add_shape_ops(EvaluatorTable& table);     // fold_shape_ops.cpp
void add_movement_ops(EvaluatorTable& table);  // fold_movement.cpp
void add_math_ops(EvaluatorTable& table);      // fold_math.cpp

// ---- helpers shared by the families ---------------------------------------

// Axis in [-rank, rank) made non-negative; false if out of range.
bool normalize_axis(int64_t& axis, int64_t rank);
// Integer values of a constant that holds integers (int32 or int64); false
// for any other element type.
bool int_values(const NDArray* a, std::vector<int64_t>& out);
// The broadcast of two shapes (NumPy rules); false if they do not broadcast.
bool broadcast_shapes(const Shape& a, const Shape& b, Shape& out);

}  // namespace fold
}  // namespace tolm
