"""Command-line conventions users bring from other ONNX tools."""

import re

import onnx
import pytest

import tolm
from conftest import make_model, run_cli
from tolm import cli


def two_input_model():
    return make_model(
        [("Add", ["a", "b"], ["s"]), ("Relu", ["s"], ["y"])],
        inputs={"a": ["N", 4], "b": ["N", 4]},
        outputs={"y": None},
    )


def one_input_model():
    return make_model([("Relu", ["x"], ["y"])], inputs={"x": ["N", 4]}, outputs={"y": None})


def input_dims(path):
    return {vi.name: [d.dim_value for d in vi.type.tensor_type.shape.dim] for vi in onnx.load(path).graph.input}


def test_version():
    res = run_cli("--version")
    assert res.returncode == 0 and res.stdout.strip() == f"tolm-reduce {tolm.__version__}"


class TestInputShapes:
    def test_several_after_one_flag(self, tmp_path, tmp_model):
        out = str(tmp_path / "o.onnx")
        assert cli.main([tmp_model(two_input_model()), "-o", out, "--input-shape", "a:3,4", "b:3,4"]) == 0
        assert input_dims(out) == {"a": [3, 4], "b": [3, 4]}

    def test_model_path_after_the_shapes(self, tmp_path, tmp_model):
        out = str(tmp_path / "o.onnx")
        assert cli.main(["--input-shape", "a:2,4", "b:2,4", tmp_model(two_input_model()), "-o", out]) == 0
        assert input_dims(out) == {"a": [2, 4], "b": [2, 4]}

    def test_bare_dims_for_one_input(self, tmp_path, tmp_model):
        out = str(tmp_path / "o.onnx")
        assert cli.main([tmp_model(one_input_model()), "-o", out, "--input-shape", "5,4"]) == 0
        assert input_dims(out) == {"x": [5, 4]}

    @pytest.mark.parametrize(
        "shapes, says",
        [
            (["3,4"], "--input-shape gives dimensions without an input name, and the model has 2 graph inputs (a, b)"),
            (["c:3,4"], "--input-shape names c, which is not a graph input (graph inputs: a, b)"),
            (["a:3,4", "a:2,4"], "--input-shape gives 'a' twice"),
        ],
    )
    def test_errors_name_the_flag_and_the_inputs(self, tmp_path, tmp_model, capsys, shapes, says):
        args = [tmp_model(two_input_model()), "-o", str(tmp_path / "o.onnx"), "--input-shape", *shapes]
        assert cli.main(args) == 2
        assert says in capsys.readouterr().err


class TestOutputAndPaths:
    def test_quiet_prints_nothing(self, tmp_path, tmp_model):
        res = run_cli(tmp_model(one_input_model()), "-o", str(tmp_path / "o.onnx"), "-q")
        assert res.returncode == 0 and res.stdout == "" and res.stderr == ""

    def test_verbose_prints_progress_rule_times_and_log(self, tmp_path):
        res = run_cli("-o", str(tmp_path / "o.onnx"), "-v")
        assert res.returncode == 0, res.stderr
        assert "loaded" in res.stderr and "round 1 of the tables" in res.stderr and "saved" in res.stderr
        header = next(line for line in res.stdout.splitlines() if line.startswith("rule "))
        assert header.split()[-1] == "ms"

    def test_progress_for_large_models(self, tmp_path, tmp_model, monkeypatch, capsys):
        monkeypatch.setattr(cli, "PROGRESS_NODES", 1)
        assert cli.main([tmp_model(one_input_model()), "-o", str(tmp_path / "o.onnx")]) == 0
        err = capsys.readouterr().err
        assert "round 1 of the tables" in err and "saved" in err

    def test_times_in_milliseconds(self, tmp_path, tmp_model, capsys):
        assert cli.main([tmp_model(one_input_model()), "-o", str(tmp_path / "o.onnx")]) == 0
        line = next(x for x in capsys.readouterr().out.splitlines() if x.startswith("time:"))
        assert re.fullmatch(r"time: load \d+ ms, reduce \d+ ms, save \d+ ms", line), line

    @pytest.mark.parametrize("which", ["input", "output"])
    def test_report_may_not_name_a_model(self, tmp_path, tmp_model, capsys, which):
        m, out = tmp_model(one_input_model()), str(tmp_path / "o.onnx")
        before = open(m, "rb").read()
        assert cli.main([m, "-o", out, "--report", m if which == "input" else out]) == 2
        assert "--report" in capsys.readouterr().err
        assert open(m, "rb").read() == before

    def test_directory_as_input(self, tmp_path, capsys):
        assert cli.main([str(tmp_path), "-o", str(tmp_path / "o.onnx")]) == 2
        assert "is a directory" in capsys.readouterr().err

    def test_directory_as_input_from_python(self, tmp_path):
        with pytest.raises(ValueError, match="is a directory"):
            tolm.reduce(str(tmp_path))
