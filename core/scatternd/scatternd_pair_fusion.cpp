// Two chained ScatterND writes to disjoint places of one 4-D tensor become
// one write: the constant indices are joined, and a Concat joins the updates.
// Index blocks that differ on axis 1 (writes narrower than the channels) can
// still join when each narrow update comes from a private Conv: the Conv
// gets zero filters for the missing channels, and the indices get rows for
// the places not yet written. Those rows write zeros, so this is done only
// where the data is a constant that holds zeros there.
#include <algorithm>
#include <set>

#include "host/edit.h"
#include "host/helpers.h"
#include "host/ndarray_join.h"
#include "scatternd/scatternd.h"

namespace tolm {
namespace {

using scatternd_detail::ScatterPair;

// The Conv that alone makes `t`, with constant weights and one filter group.
NodePtr private_conv(const IR& ir, const std::string& t) {
  const NodePtr conv = ir.producer(t);
  if (!conv || conv->op_type() != "Conv" || conv->input.size() < 2 || conv->output.size() != 1)
    return nullptr;
  if (!ir.is_const(conv->input[1]) || ir.use_count(t) != 1 || ir.is_output(t)) return nullptr;
  if (IR::get_attr_int(*conv, "group").value_or(1) != 1) return nullptr;
  if (conv->input.size() > 2 && !conv->input[2].empty() && !ir.is_const(conv->input[2])) return nullptr;
  return conv;
}

// `a` with `pad` zero slices behind it on axis 0.
std::optional<NDArray> pad_axis0_with_zeros(const NDArray& a, int64_t pad) {
  Shape zshape = a.shape();
  zshape[0] = pad;
  const NDArray zeros(a.dtype(), zshape,
                      std::vector<uint8_t>(static_cast<size_t>(shape_size(zshape)) * dtype_size(a.dtype()), 0));
  return concat_arrays({&a, &zeros}, 0);
}

// The data block at one index row is all zeros.
bool zeros_at(const NDArray& data, const Shape& data_shape, const int64_t* row, int64_t k) {
  int64_t start = 0, block = 1;
  for (int64_t d = 0; d < 4; ++d) {
    if (d < k) start = start * data_shape[d] + row[d];
    else {
      start *= data_shape[d];
      block *= data_shape[d];
    }
  }
  for (int64_t e = start; e < start + block; ++e)
    if (data.f64_at(e) != 0.0) return false;
  return true;
}

}  // namespace

RuleResult _p_fuse_two_scatternd(IR& ir, const NodeList& nodes, QuantTable*) {
  auto pair = scatternd_detail::fusable_pair(ir, nodes);
  if (!pair) return no_match();
  const NodePtr& scatternd_1 = nodes[0];
  const NodePtr& scatternd_2 = nodes[1];
  const ScatterPair& p = *pair;
  const int64_t k = p.indices_1_shape.back();
  const int64_t rank = static_cast<int64_t>(p.indices_1_shape.size());

  // The writes must be disjoint: one write cannot hold a place twice.
  if (!scatternd_detail::rows_disjoint(p.indices_1, p.indices_2, k)) return no_match();
  const auto concat_axis = scatternd_detail::side_by_side_axis(p);
  if (!concat_axis) return no_match();

  // Exactly one index column varies in each block (leaving the joined axis
  // aside), and it is the same column.
  auto diff_dims = [&](const std::vector<int64_t>& ind) {
    std::vector<bool> diff(static_cast<size_t>(k), false);
    for (int64_t c = 0; c < k; ++c) {
      std::set<int64_t> values;
      for (size_t r = static_cast<size_t>(c); r < ind.size(); r += static_cast<size_t>(k)) values.insert(ind[r]);
      diff[c] = values.size() > 1;
    }
    if (*concat_axis < k) diff[*concat_axis] = false;
    return diff;
  };
  const std::vector<bool> d1 = diff_dims(p.indices_1), d2 = diff_dims(p.indices_2);
  if (std::count(d1.begin(), d1.end(), true) != 1 || d1 != d2) return no_match();
  const int64_t dif_dim_idx = std::find(d1.begin(), d1.end(), true) - d1.begin();

  bool align_on_channel = false;
  for (int64_t i = 0; i < rank; ++i) {
    if (i == *concat_axis || p.indices_1_shape[i] == p.indices_2_shape[i]) continue;
    if (i != 1) return no_match();
    align_on_channel = true;
  }

  const Node* pair_nodes[2] = {scatternd_1.get(), scatternd_2.get()};
  const Shape* ind_shapes[2] = {&p.indices_1_shape, &p.indices_2_shape};
  const Shape* upd_shapes[2] = {&p.update_1_shape, &p.update_2_shape};
  const std::vector<int64_t>* inds[2] = {&p.indices_1, &p.indices_2};
  NDArray new_indices[2] = {*ir.get_const(scatternd_1->input[1]), *ir.get_const(scatternd_2->input[1])};
  NodePtr convs[2];
  if (align_on_channel) {
    // The rows added write the zero filters' output over places the data
    // holds zeros at: only then are the numbers those of the two writes.
    const NDArray* data = ir.get_const(scatternd_1->input[0]);
    if (data == nullptr || data->dtype() == dt::STRING || k < 2 || rank < 3) return no_match();
    std::vector<int64_t> all_rows = p.indices_1;
    all_rows.insert(all_rows.end(), p.indices_2.begin(), p.indices_2.end());
    std::vector<int64_t> pad_rows_all;
    for (int j = 0; j < 2; ++j) {
      const Shape& ishape = *ind_shapes[j];
      if (ishape[1] == p.data_shape[1]) continue;
      convs[j] = private_conv(ir, pair_nodes[j]->input[2]);
      if (!convs[j]) return no_match();
      const NDArray* w = ir.get_const(convs[j]->input[1]);
      const Shape& conv_out = ir.get_shape(convs[j]->output[0]);
      if (w->ndim() < 1 || w->shape()[0] != ishape[1] || conv_out != *upd_shapes[j] ||
          (*upd_shapes[j])[1] != ishape[1] || p.data_shape[1] <= ishape[1])
        return no_match();
      Shape pad_shape = ishape;
      pad_shape[1] = p.data_shape[1] - ishape[1];
      const int64_t pad_count = shape_size(pad_shape) / k;
      std::set<int64_t> written;
      for (size_t r = static_cast<size_t>(dif_dim_idx); r < inds[j]->size(); r += static_cast<size_t>(k))
        written.insert((*inds[j])[r]);
      std::vector<int64_t> not_exist;
      for (int64_t v = 0; v < p.data_shape[dif_dim_idx]; ++v)
        if (!written.count(v)) not_exist.push_back(v);
      if (static_cast<int64_t>(not_exist.size()) != pad_count) return no_match();
      std::vector<int64_t> pad(static_cast<size_t>(pad_count * k));
      for (int64_t r = 0; r < pad_count; ++r) {
        for (int64_t c = 0; c < k; ++c) pad[r * k + c] = (*inds[j])[c];
        pad[r * k + dif_dim_idx] = not_exist[r];
        if (!zeros_at(*data, p.data_shape, &pad[r * k], k)) return no_match();
      }
      pad_rows_all.insert(pad_rows_all.end(), pad.begin(), pad.end());
      const NDArray pad_arr = NDArray::from_i64(pad, pad_shape, new_indices[j].dtype());
      auto joined = concat_arrays({&new_indices[j], &pad_arr}, 1);
      if (!joined) return no_match();
      new_indices[j] = *joined;
    }
    if (!scatternd_detail::rows_disjoint(all_rows, pad_rows_all, k)) return no_match();
  }
  const auto indices_concat = concat_arrays({&new_indices[0], &new_indices[1]}, *concat_axis);
  if (!indices_concat) return no_match();

  // Nothing has changed so far; from here on the rule applies.
  for (int j = 0; j < 2; ++j) {
    if (!convs[j]) continue;
    Node& conv = *convs[j];
    const int64_t pad_size = p.data_shape[1] - ir.get_const(conv.input[1])->shape()[0];
    for (size_t slot = 1; slot < conv.input.size() && slot < 3; ++slot) {
      const std::string old = conv.input[slot];
      if (old.empty()) continue;
      const auto padded = pad_axis0_with_zeros(*ir.get_const(old), pad_size);
      const std::string name = oper_name_join(ir, old, "_pad_for_scatternd");
      ir.set_const(name, *padded);
      replace_input(ir, conv, old, name);
    }
    Shape new_out_shape = *upd_shapes[j];
    new_out_shape[1] = p.data_shape[1];
    ir.set_shape(conv.output[0], new_out_shape, false);
  }
  const std::string new_indices_name = oper_name_join(ir, scatternd_1->input[1], "_concat");
  ir.set_const(new_indices_name, *indices_concat);

  const std::string concat_out = oper_name_join(ir, scatternd_1->input[2], "_concat");
  NodePtr concat = Node::make("Concat", {scatternd_1->input[2], scatternd_2->input[2]}, {concat_out},
                              node_name_join(ir, scatternd_1->name(), "_concat"),
                              {Attr::make_int("axis", *concat_axis)});
  Shape cat_shape = ir.get_shape(scatternd_1->input[2]);
  cat_shape[*concat_axis] += ir.get_shape(scatternd_2->input[2])[*concat_axis];
  ir.set_shape(concat_out, cat_shape, false, ir.get_dtype(scatternd_1->input[2]));

  const std::vector<std::string> old_in = scatternd_2->input.names();
  replace_input(ir, *scatternd_2, old_in[0], scatternd_1->input[0]);
  replace_input(ir, *scatternd_2, old_in[1], new_indices_name);
  replace_input(ir, *scatternd_2, old_in[2], concat_out);
  return {{scatternd_1}, {concat}};
}

}  // namespace tolm
