// The two rule tables, `fuse_reduce` and `cvt_reduce`, and the registry of
// every rule procedure by name. Built once at load, never changed.
#pragma once

#include <string>
#include <vector>

#include "reduce/rule.h"

namespace tolm {

struct Row {
  std::string key;
  std::vector<std::string> ops;
  std::string proc_name;   // "_p_..."
  RuleProc proc = nullptr; // null while the rule is not available in this build
  std::vector<int> n_pre_nodes;  // empty when the row has no such field
  bool has_limit = false;        // `limit` field present (always true)
  bool has_q_equal = false;      // `q_equal` field present (always false)
  // Driver-side: the procedure looks at every consumer of the chain's inner
  // tensors itself, so a chain may be offered where they branch.
  bool handles_branches = false;
};

struct ProcEntry {
  std::string name;  // "_p_..."
  RuleProc proc;     // null if not available in this build
};

const std::vector<Row>& fuse_reduce();
const std::vector<Row>& cvt_reduce();
// Every rule procedure of the library by name, rowless ones included.
const std::vector<ProcEntry>& rule_procs();
RuleProc find_proc(const std::string& name);
// Keys of rows whose procedure is not available in this build.
std::vector<std::string> unavailable_rules();

}  // namespace tolm
