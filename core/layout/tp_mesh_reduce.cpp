// The transpose mesh rule: from one Transpose, grow the region of operators
// that do not care about layout, let the vote judge it, and, if that saves
// Transpose nodes, move the whole region into the voted layout.
#include <algorithm>
#include <cstring>
#include <set>
#include <unordered_map>
#include <unordered_set>

#include "host/builder.h"
#include "host/edit.h"
#include "host/log.h"
#include "layout/tp_mesh_parts.h"

namespace tolm {
namespace {

// A snapshot is kept only while the mesh is this small; past it the search
// stops at the next fork.
constexpr size_t kMaxFreeTensors = 100;
// Attempts per rule call, each excluding the nodes the previous ones refused.
constexpr int kMaxRetries = 5;
// A failed region of up to this many tensors is left to be grown again from
// its other Transpose nodes: a search started elsewhere meets the forks in
// another order and may find a smaller mesh inside it that pays. A larger
// one is paused whole, so that regrowing it from each Transpose on its edge
// in turn cannot cost its size times the number of those Transpose nodes.
constexpr size_t kRegrowableRegion = 100;

bool has_duplicates(const Names& list) {
  Names sorted = list;
  std::sort(sorted.begin(), sorted.end());
  return std::adjacent_find(sorted.begin(), sorted.end()) != sorted.end();
}

// `[values[p] for p in perm]`; entries out of range stay as they are.
std::vector<int64_t> take(const std::vector<int64_t>& values, const Perm& perm) {
  std::vector<int64_t> out;
  for (int64_t p : perm) out.push_back(p >= 0 && p < static_cast<int64_t>(values.size()) ? values[p] : 1);
  return out;
}

Attr perm_attr(const Perm& perm) { return Attr::make_ints("perm", perm); }

// The constant's data rearranged so that new[i] = old[perm[i]] along its axes.
NDArray transpose_const(const NDArray& data, const Perm& perm) {
  const Shape& shape = data.shape();
  const size_t rank = shape.size();
  const Shape out_shape = take(shape, perm);
  const int64_t n = data.size();
  std::vector<int64_t> in_strides(rank, 1);
  for (size_t i = rank; i-- > 1;) in_strides[i - 1] = in_strides[i] * shape[i];
  // Source offset of every destination element, walked in row-major order.
  std::vector<int64_t> src(static_cast<size_t>(n));
  std::vector<int64_t> idx(rank, 0);
  for (int64_t k = 0; k < n; ++k) {
    int64_t off = 0;
    for (size_t i = 0; i < rank; ++i) off += idx[i] * in_strides[perm[i]];
    src[static_cast<size_t>(k)] = off;
    for (size_t i = rank; i-- > 0;) {
      if (++idx[i] < out_shape[i]) break;
      idx[i] = 0;
    }
  }
  if (data.dtype() == dt::STRING) {
    std::vector<std::string> vals(static_cast<size_t>(n));
    for (int64_t k = 0; k < n; ++k) vals[k] = data.strings()[src[k]];
    return NDArray::from_strings(vals, out_shape);
  }
  const size_t es = dtype_size(data.dtype());
  std::vector<uint8_t> raw(static_cast<size_t>(n) * es);
  for (int64_t k = 0; k < n; ++k) std::memcpy(&raw[k * es], &data.raw()[src[k] * es], es);
  return NDArray(data.dtype(), out_shape, std::move(raw));
}

// Gives `node` input `idx` the constant `value`; one that others read as
// well is left to them.
void set_node_const(IR& ir, Node& node, size_t idx, const NDArray& value) {
  set_own_const(ir, node, idx, value, "_mesh");
}

// Every consumer of the Transpose reads `new_in` instead of its output.
void _pass_tp(IR& ir, const Node& tp, const std::string& new_in) {
  replace_all_uses(ir, tp.output[0], new_in);
}

const Names& tp_change_param_op_type() {
  static const Names kTypes = {"ArgMax", "ArgMin", "Split",   "Concat", "Gather",
                               "exSoftmax13", "LogSoftmax", "ReduceMax", "exNorm",
                               "exGlu", "Expand", "Slice", "Conv"};
  return kTypes;
}

const Names& tp_free_op_type() {
  static const Names kTypes = [] {
    Names t = {"Abs",      "Add",         "And",       "Asin",       "Acos",     "Atan",
               "Cast",     "Ceil",        "Cos",       "Div",        "Dropout",  "Exp",
               "Erf",      "Equal",       "Floor",     "Greater",    "Hardmax",  "Identity",
               "Less",     "Log",         "Mod",       "Mul",        "Neg",      "NonZero",
               "Not",      "Or",          "Pow",       "Sigmoid",    "Sign",     "Sin",
               "Sinh",     "Sqrt",        "Sub",       "Tan",        "Tanh",     "Where",
               "Clip",     "Celu",        "Elu",       "Gelu",       "HardSigmoid",
               "LeakyRelu", "LogSigmoid", "Prelu",     "Relu",       "Selu",     "Softplus",
               "Softsign", "ThresholdedRelu"};
    const Names& p = tp_change_param_op_type();
    t.insert(t.end(), p.begin(), p.end());
    return t;
  }();
  return kTypes;
}

const OpIoIgnore& op_io_ignore_dicts() {
  // Weights, index and parameter operands keep their layout.
  static const OpIoIgnore kIgnore = {{{"Split", {1}},
                                      {"Gather", {1}},
                                      {"Clip", {2, 3}},
                                      {"ReduceMax", {1}},
                                      {"Expand", {1}},
                                      {"Slice", {1, 2, 3, 4}},
                                      {"Conv", {1, 2}}},
                                     {}};
  return kIgnore;
}

int64_t default_axis(const std::string& op_type) {
  if (op_type == "exSoftmax13" || op_type == "LogSoftmax" || op_type == "exGlu") return -1;
  return 0;
}

RuleResult retry_mesh(IR& ir, const NodeList& nodes, QuantTable* quant_tab,
                      const std::string& direction) {
  Names last_time_tp_change_unsupport_op;
  int count = 0;
  while (true) {
    MeshResult result =
        _p_reduce_tp_in_mesh(ir, nodes, quant_tab, direction, last_time_tp_change_unsupport_op);
    if (!result.has_unsupported) return {std::move(result.remove), std::move(result.add)};
    ++count;
    last_time_tp_change_unsupport_op.insert(last_time_tp_change_unsupport_op.end(),
                                            result.unsupported.begin(), result.unsupported.end());
    if (count > kMaxRetries) return no_match();
  }
}

}  // namespace

MeshGrowth grow_mesh(IR& ir, const MeshOps& ops, Names candidate_tensors,
                     const ForkJudge& pays_at_fork) {
  // The lists only grow while the mesh does, so a snapshot is their lengths.
  MeshGrowth g;
  OrderedDict<Names> branch_tensors_dict;
  size_t head = 0;  // candidate_tensors is a queue; entries before head are taken
  while (head < candidate_tensors.size() || !branch_tensors_dict.empty()) {
    if (head < candidate_tensors.size()) {
      const std::string t = candidate_tensors[head++];
      classify_tensor(ir, ops, t, g.free_l, g.block_l, candidate_tensors, g.branch_l,
                      branch_tensors_dict);
      continue;
    }
    // At a fork: judge the mesh as it stands, with every fork met so far as
    // its edge, and remember it if it pays.
    if (pays_at_fork(g.free_l, g.block_l, g.branch_l)) {
      g.has_history = true;
      g.hist_free = g.free_l.size();
      g.hist_block = g.block_l.size();
      g.hist_branch = g.branch_l.size();
      if (g.hist_free > kMaxFreeTensors) {
        for (const std::string& t : g.branch_l.list()) g.block_l.push_back(t);
        break;
      }
    }
    const std::string _t = branch_tensors_dict.front().first;
    const Names around = branch_tensors_dict.front().second;
    branch_tensors_dict.erase(_t);
    candidate_tensors.insert(candidate_tensors.end(), around.begin(), around.end());
    if (!g.free_l.has(_t) && !g.block_l.has(_t)) g.free_l.push_back(_t);
  }
  return g;
}

MeshResult _p_reduce_tp_in_mesh(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/,
                                const std::string& direction,
                                const Names& last_time_tp_change_unsupport_op) {
  MeshResult out;
  if (nodes.empty() || nodes[0]->output.empty() || nodes[0]->input.empty()) return out;
  const Shape o_shape = ir.get_shape(nodes[0]->output[0]);
  if (o_shape.size() != 4) return out;

  const MeshOps ops(tp_free_op_type(), tp_change_param_op_type(), op_io_ignore_dicts(),
                    last_time_tp_change_unsupport_op);

  // ---- grow the mesh ---------------------------------------------------------
  MeshTally tally(ir, ops);
  MeshGrowth grown = grow_mesh(
      ir, ops, direction == "forward" ? nodes[0]->output.names() : nodes[0]->input.names(),
      [&](const IndexedNames& f, const IndexedNames& b, const IndexedNames& r) {
        return tally.pays(f, b, r);
      });
  const IndexedNames& free_l = grown.free_l;
  const IndexedNames& block_l = grown.block_l;
  const IndexedNames& branch_l = grown.branch_l;
  const bool has_history = grown.has_history;
  const size_t hist_free = grown.hist_free, hist_block = grown.hist_block,
               hist_branch = grown.hist_branch;
  tally.write_cache(free_l, block_l, branch_l);

  Names tp_block_tensors = block_l.list();
  Names tp_free_tensors;
  for (const std::string& t : free_l.list())
    if (!block_l.has(t)) tp_free_tensors.push_back(t);
  if (has_duplicates(tp_free_tensors) || has_duplicates(tp_block_tensors)) return out;

  // ---- judge it --------------------------------------------------------------
  OrderedDict<std::string> tp_dir;
  Names judged_edge = tp_block_tensors;
  OptResult res = judge_mesh(ir, ops, tp_free_tensors, tp_block_tensors, &tp_dir);
  if (!res.most_perm && has_history) {
    // The fully grown mesh does not work out: fall back to the last fork
    // at which it paid.
    const Names& fl = free_l.list();
    const Names& bl = block_l.list();
    const Names& rl = branch_l.list();
    tp_free_tensors.assign(fl.begin(), fl.begin() + static_cast<std::ptrdiff_t>(hist_free));
    tp_block_tensors.assign(bl.begin(), bl.begin() + static_cast<std::ptrdiff_t>(hist_block));
    tp_block_tensors.insert(tp_block_tensors.end(), rl.begin(),
                            rl.begin() + static_cast<std::ptrdiff_t>(hist_branch));
    judged_edge = tp_block_tensors;
    res = judge_mesh(ir, ops, tp_free_tensors, tp_block_tensors, &tp_dir);
  }
  const bool profitable =
      res.most_perm && res.tp_num < 0 &&
      tp_block_tensors.size() == res.t_process_type.size() - res.change_cross_tp.size();
  if (!profitable) {
    // Each Transpose of this mesh would only find the same mesh again.
    std::set<std::pair<std::string, std::string>> paused;
    auto pause = [&](const std::string& ruler, const std::string& tp) {
      if (paused.emplace(ruler, tp).second) ir.op_ruler_pause[ruler].push_back(tp);
    };
    for (const auto& kv : tp_dir.items())
      pause(std::string("reduce_tp_in_mesh_") + (kv.second == "up" ? "forward" : "backward"),
            kv.first);
    const bool large = tp_free_tensors.size() + judged_edge.size() > kRegrowableRegion;
    if (res.tp_change_unsupport_op.empty() && large) {
      // Not a layout that some nodes refused, which a retry without them
      // may mend, but a large region that does not pay: every Transpose on
      // its edge, started from the side that faces the region, grows it
      // again. All of them rest until the next round.
      for (const std::string& t : judged_edge) {
        for (const NodePtr& p : ir.pre_nodes(t))
          if (p->op_type() == "Transpose") pause("reduce_tp_in_mesh_forward", p->name());
        for (const NodePtr& c : ir.next_nodes(t))
          if (c->op_type() == "Transpose") pause("reduce_tp_in_mesh_backward", c->name());
      }
    }
    if (!res.tp_change_unsupport_op.empty()) {
      out.has_unsupported = true;
      out.unsupported = res.tp_change_unsupport_op;
    }
    return out;
  }

  // ---- rewrite ---------------------------------------------------------------
  const Perm most_perm = *res.most_perm;
  const Names& tp_free_pass_op = res.tp_free_pass_op;
  const Names& param_changed_ops = res.param_changed_ops;
  const Perm perm_for_prev = most_perm;
  const Perm perm_for_next = inverse_perm(most_perm);
  NodeList rm_ops;
  Graph g(ir);
  auto new_shape_of = [&](const Shape& shape) { return take(shape, perm_for_prev); };
  const NameSet pass_set(tp_free_pass_op.begin(), tp_free_pass_op.end());
  const NameSet cross_set(res.change_cross_tp.begin(), res.change_cross_tp.end());
  std::unordered_set<const Node*> rm_set;
  auto in_pass = [&](const NodePtr& n) { return pass_set.count(n->name()) != 0; };
  auto pass_reader = [&](const Node& n) { return pass_set.count(n.name()) != 0; };
  auto remove_node = [&](const NodePtr& n) {
    if (rm_set.insert(n.get()).second) rm_ops.push_back(n);
  };
  auto transpose_op = [&](const std::string& in, const Perm& perm) {
    OpSpec opts;
    opts.attrs = {perm_attr(perm)};
    return g.op("Transpose", {in}, opts);
  };
  // A Transpose that goes: its readers take `x`; a graph output it wrote
  // keeps its name through an Identity.
  auto drop_tp = [&](const NodePtr& nod, const std::string& x) {
    remove_node(nod);
    if (ir.is_output(nod->output[0])) {
      OpSpec opts;
      opts.outputs = nod->output.names();
      g.op("Identity", {x}, opts);
    }
    _pass_tp(ir, *nod, x);
  };
  // A Transpose that now reads `x`, a tensor in the new layout: it goes if
  // the new layout is what it made, else its perm absorbs the change. Whether
  // it made the new layout is judged on the shape `x` had before: call this
  // before `x` takes its new shape (with dimensions of size 1, two perms can
  // act alike on one shape and not on the other).
  auto fix_consumer = [&](const NodePtr& nod, const std::string& x) {
    const Perm perm = _func_tp_perm(ir, *nod);
    if (check_equivalent_perm_for_tp(ir, x, perm, most_perm)) {
      drop_tp(nod, x);
    } else {
      ir.set_attr(*nod, perm_attr(take(perm_for_next, perm)));
    }
  };

  for (const auto& entry : res.t_process_type.items()) {
    const std::string t_name = entry.first;
    const std::string& type = entry.second;
    const NodeList pre_nodes = ir.pre_nodes(t_name);
    const NodeList next_nodes = ir.next_nodes(t_name);
    const Shape shape = ir.get_shape(t_name);
    const Shape new_shape = new_shape_of(shape);
    const NodePtr pre = pre_nodes.empty() ? nullptr : pre_nodes[0];

    if (type == "change_cross_tp") {
      const NodePtr cross = next_nodes.empty() ? nullptr : next_nodes[0];
      const bool made_inside = pre && in_pass(pre) && !ir.is_input(t_name);
      const bool rework = made_inside && cross && next_nodes.size() == 1 &&
                          !ir.is_output(t_name) && ir.next_nodes(*cross).size() == 1 &&
                          !ir.is_output(cross->output[0]);
      if (rework) {
        ir.set_shape(t_name, new_shape, false);
        const Perm new_perm = take(take(perm_for_next, _func_tp_perm(ir, *cross)), most_perm);
        remove_node(cross);
        if (is_identity_perm(new_perm)) {
          _pass_tp(ir, *cross, t_name);
        } else {
          OpSpec opts;
          opts.outputs = cross->output.names();
          opts.attrs = {perm_attr(new_perm)};
          g.op("Transpose", {t_name}, opts);
          ir.set_shape(cross->output[0], take(new_shape, new_perm), false);
        }
        continue;
      }
      // t_name keeps the old layout for the crossing Transpose and whoever
      // else reads it; the mesh reads a copy in the new layout.
      std::string src_new;
      if (made_inside) {
        OpSpec opts;
        opts.outputs = {t_name};
        opts.attrs = {perm_attr(perm_for_next)};
        src_new = g.op("Transpose", {Absent{}}, opts);
        rename_output(ir, *pre, t_name, src_new);
        ir.set_shape(src_new, new_shape, false, ir.get_dtype(t_name));
      } else {
        src_new = transpose_op(t_name, most_perm);
      }
      replace_uses_if(ir, t_name, src_new, pass_reader);
      for (const NodePtr& tp : next_nodes) {
        if (tp->op_type() != "Transpose" || !cross_set.count(tp->name())) continue;
        const std::string tp_out = tp->output[0];
        const std::string back = transpose_op(tp_out, most_perm);
        replace_uses_if(ir, tp_out, back, pass_reader);
      }
    } else if (type == "insert_tp_for_next") {
      const std::string new_in = transpose_op(t_name, perm_for_next);
      // Not in the graph yet: the new node's ends are its own to set.
      Node& back = *g.nodes.back();
      back.input.set(0, new_in);
      back.output.set(0, t_name);
      if (pre) rename_output(ir, *pre, t_name, new_in);
      replace_uses_if(ir, t_name, new_in, pass_reader);
      // A Transpose outside that only made the new layout is no longer needed.
      for (const NodePtr& nod : next_nodes)
        if (!in_pass(nod) && nod->op_type() == "Transpose" &&
            check_equivalent_perm_for_tp(ir, t_name, _func_tp_perm(ir, *nod), most_perm))
          drop_tp(nod, new_in);
      ir.set_shape(new_in, new_shape, false, ir.get_dtype(t_name));
    } else if (type == "unchanged") {
      for (const NodePtr& nod : next_nodes) {
        if (nod->op_type() == "Transpose") {
          fix_consumer(nod, t_name);
        } else if (nod->op_type() == "Reshape") {
          const std::string rs_out = nod->output[0];
          const NodeList rs_next = ir.next_nodes(rs_out);
          if (rs_next.size() != 1 || rs_next[0]->op_type() != "Transpose") continue;
          const Shape rs_in_shape = ir.get_shape(nod->input[0]);
          const Shape rs_out_shape = ir.get_shape(rs_out);
          const ReshapeCarry carry = rs_in_shape == rs_out_shape
                                         ? ReshapeCarry{}
                                         : _func_carry_reshape(rs_in_shape, rs_out_shape,
                                                               _func_tp_perm(ir, *rs_next[0]),
                                                               most_perm);
          if (!carry.ok || carry.new_tp_out != ir.get_shape(rs_next[0]->output[0])) {
            tolmLog::w("Meet confuse case, this may lead to error");
            continue;
          }
          ir.set_shape(rs_out, carry.new_rs_out, false);
          set_node_const(ir, *nod, 1, NDArray::from_i64(carry.new_rs_out));
          ir.set_attr(*rs_next[0], perm_attr(carry.new_rs_next_tp_perm));
        }
      }
      ir.set_shape(t_name, new_shape, false);
    } else if (type.rfind("mount:", 0) == 0) {
      const std::string mount_tp = type.substr(6);
      const NodePtr from_tp = ir.producer(mount_tp);
      if (!from_tp) continue;
      remove_node(from_tp);
      // Re-created so that it is placed ahead of the mesh nodes that now read it.
      g.nodes.push_back(from_tp->clone());
      for (const NodePtr& tp : ir.next_nodes(from_tp->input[0])) {
        if (tp == from_tp || tp->op_type() != "Transpose") continue;
        if (!check_equivalent_perm_for_tp(ir, from_tp->input[0], _func_tp_perm(ir, *tp), most_perm))
          continue;
        drop_tp(tp, mount_tp);
      }
      replace_uses_if(ir, t_name, mount_tp, pass_reader);
    } else if (type == "remove_top_tp") {
      if (!pre) continue;
      remove_node(pre);
      // The Transpose above cancels the new layout: its input is the tensor
      // in that layout, and Transpose readers fold the change into their perm.
      replace_all_uses(ir, t_name, pre->input[0]);
      for (const NodePtr& nod : next_nodes) {
        if (nod->op_type() == "Transpose") {
          const Perm perm = _func_tp_perm(ir, *nod);
          if (check_equivalent_perm_for_tp(ir, t_name, perm, most_perm))
            tolmLog::e("rduce op in mesh: remove_top_tp error");
          ir.set_attr(*nod, perm_attr(take(perm_for_next, perm)));
        }
      }
    } else if (type == "bypass_top_tp") {
      if (!pre) continue;
      replace_uses_if(ir, t_name, pre->input[0], pass_reader);
    } else if (type == "merge_top_tp") {
      if (!pre) continue;
      ir.set_attr(*pre, perm_attr(take(_func_tp_perm(ir, *pre), most_perm)));
      for (const NodePtr& nod : next_nodes)
        if (nod->op_type() == "Transpose") fix_consumer(nod, t_name);
      ir.set_shape(t_name, new_shape, false);
    } else if (type == "insert_tp") {
      const std::string out = transpose_op(t_name, most_perm);
      replace_uses_if(ir, t_name, out, pass_reader);
    } else if (type == "merge_top_rs") {
      if (!pre || pre->input.size() < 2) continue;
      for (const NodePtr& nod : next_nodes)
        if (nod->op_type() == "Transpose") fix_consumer(nod, t_name);
      ir.set_shape(t_name, new_shape, false);
      set_node_const(ir, *pre, 1, NDArray::from_i64(new_shape));
    } else if (type == "merge_bottom_rs") {
      ir.set_shape(t_name, new_shape, false);
    }
  }

  // Inner tensors take the new layout; constants are stored in it.
  const NameSet edge_set(tp_block_tensors.begin(), tp_block_tensors.end());
  for (const std::string& _t : tp_free_tensors) {
    if (edge_set.count(_t)) continue;
    if (ir.is_const(_t)) {
      const NDArray data = *ir.get_const(_t);
      if (data.size() <= 1 || data.ndim() != most_perm.size()) continue;
      const NDArray moved = transpose_const(data, most_perm);
      bool shared = ir.is_output(_t);
      for (const NodePtr& n : ir.next_nodes(_t))
        if (!in_pass(n)) shared = true;
      if (!shared) {
        ir.set_const(_t, moved);
        ir.set_shape(_t, moved.shape(), false, moved.dtype());
      } else {
        // Readers outside the mesh keep the constant as it was.
        const std::string fresh = oper_name_join(ir, _t, "_mesh");
        ir.set_const(fresh, moved);
        ir.set_shape(fresh, moved.shape(), false, moved.dtype());
        replace_uses_if(ir, _t, fresh, pass_reader);
      }
    } else {
      const Shape shape = ir.get_shape(_t);
      if (shape.size() == most_perm.size()) ir.set_shape(_t, new_shape_of(shape), false);
    }
  }

  // Parameters that name axes follow the layout.
  if (!param_changed_ops.empty()) {
    const NodeList all = _func_nodes_named(ir, param_changed_ops);
    const int64_t rank = static_cast<int64_t>(most_perm.size());
    auto new_axis = [&](int64_t a) { return index_of(most_perm, a < 0 ? a + rank : a); };
    // A node the rewrite re-creates takes its new axis in the copy.
    std::unordered_map<std::string, NodePtr> added;
    for (const NodePtr& n : g.nodes) added[n->name()] = n;
    for (const NodePtr& nod : all) {
      const std::string& op = nod->op_type();
      if (op == "Split" || op == "Concat" || op == "exSoftmax13" || op == "LogSoftmax" ||
          op == "ArgMax" || op == "ArgMin" || op == "Gather" || op == "exGlu") {
        NodePtr target = nod;
        if (rm_set.count(nod.get())) {
          auto it = added.find(nod->name());
          if (it != added.end()) target = it->second;
        }
        const int64_t axis = IR::get_attr_int(*target, "axis").value_or(default_axis(op));
        ir.set_attr(*target, Attr::make_int("axis", new_axis(axis)));
      } else if (op == "ReduceMax" || op == "Slice") {
        const size_t axes_in_idx = op == "Slice" ? 3 : 1;
        const NDArray* axes = ir.get_const_optional(*nod, axes_in_idx);
        if (!axes) continue;
        std::vector<int64_t> moved;
        for (int64_t a : axes->to_i64()) moved.push_back(new_axis(a));
        set_node_const(ir, *nod, axes_in_idx,
                       NDArray::from_i64(moved, axes->shape(), axes->dtype()));
      } else if (op == "Expand") {
        const NDArray* target_shape = ir.get_const_optional(*nod, 1);
        if (!target_shape) continue;
        std::vector<int64_t> dims = target_shape->to_i64();
        // A shorter target broadcasts from the right: align it to the mesh rank first.
        if (static_cast<int64_t>(dims.size()) < rank)
          dims.insert(dims.begin(), static_cast<size_t>(rank) - dims.size(), 1);
        const std::vector<int64_t> moved = take(dims, most_perm);
        set_node_const(ir, *nod, 1,
                       NDArray::from_i64(moved, {static_cast<int64_t>(moved.size())},
                                         target_shape->dtype()));
      }
    }
  }

  out.remove = std::move(rm_ops);
  out.add = std::move(g.nodes);
  return out;
}

RuleResult _p_reduce_tp_in_mesh(IR& ir, const NodeList& nodes, QuantTable* quant_tab) {
  MeshResult r = _p_reduce_tp_in_mesh(ir, nodes, quant_tab, "forward", {});
  return {std::move(r.remove), std::move(r.add)};
}

RuleResult _p_reduce_tp_in_mesh_forward(IR& ir, const NodeList& nodes, QuantTable* quant_tab) {
  return retry_mesh(ir, nodes, quant_tab, "forward");
}

RuleResult _p_reduce_tp_in_mesh_backward(IR& ir, const NodeList& nodes, QuantTable* quant_tab) {
  return retry_mesh(ir, nodes, quant_tab, "backward");
}

}  // namespace tolm
