"""Load, reduce and save times of synthetic chain models of growing size,
beside what protobuf alone takes to parse and serialise the same model.

    python bench/run_reduce.py [--sizes 10000,100000,1000000] [--check] [--cli]

Per size it prints:
- protobuf parse + serialise of the file (onnx.ModelProto in Python, the
  floor any reducer pays to read and write a model), load (bytes to indexed
  graph), reduce (the tables to a fixed point) and save (graph to bytes),
  and the ratio (load + save) / (parse + serialise);
- the whole call per node (load + reduce + save), and how it grows from the
  smallest size;
- with --cli, the `tolm-reduce` command from file to file, and its ratio to
  parse + serialise.

Each phase is timed twice: CPU seconds of this process (`cpu`), which move
little when other work shares the machine, and wall seconds. Sizes up to
100k nodes report the best of five runs."""
import argparse
import os
import subprocess
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import onnx  # noqa: E402

from synthetic import make_chain_model  # noqa: E402
from tolm.api.ir_graph import IRGraph  # noqa: E402
from tolm.api.rules import reduce  # noqa: E402


class Clock:
    """Wall and CPU time of one phase."""

    def __init__(self):
        self.wall = time.perf_counter()
        self.cpu = time.process_time()

    def lap(self):
        now_w, now_c = time.perf_counter(), time.process_time()
        out = (now_w - self.wall, now_c - self.cpu)
        self.wall, self.cpu = now_w, now_c
        return out


def measure_once(data: bytes):
    c = Clock()
    m = onnx.ModelProto()
    m.ParseFromString(data)
    parse = c.lap()
    m.SerializeToString()
    serialise = c.lap()
    del m
    c.lap()
    ir = IRGraph(data)
    load = c.lap()
    stats = reduce.run_reduce(ir)
    red = c.lap()
    out = ir.to_bytes()
    save = c.lap()
    return ir, stats, out, {"parse": parse, "serialise": serialise, "load": load, "reduce": red, "save": save}


def measure(data: bytes, repeats: int):
    """Best of `repeats` runs for each phase and clock."""
    best = None
    for _ in range(repeats):
        ir, stats, out, times = measure_once(data)
        if best is None:
            best = times
        else:
            best = {k: (min(best[k][0], v[0]), min(best[k][1], v[1])) for k, v in times.items()}
    return ir, stats, out, best


def cli_time(path: str):
    """Wall and CPU (user + system) seconds of the command, file to file."""
    out = path + ".reduced.onnx"
    t0 = time.perf_counter()
    before = os.times()
    subprocess.run([sys.executable, "-m", "tolm.cli", path, "-o", out], check=True, capture_output=True)
    after = os.times()
    wall = time.perf_counter() - t0
    cpu = (after.children_user - before.children_user) + (after.children_system - before.children_system)
    os.remove(out)
    return wall, cpu


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--sizes", default="10000,100000,1000000")
    ap.add_argument("--check", action="store_true", help="also compare outputs in onnxruntime")
    ap.add_argument("--cli", action="store_true", help="also time the tolm-reduce command, file to file")
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
        ir, stats, out, times = measure(data, repeats)
        nodes_in = n // 11 * 11
        cli = cli_time(path) if args.cli else None
        rows.append((nodes_in, ir.node_count(), times, stats, cli))
        if args.check:
            import numpy as np
            import onnxruntime as ort

            x = np.random.default_rng(1).standard_normal((1, 4, 8, 8)).astype(np.float32)
            a = ort.InferenceSession(data, providers=["CPUExecutionProvider"]).run(None, {"x": x})[0]
            b = ort.InferenceSession(out, providers=["CPUExecutionProvider"]).run(None, {"x": x})[0]
            print(f"  {nodes_in} nodes: max abs diff {float(np.abs(a - b).max()):.3g}")
        del ir

    for clock, k in (("cpu", 1), ("wall", 0)):
        print(f"\n{clock} seconds")
        head = (f"{'nodes in':>10} {'nodes out':>10} {'parse+ser':>10} {'load':>7} {'reduce':>7} {'save':>7} "
                f"{'(load+save)/pb':>15} {'us/node':>8} {'growth':>7}")
        if args.cli:
            head += f" {'cli':>7} {'cli/pb':>7}"
        print(head)
        base = None
        for nodes_in, nodes_out, t, stats, cli in rows:
            pb = t["parse"][k] + t["serialise"][k]
            whole = t["load"][k] + t["reduce"][k] + t["save"][k]
            per = whole / nodes_in * 1e6
            base = base or per
            line = (f"{nodes_in:>10} {nodes_out:>10} {pb:>10.3f} {t['load'][k]:>7.3f} {t['reduce'][k]:>7.3f} "
                    f"{t['save'][k]:>7.3f} {(t['load'][k] + t['save'][k]) / pb:>15.2f} {per:>8.2f} "
                    f"{per / base:>7.2f}")
            if cli:
                cval = cli[1] if clock == "cpu" else cli[0]
                line += f" {cval:>7.3f} {cval / pb:>7.2f}"
            print(line)
    print(f"\nrewrites at the largest size: {rows[-1][3]['rewrites']}")


if __name__ == "__main__":
    main()
