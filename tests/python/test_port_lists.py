"""A node's input/output lists, graph I/O and pause lists behave as Python
lists, and every write reaches the graph's index."""

import gc

import pytest

from conftest import make_model
from tolm.api.ir_graph import IRGraph


def graph():
    # Concat reads a, b, c (all Relu outputs); Split writes s0, s1.
    return IRGraph(
        make_model(
            [
                ("Relu", ["x"], ["a"], {"name": "ra"}),
                ("Relu", ["x"], ["b"], {"name": "rb"}),
                ("Relu", ["x"], ["c"], {"name": "rc"}),
                ("Concat", ["a", "b", "c"], ["cat"], {"axis": 0, "name": "cat"}),
                ("Split", ["cat", "sp"], ["s0", "s1"], {"axis": 0, "name": "split"}),
            ],
            inputs={"x": [2]},
            outputs={"s0": None, "s1": None},
            consts={"sp": [3, 3]},
        )
    )


def readers(ir, t):
    return sorted(n.name for n in ir.next_nodes(t))


def index_matches_inputs(ir, node):
    """Every name the node reads knows it as a reader, and nothing else does."""
    for t in ["x", "a", "b", "c", "cat", "d", "e"]:
        assert (node.name in readers(ir, t)) == (t in list(node.input)), t


# op(list) on cat.input starting as [a, b, c] -> list afterwards, return value
EDITS = {
    "set int": (lambda p: p.__setitem__(1, "x"), ["a", "x", "c"], None),
    "set negative": (lambda p: p.__setitem__(-1, "a"), ["a", "b", "a"], None),
    "set slice": (lambda p: p.__setitem__(slice(0, 2), ["x"]), ["x", "c"], None),
    "set extended slice": (lambda p: p.__setitem__(slice(None, None, 2), ["c", "a"]), ["c", "b", "a"], None),
    "del int": (lambda p: p.__delitem__(0), ["b", "c"], None),
    "del negative": (lambda p: p.__delitem__(-2), ["a", "c"], None),
    "del slice": (lambda p: p.__delitem__(slice(1, None)), ["a"], None),
    "del reversed step": (lambda p: p.__delitem__(slice(None, None, -2)), ["b"], None),
    "pop": (lambda p: p.pop(), ["a", "b"], "c"),
    "pop first": (lambda p: p.pop(0), ["b", "c"], "a"),
    "append": (lambda p: p.append("x"), ["a", "b", "c", "x"], None),
    "extend": (lambda p: p.extend(["x", "a"]), ["a", "b", "c", "x", "a"], None),
    "extend with itself": (lambda p: p.extend(p), ["a", "b", "c", "a", "b", "c"], None),
    "insert": (lambda p: p.insert(1, "x"), ["a", "x", "b", "c"], None),
    "insert negative": (lambda p: p.insert(-1, "x"), ["a", "b", "x", "c"], None),
    "insert past end": (lambda p: p.insert(10, "x"), ["a", "b", "c", "x"], None),
    "remove": (lambda p: p.remove("b"), ["a", "c"], None),
    "clear": (lambda p: p.clear(), [], None),
}


@pytest.mark.parametrize("case", list(EDITS))
def test_input_edits_reach_the_index(case):
    edit, after, returned = EDITS[case]
    ir = graph()
    cat = ir.find_node("cat")
    assert edit(cat.input) == returned
    assert cat.input == after and list(cat.input) == after and len(cat.input) == len(after)
    index_matches_inputs(ir, cat)
    if "x" in after:
        assert "cat" in readers(ir, "x")


def test_output_edits_move_producers():
    ir = graph()
    split = ir.find_node("split")
    split.output.append("s2")
    assert ir.producer("s2") == split and split.output == ["s0", "s1", "s2"]
    assert split.output.pop(0) == "s0"
    assert ir.producer("s0") is None and ir.pre_nodes("s1") == [split]
    split.output[0:1] = ["t1", "t1b"]
    assert split.output == ["t1", "t1b", "s2"]
    assert ir.producer("s1") is None and ir.producer("t1b") == split
    del split.output[-1]
    assert ir.producer("s2") is None


def test_reads_and_protocol():
    ir = graph()
    ins = ir.find_node("cat").input
    assert ins[0] == "a" and ins[-1] == "c" and ins[-3] == "a"
    assert ins[1:] == ["b", "c"] and ins[::-1] == ["c", "b", "a"] and ins[5:] == []
    assert type(ins[0:1]) is list
    assert "b" in ins and "z" not in ins and 3 not in ins
    assert ins.index("c") == 2 and ins.count("a") == 1 and ins.count("z") == 0
    assert ins == ["a", "b", "c"] and ins != ["a", "b"] and ins != "abc"
    assert repr(ins) == "['a', 'b', 'c']" and [t for t in ins] == ["a", "b", "c"]
    assert ins + ["d"] == ["a", "b", "c", "d"] and ["d"] + ins == ["d", "a", "b", "c"]
    assert ins.copy() == ["a", "b", "c"]
    for bad in (lambda: ins[3], lambda: ins[-4], lambda: ins.pop(7), lambda: ins.__setitem__(3, "x")):
        with pytest.raises(IndexError):
            bad()
    for bad in (lambda: ins.index("z"), lambda: ins.remove("z"),
                lambda: ins.__setitem__(slice(None, None, 2), ["x"])):
        with pytest.raises(ValueError):
            bad()
    with pytest.raises(TypeError):
        ins.extend("ab")  # a string is not a list of names
    assert ins == ["a", "b", "c"]  # failed edits changed nothing
    empty = ir.find_node("ra").input
    empty.clear()
    with pytest.raises(IndexError):
        empty.pop()


def test_augmented_assignment_goes_through_the_index():
    ir = graph()
    cat = ir.find_node("cat")
    cat.input += ["x"]
    assert cat.input == ["a", "b", "c", "x"] and "cat" in readers(ir, "x")


def test_slices_outlive_changes_and_the_node():
    ir = graph()
    cat = ir.find_node("cat")
    ins, outs, every = cat.input[0:2], cat.output[:], cat.input[:]
    cat.input[0] = "x"
    del cat.input[1]
    ir.remove_node(cat)
    del cat
    gc.collect()
    assert ins == ["a", "b"] and outs == ["cat"] and every == ["a", "b", "c"]
    assert ir.next_nodes("a") == [] and ir.find_node("cat") is None


def test_view_of_a_removed_node_stays_usable():
    ir = graph()
    cat = ir.find_node("cat")
    view = cat.input
    ir.remove_node(cat)
    del cat
    gc.collect()
    view.append("x")  # a free node: changes nothing in the graph
    assert view == ["a", "b", "c", "x"] and view[1:3] == ["b", "c"]
    assert ir.next_nodes("x") and all(n.name != "cat" for n in ir.next_nodes("x"))


def test_graph_io_and_pause_lists_slice_to_copies():
    ir = graph()
    outs = ir.outputs[0:1]
    ir.outputs.append("cat")
    assert outs == ["s0"] and ir.outputs[-1:] == ["cat"] and ir.inputs[:] == ["x"]
    assert ir.inputs[0:5] == ["x"]
    ir.op_ruler_pause["k"] = ["ra", "rb", "rc"]
    paused = ir.op_ruler_pause["k"]
    head = paused[:2]
    del ir.op_ruler_pause["k"]
    gc.collect()
    assert head == ["ra", "rb"]
    # A view of a dropped key reads empty without bringing the key back.
    assert paused[:] == [] and len(paused) == 0 and "ra" not in paused and "k" not in ir.op_ruler_pause
