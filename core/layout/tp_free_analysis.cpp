// Classification of tensors for the transpose mesh: which tensors can change
// layout with the region around them, which sit on its edge, and which nodes
// lie wholly inside it.
#include <algorithm>

#include "host/log.h"
#include "layout/layout.h"

namespace tolm {
namespace {

// Nodes this wide are never taken into a mesh: rewiring them is not worth it.
constexpr size_t kMaxMeshNodePorts = 128;

bool has(const Names& list, const std::string& name) {
  return std::find(list.begin(), list.end(), name) != list.end();
}

void append_unique(Names& list, const std::string& name) {
  if (!has(list, name)) list.push_back(name);
}

const std::vector<int64_t>& ignored(const std::map<std::string, std::vector<int64_t>>& m,
                                    const std::string& op_type) {
  static const std::vector<int64_t> kNone;
  auto it = m.find(op_type);
  return it == m.end() ? kNone : it->second;
}

bool is_ignored(const std::vector<int64_t>& positions, size_t i) {
  return std::find(positions.begin(), positions.end(), static_cast<int64_t>(i)) !=
         positions.end();
}

}  // namespace

void _func_is_tensor_tp_free(IR& ir, const Names& tp_free_op_type,
                             const OpIoIgnore& op_io_ignore_dicts, const std::string& t_name,
                             Names& free_list, Names& block_list, Names& candidate_list,
                             Names& branch_block_list,
                             OrderedDict<Names>& branch_tensor_group_dict,
                             const Names& last_time_tp_change_unsupport_op) {
  if (has(free_list, t_name) || has(block_list, t_name)) return;
  // A constant can be stored in any layout: it never stops the mesh.
  if (ir.is_const(t_name)) {
    free_list.push_back(t_name);
    return;
  }
  const NodeList next_nodes = ir.next_nodes(t_name);
  const NodeList pre_nodes = ir.pre_nodes(t_name);
  if (pre_nodes.size() > 1) {
    tolmLog::e("len(pre_nodes) > 1");
    return;
  }

  Names surround_tensor;
  auto collect = [&](const PortList& ports, const std::vector<int64_t>& skip) {
    for (size_t i = 0; i < ports.size(); ++i) {
      const std::string& t = ports[i];
      // A missing optional operand is no tensor of the mesh.
      if (t.empty()) continue;
      if (has(free_list, t) || has(block_list, t) || t == t_name || is_ignored(skip, i)) continue;
      surround_tensor.push_back(t);
    }
  };
  auto visit = [&](const NodePtr& nod) {
    const bool blocks = !has(tp_free_op_type, nod->op_type()) ||
                        has(last_time_tp_change_unsupport_op, nod->name()) ||
                        nod->input.size() > kMaxMeshNodePorts ||
                        nod->output.size() > kMaxMeshNodePorts;
    if (blocks) {
      // The tensor is an edge of the mesh, but its other neighbours may
      // still belong to it.
      append_unique(block_list, t_name);
      return;
    }
    collect(nod->input, ignored(op_io_ignore_dicts.first, nod->op_type()));
    collect(nod->output, ignored(op_io_ignore_dicts.second, nod->op_type()));
  };
  for (const NodePtr& nod : pre_nodes) visit(nod);
  for (const NodePtr& nod : next_nodes) visit(nod);

  Names non_const_surround_t;
  for (const std::string& t : surround_tensor)
    if (!ir.is_const(t)) non_const_surround_t.push_back(t);

  // A fork is opened only when the search has nothing simpler left to do.
  if (non_const_surround_t.size() > 1) {
    branch_tensor_group_dict[t_name] = surround_tensor;
  } else {
    candidate_list.insert(candidate_list.end(), surround_tensor.begin(), surround_tensor.end());
  }

  if (ir.is_input(t_name) || ir.is_output(t_name)) {
    append_unique(block_list, t_name);
  } else if (non_const_surround_t.size() > 1 && !has(block_list, t_name)) {
    append_unique(branch_block_list, t_name);
  } else if (!has(block_list, t_name) && !has(free_list, t_name)) {
    free_list.push_back(t_name);
  }
}

std::pair<Names, Names> _func_get_tp_pass_op(IR& ir, const Names& tp_free_op_type,
                                             const Names& tp_change_param_op_type,
                                             const OpIoIgnore& op_io_ignore_dicts,
                                             const Names& tp_free_tensors,
                                             const Names& tp_block_tensors,
                                             const Names& last_time_tp_change_unsupport_op) {
  Names tp_tensors = tp_free_tensors;
  tp_tensors.insert(tp_tensors.end(), tp_block_tensors.begin(), tp_block_tensors.end());
  Names tp_free_pass_op, param_changed_ops;
  for (const std::string& t_name : tp_tensors) {
    const NodeList prev_node = ir.pre_nodes(t_name);
    if (prev_node.size() != 1) continue;
    const NodePtr& p_nod = prev_node[0];
    if (!has(tp_free_op_type, p_nod->op_type())) continue;

    // Every operand of the node that takes part in the layout must be a
    // tensor of the mesh.
    bool valid = true;
    auto check = [&](const PortList& ports, const std::vector<int64_t>& skip) {
      for (size_t i = 0; i < ports.size() && valid; ++i) {
        if (ports[i].empty()) continue;
        if (!is_ignored(skip, i) && !has(tp_tensors, ports[i])) valid = false;
      }
    };
    check(p_nod->input, ignored(op_io_ignore_dicts.first, p_nod->op_type()));
    check(p_nod->output, ignored(op_io_ignore_dicts.second, p_nod->op_type()));

    if (valid && !has(last_time_tp_change_unsupport_op, p_nod->name())) {
      tp_free_pass_op.push_back(p_nod->name());
      if (has(tp_change_param_op_type, p_nod->op_type())) param_changed_ops.push_back(p_nod->name());
    }
  }
  return {tp_free_pass_op, param_changed_ops};
}

}  // namespace tolm
