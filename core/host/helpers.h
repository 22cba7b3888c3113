// Support helpers shared by the rules: shape and permutation algebra, the
// target's data layout, fresh names, Split construction, small sub-graph
// queries and quantisation facts.
//
// Conventions: a permutation `perm` maps a tensor of shape `s` to shape
// `[s[p] for p in perm]`. Shapes and permutations are int64 lists. "Absent"
// results are std::nullopt or an empty list, as each function states.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/ir.h"
#include "host/op_lists.h"

namespace tolm {

using Perm = std::vector<int64_t>;
using Axes = std::vector<int64_t>;

// ---- shapes and permutations -----------------------------------------------

// True if perm holds each axis 0 .. rank-1 exactly once.
bool is_perm_of(const Perm& perm, size_t rank);
// The permutation that undoes perm: entry k is the position of k in perm.
Perm inverse_perm(const Perm& perm);
// Position of v in perm, or -1.
int64_t index_of(const Perm& perm, int64_t v);
// True if perm is 0, 1, 2, ...: moves nothing.
bool is_identity_perm(const Perm& perm);
// The shape of a tensor of `shape` after a Transpose by `perm`.
Shape apply_perm(const Perm& perm, const Shape& shape);
// True if the shape is known and holds data: at least one axis, none of size
// 0. Only such a shape can be written as a Reshape target as it stands.
bool shape_holds_data(const Shape& shape);

// Every permutation that moves the data exactly as `perm` does on `shape`: the
// same output shape (`out_shape` when given, else `perm` applied to `shape`)
// and the axes larger than 1 in the same order. They differ only in where the
// size-1 axes go. `perm` itself comes first, the others in lexicographic
// order. With an unknown or mismatching shape only `perm` is returned.
std::vector<Perm> get_equivalent_perm_for_tp(const Perm& perm, const Shape& shape,
                                             const Shape& out_shape = {});
// True if the two permutations act alike on the tensor, on its held shape and
// on every dynamic-shape profile of it. Without a shape: true only if equal.
bool check_equivalent_perm_for_tp(const IR& ir, const std::string& tensor, const Perm& perm_a,
                                  const Perm& perm_b);
// The Transpose perm that does what this Reshape does (same rank, same axes
// larger than 1 in the same order; sizes that repeat are matched in order), or
// an empty list if the Reshape is no pure transpose.
Perm get_equivalent_perm_for_reshape(const Shape& in_shape, const Shape& out_shape);

// One independent part of a Reshape: input axes and output axes that hold the
// same elements and map only to each other (`first`: axes of the input shape,
// `second`: axes of the output shape). Parts are in axis order; a size-1 axis
// joins the part after it (the last part when it trails).
using IndependentPart = std::pair<Axes, Axes>;
// The parts of a Reshape from `in_shape` to `out_shape`; empty if the element
// counts differ or a shape is empty.
std::vector<IndependentPart> seperate_independent_part_for_reshape(const Shape& in_shape,
                                                                   const Shape& out_shape);
// True if the shapes are equal once every 1 is dropped.
bool squeeze_same(const Shape& a, const Shape& b);

// Channel group size of the target's feature-map layout: channels are stored
// in groups of this many, each group holding its channels innermost.
//
// | ir.npu_target                                         | align_sub_c |
// |-------------------------------------------------------|-------------|
// | npu_e                                                 | 32          |
// | npu_a, npu_b, npu_c, npu_d, npu_f, npu_g, npu_h, other | 16          |
int64_t align_sub_c(const IR& ir);
// True if the target runs a Reshape from `in_shape` to `out_shape` without
// moving data. A feature map of rank up to 4 is held as N, C, H, W (leading 1s
// added) with C in groups of align_sub_c and the H x W plane inside each
// group, so the bytes stay put when:
//   - the shapes are equal;
//   - H*W stays and C stays (only H and W are re-split), or C changes between
//     two multiples of the group size (whole groups move between N and C);
//   - C is 1 on both sides (N, H, W hold the data in row-major order).
// A shape of rank above 4 must have leading 1s down to rank 4, else only the
// identity counts.
bool reshape_is_bypass(const IR& ir, const Shape& in_shape, const Shape& out_shape);

// For a Reshape that only splits axes (each axis of `a`, in order, becomes a
// contiguous run of axes of `b`): for each axis of `a`, the axes of `b` it
// becomes. A size-1 axis of `a` may become no axis; 1s of `b` join the run
// before them. Empty (falsy) if the Reshape merges or reorders anything.
std::vector<Axes> calc_map_fuse(const Shape& a, const Shape& b);

// A Gather that stands in for a data movement: `axis` (absent if no single
// Gather does it), `indices` along that axis, and `before`, whether the Gather
// reads the tensor in its original layout (ahead of the Reshape).
struct GatherPlan {
  std::optional<int64_t> axis;
  std::vector<int64_t> indices;
  bool before = false;
};
// The Gather that moves data as Reshape to `mid_shape`, Transpose by
// `tp_perm`, Reshape to `out_shape` (empty: any shape of the same size) do
// together on a tensor of `in_shape`. By default the Gather reads the chain's
// input (`before` true when `axis` is present); with `on_output` it reads the
// input already reshaped to `out_shape`, which must then be given, and `axis`
// and `indices` are on that layout (`before` false). A chain that moves no
// data gives the first axis larger than 1 with ascending indices.
GatherPlan gen_gather_for_rs_tp_rs(const Shape& in_shape, const Shape& mid_shape,
                                   const Perm& tp_perm, const Shape& out_shape,
                                   bool on_output = false);
// A Split (`op_type` "Split") of a tensor of `src_shape` into `chunk_size`
// parts on `axis`, or a Concat ("Concat") of such parts into it, is to run on
// `target_shape` along `new_axis` instead, each part reshaped alike. Gives the
// Gather that repairs the element order: with `before` it sits ahead of the
// Reshape in data flow (on `src_shape` for a Split, on `target_shape` for a
// Concat), else behind it. Ascending indices when no repair is needed. Absent
// if the parts do not fit `target_shape` or no single-axis Gather repairs it.
std::optional<GatherPlan> gen_gather_for_change_split_shape(const Shape& src_shape,
                                                            const Shape& target_shape,
                                                            int64_t axis, int64_t new_axis,
                                                            const std::vector<int64_t>& chunk_size,
                                                            const std::string& op_type);

// The constant operand of a two-input element-wise node: its name and input
// position, and the other operand's name and position. `const_name` is absent
// (and `const_idx` -1) when no input is a constant; the other operand is then
// input 0. With two constants, input 0 counts as the constant.
struct ElemwiseConst {
  std::optional<std::string> const_name;
  int64_t const_idx = -1;
  std::string other_name;
  int64_t other_idx = -1;
};
ElemwiseConst get_elemwise_const(const IR& ir, const Node& node);
// True if `reader` is the only node that reads `t` (in any number of slots),
// `t` is no graph output and no sub-graph reads it: a tensor a rule may drop,
// rename or give another shape without anyone else noticing.
bool only_read_by(const IR& ir, const std::string& t, const Node& reader);
// The one node that reads `t`, in one slot, when `t` is no graph output;
// null otherwise.
NodePtr single_reader(const IR& ir, const std::string& t);
// True when `t` may hold an infinity or NaN that a constant puts there or an
// operator makes (a division by what may be 0, a logarithm, a fractional
// power): the walk goes up through the producers of float tensors (a Pad's
// fill value counts as a constant) and stops at graph inputs, whose data is
// taken to be finite, and past a bound of tensors near `t`. Rewrites that are exact only
// on finite data ask this: a selection done as a 0/1 convolution multiplies
// every value by 0 somewhere, and 0 * inf is NaN.
bool may_carry_non_finite(const IR& ir, const std::string& t);
// Op types of the node's producers and consumers, with how many neighbours
// have each type.
std::map<std::string, int64_t> get_op_type_around_node(const IR& ir, const Node& node);
// Greatest common divisor of the absolute values; 0 for an empty list.
int64_t find_gcd(const std::vector<int64_t>& numbers);
// Drops, in place, the Slice entries along which the slice leaves the data
// untouched (the axis keeps its size and is not reversed). `starts`, `ends`
// and `steps` may be null; absent steps count as 1. At least one entry stays,
// so the Slice stays well-formed. Nothing changes if a shape is unknown or
// the ranks differ. Returns the number of entries dropped.
size_t remove_slice_invalid_param(std::vector<int64_t>* starts, std::vector<int64_t>* ends,
                                  std::vector<int64_t>& axes, std::vector<int64_t>* steps,
                                  const Shape& in_shape, const Shape& out_shape);

// ---- names ------------------------------------------------------------------

// A tensor name that nothing holds yet: base + suffix (+ number), else with
// "_1", "_2", ... appended. Names in `avoid` count as held too (names handed
// out but not yet in the graph).
std::string oper_name_join(const IR& ir, const std::string& base, const std::string& suffix,
                           std::optional<int64_t> number = std::nullopt,
                           const std::vector<std::string>& avoid = {});
std::string oper_name_join(const IR& ir, const std::string& base, const std::string& suffix,
                           const std::vector<std::string>& avoid);
// The same for a node name.
std::string node_name_join(const IR& ir, const std::string& base, const std::string& suffix,
                           std::optional<int64_t> number = std::nullopt,
                           const std::vector<std::string>& avoid = {});
std::string node_name_join(const IR& ir, const std::string& base, const std::string& suffix,
                           const std::vector<std::string>& avoid);
// Element type code as ir.get_dtype reports it: ONNX codes throughout.
int32_t to_np_type(int64_t onnx_type);

// ---- graph ------------------------------------------------------------------

// A new Split node (not yet in the graph). From opset 13 on the lengths are a
// new int64 constant input; below, the `split` attribute.
NodePtr make_node_split(IR& ir, const std::vector<std::string>& inputs,
                        const std::vector<std::string>& outputs, int64_t axis,
                        const std::vector<int64_t>& lengths, const std::string& name);
// The lengths of a Split: from the `split` attribute, else the constant second
// input. When none is stored and `ret_equal`: the output shapes on the axis if
// all are known, else the equal parts of the input (the last one smaller if
// the size does not divide). Empty if unknown.
std::vector<int64_t> get_split_split(const IR& ir, const Node& node, bool ret_equal = true);
// The first run of consecutive entries of `nodes` whose op types are
// `op_types` in order, each reading the one before; empty if none.
NodeList get_subgraph_nodes(const IR& ir, const NodeList& nodes,
                            const std::vector<std::string>& op_types);
// The nodes reachable from `node` within `n` levels (level 0 is the node),
// by level. A node that several paths reach stands once, at its deepest level,
// so a node and its consumer never share a level. Levels after the last
// non-empty one are dropped.
std::vector<NodeList> get_continuous_nodes(const IR& ir, const NodePtr& node, size_t n);
// True if there is one level per pattern entry, no level is empty, and each
// node's op type is among its level's allowed types.
bool match_sub_graph(const std::vector<NodeList>& levels,
                     const std::vector<std::vector<std::string>>& types);
// The nodes of the levels in order, level after level.
NodeList flatten_levels(const std::vector<NodeList>& levels);

// ---- quantisation ------------------------------------------------------------

// True if input `input_index` of the node needs no quantisation data: absent,
// an index/shape/axes parameter of the operator, or of a non-float type.
bool skip_no_quant(const IR& ir, const Node& node, size_t input_index);
// Op types that stay in float: `want_fp16` for accuracy, `need_fp16` because
// the target has no integer form of them.
struct FloatOpTypes {
  std::vector<std::string> want_fp16;
  std::vector<std::string> need_fp16;
};
FloatOpTypes get_want_need_fp16(const IR& ir);

}  // namespace tolm
