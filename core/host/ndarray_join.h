// Joining constants along an axis, as a Concat node would join tensors: the
// rules that merge parallel branches or writes build the merged operator's
// weights, indices and updates this way.
#pragma once

#include <optional>
#include <vector>

#include "host/ndarray.h"

namespace tolm {

// The arrays joined on `axis` (0 <= axis < rank). Absent if they differ in
// element type or rank, in any dimension but `axis`, or hold strings.
std::optional<NDArray> concat_arrays(const std::vector<const NDArray*>& parts, int64_t axis);

}  // namespace tolm
