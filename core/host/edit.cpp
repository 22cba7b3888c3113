#include "host/edit.h"

#include <algorithm>

#include "host/helpers.h"

namespace tolm {

bool has_implicit_reader(const IR& ir, const std::string& t) {
  const TensorInfo* ti = ir.tensor(t);
  if (!ti) return false;
  for (const auto& u : ti->uses)
    if (u.second & IR::kImplicit) return true;
  return false;
}

void replace_input(IR& ir, Node& reader, const std::string& from, const std::string& to) {
  for (size_t i = 0; i < reader.input.size(); ++i)
    if (reader.input[i] == from) ir.set_input(reader, i, to);
}

void rename_output(IR& ir, Node& producer, const std::string& from, const std::string& to) {
  for (size_t i = 0; i < producer.output.size(); ++i)
    if (producer.output[i] == from) ir.set_output(producer, i, to);
}

void replace_uses_if(IR& ir, const std::string& from, const std::string& to,
                     const std::function<bool(const Node&)>& pick) {
  if (from == to) return;
  const TensorInfo* ti = ir.tensor(from);
  if (!ti) return;
  // The readers, each once, in graph order (as next_nodes gives them),
  // without handing out shared pointers: most tensors have one reader.
  SmallVector<Node*, 4> readers;
  for (const TensorUse& u : ti->uses) {
    if (u.second & IR::kImplicit) continue;
    if (std::find(readers.begin(), readers.end(), u.first) == readers.end()) readers.push_back(u.first);
  }
  std::sort(readers.begin(), readers.end(), [](const Node* a, const Node* b) {
    return a->order() != b->order() ? a->order() < b->order() : a->uid() < b->uid();
  });
  for (Node* reader : readers)
    if (pick(*reader)) replace_input(ir, *reader, from, to);
}

void replace_all_uses(IR& ir, const std::string& from, const std::string& to,
                      const NodeList& except) {
  replace_uses_if(ir, from, to, [&](const Node& n) {
    for (const NodePtr& e : except)
      if (e.get() == &n) return false;
    return true;
  });
}

bool can_move_output_name(const IR& ir, const std::string& from, const std::string& to) {
  if (from.empty() || to.empty() || from == to) return false;
  if (ir.is_input(from) || ir.is_output(from) || ir.is_const(from)) return false;
  if (ir.is_input(to) || ir.is_const(to)) return false;
  if (!ir.producer(from)) return false;
  return !has_implicit_reader(ir, from);
}

bool move_output_name(IR& ir, const std::string& from, const std::string& to,
                      const NodeList& except) {
  if (!can_move_output_name(ir, from, to)) return false;
  const NodePtr producer = ir.producer(from);
  rename_output(ir, *producer, from, to);
  replace_all_uses(ir, from, to, except);
  return true;
}

namespace {

bool same_known_type(const IR& ir, const std::string& a, const std::string& b) {
  if (ir.has_shape(a) && ir.has_shape(b) && ir.get_shape(a) != ir.get_shape(b)) return false;
  const int32_t da = ir.get_dtype(a), db = ir.get_dtype(b);
  return da == dt::UNDEFINED || db == dt::UNDEFINED || da == db;
}

}  // namespace

bool can_bypass(const IR& ir, const Node& node, const std::string& surviving) {
  if (node.output.empty() || node.output[0].empty() || surviving.empty()) return false;
  const std::string& out = node.output[0];
  if (surviving == out) return false;
  for (size_t k = 1; k < node.output.size(); ++k) {
    const std::string& o = node.output[k];
    if (!o.empty() && (ir.use_count(o) > 0 || ir.is_output(o))) return false;
  }
  if (!same_known_type(ir, surviving, out)) return false;
  if (has_implicit_reader(ir, out)) return false;
  if (!ir.is_output(out)) return true;
  // The graph output keeps its name: the surviving tensor's producer must
  // be able to take it, and the surviving tensor must not itself be a
  // graph input or output whose name would then be lost.
  if (ir.producer(surviving).get() == &node) return false;
  return can_move_output_name(ir, surviving, out);
}

bool bypass_node(IR& ir, Node& node, const std::string& surviving) {
  if (!can_bypass(ir, node, surviving)) return false;
  const std::string out = node.output[0];
  if (!ir.is_output(out)) {
    replace_all_uses(ir, out, surviving, {node.shared_from_this()});
    return true;
  }
  return move_output_name(ir, surviving, out, {node.shared_from_this()});
}

NodePtr copy_with_attrs(const Node& node, const std::vector<Attr>& attrs) {
  NodePtr copy = node.clone();
  for (const Attr& a : attrs) copy->set_attr(a);
  return copy;
}

std::string set_own_const(IR& ir, Node& node, size_t idx, const NDArray& value,
                          const std::string& suffix) {
  const std::string name = node.input[idx];
  bool private_use = ir.is_const(name) && !ir.is_output(name) && !ir.is_input(name);
  if (private_use)
    for (const NodePtr& r : ir.next_nodes(name))
      if (r.get() != &node) private_use = false;
  if (private_use) {
    ir.set_const(name, value);
    return name;
  }
  const std::string fresh = oper_name_join(ir, name, suffix);
  ir.set_const(fresh, value);
  ir.set_input(node, idx, fresh);
  return fresh;
}

std::string set_shared_const(IR& ir, const std::vector<InputSlot>& slots, const NDArray& value,
                             const std::string& suffix) {
  const std::string name = slots.front().node->input[slots.front().slot];
  const bool all_readers = ir.is_const(name) && !ir.is_output(name) && !ir.is_input(name) &&
                           ir.use_count(name) == slots.size();
  if (all_readers) {
    ir.set_const(name, value);
    return name;
  }
  const std::string fresh = oper_name_join(ir, name, suffix);
  ir.set_const(fresh, value);
  for (const InputSlot& s : slots) ir.set_input(*s.node, s.slot, fresh);
  return fresh;
}

namespace {

bool target_is_explicit(const IR& ir, const Node& reshape) {
  const NDArray* target = ir.get_const_optional(reshape, 1);
  if (!target) return false;
  if (IR::get_attr_int(reshape, "allowzero").value_or(0) != 0) return true;
  for (int64_t d : target->to_i64())
    if (d == 0) return false;
  return true;
}

}  // namespace

bool can_pin_reshape_target(const IR& ir, const Node& reshape) {
  if (reshape.input.size() < 2 || reshape.output.empty()) return false;
  if (target_is_explicit(ir, reshape)) return true;
  return ir.has_shape(reshape.output[0]) && shape_holds_data(ir.get_shape(reshape.output[0]));
}

bool pin_reshape_target(IR& ir, Node& reshape) {
  if (!can_pin_reshape_target(ir, reshape)) return false;
  if (target_is_explicit(ir, reshape)) return true;
  set_own_const(ir, reshape, 1, NDArray::from_i64(ir.get_shape(reshape.output[0])), "_explicit");
  return true;
}

}  // namespace tolm
