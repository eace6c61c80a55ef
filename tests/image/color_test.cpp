#include "talvo/image/color.h"

#include <algorithm>

#include "talvo/image/image_process_fallback.h"
#include "tests/image/image_test_support.h"

namespace talvo::test {
namespace {

using namespace kernel::functional;

class Color : public ImageTest {
 protected:
  kernel::ImageProcessFallback process_;
};

using Free = void (*)(ImagePtr const&, ImagePtr&);
using Operation = void (kernel::ImageProcessFallback::*)(ImagePtr&, ImagePtr&, std::shared_ptr<runtime::Context>);

constexpr unsigned int kWidths[] = {1, 2, 15, 16, 17, 63, 64, 65, 1023, 1025, 2500};

TEST_F(Color, PlanesGetTheirBytes) {
  struct Case {
    char const* why;
    Operation operation;
    Free free;
    unsigned int pixel_bytes;
    std::size_t first, third;  // bytes of planes 0 and 2
  };
  using P = kernel::ImageProcessFallback;
  for (Case const& c : {Case{"RGBA", &P::ConvertRGBAtoRGB, nullptr, 4, 0, 2},
                        {"RGBA reversed", &P::ConvertRGBAtoBGR, nullptr, 4, 2, 0},
                        {"RGB reversed", &P::ConvertRGBtoBGR, nullptr, 3, 2, 0},
                        {"free RGBA", nullptr, F_ColorCvt_RGBA2RGB_HWC_UInt8_To_CHW_UInt8_Fallback, 4, 0, 2},
                        {"its twin", nullptr, F_ColorCvt_RGBA2RGB_HWC_UInt8_To_CHW_UInt8_Arm, 4, 0, 2},
                        {"free BGRA", nullptr, F_ColorCvt_BGRA2RGB_HWC_UInt8_To_CHW_UInt8_Fallback, 4, 2, 0},
                        {"its twin", nullptr, F_ColorCvt_BGRA2RGB_HWC_UInt8_To_CHW_UInt8_Arm, 4, 2, 0},
                        {"free RGB", nullptr, F_ColorCvt_RGB2RGB_HWC_UInt8_To_CHW_UInt8_Arm, 3, 0, 2},
                        {"free RGB reversed", nullptr, F_ColorCvt_RGB2BGR_HWC_UInt8_To_CHW_UInt8_Arm, 3, 2, 0}}) {
    SCOPED_TRACE(c.why);
    for (unsigned int w : kWidths) {
      unsigned int const h = 1 + w % 3;
      auto src = Image({h, w, c.pixel_bytes}, TensorShape::HWC), dst = Image({3, h, w}, TensorShape::CHW);
      if (c.free != nullptr) {
        c.free(src, dst);
      } else {
        (process_.*c.operation)(src, dst, nullptr);
      }
      auto const from = BytesOf(src);
      ByteVector want;
      for (std::size_t byte : {c.first, std::size_t{1}, c.third}) {
        for (std::size_t i = 0; i < std::size_t{h} * w; ++i) want.push_back(from[i * c.pixel_bytes + byte]);
      }
      ASSERT_EQ(want, BytesOf(dst)) << w;
    }
  }
}

TEST_F(Color, PlanesOfAPlanarSourceChangePlaces) {
  auto src = Image({3, 2, 2}, TensorShape::CHW, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12});
  auto dst = Image({3, 2, 2}, TensorShape::HWC);  // the layout of dst is not looked at
  process_.ConvertRGBtoBGR(src, dst, nullptr);
  EXPECT_EQ((ByteVector{9, 10, 11, 12, 5, 6, 7, 8, 1, 2, 3, 4}), BytesOf(dst));
}

TEST_F(Color, GrayOfTheClassIsIntegerArithmetic) {
  struct Case {
    char const* why;
    Operation operation;
    unsigned int pixel_bytes;
    std::size_t red, blue;
  };
  using P = kernel::ImageProcessFallback;
  for (Case const& c : {Case{"RGB", &P::ConvertRGB2Gray, 3, 0, 2},
                        {"BGR", &P::ConvertBGR2Gray, 3, 2, 0},
                        {"RGBA", &P::ConvertRGBA2Gray, 4, 0, 2}}) {
    SCOPED_TRACE(c.why);
    for (unsigned int w : kWidths) {
      for (bool planar : {false, true}) {
        std::size_t const count = 2u * w;
        Dims const dims = planar ? Dims{c.pixel_bytes, 2, w} : Dims{2, w, c.pixel_bytes};
        auto src = Image(dims, planar ? TensorShape::CHW : TensorShape::HWC), dst = Image({1, 2, w}, TensorShape::CHW);
        (process_.*c.operation)(src, dst, nullptr);
        auto const from = BytesOf(src);
        auto const at = [&](std::size_t i, std::size_t k) {
          return from[planar ? k * count + i : i * c.pixel_bytes + k];
        };
        ByteVector want;
        for (std::size_t i = 0; i < count; ++i) {
          int const gray = (77 * at(i, c.red) + 150 * at(i, 1) + 29 * at(i, c.blue)) >> 8;
          want.push_back(static_cast<unsigned char>(gray));
        }
        ASSERT_EQ(want, BytesOf(dst)) << w << (planar ? " planar" : "");
      }
    }
  }
  auto white = Image({1, 1, 3}, TensorShape::HWC, {255, 255, 255}), gray = Image({1, 1, 1}, TensorShape::CHW);
  process_.ConvertRGB2Gray(white, gray, nullptr);
  EXPECT_EQ(ByteVector{255}, BytesOf(gray));
}

TEST_F(Color, FreeGrayWeighsBytesByPositionInDoublePrecision) {
  struct Case {
    Free function;
    unsigned int pixel_bytes;
    double weights[3];
  };
  constexpr double kFirst = 0.299, kSecond = 0.587, kThird = 0.114;
  for (Case const& c : {Case{F_ColorCvt_BGR888_To_Gray8_Fallback, 3, {kFirst, kSecond, kThird}},
                        {F_ColorCvt_BGR888_To_Gray8_Arm, 3, {kFirst, kSecond, kThird}},
                        {F_ColorCvt_RGB888_To_Gray8_Fallback, 3, {kFirst, kSecond, kThird}},
                        {F_ColorCvt_RGB888_To_Gray8_Arm, 3, {kFirst, kSecond, kThird}},
                        {F_ColorCvt_BGRA8888_To_Gray8_Fallback, 4, {kThird, kSecond, kFirst}},
                        {F_ColorCvt_BGRA8888_To_Gray8_Arm, 4, {kThird, kSecond, kFirst}},
                        {F_ColorCvt_RGBA8888_To_Gray8_Fallback, 4, {kThird, kSecond, kFirst}},
                        {F_ColorCvt_RGBA8888_To_Gray8_Arm, 4, {kThird, kSecond, kFirst}}}) {
    auto src = Image({7, 301, c.pixel_bytes}, TensorShape::HWC), dst = Image({7, 301, 1}, TensorShape::HWC);
    c.function(src, dst);
    auto const from = BytesOf(src);
    ByteVector want;
    for (std::size_t i = 0; i < from.size(); i += c.pixel_bytes) {
      double sum = 0.0;
      for (std::size_t k = 0; k < 3; ++k) sum += c.weights[k] * from[i + k];
      want.push_back(static_cast<unsigned char>(std::min(static_cast<int>(sum), 255)));
    }
    EXPECT_EQ(want, BytesOf(dst));
  }
  auto three = Image({1, 1, 3}, TensorShape::HWC, {255, 0, 0}),
       four = Image({1, 1, 4}, TensorShape::HWC, {255, 0, 0, 0});
  auto gray = Image({1, 1, 1}, TensorShape::HWC);
  F_ColorCvt_BGR888_To_Gray8_Fallback(three, gray);
  EXPECT_EQ(ByteVector{76}, BytesOf(gray));
  F_ColorCvt_RGBA8888_To_Gray8_Fallback(four, gray);
  EXPECT_EQ(ByteVector{29}, BytesOf(gray));
}

TEST_F(Color, LayoutsChangePlaces) {
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
        process_.HWC2CHW(pixels, planes, nullptr);
        process_.CHW2HWC(planes, back, nullptr);
        ByteVector want;
        for (std::size_t k = 0; k < c; ++k) {
          for (std::size_t i = 0; i < count; ++i) {
            for (std::size_t b = 0; b < bytes; ++b) want.push_back(data[(i * c + k) * bytes + b]);
          }
        }
        ASSERT_EQ(want, BytesOf(planes)) << c << " channels of " << w;
        ASSERT_EQ(data, BytesOf(back)) << c << " channels of " << w;
      }
    }
  }
}

TEST_F(Color, BytesBecomeFloats) {
  auto src = Image({2, 5, 7}, TensorShape::HWC), dst = FloatImage({2, 5, 7}, TensorShape::HWC, Floats(1, 70));
  process_.Convert8U_To_32F(src, dst, nullptr);
  auto const from = BytesOf(src);
  ExpectSameBits(std::vector<float>(from.begin(), from.end()), Values(*dst));
}

TEST_F(Color, ClassRefusesOrIgnores) {
  auto hwc = Image({2, 2, 3}, TensorShape::HWC), chw = Image({3, 2, 2}, TensorShape::CHW);
  auto blocks = Image({1, 2, 2, 4}, TensorShape::C4HW4), gray = Image({1, 2, 2}, TensorShape::CHW);
  auto const before = BytesOf(gray);
  process_.ConvertRGB2Gray(blocks, gray, nullptr);
  EXPECT_EQ(before, BytesOf(gray)) << "another layout of src does nothing";
  EXPECT_EQ(Report(""), RefusalOf([&] { process_.ConvertRGB2Gray(hwc, hwc, nullptr); }));
  EXPECT_EQ(Report(""), RefusalOf([&] { process_.ConvertRGBAtoRGB(hwc, hwc, nullptr); }));
  EXPECT_EQ(Report(""), RefusalOf([&] { process_.CHW2HWC(chw, chw, nullptr); }));
  EXPECT_EQ(Report(""), RefusalOf([&] { process_.HWC2CHW(chw, hwc, nullptr); }));
  auto shorts = Make({3, 2, 2}, TensorShape::CHW, TensorShape::INT16, nullptr);
  EXPECT_EQ(Report("Not Implemented."), RefusalOf([&] { process_.CHW2HWC(shorts, hwc, nullptr); }));
  EXPECT_EQ(Report(""), RefusalOf([&] { process_.Convert8U_To_32F(shorts, chw, nullptr); }));
  EXPECT_EQ(Report("Convert8U_To_32F: dst of dims [3, 2, 2] holds 12 bytes, needs 48"),
            RefusalOf([&] { process_.Convert8U_To_32F(chw, chw, nullptr); }));
  EXPECT_EQ(Report("ConvertRGBAtoRGB: src of dims [2, 2, 3] holds 12 bytes, needs 16"),
            RefusalOf([&] { process_.ConvertRGBAtoRGB(hwc, chw, nullptr); }));
  EXPECT_EQ(Report("ConvertRGBtoBGR: dst of dims [1, 2, 2] needs memory for 3 planes of 4 pixels"),
            RefusalOf([&] { process_.ConvertRGBtoBGR(hwc, gray, nullptr); }));
  ImagePtr none;
  EXPECT_EQ(Report("ConvertRGBtoBGR: src is no CPU tensor"),
            RefusalOf([&] { process_.ConvertRGBtoBGR(none, chw, nullptr); }));
  auto rank1 = Image({12}, TensorShape::CHW), rank4 = Image({3, 2, 2, 1}, TensorShape::CHW);
  EXPECT_DEATH(process_.ConvertRGBAtoRGB(hwc, rank4, nullptr), "3 == shape.dims.size");
  EXPECT_DEATH(process_.ConvertRGBtoBGR(hwc, rank1, nullptr), "3 == shape.dims.size");
  EXPECT_EQ(Report("ConvertRGBtoBGR: src has rank 1, needs 3"),
            RefusalOf([&] { process_.ConvertRGBtoBGR(rank1, chw, nullptr); }));
}

TEST_F(Color, FreeFormsRefuseInOrder) {
  auto good = Image({2, 2, 4}, TensorShape::HWC), out = Image({3, 2, 2}, TensorShape::CHW);
  auto floats = FloatImage({2, 2, 4}, TensorShape::CHW, Floats(1, 16));
  auto elsewhere = Image({2, 2, 4}, TensorShape::HWC), out_elsewhere = Image({3, 2, 2}, TensorShape::CHW);
  elsewhere->shape.location = TensorShape::OpenGLSSBO;
  out_elsewhere->shape.location = TensorShape::OpenGLSSBO;
  struct Case {
    ImagePtr input, output;
    char const* text;
  };
  for (Case c :
       {Case{nullptr, nullptr, "i_img must be a TensorCPUPtr."},
        {good, nullptr, "o_img must be a TensorCPUPtr."},
        {floats, floats, "i_img must be a UInt8 DataType Tensor."},
        {out, floats, "o_img must be a UInt8 DataType Tensor."},
        {out, good, "i_img must be a CHW Layout Tensor."},
        {elsewhere, good, "o_img must be a CHW Layout Tensor."},
        {elsewhere, out_elsewhere, "i_img must be a MainMemory Location Tensor."},
        {good, out_elsewhere, "o_img must be a MainMemory Location Tensor."},
        {Image({3, 2, 4}, TensorShape::HWC), out,
         "F_ColorCvt_RGBA2RGB_HWC_UInt8_To_CHW_UInt8_Fallback: o_img of dims [3, 2, 2] needs memory for 3 planes "
         "of 6 pixels"}}) {
    EXPECT_EQ(Report(c.text),
              RefusalOf([&] { F_ColorCvt_RGBA2RGB_HWC_UInt8_To_CHW_UInt8_Fallback(c.input, c.output); }));
  }
  EXPECT_EQ(Report("i_img must be a TensorCPUPtr."), RefusalOf([&] {
              ImagePtr none;
              F_ColorCvt_RGB888_To_Gray8_Fallback(none, out);
            }));
}

}  // namespace
}  // namespace talvo::test
