// Graph(ir): the node builder rules use to make new nodes. `op` makes one node,
// registers number lists and arrays given as inputs as new constants, and
// returns the name of the node's (first) output. Nodes collect in `nodes`, in
// creation order, ready to be handed back as a rule's `add` list.
#pragma once

#include <string>
#include <variant>
#include <vector>

#include "host/ir.h"

namespace tolm {

// One input of Graph::op: a tensor name, a new constant (int64 list or any
// array), or Absent, a tensor that does not exist yet and gets a fresh name.
struct Absent {};
using OpInput = std::variant<std::string, std::vector<int64_t>, NDArray, Absent>;

struct OpSpec {
  std::vector<std::string> outputs;  // empty: one new output name
  std::string name;                  // empty: a new node name
  std::vector<Attr> attrs;
  int num_outputs = 1;               // used when `outputs` is empty
};

class Graph {
 public:
  explicit Graph(IR& ir) : ir_(ir) {}

  // Returns the first output's name or, if an input was Absent, that input's
  // name (so a chain can be built from its end).
  std::string op(const std::string& op_type, const std::vector<OpInput>& inputs,
                 const OpSpec& opts = {});

  NodeList nodes;
  std::vector<std::string> names_assign;

 private:
  std::string fresh(const std::string& base);
  IR& ir_;
};

}  // namespace tolm
