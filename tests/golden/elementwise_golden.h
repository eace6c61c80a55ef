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
    {"both sides grow", 0, {2, 1, 3}, {4, 3}, {2, 4, 3}, {1.875f, 0.5f, 0.75f, 1.625f, 0.375f, 1.125f}, {-1.75f,
     -0.5f, 0.125f, -0.625f, -0.625f, -1.75f, 1.875f, -0.125f, 1.0f, -1.75f, -0.375f, 1.625f}, {0.125f, 0.0f, 0.875f,
     1.25f, -0.125f, -1.0f, 3.75f, 0.375f, 1.75f, 0.125f, 0.125f, 2.375f, -0.125f, -0.125f, 1.25f, 1.0f, -0.25f,
     -0.625f, 3.5f, 0.25f, 2.125f, -0.125f, 0.0f, 2.75f}},
    {"the first is shorter", 1, {3}, {2, 2, 3}, {2, 2, 3}, {0.375f, 0.25f, 0.0f}, {2.0f, -1.625f, -1.625f, -1.5f,
     -1.25f, -0.75f, 2.0f, 1.0f, -0.5f, 1.75f, 0.375f, 1.75f}, {-1.625f, 1.875f, 1.625f, 1.875f, 1.5f, 0.75f, -1.625f,
     -0.75f, 0.5f, -1.375f, -0.125f, -1.75f}},
    {"one value for each channel", 2, {3, 2, 2}, {3, 1, 1}, {3, 2, 2}, {0.5f, -0.25f, 0.0f, -1.0f, 0.0f, -0.5f, -1.0f,
     2.0f, -2.0f, -1.625f, -1.25f, 1.875f}, {1.5f, -1.875f, -0.5f}, {0.75f, -0.375f, 0.0f, -1.5f, -0.0f, 0.9375f,
     1.875f, -3.75f, 1.0f, 0.8125f, 0.625f, -0.9375f}},
    {"row by column", 3, {4, 1}, {1, 3}, {4, 3}, {-2.0f, 0.5f, 1.375f, 0.625f}, {0.375f, 1.125f, -0.625f},
     {-5.33333349f, -1.77777779f, 3.20000005f, 1.33333337f, 0.444444448f, -0.800000012f, 3.66666675f, 1.22222221f,
     -2.20000005f, 1.66666663f, 0.555555582f, -1.0f}},
    {"equal shapes", 4, {2, 5}, {2, 5}, {2, 5}, {0.0f, 1.875f, 1.375f, 0.875f, 0.625f, -1.875f, 1.0f, -0.125f,
     -1.625f, -1.0f}, {-1.125f, 1.5f, -1.125f, 1.25f, -1.75f, -1.375f, -0.75f, -1.375f, 1.25f, -0.25f}, {0.0f, 1.875f,
     1.375f, 1.25f, 0.625f, -1.375f, 1.0f, -0.125f, 1.25f, -0.25f}},
    {"inner axis, rank 4", 5, {2, 3, 1, 2}, {3, 2, 1}, {2, 3, 2, 2}, {-0.5f, 0.25f, 2.0f, -0.5f, 0.375f, -0.25f,
     0.375f, -0.25f, 0.625f, 0.25f, 0.75f, 1.875f}, {-0.375f, 1.125f, -1.0f, -0.75f, 0.5f, 0.125f}, {-0.5f, -0.375f,
     -0.5f, 0.25f, -1.0f, -1.0f, -0.75f, -0.75f, 0.375f, -0.25f, 0.125f, -0.25f, -0.375f, -0.375f, 0.375f, -0.25f,
     -1.0f, -1.0f, -0.75f, -0.75f, 0.5f, 0.5f, 0.125f, 0.125f}},
};

struct FullConnectionCase {
  char const* why;
  unsigned short in_features, out_features;
  std::vector<float> input, weight, bias, output;
};

inline const std::vector<FullConnectionCase> kFullConnectionCases = {
    {"bias", 5, 3, {-1.125f, -2.0f, 0.75f, -2.0f, -0.875f}, {0.0f, 1.5f, -1.625f, 0.625f, 0.125f, -1.5f, 1.375f,
     1.375f, -0.125f, 1.875f, 0.5f, 1.625f, 1.875f, 0.25f, -0.875f}, {-1.5f, 0.25f, -1.25f}, {-7.078125f, -1.171875f,
     -3.390625f}},
    {"no bias", 9, 4, {1.0f, 1.75f, -1.0f, 0.25f, -1.875f, -1.375f, -0.5f, 1.625f, 1.875f}, {0.625f, 0.375f, 0.25f,
     -1.75f, -0.5f, 2.0f, -0.375f, -1.125f, -1.125f, 0.875f, -1.875f, 1.875f, 1.5f, 0.25f, -0.125f, 1.125f, 0.25f,
     -0.125f, -0.75f, -0.25f, 1.0f, -1.875f, -2.0f, 0.875f, -0.5f, 1.25f, -1.875f, 1.625f, -1.5f, -0.375f, 1.875f,
     -1.625f, 0.625f, 1.0f, -0.25f, -1.75f}, {}, {-4.96875f, -4.59375f, -1.34375f, -2.15625f}},
};

}  // namespace talvo::test::golden
