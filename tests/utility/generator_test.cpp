#include "talvo/utility/generator.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>

namespace talvo::utility {
namespace {

TEST(Generator, DrawsUniformlyFromTheRange) {
  auto const values = GenerateNormalDistribution_float(-1.0f, 3.0f, 10000);
  ASSERT_EQ(values.size(), 10000u);
  auto const [low, high] = std::minmax_element(values.begin(), values.end());
  EXPECT_GE(*low, -1.0f);
  EXPECT_LE(*high, 3.0f);
  EXPECT_NEAR(std::accumulate(values.begin(), values.end(), 0.0) / 10000.0, 1.0, 0.1);
  auto const lower = std::count_if(values.begin(), values.end(), [](float value) { return value < 0.0f; });
  EXPECT_NEAR(static_cast<double>(lower), 2500.0, 300.0) << "a quarter of the values lies in a quarter of the range";
  EXPECT_NE(values, GenerateNormalDistribution_float(-1.0f, 3.0f, 10000)) << "seeded anew";
  EXPECT_EQ(GenerateNormalDistribution_float(0.0f, 1.0f, 0).size(), 0u);
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
