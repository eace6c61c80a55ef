#include "talvo/kernel/padding.h"

#include <gtest/gtest.h>

#include <functional>
#include <numeric>

#include "tests/support/bits.h"
#include "tests/support/guarded_context.h"
#include "tests/support/log_capture.h"

namespace talvo::kernel {
namespace {

using runtime::TensorCPU;
using runtime::TensorShape;
using Pointer = std::shared_ptr<TensorCPU>;

std::vector<float> Counted(std::size_t count) {
  std::vector<float> values(count);
  std::iota(values.begin(), values.end(), 1.0f);
  return values;
}

struct Padding : testing::Test {
  Pointer Floats(std::vector<unsigned int> const& dims, unsigned int layout) const {
    return test::FloatTensor(*context, dims, layout, Counted(runtime::ElementCount(dims)));
  }
  Pointer Shorts(std::vector<unsigned int> const& dims, unsigned int layout, std::vector<short> const& values) const {
    return device->CreateTensor({dims, TensorShape::INT16, layout, TensorShape::MainMemory, {}}, values.data());
  }

  std::shared_ptr<runtime::Context> const context = test::GuardedContext();
  std::shared_ptr<runtime::DeviceCPU> const device = context->device_cpu;
};
using PaddingDeathTest = Padding;

// Element [c][y - t][x - l][lane] of counted values [C, H, W, block], `value` outside.
std::vector<float> Shifted(std::vector<unsigned int> const& dims, std::vector<unsigned int> const& result, int l, int t,
                           std::size_t block, float value) {
  std::vector<float> to;
  int const height = int(dims[1]), width = int(dims[2]);
  for (int c = 0; c < int(result[0]); ++c) {
    for (int i = 0; i < int(result[1] * result[2]); ++i) {
      int const y = i / int(result[2]) - t, x = i % int(result[2]) - l;
      bool const inside = y >= 0 && y < height && x >= 0 && x < width;
      for (std::size_t lane = 0; lane < block; ++lane) {
        to.push_back(inside ? float(std::size_t((c * height + y) * width + x) * block + lane + 1) : value);
      }
    }
  }
  return to;
}

TEST_F(Padding, WidensAndCutsPlanes) {
  using Dims = std::vector<unsigned int>;
  constexpr unsigned int CHW = TensorShape::CHW, C4 = TensorShape::C4HW4, C8 = TensorShape::C8HW8;
  struct {
    decltype(&Cut_HW_MainMemory_CHW_Float_M1) change;
    Dims dims, want;
    unsigned int layout;
    int l, t;
    std::size_t block = 1;
    short step_size = 0;
  } const rows[] = {{Padding_HW_MainMemory_CHW_Zero_Fallback_M1, {2, 3, 5}, {2, 10, 8}, CHW, 1, 3},
                    {ZeroPadding_HW_MainMemory_CHW_Int16_Fallback_M1, {2, 3, 5}, {2, 10, 8}, CHW, 1, 3},
                    {ZeroPadding_HW_MainMemory_C4HW4_Int16_Fallback_M1, {2, 3, 5, 4}, {2, 10, 8, 4}, C4, 1, 3, 4},
                    {ZeroPadding_HW_MainMemory_C8HW8_Int16_Fallback_M1, {2, 3, 5, 8}, {2, 10, 8, 8}, C8, 1, 3, 8},
                    {Cutting_HW_MainMemory_Fallback_CHW_Float_M1, {2, 5, 6}, {2, 2, 3}, CHW, -1, -2},
                    {Cutting_HW_MainMemory_Fallback_C4HW4_Float_M1, {2, 5, 6, 4}, {2, 2, 3, 4}, C4, -1, -2, 4},
                    {Cutting_HW_MainMemory_Fallback_C8HW8_Float_M1, {2, 5, 6, 8}, {2, 2, 3, 8}, C8, -1, -2, 8},
                    {Cut_HW_MainMemory_CHW_Float_M1, {2, 5, 6}, {2, 2, 3}, CHW, -1, -2, 1, 4}};
  for (auto const& row : rows) {
    SCOPED_TRACE(&row - rows);
    auto const input = Floats(row.dims, row.layout);
    input->shape.extra.step_size = 4;
    bool const cuts = row.l < 0;
    auto const result = cuts ? row.change(input, 1, 2, 2, 1, device) : row.change(input, 1, 2, 3, 4, device);
    EXPECT_EQ(row.want, result->shape.dims);
    EXPECT_EQ(row.layout, result->shape.layout);
    EXPECT_EQ(row.step_size, result->shape.extra.step_size);
    EXPECT_EQ(Shifted(row.dims, row.want, row.l, row.t, row.block, 0.0f), test::Values(*result));
    bool const hands_on = row.change(input, 0, 0, 0, 0, device) == input;
    EXPECT_EQ(&row > rows && !cuts, hands_on) << "the ZeroPadding forms alone";
  }
}

TEST_F(Padding, FillsBordersWithAValueAndCopiesShorts) {
  auto const input = Floats({2, 3, 5}, TensorShape::CHW);
  auto const padded = Padding_HW_MainMemory_CHW_Float_Fallback_M1(input, 1, 2, 3, 4, 0.5f, device);
  EXPECT_EQ(Shifted({2, 3, 5}, {2, 10, 8}, 1, 3, 1, 0.5f), test::Values(*padded));
  auto const copy = Padding_HW_MainMemory_CHW_Float_Fallback_M1(input, 0, 0, 0, 0, 9.0f, device);
  EXPECT_NE(input, copy);
  EXPECT_EQ(test::Values(*input), test::Values(*copy));
  auto const rows = Padding_L_MainMemory_CL_Float_Fallback_M1(Floats({3, 2}, TensorShape::CL), 1, 2, 7.0f, device);
  EXPECT_EQ((std::vector<unsigned int>{3, 5}), rows->shape.dims);
  EXPECT_EQ((std::vector<float>{7, 1, 2, 7, 7, 7, 3, 4, 7, 7, 7, 5, 6, 7, 7}), test::Values(*rows));
  auto const shorts = Shorts({1, 1, 3}, TensorShape::CHW, {1, 2, 3});
  auto const wide = ZeroPadding_HW_MainMemory_CHW_Int16_Fallback_M1(shorts, 1, 1, 0, 0, device);
  EXPECT_EQ((std::vector<short>{0, 1, 2, 3, 0}), std::vector<short>(wide->Data<short>(), wide->Data<short>() + 5));
}

TEST_F(Padding, WhatIsNotAcceptedComesBackEmpty) {
  auto const packed = Floats({1, 2, 2, 4}, TensorShape::C4HW4);
  auto const shorts = Shorts({1, 1, 2}, TensorShape::CHW, {1, 2});
  EXPECT_EQ(nullptr, Padding_HW_MainMemory_CHW_Float_Fallback_M1(packed, 1, 1, 1, 1, 0.0f, device));
  EXPECT_EQ(nullptr, Padding_HW_MainMemory_CHW_Zero_Fallback_M1(shorts, 1, 1, 1, 1, device));
  EXPECT_EQ(nullptr, Padding_L_MainMemory_CL_Float_Fallback_M1(packed, 1, 1, 0.0f, device));
  EXPECT_EQ(nullptr, Cutting_HW_MainMemory_Fallback_C8HW8_Float_M1(packed, 0, 0, 0, 0, device));
  EXPECT_EQ(nullptr, Cut_HW_MainMemory_CHW_Float_M1(shorts, 0, 0, 0, 0, device));
  EXPECT_EQ(-2, FillZero_MainMemory_Float_Fallback_M1(shorts));
  EXPECT_EQ(2, shorts->Data<short>()[1]);
  EXPECT_EQ(-2, FillZero_MainMemory_Int16_Fallback_M1(packed));
  EXPECT_EQ(0, FillZero_MainMemory_Int16_Fallback_M1(shorts));
  EXPECT_EQ(0, shorts->Data<short>()[1]);
}

TEST_F(Padding, RefusesWhatWouldReachForeignMemory) {
  auto const input = Floats({1, 2, 2}, TensorShape::CHW), flat = Floats({4}, TensorShape::CHW);
  auto const narrow = Floats({1, 2, 2, 2}, TensorShape::C4HW4);
  std::pair<std::function<void()>, char const*> const rows[] = {
      {[&] { Padding_HW_MainMemory_CHW_Float_Fallback_M1(nullptr, 1, 1, 1, 1, 0.0f, device); },
       "Padding_HW_MainMemory_CHW_Float_Fallback_M1: the input is null"},
      {[&] { Padding_HW_MainMemory_CHW_Float_Fallback_M1(input, 1, 1, 1, 1, 0.0f, nullptr); },
       "Padding_HW_MainMemory_CHW_Float_Fallback_M1: the device is null"},
      {[&] { Padding_HW_MainMemory_CHW_Float_Fallback_M1(flat, 1, 1, 1, 1, 0.0f, device); },
       "Padding_HW_MainMemory_CHW_Float_Fallback_M1: a tensor has dims [4]; needs rank 3"},
      {[&] { Padding_HW_MainMemory_CHW_Zero_Fallback_M1(input, 0xFFFFFFFFu, 0, 0, 0, device); },
       "Padding_HW_MainMemory_CHW_Zero_Fallback_M1: an extent of 2 and borders of 4294967295 and 0 exceed 32 bits"},
      {[&] { Cut_HW_MainMemory_CHW_Float_M1(input, 2, 1, 0, 0, device); },
       "Cut_HW_MainMemory_CHW_Float_M1: borders of 2 and 1 are cut from an extent of 2"},
      {[&] { Cutting_HW_MainMemory_Fallback_C4HW4_Float_M1(narrow, 0, 0, 0, 0, device); },
       "Cutting_HW_MainMemory_Fallback_C4HW4_Float_M1: dims [1, 2, 2, 2] need a last axis of 4"},
      {[&] { FillBias_MainMemory_Float_Fallback_M1(input, Floats({3}, TensorShape::C)); },
       "FillBias_MainMemory_Float_Fallback_M1: the bias holds 12 bytes, the tensor needs 16"}};
  for (auto const& [action, text] : rows) EXPECT_NE(std::string::npos, test::RefusalOf(action).find(text)) << text;
}

TEST_F(Padding, BiasesServeTheChannelsOfTheirGroups) {
  auto const bias = test::FloatTensor(*context, {2, 3}, TensorShape::GN, {10, 20, 30, 40, 50, 60});
  auto const plane = Floats({6, 1, 2}, TensorShape::CHW);
  EXPECT_EQ(0, ADDBias_MainMemory_CHW_Float_Fallback_M1(plane, bias));
  EXPECT_EQ((std::vector<float>{11, 12, 23, 24, 35, 36, 47, 48, 59, 60, 71, 72}), test::Values(*plane));
  EXPECT_EQ(0, FillBias_MainMemory_CHW_Float_Fallback_M1(plane, bias));
  std::vector<float> const filled = {10, 10, 20, 20, 30, 30, 40, 40, 50, 50, 60, 60};
  EXPECT_EQ(filled, test::Values(*plane));
  auto const rows = Floats({6, 2}, TensorShape::CL);
  EXPECT_EQ(-2, FillBias_MainMemory_CHW_Float_Fallback_M1(rows, bias));
  EXPECT_EQ(0, FillBias_MainMemory_CL_Float_Fallback_M1(rows, bias));
  EXPECT_EQ(filled, test::Values(*rows));
  auto const four = Floats({2, 2}, TensorShape::HWC);
  EXPECT_EQ(0, FillBias_MainMemory_Float_Fallback_M1(four, bias));
  EXPECT_EQ((std::vector<float>{10, 20, 30, 40}), test::Values(*four));
  EXPECT_EQ(0, FillZero_MainMemory_Float_Fallback_M1(four));
  EXPECT_EQ(std::vector<float>(4, 0.0f), test::Values(*four));
}

TEST_F(PaddingDeathTest, AWrongBiasCountEndsTheProcess) {
  auto const bias = Floats({2, 3}, TensorShape::GN);
  auto const plane = Floats({5, 1, 2}, TensorShape::CHW);
  auto const rows = Floats({5, 2}, TensorShape::CL);
  EXPECT_DEATH(ADDBias_MainMemory_CHW_Float_Fallback_M1(plane, bias),
               "bias->shape.dims\\[0\\] \\* bias->shape.dims\\[1\\] == inout->shape.dims\\[0\\].*padding");
  EXPECT_DEATH(FillBias_MainMemory_CHW_Float_Fallback_M1(plane, bias), "bias->shape.dims\\[0\\]\\* bias");
  EXPECT_DEATH(FillBias_MainMemory_CL_Float_Fallback_M1(rows, bias), "bias->shape.dims\\[0\\] \\* bias");
}

}  // namespace
}  // namespace talvo::kernel
