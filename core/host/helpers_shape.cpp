// Shape, permutation and data-layout helpers.
#include <algorithm>
#include <numeric>

#include "host/helpers.h"

namespace tolm {
namespace {

Perm non_unit_axes(const Perm& perm, const Shape& shape) {
  Perm out;
  for (int64_t p : perm)
    if (shape[p] != 1) out.push_back(p);
  return out;
}

// Both permutations valid on `shape`, same output shape, same order of the
// axes larger than 1: then they put every element in the same place.
bool acts_alike(const Perm& a, const Perm& b, const Shape& shape) {
  if (a == b) return true;
  if (!is_perm_of(a, shape.size()) || !is_perm_of(b, shape.size())) return false;
  return apply_perm(a, shape) == apply_perm(b, shape) &&
         non_unit_axes(a, shape) == non_unit_axes(b, shape);
}

bool has_nonpositive(const Shape& s) {
  return std::any_of(s.begin(), s.end(), [](int64_t d) { return d <= 0; });
}

int64_t product(const Shape& s, size_t from = 0, size_t to = SIZE_MAX) {
  int64_t p = 1;
  for (size_t i = from; i < s.size() && i < to; ++i) p *= s[i];
  return p;
}

std::vector<int64_t> iota_list(int64_t n) {
  std::vector<int64_t> v(static_cast<size_t>(std::max<int64_t>(n, 0)));
  std::iota(v.begin(), v.end(), int64_t{0});
  return v;
}

// A shape as the target holds a feature map, N, C, H, W; false if it has more
// than 4 axes that are not leading 1s.
bool as_nchw(const Shape& s, Shape& out) {
  size_t lead = 0;
  while (s.size() - lead > 4 && s[lead] == 1) ++lead;
  if (s.size() - lead > 4) return false;
  out.assign(4 - (s.size() - lead), 1);
  out.insert(out.end(), s.begin() + static_cast<std::ptrdiff_t>(lead), s.end());
  return true;
}

// Scans a data movement given as (position, source) pairs of flat indices on
// a tensor laid out as `layout`, and finds the single-axis Gather that does
// it: every source must differ from its position only in the coordinate along
// one axis, by the same index map wherever that coordinate recurs.
// `enumerate(fn)` calls fn(position, source) for every element; fn returns
// false to stop early.
constexpr int64_t kMaxScanElements = int64_t{1} << 24;

template <class Enumerate>
GatherPlan fit_single_axis_gather(const Shape& layout, Enumerate enumerate) {
  GatherPlan plan;
  const size_t rank = layout.size();
  if (rank == 0) return plan;
  Shape strides(rank, 1);
  for (size_t i = rank - 1; i > 0; --i) strides[i - 1] = strides[i] * layout[i];

  int64_t u0 = -1, v0 = -1;
  enumerate([&](int64_t u, int64_t v) {
    if (u == v) return true;
    u0 = u;
    v0 = v;
    return false;
  });
  if (u0 < 0) {
    // Nothing moves: an ascending Gather on the first axis that has data.
    int64_t axis = 0;
    for (size_t i = 0; i < rank; ++i)
      if (layout[i] > 1) {
        axis = static_cast<int64_t>(i);
        break;
      }
    plan.axis = axis;
    plan.indices = iota_list(layout[axis]);
    return plan;
  }

  int64_t axis = -1;
  for (size_t i = 0; i < rank; ++i) {
    if ((u0 / strides[i]) % layout[i] != (v0 / strides[i]) % layout[i]) {
      if (axis >= 0) return plan;  // two coordinates change: no single Gather
      axis = static_cast<int64_t>(i);
    }
  }
  if (axis < 0) return plan;
  const int64_t stride = strides[axis], dim = layout[axis];
  std::vector<int64_t> idx(static_cast<size_t>(dim), -1);
  bool ok = true;
  enumerate([&](int64_t u, int64_t v) {
    const int64_t d = v - u;
    if (d % stride != 0) return ok = false;
    const int64_t at = (u / stride) % dim;
    const int64_t src = at + d / stride;
    if (src < 0 || src >= dim) return ok = false;
    if (idx[at] < 0) idx[at] = src;
    else if (idx[at] != src) return ok = false;
    return true;
  });
  if (!ok || std::find(idx.begin(), idx.end(), -1) != idx.end()) return plan;
  plan.axis = axis;
  plan.indices = std::move(idx);
  return plan;
}

}  // namespace

bool is_perm_of(const Perm& perm, size_t rank) {
  if (perm.size() != rank) return false;
  std::vector<bool> seen(rank, false);
  for (int64_t p : perm) {
    if (p < 0 || p >= static_cast<int64_t>(rank) || seen[static_cast<size_t>(p)]) return false;
    seen[static_cast<size_t>(p)] = true;
  }
  return true;
}

Perm inverse_perm(const Perm& perm) {
  Perm inv(perm.size());
  for (size_t i = 0; i < perm.size(); ++i) inv[static_cast<size_t>(perm[i])] = static_cast<int64_t>(i);
  return inv;
}

int64_t index_of(const Perm& perm, int64_t v) {
  auto it = std::find(perm.begin(), perm.end(), v);
  return it == perm.end() ? -1 : static_cast<int64_t>(it - perm.begin());
}

Shape apply_perm(const Perm& perm, const Shape& shape) {
  Shape out;
  out.reserve(perm.size());
  for (int64_t p : perm) out.push_back(shape[static_cast<size_t>(p)]);
  return out;
}

bool shape_holds_data(const Shape& shape) {
  return !shape.empty() && !has_nonpositive(shape);
}

bool is_identity_perm(const Perm& perm) {
  for (size_t i = 0; i < perm.size(); ++i)
    if (perm[i] != static_cast<int64_t>(i)) return false;
  return true;
}

std::vector<Perm> get_equivalent_perm_for_tp(const Perm& perm, const Shape& shape,
                                             const Shape& out_shape) {
  if (!is_perm_of(perm, shape.size())) return {perm};
  const Shape target = out_shape.empty() ? apply_perm(perm, shape) : out_shape;
  if (target.size() != perm.size()) return {perm};

  // Positions of the target that take axes larger than 1 get them in the
  // order `perm` gives; the size-1 axes fill the other positions in any order.
  const Perm moving = non_unit_axes(perm, shape);
  std::vector<size_t> unit_pos;
  size_t k = 0;
  Perm base(perm.size(), -1);
  for (size_t j = 0; j < target.size(); ++j) {
    if (target[j] == 1) {
      unit_pos.push_back(j);
    } else {
      if (k >= moving.size() || shape[moving[k]] != target[j]) return {perm};
      base[j] = moving[k++];
    }
  }
  if (k != moving.size()) return {perm};
  Perm unit_axes;
  for (size_t a = 0; a < shape.size(); ++a)
    if (shape[a] == 1) unit_axes.push_back(static_cast<int64_t>(a));
  if (unit_axes.size() != unit_pos.size()) return {perm};
  // Beyond 8 size-1 axes the list would be huge; perm alone is still correct.
  if (unit_axes.size() > 8) return {perm};

  std::vector<Perm> result;
  bool has_perm = false;
  do {
    Perm eq = base;
    for (size_t i = 0; i < unit_pos.size(); ++i) eq[unit_pos[i]] = unit_axes[i];
    if (eq == perm) has_perm = true;
    else result.push_back(std::move(eq));
  } while (std::next_permutation(unit_axes.begin(), unit_axes.end()));
  if (has_perm) result.insert(result.begin(), perm);
  return result;
}

bool check_equivalent_perm_for_tp(const IR& ir, const std::string& tensor, const Perm& perm_a,
                                  const Perm& perm_b) {
  std::vector<Shape> shapes;
  if (ir.has_shape(tensor)) shapes.push_back(ir.get_shape(tensor));
  auto dyn = ir.dynamic_shapes.find(tensor);
  if (dyn != ir.dynamic_shapes.end())
    shapes.insert(shapes.end(), dyn->second.begin(), dyn->second.end());
  if (shapes.empty()) return perm_a == perm_b;
  return std::all_of(shapes.begin(), shapes.end(),
                     [&](const Shape& s) { return acts_alike(perm_a, perm_b, s); });
}

Perm get_equivalent_perm_for_reshape(const Shape& in_shape, const Shape& out_shape) {
  if (in_shape.empty() || in_shape.size() != out_shape.size()) return {};
  if (!squeeze_same(in_shape, out_shape)) return {};
  Shape work = in_shape;
  Perm perm;
  for (int64_t s : out_shape) {
    auto it = std::find(work.begin(), work.end(), s);
    if (it == work.end()) return {};
    perm.push_back(it - work.begin());
    *it = -1;
  }
  return perm;
}

std::vector<IndependentPart> seperate_independent_part_for_reshape(const Shape& in_shape,
                                                                   const Shape& out_shape) {
  if (in_shape.empty() || out_shape.empty()) return {};
  if (has_nonpositive(in_shape) || has_nonpositive(out_shape)) return {};
  if (product(in_shape) != product(out_shape)) return {};
  const int64_t n = static_cast<int64_t>(in_shape.size());
  const int64_t m = static_cast<int64_t>(out_shape.size());
  std::vector<IndependentPart> parts;
  int64_t i = 0, j = 0;
  while (i < n && j < m) {
    IndependentPart part;
    int64_t pin = in_shape[i], pout = out_shape[j];
    part.first.push_back(i++);
    part.second.push_back(j++);
    while (pin != pout) {
      if (pin < pout) {
        if (i >= n) return {};
        pin *= in_shape[i];
        part.first.push_back(i++);
      } else {
        if (j >= m) return {};
        pout *= out_shape[j];
        part.second.push_back(j++);
      }
    }
    parts.push_back(std::move(part));
  }
  // Whatever is left is all 1s (the products agree): it trails the last part.
  for (; i < n; ++i) parts.back().first.push_back(i);
  for (; j < m; ++j) parts.back().second.push_back(j);
  return parts;
}

bool squeeze_same(const Shape& a, const Shape& b) {
  Shape sa, sb;
  for (int64_t d : a)
    if (d != 1) sa.push_back(d);
  for (int64_t d : b)
    if (d != 1) sb.push_back(d);
  return sa == sb;
}

int64_t align_sub_c(const IR& ir) { return ir.npu_target == "npu_e" ? 32 : 16; }

bool reshape_is_bypass(const IR& ir, const Shape& in_shape, const Shape& out_shape) {
  if (in_shape == out_shape) return true;
  if (has_nonpositive(in_shape) || has_nonpositive(out_shape)) return false;
  if (product(in_shape) != product(out_shape)) return false;
  Shape a, b;
  if (!as_nchw(in_shape, a) || !as_nchw(out_shape, b)) return false;
  const int64_t align = align_sub_c(ir);
  const int64_t hw_a = a[2] * a[3], hw_b = b[2] * b[3];
  if (hw_a == hw_b && (a[1] == b[1] || (a[1] % align == 0 && b[1] % align == 0))) return true;
  return a[1] == 1 && b[1] == 1;
}

std::vector<Axes> calc_map_fuse(const Shape& a, const Shape& b) {
  if (a.empty() || b.empty() || has_nonpositive(a) || has_nonpositive(b)) return {};
  const size_t m = b.size();
  std::vector<Axes> map(a.size());
  size_t j = 0;
  for (size_t i = 0; i < a.size(); ++i) {
    Axes& run = map[i];
    if (a[i] == 1) {
      if (j < m && b[j] == 1) run.push_back(static_cast<int64_t>(j++));
    } else {
      int64_t prod = 1;
      while (prod < a[i]) {
        if (j >= m) return {};
        prod *= b[j];
        run.push_back(static_cast<int64_t>(j++));
      }
      if (prod != a[i]) return {};
    }
    // 1s of b stay with this run unless the next axis of a is a 1 to take them.
    const bool next_is_unit = i + 1 < a.size() && a[i + 1] == 1;
    if (!next_is_unit)
      while (j < m && b[j] == 1) run.push_back(static_cast<int64_t>(j++));
  }
  if (j != m) return {};
  return map;
}

GatherPlan gen_gather_for_rs_tp_rs(const Shape& in_shape, const Shape& mid_shape,
                                   const Perm& tp_perm, const Shape& out_shape, bool on_output) {
  if (in_shape.empty() || mid_shape.empty()) return {};
  if (on_output && (out_shape.empty() || has_nonpositive(out_shape))) return {};
  if (has_nonpositive(in_shape) || has_nonpositive(mid_shape)) return {};
  if (!is_perm_of(tp_perm, mid_shape.size())) return {};
  const int64_t total = product(in_shape);
  if (total != product(mid_shape) || total > kMaxScanElements) return {};
  if (!out_shape.empty() && product(out_shape) != total) return {};

  // Output of the chain in row-major order: element f reads the input element
  // at the flat index of its transposed coordinates in `mid_shape` (both
  // Reshapes keep the flat order).
  const size_t r = mid_shape.size();
  Shape mid_strides(r, 1);
  for (size_t i = r - 1; i > 0; --i) mid_strides[i - 1] = mid_strides[i] * mid_shape[i];
  Shape t_shape(r), t_src_stride(r);
  for (size_t i = 0; i < r; ++i) {
    t_shape[i] = mid_shape[tp_perm[i]];
    t_src_stride[i] = mid_strides[tp_perm[i]];
  }
  auto enumerate = [&](auto&& fn) {
    std::vector<int64_t> coord(r, 0);
    int64_t src = 0;
    for (int64_t f = 0; f < total; ++f) {
      if (!fn(f, src)) return;
      for (size_t k = r; k-- > 0;) {
        src += t_src_stride[k];
        if (++coord[k] < t_shape[k]) break;
        src -= t_src_stride[k] * t_shape[k];
        coord[k] = 0;
      }
    }
  };
  // Position f of the output takes input element src(f); reshaped to the
  // output layout, the input holds element k at flat position k, so the same
  // pairs describe a Gather on either layout.
  GatherPlan plan = fit_single_axis_gather(on_output ? out_shape : in_shape, enumerate);
  plan.before = plan.axis.has_value() && !on_output;
  return plan;
}

std::optional<GatherPlan> gen_gather_for_change_split_shape(const Shape& src_shape,
                                                            const Shape& target_shape,
                                                            int64_t axis, int64_t new_axis,
                                                            const std::vector<int64_t>& chunk_size,
                                                            const std::string& op_type) {
  const bool is_split = op_type == "Split";
  if (!is_split && op_type != "Concat") return std::nullopt;
  if (src_shape.empty() || target_shape.empty() || chunk_size.empty()) return std::nullopt;
  if (has_nonpositive(src_shape) || has_nonpositive(target_shape)) return std::nullopt;
  const int64_t rs = static_cast<int64_t>(src_shape.size());
  const int64_t rt = static_cast<int64_t>(target_shape.size());
  if (axis < 0) axis += rs;
  if (new_axis < 0) new_axis += rt;
  if (axis < 0 || axis >= rs || new_axis < 0 || new_axis >= rt) return std::nullopt;
  const int64_t total = product(src_shape);
  if (total != product(target_shape) || total > kMaxScanElements) return std::nullopt;
  int64_t c_sum = 0;
  for (int64_t c : chunk_size) {
    if (c <= 0) return std::nullopt;
    c_sum += c;
  }
  if (c_sum != src_shape[axis]) return std::nullopt;

  // Part i holds c_i slices of the source axis; on the target it must hold a
  // whole number d_i of slices of the new axis.
  const int64_t pre_s = product(src_shape, 0, axis), post_s = product(src_shape, axis + 1);
  const int64_t pre_t = product(target_shape, 0, new_axis);
  const int64_t post_t = product(target_shape, new_axis + 1);
  const size_t parts = chunk_size.size();
  std::vector<int64_t> d(parts), off_s(parts), off_t(parts);
  int64_t d_sum = 0, o = 0;
  for (size_t i = 0; i < parts; ++i) {
    const int64_t part_size = chunk_size[i] * pre_s * post_s;
    if (part_size % (pre_t * post_t) != 0) return std::nullopt;
    d[i] = part_size / (pre_t * post_t);
    off_s[i] = o;
    off_t[i] = d_sum;
    o += chunk_size[i];
    d_sum += d[i];
  }
  const int64_t dn = target_shape[new_axis];
  if (d_sum != dn) return std::nullopt;
  std::vector<size_t> part_of(static_cast<size_t>(dn));
  for (size_t i = 0; i < parts; ++i)
    for (int64_t k = 0; k < d[i]; ++k) part_of[off_t[i] + k] = i;

  // F(f): for element f of the parts laid side by side on the target, the
  // source element it must hold.
  auto source_of = [&](int64_t f) {
    const int64_t q = f % post_t, r = f / post_t;
    const int64_t jn = r % dn, p = r / dn;
    const size_t i = part_of[jn];
    const int64_t local = (p * d[i] + (jn - off_t[i])) * post_t + q;
    const int64_t qs = local % post_s, rr = local / post_s;
    const int64_t k = rr % chunk_size[i], ps = rr / chunk_size[i];
    return (ps * src_shape[axis] + k + off_s[i]) * post_s + qs;
  };
  // A Split reads the source into place: position f takes source F(f). A
  // Concat writes parts into the source order: position F(f) takes f.
  auto enumerate = [&](auto&& fn) {
    for (int64_t f = 0; f < total; ++f) {
      const int64_t s = source_of(f);
      if (!(is_split ? fn(f, s) : fn(s, f))) return;
    }
  };

  // The Gather on the source layout is preferred: for a Split it sits ahead
  // of the Reshape, for a Concat behind it.
  const bool src_before = is_split;
  GatherPlan plan = fit_single_axis_gather(src_shape, enumerate);
  if (plan.axis) {
    plan.before = src_before;
    if (plan.indices == iota_list(src_shape[*plan.axis])) {
      plan.axis = axis;
      plan.indices = iota_list(src_shape[axis]);
    }
    return plan;
  }
  plan = fit_single_axis_gather(target_shape, enumerate);
  if (!plan.axis) return std::nullopt;
  plan.before = !src_before;
  return plan;
}

}  // namespace tolm
