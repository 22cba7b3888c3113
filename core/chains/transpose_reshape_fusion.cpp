// Transpose and Reshape neighbours. A Transpose moves past a Reshape that only
// splits axes and merges with the Transpose behind it; a neighbouring pair
// folds into one node where one of the two keeps the data order; otherwise
// the perm changes so that the target runs the Reshape without moving data.
#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "chains/chains.h"
#include "host/edit.h"
#include "host/helpers.h"

namespace tolm {
namespace {

std::optional<Perm> perm_of(const Node& transpose, size_t rank) {
  auto perm = IR::get_attr_ints(transpose, "perm");
  if (!perm || !is_perm_of(*perm, rank)) return std::nullopt;
  return perm;
}

Attr perm_attr(const Perm& perm) { return Attr::make_ints("perm", perm); }

}  // namespace

RuleResult _p_fuse_transpose_reshape_transpose(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.size() < 3) return no_match();
  const NodePtr& transpose0 = nodes[0];
  const NodePtr& reshape = nodes[1];
  const NodePtr& transpose1 = nodes[2];
  if (reshape->input.size() < 2 || reshape->input[0] != transpose0->output[0] ||
      transpose1->input.empty() || transpose1->input[0] != reshape->output[0])
    return no_match();

  const Shape mid1_shape = ir.get_shape(reshape->input[0]);
  const Shape mid2_shape = ir.get_shape(reshape->output[0]);
  if (mid1_shape.empty() || mid2_shape.empty()) return no_match();
  if (mid1_shape.size() != mid2_shape.size()) return no_match();
  const std::vector<Axes> map_fuse = calc_map_fuse(mid1_shape, mid2_shape);
  if (map_fuse.empty()) return no_match();

  const size_t rank = mid1_shape.size();
  const auto perm0 = perm_of(*transpose0, rank);
  const auto perm1 = perm_of(*transpose1, rank);
  if (!perm0 || !perm1) return no_match();
  const Shape out_shape = ir.get_shape(transpose1->output[0]);
  if (out_shape.size() != rank) return no_match();
  // The first Transpose goes and the Reshape's output takes another shape:
  // nothing else may read either tensor.
  if (!only_read_by(ir, transpose0->output[0], *reshape) ||
      !only_read_by(ir, reshape->output[0], *transpose1))
    return no_match();

  // Axis p of the first Transpose's input lands at position i of b, which the
  // Reshape splits into the axes map_fuse[i] of c.
  std::vector<Axes> map0(rank);
  for (size_t i = 0; i < rank; ++i) map0[static_cast<size_t>((*perm0)[i])] = map_fuse[i];
  // Reshaping a the same way gives c' with c's axes in this order; the
  // Transpose from c' to c is its argsort.
  Perm order;
  for (const Axes& run : map0) order.insert(order.end(), run.begin(), run.end());
  if (!is_perm_of(order, rank)) return no_match();
  const Perm perm0_new = inverse_perm(order);
  Perm perm1_new;
  for (int64_t p : *perm1) perm1_new.push_back(perm0_new[static_cast<size_t>(p)]);
  Shape mid_shape(rank);
  for (size_t i = 0; i < rank; ++i) mid_shape[static_cast<size_t>(perm1_new[i])] = out_shape[i];

  replace_input(ir, *reshape, transpose0->output[0], transpose0->input[0]);
  set_own_const(ir, *reshape, 1, NDArray::from_i64(mid_shape), "_fuse");
  ir.set_shape(reshape->output[0], mid_shape);
  ir.set_attr(*transpose1, perm_attr(perm1_new));
  return {{transpose0}, {}};
}

Perm bypass_reshape_perm2(const IR& ir, const Shape& i_shape, const Shape& o_shape) {
  if (i_shape.size() != o_shape.size() || i_shape.size() != 4) return {};
  // `perm` keeps the axes for N and C, `perm_` takes those for H and W.
  Perm perm = {0, 1, 2, 3};
  Perm perm_;
  const int64_t hw = i_shape[2] * i_shape[3];
  int64_t prod = 1;
  for (int64_t i = 3; i >= 0; --i) {
    const int64_t s = o_shape[static_cast<size_t>(i)];
    prod *= s;
    if (prod > hw) break;
    if (s != 1) {
      perm.erase(std::find(perm.begin(), perm.end(), i));
      perm_.insert(perm_.begin(), i);
    }
  }
  if (perm_.size() > 2) return {};
  if (perm_.size() < 2) {
    for (int64_t i = static_cast<int64_t>(perm.size()) - 1; i >= 0 && perm_.size() < 2; --i) {
      const int64_t axis = perm[static_cast<size_t>(i)];
      if (o_shape[static_cast<size_t>(axis)] != 1) continue;
      perm.erase(perm.begin() + i);
      perm_.insert(perm_.begin(), axis);
    }
    if (perm_.size() != 2) return {};
  }
  const int64_t align = align_sub_c(ir);
  const int64_t c = i_shape[1];
  int accepted = -1;
  for (int i : {1, 0}) {
    const int64_t c_ = o_shape[static_cast<size_t>(perm[static_cast<size_t>(i)])];
    if (c_ == c || (c_ % align == 0 && c % align == 0)) {
      accepted = i;
      break;
    }
    if (c_ != 1) return {};
  }
  if (accepted < 0) return {};
  if (accepted == 0) std::swap(perm[0], perm[1]);
  perm.insert(perm.end(), perm_.begin(), perm_.end());
  return perm;
}

RuleResult _p_fuse_reshape_transpose(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.size() < 2) return no_match();
  const size_t rs_idx = nodes[0]->op_type() == "Reshape" ? 0 : 1;
  const NodePtr& reshape = nodes[rs_idx];
  const NodePtr& transpose = nodes[1 - rs_idx];
  if (reshape->op_type() != "Reshape" || transpose->op_type() != "Transpose") return no_match();
  if (reshape->input.size() < 2 || transpose->input.empty()) return no_match();

  const Shape rs_i_shape = ir.get_shape(reshape->input[0]);
  const Shape rs_o_shape = ir.get_shape(reshape->output[0]);
  const Shape tp_i_shape = ir.get_shape(transpose->input[0]);
  const Shape tp_o_shape = ir.get_shape(transpose->output[0]);
  for (const Shape* s : {&rs_i_shape, &rs_o_shape, &tp_i_shape, &tp_o_shape})
    if (!shape_holds_data(*s)) return no_match();
  const auto tp_perm_attr = perm_of(*transpose, tp_i_shape.size());
  if (!tp_perm_attr) return no_match();
  const Perm& tp_perm = *tp_perm_attr;
  // The tensor between the two nodes is dropped or reshaped: only the second
  // node may read it.
  const std::string mid = nodes[0]->output[0];
  if (nodes[1]->input[0] != mid || !only_read_by(ir, mid, *nodes[1])) return no_match();

  // Case A: the Reshape only moves axes of size 1, so it is a Transpose and
  // merges into the other one.
  if (rs_i_shape.size() == rs_o_shape.size() && squeeze_same(rs_i_shape, rs_o_shape)) {
    const Perm rs_perm = get_equivalent_perm_for_reshape(rs_i_shape, rs_o_shape);
    if (rs_perm.size() != rs_i_shape.size()) return no_match();
    Perm tp_perm_new;
    if (rs_idx == 0) {
      for (int64_t i : tp_perm) tp_perm_new.push_back(rs_perm[static_cast<size_t>(i)]);
      replace_input(ir, *transpose, mid, reshape->input[0]);
    } else {
      for (int64_t i : rs_perm) tp_perm_new.push_back(tp_perm[static_cast<size_t>(i)]);
      rename_output(ir, *transpose, mid, reshape->output[0]);
    }
    ir.set_attr(*transpose, perm_attr(tp_perm_new));
    return {{reshape}, {}};
  }

  // Case B: the Transpose only moves axes of size 1, so the Reshape does its
  // work as well.
  Perm perm_not_1;
  for (int64_t p : tp_perm)
    if (tp_i_shape[static_cast<size_t>(p)] != 1) perm_not_1.push_back(p);
  if (std::is_sorted(perm_not_1.begin(), perm_not_1.end())) {
    if (rs_idx == 0) {
      rename_output(ir, *reshape, mid, transpose->output[0]);
      set_own_const(ir, *reshape, 1, NDArray::from_i64(tp_o_shape), "_fuse");
    } else {
      if (!pin_reshape_target(ir, *reshape)) return no_match();
      replace_input(ir, *reshape, mid, transpose->input[0]);
    }
    return {{transpose}, {}};
  }

  // Case C: the Reshape's side of the pair gets its axes of size 1 where the
  // target runs the Reshape in place, and the perm follows.
  const Shape& i_shape = rs_idx == 0 ? rs_i_shape : rs_o_shape;
  const Shape& o_shape = rs_idx == 0 ? rs_o_shape : rs_i_shape;
  const Perm rs_perm = bypass_reshape_perm2(ir, i_shape, o_shape);
  if (rs_perm.empty()) return no_match();
  Perm tp_perm_new;
  if (rs_idx == 0) {
    for (int64_t p : tp_perm) tp_perm_new.push_back(index_of(rs_perm, p));
  } else {
    for (int64_t i : rs_perm) tp_perm_new.push_back(tp_perm[static_cast<size_t>(i)]);
  }
  // Unchanged, the rule would fire on its own result for ever.
  if (tp_perm_new == tp_perm) return no_match();
  // Behind the Transpose, the Reshape reads a tensor of another shape: its
  // target must not copy dimensions of it.
  if (rs_idx == 1 && !can_pin_reshape_target(ir, *reshape)) return no_match();

  NodePtr tp_new = copy_with_attrs(*transpose, {perm_attr(tp_perm_new)});
  const Shape o_shape_new = apply_perm(rs_perm, o_shape);
  if (rs_idx == 0) {
    set_own_const(ir, *reshape, 1, NDArray::from_i64(o_shape_new), "_fuse");
  } else {
    pin_reshape_target(ir, *reshape);
  }
  ir.set_shape(mid, o_shape_new);
  return {{transpose}, {tp_new}};
}

}  // namespace tolm
