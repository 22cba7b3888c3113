"""Attention and transformer-block rules called by name: where a rule applies
the model stays valid and keeps its numbers in onnxruntime (the compiler's
exMatMul is checked by structure); where it does not, nothing changes."""

import numpy as np
import pytest
from onnx import helper, numpy_helper

import tolm
from conftest import assert_same_outputs, call_rule, make_model, node_of, op_counts, run_proc

F = np.float32
RNG = np.random.default_rng(0)


def w(*shape):
    return RNG.standard_normal(shape).astype(F)


# ---- fuse_multihead_attention_reshape_to_gather_split ------------------------------
# x [1, S=4, 16] -> fused projection [1, 4, 48] -> Split on the channels -> per
# path Reshape [4, H=2, d=8] and Transpose to [2, 4, 8] (K to [2, 8, 4]) ->
# scores, Softmax, weighted V -> back to [1, 4, 16].

def mha(head_shape=(4, 2, 8), q_perm=(1, 0, 2), k_perm=(1, 2, 0), scale=None,
        source="matmul", between=None, q_also_output=False, lengths=(16, 16, 16)):
    nodes, consts, inputs = [], {"s": list(head_shape), "o": [1, 4, 16], "lens": list(lengths)}, {"x": [1, 4, 16]}
    if source == "matmul":
        nodes.append(("MatMul", ["x", "wqkv"], ["qkv"], {"name": "proj"}))
        consts["wqkv"] = w(16, 48)
    elif source == "gemm":   # a Gemm on rows, reshaped back to the sequence
        nodes += [("Reshape", ["x", "s2"], ["x2"], {"name": "flat"}),
                  ("Gemm", ["x2", "wqkv"], ["g"], {"name": "proj"}),
                  ("Reshape", ["g", "s3"], ["qkv"], {"name": "unflat"})]
        consts.update(wqkv=w(16, 48), s2=[4, 16], s3=[1, 4, 48])
    else:                    # a MatMul of two computed inputs
        inputs["y"] = [1, 16, 48]
        nodes.append(("MatMul", ["x", "y"], ["qkv"], {"name": "proj"}))
    nodes.append(("Split", ["qkv", "lens"], ["q0", "k0", "v0"], {"name": "split", "axis": 2}))
    q_in = "q0"
    if scale is not None:
        nodes.append(("Mul", ["q0", "scale"], ["qs"], {"name": "scale"}))
        consts["scale"] = np.asarray(scale, F)
        q_in = "qs"
    if between:
        nodes.append((between, ["k0"], ["kb"], {"name": "between", "to": 1}))
    nodes += [("Reshape", [q_in, "s"], ["q1"], {"name": "rs_q"}),
              ("Reshape", ["kb" if between else "k0", "s"], ["k1"], {"name": "rs_k"}),
              ("Reshape", ["v0", "s"], ["v1"], {"name": "rs_v"}),
              ("Transpose", ["q1"], ["q"], {"name": "tp_q", "perm": list(q_perm)}),
              ("Transpose", ["k1"], ["k"], {"name": "tp_k", "perm": list(k_perm)}),
              ("Transpose", ["v1"], ["v"], {"name": "tp_v", "perm": list(q_perm)}),
              ("MatMul", ["q", "k"], ["att"], {"name": "score"}),
              ("Softmax", ["att"], ["p"], {"name": "softmax", "axis": -1}),
              ("MatMul", ["p", "v"], ["ctx"], {"name": "weighted"}),
              ("Transpose", ["ctx"], ["ctx_t"], {"name": "tp_o", "perm": list(q_perm)}),
              ("Reshape", ["ctx_t", "o"], ["out"], {"name": "rs_o"})]
    outputs = {"out": None}
    if q_also_output:
        outputs["q0"] = None
    return make_model(nodes, inputs, outputs, consts)


def test_multihead_split_regroups_heads():
    # The scale by one value moves behind the Q Transpose, and the old readers
    # of that Transpose read the moved Mul.
    removed, added, out = call_rule(mha(scale=0.125), "_p_fuse_multihead_attention_reshape_to_gather_split",
                                    ["split"])
    assert sorted(removed) == ["rs_k", "rs_q", "rs_v", "scale", "split"]
    assert added == ["Gather", "Reshape", "Split", "Mul"]
    split = node_of(out, "split")
    assert list(split.input)[1] == "lens"
    lens = next(i for i in out.graph.initializer if i.name == "lens")
    assert numpy_helper.to_array(lens).tolist() == [8, 8, 8]
    assert node_of(out, "score").input[0] == node_of(out, "scale").output[0]
    assert node_of(out, "scale").input[0] == "q"


def test_multihead_split_from_a_gemm_behind_reshapes():
    removed, added, _ = call_rule(mha(source="gemm"), "_p_fuse_multihead_attention_reshape_to_gather_split",
                                  ["split"])
    assert added == ["Gather", "Reshape", "Split"]


@pytest.mark.parametrize("kwargs", [
    # Heads on the split axis ([1, S, H, d]): a Split of the regrouped tensor
    # would hand out Q, K and V of mixed heads.
    dict(head_shape=(1, 4, 2, 8), q_perm=(0, 2, 1, 3), k_perm=(0, 2, 3, 1)),
    dict(source="variable"),                   # no projection weight behind the Split
    dict(between="Cast"),                      # a non-elementwise node ahead of a Reshape
    dict(scale=np.linspace(0.5, 1, 16)),       # a scale that differs per channel
    dict(q_also_output=True),                  # a Split output is a graph output
])
def test_multihead_split_refused(kwargs):
    m = mha(**kwargs)
    assert call_rule(m, "_p_fuse_multihead_attention_reshape_to_gather_split", ["split"]) == ([], [], None)
    reduced, _ = tolm.reduce(m)
    assert_same_outputs(m, reduced)


def test_multihead_split_whole_reduce_keeps_numbers():
    m = mha(scale=0.125)
    reduced, _ = tolm.reduce(m)
    assert op_counts(reduced).get("Gather") == 1 and "Split" in op_counts(reduced)
    assert_same_outputs(m, reduced)


# ---- absorb_gather_into_attention_conv -----------------------------------------------
# Conv to 16 channels -> Reshape [1, 16, 4, 4] to [2, 8, 4, 4] -> Split on
# axis 1 into 4 and 4 -> a Gather reorders one piece.

def conv_split_gather(idx, gather_axis=1, bias=True, group=1, piece=1, gather_out="y1"):
    cin = 4
    consts = {"w": w(16, cin // group, 1, 1), "s": [2, 8, 4, 4], "lens": [4, 4], "i": np.asarray(idx, np.int64)}
    ins = ["x", "w"]
    if bias:
        consts["b"] = w(16)
        ins.append("b")
    outs = ["p0", "p1"]
    nodes = [("Conv", ins, ["c"], {"name": "conv", "kernel_shape": [1, 1], "group": group}),
             ("Reshape", ["c", "s"], ["r"], {"name": "rs"}),
             ("Split", ["r", "lens"], outs, {"name": "split", "axis": 1}),
             ("Gather", [outs[piece], "i"], [gather_out], {"name": "g", "axis": gather_axis}),
             ("Neg", [outs[1 - piece]], ["y0"], {"name": "neg"})]
    return make_model(nodes, {"x": [1, cin, 4, 4]}, {"y0": None, gather_out: None}, consts)


@pytest.mark.parametrize("idx, bias, piece", [
    ([3, 2, 1, 0], True, 1),     # the second half of each head's channels reversed
    ([1, 0, 3, -2], False, 0),   # a negative index, no bias: only the weight reorders
])
def test_absorb_gather_into_attention_conv(idx, bias, piece):
    m = conv_split_gather(idx, bias=bias, piece=piece)
    removed, added, out = call_rule(m, "_p_absorb_gather_into_attention_conv", ["conv"])
    assert sorted(removed) == ["conv", "g"] and added == ["Conv"]
    assert "Gather" not in op_counts(out)


@pytest.mark.parametrize("idx, kwargs", [
    ([3, 2, 1, 1], {}),                 # repeats a channel: no permutation
    ([1, 0], {"gather_axis": 0}),       # a Gather on another axis than the Split's
    ([3, 2, 1, 0], {"group": 2}),       # grouped filters cannot trade places across groups
])
def test_absorb_gather_refused(idx, kwargs):
    m = conv_split_gather(idx, **kwargs)
    assert call_rule(m, "_p_absorb_gather_into_attention_conv", ["conv"]) == ([], [], None)


# ---- fuse_split_exmatmul_concat (structure only: no runtime has exMatMul) ------------

def split_exmatmul(split_axis=1, concat_axis=1, n_split=3, run=(0, 3), mm_at=1, twice=False):
    lens = [2] * n_split
    outs = [f"s{i}" for i in range(n_split)]
    cat_in = outs[run[0]:run[1]]
    feature = cat_in[mm_at]
    cat_in[mm_at] = "m"
    if twice:
        cat_in.append("m")
    nodes = [helper.make_node("Split", ["x", "lens"], outs, name="split", axis=split_axis),
             helper.make_node("exMatMul", ["w", feature], ["m"], name="mm", mode=1),
             helper.make_node("Concat", cat_in, ["y"], name="cat", axis=concat_axis)]
    rest = [o for o in outs if o not in cat_in and o != feature]
    nodes += [helper.make_node("Neg", [o], [o + "_n"], name="neg_" + o) for o in rest]
    ch = 2 * len(cat_in)
    vi = lambda n, s: helper.make_tensor_value_info(n, 1, s)  # noqa: E731
    graph = helper.make_graph(
        nodes, "t", [vi("x", [1, 2 * n_split, 1, 4])], [vi("y", [1, ch, 1, 4])] + [vi(o + "_n", [1, 2, 1, 4]) for o in rest],
        initializer=[numpy_helper.from_array(np.arange(1, 5, dtype=F).reshape(1, 2, 1, 2), "w"),
                     numpy_helper.from_array(np.asarray(lens, np.int64), "lens")],
        value_info=[vi("m", [1, 2, 1, 4])])
    return helper.make_model(graph, opset_imports=[helper.make_opsetid("", 13)])


@pytest.mark.parametrize("split_axis, n_split, run", [(1, 3, (0, 3)), (-3, 4, (1, 4))])
def test_split_exmatmul_concat_widens_the_weight(split_axis, n_split, run):
    ir, removed, add = run_proc(split_exmatmul(split_axis, n_split=n_split, run=run), "_p_fuse_split_exmatmul_concat",
                                ["mm"])
    assert removed == ["split", "mm", "cat"] and [n.op_type for n in add] == ["Split", "exMatMul"]
    split, mm = add
    # A piece ahead of the run keeps its name; the run is one piece.
    assert list(split.output)[:run[0]] == [f"s{i}" for i in range(run[0])] and len(split.output) == run[0] + 1
    assert list(mm.output) == ["y"] and mm.input[1] == split.output[run[0]]
    assert ir.get_attr(mm, "mode") == 1
    expected = np.zeros((1, 6, 1, 6), F)
    expected[0, [0, 1, 4, 5], 0, [0, 1, 4, 5]] = 1
    expected[0, 2:4, 0, 2:4] = np.arange(1, 5, dtype=F).reshape(2, 2)
    np.testing.assert_array_equal(ir.get_const(mm.input[0]), expected)


@pytest.mark.parametrize("kwargs", [dict(split_axis=2, concat_axis=2), dict(twice=True)])
def test_split_exmatmul_concat_refused(kwargs):
    _, removed, add = run_proc(split_exmatmul(**kwargs), "_p_fuse_split_exmatmul_concat", ["mm"])
    assert (removed, add) == ([], [])


# ---- fuse_transformer_FFN_reshape -------------------------------------------------------
# Relu (the block's input) -> Reshape [4, 3, 4] -> MatMul, Relu -> Reshape back
# to [2, 2, 3, 4] -> residual Add -> Reshape.

def ffn(after_target=(2, 24), extra_add_reader=False, extra_top_reader=False):
    nodes = [("Relu", ["x"], ["t"], {"name": "top"}),
             ("Reshape", ["t", "hs"], ["h"], {"name": "head"}),
             ("MatMul", ["h", "wf"], ["f"], {"name": "ff"}),
             ("Relu", ["f"], ["fo"], {"name": "act"}),
             ("Reshape", ["fo", "ts"], ["tail_o"], {"name": "tail"}),
             ("Add", ["t", "tail_o"], ["a"], {"name": "add"}),
             ("Reshape", ["a", "os"], ["y"], {"name": "after"})]
    outputs = {"y": None}
    if extra_add_reader:
        nodes.append(("Neg", ["a"], ["z"], {"name": "neg"}))
        outputs["z"] = None
    if extra_top_reader:
        nodes.append(("Neg", ["t"], ["z"], {"name": "neg"}))
        outputs["z"] = None
    return make_model(nodes, {"x": [2, 2, 3, 4]}, outputs,
                      {"hs": [4, 3, 4], "ts": [2, 2, 3, 4], "os": list(after_target), "wf": w(4, 4)})


@pytest.mark.parametrize("after_target", [(2, 24), (0, -1)])   # 0 copies the Add's first dim, 2 before, 4 after
def test_ffn_reshape_leaves_the_block(after_target):
    removed, added, out = call_rule(ffn(after_target), "_p_fuse_transformer_FFN_reshape", ["tail", "add"])
    assert sorted(removed) == ["add", "head", "tail"] and added == ["Reshape", "Add"]
    assert op_counts(out)["Reshape"] == 2
    assert sorted(node_of(out, "add").input) == sorted(["fo", "h"])


@pytest.mark.parametrize("kwargs", [dict(extra_add_reader=True), dict(extra_top_reader=True)])
def test_ffn_reshape_refused(kwargs):
    assert call_rule(ffn(**kwargs), "_p_fuse_transformer_FFN_reshape", ["tail", "add"]) == ([], [], None)
