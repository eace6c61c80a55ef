// The rows of a conversion from YUV with the coefficients of the caller. Numbers are fixed-point, modulo 2^16.
// Internal.
#pragma once

#include <cstddef>
#include <cstdint>

namespace talvo::kernel::image {

/// Bytes of which each counts (byte - offset) gain.
struct WeightedBytes {
  unsigned char const* bytes;
  std::uint16_t offset, gain;
};

/// terms[2 i] = terms[2 i + 1] = a + b of block i, whose bytes stand `step`, 1 or 2, behind those of the one before.
void ChrominanceTerms(WeightedBytes const& a, WeightedBytes const& b, std::size_t step, std::size_t blocks,
                      std::uint16_t* terms);

/// to[i] = bits 5 to 12 of y + terms[i]. No overlap.
void JoinTerms(WeightedBytes const& y, std::uint16_t const* terms, std::size_t columns, unsigned char* to);

}  // namespace talvo::kernel::image
