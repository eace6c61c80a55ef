#include "talvo/kernel/gemm.h"

#include <gtest/gtest.h>

#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "talvo/kernel/functional/gemm.h"
#include "talvo/kernel/rows/instruction_sets.h"
#include "talvo/kernel/sgemm.h"
#include "talvo/serialization/layer_info_conv.h"
#include "tests/golden/elementwise_golden.h"
#include "tests/support/bits.h"
#include "tests/support/guarded_context.h"
#include "tests/support/log_capture.h"

namespace talvo::test {
namespace {

using kernel::functional::fullconnection_fallback_c_f32_m1;
using kernel::functional::fullconnection_sgemm_c_f32_m1;

// out[o] = bias[o], then the products in the order of the inputs.
std::vector<float> Connect(std::vector<float> const& in, std::vector<float> const& weight,
                           std::vector<float> const* bias, std::size_t out_count) {
  std::vector<float> out(out_count);
  for (std::size_t o = 0; o < out_count; ++o) {
    out[o] = bias != nullptr ? (*bias)[o] : 0.0f;
    for (std::size_t i = 0; i < in.size(); ++i) out[o] += weight[o * in.size() + i] * in[i];
  }
  return out;
}

struct Size {
  char const* why;
  unsigned int in, out;
};
constexpr Size kSizes[] = {{"one weight", 1, 1},
                           {"fewer outputs than the narrowest vector", 37, 3},
                           {"between vector widths", 21, 5},
                           {"one short of a wide vector", 16, 15},
                           {"whole vectors", 32, 64},
                           {"the last rows reach back", 33, 17},
                           {"blocks and a ragged tail", 71, 203},
                           {"nothing to sum", 0, 20}};

TEST(FullConnection, SumsInInputOrderFromTheBias) {
  for (auto const set : kernel::rows::RunnableSets()) {
    kernel::rows::ScopedInstructionSet const use(set);
    for (Size const& c : kSizes) {
      SCOPED_TRACE(std::string(c.why) + ", " + kernel::rows::NameOf(set));
      auto const plain_in = Floats(2, c.in), plain_weight = Floats(1, c.out * c.in), some = Floats(3, c.out);
      std::vector<float> const zeros(c.out, -0.0f);
      for (auto const* const bias : {static_cast<std::vector<float> const*>(nullptr), &zeros, &some}) {
        float const* const preset = bias != nullptr ? bias->data() : nullptr;
        for (auto const& [in, weight] : {std::pair(plain_in, plain_weight),
                                         {SpecialFloats(2, c.in), plain_weight},
                                         {plain_in, SpecialFloats(1, c.out * c.in)}}) {
          std::vector<float> got(c.out, -9.0f);
          fullconnection_fallback_c_f32_m1(in.data(), c.in, c.out, weight.data(), preset, got.data());
          ExpectSameBits(Connect(in, weight, bias, c.out), got);
        }
        std::vector<float> got(c.out, std::numeric_limits<float>::quiet_NaN());
        fullconnection_sgemm_c_f32_m1(plain_in.data(), c.in, c.out, plain_weight.data(), preset, got.data());
        ExpectNearSum(Connect(plain_in, plain_weight, bias, c.out), got, c.in + 1, 1.0f);
      }
    }
  }
}

TEST(Sgemm, ScalesTheProductAndWhatStoodInTheResult) {
  std::vector<float> const a = {1, 2, 3, 4, 5, 6}, b = {1, 0, 2, 0, 1, 1, 1, 1, 1, 0, 0, 2};  // [2, 3] and [3, 4]
  std::vector<float> c = {1, 1, 1, 1, 2, 2, 2, 2};
  kernel::Sgemm(2, 3, 4, 2.0f, a.data(), b.data(), -1.0f, c.data());
  ExpectSameBits({11, 3, 7, 15, 28, 8, 24, 32}, c);
  kernel::Sgemm(2, 0, 4, 2.0f, a.data(), b.data(), 0.5f, c.data());
  ExpectSameBits({5.5f, 1.5f, 3.5f, 7.5f, 14, 4, 12, 16}, c);
  kernel::Sgemm(2, 3, 0, 2.0f, a.data(), b.data(), 0.5f, nullptr);
  EXPECT_NE(RefusalOf([&] { kernel::Sgemm(2, -3, 4, 1.0f, a.data(), b.data(), 0.0f, c.data()); }).find("k -3"),
            std::string::npos);
}

using runtime::TensorShape;

std::shared_ptr<runtime::FullConnectionInfo> Dense(unsigned short in, unsigned short out,
                                                   std::vector<float> const& weight, std::vector<float> const& bias) {
  auto const layer = std::make_shared<runtime::FullConnectionInfo>();
  layer->id = "dense";
  layer->in_features = in;
  layer->out_features = out;
  layer->if_bias = !bias.empty();
  layer->weight = WeightText(weight);
  layer->bias = WeightText(bias);
  return layer;
}

TEST(FullConnection, KernelsGiveTheGoldenValues) {
  for (auto const& c : golden::kFullConnectionCases) {
    SCOPED_TRACE(c.why);
    auto const context = GuardedContext();
    auto const layer = Dense(c.in_features, c.out_features, c.weight, c.bias);
    std::vector<std::shared_ptr<runtime::IKernel>> const kernels = {
        std::make_shared<kernel::FullConnection_Fallback_C_Float_M1>(),
        std::make_shared<kernel::FullConnection_SGEMM_C_Float_M1>()};
    for (auto const& kernel : kernels) {
      ASSERT_TRUE(kernel->Config(layer, nullptr, context));
      std::vector<std::shared_ptr<runtime::Tensor>> const inputs = {
          FloatTensor(*context, {c.in_features}, TensorShape::C, c.input)};
      std::vector<std::shared_ptr<runtime::Tensor>> outputs;
      EXPECT_EQ(kernel->IsValidInput(inputs), 0);
      ASSERT_EQ(kernel->Forward(inputs, outputs, context), 0);
      EXPECT_EQ(kernel->IsValidOutput(outputs), 0);
      ExpectSameBits(c.output, Values(*outputs.at(0)));
    }
  }
}

TEST(FullConnection, RefusesWhatWouldReadBeyondItsMemory) {
  auto const context = GuardedContext();
  auto const layer = Dense(3, 2, Floats(1, 5), Floats(2, 2));
  kernel::FullConnection_Fallback_C_Float_M1 kernel;
  std::string refusal = RefusalOf([&] { kernel.Config(layer, nullptr, context); });
  EXPECT_NE(refusal.find("dense: weight holds 20 bytes"), std::string::npos);
  EXPECT_FALSE(kernel.IsConfigured());
  layer->weight = WeightText(Floats(1, 6));
  ASSERT_TRUE(kernel.Config(layer, nullptr, context));
  auto const input = FloatTensor(*context, {2}, TensorShape::C, Floats(3, 2));
  std::vector<std::shared_ptr<runtime::Tensor>> outputs;
  refusal = RefusalOf([&] { kernel.Forward({input}, outputs, context); });
  EXPECT_NE(refusal.find("layer dense: input has dims [2], needs 3"), std::string::npos);
  layer->out_features = 0;
  EXPECT_FALSE(kernel.Config(layer, nullptr, context));
}

std::shared_ptr<runtime::Conv2dInfo> Pointwise(unsigned short in, unsigned short out, bool if_bias) {
  auto const layer = std::make_shared<runtime::Conv2dInfo>();
  layer->id = "pointwise";
  layer->in_channels = in;
  layer->out_channels = out;
  layer->kernel_x = layer->kernel_y = 1;
  layer->if_bias = if_bias;
  layer->weight = WeightText(Floats(1, std::size_t{in} * out));
  layer->bias = WeightText(Floats(2, out));
  return layer;
}

TEST(PointwiseConvolution, MultipliesChannelsByPixelsAndThenAddsTheBias) {
  struct Case {
    char const* why;
    unsigned short in, out, groups;
    unsigned int height, width;
    bool if_bias;
  };
  for (Case const& c : {Case{"one pixel", 5, 3, 1, 1, 1, true},
                        {"odd extents", 17, 9, 1, 5, 7, true},
                        {"no bias", 4, 8, 1, 3, 2, false},
                        {"groups do not split the product", 6, 4, 2, 2, 3, true},
                        {"no rows", 3, 2, 1, 0, 4, true}}) {
    SCOPED_TRACE(c.why);
    auto const context = GuardedContext();
    auto const layer = Pointwise(c.in, c.out, c.if_bias);
    layer->groups = c.groups;
    kernel::Conv2d_K1x1_S1x1_D1x1_G1_SGEMM_CHW_FLOAT_M1 kernel;
    ASSERT_TRUE(kernel.Config(layer, nullptr, context));
    std::size_t const pixels = c.height * c.width;
    auto const x = Floats(3, c.in * pixels), weight = Floats(1, std::size_t{c.in} * c.out), bias = Floats(2, c.out);
    std::vector<float> want(c.out * pixels);
    for (std::size_t i = 0; i < want.size(); ++i) {
      std::size_t const o = i / pixels, p = i % pixels;
      want[i] = c.if_bias ? bias[o] : 0.0f;
      for (std::size_t k = 0; k < c.in; ++k) want[i] += weight[o * c.in + k] * x[k * pixels + p];
    }
    std::vector<std::shared_ptr<runtime::Tensor>> const inputs = {
        FloatTensor(*context, {c.in, c.height, c.width}, TensorShape::CHW, x)};
    std::vector<std::shared_ptr<runtime::Tensor>> outputs;
    ASSERT_EQ(kernel.Forward(inputs, outputs, context), 0);
    EXPECT_EQ(outputs.at(0)->shape.dims, (std::vector<unsigned int>{c.out, c.height, c.width}));
    ExpectNearSum(want, Values(*outputs[0]), c.in + 1u, 1.0f);
  }
}

TEST(PointwiseConvolution, RefusesOtherShapesAndShortWeights) {
  auto const context = GuardedContext();
  kernel::Conv2d_K1x1_S1x1_D1x1_G1_SGEMM_CHW_FLOAT_M1 kernel;
  auto const layer = Pointwise(4, 6, true);
  for (unsigned short runtime::Conv2dInfo::*field :
       {&runtime::Conv2dInfo::kernel_x, &runtime::Conv2dInfo::kernel_y, &runtime::Conv2dInfo::stride_x,
        &runtime::Conv2dInfo::dilation_y, &runtime::Conv2dInfo::padding_l, &runtime::Conv2dInfo::padding_b}) {
    unsigned short const good = layer.get()->*field;
    layer.get()->*field = 3;
    EXPECT_FALSE(kernel.Config(layer, nullptr, context));
    layer.get()->*field = good;
  }
  layer->groups = 4;
  std::string refusal = RefusalOf([&] { kernel.Config(layer, nullptr, context); });
  EXPECT_NE(refusal.find("multiple of the groups, 4"), std::string::npos);
  layer->groups = 2;
  layer->weight = WeightText(Floats(1, 12));  // as a grouped convolution would hold them
  refusal = RefusalOf([&] { kernel.Config(layer, nullptr, context); });
  EXPECT_NE(refusal.find("weight holds 48 bytes"), std::string::npos);
  layer->weight = WeightText(Floats(1, 24));
  ASSERT_TRUE(kernel.Config(layer, nullptr, context));
  std::vector<std::shared_ptr<runtime::Tensor>> outputs;
  for (auto const& dims : {std::vector<unsigned int>{5, 2, 2}, {4, 2}}) {
    auto const x = FloatTensor(*context, dims, TensorShape::CHW, Floats(3, runtime::ElementCount(dims)));
    EXPECT_EQ(kernel.IsValidInput({x}), 0);  // neither channels nor rank are judged
    EXPECT_NE(RefusalOf([&] { kernel.Forward({x}, outputs, context); }).find("input"), std::string::npos);
  }
  auto const x = FloatTensor(*context, {4, 2, 2}, TensorShape::CHW, Floats(3, 16));
  auto const y = FloatTensor(*context, {6, 2, 3}, TensorShape::CHW, Floats(4, 36));
  RefusalOf([&] { kernel::Conv2d_K1x1_S1x1_D1x1_G1_SGEMM_CHW_FLOAT_M1_Convolution(x, y, y); });
}

}  // namespace
}  // namespace talvo::test
