#include "talvo/image/image_process.h"

#include <functional>
#include <set>

#include "talvo/image/color.h"
#include "talvo/image/crop.h"
#include "talvo/image/normalise.h"
#include "talvo/image/resize.h"
#include "talvo/image/rotate_flip.h"
#include "talvo/image/warp.h"
#include "talvo/image/yuv.h"
#include "tests/image/image_test_support.h"

namespace talvo::test {
namespace {

using namespace kernel::functional;
using Images = std::vector<ImagePtr>;
using Names = std::vector<char const*>;

constexpr float kIdentity[] = {1, 0, 0, 0, 1, 0};

struct Shape {
  Dims dims;
  unsigned int layout, type = TensorShape::UINT8;
};
Shape Hwc(Dims dims) { return {std::move(dims), TensorShape::HWC}; }
Shape Chw(Dims dims) { return {std::move(dims), TensorShape::CHW}; }
Shape Flex(Dims dims) { return {std::move(dims), TensorShape::FLEXIABLE}; }
Shape Floats32(Dims dims, unsigned int layout = TensorShape::CHW) {
  return {std::move(dims), layout, TensorShape::FLOAT32};
}

// A call on images of exactly the bytes that it touches. The name is that with which its own refusals begin.
struct Call {
  char const* name;
  std::function<void(Images&)> run;
  std::vector<Shape> shapes;
  bool may_have_more_axes = true;
};

class ImageProcess : public ImageTest {
 protected:
  ImagePtr Make8(Shape const& s) {
    auto image = Make(s.dims, s.layout, s.type, Bytes(1, runtime::ElementCount(s.dims) * std::size_t{4}).data());
    image->shape.extra.step_size = 8;
    return image;
  }
  auto Code(int code) {
    codes_.insert(code);
    return [this, code](Images& i) { process_.ConvertPixel(i[0], i[1], code, nullptr); };
  }
  auto Shares(int code, float end) {
    codes_.insert(code);
    return [=](Images& i) { process_.ConvertPixel(i[0], i[1], 0, 0, end, end, code, nullptr); };
  }
  auto Matrix(int code) {
    codes_.insert(code);
    return [this, code](Images& i) { process_.ConvertPixel(i[0], i[1], kIdentity, code, nullptr); };
  }
  template <class Function>
  static auto Free(Function function) {
    return [=](Images& i) { function(i[0], i[1]); };
  }

  // Without memory each image is refused with the bytes that its shape takes, which shows that a guard stands and how
  // far it looks; null and a tensor of no device are refused; an axis more than is read is served.
  void Walk(Names const& names, std::vector<Call> const& calls, bool is_class, char const* no_tensor) {
    for (Call const& call : calls) {
      SCOPED_TRACE(call.name);
      Images good;
      for (Shape const& shape : call.shapes) good.push_back(Make8(shape));
      call.run(good);
      for (std::size_t i = 0; i < good.size(); ++i) {
        Images images = good;
        auto const refusal = [&](ImagePtr const& image) {
          images[i] = image;
          return RefusalOf([&] { call.run(images); });
        };
        std::string const who = std::string(call.name) + ": " + names[i];
        std::string const bytes = std::to_string(runtime::ByteCount(good[i]->shape));
        EXPECT_EQ(Report(who + " of dims " + runtime::DimsText(good[i]->shape.dims) + " holds 0 bytes, needs " + bytes),
                  refusal(context_->device_cpu->CreateTensorExternal(good[i]->shape, nullptr)));
        std::string const none =
            is_class ? Report(who + " is no CPU tensor") : Report(names[i] + std::string(no_tensor));
        EXPECT_EQ(none, refusal(std::make_shared<Foreign>(good[i]->shape)));
        bool const null_has_this_text = !is_class && std::string(call.name).find("F_Rotate") != 0;
        if (null_has_this_text) {
          EXPECT_EQ(none, refusal(nullptr));
        }
      }
      if (!call.may_have_more_axes) continue;
      for (auto& image : good) {
        if (image->shape.dims.size() > 1) image->shape.dims.push_back(1);
      }
      call.run(good);
    }
  }

  std::set<int> codes_;
};

TEST_P(ImageProcess, CodesCallOperationsThatLookBeforeTheyTouch) {
  Walk({"src", "dst"},
       {{"ConvertRGBAtoRGB", Code(1), {Hwc({2, 4, 4}), Chw({3, 2, 4})}, false},
        {"ConvertRGBAtoBGR", Code(3), {Hwc({2, 4, 4}), Chw({3, 2, 4})}, false},
        {"ConvertRGBtoBGR", Code(4), {Hwc({2, 4, 3}), Chw({3, 2, 4})}, false},
        {"ConvertRGBtoBGR", Code(4), {Chw({3, 2, 4}), Chw({3, 2, 4})}, false},
        {"ConvertBGR2Gray", Code(6), {Hwc({2, 4, 3}), Chw({1, 2, 4})}},
        {"ConvertRGB2Gray", Code(7), {Hwc({2, 4, 3}), Chw({1, 2, 4})}},
        {"ConvertRGB2Gray", Code(7), {Chw({3, 2, 4}), Chw({1, 2, 4})}},
        {"ConvertRGBA2Gray", Code(11), {Hwc({2, 4, 4}), Chw({1, 2, 4})}},
        {"ClockwiseRotate90", Code(50), {Hwc({2, 4, 3}), Hwc({4, 2, 3})}},
        {"ClockwiseRotate180", Code(51), {Chw({3, 2, 4}), Chw({3, 2, 4})}},
        {"ClockwiseRotate270", Code(52), {Chw({3, 2, 4}), Chw({3, 4, 2})}},
        {"Flip_Horizintal", Code(53), {Hwc({2, 4, 5}), Hwc({2, 4, 5})}},
        {"Flip_Vertical", Code(54), {Hwc({2, 4, 3}), Hwc({2, 4, 3})}},
        {"HWC2CHW", Code(60), {Hwc({2, 4, 3}), Chw({3, 2, 4})}},
        {"HWC2CHW", Code(60), {Floats32({2, 4, 2}, TensorShape::HWC), Floats32({2, 2, 4})}},
        {"CHW2HWC", Code(61), {Chw({3, 2, 4}), Hwc({2, 4, 3})}},
        {"Convert8U_To_32F", Code(65), {Hwc({2, 4, 3}), Floats32({2, 4, 3})}},
        {"Resize_Nearest_C1", Code(77), {Flex({2, 4}), Flex({3, 5})}},
        {"Resize_Bilinear_C1", Code(81), {Flex({1, 2, 4}), Flex({1, 3, 5})}},
        {"Resize_Bilinear_C2", Code(82), {Flex({2, 4, 2}), Flex({3, 5, 2})}},
        {"Resize_Bilinear_C3", Code(83), {Flex({2, 4, 3}), Flex({3, 5, 3})}},
        {"Resize_Bilinear_C4", Code(84), {Flex({2, 4, 4}), Flex({3, 5, 4})}},
        {"Crop_Resize_Nearest_C1", Shares(85, 1), {Flex({2, 4}), Flex({3, 5})}},
        {"Crop_Resize_Nearest_C3", Shares(87, 1), {Flex({2, 4, 3}), Flex({3, 5, 3})}},
        {"Crop_Resize_Nearest_C4", Shares(88, 1), {Flex({2, 4, 4}), Flex({3, 5, 4})}},
        {"Crop_C1", Shares(100, 0.9f), {Hwc({2, 4}), Hwc({2, 4})}},
        {"Crop_C2", Shares(101, 0.9f), {Hwc({2, 4, 2}), Hwc({2, 4, 2})}},
        {"Crop_C3", Shares(102, 0.9f), {Hwc({2, 4, 3}), Hwc({2, 4, 3})}},
        {"Crop_C4", Shares(103, 0.9f), {Hwc({2, 4, 4}), Hwc({2, 4, 4})}},
        {"Affine_Float", Matrix(56), {Floats32({2, 2, 4}), Floats32({2, 3, 4})}},
        {"Affine_INV_Float", Matrix(57), {Floats32({2, 2, 4}), Floats32({2, 3, 4})}},
        {"Affine_INV_BILINEAR_Float", Matrix(58), {Floats32({2, 2, 4}), Floats32({2, 3, 4})}},
        {"Normalize_CHW_Float_Fallback",
         [](Images& i) { Normalize_CHW_Float_Fallback(i[0], i[1], kIdentity, kIdentity); },
         {Floats32({3, 2, 4}), Floats32({3, 2, 4})}}},
       true, "");
  codes_.insert({22, 24, 32, 55, 86});
  auto image = Image({1, 1, 1}, TensorShape::HWC);
  ImagePtr none;
  for (int code = -1; code < 130; ++code) {
    if (codes_.count(code) != 0) continue;
    process_.ConvertPixel(none, none, code, nullptr);
    process_.ConvertPixel(image, none, 0, 0, 1, 1, code, nullptr);
    process_.ConvertPixel(none, none, nullptr, code, nullptr);
  }
  EXPECT_EQ(Report("Not Implemented."), RefusalOf([&] { process_.ConvertPixel(none, none, nullptr, 55, nullptr); }));
  EXPECT_EQ(Report("Not Implemented."),
            RefusalOf([&] { process_.Affine_INV_Unimplemented(none, none, nullptr, nullptr); }));
  process_.ConvertPixel(image, none, 0, 0, 1, 1, 86, nullptr);  // the two-channel form is empty
  EXPECT_EQ(Report("ConvertPixel: src is null"),
            RefusalOf([&] { process_.ConvertPixel(none, image, 0, 0, 1, 1, 0, nullptr); }));
  auto floats = FloatImage({1, 1, 1}, TensorShape::HWC, {0});
  EXPECT_DEATH(process_.ConvertPixel(floats, image, 0, 0, 1, 1, 100, nullptr),
               "src->shape.data_type == runtime::TensorShape::UINT8\\), function ConvertPixel, file image_process,");
}

#define TALVO_FREE(function) #function, Free(function)
#define TALVO_CROP(function) #function, [](Images & i) { function(i[0], 0, 0, 2, 3, i[1]); }
#define TALVO_NORMALISE(function) #function, [](Images & i) { function(i[0], i[1], i[2], i[3]); }

TEST_P(ImageProcess, FreeFunctionsLookBeforeTheyTouch) {
  char const* const no_tensor = " must be a TensorCPUPtr.";
  Walk({"i_img", "o_img"},
       {{TALVO_FREE(F_ColorCvt_RGBA2RGB_HWC_UInt8_To_CHW_UInt8_Fallback), {Hwc({2, 4, 4}), Chw({3, 2, 4})}},
        {TALVO_FREE(F_ColorCvt_RGB2BGR_HWC_UInt8_To_CHW_UInt8_Arm), {Hwc({2, 4, 3}), Chw({3, 2, 4})}},
        {TALVO_FREE(F_ColorCvt_RGB888_To_Gray8_Fallback), {Hwc({2, 4, 3}), Hwc({2, 4})}},
        {TALVO_FREE(F_ColorCvt_RGBA8888_To_Gray8_Fallback), {Hwc({2, 4, 4}), Hwc({2, 4})}},
        {TALVO_FREE(F_Rotate_Clockwise90_HWC_Fallback), {Hwc({2, 4, 3}), Hwc({4, 2, 3})}},
        {TALVO_FREE(F_Rotate_Clockwise180_HWC_Fallback), {Hwc({2, 4, 3}), Hwc({2, 4, 3})}},
        {TALVO_FREE(F_Rotate_Clockwise270_HWC_Fallback), {Hwc({2, 4, 3}), Hwc({4, 2, 3})}},
        {TALVO_FREE(F_HFlip_HWC_Fallback), {Hwc({2, 4, 3}), Hwc({2, 4, 3})}},
        {TALVO_FREE(F_VFlip_HWC_Fallback), {Hwc({2, 4, 3}), Hwc({2, 4, 3})}},
        {TALVO_FREE(F_Resize_Nearest_HWC_U8_C3_Fallback), {Hwc({2, 4, 3}), Hwc({3, 5, 3})}},
        {TALVO_FREE(F_Resize_Bilinear_HWC_U8_C4_Fallback), {Hwc({2, 4, 4}), Hwc({3, 5, 4})}},
        {TALVO_CROP(F_Crop_HWC_Memcpy), {Hwc({2, 4, 3}), Hwc({2, 3, 3})}},
        {TALVO_CROP(F_Crop_CHW_Memcpy), {Floats32({3, 2, 4}), Floats32({3, 2, 3})}},
        {TALVO_CROP(F_Crop_C4HW4_Memcpy), {{{1, 2, 4, 4}, TensorShape::C4HW4}, {{1, 2, 3, 4}, TensorShape::C4HW4}}},
        {TALVO_CROP(F_Crop_C8HW8_Memcpy), {{{2, 2, 4, 8}, TensorShape::C8HW8}, {{2, 2, 3, 8}, TensorShape::C8HW8}}},
        {"F_Crop_U8_HWC_Memcpy",
         [](Images& i) { F_Crop_U8_HWC_Memcpy(i[0], -1, 0, 2, 3, 7, i[1]); },
         {Hwc({2, 4, 3}), Hwc({2, 3, 3})}}},
       false, no_tensor);
  Walk({"i_img", "i_sub", "i_mul", "o_img"},
       {{TALVO_NORMALISE(F_Normalize_CHW_U8_To_CHW_S16_Fallback),
         {Chw({3, 2, 4}), Floats32({3}), Floats32({3}), {{3, 2, 4}, TensorShape::CHW, TensorShape::INT16}}},
        {TALVO_NORMALISE(F_Normalize_CHW_U8_To_CHW_F32_Fallback),
         {Chw({3, 2, 4}), Floats32({3}), Floats32({3}), Floats32({3, 2, 4})}},
        {TALVO_NORMALISE(F_Normalize_CHW_F32_Fallback),
         {Floats32({3, 2, 4}), Floats32({3}), Floats32({3}), Floats32({3, 2, 4})}}},
       false, no_tensor);
  Walk({"i_img", "i_mat", "o_img"},
       {{"F_WarpAffine_Bilinear_CHW_F32_Arm",
         [](Images& i) { F_WarpAffine_Bilinear_CHW_F32_Arm(i[0], i[1], i[2]); },
         {Floats32({2, 2, 4}), Floats32({6}), Floats32({2, 3, 5})}}},
       false, " must be a vaild TensorCPUPtr.");
  auto const matrix = std::make_shared<YUVCvtMatrix>();
  Walk({"i_luminancePlane", "i_chrominancePlane", "o_img"},
       {{"F_ColorCvt_YUV_2Plane_UInt8_To_CHW_UInt8_Fallback",
         [=](Images& i) { F_ColorCvt_YUV_2Plane_UInt8_To_CHW_UInt8_Fallback(i[0], i[1], matrix, i[2]); },
         {Hwc({2, 4}), Hwc({1, 2, 2}), Chw({3, 2, 4})}}},
       false, no_tensor);
  Walk({"i_luminancePlane", "i_chrominanceBPlane", "i_chrominanceRPlane", "o_img"},
       {{"F_ColorCvt_YUV_3Plane_UInt8_To_CHW_UInt8_Fallback",
         [=](Images& i) { F_ColorCvt_YUV_3Plane_UInt8_To_CHW_UInt8_Fallback(i[0], i[1], i[2], matrix, i[3]); },
         {Hwc({2, 4}), Hwc({1, 2}), Hwc({1, 2}), Chw({3, 2, 4})}}},
       false, no_tensor);
}

// Of two faults the one that comes first in the order of the tests is reported, and what does nothing looks no further.
TEST_P(ImageProcess, ClassRefusesInOrder) {
  ImagePtr const none;
  auto const hwc = Image({2, 2, 3}, TensorShape::HWC), chw = Image({3, 2, 2}, TensorShape::CHW);
  auto const shorts = Make({4}, TensorShape::CHW, TensorShape::INT16, nullptr);
  auto const flexible = Image({2, 2}, TensorShape::FLEXIABLE), empty = Image({0, 2}, TensorShape::FLEXIABLE);
  auto const foreign = std::make_shared<Foreign>(chw->shape);
  struct Case {
    int code;
    ImagePtr src, dst;
    char const* text;
  };
  for (Case const& c :
       {Case{1, none, hwc, ""},
        {4, none, chw, "ConvertRGBtoBGR: src is no CPU tensor"},
        {4, hwc, Image({3, 2, 3}, TensorShape::CHW), "ConvertRGBtoBGR: src of dims [2, 2, 3] holds 12 bytes, needs 18"},
        {4, Image({3, 2, 1}, TensorShape::CHW), chw,
         "ConvertRGBtoBGR: src of dims [3, 2, 1] needs memory for 3 planes of 4 pixels"},
        {7, none, hwc, ""},
        {50, chw, hwc, ""},
        {50, none, hwc, "ClockwiseRotate90: src is no CPU tensor"},
        {60, shorts, hwc, ""},
        {60, shorts, foreign, "Not Implemented."},
        {61, none, chw, ""},
        {61, shorts, Image({4}, TensorShape::HWC), "Not Implemented."},
        {61, chw, Image({4}, TensorShape::HWC), "CHW2HWC: dst has rank 1, needs 2"},
        {65, shorts, none, ""},
        {77, hwc, none, ""},
        {77, flexible, hwc, ""},
        {77, empty, flexible, "Resize_Nearest_C1: src of 0 x 2 pixels, needs at least one"},
        {83, hwc, none, ""}}) {
    EXPECT_EQ(Report(c.text), RefusalOf([&] { Run(c.code, c.src, c.dst); })) << c.code;
  }
  ImagePtr src = hwc, dst = flexible;
  EXPECT_EQ(Report(""), RefusalOf([&] { process_.ConvertPixel(src, dst, 0, 0, 1, 1, 88, nullptr); }));
  dst = nullptr;
  EXPECT_EQ(Report(""), RefusalOf([&] { process_.ConvertPixel(src, dst, nullptr, 56, nullptr); }));
  EXPECT_EQ(Report(""), RefusalOf([&] { process_.ConvertPixel(src, dst, nullptr, 58, nullptr); }));
  EXPECT_EQ(Report(""), RefusalOf([&] { Normalize_CHW_Float_Fallback(src, dst, kIdentity, kIdentity); }));
  src = shorts;
  Normalize_CHW_Float_Fallback(src, dst, nullptr, nullptr);
  auto const before = BytesOf(flexible), gray = BytesOf(chw);
  Run(50, none, flexible);
  Run(77, flexible, empty);
  Run(7, flexible, chw);
  EXPECT_EQ(before, BytesOf(flexible));
  EXPECT_EQ(gray, BytesOf(chw));
  EXPECT_DEATH(Run(1, none, Image({3, 2, 2, 1}, TensorShape::CHW)), "3 == shape.dims.size");
}

// An extent of 0 makes a tensor empty, whatever the other extents are: nobody may walk them.
TEST_P(ImageProcess, HugeEmptyImagesTakeNoTime) {
  constexpr unsigned int kHuge = 0xFFFFFFFF;
  for (Dims const& dims : {Dims{0, kHuge, kHuge}, Dims{kHuge, 0, kHuge}, Dims{kHuge, kHuge, 0}}) {
    auto chw = Image(dims, TensorShape::CHW), hwc = Image(dims, TensorShape::HWC);
    auto floats = FloatImage(dims, TensorShape::CHW, {}), flexible = Image(dims, TensorShape::FLEXIABLE);
    for (int code : {50, 51, 53, 54, 60}) Run(code, chw, chw);
    for (int code : {50, 54, 61}) Run(code, hwc, hwc);
    for (int code : {56, 57, 58}) process_.ConvertPixel(floats, floats, kIdentity, code, nullptr);
    auto const matrix = FloatImage({6}, TensorShape::C, {kIdentity, kIdentity + 6});
    F_WarpAffine_Bilinear_CHW_F32_Arm(floats, matrix, floats);
    if (dims[0] != 0 && dims[1] != 0) continue;
    Run(82, flexible, flexible);
    F_Crop_CHW_Memcpy(chw, 0, 0, dims[1], dims[2], chw);
    auto none = Image({0, 0, dims[2]}, TensorShape::HWC);
    F_Crop_U8_HWC_Memcpy(hwc, 0, 0, 0, 0, 7, none);
  }
}

INSTANTIATE_TEST_SUITE_P(Sets, ImageProcess, kEverySet);

}  // namespace
}  // namespace talvo::test
