// Operators that compute shapes or make new constants from a few scalars:
// Shape, Size, the reshapes (Reshape, Flatten, Squeeze, Unsqueeze), Identity,
// Constant, ConstantOfShape and Range. The reshapes move no data: the
// result holds the input's bytes under a new shape.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <numeric>
#include <set>

#include "fold/evaluate.h"

namespace tolm {
namespace fold {

namespace {

bool plain(int32_t dtype) { return dtype != dt::STRING && dtype_size(dtype) != 0; }

// The input's bytes under `shape`.
bool reshaped(const EvalContext& ctx, const Shape& shape, Outputs& out) {
  const NDArray* a = ctx.value(0);
  if (!a || !plain(a->dtype()) || shape_size(shape) != a->size()) return false;
  if (!ctx.budget.fits(shape, a->dtype())) return false;
  out.push_back(NDArray(a->dtype(), shape, a->raw()));
  return true;
}

// Axes from the attribute (older opsets) or from input 1.
bool axes_of(const EvalContext& ctx, int64_t input_from_opset, std::vector<int64_t>& axes, bool& given) {
  given = false;
  if (ctx.opset < input_from_opset) {
    if (auto a = IR::get_attr_ints(ctx.node, "axes")) {
      axes = *a;
      given = true;
    }
    return true;
  }
  if (!ctx.present(1)) return true;
  given = true;
  return int_values(ctx.value(1), axes);
}

bool eval_shape(const EvalContext& ctx, Outputs& out) {
  const Shape& s = *ctx.in[0].shape;
  const int64_t rank = static_cast<int64_t>(s.size());
  int64_t start = IR::get_attr_int(ctx.node, "start").value_or(0);
  int64_t end = IR::get_attr_int(ctx.node, "end").value_or(rank);
  if (start < 0) start += rank;
  if (end < 0) end += rank;
  start = std::clamp<int64_t>(start, 0, rank);
  end = std::clamp<int64_t>(end, 0, rank);
  std::vector<int64_t> dims;
  if (start < end) dims.assign(s.begin() + start, s.begin() + end);
  out.push_back(NDArray::from_i64(dims));
  return true;
}

bool eval_size(const EvalContext& ctx, Outputs& out) {
  out.push_back(NDArray::scalar_i64(shape_size(*ctx.in[0].shape)));
  return true;
}

bool eval_reshape(const EvalContext& ctx, Outputs& out) {
  const NDArray* data = ctx.value(0);
  std::vector<int64_t> target;
  if (!data || !int_values(ctx.value(1), target)) return false;
  if (ctx.value(1)->ndim() != 1) return false;
  const bool allowzero = IR::get_attr_int(ctx.node, "allowzero").value_or(0) != 0;
  const Shape& in = data->shape();
  Shape shape(target.size());
  int64_t infer = -1, known = 1;
  for (size_t k = 0; k < target.size(); ++k) {
    int64_t d = target[k];
    if (d == 0 && !allowzero) {
      if (k >= in.size()) return false;
      d = in[k];
    }
    if (d == -1) {
      if (infer >= 0) return false;
      infer = static_cast<int64_t>(k);
      continue;
    }
    if (d < 0) return false;
    shape[k] = d;
    known *= d;
  }
  if (infer >= 0) {
    if (known == 0 || data->size() % known != 0) return false;
    shape[static_cast<size_t>(infer)] = data->size() / known;
  }
  return reshaped(ctx, shape, out);
}

bool eval_flatten(const EvalContext& ctx, Outputs& out) {
  const NDArray* a = ctx.value(0);
  if (!a) return false;
  const int64_t rank = static_cast<int64_t>(a->ndim());
  int64_t axis = IR::get_attr_int(ctx.node, "axis").value_or(1);
  if (axis < -rank || axis > rank) return false;
  if (axis < 0) axis += rank;
  const Shape& s = a->shape();
  const int64_t outer = shape_size(Shape(s.begin(), s.begin() + axis));
  const int64_t inner = shape_size(Shape(s.begin() + axis, s.end()));
  return reshaped(ctx, {outer, inner}, out);
}

bool eval_squeeze(const EvalContext& ctx, Outputs& out) {
  const NDArray* a = ctx.value(0);
  if (!a) return false;
  std::vector<int64_t> axes;
  bool given = false;
  if (!axes_of(ctx, 13, axes, given)) return false;
  const Shape& s = a->shape();
  const int64_t rank = static_cast<int64_t>(s.size());
  std::set<int64_t> drop;
  if (!given) {
    for (int64_t k = 0; k < rank; ++k)
      if (s[static_cast<size_t>(k)] == 1) drop.insert(k);
  }
  for (int64_t ax : axes) {
    if (!normalize_axis(ax, rank) || s[static_cast<size_t>(ax)] != 1) return false;
    drop.insert(ax);
  }
  Shape shape;
  for (int64_t k = 0; k < rank; ++k)
    if (!drop.count(k)) shape.push_back(s[static_cast<size_t>(k)]);
  return reshaped(ctx, shape, out);
}

bool eval_unsqueeze(const EvalContext& ctx, Outputs& out) {
  const NDArray* a = ctx.value(0);
  if (!a) return false;
  std::vector<int64_t> axes;
  bool given = false;
  if (!axes_of(ctx, 13, axes, given) || !given) return false;
  const int64_t rank = static_cast<int64_t>(a->ndim() + axes.size());
  std::set<int64_t> ones;
  for (int64_t ax : axes) {
    if (!normalize_axis(ax, rank) || !ones.insert(ax).second) return false;
  }
  Shape shape;
  auto dim = a->shape().begin();
  for (int64_t k = 0; k < rank; ++k) shape.push_back(ones.count(k) ? 1 : *dim++);
  return reshaped(ctx, shape, out);
}

bool eval_identity(const EvalContext& ctx, Outputs& out) { return reshaped(ctx, ctx.value(0)->shape(), out); }

bool eval_constant(const EvalContext& ctx, Outputs& out) {
  const auto& attrs = ctx.node.attribute();
  if (attrs.size() != 1) return false;
  const Attr& a = attrs[0];
  NDArray v;
  if (a.name == "value" && a.kind == Attr::TENSOR && a.opaque.empty()) {
    v = a.t;
  } else if (a.name == "value_float" && a.kind == Attr::FLOAT) {
    v = NDArray::scalar_f64(a.f, dt::FLOAT);
  } else if (a.name == "value_floats" && a.kind == Attr::FLOATS) {
    v = NDArray::from_f64(std::vector<double>(a.floats.begin(), a.floats.end()),
                          Shape{static_cast<int64_t>(a.floats.size())}, dt::FLOAT);
  } else if (a.name == "value_int" && a.kind == Attr::INT) {
    v = NDArray::scalar_i64(a.i);
  } else if (a.name == "value_ints" && a.kind == Attr::INTS) {
    v = NDArray::from_i64(a.ints);
  } else {
    return false;  // strings and sparse values stay as the model has them
  }
  if (!plain(v.dtype())) return false;
  out.push_back(std::move(v));
  return true;
}

bool eval_constant_of_shape(const EvalContext& ctx, Outputs& out) {
  std::vector<int64_t> dims;
  if (!int_values(ctx.value(0), dims) || ctx.value(0)->ndim() != 1) return false;
  for (int64_t d : dims)
    if (d < 0) return false;
  NDArray fill = NDArray::scalar_f64(0.0, dt::FLOAT);
  if (const Attr* a = IR::get_attr(ctx.node, "value")) {
    if (a->kind != Attr::TENSOR || !a->opaque.empty() || a->t.size() != 1) return false;
    fill = a->t;
  }
  if (!plain(fill.dtype())) return false;
  const Shape shape(dims.begin(), dims.end());
  if (!ctx.budget.fits(shape, fill.dtype())) return false;
  const size_t es = dtype_size(fill.dtype());
  std::vector<uint8_t> raw(static_cast<size_t>(shape_size(shape)) * es);
  for (size_t off = 0; off < raw.size(); off += es) std::copy_n(fill.raw().data(), es, raw.data() + off);
  out.push_back(NDArray(fill.dtype(), shape, std::move(raw)));
  return true;
}

// The runtime's Range: the count from one division in double, then the
// values by repeated addition of delta in the element type (for floats that
// is not start + i * delta, and the difference shows in the last bits).
template <class T>
bool range_of(const NDArray& start_a, const NDArray& limit_a, const NDArray& delta_a, const Budget& budget,
              Outputs& out) {
  const T start = static_cast<T>(std::is_floating_point_v<T> ? start_a.f64_at(0) : start_a.i64_at(0));
  const T limit = static_cast<T>(std::is_floating_point_v<T> ? limit_a.f64_at(0) : limit_a.i64_at(0));
  const T delta = static_cast<T>(std::is_floating_point_v<T> ? delta_a.f64_at(0) : delta_a.i64_at(0));
  if (delta == T(0)) return false;
  double span;
  if constexpr (std::is_floating_point_v<T>) {
    if (!std::isfinite(start) || !std::isfinite(limit) || !std::isfinite(delta)) return false;
    span = static_cast<double>(static_cast<T>(limit - start));
  } else {
    // Integers far from zero would lose digits in double: leave them.
    constexpr int64_t kExact = int64_t(1) << 52;
    for (int64_t v : {static_cast<int64_t>(start), static_cast<int64_t>(limit), static_cast<int64_t>(delta)})
      if (v > kExact || v < -kExact) return false;
    span = static_cast<double>(static_cast<int64_t>(limit) - static_cast<int64_t>(start));
  }
  const double count = std::ceil(span / static_cast<double>(delta));
  const int64_t n = count > 0 ? static_cast<int64_t>(std::min(count, 9.0e15)) : 0;
  const int32_t dtype = start_a.dtype();
  if (!budget.fits(Shape{n}, dtype)) return false;
  std::vector<T> values(static_cast<size_t>(n), delta);
  if (n > 0) values[0] = start;
  std::partial_sum(values.begin(), values.end(), values.begin(), [](T acc, T d) { return static_cast<T>(acc + d); });
  std::vector<uint8_t> raw(values.size() * sizeof(T));
  if (!raw.empty()) std::memcpy(raw.data(), values.data(), raw.size());
  out.push_back(NDArray(dtype, Shape{n}, std::move(raw)));
  return true;
}

bool eval_range(const EvalContext& ctx, Outputs& out) {
  const NDArray *s = ctx.value(0), *l = ctx.value(1), *d = ctx.value(2);
  if (!s || !l || !d || s->size() != 1 || l->size() != 1 || d->size() != 1) return false;
  if (s->dtype() != l->dtype() || s->dtype() != d->dtype()) return false;
  switch (s->dtype()) {
    case dt::FLOAT: return range_of<float>(*s, *l, *d, ctx.budget, out);
    case dt::DOUBLE: return range_of<double>(*s, *l, *d, ctx.budget, out);
    case dt::INT16: return range_of<int16_t>(*s, *l, *d, ctx.budget, out);
    case dt::INT32: return range_of<int32_t>(*s, *l, *d, ctx.budget, out);
    case dt::INT64: return range_of<int64_t>(*s, *l, *d, ctx.budget, out);
    default: return false;
  }
}

}  // namespace

void add_shape_ops(EvaluatorTable& t) {
  t["Shape"] = {eval_shape, Needs::kStaticShape};
  t["Size"] = {eval_size, Needs::kStaticShape};
  t["Reshape"] = {eval_reshape, Needs::kValues};
  t["Flatten"] = {eval_flatten, Needs::kValues};
  t["Squeeze"] = {eval_squeeze, Needs::kValues};
  t["Unsqueeze"] = {eval_unsqueeze, Needs::kValues};
  t["Identity"] = {eval_identity, Needs::kValues};
  t["Constant"] = {eval_constant, Needs::kValues};
  t["ConstantOfShape"] = {eval_constant_of_shape, Needs::kValues};
  t["Range"] = {eval_range, Needs::kValues};
}

}  // namespace fold
}  // namespace tolm
