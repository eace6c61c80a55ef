#include "talvo/transform/permute.h"

#include "talvo/serialization/layer_info_tensor.h"
#include "tests/transform/transform_test_support.h"

namespace talvo::test {
namespace {

using kernel::Transform_MainMemory_Permute_Fallback;

class Permute : public TransformTest {};

std::shared_ptr<runtime::TensorTransposeInfo> Layer(std::vector<unsigned short> const& axes) {
  auto layer = std::make_shared<runtime::TensorTransposeInfo>();
  layer->axes = axes;
  layer->id = "p";
  return layer;
}

TEST_F(Permute, DropsTheBatchAxisAndReordersTheRest) {
  Transform_MainMemory_Permute_Fallback kernel;
  ASSERT_TRUE(kernel.Config(Layer({0, 3, 1, 2}), nullptr, context_));
  for (unsigned int type : {TensorShape::FLOAT32, TensorShape::UINT8}) {
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

// The told tests come first, source before axes; then those that name kernel and layer. Nothing is left in the outputs.
TEST_F(Permute, RefusesInTheToldOrder) {
  auto const input = Random({5, 2, 3}), empty = device_->CreateTensorExternal(input->shape, nullptr);
  auto const no_memory = device_->CreateTensorExternal(input->shape, nullptr);
  constexpr char const* kCount = "dimensions of shape must be equal to tranpose axes's.";
  constexpr char const* kWho = "Transform_MainMemory_Permute_Fallback of layer p: ";
  struct Case {
    std::vector<unsigned short> axes;
    TensorPtr input;
    Tensors outputs;
    std::string text;
  };
  for (Case const& c :
       {Case{{0, 1}, empty, {no_memory}, "Input shared pointer is null."},
        {{0, 1}, input, {no_memory}, "Output shared pointer is null."},
        {{0, 1, 2}, input, {}, kCount},
        {{}, input, {Random({29})}, kCount},
        {{0, 1, 2, 4}, input, {}, std::string(kWho) + "axis 3 of dims [5, 2, 3] is out of range or repeated"},
        {{0, 1, 1, 2},
         input,
         {Random({2})},
         std::string(kWho) + "axis 0 of dims [5, 2, 3] is out of range or repeated"},
        {{0, 3, 2, 1}, input, {Random({29})}, std::string(kWho) + "the given output holds 116 bytes, needs 120"},
        {{0, 3, 2, 1}, nullptr, {}, std::string(kWho) + "input 0 is no CPU tensor"}}) {
    SCOPED_TRACE(c.text);
    Transform_MainMemory_Permute_Fallback kernel;
    ASSERT_TRUE(kernel.Config(Layer(c.axes), nullptr, context_));
    Tensors outputs = c.outputs;
    EXPECT_EQ("[TLN]: " + c.text + "\n", RefusalOf([&] { kernel.Forward({c.input}, outputs, context_); }));
    EXPECT_EQ(c.outputs, outputs);
  }
  auto const free_form = kernel::functional::Transform_MainMemory_Permute_Fallback;
  EXPECT_EQ("[TLN]: Input shared pointer is null.\n", Refusal(free_form, empty, {7}, device_));
  EXPECT_EQ(std::string("[TLN]: ") + kCount + "\n", Refusal(free_form, input, {7}, device_));
  EXPECT_NE(std::string::npos, Refusal(free_form, input, {0, 1, 7}, device_).find("axis 7 is out of range"));
  EXPECT_NE(std::string::npos, Refusal(free_form, input, {2, 1, 0}, nullptr).find("the device is null"));
  Transform_MainMemory_Permute_Fallback kernel;
  EXPECT_EQ(std::string("[TLN]: ") + kWho + "entry 2 of 4 axes is 0, the batch axis, which stands in front only\n",
            RefusalOf([&, axes = Layer({0, 2, 0, 1})] { kernel.Config(axes, nullptr, context_); }));
  EXPECT_FALSE(kernel.IsConfigured());
}

}  // namespace
}  // namespace talvo::test
