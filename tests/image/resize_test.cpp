#include "talvo/image/resize.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "talvo/image/image_process_fallback.h"
#include "tests/image/image_test_support.h"

namespace talvo::test {
namespace {

using namespace kernel::functional;
using P = kernel::ImageProcessFallback;
using ResizeOperation = void (P::*)(ImagePtr&, ImagePtr&, std::shared_ptr<runtime::Context>);
using CropResizeOperation = void (P::*)(ImagePtr&, ImagePtr&, float, float, float, float,
                                        std::shared_ptr<runtime::Context>);
using Free = void (*)(ImagePtr const&, ImagePtr&);

class Resize : public ImageTest {
 protected:
  // A frame in the form that the class operation for `n` channels reads.
  ImagePtr Frame(unsigned int h, unsigned int w, unsigned int n, std::uint32_t seed) {
    return Image(n == 1 ? Dims{1, h, w} : Dims{h, w, n}, TensorShape::FLEXIABLE, seed);
  }

  kernel::ImageProcessFallback process_;
};

struct Extents {
  unsigned int from_h, from_w, to_h, to_w;
};

// Extremes first, then random ones.
std::vector<Extents> AllExtents() {
  std::vector<Extents> all = {{1, 1, 1, 1}, {1, 1, 5, 7},   {1, 9, 3, 4},   {9, 1, 4, 3},   {2, 2, 2, 2},
                              {7, 5, 7, 5}, {40, 3, 2, 90}, {3, 40, 90, 2}, {17, 33, 1, 1}, {2, 2, 300, 300}};
  for (std::uint32_t i = 0; i < 40; ++i) {
    all.push_back({Size(4 * i, 1, 50), Size(4 * i + 1, 1, 50), Size(4 * i + 2, 1, 60), Size(4 * i + 3, 1, 60)});
  }
  return all;
}

float Centre(std::size_t i, double scale) { return static_cast<float>((static_cast<double>(i) + 0.5) * scale - 0.5); }

// The fixed-point definition for one axis: index of the first neighbour, which may be -1, and the weights of both.
struct Tap {
  std::int64_t k;
  int w0, w1;
};

Tap TapAt(std::size_t i, std::size_t from, std::size_t to) {
  float const s = Centre(i, static_cast<double>(from) / static_cast<double>(to));
  auto k = static_cast<std::int64_t>(std::floor(s));
  float f = s - static_cast<float>(k);
  if (k < 0) {
    k = 0;
    f = 0.0f;
  }
  if (k >= static_cast<std::int64_t>(from) - 1) {
    k = static_cast<std::int64_t>(from) - 2;
    f = 1.0f;
  }
  return {k, static_cast<int>(std::lround((1.0f - f) * 2048.0f)), static_cast<int>(std::lround(f * 2048.0f))};
}

ByteVector WantBilinear(ByteVector const& from, Extents const& e, std::size_t n) {
  ByteVector want;
  for (std::size_t y = 0; y < e.to_h; ++y) {
    for (std::size_t x = 0; x < e.to_w; ++x) {
      Tap const row = TapAt(y, e.from_h, e.to_h), column = TapAt(x, e.from_w, e.to_w);
      for (std::size_t c = 0; c < n; ++c) {
        auto const at = [&](std::int64_t r, std::int64_t k) {
          auto const inside = [](std::int64_t v) { return static_cast<std::size_t>(std::max<std::int64_t>(v, 0)); };
          return int{from[(inside(r) * e.from_w + inside(k)) * n + c]};
        };
        auto const line = [&](std::int64_t r) {
          int const value = (at(r, column.k) * column.w0 + at(r, column.k + 1) * column.w1) >> 4;
          return int{static_cast<std::int16_t>(value)};
        };
        int const sum = ((line(row.k) * row.w0) >> 16) + ((line(row.k + 1) * row.w1) >> 16) + 2;
        want.push_back(static_cast<unsigned char>(sum >> 2));
      }
    }
  }
  return want;
}

TEST_F(Resize, BilinearIsFixedPoint) {
  constexpr ResizeOperation kOperations[] = {&P::Resize_Bilinear_C1, &P::Resize_Bilinear_C2, &P::Resize_Bilinear_C3,
                                             &P::Resize_Bilinear_C4};
  constexpr Free kFree[] = {F_Resize_Bilinear_HWC_U8_C1_Fallback, F_Resize_Bilinear_HWC_U8_C2_Fallback,
                            F_Resize_Bilinear_HWC_U8_C3_Fallback, F_Resize_Bilinear_HWC_U8_C4_Fallback};
  constexpr Free kTwins[] = {F_Resize_Bilinear_HWC_U8_C1_Arm_M1, F_Resize_Bilinear_HWC_U8_C2_Arm_M1,
                             F_Resize_Bilinear_HWC_U8_C3_Arm_M1, F_Resize_Bilinear_HWC_U8_C4_Arm_M1};
  for (unsigned int n = 1; n <= 4; ++n) {
    for (Extents const& e : AllExtents()) {
      auto src = Frame(e.from_h, e.from_w, n, n), dst = Frame(e.to_h, e.to_w, n, 9);
      auto const from = BytesOf(src);
      auto const want = WantBilinear(from, e, n);
      (process_.*kOperations[n - 1])(src, dst, nullptr);
      ASSERT_EQ(want, BytesOf(dst)) << n << ": " << e.from_h << " x " << e.from_w << " to " << e.to_h << " x "
                                    << e.to_w;
      auto const hwc = Image({e.from_h, e.from_w, n}, TensorShape::HWC, n);
      for (Free function : {kFree[n - 1], kTwins[n - 1]}) {
        auto free = Image({e.to_h, e.to_w, n}, TensorShape::HWC, 9);
        function(hwc, free);
        ASSERT_EQ(want, BytesOf(free)) << n;
      }
      if (e.from_h == e.to_h && e.from_w == e.to_w) {
        EXPECT_EQ(from, BytesOf(dst)) << "the same size copies";
      }
    }
  }
  auto flat = Image({3, 5, 2}, TensorShape::FLEXIABLE, ByteVector(30, 200)), out = Frame(8, 4, 2, 1);
  process_.Resize_Bilinear_C2(flat, out, nullptr);
  EXPECT_EQ(ByteVector(64, 200), BytesOf(out));
}

std::size_t RoundedIndex(std::size_t i, std::size_t from, std::size_t to) {
  float const s = Centre(i, static_cast<double>(from) / static_cast<double>(to));
  auto const extent = static_cast<std::int64_t>(from);
  auto k = static_cast<std::int64_t>(s);
  float f = s - static_cast<float>(k);
  if (k < 0) {
    k = 0;
    f = 0.0f;
  }
  if (k >= extent - 1) f = 1.0f;
  return static_cast<std::size_t>((k < extent - 1 ? k : extent - 2) + (f >= 0.5f ? 1 : 0));
}

TEST_F(Resize, NearestFormsRoundOrAddUp) {
  constexpr Free kFree[] = {F_Resize_Nearest_HWC_U8_C1_Fallback, F_Resize_Nearest_HWC_U8_C2_Fallback,
                            F_Resize_Nearest_HWC_U8_C3_Fallback, F_Resize_Nearest_HWC_U8_C4_Fallback};
  constexpr Free kTwins[] = {F_Resize_Nearest_HWC_U8_C1_Arm_M1, F_Resize_Nearest_HWC_U8_C2_Arm_M1,
                             F_Resize_Nearest_HWC_U8_C3_Arm_M1, F_Resize_Nearest_HWC_U8_C4_Arm_M1};
  for (Extents const& e : AllExtents()) {
    auto gray = Image({e.from_h, e.from_w}, TensorShape::FLEXIABLE, 3),
         small = Image({e.to_h, e.to_w}, TensorShape::FLEXIABLE);
    process_.Resize_Nearest_C1(gray, small, nullptr);
    ByteVector want;
    for (std::size_t y = 0; y < e.to_h; ++y) {
      for (std::size_t x = 0; x < e.to_w; ++x) {
        want.push_back(BytesOf(gray)[RoundedIndex(y, e.from_h, e.to_h) * e.from_w + RoundedIndex(x, e.from_w, e.to_w)]);
      }
    }
    ASSERT_EQ(want, BytesOf(small));
    for (unsigned int n = 1; n <= 4; ++n) {
      auto const src = Image({e.from_h, e.from_w, n}, TensorShape::HWC, n);
      auto const from = BytesOf(src);
      float const y_step = static_cast<float>(e.from_h) / static_cast<float>(e.to_h);
      float const x_step = static_cast<float>(e.from_w) / static_cast<float>(e.to_w);
      ByteVector free_want;
      float row = 0.0f;
      for (unsigned int y = 0; y < e.to_h; ++y, row += y_step) {
        float column = 0.0f;
        for (unsigned int x = 0; x < e.to_w; ++x, column += x_step) {
          std::size_t const r = std::min(static_cast<unsigned int>(row), e.from_h - 1);
          std::size_t const k = std::min(static_cast<unsigned int>(column), e.from_w - 1);
          for (std::size_t c = 0; c < n; ++c) free_want.push_back(from[(r * e.from_w + k) * n + c]);
        }
      }
      for (Free function : {kFree[n - 1], kTwins[n - 1]}) {
        auto dst = Image({e.to_h, e.to_w, n}, TensorShape::HWC, 9);
        function(src, dst);
        ASSERT_EQ(free_want, BytesOf(dst)) << n;
      }
    }
  }
  auto three = Image({1, 3}, TensorShape::FLEXIABLE, {10, 20, 30}), two = Image({1, 2}, TensorShape::FLEXIABLE);
  process_.Resize_Nearest_C1(three, two, nullptr);
  EXPECT_EQ((ByteVector{10, 30}), BytesOf(two));
  F_Resize_Nearest_HWC_U8_C1_Fallback(three, two);
  EXPECT_EQ((ByteVector{10, 20}), BytesOf(two));
}

// -1 where the pixel keeps its bytes.
std::int64_t CropIndex(std::size_t i, float low, float high, std::size_t from, std::size_t to) {
  auto const l = static_cast<int>(low * static_cast<float>(from));
  int const span = static_cast<int>(high * static_cast<float>(from)) - l;
  float const s = Centre(i, static_cast<double>(static_cast<float>(span + 1) / static_cast<float>(to)));
  auto const k = static_cast<int>(s);
  float f = k >= 0 ? s - static_cast<float>(k) : 0.0f;
  int const k2 = std::max(k, 0);
  if (k2 >= span) f = 0.0f;
  int const index = std::min(k2, span) + l, last = static_cast<int>(from) - 1;
  if (index < 0 || index > last) return -1;
  return index + (index < last && f >= 0.5f ? 1 : 0);
}

TEST_F(Resize, CropResizeSkipsWhatLiesOutside) {
  constexpr CropResizeOperation kOperations[] = {&P::Crop_Resize_Nearest_C1, nullptr, &P::Crop_Resize_Nearest_C3,
                                                 &P::Crop_Resize_Nearest_C4};
  struct Shares {
    float left, top, right, bottom;
  };
  for (Shares const& s :
       {Shares{0, 0, 1, 1}, {0.2f, 0.1f, 0.8f, 0.7f}, {-0.3f, -0.6f, 1.5f, 0.9f}, {0.9f, 0.7f, 0.1f, 0.2f}}) {
    for (Extents const& e : AllExtents()) {
      for (unsigned int n : {1u, 3u, 4u}) {
        auto src = Image({e.from_h, e.from_w, n}, TensorShape::FLEXIABLE, 1);
        auto dst = Image({e.to_h, e.to_w, n}, TensorShape::FLEXIABLE, 2);
        auto const from = BytesOf(src);
        auto want = BytesOf(dst);
        for (std::size_t y = 0; y < e.to_h; ++y) {
          for (std::size_t x = 0; x < e.to_w; ++x) {
            std::int64_t const row = CropIndex(y, s.top, s.bottom, e.from_h, e.to_h);
            std::int64_t const column = CropIndex(x, s.left, s.right, e.from_w, e.to_w);
            if (row < 0 || column < 0) continue;
            for (std::size_t c = 0; c < n; ++c) {
              want[(y * e.to_w + x) * n + c] = from[static_cast<std::size_t>(row * e.from_w + column) * n + c];
            }
          }
        }
        (process_.*kOperations[n - 1])(src, dst, s.left, s.top, s.right, s.bottom, nullptr);
        ASSERT_EQ(want, BytesOf(dst)) << n << ": " << e.from_h << " x " << e.from_w;
      }
    }
  }
  auto src = Image({2, 2, 2}, TensorShape::HWC), dst = Image({2, 2, 2}, TensorShape::HWC, 2);
  auto const before = BytesOf(dst);
  process_.Crop_Resize_Nearest_C2(src, dst, 0, 0, 1, 1, nullptr);
  EXPECT_EQ(before, BytesOf(dst)) << "the two-channel form is empty";
}

TEST_F(Resize, RefusesOrLeavesAlone) {
  auto hwc = Image({2, 2, 1}, TensorShape::HWC), frame = Image({2, 2, 1}, TensorShape::FLEXIABLE);
  auto none = Image({0, 2, 1}, TensorShape::FLEXIABLE), wide = Image({1, 2, 2}, TensorShape::FLEXIABLE);
  EXPECT_EQ(Report(""), RefusalOf([&] { process_.Resize_Nearest_C1(hwc, frame, nullptr); }));
  EXPECT_EQ(Report(""), RefusalOf([&] { process_.Resize_Bilinear_C3(frame, hwc, nullptr); }));
  EXPECT_EQ(Report(""), RefusalOf([&] { process_.Crop_Resize_Nearest_C4(hwc, frame, 0, 0, 1, 1, nullptr); }));
  EXPECT_EQ(Report("Resize_Nearest_C1: src of 0 x 2 pixels, needs at least one"),
            RefusalOf([&] { process_.Resize_Nearest_C1(none, frame, nullptr); }));
  EXPECT_EQ(Report("Resize_Bilinear_C3: src of dims [2, 2, 1] holds 4 bytes, needs 12"),
            RefusalOf([&] { process_.Resize_Bilinear_C3(frame, wide, nullptr); }));
  EXPECT_EQ(Report("F_Resize_Nearest_HWC_U8_C2_Fallback: i_img of dims [2, 2, 1] holds 4 bytes, needs 8"),
            RefusalOf([&] { F_Resize_Nearest_HWC_U8_C2_Fallback(frame, wide); }));
  EXPECT_EQ(Report("Crop_Resize_Nearest_C1: share inf of 2 pixels is no int"), RefusalOf([&] {
              float const infinite = std::numeric_limits<float>::infinity();
              process_.Crop_Resize_Nearest_C1(frame, wide, 0, 0, infinite, 1, nullptr);
            }));
  process_.Resize_Nearest_C1(frame, none, nullptr);
  F_Resize_Bilinear_HWC_U8_C1_Fallback(none, none);
}

}  // namespace
}  // namespace talvo::test
