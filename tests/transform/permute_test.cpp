#include "talvo/transform/permute.h"

#include "talvo/serialization/inference_param.h"
#include "talvo/serialization/layer_info_tensor.h"
#include "tests/transform/transform_test_support.h"

namespace talvo::test {
namespace {

using kernel::Transform_MainMemory_Permute_Fallback;

class Permute : public TransformTest {};

std::shared_ptr<runtime::TensorTransposeInfo> Layer(std::vector<unsigned short> const& axes) {
  auto layer = std::make_shared<runtime::TensorTransposeInfo>();
  layer->axes = axes;
  return layer;
}

TEST_F(Permute, DropsTheBatchAxisAndReordersTheRest) {
  Transform_MainMemory_Permute_Fallback kernel;
  ASSERT_TRUE(kernel.Config(Layer({0, 3, 1, 2}), nullptr, context_));
  for (unsigned int type : {TensorShape::FLOAT32, TensorShape::INT16, TensorShape::UINT8}) {
    auto const input = Random({5, 2, 3}, TensorShape::CHW, type);
    Tensors made, given = {Random({31}, TensorShape::CHW, type)};
    EXPECT_EQ(0, kernel.Forward({input}, made, context_));
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

TEST_F(Permute, RefusesAxesThatAreNoOrderOfTheAxes) {
  auto const input = Random({5, 2, 3});
  struct Case {
    char const* why;
    std::vector<unsigned short> axes;
  };
  for (Case const& c :
       {Case{"too few", {0, 1, 2}}, {"none", {}}, {"out of range", {0, 1, 2, 4}}, {"twice", {0, 1, 1, 2}}}) {
    SCOPED_TRACE(c.why);
    Transform_MainMemory_Permute_Fallback kernel;
    ASSERT_TRUE(kernel.Config(Layer(c.axes), nullptr, context_));
    EXPECT_NE("", Refusal(kernel, {input}, {}, context_));
    EXPECT_NE("", Refusal(kernel, {input}, {Random({5, 2, 3})}, context_));
  }
  Transform_MainMemory_Permute_Fallback kernel;
  std::string const text = RefusalOf([&] { kernel.Config(Layer({0, 2, 0, 1}), nullptr, context_); });
  EXPECT_NE(std::string::npos, text.find("entry 2 of 4 axes is 0"));
  EXPECT_FALSE(kernel.IsConfigured());
  ASSERT_TRUE(kernel.Config(Layer({0, 1, 2, 4}), nullptr, context_));
  EXPECT_NE("", RefusalOf([&] { kernel.GetOutputShapes({input->shape}); }));
}

TEST_F(Permute, RefusesMissingAndShortTensors) {
  Transform_MainMemory_Permute_Fallback kernel;
  ASSERT_TRUE(kernel.Config(Layer({0, 2, 1}), nullptr, context_));
  auto const input = Random({5, 6});
  EXPECT_NE("", Refusal(kernel, {input}, {Random({29})}, context_));
  EXPECT_NE("", Refusal(kernel, {input}, {}, nullptr));
  EXPECT_NE("", Refusal(kernel::functional::Transform_MainMemory_Permute_Fallback, input, {1, 0}, nullptr));
}

TEST_F(Permute, JudgesParametersAndTensorLists) {
  Transform_MainMemory_Permute_Fallback kernel;
  EXPECT_EQ(0, kernel.IsValidParam(Layer({}), nullptr));
  EXPECT_EQ(-1, kernel.IsValidParam(std::make_shared<runtime::TensorReshapeInfo>(), nullptr));
  EXPECT_EQ(-1, kernel.IsValidParam(Layer({}), std::make_shared<runtime::InferenceParamActQuant>()));
  auto const tensor = Random({2}, TensorShape::CHW, TensorShape::UINT8);
  EXPECT_EQ(0, kernel.IsValidInput({tensor}));
  EXPECT_EQ(0, kernel.IsValidOutput({tensor}));
  for (Tensors const& bad : {Tensors{}, {tensor, tensor}, {Random({2}, 0, 0, TensorShape::CPUObject)}}) {
    EXPECT_EQ(-2, kernel.IsValidInput(bad));
    EXPECT_EQ(-2, kernel.IsValidOutput(bad));
  }
}

}  // namespace
}  // namespace talvo::test
