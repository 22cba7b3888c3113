// The extension module tolm.api.rules.reduce.
#include <stdexcept>
#include <string>

#include "bindings/bindings.h"
#include "host/onnx_io.h"

namespace py = pybind11;

namespace {

PyObject* load_error_type = nullptr;

// Messages name tensors and nodes as the model spells them, and a model's
// bytes need not be valid UTF-8: such bytes show as escapes, where a plain
// conversion would raise a decoding error instead of the error meant.
void set_error_text(PyObject* type, const char* what) {
  const std::string text(what);
  PyObject* message = PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "backslashreplace");
  if (!message) return;  // the decoding error stands
  PyErr_SetObject(type, message);
  Py_DECREF(message);
}

}  // namespace

PYBIND11_MODULE(reduce, m) {
  m.doc() = "Graph-reduction rules for ONNX models: rule tables, procedures and the IR graph.";

  py::register_exception_translator([](std::exception_ptr p) {
    try {
      if (p) std::rethrow_exception(p);
    } catch (const std::out_of_range& e) {
      set_error_text(PyExc_IndexError, e.what());
    } catch (const std::logic_error& e) {
      // Misuse of the graph (a shape of another size, a node in two graphs).
      set_error_text(PyExc_ValueError, e.what());
    }
  });

  // A model that cannot be taken in; a ValueError to callers that do not know it.
  load_error_type = py::register_exception<tolm::LoadError>(m, "LoadError", PyExc_ValueError).ptr();
  py::register_exception_translator([](std::exception_ptr p) {
    try {
      if (p) std::rethrow_exception(p);
    } catch (const tolm::LoadError& e) {
      set_error_text(load_error_type, e.what());
    }
  });

  tolm::bind::init_ndarray(m);
  tolm::bind::init_ir(m);
  tolm::bind::init_rules(m);
}
