#include "talvo/kernel/convolution.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <random>
#include <string>
#include <type_traits>

#include "talvo/kernel/rows/instruction_sets.h"
#include "talvo/serialization/layer_info_conv.h"
#include "tests/support/bits.h"
#include "tests/support/guarded_context.h"
#include "tests/support/log_capture.h"

namespace talvo {
namespace {

using runtime::TensorShape;
using Tensor = std::shared_ptr<runtime::Tensor>;

struct Case {
  int groups, in, out, height, width, ky, kx, sy, sx, dy, dx;
  int l = 0, r = 0, t = 0, b = 0;
  bool bias = false;
};

struct Data {
  std::vector<float> input, weight, bias;
};

// Values of four kinds in turn: any; special ones among inputs and biases, and weights of 0; one special value among
// the weights, since all together drown every sum in NaN; signed zeros alone.
Data MakeData(Case const& c, std::uint32_t seed) {
  int const ipg = c.in / c.groups, opg = c.out / c.groups;
  auto const values = [&](std::uint32_t which, int count) {
    auto const n = static_cast<std::size_t>(count);
    return seed % 4 == 1 && which != 1 ? test::SpecialFloats(seed + which, n) : test::Floats(seed + which, n);
  };
  Data d = {values(0, c.in * c.height * c.width), values(1, c.groups * ipg * opg * c.ky * c.kx),
            values(2, c.bias ? c.groups * opg : 0)};
  if (seed % 4 == 2) {
    float const special = test::SpecialFloats(1, 12)[seed / 4 % 12];
    for (std::size_t i = seed / 4 % 7; i < d.weight.size(); i += 7) d.weight[i] = special;
  }
  for (std::size_t i = 0; seed % 4 == 1 && i < d.weight.size(); i += 5) d.weight[i] = 0.0f;
  std::mt19937 random(seed);
  for (auto* const list : {&d.input, &d.weight, &d.bias}) {
    for (float& value : *list) value = seed % 4 == 3 ? std::copysign(0.0f, random() % 2 == 0 ? 1.0f : -1.0f) : value;
  }
  return d;
}

enum Form { kPlane, kTransposed, kRow, kFusedPlane, kFusedTransposed, kFusedRow };
constexpr Form kForms[] = {kPlane, kTransposed, kRow, kFusedPlane, kFusedTransposed, kFusedRow};
bool IsTransposed(Form form) { return form == kTransposed || form == kFusedTransposed; }
bool IsRow(Form form) { return form == kRow || form == kFusedRow; }

// The definitions, element by element. Position y of the border's frame is input row y, in the transposed form row
// y / sy where that divides; the direct form sums each channel by itself and reads 0 outside. The fused forms add up
// chains of fused steps over some channels each, and all read 0 outside.
template <class Number>
std::vector<Number> Plain(Form form, Case const& c, Data const& d, std::vector<Number> const& input) {
  bool const turned = IsTransposed(form), fused = form >= kFusedPlane;
  auto const extent = [turned](int size, int border, int reach, int stride) {
    return turned ? stride * size + border - reach : (size + border - reach - 1) / stride + 1;
  };
  int const oh = extent(c.height, c.t + c.b, c.dy * (c.ky - 1), c.sy);
  int const ow = extent(c.width, c.l + c.r, c.dx * (c.kx - 1), c.sx);
  int const ipg = c.in / c.groups, opg = c.out / c.groups, taps = c.ky * c.kx;
  int const chain = taps == 1 ? std::max(1, ipg) : std::max(1, 72 / taps);
  std::vector<Number> result(std::size_t(c.out * oh * ow), Number());
  for (int i = 0; i < c.groups * opg * oh * ow; ++i) {
    int const o = i / (oh * ow), row = i / ow % oh, column = i % ow;
    Number& value = result[std::size_t(i)];
    if (c.bias) value = d.bias[std::size_t(o)];
    Number sum = value;
    for (int channel = o / opg * ipg; channel < (o / opg + 1) * ipg; ++channel) {
      int const n = channel % ipg;
      if (!fused || (n > 0 && n % chain == 0)) sum = 0.0f;
      for (int k = 0; k < taps; ++k) {
        int y = row * (turned ? 1 : c.sy) - c.t + k / c.kx * c.dy,
            x = column * (turned ? 1 : c.sx) - c.l + k % c.kx * c.dx;
        bool const on_grid = !turned || (y % c.sy == 0 && x % c.sx == 0),
                   met = on_grid && (!turned || (y >= 0 && x >= 0));
        if (turned) y /= c.sy, x /= c.sx;
        bool const inside = met && y >= 0 && y < c.height && x >= 0 && x < c.width;
        Number const in = inside ? input[std::size_t((channel * c.height + y) * c.width + x)] : Number();
        int const at = turned ? (channel * opg + o % opg + 1) * taps - 1 - k : (o * ipg + channel % ipg) * taps + k;
        Number const weight = d.weight[std::size_t(at)];
        if (fused && on_grid) sum = std::fma(in, weight, sum);
        if (fused) continue;
        if (turned && inside) value += in * weight;
        if (!turned) sum += in * weight;
      }
      if (!fused && !turned) value += sum;
      if (fused && ((n + 1) % chain == 0 || n + 1 == ipg)) value = n < chain ? sum : value + sum;
    }
  }
  return result;
}

std::shared_ptr<runtime::IKernel> KernelOf(Form form) {
  if (form == kFusedPlane) return std::make_shared<kernel::Conv2D_Knxm_Snxm_Dnxm_Gn_Fused_CHW_Float_M1>();
  if (form == kFusedRow) return std::make_shared<kernel::Conv1D_Kn_Sn_Dn_Gn_Fused_CL_Float_M1>();
  if (form == kFusedTransposed) {
    return std::make_shared<kernel::ConvTranspose2D_Knxm_Snxm_Dnxm_Gn_Fused_CHW_Float_M1>();
  }
  if (form == kPlane) return std::make_shared<kernel::Conv2D_Knxm_Snxm_Dnxm_Gn_Fallback_CHW_Float_M1>();
  if (form == kRow) return std::make_shared<kernel::Conv1D_Kn_Sn_Dn_Gn_Fallback_CL_Float_M1>();
  return std::make_shared<kernel::ConvTranspose2D_Knxm_Snxm_Dnxm_Gn_Fallback_CHW_Float_M1>();
}

template <class Info>
std::shared_ptr<Info> Record(Case const& c, Data const& d) {
  auto info = std::make_shared<Info>();
  auto const set = [](auto& field, int value) { field = static_cast<std::remove_reference_t<decltype(field)>>(value); };
  set(info->in_channels, c.in), set(info->out_channels, c.out), set(info->groups, c.groups);
  if constexpr (std::is_same_v<Info, runtime::Conv1dInfo>) {
    set(info->kernel_size, c.kx), set(info->stride, c.sx), set(info->dilation, c.dx);
    set(info->padding_f, c.l), set(info->padding_b, c.r);
  } else {
    set(info->kernel_y, c.ky), set(info->kernel_x, c.kx), set(info->stride_y, c.sy), set(info->stride_x, c.sx);
    set(info->dilation_y, c.dy), set(info->dilation_x, c.dx), set(info->padding_l, c.l), set(info->padding_r, c.r);
    set(info->padding_t, c.t), set(info->padding_b, c.b);
  }
  info->id = "layer 7";
  info->if_bias = c.bias;
  info->weight = test::WeightText(d.weight), info->bias = test::WeightText(d.bias);
  return info;
}

std::shared_ptr<runtime::LayerInfo> RecordOf(Form form, Case const& c, Data const& d) {
  if (IsRow(form)) return Record<runtime::Conv1dInfo>(c, d);
  if (IsTransposed(form)) return Record<runtime::ConvTranspose2dInfo>(c, d);
  return Record<runtime::Conv2dInfo>(c, d);
}

Tensor InputOf(Form form, runtime::Context const& context, Case const& c, Data const& d) {
  std::vector<unsigned int> dims = {unsigned(c.in), unsigned(c.height), unsigned(c.width)};
  if (IsRow(form)) dims.erase(dims.begin() + 1);
  return test::FloatTensor(context, dims, IsRow(form) ? TensorShape::CL : TensorShape::CHW, d.input);
}

std::vector<float> Compute(runtime::IKernel const& kernel, Tensor const& input,
                           std::shared_ptr<runtime::Context> const& context) {
  std::vector<Tensor> outputs;
  EXPECT_EQ(0, kernel.Forward({input}, outputs, context));
  return test::Values(*outputs.at(0));
}

// Nobody may hold more than `most_floats`.
struct BoundedPool : test::GuardedPool {
  void* Malloc(unsigned long size) override {
    EXPECT_LE(HeapSize() + size, 4 * most_floats) << "scratch beside what it serves";
    return GuardedPool::Malloc(size);
  }
  unsigned long most_floats = 0;
};

// In every instruction set, with scratch of at most 4 MiB and four times what is read and written.
void ExpectResult(Form form, Case const& c, Data const& d, std::vector<float> const& want) {
  for (auto const set : kernel::rows::RunnableSets()) {
    SCOPED_TRACE(kernel::rows::NameOf(set));
    kernel::rows::ScopedInstructionSet const use(set);
    auto const pool = std::make_shared<BoundedPool>();
    pool->most_floats = (1 << 20) + 64 + 5 * (d.input.size() + d.weight.size() + d.bias.size() + want.size());
    auto const device = runtime::CreateDeviceCPU(runtime::DetectCPUDevice(), pool, nullptr, nullptr);
    auto const context = runtime::CreateContext(device, nullptr, nullptr, nullptr, nullptr, nullptr);
    auto const kernel = KernelOf(form);
    ASSERT_TRUE(kernel->Config(RecordOf(form, c, d), nullptr, context));
    test::ExpectSameBits(want, Compute(*kernel, InputOf(form, *context, c, d), context));
    if (testing::Test::HasFailure()) return;
  }
}

void ExpectPlain(Form form, Case const& c, std::uint32_t seed) {
  Data const d = MakeData(c, seed);
  ExpectResult(form, c, d, Plain(form, c, d, d.input));
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
  std::mt19937 random(20);
  for (std::uint32_t round = 0; round < 600 && !HasFailure(); ++round) {
    SCOPED_TRACE(round);
    Form const form = kForms[round / 4 % 6];
    Case c = RandomCase(random, IsTransposed(form));
    if (IsRow(form)) c.height = c.ky = c.sy = c.dy = 1, c.t = c.b = 0;
    ExpectPlain(form, c, round);
  }
}

TEST(Convolution, EveryWayThroughTheTiles) {
  struct {
    char const* why;
    Case c;
    bool transposed = true;
  } const cases[] = {
      {"depthwise, stride 1", {5, 5, 5, 11, 37, 3, 3, 1, 1, 1, 1, 1, 1, 1, 1, true}},
      {"depthwise, stride 2", {5, 5, 5, 12, 38, 3, 3, 2, 2, 1, 1, 0, 1, 1, 0, false}},
      {"depthwise, stride 3 and dilation", {3, 3, 6, 12, 38, 5, 3, 3, 3, 2, 2, 2, 4, 1, 0, true}},
      {"depthwise, no border", {5, 5, 5, 6, 18, 3, 3, 1, 1, 1, 1, 0, 0, 0, 0, true}},
      {"more than a strip of positions, channels that pass in chunks",
       {1, 37, 33, 12, 23, 3, 3, 1, 1, 1, 1, 1, 1, 1, 1, true}},
      {"a block of two vectors and one of one vector", {1, 3, 48, 5, 9, 2, 2, 1, 1, 1, 1, 0, 0, 0, 0, true}},
      {"out_channels no multiple of groups: the rest holds 0", {3, 7, 8, 4, 5, 3, 3, 1, 1, 1, 1, 1, 1, 1, 1, false}},
      {"more groups than input channels: the bias alone", {4, 3, 4, 3, 3, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, true}},
      {"more groups than output channels: zeros", {4, 8, 3, 3, 3, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, false}},
      {"more groups than lanes on narrow planes", {37, 37, 37, 4, 3, 3, 3, 1, 1, 1, 1, 1, 1, 1, 1, true}},
      {"groups of some channels each, one result", {19, 38, 57, 3, 3, 3, 3, 1, 1, 1, 1, 0, 0, 0, 0, false}},
      {"groups, stride and dilation", {16, 32, 32, 7, 6, 2, 3, 2, 3, 2, 1, 1, 0, 2, 0, true}},
      {"a stride wider than the input", {4, 4, 4, 3, 2, 1, 1, 9, 60, 1, 1, 0, 0, 0, 0, true}},
      {"several strips of a row, columns that meet nothing", {1, 2, 3, 1, 40, 1, 5, 1, 60, 1, 7, 3, 2, 0, 0, true}},
      {"a strip narrower than the stride", {1, 1, 1, 1, 3, 1, 2, 1, 1500, 1, 1, 2, 0, 0, 0, true}},
      {"a border that would dwarf its input", {1, 1, 1, 1, 1, 2, 2, 600, 600, 1, 1, 600, 600, 600, 600, true}, false},
      {"the same, each weight met by itself",
       {28, 28, 28, 1, 1, 2, 2, 600, 600, 600, 600, 600, 600, 600, 600, false},
       false},
      {"single taps over more positions than some vectors", {1, 20, 43, 11, 21, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, true}},
      {"single taps of more channels than stay at hand", {1, 150, 40, 3, 3, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, true}},
      {"few outputs of many channels", {1, 37, 15, 9, 40, 3, 3, 1, 1, 1, 1, 1, 1, 1, 1, true}},
      {"few outputs of rows in several parts, stride 2", {1, 6, 3, 61, 60, 3, 3, 2, 2, 1, 1, 1, 1, 1, 1, false}},
      {"several blocks, stride 2", {1, 21, 150, 8, 9, 4, 4, 2, 2, 1, 1, 1, 1, 1, 1, true}},
      {"several strips of a row", {1, 3, 20, 2, 270, 2, 2, 2, 2, 1, 1, 1, 1, 1, 1, true}},
      {"more phases than are taken apart", {1, 3, 2, 1, 1, 2, 2, 70, 70, 1, 1, 1, 1, 1, 1, true}},
      {"many phases, several chains", {1, 20, 2, 3, 2, 2, 2, 9, 9, 1, 1, 1, 1, 1, 1, true}},
      {"one result of many weights", {1, 1, 1, 300, 300, 300, 300, 1, 1, 1, 1, 0, 1, 1, 0, true}},
  };
  for (auto const& row : cases) {
    SCOPED_TRACE(row.why);
    for (Form const form : {kPlane, kFusedPlane}) {
      for (std::uint32_t seed : {row.transposed ? 4u : 6u, 5u}) ExpectPlain(form, row.c, seed);  // 6: infinite borders
      if (row.transposed) ExpectPlain(form == kPlane ? kTransposed : kFusedTransposed, row.c, 8);
    }
  }
  ExpectPlain(kFusedTransposed, {1, 5, 3, 9, 20, 1, 1, 1, 1, 1, 1, -1, -2, -1, 0, true}, 8);  // some of each row
}

// A layer of a net, followed by a rectifier: before that the results of an earlier layer may be added, behind it others
// may be joined as further channels. Number 0 is the input of the net.
struct Layer {
  Case c;
  bool transposed = false;
  int add = -1, join = -1;
};

// `convolve` gives the results of a layer from its weights and input.
template <class Number, class Convolve>
std::vector<Number> RunNet(std::vector<Layer> const& net, Convolve const& convolve) {
  Case const& first = net.front().c;
  auto const picture = test::Floats(1, std::size_t(first.in * first.height * first.width));
  std::vector<std::vector<Number>> results = {{picture.begin(), picture.end()}};
  for (Layer const& layer : net) {
    Case const& c = layer.c;
    Data const d = {
        {}, test::Floats(std::uint32_t(results.size()), std::size_t(c.in / c.groups * c.out * c.ky * c.kx)), {}};
    std::vector<Number> values = convolve(layer, d, results.back());
    for (std::size_t i = 0; layer.add >= 0 && i < values.size(); ++i) values[i] += results[std::size_t(layer.add)][i];
    for (Number& value : values) value = std::max(value, Number());
    if (layer.join >= 0) {
      auto const& others = results[std::size_t(layer.join)];
      values.insert(values.end(), others.begin(), others.end());
    }
    results.push_back(std::move(values));
  }
  return results.back();
}

// Of the results of a net by kernels.
double SquaredError(std::vector<Layer> const& net, bool fused, std::vector<double> const& truth) {
  auto const context = test::GuardedContext();
  auto const got = RunNet<float>(net, [&](Layer const& layer, Data const& d, std::vector<float> const& input) {
    Form const plane = fused ? kFusedPlane : kPlane, transposed = fused ? kFusedTransposed : kTransposed;
    Form const form = layer.transposed ? transposed : plane;
    auto const kernel = KernelOf(form);
    EXPECT_TRUE(kernel->Config(RecordOf(form, layer.c, d), nullptr, context));
    return Compute(*kernel, InputOf(form, *context, layer.c, {input, {}, {}}), context);
  });
  double sum = 0.0;
  for (std::size_t i = 0; i < got.size(); ++i) sum += (got[i] - truth[i]) * (got[i] - truth[i]);
  return sum;
}

TEST(Convolution, AFusedNetEndsNearerToTheTruthThanAPortableOne) {
  auto const square = [](int in, int out, int extent, int kernel, int stride = 1, int groups = 1) {
    int const border = kernel / 2;
    return Case{groups, in, out, extent, extent, kernel, kernel, stride, stride, 1, 1, border, border, border, border};
  };
  struct {
    char const* why;
    double most;  // the fused net's error, in those of the portable one
    std::vector<Layer> net;
  } const nets[] = {
      {"one layer of a few channels: a long chain instead of short ones", 2.0, {{square(8, 16, 12, 3)}}},
      {"one layer of many channels", 1.0, {{square(96, 16, 12, 3)}}},
      {"residual",
       1.0,
       {{square(3, 64, 16, 7, 2)},
        {square(64, 64, 8, 3)},
        {square(64, 64, 8, 3), false, 1},
        {square(64, 128, 8, 3, 2)},
        {square(128, 128, 4, 3)},
        {square(128, 128, 4, 3), false, 4},
        {square(128, 20, 4, 1)}}},
      {"down and up",
       1.0,
       {{square(3, 32, 16, 3)},
        {square(32, 32, 16, 3)},
        {square(32, 64, 16, 3, 2)},
        {square(64, 64, 8, 3)},
        {{1, 64, 32, 8, 8, 2, 2, 2, 2, 1, 1, 1, 0, 1, 0}, true, -1, 2},
        {square(64, 32, 16, 3)},
        {square(32, 2, 16, 1)}}},
      {"depthwise and pointwise, behind a first layer of three channels",
       1.0,
       {{square(3, 32, 24, 3, 2)},
        {square(32, 32, 12, 3, 1, 32)},
        {square(32, 64, 12, 1)},
        {square(64, 64, 12, 3, 2, 64)},
        {square(64, 128, 6, 1)},
        {square(128, 128, 6, 3, 1, 128)},
        {square(128, 256, 6, 1)},
        {square(256, 256, 6, 3, 1, 256)},
        {square(256, 20, 6, 1)}}},
  };
  for (auto const& row : nets) {
    SCOPED_TRACE(row.why);
    auto const truth = RunNet<double>(row.net, [](Layer const& layer, Data const& d, std::vector<double> const& input) {
      return Plain(layer.transposed ? kTransposed : kPlane, layer.c, d, input);
    });
    double const fused = SquaredError(row.net, true, truth), portable = SquaredError(row.net, false, truth);
    EXPECT_LE(fused, portable * row.most * row.most);
  }
}

// Worked by hand: a weight of 1, 10, 100 shows in each digit which element it met.
TEST(Convolution, MeetsTheElementsOfTheDefinition) {
  Data const row = {{1, 2, 3, 4}, {1, 10, 100}, {5}};
  Case const step = {1, 1, 1, 1, 4, 1, 3, 1, 2, 1, 1, 1, 0, 0, 0, true};
  ExpectResult(kPlane, step, row, {215, 437});
  ExpectResult(kRow, step, row, {215, 437});
  ExpectResult(kTransposed, {1, 1, 1, 1, 2, 1, 3, 1, 2, 1, 1, 2, 1, 0, 0, true}, {{1, 2}, {1, 10, 100}, {5}},
               {6, 15, 107, 25, 205});
  Data const plane = {{1, 2, 3, 4}, {1, 10, 100, 1000}, {}};
  ExpectResult(kPlane, {1, 1, 1, 2, 2, 2, 2, 1, 1, 1, 1}, plane, {4321});
  ExpectResult(kTransposed, {2, 2, 2, 1, 2, 2, 1, 1, 1, 1, 1, 0, 0, 1, 1}, plane, {1, 2, 10, 20, 300, 400, 3000, 4000});
}

struct ConvolutionForms : testing::TestWithParam<Form> {
  bool Configure(Case const& layer, Data const& data) {
    return kernel->Config(RecordOf(GetParam(), layer, data), nullptr, context);
  }
  Tensor Input(int channels) {
    Case given = c;
    given.in = channels;
    Data data = d;
    data.input.resize(std::size_t(channels * c.width), 7.0f);
    return InputOf(GetParam(), *context, given, data);
  }
  void ExpectRefusal(std::string const& text, Tensor const& input) {
    std::vector<Tensor> outputs;
    std::string const refusal = test::RefusalOf([&] { kernel->Forward({input}, outputs, context); });
    EXPECT_NE(std::string::npos, refusal.find(kernel->GetName() + text)) << refusal;
  }

  Case const c = {2, 4, 4, 1, 6, 1, 3, 1, 1, 1, 1, 1, 1, 0, 0, true};
  Data const d = MakeData(c, 4);
  std::shared_ptr<runtime::Context> const context = test::GuardedContext();
  std::shared_ptr<runtime::IKernel> const kernel = KernelOf(GetParam());
};

TEST_P(ConvolutionForms, ReadTheChannelsOfTheirGroupsAndRefuseWhatTheyCannotRead) {
  ASSERT_TRUE(Configure(c, d));
  test::ExpectSameBits(Compute(*kernel, Input(4), context), Compute(*kernel, Input(5), context));
  auto const like = [&](std::vector<unsigned int> const& dims, unsigned int type, unsigned int layout) {
    return context->device_cpu->CreateTensor({dims, type, layout, TensorShape::MainMemory, {}}, nullptr);
  };
  TensorShape const good = Input(4)->shape;
  std::string const who = " of layer layer 7: input 0 ", rank = std::to_string(good.dims.size());
  ExpectRefusal(who + "has dims [3, " + (rank == "2" ? "6]" : "1, 6]") + ", needs 4 channels", Input(3));
  ExpectRefusal(who + "is no CPU tensor", nullptr);
  ExpectRefusal(who + "has dims [24], data type 0; needs rank " + rank, like({24}, 0, good.layout));
  std::string const dims = who + "has dims " + runtime::DimsText(good.dims) + ", data type ";
  ExpectRefusal(dims + "7", like(good.dims, TensorShape::UINT8, good.layout));
  if (IsTransposed(GetParam())) {  // reads floats as they lie, whatever the shape calls them
    Tensor const other = Input(4);
    other->shape.data_type = TensorShape::INT32, other->shape.layout = TensorShape::HWC;
    test::ExpectSameBits(Compute(*kernel, Input(4), context), Compute(*kernel, other, context));
  } else {
    ExpectRefusal(dims + "2", like(good.dims, TensorShape::INT32, good.layout));
    ExpectRefusal(dims + "0, layout 1", like(good.dims, 0, TensorShape::HWC));
  }
}

TEST_P(ConvolutionForms, RefuseWhatHasNoResult) {
  Case wide = c, far = c, uneven = c;
  wide.kx = 9, wide.l = 0, far.sx = 65535, far.width = 65538, uneven.out = 5;
  ASSERT_TRUE(Configure(wide, MakeData(wide, 4)));
  EXPECT_GE(kernel->GetOutputShapes({Input(4)->shape}).at(0).dims.back(), 0xFFFFFFFFu) << "it wraps";
  ExpectRefusal(
      " of layer layer 7: an extent of 6 with borders of 0 and 1, kernel 9, stride 1, dilation 1 has no output",
      Input(4));
  ASSERT_TRUE(Configure(far, d));
  if (GetParam() == kTransposed) {
    ExpectRefusal(" of layer layer 7: an extent of 65538 with borders of 1 and 1, kernel 3, stride 65535, dilation 1",
                  InputOf(kTransposed, *context, far, MakeData(far, 4)));
  }
  ASSERT_TRUE(Configure(uneven, d));
  ExpectRefusal(" of layer layer 7: the bias has 4 values, needs 5", Input(4));
}

TEST_P(ConvolutionForms, ConfigForgetsWhatStoodBefore) {
  ASSERT_TRUE(Configure(c, d));
  Case none = c;
  none.bias = false;
  auto const with_bias = Compute(*kernel, Input(4), context);
  ASSERT_TRUE(Configure(none, d));
  EXPECT_NE(with_bias, Compute(*kernel, Input(4), context));
  for (auto const& [data, text] : {std::pair(Data{{}, d.weight, {1, 2}}, "bias holds 8 bytes, shape [2, 2] needs 16"),
                                   {Data{{}, {1}, d.bias}, "weight holds 4 bytes, shape [2, 2, 2, "}}) {
    ASSERT_TRUE(Configure(c, d));
    auto const layer = RecordOf(GetParam(), c, data);
    std::string const refusal = test::RefusalOf([&] { kernel->Config(layer, nullptr, context); });
    EXPECT_NE(std::string::npos, refusal.find(kernel->GetName() + " of layer layer 7: " + text)) << refusal;
    ExpectRefusal(": Forward before Config", Input(4));
  }
}

INSTANTIATE_TEST_SUITE_P(All, ConvolutionForms, testing::ValuesIn(kForms));

template <class Info>
void ExpectNoZero(Form form, std::initializer_list<unsigned short Info::*> fields) {
  Case const c = {1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1};
  for (auto const field : fields) {
    auto const kernel = KernelOf(form);
    auto const info = Record<Info>(c, MakeData(c, 4));
    EXPECT_EQ(0, kernel->IsValidParam(info, nullptr));
    (*info).*field = 0;
    EXPECT_EQ(-1, kernel->IsValidParam(info, nullptr));
  }
}

TEST(Convolution, ConfigTakesNoZero) {
  using P = runtime::Conv2dInfo;
  using R = runtime::Conv1dInfo;
  ExpectNoZero<P>(kPlane, {&P::in_channels, &P::out_channels, &P::kernel_x, &P::kernel_y, &P::stride_x, &P::stride_y,
                           &P::dilation_x, &P::dilation_y, &P::groups});
  ExpectNoZero<runtime::ConvTranspose2dInfo>(kTransposed, {&runtime::ConvTranspose2dInfo::groups});
  ExpectNoZero<R>(kRow, {&R::in_channels, &R::out_channels, &R::kernel_size, &R::stride, &R::dilation, &R::groups});
}

}  // namespace
}  // namespace talvo
