"""tolm-reduce: reduce an ONNX model and print what changed.

    tolm-reduce IN.onnx -o OUT.onnx [--target npu_x] [--input-shape NAME:1,3,224,224 ...]
                [--check N] [--report FILE.json] [--no-fold] [--matmul-add-to-gemm]

Without IN.onnx a built-in example model is reduced. Exit codes: 0 done,
1 the numeric check failed, 2 bad input or usage.
"""

from __future__ import annotations

import argparse
import json
import os
import sys
from typing import Dict, List, Optional

from tolm import MAX_CHECK_RUNS

PROG = "tolm-reduce"

# The reduced graph, held until the process exits: taking a graph of a
# million nodes apart costs time the user waits for and gains nothing.
_KEEP_UNTIL_EXIT: list = []


class UsageError(Exception):
    """Bad input from the user: reported as one line, exit code 2."""


class _Parser(argparse.ArgumentParser):
    def error(self, message):  # noqa: D401 - argparse's hook
        raise UsageError(message)


def _parser() -> argparse.ArgumentParser:
    from tolm.api.ir_graph import TARGETS

    p = _Parser(prog=PROG, description="Reduce an ONNX model with the graph-reduction rules.")
    p.add_argument("model", nargs="?", help="input model (.onnx); without it, a built-in example")
    p.add_argument("-o", "--output", help="where to write the reduced model (optional for the example)")
    p.add_argument("--target", default="npu_c", choices=TARGETS, help="NPU target (default npu_c)")
    p.add_argument(
        "--input-shape",
        action="append",
        default=[],
        metavar="NAME:D1,D2,...",
        help="fixed shape for a graph input's symbolic dimensions (repeatable)",
    )
    p.add_argument(
        "--check", type=int, default=0, metavar="N", help="compare outputs in onnxruntime on N random inputs (at most 1000)"
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
    return p


def parse_input_shapes(items: List[str]) -> Dict[str, List[int]]:
    shapes: Dict[str, List[int]] = {}
    for item in items:
        name, sep, dims = item.rpartition(":")
        if not sep or not name:
            raise UsageError(f"bad --input-shape '{item}': expected NAME:D1,D2,...")
        try:
            values = [int(d) for d in dims.split(",")] if dims.strip() else []
        except ValueError:
            raise UsageError(f"bad --input-shape '{item}': dimensions must be integers") from None
        if any(v <= 0 for v in values):
            raise UsageError(f"bad --input-shape '{item}': dimensions must be positive")
        shapes[name] = values
    return shapes


def _one_line(exc: BaseException) -> str:
    text = str(exc).strip()
    if isinstance(exc, OSError) and exc.strerror:
        text = f"{exc.strerror}" + (f": '{exc.filename}'" if exc.filename else "")
    return " ".join(text.split()) or type(exc).__name__


def _fail(msg: str, code: int = 2) -> int:
    print(f"{PROG}: error: {msg}", file=sys.stderr)
    return code


def main(argv: Optional[List[str]] = None) -> int:
    try:
        args = _parser().parse_args(argv)
        shapes = parse_input_shapes(args.input_shape)
        if args.check < 0:
            raise UsageError("--check needs a number >= 0")
        if args.check > MAX_CHECK_RUNS:
            raise UsageError(f"--check runs at most {MAX_CHECK_RUNS} input sets, got {args.check}")
        if args.model is not None and not args.output:
            raise UsageError("-o/--output is required with an input model")
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
        if not os.path.isfile(args.model):
            return _fail(f"cannot read '{args.model}': no such file")
        model = args.model
        source = args.model

    try:
        # Bytes straight to the file: the reduced model is parsed in Python
        # only when the check needs it.
        data, report, original_bytes, checked_shapes = tolm._reduce_bytes(
            model, args.target, None, shapes, args.check, None, keep=_KEEP_UNTIL_EXIT,
            fold=args.fold, matmul_add_to_gemm=args.matmul_add_to_gemm,
        )
        if args.check > 0:
            tolm._run_check(report, original_bytes, onnx.load_from_string(data), args.check, checked_shapes)
    except (LoadError, ValueError, TypeError, OSError) as exc:
        return _fail(f"{source}: {_one_line(exc)}")
    except Exception as exc:  # a fault of ours: still one line, never a traceback
        return _fail(f"{source}: internal error: {type(exc).__name__}: {_one_line(exc)}")

    try:
        if args.output:
            with open(args.output, "wb") as f:
                f.write(data)
        if args.report:
            with open(args.report, "w") as f:
                json.dump(report, f, indent=2)
    except OSError as exc:
        return _fail(f"cannot write output: {_one_line(exc)}")

    print(f"{source}")
    print(tolm.format_report(report))
    if args.output:
        print(f"written: {args.output}")
    check = report.get("check")
    if check is not None and check["status"] == "failed":
        print(f"{PROG}: check failed: {check['reason']}", file=sys.stderr)
        return 1
    return 0


def run() -> None:
    """The console entry: exits without tearing the graph down."""
    code = main()
    sys.stdout.flush()
    sys.stderr.flush()
    os._exit(code)


if __name__ == "__main__":
    run()
