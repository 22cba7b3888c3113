// A Cast from or to bool ahead of an Equal with a constant: the Equal can
// compare the Cast's input with the constant in that input's type, and the
// Cast goes. This holds only where the conversion of the constant loses
// nothing the comparison sees: from bool, a constant of 0s and 1s; to bool,
// a constant of all false (x != 0 equals false exactly where x == 0; against
// true, a value such as 2 would no longer compare equal).
#include <string>

#include "fusions/fusions.h"
#include "host/edit.h"
#include "host/helpers.h"

namespace tolm {
namespace {

// Equal compares these types from opset 11 on; bool and 32/64-bit integers
// before that.
bool equal_takes_type(int64_t opset, int32_t dtype) {
  if (dtype == dt::BOOL || dtype == dt::INT32 || dtype == dt::INT64) return opset >= 7;
  if (dtype == dt::BFLOAT16) return opset >= 13;
  return opset >= 11 && (dtype_is_integer(dtype) || dtype_is_float(dtype));
}

}  // namespace

RuleResult _p_fuse_cast_into_equal(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.size() != 2) return no_match();
  const NodePtr& cast = nodes[0];
  const NodePtr& equal = nodes[1];
  if (cast->input.size() != 1 || cast->output.size() != 1 || equal->input.size() != 2) return no_match();
  const std::string& cast_in = cast->input[0];
  const std::string& cast_out = cast->output[0];
  const int32_t i_dtype = ir.get_dtype(cast_in);
  const int32_t m_dtype = ir.get_dtype(cast_out);
  if (i_dtype != dt::BOOL && m_dtype != dt::BOOL) return no_match();

  const ElemwiseConst ec = get_elemwise_const(ir, *equal);
  if (!ec.const_name) return no_match();
  // The Equal compares the Cast's output with the constant, and the Cast has
  // no other reader.
  if (ec.other_name != cast_out || !only_read_by(ir, cast_out, *equal)) return no_match();
  if (!equal_takes_type(ir.opset(), i_dtype)) return no_match();
  const NDArray& c_equal = *ir.get_const(*ec.const_name);
  if (c_equal.dtype() == dt::STRING) return no_match();
  if (i_dtype == dt::BOOL) {
    // Every value survives the trip through bool: each is 0 or 1.
    if (c_equal.astype(dt::BOOL).astype(c_equal.dtype()) != c_equal) return no_match();
  } else if (!c_equal.all_equal(0.0)) {
    return no_match();
  }

  set_own_const(ir, *equal, static_cast<size_t>(ec.const_idx), c_equal.astype(i_dtype), "_fuse");
  replace_input(ir, *equal, cast_out, cast_in);
  return {{cast}, {}};
}

}  // namespace tolm
