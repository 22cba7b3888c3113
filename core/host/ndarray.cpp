#include "host/ndarray.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <stdexcept>

namespace tolm {

// ------------------------------------------------------------ element types

size_t dtype_size(int32_t dtype) {
  switch (dtype) {
    case dt::UINT8:
    case dt::INT8:
    case dt::BOOL:
      return 1;
    case dt::UINT16:
    case dt::INT16:
    case dt::FLOAT16:
    case dt::BFLOAT16:
      return 2;
    case dt::FLOAT:
    case dt::INT32:
    case dt::UINT32:
      return 4;
    case dt::INT64:
    case dt::DOUBLE:
    case dt::UINT64:
    case dt::COMPLEX64:
      return 8;
    case dt::COMPLEX128:
      return 16;
    default:
      return 0;
  }
}

bool dtype_is_float(int32_t dtype) {
  return dtype == dt::FLOAT || dtype == dt::FLOAT16 || dtype == dt::DOUBLE ||
         dtype == dt::BFLOAT16;
}

bool dtype_is_integer(int32_t dtype) {
  switch (dtype) {
    case dt::UINT8:
    case dt::INT8:
    case dt::UINT16:
    case dt::INT16:
    case dt::INT32:
    case dt::INT64:
    case dt::UINT32:
    case dt::UINT64:
      return true;
    default:
      return false;
  }
}

std::string dtype_name(int32_t dtype) {
  switch (dtype) {
    case dt::FLOAT: return "float32";
    case dt::UINT8: return "uint8";
    case dt::INT8: return "int8";
    case dt::UINT16: return "uint16";
    case dt::INT16: return "int16";
    case dt::INT32: return "int32";
    case dt::INT64: return "int64";
    case dt::STRING: return "object";
    case dt::BOOL: return "bool";
    case dt::FLOAT16: return "float16";
    case dt::DOUBLE: return "float64";
    case dt::UINT32: return "uint32";
    case dt::UINT64: return "uint64";
    case dt::COMPLEX64: return "complex64";
    case dt::COMPLEX128: return "complex128";
    case dt::BFLOAT16: return "bfloat16";
    default: return "undefined";
  }
}

int64_t shape_size(const Shape& shape) {
  int64_t n = 1;
  for (int64_t d : shape) {
    if (d < 0) return -1;
    n *= d;
  }
  return n;
}

// ------------------------------------------------------- 16-bit floats

namespace {
uint32_t f32_bits(float f) {
  uint32_t u;
  std::memcpy(&u, &f, 4);
  return u;
}
float bits_f32(uint32_t u) {
  float f;
  std::memcpy(&f, &u, 4);
  return f;
}
}  // namespace

float half_to_float(uint16_t h) {
  const uint32_t sign = static_cast<uint32_t>(h & 0x8000u) << 16;
  const uint32_t exp = (h >> 10) & 0x1fu;
  uint32_t mant = h & 0x3ffu;
  if (exp == 0x1f) return bits_f32(sign | 0x7f800000u | (mant << 13));  // inf / nan
  if (exp == 0) {
    if (mant == 0) return bits_f32(sign);  // +-0
    // Subnormal: value = mant * 2^-24.
    float v = static_cast<float>(mant) * 5.9604644775390625e-08f;
    return sign ? -v : v;
  }
  return bits_f32(sign | ((exp + 112u) << 23) | (mant << 13));
}

uint16_t float_to_half(float f) {
  const uint32_t u = f32_bits(f);
  const uint16_t sign = static_cast<uint16_t>((u >> 16) & 0x8000u);
  const uint32_t abs = u & 0x7fffffffu;
  if (abs >= 0x7f800000u) {  // inf or nan
    if (abs == 0x7f800000u) return sign | 0x7c00u;
    uint16_t m = static_cast<uint16_t>((abs >> 13) & 0x3ffu);
    return sign | 0x7c00u | (m ? m : 0x200u);
  }
  if (abs >= 0x477ff000u) return sign | 0x7c00u;  // rounds to >= 65520: overflow
  if (abs < 0x38800000u) {
    // Result is subnormal or zero: round abs / 2^-24 to nearest even.
    if (abs < 0x33000000u) return sign;  // below half of the smallest subnormal
    const uint32_t e = abs >> 23;
    const uint32_t m = (abs & 0x7fffffu) | 0x800000u;
    // value = m * 2^(e-150); in units of 2^-24 that is m >> (126 - e).
    const uint32_t shift = 126u - e;
    uint32_t q = m >> shift;
    const uint32_t rem = m & ((1u << shift) - 1u);
    const uint32_t half = 1u << (shift - 1u);
    if (rem > half || (rem == half && (q & 1u))) ++q;
    return sign | static_cast<uint16_t>(q);
  }
  // Normal: rebias exponent, round mantissa 23 -> 10 bits to nearest even.
  uint32_t v = abs - 0x38000000u;  // exponent bias 127 -> 15
  const uint32_t rem = v & 0x1fffu;
  v >>= 13;
  if (rem > 0x1000u || (rem == 0x1000u && (v & 1u))) ++v;
  return sign | static_cast<uint16_t>(v);
}

float bfloat16_to_float(uint16_t h) { return bits_f32(static_cast<uint32_t>(h) << 16); }

uint16_t float_to_bfloat16(float f) {
  uint32_t u = f32_bits(f);
  if ((u & 0x7fffffffu) > 0x7f800000u) return static_cast<uint16_t>((u >> 16) | 0x40u);  // nan
  const uint32_t rounding = 0x7fffu + ((u >> 16) & 1u);
  u += rounding;
  return static_cast<uint16_t>(u >> 16);
}

// --------------------------------------------------------- element access

namespace {

template <class T>
T load(const uint8_t* p) {
  T v;
  std::memcpy(&v, p, sizeof(T));
  return v;
}
template <class T>
void store(uint8_t* p, T v) {
  std::memcpy(p, &v, sizeof(T));
}

bool is_wide_unsigned(int32_t dtype) { return dtype == dt::UINT64; }

// Element as double (float16/bfloat16 decoded; complex: real part).
double read_f64(int32_t dtype, const uint8_t* p) {
  switch (dtype) {
    case dt::FLOAT: return load<float>(p);
    case dt::UINT8: return load<uint8_t>(p);
    case dt::INT8: return load<int8_t>(p);
    case dt::UINT16: return load<uint16_t>(p);
    case dt::INT16: return load<int16_t>(p);
    case dt::INT32: return load<int32_t>(p);
    case dt::INT64: return static_cast<double>(load<int64_t>(p));
    case dt::BOOL: return load<uint8_t>(p) ? 1.0 : 0.0;
    case dt::FLOAT16: return half_to_float(load<uint16_t>(p));
    case dt::DOUBLE: return load<double>(p);
    case dt::UINT32: return load<uint32_t>(p);
    case dt::UINT64: return static_cast<double>(load<uint64_t>(p));
    case dt::COMPLEX64: return load<float>(p);
    case dt::COMPLEX128: return load<double>(p);
    case dt::BFLOAT16: return bfloat16_to_float(load<uint16_t>(p));
    default: throw std::invalid_argument("NDArray: no numeric view of element type " + dtype_name(dtype));
  }
}

// Float to int64 as NumPy's astype does on x86: truncation toward zero; NaN and
// out-of-range values give INT64_MIN.
int64_t trunc_i64(double v) {
  if (!(v >= -9223372036854775808.0 && v < 9223372036854775808.0))
    return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(v);
}

// Element as int64 (floats truncated; uint64 reinterpreted).
int64_t read_i64(int32_t dtype, const uint8_t* p) {
  switch (dtype) {
    case dt::UINT8: return load<uint8_t>(p);
    case dt::INT8: return load<int8_t>(p);
    case dt::UINT16: return load<uint16_t>(p);
    case dt::INT16: return load<int16_t>(p);
    case dt::INT32: return load<int32_t>(p);
    case dt::INT64: return load<int64_t>(p);
    case dt::BOOL: return load<uint8_t>(p) ? 1 : 0;
    case dt::UINT32: return load<uint32_t>(p);
    case dt::UINT64: return static_cast<int64_t>(load<uint64_t>(p));
    default: return trunc_i64(read_f64(dtype, p));
  }
}

void write_i64(int32_t dtype, uint8_t* p, int64_t v) {
  switch (dtype) {
    case dt::FLOAT: store<float>(p, static_cast<float>(v)); break;
    case dt::UINT8: store<uint8_t>(p, static_cast<uint8_t>(v)); break;
    case dt::INT8: store<int8_t>(p, static_cast<int8_t>(v)); break;
    case dt::UINT16: store<uint16_t>(p, static_cast<uint16_t>(v)); break;
    case dt::INT16: store<int16_t>(p, static_cast<int16_t>(v)); break;
    case dt::INT32: store<int32_t>(p, static_cast<int32_t>(v)); break;
    case dt::INT64: store<int64_t>(p, v); break;
    case dt::BOOL: store<uint8_t>(p, v != 0 ? 1 : 0); break;
    case dt::FLOAT16: store<uint16_t>(p, float_to_half(static_cast<float>(v))); break;
    case dt::DOUBLE: store<double>(p, static_cast<double>(v)); break;
    case dt::UINT32: store<uint32_t>(p, static_cast<uint32_t>(v)); break;
    case dt::UINT64: store<uint64_t>(p, static_cast<uint64_t>(v)); break;
    case dt::COMPLEX64:
      store<float>(p, static_cast<float>(v));
      store<float>(p + 4, 0.f);
      break;
    case dt::COMPLEX128:
      store<double>(p, static_cast<double>(v));
      store<double>(p + 8, 0.0);
      break;
    case dt::BFLOAT16: store<uint16_t>(p, float_to_bfloat16(static_cast<float>(v))); break;
    default: throw std::invalid_argument("NDArray: cannot store numbers as " + dtype_name(dtype));
  }
}

void write_f64(int32_t dtype, uint8_t* p, double v) {
  switch (dtype) {
    case dt::FLOAT: store<float>(p, static_cast<float>(v)); break;
    case dt::DOUBLE: store<double>(p, v); break;
    case dt::FLOAT16: store<uint16_t>(p, float_to_half(static_cast<float>(v))); break;
    case dt::BFLOAT16: store<uint16_t>(p, float_to_bfloat16(static_cast<float>(v))); break;
    case dt::BOOL: store<uint8_t>(p, v != 0.0 ? 1 : 0); break;
    case dt::COMPLEX64:
      store<float>(p, static_cast<float>(v));
      store<float>(p + 4, 0.f);
      break;
    case dt::COMPLEX128:
      store<double>(p, v);
      store<double>(p + 8, 0.0);
      break;
    case dt::UINT64:
      if (v >= 9223372036854775808.0 && v < 18446744073709551616.0) {
        store<uint64_t>(p, static_cast<uint64_t>(v));
        break;
      }
      write_i64(dtype, p, trunc_i64(v));
      break;
    default: write_i64(dtype, p, trunc_i64(v)); break;
  }
}

void check_numeric(int32_t dtype) {
  if (dtype_size(dtype) == 0)
    throw std::invalid_argument("NDArray: element type " + dtype_name(dtype) + " holds no numbers");
}

}  // namespace

// ------------------------------------------------------------- NDArray

NDArray::NDArray(int32_t dtype, Shape shape, std::vector<uint8_t> raw)
    : dtype_(dtype), shape_(std::move(shape)), raw_(std::move(raw)) {
  const int64_t n = shape_size(shape_);
  if (n < 0) throw std::invalid_argument("NDArray: negative dimension");
  if (dtype_ == dt::STRING) {
    if (!raw_.empty()) throw std::invalid_argument("NDArray: string arrays hold no raw bytes");
    strings_.resize(static_cast<size_t>(n));
    return;
  }
  check_numeric(dtype_);
  if (raw_.size() != static_cast<size_t>(n) * dtype_size(dtype_))
    throw std::invalid_argument("NDArray: " + std::to_string(raw_.size()) +
                                " bytes do not fit shape and element type " + dtype_name(dtype_));
}

NDArray NDArray::from_i64(const std::vector<int64_t>& values, int32_t dtype) {
  return from_i64(values, Shape{static_cast<int64_t>(values.size())}, dtype);
}

NDArray NDArray::from_i64(const std::vector<int64_t>& values, const Shape& shape, int32_t dtype) {
  check_numeric(dtype);
  if (shape_size(shape) != static_cast<int64_t>(values.size()))
    throw std::invalid_argument("NDArray::from_i64: value count does not match the shape");
  const size_t es = dtype_size(dtype);
  std::vector<uint8_t> raw(values.size() * es);
  if (dtype == dt::INT64) {
    if (!values.empty()) std::memcpy(raw.data(), values.data(), raw.size());
  } else {
    for (size_t k = 0; k < values.size(); ++k) write_i64(dtype, raw.data() + k * es, values[k]);
  }
  return NDArray(dtype, shape, std::move(raw));
}

NDArray NDArray::from_f64(const std::vector<double>& values, const Shape& shape, int32_t dtype) {
  check_numeric(dtype);
  if (shape_size(shape) != static_cast<int64_t>(values.size()))
    throw std::invalid_argument("NDArray::from_f64: value count does not match the shape");
  const size_t es = dtype_size(dtype);
  std::vector<uint8_t> raw(values.size() * es);
  if (dtype == dt::DOUBLE) {
    if (!values.empty()) std::memcpy(raw.data(), values.data(), raw.size());
  } else {
    for (size_t k = 0; k < values.size(); ++k) write_f64(dtype, raw.data() + k * es, values[k]);
  }
  return NDArray(dtype, shape, std::move(raw));
}

NDArray NDArray::scalar_i64(int64_t v, int32_t dtype) { return from_i64({v}, Shape{}, dtype); }

NDArray NDArray::scalar_f64(double v, int32_t dtype) { return from_f64({v}, Shape{}, dtype); }

NDArray NDArray::from_strings(const std::vector<std::string>& values, const Shape& shape) {
  if (shape_size(shape) != static_cast<int64_t>(values.size()))
    throw std::invalid_argument("NDArray::from_strings: value count does not match the shape");
  NDArray a;
  a.dtype_ = dt::STRING;
  a.shape_ = shape;
  a.strings_ = values;
  return a;
}

std::vector<double> NDArray::to_f64() const {
  check_numeric(dtype_);
  const size_t es = dtype_size(dtype_);
  const size_t n = raw_.size() / es;
  std::vector<double> out(n);
  const uint8_t* p = raw_.data();
  switch (dtype_) {
    case dt::FLOAT:
      for (size_t k = 0; k < n; ++k) out[k] = load<float>(p + 4 * k);
      break;
    case dt::DOUBLE:
      if (n) std::memcpy(out.data(), p, n * 8);
      break;
    default:
      for (size_t k = 0; k < n; ++k) out[k] = read_f64(dtype_, p + k * es);
  }
  return out;
}

std::vector<int64_t> NDArray::to_i64() const {
  check_numeric(dtype_);
  const size_t es = dtype_size(dtype_);
  const size_t n = raw_.size() / es;
  std::vector<int64_t> out(n);
  const uint8_t* p = raw_.data();
  switch (dtype_) {
    case dt::INT64:
      if (n) std::memcpy(out.data(), p, n * 8);
      break;
    case dt::INT32:
      for (size_t k = 0; k < n; ++k) out[k] = load<int32_t>(p + 4 * k);
      break;
    default:
      for (size_t k = 0; k < n; ++k) out[k] = read_i64(dtype_, p + k * es);
  }
  return out;
}

double NDArray::f64_at(int64_t flat_index) const {
  check_numeric(dtype_);
  const size_t es = dtype_size(dtype_);
  if (flat_index < 0 || static_cast<size_t>(flat_index) >= raw_.size() / es)
    throw std::out_of_range("NDArray::f64_at: index out of range");
  return read_f64(dtype_, raw_.data() + static_cast<size_t>(flat_index) * es);
}

int64_t NDArray::i64_at(int64_t flat_index) const {
  check_numeric(dtype_);
  const size_t es = dtype_size(dtype_);
  if (flat_index < 0 || static_cast<size_t>(flat_index) >= raw_.size() / es)
    throw std::out_of_range("NDArray::i64_at: index out of range");
  return read_i64(dtype_, raw_.data() + static_cast<size_t>(flat_index) * es);
}

NDArray NDArray::astype(int32_t dtype) const {
  if (dtype == dtype_) return *this;
  if (dtype_ == dt::STRING || dtype == dt::STRING)
    throw std::invalid_argument("NDArray::astype: no conversion between strings and numbers");
  check_numeric(dtype);
  const size_t src_es = dtype_size(dtype_);
  const size_t dst_es = dtype_size(dtype);
  const size_t n = raw_.size() / src_es;
  std::vector<uint8_t> raw(n * dst_es);
  const uint8_t* src = raw_.data();
  uint8_t* dst = raw.data();
  const bool src_float = !(dtype_is_integer(dtype_) || dtype_ == dt::BOOL);
  if (src_float) {
    for (size_t k = 0; k < n; ++k) write_f64(dtype, dst + k * dst_es, read_f64(dtype_, src + k * src_es));
  } else if (is_wide_unsigned(dtype_) && (dtype_is_float(dtype) || dtype == dt::COMPLEX64 ||
                                          dtype == dt::COMPLEX128)) {
    for (size_t k = 0; k < n; ++k)
      write_f64(dtype, dst + k * dst_es, static_cast<double>(load<uint64_t>(src + k * src_es)));
  } else {
    for (size_t k = 0; k < n; ++k) write_i64(dtype, dst + k * dst_es, read_i64(dtype_, src + k * src_es));
  }
  return NDArray(dtype, shape_, std::move(raw));
}

NDArray NDArray::reshaped(const Shape& shape) const {
  Shape s = shape;
  int64_t known = 1;
  int infer_at = -1;
  for (size_t k = 0; k < s.size(); ++k) {
    if (s[k] == -1 && infer_at < 0) {
      infer_at = static_cast<int>(k);
    } else if (s[k] < 0) {
      throw std::invalid_argument("NDArray::reshaped: bad dimension");
    } else {
      known *= s[k];
    }
  }
  const int64_t n = size();
  if (infer_at >= 0) {
    if (known == 0 || n % known != 0)
      throw std::invalid_argument("NDArray::reshaped: cannot infer the free dimension");
    s[static_cast<size_t>(infer_at)] = n / known;
  } else if (known != n) {
    throw std::invalid_argument("NDArray::reshaped: element count does not match");
  }
  NDArray out = *this;
  out.shape_ = std::move(s);
  return out;
}

bool NDArray::all_equal(double v) const {
  if (dtype_ == dt::STRING) return false;
  const size_t es = dtype_size(dtype_);
  for (size_t k = 0; k < raw_.size(); k += es)
    if (!(read_f64(dtype_, raw_.data() + k) == v)) return false;
  return true;
}

bool NDArray::any_less(double v) const {
  if (dtype_ == dt::STRING) return false;
  const size_t es = dtype_size(dtype_);
  for (size_t k = 0; k < raw_.size(); k += es)
    if (read_f64(dtype_, raw_.data() + k) < v) return true;
  return false;
}

bool NDArray::any_greater(double v) const {
  if (dtype_ == dt::STRING) return false;
  const size_t es = dtype_size(dtype_);
  for (size_t k = 0; k < raw_.size(); k += es)
    if (read_f64(dtype_, raw_.data() + k) > v) return true;
  return false;
}

bool NDArray::operator==(const NDArray& other) const {
  return dtype_ == other.dtype_ && shape_ == other.shape_ && raw_ == other.raw_ &&
         strings_ == other.strings_;
}

}  // namespace tolm
