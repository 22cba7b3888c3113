// Operators that compute on values: Cast and CastLike, element-wise
// arithmetic (Mod too), comparisons and logic, Min and Max, float unary functions and
// the reductions of small tensors.
//
// Integers are computed as the runtime computes them: Add, Sub, Mul, Neg and
// Abs wrap around (done in uint64, where wrapping is defined, then narrowed),
// Div truncates. Where the runtime's result is undefined or an error
// (division by zero, a float cast to an integer it does not fit) the node is
// left as it is. float16 and bfloat16 arithmetic stays in the graph: the
// runtime's rounding steps for them are its own.
#include <cmath>
#include <limits>
#include <type_traits>

#include <xtensor/xarray.hpp>
#include <xtensor/xbroadcast.hpp>
#include <xtensor/xmath.hpp>
#include <xtensor/xoperation.hpp>
#include <xtensor/xreducer.hpp>
#include <xtensor/xsort.hpp>
#include <xtensor/xvectorize.hpp>

#include "fold/evaluate.h"
#include "host/xarray_bridge.h"

namespace tolm {
namespace fold {

namespace {

// Calls f with a value of the C++ type of `dtype`; false for types that are
// not computed on (float16, bfloat16, strings, complex).
template <class F>
bool with_type(int32_t dtype, F&& f) {
  switch (dtype) {
    case dt::FLOAT: return f(float{});
    case dt::DOUBLE: return f(double{});
    case dt::INT8: return f(int8_t{});
    case dt::INT16: return f(int16_t{});
    case dt::INT32: return f(int32_t{});
    case dt::INT64: return f(int64_t{});
    case dt::UINT8: return f(uint8_t{});
    case dt::UINT16: return f(uint16_t{});
    case dt::UINT32: return f(uint32_t{});
    case dt::UINT64: return f(uint64_t{});
    case dt::BOOL: return f(bool{});
    default: return false;
  }
}

template <class T>
constexpr bool is_int_v = std::is_integral_v<T> && !std::is_same_v<T, bool>;

template <class T>
void put(Outputs& out, const xt::xarray<T>& r) {
  out.push_back(from_xarray<T>(r, dtype_of<T>()));
}

bool has_nan(const NDArray& a) {
  if (!dtype_is_float(a.dtype())) return false;
  for (double v : a.to_f64())
    if (std::isnan(v)) return true;
  return false;
}

// The broadcast shape of every present input, checked against the budget
// for a result of element type `dtype`.
bool result_shape(const EvalContext& ctx, int32_t dtype, Shape& shape) {
  shape.clear();
  for (size_t k = 0; k < ctx.in.size(); ++k) {
    const NDArray* a = ctx.value(k);
    if (!a) return false;
    if (!broadcast_shapes(shape, a->shape(), shape)) return false;
  }
  return ctx.budget.fits(shape, dtype);
}

bool same_types(const EvalContext& ctx) {
  for (size_t k = 1; k < ctx.in.size(); ++k)
    if (!ctx.value(k) || ctx.value(k)->dtype() != ctx.value(0)->dtype()) return false;
  return ctx.value(0) != nullptr;
}

// ---- Cast ------------------------------------------------------------------

// A float value fits integer type T once truncated toward zero.
template <class T>
bool fits_int(double v) {
  if (!std::isfinite(v)) return false;
  const double t = std::trunc(v);
  // Both bounds are powers of two, exact in double.
  const double lo = std::is_signed_v<T> ? -std::ldexp(1.0, std::numeric_limits<T>::digits) : 0.0;
  const double hi = std::ldexp(1.0, std::numeric_limits<T>::digits);
  return t >= lo && t < hi;
}

template <class Dst>
bool cast_to(const NDArray& a, Outputs& out) {
  if (dtype_is_float(a.dtype())) {
    // float16 and bfloat16 widen exactly; float and double are read as is.
    const xt::xarray<double> v = to_xarray<double>(a);
    if constexpr (is_int_v<Dst>) {
      for (double x : v)
        if (!fits_int<Dst>(x)) return false;
      put(out, xt::xarray<Dst>(xt::cast<Dst>(xt::trunc(v))));
    } else if constexpr (std::is_same_v<Dst, bool>) {
      put(out, xt::xarray<bool>(xt::not_equal(v, 0.0)));
    } else if (a.dtype() == dt::DOUBLE) {
      put(out, xt::xarray<Dst>(xt::cast<Dst>(v)));
    } else {
      put(out, xt::xarray<Dst>(xt::cast<Dst>(xt::cast<float>(v))));
    }
    return true;
  }
  return with_type(a.dtype(), [&](auto tag) {
    using Src = decltype(tag);
    put(out, xt::xarray<Dst>(xt::cast<Dst>(to_xarray<Src>(a))));
    return true;
  });
}

bool cast(const NDArray& a, int32_t to, const Budget& budget, Outputs& out) {
  if (a.dtype() == dt::STRING || to == dt::STRING || dtype_size(a.dtype()) == 0 || dtype_size(to) == 0) return false;
  if (a.dtype() == dt::COMPLEX64 || a.dtype() == dt::COMPLEX128) return false;
  if (!budget.fits(a.shape(), to)) return false;
  if (a.dtype() == to) {
    out.push_back(a);
    return true;
  }
  if (to == dt::FLOAT16 || to == dt::BFLOAT16) {
    // The runtime goes through float: double -> float -> half.
    Outputs f;
    if (!cast_to<float>(a, f)) return false;
    out.push_back(NDArray::from_f64(f[0].to_f64(), a.shape(), to));
    return true;
  }
  return with_type(to, [&](auto tag) { return cast_to<decltype(tag)>(a, out); });
}

bool eval_cast(const EvalContext& ctx, Outputs& out) {
  auto to = IR::get_attr_int(ctx.node, "to");
  return to && cast(*ctx.value(0), static_cast<int32_t>(*to), ctx.budget, out);
}

bool eval_cast_like(const EvalContext& ctx, Outputs& out) {
  return ctx.in.size() >= 2 && ctx.in[1].dtype != dt::UNDEFINED &&
         cast(*ctx.value(0), ctx.in[1].dtype, ctx.budget, out);
}

// ---- element-wise arithmetic -------------------------------------------------

enum class Arith { kAdd, kSub, kMul, kDiv };

template <class T>
bool arith(Arith op, const NDArray& a, const NDArray& b, Outputs& out) {
  if constexpr (std::is_same_v<T, bool>) {
    return false;
  } else if constexpr (std::is_floating_point_v<T>) {
    const xt::xarray<T> x = to_xarray<T>(a), y = to_xarray<T>(b);
    switch (op) {
      case Arith::kAdd: put(out, xt::xarray<T>(x + y)); break;
      case Arith::kSub: put(out, xt::xarray<T>(x - y)); break;
      case Arith::kMul: put(out, xt::xarray<T>(x * y)); break;
      case Arith::kDiv: put(out, xt::xarray<T>(x / y)); break;
    }
    return true;
  } else {
    const xt::xarray<T> x = to_xarray<T>(a), y = to_xarray<T>(b);
    if (op == Arith::kDiv) {
      if (xt::any(xt::equal(y, T(0)))) return false;
      if constexpr (std::is_signed_v<T>) {
        if (xt::any(xt::equal(x, std::numeric_limits<T>::min()) && xt::equal(y, T(-1)))) return false;
      }
      put(out, xt::xarray<T>(xt::cast<T>(x / y)));
      return true;
    }
    const xt::xarray<uint64_t> ux = xt::cast<uint64_t>(x), uy = xt::cast<uint64_t>(y);
    xt::xarray<uint64_t> r;
    switch (op) {
      case Arith::kAdd: r = ux + uy; break;
      case Arith::kSub: r = ux - uy; break;
      default: r = ux * uy; break;
    }
    put(out, xt::xarray<T>(xt::cast<T>(r)));
    return true;
  }
}

template <Arith op>
bool eval_arith(const EvalContext& ctx, Outputs& out) {
  Shape shape;
  if (ctx.in.size() != 2 || !same_types(ctx) || !result_shape(ctx, ctx.value(0)->dtype(), shape)) return false;
  return with_type(ctx.value(0)->dtype(), [&](auto tag) {
    return arith<decltype(tag)>(op, *ctx.value(0), *ctx.value(1), out);
  });
}

bool eval_pow(const EvalContext& ctx, Outputs& out) {
  const NDArray *a = ctx.value(0), *b = ctx.value(1);
  Shape shape;
  if (!a || !b || !result_shape(ctx, a->dtype(), shape)) return false;
  if (b->dtype() == dt::BOOL || !(dtype_is_integer(b->dtype()) || b->dtype() == dt::FLOAT || b->dtype() == dt::DOUBLE))
    return false;
  const xt::xarray<double> r = xt::pow(to_xarray<double>(*a), to_xarray<double>(*b));
  return with_type(a->dtype(), [&](auto tag) {
    using T = decltype(tag);
    if constexpr (std::is_same_v<T, bool>) {
      return false;
    } else if constexpr (std::is_floating_point_v<T>) {
      put(out, xt::xarray<T>(xt::cast<T>(r)));
      return true;
    } else {
      // An integer power the runtime computes in double and converts back:
      // only results that fit come out the same.
      for (double v : r)
        if (!fits_int<T>(v)) return false;
      put(out, xt::xarray<T>(xt::cast<T>(r)));
      return true;
    }
  });
}

// Mod: for integers the remainder takes the divisor's sign unless fmod is
// set (then the dividend's, as C's %); floats need fmod and get C's fmod.
bool eval_mod(const EvalContext& ctx, Outputs& out) {
  Shape shape;
  if (ctx.in.size() != 2 || !same_types(ctx) || !result_shape(ctx, ctx.value(0)->dtype(), shape)) return false;
  const bool fmod = IR::get_attr_int(ctx.node, "fmod").value_or(0) != 0;
  return with_type(ctx.value(0)->dtype(), [&](auto tag) {
    using T = decltype(tag);
    if constexpr (std::is_same_v<T, bool>) {
      return false;
    } else if constexpr (std::is_floating_point_v<T>) {
      if (!fmod) return false;
      put(out, xt::xarray<T>(xt::fmod(to_xarray<T>(*ctx.value(0)), to_xarray<T>(*ctx.value(1)))));
      return true;
    } else {
      const xt::xarray<T> x = to_xarray<T>(*ctx.value(0)), y = to_xarray<T>(*ctx.value(1));
      if (xt::any(xt::equal(y, T(0)))) return false;
      if constexpr (std::is_signed_v<T>) {
        if (xt::any(xt::equal(x, std::numeric_limits<T>::min()) && xt::equal(y, T(-1)))) return false;
      }
      xt::xarray<T> r = xt::cast<T>(x % y);
      if (!fmod) r = xt::where(xt::not_equal(r, T(0)) && xt::not_equal(r < T(0), y < T(0)), xt::cast<T>(r + y), r);
      put(out, r);
      return true;
    }
  });
}

template <bool is_max>
bool eval_min_max(const EvalContext& ctx, Outputs& out) {
  Shape shape;
  if (ctx.in.empty() || !same_types(ctx) || !result_shape(ctx, ctx.value(0)->dtype(), shape)) return false;
  for (size_t k = 0; k < ctx.in.size(); ++k)
    if (has_nan(*ctx.value(k))) return false;  // NaN rules differ between kernels
  return with_type(ctx.value(0)->dtype(), [&](auto tag) {
    using T = decltype(tag);
    if constexpr (std::is_same_v<T, bool>) {
      return false;
    } else {
      xt::xarray<T> r = to_xarray<T>(*ctx.value(0));
      for (size_t k = 1; k < ctx.in.size(); ++k) {
        const xt::xarray<T> x = to_xarray<T>(*ctx.value(k));
        r = is_max ? xt::xarray<T>(xt::maximum(r, x)) : xt::xarray<T>(xt::minimum(r, x));
      }
      put(out, r);
      return true;
    }
  });
}

// ---- comparisons and logic -------------------------------------------------

enum class Cmp { kEq, kLt, kGt, kLe, kGe };

template <Cmp op>
bool eval_compare(const EvalContext& ctx, Outputs& out) {
  Shape shape;
  if (ctx.in.size() != 2 || !same_types(ctx) || !result_shape(ctx, dt::BOOL, shape)) return false;
  return with_type(ctx.value(0)->dtype(), [&](auto tag) {
    using T = decltype(tag);
    const xt::xarray<T> x = to_xarray<T>(*ctx.value(0)), y = to_xarray<T>(*ctx.value(1));
    xt::xarray<bool> r;
    switch (op) {
      case Cmp::kEq: r = xt::equal(x, y); break;
      case Cmp::kLt: r = x < y; break;
      case Cmp::kGt: r = x > y; break;
      case Cmp::kLe: r = x <= y; break;
      case Cmp::kGe: r = x >= y; break;
    }
    put(out, r);
    return true;
  });
}

enum class Logic { kAnd, kOr, kXor };

template <Logic op>
bool eval_logic(const EvalContext& ctx, Outputs& out) {
  Shape shape;
  if (ctx.in.size() != 2 || !same_types(ctx) || ctx.value(0)->dtype() != dt::BOOL ||
      !result_shape(ctx, dt::BOOL, shape))
    return false;
  const xt::xarray<bool> x = to_xarray<bool>(*ctx.value(0)), y = to_xarray<bool>(*ctx.value(1));
  switch (op) {
    case Logic::kAnd: put(out, xt::xarray<bool>(x && y)); break;
    case Logic::kOr: put(out, xt::xarray<bool>(x || y)); break;
    case Logic::kXor: put(out, xt::xarray<bool>(xt::not_equal(x, y))); break;
  }
  return true;
}

bool eval_not(const EvalContext& ctx, Outputs& out) {
  const NDArray* a = ctx.value(0);
  if (!a || a->dtype() != dt::BOOL || !ctx.budget.fits(a->shape(), dt::BOOL)) return false;
  put(out, xt::xarray<bool>(!to_xarray<bool>(*a)));
  return true;
}

// ---- unary -------------------------------------------------------------------

enum class Unary { kNeg, kAbs, kSign, kRelu, kFloor, kCeil, kSqrt, kReciprocal, kExp, kLog, kTanh, kSigmoid, kErf };

template <class T>
bool unary(Unary op, const NDArray& a, Outputs& out) {
  if constexpr (std::is_same_v<T, bool>) {
    return false;
  } else if constexpr (std::is_floating_point_v<T>) {
    const xt::xarray<T> x = to_xarray<T>(a);
    xt::xarray<T> r;
    switch (op) {
      case Unary::kNeg: r = -x; break;
      case Unary::kAbs: r = xt::abs(x); break;
      case Unary::kSign: r = xt::sign(x); break;
      case Unary::kRelu: r = xt::where(x < T(0), T(0), x); break;  // NaN stays NaN, as the runtime has it
      case Unary::kFloor: r = xt::floor(x); break;
      case Unary::kCeil: r = xt::ceil(x); break;
      case Unary::kSqrt: r = xt::sqrt(x); break;
      case Unary::kReciprocal: r = T(1) / x; break;
      case Unary::kExp: r = xt::exp(x); break;
      case Unary::kLog: r = xt::log(x); break;
      case Unary::kTanh: r = xt::tanh(x); break;
      case Unary::kSigmoid: r = T(1) / (T(1) + xt::exp(-x)); break;
      case Unary::kErf: r = xt::erf(x); break;
    }
    put(out, r);
    return true;
  } else {
    const xt::xarray<T> x = to_xarray<T>(a);
    const xt::xarray<uint64_t> ux = xt::cast<uint64_t>(x);
    switch (op) {
      case Unary::kNeg:
        if (!std::is_signed_v<T>) return false;
        put(out, xt::xarray<T>(xt::cast<T>(uint64_t(0) - ux)));
        return true;
      case Unary::kAbs:
        put(out, xt::xarray<T>(xt::cast<T>(xt::where(x < T(0), uint64_t(0) - ux, ux))));
        return true;
      case Unary::kSign:
        put(out, xt::xarray<T>(xt::cast<T>(xt::where(x > T(0), 1, xt::where(x < T(0), -1, 0)))));
        return true;
      case Unary::kRelu:
        put(out, xt::xarray<T>(xt::where(x > T(0), x, T(0))));
        return true;
      default:
        return false;
    }
  }
}

template <Unary op>
bool eval_unary(const EvalContext& ctx, Outputs& out) {
  const NDArray* a = ctx.value(0);
  if (!a || !ctx.budget.fits(a->shape(), a->dtype())) return false;
  return with_type(a->dtype(), [&](auto tag) { return unary<decltype(tag)>(op, *a, out); });
}

// ---- reductions ------------------------------------------------------------------

// Reductions fold only for small inputs: they shrink data, and a large one
// is real work of the model rather than shape arithmetic.
constexpr int64_t kMaxReduceElements = int64_t(1) << 16;

enum class Reduce { kSum, kProd, kMin, kMax, kMean };

template <Reduce op>
bool eval_reduce(const EvalContext& ctx, Outputs& out) {
  const NDArray* a = ctx.value(0);
  if (!a || a->size() > kMaxReduceElements) return false;
  const std::string& type = ctx.node.op_type();
  // `axes` moved from attribute to input: ReduceSum at 13, the others at 18.
  const int64_t axes_input_from = type == "ReduceSum" ? 13 : 18;
  std::vector<int64_t> axes;
  bool given = false;
  if (ctx.opset < axes_input_from) {
    if (auto v = IR::get_attr_ints(ctx.node, "axes")) {
      axes = *v;
      given = true;
    }
  } else if (ctx.present(1)) {
    if (!int_values(ctx.value(1), axes)) return false;
    given = true;
  }
  const bool keepdims = IR::get_attr_int(ctx.node, "keepdims").value_or(1) != 0;
  const bool noop = IR::get_attr_int(ctx.node, "noop_with_empty_axes").value_or(0) != 0;
  const int64_t rank = static_cast<int64_t>(a->ndim());
  if (axes.empty() && noop && (given || ctx.opset >= axes_input_from)) {
    out.push_back(*a);
    return true;
  }
  std::vector<bool> reduced(static_cast<size_t>(rank), axes.empty());
  for (int64_t ax : axes) {
    if (!normalize_axis(ax, rank)) return false;
    reduced[static_cast<size_t>(ax)] = true;
  }
  std::vector<size_t> over;
  Shape shape;
  for (int64_t k = 0; k < rank; ++k) {
    const size_t u = static_cast<size_t>(k);
    if (reduced[u]) {
      over.push_back(u);
      if ((op == Reduce::kMin || op == Reduce::kMax || op == Reduce::kMean) && a->shape()[u] == 0) return false;
      if (keepdims) shape.push_back(1);
    } else {
      shape.push_back(a->shape()[u]);
    }
  }
  if ((op == Reduce::kMin || op == Reduce::kMax) && has_nan(*a)) return false;
  return with_type(a->dtype(), [&](auto tag) {
    using T = decltype(tag);
    if constexpr (std::is_same_v<T, bool>) {
      return false;
    } else {
      xt::xarray<T> r;
      if constexpr (op == Reduce::kMin || op == Reduce::kMax) {
        const xt::xarray<T> x = to_xarray<T>(*a);
        r = op == Reduce::kMin ? xt::xarray<T>(xt::amin(x, over)) : xt::xarray<T>(xt::amax(x, over));
      } else if constexpr (std::is_floating_point_v<T>) {
        // Summed in double and rounded once: within float rounding of the
        // runtime's own order of summation.
        const xt::xarray<double> x = to_xarray<double>(*a);
        xt::xarray<double> d;
        if (op == Reduce::kProd) d = xt::prod(x, over);
        else d = xt::sum(x, over);
        if (op == Reduce::kMean) d /= static_cast<double>(a->size() / std::max<int64_t>(1, shape_size(shape)));
        r = xt::cast<T>(d);
      } else {
        if (op == Reduce::kMean) return false;
        // The runtime's integer reductions may go through double, and what
        // they do past its 53 bits (or on overflow) is theirs: only results
        // every way of summing gets exactly fold.
        const xt::xarray<double> mag = xt::abs(to_xarray<double>(*a));
        const xt::xarray<double> bound = op == Reduce::kProd ? xt::xarray<double>(xt::prod(mag, over))
                                                             : xt::xarray<double>(xt::sum(mag, over));
        const int bits = std::min(std::numeric_limits<T>::digits - 1, 53);
        if (xt::any(bound >= std::ldexp(1.0, bits))) return false;
        const xt::xarray<uint64_t> x = xt::cast<uint64_t>(to_xarray<T>(*a));
        const xt::xarray<uint64_t> u = op == Reduce::kProd ? xt::xarray<uint64_t>(xt::prod<uint64_t>(x, over))
                                                           : xt::xarray<uint64_t>(xt::sum<uint64_t>(x, over));
        r = xt::cast<T>(u);
      }
      r.reshape(std::vector<size_t>(shape.begin(), shape.end()));
      put(out, r);
      return true;
    }
  });
}

}  // namespace

void add_math_ops(EvaluatorTable& t) {
  t["Cast"] = {eval_cast, Needs::kValues};
  t["CastLike"] = {eval_cast_like, Needs::kFirstValue};
  t["Add"] = {eval_arith<Arith::kAdd>, Needs::kValues};
  t["Sub"] = {eval_arith<Arith::kSub>, Needs::kValues};
  t["Mul"] = {eval_arith<Arith::kMul>, Needs::kValues};
  t["Div"] = {eval_arith<Arith::kDiv>, Needs::kValues};
  t["Pow"] = {eval_pow, Needs::kValues};
  t["Mod"] = {eval_mod, Needs::kValues};
  t["Min"] = {eval_min_max<false>, Needs::kValues};
  t["Max"] = {eval_min_max<true>, Needs::kValues};
  t["Equal"] = {eval_compare<Cmp::kEq>, Needs::kValues};
  t["Less"] = {eval_compare<Cmp::kLt>, Needs::kValues};
  t["Greater"] = {eval_compare<Cmp::kGt>, Needs::kValues};
  t["LessOrEqual"] = {eval_compare<Cmp::kLe>, Needs::kValues};
  t["GreaterOrEqual"] = {eval_compare<Cmp::kGe>, Needs::kValues};
  t["And"] = {eval_logic<Logic::kAnd>, Needs::kValues};
  t["Or"] = {eval_logic<Logic::kOr>, Needs::kValues};
  t["Xor"] = {eval_logic<Logic::kXor>, Needs::kValues};
  t["Not"] = {eval_not, Needs::kValues};
  t["Neg"] = {eval_unary<Unary::kNeg>, Needs::kValues};
  t["Abs"] = {eval_unary<Unary::kAbs>, Needs::kValues};
  t["Sign"] = {eval_unary<Unary::kSign>, Needs::kValues};
  t["Relu"] = {eval_unary<Unary::kRelu>, Needs::kValues};
  t["Floor"] = {eval_unary<Unary::kFloor>, Needs::kValues};
  t["Ceil"] = {eval_unary<Unary::kCeil>, Needs::kValues};
  t["Sqrt"] = {eval_unary<Unary::kSqrt>, Needs::kValues};
  t["Reciprocal"] = {eval_unary<Unary::kReciprocal>, Needs::kValues};
  t["Exp"] = {eval_unary<Unary::kExp>, Needs::kValues};
  t["Log"] = {eval_unary<Unary::kLog>, Needs::kValues};
  t["Tanh"] = {eval_unary<Unary::kTanh>, Needs::kValues};
  t["Sigmoid"] = {eval_unary<Unary::kSigmoid>, Needs::kValues};
  t["Erf"] = {eval_unary<Unary::kErf>, Needs::kValues};
  t["ReduceSum"] = {eval_reduce<Reduce::kSum>, Needs::kValues};
  t["ReduceProd"] = {eval_reduce<Reduce::kProd>, Needs::kValues};
  t["ReduceMin"] = {eval_reduce<Reduce::kMin>, Needs::kValues};
  t["ReduceMax"] = {eval_reduce<Reduce::kMax>, Needs::kValues};
  t["ReduceMean"] = {eval_reduce<Reduce::kMean>, Needs::kValues};
}

}  // namespace fold
}  // namespace tolm
