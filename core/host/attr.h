// A node attribute. The common kinds are held decoded; kinds that no rule
// reads (sub-graphs, sparse tensors, type protos) keep their serialized
// AttributeProto so that a model round-trips untouched.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "host/ndarray.h"

namespace tolm {

struct Attr {
  // ONNX AttributeProto type codes.
  enum Kind : int32_t {
    UNDEFINED = 0,
    FLOAT = 1,
    INT = 2,
    STRING = 3,
    TENSOR = 4,
    GRAPH = 5,
    FLOATS = 6,
    INTS = 7,
    STRINGS = 8,
    TENSORS = 9,
    GRAPHS = 10,
    SPARSE_TENSOR = 11,
    SPARSE_TENSORS = 12,
    TYPE_PROTO = 13,
    TYPE_PROTOS = 14,
  };

  std::string name;
  int32_t kind = UNDEFINED;
  int64_t i = 0;
  float f = 0.f;
  std::string s;
  std::vector<int64_t> ints;
  std::vector<float> floats;
  std::vector<std::string> strings;
  NDArray t;
  // Serialized AttributeProto for kinds held opaque (GRAPH, TENSORS, ...).
  std::string opaque;

  static Attr make_int(const std::string& name, int64_t v);
  static Attr make_float(const std::string& name, float v);
  static Attr make_string(const std::string& name, const std::string& v);
  static Attr make_ints(const std::string& name, const std::vector<int64_t>& v);
  static Attr make_floats(const std::string& name, const std::vector<float>& v);
  static Attr make_strings(const std::string& name, const std::vector<std::string>& v);
  static Attr make_tensor(const std::string& name, const NDArray& v);

  bool operator==(const Attr& o) const;
  bool operator!=(const Attr& o) const { return !(*this == o); }
};

}  // namespace tolm
