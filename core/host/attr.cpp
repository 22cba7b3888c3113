#include "host/attr.h"

namespace tolm {

Attr Attr::make_int(const std::string& name, int64_t v) {
  Attr a;
  a.name = name;
  a.kind = INT;
  a.i = v;
  return a;
}

Attr Attr::make_float(const std::string& name, float v) {
  Attr a;
  a.name = name;
  a.kind = FLOAT;
  a.f = v;
  return a;
}

Attr Attr::make_string(const std::string& name, const std::string& v) {
  Attr a;
  a.name = name;
  a.kind = STRING;
  a.s = v;
  return a;
}

Attr Attr::make_ints(const std::string& name, const std::vector<int64_t>& v) {
  Attr a;
  a.name = name;
  a.kind = INTS;
  a.ints = v;
  return a;
}

Attr Attr::make_floats(const std::string& name, const std::vector<float>& v) {
  Attr a;
  a.name = name;
  a.kind = FLOATS;
  a.floats = v;
  return a;
}

Attr Attr::make_strings(const std::string& name, const std::vector<std::string>& v) {
  Attr a;
  a.name = name;
  a.kind = STRINGS;
  a.strings = v;
  return a;
}

Attr Attr::make_tensor(const std::string& name, const NDArray& v) {
  Attr a;
  a.name = name;
  a.kind = TENSOR;
  a.t = v;
  return a;
}

// Equal when name and kind agree and so does the value of that kind. An
// attribute held opaque (serialized AttributeProto) compares byte-wise.
bool Attr::operator==(const Attr& o) const {
  if (name != o.name || kind != o.kind) return false;
  if (!opaque.empty() || !o.opaque.empty()) return opaque == o.opaque;
  switch (kind) {
    case FLOAT: return f == o.f;
    case INT: return i == o.i;
    case STRING: return s == o.s;
    case TENSOR: return t == o.t;
    case FLOATS: return floats == o.floats;
    case INTS: return ints == o.ints;
    case STRINGS: return strings == o.strings;
    default: return true;  // no value held
  }
}

}  // namespace tolm
