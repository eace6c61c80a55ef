#include "talvo/kernel/activation.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <string>

#include "talvo/kernel/functional/activation.h"
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
using runtime::ActivationInfo;
using runtime::Tensor;
using runtime::TensorShape;

using Dims = std::vector<unsigned int>;
using Tensors = std::vector<std::shared_ptr<Tensor>>;

constexpr float kAlpha = 0.25f, kBeta = -1.5f;

// 0x3E2AAAAB, the float next to 1/6.
float Sixth() {
  unsigned int const bits = 0x3E2AAAAB;
  float value;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

float HardSigmoid(float x) {
  float const t = x + 3.0f, low = t > 0.0f ? t : 0.0f;
  return (low < 6.0f ? low : 6.0f) * Sixth();
}

struct Case {
  char const* name;
  std::function<float(float)> step;  // called for one element at a time, so that no compiler vectorises it
  std::function<void(float const*, unsigned int const&, float*)> free_form;
  std::shared_ptr<runtime::IKernel> kernel;
  bool strict;
};

std::vector<Case> Cases() {
  using namespace kernel;
  namespace f = kernel::functional;
  return {
      {"ReLU_Fallback_Float_M1", [](float x) { return 0.0f > x ? 0.0f : x; }, f::relu_f32,
       std::make_shared<ReLU_Fallback_Float_M1>(), true},
      {"ReLU6_Fallback_Float_M1", [](float x) { return 0.0f > x ? 0.0f : (6.0f < x ? 6.0f : x); }, f::relu6_f32,
       std::make_shared<ReLU6_Fallback_Float_M1>(), false},
      {"Sigmoid_Fallback_Float_M1", [](float x) { return 1.0f / (expf(-x) + 1.0f); }, f::sigmoid_f32,
       std::make_shared<Sigmoid_Fallback_Float_M1>(), true},
      {"TanH_Fallback_Float_M1", [](float x) { return tanhf(x); }, f::tanh_f32,
       std::make_shared<TanH_Fallback_Float_M1>(), true},
      {"HSigmoid_Fallback_Float_M1", HardSigmoid, f::hsigmoid_f32, std::make_shared<HSigmoid_Fallback_Float_M1>(),
       true},
      {"HSwish_Fallback_Float_M1", [](float x) { return HardSigmoid(x) * x; }, f::hswish_f32,
       std::make_shared<HSwish_Fallback_Float_M1>(), true},
      {"Leaky_Fallback_Float_M1", [](float x) { return x < 0.0f ? kAlpha * x : x; },
       [](float const* in, unsigned int const& count, float* out) { f::leaky_f32(in, count, kAlpha, out); },
       std::make_shared<Leaky_Fallback_Float_M1>(), false},
      {"Linear_Fallback_Float_M1", [](float x) { return x * kAlpha + kBeta; },
       [](float const* in, unsigned int const& count, float* out) { f::linear_f32(in, count, kAlpha, kBeta, out); },
       std::make_shared<Linear_Fallback_Float_M1>(), false},
  };
}

std::shared_ptr<ActivationInfo> Layer(float alpha = kAlpha, float beta = kBeta) {
  auto layer = std::make_shared<ActivationInfo>();
  layer->id = "act";
  layer->activation_alpha = half(alpha);
  layer->activation_beta = half(beta);
  return layer;
}

std::string Base64OfFloats(std::vector<float> const& values) {
  return runtime::Base64Encode(reinterpret_cast<unsigned char const*>(values.data()), values.size() * sizeof(float));
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
      SCOPED_TRACE(std::string(c.name) + " with " + kernel::rows::NameOf(set));
      for (unsigned int count : {0u, 1u, 3u, 4u, 5u, 8u, 31u, 64u, 1003u}) {
        // Distance from input to output in elements; 0 is in place, the last leaves the ranges disjoint.
        for (int distance : {0, 1, -1, 2, -3, 4, -4, 7, 8, -8, 15, 16, 17, -33, 1043}) {
          SCOPED_TRACE("count " + std::to_string(count) + ", distance " + std::to_string(distance));
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
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.name, c.kernel->GetName());
    ASSERT_TRUE(c.kernel->Config(Layer(), nullptr, context));
    for (Dims const& dims : {Dims{}, {0, 5}, {2, 3, 5}, {3, 7, 5, 4}, {1001}}) {
      auto const values = Inputs(runtime::ElementCount(dims));
      auto const x = test::FloatTensor(*context, dims, TensorShape::C4HW4, values);
      std::vector<float> want;
      for (float value : values) want.push_back(c.step(value));
      Tensors outputs(3);
      ASSERT_EQ(0, c.kernel->Forward({x}, outputs, context));
      ASSERT_EQ(1u, outputs.size());
      EXPECT_EQ(dims, outputs[0]->shape.dims);
      EXPECT_EQ(unsigned{TensorShape::C4HW4}, outputs[0]->shape.layout);
      test::ExpectSameBits(want, test::Values(*outputs[0]));
      test::ExpectSameBits(values, test::Values(*x));
    }
  }
}

TEST(Activation, TwoFormsOfJudgementStayApart) {
  auto cases = Cases();
  cases.push_back({"PReLU_Fallback_Float_M1", {}, {}, std::make_shared<kernel::PReLU_Fallback_Float_M1>(), false});
  auto const good = Layer();
  good->weight = Base64OfFloats({1.0f});
  auto const foreign = std::make_shared<runtime::SoftmaxInfo>();
  auto const param = std::make_shared<runtime::InferenceParamActQuant>();
  for (Case const& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.name, c.kernel->GetName());
    bool const reads = c.name[0] == 'P' || c.name[0] == 'L';  // parameters of an ActivationInfo
    EXPECT_EQ(c.strict ? 0 : -1, c.kernel->IsValidParam(good, nullptr));
    EXPECT_EQ(c.strict ? -1 : 0, c.kernel->IsValidParam(nullptr, nullptr));
    EXPECT_EQ(-1, c.kernel->IsValidParam(foreign, nullptr));
    EXPECT_EQ(-1, c.kernel->IsValidParam(good, param));
    EXPECT_EQ(-1, c.kernel->IsValidParam(nullptr, param));
    EXPECT_EQ(!c.strict, c.kernel->Config(good, param, nullptr));
    EXPECT_EQ(!c.strict && !reads, c.kernel->Config(foreign, nullptr, nullptr));
    EXPECT_EQ(!c.strict && !reads, c.kernel->Config(nullptr, param, nullptr));
    EXPECT_TRUE(c.kernel->Config(good, nullptr, nullptr));
    EXPECT_TRUE(c.kernel->IsConfigured());
    EXPECT_FALSE(c.kernel->Config(nullptr, nullptr, nullptr));
    EXPECT_FALSE(c.kernel->IsConfigured());
  }
}

TEST(Activation, JudgesTensorListsAndRefusesWhatItCannotRead) {
  auto const context = test::GuardedContext();
  auto const good = test::FloatTensor(*context, {2}, TensorShape::C, {1.0f, 2.0f});
  auto const elsewhere = test::FloatTensor(*context, {2}, TensorShape::C, {1.0f, 2.0f});
  elsewhere->shape.location = TensorShape::MetalBuffer;
  auto const bytes = context->device_cpu->CreateU8CHWMainMem({1, 1, 2}, nullptr);
  std::vector<std::shared_ptr<runtime::IKernel>> const kernels = {std::make_shared<kernel::PReLU_Fallback_Float_M1>(),
                                                                  std::make_shared<kernel::ReLU_Fallback_Float_M1>()};
  for (auto const& kernel : kernels) {
    EXPECT_EQ(0, kernel->IsValidInput({good}));
    EXPECT_EQ(0, kernel->IsValidOutput({good}));
    for (Tensors const& bad : {Tensors{}, Tensors{good, good}, Tensors{bytes}, Tensors{elsewhere}, Tensors{nullptr}}) {
      EXPECT_EQ(-2, kernel->IsValidInput(bad));
      EXPECT_EQ(-2, kernel->IsValidOutput(bad));
    }
    Tensors outputs;
    for (Tensors const& bad : {Tensors{}, Tensors{bytes}, Tensors{nullptr}}) {
      auto const text = test::RefusalOf([&] { kernel->Forward(bad, outputs, context); });
      EXPECT_NE(std::string::npos, text.find(kernel->GetName())) << text;
    }
  }
}

TEST(Activation, ParametersHaveHalfPrecisionAndDefaults) {
  auto const context = test::GuardedContext();
  auto const run = [&](runtime::IKernel const& kernel, float x) {
    Tensors outputs;
    kernel.Forward({test::FloatTensor(*context, {1}, TensorShape::C, {x})}, outputs, context);
    return test::Values(*outputs[0])[0];
  };
  kernel::Leaky_Fallback_Float_M1 leaky;
  EXPECT_EQ(-0.1f, run(leaky, -1.0f));
  ASSERT_TRUE(leaky.Config(Layer(0.1f), nullptr, nullptr));
  EXPECT_EQ(-0.0999755859375f, run(leaky, -1.0f));
  kernel::Linear_Fallback_Float_M1 linear;
  ASSERT_TRUE(linear.Config(Layer(2.0f, 3.0f), nullptr, nullptr));
  EXPECT_EQ(13.0f, run(linear, 5.0f));
  ASSERT_TRUE(linear.Config(std::make_shared<ActivationInfo>(), nullptr, nullptr));
  EXPECT_EQ(5.0f, run(linear, 5.0f));
}

TEST(Activation, PReLUWorksInPlaceWithOneSlope) {
  auto const context = test::GuardedContext();
  kernel::PReLU_Fallback_Float_M1 prelu;
  auto const layer = Layer();
  EXPECT_FALSE(prelu.Config(layer, nullptr, nullptr)) << "an empty weight";
  layer->weight = runtime::Base64Encode(reinterpret_cast<unsigned char const*>("abc"), 3);
  auto const text = test::RefusalOf([&] { prelu.Config(layer, nullptr, nullptr); });
  EXPECT_NE(std::string::npos, text.find("PReLU_Fallback_Float_M1 of layer act: weight holds 3 bytes")) << text;
  EXPECT_FALSE(prelu.IsConfigured());
  layer->weight = Base64OfFloats({0.3f, 7.0f});
  layer->num_parameters = 2;
  ASSERT_TRUE(prelu.Config(layer, nullptr, nullptr));

  auto values = Inputs(2 * 41);
  auto const x = test::FloatTensor(*context, {2, 41}, TensorShape::SC, values);
  Tensors outputs;
  ASSERT_EQ(0, prelu.Forward({x}, outputs, context));
  EXPECT_EQ(Tensors{x}, outputs);
  for (float& value : values) value = value < 0.0f ? 0.3f * value : value;
  test::ExpectSameBits(values, test::Values(*x));
  ASSERT_EQ(0, prelu.Forward(outputs, outputs, context));
  EXPECT_EQ(Tensors{x}, outputs);
}

TEST(Activation, InPlaceFormsRefuseNarrowElements) {
  auto const context = test::GuardedContext();
  std::shared_ptr<Tensor> x = test::FloatTensor(*context, {}, TensorShape::C, {0.0f}), none;
  kernel::functional::Sigmoid_F32_M2(x);
  test::ExpectSameBits({0.5f}, test::Values(*x));
  std::shared_ptr<Tensor> halves = context->device_cpu->CreateF16CMainMemory(8, nullptr);
  test::RefusalOf([&] { kernel::functional::Sigmoid_F32_M2(halves); });
  test::RefusalOf([&] { kernel::functional::PReLU_F32(halves, 0.5f); });
  test::RefusalOf([&] { kernel::functional::PReLU_F32(none, 0.5f); });
}

}  // namespace
}  // namespace talvo
