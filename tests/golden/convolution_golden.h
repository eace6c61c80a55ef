// Convolutions: images [C, H, W], weights in the order of the layer records, an empty bias where there is none. Made
// by make_golden.py. Every value is exact in float32 in any order of summation: compare bit by bit.
#pragma once

#include <vector>

// clang-format off

namespace talvo::test::golden {

template <class Padding>
struct Image2dCase {
  char const* why;
  unsigned short in_channels, out_channels, kernel_x, kernel_y;
  Padding padding_l, padding_t, padding_r, padding_b;
  unsigned short stride_x, stride_y, dilation_x, dilation_y, groups;
  unsigned int height, width, out_height, out_width;
  std::vector<float> input, weight, bias, output;
};

using Conv2dCase = Image2dCase<unsigned short>;
using ConvTranspose2dCase = Image2dCase<short>;  // a negative border crops

inline const std::vector<Conv2dCase> kConv2dCases = {
    {"two groups, all differs by axis and side", 4, 2, 2, 3, 0, 2, 3, 1, 2, 1, 3, 2, 2, 3, 3, 2, 2, {1.875, 0.5, 0.75,
     1.625, 0.375, 1.125, 1.375, -1.125, -1.875, -0.875, -0.875, 1.5, 1.75, -2, 0, 1.375, -1.5, 1.25, -1.625, -0.125,
     1.25, -0.75, -0.625, -0.875, 0.875, -1, 2, -0.25, -0.125, 0, 0.375, 0.25, 0, 2, 1.25, 1.25}, {0.875, 0.5, -0.625,
     2, -0.125, -1.125, 1.375, -1.375, 1.5, 0.5, -1.625, -1.875, -0.25, -1.875, -1.5, 0, 2, -0.125, 1.25, 1.75, 1.375,
     0.5, -0.25, 0}, {-1, 0}, {-5.890625, -1.015625, 0.609375, -1.703125, 3.34375, 1.8125, 1.640625, 1.3125}},
};

inline const std::vector<ConvTranspose2dCase> kConvTranspose2dCases = {
    {"two groups, all differs by axis, borders that crop", 2, 4, 2, 3, 0, -1, -2, -1, 3, 2, 1, 1, 2, 3, 2, 2, 3,
     {-0.5, -1, 2, -2, -1.625, -1.25, 1.875, 0.75, 1.625, -1.25, 0.875, -0.5}, {0, -2, 0.5, 1.375, 0.625, -1.375,
     0.125, -1, 1.875, 1.625, -1.25, 0, 1.875, 1.375, 0.875, 0.625, -1.875, 1, -0.125, -1.625, -1, 0.125, 0.875, 0},
     {0.5, 1.5, 0.75, -0.625}, {3.25, 0.5, -0.5, 1, 0.5, -0.75, 4.75, 1.5, -2.25, 3.125, 1.5, 3.84375, 1.765625, 0.75,
     -0.34375, 3.578125, 0.75, 2.15625, -0.421875, -0.625, 0.625, -2.046875, -0.625, -1.65625}},
};

}  // namespace talvo::test::golden
