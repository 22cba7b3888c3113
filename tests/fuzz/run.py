"""Random-graph differential fuzzing of tolm.reduce.

    python tests/fuzz/run.py --seed 1 --count 3000 --out /tmp/fuzz_out

checks the cases with seeds 1..3000, prints the failing cases per class, the
generations thrown away as invalid and the speed, and writes shrunk
reproducers ``<class>_seed<seed>.onnx`` (with a ``.txt`` beside each) to --out.
``--seed S --count 1`` reruns one case.
"""

from __future__ import annotations

import argparse
import os
import re
import sys
import time
from collections import Counter, defaultdict
from typing import Dict, List

HERE = os.path.dirname(os.path.abspath(__file__))
if HERE not in sys.path:
    sys.path.insert(0, HERE)

import pool  # noqa: E402

CLASS_ORDER = [
    "crash",
    "hang",
    "exception",
    "input_mutated",
    "checker",
    "io",
    "ort_error",
    "mismatch",
    "idempotence",
    "determinism",
    "names_matter",
]


def by_class(results: List[pool.Result]) -> Dict[str, List[pool.Result]]:
    out: Dict[str, List[pool.Result]] = defaultdict(list)
    for r in results:
        for cls in dict.fromkeys(c for c, _ in r.failures):
            out[cls].append(r)
    return dict(sorted(out.items(), key=lambda kv: (CLASS_ORDER.index(kv[0]) if kv[0] in CLASS_ORDER else 99, kv[0])))


def summary(results: List[pool.Result], elapsed: float, jobs: int, seeds_shown: int = 8, package_changed: bool = False) -> str:
    lines = []
    if package_changed:
        lines.append("WARNING: the installed tolm package changed during the run; crashes and differences may come from that")
    n = len(results)
    rate = n / elapsed if elapsed > 0 else 0.0
    lines.append(f"cases: {n} in {elapsed:.1f} s, {rate:.1f} cases/s with {jobs} worker(s)")
    discards = sum(r.discards for r in results)
    reasons = Counter(reason.split(":")[0] for r in results for reason in r.reasons)
    lines.append(f"discarded generations (invalid, regenerated): {discards}" + (f"  {dict(reasons.most_common(4))}" if reasons else ""))
    gen_problems = [r for r in results if r.gen_problem]
    if gen_problems:
        lines.append(f"fuzzer failures (case not checked): {len(gen_problems)}, seeds {[r.seed for r in gen_problems[:seeds_shown]]}")
        lines.append(f"{'':<20}e.g. {gen_problems[0].gen_problem[:160]}")
    groups = by_class(results)
    failing = sum(1 for r in results if r.failures)
    lines.append(f"failing cases: {failing}")
    for cls, rs in groups.items():
        seeds = [r.seed for r in rs[:seeds_shown]]
        first = next(d for c, d in rs[0].failures if c == cls)
        lines.append(f"  {cls:<14}{len(rs):>6}   seeds {seeds}{' ...' if len(rs) > seeds_shown else ''}")
        lines.append(f"  {'':<20}e.g. {first[:160]}")
    return "\n".join(lines)


def abbreviate(text: str, keep: int = 8) -> str:
    """Long constant value lists in ONNX text cut to their first values."""

    def cut(m: "re.Match") -> str:
        values = m.group(1).split(",")
        if len(values) <= 2 * keep:
            return m.group(0)
        return "{" + ",".join(values[:keep]) + f", ... {len(values)} values}}"

    return re.sub(r"\{([^{}=]*)\}", cut, text)


def write_reproducer(out_dir: str, seed: int, cls: str, original, shrunk, evals: int, detail: str, reproduced: bool = True) -> str:
    import onnx
    import onnx.printer

    os.makedirs(out_dir, exist_ok=True)
    stem = os.path.join(out_dir, f"{cls}_seed{seed}")
    onnx.save(shrunk, stem + ".onnx")
    with open(stem + ".txt", "w") as f:
        f.write(f"class: {cls}\nseed: {seed}\ndetail (original case): {detail}\n")
        if not reproduced:
            f.write("NOT REPRODUCED: the case passed when run again in a fresh worker (flaky, or it depends on earlier cases)\n")
        f.write(f"nodes: {len(original.graph.node)} -> {len(shrunk.graph.node)} after {evals} candidates\n\n")
        f.write(abbreviate(onnx.printer.to_text(shrunk.graph)))
        f.write("\n")
    return stem + ".onnx"


def main(argv=None) -> int:
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--seed", type=int, default=0, help="first case seed")
    ap.add_argument("--count", type=int, default=1000, help="number of cases (seeds seed..seed+count-1)")
    ap.add_argument("--jobs", type=int, default=1, help="worker processes")
    ap.add_argument("--out", default=None, help="folder for shrunk reproducers (none written without it)")
    ap.add_argument("--time-limit", type=float, default=None, help="stop starting new cases after this many seconds")
    ap.add_argument("--case-timeout", type=float, default=20.0, help="seconds before a case counts as a hang")
    ap.add_argument("--shrink-per-class", type=int, default=3, help="failures shrunk per class (with --out)")
    ap.add_argument("--shrink-budget", type=float, default=60.0, help="seconds of shrinking per failure")
    ap.add_argument("--no-names", action="store_true", help="skip the names_matter check")
    ap.add_argument("--reducer", default=None, help="module:function to fuzz instead of tolm.reduce (ModelProto -> ModelProto)")
    ap.add_argument("--quiet", action="store_true")
    args = ap.parse_args(argv)

    seeds = range(args.seed, args.seed + args.count)
    done = [0]
    t0 = time.monotonic()
    stamp = pool.package_stamp()

    def progress(res: pool.Result) -> None:
        done[0] += 1
        if not args.quiet and done[0] % 500 == 0:
            el = time.monotonic() - t0
            print(f"  {done[0]} cases, {done[0] / el:.1f}/s", file=sys.stderr, flush=True)

    results = pool.run_seeds(seeds, jobs=args.jobs, case_timeout=args.case_timeout, time_limit=args.time_limit, names=not args.no_names, on_result=progress, reducer=args.reducer)
    elapsed = time.monotonic() - t0
    print(summary(results, elapsed, args.jobs, package_changed=pool.package_stamp() != stamp))

    groups = by_class(results)
    if args.out and groups:
        shrink_and_write(groups, args)
    return 1 if groups or any(r.gen_problem for r in results) else 0


def detail_key(detail: str) -> str:
    """A failure's detail with tensor names and numbers blanked, so that
    failures of one kind compare equal."""
    return re.sub(r"\d+", "#", re.sub(r"\b[a-z_]+\d+\b", "T", detail))


def diverse(rs: List[pool.Result], cls: str, n: int) -> List[pool.Result]:
    """Up to ``n`` results, taking one of each kind of detail in turn."""
    kinds: Dict[str, List[pool.Result]] = defaultdict(list)
    for r in rs:
        kinds[detail_key(next(d for c, d in r.failures if c == cls))].append(r)
    out: List[pool.Result] = []
    queues = list(kinds.values())
    while len(out) < n and any(queues):
        for q in queues:
            if q and len(out) < n:
                out.append(q.pop(0))
    return out


def shrink_and_write(groups: Dict[str, List[pool.Result]], args) -> None:
    """Shrinks several failures of each class and writes --shrink-per-class
    of them per class, preferring shrunk graphs made of different operators."""
    todo = []
    for cls, rs in groups.items():
        todo.extend((r.seed, cls, r.model) for r in diverse(rs, cls, 4 * args.shrink_per_class))
    order = {(seed, cls): i for i, (seed, cls, _) in enumerate(todo)}
    details = {(r.seed, c): d for rs in groups.values() for r in rs for c, d in r.failures}
    shrunk_cases = []

    def on_done(seed, cls, original, shrunk, evals, reproduced):
        shrunk_cases.append((order[(seed, cls)], seed, cls, original, shrunk, evals, reproduced))

    t1 = time.monotonic()
    pool.shrink_all(todo, jobs=args.jobs, case_timeout=args.case_timeout, time_budget=args.shrink_budget, names=not args.no_names, on_done=on_done, reducer=args.reducer)
    chosen: Dict[str, list] = defaultdict(list)
    spare: Dict[str, list] = defaultdict(list)
    seen = set()
    for item in sorted(shrunk_cases, key=lambda x: x[0]):
        _, seed, cls, original, shrunk, evals, reproduced = item
        sig = (cls, tuple(sorted(n.op_type for n in shrunk.graph.node if n.op_type != "Constant")))
        if sig in seen or not reproduced or len(chosen[cls]) >= args.shrink_per_class:
            spare[cls].append(item)
        else:
            seen.add(sig)
            chosen[cls].append(item)
    print(f"reproducers in {args.out} (shrunk {len(shrunk_cases)} cases in {time.monotonic() - t1:.1f} s):")
    for cls in groups:
        picked = chosen[cls] + spare[cls][: max(0, args.shrink_per_class - len(chosen[cls]))]
        for _, seed, _, original, shrunk, evals, reproduced in picked:
            path = write_reproducer(args.out, seed, cls, original, shrunk, evals, details.get((seed, cls), ""), reproduced)
            ops = ",".join(n.op_type for n in shrunk.graph.node if n.op_type != "Constant")
            note = "" if reproduced else "  (did not fail again in a fresh worker)"
            print(f"  {os.path.basename(path):<30} {len(original.graph.node):>3} -> {len(shrunk.graph.node):<3} {ops[:70]}{note}")


if __name__ == "__main__":
    sys.exit(main())
