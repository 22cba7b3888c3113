// x * c1 + x * c2 is x * (c1 + c2): two Mul nodes and an Add become one Mul.
#include <optional>
#include <string>

#include <xtensor/xarray.hpp>

#include "fusions/fusions.h"
#include "host/builder.h"
#include "host/helpers.h"
#include "host/xarray_bridge.h"

namespace tolm {
namespace {

// The element-wise sum of two constants of one type and shape, in that type.
std::optional<NDArray> const_sum(const NDArray& a, const NDArray& b) {
  if (a.dtype() != b.dtype() || a.shape() != b.shape()) return std::nullopt;
  if (dtype_is_float(a.dtype())) {
    const xt::xarray<double> s = to_xarray<double>(a) + to_xarray<double>(b);
    return from_xarray<double>(s, a.dtype());
  }
  if (!dtype_is_integer(a.dtype())) return std::nullopt;
  // Integers wrap around as the runtime's Mul and Add would.
  const xt::xarray<uint64_t> s = to_xarray<uint64_t>(a) + to_xarray<uint64_t>(b);
  return from_xarray<uint64_t>(s, a.dtype());
}

}  // namespace

RuleResult _p_fuse_mul_mul_add_to_mul(IR& ir, const NodeList& nodes, QuantTable* /*quant_tab*/) {
  if (nodes.size() != 2) return no_match();
  const NodePtr& mul_1 = nodes[0];
  const NodePtr& add = nodes[1];
  const NodeList pre_nodes = ir.pre_nodes(*add);
  if (pre_nodes.size() != 2) return no_match();
  const NodePtr mul_2 = pre_nodes[1] == mul_1 ? pre_nodes[0] : pre_nodes[1];
  if (mul_2->op_type() != "Mul" || mul_1->op_type() != "Mul") return no_match();
  if (ir.is_output(mul_1->output[0]) || ir.is_output(mul_2->output[0])) return no_match();
  if (mul_1->input.size() != 2 || mul_2->input.size() != 2 || add->input.size() != 2) return no_match();

  const bool c1_first = ir.is_const(mul_1->input[0]);
  const bool c2_first = ir.is_const(mul_2->input[0]);
  const std::string& mul_1_const = mul_1->input[c1_first ? 0 : 1];
  const std::string& mul_2_const = mul_2->input[c2_first ? 0 : 1];
  if (!ir.is_const(mul_1_const) || !ir.is_const(mul_2_const)) return no_match();
  const std::string& mul_1_feature = mul_1->input[c1_first ? 1 : 0];
  const std::string& mul_2_feature = mul_2->input[c2_first ? 1 : 0];
  if (mul_1_feature != mul_2_feature) return no_match();
  // x*a + x*b and x*(a+b) differ where x is infinite (inf - inf is NaN).
  if (may_carry_non_finite(ir, mul_1_feature)) return no_match();

  const std::optional<NDArray> new_const = const_sum(*ir.get_const(mul_1_const), *ir.get_const(mul_2_const));
  if (!new_const) return no_match();
  // Both products go with the Add: a second reader of either would lose its
  // producer.
  if (!only_read_by(ir, mul_1->output[0], *add) || !only_read_by(ir, mul_2->output[0], *add))
    return no_match();

  Graph g(ir);
  g.op("Mul", {mul_1_feature, *new_const}, {add->output.names(), mul_1->name()});
  return {{mul_1, mul_2, add}, g.nodes};
}

}  // namespace tolm
