"""Rule procedures as Python calls them: rows this build lacks, quant_tab
write-back, and the log."""

import numpy as np
import pytest

from conftest import make_model, proc_or_skip
from tolm.api.ir_graph import IRGraph
from tolm.api.rules import reduce


class TestProcs:
    def test_unavailable_rows_raise_and_are_listed(self):
        missing = set(reduce.unavailable_rules())
        for key, row in list(reduce.fuse_reduce.items()) + list(reduce.cvt_reduce.items()):
            if key in missing:
                with pytest.raises(RuntimeError, match=f"^rule {key} is not available in this build$"):
                    row["proc"](IRGraph(), [])
        available = {n for n, ok in reduce.rule_procs().items() if ok}
        assert all(hasattr(reduce, n) and callable(getattr(reduce, n)) for n in available)


class TestQuantTab:
    def test_untouched_table_stays_as_given_and_bad_table_raises(self):
        proc = proc_or_skip("_p_remove_invalid_node")
        ir = IRGraph(make_model([("Relu", ["x"], ["y"])], inputs={"x": [2]}, outputs={"y": None}))
        rec = {"min": np.float32(-1), "max": [1.0, 2.0], "name": "x"}
        tab = {"x": rec}
        proc(ir, list(ir.node), tab)
        assert tab == {"x": rec} and tab["x"] is rec and tab["x"]["max"] == [1.0, 2.0]
        for bad in ({"x": 3}, ["x"]):
            with pytest.raises(TypeError):
                proc(ir, list(ir.node), bad)


def test_log_reaches_history_and_python_sink():
    reduce.clear_log_history()
    seen = []
    reduce.set_log_sink(lambda level, msg: seen.append((level, msg)))
    try:
        reduce.log_e("first")
        reduce.log_w("second")
    finally:
        reduce.set_log_sink(None)
    assert reduce.log_history() == ["first", "second"]
    assert seen == [("e", "first"), ("w", "second")]
