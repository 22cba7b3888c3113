// A Concat or Split with Reshape nodes around it runs in the shape those
// Reshape nodes give, so that they go away. Each candidate shape is judged by
// the Reshape nodes that cost run time (those the target cannot run in place)
// before and after; a Gather repairs the order of elements across the axis
// where the new shape would change it.
#include <cstdint>
#include <string>
#include <unordered_set>
#include <vector>

#include "host/builder.h"
#include "host/edit.h"
#include "host/helpers.h"
#include "layout/layout.h"

namespace tolm {
namespace {

// A candidate shape: dimensions with one open entry, at `q`, whose size
// differs per tensor (the operator's axis). Written as text, "1,?,40,40".
struct CanShape {
  Shape dims;  // the entry at q is unused
  size_t q = 0;
  std::string text() const {
    std::string s;
    for (size_t k = 0; k < dims.size(); ++k)
      s += (k ? "," : "") + (k == q ? std::string("?") : std::to_string(dims[k]));
    return s;
  }
};

int64_t prod(const Shape& s) {
  int64_t p = 1;
  for (int64_t d : s) p *= d;
  return p;
}

int64_t prod_others(const CanShape& c) {
  int64_t p = 1;
  for (size_t k = 0; k < c.dims.size(); ++k)
    if (k != c.q) p *= c.dims[k];
  return p;
}

// The candidate's dimensions for a tensor of `src_shape`: the open entry
// takes what the others leave of its element count.
Shape fill_undifined_shape(const Shape& src_shape, const CanShape& c) {
  Shape s = c.dims;
  const int64_t others = prod_others(c);
  s[c.q] = others > 0 ? prod(src_shape) / others : 0;
  return s;
}

// True if the shape is the candidate, whatever its open entry.
bool _is_same_shape(const Shape& _shape, const CanShape& c) {
  if (_shape.size() != c.dims.size()) return false;
  for (size_t k = 0; k < _shape.size(); ++k)
    if (k != c.q && _shape[k] != c.dims[k]) return false;
  return true;
}

// Whether the target runs a Reshape between a tensor and the candidate (in
// either direction) without moving data; the open entry is filled from the
// tensor. An open entry that cannot be filled exactly makes no Reshape.
bool _is_bypass_shape(const IR& ir, const Shape& tensor, const CanShape& c, bool tensor_first) {
  const int64_t others = prod_others(c);
  if (others <= 0 || prod(tensor) % others != 0) return false;
  const Shape filled = fill_undifined_shape(tensor, c);
  return tensor_first ? reshape_is_bypass(ir, tensor, filled) : reshape_is_bypass(ir, filled, tensor);
}

// The Reshape nodes that read `t` as their data.
NodeList reshape_readers(const IR& ir, const std::string& t) {
  NodeList out;
  for (const NodePtr& n : ir.next_nodes(t))
    if (n->op_type() == "Reshape" && n->input[0] == t) out.push_back(n);
  return out;
}

NodePtr reshape_producer(const IR& ir, const std::string& t) {
  const NodePtr p = ir.producer(t);
  return p && p->op_type() == "Reshape" && p->output[0] == t ? p : nullptr;
}

const std::string kMount = "mount:";

struct ProcessType {
  bool valid = false;
  int64_t time_cost_rs_change_num = 0;
  std::vector<std::string> in_p_type;
  std::vector<std::string> out_p_type;
};

ProcessType _get_process_type(const IR& ir, const Node& _nod, const CanShape& _shape_str, bool _before) {
  int64_t origin_rs_num = 0, origin_rs_bypass_num = 0, rm_rs_num = 0, rm_rs_bypass_num = 0;
  int64_t ins_rs_num = 0, ins_rs_bypass_num = 0, merge_bypass_changed = 0;
  const bool is_split = _nod.op_type() == "Split";
  ProcessType r;
  r.in_p_type.assign(_nod.input.size(), "");
  r.out_p_type.assign(_nod.output.size(), "");

  for (size_t idx = 0; idx < _nod.input.size(); ++idx) {
    if (is_split && idx == 1) continue;
    const std::string& _in = _nod.input[idx];
    const Shape& _in_shape = ir.get_shape(_in);
    const bool _new_shape_bypass = _is_bypass_shape(ir, _in_shape, _shape_str, true);
    auto count_new = [&] {
      ins_rs_num += 1;
      ins_rs_bypass_num += _new_shape_bypass;
      return "insert_rs";
    };
    if (ir.is_const(_in)) {
      r.in_p_type[idx] = "const";
      continue;
    }
    if (is_split && _before) {
      r.in_p_type[idx] = count_new();
      continue;
    }
    if (ir.next_nodes(_in).size() > 1) {
      std::string mount_name;
      for (const NodePtr& _p : reshape_readers(ir, _in)) {
        const Shape& _p_out_shape = ir.get_shape(_p->output[0]);
        const bool bypass = reshape_is_bypass(ir, _in_shape, _p_out_shape);
        origin_rs_num += 1;
        origin_rs_bypass_num += bypass;
        if (_is_same_shape(_p_out_shape, _shape_str)) {
          mount_name = _p->output[0];
          if (!ir.is_output(mount_name)) {
            rm_rs_num += 1;
            rm_rs_bypass_num += bypass;
          }
        }
      }
      if (!mount_name.empty()) {
        r.in_p_type[idx] = kMount + mount_name;
        continue;
      }
    }
    const NodePtr prev_nod = ir.producer(_in);
    const NodePtr prev_rs = reshape_producer(ir, _in);
    if (!prev_nod) {
      r.in_p_type[idx] = count_new();
    } else if (prev_rs) {
      const Shape& prev_in_shape = ir.get_shape(prev_rs->input[0]);
      const bool bypass = reshape_is_bypass(ir, prev_in_shape, _in_shape);
      origin_rs_num += 1;
      origin_rs_bypass_num += bypass;
      const bool sole = ir.next_nodes(_in).size() == 1 && !ir.is_output(_in);
      if (_is_same_shape(prev_in_shape, _shape_str)) {
        r.in_p_type[idx] = kMount + prev_rs->input[0];
        if (sole) {
          rm_rs_num += 1;
          rm_rs_bypass_num += bypass;
        }
      } else if (!sole) {
        r.in_p_type[idx] = count_new();
      } else {
        r.in_p_type[idx] = "merge_rs";
        merge_bypass_changed += _is_bypass_shape(ir, prev_in_shape, _shape_str, true) - bypass;
      }
    } else {
      r.in_p_type[idx] = count_new();
    }
  }

  for (size_t idx = 0; idx < _nod.output.size(); ++idx) {
    const std::string& _out = _nod.output[idx];
    const Shape& _out_shape = ir.get_shape(_out);
    const bool _new_shape_bypass = _is_bypass_shape(ir, _out_shape, _shape_str, false);
    auto count_new = [&] {
      ins_rs_num += 1;
      ins_rs_bypass_num += _new_shape_bypass;
    };
    const NodeList next_nods = ir.next_nodes(_out);
    if (!is_split && !_before) {
      r.out_p_type[idx] = "insert_rs";
      count_new();
      continue;
    }
    std::string mount_name;
    size_t mount_num = 0;
    const NodeList readers = reshape_readers(ir, _out);
    for (const NodePtr& _n : readers) {
      const Shape& _n_out_shape = ir.get_shape(_n->output[0]);
      const bool bypass = reshape_is_bypass(ir, _out_shape, _n_out_shape);
      origin_rs_num += 1;
      origin_rs_bypass_num += bypass;
      if (_is_same_shape(_n_out_shape, _shape_str)) {
        mount_name = _n->output[0];
        mount_num += 1;
        if (!ir.is_output(mount_name)) {
          rm_rs_num += 1;
          rm_rs_bypass_num += bypass;
        }
      }
    }
    if (!mount_name.empty()) {
      r.out_p_type[idx] = kMount + mount_name;
      if (next_nods.size() > mount_num || ir.is_output(_out)) count_new();
    } else if (next_nods.size() == 1 && readers.size() == 1 && !ir.is_output(_out)) {
      // Only a Reshape can take the operator's new shape in its stride; any
      // other single reader would see its input change shape.
      r.out_p_type[idx] = "merge_rs";
      const Shape& next_rs_out_shape = ir.get_shape(readers[0]->output[0]);
      merge_bypass_changed += _is_bypass_shape(ir, next_rs_out_shape, _shape_str, false) -
                              reshape_is_bypass(ir, _out_shape, next_rs_out_shape);
    } else {
      r.out_p_type[idx] = "insert_rs";
      count_new();
    }
  }

  const int64_t final_rs_num = origin_rs_num - rm_rs_num + ins_rs_num;
  const int64_t origin_time_cost_rs_num = origin_rs_num - origin_rs_bypass_num;
  const int64_t final_time_cost_rs_num = origin_time_cost_rs_num + (ins_rs_num - ins_rs_bypass_num) -
                                         (rm_rs_num - rm_rs_bypass_num) - merge_bypass_changed;
  r.time_cost_rs_change_num = final_time_cost_rs_num - origin_time_cost_rs_num;
  r.valid = r.time_cost_rs_change_num < 0 || (r.time_cost_rs_change_num == 0 && final_rs_num < origin_rs_num);
  return r;
}

}  // namespace

RuleResult _p_reduce_reshape_op_around_axis_op(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.empty()) return no_match();
  const NodePtr nod = nodes[0];
  const bool is_split = nod->op_type() == "Split";
  if (!is_split && nod->op_type() != "Concat") return no_match();
  if (is_split && (nod->input.size() < 2 || !ir.is_const(nod->input[1]) || ir.is_const(nod->input[0])))
    return no_match();
  // The new Reshape targets are written as numbers: they hold for one set of
  // shapes, not for a model with several shape profiles.
  if (!ir.dynamic_shapes.empty()) return no_match();
  // Shapes must be known and hold data: every tensor gets a written shape.
  for (const std::string& t : nod->input)
    if (t.empty() || !shape_holds_data(ir.get_shape(t))) return no_match();
  for (const std::string& t : nod->output)
    if (t.empty() || !shape_holds_data(ir.get_shape(t))) return no_match();

  NodeList prev_rs, next_rs;
  const NodeList pre = ir.pre_nodes(*nod);
  const NodeList next = ir.next_nodes(*nod);
  std::unordered_set<std::string> nod_inputs(nod->input.begin(), nod->input.end());
  for (const NodePtr& p : pre)
    if (p->op_type() == "Reshape") prev_rs.push_back(p);
  for (const std::string& t : nod->output)
    for (const NodePtr& n : reshape_readers(ir, t)) next_rs.push_back(n);
  for (const NodeList* list : {&prev_rs, &next_rs}) {
    for (const NodePtr& rs : *list) {
      if (get_op_type_around_node(ir, *rs).count("Reshape")) return no_match();
      if (ir.get_shape(rs->input[0]) == ir.get_shape(rs->output[0])) return no_match();
      // Far sides are candidate shapes: they must be known. A Reshape read
      // by the operator must not itself read one of the operator's inputs
      // (one input would mount what another merges).
      if (!shape_holds_data(ir.get_shape(rs->input[0])) || !shape_holds_data(ir.get_shape(rs->output[0])))
        return no_match();
      if (list == &prev_rs && nod_inputs.count(rs->input[0])) return no_match();
      // A Reshape below keeps its target while its input takes a new shape.
      if (list == &next_rs && !can_pin_reshape_target(ir, *rs)) return no_match();
    }
  }

  int64_t feature_num = static_cast<int64_t>(pre.size() + next.size());
  for (const std::string& t : nod->input) feature_num += ir.is_input(t);
  for (const std::string& t : nod->output) feature_num += ir.is_output(t);
  if (is_split) feature_num -= 1;
  if (2 * static_cast<int64_t>(prev_rs.size() + next_rs.size()) < feature_num) return no_match();

  OrderedDict<int64_t> shape_vote;
  std::vector<CanShape> cans;
  auto vote = [&](const Shape& _s) {
    for (size_t i = 0; i < _s.size(); ++i) {
      CanShape c{_s, i};
      int64_t& n = shape_vote[c.text()];
      if (n++ == 0) cans.push_back(c);
    }
  };
  for (const NodePtr& rs : prev_rs) vote(ir.get_shape(rs->input[0]));
  for (const NodePtr& rs : next_rs) vote(ir.get_shape(rs->output[0]));
  if (shape_vote.empty()) return no_match();

  const Shape src_shape = ir.get_shape(is_split ? nod->input[0] : nod->output[0]);
  int64_t axis = IR::get_attr_int(*nod, "axis").value_or(0);
  if (axis < 0) axis += static_cast<int64_t>(src_shape.size());
  if (axis < 0 || axis >= static_cast<int64_t>(src_shape.size())) return no_match();
  std::vector<int64_t> chunk_size;
  if (is_split) {
    chunk_size = ir.get_const(nod->input[1])->to_i64();
    if (chunk_size.size() != nod->output.size()) return no_match();
  } else {
    for (const std::string& t : nod->input) {
      const Shape& s = ir.get_shape(t);
      if (s.size() != src_shape.size()) return no_match();
      chunk_size.push_back(s[static_cast<size_t>(axis)]);
    }
  }

  // The choice: the candidate that leaves the fewest Reshape nodes that cost
  // run time, a needed Gather counted as one of them. Only a saving wins.
  int64_t cur_ops_num = 1;
  bool found = false;
  CanShape best;
  GatherPlan best_gather;
  bool need_gather = false;
  ProcessType best_type;
  for (const CanShape& can : cans) {
    if (src_shape.size() == 4 && can.dims.size() != 4) continue;
    const int64_t others = prod_others(can);
    if (others <= 0) continue;
    Shape target_shape = can.dims;
    target_shape[can.q] = prod(src_shape) / others;
    const auto gather = gen_gather_for_change_split_shape(src_shape, target_shape, axis,
                                                          static_cast<int64_t>(can.q), chunk_size,
                                                          nod->op_type());
    if (!gather || !gather->axis) continue;
    ProcessType pt = _get_process_type(ir, *nod, can, gather->before);
    if (!pt.valid) continue;
    bool _need_gather = false;
    for (size_t k = 0; k < gather->indices.size(); ++k)
      _need_gather = _need_gather || gather->indices[k] != static_cast<int64_t>(k);
    const int64_t ops_num = pt.time_cost_rs_change_num + (_need_gather ? 1 : 0);
    const bool tie = found && ops_num == cur_ops_num &&
                     ((is_split && gather->before) || (!is_split && !gather->before));
    if (ops_num < cur_ops_num || tie) {
      cur_ops_num = ops_num;
      found = true;
      best = can;
      best_gather = *gather;
      need_gather = _need_gather;
      best_type = pt;
    }
  }
  if (!found) return no_match();

  // The rewrite. A tensor that leaves is replaced by the mount everywhere.
  const int64_t new_axis = static_cast<int64_t>(best.q);
  const int64_t gather_axis = *best_gather.axis;
  const NDArray gather_index = NDArray::from_i64(best_gather.indices);
  const bool gather_before = best_gather.before;
  Graph g(ir);
  NodeList rm_ops;
  std::unordered_set<const Node*> removed;
  auto remove = [&](const NodePtr& n) {
    if (removed.insert(n.get()).second) rm_ops.push_back(n);
  };
  // Reshape readers of `t` that give the mount's shape go too, their readers
  // reading the mount; one whose output is a graph output leaves an Identity.
  auto drop_same_reshapes = [&](const std::string& t, const std::string& mount, const Shape& shape) {
    for (const NodePtr& rs : reshape_readers(ir, t)) {
      if (rs->output[0] == mount || ir.get_shape(rs->output[0]) != shape) continue;
      if (has_implicit_reader(ir, rs->output[0])) continue;
      const std::string rs_out = rs->output[0];
      replace_all_uses(ir, rs_out, mount);
      if (ir.is_output(rs_out)) g.op("Identity", {mount}, OpSpec{{rs_out}});
      remove(rs);
    }
  };

  std::vector<OpInput> new_inputs;
  for (size_t idx = 0; idx < nod->input.size(); ++idx) {
    const std::string _in = nod->input[idx];
    if (is_split && idx == 1) {
      std::vector<int64_t> lens;
      for (const std::string& o : nod->output)
        lens.push_back(fill_undifined_shape(ir.get_shape(o), best)[best.q]);
      new_inputs.push_back(lens);
      continue;
    }
    const Shape new_shape = fill_undifined_shape(ir.get_shape(_in), best);
    const std::string& p_type = best_type.in_p_type[idx];
    if (p_type == "const") {
      new_inputs.push_back(ir.get_const(_in)->reshaped(new_shape));
    } else if (p_type == "insert_rs") {
      std::string src = _in;
      if (is_split && need_gather && gather_before)
        src = g.op("Gather", {src, gather_index}, OpSpec{{}, "", {Attr::make_int("axis", gather_axis)}});
      new_inputs.push_back(g.op("Reshape", {src, new_shape}));
    } else if (p_type == "merge_rs") {
      const NodePtr prev = ir.producer(_in);
      set_own_const(ir, *prev, 1, NDArray::from_i64(new_shape), "_rs");
      ir.set_shape(_in, new_shape, true, ir.get_dtype(_in));
      new_inputs.push_back(_in);
    } else {
      const std::string mount = p_type.substr(kMount.size());
      const NodePtr prev = reshape_producer(ir, _in);
      if (prev && ir.next_nodes(_in).size() == 1 && !ir.is_output(_in)) remove(prev);
      drop_same_reshapes(_in, mount, new_shape);
      new_inputs.push_back(mount);
    }
  }
  if (is_split && need_gather && !gather_before) {
    const std::string data = std::get<std::string>(new_inputs[0]);
    new_inputs[0] = g.op("Gather", {data, gather_index}, OpSpec{{}, "", {Attr::make_int("axis", gather_axis)}});
  }

  std::vector<std::string> new_outputs;
  for (size_t idx = 0; idx < nod->output.size(); ++idx) {
    const std::string _out = nod->output[idx];
    const Shape _out_shape = ir.get_shape(_out);
    const Shape new_shape = fill_undifined_shape(_out_shape, best);
    const int32_t dtype = ir.get_dtype(_out);
    const std::string& p_type = best_type.out_p_type[idx];
    if (p_type == "merge_rs") {
      const NodePtr next_rs_node = reshape_readers(ir, _out)[0];
      pin_reshape_target(ir, *next_rs_node);
      ir.set_shape(_out, new_shape, true, dtype);
      new_outputs.push_back(_out);
    } else if (p_type == "insert_rs") {
      std::string rs_out = _out;
      if (!is_split && idx == 0 && need_gather && !gather_before)
        rs_out = g.op("Gather", {Absent{}, gather_index}, OpSpec{{_out}, "", {Attr::make_int("axis", gather_axis)}});
      ir.set_shape(rs_out, _out_shape, false, dtype);
      const std::string rs_in = g.op("Reshape", {Absent{}, _out_shape}, OpSpec{{rs_out}});
      ir.set_shape(rs_in, new_shape, false, dtype);
      new_outputs.push_back(rs_in);
    } else {
      // The mount Reshape itself goes as well: the operator now writes its
      // tensor, which must keep one producer.
      const std::string mount = p_type.substr(kMount.size());
      const NodePtr mount_rs = ir.producer(mount);
      drop_same_reshapes(_out, mount, new_shape);
      remove(mount_rs);
      bool still_read = ir.is_output(_out);
      for (const NodePtr& n : ir.next_nodes(_out)) still_read = still_read || !removed.count(n.get());
      if (still_read) g.op("Reshape", {mount, _out_shape}, OpSpec{{_out}});
      new_outputs.push_back(mount);
    }
  }
  if (!is_split && need_gather && gather_before) {
    const std::string cat_out = new_outputs[0];
    const Shape shape = ir.get_shape(cat_out);
    new_outputs[0] = g.op("Gather", {Absent{}, gather_index},
                          OpSpec{{cat_out}, "", {Attr::make_int("axis", gather_axis)}});
    ir.set_shape(new_outputs[0], shape, false, ir.get_dtype(cat_out));
  }

  std::vector<Attr> attrs = nod->attribute();
  for (Attr& a : attrs)
    if (a.name == "axis") a.i = new_axis;
  if (!IR::get_attr(*nod, "axis")) attrs.push_back(Attr::make_int("axis", new_axis));
  remove(nod);
  g.op(nod->op_type(), new_inputs, OpSpec{new_outputs, nod->name(), attrs});
  return {rm_ops, g.nodes};
}

}  // namespace tolm
