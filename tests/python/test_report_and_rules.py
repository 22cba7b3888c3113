"""The report says what changed from the file as written, and rules can be
listed, skipped or picked, from the CLI and from Python."""

import json

import numpy as np
import onnx
import pytest
from onnx import helper, numpy_helper

import tolm
from conftest import assert_same_outputs, make_model
from tolm import cli
from tolm.api.rules import reduce as rules


def constant_node_model():
    """Two Constant nodes feeding an identity Reshape: load turns the
    Constants into initializers, the rules then remove the Reshape."""
    shape = helper.make_node("Constant", [], ["s"], name="c_shape", value=numpy_helper.from_array(np.array([2, 3])))
    bias = helper.make_node(
        "Constant", [], ["b"], name="c_bias", value=numpy_helper.from_array(np.ones(3, np.float32))
    )
    return make_model(
        [shape, bias, ("Reshape", ["x", "s"], ["r"]), ("Add", ["r", "b"], ["y"])],
        inputs={"x": [2, 3]},
        outputs={"y": [2, 3]},
    )


class TestHonestCounts:
    def test_counts_nodes_as_in_the_file(self):
        m = constant_node_model()
        reduced, report = tolm.reduce(m)
        assert report["nodes_before"] == len(m.graph.node) == 4
        assert report["ops_before"] == {"Constant": 2, "Reshape": 1, "Add": 1}
        assert report["load"]["constant_nodes"] == 2
        assert report["nodes_after_load"] == 2
        assert report["nodes_after"] == len(reduced.graph.node) == 1
        assert_same_outputs(m, reduced)

    def test_text_says_what_load_did_and_which_rows_are_missing(self):
        _, report = tolm.reduce(constant_node_model())
        text = tolm.format_report(report)
        assert "target npu_c: 4 -> 1 nodes" in text
        assert "load took in 2 Constant node(s) as initializers (4 -> 2 nodes before any rule ran)" in text
        missing, rows = len(rules.unavailable_rules()), len(rules.fuse_reduce) + len(rules.cvt_reduce)
        assert (f"{missing} of {rows} table rows are not available" in text) == bool(missing)
        _, plain = tolm.reduce(make_model([("Relu", ["x"], ["y"])], inputs={"x": [2]}, outputs={"y": [2]}))
        assert plain["load"]["constant_nodes"] == 0 and "load took in" not in tolm.format_report(plain)


class TestJsonReport:
    def test_same_keys_in_every_run(self, tmp_path, tmp_model):
        m = tmp_model(constant_node_model())
        reports = []
        for extra in ([], ["--check", "1"], ["--no-fold", "--skip", "remove_invalid_reshape"]):
            path = tmp_path / "r.json"
            assert cli.main([m, "-o", str(tmp_path / "o.onnx"), "--report", str(path), "-q", *extra]) == 0
            reports.append(json.loads(path.read_text()))
        keys = [set(r) for r in reports]
        assert keys[0] == keys[1] == keys[2]
        for section in ("input", "output", "load", "fold", "times_ms", "check"):
            assert set(reports[0][section]) == set(reports[1][section]) == set(reports[2][section]), section

    def test_header_paths_sizes_and_times(self, tmp_path, tmp_model):
        m = tmp_model(constant_node_model())
        out, path = tmp_path / "o.onnx", tmp_path / "r.json"
        assert cli.main([m, "-o", str(out), "--report", str(path), "-q"]) == 0
        r = json.loads(path.read_text())
        assert r["schema_version"] == tolm.REPORT_SCHEMA_VERSION and r["version"] == tolm.__version__
        assert r["input"] == {"path": m, "bytes": len(open(m, "rb").read()), "external_data_bytes": 0}
        assert r["output"]["path"] == str(out) and r["output"]["bytes"] == out.stat().st_size
        assert r["output"]["external_data"] is None
        assert set(r["times_ms"]) == {"load", "reduce", "save", "check"} and r["times_ms"]["check"] is None
        assert r["check"]["status"] == "not run" and r["check"]["requested"] is False
        assert set(r["rule_times_ms"]) >= set(r["fired"])
        assert r["fold"]["enabled"] is True


def chain_model():
    # An identity Reshape and a cancelling Transpose pair: two rows that fire.
    return make_model(
        [
            ("Reshape", ["x", "s"], ["a"]),
            ("Transpose", ["a"], ["b"], {"perm": [1, 0]}),
            ("Transpose", ["b"], ["c"], {"perm": [1, 0]}),
            ("Relu", ["c"], ["y"]),
        ],
        inputs={"x": [2, 3]},
        outputs={"y": [2, 3]},
        consts={"s": [2, 3]},
    )


class TestRuleSelection:
    def test_skip_and_only_from_python(self):
        m = chain_model()
        _, full = tolm.reduce(m)
        assert full["nodes_after"] == 1
        fired = set(full["fired"])
        some = sorted(fired)[0]
        reduced, skipped = tolm.reduce(m, skip=sorted(fired))
        assert not set(skipped["fired"]) & fired and skipped["skip"] == sorted(fired)
        _, only = tolm.reduce(m, only=[some])
        assert set(only["fired"]) == {some}
        assert_same_outputs(m, reduced)

    @pytest.mark.parametrize(
        "kw, error, match",
        [
            ({"skip": ["no_such_rule"]}, ValueError, "skip: no rule has the key 'no_such_rule'"),
            ({"only": ["fuse_two_reshape", "nope"]}, ValueError, "only: no rule has the key 'nope'"),
            ({"skip": "fuse_two_reshape"}, TypeError, "skip must be a list of rule keys"),
            ({"only": [3]}, TypeError, "only must be a list of rule keys"),
        ],
    )
    def test_unknown_keys_are_refused(self, kw, error, match):
        with pytest.raises(error, match=match):
            tolm.reduce(chain_model(), **kw)

    def test_cli_skip_only(self, tmp_path, tmp_model, capsys):
        m = tmp_model(chain_model())
        out = str(tmp_path / "o.onnx")
        assert cli.main([m, "-o", out, "--skip", "bypass_two_transpose", "fuse_two_transpose",
                         "remove_invalid_transpose", "reduce_tp_in_mesh_forward", "reduce_tp_in_mesh_backward",
                         "remove_parallel_transpose"]) == 0
        text = capsys.readouterr().out
        assert "skipped: bypass_two_transpose" in text
        assert [n.op_type for n in onnx.load(out).graph.node].count("Transpose") == 2
        assert cli.main([m, "-o", out, "--only", "no_such_rule"]) == 2
        assert "--only: no rule has the key 'no_such_rule'" in capsys.readouterr().err

    def test_list_rules(self, capsys):
        # Every row of both tables, in the order the driver runs them, each
        # with a summary; rows this build lacks are marked.
        assert cli.main(["--list-rules"]) == 0
        lines = capsys.readouterr().out.splitlines()
        listed = tolm.list_rules()
        assert [r["key"] for r in listed] == list(rules.cvt_reduce) + list(rules.fuse_reduce)
        assert all(r["summary"] for r in listed), [r["key"] for r in listed if not r["summary"]]
        by_key = {line.split()[0]: line for line in lines[1:-1]}
        assert list(by_key) == [r["key"] for r in listed]
        for key in rules.unavailable_rules():
            assert "not built" in by_key[key]


class TestTablesAreReadOnly:
    @pytest.mark.parametrize(
        "edit",
        [
            lambda: rules.fuse_reduce.pop("fuse_two_reshape"),
            lambda: rules.fuse_reduce.__setitem__("x", {"ops": ["Relu"], "proc": print}),
            lambda: rules.cvt_reduce.clear(),
            lambda: rules.fuse_reduce["fuse_two_reshape"].__setitem__("proc", print),
            lambda: rules.fuse_reduce["fuse_two_reshape"]["ops"].append("Relu"),
            lambda: setattr(rules, "fuse_reduce", {}),
            lambda: setattr(rules, "_p_remove_invalid_node", print),
            lambda: delattr(rules, "cvt_reduce"),
        ],
    )
    def test_edits_raise(self, edit):
        before = (list(rules.fuse_reduce), list(rules.cvt_reduce))
        with pytest.raises(TypeError, match="read-only"):
            edit()
        assert (list(rules.fuse_reduce), list(rules.cvt_reduce)) == before

    def test_copies_may_be_edited(self):
        import copy

        mine = copy.copy(rules.fuse_reduce)
        mine.pop("fuse_two_reshape")
        assert "fuse_two_reshape" not in mine and "fuse_two_reshape" in rules.fuse_reduce
