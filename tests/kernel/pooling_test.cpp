#include "talvo/kernel/pooling.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

#include "talvo/kernel/rows/instruction_sets.h"
#include "talvo/serialization/layer_info_plane.h"
#include "tests/golden/pooling_golden.h"
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

std::vector<float> PlainMaximum(Plane3 const& x, runtime::MaxPool2dInfo const& w, unsigned ho, unsigned wo) {
  Plane3 const p = Padded(x, w.padding_l, w.padding_t, w.padding_r, w.padding_b, std::numeric_limits<float>::lowest());
  return Each(x.dims[0], ho, wo, [&](unsigned c, unsigned y, unsigned q) {
    float best = std::numeric_limits<float>::lowest();
    for (unsigned ky = 0; ky < w.kernel_y; ++ky)
      for (unsigned kx = 0; kx < w.kernel_x; ++kx) {
        float const v = p.At(c, std::min(y * w.stride_y + ky * w.dilation_y, p.dims[1] - 1),
                             std::min(q * w.stride_x + kx * w.dilation_x, p.dims[2] - 1));
        best = (v <= best) ? best : v;
      }
    return best;
  });
}

std::vector<float> PlainAverage(Plane3 const& x, runtime::AvgPool2dInfo const& w, unsigned ho, unsigned wo) {
  Plane3 const p = Padded(x, w.padding_l, w.padding_t, w.padding_r, w.padding_b, 0.0f);
  return Each(x.dims[0], ho, wo, [&](unsigned c, unsigned y, unsigned q) {
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
  });
}

// Every size of window, stride and border, with NaN, infinities and signed zeros among the data, on each instruction
// set.
TEST(Pooling, EqualsThePlainLoops) {
  std::mt19937 random(7);
  auto const pick = [&](int low, int high) { return low + int(random() % unsigned(high - low + 1)); };
  for (auto const set : rows::RunnableSets()) {
    rows::ScopedInstructionSet const use(set);
    for (int round = 0; round < 150; ++round) {
      bool const common = round % 3 == 0;  // 3x3 has a way of its own
      int const ky = common ? 3 : pick(1, 5), kx = common ? 3 : pick(1, 5);
      Plane3 x{{unsigned(pick(1, 3)), unsigned(pick(1, 12)), unsigned(pick(1, 70))}, {}};
      x.values = test::SpecialFloats(unsigned(round), x.dims[0] * x.dims[1] * x.dims[2]);
      Window const window = {ky, kx, pick(1, 3), pick(1, 4), pick(0, 3), pick(0, 2), pick(0, 3), pick(0, 2)};
      auto const max = WindowInfo<runtime::MaxPool2dInfo>(window);
      max->dilation_y = ushort(pick(1, 2));
      max->dilation_x = ushort(pick(1, 3));
      max->ceil_mode = pick(0, 1) == 1;
      int const height = int(x.dims[1]) + window.padding_t + window.padding_b;
      int const width = int(x.dims[2]) + window.padding_l + window.padding_r;
      if ((ky - 1) * max->dilation_y < height && (kx - 1) * max->dilation_x < width) {
        auto const got = Pool<Pooling2D_Max_Fallback_Float_M1>(max, x);
        ExpectSameBits(PlainMaximum(x, *max, got.dims[1], got.dims[2]), got.values);
      }
      auto const average = WindowInfo<runtime::AvgPool2dInfo>(window);
      average->count_include_pad = pick(0, 1) == 1;
      if (ky <= height && kx <= width) {
        auto const got = Pool<Pooling2D_Avg_Fallback_Float_M1>(average, x);
        ExpectSameBits(PlainAverage(x, *average, got.dims[1], got.dims[2]), got.values);
      }
      ASSERT_FALSE(HasFailure()) << rows::NameOf(set) << " round " << round;
    }
  }
}

template <class Kernel, class Golden, class Info>
void ExpectGolden(Golden const& k, std::shared_ptr<Info> const& info) {
  auto const got = Pool<Kernel>(info, {{k.channels, k.height, k.width}, k.input});
  EXPECT_EQ((std::vector<unsigned int>{k.channels, k.out_height, k.out_width}), got.dims);
  ExpectSameBits(k.output, got.values);
}

TEST(Pooling, AgreesWithAnIndependentFramework) {
  for (auto const& k : test::golden::kMaxPoolCases) {
    SCOPED_TRACE(k.why);
    auto const info = WindowInfo<runtime::MaxPool2dInfo>(k);
    info->dilation_x = k.dilation_x;
    info->dilation_y = k.dilation_y;
    info->ceil_mode = k.ceil_mode;
    ExpectGolden<Pooling2D_Max_Fallback_Float_M1>(k, info);
  }
  for (auto const& k : test::golden::kAvgPoolCases) {
    SCOPED_TRACE(k.why);
    auto const info = WindowInfo<runtime::AvgPool2dInfo>(k);
    info->count_include_pad = k.count_include_pad;
    ExpectGolden<Pooling2D_Avg_Fallback_Float_M1>(k, info);
  }
  for (auto const& k : test::golden::kAdaptiveAvgPoolCases) {
    SCOPED_TRACE(k.why);
    auto info = std::make_shared<runtime::AdaptiveAvgPool2dInfo>();
    info->output_size = {static_cast<unsigned short>(k.out_height), static_cast<unsigned short>(k.out_width)};
    auto const got =
        Pool<AdaptivePooling2D_Avg_Fallback_CHW_Float_M1>(info, {{k.channels, k.height, k.width}, k.input});
    test::ExpectNearSum(k.output, got.values, 1, 16.0f);
  }
}

TEST(Pooling, SizesOfTheTwoKindsDiffer) {
  auto const extents = [](auto& kernel, auto info, unsigned extent) {
    EXPECT_TRUE(kernel.Config(info, nullptr, nullptr));
    TensorShape const shape({1, extent, extent}, 0, TensorShape::CHW, TensorShape::MainMemory, {});
    return kernel.GetOutputShapes({shape})[0].dims[2];
  };
  Pooling2D_Max_Fallback_Float_M1 max;
  Pooling2D_Avg_Fallback_Float_M1 average;
  auto max_info = WindowInfo<runtime::MaxPool2dInfo>(Window{2, 2, 2, 2});
  max_info->dilation_x = max_info->dilation_y = 1;
  EXPECT_EQ(2u, extents(max, max_info, 5));
  max_info->ceil_mode = true;
  EXPECT_EQ(3u, extents(max, max_info, 5));
  auto average_info = WindowInfo<runtime::AvgPool2dInfo>(Window{2, 2, 2, 2});
  average_info->ceil_mode = true;
  EXPECT_EQ(2u, extents(average, average_info, 5)) << "an average pool has no ceil mode in effect";
  EXPECT_EQ(0x80000000u, extents(average, average_info, 1)) << "a window larger than the input wraps";
}

TEST(AdaptivePooling, EqualsThePlainLoops) {
  struct Case {
    char const* why;
    unsigned channels, h, w;
    unsigned short ho, wo;
  };
  for (Case const& k : {Case{"overlapping regions", 3, 5, 5, 3, 3},
                        {"same size", 9, 4, 3, 4, 3},
                        {"one mean", 17, 7, 7, 1, 1},
                        {"many channels side by side, then some, then one", 81, 5, 6, 2, 1},
                        {"larger than the input", 2, 2, 3, 5, 7},
                        {"one row", 1, 1, 9, 1, 4}}) {
    SCOPED_TRACE(k.why);
    Plane3 const x{{k.channels, k.h, k.w}, test::Floats(3, k.channels * k.h * k.w)};
    auto info = std::make_shared<runtime::AdaptiveAvgPool2dInfo>();
    info->output_size = {k.ho, k.wo, 99};
    float const sy = float(k.h) / float(k.ho), sx = float(k.w) / float(k.wo);
    auto const want = Each(k.channels, k.ho, k.wo, [&](unsigned c, unsigned y, unsigned q) {
      auto const y0 = unsigned(floorf(float(y) * sy)), y1 = unsigned(ceilf(float(y + 1) * sy));
      auto const x0 = unsigned(floorf(float(q) * sx)), x1 = unsigned(ceilf(float(q + 1) * sx));
      float s = 0;
      for (unsigned r = y0; r < y1; ++r)
        for (unsigned p = x0; p < x1; ++p) s += x.At(c, r, p);
      return (s / float(y1 - y0)) / float(x1 - x0);
    });
    ExpectSameBits(want, Pool<AdaptivePooling2D_Avg_Fallback_CHW_Float_M1>(info, x).values);
  }
}

TEST(Pooling, RefusesWhatItCannotServe) {
  Plane3 const x{{1, 3, 3}, std::vector<float>(9, 1.0f)};
  Plane3 const tall{{1, 14, 1}, std::vector<float>(14, 1.0f)};  // 13 * (14 / 13.0f) is above 14 in float32
  auto const average = [&](Window const& window) {
    auto const info = WindowInfo<runtime::AvgPool2dInfo>(window);
    return RefusalOf([&] { Pool<Pooling2D_Avg_Fallback_Float_M1>(info, x); });
  };
  auto const adaptive = [](std::vector<unsigned short> const& size, Plane3 const& plane) {
    auto const info = std::make_shared<runtime::AdaptiveAvgPool2dInfo>();
    info->output_size = size;
    return RefusalOf([&] { Pool<AdaptivePooling2D_Avg_Fallback_CHW_Float_M1>(info, plane); });
  };
  for (auto const& [refusal, text] : {std::pair(average({2, 2, 0, 1}), "stride 0 x 1"),
                                      {average({4, 5, 1, 1}), "a window of 4 x 5 on a padded input of 3 x 3"},
                                      {adaptive({1}, x), "output_size has 1 entries"},
                                      {adaptive({13, 1}, tall), "14 rows to 13"}}) {
    EXPECT_NE(std::string::npos, refusal.find(text)) << refusal;
  }
}

}  // namespace
}  // namespace talvo::kernel
