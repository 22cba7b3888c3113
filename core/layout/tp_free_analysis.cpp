// Classification of tensors for the transpose mesh: which tensors can change
// layout with the region around them, which sit on its edge, and which nodes
// lie wholly inside it.
#include <algorithm>

#include "host/log.h"
#include "layout/tp_mesh_parts.h"

namespace tolm {
namespace {

// Nodes this wide are never taken into a mesh: rewiring them is not worth it.
constexpr size_t kMaxMeshNodePorts = 128;

}  // namespace

MeshOps::MeshOps(const Names& free_types, const Names& param_types, const OpIoIgnore& ignore,
                 const Names& excluded)
    : free_(free_types.begin(), free_types.end()),
      param_(param_types.begin(), param_types.end()),
      excluded_(excluded.begin(), excluded.end()),
      ignore_(ignore) {}

const std::vector<int64_t>& MeshOps::ignored_inputs(const std::string& op_type) const {
  static const std::vector<int64_t> kNone;
  auto it = ignore_.first.find(op_type);
  return it == ignore_.first.end() ? kNone : it->second;
}

const std::vector<int64_t>& MeshOps::ignored_outputs(const std::string& op_type) const {
  static const std::vector<int64_t> kNone;
  auto it = ignore_.second.find(op_type);
  return it == ignore_.second.end() ? kNone : it->second;
}

bool MeshOps::blocks(const Node& nod) const {
  return !free_type(nod.op_type()) || excluded(nod.name()) ||
         nod.input.size() > kMaxMeshNodePorts || nod.output.size() > kMaxMeshNodePorts;
}

bool is_ignored_position(const std::vector<int64_t>& positions, size_t i) {
  return std::find(positions.begin(), positions.end(), static_cast<int64_t>(i)) !=
         positions.end();
}

void classify_tensor(IR& ir, const MeshOps& ops, const std::string& t_name,
                     IndexedNames& free_list, IndexedNames& block_list, Names& candidate_list,
                     IndexedNames& branch_block_list,
                     OrderedDict<Names>& branch_tensor_group_dict) {
  if (free_list.has(t_name) || block_list.has(t_name)) return;
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
      if (free_list.has(t) || block_list.has(t) || t == t_name || is_ignored_position(skip, i))
        continue;
      surround_tensor.push_back(t);
    }
  };
  auto visit = [&](const NodePtr& nod) {
    if (ops.blocks(*nod)) {
      // The tensor is an edge of the mesh, but its other neighbours may
      // still belong to it.
      block_list.append_unique(t_name);
      return;
    }
    collect(nod->input, ops.ignored_inputs(nod->op_type()));
    collect(nod->output, ops.ignored_outputs(nod->op_type()));
  };
  for (const NodePtr& nod : pre_nodes) visit(nod);
  for (const NodePtr& nod : next_nodes) visit(nod);

  size_t non_const_surround = 0;
  for (const std::string& t : surround_tensor)
    if (!ir.is_const(t)) ++non_const_surround;

  // A fork is opened only when the search has nothing simpler left to do.
  if (non_const_surround > 1) {
    branch_tensor_group_dict[t_name] = surround_tensor;
  } else {
    candidate_list.insert(candidate_list.end(), surround_tensor.begin(), surround_tensor.end());
  }

  if (ir.is_input(t_name) || ir.is_output(t_name)) {
    block_list.append_unique(t_name);
  } else if (non_const_surround > 1 && !block_list.has(t_name)) {
    branch_block_list.append_unique(t_name);
  } else if (!block_list.has(t_name) && !free_list.has(t_name)) {
    free_list.push_back(t_name);
  }
}

void _func_is_tensor_tp_free(IR& ir, const Names& tp_free_op_type,
                             const OpIoIgnore& op_io_ignore_dicts, const std::string& t_name,
                             Names& free_list, Names& block_list, Names& candidate_list,
                             Names& branch_block_list,
                             OrderedDict<Names>& branch_tensor_group_dict,
                             const Names& last_time_tp_change_unsupport_op) {
  const MeshOps ops(tp_free_op_type, {}, op_io_ignore_dicts, last_time_tp_change_unsupport_op);
  IndexedNames free_ix(free_list), block_ix(block_list), branch_ix(branch_block_list);
  classify_tensor(ir, ops, t_name, free_ix, block_ix, candidate_list, branch_ix,
                  branch_tensor_group_dict);
  free_list = free_ix.list();
  block_list = block_ix.list();
  branch_block_list = branch_ix.list();
}

std::pair<Names, Names> mesh_pass_ops(IR& ir, const MeshOps& ops, const Names& tensors,
                                      const NameSet& in_mesh) {
  Names tp_free_pass_op, param_changed_ops;
  for (const std::string& t_name : tensors) {
    const NodeList prev_node = ir.pre_nodes(t_name);
    if (prev_node.size() != 1) continue;
    const NodePtr& p_nod = prev_node[0];
    if (!ops.free_type(p_nod->op_type())) continue;

    // Every operand of the node that takes part in the layout must be a
    // tensor of the mesh.
    bool valid = true;
    auto check = [&](const PortList& ports, const std::vector<int64_t>& skip) {
      for (size_t i = 0; i < ports.size() && valid; ++i) {
        if (ports[i].empty()) continue;
        if (!is_ignored_position(skip, i) && !in_mesh.count(ports[i])) valid = false;
      }
    };
    check(p_nod->input, ops.ignored_inputs(p_nod->op_type()));
    check(p_nod->output, ops.ignored_outputs(p_nod->op_type()));

    if (valid && !ops.excluded(p_nod->name())) {
      tp_free_pass_op.push_back(p_nod->name());
      if (ops.param_type(p_nod->op_type())) param_changed_ops.push_back(p_nod->name());
    }
  }
  return {tp_free_pass_op, param_changed_ops};
}

std::pair<Names, Names> _func_get_tp_pass_op(IR& ir, const Names& tp_free_op_type,
                                             const Names& tp_change_param_op_type,
                                             const OpIoIgnore& op_io_ignore_dicts,
                                             const Names& tp_free_tensors,
                                             const Names& tp_block_tensors,
                                             const Names& last_time_tp_change_unsupport_op) {
  const MeshOps ops(tp_free_op_type, tp_change_param_op_type, op_io_ignore_dicts,
                    last_time_tp_change_unsupport_op);
  Names tp_tensors = tp_free_tensors;
  tp_tensors.insert(tp_tensors.end(), tp_block_tensors.begin(), tp_block_tensors.end());
  const NameSet in_mesh(tp_tensors.begin(), tp_tensors.end());
  return mesh_pass_ops(ir, ops, tp_tensors, in_mesh);
}

}  // namespace tolm
