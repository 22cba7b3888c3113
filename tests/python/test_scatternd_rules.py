"""ScatterND rules: chained writes join into one, a padded write joins a wider
one, a repeated write goes, and Gather-Add-ScatterND becomes an adding
scatter. call_rule checks every applied rewrite in onnxruntime (opset 16)."""

import numpy as np
import pytest

from conftest import call_rule, make_model, node_of, op_counts

F = np.float32
H, S, D = 2, 6, 4  # heads, cache length, head size


def rows(*places):
    return np.array(places, np.int64)


def kv_rows(t, heads=range(H)):
    """Index block [1, len(heads), 1, 3]: token t of each head."""
    return rows(*[(0, h, t) for h in heads]).reshape(1, len(heads), 1, 3)


def two_writes(i1, i2, data=None, u1_shape=None, u2_shape=None, red=("none", "none"), out2=True,
               extra_nodes=(), extra_inputs=None, extra_consts=None, heads=H):
    """cache [1, heads, S, D] <- (i1, u1) <- (i2, u2) -> y."""
    u1_shape = u1_shape or list(i1.shape[:-1]) + [D]
    u2_shape = u2_shape or list(i2.shape[:-1]) + [D]
    nodes = [("ScatterND", ["cache", "i1", "u1"], ["w1"], {"name": "sc1", "reduction": red[0]}),
             ("ScatterND", ["w1", "i2", "u2"], ["y"], {"name": "sc2", "reduction": red[1]})]
    nodes += list(extra_nodes)
    inputs = {"u1": u1_shape, "u2": u2_shape}
    consts = {"i1": i1, "i2": i2}
    if data is None:
        inputs["cache"] = [1, heads, S, D]
    else:
        consts["cache"] = data
    inputs.update(extra_inputs or {})
    consts.update(extra_consts or {})
    for name in [n for n in list(inputs) if n in consts]:
        del inputs[name]
    return make_model(nodes, inputs, {"y": [1, heads, S, D]}, consts, opset=16)


# ---- fuse_two_scatternd -------------------------------------------------------

def test_two_tokens_of_a_kv_cache_become_one_write():
    removed, added, out = call_rule(two_writes(kv_rows(3), kv_rows(4)), "_p_fuse_two_scatternd", ["sc1", "sc2"])
    assert (removed, added) == (["sc1"], ["Concat"])
    cat = [n for n in out.graph.node if n.op_type == "Concat"][0]
    assert cat.attribute[0].i == 2  # joined on the token axis
    assert op_counts(out)["ScatterND"] == 1


@pytest.mark.parametrize("rule", ["_p_fuse_two_scatternd", "_p_fuse_two_scatternd2"])
def test_writes_to_a_common_place_stay_apart(rule):
    assert call_rule(two_writes(kv_rows(3), kv_rows(3)), rule, ["sc1", "sc2"]) == ([], [], None)


def test_writes_varying_in_no_column_but_the_joined_one_stay_apart():
    # One head each: nothing varies but the token.
    i1, i2 = kv_rows(3, [0]), kv_rows(4, [0])
    assert call_rule(two_writes(i1, i2), "_p_fuse_two_scatternd", ["sc1", "sc2"]) == ([], [], None)


def test_first_write_read_elsewhere_stays():
    model = two_writes(kv_rows(3), kv_rows(4), extra_nodes=[("Neg", ["w1"], ["z"])])
    model.graph.output.extend([model.graph.output[0]])
    model.graph.output[1].name = "z"
    assert call_rule(model, "_p_fuse_two_scatternd", ["sc1", "sc2"]) == ([], [], None)


def conv_writes(data, bias=True):
    """sc1 writes 2 of 4 heads from a private Conv; sc2 all 4 heads."""
    consts = {"w": np.linspace(-1, 1, 2 * 3, dtype=F).reshape(2, 3, 1, 1)}
    if bias:
        consts["b"] = np.array([0.5, -0.5], F)
    nodes = [("Conv", ["a", "w", "b"][:3 if bias else 2], ["u1"], {"name": "conv"})]
    model = two_writes(kv_rows(0, [0, 1]), kv_rows(1, range(4)), data=data, u1_shape=[1, 2, 1, D],
                       extra_nodes=nodes, extra_inputs={"a": [1, 3, 1, D]}, extra_consts=consts, heads=4)
    del model.graph.input[[i.name for i in model.graph.input].index("u1")]
    return model


@pytest.mark.parametrize("bias", [True, False])
def test_private_conv_widens_over_zero_data(bias):
    removed, added, out = call_rule(conv_writes(np.zeros((1, 4, S, D), F), bias), "_p_fuse_two_scatternd",
                                    ["sc1", "sc2"])
    assert (removed, added) == (["sc1"], ["Concat"])
    w = [i for i in out.graph.initializer if i.name.endswith("_pad_for_scatternd")]
    assert sorted(list(i.dims) for i in w) == ([[4]] if bias else []) + [[4, 3, 1, 1]]
    assert len(node_of(out, "conv").input) == (3 if bias else 2)  # no bias made up


def test_private_conv_does_not_widen_over_data_it_would_overwrite():
    data = np.zeros((1, 4, S, D), F)
    data[0, 3, 0, 1] = 1.0  # a place the widened write would zero
    assert call_rule(conv_writes(data), "_p_fuse_two_scatternd", ["sc1", "sc2"]) == ([], [], None)


def test_narrow_write_without_a_conv_stays():
    model = two_writes(kv_rows(0, [0]), kv_rows(1), data=np.zeros((1, H, S, D), F))
    assert call_rule(model, "_p_fuse_two_scatternd", ["sc1", "sc2"]) == ([], [], None)


# ---- fuse_two_scatternd2 ------------------------------------------------------

def test_equal_updates_join_on_any_data():
    removed, added, _ = call_rule(two_writes(kv_rows(3), kv_rows(4)), "_p_fuse_two_scatternd2", ["sc1", "sc2"])
    assert (removed, added) == (["sc1"], ["Concat"])


def test_narrow_write_is_padded_with_what_the_data_holds():
    # sc2 writes head 1 of token 1 only: padded with head 0 of token 1.
    removed, added, out = call_rule(two_writes(kv_rows(0), kv_rows(1, [1]), data=np.zeros((1, H, S, D), F)),
                                    "_p_fuse_two_scatternd2", ["sc1", "sc2"])
    assert (removed, added) == (["sc1"], ["Concat", "Concat"])
    pad = [n for n in out.graph.node if n.name == "sc2_pad_for_update"][0]
    assert pad.input[0].endswith("_pad")  # the pad goes first


def test_pad_that_would_write_other_values_stays():
    # The pad's values are read one token early: fine over zeros, not here.
    data = np.arange(H * S * D, dtype=F).reshape(1, H, S, D)
    model = two_writes(kv_rows(0), kv_rows(1, [1]), data=data)
    assert call_rule(model, "_p_fuse_two_scatternd2", ["sc1", "sc2"]) == ([], [], None)


def test_pad_needs_constant_data():
    model = two_writes(kv_rows(0), kv_rows(1, [1]))
    assert call_rule(model, "_p_fuse_two_scatternd2", ["sc1", "sc2"]) == ([], [], None)


@pytest.mark.parametrize("rule", ["_p_fuse_two_scatternd2", "_p_remove_redundant_scatternd"])
def test_adding_scatters_are_left_alone(rule):
    model = two_writes(kv_rows(3), kv_rows(4), red=("add", "add"))
    assert call_rule(model, rule, ["sc1", "sc2"]) == ([], [], None)


# ---- remove_redundant_scatternd ----------------------------------------------

def repeat_write(same_update=True, second_is_output=True):
    nodes = [("ScatterND", ["cache", "i1", "u"], ["w1"], {"name": "sc1"}),
             ("ScatterND", ["w1", "i2", "u" if same_update else "v"], ["w2"], {"name": "sc2"}),
             ("Neg", ["w2"], ["y"])]
    shape = [1, H, S, D]
    outs = {"y": shape}
    if second_is_output:
        outs["w2"] = shape
    # Equal indices under two names count as the same.
    consts = {"i1": kv_rows(2), "i2": kv_rows(2)}
    return make_model(nodes, {"cache": shape, "u": [1, H, 1, D], "v": [1, H, 1, D]}, outs, consts, opset=16)


def test_repeated_write_goes():
    removed, added, out = call_rule(repeat_write(second_is_output=False), "_p_remove_redundant_scatternd",
                                    ["sc1", "sc2"])
    assert (removed, added) == (["sc2"], [])
    assert [n.input[0] for n in out.graph.node if n.op_type == "Neg"] == ["w1"]


@pytest.mark.parametrize("kw", [{"same_update": False, "second_is_output": False}, {"second_is_output": True}],
                         ids=["other update", "graph output"])
def test_repeat_that_differs_or_is_an_output_stays(kw):
    assert call_rule(repeat_write(**kw), "_p_remove_redundant_scatternd", ["sc1", "sc2"]) == ([], [], None)


# ---- fuse_gather_add_scatternd ------------------------------------------------

def gather_add_scatter(gi, si, gather_second=False, y_shape=None):
    y_shape = y_shape or [len(gi), 8]
    add_in = ["y", "g"] if gather_second else ["g", "y"]
    nodes = [("Gather", ["x", "gi"], ["g"], {"name": "ga", "axis": 0}),
             ("Add", add_in, ["s"], {"name": "add"}),
             ("ScatterND", ["x", "si", "s"], ["out"], {"name": "sc"})]
    consts = {"gi": np.array(gi, np.int64), "si": np.array(si, np.int64).reshape(-1, 1)}
    return make_model(nodes, {"x": [5, 8], "y": y_shape}, {"out": [5, 8]}, consts, opset=16)


@pytest.mark.parametrize("gather_second", [False, True])
def test_read_add_write_back_becomes_an_adding_scatter(gather_second):
    removed, added, out = call_rule(gather_add_scatter([1, 3], [1, 3], gather_second),
                                    "_p_fuse_to_reduction_scatternd", ["ga", "add", "sc"])
    assert (removed, added) == (["ga", "add", "sc"], ["ScatterND"])
    sc = out.graph.node[0]
    assert sc.input[2] == "y" and [a.s for a in sc.attribute if a.name == "reduction"] == [b"add"]


@pytest.mark.parametrize("gi,si,y_shape", [
    ([1, 3], [3, 1], None),  # written back elsewhere
    ([1, 1], [1, 1], None),  # one place twice: the last write wins, a sum would add both
    ([1, 3], [1, 3], [1, 8]),  # a broadcasting Add
], ids=["other places", "duplicate place", "broadcast"])
def test_read_add_write_that_differs_stays(gi, si, y_shape):
    model = gather_add_scatter(gi, si, y_shape=y_shape)
    assert call_rule(model, "_p_fuse_to_reduction_scatternd", ["ga", "add", "sc"]) == ([], [], None)


def test_writes_side_by_side_on_two_axes_join_on_the_later_one():
    # Batch 2 leaves room on axis 0 too; the token axis, the later, wins.
    nodes = [("ScatterND", ["cache", "i1", "u1"], ["w1"], {"name": "sc1"}),
             ("ScatterND", ["w1", "i2", "u2"], ["y"], {"name": "sc2"})]
    shape = [2, H, S, D]
    model = make_model(nodes, {"cache": shape, "u1": [1, H, 1, D], "u2": [1, H, 1, D]}, {"y": shape},
                       {"i1": kv_rows(1), "i2": kv_rows(2)}, opset=16)
    _, added, out = call_rule(model, "_p_fuse_two_scatternd", ["sc1", "sc2"])
    assert added == ["Concat"]
    assert [n for n in out.graph.node if n.op_type == "Concat"][0].attribute[0].i == 2
