// Planes whose pixels stand side by side: pixel i of kChannelsTogether planes at i * kChannelsTogether. What is the
// same for all channels, a place and its weights, then serves a vector. TransposeRows mixes planes and parts them.
// Internal.
#pragma once

#include <cstddef>
#include <cstdint>

#include "talvo/kernel/rows/instruction_sets.h"

namespace talvo::kernel::rows {

constexpr std::size_t kChannelsTogether = kMaxLanes;

/// Two pixels: high weight + low rest.
struct TwoPixels {
  std::uint32_t low, high;
  float weight, rest;
};

/// Four pixels: low wy + (1 - wy) top, where low = low_right wx + (1 - wx) low_left and top likewise.
struct FourPixels {
  std::uint32_t top_left, top_right, low_left, low_right;
  float weight_x, weight_y;
};

/// y [n, kChannelsTogether] = what each of n places says of `mixed`, or the pixel itself. No overlap.
extern Primitive<void(float const* mixed, std::uint32_t const* places, std::size_t n, float* y)> const TakePixels;
extern Primitive<void(float const* mixed, TwoPixels const* places, std::size_t n, float* y)> const BlendTwoPixels;
extern Primitive<void(float const* mixed, FourPixels const* places, std::size_t n, float* y)> const BlendFourPixels;

}  // namespace talvo::kernel::rows
