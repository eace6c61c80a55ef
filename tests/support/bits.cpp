#include "tests/support/bits.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>

#include "talvo/utility/base64.h"

namespace talvo::test {

std::vector<float> Floats(std::uint32_t seed, std::size_t count) {
  std::mt19937 random(seed);
  std::vector<float> values(count);
  for (float& value : values) value = static_cast<float>(static_cast<std::int32_t>(random())) * 0x1p-31f;
  return values;
}

std::vector<float> SpecialFloats(std::uint32_t seed, std::size_t count) {
  using Limits = std::numeric_limits<float>;
  constexpr float kNan = Limits::quiet_NaN(), kInfinity = Limits::infinity(), kDenormal = Limits::denorm_min();
  float const specials[] = {kNan,       -kNan,         kInfinity,      -kInfinity,    0.0f, -0.0f, kDenormal,
                            -kDenormal, Limits::max(), -Limits::max(), Limits::min(), 6.0f, -3.0f, 3.0f};
  std::vector<float> values = Floats(seed, count);
  for (std::size_t i = 0; i < count && i < 2 * std::size(specials); i += 2) values[i] = specials[i / 2];
  return values;
}

std::vector<unsigned char> Bytes(std::uint32_t seed, std::size_t count) {
  std::mt19937 random(seed);
  std::vector<unsigned char> values(count);
  for (unsigned char& value : values) value = static_cast<unsigned char>(random() >> 24);
  return values;
}

std::string WeightText(std::vector<float> const& values) {
  return runtime::Base64Encode(reinterpret_cast<unsigned char const*>(values.data()), values.size() * sizeof(float));
}

void ExpectSameBits(float const* want, float const* got, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    if (std::isnan(want[i]) && std::isnan(got[i])) continue;
    if (std::memcmp(want + i, got + i, sizeof(float)) != 0) {
      FAIL() << "value " << i << " of " << count << ": want " << std::hexfloat << want[i] << ", got " << got[i];
    }
  }
}

void ExpectSameBits(std::vector<float> const& want, std::vector<float> const& got) {
  ASSERT_EQ(want.size(), got.size());
  ExpectSameBits(want.data(), got.data(), want.size());
}

void ExpectNearSum(std::vector<float> const& want, std::vector<float> const& got, std::size_t n, float scale) {
  ASSERT_EQ(want.size(), got.size());
  float const tolerance = 4.0f * static_cast<float>(n) * std::numeric_limits<float>::epsilon() * scale;
  for (std::size_t i = 0; i < want.size(); ++i) ASSERT_NEAR(want[i], got[i], tolerance) << "value " << i;
}

}  // namespace talvo::test
