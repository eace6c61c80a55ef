// Pooling of one plane: every output folds the values under its window, in the order of the taps. Internal.
#pragma once

#include <cstddef>

#include "talvo/kernel/rows/instruction_sets.h"
#include "talvo/kernel/rows/mixed_channels.h"

namespace talvo::kernel::rows {

/// Output rows side by side: output (r, i) stands at y + r * width + i, its tap (ky, kx) at
/// x + r * row_step + tap_rows[ky] + tap_columns[kx] + i. Taps count ky outermost. Up to kReadBehindTaps floats behind
/// the last tap are read, and count nowhere.
struct TapGrid {
  std::size_t const *tap_rows, *tap_columns;
  std::size_t tap_row_count, tap_column_count;
  std::size_t rows, width, row_step;
};

constexpr std::size_t kReadBehindTaps = 3;

/// y = the fold of the taps by best = v <= best ? best : v, from the lowest finite float. A NaN replaces what stands
/// before it and gives way to what follows. y overlaps no tap.
extern Primitive<void(float const* x, TapGrid const& grid, float* y)> const MaximumOfTaps;

/// y = (0.0f + tap 0 + tap 1 + ...) / divisor, summed in this order; `divisors` stand like the outputs. y overlaps
/// nothing.
extern Primitive<void(float const* x, TapGrid const& grid, float const* divisors, float* y)> const MeanOfTaps;

/// Means over regions of kChannelsTogether planes of `plane` elements that follow each other, (sum / rows) / columns
/// each, the sum row by row from 0.0f. y[c * out_plane] is the mean of plane c. `mixed` holds the planes side by side,
/// up to the end of the region.
struct MeanRegion {
  std::size_t row_begin, row_end, column_begin, column_end, width;
};
extern Primitive<void(float const* mixed, MeanRegion const& region, std::size_t out_plane, float* y)> const
    MeanOfRegion;

}  // namespace talvo::kernel::rows
