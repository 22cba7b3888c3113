// Constants that broadcast from a lower rank, written out at full rank.
//
// An elementwise operand of lower rank is aligned from the right: k of shape
// [C] beside x of shape [N, H, W, C] acts as [1, 1, 1, C]. Writing such a
// constant with its leading 1s changes no number, and lets the layout rules
// treat it like any other tensor of the region: the transpose mesh needs every
// tensor of a region at one rank, so a per-channel bias stored as [C] (as
// TensorFlow converters and hand-written graphs store them) would otherwise
// keep a whole channels-last network in its Transposes.
#pragma once

#include <cstdint>

#include "host/ir.h"

namespace tolm {

// Gives every constant operand of rank 1 or more that an elementwise op
// broadcasts (numpy rules, or PRelu's slope) the rank of the op's highest-rank
// operand, with leading axes of size 1. A constant that other nodes read as
// well is copied for the node instead. Scalars are left alone, and so are
// constants that are also graph inputs (a caller may feed them). Returns the
// number of operands changed.
int64_t make_broadcast_ranks_explicit(IR& ir);

}  // namespace tolm
