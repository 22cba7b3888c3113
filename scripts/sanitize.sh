#!/usr/bin/env bash
# Builds the C++ unit tests with AddressSanitizer and UndefinedBehaviorSanitizer
# and runs them. Any finding (memory error, leak, undefined behaviour) ends the
# run with a non-zero exit code.
set -euo pipefail
cd "$(dirname "$0")/.."

BUILD_DIR=${SANITIZE_BUILD_DIR:-build/sanitize}
JOBS=${JOBS:-$(nproc)}
cmake -S . -B "$BUILD_DIR" -DTOLM_BUILD_TESTS=ON -DTOLM_BUILD_MODULE=OFF -DTOLM_SANITIZE=ON \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$BUILD_DIR" -j"$JOBS" --target tolm_tests

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:halt_on_error=1:abort_on_error=0:strict_string_checks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
"$BUILD_DIR"/tolm_tests --gtest_brief=1
