#include "talvo/kernel/padding.h"

#include <gtest/gtest.h>

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

Pointer Int16Tensor(runtime::Context const& context, std::vector<unsigned int> const& dims, unsigned int layout) {
  std::vector<short> values(runtime::ElementCount(dims));
  std::iota(values.begin(), values.end(), short(1));
  TensorShape const shape(dims, TensorShape::INT16, layout, TensorShape::MainMemory, TensorShape::Extra());
  return context.device_cpu->CreateTensor(shape, values.data());
}

std::vector<short> Shorts(TensorCPU const& tensor) {
  return std::vector<short>(tensor.Data<short>(), tensor.Data<short>() + runtime::ElementCount(tensor.shape.dims));
}

// Element [c][y - t][x - l][lane] of a tensor [C, H, W, block], `value` outside.
template <class T>
std::vector<T> Shifted(std::vector<T> const& from, std::vector<unsigned int> const& dims,
                       std::vector<int> const& result, int l, int t, std::size_t block, T value) {
  std::vector<T> to;
  int const height = int(dims[1]), width = int(dims[2]);
  for (int c = 0; c < result[0]; ++c) {
    for (int y = -t; y < result[1] - t; ++y) {
      for (int x = -l; x < result[2] - l; ++x) {
        for (std::size_t lane = 0; lane < block; ++lane) {
          bool const inside = y >= 0 && y < height && x >= 0 && x < width;
          to.push_back(inside ? from[std::size_t((c * height + y) * width + x) * block + lane] : value);
        }
      }
    }
  }
  return to;
}

struct Padding : testing::Test {
  std::shared_ptr<runtime::Context> const context = test::GuardedContext();
  std::shared_ptr<runtime::DeviceCPU> const device = context->device_cpu;
};
using PaddingDeathTest = Padding;

TEST_F(Padding, SurroundsPlanesAndRows) {
  auto const input = test::FloatTensor(*context, {2, 3, 5}, TensorShape::CHW, Counted(30));
  input->shape.extra.step_size = 4;
  auto const padded = Padding_HW_MainMemory_CHW_Float_Fallback_M1(input, 1, 2, 3, 4, 0.5f, device);
  EXPECT_EQ((std::vector<unsigned int>{2, 10, 8}), padded->shape.dims);
  EXPECT_EQ(0, padded->shape.extra.step_size);
  EXPECT_EQ(Shifted(Counted(30), {2, 3, 5}, {2, 10, 8}, 1, 3, 1, 0.5f), test::Values(*padded));
  auto const zero = Padding_HW_MainMemory_CHW_Zero_Fallback_M1(input, 0, 2, 0, 1, device);
  EXPECT_EQ(Shifted(Counted(30), {2, 3, 5}, {2, 4, 7}, 0, 0, 1, 0.0f), test::Values(*zero));
  auto const copy = Padding_HW_MainMemory_CHW_Float_Fallback_M1(input, 0, 0, 0, 0, 9.0f, device);
  EXPECT_NE(input, copy);
  EXPECT_EQ(test::Values(*input), test::Values(*copy));
  auto const rows = test::FloatTensor(*context, {3, 2}, TensorShape::CL, Counted(6));
  EXPECT_EQ((std::vector<float>{7, 1, 2, 7, 7, 7, 3, 4, 7, 7, 7, 5, 6, 7, 7}),
            test::Values(*Padding_L_MainMemory_CL_Float_Fallback_M1(rows, 1, 2, 7.0f, device)));
}

TEST_F(Padding, SurroundsPackedAndInt16Planes) {
  struct {
    decltype(&ZeroPadding_HW_MainMemory_CHW_Int16_Fallback_M1) pad;
    std::vector<unsigned int> dims, want;
    unsigned int layout;
    std::size_t block;
  } const rows[] = {
      {ZeroPadding_HW_MainMemory_CHW_Int16_Fallback_M1, {2, 3, 5}, {2, 10, 8}, TensorShape::CHW, 1},
      {ZeroPadding_HW_MainMemory_C4HW4_Int16_Fallback_M1, {2, 3, 5, 4}, {2, 10, 8, 4}, TensorShape::C4HW4, 4},
      {ZeroPadding_HW_MainMemory_C8HW8_Int16_Fallback_M1, {2, 3, 5, 8}, {2, 10, 8, 8}, TensorShape::C8HW8, 8}};
  for (auto const& row : rows) {
    auto const input = Int16Tensor(*context, row.dims, row.layout);
    auto const padded = row.pad(input, 1, 2, 3, 4, device);
    EXPECT_EQ(row.want, padded->shape.dims);
    EXPECT_EQ(row.layout, padded->shape.layout);
    EXPECT_EQ(Shifted<short>(Shorts(*input), row.dims, {2, 10, 8}, 1, 3, row.block, 0), Shorts(*padded));
    EXPECT_EQ(input, row.pad(input, 0, 0, 0, 0, device));
  }
}

TEST_F(Padding, CutsPlanesAndPackedPlanes) {
  struct {
    decltype(&Cut_HW_MainMemory_CHW_Float_M1) cut;
    std::vector<unsigned int> dims, want;
    unsigned int layout;
    std::size_t block;
    short step_size;
  } const rows[] = {
      {Cutting_HW_MainMemory_Fallback_CHW_Float_M1, {2, 5, 6}, {2, 2, 3}, TensorShape::CHW, 1, 0},
      {Cutting_HW_MainMemory_Fallback_C4HW4_Float_M1, {2, 5, 6, 4}, {2, 2, 3, 4}, TensorShape::C4HW4, 4, 0},
      {Cutting_HW_MainMemory_Fallback_C8HW8_Float_M1, {2, 5, 6, 8}, {2, 2, 3, 8}, TensorShape::C8HW8, 8, 0},
      {Cut_HW_MainMemory_CHW_Float_M1, {2, 5, 6}, {2, 2, 3}, TensorShape::CHW, 1, 4}};
  for (auto const& row : rows) {
    auto const values = Counted(runtime::ElementCount(row.dims));
    auto const input = test::FloatTensor(*context, row.dims, row.layout, values);
    input->shape.extra.step_size = 4;
    auto const part = row.cut(input, 1, 2, 2, 1, device);
    EXPECT_EQ(row.want, part->shape.dims);
    EXPECT_EQ(row.step_size, part->shape.extra.step_size);
    EXPECT_EQ(Shifted(values, row.dims, {2, 2, 3}, -1, -2, row.block, -1.0f), test::Values(*part));
    EXPECT_NE(std::string::npos, test::RefusalOf([&] { row.cut(input, 4, 3, 0, 0, device); }).find("extent of 6"));
  }
}

TEST_F(Padding, WhatIsNotAcceptedComesBackEmpty) {
  auto const packed = test::FloatTensor(*context, {1, 2, 2, 4}, TensorShape::C4HW4, Counted(16));
  auto const integers = Int16Tensor(*context, {1, 2, 2}, TensorShape::CHW);
  EXPECT_EQ(nullptr, Padding_HW_MainMemory_CHW_Float_Fallback_M1(packed, 1, 1, 1, 1, 0.0f, device));
  EXPECT_EQ(nullptr, Padding_HW_MainMemory_CHW_Zero_Fallback_M1(integers, 1, 1, 1, 1, device));
  EXPECT_EQ(nullptr, Padding_L_MainMemory_CL_Float_Fallback_M1(packed, 1, 1, 0.0f, device));
  EXPECT_EQ(nullptr, Cutting_HW_MainMemory_Fallback_C8HW8_Float_M1(packed, 0, 0, 0, 0, device));
  EXPECT_EQ(nullptr, Cut_HW_MainMemory_CHW_Float_M1(integers, 0, 0, 0, 0, device));
  EXPECT_EQ(-2, FillZero_MainMemory_Float_Fallback_M1(integers));
  EXPECT_EQ((std::vector<short>{1, 2, 3, 4}), Shorts(*integers));
  EXPECT_EQ(-2, FillZero_MainMemory_Int16_Fallback_M1(packed));
}

TEST_F(Padding, RefusesWhatWouldReachForeignMemory) {
  auto const input = test::FloatTensor(*context, {1, 2, 2}, TensorShape::CHW, Counted(4));
  auto const flat = test::FloatTensor(*context, {4}, TensorShape::CHW, Counted(4));
  auto const narrow = test::FloatTensor(*context, {1, 2, 2, 2}, TensorShape::C4HW4, Counted(8));
  auto const refusals = {
      test::RefusalOf([&] { Padding_HW_MainMemory_CHW_Float_Fallback_M1(nullptr, 1, 1, 1, 1, 0.0f, device); }),
      test::RefusalOf([&] { Padding_HW_MainMemory_CHW_Float_Fallback_M1(input, 1, 1, 1, 1, 0.0f, nullptr); }),
      test::RefusalOf([&] { Padding_HW_MainMemory_CHW_Float_Fallback_M1(flat, 1, 1, 1, 1, 0.0f, device); }),
      test::RefusalOf([&] { Padding_HW_MainMemory_CHW_Zero_Fallback_M1(input, 0xFFFFFFFFu, 0, 0, 0, device); }),
      test::RefusalOf([&] { Cutting_HW_MainMemory_Fallback_C4HW4_Float_M1(narrow, 0, 0, 0, 0, device); }),
      test::RefusalOf(
          [&] { FillBias_MainMemory_Float_Fallback_M1(input, test::FloatTensor(*context, {3}, 24, Counted(3))); })};
  for (auto const& refusal : refusals) EXPECT_NE(std::string::npos, refusal.find("_M1: ")) << refusal;
}

TEST_F(Padding, BiasesServeTheChannelsOfTheirGroups) {
  auto const bias = test::FloatTensor(*context, {2, 3}, TensorShape::GN, {10, 20, 30, 40, 50, 60});
  auto const plane = test::FloatTensor(*context, {6, 1, 2}, TensorShape::CHW, Counted(12));
  EXPECT_EQ(0, ADDBias_MainMemory_CHW_Float_Fallback_M1(plane, bias));
  EXPECT_EQ((std::vector<float>{11, 12, 23, 24, 35, 36, 47, 48, 59, 60, 71, 72}), test::Values(*plane));
  EXPECT_EQ(0, FillBias_MainMemory_CHW_Float_Fallback_M1(plane, bias));
  std::vector<float> const filled = {10, 10, 20, 20, 30, 30, 40, 40, 50, 50, 60, 60};
  EXPECT_EQ(filled, test::Values(*plane));
  auto const rows = test::FloatTensor(*context, {6, 2}, TensorShape::CL, Counted(12));
  EXPECT_EQ(-2, FillBias_MainMemory_CHW_Float_Fallback_M1(rows, bias));
  EXPECT_EQ(0, FillBias_MainMemory_CL_Float_Fallback_M1(rows, bias));
  EXPECT_EQ(filled, test::Values(*rows));
  auto const four = test::FloatTensor(*context, {2, 2}, TensorShape::HWC, Counted(4));
  EXPECT_EQ(0, FillBias_MainMemory_Float_Fallback_M1(four, bias));
  EXPECT_EQ((std::vector<float>{10, 20, 30, 40}), test::Values(*four));
  EXPECT_EQ(0, FillZero_MainMemory_Float_Fallback_M1(four));
  EXPECT_EQ(std::vector<float>(4, 0.0f), test::Values(*four));
}

TEST_F(PaddingDeathTest, AWrongBiasCountEndsTheProcess) {
  auto const bias = test::FloatTensor(*context, {2, 3}, TensorShape::GN, Counted(6));
  auto const plane = test::FloatTensor(*context, {5, 1, 2}, TensorShape::CHW, Counted(10));
  auto const rows = test::FloatTensor(*context, {5, 2}, TensorShape::CL, Counted(10));
  EXPECT_DEATH(ADDBias_MainMemory_CHW_Float_Fallback_M1(plane, bias),
               "bias->shape.dims\\[0\\] \\* bias->shape.dims\\[1\\] == inout->shape.dims\\[0\\].*padding");
  EXPECT_DEATH(FillBias_MainMemory_CHW_Float_Fallback_M1(plane, bias), "bias->shape.dims\\[0\\]\\* bias");
  EXPECT_DEATH(FillBias_MainMemory_CL_Float_Fallback_M1(rows, bias), "bias->shape.dims\\[0\\] \\* bias");
}

}  // namespace
}  // namespace talvo::kernel
