// The rule tables, every rule procedure by name, the driver and the logger.
// A quantisation table passed from Python as a dict is converted for the call
// and every change the rule made is written back into that same dict.
#include <algorithm>
#include <cmath>
#include <memory>
#include <set>

#include "bindings/bindings.h"
#include "host/log.h"
#include "host/op_lists.h"
#include "layout/layout.h"
#include "reduce/driver.h"
#include "reduce/tables.h"

namespace tolm {
namespace bind {

namespace {

std::vector<double> range_values(py::handle v) {
  py::module_ np = py::module_::import("numpy");
  py::array_t<double, py::array::c_style | py::array::forcecast> a(
      np.attr("asarray")(v, py::arg("dtype") = "float64").attr("ravel")());
  return std::vector<double>(a.data(), a.data() + a.size());
}

bool is_scalar(py::handle v) {
  return py::isinstance<py::float_>(v) || py::isinstance<py::int_>(v) ||
         py::isinstance(v, py::module_::import("numpy").attr("number"));
}

QuantRecord record_from_python(const std::string& key, py::handle rec) {
  if (!py::isinstance<py::dict>(rec))
    throw py::type_error("quant_tab['" + key + "'] must be a dict with 'min', 'max', 'name'");
  py::dict d = py::reinterpret_borrow<py::dict>(rec);
  QuantRecord q;
  if (d.contains("min") && !d["min"].is_none()) q.min = range_values(d["min"]);
  if (d.contains("max") && !d["max"].is_none()) q.max = range_values(d["max"]);
  if (d.contains("name") && !d["name"].is_none()) q.name = py::str(d["name"]).cast<std::string>();
  return q;
}

// A range goes back as a float where the caller gave a number (or for a new
// record of one value), else as a list.
py::object range_to_python(const std::vector<double>& v, bool scalar) {
  if (scalar && v.size() == 1) return py::float_(v[0]);
  return py::cast(v);
}

bool same_record(const QuantRecord& a, const QuantRecord& b) {
  return a.min == b.min && a.max == b.max && a.name == b.name;
}

// Holds the converted table for one call and writes the result back.
class QuantBridge {
 public:
  explicit QuantBridge(py::object obj) : obj_(std::move(obj)) {
    if (obj_.is_none()) return;
    if (!py::isinstance<py::dict>(obj_)) throw py::type_error("quant_tab must be a dict or None");
    for (auto item : py::reinterpret_borrow<py::dict>(obj_)) {
      const std::string key = py::str(item.first).cast<std::string>();
      QuantRecord q = record_from_python(key, item.second);
      before_[key] = q;
      table_[key] = std::move(q);
    }
  }

  QuantTable* table() { return obj_.is_none() ? nullptr : &table_; }

  void write_back() {
    if (obj_.is_none()) return;
    py::dict d = py::reinterpret_borrow<py::dict>(obj_);
    for (const auto& kv : before_) {
      if (!table_.count(kv.first)) d.attr("pop")(py::str(kv.first), py::none());
    }
    for (const auto& kv : table_) {
      auto old = before_.find(kv.first);
      if (old != before_.end() && same_record(old->second, kv.second)) continue;
      const QuantRecord& q = kv.second;
      py::object key = py::str(kv.first);
      py::object rec = d.contains(key) ? py::object(d[key]) : py::object(py::dict());
      bool min_scalar = true, max_scalar = true;
      if (d.contains(key)) {
        py::dict r = py::reinterpret_borrow<py::dict>(rec);
        min_scalar = r.contains("min") && is_scalar(r["min"]);
        max_scalar = r.contains("max") && is_scalar(r["max"]);
      }
      rec["min"] = range_to_python(q.min, min_scalar);
      rec["max"] = range_to_python(q.max, max_scalar);
      rec["name"] = py::str(q.name);
      d[key] = rec;
    }
  }

 private:
  py::object obj_;
  QuantTable table_;
  QuantTable before_;
};

py::tuple call_proc(RuleProc proc, IR& ir, py::handle nodes, py::object quant_tab) {
  NodeList list = nodes_from_python(nodes);
  QuantBridge q(quant_tab);
  RuleResult r = proc(ir, list, q.table());
  q.write_back();
  return py::make_tuple(nodes_to_python(r.remove), nodes_to_python(r.add));
}

py::object make_proc(const std::string& name, RuleProc proc) {
  return py::cpp_function(
      [proc](IR& ir, py::object nodes, py::object quant_tab) { return call_proc(proc, ir, nodes, quant_tab); },
      py::name(name.c_str()), py::arg("ir"), py::arg("nodes"), py::arg("quant_tab") = py::none(),
      "Rule procedure: returns (remove, add).");
}

// The mesh rule in its full form: the search direction and the nodes an
// earlier attempt found unable to follow the layout. Returns (remove, add),
// or ([], [], refused node names) when nodes of the mesh refused the layout.
py::object make_mesh_proc() {
  return py::cpp_function(
      [](IR& ir, py::object nodes, py::object quant_tab, const std::string& direction,
         py::object refused) -> py::tuple {
        if (direction != "forward" && direction != "backward")
          throw py::value_error("direction must be 'forward' or 'backward', got '" + direction + "'");
        Names excluded;
        if (!refused.is_none()) {
          if (py::isinstance<py::str>(refused))
            throw py::type_error("last_time_tp_change_unsupport_op must be a list of node names");
          for (py::handle h : refused) {
            if (!py::isinstance<py::str>(h))
              throw py::type_error("last_time_tp_change_unsupport_op must be a list of node names, got " +
                                   py::repr(h).cast<std::string>());
            excluded.push_back(h.cast<std::string>());
          }
        }
        NodeList list = nodes_from_python(nodes);
        QuantBridge q(quant_tab);
        MeshResult r = _p_reduce_tp_in_mesh(ir, list, q.table(), direction, excluded);
        q.write_back();
        if (r.has_unsupported) return py::make_tuple(py::list(), py::list(), py::cast(r.unsupported));
        return py::make_tuple(nodes_to_python(r.remove), nodes_to_python(r.add));
      },
      py::name("_p_reduce_tp_in_mesh"), py::arg("ir"), py::arg("nodes"), py::arg("quant_tab") = py::none(),
      py::arg("direction") = "forward", py::arg("last_time_tp_change_unsupport_op") = py::list(),
      "Mesh rule: returns (remove, add), or ([], [], refused node names).");
}

py::object make_unavailable(const std::string& key) {
  const std::string msg = "rule " + key + " is not available in this build";
  return py::cpp_function(
      [msg](py::object, py::object, py::object) -> py::object { throw std::runtime_error(msg); },
      py::name("unavailable"), py::arg("ir"), py::arg("nodes"), py::arg("quant_tab") = py::none());
}

py::object build_table(const std::vector<Row>& rows, const py::dict& procs) {
  py::object table = py::module_::import("collections").attr("OrderedDict")();
  for (const Row& row : rows) {
    py::dict r;
    r["ops"] = py::cast(row.ops);
    if (row.proc && procs.contains(row.proc_name))
      r["proc"] = procs[py::str(row.proc_name)];
    else if (row.proc)
      r["proc"] = make_proc(row.proc_name, row.proc);
    else
      r["proc"] = make_unavailable(row.key);
    if (!row.n_pre_nodes.empty()) r["n_pre_nodes"] = py::cast(row.n_pre_nodes);
    if (row.has_limit) r["limit"] = py::bool_(true);
    if (row.has_q_equal) r["q_equal"] = py::bool_(false);
    table[py::str(row.key)] = r;
  }
  return table;
}

// Nodes the size limits kept that are still in the graph, by name.
py::dict fold_to_python(const IR& ir, const FoldStats& f) {
  py::dict d;
  d["steps"] = f.steps;
  d["removed_nodes"] = f.removed_nodes;
  d["folded"] = py::cast(f.folded);
  d["fusions"] = py::cast(f.fusions);
  py::list kept;
  for (const auto& name : f.kept_by_size)
    if (ir.find_node(name)) kept.append(py::str(name));
  d["kept_by_size"] = kept;
  return d;
}

FoldOptions fold_options(bool gemm, int64_t max_bytes) {
  FoldOptions o;
  o.matmul_add_to_gemm = gemm;
  if (max_bytes >= 0) o.max_bytes = max_bytes;
  o.free_bytes = std::min(o.free_bytes, o.max_bytes);
  return o;
}

py::dict stats_to_python(const IR& ir, const DriverStats& s) {
  py::dict d;
  d["fired"] = py::cast(s.fired);
  d["rewrites"] = s.rewrites;
  d["attempts"] = s.attempts;
  d["pruned_nodes"] = s.pruned_nodes;
  d["converged"] = s.converged;
  d["rule_faults"] = py::cast(s.rule_faults);
  d["fold"] = fold_to_python(ir, s.fold);
  d["rule_seconds"] = py::cast(s.rule_seconds);
  d["rounds"] = s.rounds;
  d["subgraph_nodes_removed"] = s.subgraph_nodes_removed;
  return d;
}

// A list of row keys from Python: a list, tuple or set of strings.
std::set<std::string> row_keys(py::object keys, const char* what) {
  std::set<std::string> out;
  if (keys.is_none()) return out;
  if (py::isinstance<py::str>(keys) || !py::hasattr(keys, "__iter__"))
    throw py::type_error(std::string(what) + " must be a list of rule keys");
  for (py::handle h : keys) {
    if (!py::isinstance<py::str>(h))
      throw py::type_error(std::string(what) + " must be a list of rule keys, got " + py::repr(h).cast<std::string>());
    out.insert(h.cast<std::string>());
  }
  check_row_keys(out, what);
  return out;
}

// The Python log sink lives in a heap object that is never freed: the logger
// outlives the interpreter, and a py::object destroyed after it would crash.
py::object* python_sink = nullptr;

}  // namespace

void init_rules(py::module& m) {
  py::register_exception<RuleError>(m, "RuleError", PyExc_RuntimeError);
  py::dict procs;
  for (const ProcEntry& e : rule_procs()) {
    if (!e.proc) continue;
    py::object f = make_proc(e.name, e.proc);
    procs[py::str(e.name)] = f;
    m.attr(e.name.c_str()) = f;
  }
  {
    py::object mesh = make_mesh_proc();
    procs["_p_reduce_tp_in_mesh"] = mesh;
    m.attr("_p_reduce_tp_in_mesh") = mesh;
  }
  m.attr("fuse_reduce") = build_table(fuse_reduce(), procs);
  m.attr("cvt_reduce") = build_table(cvt_reduce(), procs);

  m.def("unavailable_rules", &unavailable_rules, "Keys of the rows whose procedure this build lacks.");
  m.def("rule_procs",
        []() {
          py::dict d;
          for (const ProcEntry& e : rule_procs()) d[py::str(e.name)] = py::bool_(e.proc != nullptr);
          return d;
        },
        "Every rule procedure by name -> whether this build has it.");

  m.def("rule_rows",
        []() {
          py::list out;
          for (const char* name : {"cvt_reduce", "fuse_reduce"}) {
            const auto& table = std::string(name) == "cvt_reduce" ? cvt_reduce() : fuse_reduce();
            for (const Row& r : table) {
              py::dict d;
              d["key"] = r.key;
              d["table"] = name;
              d["ops"] = py::cast(r.ops);
              d["proc"] = r.proc_name;
              d["available"] = r.proc != nullptr;
              out.append(d);
            }
          }
          return out;
        },
        "Every table row in the order the driver tries them (cvt_reduce first): key, table,\n"
        "ops, procedure name and whether this build has the procedure.");
  m.def("run_reduce",
        [](IR& ir, py::object quant_tab, int64_t max_rewrites, bool prune, bool strict, bool fold,
           bool matmul_add_to_gemm, int64_t fold_max_bytes, py::object skip, py::object only,
           py::object progress, bool subgraphs) {
          DriverOptions opt;
          opt.subgraphs = subgraphs;
          opt.skip = row_keys(skip, "skip");
          opt.only = row_keys(only, "only");
          if (!progress.is_none()) {
            opt.progress = [progress](const std::string& what) {
              py::gil_scoped_acquire gil;
              progress(what);
            };
          }
          QuantBridge q(quant_tab);
          opt.max_rewrites = max_rewrites;
          opt.prune = prune;
          opt.strict = strict;
          opt.fold = fold;
          opt.fold_options = fold_options(matmul_add_to_gemm, fold_max_bytes);
          DriverStats s;
          {
            py::gil_scoped_release nogil;
            s = run_reduce(ir, q.table(), opt);
          }
          q.write_back();
          return stats_to_python(ir, s);
        },
        py::arg("ir"), py::arg("quant_tab") = py::none(), py::arg("max_rewrites") = 0,
        py::arg("prune") = true, py::arg("strict") = false, py::arg("fold") = true,
        py::arg("matmul_add_to_gemm") = false, py::arg("fold_max_bytes") = -1, py::arg("skip") = py::none(),
        py::arg("only") = py::none(), py::arg("progress") = py::none(), py::arg("subgraphs") = true,
        "Runs cvt_reduce then fuse_reduce until nothing applies; returns the statistics.\n"
        "skip: row keys to leave out; only: when given, the only row keys to run (unknown keys\n"
        "raise ValueError); progress: called with a line of text after the fold pass and each round;\n"
        "subgraphs: also reduce the bodies of If, Loop and Scan nodes.\n"
        "strict: a rule that throws, or edits the graph and then does not apply, raises\n"
        "RuleError instead of being undone and reported in 'rule_faults'.\n"
        "fold: fold constants and apply the standard fusions, before the tables and\n"
        "whenever a rewrite leaves a node that folds; matmul_add_to_gemm: also fuse\n"
        "MatMul + constant Add into Gemm; fold_max_bytes: largest folded result kept\n"
        "as a constant (default 1 MB; -1 for the default).");
  m.def("fold_constants",
        [](IR& ir, bool matmul_add_to_gemm, int64_t fold_max_bytes) {
          FoldStats f;
          {
            py::gil_scoped_release nogil;
            f = fold_graph(ir, fold_options(matmul_add_to_gemm, fold_max_bytes));
          }
          return fold_to_python(ir, f);
        },
        py::arg("ir"), py::arg("matmul_add_to_gemm") = false, py::arg("fold_max_bytes") = -1,
        "The fold pass alone: folds constants, inlines If nodes with a constant condition\n"
        "and applies the standard fusions until nothing more folds; returns its statistics.\n"
        "Nodes left without readers stay for prune_dead.");
  m.def("prune_dead", &prune_dead, py::arg("ir"),
        "Removes nodes whose outputs nobody uses and constants nobody reads.");

  m.attr("ELEMENTWISE_ALU_OPS") = py::cast(ELEMENTWISE_ALU_OPS());
  m.attr("ACTIVATION_OPS") = py::cast(ACTIVATION_OPS());
  m.attr("REDUCE_OPS") = py::cast(REDUCE_OPS());
  m.attr("no_change_node") = py::cast(no_change_node());

  m.def("log_history", &tolmLog::history, "Messages the rules logged, oldest first.");
  m.def("clear_log_history", &tolmLog::clear_history);
  m.def("log_e", &tolmLog::e, py::arg("msg"));
  m.def("log_w", &tolmLog::w, py::arg("msg"));
  m.def("set_log_sink",
        [](py::object sink) {
          if (sink.is_none()) {
            tolmLog::set_sink(tolmLog::Sink());
            return;
          }
          if (!python_sink) python_sink = new py::object();
          *python_sink = sink;
          tolmLog::set_sink([](tolmLog::Level level, const std::string& msg) {
            py::gil_scoped_acquire gil;
            try {
              (*python_sink)(level == tolmLog::Level::Error ? "e" : "w", msg);
            } catch (py::error_already_set& err) {
              err.discard_as_unraisable("tolm log sink");
            }
          });
        },
        py::arg("sink"),
        "Sends log messages to sink(level, msg), level 'e' or 'w'; None silences them.");
}

}  // namespace bind
}  // namespace tolm
