#include "talvo/image/crop.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "talvo/image/image_process_fallback.h"
#include "talvo/image/image_support.h"

namespace talvo::kernel {
namespace {

using namespace image;

// `rows` rows of `bytes` bytes; the ranges do not overlap.
void CopyRows(unsigned char const* from, std::size_t from_row, std::size_t rows, std::size_t bytes, unsigned char* to,
              std::size_t to_row) {
  for (std::size_t y = 0; y < rows; ++y) std::memcpy(to + y * to_row, from + y * from_row, bytes);
}

// Bytes up to the end of the pixel (y, x) in rows of `width` pixels; the largest number where it does not fit.
std::size_t BytesUpTo(std::int64_t y, std::int64_t x, std::int64_t width, std::size_t pixel_bytes) {
  auto const unsign = [](std::int64_t value) { return static_cast<std::size_t>(value); };
  std::size_t const rows = Volume(unsign(y), unsign(width), pixel_bytes);
  std::size_t const pixels = Volume(unsign(x + 1), pixel_bytes);
  return rows > std::numeric_limits<std::size_t>::max() - pixels ? rows : rows + pixels;
}

// The area from (top, left) to (bottom, right), both included, clipped to the image; a row of `dst` is as long as the
// area is wide before clipping.
void CropPixels(char const* operation, TensorPtr const& source, TensorPtr const& destination, float left_share,
                float top_share, float right_share, float bottom_share, std::size_t pixel_bytes) {
  Argument const src(operation, "src", source), dst(operation, "dst", destination);
  std::size_t const columns = src.Extent(1), lines = src.Extent(0);
  auto const w = static_cast<std::int64_t>(columns), h = static_cast<std::int64_t>(lines);
  std::int64_t const left = PixelOfShare(operation, left_share, columns);
  std::int64_t const top = PixelOfShare(operation, top_share, lines);
  std::int64_t const right = PixelOfShare(operation, right_share, columns);
  std::int64_t const bottom = PixelOfShare(operation, bottom_share, lines);
  // 64 bits: the sums of positions, which are ints, do not fit an int.
  std::int64_t const x0 = std::max<std::int64_t>(left, 0), x1 = std::min(w - 1, right);
  std::int64_t const y0 = std::max<std::int64_t>(top, 0), y1 = std::min(h - 1, bottom);
  if (x0 > x1 || y0 > y1) return;
  std::int64_t const span = right - left + 1;
  auto const* const from = src.Memory(BytesUpTo(y1, x1, w, pixel_bytes));
  auto* const to = dst.Memory(BytesUpTo(y1 - top, x1 - left, span, pixel_bytes));
  std::size_t const from_row = columns * pixel_bytes, to_row = static_cast<std::size_t>(span) * pixel_bytes;
  CopyRows(from + static_cast<std::size_t>(y0) * from_row + static_cast<std::size_t>(x0) * pixel_bytes, from_row,
           static_cast<std::size_t>(y1 - y0 + 1), static_cast<std::size_t>(x1 - x0 + 1) * pixel_bytes,
           to + static_cast<std::size_t>(y0 - top) * to_row + static_cast<std::size_t>(x0 - left) * pixel_bytes,
           to_row);
}

}  // namespace

void ImageProcessFallback::Crop_C1(TensorPtr& src, TensorPtr& dst, float left, float top, float right, float bottom,
                                   ContextPtr) {
  CropPixels("Crop_C1", src, dst, left, top, right, bottom, 1);
}

void ImageProcessFallback::Crop_C2(TensorPtr& src, TensorPtr& dst, float left, float top, float right, float bottom,
                                   ContextPtr) {
  CropPixels("Crop_C2", src, dst, left, top, right, bottom, 2);
}

void ImageProcessFallback::Crop_C3(TensorPtr& src, TensorPtr& dst, float left, float top, float right, float bottom,
                                   ContextPtr) {
  CropPixels("Crop_C3", src, dst, left, top, right, bottom, 3);
}

void ImageProcessFallback::Crop_C4(TensorPtr& src, TensorPtr& dst, float left, float top, float right, float bottom,
                                   ContextPtr) {
  CropPixels("Crop_C4", src, dst, left, top, right, bottom, 4);
}

}  // namespace talvo::kernel

namespace talvo::kernel::functional {
namespace {

// A layout as the crops see it: planes of rows of pixels.
struct RowLayout {
  unsigned int layout;
  char const* name;
  std::size_t row_axis;      // the columns are the axis behind it
  std::size_t channel_axis;  // whose extents must agree
  bool is_blocked;           // the axis behind the columns is the block, otherwise a pixel of its own is one element
};
constexpr RowLayout kHWC = {TensorShape::HWC, "HWC", 0, 2, false};
constexpr RowLayout kCHW = {TensorShape::CHW, "CHW", 1, 0, false};
constexpr RowLayout kC4HW4 = {TensorShape::C4HW4, "C4HW4", 1, 0, true};
constexpr RowLayout kC8HW8 = {TensorShape::C8HW8, "C8HW8", 1, 0, true};

struct Area {
  std::uint64_t y, x, height, width;
};

void ValidatePlanes(Argument const& image, RowLayout const& rows) {
  image.ValidateLayout(rows.layout, rows.name);
  image.ValidateMainMemory();
}

// Without a text: the shapes fit each other and the area.
void ValidateArea(Argument const& input, Argument const& output, RowLayout const& rows, Area const& area) {
  output.Validate(input.shape().data_type == output.shape().data_type, "needs the data type of i_img");
  output.Validate(area.height == output.Extent(rows.row_axis), "needs the height of the area");
  output.Validate(area.width == output.Extent(rows.row_axis + 1), "needs the width of the area");
  output.Validate(input.Extent(rows.channel_axis) == output.Extent(rows.channel_axis), "needs the channels of i_img");
  input.Validate(area.height + area.y <= input.Extent(rows.row_axis), "the area leaves it below");
  input.Validate(area.width + area.x <= input.Extent(rows.row_axis + 1), "the area leaves it on the right");
  if (!rows.is_blocked) return;
  output.Validate(input.Extent(3) == output.Extent(3), "needs the last axis of i_img");
  input.Validate(input.Extent(3) == 4 || input.Extent(3) == 8, "needs a last axis of 4 or 8");
}

void CropRows(char const* function, TensorPtr const& i_img, Area const& area, TensorPtr const& o_img,
              RowLayout const& rows) {
  Argument const input(function, "i_img", i_img), output(function, "o_img", o_img);
  input.ValidateTensorCPU();
  output.ValidateTensorCPU();
  ValidatePlanes(input, rows);
  ValidatePlanes(output, rows);
  ValidateArea(input, output, rows, area);
  // Interleaved channels are one plane of wide pixels, so that one loop over planes serves every layout.
  bool const interleaved = rows.channel_axis == 2;
  std::size_t const planes = interleaved ? 1 : input.Extent(0), columns = input.Extent(rows.row_axis + 1);
  std::size_t const elements = interleaved ? input.Extent(2) : rows.is_blocked ? input.Extent(3) : 1;
  std::size_t const pixel_bytes = runtime::ElementSize(input.shape().data_type) * elements;
  std::size_t const plane = Volume(input.Extent(rows.row_axis), columns, pixel_bytes);
  auto const size = [](std::uint64_t extent) { return static_cast<std::size_t>(extent); };  // the area lies in i_img
  std::size_t const cropped_plane = Volume(size(area.height), size(area.width), pixel_bytes);
  if (planes == 0 || cropped_plane == 0) return;
  auto const* const from = input.Memory(Volume(planes, plane));
  auto* const to = output.Memory(Volume(planes, cropped_plane));
  std::size_t const from_row = columns * pixel_bytes, to_row = size(area.width) * pixel_bytes;
  for (std::size_t p = 0; p < planes; ++p) {
    CopyRows(from + p * plane + size(area.y) * from_row + size(area.x) * pixel_bytes, from_row, size(area.height),
             to_row, to + p * cropped_plane, to_row);
  }
}

void ValidateByteFrame(Argument const& image) {
  image.ValidateType(TensorShape::UINT8, "UInt8");
  image.ValidateLayout(TensorShape::HWC, "HWC");
  image.ValidateMainMemory();
}

void CropFilled(char const* function, TensorPtr const& i_img, std::int64_t y, std::int64_t x, std::int64_t height,
                std::int64_t width, unsigned char fill, TensorPtr const& o_img) {
  Argument const input(function, "i_img", i_img), output(function, "o_img", o_img);
  input.ValidateTensorCPU();
  output.ValidateTensorCPU();
  ValidateByteFrame(input);
  ValidateByteFrame(output);
  output.Validate(height == static_cast<std::int64_t>(output.Extent(0)), "needs the height of the area");
  output.Validate(width == static_cast<std::int64_t>(output.Extent(1)), "needs the width of the area");
  output.Validate(input.Extent(2) == output.Extent(2), "needs the channels of i_img");
  std::size_t const lines = input.Extent(0), columns = input.Extent(1), pixel_bytes = input.Extent(2);
  std::size_t const bytes = runtime::ByteCount(output.shape());  // all of it, also what further axes hold
  auto const* const from = input.Memory(Volume(lines, columns, pixel_bytes));
  auto* const to = output.Memory(std::max(bytes, Volume(output.Extent(0), output.Extent(1), pixel_bytes)));
  if (bytes == 0) return;
  std::memset(to, fill, bytes);
  std::int64_t const y0 = std::max<std::int64_t>(y, 0), x0 = std::max<std::int64_t>(x, 0);
  std::int64_t const y1 = std::min(y + height, static_cast<std::int64_t>(lines));
  std::int64_t const x1 = std::min(x + width, static_cast<std::int64_t>(columns));
  if (y0 >= y1 || x0 >= x1) return;  // y1 and x1 are one behind the last
  auto const offset = [&](std::int64_t row, std::int64_t column, std::size_t row_pixels) {
    return (static_cast<std::size_t>(row) * row_pixels + static_cast<std::size_t>(column)) * pixel_bytes;
  };
  CopyRows(from + offset(y0, x0, columns), columns * pixel_bytes, static_cast<std::size_t>(y1 - y0),
           static_cast<std::size_t>(x1 - x0) * pixel_bytes,
           to + offset(y0 - y, x0 - x, static_cast<std::size_t>(width)), static_cast<std::size_t>(width) * pixel_bytes);
}

}  // namespace

void F_Crop_HWC_Memcpy(TensorPtr const& i_img, unsigned int const& y, unsigned int const& x, unsigned int const& height,
                       unsigned int const& width, TensorPtr& o_img) {
  CropRows(__func__, i_img, {y, x, height, width}, o_img, kHWC);
}

void F_Crop_HWC_Arm(TensorPtr const& i_img, unsigned int const& y, unsigned int const& x, unsigned int const& height,
                    unsigned int const& width, TensorPtr& o_img) {
  CropRows(__func__, i_img, {y, x, height, width}, o_img, kHWC);
}

void F_Crop_CHW_Memcpy(TensorPtr const& i_img, unsigned int const& y, unsigned int const& x, unsigned int const& height,
                       unsigned int const& width, TensorPtr& o_img) {
  CropRows(__func__, i_img, {y, x, height, width}, o_img, kCHW);
}

void F_Crop_CHW_Arm(TensorPtr const& i_img, unsigned int const& y, unsigned int const& x, unsigned int const& height,
                    unsigned int const& width, TensorPtr& o_img) {
  CropRows(__func__, i_img, {y, x, height, width}, o_img, kCHW);
}

void F_Crop_C4HW4_Memcpy(TensorPtr const& i_img, unsigned int const& y, unsigned int const& x,
                         unsigned int const& height, unsigned int const& width, TensorPtr& o_img) {
  CropRows(__func__, i_img, {y, x, height, width}, o_img, kC4HW4);
}

void F_Crop_C4HW4_Arm(TensorPtr const& i_img, unsigned int const& y, unsigned int const& x, unsigned int const& height,
                      unsigned int const& width, TensorPtr& o_img) {
  CropRows(__func__, i_img, {y, x, height, width}, o_img, kC4HW4);
}

void F_Crop_C8HW8_Memcpy(TensorPtr const& i_img, unsigned int const& y, unsigned int const& x,
                         unsigned int const& height, unsigned int const& width, TensorPtr& o_img) {
  CropRows(__func__, i_img, {y, x, height, width}, o_img, kC8HW8);
}

void F_Crop_C8HW8_Arm(TensorPtr const& i_img, unsigned int const& y, unsigned int const& x, unsigned int const& height,
                      unsigned int const& width, TensorPtr& o_img) {
  CropRows(__func__, i_img, {y, x, height, width}, o_img, kC8HW8);
}

void F_Crop_U8_HWC_Memcpy(TensorPtr const& i_img, int const& y, int const& x, int const& height, int const& width,
                          unsigned char const& fill, TensorPtr& o_img) {
  CropFilled(__func__, i_img, y, x, height, width, fill, o_img);
}

void F_Crop_U8_HWC_Arm(TensorPtr const& i_img, int const& y, int const& x, int const& height, int const& width,
                       unsigned char const& fill, TensorPtr& o_img) {
  CropFilled(__func__, i_img, y, x, height, width, fill, o_img);
}

}  // namespace talvo::kernel::functional
