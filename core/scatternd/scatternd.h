// Rules on ScatterND: two chained writes into one tensor become one write,
// a write that repeats the one before goes, and a read-add-write-back becomes
// one write with a reduction. They keep KV-cache updates to one operator.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "reduce/rule.h"

namespace tolm {

// Two chained writes to disjoint places of one 4-D tensor become one, their
// constant indices and their updates joined; a private Conv that makes a
// narrower update is widened with zero filters where that writes only zeros
// over zeros.
RuleResult _p_fuse_two_scatternd(IR& ir, const NodeList& nodes, QuantTable* quant_tab);

// The same for writes whose updates differ in size on a second axis: the
// smaller write is padded with the values constant data already holds.
RuleResult _p_fuse_two_scatternd2(IR& ir, const NodeList& nodes, QuantTable* quant_tab);

// A second write of the same updates to the same places goes.
RuleResult _p_remove_redundant_scatternd(IR& ir, const NodeList& nodes, QuantTable* quant_tab);

// Gather, Add and a ScatterND writing the sum back where it was read: one
// ScatterND that adds.
RuleResult _p_fuse_to_reduction_scatternd(IR& ir, const NodeList& nodes, QuantTable* quant_tab);

namespace scatternd_detail {

// What the pair rules read off two chained ScatterND nodes.
struct ScatterPair {
  Shape data_shape, indices_1_shape, indices_2_shape, update_1_shape, update_2_shape;
  std::vector<int64_t> indices_1, indices_2;  // empty when not constant
  bool const_indices = false;
};

// The reduction a ScatterND does, "none" when unset.
std::string reduction_of(const Node& n);

// The guards both pair fusions share, on the matched (scatternd_1,
// scatternd_2): scatternd_2 writes over scatternd_1's result, which no one
// else reads; data and updates are 4-D with known shapes; indices of one
// rank, constant, of one row length, inside the data; the same reduction.
// Absent when one fails.
std::optional<ScatterPair> fusable_pair(const IR& ir, const NodeList& nodes);

// The last axis below the index row axis on which the two index blocks fit
// side by side within the data's size; absent if none.
std::optional<int64_t> side_by_side_axis(const ScatterPair& p);

// No index row occurs twice among the rows of both blocks (each `row_len`
// entries long).
bool rows_disjoint(const std::vector<int64_t>& a, const std::vector<int64_t>& b, int64_t row_len);

}  // namespace scatternd_detail

}  // namespace tolm
