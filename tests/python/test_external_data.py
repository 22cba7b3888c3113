"""Models that keep tensor data in files beside them: read relative to the
model's folder, written back beside the output, and models over 2 GB."""

import os
import resource
import shutil
import sys

import numpy as np
import onnx
import pytest
from onnx import TensorProto, helper

import tolm
from conftest import make_model, run_cli, run_ort
from tolm import cli


def weight_model():
    # A 64 kB weight read by a MatMul, behind an identity Reshape that the
    # rules remove; a small constant that stays inside the model.
    rng = np.random.default_rng(0)
    return make_model(
        [("Reshape", ["x", "s"], ["r"]), ("MatMul", ["r", "w"], ["m"]), ("Add", ["m", "b"], ["y"])],
        inputs={"x": [2, 128]},
        outputs={"y": [2, 128]},
        consts={
            "s": [2, 128],
            "w": rng.standard_normal((128, 128)).astype(np.float32),
            "b": rng.standard_normal(128).astype(np.float32),
        },
    )


def save_external(model, folder, name="m.onnx", location="m.weights"):
    os.makedirs(folder, exist_ok=True)
    path = os.path.join(folder, name)
    onnx.save_model(model, path, save_as_external_data=True, location=location, size_threshold=1024)
    return path


def external_names(model):
    """Initializers kept outside the model (a ModelProto, or a path read without its data)."""
    if isinstance(model, str):
        model = onnx.load(model, load_external_data=False)
    return {t.name for t in model.graph.initializer if t.data_location == TensorProto.EXTERNAL}


def outputs_of(path, x):
    return run_ort(onnx.load(path), {"x": x})["y"]


X = np.random.default_rng(1).standard_normal((2, 128)).astype(np.float32)


class TestRoundTrip:
    def test_cli_reads_beside_the_model_and_writes_beside_the_output(self, tmp_path):
        src = save_external(weight_model(), str(tmp_path / "in"))
        out = str(tmp_path / "out" / "r.onnx")
        os.makedirs(os.path.dirname(out))
        # Run from elsewhere: the data file is found from the model's folder.
        res = run_cli(src, "-o", out, "--check", "1", cwd=str(tmp_path))
        assert res.returncode == 0, res.stderr
        assert "read 1 tensor(s), 65536 bytes, from external data" in res.stdout
        assert os.path.getsize(out + ".data") == 128 * 128 * 4
        assert external_names(out) == {"w"}
        onnx.checker.check_model(out, full_check=True)
        np.testing.assert_allclose(outputs_of(out, X), outputs_of(src, X), rtol=1e-6)
        # Moving model and data together keeps them readable.
        shutil.move(out, str(tmp_path / "r.onnx"))
        shutil.move(out + ".data", str(tmp_path / "r.onnx.data"))
        np.testing.assert_allclose(outputs_of(str(tmp_path / "r.onnx"), X), outputs_of(src, X), rtol=1e-6)

    def test_python_returns_the_model_referring_to_its_data(self, tmp_path):
        src = save_external(weight_model(), str(tmp_path))
        reduced, report = tolm.reduce(src, output=str(tmp_path / "r.onnx"), check=1)
        assert report["check"]["status"] == "passed"
        assert report["input"]["external_data_bytes"] == 65536
        assert report["output"]["external_data"] == str(tmp_path / "r.onnx.data")
        assert report["output"]["external_data_bytes"] == 65536
        w = next(t for t in reduced.graph.initializer if t.name == "w")
        assert w.data_location == TensorProto.EXTERNAL and not w.raw_data
        # Without output= the model comes back whole.
        inline, _ = tolm.reduce(src)
        assert not external_names(inline)

    @pytest.mark.parametrize(
        "flags, external",
        [([], True), (["--no-external-data"], False), (["--external-data-threshold", "1K"], True)],
    )
    def test_choice_of_external_data(self, tmp_path, tmp_model, flags, external):
        src = save_external(weight_model(), str(tmp_path / "in"))
        out = str(tmp_path / "r.onnx")
        assert cli.main([src, "-o", out, "-q", *flags]) == 0
        assert bool(external_names(out)) is external and os.path.exists(out + ".data") is external
        np.testing.assert_allclose(outputs_of(out, X), outputs_of(src, X), rtol=1e-6)

    @pytest.mark.parametrize("flags, external", [([], False), (["--external-data"], True),
                                                 (["--external-data-threshold", "32K"], True),
                                                 (["--external-data-threshold", "1M"], False)])
    def test_inline_input(self, tmp_path, tmp_model, flags, external):
        out = str(tmp_path / "r.onnx")
        assert cli.main([tmp_model(weight_model()), "-o", out, "-q", *flags]) == 0
        assert bool(external_names(out)) is external

    def test_external_data_needs_an_output(self, capsys):
        assert cli.main(["--external-data"]) == 2
        assert "--external-data needs -o/--output" in capsys.readouterr().err
        with pytest.raises(ValueError, match="external_data needs output="):
            tolm.reduce(weight_model(), external_data=True)


class TestBadExternalData:
    def model_with_location(self, tmp_path, location, length=None):
        m = weight_model()
        w = next(t for t in m.graph.initializer if t.name == "w")
        w.ClearField("raw_data")
        w.data_location = TensorProto.EXTERNAL
        for k, v in [("location", location), ("offset", "0")] + ([("length", str(length))] if length else []):
            e = w.external_data.add()
            e.key, e.value = k, v
        path = tmp_path / "m.onnx"
        path.write_bytes(m.SerializeToString())
        return str(path)

    @pytest.mark.parametrize(
        "location, make, length, says",
        [
            ("w.bin", None, None, "cannot open its external data file"),
            ("w.bin", 1000, None, "holds 1000 bytes, the tensor needs bytes 0 to 65536"),
            ("w.bin", 65536, 12, "external data length 12, its shape needs 65536 bytes"),
            ("../w.bin", None, None, "external data location '../w.bin' is not inside the model's folder"),
            ("/etc/passwd", None, None, "is not inside the model's folder"),
        ],
    )
    def test_refused_with_one_line(self, tmp_path, capsys, location, make, length, says):
        if make:
            (tmp_path / location).write_bytes(b"\0" * make)
        path = self.model_with_location(tmp_path, location, length)
        assert cli.main([path, "-o", str(tmp_path / "o.onnx")]) == 2
        err = capsys.readouterr().err.strip().splitlines()
        assert len(err) == 1 and "initializer w: " in err[0] and says in err[0]

    def test_bytes_without_a_folder(self, tmp_path):
        (tmp_path / "w.bin").write_bytes(b"\0" * 65536)
        path = self.model_with_location(tmp_path, "w.bin")
        data = open(path, "rb").read()
        with pytest.raises(tolm.LoadError, match="load the model from its path"):
            tolm.reduce(data)
        reduced, _ = tolm.reduce(path)  # from the path the same model loads
        assert not external_names(reduced)


# The model over 2 GB: one float32 constant of 2 GiB + 4 MiB, written as a
# sparse file (no disk used for its zeros) with a few marked values.
BIG_ELEMS = (1 << 29) + (1 << 20)
MARKS = {0: 1.5, 12345: -2.0, BIG_ELEMS // 2: 3.25, BIG_ELEMS - 1: 7.0}


def big_model(folder):
    table = TensorProto(name="table", data_type=TensorProto.FLOAT, dims=[BIG_ELEMS])
    table.data_location = TensorProto.EXTERNAL
    for k, v in [("location", "big.bin"), ("offset", "0"), ("length", str(BIG_ELEMS * 4))]:
        e = table.external_data.add()
        e.key, e.value = k, v
    nodes = [
        helper.make_node("Gather", ["table", "idx"], ["g"], name="gather"),
        helper.make_node("Identity", ["g"], ["i"], name="noop"),
        helper.make_node("Relu", ["i"], ["y"], name="relu"),
    ]
    graph = helper.make_graph(
        nodes,
        "big",
        [helper.make_tensor_value_info("idx", TensorProto.INT64, [len(MARKS)])],
        [helper.make_tensor_value_info("y", TensorProto.FLOAT, [len(MARKS)])],
        initializer=[table],
    )
    model = helper.make_model(graph, opset_imports=[helper.make_opsetid("", 13)])
    model.ir_version = 8
    path = os.path.join(folder, "big.onnx")
    with open(path, "wb") as f:
        f.write(model.SerializeToString())
    with open(os.path.join(folder, "big.bin"), "wb") as f:
        f.truncate(BIG_ELEMS * 4)
        for i, v in MARKS.items():
            f.seek(i * 4)
            f.write(np.float32(v).tobytes())
    return path


def _free_gib(path):
    st = os.statvfs(path)
    return st.f_bavail * st.f_frsize / (1 << 30)


def _available_ram_gib():
    try:
        with open("/proc/meminfo") as f:
            info = dict(line.split(":", 1) for line in f)
        return int(info["MemAvailable"].split()[0]) / (1 << 20)
    except (OSError, KeyError, ValueError):
        return 0.0


@pytest.mark.skipif(sys.platform != "linux", reason="sparse files and /proc/meminfo")
def test_model_over_2gb_round_trip(tmp_path):
    if _free_gib(str(tmp_path)) < 6 or _available_ram_gib() < 6:
        pytest.skip("needs 6 GiB of free disk and memory")
    src = big_model(str(tmp_path))
    out = str(tmp_path / "out.onnx")
    before = resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss
    res = run_cli(src, "-o", out, "--report", str(tmp_path / "r.json"))
    peak_gib = resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss / (1 << 20)
    try:
        assert res.returncode == 0, res.stderr
        size = BIG_ELEMS * 4
        assert size > (1 << 31)
        # The constant is held once: not a second copy while loading or saving.
        assert before <= resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss
        assert peak_gib < size / (1 << 30) * 1.5, peak_gib
        assert "Identity" not in [n.op_type for n in onnx.load(out, load_external_data=False).graph.node]
        assert os.path.getsize(out) < (1 << 20) and os.path.getsize(out + ".data") == size
        m = onnx.load(out, load_external_data=False)
        t = next(t for t in m.graph.initializer if t.name == "table")
        entries = {e.key: e.value for e in t.external_data}
        assert entries["location"] == "out.onnx.data" and int(entries["length"]) == size
        data = np.memmap(out + ".data", dtype=np.float32, mode="r", offset=int(entries["offset"]), shape=(BIG_ELEMS,))
        assert {i: float(data[i]) for i in MARKS} == MARKS
        assert float(data[1]) == 0.0 and float(data[BIG_ELEMS - 2]) == 0.0
        del data
    finally:
        for p in (out + ".data", str(tmp_path / "big.bin")):
            if os.path.exists(p):
                os.remove(p)
