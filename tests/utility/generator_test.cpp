#include "talvo/utility/generator.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace talvo::utility {
namespace {

TEST(Generator, DrawsFromTheWholeRange) {
  auto const values = GenerateNormalDistribution_float(-1.0f, 3.0f, 10000);
  ASSERT_EQ(values.size(), 10000u);
  auto const [low, high] = std::minmax_element(values.begin(), values.end());
  EXPECT_TRUE(*low >= -1.0f && *high <= 3.0f) << *low << " to " << *high;
  EXPECT_TRUE(*low < -0.9f && *high > 2.9f) << *low << " to " << *high;
  EXPECT_NE(values, GenerateNormalDistribution_float(-1.0f, 3.0f, 10000)) << "seeded anew";
}

// A small value tells its state but for a rounding: the next one is that of 48271 times the state.
TEST(Generator, MultipliesItsState) {
  auto const values = GenerateNormalDistribution_float(0.0f, 1.0f, 1000000);
  int seen = 0;
  for (std::size_t i = 0; i + 1 < values.size(); ++i) {
    if (values[i] > 0x1p-9f) continue;  // state below 2^22: exact
    auto const state = static_cast<std::uint64_t>(std::lround(values[i] / 4.656613e-10f)) + 1;
    EXPECT_EQ(values[i + 1], static_cast<float>(state * 48271 % 2147483647 - 1) * 4.656613e-10f);
    ++seen;
  }
  EXPECT_GT(seen, 1000);
}

TEST(Generator, CutsHalves) {
  for (float value : GenerateNormalDistribution_half(0.0f, 1.0f, 1000)) EXPECT_TRUE(value >= 0.0f && value <= 1.0f);
  auto const constants = GenerateConstantDistribution_half(2049.9f, 3);  // steps of 2 from 2048 on
  ASSERT_EQ(constants.size(), 3u);
  EXPECT_EQ(static_cast<float>(constants[2]), 2048.0f);
  EXPECT_EQ(GenerateConstantDistribution_float(0.1f, 2), (std::vector<float>{0.1f, 0.1f}));
}

}  // namespace
}  // namespace talvo::utility
