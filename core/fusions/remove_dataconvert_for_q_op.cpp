// An integer-to-float exDataConvert, an operator that can run on the integer
// data as it is, and the conversion back to the same integer type: the
// operator reads the integer tensor and makes the integer result itself.
// Where the operator only moves values but the ranges on the two sides
// differ, the conversion back stays and now converts between the two
// integer forms; the operator's output takes over the input's range.
#include <algorithm>
#include <string>

#include "fusions/fusions.h"
#include "host/edit.h"
#include "host/helpers.h"

namespace tolm {
namespace {

bool is_quant_int(const std::string& t) { return t == "int8" || t == "int16"; }
bool is_float_name(const std::string& t) { return t == "float16" || t == "float32"; }

// A range that is there and not zero, as the quantiser tests it.
bool range_set(const std::vector<double>& v) {
  if (v.empty()) return false;
  return v.size() > 1 || v[0] != 0.0;
}

}  // namespace

RuleResult _p_remove_dataconvert_for_q_op(IR& ir, const NodeList& nodes, QuantTable* quant_tab) {
  if (nodes.empty()) return no_match();
  const NodePtr& cvt0 = nodes[0];
  if (cvt0->input.size() != 1 || cvt0->output.size() != 1) return no_match();
  const NodeList nxt_nods = ir.next_nodes(*cvt0);
  if (nxt_nods.empty()) return no_match();
  NodePtr q_op, cvt1;
  for (const NodePtr& nod : nxt_nods) {
    const NodeList nxt_nods2 = ir.next_nodes(*nod);
    if (nxt_nods2.size() == 1 && nxt_nods2[0]->op_type() == "exDataConvert") {
      q_op = nod;
      cvt1 = nxt_nods2[0];
      break;
    }
  }
  // A conversion in the middle would read integers while it says float.
  if (!q_op || q_op->op_type() == "exDataConvert") return no_match();
  const FloatOpTypes fp16 = get_want_need_fp16(ir);
  auto listed = [&](const std::vector<std::string>& l) {
    return std::find(l.begin(), l.end(), q_op->op_type()) != l.end();
  };
  if (listed(fp16.want_fp16) || listed(fp16.need_fp16)) return no_match();

  const auto i_dtype_0 = IR::get_attr_str(*cvt0, "i_dtype");
  const auto o_dtype_0 = IR::get_attr_str(*cvt0, "o_dtype");
  const auto i_dtype_1 = IR::get_attr_str(*cvt1, "i_dtype");
  const auto o_dtype_1 = IR::get_attr_str(*cvt1, "o_dtype");
  if (!i_dtype_0 || !o_dtype_0 || !i_dtype_1 || !o_dtype_1) return no_match();
  if (*o_dtype_0 != *i_dtype_1 || *i_dtype_0 != *o_dtype_1) return no_match();
  if (!is_quant_int(*i_dtype_0) || !is_float_name(*o_dtype_0)) return no_match();

  const std::string& cvt0_o = cvt0->output[0];
  for (size_t i = 0; i < q_op->input.size(); ++i) {
    const std::string& inp = q_op->input[i];
    if (inp == cvt0_o || skip_no_quant(ir, *q_op, i)) continue;
    if (!quant_tab) return no_match();
    const auto it = quant_tab->find(inp);
    if (it == quant_tab->end() || !range_set(it->second.min) || !range_set(it->second.max)) return no_match();
  }
  if (q_op->output.size() != 1) return no_match();
  // The conversion back reads the operator's output, which nothing else
  // reads: that tensor goes (or changes type) with it.
  const std::string q_out = q_op->output[0];
  if (cvt1->input.size() != 1 || cvt1->input[0] != q_out || cvt1->output.size() != 1 ||
      !only_read_by(ir, q_out, *cvt1))
    return no_match();

  const std::string cvt0_i = cvt0->input[0];
  const std::string cvt1_o = cvt1->output[0];
  const bool cvt0_goes = nxt_nods.size() == 1;
  bool ranges_differ = false;
  if (quant_tab && is_no_change_node(q_op->op_type())) {
    const auto a = quant_tab->find(cvt0_i), b = quant_tab->find(cvt1_o);
    ranges_differ = a != quant_tab->end() && b != quant_tab->end() &&
                    (a->second.min != b->second.min || a->second.max != b->second.max);
  }
  // Every slot that reads the float tensor reads the integer one instead.
  if (ranges_differ) {
    replace_input(ir, *q_op, cvt0_o, cvt0_i);
    QuantRecord rec = (*quant_tab)[cvt0_i];
    rec.name = q_out;
    (*quant_tab)[q_out] = rec;
    ir.set_dtype(q_out, ir.get_dtype(cvt0_i));
    ir.set_attr(*cvt1, Attr::make_string("i_dtype", *i_dtype_0));
    // The operator changed in place; when cvt0 has other readers and stays,
    // the driver still has to see that something changed: the operator is
    // handed back as a fresh copy.
    if (cvt0_goes) return {{cvt0}, {}};
    return {{q_op}, {copy_with_attrs(*q_op, {})}};
  }
  // Both conversions go: the operator makes the tensor the second one made,
  // under its name (a graph output keeps its name and gets a producer).
  if (!can_move_output_name(ir, q_out, cvt1_o)) return no_match();
  replace_input(ir, *q_op, cvt0_o, cvt0_i);
  move_output_name(ir, q_out, cvt1_o, {cvt1});
  if (cvt0_goes) return {{cvt0, cvt1}, {}};
  return {{cvt1}, {}};
}

}  // namespace tolm
