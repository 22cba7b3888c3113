"""The numeric check: its own input shapes, tolerances, inputs from .npy
files, integer ranges, and an exit code of its own when it cannot run."""

import json

import numpy as np
import pytest
from onnx import TensorProto

import tolm
from conftest import make_model
from tolm import cli


def dynamic_model():
    # The batch is symbolic and the Reshape needs 6 elements per row: with
    # the batch guessed as 1 and a width of 1 the model cannot run.
    return make_model(
        [("Reshape", ["x", "s"], ["a"]), ("Reshape", ["a", "s2"], ["b"]), ("Relu", ["b"], ["y"])],
        inputs={"x": ["N", "W"]},
        outputs={"y": None},
        consts={"s": [-1, 2, 3], "s2": [-1, 6]},
    )


def embedding_model(vocab=50):
    # Token ids index an embedding table: the check must draw ids that are
    # valid indices, and more of them than 0 and 1.
    table = np.arange(vocab * 4, dtype=np.float32).reshape(vocab, 4)
    return make_model(
        [("Gather", ["table", "ids"], ["e"], {"axis": 0}), ("Relu", ["e"], ["y"])],
        inputs={"ids": (TensorProto.INT64, [8])},
        outputs={"y": None},
        consts={"table": table},
    )


class TestCheckFromPython:
    def test_guessed_dims_are_named_and_the_check_says_it_could_not_run(self):
        _, report = tolm.reduce(dynamic_model(), check=1)
        check = report["check"]
        assert check["status"] == "not checked"
        assert check["guessed_dims"] == ["x[0]", "x[1]"]
        assert "guessed as 1" in check["reason"]
        assert "NOT CHECKED" in tolm.format_report(report)

    def test_bare_check_shape_for_one_input(self):
        _, report = tolm.reduce(dynamic_model(), check=1, check_input_shapes=[3, 6])
        assert report["check"]["input_shapes"] == {"x": [3, 6]}

    def test_integer_inputs_cover_the_index_range(self):
        _, report = tolm.reduce(embedding_model(vocab=12), check=20)
        check = report["check"]
        assert check["status"] == "passed" and check["int_range"] == [0, 15]

    def test_integer_range_reaches_past_one(self, monkeypatch):
        import tolm.check as chk

        seen = []
        real = chk._random_input

        def spy(rng, dtype, shape, int_range):
            arr = real(rng, dtype, shape, int_range)
            if np.issubdtype(dtype, np.integer):
                seen.append(arr)
            return arr

        monkeypatch.setattr(chk, "_random_input", spy)
        tolm.reduce(embedding_model(vocab=50), check=5)
        values = np.concatenate(seen)
        assert values.min() >= 0 and values.max() > 1 and values.max() <= 15
        seen.clear()
        tolm.reduce(embedding_model(vocab=5), check=5)
        assert np.concatenate(seen).max() <= 4  # never past the table
        seen.clear()
        tolm.reduce(embedding_model(vocab=50), check=5, check_int_range=(30, 40))
        values = np.concatenate(seen)
        assert values.min() >= 30 and values.max() <= 40

    def test_inputs_from_arrays_and_files(self, tmp_path):
        x = np.random.default_rng(1).standard_normal((2, 6)).astype(np.float32)
        np.save(tmp_path / "x.npy", x)
        for given in ({"x": x}, {"x": str(tmp_path / "x.npy")}, str(tmp_path / "x.npy")):
            _, report = tolm.reduce(dynamic_model(), check=3, check_inputs=given)
            check = report["check"]
            assert check["status"] == "passed" and check["inputs_from_files"] == ["x"]
            assert check["runs"] == 1 and check["input_shapes"] == {"x": [2, 6]}

    @pytest.mark.parametrize(
        "kw, error, match",
        [
            ({"check": -1}, ValueError, "check must be >= 0"),
            ({"check": tolm.MAX_CHECK_RUNS + 1}, ValueError, "at most 1000"),
            ({"check": "2"}, TypeError, "check must be a number of input sets"),
            ({"check": True}, TypeError, "check must be a number"),
            ({"check": 1, "check_rtol": -1}, ValueError, "check_rtol must be a finite number >= 0"),
            ({"check": 1, "check_atol": "x"}, TypeError, "check_atol must be a number"),
            ({"check": 1, "check_int_range": (5, 1)}, ValueError, "low 5 is above high 1"),
            ({"check": 1, "check_int_range": 3}, TypeError, "pair"),
            ({"check": 1, "check_inputs": {"nope": np.zeros(2)}}, ValueError, "not graph inputs"),
            ({"input_shapes": [1, 3, 32, 32]}, ValueError, "rank 4"),
            ({"input_shapes": "x:1,3"}, TypeError, "got a string"),
            ({"input_shapes": {"x": [1, "3"]}}, TypeError, "list of integers"),
            ({"input_shapes": {"x": [-1, 6]}}, ValueError, "negative dimension"),
            ({"input_shapes": 5}, TypeError, "mapping"),
            ({"quant_tab": []}, TypeError, "quant_tab must be a dict"),
        ],
    )
    def test_arguments_are_validated(self, kw, error, match):
        with pytest.raises(error, match=match):
            tolm.reduce(dynamic_model(), **kw)

    def test_load_error_is_exported(self):
        from tolm.api.ir_graph import LoadError

        assert tolm.LoadError is LoadError
        with pytest.raises(tolm.LoadError, match="not an ONNX model"):
            tolm.reduce(b"not a model")


class TestCheckFromCli:
    def test_check_that_cannot_run_exits_3(self, tmp_path, tmp_model, capsys):
        m = tmp_model(dynamic_model())
        assert cli.main([m, "-o", str(tmp_path / "o.onnx"), "--check", "1"]) == cli.EXIT_NOT_CHECKED
        captured = capsys.readouterr()
        assert "check could not run" in captured.err and "x[0], x[1]" in captured.err

    def test_check_input_shape_flag(self, tmp_path, tmp_model, capsys):
        m = tmp_model(dynamic_model())
        args = [m, "-o", str(tmp_path / "o.onnx"), "--check", "2", "--check-input-shape", "x:5,12"]
        assert cli.main(args) == 0
        out = capsys.readouterr().out
        assert "check: passed" in out and "inputs x [5,12]" in out

    def test_check_input_npy_flag(self, tmp_path, tmp_model):
        m = tmp_model(dynamic_model())
        np.save(tmp_path / "x.npy", np.ones((3, 6), np.float32))
        report = tmp_path / "r.json"
        for given in ("x:" + str(tmp_path / "x.npy"), str(tmp_path / "x.npy")):
            args = [m, "-o", str(tmp_path / "o.onnx"), "--check", "1", "--check-input", given, "--report", str(report)]
            assert cli.main(args) == 0
            assert json.loads(report.read_text())["check"]["input_shapes"] == {"x": [3, 6]}

    def test_tolerance_and_int_range_flags(self, tmp_path, tmp_model):
        m = tmp_model(embedding_model())
        report = tmp_path / "r.json"
        args = [m, "-o", str(tmp_path / "o.onnx"), "--check", "1", "--check-rtol", "0.01", "--check-atol", "0.001",
                "--check-int-range", "3", "9", "--report", str(report)]
        assert cli.main(args) == 0
        check = json.loads(report.read_text())["check"]
        assert (check["rtol"], check["atol"], check["int_range"]) == (0.01, 0.001, [3, 9])

    @pytest.mark.parametrize(
        "extra, says",
        [
            (["--check-rtol", "0.1"], "the --check-* options need --check N"),
            (["--check", "1", "--check-rtol", "-2"], "--check-rtol"),
            (["--check", "1", "--check-int-range", "9", "3"], "LOW 9 is above HIGH 3"),
            (["--check", "1", "--check-input", "x:missing.npy"], "no such file"),
            (["--check", "1", "--check-input", "x.txt"], "expected NAME:FILE.npy"),
            (["--check", "1", "--check-input-shape", "x:2,a"], "--check-input-shape"),
        ],
    )
    def test_bad_check_flags_exit_2(self, tmp_path, tmp_model, capsys, extra, says):
        m = tmp_model(dynamic_model())
        assert cli.main([m, "-o", str(tmp_path / "o.onnx"), *extra]) == 2
        err = capsys.readouterr().err.strip().splitlines()
        assert len(err) == 1 and says in err[0]

    def test_unknown_check_input_name(self, tmp_path, tmp_model, capsys):
        m = tmp_model(dynamic_model())
        np.save(tmp_path / "z.npy", np.ones((3, 6), np.float32))
        args = [m, "-o", str(tmp_path / "o.onnx"), "--check", "1", "--check-input", f"zz:{tmp_path / 'z.npy'}"]
        assert cli.main(args) == 2
        assert "--check-input name zz, not graph inputs (x)" in capsys.readouterr().err
