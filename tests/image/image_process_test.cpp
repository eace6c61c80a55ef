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

// A fault of one image, of which the call says `text`: 'c' no CPU tensor, 't' type, 'l' layout, 'p' place (these with
// the word of the usual text), 'd' first extent, 'r' rank, 's' step size, 'm' no matrix, 'T' and 'L' type and layout
// (these with the whole text).
struct Fault {
  std::size_t image;
  char kind;
  std::string text;
};
using Faults = std::vector<Fault>;

// A call on images of exactly the bytes that it touches. The name is that with which its own refusals begin.
struct Call {
  char const* name;
  std::function<void(Images&)> run;
  std::vector<Shape> shapes;
  Faults order;  // of the told tests
  bool may_have_more_axes = true;
};

class ImageProcess : public ImageTest {
 protected:
  Images MakeAll(Call const& call) {
    Images images;
    for (Shape const& s : call.shapes) {
      auto const bytes = Bytes(1, runtime::ElementCount(s.dims) * std::size_t{4});
      images.push_back(Make(s.dims, s.layout, s.type, bytes.data()));
      images.back()->shape.extra.step_size = 8;
    }
    matrix_ = std::make_shared<kernel::YUVCvtMatrix>();
    return images;
  }
  auto Code(int code) {
    return [=](Images& i) { process_.ConvertPixel(i[0], i[1], code, nullptr); };
  }
  auto Matrix(int code) {
    return [=](Images& i) { process_.ConvertPixel(i[0], i[1], kIdentity, code, nullptr); };
  }
  template <class Function>
  static auto Free(Function function) {
    return [=](Images& i) { function(i[0], i[1]); };
  }

  // Adds the fault, and gives the text that refuses it.
  std::string Break(Images& images, Fault const& fault, std::string const& name) {
    auto& image = images[fault.image];
    char const kind = fault.kind;
    if (kind == 't' || kind == 'T') image->shape.data_type = TensorShape::UINT16;
    if (kind == 'l' || kind == 'L') image->shape.layout = TensorShape::GN;
    if (kind == 'p') image->shape.location = TensorShape::OpenGLSSBO;
    if (kind == 's') image->shape.extra.step_size = 7;
    if (kind == 'r') image->shape.dims.push_back(1);
    if (kind == 'd') image->shape.dims[0] += 2;
    if (kind == 'c') image = std::make_shared<Foreign>(TensorShape(image->shape));
    if (kind == 'm') matrix_ = nullptr;
    std::string const must = name + " must be a " + fault.text;
    if (kind == 't') return must + " DataType Tensor.";
    if (kind == 'l') return must + " Layout Tensor.";
    return kind == 'p' ? must + "MainMemory Location Tensor." : kind == 'c' ? name + fault.text : fault.text;
  }

  // Without memory each image is refused with the bytes that its shape takes, which shows that a guard stands and how
  // far it looks. Of all faults from one on, the first is reported. An axis more than is read is served.
  void Walk(Names const& names, std::vector<Call> const& calls) {
    for (Call const& call : calls) {
      SCOPED_TRACE(call.name);
      Images good = MakeAll(call);
      call.run(good);
      for (std::size_t i = 0; i < good.size(); ++i) {
        Images images = good;
        images[i] = context_->device_cpu->CreateTensorExternal(good[i]->shape, nullptr);
        EXPECT_EQ(
            Report(std::string(call.name) + ": " + names[i] + " of dims " + runtime::DimsText(good[i]->shape.dims) +
                   " holds 0 bytes, needs " + std::to_string(runtime::ByteCount(good[i]->shape))),
            RefusalOf([&] { call.run(images); }));
      }
      for (auto& image : good) {
        if (call.may_have_more_axes && image->shape.dims.size() > 1) image->shape.dims.push_back(1);
      }
      call.run(good);
      Images images = MakeAll(call);
      for (std::size_t k = call.order.size(); k-- > 0;) {
        auto const text = Break(images, call.order[k], names[call.order[k].image]);
        EXPECT_EQ(Report(text), RefusalOf([&] { call.run(images); })) << "test " << k;
      }
    }
  }

  std::shared_ptr<kernel::YUVCvtMatrix> matrix_;
};

TEST_P(ImageProcess, ClassLooksBeforeItTouches) {
  Walk({"src", "dst"},
       {{"ConvertRGBAtoRGB", Code(1), {Hwc({2, 4, 4}), Chw({3, 2, 4})}, {{1, 'L', ""}}, false},
        {"ConvertRGBtoBGR", Code(4), {Chw({3, 2, 4}), Chw({3, 2, 4})}, {}, false},
        {"ConvertBGR2Gray", Code(6), {Hwc({2, 4, 3}), Chw({1, 2, 4})}, {{1, 'L', ""}}},
        {"ConvertRGB2Gray", Code(7), {Chw({3, 2, 4}), Chw({1, 2, 4})}, {{1, 'L', ""}}},
        {"ClockwiseRotate90", Code(50), {Hwc({2, 4, 3}), Hwc({4, 2, 3})}, {{0, 'L', ""}}},
        {"HWC2CHW", Code(60), {Hwc({2, 4, 3}), Chw({3, 2, 4})}, {{1, 'L', ""}, {0, 'T', "Not Implemented."}}},
        {"CHW2HWC", Code(61), {Chw({3, 2, 4}), Hwc({2, 4, 3})}, {{1, 'L', ""}, {0, 'T', "Not Implemented."}}},
        {"Convert8U_To_32F", Code(65), {Hwc({2, 4, 3}), Floats32({2, 4, 3})}, {{0, 'T', ""}}},
        {"Resize_Bilinear_C2", Code(82), {Flex({2, 4, 2}), Flex({3, 5, 2})}, {{0, 'L', ""}, {1, 'L', ""}}},
        {"Crop_C3",
         [&](Images& i) { process_.ConvertPixel(i[0], i[1], 0, 0, 0.9f, 0.9f, 102, nullptr); },
         {Hwc({2, 4, 3}), Hwc({2, 4, 3})},
         {}},
        {"Affine_INV_Float", Matrix(57), {Floats32({2, 2, 4}), Floats32({2, 3, 4})}, {{0, 'L', ""}}},
        {"Affine_INV_BILINEAR_Float", Matrix(58), {Floats32({2, 2, 4}), Floats32({2, 3, 4})}, {{0, 'L', ""}}},
        {"Normalize_CHW_Float_Fallback",
         [](Images& i) { Normalize_CHW_Float_Fallback(i[0], i[1], kIdentity, kIdentity); },
         {Floats32({3, 2, 4}), Floats32({3, 2, 4})},
         {{0, 'L', ""}}}});
}

#define TALVO_FREE(function) #function, Free(function)
#define TALVO_CROP(function) #function, [](Images & i) { function(i[0], 0, 0, 2, 3, i[1]); }
#define TALVO_NORMALISE(function) #function, [](Images & i) { function(i[0], i[1], i[2], i[3]); }

TEST_P(ImageProcess, FreeFunctionsLookBeforeTheyTouch) {
  Fault const i0 = {0, 'c', " must be a TensorCPUPtr."}, i1 = {1, 'c', i0.text}, i2 = {2, 'c', i0.text};
  Fault const i3 = {3, 'c', i0.text}, p0 = {0, 'p', ""}, p1 = {1, 'p', ""}, p2 = {2, 'p', ""}, p3 = {3, 'p', ""};
  Fault const u0 = {0, 't', "UInt8"}, u1 = {1, 't', "UInt8"}, u2 = {2, 't', "UInt8"}, u3 = {3, 't', "UInt8"};
  Fault const f1 = {1, 't', "Float32"}, f2 = {2, 't', "Float32"}, c0 = {0, 'l', "CHW"}, c1 = {1, 'l', "CHW"};
  Fault const c2 = {2, 'l', "CHW"}, c3 = {3, 'l', "CHW"}, h0 = {0, 'l', "HWC"}, h1 = {1, 'l', "HWC"};
  Fault const extent1 = {1, 'd', ""}, type1 = {1, 'T', ""};
  Faults const frame = {i0, i1, u0, u1, c0, c1, p0, p1};
  Walk({"i_img", "o_img"},
       {{TALVO_FREE(F_ColorCvt_RGBA2RGB_HWC_UInt8_To_CHW_UInt8_Fallback), {Hwc({2, 4, 4}), Chw({3, 2, 4})}, frame},
        {TALVO_FREE(F_ColorCvt_RGB888_To_Gray8_Fallback), {Hwc({2, 4, 3}), Hwc({2, 4})}, {i0, i1}},
        {TALVO_FREE(F_Rotate_Clockwise90_HWC_Fallback),
         {Hwc({2, 4, 3}), Hwc({4, 2, 3})},
         {i0, i1, u0, u1, c0, c1, p0, p1, {1, 'r', ""}, extent1}},
        {TALVO_FREE(F_HFlip_HWC_Fallback), {Hwc({2, 4, 3}), Hwc({2, 4, 3})}, frame},
        {TALVO_FREE(F_Resize_Nearest_HWC_U8_C3_Fallback), {Hwc({2, 4, 3}), Hwc({3, 5, 3})}, {i0, i1}},
        {TALVO_CROP(F_Crop_HWC_Memcpy), {Hwc({2, 4, 3}), Hwc({2, 3, 3})}, {i0, i1, h0, p0, h1, p1, type1, extent1}},
        {TALVO_CROP(F_Crop_CHW_Memcpy), {Chw({3, 2, 4}), Chw({3, 2, 3})}, {i0, i1, c0, p0, c1, p1, type1, extent1}},
        {"F_Crop_U8_HWC_Memcpy",
         [](Images& i) { F_Crop_U8_HWC_Memcpy(i[0], -1, 0, 2, 3, 7, i[1]); },
         {Hwc({2, 4, 3}), Hwc({2, 3, 3})},
         {i0, i1, u0, h0, p0, u1, h1, p1, extent1}}});
  Fault const sub = {1, 'r', "i_sub must be a 1D Tensor."}, mul = {2, 'r', "i_mul must be a 1D DataType Tensor."};
  Fault const unequal = {1, 's', ""}, channels = {0, 'd', ""}, unmade = {3, 's', "Not Implemented."};
  Fault const f0 = {0, 't', "Float32"}, f3 = {3, 't', "Float32"}, s3 = {3, 't', "Int16"};
  Walk({"i_img", "i_sub", "i_mul", "o_img"},
       {{TALVO_NORMALISE(F_Normalize_CHW_U8_To_CHW_S16_Fallback),
         {Chw({3, 2, 4}), Floats32({3}), Floats32({3}), {{3, 2, 4}, TensorShape::CHW, TensorShape::INT16}},
         {i0, i1, i2, i3, c0, u0, p0, sub, f1, p1, mul, f2, p2, c3, s3, p3, unequal, channels, unmade}},
        {TALVO_NORMALISE(F_Normalize_CHW_F32_Fallback),
         {Floats32({3, 2, 4}), Floats32({3}), Floats32({3}), Floats32({3, 2, 4})},
         {i0, i1, i2, i3, c0, f0, p0, sub, f1, mul, f2, c3, f3, p3, unequal, channels}}});
  std::string const valid = " must be a vaild TensorCPUPtr.";
  Walk({"i_img", "i_mat", "o_img"}, {{"F_WarpAffine_Bilinear_CHW_F32_Arm",
                                      [](Images& i) { F_WarpAffine_Bilinear_CHW_F32_Arm(i[0], i[1], i[2]); },
                                      {Floats32({2, 2, 4}), Floats32({6}), Floats32({2, 3, 5})},
                                      {{0, 'c', valid}, {1, 'c', valid}, {2, 'c', valid}}}});
  Fault const matrix = {0, 'm', "i_cvtMat must be a vaild shared pointer."};
  auto const extents = [](std::size_t image, std::string const& plane) {
    return Fault{image, 'd', "Shapes of Luminance Plane and " + plane + " Plane mismatched."};
  };
  Walk({"i_luminancePlane", "i_chrominancePlane", "o_img"},
       {{"F_ColorCvt_YUV_2Plane_UInt8_To_CHW_UInt8_Fallback",
         [&](Images& i) { F_ColorCvt_YUV_2Plane_UInt8_To_CHW_UInt8_Fallback(i[0], i[1], matrix_, i[2]); },
         {Hwc({2, 4}), Hwc({1, 2, 2}), Chw({3, 2, 4})},
         {p0, u0, p1, u1, matrix, c2, u2, p2, extents(1, "Chrominance"), i0, i1, i2}}});
  Walk({"i_luminancePlane", "i_chrominanceBPlane", "i_chrominanceRPlane", "o_img"},
       {{"F_ColorCvt_YUV_3Plane_UInt8_To_CHW_UInt8_Fallback",
         [&](Images& i) { F_ColorCvt_YUV_3Plane_UInt8_To_CHW_UInt8_Fallback(i[0], i[1], i[2], matrix_, i[3]); },
         {Hwc({2, 4}), Hwc({1, 2}), Hwc({1, 2}), Chw({3, 2, 4})},
         {p0, u0, p1, u1, p2, u2, matrix, c3, u3, p3, extents(1, "ChrominanceB"), extents(2, "ChrominanceR"), i0, i1,
          i2, i3}}});
}

TEST_P(ImageProcess, CodesThatNameNothingDoNothing) {
  std::set<int> const known = {1,  3,  4,  6,  7,  11, 22, 24, 32, 50, 51, 52, 53, 54,  55,  56,  57,
                               58, 60, 61, 65, 77, 81, 82, 83, 84, 85, 86, 87, 88, 100, 101, 102, 103};
  auto image = Image({1, 1, 1}, TensorShape::HWC);
  ImagePtr none;
  for (int code = -1; code < 130; ++code) {
    if (known.count(code) != 0) continue;
    process_.ConvertPixel(none, none, code, nullptr);
    process_.ConvertPixel(image, none, 0, 0, 1, 1, code, nullptr);
    process_.ConvertPixel(none, none, nullptr, code, nullptr);
  }
  process_.ConvertPixel(image, none, 0, 0, 1, 1, 86, nullptr);  // the two-channel form is empty
  EXPECT_EQ(Report("Not Implemented."), RefusalOf([&] { process_.ConvertPixel(none, none, nullptr, 55, nullptr); }));
  EXPECT_EQ(Report("Not Implemented."),
            RefusalOf([&] { process_.Affine_INV_Unimplemented(none, none, nullptr, nullptr); }));
  EXPECT_EQ(Report("ConvertPixel: src is null"),
            RefusalOf([&] { process_.ConvertPixel(none, image, 0, 0, 1, 1, 0, nullptr); }));
  auto floats = FloatImage({1, 1, 1}, TensorShape::HWC, {0});
  EXPECT_DEATH(process_.ConvertPixel(floats, image, 0, 0, 1, 1, 100, nullptr),
               "src->shape.data_type == runtime::TensorShape::UINT8\\), function ConvertPixel, file image_process,");
}

// What comes first of a missing tensor and another fault; and what does nothing looks no further.
TEST_P(ImageProcess, ClassRefusesInOrder) {
  ImagePtr const none;
  auto const hwc = Image({2, 2, 3}, TensorShape::HWC), chw = Image({3, 2, 2}, TensorShape::CHW);
  auto const flexible = Image({2, 2}, TensorShape::FLEXIABLE), empty = Image({0, 2}, TensorShape::FLEXIABLE);
  struct Case {
    int code;
    ImagePtr src, dst;
    char const* text;
  };
  for (Case const& c :
       {Case{1, none, hwc, ""},
        {4, none, chw, "ConvertRGBtoBGR: src is no CPU tensor"},
        {4, hwc, std::make_shared<Foreign>(chw->shape), "ConvertRGBtoBGR: dst is no CPU tensor"},
        {1, Image({3, 5}, TensorShape::HWC), chw, "ConvertRGBAtoRGB: src of dims [3, 5] holds 15 bytes, needs 16"},
        {4, Image({3, 2, 1}, TensorShape::CHW), chw,
         "ConvertRGBtoBGR: src of dims [3, 2, 1] needs memory for 3 planes of 4 pixels"},
        {61, chw, Image({4}, TensorShape::HWC), "CHW2HWC: dst has rank 1, needs 2"},
        {65, Make({4}, TensorShape::CHW, TensorShape::INT16, nullptr), none, ""},
        {77, hwc, none, ""},
        {77, empty, flexible, "Resize_Nearest_C1: src of 0 x 2 pixels, needs at least one"}}) {
    EXPECT_EQ(Report(c.text), RefusalOf([&] { Run(c.code, c.src, c.dst); })) << c.code;
  }
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
