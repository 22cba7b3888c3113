// Shared pieces of the Python module: one init function per binding file and
// the conversions that more than one file needs.
#pragma once

#include <pybind11/pybind11.h>
#include <pybind11/numpy.h>
#include <pybind11/stl.h>

#include <string>
#include <vector>

#include "host/attr.h"
#include "host/ir.h"
#include "host/ndarray.h"

namespace tolm {
namespace bind {

namespace py = pybind11;

void init_ndarray(py::module& m);
void init_ir(py::module& m);
void init_rules(py::module& m);

// ---- arrays and element types ---------------------------------------------
// A NumPy copy of the array (float16 stays float16, bool stays bool, strings
// become an object array, bfloat16 widens to float32).
py::object to_numpy(const NDArray& a);
// Any array-like as NDArray; with `dtype` given the values are converted first.
NDArray from_python(py::handle obj, int32_t dtype = dt::UNDEFINED);
// numpy.dtype for an ONNX element type code; None for UNDEFINED.
py::object numpy_dtype(int32_t code);
// ONNX element type code from an int code, a numpy dtype, a type or a name.
int32_t dtype_code(py::handle obj);

// ---- attributes -----------------------------------------------------------
// Python value of an attribute: int, float, str, lists, numpy array for a
// tensor, the decoded ONNX value for kinds held opaque.
py::object attr_value(const Attr& a);
// Attribute of the given name from a Python value; the kind follows the value.
Attr attr_from_python(const std::string& name, py::handle value);

// ---- nodes ----------------------------------------------------------------
// A Node object, or an onnx.NodeProto converted to a new free node.
NodePtr node_from_python(py::handle obj);
NodeList nodes_from_python(py::handle seq);
py::list nodes_to_python(const NodeList& nodes);

}  // namespace bind
}  // namespace tolm
