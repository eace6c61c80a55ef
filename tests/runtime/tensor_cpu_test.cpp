#include "talvo/runtime/tensor_cpu.h"

#include <gtest/gtest.h>

#include <numeric>

#include "tests/support/guarded_context.h"
#include "tests/support/log_capture.h"

namespace talvo::runtime {
namespace {

using Dims = std::vector<unsigned int>;

class TensorCPUTest : public testing::Test {
 protected:
  // Values 0, 1, 2, ... so that a value tells its position.
  std::shared_ptr<TensorCPU> Counting(Dims const& dims, unsigned int data_type = TensorShape::INT32) {
    std::vector<std::int32_t> values(ElementCount(dims));
    std::iota(values.begin(), values.end(), 0);
    auto tensor = context_->device_cpu->CreateTensor(
        TensorShape(dims, data_type, TensorShape::CHW, TensorShape::MainMemory, {}), values.data());
    tensor->shape.location = TensorShape::CPUObject;
    tensor->shape.extra.step_size = 5;
    return tensor;
  }

  static void ExpectShape(Dims const& dims, unsigned int layout, TensorShape const& shape) {
    EXPECT_EQ(shape.dims, dims);
    EXPECT_EQ(shape.data_type, TensorShape::INT32);
    EXPECT_EQ(shape.layout, layout);
    EXPECT_EQ(shape.location, TensorShape::CPUObject);
    EXPECT_EQ(shape.extra.step_size, 0);
  }

  std::shared_ptr<Context> context_ = test::GuardedContext();
};

TEST_F(TensorCPUTest, LocatesElementsRowMajor) {
  using T = std::int32_t;
  EXPECT_EQ(Counting({2, 3, 4})->strides, (Dims{12, 4, 1}));
  EXPECT_EQ(*Counting({7})->Locate1D<T>(6), 6);
  EXPECT_EQ(*Counting({2, 5})->Locate2D<T>(1, 3), 8);
  EXPECT_EQ(*Counting({2, 3, 4})->Locate3D<T>(1, 2, 3), 23);
  EXPECT_EQ(*Counting({2, 3, 2, 3})->Locate4D<T>(1, 2, 1, 2), 35);
  EXPECT_EQ(*Counting({2, 3, 2, 2, 3})->Locate5D<T>(1, 2, 1, 0, 2), 68);
  EXPECT_EQ(*Counting({2, 3, 2, 2, 2, 3})->Locate6D<T>(1, 2, 1, 0, 1, 2), 137);
  EXPECT_EQ(*Counting({2, 3, 2, 2, 2, 2, 3})->Locate7D<T>(1, 2, 1, 0, 1, 1, 2), 275);
  EXPECT_EQ(*Counting({2, 3, 4})->Locate<T>({1, 0, 2}), 14);
  auto const halves = Counting({3}, TensorShape::FLOAT16), scalar = Counting({});
  EXPECT_EQ(halves->Locate1D(2) - static_cast<unsigned char*>(halves->data), 4);
  EXPECT_EQ(scalar->Locate({}), scalar->data);
}

TEST_F(TensorCPUTest, StopsAtAWrongRankOrType) {
  auto const x = Counting({2, 3}), y = Counting({4});
  EXPECT_DEATH(x->Locate1D(0), "\\(1 == shape.dims.size\\(\\)\\), function Locate1D, file tensor_cpu, ");
  EXPECT_DEATH(y->Locate2D(0, 0), "2 == shape.dims.size");
  EXPECT_DEATH(x->Locate3D(0, 0, 0), "3 == shape.dims.size");
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
  auto const x = Counting({2, 3, 4});
  for (auto const& [request, dims] : std::vector<std::pair<std::vector<int>, Dims>>{
           {{-1}, {24}}, {{0, 6}, {4, 6}}, {{6, -7, 2}, {6, 2, 2}}, {{2, 3}, {2, 3}}, {{}, {}}}) {
    auto const y = x->Reshape(request);
    ExpectShape(dims, TensorShape::CHW, y->shape);
    auto const *from = x->Data<std::int32_t>(), *to = y->Data<std::int32_t>();
    EXPECT_TRUE(std::equal(to, to + ElementCount(dims), from)) << "the leading elements";
  }
  for (std::vector<int> const& request : {std::vector<int>{0, 24, -1}, {5}, {48}, {7, -1}}) {
    EXPECT_EQ(test::RefusalOf([&] { x->Reshape(request); }), "[TLN]: ");
  }
  EXPECT_NE(test::RefusalOf([&] { x->Reshape({65536, 65536}); }).find("[2, 3, 4]"), std::string::npos);
  auto const empty = context_->device_cpu->CreateTensorExternal(x->shape, nullptr);
  EXPECT_NE(test::RefusalOf([&] { empty->Reshape({2, 12}); }).find("no memory"), std::string::npos);
}

TEST_F(TensorCPUTest, PermutesIntoAFlexibleTensorAndRefusesOtherAxes) {
  auto const x = Counting({2, 3, 4}), y = x->Permute({2, 0, 1});
  ExpectShape({4, 2, 3}, TensorShape::FLEXIABLE, y->shape);
  EXPECT_EQ(*y->Locate3D<std::int32_t>(3, 1, 2), *x->Locate3D<std::int32_t>(1, 2, 3));
  for (auto const& [axes, text] : std::vector<std::pair<Dims, char const*>>{
           {{1, 0}, "[TLN]: dimensions of shape must be equal to tranpose axes's.\n"},
           {{0, 1, 2, 0}, "[TLN]: dimensions of shape must be equal to tranpose axes's.\n"},
           {{0, 1, 3}, "axis 3"},
           {{0, 1, 0}, "axis 0"}}) {
    EXPECT_NE(test::RefusalOf([&, &list = axes] { x->Permute(list); }).find(text), std::string::npos) << text;
  }
}

}  // namespace
}  // namespace talvo::runtime
