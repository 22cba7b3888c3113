// Fusions into a convolution or pool: BatchNormalization into the Conv or
// ConvTranspose before it, a constant zero Pad into the Conv or pool after
// it, a constant per-channel Mul or Add after a Conv or ConvTranspose into
// its weight and bias, and a constant Mul before a Conv into its weight.
//
// Each replaces the two nodes by one new node that produces the second
// node's outputs, so a graph output keeps its name and a producer; the
// tensor between them must have no other reader. New weights and biases are
// new constants: a weight shared with another node is never changed for it.
#include <algorithm>
#include <cmath>
#include <limits>
#include <string_view>

#include <xtensor/xarray.hpp>
#include <xtensor/xbroadcast.hpp>
#include <xtensor/xmath.hpp>

#include "fold/evaluate.h"
#include "fold/steps.h"
#include "host/edit.h"
#include "host/shape_infer.h"
#include "host/helpers.h"
#include "host/xarray_bridge.h"

namespace tolm {
namespace fold {

namespace {

bool is_conv(const Node& n) {
  return (n.op_type() == "Conv" || n.op_type() == "ConvTranspose") && in_default_domain(n) && n.output.size() == 1;
}

bool float_type(int32_t dtype) { return dtype == dt::FLOAT || dtype == dt::DOUBLE; }

// Outputs after the first are absent or unused.
bool only_first_output_used(const IR& ir, const Node& n) {
  for (size_t k = 1; k < n.output.size(); ++k)
    if (!n.output[k].empty() && (ir.use_count(n.output[k]) > 0 || ir.is_output(n.output[k]))) return false;
  return true;
}

// The bias of a convolution: its constant third input, zeros when it has
// none; null when the bias is not constant.
const NDArray* conv_bias(const IR& ir, const Node& conv, int64_t channels, int32_t dtype, NDArray& zeros) {
  if (conv.input.size() > 2 && !conv.input[2].empty()) return ir.get_const(conv.input[2]);
  zeros = NDArray::from_f64(std::vector<double>(static_cast<size_t>(channels), 0.0), Shape{channels}, dtype);
  return &zeros;
}

// The convolution takes `weight`, `bias` and its follower's output, and the
// follower goes: what a fresh convolution in the pair's place would compute
// (same name, same place in the order, as the convolution runs first), with
// no node built and none put in.
void absorb_follower(IR& ir, Node& conv, std::string weight, std::string bias, Node& follower) {
  const std::string out = follower.output[0];
  ir.remove_node(follower);
  if (conv.input.size() < 3) conv.input.resize(3);
  conv.input.set(1, weight);
  conv.input.set(2, bias);
  conv.output.set(0, out);
  if (!ir.has_shape(out)) infer_node(ir, conv, false);
}

// Producers whose outputs are never negative, for MaxPool's padding.
bool non_negative(const IR& ir, const std::string& t) {
  const NodePtr p = ir.producer(t);
  if (!p || !in_default_domain(*p)) return false;
  const std::string& op = p->op_type();
  if (op == "Relu" || op == "Sigmoid" || op == "Softplus" || op == "Abs" || op == "Exp") return true;
  if (op == "Clip" && p->input.size() > 1) {
    const NDArray* lo = ir.get_const(p->input[1]);
    return lo && lo->size() == 1 && lo->f64_at(0) >= 0.0;
  }
  return false;
}

// The weight of a convolution with each output channel's kernel multiplied
// by that channel's factor in `s` (one per output channel), in the weight's
// own layout and type. Plain loops: this runs once per fused convolution,
// and a model may have tens of thousands of them.
NDArray scaled_per_output_channel(const NDArray& w, const std::vector<double>& s, bool transposed, int64_t group) {
  std::vector<double> wd = w.to_f64();
  const size_t channels = s.size();
  if (!transposed) {
    // Output channels lead the weight: one factor per row.
    const size_t row = wd.size() / channels;
    for (size_t c = 0; c < channels; ++c)
      for (size_t j = 0; j < row; ++j) wd[c * row + j] *= s[c];
  } else {
    // [C_in, M / group, k...]: channel g * (M / group) + j sits at group g, column j.
    const size_t g = static_cast<size_t>(group), per = channels / g;
    const size_t cin = static_cast<size_t>(w.shape()[0]) / g;
    const size_t inner = wd.size() / (g * cin * per);
    size_t at = 0;
    for (size_t gi = 0; gi < g; ++gi)
      for (size_t ci = 0; ci < cin; ++ci)
        for (size_t j = 0; j < per; ++j)
          for (size_t q = 0; q < inner; ++q) wd[at++] *= s[gi * per + j];
  }
  return NDArray::from_f64(wd, w.shape(), w.dtype());
}

// `a` plus (or times) `b`, element by element, in the type and shape of `a`.
NDArray combined(const NDArray& a, const std::vector<double>& b, bool multiply) {
  std::vector<double> v = a.to_f64();
  for (size_t i = 0; i < v.size(); ++i) v[i] = multiply ? v[i] * b[i] : v[i] + b[i];
  return NDArray::from_f64(v, a.shape(), a.dtype());
}

// Operand `i` of the binary node `n` comes from a convolution read by `n`
// alone, and the other operand is a constant of the same float type holding
// one value per output channel (or one for all), so that `n` keeps the
// convolution's shape. Sets the convolution, its channel count, and the
// constant spread over the channels.
bool per_channel_operand(const IR& ir, const Node& n, size_t i, NodePtr& conv, int64_t& channels,
                         std::vector<double>& values) {
  const std::string& y = n.input[i];
  // The node's port records first: this is asked at every Add and Mul.
  const TensorInfo* yi = ir.port_tensor(n, false, i);
  const TensorInfo* ki = ir.port_tensor(n, false, 1 - i);
  if (!yi || !ki || !ki->constant || yi->producers.empty() || !is_conv(*yi->producers.back())) return false;
  const NDArray* k = ir.get_const(n.input[1 - i]);
  conv = ir.producer(y);
  if (!k || !conv || !is_conv(*conv) || conv->input.size() < 2 || !sole_reader(ir, y, n)) return false;
  if (!ir.has_shape(y) || !float_type(k->dtype()) || ir.get_dtype(y) != k->dtype()) return false;
  const Shape out = ir.get_shape(y);
  if (out.size() < 3 || k->ndim() > out.size() || out[1] <= 0) return false;
  // Aligned to the output's rank, every axis of the constant but the channel
  // axis has size 1.
  Shape aligned(out.size() - k->ndim(), 1);
  aligned.insert(aligned.end(), k->shape().begin(), k->shape().end());
  if (aligned[1] != 1 && aligned[1] != out[1]) return false;
  for (size_t a = 0; a < aligned.size(); ++a)
    if (a != 1 && aligned[a] != 1) return false;
  channels = out[1];
  values = k->to_f64();
  if (values.size() != static_cast<size_t>(channels)) values.assign(static_cast<size_t>(channels), values[0]);
  return true;
}

// The operand of the binary node `n` that a convolution feeds as
// per_channel_operand describes (0 or 1), or -1 when neither does.
int per_channel_side(const IR& ir, const Node& n, std::string_view op, NodePtr& conv, int64_t& channels,
                     std::vector<double>& values) {
  if (n.op_type() != op || !in_default_domain(n) || n.input.size() != 2 || n.output.size() != 1) return -1;
  for (int i = 0; i < 2; ++i)
    if (per_channel_operand(ir, n, static_cast<size_t>(i), conv, channels, values)) return i;
  return -1;
}

// The name of a constant holding `value`: `original` itself when the fusion
// left its values bit for bit as they were (a factor of 1, a bias plus 0),
// so that a weight many convolutions share is not copied once for each.
std::string constant_holding(IR& ir, NDArray value, const std::string& original, const std::string& stem,
                             const std::string& suffix) {
  if (!original.empty()) {
    const NDArray* before = ir.get_const(original);
    if (before && *before == value) return original;
  }
  const std::string name = oper_name_join(ir, stem, suffix);
  ir.set_const(name, std::move(value));
  return name;
}

// The name of the bias input of a convolution; empty when it has none.
const std::string& bias_input(const Node& conv) {
  static const std::string none;
  return conv.input.size() > 2 ? conv.input[2] : none;
}

}  // namespace

bool fuse_batchnorm_into_conv(IR& ir, Node& bn, FoldStats& stats) {
  if (bn.op_type() != "BatchNormalization" || !in_default_domain(bn) || bn.input.size() != 5) return false;
  if (IR::get_attr_int(bn, "training_mode").value_or(0) != 0 || !only_first_output_used(ir, bn)) return false;
  const NodePtr conv = ir.producer(bn.input[0]);
  if (!conv || !is_conv(*conv) || conv->input.size() < 2 || !sole_reader(ir, bn.input[0], bn)) return false;
  const NDArray* w = ir.get_const(conv->input[1]);
  if (!w || !float_type(w->dtype()) || w->ndim() < 3) return false;
  const bool transposed = conv->op_type() == "ConvTranspose";
  const int64_t group = IR::get_attr_int(*conv, "group").value_or(1);
  if (group <= 0 || (transposed && w->shape()[0] % group != 0)) return false;
  const int64_t channels = transposed ? w->shape()[1] * group : w->shape()[0];
  std::vector<const NDArray*> params;
  for (size_t k = 1; k < 5; ++k) {
    const NDArray* p = ir.get_const(bn.input[k]);
    if (!p || p->dtype() != w->dtype() || p->shape() != Shape{channels}) return false;
    params.push_back(p);
  }
  NDArray zeros;
  const NDArray* bias = conv_bias(ir, *conv, channels, w->dtype(), zeros);
  if (!bias || bias->dtype() != w->dtype() || bias->size() != channels) return false;

  const double eps = IR::get_attr_float(bn, "epsilon").value_or(1e-5f);
  const xt::xarray<double> scale = to_xarray<double>(*params[0]), shift = to_xarray<double>(*params[1]),
                           mean = to_xarray<double>(*params[2]), var = to_xarray<double>(*params[3]);
  xt::xarray<double> s = scale / xt::sqrt(var + eps);
  if (!xt::all(xt::isfinite(s))) return false;
  const xt::xarray<double> b = (to_xarray<double>(*bias) - mean) * s + shift;

  const std::string w_name = oper_name_join(ir, conv->input[1], "_bn");
  ir.set_const(w_name, scaled_per_output_channel(*w, std::vector<double>(s.begin(), s.end()), transposed, group));
  const std::string b_name = oper_name_join(ir, conv->name(), "_bn_bias");
  ir.set_const(b_name, from_xarray<double>(b, w->dtype()));
  absorb_follower(ir, *conv, w_name, b_name, bn);
  ++stats.fusions["batchnorm_into_conv"];
  return true;
}

bool fuse_pad_into_conv_or_pool(IR& ir, Node& consumer, FoldStats& stats) {
  const std::string& op = consumer.op_type();
  if (!in_default_domain(consumer) || consumer.input.empty()) return false;
  const TensorInfo* xi = ir.port_tensor(consumer, false, 0);
  if (!xi || xi->producers.empty() || xi->producers.back()->op_type() != "Pad") return false;
  const NodePtr pad = ir.producer(consumer.input[0]);
  if (!pad || pad->op_type() != "Pad" || !in_default_domain(*pad) || pad->input.empty() ||
      pad->output.size() != 1 || !sole_reader(ir, consumer.input[0], consumer))
    return false;
  if (IR::get_attr_str(consumer, "auto_pad").value_or("NOTSET") != "NOTSET") return false;
  if (IR::get_attr_str(*pad, "mode").value_or("constant") != "constant") return false;
  const std::string& data = pad->input[0];
  if (!float_type(ir.get_dtype(data)) || !ir.has_shape(data)) return false;
  const int64_t rank = static_cast<int64_t>(ir.get_shape(data).size());
  if (rank < 3) return false;

  // The Pad's operands, whichever opset wrote them.
  std::vector<int64_t> pads, axes;
  double value = 0.0;
  if (ir.opset() < 11) {
    auto p = IR::get_attr_ints(*pad, "pads");
    if (!p) return false;
    pads = *p;
    value = IR::get_attr_float(*pad, "value").value_or(0.0f);
  } else {
    if (pad->input.size() < 2 || !int_values(ir.get_const(pad->input[1]), pads)) return false;
    if (pad->input.size() > 2 && !pad->input[2].empty()) {
      const NDArray* v = ir.get_const(pad->input[2]);
      if (!v || v->size() != 1) return false;
      value = v->f64_at(0);
    }
    if (pad->input.size() > 3 && !pad->input[3].empty() && !int_values(ir.get_const(pad->input[3]), axes))
      return false;
  }
  if (axes.empty())
    for (int64_t k = 0; k < rank; ++k) axes.push_back(k);
  if (pads.size() != 2 * axes.size()) return false;
  std::vector<int64_t> full(2 * static_cast<size_t>(rank), 0);
  for (size_t k = 0; k < axes.size(); ++k) {
    int64_t ax = axes[k];
    if (!normalize_axis(ax, rank)) return false;
    full[static_cast<size_t>(ax)] = pads[k];
    full[static_cast<size_t>(ax + rank)] = pads[k + axes.size()];
  }
  // Only the spatial axes may be padded, and only outward.
  for (int64_t k = 0; k < rank; ++k) {
    const int64_t b = full[static_cast<size_t>(k)], e = full[static_cast<size_t>(k + rank)];
    if (b < 0 || e < 0 || (k < 2 && (b != 0 || e != 0))) return false;
  }
  const size_t spatial = static_cast<size_t>(rank - 2);
  std::vector<int64_t> fused = IR::get_attr_ints(consumer, "pads").value_or(std::vector<int64_t>(2 * spatial, 0));
  if (fused.size() != 2 * spatial) return false;
  const bool own_padding = std::any_of(fused.begin(), fused.end(), [](int64_t p) { return p != 0; });
  for (size_t k = 0; k < spatial; ++k) {
    fused[k] += full[k + 2];
    fused[k + spatial] += full[static_cast<size_t>(rank) + k + 2];
  }

  std::vector<Attr> attrs{Attr::make_ints("pads", fused)};
  std::string kind;
  if (op == "Conv") {
    // A convolution pads with zeros itself.
    if (value != 0.0) return false;
    kind = "pad_into_conv";
  } else if (op == "MaxPool" || op == "AveragePool") {
    if (IR::get_attr_int(consumer, "ceil_mode").value_or(0) != 0) return false;
    auto dil = IR::get_attr_ints(consumer, "dilations");
    if (dil && std::any_of(dil->begin(), dil->end(), [](int64_t d) { return d != 1; })) return false;
    // The runtime wants every pad smaller than the kernel; then each window
    // also holds at least one element of the input.
    auto kernel = IR::get_attr_ints(consumer, "kernel_shape");
    if (!kernel || kernel->size() != spatial) return false;
    for (size_t k = 0; k < spatial; ++k)
      if (fused[k] >= (*kernel)[k] || fused[k + spatial] >= (*kernel)[k]) return false;
    if (op == "MaxPool") {
      // The pool pads with -inf: padding with zeros is the same only where
      // the data is never negative. Its Indices output would change.
      if (!only_first_output_used(ir, consumer)) return false;
      const bool minus_inf = std::isinf(value) && value < 0;
      if (!minus_inf && !(value == 0.0 && non_negative(ir, data))) return false;
      // A NaN in the window meets an explicit 0 where the pool's own
      // padding has none: the two can pick differently.
      if (!minus_inf && may_carry_non_finite(ir, data)) return false;
    } else {
      // Explicit zeros count in the average: the pool must count its own
      // padding too, which it can only where it had none of its own.
      if (value != 0.0) return false;
      const bool counts = IR::get_attr_int(consumer, "count_include_pad").value_or(0) != 0;
      if (!counts && own_padding) return false;
      attrs.push_back(Attr::make_int("count_include_pad", 1));
    }
    kind = "pad_into_pool";
  } else {
    return false;
  }
  NodePtr fresh = copy_with_attrs(consumer, attrs);
  fresh->input.set(0, data);
  replace_nodes(ir, {pad, consumer.shared_from_this()}, fresh);
  ++stats.fusions[kind];
  return true;
}

bool fuse_add_into_conv_bias(IR& ir, Node& add, FoldStats& stats) {
  NodePtr conv;
  int64_t channels = 0;
  std::vector<double> k;
  const int i = per_channel_side(ir, add, "Add", conv, channels, k);
  if (i < 0) return false;
  const int32_t dtype = ir.get_dtype(add.input[static_cast<size_t>(i)]);
  NDArray zeros;
  const NDArray* bias = conv_bias(ir, *conv, channels, dtype, zeros);
  if (!bias || bias->dtype() != dtype || bias->size() != channels) return false;
  const std::string b_name =
      constant_holding(ir, combined(*bias, k, false), bias_input(*conv), conv->name(), "_bias");
  absorb_follower(ir, *conv, conv->input[1], b_name, add);
  ++stats.fusions["add_into_conv_bias"];
  return true;
}

bool fuse_mul_into_conv(IR& ir, Node& mul, FoldStats& stats) {
  NodePtr conv;
  int64_t channels = 0;
  std::vector<double> s;
  const int i = per_channel_side(ir, mul, "Mul", conv, channels, s);
  if (i < 0) return false;
  // (W * x + b) * s = (W * s) * x + b * s for finite factors; an infinite
  // one would turn the zeros of a kernel into NaN.
  if (!std::all_of(s.begin(), s.end(), [](double v) { return std::isfinite(v); })) return false;
  const NDArray* w = ir.get_const(conv->input[1]);
  const int32_t dtype = ir.get_dtype(mul.input[static_cast<size_t>(i)]);
  if (!w || w->dtype() != dtype || w->ndim() < 3) return false;
  const bool transposed = conv->op_type() == "ConvTranspose";
  const int64_t group = IR::get_attr_int(*conv, "group").value_or(1);
  if (group <= 0 || channels % group != 0 || (transposed && w->shape()[0] % group != 0)) return false;
  if ((transposed ? w->shape()[1] * group : w->shape()[0]) != channels) return false;
  NDArray zeros;
  const NDArray* bias = conv_bias(ir, *conv, channels, dtype, zeros);
  if (!bias || bias->dtype() != dtype || bias->size() != channels) return false;
  const std::string w_name =
      constant_holding(ir, scaled_per_output_channel(*w, s, transposed, group), conv->input[1], conv->input[1], "_scaled");
  const std::string b_name =
      constant_holding(ir, combined(*bias, s, true), bias_input(*conv), conv->name(), "_scaled_bias");
  absorb_follower(ir, *conv, w_name, b_name, mul);
  ++stats.fusions["mul_into_conv"];
  return true;
}

bool fuse_input_mul_into_conv(IR& ir, Node& conv, FoldStats& stats) {
  if (conv.op_type() != "Conv" || !in_default_domain(conv) || conv.input.size() < 2 || conv.output.size() != 1)
    return false;
  const TensorInfo* xi = ir.port_tensor(conv, false, 0);
  if (!xi || xi->producers.empty() || xi->producers.back()->op_type() != "Mul") return false;
  const NodePtr mul = ir.producer(conv.input[0]);
  if (!mul || mul->op_type() != "Mul" || !in_default_domain(*mul) || mul->input.size() != 2 ||
      mul->output.size() != 1 || !sole_reader(ir, conv.input[0], conv))
    return false;
  const NDArray* w = ir.get_const(conv.input[1]);
  if (!w || !float_type(w->dtype()) || w->ndim() < 3) return false;
  const int64_t group = IR::get_attr_int(conv, "group").value_or(1);
  if (group <= 0) return false;
  for (size_t i = 0; i < 2; ++i) {
    const std::string& x = mul->input[i];
    const NDArray* k = ir.get_const(mul->input[1 - i]);
    if (!k || k->dtype() != w->dtype() || ir.get_dtype(x) != w->dtype() || !ir.has_shape(x)) continue;
    const Shape xs = ir.get_shape(x);
    if (xs.size() != w->ndim() || k->ndim() > xs.size()) continue;
    // One factor for all, or (ungrouped) one per input channel: the constant
    // never widens the data, and conv(x * s, W) = conv(x, W * s) because the
    // convolution's zero padding stays zero.
    Shape aligned(xs.size() - k->ndim(), 1);
    aligned.insert(aligned.end(), k->shape().begin(), k->shape().end());
    if (aligned[1] != 1 && (group != 1 || aligned[1] != w->shape()[1])) continue;
    bool per_channel = true;
    for (size_t a = 0; a < aligned.size(); ++a)
      if (a != 1 && aligned[a] != 1) per_channel = false;
    if (!per_channel) continue;
    xt::xarray<double> kv = to_xarray<double>(*k);
    if (!xt::all(xt::isfinite(kv))) continue;
    std::vector<size_t> along_inputs(w->ndim(), 1);
    along_inputs[1] = static_cast<size_t>(aligned[1]);
    kv.reshape(along_inputs);
    const std::string w_name =
        constant_holding(ir, from_xarray<double>(to_xarray<double>(*w) * kv, w->dtype()), conv.input[1], conv.input[1], "_scaled");
    NodePtr fresh = conv.clone();
    fresh->input.set(0, x);
    fresh->input.set(1, w_name);
    replace_nodes(ir, {mul, conv.shared_from_this()}, fresh);
    ++stats.fusions["input_mul_into_conv"];
    return true;
  }
  return false;
}

}  // namespace fold
}  // namespace tolm
