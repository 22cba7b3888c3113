// N-dimensional constant: the value of an initializer or of a tensor a rule
// creates. Data is held as raw little-endian bytes in the ONNX element type, so
// load and save never convert; typed views are made on demand. Rules that need
// NumPy-style algebra convert to xtensor through host/xarray_bridge.h.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tolm {

using Shape = std::vector<int64_t>;

// ONNX TensorProto element type codes.
namespace dt {
enum : int32_t {
  UNDEFINED = 0,
  FLOAT = 1,
  UINT8 = 2,
  INT8 = 3,
  UINT16 = 4,
  INT16 = 5,
  INT32 = 6,
  INT64 = 7,
  STRING = 8,
  BOOL = 9,
  FLOAT16 = 10,
  DOUBLE = 11,
  UINT32 = 12,
  UINT64 = 13,
  COMPLEX64 = 14,
  COMPLEX128 = 15,
  BFLOAT16 = 16,
};
}  // namespace dt

// Bytes per element; 0 for types without a fixed-width element (string) or
// unknown codes.
size_t dtype_size(int32_t dtype);
bool dtype_is_float(int32_t dtype);
bool dtype_is_integer(int32_t dtype);
// Name of an element type as NumPy spells it ("float32", "int64", ...).
std::string dtype_name(int32_t dtype);

int64_t shape_size(const Shape& shape);

float half_to_float(uint16_t h);
uint16_t float_to_half(float f);
float bfloat16_to_float(uint16_t h);
uint16_t float_to_bfloat16(float f);

class NDArray {
 public:
  NDArray() = default;
  NDArray(int32_t dtype, Shape shape, std::vector<uint8_t> raw);

  // A 1-D array (or of `shape`, when given) from values, stored as `dtype`.
  static NDArray from_i64(const std::vector<int64_t>& values, int32_t dtype = dt::INT64);
  static NDArray from_i64(const std::vector<int64_t>& values, const Shape& shape,
                          int32_t dtype = dt::INT64);
  static NDArray from_f64(const std::vector<double>& values, const Shape& shape,
                          int32_t dtype = dt::FLOAT);
  static NDArray scalar_i64(int64_t v, int32_t dtype = dt::INT64);
  static NDArray scalar_f64(double v, int32_t dtype = dt::FLOAT);
  static NDArray from_strings(const std::vector<std::string>& values, const Shape& shape);

  int32_t dtype() const { return dtype_; }
  const Shape& shape() const { return shape_; }
  size_t ndim() const { return shape_.size(); }
  int64_t size() const { return shape_size(shape_); }
  const std::vector<uint8_t>& raw() const { return raw_; }
  std::vector<uint8_t>& raw() { return raw_; }
  const std::vector<std::string>& strings() const { return strings_; }

  // Element-wise conversions (float16/bfloat16 decoded, bool as 0/1).
  std::vector<double> to_f64() const;
  std::vector<int64_t> to_i64() const;
  double f64_at(int64_t flat_index) const;
  int64_t i64_at(int64_t flat_index) const;

  NDArray astype(int32_t dtype) const;
  // Same data, new shape; element count must match.
  NDArray reshaped(const Shape& shape) const;

  bool all_equal(double v) const;
  bool any_less(double v) const;
  bool any_greater(double v) const;

  // Exact equality: element type, shape and data.
  bool operator==(const NDArray& other) const;
  bool operator!=(const NDArray& other) const { return !(*this == other); }

 private:
  int32_t dtype_ = dt::FLOAT;
  Shape shape_;
  std::vector<uint8_t> raw_;
  std::vector<std::string> strings_;
};

}  // namespace tolm
