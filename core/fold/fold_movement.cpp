// Operators that move data without computing on it: Transpose, Expand,
// Tile, Concat, Slice, Split, Gather, GatherElements, Pad, Trilu, Where and
// NonZero.
//
// Each is worked out once, on positions: an int64 array that numbers the
// input's elements 0, 1, 2, ... in its shape. The array library applies the
// operator to the positions, and the result's bytes are then read from the
// input at the positions that come out. So one evaluation serves every
// element type, float16 and bool included, and values are copied bit for
// bit. A position of -1 marks an element the operator fills in (Pad's
// constant, Trilu's zeros).
#include <algorithm>
#include <cstring>

#include <xtensor/xadapt.hpp>
#include <xtensor/xarray.hpp>
#include <xtensor/xbroadcast.hpp>
#include <xtensor/xbuilder.hpp>
#include <xtensor/xdynamic_view.hpp>
#include <xtensor/xmanipulation.hpp>
#include <xtensor/xoperation.hpp>
#include <xtensor/xpad.hpp>
#include <xtensor/xsort.hpp>
#include <xtensor/xstrided_view.hpp>

#include "fold/evaluate.h"
#include "host/xarray_bridge.h"

namespace tolm {
namespace fold {

namespace {

using Pos = xt::xarray<int64_t>;

std::vector<size_t> dims_of(const Shape& s) { return std::vector<size_t>(s.begin(), s.end()); }

Shape shape_of(const Pos& p) { return Shape(p.shape().begin(), p.shape().end()); }

bool movable(const NDArray* a) { return a && a->dtype() != dt::STRING && dtype_size(a->dtype()) != 0; }

// Positions base, base + 1, ... laid out in `shape`.
Pos positions(const Shape& shape, int64_t base = 0) {
  Pos p = xt::arange<int64_t>(base, base + shape_size(shape));
  p.reshape(dims_of(shape));
  return p;
}

// The result whose element k is element pos[k] of the sources laid end to
// end, or the fill value (zero bytes without one) where pos[k] is -1.
NDArray take(const Pos& pos, const std::vector<const NDArray*>& sources, int32_t dtype,
             const NDArray* fill = nullptr) {
  const size_t es = dtype_size(dtype);
  std::vector<const uint8_t*> base;  // the source of each position range
  std::vector<int64_t> ends;
  int64_t total = 0;
  for (const NDArray* s : sources) {
    total += s->size();
    ends.push_back(total);
    base.push_back(s->raw().data());
  }
  std::vector<uint8_t> raw(pos.size() * es, 0);
  const uint8_t* fill_bytes = fill ? fill->raw().data() : nullptr;
  uint8_t* dst = raw.data();
  for (const int64_t p : pos) {
    if (p < 0) {
      if (fill_bytes) std::memcpy(dst, fill_bytes, es);
    } else {
      const size_t k = static_cast<size_t>(std::upper_bound(ends.begin(), ends.end(), p) - ends.begin());
      const int64_t local = p - (k == 0 ? 0 : ends[k - 1]);
      std::memcpy(dst, base[k] + static_cast<size_t>(local) * es, es);
    }
    dst += es;
  }
  return NDArray(dtype, shape_of(pos), std::move(raw));
}

// An empty result of that shape, when the shape holds no element.
bool empty_result(const Shape& shape, int32_t dtype, Outputs& out) {
  if (shape_size(shape) != 0) return false;
  out.push_back(NDArray(dtype, shape, {}));
  return true;
}

// The positions of `p` along `axis` picked by `index` (any order, repeats
// allowed), as a dynamic view made concrete.
Pos pick(const Pos& p, size_t axis, const std::vector<int64_t>& index) {
  xt::xdynamic_slice_vector sv(p.dimension(), xt::all());
  sv[axis] = xt::keep(index);
  return xt::dynamic_view(p, sv);
}

// ---- Transpose, Expand, Tile ------------------------------------------------

bool eval_transpose(const EvalContext& ctx, Outputs& out) {
  const NDArray* a = ctx.value(0);
  if (!movable(a)) return false;
  const size_t rank = a->ndim();
  std::vector<int64_t> perm(rank);
  for (size_t k = 0; k < rank; ++k) perm[k] = static_cast<int64_t>(rank - 1 - k);
  if (auto p = IR::get_attr_ints(ctx.node, "perm")) perm = *p;
  if (perm.size() != rank) return false;
  std::vector<size_t> order;
  std::vector<bool> seen(rank, false);
  Shape shape;
  for (int64_t p : perm) {
    if (p < 0 || p >= static_cast<int64_t>(rank) || seen[static_cast<size_t>(p)]) return false;
    seen[static_cast<size_t>(p)] = true;
    order.push_back(static_cast<size_t>(p));
    shape.push_back(a->shape()[static_cast<size_t>(p)]);
  }
  if (!ctx.budget.fits(shape, a->dtype())) return false;
  if (empty_result(shape, a->dtype(), out)) return true;
  out.push_back(take(xt::transpose(positions(a->shape()), order), {a}, a->dtype()));
  return true;
}

bool eval_expand(const EvalContext& ctx, Outputs& out) {
  const NDArray* a = ctx.value(0);
  std::vector<int64_t> target;
  if (!movable(a) || !int_values(ctx.value(1), target) || ctx.value(1)->ndim() != 1) return false;
  Shape shape;
  if (!broadcast_shapes(a->shape(), Shape(target.begin(), target.end()), shape)) return false;
  for (int64_t d : shape)
    if (d < 0) return false;
  if (!ctx.budget.fits(shape, a->dtype())) return false;
  if (empty_result(shape, a->dtype(), out)) return true;
  const Pos p = xt::broadcast(positions(a->shape()), dims_of(shape));
  out.push_back(take(p, {a}, a->dtype()));
  return true;
}

bool eval_tile(const EvalContext& ctx, Outputs& out) {
  const NDArray* a = ctx.value(0);
  std::vector<int64_t> reps;
  if (!movable(a) || !int_values(ctx.value(1), reps) || reps.size() != a->ndim() || a->ndim() == 0) return false;
  Shape shape = a->shape();
  for (size_t k = 0; k < reps.size(); ++k) {
    if (reps[k] < 0) return false;
    shape[k] *= reps[k];
  }
  if (!ctx.budget.fits(shape, a->dtype())) return false;
  if (empty_result(shape, a->dtype(), out)) return true;
  std::vector<size_t> r(reps.begin(), reps.end());
  out.push_back(take(xt::tile(positions(a->shape()), r), {a}, a->dtype()));
  return true;
}

// ---- Concat, Slice, Split ---------------------------------------------------

bool eval_concat(const EvalContext& ctx, Outputs& out) {
  std::vector<const NDArray*> parts;
  for (size_t k = 0; k < ctx.in.size(); ++k) {
    const NDArray* a = ctx.value(k);
    if (!movable(a)) return false;
    parts.push_back(a);
  }
  if (parts.empty()) return false;
  const int32_t dtype = parts[0]->dtype();
  const int64_t rank = static_cast<int64_t>(parts[0]->ndim());
  int64_t axis = IR::get_attr_int(ctx.node, "axis").value_or(0);
  if (rank == 0 || !normalize_axis(axis, rank)) return false;
  Shape shape = parts[0]->shape();
  shape[static_cast<size_t>(axis)] = 0;
  for (const NDArray* a : parts) {
    if (a->dtype() != dtype || static_cast<int64_t>(a->ndim()) != rank) return false;
    for (int64_t d = 0; d < rank; ++d)
      if (d != axis && a->shape()[static_cast<size_t>(d)] != shape[static_cast<size_t>(d)]) return false;
    shape[static_cast<size_t>(axis)] += a->shape()[static_cast<size_t>(axis)];
  }
  if (!ctx.budget.fits(shape, dtype)) return false;
  if (empty_result(shape, dtype, out)) return true;
  Pos p(dims_of(shape));
  int64_t base = 0, offset = 0;
  for (const NDArray* a : parts) {
    const int64_t n = a->shape()[static_cast<size_t>(axis)];
    if (a->size() > 0) {
      xt::xstrided_slice_vector sv(static_cast<size_t>(rank), xt::all());
      sv[static_cast<size_t>(axis)] = xt::range(offset, offset + n);
      xt::strided_view(p, sv) = positions(a->shape(), base);
    }
    offset += n;
    base += a->size();
  }
  out.push_back(take(p, parts, dtype));
  return true;
}

// One axis of a slice: the positions taken along it, in order, after the
// operator's clamping of start and end to the axis.
std::vector<int64_t> slice_index(int64_t dim, int64_t start, int64_t end, int64_t step) {
  int64_t n = 0;
  if (step > 0) {
    start = start < 0 ? std::max<int64_t>(0, start + dim) : std::min(start, dim);
    end = end < 0 ? std::max<int64_t>(0, end + dim) : std::min(end, dim);
    if (end > start) n = (end - start - 1) / step + 1;
  } else {
    start = start < 0 ? std::max<int64_t>(-1, start + dim) : std::min(start, dim - 1);
    end = end < 0 ? std::max<int64_t>(-1, end + dim) : std::min(end, dim - 1);
    // Any step longer than the axis takes one element; keep -step defined.
    const int64_t back = step < -dim - 1 ? dim + 1 : -step;
    if (start > end) n = (start - end - 1) / back + 1;
    step = -back;
  }
  const Pos index = xt::arange<int64_t>(n) * step + start;
  return std::vector<int64_t>(index.begin(), index.end());
}

// Positions of `a` sliced along the given axes; false for invalid operands.
bool sliced(const EvalContext& ctx, const NDArray& a, const std::vector<int64_t>& starts,
            const std::vector<int64_t>& ends, std::vector<int64_t> axes, std::vector<int64_t> steps,
            Outputs& out) {
  const int64_t rank = static_cast<int64_t>(a.ndim());
  if (axes.empty())
    for (int64_t k = 0; k < static_cast<int64_t>(starts.size()); ++k) axes.push_back(k);
  if (steps.empty()) steps.assign(starts.size(), 1);
  if (ends.size() != starts.size() || axes.size() != starts.size() || steps.size() != starts.size()) return false;
  std::vector<std::vector<int64_t>> index(static_cast<size_t>(rank));
  std::vector<bool> cut(static_cast<size_t>(rank), false);
  Shape shape = a.shape();
  for (size_t k = 0; k < starts.size(); ++k) {
    int64_t ax = axes[k];
    if (!normalize_axis(ax, rank) || cut[static_cast<size_t>(ax)] || steps[k] == 0) return false;
    cut[static_cast<size_t>(ax)] = true;
    index[static_cast<size_t>(ax)] = slice_index(shape[static_cast<size_t>(ax)], starts[k], ends[k], steps[k]);
    shape[static_cast<size_t>(ax)] = static_cast<int64_t>(index[static_cast<size_t>(ax)].size());
  }
  if (!ctx.budget.fits(shape, a.dtype())) return false;
  if (empty_result(shape, a.dtype(), out)) return true;
  Pos p = positions(a.shape());
  for (size_t ax = 0; ax < cut.size(); ++ax)
    if (cut[ax]) p = pick(p, ax, index[ax]);
  out.push_back(take(p, {&a}, a.dtype()));
  return true;
}

bool eval_slice(const EvalContext& ctx, Outputs& out) {
  const NDArray* a = ctx.value(0);
  if (!movable(a)) return false;
  std::vector<int64_t> starts, ends, axes, steps;
  if (ctx.opset < 10) {
    auto s = IR::get_attr_ints(ctx.node, "starts");
    auto e = IR::get_attr_ints(ctx.node, "ends");
    if (!s || !e) return false;
    starts = *s;
    ends = *e;
    if (auto ax = IR::get_attr_ints(ctx.node, "axes")) axes = *ax;
  } else {
    if (!int_values(ctx.value(1), starts) || !int_values(ctx.value(2), ends)) return false;
    if (ctx.present(3) && !int_values(ctx.value(3), axes)) return false;
    if (ctx.present(4) && !int_values(ctx.value(4), steps)) return false;
  }
  return sliced(ctx, *a, starts, ends, axes, steps, out);
}

bool eval_split(const EvalContext& ctx, Outputs& out) {
  const NDArray* a = ctx.value(0);
  if (!movable(a) || a->ndim() == 0) return false;
  const int64_t rank = static_cast<int64_t>(a->ndim());
  int64_t axis = IR::get_attr_int(ctx.node, "axis").value_or(0);
  if (!normalize_axis(axis, rank)) return false;
  const int64_t dim = a->shape()[static_cast<size_t>(axis)];
  const int64_t n_out = static_cast<int64_t>(ctx.node.output.size());
  std::vector<int64_t> lengths;
  if (ctx.opset >= 13 && ctx.present(1)) {
    if (!int_values(ctx.value(1), lengths)) return false;
  } else if (auto s = IR::get_attr_ints(ctx.node, "split")) {
    lengths = *s;
  } else {
    // Equal parts; from opset 18 `num_outputs` may leave a smaller last one.
    const int64_t parts = IR::get_attr_int(ctx.node, "num_outputs").value_or(n_out);
    if (parts <= 0 || parts != n_out) return false;
    const int64_t chunk = ctx.opset >= 18 && IR::get_attr_int(ctx.node, "num_outputs") ? (dim + parts - 1) / parts
                                                                                        : dim / parts;
    if (ctx.opset < 18 && dim % parts != 0) return false;
    for (int64_t k = 0; k < parts; ++k) lengths.push_back(std::max<int64_t>(0, std::min(chunk, dim - k * chunk)));
  }
  if (static_cast<int64_t>(lengths.size()) != n_out) return false;
  int64_t sum = 0;
  for (int64_t l : lengths) {
    if (l < 0) return false;
    sum += l;
  }
  if (sum != dim) return false;
  int64_t start = 0;
  for (int64_t l : lengths) {
    if (!sliced(ctx, *a, {start}, {start + l}, {axis}, {1}, out)) return false;
    start += l;
  }
  return true;
}

// ---- Gather, GatherElements ---------------------------------------------------

// Indices made non-negative; false if one is out of [-dim, dim).
bool index_values(const NDArray* idx, int64_t dim, std::vector<int64_t>& out) {
  if (!int_values(idx, out)) return false;
  for (int64_t& i : out) {
    if (i < -dim || i >= dim) return false;
    if (i < 0) i += dim;
  }
  return true;
}

bool eval_gather(const EvalContext& ctx, Outputs& out) {
  const NDArray* a = ctx.value(0);
  const NDArray* idx = ctx.value(1);
  if (!movable(a) || !idx || a->ndim() == 0) return false;
  const int64_t rank = static_cast<int64_t>(a->ndim());
  int64_t axis = IR::get_attr_int(ctx.node, "axis").value_or(0);
  if (!normalize_axis(axis, rank)) return false;
  const Shape& s = a->shape();
  std::vector<int64_t> index;
  if (!index_values(idx, s[static_cast<size_t>(axis)], index)) return false;
  Shape shape(s.begin(), s.begin() + axis);
  shape.insert(shape.end(), idx->shape().begin(), idx->shape().end());
  shape.insert(shape.end(), s.begin() + axis + 1, s.end());
  if (!ctx.budget.fits(shape, a->dtype())) return false;
  if (empty_result(shape, a->dtype(), out)) return true;
  Pos p = pick(positions(s), static_cast<size_t>(axis), index);
  p.reshape(dims_of(shape));
  out.push_back(take(p, {a}, a->dtype()));
  return true;
}

bool eval_gather_elements(const EvalContext& ctx, Outputs& out) {
  const NDArray* a = ctx.value(0);
  const NDArray* idx = ctx.value(1);
  if (!movable(a) || !idx || a->ndim() == 0 || idx->ndim() != a->ndim()) return false;
  const int64_t rank = static_cast<int64_t>(a->ndim());
  int64_t axis = IR::get_attr_int(ctx.node, "axis").value_or(0);
  if (!normalize_axis(axis, rank)) return false;
  const Shape& s = a->shape();
  const Shape& is = idx->shape();
  for (int64_t d = 0; d < rank; ++d)
    if (d != axis && is[static_cast<size_t>(d)] > s[static_cast<size_t>(d)]) return false;
  std::vector<int64_t> index;
  if (!index_values(idx, s[static_cast<size_t>(axis)], index)) return false;
  if (!ctx.budget.fits(is, a->dtype())) return false;
  if (empty_result(is, a->dtype(), out)) return true;
  // Flat source position: every coordinate of the result times the input's
  // stride, except along `axis`, where the index stands in for it.
  Pos p = xt::adapt(index, dims_of(is));
  int64_t stride = 1;
  for (int64_t d = rank - 1; d >= 0; --d) {
    if (d == axis) {
      p *= stride;
      break;
    }
    stride *= s[static_cast<size_t>(d)];
  }
  stride = 1;
  for (int64_t d = rank - 1; d >= 0; --d) {
    if (d != axis) {
      std::vector<size_t> along(static_cast<size_t>(rank), 1);
      along[static_cast<size_t>(d)] = static_cast<size_t>(is[static_cast<size_t>(d)]);
      Pos coord = xt::arange<int64_t>(is[static_cast<size_t>(d)]) * stride;
      coord.reshape(along);
      p += coord;
    }
    stride *= s[static_cast<size_t>(d)];
  }
  out.push_back(take(p, {a}, a->dtype()));
  return true;
}

// ---- Pad, Trilu, Where, NonZero -------------------------------------------------

bool eval_pad(const EvalContext& ctx, Outputs& out) {
  const NDArray* a = ctx.value(0);
  if (!movable(a)) return false;
  const int64_t rank = static_cast<int64_t>(a->ndim());
  std::string mode = IR::get_attr_str(ctx.node, "mode").value_or("constant");
  std::vector<int64_t> pads, axes;
  NDArray fill(a->dtype(), Shape{}, std::vector<uint8_t>(dtype_size(a->dtype()), 0));
  if (ctx.opset < 11) {
    auto p = IR::get_attr_ints(ctx.node, "pads");
    if (!p) return false;
    pads = *p;
    const double v = IR::get_attr_float(ctx.node, "value").value_or(0.0f);
    if (v != 0.0) fill = NDArray::scalar_f64(v, a->dtype());
  } else {
    if (!int_values(ctx.value(1), pads)) return false;
    if (ctx.present(2)) {
      const NDArray* v = ctx.value(2);
      if (!v || v->dtype() != a->dtype() || v->size() != 1) return false;
      fill = v->reshaped(Shape{});
    }
    if (ctx.present(3) && !int_values(ctx.value(3), axes)) return false;
  }
  if (axes.empty())
    for (int64_t k = 0; k < rank; ++k) axes.push_back(k);
  if (pads.size() != 2 * axes.size()) return false;
  std::vector<int64_t> before(static_cast<size_t>(rank), 0), after(static_cast<size_t>(rank), 0);
  for (size_t k = 0; k < axes.size(); ++k) {
    int64_t ax = axes[k];
    if (!normalize_axis(ax, rank)) return false;
    before[static_cast<size_t>(ax)] = pads[k];
    after[static_cast<size_t>(ax)] = pads[k + axes.size()];
  }
  // Negative pads crop first.
  Pos p = positions(a->shape());
  Shape shape = a->shape();
  for (int64_t ax = 0; ax < rank; ++ax) {
    const size_t u = static_cast<size_t>(ax);
    const int64_t lo = std::max<int64_t>(0, -before[u]), hi = std::max<int64_t>(0, -after[u]);
    if (lo + hi > shape[u]) return false;
    if (lo == 0 && hi == 0) continue;
    std::vector<int64_t> keep(static_cast<size_t>(shape[u] - lo - hi));
    for (size_t i = 0; i < keep.size(); ++i) keep[i] = lo + static_cast<int64_t>(i);
    shape[u] -= lo + hi;
    if (shape_size(shape) == 0) break;
    p = pick(p, u, keep);
  }
  Shape out_shape = shape;
  for (size_t u = 0; u < shape.size(); ++u) out_shape[u] += std::max<int64_t>(0, before[u]) + std::max<int64_t>(0, after[u]);
  if (!ctx.budget.fits(out_shape, a->dtype())) return false;
  if (empty_result(out_shape, a->dtype(), out)) return true;
  if (shape_size(shape) == 0) {
    // Nothing left to reflect or repeat: only a constant fills the result.
    if (mode != "constant") return false;
    out.push_back(take(xt::full_like(Pos(dims_of(out_shape)), int64_t(-1)), {a}, a->dtype(), &fill));
    return true;
  }
  if (mode == "constant") {
    std::vector<std::vector<size_t>> width;
    for (size_t u = 0; u < shape.size(); ++u)
      width.push_back({static_cast<size_t>(std::max<int64_t>(0, before[u])), static_cast<size_t>(std::max<int64_t>(0, after[u]))});
    out.push_back(take(xt::pad(p, width, xt::pad_mode::constant, int64_t(-1)), {a}, a->dtype(), &fill));
    return true;
  }
  if (mode != "reflect" && mode != "edge" && mode != "wrap") return false;
  for (int64_t ax = 0; ax < rank; ++ax)
    if (before[static_cast<size_t>(ax)] < 0 || after[static_cast<size_t>(ax)] < 0) return false;
  // Other modes read each padded coordinate j in [-before, dim + after)
  // from a coordinate inside the axis.
  for (size_t u = 0; u < shape.size(); ++u) {
    const int64_t b = std::max<int64_t>(0, before[u]), e = std::max<int64_t>(0, after[u]), d = shape[u];
    if (b == 0 && e == 0) continue;
    if (mode == "reflect" && (d < 2 || b > d - 1 || e > d - 1)) return false;
    if (mode == "wrap" && (b > d || e > d)) return false;
    const Pos j = xt::arange<int64_t>(-b, d + e);
    Pos from;
    if (mode == "edge") from = xt::clip(j, int64_t(0), d - 1);
    else if (mode == "reflect") from = xt::where(j < 0, -j, xt::where(j >= d, 2 * (d - 1) - j, j));
    else from = xt::where(j < 0, j + d, xt::where(j >= d, j - d, j));
    p = pick(p, u, std::vector<int64_t>(from.begin(), from.end()));
  }
  out.push_back(take(p, {a}, a->dtype()));
  return true;
}

bool eval_trilu(const EvalContext& ctx, Outputs& out) {
  const NDArray* a = ctx.value(0);
  if (!movable(a) || a->ndim() < 2) return false;
  int64_t k = 0;
  if (ctx.present(1)) {
    std::vector<int64_t> kv;
    if (!int_values(ctx.value(1), kv) || kv.size() != 1) return false;
    k = kv[0];
  }
  const bool upper = IR::get_attr_int(ctx.node, "upper").value_or(1) != 0;
  const Shape& s = a->shape();
  if (!ctx.budget.fits(s, a->dtype())) return false;
  if (empty_result(s, a->dtype(), out)) return true;
  const size_t r = s.size();
  Pos rows = xt::arange<int64_t>(s[r - 2]);
  rows.reshape({static_cast<size_t>(s[r - 2]), 1});
  const Pos cols = xt::arange<int64_t>(s[r - 1]);
  // Clamped so that a huge k compares without overflow.
  const int64_t kk = std::clamp<int64_t>(k, -(int64_t(1) << 40), int64_t(1) << 40);
  const xt::xarray<bool> keep = upper ? xt::eval(cols - rows >= kk) : xt::eval(cols - rows <= kk);
  const Pos p = xt::where(keep, positions(s), int64_t(-1));
  out.push_back(take(p, {a}, a->dtype()));
  return true;
}

bool eval_where(const EvalContext& ctx, Outputs& out) {
  const NDArray *c = ctx.value(0), *x = ctx.value(1), *y = ctx.value(2);
  if (!c || c->dtype() != dt::BOOL || !movable(x) || !movable(y) || x->dtype() != y->dtype()) return false;
  Shape shape;
  if (!broadcast_shapes(c->shape(), x->shape(), shape) || !broadcast_shapes(shape, y->shape(), shape)) return false;
  if (!ctx.budget.fits(shape, x->dtype())) return false;
  if (empty_result(shape, x->dtype(), out)) return true;
  const auto dims = dims_of(shape);
  const Pos p = xt::where(xt::broadcast(to_xarray<bool>(*c), dims), xt::broadcast(positions(x->shape()), dims),
                          xt::broadcast(positions(y->shape(), x->size()), dims));
  out.push_back(take(p, {x, y}, x->dtype()));
  return true;
}

bool eval_nonzero(const EvalContext& ctx, Outputs& out) {
  const NDArray* a = ctx.value(0);
  if (!movable(a) || a->ndim() == 0) return false;
  const xt::xarray<bool> nz = to_xarray<bool>(*a);
  const auto where = xt::nonzero(nz);
  const int64_t count = where.empty() ? 0 : static_cast<int64_t>(where[0].size());
  const Shape shape{static_cast<int64_t>(a->ndim()), count};
  if (!ctx.budget.fits(shape, dt::INT64)) return false;
  std::vector<int64_t> values;
  values.reserve(static_cast<size_t>(shape_size(shape)));
  for (const auto& axis : where) values.insert(values.end(), axis.begin(), axis.end());
  out.push_back(NDArray::from_i64(values, shape));
  return true;
}

}  // namespace

void add_movement_ops(EvaluatorTable& t) {
  t["Transpose"] = {eval_transpose, Needs::kValues};
  t["Expand"] = {eval_expand, Needs::kValues};
  t["Tile"] = {eval_tile, Needs::kValues};
  t["Concat"] = {eval_concat, Needs::kValues};
  t["Slice"] = {eval_slice, Needs::kValues};
  t["Split"] = {eval_split, Needs::kValues};
  t["Gather"] = {eval_gather, Needs::kValues};
  t["GatherElements"] = {eval_gather_elements, Needs::kValues};
  t["Pad"] = {eval_pad, Needs::kValues};
  t["Trilu"] = {eval_trilu, Needs::kValues};
  t["Where"] = {eval_where, Needs::kValues};
  t["NonZero"] = {eval_nonzero, Needs::kValues};
}

}  // namespace fold
}  // namespace tolm
