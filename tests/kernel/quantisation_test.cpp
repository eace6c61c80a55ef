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
using LayerPtr = std::shared_ptr<runtime::LayerInfo>;
using ParamPtr = std::shared_ptr<runtime::InferenceParam>;
using Tensors = std::vector<std::shared_ptr<runtime::Tensor>>;

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

// Values to T and back, for each step that a shift can make, and for those beyond.
template <typename T, class ToFixed, class ToFloat>
void ExpectRoundTrips(ToFixed const& to_fixed, ToFloat const& to_float) {
  auto const context = test::GuardedContext();
  for (short step : {short{0}, short{8}, short{12}, short{31}, short{40}, short{-1}}) {
    SCOPED_TRACE(step);
    float const scale = (step & 31) == 31 ? -0x1p31f : std::ldexp(1.0f, step & 31);
    auto const values = Probes(scale);
    auto const input = test::FloatTensor(*context, {static_cast<unsigned int>(values.size())}, TensorShape::C, values);
    auto const fixed = to_fixed(input, step, context->device_cpu);
    std::vector<float> want;
    for (std::size_t i = 0; i < values.size(); ++i) {
      T const got = fixed->template Data<T>()[i];
      ASSERT_EQ(Quantised<T>(values[i], scale), got) << values[i];
      want.push_back(static_cast<float>(got) * (1.0f / scale));
    }
    test::ExpectSameBits(want, test::Values(*to_float(fixed, context->device_cpu)));
  }
}

TEST_P(QuantisationRows, RoundsHalvesAwayFromZeroAndClamps) {
  ExpectRoundTrips<std::int16_t>(functional::Quantitation_MainMemory_Float_to_Int16_Fallback_M1,
                                 functional::Dequantitation_MainMemory_Int16_to_Float_Fallback_M1);
  ExpectRoundTrips<std::int8_t>(functional::Quantitation_MainMemory_Float_to_Int8_Fallback_M1,
                                functional::Dequantitation_MainMemory_Int8_to_Float_Fallback_M1);
}

struct Pair {
  std::shared_ptr<runtime::IKernel> to_fixed, to_float;
  unsigned int type;
  float top;  // the greatest value at a step of 9
};

std::vector<Pair> Pairs() {
  using namespace kernel;
  return {
      {std::make_shared<Quantitation_MainMemory_Float_to_Int16_Fallback_M1>(),
       std::make_shared<Dequantitation_MainMemory_Int16_to_Float_Fallback_M1>(), TensorShape::INT16, 32767.0f / 512},
      {std::make_shared<Quantitation_MainMemory_Float_to_Int8_Fallback_M1>(),
       std::make_shared<Dequantitation_MainMemory_Int8_to_Float_Fallback_M1>(), TensorShape::INT8, 127.0f / 512}};
}

std::shared_ptr<runtime::InferenceParamActQuant> Step(short step) {
  auto const param = std::make_shared<runtime::InferenceParamActQuant>();
  param->output_step_size = step;
  return param;
}

TEST(Quantisation, KernelsConvertEveryInput) {
  auto const context = test::GuardedContext();
  Tensors const inputs = {test::FloatTensor(*context, {1, 2, 2}, TensorShape::HWC, {99.0f, -0.25f, 0.0f, 1.0f / 512}),
                          test::FloatTensor(*context, {}, TensorShape::C, {-0.125f})};
  for (auto const& [to_fixed, to_float, type, top] : Pairs()) {
    ASSERT_TRUE(to_fixed->Config(nullptr, Step(9), context));
    ASSERT_TRUE(to_float->Config(nullptr, nullptr, context));
    Tensors fixed = {nullptr}, floats;
    EXPECT_EQ(0, to_fixed->Forward(inputs, fixed, context));
    ASSERT_EQ(3u, fixed.size()) << "appended to what the caller gave";
    fixed.erase(fixed.begin());
    EXPECT_EQ(0, to_float->Forward(fixed, floats, context));
    EXPECT_EQ((std::vector<float>{top, -0.25f, 0.0f, 1.0f / 512}), test::Values(*floats[0]));
    EXPECT_EQ((std::vector<float>{-0.125f}), test::Values(*floats[1]));
    auto const fixed_shapes = to_fixed->GetOutputShapes({inputs[0]->shape, inputs[1]->shape});
    auto const float_shapes = to_float->GetOutputShapes(fixed_shapes);
    for (std::size_t i = 0; i < 2; ++i) {
      unsigned int const types[] = {type, type, TensorShape::FLOAT32, TensorShape::FLOAT32};
      unsigned int const* expected = types;
      for (TensorShape const& shape : {fixed_shapes[i], fixed[i]->shape, float_shapes[i], floats[i]->shape}) {
        EXPECT_EQ(*expected == type ? 9 : 0, shape.extra.step_size);
        EXPECT_EQ(*expected++, shape.data_type);
        EXPECT_EQ(inputs[i]->shape.dims, shape.dims);
        EXPECT_EQ(inputs[i]->shape.layout, shape.layout);
      }
    }
    auto const elsewhere = test::FloatTensor(*context, {1}, TensorShape::C, {1.0f});
    elsewhere->shape.location = TensorShape::CPUObject;
    std::pair<Tensors, bool> const lists[] = {
        {{}, true}, {inputs, true}, {fixed, false}, {{inputs[0], nullptr}, false}, {{inputs[0], elsewhere}, false}};
    for (auto const& [list, are_floats] : lists) {
      bool const are_fixed = list.empty() || list == fixed;
      EXPECT_EQ(are_floats ? 0 : -2, to_fixed->IsValidInput(list));
      EXPECT_EQ(are_fixed ? 0 : -2, to_fixed->IsValidOutput(list));
      EXPECT_EQ(are_fixed ? 0 : -2, to_float->IsValidInput(list));
      EXPECT_EQ(are_floats ? 0 : -2, to_float->IsValidOutput(list));
    }
  }
}

TEST(Quantisation, TakesAStepAndNoLayer) {
  auto const layer = std::make_shared<runtime::ActivationInfo>();
  auto const foreign = std::make_shared<runtime::InferenceParamUpsampling2DQuant>();
  std::tuple<LayerPtr, ParamPtr, char> const rows[] = {
      {nullptr, Step(7), '-'}, {nullptr, Step(8), 'q'}, {nullptr, Step(12), 'q'}, {nullptr, Step(13), '-'},
      {layer, Step(11), '-'},  {layer, nullptr, '-'},   {nullptr, foreign, '-'},  {nullptr, nullptr, 'd'}};
  for (auto const& pair : Pairs()) {
    for (auto const& [info, param, taker] : rows) {
      EXPECT_EQ(taker == 'q' ? 0 : -1, pair.to_fixed->IsValidParam(info, param));
      EXPECT_EQ(taker == 'q', pair.to_fixed->Config(info, param, nullptr));
      EXPECT_EQ(taker == 'd' ? 0 : -1, pair.to_float->IsValidParam(info, param));
      EXPECT_EQ(taker == 'd', pair.to_float->Config(info, param, nullptr));
    }
  }
}

TEST(Quantisation, RefusesElementsThatAreTooSmallAndMissingDevices) {
  using namespace functional;
  auto const context = test::GuardedContext();
  auto const bytes = context->device_cpu->CreateU8CHWMainMem({1, 1, 3}, nullptr);
  auto const& device = context->device_cpu;
  auto const expect = [](char const* text, auto const& form, auto const&... arguments) {
    auto const refusal = test::RefusalOf([&] { form(arguments...); });
    EXPECT_EQ(std::string(text) + "\n", refusal.substr(refusal.find_last_of(":;") + 2));
  };
  expect("needs 4 bytes an element", Quantitation_MainMemory_Float_to_Int8_Fallback_M1, bytes, short{8}, device);
  expect("needs 2 bytes an element", Dequantitation_MainMemory_Int16_to_Float_Fallback_M1, bytes, device);
  expect("Can't create output cpu tensor", Dequantitation_MainMemory_Int8_to_Float_Fallback_M1, bytes, nullptr);
  for (auto const& pair : Pairs()) {
    for (auto const& kernel : {pair.to_fixed, pair.to_float}) {
      Tensors outputs;
      auto const forward = [&](auto const& input) { kernel->Forward({input}, outputs, nullptr); };
      expect("input 0 is no CPU tensor", forward, nullptr);
      expect("the context has no CPU device", forward, test::FloatTensor(*context, {}, 1, {1.0f}));
    }
  }
}

}  // namespace
}  // namespace talvo
