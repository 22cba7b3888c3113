"""Random-graph fuzzing of tolm.reduce, and tests of the fuzzer itself.

TOLM_FUZZ_COUNT sets the number of random cases (default 2000).
"""

from __future__ import annotations

import os
import sys
import time
from collections import Counter

import numpy as np
import onnx
import pytest
from onnx import helper

HERE = os.path.dirname(os.path.abspath(__file__))
if HERE not in sys.path:
    sys.path.insert(0, HERE)

import check  # noqa: E402
import gen  # noqa: E402
import pool  # noqa: E402
import run  # noqa: E402
import shrink  # noqa: E402

SEED = 7_000_000
COUNT = int(os.environ.get("TOLM_FUZZ_COUNT", "2000"))


def test_random_graphs_reduce_correctly():
    t0, stamp = time.monotonic(), pool.package_stamp()
    results = pool.run_seeds(range(SEED, SEED + COUNT), jobs=1, case_timeout=60)
    text = run.summary(results, time.monotonic() - t0, 1, seeds_shown=20, package_changed=pool.package_stamp() != stamp)
    print(text)
    assert len(results) == COUNT
    bad = [r for r in results if r.failures or r.gen_problem]
    if bad:
        pytest.fail(
            f"{len(bad)} of {COUNT} random cases fail\n{text}\n"
            f"rerun and shrink one: python tests/fuzz/run.py --seed SEED --count 1 --out /tmp/fuzz_out",
            pytrace=False,
        )


# -- the generator ------------------------------------------------------------


def test_generator_is_deterministic_and_its_models_are_valid():
    for seed in range(12):
        a = gen.generate(seed)
        assert gen.make_case(seed).SerializeToString() == a.model.SerializeToString()
        onnx.checker.check_model(a.model, full_check=True)
        ok, _, _, ref, why = check.validate(a.model, seed)
        assert ok, why
        # every tensor has a shape, so rules that need one can fire
        known = {vi.name for vi in list(a.model.graph.value_info) + list(a.model.graph.input) + list(a.model.graph.output)}
        known |= {t.name for t in a.model.graph.initializer}
        for n in a.model.graph.node:
            for o in n.output:
                assert o in known or n.op_type == "Constant", (seed, o)
    assert gen.make_case(1).SerializeToString() != gen.make_case(2).SerializeToString()


def test_generator_reaches_the_patterns_the_rules_look_for():
    ops: Counter = Counter()
    named = anonymous = dead = mid_outputs = identity_perm = discards = 0
    for seed in range(150):
        case = gen.generate(seed)
        discards += case.discards
        g = case.model.graph
        ops.update(n.op_type for n in g.node)
        if any(n.name for n in g.node):
            named += 1
        else:
            anonymous += 1
        outs = {o.name for o in g.output}
        read = {i for n in g.node for i in n.input}
        if any(n.op_type != "Constant" and not any(o in outs or o in read for o in n.output) for n in g.node):
            dead += 1
        if outs & read:
            mid_outputs += 1
        for n in g.node:
            if n.op_type == "Transpose" and n.attribute and list(n.attribute[0].ints) == sorted(n.attribute[0].ints):
                identity_perm += 1
    wanted = (
        "Transpose Reshape Squeeze Unsqueeze Flatten Identity Dropout Add Sub Mul Div Relu Sigmoid Tanh LeakyRelu Clip "
        "Exp Concat Split Slice ReduceMean ReduceSum ReduceMax Gather Cast Pad Expand Where ScatterND GatherND "
        "BatchNormalization MaxPool AveragePool Conv Resize"
    ).split()
    assert [op for op in wanted if ops[op] == 0] == []
    assert named and anonymous and dead > 10 and mid_outputs > 10 and identity_perm > 5
    assert discards < 15


@pytest.mark.parametrize("pattern", [p for p, _ in gen.PATTERNS], ids=lambda p: p.__name__)
def test_each_pattern_tracks_shapes_right(pattern):
    """A pattern whose shape bookkeeping is off makes invalid models that get
    thrown away, so the rule it aims at would quietly go untested."""
    applied = 0
    for seed in range(40):
        b = gen.Builder(np.random.default_rng([seed, 99]))
        b.add_input(gen.FLOAT, gen.random_input_shape(b))
        if seed % 3 == 0:
            b.add_input(gen.FLOAT, (1, 3, 4, 5))
        before = len(b.nodes)
        for _ in range(3):
            try:
                pattern(b)
            except gen.Skip:
                pass
        if len(b.nodes) == before:
            continue
        applied += 1
        ok, _, _, _, why = check.validate(gen.finish(b), seed)
        assert ok, f"{pattern.__name__}, seed {seed}: {why}"
    assert applied >= 10


# -- the checks ---------------------------------------------------------------


def _case():
    x = helper.make_tensor_value_info("x", onnx.TensorProto.FLOAT, [2, 3])
    y = helper.make_tensor_value_info("y", onnx.TensorProto.FLOAT, [2, 3])
    z = helper.make_tensor_value_info("z", onnx.TensorProto.FLOAT, [3, 2])
    nodes = [
        helper.make_node("Relu", ["x"], ["r"], name="n0"),
        helper.make_node("Identity", ["r"], ["y"], name="n1"),
        helper.make_node("Transpose", ["r"], ["z"], name="n2", perm=[1, 0]),
    ]
    m = helper.make_model(helper.make_graph(nodes, "g", [x], [y, z]), opset_imports=[helper.make_opsetid("", 17)])
    m.ir_version = 8
    return m


def _copy(m):
    out = onnx.ModelProto()
    out.CopyFrom(m)
    return out


def relu_to_identity(model):
    """A wrong rewrite: Relu is not a no-op."""
    out = _copy(model)
    for n in out.graph.node:
        if n.op_type == "Relu":
            n.op_type = "Identity"
    return out


def drop_output_z(model):
    out = _copy(model)
    kept = [o for o in out.graph.output if o.name != "z"]
    del out.graph.output[:]
    out.graph.output.extend(kept)
    return out


def _grows(model):
    out = _copy(model)
    last = out.graph.output[0].name
    for n in out.graph.node:
        for k, o in enumerate(n.output):
            if o == last:
                n.output[k] = last + "_"
    out.graph.node.append(helper.make_node("Identity", [last + "_"], [last]))
    return out


_calls = Counter()


def _counting(model):
    _calls["n"] += 1
    out = _copy(model)
    out.producer_version = str(_calls["n"])
    return out


def _forgets_unnamed(model):
    """Reduces differently when the nodes have no names."""
    return relu_to_identity(model) if not any(n.name for n in model.graph.node) else _copy(model)


def _raises(model):
    raise ValueError("no rule for this")


def _mutates(model):
    model.graph.node[0].name = "changed"
    return _copy(model)


@pytest.mark.parametrize(
    "reducer, expected",
    [
        (_copy, set()),
        (relu_to_identity, {"mismatch"}),
        (drop_output_z, {"io"}),
        (_grows, {"idempotence"}),
        (_counting, {"idempotence", "determinism"}),
        (_forgets_unnamed, {"names_matter"}),
        (_raises, {"exception"}),
        (_mutates, {"input_mutated"}),
    ],
)
def test_check_classifies_faults(reducer, expected):
    got = {cls for cls, _ in check.check_case(_case(), reducer=reducer)}
    assert got == expected


def test_check_accepts_nan_in_both_and_flags_a_broken_graph():
    failures = check.check_case(_case(), feeds={"x": np.full((2, 3), np.nan, np.float32)}, reducer=_copy)
    assert failures == []

    def dangling(model):
        out = _copy(model)
        out.graph.node[1].input[0] = "nowhere"
        return out

    classes = [c for c, _ in check.check_case(_case(), reducer=dangling)]
    assert "checker" in classes and "ort_error" not in classes


def test_io_catches_a_changed_type_or_order():
    def swap_outputs(model):
        out = _copy(model)
        first = onnx.ValueInfoProto()
        first.CopyFrom(out.graph.output[0])
        out.graph.output[0].CopyFrom(out.graph.output[1])
        out.graph.output[1].CopyFrom(first)
        return out

    def wrong_dims(model):
        out = _copy(model)
        out.graph.output[1].type.tensor_type.shape.dim[0].dim_param = "n"
        return out

    assert "io" in {c for c, _ in check.check_case(_case(), reducer=swap_outputs)}
    assert "io" in {c for c, _ in check.check_case(_case(), reducer=wrong_dims)}


def test_integer_outputs_must_match_exactly():
    ref = {"y": np.array([1, 2], np.int64)}
    assert check._compare_outputs(ref, {"y": np.array([1, 3], np.int64)})
    assert check._compare_outputs(ref, {"y": np.array([1, 2], np.int32)})
    assert not check._compare_outputs({"y": np.array([1.0, np.inf], np.float32)}, {"y": np.array([1.00001, np.inf], np.float32)})


def test_a_model_that_rounds_to_float16_is_compared_at_its_precision():
    # One float16 step at -0.49: float32 work reassociated before a cast.
    ref, got = {"y": np.array([-0.494873], np.float32)}, {"y": np.array([-0.494629], np.float32)}
    assert check._compare_outputs(ref, got)
    assert not check._compare_outputs(ref, got, check.RTOL_HALF)
    m = _case()
    assert not check.rounds_to_half(m)
    m.graph.node.append(helper.make_node("Cast", ["y"], ["y16"], to=onnx.TensorProto.FLOAT16))
    assert check.rounds_to_half(m)


def test_feeds_depend_on_the_input_name_not_on_the_other_inputs():
    m = _case()
    m.graph.input.insert(0, helper.make_tensor_value_info("w", onnx.TensorProto.INT64, [4]))
    with_w = check.make_feeds(m, 3)
    without = check.make_feeds(_case(), 3)
    np.testing.assert_array_equal(with_w["x"], without["x"])
    assert with_w["w"].min() >= 0 and with_w["w"].max() <= 2


# -- the shrinker -------------------------------------------------------------


def _relu_case():
    for seed in range(100):
        case = gen.generate(seed)
        ops = [n.op_type for n in case.model.graph.node]
        if "Relu" in ops and len(ops) >= 15 and "mismatch" in {c for c, _ in check.check_case(case.model, case.feeds, case.ref, reducer=relu_to_identity)}:
            return case
    pytest.skip("no case with an observable Relu")


def test_shrinker_keeps_the_failure_class_and_shrinks():
    case = _relu_case()

    def still_fails(m):
        ok, m, feeds, ref, _ = check.validate(m, case.seed)
        return ok and "mismatch" in {c for c, _ in check.check_case(m, feeds, ref, reducer=relu_to_identity, names=False)}

    small, evals = shrink.shrink(case.model, still_fails, max_evals=400, time_budget=120)
    assert still_fails(small)
    ops = [n.op_type for n in small.graph.node if n.op_type != "Constant"]
    assert "Relu" in ops and len(ops) <= 3, ops
    assert len(small.graph.output) == 1
    assert not [t for t in small.graph.initializer if not any(t.name in n.input for n in small.graph.node)]


def test_delete_node_rewires_readers_and_keeps_outputs():
    m = shrink.delete_node(shrink._infer(_case()), 1)  # y = Identity(r): y is now r itself
    assert [o.name for o in m.graph.output] == ["r", "z"]
    m = shrink.delete_node(shrink._infer(_case()), 0)  # r = Relu(x): readers read x
    assert [n.input[0] for n in m.graph.node] == ["x", "x"]


def test_delete_node_without_a_same_shape_input_cuts_the_graph_there():
    m = shrink.delete_node(shrink._infer(_case()), 2)  # z = Transpose(r): [3,2] is no input's shape
    assert "z" not in [o for n in m.graph.node for o in n.output]
    assert [i.name for i in m.graph.input] == ["x", "z"]
    assert [o.name for o in m.graph.output] == ["y", "z"]


def test_drop_dead_keeps_what_outputs_need():
    m = _case()
    m.graph.node.append(helper.make_node("Neg", ["r"], ["dead"], name="n3"))
    m.graph.initializer.append(onnx.numpy_helper.from_array(np.zeros(3, np.float32), "unused"))
    out = shrink.drop_dead(m)
    assert [n.name for n in out.graph.node] == ["n0", "n1", "n2"]
    assert len(out.graph.initializer) == 0
    assert [i.name for i in out.graph.input] == ["x"]


def test_simpler_constants_keep_broadcasting_shape_then_shape():
    m = _case()
    m.graph.initializer.append(onnx.numpy_helper.from_array(np.arange(6, dtype=np.float32).reshape(2, 3), "c"))
    shapes = [list(next(t for t in c.graph.initializer if t.name == "c").dims) for c in shrink.simpler_constants(m, "c")]
    assert shapes == [[1, 1], [2, 3]]


def test_shrinking_a_crash_goes_through_the_worker():
    seed = next(s for s in range(300) if {"Conv"} <= {n.op_type for n in gen.make_case(s).graph.node} and len(gen.make_case(s).graph.node) > 12)
    worker = pool.Worker(names=False, reducer="test_fuzz:dying_reducer")
    try:
        small, evals, reproduced = pool.shrink_in_worker(worker, gen.make_case(seed).SerializeToString(), "crash", seed, 10, time_budget=120)
    finally:
        worker.close()
    assert reproduced and evals > 0
    assert [n.op_type for n in small.graph.node if n.op_type != "Constant"] == ["Conv"]


# -- the workers --------------------------------------------------------------


def dying_reducer(model):
    """Dies on any model with a Conv, hangs on one with a Resize."""
    ops = {n.op_type for n in model.graph.node}
    if "Conv" in ops:
        os._exit(139)
    if "Resize" in ops:
        time.sleep(3600)
    return _copy(model)


def test_workers_record_crashes_and_hangs_and_go_on():
    want = {}
    quota = {"crash": 2, "hang": 1, None: 3}
    for seed in range(300):
        ops = {n.op_type for n in gen.make_case(seed).graph.node}
        kind = "crash" if "Conv" in ops else "hang" if "Resize" in ops else None
        if quota[kind]:
            quota[kind] -= 1
            want[seed] = kind
        if not any(quota.values()):
            break
    results = pool.run_seeds(sorted(want), jobs=1, case_timeout=4, names=False, reducer="test_fuzz:dying_reducer")
    got = {r.seed: (r.failures[0][0] if r.failures else None) for r in results}
    assert got == want


def test_reproducers_are_picked_from_different_kinds_of_failure():
    rs = [pool.Result(s, [("checker", f"Graph output 't{s}' is not an output of any node")]) for s in range(5)]
    rs.insert(3, pool.Result(99, [("checker", "Inferred shape and existing shape differ in rank: (4) vs (5)")]))
    assert [r.seed for r in run.diverse(rs, "checker", 3)] == [0, 99, 1]
    text = "c = {" + ",".join(["1.5"] * 40) + "}"
    assert run.abbreviate(text).endswith("... 40 values}")
