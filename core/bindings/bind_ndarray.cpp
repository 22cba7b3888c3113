// NDArray <-> NumPy. Data is copied both ways: an IR constant never aliases
// memory that Python could change behind the graph's back.
#include <cstring>
#include <stdexcept>

#include "bindings/bindings.h"

namespace tolm {
namespace bind {

namespace {

py::module_ numpy() { return py::module_::import("numpy"); }

// ONNX code for a NumPy dtype, by kind and width.
int32_t code_from_numpy_dtype(const py::dtype& d) {
  const char kind = d.kind();
  const auto size = d.itemsize();
  switch (kind) {
    case 'b':
      return dt::BOOL;
    case 'f':
      if (size == 2) return dt::FLOAT16;
      if (size == 4) return dt::FLOAT;
      if (size == 8) return dt::DOUBLE;
      break;
    case 'i':
      if (size == 1) return dt::INT8;
      if (size == 2) return dt::INT16;
      if (size == 4) return dt::INT32;
      if (size == 8) return dt::INT64;
      break;
    case 'u':
      if (size == 1) return dt::UINT8;
      if (size == 2) return dt::UINT16;
      if (size == 4) return dt::UINT32;
      if (size == 8) return dt::UINT64;
      break;
    case 'c':
      if (size == 8) return dt::COMPLEX64;
      if (size == 16) return dt::COMPLEX128;
      break;
    case 'U':
    case 'S':
    case 'O':
      return dt::STRING;
    default:
      break;
  }
  throw py::type_error("unsupported array element type " + py::str(d).cast<std::string>());
}

Shape shape_of(const py::array& a) {
  Shape s;
  for (py::ssize_t i = 0; i < a.ndim(); ++i) s.push_back(static_cast<int64_t>(a.shape(i)));
  return s;
}

}  // namespace

py::object numpy_dtype(int32_t code) {
  switch (code) {
    case dt::UNDEFINED:
      return py::none();
    case dt::STRING:
      return numpy().attr("dtype")("object");
    case dt::BFLOAT16:
      // NumPy has no bfloat16; values widen to float32 on the way out.
      return numpy().attr("dtype")("float32");
    default:
      break;
  }
  const std::string name = dtype_name(code);
  if (name.empty() || dtype_size(code) == 0)
    throw py::value_error("unknown element type code " + std::to_string(code));
  return numpy().attr("dtype")(name);
}

int32_t dtype_code(py::handle obj) {
  if (obj.is_none()) return dt::UNDEFINED;
  if (py::isinstance<py::bool_>(obj)) throw py::type_error("a bool is no element type");
  if (py::isinstance<py::int_>(obj)) {
    const auto code = obj.cast<int64_t>();
    if (code < 0 || code > dt::BFLOAT16) throw py::value_error("unknown element type code " + std::to_string(code));
    return static_cast<int32_t>(code);
  }
  py::dtype d = py::reinterpret_borrow<py::object>(numpy().attr("dtype")(obj));
  return code_from_numpy_dtype(d);
}

py::object to_numpy(const NDArray& a) {
  const Shape& shape = a.shape();
  std::vector<py::ssize_t> dims(shape.begin(), shape.end());
  if (a.dtype() == dt::STRING) {
    py::list items;
    for (const auto& s : a.strings()) items.append(py::str(s));
    py::object arr = numpy().attr("array")(items, py::arg("dtype") = "object");
    return arr.attr("reshape")(py::cast(dims));
  }
  if (a.dtype() == dt::BFLOAT16) {
    py::array_t<float> out(dims);
    const auto& raw = a.raw();
    float* dst = out.mutable_data();
    for (int64_t i = 0; i < a.size(); ++i) {
      uint16_t h;
      std::memcpy(&h, raw.data() + 2 * i, 2);
      dst[i] = bfloat16_to_float(h);
    }
    return std::move(out);
  }
  py::dtype d = py::reinterpret_borrow<py::object>(numpy_dtype(a.dtype()));
  const size_t nbytes = static_cast<size_t>(a.size()) * dtype_size(a.dtype());
  if (a.raw().size() != nbytes)
    throw std::runtime_error("constant data holds " + std::to_string(a.raw().size()) +
                             " bytes, its shape needs " + std::to_string(nbytes));
  py::array out(d, dims);
  if (nbytes) std::memcpy(out.mutable_data(), a.raw().data(), nbytes);
  return std::move(out);
}

NDArray from_python(py::handle obj, int32_t dtype) {
  py::module_ np = numpy();
  py::object arr_obj = np.attr("asarray")(obj, py::arg("order") = "C");
  if (dtype != dt::UNDEFINED && dtype != dt::STRING && dtype != dt::BFLOAT16)
    arr_obj = arr_obj.attr("astype")(numpy_dtype(dtype));
  py::array arr = py::reinterpret_borrow<py::array>(arr_obj);
  const Shape shape = shape_of(arr);
  int32_t code = code_from_numpy_dtype(arr.dtype());

  if (code == dt::STRING) {
    std::vector<std::string> values;
    for (py::handle item : arr.attr("ravel")().attr("tolist")()) {
      if (py::isinstance<py::bytes>(item))
        values.push_back(item.cast<std::string>());
      else if (py::isinstance<py::str>(item))
        values.push_back(item.cast<std::string>());
      else
        throw py::type_error("an object array must hold strings");
    }
    return NDArray::from_strings(values, shape);
  }
  if (dtype == dt::BFLOAT16) {
    py::array_t<float, py::array::c_style | py::array::forcecast> f(arr);
    std::vector<uint8_t> raw(static_cast<size_t>(f.size()) * 2);
    for (py::ssize_t i = 0; i < f.size(); ++i) {
      const uint16_t h = float_to_bfloat16(f.data()[i]);
      std::memcpy(raw.data() + 2 * i, &h, 2);
    }
    return NDArray(dt::BFLOAT16, shape, std::move(raw));
  }
  // Rules read raw little-endian data; a byte-swapped array is made native.
  if (arr.dtype().attr("byteorder").cast<std::string>() == ">") {
    arr = py::reinterpret_borrow<py::array>(
        arr.attr("astype")(arr.dtype().attr("newbyteorder")("=")));
  }
  const size_t nbytes = static_cast<size_t>(arr.nbytes());
  std::vector<uint8_t> raw(nbytes);
  if (nbytes) std::memcpy(raw.data(), arr.data(), nbytes);
  return NDArray(code, shape, std::move(raw));
}

void init_ndarray(py::module& m) {
  py::class_<NDArray>(m, "NDArray",
                      "A constant as the graph holds it: element type, shape and data.")
      .def(py::init([](py::object value, py::object dtype) {
             return from_python(value, dtype_code(dtype));
           }),
           py::arg("value"), py::arg("dtype") = py::none())
      .def_property_readonly("dtype", [](const NDArray& a) { return numpy_dtype(a.dtype()); })
      .def_property_readonly("dtype_code", &NDArray::dtype)
      .def_property_readonly("shape", [](const NDArray& a) { return a.shape(); })
      .def_property_readonly("ndim", &NDArray::ndim)
      .def_property_readonly("size", &NDArray::size)
      .def("numpy", &to_numpy)
      .def("__array__",
           [](const NDArray& a, py::object dtype, py::object copy) {
             py::object arr = to_numpy(a);
             if (!dtype.is_none()) arr = arr.attr("astype")(dtype);
             return arr;
           },
           py::arg("dtype") = py::none(), py::arg("copy") = py::none())
      .def("astype", [](const NDArray& a, py::object dtype) { return a.astype(dtype_code(dtype)); })
      .def("__eq__", [](const NDArray& a, const NDArray& b) { return a == b; }, py::is_operator())
      .def("__eq__", [](const NDArray&, py::object) { return false; }, py::is_operator())
      .def("__repr__", [](const NDArray& a) {
        return "NDArray(" + py::repr(to_numpy(a)).cast<std::string>() + ")";
      });
  py::implicitly_convertible<py::array, NDArray>();

  m.def("to_np_type", [](py::object code) { return numpy_dtype(dtype_code(code)); },
        py::arg("code"),
        "numpy dtype for an ONNX element type (code, dtype or name); comparable "
        "with IRGraph.get_dtype.");
  m.def("onnx_type_code", [](py::object dtype) { return dtype_code(dtype); }, py::arg("dtype"),
        "ONNX element type code of a numpy dtype, type or name.");
}

}  // namespace bind
}  // namespace tolm
