// Row primitives of the image operations, on bytes unless told otherwise. Ranges do not overlap. Internal.
#pragma once

#include <cstddef>
#include <cstdint>

#include "talvo/kernel/rows/instruction_sets.h"

namespace talvo::kernel::rows {

using Byte = unsigned char;

/// Weights of gray, in 1/256.
constexpr std::uint16_t kRed = 77, kGreen = 150, kBlue = 29;

/// plane k [i] = pixels[3 i + k], or pixels[4 i + k] with byte 3 dropped.
extern Primitive<void(Byte const*pixels, std::size_t count, Byte*plane0, Byte*plane1, Byte*plane2)> const SplitThree,
    SplitFour;

/// pixels[3 i + k] = plane k [i].
extern Primitive<void(Byte const* plane0, Byte const* plane1, Byte const* plane2, std::size_t count,
                      Byte* pixels)> const MergeThree;

/// gray[i] = (kRed r[i] + kGreen g[i] + kBlue b[i]) >> 8.
extern Primitive<void(Byte const* r, Byte const* g, Byte const* b, std::size_t count, Byte* gray)> const GrayRow;

/// The same of pixels of three bytes, of which bytes 0 and 2 have the weights given and byte 1 that of green; and of
/// pixels r, g, b, x.
extern Primitive<void(Byte const* pixels, std::uint16_t first_weight, std::uint16_t third_weight, std::size_t count,
                      Byte* gray)> const GrayThree;
extern Primitive<void(Byte const* pixels, std::size_t count, Byte* gray)> const GrayFour;

/// terms[2 i] = terms[2 i + 1] = low byte of ((a - 128) a_gain + (b - 128) b_gain) >> 6, where a and b are those of
/// block i, `step` (1 or 2) bytes from the one before, and the sum fits 16 bits.
extern Primitive<void(Byte const* a, Byte const* b, std::size_t step, std::int16_t a_gain, std::int16_t b_gain,
                      std::size_t blocks, Byte* terms)> const ChrominanceBytes;

/// y[i] = x[i] + terms[i], wrapping around.
extern Primitive<void(Byte const* x, Byte const* terms, std::size_t count, Byte* y)> const AddBytes;

/// Saturated: r = (64 y + 90 v) >> 6, g = (64 y - 22 u - 46 v) >> 6, b = (64 y + 113 u) >> 6, with u and v less 128.
/// The u and v of pixel i are u[i step] and v[i step], `step` 1 or 2.
extern Primitive<void(Byte const* y, Byte const* u, Byte const* v, std::size_t step, std::size_t count, Byte* r,
                      Byte* g, Byte* b)> const SaturatedColours;

/// line[i] = (left[i] weight0[i] + right[i] weight1[i]) >> 4.
extern Primitive<void(Byte const* left, Byte const* right, std::int16_t const* weight0, std::int16_t const* weight1,
                      std::size_t count, std::int16_t* line)> const BlendTaps;

/// to[i] = (((upper[i] weight0) >> 16) + ((lower[i] weight1) >> 16) + 2) >> 2.
extern Primitive<void(std::int16_t const* upper, std::int16_t const* lower, std::int16_t weight0, std::int16_t weight1,
                      std::size_t count, Byte* to)> const BlendLines;

/// out[i] = (in[i] - sub) mul. The float form may write over its input.
extern Primitive<void(Byte const* in, std::size_t count, float sub, float mul, float* out)> const NormaliseBytes;
extern Primitive<void(float const* in, std::size_t count, float sub, float mul, float* out)> const NormaliseFloats;

/// out[i] = (in[i] - sub) scale, truncated and saturated to 16 bits, NaN as 0.
extern Primitive<void(Byte const* in, std::size_t count, float sub, float scale, std::int16_t* out)> const
    NormaliseSaturated;

}  // namespace talvo::kernel::rows
