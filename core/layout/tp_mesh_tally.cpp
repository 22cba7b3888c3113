// The vote on a growing mesh, kept current as tensors join it instead of
// recounted from the lists at every fork: each tensor is taken in once, each
// Transpose votes once, and each node becomes a node of the mesh once. What
// changes with the chosen layout is summed only for the layouts that have
// been the choice at some fork.
#include <algorithm>

#include "layout/tp_mesh_parts.h"

namespace tolm {

namespace {

enum ListId : int64_t { kEdgeList = 0, kForkList = 1 };

}  // namespace

MeshTally::MeshTally(IR& ir, const MeshOps& ops) : ir_(ir), ops_(ops) {}

int MeshTally::key_of(const Perm& perm) {
  std::string text = perm_text(perm);
  auto it = key_index_.find(text);
  if (it != key_index_.end()) return it->second;
  const int id = static_cast<int>(keys_.size());
  Key k;
  k.text = text;
  k.perm = perm;
  keys_.push_back(std::move(k));
  key_index_.emplace(std::move(text), id);
  return id;
}

void MeshTally::join_mesh(const std::string& t) {
  if (!mesh_.insert(t).second) return;
  size_t rank = 0;
  switch (rank_say(ir_, t, &rank)) {
    case RankSay::kFail:
      ++rank_fail_;
      break;
    case RankSay::kRank:
      ++ranks_[rank];
      break;
    case RankSay::kNothing:
      break;
  }
  for (const NodePtr& p : ir_.pre_nodes(t)) node_gains(p, t, true);
  for (const NodePtr& c : ir_.next_nodes(t)) node_gains(c, t, false);
}

void MeshTally::node_gains(const NodePtr& n, const std::string& t, bool as_output) {
  // Only a node that may lie inside the mesh can become one of its nodes.
  if (!ops_.free_type(n->op_type()) || ops_.excluded(n->name())) return;
  NodeState& st = nodes_[n.get()];
  const auto& skip_in = ops_.ignored_inputs(n->op_type());
  const auto& skip_out = ops_.ignored_outputs(n->op_type());
  if (!st.counted) {
    st.counted = true;
    for (size_t i = 0; i < n->input.size(); ++i)
      if (!n->input[i].empty() && !is_ignored_position(skip_in, i) && !in_mesh(n->input[i]))
        ++st.missing;
    for (size_t i = 0; i < n->output.size(); ++i) {
      if (n->output[i].empty()) continue;
      if (in_mesh(n->output[i])) {
        ++st.outputs_in;
      } else if (!is_ignored_position(skip_out, i)) {
        ++st.missing;
      }
    }
  } else if (as_output) {
    for (size_t i = 0; i < n->output.size(); ++i) {
      if (n->output[i] != t) continue;
      ++st.outputs_in;
      if (!is_ignored_position(skip_out, i)) --st.missing;
    }
  } else {
    // Every slot that reads `t` outside the ignored positions is one fewer
    // tensor missing from the mesh.
    size_t slot = 0;
    for (const std::string& read : n->input.names()) {
      if (read == t && !is_ignored_position(skip_in, slot)) --st.missing;
      ++slot;
    }
  }
  if (!st.pass && st.missing == 0 && st.outputs_in > 0) becomes_pass(n);
}

void MeshTally::becomes_pass(const NodePtr& n) {
  nodes_[n.get()].pass = true;
  if (ops_.param_type(n->op_type())) {
    param_pass_.push_back(n);
    auto in_free = [&](const std::string& t) { return in_mesh(t) && ir_.is_const(t); };
    for (size_t s = 0; s < slot_key_.size(); ++s) {
      Names refused;
      check_follow(ir_, *n, keys_[slot_key_[s]].perm, in_free, refused);
      if (!refused.empty()) ++refused_[s];
    }
  }
  // Its tensors on the edge are now made or read inside the mesh.
  NameSet done;
  for (const PortList* ports : {&n->input, &n->output})
    for (const std::string& t : *ports)
      if (!t.empty() && done.insert(t).second) rejudge_edge(t);
}

void MeshTally::rejudge_edge(const std::string& t) {
  auto it = edges_.find(t);
  if (it == edges_.end() || it->second.cross) return;
  auto in_pass = [&](const Node& n) {
    auto ns = nodes_.find(&n);
    return ns != nodes_.end() && ns->second.pass;
  };
  EdgeState& es = it->second;
  for (size_t s = 0; s < slot_key_.size(); ++s) {
    const int64_t d = judge_edge_tensor(ir_, t, keys_[slot_key_[s]].perm, in_pass, nullptr).tp_delta;
    edge_sum_[s] += d - es.delta[s];
    es.delta[s] = d;
  }
}

void MeshTally::cast_votes(const Node& tp, const std::string& t, const Place& where,
                           bool producer_side, TpState& st) {
  st.at = where;
  st.producer_side = producer_side;
  Perm perm = _func_tp_perm(ir_, tp);
  if (producer_side) {
    if (!is_perm_of(perm, perm.size())) {
      ++bad_perms_;
      return;
    }
    perm = inverse_perm(perm);
  }
  const std::vector<Perm> eq = get_equivalent_perm_for_tp(perm, ir_.get_shape(t));
  for (size_t k = 0; k < eq.size(); ++k) {
    const int key = key_of(eq[k]);
    Place p = where;
    p[4] = static_cast<int64_t>(k);
    Key& voted = keys_[key];
    if (voted.count == 0 || p < voted.first) voted.first = p;
    ++voted.count;
  }
}

void MeshTally::meet_tp(const NodePtr& tp, const std::string& t, const Place& where,
                        bool producer_side) {
  TpState& st = tps_[tp.get()];
  if (!st.met) {
    st.met = true;
    cast_votes(*tp, t, where, producer_side, st);
    return;
  }
  // A Transpose blocks the tensors beside it, so both are edge tensors, met
  // in list order: the vote it cast first stands, and it crosses the edge.
  // Any other meeting (a tensor on the edge twice) is not followed here.
  if (st.cross || st.producer_side == producer_side || where < st.at) {
    from_scratch_ = true;
    return;
  }
  make_cross(tp);
}

void MeshTally::make_cross(const NodePtr& tp) {
  tps_[tp.get()].cross = true;
  crosses_.push_back(tp);
  if (++cross_inputs_[tp->input[0]] == 2) ++shared_cross_inputs_;
  for (size_t s = 0; s < slot_key_.size(); ++s) {
    const Perm& perm = keys_[slot_key_[s]].perm;
    cross_sum_[s] += judge_cross_tp(ir_, *tp, perm, perm.size());
  }
  // Both its tensors leave the edge that the rewrite wires one by one.
  for (const std::string& t : {tp->input[0], tp->output[0]}) {
    auto it = edges_.find(t);
    if (it == edges_.end() || it->second.cross) continue;
    it->second.cross = true;
    for (size_t s = 0; s < slot_key_.size(); ++s) edge_sum_[s] -= it->second.delta[s];
  }
}

void MeshTally::join_edge(const std::string& t, int64_t list, size_t index) {
  if (edges_.count(t)) {
    from_scratch_ = true;
    return;
  }
  edges_[t].delta.assign(slot_key_.size(), 0);
  if (!touches_mesh_op(ir_, ops_, t)) ++lonely_edges_;
  const Place at{list, static_cast<int64_t>(index), 0, 0, 0};
  const NodeList pre = ir_.pre_nodes(t);
  for (size_t j = 0; j < pre.size(); ++j) {
    if (pre[j]->op_type() != "Transpose") continue;
    Place p = at;
    p[3] = static_cast<int64_t>(j);
    meet_tp(pre[j], t, p, true);
  }
  const NodeList next = ir_.next_nodes(t);
  for (size_t j = 0; j < next.size(); ++j) {
    if (next[j]->op_type() != "Transpose") continue;
    Place p = at;
    p[2] = 1;
    p[3] = static_cast<int64_t>(j);
    meet_tp(next[j], t, p, false);
  }
  // A crossing Transpose met just now may have taken the tensor off the edge.
  EdgeState& now = edges_[t];
  if (now.cross) return;
  now.delta.assign(slot_key_.size(), 0);
  rejudge_edge(t);
}

void MeshTally::keep_slot(int key) {
  const int s = static_cast<int>(slot_key_.size());
  keys_[key].slot = s;
  slot_key_.push_back(key);
  const Perm& perm = keys_[key].perm;
  int64_t refused = 0, cross = 0, edge = 0;
  auto in_free = [&](const std::string& t) { return in_mesh(t) && ir_.is_const(t); };
  for (const NodePtr& n : param_pass_) {
    Names r;
    check_follow(ir_, *n, perm, in_free, r);
    if (!r.empty()) ++refused;
  }
  for (const NodePtr& tp : crosses_) cross += judge_cross_tp(ir_, *tp, perm, perm.size());
  auto in_pass = [&](const Node& n) {
    auto ns = nodes_.find(&n);
    return ns != nodes_.end() && ns->second.pass;
  };
  for (auto& kv : edges_) {
    kv.second.delta.push_back(0);
    if (kv.second.cross) continue;
    const int64_t d = judge_edge_tensor(ir_, kv.first, perm, in_pass, nullptr).tp_delta;
    kv.second.delta.back() = d;
    edge += d;
  }
  refused_.push_back(refused);
  cross_sum_.push_back(cross);
  edge_sum_.push_back(edge);
}

bool MeshTally::pays(const IndexedNames& free_list, const IndexedNames& block_list,
                     const IndexedNames& branch_list) {
  for (; seen_[2] < free_list.size(); ++seen_[2]) join_mesh(free_list[seen_[2]]);
  for (; seen_[0] < block_list.size(); ++seen_[0]) {
    join_mesh(block_list[seen_[0]]);
    join_edge(block_list[seen_[0]], kEdgeList, seen_[0]);
  }
  for (; seen_[1] < branch_list.size(); ++seen_[1]) {
    join_mesh(branch_list[seen_[1]]);
    join_edge(branch_list[seen_[1]], kForkList, seen_[1]);
  }

  if (from_scratch_) {
    Names block_now = block_list.list();
    block_now.insert(block_now.end(), branch_list.list().begin(), branch_list.list().end());
    const OptResult snap = judge_mesh(ir_, ops_, free_list.list(), block_now, nullptr);
    cache_pending_ = false;  // judge_mesh wrote it itself
    return snap.most_perm && snap.tp_num < 0 &&
           block_now.size() == snap.t_process_type.size() - snap.change_cross_tp.size();
  }

  if (rank_fail_ > 0 || ranks_.size() > 1 || lonely_edges_ > 0 || bad_perms_ > 0) return false;
  int best = -1;
  if (ir_.dynamic_idx && *ir_.dynamic_idx > 0 && ir_.tmp_reduce_tp_cache.set) {
    auto it = key_index_.find(ir_.tmp_reduce_tp_cache.most_perm);
    if (it != key_index_.end() && keys_[it->second].count > 0) best = it->second;
  }
  if (best < 0) {
    // Most votes; on a tie, the layout that got its first vote earliest.
    for (size_t k = 0; k < keys_.size(); ++k) {
      const Key& key = keys_[k];
      if (key.count <= 0) continue;
      if (best < 0 || key.count > keys_[best].count ||
          (key.count == keys_[best].count && key.first < keys_[best].first))
        best = static_cast<int>(k);
    }
  }
  if (best < 0) return false;
  if (ir_.dynamic_idx && *ir_.dynamic_idx == 0) {
    cache_pending_ = true;
    cache_len_[0] = free_list.size();
    cache_len_[1] = block_list.size();
    cache_len_[2] = branch_list.size();
    cache_perm_ = keys_[best].text;
  }
  const size_t rank = ranks_.empty() ? 0 : ranks_.begin()->first;
  if (!is_perm_of(keys_[best].perm, rank)) return false;
  if (keys_[best].slot < 0) keep_slot(best);
  const int s = keys_[best].slot;
  if (refused_[s] > 0) return false;
  // The rewrite accounts for each edge tensor once: two crossing Transpose
  // nodes reading one tensor leave it unaccounted for.
  if (shared_cross_inputs_ > 0) return false;
  return cross_sum_[s] + edge_sum_[s] < 0;
}

void MeshTally::write_cache(const IndexedNames& free_list, const IndexedNames& block_list,
                            const IndexedNames& branch_list) {
  if (!cache_pending_) return;
  TpCache& cache = ir_.tmp_reduce_tp_cache;
  cache.set = true;
  cache.free_tensors.assign(free_list.list().begin(), free_list.list().begin() + cache_len_[0]);
  cache.block_tensors.assign(block_list.list().begin(), block_list.list().begin() + cache_len_[1]);
  cache.block_tensors.insert(cache.block_tensors.end(), branch_list.list().begin(),
                             branch_list.list().begin() + cache_len_[2]);
  cache.most_perm = cache_perm_;
  cache_pending_ = false;
}

}  // namespace tolm
