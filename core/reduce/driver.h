// The driver: applies the rule tables to a graph until nothing applies.
// It works from a worklist of nodes whose neighbourhood changed; the cost of a
// rewrite follows the nodes it touches, never the size of the graph.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <stdexcept>
#include <vector>
#include <string>

#include "fold/fold.h"
#include "reduce/rule.h"
#include "reduce/tables.h"

namespace tolm {

struct DriverOptions {
  // Upper bound on rewrites; 0 picks one from the graph size.
  int64_t max_rewrites = 0;
  // Remove dead branches and unused constants before the rules run (a dead
  // reader would block rules that need a single reader) and at the end.
  bool prune = true;
  // Fold constants and apply the standard fusions: once over the graph
  // before the tables, then at every node the driver takes up.
  bool fold = true;
  FoldOptions fold_options;
  // Row keys the driver leaves out, and, when not empty, the only ones it
  // runs. Keys are checked against the tables by check_row_keys.
  // Reduce the bodies of If, Loop and Scan nodes too, each as a graph of its
  // own whose outer-scope names are inputs.
  bool subgraphs = true;
  std::set<std::string> skip;
  std::set<std::string> only;
  // Told after the fold pass and after each round of the tables, with what
  // was done; for a progress line on large models.
  std::function<void(const std::string& phase)> progress;
  // A rule that edits the graph and then says it does not apply, or that
  // throws, is a bug. Strict: the driver throws RuleError. Otherwise the
  // graph is put back as it was, the fault is logged and reported, and the
  // driver goes on without that rewrite.
#if defined(TOLM_STRICT_RULES) || !defined(NDEBUG)
  bool strict = true;
#else
  bool strict = false;
#endif
};

// A rule that broke its contract (strict mode): names the row and the node.
struct RuleError : std::logic_error {
  using std::logic_error::logic_error;
};

struct DriverStats {
  std::map<std::string, int64_t> fired;  // row key -> times applied
  int64_t rewrites = 0;
  int64_t attempts = 0;  // procedure calls
  int64_t pruned_nodes = 0;
  bool converged = true;  // false if the rewrite budget ran out
  // Rules that threw or edited the graph and then did not apply, one line
  // each (row key, node, what happened); each was undone.
  std::vector<std::string> rule_faults;
  FoldStats fold;
  std::map<std::string, double> rule_seconds;  // row key -> time in its procedure
  int64_t rounds = 0;
  int64_t subgraph_nodes_removed = 0;  // nodes the bodies of sub-graphs lost
};

// Throws std::invalid_argument naming a key of `keys` that no row of the
// tables has.
void check_row_keys(const std::set<std::string>& keys, const char* what);

// Runs cvt_reduce then fuse_reduce, repeated until neither applies.
DriverStats run_reduce(IR& ir, QuantTable* quant_tab, const DriverOptions& options = {});

// The same over any pair of tables (the first is tried before the second).
DriverStats run_tables(IR& ir, const std::vector<Row>& first, const std::vector<Row>& second,
                       QuantTable* quant_tab, const DriverOptions& options = {});

// Offers the row's matches anchored at `anchor` (the first node of a chain,
// the last of an `n_pre_nodes` pattern) to its procedure until one applies;
// returns that result without applying it.
RuleResult try_row(IR& ir, const Row& row, const NodePtr& anchor, QuantTable* quant_tab);

// Applies one rule result as the driver does: takes out `remove` (by node
// identity), puts in `add` at a valid place in the order, and gives new
// tensors their shapes and element types.
void apply_result(IR& ir, const RuleResult& result);

// A 0 in a Reshape's target shape copies the dimension of the Reshape's input;
// once a rule hands the Reshape another input, that dimension is another one.
// Before the tables run, every such target with a known output shape becomes
// the explicit shape. Returns how many Reshape nodes changed.
int64_t make_reshape_shapes_explicit(IR& ir);

// Removes nodes none of whose outputs is used or is a graph output, and
// constants no node reads; graph inputs and outputs are never touched.
int64_t prune_dead(IR& ir);

}  // namespace tolm
