// Node and IRGraph as Python sees them. A C++ node always maps to the same
// Python object while that object lives (shared_ptr holder, pybind11 instance
// registry), and node equality is identity. Connections written from Python go
// through the graph's index exactly as a rule's writes do.
#include <algorithm>
#include <fstream>
#include <functional>
#include <stdexcept>

#include "bindings/bindings.h"
#include "host/onnx_io.h"
#include "host/shape_infer.h"
#include "reduce/driver.h"

namespace tolm {
namespace bind {

namespace {

py::module_ onnx_helper() { return py::module_::import("onnx.helper"); }

py::object decode_text(const std::string& s) {
  PyObject* obj = PyUnicode_DecodeUTF8(s.data(), static_cast<py::ssize_t>(s.size()), "strict");
  if (obj) return py::reinterpret_steal<py::object>(obj);
  PyErr_Clear();
  return py::bytes(s);
}

std::string text_of(py::handle h) {
  if (py::isinstance<py::bytes>(h) || py::isinstance<py::str>(h)) return h.cast<std::string>();
  throw py::type_error("expected a string, got " + py::repr(h).cast<std::string>());
}

int64_t int_of(py::handle h) {
  if (py::isinstance<py::float_>(h)) throw py::type_error("expected an integer, got a float");
  return py::reinterpret_steal<py::object>(PyNumber_Index(h.ptr())).cast<int64_t>();
}

bool is_integral(py::handle h) {
  if (py::isinstance<py::bool_>(h) || py::isinstance<py::int_>(h)) return true;
  py::module_ np = py::module_::import("numpy");
  return py::isinstance(h, np.attr("integer")) || py::isinstance(h, np.attr("bool_"));
}

bool is_real(py::handle h) {
  if (py::isinstance<py::float_>(h)) return true;
  return py::isinstance(h, py::module_::import("numpy").attr("floating"));
}

Shape to_shape(py::handle seq) {
  Shape s;
  for (py::handle d : seq) s.push_back(int_of(d));
  return s;
}

bool is_node_proto(py::handle obj) {
  return py::hasattr(obj, "op_type") && py::hasattr(obj, "attribute") &&
         py::hasattr(obj, "SerializeToString");
}

// AttributeProto -> Attr; kinds that no rule reads stay serialized.
Attr attr_from_proto(py::handle ap) {
  const std::string name = ap.attr("name").cast<std::string>();
  const int32_t kind = ap.attr("type").cast<int32_t>();
  switch (kind) {
    case Attr::FLOAT:
      return Attr::make_float(name, ap.attr("f").cast<float>());
    case Attr::INT:
      return Attr::make_int(name, ap.attr("i").cast<int64_t>());
    case Attr::STRING:
      return Attr::make_string(name, ap.attr("s").cast<std::string>());
    case Attr::FLOATS:
      return Attr::make_floats(name, ap.attr("floats").cast<std::vector<float>>());
    case Attr::INTS:
      return Attr::make_ints(name, ap.attr("ints").cast<std::vector<int64_t>>());
    case Attr::STRINGS: {
      std::vector<std::string> v;
      for (py::handle s : ap.attr("strings")) v.push_back(s.cast<std::string>());
      return Attr::make_strings(name, v);
    }
    case Attr::TENSOR: {
      py::object t = ap.attr("t");
      py::object arr = py::module_::import("onnx.numpy_helper").attr("to_array")(t);
      return Attr::make_tensor(name, from_python(arr, t.attr("data_type").cast<int32_t>()));
    }
    default: {
      Attr a;
      a.name = name;
      a.kind = kind;
      a.opaque = ap.attr("SerializeToString")().cast<std::string>();
      return a;
    }
  }
}

// ---- views ------------------------------------------------------------------

struct PortView {
  NodePtr node;
  bool out;
  PortList& list() const { return out ? node->output : node->input; }
  size_t index(py::ssize_t i) const {
    const auto n = static_cast<py::ssize_t>(list().size());
    if (i < 0) i += n;
    if (i < 0 || i >= n) throw py::index_error((out ? "output" : "input") + std::string(" index out of range"));
    return static_cast<size_t>(i);
  }
};

std::vector<std::string> names_of(py::handle seq) {
  if (py::isinstance<py::str>(seq)) throw py::type_error("expected a list of tensor names, not a string");
  std::vector<std::string> v;
  for (py::handle h : seq) v.push_back(text_of(h));
  return v;
}

struct IRView {
  std::shared_ptr<IR> ir;
};

// Graph inputs or outputs.
struct IOView : IRView {
  bool out;
  const std::vector<std::string>& names() const { return out ? ir->outputs() : ir->inputs(); }
};

struct ConstsView : IRView {};
struct OperandsView : IRView {};
struct Operand : IRView {
  std::string name;
};
struct PauseMap : IRView {};
struct PauseList : IRView {
  std::string key;
  // For writes: a key dropped from the map since this view was made comes back.
  std::vector<std::string>& names() const { return ir->op_ruler_pause[key]; }
  // For reads, which must not bring a dropped key back.
  const std::vector<std::string>& current() const {
    static const std::vector<std::string> none;
    auto it = ir->op_ruler_pause.find(key);
    return it == ir->op_ruler_pause.end() ? none : it->second;
  }
};
struct DepMap : IRView {};
struct DepSet : IRView {
  NodePtr node;
};
struct GraphView : IRView {};
struct ValueInfoList : IRView {};
struct ValueInfoRecord {
  std::string name;
};

std::string record_name(py::handle h) {
  if (py::isinstance<ValueInfoRecord>(h)) return h.cast<ValueInfoRecord&>().name;
  if (py::hasattr(h, "name") && !py::isinstance<py::str>(h)) return h.attr("name").cast<std::string>();
  return text_of(h);
}

bool sequence_equals(const std::vector<std::string>& names, py::handle other) {
  if (py::isinstance<py::str>(other) || !py::isinstance<py::sequence>(other)) return false;
  py::sequence seq = py::reinterpret_borrow<py::sequence>(other);
  if (seq.size() != names.size()) return false;
  for (size_t i = 0; i < names.size(); ++i) {
    py::object item = seq[i];
    if (!py::isinstance<py::str>(item) || item.cast<std::string>() != names[i]) return false;
  }
  return true;
}

py::list str_list(const std::vector<std::string>& v) {
  py::list out;
  for (const auto& s : v) out.append(py::str(s));
  return out;
}

py::object shape_or_none(const IR& ir, const std::string& t) {
  if (!ir.has_shape(t)) return py::none();
  return py::cast(ir.get_shape(t));
}

// Binds the list-like protocol over a vector of names held elsewhere.
template <class View, class Get>
void bind_name_list(py::class_<View>& cls, Get get) {
  cls.def("__len__", [get](const View& v) { return get(v).size(); })
      .def("__getitem__",
           [get](const View& v, py::ssize_t i) {
             const auto& names = get(v);
             const auto n = static_cast<py::ssize_t>(names.size());
             if (i < 0) i += n;
             if (i < 0 || i >= n) throw py::index_error("index out of range");
             return names[static_cast<size_t>(i)];
           })
      // A slice is a new list of copies: `str_list(...)[s]` would be an
      // accessor into a temporary list, freed before Python reads it.
      .def("__getitem__",
           [get](const View& v, py::slice s) { return py::list(str_list(get(v))[s]); })
      .def("__iter__", [get](const View& v) { return py::iter(str_list(get(v))); })
      // A copy: comparing calls back into Python, which may change the list.
      .def("__eq__", [get](const View& v, py::object o) {
        const std::vector<std::string> names = get(v);
        return sequence_equals(names, o);
      })
      .def("__repr__", [get](const View& v) { return py::repr(str_list(get(v))).template cast<std::string>(); })
      .def("index",
           [get](const View& v, const std::string& t) {
             const auto& names = get(v);
             for (size_t i = 0; i < names.size(); ++i)
               if (names[i] == t) return i;
             throw py::value_error("'" + t + "' is not in list");
           })
      .def("count", [get](const View& v, const std::string& t) {
        size_t k = 0;
        for (const auto& s : get(v)) k += (s == t);
        return k;
      });
}

py::list node_names(const IR& ir) {
  py::list out;
  for (const auto& n : ir.node()) out.append(py::str(n->name()));
  return out;
}

NodeList neighbours(const IR& ir, py::handle x, bool next) {
  if (py::isinstance<Node>(x)) {
    const Node& n = x.cast<const Node&>();
    return next ? ir.next_nodes(n) : ir.pre_nodes(n);
  }
  const std::string t = text_of(x);
  return next ? ir.next_nodes(t) : ir.pre_nodes(t);
}

std::shared_ptr<IR> load(py::object model, py::object input_shapes, const std::string& target,
                         bool infer, py::object external_data_dir) {
  LoadOptions opt;
  opt.infer_shapes = infer;
  if (!external_data_dir.is_none())
    opt.external_data_dir = py::module_::import("os").attr("fspath")(external_data_dir).cast<std::string>();
  if (!input_shapes.is_none()) {
    for (auto item : py::reinterpret_borrow<py::dict>(input_shapes))
      opt.input_shapes[text_of(item.first)] = to_shape(item.second);
  }
  std::unique_ptr<IR> ir;
  if (py::isinstance<py::bytes>(model)) {
    const std::string data = model.cast<std::string>();
    py::gil_scoped_release nogil;
    ir = load_model(data, opt);
  } else if (py::isinstance<py::str>(model) || py::hasattr(model, "__fspath__")) {
    py::module_ os = py::module_::import("os");
    const std::string path = os.attr("fspath")(model).cast<std::string>();
    if (opt.external_data_dir.empty())
      opt.external_data_dir = os.attr("path").attr("dirname")(os.attr("path").attr("abspath")(path)).cast<std::string>();
    py::gil_scoped_release nogil;
    ir = load_model_file(path, opt);
  } else if (py::hasattr(model, "SerializeToString")) {
    const std::string data = model.attr("SerializeToString")().cast<std::string>();
    py::gil_scoped_release nogil;
    ir = load_model(data, opt);
  } else {
    throw py::type_error("expected an onnx.ModelProto, serialized bytes or a path");
  }
  ir->npu_target = target;
  return std::shared_ptr<IR>(std::move(ir));
}

}  // namespace

// ---- conversions shared with the other binding files --------------------------

py::object attr_value(const Attr& a) {
  switch (a.kind) {
    case Attr::FLOAT:
      return py::float_(a.f);
    case Attr::INT:
      return py::int_(a.i);
    case Attr::STRING:
      return decode_text(a.s);
    case Attr::FLOATS:
      return py::cast(a.floats);
    case Attr::INTS:
      return py::cast(a.ints);
    case Attr::STRINGS: {
      py::list out;
      for (const auto& s : a.strings) out.append(decode_text(s));
      return std::move(out);
    }
    case Attr::TENSOR:
      return to_numpy(a.t);
    default:
      break;
  }
  if (a.opaque.empty()) return py::none();
  py::object proto = py::module_::import("onnx").attr("AttributeProto")();
  proto.attr("ParseFromString")(py::bytes(a.opaque));
  return onnx_helper().attr("get_attribute_value")(proto);
}

Attr attr_from_python(const std::string& name, py::handle value) {
  if (py::isinstance<Attr>(value)) {
    Attr a = value.cast<Attr>();
    a.name = name;
    return a;
  }
  if (is_integral(value)) return Attr::make_int(name, int_of(value));
  if (is_real(value)) return Attr::make_float(name, value.cast<float>());
  if (py::isinstance<py::str>(value) || py::isinstance<py::bytes>(value))
    return Attr::make_string(name, value.cast<std::string>());
  if (py::isinstance<NDArray>(value)) return Attr::make_tensor(name, value.cast<NDArray>());
  py::module_ np = py::module_::import("numpy");
  if (py::isinstance(value, np.attr("ndarray"))) return Attr::make_tensor(name, from_python(value));
  if (py::isinstance<py::list>(value) || py::isinstance<py::tuple>(value)) {
    bool all_int = true, all_num = true, all_str = true;
    for (py::handle h : value) {
      const bool i = is_integral(h), r = is_real(h);
      const bool s = py::isinstance<py::str>(h) || py::isinstance<py::bytes>(h);
      all_int &= i;
      all_num &= (i || r);
      all_str &= s;
    }
    if (all_int) {
      std::vector<int64_t> v;
      for (py::handle h : value) v.push_back(int_of(h));
      return Attr::make_ints(name, v);
    }
    if (all_num) return Attr::make_floats(name, value.cast<std::vector<float>>());
    if (all_str) {
      std::vector<std::string> v;
      for (py::handle h : value) v.push_back(h.cast<std::string>());
      return Attr::make_strings(name, v);
    }
  }
  // Anything else (a TensorProto, a GraphProto, lists of them): ONNX's own
  // constructor decides the kind.
  return attr_from_proto(onnx_helper().attr("make_attribute")(name, value));
}

NodePtr node_from_python(py::handle obj) {
  if (py::isinstance<Node>(obj)) return obj.cast<NodePtr>();
  if (!is_node_proto(obj))
    throw py::type_error("expected a Node or an onnx.NodeProto, got " +
                         py::repr(obj).cast<std::string>());
  std::vector<Attr> attrs;
  for (py::handle ap : obj.attr("attribute")) attrs.push_back(attr_from_proto(ap));
  NodePtr n = Node::make(obj.attr("op_type").cast<std::string>(), names_of(obj.attr("input")),
                         names_of(obj.attr("output")), obj.attr("name").cast<std::string>(), attrs,
                         obj.attr("domain").cast<std::string>());
  n->doc_string = obj.attr("doc_string").cast<std::string>();
  return n;
}

NodeList nodes_from_python(py::handle seq) {
  NodeList out;
  if (seq.is_none()) return out;
  for (py::handle h : seq) out.push_back(node_from_python(h));
  return out;
}

py::list nodes_to_python(const NodeList& nodes) {
  py::list out;
  for (const auto& n : nodes) out.append(py::cast(n));
  return out;
}

void init_ir(py::module& m) {
  // ---- attribute records -------------------------------------------------------
  py::class_<Attr>(m, "Attribute", "One node attribute: its name, ONNX kind and value.")
      .def(py::init([](const std::string& name, py::object value) { return attr_from_python(name, value); }),
           py::arg("name"), py::arg("value"))
      .def_readonly("name", &Attr::name)
      .def_readonly("type", &Attr::kind)
      .def_property_readonly("value", &attr_value)
      .def("__eq__", [](const Attr& a, const Attr& b) { return a == b; }, py::is_operator())
      .def("__repr__", [](const Attr& a) {
        return "Attribute(" + a.name + "=" + py::repr(attr_value(a)).cast<std::string>() + ")";
      });

  // ---- ports ----------------------------------------------------------------
  py::class_<PortView> port(m, "PortList", "The input or output tensor names of a node.");
  bind_name_list(port, [](const PortView& v) -> const std::vector<std::string>& { return v.list().names(); });
  port.def("__setitem__",
           [](PortView& v, py::ssize_t i, py::object name) { v.list().set(v.index(i), text_of(name)); })
      .def("__setitem__",
           [](PortView& v, py::slice s, py::object seq) {
             // Python's own list decides what the slice assignment means
             // (and refuses a length mismatch on an extended slice).
             py::list names = str_list(v.list().names());
             names[s] = py::list(str_list(names_of(seq)));
             v.list().assign(names_of(names));
           })
      .def("__delitem__", [](PortView& v, py::ssize_t i) { v.list().erase(v.index(i)); })
      .def("__delitem__",
           [](PortView& v, py::slice s) {
             py::ssize_t start = 0, stop = 0, step = 0, count = 0;
             if (!s.compute(static_cast<py::ssize_t>(v.list().size()), &start, &stop, &step, &count))
               throw py::error_already_set();
             std::vector<size_t> drop;
             for (py::ssize_t k = 0; k < count; ++k) drop.push_back(static_cast<size_t>(start + k * step));
             std::sort(drop.rbegin(), drop.rend());  // from the back: earlier indices stay put
             for (size_t i : drop) v.list().erase(i);
           })
      .def("__contains__", [](const PortView& v, py::object t) {
        return py::isinstance<py::str>(t) && v.list().contains(t.cast<std::string>());
      })
      .def("__add__", [](const PortView& v, py::object seq) {
        py::list out = str_list(v.list().names());
        for (const auto& t : names_of(seq)) out.append(py::str(t));
        return out;
      })
      .def("__radd__", [](const PortView& v, py::object seq) {
        py::list out = str_list(names_of(seq));
        for (const auto& t : v.list().names()) out.append(py::str(t));
        return out;
      })
      .def("append", [](PortView& v, py::object t) { v.list().push_back(text_of(t)); })
      .def("extend",
           [](PortView& v, py::object seq) {
             for (const auto& t : names_of(seq)) v.list().push_back(t);  // names_of copies: seq may be v
           })
      .def("insert",
           [](PortView& v, py::ssize_t i, py::object name) {
             std::vector<std::string> names = v.list().names();
             const auto n = static_cast<py::ssize_t>(names.size());
             if (i < 0) i = std::max<py::ssize_t>(i + n, 0);
             i = std::min(i, n);
             names.insert(names.begin() + i, text_of(name));
             v.list().assign(names);
           })
      .def("pop",
           [](PortView& v, py::ssize_t i) {
             if (v.list().empty()) throw py::index_error("pop from empty list");
             const size_t at = v.index(i);
             std::string t = v.list()[at];
             v.list().erase(at);
             return t;
           },
           py::arg("i") = -1)
      .def("remove",
           [](PortView& v, py::object name) {
             const std::string t = text_of(name);
             const auto& names = v.list().names();
             auto it = std::find(names.begin(), names.end(), t);
             if (it == names.end()) throw py::value_error("'" + t + "' is not in list");
             v.list().erase(static_cast<size_t>(it - names.begin()));
           })
      .def("clear", [](PortView& v) { v.list().resize(0); })
      .def("copy", [](const PortView& v) { return str_list(v.list().names()); });

  // ---- nodes ----------------------------------------------------------------
  py::class_<Node, NodePtr> node(m, "Node", "An operator node of the graph.");
  node.def(py::init([](const std::string& op_type, py::object inputs, py::object outputs,
                       const std::string& name, const std::string& domain, py::kwargs attrs) {
             std::vector<Attr> av;
             for (auto item : attrs) av.push_back(attr_from_python(item.first.cast<std::string>(), item.second));
             return Node::make(op_type, names_of(inputs), names_of(outputs), name, av, domain);
           }),
           py::arg("op_type"), py::arg("inputs") = py::list(), py::arg("outputs") = py::list(),
           py::arg("name") = "", py::arg("domain") = "")
      .def_static("from_proto", &node_from_python, py::arg("node_proto"))
      .def_property(
          "op_type", [](const Node& n) { return n.op_type(); },
          [](Node& n, const std::string& op_type) { n.set_op_type(op_type); })
      .def_readwrite("domain", &Node::domain)
      .def_readwrite("doc_string", &Node::doc_string)
      .def_property(
          "name", [](const Node& n) { return n.name(); },
          // The graph keeps node names unique and indexed: the rename goes
          // through it.
          [](Node& n, const std::string& name) { n.set_name(name); })
      .def_property(
          "input", [](NodePtr n) { return PortView{n, false}; },
          [](NodePtr n, py::object seq) { n->input.assign(names_of(seq)); })
      .def_property(
          "output", [](NodePtr n) { return PortView{n, true}; },
          [](NodePtr n, py::object seq) { n->output.assign(names_of(seq)); })
      .def_property_readonly("attribute", [](const Node& n) { return n.attribute(); })
      .def("clone", &Node::clone, "Deep copy outside any graph, same names and attributes.")
      .def_property_readonly("in_graph", [](const Node& n) { return n.graph() != nullptr; })
      .def("__eq__", [](const Node& a, py::object b) {
        return py::isinstance<Node>(b) && &b.cast<const Node&>() == &a;
      })
      .def("__ne__", [](const Node& a, py::object b) {
        return !(py::isinstance<Node>(b) && &b.cast<const Node&>() == &a);
      })
      .def("__hash__", [](const Node& n) { return std::hash<const Node*>()(&n); })
      .def("__repr__", [](const Node& n) {
        std::string s = "Node(" + n.op_type() + " '" + n.name() + "': [";
        for (size_t i = 0; i < n.input.size(); ++i) s += (i ? ", " : "") + n.input[i];
        s += "] -> [";
        for (size_t i = 0; i < n.output.size(); ++i) s += (i ? ", " : "") + n.output[i];
        return s + "])";
      });

  // ---- graph-side views --------------------------------------------------------
  py::class_<IOView> io(m, "GraphIO", "The graph's input or output tensor names.");
  bind_name_list(io, [](const IOView& v) -> const std::vector<std::string>& { return v.names(); });
  io.def("__contains__", [](const IOView& v, py::object t) {
      if (!py::isinstance<py::str>(t)) return false;
      const std::string s = t.cast<std::string>();
      return v.out ? v.ir->is_output(s) : v.ir->is_input(s);
    })
      .def("append", [](IOView& v, const std::string& t) {
        if (v.out)
          v.ir->add_graph_output(t);
        else
          v.ir->add_graph_input(t);
      });

  py::class_<ConstsView>(m, "Consts", "The graph's constants by tensor name.")
      .def("__contains__", [](const ConstsView& v, py::object t) {
        return py::isinstance<py::str>(t) && v.ir->is_const(t.cast<std::string>());
      })
      .def("__getitem__",
           [](const ConstsView& v, const std::string& t) {
             const NDArray* a = v.ir->get_const(t);
             if (!a) throw py::key_error(t);
             return to_numpy(*a);
           })
      .def("__setitem__", [](ConstsView& v, const std::string& t, py::object value) {
        v.ir->set_const(t, from_python(value));
      })
      .def("__delitem__",
           [](ConstsView& v, const std::string& t) {
             if (!v.ir->is_const(t)) throw py::key_error(t);
             v.ir->erase_const(t);
           })
      .def("get",
           [](const ConstsView& v, const std::string& t, py::object dflt) -> py::object {
             const NDArray* a = v.ir->get_const(t);
             return a ? to_numpy(*a) : dflt;
           },
           py::arg("name"), py::arg("default") = py::none())
      .def("__len__", [](const ConstsView& v) { return v.ir->consts().size(); })
      .def("keys", [](const ConstsView& v) {
        py::list out;
        for (const auto& kv : v.ir->consts()) out.append(py::str(kv.first));
        return out;
      })
      .def("__iter__", [](const ConstsView& v) {
        py::list out;
        for (const auto& kv : v.ir->consts()) out.append(py::str(kv.first));
        return py::iter(out);
      });

  py::class_<Operand>(m, "Operand", "A tensor's record: name, shape and element type.")
      .def_readonly("name", &Operand::name)
      .def_property(
          "shape", [](const Operand& o) { return shape_or_none(*o.ir, o.name); },
          [](Operand& o, py::object shape) {
            if (shape.is_none())
              o.ir->clear_shape(o.name);
            else
              o.ir->set_shape(o.name, to_shape(shape), false);
          })
      .def_property(
          "dtype", [](const Operand& o) { return numpy_dtype(o.ir->get_dtype(o.name)); },
          [](Operand& o, py::object d) { o.ir->set_dtype(o.name, dtype_code(d)); });

  py::class_<OperandsView>(m, "Operands", "Tensor records by name.")
      .def("__getitem__",
           [](const OperandsView& v, const std::string& t) {
             if (!v.ir->has_tensor(t) && !v.ir->is_const(t)) throw py::key_error(t);
             return Operand{{v.ir}, t};
           })
      .def("__contains__", [](const OperandsView& v, const std::string& t) {
        return v.ir->has_tensor(t) || v.ir->is_const(t);
      });

  py::class_<PauseList> pause_list(m, "PauseList", "Node names paused under one rule key.");
  bind_name_list(pause_list, [](const PauseList& v) -> const std::vector<std::string>& { return v.current(); });
  pause_list.def("append", [](PauseList& v, const std::string& s) { v.names().push_back(s); })
      .def("extend", [](PauseList& v, py::object seq) {
        for (const auto& s : names_of(seq)) v.names().push_back(s);
      })
      .def("__contains__", [](const PauseList& v, py::object t) {
        if (!py::isinstance<py::str>(t)) return false;
        const std::string s = t.cast<std::string>();
        for (const auto& x : v.current())
          if (x == s) return true;
        return false;
      })
      .def("__setitem__",
           [](PauseList& v, py::ssize_t i, const std::string& s) {
             const auto n = static_cast<py::ssize_t>(v.current().size());
             if (i < 0) i += n;
             if (i < 0 || i >= n) throw py::index_error("index out of range");
             v.names()[static_cast<size_t>(i)] = s;
           })
      .def("clear", [](PauseList& v) {
        if (!v.current().empty()) v.names().clear();
      });

  py::class_<PauseMap>(m, "PauseMap", "Rule key -> names of nodes a rule should not start from.")
      .def("__contains__", [](const PauseMap& v, py::object k) {
        return py::isinstance<py::str>(k) && v.ir->op_ruler_pause.count(k.cast<std::string>()) != 0;
      })
      .def("__getitem__",
           [](const PauseMap& v, const std::string& k) {
             if (!v.ir->op_ruler_pause.count(k)) throw py::key_error(k);
             return PauseList{{v.ir}, k};
           })
      .def("__setitem__", [](PauseMap& v, const std::string& k,
                             py::object seq) { v.ir->op_ruler_pause[k] = names_of(seq); })
      .def("__delitem__",
           [](PauseMap& v, const std::string& k) {
             if (!v.ir->op_ruler_pause.erase(k)) throw py::key_error(k);
           })
      .def("get",
           [](const PauseMap& v, const std::string& k, py::object dflt) -> py::object {
             if (!v.ir->op_ruler_pause.count(k)) return dflt;
             return py::cast(PauseList{{v.ir}, k});
           },
           py::arg("key"), py::arg("default") = py::none())
      .def("setdefault",
           [](PauseMap& v, const std::string& k, py::object dflt) {
             if (!v.ir->op_ruler_pause.count(k))
               v.ir->op_ruler_pause[k] = dflt.is_none() ? std::vector<std::string>{} : names_of(dflt);
             return PauseList{{v.ir}, k};
           },
           py::arg("key"), py::arg("default") = py::none())
      .def("__len__", [](const PauseMap& v) { return v.ir->op_ruler_pause.size(); })
      .def("__iter__", [](const PauseMap& v) {
        py::list keys;
        for (const auto& kv : v.ir->op_ruler_pause) keys.append(py::str(kv.first));
        return py::iter(keys);
      })
      .def("keys", [](const PauseMap& v) {
        py::list keys;
        for (const auto& kv : v.ir->op_ruler_pause) keys.append(py::str(kv.first));
        return keys;
      })
      .def("items", [](const PauseMap& v) {
        py::list out;
        for (const auto& kv : v.ir->op_ruler_pause) out.append(py::make_tuple(kv.first, str_list(kv.second)));
        return out;
      })
      .def("to_dict", [](const PauseMap& v) { return v.ir->op_ruler_pause; })
      .def("clear", [](PauseMap& v) { v.ir->op_ruler_pause.clear(); })
      .def("__eq__", [](const PauseMap& v, py::object o) {
        return py::isinstance<py::dict>(o) && py::cast(v.ir->op_ruler_pause).equal(o);
      })
      .def("__repr__", [](const PauseMap& v) { return py::repr(py::cast(v.ir->op_ruler_pause)).cast<std::string>(); });

  py::class_<DepSet>(m, "DependencySet", "Tensors computed upstream of one node.")
      .def("__contains__", [](const DepSet& d, py::object t) {
        return py::isinstance<py::str>(t) && d.ir->depends_on(*d.node, t.cast<std::string>());
      });

  py::class_<DepMap>(m, "DependencyMap", "Node name -> tensors its inputs are computed from.")
      .def("__getitem__",
           [](const DepMap& v, const std::string& name) {
             NodePtr n = v.ir->find_node(name);
             if (!n) throw py::key_error(name);
             return DepSet{{v.ir}, n};
           })
      .def("__contains__", [](const DepMap& v, py::object name) {
        return py::isinstance<py::str>(name) && v.ir->find_node(name.cast<std::string>()) != nullptr;
      })
      .def("__len__", [](const DepMap& v) { return v.ir->node_count(); })
      .def("__iter__", [](const DepMap& v) { return py::iter(node_names(*v.ir)); });

  py::class_<ValueInfoRecord>(m, "ValueInfo", "A value_info record held from the model.")
      .def_readonly("name", &ValueInfoRecord::name)
      .def("__eq__", [](const ValueInfoRecord& a, py::object b) {
        return py::isinstance<ValueInfoRecord>(b) && b.cast<const ValueInfoRecord&>().name == a.name;
      })
      .def("__repr__", [](const ValueInfoRecord& r) { return "ValueInfo('" + r.name + "')"; });

  py::class_<ValueInfoList>(m, "ValueInfoList", "The value_info records of the graph.")
      .def("__len__", [](const ValueInfoList& v) { return v.ir->value_info().size(); })
      .def("__getitem__",
           [](const ValueInfoList& v, py::ssize_t i) {
             const auto& names = v.ir->value_info();
             const auto n = static_cast<py::ssize_t>(names.size());
             if (i < 0) i += n;
             if (i < 0 || i >= n) throw py::index_error("index out of range");
             return ValueInfoRecord{names[static_cast<size_t>(i)]};
           })
      .def("__iter__", [](const ValueInfoList& v) {
        py::list out;
        for (const auto& s : v.ir->value_info()) out.append(py::cast(ValueInfoRecord{s}));
        return py::iter(out);
      })
      .def("__contains__", [](const ValueInfoList& v, py::object r) {
        const std::string name = record_name(r);
        for (const auto& s : v.ir->value_info())
          if (s == name) return true;
        return false;
      })
      .def("remove",
           [](ValueInfoList& v, py::object r) {
             const std::string name = record_name(r);
             if (!v.ir->erase_value_info(name)) throw py::value_error("no value_info record '" + name + "'");
           })
      .def("__delitem__", [](ValueInfoList& v, py::ssize_t i) {
        std::vector<std::string> names = v.ir->value_info();
        const auto n = static_cast<py::ssize_t>(names.size());
        if (i < 0) i += n;
        if (i < 0 || i >= n) throw py::index_error("index out of range");
        names.erase(names.begin() + i);
        v.ir->set_value_info(std::move(names));
      });

  py::class_<GraphView>(m, "GraphBody", "The graph body: nodes and value_info records.")
      .def_property_readonly("value_info", [](const GraphView& g) { return ValueInfoList{{g.ir}}; })
      .def_property_readonly("node", [](const GraphView& g) { return nodes_to_python(g.ir->node()); })
      .def_property_readonly("input", [](const GraphView& g) { return str_list(g.ir->inputs()); })
      .def_property_readonly("output", [](const GraphView& g) { return str_list(g.ir->outputs()); });

  // ---- the graph ----------------------------------------------------------------
  py::class_<IR, std::shared_ptr<IR>> ir(m, "IRGraph", "The IR graph that rules work on.");
  ir.def(py::init(&load), py::arg("model"), py::arg("input_shapes") = py::none(),
         py::arg("target") = "npu_c", py::arg("infer_shapes") = true, py::arg("external_data_dir") = py::none())
      .def(py::init([]() { return std::make_shared<IR>(); }))
      // shapes and types
      .def("get_shape", [](const IR& g, const std::string& t) { return shape_or_none(g, t); }, py::arg("t"))
      .def("has_shape", &IR::has_shape, py::arg("t"))
      .def("op_counts",
           [](const IR& g) {
             std::map<std::string, int64_t> counts;
             g.for_each_node([&](const NodePtr& n) { ++counts[n->op_type()]; });
             return counts;
           },
           "Number of nodes of each op type, by op type.")
      .def("set_shape",
           [](IR& g, const std::string& t, py::object shape, bool check_size, py::object dtype) {
             if (shape.is_none()) {
               g.clear_shape(t);
               if (!dtype.is_none()) g.set_dtype(t, dtype_code(dtype));
               return;
             }
             g.set_shape(t, to_shape(shape), check_size, dtype_code(dtype));
           },
           py::arg("t"), py::arg("shape"), py::arg("check_size") = true, py::arg("dtype") = py::none())
      .def("get_dtype", [](const IR& g, const std::string& t) { return numpy_dtype(g.get_dtype(t)); }, py::arg("t"))
      .def("set_dtype", [](IR& g, const std::string& t, py::object d) { g.set_dtype(t, dtype_code(d)); },
           py::arg("t"), py::arg("dtype"))
      // attributes
      .def("get_attr",
           [](const IR&, const Node& n, const std::string& key) -> py::object {
             const Attr* a = IR::get_attr(n, key);
             return a ? attr_value(*a) : py::none();
           },
           py::arg("node"), py::arg("key"))
      .def("set_attr",
           [](IR& g, Node& n, const std::string& key, py::object value) {
             g.set_attr(n, attr_from_python(key, value));
           },
           py::arg("node"), py::arg("key"), py::arg("value"))
      .def("same_attr", [](const IR&, const Node& a, const Node& b) { return IR::same_attr(a, b); })
      // constants
      .def("get_const",
           [](const IR& g, const std::string& t) -> py::object {
             const NDArray* a = g.get_const(t);
             return a ? to_numpy(*a) : py::none();
           },
           py::arg("t"))
      .def("get_const_optional",
           [](const IR& g, const Node& n, py::ssize_t i) -> py::object {
             if (i < 0) i += static_cast<py::ssize_t>(n.input.size());
             if (i < 0) return py::none();
             const NDArray* a = g.get_const_optional(n, static_cast<size_t>(i));
             return a ? to_numpy(*a) : py::none();
           },
           py::arg("node"), py::arg("i"))
      .def("set_const",
           [](IR& g, const std::string& t, py::object value, py::object dtype) {
             g.set_const(t, from_python(value, dtype_code(dtype)));
           },
           py::arg("t"), py::arg("value"), py::arg("dtype") = py::none())
      .def_property_readonly("consts", [](std::shared_ptr<IR> g) { return ConstsView{{g}}; })
      // connectivity
      .def("next_nodes", [](const IR& g, py::object x) { return nodes_to_python(neighbours(g, x, true)); },
           py::arg("x"))
      .def("pre_nodes", [](const IR& g, py::object x) { return nodes_to_python(neighbours(g, x, false)); },
           py::arg("x"))
      .def("producer", [](const IR& g, const std::string& t) { return g.producer(t); }, py::arg("t"))
      .def("use_count", &IR::use_count, py::arg("t"))
      .def("set_input",
           [](IR& g, Node& n, size_t i, const std::string& t) {
             if (i >= n.input.size()) throw py::index_error("input index out of range");
             g.set_input(n, i, t);
           },
           py::arg("node"), py::arg("i"), py::arg("t"))
      .def("set_output",
           [](IR& g, Node& n, size_t i, const std::string& t) {
             if (i >= n.output.size()) throw py::index_error("output index out of range");
             g.set_output(n, i, t);
           },
           py::arg("node"), py::arg("i"), py::arg("t"))
      .def_property_readonly("inputs", [](std::shared_ptr<IR> g) { return IOView{{g}, false}; })
      .def_property_readonly("outputs", [](std::shared_ptr<IR> g) { return IOView{{g}, true}; })
      .def("add_graph_input", &IR::add_graph_input)
      .def("add_graph_output", &IR::add_graph_output)
      .def("has_tensor", &IR::has_tensor)
      // nodes
      .def_property_readonly("node", [](const IR& g) { return nodes_to_python(g.node()); })
      .def("node_count", &IR::node_count)
      .def("find_node", [](const IR& g, const std::string& name) { return g.find_node(name); })
      .def("add_node", [](IR& g, py::object n) { g.add_node(node_from_python(n)); })
      .def("remove_node", [](IR& g, Node& n) { g.remove_node(n); })
      .def("unique_tensor_name", &IR::unique_tensor_name)
      .def("unique_node_name", &IR::unique_node_name)
      .def("depends_on", &IR::depends_on, py::arg("node"), py::arg("t"))
      .def_property_readonly("operands", [](std::shared_ptr<IR> g) { return OperandsView{{g}}; })
      .def_property_readonly("graph", [](std::shared_ptr<IR> g) { return GraphView{{g}}; })
      .def_property_readonly("node_dependency_map", [](std::shared_ptr<IR> g) { return DepMap{{g}}; })
      // model facts and rule state
      .def_property("opset", &IR::opset, &IR::set_opset)
      .def_readwrite("npu_target", &IR::npu_target)
      .def_readwrite("qat", &IR::qat)
      .def_property(
          "dynamic_shapes",
          [](const IR& g) -> py::object {
            if (g.dynamic_shapes.empty()) return py::none();
            return py::cast(g.dynamic_shapes);
          },
          [](IR& g, py::object v) {
            g.dynamic_shapes.clear();
            if (v.is_none()) return;
            for (auto item : py::reinterpret_borrow<py::dict>(v)) {
              std::vector<Shape> sets;
              for (py::handle s : item.second) sets.push_back(to_shape(s));
              g.dynamic_shapes[text_of(item.first)] = std::move(sets);
            }
          })
      .def_readwrite("dynamic_idx", &IR::dynamic_idx)
      .def_property(
          "tmp_reduce_tp_cache",
          [](const IR& g) -> py::list {
            py::list out;
            const TpCache& c = g.tmp_reduce_tp_cache;
            if (!c.set) return out;
            out.append(str_list(c.free_tensors));
            out.append(str_list(c.block_tensors));
            out.append(py::str(c.most_perm));
            return out;
          },
          [](IR& g, py::object v) {
            TpCache c;
            if (!v.is_none() && py::len(v) != 0) {
              py::sequence s = py::reinterpret_borrow<py::sequence>(v);
              if (s.size() != 3)
                throw py::value_error("tmp_reduce_tp_cache holds [free tensors, block tensors, perm]");
              c.set = true;
              c.free_tensors = names_of(s[0]);
              c.block_tensors = names_of(s[1]);
              c.most_perm = text_of(s[2]);
            }
            g.tmp_reduce_tp_cache = c;
          })
      .def_property(
          "op_ruler_pause", [](std::shared_ptr<IR> g) { return PauseMap{{g}}; },
          [](IR& g, py::object v) {
            g.op_ruler_pause.clear();
            for (auto item : py::reinterpret_borrow<py::dict>(v))
              g.op_ruler_pause[text_of(item.first)] = names_of(item.second);
          })
      // whole-graph operations
      .def("infer_shapes", [](IR& g) { infer_missing(g); },
           "Infers the shapes and types of tensors that hold none.")
      .def("apply",
           [](IR& g, py::object remove, py::object add) {
             RuleResult r{nodes_from_python(remove), nodes_from_python(add)};
             apply_result(g, r);
           },
           py::arg("remove"), py::arg("add"),
           "Applies one rule result as the driver does; `add` may hold onnx.NodeProto objects.")
      .def("to_bytes", [](const IR& g) { return py::bytes(save_model(g)); },
           "The graph as a serialized onnx.ModelProto.")
      .def("save",
           [](const IR& g, py::object path, py::object data_path, int64_t min_external_bytes) {
             py::module_ os = py::module_::import("os");
             const std::string out = os.attr("fspath")(path).cast<std::string>();
             SaveOptions opt;
             opt.min_external_bytes = min_external_bytes;
             if (!data_path.is_none()) {
               opt.data_path = os.attr("fspath")(data_path).cast<std::string>();
               opt.data_location = os.attr("path").attr("basename")(data_path).cast<std::string>();
             }
             py::gil_scoped_release nogil;
             const std::string bytes = save_model(g, opt);
             std::ofstream f(out, std::ios::binary | std::ios::trunc);
             if (!f || !f.write(bytes.data(), static_cast<std::streamsize>(bytes.size())) || !f.flush())
               throw std::runtime_error("cannot write " + out);
             return static_cast<int64_t>(bytes.size());
           },
           py::arg("path"), py::arg("data_path") = py::none(), py::arg("min_external_bytes") = 1024,
           "Writes the model to `path`; with `data_path` (a file in the same folder), tensors of at\n"
           "least `min_external_bytes` go to that file instead. Returns the model file's size.")
      .def("constant_bytes", &constant_bytes, "Bytes of tensor data the constants hold.")
      .def_property_readonly("load_info",
                             [](const IR& g) {
                               py::dict d;
                               d["file_ops"] = py::cast(g.load_info.file_ops);
                               d["constant_nodes"] = g.load_info.constant_nodes;
                               d["external_tensors"] = g.load_info.external_tensors;
                               d["external_bytes"] = g.load_info.external_bytes;
                               return d;
                             },
                             "What the model file held before load: nodes by op type, Constant nodes\n"
                             "taken in as constants, tensors and bytes read from external data files.")
      .def_property_readonly("model_shell", [](const IR& g) { return py::bytes(g.model_shell); });
}

}  // namespace bind
}  // namespace tolm
