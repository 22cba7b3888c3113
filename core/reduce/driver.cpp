#include "reduce/driver.h"

#include <algorithm>
#include <deque>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include "host/log.h"
#include "host/shape_infer.h"
#include "host/tick_clock.h"
#include "layout/broadcast_rank.h"
#include "reduce/subgraphs.h"

namespace tolm {

namespace {

// How often one `limit` row may fire from the same anchor node. These rows
// can rewrite without shrinking the graph; the cap is what makes them end.
constexpr int kLimitFiresPerAnchor = 2;
// How many `limit` rewrites may stand behind a node: a node made by such a
// rewrite from nodes made by such rewrites, this deep, anchors no more of them.
// Rewrites that replace nodes with others of the same count could otherwise
// hand the graph back and forth for ever.
constexpr int kLimitDepth = 4;
// How many distinct matches of one row are offered from one anchor.
constexpr int kMaxMatchesPerAnchor = 32;
// Rounds of the whole tables; one more than needed is the one that finds
// nothing left to do.
constexpr int kMaxRounds = 8;
// Node::work_flags bits: queued since the fold pass last looked at it, and
// on the fold worklist. The rule worklists use the bits 1 to 8, fold_graph
// 0x10.
constexpr uint8_t kFoldPending = 0x20;
constexpr uint8_t kFoldQueued = 0x40;

// A FIFO of nodes, each queued at most once at a time. Membership is a bit
// on the node, so queueing costs no lookup however large the graph.
class Worklist {
 public:
  explicit Worklist(uint8_t bit) : bit_(bit) {}
  void push(const NodePtr& n) {
    if (n->work_flags & bit_) return;
    n->work_flags |= bit_;
    q_.push_back(n);
  }
  // Nodes a rewrite just touched go first: their neighbourhood is still in
  // cache, and a rewrite often enables the next one right beside it.
  void push_front(const NodePtr& n) {
    if (n->work_flags & bit_) return;
    n->work_flags |= bit_;
    q_.push_front(n);
  }
  NodePtr pop() {
    NodePtr n = std::move(q_.front());
    q_.pop_front();
    n->work_flags &= static_cast<uint8_t>(~bit_);
    return n;
  }
  bool empty() const { return q_.empty(); }
  ~Worklist() {
    for (auto& n : q_) n->work_flags &= static_cast<uint8_t>(~bit_);
  }

 private:
  uint8_t bit_;
  std::deque<NodePtr> q_;
};

struct TableIndex {
  const std::vector<Row>* rows;
  // Anchor op type -> row positions, in table order. The anchor is the first
  // node of a chain, or the sink (last node) of an `n_pre_nodes` pattern.
  std::unordered_map<std::string, std::vector<size_t>> regular, limited;

  TableIndex(const std::vector<Row>& table, const DriverOptions& opt) : rows(&table) {
    for (size_t i = 0; i < table.size(); ++i) {
      const Row& r = table[i];
      if (!r.proc || opt.skip.count(r.key) || (!opt.only.empty() && !opt.only.count(r.key))) continue;
      const std::string& anchor = r.n_pre_nodes.empty() ? r.ops.front() : r.ops.back();
      (r.has_limit ? limited : regular)[anchor].push_back(i);
    }
  }
};

// Membership in ir.op_ruler_pause without scanning its lists: rules only
// append to them, so each list's new tail is indexed when next asked about;
// a list that got shorter is indexed again from the start.
class PauseIndex {
 public:
  bool paused(const IR& ir, const std::string& key, const Node& n) {
    auto it = ir.op_ruler_pause.find(key);
    if (it == ir.op_ruler_pause.end()) return false;
    const std::vector<std::string>& list = it->second;
    Entry& e = index_[key];
    if (list.size() < e.seen) {
      e.names.clear();
      e.seen = 0;
    }
    for (; e.seen < list.size(); ++e.seen) e.names.insert(list[e.seen]);
    return e.names.count(n.name()) != 0;
  }

 private:
  struct Entry {
    size_t seen = 0;
    std::unordered_set<std::string> names;
  };
  std::unordered_map<std::string, Entry> index_;
};

bool reads_output_of(const Node& consumer, const Node& producer) {
  for (const auto& t : consumer.input)
    if (!t.empty() && producer.output.contains(t)) return true;
  return false;
}

// The tensors between producer and consumer have the consumer as their only
// reader and are no graph outputs.
bool inner_link_private(const IR& ir, const Node& producer, const Node& consumer) {
  for (const auto& t : producer.output) {
    if (t.empty() || !consumer.input.contains(t)) continue;
    if (ir.is_output(t)) return false;
    if (ir.use_count(t) != 1 &&
        !(ir.use_count(t) > 1 && ir.next_nodes(t).size() == 1))  // read twice by one node
      return false;
  }
  return true;
}

// Records a rule that broke its contract; in strict mode it is fatal.
void report_fault(DriverStats& stats, bool strict, const std::string& what) {
  if (strict) throw RuleError(what);
  tolmLog::e(what);
  stats.rule_faults.push_back(what);
}

std::string fault_text(const Row& row, const NodeList& nodes, const std::string& what) {
  std::string at;
  for (const auto& n : nodes) at += (at.empty() ? "" : ", ") + n->name();
  return "rule " + row.key + " at " + at + ": " + what;
}

class Matcher {
 public:
  Matcher(IR& ir, const Row& row, QuantTable* qt, DriverStats& stats, bool strict, uint64_t* ticks = nullptr)
      : ir_(ir), row_(row), qt_(qt), stats_(stats), strict_(strict), ticks_(ticks) {}

  // Offers the row's matches anchored at `anchor` to its procedure until one
  // applies. Returns the applied result, or an empty one.
  // `scratch`, when given, holds the match as it grows: a driver asking
  // millions of times reuses one list instead of making one per anchor.
  RuleResult run(const NodePtr& anchor, NodeList* scratch = nullptr) {
    NodeList local;
    NodeList& nodes = scratch ? *scratch : local;
    nodes.assign(1, anchor);
    if (row_.n_pre_nodes.empty()) {
      chain(nodes);
    } else {
      pattern(anchor);
    }
    nodes.clear();
    return std::move(result_);
  }

 private:
  // Calls the procedure inside an edit transaction. A result that applies
  // leaves the transaction open for the driver to apply and commit.
  bool offer(const NodeList& nodes) {
    if (tries_ >= kMaxMatchesPerAnchor) return true;
    ++tries_;
    ++stats_.attempts;
    ir_.begin_edit();
    // The procedure's own time, whichever way it ends.
    struct Clock {
      uint64_t* into;
      uint64_t t0;
      ~Clock() {
        if (into) *into += TickClock::now() - t0;
      }
    } clock{ticks_, ticks_ ? TickClock::now() : 0};
    try {
      result_ = row_.proc(ir_, nodes, qt_);
    } catch (const RuleError&) {
      ir_.rollback_edit();
      throw;
    } catch (const std::exception& e) {
      ir_.rollback_edit();
      result_ = {};
      report_fault(stats_, strict_, fault_text(row_, nodes, std::string("threw: ") + e.what()));
      return false;
    }
    if (result_.applied()) return true;
    if (ir_.edited()) {
      ir_.rollback_edit();
      report_fault(stats_, strict_,
                   fault_text(row_, nodes, "changed the graph and then did not apply"));
      return false;
    }
    ir_.commit_edit();
    return false;
  }

  bool chain(NodeList& nodes) {
    if (nodes.size() == row_.ops.size()) return offer(nodes);
    // A copy: pushing onto `nodes` below may move its elements.
    const NodePtr last = nodes.back();
    const std::string& want = row_.ops[nodes.size()];
    auto extend = [&](const NodePtr& next) {
      if (next->op_type() != want) return false;
      if (std::find(nodes.begin(), nodes.end(), next) != nodes.end()) return false;
      if (!row_.handles_branches && !inner_link_private(ir_, *last, *next)) return false;
      nodes.push_back(next);
      if (chain(nodes)) return true;
      nodes.pop_back();
      return false;
    };
    // The usual link, one output read once, needs no list of readers.
    const TensorInfo* only = last->output.size() == 1 ? ir_.port_tensor(*last, true, 0) : nullptr;
    if (only && only->uses.size() == 1) {
      Node* next = only->uses[0].first;
      return next->op_type() == want && extend(next->shared_from_this());
    }
    for (const NodePtr& next : ir_.next_nodes(*last))
      if (extend(next)) return true;
    return false;
  }

  // The producers a pattern counts for a node: its producer nodes, and each
  // graph input it reads as one more. A stem that slices a graph input
  // (an image stem reads the model's input) is the same pattern as one
  // behind another node.
  int sources(const Node& n) const {
    int count = static_cast<int>(ir_.pre_nodes(n).size());
    for (size_t i = 0; i < n.input.size(); ++i) {
      const std::string& t = n.input[i];
      if (!t.empty() && ir_.is_input(t) &&
          std::find(n.input.begin(), n.input.begin() + static_cast<std::ptrdiff_t>(i), t) ==
              n.input.begin() + static_cast<std::ptrdiff_t>(i))
        ++count;
    }
    return count;
  }

  // A small pattern that ends in `sink`: the other nodes reach it directly or
  // through each other, and node i has exactly n_pre_nodes[i] producers.
  bool pattern(const NodePtr& sink) {
    const size_t k = row_.ops.size();
    if (sources(*sink) != row_.n_pre_nodes.back()) return false;
    // Ancestors within k-1 steps, nearest first.
    NodeList cands;
    NodeList frontier{sink};
    for (size_t depth = 1; depth < k && !frontier.empty(); ++depth) {
      NodeList next;
      for (const auto& n : frontier)
        for (const auto& p : ir_.pre_nodes(*n))
          if (p != sink && std::find(cands.begin(), cands.end(), p) == cands.end()) {
            cands.push_back(p);
            next.push_back(p);
          }
      frontier.swap(next);
    }
    std::vector<int> pre_count(cands.size());
    for (size_t i = 0; i < cands.size(); ++i) pre_count[i] = sources(*cands[i]);
    std::vector<size_t> pick;
    std::vector<bool> used(cands.size(), false);
    return assign(sink, cands, pre_count, pick, used);
  }

  bool assign(const NodePtr& sink, const NodeList& cands, const std::vector<int>& pre_count,
              std::vector<size_t>& pick, std::vector<bool>& used) {
    const size_t k = row_.ops.size();
    const size_t i = pick.size();
    if (i + 1 == k) {
      NodeList nodes;
      for (size_t p : pick) nodes.push_back(cands[p]);
      nodes.push_back(sink);
      if (!connected(nodes)) return false;
      return offer(nodes);
    }
    // Entries alike in op and producer count take candidates in rising order,
    // so each set of nodes is offered once.
    size_t from = 0;
    if (i > 0 && row_.ops[i] == row_.ops[i - 1] && row_.n_pre_nodes[i] == row_.n_pre_nodes[i - 1])
      from = pick.back() + 1;
    for (size_t c = from; c < cands.size(); ++c) {
      if (used[c] || cands[c]->op_type() != row_.ops[i] || pre_count[c] != row_.n_pre_nodes[i])
        continue;
      used[c] = true;
      pick.push_back(c);
      if (assign(sink, cands, pre_count, pick, used)) return true;
      pick.pop_back();
      used[c] = false;
      if (tries_ >= kMaxMatchesPerAnchor) return false;
    }
    return false;
  }

  bool connected(const NodeList& nodes) const {
    for (size_t i = 0; i + 1 < nodes.size(); ++i) {
      bool feeds = false;
      for (size_t j = 0; j < nodes.size() && !feeds; ++j)
        if (j != i && reads_output_of(*nodes[j], *nodes[i])) feeds = true;
      if (!feeds) return false;
    }
    return true;
  }

  IR& ir_;
  const Row& row_;
  QuantTable* qt_;
  DriverStats& stats_;
  bool strict_;
  uint64_t* ticks_;
  RuleResult result_;
  int tries_ = 0;
};

class Driver {
 public:
  // `refold`, when given, are the only nodes the fold step has to look at
  // first: the graph was folded to a fixed point just before, and these are
  // the nodes edited since. Null: every node.
  Driver(IR& ir, const std::vector<Row>& first, const std::vector<Row>& second, QuantTable* qt,
         const DriverOptions& opt, const std::vector<NodePtr>* refold = nullptr)
      : ir_(ir), qt_(qt), cvt_(first, opt), fuse_(second, opt), strict_(opt.strict),
        fold_(opt.fold ? &opt.fold_options : nullptr), refold_(refold) {
    cvt_ticks_.assign(first.size(), 0);
    fuse_ticks_.assign(second.size(), 0);
    budget_ = opt.max_rewrites > 0 ? opt.max_rewrites
                                   : 20 * static_cast<int64_t>(ir.node_count()) + 10000;
    // Which worklists a node of each op type belongs on: one that no row
    // of a list can anchor at is never queued there.
    auto mark = [&](const std::unordered_map<std::string, std::vector<size_t>>& index, uint8_t bit) {
      for (const auto& kv : index) lists_of_op_[kv.first] |= bit;
    };
    mark(cvt_.regular, 1);
    mark(fuse_.regular, 2);
    mark(cvt_.limited, 4);
    mark(fuse_.limited, 8);
  }

  DriverStats run() {
    ir_.set_journal(true);
    for (Node* n : ir_.node_order()) push_all(n->shared_from_this(), refold_ == nullptr);
    if (refold_ && fold_)
      for (const NodePtr& n : *refold_)
        if (ir_.contains(*n)) mark_for_fold(n, lists_of(*n));
    while (true) {
      drain_folds();
      if (!drain(cvt_, cvt_regular_, false)) break;
      if (!drain(fuse_, fuse_regular_, false)) break;
      if (!cvt_regular_.empty() || !folds_.empty()) continue;
      // Rows that may rewrite without shrinking run one anchor at a time,
      // each followed by the cheap rows on whatever it touched.
      if (step_one(cvt_, cvt_limited_)) continue;
      if (step_one(fuse_, fuse_limited_)) continue;
      if (cvt_regular_.empty() && fuse_regular_.empty() && cvt_limited_.empty() &&
          fuse_limited_.empty() && folds_.empty())
        break;
      if (!stats_.converged) break;
    }
    ir_.take_touched();
    ir_.take_released();
    ir_.set_journal(false);
    const double per_tick = clock_.seconds_per_tick();
    auto add_times = [&](const TableIndex& t, const std::vector<uint64_t>& ticks) {
      for (size_t i = 0; i < ticks.size(); ++i)
        if (ticks[i] > 0) stats_.rule_seconds[(*t.rows)[i].key] += per_tick * static_cast<double>(ticks[i]);
    };
    add_times(cvt_, cvt_ticks_);
    add_times(fuse_, fuse_ticks_);
    return stats_;
  }

 private:
  uint8_t lists_of(const Node& n) const {
    auto it = lists_of_op_.find(n.op_type());
    return it == lists_of_op_.end() ? 0 : it->second;
  }
  // A queued node is offered to the fold pass once: by try_rows when it
  // comes up on a rule worklist, or from its own worklist when no row
  // anchors at its op type (Shape, Range, ...).
  void mark_for_fold(const NodePtr& n, uint8_t lists) {
    n->work_flags |= kFoldPending;
    if (lists == 0) folds_.push(n);
  }
  void drain_folds() {
    while (!folds_.empty() && stats_.converged) {
      NodePtr n = folds_.pop();
      if (ir_.contains(*n)) try_fold(n);
    }
  }
  void push_all(const NodePtr& n, bool fold = true) {
    const uint8_t lists = lists_of(*n);
    if (fold_ && fold) mark_for_fold(n, lists);
    if (lists & 1) cvt_regular_.push(n);
    if (lists & 2) fuse_regular_.push(n);
    if (lists & 4) cvt_limited_.push(n);
    if (lists & 8) fuse_limited_.push(n);
  }
  void push_all_front(const NodePtr& n) {
    const uint8_t lists = lists_of(*n);
    if (fold_) mark_for_fold(n, lists);
    if (lists & 1) cvt_regular_.push_front(n);
    if (lists & 2) fuse_regular_.push_front(n);
    if (lists & 4) cvt_limited_.push_front(n);
    if (lists & 8) fuse_limited_.push_front(n);
  }

  // Runs the table's regular rows until their worklist is empty. False when
  // the rewrite budget is spent.
  bool drain(const TableIndex& table, Worklist& wl, bool limited) {
    while (!wl.empty()) {
      if (!stats_.converged) return false;
      NodePtr n = wl.pop();
      if (!ir_.contains(*n)) continue;
      try_rows(table, n, limited);
    }
    return stats_.converged;
  }

  // Pops anchors until one limited row fires. True if one did.
  bool step_one(const TableIndex& table, Worklist& wl) {
    while (!wl.empty() && stats_.converged) {
      NodePtr n = wl.pop();
      if (!ir_.contains(*n)) continue;
      if (try_rows(table, n, true)) return true;
    }
    return false;
  }

  // A node that folds (its inputs became constant, say) is folded before
  // any rule looks at it: once each time it is queued, whichever worklist
  // it comes up on first.
  bool try_fold(const NodePtr& n) {
    if (!fold_ || !(n->work_flags & kFoldPending)) return false;
    n->work_flags &= static_cast<uint8_t>(~kFoldPending);
    if (fold_faulted_.count(n->uid())) return false;
    try {
      if (!fold_step(ir_, *n, *fold_, stats_.fold)) return false;
    } catch (const std::exception& e) {
      fold_faulted_.insert(n->uid());
      report_fault(stats_, strict_, "fold at " + n->name() + ": " + e.what());
      return false;
    }
    requeue_touched();
    return true;
  }

  bool try_rows(const TableIndex& table, const NodePtr& n, bool limited) {
    if (try_fold(n)) return true;
    const auto& index = limited ? table.limited : table.regular;
    auto it = index.find(n->op_type());
    if (it == index.end()) return false;
    for (size_t r : it->second) {
      const Row& row = (*table.rows)[r];
      if (!ir_.contains(*n) || n->op_type() != (row.n_pre_nodes.empty() ? row.ops.front() : row.ops.back()))
        return false;
      if (pauses_.paused(ir_, row.key, *n)) continue;
      const std::pair<size_t, uint64_t> row_at{r + (&table == &fuse_ ? 1000 : 0), n->uid()};
      // A rule that broke its contract at this node is not asked again there.
      if (!faulted_.empty() && faulted_.count(row_at)) continue;
      int* fired = nullptr;
      if (limited) {
        auto d = depth_.find(n->uid());
        if (d != depth_.end() && d->second >= kLimitDepth) continue;
        fired = &limit_fires_[row_at];
        if (*fired >= kLimitFiresPerAnchor) continue;
      }
      const size_t faults_before = stats_.rule_faults.size();
      uint64_t* ticks = &(&table == &fuse_ ? fuse_ticks_ : cvt_ticks_)[r];
      RuleResult res = Matcher(ir_, row, qt_, stats_, strict_, ticks).run(n, &match_);
      if (res.applied() && !commit(row, res)) res = {};
      if (stats_.rule_faults.size() != faults_before) faulted_.insert(row_at);
      if (!res.applied()) continue;
      if (fired) ++*fired;
      return true;
    }
    return false;
  }

  // Applies a rule's result and commits its edits; false (all undone) if
  // the result could not be applied.
  bool commit(const Row& row, const RuleResult& res) {
    int depth = 0;
    for (const auto& n : res.remove) {
      auto d = depth_.find(n->uid());
      if (d != depth_.end()) depth = std::max(depth, d->second);
    }
    if (row.has_limit) ++depth;
    try {
      apply_result(ir_, res);
    } catch (const std::exception& e) {
      // The rule's own edits and whatever was applied go back together.
      ir_.rollback_edit();
      const NodeList at = res.remove.empty() ? res.add : res.remove;
      report_fault(stats_, strict_, fault_text(row, at, std::string("result did not apply: ") + e.what()));
      return false;
    }
    ir_.commit_edit();
    if (depth > 0)
      for (const auto& n : res.add) depth_[n->uid()] = depth;
    ++stats_.fired[row.key];
    ++stats_.rewrites;
    requeue_touched();
    if (stats_.rewrites >= budget_) {
      stats_.converged = false;
      tolmLog::w("reduce stopped after " + std::to_string(stats_.rewrites) +
                 " rewrites without reaching a fixed point");
    }
    return true;
  }

  // After an edit: dead producers go, and the nodes it touched come up next.
  void requeue_touched() {
    remove_released();
    std::vector<NodePtr> touched = ir_.take_touched();
    for (auto it = touched.rbegin(); it != touched.rend(); ++it)
      if (ir_.contains(**it)) push_all_front(*it);
  }

  // Producers whose outputs lost their last reader go, and so on upwards.
  void remove_released() {
    std::vector<std::string> released = ir_.take_released();
    while (!released.empty()) {
      for (const auto& t : released) {
        NodePtr p = ir_.producer(t);
        if (!p || !ir_.contains(*p)) continue;
        bool used = false;
        for (const auto& o : p->output)
          if (!o.empty() && (ir_.use_count(o) > 0 || ir_.is_output(o))) used = true;
        if (used) continue;
        ir_.remove_node(*p);
        ++stats_.pruned_nodes;
      }
      released = ir_.take_released();
    }
  }

  struct PairHash {
    size_t operator()(const std::pair<size_t, uint64_t>& p) const {
      return std::hash<uint64_t>()(p.second * 1315423911u + p.first);
    }
  };

  IR& ir_;
  QuantTable* qt_;
  TableIndex cvt_, fuse_;
  Worklist cvt_regular_{1}, fuse_regular_{2}, cvt_limited_{4}, fuse_limited_{8}, folds_{kFoldQueued};
  std::unordered_map<std::pair<size_t, uint64_t>, int, PairHash> limit_fires_;
  std::unordered_map<uint64_t, int> depth_;  // node uid -> limit rewrites behind it
  std::unordered_set<std::pair<size_t, uint64_t>, PairHash> faulted_;
  std::unordered_map<std::string, uint8_t> lists_of_op_;
  PauseIndex pauses_;
  DriverStats stats_;
  std::vector<uint64_t> cvt_ticks_, fuse_ticks_;  // by row position
  TickClock clock_;  // started with the driver: converts the ticks to seconds
  NodeList match_;   // the nodes of the match being tried, reused across anchors
  int64_t budget_;
  bool strict_;
  const FoldOptions* fold_;
  const std::vector<NodePtr>* refold_;
  std::unordered_set<uint64_t> fold_faulted_;  // node uids where a fold step threw
};

}  // namespace

void apply_result(IR& ir, const RuleResult& result) {
  bool any_removed = false;
  int64_t base = 0;
  for (const auto& n : result.remove) {
    if (!n || !ir.contains(*n)) continue;
    base = any_removed ? std::min(base, n->order()) : n->order();
    any_removed = true;
    ir.remove_node(*n);
  }
  if (result.add.empty()) return;
  if (!any_removed) {
    // Nothing replaced: place the new nodes after the producers they read.
    for (const auto& n : result.add)
      for (const auto& t : n->input)
        if (auto p = ir.producer(t)) base = std::max(base, p->order());
  }
  for (const auto& n : result.add)
    if (n && !ir.contains(*n)) ir.add_node(n, base);
  // Shapes for the new tensors: the added nodes may come in any order, so go
  // round until nothing more can be inferred.
  std::vector<Node*> pending;
  for (const auto& n : result.add)
    if (n) pending.push_back(n.get());
  for (size_t round = 0; round < pending.size() + 1 && !pending.empty(); ++round) {
    std::vector<Node*> still;
    for (Node* n : pending) {
      bool missing = false;
      for (const auto& o : n->output)
        if (!o.empty() && !ir.has_shape(o)) missing = true;
      if (!missing) continue;
      infer_node(ir, *n, false);
      for (const auto& o : n->output)
        if (!o.empty() && !ir.has_shape(o)) {
          still.push_back(n);
          break;
        }
    }
    if (still.size() == pending.size()) break;
    pending.swap(still);
  }
}

int64_t prune_dead(IR& ir) {
  // Nodes with no output in use go, and then whatever fed only them: a
  // worklist from the dead ends upwards, with no sort of the graph.
  auto dead = [](const Node& n) {
    for (size_t k = 0; k < n.output.size(); ++k) {
      const TensorInfo* ti = n.output_info(k);
      if (ti && (!ti->uses.empty() || ti->graph_output)) return false;
    }
    return true;
  };
  std::vector<NodePtr> work;
  ir.for_each_node([&](const NodePtr& n) {
    if (dead(*n)) work.push_back(n);
  });
  int64_t removed = 0;
  while (!work.empty()) {
    NodePtr n = std::move(work.back());
    work.pop_back();
    if (!ir.contains(*n) || !dead(*n)) continue;
    const NodeList feeders = ir.pre_nodes(*n);
    ir.remove_node(*n);
    ++removed;
    for (const NodePtr& p : feeders)
      if (ir.contains(*p) && dead(*p)) work.push_back(p);
  }
  std::vector<std::string> unused;
  for (const auto& kv : ir.consts()) {
    const TensorInfo* ti = ir.tensor(kv.first);  // one lookup answers all three
    if (!ti || (ti->uses.empty() && !ti->graph_output && !ti->graph_input)) unused.push_back(kv.first);
  }
  // Erased in save order so that the result does not follow the hash order.
  std::sort(unused.begin(), unused.end());
  for (const auto& t : unused) ir.erase_const(t);
  return removed;
}

int64_t make_reshape_shapes_explicit(IR& ir) {
  int64_t changed = 0;
  // A target's dimensions when it holds a 0 (empty otherwise), by its index
  // entry: a model's Reshapes share a few target constants, and each is read
  // once, not once per Reshape.
  std::unordered_map<const TensorInfo*, std::vector<int64_t>> zero_targets;
  for (Node* n : ir.node_order()) {
    if (std::string_view(n->op_type()) != "Reshape" || n->input.size() < 2 || n->output.empty()) continue;
    // The node's own port records answer the cheap questions first.
    const TensorInfo* target_ti = n->input_info(1);
    const TensorInfo* out_ti = n->output_info(0);
    if (!target_ti || !target_ti->constant || !out_ti || !out_ti->has_shape) continue;
    auto known = zero_targets.find(target_ti);
    if (known == zero_targets.end()) {
      const NDArray* target = ir.get_const(n->input[1]);
      std::vector<int64_t> dims = target ? target->to_i64() : std::vector<int64_t>{};
      if (std::find(dims.begin(), dims.end(), 0) == dims.end()) dims.clear();
      known = zero_targets.emplace(target_ti, std::move(dims)).first;
    }
    const std::vector<int64_t>& dims = known->second;
    if (dims.empty()) continue;
    if (IR::get_attr_int(*n, "allowzero").value_or(0) != 0) continue;
    const Shape out = out_ti->shape;
    if (out.size() != dims.size()) continue;
    const std::string name = ir.unique_tensor_name(n->input[1] + "_explicit");
    ir.set_const(name, NDArray::from_i64(out));
    ir.set_input(*n, 1, name);
    ++changed;
  }
  return changed;
}

DriverStats run_tables(IR& ir, const std::vector<Row>& first, const std::vector<Row>& second,
                       QuantTable* quant_tab, const DriverOptions& options) {
  // One round runs the tables until their worklists are empty. Within a
  // round, rows stop at caps and paused nodes that a later rewrite may have
  // freed; a model read back and reduced again would start without them. So
  // rounds repeat, each as fresh as a new call, until one changes nothing:
  // then reducing the result again changes nothing either.
  DriverStats total;
  const int64_t budget = options.max_rewrites > 0
                             ? options.max_rewrites
                             : 20 * static_cast<int64_t>(ir.node_count()) + 10000;
  auto tell = [&](const std::string& what) {
    if (options.progress) options.progress(what);
  };
  // What the bodies of sub-graphs did, added in at the end: their rewrites
  // do not count against this graph's budget.
  DriverStats inner;
  for (int round = 0;; ++round) {
    int64_t changed = 0;
    // Right after the fold pass, only the nodes the passes below edit can
    // fold anew: the journal names them, so the first round need not offer
    // every node of the graph to the fold step a second time.
    const bool folded_all = round == 0 && options.fold;
    if (folded_all) {
      const FoldStats folded = fold_graph(ir, options.fold_options);
      total.fold.add(folded);
      changed += folded.steps;
      tell("fold pass: " + std::to_string(folded.removed_nodes) + " node(s) folded away");
      ir.set_journal(true);
      ir.take_touched();
    }
    // Off again whichever way the passes below end.
    struct JournalOff {
      IR* ir;
      ~JournalOff() {
        if (ir) ir->set_journal(false);
      }
    } journal_off{folded_all ? &ir : nullptr};
    if (round == 0 && options.subgraphs) {
      const int64_t bodies = reduce_subgraphs(ir, quant_tab, options, inner);
      changed += bodies;
      if (bodies > 0) tell("sub-graphs: " + std::to_string(bodies) + " node(s) with reduced bodies");
    }
    if (round == 0) changed += make_reshape_shapes_explicit(ir);
    changed += make_broadcast_ranks_explicit(ir);  // each round: rules may leave new ones
    // Dead readers in the input would block rules that want a single reader.
    if (options.prune) {
      const int64_t dead = prune_dead(ir);
      total.pruned_nodes += dead;
      changed += dead;
    }
    std::vector<NodePtr> refold;
    if (folded_all) {
      refold = ir.take_touched();
      ir.take_released();
      ir.set_journal(false);
    }
    if (round > 0) ir.op_ruler_pause.clear();
    ir.renumber_order();
    DriverOptions opt = options;
    opt.max_rewrites = std::max<int64_t>(1, budget - total.rewrites);
    const DriverStats s = Driver(ir, first, second, quant_tab, opt, folded_all ? &refold : nullptr).run();
    for (const auto& kv : s.fired) total.fired[kv.first] += kv.second;
    for (const auto& kv : s.rule_seconds) total.rule_seconds[kv.first] += kv.second;
    ++total.rounds;
    tell("round " + std::to_string(round + 1) + " of the tables: " + std::to_string(s.rewrites) + " rewrite(s), " +
         std::to_string(ir.node_count()) + " nodes");
    total.rewrites += s.rewrites;
    total.attempts += s.attempts;
    total.pruned_nodes += s.pruned_nodes;
    total.rule_faults.insert(total.rule_faults.end(), s.rule_faults.begin(), s.rule_faults.end());
    total.fold.add(s.fold);
    if (options.prune) {
      const int64_t dead = prune_dead(ir);
      total.pruned_nodes += dead;
      changed += dead;
    }
    changed += s.rewrites + s.fold.steps;
    if (!s.converged || total.rewrites >= budget) {
      total.converged = false;
      break;
    }
    if (changed == 0) break;
    if (round + 1 >= kMaxRounds) {
      total.converged = false;
      tolmLog::w("reduce stopped after " + std::to_string(kMaxRounds) +
                 " rounds without reaching a fixed point");
      break;
    }
  }
  for (const auto& kv : inner.fired) total.fired[kv.first] += kv.second;
  for (const auto& kv : inner.rule_seconds) total.rule_seconds[kv.first] += kv.second;
  total.rewrites += inner.rewrites;
  total.attempts += inner.attempts;
  total.rule_faults.insert(total.rule_faults.end(), inner.rule_faults.begin(), inner.rule_faults.end());
  total.fold.add(inner.fold);
  total.subgraph_nodes_removed += inner.subgraph_nodes_removed;
  return total;
}

void check_row_keys(const std::set<std::string>& keys, const char* what) {
  for (const auto& k : keys) {
    bool found = false;
    for (const auto* table : {&cvt_reduce(), &fuse_reduce()})
      for (const auto& r : *table)
        if (r.key == k) found = true;
    if (!found) throw std::invalid_argument(std::string(what) + ": no rule has the key '" + k + "'");
  }
}

DriverStats run_reduce(IR& ir, QuantTable* quant_tab, const DriverOptions& options) {
  return run_tables(ir, cvt_reduce(), fuse_reduce(), quant_tab, options);
}

RuleResult try_row(IR& ir, const Row& row, const NodePtr& anchor, QuantTable* quant_tab) {
  DriverStats scratch;
  if (!row.proc || !ir.contains(*anchor)) return {};
  RuleResult r = Matcher(ir, row, quant_tab, scratch, true).run(anchor);
  ir.commit_edit();  // the caller applies the result
  return r;
}

}  // namespace tolm
