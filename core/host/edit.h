// The edits rules make to connections, in one place. Each one goes through
// the IR's setters (so the index, the change journal and the undo log follow)
// and each applies the one policy for graph inputs and outputs: a tensor that
// is a graph output keeps its name and a producer; a graph input is never
// produced. A rule rewires with these, never with a loop of its own.
#pragma once

#include <functional>
#include <string>

#include "host/ir.h"

namespace tolm {

// ---- readers -------------------------------------------------------------

// True if some sub-graph (If, Loop, Scan body) reads `t` from the outer scope:
// such a reader cannot be moved to another tensor.
bool has_implicit_reader(const IR& ir, const std::string& t);

// Every reader of `from` reads `to` instead, in every slot that names it;
// readers in `except` are left as they are. Readers inside sub-graphs cannot
// follow: see has_implicit_reader.
void replace_all_uses(IR& ir, const std::string& from, const std::string& to,
                      const NodeList& except = {});

// The same for the readers that `pick` selects.
void replace_uses_if(IR& ir, const std::string& from, const std::string& to,
                     const std::function<bool(const Node&)>& pick);

// The slots of one reader that name `from` now name `to`.
void replace_input(IR& ir, Node& reader, const std::string& from, const std::string& to);

// The output slots of `producer` that name `from` now name `to`.
void rename_output(IR& ir, Node& producer, const std::string& from, const std::string& to);

// ---- names of tensors ----------------------------------------------------

// Whether the producer of `from` can hand its output over under the name
// `to`: `from` is made by a node (no constant, no graph input), is no graph
// output (that name would be lost), and no sub-graph reads it.
bool can_move_output_name(const IR& ir, const std::string& from, const std::string& to);

// The producer of `from` now produces `to`, and every reader of `from` but
// those in `except` reads `to`. `to` must be free or made by a node the
// caller is about to remove. False, with nothing changed, where
// can_move_output_name says no.
bool move_output_name(IR& ir, const std::string& from, const std::string& to,
                      const NodeList& except = {});

// ---- bypassing a node ------------------------------------------------------

// Whether `node` can be taken out with `surviving` in place of its output
// (slot 0): its other outputs are unused; `surviving` has exactly the
// output's shape and element type where both are known (a tensor that
// broadcasts is no stand-in); readers of the output can all move; and if the
// output is a graph output, its name can move to the producer of `surviving`.
bool can_bypass(const IR& ir, const Node& node, const std::string& surviving);

// Readers of node.output[0] read `surviving`. When that output is a graph
// output, the producer of `surviving` takes over its name instead, and the
// other readers of `surviving` follow. The caller removes `node`. False, with
// nothing changed, where can_bypass says no.
bool bypass_node(IR& ir, Node& node, const std::string& surviving);

// ---- nodes and constants -------------------------------------------------

// A deep copy of `node`, outside any graph, with these attributes set (others
// kept): the copy goes into a rule's `add` list and `node` into `remove`, so
// that the driver sees the change.
NodePtr copy_with_attrs(const Node& node, const std::vector<Attr>& attrs);

// Input `idx` of `node` holds `value`. A constant that no one else reads (and
// that is no graph output) is rewritten in place; a shared one is left to its
// other readers and the node gets its own copy, named from the old one and
// `suffix`. Returns the name the node now reads.
std::string set_own_const(IR& ir, Node& node, size_t idx, const NDArray& value,
                          const std::string& suffix);

// One input slot of a node: `node.input[slot]`.
struct InputSlot {
  Node* node;
  size_t slot;
};

// The constant that every slot of `slots` reads (one tensor for all) becomes
// `value` for them: rewritten in place when they are all its readers and it is
// no graph input or output, else one copy named from it and `suffix` that
// they all read. Returns the name they now read. Costs what the slots and the
// tensor's readers cost, however many readers share it.
std::string set_shared_const(IR& ir, const std::vector<InputSlot>& slots, const NDArray& value,
                             const std::string& suffix);

// ---- Reshape targets ------------------------------------------------------

// A Reshape target with a 0 (allowzero unset) copies a dimension of whatever
// the Reshape reads, and a computed target may do anything: before a rule
// hands a Reshape another input, its target must name every dimension. True
// if it does already, or if the output shape is known so that it can.
bool can_pin_reshape_target(const IR& ir, const Node& reshape);
// Makes the target name every dimension (the known output shape) where it
// does not; a target other nodes share stays theirs. False, with nothing
// changed, where can_pin_reshape_target says no.
bool pin_reshape_target(IR& ir, Node& reshape);

}  // namespace tolm
