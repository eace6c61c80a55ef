#include "talvo/image/color.h"

#include <algorithm>
#include <array>

#include "tests/image/image_test_support.h"

namespace talvo::test {
namespace {

using namespace kernel::functional;

class Color : public ImageTest {};

using Free = void (*)(ImagePtr const&, ImagePtr&);

constexpr unsigned int kWidths[] = {1, 2, 15, 16, 17, 63, 64, 65, 1023, 1025, 2500};

TEST_P(Color, PlanesGetTheirBytes) {
  struct Case {
    int code;  // of the class operation, 0 for a free function
    Free free;
    unsigned int pixel_bytes;
    std::size_t first, third;  // bytes of planes 0 and 2
  };
  for (Case const& c : {Case{1, nullptr, 4, 0, 2},
                        {3, nullptr, 4, 2, 0},
                        {4, nullptr, 3, 2, 0},
                        {0, F_ColorCvt_RGBA2RGB_HWC_UInt8_To_CHW_UInt8_Fallback, 4, 0, 2},
                        {0, F_ColorCvt_RGBA2RGB_HWC_UInt8_To_CHW_UInt8_Arm, 4, 0, 2},
                        {0, F_ColorCvt_BGRA2RGB_HWC_UInt8_To_CHW_UInt8_Fallback, 4, 2, 0},
                        {0, F_ColorCvt_BGRA2RGB_HWC_UInt8_To_CHW_UInt8_Arm, 4, 2, 0},
                        {0, F_ColorCvt_RGB2RGB_HWC_UInt8_To_CHW_UInt8_Arm, 3, 0, 2},
                        {0, F_ColorCvt_RGB2BGR_HWC_UInt8_To_CHW_UInt8_Arm, 3, 2, 0}}) {
    for (unsigned int w : kWidths) {
      unsigned int const h = 1 + w % 3;
      auto src = Image({h, w, c.pixel_bytes}, TensorShape::HWC), dst = Image({3, h, w}, TensorShape::CHW);
      c.free != nullptr ? c.free(src, dst) : Run(c.code, src, dst);
      auto const from = BytesOf(src);
      std::size_t const bytes[] = {c.first, 1, c.third};
      auto const at = [&](auto k, auto y, auto x) { return from[(y * w + x) * c.pixel_bytes + bytes[k]]; };
      ASSERT_EQ(Laid(3, h, w, at), BytesOf(dst)) << c.code << ": " << w << " x " << c.pixel_bytes << " bytes";
    }
  }
  auto src = Image({3, 2, 2}, TensorShape::CHW, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12});
  auto dst = Image({3, 2, 2}, TensorShape::HWC);  // the layout of dst is not looked at
  Run(4, src, dst);
  EXPECT_EQ((ByteVector{9, 10, 11, 12, 5, 6, 7, 8, 1, 2, 3, 4}), BytesOf(dst));
}

TEST_P(Color, GrayOfTheClassIsIntegerArithmetic) {
  struct Case {
    int code;
    unsigned int pixel_bytes;
    std::size_t red, blue;
  };
  for (Case const& c : {Case{7, 3, 0, 2}, {6, 3, 2, 0}, {11, 4, 0, 2}}) {
    for (unsigned int w : kWidths) {
      for (bool planar : {false, true}) {
        std::size_t const count = 2u * w;
        Dims const dims = planar ? Dims{c.pixel_bytes, 2, w} : Dims{2, w, c.pixel_bytes};
        auto src = Image(dims, planar ? TensorShape::CHW : TensorShape::HWC), dst = Image({1, 2, w}, TensorShape::CHW);
        auto* const pixels = static_cast<unsigned char*>(src->data);
        for (std::size_t k = 0; k < 3; ++k) pixels[planar ? k * count : k] = 255;  // white needs all 16 bits of a sum
        Run(c.code, src, dst);
        auto const gray = [&](auto, auto, std::size_t i) {
          auto const at = [&](std::size_t k) { return pixels[planar ? k * count + i : i * c.pixel_bytes + k]; };
          return (77 * at(c.red) + 150 * at(1) + 29 * at(c.blue)) >> 8;
        };
        ASSERT_EQ(Laid(1, 1, count, gray), BytesOf(dst)) << c.code << ": " << w << (planar ? " planar" : "");
      }
    }
  }
}

TEST_P(Color, FreeGrayWeighsBytesByPositionInDoublePrecision) {
  struct Case {
    unsigned int pixel_bytes;
    double weights[3];
    std::array<Free, 4> functions;
  };
  for (Case const& c : {Case{3,
                             {0.299, 0.587, 0.114},
                             {F_ColorCvt_BGR888_To_Gray8_Fallback, F_ColorCvt_BGR888_To_Gray8_Arm,
                              F_ColorCvt_RGB888_To_Gray8_Fallback, F_ColorCvt_RGB888_To_Gray8_Arm}},
                        {4,
                         {0.114, 0.587, 0.299},
                         {F_ColorCvt_BGRA8888_To_Gray8_Fallback, F_ColorCvt_BGRA8888_To_Gray8_Arm,
                          F_ColorCvt_RGBA8888_To_Gray8_Fallback, F_ColorCvt_RGBA8888_To_Gray8_Arm}}}) {
    auto src = Image({7, 301, c.pixel_bytes}, TensorShape::HWC), dst = Image({7, 301, 1}, TensorShape::HWC);
    auto const from = BytesOf(src);
    auto const want = Laid(1, 7, 301, [&](auto, std::size_t y, std::size_t x) {
      double sum = 0.0;
      for (std::size_t k = 0; k < 3; ++k) sum += c.weights[k] * from[(y * 301 + x) * c.pixel_bytes + k];
      return std::min(static_cast<int>(sum), 255);
    });
    for (Free function : c.functions) {
      function(src, dst);
      EXPECT_EQ(want, BytesOf(dst));
    }
  }
}

TEST_P(Color, LayoutsChangePlaces) {
  for (unsigned int type : {TensorShape::UINT8, TensorShape::FLOAT32}) {
    std::size_t const bytes = runtime::ElementSize(type);
    for (unsigned int c = 1; c <= 5; ++c) {
      for (unsigned int w : kWidths) {
        unsigned int const h = 1 + w % 2;
        std::size_t const count = std::size_t{h} * w;
        auto const data = Bytes(c, count * c * bytes);
        auto pixels = Make({h, w, c}, TensorShape::HWC, type, data.data());
        auto planes = Make({c, h, w}, TensorShape::CHW, type, nullptr);
        auto back = Make({h, w, c}, TensorShape::HWC, type, nullptr);
        Run(60, pixels, planes);
        Run(61, planes, back);
        auto const at = [&](auto k, auto i, auto b) { return data[(i * c + k) * bytes + b]; };
        ASSERT_EQ(Laid(c, count, bytes, at), BytesOf(planes)) << c << " channels of " << w;
        ASSERT_EQ(data, BytesOf(back)) << c << " channels of " << w;
      }
    }
  }
}

TEST_P(Color, BytesBecomeFloats) {
  auto src = Image({2, 5, 7}, TensorShape::HWC), dst = FloatImage({2, 5, 7}, TensorShape::HWC, Floats(1, 70));
  Run(65, src, dst);
  auto const from = BytesOf(src);
  ExpectSameBits(std::vector<float>(from.begin(), from.end()), Values(*dst));
}

INSTANTIATE_TEST_SUITE_P(Sets, Color, kEverySet);

}  // namespace
}  // namespace talvo::test
