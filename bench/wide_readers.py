"""Reduce time on one tensor with thousands of readers, the shape of an
embedding table that every layer reads.

    python bench/wide_readers.py [--readers 1000,4000,16000] [--dup 0.1]

Each model has one table [V, D] read by N Gather nodes with their own index
constants and by N Mul nodes with their own scale constants; a fraction `dup`
of each repeats an earlier reader under other constant names, so the
duplicate-sibling rule has work to do. Prints reduce time, time per reader and
how it grows with N (linear growth keeps the per-reader time flat), and how
many duplicates were removed."""
import argparse
import time

import numpy as np
import onnx
from onnx import TensorProto, helper, numpy_helper

from tolm.api.ir_graph import IRGraph
from tolm.api.rules import reduce

V, D = 64, 8


def make_model(n: int, dup: float) -> onnx.ModelProto:
    rng = np.random.default_rng(0)
    nodes = [helper.make_node("Relu", ["x"], ["table"], name="table")]
    inits, outputs = [], []
    idx_values = [rng.integers(0, V, 4) for _ in range(n)]
    scale_values = [rng.standard_normal(D).astype(np.float32) for _ in range(n)]
    for k in range(n):
        # A duplicate repeats an earlier reader's values under its own name.
        src = int(rng.integers(0, k)) if k and rng.random() < dup else k
        inits.append(numpy_helper.from_array(idx_values[src].astype(np.int64), f"i{k}"))
        inits.append(numpy_helper.from_array(scale_values[src], f"s{k}"))
        nodes.append(helper.make_node("Gather", ["table", f"i{k}"], [f"g{k}"], name=f"g{k}", axis=0))
        nodes.append(helper.make_node("Mul", ["table", f"s{k}"], [f"m{k}"], name=f"m{k}"))
        nodes.append(helper.make_node("ReduceSum", [f"g{k}"], [f"rg{k}"], name=f"rg{k}", keepdims=0))
        nodes.append(helper.make_node("ReduceMax", [f"m{k}"], [f"rm{k}"], name=f"rm{k}", keepdims=0))
        outputs += [f"rg{k}", f"rm{k}"]
    graph = helper.make_graph(
        nodes, "wide",
        [helper.make_tensor_value_info("x", TensorProto.FLOAT, [V, D])],
        [helper.make_tensor_value_info(o, TensorProto.FLOAT, []) for o in outputs],
        initializer=inits)
    model = helper.make_model(graph, opset_imports=[helper.make_opsetid("", 13)])
    model.ir_version = 8
    return model


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--readers", default="1000,4000,16000")
    ap.add_argument("--dup", type=float, default=0.1)
    args = ap.parse_args()
    base = None
    print(f"{'readers':>8} {'nodes in':>9} {'nodes out':>10} {'reduce s':>9} {'us/reader':>10} {'growth':>7} "
          f"{'duplicates gone':>16}")
    for n in [int(s) for s in args.readers.split(",")]:
        data = make_model(n, args.dup).SerializeToString()
        ir = IRGraph(data)
        nodes_in = ir.node_count()
        t0 = time.perf_counter()
        stats = reduce.run_reduce(ir)
        red = time.perf_counter() - t0
        per = red / (2 * n) * 1e6
        base = base or per
        gone = stats["fired"].get("remove_parallel_gather", 0) + stats["fired"].get("remove_parallel_mul", 0)
        print(f"{2 * n:>8} {nodes_in:>9} {ir.node_count():>10} {red:>9.3f} {per:>10.2f} {per / base:>7.2f} {gone:>16}")


if __name__ == "__main__":
    main()
