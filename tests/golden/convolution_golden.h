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
    {"two groups, all differs by axis and side", 4, 4, 2, 3, 0, 2, 3, 1, 2, 1, 3, 2, 2, 5, 4, 4, 2, {1.875, 0.5, 0.75,
     1.625, 0.375, 1.125, 1.375, -1.125, -1.875, -0.875, -0.875, 1.5, 1.75, -2, 0, 1.375, -1.5, 1.25, -1.625, -0.125,
     1.25, -0.75, -0.625, -0.875, 0.875, -1, 2, -0.25, -0.125, 0, 0.375, 0.25, 0, 2, 1.25, 1.25, 0.875, 0.5, -0.625,
     2, -0.125, -1.125, 1.375, -1.375, 1.5, 0.5, -1.625, -1.875, -0.25, -1.875, -1.5, 0, 2, -0.125, 1.25, 1.75, 1.375,
     0.5, -0.25, 0, -1, 0, -0.5, -1, 2, -2, -1.625, -1.25, 1.875, 0.75, 1.625, -1.25, 0.875, -0.5, 0, -2, 0.5, 1.375,
     0.625, -1.375}, {0.125, -1, 1.875, 1.625, -1.25, 0, 1.875, 1.375, 0.875, 0.625, -1.875, 1, -0.125, -1.625, -1,
     0.125, 0.875, 0, 0.5, 1.5, 0.75, -0.625, 0.625, 0.375, -1.625, -1.875, 0.625, -0.5, 0.375, -0.75, -1.125, -1.5,
     -0.5, 1.25, -0.375, -0.5, 0.25, 2, -0.5, 0.375, -0.25, 0.375, -0.25, 0.625, 0.25, 0.75, 1.875, -1.5}, {0.25,
     -0.25, -0.625, -1.125}, {9.78125, 1.5, -1.203125, 2.234375, 1.203125, 1.0625, 9.015625, 5.265625, -2.0625, -2,
     2.046875, 0.65625, -2.015625, -1.3125, -0.765625, 1.515625, -0.9375, -0.6875, -1.203125, -0.359375, 3.140625,
     -4.375, -2.484375, 4.625, 2.875, 1.484375, 1.78125, -1.03125, -1.96875, 1.734375, -7.40625, -1.75}},
};

inline const std::vector<ConvTranspose2dCase> kConvTranspose2dCases = {
    {"two groups, all differs by axis, borders that crop", 4, 4, 2, 3, 0, -1, -2, -1, 3, 2, 1, 1, 2, 3, 2, 2, 3,
     {-1.875, -0.375, 1.375, -1.625, -0.375, 1.875, 1.875, -1.125, -2, 0.75, -2, -0.875, 0, 1.5, -1.625, 0.625, 0.125,
     -1.5, 1.375, 1.375, -0.125, 1.875, 0.5, 1.625}, {1.875, 0.25, -0.875, -1.5, 0.25, -1.25, 1, 1.75, -1, 0.25,
     -1.875, -1.375, -0.5, 1.625, 1.875, 0.625, 0.375, 0.25, -1.75, -0.5, 2, -0.375, -1.125, -1.125, 0.875, -1.875,
     1.875, 1.5, 0.25, -0.125, 1.125, 0.25, -0.125, -0.75, -0.25, 1, -1.875, -2, 0.875, -0.5, 1.25, -1.875, 1.625,
     -1.5, -0.375, 1.875, -1.625, 0.625}, {1, -0.25, -1.75, 0.125}, {-2.3125, 1, 3.828125, -4.5625, 1, 4.828125,
     0.84375, -0.25, 2.875, 0.453125, -0.25, 5.359375, -4.125, -1.75, 1.0625, -2.546875, -1.75, -3.609375, 1.109375,
     0.125, -0.65625, -2.296875, 0.125, -2.125}},
};

}  // namespace talvo::test::golden
