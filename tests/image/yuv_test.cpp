#include "talvo/image/yuv.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <tuple>

#include "tests/image/image_test_support.h"

namespace talvo::test {
namespace {

using namespace kernel::functional;

class Yuv : public ImageTest {};

struct Shape {
  unsigned int height, width;
} constexpr kFrames[] = {{2, 2}, {2, 4}, {4, 30}, {6, 32}, {2, 34}, {8, 66}, {2, 2046}, {4, 2050}, {2, 4100}};

struct Coefficients {
  std::int64_t y_gain, a_gain[3], b_gain[3], y_offset, a_offset, b_offset;
  int shift;
};

// The definition in 64 bits, where nothing overflows. Chrominance values lie `step` bytes apart.
ByteVector Want(Shape const& s, unsigned char const* y, unsigned char const* a, unsigned char const* b,
                std::size_t step, Coefficients const& m) {
  return Laid(3, s.height, s.width, [&](std::size_t k, std::size_t row, std::size_t x) {
    std::size_t const at = (row / 2 * (s.width / 2) + x / 2) * step;
    return ((y[row * s.width + x] - m.y_offset) * m.y_gain + (a[at] - m.a_offset) * m.a_gain[k] +
            (b[at] - m.b_offset) * m.b_gain[k]) >>
           m.shift;
  });
}

TEST_P(Yuv, ClassFramesWrapAround) {
  Coefficients const coefficients = {64, {0, -22, 113}, {90, -46, 0}, 0, 128, 128, 6};
  for (Shape const& s : kFrames) {
    std::size_t const pixels = std::size_t{s.height} * s.width;
    auto frame = Bytes(s.height + s.width, pixels * 3 / 2);
    TensorShape const shape({s.height, s.width, 1}, TensorShape::UINT8, TensorShape::HWC, TensorShape::MainMemory, {});
    auto const src = context_->device_cpu->CreateTensorExternal(shape, frame.data());
    auto const* const chrominance = frame.data() + pixels;
    using Case = std::tuple<int, std::size_t, std::size_t, std::size_t>;
    for (auto const& [code, u, v, step] : {Case{24, 1, 0, 2}, Case{22, 0, 1, 2}, Case{32, 0, pixels / 4, 1}}) {
      auto const dst = Image({3, s.height, s.width}, TensorShape::CHW);
      Run(code, src, dst);
      ASSERT_EQ(Want(s, frame.data(), chrominance + u, chrominance + v, step, coefficients), BytesOf(dst))
          << code << ": " << s.height << " x " << s.width;
    }
  }
}

TEST_P(Yuv, ClassIgnoresWhatItCannotConvert) {
  auto const frame = Image({4, 4, 2}, TensorShape::HWC), dst = Image({3, 4, 4}, TensorShape::CHW);
  auto const before = BytesOf(dst);
  for (Dims const& dims : {Dims{3, 4, 2}, {4, 3, 2}, {4, 0, 2}, {0, 4, 2}}) {
    frame->shape.dims = dims;
    Run(24, frame, dst);
  }
  frame->shape.dims = {4, 4, 2};
  dst->shape.layout = TensorShape::HWC;
  Run(24, nullptr, dst);
  dst->shape.layout = TensorShape::CHW;
  auto const foreign = std::make_shared<Foreign>(frame->shape);
  foreign->shape.location = TensorShape::MetalBuffer;
  Run(24, foreign, dst);
  dst->shape.location = TensorShape::MetalBuffer;
  Run(24, frame, dst);
  EXPECT_EQ(before, BytesOf(dst));
  auto const nowhere = context_->device_cpu->CreateTensorExternal(frame->shape, nullptr);
  auto const small = Image({3, 4, 3}, TensorShape::CHW), two = Image({2, 4, 4}, TensorShape::CHW);
  struct Case {
    ImagePtr src, dst;
    char const* text;
  };
  for (Case const& c : {Case{nowhere, small, "dst of dims [3, 4, 3] needs memory for 3 planes of 16 pixels"},
                        {frame, two, "dst of dims [2, 4, 4] holds 32 bytes, needs 48"},
                        {nowhere, Image({3, 4, 4, 1}, TensorShape::CHW), "src has no memory"},
                        {Image({32}, TensorShape::HWC), small, "src has rank 1, needs 2"},
                        {frame, Image({48}, TensorShape::CHW), "dst has rank 1, needs 3"}}) {
    EXPECT_EQ(Report(std::string("ConvertYUV2RGB_IYUV: ") + c.text), RefusalOf([&] { Run(32, c.src, c.dst); }));
  }
}

// Truncated, held within int, cut to its low 16 bits; NaN is 0.
std::int64_t Fixed(float value, float scale) {
  double const most = std::numeric_limits<int>::max(), held = std::min(double{value * scale}, most);
  return std::isnan(value) ? 0 : static_cast<std::int16_t>(static_cast<int>(held));
}

TEST_P(Yuv, FreeFormsUseTheMatrix) {
  YUVCvtMatrix const matrices[] = {{1.164f, 0, 1.596f, -0.391f, -0.813f, 2.018f, 0, 0.0625f, 0.5f, 0.5f},
                                   {-3.3f, 900.5f, -77.7f, 1023.9f, -1023.9f, 12.5f, 31.0f, -1.5f, 99.0f, -0.7f},
                                   {1025.1f, 2.5f, -1500.7f, 1e12f, 3e4f, NAN, 1.3f, 130.6f, -300.0f, 1e9f}};
  for (auto const& m : matrices) {
    auto const matrix = std::make_shared<YUVCvtMatrix>(m);
    Coefficients const coefficients = {Fixed(m.m0, 32),
                                       {Fixed(m.m1, 32), Fixed(m.m3, 32), Fixed(m.m5, 32)},
                                       {Fixed(m.m2, 32), Fixed(m.m4, 32), Fixed(m.m6, 32)},
                                       Fixed(m.m7, 256),
                                       Fixed(m.m8, 256),
                                       Fixed(m.m9, 256),
                                       5};
    for (Shape const& s : kFrames) {
      unsigned int const h = s.height, w = s.width;
      auto const y = Bytes(1, std::size_t{h} * w), ab = Bytes(2, std::size_t{h} * w / 2);
      auto const luminance = Image({h, w, 1}, TensorShape::HWC, y),
                 pairs = Image({h / 2, w / 2, 2}, TensorShape::HWC, ab);
      auto const half = static_cast<std::ptrdiff_t>(ab.size() / 2);
      auto const first = Image({h / 2, w / 2}, TensorShape::HWC, ByteVector(ab.begin(), ab.begin() + half));
      auto const second = Image({h / 2, w / 2}, TensorShape::HWC, ByteVector(ab.begin() + half, ab.end()));
      auto dst = Image({3, h, w}, TensorShape::CHW, 3);
      for (auto const convert :
           {F_ColorCvt_YUV_2Plane_UInt8_To_CHW_UInt8_Fallback, F_ColorCvt_YUV_2Plane_UInt8_To_CHW_UInt8_Arm}) {
        convert(luminance, pairs, matrix, dst);
        ASSERT_EQ(Want(s, y.data(), ab.data(), ab.data() + 1, 2, coefficients), BytesOf(dst)) << h << " x " << w;
      }
      for (auto const convert :
           {F_ColorCvt_YUV_3Plane_UInt8_To_CHW_UInt8_Fallback, F_ColorCvt_YUV_3Plane_UInt8_To_CHW_UInt8_Arm}) {
        convert(luminance, first, second, matrix, dst);
        ASSERT_EQ(Want(s, y.data(), ab.data(), ab.data() + half, 1, coefficients), BytesOf(dst)) << h << " x " << w;
      }
    }
  }
}

TEST_P(Yuv, FreeFormsRefuseWithoutABodyAndNarrowPlanes) {
  ImagePtr out;
  for (auto const refused : {F_ColorCvt_NV21_To_RGB_CHW_UInt8_Arm, F_ColorCvt_NV12_To_RGB_CHW_UInt8_Arm}) {
    EXPECT_EQ(Report("Not Implemented."), RefusalOf([&] { refused(out, out, nullptr, out); }));
  }
  auto const frame = Image({2, 4}, TensorShape::HWC), narrow = Image({1, 1, 2}, TensorShape::HWC);
  auto dst = Image({3, 2, 4}, TensorShape::CHW);
  auto const matrix = std::make_shared<YUVCvtMatrix>();
  EXPECT_EQ(Report("Shapes of Luminance Plane and Chrominance Plane mismatched."),
            RefusalOf([&] { F_ColorCvt_YUV_2Plane_UInt8_To_CHW_UInt8_Arm(frame, narrow, matrix, dst); }));
}

INSTANTIATE_TEST_SUITE_P(Sets, Yuv, kEverySet);

}  // namespace
}  // namespace talvo::test
