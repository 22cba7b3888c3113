"""Models that were once reduced wrongly (data/regressions/, one file per case,
named by how it failed). Each must reduce to a valid model that keeps the
graph's inputs and outputs and its numbers, and that a second reduce leaves
byte for byte as it is; unnamed graphs must reduce as named ones do."""

from __future__ import annotations

from pathlib import Path

import onnx
import pytest

import tolm
from conftest import assert_same_outputs

REGRESSIONS = sorted((Path(__file__).parent / "data" / "regressions").glob("*.onnx"))


def io_signature(model: onnx.ModelProto):
    g = model.graph
    return [(v.name, v.type.SerializeToString()) for v in g.input], [
        (v.name, v.type.SerializeToString()) for v in g.output
    ]


def structure(model: onnx.ModelProto):
    """The graph with every name taken out: op types, attributes and which
    node feeds which (graph inputs, outputs and constants by position)."""
    g = model.graph
    where = {}
    for i, v in enumerate(g.input):
        where[v.name] = f"in{i}"
    for i, t in enumerate(g.initializer):
        where[t.name] = "const:" + onnx.numpy_helper.to_array(t).tobytes().hex() + str(list(t.dims))
    for k, n in enumerate(g.node):
        for j, o in enumerate(n.output):
            where[o] = f"n{k}.{j}"
    return [
        (n.op_type, [where.get(t, t and "?") for t in n.input], sorted(a.SerializeToString() for a in n.attribute))
        for n in g.node
    ] + [where.get(o.name) for o in g.output]


@pytest.mark.parametrize("path", REGRESSIONS, ids=lambda p: p.stem)
def test_reduces_right_and_stays_reduced(path):
    original = onnx.load(str(path))
    reduced, report = tolm.reduce(original, strict=True)
    onnx.checker.check_model(reduced, full_check=True)
    assert io_signature(reduced) == io_signature(original)
    assert_same_outputs(original, reduced)
    again, report2 = tolm.reduce(reduced, strict=True)
    assert again.SerializeToString() == reduced.SerializeToString()
    assert report2["rewrites"] == 0 and not report2["rule_faults"]


@pytest.mark.parametrize("path", REGRESSIONS, ids=lambda p: p.stem)
def test_unnamed_nodes_reduce_as_named(path):
    named = onnx.load(str(path))
    for i, n in enumerate(named.graph.node):
        n.name = f"node{i}"
    unnamed = onnx.ModelProto()
    unnamed.CopyFrom(named)
    for n in unnamed.graph.node:
        n.name = ""
    a, _ = tolm.reduce(named)
    b, _ = tolm.reduce(unnamed)
    assert structure(a) == structure(b)
    assert all(n.name for n in b.graph.node)
    assert len({n.name for n in b.graph.node}) == len(b.graph.node)
