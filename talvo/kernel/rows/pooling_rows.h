// One row of pooling outputs at a time: every output folds the values under its window, in the order of the taps.
// Internal.
#pragma once

#include <cstddef>

#include "talvo/kernel/rows/instruction_sets.h"

namespace talvo::kernel::rows {

/// y[i] = the fold of taps[0][i], taps[1][i], ... by best = v <= best ? best : v, from the lowest finite float.
/// A NaN replaces what stands before it and gives way to what follows. y overlaps no tap.
extern Primitive<void(float const* const* taps, std::size_t tap_count, std::size_t count, float* y)> const
    MaximumOfTaps;

/// y[i] = (0.0f + taps[0][i] + taps[1][i] + ...) / divisors[i], summed in this order. y overlaps nothing.
extern Primitive<void(float const* const* taps, std::size_t tap_count, float const* divisors, std::size_t count,
                      float* y)> const MeanOfTaps;

/// Sorts a row by phase: element i goes to to[i % stride * pitch + i / stride]. `to` holds min(stride, count) phases;
/// the ranges do not overlap.
extern Primitive<void(float const* from, std::size_t count, std::size_t stride, std::size_t pitch, float* to)> const
    SplitPhases;

}  // namespace talvo::kernel::rows
