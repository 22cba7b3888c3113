// The parts the transpose-mesh search shares between its files: name lists
// with a hash index beside them, the op tables of one search, the pieces of
// the vote that judge one tensor or one Transpose, and the tally that keeps
// the vote current while the mesh grows.
//
// The search only ever appends to its lists while it grows the mesh, so the
// mesh at any moment of the search is a prefix of each list. The tally uses
// that: it takes in each new entry once, and judges the mesh at a fork from
// what it has kept, not from copies of the lists.
#pragma once

#include <array>
#include <functional>
#include <map>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "layout/layout.h"

namespace tolm {

using NameSet = std::unordered_set<std::string>;

// A list of names in the order they were found, with a hash index beside it
// so that asking for a name costs one lookup however long the list grows.
class IndexedNames {
 public:
  IndexedNames() = default;
  explicit IndexedNames(const Names& names) : list_(names), set_(names.begin(), names.end()) {}
  bool has(const std::string& name) const { return set_.count(name) != 0; }
  // Appends even a name already held, as a plain list would.
  void push_back(const std::string& name) {
    list_.push_back(name);
    set_.insert(name);
  }
  // Appends the name unless it is held.
  void append_unique(const std::string& name) {
    if (set_.insert(name).second) list_.push_back(name);
  }
  const Names& list() const { return list_; }
  size_t size() const { return list_.size(); }
  const std::string& operator[](size_t i) const { return list_[i]; }

 private:
  Names list_;
  NameSet set_;
};

// The op tables of one search, hashed: which op types may lie inside a mesh,
// which of those change parameters with the layout, which operand positions
// are no part of it, and the nodes that earlier attempts found unable to
// follow the layout.
class MeshOps {
 public:
  MeshOps(const Names& free_types, const Names& param_types, const OpIoIgnore& ignore,
          const Names& excluded);
  bool free_type(const std::string& op_type) const { return free_.count(op_type) != 0; }
  bool param_type(const std::string& op_type) const { return param_.count(op_type) != 0; }
  bool excluded(const std::string& node_name) const { return excluded_.count(node_name) != 0; }
  const std::vector<int64_t>& ignored_inputs(const std::string& op_type) const;
  const std::vector<int64_t>& ignored_outputs(const std::string& op_type) const;
  // True if the node cannot lie inside a mesh: its tensors are edges there.
  bool blocks(const Node& node) const;

 private:
  NameSet free_, param_, excluded_;
  const OpIoIgnore& ignore_;
};

// True if position i is in the list.
bool is_ignored_position(const std::vector<int64_t>& positions, size_t i);

// Sorts one tensor into the search's lists and queues its neighbours.
void classify_tensor(IR& ir, const MeshOps& ops, const std::string& t_name,
                     IndexedNames& free_list, IndexedNames& block_list, Names& candidate_list,
                     IndexedNames& branch_block_list, OrderedDict<Names>& branch_tensor_group_dict);

// The nodes wholly inside the mesh of `tensors` (each visited from every
// output of it in the list, so a node may stand in the lists more than once),
// and those of them whose parameters follow the layout.
std::pair<Names, Names> mesh_pass_ops(IR& ir, const MeshOps& ops, const Names& tensors,
                                      const NameSet& in_mesh);

// The verdict on one mesh, its free tensors listed in `free_list` and its edge
// in `block` (from which crossing Transpose tensors are dropped).
OptResult judge_mesh(IR& ir, const MeshOps& ops, const Names& free_list, Names& block,
                     OrderedDict<std::string>* tp_dir);

// How one edge tensor is rewired under `most_perm`, and the change in the
// number of Transpose nodes that brings.
struct EdgeVerdict {
  std::string type;
  int64_t tp_delta = 0;
};
EdgeVerdict judge_edge_tensor(const IR& ir, const std::string& t_name, const Perm& most_perm,
                              const std::function<bool(const Node&)>& in_pass,
                              OrderedDict<std::string>* tp_dir);

// The change in Transpose count that a Transpose with both its tensors on the
// edge brings under `most_perm`.
int64_t judge_cross_tp(const IR& ir, const Node& tp, const Perm& most_perm, size_t rank);

// Appends the node's name to `unsupported` once for every test of the layout
// `most_perm` it fails.
void check_follow(const IR& ir, const Node& nod, const Perm& most_perm,
                  const std::function<bool(const std::string&)>& in_free, Names& unsupported);

// What a tensor of the mesh says about the uniform rank: nothing (a constant
// of one element broadcasts in any layout), that the mesh cannot be judged,
// or its rank.
enum class RankSay { kNothing, kFail, kRank };
RankSay rank_say(const IR& ir, const std::string& t_name, size_t* rank);

// True if some producer or consumer of the tensor may lie inside a mesh.
bool touches_mesh_op(const IR& ir, const MeshOps& ops, const std::string& t_name);

// Whether the mesh as the search stands at a fork pays, given its free, edge
// and fork lists.
using ForkJudge = std::function<bool(const IndexedNames&, const IndexedNames&,
                                     const IndexedNames&)>;

// A grown mesh: its lists as the search left them (the forks still unopened
// when the search stopped at its cap are on the edge list too), and the last
// fork at which it paid, as list lengths.
struct MeshGrowth {
  IndexedNames free_l, block_l, branch_l;
  bool has_history = false;
  size_t hist_free = 0, hist_block = 0, hist_branch = 0;
};

// Grows the mesh from the seed tensors, tensor by tensor, opening a fork only
// when nothing simpler is left, and judging the mesh at each fork.
MeshGrowth grow_mesh(IR& ir, const MeshOps& ops, Names candidate_tensors,
                     const ForkJudge& pays_at_fork);

// Permutation text: the axes joined by commas, as the vote keys them.
std::string perm_text(const Perm& perm);

// The vote on the mesh as the search stands at a fork, kept current entry by
// entry. `pays` gives what judge_mesh would say of the free list and of the
// edge lists followed by the fork lists: whether the mesh has a layout, saves
// Transpose nodes and has an edge the rewrite can account for.
class MeshTally {
 public:
  MeshTally(IR& ir, const MeshOps& ops);
  bool pays(const IndexedNames& free_list, const IndexedNames& block_list,
            const IndexedNames& branch_list);
  // The shape-profile cache as judge_mesh would have left it after the forks
  // judged so far: written to the graph only when asked, so that forks need
  // not copy the lists.
  void write_cache(const IndexedNames& free_list, const IndexedNames& block_list,
                   const IndexedNames& branch_list);

 private:
  // Where a vote was cast: edge (0) or fork (1) list, place in it, producer
  // (0) or consumer (1) side, place among the tensor's nodes, place among
  // the equivalent permutations. Earlier places vote first.
  using Place = std::array<int64_t, 5>;
  struct Key {
    std::string text;
    Perm perm;
    int64_t count = 0;
    Place first{};  // the earliest place it got a vote
    int slot = -1;  // index into the kept sums, once the key has been the choice
  };
  struct TpState {
    bool met = false;
    bool cross = false;
    bool producer_side = false;  // the side it voted from
    Place at{};                  // where it voted
  };
  // A node that may lie inside the mesh: how many of its operands that take
  // part in the layout are not in the mesh yet, and how many of its outputs
  // are. It is a node of the mesh once none is missing and one output is in.
  struct NodeState {
    bool counted = false;
    int64_t missing = 0;
    int64_t outputs_in = 0;
    bool pass = false;
  };
  struct EdgeState {
    bool cross = false;
    std::vector<int64_t> delta;  // per kept slot
  };

  void join_mesh(const std::string& t);
  void join_edge(const std::string& t, int64_t list, size_t index);
  void meet_tp(const NodePtr& tp, const std::string& t, const Place& where, bool producer_side);
  void cast_votes(const Node& tp, const std::string& t, const Place& where, bool producer_side,
                  TpState& st);
  void make_cross(const NodePtr& tp);
  void node_gains(const NodePtr& n, const std::string& t, bool as_output);
  void becomes_pass(const NodePtr& n);
  void rejudge_edge(const std::string& t);
  int key_of(const Perm& perm);
  void keep_slot(int key);
  bool in_mesh(const std::string& t) const { return mesh_.count(t) != 0; }

  IR& ir_;
  const MeshOps& ops_;
  size_t seen_[3] = {0, 0, 0};
  NameSet mesh_;
  // Set when something the tally does not follow was seen (a tensor on the
  // edge twice): forks are then judged from scratch.
  bool from_scratch_ = false;
  // Failures that no growth can undo.
  int64_t rank_fail_ = 0, lonely_edges_ = 0, bad_perms_ = 0;
  std::map<size_t, int64_t> ranks_;
  std::vector<Key> keys_;
  std::unordered_map<std::string, int> key_index_;
  std::unordered_map<const Node*, TpState> tps_;
  std::unordered_map<const Node*, NodeState> nodes_;
  std::unordered_map<std::string, EdgeState> edges_;
  std::vector<NodePtr> param_pass_;
  std::vector<NodePtr> crosses_;
  std::unordered_map<std::string, int64_t> cross_inputs_;
  int64_t shared_cross_inputs_ = 0;
  // Per kept slot: the key, the refusals, the crossing and edge sums.
  std::vector<int> slot_key_;
  std::vector<int64_t> refused_, cross_sum_, edge_sum_;
  // The last fork that wrote the shape-profile cache: list lengths and choice.
  bool cache_pending_ = false;
  size_t cache_len_[3] = {0, 0, 0};
  std::string cache_perm_;
};

}  // namespace tolm
