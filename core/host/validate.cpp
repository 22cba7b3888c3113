#include "host/validate.h"

#include <string>
#include <vector>

#include <onnx/onnx_pb.h>

#include "host/onnx_io.h"

namespace tolm {

namespace {

// Every node in a graph has a name (unnamed ones get one at load).
const std::string& label(const Node& n) { return n.name(); }

std::string list_text(const std::vector<int64_t>& v) {
  std::string s = "[";
  for (size_t i = 0; i < v.size(); ++i) s += (i ? "," : "") + std::to_string(v[i]);
  return s + "]";
}

bool defined(const TensorInfo* ti) {
  return ti && (ti->graph_input || ti->constant || !ti->producers.empty());
}

bool defined(const IR& ir, const std::string& t) { return defined(ir.tensor(t)); }

// The node holds its ports' index entries: no name lookups.
void check_reads(const Node& n) {
  for (size_t i = 0; i < n.input.size(); ++i)
    if (!n.input[i].empty() && !defined(n.input_info(i)))
      throw LoadError("node " + label(n) + " reads tensor " + n.input[i] +
                      ", which no graph input, initializer or node defines");
  for (size_t k = 0; k < n.implicit_inputs.size(); ++k)
    if (!defined(n.implicit_info(k)))
      throw LoadError("node " + label(n) + " reads tensor " + n.implicit_inputs[k] +
                      " in a sub-graph, which no graph input, initializer or node defines");
}

void check_transpose(const IR& ir, const Node& n) {
  const Attr* perm_attr = IR::get_attr(n, "perm");
  if (!perm_attr || perm_attr->kind != Attr::INTS || n.input.empty()) return;  // absent: the axes reversed
  const std::vector<int64_t>* perm = &perm_attr->ints;
  const std::string& x = n.input[0];
  size_t rank = perm->size();
  // The node's own port record: no name lookup per node of a large model.
  const TensorInfo* xi = n.input_info(0);
  const bool rank_known = xi ? xi->has_shape : ir.has_shape(x);
  if (rank_known) rank = xi ? xi->shape.size() : ir.get_shape(x).size();
  std::vector<char> seen(rank, 0);
  bool ok = perm->size() == rank;
  for (size_t i = 0; ok && i < perm->size(); ++i) {
    const int64_t a = (*perm)[i];
    ok = a >= 0 && static_cast<size_t>(a) < rank && !seen[static_cast<size_t>(a)];
    if (ok) seen[static_cast<size_t>(a)] = 1;
  }
  if (ok) return;
  if (rank_known)
    throw LoadError("node " + label(n) + ": perm " + list_text(*perm) + " is not a permutation of the " +
                    std::to_string(rank) + " axes of its input " + x);
  throw LoadError("node " + label(n) + ": perm " + list_text(*perm) + " is not a permutation");
}

// Product of the dimensions, false if it does not fit in 64 bits.
bool element_count(const Shape& s, int64_t& out) {
  out = 1;
  for (int64_t d : s)
    if (__builtin_mul_overflow(out, d, &out)) return false;
  return true;
}

void check_reshape(const IR& ir, const Node& n) {
  if (n.input.size() < 2) return;
  const TensorInfo* ci = n.input_info(1);
  if (ci && !ci->constant) return;
  const NDArray* c = ir.get_const(n.input[1]);
  if (!c || !dtype_is_integer(c->dtype())) return;
  const std::vector<int64_t> target = c->to_i64();
  // Only a failing check needs the text: a large model has many Reshapes.
  auto where_text = [&] { return "node " + label(n) + ": target shape " + list_text(target) + " (" + n.input[1] + ")"; };
  const bool allowzero = IR::get_attr_int(n, "allowzero").value_or(0) != 0;
  int infer_at = -1;
  bool has_zero = false;
  for (size_t i = 0; i < target.size(); ++i) {
    const int64_t d = target[i];
    if (d == -1) {
      if (infer_at >= 0) throw LoadError(where_text() + " has more than one -1");
      infer_at = static_cast<int>(i);
    } else if (d < 0) {
      throw LoadError(where_text() + " has the negative dimension " + std::to_string(d));
    }
    has_zero |= d == 0;
  }
  if (allowzero && has_zero && infer_at >= 0)
    throw LoadError(where_text() + " has both 0 and -1, which allowzero=1 forbids");

  const std::string& x = n.input[0];
  const TensorInfo* xi = n.input_info(0);
  if (xi ? !xi->has_shape : !ir.has_shape(x)) return;
  const Shape& in = xi ? xi->shape : ir.get_shape(x);
  Shape out(target.begin(), target.end());
  for (size_t i = 0; i < out.size(); ++i) {
    if (out[i] != 0 || allowzero) continue;
    if (i >= in.size())
      throw LoadError(where_text() + " copies dimension " + std::to_string(i) + " of its input " + x + ", which has rank " +
                      std::to_string(in.size()));
    out[i] = in[i];
  }
  int64_t have = 0, known = 1;
  if (!element_count(in, have)) return;
  for (size_t i = 0; i < out.size(); ++i)
    if (static_cast<int>(i) != infer_at && __builtin_mul_overflow(known, out[i], &known)) return;
  const bool fits = infer_at >= 0 ? (known == 0 ? have == 0 : have % known == 0) : known == have;
  if (fits) return;
  throw LoadError(where_text() + " does not hold the " + std::to_string(have) + " elements of its input " + x + " " +
                  list_text(in));
}

void check_dims(onnx::ValueInfoProto& vi, const char* what) {
  if (!vi.type().has_tensor_type() || !vi.type().tensor_type().has_shape()) return;
  for (auto& d : *vi.mutable_type()->mutable_tensor_type()->mutable_shape()->mutable_dim()) {
    if (!d.has_dim_value() || d.dim_value() >= 0) continue;
    // Some exporters write -1 for a dimension they leave free: read it as the
    // free dimension it stands for. Any other negative size is a broken model.
    if (d.dim_value() == -1) {
      d.clear_dim_value();
      continue;
    }
    throw LoadError(std::string(what) + " " + vi.name() + " has the negative dimension " +
                    std::to_string(d.dim_value()));
  }
}

}  // namespace

void validate_declared_shapes(onnx::GraphProto& g) {
  for (auto& vi : *g.mutable_input()) check_dims(vi, "graph input");
  for (auto& vi : *g.mutable_output()) check_dims(vi, "graph output");
  for (auto& vi : *g.mutable_value_info()) check_dims(vi, "value_info of tensor");
}

void validate_graph(const IR& ir) {
  // In the order the model lists its nodes (no sort needed), so the first
  // fault of the file is the one reported.
  ir.for_each_node([&](const NodePtr& np) {
    const Node& n = *np;
    check_reads(n);
    if (!n.domain.empty() && n.domain != "ai.onnx") return;
    if (n.op_type() == "Transpose") check_transpose(ir, n);
    else if (n.op_type() == "Reshape") check_reshape(ir, n);
  });
  for (const auto& t : ir.outputs())
    if (!t.empty() && !defined(ir, t))
      throw LoadError("graph output " + t + " is not defined by any graph input, initializer or node");
}

}  // namespace tolm
