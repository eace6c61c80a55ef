#include "talvo/image/color.h"

#include <algorithm>
#include <cstring>

#include "talvo/image/image_process_fallback.h"
#include "talvo/image/image_support.h"
#include "talvo/kernel/rows/pixels.h"
#include "talvo/kernel/rows/transpose.h"
#include "talvo/utility/restrict_support.h"

namespace talvo::kernel {

namespace {

using namespace image;

constexpr std::size_t kRgb = 3, kRgba = 4;  // bytes of an interleaved pixel

// Planes 0, 1 and 2 from the first three bytes of each pixel, in this order or in the reverse one.
void SplitPixels(unsigned char const* pixels, std::size_t pixel_bytes, std::size_t count, Planes const& planes,
                 bool reverse) {
  auto const& split = pixel_bytes == kRgba ? rows::SplitFour : rows::SplitThree;
  split(pixels, count, planes[reverse ? 2 : 0], planes[1], planes[reverse ? 0 : 2]);
}

// The planes of a colour copy are found with Locate3D: a `dst` of a rank other than 3 ends the process.
void LocatePlanes(Argument const& dst) { dst.tensor().Locate3D(0, 0, 0); }

void CopyColours(Argument const& src, Argument const& dst, std::size_t pixel_bytes, bool reverse) {
  LocatePlanes(dst);
  std::size_t const count = dst.Pixels(1);
  Planes const planes = ThreePlanes(dst, count);
  SplitPixels(src.Memory(Volume(count, pixel_bytes)), pixel_bytes, count, planes, reverse);
}

void CopyRgba(char const* operation, TensorPtr const& source, TensorPtr const& destination, bool reverse) {
  Argument const src(operation, "src", source), dst(operation, "dst", destination);
  dst.Validate(dst.shape().layout == TensorShape::CHW, "needs layout CHW");
  CopyColours(src, dst, kRgba, reverse);
}

void ToGray(char const* operation, TensorPtr const& source, TensorPtr const& destination, std::size_t pixel_bytes,
            bool blue_first) {
  Argument const src(operation, "src", source), dst(operation, "dst", destination);
  dst.Validate(dst.shape().layout == TensorShape::CHW, "needs layout CHW");
  unsigned int const layout = src.shape().layout;
  if (layout != TensorShape::HWC && layout != TensorShape::CHW) return;
  std::size_t const count = dst.Pixels(1);
  unsigned char* const gray = dst.Memory(count);
  if (layout == TensorShape::CHW) {
    Planes const planes = ThreePlanes(src, count);
    return rows::GrayRow(planes[blue_first ? 2 : 0], planes[1], planes[blue_first ? 0 : 2], count, gray);
  }
  auto const* const pixels = src.Memory(Volume(count, pixel_bytes));
  if (pixel_bytes == kRgba) return rows::GrayFour(pixels, count, gray);
  rows::GrayThree(pixels, blue_first ? rows::kBlue : rows::kRed, blue_first ? rows::kRed : rows::kBlue, count, gray);
}

// An interleaved image and a planar one of the same extents, which are those of `dst`.
struct Exchanged {
  std::size_t element_bytes, pixels, channels;
  unsigned char const* from;
  unsigned char* to;
};

Exchanged ValidateExchange(Argument const& src, Argument const& dst, unsigned int dst_layout) {
  dst.Validate(dst.shape().layout == dst_layout, "needs the layout that the operation is named after");
  unsigned int const type = src.shape().data_type;
  if (type != TensorShape::UINT8 && type != TensorShape::FLOAT32) Refuse("Not Implemented.");
  std::size_t const row_axis = dst_layout == TensorShape::CHW ? 1 : 0, channel_axis = row_axis == 1 ? 0 : 2;
  Exchanged e{};
  e.element_bytes = runtime::ElementSize(type);
  e.pixels = dst.Pixels(row_axis);
  e.channels = dst.Extent(channel_axis);
  std::size_t const bytes = Volume(e.pixels, e.channels, e.element_bytes);
  if (bytes == 0) return {};  // extents beside a 0 may be as large as they like: nobody walks them
  e.from = src.Memory(bytes);
  e.to = dst.Memory(bytes);
  return e;
}

std::ptrdiff_t Signed(std::size_t bytes) { return static_cast<std::ptrdiff_t>(bytes); }

}  // namespace

void ImageProcessFallback::ConvertRGBAtoRGB(TensorPtr& src, TensorPtr& dst, ContextPtr) {
  CopyRgba("ConvertRGBAtoRGB", src, dst, false);
}

void ImageProcessFallback::ConvertRGBAtoBGR(TensorPtr& src, TensorPtr& dst, ContextPtr) {
  CopyRgba("ConvertRGBAtoBGR", src, dst, true);
}

void ImageProcessFallback::ConvertRGBtoBGR(TensorPtr& source, TensorPtr& destination, ContextPtr) {
  Argument const src("ConvertRGBtoBGR", "src", source), dst("ConvertRGBtoBGR", "dst", destination);
  if (src.shape().layout != TensorShape::CHW) return CopyColours(src, dst, kRgb, true);
  LocatePlanes(dst);
  std::size_t const count = dst.Pixels(1);
  Planes const to = ThreePlanes(dst, count), from = ThreePlanes(src, count);
  if (count == 0) return;
  for (std::size_t k = 0; k < 3; ++k) std::memcpy(to[k], from[2 - k], count);
}

void ImageProcessFallback::ConvertRGB2Gray(TensorPtr& src, TensorPtr& dst, ContextPtr) {
  ToGray("ConvertRGB2Gray", src, dst, kRgb, false);
}

void ImageProcessFallback::ConvertRGBA2Gray(TensorPtr& src, TensorPtr& dst, ContextPtr) {
  ToGray("ConvertRGBA2Gray", src, dst, kRgba, false);
}

void ImageProcessFallback::ConvertBGR2Gray(TensorPtr& src, TensorPtr& dst, ContextPtr) {
  ToGray("ConvertBGR2Gray", src, dst, kRgb, true);
}

// Between pixels and planes a matrix [pixels, channels] is transposed.

void ImageProcessFallback::HWC2CHW(TensorPtr& src, TensorPtr& dst, ContextPtr) {
  Exchanged const e = ValidateExchange({"HWC2CHW", "src", src}, {"HWC2CHW", "dst", dst}, TensorShape::CHW);
  rows::TransposeElements(e.element_bytes, {e.from, Signed(e.channels * e.element_bytes), e.pixels, e.channels, e.to,
                                            Signed(e.pixels * e.element_bytes), Signed(e.element_bytes)});
}

void ImageProcessFallback::CHW2HWC(TensorPtr& src, TensorPtr& dst, ContextPtr) {
  Exchanged const e = ValidateExchange({"CHW2HWC", "src", src}, {"CHW2HWC", "dst", dst}, TensorShape::HWC);
  rows::TransposeElements(e.element_bytes, {e.from, Signed(e.pixels * e.element_bytes), e.channels, e.pixels, e.to,
                                            Signed(e.channels * e.element_bytes), Signed(e.element_bytes)});
}

void ImageProcessFallback::Convert8U_To_32F(TensorPtr& source, TensorPtr& destination, ContextPtr) {
  Argument const src("Convert8U_To_32F", "src", source), dst("Convert8U_To_32F", "dst", destination);
  src.Validate(src.shape().data_type == TensorShape::UINT8, "needs UINT8");
  // Rank first: Extent refuses an axis that is not there, before memory is asked for.
  std::size_t const last = src.Extent(2), count = Volume(src.Extent(0), src.Extent(1), last);
  rows::NormaliseBytes(src.Memory(count), count, 0.0f, 1.0f, dst.Memory<float>(count));
}

}  // namespace talvo::kernel

namespace talvo::kernel::functional {
namespace {

void ToPlanes(char const* function, TensorPtr const& i_img, TensorPtr const& o_img, std::size_t pixel_bytes,
              bool reverse) {
  Argument const input(function, "i_img", i_img), output(function, "o_img", o_img);
  input.ValidateTensorCPU();
  output.ValidateTensorCPU();
  input.ValidateType(TensorShape::UINT8, "UInt8");
  output.ValidateType(TensorShape::UINT8, "UInt8");
  input.ValidateLayout(TensorShape::HWC, "CHW");  // the message names the output's layout for both
  output.ValidateLayout(TensorShape::CHW, "CHW");
  input.ValidateMainMemory();
  output.ValidateMainMemory();
  std::size_t const count = input.Pixels(0);
  auto const* const pixels = input.Memory(Volume(count, pixel_bytes));
  SplitPixels(pixels, pixel_bytes, count, ThreePlanes(output, count), reverse);
}

struct Weights {
  double first, second, third;
};
// Rec. ITU-R BT.601, for the bytes as they lie. The forms of three bytes weigh the first as red and those of four as
// blue, whatever their name says: the results are the interface's.
constexpr Weights kWeights3 = {0.299, 0.587, 0.114};
constexpr Weights kWeights4 = {0.114, 0.587, 0.299};

// Sums in byte order. Each byte has one of 256 products: looking them up takes the same time on every instruction set,
// and vectors of doubles take less on the widest alone.
template <std::size_t kPixelBytes>
void GrayDouble(unsigned char const* TALVO_RESTRICT pixels, Weights const& weights, std::size_t count,
                unsigned char* TALVO_RESTRICT gray) {
  double first[256], second[256], third[256];
  for (int value = 0; value < 256; ++value) {
    first[value] = weights.first * value;
    second[value] = weights.second * value;
    third[value] = weights.third * value;
  }
  for (std::size_t i = 0; i < count; ++i) {
    unsigned char const* const p = pixels + i * kPixelBytes;
    double const sum = first[p[0]] + second[p[1]] + third[p[2]];
    gray[i] = static_cast<unsigned char>(std::min(static_cast<int>(sum), 255));
  }
}

template <std::size_t kPixelBytes>
void ToGray8(char const* function, TensorPtr const& i_img, TensorPtr const& o_img, Weights const& weights) {
  Argument const input(function, "i_img", i_img), output(function, "o_img", o_img);
  input.ValidateTensorCPU();
  output.ValidateTensorCPU();
  std::size_t const count = input.Pixels(0);
  auto const* const pixels = input.Memory(Volume(count, kPixelBytes));
  GrayDouble<kPixelBytes>(pixels, weights, count, output.Memory(count));
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
