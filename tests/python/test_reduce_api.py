"""tolm.reduce on small models: valid ONNX out, graph I/O names kept, same numbers."""

import onnx
import pytest

import tolm
from conftest import make_model, reduced_ok
from tolm.examples import example_model


@pytest.mark.parametrize("nodes", [
    [("Relu", ["x"], ["a"]), ("Reshape", ["a", "s"], ["y"])],  # a removable node writes the output
    [("Identity", ["x"], ["y"])],  # a no-op between a graph input and output
])
def test_graph_output_keeps_its_name_and_a_producer(nodes):
    # reduced_ok compares output names and the full checker wants a producer.
    reduced_ok(make_model(nodes, inputs={"x": [2, 3]}, outputs={"y": [2, 3]}, consts={"s": [2, 3]}))


def test_quant_tab_and_target_pass_through():
    m = make_model([("Relu", ["x"], ["y"])], inputs={"x": [4]}, outputs={"y": [4]})
    tab = {"x": {"min": -1.0, "max": 1.0, "name": "x"}}
    _, report = tolm.reduce(m, target="npu_a", quant_tab=tab)
    assert report["target"] == "npu_a" and tab["x"]["max"] == 1.0
    with pytest.raises(ValueError):
        tolm.reduce(m, target="gpu")


def test_accepts_path_and_bytes(tmp_model):
    m = example_model()
    a, _ = tolm.reduce(tmp_model(m))
    b, _ = tolm.reduce(m.SerializeToString())
    assert a.SerializeToString() == b.SerializeToString()


def test_minus_one_declared_dimension_is_free():
    # Exporters that write -1 for a free dimension: the model loads, keeps its
    # numbers, and the dimension comes back free rather than negative.
    m = make_model(
        [("Transpose", ["x"], ["a"], {"perm": [1, 0]}), ("Transpose", ["a"], ["y"], {"perm": [1, 0]})],
        inputs={"x": [-1, 5]},
        outputs={"y": [-1, 5]},
    )
    reduced, report = tolm.reduce(m, check=1)
    onnx.checker.check_model(reduced, full_check=True)
    assert report["check"]["status"] == "passed"
    out_dims = reduced.graph.output[0].type.tensor_type.shape.dim
    assert not out_dims[0].HasField("dim_value") and out_dims[1].dim_value == 5
    assert [n.op_type for n in reduced.graph.node] == ["Identity"]  # y keeps its own name


@pytest.mark.parametrize("opset", [13, 18])  # the native load path, and the one through ONNX's inference
@pytest.mark.parametrize(
    "shape, error",
    [
        ([3, 5], None),
        ([3, 6], "input_shapes gives x dimension 1 as 6, the model's input fixes it at 5"),
        ([3, 5, 1], "input_shapes gives x rank 3, the model's input has rank 2"),
    ],
)
def test_input_shapes_fix_only_open_dimensions(opset, shape, error):
    from tolm.api.ir_graph import LoadError

    m = make_model(
        [("Relu", ["x"], ["a"]), ("Neg", ["a"], ["y"])], inputs={"x": ["N", 5]}, outputs={"y": None}, opset=opset
    )
    m.graph.ClearField("value_info")
    if error is None:
        reduced, _ = tolm.reduce(m, input_shapes={"x": shape})
        assert [d.dim_value for d in reduced.graph.input[0].type.tensor_type.shape.dim] == shape
        return
    with pytest.raises(LoadError, match=error):
        tolm.reduce(m, input_shapes={"x": shape})
