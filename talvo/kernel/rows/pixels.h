// Row primitives of the image operations, on bytes unless told otherwise. Ranges do not overlap. Internal.
#pragma once

#include <cstddef>
#include <cstdint>

#include "talvo/kernel/rows/instruction_sets.h"

namespace talvo::kernel::rows {

using Byte = unsigned char;

/// Weights of gray, in 1/256.
constexpr std::uint16_t kRed = 77, kGreen = 150, kBlue = 29;

/// plane k [i] = pixels[3 i + k], or pixels[4 i + k] with byte 3 dropped: (pixels, count, plane 0, plane 1, plane 2).
extern Primitive<void(Byte const*, std::size_t, Byte*, Byte*, Byte*)> const SplitThree;
extern Primitive<void(Byte const*, std::size_t, Byte*, Byte*, Byte*)> const SplitFour;

/// pixels[3 i + k] = plane k [i]: (plane 0, plane 1, plane 2, count, pixels).
extern Primitive<void(Byte const*, Byte const*, Byte const*, std::size_t, Byte*)> const MergeThree;

/// gray[i] = (kRed r[i] + kGreen g[i] + kBlue b[i]) >> 8: (r, g, b, count, gray).
extern Primitive<void(Byte const*, Byte const*, Byte const*, std::size_t, Byte*)> const GrayRow;

/// The same of pixels of three bytes, of which bytes 0 and 2 have the weights given and byte 1 that of green: (pixels,
/// first weight, third weight, count, gray). And of pixels r, g, b, x: (pixels, count, gray).
extern Primitive<void(Byte const*, std::uint16_t, std::uint16_t, std::size_t, Byte*)> const GrayThree;
extern Primitive<void(Byte const*, std::size_t, Byte*)> const GrayFour;

/// terms[2 i] = terms[2 i + 1] = low byte of ((a - 128) a_gain + (b - 128) b_gain) >> 6, where a and b are those of
/// block i, `step` (1 or 2) bytes from the one before, and the sum fits 16 bits: (a, b, step, a_gain, b_gain, blocks,
/// terms).
extern Primitive<void(Byte const*, Byte const*, std::size_t, std::int16_t, std::int16_t, std::size_t, Byte*)> const
    ChrominanceBytes;

/// y[i] = x[i] + terms[i], wrapping around: (x, terms, count, y).
extern Primitive<void(Byte const*, Byte const*, std::size_t, Byte*)> const AddBytes;

/// y[i] = x[count - 1 - i], single bytes and groups of three: (x, count, y).
extern Primitive<void(Byte const*, std::size_t, Byte*)> const ReverseBytes;
extern Primitive<void(Byte const*, std::size_t, Byte*)> const ReverseTriples;

/// A tile whose rows and columns change places, pixels of 1, 3 or 4 bytes: pixel (i, j) at from + i * from_row + j *
/// size goes to to + j * to_row + i * to_step, where to_step is plus or minus the size: (from, from_row, rows, columns,
/// to, to_row, to_step).
extern Primitive<void(Byte const*, std::ptrdiff_t, std::size_t, std::size_t, Byte*, std::ptrdiff_t,
                      std::ptrdiff_t)> const TransposeBytes,
    TransposeTriples, TransposeQuads;

/// line[i] = (left[i] weight0[i] + right[i] weight1[i]) >> 4: (left, right, weight0, weight1, count, line).
extern Primitive<void(Byte const*, Byte const*, std::int16_t const*, std::int16_t const*, std::size_t,
                      std::int16_t*)> const BlendNeighbours;

/// to[i] = (((upper[i] weight0) >> 16) + ((lower[i] weight1) >> 16) + 2) >> 2: (upper, lower, weight0, weight1, count,
/// to).
extern Primitive<void(std::int16_t const*, std::int16_t const*, std::int16_t, std::int16_t, std::size_t, Byte*)> const
    BlendLines;

/// out[i] = (in[i] - sub) mul: (in, count, sub, mul, out). The float form may write over its input.
extern Primitive<void(Byte const*, std::size_t, float, float, float*)> const NormaliseBytes;
extern Primitive<void(float const*, std::size_t, float, float, float*)> const NormaliseFloats;

/// The same truncated and saturated to 16 bits, NaN as 0.
extern Primitive<void(Byte const*, std::size_t, float, float, std::int16_t*)> const NormaliseSaturated;

}  // namespace talvo::kernel::rows
