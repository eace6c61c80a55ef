#include "talvo/kernel/quantisation.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>

#include "talvo/kernel/functional/quantisation.h"
#include "talvo/kernel/rows/instruction_sets.h"
#include "talvo/serialization/inference_param.h"
#include "talvo/serialization/layer_info_activation.h"
#include "tests/support/bits.h"
#include "tests/support/guarded_context.h"
#include "tests/support/log_capture.h"

namespace talvo {
namespace {

namespace functional = kernel::functional;
using runtime::TensorShape;
using Tensors = std::vector<std::shared_ptr<runtime::Tensor>>;

template <typename T>
std::vector<T> ValuesOf(runtime::Tensor const& tensor) {
  auto const* const first = static_cast<T const*>(tensor.data);
  return std::vector<T>(first, first + runtime::ElementCount(tensor.shape.dims));
}

template <typename T>
T Quantised(float x, float scale) {
  float const low = std::numeric_limits<T>::min(), high = std::numeric_limits<T>::max();
  float const rounded = std::roundf(x * scale);
  return std::isnan(rounded) ? T{0} : static_cast<T>(rounded > high ? high : rounded < low ? low : rounded);
}

// Values around every half in and beyond the range of an integer, and others.
std::vector<float> Probes(float scale) {
  std::vector<float> values = test::SpecialFloats(1, 257);
  for (int whole = -33000; whole <= 33000; whole += 1 + std::abs(whole) / 16) {
    float const half = static_cast<float>(whole) + 0.5f;
    for (float v : {half, std::nextafter(half, -1e9f), std::nextafter(half, 1e9f), half + 0.5f})
      values.push_back(v / scale);
  }
  return values;
}

class QuantisationRows : public testing::TestWithParam<kernel::rows::InstructionSet> {
  kernel::rows::ScopedInstructionSet const use_{GetParam()};
};
INSTANTIATE_TEST_SUITE_P(EverySet, QuantisationRows, testing::ValuesIn(kernel::rows::RunnableSets()),
                         [](auto const& set) { return kernel::rows::NameOf(set.param); });

TEST_P(QuantisationRows, RoundsHalvesAwayFromZeroAndClamps) {
  auto const context = test::GuardedContext();
  for (short step : {short{0}, short{8}, short{12}, short{31}, short{40}, short{-1}}) {
    SCOPED_TRACE(step);
    float const scale = (step & 31) == 31 ? -0x1p31f : std::ldexp(1.0f, step & 31);
    auto const values = Probes(scale);
    auto const input = test::FloatTensor(*context, {static_cast<unsigned int>(values.size())}, TensorShape::C, values);
    auto const wide = functional::Quantitation_MainMemory_Float_to_Int16_Fallback_M1(input, step, context->device_cpu);
    auto const narrow = functional::Quantitation_MainMemory_Float_to_Int8_Fallback_M1(input, step, context->device_cpu);
    EXPECT_EQ(step, wide->shape.extra.step_size);
    auto const q16 = ValuesOf<std::int16_t>(*wide);
    auto const q8 = ValuesOf<std::int8_t>(*narrow);
    std::vector<float> want16, want8;
    float const back = 1.0f / scale;
    for (std::size_t i = 0; i < values.size(); ++i) {
      ASSERT_EQ(Quantised<std::int16_t>(values[i], scale), q16[i]) << values[i];
      ASSERT_EQ(Quantised<std::int8_t>(values[i], scale), q8[i]) << values[i];
      want16.push_back(static_cast<float>(q16[i]) * back);
      want8.push_back(static_cast<float>(q8[i]) * back);
    }
    auto const from16 = functional::Dequantitation_MainMemory_Int16_to_Float_Fallback_M1(wide, context->device_cpu);
    EXPECT_EQ(0, from16->shape.extra.step_size);
    test::ExpectSameBits(want16, test::Values(*from16));
    test::ExpectSameBits(want8, test::Values(*functional::Dequantitation_MainMemory_Int8_to_Float_Fallback_M1(
                                    narrow, context->device_cpu)));
  }
}

template <class ToFixed, class ToFloat>
void ExpectConverters(unsigned int data_type) {
  auto const context = test::GuardedContext();
  auto const param = std::make_shared<runtime::InferenceParamActQuant>();
  param->output_step_size = 9;
  ToFixed to_fixed;
  ToFloat to_float;
  ASSERT_TRUE(to_fixed.Config(nullptr, param, context));
  ASSERT_TRUE(to_float.Config(nullptr, nullptr, context));
  Tensors const inputs = {test::FloatTensor(*context, {1, 2, 2}, TensorShape::HWC, {0.5f, -0.25f, 0.0f, 1.0f / 512}),
                          test::FloatTensor(*context, {}, TensorShape::C, {-0.125f})};
  Tensors fixed = {nullptr}, floats;
  EXPECT_EQ(0, to_fixed.IsValidInput(inputs));
  EXPECT_EQ(-2, to_float.IsValidInput(inputs));
  EXPECT_EQ(0, to_fixed.Forward(inputs, fixed, context));
  ASSERT_EQ(3u, fixed.size()) << "appended to what the caller gave";
  fixed.erase(fixed.begin());
  EXPECT_EQ(0, to_fixed.IsValidOutput(fixed));
  EXPECT_EQ(0, to_float.Forward(fixed, floats, context));
  EXPECT_EQ(0, to_float.IsValidOutput(floats));
  ASSERT_EQ(2u, floats.size());
  auto const shapes = to_fixed.GetOutputShapes({inputs[0]->shape, inputs[1]->shape});
  for (std::size_t i = 0; i < 2; ++i) {
    EXPECT_EQ(data_type, fixed[i]->shape.data_type);
    EXPECT_EQ(data_type, shapes[i].data_type);
    EXPECT_EQ(inputs[i]->shape.dims, shapes[i].dims);
    EXPECT_EQ(inputs[i]->shape.dims, fixed[i]->shape.dims);
    EXPECT_EQ(inputs[i]->shape.layout, fixed[i]->shape.layout);
    EXPECT_EQ(9, fixed[i]->shape.extra.step_size);
    EXPECT_EQ(9, shapes[i].extra.step_size);
    EXPECT_EQ(0, to_float.GetOutputShapes(shapes)[i].extra.step_size);
  }
  EXPECT_EQ(-0.125f, test::Values(*floats[1])[0]);
  float const top = data_type == TensorShape::INT16 ? 0.5f : 127.0f / 512;
  EXPECT_EQ((std::vector<float>{top, -0.25f, 0.0f, 1.0f / 512}), test::Values(*floats[0]));
}

TEST(Quantisation, KernelsConvertEveryInput) {
  ExpectConverters<kernel::Quantitation_MainMemory_Float_to_Int16_Fallback_M1,
                   kernel::Dequantitation_MainMemory_Int16_to_Float_Fallback_M1>(TensorShape::INT16);
  ExpectConverters<kernel::Quantitation_MainMemory_Float_to_Int8_Fallback_M1,
                   kernel::Dequantitation_MainMemory_Int8_to_Float_Fallback_M1>(TensorShape::INT8);
}

TEST(Quantisation, JudgesParametersAndTensorLists) {
  auto const context = test::GuardedContext();
  kernel::Quantitation_MainMemory_Float_to_Int8_Fallback_M1 to_fixed;
  kernel::Dequantitation_MainMemory_Int8_to_Float_Fallback_M1 to_float;
  auto const param = std::make_shared<runtime::InferenceParamActQuant>();
  auto const layer = std::make_shared<runtime::ActivationInfo>();
  for (auto const& [step, accepted] : {std::pair<short, bool>{7, false}, {8, true}, {12, true}, {13, false}}) {
    param->output_step_size = step;
    EXPECT_EQ(accepted ? 0 : -1, to_fixed.IsValidParam(nullptr, param)) << step;
    EXPECT_EQ(accepted, to_fixed.Config(nullptr, param, context)) << step;
  }
  param->output_step_size = 11;
  EXPECT_FALSE(to_fixed.Config(layer, param, context));
  EXPECT_FALSE(to_fixed.Config(nullptr, nullptr, context));
  EXPECT_FALSE(to_fixed.Config(nullptr, std::make_shared<runtime::InferenceParamUpsampling2DQuant>(), context));
  EXPECT_FALSE(to_float.Config(layer, nullptr, context));
  EXPECT_FALSE(to_float.Config(nullptr, param, context));
  Tensors outputs;
  EXPECT_EQ(0, to_fixed.IsValidInput({}));
  EXPECT_EQ(0, to_float.IsValidOutput({}));
  EXPECT_EQ(0, to_fixed.Forward({}, outputs, context));
  EXPECT_TRUE(outputs.empty());
  auto const elsewhere = context->device_cpu->CreateTensor(
      TensorShape({1}, TensorShape::FLOAT32, TensorShape::C, TensorShape::CPUObject, {}), nullptr);
  EXPECT_EQ(-2, to_fixed.IsValidInput({elsewhere}));
  EXPECT_EQ(-2, to_fixed.IsValidInput({nullptr}));
}

TEST(Quantisation, RefusesElementsThatAreTooSmallAndMissingDevices) {
  auto const context = test::GuardedContext();
  auto const tensor = [&](unsigned int type) {
    return context->device_cpu->CreateTensor(TensorShape({3}, type, TensorShape::C, TensorShape::MainMemory, {}),
                                             nullptr);
  };
  auto const& device = context->device_cpu;
  EXPECT_NE("", test::RefusalOf([&] {
              functional::Quantitation_MainMemory_Float_to_Int8_Fallback_M1(tensor(TensorShape::INT16), 8, device);
            }));
  EXPECT_NE("", test::RefusalOf([&] {
              functional::Dequantitation_MainMemory_Int16_to_Float_Fallback_M1(tensor(TensorShape::INT8), device);
            }));
  EXPECT_NE("",
            test::RefusalOf([&] { functional::Dequantitation_MainMemory_Int8_to_Float_Fallback_M1(nullptr, device); }));
  EXPECT_EQ("[TLN]: Can't create output cpu tensor\n", test::RefusalOf([&] {
              functional::Dequantitation_MainMemory_Int8_to_Float_Fallback_M1(tensor(TensorShape::INT8), nullptr);
            }));
  Tensors outputs;
  EXPECT_NE("", test::RefusalOf([&] {
              kernel::Dequantitation_MainMemory_Int16_to_Float_Fallback_M1().Forward({tensor(TensorShape::INT16)},
                                                                                     outputs, nullptr);
            }));
}

}  // namespace
}  // namespace talvo
