// Bilinear resizing of bytes: weights of 11 bits, lines with 7 fractional bits, two bits left after the vertical step.
// Internal.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace talvo::kernel::image {

/// Position of output pixel i in a source of `scale` source pixels for each output pixel, with aligned centres; the
/// output begins `offset` source pixels behind the source.
float CentreAligned(std::size_t i, double scale, double offset = 0.0);

/// Source pixels for each output pixel.
inline double Scale(std::size_t from, std::size_t to) { return static_cast<double>(from) / static_cast<double>(to); }

/// For each output pixel along one axis: the first of its two taps and the weights of both. A position beyond the
/// source counts as its border. In a source of one pixel both taps are that pixel, and the second has all the weight.
struct Taps {
  Taps(std::size_t from, std::size_t to, double scale, double offset);
  Taps(std::size_t from, std::size_t to) : Taps(from, to, Scale(from, to), 0.0) {}

  std::vector<std::uint32_t> first;
  std::vector<std::int16_t> weight0, weight1;
  std::uint32_t distance;  // from the first tap to the second
  std::size_t extent;      // of the source
};

/// Rows of pixels that stand `row_bytes` apart.
struct PixelRows {
  unsigned char const* first;
  std::size_t row_bytes;
};

/// Pixels of 1 to 4 bytes; `to` holds a pixel for each pair of taps, row by row.
void ResizeBilinear(PixelRows const& from, Taps const& row_taps, Taps const& column_taps, std::size_t pixel_bytes,
                    unsigned char* to);

}  // namespace talvo::kernel::image
