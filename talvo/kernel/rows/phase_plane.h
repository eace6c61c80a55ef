// Planes with a border, as convolution and pooling slide their windows over them. Internal.
#pragma once

#include <algorithm>
#include <cstddef>

#include "talvo/kernel/rows/instruction_sets.h"

namespace talvo::kernel::rows {

/// How a plane [height, width] lies in scratch with a border around it: row after row, the columns of a padded row
/// sorted by their phase, the remainder by `stride`. What neighbouring output columns read at one tap then stands side
/// by side. Lengths are floats.
struct PhasePlane {
  std::size_t height, width;                // of the plane itself
  std::size_t top, left;                    // border before it
  std::size_t padded_height, padded_width;  // with all its border, 1 or more each
  std::size_t stride;                       // of the columns, 1 or more
  std::size_t phase_pitch;                  // from one phase of a row to the next, PhaseWidth or more

  /// Columns of the longest phase.
  static std::size_t PhaseWidth(std::size_t padded_width, std::size_t stride) {
    return (padded_width + stride - 1) / stride;
  }
  std::size_t RowPitch() const { return phase_pitch * std::min(stride, padded_width); }
  std::size_t Count() const { return padded_height * RowPitch(); }
  /// Where a padded column stands in its row.
  std::size_t Place(std::size_t column) const { return column % stride * phase_pitch + column / stride; }
};

/// Copies from [height, width] to its places in a plane of Count() floats; the border stays as it is. No overlap.
extern Primitive<void(float const* from, PhasePlane const& plane, float* to)> const LayPlane;

}  // namespace talvo::kernel::rows
