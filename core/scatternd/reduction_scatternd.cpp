// Gather reads places of a tensor, Add adds to them, and ScatterND writes
// the sums back to the same places: one ScatterND with reduction "add" does
// all three.
#include <set>

#include "host/edit.h"
#include "scatternd/scatternd.h"

namespace tolm {
namespace {

// The one reader of `t`, if it is read once and is no graph output.
bool single_use(const IR& ir, const std::string& t) {
  return !ir.is_output(t) && ir.use_count(t) == 1;
}

std::vector<int64_t> strides_of(const Shape& s) {
  std::vector<int64_t> st(s.size(), 1);
  for (int64_t d = static_cast<int64_t>(s.size()) - 2; d >= 0; --d) st[d] = st[d + 1] * s[d + 1];
  return st;
}

// Larger updates are not walked element by element.
constexpr int64_t kMaxWalk = int64_t{1} << 24;

// Every element the Gather reads is written back to the very place it came
// from, and no place is written twice: then adding in place is the same.
bool writes_back_where_read(const Shape& data_shape, const std::vector<int64_t>& gi, const Shape& gi_shape,
                            int64_t axis, const std::vector<int64_t>& si, const Shape& si_shape,
                            const Shape& update_shape) {
  const int64_t k = si_shape.back();
  const int64_t rank = static_cast<int64_t>(data_shape.size());
  if (k < 1 || k > rank) return false;
  const std::vector<int64_t> dst = strides_of(data_shape);
  const int64_t n = shape_size(update_shape);
  if (n > kMaxWalk) return false;
  const int64_t batch_rank_ = static_cast<int64_t>(si_shape.size()) - 1;
  if (static_cast<int64_t>(update_shape.size()) != rank - 1 + static_cast<int64_t>(gi_shape.size()) ||
      static_cast<int64_t>(update_shape.size()) != batch_rank_ + rank - k)
    return false;
  std::set<std::vector<int64_t>> rows;
  for (size_t r = 0; r + k <= si.size(); r += static_cast<size_t>(k)) {
    for (int64_t c = 0; c < k; ++c)
      if (si[r + c] < 0 || si[r + c] >= data_shape[c]) return false;
    if (!rows.emplace(si.begin() + r, si.begin() + r + k).second) return false;
  }
  const std::vector<int64_t> ust = strides_of(update_shape);
  const int64_t batch_rank = static_cast<int64_t>(si_shape.size()) - 1;
  const int64_t g_rank = static_cast<int64_t>(gi_shape.size());
  const std::vector<int64_t> gst = strides_of(gi_shape);
  for (int64_t u = 0; u < n; ++u) {
    // Where the ScatterND writes update element u.
    int64_t row = 0, target = 0;
    for (int64_t d = 0; d < batch_rank; ++d) row = row * update_shape[d] + (u / ust[d]) % update_shape[d];
    for (int64_t c = 0; c < k; ++c) target += si[row * k + c] * dst[c];
    for (int64_t d = batch_rank; d < static_cast<int64_t>(update_shape.size()); ++d)
      target += ((u / ust[d]) % update_shape[d]) * dst[k + d - batch_rank];
    // Where the Gather read it from.
    int64_t source = 0, g = 0;
    for (int64_t d = 0; d < axis; ++d) source += ((u / ust[d]) % update_shape[d]) * dst[d];
    for (int64_t j = 0; j < g_rank; ++j) g += ((u / ust[axis + j]) % update_shape[axis + j]) * gst[j];
    int64_t idx = gi[g];
    if (idx < 0) idx += data_shape[axis];
    source += idx * dst[axis];
    for (int64_t d = axis + 1; d < rank; ++d)
      source += ((u / ust[d - 1 + g_rank]) % update_shape[d - 1 + g_rank]) * dst[d];
    if (source != target) return false;
  }
  return true;
}

}  // namespace

RuleResult _p_fuse_to_reduction_scatternd(IR& ir, const NodeList& nodes, QuantTable*) {
  if (nodes.size() < 3) return no_match();
  const NodePtr& gather = nodes[0];
  const NodePtr& reduction_op = nodes[1];
  const NodePtr& scatternd = nodes[2];
  if (gather->input.size() != 2 || reduction_op->input.size() != 2 || scatternd->input.size() != 3)
    return no_match();
  // A ScatterND that reduces needs opset 16.
  if (ir.opset() < 16 || scatternd_detail::reduction_of(*scatternd) != "none") return no_match();
  if (gather->input[0] != scatternd->input[0]) return no_match();
  const NDArray* gather_indices = ir.get_const(gather->input[1]);
  const NDArray* scatternd_indices = ir.get_const(scatternd->input[1]);
  if (gather_indices == nullptr || scatternd_indices == nullptr) return no_match();
  const std::string& sum = reduction_op->output[0];
  if (!ir.has_shape(sum) || !ir.has_shape(reduction_op->input[0]) || !ir.has_shape(reduction_op->input[1]) ||
      ir.get_shape(reduction_op->input[0]) != ir.get_shape(sum) ||
      ir.get_shape(reduction_op->input[1]) != ir.get_shape(sum))
    return no_match();
  if (!single_use(ir, gather->output[0]) || !single_use(ir, sum)) return no_match();
  if (scatternd->input[2] != sum) return no_match();
  const size_t external_input_index = reduction_op->input[0] == gather->output[0] ? 1 : 0;
  if (reduction_op->input[1 - external_input_index] != gather->output[0]) return no_match();
  if (!ir.has_shape(gather->input[0])) return no_match();
  const Shape& data_shape = ir.get_shape(gather->input[0]);
  const int64_t rank = static_cast<int64_t>(data_shape.size());
  int64_t gather_axis = IR::get_attr_int(*gather, "axis").value_or(0);
  if (gather_axis < 0) gather_axis += rank;
  if (gather_axis < 0 || gather_axis >= rank) return no_match();

  const Shape& si_shape = scatternd_indices->shape();
  if (si_shape.empty()) return no_match();
  const int64_t k = si_shape.back();
  if (k < gather_axis + 1) return no_match();
  const std::vector<int64_t> gi = gather_indices->to_i64();
  const std::vector<int64_t> si = scatternd_indices->to_i64();
  std::vector<int64_t> si_axis;
  for (size_t e = static_cast<size_t>(gather_axis); e < si.size(); e += static_cast<size_t>(k))
    si_axis.push_back(si[e]);
  if (gi.size() != si_axis.size() || gi != si_axis) return no_match();
  // The Gather's places must be the ScatterND's, element for element.
  if (!writes_back_where_read(data_shape, gi, gather_indices->shape(), gather_axis, si, si_shape,
                              ir.get_shape(sum)))
    return no_match();

  NodePtr reduction_scatternd =
      copy_with_attrs(*scatternd, {Attr::make_string("reduction", "add")});
  reduction_scatternd->input.set(2, reduction_op->input[external_input_index]);
  return {nodes, {reduction_scatternd}};
}

}  // namespace tolm
