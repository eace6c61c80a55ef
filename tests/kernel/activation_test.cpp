#include "talvo/kernel/activation.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <string>

#include "talvo/kernel/functional/activation.h"
#include "talvo/kernel/rows/exponential.h"
#include "talvo/kernel/rows/instruction_sets.h"
#include "talvo/serialization/inference_param.h"
#include "talvo/serialization/layer_info_activation.h"
#include "talvo/utility/base64.h"
#include "tests/support/bits.h"
#include "tests/support/guarded_context.h"
#include "tests/support/log_capture.h"

namespace talvo {
namespace {

using half_float::half;
using runtime::ActivationInfo, runtime::Tensor, runtime::TensorShape;
using Dims = std::vector<unsigned int>;
using Tensors = std::vector<std::shared_ptr<Tensor>>;

// Halves that are no powers of two: each product has a rounding that a fused multiplication and addition would skip.
float const kAlpha = half(0.3f), kBeta = half(-1.1f);

float HardSigmoid(float x) {
  float const t = x + 3.0f, low = t > 0.0f ? t : 0.0f;
  return (low < 6.0f ? low : 6.0f) * 0x1.555556p-3f;  // the float next to 1/6
}

using FreeForm = std::function<void(float const*, unsigned int const&, float*)>;
enum Form { kStrict, kInverted, kReads };  // of the judgement; the last is inverted, and Config needs an ActivationInfo

struct Case {
  std::shared_ptr<runtime::IKernel> kernel;
  Form form;
  FreeForm free_form;
  std::function<float(float)> step;  // called for one element at a time, so that no compiler vectorises it
};

template <class Kernel>
Case Of(Form form, FreeForm const& free_form, std::function<float(float)> const& step) {
  return {std::make_shared<Kernel>(), form, free_form, step};
}

// One element as a row of its own; exponential_sweep has the values.
template <auto* kRow>
float Alone(float x) {
  (*kRow)(&x, 1, &x);
  return x;
}

std::vector<Case> Cases() {
  using namespace kernel;
  namespace f = kernel::functional;
  auto const leaky = [](float alpha) -> FreeForm {
    return [=](float const* in, unsigned int const& count, float* out) { f::leaky_f32(in, count, alpha, out); };
  };
  FreeForm const linear = [](float const* in, unsigned int const& count, float* out) {
    f::linear_f32(in, count, kAlpha, kBeta, out);
  };
  return {Of<ReLU_Fallback_Float_M1>(kStrict, f::relu_f32, [](float x) { return 0.0f > x ? 0.0f : x; }),
          Of<ReLU6_Fallback_Float_M1>(kInverted, f::relu6_f32,
                                      [](float x) { return 0.0f > x ? 0.0f : (6.0f < x ? 6.0f : x); }),
          Of<Sigmoid_Fallback_Float_M1>(kStrict, f::sigmoid_f32, Alone<&rows::SigmoidRow>),
          Of<TanH_Fallback_Float_M1>(kStrict, f::tanh_f32, Alone<&rows::TanhRow>),
          Of<HSigmoid_Fallback_Float_M1>(kStrict, f::hsigmoid_f32, HardSigmoid),
          Of<HSwish_Fallback_Float_M1>(kStrict, f::hswish_f32, [](float x) { return HardSigmoid(x) * x; }),
          Of<Leaky_Fallback_Float_M1>(kReads, leaky(kAlpha), [](float x) { return x < 0.0f ? kAlpha * x : x; }),
          Of<Linear_Fallback_Float_M1>(kReads, linear, [](float x) { return x * kAlpha + kBeta; }),
          Of<Sqrt_Fallback_Float_M1>(kStrict, f::sqrt_f32, [](float x) { return std::sqrt(x); }),
          Of<Log_Fallback_Float_M1>(kStrict, f::log_f32, Alone<&rows::LogRow>),
          Of<Erf_Fallback_Float_M1>(kStrict, f::erf_f32, Alone<&rows::ErfRow>),
          Of<PReLU_Fallback_Float_M1>(kReads, leaky(0.7f), [](float x) { return x < 0.0f ? 0.7f * x : x; })};
}

// The slopes of PReLU are two, of which the first serves all channels.
std::shared_ptr<ActivationInfo> Layer(std::vector<float> const& slopes = {0.7f, 9.0f}) {
  auto layer = std::make_shared<ActivationInfo>();
  layer->id = "act";
  layer->activation_alpha = half(kAlpha);
  layer->activation_beta = half(kBeta);
  layer->weight = test::WeightText(slopes);
  layer->num_parameters = 2;
  return layer;
}

// Special values, then values on both sides of every threshold.
std::vector<float> Inputs(std::size_t count) {
  auto values = test::SpecialFloats(5, count);
  for (std::size_t i = 28; i < count; ++i) values[i] *= 9.0f;
  return values;
}

TEST(Activation, FreeFormsEqualTheAscendingLoopForAnyOverlap) {
  constexpr std::size_t kInput = 40;
  for (auto const set : kernel::rows::RunnableSets()) {
    for (Case const& c : Cases()) {
      kernel::rows::ScopedInstructionSet const use(set);
      SCOPED_TRACE(c.kernel->GetName() + " with " + kernel::rows::NameOf(set));
      for (unsigned int count : {0u, 1u, 3u, 4u, 5u, 8u, 31u, 64u, 1003u}) {
        // Distance from input to output in elements; 0 is in place, the last leaves the ranges disjoint.
        for (int distance : {0, 1, -1, 2, -3, 4, -4, 7, 8, -8, 15, 16, 17, 31, -33, 63, 64, 1043}) {
          SCOPED_TRACE(testing::Message() << "count " << count << ", distance " << distance);
          auto want = Inputs(3000), got = want;
          auto const output = static_cast<std::size_t>(static_cast<int>(kInput) + distance);
          for (std::size_t i = 0; i < count; ++i) want[output + i] = c.step(want[kInput + i]);
          c.free_form(got.data() + kInput, count, got.data() + output);
          test::ExpectSameBits(want, got);
        }
      }
    }
  }
}

TEST(Activation, KernelsMapEveryElementOfAnyShape) {
  auto const context = test::GuardedContext();
  for (Case const& c : Cases()) {
    SCOPED_TRACE(c.kernel->GetName());
    ASSERT_TRUE(c.kernel->Config(Layer(), nullptr, context));
    bool const in_place = c.kernel->GetName()[0] == 'P';
    for (Dims const& dims : {Dims{}, {0, 5}, {3, 7, 5, 4}}) {
      auto const values = Inputs(runtime::ElementCount(dims));
      auto const x = test::FloatTensor(*context, dims, TensorShape::C4HW4, values);
      std::vector<float> want;
      for (float value : values) want.push_back(c.step(value));
      Tensors outputs(3);
      ASSERT_EQ(0, c.kernel->Forward({x}, outputs, context));
      ASSERT_EQ(1u, outputs.size());
      EXPECT_EQ(in_place, outputs[0] == x);
      EXPECT_EQ(dims, outputs[0]->shape.dims);
      EXPECT_EQ(unsigned{TensorShape::C4HW4}, outputs[0]->shape.layout);
      test::ExpectSameBits(want, test::Values(*outputs[0]));
      if (!in_place) test::ExpectSameBits(values, test::Values(*x));
      ASSERT_EQ(0, c.kernel->Forward(outputs, outputs, context)) << "one list for both";
      ASSERT_EQ(1u, outputs.size());
    }
  }
}

// The codes of IsValidParam are compared by the walk over the catalogue.
TEST(Activation, ConfigReadsTwoFormsOfJudgement) {
  auto const good = Layer();
  auto const foreign = std::make_shared<runtime::SoftmaxInfo>();
  auto const param = std::make_shared<runtime::InferenceParamActQuant>();
  for (Case const& c : Cases()) {
    SCOPED_TRACE(c.kernel->GetName());
    EXPECT_EQ(c.form != kStrict, c.kernel->Config(good, param, nullptr));
    EXPECT_EQ(c.form == kInverted, c.kernel->Config(foreign, nullptr, nullptr));
    EXPECT_EQ(c.form == kInverted, c.kernel->Config(nullptr, param, nullptr));
    EXPECT_TRUE(c.kernel->Config(good, nullptr, nullptr) && c.kernel->IsConfigured());
    EXPECT_FALSE(c.kernel->Config(nullptr, nullptr, nullptr) || c.kernel->IsConfigured());
  }
  kernel::PReLU_Fallback_Float_M1 prelu;
  EXPECT_FALSE(prelu.Config(Layer({}), nullptr, nullptr)) << "an empty weight";
  good->weight = runtime::Base64Encode(reinterpret_cast<unsigned char const*>("abc"), 3);
  auto const text = test::RefusalOf([&] { prelu.Config(good, nullptr, nullptr); });
  EXPECT_NE(std::string::npos, text.find("PReLU_Fallback_Float_M1 of layer act: weight holds 3 bytes")) << text;
}

// What a kernel computes with before Config, seen in f(-8), and after a layer that says nothing.
TEST(Activation, ParametersHaveTheirDefaults) {
  auto const context = test::GuardedContext();
  auto const run = [&](runtime::IKernel const& kernel) {
    Tensors outputs;
    kernel.Forward({test::FloatTensor(*context, {1}, TensorShape::C, {-8.0f})}, outputs, context);
    return test::Values(*outputs[0])[0];
  };
  kernel::Linear_Fallback_Float_M1 linear;
  EXPECT_EQ(-0.8f, run(kernel::Leaky_Fallback_Float_M1()));
  EXPECT_EQ(-2.0f, run(kernel::PReLU_Fallback_Float_M1()));
  EXPECT_EQ(-8.0f, run(linear));
  ASSERT_TRUE(linear.Config(Layer(), nullptr, nullptr));
  ASSERT_TRUE(linear.Config(std::make_shared<ActivationInfo>(), nullptr, nullptr));
  EXPECT_EQ(-8.0f, run(linear)) << "nothing of the layer before";
}

TEST(Activation, ClipHoldsItsHalvesAndNaN) {
  auto const context = test::GuardedContext();
  kernel::Clip_Fallback_Float_M1 clip;
  auto const layer = std::make_shared<runtime::ClipInfo>();
  for (auto const& [low, high] : {std::pair{-0.3f, 0.7f}, {0.5f, 0.25f}, {-65504.0f, 65504.0f}}) {
    layer->minimum_value = half(low), layer->maximum_value = half(high);
    ASSERT_TRUE(clip.Config(layer, nullptr, nullptr));
    auto const values = Inputs(1003);
    Tensors outputs;
    ASSERT_EQ(0, clip.Forward({test::FloatTensor(*context, {17, 59}, TensorShape::SC, values)}, outputs, context));
    std::vector<float> want;
    for (float const x : values) {
      float const least = layer->minimum_value, most = layer->maximum_value, held = x < least ? least : x;
      want.push_back(most < held ? most : held);
    }
    test::ExpectSameBits(want, test::Values(*outputs.at(0)));
  }
  EXPECT_FALSE(clip.Config(Layer(), nullptr, nullptr)) << "a record without bounds";
}

TEST(Activation, PReLUHasASlopeForEachChannel) {
  auto const context = test::GuardedContext();
  kernel::PReLUChannel_Fallback_CHW_Float_M1 prelu;
  auto const layer = Layer(test::Floats(3, 6));
  layer->num_parameters = 5;
  auto const refusal = [&](Dims const& dims) {
    Tensors outputs;
    auto const x = test::FloatTensor(*context, dims, TensorShape::CHW, Inputs(runtime::ElementCount(dims)));
    return test::RefusalOf([&] { prelu.Forward({x}, outputs, context); });
  };
  EXPECT_NE(std::string::npos, refusal({1, 1, 1}).find("PReLUChannel_Fallback_CHW_Float_M1: Forward before Config"));
  ASSERT_TRUE(prelu.Config(layer, nullptr, context));
  for (Dims const& dims : {Dims{5, 3, 7}, {4, 1, 33}, {2, 0, 4}}) {
    auto const values = Inputs(runtime::ElementCount(dims));
    Tensors outputs;
    ASSERT_EQ(0, prelu.Forward({test::FloatTensor(*context, dims, TensorShape::CHW, values)}, outputs, context));
    auto want = values;
    for (std::size_t i = 0; i < want.size(); ++i) {
      if (want[i] < 0.0f) want[i] *= test::Floats(3, 6)[i / (dims[1] * dims[2])];
    }
    test::ExpectSameBits(want, test::Values(*outputs.at(0)));
  }
  EXPECT_NE(std::string::npos, refusal({6, 1, 2}).find("of layer act: input 0 has dims [6, 1, 2], there are 5 slopes"));
  EXPECT_NE(std::string::npos, refusal({5, 2}).find("needs rank 3"));
  for (short const count : {short{0}, short{-1}, short{7}}) {
    layer->num_parameters = count;
    auto const text = test::RefusalOf([&] { prelu.Config(layer, nullptr, context); });
    EXPECT_NE(std::string::npos, text.find(count == 7 ? "weight holds 24 bytes" : "parameters, needs one")) << text;
  }
}

TEST(Activation, InPlaceFormsRefuseWhatTheyCannotRead) {
  auto const context = test::GuardedContext();
  std::shared_ptr<Tensor> x = test::FloatTensor(*context, {}, TensorShape::C, {0.0f});
  kernel::functional::Sigmoid_F32_M2(x);
  test::ExpectSameBits({0.5f}, test::Values(*x));
  for (auto tensor :
       {std::shared_ptr<Tensor>(), std::shared_ptr<Tensor>(context->device_cpu->CreateF16CMainMemory(8, nullptr))}) {
    auto const sigmoid = test::RefusalOf([&] { kernel::functional::Sigmoid_F32_M2(tensor); });
    auto const prelu = test::RefusalOf([&] { kernel::functional::PReLU_F32(tensor, 0.5f); });
    EXPECT_NE(std::string::npos, sigmoid.find("Sigmoid_F32_M2: the tensor ")) << sigmoid;
    EXPECT_NE(std::string::npos, prelu.find("PReLU_F32: the tensor ")) << prelu;
  }
}

}  // namespace
}  // namespace talvo
