"""The tolm-reduce command: example run, reports, checks and bad input."""

import json

import numpy as np
import onnx
import pytest
from onnx import helper

from conftest import make_model, run_cli
from tolm import cli
from tolm.examples import example_model


def test_example_run_prints_table_writes_model_and_report(tmp_path):
    # The built-in example, as a shell runs it: the table, a valid smaller
    # model under the same output names, and a JSON report that adds up.
    out, report_path = tmp_path / "ex.onnx", tmp_path / "r.json"
    res = run_cli("-o", str(out), "--check", "2", "--report", str(report_path))
    assert res.returncode == 0, res.stderr
    assert "op type" in res.stdout and "total" in res.stdout and "check: passed" in res.stdout
    reduced = onnx.load(str(out))
    onnx.checker.check_model(reduced, full_check=True)
    assert [o.name for o in reduced.graph.output] == ["logits", "features"]
    report = json.loads(report_path.read_text())
    assert report["nodes_before"] == sum(report["ops_before"].values()) == len(example_model().graph.node)
    assert report["nodes_after"] == sum(report["ops_after"].values()) == len(reduced.graph.node)
    assert report["nodes_after"] < report["nodes_before"] and report["converged"] is True
    assert sum(report["fired"].values()) == report["rewrites"]
    assert report["check"]["status"] == "passed" and report["check"]["rtol"] == 1e-4


def bad_models(tmp_path):
    """Case name -> (command line, text the one-line error must hold). Which
    models the loader refuses, and its words, are the C++ loader tests' job;
    here one such model (a cycle) stands for them all."""
    vi = lambda n: helper.make_tensor_value_info(n, onnx.TensorProto.FLOAT, [2])  # noqa: E731

    def save(name, *nodes):
        p = tmp_path / name
        graph = helper.make_graph([helper.make_node(*n) for n in nodes], "g", [vi("x")], [vi(nodes[-1][2][0])])
        p.write_bytes(helper.make_model(graph).SerializeToString())
        return str(p)

    def save_model(name, *nodes, inputs=None):
        p = tmp_path / name
        p.write_bytes(make_model(nodes, inputs or {"x": [2, 3]}, {"y": None}).SerializeToString())
        return str(p)

    text, trunc = tmp_path / "text.onnx", tmp_path / "trunc.onnx"
    text.write_text("this is not a model\n")
    trunc.write_bytes(example_model().SerializeToString()[:300])
    out = ["-o", str(tmp_path / "out.onnx")]
    return {
        "missing": ([str(tmp_path / "nope.onnx"), *out], "no such file"),
        "not onnx": ([str(text), *out], "not an ONNX model"),
        "truncated": ([str(trunc), *out], "not an ONNX model"),
        "cycle": ([save("c.onnx", ("Add", ["x", "b"], ["a"]), ("Relu", ["a"], ["b"])), *out], "cycle"),
        "contradicting input shape": (
            [save_model("cs.onnx", ("Relu", ["x"], ["y"]), inputs={"x": ["N", 3]}), *out, "--input-shape", "x:5,4"],
            "--input-shape gives x dimension 1 as 4, the model's input fixes it at 3",
        ),
        "too many checks": ([save_model("ok.onnx", ("Relu", ["x"], ["y"])), *out, "--check", "1001"], "at most 1000"),
        "bad input shape": (["--input-shape", "image1,3"], "--input-shape"),
        "bad input dims": (["--input-shape", "image:1,x,3"], "--input-shape"),
        "unknown input": (["--input-shape", "nosuch:1,3,16,16"], "nosuch"),
        "bad target": (["--target", "npu_x"], "npu_x"),
        "no output path": ([str(trunc)], "-o/--output"),
    }


@pytest.mark.parametrize("case", ["missing", "not onnx", "truncated", "cycle", "contradicting input shape",
                                  "too many checks", "bad input shape", "bad input dims", "unknown input",
                                  "bad target", "no output path"])
def test_bad_input_exits_2_with_one_line(tmp_path, capsys, case):
    args, says = bad_models(tmp_path)[case]
    assert cli.main(args) == 2
    lines = capsys.readouterr().err.strip().splitlines()
    assert len(lines) == 1 and lines[0].startswith("tolm-reduce: error: "), lines
    assert says in lines[0]
    assert not (tmp_path / "out.onnx").exists()


def test_bad_input_as_a_process(tmp_path):
    # The real command: exit status and stderr as a shell sees them.
    res = run_cli(*bad_models(tmp_path)["cycle"][0])
    assert res.returncode == 2
    assert res.stderr.startswith("tolm-reduce: error: ") and res.stderr.count("\n") == 1
    assert "Traceback" not in res.stderr


def test_failed_check_exits_1(tmp_path, tmp_model, monkeypatch):
    # A reduction that changes numbers must be caught by --check.
    import tolm

    real = tolm._Run.save

    def broken(self, output, *args):
        real(self, output, *args)
        bad = onnx.load(output)
        w = next(i for i in bad.graph.initializer if i.name == "w2")
        arr = onnx.numpy_helper.to_array(w) * 1.5
        w.CopyFrom(onnx.numpy_helper.from_array(arr.astype(np.float32), "w2"))
        onnx.save(bad, output)

    monkeypatch.setattr(tolm._Run, "save", broken)
    assert cli.main(["-o", str(tmp_path / "o.onnx"), "--check", "1"]) == 1


def test_unrunnable_ops_are_not_checked(tmp_path, tmp_model, capsys):
    m = make_model(
        [("exSwish", ["x"], ["s"]), ("Relu", ["s"], ["y"])],
        inputs={"x": [2, 3]},
        outputs={"y": [2, 3]},
    )
    assert cli.main([tmp_model(m), "-o", str(tmp_path / "o.onnx"), "--check", "1"]) == cli.EXIT_NOT_CHECKED
    assert "NOT CHECKED: model holds operators onnxruntime cannot run: exSwish" in capsys.readouterr().out
