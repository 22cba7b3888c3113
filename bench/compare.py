"""Compares tolm-reduce with other ONNX graph simplifiers on the corpus.

    python bench/corpus/build.py        # once: fills bench/corpus/models/
    python bench/compare.py             # writes bench/results/compare.{md,json,png}
    python bench/compare.py --models bert,vit --tools tolm,onnxsim

Each tool runs on each model in its own subprocess, so a crash or an abort in
one tool is reported as that tool failing on that model. The subprocess loads
the model, imports the tool, then times only the tool call (wall clock) and
reports its peak resident set size (``VmHWM`` of the subprocess; this includes the Python
interpreter, the imported tool and the loaded model, so the resident size just
before the call is reported as well).

The parent then counts the nodes of each result and runs the original and
the result in onnxruntime on the same random inputs (``--runs`` sets of them,
fixed seed); outputs are matched by position and must agree within
rtol 1e-3, atol 1e-4.

With ``--cli-check N`` (default 2) the ``tolm-reduce`` command is also run with
``--check N`` on every model and its exit status is recorded.
"""

from __future__ import annotations

import argparse
import json
import os
import resource
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import numpy as np
import onnx

ROOT = Path(__file__).resolve().parent
CORPUS = ROOT / "corpus" / "models"
RESULTS = ROOT / "results"

TOOLS = ["tolm", "onnxsim", "onnxoptimizer", "onnxslim", "ort_basic", "onnxsim+tolm"]
KINDS = {
    "Transpose": ("Transpose",),
    "Reshape": ("Reshape",),
    "Gather": ("Gather",),
    "Slice/Split/Concat": ("Slice", "Split", "Concat"),
}
RTOL, ATOL = 1e-3, 1e-4
PIPE = "\\|"  # a literal bar inside a markdown table cell
TOOL_TIMEOUT = 600


# ---------------------------------------------------------------------------
# worker side: one tool, one model


def _rss_mb() -> float:
    with open("/proc/self/statm") as f:
        return int(f.read().split()[1]) * os.sysconf("SC_PAGE_SIZE") / 2**20


def _peak_rss_mb() -> float:
    # VmHWM belongs to this process's address space, which exec made fresh;
    # ru_maxrss would still carry the parent's peak across fork + exec.
    with open("/proc/self/status") as f:
        for line in f:
            if line.startswith("VmHWM:"):
                return int(line.split()[1]) / 1024.0
    return resource.getrusage(resource.RUSAGE_SELF).ru_maxrss / 1024.0


def _run_tool(tool: str, model: onnx.ModelProto, src: Path, dst: Path):
    """Returns a callable that runs ``tool`` and leaves its result in ``dst``.
    Imports happen here, outside the timed call."""
    if tool == "tolm":
        import tolm

        def go():
            out, report = tolm.reduce(model)
            onnx.save(out, str(dst))
            return {"fold": report["fold"]}
        return go
    if tool == "onnxsim":
        import onnxsim

        def go():
            out, ok = onnxsim.simplify(model)
            if not ok:
                raise RuntimeError("onnxsim's own check failed")
            onnx.save(out, str(dst))
        return go
    if tool == "onnxoptimizer":
        import onnxoptimizer

        def go():
            onnx.save(onnxoptimizer.optimize(model), str(dst))
        return go
    if tool == "onnxslim":
        import onnxslim

        def go():
            onnx.save(onnxslim.slim(model), str(dst))
        return go
    if tool == "ort_basic":
        import onnxruntime as ort

        def go():
            so = ort.SessionOptions()
            so.graph_optimization_level = ort.GraphOptimizationLevel.ORT_ENABLE_BASIC
            so.optimized_model_filepath = str(dst)
            ort.InferenceSession(str(src), so, providers=["CPUExecutionProvider"])
        return go
    if tool == "onnxsim+tolm":
        import onnxsim
        import tolm

        def go():
            sim, ok = onnxsim.simplify(model)
            if not ok:
                raise RuntimeError("onnxsim's own check failed")
            out, _ = tolm.reduce(sim)
            onnx.save(out, str(dst))
        return go
    raise ValueError(f"unknown tool {tool}")


def worker(tool: str, src: Path, dst: Path) -> int:
    model = onnx.load(str(src))
    go = _run_tool(tool, model, src, dst)
    before = _rss_mb()
    t0 = time.perf_counter()
    extra = go() or {}
    dt = time.perf_counter() - t0
    peak = _peak_rss_mb()
    print(json.dumps({"time_s": dt, "peak_rss_mb": peak, "rss_before_mb": before, **extra}))
    return 0


# ---------------------------------------------------------------------------
# parent side


def _first_line(text: str) -> str:
    lines = [ln.strip() for ln in text.strip().splitlines() if ln.strip()]
    # A traceback ends with the exception line; anything else starts with it.
    for ln in reversed(lines):
        if "Error" in ln or "error" in ln or "Exception" in ln:
            return ln[:200]
    return (lines[-1] if lines else "no output")[:200]


def run_tool(tool: str, src: Path, dst: Path) -> dict:
    cmd = [sys.executable, str(Path(__file__).resolve()), "--worker", tool, str(src), str(dst)]
    env = dict(os.environ, OMP_NUM_THREADS="1")
    try:
        p = subprocess.run(cmd, capture_output=True, text=True, timeout=TOOL_TIMEOUT, env=env)
    except subprocess.TimeoutExpired:
        return {"status": "failed", "reason": f"timed out after {TOOL_TIMEOUT} s"}
    if p.returncode != 0:
        why = _first_line(p.stderr or p.stdout) if (p.stderr or p.stdout) else f"exit {p.returncode}"
        if p.returncode < 0:
            why = f"killed by signal {-p.returncode}; {why}"
        return {"status": "failed", "reason": why}
    try:
        info = json.loads(p.stdout.strip().splitlines()[-1])
    except (ValueError, IndexError):
        return {"status": "failed", "reason": "worker printed no result"}
    if not dst.exists():
        return {"status": "failed", "reason": "no model written"}
    info["status"] = "ok"
    return info


def op_counts(model: onnx.ModelProto) -> dict:
    c: dict = {}
    for n in model.graph.node:
        c[n.op_type] = c.get(n.op_type, 0) + 1
    return c


def foldable_left(model: onnx.ModelProto) -> list:
    """Nodes of ``model`` that compute from constants or from static shapes
    only: every input a stored or Constant tensor, or a Shape/Size of a tensor
    whose shape is fully known."""
    from onnx import shape_inference

    inferred = shape_inference.infer_shapes(model)
    static = set()
    for vi in [*inferred.graph.input, *inferred.graph.value_info, *inferred.graph.output]:
        t = vi.type.tensor_type
        if t.HasField("shape") and all(d.HasField("dim_value") for d in t.shape.dim):
            static.add(vi.name)
    consts = {i.name for i in model.graph.initializer}
    consts |= {o for n in model.graph.node if n.op_type == "Constant" for o in n.output}
    left = []
    for n in model.graph.node:
        if n.op_type == "Constant":
            continue
        ins = [i for i in n.input if i]
        if n.op_type in ("Shape", "Size") and ins and ins[0] in static:
            left.append(n.name or n.op_type)
        elif ins and all(i in consts for i in ins) and not any(
                a.type in (onnx.AttributeProto.GRAPH, onnx.AttributeProto.GRAPHS) for a in n.attribute):
            left.append(n.name or n.op_type)
    return left


def kind_counts(model: onnx.ModelProto) -> dict:
    c = op_counts(model)
    out = {"nodes": len(model.graph.node)}
    for kind, ops in KINDS.items():
        out[kind] = sum(c.get(o, 0) for o in ops)
    return out


_NP = {
    "tensor(float)": np.float32, "tensor(double)": np.float64, "tensor(float16)": np.float16,
    "tensor(int64)": np.int64, "tensor(int32)": np.int32, "tensor(int8)": np.int8,
    "tensor(uint8)": np.uint8, "tensor(bool)": np.bool_,
}


def make_feeds(sess, hints: dict, rng: np.random.Generator) -> dict:
    feeds = {}
    for arg in sess.get_inputs():
        dtype = _NP.get(arg.type)
        if dtype is None:
            raise TypeError(f"input {arg.name} has type {arg.type}")
        shape = [d if isinstance(d, int) and d >= 0 else 1 for d in arg.shape]
        hint = hints.get(arg.name, {})
        if "value" in hint:
            feeds[arg.name] = np.full(shape, hint["value"], dtype=dtype)
        elif dtype == np.bool_:
            feeds[arg.name] = rng.random(shape) < 0.5
        elif np.issubdtype(dtype, np.integer):
            lo, hi = hint.get("int_range", [0, 2])
            feeds[arg.name] = rng.integers(lo, hi, size=shape).astype(dtype)
        else:
            feeds[arg.name] = rng.standard_normal(shape).astype(dtype)
    return feeds


def _session(path: Path):
    import onnxruntime as ort

    so = ort.SessionOptions()
    # The comparison must see the graph the tool produced, not what ORT makes of it.
    so.graph_optimization_level = ort.GraphOptimizationLevel.ORT_DISABLE_ALL
    so.intra_op_num_threads = 1
    so.log_severity_level = 3
    return ort.InferenceSession(str(path), so, providers=["CPUExecutionProvider"])


def reference_outputs(src: Path, hints: dict, runs: int):
    sess = _session(src)
    rng = np.random.default_rng(0)
    sets = []
    for _ in range(runs):
        feeds = make_feeds(sess, hints, rng)
        sets.append((feeds, sess.run(None, feeds)))
    return sets


def compare_outputs(path: Path, ref_sets) -> dict:
    try:
        sess = _session(path)
        names = [i.name for i in sess.get_inputs()]
        worst = 0.0
        for feeds, ref in ref_sets:
            missing = [n for n in names if n not in feeds]
            if missing:
                return {"match": False, "why": f"unknown input {missing[0]}"}
            got = sess.run(None, {n: feeds[n] for n in names})
            if len(got) != len(ref):
                return {"match": False, "why": f"{len(got)} outputs, expected {len(ref)}"}
            for a, b in zip(ref, got):
                a, b = np.asarray(a), np.asarray(b)
                if a.shape != b.shape:
                    return {"match": False, "why": f"shape {b.shape}, expected {a.shape}"}
                if a.dtype.kind in "fc":
                    d = float(np.max(np.abs(a.astype(np.float64) - b.astype(np.float64)))) if a.size else 0.0
                    worst = max(worst, d)
                    if not np.allclose(b, a, rtol=RTOL, atol=ATOL, equal_nan=True):
                        return {"match": False, "why": f"max |diff| {d:.3g}", "max_abs_diff": d}
                elif not np.array_equal(a, b):
                    return {"match": False, "why": "integer output differs"}
        return {"match": True, "max_abs_diff": worst}
    except Exception as exc:
        return {"match": False, "why": f"onnxruntime: {_first_line(str(exc)) or type(exc).__name__}"}


def cli_check(src: Path, n: int, tmp: Path) -> dict:
    exe = shutil.which("tolm-reduce")
    cmd = [exe] if exe else [sys.executable, "-m", "tolm"]
    cmd += [str(src), "-o", str(tmp / "cli.onnx"), "--check", str(n)]
    t0 = time.perf_counter()
    try:
        p = subprocess.run(cmd, capture_output=True, text=True, timeout=TOOL_TIMEOUT)
    except subprocess.TimeoutExpired:
        return {"exit": None, "line": f"timed out after {TOOL_TIMEOUT} s"}
    text = (p.stderr + "\n" + p.stdout).strip()
    check_lines = [ln.strip() for ln in text.splitlines() if "check" in ln.lower()]
    line = check_lines[-1] if check_lines else _first_line(text)
    return {"exit": p.returncode, "line": line[:240], "time_s": time.perf_counter() - t0}


def load_manifest(models_dir: Path) -> dict:
    path = models_dir / "manifest.json"
    manifest = json.loads(path.read_text()) if path.exists() else {}
    for f in sorted(models_dir.glob("*.onnx")):
        manifest.setdefault(f.stem, {"file": f.name, "kind": "(not in manifest)"})
    return {k: v for k, v in manifest.items() if (models_dir / v["file"]).exists()}


# ---------------------------------------------------------------------------
# report


def _cell(r: dict, key: str, fmt: str = "{}") -> str:
    return fmt.format(r[key]) if r.get("status") == "ok" and key in r else "-"


def write_markdown(results: dict, manifest: dict, path: Path, runs: int, cli_n: int) -> None:
    import platform

    import onnxruntime as ort

    versions = {"onnx": onnx.__version__, "onnxruntime": ort.__version__}
    for mod in ("tolm", "onnxsim", "onnxoptimizer", "onnxslim"):
        try:
            versions[mod] = __import__(mod).__version__
        except Exception:
            versions[mod] = "not installed"
    lines = [
        "# Graph reducers on the corpus",
        "",
        f"Python {platform.python_version()}; " + ", ".join(f"{k} {v}" for k, v in versions.items()) + ".",
        "",
        "- *nodes*, *Transpose*, *Reshape*, *Gather*, *S/S/C* (Slice + Split + Concat): counts in the result.",
        "- *time*: wall clock of the tool call alone, model already in memory (ort_basic: session creation "
        "with `optimized_model_filepath`).",
        "- *peak MB*: peak resident set (`VmHWM`) of the subprocess that ran the tool (interpreter, imports and model "
        "included); *base MB*: its resident size just before the call.",
        f"- *match*: original and result agree in onnxruntime (all graph optimisations off) on {runs} random "
        f"input set(s), outputs by position, rtol {RTOL:g}, atol {ATOL:g}; the number is the largest |diff|.",
        "",
        "## Node counts",
        "",
        "| model | original | " + " | ".join(TOOLS) + " |",
        "|---|---:|" + "---:|" * len(TOOLS),
    ]
    for name, res in results.items():
        row = [name, str(res["original"]["nodes"])]
        for t in TOOLS:
            r = res["tools"].get(t, {})
            if r.get("status") != "ok":
                row.append("failed")
            else:
                row.append(str(r["nodes"]) + ("" if r["check"]["match"] else " ✗"))
        lines.append("| " + " | ".join(row) + " |")
    lines += ["", "✗: outputs do not match the original.", "", "## Per model", ""]
    for name, res in results.items():
        info = manifest.get(name, {})
        src = f"; from {info['source']}" if info.get("source") else ""
        lines += [f"### {name}", "", f"{info.get('kind', '')}{src}.", "",
                  "| tool | nodes | Transpose | Reshape | Gather | S/S/C | time s | peak MB | base MB | match |",
                  "|---|---:|---:|---:|---:|---:|---:|---:|---:|---|"]
        o = res["original"]
        lines.append(f"| original | {o['nodes']} | {o['Transpose']} | {o['Reshape']} | {o['Gather']} | "
                     f"{o['Slice/Split/Concat']} | | | | |")
        for t in TOOLS:
            r = res["tools"].get(t)
            if r is None:
                continue
            if r["status"] != "ok":
                lines.append(f"| {t} | failed: {r['reason'].replace('|', PIPE)} | | | | | | | | |")
                continue
            c = r["check"]
            match = (f"yes ({c['max_abs_diff']:.2g})" if c["match"]
                     else f"**no**: {c['why'].replace('|', PIPE)}")
            lines.append(
                f"| {t} | {r['nodes']} | {r['Transpose']} | {r['Reshape']} | {r['Gather']} | "
                f"{r['Slice/Split/Concat']} | {r['time_s']:.3f} | {r['peak_rss_mb']:.0f} | "
                f"{r['rss_before_mb']:.0f} | {match} |")
        lines.append("")
    # What folding did in tolm-reduce, and whether anything foldable is left.
    lines += ["## Folding in tolm-reduce", "",
              "*folded*: nodes the fold pass and the standard fusions removed; *kept by size*: foldable nodes the "
              "size limits keep; *foldable left*: nodes of the result that compute from constants or static shapes "
              "only (those kept by size included).", "",
              "| model | folded | ops folded | fusions | kept by size | foldable left |", "|---|---:|---|---|---:|---:|"]
    for name, res in results.items():
        r = res["tools"].get("tolm", {})
        f = r.get("fold")
        if r.get("status") != "ok" or not f:
            continue
        ops = ", ".join(f"{k} {v}" for k, v in f["folded"].items()) or "-"
        fus = ", ".join(f"{k} {v}" for k, v in f["fusions"].items()) or "-"
        lines.append(f"| {name} | {f['removed_nodes']} | {ops} | {fus} | {len(f['kept_by_size'])} | "
                     f"{len(r.get('foldable_left', []))} |")
    lines.append("")
    # Where a peer leaves fewer nodes of a tracked kind than tolm-reduce.
    lines += ["## Where a peer leaves fewer than tolm-reduce", "",
              "| model | kind | tolm | best peer | peer count |", "|---|---|---:|---|---:|"]
    any_gap = False
    for name, res in results.items():
        mine = res["tools"].get("tolm", {})
        if mine.get("status") != "ok":
            continue
        for kind in ["nodes", *KINDS]:
            best = None
            for t in ("onnxsim", "onnxoptimizer", "onnxslim", "ort_basic"):
                r = res["tools"].get(t, {})
                if r.get("status") == "ok" and r["check"]["match"] and r[kind] < mine[kind]:
                    if best is None or r[kind] < best[1]:
                        best = (t, r[kind])
            if best:
                any_gap = True
                lines.append(f"| {name} | {kind} | {mine[kind]} | {best[0]} | {best[1]} |")
    if not any_gap:
        lines.append("| (none) | | | | |")
    if any("cli" in res for res in results.values()):
        lines += ["", f"## `tolm-reduce --check {cli_n}`", "", "| model | exit | result |", "|---|---:|---|"]
        for name, res in results.items():
            c = res.get("cli")
            if c:
                lines.append(f"| {name} | {c['exit']} | {c['line'].replace('|', PIPE)} |")
    path.write_text("\n".join(lines) + "\n")


def write_chart(results: dict, path: Path) -> None:
    import matplotlib

    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    names = list(results)
    series = ["original", *TOOLS]
    width = 0.8 / len(series)
    fig, ax = plt.subplots(figsize=(max(10, 1.1 * len(names) + 3), 5.5))
    x = np.arange(len(names))
    for i, s in enumerate(series):
        vals = []
        for n in names:
            r = results[n]["original"] if s == "original" else results[n]["tools"].get(s, {})
            vals.append(r["nodes"] if (s == "original" or r.get("status") == "ok") else 0)
        ax.bar(x + (i - (len(series) - 1) / 2) * width, vals, width, label=s)
    ax.set_xticks(x)
    ax.set_xticklabels(names, rotation=30, ha="right")
    ax.set_yscale("log")
    ax.set_ylabel("nodes (log scale; missing bar = tool failed)")
    ax.set_title("Nodes left per model and tool")
    ax.legend(ncol=4, fontsize=8)
    ax.grid(axis="y", which="both", alpha=0.3)
    fig.tight_layout()
    fig.savefig(path, dpi=110)
    plt.close(fig)


def main(argv=None) -> int:
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--worker", nargs=3, metavar=("TOOL", "SRC", "DST"), help=argparse.SUPPRESS)
    ap.add_argument("--models-dir", type=Path, default=CORPUS)
    ap.add_argument("--models", default="", help="comma-separated model names (default: all)")
    ap.add_argument("--tools", default=",".join(TOOLS))
    ap.add_argument("--runs", type=int, default=2, help="random input sets for the output check")
    ap.add_argument("--cli-check", type=int, default=2, metavar="N",
                    help="also run `tolm-reduce --check N` per model (0: skip)")
    ap.add_argument("--out", type=Path, default=RESULTS)
    args = ap.parse_args(argv)

    if args.worker:
        tool, src, dst = args.worker
        return worker(tool, Path(src), Path(dst))

    manifest = load_manifest(args.models_dir)
    if not manifest:
        print(f"no models in {args.models_dir}; run bench/corpus/build.py first", file=sys.stderr)
        return 2
    wanted = [m for m in args.models.split(",") if m] or list(manifest)
    tools = [t for t in args.tools.split(",") if t]
    bad = [t for t in tools if t not in TOOLS] + [m for m in wanted if m not in manifest]
    if bad:
        ap.error(f"unknown tool or model: {', '.join(bad)}")

    args.out.mkdir(parents=True, exist_ok=True)
    results: dict = {}
    with tempfile.TemporaryDirectory(prefix="tolm-compare-") as tmpdir:
        tmp = Path(tmpdir)
        for name in wanted:
            info = manifest[name]
            src = args.models_dir / info["file"]
            original = onnx.load(str(src))
            res = {"original": kind_counts(original), "tools": {}}
            refs = reference_outputs(src, info.get("feeds", {}), args.runs)
            for tool in tools:
                dst = tmp / f"{name}.{tool.replace('+', '_')}.onnx"
                r = run_tool(tool, src, dst)
                if r["status"] == "ok":
                    try:
                        result = onnx.load(str(dst))
                        r.update(kind_counts(result))
                        if tool == "tolm":
                            r["foldable_left"] = foldable_left(result)
                        r["check"] = compare_outputs(dst, refs)
                    except Exception as exc:
                        r = {"status": "failed", "reason": f"result unreadable: {_first_line(str(exc))}"}
                res["tools"][tool] = r
                status = (f"{r['nodes']:5d} nodes {r['time_s']:7.3f} s "
                          f"{'match' if r['check']['match'] else 'MISMATCH ' + r['check']['why']}"
                          if r["status"] == "ok" else "FAILED " + r["reason"])
                print(f"{name:16s} {tool:14s} {status}", flush=True)
            if args.cli_check > 0:
                res["cli"] = cli_check(src, args.cli_check, tmp)
                print(f"{name:16s} tolm-reduce --check {args.cli_check}: exit {res['cli']['exit']} "
                      f"{res['cli']['line']}", flush=True)
            results[name] = res

    (args.out / "compare.json").write_text(json.dumps(results, indent=1) + "\n")
    write_markdown(results, manifest, args.out / "compare.md", args.runs, args.cli_check)
    write_chart(results, args.out / "compare.png")
    print(f"wrote {args.out / 'compare.md'} and {args.out / 'compare.png'}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
