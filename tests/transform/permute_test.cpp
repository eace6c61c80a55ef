#include "talvo/transform/permute.h"

#include <gtest/gtest.h>

#include <cstring>

#include "talvo/serialization/inference_param.h"
#include "talvo/serialization/layer_info_tensor.h"
#include "tests/support/bits.h"
#include "tests/support/guarded_context.h"
#include "tests/support/log_capture.h"

namespace talvo {
namespace {

using kernel::Transform_MainMemory_Permute_Fallback;
using runtime::TensorShape;
using Dims = std::vector<unsigned int>;
using Tensors = std::vector<std::shared_ptr<runtime::Tensor>>;

std::shared_ptr<runtime::TensorTransposeInfo> Layer(std::vector<unsigned short> const& axes) {
  auto layer = std::make_shared<runtime::TensorTransposeInfo>();
  layer->axes = axes;
  return layer;
}

std::shared_ptr<runtime::TensorCPU> Random(runtime::Context const& context, Dims const& dims,
                                           unsigned int type = TensorShape::FLOAT32,
                                           unsigned int location = TensorShape::MainMemory) {
  TensorShape shape(dims, type, TensorShape::CHW, location, TensorShape::Extra());
  shape.extra.step_size = 9;
  return context.device_cpu->CreateTensor(shape, test::Bytes(4, runtime::ByteCount(shape)).data());
}

TEST(Permute, DropsTheBatchAxisAndReordersTheRest) {
  auto const context = test::GuardedContext();
  Transform_MainMemory_Permute_Fallback kernel;
  ASSERT_TRUE(kernel.Config(Layer({0, 3, 1, 2}), nullptr, context));
  for (unsigned int type : {TensorShape::FLOAT32, TensorShape::INT16, TensorShape::UINT8}) {
    auto const input = Random(*context, {5, 2, 3}, type);
    Tensors made, given = {Random(*context, {31}, type)};
    EXPECT_EQ(0, kernel.Forward({input}, made, context));
    EXPECT_EQ(0, kernel.Forward({input}, given, nullptr));
    EXPECT_EQ((Dims{3, 5, 2}), made[0]->shape.dims) << "W, C, H";
    EXPECT_EQ(TensorShape::FLEXIABLE, made[0]->shape.layout);
    EXPECT_EQ(type, made[0]->shape.data_type);
    EXPECT_EQ(0, made[0]->shape.extra.step_size);
    unsigned int const bytes = runtime::ElementSize(type);
    auto const output = std::static_pointer_cast<runtime::TensorCPU>(made[0]);
    for (unsigned int i = 0; i < 30; ++i) {
      void const* const want = input->Locate3D(i / 6, i / 3 % 2, i % 3);
      ASSERT_EQ(0, std::memcmp(want, output->Locate3D(i % 3, i / 6, i / 3 % 2), bytes)) << i;
    }
    EXPECT_EQ(0, std::memcmp(output->data, given[0]->data, std::size_t{30} * bytes));
  }
}

TEST(Permute, RefusesAxesThatAreNoOrderOfTheAxes) {
  auto const context = test::GuardedContext();
  auto const input = Random(*context, {5, 2, 3});
  struct Case {
    char const* why;
    std::vector<unsigned short> axes;
  };
  for (Case const& c :
       {Case{"too few", {0, 1, 2}}, {"none", {}}, {"out of range", {0, 1, 2, 4}}, {"twice", {0, 1, 1, 2}}}) {
    SCOPED_TRACE(c.why);
    Transform_MainMemory_Permute_Fallback kernel;
    ASSERT_TRUE(kernel.Config(Layer(c.axes), nullptr, context));
    Tensors made, given = {Random(*context, {5, 2, 3})};
    EXPECT_NE("", test::RefusalOf([&] { kernel.Forward({input}, made, context); }));
    EXPECT_NE("", test::RefusalOf([&] { kernel.Forward({input}, given, context); }));
  }
  Transform_MainMemory_Permute_Fallback kernel;
  EXPECT_NE(std::string::npos, test::RefusalOf([&] {
                                 kernel.Config(Layer({0, 2, 0, 1}), nullptr, context);
                               }).find("entry 2 of 4 axes is 0"));
  EXPECT_FALSE(kernel.IsConfigured());
  ASSERT_TRUE(kernel.Config(Layer({0, 1, 2, 4}), nullptr, context));
  EXPECT_NE("", test::RefusalOf([&] { kernel.GetOutputShapes({input->shape}); }));
}

TEST(Permute, RefusesMissingAndShortTensors) {
  auto const context = test::GuardedContext();
  Transform_MainMemory_Permute_Fallback kernel;
  ASSERT_TRUE(kernel.Config(Layer({0, 2, 1}), nullptr, context));
  auto const input = Random(*context, {5, 6});
  Tensors none, given = {Random(*context, {29})};
  EXPECT_NE("", test::RefusalOf([&] { kernel.Forward({input}, given, context); }));
  EXPECT_NE("", test::RefusalOf([&] { kernel.Forward({nullptr}, none, context); }));
  EXPECT_NE("", test::RefusalOf([&] { kernel.Forward({input}, none, nullptr); }));
  EXPECT_NE("", test::RefusalOf([&] {
              kernel::functional::Transform_MainMemory_Permute_Fallback(input, {1, 0}, nullptr);
            }));
}

TEST(Permute, JudgesParametersAndTensorLists) {
  auto const context = test::GuardedContext();
  Transform_MainMemory_Permute_Fallback kernel;
  EXPECT_EQ(0, kernel.IsValidParam(Layer({}), nullptr));
  EXPECT_EQ(-1, kernel.IsValidParam(nullptr, nullptr));
  EXPECT_EQ(-1, kernel.IsValidParam(std::make_shared<runtime::TensorReshapeInfo>(), nullptr));
  EXPECT_EQ(-1, kernel.IsValidParam(Layer({}), std::make_shared<runtime::InferenceParamActQuant>()));
  EXPECT_FALSE(kernel.Config(nullptr, nullptr, context));
  auto const tensor = Random(*context, {2}, TensorShape::UINT8);
  EXPECT_EQ(0, kernel.IsValidInput({tensor}));
  EXPECT_EQ(0, kernel.IsValidOutput({tensor}));
  for (Tensors const& bad : {Tensors{}, {tensor, tensor}, {Random(*context, {2}, 0, TensorShape::CPUObject)}}) {
    EXPECT_EQ(-2, kernel.IsValidInput(bad));
    EXPECT_EQ(-2, kernel.IsValidOutput(bad));
  }
}

}  // namespace
}  // namespace talvo
