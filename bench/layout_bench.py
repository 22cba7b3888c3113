"""Transpose reduction on models laid out the way exporters write them, side
by side with onnxruntime's own graph optimisation.

    python bench/layout_bench.py [--cnn-blocks 10,1000] [--rank1-cnn-blocks 10,100,1000]
                                 [--encoder-layers 12] [--branch-blocks 10,200]

For each model it prints the Transpose and Reshape counts and the total node count before
and after tolm-reduce and after onnxruntime's optimisation at the basic and
extended levels (saved with SessionOptions.optimized_model_filepath), the time
each takes from model bytes to saved model, that time over onnxruntime's
basic level, and whether the optimised model still gives the original's
outputs (random inputs, rtol 1e-4, atol 1e-5).

The CNN comes twice: with per-channel constants of shape [1, 1, 1, C], and of
shape [C] as TensorFlow converters write them. The multi-branch model splits
each block into branches with their own Transpose and Reshape nodes around
element-wise ops and joins them with a Concat. For each series it then
prints each tool's time per block at the smallest and the largest size and how
much it grew: 1.0 is linear time."""
import argparse
import os
import sys
import tempfile
import time

import numpy as np
import onnx
import onnxruntime as ort

import tolm
from tolm.layout_models import channels_last_cnn, multi_branch_blocks, transformer_encoder

LEVELS = {
    "ort basic": ort.GraphOptimizationLevel.ORT_ENABLE_BASIC,
    "ort extended": ort.GraphOptimizationLevel.ORT_ENABLE_EXTENDED,
}


def counts(model):
    nodes = model.graph.node
    return (sum(n.op_type == "Transpose" for n in nodes), sum(n.op_type == "Reshape" for n in nodes), len(nodes))


def run(model_bytes, feeds):
    opts = ort.SessionOptions()
    opts.graph_optimization_level = ort.GraphOptimizationLevel.ORT_DISABLE_ALL
    sess = ort.InferenceSession(model_bytes, opts, providers=["CPUExecutionProvider"])
    return sess.run(None, feeds)


def same(a, b):
    return all(np.allclose(x, y, rtol=1e-4, atol=1e-5) for x, y in zip(a, b))


def check(model_bytes, feeds, ref):
    """'yes', 'NO', or why the model does not run."""
    try:
        return "yes" if same(ref, run(model_bytes, feeds)) else "NO"
    except Exception as e:  # a tool may write a model onnxruntime cannot load
        return "does not run: " + str(e).splitlines()[0][-70:]


def ort_optimise(data: bytes, level, workdir: str):
    path = os.path.join(workdir, "ort_opt.onnx")
    opts = ort.SessionOptions()
    opts.graph_optimization_level = level
    opts.optimized_model_filepath = path
    t0 = time.perf_counter()
    ort.InferenceSession(data, opts, providers=["CPUExecutionProvider"])
    dt = time.perf_counter() - t0
    return onnx.load(path), dt


def bench(name, model, rows):
    data = model.SerializeToString()
    rng = np.random.default_rng(0)
    feeds = {i.name: rng.standard_normal([d.dim_value for d in i.type.tensor_type.shape.dim]).astype(np.float32)
             for i in model.graph.input}
    ref = run(data, feeds)
    rows.append((name, "original", *counts(model), None, "yes"))
    t0 = time.perf_counter()
    reduced, _ = tolm.reduce(data)
    out = reduced.SerializeToString()
    dt = time.perf_counter() - t0
    rows.append((name, "tolm-reduce", *counts(reduced), dt, check(out, feeds, ref)))
    with tempfile.TemporaryDirectory() as d:
        for label, level in LEVELS.items():
            opt, dt = ort_optimise(data, level, d)
            rows.append((name, label, *counts(opt), dt, check(opt.SerializeToString(), feeds, ref)))


def growth(rows, series):
    """Per tool: time per block at the smallest and largest size of a series
    of (blocks, model name) pairs, and their ratio."""
    (b0, first), (b1, last) = series[0], series[-1]
    times = {(name, tool): dt for name, tool, _, _, _, dt, _ in rows}
    out = []
    for tool in ["tolm-reduce", *LEVELS]:
        t0, t1 = times[(first, tool)] / b0, times[(last, tool)] / b1
        out.append((tool, b0, t0, b1, t1, t1 / t0))
    return out


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--cnn-blocks", default="10,1000")
    ap.add_argument("--rank1-cnn-blocks", default="10,100,1000",
                    help="channels-last CNN whose per-channel constants have shape [C]")
    ap.add_argument("--encoder-layers", default="12")
    ap.add_argument("--branch-blocks", default="10,200",
                    help="multi-branch blocks: Split, per-branch Transpose/Reshape, Concat")
    args = ap.parse_args()
    # First calls pay for imports and one-time set-up; neither tool is
    # charged for them.
    with tempfile.TemporaryDirectory() as d:
        warm = channels_last_cnn(1).SerializeToString()
        tolm.reduce(warm)
        ort_optimise(warm, LEVELS["ort basic"], d)
    rows = []
    series = {}
    for label, flag, rank in [("CNN", args.cnn_blocks, 4), ("CNN, [C] constants", args.rank1_cnn_blocks, 1)]:
        for b in sorted(int(s) for s in flag.split(",") if s):
            name = f"{label}, {b} blocks"
            bench(name, channels_last_cnn(b, channel_const_rank=rank), rows)
            series.setdefault(label, []).append((b, name))
    for layers in [int(s) for s in args.encoder_layers.split(",") if s]:
        bench(f"transformer encoder, {layers} layers", transformer_encoder(layers), rows)
    for b in sorted(int(s) for s in args.branch_blocks.split(",") if s):
        name = f"multi-branch, {b} blocks"
        bench(name, multi_branch_blocks(b), rows)
        series.setdefault("multi-branch", []).append((b, name))

    basic = {name: dt for name, tool, _, _, _, dt, _ in rows if tool == "ort basic"}
    print(f"{'model':<34} {'tool':<13} {'Transpose':>9} {'Reshape':>8} {'nodes':>7} {'time s':>8} {'/ort basic':>10}"
          "  same numbers")
    for name, tool, tp, rs, n, dt, ok in rows:
        t = f"{dt:>8.3f}" if dt is not None else f"{'':>8}"
        r = f"{dt / basic[name]:>10.2f}" if dt is not None else f"{'':>10}"
        print(f"{name:<34} {tool:<13} {tp:>9} {rs:>8} {n:>7} {t} {r}  {ok}")
    for label, points in series.items():
        if len(points) < 2:
            continue
        print()
        print(f"{label}: time per block (ms)")
        for tool, b0, t0, b1, t1, ratio in growth(rows, points):
            print(f"  {tool:<13} {b0:>5} blocks {t0 * 1e3:>8.3f}   {b1:>5} blocks {t1 * 1e3:>8.3f}   growth x{ratio:.2f}")
    return 0 if all(r[6] == "yes" for r in rows if r[1] == "tolm-reduce") else 1


if __name__ == "__main__":
    sys.exit(main())
