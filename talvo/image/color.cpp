#include "talvo/image/color.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "talvo/image/image_process_fallback.h"
#include "talvo/image/image_support.h"
#include "talvo/image/planes_support.h"
#include "talvo/kernel/rows/pixels.h"
#include "talvo/utility/restrict.h"

namespace talvo::kernel {

namespace {

using namespace image;

constexpr std::size_t kRgb = 3, kRgba = 4;  // bytes of an interleaved pixel

void SplitFrame(unsigned char const* pixels, std::size_t pixel_bytes, std::size_t count, Planes const& planes) {
  pixel_bytes == kRgba ? SplitPixels4(pixels, count, planes) : SplitPixels3(pixels, count, planes);
}

Planes Reversed(Planes const& planes) { return {planes[2], planes[1], planes[0]}; }

// Pixels of a plane of `dst`.
std::size_t PlanePixels(Images const& images) {
  return Volume(Extent(images.name, "dst", images.dst, 1), Extent(images.name, "dst", images.dst, 2));
}

// The same for the colour copies, which find their planes with Locate3D: a rank other than 3 ends the process.
std::size_t CopiedPixels(Images const& images) {
  images.dst.Locate3D(0, 0, 0);
  return PlanePixels(images);
}

// Three planes from interleaved pixels, in their order or in the reverse one.
void SplitInto(Images const& images, std::size_t pixel_bytes, bool reverse) {
  std::size_t const count = CopiedPixels(images);
  Planes const planes = ThreePlanes(images.name, "dst", images.dst, count);
  auto const* const pixels = Memory(images.name, "src", images.src, Volume(count, pixel_bytes));
  SplitFrame(pixels, pixel_bytes, count, reverse ? Reversed(planes) : planes);
}

void ToGray(Images const& images, std::size_t pixel_bytes, bool blue_first) {
  Assert(images.dst.shape.layout == TensorShape::CHW, nullptr);
  unsigned int const layout = images.src.shape.layout;
  if (layout != TensorShape::HWC && layout != TensorShape::CHW) return;
  std::size_t const count = PlanePixels(images);
  unsigned char* const gray = Memory(images.name, "dst", images.dst, count);
  if (layout == TensorShape::HWC) {
    auto const* const pixels = Memory(images.name, "src", images.src, Volume(count, pixel_bytes));
    if (pixel_bytes == kRgba) return rows::GrayFour(pixels, count, gray);
    return rows::GrayThree(pixels, blue_first ? rows::kBlue : rows::kRed, blue_first ? rows::kRed : rows::kBlue, count,
                           gray);
  }
  NeedRank(images.name, "src", images.src, 3);
  Planes const planes = ThreePlanes(images.name, "src", images.src, count);
  Planes const rgb = blue_first ? Reversed(planes) : planes;
  rows::GrayRow(rgb[0], rgb[1], rgb[2], count, gray);
}

// Elements, extents and memory of the two conversions between HWC and CHW.
struct Exchange {
  Exchange(Images const& images, std::size_t plane_axis, std::size_t channel_axis)
      : element_bytes(images.src.shape.data_type == TensorShape::FLOAT32 ? 4 : 1),
        count(Volume(Extent(images.name, "dst", images.dst, plane_axis),
                     Extent(images.name, "dst", images.dst, plane_axis + 1))),
        channels(Extent(images.name, "dst", images.dst, channel_axis)) {
    unsigned int const type = images.src.shape.data_type;
    Assert(type == TensorShape::UINT8 || type == TensorShape::FLOAT32, "Not Implemented.");
    std::size_t const bytes = Volume(count, channels, element_bytes);
    from = Memory(images.name, "src", images.src, bytes);
    to = Memory(images.name, "dst", images.dst, bytes);
  }

  std::size_t element_bytes, count, channels;
  void const* from = nullptr;
  void* to = nullptr;
};

void WidenRow(unsigned char const* TALVO_RESTRICT bytes, std::size_t count, float* TALVO_RESTRICT floats) {
  for (std::size_t i = 0; i < count; ++i) floats[i] = bytes[i];
}

}  // namespace

void ImageProcessFallback::ConvertRGBAtoRGB(TensorPtr& src, TensorPtr& dst, ContextPtr) {
  Images const images("ConvertRGBAtoRGB", src, dst);
  Assert(images.dst.shape.layout == TensorShape::CHW, nullptr);
  SplitInto(images, kRgba, false);
}

void ImageProcessFallback::ConvertRGBAtoBGR(TensorPtr& src, TensorPtr& dst, ContextPtr) {
  Images const images("ConvertRGBAtoBGR", src, dst);
  Assert(images.dst.shape.layout == TensorShape::CHW, nullptr);
  SplitInto(images, kRgba, true);
}

void ImageProcessFallback::ConvertRGBtoBGR(TensorPtr& src, TensorPtr& dst, ContextPtr) {
  Images const images("ConvertRGBtoBGR", src, dst);
  if (images.src.shape.layout != TensorShape::CHW) return SplitInto(images, kRgb, true);
  std::size_t const count = CopiedPixels(images);
  Planes const to = ThreePlanes(images.name, "dst", images.dst, count);
  NeedRank(images.name, "src", images.src, 3);
  Planes const from = ThreePlanes(images.name, "src", images.src, count);
  if (count == 0) return;
  for (std::size_t k = 0; k < 3; ++k) std::memcpy(to[k], from[2 - k], count);
}

void ImageProcessFallback::ConvertRGB2Gray(TensorPtr& src, TensorPtr& dst, ContextPtr) {
  ToGray(Images("ConvertRGB2Gray", src, dst), kRgb, false);
}

void ImageProcessFallback::ConvertRGBA2Gray(TensorPtr& src, TensorPtr& dst, ContextPtr) {
  ToGray(Images("ConvertRGBA2Gray", src, dst), kRgba, false);
}

void ImageProcessFallback::ConvertBGR2Gray(TensorPtr& src, TensorPtr& dst, ContextPtr) {
  ToGray(Images("ConvertBGR2Gray", src, dst), kRgb, true);
}

void ImageProcessFallback::HWC2CHW(TensorPtr& src, TensorPtr& dst, ContextPtr) {
  Images const images("HWC2CHW", src, dst);
  Assert(images.dst.shape.layout == TensorShape::CHW, nullptr);
  Exchange const e(images, 1, 0);
  if (e.element_bytes == 1) {
    SplitPixels(static_cast<std::uint8_t const*>(e.from), e.count, e.channels, static_cast<std::uint8_t*>(e.to));
  } else {
    SplitPixels(static_cast<std::uint32_t const*>(e.from), e.count, e.channels, static_cast<std::uint32_t*>(e.to));
  }
}

void ImageProcessFallback::CHW2HWC(TensorPtr& src, TensorPtr& dst, ContextPtr) {
  Images const images("CHW2HWC", src, dst);
  Assert(images.dst.shape.layout == TensorShape::HWC, nullptr);
  Exchange const e(images, 0, 2);
  if (e.element_bytes == 1) {
    MergePlanes(static_cast<std::uint8_t const*>(e.from), e.count, e.channels, static_cast<std::uint8_t*>(e.to));
  } else {
    MergePlanes(static_cast<std::uint32_t const*>(e.from), e.count, e.channels, static_cast<std::uint32_t*>(e.to));
  }
}

void ImageProcessFallback::Convert8U_To_32F(TensorPtr& src, TensorPtr& dst, ContextPtr) {
  Images const images("Convert8U_To_32F", src, dst);
  Assert(images.src.shape.data_type == TensorShape::UINT8, nullptr);
  std::size_t const rows = Extent(images.name, "src", images.src, 2);
  std::size_t const count = Volume(images.src.shape.dims[0], images.src.shape.dims[1], rows);
  auto const* const bytes = Memory(images.name, "src", images.src, count);
  WidenRow(bytes, count,
           reinterpret_cast<float*>(Memory(images.name, "dst", images.dst, Volume(count, sizeof(float)))));
}

}  // namespace talvo::kernel

namespace talvo::kernel::functional {
namespace {

void ToPlanes(char const* name, TensorPtr const& i_img, TensorPtr const& o_img, std::size_t pixel_bytes, bool reverse) {
  TensorCPU const& input = Cast(i_img, "i_img");
  TensorCPU const& output = Cast(o_img, "o_img");
  NeedType(input, "i_img", TensorShape::UINT8, "UInt8");
  NeedType(output, "o_img", TensorShape::UINT8, "UInt8");
  NeedLayout(input, "i_img", TensorShape::HWC, "CHW");  // the message names the output's layout for both
  NeedLayout(output, "o_img", TensorShape::CHW, "CHW");
  NeedMainMemory(input, "i_img");
  NeedMainMemory(output, "o_img");
  NeedRank(name, "o_img", output, 3);
  std::size_t const count = Volume(Extent(name, "i_img", input, 0), Extent(name, "i_img", input, 1));
  auto const* const pixels = Memory(name, "i_img", input, Volume(count, pixel_bytes));
  Planes const planes = ThreePlanes(name, "o_img", output, count);
  SplitFrame(pixels, pixel_bytes, count, reverse ? Reversed(planes) : planes);
}

struct Weights {
  double first, second, third;
};
constexpr Weights kWeights3 = {0.299, 0.587, 0.114};
constexpr Weights kWeights4 = {0.114, 0.587, 0.299};

template <std::size_t kPixelBytes>
void GrayDouble(unsigned char const* TALVO_RESTRICT pixels, Weights const weights, std::size_t count,
                unsigned char* TALVO_RESTRICT gray) {
  for (std::size_t i = 0; i < count; ++i) {
    unsigned char const* const p = pixels + i * kPixelBytes;
    double const sum = weights.first * p[0] + weights.second * p[1] + weights.third * p[2];
    gray[i] = static_cast<unsigned char>(std::min(static_cast<int>(sum), 255));
  }
}

template <std::size_t kPixelBytes>
void ToGray8(char const* name, TensorPtr const& i_img, TensorPtr const& o_img, Weights const& weights) {
  TensorCPU const& input = Cast(i_img, "i_img");
  TensorCPU const& output = Cast(o_img, "o_img");
  std::size_t const count = Volume(Extent(name, "i_img", input, 0), Extent(name, "i_img", input, 1));
  auto const* const pixels = Memory(name, "i_img", input, Volume(count, kPixelBytes));
  GrayDouble<kPixelBytes>(pixels, weights, count, Memory(name, "o_img", output, count));
}

}  // namespace

void F_ColorCvt_RGBA2RGB_HWC_UInt8_To_CHW_UInt8_Fallback(TensorPtr const& i_img, TensorPtr& o_img) {
  ToPlanes(__func__, i_img, o_img, kRgba, false);
}

void F_ColorCvt_RGBA2RGB_HWC_UInt8_To_CHW_UInt8_Arm(TensorPtr const& i_img, TensorPtr& o_img) {
  ToPlanes(__func__, i_img, o_img, kRgba, false);
}

void F_ColorCvt_BGRA2RGB_HWC_UInt8_To_CHW_UInt8_Fallback(TensorPtr const& i_img, TensorPtr& o_img) {
  ToPlanes(__func__, i_img, o_img, kRgba, true);
}

void F_ColorCvt_BGRA2RGB_HWC_UInt8_To_CHW_UInt8_Arm(TensorPtr const& i_img, TensorPtr& o_img) {
  ToPlanes(__func__, i_img, o_img, kRgba, true);
}

void F_ColorCvt_RGB2RGB_HWC_UInt8_To_CHW_UInt8_Arm(TensorPtr const& i_img, TensorPtr& o_img) {
  ToPlanes(__func__, i_img, o_img, kRgb, false);
}

void F_ColorCvt_RGB2BGR_HWC_UInt8_To_CHW_UInt8_Arm(TensorPtr const& i_img, TensorPtr& o_img) {
  ToPlanes(__func__, i_img, o_img, kRgb, true);
}

void F_ColorCvt_BGR888_To_Gray8_Fallback(TensorPtr const& i_img, TensorPtr& o_img) {
  ToGray8<kRgb>(__func__, i_img, o_img, kWeights3);
}

void F_ColorCvt_BGR888_To_Gray8_Arm(TensorPtr const& i_img, TensorPtr& o_img) {
  ToGray8<kRgb>(__func__, i_img, o_img, kWeights3);
}

void F_ColorCvt_RGB888_To_Gray8_Fallback(TensorPtr const& i_img, TensorPtr& o_img) {
  ToGray8<kRgb>(__func__, i_img, o_img, kWeights3);
}

void F_ColorCvt_RGB888_To_Gray8_Arm(TensorPtr const& i_img, TensorPtr& o_img) {
  ToGray8<kRgb>(__func__, i_img, o_img, kWeights3);
}

void F_ColorCvt_BGRA8888_To_Gray8_Fallback(TensorPtr const& i_img, TensorPtr& o_img) {
  ToGray8<kRgba>(__func__, i_img, o_img, kWeights4);
}

void F_ColorCvt_BGRA8888_To_Gray8_Arm(TensorPtr const& i_img, TensorPtr& o_img) {
  ToGray8<kRgba>(__func__, i_img, o_img, kWeights4);
}

void F_ColorCvt_RGBA8888_To_Gray8_Fallback(TensorPtr const& i_img, TensorPtr& o_img) {
  ToGray8<kRgba>(__func__, i_img, o_img, kWeights4);
}

void F_ColorCvt_RGBA8888_To_Gray8_Arm(TensorPtr const& i_img, TensorPtr& o_img) {
  ToGray8<kRgba>(__func__, i_img, o_img, kWeights4);
}

}  // namespace talvo::kernel::functional
