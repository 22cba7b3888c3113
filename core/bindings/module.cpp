// The extension module tolm.api.rules.reduce.
#include <stdexcept>

#include "bindings/bindings.h"
#include "host/onnx_io.h"

namespace py = pybind11;

PYBIND11_MODULE(reduce, m) {
  m.doc() = "Graph-reduction rules for ONNX models: rule tables, procedures and the IR graph.";

  py::register_exception_translator([](std::exception_ptr p) {
    try {
      if (p) std::rethrow_exception(p);
    } catch (const std::out_of_range& e) {
      py::set_error(PyExc_IndexError, e.what());
    } catch (const std::logic_error& e) {
      // Misuse of the graph (a shape of another size, a node in two graphs).
      py::set_error(PyExc_ValueError, e.what());
    }
  });

  // A model that cannot be taken in; a ValueError to callers that do not know it.
  py::register_exception<tolm::LoadError>(m, "LoadError", PyExc_ValueError);

  tolm::bind::init_ndarray(m);
  tolm::bind::init_ir(m);
  tolm::bind::init_rules(m);
}
