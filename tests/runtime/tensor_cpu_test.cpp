#include "talvo/runtime/tensor_cpu.h"

#include <gtest/gtest.h>

#include <numeric>

#include "tests/support/guarded_context.h"
#include "tests/support/log_capture.h"

namespace talvo::runtime {
namespace {

class TensorCPUTest : public testing::Test {
 protected:
  // Values 0, 1, 2, ... so that a value tells its position.
  std::shared_ptr<TensorCPU> Counting(std::vector<unsigned int> const& dims, unsigned int layout) {
    std::vector<float> values(ElementCount(dims));
    std::iota(values.begin(), values.end(), 0.0f);
    auto tensor = test::FloatTensor(*context_, dims, layout, values);
    tensor->shape.extra.step_size = 5;
    return tensor;
  }

  std::shared_ptr<Context> context_ = test::GuardedContext();
};

TEST_F(TensorCPUTest, LocatesElementsRowMajor) {
  auto const x = Counting({2, 3, 4}, TensorShape::CHW);
  EXPECT_EQ(x->strides, (std::vector<unsigned int>{12, 4, 1}));
  EXPECT_EQ(*x->Locate3D<float>(1, 2, 3), 23.0f);
  EXPECT_EQ(*x->Locate<float>({1, 0, 2}), 14.0f);
  EXPECT_EQ(*Counting({7}, TensorShape::C)->Locate1D<float>(6), 6.0f);
  EXPECT_EQ(*Counting({2, 5}, TensorShape::SC)->Locate2D<float>(1, 3), 8.0f);
  EXPECT_EQ(*Counting({2, 2, 2, 3}, TensorShape::NCHW)->Locate4D<float>(1, 0, 1, 2), 17.0f);
  EXPECT_EQ(*Counting({2, 2, 2, 2, 3}, TensorShape::GNCHW)->Locate5D<float>(1, 0, 1, 0, 2), 32.0f);
  EXPECT_EQ(*Counting({2, 2, 2, 2, 2, 3}, TensorShape::GN4CHW4)->Locate6D<float>(1, 0, 1, 0, 1, 2), 65.0f);
  EXPECT_EQ(*Counting({2, 2, 2, 2, 2, 2, 3}, TensorShape::GN4C4HW4n4c)->Locate7D<float>(1, 0, 1, 0, 1, 0, 2), 128.0f);
  auto const halves = context_->device_cpu->CreateZeroF16CMainMem(3);
  EXPECT_EQ(halves->Locate1D(2) - static_cast<unsigned char*>(halves->data), 4);
  auto const scalar = Counting({}, TensorShape::FLEXIABLE);
  EXPECT_TRUE(scalar->strides.empty());
  EXPECT_EQ(scalar->Locate({}), scalar->data);
}

TEST_F(TensorCPUTest, StopsAtAWrongRankOrType) {
  auto const x = Counting({2, 3}, TensorShape::FLEXIABLE);
  EXPECT_DEATH(x->Locate1D(0), "\\(1 == shape.dims.size\\(\\)\\), function Locate1D, file tensor_cpu, ");
  EXPECT_DEATH(x->Locate3D(0, 0, 0), "\\(3 == shape.dims.size\\(\\)\\), function Locate3D, file tensor_cpu, ");
  EXPECT_DEATH(x->Locate4D(0, 0, 0, 0), "4 == shape.dims.size");
  EXPECT_DEATH(x->Locate5D(0, 0, 0, 0, 0), "5 == shape.dims.size");
  EXPECT_DEATH(x->Locate6D(0, 0, 0, 0, 0, 0), "6 == shape.dims.size");
  EXPECT_DEATH(x->Locate7D(0, 0, 0, 0, 0, 0, 0), "7 == shape.dims.size");
  EXPECT_DEATH(x->Locate({0}), "\\(dims.size\\(\\) == shape.dims.size\\(\\)\\), function Locate, file tensor_cpu, ");
  x->shape.data_type = 8;
  EXPECT_DEATH(x->Locate2D(0, 0), "Invalid type");
  EXPECT_DEATH(x->Locate1D(0), "1 == shape.dims.size") << "the rank comes first";
}

TEST_F(TensorCPUTest, ReshapesWithOneUnknownExtentAndRefusesOthersWithoutAText) {
  struct Case {
    char const* why;
    std::vector<int> request;
    std::vector<unsigned int> dims;
  };
  auto const x = Counting({2, 3, 4}, TensorShape::CHW);
  for (Case const& c : {Case{"flat", {-1}, {24}},
                        {"0 is unknown too", {0, 6}, {4, 6}},
                        {"any negative", {6, -7, 2}, {6, 2, 2}},
                        {"leading elements only", {2, 3}, {2, 3}},
                        {"to a scalar", {}, {}}}) {
    SCOPED_TRACE(c.why);
    auto const y = x->Reshape(c.request);
    EXPECT_EQ(y->shape.dims, c.dims);
    EXPECT_EQ(y->shape.layout, TensorShape::CHW);
    EXPECT_EQ(y->shape.extra.step_size, 0);
    std::vector<float> want(ElementCount(c.dims));
    std::iota(want.begin(), want.end(), 0.0f);
    EXPECT_EQ(test::Values(*y), want);
  }
  for (std::vector<int> const& request : {std::vector<int>{0, 24, -1}, {5}, {48}, {7, -1}}) {
    EXPECT_EQ(test::RefusalOf([&] { x->Reshape(request); }), "[TLN]: ");
  }
  EXPECT_NE(test::RefusalOf([&] { x->Reshape({65536, 65536}); }).find("[2, 3, 4]"), std::string::npos);
  TensorShape const shape({4}, TensorShape::FLOAT32, TensorShape::C, TensorShape::MainMemory, {});
  auto const empty = context_->device_cpu->CreateTensorExternal(shape, nullptr);
  EXPECT_NE(test::RefusalOf([&] { empty->Reshape({2, 2}); }).find("no memory"), std::string::npos);
}

TEST_F(TensorCPUTest, PermutesIntoAFlexibleTensorAndRefusesOtherAxes) {
  auto const x = Counting({2, 3, 4}, TensorShape::CHW);
  auto const y = x->Permute({2, 0, 1});
  EXPECT_EQ(y->shape.dims, (std::vector<unsigned int>{4, 2, 3}));
  EXPECT_EQ(y->shape.layout, TensorShape::FLEXIABLE);
  EXPECT_EQ(y->shape.extra.step_size, 0);
  EXPECT_EQ(*y->Locate3D<float>(3, 1, 2), *x->Locate3D<float>(1, 2, 3));
  for (std::vector<unsigned int> const& axes : {std::vector<unsigned int>{1, 0}, {0, 1, 2, 0}}) {
    EXPECT_EQ(test::RefusalOf([&] { x->Permute(axes); }),
              "[TLN]: dimensions of shape must be equal to tranpose axes's.\n");
  }
  EXPECT_NE(test::RefusalOf([&] { x->Permute({0, 1, 3}); }).find("axis 3"), std::string::npos);
  EXPECT_NE(test::RefusalOf([&] { x->Permute({0, 1, 0}); }).find("axis 0"), std::string::npos);
}

}  // namespace
}  // namespace talvo::runtime
