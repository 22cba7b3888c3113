#!/usr/bin/env bash
# Builds and runs the C++ unit tests, then the same tests under the address and
# undefined-behaviour sanitizers, then the Python tests against the installed
# package.
set -euo pipefail
cd "$(dirname "$0")/.."

BUILD_DIR=${BUILD_DIR:-build/tests}
cmake -S . -B "$BUILD_DIR" -DTOLM_BUILD_TESTS=ON -DTOLM_BUILD_MODULE=OFF -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$BUILD_DIR" -j"$(nproc)" --target tolm_tests
"$BUILD_DIR"/tolm_tests --gtest_brief=1
bash scripts/sanitize.sh

# Rules rewire through the host's edit primitives, never with loops of their own.
python3 scripts/check_rewiring.py

# Run from outside the source tree so the installed package is the one tested;
# then the random-graph differential fuzzer on a fixed seed.
(cd tests/python && python3 -m pytest -q .)
(cd tests/fuzz && python3 -m pytest -q .)
