#!/usr/bin/env bash
# Installs a built wheel on a bare Debian system and runs it there, to show
# that pip alone is enough: no libonnx, no libprotobuf, no compiler, no CMake,
# no Debian package beyond Python itself.
#
#   bash scripts/check_wheel_clean_room.sh [WHEEL]      (as root)
#
# WHEEL defaults to the newest dist/tolm_reduce-*manylinux*.whl (see
# scripts/build_wheel.sh). The bare system is a minimal Debian root made with
# debootstrap in $ROOT (default /tmp/tolm-cleanroom), built once and reused;
# each run installs the wheel into a fresh virtual environment inside it.
# Needs root (debootstrap, chroot, mount) and the network to reach Debian's
# packages (first run only) and PyPI (onnx, numpy, onnxruntime). Exits
# non-zero on the first check that fails.
#
# The wheel's Python tag must match the root's Python: Debian 12 (bookworm,
# the default $SUITE) has Python 3.11. $MIRROR overrides debootstrap's
# default Debian mirror; $CA_BUNDLE the CA certificates pip uses inside.
set -euo pipefail
cd "$(dirname "$0")/.."

ROOT=${ROOT:-/tmp/tolm-cleanroom}
SUITE=${SUITE:-bookworm}
MIRROR=${MIRROR:-}

fail() { echo "check_wheel_clean_room: $*" >&2; exit 1; }

[ "$(id -u)" = 0 ] || fail "needs root (debootstrap, chroot, mount)"
wheel=${1:-$(ls -t dist/tolm_reduce-*manylinux*.whl 2>/dev/null | head -1 || true)}
[ -n "$wheel" ] && [ -f "$wheel" ] || fail "no wheel: build one with scripts/build_wheel.sh or name it"

# The bare system: Debian's minimal base, Python with venv, and the CA
# certificates pip needs for PyPI. Nothing else.
if [ ! -x "$ROOT/usr/bin/python3" ]; then
  command -v debootstrap >/dev/null || fail "debootstrap is missing (apt-get install debootstrap)"
  echo "== building a bare $SUITE root in $ROOT"
  rm -rf "$ROOT"
  debootstrap --variant=minbase --include=python3,python3-venv,ca-certificates \
    "$SUITE" "$ROOT" $MIRROR >"$ROOT.debootstrap.log" 2>&1 ||
    fail "debootstrap failed, see $ROOT.debootstrap.log"
fi

# Run a command inside the root with an environment of its own, so that no
# pip setting, index or constraint of this machine leaks in. What it does
# take from this machine is how to reach the network: the name servers and
# the CA certificates this machine trusts (a network that inspects TLS signs
# with a CA that Debian's bundle lacks).
in_root() {
  chroot "$ROOT" /usr/bin/env -i HOME=/root LANG=C.UTF-8 \
    PATH=/opt/check/venv/bin:/usr/local/bin:/usr/bin:/bin \
    PIP_CERT=/opt/check/ca-certificates.crt "$@"
}

# /proc is needed by Python and onnxruntime (cpu count, /proc/self); the root
# already has its own /dev nodes. Unmounted however the script ends.
mountpoint -q "$ROOT/proc" || mount -t proc proc "$ROOT/proc"
trap 'umount "$ROOT/proc"' EXIT
cp /etc/resolv.conf "$ROOT/etc/resolv.conf"

# The last run's environment goes first: it holds the wheel's own copies of
# libonnx and libprotobuf, which are not the system's.
rm -rf "$ROOT/opt/check"

echo "== the root has none of the build's dependencies"
libs=$(find "$ROOT" -xdev \( -name 'libonnx.*' -o -name 'libonnx_proto*' -o -name 'libprotobuf*' \) -printf '/%P ')
[ -z "$libs" ] || fail "the root has $libs"
for tool in g++ gcc c++ cc cmake make protoc; do
  if in_root sh -c "command -v $tool" >/dev/null; then fail "the root has $tool"; fi
done
if in_root dpkg-query -W -f '${Package}\n' | grep -E '^(libonnx|libprotobuf|g\+\+|gcc-[0-9]+$|cmake)'; then
  fail "the root has the packages above"
fi
in_root sh -c '. /etc/os-release; echo "$PRETTY_NAME, $(python3 --version), $(ldd --version | head -1)"'
echo "$(in_root dpkg-query -W -f '.\n' | wc -l) Debian packages, no libonnx, libprotobuf, compiler or CMake"

echo "== pip install $(basename "$wheel") into a fresh virtual environment"
mkdir -p "$ROOT/opt/check"
cp "$wheel" "$ROOT/opt/check/"
cp "${CA_BUNDLE:-/etc/ssl/certs/ca-certificates.crt}" "$ROOT/opt/check/ca-certificates.crt"
in_root python3 -m venv /opt/check/venv
in_root pip install -q --disable-pip-version-check "/opt/check/$(basename "$wheel")" ||
  fail "pip could not install the wheel"
in_root pip list --disable-pip-version-check 2>/dev/null | grep -i -E '^(tolm|onnx|numpy|protobuf)'

echo "== every library the native module loads is found"
module=$(cd "$ROOT" && ls opt/check/venv/lib/python3*/site-packages/tolm/api/rules/reduce*.so)
in_root ldd "/$module" | tee "$ROOT/opt/check/ldd.txt" | sed 's/ (0x[0-9a-f]*)//'
if grep -q 'not found' "$ROOT/opt/check/ldd.txt"; then fail "the module misses a library"; fi

echo "== tolm-reduce on the built-in example"
in_root tolm-reduce --version
in_root sh -c 'cd /opt/check && tolm-reduce -o example.onnx --check 1'
[ -s "$ROOT/opt/check/example.onnx" ] || fail "no example.onnx written"

echo "== the Python API on a small model"
in_root python3 - <<'PY'
import onnx
from onnx import TensorProto, helper
import tolm

# x -> Identity -> Reshape(to its own shape) -> Relu -> y: the Identity and the
# Reshape do nothing and must go; the numbers must stay.
shape = helper.make_tensor("shape", TensorProto.INT64, [2], [2, 3])
graph = helper.make_graph(
    [helper.make_node("Identity", ["x"], ["a"]),
     helper.make_node("Reshape", ["a", "shape"], ["b"]),
     helper.make_node("Relu", ["b"], ["y"])],
    "tiny",
    [helper.make_tensor_value_info("x", TensorProto.FLOAT, [2, 3])],
    [helper.make_tensor_value_info("y", TensorProto.FLOAT, [2, 3])],
    [shape])
model = helper.make_model(graph, opset_imports=[helper.make_opsetid("", 17)])
reduced, report = tolm.reduce(model, check=2)
ops = [n.op_type for n in reduced.graph.node]
print(f"tolm {report['version']}: {report['nodes_before']} -> {report['nodes_after']} nodes {ops}, "
      f"check {report['check']['status']}")
assert ops == ["Relu"], ops
assert report["check"]["status"] == "passed", report["check"]
onnx.checker.check_model(reduced, full_check=True)
PY

echo "clean room: wheel installed and ran without any build dependency"
