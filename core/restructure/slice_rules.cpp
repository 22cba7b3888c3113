// Slice rules: a Slice of a Slice becomes one Slice; slices of one tensor
// that lie side by side along one axis become a Split; a Slice that takes
// one whole input of a Concat back out is that input.
#include <algorithm>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "host/edit.h"
#include "host/helpers.h"
#include "restructure/restructure.h"

namespace tolm {
namespace {

using Ints = std::vector<int64_t>;

// The Slice operands at positions 1 to 4 as lists; absent if any is not a
// constant (a Slice without explicit axes or steps among them).
struct SliceParams {
  Ints starts, ends, axes, steps;
  int32_t dtype = dt::INT64;
};

std::optional<SliceParams> read_slice_params(const IR& ir, const Node& slice) {
  const NDArray* starts = ir.get_const_optional(slice, 1);
  const NDArray* ends = ir.get_const_optional(slice, 2);
  const NDArray* axes = ir.get_const_optional(slice, 3);
  const NDArray* steps = ir.get_const_optional(slice, 4);
  if (!starts || !ends || !axes || !steps) return std::nullopt;
  SliceParams p{starts->to_i64(), ends->to_i64(), axes->to_i64(), steps->to_i64(), ends->dtype()};
  const size_t n = p.axes.size();
  if (n == 0 || p.starts.size() != n || p.ends.size() != n || p.steps.size() != n) return std::nullopt;
  return p;
}

int64_t type_max(int32_t dtype) {
  return dtype == dt::INT32 ? std::numeric_limits<int32_t>::max() : std::numeric_limits<int64_t>::max();
}
int64_t type_min(int32_t dtype) {
  return dtype == dt::INT32 ? std::numeric_limits<int32_t>::min() : std::numeric_limits<int64_t>::min();
}

// Values from a Slice of another index type fit this one: beyond any
// dimension either way, a clamped bound selects the same elements.
NDArray index_array(const Ints& values, int32_t dtype) {
  Ints v = values;
  for (int64_t& x : v) x = std::clamp(x, type_min(dtype), type_max(dtype));
  return NDArray::from_i64(v, dtype);
}

int64_t clamp_index(int64_t v, int64_t dim) {
  if (v < 0) v += dim;
  return std::clamp<int64_t>(v, 0, dim);
}

}  // namespace

RuleResult _p_fuse_two_slice(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.size() < 2) return no_match();
  const NodePtr& slice0 = nodes[0];
  const NodePtr& slice1 = nodes[1];
  if (slice1->input.empty() || slice0->output.empty() || slice1->input[0] != slice0->output[0])
    return no_match();
  auto p0 = read_slice_params(ir, *slice0);
  if (!p0) return no_match();
  const auto p1 = read_slice_params(ir, *slice1);
  if (!p1) return no_match();
  // The first Slice hands its output over to the second's: nobody else may
  // read what it makes now.
  const std::string mid = slice0->output[0];
  if (!only_read_by(ir, mid, *slice1)) return no_match();
  if (slice1->output.size() != 1 || has_implicit_reader(ir, slice1->output[0])) return no_match();

  const Shape& i_shape = ir.get_shape(slice0->input[0]);
  const int64_t rank = static_cast<int64_t>(i_shape.size());
  auto norm_axis = [&](int64_t a) -> std::optional<int64_t> {
    if (a >= 0) return a;
    if (rank == 0) return std::nullopt;
    return a + rank;
  };

  const int64_t end_max = type_max(p0->dtype);
  for (size_t i1 = 0; i1 < p1->axes.size(); ++i1) {
    const int64_t axis = p1->axes[i1];
    const auto it = std::find(p0->axes.begin(), p0->axes.end(), axis);
    if (it != p0->axes.end()) {
      const size_t i0 = static_cast<size_t>(it - p0->axes.begin());
      if (p0->steps[i0] != p1->steps[i1] || p0->steps[i0] != 1) return no_match();
      const int64_t start = p0->starts[i0];
      if (start < 0 || p1->starts[i1] < 0 || p1->ends[i1] < 0) return no_match();
      // The second Slice cannot reach past what the first one left: its end
      // is bounded by the first end, which must then be known as a position.
      int64_t end0 = p0->ends[i0];
      if (end0 < 0) {
        const auto ax = norm_axis(axis);
        if (!ax || *ax >= rank) return no_match();
        end0 = clamp_index(end0, i_shape[static_cast<size_t>(*ax)]);
      }
      const int64_t begin = start > end_max - p1->starts[i1] ? end_max : start + p1->starts[i1];
      int64_t end = start > end_max - p1->ends[i1] ? end_max : start + p1->ends[i1];
      p0->starts[i0] = begin;
      p0->ends[i0] = std::min(end, end0);
      continue;
    }
    // The same axis stored once negative and once positive would be listed
    // twice, which no Slice allows.
    const auto ax1 = norm_axis(axis);
    if (!ax1) return no_match();
    for (int64_t a0 : p0->axes) {
      const auto n0 = norm_axis(a0);
      if (!n0 || *n0 == *ax1) return no_match();
    }
    const auto idx = static_cast<std::ptrdiff_t>(
        std::count_if(p0->axes.begin(), p0->axes.end(), [&](int64_t a) { return a < axis; }));
    p0->axes.insert(p0->axes.begin() + idx, axis);
    p0->starts.insert(p0->starts.begin() + idx, p1->starts[i1]);
    p0->ends.insert(p0->ends.begin() + idx, p1->ends[i1]);
    p0->steps.insert(p0->steps.begin() + idx, p1->steps[i1]);
  }

  const std::string out = slice1->output[0];
  const Shape o_shape = ir.get_shape(out);
  if (p0->axes.size() > 1)
    remove_slice_invalid_param(&p0->starts, &p0->ends, p0->axes, &p0->steps, i_shape, o_shape);

  // Operands other nodes share stay theirs: the fused Slice gets its own.
  const int32_t dtype = p0->dtype;
  set_own_const(ir, *slice0, 1, index_array(p0->starts, dtype), "_fuse");
  set_own_const(ir, *slice0, 2, index_array(p0->ends, dtype), "_fuse");
  set_own_const(ir, *slice0, 3, index_array(p0->axes, dtype), "_fuse");
  set_own_const(ir, *slice0, 4, index_array(p0->steps, dtype), "_fuse");

  // slice0 now makes what slice1 made; slice1 goes, and a graph output keeps
  // its name on slice0.
  if (ir.has_shape(out))
    ir.set_shape(mid, o_shape, false);
  else
    ir.clear_shape(mid);
  if (!bypass_node(ir, *slice1, mid)) return no_match();
  return {{slice1}, {}};
}

namespace {

// A Slice that might join a Split: its first start and end, as positions.
struct Candidate {
  int64_t start;
  int64_t end;
  NodePtr node;
};

// The longest chain of non-overlapping candidates (sorted by start) whose
// first starts at or after `start`; on equal length the chain whose first
// candidate comes first. Positions into `cands`, in order. Worked out from
// the back, so that many candidates cost n log n, not a search over chains.
std::vector<size_t> find_max_length_gourp(const std::vector<Candidate>& cands, int64_t start) {
  const size_t n = cands.size();
  // first[k]: the first position whose start is at least k's end.
  auto first_from = [&](int64_t at) {
    return static_cast<size_t>(
        std::lower_bound(cands.begin(), cands.end(), at,
                         [](const Candidate& c, int64_t v) { return c.start < v; }) -
        cands.begin());
  };
  std::vector<size_t> len(n + 1, 0), pick(n + 1, n), next(n, n);
  for (size_t k = n; k-- > 0;) {
    next[k] = std::max(k + 1, first_from(cands[k].end));
    const size_t with_k = 1 + len[next[k]];
    if (with_k >= len[k + 1]) {
      len[k] = with_k;
      pick[k] = k;
    } else {
      len[k] = len[k + 1];
      pick[k] = pick[k + 1];
    }
  }
  std::vector<size_t> chain;
  for (size_t k = first_from(start); k < n && pick[k] < n; k = next[pick[k]]) chain.push_back(pick[k]);
  return chain;
}

// A tensor with many Slice readers none of which line up: every candidate
// would find the same overlapping set (or a part of it) and give up too, so
// on a wide tensor they rest for the rest of the driver's round instead of
// each scanning all readers again.
void pause_candidates(IR& ir, const std::string& t, const std::vector<Candidate>& cands) {
  if (ir.use_count(t) <= IR::kWideFanOut) return;
  std::vector<std::string>& list = ir.op_ruler_pause["replace_parallel_slice_by_split"];
  std::unordered_set<std::string> known(list.begin(), list.end());
  for (const Candidate& c : cands)
    if (known.insert(c.node->name()).second) list.push_back(c.node->name());
}

}  // namespace

RuleResult _p_replace_parallel_slice_by_split(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.empty()) return no_match();
  const NodePtr& slice_0 = nodes[0];
  const NDArray* axes_c = ir.get_const_optional(*slice_0, 3);
  const NDArray* steps_c = ir.get_const_optional(*slice_0, 4);
  if (!axes_c || !steps_c) return no_match();
  Ints axes_0 = axes_c->to_i64();
  Ints steps_0 = steps_c->to_i64();
  if (axes_0.size() != steps_0.size()) return no_match();
  if (axes_0.size() > 1) {
    const Shape& i_shape_0 = ir.get_shape(slice_0->input[0]);
    const Shape& o_shape_0 = ir.get_shape(slice_0->output[0]);
    if (i_shape_0.empty() || o_shape_0.empty()) return no_match();
    remove_slice_invalid_param(nullptr, nullptr, axes_0, &steps_0, i_shape_0, o_shape_0);
  }
  if (axes_0.size() != 1 || steps_0[0] != 1) return no_match();

  const std::string inp = slice_0->input[0];
  const Shape input_shape = ir.get_shape(inp);
  if (input_shape.empty()) return no_match();
  const int64_t rank = static_cast<int64_t>(input_shape.size());
  const int64_t axis_pos = axes_0[0] < 0 ? axes_0[0] + rank : axes_0[0];
  if (axis_pos < 0 || axis_pos >= rank) return no_match();
  const int64_t dim = input_shape[static_cast<size_t>(axis_pos)];

  std::vector<Candidate> slices;
  for (const NodePtr& nod : ir.next_nodes(inp)) {
    if (!nod || nod->op_type() != slice_0->op_type()) continue;
    // A Slice that reads the tensor as an operand, not as its data, is no
    // piece of it.
    if (nod->input.empty() || nod->input[0] != inp || nod->output.empty()) continue;
    auto p = read_slice_params(ir, *nod);
    if (!p) continue;
    for (size_t i = 0; i < p->axes.size(); ++i) {
      if (p->axes[i] < 0) p->axes[i] += rank;
      if (p->axes[i] < 0 || p->axes[i] >= rank) break;
      const int64_t d = input_shape[static_cast<size_t>(p->axes[i])];
      p->starts[i] = clamp_index(p->starts[i], d);
      p->ends[i] = clamp_index(p->ends[i], d);
    }
    if (p->axes.size() > 1)
      remove_slice_invalid_param(&p->starts, &p->ends, p->axes, &p->steps, input_shape,
                                 ir.get_shape(nod->output[0]));
    if (p->axes != axes_0 || p->steps != steps_0) continue;
    // An empty piece would be a Split output of length 0.
    if (p->ends[0] <= p->starts[0]) continue;
    slices.push_back({p->starts[0], p->ends[0], nod});
  }
  if (slices.size() < 2) return no_match();
  std::stable_sort(slices.begin(), slices.end(),
                   [](const Candidate& a, const Candidate& b) { return a.start < b.start; });

  std::vector<std::vector<Candidate>> group_slices;
  const std::vector<Candidate> all_candidates = slices;
  while (!slices.empty()) {
    const std::vector<size_t> indexs = find_max_length_gourp(slices, slices[0].start);
    if (indexs.size() < 2) break;  // what is left overlaps pairwise: groups of one
    std::vector<Candidate> group;
    for (size_t i : indexs) group.push_back(slices[i]);
    group_slices.push_back(std::move(group));
    for (auto it = indexs.rbegin(); it != indexs.rend(); ++it)
      slices.erase(slices.begin() + static_cast<std::ptrdiff_t>(*it));
  }
  if (group_slices.empty()) {
    pause_candidates(ir, inp, all_candidates);
    return no_match();
  }

  NodeList new_splits, rm_slices;
  std::vector<std::string> taken;  // names handed out, not yet in the graph
  for (size_t id = 0; id < group_slices.size(); ++id) {
    const auto& group = group_slices[id];
    const std::string op_name =
        node_name_join(ir, slice_0->name(), "_2sp" + (id == 0 ? std::string() : std::to_string(id)), taken);
    taken.push_back(op_name);
    Ints split_point{0};
    std::vector<std::string> out_names;
    auto filler = [&] {
      const std::string f =
          oper_name_join(ir, op_name, "_invalid" + std::to_string(out_names.size()), taken);
      taken.push_back(f);
      out_names.push_back(f);
    };
    for (const Candidate& c : group) {
      if (c.start != split_point.back()) {
        split_point.push_back(c.start);
        filler();
      }
      split_point.push_back(std::min(c.end, dim));
      out_names.push_back(c.node->output[0]);
    }
    if (split_point.back() != dim) {
      split_point.push_back(dim);
      filler();
    }
    Ints splits_length;
    for (size_t k = 1; k < split_point.size(); ++k) splits_length.push_back(split_point[k] - split_point[k - 1]);
    new_splits.push_back(make_node_split(ir, {inp}, out_names, axes_0[0], splits_length, op_name));
    for (const Candidate& c : group) rm_slices.push_back(c.node);
  }
  return {rm_slices, new_splits};
}

RuleResult _p_remove_concat_slice(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.size() < 2) return no_match();
  const NodePtr& concat = nodes[0];
  const NodePtr& slice = nodes[1];
  if (slice->output.empty() || ir.is_output(slice->output[0])) return no_match();
  if (slice->input.empty() || concat->output.empty() || slice->input[0] != concat->output[0])
    return no_match();
  const auto axis_0 = IR::get_attr_int(*concat, "axis");
  const NDArray* axes = ir.get_const_optional(*slice, 3);
  if (!axis_0 || !axes || axes->size() != 1 || axes->i64_at(0) != *axis_0) return no_match();
  // A stride would pick every other element of the piece, not the piece.
  const NDArray* steps = ir.get_const_optional(*slice, 4);
  if (steps && (steps->size() != 1 || steps->i64_at(0) != 1)) return no_match();
  if (slice->input.size() > 4 && !slice->input[4].empty() && !steps) return no_match();

  Ints starts_0, ends_0;
  int64_t dims = 0;
  for (const std::string& inp : concat->input) {
    const Shape& s = ir.get_shape(inp);
    const int64_t r = static_cast<int64_t>(s.size());
    const int64_t a = *axis_0 < 0 ? *axis_0 + r : *axis_0;
    if (s.empty() || a < 0 || a >= r) return no_match();
    starts_0.push_back(dims);
    dims += s[static_cast<size_t>(a)];
    ends_0.push_back(dims);
  }
  const NDArray* starts_1 = ir.get_const_optional(*slice, 1);
  const NDArray* ends_1 = ir.get_const_optional(*slice, 2);
  if (!starts_1 || !ends_1 || starts_1->size() < 1 || ends_1->size() < 1) return no_match();
  const auto i_start = std::find(starts_0.begin(), starts_0.end(), starts_1->i64_at(0)) - starts_0.begin();
  const auto i_end = std::find(ends_0.begin(), ends_0.end(), ends_1->i64_at(0)) - ends_0.begin();
  if (i_start != i_end || i_start >= static_cast<std::ptrdiff_t>(starts_0.size())) return no_match();

  const std::string piece = concat->input[static_cast<size_t>(i_start)];
  // The Concat goes with the Slice unless others still read it.
  const bool concat_goes = only_read_by(ir, concat->output[0], *slice);
  if (!bypass_node(ir, *slice, piece)) return no_match();
  if (concat_goes) return {{concat, slice}, {}};
  return {{slice}, {}};
}

}  // namespace tolm
