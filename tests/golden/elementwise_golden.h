// The fully connected layer. Made by make_golden.py. Every value is exact in float32 in any order of summation:
// compare bit by bit.
#pragma once

#include <vector>

// clang-format off

namespace talvo::test::golden {

struct FullConnectionCase {
  char const* why;
  unsigned short in_features, out_features;
  std::vector<float> input, weight, bias, output;
};

inline const std::vector<FullConnectionCase> kFullConnectionCases = {
    {"bias", 5, 3, {1.875, 0.5, 0.75, 1.625, 0.375}, {1.125, 1.375, -1.125, -1.875, -0.875, -0.875, 1.5, 1.75, -2, 0,
     1.375, -1.5, 1.25, -1.625, -0.125}, {1.25, -0.75, -0.625}, {-0.171875, -3.578125, -0.546875}},
    {"no bias", 9, 4, {-0.875, 0.875, -1, 2, -0.25, -0.125, 0, 0.375, 0.25}, {0, 2, 1.25, 1.25, 0.875, 0.5, -0.625, 2,
     -0.125, -1.125, 1.375, -1.375, 1.5, 0.5, -1.625, -1.875, -0.25, -1.875, -1.5, 0, 2, -0.125, 1.25, 1.75, 1.375,
     0.5, -0.25, 0, -1, 0, -0.5, -1, 2, -2, -1.625, -1.25}, {}, {3.4375, 6.078125, -1.34375, -2.796875}},
};

}  // namespace talvo::test::golden
