// Resampling of planes on bare pointers: upsampling, pixel shuffle and its inverse, sampling at given positions.
// Images are [channels, height, width], row-major; input and output do not overlap. For the kernels. Internal.
#pragma once

#include <cstddef>
#include <cstdint>

namespace talvo::kernel::functional {

struct ImageSize {
  std::size_t channels, height, width;
};

/// floor(extent * scale + 0.5), in float32. Assert: a result that is negative, NaN or over 32 bits.
unsigned int UpsampledExtent(unsigned int extent, float scale);

/// y[c, i, j] = x[c, floor(i / scale_y), floor(j / scale_x)], in float32, for elements of 1, 2 or 4 bytes.
/// x [channels, height, width], y [channels, out_height, out_width]. Assert: a last position beyond the plane.
void UpsampleNearest(void const* x, ImageSize const& size, unsigned int element_bytes, float scale_y, float scale_x,
                     std::size_t out_height, std::size_t out_width, void* y);

struct Bilinear {
  float scale_y, scale_x;
  bool align_corner;
  std::size_t out_height, out_width;
};

/// Bilinear interpolation between a, b (upper left and right) and d, e (lower left and right), in float32:
/// y = (e wx + d (1 - wx)) wy + (b wx + a (1 - wx)) (1 - wy); elements are floats, or with `shorts` 16-bit integers,
/// whose results are cut toward zero.
/// The position in x of output index i is i / scale + (0.5 / scale - 0.5), or i (extent - 1) / (out_extent - 1) with
/// align_corner, 0 for an out_extent of 1. A position outside the plane takes the nearest row or column alone.
/// Assert: a last position beyond the plane.
void UpsampleBilinear(void const* x, bool shorts, ImageSize const& size, Bilinear const& to, void* y);

/// y[c / r^2, i r + c % r^2 / r, j r + c % r] = x[c, i, j].  y [channels / r^2, height r, width r].
/// channels is a multiple of r^2, r at least 1. Elements of 2 or 4 bytes are moved as they are.
void PixelShuffle(void const* x, ImageSize const& size, unsigned int element_bytes, std::size_t r, void* y);

/// y[c, i, j] = x[c / k^2, i k + c % k^2 / k, j k + c % k].  y [channels k^2, height / k, width / k], k at least 1.
/// Rows and columns behind the last multiple of k are not read. Elements of 2 or 4 bytes are moved as they are.
void PixelUnshuffle(void const* x, ImageSize const& size, unsigned int element_bytes, std::size_t k, void* y);

struct GridSampling {
  bool bilinear;       // between four pixels; otherwise the nearest one
  bool border;         // positions outside take the nearest pixel of the border; otherwise pixels outside are 0
  bool align_corners;  // bilinear alone: -1 and 1 are the centres of the outer pixels, not their edges
};

/// Floats of scratch that GridSample needs for `out_count` positions: some planes, none where they are large or few.
std::size_t GridSampleScratch(ImageSize const& size, std::size_t out_count);

/// y[c, i] = x[c] at the position (gx, gy) = grid[i, 0 .. 1], each from [-1, 1].
/// x [channels, height, width], grid [out_count, 2], y [channels, out_count]; scratch overlaps none of them.
/// Nearest: pixel floor((g + 1) 0.5 extent). Bilinear: position (g + 1) 0.5 extent - 0.5, or (g + 1) 0.5 (extent - 1)
/// with align_corners, where without border a position outside gives 0 as a whole. NaN counts as outside, with border
/// as 0. Assert: border for planes without pixels.
void GridSample(float const* x, ImageSize const& size, float const* grid, std::size_t out_count,
                GridSampling const& sampling, float* scratch, float* y);

}  // namespace talvo::kernel::functional
