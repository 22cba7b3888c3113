// NDArray <-> xtensor. Rules that need NumPy-style algebra on constants
// convert with to_xarray<T>, compute with xtensor, and come back with
// from_xarray<T>. Both return concrete containers (never lazy expressions), and
// both copy: an NDArray keeps raw ONNX bytes, an xarray typed values.
#pragma once

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <type_traits>
#include <vector>

#include <xtensor/xarray.hpp>

#include "host/ndarray.h"

namespace tolm {

// ONNX element type of a C++ element type (UNDEFINED when there is none).
template <class T>
constexpr int32_t dtype_of() {
  using U = std::remove_cv_t<T>;
  if constexpr (std::is_same_v<U, float>) return dt::FLOAT;
  else if constexpr (std::is_same_v<U, double>) return dt::DOUBLE;
  else if constexpr (std::is_same_v<U, bool>) return dt::BOOL;
  else if constexpr (std::is_same_v<U, int8_t>) return dt::INT8;
  else if constexpr (std::is_same_v<U, uint8_t>) return dt::UINT8;
  else if constexpr (std::is_same_v<U, int16_t>) return dt::INT16;
  else if constexpr (std::is_same_v<U, uint16_t>) return dt::UINT16;
  else if constexpr (std::is_same_v<U, int32_t>) return dt::INT32;
  else if constexpr (std::is_same_v<U, uint32_t>) return dt::UINT32;
  else if constexpr (std::is_same_v<U, int64_t>) return dt::INT64;
  else if constexpr (std::is_same_v<U, uint64_t>) return dt::UINT64;
  else return dt::UNDEFINED;
}

// The array's values as T, in its shape (row-major). Floats become integers
// by truncation, as NumPy's astype does; bool is 0/1.
template <class T>
xt::xarray<T> to_xarray(const NDArray& a) {
  static_assert(std::is_arithmetic_v<T>, "to_xarray needs an arithmetic element type");
  std::vector<size_t> shape(a.shape().begin(), a.shape().end());
  xt::xarray<T> out(shape);
  const size_t n = out.size();
  if (static_cast<int64_t>(n) != a.size())
    throw std::invalid_argument("to_xarray: array size does not match its shape");
  T* dst = out.data();
  if (dtype_of<T>() == a.dtype() && a.dtype() != dt::BOOL) {
    if (n) std::memcpy(dst, a.raw().data(), n * sizeof(T));
  } else if constexpr (std::is_same_v<T, bool>) {
    const std::vector<double> v = a.to_f64();
    for (size_t k = 0; k < n; ++k) dst[k] = v[k] != 0.0;
  } else if constexpr (std::is_floating_point_v<T>) {
    const std::vector<double> v = a.to_f64();
    for (size_t k = 0; k < n; ++k) dst[k] = static_cast<T>(v[k]);
  } else {
    const std::vector<int64_t> v = a.to_i64();
    for (size_t k = 0; k < n; ++k) dst[k] = static_cast<T>(v[k]);
  }
  return out;
}

// An NDArray of element type `dtype` from the xarray's values and shape.
template <class T>
NDArray from_xarray(const xt::xarray<T>& x, int32_t dtype) {
  static_assert(std::is_arithmetic_v<T>, "from_xarray needs an arithmetic element type");
  Shape shape(x.shape().begin(), x.shape().end());
  const size_t n = x.size();
  const T* src = x.data();
  if (dtype_of<T>() == dtype && dtype != dt::BOOL) {
    std::vector<uint8_t> raw(n * sizeof(T));
    if (n) std::memcpy(raw.data(), src, raw.size());
    return NDArray(dtype, std::move(shape), std::move(raw));
  }
  if constexpr (std::is_floating_point_v<T>) {
    std::vector<double> v(src, src + n);
    return NDArray::from_f64(v, shape, dtype);
  } else {
    std::vector<int64_t> v(n);
    for (size_t k = 0; k < n; ++k) v[k] = static_cast<int64_t>(src[k]);
    if (dtype_is_integer(dtype) || dtype == dt::BOOL) return NDArray::from_i64(v, shape, dtype);
    if constexpr (std::is_same_v<T, uint64_t>) {
      std::vector<double> d(src, src + n);
      return NDArray::from_f64(d, shape, dtype);
    } else {
      return NDArray::from_i64(v, shape, dtype);
    }
  }
}

}  // namespace tolm
