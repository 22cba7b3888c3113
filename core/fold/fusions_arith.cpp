// Arithmetic fusions: two Mul (or two Add) by constants in a row become one
// by the product (or sum) of the constants; and, on request, MatMul followed
// by a constant Add becomes Gemm.
#include <cmath>
#include <limits>

#include "fold/evaluate.h"
#include "fold/steps.h"
#include "host/helpers.h"

namespace tolm {
namespace fold {

namespace {

// The constant operand of a two-input node and the other operand.
bool split_operands(const IR& ir, const Node& n, const NDArray*& c, std::string& c_name, std::string& other) {
  if (n.input.size() != 2 || n.output.size() != 1 || !in_default_domain(n)) return false;
  for (size_t i = 0; i < 2; ++i) {
    const NDArray* v = ir.get_const(n.input[i]);
    if (v && !ir.is_const(n.input[1 - i])) {
      c = v;
      c_name = n.input[i];
      other = n.input[1 - i];
      return true;
    }
  }
  return false;
}

// A float constant combined from two where one of them alone would not
// overflow or vanish: (x * a) * b and x * (a * b) then differ by rounding
// only.
bool in_float_range(const NDArray& v) {
  if (!dtype_is_float(v.dtype())) return true;
  const double max = v.dtype() == dt::DOUBLE ? std::numeric_limits<double>::max() : std::numeric_limits<float>::max();
  const double min = v.dtype() == dt::DOUBLE ? std::numeric_limits<double>::min() : std::numeric_limits<float>::min();
  for (double x : v.to_f64())
    if (!std::isfinite(x) || std::fabs(x) > max / 16 || (x != 0.0 && std::fabs(x) < min * 16)) return false;
  return true;
}

}  // namespace

bool fuse_constant_chain(IR& ir, Node& outer, const FoldOptions& options, FoldStats& stats) {
  const std::string& op = outer.op_type();
  const NDArray *c2 = nullptr, *c1 = nullptr;
  std::string c2_name, y, c1_name, x;
  if (!split_operands(ir, outer, c2, c2_name, y)) return false;
  const NodePtr inner = ir.producer(y);
  if (!inner || inner->op_type() != op || !split_operands(ir, *inner, c1, c1_name, x)) return false;
  if (!sole_reader(ir, y, outer) || c1->dtype() != c2->dtype()) return false;
  // One constant from the two: evaluated as the node itself would be.
  const Node& as_node = *inner;
  EvalContext ctx{as_node, {}, ir.opset(), {}};
  for (const NDArray* c : {c1, c2}) {
    EvalInput e;
    e.present = true;
    e.value = c;
    e.dtype = c->dtype();
    e.shape = &c->shape();
    ctx.in.push_back(e);
  }
  // The combined constant may not outgrow both of its parts.
  ctx.budget.allowed =
      std::min<int64_t>(options.max_bytes, static_cast<int64_t>(std::max(c1->raw().size(), c2->raw().size())));
  Outputs out;
  if (!find_evaluator(op)->fn(ctx, out) || !in_float_range(out[0])) return false;
  if (!in_float_range(*c1) || !in_float_range(*c2)) return false;

  const std::string name = oper_name_join(ir, c1_name, op == "Mul" ? "_mul" : "_add");
  ir.set_const(name, out[0]);
  NodePtr fresh = Node::make(op, {x, name}, {outer.output[0]}, inner->name());
  replace_nodes(ir, {inner, outer.shared_from_this()}, fresh);
  ++stats.fusions[op == "Mul" ? "mul_chain" : "add_chain"];
  return true;
}

bool fuse_matmul_add_into_gemm(IR& ir, Node& add, FoldStats& stats) {
  const NDArray* c = nullptr;
  std::string c_name, y;
  if (add.op_type() != "Add" || !split_operands(ir, add, c, c_name, y)) return false;
  const NodePtr mm = ir.producer(y);
  if (!mm || mm->op_type() != "MatMul" || !in_default_domain(*mm) || mm->input.size() != 2 ||
      !sole_reader(ir, y, add))
    return false;
  const std::string &a = mm->input[0], &b = mm->input[1];
  const int32_t dtype = ir.get_dtype(y);
  if ((dtype != dt::FLOAT && dtype != dt::DOUBLE) || c->dtype() != dtype) return false;
  if (!ir.has_shape(a) || !ir.has_shape(b) || !ir.has_shape(y)) return false;
  const Shape sa = ir.get_shape(a), sb = ir.get_shape(b), sy = ir.get_shape(y);
  if (sa.size() != 2 || sb.size() != 2 || sy.size() != 2) return false;
  // Gemm broadcasts its C one way only, to [M, N].
  Shape both;
  if (c->ndim() > 2 || !broadcast_shapes(sy, c->shape(), both) || both != sy) return false;
  if (ir.has_shape(add.output[0]) && ir.get_shape(add.output[0]) != sy) return false;
  NodePtr gemm = Node::make("Gemm", {a, b, c_name}, {add.output[0]}, mm->name());
  replace_nodes(ir, {mm, add.shared_from_this()}, gemm);
  ++stats.fusions["matmul_add_into_gemm"];
  return true;
}

}  // namespace fold
}  // namespace tolm
