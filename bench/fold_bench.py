"""Time of the fold pass against the time to load the same model.

    python bench/fold_bench.py [--sizes 100000,1000000] [--reduce] [--check]

Each model is a chain of blocks of ten nodes with one foldable node per block
(a Shape of a static tensor, or a Mul of two constants): 1M nodes hold 100k
foldable ones. Prints, per size, the load time (bytes to indexed graph, with
shape inference), the fold pass alone (reduce.fold_constants), nodes folded,
the ratio fold / load and the fold time per node. --reduce also times the
whole reduce (tables included) on a fresh load; --check compares the folded
model with the original in onnxruntime."""
import argparse
import os
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

from synthetic import FOLD_BLOCK, make_fold_chain_model  # noqa: E402
from tolm.api.ir_graph import IRGraph  # noqa: E402
from tolm.api.rules import reduce  # noqa: E402


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--sizes", default="100000,1000000")
    ap.add_argument("--reduce", action="store_true", help="also time the whole reduce")
    ap.add_argument("--check", action="store_true", help="compare outputs in onnxruntime")
    args = ap.parse_args()
    cache = os.path.join(os.path.dirname(os.path.abspath(__file__)), "out")
    os.makedirs(cache, exist_ok=True)
    print(f"{'nodes':>9} {'foldable':>9} {'load s':>8} {'fold s':>8} {'folded':>8} {'fold/load':>10} "
          f"{'fold us/node':>13}" + (f" {'reduce s':>9}" if args.reduce else ""))
    for n in [int(s) for s in args.sizes.split(",")]:
        path = os.path.join(cache, f"fold_chain_{n}.onnx")
        if not os.path.exists(path):
            with open(path, "wb") as f:
                f.write(make_fold_chain_model(n).SerializeToString())
        with open(path, "rb") as f:
            data = f.read()
        t0 = time.perf_counter()
        ir = IRGraph(data)
        t1 = time.perf_counter()
        stats = reduce.fold_constants(ir)
        t2 = time.perf_counter()
        nodes = n // FOLD_BLOCK * FOLD_BLOCK
        folded = sum(stats["folded"].values())
        load, fold = t1 - t0, t2 - t1
        line = (f"{nodes:>9} {nodes // FOLD_BLOCK:>9} {load:>8.3f} {fold:>8.3f} {folded:>8} {fold / load:>10.2f} "
                f"{fold / nodes * 1e6:>13.3f}")
        if args.reduce:
            ir2 = IRGraph(data)
            t3 = time.perf_counter()
            reduce.run_reduce(ir2)
            line += f" {time.perf_counter() - t3:>9.3f}"
        print(line, flush=True)
        if args.check:
            import numpy as np
            import onnxruntime as ort

            reduce.prune_dead(ir)
            x = np.random.default_rng(1).standard_normal((1, 4, 8, 8)).astype(np.float32)
            a = ort.InferenceSession(data, providers=["CPUExecutionProvider"]).run(None, {"x": x})[0]
            b = ort.InferenceSession(ir.to_bytes(), providers=["CPUExecutionProvider"]).run(None, {"x": x})[0]
            print(f"  max abs diff {float(np.abs(a - b).max()):.3g}")


if __name__ == "__main__":
    main()
