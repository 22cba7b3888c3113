"""tolm-reduce: reduce an ONNX model and print what changed.

    tolm-reduce IN.onnx -o OUT.onnx [--target npu_x] [--input-shape NAME:1,3,224,224 ...]
                [--check N] [--report FILE.json] [--skip KEY ...] [--only KEY ...] ...

Without IN.onnx a built-in example model is reduced. Exit codes: 0 done,
1 the numeric check failed, 2 bad input or usage, 3 a requested check could
not run.
"""

from __future__ import annotations

import argparse
import json
import os
import sys
import time
from typing import Dict, List, Optional

EXIT_OK = 0
EXIT_CHECK_FAILED = 1
EXIT_USAGE = 2
EXIT_NOT_CHECKED = 3

PROG = "tolm-reduce"

# Models at least this large in the file, or with at least this many nodes,
# take long enough that a line per phase tells the user it is moving.
PROGRESS_FILE_BYTES = 64 << 20
PROGRESS_NODES = 50000

# The reduced graph, held until the process exits: taking a graph of a
# million nodes apart costs time the user waits for and gains nothing.
_KEEP_UNTIL_EXIT: list = []


class UsageError(Exception):
    """Bad input from the user: reported as one line, exit code 2."""


class _Parser(argparse.ArgumentParser):
    def error(self, message):  # noqa: D401 - argparse's hook
        raise UsageError(message)


def _byte_count(text: str) -> int:
    units = {"": 1, "K": 1 << 10, "M": 1 << 20, "G": 1 << 30}
    t = text.strip().upper().rstrip("B")
    unit = t[-1:] if t[-1:] in "KMG" else ""
    try:
        value = float(t[: len(t) - len(unit)])
    except ValueError:
        raise argparse.ArgumentTypeError(f"'{text}' is not a size (bytes, or with K, M, G)") from None
    if value < 0:
        raise argparse.ArgumentTypeError(f"'{text}' is negative")
    return int(value * units[unit])


def _non_negative_float(text: str) -> float:
    try:
        v = float(text)
    except ValueError:
        raise argparse.ArgumentTypeError(f"'{text}' is not a number") from None
    if not v >= 0 or v == float("inf"):
        raise argparse.ArgumentTypeError(f"'{text}' must be a finite number >= 0")
    return v


def _parser() -> argparse.ArgumentParser:
    import tolm
    from tolm.api.ir_graph import TARGETS

    p = _Parser(
        prog=PROG,
        description="Reduce an ONNX model with the graph-reduction rules.",
        epilog="Exit codes: 0 done, 1 the check failed, 2 bad input or usage, 3 a requested check could not run.",
    )
    p.add_argument("model", nargs="?", help="input model (.onnx); without it, a built-in example")
    p.add_argument("-o", "--output", help="where to write the reduced model (optional for the example)")
    p.add_argument("--version", action="version", version=f"{PROG} {tolm.__version__}")
    p.add_argument("--target", default="npu_c", choices=TARGETS, help="NPU target (default npu_c)")
    p.add_argument(
        "--input-shape",
        nargs="+",
        action="extend",
        default=[],
        metavar="NAME:D1,D2,...",
        help="fix a graph input's symbolic dimensions; several may follow one flag; bare D1,D2,... for a "
        "model with one input",
    )
    p.add_argument(
        "--check", type=int, default=0, metavar="N", help="compare outputs in onnxruntime on N input sets (at most 1000)"
    )
    p.add_argument(
        "--check-input-shape",
        nargs="+",
        action="extend",
        default=[],
        metavar="NAME:D1,D2,...",
        help="input shapes for the check only (default: --input-shape, then the model's own)",
    )
    p.add_argument(
        "--check-input",
        nargs="+",
        action="extend",
        default=[],
        metavar="NAME:FILE.npy",
        help="take a graph input's values from a .npy file (bare FILE.npy for a model with one input)",
    )
    p.add_argument("--check-rtol", type=_non_negative_float, metavar="R", help="relative tolerance (default 1e-4)")
    p.add_argument("--check-atol", type=_non_negative_float, metavar="A", help="absolute tolerance (default 1e-5)")
    p.add_argument(
        "--check-int-range",
        nargs=2,
        type=int,
        metavar=("LOW", "HIGH"),
        help="draw integer inputs from LOW..HIGH inclusive (default 0..15, capped at the last valid index "
        "where an input indexes a Gather)",
    )
    p.add_argument("--report", metavar="FILE.json", help="write the report as JSON")
    p.add_argument(
        "--no-fold",
        dest="fold",
        action="store_false",
        help="do not fold constants, inline constant If nodes or apply the standard fusions",
    )
    p.add_argument(
        "--matmul-add-to-gemm", action="store_true", help="also fuse MatMul followed by a constant Add into Gemm"
    )
    p.add_argument(
        "--no-subgraphs",
        dest="subgraphs",
        action="store_false",
        help="leave the bodies of If, Loop and Scan nodes as they are",
    )
    p.add_argument("--list-rules", action="store_true", help="list the rule rows and exit")
    p.add_argument("--skip", nargs="+", action="extend", default=[], metavar="KEY", help="leave out these rule rows")
    p.add_argument("--only", nargs="+", action="extend", default=[], metavar="KEY", help="run only these rule rows")
    ext = p.add_mutually_exclusive_group()
    ext.add_argument(
        "--external-data",
        dest="external_data",
        action="store_const",
        const=True,
        default=None,
        help="write tensor data to OUTPUT.data beside the model (default: when the input did, when the "
        "constants pass the threshold, and always above 2 GB)",
    )
    ext.add_argument(
        "--no-external-data",
        dest="external_data",
        action="store_const",
        const=False,
        help="keep all tensor data inside the model (fails above 2 GB)",
    )
    p.add_argument(
        "--external-data-threshold",
        type=_byte_count,
        default=None,
        metavar="BYTES",
        help="constants' size above which data goes to an external file by default (default 1G; K, M, G allowed)",
    )
    verbosity = p.add_mutually_exclusive_group()
    verbosity.add_argument("-q", "--quiet", action="store_true", help="print nothing but errors")
    verbosity.add_argument(
        "-v", "--verbose", action="store_true", help="also print time per rule, the rules' log and progress lines"
    )
    return p


def parse_input_shapes(items: List[str], flag: str = "--input-shape") -> Dict[str, List[int]]:
    """NAME:D1,D2,... items (the name may itself hold colons); a bare
    D1,D2,... is kept under the empty name, for a one-input model."""
    shapes: Dict[str, List[int]] = {}
    for item in items:
        name, sep, dims = item.rpartition(":")
        if sep and not name:
            raise UsageError(f"{flag} '{item}': expected NAME:D1,D2,...")
        try:
            values = [int(d) for d in dims.split(",")] if dims.strip() else []
        except ValueError:
            raise UsageError(f"{flag} '{item}': dimensions must be integers (NAME:D1,D2,...)") from None
        if any(v <= 0 for v in values):
            raise UsageError(f"{flag} '{item}': dimensions must be positive")
        if name in shapes:
            raise UsageError(f"{flag} gives '{name or 'the input'}' twice")
        shapes[name] = values
    return shapes


def parse_check_inputs(items: List[str]) -> Dict[str, str]:
    """NAME:FILE.npy items, or a bare FILE.npy for a one-input model."""
    out: Dict[str, str] = {}
    for item in items:
        name, sep, path = item.rpartition(":")
        if not sep:
            name, path = "", item
        if not path.endswith(".npy"):
            raise UsageError(f"--check-input '{item}': expected NAME:FILE.npy")
        if not os.path.isfile(path):
            raise UsageError(f"--check-input '{item}': no such file {path}")
        if name in out:
            raise UsageError(f"--check-input gives '{name or 'the input'}' twice")
        out[name] = path
    return out


def _one_line(exc: BaseException) -> str:
    text = str(exc).strip()
    if isinstance(exc, OSError) and exc.strerror:
        text = f"{exc.strerror}" + (f": '{exc.filename}'" if exc.filename else "")
    return " ".join(text.split()) or type(exc).__name__


# Python-side names of the options, as errors from the API word them, and
# the flags that set them.
_FLAG_OF = {
    "input_shapes": "--input-shape",
    "check_input_shapes": "--check-input-shape",
    "check_inputs": "--check-input",
    "check inputs": "--check-input",
    "check input": "--check-input",
    "skip": "--skip",
    "only": "--only",
}


def _in_flag_terms(text: str) -> str:
    for word, flag in _FLAG_OF.items():
        if text.startswith(word + " ") or text.startswith(word + ":") or text.startswith(word + "["):
            return flag + text[len(word):]
    return text


def _fail(msg: str, code: int = EXIT_USAGE) -> int:
    print(f"{PROG}: error: {msg}", file=sys.stderr)
    return code


def _same_file(a: Optional[str], b: Optional[str]) -> bool:
    if not a or not b:
        return False
    return os.path.realpath(a) == os.path.realpath(b)


def _take_back_model(args: argparse.Namespace) -> None:
    """A flag that takes several values also swallows the model path written
    after it (``--input-shape x:1,3 model.onnx``): give it back."""
    if args.model is not None:
        return
    for dest in ("input_shape", "check_input_shape", "skip", "only"):
        values = getattr(args, dest)
        if values and values[-1].endswith(".onnx"):
            args.model = values.pop()
            return


def list_rules_text() -> str:
    import tolm

    rows = tolm.list_rules()
    kw = max(len(r["key"]) for r in rows)
    ow = min(40, max(len(" ".join(r["ops"])) for r in rows))
    lines = [f"{'key':<{kw}}  {'table':<11}  {'ops':<{ow}}  {'state':<9}  what it does"]
    for r in rows:
        state = "available" if r["available"] else "not built"
        lines.append(f"{r['key']:<{kw}}  {r['table']:<11}  {' '.join(r['ops']):<{ow}}  {state:<9}  {r['summary']}")
    n_missing = sum(not r["available"] for r in rows)
    lines.append(f"{len(rows)} rows, {len(rows) - n_missing} available, {n_missing} not built yet")
    return "\n".join(lines)


def main(argv: Optional[List[str]] = None) -> int:
    try:
        args = _parser().parse_args(argv)
        _take_back_model(args)
        if args.list_rules:
            print(list_rules_text())
            return EXIT_OK
        shapes = parse_input_shapes(args.input_shape)
        check_shapes = parse_input_shapes(args.check_input_shape, "--check-input-shape")
        check_inputs = parse_check_inputs(args.check_input)
        if args.check < 0:
            raise UsageError("--check needs a number >= 0")
        from tolm import MAX_CHECK_RUNS

        if args.check > MAX_CHECK_RUNS:
            raise UsageError(f"--check runs at most {MAX_CHECK_RUNS} input sets, got {args.check}")
        check_opts = check_shapes or check_inputs or args.check_rtol is not None or args.check_atol is not None
        if (check_opts or args.check_int_range) and args.check == 0:
            raise UsageError("the --check-* options need --check N")
        if args.check_int_range and args.check_int_range[0] > args.check_int_range[1]:
            raise UsageError(f"--check-int-range: LOW {args.check_int_range[0]} is above HIGH {args.check_int_range[1]}")
        if args.model is not None and not args.output:
            raise UsageError("-o/--output is required with an input model")
        if args.model is not None and os.path.isdir(args.model):
            raise UsageError(f"'{args.model}' is a directory; give a model file (.onnx)")
        if args.output and os.path.isdir(args.output):
            raise UsageError(f"-o/--output '{args.output}' is a directory; give a file name")
        if args.external_data and not args.output:
            raise UsageError("--external-data needs -o/--output: the data file is written beside the model")
        if args.report and (_same_file(args.report, args.model) or _same_file(args.report, args.output)):
            raise UsageError(f"--report '{args.report}' names the input or output model; give another file")
        if args.model is not None and not os.path.isfile(args.model):
            return _fail(f"cannot read '{args.model}': no such file")
    except UsageError as exc:
        return _fail(str(exc))

    import onnx

    import tolm
    from tolm.api.ir_graph import LoadError

    if args.model is None:
        from tolm.examples import example_model

        model = example_model()
        source = "built-in example"
    else:
        model = args.model
        source = args.model

    file_bytes = os.path.getsize(args.model) if args.model else 0
    show_progress = not args.quiet and (args.verbose or file_bytes >= PROGRESS_FILE_BYTES)
    started = time.perf_counter()

    def progress(line: str) -> None:
        print(f"{PROG}: [{(time.perf_counter() - started) * 1000:8.0f} ms] {line}", file=sys.stderr, flush=True)

    class _Progress:
        """Turned on after load when the graph proves large."""

        on = show_progress

        def __call__(self, line: str) -> None:
            if self.on:
                progress(line)

    tell = _Progress()
    try:
        if tell.on:
            progress(f"loading {source} ({file_bytes >> 20} MB)")
        run = tolm._Run(
            model,
            args.target,
            None,
            shapes,
            None,
            args.fold,
            args.matmul_add_to_gemm,
            args.skip,
            args.only,
            progress=tell,
            keep=_KEEP_UNTIL_EXIT,
            subgraphs=args.subgraphs,
        )
        tell.on = tell.on or (not args.quiet and run.report["nodes_before"] >= PROGRESS_NODES)
        run.run_tables()
    except (LoadError, ValueError, TypeError, OSError) as exc:
        return _fail(f"{source}: {_in_flag_terms(_one_line(exc))}")
    except Exception as exc:  # a fault of ours: still one line, never a traceback
        return _fail(f"{source}: internal error: {type(exc).__name__}: {_one_line(exc)}")

    report = run.report
    threshold = args.external_data_threshold
    if threshold is None:
        threshold = tolm.DEFAULT_EXTERNAL_DATA_THRESHOLD
    try:
        if args.output:
            run.save(args.output, args.external_data, threshold)
            reduced = args.output
        else:
            reduced = onnx.load_from_string(run.to_bytes())
    except (OSError, ValueError) as exc:
        return _fail(f"cannot write output: {_one_line(exc)}")

    try:
        if args.check > 0:
            if tell.on:
                progress(f"checking on {args.check} input set(s)")
            from tolm import _check_inputs

            run.check(
                reduced,
                args.check,
                check_shapes,
                _check_inputs(check_inputs),
                args.check_rtol,
                args.check_atol,
                tuple(args.check_int_range) if args.check_int_range else None,
            )
    except (ValueError, TypeError, OSError) as exc:
        return _fail(f"{source}: {_in_flag_terms(_one_line(exc))}")

    try:
        if args.report:
            with open(args.report, "w") as f:
                json.dump(report, f, indent=2)
    except OSError as exc:
        return _fail(f"cannot write the report: {_one_line(exc)}")

    if not args.quiet:
        print(f"{source}")
        print(tolm.format_report(report, verbose=args.verbose))
        if args.output:
            extra = f" (tensor data in {report['output']['external_data']})" if report["output"]["external_data"] else ""
            print(f"written: {args.output}{extra}")
    status = report["check"]["status"]
    if status == "failed":
        print(f"{PROG}: check failed: {report['check']['reason']}", file=sys.stderr)
        return EXIT_CHECK_FAILED
    if status == "not checked":
        print(f"{PROG}: check could not run: {report['check']['reason']}", file=sys.stderr)
        return EXIT_NOT_CHECKED
    return EXIT_OK


def run() -> None:
    """The console entry: exits without tearing the graph down."""
    code = main()
    sys.stdout.flush()
    sys.stderr.flush()
    os._exit(code)


if __name__ == "__main__":
    run()
