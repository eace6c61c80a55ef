// Row primitives of warps and upsampling: where a row of samples lies in a plane, and the blend of its neighbours.
// Internal.
#pragma once

#include <cstddef>
#include <cstdint>

#include "talvo/kernel/rows/instruction_sets.h"

namespace talvo::kernel::rows {

/// Which of the four taps lie inside: t00 at (x, y), t10 at (x + 1, y), t01 at (x, y + 1), t11 at (x + 1, y + 1).
constexpr std::int32_t kT00 = 1, kT10 = 2, kT01 = 4, kT11 = 8, kAllFour = 15;

/// The samples of one row, each array as long as the row.
struct Samples {
  std::int32_t* inside;  // taps inside; 0 for a position that is NaN or no int
  std::int32_t* index;   // element of t00 in its plane where any is inside, which may lie before the plane; else 0
  float* fx;             // parts towards the right and the lower taps
  float* fy;
};

/// A plane of `width` x `height` elements, both below 2^31.
struct PlaneExtents {
  std::int32_t width, height;
};

/// Pixel coordinates u = m[0] x + m[1] y + m[2], v = m[3] x + m[4] y + m[5] for x < count: all four taps or none.
extern Primitive<void(float const* m, float y, std::size_t count, PlaneExtents, Samples const&)> const LocatePixels;

/// Sums of axis terms: u = x_terms[i] + x_row + x_offset, v = y_terms[i] + y_row + y_offset. Each tap has a test
/// of its own, and t00, t10 and t01 take row and column 0 for outside.
struct AxisSums {
  float const *x_terms, *y_terms;
  float x_row, y_row, x_offset, y_offset;
};
extern Primitive<void(AxisSums const&, std::size_t count, PlaneExtents, Samples const&)> const LocateSums;

/// (t11 fx + t01 (1 - fx)) fy + (t10 fx + t00 (1 - fx)) (1 - fy), where upper holds pairs t00, t10 and lower pairs t01,
/// t11. With `keep`, results of samples that have nothing inside stay as they are.
extern Primitive<void(float const* upper, float const* lower, Samples const&, bool keep, std::size_t count,
                      float* results)> const BlendPairs;

/// Row r < rows, each of n: y[r * y_step + i] = low[r * n + i] weight + top[r * n + i] rest. No overlap.
extern Primitive<void(float const* top, float const* low, float weight, float rest, std::size_t rows, std::size_t n,
                      float* y, std::size_t y_step)> const BlendRows;

}  // namespace talvo::kernel::rows
