"""The KV-cache decoder step of the corpus: its cache writes join, the
per-head scaling runs once, the tally update becomes an adding scatter, and
every output (the caches among them) keeps its numbers."""

from pathlib import Path

import onnx

from conftest import op_counts, reduced_ok

MODEL = Path(__file__).resolve().parent / "data" / "kv_decoder.onnx"


def test_cache_writes_merge_and_numbers_stay():
    original = onnx.load(str(MODEL))
    reduced, _ = reduced_ok(original)
    before, after = op_counts(original), op_counts(reduced)
    # Two token writes per cache become one; the tally's read-add-write is one scatter.
    assert before["ScatterND"] == 10 and after["ScatterND"] == 6
    assert before["Gather"] == 4 and "Gather" not in after
    assert after["Mul"] == 2 and after.get("Add") == 2
