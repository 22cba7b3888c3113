#!/usr/bin/env bash
# Installs the system libraries and Python packages tolm-reduce needs, then the
# package itself (which builds the native module).
set -euo pipefail
cd "$(dirname "$0")/.."

APT_PACKAGES="g++ cmake make libprotobuf-dev protobuf-compiler libonnx-dev libxtensor-dev xtl-dev libgtest-dev libgmock-dev"
if command -v apt-get >/dev/null 2>&1; then
  SUDO=""
  if [ "$(id -u)" != "0" ]; then SUDO="sudo"; fi
  missing=""
  for p in $APT_PACKAGES; do
    dpkg -s "$p" >/dev/null 2>&1 || missing="$missing $p"
  done
  if [ -n "$missing" ]; then
    $SUDO apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq $missing >/dev/null
  fi
fi

# A Python that the system's package manager owns (PEP 668) is not ours to
# install into: ask for a virtual environment instead of breaking it.
if python3 - <<'PY'
import os, sys, sysconfig
managed = os.path.exists(os.path.join(sysconfig.get_path("stdlib"), "EXTERNALLY-MANAGED"))
in_venv = sys.prefix != getattr(sys, "base_prefix", sys.prefix)
sys.exit(0 if managed and not in_venv and not os.environ.get("PIP_BREAK_SYSTEM_PACKAGES") else 1)
PY
then
  echo "install.sh: $(command -v python3) is managed by the system; install into a virtual environment:" >&2
  echo "  python3 -m venv .venv && . .venv/bin/activate && bash scripts/install.sh" >&2
  exit 1
fi

python3 -m pip install -q "numpy" "onnx>=1.14" "onnxruntime>=1.16" "pytest>=7" \
  "scikit-build-core>=0.8" "pybind11>=2.12"
python3 -m pip install -q --no-build-isolation .
