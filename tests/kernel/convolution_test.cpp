#include "talvo/kernel/convolution.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <random>
#include <string>

#include "talvo/kernel/rows/instruction_sets.h"
#include "talvo/serialization/layer_info_conv.h"
#include "tests/golden/convolution_golden.h"
#include "tests/support/bits.h"
#include "tests/support/guarded_context.h"
#include "tests/support/log_capture.h"

namespace talvo {
namespace {

using runtime::TensorShape;
using Direct2d = kernel::Conv2D_Knxm_Snxm_Dnxm_Gn_Fallback_CHW_Float_M1;
using Direct1d = kernel::Conv1D_Kn_Sn_Dn_Gn_Fallback_CL_Float_M1;
using Transposed = kernel::ConvTranspose2D_Knxm_Snxm_Dnxm_Gn_Fallback_CHW_Float_M1;

struct Case {
  int groups, in, out, height, width, ky, kx, sy, sx, dy, dx;
  int l = 0, r = 0, t = 0, b = 0;
  bool bias = false;
};

struct Data {
  std::vector<float> input, weight, bias;
};

Data MakeData(Case const& c, std::uint32_t seed, bool special) {
  auto const values = [&](std::uint32_t s, int count) {
    return special ? test::SpecialFloats(s, static_cast<std::size_t>(count))
                   : test::Floats(s, static_cast<std::size_t>(count));
  };
  int const ipg = c.in / c.groups, opg = c.out / c.groups;
  return {values(seed, c.in * c.height * c.width),
          test::Floats(seed + 1, std::size_t(c.groups * ipg * opg * c.ky * c.kx)),
          c.bias ? values(seed + 2, c.groups * opg) : std::vector<float>()};
}

// The definition of the direct convolution, one dimension being a row.
std::vector<float> PlainDirect(Case const& c, Data const& d) {
  int const oh = (c.height + c.t + c.b - c.dy * (c.ky - 1) - 1) / c.sy + 1;
  int const ow = (c.width + c.l + c.r - c.dx * (c.kx - 1) - 1) / c.sx + 1;
  int const ipg = c.in / c.groups, opg = c.out / c.groups;
  auto const padded = [&](int channel, int y, int x) {
    bool const inside = y >= c.t && y < c.t + c.height && x >= c.l && x < c.l + c.width;
    return inside ? d.input[std::size_t((channel * c.height + y - c.t) * c.width + x - c.l)] : 0.0f;
  };
  std::vector<float> result(std::size_t(c.out * oh * ow), 0.0f);
  for (int o = 0; o < c.groups * opg; ++o) {
    for (int i = 0; i < oh * ow; ++i) {
      float& value = result[std::size_t(o * oh * ow + i)];
      if (c.bias) value = d.bias[std::size_t(o)];
      for (int channel = 0; channel < ipg; ++channel) {
        float s = 0.0f;
        for (int k = 0; k < c.ky * c.kx; ++k) {
          s += d.weight[std::size_t((o * ipg + channel) * c.ky * c.kx + k)] *
               padded(o / opg * ipg + channel, i / ow * c.sy + k / c.kx * c.dy, i % ow * c.sx + k % c.kx * c.dx);
        }
        value += s;
      }
    }
  }
  return result;
}

// The definition of the transposed convolution, element by element.
std::vector<float> PlainTransposed(Case const& c, Data const& d) {
  int const oh = c.sy * c.height + c.t + c.b - c.dy * (c.ky - 1), ow = c.sx * c.width + c.l + c.r - c.dx * (c.kx - 1);
  int const ipg = c.in / c.groups, opg = c.out / c.groups, taps = c.ky * c.kx;
  std::vector<float> result(std::size_t(c.out * oh * ow), 0.0f);
  for (int o = 0; o < c.groups * opg; ++o) {
    for (int i = 0; i < oh * ow; ++i) {
      float& value = result[std::size_t(o * oh * ow + i)];
      if (c.bias) value = d.bias[std::size_t(o)];
      for (int channel = o / opg * ipg; channel < (o / opg + 1) * ipg; ++channel) {
        for (int k = 0; k < taps; ++k) {
          int const y = i / ow - c.t + k / c.kx * c.dy, x = i % ow - c.l + k % c.kx * c.dx;
          if (y % c.sy != 0 || x % c.sx != 0 || y < 0 || y >= c.sy * c.height || x < 0 || x >= c.sx * c.width) continue;
          value += d.input[std::size_t((channel * c.height + y / c.sy) * c.width + x / c.sx)] *
                   d.weight[std::size_t((channel * opg + o % opg) * taps + taps - 1 - k)];
        }
      }
    }
  }
  return result;
}

template <class Info>
std::shared_ptr<Info> PlaneInfo(Case const& c, Data const& d) {
  auto info = std::make_shared<Info>();
  auto const set = [](auto& field, int value) { field = static_cast<std::remove_reference_t<decltype(field)>>(value); };
  set(info->in_channels, c.in), set(info->out_channels, c.out), set(info->groups, c.groups);
  set(info->kernel_y, c.ky), set(info->kernel_x, c.kx), set(info->stride_y, c.sy), set(info->stride_x, c.sx);
  set(info->dilation_y, c.dy), set(info->dilation_x, c.dx), set(info->padding_l, c.l), set(info->padding_r, c.r);
  set(info->padding_t, c.t), set(info->padding_b, c.b);
  info->id = "layer 7";
  info->if_bias = c.bias;
  info->weight = test::WeightText(d.weight), info->bias = test::WeightText(d.bias);
  return info;
}

std::shared_ptr<runtime::Conv1dInfo> RowInfo(Case const& c, Data const& d) {
  auto info = std::make_shared<runtime::Conv1dInfo>();
  auto const plane = PlaneInfo<runtime::Conv2dInfo>(c, d);
  info->in_channels = plane->in_channels, info->out_channels = plane->out_channels, info->groups = plane->groups;
  info->kernel_size = plane->kernel_x, info->stride = plane->stride_x, info->dilation = plane->dilation_x;
  info->padding_f = plane->padding_l, info->padding_b = plane->padding_r;
  info->if_bias = c.bias;
  info->weight = plane->weight, info->bias = plane->bias;
  return info;
}

template <class Kernel>
void ExpectPlain(std::shared_ptr<runtime::LayerInfo> const& layer, std::vector<float> const& input,
                 std::vector<unsigned int> const& dims, unsigned int layout, std::vector<float> const& want) {
  for (auto const set : kernel::rows::RunnableSets()) {
    SCOPED_TRACE(kernel::rows::NameOf(set));
    kernel::rows::ScopedInstructionSet const use(set);
    auto const context = test::GuardedContext();
    Kernel kernel;
    ASSERT_TRUE(kernel.Config(layer, nullptr, context));
    std::vector<std::shared_ptr<runtime::Tensor>> const inputs = {test::FloatTensor(*context, dims, layout, input)};
    ASSERT_EQ(0, kernel.IsValidInput(inputs));
    std::vector<std::shared_ptr<runtime::Tensor>> outputs;
    ASSERT_EQ(0, kernel.Forward(inputs, outputs, context));
    ASSERT_EQ(0, kernel.IsValidOutput(outputs));
    test::ExpectSameBits(want, test::Values(*outputs.at(0)));
    if (testing::Test::HasFailure()) return;
  }
}

std::vector<unsigned int> PlaneDims(Case const& c) { return {unsigned(c.in), unsigned(c.height), unsigned(c.width)}; }

void ExpectPlainDirect(Case const& c, Data const& d) {
  auto const layer = PlaneInfo<runtime::Conv2dInfo>(c, d);
  ExpectPlain<Direct2d>(layer, d.input, PlaneDims(c), TensorShape::CHW, PlainDirect(c, d));
}

void ExpectPlainTransposed(Case const& c, Data const& d) {
  auto const layer = PlaneInfo<runtime::ConvTranspose2dInfo>(c, d);
  ExpectPlain<Transposed>(layer, d.input, PlaneDims(c), TensorShape::CHW, PlainTransposed(c, d));
}

// Any case whose window fits; `transposed` lets paddings be negative.
Case RandomCase(std::mt19937& random, bool transposed) {
  auto const pick = [&](int low, int high) { return low + static_cast<int>(random() % unsigned(high - low + 1)); };
  for (;;) {
    int const groups = pick(0, 2) == 0 ? pick(2, 4) : 1, least = transposed ? -2 : 0;
    Case const c = {groups,         groups * pick(1, 6), groups * pick(1, 40 / groups),
                    pick(1, 13),    pick(1, 40),         pick(1, 7),
                    pick(1, 7),     pick(1, 3),          pick(1, 3),
                    pick(1, 3),     pick(1, 3),          pick(least, 3),
                    pick(least, 3), pick(least, 3),      pick(least, 3),
                    pick(0, 1) == 1};
    int const reach_y = c.dy * (c.ky - 1), reach_x = c.dx * (c.kx - 1);
    int const height = (transposed ? c.sy : 1) * c.height + c.t + c.b,
              width = (transposed ? c.sx : 1) * c.width + c.l + c.r;
    if (height > reach_y && width > reach_x) return c;
  }
}

TEST(Convolution, RandomShapesGiveTheBitsOfThePlainLoops) {
  std::mt19937 planes(20), transposed(21), rows(22);
  for (std::uint32_t round = 0; round < 120 && !HasFailure(); ++round) {
    SCOPED_TRACE(round);
    bool const special = round % 3 == 0;
    Case c = RandomCase(planes, false);
    ExpectPlainDirect(c, MakeData(c, round, special));
    c = RandomCase(transposed, true);
    ExpectPlainTransposed(c, MakeData(c, round, special));
    if (round % 2 != 0) continue;
    c = RandomCase(rows, false);
    c.height = c.ky = c.sy = c.dy = 1, c.t = c.b = 0;
    Data const d = MakeData(c, round, special);
    ExpectPlain<Direct1d>(RowInfo(c, d), d.input, {unsigned(c.in), unsigned(c.width)}, TensorShape::CL,
                          PlainDirect(c, d));
  }
}

TEST(Convolution, EveryWayThroughTheTiles) {
  struct {
    char const* why;
    Case c;
  } const cases[] = {
      {"depthwise, stride 1", {5, 5, 5, 11, 37, 3, 3, 1, 1, 1, 1, 1, 1, 1, 1, true}},
      {"depthwise, stride 2", {5, 5, 5, 12, 38, 3, 3, 2, 2, 1, 1, 0, 1, 1, 0, false}},
      {"depthwise, stride 3 and dilation", {3, 3, 6, 12, 38, 5, 3, 3, 3, 2, 2, 2, 4, 1, 0, true}},
      {"more than a strip of positions, channels that pass in chunks",
       {1, 37, 33, 12, 23, 3, 3, 1, 1, 1, 1, 1, 1, 1, 1, true}},
      {"a block of two vectors and one of one vector", {1, 3, 48, 5, 9, 2, 2, 1, 1, 1, 1, 0, 0, 0, 0, true}},
      {"1x1", {1, 20, 40, 7, 7, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, false}},
      {"out_channels no multiple of groups: the rest holds 0", {3, 7, 8, 4, 5, 3, 3, 1, 1, 1, 1, 1, 1, 1, 1, false}},
      {"more groups than input channels: the bias alone", {4, 3, 4, 3, 3, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, true}},
      {"more groups than output channels: zeros", {4, 8, 3, 3, 3, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, false}},
      {"more groups than lanes on narrow planes", {37, 37, 37, 4, 3, 3, 3, 1, 1, 1, 1, 1, 1, 1, 1, true}},
      {"groups of some channels each, one result", {19, 38, 57, 3, 3, 3, 3, 1, 1, 1, 1, 0, 0, 0, 0, false}},
      {"groups, stride and dilation", {16, 32, 32, 7, 6, 2, 3, 2, 3, 2, 1, 1, 0, 2, 0, true}},
      {"a stride wider than the input", {4, 4, 4, 3, 2, 1, 1, 9, 60, 1, 1, 0, 0, 0, 0, true}},
      {"windows in the padding alone", {1, 2, 3, 2, 2, 1, 1, 1, 1, 1, 1, 3, 2, 3, 3, true}},
  };
  for (auto const& row : cases) {
    SCOPED_TRACE(row.why);
    ExpectPlainDirect(row.c, MakeData(row.c, 5, false));
    ExpectPlainTransposed(row.c, MakeData(row.c, 6, false));
  }
}

TEST(Convolution, KeepsTheSignsOfZeroThatThePlainLoopsGive) {
  float const zeros[] = {0.0f, -0.0f};
  for (int const channels : {1, 2, 16}) {
    for (int const groups : {1, channels}) {
      SCOPED_TRACE(std::to_string(channels) + " channels, groups " + std::to_string(groups));
      Case const c = {groups, channels, 4 * channels, 3, 18, 1, 2, 1, 1, 1, 1, 0, 1, 1, 0, true};
      Data d = MakeData(c, 3, false);
      std::mt19937 random(4);
      for (auto* const values : {&d.input, &d.weight, &d.bias}) {
        for (float& value : *values) value = zeros[random() % 2];
      }
      ExpectPlainDirect(c, d);
      ExpectPlainTransposed(c, d);
    }
  }
}

template <class Kernel, class Info, class Golden>
void ExpectGolden(std::vector<Golden> const& cases) {
  for (auto const& k : cases) {
    SCOPED_TRACE(k.why);
    Case const c = {k.groups,    k.in_channels, k.out_channels, int(k.height),  int(k.width), k.kernel_y,
                    k.kernel_x,  k.stride_y,    k.stride_x,     k.dilation_y,   k.dilation_x, k.padding_l,
                    k.padding_r, k.padding_t,   k.padding_b,    !k.bias.empty()};
    ExpectPlain<Kernel>(PlaneInfo<Info>(c, {{}, k.weight, k.bias}), k.input, PlaneDims(c), TensorShape::CHW, k.output);
  }
}

TEST(Convolution, AgreesWithAnIndependentFramework) {
  ExpectGolden<Direct2d, runtime::Conv2dInfo>(test::golden::kConv2dCases);
  ExpectGolden<Transposed, runtime::ConvTranspose2dInfo>(test::golden::kConvTranspose2dCases);
  for (auto const& k : test::golden::kConv1dCases) {
    SCOPED_TRACE(k.why);
    Case c = {k.groups, k.in_channels, k.out_channels, 1, int(k.length), 1, k.kernel_size, 1, k.stride, 1, k.dilation};
    c.l = k.padding_f, c.r = k.padding_b, c.bias = !k.bias.empty();
    ExpectPlain<Direct1d>(RowInfo(c, {{}, k.weight, k.bias}), k.input, {k.in_channels, k.length}, TensorShape::CL,
                          k.output);
  }
}

TEST(Convolution, ExtentsWrapInGetOutputShapesAndAreRefusedInForward) {
  Case const c = {1, 1, 2, 2, 9, 3, 3, 1, 1, 1, 1, 0, 0, 0, 0, false};
  Data const d = MakeData(c, 1, false);
  auto const context = test::GuardedContext();
  auto const input = test::FloatTensor(*context, {1, 2, 9}, TensorShape::CHW, d.input);
  Direct2d kernel;
  ASSERT_TRUE(kernel.Config(PlaneInfo<runtime::Conv2dInfo>(c, d), nullptr, context));
  EXPECT_EQ((std::vector<unsigned int>{2, 0, 7}), kernel.GetOutputShapes({input->shape}).at(0).dims);
  std::vector<std::shared_ptr<runtime::Tensor>> outputs;
  std::string const refusal = test::RefusalOf([&] { kernel.Forward({input}, outputs, context); });
  EXPECT_NE(std::string::npos, refusal.find("of layer layer 7: an extent of 2 with borders of 0 and 0, kernel 3"));
}

TEST(Convolution, RefusesWhatDoesNotFitItsLayer) {
  Case const c = {2, 4, 4, 5, 6, 3, 3, 1, 1, 1, 1, 1, 1, 1, 1, true};
  Data const d = MakeData(c, 1, false);
  auto const context = test::GuardedContext();
  auto const tensor = [&](std::vector<unsigned int> const& dims, unsigned int layout) {
    return test::FloatTensor(*context, dims, layout, std::vector<float>(runtime::ElementCount(dims)));
  };
  auto const integers = context->device_cpu->CreateU8CHWMainMem({4, 5, 6}, nullptr);
  struct {
    std::shared_ptr<runtime::Tensor> input;
    char const* text;
  } const rows[] = {{tensor({3, 5, 6}, TensorShape::CHW), "dims [3, 5, 6]; needs FLOAT32, layout 0 and 4 channels"},
                    {tensor({4, 30}, TensorShape::CL), "needs rank 3"},
                    {integers, "data type 7; needs rank 3, 4 bytes an element"},
                    {tensor({4, 5, 6}, TensorShape::HWC), "layout 1"}};
  Direct2d kernel;
  ASSERT_TRUE(kernel.Config(PlaneInfo<runtime::Conv2dInfo>(c, d), nullptr, context));
  std::vector<std::shared_ptr<runtime::Tensor>> outputs;
  for (auto const& row : rows) {
    std::string const refusal = test::RefusalOf([&] { kernel.Forward({row.input}, outputs, context); });
    EXPECT_NE(std::string::npos, refusal.find(row.text)) << refusal;
    EXPECT_EQ(-2, kernel.IsValidInput({row.input}));
  }
  auto uneven = PlaneInfo<runtime::Conv2dInfo>(c, d);
  uneven->out_channels = 5;
  ASSERT_TRUE(kernel.Config(uneven, nullptr, context));
  auto const input = tensor({4, 5, 6}, TensorShape::CHW);
  std::string const refusal = test::RefusalOf([&] { kernel.Forward({input}, outputs, context); });
  EXPECT_NE(std::string::npos, refusal.find("the bias has 4 values, needs 5"));
}

TEST(Convolution, ConfigRefusesBadLayers) {
  Case const c = {1, 2, 3, 5, 6, 3, 3, 1, 1, 1, 1, 1, 1, 1, 1, true};
  Data const d = MakeData(c, 1, false);
  auto const context = test::GuardedContext();
  Direct2d kernel;
  for (auto const field : {&runtime::Conv2dInfo::groups, &runtime::Conv2dInfo::stride_x, &runtime::Conv2dInfo::kernel_y,
                           &runtime::Conv2dInfo::in_channels, &runtime::Conv2dInfo::dilation_y}) {
    auto const zero = PlaneInfo<runtime::Conv2dInfo>(c, d);
    (*zero).*field = 0;
    EXPECT_FALSE(kernel.Config(zero, nullptr, context));
  }
  ASSERT_TRUE(kernel.Config(PlaneInfo<runtime::Conv2dInfo>(c, d), nullptr, context));
  auto const short_bias = PlaneInfo<runtime::Conv2dInfo>(c, d);
  short_bias->bias = test::WeightText({1.0f, 2.0f});
  std::string const refusal = test::RefusalOf([&] { kernel.Config(short_bias, nullptr, context); });
  EXPECT_NE(std::string::npos, refusal.find("bias holds 8 bytes, shape [1, 3] needs 12"));
  EXPECT_FALSE(kernel.IsConfigured());
}

}  // namespace
}  // namespace talvo
