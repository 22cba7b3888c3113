#include "host/ndarray_join.h"

#include <cstring>

namespace tolm {

std::optional<NDArray> concat_arrays(const std::vector<const NDArray*>& parts, int64_t axis) {
  if (parts.empty() || parts[0] == nullptr) return std::nullopt;
  const NDArray& first = *parts[0];
  const int64_t rank = static_cast<int64_t>(first.ndim());
  const size_t esize = dtype_size(first.dtype());
  if (axis < 0 || axis >= rank || esize == 0) return std::nullopt;
  Shape out_shape = first.shape();
  out_shape[axis] = 0;
  for (const NDArray* p : parts) {
    if (p == nullptr || p->dtype() != first.dtype() || static_cast<int64_t>(p->ndim()) != rank)
      return std::nullopt;
    for (int64_t d = 0; d < rank; ++d)
      if (d != axis && p->shape()[d] != first.shape()[d]) return std::nullopt;
    out_shape[axis] += p->shape()[axis];
  }
  int64_t outer = 1, inner = 1;
  for (int64_t d = 0; d < axis; ++d) outer *= first.shape()[d];
  for (int64_t d = axis + 1; d < rank; ++d) inner *= first.shape()[d];
  std::vector<uint8_t> raw(static_cast<size_t>(shape_size(out_shape)) * esize);
  uint8_t* dst = raw.data();
  // Row by row of the leading axes, each part contributes its whole block.
  for (int64_t o = 0; o < outer; ++o) {
    for (const NDArray* p : parts) {
      const size_t block = static_cast<size_t>(p->shape()[axis] * inner) * esize;
      if (block) std::memcpy(dst, p->raw().data() + o * block, block);
      dst += block;
    }
  }
  return NDArray(first.dtype(), out_shape, std::move(raw));
}

}  // namespace tolm
