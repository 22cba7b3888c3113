// Focus stems: a tensor cut into the four phases of a 2x2 grid on two
// neighbouring axes, the phases joined on a third axis (space to depth).
// One Conv with a fixed 0/1 kernel of 2x2, striding as the Slices step (2 in
// every stem seen), does the same: output channel p*C + c copies input
// channel c at the kernel position of phase p.
// When the cut axes are not the last two, Transposes move them there and back.
#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <xtensor/xarray.hpp>
#include <xtensor/xbuilder.hpp>
#include <xtensor/xview.hpp>

#include "fusions/fusions.h"
#include "host/builder.h"
#include "host/edit.h"
#include "host/helpers.h"
#include "host/xarray_bridge.h"

namespace tolm {
namespace {

using Ints = std::vector<int64_t>;

// Kernel position (row, column) of phase p: (0,0), (1,0), (0,1), (1,1), the
// order in which the Concat joins the phases.
constexpr int64_t kPhaseRow[4] = {0, 1, 0, 1};
constexpr int64_t kPhaseCol[4] = {0, 0, 1, 1};

struct SliceParams {
  Ints starts, ends, axes, steps;
};

// All four operands of a Slice as constants, or absent.
std::optional<SliceParams> slice_params(const IR& ir, const Node& slice) {
  if (slice.input.size() != 5) return std::nullopt;
  const NDArray* v[4];
  for (size_t i = 0; i < 4; ++i)
    if (!(v[i] = ir.get_const_optional(slice, i + 1))) return std::nullopt;
  return SliceParams{v[0]->to_i64(), v[1]->to_i64(), v[2]->to_i64(), v[3]->to_i64()};
}

// The fixed weight: [4 * chan_in, chan_in, 2, 2] float32, block p of chan_in
// output channels an identity at the kernel position of phase p.
NDArray focus_weight(int64_t chan_in) {
  const auto c = static_cast<size_t>(chan_in);
  xt::xarray<float> w = xt::zeros<float>({size_t{4}, c, c, size_t{2}, size_t{2}});
  for (size_t p = 0; p < 4; ++p)
    xt::view(w, p, xt::all(), xt::all(), kPhaseRow[p], kPhaseCol[p]) = xt::eye<float>(c);
  return from_xarray<float>(xt::reshape_view(w, {4 * c, c, size_t{2}, size_t{2}}), dt::FLOAT);
}

// The geometry a stem must have for the Conv to give the very same tensor.
struct Stem {
  Shape in_shape;
  int64_t first = 0, last = 0;  // the cut axes, first < last
  Ints strides;
  Perm perm1;  // moves the cut axes to the end
};

// Checks what makes the Conv exact: a known float32 input of rank 4, the cut
// axes neighbours, the join axis the one that becomes the Conv's channel
// axis, every phase a full stride-sized grid (each Slice reaches the end of
// its axis, which the stride divides).
std::optional<Stem> check_stem(const IR& ir, const std::string& src, int64_t first, int64_t last,
                               const Ints& steps, int64_t concat_axis) {
  Stem s;
  if (!ir.has_shape(src) || ir.get_dtype(src) != dt::FLOAT) return std::nullopt;
  s.in_shape = ir.get_shape(src);
  const auto rank = static_cast<int64_t>(s.in_shape.size());
  if (rank != 4 || !shape_holds_data(s.in_shape)) return std::nullopt;
  for (int64_t d : s.in_shape)
    if (d < 0) return std::nullopt;
  // The kernel weighs every value of a window, with 0 where the phase does
  // not pick it: an infinite value would turn its neighbours into NaN.
  if (may_carry_non_finite(ir, src)) return std::nullopt;
  auto norm = [&](int64_t a) { return a < 0 ? a + rank : a; };
  first = norm(first);
  last = norm(last);
  concat_axis = norm(concat_axis);
  if (first < 0 || last >= rank || first + 1 != last) return std::nullopt;
  if (concat_axis == first || concat_axis == last || concat_axis < 0 || concat_axis >= rank)
    return std::nullopt;
  // The cut axes move to the end; position 1 then holds the channels, and
  // the phases must be joined there.
  for (int64_t k = 0; k < first; ++k) s.perm1.push_back(k);
  for (int64_t k = last + 1; k < rank; ++k) s.perm1.push_back(k);
  s.perm1.push_back(first);
  s.perm1.push_back(last);
  if (s.perm1[1] != concat_axis) return std::nullopt;
  for (int64_t st : steps)
    if (st < 2) return std::nullopt;
  if (s.in_shape[first] % steps[0] != 0 || s.in_shape[last] % steps[1] != 0) return std::nullopt;
  s.first = first;
  s.last = last;
  s.strides = steps;
  return s;
}

// True if a Slice along `axis` (of size dim) from `start` to `end` by `step`
// takes dim / step elements: it runs to the end of the axis.
bool reaches_end(int64_t start, int64_t end, int64_t step, int64_t dim) {
  if (end < 0) end += dim;
  end = std::clamp<int64_t>(end, 0, dim);
  return end > start && (end - start + step - 1) / step == dim / step;
}

bool read_only_by(const IR& ir, const NodeList& slices, const Node& reader) {
  return std::all_of(slices.begin(), slices.end(), [&](const NodePtr& n) {
    return n->output.size() == 1 && only_read_by(ir, n->output[0], reader);
  });
}

// The Conv (with Transposes where the cut axes are not the last two) that
// takes over the Concat's output.
NodeList build_conv(IR& ir, const std::string& src, const std::string& src_name, const Node& concat,
                    const Stem& s, bool fixed_form) {
  const Perm& perm1 = s.perm1;
  const int64_t chan_in = s.in_shape[perm1[1]];
  const NDArray weight = focus_weight(chan_in);
  std::vector<Attr> attrs = {Attr::make_ints("kernel_shape", {2, 2})};
  if (!fixed_form) attrs.push_back(Attr::make_int("group", 1));
  attrs.push_back(Attr::make_ints("dilations", {1, 1}));
  attrs.push_back(Attr::make_ints("strides", s.strides));
  attrs.push_back(Attr::make_ints("pads", {0, 0, 0, 0}));
  Graph g(ir);
  const std::string conv_name = concat.name() + "_2conv";
  if (is_identity_perm(perm1)) {
    g.op("Conv", {src, weight}, {{concat.output[0]}, conv_name, attrs});
    return g.nodes;
  }
  const std::string tp1_out =
      g.op("Transpose", {src}, {{}, src_name + "_2tp", {Attr::make_ints("perm", perm1)}});
  const std::string conv_out = g.op("Conv", {tp1_out, weight}, {{}, conv_name, attrs});
  g.op("Transpose", {conv_out}, {{concat.output[0]}, "", {Attr::make_ints("perm", inverse_perm(perm1))}});
  return g.nodes;
}

}  // namespace

RuleResult _p_fuse_focus_slice(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.size() != 5) return no_match();
  const NodePtr& concat_nod = nodes[4];
  const NodeList slices(nodes.begin(), nodes.begin() + 4);
  std::vector<SliceParams> params;
  for (const NodePtr& n : slices) {
    if (n->op_type() != "Slice" || n->input.empty() || n->input[0] != nodes[0]->input[0]) return no_match();
    auto p = slice_params(ir, *n);
    if (!p) return no_match();
    params.push_back(std::move(*p));
  }
  for (const SliceParams& p : params) {
    if (p.ends.size() != 2 || p.axes.size() != 2 || p.steps.size() != 2) return no_match();
    if (p.ends != params[0].ends || p.axes != params[0].axes || p.steps != params[0].steps) return no_match();
  }
  const Ints& slice_axis = params[0].axes;
  const Ints& step = params[0].steps;
  const std::optional<int64_t> concat_axis = IR::get_attr_int(*concat_nod, "axis");
  if (!concat_axis || std::find(slice_axis.begin(), slice_axis.end(), *concat_axis) != slice_axis.end())
    return no_match();

  // The Concat joins the four Slices, each once, in the phase order.
  const NodeList concat_inputs = ir.pre_nodes(*concat_nod);
  if (concat_nod->input.size() != 4 || concat_inputs.size() != 4) return no_match();
  for (size_t k = 0; k < 4; ++k) {
    const NodePtr& n = concat_inputs[k];
    if (std::find(slices.begin(), slices.end(), n) == slices.end() ||
        concat_nod->input[k] != n->output[0])
      return no_match();
    const NDArray* starts = ir.get_const_optional(*n, 1);
    if (!starts || starts->to_i64() != Ints{kPhaseRow[k], kPhaseCol[k]}) return no_match();
  }

  const std::string& src = nodes[0]->input[0];
  const std::optional<Stem> stem = check_stem(ir, src, slice_axis[0], slice_axis[1], step, *concat_axis);
  if (!stem) return no_match();
  for (size_t k = 0; k < 2; ++k) {
    const int64_t dim = stem->in_shape[k == 0 ? stem->first : stem->last];
    if (!reaches_end(1, params[0].ends[k], step[k], dim)) return no_match();
  }
  if (!read_only_by(ir, slices, *concat_nod)) return no_match();

  // The usual image stem, N x 3 x H x W joined on the channels, keeps the
  // Conv's attributes to the few it needs.
  const Shape& cat0 = ir.get_shape(concat_nod->input[0]);
  const bool fixed_form = cat0.size() == 4 && cat0[1] == 3 && *concat_axis == 1;
  return {nodes, build_conv(ir, src, nodes[0]->name(), *concat_nod, *stem, fixed_form)};
}

RuleResult _p_fuse_focus_slice2(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.size() != 7) return no_match();
  const NodePtr& concat_node = nodes.back();
  // The matcher hands the Slices over in any order: the first stage is the
  // two that read no other matched node, the one starting at 0 first.
  for (size_t k = 0; k + 1 < nodes.size(); ++k)
    if (nodes[k]->op_type() != "Slice" || nodes[k]->input.empty() || nodes[k]->output.size() != 1)
      return no_match();
  NodeList firsts;
  for (size_t k = 0; k + 1 < nodes.size(); ++k) {
    const NodePtr& n = nodes[k];
    const bool inner = std::any_of(nodes.begin(), nodes.end() - 1,
                                   [&](const NodePtr& m) { return m->output[0] == n->input[0]; });
    if (!inner) firsts.push_back(n);
  }
  if (firsts.size() != 2 || firsts[0]->input[0] != firsts[1]->input[0]) return no_match();
  const NDArray* first_start = ir.get_const_optional(*firsts[0], 1);
  if (first_start && first_start->size() == 1 && first_start->i64_at(0) == 1) std::swap(firsts[0], firsts[1]);
  const NodePtr slice0 = firsts[0];
  const NodePtr slice1 = firsts[1];

  if (concat_node->input.size() != 4) return no_match();
  NodePtr slice2, slice3, slice4, slice5;
  for (const NodePtr& nod : ir.pre_nodes(*concat_node)) {
    if (nod->op_type() != "Slice" || nod->input.empty() || nod->output.size() != 1) continue;
    const std::string& out = nod->output[0];
    const std::string& in = nod->input[0];
    if (out == concat_node->input[0] && in == slice0->output[0]) slice2 = nod;
    else if (out == concat_node->input[2] && in == slice0->output[0]) slice3 = nod;
    else if (out == concat_node->input[1] && in == slice1->output[0]) slice4 = nod;
    else if (out == concat_node->input[3] && in == slice1->output[0]) slice5 = nod;
  }
  if (!slice2 || !slice3 || !slice4 || !slice5) return no_match();
  const NodeList slice_nods = {slice0, slice1, slice2, slice3, slice4, slice5};
  for (const NodePtr& n : slice_nods)
    if (std::find(nodes.begin(), nodes.end(), n) == nodes.end()) return no_match();

  Ints starts, ends, axes, steps;
  for (const NodePtr& n : slice_nods) {
    const auto p = slice_params(ir, *n);
    if (!p || p->starts.size() != 1 || p->ends.size() != 1 || p->axes.size() != 1 || p->steps.size() != 1)
      return no_match();
    starts.push_back(p->starts[0]);
    ends.push_back(p->ends[0]);
    axes.push_back(p->axes[0]);
    steps.push_back(p->steps[0]);
  }
  const int64_t idx_first = axes[0];
  const int64_t idx_last = axes.back();
  if (starts != Ints{0, 1, 0, 1, 0, 1}) return no_match();
  if (axes != Ints{idx_first, idx_first, idx_last, idx_last, idx_last, idx_last}) return no_match();
  if (steps != Ints(6, 2)) return no_match();
  const std::optional<int64_t> concat_axis = IR::get_attr_int(*concat_node, "axis");
  if (!concat_axis || std::find(axes.begin(), axes.end(), *concat_axis) != axes.end()) return no_match();

  const std::string& src = slice0->input[0];
  const std::optional<Stem> stem = check_stem(ir, src, idx_first, idx_last, {steps[0], steps[2]}, *concat_axis);
  if (!stem) return no_match();
  // Every Slice runs to the end of its own axis: one that stops short would
  // leave out rows or columns the Conv reads.
  for (size_t k = 0; k < 6; ++k) {
    const int64_t dim = stem->in_shape[k < 2 ? stem->first : stem->last];
    if (!reaches_end(starts[k], ends[k], steps[k], dim)) return no_match();
  }
  if (!read_only_by(ir, {slice2, slice3}, *concat_node) || !read_only_by(ir, {slice4, slice5}, *concat_node))
    return no_match();
  // Each first-stage Slice feeds its two second-stage Slices and nothing else.
  auto feeds_only = [&](const NodePtr& n, const NodePtr& a, const NodePtr& b) {
    const std::string& t = n->output[0];
    if (ir.is_output(t) || has_implicit_reader(ir, t)) return false;
    const NodeList readers = ir.next_nodes(t);
    return readers.size() == 2 && ir.use_count(t) == 2 &&
           std::find(readers.begin(), readers.end(), a) != readers.end() &&
           std::find(readers.begin(), readers.end(), b) != readers.end();
  };
  if (!feeds_only(slice0, slice2, slice3) || !feeds_only(slice1, slice4, slice5)) return no_match();
  return {nodes, build_conv(ir, src, slice0->name(), *concat_node, *stem, false)};
}

}  // namespace tolm
