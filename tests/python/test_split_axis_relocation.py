"""Split-axis relocation, each rule called by name: the Split moves to another
axis, the pieces keep their names and numbers in onnxruntime; where a rule
does not apply, nothing changes."""

import numpy as np
import pytest

from conftest import call_rule, make_model, neg

F = np.float32


# ---- relocate_rs_split_axis ------------------------------------------------------

def conv_rs_split(rs_out, split_axis, lengths, conv_out=16, producer="Conv"):
    w = np.linspace(-1, 1, conv_out * 4, dtype=F).reshape(conv_out, 4, 1, 1)
    outs = [f"p{k}" for k in range(len(lengths))]
    if producer == "Conv":
        head = [("Conv", ["x", "w"], ["c"], {"name": "conv"})]
    else:
        head = [("Relu", ["x"], ["c0"], {"name": "relu"}), ("Conv", ["c0", "w"], ["c1"], {"name": "conv"}),
                ("Relu", ["c1"], ["c"], {"name": "act"})]
    nodes = head + [("Reshape", ["c", "s"], ["r"], {"name": "rs"}),
                    ("Split", ["r", "ln"], outs, {"name": "sp", "axis": split_axis})]
    nodes += [neg(o, "y" + o) for o in outs]
    return make_model(nodes, {"x": [1, 4, 3, 4]}, {"y" + o: None for o in outs},
                      {"w": w, "s": rs_out, "ln": lengths})


def test_relocate_rs_split_axis_moves_the_split_to_the_channels():
    # [1, 16, 3, 4] -> [1, 8, 6, 4] split on H into [3, 3]: the channels are
    # shuffled by a Gather, the Reshape then runs in place.
    removed, added, out = call_rule(conv_rs_split([1, 8, 6, 4], 2, [3, 3]), "_p_relocate_rs_split_axis", ["rs", "sp"])
    assert (removed, added) == (["rs", "sp"], ["Gather", "Reshape", "Split"])
    sp = next(n for n in out.graph.node if n.op_type == "Split")
    assert list(sp.output) == ["p0", "p1"] and sp.attribute[0].i == 1
    lens = next(i for i in out.graph.initializer if i.name == sp.input[1])
    from onnx import numpy_helper
    assert numpy_helper.to_array(lens).tolist() == [8, 8]


@pytest.mark.parametrize("rs_out, axis, lengths, producer", [
    ([1, 8, 6, 4], 2, [2, 4], "Conv"),       # unequal parts
    ([1, 8, 6, 4], 1, [4, 4], "Conv"),       # already on the channels
    ([1, 8, 6, 4], 2, [3, 3], "Relu"),       # neither Conv nor Gather ahead
    ([1, 16, 4, 3], 2, [2, 2], "Conv"),      # the Reshape is in place already
])
def test_relocate_rs_split_axis_refused(rs_out, axis, lengths, producer):
    m = conv_rs_split(rs_out, axis, lengths, producer=producer)
    assert call_rule(m, "_p_relocate_rs_split_axis", ["rs", "sp"]) == ([], [], None)


# ---- relocate_tp_rs_split_axis ---------------------------------------------------

def tp_rs_split(shape, perm, target, axis, lengths):
    outs = [f"p{k}" for k in range(len(lengths))]
    nodes = [("Transpose", ["x"], ["t"], {"name": "tp", "perm": perm}),
             ("Reshape", ["t", "s"], ["r"], {"name": "rs"}),
             ("Split", ["r", "ln"], outs, {"name": "sp", "axis": axis})]
    nodes += [neg(o, "y" + o) for o in outs]
    return make_model(nodes, {"x": shape}, {"y" + o: None for o in outs}, {"s": target, "ln": lengths})


@pytest.mark.parametrize("shape, perm, target, axis, lengths", [
    ([4, 2, 2, 4], [1, 0, 3, 2], [8, 4, 2], 0, [4, 4]),
    ([1, 4, 4], [2, 1, 0], [4, 4], 1, [1, 1, 1, 1]),
    ([3, 2, 3, 4], [1, 0, 3, 2], [6, 4, 3], 0, [3, 3]),
    # Uneven lengths where the pieces keep their shapes.
    ([4, 1, 3, 1], [2, 3, 1, 0], [3, 1, 4], 0, [2, 1]),
    ([1, 4, 4, 1], [2, 3, 0, 1], [4, 1, 4], 0, [1, 3]),
])
def test_relocate_tp_rs_split_axis(shape, perm, target, axis, lengths):
    removed, added, out = call_rule(tp_rs_split(shape, perm, target, axis, lengths),
                                    "_p_relocate_tp_rs_split_axis", ["tp", "rs", "sp"])
    assert (removed, added) == (["tp", "rs", "sp"], ["Reshape", "Transpose", "Split"])
    names = {t for n in out.graph.node for t in n.output}
    assert {"r_swap", "t_swap"} <= names
    sp = next(n for n in out.graph.node if n.op_type == "Split")
    assert list(sp.output) == [f"p{k}" for k in range(len(lengths))]


@pytest.mark.parametrize("shape, perm, target, axis, lengths", [
    # The units of the split come from input axes [2, 0]: not rising.
    ([2, 2, 2], [2, 0, 1], [4, 2], 0, [2, 2]),
    # The split axis comes from the last input axis: nothing to merge with.
    ([2, 3, 2], [2, 0, 1], [4, 3], 0, [2, 2]),
    # Uneven lengths on an axis that moves: the shapes agree once divided by
    # the units, yet the pieces would be [2, 2, 2] and [2, 4, 2] instead of
    # [2, 2, 2] and [4, 2, 2].
    ([2, 3, 2, 2], [1, 0, 2, 3], [6, 2, 2], 0, [2, 4]),
])
def test_relocate_tp_rs_split_axis_refused(shape, perm, target, axis, lengths):
    m = tp_rs_split(shape, perm, target, axis, lengths)
    assert call_rule(m, "_p_relocate_tp_rs_split_axis", ["tp", "rs", "sp"]) == ([], [], None)
