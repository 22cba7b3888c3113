// What the ScatterND pair rules share: reading two chained writes and the
// tests every merge of them needs.
#include <algorithm>
#include <set>

#include "scatternd/scatternd.h"

namespace tolm {
namespace scatternd_detail {

std::string reduction_of(const Node& n) {
  return IR::get_attr_str(n, "reduction").value_or("none");
}

std::optional<ScatterPair> fusable_pair(const IR& ir, const NodeList& nodes) {
  if (nodes.size() < 2) return std::nullopt;
  const Node& s1 = *nodes[0];
  const Node& s2 = *nodes[1];
  if (s1.input.size() != 3 || s2.input.size() != 3 || s1.output.size() != 1) return std::nullopt;
  if (s1.output[0] != s2.input[0]) return std::nullopt;
  // scatternd_1 goes: its result must be for scatternd_2 alone.
  if (ir.is_output(s1.output[0]) || ir.use_count(s1.output[0]) != 1) return std::nullopt;
  for (size_t i = 0; i < 3; ++i)
    if (!ir.has_shape(s1.input[i]) || !ir.has_shape(s2.input[i])) return std::nullopt;
  ScatterPair p;
  p.data_shape = ir.get_shape(s1.input[0]);
  p.indices_1_shape = ir.get_shape(s1.input[1]);
  p.indices_2_shape = ir.get_shape(s2.input[1]);
  p.update_1_shape = ir.get_shape(s1.input[2]);
  p.update_2_shape = ir.get_shape(s2.input[2]);
  if (p.data_shape.size() != 4 || p.update_1_shape.size() != 4 || p.update_2_shape.size() != 4)
    return std::nullopt;
  if (p.indices_1_shape.size() != p.indices_2_shape.size() || p.indices_1_shape.size() < 2)
    return std::nullopt;
  const NDArray* c1 = ir.get_const(s1.input[1]);
  const NDArray* c2 = ir.get_const(s2.input[1]);
  if (c1 == nullptr || c2 == nullptr) return std::nullopt;
  if (reduction_of(s1) != reduction_of(s2)) return std::nullopt;
  const int64_t k = p.indices_1_shape.back();
  if (k < 1 || k > 4 || p.indices_2_shape.back() != k) return std::nullopt;
  // Each update holds one data block per index row.
  for (const auto& [ind, upd] : {std::make_pair(&p.indices_1_shape, &p.update_1_shape),
                                 std::make_pair(&p.indices_2_shape, &p.update_2_shape)}) {
    Shape expect(ind->begin(), ind->end() - 1);
    expect.insert(expect.end(), p.data_shape.begin() + k, p.data_shape.end());
    if (expect != *upd) return std::nullopt;
  }
  p.indices_1 = c1->to_i64();
  p.indices_2 = c2->to_i64();
  // Every index inside the data, counted from the front: rows compare as
  // places only then.
  for (const std::vector<int64_t>* ind : {&p.indices_1, &p.indices_2})
    for (size_t e = 0; e < ind->size(); ++e) {
      const int64_t v = (*ind)[e];
      if (v < 0 || v >= p.data_shape[e % k]) return std::nullopt;
    }
  p.const_indices = true;
  return p;
}

std::optional<int64_t> side_by_side_axis(const ScatterPair& p) {
  std::optional<int64_t> axis;
  for (size_t i = 0; i + 1 < p.indices_1_shape.size() && i < p.data_shape.size(); ++i)
    if (p.indices_1_shape[i] + p.indices_2_shape[i] <= p.data_shape[i]) axis = static_cast<int64_t>(i);
  return axis;
}

bool rows_disjoint(const std::vector<int64_t>& a, const std::vector<int64_t>& b, int64_t row_len) {
  std::set<std::vector<int64_t>> seen;
  for (const std::vector<int64_t>* ind : {&a, &b})
    for (size_t r = 0; r + row_len <= ind->size(); r += row_len)
      if (!seen.emplace(ind->begin() + r, ind->begin() + r + row_len).second) return false;
  return true;
}

}  // namespace scatternd_detail
}  // namespace tolm
