#include "talvo/image/resize.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

#include "talvo/image/bilinear_support.h"
#include "talvo/image/image_process_fallback.h"
#include "talvo/image/image_support.h"
#include "talvo/utility/restrict_support.h"

namespace talvo::kernel {
namespace {

using namespace image;

// The two frames of a resize, in pixels of `pixel_bytes`.
struct Frames {
  unsigned char const* from;
  std::size_t from_height, from_width;
  unsigned char* to;
  std::size_t to_height, to_width;
  std::size_t pixel_bytes;

  bool HasNoOutput() const { return to_height == 0 || to_width == 0; }
};

// Rows and columns are the axes `row_axis` and `row_axis` + 1 of both. Memory is looked at only where there is an
// output.
Frames FramesOf(Argument const& input, Argument const& output, std::size_t row_axis, std::size_t pixel_bytes) {
  Frames f{};
  f.from_height = input.Extent(row_axis);
  f.from_width = input.Extent(row_axis + 1);
  f.to_height = output.Extent(row_axis);
  f.to_width = output.Extent(row_axis + 1);
  f.pixel_bytes = pixel_bytes;
  if (f.HasNoOutput()) return f;
  if (f.from_height == 0 || f.from_width == 0) {
    Refuse("%s: %s of %zu x %zu pixels, needs at least one", input.function(), input.name(), f.from_height,
           f.from_width);
  }
  f.from = input.Memory(Volume(f.from_height, f.from_width, pixel_bytes));
  f.to = output.Memory(Volume(f.to_height, f.to_width, pixel_bytes));
  return f;
}

Frames FlexiableFrames(char const* operation, TensorPtr const& source, TensorPtr const& destination,
                       std::size_t row_axis, std::size_t pixel_bytes) {
  Argument const src(operation, "src", source), dst(operation, "dst", destination);
  src.Validate(src.shape().layout == TensorShape::FLEXIABLE, "needs layout FLEXIABLE");
  dst.Validate(dst.shape().layout == TensorShape::FLEXIABLE, "needs layout FLEXIABLE");
  return FramesOf(src, dst, row_axis, pixel_bytes);
}

// ---- Nearest: a table of source pixels for the rows and one for the columns.

using Indices = std::vector<std::uint32_t>;
constexpr std::uint32_t kSkip = 0xFFFFFFFF;  // a pixel that keeps its bytes; no tensor has a pixel of this number

template <std::size_t kPixelBytes>
void CopyColumns(unsigned char const* TALVO_RESTRICT from, Indices const& columns, unsigned char* TALVO_RESTRICT to) {
  std::size_t const count = columns.size();
  std::uint32_t const* const index = columns.data();
  for (std::size_t x = 0; x < count; ++x) {
    if (index[x] == kSkip) continue;
    std::memcpy(to + x * kPixelBytes, from + std::size_t{index[x]} * kPixelBytes, kPixelBytes);
  }
}

void CopyByTables(Frames const& f, Indices const& rows, Indices const& columns) {
  for (std::size_t y = 0; y < f.to_height; ++y) {
    if (rows[y] == kSkip) continue;
    unsigned char const* const from = f.from + rows[y] * f.from_width * f.pixel_bytes;
    unsigned char* const to = f.to + y * f.to_width * f.pixel_bytes;
    switch (f.pixel_bytes) {
      case 1:
        CopyColumns<1>(from, columns, to);
        break;
      case 2:
        CopyColumns<2>(from, columns, to);
        break;
      case 3:
        CopyColumns<3>(from, columns, to);
        break;
      default:
        CopyColumns<4>(from, columns, to);
        break;
    }
  }
}

// The class's nearest: rounds up from the truncated position where the rest is half a pixel or more.
Indices RoundedIndices(std::size_t from, std::size_t to) {
  Indices indices(to);
  auto const last = static_cast<std::int64_t>(from) - 1;
  for (std::size_t i = 0; i < to; ++i) {
    float const s = CentreAligned(i, Scale(from, to));
    auto k = static_cast<std::int64_t>(s);
    float rest = k < 0 ? 0.0f : s - static_cast<float>(k);
    k = std::max<std::int64_t>(k, 0);
    // At the last pixel and behind it k is held one pixel before, so that the rest takes it over.
    if (k >= last) rest = 1.0f;
    indices[i] = static_cast<std::uint32_t>(std::min(k, last - 1) + (rest >= 0.5f ? 1 : 0));
  }
  return indices;
}

// The crop's nearest: `first` and `span` are the first pixel of the crop and the distance to its last.
Indices CropIndices(std::int64_t first, std::int64_t span, std::size_t from, std::size_t to) {
  Indices indices(to, kSkip);
  auto const last = static_cast<std::int64_t>(from) - 1;
  float const scale = static_cast<float>(span + 1) / static_cast<float>(to);
  for (std::size_t i = 0; i < to; ++i) {
    float const s = CentreAligned(i, static_cast<double>(scale));
    auto const k = static_cast<std::int64_t>(s);
    std::int64_t const inside = std::max<std::int64_t>(k, 0);
    float const rest = k < 0 || inside >= span ? 0.0f : s - static_cast<float>(k);
    std::int64_t const index = std::min(inside, span) + first;
    if (index < 0 || index > last) continue;
    indices[i] = static_cast<std::uint32_t>(index + (index < last && rest >= 0.5f ? 1 : 0));
  }
  return indices;
}

void CropResizeNearest(char const* operation, TensorPtr const& source, TensorPtr const& destination, float left_share,
                       float top_share, float right_share, float bottom_share, std::size_t pixel_bytes) {
  Frames const f = FlexiableFrames(operation, source, destination, 0, pixel_bytes);
  if (f.HasNoOutput()) return;
  std::int64_t const left = PixelOfShare(operation, left_share, f.from_width);
  std::int64_t const top = PixelOfShare(operation, top_share, f.from_height);
  std::int64_t const right = PixelOfShare(operation, right_share, f.from_width);
  std::int64_t const bottom = PixelOfShare(operation, bottom_share, f.from_height);
  CopyByTables(f, CropIndices(top, bottom - top, f.from_height, f.to_height),
               CropIndices(left, right - left, f.from_width, f.to_width));
}

void ResizeBilinear(Frames const& f) {
  if (f.HasNoOutput()) return;
  image::ResizeBilinear({f.from, f.from_width * f.pixel_bytes}, Taps(f.from_height, f.to_height),
                        Taps(f.from_width, f.to_width), f.pixel_bytes, f.to);
}

}  // namespace

void ImageProcessFallback::Resize_Nearest_C1(TensorPtr& src, TensorPtr& dst, ContextPtr) {
  Frames const f = FlexiableFrames("Resize_Nearest_C1", src, dst, 0, 1);
  if (f.HasNoOutput()) return;
  CopyByTables(f, RoundedIndices(f.from_height, f.to_height), RoundedIndices(f.from_width, f.to_width));
}

void ImageProcessFallback::Resize_Bilinear_C1(TensorPtr& src, TensorPtr& dst, ContextPtr) {
  ResizeBilinear(FlexiableFrames("Resize_Bilinear_C1", src, dst, 1, 1));  // three axes, the first being 1
}

void ImageProcessFallback::Resize_Bilinear_C2(TensorPtr& src, TensorPtr& dst, ContextPtr) {
  ResizeBilinear(FlexiableFrames("Resize_Bilinear_C2", src, dst, 0, 2));
}

void ImageProcessFallback::Resize_Bilinear_C3(TensorPtr& src, TensorPtr& dst, ContextPtr) {
  ResizeBilinear(FlexiableFrames("Resize_Bilinear_C3", src, dst, 0, 3));
}

void ImageProcessFallback::Resize_Bilinear_C4(TensorPtr& src, TensorPtr& dst, ContextPtr) {
  ResizeBilinear(FlexiableFrames("Resize_Bilinear_C4", src, dst, 0, 4));
}

void ImageProcessFallback::Crop_Resize_Nearest_C1(TensorPtr& src, TensorPtr& dst, float left, float top, float right,
                                                  float bottom, ContextPtr) {
  CropResizeNearest("Crop_Resize_Nearest_C1", src, dst, left, top, right, bottom, 1);
}

void ImageProcessFallback::Crop_Resize_Nearest_C3(TensorPtr& src, TensorPtr& dst, float left, float top, float right,
                                                  float bottom, ContextPtr) {
  CropResizeNearest("Crop_Resize_Nearest_C3", src, dst, left, top, right, bottom, 3);
}

void ImageProcessFallback::Crop_Resize_Nearest_C4(TensorPtr& src, TensorPtr& dst, float left, float top, float right,
                                                  float bottom, ContextPtr) {
  CropResizeNearest("Crop_Resize_Nearest_C4", src, dst, left, top, right, bottom, 4);
}

}  // namespace talvo::kernel

namespace talvo::kernel::functional {
namespace {

Frames FreeFrames(char const* function, TensorPtr const& i_img, TensorPtr const& o_img, std::size_t pixel_bytes) {
  Argument const input(function, "i_img", i_img), output(function, "o_img", o_img);
  input.ValidateTensorCPU();
  output.ValidateTensorCPU();
  return FramesOf(input, output, 0, pixel_bytes);
}

// The free nearest: steps are added up, not multiplied out, and positions are truncated.
Indices SummedIndices(std::size_t from, std::size_t to) {
  Indices indices(to);
  float const step = static_cast<float>(from) / static_cast<float>(to);
  float position = 0.0f;
  for (std::size_t i = 0; i < to; ++i, position += step) {
    indices[i] = static_cast<std::uint32_t>(std::min(static_cast<std::size_t>(position), from - 1));
  }
  return indices;
}

void ResizeNearest(Frames const& f) {
  if (f.HasNoOutput()) return;
  CopyByTables(f, SummedIndices(f.from_height, f.to_height), SummedIndices(f.from_width, f.to_width));
}

}  // namespace

void F_Resize_Nearest_HWC_U8_C1_Fallback(TensorPtr const& i_img, TensorPtr& o_img) {
  ResizeNearest(FreeFrames(__func__, i_img, o_img, 1));
}

void F_Resize_Nearest_HWC_U8_C1_Arm_M1(TensorPtr const& i_img, TensorPtr& o_img) {
  ResizeNearest(FreeFrames(__func__, i_img, o_img, 1));
}

void F_Resize_Nearest_HWC_U8_C2_Fallback(TensorPtr const& i_img, TensorPtr& o_img) {
  ResizeNearest(FreeFrames(__func__, i_img, o_img, 2));
}

void F_Resize_Nearest_HWC_U8_C2_Arm_M1(TensorPtr const& i_img, TensorPtr& o_img) {
  ResizeNearest(FreeFrames(__func__, i_img, o_img, 2));
}

void F_Resize_Nearest_HWC_U8_C3_Fallback(TensorPtr const& i_img, TensorPtr& o_img) {
  ResizeNearest(FreeFrames(__func__, i_img, o_img, 3));
}

void F_Resize_Nearest_HWC_U8_C3_Arm_M1(TensorPtr const& i_img, TensorPtr& o_img) {
  ResizeNearest(FreeFrames(__func__, i_img, o_img, 3));
}

void F_Resize_Nearest_HWC_U8_C4_Fallback(TensorPtr const& i_img, TensorPtr& o_img) {
  ResizeNearest(FreeFrames(__func__, i_img, o_img, 4));
}

void F_Resize_Nearest_HWC_U8_C4_Arm_M1(TensorPtr const& i_img, TensorPtr& o_img) {
  ResizeNearest(FreeFrames(__func__, i_img, o_img, 4));
}

void F_Resize_Bilinear_HWC_U8_C1_Fallback(TensorPtr const& i_img, TensorPtr& o_img) {
  ResizeBilinear(FreeFrames(__func__, i_img, o_img, 1));
}

void F_Resize_Bilinear_HWC_U8_C1_Arm_M1(TensorPtr const& i_img, TensorPtr& o_img) {
  ResizeBilinear(FreeFrames(__func__, i_img, o_img, 1));
}

void F_Resize_Bilinear_HWC_U8_C2_Fallback(TensorPtr const& i_img, TensorPtr& o_img) {
  ResizeBilinear(FreeFrames(__func__, i_img, o_img, 2));
}

void F_Resize_Bilinear_HWC_U8_C2_Arm_M1(TensorPtr const& i_img, TensorPtr& o_img) {
  ResizeBilinear(FreeFrames(__func__, i_img, o_img, 2));
}

void F_Resize_Bilinear_HWC_U8_C3_Fallback(TensorPtr const& i_img, TensorPtr& o_img) {
  ResizeBilinear(FreeFrames(__func__, i_img, o_img, 3));
}

void F_Resize_Bilinear_HWC_U8_C3_Arm_M1(TensorPtr const& i_img, TensorPtr& o_img) {
  ResizeBilinear(FreeFrames(__func__, i_img, o_img, 3));
}

void F_Resize_Bilinear_HWC_U8_C4_Fallback(TensorPtr const& i_img, TensorPtr& o_img) {
  ResizeBilinear(FreeFrames(__func__, i_img, o_img, 4));
}

void F_Resize_Bilinear_HWC_U8_C4_Arm_M1(TensorPtr const& i_img, TensorPtr& o_img) {
  ResizeBilinear(FreeFrames(__func__, i_img, o_img, 4));
}

}  // namespace talvo::kernel::functional
