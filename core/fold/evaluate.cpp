#include "fold/evaluate.h"

#include <algorithm>

namespace tolm {
namespace fold {

bool Budget::fits(const Shape& shape, int32_t dtype) const {
  const int64_t n = shape_size(shape);
  const int64_t es = static_cast<int64_t>(dtype_size(dtype));
  if (n < 0 || es == 0) return false;
  // Compare in elements first: a shape from a hostile constant may overflow.
  if (n > allowed / es) {
    exceeded = true;
    return false;
  }
  return true;
}

const OpEvaluator* find_evaluator(const std::string& op_type) {
  static const EvaluatorTable table = [] {
    EvaluatorTable t;
    add_shape_ops(t);
    add_movement_ops(t);
    add_math_ops(t);
    return t;
  }();
  auto it = table.find(op_type);
  return it == table.end() ? nullptr : &it->second;
}

bool normalize_axis(int64_t& axis, int64_t rank) {
  if (axis < -rank || axis >= rank) return false;
  if (axis < 0) axis += rank;
  return true;
}

bool int_values(const NDArray* a, std::vector<int64_t>& out) {
  if (!a || (a->dtype() != dt::INT64 && a->dtype() != dt::INT32)) return false;
  out = a->to_i64();
  return true;
}

bool broadcast_shapes(const Shape& a, const Shape& b, Shape& out) {
  const size_t r = std::max(a.size(), b.size());
  Shape s(r);
  for (size_t k = 0; k < r; ++k) {
    const int64_t da = k + a.size() >= r ? a[k + a.size() - r] : 1;
    const int64_t db = k + b.size() >= r ? b[k + b.size() - r] : 1;
    if (da != db && da != 1 && db != 1) return false;
    s[k] = da == 1 ? db : da;
  }
  out = std::move(s);
  return true;
}

}  // namespace fold
}  // namespace tolm
