#include "talvo/kernel/pooling.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

#include "talvo/kernel/functional/pooling_support.h"
#include "talvo/kernel/rows/instruction_sets.h"
#include "talvo/serialization/layer_info_plane.h"
#include "tests/support/bits.h"
#include "tests/support/guarded_context.h"
#include "tests/support/log_capture.h"

namespace talvo::kernel {
namespace {

using runtime::TensorShape;
using test::ExpectSameBits;
using test::RefusalOf;

struct Plane3 {
  std::vector<unsigned int> dims;
  std::vector<float> values;
  float At(std::size_t c, std::size_t y, std::size_t x) const { return values[(c * dims[1] + y) * dims[2] + x]; }
};

struct Window {
  int kernel_y, kernel_x, stride_y, stride_x;
  int padding_l = 0, padding_t = 0, padding_r = 0, padding_b = 0;
};

// `from` is anything with the fields of a window.
template <class Info, class From>
std::shared_ptr<Info> WindowInfo(From const& from) {
  auto info = std::make_shared<Info>();
  auto const set = [](auto& field, int value) { field = static_cast<std::remove_reference_t<decltype(field)>>(value); };
  set(info->kernel_y, from.kernel_y), set(info->kernel_x, from.kernel_x);
  set(info->stride_y, from.stride_y), set(info->stride_x, from.stride_x);
  set(info->padding_l, from.padding_l), set(info->padding_r, from.padding_r);
  set(info->padding_t, from.padding_t), set(info->padding_b, from.padding_b);
  info->ceil_mode = false;
  return info;
}

template <class Kernel, class Info>
Plane3 Pool(std::shared_ptr<Info> const& info, Plane3 const& x) {
  auto const context = test::GuardedContext();
  Kernel kernel;
  EXPECT_TRUE(kernel.Config(info, nullptr, context));
  std::vector<std::shared_ptr<runtime::Tensor>> outputs;
  EXPECT_EQ(0, kernel.Forward({test::FloatTensor(*context, x.dims, TensorShape::CHW, x.values)}, outputs, context));
  return {outputs.at(0)->shape.dims, test::Values(*outputs[0])};
}

// `element` of every channel, row and column, in order.
template <class Element>
std::vector<float> Each(unsigned channels, unsigned rows, unsigned columns, Element const& element) {
  std::vector<float> all;
  for (unsigned c = 0; c < channels; ++c)
    for (unsigned y = 0; y < rows; ++y)
      for (unsigned x = 0; x < columns; ++x) all.push_back(element(c, y, x));
  return all;
}

Plane3 Padded(Plane3 const& x, int l, int t, int r, int b, float value) {
  std::vector<unsigned> const dims = {x.dims[0], x.dims[1] + unsigned(t + b), x.dims[2] + unsigned(l + r)};
  return {dims, Each(dims[0], dims[1], dims[2], [&](unsigned c, unsigned y, unsigned q) {
            std::size_t const row = y - unsigned(t), column = q - unsigned(l);  // wraps before the first
            return row < x.dims[1] && column < x.dims[2] ? x.At(c, row, column) : value;
          })};
}

Plane3 PlainMaximum(Plane3 const& x, runtime::MaxPool2dInfo const& w) {
  Plane3 const p = Padded(x, w.padding_l, w.padding_t, w.padding_r, w.padding_b, std::numeric_limits<float>::lowest());
  auto const size = [&](unsigned extent, unsigned kernel, unsigned dilation, unsigned stride) {
    unsigned const steps = extent - dilation * (kernel - 1) - 1;
    return steps / stride + (w.ceil_mode && steps % stride != 0 ? 2 : 1);
  };
  unsigned const ho = size(p.dims[1], w.kernel_y, w.dilation_y, w.stride_y);
  unsigned const wo = size(p.dims[2], w.kernel_x, w.dilation_x, w.stride_x);
  return {{x.dims[0], ho, wo}, Each(x.dims[0], ho, wo, [&](unsigned c, unsigned y, unsigned q) {
            float best = std::numeric_limits<float>::lowest();
            for (unsigned ky = 0; ky < w.kernel_y; ++ky)
              for (unsigned kx = 0; kx < w.kernel_x; ++kx) {
                float const v = p.At(c, std::min(y * w.stride_y + ky * w.dilation_y, p.dims[1] - 1),
                                     std::min(q * w.stride_x + kx * w.dilation_x, p.dims[2] - 1));
                best = (v <= best) ? best : v;
              }
            return best;
          })};
}

Plane3 PlainAverage(Plane3 const& x, runtime::AvgPool2dInfo const& w) {
  Plane3 const p = Padded(x, w.padding_l, w.padding_t, w.padding_r, w.padding_b, 0.0f);
  unsigned const ho = (p.dims[1] - w.kernel_y) / w.stride_y + 1, wo = (p.dims[2] - w.kernel_x) / w.stride_x + 1;
  return {{x.dims[0], ho, wo}, Each(x.dims[0], ho, wo, [&](unsigned c, unsigned y, unsigned q) {
            float d = static_cast<float>(w.kernel_x * w.kernel_y), s = 0;
            for (unsigned ky = 0; ky < w.kernel_y; ++ky)
              for (unsigned kx = 0; kx < w.kernel_x; ++kx) {
                unsigned const r = y * w.stride_y + ky, k = q * w.stride_x + kx;
                s += p.At(c, r, k);
                bool const border = r < unsigned(w.padding_t) || r >= p.dims[1] - unsigned(w.padding_b) ||
                                    k < unsigned(w.padding_l) || k >= p.dims[2] - unsigned(w.padding_r);
                if (!w.count_include_pad && border) d -= 1.0f;
              }
            return s / d;
          })};
}

void ExpectSame(Plane3 const& want, Plane3 const& got) {
  ASSERT_EQ(want.dims, got.dims);
  ExpectSameBits(want.values, got.values);
}

// Every size of window, stride and border, with NaN, infinities and signed zeros among the data, on each instruction
// set.
TEST(Pooling, EqualsThePlainLoops) {
  std::mt19937 random(7);
  auto const pick = [&](int low, int high) { return low + int(random() % unsigned(high - low + 1)); };
  for (auto const set : rows::RunnableSets()) {
    rows::ScopedInstructionSet const use(set);
    for (int round = 0; round < 200; ++round) {
      bool const common = round % 3 == 0;     // 3x3 has a way of its own
      bool const bordered = round % 10 == 9;  // a border too large to be laid out
      int const ky = common ? 3 : pick(1, 5), kx = common ? 3 : pick(1, 5), border = bordered ? 70 : 3;
      bool const column = round % 7 == 6;  // a plane of one column and as many outputs across
      Plane3 x{{unsigned(pick(1, 3)), unsigned(pick(1, 12)), unsigned(pick(1, bordered ? 4 : 70))}, {}};
      if (column) x.dims = {x.dims[0], x.dims[2], 1};
      x.values = test::SpecialFloats(unsigned(round), x.dims[0] * x.dims[1] * x.dims[2]);
      int const sy = bordered ? 33 : pick(1, 3), sx = bordered ? 31 : pick(column ? 3 : 1, 4);
      int const side = column ? 1 : border, l = pick(0, side);
      Window const window = {ky, kx, sy, sx, l, pick(0, border), pick(0, side), pick(0, border)};
      auto const max = WindowInfo<runtime::MaxPool2dInfo>(window);
      max->dilation_y = ushort(pick(0, 2)), max->dilation_x = ushort(pick(0, 3)), max->ceil_mode = pick(0, 1) == 1;
      int const height = int(x.dims[1]) + window.padding_t + window.padding_b;
      int const width = int(x.dims[2]) + window.padding_l + window.padding_r;
      if ((ky - 1) * max->dilation_y < height && (kx - 1) * max->dilation_x < width) {
        ExpectSame(PlainMaximum(x, *max), Pool<Pooling2D_Max_Fallback_Float_M1>(max, x));
      }
      auto const average = WindowInfo<runtime::AvgPool2dInfo>(window);
      average->count_include_pad = pick(0, 1) == 1;
      if (ky <= height && kx <= width) {
        ExpectSame(PlainAverage(x, *average), Pool<Pooling2D_Avg_Fallback_Float_M1>(average, x));
      }
      ASSERT_FALSE(HasFailure()) << rows::NameOf(set) << " round " << round;
    }
  }
}

// Above 2^24 float32 swallows most of the subtractions that lower a divisor.
TEST(Pooling, LowersTheDivisorOfAHugeWindowTapByTap) {
  auto const info = WindowInfo<runtime::AvgPool2dInfo>(Window{4202, 4202, 2, 2, 2101, 2101, 2101, 2101});
  info->count_include_pad = false;
  float divisor = 4202.0f * 4202.0f;
  for (int tap = 1; tap < 4202 * 4202; ++tap) divisor -= 1.0f;
  ExpectSame({{1, 1, 1}, {3.0f / divisor}}, Pool<Pooling2D_Avg_Fallback_Float_M1>(info, {{1, 1, 1}, {3.0f}}));
  // 2^24 + 1 taps, all in the border: the float 2^24 lowered once too often.
  auto const outside = WindowInfo<runtime::AvgPool2dInfo>(Window{257, 65281, 2, 2, 65281, 256});
  outside->count_include_pad = false;
  ExpectSame({{1, 1, 1}, {0.0f / -1.0f}}, Pool<Pooling2D_Avg_Fallback_Float_M1>(outside, {{1, 1, 1}, {3.0f}}));
}

TEST(Pooling, TakesNoMoreMemoryThanASmallMultiple) {
  using functional::PoolingShape;
  struct Case {
    char const* why;
    PoolingShape shape;
    functional::PoolingWindow window;
  };
  for (Case const& k :
       {Case{"one column", {1, 67108864, 1, 67108864, 1}, {1, 1, 1, 1, 1, 1, 0, 0, 0, 0}},
        {"two columns of stride 2", {1, 4194304, 2, 4194304, 1}, {1, 1, 1, 2, 1, 1, 0, 0, 0, 0}},
        {"a border around nothing", {1, 1, 1, 2, 2}, {1, 1, 65535, 65535, 1, 1, 65535, 0, 65535, 0}},
        {"a plane as large as a tensor", {1, 32767, 32768, 1, 1}, {9, 9, 65535, 65535, 1, 1, 9, 9, 9, 9}}}) {
    SCOPED_TRACE(k.why);
    std::size_t const served = k.shape.height * k.shape.width + k.shape.out_height * k.shape.out_width;
    for (std::size_t const floats : {functional::max_pool_scratch_f32(k.shape, k.window),
                                     functional::average_pool_scratch_f32(k.shape, k.window)}) {
      EXPECT_GE(4 * served + 8192, floats);
      EXPECT_GE(0x3FFFFFFFu, floats);
    }
  }
  EXPECT_EQ(0u, functional::adaptive_pool_scratch_f32({1, 8193, 8192, 1, 1}));
  EXPECT_GE(17u * 900, functional::adaptive_pool_scratch_f32({17, 30, 30, 13, 13}));
  auto const repeated = WindowInfo<runtime::MaxPool2dInfo>(Window{65535, 65535, 1, 1});
  repeated->dilation_y = repeated->dilation_x = 0;
  ExpectSame({{1, 1, 2}, {5.0f, -3.0f}}, Pool<Pooling2D_Max_Fallback_Float_M1>(repeated, {{1, 1, 2}, {5.0f, -3.0f}}));
  // 9e8 taps an output, one of them inside.
  Window const border = {30000, 30000, 20000, 20000, 30000, 30000, 30000, 30000};
  auto const average = WindowInfo<runtime::AvgPool2dInfo>(border);
  average->count_include_pad = true;
  float const one = 5.0f / 9e8f;
  ExpectSame({{1, 2, 2}, {0, 0, 0, one}}, Pool<Pooling2D_Avg_Fallback_Float_M1>(average, {{1, 1, 1}, {5.0f}}));
  float const low = std::numeric_limits<float>::lowest();
  auto const maximum = WindowInfo<runtime::MaxPool2dInfo>(border);
  maximum->dilation_y = maximum->dilation_x = 1;
  ExpectSame({{1, 2, 2}, {low, low, low, 3.0f}}, Pool<Pooling2D_Max_Fallback_Float_M1>(maximum, {{1, 1, 1}, {3.0f}}));
}

TEST(Pooling, SizesOfTheTwoKindsDiffer) {
  auto const extent_of = [](auto kernel, auto info, unsigned extent) {
    EXPECT_TRUE(kernel.Config(info, nullptr, nullptr));
    TensorShape const shape({1, extent, extent}, 0, TensorShape::CHW, TensorShape::MainMemory, {});
    auto const dims = kernel.GetOutputShapes({shape})[0].dims;
    EXPECT_EQ(dims[1], dims[2]);
    return dims[2];
  };
  struct Case {
    char const* why;
    int kernel, stride, padding;
    bool ceil_mode;
    unsigned extent, maximum, average;
  };
  for (Case const& k : {Case{"down", 2, 2, 0, false, 5, 2, 2},
                        {"up, for the maximum alone", 2, 2, 0, true, 5, 3, 2},
                        {"nothing left to round", 2, 2, 0, true, 6, 3, 3},
                        {"float32 carries 2^24 + 1 steps", 1, 1, 0, false, 16777218, 16777216, 16777218},
                        {"paddings are unsigned", 1, 1, -1, false, 3, 131073, 131073},
                        {"a window larger than the input wraps", 2, 2, 0, false, 0, 2147483648u, 2147483648u}}) {
    SCOPED_TRACE(k.why);
    Window const window = {k.kernel, k.kernel, k.stride, k.stride, k.padding, k.padding, k.padding, k.padding};
    auto max = WindowInfo<runtime::MaxPool2dInfo>(window);
    max->dilation_x = max->dilation_y = 1;
    auto average = WindowInfo<runtime::AvgPool2dInfo>(window);
    max->ceil_mode = average->ceil_mode = k.ceil_mode;
    EXPECT_EQ(k.maximum, extent_of(Pooling2D_Max_Fallback_Float_M1(), max, k.extent));
    EXPECT_EQ(k.average, extent_of(Pooling2D_Avg_Fallback_Float_M1(), average, k.extent));
  }
}

// A region that float32 carries beyond its plane, as 14 rows to 13, goes on in memory; behind the tensor are zeros.
void ExpectAdaptive(Plane3 const& x, unsigned ho, unsigned wo) {
  auto info = std::make_shared<runtime::AdaptiveAvgPool2dInfo>();
  info->output_size = {ushort(ho), ushort(wo), 99};
  unsigned const h = x.dims[1], w = x.dims[2];
  float const sy = float(h) / float(ho), sx = float(w) / float(wo);
  Plane3 const want = {{x.dims[0], ho, wo}, Each(x.dims[0], ho, wo, [&](unsigned c, unsigned y, unsigned q) {
                         auto const y0 = unsigned(floorf(float(y) * sy)), y1 = unsigned(ceilf(float(y + 1) * sy));
                         auto const x0 = unsigned(floorf(float(q) * sx)), x1 = unsigned(ceilf(float(q + 1) * sx));
                         float s = 0;
                         for (unsigned r = y0; r < y1; ++r)
                           for (unsigned p = x0; p < x1; ++p) {
                             std::size_t const at = (std::size_t{c} * h + r) * w + p;
                             s += at < x.values.size() ? x.values[at] : 0.0f;
                           }
                         return (s / float(y1 - y0)) / float(x1 - x0);
                       })};
  SCOPED_TRACE(testing::Message() << testing::PrintToString(x.dims) << " to " << ho << " x " << wo);
  ExpectSame(want, Pool<AdaptivePooling2D_Avg_Fallback_CHW_Float_M1>(info, x));
}

TEST(AdaptivePooling, EqualsThePlainLoopsForEveryPairOfExtents) {
  auto const random = [](unsigned c, unsigned h, unsigned w) { return Plane3{{c, h, w}, test::Floats(3, c * h * w)}; };
  for (unsigned from = 1; from <= 64; ++from)
    for (unsigned to = 1; to <= 64; ++to) {
      ExpectAdaptive(random(1, 2, from), 1, to);
      ExpectAdaptive(random(2, from, 2), to, 1);
      ASSERT_FALSE(HasFailure());
    }
  for (auto const set : rows::RunnableSets()) {
    rows::ScopedInstructionSet const use(set);
    for (unsigned channels : {16u, 17u, 35u}) {  // side by side, and some alone
      for (auto const& [from, to] : {std::pair(14u, 13u), {5u, 3u}, {7u, 1u}, {2u, 5u}, {57u, 7u}}) {
        ExpectAdaptive(random(channels, from, from), to, to);
        ExpectAdaptive(random(channels, 3, from), 2, to);
      }
    }
    ExpectAdaptive({{17, 3, 3}, test::SpecialFloats(1, 153)}, 3, 3);
  }
  ExpectAdaptive({{2, 0, 3}, {}}, 1, 2);
}

TEST(Pooling, RefusesWhatItCannotServe) {
  Plane3 const x{{1, 3, 3}, std::vector<float>(9, 1.0f)};
  auto const named = [](auto info) {
    info->id = "p";
    return info;
  };
  auto const average = [&](Window const& window) {
    auto const info = named(WindowInfo<runtime::AvgPool2dInfo>(window));
    return RefusalOf([&] { Pool<Pooling2D_Avg_Fallback_Float_M1>(info, x); });
  };
  auto const short_size = named(std::make_shared<runtime::AdaptiveAvgPool2dInfo>());
  short_size->output_size = {1};
  for (auto const& [refusal, text] :
       {std::pair(average({2, 2, 0, 1}), "Pooling2D_Avg_Fallback_Float_M1 of layer p: stride 0 x 1"),
        {average({4, 5, 1, 1}),
         "Pooling2D_Avg_Fallback_Float_M1 of layer p: a window of 4 x 5 on a padded input of 3 x 3"},
        {RefusalOf([&] { Pool<AdaptivePooling2D_Avg_Fallback_CHW_Float_M1>(short_size, x); }),
         "AdaptivePooling2D_Avg_Fallback_CHW_Float_M1 of layer p: output_size has 1 entries"}}) {
    EXPECT_NE(std::string::npos, refusal.find(text)) << refusal;
  }
}

}  // namespace
}  // namespace talvo::kernel
