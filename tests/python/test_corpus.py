"""Whole real models through tolm.reduce.

The models are small copies of corpus models (see data/README.md): a voice
activity detector shipped in a PyPI wheel (LSTM, If subgraphs, a recurrent
state) and a torch-exported YOLO-style detector (focus slices, view / permute
chains in the head)."""

from pathlib import Path

import numpy as np
import onnx
import pytest

import tolm

DATA = Path(__file__).resolve().parent / "data"

# Inputs that pick a code path get fixed values; the rest are random.
MODELS = {
    "silero_vad.onnx": {"fixed": {"sr": np.array(16000, dtype=np.int64)}, "min_removed": 20},
    "yolo_focus.onnx": {"fixed": {}, "min_removed": 1},
}


def _session(model: onnx.ModelProto):
    import onnxruntime as ort

    so = ort.SessionOptions()
    so.graph_optimization_level = ort.GraphOptimizationLevel.ORT_DISABLE_ALL
    so.log_severity_level = 3
    # Constant weights get packed for the runtime's GEMM, which sums in
    # another order. Folding turns weights computed in a branch into
    # constants, and over recurrent steps that rounding would show; both
    # models are compared as written, unpacked.
    so.add_session_config_entry("session.disable_prepacking", "1")
    return ort.InferenceSession(model.SerializeToString(), so, providers=["CPUExecutionProvider"])


def _feeds(sess, fixed, seed):
    rng = np.random.default_rng(seed)
    feeds = {}
    for arg in sess.get_inputs():
        if arg.name in fixed:
            feeds[arg.name] = fixed[arg.name]
        else:
            assert arg.type == "tensor(float)", arg
            feeds[arg.name] = rng.standard_normal(arg.shape).astype(np.float32)
    return feeds


@pytest.fixture(scope="module", params=sorted(MODELS))
def reduced_pair(request):
    original = onnx.load(str(DATA / request.param))
    reduced, report = tolm.reduce(original)
    return request.param, original, reduced, report


def test_reduced_model_is_valid_and_keeps_interface(reduced_pair):
    name, original, reduced, report = reduced_pair
    onnx.checker.check_model(reduced, full_check=True)
    assert [i.name for i in reduced.graph.input] == [i.name for i in original.graph.input]
    assert [o.name for o in reduced.graph.output] == [o.name for o in original.graph.output]
    assert report["nodes_after"] == len(reduced.graph.node)
    assert len(original.graph.node) - len(reduced.graph.node) >= MODELS[name]["min_removed"], report["ops_after"]


def test_reduced_model_computes_the_same(reduced_pair):
    name, original, reduced, _ = reduced_pair
    fixed = MODELS[name]["fixed"]
    want_sess, got_sess = _session(original), _session(reduced)
    for seed in (0, 1, 2):
        feeds = _feeds(want_sess, fixed, seed)
        want = want_sess.run(None, feeds)
        got = got_sess.run(None, feeds)
        for o, a, b in zip(original.graph.output, want, got):
            assert a.shape == b.shape, o.name
            np.testing.assert_allclose(b, a, rtol=1e-4, atol=1e-5, err_msg=f"{name}:{o.name}")


def test_yolo_focus_stem_is_one_conv(reduced_pair):
    name, original, reduced, report = reduced_pair
    if name != "yolo_focus.onnx":
        pytest.skip("no focus stem")
    stem = [n.op_type for n in reduced.graph.node if n.name.startswith("/stem/")]
    assert "Slice" not in stem and stem.count("Conv") == 2, stem  # the fixed-weight one and the stem's own
    assert report["fired"].get("fuse_focus_slice2") == 1


def test_vad_state_carries_over_steps():
    """The recurrent state leaving one step feeds the next: a reduced graph
    that broke stateN would drift from the original within a few frames."""
    original = onnx.load(str(DATA / "silero_vad.onnx"))
    reduced, _ = tolm.reduce(original)
    sessions = [_session(original), _session(reduced)]
    states = [np.zeros((2, 1, 128), np.float32) for _ in sessions]
    rng = np.random.default_rng(7)
    t = np.arange(512, dtype=np.float32) / 16000
    for step in range(6):
        # A tone under noise, so the detector's output actually moves.
        chunk = (0.5 * np.sin(2 * np.pi * 440 * (t + step * 512 / 16000))
                 + 0.05 * rng.standard_normal(512)).astype(np.float32)[None]
        outs = []
        for i, sess in enumerate(sessions):
            prob, states[i] = sess.run(None, {"input": chunk, "state": states[i],
                                              "sr": np.array(16000, np.int64)})
            outs.append(prob)
        np.testing.assert_allclose(outs[1], outs[0], rtol=1e-4, atol=1e-5, err_msg=f"step {step}")
        np.testing.assert_allclose(states[1], states[0], rtol=1e-4, atol=1e-5, err_msg=f"step {step}")
