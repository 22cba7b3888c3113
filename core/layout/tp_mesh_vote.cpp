// Judging one mesh: the Transpose nodes around it vote for the layout the mesh
// will be held in, every layout-dependent node inside must be able to follow
// it, and each edge tensor gets the rewiring that the rewrite will apply.
#include <algorithm>
#include <set>
#include <sstream>
#include <unordered_set>

#include "layout/tp_mesh_parts.h"

namespace tolm {
namespace {

Perm _get_inverse_perm(const Perm& perm) { return inverse_perm(perm); }

std::optional<Perm> parse_perm(const std::string& text) {
  Perm out;
  std::stringstream ss(text);
  std::string piece;
  while (std::getline(ss, piece, ',')) {
    try {
      out.push_back(std::stoll(piece));
    } catch (...) {
      return std::nullopt;
    }
  }
  return out;
}

// True if the axes larger than 1 keep their relative order under `most_perm`:
// then the permuted tensor holds its data in the same order.
bool order_test(const Perm& most_perm, const Shape& shape) {
  int64_t last = -1;
  for (int64_t p : most_perm) {
    if (p < 0 || p >= static_cast<int64_t>(shape.size())) return false;
    if (shape[p] == 1) continue;
    if (p < last) return false;
    last = p;
  }
  return true;
}

// The shapes a tensor takes: every dynamic-shape profile, or its one shape.
std::vector<Shape> shape_list_of(const IR& ir, const std::string& t, const Shape& shape) {
  auto it = ir.dynamic_shapes.find(t);
  if (it != ir.dynamic_shapes.end() && !it->second.empty()) return it->second;
  return {shape};
}

bool all_in_order(const IR& ir, const std::string& t, const Shape& shape, const Perm& most_perm) {
  for (const Shape& s : shape_list_of(ir, t, shape))
    if (!order_test(most_perm, s)) return false;
  return true;
}

Shape permuted(const Shape& shape, const Perm& perm) {
  Shape out;
  for (int64_t p : perm) out.push_back(p >= 0 && p < static_cast<int64_t>(shape.size()) ? shape[p] : 1);
  return out;
}

int64_t default_axis(const std::string& op_type) {
  // ONNX defaults: the softmax family works on the last axis, the rest on 0.
  if (op_type == "exSoftmax13" || op_type == "LogSoftmax" || op_type == "exGlu") return -1;
  return 0;
}

int64_t norm_axis(int64_t axis, size_t rank) {
  return axis < 0 ? axis + static_cast<int64_t>(rank) : axis;
}

void vote_perm(const Perm& perm, const Shape& shape, OrderedDict<int64_t>& collect) {
  for (const Perm& eq : get_equivalent_perm_for_tp(perm, shape)) ++collect[perm_text(eq)];
}

}  // namespace

void check_follow(const IR& ir, const Node& nod, const Perm& most_perm,
                  const std::function<bool(const std::string&)>& in_free, Names& unsupported) {
  const std::string& op = nod.op_type();
  const size_t rank = most_perm.size();
  auto refuse = [&]() { unsupported.push_back(nod.name()); };
  auto new_axis_of = [&](int64_t axis) { return index_of(most_perm, norm_axis(axis, rank)); };
  const int64_t axis = IR::get_attr_int(nod, "axis").value_or(default_axis(op));

  if (op == "exSoftmax13") {
    const int64_t new_axis = new_axis_of(axis);
    if (new_axis != 1 && new_axis != 3) refuse();
  } else if (op == "exGlu") {
    if (new_axis_of(axis) != 1) refuse();
  } else if (op == "exNorm") {
    const Shape in_shape = ir.get_shape(nod.input[0]);
    const Shape after = permuted(in_shape, most_perm);
    const std::vector<int64_t> axes = IR::get_attr_ints(nod, "axes").value_or(std::vector<int64_t>{});
    std::set<int64_t> moved, kept;
    bool bad = in_shape.size() != rank;
    for (int64_t a : axes) {
      const int64_t n = norm_axis(a, rank);
      if (n < 0 || n >= static_cast<int64_t>(rank)) {
        bad = true;
        break;
      }
      if (in_shape[n] != 1) moved.insert(index_of(most_perm, n));
      if (after[n] != 1) kept.insert(n);
    }
    // The norm keeps its axes: the data it spans must land on them.
    if (bad || moved != kept) refuse();
  } else if (op == "ReduceMax" || op == "Expand") {
    if (!ir.get_const_optional(nod, 1)) refuse();
  } else if (op == "Slice") {
    if (!ir.get_const_optional(nod, 3)) refuse();
  } else if (op == "Gather") {
    const std::string& data = nod.input[0];
    const int64_t a = norm_axis(axis, rank);
    const int64_t new_axis = new_axis_of(axis);
    if (in_free(data) && ir.is_const(data) && new_axis > a) {
      const Shape shape = ir.get_shape(data);
      for (int64_t i = a + 1; i < new_axis; ++i)
        if (i >= static_cast<int64_t>(shape.size()) || shape[i] != 1) {
          refuse();
          break;
        }
    }
  } else if (op == "Conv") {
    // Only a pointwise Conv is indifferent to how N, H and W are arranged.
    for (size_t i = 1; i < nod.input.size(); ++i)
      if (!nod.input[i].empty() && !ir.is_const(nod.input[i])) {
        refuse();
        break;
      }
    std::vector<int64_t> kernel;
    if (auto k = IR::get_attr_ints(nod, "kernel_shape")) {
      kernel = *k;
    } else if (nod.input.size() > 1 && ir.get_const(nod.input[1])) {
      const Shape& w = ir.get_const(nod.input[1])->shape();
      if (w.size() > 2) kernel.assign(w.begin() + 2, w.end());
    }
    const auto strides = IR::get_attr_ints(nod, "strides").value_or(std::vector<int64_t>{1, 1});
    const auto pads = IR::get_attr_ints(nod, "pads").value_or(std::vector<int64_t>{0, 0, 0, 0});
    if (kernel != std::vector<int64_t>{1, 1} || strides != std::vector<int64_t>{1, 1} ||
        pads != std::vector<int64_t>{0, 0, 0, 0})
      refuse();
    if (rank < 2 || most_perm[1] != 1) refuse();
    // A batch folded up from the spatial axes must stay small.
    const Shape in_shape = ir.get_shape(nod.input[0]);
    if (in_shape.size() != rank || in_shape[0] <= 0) {
      refuse();
    } else {
      const Shape after = permuted(in_shape, most_perm);
      if (after[0] > 16 && after[0] / in_shape[0] > 2) refuse();
    }
  }
}


Perm _func_tp_perm(const IR& ir, const Node& tp) {
  if (auto p = IR::get_attr_ints(tp, "perm")) return *p;
  const size_t rank = tp.input.empty() ? 0 : ir.get_shape(tp.input[0]).size();
  Perm rev(rank);
  for (size_t i = 0; i < rank; ++i) rev[i] = static_cast<int64_t>(rank - 1 - i);
  return rev;
}

ReshapeCarry _func_carry_reshape(const Shape& rs_in, const Shape& rs_out, const Perm& tp_perm,
                                 const Perm& most_perm) {
  ReshapeCarry out;
  const std::vector<IndependentPart> dep_part = seperate_independent_part_for_reshape(rs_in, rs_out);
  // Each group of input axes must stay together and in order in the new
  // layout, or the Reshape would have to move data.
  for (const IndependentPart& part : dep_part) {
    const Axes& run = part.first;
    if (run.empty()) continue;
    auto it = std::search(most_perm.begin(), most_perm.end(), run.begin(), run.end());
    if (it == most_perm.end()) return out;
  }
  Axes sym;
  size_t start = 0;
  const size_t n_out = rs_out.size();
  while (sym.size() < n_out) {
    const size_t loop_start_len = sym.size();
    for (size_t i = start; i < n_out; ++i) {
      const size_t lo = std::min(start, most_perm.size());
      const size_t hi = std::min(i + 1, most_perm.size());
      const Axes cur_p(most_perm.begin() + lo, most_perm.begin() + hi);
      for (const IndependentPart& part : dep_part)
        if (part.first == cur_p) {
          sym.insert(sym.end(), part.second.begin(), part.second.end());
          break;
        }
    }
    start = sym.size();
    if (start == loop_start_len) return out;
  }
  if (sym.size() != n_out || tp_perm.size() != n_out) return out;
  for (int64_t p : sym)
    if (p < 0 || p >= static_cast<int64_t>(n_out)) return out;
  Shape new_rs_out;
  for (int64_t p : sym) new_rs_out.push_back(rs_out[p]);
  Perm new_perm;
  for (int64_t p : tp_perm) {
    const int64_t k = index_of(sym, p);
    if (k < 0) return out;
    new_perm.push_back(k);
  }
  out.new_tp_out = permuted(new_rs_out, new_perm);
  out.new_rs_out = new_rs_out;
  out.new_rs_next_tp_perm = new_perm;
  out.ok = true;
  return out;
}

std::string perm_text(const Perm& perm) {
  std::string s;
  for (size_t i = 0; i < perm.size(); ++i) {
    if (i) s += ",";
    s += std::to_string(perm[i]);
  }
  return s;
}

RankSay rank_say(const IR& ir, const std::string& t_name, size_t* rank) {
  const Shape shape = ir.get_shape(t_name);
  if (shape.empty()) {
    const NDArray* c = ir.get_const(t_name);
    return (!c || c->size() > 1) ? RankSay::kFail : RankSay::kNothing;
  }
  // A [1] constant broadcasts in any layout and never sets the rank.
  if (shape == Shape{1} && ir.is_const(t_name)) return RankSay::kNothing;
  *rank = shape.size();
  return RankSay::kRank;
}

bool touches_mesh_op(const IR& ir, const MeshOps& ops, const std::string& t_name) {
  for (const NodePtr& n : ir.next_nodes(t_name))
    if (ops.free_type(n->op_type())) return true;
  for (const NodePtr& n : ir.pre_nodes(t_name))
    if (ops.free_type(n->op_type())) return true;
  return false;
}

int64_t judge_cross_tp(const IR& ir, const Node& nod, const Perm& most_perm, size_t rank) {
  if (ir.next_nodes(nod.input[0]).size() > 1 || ir.pre_nodes(nod.output[0]).size() > 1 ||
      ir.is_output(nod.input[0]) || ir.is_output(nod.output[0]))
    return 2;
  const Perm perm = _func_tp_perm(ir, nod);
  if (!is_perm_of(perm, rank)) return 2;
  const Perm inverse = _get_inverse_perm(most_perm);
  Perm new_perm;
  for (int64_t p : perm) new_perm.push_back(inverse[p]);
  // A crossing Transpose that the new layout turns into the identity goes.
  return is_identity_perm(permuted(new_perm, most_perm)) ? -1 : 0;
}

EdgeVerdict judge_edge_tensor(const IR& ir, const std::string& t_name, const Perm& most_perm,
                              const std::function<bool(const Node&)>& in_pass,
                              OrderedDict<std::string>* tp_dir) {
  EdgeVerdict verdict;
  int64_t& tp_num = verdict.tp_delta;
  const NodeList next_nodes = ir.next_nodes(t_name);
  const NodeList pre_nodes = ir.pre_nodes(t_name);
  const Shape shape = ir.get_shape(t_name);
  const NodePtr pre_node = (!ir.is_input(t_name) && !pre_nodes.empty()) ? pre_nodes[0] : nullptr;
  bool next_require_src_layout = ir.is_output(t_name);
  std::string type;

  if (pre_node && in_pass(*pre_node)) {
    // Made inside the mesh: consumers outside it may need the old layout back.
    int64_t rs_unchanged_rm_tp_num = 0;
    for (const NodePtr& nod : next_nodes) {
      if (nod->op_type() == "Transpose") {
        if (check_equivalent_perm_for_tp(ir, t_name, _func_tp_perm(ir, *nod), most_perm))
          tp_num -= 1;
        if (tp_dir) (*tp_dir)[nod->name()] = "down";
      } else if (nod->op_type() == "Reshape") {
        const Shape in_shape = ir.get_shape(nod->input[0]);
        if (order_test(most_perm, in_shape)) {
          if (!all_in_order(ir, nod->input[0], in_shape, most_perm))
            next_require_src_layout = true;
          continue;
        }
        const std::string& rs_out = nod->output[0];
        const NodeList rs_next = ir.next_nodes(rs_out);
        const Shape rs_out_shape = ir.get_shape(rs_out);
        if (ir.is_output(rs_out) || rs_next.size() != 1 || rs_next[0]->op_type() != "Transpose" ||
            in_shape == rs_out_shape) {
          next_require_src_layout = true;
          continue;
        }
        const Perm rs_next_tp_perm = _func_tp_perm(ir, *rs_next[0]);
        const ReshapeCarry carry =
            _func_carry_reshape(in_shape, rs_out_shape, rs_next_tp_perm, most_perm);
        if (!carry.ok || carry.new_tp_out != ir.get_shape(rs_next[0]->output[0])) {
          next_require_src_layout = true;
          continue;
        }
        Perm iota(carry.new_rs_out.size());
        for (size_t i = 0; i < iota.size(); ++i) iota[i] = static_cast<int64_t>(i);
        const auto eq = get_equivalent_perm_for_tp(rs_next_tp_perm, carry.new_rs_out);
        if (std::find(eq.begin(), eq.end(), iota) != eq.end()) rs_unchanged_rm_tp_num += 1;
      } else if (!in_pass(*nod)) {
        next_require_src_layout = true;
      }
    }
    if (next_require_src_layout) {
      type = "insert_tp_for_next";
    } else {
      tp_num -= rs_unchanged_rm_tp_num;
      type = "unchanged";
    }
  } else {
    // Made outside the mesh: the tensor must be brought into the new layout.
    std::string mountable_tp;
    for (const NodePtr& nod : next_nodes) {
      if (!in_pass(*nod) && nod->op_type() != "Transpose") next_require_src_layout = true;
      if (nod->op_type() == "Transpose") {
        if (check_equivalent_perm_for_tp(ir, t_name, _func_tp_perm(ir, *nod), most_perm)) {
          if (mountable_tp.empty())
            mountable_tp = nod->output[0];
          else
            tp_num -= 1;
        }
        if (tp_dir) (*tp_dir)[nod->name()] = "down";
      }
    }
    if (!mountable_tp.empty()) {
      type = "mount:" + mountable_tp;
    } else if (ir.is_output(t_name)) {
      type = "insert_tp";
    } else if (pre_node && pre_node->op_type() == "Transpose") {
      if (tp_dir) (*tp_dir)[pre_node->name()] = "up";
      const Perm perm = _func_tp_perm(ir, *pre_node);
      if (is_perm_of(perm, perm.size()) &&
          check_equivalent_perm_for_tp(ir, t_name, _get_inverse_perm(perm), most_perm))
        type = next_require_src_layout ? "bypass_top_tp" : "remove_top_tp";
      else
        type = next_require_src_layout ? "insert_tp" : "merge_top_tp";
    } else if (pre_node && pre_node->op_type() == "Reshape") {
      type = (all_in_order(ir, t_name, shape, most_perm) && !next_require_src_layout)
                 ? "merge_top_rs"
                 : "insert_tp";
    } else if (next_nodes.size() == 1 && next_nodes[0]->op_type() == "Reshape") {
      type = all_in_order(ir, t_name, shape, most_perm) ? "merge_bottom_rs" : "insert_tp";
    } else {
      type = "insert_tp";
    }
  }
  if (type == "insert_tp" || type == "insert_tp_for_next") tp_num += 1;
  if (type == "remove_top_tp") tp_num -= 1;
  verdict.type = std::move(type);
  return verdict;
}

OptResult judge_mesh(IR& ir, const MeshOps& ops, const Names& tp_free_tensors,
                     Names& tp_block_tensors, OrderedDict<std::string>* tp_dir) {
  const OptResult failed_case_return;

  // Every tensor of the mesh must have the same rank; a constant of one
  // element broadcasts in any layout.
  std::optional<size_t> uniform_rank;
  for (const Names* list : {&tp_free_tensors, static_cast<const Names*>(&tp_block_tensors)}) {
    for (const std::string& t_name : *list) {
      size_t rank = 0;
      const RankSay say = rank_say(ir, t_name, &rank);
      if (say == RankSay::kFail) return failed_case_return;
      if (say == RankSay::kNothing) continue;
      if (!uniform_rank) {
        uniform_rank = rank;
      } else if (rank != *uniform_rank) {
        return failed_case_return;
      }
    }
  }

  // The Transpose nodes around the mesh vote; one met a second time has
  // both its tensors on the edge.
  OrderedDict<int64_t> all_perms;
  NameSet tp_refer;
  Names change_cross_tp;
  for (const std::string& t_name : tp_block_tensors) {
    if (!touches_mesh_op(ir, ops, t_name)) return failed_case_return;
    const NodeList next_nodes = ir.next_nodes(t_name);
    const NodeList pre_nodes = ir.pre_nodes(t_name);
    const Shape shape = ir.get_shape(t_name);
    for (const NodePtr& nod : pre_nodes) {
      if (nod->op_type() != "Transpose") continue;
      if (!tp_refer.insert(nod->name()).second) {
        change_cross_tp.push_back(nod->name());
        continue;
      }
      const Perm perm = _func_tp_perm(ir, *nod);
      if (!is_perm_of(perm, perm.size())) return failed_case_return;
      vote_perm(_get_inverse_perm(perm), shape, all_perms);
    }
    for (const NodePtr& nod : next_nodes) {
      if (nod->op_type() != "Transpose") continue;
      if (!tp_refer.insert(nod->name()).second) {
        change_cross_tp.push_back(nod->name());
        continue;
      }
      vote_perm(_func_tp_perm(ir, *nod), shape, all_perms);
    }
  }

  if (all_perms.empty()) return failed_case_return;
  std::optional<std::string> most_perm_str;
  if (ir.dynamic_idx && *ir.dynamic_idx > 0 && ir.tmp_reduce_tp_cache.set) {
    // Later shape profiles keep the layout the first one chose, while it is
    // still on the ballot.
    most_perm_str = ir.tmp_reduce_tp_cache.most_perm;
    if (!all_perms.find(*most_perm_str)) most_perm_str.reset();
  }
  if (!most_perm_str) {
    int64_t best = -1;
    for (const auto& kv : all_perms.items())
      if (kv.second > best) {
        best = kv.second;
        most_perm_str = kv.first;
      }
  }
  if (ir.dynamic_idx && *ir.dynamic_idx == 0) {
    ir.tmp_reduce_tp_cache.set = true;
    ir.tmp_reduce_tp_cache.free_tensors = tp_free_tensors;
    ir.tmp_reduce_tp_cache.block_tensors = tp_block_tensors;
    ir.tmp_reduce_tp_cache.most_perm = *most_perm_str;
  }
  const std::optional<Perm> parsed = parse_perm(*most_perm_str);
  const size_t rank = uniform_rank.value_or(0);
  if (!parsed || !is_perm_of(*parsed, rank)) return failed_case_return;
  const Perm most_perm = *parsed;

  Names tp_tensors = tp_free_tensors;
  tp_tensors.insert(tp_tensors.end(), tp_block_tensors.begin(), tp_block_tensors.end());
  const NameSet in_mesh(tp_tensors.begin(), tp_tensors.end());
  auto pass = mesh_pass_ops(ir, ops, tp_tensors, in_mesh);
  const NameSet pass_set(pass.first.begin(), pass.first.end());
  const NameSet free_set(tp_free_tensors.begin(), tp_free_tensors.end());
  Names tp_change_unsupport_op;
  for (const NodePtr& nod : _func_nodes_named(ir, pass.second))
    check_follow(ir, *nod, most_perm, [&](const std::string& t) { return free_set.count(t) != 0; },
                 tp_change_unsupport_op);
  if (!tp_change_unsupport_op.empty()) {
    OptResult refused;
    refused.tp_change_unsupport_op = std::move(tp_change_unsupport_op);
    return refused;
  }

  OptResult res;
  res.change_cross_tp = change_cross_tp;
  res.tp_free_pass_op = std::move(pass.first);
  res.param_changed_ops = std::move(pass.second);
  int64_t& tp_num = res.tp_num;
  auto& t_process_type = res.t_process_type;

  // Each crossing Transpose takes its two tensors off the edge: the first
  // place of each, once per time it is named.
  std::unordered_map<std::string, int64_t> drop;
  for (const std::string& n_name : change_cross_tp) {
    const NodePtr nod = ir.find_node(n_name);
    if (!nod) continue;
    t_process_type[nod->input[0]] = "change_cross_tp";
    ++drop[nod->input[0]];
    ++drop[nod->output[0]];
    tp_num += judge_cross_tp(ir, *nod, most_perm, rank);
  }
  if (!drop.empty()) {
    Names kept;
    kept.reserve(tp_block_tensors.size());
    for (const std::string& t : tp_block_tensors) {
      auto it = drop.find(t);
      if (it != drop.end() && it->second > 0) {
        --it->second;
        continue;
      }
      kept.push_back(t);
    }
    tp_block_tensors = std::move(kept);
  }

  auto in_pass = [&](const Node& n) { return pass_set.count(n.name()) != 0; };
  for (const std::string& t_name : tp_block_tensors) {
    EdgeVerdict v = judge_edge_tensor(ir, t_name, most_perm, in_pass, tp_dir);
    t_process_type[t_name] = std::move(v.type);
    tp_num += v.tp_delta;
  }

  res.most_perm = most_perm;
  return res;
}

OptResult _func_compute_opt_result(IR& ir, const Names& tp_free_op_type,
                                   const Names& tp_change_param_op_type,
                                   const OpIoIgnore& op_io_ignore_dicts,
                                   const Names& tp_free_tensors, Names& tp_block_tensors,
                                   OrderedDict<std::string>* tp_dir,
                                   const Names& last_time_tp_change_unsupport_op) {
  const MeshOps ops(tp_free_op_type, tp_change_param_op_type, op_io_ignore_dicts,
                    last_time_tp_change_unsupport_op);
  return judge_mesh(ir, ops, tp_free_tensors, tp_block_tensors, tp_dir);
}

NodeList _func_nodes_named(const IR& ir, const std::vector<std::string>& names) {
  NodeList out;
  std::unordered_set<const Node*> seen;
  for (const std::string& name : names) {
    NodePtr n = ir.find_node(name);
    if (n && seen.insert(n.get()).second) out.push_back(std::move(n));
  }
  std::sort(out.begin(), out.end(), [](const NodePtr& a, const NodePtr& b) {
    return a->order() != b->order() ? a->order() < b->order() : a->uid() < b->uid();
  });
  return out;
}

}  // namespace tolm
