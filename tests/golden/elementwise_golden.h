// Broadcast operators (0 add, 1 subtract, 2 multiply, 3 divide, 4 larger, 5 smaller) and the fully connected layer.
// Made by make_golden.py. Quotients are rounded to the nearest float32, all else is exact: compare bit by bit.
#pragma once

#include <vector>

// clang-format off

namespace talvo::test::golden {

struct BroadcastCase {
  char const* why;
  unsigned short op_type;
  std::vector<unsigned int> a_dims, b_dims, output_dims;
  std::vector<float> a, b, output;
};

inline const std::vector<BroadcastCase> kBroadcastCases = {
    {"both sides grow", 0, {2, 1, 3}, {4, 3}, {2, 4, 3}, {1.875, 0.5, 0.75, 1.625, 0.375, 1.125}, {-1.75, -0.5, 0.125,
     -0.625, -0.625, -1.75, 1.875, -0.125, 1, -1.75, -0.375, 1.625}, {0.125, 0, 0.875, 1.25, -0.125, -1, 3.75, 0.375,
     1.75, 0.125, 0.125, 2.375, -0.125, -0.125, 1.25, 1, -0.25, -0.625, 3.5, 0.25, 2.125, -0.125, 0, 2.75}},
    {"row by column", 3, {4, 1}, {1, 3}, {4, 3}, {0.375, 0.25, 0, 2}, {1.625, -1.625, 1.5}, {0.230769232f,
     -0.230769232f, 0.25, 0.15384616f, -0.15384616f, 0.166666672f, 0, -0.0, 0, 1.23076928f, -1.23076928f,
     1.33333337f}},
    {"inner axis, rank 4", 5, {2, 3, 1, 2}, {3, 2, 1}, {2, 3, 2, 2}, {-0.125, -1.125, 1.375, -1.375, 1.5, 0.5, -1.625,
     -1.875, -0.25, -1.875, -1.5, 0}, {-2, 1, -1.625, -1.875, -1.75, -1.375}, {-2, -2, -0.125, -1.125, -1.625, -1.625,
     -1.875, -1.875, -1.75, -1.75, -1.375, -1.375, -2, -2, -1.625, -1.875, -1.625, -1.875, -1.875, -1.875, -1.75,
     -1.75, -1.5, -1.375}},
};

struct FullConnectionCase {
  char const* why;
  unsigned short in_features, out_features;
  std::vector<float> input, weight, bias, output;
};

inline const std::vector<FullConnectionCase> kFullConnectionCases = {
    {"bias", 5, 3, {2, -2, -1.625, -1.25, 1.875}, {0.75, 1.625, -1.25, 0.875, -0.5, 0, -2, 0.5, 1.375, 0.625, -1.375,
     0.125, -1, 1.875, 1.625}, {-1.25, 0, 1.875}, {-3, 2.640625, 1.203125}},
    {"no bias", 9, 4, {1.375, 0.875, 0.625, -1.875, 1, -0.125, -1.625, -1, 0.125}, {0.875, 0, 0.5, 1.5, 0.75, -0.625,
     0.625, 0.375, -1.625, -1.875, 0.625, -0.5, 0.375, -0.75, -1.125, -1.5, -0.5, 1.25, -0.375, -0.5, 0.25, 2, -0.5,
     0.375, -0.25, 0.375, -0.25, 0.625, 0.25, 0.75, 1.875, -1.5, 0.25, -0.25, -0.625, -1.125}, {}, {-2.0625, -0.5625,
     -5.09375, -2.609375}},
};

}  // namespace talvo::test::golden
