// Rules for attention and transformer blocks: a fused QKV projection split
// into per-head paths, channel permutations folded into attention convs,
// Split-exMatMul-Concat runs merged, and Reshapes around feed-forward blocks.
#pragma once

#include "reduce/rule.h"

namespace tolm {

// Multi-head attention split (multihead_attention_split.cpp).
// The Split of a fused QKV projection and the per-path head Reshapes become one
// Gather that groups the channels head by head, one Reshape and one Split.
RuleResult _p_fuse_multihead_attention_reshape_to_gather_split(IR& ir, const NodeList& nodes,
                                                               QuantTable* quant_tab);

// Attention conv (attention_conv_gather.cpp).
// A channel permutation (Gather) behind Conv, Reshape, Split folds into the
// order of the Conv's filters.
RuleResult _p_absorb_gather_into_attention_conv(IR& ir, const NodeList& nodes, QuantTable* quant_tab);

// Split-exMatMul-Concat (split_exmatmul_concat.cpp).
// Split outputs joined again by a Concat, one of them through an exMatMul:
// one wider exMatMul whose weight passes the other channels through.
RuleResult _p_fuse_split_exmatmul_concat(IR& ir, const NodeList& nodes, QuantTable* quant_tab);

// Feed-forward Reshapes (transformer_ffn_reshape.cpp).
// The residual Add of a feed-forward block runs in the block's shape, so the
// Reshape that closes the block goes.
RuleResult _p_fuse_transformer_FFN_reshape(IR& ir, const NodeList& nodes, QuantTable* quant_tab);

}  // namespace tolm
