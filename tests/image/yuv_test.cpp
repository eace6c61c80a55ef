#include "talvo/image/yuv.h"

#include "talvo/image/image_process_fallback.h"
#include "tests/image/image_test_support.h"

namespace talvo::test {
namespace {

using namespace kernel::functional;
using Matrix = std::shared_ptr<YUVCvtMatrix>;

class Yuv : public ImageTest {
 protected:
  kernel::ImageProcessFallback process_;
};

struct Shape {
  unsigned int height, width;
};
constexpr Shape kFrames[] = {{2, 2}, {2, 4}, {4, 30}, {6, 32}, {2, 34}, {8, 66}, {2, 2046}, {4, 2050}, {2, 4100}};

TEST_F(Yuv, ClassFramesWrapAround) {
  struct Case {
    char const* why;
    void (kernel::ImageProcessFallback::*operation)(ImagePtr&, ImagePtr&, std::shared_ptr<runtime::Context>);
    bool planar;
    std::size_t u, v;  // place in a pair, or number of the plane
  };
  using P = kernel::ImageProcessFallback;
  for (Case const& c : {Case{"NV21", &P::ConvertYUV2RGB_NV21, false, 1, 0},
                        {"NV12", &P::ConvertYUV2RGB_NV12, false, 0, 1},
                        {"IYUV", &P::ConvertYUV2RGB_IYUV, true, 0, 1}}) {
    SCOPED_TRACE(c.why);
    for (Shape const& shape : kFrames) {
      unsigned int const h = shape.height, w = shape.width;
      auto const frame = Bytes(h + w, h * w * 3 / 2);
      auto src = Image({h, w, 1}, TensorShape::HWC), dst = Image({3, h, w}, TensorShape::CHW);
      src = context_->device_cpu->CreateTensorExternal(src->shape, const_cast<unsigned char*>(frame.data()));
      (process_.*c.operation)(src, dst, nullptr);
      ByteVector want(3 * h * w);
      for (std::size_t y = 0; y < h; ++y) {
        for (std::size_t x = 0; x < w; ++x) {
          std::size_t const block = y / 2 * (w / 2) + x / 2;
          auto const chrominance = [&](std::size_t which) {
            return frame[h * w + (c.planar ? which * (h * w / 4) + block : 2 * block + which)] - 128;
          };
          int const luma = frame[y * w + x], u = chrominance(c.u), v = chrominance(c.v);
          int const rgb[] = {(64 * luma + 90 * v) >> 6, (64 * luma - 22 * u - 46 * v) >> 6, (64 * luma + 113 * u) >> 6};
          for (std::size_t k = 0; k < 3; ++k) want[k * h * w + y * w + x] = static_cast<unsigned char>(rgb[k]);
        }
      }
      ASSERT_EQ(want, BytesOf(dst)) << h << " x " << w;
    }
  }
  auto frame = Image({2, 2, 3}, TensorShape::HWC, {255, 255, 255, 255, 128, 255, 0, 0, 0, 0, 0, 0});
  auto dst = Image({3, 2, 2}, TensorShape::CHW);
  process_.ConvertYUV2RGB_NV12(frame, dst, nullptr);
  EXPECT_EQ(177, BytesOf(dst)[0]) << "433 wraps around";
}

TEST_F(Yuv, ClassIgnoresWhatItCannotConvert) {
  auto frame = Image({4, 4, 2}, TensorShape::HWC), dst = Image({3, 4, 4}, TensorShape::CHW);
  auto const before = BytesOf(dst);
  auto const ignores = [&](char const* why) {
    process_.ConvertYUV2RGB_NV21(frame, dst, nullptr);
    EXPECT_EQ(before, BytesOf(dst)) << why;
  };
  frame->shape.dims = {3, 4, 2};
  ignores("odd height");
  frame->shape.dims = {4, 3, 2};
  ignores("odd width");
  frame->shape.dims = {4, 0, 2};
  ignores("no columns");
  frame->shape.dims = {0, 4, 2};
  ignores("no rows");
  frame->shape.dims = {4, 4, 2};
  dst->shape.layout = TensorShape::HWC;
  ignores("dst is not CHW");
  dst->shape.layout = TensorShape::CHW;
  dst->shape.location = TensorShape::MetalBuffer;
  ignores("dst is elsewhere");
  dst->shape.location = TensorShape::MainMemory;
  auto small = Image({3, 4, 3}, TensorShape::CHW);
  EXPECT_EQ(Report("ConvertYUV2RGB_IYUV: dst of dims [3, 4, 3] needs memory for 3 planes of 16 pixels"),
            RefusalOf([&] { process_.ConvertYUV2RGB_IYUV(frame, small, nullptr); }));
}

// The definition in 64 bits, where nothing overflows.
ByteVector WantWithMatrix(ByteVector const& y, ByteVector const& a, ByteVector const& b, std::size_t h, std::size_t w,
                          YUVCvtMatrix const& m) {
  auto const fixed = [](float value, float scale) {
    return std::int64_t{static_cast<std::int16_t>(static_cast<int>(value * scale))};
  };
  std::int64_t const y_gain = fixed(m.m0, 32), a_gain[] = {fixed(m.m1, 32), fixed(m.m3, 32), fixed(m.m5, 32)};
  std::int64_t const b_gain[] = {fixed(m.m2, 32), fixed(m.m4, 32), fixed(m.m6, 32)};
  ByteVector want;
  for (std::size_t k = 0; k < 3; ++k) {
    for (std::size_t i = 0; i < h * w; ++i) {
      std::size_t const block = i / w / 2 * (w / 2) + i % w / 2;
      std::int64_t const sum = (y[i] - fixed(m.m7, 256)) * y_gain + (a[block] - fixed(m.m8, 256)) * a_gain[k] +
                               (b[block] - fixed(m.m9, 256)) * b_gain[k];
      want.push_back(static_cast<unsigned char>(sum >> 5));
    }
  }
  return want;
}

TEST_F(Yuv, FreeFormsUseTheMatrix) {
  YUVCvtMatrix const matrices[] = {{1.164f, 0, 1.596f, -0.391f, -0.813f, 2.018f, 0, 0.0625f, 0.5f, 0.5f},
                                   {1, 0, 0, 0, 0, 0, 0, 0, 0, 0},
                                   {-3.3f, 900.5f, -77.7f, 1023.9f, -1023.9f, 12.5f, 31.0f, -1.5f, 99.0f, -0.7f}};
  for (auto const& values : matrices) {
    auto const matrix = std::make_shared<YUVCvtMatrix>(values);
    for (auto [h, w] : kFrames) {
      auto y = Image({h, w, 1}, TensorShape::HWC, 1), ab = Image({h / 2, w / 2, 2}, TensorShape::HWC, 2);
      ByteVector a, b;
      auto const pairs = BytesOf(ab);
      for (std::size_t i = 0; i < pairs.size(); i += 2) {
        a.push_back(pairs[i]);
        b.push_back(pairs[i + 1]);
      }
      auto first = Image({h / 2, w / 2}, TensorShape::HWC, a), second = Image({h / 2, w / 2}, TensorShape::HWC, b);
      auto const want = WantWithMatrix(BytesOf(y), a, b, h, w, values);
      auto dst = Image({3, h, w}, TensorShape::CHW, 3), twin = Image({3, h, w}, TensorShape::CHW, 4);
      F_ColorCvt_YUV_2Plane_UInt8_To_CHW_UInt8_Fallback(y, ab, matrix, dst);
      F_ColorCvt_YUV_2Plane_UInt8_To_CHW_UInt8_Arm(y, ab, matrix, twin);
      ASSERT_EQ(want, BytesOf(dst)) << h << " x " << w;
      ASSERT_EQ(want, BytesOf(twin)) << h << " x " << w;
      auto dst3 = Image({3, h, w}, TensorShape::CHW, 3), twin3 = Image({3, h, w}, TensorShape::CHW, 4);
      F_ColorCvt_YUV_3Plane_UInt8_To_CHW_UInt8_Fallback(y, first, second, matrix, dst3);
      F_ColorCvt_YUV_3Plane_UInt8_To_CHW_UInt8_Arm(y, first, second, matrix, twin3);
      ASSERT_EQ(want, BytesOf(dst3)) << h << " x " << w;
      ASSERT_EQ(want, BytesOf(twin3)) << h << " x " << w;
    }
  }
}

TEST_F(Yuv, FreeFormsRefuseInOrder) {
  auto const matrix = std::make_shared<YUVCvtMatrix>();
  auto y = Image({4, 4, 1}, TensorShape::HWC), ab = Image({2, 2, 2}, TensorShape::HWC);
  auto dst = Image({3, 4, 4}, TensorShape::CHW), plane = Image({2, 2}, TensorShape::HWC);
  auto floats = FloatImage({2, 2, 2}, TensorShape::HWC, Floats(1, 8));
  auto elsewhere = FloatImage({2, 2, 2}, TensorShape::HWC, Floats(1, 8));
  elsewhere->shape.location = TensorShape::OpenGLSSBO;
  auto short_plane = Image({1, 2, 2}, TensorShape::HWC);
  struct Case {
    ImagePtr y, ab;
    Matrix matrix;
    ImagePtr dst;
    char const* text;
  };
  for (Case c :
       {Case{elsewhere, elsewhere, nullptr, elsewhere, "i_luminancePlane must be a MainMemory Location Tensor."},
        {floats, elsewhere, nullptr, elsewhere, "i_luminancePlane must be a UInt8 DataType Tensor."},
        {y, elsewhere, nullptr, elsewhere, "i_chrominancePlane must be a MainMemory Location Tensor."},
        {y, floats, nullptr, elsewhere, "i_chrominancePlane must be a UInt8 DataType Tensor."},
        {y, short_plane, nullptr, elsewhere, "i_cvtMat must be a vaild shared pointer."},
        {y, short_plane, matrix, elsewhere, "o_img must be a CHW Layout Tensor."},
        {y, short_plane, matrix, dst, "Shapes of Luminance Plane and Chrominance Plane mismatched."},
        {y, plane, matrix, dst,
         "F_ColorCvt_YUV_2Plane_UInt8_To_CHW_UInt8_Fallback: i_chrominancePlane of dims [2, 2] holds 4 bytes, "
         "needs 8"}}) {
    EXPECT_EQ(Report(c.text),
              RefusalOf([&] { F_ColorCvt_YUV_2Plane_UInt8_To_CHW_UInt8_Fallback(c.y, c.ab, c.matrix, c.dst); }));
  }
  struct Case3 {
    ImagePtr first, second;
    char const* text;
  };
  for (Case3 c : {Case3{elsewhere, elsewhere, "i_chrominanceBPlane must be a MainMemory Location Tensor."},
                  {floats, elsewhere, "i_chrominanceBPlane must be a UInt8 DataType Tensor."},
                  {short_plane, elsewhere, "i_chrominanceRPlane must be a MainMemory Location Tensor."},
                  {short_plane, floats, "i_chrominanceRPlane must be a UInt8 DataType Tensor."},
                  {short_plane, plane, "Shapes of Luminance Plane and ChrominanceB Plane mismatched."},
                  {plane, short_plane, "Shapes of Luminance Plane and ChrominanceR Plane mismatched."}}) {
    EXPECT_EQ(Report(c.text),
              RefusalOf([&] { F_ColorCvt_YUV_3Plane_UInt8_To_CHW_UInt8_Arm(y, c.first, c.second, matrix, dst); }));
  }
  EXPECT_EQ(Report("Not Implemented."), RefusalOf([&] { F_ColorCvt_NV21_To_RGB_CHW_UInt8_Arm(y, ab, matrix, dst); }));
  EXPECT_EQ(Report("Not Implemented."), RefusalOf([&] { F_ColorCvt_NV12_To_RGB_CHW_UInt8_Arm(y, ab, matrix, dst); }));
}

}  // namespace
}  // namespace talvo::test
