// Pooling of images [C, H, W]. Made by make_golden.py. Maxima are exact; averages are the float32 nearest to the
// exact quotient of an exact sum.
#pragma once

#include <vector>

// clang-format off

namespace talvo::test::golden {

struct MaxPoolCase {
  char const* why;
  unsigned short kernel_x, kernel_y;
  short padding_l, padding_t, padding_r, padding_b;
  unsigned short stride_x, stride_y;
  unsigned short dilation_x, dilation_y;
  bool ceil_mode;
  unsigned int channels, height, width, out_height, out_width;
  std::vector<float> input, output;
};

inline const std::vector<MaxPoolCase> kMaxPoolCases = {
    {"all differs by axis", 3, 2, 1, 0, 1, 0, 2, 1, 2, 3, false, 2, 6, 7, 3, 3, {-1.375, -4, -3.5, -1.75, -4.375,
     -2.75, -2.25, -7.25, -8.625, -6.625, -6.75, -2, -1.625, -9, -5, -2.375, -8, -2.625, -8.125, -5.25, -2.375,
     -6.625, -6.25, -6.75, -3.25, -7, -1, -5.5, -5.125, -5, -4.375, -4.625, -4.875, -1, -2.5, -2.625, -3.375, -4,
     -6.25, -1, -5.25, -7.375, -2.25, -7.75, -2.125, -4.125, -8.125, -8.75, -5.5, -8.75, -7.875, -4.875, -1.125,
     -5.25, -2.5, -1.625, -2.375, -4, -5.5, -4.875, -6.875, -5, -6, -7, -1, -9, -8.25, -7.5, -1.25, -3.5, -1.875,
     -7.375, -3.25, -6, -5.125, -9, -4, -2.375, -3.625, -7.75, -4.75, -6.875, -1.25, -1.875}, {-1.75, -1, -1, -4.625,
     -1, -1, -2.375, -2.375, -2.625, -1, -1, -1.25, -1.125, -1.125, -1.125, -3.625, -1.25, -1.25}},
    {"rounds up", 2, 2, 0, 0, 0, 0, 2, 2, 1, 1, true, 2, 5, 5, 3, 3, {-7.5, -4.875, -1.375, -2.125, -3.25, -3.875,
     -8.75, -3, -5.25, -8.375, -7.125, -4.625, -3.125, -4.875, -4.125, -2, -3.5, -6.125, -3.875, -4.25, -8.125,
     -8.625, -3.75, -5.875, -4.25, -6.5, -7.25, -7.875, -6, -2.375, -5.75, -6, -4.375, -1.125, -5.875, -4.25, -5.5,
     -4.125, -5.5, -3.875, -4.625, -3.625, -1.25, -7.875, -4.5, -5.5, -6.125, -7.125, -8.625, -5.75}, {-3.875, -1.375,
     -3.25, -2, -3.125, -4.125, -8.125, -3.75, -4.25, -5.75, -1.125, -2.375, -3.625, -1.25, -3.875, -5.5, -7.125,
     -5.75}},
};

struct AvgPoolCase {
  char const* why;
  unsigned short kernel_x, kernel_y;
  short padding_l, padding_t, padding_r, padding_b;
  unsigned short stride_x, stride_y;
  bool count_include_pad;
  unsigned int channels, height, width, out_height, out_width;
  std::vector<float> input, output;
};

inline const std::vector<AvgPoolCase> kAvgPoolCases = {
    {"border does not count", 3, 3, 1, 1, 1, 1, 2, 1, false, 2, 4, 5, 4, 3, {2.625, -3.25, -0.75, 3.75, 3.625, -2.375,
     -4, 1.375, -4, -1.625, 0, 3, -3.25, 1.375, 0.25, -3, 2.75, 2.75, -0.125, 3.625, 0.875, 3.25, 3.75, 0.625, -1.75,
     -2.875, 0.5, -2.5, 2, 3.5, -2.125, 0.375, -3.625, -2.625, -1, 3.125, 3.875, 1.125, 0.625, 0.625}, {-1.75,
     -1.14583337f, 0.4375, -0.666666687f, -0.638888896f, 0.5625, -0.604166687f, -0.013888889f, -0.0833333358f, 0.6875,
     1.08333337f, 1.28125, 0.4375, 1.27083337f, 1.09375, 0, 0.194444448f, 0.125, 0.479166657f, -0.027777778f,
     0.520833313f, 1.3125, -0.0416666679f, -0.59375}},
};

}  // namespace talvo::test::golden
