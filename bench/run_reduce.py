"""Load, reduce and save times of synthetic chain models of growing size.

    python bench/run_reduce.py [--sizes 10000,100000,1000000] [--check]

Prints, per size, the time to load (bytes to indexed graph), reduce (the tables
to a fixed point, with dead-branch pruning) and save (graph to bytes), the ratio
reduce / (load + save), and the reduce time per node relative to the smallest
size. Sizes up to 100k nodes report the best of five runs."""
import argparse
import os
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

from synthetic import make_chain_model  # noqa: E402
from tolm.api.ir_graph import IRGraph  # noqa: E402
from tolm.api.rules import reduce  # noqa: E402


def measure_once(data: bytes):
    t0 = time.perf_counter()
    ir = IRGraph(data)
    t1 = time.perf_counter()
    stats = reduce.run_reduce(ir)
    t2 = time.perf_counter()
    out = ir.to_bytes()
    t3 = time.perf_counter()
    return ir, stats, out, (t1 - t0, t2 - t1, t3 - t2)


def measure(data: bytes, repeats: int):
    """Best of `repeats` runs for each phase: the machine is shared and the
    small sizes finish in milliseconds."""
    best = None
    for _ in range(repeats):
        ir, stats, out, times = measure_once(data)
        best = times if best is None else tuple(min(a, b) for a, b in zip(best, times))
    return ir, stats, out, best


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--sizes", default="10000,100000,1000000")
    ap.add_argument("--check", action="store_true", help="also compare outputs in onnxruntime")
    args = ap.parse_args()
    sizes = [int(s) for s in args.sizes.split(",")]
    cache = os.path.join(os.path.dirname(os.path.abspath(__file__)), "out")
    os.makedirs(cache, exist_ok=True)
    rows = []
    for n in sizes:
        path = os.path.join(cache, f"chain_{n}.onnx")
        if not os.path.exists(path):
            model = make_chain_model(n)
            with open(path, "wb") as f:
                f.write(model.SerializeToString())
        with open(path, "rb") as f:
            data = f.read()
        repeats = 5 if n <= 100000 else 1
        ir, stats, out, (load, red, save) = measure(data, repeats)
        nodes_in = n // 11 * 11
        rows.append((nodes_in, ir.node_count(), load, red, save, stats))
        if args.check:
            import numpy as np
            import onnxruntime as ort
            x = np.random.default_rng(1).standard_normal((1, 4, 8, 8)).astype(np.float32)
            a = ort.InferenceSession(data, providers=["CPUExecutionProvider"]).run(None, {"x": x})[0]
            b = ort.InferenceSession(out, providers=["CPUExecutionProvider"]).run(None, {"x": x})[0]
            print(f"  {nodes_in} nodes: max abs diff {float(np.abs(a - b).max()):.3g}")
    base = None
    print(f"{'nodes in':>10} {'nodes out':>10} {'load s':>8} {'reduce s':>9} {'save s':>8} "
          f"{'reduce/(load+save)':>19} {'reduce us/node':>15} {'growth':>7} {'rewrites':>9}")
    for nodes_in, nodes_out, load, red, save, stats in rows:
        per = red / nodes_in * 1e6
        base = base or per
        print(f"{nodes_in:>10} {nodes_out:>10} {load:>8.3f} {red:>9.3f} {save:>8.3f} "
              f"{red / (load + save):>19.2f} {per:>15.3f} {per / base:>7.2f} {stats['rewrites']:>9}")


if __name__ == "__main__":
    main()
