#include "talvo/image/resize.h"

#include <algorithm>
#include <cmath>

#include "tests/image/image_test_support.h"

namespace talvo::test {
namespace {

using namespace kernel::functional;
using Free = void (*)(ImagePtr const&, ImagePtr&);

#define TALVO_C1_TO_C4(begin, end) begin##1##end, begin##2##end, begin##3##end, begin##4##end

class Resize : public ImageTest {};

struct Extents {
  unsigned int from_h, from_w, to_h, to_w;
};

// Extremes first, then random ones.
std::vector<Extents> AllExtents() {
  std::vector<Extents> all = {{1, 1, 1, 1},   {1, 1, 5, 7},   {1, 9, 3, 4},   {9, 1, 4, 3}, {7, 5, 7, 5},
                              {40, 3, 2, 90}, {3, 40, 90, 2}, {17, 33, 1, 1}, {1, 3, 1, 2}};
  all.push_back({1, 2, 1, 4096});  // every bilinear weight lies half way between two integers
  all.push_back({1, 2, 1, 8704});  // the steps of the free nearest add up to more than the width
  for (std::uint32_t i = 0; i < 30; ++i) {
    all.push_back({Size(4 * i, 1, 50), Size(4 * i + 1, 1, 50), Size(4 * i + 2, 1, 60), Size(4 * i + 3, 1, 60)});
  }
  return all;
}

// The centre-aligned position of output pixel i.
float Centre(std::size_t i, double scale) { return static_cast<float>((static_cast<double>(i) + 0.5) * scale - 0.5); }
float Centre(std::size_t i, std::size_t from, std::size_t to) {
  return Centre(i, static_cast<double>(from) / static_cast<double>(to));
}

ByteVector WantBilinear(ByteVector const& from, Extents const& e, std::size_t n) {
  return Laid(e.to_h, e.to_w, n, [&](std::size_t y, std::size_t x, std::size_t c) {
    Tap const row = TapAt(y, e.from_h, static_cast<double>(e.from_h) / e.to_h),
              column = TapAt(x, e.from_w, static_cast<double>(e.from_w) / e.to_w);
    auto const line = [&](std::size_t r) {
      int const a = from[(r * e.from_w + column.first) * n + c], b = from[(r * e.from_w + column.second) * n + c];
      return int{static_cast<std::int16_t>((a * column.w0 + b * column.w1) >> 4)};
    };
    return (((line(row.first) * row.w0) >> 16) + ((line(row.second) * row.w1) >> 16) + 2) >> 2;
  });
}

TEST_P(Resize, BilinearIsFixedPoint) {
  constexpr Free kFree[] = {TALVO_C1_TO_C4(F_Resize_Bilinear_HWC_U8_C, _Fallback)};
  constexpr Free kTwins[] = {TALVO_C1_TO_C4(F_Resize_Bilinear_HWC_U8_C, _Arm_M1)};
  for (unsigned int n = 1; n <= 4; ++n) {
    for (Extents const& e : AllExtents()) {
      auto const frame = [n](unsigned int h, unsigned int w) { return n == 1 ? Dims{1, h, w} : Dims{h, w, n}; };
      auto src = Image(frame(e.from_h, e.from_w), TensorShape::FLEXIABLE, n);
      auto dst = Image(frame(e.to_h, e.to_w), TensorShape::FLEXIABLE, 9);
      auto const from = BytesOf(src), want = WantBilinear(from, e, n);
      Run(static_cast<int>(80 + n), src, dst);
      ASSERT_EQ(want, BytesOf(dst)) << n << ": " << e.from_h << " x " << e.from_w << " to " << e.to_h << " x "
                                    << e.to_w;
      src->shape.dims = {e.from_h, e.from_w, n};
      for (Free function : {kFree[n - 1], kTwins[n - 1]}) {
        auto free = Image({e.to_h, e.to_w, n}, TensorShape::HWC, 9);
        function(src, free);
        ASSERT_EQ(want, BytesOf(free)) << n;
      }
      if (e.from_h == e.to_h && e.from_w == e.to_w) {
        EXPECT_EQ(from, want) << "the same size copies";
      }
    }
  }
}

TEST_P(Resize, NearestFormsRoundOrAddUp) {
  constexpr Free kFree[] = {TALVO_C1_TO_C4(F_Resize_Nearest_HWC_U8_C, _Fallback)};
  constexpr Free kTwins[] = {TALVO_C1_TO_C4(F_Resize_Nearest_HWC_U8_C, _Arm_M1)};
  auto const rounded = [](std::size_t from, std::size_t to) {
    std::vector<std::size_t> indices;
    for (std::size_t i = 0; i < to; ++i)
      indices.push_back(std::min(static_cast<std::size_t>(double{Centre(i, from, to)} + 0.5), from - 1));
    return indices;
  };
  auto const summed = [](std::size_t from, std::size_t to) {
    std::vector<std::size_t> indices;
    float position = 0.0f;
    for (std::size_t i = 0; i < to; ++i, position += static_cast<float>(from) / static_cast<float>(to))
      indices.push_back(std::min(static_cast<std::size_t>(position), from - 1));
    return indices;
  };
  auto const expect = [](Extents const& e, unsigned int n, ImagePtr const& src, ImagePtr const& dst, auto table) {
    auto const from = BytesOf(src);
    auto const rows = table(e.from_h, e.to_h), columns = table(e.from_w, e.to_w);
    auto const at = [&](auto y, auto x, auto c) { return from[(rows[y] * e.from_w + columns[x]) * n + c]; };
    ASSERT_EQ(Laid(e.to_h, e.to_w, n, at), BytesOf(dst))
        << n << ": " << e.from_h << " x " << e.from_w << " to " << e.to_h << " x " << e.to_w;
  };
  for (Extents const& e : AllExtents()) {
    auto gray = Image({e.from_h, e.from_w}, TensorShape::FLEXIABLE, 3),
         small = Image({e.to_h, e.to_w}, TensorShape::FLEXIABLE);
    Run(77, gray, small);
    expect(e, 1, gray, small, rounded);
    for (unsigned int n = 1; n <= 4; ++n) {
      auto const src = Image({e.from_h, e.from_w, n}, TensorShape::HWC, n);
      for (Free function : {kFree[n - 1], kTwins[n - 1]}) {
        auto dst = Image({e.to_h, e.to_w, n}, TensorShape::HWC, 9);
        function(src, dst);
        expect(e, n, src, dst, summed);
      }
    }
  }
}

// The pixel that a crop's output pixel takes; -1 where it keeps its bytes.
std::int64_t CropIndex(std::size_t i, float low, float high, std::size_t from, std::size_t to) {
  auto const l = static_cast<int>(low * static_cast<float>(from));
  int const span = static_cast<int>(high * static_cast<float>(from)) - l, last = static_cast<int>(from) - 1;
  double const s = Centre(i, static_cast<double>(static_cast<float>(span + 1) / static_cast<float>(to)));
  auto const held = [&](double position) {
    return std::min(std::max(static_cast<int>(std::floor(position)), 0), span) + l;
  };
  bool const inside = held(s) >= 0 && held(s) <= last;
  return inside ? std::min(held(s + 0.5), last) : -1;
}

TEST_P(Resize, CropResizeSkipsWhatLiesOutside) {
  struct Shares {
    float left, top, right, bottom;
  } constexpr kShares[] = {
      {0, 0, 1, 1}, {0.2f, 0.1f, 0.8f, 0.7f}, {-0.3f, -0.6f, 1.5f, 0.9f}, {0.9f, 0.7f, 0.1f, 0.2f}};
  for (Shares const& s : kShares) {
    for (Extents const& e : AllExtents()) {
      for (unsigned int n : {1u, 3u, 4u}) {
        auto src = Image({e.from_h, e.from_w, n}, TensorShape::FLEXIABLE, 1);
        auto dst = Image({e.to_h, e.to_w, n}, TensorShape::FLEXIABLE, 2);
        auto const from = BytesOf(src);
        auto const before = BytesOf(dst);
        auto const want = Laid(e.to_h, e.to_w, n, [&](std::size_t y, std::size_t x, std::size_t c) {
          std::int64_t const row = CropIndex(y, s.top, s.bottom, e.from_h, e.to_h);
          std::int64_t const column = CropIndex(x, s.left, s.right, e.from_w, e.to_w);
          if (row < 0 || column < 0) return before[(y * e.to_w + x) * n + c];
          return from[static_cast<std::size_t>(row * e.from_w + column) * n + c];
        });
        process_.ConvertPixel(src, dst, s.left, s.top, s.right, s.bottom, static_cast<int>(84 + n), nullptr);
        ASSERT_EQ(want, BytesOf(dst)) << n << ": " << e.from_h << " x " << e.from_w;
      }
    }
  }
  auto src = Image({2, 2, 1}, TensorShape::FLEXIABLE), dst = src;
  EXPECT_EQ(Report("Crop_Resize_Nearest_C1: share inf of 2 pixels is no int"),
            RefusalOf([&] { process_.ConvertPixel(src, dst, 0, 0, HUGE_VALF, 1, 85, nullptr); }));
}

INSTANTIATE_TEST_SUITE_P(Sets, Resize, kEverySet);

}  // namespace
}  // namespace talvo::test
