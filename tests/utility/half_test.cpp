#include "talvo/utility/half.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace half_float {
namespace {

// (-1)^s 2^(e-15) 1.m, and (-1)^s 2^-14 0.m for e = 0: IEEE 754, binary16.
double PlainValue(unsigned int bits) {
  unsigned int const exponent = bits >> 10 & 31u, mantissa = bits & 1023u;
  double const magnitude = exponent == 31  ? (mantissa == 0 ? HUGE_VAL : std::nan(""))
                           : exponent == 0 ? std::ldexp(mantissa, -24)
                                           : std::ldexp(1024 + mantissa, static_cast<int>(exponent) - 25);
  return (bits & 0x8000u) != 0 ? -magnitude : magnitude;
}

// The half of the greatest magnitude that is not above |value|, by bisection over the 31744 finite ones.
unsigned int PlainTruncation(float value) {
  double const magnitude = std::fabs(static_cast<double>(value));
  unsigned int low = 0, high = 0x7C00;
  while (high - low > 1) {
    unsigned int const middle = (low + high) / 2;
    (PlainValue(middle) <= magnitude ? low : high) = middle;
  }
  return (std::signbit(value) ? 0x8000u : 0u) | (magnitude >= 65536.0 ? 0x7C00u : low);
}

TEST(Half, WidensEveryHalfExactlyAndTakesItBack) {
  for (unsigned int bits = 0; bits < 65536; ++bits) {
    half const value = half::FromBits(static_cast<std::uint16_t>(bits));
    float const wide = value;
    double const want = PlainValue(bits);
    if (std::isnan(want)) {
      ASSERT_TRUE(std::isnan(wide)) << std::hex << bits;
      ASSERT_EQ(half(wide).Bits(), bits | 0x200u) << "a quiet NaN with the payload's upper bits";
    } else {
      ASSERT_EQ(static_cast<double>(wide), want) << std::hex << bits;
      ASSERT_EQ(std::signbit(wide), std::signbit(want)) << std::hex << bits;
      ASSERT_EQ(half(wide).Bits(), bits);
    }
  }
}

// Every upper half of a float's bits with the lower halves at which a cut can go wrong.
TEST(Half, CutsFloatsTowardsZero) {
  for (std::uint32_t upper = 0; upper < 65536; ++upper) {
    for (std::uint32_t lower : {0x0000u, 0x0001u, 0x1FFFu, 0x2000u, 0x8000u, 0xFFFFu}) {
      std::uint32_t const bits = upper << 16 | lower;
      float value;
      std::memcpy(&value, &bits, sizeof value);
      if (std::isnan(value)) {
        ASSERT_TRUE(std::isnan(static_cast<float>(half(value)))) << std::hex << bits;
      } else {
        ASSERT_EQ(half(value).Bits(), PlainTruncation(value)) << std::hex << bits;
      }
    }
  }
}

TEST(Half, ComparesAsFloats) {
  half const nan(std::numeric_limits<float>::quiet_NaN());
  EXPECT_TRUE(half(0.0f) == half(-0.0f));
  EXPECT_TRUE(half(-2.0f) < half(-1.0f));
  EXPECT_TRUE(half(2.0f) >= half(1.0f));
  EXPECT_TRUE(nan != nan);
  EXPECT_FALSE(nan == nan || nan < nan || nan <= nan || nan > nan || nan >= nan);
}

}  // namespace
}  // namespace half_float
