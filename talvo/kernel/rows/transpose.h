// Elements of any size that change places: rectangles whose rows become columns, and rows that turn round. Bits are
// moved, never read as numbers. Internal.
#pragma once

#include <cstddef>

namespace talvo::kernel::rows {

/// A rectangle and where it goes: element (r, c), at from + r * from_row + c * size, goes to
/// to + c * to_row + r * to_step. Steps are in bytes; to_step is plus or minus the size of an element, the row steps
/// are of either sign. The two do not overlap. The same for `planes` of them, one a step of the planes behind the
/// other: many small ones go best in one call.
struct Transposition {
  unsigned char const* from;
  std::ptrdiff_t from_row;
  std::size_t rows, columns;
  unsigned char* to;
  std::ptrdiff_t to_row, to_step;
  std::size_t planes = 1;
  std::ptrdiff_t from_plane = 0, to_plane = 0;
};

/// Elements of 1, 2, 3, 4 and 8 bytes go in squares held in vectors, others one by one; a single plane of 1, 3 or 4
/// channels, side by side before or after, in as many streams.
void TransposeElements(std::size_t element_bytes, Transposition const& transposition);

/// to[c * to_stride + r] = from[r * from_stride + c] for r < rows, c < columns, strides in floats; the ranges do not
/// overlap.
void TransposeRows(float const* from, std::size_t from_stride, std::size_t rows, std::size_t columns, float* to,
                   std::size_t to_stride);

/// Element i of `to` is element count - 1 - i of `from`. The two do not overlap.
void ReverseElements(std::size_t element_bytes, unsigned char const* from, std::size_t count, unsigned char* to);

}  // namespace talvo::kernel::rows
