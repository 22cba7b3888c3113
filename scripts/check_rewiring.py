#!/usr/bin/env python3
"""Fails if a rule rewires with a loop of its own.

Rules change connections through the host's edit primitives (core/host/edit.h),
which hold the one policy for graph inputs and outputs. A loop over a node's
input or output slots that writes a slot, outside the host, is how graph
outputs got lost before; this check keeps such loops out.
"""

import re
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
RULE_DIRS = ["chains", "dead", "restructure", "layout", "scatternd", "attention", "fusions", "fold", "reduce"]
LOOP = re.compile(r"for\s*\(.*\b(input|output)\b")
WRITE = re.compile(r"(set_input|set_output|\b(input|output)\.set)\s*\(")


def offenders():
    for d in RULE_DIRS:
        for path in sorted((ROOT / "core" / d).glob("*.cpp")):
            lines = path.read_text().splitlines()
            for i, line in enumerate(lines):
                if not LOOP.search(line):
                    continue
                body = lines[i : i + 4]
                if any(WRITE.search(b) for b in body):
                    yield f"{path.relative_to(ROOT)}:{i + 1}: {line.strip()}"


def main() -> int:
    found = list(offenders())
    for f in found:
        print(f"hand-written rewiring loop (use core/host/edit.h): {f}")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
