#include "talvo/image/image_process.h"

#include <map>

#include "talvo/image/image_process_fallback.h"
#include "tests/image/image_test_support.h"

namespace talvo::test {
namespace {

using ContextPtr = std::shared_ptr<runtime::Context>;

#define TALVO_TEST_PLAIN(name) \
  void name(ImagePtr&, ImagePtr&, ContextPtr) override { called = #name; }
#define TALVO_TEST_SHARES(name)                                                                            \
  void name(ImagePtr&, ImagePtr&, float left, float top, float right, float bottom, ContextPtr) override { \
    called = #name;                                                                                        \
    shares = {left, top, right, bottom};                                                                   \
  }
#define TALVO_TEST_MATRIX(name) \
  void name(ImagePtr&, ImagePtr&, float const*, ContextPtr) override { called = #name; }

// Notes which operation the dispatcher called.
class Recorder : public kernel::ImageProcess {
 public:
  TALVO_TEST_PLAIN(ConvertRGBAtoRGB)
  TALVO_TEST_PLAIN(ConvertRGBtoBGR)
  TALVO_TEST_PLAIN(ConvertRGBAtoBGR)
  TALVO_TEST_PLAIN(ConvertYUV2RGB_NV21)
  TALVO_TEST_PLAIN(ConvertYUV2RGB_NV12)
  TALVO_TEST_PLAIN(ConvertYUV2RGB_IYUV)
  TALVO_TEST_PLAIN(ConvertRGB2Gray)
  TALVO_TEST_PLAIN(ConvertRGBA2Gray)
  TALVO_TEST_PLAIN(ConvertBGR2Gray)
  TALVO_TEST_PLAIN(ClockwiseRotate90)
  TALVO_TEST_PLAIN(ClockwiseRotate180)
  TALVO_TEST_PLAIN(ClockwiseRotate270)
  TALVO_TEST_PLAIN(Flip_Horizintal)
  TALVO_TEST_PLAIN(Flip_Vertical)
  TALVO_TEST_MATRIX(Affine_Unimplemented)
  TALVO_TEST_MATRIX(Affine_Float)
  TALVO_TEST_MATRIX(Affine_INV_Float)
  TALVO_TEST_MATRIX(Affine_INV_BILINEAR_Float)
  TALVO_TEST_MATRIX(Affine_INV_Unimplemented)
  TALVO_TEST_PLAIN(HWC2CHW)
  TALVO_TEST_PLAIN(CHW2HWC)
  TALVO_TEST_PLAIN(Convert8U_To_32F)
  TALVO_TEST_SHARES(Crop_C1)
  TALVO_TEST_SHARES(Crop_C2)
  TALVO_TEST_SHARES(Crop_C3)
  TALVO_TEST_SHARES(Crop_C4)
  TALVO_TEST_PLAIN(Resize_Nearest_C1)
  TALVO_TEST_PLAIN(Resize_Bilinear_C1)
  TALVO_TEST_PLAIN(Resize_Bilinear_C2)
  TALVO_TEST_PLAIN(Resize_Bilinear_C3)
  TALVO_TEST_PLAIN(Resize_Bilinear_C4)
  TALVO_TEST_SHARES(Crop_Resize_Nearest_C1)
  TALVO_TEST_SHARES(Crop_Resize_Nearest_C2)
  TALVO_TEST_SHARES(Crop_Resize_Nearest_C3)
  TALVO_TEST_SHARES(Crop_Resize_Nearest_C4)

  std::string called;
  std::vector<float> shares;
};

TEST(ImageProcess, CodesCallTheirOperations) {
  Recorder recorder;
  ImagePtr image;
  std::map<int, std::string> const names = {{1, "ConvertRGBAtoRGB"},
                                            {3, "ConvertRGBAtoBGR"},
                                            {4, "ConvertRGBtoBGR"},
                                            {6, "ConvertBGR2Gray"},
                                            {7, "ConvertRGB2Gray"},
                                            {11, "ConvertRGBA2Gray"},
                                            {22, "ConvertYUV2RGB_NV12"},
                                            {24, "ConvertYUV2RGB_NV21"},
                                            {32, "ConvertYUV2RGB_IYUV"},
                                            {50, "ClockwiseRotate90"},
                                            {51, "ClockwiseRotate180"},
                                            {52, "ClockwiseRotate270"},
                                            {53, "Flip_Horizintal"},
                                            {54, "Flip_Vertical"},
                                            {60, "HWC2CHW"},
                                            {61, "CHW2HWC"},
                                            {65, "Convert8U_To_32F"},
                                            {77, "Resize_Nearest_C1"},
                                            {81, "Resize_Bilinear_C1"},
                                            {82, "Resize_Bilinear_C2"},
                                            {83, "Resize_Bilinear_C3"},
                                            {84, "Resize_Bilinear_C4"}};
  std::map<int, std::string> const matrix_names = {
      {55, "Affine_Unimplemented"}, {56, "Affine_Float"}, {57, "Affine_INV_Float"}, {58, "Affine_INV_BILINEAR_Float"}};
  for (int code = -1; code < 130; ++code) {
    recorder.called.clear();
    recorder.ConvertPixel(image, image, code, nullptr);
    EXPECT_EQ(names.count(code) != 0 ? names.at(code) : "", recorder.called) << code;
    recorder.called.clear();
    recorder.ConvertPixel(image, image, nullptr, code, nullptr);
    EXPECT_EQ(matrix_names.count(code) != 0 ? matrix_names.at(code) : "", recorder.called) << code;
  }
}

class ImageProcessShares : public ImageTest {};

TEST_F(ImageProcessShares, CodesCallTheirOperations) {
  Recorder recorder;
  auto image = Image({1, 1, 1}, TensorShape::HWC);
  std::map<int, std::string> const names = {{85, "Crop_Resize_Nearest_C1"},
                                            {86, "Crop_Resize_Nearest_C2"},
                                            {87, "Crop_Resize_Nearest_C3"},
                                            {88, "Crop_Resize_Nearest_C4"},
                                            {100, "Crop_C1"},
                                            {101, "Crop_C2"},
                                            {102, "Crop_C3"},
                                            {103, "Crop_C4"}};
  for (int code = -1; code < 130; ++code) {
    recorder.called.clear();
    recorder.ConvertPixel(image, image, 1, 2, 3, 4, code, nullptr);
    EXPECT_EQ(names.count(code) != 0 ? names.at(code) : "", recorder.called) << code;
  }
  EXPECT_EQ((std::vector<float>{1, 2, 3, 4}), recorder.shares);
  auto floats = FloatImage({1, 1, 1}, TensorShape::HWC, {0});
  EXPECT_DEATH(recorder.ConvertPixel(floats, image, 0, 0, 1, 1, 100, nullptr),
               "src->shape.data_type == runtime::TensorShape::UINT8\\), function ConvertPixel, file image_process,");
  ImagePtr none;
  EXPECT_EQ(Report("ConvertPixel: src is null"),
            RefusalOf([&] { recorder.ConvertPixel(none, image, 0, 0, 1, 1, 0, nullptr); }));
}

}  // namespace
}  // namespace talvo::test
