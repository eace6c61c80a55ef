// The loops of resampling over the elements of a row. Ranges do not overlap. For resampling.cpp. Internal.
#pragma once

#include <cstddef>
#include <cstdint>

#include "talvo/kernel/rows/mixed_channels.h"

namespace talvo::kernel::functional {

/// Makes y [n] of x and a list of n indices, which a doubled row does not read.
using MoveRow = void (*)(void const* x, std::uint32_t const* index, std::size_t n, void* y);

/// y[i] = x[index[i]], of elements of 1, 2 or 4 bytes.
MoveRow GatherOf(unsigned int element_bytes);

/// y[i] = x[i / 2], of elements of 1, 2 or 4 bytes.
MoveRow DoubleOf(unsigned int element_bytes);

/// Rectangles [count, n] of rows `stride` elements apart, and how many, each a step in elements behind the other.
struct PhaseRows {
  std::size_t stride, count, n;
  std::size_t rectangles, x_step, y_step;
};

/// y[i count + row] = x[row stride + i] for row < count, i < n, of elements of 2 or 4 bytes: rows become phases.
void InterleaveRows(unsigned int element_bytes, void const* x, PhaseRows const& rows, void* y);

/// y[row stride + i] = x[i count + row] for row < count, i < n, of elements of 2 or 4 bytes: the reverse.
void SplitPhases(unsigned int element_bytes, void const* x, PhaseRows const& rows, void* y);

/// y[p n + j] = x[high] weight + x[low] rest of plane p for each of n positions j. The planes, 1 or kFewPlanes, stand
/// `plane` elements apart and share the cost of reading a position.
constexpr std::size_t kFewPlanes = 4;
void BlendColumns(float const* x, std::size_t planes, std::size_t plane, rows::TwoPixels const* positions,
                  std::size_t n, float* y);
void BlendColumns(std::int16_t const* x, std::size_t planes, std::size_t plane, rows::TwoPixels const* positions,
                  std::size_t n, float* y);

/// y[p y_step + j] = low[p n + j] weight + top[p n + j] rest for p < planes, j < n, cut toward zero.
void BlendRows(float const* top, float const* low, float weight, float rest, std::size_t planes, std::size_t n,
               std::int16_t* y, std::size_t y_step);

}  // namespace talvo::kernel::functional
