// Drawn frames for the image operations: those of the class by their codes, the free functions by signature and name.
#include "certificate/cases.h"
#include "talvo/image/color.h"
#include "talvo/image/crop.h"
#include "talvo/image/frame.h"
#include "talvo/image/image_process_fallback.h"
#include "talvo/image/normalise.h"
#include "talvo/image/resize.h"
#include "talvo/image/rotate_flip.h"
#include "talvo/image/warp.h"
#include "talvo/image/yuv.h"

namespace talvo::certificate {
namespace {

using namespace kernel::functional;  // NOLINT: some fifty functions of seven headers, all listed below
using Image = BaseTensorPtr;
using Count = unsigned int const&;

constexpr unsigned int kCases = 20;
constexpr auto kByte = TensorShape::UINT8, kFloat = TensorShape::FLOAT32;

struct Size {
  unsigned int h, w;
};

Size DrawSize(Draw& d) { return {d.From(1, 20), d.From(1, 40)}; }
Size Halves(Draw& d) { return {2 * d.From(1, 8), 2 * d.From(1, 20)}; }

// 'h' rows of pixels, 'c' planes, 'f' rows of pixels without a layout, '1' a first axis of 1 and none, '2' rows alone.
Dims DimsOf(char layout, unsigned int n, Size s) {
  if (layout == 'c') return {n, s.h, s.w};
  if (layout == '1') return {1, s.h, s.w};
  if (layout == '2') return {s.h, s.w};
  return {s.h, s.w, n};
}
Dims DrawPlanes(Draw& d) {
  unsigned int const channels = d.From(1, 4);
  return DimsOf('c', channels, DrawSize(d));
}
unsigned int LayoutOf(char layout) {
  return layout == 'c' ? TensorShape::CHW : layout == 'h' ? TensorShape::HWC : TensorShape::FLEXIABLE;
}

// An operation of the class. Its target is as large as the source ('='), turned ('t') or of another size ('r').
struct Pixels {
  int code;
  char from, to, size;
  unsigned int channels, out_channels;
};
constexpr Pixels kPixels[] = {
    {1, 'h', 'c', '=', 4, 3},   {3, 'h', 'c', '=', 4, 3},   {4, 'h', 'c', '=', 3, 3},   {6, 'h', 'c', '=', 3, 1},
    {7, 'h', 'c', '=', 3, 1},   {11, 'h', 'c', '=', 4, 1},  {50, 'h', 'h', 't', 3, 3},  {51, 'h', 'h', '=', 4, 4},
    {52, 'c', 'c', 't', 3, 3},  {53, 'c', 'c', '=', 3, 3},  {54, 'h', 'h', '=', 2, 2},  {60, 'h', 'c', '=', 3, 3},
    {61, 'c', 'h', '=', 3, 3},  {77, '2', '2', 'r', 1, 1},  {81, '1', '1', 'r', 1, 1},  {82, 'f', 'f', 'r', 2, 2},
    {83, 'f', 'f', 'r', 3, 3},  {84, 'f', 'f', 'r', 4, 4},  {65, 'c', 'c', '=', 3, 3},  {22, 'h', 'c', '=', 2, 3},
    {24, 'h', 'c', '=', 2, 3},  {32, 'h', 'c', '=', 2, 3},  {85, 'f', 'f', 'r', 1, 1},  {86, 'f', 'f', 'r', 2, 2},
    {87, 'f', 'f', 'r', 3, 3},  {88, 'f', 'f', 'r', 4, 4},  {100, 'h', 'h', '=', 1, 1}, {101, 'h', 'h', '=', 2, 2},
    {102, 'h', 'h', '=', 3, 3}, {103, 'h', 'h', '=', 4, 4}, {56, 'c', 'c', 'r', 3, 3},  {57, 'c', 'c', 'r', 2, 2},
    {58, 'c', 'c', 'r', 3, 3}};

float Share(Draw& d) { return static_cast<float>(d.Below(257)) / 256.0f; }

void Convert(Pixels const& p, Draw& d, Digest& out) {
  kernel::ImageProcessFallback process;
  bool const is_yuv = p.code == 22 || p.code == 24 || p.code == 32, has_shares = p.code >= 85;
  bool const is_affine = p.code >= 56 && p.code <= 58;
  Size const s = is_yuv ? Halves(d) : DrawSize(d), other = DrawSize(d);
  Size const t = p.size == 'r' ? other : p.size == 't' ? Size{s.w, s.h} : s;
  unsigned int const type = is_affine ? unsigned{kFloat} : unsigned{kByte};
  Image src = d.Tensor(DimsOf(p.from, p.channels, s), LayoutOf(p.from), type);
  // Where pixels may keep their value, the target has one.
  Image dst = has_shares || is_affine || p.code == 86
                  ? d.Tensor(DimsOf(p.to, p.out_channels, t), LayoutOf(p.to), type)
                  : Blank(DimsOf(p.to, p.out_channels, t), LayoutOf(p.to), p.code == 65 ? unsigned{kFloat} : type);
  if (is_affine) {
    std::vector<float> matrix;
    for (int i = 0; i < 6; ++i) matrix.push_back(d.Unit() * (i % 3 == 2 ? 20.0f : 1.0f));
    process.ConvertPixel(src, dst, matrix.data(), p.code, nullptr);
  } else if (has_shares) {
    float const left = Share(d) * 0.5f, top = Share(d) * 0.5f, right = left + Share(d) * 0.4f;
    process.ConvertPixel(src, dst, left, top, right, top + Share(d) * 0.4f, p.code, nullptr);
  } else {
    process.ConvertPixel(src, dst, p.code, nullptr);
  }
  out.Add(*dst);
}

using Function = void(Image const&, Image&);

Operation Of(std::string const& name, Function* f) {
  return {"image/" + name, kCases, [=](Draw& d, Digest& out) {
            auto const has = [&](char const* part) { return name.find(part) != std::string::npos; };
            Size const s = DrawSize(d), other = DrawSize(d);
            unsigned int channels = d.From(1, 4);
            for (char const* const three : {"RGB2", "BGR2", "888_"}) channels = has(three) ? 3 : channels;
            for (char const* const four : {"RGBA", "BGRA"}) channels = has(four) ? 4 : channels;
            for (unsigned int n = 1; n <= 4 && has("Resize"); ++n)
              channels = has(("_C" + std::to_string(n)).c_str()) ? n : channels;
            Image const src = d.Tensor(DimsOf('h', channels, s), TensorShape::HWC, kByte);
            Size const t = has("Resize") ? other : has("90_") || has("270_") ? Size{s.w, s.h} : s;
            bool const to_planes = has("To_CHW");
            Image dst = Blank(DimsOf(to_planes ? 'c' : 'h',
                                     to_planes     ? 3
                                     : has("Gray") ? 1
                                                   : channels,
                                     t),
                              to_planes ? TensorShape::CHW : TensorShape::HWC, kByte);
            f(src, dst);
            out.Add(*dst);
          }};
}

// Blocks of 4 or 8 channels, planes or pixels.
Dims CropDims(std::string const& name, Size s) {
  if (name.find("C4HW4") != std::string::npos) return {3, s.h, s.w, 4};
  if (name.find("C8HW8") != std::string::npos) return {2, s.h, s.w, 8};
  return DimsOf(name.find("CHW") != std::string::npos ? 'c' : 'h', 3, s);
}

Operation Of(std::string const& name, void (*f)(Image const&, Count, Count, Count, Count, Image&)) {
  return {"image/" + name, kCases, [=](Draw& d, Digest& out) {
            Size const s = DrawSize(d), t = {d.From(1, s.h), d.From(1, s.w)};
            unsigned int const layout = name.find("C4HW4") != std::string::npos   ? TensorShape::C4HW4
                                        : name.find("C8HW8") != std::string::npos ? TensorShape::C8HW8
                                        : name.find("CHW") != std::string::npos   ? TensorShape::CHW
                                                                                  : TensorShape::HWC;
            Image const src = d.Tensor(CropDims(name, s), layout, kByte);
            Image dst = Blank(CropDims(name, t), layout, kByte);
            unsigned int const y = d.Below(s.h - t.h + 1), x = d.Below(s.w - t.w + 1);
            f(src, y, x, t.h, t.w, dst);
            out.Add(*dst);
          }};
}

Operation Of(std::string const& name,
             void (*f)(Image const&, int const&, int const&, int const&, int const&, unsigned char const&, Image&)) {
  return {"image/" + name, kCases, [=](Draw& d, Digest& out) {
            Size const s = DrawSize(d), t = DrawSize(d);
            Image const src = d.Tensor(DimsOf('h', 3, s), TensorShape::HWC, kByte);
            Image dst = Blank(DimsOf('h', 3, t), TensorShape::HWC, kByte);
            int const y = static_cast<int>(d.Below(30)) - 15, x = static_cast<int>(d.Below(60)) - 30;
            f(src, y, x, static_cast<int>(t.h), static_cast<int>(t.w), static_cast<unsigned char>(d.Below(256)), dst);
            out.Add(*dst);
          }};
}

Operation Of(std::string const& name, void (*f)(Image const&, Image const&, Image const&, Image&)) {
  return {"image/" + name, kCases, [=](Draw& d, Digest& out) {
            bool const from_bytes = name.find("_U8_") != std::string::npos,
                       to_short = name.find("S16") != std::string::npos;
            Dims const dims = DrawPlanes(d);
            Image const src = d.Tensor(dims, TensorShape::CHW, from_bytes ? unsigned{kByte} : unsigned{kFloat});
            Image const sub = d.Tensor({dims[0]}, TensorShape::C), mul = d.Tensor({dims[0]}, TensorShape::C);
            short const step = static_cast<short>(d.From(8, 12));
            Image dst =
                to_short ? Blank(dims, TensorShape::CHW, TensorShape::INT16, step) : Blank(dims, TensorShape::CHW);
            f(src, sub, mul, dst);
            out.Add(*dst);
          }};
}

using Matrix = std::shared_ptr<kernel::YUVCvtMatrix>;
struct Yuv {
  explicit Yuv(Draw& d) : size(Halves(d)), out(Blank(DimsOf('c', 3, size), TensorShape::CHW, kByte)) {
    y = d.Tensor(DimsOf('h', 1, size), TensorShape::HWC, kByte);
    for (float* gain : {&m->m0, &m->m1, &m->m2, &m->m3, &m->m4, &m->m5, &m->m6}) *gain = d.Unit() * 2.0f;
    for (float* offset : {&m->m7, &m->m8, &m->m9}) *offset = d.Unit() * 0.5f;
  }
  Image Chrominance(Draw& d, unsigned int n) const {
    return d.Tensor(DimsOf('h', n, {size.h / 2, size.w / 2}), TensorShape::HWC, kByte);
  }
  Size size;
  Image y, out;
  Matrix m = std::make_shared<kernel::YUVCvtMatrix>();
};

Operation Of(std::string const& name, void (*f)(Image const&, Image const&, Matrix const&, Image&)) {
  return {"image/" + name, kCases, [=](Draw& d, Digest& out) {
            Yuv yuv(d);
            f(yuv.y, yuv.Chrominance(d, 2), yuv.m, yuv.out);
            out.Add(*yuv.out);
          }};
}

Operation Of(std::string const& name, void (*f)(Image const&, Image const&, Image const&, Matrix const&, Image&)) {
  return {"image/" + name, kCases, [=](Draw& d, Digest& out) {
            Yuv yuv(d);
            Image const b = yuv.Chrominance(d, 1), r = yuv.Chrominance(d, 1);
            f(yuv.y, b, r, yuv.m, yuv.out);
            out.Add(*yuv.out);
          }};
}

void Warp(Draw& d, Digest& out) {
  unsigned int const channels = d.From(1, 4);
  Image const src = d.Tensor(DimsOf('c', channels, DrawSize(d)), TensorShape::CHW);
  Image const matrix = d.Tensor({6}, TensorShape::C);
  Image dst = Blank(DimsOf('c', channels, DrawSize(d)), TensorShape::CHW);
  F_WarpAffine_Bilinear_CHW_F32_Arm(src, matrix, dst);
  out.Add(*dst);
}

void NormaliseFloats(Draw& d, Digest& out) {
  Dims const dims = DrawPlanes(d);
  Image src = d.Tensor(dims, TensorShape::CHW), dst = Blank(dims, TensorShape::CHW);
  auto const mul = d.Floats(dims[0]), sub = d.Floats(dims[0]);
  unsigned int const given = d.From(1, 3);
  Normalize_CHW_Float_Fallback(src, dst, (given & 1) != 0 ? mul.data() : nullptr,
                               (given & 2) != 0 ? sub.data() : nullptr);
  out.Add(*dst);
}

void CameraFrame(Draw& d, Digest& out) {
  auto const format = static_cast<FrameFormat>(d.Below(6));
  unsigned int const width = d.From(1, 40), height = d.From(1, 30);
  auto const bytes = d.Tensor({4 * (width + 1) * (height + 1)}, TensorShape::FLEXIABLE, kByte);
  FrameTarget target;
  target.width = d.Width(), target.height = d.From(1, 20), target.turn = 90 * d.Below(4);
  target.colours = static_cast<FrameColours>(d.Below(3)), target.interleaved = d.Coin();
  if (d.Coin()) {
    target.crop_width = d.From(1, 40), target.crop_height = d.From(1, 30);
    target.left = static_cast<int>(d.Below(30)) - 10, target.top = static_cast<int>(d.Below(30)) - 10;
  }
  for (float& mean : target.mean) mean = 128.0f * d.Unit();
  for (float& scale : target.scale) scale = d.Unit();
  auto const frame = Frame::Packed(format, width, height, bytes->data, bytes->shape.dims[0]);
  out.Add(*TensorFromFrame(frame, target, Context()));
}

}  // namespace

#define TALVO_OF(f) Of(#f, f)
#define TALVO_BOTH(f) Of(#f "_Fallback", f##_Fallback), Of(#f "_Arm", f##_Arm)
#define TALVO_RESIZE(f) Of(#f "_Fallback", f##_Fallback), Of(#f "_Arm_M1", f##_Arm_M1)
#define TALVO_CROP(f) Of(#f "_Memcpy", f##_Memcpy), Of(#f "_Arm", f##_Arm)

std::vector<Operation> Images() {
  std::vector<Operation> operations = {TALVO_BOTH(F_ColorCvt_RGBA2RGB_HWC_UInt8_To_CHW_UInt8),
                                       TALVO_BOTH(F_ColorCvt_BGRA2RGB_HWC_UInt8_To_CHW_UInt8),
                                       TALVO_OF(F_ColorCvt_RGB2RGB_HWC_UInt8_To_CHW_UInt8_Arm),
                                       TALVO_OF(F_ColorCvt_RGB2BGR_HWC_UInt8_To_CHW_UInt8_Arm),
                                       TALVO_BOTH(F_ColorCvt_BGR888_To_Gray8),
                                       TALVO_BOTH(F_ColorCvt_RGB888_To_Gray8),
                                       TALVO_BOTH(F_ColorCvt_BGRA8888_To_Gray8),
                                       TALVO_BOTH(F_ColorCvt_RGBA8888_To_Gray8),
                                       TALVO_BOTH(F_Rotate_Clockwise90_HWC),
                                       TALVO_BOTH(F_Rotate_Clockwise180_HWC),
                                       TALVO_BOTH(F_Rotate_Clockwise270_HWC),
                                       TALVO_BOTH(F_HFlip_HWC),
                                       TALVO_BOTH(F_VFlip_HWC),
                                       TALVO_RESIZE(F_Resize_Nearest_HWC_U8_C1),
                                       TALVO_RESIZE(F_Resize_Nearest_HWC_U8_C2),
                                       TALVO_RESIZE(F_Resize_Nearest_HWC_U8_C3),
                                       TALVO_RESIZE(F_Resize_Nearest_HWC_U8_C4),
                                       TALVO_RESIZE(F_Resize_Bilinear_HWC_U8_C1),
                                       TALVO_RESIZE(F_Resize_Bilinear_HWC_U8_C2),
                                       TALVO_RESIZE(F_Resize_Bilinear_HWC_U8_C3),
                                       TALVO_RESIZE(F_Resize_Bilinear_HWC_U8_C4),
                                       TALVO_CROP(F_Crop_HWC),
                                       TALVO_CROP(F_Crop_CHW),
                                       TALVO_CROP(F_Crop_C4HW4),
                                       TALVO_CROP(F_Crop_C8HW8),
                                       TALVO_CROP(F_Crop_U8_HWC),
                                       TALVO_BOTH(F_Normalize_CHW_U8_To_CHW_S16),
                                       TALVO_BOTH(F_Normalize_CHW_U8_To_CHW_F32),
                                       TALVO_BOTH(F_Normalize_CHW_F32),
                                       TALVO_BOTH(F_ColorCvt_YUV_2Plane_UInt8_To_CHW_UInt8),
                                       TALVO_BOTH(F_ColorCvt_YUV_3Plane_UInt8_To_CHW_UInt8),
                                       {"image/TensorFromFrame", 3 * kCases, CameraFrame},
                                       {"image/F_WarpAffine_Bilinear_CHW_F32_Arm", kCases, Warp},
                                       {"image/Normalize_CHW_Float_Fallback", kCases, NormaliseFloats}};
  for (Pixels const& pixels : kPixels) {
    operations.push_back({"image/ConvertPixel_" + std::to_string(pixels.code), kCases,
                          [&pixels](Draw& d, Digest& out) { Convert(pixels, d, out); }});
  }
  return operations;
}

}  // namespace talvo::certificate
