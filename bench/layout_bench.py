"""Transpose reduction on models laid out the way exporters write them, side
by side with onnxruntime's own graph optimisation.

    python bench/layout_bench.py [--cnn-blocks 10,1000] [--encoder-layers 12]

For each model it prints the Transpose count and the total node count before
and after tolm-reduce and after onnxruntime's optimisation at the basic and
extended levels (saved with SessionOptions.optimized_model_filepath), the time
each takes from model bytes to saved model, and whether the optimised model
still gives the original's outputs (random inputs, rtol 1e-4, atol 1e-5)."""
import argparse
import os
import sys
import tempfile
import time

import numpy as np
import onnx
import onnxruntime as ort

import tolm
from tolm.layout_models import channels_last_cnn, transformer_encoder

LEVELS = {
    "ort basic": ort.GraphOptimizationLevel.ORT_ENABLE_BASIC,
    "ort extended": ort.GraphOptimizationLevel.ORT_ENABLE_EXTENDED,
}


def counts(model):
    nodes = model.graph.node
    return sum(n.op_type == "Transpose" for n in nodes), len(nodes)


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
    tp0, n0 = counts(model)
    rows.append((name, "original", tp0, n0, 0.0, "yes"))
    t0 = time.perf_counter()
    reduced, _ = tolm.reduce(data)
    out = reduced.SerializeToString()
    dt = time.perf_counter() - t0
    tp, n = counts(reduced)
    rows.append((name, "tolm-reduce", tp, n, dt, check(out, feeds, ref)))
    with tempfile.TemporaryDirectory() as d:
        for label, level in LEVELS.items():
            opt, dt = ort_optimise(data, level, d)
            tp, n = counts(opt)
            rows.append((name, label, tp, n, dt, check(opt.SerializeToString(), feeds, ref)))


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--cnn-blocks", default="10,1000")
    ap.add_argument("--encoder-layers", default="12")
    args = ap.parse_args()
    rows = []
    for b in [int(s) for s in args.cnn_blocks.split(",") if s]:
        bench(f"channels-last CNN, {b} blocks", channels_last_cnn(b), rows)
    for layers in [int(s) for s in args.encoder_layers.split(",") if s]:
        bench(f"transformer encoder, {layers} layers", transformer_encoder(layers), rows)
    print(f"{'model':<34} {'tool':<13} {'Transpose':>9} {'nodes':>7} {'time s':>8} {'same numbers':>14}")
    for name, tool, tp, n, dt, ok in rows:
        print(f"{name:<34} {tool:<13} {tp:>9} {n:>7} {dt:>8.3f}  {ok}")
    return 0 if all(r[5] == "yes" for r in rows if r[1] == "tolm-reduce") else 1


if __name__ == "__main__":
    sys.exit(main())
